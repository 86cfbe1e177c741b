// Tests of the named shared-memory segments: the key rule, the manager that owns a
// segment and the client that joins it.
#include <olutil/olShmPool.h>

#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olExceptions.h>

#include "support_shm.h"

namespace
{

// Names unique to this process, whose key files and segments go at the end of the
// test whatever happened in it.
class PoolNames
{
public:
   ~PoolNames()
   {
      for (std::string const& name : myNames)
      {
         std::string const path = "/tmp/" + name + ".shared";
         key_t const key = ftok(path.c_str(), 0);
         int const id = key == -1 ? -1 : shmget(key, 0, 0);
         if (id >= 0)
            shmctl(id, IPC_RMID, nullptr);
         std::remove(path.c_str());
      }
   }
   std::string make(char const* what)
   {
      myNames.push_back("olshm-test-" + std::to_string(getpid()) + "-" + what);
      return myNames.back();
   }

private:
   std::vector<std::string> myNames;
};

bool segmentExists(int id)
{
   shmid_ds info;
   return shmctl(id, IPC_STAT, &info) == 0;
}

std::string thrownText(std::function<void()> const& body)
{
   try
   {
      body();
   }
   catch (DtException const& e)
   {
      return e.message();
   }
   return "(nothing thrown)";
}

TEST(DtGetShmKeyFromStringTest, KeyFileNamesTheKey)
{
   PoolNames names;
   std::string const a = names.make("a");
   std::string const path = "/tmp/" + a + ".shared";
   {
      std::FILE* f = std::fopen(path.c_str(), "w");
      ASSERT_TRUE(f);
      std::fputs("old contents", f);
      std::fclose(f);
   }
   key_t const key = DtGetShmKeyFromString(a.c_str());
   EXPECT_NE(0, key);
   EXPECT_NE(-1, key);
   EXPECT_EQ(key, ftok(path.c_str(), 0));
   EXPECT_EQ(key, DtGetShmKeyFromString(a.c_str()));
   std::FILE* f = std::fopen(path.c_str(), "r");
   ASSERT_TRUE(f);
   EXPECT_EQ(EOF, std::fgetc(f)) << "the file is emptied";
   std::fclose(f);
   EXPECT_NE(key, DtGetShmKeyFromString(names.make("b").c_str()));
   // A name whose file cannot be made gives 0.
   EXPECT_EQ(0, DtGetShmKeyFromString(("no-such-dir-" + std::to_string(getpid()) + "/x").c_str()));
}

TEST(DtSharedMemoryPoolTest, ClientSeesTheManagersMemoryAndOnlyTheManagerRemovesIt)
{
   PoolNames names;
   DtString const name(names.make("pool").c_str());
   auto manager = std::make_unique<DtSharedMemoryPoolManager>(name, 4096);
   ASSERT_NE(nullptr, manager->address());
   int const id = manager->id();
   EXPECT_TRUE(segmentExists(id));
   std::strcpy(static_cast<char*>(manager->address()), "from the manager");
   {
      DtSharedMemoryPoolClient client(name);
      EXPECT_EQ(id, client.id());
      ASSERT_NE(nullptr, client.address());
      EXPECT_STREQ("from the manager", static_cast<char*>(client.address()));
      std::strcpy(static_cast<char*>(client.address()), "from the client");
   }
   EXPECT_TRUE(segmentExists(id));
   EXPECT_STREQ("from the client", static_cast<char*>(manager->address()));
   // A second manager under the same name finds the same segment.
   {
      DtSharedMemoryPoolManager again(name, 1024);
      EXPECT_EQ(id, again.id());
   }
   // Removed, and gone once the first manager detaches too.
   manager.reset();
   EXPECT_FALSE(segmentExists(id));
}

TEST(DtSharedMemoryPoolTest, FailuresThrowTheirTexts)
{
   PoolNames names;
   std::string const shmget = "DtSharedMemoryPoolManager() create has error with shmget: ";
   DtString const missing(names.make("missing").c_str());
   EXPECT_EQ(shmget + std::strerror(ENOENT), thrownText([&] { DtSharedMemoryPoolClient c(missing); }));

   DtString const small(names.make("small").c_str());
   DtSharedMemoryPoolManager manager(small, 1024);
   EXPECT_EQ(shmget + std::strerror(EINVAL),
             thrownText([&] { DtSharedMemoryPoolManager bigger(small, 1 << 20); }));
   EXPECT_TRUE(segmentExists(manager.id()));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(DtSharedMemoryPoolTest, ManagerThatCannotAttachLeavesNoSegment)
{
   PoolNames names;
   std::string const name = names.make("noroom");
   // In a child whose address space has no room for the segment, attaching fails
   // after the segment was made.
   pid_t const child = olt::startChild([&] {
      rlimit limit{};
      getrlimit(RLIMIT_AS, &limit);
      limit.rlim_cur = 512UL << 20;
      if (setrlimit(RLIMIT_AS, &limit) != 0)
         return 10;
      std::string const text = thrownText([&] { DtSharedMemoryPoolManager m(name.c_str(), 1UL << 30); });
      return text == "DtSharedMemoryPoolManager()  has error. " ? 0 : 11;
   });
   EXPECT_EQ(0, olt::waitChild(child));
   key_t const key = ftok(("/tmp/" + name + ".shared").c_str(), 0);
   ASSERT_NE(-1, key);
   EXPECT_EQ(-1, shmget(key, 0, 0));
   EXPECT_EQ(ENOENT, errno);
}
#endif

}  // namespace
