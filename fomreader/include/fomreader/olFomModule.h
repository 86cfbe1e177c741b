//===- fomreader/olFomModule.h - A FOM module with its classes ---*- C++ -*-===//
//
// Family: FOM.
//
// DtFomModule is the concrete DtFedTarget that DtFomReader fills from a FOM module
// file: besides the record tables of its base, it holds the object classes with their
// attributes, the interaction classes with their parameters, and the dimensions, each
// by name, so that classes split over several modules come together in a merge. It
// also keeps the data type references that a module makes, so that the post-merge
// check can tell a module missing from the set.
//
// Statuses of its own merge steps: 16 object class conflict, 17 interaction class
// conflict, 18 dimension conflict. Its post-merge check reports 20 when a reference
// names something no merged module defines.
//
// Like its base, a module belongs to one thread.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_FOMREADER_OLFOMMODULE_H
#define OLUTIL_FOMREADER_OLFOMMODULE_H

#include <olutil/olFedTarget.h>

#include <map>
#include <set>
#include <utility>
#include <vector>

enum DtFomModuleStatus : int
{
   DtMergeFomObjectClassConflict = 16,
   DtMergeFomInteractionClassConflict = 17,
   DtMergeFomDimensionConflict = 18
};

// An empty dataType or transportation means "not given here": scaffolding classes,
// which only name the way to a class that another module defines, give neither.
struct DtFomAttribute
{
   DtString name;
   DtString dataType;
   DtString transportation;
   std::set<DtString> dimensions;
};

struct DtFomParameter
{
   DtString name;
   DtString dataType;
};

struct DtFomObjectClass
{
   DtString name;  // full dotted name
   std::vector<DtFomAttribute> attributes;
};

struct DtFomInteractionClass
{
   DtString name;  // full dotted name
   DtString transportation;
   std::set<DtString> dimensions;
   std::vector<DtFomParameter> parameters;
};

struct DtFomDimension
{
   DtString name;
   DtString dataType;
   unsigned long upperBound = 0;  // 0: not given
   unsigned long rangeLower = 0;
   unsigned long rangeUpper = 0;
   bool rangeExcluded = false;
   DtString normalization;
};

class DtFomModule : public DtFedTarget
{
public:
   DtFomModule() = default;

   // The meaning of a status, this class's own included.
   static char const* statusText(int status);

   // Lets a caller that merges module after module see only what the next merge adds.
   void clearLastError() { lastError_ = ""; }

   // A data type that `user` (a description such as "attribute HLAobjectRoot.A.b")
   // needs. The first user of each type is kept for the message.
   void addDatatypeReference(DtString const& user, DtString const& dataType);
   std::map<DtString, DtString> const& datatypeReferences() const { return myDatatypeReferences; }
   // Whether any of the six data type tables holds the name.
   bool knownDatatype(DtString const& name) const;

   // For a reader that adds one class's members after another: the class's entry,
   // made when it is new, to add members to without looking the class up each time.
   // The entries stay in place while the module lives. addAttributeTo gives null and
   // addParameterTo false when the class has the member already.
   DtFomObjectClass& objectClassEntry(DtString const& name);
   DtFomInteractionClass& interactionClassEntry(DtString const& name,
                                                DtString const& transportation);
   DtFomAttribute* addAttributeTo(DtFomObjectClass& owner, DtString const& attribute,
                                  DtString const& dataType, DtString const& transportation);
   bool addParameterTo(DtFomInteractionClass& owner, DtString const& parameter,
                       DtString const& dataType);

   std::map<DtString, DtFomObjectClass> const& objectClasses() const { return myObjectClasses; }
   std::map<DtString, DtFomInteractionClass> const& interactionClasses() const
   {
      return myInteractionClasses;
   }
   std::map<DtString, DtFomDimension> const& dimensions() const { return myDimensions; }

   // What the other module gives that conflicts with this one, as pairs of one-line
   // texts: this module's entry, then the other's. The merge steps of this class
   // fail (or, when lenient, warn) on exactly these.
   typedef std::vector<std::pair<DtString, DtString>> Conflicts;
   Conflicts dimensionConflicts(DtFomModule const& other) const;
   Conflicts objectClassConflicts(DtFomModule const& other) const;
   Conflicts interactionClassConflicts(DtFomModule const& other) const;

   // One line of text per class member and dimension, in the style of the records'
   // appendToString.
   static void appendToString(DtFomAttribute const& attribute, DtString& text);
   static void appendToString(DtFomParameter const& parameter, DtString& text);
   static void appendToString(DtFomInteractionClass const& interaction, DtString& text);
   static void appendToString(DtFomDimension const& dimension, DtString& text);

   // ------------------------------------------------ DtFedTarget
   void addDimension(char const* name, char const* dataType) override;
   void addDimension(char const* name, unsigned long upperBound, unsigned long rangeLower,
                     unsigned long rangeUpper, bool rangeExcluded,
                     DtString const& normalization) override;

   bool addObjectClass(DtString const& name) override;
   // Adds the class too when it is new. False when the class has the attribute already.
   bool addAttribute(DtString const& objectClass, DtString const& attribute,
                     DtString const& dataType, DtString const& transportation) override;
   bool addInteractionClass(DtString const& name, DtString const& transportation) override;
   bool addParameter(DtString const& interactionClass, DtString const& parameter,
                     DtString const& dataType) override;
   bool knownObjectClass(DtString const& name) const override;
   bool knownAttribute(DtString const& objectClass, DtString const& attribute) const override;
   bool knownInteractionClass(DtString const& name) const override;
   bool knownParameter(DtString const& interactionClass, DtString const& parameter) const override;

   DtMergeFomStatus_enum mergeSpaces(DtFedTarget const& other) override;
   DtMergeFomStatus_enum mergeObjectClasses(DtFedTarget const& other) override;
   DtMergeFomStatus_enum mergeInteractionClasses(DtFedTarget const& other) override;
   DtMergeFomStatus_enum postMergeCheckTarget(DtString& errors) override;

   // Also recorded on the attribute or interaction class, for the merge of classes.
   void addUnresolvedAttributeDimension(DtString const& objectClass, DtString const& attribute,
                                        DtString const& dimension) override;
   void addUnresolvedInteractionDimension(DtString const& interactionClass,
                                          DtString const& dimension) override;
   // The base tables, then the data type references and the dependencies.
   void mergeUnresolved(DtFedTarget const& other) override;

   // Each reference that a merged module defines is removed; what is left is
   // reported, and makes the check's result 20.
   bool resolveDimensions(DtString& errors, bool& flag) override;
   bool resolveTranportationTypes(DtString& errors) override;
   bool resolveDatatypes(DtString& errors) override;
   // Every class must hang below HLAobjectRoot or HLAinteractionRoot.
   bool resolveObjectClasses(DtString& errors, bool& flag) override;
   bool resolveInteractionClasses(DtString& errors, bool& flag) override;
   // The last step that carries the flag: it raises it for the references that the
   // steps without a flag of their own left unresolved.
   bool resolveParameters(DtString& errors, bool& flag) override;

private:
   // Ends a merge step of this class's own tables: the conflicts found, each one line,
   // go to lastError after a header; strict checking returns `code`, lenient checking
   // warns and returns success.
   DtMergeFomStatus_enum finishStep(char const* table, Conflicts const& conflicts, int code,
                                    DtFedTarget const& other);

   std::map<DtString, DtFomObjectClass> myObjectClasses;
   std::map<DtString, DtFomInteractionClass> myInteractionClasses;
   std::map<DtString, DtFomDimension> myDimensions;
   std::map<DtString, DtString> myDatatypeReferences;
   // Set during a post-merge check when a step without a flag finds a reference that
   // no module defines.
   bool myUnresolvedFound = false;
};

#endif  // OLUTIL_FOMREADER_OLFOMMODULE_H
