// Network namespaces for tests: creation, veth links, addresses, setns guard.
#include "support_netns.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace olt
{

int runCommand(Args const& argv, std::string* output)
{
   // Each argument single-quoted for sh, quotes inside written as '\''.
   std::string command = "timeout 30";
   for (auto arg : argv)
   {
      for (size_t at = 0; (at = arg.find('\'', at)) != std::string::npos; at += 4)
         arg.replace(at, 1, "'\\''");
      command += " '" + arg + "'";
   }
   FILE* pipe = argv.empty() ? nullptr : popen((command + " 2>&1").c_str(), "re");
   if (!pipe)
      return -1;
   std::string collected;
   char buffer[4096];
   for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
      collected.append(buffer, n);
   int status = pclose(pipe);
   if (output)
      *output = collected;
   return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool TestNetns::isAvailable(std::string* reason)
{
   static std::string whyNot;
   static bool const available = []
   {
      // Sweep "olt<pid>_<n>" namespaces whose process is gone (a crashed test).
      DIR* dir = opendir("/run/netns");
      while (dirent* entry = dir ? readdir(dir) : nullptr)
      {
         char* end = nullptr;
         long pid = strncmp(entry->d_name, "olt", 3) == 0 ? strtol(entry->d_name + 3, &end, 10) : 0;
         if (pid > 0 && *end == '_' && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
            runCommand({"ip", "netns", "delete", entry->d_name});
      }
      if (dir)
         closedir(dir);
      std::string out, probe = "olt" + std::to_string(getpid()) + "_probe";
      if (geteuid() != 0)
         whyNot = "network namespace tests need root (not running as root)";
      else if (runCommand({"ip", "netns", "add", probe}, &out) != 0)
         whyNot = "cannot create network namespaces here: " + out;
      runCommand({"ip", "netns", "delete", probe});
      return whyNot.empty();
   }();
   if (reason)
      *reason = whyNot;
   return available;
}

TestNetns::TestNetns()
{
   static std::atomic<int> counter{0};
   myName = "olt" + std::to_string(getpid()) + "_" + std::to_string(++counter);
   if (!isAvailable(&myError))
      return;
   // Left over from a dead process that had our (reused) pid.
   if (access(path().c_str(), F_OK) == 0)
      runCommand({"ip", "netns", "delete", myName});
   myCreated = run({"ip", "netns", "add", myName}, {}, nullptr);
   myOk = myCreated && setLinkUp("lo");
}

TestNetns::~TestNetns()
{
   if (myCreated)
      runCommand({"ip", "netns", "delete", myName});
}

bool TestNetns::run(Args argv, Args const& more, std::string* output)
{
   argv.insert(argv.end(), more.begin(), more.end());
   std::string out;
   int status = runCommand(argv, &out);
   if (output)
      *output = out;
   if (status == 0)
      return true;
   myError.clear();
   for (auto const& arg : argv)
      myError += arg + " ";
   myError += "failed: " + out;
   return false;
}

int TestNetns::ifIndex(std::string const& device)
{
   std::string out;
   return exec({"cat", "/sys/class/net/" + device + "/ifindex"}, &out) ? atoi(out.c_str()) : 0;
}

NetnsGuard::NetnsGuard(TestNetns const& ns)
{
   mySavedNs = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
   int target = open(ns.path().c_str(), O_RDONLY | O_CLOEXEC);
   myOk = mySavedNs >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0;
   if (!myOk)
      myError = "cannot enter namespace " + ns.name() + ": " + strerror(errno);
   if (target >= 0)
      close(target);
}

NetnsGuard::~NetnsGuard()
{
   // A thread left in a namespace about to vanish would poison later tests.
   if (myOk && setns(mySavedNs, CLONE_NEWNET) != 0)
      abort();
   if (mySavedNs >= 0)
      close(mySavedNs);
}

TestHosts::TestHosts()
{
   if (!mySwitch.ok())
   {
      myError = mySwitch.error();
      return;
   }
   // Ports are created in the switch with their host ends placed straight into the
   // hosts, so no interface ever appears in this machine's own namespace.
   std::string bridges =
       "set -e\n"
       "for b in oltbr0 oltbr1; do\n"
       "  ip link add $b type bridge mcast_snooping 0; ip link set $b addrgenmode none\n"
       "done\n";
   std::string ports;
   for (int index = 0; index < theCount; ++index)
   {
      TestNetns& h = myHosts[index];
      if (!h.ok())
      {
         myError = h.error();
         return;
      }
      for (int segment = 0; segment < (index < 2 ? 2 : 1); ++segment)
      {
         std::string const port = "oltp" + std::to_string(index) + std::to_string(segment);
         ports += "ip link add " + port + " type veth peer name " + device(segment) + " netns " +
                  h.name() + "\nip link set " + port + " addrgenmode none\nip link set " + port +
                  " master oltbr" + std::to_string(segment) + " up\n";
      }
   }
   if (!mySwitch.sh(bridges + ports + "ip link set oltbr0 up; ip link set oltbr1 up\n"))
   {
      myError = mySwitch.error();
      return;
   }
   for (int index = 0; index < theCount; ++index)
   {
      std::string script = "set -e\n";
      for (int segment = 0; segment < (index < 2 ? 2 : 1); ++segment)
      {
         std::string const dev = device(segment);
         script += "ip link set " + dev + " addrgenmode none\nip address add " +
                   address(index, segment) + "/24 brd + dev " + dev + "\nip -6 address add " +
                   address(index, segment, true) + "/64 dev " + dev + " nodad\nip link set " + dev +
                   " up\n";
      }
      // IPv6 multicast routes exist for every interface; the lower metric picks one.
      script +=
          "ip route add 224.0.0.0/4 dev olteth0\n"
          "ip -6 route add multicast ff00::/8 dev olteth0 table local metric 1\n";
      // A veth end shows its carrier a moment after it goes up, and what is sent
      // before then is lost: wait for it (at most 5 s) so counts are exact.
      script +=
          "for i in $(seq 100); do\n"
          "  ip -o link show | grep 'olteth' | grep -qv 'state UP' || break; sleep 0.05\n"
          "done\n";
      if (!myHosts[index].sh(script))
      {
         myError = myHosts[index].error();
         return;
      }
   }
   // Bridge ports forward only once they see their carrier too.
   if (!mySwitch.sh("for i in $(seq 100); do\n"
                    "  bridge link show | grep -qv 'state forwarding' || break; sleep 0.05\n"
                    "done\n"))
   {
      myError = mySwitch.error();
      return;
   }
   myOk = true;
}

std::string TestHosts::address(int index, int segment, bool ipv6)
{
   std::string const host = std::to_string(index + 1);
   if (ipv6)
      return (segment ? "fd78::" : "fd77::") + host;
   return (segment ? "10.78.0." : "10.77.0.") + host;
}

int joinGroupSocket(std::string const& group, std::string const& device, std::string* error)
{
   int const family = group.find(':') != std::string::npos ? AF_INET6 : AF_INET;
   group_req request{};
   request.gr_interface = if_nametoindex(device.c_str());
   request.gr_group.ss_family = static_cast<sa_family_t>(family);
   auto* in4 = reinterpret_cast<sockaddr_in*>(&request.gr_group);
   auto* in6 = reinterpret_cast<sockaddr_in6*>(&request.gr_group);
   void* address = family == AF_INET6 ? static_cast<void*>(&in6->sin6_addr) : &in4->sin_addr;
   int const level = family == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP;
   int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   if (fd >= 0 && request.gr_interface != 0 && inet_pton(family, group.c_str(), address) == 1 &&
       setsockopt(fd, level, MCAST_JOIN_GROUP, &request, sizeof request) == 0)
      return fd;
   if (error)
      *error = "cannot join " + group + " on " + device + ": " + strerror(errno);
   if (fd >= 0)
      close(fd);
   return -1;
}

bool runIsolated(std::function<void()> const& body, std::string* reason)
{
   TestNetns ns;
   if (!ns.ok())
   {
      if (reason)
         *reason = ns.error();
      return false;
   }
   NetnsGuard inside(ns);
   if (!inside.ok())
   {
      if (reason)
         *reason = inside.error();
      return false;
   }
   body();
   return true;
}

std::unique_ptr<DtInetDevice> ipv4Device(std::string const& name)
{
   if (name.empty())
      return nullptr;
   return std::make_unique<DtInetDevice>(DtString(name.c_str()), DtInetUtils::DtInetFamilyIPv4);
}

std::map<int, int> drain(std::function<int()> const& read)
{
   using Clock = std::chrono::steady_clock;
   std::map<int, int> counts;
   auto const end = Clock::now() + std::chrono::seconds(10);
   for (auto last = Clock::now();
        Clock::now() < end && Clock::now() - last < std::chrono::milliseconds(300);)
   {
      if (int const result = read())
      {
         ++counts[result];
         last = Clock::now();
      }
      else
         std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   return counts;
}

void HostsTest::SetUp()
{
   std::string reason;
   if (!TestNetns::isAvailable(&reason))
      GTEST_SKIP() << reason;
   myHosts = std::make_unique<TestHosts>();
   ASSERT_TRUE(myHosts->ok()) << myHosts->error();
}

}  // namespace olt
