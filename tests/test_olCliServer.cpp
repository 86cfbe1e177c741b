// Tests of the client/server messages (layouts, wrapping, printing, both transports),
// the message buffer DtBaseMsg, and the rendezvous paths and sockets.
#include <olutil/olCliServer.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olPrint.h>
#include <olutil/olShmReader.h>
#include <olutil/olShmWriter.h>

#include "support_capture.h"
#include "support_shm.h"

namespace
{

template <class T>
T fieldAt(DtClientServerMsg const& m, std::size_t offset)
{
   T value;
   std::memcpy(&value, reinterpret_cast<char const*>(&m.msg) + offset, sizeof value);
   return value;
}

// Every stream prints, and the test sees what each one printed.
class Streams
{
public:
   Streams() : mySavedLevel(DtNotifyLevel) { DtNotifyLevel = 4; }
   ~Streams() { DtNotifyLevel = mySavedLevel; }
   olt::CapturePrinter verbose{DtVerbose};
   olt::CapturePrinter info{DtInfo};
   olt::CapturePrinter warn{DtWarn};

private:
   int mySavedLevel;
};

// A received message, as a server or client wraps what it read.
class Received : public DtClientServerMsg
{
public:
   using DtClientServerMsg::DtClientServerMsg;
   int send() override { return 0; }
};

std::string bytesOf(DtClientServerMsg const& m)
{
   return std::string(reinterpret_cast<char const*>(&m.msg), m.msgLength);
}

// ---------------------------------------------------------------- layouts

TEST(DtCsMsgTest, EachKindIsBuiltWithItsNumberSizeAndFieldsAtTheirOffsets)
{
   struct Row
   {
      std::unique_ptr<DtClientServerMsg> message;
      int kind;
      std::size_t size;
      std::function<void(DtClientServerMsg const&)> fields;
   };
   std::vector<Row> rows;
   rows.push_back({std::make_unique<DtCsMsgWaitingMsg>(-1), 0, 2, nullptr});
   rows.push_back({std::make_unique<DtCsAddClientMsg>(-1, 0xa1b2, -2, 3, 0x7fffffff, "client"), 1, 176,
                   [](DtClientServerMsg const& m) {
                      EXPECT_EQ(0xa1b2, fieldAt<std::uint16_t>(m, 2));
                      EXPECT_EQ(-2, fieldAt<std::int32_t>(m, 4));
                      EXPECT_EQ(3, fieldAt<std::int32_t>(m, 8));
                      EXPECT_EQ(0x7fffffff, fieldAt<std::int32_t>(m, 12));
                      EXPECT_STREQ("client", reinterpret_cast<char const*>(&m.msg) + 16);
                   }});
   rows.push_back({std::make_unique<DtCsControlReqMsg>(-1, 7, 0xdeadbeef), 4, 8,
                   [](DtClientServerMsg const& m) {
                      EXPECT_EQ(7, fieldAt<std::uint16_t>(m, 2));
                      EXPECT_EQ(0xdeadbeef, fieldAt<std::uint32_t>(m, 4));
                   }});
   rows.push_back({std::make_unique<DtCsFilterMsg>(-1, 1, 2, 3, 4), 5, 12, [](DtClientServerMsg const& m) {
                      EXPECT_EQ(1, fieldAt<std::uint8_t>(m, 2));
                      EXPECT_EQ(2, fieldAt<std::uint8_t>(m, 3));
                      EXPECT_EQ(3u, fieldAt<std::uint32_t>(m, 4));
                      EXPECT_EQ(4u, fieldAt<std::uint32_t>(m, 8));
                   }});
   rows.push_back({std::make_unique<DtCsAckMsg>(-1, 9, 10, 11, 12, -13, 14), 6, 24,
                   [](DtClientServerMsg const& m) {
                      EXPECT_EQ(9, fieldAt<std::uint8_t>(m, 2));
                      EXPECT_EQ(10u, fieldAt<std::uint32_t>(m, 4));
                      EXPECT_EQ(11u, fieldAt<std::uint32_t>(m, 8));
                      EXPECT_EQ(12u, fieldAt<std::uint32_t>(m, 12));
                      EXPECT_EQ(-13, fieldAt<std::int32_t>(m, 16));
                      EXPECT_EQ(14, fieldAt<std::int32_t>(m, 20));
                   }});
   rows.push_back({std::make_unique<DtCsCliQuotaMsg>(-1), 7, 2, nullptr});
   rows.push_back({std::make_unique<DtCsServerPacketMsg>(nullptr, 21, 22, 23, nullptr), 8, 16,
                   [](DtClientServerMsg const& m) {
                      EXPECT_EQ(21u, fieldAt<std::uint32_t>(m, 4));
                      EXPECT_EQ(22u, fieldAt<std::uint32_t>(m, 8));
                      EXPECT_EQ(23u, fieldAt<std::uint32_t>(m, 12));
                   }});
   rows.push_back({std::make_unique<DtCsStateReturnMsg>(nullptr, 1, 300, 301, -5, 5000, 1), 9, 16,
                   [](DtClientServerMsg const& m) {
                      EXPECT_EQ(1, fieldAt<std::uint8_t>(m, 2));
                      EXPECT_EQ(1, fieldAt<std::uint8_t>(m, 3));
                      EXPECT_EQ(300, fieldAt<std::uint16_t>(m, 4));
                      EXPECT_EQ(301, fieldAt<std::uint16_t>(m, 6));
                      EXPECT_EQ(-5, fieldAt<std::int32_t>(m, 8));
                      EXPECT_EQ(5000u, fieldAt<std::uint32_t>(m, 12));
                   }});
   rows.push_back({std::make_unique<DtCsCStateReturnMsg>(nullptr, 0x0123, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14),
                   10, 40, [](DtClientServerMsg const& m) {
                      EXPECT_EQ(0x0123, fieldAt<std::uint16_t>(m, 2));
                      EXPECT_EQ(4, fieldAt<std::uint8_t>(m, 4));
                      EXPECT_EQ(5, fieldAt<std::uint8_t>(m, 5));
                      EXPECT_EQ(6, fieldAt<std::uint8_t>(m, 6));
                      for (int i = 0; i < 8; ++i)
                         EXPECT_EQ(7 + i, fieldAt<std::int32_t>(m, 8 + 4 * i));
                   }});
   rows.push_back({std::make_unique<DtCsWarningMsg>(nullptr, 0xfffe, "careful"), 11, 164,
                   [](DtClientServerMsg const& m) {
                      EXPECT_EQ(0xfffe, fieldAt<std::uint16_t>(m, 2));
                      EXPECT_STREQ("careful", reinterpret_cast<char const*>(&m.msg) + 4);
                   }});
   rows.push_back({std::make_unique<DtCsNoticeMsg>(nullptr, 3), 12, 4,
                   [](DtClientServerMsg const& m) { EXPECT_EQ(3, fieldAt<std::uint16_t>(m, 2)); }});
   rows.push_back({std::make_unique<DtCsMulticastReqMsg>(-1, 2, 0xe0000001, 77), 13, 12,
                   [](DtClientServerMsg const& m) {
                      EXPECT_EQ(2, fieldAt<std::uint16_t>(m, 2));
                      EXPECT_EQ(0xe0000001u, fieldAt<std::uint32_t>(m, 4));
                      EXPECT_EQ(77u, fieldAt<std::uint32_t>(m, 8));
                   }});
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.kind);
      EXPECT_EQ(row.kind, fieldAt<std::uint8_t>(*row.message, 0));
      EXPECT_EQ(3, fieldAt<std::uint8_t>(*row.message, 1));
      EXPECT_EQ(row.size, row.message->msgLength);
      EXPECT_EQ(row.size, DtCsMsgKindSize(row.kind));
      if (row.fields)
         row.fields(*row.message);
   }
   EXPECT_EQ(0u, DtCsMsgKindSize(3));
   EXPECT_EQ(nullptr, DtCsMsgKindName(3));
   EXPECT_EQ(nullptr, DtCsMsgKindName(14));
   EXPECT_EQ(nullptr, DtCsMsgKindName(-1));
}

TEST(DtCsMsgTest, MulticastRequestSettersChangeTheirFieldsOnly)
{
   DtCsMulticastReqMsg m(-1, 1, 2, 3);
   m.setRequest(40);
   m.setAddr(50);
   m.setClientId(60);
   EXPECT_EQ(40, m.msg.multicastReq.request);
   EXPECT_EQ(50u, m.msg.multicastReq.addr);
   EXPECT_EQ(60u, m.msg.multicastReq.clientId);
   EXPECT_EQ(13, m.kind());
}

TEST(DtCsMsgTest, TextsAreCutAtTheirFieldAndAFullFieldHasNoTerminator)
{
   std::string const full(160, 'n');
   std::string const longer(200, 'l');
   struct Row
   {
      char const* text;
      std::string stored;  // the field's bytes up to the first NUL or its end
   };
   for (Row row : {Row{"", ""}, Row{"x", "x"}, Row{full.c_str() + 1, full.substr(1)},
                   Row{full.c_str(), full}, Row{longer.c_str(), longer.substr(0, 160)}, Row{nullptr, ""}})
   {
      SCOPED_TRACE(row.stored.size());
      DtCsAddClientMsg add(-1, 0, 0, 0, 0, row.text);
      DtCsWarningMsg warning(nullptr, 0, row.text);
      EXPECT_EQ(row.stored, std::string(add.msg.addClient.addClientText,
                                        strnlen(add.msg.addClient.addClientText, 160)));
      EXPECT_EQ(row.stored, std::string(warning.msg.warning.warningText,
                                        strnlen(warning.msg.warning.warningText, 160)));
   }
}

// ---------------------------------------------------------------- wrapping

TEST(DtCsMsgWrapTest, EveryKnownKindIsWrappedWithItsSizeFromExactOrLongerBytes)
{
   for (int kind = 0; kind <= 13; ++kind)
   {
      std::size_t const size = DtCsMsgKindSize(kind);
      if (size == 0)
         continue;
      SCOPED_TRACE(kind);
      std::vector<char> bytes(size + 40);
      for (std::size_t i = 0; i < bytes.size(); ++i)
         bytes[i] = static_cast<char>(i * 7 + 1);
      bytes[0] = static_cast<char>(kind);
      Streams streams;
      Received exact(bytes.data(), size);
      EXPECT_EQ(size, exact.msgLength);
      EXPECT_EQ(std::string(bytes.data(), size), bytesOf(exact));
      Received longer(bytes.data(), bytes.size());
      EXPECT_EQ(size, longer.msgLength);
      EXPECT_EQ(std::string(bytes.data(), size), bytesOf(longer));
      EXPECT_EQ("", streams.warn.text());
   }
}

TEST(DtCsMsgWrapTest, ShortEmptyAndUnknownMessagesWarnAndWrapToNothing)
{
   struct Row
   {
      std::vector<char> bytes;
      char const* warning;
   };
   std::vector<Row> const rows = {
       {{3, 3}, "Unknown msg kind (3) in  DtClientServerMsg()"},
       {{14, 3, 0, 0}, "Unknown msg kind (14) in  DtClientServerMsg()"},
       {{char(255)}, "Unknown msg kind (255) in  DtClientServerMsg()"},
       {{1, 3, 0, 0}, "Short msg kind (1), 4 of 176 bytes, in  DtClientServerMsg()\n"},
       {{0}, "Short msg kind (0), 1 of 2 bytes, in  DtClientServerMsg()\n"},
       {std::vector<char>(15, 8), "Short msg kind (8), 15 of 16 bytes, in  DtClientServerMsg()\n"},
       {{}, "Empty msg in  DtClientServerMsg()\n"},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.warning);
      Streams streams;
      Received m(row.bytes.empty() ? nullptr : row.bytes.data(), row.bytes.size());
      EXPECT_EQ(0u, m.msgLength);
      EXPECT_EQ(row.warning, streams.warn.text());
   }
}

TEST(DtCsMsgWrapTest, AWholeDtCsMsgIsWrappedByItsKind)
{
   DtCsNoticeMsg notice(nullptr, 4);
   Received wrapped(&notice.msg);
   EXPECT_EQ(4u, wrapped.msgLength);
   EXPECT_EQ(bytesOf(notice), bytesOf(wrapped));
   DtCsMsg unknown{};
   unknown.header.kind = 3;
   Streams streams;
   Received none(&unknown);
   EXPECT_EQ(0u, none.msgLength);
   EXPECT_EQ("Unknown msg kind (3) in  DtClientServerMsg()", streams.warn.text());
}

// ---------------------------------------------------------------- printing

TEST(DtCsMsgPrintTest, HeaderLineNamesEveryKindAndUnknownKindsWarn)
{
   std::vector<char const*> const names = {"MsgWaiting", "AddClient",  "ClientPacket", nullptr,  "ControlReq",
                                           "Filter",     "Ack",        "CliQuota",     "ServerPacket",
                                           "StateReturn", "CStateReturn", "Warning",    "Notice", "MulticastReq"};
   for (int kind = 0; kind < 16; ++kind)
   {
      SCOPED_TRACE(kind);
      char const* name = kind < 14 ? names[kind] : nullptr;
      std::vector<char> bytes(176, 0);
      bytes[0] = static_cast<char>(kind);
      bytes[1] = 9;
      Received m(bytes.data(), name ? bytes.size() : 2);
      m.msg.header.kind = static_cast<std::uint8_t>(kind);
      m.msg.header.version = 9;
      Streams streams;
      m.print();
      if (name)
      {
         EXPECT_EQ(std::string(name) + " message (version 9):\n", streams.verbose.text());
         EXPECT_EQ("", streams.warn.text());
      }
      else
      {
         EXPECT_EQ("", streams.verbose.text());
         EXPECT_EQ("Unknown msg kind (" + std::to_string(kind) + ") in  DtClientServerMsg::print()",
                   streams.warn.text());
      }
   }
}

TEST(DtCsMsgPrintTest, ServerStateReadsAsSentences)
{
   struct Row
   {
      unsigned char status;
      unsigned short packetClients;
      unsigned short controlClients;
      int maximum;
      unsigned char unbundling;
      char const* text;
   };
   Row const rows[] = {
       {0, 1, 1, -1, 1,
        "    ostrel server on port 4000 is alive (external) \n    performing unbundling\n"
        "    1 packet client (no maximum)\n    1 control client\n"},
       {1, 0, 2, 0, 0,
        "    ostrel server on port 4000 is alive (internal) \n    not performing unbundling\n"
        "    0 packet clients (0 maximum)\n    2 control clients\n"},
       {2, 2, 0, 12, 7,
        "    ostrel server on port 4000 is alive (but not well) \n    performing unbundling\n"
        "    2 packet clients (12 maximum)\n    0 control clients\n"},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.text);
      DtCsStateReturnMsg m(nullptr, row.status, row.packetClients, row.controlClients, row.maximum, 4000,
                           row.unbundling);
      Streams streams;
      m.print();
      EXPECT_EQ("StateReturn message (version 3):\n", streams.verbose.text());
      EXPECT_EQ(row.text, streams.info.text());
   }
}

TEST(DtCsMsgPrintTest, ClientStateListsCountsAndEachModeThatApplies)
{
   DtCsCStateReturnMsg m(nullptr, 0x0100 | 0x0080, 0, 0, 0, 4242, 17, 100, 200, 3, 4, 5, 6);
   Streams streams;
   m.print();
   EXPECT_EQ("    (control) client 17 (process 4242): server sent 4, rcvd 3 msgs\n"
             "    dropped 6 old and 5 new - sendQ 200 bytes - recvQ 100 bytes\n"
             "    Modes:\n",
             streams.info.text());

   struct Row
   {
      unsigned short arg;
      unsigned char dropOldest;
      unsigned char wait;
      unsigned char block;
      char const* modes;
   };
   Row const rows[] = {
       {0x0000, 0, 0, 0x00, "    Modes: Notify\n"},
       {0x0001 | 0x0080, 0, 0, 0x00, "    Modes: Read\n"},
       {0x0002 | 0x0080, 0, 0, 0x00, "    Modes: Write\n"},
       {0x0080, 1, 0, 0x00, "    Modes: SvrDropOldest\n"},
       {0x0010 | 0x0080, 0, 0, 0x00, "    Modes: CliDropOldest\n"},
       {0x0080, 0, 1, 0x00, "    Modes: SvrWait\n"},
       {0x0020 | 0x0080, 0, 0, 0x00, "    Modes: CliWait\n"},
       {0x0040 | 0x0080, 0, 0, 0x00, "    Modes: CliWait\n"},
       {0x0080, 0, 0, 0x01, "    Modes: SvrBlockRead\n"},
       {0x0080, 0, 0, 0x02, "    Modes: SvrBlockWrite\n"},
       {0x0080, 0, 0, 0x04, "    Modes: CliBlockRead\n"},
       {0x0080, 0, 0, 0x08, "    Modes: CliBlockWrite\n"},
       {0x0073, 2, 3, 0x0f,
        "    Modes: Read Write SvrDropOldest CliDropOldest SvrWait CliWait Notify SvrBlockRead"
        " SvrBlockWrite CliBlockRead CliBlockWrite\n"},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.modes);
      DtCsCStateReturnMsg c(nullptr, row.arg, row.dropOldest, row.wait, row.block, 1, 2, 0, 0, 0, 0, 0, 0);
      Streams s;
      c.print();
      std::string const& text = s.info.text();
      EXPECT_EQ(0u, text.find("    (packet) client 2 (process 1)"));
      ASSERT_NE(std::string::npos, text.find("    Modes:"));
      EXPECT_EQ(row.modes, text.substr(text.find("    Modes:")));
   }
}

TEST(DtCsMsgPrintTest, ServerWarningPrintsAtMostItsField)
{
   std::string const full(160, 'w');
   DtCsWarningMsg m(nullptr, 12, full.c_str());
   // Bytes after a full text field are not part of the text.
   std::memset(reinterpret_cast<char*>(&m.msg) + 164, 'X', sizeof m.msg - 164);
   Streams streams;
   m.print();
   EXPECT_EQ("    Server warning 12: " + full + "\n", streams.warn.text());
   EXPECT_EQ("Warning message (version 3):\n", streams.verbose.text());

   DtCsWarningMsg shortText(nullptr, 1, "disk full");
   Streams again;
   shortText.print();
   EXPECT_EQ("    Server warning 1: disk full\n", again.warn.text());
}

TEST(DtCsMsgPrintTest, NoticesPrintTheirLineOnTheirStream)
{
   struct Row
   {
      unsigned short notice;
      char const* info;
      char const* warn;
   };
   Row const rows[] = {
       {0, "    Packet server now external\n", ""},
       {1, "    Packet server now internal\n", ""},
       {2, "", "    Closing socket: server external client quota exceeded\n"},
       {3, "    ClientSocket: ping\n", ""},
       {4, "", "    Packet server is closing socket\n"},
       {5, "", ""},
       {65535, "", ""},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.notice);
      DtCsNoticeMsg m(nullptr, row.notice);
      Streams streams;
      m.print();
      EXPECT_EQ("Notice message (version 3):\n", streams.verbose.text());
      EXPECT_EQ(row.info, streams.info.text());
      EXPECT_EQ(row.warn, streams.warn.text());
   }
}

// ---------------------------------------------------------------- socket transport

TEST(DtSocketMsgTest, SendsTheMessageBytesInOneDatagram)
{
   int pair[2];
   ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, pair));
   DtCsAddClientMsg m(pair[0], 1, 2, 3, 4, "me");
   EXPECT_EQ(176, m.send());
   char buffer[400];
   ASSERT_EQ(176, recv(pair[1], buffer, sizeof buffer, MSG_DONTWAIT));
   EXPECT_EQ(bytesOf(m), std::string(buffer, 176));
   DtCsCliQuotaMsg quota(pair[0]);
   EXPECT_EQ(2, quota.send());
   EXPECT_EQ(2, recv(pair[1], buffer, sizeof buffer, MSG_DONTWAIT));
   close(pair[0]);
   close(pair[1]);
}

TEST(DtSocketMsgTest, FailuresReportByTheirKind)
{
   // Nothing is written to a negative socket.
   {
      Streams streams;
      DtCsMsgWaitingMsg m(-1);
      EXPECT_EQ(0, m.send());
      EXPECT_EQ("", streams.warn.text());
   }
   // An unconnected UDP socket has no destination: -1, silently.
   {
      int const udp = socket(AF_INET, SOCK_DGRAM, 0);
      ASSERT_GE(udp, 0);
      Streams streams;
      DtCsMsgWaitingMsg m(udp);
      EXPECT_EQ(-1, m.send());
      EXPECT_EQ("", streams.warn.text());
      close(udp);
   }
   // Any other error warns.
   {
      int const closed = socket(AF_UNIX, SOCK_DGRAM, 0);
      close(closed);
      Streams streams;
      DtCsMsgWaitingMsg m(closed);
      EXPECT_EQ(-1, m.send());
      EXPECT_EQ(std::string("DtSocketMsg write: ") + std::strerror(EBADF) + "\n", streams.warn.text());
   }
}

// ---------------------------------------------------------------- queue transport

struct Queue
{
   Queue()
       : block(4096),
         writer(block.queue(), 4096, semaphores.id(), 0, true, true, false),
         reader(block.queue(), 4096, semaphores.id(), 0, true, false, false)
   {
   }
   std::string read()
   {
      std::vector<char> buffer(4096);
      char status = 0;
      int const n = reader.Read(buffer.data(), buffer.size(), &status);
      return n < 0 ? "(none)" : std::string(buffer.data(), n);
   }
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block;
   DtShmMsgQueueWriter writer;
   DtShmMsgQueueReader reader;
};

TEST(DtShmMsgTest, QueueMessagesArriveWholeAndWrapBack)
{
   Queue q;
   DtCsStateReturnMsg state(&q.writer, 1, 2, 3, -1, 4000, 1);
   EXPECT_EQ(16, state.send());
   DtCsWarningMsg warning(&q.writer, 5, "low on memory");
   EXPECT_EQ(164, warning.send());
   DtCsNoticeMsg notice(&q.writer, 3);
   EXPECT_EQ(4, notice.send());

   std::string const first = q.read();
   EXPECT_EQ(bytesOf(state), first);
   std::string const second = q.read();
   ASSERT_EQ(168u, second.size());
   Received wrapped(second.data(), second.size());
   EXPECT_EQ(bytesOf(warning), bytesOf(wrapped));
   std::string const third = q.read();
   ASSERT_EQ(8u, third.size());
   EXPECT_EQ(bytesOf(notice), third.substr(0, 4));

   DtCsNoticeMsg nowhere(nullptr, 3);
   EXPECT_EQ(0, nowhere.send());
}

TEST(DtShmMsgTest, ServerPacketCarriesHeaderAndPayloadInOneElement)
{
   Queue q;
   char payload[] = "0123456789abcdefXYZ";
   DtCsServerPacketMsg m(&q.writer, 1, 2, 19, payload);
   EXPECT_EQ(19, m.send());
   EXPECT_EQ(1, q.writer.getMessagesWritten());
   std::string const got = q.read();
   ASSERT_EQ(40u, got.size());
   EXPECT_EQ(bytesOf(m), got.substr(0, 16));
   EXPECT_EQ(std::string(payload, 19), got.substr(16, 19));
   Received header(got.data(), got.size());
   EXPECT_EQ(16u, header.msgLength);
   EXPECT_EQ(19u, header.msg.serverPacket.packetLength);

   // A failed write comes back less the header's size.
   std::vector<char> huge(8000);
   DtCsServerPacketMsg tooBig(&q.writer, 0, 0, static_cast<unsigned>(huge.size()), huge.data());
   EXPECT_EQ(-17, tooBig.send());
   EXPECT_EQ(1, q.writer.getDroppedNew());
}

TEST(DtShmMsgTest, RetiredClientPacketOnlyWarns)
{
   Queue q;
   Streams streams;
   char data[] = "x";
   DtCsClientPacketMsg m(&q.writer, 1, data);
   EXPECT_EQ("Should no longer be trying to create new DtCsClientPacketMsgs\n", streams.warn.text());
   EXPECT_EQ(-1, m.send());
   EXPECT_EQ("Should no longer be trying to create new DtCsClientPacketMsgs\n"
             "Should no longer be trying to send DtCsClientPacketMsgs\n",
             streams.warn.text());
   EXPECT_EQ(0, q.writer.getMessagesWritten());
}

// ---------------------------------------------------------------- DtBaseMsg

// A message whose header is its size in its first byte.
class SizedMsg : public DtBaseMsg
{
public:
   using DtBaseMsg::DtBaseMsg;
   using DtBaseMsg::operator=;
   void messageSizeChanged(int size) override { reported.push_back(size); }
   std::string bytes() const { return std::string(netRep(), length()); }
   std::vector<int> reported;
};

TEST(DtBaseMsgTest, InitialisesZeroedOrCopiedIntoItsOwnOrTheCallersBuffer)
{
   SizedMsg own;
   own.initMsg(6, nullptr);
   EXPECT_EQ(std::string(6, '\0'), own.bytes());
   EXPECT_EQ(6, own.getMessageSize());
   char callers[16];
   std::memset(callers, 'c', sizeof callers);
   SizedMsg placed;
   placed.initMsg(4, reinterpret_cast<DtBufferPlaceHolder*>(callers));
   EXPECT_EQ(callers, placed.netRep());
   EXPECT_EQ(std::string(4, '\0'), std::string(callers, 4));
   EXPECT_EQ('c', callers[4]);
   SizedMsg copied;
   copied.initMsg("abcdef", 6, nullptr);
   EXPECT_EQ("abcdef", copied.bytes());
   // Copying onto itself leaves the bytes alone.
   copied.initMsg(copied.netRep(), 3, nullptr);
   EXPECT_EQ("abc", copied.bytes());
   EXPECT_TRUE(own.reported.empty());
}

TEST(DtBaseMsgTest, InsertAndDeleteMoveTheRestAndReportTheNewSize)
{
   struct Row
   {
      char const* name;
      std::function<void(SizedMsg&)> change;
      std::string bytes;
      std::vector<int> reported;
   };
   std::vector<Row> const rows = {
       {"insert in the middle", [](SizedMsg& m) { m.insertBytes(2, 3); }, std::string("ab\0\0\0cdef", 9), {9}},
       {"insert at the start", [](SizedMsg& m) { m.insertBytes(0, 1); }, std::string("\0abcdef", 7), {7}},
       {"insert at the end", [](SizedMsg& m) { m.insertBytes(6, 2); }, std::string("abcdef\0\0", 8), {8}},
       {"insert by pointer", [](SizedMsg& m) { m.insertBytes(m.netRep() + 1, 1); }, std::string("a\0bcdef", 7), {7}},
       {"insert nothing", [](SizedMsg& m) { m.insertBytes(2, 0); }, "abcdef", {}},
       {"insert past the end", [](SizedMsg& m) { m.insertBytes(7, 2); }, "abcdef", {}},
       {"insert at a negative offset", [](SizedMsg& m) { m.insertBytes(-1, 2); }, "abcdef", {}},
       {"insert by a pointer outside", [](SizedMsg& m) { m.insertBytes(m.netRep() + 100, 1); }, "abcdef", {}},
       {"delete in the middle", [](SizedMsg& m) { m.deleteBytes(1, 2); }, "adef", {4}},
       {"delete the tail", [](SizedMsg& m) { m.deleteBytes(4, 2); }, "abcd", {4}},
       {"delete all", [](SizedMsg& m) { m.deleteBytes(0, 6); }, "", {0}},
       {"delete by pointer", [](SizedMsg& m) { m.deleteBytes(m.netRep() + 5, 1); }, "abcde", {5}},
       {"delete past the end", [](SizedMsg& m) { m.deleteBytes(4, 3); }, "abcdef", {}},
       {"delete a negative count", [](SizedMsg& m) { m.deleteBytes(1, -1); }, "abcdef", {}},
       {"grow", [](SizedMsg& m) { m.changeSize(8); }, std::string("abcdef\0\0", 8), {8}},
       {"shrink keeps the bytes", [](SizedMsg& m) { m.changeBufferSize(2); }, "ab", {}},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.name);
      SizedMsg m;
      m.initMsg("abcdef", 6, nullptr);
      row.change(m);
      EXPECT_EQ(row.bytes, m.bytes());
      EXPECT_EQ(row.reported, m.reported);
   }
}

TEST(DtBaseMsgTest, ShrinkingAndGrowingAgainZeroesWhatCameBack)
{
   SizedMsg m;
   m.initMsg("abcdef", 6, nullptr);
   m.changeBufferSize(2);
   m.changeBufferSize(5);
   EXPECT_EQ(std::string("ab\0\0\0", 5), m.bytes());
   // Growing beyond the first block keeps the bytes in the new one.
   m.changeBufferSize(1000);
   EXPECT_EQ(std::string("ab\0\0\0", 5), m.bytes().substr(0, 5));
   EXPECT_EQ(1000, m.length());
}

TEST(DtBaseMsgTest, CallersBufferIsNeverReplaced)
{
   char callers[32] = "abcdef";
   SizedMsg m;
   m.initMsg(callers, 6, reinterpret_cast<DtBufferPlaceHolder*>(callers));
   m.insertBytes(3, 4);
   EXPECT_EQ(callers, m.netRep());
   EXPECT_EQ(std::string("abc\0\0\0\0def", 10), std::string(callers, 10));
}

TEST(DtBaseMsgTest, AssignmentCopiesIntoItsOwnBufferAndAliasesACallersBuffer)
{
   SizedMsg source;
   source.initMsg("source", 6, nullptr);
   SizedMsg own;
   own.initMsg("xy", 2, nullptr);
   own = source;
   EXPECT_NE(source.netRep(), own.netRep());
   EXPECT_EQ("source", own.bytes());
   own = own;
   EXPECT_EQ("source", own.bytes());

   char callers[8] = "zz";
   SizedMsg placed;
   placed.initMsg(callers, 2, reinterpret_cast<DtBufferPlaceHolder*>(callers));
   placed = source;
   EXPECT_EQ(source.netRep(), placed.netRep());
   EXPECT_EQ("zz", std::string(callers));

   SizedMsg copy(source);
   EXPECT_NE(source.netRep(), copy.netRep());
   EXPECT_EQ("source", copy.bytes());
   char target[8];
   SizedMsg copyInto(source, reinterpret_cast<DtBufferPlaceHolder*>(target));
   EXPECT_EQ(target, copyInto.netRep());
   EXPECT_EQ("source", std::string(target, 6));
}

TEST(DtBaseMsgTest, NewInternalBufferGrowsOnlyAndKeepsTheMessageOnLiveMemory)
{
   SizedMsg m;
   m.initMsg("abcd", 4, nullptr);
   char* const first = m.netRep();
   EXPECT_EQ(first, m.newInternalBuffer(2));
   char* const grown = m.newInternalBuffer(64);
   EXPECT_EQ(grown, m.netRep());
   // The old contents are gone; the length is what it was.
   EXPECT_EQ(std::string(4, '\0'), m.bytes());
}

// ---------------------------------------------------------------- rendezvous

TEST(DtPacketServerRequestPathTest, PathsHaveTheKindsPrefixAndFiveDigits)
{
   struct Row
   {
      unsigned int key;
      int kind;
      char const* path;
      bool warns;
   };
   Row const rows[] = {
       {42, 1, "/tmp/old-00042", false},     {42, 2, "/tmp/ols-00042", false},
       {42, 3, "/tmp/ols-00042", false},     {42, 0, "00042", false},
       {0, 1, "/tmp/old-00000", false},      {99999, 2, "/tmp/ols-99999", false},
       {100042, 1, "/tmp/old-00042", true},  {4294967295u, 3, "/tmp/ols-67295", true},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.path);
      char path[32] = "";
      Streams streams;
      EXPECT_EQ(static_cast<int>(std::strlen(row.path)), DtPacketServerRequestPath(row.key, path, row.kind));
      EXPECT_STREQ(row.path, path);
      EXPECT_EQ(row.warns ? "RequestPath key should be between 0 and 99999\n" : "", streams.warn.text());
   }
   char path[32] = "untouched";
   EXPECT_EQ(-1, DtPacketServerRequestPath(1, path, 4));
   EXPECT_EQ(-1, DtPacketServerRequestPath(1, path, -1));
   EXPECT_STREQ("untouched", path);
   EXPECT_EQ(-1, DtPacketServerRequestPath(1, nullptr, 1));
}

// A path of this test process, removed at the end.
struct SocketPath
{
   SocketPath() : path("/tmp/olshm-test-" + std::to_string(getpid()) + ".sock") { unlink(path.c_str()); }
   ~SocketPath() { unlink(path.c_str()); }
   std::string path;
};

TEST(DtOpenUnixDgramTest, BindsOverAStalePathAndCarriesADatagram)
{
   SocketPath where;
   {
      std::FILE* stale = std::fopen(where.path.c_str(), "w");
      ASSERT_TRUE(stale);
      std::fclose(stale);
   }
   Streams streams;
   int const server = DtOpenUnixDgram(where.path.c_str(), DtOpenUnixDgramBind, "server");
   ASSERT_GE(server, 0);
   struct stat info;
   ASSERT_EQ(0, stat(where.path.c_str(), &info));
   EXPECT_TRUE(S_ISSOCK(info.st_mode));
   EXPECT_EQ(0777u, info.st_mode & 0777);
   int const client = DtOpenUnixDgram(where.path.c_str(), DtOpenUnixDgramConnect, "client");
   ASSERT_GE(client, 0);
   DtCsControlReqMsg request(client, 1, 2);
   EXPECT_EQ(8, request.send());
   char buffer[64];
   EXPECT_EQ(8, recv(server, buffer, sizeof buffer, MSG_DONTWAIT));
   int const neither = DtOpenUnixDgram(where.path.c_str(), static_cast<DtOpenUnixDgramAction>(7), "x");
   EXPECT_GE(neither, 0);
   EXPECT_EQ("", streams.warn.text());
   close(neither);
   close(client);
   close(server);
}

TEST(DtOpenUnixDgramTest, FailuresCloseTheSocketAndWarnUnlessSilent)
{
   SocketPath missing;
   struct Row
   {
      char const* name;
      char const* path;
      DtOpenUnixDgramAction action;
      char const* who;
      std::string warning;
   };
   std::string const longPath = "/tmp/" + std::string(120, 'p');
   std::vector<Row> const rows = {
       {"missing, silent", missing.path.c_str(), DtOpenUnixDgramConnect, nullptr, ""},
       {"missing, named", missing.path.c_str(), DtOpenUnixDgramConnect, "me",
        "me connect " + missing.path + " failed: " + std::strerror(ENOENT) + "\n"},
       {"bind where no file can be", "/nonexistent-dir/sock", DtOpenUnixDgramBind, nullptr,
        std::string("DtOpenUnixDgram bind /nonexistent-dir/sock failed: ") + std::strerror(ENOENT) + "\n"},
       {"too long", longPath.c_str(), DtOpenUnixDgramBind, "me",
        "me: path " + longPath + " does not fit a socket address\n"},
       {"no path", nullptr, DtOpenUnixDgramConnect, nullptr,
        "DtOpenUnixDgram: path (null) does not fit a socket address\n"},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.name);
      int const before = open("/dev/null", O_RDONLY);
      close(before);
      Streams streams;
      EXPECT_EQ(-1, DtOpenUnixDgram(row.path, row.action, row.who));
      EXPECT_EQ(row.warning, streams.warn.text());
      // The socket was closed: the next descriptor is the same as before.
      int const after = open("/dev/null", O_RDONLY);
      EXPECT_EQ(before, after);
      close(after);
   }
}

TEST(DtPacketServerIsAliveTest, LooksAtTheServerPathThenTheOtherPath)
{
   // A key of this process, whose paths the test alone makes.
   int const key = 50000 + getpid() % 50000;
   char serverPath[32];
   char otherPath[32];
   DtPacketServerRequestPath(key, serverPath, 3);
   DtPacketServerRequestPath(key, otherPath, 1);
   struct Cleanup
   {
      char const* a;
      char const* b;
      ~Cleanup()
      {
         unlink(a);
         unlink(b);
      }
   } cleanup{serverPath, otherPath};
   unlink(serverPath);
   unlink(otherPath);
   auto touch = [](char const* path) {
      std::FILE* f = std::fopen(path, "w");
      ASSERT_TRUE(f);
      std::fclose(f);
   };
   EXPECT_EQ(0, DtPacketServerIsAlive(key));
   touch(otherPath);
   EXPECT_EQ(-1, DtPacketServerIsAlive(key));
   touch(serverPath);
   EXPECT_EQ(1, DtPacketServerIsAlive(key));
   unlink(otherPath);
   EXPECT_EQ(1, DtPacketServerIsAlive(key));
}

}  // namespace
