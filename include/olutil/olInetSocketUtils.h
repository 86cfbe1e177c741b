//===- olutil/olInetSocketUtils.h - Chain helpers for sockets ---*- C++ -*-===//
//
// Family: Sockets.
//
// Small operations on chains (vectors of pointers to caller-owned byte vectors) that
// the sockets, their background queues and the DIS callbacks share: the byte count of
// a chain, scattering bytes across its buffers, and gathering it into one vector.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETSOCKETUTILS_H
#define OLUTIL_OLINETSOCKETUTILS_H

#include <cstddef>
#include <vector>

#include <olutil/olInetSocket.h>

// The number of bytes in a chain: the sum of the size() of its buffers. Null buffers
// count as empty.
std::size_t DtInetSockChainSize(DtInetSockChain const& chain);

// Copies `length` bytes across the chain's buffers in turn, each up to its size().
// Returns true when everything fitted; otherwise the buffers hold the leading part.
bool DtInetSockCopyToChain(char const* data, std::size_t length, DtInetSockChain& chain);

// Replaces `target` with the chain's bytes, in order, as one datagram.
void DtInetSockGatherChain(DtInetSockChain const& chain, std::vector<char>& target);

#endif  // OLUTIL_OLINETSOCKETUTILS_H
