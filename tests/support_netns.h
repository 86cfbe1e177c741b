//===-- tests/support_netns.h - Network namespaces for tests ------*- C++ -*-===//
//
// Test support: private network namespaces, so that tests of interfaces,
// sockets and DIS traffic see only the interfaces they made and send nothing
// off this machine.
//
//   olt::TestNetns ns;                      // "olt<pid>_<n>", removed in ~TestNetns
//   if (!ns.ok()) GTEST_SKIP() << ns.error();
//   ns.addVethPair("olta0", "oltb0");
//   ns.addAddress("olta0", "192.0.2.1/24");
//   ns.addAddress("olta0", "2001:db8::1/64");  // IPv6 gets "nodad": usable at once
//   ns.setLinkUp("olta0"); ns.setLinkUp("oltb0");
//   {
//      olt::NetnsGuard inside(ns);          // this thread is in the namespace...
//      ASSERT_TRUE(inside.ok()) << inside.error();
//      ... scan interfaces, open sockets ...
//   }                                       // ...and back in its own one here
//
// Two "hosts": make two TestNetns and join them with addVethPeer.
//
// Threads and /proc/net: NetnsGuard moves the calling thread only (setns).
// Sockets and ioctl follow the calling thread's namespace, but /proc/net/*
// (that is /proc/self/net) follows the namespace of the thread-group leader,
// the main thread. GoogleTest runs tests on the main thread, so a test that
// reads /proc/net (interface scans: if_inet6, igmp, igmp6) must take the guard
// on the main thread. Threads created while the guard is held start inside the
// namespace; threads created before it stay outside. Join every thread started
// inside before the guard ends.
//
// Every helper here is for tests only: it runs `ip` through fork/exec (no
// shell unless asked, every command bounded by a 30 s timeout) and reports
// failure through its result and error(), never by exception.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_TESTS_SUPPORT_NETNS_H
#define OLUTIL_TESTS_SUPPORT_NETNS_H

#include <string>
#include <vector>

namespace olt
{

/// Runs `argv` (argv[0] looked up in PATH) with a 30 s limit, collecting
/// stdout and stderr into *output if given. Returns the exit status, or -1 when
/// the program could not be run.
int runCommand(std::vector<std::string> const& argv, std::string* output = nullptr);

/// One uniquely named network namespace, created by the constructor and
/// removed, with everything in it, by the destructor (and at process exit, or
/// by a later test process, if the destructor never ran).
class TestNetns
{
public:
   /// True when namespaces can be made here (root, iproute2, a probe
   /// namespace could be added and deleted). The result is worked out once;
   /// *reason receives a text fit for GTEST_SKIP when it is false.
   static bool isAvailable(std::string* reason = nullptr);

   /// Creates "olt" + pid + "_" + counter with its loopback up. Check ok().
   TestNetns();
   ~TestNetns();
   TestNetns(TestNetns const&) = delete;
   TestNetns& operator=(TestNetns const&) = delete;

   bool ok() const { return myOk; }
   /// Text of the last failure (a skip message if namespaces are unavailable).
   std::string const& error() const { return myError; }
   std::string const& name() const { return myName; }
   /// Path of the namespace file, usable with setns.
   std::string path() const;

   /// `ip -n <name> args...`; true on exit status 0.
   bool ip(std::vector<std::string> const& args, std::string* output = nullptr);
   /// Runs argv inside the namespace (`ip netns exec`); true on exit status 0.
   bool exec(std::vector<std::string> const& argv, std::string* output = nullptr);
   /// Runs a shell script inside the namespace; true on exit status 0.
   bool sh(std::string const& script, std::string* output = nullptr);

   /// A veth pair with both ends in this namespace (down until setLinkUp).
   bool addVethPair(std::string const& end, std::string const& peerEnd);
   /// A veth pair with `end` here and `peerEnd` in `peer`: two hosts on one link.
   bool addVethPeer(std::string const& end, TestNetns& peer, std::string const& peerEnd);
   /// Stops the kernel from giving the device an IPv6 link-local address of its
   /// own, so that it carries only the addresses a test adds. Call before up.
   bool disableLinkLocal(std::string const& device);
   /// "addr/len"; an IPv6 address (text with ':') is added with "nodad".
   bool addAddress(std::string const& device, std::string const& cidr);
   bool setLinkUp(std::string const& device, bool up = true);
   /// Kernel index of the device inside the namespace, or 0.
   int ifIndex(std::string const& device);
   /// Removes the namespace now; the destructor then does nothing.
   void remove();

private:
   bool fail(std::string const& what, std::string const& output);

   std::string myName;
   bool myOk;
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
   int mySavedNs;
   bool myOk;
   std::string myError;
};

/// Joins an IPv4 (a.b.c.d) or IPv6 group on `device` through a new UDP socket
/// of the calling thread's namespace; the membership lasts until the returned
/// descriptor is closed. -1 on failure, with *error set if given.
int joinGroupSocket(std::string const& group, std::string const& device,
                    std::string* error = nullptr);

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_NETNS_H
