//===- olutil/olThreadSafe.h - A value guarded for one expression -*- C++ -*-===//
//
// Family: Containers.
//
// DtThreadSafe<T> pairs a plain value with a DtMutex. Its operator-> hands back a
// LockedProxy that holds the mutex until the end of the full expression, so
// `queue->push_back(x)` runs inside one lock period. The socket layers use it for
// the deques of packets and endpoints that an application thread and an I/O thread
// hand to each other.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLTHREADSAFE_H
#define OLUTIL_OLTHREADSAFE_H

#include <deque>
#include <utility>
#include <vector>

#include <olutil/olMutex.h>

// A value of type T behind a recursive mutex.
//
// Thread safety: operator-> may be called from any thread. Each call locks the
// mutex for exactly one full expression; whatever that expression returns (a
// reference to an element, an iterator) is not guarded afterwards, and two
// accesses in a row are two separate lock periods. A caller that needs several
// steps as one unit holds a DtScopedLock on mutex() around them; the mutex is
// recursive, so operator-> may still be used inside that scope. Using operator->
// twice on the same object inside one expression also works only because the
// mutex is recursive.
//
// An unlock at the end of one expression happens before the lock of the next
// expression that takes the same mutex, in whatever thread.
template <class T>
class DtThreadSafe
{
public:
   // Holds the lock while it lives; it lives until the end of the full expression
   // in which DtThreadSafe::operator-> made it.
   class LockedProxy
   {
   public:
      LockedProxy(T& value, DtMutex& mutex) : myValue(value), myLock(mutex, true) {}
      LockedProxy(LockedProxy const&) = delete;
      LockedProxy& operator=(LockedProxy const&) = delete;

      T* operator->() { return &myValue; }

   private:
      T& myValue;
      DtScopedLock myLock;
   };

   DtThreadSafe() = default;
   explicit DtThreadSafe(T const& value) : myValue(value) {}

   // A copy takes the source's value under the source's lock and gets a mutex of
   // its own; no lock state is shared between the two objects.
   DtThreadSafe(DtThreadSafe const& other) : myValue(other.copyValue()), myMutex() {}
   DtThreadSafe& operator=(DtThreadSafe const& other)
   {
      if (this != &other)
      {
         T copy(other.copyValue());
         DtScopedLock lock(myMutex, true);
         myValue = std::move(copy);
      }
      return *this;
   }

   // The proxy is returned as a prvalue, so it is never copied: the lock is taken
   // once, here, and released once, at the end of the caller's expression.
   LockedProxy operator->() { return LockedProxy(myValue, myMutex); }

   // The mutex that operator-> takes, for callers that need several steps as one
   // lock period.
   DtMutex& mutex() const { return myMutex; }

private:
   T copyValue() const
   {
      DtScopedLock lock(myMutex, true);
      return myValue;
   }

   T myValue;
   mutable DtMutex myMutex;
};

// The library's own instantiations, of a deque of doubles and of a deque of
// (context, packet buffer) pairs, are compiled into the library as well; every
// member is inline, so other instantiations need nothing but this header.

#endif  // OLUTIL_OLTHREADSAFE_H
