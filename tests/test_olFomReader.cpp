// Tests of the FOM module reader and of merging the modules it reads.
#include <fomreader/olFomReader.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

std::string const theTestModules = std::string(OLUTIL_SOURCE_DIR) + "/tests/fom/";
std::string const theRealModules = std::string(OLUTIL_SOURCE_DIR) + "/../shared/fom-modules/";

// Reads one of the test modules, failing the test if it does not read.
std::unique_ptr<DtFomModule> testModule(char const* name)
{
   auto module = std::make_unique<DtFomModule>();
   DtString error;
   EXPECT_TRUE(DtFomReader::readFile((theTestModules + name).c_str(), *module, error)) << error;
   return module;
}

// Every record of every table of the module, one a line, sorted.
std::multiset<std::string> records(DtFomModule const& m)
{
   std::multiset<std::string> lines{std::string("resign ") +
                                    DtFedTarget::enumAsString(m.automaticResignAction())};
   auto add = [&](auto const&... tables)
   {
      auto one = [&](auto const& r)
      {
         DtString line;
         r->appendToString(line);
         lines.insert(line.stdString());
      };
      ((std::for_each(tables.begin(), tables.end(), one)), ...);
   };
   add(m.timeTypeTable(), m.userSuppliedTagTable(), m.syncPointTable(), m.transportTypeTable(),
       m.updateRateTable(), m.noteTable(), m.basicDataRepresentationTable(),
       m.simpleDatatypeTable(), m.enumeratedDatatypeTable(), m.arrayDatatypeTable(),
       m.fixedRecordDatatypeTable(), m.variantRecordDatatypeTable());
   auto member = [&](DtString line, auto const& member)
   {
      DtFomModule::appendToString(member, line += ".");
      lines.insert(line.stdString());
   };
   for (auto const& [name, on] : m.switchTable())
      lines.insert(name.stdString() + (on ? " on" : " off"));
   for (auto const& dimension : m.dimensions())
      member("dimension", dimension.second);
   for (auto const& [name, c] : m.objectClasses())
      for (auto const& attribute : c.attributes)
         member(name, attribute);
   for (auto const& [name, c] : m.interactionClasses())
   {
      member("interaction", c);
      for (auto const& parameter : c.parameters)
         member(name, parameter);
   }
   return lines;
}

// The text with each pair's first part replaced by its second, pair after pair.
std::string edit(std::string text, std::vector<std::pair<std::string, std::string>> const& edits)
{
   for (auto const& [from, to] : edits)
      for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
         text.replace(at, from.size(), to);
   return text;
}

}  // namespace

// base.xml in every form real files take: line ends, byte order mark, namespaces, a prefix,
// values laid out otherwise.
TEST(FomReader, ReadsEveryTableInEveryForm)
{
   // Checked by hand against base.xml.
   std::string const expected =
       "Base\nFast: BestEffort, \"\", \"Low latency, spread over lines\"\n"
       "HLAinteractionRoot.Honk.Loudness: LevelEnum\n"
       "HLAobjectRoot.Vehicle.Car.Doors: HLAoctet, Fast, \"\"\n"
       "HLAobjectRoot.Vehicle.Speed: SpeedType, HLAreliable, \"Lane\"\n"
       "HLAoctet: 8, 1, \"Byte\", \"8 bits\"\nHLAreliable: Reliable, \"\", \"TCP\"\n"
       "Int32LE: 32, 2, \"Integer\", \"two's complement\"\n"
       "LaneIndex: \"HLAoctet\", \"\", \"\", \"\", \"\"\nLevelEnum: \"HLAoctet\", \"Loudness\"\n"
       "N1: \"A note\"\nPlate: \"HLAoctet\", \"8\", \"HLAfixedArray\", \"Number plate\"\n"
       "Position: \"HLAfixedRecord\", \"Where\"\nReady: NA, 3, \"All up\"\n"
       "Signal: Kind, \"LevelEnum\", \"Low=Quiet:HLAoctet; HLAother=NA\", \"HLAvariantRecord\", "
       "\"A signal\"\n"
       "Slow: 0.5, \"Twice a second\"\n"
       "SpeedType: \"Int32LE\", \"m/s\", \"1\", \"Perfect\", \"Speed\"\n"
       "TimeType: \"Int32LE\", \"\", \"\", \"\", \"\"\nattributeRelevanceAdvisory off\n"
       "attributeScopeAdvisory off\nautoProvide on\nconveyProducingFederate off\n"
       "conveyRegionDesignatorSets off\ndelaySubscriptionEvaluation off\n"
       "deleteRemoveTag: NA, \"NA\"\n"
       "dimension.Lane: LaneIndex, 4, \"linear (Lane, 0, 4)\", [0..4)\nexceptionReporting off\n"
       "interaction.HLAinteractionRoot.Honk: Fast, \"Lane\"\n"
       "interaction.HLAinteractionRoot: , \"\"\ninteractionRelevanceAdvisory on\n"
       "lookahead: TimeType, \"Seconds, not negative\"\nobjectClassRelevanceAdvisory on\n"
       "resign DeleteObjectsThanDivest\nserviceReporting off\ntimeStamp: TimeType, \"Seconds\"\n"
       "updateReflectTag: HLAoctet, \"Stamp\"";
   std::ifstream in(theTestModules + "base.xml", std::ios::binary);
   std::string const plain{std::istreambuf_iterator<char>(in), {}};
   std::string const blank = "blank.xml\nresign CancelThenDeleteThenDivest";
   std::pair<std::string, std::string> const forms[] = {
       {plain, expected},
       {edit(plain, {{"\n", "\r\n"}}), expected},
       {"\xEF\xBB\xBF" + plain, expected},
       {edit(plain, {{"standards.ieee.org/", "www.sisostds.org/schemas/"}}), expected},
       {edit(plain, {{" xmlns=\"http://standards.ieee.org/IEEE1516-2010\"", ""}}), expected},
       {edit(edit(plain, {{"</", "\x01"}, {"<", "<fom:"}, {"<fom:?", "<?"}, {"<fom:!", "<!"}}),
             {{"\x01", "</fom:"}, {"xmlns=", "xmlns:fom="}}),
        expected},
       // Values trimmed, blank runs made one on both sides of the scan's eight-byte steps,
       // text split by a comment or CDATA joined.
       {edit(plain, {{"Twice a second", "\n Twice a\nsecond "},
                     {"Seconds, not", "Seconds,\t\tnot"},
                     {"<name>Slow<", "<name> S<![CDATA[lo]]>w <!-- c -->\n<"},
                     {"<enumerator>Low<", "<enumerator> L<!-- x -->ow<"}}),
        expected},
       // Empty and absent tables: an empty module, named by its file.
       {"<objectModel/>", blank},
       {"<objectModel><modelIdentification><name> </name></modelIdentification><objects/>"
        "<updateRates/><dataTypes><simpleDataTypes/><arrayDataTypes></arrayDataTypes>"
        "</dataTypes><switches/></objectModel>",
        blank},
   };
   for (auto const& [text, read] : forms)
   {
      SCOPED_TRACE(text.substr(0, 120));
      DtFomModule m;
      DtString error;
      ASSERT_TRUE(DtFomReader::readBuffer(text.data(), text.size(), "d/blank.xml", m, error));
      std::string got = m.modelIdentification().stdString();
      for (std::string const& line : records(m))
         got += "\n" + line;
      EXPECT_EQ(got, read);
   }
   auto const m = testModule("base.xml");
   EXPECT_EQ(m->fomType(), DtFomType1516e);
   EXPECT_EQ(m->fomDependencies(), std::vector<DtString>{"MIM"});
   EXPECT_TRUE(m->datatypeReferences().empty()) << "its own data types are settled as read";
   DtString errors;
   EXPECT_EQ(m->postMergeCheckTarget(errors), DtMergeFomSuccess) << errors;
}

TEST(FomReader, FaultyInputGivesFileLineAndReason)
{
   auto model = [](std::string const& body) { return "<objectModel>" + body + "</objectModel>"; };
   std::string deep;
   for (int i = 0; i < 300; ++i)
      deep = "<objectClass><name>C</name>" + deep + "</objectClass>";
   std::pair<std::string, char const*> const rows[] = {
       {"", "m.xml:1: not well-formed XML: No document element found"},
       {"<objectModel>\n<objects>\n</objectModel>",
        "m.xml:3: not well-formed XML: Start-end tags mismatch"},
       {std::string("<objectModel>\0</objectModel>", 28), "m.xml:1: not well-formed XML: "},
       {"<objectModel/>\n<objectModel/>", "m.xml:2: not well-formed XML: a second root element"},
       {"\n<fom/>", "m.xml:2: not an object model: the root element is <fom>, not <objectModel>"},
       {"<objectModel xmlns=\"http://standards.ieee.org/IEEE1516-2025\"/>",
        "m.xml:1: not an IEEE 1516-2010 object model: namespace "
        "\"http://standards.ieee.org/IEEE1516-2025\""},
       {"<f:objectModel xmlns:f=\"urn:other\"/>",
        "m.xml:1: not an IEEE 1516-2010 object model: namespace \"urn:other\""},
       {model("<updateRates>\n<updateRate><name>R</name>\n<rate>fast</rate></updateRate>"
              "</updateRates>"),
        "m.xml:3: rate \"fast\" is not a number"},
       {model("<dataTypes><basicDataRepresentations>\n<basicData><name>B</name><endian>Middle"
              "</endian></basicData></basicDataRepresentations></dataTypes>"),
        "m.xml:2: endian \"Middle\" is neither Big nor Little"},
       {model("<dataTypes><basicDataRepresentations><basicData><name>B</name><size>-8</size>"
              "</basicData></basicDataRepresentations></dataTypes>"),
        "m.xml:1: size \"-8\" is not a whole number up to 4294967295"},
       {model("<transportations><transportation><name>T</name><reliable>Maybe</reliable>"
              "</transportation></transportations>"),
        "reliable \"Maybe\" is neither Yes nor No"},
       {model("<switches><autoProvide/></switches>"), "switch autoProvide without isEnabled"},
       {model("<switches><automaticResignAction resignAction=\"Flee\"/></switches>"),
        "resignAction \"Flee\" is not a resign action"},
       {model("<objects><objectClass><sharing>Neither</sharing></objectClass></objects>"),
        "object class without a name"},
       {model("<dimensions><dimension><name>D</name><value>[3..1)</value></dimension>"
              "</dimensions>"),
        "dimension value \"[3..1)\" is not a range [lower..upper)"},
       {model("<dimensions><dimension><name>D</name><value>[3..3)</value></dimension>"
              "</dimensions>"),
        "dimension value \"[3..3)\" is not a range [lower..upper)"},
       {model("<objects>\n" + deep + "</objects>"),
        "m.xml:2: object classes nested deeper than 256 levels"},
   };
   DtString error;
   for (auto const& [text, expected] : rows)
   {
      SCOPED_TRACE(expected);
      DtFomModule m;
      EXPECT_FALSE(DtFomReader::readBuffer(text.data(), text.size(), "m.xml", m, error));
      EXPECT_NE(error.stdString().find(expected), std::string::npos) << error;
   }
   DtFomModule m;
   EXPECT_FALSE(DtFomReader::readBuffer(nullptr, 5, "m.xml", m, error));
   EXPECT_FALSE(DtFomReader::readFile("/nonexistent/fom.xml", m, error));
   EXPECT_EQ(error, "/nonexistent/fom.xml: No such file or directory");
   EXPECT_FALSE(DtFomReader::readFile(theTestModules.c_str(), m, error));
   EXPECT_EQ(error, theTestModules + ": Is a directory");
}

// The other spellings of values, and the largest values and smallest ranges that read.
TEST(FomReader, ValueWordsAndLimitsThatRead)
{
   std::string deep = "<name>C</name>";
   for (int i = 1; i < 256; ++i)
      deep = "<objectClass><name>C</name>" + deep + "</objectClass>";
   // A module's body and a record it holds.
   std::pair<std::string, char const*> const rows[] = {
       {"<synchronizations><synchronizationPoint><label>S</label><capability>noachieve"
        "</capability></synchronizationPoint></synchronizations>",
        "S: , 4, \"\""},
       {"<transportations><transportation><name>T</name><reliable>TRUE</reliable>"
        "</transportation></transportations>",
        "T: Reliable, \"\", \"\""},
       {"<switches><autoProvide isEnabled=\"1\"/><serviceReporting isEnabled=\"0\"/></switches>",
        "autoProvide on"},
       {"<switches><automaticResignAction resignAction=\"DeleteObjectsThanDivest\"/></switches>",
        "resign DeleteObjectsThanDivest"},
       {"<dataTypes><basicDataRepresentations><basicData><name>B</name><size>4294967295</size>"
        "</basicData></basicDataRepresentations></dataTypes>",
        "B: 4294967295, 0, \"\", \"\""},
       {"<dimensions><dimension><name>D</name><value>[3)</value></dimension></dimensions>",
        "dimension.D: , 0, \"\", [3..4)"},
       {"<modelIdentification><reference><type>dependency</type><identification>Lib"
        "</identification></reference></modelIdentification>"
        "<objects><objectClass><name>HLAobjectRoot</name>" + deep + "</objectClass></objects>",
        "resign CancelThenDeleteThenDivest"},
   };
   for (auto const& [body, line] : rows)
   {
      SCOPED_TRACE(line);
      std::string const text = "<objectModel>" + body + "</objectModel>";
      DtFomModule m;
      DtString error;
      ASSERT_TRUE(DtFomReader::readBuffer(text.data(), text.size(), "m.xml", m, error)) << error;
      EXPECT_EQ(records(m).count(line), 1u);
      EXPECT_EQ(m.fomDependencies().size(), body.find("dependency") != std::string::npos ? 1u : 0u);
   }
}

// Strict: a conflict fails and changes nothing. Lenient: it is warned of, new records go in.
TEST(FomModuleMerge, EachConflictStrictAgainstLenient)
{
   struct Row
   {
      char const* file;
      int status;
      std::size_t added;
      char const* warning;  // after "Merge Error ignored: "; null: not forgiven
   } const rows[] = {
       {"conflict_time.xml", DtMergeFomTimeTypeConflict, 0, nullptr},
       // The resign action's conflict, after the switch's, replaces it with the header.
       {"conflict_switches.xml", DtMergeFomSwitchConflict, 0,
        "Conflicting switch(es) when merging from FOM Other switches during createFederation\n"
        "\tautomaticResignAction: NoAction\n"},
       {"conflict_rates.xml", DtMergeFomUpdateRateConflict, 1,
        "\tSlow: 0.25, \"Twice a second\"\n"},
       {"conflict_transport.xml", DtMergeFomTransportTypeConflict, 1,
        "\tFast: Reliable, \"\", \"Low latency, spread over lines\"\n"},
       {"conflict_sync.xml", DtMergeFomSyncPointConflict, 1, "\tReady: TimeType, 2, \"All up\"\n"},
       {"conflict_tags.xml", DtMergeFomUserSuppliedTagConflict, 1,
        "\tupdateReflectTag: TimeType, \"Stamp\"\n"},
       {"conflict_notes.xml", DtMergeFomNoteConflict, 1, "\tN1: \"Another note\"\n"},
       {"conflict_objects.xml", DtMergeFomObjectClassConflict, 1,
        "Other objects has conflicts in Object Classes:\n"
        "\tHLAobjectRoot.Vehicle.Speed: HLAoctet, HLAreliable, \"\"\n"},
       {"conflict_interactions.xml", DtMergeFomInteractionClassConflict, 1,
        "Other interactions has conflicts in Interaction Classes:\n"
        "\tHLAinteractionRoot.Honk.Loudness: HLAoctet\n"},
       {"conflict_dimensions.xml", DtMergeFomDimensionConflict, 1,
        "Other dimensions has conflicts in Dimensions:\n\tLane: LaneIndex, 8, \"\", Excluded\n"},
   };
   for (auto const& row : rows)
   {
      SCOPED_TRACE(row.file);
      for (bool strict : {true, false})
      {
         auto const base = testModule("base.xml");
         auto const kept = records(*base);
         base->setStrictChecking(strict);
         // Notes too, which the default mask leaves out.
         base->setMergeTableMask(DtFedTarget::theDefaultMergeTableMask | DtMergeFomTableNotes);
         olt::CapturePrinter warn(DtWarn);
         int const status = base->mergeTarget(*testModule(row.file), true);
         bool const fails = strict || !row.warning;
         EXPECT_EQ(status, fails ? row.status : DtMergeFomSuccess);
         EXPECT_EQ(warn.text(), fails ? "" : "Merge Error ignored: " + std::string(row.warning));
         auto const after = records(*base);
         EXPECT_TRUE(std::includes(after.begin(), after.end(), kept.begin(), kept.end()));
         EXPECT_EQ(after.size(), kept.size() + (fails ? 0 : row.added));
         EXPECT_TRUE(!fails || base->modelIdentification() == "Base") << "nothing joined";
      }
   }
   EXPECT_STREQ(DtFomModule::statusText(17), "interaction class conflict");
   EXPECT_STREQ(DtFomModule::statusText(18), "dimension conflict");
}

// What one module leaves out the other fills in, and within one lenient merge the
// conflicts of every step add up in lastError.
TEST(FomModuleMerge, ValuesLeftOutAreFilledInAndLenientConflictsAddUp)
{
   DtFomModule a, b, c;
   a.addAttribute("HLAobjectRoot.X", "y", "", "HLAreliable");
   b.addAttribute("HLAobjectRoot.X", "y", "T", "");
   a.addParameter("HLAinteractionRoot.I", "p", "");
   b.addParameter("HLAinteractionRoot.I", "p", "T");
   a.addDimension("D", 0, 0, 1, false, "");  // no upper bound given
   b.addDimension("D", 8, 0, 1, false, "");
   ASSERT_EQ(a.mergeTarget(b, true), DtMergeFomSuccess);
   EXPECT_EQ(a.lastError(), "") << "no conflict, not even a forgiven one";
   EXPECT_EQ(a.objectClasses().at("HLAobjectRoot.X").attributes.at(0).dataType, "T");
   EXPECT_EQ(a.interactionClasses().at("HLAinteractionRoot.I").parameters.at(0).dataType, "T");
   c.addModelIdentification("C");
   c.addAttribute("HLAobjectRoot.X", "y", "U", "");
   c.addUpdateRate(new DtUpdateRateType{"R", 2, ""});
   a.addUpdateRate(new DtUpdateRateType{"R", 1, ""});
   olt::CapturePrinter warn(DtWarn);
   EXPECT_EQ(a.mergeTarget(c, true), DtMergeFomSuccess);
   EXPECT_EQ(a.lastError(), "\tR: 2, \"\"C has conflicts in Object Classes:\n"
                            "\tHLAobjectRoot.X.y: U, , \"\"\n");
}

// References resolve only once the module defining them is merged, in either order.
TEST(FomModuleMerge, PostMergeCheck)
{
   DtString errors;
   EXPECT_EQ(testModule("refs_user.xml")->postMergeCheckTarget(errors),
             DtMergeFomPostMergeCheckFlagged);
   for (bool userFirst : {true, false})
   {
      auto const a = testModule(userFirst ? "refs_user.xml" : "refs_lib.xml");
      EXPECT_EQ(a->mergeTarget(*testModule(userFirst ? "refs_lib.xml" : "refs_user.xml"), true),
                DtMergeFomSuccess);
      DtString none;
      EXPECT_EQ(a->postMergeCheckTarget(none), DtMergeFomSuccess) << none;
   }
   for (char const* line :
        {"Unresolved dimension Zone of attribute HLAobjectRoot.Sign.Range\n",
         "Unresolved transportation Slowest of attribute HLAobjectRoot.Sign.Range\n",
         "Unresolved data type Distance used by attribute HLAobjectRoot.Sign.Range\n"})
      EXPECT_NE(errors.stdString().find(line), std::string::npos) << line;
}

// Every real module reads, and the 14 RPR modules merge strictly.
TEST(FomReader, RealModulesReadAndMerge)
{
   if (!std::filesystem::exists(theRealModules))
      GTEST_SKIP() << "no FOM modules at " << theRealModules;
   DtFomModule rpr;
   DtString error;
   ASSERT_TRUE(
       DtFomReader::readFile((theRealModules + "portico/HLAstandardMIM.xml").c_str(), rpr, error));
   rpr.setStrictChecking(true);
   std::size_t merged = 0;
   for (auto const& entry : std::filesystem::recursive_directory_iterator(theRealModules))
   {
      if (entry.path().extension() != ".xml")
         continue;
      DtFomModule m;
      EXPECT_TRUE(DtFomReader::readFile(entry.path().c_str(), m, error)) << error;
      bool const isRpr = entry.path().parent_path().filename() == "rpr-fom-2.0" &&
                         entry.path().filename().string().rfind("RPR-", 0) == 0;
      merged += isRpr;
      EXPECT_TRUE(!isRpr || rpr.mergeTarget(m, true) == DtMergeFomSuccess) << rpr.lastError();
   }
   EXPECT_EQ(merged, 14u);
   EXPECT_EQ(rpr.postMergeCheckTarget(error), DtMergeFomSuccess) << error;
}
