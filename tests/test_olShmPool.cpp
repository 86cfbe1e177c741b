// Tests of the named shared-memory segments: the key rule, the manager that owns a
// segment and the client that joins it.
#include <olutil/olShmPool.h>

#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <olutil/olExceptions.h>

#include "support_shm.h"

namespace
{

std::string path(std::string const& name) { return "/tmp/" + name + ".shared"; }

std::string thrownText(std::function<void()> const& body)
try
{
   body();
   return "(nothing thrown)";
}
catch (DtException const& e)
{
   return e.message();
}

// A name unique to this process; its key file and segment go at the end of each test.
class ShmPoolTest : public ::testing::Test
{
protected:
   ~ShmPoolTest() override
   {
      key_t const key = ftok(path(a).c_str(), 0);
      int const id = key == -1 ? -1 : shmget(key, 0, 0);
      if (id >= 0)
         shmctl(id, IPC_RMID, nullptr);
      std::remove(path(a).c_str());
   }
   std::string const a = "olshm-test-" + std::to_string(getpid()) + "-a";
};

TEST_F(ShmPoolTest, ClientSharesTheManagersSegmentAndOnlyTheManagerRemovesIt)
{
   key_t const key = DtGetShmKeyFromString(a.c_str());
   EXPECT_NE(0, key);
   EXPECT_EQ(key, ftok(path(a).c_str(), 0));
   EXPECT_EQ(0, DtGetShmKeyFromString(("no-such-dir-" + std::to_string(getpid()) + "/x").c_str()));

   std::string const failed = "DtSharedMemoryPoolManager() create has error with shmget: ";
   {
      DtSharedMemoryPoolManager manager(a.c_str(), 4096);
      {
         DtSharedMemoryPoolClient client(a.c_str());
         EXPECT_EQ(manager.id(), client.id());
         std::strcpy(static_cast<char*>(client.address()), "from the client");
      }
      EXPECT_STREQ("from the client", static_cast<char*>(manager.address()));
      // The client left it: a larger size is refused, not a new segment made.
      EXPECT_EQ(failed + std::strerror(EINVAL),
                thrownText([&] { DtSharedMemoryPoolManager big(a.c_str(), 1 << 20); }));
      EXPECT_EQ(manager.id(), DtSharedMemoryPoolManager(a.c_str(), 1024).id());
   }
   EXPECT_EQ(failed + std::strerror(ENOENT),
             thrownText([&] { DtSharedMemoryPoolClient c(a.c_str()); }));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(ShmPoolTest, EndThatCannotAttachFailsAndTheManagerLeavesNoSegment)
{
   // A child whose address space has no room for the segment fails to attach it, as a
   // client and then as the manager, which removes it.
   pid_t const child = olt::startChild([&] {
      rlimit const limit{512UL << 20, 512UL << 20};
      if (setrlimit(RLIMIT_AS, &limit) != 0)
         return 10;
      if (shmget(DtGetShmKeyFromString(a.c_str()), 1UL << 30, IPC_CREAT | 0600) < 0)
         return 12;
      std::string const joined = "DtSharedMemoryPoolClient::join has error with shmat: ";
      if (thrownText([&] { DtSharedMemoryPoolClient c(a.c_str()); }) !=
          joined + std::strerror(ENOMEM))
         return 13;
      auto const text = thrownText([&] { DtSharedMemoryPoolManager m(a.c_str(), 1UL << 30); });
      return text == "DtSharedMemoryPoolManager()  has error. " ? 0 : 11;
   });
   EXPECT_EQ(0, olt::waitChild(child));
   key_t const key = ftok(path(a).c_str(), 0);
   ASSERT_NE(-1, key);
   EXPECT_EQ(-1, shmget(key, 0, 0));
   EXPECT_EQ(ENOENT, errno);
}
#endif

}  // namespace
