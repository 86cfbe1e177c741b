// libFuzzer target: received client/server message bytes of any kind and length,
// wrapped as a receiver wraps them, then printed as their kind's class prints.
//
// A wrapped message holds exactly its kind's size, taken from bytes that were there;
// anything shorter or unknown wraps to nothing. Printing reads only the message.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <olutil/olCliServer.h>
#include <olutil/olPrint.h>

namespace
{

class Received : public DtClientServerMsg
{
public:
   using DtClientServerMsg::DtClientServerMsg;
   int send() override { return 0; }
};

// Puts the wrapped bytes into a message of the kind's class and prints it.
template <class Message, class... Args>
void printAs(Received const& wrapped, Args... args)
{
   Message m(nullptr, args...);
   std::memcpy(&m.msg, &wrapped.msg, sizeof m.msg);
   m.print();
}

void check(Received const& m, std::uint8_t const* data, std::size_t size)
{
   if (m.msgLength == 0)
      return;
   if (m.msgLength != DtCsMsgKindSize(data[0]) || m.msgLength > size ||
       std::memcmp(&m.msg, data, m.msgLength) != 0)
      __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
   static bool const quiet = [] {
      DtNotifyLevel = 4;  // every print path runs; no printer receives it
      DtSetOstrelPrinter(nullptr);
      return true;
   }();
   (void)quiet;
   Received wrapped(size ? data : nullptr, size);
   check(wrapped, data, size);
   if (size >= sizeof(DtCsMsg))
   {
      DtCsMsg whole;
      std::memcpy(&whole, data, sizeof whole);
      Received fromWhole(&whole);
      check(fromWhole, data, size);
   }
   wrapped.print();
   if (wrapped.msgLength == 0)
      return 0;
   switch (wrapped.kind())
   {
   case DtCsStateReturnKind:
      printAs<DtCsStateReturnMsg>(wrapped, 0, 0, 0, 0, 0, 0);
      break;
   case DtCsCStateReturnKind:
      printAs<DtCsCStateReturnMsg>(wrapped, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
      break;
   case DtCsWarningKind:
      printAs<DtCsWarningMsg>(wrapped, 0, "");
      break;
   case DtCsNoticeKind:
      printAs<DtCsNoticeMsg>(wrapped, 0);
      break;
   default:
      break;
   }
   return 0;
}
