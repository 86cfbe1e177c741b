//===- olInetFileTransport.cpp - Whole files over TCP ----------------------===//
//
// Family: Sockets.
//
// The port search, the sending of a file as packets over a fresh connection, the
// reassembly of packets from the bytes of each accepted connection, and the writing of
// each file under a temporary name that is renamed once the file is whole.
//
//===----------------------------------------------------------------------===//
#include <olutil/olInetFileTransport.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <boost/asio/ip/tcp.hpp>

#include <olutil/olInetEndpoint.h>
#include <olutil/olInetSocketMgr.h>
#include <olutil/olInetTcpSocket.h>
#include <olutil/olPrint.h>

namespace
{

std::atomic<int> gNumFiles{0};

char const* const theSocketErrorText = "FileTransporter: Socket error-Exiting transfer";

std::uint32_t readU32(char const* at)
{
   std::uint32_t value;
   std::memcpy(&value, at, sizeof value);
   return ntohl(value);
}

void writeU32(char* at, std::uint32_t value)
{
   value = htonl(value);
   std::memcpy(at, &value, sizeof value);
}

// Reads up to this many times from one connection in one tick, so that a fast sender
// cannot keep the other connections waiting.
constexpr int theReadsPerTick = 16;
// One read takes up to this many of the largest packets: fewer system calls for a
// large file.
constexpr std::size_t thePacketsPerRead = 4;
// The send buffer of a file's connection.
constexpr unsigned int theSendBufferSize = 256 * 1024;

}  // namespace

// ------------------------------------------------------------------ assembler

DtInetFilePacketAssembler::DtInetFilePacketAssembler(Sink& sink, std::size_t maxPacket)
    : mySink(sink), myMaxPacket(std::max<std::size_t>(maxPacket, theFirstHeaderSize + 2))
{
}

bool DtInetFilePacketAssembler::isSafeName(std::string const& name)
{
   if (name.empty() || name.size() > 255 || name == "." || name == "..")
      return false;
   if (name.find('/') != std::string::npos || name.find("..") != std::string::npos)
      return false;
   return name.compare(0, std::strlen(theTemporaryPrefix), theTemporaryPrefix) != 0;
}

bool DtInetFilePacketAssembler::fail(std::string const& why)
{
   myFailed = true;
   myPending.clear();
   myPending.shrink_to_fit();
   mySink.transferFailed(why);
   return false;
}

bool DtInetFilePacketAssembler::checkLength(std::uint32_t length)
{
   if (length < theLaterHeaderSize)
      return fail("packet length " + std::to_string(length) + " is shorter than its header");
   if (length > myMaxPacket)
      return fail("packet length " + std::to_string(length) + " exceeds the largest packet");
   myPacketLength = length;
   return true;
}

bool DtInetFilePacketAssembler::feed(char const* bytes, std::size_t length)
{
   if (myFailed)
      return false;
   while (length > 0)
   {
      if (myPending.empty() && length >= theLaterHeaderSize)
      {
         // The usual case: the packet starts here; act on it in place if it is whole.
         if (!checkLength(readU32(bytes)))
            return false;
         if (length < myPacketLength)
         {
            myPending.assign(bytes, bytes + length);
            return true;
         }
         if (!handlePacket(bytes, myPacketLength))
            return false;
         bytes += myPacketLength;
         length -= myPacketLength;
         continue;
      }
      if (myPending.size() < theLaterHeaderSize)
      {
         std::size_t const take = std::min(theLaterHeaderSize - myPending.size(), length);
         myPending.insert(myPending.end(), bytes, bytes + take);
         bytes += take;
         length -= take;
         if (myPending.size() < theLaterHeaderSize)
            return true;
         if (!checkLength(readU32(myPending.data())))
            return false;
      }
      std::size_t const take = std::min<std::size_t>(myPacketLength - myPending.size(), length);
      myPending.insert(myPending.end(), bytes, bytes + take);
      bytes += take;
      length -= take;
      if (myPending.size() == myPacketLength)
      {
         if (!handlePacket(myPending.data(), myPending.size()))
            return false;
         myPending.clear();
      }
   }
   return true;
}

bool DtInetFilePacketAssembler::finish()
{
   if (myFailed)
      return false;
   if (!myPending.empty())
      return fail("the connection ended inside a packet");
   if (myInFile)
      return fail("the connection ended inside a file");
   return true;
}

bool DtInetFilePacketAssembler::handlePacket(char const* packet, std::size_t length)
{
   std::uint32_t const identifier = readU32(packet + 4);
   char const* data = packet + theLaterHeaderSize;
   std::size_t dataLength = length - theLaterHeaderSize;
   if (!myInFile)
   {
      if (length < theFirstHeaderSize + 1)
         return fail("first packet of " + std::to_string(length) + " bytes is too short");
      char const* const name = packet + theFirstHeaderSize;
      char const* const end =
          static_cast<char const*>(std::memchr(name, '\0', length - theFirstHeaderSize));
      if (end == nullptr)
         return fail("file name is not terminated");
      std::string const fileName(name, end);
      if (!isSafeName(fileName))
         return fail("refused file name \"" + fileName + "\"");
      std::uint32_t const transferBytes = readU32(packet + 12);
      data = end + 1;
      dataLength = static_cast<std::size_t>(packet + length - data);
      if (dataLength > transferBytes)
         return fail("first packet holds more data than the file announced");
      myIdentifier = identifier;
      myExpected = transferBytes;
      myReceived = 0;
      myInFile = true;
      if (!mySink.beginFile(identifier, fileName, readU32(packet + 8), transferBytes,
                            readU32(packet + 16)))
      {
         myInFile = false;
         myFailed = true;
         return false;
      }
   }
   else
   {
      if (identifier != myIdentifier)
         return fail("packet for file " + std::to_string(identifier) + " inside file " +
                     std::to_string(myIdentifier));
      if (dataLength == 0)
         return fail("packet without data");
      if (dataLength > myExpected - myReceived)
         return fail("packet holds more data than the file announced");
   }
   if (dataLength > 0 && !mySink.fileData(data, dataLength))
   {
      myFailed = true;
      return false;
   }
   myReceived += static_cast<std::uint32_t>(dataLength);
   if (myReceived == myExpected)
   {
      myInFile = false;
      if (!mySink.endFile())
      {
         myFailed = true;
         return false;
      }
   }
   return true;
}

// ------------------------------------------------------------------ connection

// One accepted connection: its assembler and the file it is writing.
class DtInetFileTransporter::Connection : public DtInetFilePacketAssembler::Sink
{
public:
   Connection(DtInetFileTransporter& owner, std::size_t maxPacket)
       : myOwner(owner), myAssembler(*this, maxPacket)
   {
   }
   ~Connection() override { dropFile(); }

   DtInetFilePacketAssembler& assembler() { return myAssembler; }

   bool beginFile(std::uint32_t, std::string const& name, std::uint32_t, std::uint32_t total,
                  std::uint32_t) override
   {
      std::string directory = myOwner.myTargetDirectory.c_str();
      if (directory.empty())
         directory = ".";
      myFinal = directory + "/" + name;
      myName = name;
      myTotal = total;
      myDone = 0;
      // A name of its own for each transfer: a second transfer of the same file never
      // writes into this one, and the final name only ever receives a whole file.
      std::string pattern =
          directory + "/" + DtInetFilePacketAssembler::theTemporaryPrefix + "XXXXXX";
      myFd = ::mkstemp(&pattern[0]);
      if (myFd < 0)
      {
         DtWarn << "DtInetFileTransporter: cant create file" << std::endl;
         return false;
      }
      myTemporary = pattern;
      ::fchmod(myFd, 0644);
      return true;
   }

   bool fileData(char const* data, std::size_t length) override
   {
      while (length > 0)
      {
         ssize_t const written = ::write(myFd, data, length);
         if (written < 0 && errno == EINTR)
            continue;
         if (written <= 0)
         {
            DtWarn << "DtInetFileTransporter: Error writing file" << std::endl;
            dropFile();
            return false;
         }
         data += written;
         length -= static_cast<std::size_t>(written);
         myDone += static_cast<std::uint64_t>(written);
      }
      myOwner.receiveProgress(myName, myDone, myTotal);
      return true;
   }

   bool endFile() override
   {
      bool const closed = ::close(myFd) == 0;
      myFd = -1;
      if (!closed || ::rename(myTemporary.c_str(), myFinal.c_str()) != 0)
      {
         DtWarn << "DtInetFileTransporter: Error writing file" << std::endl;
         dropFile();
         return false;
      }
      myTemporary.clear();
      myOwner.fileDone(DtFilename(myFinal.c_str()));
      return true;
   }

   void transferFailed(std::string const& why) override
   {
      DtWarn << "DtInetFileTransporter: " << why << "; transfer dropped" << std::endl;
      dropFile();
   }

   void connectionEnded()
   {
      if (!myAssembler.failed() && (myAssembler.inFile() || !myAssembler.finish()))
         DtWarn << theSocketErrorText << std::endl;
      dropFile();
   }

private:
   void dropFile()
   {
      if (myFd >= 0)
         ::close(myFd);
      myFd = -1;
      if (!myTemporary.empty())
         ::unlink(myTemporary.c_str());
      myTemporary.clear();
   }

   DtInetFileTransporter& myOwner;
   DtInetFilePacketAssembler myAssembler;
   int myFd = -1;
   std::string myTemporary;
   std::string myFinal;
   std::string myName;
   std::uint64_t myTotal = 0;
   std::uint64_t myDone = 0;
};

// ------------------------------------------------------------------ transporter

DtInetFileTransporter::DtInetFileTransporter(int port, bool searchPorts, int portRange,
                                             DtFilename const& targetDirectory, int* actualPort,
                                             bool useManagerVariant)
    : myPort(port), myManager(nullptr), myTargetDirectory(targetDirectory)
{
   int tries = searchPorts ? portRange : 1;
   int const first = port;
   DtInetUtils::DtInetAddrFamily const family =
       useManagerVariant ? DtInetUtils::DtInetFamilyIPv6 : DtInetUtils::DtInetFamilyIPv4;
   while (tries > 0 && myPort >= 0 && myPort <= 65535)
   {
      DtInetEndpoint endpoint(DtInetAddr(family), static_cast<unsigned short>(myPort),
                              DtInetProtocolTcp);
      auto* manager = new DtInetSocketMgr(endpoint, nullptr, DtInetSocketMgr::theDefaultServerFlags,
                                          DtInetSockFlagsDefault, family);
      DtInetSocket* server = manager->serverSocket();
      if (server != nullptr && server->state() == DtInetSockStateListening)
      {
         myManager = manager;
         if (myPort == 0)
            myPort = server->localPort();
         break;
      }
      delete manager;
      ++myPort;
      --tries;
   }
   if (myManager == nullptr)
   {
      int const last = first + (searchPorts ? std::max(portRange, 1) : 1) - 1;
      DtWarn << "Ostrel(DtInetFileTransporter) Could not find a free port in range " << first
             << " to " << last << std::endl;
      myPort = -1;
   }
   else
   {
      myManager->addSocketRemovalCallback(connectionRemovedCb, this, 0);
   }
   if (actualPort != nullptr)
      *actualPort = myPort;
   myReadBuffer.resize(thePacketsPerRead *
                       static_cast<std::size_t>(DtInetUtils::getMaxPacketBufferSize()));
}

DtInetFileTransporter::~DtInetFileTransporter()
{
   // The manager's removal callbacks delete the connection sockets; their transfers
   // are dropped with them.
   delete myManager;
   myConnections.clear();
}

bool DtInetFileTransporter::connectionRemovedCb(DtInetSocket* socket, void* transporter)
{
   auto* self = static_cast<DtInetFileTransporter*>(transporter);
   auto found = self->myConnections.find(socket);
   if (found != self->myConnections.end())
   {
      found->second->connectionEnded();
      self->myConnections.erase(found);
   }
   ++self->myEndedConnections;
   delete socket;
   return true;
}

void DtInetFileTransporter::tick()
{
   if (myManager == nullptr)
      return;
   myManager->processConnections();
   std::vector<DtInetSocket*> sockets;
   for (auto const& entry : myManager->socketList())
      sockets.push_back(entry.second);
   for (DtInetSocket* socket : sockets)
      receiveFileCb(socket, this);
}

bool DtInetFileTransporter::waitForActivity(int milliseconds)
{
   std::vector<pollfd> descriptors;
   if (myManager != nullptr)
   {
      auto* server = dynamic_cast<DtInetTcpSocket*>(myManager->serverSocket());
      if (server != nullptr && server->tcpServerSocket() != nullptr)
         descriptors.push_back({server->tcpServerSocket()->native_handle(), POLLIN, 0});
      for (auto const& entry : myManager->socketList())
         descriptors.push_back({entry.second->descriptor(), POLLIN, 0});
   }
   descriptors.erase(std::remove_if(descriptors.begin(), descriptors.end(),
                                    [](pollfd const& entry) { return entry.fd < 0; }),
                     descriptors.end());
   if (descriptors.empty())
   {
      if (milliseconds > 0)
         ::poll(nullptr, 0, milliseconds);
      return false;
   }
   return ::poll(descriptors.data(), descriptors.size(), milliseconds) > 0;
}

bool DtInetFileTransporter::receiveFileCb(DtInetSocket* socket, void* transporter)
{
   auto* tcp = dynamic_cast<DtInetTcpSocket*>(socket);
   if (tcp == nullptr)
      return false;
   return static_cast<DtInetFileTransporter*>(transporter)->receiveFile(tcp);
}

bool DtInetFileTransporter::receiveFile(DtInetTcpSocket* socket)
{
   auto found = myConnections.find(socket);
   if (found == myConnections.end())
   {
      auto const maxPacket = static_cast<std::size_t>(DtInetUtils::getMaxPacketBufferSize());
      found = myConnections.emplace(socket, std::make_unique<Connection>(*this, maxPacket)).first;
   }
   Connection& connection = *found->second;
   bool ended = false;
   for (int reads = 0; reads < theReadsPerTick; ++reads)
   {
      int const got = socket->recv(myReadBuffer.data(), myReadBuffer.size(), 0);
      if (got == 0)
         break;  // nothing more for now: come back on the next tick
      if (got < 0)
      {
         ended = true;
         break;
      }
      DtDebug("FileTransporter: Received %d bytes in file transporter\n", got);
      if (!connection.assembler().feed(myReadBuffer.data(), static_cast<std::size_t>(got)))
      {
         ended = true;
         break;
      }
   }
   if (ended)
      myManager->removeConnection(static_cast<DtInetSocket const*>(socket));
   return !ended;
}

void DtInetFileTransporter::fileDone(DtFilename const& path)
{
   // A copy: a callback may add or remove callbacks.
   auto const callbacks = myCallbacks;
   for (auto const& callback : callbacks)
      callback.first(path, callback.second);
}

void DtInetFileTransporter::addFileTransferedCallback(DtInetFileTransferedCb fn, void* clientData)
{
   myCallbacks[fn] = clientData;
}

void DtInetFileTransporter::removeFileTransferedCallback(DtInetFileTransferedCb fn)
{
   myCallbacks.erase(fn);
}

DtInetFileTransportObject& DtInetFileTransporter::transportObject(int identifier)
{
   DtInetFileTransportObject& object = myObjects[identifier];
   object.identifier = identifier;
   return object;
}

int DtInetFileTransporter::nextFileIdentifier()
{
   return ++gNumFiles;
}

bool DtInetFileTransporter::readFileToBuffer(std::ifstream& in, std::vector<char>& buffer, int size,
                                             int& transferBytes, int& fileAttribute)
{
   buffer.resize(static_cast<std::size_t>(size) + 1);
   in.read(buffer.data(), size);
   if (in.gcount() != size)
      return false;
   transferBytes = size;
   fileAttribute = 0;
   return true;
}

void DtInetFileTransporter::sendProgress(DtFilename const&, std::uint64_t, std::uint64_t) {}

void DtInetFileTransporter::receiveProgress(std::string const&, std::uint64_t, std::uint64_t) {}

bool DtInetFileTransporter::sendFile(DtFilename const& file, DtInetAddr const& peer)
{
   return sendFile(file, peer, myPort);
}

bool DtInetFileTransporter::sendFile(DtFilename const& file, DtInetAddr const& peer, int port)
{
   std::ifstream in(file.c_str(), std::ios::binary);
   long const length = file.fileLength();
   std::string const name = DtFilename::stripPath(file).c_str();
   std::size_t const maxPacket = static_cast<std::size_t>(DtInetUtils::getMaxPacketBufferSize());
   // The packet header carries 32-bit sizes and the buffer is sized by an int; the
   // name goes whole into the first packet.
   if (!in.good() || length < 0 || length > INT_MAX - 1 ||
       name.size() + 1 + DtInetFilePacketAssembler::theFirstHeaderSize >= maxPacket)
   {
      DtWarn << "Ostrel(DtInetFileTransporter): error opening file " << file.c_str() << std::endl;
      return false;
   }
   std::vector<char> buffer;
   int transferBytes = 0;
   int fileAttribute = 0;
   if (!readFileToBuffer(in, buffer, static_cast<int>(length), transferBytes, fileAttribute) ||
       transferBytes < 0 || static_cast<std::size_t>(transferBytes) > buffer.size())
   {
      DtWarn << "Ostrel(DtInetFileTransporter) error reading file " << file.c_str() << std::endl;
      return false;
   }
   DtInetEndpoint const endpoint(peer, static_cast<unsigned short>(port), DtInetProtocolTcp);
   auto const cannotConnect = [&endpoint]
   {
      DtWarn << "Ostrel(DtInetFileTransporter): Could not create socket send()"
             << " to  " << endpoint << std::endl;
      return false;
   };
   // Checked before anything connects: cut to 16 bits, a port out of range would reach
   // whatever listens on the port it wraps to.
   if (port < 0 || port > 65535)
      return cannotConnect();
   DtInetTcpSocket socket(endpoint, 0, nullptr, DtInetSockFlagsDefault, true);
   if (!socket.isOk())
      return cannotConnect();
   // The socket opens with the largest send buffer the system allows; for one bulk
   // stream that lets the sender run megabytes ahead, and the receiver's copy then
   // finds the bytes out of cache: on loopback that halved the throughput.
   socket.setSendBufferSize(theSendBufferSize);
   std::vector<char> packet(maxPacket);
   std::uint32_t const identifier = static_cast<std::uint32_t>(nextFileIdentifier());
   std::size_t const total = static_cast<std::size_t>(transferBytes);
   std::size_t position = 0;
   std::uint64_t sent = 0;
   while (position < total)
   {
      writeU32(packet.data() + 4, identifier);
      std::size_t header = DtInetFilePacketAssembler::theLaterHeaderSize;
      if (position == 0)
      {
         writeU32(packet.data() + 8, static_cast<std::uint32_t>(length));
         writeU32(packet.data() + 12, static_cast<std::uint32_t>(transferBytes));
         writeU32(packet.data() + 16, static_cast<std::uint32_t>(fileAttribute));
         std::memcpy(packet.data() + DtInetFilePacketAssembler::theFirstHeaderSize, name.c_str(),
                     name.size() + 1);
         header = DtInetFilePacketAssembler::theFirstHeaderSize + name.size() + 1;
      }
      std::size_t const chunk = std::min(total - position, maxPacket - header);
      std::size_t const packetLength = header + chunk;
      writeU32(packet.data(), static_cast<std::uint32_t>(packetLength));
      std::memcpy(packet.data() + header, buffer.data() + position, chunk);
      position += chunk;
      // A blocking stream send may take part of the packet; the rest follows.
      std::size_t done = 0;
      while (done < packetLength)
      {
         int const result = socket.send(packet.data() + done, packetLength - done, 0);
         if (result <= 0)
         {
            DtWarn << "Ostrel(DtInetFileTransporter): send of " << file.c_str() << " to  "
                   << endpoint << " failed: " << socket.getLastErrorString().c_str() << std::endl;
            return false;
         }
         done += static_cast<std::size_t>(result);
      }
      sent += packetLength;
      sendProgress(file, position, total);
   }
   DtDebug << "DtInetFileTransporter: Sent " << sent << " bytes in file transporter\n";
   return true;
}
