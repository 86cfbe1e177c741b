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

namespace olt
{

namespace
{

char const* const theNetnsDir = "/run/netns/";

void deleteNetns(std::string const& name)
{
   runCommand({"ip", "netns", "delete", name});
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
      char* end = nullptr;
      long pid = strncmp(entry->d_name, "olt", 3) == 0 ? strtol(entry->d_name + 3, &end, 10) : 0;
      if (pid > 0 && *end == '_' && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
         stale.push_back(entry->d_name);
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
      args.push_back(&arg[0]);
   args.push_back(nullptr);

   int fds[2];
   if (pipe2(fds, O_CLOEXEC) != 0)
      return -1;
   pid_t child = fork();
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
   for (ssize_t n = 0; child > 0;)
   {
      n = read(fds[0], buffer, sizeof buffer);
      if (n > 0)
         collected.append(buffer, static_cast<size_t>(n));
      else if (n == 0 || errno != EINTR)
         break;
   }
   close(fds[0]);
   int status = 0;
   while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR)
   {
   }
   if (output)
      *output = collected;
   return child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool TestNetns::isAvailable(std::string* reason)
{
   static std::string whyNot;
   static bool const available = []
   {
      std::string out;
      if (geteuid() != 0)
         whyNot = "network namespace tests need root (not running as root)";
      else if (runCommand({"ip", "-V"}, &out) != 0)
         whyNot = "network namespace tests need iproute2's 'ip' command";
      if (!whyNot.empty())
         return false;
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

TestNetns::TestNetns()
{
   static std::atomic<int> counter{0};
   myName = "olt" + std::to_string(getpid()) + "_" + std::to_string(++counter);
   if (!isAvailable(&myError))
      return;
   // A namespace of this name that we did not make is left over from an earlier
   // process with our (reused) pid that died before its tear-down.
   if (access(path().c_str(), F_OK) == 0)
      deleteNetns(myName);
   myCreated = run({"ip", "netns", "add", myName}, nullptr);
   myOk = myCreated && setLinkUp("lo");
}

// A crash leaves the namespace behind, for the next test process to sweep.
TestNetns::~TestNetns()
{
   if (myCreated)
      deleteNetns(myName);
}

std::string TestNetns::path() const
{
   return theNetnsDir + myName;
}

bool TestNetns::run(std::vector<std::string> const& argv, std::string* output)
{
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

bool TestNetns::ip(std::vector<std::string> const& args, std::string* output)
{
   std::vector<std::string> argv{"ip", "-n", myName};
   argv.insert(argv.end(), args.begin(), args.end());
   return run(argv, output);
}

bool TestNetns::exec(std::vector<std::string> const& argv, std::string* output)
{
   std::vector<std::string> full{"ip", "netns", "exec", myName};
   full.insert(full.end(), argv.begin(), argv.end());
   return run(full, output);
}

bool TestNetns::sh(std::string const& script, std::string* output)
{
   return exec({"sh", "-c", script}, output);
}

bool TestNetns::addVethPair(std::string const& end, std::string const& peerEnd)
{
   return ip({"link", "add", end, "type", "veth", "peer", "name", peerEnd});
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
   return exec({"cat", "/sys/class/net/" + device + "/ifindex"}, &out) ? atoi(out.c_str()) : 0;
}

NetnsGuard::NetnsGuard(TestNetns const& ns)
{
   mySavedNs = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
   int target = mySavedNs < 0 ? -1 : open(ns.path().c_str(), O_RDONLY | O_CLOEXEC);
   if (mySavedNs < 0)
      myError = std::string("cannot open this thread's namespace: ") + strerror(errno);
   else if (target < 0)
      myError = "cannot open " + ns.path() + ": " + strerror(errno);
   else if (setns(target, CLONE_NEWNET) != 0)
      myError = "setns into " + ns.name() + " failed: " + strerror(errno);
   else
      myOk = true;
   if (target >= 0)
      close(target);
}

NetnsGuard::~NetnsGuard()
{
   // A test thread left in a namespace about to vanish would poison every later
   // test.
   if (myOk && setns(mySavedNs, CLONE_NEWNET) != 0)
      abort();
   if (mySavedNs >= 0)
      close(mySavedNs);
}

int joinGroupSocket(std::string const& group, std::string const& device, std::string* error)
{
   bool const ipv6 = group.find(':') != std::string::npos;
   unsigned int index = if_nametoindex(device.c_str());
   int fd = index == 0 ? -1 : socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   std::string failed = index == 0 ? "no interface " + device : fd < 0 ? "socket" : "";
   if (failed.empty() && ipv6)
   {
      ipv6_mreq request{};
      request.ipv6mr_interface = index;
      if (inet_pton(AF_INET6, group.c_str(), &request.ipv6mr_multiaddr) != 1)
         failed = "bad group " + group;
      else if (setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request) != 0)
         failed = "IPV6_JOIN_GROUP " + group;
   }
   else if (failed.empty())
   {
      ip_mreqn request{};
      request.imr_ifindex = static_cast<int>(index);
      if (inet_pton(AF_INET, group.c_str(), &request.imr_multiaddr) != 1)
         failed = "bad group " + group;
      else if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0)
         failed = "IP_ADD_MEMBERSHIP " + group;
   }
   if (failed.empty())
      return fd;
   if (error)
      *error = failed + ": " + strerror(errno);
   if (fd >= 0)
      close(fd);
   return -1;
}

}  // namespace olt
