// A FOM module's object classes, interaction classes and dimensions, merged by name.
#include <fomreader/olFomModule.h>

#include <olutil/olPrint.h>

#include <algorithm>
#include <string>

namespace
{

char const* const theObjectRoot = "HLAobjectRoot";
char const* const theInteractionRoot = "HLAinteractionRoot";

// Two given values that differ; an empty one stands for "not given here".
bool givenAndDifferent(DtString const& a, DtString const& b)
{
   return !a.isEmpty() && !b.isEmpty() && a != b;
}

bool setsGivenAndDifferent(std::set<DtString> const& a, std::set<DtString> const& b)
{
   return !a.empty() && !b.empty() && a != b;
}

// Takes what `from` gives where `into` gives nothing.
void fillIn(DtString& into, DtString const& from)
{
   if (into.isEmpty())
      into = from;
}

void fillIn(std::set<DtString>& into, std::set<DtString> const& from)
{
   if (into.empty())
      into = from;
}

template <typename Member>
Member* findMember(std::vector<Member>& members, DtString const& name)
{
   for (Member& m : members)
      if (m.name == name)
         return &m;
   return nullptr;
}

template <typename Member>
Member const* findMember(std::vector<Member> const& members, DtString const& name)
{
   for (Member const& m : members)
      if (m.name == name)
         return &m;
   return nullptr;
}

void appendNames(std::set<DtString> const& names, DtString& text)
{
   text += ", \"";
   bool first = true;
   for (DtString const& name : names)
   {
      if (!first)
         text += " ";
      text += name;
      first = false;
   }
   text += "\"";
}

// The class a dotted name hangs below ("" for a root), and its root.
DtString parentOf(DtString const& name)
{
   std::string const s = name.stdString();
   std::size_t const dot = s.rfind('.');
   return dot == std::string::npos ? DtString() : DtString(s.substr(0, dot));
}

DtString rootOf(DtString const& name)
{
   std::string const s = name.stdString();
   return DtString(s.substr(0, s.find('.')));
}

// The other target as a module, or null when it is no module or this one itself, in
// which case there is nothing to merge.
DtFomModule const* otherModule(DtFedTarget const& other, DtFomModule const* self)
{
   auto const* module = dynamic_cast<DtFomModule const*>(&other);
   return module == self ? nullptr : module;
}

}  // namespace

char const* DtFomModule::statusText(int status)
{
   switch (status)
   {
      case DtMergeFomObjectClassConflict:
         return "object class conflict";
      case DtMergeFomInteractionClassConflict:
         return "interaction class conflict";
      case DtMergeFomDimensionConflict:
         return "dimension conflict";
      case DtMergeFomPostMergeCheckFlagged:
         return "a post-merge check failed: references that no merged module defines";
      default:
         return DtMergeFomStatusText(status);
   }
}

void DtFomModule::addDatatypeReference(DtString const& user, DtString const& dataType)
{
   myDatatypeReferences.emplace(dataType, user);
}

bool DtFomModule::knownDatatype(DtString const& name) const
{
   return basicDataRepresentations.count(name) || simpleDatatypes.count(name) ||
          enumeratedDatatypes.count(name) || arrayDatatypes.count(name) ||
          fixedRecordDatatypes.count(name) || variantRecordDatatypes.count(name);
}

void DtFomModule::appendToString(DtFomAttribute const& attribute, DtString& text)
{
   text += attribute.name;
   text += ": ";
   text += attribute.dataType;
   text += ", ";
   text += attribute.transportation;
   appendNames(attribute.dimensions, text);
}

void DtFomModule::appendToString(DtFomParameter const& parameter, DtString& text)
{
   text += parameter.name;
   text += ": ";
   text += parameter.dataType;
}

void DtFomModule::appendToString(DtFomInteractionClass const& interaction, DtString& text)
{
   text += interaction.name;
   text += ": ";
   text += interaction.transportation;
   appendNames(interaction.dimensions, text);
}

void DtFomModule::appendToString(DtFomDimension const& dimension, DtString& text)
{
   text += dimension.name;
   text += ": ";
   text += dimension.dataType;
   text += ", ";
   text += DtString(dimension.upperBound);
   text += ", \"";
   text += dimension.normalization;
   text += "\", ";
   if (dimension.rangeExcluded)
      text += "Excluded";
   else
   {
      text += "[";
      text += DtString(dimension.rangeLower);
      text += "..";
      text += DtString(dimension.rangeUpper);
      text += ")";
   }
}

// ---------------------------------------------------------------- filling

void DtFomModule::addDimension(char const* name, char const* dataType)
{
   if (!name)
      return;
   DtFomDimension& dimension = myDimensions[name];
   dimension.name = name;
   dimension.dataType = dataType;
}

void DtFomModule::addDimension(char const* name, unsigned long upperBound, unsigned long rangeLower,
                               unsigned long rangeUpper, bool rangeExcluded,
                               DtString const& normalization)
{
   if (!name)
      return;
   DtFomDimension& dimension = myDimensions[name];
   dimension.name = name;
   dimension.upperBound = upperBound;
   dimension.rangeLower = rangeLower;
   dimension.rangeUpper = rangeUpper;
   dimension.rangeExcluded = rangeExcluded;
   dimension.normalization = normalization;
}

DtFomObjectClass& DtFomModule::objectClassEntry(DtString const& name)
{
   DtFomObjectClass& entry = myObjectClasses[name];
   if (entry.name.isEmpty())
      entry.name = name;
   return entry;
}

DtFomInteractionClass& DtFomModule::interactionClassEntry(DtString const& name,
                                                          DtString const& transportation)
{
   DtFomInteractionClass& entry = myInteractionClasses[name];
   if (entry.name.isEmpty())
   {
      entry.name = name;
      entry.transportation = transportation;
   }
   return entry;
}

DtFomAttribute* DtFomModule::addAttributeTo(DtFomObjectClass& owner, DtString const& attribute,
                                            DtString const& dataType,
                                            DtString const& transportation)
{
   if (findMember(owner.attributes, attribute))
      return nullptr;
   owner.attributes.emplace_back();
   DtFomAttribute& added = owner.attributes.back();
   added.name = attribute;
   added.dataType = dataType;
   added.transportation = transportation;
   return &added;
}

bool DtFomModule::addParameterTo(DtFomInteractionClass& owner, DtString const& parameter,
                                 DtString const& dataType)
{
   if (findMember(owner.parameters, parameter))
      return false;
   owner.parameters.emplace_back();
   owner.parameters.back().name = parameter;
   owner.parameters.back().dataType = dataType;
   return true;
}

bool DtFomModule::addObjectClass(DtString const& name)
{
   std::size_t const before = myObjectClasses.size();
   objectClassEntry(name);
   return myObjectClasses.size() != before;
}

bool DtFomModule::addAttribute(DtString const& objectClass, DtString const& attribute,
                               DtString const& dataType, DtString const& transportation)
{
   return addAttributeTo(objectClassEntry(objectClass), attribute, dataType, transportation);
}

bool DtFomModule::addInteractionClass(DtString const& name, DtString const& transportation)
{
   std::size_t const before = myInteractionClasses.size();
   interactionClassEntry(name, transportation);
   return myInteractionClasses.size() != before;
}

bool DtFomModule::addParameter(DtString const& interactionClass, DtString const& parameter,
                               DtString const& dataType)
{
   return addParameterTo(interactionClassEntry(interactionClass, ""), parameter, dataType);
}

bool DtFomModule::knownObjectClass(DtString const& name) const
{
   return myObjectClasses.count(name) != 0;
}

bool DtFomModule::knownAttribute(DtString const& objectClass, DtString const& attribute) const
{
   auto const owner = myObjectClasses.find(objectClass);
   return owner != myObjectClasses.end() && findMember(owner->second.attributes, attribute);
}

bool DtFomModule::knownInteractionClass(DtString const& name) const
{
   return myInteractionClasses.count(name) != 0;
}

bool DtFomModule::knownParameter(DtString const& interactionClass, DtString const& parameter) const
{
   auto const owner = myInteractionClasses.find(interactionClass);
   return owner != myInteractionClasses.end() && findMember(owner->second.parameters, parameter);
}

void DtFomModule::addUnresolvedAttributeDimension(DtString const& objectClass,
                                                  DtString const& attribute,
                                                  DtString const& dimension)
{
   DtFedTarget::addUnresolvedAttributeDimension(objectClass, attribute, dimension);
   auto const owner = myObjectClasses.find(objectClass);
   if (owner == myObjectClasses.end())
      return;
   if (DtFomAttribute* held = findMember(owner->second.attributes, attribute))
      held->dimensions.insert(dimension);
}

void DtFomModule::addUnresolvedInteractionDimension(DtString const& interactionClass,
                                                    DtString const& dimension)
{
   DtFedTarget::addUnresolvedInteractionDimension(interactionClass, dimension);
   auto const owner = myInteractionClasses.find(interactionClass);
   if (owner != myInteractionClasses.end())
      owner->second.dimensions.insert(dimension);
}

// ---------------------------------------------------------------- merging

DtMergeFomStatus_enum DtFomModule::finishStep(char const* table, Conflicts const& conflicts,
                                              int code, DtFedTarget const& other)
{
   if (conflicts.empty())
      return DtMergeFomSuccess;
   DtString text = other.modelIdentification() + " has conflicts in " + table + ":\n";
   for (auto const& conflict : conflicts)
      text += "\t" + conflict.second + "\n";
   lastError_ += text;
   // Unlike the record tables, a step of this class reports its own conflicts only,
   // all of them, each once.
   if (!isStrictChecking())
   {
      if (DtWarn.okToPrint())
         DtWarn << ("Merge Error ignored: " + text);
      return DtMergeFomSuccess;
   }
   if (DtVerbose.okToPrint())
      DtVerbose << text;
   return static_cast<DtMergeFomStatus_enum>(code);
}

DtFomModule::Conflicts DtFomModule::dimensionConflicts(DtFomModule const& other) const
{
   Conflicts conflicts;
   for (auto const& entry : other.myDimensions)
   {
      auto const mine = myDimensions.find(entry.first);
      if (mine == myDimensions.end())
         continue;
      DtFomDimension const& a = mine->second;
      DtFomDimension const& b = entry.second;
      if (!givenAndDifferent(a.dataType, b.dataType) &&
          !(a.upperBound && b.upperBound && a.upperBound != b.upperBound))
         continue;
      conflicts.emplace_back();
      appendToString(a, conflicts.back().first);
      appendToString(b, conflicts.back().second);
   }
   return conflicts;
}

DtFomModule::Conflicts DtFomModule::objectClassConflicts(DtFomModule const& other) const
{
   Conflicts conflicts;
   for (auto const& entry : other.myObjectClasses)
   {
      auto const mine = myObjectClasses.find(entry.first);
      if (mine == myObjectClasses.end())
         continue;
      for (DtFomAttribute const& theirs : entry.second.attributes)
      {
         DtFomAttribute const* held = findMember(mine->second.attributes, theirs.name);
         if (!held || !(givenAndDifferent(held->dataType, theirs.dataType) ||
                        givenAndDifferent(held->transportation, theirs.transportation) ||
                        setsGivenAndDifferent(held->dimensions, theirs.dimensions)))
            continue;
         conflicts.emplace_back(entry.first + ".", entry.first + ".");
         appendToString(*held, conflicts.back().first);
         appendToString(theirs, conflicts.back().second);
      }
   }
   return conflicts;
}

DtFomModule::Conflicts DtFomModule::interactionClassConflicts(DtFomModule const& other) const
{
   Conflicts conflicts;
   for (auto const& entry : other.myInteractionClasses)
   {
      auto const mine = myInteractionClasses.find(entry.first);
      if (mine == myInteractionClasses.end())
         continue;
      DtFomInteractionClass const& held = mine->second;
      DtFomInteractionClass const& theirs = entry.second;
      if (givenAndDifferent(held.transportation, theirs.transportation) ||
          setsGivenAndDifferent(held.dimensions, theirs.dimensions))
      {
         conflicts.emplace_back();
         appendToString(held, conflicts.back().first);
         appendToString(theirs, conflicts.back().second);
      }
      for (DtFomParameter const& parameter : theirs.parameters)
      {
         DtFomParameter const* same = findMember(held.parameters, parameter.name);
         if (!same || !givenAndDifferent(same->dataType, parameter.dataType))
            continue;
         conflicts.emplace_back(theirs.name + ".", theirs.name + ".");
         appendToString(*same, conflicts.back().first);
         appendToString(parameter, conflicts.back().second);
      }
   }
   return conflicts;
}

DtMergeFomStatus_enum DtFomModule::mergeSpaces(DtFedTarget const& other)
{
   DtFomModule const* them = otherModule(other, this);
   if (!them)
      return DtMergeFomSuccess;
   DtMergeFomStatus_enum const status =
       finishStep("Dimensions", dimensionConflicts(*them), DtMergeFomDimensionConflict, other);
   if (status == DtMergeFomSuccess)
      myDimensions.insert(them->myDimensions.begin(), them->myDimensions.end());
   return status;
}

DtMergeFomStatus_enum DtFomModule::mergeObjectClasses(DtFedTarget const& other)
{
   DtFomModule const* them = otherModule(other, this);
   if (!them)
      return DtMergeFomSuccess;
   DtMergeFomStatus_enum const status = finishStep("Object Classes", objectClassConflicts(*them),
                                                   DtMergeFomObjectClassConflict, other);
   if (status != DtMergeFomSuccess)
      return status;
   // Classes split over modules come together; where both give a value, this
   // module's stays.
   for (auto const& entry : them->myObjectClasses)
   {
      // One descent finds the class or the place for it.
      auto const mine = myObjectClasses.lower_bound(entry.first);
      if (mine == myObjectClasses.end() || entry.first < mine->first)
      {
         myObjectClasses.emplace_hint(mine, entry);
         continue;
      }
      for (DtFomAttribute const& theirs : entry.second.attributes)
      {
         DtFomAttribute* held = findMember(mine->second.attributes, theirs.name);
         if (!held)
            mine->second.attributes.push_back(theirs);
         else
         {
            fillIn(held->dataType, theirs.dataType);
            fillIn(held->transportation, theirs.transportation);
            fillIn(held->dimensions, theirs.dimensions);
         }
      }
   }
   return status;
}

DtMergeFomStatus_enum DtFomModule::mergeInteractionClasses(DtFedTarget const& other)
{
   DtFomModule const* them = otherModule(other, this);
   if (!them)
      return DtMergeFomSuccess;
   DtMergeFomStatus_enum const status =
       finishStep("Interaction Classes", interactionClassConflicts(*them),
                  DtMergeFomInteractionClassConflict, other);
   if (status != DtMergeFomSuccess)
      return status;
   for (auto const& entry : them->myInteractionClasses)
   {
      // One descent finds the class or the place for it.
      auto const mine = myInteractionClasses.lower_bound(entry.first);
      if (mine == myInteractionClasses.end() || entry.first < mine->first)
      {
         myInteractionClasses.emplace_hint(mine, entry);
         continue;
      }
      DtFomInteractionClass& held = mine->second;
      fillIn(held.transportation, entry.second.transportation);
      fillIn(held.dimensions, entry.second.dimensions);
      for (DtFomParameter const& parameter : entry.second.parameters)
      {
         DtFomParameter* same = findMember(held.parameters, parameter.name);
         if (!same)
            held.parameters.push_back(parameter);
         else
            fillIn(same->dataType, parameter.dataType);
      }
   }
   return status;
}

void DtFomModule::mergeUnresolved(DtFedTarget const& other)
{
   DtFedTarget::mergeUnresolved(other);
   DtFomModule const* them = otherModule(other, this);
   if (!them)
      return;
   myDatatypeReferences.insert(them->myDatatypeReferences.begin(),
                               them->myDatatypeReferences.end());
   for (DtString const& dependency : them->fomDependencies())
      if (std::find(fomDependencies_.begin(), fomDependencies_.end(), dependency) ==
          fomDependencies_.end())
         fomDependencies_.push_back(dependency);
}

// ---------------------------------------------------------------- the post-merge check

DtMergeFomStatus_enum DtFomModule::postMergeCheckTarget(DtString& errors)
{
   myUnresolvedFound = false;
   return DtFedTarget::postMergeCheckTarget(errors);
}

namespace
{

// Erases from each set of a reference table the references that `known` accepts; the
// keys stay, as the table's own removal leaves them.
template <typename Table, typename Known>
bool resolveInPlace(Table& table, Known known)
{
   bool passed = true;
   for (auto& entry : table)
   {
      for (auto reference = entry.second.begin(); reference != entry.second.end();)
      {
         if (known(entry.first, *reference))
            reference = entry.second.erase(reference);
         else
         {
            passed = false;
            ++reference;
         }
      }
   }
   return passed;
}

}  // namespace

bool DtFomModule::resolveDimensions(DtString& errors, bool& flag)
{
   // The user's text is only built for a reference that stays unresolved.
   auto const known = [&](DtString const& dimension, auto user)
   {
      if (myDimensions.count(dimension))
         return true;
      errors += "Unresolved dimension " + dimension + " of " + user() + "\n";
      flag = true;
      return false;
   };
   bool const objects = resolveInPlace(
       unresolvedObjectDimensions, [&](DtString const& owner, DtString const& dimension)
       { return known(dimension, [&] { return "object class " + owner; }); });
   bool const attributes =
       resolveInPlace(unresolvedAttributeDimensions,
                      [&](DtString const& owner, std::pair<DtString, DtString> const& reference) {
                         return known(reference.second,
                                      [&] { return "attribute " + owner + "." + reference.first; });
                      });
   bool const interactions = resolveInPlace(
       unresolvedInteractionDimensions, [&](DtString const& owner, DtString const& dimension)
       { return known(dimension, [&] { return "interaction class " + owner; }); });
   return objects && attributes && interactions;
}

bool DtFomModule::resolveTranportationTypes(DtString& errors)
{
   bool const named = DtFedTarget::resolveTranportationTypes(errors);
   auto const known = [&](DtString const& transportation, auto user)
   {
      if (transportTypes.count(transportation))
         return true;
      errors += "Unresolved transportation " + transportation + " of " + user() + "\n";
      myUnresolvedFound = true;
      return false;
   };
   bool const attributes =
       resolveInPlace(unresolvedAttributeTransportation,
                      [&](DtString const& owner, std::pair<DtString, DtString> const& reference) {
                         return known(reference.second,
                                      [&] { return "attribute " + owner + "." + reference.first; });
                      });
   bool const interactions = resolveInPlace(
       unresolvedInteractionTransportation,
       [&](DtString const& owner, DtString const& transportation)
       { return known(transportation, [&] { return "interaction class " + owner; }); });
   return named && attributes && interactions;
}

bool DtFomModule::resolveDatatypes(DtString& errors)
{
   bool passed = true;
   for (auto reference = myDatatypeReferences.begin(); reference != myDatatypeReferences.end();)
   {
      if (knownDatatype(reference->first))
      {
         reference = myDatatypeReferences.erase(reference);
         continue;
      }
      errors += "Unresolved data type " + reference->first + " used by " + reference->second + "\n";
      myUnresolvedFound = true;
      passed = false;
      ++reference;
   }
   return passed;
}

bool DtFomModule::resolveObjectClasses(DtString& errors, bool& flag)
{
   bool passed = true;
   for (auto const& entry : myObjectClasses)
   {
      DtString const parent = parentOf(entry.first);
      if (rootOf(entry.first) != theObjectRoot)
      {
         errors += "Object class " + entry.first + " is not below " + theObjectRoot + "\n";
         passed = false;
      }
      else if (!parent.isEmpty() && !myObjectClasses.count(parent))
      {
         errors += "Object class " + entry.first + " has no parent class " + parent + "\n";
         flag = true;
         passed = false;
      }
   }
   return passed;
}

bool DtFomModule::resolveInteractionClasses(DtString& errors, bool& flag)
{
   bool passed = true;
   for (auto const& entry : myInteractionClasses)
   {
      DtString const parent = parentOf(entry.first);
      if (rootOf(entry.first) != theInteractionRoot)
      {
         errors +=
             "Interaction class " + entry.first + " is not below " + theInteractionRoot + "\n";
         passed = false;
      }
      else if (!parent.isEmpty() && !myInteractionClasses.count(parent))
      {
         errors += "Interaction class " + entry.first + " has no parent class " + parent + "\n";
         flag = true;
         passed = false;
      }
   }
   return passed;
}

bool DtFomModule::resolveParameters(DtString& errors, bool& flag)
{
   flag = flag || myUnresolvedFound;
   return DtFedTarget::resolveParameters(errors, flag);
}
