// libFuzzer target: arbitrary bytes as a FOM module file through DtFomReader, then
// whatever it read merged both ways with a small module that fills every table, the
// post-merge check run, and the conflict lists and record texts made.
//
// The input is the file as it stands, so that the kept corpus is plain XML. Its size
// chooses the settings: bit 0 strict checking, bit 1 a merge while joining rather than
// creating, bit 2 every table bit in the merge mask.
#include <cstddef>
#include <cstdint>
#include <string>

#include <fomreader/olFomReader.h>
#include <olutil/olPrint.h>

namespace
{

// A module with an entry in every table, for the fuzzed module to meet.
char const theCounterpart[] = R"(<objectModel xmlns="http://standards.ieee.org/IEEE1516-2010">
<modelIdentification><name>Counterpart</name></modelIdentification>
<objects><objectClass><name>HLAobjectRoot</name><objectClass><name>A</name>
<attribute><name>x</name><dataType>T</dataType><dimensions><dimension>D</dimension></dimensions>
<transportation>HLAreliable</transportation></attribute></objectClass></objectClass></objects>
<interactions><interactionClass><name>HLAinteractionRoot</name><interactionClass><name>I</name>
<transportation>HLAreliable</transportation><parameter><name>p</name><dataType>T</dataType>
</parameter></interactionClass></interactionClass></interactions>
<dimensions><dimension><name>D</name><dataType>T</dataType><upperBound>4</upperBound>
<value>[0..4)</value></dimension></dimensions>
<time><timeStamp><dataType>T</dataType></timeStamp></time>
<tags><updateReflectTag><dataType>T</dataType></updateReflectTag></tags>
<synchronizations><synchronizationPoint><label>S</label><capability>Achieve</capability>
</synchronizationPoint></synchronizations>
<transportations><transportation><name>HLAreliable</name><reliable>Yes</reliable>
</transportation></transportations>
<switches><autoProvide isEnabled="true"/><automaticResignAction resignAction="NoAction"/>
</switches>
<updateRates><updateRate><name>R</name><rate>1</rate></updateRate></updateRates>
<dataTypes><basicDataRepresentations><basicData><name>B</name><size>8</size>
<endian>Big</endian></basicData></basicDataRepresentations>
<simpleDataTypes><simpleData><name>T</name><representation>B</representation></simpleData>
</simpleDataTypes></dataTypes>
<notes><note><label>N</label><semantics>n</semantics></note></notes>
</objectModel>)";

DtFomModule const& counterpart()
{
   static DtFomModule* theModule = []
   {
      // The warnings of lenient merges would drown the fuzzer's output.
      DtNotifyLevel = -1;
      auto* module = new DtFomModule;
      DtString error;
      if (!DtFomReader::readBuffer(theCounterpart, sizeof theCounterpart - 1, "counterpart.xml",
                                   *module, error))
         __builtin_trap();
      return module;
   }();
   return *theModule;
}

void settle(DtFomModule& target, DtFomModule const& other, std::size_t settings)
{
   target.setStrictChecking(settings & 1);
   if (settings & 4)
      target.setMergeTableMask(~0ul);
   target.mergeTarget(other, !(settings & 2));
   DtString errors;
   target.postMergeCheckTarget(errors);
   // The conflict lists and texts that the merge tool prints.
   target.dimensionConflicts(other);
   target.objectClassConflicts(other);
   target.interactionClassConflicts(other);
   DtString text;
   for (auto const& r : target.updateRateTable())
      r->appendToString(text);
   for (auto const& r : target.variantRecordDatatypeTable())
      r->appendToString(text);
   for (auto const& d : target.dimensions())
      DtFomModule::appendToString(d.second, text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   DtFomModule const& known = counterpart();
   DtFomModule read;
   DtString error;
   DtFomReader::readBuffer(reinterpret_cast<char const*>(data), size, "fuzz.xml", read, error);

   // What was read goes into a copy of the counterpart, and the counterpart into it.
   DtFomModule into(known);
   settle(into, read, size);
   settle(read, known, size);
   return 0;
}
