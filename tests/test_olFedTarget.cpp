// Tests of the FOM records, the federation target and the merge of targets.
#include <olutil/olFedTarget.h>

#include <limits>
#include <sstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

// The smallest concrete target: no classes of its own.
class Target : public DtFedTarget
{
   using S = DtString const&;

public:
   // A type below 0 is never set, so that no switch has a setter.
   explicit Target(char const* name = "A", int type = DtFomType1516e)
   {
      addModelIdentification(name);
      if (type >= 0)
         setFomType(static_cast<DtFomType>(type));
   }
   bool addObjectClass(S) override { return false; }
   bool addAttribute(S, S, S, S) override { return false; }
   bool addInteractionClass(S, S) override { return false; }
   bool addParameter(S, S, S) override { return false; }
   bool knownObjectClass(S) const override { return false; }
   bool knownAttribute(S, S) const override { return false; }
   bool knownInteractionClass(S) const override { return false; }
   bool knownParameter(S, S) const override { return false; }

   // What a subclass's own steps see of the merge.
   DtMergeFomStatus_enum mergeObjectClasses(DtFedTarget const&) override
   {
      sawMergeInProgress = isMergeInProgress();
      return DtMergeFomSuccess;
   }
   // A subclass check that fails, raising the shared flag when asked to.
   bool resolveDimensions(DtString& errors, bool& flag) override
   {
      errors += failDimensions ? "dimension missing\n" : "";
      flag = flag || raiseFlag;
      return !failDimensions;
   }
   bool sawMergeInProgress = false;
   bool failDimensions = false;
   bool raiseFlag = false;
};

DtUpdateRateType* rate(char const* name, float value)
{
   return new DtUpdateRateType{name, value, ""};
}

template <typename T>
std::string text(T const& record)
{
   DtString out("<");
   record.appendToString(out);
   return out.stdString();
}

// Whether a lenient (L) and a strict (S) comparison find two records alike.
template <typename T>
std::string alike(T const& a, T const& b)
{
   return std::string(a.compareSubcomponents(b, false) ? "L" : "-") +
          (a.compareSubcomponents(b, true) ? "S" : "-");
}

float const theNaN = std::numeric_limits<float>::quiet_NaN();

}  // namespace

// How each record reads in messages, and whether two records of one name conflict,
// strictly or leniently.
TEST(FomRecords, TextAndComparisons)
{
   std::string const rows[][2] = {
       {text(DtUpdateRateType{"Low", 10.56f, "slow"}), "<Low: 10.56, \"slow\""},
       {text(DtUpdateRateType{"Odd", theNaN, ""}), "<Odd: nan, \"\""},
       {text(DtBasicDataRepresentationType{"HLAinteger16BE", 16, "int", 1, "two's"}),
        "<HLAinteger16BE: 16, 1, \"int\", \"two's\""},
       {text(DtVariantRecordDatatypeType{"Value", "Idx", "Level", "a=b", "HLAvariantRecord", "v"}),
        "<Value: Idx, \"Level\", \"a=b\", \"HLAvariantRecord\", \"v\""},
       {text(DtNotesType{"Note1", "about"}), "<Note1: \"about\""},
       {alike<DtUserSuppliedTagsType>({"t", "D", "a"}, {"t", "D", "b"}), "L-"},
       {alike<DtSynchronizationPointsType>({"s", "D", 1, "a"}, {"s", "D", 2, "a"}), "LS"},
       {alike<DtTransportationType>({"x", "", true, ""}, {"x", "", false, ""}), "--"},
       {alike<DtTransportationType>({"x", "a", true, ""}, {"x", "b", true, ""}), "L-"},
       {alike<DtUpdateRateType>({"r", theNaN, "s"}, {"r", theNaN, "s"}), "L-"},
       {alike<DtBasicDataRepresentationType>({"b", 8, "", 0, ""}, {"b", 16, "", 1, ""}), "LS"},
   };
   for (auto const& row : rows)
      EXPECT_EQ(row[0], row[1]);
}

TEST(FomRecords, NamesMaskAndStatusTexts)
{
   std::string actions;
   for (int i = 0; i < 7; ++i)
      actions = actions + DtFedTarget::enumAsString(static_cast<DtResignAction>(i)) + " ";
   EXPECT_EQ(actions,
             "UnconditionallyDivestAttributes DeleteObjects CancelPendingOwnershipAcquitions "
             "DeleteObjectsThanDivest CancelThenDeleteThenDivest NoAction unknown ");
   EXPECT_STREQ(DtFedTarget::enumAsString(static_cast<DtMergeFomTableMask>(3)), "Unknown");
   EXPECT_STREQ(DtFedTarget::enumAsString(static_cast<DtMergeFomTableMask>(1ul << 19)), "Unknown");
   EXPECT_STREQ(DtFedTarget::enumAsString(DtMergeFomTableIdentification), "Identification");
   EXPECT_STREQ(DtFedTarget::enumAsString(DtMergeFomTableNotes), "Notes");
   std::string statuses;
   for (int status = 0; status <= 22; ++status)
      statuses = statuses + DtMergeFomStatusText(status) + "|";
   EXPECT_EQ(statuses,
             "unknown status|switch table conflict|unknown status|a post-merge check failed|"
             "update rate conflict|transport type conflict|synchronization point conflict|"
             "user-supplied tag conflict|note conflict|time type conflict|"
             "basic data representation conflict|simple data type conflict|"
             "enumerated data type conflict|array data type conflict|"
             "fixed record data type conflict|variant record data type conflict|unknown status|"
             "unknown status|unknown status|unknown status|a post-merge check failed and "
             "reported its further condition through its flag|success|unknown status|");
   EXPECT_TRUE(DtFedTarget::checkStringsIgnoringWhiteSpaceAndNewline("a b\r\n\tc ", "abc"));
   EXPECT_FALSE(DtFedTarget::checkStringsIgnoringWhiteSpaceAndNewline("a.b", "ab"));

   // The default leaves out identification, directed interactions, references and notes.
   Target t;
   std::string enabled;
   for (unsigned long bit = 1; bit <= DtMergeFomTableNotes; bit <<= 1)
      enabled += t.fomTableMergeEnabled(static_cast<DtMergeFomTableMask>(bit)) ? '1' : '0';
   EXPECT_EQ(enabled, "0110111111111111100");
}

TEST(FomTables, AddTakesOwnershipAndKeepsTheFirstOfOneName)
{
   Target t("Base");
   DtUpdateRateType* first = rate("R", 1);
   EXPECT_TRUE(t.addUpdateRate(first));
   // A second record of the name is deleted (the sanitizer build sees a leak otherwise).
   EXPECT_FALSE(t.addUpdateRate(rate("R", 2)));
   // The record the table holds, handed in again, must not be owned twice.
   EXPECT_FALSE(t.addUpdateRate(first));
   EXPECT_FALSE(t.addUpdateRate(nullptr));
   EXPECT_EQ(t.numUpdateRates(), 1u);
   EXPECT_EQ((*t.updateRateTable().begin())->rate, 1.0f);
   // The time table keeps two records of one name.
   DtTimeType* a = new DtTimeType{"timeStamp", "A", ""};
   EXPECT_TRUE(t.addTime(a));
   EXPECT_TRUE(t.addTime(new DtTimeType{"timeStamp", "B", ""}));
   EXPECT_FALSE(t.addTime(a));
   EXPECT_EQ(t.numTimeTypes(), 2u);
   t.addModelIdentification(nullptr);
   t.addModelIdentification("Physical");
   EXPECT_TRUE(t.knownModelIdentification("Physical"));
   EXPECT_FALSE(t.knownModelIdentification("Phys"));
}

TEST(FomSwitches, TheFomTypeDecidesStandardSwitchesAndTags)
{
   char const* const theSwitches =
       "autoProvide serviceReporting exceptionReporting delaySubscriptionEvaluation "
       "conveyProducingFederate nonRegulatedGrant allowRelaxedDDM allowRelaxedDdm "
       "automaticResignAction";
   // Per FOM type (-1 never set), one letter per name, s standard, then t when a merge
   // takes over user-supplied tags.
   std::pair<int, char const*> const rows[] = {{-1, "----------"}, {0, "ss--------"},
                                               {1, "ss--------"},  {2, "ss--------"},
                                               {3, "sssss---st"},  {4, "ssss-ss-st"}};
   for (auto const& [type, expected] : rows)
   {
      Target t("A", type), other("B", type);
      std::string got;
      std::istringstream names(theSwitches);
      for (std::string name; names >> name;)
         got += t.isStandardSwitch(name.c_str()) ? 's' : '-';
      other.addUserSuppliedTag(new DtUserSuppliedTagsType{"deleteRemoveTag", "", ""});
      t.mergeTarget(other, true);
      EXPECT_EQ(got + (t.numUserSuppliedTags() ? "t" : "-"), expected) << "FOM type " << type;
   }
   // Type 4 keeps conveyProducingFederate on, whatever the table says.
   Target latest("A", DtFomTypeHla4);
   EXPECT_TRUE(latest.switchValue("conveyProducingFederate"));
   EXPECT_FALSE(Target("A", DtFomType1516e).switchValue("conveyProducingFederate"));
   latest.addSwitch("allowRelaxedDDM", true);
   EXPECT_TRUE(latest.allowRelaxedDdm());
}

TEST(FomSwitches, AddSwitchRecordsRunsTheSetterAndRefusesConflicts)
{
   int const level = DtNotifyLevel;
   DtNotifyLevel = 3;  // so that DtVerbose prints
   Target t("M");
   olt::CapturePrinter log(DtVerbose);
   t.addSwitch("autoProvide", true);
   t.addSwitch("autoProvide", true);
   t.addSwitch("autoProvide", false);
   t.addSwitch("madeUp", true);
   EXPECT_TRUE(t.autoProvide());
   EXPECT_EQ(t.numSwitches(), 1u);
   EXPECT_EQ(log.text(),
             "\tautoProvide                   :  enabled\n"
             "Ignored attempt to add duplicate conflicting switch autoProvide with current value: "
             "enabled rejected value: disabled in FOM M\n"
             "Ignored attempt to add non standard switch madeUp with value enabled in FOM M\n");
   DtNotifyLevel = level;
}

// Merging an empty target, itself, and under a mask of no tables: names and references join.
TEST(FomMerge, EmptyItselfAndMaskZero)
{
   Target a("A"), b("B");
   EXPECT_EQ(a.mergeTarget(b, true), DtMergeFomSuccess);
   EXPECT_TRUE(a.sawMergeInProgress) << "subclass steps run while the merge is in progress";
   a.addUpdateRate(rate("R", 1));
   a.addSwitch("autoProvide", true);
   a.addUnresolvedInteractionDimension("HLAinteractionRoot.I", "D");
   EXPECT_EQ(a.mergeTarget(a, true), DtMergeFomSuccess);
   EXPECT_EQ(a.modelIdentification(), "A + B + A + B");
   EXPECT_EQ(a.numUpdateRates(), 1u);
   EXPECT_EQ(a.unresolvedInteractionDimensionTable().at("HLAinteractionRoot.I").size(), 1u);
   Target c("C");
   c.addUpdateRate(rate("S", 1));
   c.addUnresolvedAttributeDimension("HLAobjectRoot.X", "y", "D");
   a.addUnresolvedAttributeDimension("HLAobjectRoot.X", "y", "E");
   a.setMergeTableMask(0);
   EXPECT_EQ(a.mergeTarget(c, true), DtMergeFomSuccess);
   EXPECT_EQ(a.numUpdateRates(), 1u);
   EXPECT_EQ(a.modelIdentification(), "A + B + A + B + C");
   EXPECT_FALSE(a.isMergeInProgress());
   // A class both sides refer to has the references of both; removing the last keeps its entry.
   EXPECT_EQ(a.unresolvedAttributeDimensionTable().at("HLAobjectRoot.X").size(), 2u);
   EXPECT_TRUE(a.removeResolvedAttribute("HLAobjectRoot.X", {"y", "E"}));
   EXPECT_TRUE(a.removeResolvedAttribute("HLAobjectRoot.X", {"y", "D"}));
   EXPECT_FALSE(a.removeResolvedAttribute("HLAobjectRoot.X", {"y", "D"}));
   EXPECT_TRUE(a.unresolvedAttributeDimensionTable().at("HLAobjectRoot.X").empty());
}

// No data type record ever conflicts, so the statuses 10 to 15 cannot arise.
TEST(FomMerge, DataTypeRecordsNeverConflictSoTheirStatusesCannotArise)
{
   Target a("A"), b("B");
   a.setStrictChecking(true);
   for (Target* t : {&a, &b})
   {
      bool const first = t == &a;
      char const* v = first ? "a" : "b";
      t->addBasicDataRepresentation(
          new DtBasicDataRepresentationType{"D", first ? 8u : 64u, v, first ? 0 : 1, v});
      t->addSimpleDataType(new DtSimpleDatatypeType{"D", v, v, v, v, v});
      t->addEnumeratedDataType(new DtEnumeratedDatatypeType{"D", v, v});
      t->addArrayDataType(new DtArrayDatatypeType{"D", v, v, v, v});
      t->addFixedRecordDataType(new DtFixedRecordDatatypeType{"D", v, v});
      t->addVariantRecordDataType(new DtVariantRecordDatatypeType{"D", v, v, v, v, v});
   }
   b.addSimpleDataType(new DtSimpleDatatypeType{"New", "", "", "", "", ""});
   EXPECT_EQ(a.mergeTarget(b, false), DtMergeFomSuccess);
   EXPECT_EQ((*a.basicDataRepresentationTable().begin())->size, 8u);
   EXPECT_EQ((*a.variantRecordDatatypeTable().begin())->encoding, "a");
   EXPECT_EQ(a.simpleDatatypeTable().size(), 2u);
   EXPECT_EQ(a.lastError(), "");
}

// A second conflict replaces the first with a header; time types report the first mismatch.
TEST(FomMerge, ConflictMessages)
{
   Target a("A"), b("B");
   a.setStrictChecking(true);
   for (char const* name : {"P", "Q", "R"})
   {
      a.addUpdateRate(rate(name, 1));
      b.addUpdateRate(rate(name, 2));
   }
   EXPECT_EQ(a.mergeTarget(b, true), DtMergeFomUpdateRateConflict);
   EXPECT_EQ(a.lastError(), "B has conflicts in Update Rates:\n\tR: 2, \"\"");

   // Time types are copied when the target has none, and compared as a whole otherwise.
   Target c("C"), two("Two"), other("D");
   b.addTime(new DtTimeType{"timeStamp", "HLAfloat64Time", ""});
   EXPECT_EQ(c.mergeTarget(b, true), DtMergeFomSuccess);
   EXPECT_EQ(c.numTimeTypes(), 1u);
   EXPECT_EQ(c.mergeTarget(Target("E"), true), DtMergeFomSuccess) << "the other has none";
   // Unequal counts fail without a message.
   two.addTime(new DtTimeType{"timeStamp", "HLAfloat64Time", ""});
   two.addTime(new DtTimeType{"lookahead", "HLAfloat64Time", ""});
   EXPECT_EQ(c.mergeTarget(two, true), DtMergeFomTimeTypeConflict);
   EXPECT_EQ(c.lastError(), "");
   other.addTime(new DtTimeType{"timeStamp", "HLAinteger64Time", "x"});
   EXPECT_EQ(c.mergeTarget(other, true), DtMergeFomTimeTypeConflict);
   EXPECT_EQ(c.lastError(),
             "D has conflicts in time types: \n\ttimeStamp: HLAinteger64Time, \"x\"");
}

TEST(FomMerge, SwitchesAreAdoptedOnCreateAndConflictOnJoin)
{
   Target b("B"), c("C"), created("A"), joined("A"), onlyFalse("F");
   b.addSwitch("autoProvide", true);
   b.addSwitch("serviceReporting", false);
   b.setAutomaticResignAction(DtResignDeleteObjects);
   EXPECT_EQ(created.mergeTarget(b, true), DtMergeFomSuccess);
   EXPECT_TRUE(created.autoProvide());
   EXPECT_EQ(created.numSwitches(), 2u) << "a value equal to the default is recorded on create";
   EXPECT_EQ(created.automaticResignAction(), DtResignDeleteObjects);
   EXPECT_TRUE(created.automaticResignActionIsSet());

   joined.setStrictChecking(true);
   onlyFalse.addSwitch("serviceReporting", false);
   EXPECT_EQ(joined.mergeTarget(onlyFalse, false), DtMergeFomSuccess);
   EXPECT_EQ(joined.numSwitches(), 0u) << "and not on join";
   b.setAutomaticResignAction(DtResignCancelThenDeleteThenDivest);
   b.addTime(new DtTimeType{"timeStamp", "T", ""});
   EXPECT_EQ(joined.mergeTarget(b, false), DtMergeFomSwitchConflict);
   EXPECT_EQ(joined.lastError(),
             "Conflicting switch(es) when merging from FOM B during joinFederation\n"
             "\tautoProvide: enabled\n");
   EXPECT_FALSE(joined.autoProvide());
   EXPECT_EQ(joined.numTimeTypes(), 1u) << "a failed merge keeps the steps that finished";

   // Alone, the resign action's conflict starts with a line end.
   c.setAutomaticResignAction(DtResignCancelPendingOwnershipAcquisitions);
   created.setStrictChecking(true);
   EXPECT_EQ(created.mergeTarget(c, true), DtMergeFomSwitchConflict);
   EXPECT_EQ(created.lastError(), "\n\tautomaticResignAction: CancelPendingOwnershipAcquitions");
}

TEST(FomMerge, StandAloneTransportMergeKeepsItsOwnWording)
{
   Target a("A"), b("B");
   a.addTransportType(new DtTransportationType{"T", "", true, ""});
   b.addTransportType(new DtTransportationType{"T", "udp", false, ""});
   b.addTransportType(new DtTransportationType{"U", "", false, ""});
   olt::CapturePrinter warn(DtWarn);  // the forgiven conflict's warning
   EXPECT_EQ(a.mergeTransportTypes(b), DtMergeFomSuccess);
   EXPECT_EQ(a.lastError(), "B has conflicts in transport types:\n\tT: best_effort, \"udp\"");
   EXPECT_EQ(a.numTransports(), 1u) << "a forgiven conflict leaves the table as it was";
   a.setStrictChecking(true);
   EXPECT_EQ(a.mergeTransportTypes(b), DtMergeFomTransportTypeConflict);
}

TEST(FomCheck, SwitchTableRequirementsPerFomType)
{
   std::string const missing =
       "Missing switch in the switches Table\nconveyRegionDesignatorSets attributeScopeAdvisory "
       "attributeRelevanceAdvisory objectClassRelevanceAdvisory interactionRelevanceAdvisory "
       "serviceReporting ";
   std::string const type3 =
       missing + "conveyProducingFederate exceptionReporting delaySubscriptionEvaluation \n";
   // FOM type, strict, passes, errors.
   std::tuple<int, bool, bool, std::string> const rows[] = {
       {-1, false, false, "Invalid FOM Type\n"},
       {4, true, true, ""},
       {2, false, false, missing},
       {3, false, true, type3},
       {3, true, false, type3},
       {7, false, false, "Unknown FOM Type\n"}};
   for (auto const& [type, strict, passes, expected] : rows)
   {
      SCOPED_TRACE(std::to_string(type) + (strict ? " strict" : " lenient"));
      Target t("A", type);
      t.setStrictChecking(strict);
      t.addSwitch("autoProvide", false);
      DtString errors;
      EXPECT_EQ(t.resolveSwitches(errors), passes);
      EXPECT_EQ(errors, expected);
   }
}

TEST(FomCheck, EveryStepReportsAndTheFlagDecides)
{
   Target good("A", DtFomTypeHla4);
   good.addUpdateRate(rate("N", theNaN));
   good.addUpdateRate(rate("Q", 0.5f));
   good.addUpdateRate(rate("M", -1));  // only exactly 0 is a rate nobody set
   DtString errors;
   EXPECT_EQ(good.postMergeCheckTarget(errors), DtMergeFomSuccess);
   EXPECT_EQ(errors, "");

   // Every failing step reports; without the flag the result is 3.
   Target bad("A", -1);
   bad.addUpdateRate(rate("R", 0));
   bad.addTransportType(new DtTransportationType{"", "", true, ""});
   bad.failDimensions = true;
   EXPECT_EQ(bad.postMergeCheckTarget(errors), DtMergeFomPostMergeCheckFailed);
   EXPECT_EQ(errors,
             "dimension missing\nError in Transportation Type, Uninitialized name\n"
             "Error in Update Rates Type, name = R , Uninitialized rate\nInvalid FOM Type\n");

   Target flagged("A", DtFomTypeHla4);
   flagged.failDimensions = true;
   flagged.raiseFlag = true;
   flagged.addUpdateRate(rate("", 1));
   errors = "";
   EXPECT_EQ(flagged.postMergeCheckTarget(errors), DtMergeFomPostMergeCheckFlagged);
   EXPECT_EQ(errors, "dimension missing\nError in Update Rates Type, Uninitialized name\n");
}
