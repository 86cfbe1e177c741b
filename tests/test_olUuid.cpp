// Tests of the 16-byte unique identifier.
#include <olutil/olUuid.h>

#include <cstring>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{
std::string textOf(DtOstUuid const& uuid)
{
   DtString text;
   uuid.getString(text);
   return text.c_str();
}

DtOstUuid fromText(char const* text)
{
   DtOstUuid uuid;
   uuid.setDataString(text);
   return uuid;
}

char const* const theKnownText = "00112233-4455-6677-8899-aabbccddeeff";
}  // namespace

TEST(Uuid, DefaultIsNullAndGeneratedOnesDiffer)
{
   DtOstUuid a, b;
   EXPECT_TRUE(a == DtOstUuid::nullUuid());
   EXPECT_EQ("00000000-0000-0000-0000-000000000000", textOf(a));
   a.generateUniqueId();
   b.generateUniqueId();
   EXPECT_TRUE(a != b && a != DtOstUuid::nullUuid());
}

TEST(Uuid, TextAndBytesRoundTrip)
{
   DtOstUuid const id = fromText(theKnownText);
   EXPECT_EQ(0, std::memcmp("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff",
                            id.data(), 16));
   EXPECT_EQ(theKnownText, textOf(id));
   DtOstUuid raw;
   raw.setData("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10");
   EXPECT_EQ("01020304-0506-0708-090a-0b0c0d0e0f10", textOf(raw));
}

TEST(Uuid, BadTextWarnsAndKeepsTheValue)
{
   for (char const* bad :
        {"", "00112233-4455-6677-8899-aabbccddeef", "0011223g-4455-6677-8899-aabbccddeeff"})
   {
      olt::CapturePrinter capture(DtWarn);
      DtOstUuid id = fromText(theKnownText);
      id.setDataString(bad);
      EXPECT_EQ(theKnownText, textOf(id));
      EXPECT_EQ(std::string("Failed to convert ") + bad + " to a UUID.", capture.text());
   }
}

TEST(Uuid, CopiesAndByteWiseOrder)
{
   DtOstUuid const low = fromText("00000000-0000-0000-0000-0000000000ff");
   DtOstUuid const high = fromText("01000000-0000-0000-0000-000000000000");
   DtOstUuid copy(low), assigned;
   assigned = high;
   EXPECT_TRUE(copy == low && assigned == high && copy < assigned);
   EXPECT_FALSE(high < low || low < low);
   DtOstUuid const lowest = fromText("00000000-0000-0000-0000-0000000000fe");
   EXPECT_TRUE(lowest < low && lowest != low) << "the last byte counts too";
}

TEST(Uuid, PrintForms)
{
   DtOstUuid const id = fromText(theKnownText);
   std::ostringstream stream;
   stream << id;
   EXPECT_EQ(theKnownText, stream.str());
   olt::CapturePrinter capture(DtInfo);
   id.print();
   id.printData();
   DtInfo << std::flush;
   EXPECT_EQ(std::string("UUID String: ") + theKnownText + "\n" + theKnownText, capture.text());
}
