// Tests of the client/server messages (layouts, wrapping, printing, both transports),
// the message buffer DtBaseMsg, and the rendezvous paths and sockets.
#include <olutil/olCliServer.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olPrint.h>

#include "support_capture.h"
#include "support_shm.h"

namespace
{

// Every stream prints, and the test sees what each one printed.
struct Streams
{
   Streams() { DtNotifyLevel = 4; }
   ~Streams() { DtNotifyLevel = savedLevel; }
   int const savedLevel = DtNotifyLevel;
   olt::CapturePrinter verbose{DtVerbose}, info{DtInfo}, warn{DtWarn};
};

// A received message, as a server or client wraps what it read.
struct Received : DtClientServerMsg
{
   using DtClientServerMsg::DtClientServerMsg;
   int send() override { return 0; }
};

std::string bytesOf(DtClientServerMsg const& m)
{
   return std::string(reinterpret_cast<char const*>(&m.msg), m.msgLength);
}

// A path of this test process, removed first and at the end.
struct TempPath
{
   explicit TempPath(std::string where) : path(std::move(where)) { unlink(path.c_str()); }
   ~TempPath() { unlink(path.c_str()); }
   bool make() const { return std::ofstream(path).good(); }
   std::string const path;
};

TEST(DtCsMsgTest, EachKindIsBuiltWithItsNumberSizeAndFieldsInPlace)
{
   // A message, its size, and its first bytes in hex (little-endian fields).
   std::vector<std::tuple<std::shared_ptr<DtClientServerMsg>, std::size_t, std::string>> const rows = {
       {std::make_shared<DtCsAddClientMsg>(-1, 0xa1b2, -2, 3, 0x7fffffff, "client"), 176,
        "0103b2a1" "feffffff" "03000000" "ffffff7f" "636c69656e7400"},
       // Texts are cut at their field, which a full text fills without a terminator.
       {std::make_shared<DtCsAddClientMsg>(-1, 0, 0, 0, 0, std::string(170, 'f').c_str()), 176,
        "01030000" "00000000" "00000000" "00000000" + std::string(320, '6')},
       {std::make_shared<DtCsAddClientMsg>(-1, 0, 0, 0, 0, nullptr), 176, "01030000" "00000000" "00000000" "00000000" "00"},
       {std::make_shared<DtCsControlReqMsg>(-1, 7, 0xdeadbeef), 8, "04030700" "efbeadde"},
       {std::make_shared<DtCsFilterMsg>(-1, 1, 2, 3, 4), 12, "05030102" "03000000" "04000000"},
       {std::make_shared<DtCsAckMsg>(-1, 9, 10, 11, 12, -13, 14), 24,
        "06030900" "0a000000" "0b000000" "0c000000" "f3ffffff" "0e000000"},
       {std::make_shared<DtCsServerPacketMsg>(nullptr, 21, 22, 23, nullptr), 16, "08030000" "15000000" "16000000" "17000000"},
       {std::make_shared<DtCsStateReturnMsg>(nullptr, 2, 300, 301, -5, 5000, 1), 16, "09030201" "2c012d01" "fbffffff" "88130000"},
       {std::make_shared<DtCsCStateReturnMsg>(nullptr, 0x0123, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14), 40,
        "0a032301" "04050600" "07000000" "08000000" "09000000" "0a000000" "0b000000" "0c000000"
        "0d000000" "0e000000"},
       {std::make_shared<DtCsMulticastReqMsg>(-1, 2, 0xe0000001, 77), 12, "0d030200" "010000e0" "4d000000"},
   };
   for (auto const& [message, size, hex] : rows)
   {
      SCOPED_TRACE(hex);
      std::string const bytes = bytesOf(*message);
      EXPECT_EQ(size, bytes.size());
      std::string seen;
      for (unsigned char byte : bytes.substr(0, hex.size() / 2))
         seen += std::string(1, "0123456789abcdef"[byte >> 4]) + "0123456789abcdef"[byte & 15];
      EXPECT_EQ(hex, seen);
   }
}

TEST(DtCsMsgWrapTest, ReceivedBytesAreCutToTheirKindAndShortOrUnknownOnesRefused)
{
   // Each kind's name and size; the rest are unknown.
   std::pair<char const*, std::size_t> const kinds[] = {
       {"MsgWaiting", 2},    {"AddClient", 176},   {"ClientPacket", 8}, {nullptr, 0},     {"ControlReq", 8},
       {"Filter", 12},       {"Ack", 24},          {"CliQuota", 2},     {"ServerPacket", 16},
       {"StateReturn", 16},  {"CStateReturn", 40}, {"Warning", 164},    {"Notice", 4},    {"MulticastReq", 12}};
   std::vector<char> bytes(220);
   std::iota(bytes.begin(), bytes.end(), char{8});  // version 9
   for (int kind : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 255})
   {
      SCOPED_TRACE(kind);
      bytes[0] = static_cast<char>(kind);
      std::string const k = std::to_string(kind);
      auto const [name, size] = kind < 14 ? kinds[kind] : std::pair<char const*, std::size_t>();
      EXPECT_EQ(size, DtCsMsgKindSize(kind));
      Streams streams;
      if (!name)
      {
         Received m(bytes.data(), bytes.size());
         m.msg.header.kind = static_cast<std::uint8_t>(kind);
         m.print();
         EXPECT_EQ(0u, m.msgLength);
         EXPECT_EQ("Unknown msg kind (" + k + ") in  DtClientServerMsg()Unknown msg kind (" + k +
                       ") in  DtClientServerMsg::print()",
                   streams.warn.text());
         continue;
      }
      Received exact(bytes.data(), size), longer(bytes.data(), size + 40), cut(bytes.data(), size - 1);
      EXPECT_EQ(std::string(bytes.data(), size), bytesOf(exact));
      EXPECT_EQ(std::string(bytes.data(), size), bytesOf(longer));
      EXPECT_EQ(0u, cut.msgLength);
      exact.print();
      EXPECT_EQ(std::string(name) + " message (version 9):\n", streams.verbose.text());
      EXPECT_EQ("Short msg kind (" + k + "), " + std::to_string(size - 1) + " of " + std::to_string(size) +
                    " bytes, in  DtClientServerMsg()\n",
                streams.warn.text());
   }
   Streams streams;
   EXPECT_EQ(0u, Received(nullptr, 0).msgLength);
   EXPECT_EQ("Empty msg in  DtClientServerMsg()\n", streams.warn.text());
   DtCsNoticeMsg notice(nullptr, 4);
   EXPECT_EQ(bytesOf(notice), bytesOf(Received(&notice.msg)));  // a whole DtCsMsg, by its kind
}

TEST(DtCsMsgPrintTest, StatesWarningsAndNoticesPrintTheirSentencesOnTheirStreams)
{
   std::string const full(160, 'w');
   auto warning = std::make_shared<DtCsWarningMsg>(nullptr, 12, full.c_str());
   // Bytes after a full text field are not part of the text.
   std::memset(reinterpret_cast<char*>(&warning->msg) + 164, 'X', sizeof warning->msg - 164);
   auto notice = [](unsigned short n) { return std::make_shared<DtCsNoticeMsg>(nullptr, n); };
   // A message, what it prints on DtInfo and on DtWarn.
   std::vector<std::tuple<std::shared_ptr<DtClientServerMsg>, std::string, std::string>> const rows = {
       {std::make_shared<DtCsStateReturnMsg>(nullptr, 0, 1, 1, -1, 4000, 1),
        "    ostrel server on port 4000 is alive (external) \n    performing unbundling\n"
        "    1 packet client (no maximum)\n    1 control client\n", ""},
       {std::make_shared<DtCsStateReturnMsg>(nullptr, 1, 0, 2, 0, 4000, 0),
        "    ostrel server on port 4000 is alive (internal) \n    not performing unbundling\n"
        "    0 packet clients (0 maximum)\n    2 control clients\n", ""},
       {std::make_shared<DtCsStateReturnMsg>(nullptr, 2, 2, 0, 12, 4000, 7),
        "    ostrel server on port 4000 is alive (but not well) \n    performing unbundling\n"
        "    2 packet clients (12 maximum)\n    0 control clients\n", ""},
       {std::make_shared<DtCsCStateReturnMsg>(nullptr, 0x0180, 0, 0, 0, 1, 2, 100, 200, 3, 4, 5, 6),
        "    (control) client 2 (process 1): server sent 4, rcvd 3 msgs\n"
        "    dropped 6 old and 5 new - sendQ 200 bytes - recvQ 100 bytes\n    Modes:\n", ""},
       {std::make_shared<DtCsCStateReturnMsg>(nullptr, 0x00a0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 0, 0),
        "    (packet) client 2 (process 1): server sent 0, rcvd 0 msgs\n"
        "    dropped 0 old and 0 new - sendQ 0 bytes - recvQ 0 bytes\n    Modes: CliWait\n", ""},
       {std::make_shared<DtCsCStateReturnMsg>(nullptr, 0x0053, 2, 3, 0x0f, 7, 8, 0, 9, 10, 11, 12, 13),
        "    (packet) client 8 (process 7): server sent 11, rcvd 10 msgs\n"
        "    dropped 13 old and 12 new - sendQ 9 bytes - recvQ 0 bytes\n    Modes: Read Write SvrDropOldest"
        " CliDropOldest SvrWait CliWait Notify SvrBlockRead SvrBlockWrite CliBlockRead CliBlockWrite\n", ""},
       {warning, "", "    Server warning 12: " + full + "\n"},
       {std::make_shared<DtCsWarningMsg>(nullptr, 1, (full + "cut").c_str()), "", "    Server warning 1: " + full + "\n"},
       {notice(0), "    Packet server now external\n", ""},
       {notice(1), "    Packet server now internal\n", ""},
       {notice(2), "", "    Closing socket: server external client quota exceeded\n"},
       {notice(3), "    ClientSocket: ping\n", ""},
       {notice(4), "", "    Packet server is closing socket\n"},
       {notice(5), "", ""},
   };
   for (auto const& [message, info, warn] : rows)
   {
      SCOPED_TRACE(info + warn);
      Streams streams;
      message->print();
      EXPECT_NE(std::string::npos, streams.verbose.text().find(" message (version 3):\n"));
      EXPECT_EQ(info, streams.info.text());
      EXPECT_EQ(warn, streams.warn.text());
   }
}

TEST(DtShmMsgTest, ServerPacketArrivesWithItsPayloadInOneElementAndWrapsBack)
{
   olt::QueuePair q(4096, false);
   char payload[] = "0123456789abcdefXYZ";
   DtCsServerPacketMsg packet(&q.writer, 1, 2, 19, payload);
   EXPECT_EQ(19, packet.send());
   ASSERT_EQ(40, q.read());
   EXPECT_EQ(bytesOf(packet) + std::string(payload, 19), std::string(q.got.data(), 35));
   EXPECT_EQ(bytesOf(packet), bytesOf(Received(q.got.data(), q.got.size())));
   // A failed write comes back less the header's size.
   std::vector<char> huge(8000);
   EXPECT_EQ(-17, DtCsServerPacketMsg(&q.writer, 0, 0, huge.size(), huge.data()).send());
   EXPECT_EQ(0, DtCsNoticeMsg(nullptr, 3).send());
   EXPECT_EQ(1, q.writer.getMessagesWritten());
   // A result equal to the header's size, an empty packet's, is returned as it stands.
   EXPECT_EQ(16, DtCsServerPacketMsg(&q.writer, 0, 0, 0, nullptr).send());
}

// A message that records the sizes it is told of.
struct SizedMsg : DtBaseMsg
{
   using DtBaseMsg::DtBaseMsg;
   using DtBaseMsg::operator=;
   void messageSizeChanged(int size) override { reported.push_back(size); }
   std::string bytes() const { return std::string(netRep(), length()); }
   std::vector<int> reported;
};

TEST(DtBaseMsgTest, InsertAndDeleteMoveTheRestInEitherBufferAndReportTheNewSize)
{
   // A change to "abcdef", the bytes after it and the size reported (-1: none).
   std::vector<std::tuple<char const*, std::function<void(SizedMsg&)>, std::string, int>> const rows = {
       {"insert in the middle", [](SizedMsg& m) { m.insertBytes(2, 3); }, std::string("ab\0\0\0cdef", 9), 9},
       {"insert at the end", [](SizedMsg& m) { m.insertBytes(6, 2); }, std::string("abcdef\0\0", 8), 8},
       {"insert by pointer", [](SizedMsg& m) { m.insertBytes(m.netRep() + 1, 1); }, std::string("a\0bcdef", 7), 7},
       {"insert by pointer at the end", [](SizedMsg& m) { m.insertBytes(m.netRep() + 6, 1); },
        std::string("abcdef\0", 7), 7},
       {"insert outside", [](SizedMsg& m) { m.insertBytes(7, 2); m.insertBytes(-1, 2); m.insertBytes(m.netRep() + 100, 1); },
        "abcdef", -1},
       {"delete in the middle", [](SizedMsg& m) { m.deleteBytes(1, 2); }, "adef", 4},
       {"delete all", [](SizedMsg& m) { m.deleteBytes(0, 6); }, "", 0},
       {"delete by pointer", [](SizedMsg& m) { m.deleteBytes(m.netRep() + 5, 1); }, "abcde", 5},
       {"delete outside", [](SizedMsg& m) { m.deleteBytes(4, 3); m.deleteBytes(1, -1); }, "abcdef", -1},
       {"grow", [](SizedMsg& m) { m.changeSize(8); }, std::string("abcdef\0\0", 8), 8},
       {"shrink and grow", [](SizedMsg& m) { m.changeBufferSize(2); m.changeBufferSize(5); }, std::string("ab\0\0\0", 5), -1},
   };
   for (bool callers : {false, true})
      for (auto const& [name, change, bytes, reported] : rows)
      {
         SCOPED_TRACE(std::string(name) + (callers ? " in the caller's buffer" : ""));
         char buffer[16];
         SizedMsg m;
         m.initMsg("abcdef", 6, callers ? reinterpret_cast<DtBufferPlaceHolder*>(buffer) : nullptr);
         change(m);
         EXPECT_EQ(bytes, m.bytes());
         EXPECT_EQ(reported < 0 ? std::vector<int>{} : std::vector<int>{reported}, m.reported);
         EXPECT_EQ(callers, m.netRep() == buffer) << "a caller's buffer is never replaced";
      }
   SizedMsg m;
   m.initMsg("abcdef", 6, nullptr);
   m.initMsg(m.netRep(), 3, nullptr);  // onto itself
   m.changeBufferSize(1000);           // beyond the first block
   EXPECT_EQ(std::string("abc\0\0", 5), m.bytes().substr(0, 5));
}

TEST(DtBaseMsgTest, AssignmentCopiesIntoItsOwnBufferAndAliasesACallersBuffer)
{
   char callers[8] = "callers";
   SizedMsg placed;
   placed.initMsg(4, reinterpret_cast<DtBufferPlaceHolder*>(callers));
   EXPECT_EQ(std::string("\0\0\0\0ers", 7), std::string(callers, 7));
   SizedMsg source;
   source.initMsg("source", 6, nullptr);
   SizedMsg own;
   own.initMsg("xy", 2, nullptr);
   own = source;
   own = own;
   EXPECT_NE(source.netRep(), own.netRep());
   EXPECT_EQ("source", own.bytes());
   EXPECT_EQ(6, own.getMessageSize());
   placed = source;
   EXPECT_EQ(source.netRep(), placed.netRep());
   EXPECT_EQ(std::string("\0\0\0\0ers", 7), std::string(callers, 7));
   SizedMsg copy(source, reinterpret_cast<DtBufferPlaceHolder*>(callers));
   EXPECT_EQ(callers, copy.netRep());
   EXPECT_EQ("source", std::string(callers, 6));
}

TEST(DtPacketServerTest, RequestPathsHaveTheKindsPrefixAndFiveDigitsAndShowWhetherItIsAlive)
{
   // {key, kind, path}
   for (auto [key, kind, path] :
        {std::make_tuple(42u, 1, "/tmp/old-00042"), std::make_tuple(42u, 2, "/tmp/ols-00042"),
         std::make_tuple(42u, 3, "/tmp/ols-00042"), std::make_tuple(42u, 0, "00042"),
         std::make_tuple(99999u, 2, "/tmp/ols-99999"), std::make_tuple(100000u, 1, "/tmp/old-00000"),
         std::make_tuple(4294967295u, 3, "/tmp/ols-67295")})
   {
      SCOPED_TRACE(path);
      char written[32] = "";
      Streams streams;
      EXPECT_EQ(static_cast<int>(std::strlen(path)), DtPacketServerRequestPath(key, written, kind));
      EXPECT_STREQ(path, written);
      EXPECT_EQ(key > 99999 ? "RequestPath key should be between 0 and 99999\n" : "", streams.warn.text());
   }
   char path[32] = "untouched";
   EXPECT_EQ(-1, DtPacketServerRequestPath(1, path, 4));
   EXPECT_EQ(-1, DtPacketServerRequestPath(1, path, -1));
   EXPECT_STREQ("untouched", path);
   EXPECT_EQ(-1, DtPacketServerRequestPath(1, nullptr, 1));
   // The server's path, else the other, tells whether it is alive; the key is this process's.
   int const key = 50000 + getpid() % 50000;
   char server[32], other[32];
   DtPacketServerRequestPath(key, server, 3);
   DtPacketServerRequestPath(key, other, 1);
   TempPath const serverPath{server}, otherPath{other};
   EXPECT_EQ(0, DtPacketServerIsAlive(key));
   ASSERT_TRUE(otherPath.make());
   EXPECT_EQ(-1, DtPacketServerIsAlive(key));
   ASSERT_TRUE(serverPath.make());
   EXPECT_EQ(1, DtPacketServerIsAlive(key));
   unlink(other);
   EXPECT_EQ(1, DtPacketServerIsAlive(key));
}

TEST(DtOpenUnixDgramTest, BindsOverAStalePathCarriesMessagesAndFailsClosingTheSocket)
{
   TempPath const where{"/tmp/olshm-test-" + std::to_string(getpid()) + ".sock"};
   ASSERT_TRUE(where.make());
   Streams streams;
   int const server = DtOpenUnixDgram(where.path.c_str(), DtOpenUnixDgramBind, "server");
   struct stat info;
   ASSERT_EQ(0, stat(where.path.c_str(), &info));
   EXPECT_EQ(S_IFSOCK | 0777u, info.st_mode & (S_IFMT | 0777));
   int const client = DtOpenUnixDgram(where.path.c_str(), DtOpenUnixDgramConnect, "client");
   DtCsAddClientMsg m(client, 1, 2, 3, 4, "me");
   EXPECT_EQ(176, m.send());
   char buffer[400];
   ASSERT_EQ(176, recv(server, buffer, sizeof buffer, MSG_DONTWAIT));
   EXPECT_EQ(bytesOf(m), std::string(buffer, 176));
   // Sends: nothing on a negative socket, -1 silently without a destination, else a warning.
   int const unconnected = socket(AF_INET, SOCK_DGRAM, 0);
   EXPECT_EQ(0, DtCsMsgWaitingMsg(-1).send());
   EXPECT_EQ(-1, DtCsMsgWaitingMsg(unconnected).send());
   EXPECT_EQ("", streams.warn.text());
   close(unconnected);
   close(client);
   close(server);
   unlink(where.path.c_str());
   EXPECT_EQ(-1, DtCsMsgWaitingMsg(client).send());
   EXPECT_EQ(std::string("DtSocketMsg write: ") + std::strerror(EBADF) + "\n", streams.warn.text());

   // 108 characters leave no room for the terminator.
   std::string const longPath = "/tmp/" + std::string(103, 'p');
   std::vector<std::tuple<char const*, DtOpenUnixDgramAction, char const*, std::string>> const rows = {
       {where.path.c_str(), DtOpenUnixDgramConnect, nullptr, ""},
       {where.path.c_str(), DtOpenUnixDgramConnect, "me", "me connect " + where.path + " failed: " + std::strerror(ENOENT) + "\n"},
       {"/nonexistent-dir/sock", DtOpenUnixDgramBind, nullptr,
        std::string("DtOpenUnixDgram bind /nonexistent-dir/sock failed: ") + std::strerror(ENOENT) + "\n"},
       {longPath.c_str(), DtOpenUnixDgramBind, "me", "me: path " + longPath + " does not fit a socket address\n"},
       {nullptr, DtOpenUnixDgramConnect, nullptr, "DtOpenUnixDgram: path (null) does not fit a socket address\n"},
   };
   // Each failed socket is closed: the next descriptor is the same after them all.
   int const before = open("/dev/null", O_RDONLY);
   close(before);
   for (auto const& [path, action, who, warning] : rows)
   {
      SCOPED_TRACE(warning);
      Streams failing;
      EXPECT_EQ(-1, DtOpenUnixDgram(path, action, who));
      EXPECT_EQ(warning, failing.warn.text());
   }
   int const after = open("/dev/null", O_RDONLY);
   EXPECT_EQ(before, after);
   close(after);
}

}  // namespace
