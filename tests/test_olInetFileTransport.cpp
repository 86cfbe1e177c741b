// Tests of the file transporter: packet reassembly fed without sockets, then whole
// files between two transporters on loopback, and hostile peers written by hand.
#include <olutil/olInetFileTransport.h>

#include <arpa/inet.h>

#include <chrono>
#include <cstring>
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

// ------------------------------------------------------------------ packets by hand

void putU32(std::string& out, std::uint32_t value)
{
   value = htonl(value);
   out.append(reinterpret_cast<char const*>(&value), 4);
}

std::string firstPacket(std::uint32_t id, std::string const& name, std::uint32_t total,
                        std::string const& data, std::uint32_t length = 0)
{
   std::string packet;
   putU32(packet, length ? length : static_cast<std::uint32_t>(20 + name.size() + 1 + data.size()));
   putU32(packet, id);
   putU32(packet, total);
   putU32(packet, total);
   putU32(packet, 0);
   packet += name;
   packet += '\0';
   packet += data;
   return packet;
}

std::string laterPacket(std::uint32_t id, std::string const& data)
{
   std::string packet;
   putU32(packet, static_cast<std::uint32_t>(8 + data.size()));
   putU32(packet, id);
   return packet + data;
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
   std::mt19937 generator(seed);
   std::string bytes(size, '\0');
   for (auto& byte : bytes)
      byte = static_cast<char>(generator());
   return bytes;
}

struct RecordingSink : DtInetFilePacketAssembler::Sink
{
   struct File
   {
      std::string name, data;
      bool ended = false;
   };
   std::vector<File> files;
   int failures = 0;
   std::string why;

   bool beginFile(std::uint32_t, std::string const& name, std::uint32_t, std::uint32_t,
                  std::uint32_t) override
   {
      files.push_back({name, "", false});
      return true;
   }
   bool fileData(char const* data, std::size_t length) override
   {
      files.back().data.append(data, length);
      return true;
   }
   bool endFile() override
   {
      files.back().ended = true;
      return true;
   }
   void transferFailed(std::string const& reason) override
   {
      ++failures;
      why = reason;
   }
   int endedFiles() const
   {
      int count = 0;
      for (auto const& file : files)
         count += file.ended;
      return count;
   }
};

// ------------------------------------------------------------------ reassembly

TEST(FilePacketAssembler, ReassemblesAFileSplitAtEveryChunkSize)
{
   std::string const data = randomBytes(300, 1);
   std::string const stream = fileStream(7, "data.bin", data, 64);
   for (std::size_t chunk = 1; chunk <= stream.size(); ++chunk)
   {
      SCOPED_TRACE("chunk " + std::to_string(chunk));
      RecordingSink sink;
      DtInetFilePacketAssembler assembler(sink, 64);
      for (std::size_t at = 0; at < stream.size(); at += chunk)
         ASSERT_TRUE(assembler.feed(stream.data() + at, std::min(chunk, stream.size() - at)));
      EXPECT_TRUE(assembler.finish());
      ASSERT_EQ(sink.files.size(), 1u);
      EXPECT_EQ(sink.files[0].name, "data.bin");
      EXPECT_TRUE(sink.files[0].ended);
      EXPECT_EQ(sink.files[0].data, data);
      EXPECT_EQ(sink.failures, 0);
   }
}

TEST(FilePacketAssembler, TakesFilesOneAfterTheOtherAndAnEmptyAnnouncedFile)
{
   std::string const stream = fileStream(1, "a", "first", 64) + firstPacket(2, "b", 0, "") +
                              fileStream(3, "c", randomBytes(200, 2), 64);
   RecordingSink sink;
   DtInetFilePacketAssembler assembler(sink, 64);
   ASSERT_TRUE(assembler.feed(stream.data(), stream.size()));
   EXPECT_TRUE(assembler.finish());
   ASSERT_EQ(sink.endedFiles(), 3);
   EXPECT_EQ(sink.files[0].data, "first");
   EXPECT_EQ(sink.files[1].data, "");
   EXPECT_EQ(sink.files[2].data, randomBytes(200, 2));
}

TEST(FilePacketAssembler, HostileStreamsEndTheTransferWithoutAFile)
{
   auto lengthOnly = [](std::uint32_t length)
   {
      std::string packet;
      putU32(packet, length);
      putU32(packet, 1);
      return packet + std::string(length > 8 && length < 100 ? length - 8 : 0, 'x');
   };
   std::string unterminated;
   putU32(unterminated, 30);
   putU32(unterminated, 1);
   putU32(unterminated, 5);
   putU32(unterminated, 5);
   putU32(unterminated, 0);
   unterminated += "0123456789";
   struct Case
   {
      char const* what;
      std::string stream;
   } const cases[] = {
       {"zero packet length", lengthOnly(0)},
       {"length shorter than the header", lengthOnly(7)},
       {"oversized packet", lengthOnly(65)},
       {"huge length field", lengthOnly(0xFFFFFFFFu)},
       {"first packet too short for its header", lengthOnly(20)},
       {"name without NUL", unterminated},
       {"parent directory", firstPacket(1, "..", 1, "x")},
       {"dot", firstPacket(1, ".", 1, "x")},
       {"climbing name", firstPacket(1, "../escape", 1, "x")},
       {"dots inside", firstPacket(1, "a..b", 1, "x")},
       {"absolute name", firstPacket(1, "/tmp/escape", 1, "x")},
       {"subdirectory", firstPacket(1, "sub/file", 1, "x")},
       {"empty name", firstPacket(1, "", 1, "x")},
       {"temporary name", firstPacket(1, ".olxfer-abcdef", 1, "x")},
       {"overlong name", firstPacket(1, std::string(256, 'n'), 1, "x", 0)},
       {"more data than announced at first", firstPacket(1, "f", 2, "xyz")},
       {"more data than announced later", firstPacket(1, "f", 4, "ab") + laterPacket(1, "cde")},
       {"later packet without data", firstPacket(1, "f", 4, "ab") + laterPacket(1, "")},
       {"another identifier inside a file", firstPacket(1, "f", 4, "ab") + laterPacket(2, "cd")},
   };
   for (auto const& test : cases)
   {
      SCOPED_TRACE(test.what);
      RecordingSink sink;
      // Large enough for the overlong name, small enough for "oversized".
      DtInetFilePacketAssembler assembler(sink,
                                          std::string(test.what) == "overlong name" ? 400 : 64);
      EXPECT_FALSE(assembler.feed(test.stream.data(), test.stream.size()));
      EXPECT_TRUE(assembler.failed());
      EXPECT_EQ(sink.failures, 1);
      EXPECT_EQ(sink.endedFiles(), 0);
      // Nothing more is taken from a broken stream, and no second report is made.
      std::string const good = fileStream(9, "ok", "fine", 64);
      EXPECT_FALSE(assembler.feed(good.data(), good.size()));
      EXPECT_FALSE(assembler.finish());
      EXPECT_EQ(sink.failures, 1);
      EXPECT_EQ(sink.endedFiles(), 0);
   }
}

TEST(FilePacketAssembler, AStreamEndingInsideAPacketOrAFileFails)
{
   std::string const stream = fileStream(1, "f", randomBytes(100, 3), 64);
   struct Case
   {
      char const* what;
      std::size_t cut;
   } const cases[] = {{"inside a length field", 3},
                      {"inside the first packet", 30},
                      {"between packets", 64},
                      {"inside a later packet", 70}};
   for (auto const& test : cases)
   {
      SCOPED_TRACE(test.what);
      RecordingSink sink;
      DtInetFilePacketAssembler assembler(sink, 64);
      EXPECT_TRUE(assembler.feed(stream.data(), test.cut));
      EXPECT_FALSE(assembler.finish());
      EXPECT_EQ(sink.failures, 1);
      EXPECT_EQ(sink.endedFiles(), 0);
   }
}

TEST(FilePacketAssembler, SafeNames)
{
   struct Case
   {
      char const* name;
      bool safe;
   } const cases[] = {{"file.txt", true}, {".hidden", true}, {"a b", true},  {"x", true},
                      {"..", false},      {".", false},      {"", false},    {"a/b", false},
                      {"/abs", false},    {"..x", false},    {"x..", false}, {".olxfer-1", false}};
   for (auto const& test : cases)
   {
      SCOPED_TRACE(test.name);
      EXPECT_EQ(DtInetFilePacketAssembler::isSafeName(test.name), test.safe);
   }
   EXPECT_TRUE(DtInetFilePacketAssembler::isSafeName(std::string(255, 'n')));
   EXPECT_FALSE(DtInetFilePacketAssembler::isSafeName(std::string(256, 'n')));
}

// ------------------------------------------------------------------ over loopback

class FileTransporterTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      char pattern[] = "/tmp/olxfer-test-XXXXXX";
      ASSERT_NE(::mkdtemp(pattern), nullptr);
      myRoot = pattern;
      fs::create_directory(myRoot / "in");
      fs::create_directory(myRoot / "out");
   }
   void TearDown() override
   {
      std::error_code ignored;
      fs::remove_all(myRoot, ignored);
   }

   fs::path inDir() const { return myRoot / "in"; }
   fs::path outDir() const { return myRoot / "out"; }

   fs::path writeFile(std::string const& name, std::string const& bytes)
   {
      fs::path const path = outDir() / name;
      std::ofstream(path, std::ios::binary) << bytes;
      return path;
   }

   static std::string readFile(fs::path const& path)
   {
      std::ifstream in(path, std::ios::binary);
      return std::string(std::istreambuf_iterator<char>(in), {});
   }

   // Names in the receiving directory.
   std::vector<std::string> received() const
   {
      std::vector<std::string> names;
      for (auto const& entry : fs::directory_iterator(inDir()))
         names.push_back(entry.path().filename().string());
      std::sort(names.begin(), names.end());
      return names;
   }

   static void countFile(DtFilename const& file, void* data)
   {
      static_cast<std::vector<std::string>*>(data)->push_back(file.c_str());
   }

   // Ticks until `done` holds, for at most 60 seconds.
   template <class Done>
   static bool tickUntil(DtInetFileTransporter& receiver, Done done)
   {
      auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (!done())
      {
         if (std::chrono::steady_clock::now() > deadline)
            return false;
         receiver.tick();
         std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      return true;
   }

   // Ticks until `count` connections in all have ended.
   static bool drain(DtInetFileTransporter& receiver, std::size_t count)
   {
      return tickUntil(receiver, [&] { return receiver.endedConnections() >= count; });
   }

   fs::path myRoot;
};

TEST_F(FileTransporterTest, RoundTripsFilesOfEverySize)
{
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename(inDir().c_str()), &port);
   ASSERT_TRUE(receiver.isListening());
   ASSERT_GT(port, 0);
   EXPECT_EQ(receiver.port(), port);
   std::vector<std::string> done;
   receiver.addFileTransferedCallback(countFile, &done);

   std::size_t const onePacket = 65504 - 21 - std::strlen("exact");
   struct Case
   {
      char const* name;
      std::size_t size;
   } const cases[] = {{"one", 1},           {"small", 100},
                      {"exact", onePacket}, {"twoPackets", onePacket + 1},
                      {"multi", 200000},    {"large", 24u << 20}};
   unsigned seed = 10;
   for (auto const& test : cases)
   {
      SCOPED_TRACE(test.name);
      std::string const bytes = randomBytes(test.size, ++seed);
      fs::path const source = writeFile(test.name, bytes);
      bool sent = false;
      std::thread sender(
          [&]
          {
             DtInetFileTransporter out(0, false, 1, DtFilename(outDir().c_str()));
             sent = out.sendFile(DtFilename(source.c_str()), DtInetAddr("127.0.0.1"), port);
          });
      std::size_t const before = done.size();
      bool const arrived = tickUntil(receiver, [&] { return done.size() > before; });
      sender.join();
      EXPECT_TRUE(sent);
      ASSERT_TRUE(arrived);
      ASSERT_EQ(done.size(), before + 1);
      EXPECT_EQ(done.back(), (inDir() / test.name).string());
      EXPECT_TRUE(readFile(inDir() / test.name) == bytes);
   }
   EXPECT_TRUE(drain(receiver, std::size(cases)));
   EXPECT_EQ(done.size(), std::size(cases));
}

TEST_F(FileTransporterTest, AnEmptyFileSendsNothing)
{
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename(inDir().c_str()), &port);
   std::vector<std::string> done;
   receiver.addFileTransferedCallback(countFile, &done);
   fs::path const source = writeFile("empty", "");
   DtInetFileTransporter sender(0, false, 1, DtFilename(outDir().c_str()));
   EXPECT_TRUE(sender.sendFile(DtFilename(source.c_str()), DtInetAddr("127.0.0.1"), port));
   EXPECT_TRUE(drain(receiver, 1));
   EXPECT_TRUE(done.empty());
   EXPECT_TRUE(received().empty());
}

TEST_F(FileTransporterTest, PortSearchSkipsTakenPorts)
{
   // Two taken ports followed by a free one; retried if another program holds one.
   for (int attempt = 0; attempt < 20; ++attempt)
   {
      DtInetTcpSocket first(0, nullptr, DtInetUtils::DtInetFamilyIPv4);
      ASSERT_EQ(first.state(), DtInetSockStateListening);
      unsigned short const base = first.localPort();
      if (base > 65000)
         continue;
      DtInetTcpSocket second(static_cast<unsigned short>(base + 1), nullptr,
                             DtInetUtils::DtInetFamilyIPv4);
      if (second.state() != DtInetSockStateListening)
         continue;
      {
         DtInetTcpSocket probe(static_cast<unsigned short>(base + 2), nullptr,
                               DtInetUtils::DtInetFamilyIPv4);
         if (probe.state() != DtInetSockStateListening)
            continue;
      }
      int found = 0;
      {
         olt::CapturePrinter warnings(DtWarn);
         DtInetFileTransporter none(base, false, 3, DtFilename(inDir().c_str()), &found);
         EXPECT_FALSE(none.isListening());
         EXPECT_EQ(found, -1);
         none.tick();  // does nothing without a listener
         std::string const range = std::to_string(base);
         EXPECT_EQ(warnings.text(),
                   "Ostrel(DtInetFileTransporter) Could not find a free port in range " + range +
                       " to " + range + "\n");
      }
      {
         olt::CapturePrinter warnings(DtWarn);
         DtInetFileTransporter two(base, true, 2, DtFilename(inDir().c_str()), &found);
         EXPECT_FALSE(two.isListening());
         EXPECT_NE(warnings.text().find(" to " + std::to_string(base + 1)), std::string::npos);
      }
      DtInetFileTransporter three(base, true, 3, DtFilename(inDir().c_str()), &found);
      ASSERT_TRUE(three.isListening());
      EXPECT_EQ(found, base + 2);
      EXPECT_EQ(three.port(), base + 2);
      return;
   }
   GTEST_SKIP() << "no run of three neighbouring free ports found";
}

// A client that writes raw bytes to the receiver.
struct RawPeer
{
   std::unique_ptr<DtInetTcpSocket> socket;
   explicit RawPeer(int port)
       : socket(std::make_unique<DtInetTcpSocket>(
             olt::tcpEndpoint("127.0.0.1", static_cast<unsigned short>(port))))
   {
   }
   void write(std::string const& bytes)
   {
      ASSERT_EQ(socket->send(const_cast<char*>(bytes.data()), bytes.size(), 0),
                static_cast<int>(bytes.size()));
   }
   void close() { socket.reset(); }
};

TEST_F(FileTransporterTest, HostileNamesWriteNothing)
{
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename(inDir().c_str()), &port);
   std::vector<std::string> done;
   receiver.addFileTransferedCallback(countFile, &done);
   std::size_t ended = 0;
   for (char const* name : {"../escape", "/tmp/olxfer-escape-abs", "..", "sub/x"})
   {
      SCOPED_TRACE(name);
      olt::CapturePrinter warnings(DtWarn);
      RawPeer peer(port);
      peer.write(firstPacket(1, name, 3, "bad"));
      EXPECT_TRUE(drain(receiver, ++ended));
      EXPECT_NE(warnings.text().find("refused file name"), std::string::npos) << warnings.text();
   }
   EXPECT_TRUE(done.empty());
   EXPECT_TRUE(received().empty());
   EXPECT_FALSE(fs::exists(myRoot / "escape"));
   EXPECT_FALSE(fs::exists("/tmp/olxfer-escape-abs"));
}

TEST_F(FileTransporterTest, BrokenPacketsAndDisconnectsLeaveNoFile)
{
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename(inDir().c_str()), &port);
   std::vector<std::string> done;
   receiver.addFileTransferedCallback(countFile, &done);
   std::string zero;
   putU32(zero, 0);
   putU32(zero, 1);
   std::string oversized;
   putU32(oversized, 70000);
   putU32(oversized, 1);
   struct Case
   {
      char const* what;
      std::string bytes;
      char const* warning;
   } const cases[] = {
       {"zero-length packet", zero, "shorter than its header"},
       {"oversized packet", oversized, "exceeds the largest packet"},
       {"length beyond what arrived", firstPacket(1, "f", 100, "abc", 200),
        "FileTransporter: Socket error-Exiting transfer"},
       {"disconnect mid-file", firstPacket(1, "f", 100, "abc"),
        "FileTransporter: Socket error-Exiting transfer"},
   };
   std::size_t ended = 0;
   for (auto const& test : cases)
   {
      SCOPED_TRACE(test.what);
      olt::CapturePrinter warnings(DtWarn);
      {
         RawPeer peer(port);
         peer.write(test.bytes);
         // The receiver reads what came before the peer goes.
         for (int i = 0; i < 50; ++i)
         {
            receiver.tick();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
         }
      }
      EXPECT_TRUE(drain(receiver, ++ended));
      EXPECT_NE(warnings.text().find(test.warning), std::string::npos) << warnings.text();
      EXPECT_TRUE(received().empty());  // no partial file, no temporary left
   }
   EXPECT_TRUE(done.empty());
}

TEST_F(FileTransporterTest, PacketsSplitAcrossReadsAreReassembled)
{
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename(inDir().c_str()), &port);
   std::vector<std::string> done;
   receiver.addFileTransferedCallback(countFile, &done);
   std::string const stream = fileStream(5, "split", randomBytes(5000, 4), 1000);
   RawPeer peer(port);
   for (std::size_t at = 0; at < stream.size(); at += 333)
   {
      peer.write(stream.substr(at, 333));
      for (int i = 0; i < 3; ++i)
         receiver.tick();
   }
   ASSERT_TRUE(tickUntil(receiver, [&] { return !done.empty(); }));
   EXPECT_EQ(readFile(inDir() / "split"), randomBytes(5000, 4));
}

TEST_F(FileTransporterTest, ASecondTransferOfTheSameNameDoesNotCorruptTheFirst)
{
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename(inDir().c_str()), &port);
   std::vector<std::string> done;
   receiver.addFileTransferedCallback(countFile, &done);
   std::string const a = randomBytes(3000, 5);
   std::string const b = randomBytes(2000, 6);
   std::string const streamA = fileStream(1, "same", a, 1000);
   RawPeer first(port);
   first.write(streamA.substr(0, 1500));
   ASSERT_TRUE(tickUntil(
       receiver, [&] { return fs::directory_iterator(inDir()) != fs::directory_iterator(); }));
   {
      RawPeer second(port);
      second.write(fileStream(1, "same", b, 1000));
      ASSERT_TRUE(tickUntil(receiver, [&] { return done.size() == 1; }));
   }
   EXPECT_TRUE(readFile(inDir() / "same") == b);
   first.write(streamA.substr(1500));
   ASSERT_TRUE(tickUntil(receiver, [&] { return done.size() == 2; }));
   EXPECT_TRUE(readFile(inDir() / "same") == a);
   first.close();
   EXPECT_TRUE(drain(receiver, 2));
   EXPECT_EQ(received(), std::vector<std::string>{"same"});
}

TEST_F(FileTransporterTest, AMissingTargetDirectoryGivesNoCallback)
{
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename((myRoot / "missing").c_str()), &port);
   std::vector<std::string> done;
   receiver.addFileTransferedCallback(countFile, &done);
   olt::CapturePrinter warnings(DtWarn);
   RawPeer peer(port);
   peer.write(fileStream(1, "f", "content", 1000));
   peer.close();
   EXPECT_TRUE(drain(receiver, 1));
   EXPECT_NE(warnings.text().find("DtInetFileTransporter: cant create file"), std::string::npos);
   EXPECT_TRUE(done.empty());
}

TEST_F(FileTransporterTest, SendFailuresAreWarnings)
{
   DtInetFileTransporter sender(0, false, 1, DtFilename(outDir().c_str()));
   {
      olt::CapturePrinter warnings(DtWarn);
      EXPECT_FALSE(sender.sendFile(DtFilename((outDir() / "absent").c_str()),
                                   DtInetAddr("127.0.0.1"), sender.port()));
      EXPECT_EQ(warnings.text(), "Ostrel(DtInetFileTransporter): error opening file " +
                                     (outDir() / "absent").string() + "\n");
   }
   // A port nobody listens on: one freed just now.
   int freed = 0;
   {
      DtInetFileTransporter gone(0, false, 1, DtFilename(inDir().c_str()), &freed);
   }
   fs::path const source = writeFile("x", "x");
   olt::CapturePrinter warnings(DtWarn);
   EXPECT_FALSE(sender.sendFile(DtFilename(source.c_str()), DtInetAddr("127.0.0.1"), freed));
   EXPECT_EQ(warnings.text().rfind(
                 "Ostrel(DtInetFileTransporter): Could not create socket send() to  ", 0),
             0u)
       << warnings.text();
}

TEST_F(FileTransporterTest, WaitForActivitySeesConnectionsAndBytes)
{
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename(inDir().c_str()), &port);
   EXPECT_FALSE(receiver.waitForActivity(0));
   RawPeer peer(port);
   EXPECT_TRUE(receiver.waitForActivity(5000));  // the connection to accept
   ASSERT_TRUE(tickUntil(receiver, [&] { return receiver.openConnections() == 1; }));
   EXPECT_FALSE(receiver.waitForActivity(0));
   peer.write(laterPacket(1, "x").substr(0, 3));
   EXPECT_TRUE(receiver.waitForActivity(5000));  // bytes to read
   receiver.tick();
   EXPECT_FALSE(receiver.waitForActivity(0));  // half a header is kept, not re-read

   DtInetFileTransporter none(-1, false, 1, DtFilename(inDir().c_str()));
   EXPECT_FALSE(none.waitForActivity(0));
}

TEST(FileTransporter, IdentifiersAndObjects)
{
   int const a = DtInetFileTransporter::nextFileIdentifier();
   int const b = DtInetFileTransporter::nextFileIdentifier();
   EXPECT_EQ(b, a + 1);
   DtInetFileTransporter none(-1, false, 1, DtFilename("/tmp"));
   DtInetFileTransportObject& object = none.transportObject(42);
   EXPECT_EQ(object.identifier, 42);
   EXPECT_EQ(object.fileSize, 0u);
   EXPECT_EQ(&none.transportObject(42), &object);
}

}  // namespace
