// Command-line and output helpers shared by the tools: options as "--name value"
// or "--name=value" (and file names, for a tool that takes them), read in one loop
// (help, flags, values), numbers with their bounds and the messages a bad option
// gets; destination and group texts turned into endpoints (with a netmask or
// prefix, and a failed host lookup reported instead of used); the library's
// notification streams moved off standard output; SIGINT and SIGTERM turned into
// a flag that the tools' loops test, and a wait that such a signal ends; the time
// of day for output lines.
#ifndef OLUTIL_TOOLS_TOOLARGS_H
#define OLUTIL_TOOLS_TOOLARGS_H

#include <arpa/inet.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <olutil/olInetAddr.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetEndpoint.h>
#include <olutil/olPrint.h>

namespace oltool
{

// Exit status of the tools: 1 when they ran and hit a problem (open, send or
// read failed), 2 for bad usage or an unusable input (an option, an address).
int const theExitProblem = 1;
int const theExitUsage = 2;

// A whole decimal number within [low, high]; false leaves `value` alone.
inline bool parseLong(char const* text, long low, long high, long& value)
{
   char* end = nullptr;
   errno = 0;
   long const v = std::strtol(text, &end, 10);
   if (!text[0] || *end || errno == ERANGE || v < low || v > high)
      return false;
   value = v;
   return true;
}

// A number of 0 or more, fractions allowed (rates, durations).
inline bool parseNonNegative(char const* text, double& value)
{
   char* end = nullptr;
   double const v = std::strtod(text, &end);
   if (!text[0] || *end || !(v >= 0) || v > 1e12)
      return false;
   value = v;
   return true;
}

// "on" or "off".
inline bool parseOnOff(char const* text, bool& value)
{
   if (std::strcmp(text, "on") != 0 && std::strcmp(text, "off") != 0)
      return false;
   value = std::strcmp(text, "on") == 0;
   return true;
}

// Reports an option the tool does not know, or a value it refused; always false,
// so that a parser can return it.
inline bool refuseOption(char const* tool, char const* option, char const* value, bool known)
{
   if (known)
      std::fprintf(stderr, "%s: bad value for %s: %s\n", tool, option, value);
   else
      std::fprintf(stderr, "%s: unknown option %s\n", tool, option);
   return false;
}

// Walks the arguments one option at a time. An option's value is the text after
// "=" in the same argument, or else the next argument.
//
//   for (oltool::OptionReader in("tool", argc, argv); in.next();)
//      if (in.name() == "--flag" && in.noValue()) ...
//      else if (char const* v = in.value()) ...
class OptionReader
{
public:
   OptionReader(char const* tool, int argc, char** argv) : myTool(tool), myArgc(argc), myArgv(argv)
   {
   }

   // Arguments that are not options (a file name; "-" among them) go to `sink`
   // from now on, instead of being refused.
   void acceptArguments(std::vector<std::string>& sink) { myArguments = &sink; }

   // Steps to the next option; false at the end, or (with a message) on an
   // argument that is not an option and is not accepted.
   bool next()
   {
      std::string arg;
      for (;;)
      {
         if (++myIndex >= myArgc || myFailed)
            return false;
         arg = myArgv[myIndex];
         bool const option = arg.compare(0, 2, "--") == 0 || arg == "-h";
         if (option)
            break;
         if (!myArguments)
         {
            std::fprintf(stderr, "%s: unexpected argument %s\n", myTool, arg.c_str());
            myFailed = true;
            return false;
         }
         myArguments->push_back(arg);
      }
      std::string::size_type const equals = arg.find('=');
      myName = arg.substr(0, equals);
      myHasInline = equals != std::string::npos;
      myInline = myHasInline ? arg.substr(equals + 1) : std::string();
      return true;
   }

   std::string const& name() const { return myName; }

   // The option's value, or null (with a message) when there is none.
   char const* value()
   {
      if (myHasInline)
         return myInline.c_str();
      if (myIndex + 1 >= myArgc)
      {
         std::fprintf(stderr, "%s: %s needs a value\n", myTool, myName.c_str());
         myFailed = true;
         return nullptr;
      }
      return myArgv[++myIndex];
   }

   // For options that take no value: false (with a message) when one was given.
   bool noValue()
   {
      if (!myHasInline)
         return true;
      std::fprintf(stderr, "%s: %s takes no value\n", myTool, myName.c_str());
      myFailed = true;
      return false;
   }

   // True once an argument was refused by next(), value() or noValue().
   bool failed() const { return myFailed; }

   // What a tool made of one option and its value.
   enum Verdict
   {
      Taken,
      BadValue,
      Unknown
   };
   static Verdict verdict(bool ok) { return ok ? Taken : BadValue; }

   // Reads the options to the end. "--help" or "-h" writes `usage` to standard
   // output and ends the program with 0; a name in `flags` takes no value and sets
   // its flag; any other option's value goes to `take(name, value)`, which returns
   // its Verdict. False, with the message, at the first option refused (a missing,
   // needless or bad value, an unknown name); true at the end, where failed() tells
   // of an argument that is no option.
   template <class Take>
   bool readAll(void (*usage)(std::FILE*),
                std::initializer_list<std::pair<char const*, bool*>> flags, Take take)
   {
      while (next())
      {
         if (myName == "--help" || myName == "-h")
         {
            usage(stdout);
            std::exit(0);
         }
         bool* flag = nullptr;
         for (auto const& f : flags)
            if (myName == f.first)
               flag = f.second;
         if (flag)
         {
            if (!noValue())
               return false;
            *flag = true;
            continue;
         }
         char const* const text = value();
         if (!text)
            return false;
         Verdict const v = take(myName, text);
         if (v != Taken)
            return refuseOption(myTool, myName.c_str(), text, v == BadValue);
      }
      return true;
   }

private:
   char const* myTool;
   int myArgc;
   char** myArgv;
   int myIndex = 0;
   bool myFailed = false;
   bool myHasInline = false;
   std::string myName;
   std::string myInline;
   std::vector<std::string>* myArguments = nullptr;
};

// The time now, broken down in local time or in UTC, and its milliseconds.
inline std::tm timeNow(bool utc, long& millis)
{
   using namespace std::chrono;
   system_clock::time_point const now = system_clock::now();
   std::time_t const seconds = system_clock::to_time_t(now);
   millis = static_cast<long>(duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000);
   std::tm broken{};
   if (utc)
      gmtime_r(&seconds, &broken);
   else
      localtime_r(&seconds, &broken);
   return broken;
}

// The time of day, local, to the millisecond: "14:03:07.250".
inline std::string clockText()
{
   long millis = 0;
   std::tm const local = timeNow(false, millis);
   char text[32];
   std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min,
                 local.tm_sec, millis);
   return text;
}

// Library texts may span lines ("...Boost socket\nAddress already in use"); a
// tool's message is one line.
inline std::string oneLine(std::string text)
{
   while (!text.empty() && text.back() == '\n')
      text.pop_back();
   for (char& c : text)
      if (c == '\n')
         c = ' ';
   return text;
}

// An address with a netmask ("255.255.255.0", IPv4 only) or a prefix length
// ("24"; up to 128 for IPv6). The address text alone would take its class's mask
// (10.77.0.255 is then a host in 10.0.0.0/8, not a broadcast address), and the
// endpoint's own text parser does not apply a numeric prefix, so both are applied
// here. A prefix of 0 is refused: the address rules replace a zero mask by the
// class's mask.
inline bool addressWithMask(std::string const& host, std::string const& mask,
                            std::unique_ptr<DtInetAddr>& address, std::string& error)
{
   in_addr v4{};
   in6_addr v6{};
   std::string bare = host;
   std::string::size_type const zone = bare.find('%');
   if (zone != std::string::npos)
      bare.erase(zone);
   bool const isV4 = inet_pton(AF_INET, host.c_str(), &v4) == 1;
   bool const isV6 = !isV4 && inet_pton(AF_INET6, bare.c_str(), &v6) == 1;
   if (!isV4 && !isV6)
   {
      error = "a netmask or prefix needs a numeric address: " + host;
      return false;
   }
   long prefix = 0;
   unsigned int netmask = 0;
   if (mask.find('.') != std::string::npos)
   {
      in_addr m{};
      if (!isV4 || inet_pton(AF_INET, mask.c_str(), &m) != 1)
      {
         error = "bad netmask " + mask;
         return false;
      }
      netmask = ntohl(m.s_addr);
      // Contiguous leading ones only.
      if (netmask == 0 || (~netmask & (~netmask + 1)) != 0)
      {
         error = "bad netmask " + mask;
         return false;
      }
   }
   else if (parseLong(mask.c_str(), 1, isV4 ? 32 : 128, prefix))
      netmask = isV4 ? DtInetUtils::prefixLenToIpv4Netmask(static_cast<unsigned int>(prefix)) : 0;
   else
   {
      error = "bad prefix length " + mask + " (1 to " + (isV4 ? "32" : "128") + ")";
      return false;
   }
   if (isV4)
      address.reset(new DtInetAddr(ntohl(v4.s_addr), netmask));
   else
   {
      address.reset(new DtInetAddr(host.c_str()));
      address->setPrefixLen(static_cast<unsigned long>(prefix));
   }
   return true;
}

// The endpoint for a destination or group text: an address, optionally with
// "/MASK" or "/PREFIX"; an interface name (its address); or a host name, resolved
// once here. The port goes with --port: a text with a port of its own is refused,
// since the endpoint would ignore it. Null, with a one-line reason in `error`,
// when the text is unusable or its lookup failed: a failed lookup leaves the
// endpoint with an address that must not be sent to.
inline std::unique_ptr<DtInetEndpoint> makeEndpoint(std::string const& text, unsigned short port,
                                                    std::string& error)
{
   std::unique_ptr<DtInetEndpoint> endpoint;
   if (text.empty())
   {
      error = "empty address";
      return endpoint;
   }
   try
   {
      std::string::size_type const slash = text.rfind('/');
      if (slash != std::string::npos)
      {
         std::unique_ptr<DtInetAddr> address;
         if (addressWithMask(text.substr(0, slash), text.substr(slash + 1), address, error))
            endpoint.reset(new DtInetEndpoint(*address, port, DtInetProtocolUdp));
         return endpoint;
      }
      // Digits and dots that are no address ("10.0.0.300") are a mistake, not a
      // host name, and go to no name server.
      in_addr v4{};
      if (text.find_first_not_of("0123456789.") == std::string::npos &&
          inet_pton(AF_INET, text.c_str(), &v4) != 1)
      {
         error = "not an IPv4 address";
         return endpoint;
      }
      DtString host, portOrMask;
      int kind = 0;
      DtInetUtils::parseNetResLoc(DtString(text.c_str()), host, portOrMask, kind);
      if (kind == 1)
      {
         error = "give the port with --port, not in the address: " + text;
         return endpoint;
      }
      endpoint.reset(new DtInetEndpoint(DtString(text.c_str()), port, DtInetProtocolUdp,
                                        DtInetUtils::DtInetFamilyNone));
      if (!endpoint->isOk())
      {
         error = oneLine(endpoint->getLastErrorString().c_str());
         endpoint.reset();
      }
   }
   catch (...)
   {
      // A numeric-looking text that is no address, such as "10.0.0.300".
      error = "bad address " + text;
      endpoint.reset();
   }
   return endpoint;
}

// A hint for an IPv4 address that looks like a broadcast address but, given
// without its mask, is a host under its class's mask ("10.77.0.255").
inline void hintAtMissingMask(char const* tool, std::string const& text,
                              DtInetEndpoint const& endpoint)
{
   DtInetAddr const& address = endpoint.address();
   if (text.find('/') == std::string::npos && address.isIPv4() && !address.isMulticast() &&
       !address.isBroadcast() && (address.toULong() & 0xFF) == 0xFF)
      std::fprintf(stderr,
                   "%s: note: %s is taken as a host address under its class's mask /%lu; for "
                   "broadcast give the network's mask or prefix, e.g. %s/24\n",
                   tool, text.c_str(), address.prefix(), text.c_str());
}

// Takes the console's place on the notification streams, so that the library's
// messages go to standard error and never mix with a tool's data. Warnings
// (DtWarn, DtFatal) are counted by complete line; each is written unless
// `echoRepeats` is false, when only the first line of each text is written.
class NotificationToStderr : public DtPrinter
{
public:
   NotificationToStderr(char const* tool, bool echoRepeats) : myTool(tool), myEcho(echoRepeats)
   {
      for (DtOutputStream* stream : theStreams)
      {
         stream->detachPrinter(&DtStandardOutConsole);
         stream->attachPrinter(this);
      }
   }
   ~NotificationToStderr() override
   {
      for (DtOutputStream* stream : theStreams)
      {
         stream->detachPrinter(this);
         stream->attachPrinter(&DtStandardOutConsole);
      }
   }
   NotificationToStderr(NotificationToStderr const&) = delete;
   NotificationToStderr& operator=(NotificationToStderr const&) = delete;

   void write(std::string const& text, int level, bool lineComplete) override
   {
      myLine += text;
      if (!lineComplete)
         return;
      bool const warning = level <= DtWarn.threshold();
      bool echo = true;
      if (warning)
      {
         ++myWarnings;
         bool const first = mySeenTexts.insert(myLine).second;
         echo = myEcho || first;
         if (first && !myEcho)
            myLine.insert(myLine.size() - 1, " (repeats are counted in the summary)");
      }
      if (echo)
         std::fprintf(stderr, "%s: %s%s", myTool, warning ? "warning: " : "", myLine.c_str());
      myLine.clear();
   }

   long warnings() const { return myWarnings; }

private:
   static inline DtOutputStream* const theStreams[] = {&DtFatal, &DtWarn, &DtInfo, &DtVerbose,
                                                       &DtDebug};

   char const* myTool;
   bool myEcho;
   long myWarnings = 0;
   std::string myLine;
   std::set<std::string> mySeenTexts;
};

// Set by SIGINT or SIGTERM; the tools' loops test it and end with their summary.
// A second signal takes the default action, so a stuck tool can still be stopped.
inline volatile std::sig_atomic_t theInterrupted = 0;

inline void onInterrupt(int)
{
   theInterrupted = 1;
}

inline void catchInterrupts()
{
   struct sigaction action;
   std::memset(&action, 0, sizeof action);
   action.sa_handler = onInterrupt;
   action.sa_flags = SA_RESETHAND;  // no SA_RESTART: a wait in poll() ends at once
   sigemptyset(&action.sa_mask);
   sigaction(SIGINT, &action, nullptr);
   sigaction(SIGTERM, &action, nullptr);
}

// Sleeps until `when`, in steps short enough to notice an interrupt, calling
// `tick` at each; false when interrupted.
template <class Tick>
bool waitUntil(std::chrono::steady_clock::time_point when, Tick tick)
{
   while (!theInterrupted)
   {
      tick();
      auto const now = std::chrono::steady_clock::now();
      if (now >= when)
         return true;
      std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
          when - now, std::chrono::milliseconds(100)));
   }
   return false;
}

inline bool waitUntil(std::chrono::steady_clock::time_point when)
{
   return waitUntil(when, [] {});
}

// The options a tool runs with, read by `parse`; when they are refused, the usage
// goes to standard error and the program ends with theExitUsage.
template <class Options>
Options optionsOrExit(int argc, char** argv, bool (*parse)(int, char**, Options&),
                      void (*usage)(std::FILE*))
{
   Options options;
   if (!parse(argc, argv, options))
   {
      usage(stderr);
      std::exit(theExitUsage);
   }
   return options;
}

}  // namespace oltool

#endif  // OLUTIL_TOOLS_TOOLARGS_H
