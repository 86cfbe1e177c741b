//===- olutil/olShmPool.h - Named System V shared-memory segments -*- C++ -*-===//
//
// Family: Messaging.
//
// A packet server and its clients find a shared-memory segment by name: the name
// gives a key file "/tmp/" + name + ".shared", and the file's key (ftok) the segment.
// DtSharedMemoryPoolManager creates (or finds) the segment, attaches it and removes it
// when destroyed; DtSharedMemoryPoolClient attaches an existing one and only detaches.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLSHMPOOL_H
#define OLUTIL_OLSHMPOOL_H

#include <sys/types.h>

#include <olutil/olString.h>

// The key for `name`: creates or empties "/tmp/" + name + ".shared" and returns
// ftok(path, 0); 0 when the file cannot be opened. The file is left in place: the
// program that chose the name removes it when it no longer needs the name.
key_t DtGetShmKeyFromString(DtString const& name);

// The owner of a named segment. It creates the segment (read and write for all) or
// finds one of at least `size` bytes under the same key, attaches it, and on
// destruction detaches and removes it: it must outlive every client of the segment.
// The manager owns the segment under its name from the moment it has its id, found
// or created: failures throw DtException (texts in olShmPool.cpp) and a failure to
// attach removes the segment, as destruction would. A key file that cannot be made gives key 0, which the
// system takes as a private key: the segment is then new, unnamed and for this
// process alone.
//
// A pool object is used by one thread; the memory is shared with other processes.
class DtSharedMemoryPoolManager
{
public:
   DtSharedMemoryPoolManager(DtString const& name, unsigned long size);
   virtual ~DtSharedMemoryPoolManager();

   DtSharedMemoryPoolManager(DtSharedMemoryPoolManager const&) = delete;
   DtSharedMemoryPoolManager& operator=(DtSharedMemoryPoolManager const&) = delete;

   void* address() const;
   int id() const;
   DtString const& name() const;

private:
   DtString poolName;
   void* poolAddress = nullptr;
   int shmId = -1;
};

// A user of a segment that a manager created: attaches it, and detaches on
// destruction. Failures throw DtException.
class DtSharedMemoryPoolClient
{
public:
   explicit DtSharedMemoryPoolClient(DtString const& name);
   virtual ~DtSharedMemoryPoolClient();

   DtSharedMemoryPoolClient(DtSharedMemoryPoolClient const&) = delete;
   DtSharedMemoryPoolClient& operator=(DtSharedMemoryPoolClient const&) = delete;

   void* address() const;
   int id() const;
   DtString const& name() const;

private:
   DtString poolName;
   void* poolAddress = nullptr;
   int shmId = -1;
};

#endif  // OLUTIL_OLSHMPOOL_H
