// Test support: TCP connections on a loopback address with system-chosen ports.
#ifndef OLUTIL_TESTS_SUPPORT_TCP_H
#define OLUTIL_TESTS_SUPPORT_TCP_H

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include <olutil/olInetTcpSocket.h>

namespace olt
{

inline bool isIpv6(char const* address)
{
   return std::strchr(address, ':') != nullptr;
}

inline DtInetUtils::DtInetAddrFamily familyOf(char const* address)
{
   return isIpv6(address) ? DtInetUtils::DtInetFamilyIPv6 : DtInetUtils::DtInetFamilyIPv4;
}

inline DtInetEndpoint tcpEndpoint(char const* address, unsigned short port)
{
   return DtInetEndpoint(DtInetAddr(address), port, DtInetProtocolTcp);
}

// Repeats `step` until it gives something other than 0, for at most five seconds; the
// last result.
template <class Step>
int waitFor(Step step)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
   int result;
   while ((result = step()) == 0 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   return result;
}

inline int sendText(DtInetSocket& socket, std::string text)
{
   return socket.send(&text[0], text.size(), 0);
}

// Reads until `size` bytes came or a read gave less than 1 (bounded); what came, then
// the failing result as "<n>".
inline std::string readBytes(DtInetSocket& socket, std::size_t size, std::size_t piece = 4096)
{
   std::string got;
   std::vector<char> buffer(piece);
   while (got.size() < size)
   {
      int const n = waitFor([&] { return socket.recv(buffer.data(), buffer.size(), 0); });
      if (n <= 0)
         return got + "<" + std::to_string(n) + ">";
      got.append(buffer.data(), static_cast<std::size_t>(n));
   }
   return got;
}

// Ends the connection with a reset instead of an orderly close.
inline void resetOnClose(DtInetSocket& socket)
{
   linger hard{1, 0};
   ASSERT_EQ(::setsockopt(socket.descriptor(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard), 0);
}

// Test names for suites run on "127.0.0.1" and "::1".
inline std::string familyName(::testing::TestParamInfo<char const*> const& info)
{
   return isIpv6(info.param) ? "IPv6" : "IPv4";
}

// Ends the calling test: skipped when `address` is ::1 (this machine may lack it),
// failed otherwise.
inline void unusable(char const* address, std::string const& why)
{
   if (isIpv6(address))
      GTEST_SKIP() << "no usable ::1: " << why;
   FAIL() << why;
}

// A listener on `address`, a client connected to it and the accepted end.
struct TcpPair
{
   std::unique_ptr<DtInetTcpSocket> listener, client, accepted;

   // False (with the reason in `why`) when the loopback address of that family
   // cannot be used on this machine.
   bool open(char const* address, unsigned int clientFlags, unsigned int acceptedFlags,
             std::string& why)
   {
      listener = std::make_unique<DtInetTcpSocket>(0, nullptr, familyOf(address),
                                                   DtInetSockFlagsDefault, true);
      if (listener->state() != DtInetSockStateListening)
         return why = listener->getLastErrorString().c_str(), false;
      client = std::make_unique<DtInetTcpSocket>(tcpEndpoint(address, listener->localPort()), 0,
                                                 nullptr, clientFlags, true);
      if (!client->isOk())
         return why = client->getLastErrorString().c_str(), false;
      accepted = std::make_unique<DtInetTcpSocket>();
      if (!listener->acceptConnection(accepted.get(), acceptedFlags))
         return why = listener->getLastErrorString().c_str(), false;
      return true;
   }
};

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_TCP_H
