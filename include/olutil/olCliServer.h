//===- olutil/olCliServer.h - Client/packet-server messages -----*- C++ -*-===//
//
// Family: Messaging.
//
// The small binary protocol between a local packet server and its clients: fourteen
// message numbers (thirteen kinds and one unassigned), their byte layouts (DtCsMsg),
// how each kind is sent (over a local datagram socket by DtSocketMsg, through a
// shared-memory queue by DtShmMsg) and printed for diagnosis, and the wrapping of
// received bytes. DtBaseMsg is the library's resizable message buffer. The
// rendezvous functions name and open the Unix-domain sockets through which clients
// and a server find each other.
//
// Messages never leave the machine: every field is in the host's byte order.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLCLISERVER_H
#define OLUTIL_OLCLISERVER_H

#include <cstddef>
#include <cstdint>

class DtShmMsgQueueWriter;

// ---------------------------------------------------------------- DtBaseMsg

// Stands for a buffer that the caller supplies; never defined.
class DtBufferPlaceHolder;

// A resizable message buffer: either memory it owns (the internal buffer, grown on
// demand) or a buffer the caller supplied, which is never reallocated, so the caller
// must supply room for every size the message will take. The derived class writes a
// new size into the message's own header in messageSizeChanged.
//
// A message object is used by one thread at a time.
class DtBaseMsg
{
public:
   DtBaseMsg();
   // Starts empty and takes a copy of `other`'s bytes, into `buffer` if given.
   DtBaseMsg(DtBaseMsg const& other, DtBufferPlaceHolder* buffer = nullptr);
   // Into the internal buffer (or none yet): copies `other`'s bytes. Into a caller's
   // buffer: points at `other`'s buffer and copies nothing, so the two alias and this
   // message must not outlive `other`.
   DtBaseMsg& operator=(DtBaseMsg const& other);
   virtual ~DtBaseMsg();

   virtual char* netRep() const;
   virtual int length() const;
   // changeBufferSize(n), then the message size becomes n and is reported.
   virtual void changeSize(int n);
   // Makes the buffer n bytes long, keeping the first bytes and zeroing new ones. A
   // negative n does nothing.
   virtual void changeBufferSize(int n);
   // Opens `count` zeroed bytes at `offset` (0 to length()); anything else does
   // nothing.
   virtual void insertBytes(int offset, int count);
   virtual void insertBytes(void* where, int count);
   // Removes `count` bytes at `offset`; a range not wholly inside the message does
   // nothing.
   virtual void deleteBytes(int offset, int count);
   virtual void deleteBytes(void* where, int count);
   // Zeroes the first length() bytes.
   virtual void clearAll();
   // Makes the internal buffer at least n bytes; a larger one is new and zeroed, and
   // the old contents are lost. Returns the internal buffer.
   virtual char* newInternalBuffer(int n);
   virtual void messageSizeChanged(int size) = 0;

   // n zeroed bytes in `buffer`, or in the internal buffer when it is null.
   void initMsg(int n, DtBufferPlaceHolder* buffer);
   // n bytes copied from `source` (unless it already is the buffer in use).
   void initMsg(void const* source, int n, DtBufferPlaceHolder* buffer);
   // The size last reported to messageSizeChanged (or set by initMsg).
   int getMessageSize() const;

private:
   bool usesInternalBuffer() const;
   // The offset of `where` in the buffer, or -1 when it points outside it.
   int offsetOf(void const* where) const;

   char* netRepBuffer = nullptr;
   char* internalBuffer = nullptr;
   int internalBufferSize = 0;
   int bufferLength = 0;
   int messageSize = 0;
};

// ---------------------------------------------------------------- wire format

// Message numbers. 3 is unassigned and is treated as unknown.
enum DtCsMsgKind
{
   DtCsMsgWaitingKind = 0,
   DtCsAddClientKind = 1,
   DtCsClientPacketKind = 2,
   DtCsControlReqKind = 4,
   DtCsFilterKind = 5,
   DtCsAckKind = 6,
   DtCsCliQuotaKind = 7,
   DtCsServerPacketKind = 8,
   DtCsStateReturnKind = 9,
   DtCsCStateReturnKind = 10,
   DtCsWarningKind = 11,
   DtCsNoticeKind = 12,
   DtCsMulticastReqKind = 13
};

// The version every message built by this library carries; nothing compares it.
constexpr std::uint8_t DtCsMsgVersion = 3;
// The text fields of kinds 1 and 11 hold up to this many characters, with no
// terminator when full.
constexpr int DtCsMsgTextSize = 160;

// Notices (kind 12).
enum DtCsNoticeCode
{
   DtCsNoticeServerExternal = 0,
   DtCsNoticeServerInternal = 1,
   DtCsNoticeQuotaExceeded = 2,
   DtCsNoticePing = 3,
   DtCsNoticeServerClosing = 4
};

// Layouts, each at natural alignment; bytes they skip are padding.
struct DtCsHeaderLayout  // kinds 0 and 7 are this alone
{
   std::uint8_t kind;
   std::uint8_t version;
};

struct DtCsAddClientLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint16_t addClientArg0;
   std::int32_t addClientArg1;
   std::int32_t addClientArg2;
   std::int32_t addClientArg3;
   char addClientText[DtCsMsgTextSize];
};

struct DtCsClientPacketLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint8_t unused[6];
};

struct DtCsControlReqLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint16_t request;
   std::uint32_t requestArg;
};

struct DtCsFilterLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint8_t filterArg1;
   std::uint8_t filterArg2;
   std::uint32_t filterArg3;
   std::uint32_t filterArg4;
};

struct DtCsAckLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint8_t ackArg1;
   std::uint32_t ackArg2;
   std::uint32_t ackArg3;
   std::uint32_t ackArg4;
   std::int32_t ackArg5;
   std::int32_t ackArg6;
};

// The payload follows in the same queue element.
struct DtCsServerPacketLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint32_t packetArg1;
   std::uint32_t packetArg2;
   std::uint32_t packetLength;
};

struct DtCsStateReturnLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint8_t serverStatus;  // 0 external, 1 internal, else "but not well"
   std::uint8_t unbundling;
   std::uint16_t packetClients;
   std::uint16_t controlClients;
   std::int32_t maxPacketClients;  // negative: no maximum
   std::uint32_t serverPort;
};

struct DtCsCStateReturnLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint16_t addClientArg0s;
   std::uint8_t serverDropOldest;
   std::uint8_t serverWait;
   std::uint8_t blockModes;
   std::int32_t clientProcess;
   std::uint32_t clientId;
   std::int32_t recvQueueBytes;
   std::int32_t sendQueueBytes;
   std::int32_t msgsReceived;
   std::int32_t msgsSent;
   std::int32_t droppedNew;
   std::int32_t droppedOld;
};

struct DtCsWarningLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint16_t warningCode;
   char warningText[DtCsMsgTextSize];
};

struct DtCsNoticeLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint16_t notice;
};

struct DtCsMulticastReqLayout
{
   std::uint8_t kind;
   std::uint8_t version;
   std::uint16_t request;
   std::uint32_t addr;
   std::uint32_t clientId;
};

// The bytes of one message, as they travel.
union DtCsMsg
{
   DtCsHeaderLayout header;
   DtCsAddClientLayout addClient;
   DtCsClientPacketLayout clientPacket;
   DtCsControlReqLayout controlReq;
   DtCsFilterLayout filter;
   DtCsAckLayout ack;
   DtCsServerPacketLayout serverPacket;
   DtCsStateReturnLayout stateReturn;
   DtCsCStateReturnLayout cStateReturn;
   DtCsWarningLayout warning;
   DtCsNoticeLayout notice;
   DtCsMulticastReqLayout multicastReq;
};

static_assert(sizeof(DtCsHeaderLayout) == 2, "wire layout");
static_assert(sizeof(DtCsAddClientLayout) == 176 && offsetof(DtCsAddClientLayout, addClientArg1) == 4 &&
                  offsetof(DtCsAddClientLayout, addClientText) == 16,
              "wire layout");
static_assert(sizeof(DtCsClientPacketLayout) == 8, "wire layout");
static_assert(sizeof(DtCsControlReqLayout) == 8 && offsetof(DtCsControlReqLayout, requestArg) == 4,
              "wire layout");
static_assert(sizeof(DtCsFilterLayout) == 12 && offsetof(DtCsFilterLayout, filterArg3) == 4,
              "wire layout");
static_assert(sizeof(DtCsAckLayout) == 24 && offsetof(DtCsAckLayout, ackArg2) == 4 &&
                  offsetof(DtCsAckLayout, ackArg6) == 20,
              "wire layout");
static_assert(sizeof(DtCsServerPacketLayout) == 16 && offsetof(DtCsServerPacketLayout, packetArg1) == 4 &&
                  offsetof(DtCsServerPacketLayout, packetLength) == 12,
              "wire layout");
static_assert(sizeof(DtCsStateReturnLayout) == 16 && offsetof(DtCsStateReturnLayout, packetClients) == 4 &&
                  offsetof(DtCsStateReturnLayout, maxPacketClients) == 8 &&
                  offsetof(DtCsStateReturnLayout, serverPort) == 12,
              "wire layout");
static_assert(sizeof(DtCsCStateReturnLayout) == 40 && offsetof(DtCsCStateReturnLayout, serverDropOldest) == 4 &&
                  offsetof(DtCsCStateReturnLayout, blockModes) == 6 &&
                  offsetof(DtCsCStateReturnLayout, clientProcess) == 8 &&
                  offsetof(DtCsCStateReturnLayout, droppedOld) == 36,
              "wire layout");
static_assert(sizeof(DtCsWarningLayout) == 164 && offsetof(DtCsWarningLayout, warningText) == 4,
              "wire layout");
static_assert(sizeof(DtCsNoticeLayout) == 4, "wire layout");
static_assert(sizeof(DtCsMulticastReqLayout) == 12 && offsetof(DtCsMulticastReqLayout, addr) == 4 &&
                  offsetof(DtCsMulticastReqLayout, clientId) == 8,
              "wire layout");
static_assert(sizeof(DtCsMsg) == 176, "wire layout");

// The bytes a message of `kind` takes (for kind 8, its header alone), or 0 for an
// unknown kind.
std::size_t DtCsMsgKindSize(int kind);
// The kind's name in print ("MsgWaiting", ...), or null for an unknown kind.
char const* DtCsMsgKindName(int kind);

// ---------------------------------------------------------------- messages

// The root of the protocol's messages: the bytes that travel and how many of them.
class DtClientServerMsg
{
public:
   // Wraps a received message: copies as many bytes as the kind in its first byte
   // takes. `received` must point to a whole DtCsMsg (176 bytes). An unknown kind
   // warns "Unknown msg kind (k) in  DtClientServerMsg()" and leaves msgLength 0.
   explicit DtClientServerMsg(DtCsMsg const* received);
   // Wraps `length` received bytes: as above, and also refuses (with a warning,
   // msgLength 0) fewer bytes than the kind takes. Bytes beyond the kind's size are
   // left alone: for kind 8 they are the payload.
   DtClientServerMsg(void const* bytes, std::size_t length);
   virtual ~DtClientServerMsg();

   virtual int send() = 0;
   // "<name> message (version v):" on DtVerbose; an unknown kind warns instead.
   virtual void print();

   int kind() const;
   int version() const;

   DtCsMsg msg;
   std::size_t msgLength = 0;

protected:
   // A new message of `kind`: zeroed, with the version and the kind's size.
   explicit DtClientServerMsg(DtCsMsgKind kind);
};

// A message sent over a local datagram socket.
class DtSocketMsg : public DtClientServerMsg
{
public:
   // One write of msgLength bytes. A negative socket: 0. Whole: the byte count. Part:
   // 0 with a warning. EDESTADDRREQ and ECONNRESET: -1; ENOBUFS: 0; both silent. Any
   // other error: -1 with a warning.
   int send() override;

   int socketFd;

protected:
   DtSocketMsg(DtCsMsgKind kind, int socketFd);
};

// A message sent through a shared-memory queue.
class DtShmMsg : public DtClientServerMsg
{
public:
   // The writer's result for msgLength bytes; 0 with no writer.
   int send() override;

   DtShmMsgQueueWriter* writer;

protected:
   DtShmMsg(DtCsMsgKind kind, DtShmMsgQueueWriter* writer);
};

class DtCsMsgWaitingMsg : public DtSocketMsg
{
public:
   explicit DtCsMsgWaitingMsg(int socketFd);
};

class DtCsAddClientMsg : public DtSocketMsg
{
public:
   // The text is cut to 160 characters, with no terminator when it is that long; a
   // null text is empty.
   DtCsAddClientMsg(int socketFd, unsigned short addClientArg0, int addClientArg1,
                    int addClientArg2, int addClientArg3, char const* addClientText);
};

class DtCsControlReqMsg : public DtSocketMsg
{
public:
   DtCsControlReqMsg(int socketFd, unsigned short request, unsigned int requestArg);
};

class DtCsMulticastReqMsg : public DtSocketMsg
{
public:
   DtCsMulticastReqMsg(int socketFd, unsigned short request, unsigned int addr,
                       unsigned int clientId);
   void setRequest(unsigned short request);
   void setAddr(unsigned int addr);
   void setClientId(unsigned int clientId);
};

class DtCsFilterMsg : public DtSocketMsg
{
public:
   DtCsFilterMsg(int socketFd, unsigned char filterArg1, unsigned char filterArg2,
                 unsigned int filterArg3, unsigned int filterArg4);
};

class DtCsAckMsg : public DtSocketMsg
{
public:
   DtCsAckMsg(int socketFd, unsigned char ackArg1, unsigned int ackArg2, unsigned int ackArg3,
              unsigned int ackArg4, int ackArg5, int ackArg6);
};

class DtCsCliQuotaMsg : public DtSocketMsg
{
public:
   explicit DtCsCliQuotaMsg(int socketFd);
};

// Retired: constructing or sending one only warns, and sending returns -1.
class DtCsClientPacketMsg : public DtShmMsg
{
public:
   DtCsClientPacketMsg(DtShmMsgQueueWriter* writer, unsigned int, char*);
   int send() override;
};

// A packet from the server: the 16-byte header and the payload in one queue element.
class DtCsServerPacketMsg : public DtShmMsg
{
public:
   // `packetData` is not copied and must live until send() returns.
   DtCsServerPacketMsg(DtShmMsgQueueWriter* writer, unsigned int packetArg1,
                       unsigned int packetArg2, unsigned int packetLength, char* packetData);
   // One write of header and payload. The result less the header's 16 bytes when,
   // taken as unsigned, it is above 16, otherwise as it is; so a failed write gives
   // -17. Test for a negative result.
   int send() override;

   char* packetData;
};

class DtCsStateReturnMsg : public DtShmMsg
{
public:
   DtCsStateReturnMsg(DtShmMsgQueueWriter* writer, unsigned char serverStatus,
                      unsigned short packetClients, unsigned short controlClients,
                      int maxPacketClients, unsigned int serverPort, unsigned char unbundling);
   // The header, then the server's state on DtInfo.
   void print() override;
};

class DtCsCStateReturnMsg : public DtShmMsg
{
public:
   DtCsCStateReturnMsg(DtShmMsgQueueWriter* writer, unsigned short addClientArg0s,
                       unsigned char serverDropOldest, unsigned char serverWait,
                       unsigned char blockModes, int clientProcess, unsigned int clientId,
                       int recvQueueBytes, int sendQueueBytes, int msgsReceived, int msgsSent,
                       int droppedNew, int droppedOld);
   // The header, then the client's state and modes on DtInfo.
   void print() override;
};

class DtCsWarningMsg : public DtShmMsg
{
public:
   // The text as for DtCsAddClientMsg.
   DtCsWarningMsg(DtShmMsgQueueWriter* writer, unsigned short warningCode, char const* warningText);
   // The header, then the code and text on DtWarn; a full text without a terminator
   // prints its 160 characters.
   void print() override;
};

class DtCsNoticeMsg : public DtShmMsg
{
public:
   DtCsNoticeMsg(DtShmMsgQueueWriter* writer, unsigned short notice);
   // The header, then the notice's line (DtInfo or DtWarn); unknown codes add nothing.
   void print() override;
};

// ---------------------------------------------------------------- rendezvous

// What DtOpenUnixDgram does with the path.
enum DtOpenUnixDgramAction
{
   DtOpenUnixDgramBind = 0,
   DtOpenUnixDgramConnect = 1
   // Any other value: neither.
};

// Writes the rendezvous path of `kind` for `key` into `path` (which the caller sizes:
// 15 bytes hold every path) and returns sprintf's result: the prefix of the kind
// (0 "", 1 "/tmp/old-", 2 and 3 "/tmp/ols-") and the key modulo 100000 in five
// digits. A key above 99999 warns and is reduced. A kind outside 0 to 3 or a null
// path writes nothing and returns -1.
int DtPacketServerRequestPath(unsigned int key, char* path, int kind);

// Opens an AF_UNIX datagram socket and binds it to `path` (removing a stale file
// first, then opening the path to all) or connects it there; `who` names the caller
// in warnings. A null `who` reads "DtOpenUnixDgram" and makes a connect to a missing
// path silent. Returns the descriptor, or -1 after closing it. A path that does not
// fit a socket address, or a null path, is refused with a warning.
int DtOpenUnixDgram(char const* path, DtOpenUnixDgramAction action, char const* who);

// From the file system alone: 1 when the path of kind 3 exists, -1 when only the
// path of kind 1 does, 0 when neither does.
int DtPacketServerIsAlive(int key);

#endif  // OLUTIL_OLCLISERVER_H
