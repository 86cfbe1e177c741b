// Private network namespaces for tests: they see only the interfaces they made
// and send nothing off this machine. NetnsGuard moves the calling thread only
// (setns), and /proc/net follows the main thread, so interface scans take it
// there; join threads made under the guard before it ends. Commands run `ip`
// with a 30 s limit and report failure through results and error().
#ifndef OLUTIL_TESTS_SUPPORT_NETNS_H
#define OLUTIL_TESTS_SUPPORT_NETNS_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetDevice.h>

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

/// Three hosts on one segment, two of them also on a second one, for traffic
/// between machines. Each host is a namespace ("olt<pid>_<n>") whose "olteth0" is
/// on the first segment (10.77.0.0/24, fd77::/64) and, for hosts 0 and 1, whose
/// "olteth1" is on the second (10.78.0.0/24, fd78::/64); host i has address i+1
/// on each. The segments are bridges without multicast snooping in a fourth
/// namespace, so nothing touches this machine's own interfaces. Every host sends
/// IPv4 and IPv6 multicast out of olteth0 unless a socket says otherwise. The
/// interfaces have no IPv6 link-local addresses. Removed by the destructor.
class TestHosts
{
public:
   static constexpr int theCount = 3;

   TestHosts();  ///< check ok(); skip with isAvailable()'s reason
   TestHosts(TestHosts const&) = delete;
   TestHosts& operator=(TestHosts const&) = delete;

   bool ok() const { return myOk; }
   std::string const& error() const { return myError; }
   TestNetns& host(int index) { return myHosts[index]; }

   static std::string device(int segment) { return "olteth" + std::to_string(segment); }
   /// Host `index`'s address on `segment`: "10.77.0.1", or "fd77::1" with ipv6.
   static std::string address(int index, int segment, bool ipv6 = false);

private:
   TestNetns mySwitch;  // declared first: the hosts' links go before the bridges
   TestNetns myHosts[theCount];
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

/// The IPv4 device `name` of this thread's namespace; null for "".
std::unique_ptr<DtInetDevice> ipv4Device(std::string const& name);

/// Counts each non-zero result of `read` until none has come for 0.3 s (10 s at most).
std::map<int, int> drain(std::function<int()> const& read);

/// Fixture with TestHosts (myHosts), skipped where namespaces cannot be made.
class HostsTest : public ::testing::Test
{
protected:
   void SetUp() override;

   std::unique_ptr<TestHosts> myHosts;
};

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_NETNS_H
