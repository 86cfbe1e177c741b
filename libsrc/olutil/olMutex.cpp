//===- olMutex.cpp - Recursive mutex and scope guards ---------------------===//
#include <olutil/olMutex.h>

DtMutex::DtMutex()
{
   // The attribute object is left alive on purpose: nothing reuses it and some
   // systems tie the mutex's type to it.
   pthread_mutexattr_t attributes;
   pthread_mutexattr_init(&attributes);
   pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
   pthread_mutex_init(&mutex_, &attributes);
}

// Deliberately thin: no lock state is shared or copied and pthread_mutex_init does
// not run. The copy's storage is only given the static recursive initialiser, so a
// copy that does get locked behaves as a fresh, independent recursive mutex.
DtMutex::DtMutex(DtMutex const&) : mutex_()
{
#ifdef PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP
   pthread_mutex_t const recursiveInitialiser = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
   mutex_ = recursiveInitialiser;
#endif
}

DtMutex& DtMutex::operator=(DtMutex const&)
{
   return *this;
}

DtMutex::~DtMutex()
{
   pthread_mutex_destroy(&mutex_);
}

void DtMutex::lock()
{
   pthread_mutex_lock(&mutex_);
}

bool DtMutex::tryLock()
{
   return pthread_mutex_trylock(&mutex_) == 0;
}

void DtMutex::unlock()
{
   pthread_mutex_unlock(&mutex_);
}

DtScopedLock::DtScopedLock(DtMutex& mutex, bool condition) : mutex_(mutex), locked_(false)
{
   if (condition)
   {
      lock();
   }
}

DtScopedLock::~DtScopedLock()
{
   if (locked_)
   {
      unlock();
   }
}

void DtScopedLock::lock()
{
   if (locked_)
   {
      return;
   }
   mutex_.lock();
   locked_ = true;
}

void DtScopedLock::unlock()
{
   if (!locked_)
   {
      return;
   }
   mutex_.unlock();
   locked_ = false;
}

DtScopedSequenceLock::DtScopedSequenceLock(void* object, void (*lockFunction)(void*),
                                           void (*unlockFunction)(void*))
    : lockFunction_(lockFunction), unlockFunction_(unlockFunction), lockedObject_(object)
{
}

DtScopedSequenceLock::DtScopedSequenceLock(DtScopedSequenceLock const& other)
    : lockFunction_(other.lockFunction_),
      unlockFunction_(other.unlockFunction_),
      lockedObject_(other.lockedObject_)
{
   if (lockFunction_)
   {
      lockFunction_(lockedObject_);
   }
}

DtScopedSequenceLock::~DtScopedSequenceLock()
{
   if (unlockFunction_)
   {
      unlockFunction_(lockedObject_);
   }
}
