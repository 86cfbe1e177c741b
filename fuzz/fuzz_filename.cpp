// libFuzzer target: DtFilename's path operations, each called with an argument
// taken from the name itself (the object, or a pointer into its text), beside
// the same call on a twin given a separate copy of that argument.
//
// Input layout: byte 0 is the number of operations (low four bits), the next
// bytes their codes, and the rest is the starting name. A difference between
// the name and its twin, or text outside either's buffer, is a fault. The name
// is put back to its start when it grows past a few kilobytes, since appending
// a name to itself doubles it. No operation here touches the file system.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <olutil/olFilename.h>

namespace
{

constexpr int theMaxLength = 4096;

// One operation on `name` with `argument` as its text; `argument` is either
// `name` itself or a separate copy of it.
void apply(uint8_t code, DtFilename& name, DtFilename const& argument)
{
   char const* const middle = argument.c_str() + argument.size() / 2;
   switch (code % 18)
   {
      case 0:
         name.setExtension(argument);
         break;
      case 1:
         name.setExtension(DtString(middle));
         break;
      case 2:
         name.append(argument);
         break;
      case 3:
         name.append(middle);
         break;
      case 4:
         name.prepend(argument);
         break;
      case 5:
         name.prepend(middle);
         break;
      case 6:
         name = argument;
         break;
      case 7:
         name = static_cast<DtString const&>(argument);
         break;
      case 8:
         name = middle;
         break;
      case 9:
         name += argument;
         break;
      case 10:
         name += middle;
         break;
      case 11:
         name.stripExtension();
         break;
      case 12:
         name.stripFilename();
         break;
      case 13:
         name.stripPath();
         break;
      case 14:
         name.replaceSlashes();
         break;
      case 15:
         name = DtFilename::combine(argument, argument);
         break;
      case 16:
         name = DtFilename::stripPath(argument);
         break;
      case 17:
         name.setString(middle);
         break;
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   if (size < 1)
      return 0;
   std::size_t const count = data[0] & 15;
   if (size < 1 + count)
      return 0;
   uint8_t const* const codes = data + 1;
   std::string const start(reinterpret_cast<char const*>(data + 1 + count), size - 1 - count);

   DtFilename name(start.c_str()), twin(start.c_str());
   for (std::size_t i = 0; i < count; ++i)
   {
      DtFilename const copy(twin);
      apply(codes[i], twin, copy);
      apply(codes[i], name, name);
      if (std::strcmp(name.c_str(), twin.c_str()) != 0)
         __builtin_trap();
      if (name.extension().size() > name.size() || name.absolute() == name.relative())
         __builtin_trap();
      if (name.size() > theMaxLength)
      {
         name = start.c_str();
         twin = start.c_str();
      }
   }
   return 0;
}
