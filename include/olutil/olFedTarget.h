//===- olutil/olFedTarget.h - FOM records, targets and merging --*- C++ -*-===//
//
// Family: FOM.
//
// A federation object model (FOM) in the sense of the HLA Object Model Template is
// read elsewhere and held in a DtFedTarget: its identity, its tables of small value
// records (time, tags, synchronization points, transportations, update rates, notes,
// switches and the six kinds of data type), and the references it leaves open.
// mergeTarget folds another module's target into this one, table by table, and
// postMergeCheckTarget checks the result once every module is in. Conflicts stop a
// merge under strict checking and are forgiven with a warning otherwise.
//
// DtFedTarget is abstract: object classes, interaction classes and dimensions belong
// to subclasses, which fill them through the pure virtual operations and may
// override the merge and resolve steps that this class leaves empty.
//
// A target belongs to one thread; a merge runs on the caller's thread. Copies of a
// target share their records, which are immutable once in a table.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLFEDTARGET_H
#define OLUTIL_OLFEDTARGET_H

#include <olutil/olString.h>

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

// ---------------------------------------------------------------- records
//
// Every record begins with its name. operator== and operator< compare the name alone,
// except DtTimeType's operator==, which compares all three fields. compareSubcomponents
// tells whether two records of one name may stand for one table entry; appendToString
// appends the record's one-line text, without a leading tab or a line end.

class DtTimeType
{
public:
   DtString name;
   DtString dataType;
   DtString semantics;

   bool operator==(DtTimeType const& other) const;
   bool operator<(DtTimeType const& other) const;
   // name: dataType, "semantics"
   void appendToString(DtString& text) const;
};

class DtUserSuppliedTagsType
{
public:
   DtString name;
   DtString dataType;
   DtString semantics;

   bool operator==(DtUserSuppliedTagsType const& other) const;
   bool operator<(DtUserSuppliedTagsType const& other) const;
   // Not strict: always. Strict: dataType and semantics equal.
   bool compareSubcomponents(DtUserSuppliedTagsType const& other, bool strict) const;
   // name: dataType, "semantics"
   void appendToString(DtString& text) const;
};

class DtSynchronizationPointsType
{
public:
   DtString name;
   DtString dataType;
   int capability = 0;
   DtString semantics;

   bool operator==(DtSynchronizationPointsType const& other) const;
   bool operator<(DtSynchronizationPointsType const& other) const;
   // Not strict: always. Strict: dataType and semantics equal; the capability is
   // deliberately left out.
   bool compareSubcomponents(DtSynchronizationPointsType const& other, bool strict) const;
   // name: dataType, capability, "semantics"
   void appendToString(DtString& text) const;
};

class DtTransportationType
{
public:
   DtString name;
   DtString description;
   bool reliable = false;
   DtString semantics;

   bool operator==(DtTransportationType const& other) const;
   bool operator<(DtTransportationType const& other) const;
   // Not strict: reliable equal. Strict: reliable, semantics and description equal.
   bool compareSubcomponents(DtTransportationType const& other, bool strict) const;
   // name: Reliable|BestEffort, "description", "semantics"
   void appendToString(DtString& text) const;
};

class DtUpdateRateType
{
public:
   DtString name;
   float rate = 0;
   DtString semantics;

   bool operator==(DtUpdateRateType const& other) const;
   bool operator<(DtUpdateRateType const& other) const;
   // Not strict: always. Strict: rate and semantics equal, so a NaN rate on either
   // side makes the records unequal.
   bool compareSubcomponents(DtUpdateRateType const& other, bool strict) const;
   // name: rate, "semantics". The rate is written in the shortest form that reads
   // back to the same float ("10.56", not "10.56000041962").
   void appendToString(DtString& text) const;
};

// The six data type records never conflict: compareSubcomponents is always true.
class DtBasicDataRepresentationType
{
public:
   DtString name;
   unsigned int size = 0;
   DtString interpretation;
   int endian = 0;
   DtString encoding;

   bool operator==(DtBasicDataRepresentationType const& other) const;
   bool operator<(DtBasicDataRepresentationType const& other) const;
   bool compareSubcomponents(DtBasicDataRepresentationType const& other, bool strict) const;
   // name: size, endian, "interpretation", "encoding"
   void appendToString(DtString& text) const;
};

class DtSimpleDatatypeType
{
public:
   DtString name;
   DtString representation;
   DtString units;
   DtString resolution;
   DtString accuracy;
   DtString semantics;

   bool operator==(DtSimpleDatatypeType const& other) const;
   bool operator<(DtSimpleDatatypeType const& other) const;
   bool compareSubcomponents(DtSimpleDatatypeType const& other, bool strict) const;
   // name: "representation", "units", "resolution", "accuracy", "semantics"
   void appendToString(DtString& text) const;
};

class DtEnumeratedDatatypeType
{
public:
   DtString name;
   DtString representation;
   DtString semantics;

   bool operator==(DtEnumeratedDatatypeType const& other) const;
   bool operator<(DtEnumeratedDatatypeType const& other) const;
   bool compareSubcomponents(DtEnumeratedDatatypeType const& other, bool strict) const;
   // name: "representation", "semantics"
   void appendToString(DtString& text) const;
};

class DtArrayDatatypeType
{
public:
   DtString name;
   DtString dataType;
   DtString cardinality;
   DtString encoding;
   DtString semantics;

   bool operator==(DtArrayDatatypeType const& other) const;
   bool operator<(DtArrayDatatypeType const& other) const;
   bool compareSubcomponents(DtArrayDatatypeType const& other, bool strict) const;
   // name: "dataType", "cardinality", "encoding", "semantics"
   void appendToString(DtString& text) const;
};

class DtFixedRecordDatatypeType
{
public:
   DtString name;
   DtString encoding;
   DtString semantics;

   bool operator==(DtFixedRecordDatatypeType const& other) const;
   bool operator<(DtFixedRecordDatatypeType const& other) const;
   bool compareSubcomponents(DtFixedRecordDatatypeType const& other, bool strict) const;
   // name: "encoding", "semantics"
   void appendToString(DtString& text) const;
};

class DtVariantRecordDatatypeType
{
public:
   DtString name;
   DtString discriminant;
   DtString dataType;
   DtString alternatives;
   DtString encoding;
   DtString semantics;

   bool operator==(DtVariantRecordDatatypeType const& other) const;
   bool operator<(DtVariantRecordDatatypeType const& other) const;
   bool compareSubcomponents(DtVariantRecordDatatypeType const& other, bool strict) const;
   // name: discriminant, "dataType", "alternatives", "encoding", "semantics"
   void appendToString(DtString& text) const;
};

class DtNotesType
{
public:
   DtString name;
   DtString semantics;

   bool operator==(DtNotesType const& other) const;
   bool operator<(DtNotesType const& other) const;
   // Not strict: always. Strict: semantics equal.
   bool compareSubcomponents(DtNotesType const& other, bool strict) const;
   // name: "semantics"
   void appendToString(DtString& text) const;
};

// Orders shared records by the records they point at (T::operator<, the name). It also
// compares a shared record with a bare one or with a name, so a table can be searched
// by a record that is not in it, or by name alone.
template <typename T>
struct FomTypeCompare
{
   using is_transparent = void;
   bool operator()(std::shared_ptr<T> const& a, std::shared_ptr<T> const& b) const
   {
      return *a < *b;
   }
   bool operator()(std::shared_ptr<T> const& a, T const& b) const { return *a < b; }
   bool operator()(T const& a, std::shared_ptr<T> const& b) const { return a < *b; }
   bool operator()(std::shared_ptr<T> const& a, DtString const& name) const
   {
      return a->name < name;
   }
   bool operator()(DtString const& name, std::shared_ptr<T> const& b) const
   {
      return name < b->name;
   }
};

// A table of records, one per name.
template <typename T>
using DtFomTable = std::set<std::shared_ptr<T>, FomTypeCompare<T>>;
// The time table is ordered by pointer, so two time types of one name can stand side
// by side.
typedef std::set<std::shared_ptr<DtTimeType>> DtTimeTypeTable;

// Unresolved references: class -> names, and class -> (member, name) pairs.
typedef std::map<DtString, std::set<DtString>> DtUnresolvedNames;
typedef std::map<DtString, std::set<std::pair<DtString, DtString>>> DtUnresolvedPairs;

// The result of a merge: 21 for success, otherwise the number of the table that failed.
// The values 0, 2 and 16 to 19 are never produced by DtFedTarget itself; subclasses
// may use them for their own tables.
enum DtMergeFomStatus_enum : int
{
   DtMergeFomSwitchConflict = 1,
   DtMergeFomPostMergeCheckFailed = 3,
   DtMergeFomUpdateRateConflict = 4,
   DtMergeFomTransportTypeConflict = 5,
   DtMergeFomSyncPointConflict = 6,
   DtMergeFomUserSuppliedTagConflict = 7,
   DtMergeFomNoteConflict = 8,
   DtMergeFomTimeTypeConflict = 9,
   DtMergeFomBasicDataRepresentationConflict = 10,
   DtMergeFomSimpleDatatypeConflict = 11,
   DtMergeFomEnumeratedDatatypeConflict = 12,
   DtMergeFomArrayDatatypeConflict = 13,
   DtMergeFomFixedRecordDatatypeConflict = 14,
   DtMergeFomVariantRecordDatatypeConflict = 15,
   // The check failed, and its flag reported a further condition (what that is, a
   // subclass decides).
   DtMergeFomPostMergeCheckFlagged = 20,
   DtMergeFomSuccess = 21
};

// The meaning of a status in a few words ("success", "update rate conflict"); values the
// base class never produces give "unknown status".
char const* DtMergeFomStatusText(int status);

// Tests `record` against the record of the same name in `table`;
// a record whose name the table lacks passes.
template <typename T>
bool consistencyTest(DtFomTable<T> const& table, T const& record, bool strict);

// Merges the `source` table into `target`: the records of `source` that conflict with
// `target` are written to `lastError` (from the second conflict on, after a header that
// replaces what came before) and give `errorCode`. Under strict checking a conflict
// leaves `target` as it was and is returned; otherwise it is reported on DtWarn as
// "Merge Error ignored: ..." and the merge goes on. A merge that goes on adds every
// record of `source` whose name `target` lacks; where both hold a name, the record
// already in `target` stays.
template <typename T>
DtMergeFomStatus_enum mergeComponent(DtFomTable<T> const& source, DtFomTable<T>& target,
                                     DtString const& otherModelName, char const* tableName,
                                     DtString& lastError, DtMergeFomStatus_enum errorCode,
                                     bool strict);

// ---------------------------------------------------------------- enumerations

// The version of a FOM's format; only the numbers matter to DtFedTarget.
enum DtFomType : int
{
   DtFomTypeInvalid = 0,  // resolveSwitches fails
   DtFomTypeHla13 = 1,    // no switch table requirement
   DtFomType1516 = 2,     // the seven base switches are required
   DtFomType1516e = 3,    // three more switches, automaticResignAction and tags
   DtFomTypeHla4 = 4      // four more switches; conveyProducingFederate always on
};

enum DtResignAction : int
{
   DtResignUnconditionallyDivestAttributes = 0,
   DtResignDeleteObjects = 1,
   DtResignCancelPendingOwnershipAcquisitions = 2,
   DtResignDeleteObjectsThenDivest = 3,
   DtResignCancelThenDeleteThenDivest = 4,
   DtResignNoAction = 5
};

// One bit for each table that mergeTarget can merge.
enum DtMergeFomTableMask : unsigned long
{
   DtMergeFomTableUnknown = 0,
   DtMergeFomTableIdentification = 1,
   DtMergeFomTableObjectClass = 2,
   DtMergeFomTableInteractionClass = 4,
   DtMergeFomTableDirectedInteraction = 8,
   DtMergeFomTableDimensions = 16,
   DtMergeFomTableTime = 32,
   DtMergeFomTableUserDefinedTags = 64,
   DtMergeFomTableSyncPoints = 128,
   DtMergeFomTableTransportTypes = 256,
   DtMergeFomTableUpdateRates = 512,
   DtMergeFomTableSwitches = 1024,
   DtMergeFomTableBasicDataRepType = 2048,
   DtMergeFomTableSimpleDataType = 4096,
   DtMergeFomTableEnumeratedDataType = 8192,
   DtMergeFomTableArrayDataType = 16384,
   DtMergeFomTableFixedRecordDataType = 32768,
   DtMergeFomTableVariantRecordDataType = 65536,
   DtMergeFomTableReferenceType = 131072,
   DtMergeFomTableNotes = 262144
};

// ---------------------------------------------------------------- the target

class DtFedTarget
{
public:
   // Every table bit from ObjectClass to VariantRecordDataType but DirectedInteraction.
   static constexpr unsigned long theDefaultMergeTableMask = 0x1fff6;

   // Empty tables, no FOM type (and so no switch setters), the default mask, each
   // switch at its class-wide default, lenient checking.
   DtFedTarget();
   // Copies share the records of the tables.
   DtFedTarget(DtFedTarget const& other);
   DtFedTarget& operator=(DtFedTarget const& other);

   // "UnconditionallyDivestAttributes" ... "NoAction", the historical spellings kept;
   // "unknown" for any other value.
   static char const* enumAsString(DtResignAction action);
   // The enumerator's name without "DtMergeFomTable" ("ObjectClass"); "Unknown" for a
   // value that is not one bit of the table.
   static char const* enumAsString(DtMergeFomTableMask bit);

   // Class-wide defaults that a new target takes for its switches; all start false.
   static bool defaultAutoProvide();
   static void setDefaultAutoProvide(bool value);
   static bool defaultConveyRegionDesignatorSets();
   static void setDefaultConveyRegionDesignatorSets(bool value);
   static bool defaultAttributeScopeAdvisory();
   static void setDefaultAttributeScopeAdvisory(bool value);
   static bool defaultAttributeRelevanceAdvisory();
   static void setDefaultAttributeRelevanceAdvisory(bool value);
   static bool defaultObjectClassRelevanceAdvisory();
   static void setDefaultObjectClassRelevanceAdvisory(bool value);
   static bool defaultInteractionRelevanceAdvisory();
   static void setDefaultInteractionRelevanceAdvisory(bool value);
   static bool defaultServiceReporting();
   static void setDefaultServiceReporting(bool value);
   static bool defaultExceptionReporting();
   static void setDefaultExceptionReporting(bool value);
   static bool defaultDelaySubscriptionEvaluation();
   static void setDefaultDelaySubscriptionEvaluation(bool value);
   static bool defaultConveyProducingFederate();
   static void setDefaultConveyProducingFederate(bool value);
   static bool defaultNonRegulatedGrant();
   static void setDefaultNonRegulatedGrant(bool value);
   static bool defaultSendServiceReportsToFile();
   static void setDefaultSendServiceReportsToFile(bool value);
   static bool defaultAdvisoriesUseKnownClass();
   static void setDefaultAdvisoriesUseKnownClass(bool value);
   static bool defaultAllowRelaxedDdm();
   static void setDefaultAllowRelaxedDdm(bool value);
   // 4, CancelThenDeleteThenDivest, until changed.
   static DtResignAction defaultAutomaticResignAction();
   static void setDefaultAutomaticResignAction(DtResignAction action);

   // The forwarding pairs that the switch maps hold: each calls the virtual getter or
   // setter of the same name on the target it is given.
   static bool autoProvide(DtFedTarget const* target);
   static void setAutoProvide(DtFedTarget* target, bool value);
   static bool conveyRegionDesignatorSets(DtFedTarget const* target);
   static void setConveyRegionDesignatorSets(DtFedTarget* target, bool value);
   static bool attributeScopeAdvisory(DtFedTarget const* target);
   static void setAttributeScopeAdvisory(DtFedTarget* target, bool value);
   static bool attributeRelevanceAdvisory(DtFedTarget const* target);
   static void setAttributeRelevanceAdvisory(DtFedTarget* target, bool value);
   static bool objectClassRelevanceAdvisory(DtFedTarget const* target);
   static void setObjectClassRelevanceAdvisory(DtFedTarget* target, bool value);
   static bool interactionRelevanceAdvisory(DtFedTarget const* target);
   static void setInteractionRelevanceAdvisory(DtFedTarget* target, bool value);
   static bool serviceReporting(DtFedTarget const* target);
   static void setServiceReporting(DtFedTarget* target, bool value);
   static bool exceptionReporting(DtFedTarget const* target);
   static void setExceptionReporting(DtFedTarget* target, bool value);
   static bool delaySubscriptionEvaluation(DtFedTarget const* target);
   static void setDelaySubscriptionEvaluation(DtFedTarget* target, bool value);
   static bool conveyProducingFederate(DtFedTarget const* target);
   static void setConveyProducingFederate(DtFedTarget* target, bool value);
   static bool nonRegulatedGrant(DtFedTarget const* target);
   static void setNonRegulatedGrant(DtFedTarget* target, bool value);
   static bool sendServiceReportsToFile(DtFedTarget const* target);
   static void setSendServiceReportsToFile(DtFedTarget* target, bool value);
   static bool advisoriesUseKnownClass(DtFedTarget const* target);
   static void setAdvisoriesUseKnownClass(DtFedTarget* target, bool value);
   static bool allowRelaxedDdm(DtFedTarget const* target);
   static void setAllowRelaxedDdm(DtFedTarget* target, bool value);

   // True for two texts that are equal once every blank, tab and line end is taken out.
   static bool checkStringsIgnoringWhiteSpaceAndNewline(DtString const& a, DtString const& b);

   // ------------------------------------------------ virtual operations
   // The order of these declarations is the order of the virtual table, which
   // subclasses in other libraries depend on: append only at the end.

   virtual ~DtFedTarget();

   // Stores the type and rebuilds the switch maps for it (see initSwitchSetters).
   virtual void setFomType(DtFomType type);
   virtual DtFomType fomType() const;
   // Routing spaces and dimensions belong to subclasses; these do nothing here.
   virtual void addSpace(char const* name);
   virtual void addDimension(char const* name, char const* dataType);
   virtual void addDimension(char const* name, unsigned long upperBound, unsigned long rangeLower,
                             unsigned long rangeUpper, bool rangeExcluded,
                             DtString const& normalization);

   // Object and interaction classes, by their full dotted names
   // ("HLAobjectRoot.BaseEntity"); their members by class and member name. An add
   // answers whether it added something new.
   virtual bool addObjectClass(DtString const& name) = 0;
   virtual bool addAttribute(DtString const& objectClass, DtString const& attribute,
                             DtString const& dataType, DtString const& transportation) = 0;
   virtual bool addInteractionClass(DtString const& name, DtString const& transportation) = 0;
   virtual bool addParameter(DtString const& interactionClass, DtString const& parameter,
                             DtString const& dataType) = 0;
   virtual bool knownObjectClass(DtString const& name) const = 0;
   virtual bool knownAttribute(DtString const& objectClass, DtString const& attribute) const = 0;
   virtual bool knownInteractionClass(DtString const& name) const = 0;
   virtual bool knownParameter(DtString const& interactionClass,
                               DtString const& parameter) const = 0;

   // The switches: each getter reads this target's own value, each setter writes it.
   virtual bool autoProvide() const;
   virtual void setAutoProvide(bool value);
   virtual bool conveyRegionDesignatorSets() const;
   virtual void setConveyRegionDesignatorSets(bool value);
   virtual bool conveyProducingFederate() const;
   virtual void setConveyProducingFederate(bool value);
   virtual bool attributeScopeAdvisory() const;
   virtual void setAttributeScopeAdvisory(bool value);
   virtual bool attributeRelevanceAdvisory() const;
   virtual void setAttributeRelevanceAdvisory(bool value);
   virtual bool objectClassRelevanceAdvisory() const;
   virtual void setObjectClassRelevanceAdvisory(bool value);
   virtual bool interactionRelevanceAdvisory() const;
   virtual void setInteractionRelevanceAdvisory(bool value);
   virtual bool serviceReporting() const;
   virtual void setServiceReporting(bool value);
   virtual bool exceptionReporting() const;
   virtual void setExceptionReporting(bool value);
   virtual bool delaySubscriptionEvaluation() const;
   virtual void setDelaySubscriptionEvaluation(bool value);
   virtual DtResignAction automaticResignAction() const;
   // Stores the action and marks it as set.
   virtual void setAutomaticResignAction(DtResignAction action);
   virtual bool nonRegulatedGrant() const;
   virtual void setNonRegulatedGrant(bool value);
   virtual bool sendServiceReportsToFile() const;
   virtual void setSendServiceReportsToFile(bool value);
   virtual bool advisoriesUseKnownClass() const;
   virtual void setAdvisoriesUseKnownClass(bool value);
   virtual bool allowRelaxedDdm() const;
   virtual void setAllowRelaxedDdm(bool value);

   // Tables of records. Every addX takes ownership of the record: it goes into the
   // table unless one of the same name is there already, in which case it is deleted
   // (the time table, ordered by pointer, keeps both). A null record, or one that the
   // table already holds, is left alone. An add answers whether the record went in.
   // knownX answers whether a record of the same name is in the table.
   virtual std::size_t numUpdateRates() const;
   virtual bool addUpdateRate(DtUpdateRateType* record);
   virtual bool knownUpdateRate(DtUpdateRateType const& record) const;
   virtual std::size_t numSyncPoints() const;
   virtual bool addSyncPoint(DtSynchronizationPointsType* record);
   virtual bool knownSyncPoint(DtSynchronizationPointsType const& record) const;
   virtual std::size_t numTransports() const;
   virtual bool addTransportType(DtTransportationType* record);
   virtual bool knownTransportType(DtTransportationType const& record) const;
   // False when this target holds a transport type of the record's name whose
   // reliability differs; an unknown name passes.
   virtual bool transportTypeConsistencyTest(DtTransportationType const& record) const;
   // The transport type of that name, or null.
   virtual std::shared_ptr<DtTransportationType> transportTypeFromTransportation(
       DtString const& name) const;
   // A stand-alone merge of the other's transport types, compared by reliability only;
   // mergeTarget does not call it.
   virtual DtMergeFomStatus_enum mergeTransportTypes(DtFedTarget const& other);
   virtual std::size_t numUserSuppliedTags() const;
   virtual bool addUserSuppliedTag(DtUserSuppliedTagsType* record);
   virtual bool knownUserSuppliedTag(DtUserSuppliedTagsType const& record) const;
   virtual std::size_t numNotes() const;
   virtual bool addNote(DtNotesType* record);
   virtual bool knownNote(DtNotesType const& record) const;

   // The switch table holds what a FOM declared. addSwitch records a standard switch
   // (one with a setter for this FOM type) and runs its setter; a second declaration
   // with the other value is refused, keeping the first.
   virtual std::size_t numSwitches() const;
   virtual void addSwitch(DtString const& name, bool value);
   // Whether the switch table has the name.
   virtual bool knownSwitch(DtString const& name) const;
   // Whether the name has a setter; for FOM types 3 and 4 also "automaticResignAction".
   virtual bool isStandardSwitch(DtString const& name) const;
   // The table's value (false when absent); on FOM type 4, conveyProducingFederate is
   // always true.
   virtual bool switchValue(DtString const& name) const;
   virtual DtMergeFomStatus_enum mergeSwitches(DtFedTarget const& other, bool create);
   virtual std::size_t numTimeTypes() const;
   virtual bool addTime(DtTimeType* record);
   virtual bool knownTime(DtTimeType const& record) const;
   // Same size, and every time type of the other has an equal one here.
   virtual bool timeTypesSame(DtFedTarget const& other) const;
   virtual DtMergeFomStatus_enum mergeTimeTypes(DtFedTarget const& other);

   virtual bool addBasicDataRepresentation(DtBasicDataRepresentationType* record);
   virtual bool knownBasicDataRepresentation(DtBasicDataRepresentationType const& record) const;
   virtual bool addSimpleDataType(DtSimpleDatatypeType* record);
   virtual bool knownSimpleDatatype(DtSimpleDatatypeType const& record) const;
   virtual bool addEnumeratedDataType(DtEnumeratedDatatypeType* record);
   virtual bool knownEnumeratedDatatype(DtEnumeratedDatatypeType const& record) const;
   virtual bool addArrayDataType(DtArrayDatatypeType* record);
   virtual bool knownArrayDatatype(DtArrayDatatypeType const& record) const;
   virtual bool addFixedRecordDataType(DtFixedRecordDatatypeType* record);
   virtual bool knownFixedRecordDatatype(DtFixedRecordDatatypeType const& record) const;
   virtual bool addVariantRecordDataType(DtVariantRecordDatatypeType* record);
   virtual bool knownVariantRecordDatatype(DtVariantRecordDatatypeType const& record) const;

   // Sets the model identification, or appends " + " and the name to one already set.
   // Null does nothing.
   virtual void addModelIdentification(char const* name);
   // Whether the name is one of the " + "-joined parts of the model identification.
   virtual bool knownModelIdentification(DtString const& name) const;
   virtual bool modelIdentificationSame(DtFedTarget const& other) const;
   // The modules this one names as its dependencies.
   virtual void setFomDependencies(std::vector<DtString> const& dependencies);
   virtual std::vector<DtString> const& fomDependencies() const;
   virtual void fomDependencies(std::vector<DtString>& out) const;
   virtual void setMergeTableMask(unsigned long mask);
   virtual bool fomTableMergeEnabled(DtMergeFomTableMask bit) const;
   // Merges `other` into this target table by table (see docs/fom.md): 21 for success,
   // otherwise the status of the first table that failed. `create` is true while a
   // federation is being created, false while one is joined.
   virtual DtMergeFomStatus_enum mergeTarget(DtFedTarget const& other, bool create);
   // Subclasses that hold dimensions and classes merge them here; 21 in this class.
   virtual DtMergeFomStatus_enum mergeSpaces(DtFedTarget const& other);
   virtual DtMergeFomStatus_enum mergeObjectClasses(DtFedTarget const& other);
   virtual DtMergeFomStatus_enum mergeInteractionClasses(DtFedTarget const& other);
   // Runs every resolve step and appends what failed to `errors`: 21 if all passed,
   // 20 if one failed and a step raised the shared flag, 3 otherwise.
   virtual DtMergeFomStatus_enum postMergeCheckTarget(DtString& errors);

   // References that a module makes and another must define. An add creates the
   // class's entry or adds to it; a remove erases the one reference and keeps the
   // class's entry, even when it is left empty. A remove answers whether it erased.
   virtual void addUnresolvedObjectDimension(DtString const& objectClass,
                                             DtString const& dimension);
   virtual bool removeResolvedObjectDimension(DtString const& objectClass,
                                              DtString const& dimension);
   virtual void addUnresolvedAttributeDimension(DtString const& objectClass,
                                                DtString const& attribute,
                                                DtString const& dimension);
   virtual bool removeResolvedAttribute(DtString const& objectClass,
                                        std::pair<DtString, DtString> attributeDimension);
   virtual void addUnresolvedInteractionDimension(DtString const& interactionClass,
                                                  DtString const& dimension);
   virtual bool removeResolvedInteractionDimension(DtString const& interactionClass,
                                                   DtString const& dimension);
   virtual void addUnresolvedAttributeTransportation(DtString const& objectClass,
                                                     DtString const& attribute,
                                                     DtString const& transportation);
   virtual bool removeResolvedAttributeTransportation(
       DtString const& objectClass, std::pair<DtString, DtString> attributeTransportation);
   virtual void addUnresolvedInteractionTransportation(DtString const& interactionClass,
                                                       DtString const& transportation);
   virtual bool removeResolvedInteractionTransportation(DtString const& interactionClass,
                                                        DtString const& transportation);
   virtual DtString const& modelIdentification() const;
   // What the last conflicts or failed checks left; see docs/fom.md for how it grows.
   virtual DtString const& lastError() const;
   virtual bool isStrictChecking() const;
   virtual void setStrictChecking(bool strict);
   // Unites each unresolved-reference table with the other's.
   virtual void mergeUnresolved(DtFedTarget const& other);

   // The steps of postMergeCheckTarget, in its order. Each appends what failed to
   // `errors` and answers whether it passed; those with `flag` may raise it. In this
   // class all but resolveTranportationTypes, resolveUpdateRates and resolveSwitches
   // pass at once.
   virtual bool resolveObjectModelIdentification(DtString& errors);
   virtual bool resolveDimensions(DtString& errors, bool& flag);
   virtual bool resolveTimeRepresentations(DtString& errors);
   virtual bool resolveUserSuppliedTags(DtString& errors);
   virtual bool resolveSynchronizationPoints(DtString& errors);
   virtual bool resolveTranportationTypes(DtString& errors);
   virtual bool resolveUpdateRates(DtString& errors);
   virtual bool resolveSwitches(DtString& errors);
   virtual bool resolveDatatypes(DtString& errors);
   virtual bool resolveNotes(DtString& errors);
   virtual bool resolveServiceUsage(DtString& errors);
   virtual bool resolveObjectClasses(DtString& errors, bool& flag);
   virtual bool resolveAttributes(DtString& errors, bool& flag);
   virtual bool resolveInteractionClasses(DtString& errors, bool& flag);
   virtual bool resolveParameters(DtString& errors, bool& flag);

   // ------------------------------------------------ read access to the tables
   DtTimeTypeTable const& timeTypeTable() const { return timeTypes; }
   DtFomTable<DtUserSuppliedTagsType> const& userSuppliedTagTable() const
   {
      return userSuppliedTags;
   }
   DtFomTable<DtSynchronizationPointsType> const& syncPointTable() const { return syncPoints; }
   DtFomTable<DtTransportationType> const& transportTypeTable() const { return transportTypes; }
   DtFomTable<DtUpdateRateType> const& updateRateTable() const { return updateRates; }
   DtFomTable<DtNotesType> const& noteTable() const { return notes; }
   std::map<DtString, bool> const& switchTable() const { return switches; }
   DtFomTable<DtBasicDataRepresentationType> const& basicDataRepresentationTable() const
   {
      return basicDataRepresentations;
   }
   DtFomTable<DtSimpleDatatypeType> const& simpleDatatypeTable() const { return simpleDatatypes; }
   DtFomTable<DtEnumeratedDatatypeType> const& enumeratedDatatypeTable() const
   {
      return enumeratedDatatypes;
   }
   DtFomTable<DtArrayDatatypeType> const& arrayDatatypeTable() const { return arrayDatatypes; }
   DtFomTable<DtFixedRecordDatatypeType> const& fixedRecordDatatypeTable() const
   {
      return fixedRecordDatatypes;
   }
   DtFomTable<DtVariantRecordDatatypeType> const& variantRecordDatatypeTable() const
   {
      return variantRecordDatatypes;
   }
   DtUnresolvedNames const& unresolvedObjectDimensionTable() const
   {
      return unresolvedObjectDimensions;
   }
   DtUnresolvedPairs const& unresolvedAttributeDimensionTable() const
   {
      return unresolvedAttributeDimensions;
   }
   DtUnresolvedNames const& unresolvedInteractionDimensionTable() const
   {
      return unresolvedInteractionDimensions;
   }
   DtUnresolvedPairs const& unresolvedAttributeTransportationTable() const
   {
      return unresolvedAttributeTransportation;
   }
   DtUnresolvedNames const& unresolvedInteractionTransportationTable() const
   {
      return unresolvedInteractionTransportation;
   }
   bool automaticResignActionIsSet() const { return automaticResignActionSet; }
   bool isMergeInProgress() const { return mergeInProgress; }

protected:
   // Clears both switch maps and enters the setter and getter of every switch that
   // the FOM type knows; type 4 also turns conveyProducingFederate on.
   void initSwitchSetters();
   // Sets `missing` and appends the name and a blank to `list` when the switch table
   // lacks the name.
   void checkSpecificSwitch(DtString const& name, bool& missing, DtString& list) const;
   static void unionUnresolvedClassDimensions(DtUnresolvedNames& target,
                                              DtUnresolvedNames const& source);
   static void unionUnresolvedAttributeDimensions(DtUnresolvedPairs& target,
                                                  DtUnresolvedPairs const& source);
   static void unionUnresolvedAttributeTransportation(DtUnresolvedPairs& target,
                                                      DtUnresolvedPairs const& source);
   static void unionUnresolvedInteractionTransportation(DtUnresolvedNames& target,
                                                        DtUnresolvedNames const& source);

   typedef void (*SwitchSetter)(DtFedTarget*, bool);
   typedef bool (*SwitchGetter)(DtFedTarget const*);

   // The order of these fields is part of the binary layout.
   DtFomType fomType_;
   DtString modelIdentification_;
   DtTimeTypeTable timeTypes;
   DtFomTable<DtUserSuppliedTagsType> userSuppliedTags;
   DtFomTable<DtSynchronizationPointsType> syncPoints;
   DtFomTable<DtTransportationType> transportTypes;
   DtFomTable<DtUpdateRateType> updateRates;
   DtFomTable<DtNotesType> notes;
   std::map<DtString, bool> switches;
   DtFomTable<DtBasicDataRepresentationType> basicDataRepresentations;
   DtFomTable<DtSimpleDatatypeType> simpleDatatypes;
   DtFomTable<DtEnumeratedDatatypeType> enumeratedDatatypes;
   DtFomTable<DtArrayDatatypeType> arrayDatatypes;
   DtFomTable<DtFixedRecordDatatypeType> fixedRecordDatatypes;
   DtFomTable<DtVariantRecordDatatypeType> variantRecordDatatypes;
   unsigned long mergeTableMask;
   DtResignAction automaticResignAction_;
   bool automaticResignActionSet;
   bool autoProvide_;
   bool conveyRegionDesignatorSets_;
   bool attributeScopeAdvisory_;
   bool attributeRelevanceAdvisory_;
   bool objectClassRelevanceAdvisory_;
   bool interactionRelevanceAdvisory_;
   bool serviceReporting_;
   bool exceptionReporting_;
   bool delaySubscriptionEvaluation_;
   bool conveyProducingFederate_;
   bool nonRegulatedGrant_;
   bool sendServiceReportsToFile_;
   bool advisoriesUseKnownClass_;
   bool allowRelaxedDdm_;
   std::map<DtString, SwitchSetter> switchSetters;
   std::map<DtString, SwitchGetter> switchGetters;
   bool mergeInProgress;
   DtUnresolvedNames unresolvedObjectDimensions;
   DtUnresolvedPairs unresolvedAttributeDimensions;
   DtUnresolvedNames unresolvedInteractionDimensions;
   DtUnresolvedPairs unresolvedAttributeTransportation;
   DtUnresolvedNames unresolvedInteractionTransportation;
   mutable DtString lastError_;  // timeTypesSame, a const check, reports through it
   DtString autoProvideName;
   DtString conveyRegionDesignatorSetsName;
   DtString attributeScopeAdvisoryName;
   DtString attributeRelevanceAdvisoryName;
   DtString objectClassRelevanceAdvisoryName;
   DtString interactionRelevanceAdvisoryName;
   DtString serviceReportingName;
   DtString exceptionReportingName;
   DtString delaySubscriptionEvaluationName;
   DtString conveyProducingFederateName;
   DtString nonRegulatedGrantName;
   DtString sendServiceReportsToFileName;
   DtString advisoriesUseKnownClassName;
   DtString allowRelaxedDdmName;
   DtString automaticResignActionName;
   bool strictChecking;
   std::vector<DtString> fomDependencies_;

private:
   static bool theDefaultAutoProvide;
   static bool theDefaultConveyRegionDesignatorSets;
   static bool theDefaultAttributeScopeAdvisory;
   static bool theDefaultAttributeRelevanceAdvisory;
   static bool theDefaultObjectClassRelevanceAdvisory;
   static bool theDefaultInteractionRelevanceAdvisory;
   static bool theDefaultServiceReporting;
   static bool theDefaultExceptionReporting;
   static bool theDefaultDelaySubscriptionEvaluation;
   static bool theDefaultConveyProducingFederate;
   static bool theDefaultNonRegulatedGrant;
   static bool theDefaultSendServiceReportsToFile;
   static bool theDefaultAdvisoriesUseKnownClass;
   static bool theDefaultAllowRelaxedDdm;
   static DtResignAction theDefaultAutomaticResignAction;
};

#endif  // OLUTIL_OLFEDTARGET_H
