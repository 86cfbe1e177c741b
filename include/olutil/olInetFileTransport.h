//===- olutil/olInetFileTransport.h - Whole files over TCP ------*- C++ -*-===//
//
// Family: Sockets.
//
// DtInetFileTransporter moves whole files between processes: it listens on one port
// through a DtInetSocketMgr and sends each file over a fresh TCP connection as a run
// of length-prefixed packets. DtInetFilePacketAssembler turns the bytes of one
// connection back into files; it holds no socket, so it can be fed from anywhere.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETFILETRANSPORT_H
#define OLUTIL_OLINETFILETRANSPORT_H

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <olutil/olFilename.h>
#include <olutil/olInetAddr.h>

class DtInetSocket;
class DtInetSocketMgr;
class DtInetTcpSocket;

// One file in flight.
struct DtInetFileTransportObject
{
   int identifier = 0;
   DtFilename fileName;
   unsigned int fileSize = 0;
   unsigned int expectedBytes = 0;
   unsigned int receivedBytes = 0;
   std::vector<char> data;
   unsigned int reserved = 0;
};

// Reassembles the packets of one connection into files. Bytes may be fed split at any
// point; a packet is acted on only once it is complete. The first fault ends the
// stream for good: every later feed is refused.
//
// Packet layout (unsigned 32-bit, network order): packetLength, identifier, and in a
// file's first packet fileSize, transferBytes, fileAttribute, the name with its NUL;
// then data to the end of the packet.
//
// Faults: a packet length below 8 or above the largest packet; a first packet too
// short for its header, or whose name has no NUL; a refused name (see isSafeName); a
// later packet without data, for another identifier, or with more data than was
// announced; the stream ending inside a packet or a file. One connection carries one
// file at a time, one after the other.
//
// Used by one thread.
class DtInetFilePacketAssembler
{
public:
   // What the assembler tells about the files it sees. A false return from
   // beginFile, fileData or endFile ends the stream as a fault (the sink has already
   // said why); transferFailed is then not called.
   class Sink
   {
   public:
      virtual ~Sink() = default;
      virtual bool beginFile(std::uint32_t identifier, std::string const& name,
                             std::uint32_t fileSize, std::uint32_t transferBytes,
                             std::uint32_t fileAttribute) = 0;
      virtual bool fileData(char const* data, std::size_t length) = 0;
      virtual bool endFile() = 0;
      // The stream failed; a file begun and not ended is to be dropped.
      virtual void transferFailed(std::string const& why) = 0;
   };

   static constexpr std::size_t theFirstHeaderSize = 20;
   static constexpr std::size_t theLaterHeaderSize = 8;
   static constexpr char const* theTemporaryPrefix = ".olxfer-";

   DtInetFilePacketAssembler(Sink& sink, std::size_t maxPacket);

   // False once the stream has failed.
   bool feed(char const* bytes, std::size_t length);
   // The connection ended: a fault if it ended inside a packet or a file.
   bool finish();

   bool failed() const { return myFailed; }
   bool inFile() const { return myInFile; }

   // A name from the network that stays inside the target directory: not empty, not
   // "." or "..", no "..", no separator, at most 255 bytes, and not one of the
   // receiver's own temporary names.
   static bool isSafeName(std::string const& name);

private:
   bool fail(std::string const& why);
   bool checkLength(std::uint32_t length);
   bool handlePacket(char const* packet, std::size_t length);

   Sink& mySink;
   std::size_t myMaxPacket;
   std::vector<char> myPending;
   std::uint32_t myPacketLength = 0;
   bool myFailed = false;
   bool myInFile = false;
   std::uint32_t myIdentifier = 0;
   std::uint32_t myExpected = 0;
   std::uint32_t myReceived = 0;
};

typedef void (*DtInetFileTransferedCb)(DtFilename const& file, void* clientData);

// Listens for files on a port and sends files to peers.
//
// The receiver makes progress only inside tick(), which accepts connections and reads
// what has arrived (without blocking). Each file is written under a temporary name in
// the target directory and renamed to its own name once complete, so the final name
// only ever holds a whole file; then the callbacks run with the full path. sendFile()
// blocks until the file is handed to the system.
//
// Used by one thread: tick, sendFile and the setters are called from the same thread,
// and the callbacks run on it. Different transporters may live on different threads.
class DtInetFileTransporter
{
public:
   // Tries `port`, then (with searchPorts) the following ports, portRange in all.
   // `actualPort`, if given, gets the port found, or -1. useManagerVariant listens on
   // IPv6 (which also takes IPv4 peers where the system allows) instead of IPv4.
   DtInetFileTransporter(int port, bool searchPorts, int portRange,
                         DtFilename const& targetDirectory, int* actualPort = nullptr,
                         bool useManagerVariant = false);
   virtual ~DtInetFileTransporter();

   DtInetFileTransporter(DtInetFileTransporter const&) = delete;
   DtInetFileTransporter& operator=(DtInetFileTransporter const&) = delete;

   int port() const { return myPort; }
   virtual void tick();
   // Waits up to `milliseconds` for a connection to arrive or bytes to be readable, so
   // that a loop around tick() need not spin; true when something is waiting.
   bool waitForActivity(int milliseconds);

   void addFileTransferedCallback(DtInetFileTransferedCb fn, void* clientData);
   void removeFileTransferedCallback(DtInetFileTransferedCb fn);

   bool sendFile(DtFilename const& file, DtInetAddr const& peer);
   bool sendFile(DtFilename const& file, DtInetAddr const& peer, int port);

   DtFilename const& targetDirectory() const { return myTargetDirectory; }
   void setTargetDirectory(DtFilename const& directory) { myTargetDirectory = directory; }

   DtInetFileTransportObject& transportObject(int identifier);
   static int nextFileIdentifier();

   // Reads `size` bytes of `in` into `buffer` (sized size + 1); transferBytes gets the
   // count to send and fileAttribute 0.
   virtual bool readFileToBuffer(std::ifstream& in, std::vector<char>& buffer, int size,
                                 int& transferBytes, int& fileAttribute);

   // Whether a listening socket was found.
   bool isListening() const { return myManager != nullptr; }
   // Connections being read at the moment.
   std::size_t openConnections() const { return myConnections.size(); }
   // Connections that have ended since construction, whatever their outcome.
   std::size_t endedConnections() const { return myEndedConnections; }

   static bool receiveFileCb(DtInetSocket* socket, void* transporter);

protected:
   // Progress of a send: bytes handed to the system so far, of total. Does nothing here.
   virtual void sendProgress(DtFilename const& file, std::uint64_t done, std::uint64_t total);
   // Progress of a file being received. Does nothing here.
   virtual void receiveProgress(std::string const& name, std::uint64_t done, std::uint64_t total);

   bool receiveFile(DtInetTcpSocket* socket);

private:
   class Connection;
   friend class Connection;

   static bool connectionRemovedCb(DtInetSocket* socket, void* transporter);
   void fileDone(DtFilename const& path);

   std::map<DtInetFileTransferedCb, void*> myCallbacks;
   int myPort;
   DtInetSocketMgr* myManager;
   DtFilename myTargetDirectory;
   std::map<int, DtInetFileTransportObject> myObjects;
   std::map<DtInetSocket*, std::unique_ptr<Connection>> myConnections;
   std::vector<char> myReadBuffer;
   std::size_t myEndedConnections = 0;
};

#endif  // OLUTIL_OLINETFILETRANSPORT_H
