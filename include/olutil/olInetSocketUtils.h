//===- olutil/olInetSocketUtils.h - Chain helpers for sockets ---*- C++ -*-===//
//
// Family: Sockets.
//
// Small operations on chains (vectors of pointers to caller-owned byte vectors) that
// the sockets, their background queues and the DIS callbacks share: the byte count of
// a chain, scattering bytes across its buffers, gathering it into one vector, and its
// buffers as one sequence for a gathered or scattered system call.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETSOCKETUTILS_H
#define OLUTIL_OLINETSOCKETUTILS_H

#include <cstddef>
#include <string>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/container/small_vector.hpp>
#include <boost/system/error_code.hpp>

#include <olutil/olInetSocket.h>

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

#endif  // OLUTIL_OLINETSOCKETUTILS_H
