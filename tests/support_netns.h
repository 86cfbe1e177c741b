//===-- tests/support_netns.h - Network namespaces for tests ------*- C++ -*-===//
//
// Private network namespaces, so that tests of interfaces, sockets and DIS
// traffic see only the interfaces they made and send nothing off this machine:
//   olt::TestNetns ns;  ns.addVethPair("olta0", "oltb0");  ns.setLinkUp("olta0");
//   olt::NetnsGuard inside(ns);  // this thread is in the namespace until it ends
// NetnsGuard moves the calling thread only (setns). Sockets and ioctl follow the
// calling thread, but /proc/net follows the main thread, so a test that scans
// interfaces (if_inet6, igmp, igmp6) takes the guard on the main thread.
// Threads created while the guard is held start inside; join them before it ends.
// Commands run `ip` through fork/exec, each bounded by a 30 s timeout; failures
// come back through the result and error(), never by exception.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_TESTS_SUPPORT_NETNS_H
#define OLUTIL_TESTS_SUPPORT_NETNS_H

#include <string>
#include <vector>

namespace olt
{

/// Runs `argv` (argv[0] looked up in PATH) with a 30 s limit, collecting stdout
/// and stderr into *output. Returns the exit status, or -1 if it could not run.
int runCommand(std::vector<std::string> const& argv, std::string* output = nullptr);

/// One uniquely named namespace, removed with everything in it by the
/// destructor (or by a later test process after a crash).
class TestNetns
{
public:
   /// True when namespaces can be made here (root, iproute2, a probe namespace
   /// works); worked out once. *reason gets a text fit for GTEST_SKIP.
   static bool isAvailable(std::string* reason = nullptr);

   /// Creates "olt" + pid + "_" + counter with its loopback up. Check ok().
   TestNetns();
   ~TestNetns();
   TestNetns(TestNetns const&) = delete;
   TestNetns& operator=(TestNetns const&) = delete;

   bool ok() const { return myOk; }
   std::string const& error() const { return myError; }  ///< last failure
   std::string const& name() const { return myName; }
   std::string path() const;  ///< the namespace file, for setns

   /// `ip -n <name> args...`; true on exit status 0.
   bool ip(std::vector<std::string> const& args, std::string* output = nullptr);
   /// argv (or a shell script) run inside the namespace; true on exit status 0.
   bool exec(std::vector<std::string> const& argv, std::string* output = nullptr);
   bool sh(std::string const& script, std::string* output = nullptr);

   /// Both ends in this namespace, down until setLinkUp.
   bool addVethPair(std::string const& end, std::string const& peerEnd);
   /// No kernel IPv6 link-local address: the device carries only what a test
   /// adds. Call before the link goes up.
   bool disableLinkLocal(std::string const& device);
   /// "addr/len"; IPv6 (text with ':') is added with "nodad".
   bool addAddress(std::string const& device, std::string const& cidr);
   bool setLinkUp(std::string const& device, bool up = true);
   /// Kernel index of the device inside the namespace, or 0.
   int ifIndex(std::string const& device);

private:
   bool run(std::vector<std::string> const& argv, std::string* output);

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

/// Joins an IPv4 (a.b.c.d) or IPv6 group on `device` through a new UDP socket
/// of the calling thread's namespace; the membership lasts until the returned
/// descriptor is closed. -1 on failure, with *error set if given.
int joinGroupSocket(std::string const& group, std::string const& device,
                    std::string* error = nullptr);

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_NETNS_H
