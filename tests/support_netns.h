// Private network namespaces for tests: they see only the interfaces they made
// and send nothing off this machine. NetnsGuard moves the calling thread only
// (setns), and /proc/net follows the main thread, so interface scans take it
// there; join threads made under the guard before it ends. Commands run `ip`
// with a 30 s limit and report failure through results and error().
#ifndef OLUTIL_TESTS_SUPPORT_NETNS_H
#define OLUTIL_TESTS_SUPPORT_NETNS_H

#include <functional>
#include <string>
#include <vector>

namespace olt
{

using Args = std::vector<std::string>;

/// Runs argv (PATH lookup); output gets stdout and stderr. Exit status or -1.
int runCommand(Args const& argv, std::string* output = nullptr);

/// A unique namespace, deleted by the destructor (after a crash, by the next run).
class TestNetns
{
public:
   /// Root, iproute2 and a working probe namespace; *reason suits GTEST_SKIP.
   static bool isAvailable(std::string* reason = nullptr);

   TestNetns();  ///< "olt<pid>_<n>" with loopback up; check ok()
   ~TestNetns();
   TestNetns(TestNetns const&) = delete;
   TestNetns& operator=(TestNetns const&) = delete;

   bool ok() const { return myOk; }
   std::string const& error() const { return myError; }  ///< last failure
   std::string const& name() const { return myName; }
   std::string path() const { return "/run/netns/" + myName; }

   // `ip -n <name> args`, argv or a script run inside; true on status 0.
   bool ip(Args const& a, std::string* out = nullptr) { return run({"ip", "-n", myName}, a, out); }
   bool exec(Args const& a, std::string* out = nullptr)
   {
      return run({"ip", "netns", "exec", myName}, a, out);
   }
   bool sh(std::string const& script, std::string* out = nullptr)
   {
      return exec({"sh", "-c", script}, out);
   }

   bool addVethPair(std::string const& end, std::string const& peer)  ///< both ends down
   {
      return ip({"link", "add", end, "type", "veth", "peer", "name", peer});
   }
   /// No IPv6 link-local address; call before the link goes up.
   bool disableLinkLocal(std::string const& dev)
   {
      return ip({"link", "set", "dev", dev, "addrgenmode", "none"});
   }
   bool addAddress(std::string const& dev, std::string const& cidr)  ///< IPv6 without DAD
   {
      if (cidr.find(':') == std::string::npos)
         return ip({"address", "add", cidr, "dev", dev});
      return ip({"-6", "address", "add", cidr, "dev", dev, "nodad"});
   }
   bool setLinkUp(std::string const& dev, bool up = true)
   {
      return ip({"link", "set", dev, up ? "up" : "down"});
   }
   int ifIndex(std::string const& dev);  ///< 0 if unknown

private:
   bool run(Args argv, Args const& more, std::string* output);

   std::string myName;
   bool myCreated = false;
   bool myOk = false;
   std::string myError;
};

/// Moves the calling thread into a namespace for its lifetime and back after.
class NetnsGuard
{
public:
   explicit NetnsGuard(TestNetns const& ns);
   ~NetnsGuard();
   NetnsGuard(NetnsGuard const&) = delete;
   NetnsGuard& operator=(NetnsGuard const&) = delete;

   bool ok() const { return myOk; }
   std::string const& error() const { return myError; }

private:
   int mySavedNs = -1;
   bool myOk = false;
   std::string myError;
};

/// Joins an IPv4 or IPv6 group on `device` with a new UDP socket of this
/// thread's namespace, held until the descriptor is closed; -1 on failure.
int joinGroupSocket(std::string const& group, std::string const& device,
                    std::string* error = nullptr);

/// Runs `body` on the calling thread inside a fresh namespace with loopback alone,
/// where nothing can leave the machine and a name lookup fails at once. False, with
/// *reason, when no namespace can be made (body not run).
bool runIsolated(std::function<void()> const& body, std::string* reason = nullptr);

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_NETNS_H
