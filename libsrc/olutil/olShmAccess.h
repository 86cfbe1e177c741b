//===- olShmAccess.h - Element header access shared by reader and writer ---===//
//
// Family: Messaging. Private to the library.
//
// The queue's header fields are read and written by two processes at once, so every
// access to them goes through these helpers: a message becomes visible by a release
// store of its type after its body and length, and the reader's acquire load of the
// type makes them visible in turn. On x86-64 these are plain moves.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_LIBSRC_OLSHMACCESS_H
#define OLUTIL_LIBSRC_OLSHMACCESS_H

#include <olutil/olShmQueue.h>

#include <cstdint>

namespace olshm
{

template <class T>
inline T load(T const& field)
{
   return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <class T, class V>
inline void store(T& field, V value)
{
   __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELEASE);
}

// The offset just past the element at `offset`, or -1 when its body would run past
// the end of an area of `areaSize` bytes.
inline long long nextOffset(Dt_Shm_Msg_Queue_Element const* element, int offset, int areaSize)
{
   long long const next = static_cast<long long>(offset) + 8 + load(element->length);
   return next > areaSize ? -1 : next;
}

constexpr int roundUp8(long long n)
{
   return static_cast<int>((n + 7) & ~7LL);
}

}  // namespace olshm

#endif  // OLUTIL_LIBSRC_OLSHMACCESS_H
