// Tests of the file transporter: packet reassembly fed without sockets, then whole
// files between two transporters on loopback, and hostile peers written by hand.
#include <olutil/olInetFileTransport.h>

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetTcpSocket.h>

#include "support_capture.h"
#include "support_tcp.h"

namespace fs = std::filesystem;

namespace
{

std::string u32(std::uint32_t value)
{
   value = htonl(value);
   return std::string(reinterpret_cast<char const*>(&value), 4);
}

// Header: length, identifier, then in a first packet total size twice and a zero.
std::string firstPacket(std::uint32_t id, std::string const& name, std::uint32_t total,
                        std::string const& data, std::uint32_t length = 0)
{
   return u32(length ? length : static_cast<std::uint32_t>(20 + name.size() + 1 + data.size())) +
          u32(id) + u32(total) + u32(total) + u32(0) + name + '\0' + data;
}

std::string laterPacket(std::uint32_t id, std::string const& data)
{
   return u32(static_cast<std::uint32_t>(8 + data.size())) + u32(id) + data;
}

// The stream a sender with packets of at most maxPacket bytes produces.
std::string fileStream(std::uint32_t id, std::string const& name, std::string const& data,
                       std::size_t maxPacket)
{
   std::size_t const first = std::min(data.size(), maxPacket - 21 - name.size());
   std::string stream =
       firstPacket(id, name, static_cast<std::uint32_t>(data.size()), data.substr(0, first));
   for (std::size_t at = first; at < data.size(); at += maxPacket - 8)
      stream += laterPacket(id, data.substr(at, maxPacket - 8));
   return stream;
}

std::string randomBytes(std::size_t size, unsigned seed)
{
   std::string bytes(size, '\0');
   std::generate(bytes.begin(), bytes.end(), std::mt19937(seed));
   return bytes;
}

// "name=data;!" for each file, the "!" when it ended.
struct RecordingSink : DtInetFilePacketAssembler::Sink
{
   std::string files;
   int ended = 0, failures = 0;

   bool add(std::string const& text) { return !(files += text).empty(); }
   bool beginFile(std::uint32_t, std::string const& name, std::uint32_t, std::uint32_t,
                  std::uint32_t) override
   {
      return add(name + "=");
   }
   bool fileData(char const* p, std::size_t n) override { return add(std::string(p, n)); }
   bool endFile() override { return ++ended, add(";!"); }
   void transferFailed(std::string const&) override { ++failures; }
};

TEST(FilePacketAssembler, ReassemblesFilesSplitAtEveryChunkSizeAndStopsAtTheFirstFault)
{
   std::string const data = randomBytes(300, 1);
   // Three files one after the other, the second announced empty.
   std::string const stream = fileStream(7, "data.bin", data, 64) + firstPacket(2, "b", 0, "") +
                              fileStream(3, "c", "first", 64);
   for (std::size_t chunk = 1; chunk <= stream.size(); ++chunk)
   {
      SCOPED_TRACE("chunk " + std::to_string(chunk));
      RecordingSink sink;
      DtInetFilePacketAssembler assembler(sink, 64);
      for (std::size_t at = 0; at < stream.size(); at += chunk)
         ASSERT_TRUE(assembler.feed(stream.data() + at, std::min(chunk, stream.size() - at)));
      EXPECT_TRUE(assembler.finish());
      EXPECT_TRUE(sink.files == "data.bin=" + data + ";!b=;!c=first;!");
      EXPECT_EQ(sink.failures, 0);
   }

   // The file's data is as long as the transfer size (offset 12), not the file size before it.
   RecordingSink sized;
   DtInetFilePacketAssembler sizes(sized, 64);
   std::string const differ = u32(25) + u32(4) + u32(9) + u32(3) + u32(0) + "n" + '\0' + "abc";
   EXPECT_TRUE(sizes.feed(differ.data(), differ.size()) && sizes.finish());
   EXPECT_EQ(sized.files, "n=abc;!");

   // Nothing more is taken from a broken stream, and no second report is made.
   RecordingSink sink;
   DtInetFilePacketAssembler broken(sink, 64);
   std::string const bad = firstPacket(1, "f", 4, "ab") + laterPacket(2, "cd") + stream;
   EXPECT_FALSE(broken.feed(bad.data(), bad.size()) || broken.feed(stream.data(), stream.size()) ||
                broken.finish() || !broken.failed());
   EXPECT_EQ(std::make_pair(sink.failures, sink.ended), std::make_pair(1, 0));

   // A stream ending inside a length field, the first packet, between packets (in the
   // file) or inside a later packet fails at its end.
   for (std::size_t cut : {3, 30, 64, 70})
   {
      SCOPED_TRACE(cut);
      RecordingSink sink;
      DtInetFilePacketAssembler assembler(sink, 64);
      EXPECT_TRUE(assembler.feed(stream.data(), cut));
      EXPECT_FALSE(assembler.finish());
      EXPECT_EQ(std::make_pair(sink.failures, sink.ended), std::make_pair(1, 0));
   }
}

// A receiver listening on a free port, writing into in/ and noting finished files.
class FileTransporterTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      char pattern[] = "/tmp/olxfer-test-XXXXXX";
      ASSERT_NE(::mkdtemp(pattern), nullptr);
      myRoot = pattern;
      fs::create_directory(inDir());
      fs::create_directory(outDir());
      receiver =
          std::make_unique<DtInetFileTransporter>(0, false, 1, DtFilename(inDir().c_str()), &port);
      receiver->addFileTransferedCallback(
          [](DtFilename const& file, void* data)
          { static_cast<std::vector<std::string>*>(data)->push_back(file.c_str()); },
          &done);
   }
   void TearDown() override { fs::remove_all(myRoot, myIgnored); }

   fs::path inDir() const { return myRoot / "in"; }
   fs::path outDir() const { return myRoot / "out"; }
   std::size_t filesIn() const
   {
      return std::distance(fs::directory_iterator(inDir()), fs::directory_iterator());
   }
   static std::string readFile(fs::path const& path)
   {
      std::ifstream in(path, std::ios::binary);
      return std::string(std::istreambuf_iterator<char>(in), {});
   }

   // A client that writes raw bytes to the receiver.
   std::unique_ptr<DtInetTcpSocket> rawPeer() const
   {
      return std::make_unique<DtInetTcpSocket>(olt::tcpEndpoint("127.0.0.1", port));
   }
   static void write(DtInetTcpSocket& peer, std::string bytes)
   {
      ASSERT_EQ(peer.send(&bytes[0], bytes.size(), 0), static_cast<int>(bytes.size()));
   }

   // Ticks until `done` holds, for at most 60 seconds.
   template <class Done>
   bool tickUntil(Done done)
   {
      auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      for (; !done() && std::chrono::steady_clock::now() < deadline; receiver->tick())
         std::this_thread::sleep_for(std::chrono::microseconds(200));
      return done();
   }
   bool drain(std::size_t count)
   {
      return tickUntil([&] { return receiver->endedConnections() >= count; });
   }

   fs::path myRoot;
   std::error_code myIgnored;  // a directory left behind fails no test
   int port = -1;
   std::vector<std::string> done;
   std::unique_ptr<DtInetFileTransporter> receiver;
};

TEST_F(FileTransporterTest, RoundTripsFilesOfEverySize)
{
   ASSERT_TRUE(receiver->isListening() && receiver->port() == port);
   std::size_t const onePacket = 65504 - 21 - 5;  // header, NUL and "exact"
   std::pair<char const*, std::size_t> const cases[] = {
       {"exact", onePacket}, {"twoPackets", onePacket + 1}, {"large", 24u << 20}, {"empty", 0}};
   unsigned seed = 10;
   for (auto const& [name, size] : cases)
   {
      SCOPED_TRACE(name);
      std::string const bytes = randomBytes(size, ++seed);
      fs::path const source = outDir() / name;
      std::ofstream(source, std::ios::binary) << bytes;
      std::atomic<bool> sent{false};
      std::thread sender(
          [&]
          {
             DtInetFileTransporter out(0, false, 1, DtFilename(outDir().c_str()));
             sent = out.sendFile(DtFilename(source.c_str()), DtInetAddr("127.0.0.1"), port);
          });
      std::size_t const before = done.size();  // an empty file sends nothing, gives no file
      bool const arrived = tickUntil([&] { return done.size() > before || (!size && sent); });
      sender.join();
      EXPECT_TRUE(sent);
      ASSERT_TRUE(arrived);
      ASSERT_EQ(done.size(), before + (size ? 1 : 0));
      EXPECT_TRUE(size ? done.back() == (inDir() / name).string() &&
                             readFile(inDir() / name) == bytes
                       : !fs::exists(inDir() / name));
   }
   EXPECT_TRUE(drain(std::size(cases)));

   // A port beyond 16 bits is refused before anything connects, not cut to the receiver's.
   olt::CapturePrinter warnings(DtWarn);
   DtInetFileTransporter out(0, false, 1, DtFilename(outDir().c_str()));
   EXPECT_FALSE(out.sendFile(DtFilename((outDir() / "exact").c_str()), DtInetAddr("127.0.0.1"),
                             port + 65536));
   for (int i = 0; i < 50; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
      receiver->tick();
   EXPECT_EQ(receiver->endedConnections(), std::size(cases));
   EXPECT_EQ(warnings.text().rfind("Ostrel(DtInetFileTransporter): Could not create socket", 0),
             0u);
}

TEST_F(FileTransporterTest, PortSearchSkipsTakenPorts)
{
   // Two taken ports followed by a free one; retried if another program holds one.
   auto listener = [](int port)
   {
      return std::make_unique<DtInetTcpSocket>(static_cast<unsigned short>(port), nullptr,
                                               DtInetUtils::DtInetFamilyIPv4);
   };
   for (int attempt = 0; attempt < 20; ++attempt)
   {
      auto first = listener(0);
      ASSERT_EQ(first->state(), DtInetSockStateListening);
      int const base = first->localPort(), free = base + 2;
      if (base > 65000)
         continue;
      auto second = listener(base + 1);
      if (second->state() != DtInetSockStateListening ||
          listener(free)->state() != DtInetSockStateListening)
         continue;
      int found = 0;
      // Without searching only the first port is tried; a search stops at its range's end.
      for (auto [search, range] : {std::pair{false, 3}, {true, 2}})
      {
         olt::CapturePrinter warnings(DtWarn);
         DtInetFileTransporter none(base, search, range, DtFilename(inDir().c_str()), &found);
         EXPECT_FALSE(none.isListening());
         EXPECT_EQ(found, -1);
         EXPECT_EQ(warnings.text(),
                   "Ostrel(DtInetFileTransporter) Could not find a free port in range " +
                       std::to_string(base) + " to " + std::to_string(base + search) + "\n");
      }
      DtInetFileTransporter three(base, true, 3, DtFilename(inDir().c_str()), &found);
      ASSERT_TRUE(three.isListening());
      EXPECT_EQ(std::make_pair(found, three.port()), std::make_pair(free, free));
      return;
   }
   GTEST_SKIP() << "no run of three neighbouring free ports found";
}

TEST_F(FileTransporterTest, HostilePeersLeaveNoFile)
{
   auto header = [](std::uint32_t length) { return u32(length) + u32(1); };
   std::string const socketError = "FileTransporter: Socket error-Exiting transfer";
   std::tuple<char const*, std::string, std::string> const cases[] = {
       {"zero packet length", header(0), "packet length 0 is shorter than its header"},
       {"one byte too long", header(65505), "packet length 65505 exceeds the largest packet"},
       {"first packet too short", header(20) + std::string(12, 'x'), "first packet of 20 bytes"},
       {"name without NUL", header(30) + u32(5) + u32(5) + u32(0) + "0123456789",
        "file name is not terminated"},
       {"climbing name", firstPacket(1, "../escape", 3, "bad"), "refused file name"},
       {"dot name", firstPacket(1, ".", 1, "x"), "refused file name"},
       {"temporary name", firstPacket(1, ".olxfer-abcdef", 1, "x"), "refused file name"},
       {"overlong name", firstPacket(1, std::string(256, 'n'), 1, "x"), "refused file name"},
       {"more data at first", firstPacket(1, "f", 2, "xyz"), "first packet holds more data"},
       {"more data later", firstPacket(1, "f", 4, "ab") + laterPacket(1, "cde"),
        ": packet holds more data than the file announced"},
       {"later packet without data", firstPacket(1, "f", 4, "ab") + laterPacket(1, ""),
        "packet without data"},
       {"another identifier", firstPacket(1, "f", 4, "ab") + laterPacket(2, "cd"),
        "packet for file 2 inside file"},
       {"length beyond what arrived", firstPacket(1, "f", 100, "abc", 200), socketError},
       {"disconnect mid-file", firstPacket(1, "f", 100, "abc"), socketError},
   };
   std::size_t ended = 0;
   for (auto const& [what, bytes, warning] : cases)
   {
      SCOPED_TRACE(what);
      olt::CapturePrinter warnings(DtWarn);
      auto peer = rawPeer();
      write(*peer, bytes);
      // The receiver reads what came before the peer goes.
      for (int i = 0; i < 50; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
         receiver->tick();
      peer.reset();
      EXPECT_TRUE(drain(++ended));
      EXPECT_NE(warnings.text().find(warning), std::string::npos) << warnings.text();
      EXPECT_EQ(filesIn(), 0u);  // no partial file, no temporary left
   }
   EXPECT_TRUE(done.empty());
   EXPECT_FALSE(fs::exists(myRoot / "escape"));
}

// A comes in pieces that split headers and packets; B, of the same name, whole meanwhile.
TEST_F(FileTransporterTest, SplitPacketsAndASecondTransferOfTheSameNameAreKeptApart)
{
   std::string const a = randomBytes(3000, 5), b = randomBytes(2000, 6);
   std::string const streamA = fileStream(1, "same", a, 1000);
   auto first = rawPeer(), second = rawPeer();
   for (std::size_t at = 0; at < 1500; at += 300)
   {
      write(*first, streamA.substr(at, 300));
      for (int i = 0; i < 3; ++i)
         receiver->tick();
   }
   ASSERT_TRUE(tickUntil([&] { return filesIn() == 1; }));
   write(*second, fileStream(1, "same", b, 1000));
   ASSERT_TRUE(tickUntil([&] { return done.size() == 1; }));
   second.reset();
   EXPECT_TRUE(readFile(inDir() / "same") == b);
   write(*first, streamA.substr(1500));
   ASSERT_TRUE(tickUntil([&] { return done.size() == 2; }));
   EXPECT_TRUE(readFile(inDir() / "same") == a);
   first.reset();
   EXPECT_TRUE(drain(2));
   EXPECT_TRUE(filesIn() == 1 && fs::exists(inDir() / "same"));
}

}  // namespace
