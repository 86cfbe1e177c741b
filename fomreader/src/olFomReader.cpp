// Reads IEEE 1516-2010 FOM module files into a DtFomModule, through pugixml.
#include <fomreader/olFomReader.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_set>

#include <strings.h>

#include <pugixml.hpp>

namespace
{

// The namespaces that real FOM module files use; a file may also have none.
char const* const theAcceptedNamespaces[] = {"http://standards.ieee.org/IEEE1516-2010",
                                             "http://www.sisostds.org/schemas/IEEE1516-2010"};

// Files larger than this are refused instead of read into memory; the largest real
// FOM modules are about a megabyte.
constexpr long theMaxFileSize = 256L * 1024 * 1024;

// A fault found while walking the document, at a byte offset of the input.
struct ReadFault
{
   std::ptrdiff_t offset;
   std::string message;
};

[[noreturn]] void fault(pugi::xml_node at, std::string message)
{
   throw ReadFault{at.offset_debug(), std::move(message)};
}

// Whether the document being read names its elements with a namespace prefix; most
// files use none, and their names need no search for one.
thread_local bool tPrefixedNames = false;

char const* localName(pugi::xml_node node)
{
   char const* const name = node.name();
   if (!tPrefixedNames)
      return name;
   char const* const colon = std::strchr(name, ':');
   return colon ? colon + 1 : name;
}

// Compares the first byte in line before calling strcmp: most names that a walk meets
// are not the one it looks for.
bool nameIs(char const* name, char const* wanted)
{
   return name[0] == wanted[0] && std::strcmp(name, wanted) == 0;
}

bool isElement(pugi::xml_node node, char const* local)
{
   return node.type() == pugi::node_element && nameIs(localName(node), local);
}

pugi::xml_node child(pugi::xml_node parent, char const* local)
{
   for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
      if (isElement(c, local))
         return c;
   return pugi::xml_node();
}

template <typename Visit>
void eachChild(pugi::xml_node parent, char const* local, Visit visit)
{
   for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
      if (isElement(c, local))
         visit(c);
}

// The first child element of each of the given names, in one pass over the children
// that ends once all are found: the long lists of enumerators and fields come last.
template <std::size_t N>
void gather(pugi::xml_node parent, char const* const (&names)[N], pugi::xml_node (&out)[N])
{
   // Which names are found is kept here rather than asked of the nodes, each a call
   // into pugixml.
   bool taken[N] = {};
   std::size_t found = 0;
   for (pugi::xml_node c = parent.first_child(); c && found < N; c = c.next_sibling())
   {
      if (c.type() != pugi::node_element)
         continue;
      char const* const local = localName(c);
      for (std::size_t i = 0; i < N; ++i)
         if (!taken[i] && nameIs(local, names[i]))
         {
            out[i] = c;
            taken[i] = true;
            ++found;
            break;
         }
   }
}

bool isBlank(char c)
{
   return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The text without the blanks around it, and every inner run of blanks, tabs and line
// ends as one blank: values that differ only in how a file was laid out read alike,
// and each value fits on one line. The result is a view of the text itself when nothing
// needs changing (most values), or of `scratch`, which may already hold the text.
std::string_view collapsed(char const* begin, char const* end, std::string& scratch)
{
   while (begin < end && isBlank(*begin))
      ++begin;
   while (end > begin && isBlank(end[-1]))
      --end;
   std::size_t const length = static_cast<std::size_t>(end - begin);
   bool plain = true;
   if (length < 64)
   {
      // Names and short values: one pass costs less than several searches. Eight
      // bytes at a time are passed over while none of them is a blank or a control
      // byte, which in a name none is.
      constexpr std::uint64_t theOnes = 0x0101010101010101u;
      constexpr std::uint64_t theHighBits = 0x8080808080808080u;
      char const* p = begin;
      for (; end - p >= 8; p += 8)
      {
         std::uint64_t word;
         std::memcpy(&word, p, sizeof word);
         if ((word - 0x21 * theOnes) & ~word & theHighBits)
            break;
      }
      for (; p < end && plain; ++p)
         plain = static_cast<unsigned char>(*p) > ' ' || (*p == ' ' && p[1] != ' ');
   }
   else
   {
      plain = !std::memchr(begin, '\n', length) && !std::memchr(begin, '\t', length) &&
              !std::memchr(begin, '\r', length);
      for (char const* blank = begin; plain;)
      {
         blank = static_cast<char const*>(std::memchr(blank, ' ', end - blank));
         if (!blank)
            break;
         plain = *++blank != ' ';
      }
   }
   if (plain)
      return std::string_view(begin, length);
   // Collapsed in place: what is written never passes what is read.
   std::size_t const offset =
       begin >= scratch.data() && begin < scratch.data() + scratch.size()
           ? static_cast<std::size_t>(begin - scratch.data())
           : std::string::npos;
   if (offset == std::string::npos)
      scratch.assign(begin, length);
   else
      scratch.erase(offset + length).erase(0, offset);
   char* to = &scratch[0];
   for (char const* p = scratch.data(); p < scratch.data() + length; ++p)
   {
      if (!isBlank(*p))
         *to++ = *p;
      else if (to[-1] != ' ')
         *to++ = ' ';
   }
   scratch.resize(static_cast<std::size_t>(to - scratch.data()));
   return scratch;
}

// The element's text, collapsed. Text split by a comment or a CDATA section is joined
// again. The view lives as long as the document and `scratch` stay unchanged.
std::string_view textView(pugi::xml_node node, std::string& scratch)
{
   pugi::xml_node first = node.first_child();
   if (!first)
      return std::string_view();
   if (!first.next_sibling() &&
       (first.type() == pugi::node_pcdata || first.type() == pugi::node_cdata))
   {
      char const* const value = first.value();
      return collapsed(value, value + std::strlen(value), scratch);
   }
   scratch.clear();
   for (pugi::xml_node c = first; c; c = c.next_sibling())
      if (c.type() == pugi::node_pcdata || c.type() == pugi::node_cdata)
         scratch += c.value();
   return collapsed(scratch.data(), scratch.data() + scratch.size(), scratch);
}

DtString toDtString(std::string_view text)
{
   return DtString(text.data(), static_cast<int>(text.size()));
}

DtString text(pugi::xml_node node)
{
   std::string scratch;
   return toDtString(textView(node, scratch));
}

std::string quoted(DtString const& value)
{
   return "\"" + value.stdString() + "\"";
}

bool equalsNoCase(DtString const& a, char const* b)
{
   return strcasecmp(a.c_str(), b) == 0;
}

// A whole decimal number no larger than `max`; the empty text is 0.
unsigned long unsignedValue(pugi::xml_node at, DtString const& value, unsigned long max,
                            char const* what)
{
   if (value.isEmpty())
      return 0;
   char const* const s = value.c_str();
   char* end = nullptr;
   errno = 0;
   unsigned long const v = std::strtoul(s, &end, 10);
   if (!(*s >= '0' && *s <= '9') || *end || errno == ERANGE || v > max)
      fault(at, std::string(what) + " " + quoted(value) + " is not a whole number up to " +
                    std::to_string(max));
   return v;
}

float rateValue(pugi::xml_node at, DtString const& value)
{
   if (value.isEmpty())
      return 0;
   char* end = nullptr;
   float const v = std::strtof(value.c_str(), &end);
   if (end == value.c_str() || *end)
      fault(at, "rate " + quoted(value) + " is not a number");
   return v;
}

// Default ranges read "[lower..upper)", "[value)" or "Excluded".
void rangeValue(pugi::xml_node at, DtString const& value, unsigned long& lower,
                unsigned long& upper, bool& excluded)
{
   lower = upper = 0;
   excluded = false;
   if (value.isEmpty())
      return;
   if (value == "Excluded")
   {
      excluded = true;
      return;
   }
   std::string const s = value.stdString();
   auto const number = [&](std::string const& digits)
   {
      if (digits.empty())
         fault(at, "dimension value " + quoted(value) + " has an empty bound");
      return unsignedValue(at, DtString(digits), static_cast<unsigned long>(-1), "range bound");
   };
   std::size_t const dots = s.find("..");
   if (s.size() < 3 || s.front() != '[' || s.back() != ')')
      fault(at, "dimension value " + quoted(value) + " is neither a range nor Excluded");
   if (dots == std::string::npos)
   {
      lower = number(s.substr(1, s.size() - 2));
      upper = lower + 1;
   }
   else
   {
      lower = number(s.substr(1, dots - 1));
      upper = number(s.substr(dots + 2, s.size() - dots - 3));
   }
   if (upper <= lower)
      fault(at, "dimension value " + quoted(value) + " is not a range [lower..upper)");
}

int endianValue(pugi::xml_node at, DtString const& value)
{
   if (value.isEmpty())
      return DtFomEndianUnspecified;
   if (equalsNoCase(value, "Big"))
      return DtFomEndianBig;
   if (equalsNoCase(value, "Little"))
      return DtFomEndianLittle;
   fault(at, "endian " + quoted(value) + " is neither Big nor Little");
}

int capabilityValue(pugi::xml_node at, DtString const& value)
{
   static struct
   {
      char const* word;
      DtFomSyncCapability value;
   } const theWords[] = {{"", DtFomSyncCapabilityNA},
                         {"NA", DtFomSyncCapabilityNA},
                         {"Register", DtFomSyncCapabilityRegister},
                         {"Achieve", DtFomSyncCapabilityAchieve},
                         {"RegisterAchieve", DtFomSyncCapabilityRegisterAchieve},
                         {"NoAchieve", DtFomSyncCapabilityNoAchieve}};
   for (auto const& w : theWords)
      if (equalsNoCase(value, w.word))
         return w.value;
   fault(at, "capability " + quoted(value) +
                 " is not one of Register, Achieve, "
                 "RegisterAchieve, NoAchieve, NA");
}

bool reliableValue(pugi::xml_node at, DtString const& value)
{
   if (value.isEmpty() || equalsNoCase(value, "No") || equalsNoCase(value, "false"))
      return false;
   if (equalsNoCase(value, "Yes") || equalsNoCase(value, "true"))
      return true;
   fault(at, "reliable " + quoted(value) + " is neither Yes nor No");
}

bool enabledValue(pugi::xml_node at, char const* value)
{
   if (!std::strcmp(value, "true") || !std::strcmp(value, "1"))
      return true;
   if (!std::strcmp(value, "false") || !std::strcmp(value, "0"))
      return false;
   fault(at, std::string("isEnabled \"") + value + "\" is neither true nor false");
}

DtResignAction resignActionValue(pugi::xml_node at, char const* value)
{
   // The names of the interchange format, and the library's own spellings of two.
   static struct
   {
      char const* word;
      DtResignAction value;
   } const theWords[] = {
       {"UnconditionallyDivestAttributes", DtResignUnconditionallyDivestAttributes},
       {"DeleteObjects", DtResignDeleteObjects},
       {"CancelPendingOwnershipAcquisitions", DtResignCancelPendingOwnershipAcquisitions},
       {"CancelPendingOwnershipAcquitions", DtResignCancelPendingOwnershipAcquisitions},
       {"DeleteObjectsThenDivest", DtResignDeleteObjectsThenDivest},
       {"DeleteObjectsThanDivest", DtResignDeleteObjectsThenDivest},
       {"CancelThenDeleteThenDivest", DtResignCancelThenDeleteThenDivest},
       {"NoAction", DtResignNoAction}};
   for (auto const& w : theWords)
      if (!std::strcmp(value, w.word))
         return w.value;
   fault(at, std::string("resignAction \"") + value + "\" is not a resign action");
}

// Walks one document into one module.
class Walker
{
public:
   explicit Walker(DtFomModule& module) : myModule(module) {}

   void read(pugi::xml_node root, DtString const& fallbackName)
   {
      myModule.setFomType(DtFomType1516e);
      readIdentification(child(root, "modelIdentification"), fallbackName);
      // Data types first, so that the references to the module's own types are known
      // to be settled as they are met.
      readDataTypes(child(root, "dataTypes"));
      finishDataTypes();
      eachChild(child(root, "objects"), "objectClass",
                [&](pugi::xml_node c) { readObjectClass(c, DtString(), 1); });
      eachChild(child(root, "interactions"), "interactionClass",
                [&](pugi::xml_node c) { readInteractionClass(c, DtString(), 1); });
      eachChild(child(root, "dimensions"), "dimension",
                [&](pugi::xml_node c) { readDimension(c); });
      readTime(child(root, "time"));
      for (pugi::xml_node c = child(root, "tags").first_child(); c; c = c.next_sibling())
         if (c.type() == pugi::node_element)
            readTag(c);
      eachChild(child(root, "synchronizations"), "synchronizationPoint",
                [&](pugi::xml_node c) { readSyncPoint(c); });
      eachChild(child(root, "transportations"), "transportation",
                [&](pugi::xml_node c) { readTransportation(c); });
      readSwitches(child(root, "switches"));
      eachChild(child(root, "updateRates"), "updateRate",
                [&](pugi::xml_node c) { readUpdateRate(c); });
      eachChild(child(root, "notes"), "note", [&](pugi::xml_node c) { readNote(c); });
   }

private:
   // Records that `user` needs the data type; the user's text is only built for a
   // type not met before. "NA" and nothing mean no type.
   template <typename MakeUser>
   void reference(DtString const& dataType, MakeUser makeUser)
   {
      reference(std::string_view(dataType.c_str()), makeUser);
   }

   template <typename MakeUser>
   void reference(std::string_view type, MakeUser makeUser)
   {
      if (type.empty() || type == "NA")
         return;
      if (myOwnTypes.count(type) || myReferenced.count(type))
         return;
      myReferenced.insert(myReferencedNames.emplace_back(type));
      DtString const dataType = toDtString(type);
      // A data type may name one that the module defines further on: what the data
      // types refer to waits until all of them are read.
      if (myTypesRead)
         myModule.addDatatypeReference(makeUser(), dataType);
      else
         myPending.emplace_back(makeUser(), dataType);
   }

   void finishDataTypes()
   {
      myTypesRead = true;
      for (auto const& pending : myPending)
         if (!myOwnTypes.count(pending.second.c_str()))
            myModule.addDatatypeReference(pending.first, pending.second);
      myPending.clear();
   }

   // Adds a data type record; one that goes in joins the names of the module's own
   // types, which stay in place as long as the module.
   template <typename T>
   void addType(bool (DtFedTarget::*add)(T*), T* record)
   {
      std::string_view const name(record->name.c_str());
      if ((myModule.*add)(record))
         myOwnTypes.insert(name);
   }

   DtString requiredName(pugi::xml_node node, pugi::xml_node name, char const* what)
   {
      DtString value = text(name);
      if (value.isEmpty())
         fault(node, std::string(what) + " without a name");
      return value;
   }

   void readIdentification(pugi::xml_node identification, DtString const& fallbackName)
   {
      DtString name = text(child(identification, "name"));
      myModule.addModelIdentification(name.isEmpty() ? fallbackName.c_str() : name.c_str());
      std::vector<DtString> dependencies = myModule.fomDependencies();
      eachChild(identification, "reference",
                [&](pugi::xml_node r)
                {
                   DtString const id = text(child(r, "identification"));
                   if (equalsNoCase(text(child(r, "type")), "Dependency") && !id.isEmpty())
                      dependencies.push_back(id);
                });
      myModule.setFomDependencies(dependencies);
   }

   void readObjectClass(pugi::xml_node node, DtString const& parent, int depth)
   {
      if (depth > DtFomReader::theMaxClassDepth)
         fault(node, "object classes nested deeper than " +
                         std::to_string(DtFomReader::theMaxClassDepth) + " levels");
      // One pass finds the name and keeps the attributes and subclasses in document
      // order on the shared stack, so that the class's attributes are counted and
      // their room taken once.
      std::size_t const first = myNodes.size();
      std::size_t attributes = 0;
      pugi::xml_node nameNode;
      for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling())
      {
         if (c.type() != pugi::node_element)
            continue;
         char const* const local = localName(c);
         if (nameIs(local, "attribute"))
         {
            myNodes.push_back(c);
            ++attributes;
         }
         else if (nameIs(local, "objectClass"))
            myNodes.push_back(c);
         else if (!nameNode && nameIs(local, "name"))
            nameNode = c;
      }
      std::size_t const last = myNodes.size();
      DtString const name = requiredName(node, nameNode, "object class");
      DtFomObjectClass& entry = myModule.objectClassEntry(fullName(parent, name));
      entry.attributes.reserve(entry.attributes.size() + attributes);
      // The stack grows while subclasses are read: it is indexed, not iterated.
      for (std::size_t i = first; i < last; ++i)
      {
         pugi::xml_node const c = myNodes[i];
         if (nameIs(localName(c), "attribute"))
            readAttribute(c, entry);
         else
            readObjectClass(c, entry.name, depth + 1);
      }
      myNodes.resize(first);
   }

   void readAttribute(pugi::xml_node node, DtFomObjectClass& owner)
   {
      static char const* const theFields[] = {"name", "dataType", "transportation", "dimensions"};
      pugi::xml_node f[4];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "attribute");
      DtString const dataType = text(f[1]);
      DtString const transportation = text(f[2]);
      DtFomAttribute* const added = myModule.addAttributeTo(owner, name, dataType, transportation);
      eachChild(f[3], "dimension",
                [&](pugi::xml_node d)
                {
                   DtString const dimension = text(d);
                   if (dimension.isEmpty())
                      return;
                   if (added)
                      added->dimensions.insert(dimension);
                   // The module's own override would find the attribute again.
                   myModule.DtFedTarget::addUnresolvedAttributeDimension(owner.name, name,
                                                                         dimension);
                });
      if (!transportation.isEmpty())
         myModule.addUnresolvedAttributeTransportation(owner.name, name, transportation);
      reference(dataType, [&] { return "attribute " + owner.name + "." + name; });
   }

   void readInteractionClass(pugi::xml_node node, DtString const& parent, int depth)
   {
      if (depth > DtFomReader::theMaxClassDepth)
         fault(node, "interaction classes nested deeper than " +
                         std::to_string(DtFomReader::theMaxClassDepth) + " levels");
      // One pass sorts the children; the class is made once its name is known.
      // The parameters and subclasses wait on the shared stack; the parameters are
      // read first, then the subclasses.
      pugi::xml_node nameNode, transportationNode, dimensionsNode;
      std::size_t const first = myNodes.size();
      std::size_t parameters = 0;
      for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling())
      {
         if (c.type() != pugi::node_element)
            continue;
         char const* const local = localName(c);
         if (nameIs(local, "parameter"))
         {
            myNodes.push_back(c);
            ++parameters;
         }
         else if (nameIs(local, "interactionClass"))
            myNodes.push_back(c);
         else if (!nameNode && nameIs(local, "name"))
            nameNode = c;
         else if (!transportationNode && nameIs(local, "transportation"))
            transportationNode = c;
         else if (!dimensionsNode && nameIs(local, "dimensions"))
            dimensionsNode = c;
      }
      DtString const name = requiredName(node, nameNode, "interaction class");
      DtString const transportation = text(transportationNode);
      DtFomInteractionClass& entry =
          myModule.interactionClassEntry(fullName(parent, name), transportation);
      eachChild(dimensionsNode, "dimension",
                [&](pugi::xml_node d)
                {
                   DtString const dimension = text(d);
                   if (dimension.isEmpty())
                      return;
                   entry.dimensions.insert(dimension);
                   myModule.DtFedTarget::addUnresolvedInteractionDimension(entry.name, dimension);
                });
      if (!transportation.isEmpty())
         myModule.addUnresolvedInteractionTransportation(entry.name, transportation);
      std::size_t const last = myNodes.size();
      entry.parameters.reserve(entry.parameters.size() + parameters);
      for (std::size_t i = first; i < last; ++i)
      {
         pugi::xml_node const c = myNodes[i];
         if (!nameIs(localName(c), "parameter"))
            continue;
         static char const* const theParameterFields[] = {"name", "dataType"};
         pugi::xml_node p[2];
         gather(c, theParameterFields, p);
         DtString const parameter = requiredName(c, p[0], "parameter");
         DtString const dataType = text(p[1]);
         myModule.addParameterTo(entry, parameter, dataType);
         reference(dataType, [&] { return "parameter " + entry.name + "." + parameter; });
      }
      // The stack grows while subclasses are read: it is indexed, not iterated.
      for (std::size_t i = first; i < last; ++i)
         if (!nameIs(localName(myNodes[i]), "parameter"))
            readInteractionClass(myNodes[i], entry.name, depth + 1);
      myNodes.resize(first);
   }

   // A class's full dotted name, from its parent's.
   DtString fullName(DtString const& parent, DtString const& name)
   {
      if (parent.isEmpty())
         return name;
      myFullName.assign(parent.c_str(), static_cast<std::size_t>(parent.length()));
      myFullName += '.';
      myFullName.append(name.c_str(), static_cast<std::size_t>(name.length()));
      return DtString(myFullName.data(), static_cast<int>(myFullName.size()));
   }

   void readDimension(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name", "dataType", "upperBound", "normalization",
                                              "value"};
      pugi::xml_node f[5];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "dimension");
      DtString const dataType = text(f[1]);
      unsigned long const upperBound =
          unsignedValue(f[2], text(f[2]), static_cast<unsigned long>(-1), "upperBound");
      unsigned long lower = 0, upper = 0;
      bool excluded = false;
      rangeValue(f[4], text(f[4]), lower, upper, excluded);
      myModule.addDimension(name.c_str(), dataType.c_str());
      myModule.addDimension(name.c_str(), upperBound, lower, upper, excluded, text(f[3]));
      reference(dataType, [&] { return "dimension " + name; });
   }

   void readTime(pugi::xml_node time)
   {
      for (char const* kind : {"timeStamp", "lookahead"})
      {
         pugi::xml_node const node = child(time, kind);
         if (!node)
            continue;
         DtString const dataType = text(child(node, "dataType"));
         myModule.addTime(new DtTimeType{kind, dataType, text(child(node, "semantics"))});
         reference(dataType, [&] { return DtString("time ") + kind; });
      }
   }

   void readTag(pugi::xml_node node)
   {
      DtString const name = localName(node);
      DtString const dataType = text(child(node, "dataType"));
      myModule.addUserSuppliedTag(
          new DtUserSuppliedTagsType{name, dataType, text(child(node, "semantics"))});
      reference(dataType, [&] { return "tag " + name; });
   }

   void readSyncPoint(pugi::xml_node node)
   {
      static char const* const theFields[] = {"label", "dataType", "capability", "semantics"};
      pugi::xml_node f[4];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "synchronization point");
      DtString const dataType = text(f[1]);
      myModule.addSyncPoint(new DtSynchronizationPointsType{
          name, dataType, capabilityValue(f[2], text(f[2])), text(f[3])});
      reference(dataType, [&] { return "synchronization point " + name; });
   }

   void readTransportation(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name", "reliable", "semantics"};
      pugi::xml_node f[3];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "transportation");
      myModule.addTransportType(
          new DtTransportationType{name, DtString(), reliableValue(f[1], text(f[1])), text(f[2])});
   }

   void readSwitches(pugi::xml_node switches)
   {
      for (pugi::xml_node c = switches.first_child(); c; c = c.next_sibling())
      {
         if (c.type() != pugi::node_element)
            continue;
         char const* const name = localName(c);
         if (!std::strcmp(name, "automaticResignAction"))
         {
            pugi::xml_attribute const action = c.attribute("resignAction");
            if (action)
               myModule.setAutomaticResignAction(resignActionValue(c, action.value()));
            continue;
         }
         pugi::xml_attribute const enabled = c.attribute("isEnabled");
         if (!enabled)
            fault(c, std::string("switch ") + name + " without isEnabled");
         myModule.addSwitch(name, enabledValue(c, enabled.value()));
      }
   }

   void readUpdateRate(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name", "rate", "semantics"};
      pugi::xml_node f[3];
      gather(node, theFields, f);
      // A rate without a name or a value is kept: the post-merge check names it.
      myModule.addUpdateRate(
          new DtUpdateRateType{text(f[0]), rateValue(f[1], text(f[1])), text(f[2])});
   }

   void readDataTypes(pugi::xml_node types)
   {
      eachChild(child(types, "basicDataRepresentations"), "basicData",
                [&](pugi::xml_node c) { readBasic(c); });
      eachChild(child(types, "simpleDataTypes"), "simpleData",
                [&](pugi::xml_node c) { readSimple(c); });
      eachChild(child(types, "enumeratedDataTypes"), "enumeratedData",
                [&](pugi::xml_node c) { readEnumerated(c); });
      eachChild(child(types, "arrayDataTypes"), "arrayData",
                [&](pugi::xml_node c) { readArray(c); });
      eachChild(child(types, "fixedRecordDataTypes"), "fixedRecordData",
                [&](pugi::xml_node c) { readFixedRecord(c); });
      eachChild(child(types, "variantRecordDataTypes"), "variantRecordData",
                [&](pugi::xml_node c) { readVariantRecord(c); });
   }

   void readBasic(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name", "size", "interpretation", "endian",
                                              "encoding"};
      pugi::xml_node f[5];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "basic data representation");
      unsigned int const size =
          static_cast<unsigned int>(unsignedValue(f[1], text(f[1]), 0xffffffffu, "size"));
      addType(&DtFedTarget::addBasicDataRepresentation,
              new DtBasicDataRepresentationType{name, size, text(f[2]),
                                                endianValue(f[3], text(f[3])), text(f[4])});
   }

   void readSimple(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name",       "representation", "units",
                                              "resolution", "accuracy",       "semantics"};
      pugi::xml_node f[6];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "simple data type");
      DtString const representation = text(f[1]);
      addType(&DtFedTarget::addSimpleDataType,
              new DtSimpleDatatypeType{name, representation, text(f[2]), text(f[3]), text(f[4]),
                                       text(f[5])});
      reference(representation, [&] { return "simple data type " + name; });
   }

   void readEnumerated(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name", "representation", "semantics"};
      pugi::xml_node f[3];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "enumerated data type");
      DtString const representation = text(f[1]);
      addType(&DtFedTarget::addEnumeratedDataType,
              new DtEnumeratedDatatypeType{name, representation, text(f[2])});
      reference(representation, [&] { return "enumerated data type " + name; });
   }

   void readArray(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name", "dataType", "cardinality", "encoding",
                                              "semantics"};
      pugi::xml_node f[5];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "array data type");
      DtString const dataType = text(f[1]);
      addType(&DtFedTarget::addArrayDataType,
              new DtArrayDatatypeType{name, dataType, text(f[2]), text(f[3]), text(f[4])});
      reference(dataType, [&] { return "array data type " + name; });
   }

   void readFixedRecord(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name", "encoding", "semantics"};
      pugi::xml_node f[3];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "fixed record data type");
      addType(&DtFedTarget::addFixedRecordDataType,
              new DtFixedRecordDatatypeType{name, text(f[1]), text(f[2])});
      eachChild(node, "field",
                [&](pugi::xml_node field)
                {
                   reference(textView(child(field, "dataType"), myText),
                             [&] { return "field " + name + "." + text(child(field, "name")); });
                });
   }

   void readVariantRecord(pugi::xml_node node)
   {
      static char const* const theFields[] = {"name", "discriminant", "dataType", "encoding",
                                              "semantics"};
      pugi::xml_node f[5];
      gather(node, theFields, f);
      DtString const name = requiredName(node, f[0], "variant record data type");
      DtString const dataType = text(f[2]);
      // The alternatives in one text: "enumerators=name:dataType; ...".
      std::string alternatives;
      eachChild(node, "alternative",
                [&](pugi::xml_node a)
                {
                   if (!alternatives.empty())
                      alternatives += "; ";
                   alternatives += textView(child(a, "enumerator"), myText);
                   alternatives += '=';
                   alternatives += textView(child(a, "name"), myText);
                   std::string_view const type = textView(child(a, "dataType"), myText);
                   if (!type.empty())
                   {
                      alternatives += ':';
                      alternatives += type;
                   }
                   reference(type, [&] { return "alternative of " + name; });
                });
      addType(&DtFedTarget::addVariantRecordDataType,
              new DtVariantRecordDatatypeType{name, text(f[1]), dataType,
                                              toDtString(alternatives), text(f[3]), text(f[4])});
      reference(dataType, [&] { return "variant record data type " + name; });
   }

   void readNote(pugi::xml_node node)
   {
      DtString const name = requiredName(node, child(node, "label"), "note");
      myModule.addNote(new DtNotesType{name, text(child(node, "semantics"))});
   }

   DtFomModule& myModule;
   // The names of the data types this module defines, as read so far, and of those it
   // has referred to (kept in myReferencedNames): each type is looked up in the module
   // once.
   std::unordered_set<std::string_view> myOwnTypes;
   std::unordered_set<std::string_view> myReferenced;
   std::deque<std::string> myReferencedNames;
   // References made by data types, as (user, type), until every type is read.
   bool myTypesRead = false;
   std::vector<std::pair<DtString, DtString>> myPending;
   // The members and subclasses of the classes being read, outermost first: one
   // buffer for the whole walk instead of lists made for each class.
   std::vector<pugi::xml_node> myNodes;
   // Where a class's full dotted name is put together.
   std::string myFullName;
   // Where a text that must be changed to be read is kept while it is looked at.
   std::string myText;
};

// The 1-based line of a byte offset of the input.
unsigned long lineAt(char const* data, std::size_t size, std::ptrdiff_t offset)
{
   if (offset < 0)
      return 1;
   std::size_t const end = std::min(size, static_cast<std::size_t>(offset));
   return 1 + static_cast<unsigned long>(std::count(data, data + end, '\n'));
}

DtString baseName(char const* path)
{
   char const* const slash = std::strrchr(path, '/');
   return DtString(slash ? slash + 1 : path);
}

}  // namespace

bool DtFomReader::readBuffer(char const* data, std::size_t size, char const* sourceName,
                             DtFomModule& module, DtString& error)
{
   if (!sourceName)
      sourceName = "";
   auto const report = [&](std::ptrdiff_t offset, std::string const& message)
   {
      error = (std::string(sourceName) + ":" + std::to_string(lineAt(data, size, offset)) + ": " +
               message)
                  .c_str();
      return false;
   };
   if (!data && size)
      return report(0, "no data");

   pugi::xml_document document;
   pugi::xml_parse_result const parsed =
       document.load_buffer(data ? data : "", size, pugi::parse_default, pugi::encoding_auto);
   if (!parsed)
      return report(parsed.offset, std::string("not well-formed XML: ") + parsed.description());

   tPrefixedNames = false;
   pugi::xml_node root;
   for (pugi::xml_node c = document.first_child(); c; c = c.next_sibling())
   {
      if (c.type() != pugi::node_element)
         continue;
      if (root)
         return report(c.offset_debug(), "not well-formed XML: a second root element");
      root = c;
   }
   tPrefixedNames = std::strchr(root.name(), ':') != nullptr;
   if (!isElement(root, "objectModel"))
      return report(root.offset_debug(), std::string("not an object model: the root element is <") +
                                             root.name() + ">, not <objectModel>");
   std::string const name = root.name();
   std::size_t const colon = name.find(':');
   std::string const xmlns =
       colon == std::string::npos ? "xmlns" : "xmlns:" + name.substr(0, colon);
   if (pugi::xml_attribute const ns = root.attribute(xmlns.c_str()))
   {
      bool const accepted =
          std::any_of(std::begin(theAcceptedNamespaces), std::end(theAcceptedNamespaces),
                      [&](char const* n) { return !std::strcmp(n, ns.value()); });
      if (!accepted)
         return report(root.offset_debug(), std::string("not an IEEE 1516-2010 object model: "
                                                        "namespace \"") +
                                                ns.value() + "\"");
   }

   try
   {
      Walker(module).read(root, baseName(sourceName));
   }
   catch (ReadFault const& f)
   {
      return report(f.offset, f.message);
   }
   return true;
}

bool DtFomReader::readFile(char const* path, DtFomModule& module, DtString& error)
{
   if (!path)
      path = "";
   auto const refuse = [&](std::string const& why)
   {
      error = (std::string(path) + ": " + why).c_str();
      return false;
   };
   std::FILE* const file = std::fopen(path, "rb");
   if (!file)
      return refuse(std::strerror(errno));
   std::string bytes;
   char chunk[65536];
   std::size_t got = 0;
   while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0)
   {
      bytes.append(chunk, got);
      if (bytes.size() > static_cast<std::size_t>(theMaxFileSize))
      {
         std::fclose(file);
         return refuse("larger than " + std::to_string(theMaxFileSize) + " bytes");
      }
   }
   int const readError = std::ferror(file) ? errno : 0;
   std::fclose(file);
   if (readError)
      return refuse(std::strerror(readError));
   return readBuffer(bytes.data(), bytes.size(), path, module, error);
}
