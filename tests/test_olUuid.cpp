// Tests of the 16-byte unique identifier.
#include <olutil/olUuid.h>

#include <olutil/olPrint.h>

#include <cstring>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{
using olt::CapturePrinter;

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

TEST(Uuid, DefaultIsNullAndEqualToNullUuid)
{
   DtOstUuid const a;
   EXPECT_TRUE(a == DtOstUuid::nullUuid());
   EXPECT_EQ("00000000-0000-0000-0000-000000000000", textOf(a));
}

TEST(Uuid, GeneratedIdentifiersDifferAndAreVersioned)
{
   std::set<std::string> seen;
   for (int i = 0; i < 64; ++i)
   {
      DtOstUuid id;
      id.generateUniqueId();
      // Variant bits 10x in byte 8, as every RFC 4122 identifier has.
      EXPECT_EQ(0x80, id.data()[8] & 0xc0);
      seen.insert(textOf(id));
   }
   EXPECT_EQ(64u, seen.size());
}

TEST(Uuid, TextAndByteRoundTrips)
{
   DtOstUuid const id = fromText(theKnownText);
   unsigned char const expected[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                       0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
   EXPECT_EQ(0, std::memcmp(expected, id.data(), 16));
   EXPECT_EQ(theKnownText, textOf(id));
   EXPECT_TRUE(fromText("00112233-4455-6677-8899-AABBCCDDEEFF") == id) << "upper case parses";

   // setData copies sixteen bytes and no more.
   char const bytes[17] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17};
   DtOstUuid raw;
   raw.setData(bytes);
   EXPECT_EQ("01020304-0506-0708-090a-0b0c0d0e0f10", textOf(raw));
}

TEST(Uuid, BadTextWarnsAndKeepsTheValue)
{
   char const* const badTexts[] = {
       "",
       "not a uuid",
       "00112233-4455-6677-8899-aabbccddeef",    // one digit short
       "00112233-4455-6677-8899-aabbccddeeff0",  // one digit long
       "0011223g-4455-6677-8899-aabbccddeeff",   // not hexadecimal
       "001122334455667788990aabbccddeeff0000",  // no separators
   };
   for (char const* bad : badTexts)
   {
      SCOPED_TRACE(bad);
      CapturePrinter capture(DtWarn);
      DtOstUuid id = fromText(theKnownText);
      id.setDataString(bad);
      EXPECT_EQ(theKnownText, textOf(id));
      // The warning is the message alone, with no end of line of its own.
      EXPECT_EQ(std::string("Failed to convert ") + bad + " to a UUID.", capture.text());
   }
}

TEST(Uuid, CopiesAndByteWiseOrder)
{
   DtOstUuid a;
   a.generateUniqueId();
   DtOstUuid const b(a);
   DtOstUuid c;
   c = a;
   EXPECT_TRUE(c == a);
   c.generateUniqueId();
   EXPECT_TRUE(c != a);
   EXPECT_TRUE(b == a) << "copies are independent";

   DtOstUuid const low = fromText("00000000-0000-0000-0000-0000000000ff");
   DtOstUuid const high = fromText("01000000-0000-0000-0000-000000000000");
   EXPECT_TRUE(low < high);
   EXPECT_FALSE(high < low || low < low);
}

TEST(Uuid, PrintForms)
{
   DtOstUuid const id = fromText(theKnownText);
   std::ostringstream stream;
   stream << id;
   EXPECT_EQ(theKnownText, stream.str());
   {
      CapturePrinter capture(DtInfo);
      id.print();
      EXPECT_EQ(std::string("UUID String: ") + theKnownText + "\n", capture.text());
   }
   CapturePrinter capture(DtInfo);
   id.printData();
   DtInfo << std::flush;
   EXPECT_EQ(theKnownText, capture.text());
}
