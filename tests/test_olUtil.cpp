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
   N const stored(value);
   EXPECT_EQ(bytes, bytesOf(stored)) << value;
   EXPECT_EQ(value, static_cast<V>(stored));
}

class ByteOrder : public ::testing::Test
{
protected:
   void TearDown() override { DtSetNetworkByteOrdering(mySaved); }
   DtNetworkByteOrderType const mySaved = DtNetworkByteOrdering();
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
   DtU128 const low(42ul);
   EXPECT_TRUE(low.high == 0ul && low.low == 42ul);
}

TEST_F(ByteOrder, NetworkOrderStoresBigEndian)
{
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   expectStored<DtNetU16>(static_cast<unsigned short>(0x1234), {0x12, 0x34});
   expectStored<DtNetU32>(1u, {0, 0, 0, 1});
   expectStored<DtNetU64>(0x0102030405060708ul, {1, 2, 3, 4, 5, 6, 7, 8});
   expectStored<DtNetInt16>(static_cast<short>(-32768), {0x80, 0});
   expectStored<DtNetInt32>(-0x01020304, {0xfe, 0xfd, 0xfc, 0xfc});
}

TEST_F(ByteOrder, AnyOtherOrderStoresTheMachinesBytes)
{
   DtSetNetworkByteOrdering(static_cast<DtNetworkByteOrderType>(7));
   unsigned short const value16 = 0xabcd;
   expectStored<DtNetU16>(value16, bytesOf(value16));
   // Low half first: the whole is the machine's own 64-bit form.
   expectStored<DtNetU64>(0x0102030405060708ul, bytesOf(0x0102030405060708ul));
   expectStored<DtNetInt32>(-5, bytesOf(-5));
}

TEST_F(ByteOrder, OrderIsConsultedOnEveryAccess)
{
   // Nothing converts the values already stored: they come back byte-swapped.
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
   DtNetU32 n32(0x01020304u);
   DtNetU64 n64(0x0102030405060708ul);
   DtNetworkByteOrder = DtByteOrderMachine;  // applications may assign it directly
   EXPECT_EQ(0x04030201u, static_cast<unsigned int>(n32));
   EXPECT_EQ(0x0807060504030201ul, static_cast<unsigned long>(n64));
}
