//===- olCliServer.cpp - Client/packet-server messages --------------------===//
//
// Family: Messaging.
//
//===----------------------------------------------------------------------===//
#include <olutil/olCliServer.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <olutil/olPrint.h>
#include <olutil/olShmWriter.h>

// ---------------------------------------------------------------- DtBaseMsg

DtBaseMsg::DtBaseMsg() = default;

DtBaseMsg::DtBaseMsg(DtBaseMsg const& other, DtBufferPlaceHolder* buffer)
{
   initMsg(other.netRep(), other.length(), buffer);
}

DtBaseMsg& DtBaseMsg::operator=(DtBaseMsg const& other)
{
   if (this == &other)
      return *this;
   if (usesInternalBuffer())
   {
      netRepBuffer = newInternalBuffer(other.length());
      if (other.length() > 0)
         std::memcpy(netRepBuffer, other.netRep(), other.length());
   }
   else
      netRepBuffer = other.netRep();
   bufferLength = other.length();
   messageSize = other.getMessageSize();
   return *this;
}

DtBaseMsg::~DtBaseMsg()
{
   delete[] internalBuffer;
}

char* DtBaseMsg::netRep() const
{
   return netRepBuffer;
}

int DtBaseMsg::length() const
{
   return bufferLength;
}

void DtBaseMsg::changeSize(int n)
{
   if (n < 0)
      return;
   changeBufferSize(n);
   messageSize = n;
   messageSizeChanged(messageSize);
}

void DtBaseMsg::changeBufferSize(int n)
{
   if (n < 0)
      return;
   if (usesInternalBuffer() && n > internalBufferSize)
   {
      char* grown = new char[n]();
      if (bufferLength > 0)
         std::memcpy(grown, internalBuffer, bufferLength);
      delete[] internalBuffer;
      internalBuffer = netRepBuffer = grown;
      internalBufferSize = n;
   }
   if (n >= bufferLength && netRepBuffer)
      std::memset(netRepBuffer + bufferLength, 0, n - bufferLength);
   bufferLength = n;
}

void DtBaseMsg::insertBytes(int offset, int count)
{
   if (count <= 0 || offset < 0 || offset > bufferLength)
      return;
   int const tail = bufferLength - offset;
   changeBufferSize(bufferLength + count);
   if (tail > 0)
      std::memmove(netRepBuffer + offset + count, netRepBuffer + offset, tail);
   std::memset(netRepBuffer + offset, 0, count);
   messageSize += count;
   messageSizeChanged(messageSize);
}

void DtBaseMsg::insertBytes(void* where, int count)
{
   int const offset = offsetOf(where);
   if (offset >= 0)
      insertBytes(offset, count);
}

void DtBaseMsg::deleteBytes(int offset, int count)
{
   if (count <= 0 || offset < 0 || offset > bufferLength - count)
      return;
   std::memmove(netRepBuffer + offset, netRepBuffer + offset + count,
                bufferLength - offset - count);
   changeBufferSize(bufferLength - count);
   messageSize -= count;
   messageSizeChanged(messageSize);
}

void DtBaseMsg::deleteBytes(void* where, int count)
{
   int const offset = offsetOf(where);
   if (offset >= 0)
      deleteBytes(offset, count);
}

void DtBaseMsg::clearAll()
{
   if (netRepBuffer && bufferLength > 0)
      std::memset(netRepBuffer, 0, bufferLength);
}

char* DtBaseMsg::newInternalBuffer(int n)
{
   if (n > internalBufferSize)
   {
      bool const inUse = usesInternalBuffer();
      delete[] internalBuffer;
      internalBuffer = new char[n]();
      internalBufferSize = n;
      // A message in the old block would point at freed memory; it keeps the new one.
      if (inUse)
         netRepBuffer = internalBuffer;
   }
   return internalBuffer;
}

void DtBaseMsg::initMsg(int n, DtBufferPlaceHolder* buffer)
{
   if (n < 0)
      n = 0;
   netRepBuffer = buffer ? reinterpret_cast<char*>(buffer) : newInternalBuffer(n);
   bufferLength = messageSize = n;
   clearAll();
}

void DtBaseMsg::initMsg(void const* source, int n, DtBufferPlaceHolder* buffer)
{
   if (n < 0)
      n = 0;
   netRepBuffer = buffer ? reinterpret_cast<char*>(buffer) : newInternalBuffer(n);
   if (source && source != netRepBuffer && n > 0)
      std::memmove(netRepBuffer, source, n);
   bufferLength = messageSize = n;
}

int DtBaseMsg::getMessageSize() const
{
   return messageSize;
}

bool DtBaseMsg::usesInternalBuffer() const
{
   return netRepBuffer == internalBuffer;
}

int DtBaseMsg::offsetOf(void const* where) const
{
   auto const at = reinterpret_cast<std::uintptr_t>(where);
   auto const start = reinterpret_cast<std::uintptr_t>(netRepBuffer);
   if (!netRepBuffer || at < start || at > start + static_cast<std::uintptr_t>(bufferLength))
      return -1;
   return static_cast<int>(at - start);
}

// ---------------------------------------------------------------- kinds

namespace
{

struct KindInfo
{
   char const* name;
   std::size_t size;
};

// Indexed by kind; 3 is unassigned.
KindInfo const theKinds[] = {
    {"MsgWaiting", sizeof(DtCsHeaderLayout)},
    {"AddClient", sizeof(DtCsAddClientLayout)},
    {"ClientPacket", sizeof(DtCsClientPacketLayout)},
    {nullptr, 0},
    {"ControlReq", sizeof(DtCsControlReqLayout)},
    {"Filter", sizeof(DtCsFilterLayout)},
    {"Ack", sizeof(DtCsAckLayout)},
    {"CliQuota", sizeof(DtCsHeaderLayout)},
    {"ServerPacket", sizeof(DtCsServerPacketLayout)},
    {"StateReturn", sizeof(DtCsStateReturnLayout)},
    {"CStateReturn", sizeof(DtCsCStateReturnLayout)},
    {"Warning", sizeof(DtCsWarningLayout)},
    {"Notice", sizeof(DtCsNoticeLayout)},
    {"MulticastReq", sizeof(DtCsMulticastReqLayout)},
};

constexpr int theKindCount = static_cast<int>(sizeof theKinds / sizeof theKinds[0]);

KindInfo const* kindInfo(int kind)
{
   if (kind < 0 || kind >= theKindCount || !theKinds[kind].name)
      return nullptr;
   return &theKinds[kind];
}

// strncpy with a count of 160: a text of 160 characters or more keeps no terminator.
void copyText(char* field, char const* text)
{
   std::strncpy(field, text ? text : "", DtCsMsgTextSize);
}

char const* plural(int count, char const* one, char const* many)
{
   return count == 1 ? one : many;
}

}  // namespace

std::size_t DtCsMsgKindSize(int kind)
{
   KindInfo const* info = kindInfo(kind);
   return info ? info->size : 0;
}

char const* DtCsMsgKindName(int kind)
{
   KindInfo const* info = kindInfo(kind);
   return info ? info->name : nullptr;
}

// ---------------------------------------------------------------- DtClientServerMsg

DtClientServerMsg::DtClientServerMsg(DtCsMsgKind kind)
{
   std::memset(&msg, 0, sizeof msg);
   msg.header.kind = static_cast<std::uint8_t>(kind);
   msg.header.version = DtCsMsgVersion;
   msgLength = DtCsMsgKindSize(kind);
}

DtClientServerMsg::DtClientServerMsg(DtCsMsg const* received)
    : DtClientServerMsg(received, received ? sizeof(DtCsMsg) : 0)
{
}

DtClientServerMsg::DtClientServerMsg(void const* bytes, std::size_t length)
{
   std::memset(&msg, 0, sizeof msg);
   if (!bytes || length == 0)
   {
      DtWarn("Empty msg in  DtClientServerMsg()\n");
      return;
   }
   int const kind = *static_cast<unsigned char const*>(bytes);
   std::size_t const size = DtCsMsgKindSize(kind);
   if (size == 0)
   {
      DtWarn("Unknown msg kind (%d) in  DtClientServerMsg()", kind);
      return;
   }
   if (length < size)
   {
      DtWarn("Short msg kind (%d), %d of %d bytes, in  DtClientServerMsg()\n", kind,
             static_cast<int>(length), static_cast<int>(size));
      return;
   }
   std::memcpy(&msg, bytes, size);
   msgLength = size;
}

DtClientServerMsg::~DtClientServerMsg() = default;

void DtClientServerMsg::print()
{
   char const* name = DtCsMsgKindName(kind());
   if (!name)
   {
      DtWarn("Unknown msg kind (%d) in  DtClientServerMsg::print()", kind());
      return;
   }
   DtVerbose("%s message (version %d):\n", name, version());
}

int DtClientServerMsg::kind() const
{
   return msg.header.kind;
}

int DtClientServerMsg::version() const
{
   return msg.header.version;
}

// ---------------------------------------------------------------- transports

DtSocketMsg::DtSocketMsg(DtCsMsgKind kind, int socketFd_)
    : DtClientServerMsg(kind), socketFd(socketFd_)
{
}

int DtSocketMsg::send()
{
   if (socketFd < 0)
      return 0;
   ssize_t const written = write(socketFd, &msg, msgLength);
   if (written == static_cast<ssize_t>(msgLength))
      return static_cast<int>(written);
   if (written >= 0)
   {
      DtWarn("DtSocket partial write %d of %d\n", static_cast<int>(written),
             static_cast<int>(msgLength));
      return 0;
   }
   switch (errno)
   {
   case EDESTADDRREQ:
   case ECONNRESET:
      return -1;
   case ENOBUFS:
      return 0;
   default:
      DtWarnPerror("DtSocketMsg write");
      return -1;
   }
}

DtShmMsg::DtShmMsg(DtCsMsgKind kind, DtShmMsgQueueWriter* writer_)
    : DtClientServerMsg(kind), writer(writer_)
{
}

int DtShmMsg::send()
{
   if (!writer)
      return 0;
   return writer->Write(reinterpret_cast<char*>(&msg), msgLength);
}

// ---------------------------------------------------------------- socket kinds

DtCsMsgWaitingMsg::DtCsMsgWaitingMsg(int socketFd) : DtSocketMsg(DtCsMsgWaitingKind, socketFd) {}

DtCsAddClientMsg::DtCsAddClientMsg(int socketFd, unsigned short addClientArg0, int addClientArg1,
                                   int addClientArg2, int addClientArg3, char const* addClientText)
    : DtSocketMsg(DtCsAddClientKind, socketFd)
{
   msg.addClient.addClientArg0 = addClientArg0;
   msg.addClient.addClientArg1 = addClientArg1;
   msg.addClient.addClientArg2 = addClientArg2;
   msg.addClient.addClientArg3 = addClientArg3;
   copyText(msg.addClient.addClientText, addClientText);
}

DtCsControlReqMsg::DtCsControlReqMsg(int socketFd, unsigned short request, unsigned int requestArg)
    : DtSocketMsg(DtCsControlReqKind, socketFd)
{
   msg.controlReq.request = request;
   msg.controlReq.requestArg = requestArg;
}

DtCsMulticastReqMsg::DtCsMulticastReqMsg(int socketFd, unsigned short request, unsigned int addr,
                                         unsigned int clientId)
    : DtSocketMsg(DtCsMulticastReqKind, socketFd)
{
   setRequest(request);
   setAddr(addr);
   setClientId(clientId);
}

void DtCsMulticastReqMsg::setRequest(unsigned short request)
{
   msg.multicastReq.request = request;
}

void DtCsMulticastReqMsg::setAddr(unsigned int addr)
{
   msg.multicastReq.addr = addr;
}

void DtCsMulticastReqMsg::setClientId(unsigned int clientId)
{
   msg.multicastReq.clientId = clientId;
}

DtCsFilterMsg::DtCsFilterMsg(int socketFd, unsigned char filterArg1, unsigned char filterArg2,
                             unsigned int filterArg3, unsigned int filterArg4)
    : DtSocketMsg(DtCsFilterKind, socketFd)
{
   msg.filter.filterArg1 = filterArg1;
   msg.filter.filterArg2 = filterArg2;
   msg.filter.filterArg3 = filterArg3;
   msg.filter.filterArg4 = filterArg4;
}

DtCsAckMsg::DtCsAckMsg(int socketFd, unsigned char ackArg1, unsigned int ackArg2,
                       unsigned int ackArg3, unsigned int ackArg4, int ackArg5, int ackArg6)
    : DtSocketMsg(DtCsAckKind, socketFd)
{
   msg.ack.ackArg1 = ackArg1;
   msg.ack.ackArg2 = ackArg2;
   msg.ack.ackArg3 = ackArg3;
   msg.ack.ackArg4 = ackArg4;
   msg.ack.ackArg5 = ackArg5;
   msg.ack.ackArg6 = ackArg6;
}

DtCsCliQuotaMsg::DtCsCliQuotaMsg(int socketFd) : DtSocketMsg(DtCsCliQuotaKind, socketFd) {}

// ---------------------------------------------------------------- queue kinds

DtCsClientPacketMsg::DtCsClientPacketMsg(DtShmMsgQueueWriter* writer, unsigned int, char*)
    : DtShmMsg(DtCsClientPacketKind, writer)
{
   DtWarn("Should no longer be trying to create new DtCsClientPacketMsgs\n");
}

int DtCsClientPacketMsg::send()
{
   DtWarn("Should no longer be trying to send DtCsClientPacketMsgs\n");
   return -1;
}

DtCsServerPacketMsg::DtCsServerPacketMsg(DtShmMsgQueueWriter* writer, unsigned int packetArg1,
                                         unsigned int packetArg2, unsigned int packetLength,
                                         char* packetData_)
    : DtShmMsg(DtCsServerPacketKind, writer), packetData(packetData_)
{
   msg.serverPacket.packetArg1 = packetArg1;
   msg.serverPacket.packetArg2 = packetArg2;
   msg.serverPacket.packetLength = packetLength;
}

int DtCsServerPacketMsg::send()
{
   if (!writer)
      return 0;
   char* pieces[2] = {reinterpret_cast<char*>(&msg), packetData};
   unsigned long sizes[2] = {msgLength, msg.serverPacket.packetLength};
   int const result = writer->Writev(pieces, sizes, 2);
   // Compared as unsigned on purpose: a failure (-1) also loses the header's size.
   if (static_cast<unsigned int>(result) > msgLength)
      return static_cast<int>(result - msgLength);
   return result;
}

DtCsStateReturnMsg::DtCsStateReturnMsg(DtShmMsgQueueWriter* writer, unsigned char serverStatus,
                                       unsigned short packetClients, unsigned short controlClients,
                                       int maxPacketClients, unsigned int serverPort,
                                       unsigned char unbundling)
    : DtShmMsg(DtCsStateReturnKind, writer)
{
   msg.stateReturn.serverStatus = serverStatus;
   msg.stateReturn.unbundling = unbundling;
   msg.stateReturn.packetClients = packetClients;
   msg.stateReturn.controlClients = controlClients;
   msg.stateReturn.maxPacketClients = maxPacketClients;
   msg.stateReturn.serverPort = serverPort;
}

void DtCsStateReturnMsg::print()
{
   DtClientServerMsg::print();
   DtCsStateReturnLayout const& s = msg.stateReturn;
   char const* status = s.serverStatus == 0 ? "external" : s.serverStatus == 1 ? "internal" : "but not well";
   DtInfo("    ostrel server on port %d is alive (%s) \n", static_cast<int>(s.serverPort), status);
   DtInfo("    %sperforming unbundling\n", s.unbundling ? "" : "not ");
   char maximum[16];
   if (s.maxPacketClients < 0)
      std::snprintf(maximum, sizeof maximum, "no");
   else
      std::snprintf(maximum, sizeof maximum, "%d", static_cast<int>(s.maxPacketClients));
   DtInfo("    %d packet %s (%s maximum)\n", s.packetClients, plural(s.packetClients, "client", "clients"),
          maximum);
   DtInfo("    %d control %s\n", s.controlClients, plural(s.controlClients, "client", "clients"));
}

DtCsCStateReturnMsg::DtCsCStateReturnMsg(DtShmMsgQueueWriter* writer, unsigned short addClientArg0s,
                                         unsigned char serverDropOldest, unsigned char serverWait,
                                         unsigned char blockModes, int clientProcess,
                                         unsigned int clientId, int recvQueueBytes,
                                         int sendQueueBytes, int msgsReceived, int msgsSent,
                                         int droppedNew, int droppedOld)
    : DtShmMsg(DtCsCStateReturnKind, writer)
{
   DtCsCStateReturnLayout& c = msg.cStateReturn;
   c.addClientArg0s = addClientArg0s;
   c.serverDropOldest = serverDropOldest;
   c.serverWait = serverWait;
   c.blockModes = blockModes;
   c.clientProcess = clientProcess;
   c.clientId = clientId;
   c.recvQueueBytes = recvQueueBytes;
   c.sendQueueBytes = sendQueueBytes;
   c.msgsReceived = msgsReceived;
   c.msgsSent = msgsSent;
   c.droppedNew = droppedNew;
   c.droppedOld = droppedOld;
}

void DtCsCStateReturnMsg::print()
{
   DtClientServerMsg::print();
   DtCsCStateReturnLayout const& c = msg.cStateReturn;
   unsigned const arg = c.addClientArg0s;
   DtInfo("    (%s) client %u (process %d): server sent %d, rcvd %d msgs\n",
          (arg & 0x0100) ? "control" : "packet", static_cast<unsigned>(c.clientId),
          static_cast<int>(c.clientProcess), static_cast<int>(c.msgsSent),
          static_cast<int>(c.msgsReceived));
   DtInfo("    dropped %d old and %d new - ", static_cast<int>(c.droppedOld), static_cast<int>(c.droppedNew));
   DtInfo("sendQ %d bytes - recvQ %d bytes\n", static_cast<int>(c.sendQueueBytes),
          static_cast<int>(c.recvQueueBytes));
   struct Mode
   {
      bool on;
      char const* text;
   };
   Mode const modes[] = {
       {(arg & 0x0001) != 0, " Read"},
       {(arg & 0x0002) != 0, " Write"},
       {c.serverDropOldest != 0, " SvrDropOldest"},
       {(arg & 0x0010) != 0, " CliDropOldest"},
       {c.serverWait != 0, " SvrWait"},
       {(arg & 0x0060) != 0, " CliWait"},
       {(arg & 0x0080) == 0, " Notify"},
       {(c.blockModes & 0x01) != 0, " SvrBlockRead"},
       {(c.blockModes & 0x02) != 0, " SvrBlockWrite"},
       {(c.blockModes & 0x04) != 0, " CliBlockRead"},
       {(c.blockModes & 0x08) != 0, " CliBlockWrite"},
   };
   std::string line = "    Modes:";
   for (Mode const& mode : modes)
      if (mode.on)
         line += mode.text;
   DtInfo("%s\n", line.c_str());
}

DtCsWarningMsg::DtCsWarningMsg(DtShmMsgQueueWriter* writer, unsigned short warningCode,
                               char const* warningText)
    : DtShmMsg(DtCsWarningKind, writer)
{
   msg.warning.warningCode = warningCode;
   copyText(msg.warning.warningText, warningText);
}

void DtCsWarningMsg::print()
{
   DtClientServerMsg::print();
   // The text may fill its field with no terminator: print no more than the field.
   char text[DtCsMsgTextSize + 1] = {};
   std::memcpy(text, msg.warning.warningText, DtCsMsgTextSize);
   DtWarn("    Server warning %d: %s\n", msg.warning.warningCode, text);
}

DtCsNoticeMsg::DtCsNoticeMsg(DtShmMsgQueueWriter* writer, unsigned short notice)
    : DtShmMsg(DtCsNoticeKind, writer)
{
   msg.notice.notice = notice;
}

void DtCsNoticeMsg::print()
{
   DtClientServerMsg::print();
   switch (msg.notice.notice)
   {
   case DtCsNoticeServerExternal:
      DtInfo("    Packet server now external\n");
      break;
   case DtCsNoticeServerInternal:
      DtInfo("    Packet server now internal\n");
      break;
   case DtCsNoticeQuotaExceeded:
      DtWarn("    Closing socket: server external client quota exceeded\n");
      break;
   case DtCsNoticePing:
      DtInfo("    ClientSocket: ping\n");
      break;
   case DtCsNoticeServerClosing:
      DtWarn("    Packet server is closing socket\n");
      break;
   default:
      break;
   }
}

// ---------------------------------------------------------------- rendezvous

namespace
{

// Indexed by request kind; kinds 2 and 3 share their entry.
char const* const theRequestPrefixes[] = {"", "/tmp/old-", "/tmp/ols-", "/tmp/ols-"};
constexpr unsigned int theKeyLimit = 100000;

bool exists(char const* path)
{
   struct stat info;
   return stat(path, &info) == 0;
}

}  // namespace

int DtPacketServerRequestPath(unsigned int key, char* path, int kind)
{
   if (!path || kind < 0 || kind > 3)
      return -1;
   if (key >= theKeyLimit)
      DtWarn("RequestPath key should be between 0 and 99999\n");
   return std::sprintf(path, "%s%05d", theRequestPrefixes[kind],
                       static_cast<int>(key % theKeyLimit));
}

int DtOpenUnixDgram(char const* path, DtOpenUnixDgramAction action, char const* who)
{
   bool const silentIfMissing = who == nullptr;
   if (!who)
      who = "DtOpenUnixDgram";
   sockaddr_un address;
   std::memset(&address, 0, sizeof address);
   if (!path || std::strlen(path) >= sizeof address.sun_path)
   {
      DtWarn("%s: path %s does not fit a socket address\n", who, path ? path : "(null)");
      return -1;
   }
   int const fd = socket(AF_UNIX, SOCK_DGRAM, 0);
   if (fd < 0)
   {
      DtWarnPerror("%s socket failed", who);
      return fd;
   }
   address.sun_family = AF_UNIX;
   std::strcpy(address.sun_path, path);
   auto const addressLength = static_cast<socklen_t>(std::strlen(path) + 2);
   auto* generic = reinterpret_cast<sockaddr*>(&address);
   if (action == DtOpenUnixDgramBind)
   {
      unlink(path);
      if (bind(fd, generic, addressLength) != 0)
      {
         DtWarnPerror("%s bind %s failed", who, path);
         close(fd);
         return -1;
      }
      chmod(path, 0777);
   }
   else if (action == DtOpenUnixDgramConnect)
   {
      if (connect(fd, generic, addressLength) != 0)
      {
         if (!(silentIfMissing && errno == ENOENT))
            DtWarnPerror("%s connect %s failed", who, path);
         close(fd);
         return -1;
      }
   }
   return fd;
}

int DtPacketServerIsAlive(int key)
{
   char path[32];
   DtPacketServerRequestPath(static_cast<unsigned int>(key), path, 3);
   if (exists(path))
      return 1;
   // Kind 2 names the same path as kind 3, so only kind 1 can match here.
   for (int kind : {1, 2})
   {
      DtPacketServerRequestPath(static_cast<unsigned int>(key), path, kind);
      if (exists(path))
         return -1;
   }
   return 0;
}
