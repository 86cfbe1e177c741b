// Network namespaces for tests: creation, veth links, addresses, setns guard.
#include "support_netns.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

namespace olt
{

namespace
{

char const* const theNetnsDir = "/run/netns/";

// Names made by this process and not yet removed, for the exit-time sweep.
std::mutex& liveNamesLock()
{
   static std::mutex* lock = new std::mutex;
   return *lock;
}

std::set<std::string>& liveNames()
{
   static std::set<std::string>* names = new std::set<std::string>;
   return *names;
}

void deleteNetns(std::string const& name)
{
   runCommand({"ip", "netns", "delete", name});
}

void removeLeftoversAtExit()
{
   std::set<std::string> names;
   {
      std::lock_guard<std::mutex> hold(liveNamesLock());
      names.swap(liveNames());
   }
   for (auto const& name : names)
      deleteNetns(name);
}

// Removes "olt<pid>_<n>" namespaces whose process is gone (a crashed test).
void sweepDeadProcessNamespaces()
{
   DIR* dir = opendir(theNetnsDir);
   if (!dir)
      return;
   std::vector<std::string> stale;
   while (dirent* entry = readdir(dir))
   {
      char const* name = entry->d_name;
      if (strncmp(name, "olt", 3) != 0)
         continue;
      char* end = nullptr;
      long pid = strtol(name + 3, &end, 10);
      if (end == name + 3 || *end != '_' || pid <= 0)
         continue;
      if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
         stale.push_back(name);
   }
   closedir(dir);
   for (auto const& name : stale)
      deleteNetns(name);
}

}  // namespace

int runCommand(std::vector<std::string> const& argv, std::string* output)
{
   if (argv.empty())
      return -1;
   std::vector<std::string> bounded{"timeout", "30"};
   bounded.insert(bounded.end(), argv.begin(), argv.end());
   std::vector<char*> args;
   for (auto& arg : bounded)
      args.push_back(const_cast<char*>(arg.c_str()));
   args.push_back(nullptr);

   int fds[2];
   if (pipe2(fds, O_CLOEXEC) != 0)
      return -1;
   pid_t child = fork();
   if (child < 0)
   {
      close(fds[0]);
      close(fds[1]);
      return -1;
   }
   if (child == 0)
   {
      dup2(fds[1], STDOUT_FILENO);
      dup2(fds[1], STDERR_FILENO);
      execvp(args[0], args.data());
      _exit(127);
   }
   close(fds[1]);
   std::string collected;
   char buffer[4096];
   for (;;)
   {
      ssize_t n = read(fds[0], buffer, sizeof buffer);
      if (n > 0)
         collected.append(buffer, static_cast<size_t>(n));
      else if (n == 0 || errno != EINTR)
         break;
   }
   close(fds[0]);
   int status = 0;
   while (waitpid(child, &status, 0) < 0 && errno == EINTR)
   {
   }
   if (output)
      *output = collected;
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool TestNetns::isAvailable(std::string* reason)
{
   static std::string whyNot;
   static bool const available = []
   {
      if (geteuid() != 0)
      {
         whyNot = "network namespace tests need root (not running as root)";
         return false;
      }
      std::string out;
      if (runCommand({"ip", "-V"}, &out) != 0)
      {
         whyNot = "network namespace tests need iproute2's 'ip' command";
         return false;
      }
      sweepDeadProcessNamespaces();
      std::string probe = "olt" + std::to_string(getpid()) + "_probe";
      if (runCommand({"ip", "netns", "add", probe}, &out) != 0)
      {
         whyNot = "cannot create network namespaces here: " + out;
         return false;
      }
      deleteNetns(probe);
      return true;
   }();
   if (reason)
      *reason = whyNot;
   return available;
}

TestNetns::TestNetns() : myOk(false)
{
   static std::atomic<int> counter{0};
   myName = "olt" + std::to_string(getpid()) + "_" + std::to_string(++counter);
   if (!isAvailable(&myError))
      return;
   // Our pid may be a reused one: a namespace of this name that we did not make
   // is left over from a process that died before its tear-down.
   if (access(path().c_str(), F_OK) == 0)
      deleteNetns(myName);
   std::string out;
   if (runCommand({"ip", "netns", "add", myName}, &out) != 0)
   {
      fail("ip netns add " + myName, out);
      return;
   }
   {
      std::lock_guard<std::mutex> hold(liveNamesLock());
      static bool const registered = (std::atexit(removeLeftoversAtExit) == 0);
      (void)registered;
      liveNames().insert(myName);
   }
   myOk = true;
   if (!setLinkUp("lo"))
      myOk = false;
}

TestNetns::~TestNetns()
{
   remove();
}

void TestNetns::remove()
{
   bool present;
   {
      std::lock_guard<std::mutex> hold(liveNamesLock());
      present = liveNames().erase(myName) > 0;
   }
   if (present)
      deleteNetns(myName);
   myOk = false;
}

std::string TestNetns::path() const
{
   return theNetnsDir + myName;
}

bool TestNetns::fail(std::string const& what, std::string const& output)
{
   myError = what + " failed: " + output;
   return false;
}

bool TestNetns::ip(std::vector<std::string> const& args, std::string* output)
{
   std::vector<std::string> argv{"ip", "-n", myName};
   argv.insert(argv.end(), args.begin(), args.end());
   std::string out;
   int status = runCommand(argv, &out);
   if (output)
      *output = out;
   if (status == 0)
      return true;
   std::string text;
   for (auto const& arg : argv)
      text += arg + " ";
   return fail(text, out);
}

bool TestNetns::exec(std::vector<std::string> const& argv, std::string* output)
{
   std::vector<std::string> full{"ip", "netns", "exec", myName};
   full.insert(full.end(), argv.begin(), argv.end());
   std::string out;
   int status = runCommand(full, &out);
   if (output)
      *output = out;
   return status == 0 || fail("ip netns exec " + myName + " " + argv.front(), out);
}

bool TestNetns::sh(std::string const& script, std::string* output)
{
   return exec({"sh", "-c", script}, output);
}

bool TestNetns::addVethPair(std::string const& end, std::string const& peerEnd)
{
   return ip({"link", "add", end, "type", "veth", "peer", "name", peerEnd});
}

bool TestNetns::addVethPeer(std::string const& end, TestNetns& peer, std::string const& peerEnd)
{
   return ip({"link", "add", end, "type", "veth", "peer", "name", peerEnd, "netns", peer.name()});
}

bool TestNetns::disableLinkLocal(std::string const& device)
{
   return ip({"link", "set", "dev", device, "addrgenmode", "none"});
}

bool TestNetns::addAddress(std::string const& device, std::string const& cidr)
{
   if (cidr.find(':') != std::string::npos)
      return ip({"-6", "address", "add", cidr, "dev", device, "nodad"});
   return ip({"address", "add", cidr, "dev", device});
}

bool TestNetns::setLinkUp(std::string const& device, bool up)
{
   return ip({"link", "set", device, up ? "up" : "down"});
}

int TestNetns::ifIndex(std::string const& device)
{
   std::string out;
   if (!exec({"cat", "/sys/class/net/" + device + "/ifindex"}, &out))
      return 0;
   return atoi(out.c_str());
}

NetnsGuard::NetnsGuard(TestNetns const& ns) : mySavedNs(-1), myOk(false)
{
   mySavedNs = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
   if (mySavedNs < 0)
   {
      myError = std::string("cannot open this thread's namespace: ") + strerror(errno);
      return;
   }
   int target = open(ns.path().c_str(), O_RDONLY | O_CLOEXEC);
   if (target < 0)
   {
      myError = "cannot open " + ns.path() + ": " + strerror(errno);
      return;
   }
   if (setns(target, CLONE_NEWNET) != 0)
      myError = "setns into " + ns.name() + " failed: " + strerror(errno);
   else
      myOk = true;
   close(target);
}

NetnsGuard::~NetnsGuard()
{
   if (mySavedNs < 0)
      return;
   if (myOk && setns(mySavedNs, CLONE_NEWNET) != 0)
      abort();  // a test thread left in a namespace about to vanish would poison every later test
   close(mySavedNs);
}

int joinGroupSocket(std::string const& group, std::string const& device, std::string* error)
{
   auto failWith = [error](std::string const& text, int fd)
   {
      if (error)
         *error = text + ": " + strerror(errno);
      if (fd >= 0)
         close(fd);
      return -1;
   };
   unsigned int index = if_nametoindex(device.c_str());
   if (index == 0)
      return failWith("no interface " + device, -1);
   bool ipv6 = group.find(':') != std::string::npos;
   int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   if (fd < 0)
      return failWith("socket", -1);
   if (ipv6)
   {
      ipv6_mreq request{};
      if (inet_pton(AF_INET6, group.c_str(), &request.ipv6mr_multiaddr) != 1)
         return failWith("bad group " + group, fd);
      request.ipv6mr_interface = index;
      if (setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request) != 0)
         return failWith("IPV6_JOIN_GROUP " + group, fd);
   }
   else
   {
      ip_mreqn request{};
      if (inet_pton(AF_INET, group.c_str(), &request.imr_multiaddr) != 1)
         return failWith("bad group " + group, fd);
      request.imr_ifindex = static_cast<int>(index);
      if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0)
         return failWith("IP_ADD_MEMBERSHIP " + group, fd);
   }
   return fd;
}

}  // namespace olt
