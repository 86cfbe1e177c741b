//===- olutil/olInetSocketUtils.h - Chain helpers for sockets ---*- C++ -*-===//
//
// Family: Sockets.
//
// Small operations on chains (vectors of pointers to caller-owned byte vectors) that
// the sockets, their background queues and the DIS callbacks share: the byte count of
// a chain, scattering bytes across its buffers, gathering it into one vector, its
// buffers as one sequence for a gathered or scattered system call, and the datagram
// send and read of a chain of any length.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETSOCKETUTILS_H
#define OLUTIL_OLINETSOCKETUTILS_H

#include <cstddef>
#include <string>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/container/small_vector.hpp>
#include <boost/system/error_code.hpp>

#include <olutil/olInetSocket.h>
#include <olutil/olInetUdpSocket.h>

// The number of bytes in a chain: the sum of the size() of its buffers. Null buffers
// count as empty.
std::size_t DtInetSockChainSize(DtInetSockChain const& chain);

// Copies `length` bytes across the chain's buffers in turn, each up to its size().
// Returns true when everything fitted; otherwise the buffers hold the leading part.
bool DtInetSockCopyToChain(char const* data, std::size_t length, DtInetSockChain& chain);

// Replaces `target` with the chain's bytes, in order, as one datagram.
void DtInetSockGatherChain(DtInetSockChain const& chain, std::vector<char>& target);

// The chain's non-empty buffers as a sequence of Buffer (boost::asio::const_buffer to
// send, mutable_buffer to receive) for one system call; short chains need no heap.
// Boost.Asio takes no more than DtInetSockGatherLimit of them: see
// DtInetSockSendChainTo.
template <class Buffer>
boost::container::small_vector<Buffer, 16> DtInetSockChainBuffers(DtInetSockChain const& chain)
{
   boost::container::small_vector<Buffer, 16> buffers;
   for (std::vector<char>* buffer : chain)
   {
      if (buffer && !buffer->empty())
         buffers.emplace_back(buffer->data(), buffer->size());
   }
   return buffers;
}

// Runs one option operation, apply(handle, error_code&), on an open Boost socket or
// acceptor. -1 when the handle is null or closed (there is nothing to set, and nothing
// to report); 0 when it worked; otherwise the error number, with the system's message
// in `message`. DtInetSocket::settleOption turns the outcome into the socket's record.
template <class Handle, class Apply>
int DtInetSockRunOption(Handle* handle, Apply const& apply, std::string& message)
{
   if (!handle || !handle->is_open())
      return -1;
   boost::system::error_code error;
   apply(*handle, error);
   if (!error)
      return 0;
   message = error.message();
   return error.value();
}

// The socket options that both concrete sockets set and read the same way.
enum DtInetSockOption : int
{
   DtInetSockOptionReuseAddress,
   DtInetSockOptionDoNotRoute,
   DtInetSockOptionNonBlocking,  // set only
   DtInetSockOptionSendBuffer,
   DtInetSockOptionReceiveBuffer,
   DtInetSockOptionSendLowWatermark,
   DtInetSockOptionReceiveLowWatermark
};

// The failure text of setting `option` to `value` on the socket class of `protocol`:
// "DtInetUdpSocket::setReuseAddressOption(): Error enabling address reuse\n" for an
// on/off option, "DtInetTcpSocket::setSendBufferSize(): Error setting send buffer size
// to <value>" for a size.
std::string DtInetSockOptionSetFailure(DtInetProtocol protocol, DtInetSockOption option,
                                       unsigned int value);
// The failure text of reading it: "DtInetUdpSocket::getSendBufferSize(): Error reading
// send buffer size".
std::string DtInetSockOptionReadFailure(DtInetProtocol protocol, DtInetSockOption option);

// Sets `option` to `value` (an on/off option is on when it is not 0) through the
// socket's own run(apply, text), which runs apply(handle, error_code&) on its Boost
// socket or acceptor and settles the outcome with `text` as the failure text.
template <class Run>
bool DtInetSockSetOption(Run const& run, DtInetProtocol protocol, DtInetSockOption option,
                         unsigned int value)
{
   typedef boost::asio::socket_base Base;
   std::string const text = DtInetSockOptionSetFailure(protocol, option, value);
   bool const on = value != 0;
   // All bits set asks for the system's maximum; the kernel clamps the value.
   int const size = static_cast<int>(value);
   auto set = [&run, &text](auto const& boostOption)
   {
      return run([&boostOption](auto& handle, boost::system::error_code& error)
                 { handle.set_option(boostOption, error); },
                 text);
   };
   switch (option)
   {
      case DtInetSockOptionReuseAddress:
         return set(Base::reuse_address(on));
      case DtInetSockOptionDoNotRoute:
         return set(Base::do_not_route(on));
      case DtInetSockOptionNonBlocking:
         return run([on](auto& handle, boost::system::error_code& error)
                    { handle.non_blocking(on, error); },
                    text);
      case DtInetSockOptionSendBuffer:
         return set(Base::send_buffer_size(size));
      case DtInetSockOptionReceiveBuffer:
         return set(Base::receive_buffer_size(size));
      case DtInetSockOptionSendLowWatermark:
         return set(Base::send_low_watermark(size));
      case DtInetSockOptionReceiveLowWatermark:
         return set(Base::receive_low_watermark(size));
   }
   return false;
}

// Reads `option` through the socket's own read(boostOption, text), which answers the
// option's value, or -1 after a failure recorded with `text`. An on/off option reads
// as 1 or 0.
template <class Read>
int DtInetSockGetOption(Read const& read, DtInetProtocol protocol, DtInetSockOption option)
{
   typedef boost::asio::socket_base Base;
   std::string const text = DtInetSockOptionReadFailure(protocol, option);
   switch (option)
   {
      case DtInetSockOptionReuseAddress:
         return read(Base::reuse_address(), text);
      case DtInetSockOptionDoNotRoute:
         return read(Base::do_not_route(), text);
      case DtInetSockOptionSendBuffer:
         return read(Base::send_buffer_size(), text);
      case DtInetSockOptionReceiveBuffer:
         return read(Base::receive_buffer_size(), text);
      case DtInetSockOptionSendLowWatermark:
         return read(Base::send_low_watermark(), text);
      case DtInetSockOptionReceiveLowWatermark:
         return read(Base::receive_low_watermark(), text);
      case DtInetSockOptionNonBlocking:
         break;
   }
   return -1;
}

// The most buffers Boost.Asio passes to one system call; it leaves out the rest of a
// longer sequence without a word.
constexpr std::size_t DtInetSockGatherLimit = 64;

// Whether the chain has no more than DtInetSockGatherLimit non-empty buffers.
bool DtInetSockWithinGatherLimit(DtInetSockChain const& chain);

// The halves of the two operations below for chains past DtInetSockGatherLimit: the
// chain gathered into one copy and sent, or one datagram read into one buffer and
// scattered across the chain. Either copy is faster than handing the system one
// entry per buffer (bench_udp, LongChainSendWays and LongChainReadWays).
std::size_t DtInetSockSendGathered(DtInetBoostUdpSocket& socket, DtInetSockChain const& chain,
                                   DtInetEndpoint::UdpEndpoint const& target,
                                   boost::system::error_code& error);
std::size_t DtInetSockReceiveScattered(DtInetBoostUdpSocket& socket, DtInetSockChain& chain,
                                       DtInetEndpoint::UdpEndpoint& sender, int flags,
                                       boost::system::error_code& error);

// Sends the chain's bytes to `target` as one datagram, whatever the number of its
// buffers: the bytes sent, or 0 with `error` set. Up to DtInetSockGatherLimit
// non-empty buffers go to the system as they are, with no copy. Always inlined, so
// that a short chain costs what a direct Boost.Asio send costs.
template <class Socket, class Endpoint>
[[gnu::always_inline]] inline std::size_t DtInetSockSendChainTo(Socket& socket,
                                                                DtInetSockChain const& chain,
                                                                Endpoint const& target,
                                                                boost::system::error_code& error)
{
   if (chain.size() <= DtInetSockGatherLimit || DtInetSockWithinGatherLimit(chain))
      return socket.send_to(DtInetSockChainBuffers<boost::asio::const_buffer>(chain), target, 0,
                            error);
   return DtInetSockSendGathered(socket, chain, target, error);
}

// Reads one datagram across the chain's buffers in turn, whatever their number, with
// the message flags `flags`, and stores its sender: the byte count the system reports
// (with MSG_TRUNC the datagram's whole length, which may exceed what the chain
// holds), or 0 with `error` set. Always inlined, as the send is.
template <class Socket, class Endpoint>
[[gnu::always_inline]] inline std::size_t DtInetSockReceiveChainFrom(
    Socket& socket, DtInetSockChain& chain, Endpoint& sender, int flags,
    boost::system::error_code& error)
{
   if (chain.size() <= DtInetSockGatherLimit || DtInetSockWithinGatherLimit(chain))
      return socket.receive_from(DtInetSockChainBuffers<boost::asio::mutable_buffer>(chain), sender,
                                 flags, error);
   return DtInetSockReceiveScattered(socket, chain, sender, flags, error);
}

#endif  // OLUTIL_OLINETSOCKETUTILS_H
