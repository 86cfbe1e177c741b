// FOM records, the federation target that holds them, and the merge of one target
// into another.
#include <olutil/olFedTarget.h>

#include <olutil/olPrint.h>

#include <algorithm>
#include <charconv>
#include <string>

namespace
{

void appendQuoted(DtString& text, DtString const& value)
{
   text += "\"";
   text += value;
   text += "\"";
}

// ", " then the value between double quotes.
void appendQuotedItem(DtString& text, DtString const& value)
{
   text += ", ";
   appendQuoted(text, value);
}

// Prints `prefix` and `text` on `stream` as whole lines: a text that does not end its
// own line gets a line end, so the next message starts on a line of its own.
void printLines(DtOutputStream& stream, char const* prefix, DtString const& text)
{
   if (!stream.okToPrint())
      return;
   std::string line(prefix);
   line += text.c_str();
   if (line.empty() || line.back() != '\n')
      line += '\n';
   stream << line;
}

char const* const theIgnoredPrefix = "Merge Error ignored: ";

// The end of a merge step that found conflicts, described in `text`: lenient checking
// forgives them with a warning, strict checking keeps the status and tells it verbosely.
DtMergeFomStatus_enum settleConflicts(DtMergeFomStatus_enum status, DtString const& text,
                                      bool strict)
{
   if (status == DtMergeFomSuccess)
      return status;
   if (!strict)
   {
      printLines(DtWarn, theIgnoredPrefix, text);
      return DtMergeFomSuccess;
   }
   printLines(DtVerbose, "", text);
   return status;
}

// Takes ownership of `record` for a table ordered by name. A record that the table
// already holds is recognised by its name and pointer and left alone, so that it is
// never owned twice; another record of the same name is deleted. This is the one place
// where a table adopts a record.
template <typename T>
bool adoptRecord(DtFomTable<T>& table, T* record)
{
   if (!record)
      return false;
   // One descent both looks for the name and gives the place to put a new record.
   auto const place = table.lower_bound(*record);
   if (place != table.end() && !(*record < **place))
   {
      if (place->get() != record)
         delete record;
      return false;
   }
   table.emplace_hint(place, std::shared_ptr<T>(record));
   return true;
}

bool adoptTime(DtTimeTypeTable& table, DtTimeType* record)
{
   if (!record)
      return false;
   for (auto const& held : table)
      if (held.get() == record)
         return false;
   table.insert(std::shared_ptr<DtTimeType>(record));
   return true;
}

template <typename T>
bool knownInTable(DtFomTable<T> const& table, T const& record)
{
   return table.find(record) != table.end();
}

// The union of two tables, the records already in `target` winning.
template <typename Table>
void uniteTables(Table& target, Table const& source)
{
   if (target.empty())
      target = source;
   else
      target.insert(source.begin(), source.end());
}

template <typename Map>
void uniteUnresolved(Map& target, Map const& source)
{
   if (&target == &source)
      return;
   for (auto const& entry : source)
   {
      auto const place = target.lower_bound(entry.first);
      if (place == target.end() || entry.first < place->first)
         target.emplace_hint(place, entry);
      else
         place->second.insert(entry.second.begin(), entry.second.end());
   }
}

template <typename Map, typename Value>
bool eraseUnresolved(Map& table, DtString const& key, Value const& value)
{
   auto const found = table.find(key);
   return found != table.end() && found->second.erase(value) > 0;
}

}  // namespace

// ---------------------------------------------------------------- records

bool DtTimeType::operator==(DtTimeType const& other) const
{
   return name == other.name && dataType == other.dataType && semantics == other.semantics;
}

bool DtTimeType::operator<(DtTimeType const& other) const
{
   return name < other.name;
}

void DtTimeType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   text += dataType;
   appendQuotedItem(text, semantics);
}

// The records other than DtTimeType compare by name alone.
#define OLUTIL_FOM_NAME_COMPARISONS(T)      \
   bool T::operator==(T const& other) const \
   {                                        \
      return name == other.name;            \
   }                                        \
   bool T::operator<(T const& other) const  \
   {                                        \
      return name < other.name;             \
   }

OLUTIL_FOM_NAME_COMPARISONS(DtUserSuppliedTagsType)
OLUTIL_FOM_NAME_COMPARISONS(DtSynchronizationPointsType)
OLUTIL_FOM_NAME_COMPARISONS(DtTransportationType)
OLUTIL_FOM_NAME_COMPARISONS(DtUpdateRateType)
OLUTIL_FOM_NAME_COMPARISONS(DtBasicDataRepresentationType)
OLUTIL_FOM_NAME_COMPARISONS(DtSimpleDatatypeType)
OLUTIL_FOM_NAME_COMPARISONS(DtEnumeratedDatatypeType)
OLUTIL_FOM_NAME_COMPARISONS(DtArrayDatatypeType)
OLUTIL_FOM_NAME_COMPARISONS(DtFixedRecordDatatypeType)
OLUTIL_FOM_NAME_COMPARISONS(DtVariantRecordDatatypeType)
OLUTIL_FOM_NAME_COMPARISONS(DtNotesType)
#undef OLUTIL_FOM_NAME_COMPARISONS

bool DtUserSuppliedTagsType::compareSubcomponents(DtUserSuppliedTagsType const& other,
                                                  bool strict) const
{
   return !strict || (dataType == other.dataType && semantics == other.semantics);
}

void DtUserSuppliedTagsType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   text += dataType;
   appendQuotedItem(text, semantics);
}

bool DtSynchronizationPointsType::compareSubcomponents(DtSynchronizationPointsType const& other,
                                                       bool strict) const
{
   // The capability is left out on purpose: modules that agree on a point's data
   // disagree on who registers it without being in conflict.
   return !strict || (dataType == other.dataType && semantics == other.semantics);
}

void DtSynchronizationPointsType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   text += dataType;
   text += ", ";
   text += DtString(capability);
   appendQuotedItem(text, semantics);
}

bool DtTransportationType::compareSubcomponents(DtTransportationType const& other,
                                                bool strict) const
{
   if (reliable != other.reliable)
      return false;
   return !strict || (semantics == other.semantics && description == other.description);
}

void DtTransportationType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   text += reliable ? "Reliable" : "BestEffort";
   appendQuotedItem(text, description);
   appendQuotedItem(text, semantics);
}

bool DtUpdateRateType::compareSubcomponents(DtUpdateRateType const& other, bool strict) const
{
   // A NaN rate compares unequal to everything, itself included.
   return !strict || (rate == other.rate && semantics == other.semantics);
}

void DtUpdateRateType::appendToString(DtString& text) const
{
   char digits[32];
   auto const end = std::to_chars(digits, digits + sizeof digits - 1, rate).ptr;
   *end = '\0';
   text += name;
   text += ": ";
   text += digits;
   appendQuotedItem(text, semantics);
}

// Data type records with one name never conflict, whatever their other fields hold.
#define OLUTIL_FOM_NEVER_CONFLICTS(T)                 \
   bool T::compareSubcomponents(T const&, bool) const \
   {                                                  \
      return true;                                    \
   }

OLUTIL_FOM_NEVER_CONFLICTS(DtBasicDataRepresentationType)
OLUTIL_FOM_NEVER_CONFLICTS(DtSimpleDatatypeType)
OLUTIL_FOM_NEVER_CONFLICTS(DtEnumeratedDatatypeType)
OLUTIL_FOM_NEVER_CONFLICTS(DtArrayDatatypeType)
OLUTIL_FOM_NEVER_CONFLICTS(DtFixedRecordDatatypeType)
OLUTIL_FOM_NEVER_CONFLICTS(DtVariantRecordDatatypeType)
#undef OLUTIL_FOM_NEVER_CONFLICTS

void DtBasicDataRepresentationType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   text += DtString(size);
   text += ", ";
   text += DtString(endian);
   appendQuotedItem(text, interpretation);
   appendQuotedItem(text, encoding);
}

void DtSimpleDatatypeType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   appendQuoted(text, representation);
   appendQuotedItem(text, units);
   appendQuotedItem(text, resolution);
   appendQuotedItem(text, accuracy);
   appendQuotedItem(text, semantics);
}

void DtEnumeratedDatatypeType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   appendQuoted(text, representation);
   appendQuotedItem(text, semantics);
}

void DtArrayDatatypeType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   appendQuoted(text, dataType);
   appendQuotedItem(text, cardinality);
   appendQuotedItem(text, encoding);
   appendQuotedItem(text, semantics);
}

void DtFixedRecordDatatypeType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   appendQuoted(text, encoding);
   appendQuotedItem(text, semantics);
}

void DtVariantRecordDatatypeType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   text += discriminant;
   appendQuotedItem(text, dataType);
   appendQuotedItem(text, alternatives);
   appendQuotedItem(text, encoding);
   appendQuotedItem(text, semantics);
}

bool DtNotesType::compareSubcomponents(DtNotesType const& other, bool strict) const
{
   return !strict || semantics == other.semantics;
}

void DtNotesType::appendToString(DtString& text) const
{
   text += name;
   text += ": ";
   appendQuoted(text, semantics);
}

// ---------------------------------------------------------------- merge templates

char const* DtMergeFomStatusText(int status)
{
   switch (status)
   {
      case DtMergeFomSwitchConflict:
         return "switch table conflict";
      case DtMergeFomPostMergeCheckFailed:
         return "a post-merge check failed";
      case DtMergeFomUpdateRateConflict:
         return "update rate conflict";
      case DtMergeFomTransportTypeConflict:
         return "transport type conflict";
      case DtMergeFomSyncPointConflict:
         return "synchronization point conflict";
      case DtMergeFomUserSuppliedTagConflict:
         return "user-supplied tag conflict";
      case DtMergeFomNoteConflict:
         return "note conflict";
      case DtMergeFomTimeTypeConflict:
         return "time type conflict";
      case DtMergeFomBasicDataRepresentationConflict:
         return "basic data representation conflict";
      case DtMergeFomSimpleDatatypeConflict:
         return "simple data type conflict";
      case DtMergeFomEnumeratedDatatypeConflict:
         return "enumerated data type conflict";
      case DtMergeFomArrayDatatypeConflict:
         return "array data type conflict";
      case DtMergeFomFixedRecordDatatypeConflict:
         return "fixed record data type conflict";
      case DtMergeFomVariantRecordDatatypeConflict:
         return "variant record data type conflict";
      case DtMergeFomPostMergeCheckFlagged:
         return "a post-merge check failed and reported its further condition through its flag";
      case DtMergeFomSuccess:
         return "success";
      default:
         return "unknown status";
   }
}

template <typename T>
bool consistencyTest(DtFomTable<T> const& table, T const& record, bool strict)
{
   auto const found = table.find(record);
   return found == table.end() || (*found)->compareSubcomponents(record, strict);
}

template <typename T>
DtMergeFomStatus_enum mergeComponent(DtFomTable<T> const& source, DtFomTable<T>& target,
                                     DtString const& otherModelName, char const* tableName,
                                     DtString& lastError, DtMergeFomStatus_enum errorCode,
                                     bool strict)
{
   if (source.empty())
      return DtMergeFomSuccess;
   DtMergeFomStatus_enum status = DtMergeFomSuccess;
   if (!target.empty())
   {
      for (auto const& record : source)
      {
         // Records are compared in full under either checking: lenient checking
         // forgives what differs with a warning instead of dropping the other's
         // record without a word. strict decides only what a conflict costs.
         if (consistencyTest(target, *record, true))
            continue;
         // The header comes only with the second conflict, and replaces what the
         // first wrote: callers and their logs rely on this exact text.
         if (status != DtMergeFomSuccess)
         {
            lastError = otherModelName + " has conflicts in ";
            lastError += tableName;
            lastError += ":\n";
         }
         lastError += "\t";
         record->appendToString(lastError);
         status = errorCode;
      }
   }
   status = settleConflicts(status, lastError, strict);
   // A forgiven conflict goes on to the union: the other's new names come in, and
   // where both hold a name the record already here stays. Under strict checking a
   // conflict leaves the table untouched.
   if (status == DtMergeFomSuccess)
      uniteTables(target, source);
   return status;
}

#define OLUTIL_FOM_MERGE_TEMPLATES(T)                                                        \
   template bool consistencyTest<T>(DtFomTable<T> const&, T const&, bool);                   \
   template DtMergeFomStatus_enum mergeComponent<T>(DtFomTable<T> const&, DtFomTable<T>&,    \
                                                    DtString const&, char const*, DtString&, \
                                                    DtMergeFomStatus_enum, bool);

OLUTIL_FOM_MERGE_TEMPLATES(DtUserSuppliedTagsType)
OLUTIL_FOM_MERGE_TEMPLATES(DtSynchronizationPointsType)
OLUTIL_FOM_MERGE_TEMPLATES(DtTransportationType)
OLUTIL_FOM_MERGE_TEMPLATES(DtUpdateRateType)
OLUTIL_FOM_MERGE_TEMPLATES(DtBasicDataRepresentationType)
OLUTIL_FOM_MERGE_TEMPLATES(DtSimpleDatatypeType)
OLUTIL_FOM_MERGE_TEMPLATES(DtEnumeratedDatatypeType)
OLUTIL_FOM_MERGE_TEMPLATES(DtArrayDatatypeType)
OLUTIL_FOM_MERGE_TEMPLATES(DtFixedRecordDatatypeType)
OLUTIL_FOM_MERGE_TEMPLATES(DtVariantRecordDatatypeType)
OLUTIL_FOM_MERGE_TEMPLATES(DtNotesType)
#undef OLUTIL_FOM_MERGE_TEMPLATES

// ---------------------------------------------------------------- class-wide state

bool DtFedTarget::theDefaultAutoProvide = false;
bool DtFedTarget::theDefaultConveyRegionDesignatorSets = false;
bool DtFedTarget::theDefaultAttributeScopeAdvisory = false;
bool DtFedTarget::theDefaultAttributeRelevanceAdvisory = false;
bool DtFedTarget::theDefaultObjectClassRelevanceAdvisory = false;
bool DtFedTarget::theDefaultInteractionRelevanceAdvisory = false;
bool DtFedTarget::theDefaultServiceReporting = false;
bool DtFedTarget::theDefaultExceptionReporting = false;
bool DtFedTarget::theDefaultDelaySubscriptionEvaluation = false;
bool DtFedTarget::theDefaultConveyProducingFederate = false;
bool DtFedTarget::theDefaultNonRegulatedGrant = false;
bool DtFedTarget::theDefaultSendServiceReportsToFile = false;
bool DtFedTarget::theDefaultAdvisoriesUseKnownClass = false;
bool DtFedTarget::theDefaultAllowRelaxedDdm = false;
DtResignAction DtFedTarget::theDefaultAutomaticResignAction = DtResignCancelThenDeleteThenDivest;

// For each switch: the class-wide default's pair, the forwarding static pair that the
// switch maps hold, and the virtual pair on the target's own value.
#define OLUTIL_FOM_SWITCH(lower, Upper)                          \
   bool DtFedTarget::default##Upper()                            \
   {                                                             \
      return theDefault##Upper;                                  \
   }                                                             \
   void DtFedTarget::setDefault##Upper(bool value)               \
   {                                                             \
      theDefault##Upper = value;                                 \
   }                                                             \
   bool DtFedTarget::lower(DtFedTarget const* target)            \
   {                                                             \
      return target->lower();                                    \
   }                                                             \
   void DtFedTarget::set##Upper(DtFedTarget* target, bool value) \
   {                                                             \
      target->set##Upper(value);                                 \
   }                                                             \
   bool DtFedTarget::lower() const                               \
   {                                                             \
      return lower##_;                                           \
   }                                                             \
   void DtFedTarget::set##Upper(bool value)                      \
   {                                                             \
      lower##_ = value;                                          \
   }

OLUTIL_FOM_SWITCH(autoProvide, AutoProvide)
OLUTIL_FOM_SWITCH(conveyRegionDesignatorSets, ConveyRegionDesignatorSets)
OLUTIL_FOM_SWITCH(attributeScopeAdvisory, AttributeScopeAdvisory)
OLUTIL_FOM_SWITCH(attributeRelevanceAdvisory, AttributeRelevanceAdvisory)
OLUTIL_FOM_SWITCH(objectClassRelevanceAdvisory, ObjectClassRelevanceAdvisory)
OLUTIL_FOM_SWITCH(interactionRelevanceAdvisory, InteractionRelevanceAdvisory)
OLUTIL_FOM_SWITCH(serviceReporting, ServiceReporting)
OLUTIL_FOM_SWITCH(exceptionReporting, ExceptionReporting)
OLUTIL_FOM_SWITCH(delaySubscriptionEvaluation, DelaySubscriptionEvaluation)
OLUTIL_FOM_SWITCH(conveyProducingFederate, ConveyProducingFederate)
OLUTIL_FOM_SWITCH(nonRegulatedGrant, NonRegulatedGrant)
OLUTIL_FOM_SWITCH(sendServiceReportsToFile, SendServiceReportsToFile)
OLUTIL_FOM_SWITCH(advisoriesUseKnownClass, AdvisoriesUseKnownClass)
OLUTIL_FOM_SWITCH(allowRelaxedDdm, AllowRelaxedDdm)
#undef OLUTIL_FOM_SWITCH

DtResignAction DtFedTarget::defaultAutomaticResignAction()
{
   return theDefaultAutomaticResignAction;
}

void DtFedTarget::setDefaultAutomaticResignAction(DtResignAction action)
{
   theDefaultAutomaticResignAction = action;
}

char const* DtFedTarget::enumAsString(DtResignAction action)
{
   // The historical spellings, slips included, are what logs and callers expect.
   switch (action)
   {
      case DtResignUnconditionallyDivestAttributes:
         return "UnconditionallyDivestAttributes";
      case DtResignDeleteObjects:
         return "DeleteObjects";
      case DtResignCancelPendingOwnershipAcquisitions:
         return "CancelPendingOwnershipAcquitions";
      case DtResignDeleteObjectsThenDivest:
         return "DeleteObjectsThanDivest";
      case DtResignCancelThenDeleteThenDivest:
         return "CancelThenDeleteThenDivest";
      case DtResignNoAction:
         return "NoAction";
   }
   return "unknown";
}

char const* DtFedTarget::enumAsString(DtMergeFomTableMask bit)
{
   static char const* const theNames[] = {"DtMergeFomTableIdentification",
                                          "DtMergeFomTableObjectClass",
                                          "DtMergeFomTableInteractionClass",
                                          "DtMergeFomTableDirectedInteraction",
                                          "DtMergeFomTableDimensions",
                                          "DtMergeFomTableTime",
                                          "DtMergeFomTableUserDefinedTags",
                                          "DtMergeFomTableSyncPoints",
                                          "DtMergeFomTableTransportTypes",
                                          "DtMergeFomTableUpdateRates",
                                          "DtMergeFomTableSwitches",
                                          "DtMergeFomTableBasicDataRepType",
                                          "DtMergeFomTableSimpleDataType",
                                          "DtMergeFomTableEnumeratedDataType",
                                          "DtMergeFomTableArrayDataType",
                                          "DtMergeFomTableFixedRecordDataType",
                                          "DtMergeFomTableVariantRecordDataType",
                                          "DtMergeFomTableReferenceType",
                                          "DtMergeFomTableNotes"};
   static std::size_t const thePrefixLength = sizeof "DtMergeFomTable" - 1;
   for (std::size_t i = 0; i < sizeof theNames / sizeof theNames[0]; ++i)
      if (static_cast<unsigned long>(bit) == 1ul << i)
         return theNames[i] + thePrefixLength;
   return "Unknown";
}

bool DtFedTarget::checkStringsIgnoringWhiteSpaceAndNewline(DtString const& a, DtString const& b)
{
   auto const squeezed = [](DtString const& s)
   {
      std::string out;
      for (char const* p = s.c_str(); p && *p; ++p)
         if (*p != ' ' && *p != '\t' && *p != '\n' && *p != '\r')
            out += *p;
      return out;
   };
   return squeezed(a) == squeezed(b);
}

// ---------------------------------------------------------------- construction

DtFedTarget::DtFedTarget()
    : fomType_(DtFomTypeInvalid),
      mergeTableMask(theDefaultMergeTableMask),
      automaticResignAction_(theDefaultAutomaticResignAction),
      automaticResignActionSet(false),
      autoProvide_(theDefaultAutoProvide),
      conveyRegionDesignatorSets_(theDefaultConveyRegionDesignatorSets),
      attributeScopeAdvisory_(theDefaultAttributeScopeAdvisory),
      attributeRelevanceAdvisory_(theDefaultAttributeRelevanceAdvisory),
      objectClassRelevanceAdvisory_(theDefaultObjectClassRelevanceAdvisory),
      interactionRelevanceAdvisory_(theDefaultInteractionRelevanceAdvisory),
      serviceReporting_(theDefaultServiceReporting),
      exceptionReporting_(theDefaultExceptionReporting),
      delaySubscriptionEvaluation_(theDefaultDelaySubscriptionEvaluation),
      conveyProducingFederate_(theDefaultConveyProducingFederate),
      nonRegulatedGrant_(theDefaultNonRegulatedGrant),
      sendServiceReportsToFile_(theDefaultSendServiceReportsToFile),
      advisoriesUseKnownClass_(theDefaultAdvisoriesUseKnownClass),
      allowRelaxedDdm_(theDefaultAllowRelaxedDdm),
      mergeInProgress(false),
      autoProvideName("autoProvide"),
      conveyRegionDesignatorSetsName("conveyRegionDesignatorSets"),
      attributeScopeAdvisoryName("attributeScopeAdvisory"),
      attributeRelevanceAdvisoryName("attributeRelevanceAdvisory"),
      objectClassRelevanceAdvisoryName("objectClassRelevanceAdvisory"),
      interactionRelevanceAdvisoryName("interactionRelevanceAdvisory"),
      serviceReportingName("serviceReporting"),
      exceptionReportingName("exceptionReporting"),
      delaySubscriptionEvaluationName("delaySubscriptionEvaluation"),
      conveyProducingFederateName("conveyProducingFederate"),
      nonRegulatedGrantName("nonRegulatedGrant"),
      sendServiceReportsToFileName("sendServiceReportsToFile"),
      advisoriesUseKnownClassName("advisoriesUseKnownClass"),
      // The capitals of the name that FOM files use, unlike the operations.
      allowRelaxedDdmName("allowRelaxedDDM"),
      automaticResignActionName("automaticResignAction"),
      strictChecking(false)
{
}

DtFedTarget::DtFedTarget(DtFedTarget const& other) = default;
DtFedTarget& DtFedTarget::operator=(DtFedTarget const& other) = default;
DtFedTarget::~DtFedTarget() = default;

void DtFedTarget::setFomType(DtFomType type)
{
   fomType_ = type;
   initSwitchSetters();
}

DtFomType DtFedTarget::fomType() const
{
   return fomType_;
}

void DtFedTarget::addSpace(char const*) {}

void DtFedTarget::addDimension(char const*, char const*) {}

void DtFedTarget::addDimension(char const*, unsigned long, unsigned long, unsigned long, bool,
                               DtString const&)
{
}

void DtFedTarget::initSwitchSetters()
{
   switchSetters.clear();
   switchGetters.clear();
   auto const enter = [this](DtString const& name, SwitchSetter setter, SwitchGetter getter)
   {
      switchSetters[name] = setter;
      switchGetters[name] = getter;
   };
   enter(autoProvideName, &DtFedTarget::setAutoProvide, &DtFedTarget::autoProvide);
   enter(conveyRegionDesignatorSetsName, &DtFedTarget::setConveyRegionDesignatorSets,
         &DtFedTarget::conveyRegionDesignatorSets);
   enter(attributeScopeAdvisoryName, &DtFedTarget::setAttributeScopeAdvisory,
         &DtFedTarget::attributeScopeAdvisory);
   enter(attributeRelevanceAdvisoryName, &DtFedTarget::setAttributeRelevanceAdvisory,
         &DtFedTarget::attributeRelevanceAdvisory);
   enter(objectClassRelevanceAdvisoryName, &DtFedTarget::setObjectClassRelevanceAdvisory,
         &DtFedTarget::objectClassRelevanceAdvisory);
   enter(interactionRelevanceAdvisoryName, &DtFedTarget::setInteractionRelevanceAdvisory,
         &DtFedTarget::interactionRelevanceAdvisory);
   enter(serviceReportingName, &DtFedTarget::setServiceReporting, &DtFedTarget::serviceReporting);
   if (fomType() < DtFomType1516e)
      return;
   enter(exceptionReportingName, &DtFedTarget::setExceptionReporting,
         &DtFedTarget::exceptionReporting);
   enter(delaySubscriptionEvaluationName, &DtFedTarget::setDelaySubscriptionEvaluation,
         &DtFedTarget::delaySubscriptionEvaluation);
   if (fomType() > DtFomType1516e)
   {
      enter(nonRegulatedGrantName, &DtFedTarget::setNonRegulatedGrant,
            &DtFedTarget::nonRegulatedGrant);
      enter(sendServiceReportsToFileName, &DtFedTarget::setSendServiceReportsToFile,
            &DtFedTarget::sendServiceReportsToFile);
      enter(advisoriesUseKnownClassName, &DtFedTarget::setAdvisoriesUseKnownClass,
            &DtFedTarget::advisoriesUseKnownClass);
      enter(allowRelaxedDdmName, &DtFedTarget::setAllowRelaxedDdm, &DtFedTarget::allowRelaxedDdm);
      setConveyProducingFederate(true);
   }
   else
      enter(conveyProducingFederateName, &DtFedTarget::setConveyProducingFederate,
            &DtFedTarget::conveyProducingFederate);
}

DtResignAction DtFedTarget::automaticResignAction() const
{
   return automaticResignAction_;
}

void DtFedTarget::setAutomaticResignAction(DtResignAction action)
{
   automaticResignAction_ = action;
   automaticResignActionSet = true;
}

// ---------------------------------------------------------------- record tables

std::size_t DtFedTarget::numUpdateRates() const
{
   return updateRates.size();
}

bool DtFedTarget::addUpdateRate(DtUpdateRateType* record)
{
   return adoptRecord(updateRates, record);
}

bool DtFedTarget::knownUpdateRate(DtUpdateRateType const& record) const
{
   return knownInTable(updateRates, record);
}

std::size_t DtFedTarget::numSyncPoints() const
{
   return syncPoints.size();
}

bool DtFedTarget::addSyncPoint(DtSynchronizationPointsType* record)
{
   return adoptRecord(syncPoints, record);
}

bool DtFedTarget::knownSyncPoint(DtSynchronizationPointsType const& record) const
{
   return knownInTable(syncPoints, record);
}

std::size_t DtFedTarget::numTransports() const
{
   return transportTypes.size();
}

bool DtFedTarget::addTransportType(DtTransportationType* record)
{
   return adoptRecord(transportTypes, record);
}

bool DtFedTarget::knownTransportType(DtTransportationType const& record) const
{
   return knownInTable(transportTypes, record);
}

bool DtFedTarget::transportTypeConsistencyTest(DtTransportationType const& record) const
{
   return consistencyTest(transportTypes, record, false);
}

std::shared_ptr<DtTransportationType> DtFedTarget::transportTypeFromTransportation(
    DtString const& name) const
{
   auto const found = transportTypes.find(name);
   return found == transportTypes.end() ? nullptr : *found;
}

DtMergeFomStatus_enum DtFedTarget::mergeTransportTypes(DtFedTarget const& other)
{
   if (other.transportTypes.empty())
      return DtMergeFomSuccess;
   DtMergeFomStatus_enum status = DtMergeFomSuccess;
   if (!transportTypes.empty())
   {
      for (auto const& record : other.transportTypes)
      {
         if (transportTypeConsistencyTest(*record))
            continue;
         if (status == DtMergeFomSuccess)
         {
            lastError_ = other.modelIdentification_ + " has conflicts in transport types:\n";
         }
         lastError_ += "\t";
         lastError_ += record->name;
         lastError_ += ": ";
         lastError_ += record->reliable ? "reliable" : "best_effort";
         lastError_ += ", ";
         appendQuoted(lastError_, record->description);
         status = DtMergeFomTransportTypeConflict;
      }
   }
   if (status == DtMergeFomSuccess)
      uniteTables(transportTypes, other.transportTypes);
   return settleConflicts(status, lastError_, isStrictChecking());
}

std::size_t DtFedTarget::numUserSuppliedTags() const
{
   return userSuppliedTags.size();
}

bool DtFedTarget::addUserSuppliedTag(DtUserSuppliedTagsType* record)
{
   return adoptRecord(userSuppliedTags, record);
}

bool DtFedTarget::knownUserSuppliedTag(DtUserSuppliedTagsType const& record) const
{
   return knownInTable(userSuppliedTags, record);
}

std::size_t DtFedTarget::numNotes() const
{
   return notes.size();
}

bool DtFedTarget::addNote(DtNotesType* record)
{
   return adoptRecord(notes, record);
}

bool DtFedTarget::knownNote(DtNotesType const& record) const
{
   return knownInTable(notes, record);
}

// ---------------------------------------------------------------- switches

std::size_t DtFedTarget::numSwitches() const
{
   return switches.size();
}

void DtFedTarget::addSwitch(DtString const& name, bool value)
{
   char const* const valueText = value ? "enabled" : "disabled";
   auto const setter = switchSetters.find(name);
   if (setter == switchSetters.end())
   {
      printLines(DtVerbose, "",
                 "Ignored attempt to add non standard switch " + name + " with value " + valueText +
                     " in FOM " + modelIdentification_);
      return;
   }
   auto const held = switches.find(name);
   if (held == switches.end())
   {
      DtVerbose("\t%-30s: %s\n", name.c_str(), value ? " enabled" : " disabled");
      switches.emplace(name, value);
      setter->second(this, value);
      return;
   }
   if (held->second == value)
      return;
   printLines(DtVerbose, "",
              "Ignored attempt to add duplicate conflicting switch " + name +
                  " with current value: " + (held->second ? "enabled" : "disabled") +
                  " rejected value: " + valueText + " in FOM " + modelIdentification_);
}

bool DtFedTarget::knownSwitch(DtString const& name) const
{
   return switches.count(name) != 0;
}

bool DtFedTarget::isStandardSwitch(DtString const& name) const
{
   if (switchSetters.count(name))
      return true;
   if (fomType() < DtFomType1516e)
      return false;
   return name == automaticResignActionName;
}

bool DtFedTarget::switchValue(DtString const& name) const
{
   if (fomType() > DtFomType1516e && name == conveyProducingFederateName)
      return true;
   auto const held = switches.find(name);
   return held != switches.end() && held->second;
}

DtMergeFomStatus_enum DtFedTarget::mergeSwitches(DtFedTarget const& other, bool create)
{
   DtMergeFomStatus_enum status = DtMergeFomSuccess;
   DtString const header =
       "Conflicting switch(es) when merging from FOM " + other.modelIdentification_ + " during ";
   lastError_ = "";
   if (!other.switches.empty())
   {
      printLines(DtVerbose, "", "Merging Switches ");
      // A copy, so that merging a target into itself walks a table that stays put.
      std::map<DtString, bool> const theirs = other.switches;
      for (auto const& entry : theirs)
      {
         DtString const& name = entry.first;
         bool const value = entry.second;
         if (!isStandardSwitch(name))
         {
            printLines(DtVerbose, "",
                       "Ignoring non standard switch " + name + " when merging FOM " +
                           other.modelIdentification_);
            continue;
         }
         if (switchValue(name) == value)
         {
            if (create)
               addSwitch(name, value);
            continue;
         }
         if (create && !knownSwitch(name))
         {
            addSwitch(name, value);
            continue;
         }
         if (status == DtMergeFomSuccess)
            lastError_ = header + (create ? "createFederation\n" : "joinFederation\n");
         DtString const line =
             DtString("\t") + name + ": " + (value ? "enabled" : "disabled") + "\n";
         DtVerbose << line;
         lastError_ += line;
         status = DtMergeFomSwitchConflict;
      }
   }
   if (other.automaticResignActionSet)
   {
      if (!automaticResignActionSet)
         setAutomaticResignAction(other.automaticResignAction_);
      else if (automaticResignAction_ != other.automaticResignAction_)
      {
         // As with the record tables, a conflict after an earlier one replaces what
         // came before with the header.
         if (status != DtMergeFomSuccess)
            lastError_ = header + (create ? "createFederation" : "joinFederation");
         char const* const action = enumAsString(other.automaticResignAction_);
         DtVerbose("\t%-30s: %s\n", "automaticResignAction", action);
         lastError_ += "\n\tautomaticResignAction: ";
         lastError_ += action;
         status = DtMergeFomSwitchConflict;
      }
   }
   return settleConflicts(status, lastError_, isStrictChecking());
}

// ---------------------------------------------------------------- time types

std::size_t DtFedTarget::numTimeTypes() const
{
   return timeTypes.size();
}

bool DtFedTarget::addTime(DtTimeType* record)
{
   return adoptTime(timeTypes, record);
}

bool DtFedTarget::knownTime(DtTimeType const& record) const
{
   for (auto const& held : timeTypes)
      if (held->name == record.name)
         return true;
   return false;
}

bool DtFedTarget::timeTypesSame(DtFedTarget const& other) const
{
   if (timeTypes.size() != other.timeTypes.size())
      return false;
   for (auto const& theirs : other.timeTypes)
   {
      bool const matched =
          std::any_of(timeTypes.begin(), timeTypes.end(),
                      [&](std::shared_ptr<DtTimeType> const& mine) { return *mine == *theirs; });
      if (!matched)
      {
         lastError_ = other.modelIdentification_ + " has conflicts in time types: \n";
         lastError_ += "\t";
         theirs->appendToString(lastError_);
         return false;
      }
   }
   return true;
}

DtMergeFomStatus_enum DtFedTarget::mergeTimeTypes(DtFedTarget const& other)
{
   if (timeTypes.empty())
   {
      timeTypes = other.timeTypes;
      return DtMergeFomSuccess;
   }
   if (other.timeTypes.empty())
      return DtMergeFomSuccess;
   return timeTypesSame(other) ? DtMergeFomSuccess : DtMergeFomTimeTypeConflict;
}

// ---------------------------------------------------------------- data types

bool DtFedTarget::addBasicDataRepresentation(DtBasicDataRepresentationType* record)
{
   return adoptRecord(basicDataRepresentations, record);
}

bool DtFedTarget::knownBasicDataRepresentation(DtBasicDataRepresentationType const& record) const
{
   return knownInTable(basicDataRepresentations, record);
}

bool DtFedTarget::addSimpleDataType(DtSimpleDatatypeType* record)
{
   return adoptRecord(simpleDatatypes, record);
}

bool DtFedTarget::knownSimpleDatatype(DtSimpleDatatypeType const& record) const
{
   return knownInTable(simpleDatatypes, record);
}

bool DtFedTarget::addEnumeratedDataType(DtEnumeratedDatatypeType* record)
{
   return adoptRecord(enumeratedDatatypes, record);
}

bool DtFedTarget::knownEnumeratedDatatype(DtEnumeratedDatatypeType const& record) const
{
   return knownInTable(enumeratedDatatypes, record);
}

bool DtFedTarget::addArrayDataType(DtArrayDatatypeType* record)
{
   return adoptRecord(arrayDatatypes, record);
}

bool DtFedTarget::knownArrayDatatype(DtArrayDatatypeType const& record) const
{
   return knownInTable(arrayDatatypes, record);
}

bool DtFedTarget::addFixedRecordDataType(DtFixedRecordDatatypeType* record)
{
   return adoptRecord(fixedRecordDatatypes, record);
}

bool DtFedTarget::knownFixedRecordDatatype(DtFixedRecordDatatypeType const& record) const
{
   return knownInTable(fixedRecordDatatypes, record);
}

bool DtFedTarget::addVariantRecordDataType(DtVariantRecordDatatypeType* record)
{
   return adoptRecord(variantRecordDatatypes, record);
}

bool DtFedTarget::knownVariantRecordDatatype(DtVariantRecordDatatypeType const& record) const
{
   return knownInTable(variantRecordDatatypes, record);
}

// ---------------------------------------------------------------- identity

void DtFedTarget::addModelIdentification(char const* name)
{
   if (!name)
      return;
   if (modelIdentification_.isEmpty())
      modelIdentification_ = name;
   else
   {
      DtString const part(name);
      modelIdentification_ += " + ";
      modelIdentification_ += part;
   }
}

bool DtFedTarget::knownModelIdentification(DtString const& name) const
{
   std::string const whole = modelIdentification_.stdString();
   std::string const wanted = name.stdString();
   if (whole == wanted)
      return true;
   static std::string const theJoin = " + ";
   std::size_t start = 0;
   for (;;)
   {
      std::size_t const end = whole.find(theJoin, start);
      if (whole.compare(start, end == std::string::npos ? std::string::npos : end - start,
                        wanted) == 0)
         return true;
      if (end == std::string::npos)
         return false;
      start = end + theJoin.size();
   }
}

bool DtFedTarget::modelIdentificationSame(DtFedTarget const& other) const
{
   return modelIdentification_ == other.modelIdentification_;
}

void DtFedTarget::setFomDependencies(std::vector<DtString> const& dependencies)
{
   fomDependencies_ = dependencies;
}

std::vector<DtString> const& DtFedTarget::fomDependencies() const
{
   return fomDependencies_;
}

void DtFedTarget::fomDependencies(std::vector<DtString>& out) const
{
   out = fomDependencies_;
}

void DtFedTarget::setMergeTableMask(unsigned long mask)
{
   mergeTableMask = mask;
}

bool DtFedTarget::fomTableMergeEnabled(DtMergeFomTableMask bit) const
{
   return (mergeTableMask & bit) != 0;
}

// ---------------------------------------------------------------- merging

DtMergeFomStatus_enum DtFedTarget::mergeTarget(DtFedTarget const& other, bool create)
{
   mergeInProgress = true;
   DtMergeFomStatus_enum status = DtMergeFomSuccess;
   // A step runs only while nothing has failed, and only if its table is enabled.
   auto const runs = [&](DtMergeFomTableMask bit)
   { return status == DtMergeFomSuccess && fomTableMergeEnabled(bit); };
   bool const strict = isStrictChecking();
   DtString const& them = other.modelIdentification_;

   if (runs(DtMergeFomTableTime))
      status = mergeTimeTypes(other);
   if (runs(DtMergeFomTableSwitches))
      status = mergeSwitches(other, create);
   if (runs(DtMergeFomTableUpdateRates))
      status = mergeComponent(other.updateRates, updateRates, them, "Update Rates", lastError_,
                              DtMergeFomUpdateRateConflict, strict);
   if (runs(DtMergeFomTableTransportTypes))
      status = mergeComponent(other.transportTypes, transportTypes, them, "Transport Types",
                              lastError_, DtMergeFomTransportTypeConflict, strict);
   if (runs(DtMergeFomTableUserDefinedTags) &&
       (fomType() == DtFomType1516e || fomType() == DtFomTypeHla4))
      status = mergeComponent(other.userSuppliedTags, userSuppliedTags, them, "User Supplied Tags",
                              lastError_, DtMergeFomUserSuppliedTagConflict, strict);
   if (runs(DtMergeFomTableBasicDataRepType))
      status = mergeComponent(other.basicDataRepresentations, basicDataRepresentations, them,
                              "Basic Data Representation", lastError_,
                              DtMergeFomBasicDataRepresentationConflict, strict);
   if (runs(DtMergeFomTableSimpleDataType))
      status = mergeComponent(other.simpleDatatypes, simpleDatatypes, them, "Simple Data Types",
                              lastError_, DtMergeFomSimpleDatatypeConflict, strict);
   if (runs(DtMergeFomTableEnumeratedDataType))
      status = mergeComponent(other.enumeratedDatatypes, enumeratedDatatypes, them,
                              "Enumerated Data Types", lastError_,
                              DtMergeFomEnumeratedDatatypeConflict, strict);
   if (runs(DtMergeFomTableArrayDataType))
      status = mergeComponent(other.arrayDatatypes, arrayDatatypes, them, "Array Data Types",
                              lastError_, DtMergeFomArrayDatatypeConflict, strict);
   if (runs(DtMergeFomTableFixedRecordDataType))
      status = mergeComponent(other.fixedRecordDatatypes, fixedRecordDatatypes, them,
                              "Fixed Record Data Types", lastError_,
                              DtMergeFomFixedRecordDatatypeConflict, strict);
   if (runs(DtMergeFomTableVariantRecordDataType))
      status = mergeComponent(other.variantRecordDatatypes, variantRecordDatatypes, them,
                              "Variant Record Data Types", lastError_,
                              DtMergeFomVariantRecordDatatypeConflict, strict);
   if (runs(DtMergeFomTableSyncPoints))
      status = mergeComponent(other.syncPoints, syncPoints, them, "Synchronizations", lastError_,
                              DtMergeFomSyncPointConflict, strict);
   if (runs(DtMergeFomTableNotes))
      status = mergeComponent(other.notes, notes, them, "Notes", lastError_, DtMergeFomNoteConflict,
                              strict);
   if (runs(DtMergeFomTableDimensions))
      status = mergeSpaces(other);
   if (runs(DtMergeFomTableObjectClass))
      status = mergeObjectClasses(other);
   if (runs(DtMergeFomTableInteractionClass))
      status = mergeInteractionClasses(other);

   if (status == DtMergeFomSuccess)
   {
      mergeUnresolved(other);
      DtString const name(them);
      modelIdentification_ += " + ";
      modelIdentification_ += name;
   }
   mergeInProgress = false;
   return status;
}

DtMergeFomStatus_enum DtFedTarget::mergeSpaces(DtFedTarget const&)
{
   return DtMergeFomSuccess;
}

DtMergeFomStatus_enum DtFedTarget::mergeObjectClasses(DtFedTarget const&)
{
   return DtMergeFomSuccess;
}

DtMergeFomStatus_enum DtFedTarget::mergeInteractionClasses(DtFedTarget const&)
{
   return DtMergeFomSuccess;
}

DtMergeFomStatus_enum DtFedTarget::postMergeCheckTarget(DtString& errors)
{
   bool flag = false;
   bool passed = true;
   // Every step runs, whatever the earlier ones found.
   passed = resolveObjectModelIdentification(errors) && passed;
   passed = resolveDimensions(errors, flag) && passed;
   passed = resolveTimeRepresentations(errors) && passed;
   passed = resolveUserSuppliedTags(errors) && passed;
   passed = resolveSynchronizationPoints(errors) && passed;
   passed = resolveTranportationTypes(errors) && passed;
   passed = resolveUpdateRates(errors) && passed;
   passed = resolveSwitches(errors) && passed;
   passed = resolveDatatypes(errors) && passed;
   passed = resolveNotes(errors) && passed;
   passed = resolveServiceUsage(errors) && passed;
   passed = resolveObjectClasses(errors, flag) && passed;
   passed = resolveAttributes(errors, flag) && passed;
   passed = resolveInteractionClasses(errors, flag) && passed;
   passed = resolveParameters(errors, flag) && passed;
   if (passed)
      return DtMergeFomSuccess;
   return flag ? DtMergeFomPostMergeCheckFlagged : DtMergeFomPostMergeCheckFailed;
}

// ---------------------------------------------------------------- unresolved references

void DtFedTarget::addUnresolvedObjectDimension(DtString const& objectClass,
                                               DtString const& dimension)
{
   unresolvedObjectDimensions[objectClass].insert(dimension);
}

bool DtFedTarget::removeResolvedObjectDimension(DtString const& objectClass,
                                                DtString const& dimension)
{
   return eraseUnresolved(unresolvedObjectDimensions, objectClass, dimension);
}

void DtFedTarget::addUnresolvedAttributeDimension(DtString const& objectClass,
                                                  DtString const& attribute,
                                                  DtString const& dimension)
{
   unresolvedAttributeDimensions[objectClass].emplace(attribute, dimension);
}

bool DtFedTarget::removeResolvedAttribute(DtString const& objectClass,
                                          std::pair<DtString, DtString> attributeDimension)
{
   return eraseUnresolved(unresolvedAttributeDimensions, objectClass, attributeDimension);
}

void DtFedTarget::addUnresolvedInteractionDimension(DtString const& interactionClass,
                                                    DtString const& dimension)
{
   unresolvedInteractionDimensions[interactionClass].insert(dimension);
}

bool DtFedTarget::removeResolvedInteractionDimension(DtString const& interactionClass,
                                                     DtString const& dimension)
{
   return eraseUnresolved(unresolvedInteractionDimensions, interactionClass, dimension);
}

void DtFedTarget::addUnresolvedAttributeTransportation(DtString const& objectClass,
                                                       DtString const& attribute,
                                                       DtString const& transportation)
{
   unresolvedAttributeTransportation[objectClass].emplace(attribute, transportation);
}

bool DtFedTarget::removeResolvedAttributeTransportation(
    DtString const& objectClass, std::pair<DtString, DtString> attributeTransportation)
{
   return eraseUnresolved(unresolvedAttributeTransportation, objectClass, attributeTransportation);
}

void DtFedTarget::addUnresolvedInteractionTransportation(DtString const& interactionClass,
                                                         DtString const& transportation)
{
   unresolvedInteractionTransportation[interactionClass].insert(transportation);
}

bool DtFedTarget::removeResolvedInteractionTransportation(DtString const& interactionClass,
                                                          DtString const& transportation)
{
   return eraseUnresolved(unresolvedInteractionTransportation, interactionClass, transportation);
}

DtString const& DtFedTarget::modelIdentification() const
{
   return modelIdentification_;
}

DtString const& DtFedTarget::lastError() const
{
   return lastError_;
}

bool DtFedTarget::isStrictChecking() const
{
   return strictChecking;
}

void DtFedTarget::setStrictChecking(bool strict)
{
   strictChecking = strict;
}

void DtFedTarget::mergeUnresolved(DtFedTarget const& other)
{
   unionUnresolvedClassDimensions(unresolvedObjectDimensions, other.unresolvedObjectDimensions);
   unionUnresolvedAttributeDimensions(unresolvedAttributeDimensions,
                                      other.unresolvedAttributeDimensions);
   unionUnresolvedClassDimensions(unresolvedInteractionDimensions,
                                  other.unresolvedInteractionDimensions);
   unionUnresolvedAttributeTransportation(unresolvedAttributeTransportation,
                                          other.unresolvedAttributeTransportation);
   unionUnresolvedInteractionTransportation(unresolvedInteractionTransportation,
                                            other.unresolvedInteractionTransportation);
}

void DtFedTarget::unionUnresolvedClassDimensions(DtUnresolvedNames& target,
                                                 DtUnresolvedNames const& source)
{
   uniteUnresolved(target, source);
}

void DtFedTarget::unionUnresolvedAttributeDimensions(DtUnresolvedPairs& target,
                                                     DtUnresolvedPairs const& source)
{
   uniteUnresolved(target, source);
}

void DtFedTarget::unionUnresolvedAttributeTransportation(DtUnresolvedPairs& target,
                                                         DtUnresolvedPairs const& source)
{
   uniteUnresolved(target, source);
}

void DtFedTarget::unionUnresolvedInteractionTransportation(DtUnresolvedNames& target,
                                                           DtUnresolvedNames const& source)
{
   uniteUnresolved(target, source);
}

// ---------------------------------------------------------------- resolving

bool DtFedTarget::resolveObjectModelIdentification(DtString&)
{
   return true;
}

bool DtFedTarget::resolveDimensions(DtString&, bool&)
{
   return true;
}

bool DtFedTarget::resolveTimeRepresentations(DtString&)
{
   return true;
}

bool DtFedTarget::resolveUserSuppliedTags(DtString&)
{
   return true;
}

bool DtFedTarget::resolveSynchronizationPoints(DtString&)
{
   return true;
}

bool DtFedTarget::resolveTranportationTypes(DtString& errors)
{
   for (auto const& record : transportTypes)
   {
      if (record->name.isEmpty())
      {
         errors += "Error in Transportation Type, Uninitialized name\n";
         return false;
      }
   }
   return true;
}

bool DtFedTarget::resolveUpdateRates(DtString& errors)
{
   for (auto const& record : updateRates)
   {
      if (record->name.isEmpty())
      {
         errors += "Error in Update Rates Type, Uninitialized name\n";
         return false;
      }
      // Exactly 0 is a rate nobody set; a NaN passes.
      if (record->rate == 0)
      {
         errors += "Error in Update Rates Type, name = ";
         errors += record->name;
         errors += " , Uninitialized rate\n";
         return false;
      }
   }
   return true;
}

void DtFedTarget::checkSpecificSwitch(DtString const& name, bool& missing, DtString& list) const
{
   if (switches.count(name))
      return;
   missing = true;
   list += name;
   list += " ";
}

bool DtFedTarget::resolveSwitches(DtString& errors)
{
   bool missing = false;
   DtString list;
   auto const checkBase = [&]
   {
      for (DtString const* name :
           {&autoProvideName, &conveyRegionDesignatorSetsName, &attributeScopeAdvisoryName,
            &attributeRelevanceAdvisoryName, &objectClassRelevanceAdvisoryName,
            &interactionRelevanceAdvisoryName, &serviceReportingName})
         checkSpecificSwitch(*name, missing, list);
   };
   switch (fomType())
   {
      case DtFomTypeInvalid:
         errors += "Invalid FOM Type\n";
         return false;
      case DtFomTypeHla13:
      case DtFomTypeHla4:
         return true;
      case DtFomType1516:
         checkBase();
         if (!missing)
            return true;
         errors += "Missing switch in the switches Table\n";
         errors += list;
         return false;
      case DtFomType1516e:
         checkBase();
         checkSpecificSwitch(conveyProducingFederateName, missing, list);
         checkSpecificSwitch(exceptionReportingName, missing, list);
         checkSpecificSwitch(delaySubscriptionEvaluationName, missing, list);
         if (!missing)
            return true;
         errors += "Missing switch in the switches Table\n";
         errors += list;
         errors += "\n";
         // Only strict checking insists on a full switch table in this format.
         return !isStrictChecking();
   }
   errors += "Unknown FOM Type\n";
   return false;
}

bool DtFedTarget::resolveDatatypes(DtString&)
{
   return true;
}

bool DtFedTarget::resolveNotes(DtString&)
{
   return true;
}

bool DtFedTarget::resolveServiceUsage(DtString&)
{
   return true;
}

bool DtFedTarget::resolveObjectClasses(DtString&, bool&)
{
   return true;
}

bool DtFedTarget::resolveAttributes(DtString&, bool&)
{
   return true;
}

bool DtFedTarget::resolveInteractionClasses(DtString&, bool&)
{
   return true;
}

bool DtFedTarget::resolveParameters(DtString&, bool&)
{
   return true;
}
