// olfom-merge: reads FOM module files, merges each into the first, runs the
// post-merge check and prints the outcome.
//
//   olfom-merge [--strict|--lenient] [--dump] [--json] MODULE.xml...
//
// The first line of the output is the final status and its meaning. A merge
// conflict adds the module and the table that failed, what the merge reported, and
// the records that differ (the merged one first); a failed check adds its findings.
// --dump then lists the merged tables one record a line; --json gives all of it as
// one JSON document on one line. Lenient warnings go to standard error.
//
// Exit status: 0 for success (status 21), 1 for a merge conflict or a failed check,
// 2 for bad usage or a file that cannot be read as a FOM module.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <fomreader/olFomReader.h>
#include <olutil/olPrint.h>

#include "toolArgs.h"

namespace
{

char const* const theTool = "olfom-merge";

void usage(std::FILE* out)
{
   std::fprintf(out,
                "usage: %s [--strict|--lenient] [--dump] [--json] MODULE.xml...\n"
                "  reads the modules in the order given, merges each into the first and\n"
                "  checks the result\n"
                "  --strict   conflicts in any table stop the merge\n"
                "  --lenient  conflicts other than in time types are warnings (default)\n"
                "  --dump     list the merged tables, one record a line\n"
                "  --json     print everything as one JSON document\n"
                "exit status: 0 success, 1 merge conflict or failed check, 2 bad usage or\n"
                "unreadable module\n",
                theTool);
}

std::string plain(DtString const& s)
{
   return s.stdString();
}

// ---------------------------------------------------------------- output sinks

// Collects the result as text lines or as one JSON document.
class Json
{
public:
   // A JSON string, control characters escaped and broken UTF-8 replaced.
   static std::string quote(std::string const& s)
   {
      std::string out = "\"";
      for (std::size_t i = 0; i < s.size(); ++i)
      {
         unsigned char const c = static_cast<unsigned char>(s[i]);
         if (c == '"' || c == '\\')
            (out += '\\') += static_cast<char>(c);
         else if (c == '\n')
            out += "\\n";
         else if (c == '\t')
            out += "\\t";
         else if (c == '\r')
            out += "\\r";
         else if (c < 0x20)
         {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            out += escape;
         }
         else if (c < 0x80)
            out += static_cast<char>(c);
         else
         {
            std::size_t const n = sequenceLength(s, i);
            if (n)
            {
               out.append(s, i, n);
               i += n - 1;
            }
            else
               out += "\\ufffd";
         }
      }
      return out + "\"";
   }

private:
   // The length of a well-formed UTF-8 sequence at s[i], or 0.
   static std::size_t sequenceLength(std::string const& s, std::size_t i)
   {
      unsigned char const c = static_cast<unsigned char>(s[i]);
      std::size_t n = c >= 0xf0 && c <= 0xf4 ? 4 : c >= 0xe0 ? 3 : c >= 0xc2 && c < 0xe0 ? 2 : 0;
      if (!n || i + n > s.size())
         return 0;
      for (std::size_t k = 1; k < n; ++k)
         if ((static_cast<unsigned char>(s[i + k]) & 0xc0) != 0x80)
            return 0;
      return n;
   }
};

// One object's members, written in order.
class JsonObject
{
public:
   JsonObject& add(char const* key, std::string const& rawValue)
   {
      myText += (myText.empty() ? "" : ",") + Json::quote(key) + ":" + rawValue;
      return *this;
   }
   JsonObject& text(char const* key, DtString const& value)
   {
      return add(key, Json::quote(plain(value)));
   }
   JsonObject& number(char const* key, double value)
   {
      if (!std::isfinite(value))
         return add(key, "null");
      char digits[64];
      std::snprintf(digits, sizeof digits, "%.9g", value);
      return add(key, digits);
   }
   JsonObject& flag(char const* key, bool value) { return add(key, value ? "true" : "false"); }
   std::string str() const { return "{" + myText + "}"; }

private:
   std::string myText;
};

std::string jsonArray(std::vector<std::string> const& items)
{
   std::string out = "[";
   for (std::size_t i = 0; i < items.size(); ++i)
      out += (i ? "," : "") + items[i];
   return out + "]";
}

std::string jsonNames(std::set<DtString> const& names)
{
   std::vector<std::string> items;
   for (DtString const& n : names)
      items.push_back(Json::quote(plain(n)));
   return jsonArray(items);
}

// ---------------------------------------------------------------- records as JSON

// One member as a JSON value: texts quoted, flags true or false, numbers as numbers.
void member(JsonObject& out, char const* key, DtString const& value)
{
   out.text(key, value);
}
void member(JsonObject& out, char const* key, bool value)
{
   out.flag(key, value);
}
template <typename Number>
void member(JsonObject& out, char const* key, Number value)
{
   out.number(key, static_cast<double>(value));
}

// An object of the members given as key, value, key, value..., in that order.
void members(JsonObject&) {}
template <typename Value, typename... Rest>
void members(JsonObject& out, char const* key, Value const& value, Rest const&... rest)
{
   member(out, key, value);
   members(out, rest...);
}
template <typename... KeysAndValues>
std::string jsonObject(KeysAndValues const&... keysAndValues)
{
   JsonObject out;
   members(out, keysAndValues...);
   return out.str();
}

// A record of each table, its members in the order of the record.
std::string json(DtTimeType const& r)
{
   return jsonObject("name", r.name, "dataType", r.dataType, "semantics", r.semantics);
}
std::string json(DtUserSuppliedTagsType const& r)
{
   return jsonObject("name", r.name, "dataType", r.dataType, "semantics", r.semantics);
}
std::string json(DtSynchronizationPointsType const& r)
{
   return jsonObject("name", r.name, "dataType", r.dataType, "capability", r.capability,
                     "semantics", r.semantics);
}
std::string json(DtTransportationType const& r)
{
   return jsonObject("name", r.name, "description", r.description, "reliable", r.reliable,
                     "semantics", r.semantics);
}
std::string json(DtUpdateRateType const& r)
{
   return jsonObject("name", r.name, "rate", r.rate, "semantics", r.semantics);
}
std::string json(DtBasicDataRepresentationType const& r)
{
   return jsonObject("name", r.name, "size", r.size, "interpretation", r.interpretation, "endian",
                     r.endian, "encoding", r.encoding);
}
std::string json(DtSimpleDatatypeType const& r)
{
   return jsonObject("name", r.name, "representation", r.representation, "units", r.units,
                     "resolution", r.resolution, "accuracy", r.accuracy, "semantics", r.semantics);
}
std::string json(DtEnumeratedDatatypeType const& r)
{
   return jsonObject("name", r.name, "representation", r.representation, "semantics", r.semantics);
}
std::string json(DtArrayDatatypeType const& r)
{
   return jsonObject("name", r.name, "dataType", r.dataType, "cardinality", r.cardinality,
                     "encoding", r.encoding, "semantics", r.semantics);
}
std::string json(DtFixedRecordDatatypeType const& r)
{
   return jsonObject("name", r.name, "encoding", r.encoding, "semantics", r.semantics);
}
std::string json(DtVariantRecordDatatypeType const& r)
{
   return jsonObject("name", r.name, "discriminant", r.discriminant, "dataType", r.dataType,
                     "alternatives", r.alternatives, "encoding", r.encoding, "semantics",
                     r.semantics);
}
std::string json(DtNotesType const& r)
{
   return jsonObject("name", r.name, "semantics", r.semantics);
}

// ---------------------------------------------------------------- conflicts

typedef DtFomModule::Conflicts Conflicts;

// The records of a table that differ from the merged target's record of the same name,
// compared as the merge compares them.
template <auto table>
Conflicts recordConflicts(DtFomModule const& merged, DtFomModule const& module)
{
   Conflicts out;
   for (auto const& theirs : (module.*table)())
   {
      auto const mine = (merged.*table)().find(*theirs);
      if (mine == (merged.*table)().end() || (*mine)->compareSubcomponents(*theirs, true))
         continue;
      out.emplace_back();
      (*mine)->appendToString(out.back().first);
      theirs->appendToString(out.back().second);
   }
   return out;
}

// The classes and dimensions that differ, as the module finds them.
template <auto conflicts>
Conflicts classConflicts(DtFomModule const& merged, DtFomModule const& module)
{
   return (merged.*conflicts)(module);
}

Conflicts timeConflicts(DtFomModule const& merged, DtFomModule const& module)
{
   auto const all = [](DtTimeTypeTable const& table)
   {
      DtString text;
      for (auto const& t : table)
      {
         if (!text.isEmpty())
            text += "; ";
         t->appendToString(text);
      }
      return text.isEmpty() ? DtString("(none)") : text;
   };
   return Conflicts{{all(merged.timeTypeTable()), all(module.timeTypeTable())}};
}

Conflicts switchConflicts(DtFomModule const& merged, DtFomModule const& module)
{
   Conflicts out;
   for (auto const& entry : module.switchTable())
   {
      if (!merged.isStandardSwitch(entry.first) || merged.switchValue(entry.first) == entry.second)
         continue;
      auto const line = [&](bool value)
      { return entry.first + ": " + (value ? "enabled" : "disabled"); };
      out.emplace_back(line(merged.switchValue(entry.first)), line(entry.second));
   }
   if (merged.automaticResignActionIsSet() && module.automaticResignActionIsSet() &&
       merged.automaticResignAction() != module.automaticResignAction())
      out.emplace_back(DtString("automaticResignAction: ") +
                           DtFedTarget::enumAsString(merged.automaticResignAction()),
                       DtString("automaticResignAction: ") +
                           DtFedTarget::enumAsString(module.automaticResignAction()));
   return out;
}

// The table a failed merge names by its status, and how to find the entries that differ.
struct ConflictingTable
{
   int status;
   char const* name;
   Conflicts (*differences)(DtFomModule const& merged, DtFomModule const& module);
};

ConflictingTable const theConflictingTables[] = {
    {DtMergeFomSwitchConflict, "Switches", switchConflicts},
    {DtMergeFomUpdateRateConflict, "Update Rates", recordConflicts<&DtFomModule::updateRateTable>},
    {DtMergeFomTransportTypeConflict, "Transport Types",
     recordConflicts<&DtFomModule::transportTypeTable>},
    {DtMergeFomSyncPointConflict, "Synchronizations",
     recordConflicts<&DtFomModule::syncPointTable>},
    {DtMergeFomUserSuppliedTagConflict, "User Supplied Tags",
     recordConflicts<&DtFomModule::userSuppliedTagTable>},
    {DtMergeFomNoteConflict, "Notes", recordConflicts<&DtFomModule::noteTable>},
    {DtMergeFomTimeTypeConflict, "Time Types", timeConflicts},
    {DtMergeFomObjectClassConflict, "Object Classes",
     classConflicts<&DtFomModule::objectClassConflicts>},
    {DtMergeFomInteractionClassConflict, "Interaction Classes",
     classConflicts<&DtFomModule::interactionClassConflicts>},
    {DtMergeFomDimensionConflict, "Dimensions", classConflicts<&DtFomModule::dimensionConflicts>},
};

char const* conflictingTable(int status, DtFomModule const& merged, DtFomModule const& module,
                             Conflicts& out)
{
   for (ConflictingTable const& t : theConflictingTables)
      if (t.status == status)
      {
         out = t.differences(merged, module);
         return t.name;
      }
   return "";
}

// ---------------------------------------------------------------- the tables

// Every table of a module, as --dump lines (each led by its key) and as JSON items.
struct Tables
{
   struct Table
   {
      char const* textKey;
      char const* jsonKey;
      std::vector<std::string> lines;
      std::vector<std::string> items;
   };
   std::vector<Table> tables;

   template <typename Records>
   void addRecords(char const* textKey, char const* jsonKey, Records const& records)
   {
      Table t{textKey, jsonKey, {}, {}};
      for (auto const& r : records)
      {
         DtString line;
         r->appendToString(line);
         t.lines.push_back(std::string(textKey) + " " + plain(line));
         t.items.push_back(json(*r));
      }
      tables.push_back(std::move(t));
   }

   explicit Tables(DtFomModule const& m)
   {
      Table switches{"switch", "switches", {}, {}};
      for (auto const& s : m.switchTable())
      {
         switches.lines.push_back("switch " + plain(s.first) + ": " +
                                  (s.second ? "enabled" : "disabled"));
         switches.items.push_back(jsonObject("name", s.first, "enabled", s.second));
      }
      tables.push_back(std::move(switches));
      addRecords("time", "time", m.timeTypeTable());
      addRecords("tag", "tags", m.userSuppliedTagTable());
      addRecords("synchronization", "synchronizations", m.syncPointTable());
      addRecords("transportation", "transportations", m.transportTypeTable());
      addRecords("updateRate", "updateRates", m.updateRateTable());
      addRecords("note", "notes", m.noteTable());
      addRecords("basicData", "basicData", m.basicDataRepresentationTable());
      addRecords("simpleData", "simpleData", m.simpleDatatypeTable());
      addRecords("enumeratedData", "enumeratedData", m.enumeratedDatatypeTable());
      addRecords("arrayData", "arrayData", m.arrayDatatypeTable());
      addRecords("fixedRecordData", "fixedRecordData", m.fixedRecordDatatypeTable());
      addRecords("variantRecordData", "variantRecordData", m.variantRecordDatatypeTable());

      Table dimensions{"dimension", "dimensions", {}, {}};
      for (auto const& d : m.dimensions())
      {
         DtString line;
         DtFomModule::appendToString(d.second, line);
         dimensions.lines.push_back("dimension " + plain(line));
         dimensions.items.push_back(
             jsonObject("name", d.second.name, "dataType", d.second.dataType, "upperBound",
                        d.second.upperBound, "normalization", d.second.normalization, "excluded",
                        d.second.rangeExcluded, "rangeLower", d.second.rangeLower, "rangeUpper",
                        d.second.rangeUpper));
      }
      tables.push_back(std::move(dimensions));

      // A class's line, then one line per member: "attribute CLASS.NAME: ...".
      Table objects{"objectClass", "objectClasses", {}, {}};
      for (auto const& c : m.objectClasses())
      {
         objects.lines.push_back("objectClass " + plain(c.first));
         std::vector<std::string> attributes;
         for (DtFomAttribute const& a : c.second.attributes)
         {
            DtString line = "attribute " + c.first + ".";
            DtFomModule::appendToString(a, line);
            objects.lines.push_back(plain(line));
            attributes.push_back(JsonObject()
                                     .text("name", a.name)
                                     .text("dataType", a.dataType)
                                     .text("transportation", a.transportation)
                                     .add("dimensions", jsonNames(a.dimensions))
                                     .str());
         }
         objects.items.push_back(
             JsonObject().text("name", c.first).add("attributes", jsonArray(attributes)).str());
      }
      tables.push_back(std::move(objects));

      Table interactions{"interactionClass", "interactionClasses", {}, {}};
      for (auto const& c : m.interactionClasses())
      {
         DtString line;
         DtFomModule::appendToString(c.second, line);
         interactions.lines.push_back("interactionClass " + plain(line));
         std::vector<std::string> parameters;
         for (DtFomParameter const& p : c.second.parameters)
         {
            DtString member = "parameter " + c.first + ".";
            DtFomModule::appendToString(p, member);
            interactions.lines.push_back(plain(member));
            parameters.push_back(jsonObject("name", p.name, "dataType", p.dataType));
         }
         interactions.items.push_back(JsonObject()
                                          .text("name", c.first)
                                          .text("transportation", c.second.transportation)
                                          .add("dimensions", jsonNames(c.second.dimensions))
                                          .add("parameters", jsonArray(parameters))
                                          .str());
      }
      tables.push_back(std::move(interactions));
   }
};

// Splits text at line ends, dropping empty lines.
std::vector<std::string> lines(DtString const& text)
{
   std::vector<std::string> out;
   std::string const s = plain(text);
   std::size_t start = 0;
   while (start < s.size())
   {
      std::size_t end = s.find('\n', start);
      if (end == std::string::npos)
         end = s.size();
      if (end > start)
         out.push_back(s.substr(start, end - start));
      start = end + 1;
   }
   return out;
}

struct Options
{
   bool strict = false;
   bool dump = false;
   bool json = false;
   std::vector<char const*> modules;
};

// False, with the reason on standard error, for anything the tool cannot run with.
bool parseArguments(int argc, char** argv, Options& options, bool& help)
{
   bool endOfOptions = false;
   for (int i = 1; i < argc; ++i)
   {
      char const* const arg = argv[i];
      if (endOfOptions || arg[0] != '-' || !arg[1])
         options.modules.push_back(arg);
      else if (!std::strcmp(arg, "--"))
         endOfOptions = true;
      else if (!std::strcmp(arg, "--strict"))
         options.strict = true;
      else if (!std::strcmp(arg, "--lenient"))
         options.strict = false;
      else if (!std::strcmp(arg, "--dump"))
         options.dump = true;
      else if (!std::strcmp(arg, "--json"))
         options.json = true;
      else if (!std::strcmp(arg, "--help") || !std::strcmp(arg, "-h"))
         help = true;
      else
         return oltool::refuseOption(theTool, arg, "", false);
   }
   if (!help && options.modules.empty())
   {
      std::fprintf(stderr, "%s: no module given\n", theTool);
      return false;
   }
   return true;
}

}  // namespace

int main(int argc, char** argv)
{
   Options options;
   bool help = false;
   if (!parseArguments(argc, argv, options, help))
   {
      usage(stderr);
      return 2;
   }
   if (help)
   {
      usage(stdout);
      return 0;
   }
   // Warnings of a lenient merge are diagnostics: they go to standard error.
   DtWarn.detachAllPrinters();
   DtWarn.attachPrinter(&DtStandardErrorConsole);

   std::vector<std::unique_ptr<DtFomModule>> modules;
   for (char const* path : options.modules)
   {
      modules.emplace_back(new DtFomModule);
      DtString error;
      if (!DtFomReader::readFile(path, *modules.back(), error))
      {
         std::fprintf(stderr, "%s: %s\n", theTool, error.c_str());
         return 2;
      }
   }

   DtFomModule& merged = *modules.front();
   merged.setStrictChecking(options.strict);
   int status = DtMergeFomSuccess;
   std::size_t failed = 0;
   for (std::size_t i = 1; i < modules.size() && status == DtMergeFomSuccess; ++i)
   {
      // Only what this merge adds is shown, so each merge starts with a clean slate.
      merged.clearLastError();
      status = merged.mergeTarget(*modules[i], true);
      if (status != DtMergeFomSuccess)
         failed = i;
   }
   DtString checkErrors;
   if (status == DtMergeFomSuccess)
      status = merged.postMergeCheckTarget(checkErrors);

   Conflicts conflicts;
   char const* table = "";
   if (failed)
      table = conflictingTable(status, merged, *modules[failed], conflicts);

   std::string const meaning = DtFomModule::statusText(status);
   if (options.json)
   {
      JsonObject out;
      out.number("status", status)
          .add("meaning", Json::quote(meaning))
          .flag("strict", options.strict);
      std::vector<std::string> paths;
      for (char const* p : options.modules)
         paths.push_back(Json::quote(p));
      out.add("modules", jsonArray(paths));
      if (failed)
      {
         std::vector<std::string> records;
         for (auto const& c : conflicts)
            records.push_back(jsonObject("merged", c.first, "module", c.second));
         out.add("conflict", JsonObject()
                                 .add("module", Json::quote(options.modules[failed]))
                                 .text("identification", modules[failed]->modelIdentification())
                                 .add("table", Json::quote(table))
                                 .text("message", merged.lastError())
                                 .add("records", jsonArray(records))
                                 .str());
      }
      else
         out.add("conflict", "null");
      std::vector<std::string> findings;
      for (std::string const& l : lines(checkErrors))
         findings.push_back(Json::quote(l));
      out.add("check", jsonArray(findings));
      out.text("identification", merged.modelIdentification()).number("fomType", merged.fomType());
      std::vector<std::string> dependencies;
      for (DtString const& d : merged.fomDependencies())
         dependencies.push_back(Json::quote(plain(d)));
      out.add("dependencies", jsonArray(dependencies));
      out.add("automaticResignAction",
              merged.automaticResignActionIsSet()
                  ? Json::quote(DtFedTarget::enumAsString(merged.automaticResignAction()))
                  : "null");
      for (auto const& t : Tables(merged).tables)
         out.add(t.jsonKey, jsonArray(t.items));
      std::printf("%s\n", out.str().c_str());
      return status == DtMergeFomSuccess ? 0 : 1;
   }

   std::printf("status %d: %s\n", status, meaning.c_str());
   if (failed)
   {
      std::printf("conflict: %s (%s) in %s\n", options.modules[failed],
                  modules[failed]->modelIdentification().c_str(), table);
      for (std::string const& l : lines(merged.lastError()))
         std::printf("  message: %s\n", l.c_str());
      for (auto const& c : conflicts)
         std::printf("  merged: %s\n  module: %s\n", c.first.c_str(), c.second.c_str());
   }
   // Findings of a check that passed are warnings; those of one that failed are the result.
   for (std::string const& l : lines(checkErrors))
   {
      if (status == DtMergeFomSuccess)
         std::fprintf(stderr, "%s: warning: %s\n", theTool, l.c_str());
      else
         std::printf("  check: %s\n", l.c_str());
   }
   if (options.dump)
   {
      std::printf("identification %s\n", merged.modelIdentification().c_str());
      std::printf("fomType %d\n", static_cast<int>(merged.fomType()));
      for (DtString const& d : merged.fomDependencies())
         std::printf("dependency %s\n", d.c_str());
      if (merged.automaticResignActionIsSet())
         std::printf("automaticResignAction %s\n",
                     DtFedTarget::enumAsString(merged.automaticResignAction()));
      for (auto const& t : Tables(merged).tables)
         for (std::string const& l : t.lines)
            std::printf("%s\n", l.c_str());
   }
   return status == DtMergeFomSuccess ? 0 : 1;
}
