// Tests of the FOM module reader and of merging the modules it reads.
#include <fomreader/olFomReader.h>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_capture.h"

#ifndef OLUTIL_SOURCE_DIR
#define OLUTIL_SOURCE_DIR ""
#endif

namespace
{

std::string const theTestModules = std::string(OLUTIL_SOURCE_DIR) + "/tests/fom/";
std::string const theRealModules = std::string(OLUTIL_SOURCE_DIR) + "/../shared/fom-modules/";

std::string slurp(std::string const& path)
{
   std::ifstream in(path, std::ios::binary);
   return std::string(std::istreambuf_iterator<char>(in), {});
}

bool exists(std::string const& path)
{
   struct stat info;
   return stat(path.c_str(), &info) == 0;
}

// Reads one of the test modules, failing the test if it does not read.
std::unique_ptr<DtFomModule> testModule(char const* name)
{
   std::unique_ptr<DtFomModule> module(new DtFomModule);
   DtString error;
   EXPECT_TRUE(DtFomReader::readFile((theTestModules + name).c_str(), *module, error)) << error;
   return module;
}

// Text of the whole module: every table, record by record, in a fixed order.
std::string fingerprint(DtFomModule const& m)
{
   DtString out = m.modelIdentification() + "|";
   auto records = [&](auto const& table)
   {
      for (auto const& r : table)
      {
         r->appendToString(out);
         out += "|";
      }
   };
   // The time table is ordered by pointer: its records go in by their text.
   std::vector<std::string> times;
   for (auto const& t : m.timeTypeTable())
   {
      DtString line;
      t->appendToString(line);
      times.push_back(line.stdString());
   }
   std::sort(times.begin(), times.end());
   for (std::string const& t : times)
      out += (t + "|").c_str();
   records(m.userSuppliedTagTable());
   records(m.syncPointTable());
   records(m.transportTypeTable());
   records(m.updateRateTable());
   records(m.noteTable());
   records(m.basicDataRepresentationTable());
   records(m.simpleDatatypeTable());
   records(m.enumeratedDatatypeTable());
   records(m.arrayDatatypeTable());
   records(m.fixedRecordDatatypeTable());
   records(m.variantRecordDatatypeTable());
   for (auto const& s : m.switchTable())
      out += s.first + (s.second ? "+|" : "-|");
   for (auto const& d : m.dimensions())
   {
      DtFomModule::appendToString(d.second, out);
      out += "|";
   }
   for (auto const& c : m.objectClasses())
      for (auto const& a : c.second.attributes)
      {
         out += c.first + ".";
         DtFomModule::appendToString(a, out);
         out += "|";
      }
   for (auto const& c : m.interactionClasses())
   {
      DtFomModule::appendToString(c.second, out);
      out += "|";
   }
   return out.stdString();
}

std::string replaceAll(std::string text, std::string const& from, std::string const& to)
{
   for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at))
   {
      text.replace(at, from.size(), to);
      at += to.size();
   }
   return text;
}

// Every element name given the prefix "fom:", and the namespace declared for it.
std::string withPrefix(std::string const& text)
{
   std::string out;
   for (std::size_t i = 0; i < text.size(); ++i)
   {
      out += text[i];
      if (text[i] != '<')
         continue;
      if (i + 1 < text.size() && text[i + 1] == '/')
         out += text[++i];
      if (i + 1 < text.size() && std::isalpha(static_cast<unsigned char>(text[i + 1])))
         out += "fom:";
   }
   return replaceAll(out, "xmlns=", "xmlns:fom=");
}

// Every .xml file below a folder.
void xmlFiles(std::string const& dir, std::vector<std::string>& out)
{
   DIR* d = opendir(dir.c_str());
   if (!d)
      return;
   while (dirent* e = readdir(d))
   {
      std::string const name = e->d_name;
      if (name == "." || name == "..")
         continue;
      std::string const path = dir + "/" + name;
      struct stat info;
      if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
         xmlFiles(path, out);
      else if (name.size() > 4 && name.compare(name.size() - 4, 4, ".xml") == 0)
         out.push_back(path);
   }
   closedir(d);
}

// Merges the files in order into the first, as the tool does; the status of the first
// merge that fails, or of the post-merge check.
int mergeFiles(std::vector<std::string> const& paths, bool strict, DtString* checkErrors = nullptr)
{
   std::vector<std::unique_ptr<DtFomModule>> modules;
   for (std::string const& p : paths)
   {
      modules.emplace_back(new DtFomModule);
      DtString error;
      if (!DtFomReader::readFile(p.c_str(), *modules.back(), error))
      {
         ADD_FAILURE() << error;
         return -1;
      }
   }
   modules.front()->setStrictChecking(strict);
   for (std::size_t i = 1; i < modules.size(); ++i)
   {
      int const status = modules.front()->mergeTarget(*modules[i], true);
      if (status != DtMergeFomSuccess)
         return status;
   }
   DtString errors;
   int const status = modules.front()->postMergeCheckTarget(errors);
   if (checkErrors)
      *checkErrors = errors;
   return status;
}

std::vector<std::string> rprSet()
{
   std::string const r = theRealModules + "rpr-fom-2.0/RPR-";
   std::vector<std::string> set{theRealModules + "portico/HLAstandardMIM.xml"};
   for (char const* m :
        {"Switches", "Foundation", "Enumerations", "Base", "Physical", "Warfare", "Aggregate",
         "Communication", "DER", "Logistics", "SE", "Minefield", "SIMAN", "UA"})
      set.push_back(r + m + "_v2.0.xml");
   return set;
}

}  // namespace

// ---------------------------------------------------------------- reading

TEST(FomReader, ReadsEveryTableOfAModule)
{
   auto const m = testModule("base.xml");
   EXPECT_EQ(m->modelIdentification(), "Base");
   ASSERT_EQ(m->fomDependencies().size(), 1u);
   EXPECT_EQ(m->fomDependencies()[0], "MIM");
   EXPECT_EQ(m->fomType(), DtFomType1516e);

   EXPECT_EQ(m->numTimeTypes(), 2u);
   EXPECT_TRUE(m->knownTime(DtTimeType{"lookahead", "", ""}));
   EXPECT_EQ(m->numUserSuppliedTags(), 2u);
   EXPECT_EQ((*m->syncPointTable().begin())->capability, DtFomSyncCapabilityRegisterAchieve);
   auto const fast = m->transportTypeFromTransportation("Fast");
   ASSERT_NE(fast, nullptr);
   EXPECT_FALSE(fast->reliable);
   EXPECT_EQ(fast->semantics, "Low latency, spread over lines")
       << "runs of white space are one blank";
   EXPECT_TRUE(m->transportTypeFromTransportation("HLAreliable")->reliable);

   EXPECT_EQ(m->numSwitches(), 10u);
   EXPECT_TRUE(m->autoProvide());
   EXPECT_TRUE(m->interactionRelevanceAdvisory());
   EXPECT_FALSE(m->serviceReporting());
   EXPECT_TRUE(m->automaticResignActionIsSet());
   EXPECT_EQ(m->automaticResignAction(), DtResignDeleteObjectsThenDivest);

   ASSERT_EQ(m->numUpdateRates(), 1u) << "the table inside a comment is not read";
   EXPECT_EQ((*m->updateRateTable().begin())->rate, 0.5f);
   EXPECT_EQ(m->numNotes(), 1u);

   std::vector<std::string> basic;
   for (auto const& b : m->basicDataRepresentationTable())
      basic.push_back(b->name.stdString() + "/" + std::to_string(b->size) + "/" +
                      std::to_string(b->endian));
   EXPECT_EQ(basic, (std::vector<std::string>{"HLAoctet/8/1", "Int32LE/32/2"}));
   EXPECT_EQ(m->simpleDatatypeTable().size(), 3u);
   EXPECT_EQ((*m->variantRecordDatatypeTable().begin())->alternatives,
             "Low=Quiet:HLAoctet; HLAother=NA");
   EXPECT_EQ((*m->arrayDatatypeTable().begin())->cardinality, "8");

   ASSERT_EQ(m->dimensions().count("Lane"), 1u);
   DtFomDimension const& lane = m->dimensions().at("Lane");
   EXPECT_EQ(lane.dataType, "LaneIndex");
   EXPECT_EQ(lane.upperBound, 4u);
   EXPECT_EQ(lane.rangeUpper, 4u);
   EXPECT_EQ(lane.normalization, "linear (Lane, 0, 4)");

   EXPECT_TRUE(m->knownObjectClass("HLAobjectRoot.Vehicle.Car"));
   EXPECT_TRUE(m->knownAttribute("HLAobjectRoot.Vehicle", "Speed"));
   EXPECT_FALSE(m->knownAttribute("HLAobjectRoot.Vehicle.Car", "Speed"));
   EXPECT_EQ(m->objectClasses().at("HLAobjectRoot.Vehicle").attributes[0].dimensions.count("Lane"),
             1u);
   EXPECT_TRUE(m->knownParameter("HLAinteractionRoot.Honk", "Loudness"));
   EXPECT_EQ(m->interactionClasses().at("HLAinteractionRoot.Honk").transportation, "Fast");

   // What the module refers to waits for the post-merge check.
   EXPECT_EQ(m->unresolvedAttributeDimensionTable().at("HLAobjectRoot.Vehicle").size(), 1u);
   EXPECT_EQ(m->unresolvedInteractionTransportationTable().at("HLAinteractionRoot.Honk").size(),
             1u);
   // A module's references to its own data types are settled as it is read.
   EXPECT_TRUE(m->datatypeReferences().empty());
   EXPECT_EQ(testModule("refs_user.xml")->datatypeReferences().count("Distance"), 1u);

   DtString errors;
   EXPECT_EQ(m->postMergeCheckTarget(errors), DtMergeFomSuccess) << errors;
   EXPECT_TRUE(m->unresolvedAttributeDimensionTable().at("HLAobjectRoot.Vehicle").empty());
}

TEST(FomReader, AcceptsTheFormsRealFilesTake)
{
   std::string const plain = slurp(theTestModules + "base.xml");
   DtFomModule reference;
   DtString error;
   ASSERT_TRUE(DtFomReader::readBuffer(plain.data(), plain.size(), "base.xml", reference, error));

   struct Row
   {
      char const* what;
      std::string text;
   } const rows[] = {
       {"CRLF line ends", replaceAll(plain, "\n", "\r\n")},
       {"byte order mark", "\xEF\xBB\xBF" + plain},
       {"SISO namespace", replaceAll(plain, "standards.ieee.org/IEEE1516-2010",
                                     "www.sisostds.org/schemas/IEEE1516-2010")},
       {"no namespace",
        replaceAll(plain, " xmlns=\"http://standards.ieee.org/IEEE1516-2010\"", "")},
       {"namespace prefix", withPrefix(plain)},
   };
   for (auto const& row : rows)
   {
      SCOPED_TRACE(row.what);
      DtFomModule m;
      ASSERT_TRUE(DtFomReader::readBuffer(row.text.data(), row.text.size(), "base.xml", m, error))
          << error;
      EXPECT_EQ(fingerprint(m), fingerprint(reference));
   }
}

// Values read alike however a file lays them out: blanks around them dropped, inner
// runs of blanks, tabs and line ends made one blank, text split by comments or CDATA
// joined; on both sides of every eight-byte step of the scan for blanks, in short and
// long values, and with bytes above 0x7f.
TEST(FomReader, ValuesAreTrimmedCollapsedAndJoined)
{
   std::string const longRun(70, 'x');
   struct Row
   {
      std::string raw;
      std::string read;
   } const rows[] = {
       {"  HLAoctetPair  ", "HLAoctetPair"},
       {"Long\tName With  Blanks", "Long Name With Blanks"},
       {"ABCDEFGH\tIJ", "ABCDEFGH IJ"},
       {"ABCDEFG\nH", "ABCDEFG H"},
       {"ABCDEFGHIJKLMNO  P", "ABCDEFGHIJKLMNO P"},
       {"ABCDEFGHIJKLMNOP", "ABCDEFGHIJKLMNOP"},
       {"Split<!-- c -->Name", "SplitName"},
       {" \n Split <!-- c -->\n\t Name  ", "Split Name"},
       {"A<![CDATA[  B  ]]>C", "A B C"},
       {longRun + "\r\n  y", longRun + " y"},
       {longRun + " y  z", longRun + " y z"},
       {"\xC3\x84\xC3\x96\xC3\x9C\xC3\x9F\xC3\xA9\t\tx", "\xC3\x84\xC3\x96\xC3\x9C\xC3\x9F\xC3\xA9 x"},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.raw);
      std::string const text =
          "<objectModel xmlns=\"http://standards.ieee.org/IEEE1516-2010\"><dataTypes>"
          "<basicDataRepresentations><basicData><name>" + row.raw +
          "</name><size>8</size></basicData></basicDataRepresentations>"
          "<fixedRecordDataTypes><fixedRecordData><name>F</name><field><name>f</name>"
          "<dataType>" + row.raw + "</dataType></field></fixedRecordData></fixedRecordDataTypes>"
          "<variantRecordDataTypes><variantRecordData><name>V</name><dataType>E</dataType>"
          "<alternative><enumerator>" + row.raw + "</enumerator><name>" + row.raw +
          "</name><dataType>Ext<!-- x -->Type</dataType></alternative>"
          "<alternative><enumerator> HLAother </enumerator><name>\nOther</name></alternative>"
          "</variantRecordData></variantRecordDataTypes></dataTypes></objectModel>";
      DtFomModule m;
      DtString error;
      ASSERT_TRUE(DtFomReader::readBuffer(text.data(), text.size(), "m.xml", m, error)) << error;
      ASSERT_EQ(m.basicDataRepresentationTable().size(), 1u);
      EXPECT_EQ((*m.basicDataRepresentationTable().begin())->name.stdString(), row.read);
      ASSERT_EQ(m.variantRecordDatatypeTable().size(), 1u);
      EXPECT_EQ((*m.variantRecordDatatypeTable().begin())->alternatives.stdString(),
                row.read + "=" + row.read + ":ExtType; HLAother=Other");
      // The field's type is the module's own basic type, so only the others are left
      // to be found elsewhere.
      std::vector<std::string> references;
      for (auto const& reference : m.datatypeReferences())
         references.push_back(reference.first.stdString());
      EXPECT_EQ(references, (std::vector<std::string>{"E", "ExtType"}));
   }
}

TEST(FomReader, EmptyAndAbsentTablesAndNamelessModules)
{
   std::string const empty =
       "<objectModel xmlns=\"http://standards.ieee.org/IEEE1516-2010\">"
       "<modelIdentification><name>  </name></modelIdentification><objects/><updateRates/>"
       "<dataTypes><simpleDataTypes/><arrayDataTypes></arrayDataTypes></dataTypes><switches/>"
       "</objectModel>";
   for (std::string const& text : {empty, std::string("<objectModel/>")})
   {
      SCOPED_TRACE(text);
      DtFomModule m;
      DtString error;
      ASSERT_TRUE(DtFomReader::readBuffer(text.data(), text.size(), "dir/blank.xml", m, error))
          << error;
      EXPECT_EQ(m.modelIdentification(), "blank.xml") << "named by its file";
      EXPECT_EQ(fingerprint(m), "blank.xml|");
   }
}

TEST(FomReader, FaultyInputGivesFileLineAndReason)
{
   std::string deep = "<objectModel><objects>\n";
   for (int i = 0; i < 300; ++i)
      deep += "<objectClass><name>C</name>";
   for (int i = 0; i < 300; ++i)
      deep += "</objectClass>";
   deep += "</objects></objectModel>";
   struct Row
   {
      std::string text;
      char const* error;
   } const rows[] = {
       {"", "m.xml:1: not well-formed XML: No document element found"},
       {"<objectModel>\n<objects>\n</objectModel>",
        "m.xml:3: not well-formed XML: Start-end tags mismatch"},
       {std::string("<objectModel>\0</objectModel>", 28), "m.xml:1: not well-formed XML: "},
       {"<objectModel/>\n<objectModel/>", "m.xml:2: not well-formed XML: a second root element"},
       {"<?xml version=\"1.0\"?>\n<fom/>",
        "m.xml:2: not an object model: the root element is <fom>, not <objectModel>"},
       {"<objectModel xmlns=\"http://standards.ieee.org/IEEE1516-2025\"/>",
        "m.xml:1: not an IEEE 1516-2010 object model: namespace "
        "\"http://standards.ieee.org/IEEE1516-2025\""},
       {"<objectModel><updateRates>\n<updateRate><name>R</name>\n<rate>fast</rate>"
        "</updateRate></updateRates></objectModel>",
        "m.xml:3: rate \"fast\" is not a number"},
       {"<objectModel><dataTypes><basicDataRepresentations>\n<basicData><name>B</name>"
        "<endian>Middle</endian></basicData></basicDataRepresentations></dataTypes></objectModel>",
        "m.xml:2: endian \"Middle\" is neither Big nor Little"},
       {"<objectModel><dataTypes><basicDataRepresentations><basicData><name>B</name>"
        "<size>-8</size></basicData></basicDataRepresentations></dataTypes></objectModel>",
        "m.xml:1: size \"-8\" is not a whole number up to 4294967295"},
       {"<objectModel><synchronizations><synchronizationPoint><label>S</label><capability>"
        "Sometimes</capability></synchronizationPoint></synchronizations></objectModel>",
        "capability \"Sometimes\" is not one of"},
       {"<objectModel><transportations><transportation><name>T</name><reliable>Maybe</reliable>"
        "</transportation></transportations></objectModel>",
        "reliable \"Maybe\" is neither Yes nor No"},
       {"<objectModel><switches><autoProvide isEnabled=\"yes\"/></switches></objectModel>",
        "isEnabled \"yes\" is neither true nor false"},
       {"<objectModel><switches><autoProvide/></switches></objectModel>",
        "switch autoProvide without isEnabled"},
       {"<objectModel><switches><automaticResignAction resignAction=\"Flee\"/></switches>"
        "</objectModel>",
        "resignAction \"Flee\" is not a resign action"},
       {"<objectModel><objects><objectClass><sharing>Neither</sharing></objectClass></objects>"
        "</objectModel>",
        "object class without a name"},
       {"<objectModel><dimensions><dimension><name>D</name><value>[3..1)</value></dimension>"
        "</dimensions></objectModel>",
        "dimension value \"[3..1)\" is not a range [lower..upper)"},
       {"<objectModel><dimensions><dimension><name>D</name><upperBound>many</upperBound>"
        "</dimension></dimensions></objectModel>",
        "upperBound \"many\" is not a whole number"},
       {deep, "m.xml:2: object classes nested deeper than 256 levels"},
   };
   for (auto const& row : rows)
   {
      SCOPED_TRACE(row.error);
      DtFomModule m;
      DtString error;
      EXPECT_FALSE(DtFomReader::readBuffer(row.text.data(), row.text.size(), "m.xml", m, error));
      EXPECT_NE(error.stdString().find(row.error), std::string::npos) << error;
   }
   DtFomModule m;
   DtString error;
   EXPECT_FALSE(DtFomReader::readBuffer(nullptr, 5, "m.xml", m, error));
}

TEST(FomReader, UnreadableFilesNameThemselves)
{
   DtFomModule m;
   DtString error;
   EXPECT_FALSE(DtFomReader::readFile("/nonexistent/fom.xml", m, error));
   EXPECT_EQ(error, "/nonexistent/fom.xml: No such file or directory");
   EXPECT_FALSE(DtFomReader::readFile(theTestModules.c_str(), m, error));
   EXPECT_EQ(error, theTestModules + ": Is a directory");
}

TEST(FomModule, StatusTexts)
{
   EXPECT_STREQ(DtFomModule::statusText(16), "object class conflict");
   EXPECT_STREQ(DtFomModule::statusText(18), "dimension conflict");
   EXPECT_STREQ(DtFomModule::statusText(21), "success");
   EXPECT_STREQ(DtFomModule::statusText(4), "update rate conflict");
}

// ---------------------------------------------------------------- merging read modules

TEST(FomModuleMerge, EachConflictStrictAgainstLenient)
{
   struct Row
   {
      char const* file;
      int status;
      char const* warning;                 // the whole lenient warning; null where there is none
      bool (*united)(DtFomModule const&);  // what the lenient merge took over
   } const rows[] = {
       {"conflict_time.xml", DtMergeFomTimeTypeConflict, nullptr, nullptr},
       {"conflict_switches.xml", DtMergeFomSwitchConflict,
        // The resign action's conflict, after the switch's, replaces it with the header.
        "Merge Error ignored: Conflicting switch(es) when merging from FOM Other switches during "
        "createFederation\n\tautomaticResignAction: NoAction\n",
        [](DtFomModule const& m) {
           return m.autoProvide() && m.automaticResignAction() == DtResignDeleteObjectsThenDivest;
        }},
       {"conflict_rates.xml", DtMergeFomUpdateRateConflict,
        "Merge Error ignored: \tSlow: 0.25, \"Twice a second\"\n",
        [](DtFomModule const& m) { return m.numUpdateRates() == 2; }},
       {"conflict_transport.xml", DtMergeFomTransportTypeConflict,
        "Merge Error ignored: \tFast: Reliable, \"\", \"Low latency, spread over lines\"\n",
        [](DtFomModule const& m)
        { return m.numTransports() == 3 && !m.transportTypeFromTransportation("Fast")->reliable; }},
       {"conflict_sync.xml", DtMergeFomSyncPointConflict,
        "Merge Error ignored: \tReady: TimeType, 2, \"All up\"\n",
        [](DtFomModule const& m) { return m.numSyncPoints() == 2; }},
       {"conflict_tags.xml", DtMergeFomUserSuppliedTagConflict,
        "Merge Error ignored: \tupdateReflectTag: TimeType, \"Stamp\"\n",
        [](DtFomModule const& m) { return m.numUserSuppliedTags() == 3; }},
       {"conflict_objects.xml", DtMergeFomObjectClassConflict,
        "Merge Error ignored: Other objects has conflicts in Object Classes:\n"
        "\tHLAobjectRoot.Vehicle.Speed: HLAoctet, HLAreliable, \"\"\n",
        [](DtFomModule const& m)
        {
           auto const& v = m.objectClasses().at("HLAobjectRoot.Vehicle");
           return v.attributes.size() == 2 && v.attributes[0].dataType == "SpeedType";
        }},
       {"conflict_interactions.xml", DtMergeFomInteractionClassConflict,
        "Merge Error ignored: Other interactions has conflicts in Interaction Classes:\n"
        "\tHLAinteractionRoot.Honk.Loudness: HLAoctet\n",
        [](DtFomModule const& m) { return m.knownParameter("HLAinteractionRoot.Honk", "Pitch"); }},
       {"conflict_dimensions.xml", DtMergeFomDimensionConflict,
        "Merge Error ignored: Other dimensions has conflicts in Dimensions:\n"
        "\tLane: LaneIndex, 8, \"\", Excluded\n",
        [](DtFomModule const& m)
        { return m.dimensions().size() == 2 && m.dimensions().at("Lane").upperBound == 4; }},
   };
   for (auto const& row : rows)
   {
      SCOPED_TRACE(row.file);
      auto const other = testModule(row.file);
      for (bool strict : {true, false})
      {
         auto const base = testModule("base.xml");
         std::string const before = fingerprint(*base);
         base->setStrictChecking(strict);
         olt::CapturePrinter warn(DtWarn);
         int const status = base->mergeTarget(*other, true);
         if (strict || !row.warning)
         {
            EXPECT_EQ(status, row.status);
            EXPECT_EQ(warn.text(), "");
            EXPECT_EQ(fingerprint(*base), before) << "a failed merge changes nothing here";
         }
         else
         {
            EXPECT_EQ(status, DtMergeFomSuccess);
            EXPECT_EQ(warn.text(), row.warning);
            EXPECT_TRUE(row.united(*base));
         }
      }
   }
}

TEST(FomModuleMerge, NotesConflictOnlyWhenTheirTableIsMerged)
{
   auto const base = testModule("base.xml");
   auto const other = testModule("conflict_notes.xml");
   base->setStrictChecking(true);
   EXPECT_EQ(base->mergeTarget(*other, true), DtMergeFomSuccess);
   EXPECT_EQ(base->numNotes(), 1u);
   base->setMergeTableMask(DtFedTarget::theDefaultMergeTableMask | DtMergeFomTableNotes);
   EXPECT_EQ(base->mergeTarget(*other, true), DtMergeFomNoteConflict);
}

TEST(FomModuleMerge, DataTypesThatDifferStillMerge)
{
   auto const base = testModule("base.xml");
   base->setStrictChecking(true);
   EXPECT_EQ(base->mergeTarget(*testModule("datatypes_differ.xml"), true), DtMergeFomSuccess);
   EXPECT_EQ((*base->basicDataRepresentationTable().begin())->size, 8u);
}

TEST(FomModuleMerge, ReferencesResolveOnlyAfterTheLastModule)
{
   DtString errors;
   auto const alone = testModule("refs_user.xml");
   EXPECT_EQ(alone->postMergeCheckTarget(errors), DtMergeFomPostMergeCheckFlagged);
   for (char const* line :
        {"Unresolved dimension Zone of attribute HLAobjectRoot.Sign.Range\n",
         "Unresolved transportation Slowest of attribute HLAobjectRoot.Sign.Range\n",
         "Unresolved data type Distance used by attribute HLAobjectRoot.Sign.Range\n"})
      EXPECT_NE(errors.stdString().find(line), std::string::npos) << line;

   for (bool userFirst : {true, false})
   {
      SCOPED_TRACE(userFirst ? "user first" : "library first");
      auto const a = testModule(userFirst ? "refs_user.xml" : "refs_lib.xml");
      auto const b = testModule(userFirst ? "refs_lib.xml" : "refs_user.xml");
      EXPECT_EQ(a->mergeTarget(*b, true), DtMergeFomSuccess);
      errors = "";
      EXPECT_EQ(a->postMergeCheckTarget(errors), DtMergeFomSuccess) << errors;
      EXPECT_EQ(a->fomDependencies().size(), 1u);
   }
}

TEST(FomModuleMerge, ClassesOutsideTheRootsFailTheCheck)
{
   std::string const text =
       "<objectModel><objects><objectClass><name>Loose</name></objectClass></objects>"
       "<interactions><interactionClass><name>Adrift</name></interactionClass></interactions>"
       "<switches><autoProvide isEnabled=\"true\"/></switches></objectModel>";
   DtFomModule m;
   DtString error;
   ASSERT_TRUE(DtFomReader::readBuffer(text.data(), text.size(), "loose.xml", m, error));
   DtString errors;
   EXPECT_EQ(m.postMergeCheckTarget(errors), DtMergeFomPostMergeCheckFailed);
   EXPECT_NE(errors.stdString().find("Object class Loose is not below HLAobjectRoot\n"),
             std::string::npos);
   EXPECT_NE(errors.stdString().find("Interaction class Adrift is not below HLAinteractionRoot\n"),
             std::string::npos);
}

// ---------------------------------------------------------------- real FOM modules

class RealModules : public ::testing::Test
{
protected:
   void SetUp() override
   {
      if (!exists(theRealModules))
         GTEST_SKIP() << "no FOM modules at " << theRealModules;
   }
};

TEST_F(RealModules, EveryFileReads)
{
   std::vector<std::string> files;
   xmlFiles(theRealModules, files);
   EXPECT_GE(files.size(), 50u);
   for (std::string const& f : files)
   {
      DtFomModule m;
      DtString error;
      EXPECT_TRUE(DtFomReader::readFile(f.c_str(), m, error)) << error;
   }
}

TEST_F(RealModules, RprSetMergesStrictlyInEitherOrder)
{
   std::vector<std::string> set = rprSet();
   DtString errors;
   EXPECT_EQ(mergeFiles(set, true, &errors), DtMergeFomSuccess) << errors;
   std::reverse(set.begin(), set.end());
   EXPECT_EQ(mergeFiles(set, true, &errors), DtMergeFomSuccess) << errors;
   // Without the modules it depends on, a module's references stay open.
   EXPECT_EQ(mergeFiles({set.back(), theRealModules + "rpr-fom-2.0/RPR-Base_v2.0.xml"}, false),
             DtMergeFomPostMergeCheckFlagged);
}

TEST_F(RealModules, IncompatiblePairsConflictOnlyWhenStrict)
{
   struct Row
   {
      char const* a;
      char const* b;
      int status;
   } const rows[] = {{"UpdateRate1-1", "UpdateRate1-2", DtMergeFomUpdateRateConflict},
                     {"UpdateRate2-1", "UpdateRate2-2", DtMergeFomUpdateRateConflict},
                     {"Dimension1-1", "Dimension1-2", DtMergeFomDimensionConflict},
                     {"UpdateRate1-1", "UpdateRate1-1", DtMergeFomSuccess}};
   DtNotifyLevel = 0;  // the lenient warnings are expected
   for (auto const& row : rows)
   {
      SCOPED_TRACE(row.b);
      std::string const dir = theRealModules + "openrti/";
      std::vector<std::string> const pair{dir + row.a + ".xml", dir + row.b + ".xml"};
      EXPECT_EQ(mergeFiles(pair, true), row.status == DtMergeFomSuccess
                                            ? DtMergeFomPostMergeCheckFailed  // no switches
                                            : row.status);
      EXPECT_EQ(mergeFiles(pair, false), DtMergeFomSuccess);
   }
   DtNotifyLevel = 2;
}

TEST_F(RealModules, SwitchesInACommentAreNoSwitches)
{
   DtFomModule m;
   DtString error;
   ASSERT_TRUE(
       DtFomReader::readFile((theRealModules + "disco/HLAstandardMIM.xml").c_str(), m, error));
   EXPECT_EQ(m.numSwitches(), 0u);
   EXPECT_FALSE(m.automaticResignActionIsSet());
}
