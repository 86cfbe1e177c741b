// Tests of the wire-order number classes.
#include <olutil/olUtil.h>

#include <array>
#include <cstring>
#include <type_traits>

#include <gtest/gtest.h>

namespace
{
template <typename T>
std::array<unsigned char, sizeof(T)> bytesOf(T const& value)
{
   std::array<unsigned char, sizeof(T)> bytes;
   std::memcpy(bytes.data(), &value, sizeof(T));
   return bytes;
}

// Each test runs under a chosen order and leaves the process order as it was.
class ByteOrder : public ::testing::Test
{
protected:
   void SetUp() override { mySaved = DtNetworkByteOrdering(); }
   void TearDown() override { DtSetNetworkByteOrdering(mySaved); }

private:
   DtNetworkByteOrderType mySaved = DtByteOrderNetwork;
};
}  // namespace

TEST(NetworkOrderLayout, ClassesHoldExactlyTheirStoredBytes)
{
   EXPECT_EQ(2u, sizeof(DtNetU16));
   EXPECT_EQ(4u, sizeof(DtNetU32));
   EXPECT_EQ(8u, sizeof(DtNetU64));
   EXPECT_EQ(2u, sizeof(DtNetInt16));
   EXPECT_EQ(4u, sizeof(DtNetInt32));
   EXPECT_EQ(16u, sizeof(DtU128));
   // Records made of these classes are copied to the wire as they stand.
   EXPECT_TRUE(std::is_trivially_copyable<DtNetU64>::value);
   EXPECT_FALSE(std::is_polymorphic<DtNetU16>::value);

   EXPECT_EQ(DtByteOrderNetwork, DtNetworkByteOrder);
   EXPECT_EQ(4, DtVariableArraySizeLength);
}

TEST_F(ByteOrder, NetworkOrderStoresBigEndian)
{
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   EXPECT_EQ(0ul, static_cast<unsigned long>(DtNetU64()));

   DtNetU32 one;
   one = 1u;
   EXPECT_EQ((std::array<unsigned char, 4>{0, 0, 0, 1}), bytesOf(one));
   EXPECT_EQ(1u, static_cast<unsigned int>(one));

   DtNetU16 port(static_cast<unsigned short>(0x1234));
   EXPECT_EQ((std::array<unsigned char, 2>{0x12, 0x34}), bytesOf(port));
   EXPECT_EQ(0x1234, static_cast<unsigned short>(port));

   DtNetU64 big;
   big = 0x0102030405060708ul;
   EXPECT_EQ((std::array<unsigned char, 8>{1, 2, 3, 4, 5, 6, 7, 8}), bytesOf(big));
   EXPECT_EQ(0x0102030405060708ul, static_cast<unsigned long>(big));

   DtNetInt16 minusTwo(static_cast<short>(-2));
   EXPECT_EQ((std::array<unsigned char, 2>{0xff, 0xfe}), bytesOf(minusTwo));
   EXPECT_EQ(-2, static_cast<short>(minusTwo));

   DtNetInt32 negative;
   negative = -0x01020304;
   EXPECT_EQ((std::array<unsigned char, 4>{0xfe, 0xfd, 0xfc, 0xfc}), bytesOf(negative));
   EXPECT_EQ(-0x01020304, static_cast<int>(negative));

   // A record is read from a wire buffer as it stands.
   unsigned char const wire[4] = {0, 0, 1, 0};
   DtNetU32 fromWire;
   std::memcpy(&fromWire, wire, sizeof(wire));
   EXPECT_EQ(256u, static_cast<unsigned int>(fromWire));
}

TEST_F(ByteOrder, AnyOtherOrderStoresTheMachinesBytes)
{
   for (int order : {0, 7})
   {
      SCOPED_TRACE(order);
      DtSetNetworkByteOrdering(static_cast<DtNetworkByteOrderType>(order));

      unsigned int const value32 = 0x01020304u;
      DtNetU32 n32(value32);
      EXPECT_EQ(bytesOf(value32), bytesOf(n32));
      EXPECT_EQ(value32, static_cast<unsigned int>(n32));

      unsigned short const value16 = 0xabcd;
      EXPECT_EQ(bytesOf(value16), bytesOf(DtNetU16(value16)));

      // Low half first: the whole is the machine's own 64-bit form.
      unsigned long const value64 = 0x0102030405060708ul;
      DtNetU64 n64(value64);
      EXPECT_EQ(bytesOf(value64), bytesOf(n64));
      EXPECT_EQ(value64, static_cast<unsigned long>(n64));

      int const valueInt = -5;
      DtNetInt32 nInt(valueInt);
      EXPECT_EQ(bytesOf(valueInt), bytesOf(nInt));
      EXPECT_EQ(-5, static_cast<int>(nInt));
   }
}

TEST_F(ByteOrder, OrderIsConsultedOnEveryAccess)
{
   // Written under one order and read under the other, a number comes back
   // byte-swapped: nothing converts the values already stored.
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   DtNetU32 n32(0x01020304u);
   DtNetU16 n16(static_cast<unsigned short>(0x0102));
   DtNetU64 n64(0x0102030405060708ul);
   DtNetworkByteOrder = DtByteOrderMachine;  // applications may assign it directly
   EXPECT_EQ(0x04030201u, static_cast<unsigned int>(n32));
   EXPECT_EQ(0x0201u, static_cast<unsigned short>(n16));
   EXPECT_EQ(0x0807060504030201ul, static_cast<unsigned long>(n64));
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   EXPECT_EQ(0x01020304u, static_cast<unsigned int>(n32));
}

TEST_F(ByteOrder, RoundTripsAtTheEdgesUnderBothOrders)
{
   for (auto order : {DtByteOrderNetwork, DtByteOrderMachine})
   {
      SCOPED_TRACE(order);
      DtSetNetworkByteOrdering(order);
      for (unsigned long value : {0xfffffffful, 0x100000000ul, ~0ul})
      {
         SCOPED_TRACE(value);
         EXPECT_EQ(value, static_cast<unsigned long>(DtNetU64(value)));
      }
      EXPECT_EQ(-2147483647 - 1, static_cast<int>(DtNetInt32(-2147483647 - 1)));
      EXPECT_EQ(-32768, static_cast<short>(DtNetInt16(static_cast<short>(-32768))));
   }
}

TEST(U128, LowWordConstruction)
{
   DtU128 low(42ul);
   EXPECT_EQ(0ul, low.high);
   EXPECT_EQ(42ul, low.low);
   DtU128 copy;
   copy = DtU128(1ul, 2ul);
   EXPECT_TRUE(copy != low);
   EXPECT_TRUE(copy == DtU128(1ul, 2ul));
}
