//===- olInetSocketUtils.cpp - Chain helpers for sockets -------------------===//
//
// Family: Sockets.
//
//===----------------------------------------------------------------------===//
#include <olutil/olInetSocketUtils.h>

#include <algorithm>
#include <cstring>

std::size_t DtInetSockChainSize(DtInetSockChain const& chain)
{
   std::size_t total = 0;
   for (std::vector<char> const* buffer : chain)
   {
      if (buffer)
         total += buffer->size();
   }
   return total;
}

bool DtInetSockCopyToChain(char const* data, std::size_t length, DtInetSockChain& chain)
{
   for (std::vector<char>* buffer : chain)
   {
      if (length == 0)
         break;
      if (!buffer || buffer->empty())
         continue;
      std::size_t const piece = std::min(length, buffer->size());
      std::memcpy(buffer->data(), data, piece);
      data += piece;
      length -= piece;
   }
   return length == 0;
}

void DtInetSockGatherChain(DtInetSockChain const& chain, std::vector<char>& target)
{
   target.clear();
   target.reserve(DtInetSockChainSize(chain));
   for (std::vector<char> const* buffer : chain)
   {
      if (buffer)
         target.insert(target.end(), buffer->begin(), buffer->end());
   }
}

bool DtInetSockWithinGatherLimit(DtInetSockChain const& chain)
{
   std::size_t used = 0;
   for (std::vector<char> const* buffer : chain)
   {
      if (buffer && !buffer->empty() && ++used > DtInetSockGatherLimit)
         return false;
   }
   return true;
}
