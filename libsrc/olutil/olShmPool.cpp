//===- olShmPool.cpp - Named System V shared-memory segments ---------------===//
//
// Family: Messaging.
//
//===----------------------------------------------------------------------===//
#include <olutil/olShmPool.h>

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <olutil/olExceptions.h>

namespace
{

// The client reports a failed lookup with the manager's text: both say the segment
// of that name cannot be had.
char const* const theShmgetFailure = "DtSharedMemoryPoolManager() create has error with shmget: ";
char const* const theManagerShmatFailure = "DtSharedMemoryPoolManager()  has error. ";
char const* const theClientShmatFailure = "DtSharedMemoryPoolClient::join has error with shmat: ";

// IPC_CREAT and read and write for all.
constexpr int theCreateFlags = 01666;

[[noreturn]] void fail(char const* text, int error)
{
   std::string message(text);
   if (error)
      message += std::strerror(error);
   throw DtException(message.c_str());
}

void* attach(int id)
{
   void* address = shmat(id, nullptr, 0);
   return address == reinterpret_cast<void*>(-1) ? nullptr : address;
}

}  // namespace

key_t DtGetShmKeyFromString(DtString const& name)
{
   std::string const path = std::string("/tmp/") + name.c_str() + ".shared";
   std::FILE* file = std::fopen(path.c_str(), "w+");
   if (!file)
      return 0;
   std::fclose(file);
   return ftok(path.c_str(), 0);
}

DtSharedMemoryPoolManager::DtSharedMemoryPoolManager(DtString const& name, unsigned long size)
    : poolName(name)
{
   shmId = shmget(DtGetShmKeyFromString(name), size, theCreateFlags);
   if (shmId < 0)
      fail(theShmgetFailure, errno);
   poolAddress = attach(shmId);
   if (!poolAddress)
   {
      // The manager owns the segment from shmget on: it goes, attached or not.
      shmctl(shmId, IPC_RMID, nullptr);
      shmId = -1;
      fail(theManagerShmatFailure, 0);
   }
}

DtSharedMemoryPoolManager::~DtSharedMemoryPoolManager()
{
   if (poolAddress)
      shmdt(poolAddress);
   if (shmId >= 0)
      shmctl(shmId, IPC_RMID, nullptr);
   shmId = -1;
}

void* DtSharedMemoryPoolManager::address() const
{
   return poolAddress;
}

int DtSharedMemoryPoolManager::id() const
{
   return shmId;
}

DtString const& DtSharedMemoryPoolManager::name() const
{
   return poolName;
}

DtSharedMemoryPoolClient::DtSharedMemoryPoolClient(DtString const& name) : poolName(name)
{
   shmId = shmget(DtGetShmKeyFromString(name), 0, 0);
   if (shmId < 0)
      fail(theShmgetFailure, errno);
   poolAddress = attach(shmId);
   if (!poolAddress)
   {
      int const error = errno;
      shmId = -1;
      fail(theClientShmatFailure, error);
   }
}

DtSharedMemoryPoolClient::~DtSharedMemoryPoolClient()
{
   if (poolAddress)
      shmdt(poolAddress);
}

void* DtSharedMemoryPoolClient::address() const
{
   return poolAddress;
}

int DtSharedMemoryPoolClient::id() const
{
   return shmId;
}

DtString const& DtSharedMemoryPoolClient::name() const
{
   return poolName;
}
