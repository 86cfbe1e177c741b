//===- olutil/olMutex.h - Recursive mutex and scope guards ------*- C++ -*-===//
//
// Family: Concurrency.
//
// The lowest lock of the library. DtMutex is a recursive POSIX mutex; DtScopedLock
// holds it for one scope, optionally (its condition lets a class make locking a
// switch); DtScopedSequenceLock keeps an object locked while a guard is passed along
// by value, as through a chain of stream insertions.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLMUTEX_H
#define OLUTIL_OLMUTEX_H

#include <pthread.h>

// A recursive mutex: the thread that holds it may lock it again any number of times
// and must unlock it as often.
//
// Thread safety: lock, tryLock and unlock may be called from any thread. An unlock
// by one thread happens before the lock that next succeeds in another.
//
// Copying is deliberately thin: the copy constructor initialises no mutex and the
// assignment operator does nothing, so classes that hold a DtMutex keep their default
// copying without lock state travelling along. A copied DtMutex must not be locked.
class DtMutex
{
public:
   DtMutex();
   DtMutex(DtMutex const& other);
   DtMutex& operator=(DtMutex const& other);
   virtual ~DtMutex();

   virtual void lock();
   // True if and only if the lock was taken (also when the caller holds it already).
   virtual bool tryLock();
   virtual void unlock();

private:
   pthread_mutex_t mutex_;
};

// Holds a DtMutex for the scope it lives in. Made with a false condition it holds
// nothing until lock() is called, so a class can make its locking optional.
//
// A guard belongs to the stack of one thread and is never shared.
class DtScopedLock
{
public:
   explicit DtScopedLock(DtMutex& mutex, bool condition = true);
   ~DtScopedLock();

   DtScopedLock(DtScopedLock const&) = delete;
   DtScopedLock& operator=(DtScopedLock const&) = delete;

   // Takes the mutex unless this guard holds it already.
   void lock();
   // Releases the mutex if this guard holds it.
   void unlock();

   bool locked() const { return locked_; }
   // The guard's own address while it holds the mutex, null otherwise.
   operator void const*() const { return locked_ ? this : nullptr; }

private:
   DtMutex& mutex_;
   bool locked_;
};

// Keeps an object locked across a sequence of operations while the guard is handed
// on by value. The first guard does not acquire: whoever makes it must already hold
// the object. Each copy acquires one further level of the (recursive) lock, and
// every guard, the first as well, releases one level when destroyed, so the first
// guard's release balances the caller's own acquisition.
//
// A guard belongs to the stack of one thread and is never shared.
class DtScopedSequenceLock
{
public:
   DtScopedSequenceLock(void* object, void (*lockFunction)(void*), void (*unlockFunction)(void*));
   DtScopedSequenceLock(DtScopedSequenceLock const& other);
   DtScopedSequenceLock& operator=(DtScopedSequenceLock const&) = delete;
   virtual ~DtScopedSequenceLock();

private:
   void (*lockFunction_)(void*);
   void (*unlockFunction_)(void*);
   void* lockedObject_;
};

#endif  // OLUTIL_OLMUTEX_H
