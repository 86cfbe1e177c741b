// Test support: a printer that gathers what one notification stream prints.
#ifndef OLUTIL_TESTS_SUPPORT_CAPTURE_H
#define OLUTIL_TESTS_SUPPORT_CAPTURE_H

#include <olutil/olPrint.h>

#include <string>

namespace olt
{

// Takes the console's place on `stream` for its lifetime and keeps the text.
class CapturePrinter : public DtPrinter
{
public:
   explicit CapturePrinter(DtOutputStream& stream) : myStream(stream)
   {
      myStream.detachPrinter(&DtStandardOutConsole);
      myStream.attachPrinter(this);
   }
   ~CapturePrinter() override
   {
      myStream.detachPrinter(this);
      myStream.attachPrinter(&DtStandardOutConsole);
   }
   void write(std::string const& text, int, bool) override { myText += text; }
   std::string const& text() const { return myText; }

private:
   DtOutputStream& myStream;
   std::string myText;
};

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_CAPTURE_H
