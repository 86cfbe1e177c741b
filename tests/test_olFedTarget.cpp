// Tests of the FOM records, the federation target and the merge of targets.
#include <olutil/olFedTarget.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

// The smallest concrete target: no classes of its own.
class Target : public DtFedTarget
{
public:
   // FOM type 0 is left as it is, never set, so that no switch has a setter.
   explicit Target(char const* name = "A", DtFomType type = DtFomType1516e)
   {
      addModelIdentification(name);
      if (type != DtFomTypeInvalid)
         setFomType(type);
   }
   bool addObjectClass(DtString const&) override { return false; }
   bool addAttribute(DtString const&, DtString const&, DtString const&, DtString const&) override
   {
      return false;
   }
   bool addInteractionClass(DtString const&, DtString const&) override { return false; }
   bool addParameter(DtString const&, DtString const&, DtString const&) override { return false; }
   bool knownObjectClass(DtString const&) const override { return false; }
   bool knownAttribute(DtString const&, DtString const&) const override { return false; }
   bool knownInteractionClass(DtString const&) const override { return false; }
   bool knownParameter(DtString const&, DtString const&) const override { return false; }

   // What a subclass's own steps see of the merge.
   DtMergeFomStatus_enum mergeObjectClasses(DtFedTarget const&) override
   {
      sawMergeInProgress = isMergeInProgress();
      return DtMergeFomSuccess;
   }
   // A subclass check that fails, raising the shared flag when asked to.
   bool resolveDimensions(DtString& errors, bool& flag) override
   {
      if (!failDimensions)
         return true;
      errors += "dimension missing\n";
      flag = flag || raiseFlag;
      return false;
   }
   bool sawMergeInProgress = false;
   bool failDimensions = false;
   bool raiseFlag = false;
};

// Raises the notification level for the span of a test, so that DtVerbose prints.
struct Level
{
   explicit Level(int level) : saved(DtNotifyLevel) { DtNotifyLevel = level; }
   ~Level() { DtNotifyLevel = saved; }
   int saved;
};

DtUpdateRateType* rate(char const* name, float value, char const* semantics = "")
{
   return new DtUpdateRateType{name, value, semantics};
}

template <typename T>
std::string text(T const& record)
{
   DtString out("<");
   record.appendToString(out);
   return out.stdString();
}

float const theNaN = std::numeric_limits<float>::quiet_NaN();

}  // namespace

// ---------------------------------------------------------------- records

TEST(FomRecords, AppendToStringWritesEachFormat)
{
   struct Row
   {
      std::string got;
      char const* expected;
   } const rows[] = {
       {text(DtTimeType{"timeStamp", "HLAfloat64Time", "sec"}),
        "<timeStamp: HLAfloat64Time, \"sec\""},
       {text(DtUserSuppliedTagsType{"updateReflectTag", "HLAopaqueData", ""}),
        "<updateReflectTag: HLAopaqueData, \"\""},
       {text(DtSynchronizationPointsType{"Ready", "Tag", 3, "go"}), "<Ready: Tag, 3, \"go\""},
       {text(DtTransportationType{"HLAreliable", "tcp", true, "s"}),
        "<HLAreliable: Reliable, \"tcp\", \"s\""},
       {text(DtTransportationType{"HLAbestEffort", "", false, ""}),
        "<HLAbestEffort: BestEffort, \"\", \"\""},
       {text(DtUpdateRateType{"Low", 10.56f, "slow"}), "<Low: 10.56, \"slow\""},
       {text(DtUpdateRateType{"Odd", theNaN, ""}), "<Odd: nan, \"\""},
       {text(DtBasicDataRepresentationType{"HLAinteger16BE", 16, "int", 1, "two's"}),
        "<HLAinteger16BE: 16, 1, \"int\", \"two's\""},
       {text(DtSimpleDatatypeType{"Years", "HLAinteger32BE", "y", "1", "Perfect", "age"}),
        "<Years: \"HLAinteger32BE\", \"y\", \"1\", \"Perfect\", \"age\""},
       {text(DtEnumeratedDatatypeType{"Flavor", "HLAinteger32BE", "soda"}),
        "<Flavor: \"HLAinteger32BE\", \"soda\""},
       {text(DtArrayDatatypeType{"Ids", "EmplId", "10", "HLAfixedArray", "staff"}),
        "<Ids: \"EmplId\", \"10\", \"HLAfixedArray\", \"staff\""},
       {text(DtFixedRecordDatatypeType{"Address", "HLAfixedRecord", "mail"}),
        "<Address: \"HLAfixedRecord\", \"mail\""},
       {text(DtVariantRecordDatatypeType{"Value", "Idx", "Level", "a=b", "HLAvariantRecord", "v"}),
        "<Value: Idx, \"Level\", \"a=b\", \"HLAvariantRecord\", \"v\""},
       {text(DtNotesType{"Note1", "about"}), "<Note1: \"about\""},
   };
   for (auto const& row : rows)
      EXPECT_EQ(row.got, row.expected);
}

TEST(FomRecords, TimeTypesCompareAllFieldsOthersOnlyTheName)
{
   DtTimeType const t{"timeStamp", "HLAfloat64Time", "a"};
   EXPECT_TRUE(t == (DtTimeType{"timeStamp", "HLAfloat64Time", "a"}));
   EXPECT_FALSE(t == (DtTimeType{"timeStamp", "HLAfloat64Time", "b"}));
   EXPECT_FALSE(t == (DtTimeType{"timeStamp", "HLAinteger64Time", "a"}));
   EXPECT_FALSE(t < (DtTimeType{"timeStamp", "Z", "z"}));
   EXPECT_TRUE(t < (DtTimeType{"timeStamq", "", ""}));

   EXPECT_TRUE((DtUpdateRateType{"R", 1, "a"}) == (DtUpdateRateType{"R", 2, "b"}));
   EXPECT_TRUE((DtNotesType{"N1", "z"}) < (DtNotesType{"N2", "a"}));
   EXPECT_FALSE((DtNotesType{"N2", "a"}) < (DtNotesType{"N1", "z"}));
}

TEST(FomRecords, CompareSubcomponentsStrictAndLenient)
{
   struct Row
   {
      char const* what;
      bool lenient;
      bool strict;
   } const rows[] = {
       {"tag, other semantics",
        DtUserSuppliedTagsType{"t", "D", "a"}.compareSubcomponents({"t", "D", "b"}, false),
        DtUserSuppliedTagsType{"t", "D", "a"}.compareSubcomponents({"t", "D", "b"}, true)},
       {"sync point, other capability only",
        DtSynchronizationPointsType{"s", "D", 1, "a"}.compareSubcomponents({"s", "D", 2, "a"},
                                                                           false),
        DtSynchronizationPointsType{"s", "D", 1, "a"}.compareSubcomponents({"s", "D", 2, "a"},
                                                                           true)},
       {"sync point, other data type",
        DtSynchronizationPointsType{"s", "D", 1, "a"}.compareSubcomponents({"s", "E", 1, "a"},
                                                                           false),
        DtSynchronizationPointsType{"s", "D", 1, "a"}.compareSubcomponents({"s", "E", 1, "a"},
                                                                           true)},
       {"transport, other reliability only",
        DtTransportationType{"x", "", true, ""}.compareSubcomponents({"x", "", false, ""}, false),
        DtTransportationType{"x", "", true, ""}.compareSubcomponents({"x", "", false, ""}, true)},
       {"transport, other description",
        DtTransportationType{"x", "a", true, ""}.compareSubcomponents({"x", "b", true, ""}, false),
        DtTransportationType{"x", "a", true, ""}.compareSubcomponents({"x", "b", true, ""}, true)},
       {"rate, both NaN and all else equal",
        DtUpdateRateType{"r", theNaN, "s"}.compareSubcomponents({"r", theNaN, "s"}, false),
        DtUpdateRateType{"r", theNaN, "s"}.compareSubcomponents({"r", theNaN, "s"}, true)},
       {"rate, equal", DtUpdateRateType{"r", 2, "s"}.compareSubcomponents({"r", 2, "s"}, false),
        DtUpdateRateType{"r", 2, "s"}.compareSubcomponents({"r", 2, "s"}, true)},
       {"note, other semantics", DtNotesType{"n", "a"}.compareSubcomponents({"n", "b"}, false),
        DtNotesType{"n", "a"}.compareSubcomponents({"n", "b"}, true)},
       {"simple data type, every field other",
        DtSimpleDatatypeType{"d", "a", "b", "c", "d", "e"}.compareSubcomponents(
            {"d", "1", "2", "3", "4", "5"}, false),
        DtSimpleDatatypeType{"d", "a", "b", "c", "d", "e"}.compareSubcomponents(
            {"d", "1", "2", "3", "4", "5"}, true)},
       {"basic data, other size",
        DtBasicDataRepresentationType{"b", 8, "", 0, ""}.compareSubcomponents({"b", 16, "", 1, ""},
                                                                              false),
        DtBasicDataRepresentationType{"b", 8, "", 0, ""}.compareSubcomponents({"b", 16, "", 1, ""},
                                                                              true)},
   };
   struct Expected
   {
      bool lenient, strict;
   } const expected[] = {{true, false}, {true, true}, {true, false}, {false, false}, {true, false},
                         {true, false}, {true, true}, {true, false}, {true, true},   {true, true}};
   for (std::size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i)
   {
      SCOPED_TRACE(rows[i].what);
      EXPECT_EQ(rows[i].lenient, expected[i].lenient);
      EXPECT_EQ(rows[i].strict, expected[i].strict);
   }
}

// ---------------------------------------------------------------- enumerations

TEST(FomEnumerations, NamesOfResignActionsAndTableBits)
{
   char const* const actions[] = {"UnconditionallyDivestAttributes",
                                  "DeleteObjects",
                                  "CancelPendingOwnershipAcquitions",
                                  "DeleteObjectsThanDivest",
                                  "CancelThenDeleteThenDivest",
                                  "NoAction",
                                  "unknown"};
   for (int i = 0; i < 7; ++i)
      EXPECT_STREQ(DtFedTarget::enumAsString(static_cast<DtResignAction>(i)), actions[i]);

   EXPECT_STREQ(DtFedTarget::enumAsString(DtMergeFomTableObjectClass), "ObjectClass");
   EXPECT_STREQ(DtFedTarget::enumAsString(DtMergeFomTableIdentification), "Identification");
   EXPECT_STREQ(DtFedTarget::enumAsString(DtMergeFomTableNotes), "Notes");
   EXPECT_STREQ(DtFedTarget::enumAsString(DtMergeFomTableVariantRecordDataType),
                "VariantRecordDataType");
   EXPECT_STREQ(DtFedTarget::enumAsString(DtMergeFomTableUnknown), "Unknown");
   EXPECT_STREQ(DtFedTarget::enumAsString(static_cast<DtMergeFomTableMask>(3)), "Unknown");
   EXPECT_STREQ(DtFedTarget::enumAsString(static_cast<DtMergeFomTableMask>(1ul << 19)), "Unknown");
}

TEST(FomEnumerations, DefaultMaskLeavesOutIdentificationDirectedReferenceAndNotes)
{
   Target t;
   for (unsigned long bit = 1; bit <= DtMergeFomTableNotes; bit <<= 1)
   {
      SCOPED_TRACE(bit);
      bool const off = bit == 1 || bit == 8 || bit == 131072 || bit == 262144;
      EXPECT_EQ(t.fomTableMergeEnabled(static_cast<DtMergeFomTableMask>(bit)), !off);
   }
   t.setMergeTableMask(DtMergeFomTableNotes);
   EXPECT_TRUE(t.fomTableMergeEnabled(DtMergeFomTableNotes));
   EXPECT_FALSE(t.fomTableMergeEnabled(DtMergeFomTableTime));
}

TEST(FomEnumerations, StatusTexts)
{
   EXPECT_STREQ(DtMergeFomStatusText(21), "success");
   EXPECT_STREQ(DtMergeFomStatusText(4), "update rate conflict");
   EXPECT_STREQ(DtMergeFomStatusText(2), "unknown status");
   EXPECT_STREQ(DtMergeFomStatusText(17), "unknown status");
}

// ---------------------------------------------------------------- tables

TEST(FomTables, AddTakesOwnershipAndKeepsTheFirstOfOneName)
{
   Target t;
   DtUpdateRateType* first = rate("R", 1);
   EXPECT_TRUE(t.addUpdateRate(first));
   // A second record of the name is deleted (the sanitizer build sees a leak otherwise).
   EXPECT_FALSE(t.addUpdateRate(rate("R", 2)));
   // The record the table holds, handed in again, must not be owned twice.
   EXPECT_FALSE(t.addUpdateRate(first));
   EXPECT_FALSE(t.addUpdateRate(nullptr));
   EXPECT_EQ(t.numUpdateRates(), 1u);
   EXPECT_EQ((*t.updateRateTable().begin())->rate, 1.0f);
   EXPECT_TRUE(t.knownUpdateRate(DtUpdateRateType{"R", 9, "x"}));
   EXPECT_FALSE(t.knownUpdateRate(DtUpdateRateType{"S", 1, ""}));
}

TEST(FomTables, TimeTableKeepsTwoRecordsOfOneName)
{
   Target t;
   DtTimeType* a = new DtTimeType{"timeStamp", "A", ""};
   EXPECT_TRUE(t.addTime(a));
   EXPECT_TRUE(t.addTime(new DtTimeType{"timeStamp", "B", ""}));
   EXPECT_FALSE(t.addTime(a));
   EXPECT_FALSE(t.addTime(nullptr));
   EXPECT_EQ(t.numTimeTypes(), 2u);
   EXPECT_TRUE(t.knownTime(DtTimeType{"timeStamp", "", ""}));
   EXPECT_FALSE(t.knownTime(DtTimeType{"lookahead", "", ""}));
}

TEST(FomTables, EveryTableCountsAndFindsByName)
{
   Target t;
   t.addSyncPoint(new DtSynchronizationPointsType{"S", "", 0, ""});
   t.addTransportType(new DtTransportationType{"HLAreliable", "", true, ""});
   t.addUserSuppliedTag(new DtUserSuppliedTagsType{"deleteRemoveTag", "", ""});
   t.addNote(new DtNotesType{"N", ""});
   t.addBasicDataRepresentation(new DtBasicDataRepresentationType{"B", 8, "", 0, ""});
   t.addSimpleDataType(new DtSimpleDatatypeType{"S", "", "", "", "", ""});
   t.addEnumeratedDataType(new DtEnumeratedDatatypeType{"E", "", ""});
   t.addArrayDataType(new DtArrayDatatypeType{"A", "", "", "", ""});
   t.addFixedRecordDataType(new DtFixedRecordDatatypeType{"F", "", ""});
   t.addVariantRecordDataType(new DtVariantRecordDatatypeType{"V", "", "", "", "", ""});
   EXPECT_EQ(t.numSyncPoints() + t.numTransports() + t.numUserSuppliedTags() + t.numNotes(), 4u);
   EXPECT_TRUE(t.knownSyncPoint({"S", "", 0, ""}));
   EXPECT_TRUE(t.knownTransportType({"HLAreliable", "", false, ""}));
   EXPECT_TRUE(t.knownUserSuppliedTag({"deleteRemoveTag", "", ""}));
   EXPECT_TRUE(t.knownNote({"N", ""}));
   EXPECT_TRUE(t.knownBasicDataRepresentation({"B", 0, "", 0, ""}));
   EXPECT_TRUE(t.knownSimpleDatatype({"S", "", "", "", "", ""}));
   EXPECT_TRUE(t.knownEnumeratedDatatype({"E", "", ""}));
   EXPECT_TRUE(t.knownArrayDatatype({"A", "", "", "", ""}));
   EXPECT_TRUE(t.knownFixedRecordDatatype({"F", "", ""}));
   EXPECT_TRUE(t.knownVariantRecordDatatype({"V", "", "", "", "", ""}));
   EXPECT_FALSE(t.knownVariantRecordDatatype({"F", "", "", "", "", ""}));
   ASSERT_NE(t.transportTypeFromTransportation("HLAreliable"), nullptr);
   EXPECT_TRUE(t.transportTypeFromTransportation("HLAreliable")->reliable);
   EXPECT_EQ(t.transportTypeFromTransportation("HLAbestEffort"), nullptr);
}

TEST(FomTables, CopiesShareRecords)
{
   Target a;
   a.addNote(new DtNotesType{"N", "x"});
   Target b(a);
   Target c("C");
   c = a;
   EXPECT_EQ(b.noteTable().begin()->get(), a.noteTable().begin()->get());
   EXPECT_EQ(c.noteTable().begin()->get(), a.noteTable().begin()->get());
   EXPECT_EQ(c.modelIdentification(), "A");
}

TEST(FomTables, ModelIdentificationPartsAndDependencies)
{
   Target t("Base");
   t.addModelIdentification(nullptr);
   t.addModelIdentification("Physical");
   EXPECT_EQ(t.modelIdentification(), "Base + Physical");
   EXPECT_TRUE(t.knownModelIdentification("Base"));
   EXPECT_TRUE(t.knownModelIdentification("Physical"));
   EXPECT_TRUE(t.knownModelIdentification("Base + Physical"));
   EXPECT_FALSE(t.knownModelIdentification("Phys"));
   EXPECT_FALSE(t.modelIdentificationSame(Target("Base")));

   t.setFomDependencies({"MIM", "Foundation"});
   std::vector<DtString> out;
   t.fomDependencies(out);
   ASSERT_EQ(out.size(), 2u);
   EXPECT_EQ(out[1], "Foundation");
   EXPECT_EQ(t.fomDependencies().size(), 2u);

   EXPECT_TRUE(DtFedTarget::checkStringsIgnoringWhiteSpaceAndNewline("a b\r\n\tc", "abc"));
   EXPECT_FALSE(DtFedTarget::checkStringsIgnoringWhiteSpaceAndNewline("a b", "ab c d"));
}

// ---------------------------------------------------------------- switches

TEST(FomSwitches, StandardNamesPerFomType)
{
   char const* const names[] = {"autoProvide",
                                "serviceReporting",
                                "exceptionReporting",
                                "delaySubscriptionEvaluation",
                                "conveyProducingFederate",
                                "nonRegulatedGrant",
                                "allowRelaxedDDM",
                                "allowRelaxedDdm",
                                "automaticResignAction"};
   // One row per FOM type, -1 for a type never set; one letter per name: s standard.
   struct Row
   {
      int type;
      char const* expected;
   } const rows[] = {{-1, "---------"}, {0, "ss-------"}, {1, "ss-------"},
                     {2, "ss-------"},  {3, "sssss---s"}, {4, "ssss-ss-s"}};
   for (auto const& row : rows)
   {
      Target t("A", DtFomTypeInvalid);
      if (row.type >= 0)
         t.setFomType(static_cast<DtFomType>(row.type));
      std::string got;
      for (char const* name : names)
         got += t.isStandardSwitch(name) ? 's' : '-';
      EXPECT_EQ(got, row.expected) << "FOM type " << row.type;
   }
}

TEST(FomSwitches, AddSwitchRecordsRunsTheSetterAndRefusesConflicts)
{
   Level verbose(3);
   Target t("M");
   olt::CapturePrinter log(DtVerbose);
   t.addSwitch("autoProvide", true);
   t.addSwitch("autoProvide", true);
   t.addSwitch("autoProvide", false);
   t.addSwitch("madeUp", true);
   EXPECT_TRUE(t.autoProvide());
   EXPECT_TRUE(t.switchValue("autoProvide"));
   EXPECT_EQ(t.numSwitches(), 1u);
   EXPECT_FALSE(t.knownSwitch("madeUp"));
   EXPECT_EQ(log.text(),
             "\tautoProvide                   :  enabled\n"
             "Ignored attempt to add duplicate conflicting switch autoProvide with current value: "
             "enabled rejected value: disabled in FOM M\n"
             "Ignored attempt to add non standard switch madeUp with value enabled in FOM M\n");
}

TEST(FomSwitches, TypeDecidesWhatIsIgnoredAndWhatIsFixed)
{
   Target untyped("A", DtFomTypeInvalid);
   untyped.addSwitch("autoProvide", true);
   EXPECT_EQ(untyped.numSwitches(), 0u);
   EXPECT_FALSE(untyped.autoProvide());

   Target older("A", DtFomType1516);
   older.addSwitch("exceptionReporting", true);
   EXPECT_EQ(older.numSwitches(), 0u);

   // Type 4 keeps conveyProducingFederate on, whatever the table says.
   Target latest("A", DtFomTypeHla4);
   EXPECT_TRUE(latest.conveyProducingFederate());
   EXPECT_TRUE(latest.switchValue("conveyProducingFederate"));
   EXPECT_FALSE(Target("A", DtFomType1516e).switchValue("conveyProducingFederate"));
   latest.addSwitch("allowRelaxedDDM", true);
   EXPECT_TRUE(latest.allowRelaxedDdm());
}

TEST(FomSwitches, NewTargetsTakeTheClassWideDefaults)
{
   EXPECT_FALSE(DtFedTarget::defaultServiceReporting());
   EXPECT_EQ(DtFedTarget::defaultAutomaticResignAction(), DtResignCancelThenDeleteThenDivest);
   DtFedTarget::setDefaultServiceReporting(true);
   DtFedTarget::setDefaultAutomaticResignAction(DtResignNoAction);
   Target t;
   DtFedTarget::setDefaultServiceReporting(false);
   DtFedTarget::setDefaultAutomaticResignAction(DtResignCancelThenDeleteThenDivest);
   EXPECT_TRUE(t.serviceReporting());
   EXPECT_EQ(t.automaticResignAction(), DtResignNoAction);
   EXPECT_FALSE(t.automaticResignActionIsSet());
   EXPECT_FALSE(Target().serviceReporting());
   // The forwarding pair reaches the target's own value.
   DtFedTarget::setServiceReporting(&t, false);
   EXPECT_FALSE(DtFedTarget::serviceReporting(&t));
}

// ---------------------------------------------------------------- merging

TEST(FomMerge, EmptyOtherAndMaskZeroStillJoinNamesAndReferences)
{
   Target a("A"), b("B");
   EXPECT_EQ(a.mergeTarget(b, true), DtMergeFomSuccess);
   EXPECT_EQ(a.modelIdentification(), "A + B");

   Target c("C");
   c.addUpdateRate(rate("R", 1));
   c.addUnresolvedAttributeDimension("HLAobjectRoot.X", "y", "D");
   a.setMergeTableMask(0);
   EXPECT_EQ(a.mergeTarget(c, true), DtMergeFomSuccess);
   EXPECT_EQ(a.numUpdateRates(), 0u);
   EXPECT_EQ(a.unresolvedAttributeDimensionTable().at("HLAobjectRoot.X").size(), 1u);
   EXPECT_EQ(a.modelIdentification(), "A + B + C");
   EXPECT_FALSE(a.isMergeInProgress());
}

TEST(FomMerge, UpdateRateConflictStrictStopsLenientWarnsAndUnites)
{
   for (bool strict : {false, true})
   {
      SCOPED_TRACE(strict ? "strict" : "lenient");
      Target a("A"), b("B");
      a.setStrictChecking(strict);
      a.addUpdateRate(rate("R", 1));
      b.addUpdateRate(rate("R", 2));
      b.addUpdateRate(rate("S", 5));
      b.addTransportType(new DtTransportationType{"T", "", true, ""});
      olt::CapturePrinter warn(DtWarn);
      DtMergeFomStatus_enum const status = a.mergeTarget(b, true);
      EXPECT_EQ((*a.updateRateTable().begin())->rate, 1.0f);
      EXPECT_EQ(a.lastError(), "\tR: 2, \"\"");
      if (strict)
      {
         EXPECT_EQ(status, DtMergeFomUpdateRateConflict);
         EXPECT_EQ(a.numUpdateRates(), 1u);
         EXPECT_EQ(a.numTransports(), 0u) << "the steps after a failed one run";
         EXPECT_EQ(warn.text(), "");
         EXPECT_EQ(a.modelIdentification(), "A");
      }
      else
      {
         EXPECT_EQ(status, DtMergeFomSuccess);
         EXPECT_EQ(a.numUpdateRates(), 2u);
         EXPECT_EQ(a.numTransports(), 1u);
         EXPECT_EQ(warn.text(), "Merge Error ignored: \tR: 2, \"\"\n");
      }
   }
}

TEST(FomMerge, EveryConflictingTableGivesItsStatus)
{
   struct Row
   {
      char const* what;
      void (*fill)(DtFedTarget&, int);
      DtMergeFomStatus_enum status;
      unsigned long extraMask;
   } const rows[] = {
       {"time",
        [](DtFedTarget& t, int v) {
           t.addTime(new DtTimeType{"timeStamp", v ? "A" : "B", ""});
        },
        DtMergeFomTimeTypeConflict, 0},
       {"switches", [](DtFedTarget& t, int v) { t.addSwitch("autoProvide", v); },
        DtMergeFomSwitchConflict, 0},
       {"resign action",
        [](DtFedTarget& t, int v)
        { t.setAutomaticResignAction(v ? DtResignNoAction : DtResignDeleteObjects); },
        DtMergeFomSwitchConflict, 0},
       {"transport",
        [](DtFedTarget& t, int v) {
           t.addTransportType(new DtTransportationType{"T", "", v != 0, ""});
        },
        DtMergeFomTransportTypeConflict, 0},
       {"tags",
        [](DtFedTarget& t, int v) {
           t.addUserSuppliedTag(new DtUserSuppliedTagsType{"tag", v ? "A" : "B", ""});
        },
        DtMergeFomUserSuppliedTagConflict, 0},
       {"sync",
        [](DtFedTarget& t, int v) {
           t.addSyncPoint(new DtSynchronizationPointsType{"S", v ? "A" : "B", 0, ""});
        },
        DtMergeFomSyncPointConflict, 0},
       {"notes",
        [](DtFedTarget& t, int v) {
           t.addNote(new DtNotesType{"N", v ? "A" : "B"});
        },
        DtMergeFomNoteConflict, DtMergeFomTableNotes},
   };
   for (auto const& row : rows)
   {
      SCOPED_TRACE(row.what);
      for (bool strict : {false, true})
      {
         Target a("A"), b("B");
         a.setMergeTableMask(DtFedTarget::theDefaultMergeTableMask | row.extraMask);
         a.setStrictChecking(strict);
         row.fill(a, 1);
         row.fill(b, 0);
         olt::CapturePrinter warn(DtWarn);
         // A join, so that a switch the target holds cannot be taken over.
         DtMergeFomStatus_enum const status = a.mergeTarget(b, false);
         // Time types have no forgiveness; every other conflict is forgiven when lenient.
         bool const fails = strict || row.status == DtMergeFomTimeTypeConflict;
         EXPECT_EQ(status, fails ? row.status : DtMergeFomSuccess)
             << (strict ? "strict" : "lenient");
         EXPECT_EQ(warn.text(), fails ? ""
                                      : "Merge Error ignored: " + a.lastError().stdString() +
                                            (a.lastError().stdString().back() == '\n' ? "" : "\n"));
         EXPECT_FALSE(a.lastError().isEmpty());
      }
   }
}

TEST(FomMerge, DataTypeRecordsNeverConflictSoTheirStatusesCannotArise)
{
   Target a("A"), b("B");
   a.setStrictChecking(true);
   a.addBasicDataRepresentation(new DtBasicDataRepresentationType{"D", 8, "a", 0, "a"});
   a.addSimpleDataType(new DtSimpleDatatypeType{"D", "a", "a", "a", "a", "a"});
   a.addEnumeratedDataType(new DtEnumeratedDatatypeType{"D", "a", "a"});
   a.addArrayDataType(new DtArrayDatatypeType{"D", "a", "a", "a", "a"});
   a.addFixedRecordDataType(new DtFixedRecordDatatypeType{"D", "a", "a"});
   a.addVariantRecordDataType(new DtVariantRecordDatatypeType{"D", "a", "a", "a", "a", "a"});
   b.addBasicDataRepresentation(new DtBasicDataRepresentationType{"D", 64, "b", 1, "b"});
   b.addSimpleDataType(new DtSimpleDatatypeType{"D", "b", "b", "b", "b", "b"});
   b.addEnumeratedDataType(new DtEnumeratedDatatypeType{"D", "b", "b"});
   b.addArrayDataType(new DtArrayDatatypeType{"D", "b", "b", "b", "b"});
   b.addFixedRecordDataType(new DtFixedRecordDatatypeType{"D", "b", "b"});
   b.addVariantRecordDataType(new DtVariantRecordDatatypeType{"D", "b", "b", "b", "b", "b"});
   b.addSimpleDataType(new DtSimpleDatatypeType{"New", "", "", "", "", ""});
   EXPECT_EQ(a.mergeTarget(b, false), DtMergeFomSuccess);
   EXPECT_EQ((*a.basicDataRepresentationTable().begin())->size, 8u);
   EXPECT_EQ((*a.variantRecordDatatypeTable().begin())->encoding, "a");
   EXPECT_EQ(a.simpleDatatypeTable().size(), 2u);
   EXPECT_EQ(a.lastError(), "");
}

TEST(FomMerge, SecondConflictReplacesTheFirstWithTheHeader)
{
   Level verbose(3);
   Target a("A"), b("B");
   a.setStrictChecking(true);
   for (char const* name : {"P", "Q", "R"})
   {
      a.addUpdateRate(rate(name, 1));
      b.addUpdateRate(rate(name, 2));
   }
   olt::CapturePrinter log(DtVerbose);
   EXPECT_EQ(a.mergeTarget(b, true), DtMergeFomUpdateRateConflict);
   EXPECT_EQ(a.lastError(), "B has conflicts in Update Rates:\n\tR: 2, \"\"");
   EXPECT_NE(log.text().find("B has conflicts in Update Rates:\n\tR: 2, \"\"\n"),
             std::string::npos);
}

TEST(FomMerge, TimeTypesCopyCompareAndReportTheFirstMismatch)
{
   Target a("A"), b("B"), c("C");
   b.addTime(new DtTimeType{"timeStamp", "HLAfloat64Time", ""});
   EXPECT_EQ(a.mergeTarget(b, true), DtMergeFomSuccess);
   EXPECT_EQ(a.numTimeTypes(), 1u);
   EXPECT_EQ(a.mergeTarget(c, true), DtMergeFomSuccess) << "the other has none";

   // Unequal counts fail without a message.
   Target two("Two");
   two.addTime(new DtTimeType{"timeStamp", "HLAfloat64Time", ""});
   two.addTime(new DtTimeType{"lookahead", "HLAfloat64Time", ""});
   EXPECT_EQ(a.mergeTarget(two, true), DtMergeFomTimeTypeConflict);
   EXPECT_EQ(a.lastError(), "");

   Target other("D");
   other.addTime(new DtTimeType{"timeStamp", "HLAinteger64Time", "x"});
   EXPECT_EQ(a.mergeTarget(other, true), DtMergeFomTimeTypeConflict);
   EXPECT_EQ(a.lastError(),
             "D has conflicts in time types: \n\ttimeStamp: HLAinteger64Time, \"x\"");
}

TEST(FomMerge, SwitchesAreAdoptedOnCreateAndConflictOnJoin)
{
   Target b("B");
   b.addSwitch("autoProvide", true);
   b.addSwitch("serviceReporting", false);

   Target created("A");
   EXPECT_EQ(created.mergeTarget(b, true), DtMergeFomSuccess);
   EXPECT_TRUE(created.autoProvide());
   EXPECT_EQ(created.numSwitches(), 2u) << "a value equal to the default is recorded on create";

   Target joined("A");
   joined.setStrictChecking(true);
   Target onlyFalse("F");
   onlyFalse.addSwitch("serviceReporting", false);
   EXPECT_EQ(joined.mergeTarget(onlyFalse, false), DtMergeFomSuccess);
   EXPECT_EQ(joined.numSwitches(), 0u) << "and not on join";
   EXPECT_EQ(joined.mergeTarget(b, false), DtMergeFomSwitchConflict);
   EXPECT_EQ(joined.lastError(),
             "Conflicting switch(es) when merging from FOM B during joinFederation\n"
             "\tautoProvide: enabled\n");
   EXPECT_FALSE(joined.autoProvide());
}

TEST(FomMerge, ResignActionIsTakenOverOrConflicts)
{
   Target a("A"), b("B");
   b.setAutomaticResignAction(DtResignDeleteObjects);
   EXPECT_EQ(a.mergeTarget(b, true), DtMergeFomSuccess);
   EXPECT_EQ(a.automaticResignAction(), DtResignDeleteObjects);
   EXPECT_TRUE(a.automaticResignActionIsSet());

   // Alone, the conflict's text starts with a line end; after a switch conflict the
   // header replaces the switch lines.
   Target c("C");
   c.setAutomaticResignAction(DtResignCancelPendingOwnershipAcquisitions);
   a.setStrictChecking(true);
   EXPECT_EQ(a.mergeTarget(c, true), DtMergeFomSwitchConflict);
   EXPECT_EQ(a.lastError(), "\n\tautomaticResignAction: CancelPendingOwnershipAcquitions");

   a.addSwitch("autoProvide", false);
   c.addSwitch("autoProvide", true);
   EXPECT_EQ(a.mergeTarget(c, false), DtMergeFomSwitchConflict);
   EXPECT_EQ(a.lastError(),
             "Conflicting switch(es) when merging from FOM C during joinFederation"
             "\n\tautomaticResignAction: CancelPendingOwnershipAcquitions");
}

TEST(FomMerge, TagsMergeOnlyForTypesThreeAndFour)
{
   for (int type = 1; type <= 4; ++type)
   {
      Target a("A", static_cast<DtFomType>(type)), b("B", static_cast<DtFomType>(type));
      b.addUserSuppliedTag(new DtUserSuppliedTagsType{"deleteRemoveTag", "", ""});
      EXPECT_EQ(a.mergeTarget(b, true), DtMergeFomSuccess);
      EXPECT_EQ(a.numUserSuppliedTags(), type >= 3 ? 1u : 0u) << "FOM type " << type;
   }
}

TEST(FomMerge, FailedMergeKeepsTheStepsThatFinished)
{
   Target a("A"), b("B");
   a.setStrictChecking(true);
   a.addSwitch("autoProvide", false);
   b.addTime(new DtTimeType{"timeStamp", "T", ""});
   b.addSwitch("autoProvide", true);
   EXPECT_EQ(a.mergeTarget(b, false), DtMergeFomSwitchConflict);
   EXPECT_EQ(a.numTimeTypes(), 1u);
}

TEST(FomMerge, SubclassStepsRunWhileTheMergeIsInProgress)
{
   Target a("A"), b("B");
   EXPECT_FALSE(a.isMergeInProgress());
   a.mergeTarget(b, true);
   EXPECT_TRUE(a.sawMergeInProgress);
   EXPECT_FALSE(a.isMergeInProgress());
}

TEST(FomMerge, MergingATargetIntoItself)
{
   Target a("A");
   a.addUpdateRate(rate("R", 1));
   a.addSwitch("autoProvide", true);
   a.addUnresolvedInteractionDimension("HLAinteractionRoot.I", "D");
   EXPECT_EQ(a.mergeTarget(a, true), DtMergeFomSuccess);
   EXPECT_EQ(a.modelIdentification(), "A + A");
   EXPECT_EQ(a.numUpdateRates(), 1u);
   EXPECT_EQ(a.unresolvedInteractionDimensionTable().at("HLAinteractionRoot.I").size(), 1u);
}

TEST(FomMerge, StandAloneTransportMergeKeepsItsOwnWording)
{
   Target a("A"), b("B");
   a.addTransportType(new DtTransportationType{"T", "", true, ""});
   b.addTransportType(new DtTransportationType{"T", "udp", false, ""});
   b.addTransportType(new DtTransportationType{"U", "", false, ""});
   olt::CapturePrinter warn(DtWarn);
   EXPECT_EQ(a.mergeTransportTypes(b), DtMergeFomSuccess);
   EXPECT_EQ(a.lastError(), "B has conflicts in transport types:\n\tT: best_effort, \"udp\"");
   EXPECT_EQ(warn.text(), "Merge Error ignored: " + a.lastError().stdString() + "\n");
   EXPECT_EQ(a.numTransports(), 1u) << "a forgiven conflict leaves the table as it was";
   a.setStrictChecking(true);
   EXPECT_EQ(a.mergeTransportTypes(b), DtMergeFomTransportTypeConflict);

   Target c("C");
   c.setStrictChecking(true);
   c.addTransportType(new DtTransportationType{"U", "", true, ""});
   EXPECT_EQ(c.mergeTransportTypes(b), DtMergeFomTransportTypeConflict);
   EXPECT_EQ(c.numTransports(), 1u);
   EXPECT_TRUE(c.transportTypeConsistencyTest({"T", "", false, ""}));
}

// ---------------------------------------------------------------- unresolved references

TEST(FomUnresolved, RemovalKeepsTheKeyAndMergesUnite)
{
   Target a("A"), b("B");
   a.addUnresolvedAttributeTransportation("C", "x", "HLAreliable");
   a.addUnresolvedAttributeTransportation("C", "y", "HLAreliable");
   EXPECT_TRUE(a.removeResolvedAttributeTransportation("C", {"x", "HLAreliable"}));
   EXPECT_FALSE(a.removeResolvedAttributeTransportation("C", {"x", "HLAreliable"}));
   EXPECT_FALSE(a.removeResolvedAttributeTransportation("Nobody", {"x", "HLAreliable"}));
   EXPECT_TRUE(a.removeResolvedAttributeTransportation("C", {"y", "HLAreliable"}));
   ASSERT_EQ(a.unresolvedAttributeTransportationTable().count("C"), 1u);
   EXPECT_TRUE(a.unresolvedAttributeTransportationTable().at("C").empty());

   a.addUnresolvedObjectDimension("C", "D1");
   a.addUnresolvedInteractionTransportation("I", "HLAreliable");
   b.addUnresolvedObjectDimension("C", "D2");
   b.addUnresolvedObjectDimension("E", "D1");
   b.addUnresolvedAttributeDimension("C", "x", "D");
   b.addUnresolvedInteractionDimension("I", "D");
   b.addUnresolvedInteractionTransportation("I", "HLAbestEffort");
   a.mergeUnresolved(b);
   EXPECT_EQ(a.unresolvedObjectDimensionTable().at("C").size(), 2u);
   EXPECT_EQ(a.unresolvedObjectDimensionTable().at("E").size(), 1u);
   EXPECT_EQ(a.unresolvedAttributeDimensionTable().at("C").size(), 1u);
   EXPECT_EQ(a.unresolvedInteractionDimensionTable().at("I").size(), 1u);
   EXPECT_EQ(a.unresolvedInteractionTransportationTable().at("I").size(), 2u);
   EXPECT_TRUE(a.removeResolvedObjectDimension("C", "D2"));
   EXPECT_TRUE(a.removeResolvedAttribute("C", {"x", "D"}));
   EXPECT_TRUE(a.removeResolvedInteractionDimension("I", "D"));
   EXPECT_TRUE(a.removeResolvedInteractionTransportation("I", "HLAbestEffort"));
}

// ---------------------------------------------------------------- the post-merge check

TEST(FomCheck, SwitchTableRequirementsPerFomType)
{
   struct Row
   {
      int type;
      bool strict;
      bool passes;
      char const* errors;
   } const rows[] = {
       {0, false, false, "Invalid FOM Type\n"},
       {1, true, true, ""},
       {4, true, true, ""},
       {2, false, false,
        "Missing switch in the switches Table\nconveyRegionDesignatorSets attributeScopeAdvisory "
        "attributeRelevanceAdvisory objectClassRelevanceAdvisory interactionRelevanceAdvisory "
        "serviceReporting "},
       {3, false, true,
        "Missing switch in the switches Table\nconveyRegionDesignatorSets attributeScopeAdvisory "
        "attributeRelevanceAdvisory objectClassRelevanceAdvisory interactionRelevanceAdvisory "
        "serviceReporting conveyProducingFederate exceptionReporting delaySubscriptionEvaluation "
        "\n"},
       {3, true, false, nullptr},
       {7, false, false, "Unknown FOM Type\n"},
   };
   for (auto const& row : rows)
   {
      SCOPED_TRACE(std::to_string(row.type) + (row.strict ? " strict" : " lenient"));
      Target t("A", DtFomTypeInvalid);
      if (row.type != 0)
         t.setFomType(static_cast<DtFomType>(row.type));
      t.setStrictChecking(row.strict);
      t.addSwitch("autoProvide", false);
      DtString errors;
      EXPECT_EQ(t.resolveSwitches(errors), row.passes);
      if (row.errors)
      {
         EXPECT_EQ(errors, row.errors);
      }
   }
}

TEST(FomCheck, UpdateRatesAndTransportationsNeedNamesAndRates)
{
   struct Row
   {
      char const* name;
      float rate;
      char const* errors;
   } const rows[] = {
       {"R", 0, "Error in Update Rates Type, name = R , Uninitialized rate\n"},
       {"", 1, "Error in Update Rates Type, Uninitialized name\n"},
       {"R", theNaN, ""},
       {"R", 0.5f, ""},
   };
   for (auto const& row : rows)
   {
      SCOPED_TRACE(row.errors);
      Target t;
      t.addUpdateRate(rate(row.name, row.rate));
      DtString errors;
      EXPECT_EQ(t.resolveUpdateRates(errors), *row.errors == '\0');
      EXPECT_EQ(errors, row.errors);
   }
   Target t;
   t.addTransportType(new DtTransportationType{"", "", true, ""});
   DtString errors;
   EXPECT_FALSE(t.resolveTranportationTypes(errors));
   EXPECT_EQ(errors, "Error in Transportation Type, Uninitialized name\n");
}

TEST(FomCheck, ResultFollowsEveryStepAndTheFlag)
{
   Target good("A", DtFomTypeHla4);
   DtString errors;
   EXPECT_EQ(good.postMergeCheckTarget(errors), DtMergeFomSuccess);
   EXPECT_EQ(errors, "");

   // Two steps fail; both report, and without the flag the result is 3.
   Target bad("A", DtFomTypeInvalid);
   bad.addUpdateRate(rate("R", 0));
   bad.failDimensions = true;
   EXPECT_EQ(bad.postMergeCheckTarget(errors), DtMergeFomPostMergeCheckFailed);
   EXPECT_EQ(errors,
             "dimension missing\nError in Update Rates Type, name = R , Uninitialized rate\n"
             "Invalid FOM Type\n");

   Target flagged("A", DtFomTypeHla4);
   flagged.failDimensions = true;
   flagged.raiseFlag = true;
   errors = "";
   EXPECT_EQ(flagged.postMergeCheckTarget(errors), DtMergeFomPostMergeCheckFlagged);
}
