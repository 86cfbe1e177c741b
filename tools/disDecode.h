// DIS tools: what a PDU says. Reads the header of any PDU (version, exercise,
// kind, length, time stamp with its absolute/relative bit) and the body of the
// common ones: Entity State (entity id, force, entity type, location as latitude,
// longitude and altitude, marking) and Fire and Detonation (firing, target and
// munition ids, event id, munition type, location). The decoded fields come out
// as a list of name and value, which the monitor writes as text, CSV or one JSON
// object a line with the same names. Every read is bounded by the PDU: by the
// bytes given and by the PDU's own length field, whichever ends first.
#ifndef OLUTIL_TOOLS_DISDECODE_H
#define OLUTIL_TOOLS_DISDECODE_H

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <olutil/olTime.h>

namespace oltool
{

// PDU kinds (the PDU type field) that the tools read past the header.
unsigned int const theDisEntityState = 1;
unsigned int const theDisFire = 2;
unsigned int const theDisDetonation = 3;
unsigned int const theDisAttribute = 72;
std::size_t const theDisHeaderSize = 12;
// Bit of the PDU status byte that announces a coupled Attribute PDU behind it.
unsigned int const theDisCoupledBit = 0x08;

// The PDU type's name, one word with no spaces ("EntityState"), or "Unknown".
inline char const* disTypeName(unsigned int kind)
{
   static char const* const names[] = {"Other",
                                       "EntityState",
                                       "Fire",
                                       "Detonation",
                                       "Collision",
                                       "ServiceRequest",
                                       "ResupplyOffer",
                                       "ResupplyReceived",
                                       "ResupplyCancel",
                                       "RepairComplete",
                                       "RepairResponse",
                                       "CreateEntity",
                                       "RemoveEntity",
                                       "StartResume",
                                       "StopFreeze",
                                       "Acknowledge",
                                       "ActionRequest",
                                       "ActionResponse",
                                       "DataQuery",
                                       "SetData",
                                       "Data",
                                       "EventReport",
                                       "Comment",
                                       "ElectromagneticEmission",
                                       "Designator",
                                       "Transmitter",
                                       "Signal",
                                       "Receiver",
                                       "IFF",
                                       "UnderwaterAcoustic",
                                       "SupplementalEmissionEntityState",
                                       "IntercomSignal",
                                       "IntercomControl",
                                       "AggregateState",
                                       "IsGroupOf",
                                       "TransferOwnership",
                                       "IsPartOf",
                                       "MinefieldState",
                                       "MinefieldQuery",
                                       "MinefieldData",
                                       "MinefieldResponseNACK",
                                       "EnvironmentalProcess",
                                       "GriddedData",
                                       "PointObjectState",
                                       "LinearObjectState",
                                       "ArealObjectState",
                                       "TSPI",
                                       "Appearance",
                                       "ArticulatedParts",
                                       "LEFire",
                                       "LEDetonation",
                                       "CreateEntityR",
                                       "RemoveEntityR",
                                       "StartResumeR",
                                       "StopFreezeR",
                                       "AcknowledgeR",
                                       "ActionRequestR",
                                       "ActionResponseR",
                                       "DataQueryR",
                                       "SetDataR",
                                       "DataR",
                                       "EventReportR",
                                       "CommentR",
                                       "RecordR",
                                       "SetRecordR",
                                       "RecordQueryR",
                                       "CollisionElastic",
                                       "EntityStateUpdate",
                                       "DirectedEnergyFire",
                                       "EntityDamageStatus",
                                       "InformationOperationsAction",
                                       "InformationOperationsReport",
                                       "Attribute"};
   return kind < sizeof names / sizeof names[0] ? names[kind] : "Unknown";
}

// The force's name for the four every version knows; the number otherwise.
inline std::string disForceName(unsigned int force)
{
   static char const* const names[] = {"Other", "Friendly", "Opposing", "Neutral"};
   return force < 4 ? names[force] : std::to_string(force);
}

// Site, application, and entity (or event) number: "1:3001:7".
struct DisId
{
   unsigned int site = 0;
   unsigned int application = 0;
   unsigned int number = 0;

   std::string text() const
   {
      return std::to_string(site) + ":" + std::to_string(application) + ":" +
             std::to_string(number);
   }
   bool operator<(DisId const& o) const
   {
      return site != o.site                 ? site < o.site
             : application != o.application ? application < o.application
                                            : number < o.number;
   }
   bool operator==(DisId const& o) const
   {
      return site == o.site && application == o.application && number == o.number;
   }
};

// Kind, domain, country, category, subcategory, specific, extra:
// "1.1.225.1.1.3.0".
struct DisEntityType
{
   unsigned int field[7] = {};

   std::string text() const
   {
      std::string t;
      for (unsigned int v : field)
         t += (t.empty() ? "" : ".") + std::to_string(v);
      return t;
   }
};

// WGS84 latitude and longitude in degrees, altitude in metres above the ellipsoid.
struct Geodetic
{
   double latitude = 0;
   double longitude = 0;
   double altitude = 0;
};

// Geocentric (earth-centred, earth-fixed) metres to WGS84 latitude, longitude and
// altitude. The latitude is found by fixed-point steps on
// tan(lat) = (z + e2 N(lat) sin(lat)) / p, which converge for every point away
// from the earth's centre; six steps reach well under a millimetre for points
// from the sea floor to orbit. The altitude uses the form that holds at the poles
// too: h = p cos(lat) + z sin(lat) - a^2 / N.
inline Geodetic geodeticFromGeocentric(double x, double y, double z)
{
   double const a = 6378137.0;
   double const f = 1.0 / 298.257223563;
   double const e2 = f * (2.0 - f);
   double const radToDeg = 180.0 / 3.14159265358979323846;
   double const p = std::hypot(x, y);
   double lat = std::atan2(z, p * (1.0 - e2));
   double n = a;
   for (int i = 0; i < 6; ++i)
   {
      double const s = std::sin(lat);
      n = a / std::sqrt(1.0 - e2 * s * s);
      lat = std::atan2(z + e2 * n * s, p);
   }
   double const s = std::sin(lat);
   n = a / std::sqrt(1.0 - e2 * s * s);
   Geodetic g;
   g.latitude = lat * radToDeg;
   g.longitude = std::atan2(y, x) * radToDeg;
   g.altitude = p * std::cos(lat) + z * s - a * a / n;
   return g;
}

// Reads big-endian fields of one PDU; a read past its end gives 0 and marks the
// reader short, so a decoder checks `shortRead()` once at the end.
class DisReader
{
public:
   DisReader(unsigned char const* data, std::size_t size) : myData(data), mySize(size) {}

   unsigned int u8(std::size_t at)
   {
      if (at >= mySize)
      {
         myShort = true;
         return 0;
      }
      return myData[at];
   }
   unsigned int u16(std::size_t at) { return u8(at) << 8 | u8(at + 1); }
   std::uint32_t u32(std::size_t at)
   {
      return static_cast<std::uint32_t>(u16(at)) << 16 | u16(at + 2);
   }
   double f64(std::size_t at)
   {
      std::uint64_t const bits = static_cast<std::uint64_t>(u32(at)) << 32 | u32(at + 4);
      double value = 0;
      std::memcpy(&value, &bits, sizeof value);
      return value;
   }
   DisId id(std::size_t at)
   {
      DisId i;
      i.site = u16(at);
      i.application = u16(at + 2);
      i.number = u16(at + 4);
      return i;
   }
   DisEntityType entityType(std::size_t at)
   {
      DisEntityType t;
      t.field[0] = u8(at);
      t.field[1] = u8(at + 1);
      t.field[2] = u16(at + 2);
      for (std::size_t i = 3; i < 7; ++i)
         t.field[i] = u8(at + i + 1);
      return t;
   }
   Geodetic location(std::size_t at)
   {
      double const x = f64(at), y = f64(at + 8), z = f64(at + 16);
      return geodeticFromGeocentric(x, y, z);
   }

   bool shortRead() const { return myShort; }

private:
   unsigned char const* myData;
   std::size_t mySize;
   bool myShort = false;
};

// One PDU, decoded. `body` tells which of the body fields are set.
struct DisPdu
{
   enum Body
   {
      BodyHeaderOnly,  // a kind whose body is not decoded
      BodyShort,       // a decoded kind whose PDU is shorter than its fixed part
      BodyEntityState,
      BodyWeapon  // Fire or Detonation
   };

   unsigned int version = 0;
   unsigned int exercise = 0;
   unsigned int kind = 0;
   unsigned int family = 0;
   unsigned int status = 0;
   unsigned int lengthField = 0;
   std::size_t size = 0;  // the bytes given: the PDU, with a coupled Attribute PDU
   std::uint32_t timestampRaw = 0;
   double timestamp = 0;  // seconds within the hour
   bool absoluteTime = false;
   Body body = BodyHeaderOnly;

   // Entity State; `entity` also for the entity tables.
   DisId entity;
   unsigned int force = 0;
   DisEntityType entityType;
   Geodetic location;  // also Fire and Detonation
   std::string marking;

   // Fire and Detonation.
   DisId firing;
   DisId target;
   DisId munition;
   DisId event;
   DisEntityType munitionType;
};

// The marking's 11 characters up to the first NUL, printable ASCII kept and any
// other byte shown as '?', whatever the character set claims.
inline std::string disMarking(DisReader& r, std::size_t at)
{
   std::string text;
   for (std::size_t i = 0; i < 11; ++i)
   {
      unsigned int const c = r.u8(at + i);
      if (c == 0)
         break;
      text += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
   }
   return text;
}

// Decodes the PDU in data[0, size). False when it is shorter than a PDU header.
// The body is read within the PDU's length field as well as `size`: a coupled
// Attribute PDU behind it, or bytes past a length field that is too small, are
// never taken for the body.
inline bool decodeDisPdu(unsigned char const* data, std::size_t size, DisPdu& pdu)
{
   pdu = DisPdu();
   pdu.size = size;
   if (size < theDisHeaderSize)
      return false;
   DisReader header(data, size);
   pdu.version = header.u8(0);
   pdu.exercise = header.u8(1);
   pdu.kind = header.u8(2);
   pdu.family = header.u8(3);
   pdu.timestampRaw = header.u32(4);
   pdu.lengthField = header.u16(8);
   pdu.status = header.u8(10);
   DtNetTimeStamp stamp;
   stamp = static_cast<unsigned int>(pdu.timestampRaw);
   pdu.timestamp = stamp.time();
   pdu.absoluteTime = stamp.type() == DtTimeStampAbsolute;

   std::size_t needed = 0;
   if (pdu.kind == theDisEntityState)
      needed = 144;
   else if (pdu.kind == theDisFire)
      needed = 96;
   else if (pdu.kind == theDisDetonation)
      needed = 104;
   if (!needed)
      return true;
   std::size_t const extent = pdu.lengthField < size ? pdu.lengthField : size;
   if (extent < needed)
   {
      pdu.body = DisPdu::BodyShort;
      return true;
   }
   DisReader r(data, extent);
   if (pdu.kind == theDisEntityState)
   {
      pdu.body = DisPdu::BodyEntityState;
      pdu.entity = r.id(12);
      pdu.force = r.u8(18);
      pdu.entityType = r.entityType(20);
      pdu.location = r.location(48);
      pdu.marking = disMarking(r, 129);
   }
   else
   {
      // Fire and Detonation share their first 36 bytes; the location and the
      // munition type lie apart.
      pdu.body = DisPdu::BodyWeapon;
      pdu.firing = r.id(12);
      pdu.target = r.id(18);
      pdu.munition = r.id(24);
      pdu.event = r.id(30);
      bool const fire = pdu.kind == theDisFire;
      pdu.location = r.location(fire ? 40 : 48);
      pdu.munitionType = r.entityType(fire ? 64 : 72);
   }
   if (r.shortRead())
      pdu.body = DisPdu::BodyShort;  // not reached: `needed` covers every read
   return true;
}

// ------------------------------------------------------------------ fields

// One output field: its name, its value as text, and whether the value is a
// number (JSON writes it bare; a value that is no finite number is "null").
struct DisField
{
   std::string name;
   std::string value;
   bool number = false;
};

inline DisField disNumber(char const* name, double value, int decimals)
{
   DisField f{name, "null", true};
   if (std::isfinite(value))
   {
      char text[64];
      std::snprintf(text, sizeof text, "%.*f", decimals, value);
      f.value = text;
   }
   return f;
}

inline DisField disInteger(char const* name, unsigned long value)
{
   return DisField{name, std::to_string(value), true};
}

inline DisField disText(char const* name, std::string value)
{
   return DisField{name, std::move(value), false};
}

// Every column the fields can have, in their order; what a CSV header lists.
inline std::vector<std::string> const& disColumns()
{
   static std::vector<std::string> const columns = {
       "time",        "sender",    "version",        "exercise",     "kind",     "length",
       "type",        "timestamp", "timestamp_type", "truncated",    "entity",   "force",
       "entity_type", "marking",   "latitude",       "longitude",    "altitude", "firing",
       "target",      "munition",  "event",          "munition_type"};
   return columns;
}

// The fields of a decoded PDU, from "version" on (the reader adds "time" and
// "sender" in front).
inline std::vector<DisField> disFields(DisPdu const& pdu)
{
   std::vector<DisField> f;
   f.push_back(disInteger("version", pdu.version));
   f.push_back(disInteger("exercise", pdu.exercise));
   f.push_back(disInteger("kind", pdu.kind));
   f.push_back(disInteger("length", pdu.size));
   f.push_back(disText("type", disTypeName(pdu.kind)));
   f.push_back(disNumber("timestamp", pdu.timestamp, 3));
   f.push_back(disText("timestamp_type", pdu.absoluteTime ? "absolute" : "relative"));
   if (pdu.body == DisPdu::BodyShort)
      f.push_back(disText("truncated", "yes"));
   auto location = [&]
   {
      f.push_back(disNumber("latitude", pdu.location.latitude, 6));
      f.push_back(disNumber("longitude", pdu.location.longitude, 6));
      f.push_back(disNumber("altitude", pdu.location.altitude, 1));
   };
   if (pdu.body == DisPdu::BodyEntityState)
   {
      f.push_back(disText("entity", pdu.entity.text()));
      f.push_back(disText("force", disForceName(pdu.force)));
      f.push_back(disText("entity_type", pdu.entityType.text()));
      f.push_back(disText("marking", pdu.marking));
      location();
   }
   else if (pdu.body == DisPdu::BodyWeapon)
   {
      location();
      f.push_back(disText("firing", pdu.firing.text()));
      f.push_back(disText("target", pdu.target.text()));
      f.push_back(disText("munition", pdu.munition.text()));
      f.push_back(disText("event", pdu.event.text()));
      f.push_back(disText("munition_type", pdu.munitionType.text()));
   }
   return f;
}

// ------------------------------------------------------------------ output forms

// `value` in double quotes, with " and \ escaped by a backslash and every byte
// outside printable ASCII written by `escape`, a printf format taking the byte.
inline std::string disQuoted(std::string const& value, char const* escape)
{
   std::string out = "\"";
   for (unsigned char c : value)
   {
      if (c == '"' || c == '\\')
         (out += '\\') += static_cast<char>(c);
      else if (c < 0x20 || c >= 0x7F)
      {
         char escaped[8];
         std::snprintf(escaped, sizeof escaped, escape, c);
         out += escaped;
      }
      else
         out += static_cast<char>(c);
   }
   return out + "\"";
}

// Text: "name value" pairs split by spaces. A value that is empty or holds a
// space, quote, backslash or a byte outside printable ASCII is quoted, with \"
// and \\ inside and other bytes as \xNN, so that a line stays one line.
inline std::string disTextValue(std::string const& value)
{
   bool plain = !value.empty();
   for (unsigned char c : value)
      plain = plain && c > 0x20 && c < 0x7F && c != '"' && c != '\\';
   return plain ? value : disQuoted(value, "\\x%02x");
}

inline std::string disTextLine(std::vector<DisField> const& fields)
{
   std::string line;
   for (DisField const& f : fields)
      line += (line.empty() ? "" : " ") + f.name + " " + disTextValue(f.value);
   return line;
}

// JSON: one object, fields in order; strings escaped so that the line is valid
// UTF-8 JSON whatever bytes they hold (a byte above 0x7F is taken as Latin-1).
inline std::string disJsonString(std::string const& value)
{
   return disQuoted(value, "\\u%04x");
}

inline std::string disJsonLine(std::vector<DisField> const& fields)
{
   std::string line = "{";
   for (DisField const& f : fields)
   {
      if (line.size() > 1)
         line += ",";
      line += disJsonString(f.name) + ":" + (f.number ? f.value : disJsonString(f.value));
   }
   return line + "}";
}

// CSV: one value for each of disColumns(), empty where the PDU has no such field;
// a value with a comma or quote is quoted, its quotes doubled. A byte outside
// printable ASCII becomes '?', so that a record stays one line.
inline std::string disCsvValue(std::string const& value)
{
   std::string clean = value;
   for (char& c : clean)
      if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7F)
         c = '?';
   if (clean.find_first_of(",\"") == std::string::npos)
      return clean;
   std::string quoted = "\"";
   for (char c : clean)
   {
      if (c == '"')
         quoted += '"';
      quoted += c;
   }
   return quoted + "\"";
}

inline std::string disCsvHeader()
{
   std::string line;
   for (std::string const& column : disColumns())
      line += (line.empty() ? "" : ",") + column;
   return line;
}

inline std::string disCsvLine(std::vector<DisField> const& fields)
{
   std::string line;
   bool first = true;
   for (std::string const& column : disColumns())
   {
      if (!first)
         line += ",";
      first = false;
      for (DisField const& f : fields)
         if (f.name == column)
         {
            line += disCsvValue(f.value == "null" && f.number ? std::string() : f.value);
            break;
         }
   }
   return line;
}

// ------------------------------------------------------------------ bundles

// Calls `visit(offset, length)` for each PDU of a datagram, walking the header
// length fields as a DIS receiver does: packed after a PDU of version 6 or lower,
// each PDU on a multiple of 8 after one of version 7 or higher. Stops at the end,
// or at a length field of less than a header or past the datagram. Returns the
// number of PDUs visited.
template <class Visit>
std::size_t forEachDisPdu(unsigned char const* data, std::size_t size, Visit visit)
{
   std::size_t count = 0;
   std::size_t offset = 0;
   while (offset + theDisHeaderSize <= size)
   {
      std::size_t const length = static_cast<std::size_t>(data[offset + 8]) << 8 | data[offset + 9];
      if (length < theDisHeaderSize || length > size - offset)
         break;
      visit(offset, length);
      ++count;
      std::size_t const align = data[offset] <= 6 ? 1 : 8;
      offset += (length + align - 1) / align * align;
   }
   return count;
}

// The PDUs of a datagram as a receiver hands them out: a PDU with the coupled
// bit in its status byte and the Attribute PDU right behind it make one unit.
// `pdus` counts the PDUs within a unit (1 or 2).
struct DisUnit
{
   std::size_t offset;
   std::size_t length;
   std::size_t pdus;
};

inline std::vector<DisUnit> disUnits(unsigned char const* data, std::size_t size)
{
   std::vector<DisUnit> units;
   bool joinNext = false;
   forEachDisPdu(data, size,
                 [&](std::size_t offset, std::size_t length)
                 {
                    if (joinNext && data[offset + 2] == theDisAttribute)
                    {
                       DisUnit& last = units.back();
                       last.length = offset + length - last.offset;
                       last.pdus = 2;
                       joinNext = false;
                       return;
                    }
                    units.push_back(DisUnit{offset, length, 1});
                    joinNext = (data[offset + 10] & theDisCoupledBit) != 0;
                 });
   return units;
}

// True when a datagram starts with a plausible PDU header: a version from 1 to 7
// and a length field that fits in the datagram.
inline bool looksLikeDis(unsigned char const* data, std::size_t size)
{
   if (size < theDisHeaderSize || data[0] < 1 || data[0] > 7)
      return false;
   std::size_t const length = static_cast<std::size_t>(data[8]) << 8 | data[9];
   return length >= theDisHeaderSize && length <= size;
}

}  // namespace oltool

#endif  // OLUTIL_TOOLS_DISDECODE_H
