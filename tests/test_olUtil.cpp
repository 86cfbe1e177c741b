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

// Stores a value in wire class N, checks the bytes held and the value read back.
template <typename N, typename V>
void expectStored(V value, std::array<unsigned char, sizeof(V)> const& bytes)
{
   SCOPED_TRACE(::testing::Message() << "value " << value);
   N const stored(value);
   EXPECT_EQ(bytes, bytesOf(stored));
   EXPECT_EQ(value, static_cast<V>(stored));
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
   EXPECT_EQ((std::array<std::size_t, 6>{2, 4, 8, 2, 4, 16}),
             (std::array<std::size_t, 6>{sizeof(DtNetU16), sizeof(DtNetU32), sizeof(DtNetU64),
                                         sizeof(DtNetInt16), sizeof(DtNetInt32), sizeof(DtU128)}));
   // Records made of these classes are copied to the wire as they stand.
   EXPECT_TRUE(std::is_trivially_copyable<DtNetU64>::value);

   EXPECT_EQ(DtByteOrderNetwork, DtNetworkByteOrder);
   EXPECT_EQ(4, DtVariableArraySizeLength);
}

TEST_F(ByteOrder, NetworkOrderStoresBigEndian)
{
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   EXPECT_EQ(0ul, static_cast<unsigned long>(DtNetU64()));
   expectStored<DtNetU16>(static_cast<unsigned short>(0x1234), {0x12, 0x34});
   expectStored<DtNetU32>(1u, {0, 0, 0, 1});
   expectStored<DtNetU64>(0x0102030405060708ul, {1, 2, 3, 4, 5, 6, 7, 8});
   expectStored<DtNetInt16>(static_cast<short>(-2), {0xff, 0xfe});
   expectStored<DtNetInt32>(-0x01020304, {0xfe, 0xfd, 0xfc, 0xfc});

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
      unsigned short const value16 = 0xabcd;
      expectStored<DtNetU16>(value16, bytesOf(value16));
      expectStored<DtNetU32>(0x01020304u, bytesOf(0x01020304u));
      // Low half first: the whole is the machine's own 64-bit form.
      expectStored<DtNetU64>(0x0102030405060708ul, bytesOf(0x0102030405060708ul));
      expectStored<DtNetInt32>(-5, bytesOf(-5));
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
         EXPECT_EQ(value, static_cast<unsigned long>(DtNetU64(value))) << value;
      EXPECT_EQ(-2147483647 - 1, static_cast<int>(DtNetInt32(-2147483647 - 1)));
      EXPECT_EQ(-32768, static_cast<short>(DtNetInt16(static_cast<short>(-32768))));
   }
}

TEST(U128, LowWordConstruction)
{
   DtU128 const low(42ul);
   EXPECT_TRUE(low.high == 0ul && low.low == 42ul);
   EXPECT_TRUE(DtU128(1ul, 2ul) != low);
   EXPECT_TRUE(DtU128(1ul, 2ul) == DtU128(1ul, 2ul));
}
