// oldis-send: sends synthetic but well-formed DIS PDUs through DtDisSocket: a
// number of entities moving on circles, their Entity State PDUs, and Fire,
// Detonation, Collision and coupled Attribute PDUs among them.
//
//   oldis-send [--dest ADDR[/PREFIX]] [--port N] [--count N] [--rate N]
//              [--version 6|7] [--exercise N] [--kind K] [--entities N]
//              [--timestamp absolute|relative] [--bundle MAX] [--align N]
//              [--ttl N] [--interface NAME] [--loopback on|off] [--suppress] [--help]
//
// Ends with one line: "sent N PDUs in M datagrams to ADDR:PORT in S s".
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <boost/asio/ip/multicast.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/ip/unicast.hpp>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>
#include <olutil/olInetDevice.h>
#include <olutil/olTime.h>

#include "toolArgs.h"
#include "toolSockets.h"

namespace
{
using oltool::CountingDisSocket;
using oltool::parseLong;
char const* const theTool = "oldis-send";
using oltool::theDefaultPort;

struct Options
{
   std::string dest = "127.0.0.1";
   unsigned short port = theDefaultPort;
   long count = 100;
   double rate = 1000.0;
   int version = 7;
   int exercise = 1;
   std::string kind = "es";
   long entities = 10;
   bool absoluteTime = true;
   int bundle = 0;
   long align = -1;  // -1: by version
   long ttl = -1;    // -1: the system's default
   std::string interfaceName;
   int loopback = -1;  // -1: the system's default (on)
   bool suppress = false;
};

void usage(FILE* out)
{
   std::fprintf(
       out,
       "usage: oldis-send [options]\n"
       "Sends synthetic DIS PDUs to a UDP destination: --entities entities moving on\n"
       "circles, with real time stamps and ASCII markings.\n"
       "  --dest ADDR       destination: an address, ADDR/PREFIX or ADDR/NETMASK (a\n"
       "                    broadcast address needs its mask: 10.77.0.255/24), an\n"
       "                    interface name or a host name (default 127.0.0.1)\n"
       "  --port N          destination port (default %u)\n"
       "  --count N         PDUs to send (default 100)\n"
       "  --rate N          PDUs per second, 0 for as fast as possible (default 1000)\n"
       "  --version 6|7     DIS protocol version (default 7)\n"
       "  --exercise N      exercise id (default 1)\n"
       "  --kind K          es (Entity State, 144 bytes), fire (96), detonation (104),\n"
       "                    collision (60), attr (Entity State with a coupled Attribute\n"
       "                    PDU behind it, 144 + 56 bytes, sent as one), or mix (default es)\n"
       "  --entities N      distinct entities, 1 to 65534 (default 10)\n"
       "  --timestamp T     absolute (time within the UTC hour) or relative (since the\n"
       "                    start) (default absolute)\n"
       "  --bundle MAX      bundle PDUs into datagrams of at most MAX bytes (default 0: off)\n"
       "  --align N         byte alignment of PDUs in a bundle (default 1 for version 6,\n"
       "                    8 for version 7, as receivers read them)\n"
       "  --ttl N           time to live (hop limit) of what is sent, 1 to 255; the\n"
       "                    system's default for multicast is 1, which crosses no router\n"
       "  --interface NAME  outgoing interface (for multicast, and the source address)\n"
       "  --loopback on|off multicast copies to this host's receivers (default: on)\n"
       "  --suppress        send from a separate socket (self-reflect suppression); its\n"
       "                    address is that of --interface or of the interface found for\n"
       "                    a multicast or broadcast destination\n"
       "  --help            this text\n"
       "To a multicast group the sender binds the destination port and joins the group,\n"
       "as every DtDisSocket does, so it also receives the group's traffic (unread); to a\n"
       "broadcast address it binds the destination port too.\n",
       theDefaultPort);
}

bool parse(int argc, char** argv, Options& options)
{
   auto const take = [&](std::string const& arg, char const* value)
   {
      long number = 0;
      bool ok = true;
      bool on = false;
      if (arg == "--dest")
         options.dest = value;
      else if (arg == "--port" && (ok = parseLong(value, 1, 65535, number)))
         options.port = static_cast<unsigned short>(number);
      else if (arg == "--count" && (ok = parseLong(value, 0, 100000000, number)))
         options.count = number;
      else if (arg == "--rate")
         ok = oltool::parseNonNegative(value, options.rate);
      else if (arg == "--version" && (ok = parseLong(value, 6, 7, number)))
         options.version = static_cast<int>(number);
      else if (arg == "--exercise" && (ok = parseLong(value, 0, 255, number)))
         options.exercise = static_cast<int>(number);
      else if (arg == "--kind")
      {
         options.kind = value;
         ok = options.kind == "es" || options.kind == "fire" || options.kind == "detonation" ||
              options.kind == "collision" || options.kind == "attr" || options.kind == "mix";
      }
      else if (arg == "--entities")
         ok = parseLong(value, 1, 65534, options.entities);
      else if (arg == "--timestamp")
      {
         ok = std::strcmp(value, "absolute") == 0 || std::strcmp(value, "relative") == 0;
         options.absoluteTime = std::strcmp(value, "absolute") == 0;
      }
      else if (arg == "--bundle" && (ok = parseLong(value, 0, 65507, number)))
         options.bundle = static_cast<int>(number);
      else if (arg == "--align" && (ok = parseLong(value, 0, 1024, number)))
      {
         options.align = number;
         ok = (number & (number - 1)) == 0;
      }
      else if (arg == "--ttl")
         ok = parseLong(value, 1, 255, options.ttl);
      else if (arg == "--interface")
         options.interfaceName = value;
      else if (arg == "--loopback" && (ok = oltool::parseOnOff(value, on)))
         options.loopback = on ? 1 : 0;
      else if (ok)
         return oltool::OptionReader::Unknown;
      return oltool::OptionReader::verdict(ok);
   };
   oltool::OptionReader in(theTool, argc, argv);
   return in.readAll(usage, {{"--suppress", &options.suppress}}, take) && !in.failed();
}

// ------------------------------------------------------------------ PDU bytes

class PduWriter
{
public:
   explicit PduWriter(std::vector<char>& pdu) : myPdu(pdu) {}

   void put8(std::size_t at, unsigned int value) { myPdu[at] = static_cast<char>(value & 0xFF); }
   void put16(std::size_t at, unsigned int value)
   {
      put8(at, value >> 8);
      put8(at + 1, value);
   }
   void put32(std::size_t at, unsigned long value)
   {
      put16(at, static_cast<unsigned int>((value >> 16) & 0xFFFF));
      put16(at + 2, static_cast<unsigned int>(value & 0xFFFF));
   }
   void putFloat(std::size_t at, double value)
   {
      float const f = static_cast<float>(value);
      std::uint32_t bits = 0;
      std::memcpy(&bits, &f, sizeof bits);
      put32(at, bits);
   }
   void putDouble(std::size_t at, double value)
   {
      std::uint64_t bits = 0;
      std::memcpy(&bits, &value, sizeof bits);
      put32(at, static_cast<unsigned long>(bits >> 32));
      put32(at + 4, static_cast<unsigned long>(bits & 0xFFFFFFFFu));
   }
   void putVector(std::size_t at, double x, double y, double z, bool asDouble)
   {
      std::size_t const step = asDouble ? 8 : 4;
      double const values[] = {x, y, z};
      for (std::size_t i = 0; i < 3; ++i)
         asDouble ? putDouble(at + i * step, values[i]) : putFloat(at + i * step, values[i]);
   }
   // Site, application, entity (or event) number.
   void putId(std::size_t at, unsigned int site, unsigned int application, unsigned int number)
   {
      put16(at, site);
      put16(at + 2, application);
      put16(at + 4, number);
   }
   // kind, domain, country (16 bits), category, subcategory, specific, extra.
   void putType(std::size_t at, unsigned char const (&type)[7])
   {
      put8(at, type[0]);
      put8(at + 1, type[1]);
      put16(at + 2, type[2]);
      for (std::size_t i = 3; i < 7; ++i)
         put8(at + i + 1, type[i]);
   }

private:
   std::vector<char>& myPdu;
};

// PDU kinds (the PDU type field) and their protocol families.
enum PduKind : unsigned int
{
   KindEntityState = 1,
   KindFire = 2,
   KindDetonation = 3,
   KindCollision = 4,
   KindAttribute = 72
};
unsigned int const theFamilyEntityInformation = 1;
unsigned int const theFamilyWarfare = 2;

struct Vec3
{
   double x, y, z;
};

double const thePi = 3.14159265358979323846;
double const theDegree = thePi / 180.0;

// WGS84 geodetic latitude and longitude (degrees) and height (m) to geocentric
// (earth-centred, earth-fixed) metres, the DIS world coordinates.
Vec3 geocentric(double latitude, double longitude, double height)
{
   double const a = 6378137.0;
   double const f = 1.0 / 298.257223563;
   double const e2 = f * (2.0 - f);
   double const lat = latitude * theDegree;
   double const lon = longitude * theDegree;
   double const n = a / std::sqrt(1.0 - e2 * std::sin(lat) * std::sin(lat));
   return {(n + height) * std::cos(lat) * std::cos(lon),
           (n + height) * std::cos(lat) * std::sin(lon), (n * (1.0 - e2) + height) * std::sin(lat)};
}

// A local east, north, up vector at (latitude, longitude) in geocentric axes.
Vec3 localToGeocentric(double latitude, double longitude, Vec3 enu)
{
   double const sinLat = std::sin(latitude * theDegree), cosLat = std::cos(latitude * theDegree);
   double const sinLon = std::sin(longitude * theDegree), cosLon = std::cos(longitude * theDegree);
   return {-sinLon * enu.x - sinLat * cosLon * enu.y + cosLat * cosLon * enu.z,
           cosLon * enu.x - sinLat * sinLon * enu.y + cosLat * sinLon * enu.z,
           cosLat * enu.y + sinLat * enu.z};
}

// Where the entities circle: a point on the coast of California.
double const theCentreLatitude = 36.6;
double const theCentreLongitude = -121.9;

struct EntityKind
{
   unsigned char type[7];  // country 225: the United States
   char const* name;
   double height;  // m above the ellipsoid
   double speed;   // m/s
};

EntityKind const theEntityKinds[] = {
    {{1, 1, 225, 1, 1, 3, 0}, "tank", 0.0, 10.0},
    {{1, 1, 225, 2, 1, 1, 0}, "fighting vehicle", 0.0, 12.0},
    {{1, 2, 225, 1, 3, 0, 0}, "fighter aircraft", 3000.0, 200.0},
    {{1, 3, 225, 6, 1, 0, 0}, "frigate", 0.0, 8.0},
};
unsigned char const theMunitionType[7] = {2, 9, 225, 2, 1, 1, 0};

// Entity i of N moves on a circle of its own around the centre.
struct EntityMotion
{
   Vec3 location;
   Vec3 velocity;
};

EntityMotion motionOf(long entity, double seconds)
{
   EntityKind const& kind = theEntityKinds[entity % 4];
   double const radius = 300.0 + 40.0 * static_cast<double>(entity);
   double const angle = 0.7 * static_cast<double>(entity) + kind.speed / radius * seconds;
   Vec3 const offset{radius * std::cos(angle), radius * std::sin(angle), 0.0};
   Vec3 const speed{-kind.speed * std::sin(angle), kind.speed * std::cos(angle), 0.0};
   Vec3 const centre = geocentric(theCentreLatitude, theCentreLongitude, kind.height);
   Vec3 const shift = localToGeocentric(theCentreLatitude, theCentreLongitude, offset);
   return {{centre.x + shift.x, centre.y + shift.y, centre.z + shift.z},
           localToGeocentric(theCentreLatitude, theCentreLongitude, speed)};
}

// What every PDU of one run shares.
struct Sender
{
   int version;
   int exercise;
   unsigned int site;
   unsigned int application;
   long entities;
   bool absoluteTime;
   std::chrono::steady_clock::time_point start;
   unsigned int nextEvent = 1;
};

unsigned int entityNumber(long entity)
{
   return static_cast<unsigned int>(entity + 1);
}

std::vector<char> header(Sender const& sender, unsigned int kind, unsigned int family,
                         std::size_t size)
{
   std::vector<char> pdu(size, 0);
   PduWriter w(pdu);
   w.put8(0, static_cast<unsigned int>(sender.version));
   w.put8(1, static_cast<unsigned int>(sender.exercise));
   w.put8(2, kind);
   w.put8(3, family);
   double const now =
       sender.absoluteTime
           ? DtAbsRealTime()
           : std::chrono::duration<double>(std::chrono::steady_clock::now() - sender.start).count();
   DtNetTimeStamp const stamp(now, sender.absoluteTime ? DtTimeStampAbsolute : DtTimeStampRelative);
   w.put32(4, static_cast<unsigned int>(stamp));
   w.put16(8, static_cast<unsigned int>(size));
   return pdu;
}

double secondsSinceStart(Sender const& sender)
{
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - sender.start).count();
}

// Entity State: 144 bytes with no variable parameters.
std::vector<char> entityState(Sender const& sender, long entity)
{
   std::vector<char> pdu = header(sender, KindEntityState, theFamilyEntityInformation, 144);
   PduWriter w(pdu);
   EntityKind const& kind = theEntityKinds[entity % 4];
   EntityMotion const motion = motionOf(entity, secondsSinceStart(sender));
   w.putId(12, sender.site, sender.application, entityNumber(entity));
   w.put8(18, 1 + static_cast<unsigned int>(entity % 2));  // force: friendly, opposing
   w.put8(19, 0);                                          // no variable parameters
   w.putType(20, kind.type);
   w.putType(28, kind.type);  // alternative entity type
   w.putVector(36, motion.velocity.x, motion.velocity.y, motion.velocity.z, false);
   w.putVector(48, motion.location.x, motion.location.y, motion.location.z, true);
   w.put8(88, 2);   // dead reckoning: fixed orientation, rate of position, world coordinates
   w.put8(128, 1);  // marking character set: ASCII
   char marking[12];
   std::snprintf(marking, sizeof marking, "OLDIS %u", entityNumber(entity));
   std::memcpy(pdu.data() + 129, marking, std::strlen(marking));
   return pdu;
}

long targetOf(Sender const& sender, long entity)
{
   return sender.entities > 1 ? (entity + 1) % sender.entities : entity;
}

// Fire: 96 bytes.
std::vector<char> fire(Sender& sender, long entity)
{
   std::vector<char> pdu = header(sender, KindFire, theFamilyWarfare, 96);
   PduWriter w(pdu);
   double const seconds = secondsSinceStart(sender);
   EntityMotion const shooter = motionOf(entity, seconds);
   EntityMotion const target = motionOf(targetOf(sender, entity), seconds);
   Vec3 const line{target.location.x - shooter.location.x, target.location.y - shooter.location.y,
                   target.location.z - shooter.location.z};
   double const range = std::sqrt(line.x * line.x + line.y * line.y + line.z * line.z);
   double const scale = range > 0 ? 1000.0 / range : 0.0;  // a 1000 m/s round
   w.putId(12, sender.site, sender.application, entityNumber(entity));
   w.putId(18, sender.site, sender.application, entityNumber(targetOf(sender, entity)));
   w.putId(24, sender.site, sender.application, 0);  // an expendable munition: no entity
   w.putId(30, sender.site, sender.application, sender.nextEvent++);
   w.put32(36, 0);  // fire mission index
   w.putVector(40, shooter.location.x, shooter.location.y, shooter.location.z, true);
   w.putType(64, theMunitionType);
   w.put16(72, 1000);  // warhead: high explosive
   w.put16(74, 1000);  // fuse: contact
   w.put16(76, 1);     // quantity
   w.put16(78, 0);     // rate
   w.putVector(80, line.x * scale, line.y * scale, line.z * scale, false);
   w.putFloat(92, range);
   return pdu;
}

// Detonation: 104 bytes with no variable parameters; at the target, on it.
std::vector<char> detonation(Sender& sender, long entity)
{
   std::vector<char> pdu = header(sender, KindDetonation, theFamilyWarfare, 104);
   PduWriter w(pdu);
   EntityMotion const target = motionOf(targetOf(sender, entity), secondsSinceStart(sender));
   w.putId(12, sender.site, sender.application, entityNumber(entity));
   w.putId(18, sender.site, sender.application, entityNumber(targetOf(sender, entity)));
   w.putId(24, sender.site, sender.application, 0);
   w.putId(30, sender.site, sender.application, sender.nextEvent++);
   w.putVector(36, 0.0, 0.0, -300.0, false);
   w.putVector(48, target.location.x, target.location.y, target.location.z, true);
   w.putType(72, theMunitionType);
   w.put16(80, 1000);
   w.put16(82, 1000);
   w.put16(84, 1);
   w.put16(86, 0);
   w.putVector(88, 0.0, 0.0, 0.5, false);  // location on the target's body
   w.put8(100, 1);                         // result: entity impact
   w.put8(101, 0);                         // no variable parameters
   return pdu;
}

// Collision: 60 bytes, so that bundles carry padding.
std::vector<char> collision(Sender& sender, long entity)
{
   std::vector<char> pdu = header(sender, KindCollision, theFamilyEntityInformation, 60);
   PduWriter w(pdu);
   EntityMotion const issuer = motionOf(entity, secondsSinceStart(sender));
   w.putId(12, sender.site, sender.application, entityNumber(entity));
   w.putId(18, sender.site, sender.application, entityNumber(targetOf(sender, entity)));
   w.putId(24, sender.site, sender.application, sender.nextEvent++);
   w.put8(30, 1);  // collision type: elastic
   w.putVector(32, issuer.velocity.x, issuer.velocity.y, issuer.velocity.z, false);
   w.putFloat(44, 60000.0);                // mass, kg
   w.putVector(48, 2.0, 0.0, 0.0, false);  // where on the issuer
   return pdu;
}

// An Entity State PDU with bit 0x08 of its status byte set and an Attribute PDU
// of 56 bytes (one record set of one 16-byte record) right behind it: receivers
// hand out the two as one PDU. 144 is a multiple of 8, so no padding lies between.
std::vector<char> entityStateWithAttribute(Sender& sender, long entity)
{
   std::vector<char> pdu = entityState(sender, entity);
   pdu[10] = static_cast<char>(pdu[10] | DtDisCoupledPduBit);
   std::vector<char> attribute = header(sender, KindAttribute, theFamilyEntityInformation, 56);
   PduWriter w(attribute);
   w.put16(12, sender.site);  // originating simulation
   w.put16(14, sender.application);
   w.put8(22, KindEntityState);  // the PDU the records belong to
   w.put8(23, theFamilyEntityInformation);
   w.put32(24, 0);  // master record type: none
   w.put8(28, 0);   // action: none
   w.put16(30, 1);  // record sets
   w.putId(32, sender.site, sender.application, entityNumber(entity));
   w.put16(38, 1);       // records in the set
   w.put32(40, 1);       // record type
   w.put16(44, 16);      // record length, its header included
   w.put32(46, 0x4F4C);  // record data
   pdu.insert(pdu.end(), attribute.begin(), attribute.end());
   return pdu;
}

std::vector<char> makePdu(std::string const& kind, Sender& sender, long index)
{
   long const entity = index % sender.entities;
   std::string which = kind;
   if (kind == "mix")
   {
      static char const* const cycle[] = {"es", "fire",      "es", "detonation",
                                          "es", "collision", "es", "attr"};
      which = cycle[index % 8];
   }
   if (which == "fire")
      return fire(sender, entity);
   if (which == "detonation")
      return detonation(sender, entity);
   if (which == "collision")
      return collision(sender, entity);
   if (which == "attr")
      return entityStateWithAttribute(sender, entity);
   return entityState(sender, entity);
}

// ------------------------------------------------------------------ socket

// A Boost option on the sockets that send: the socket itself and, with
// suppression, its separate send socket. The library has no setter for these.
template <class Option>
bool setOnSendingSockets(CountingDisSocket& socket, Option const& option, char const* what)
{
   DtInetBoostUdpSocket* sockets[] = {socket.udpSocket(), socket.disSendSocket()};
   for (DtInetBoostUdpSocket* s : sockets)
   {
      if (!s || !s->is_open())
         continue;
      boost::system::error_code error;
      s->set_option(option, error);
      if (error)
      {
         std::fprintf(stderr, "%s: cannot set %s: %s\n", theTool, what, error.message().c_str());
         return false;
      }
   }
   return true;
}

bool applyOptions(CountingDisSocket& socket, Options const& options, DtInetDevice const* device,
                  DtInetEndpoint const& destination)
{
   bool const multicast = destination.address().isMulticast();
   if (options.ttl > 0)
   {
      if (!socket.setMcastTtlOption(static_cast<unsigned int>(options.ttl)))
      {
         std::fprintf(stderr, "%s: %s\n", theTool,
                      oltool::oneLine(socket.getLastErrorString().c_str()).c_str());
         return false;
      }
      if (!setOnSendingSockets(socket,
                               boost::asio::ip::unicast::hops(static_cast<int>(options.ttl)),
                               "the time to live"))
         return false;
   }
   if (multicast && options.loopback >= 0 &&
       !setOnSendingSockets(socket,
                            boost::asio::ip::multicast::enable_loopback(options.loopback == 1),
                            "multicast loopback"))
      return false;
   if (multicast && device)
   {
      if (destination.isIPv6())
      {
         // By the interface's index: an IPv6 socket has no interface address option.
         boost::asio::ip::multicast::outbound_interface const outbound(
             static_cast<unsigned int>(device->interfaceIndex()));
         if (!setOnSendingSockets(socket, outbound, "the outgoing interface"))
            return false;
      }
      else if (device->ipv4Addr())
      {
         bool const set = socket.setMcastDevice(*device->ipv4Addr()) &&
                          (!options.suppress || socket.setSendMcastDevice(*device->ipv4Addr()));
         if (!set)
         {
            std::fprintf(stderr, "%s: %s\n", theTool,
                         oltool::oneLine(socket.getLastErrorString().c_str()).c_str());
            return false;
         }
      }
   }
   return true;
}

}  // namespace

int main(int argc, char** argv)
{
   Options options = oltool::optionsOrExit(argc, argv, parse, usage);
   oltool::NotificationToStderr notes(theTool, true);
   oltool::catchInterrupts();

   std::unique_ptr<DtInetEndpoint> destination =
       oltool::sendDestination(theTool, options.dest, options.port);
   if (!destination)
      return oltool::theExitUsage;
   std::unique_ptr<DtInetDevice> device;
   if (!options.interfaceName.empty())
   {
      device.reset(
          new DtInetDevice(DtString(options.interfaceName.c_str()), destination->family()));
      if (!device->isOk())
      {
         std::fprintf(stderr, "%s: bad interface %s: %s\n", theTool, options.interfaceName.c_str(),
                      oltool::oneLine(device->getLastErrorString().c_str()).c_str());
         return oltool::theExitUsage;
      }
   }

   CountingDisSocket socket(*destination, 0, device.get(), DtInetSockFlagsDefault, false,
                            options.suppress);
   if (!oltool::openSender(theTool, socket, *destination))
      return oltool::theExitProblem;
   if (!applyOptions(socket, options, device.get(), *destination))
      return oltool::theExitProblem;
   if (options.bundle > 0)
   {
      long const align = options.align >= 0 ? options.align : options.version <= 6 ? 1 : 8;
      socket.setBundleByteAlignment(static_cast<unsigned int>(align));
      socket.setBundling(options.bundle);
   }

   typedef std::chrono::steady_clock Clock;
   Clock::time_point const start = Clock::now();
   Sender sender{options.version,
                 options.exercise,
                 1,
                 1 + static_cast<unsigned int>(getpid() % 65534),
                 options.entities,
                 options.absoluteTime,
                 start};
   long sent = 0;
   long failed = 0;
   for (long i = 0; i < options.count && !oltool::theInterrupted; ++i)
   {
      if (options.rate > 0 &&
          !oltool::waitUntil(
              start + std::chrono::duration_cast<Clock::duration>(
                          std::chrono::duration<double>(static_cast<double>(i) / options.rate))))
         break;
      std::vector<char> pdu = makePdu(options.kind, sender, i);
      if (socket.send(pdu.data(), pdu.size(), 0) > 0)
         ++sent;
      else
         ++failed;
   }
   if (socket.flush() != 1)
   {
      ++failed;
      std::fprintf(stderr, "%s: flush failed: %s\n", theTool,
                   oltool::oneLine(socket.getLastErrorString().c_str()).c_str());
   }
   double const seconds = std::chrono::duration<double>(Clock::now() - start).count();

   if (failed)
      std::fprintf(stderr, "%s: %ld sends failed: %s\n", theTool, failed,
                   oltool::oneLine(socket.getLastErrorString().c_str()).c_str());
   if (oltool::theInterrupted)
      std::fprintf(stderr, "%s: interrupted\n", theTool);
   std::printf("sent %ld PDUs in %ld datagrams to %s in %.2f s\n", sent, socket.datagrams,
               destination->toDtString().c_str(), seconds);
   std::fflush(stdout);
   socket.closeSocket();
   return failed ? oltool::theExitProblem : 0;
}
