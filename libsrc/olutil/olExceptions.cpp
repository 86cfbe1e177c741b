//===- olExceptions.cpp - Exceptions with a chain of causes ----------------===//
//
// Family: Diagnostics.
//
//===----------------------------------------------------------------------===//
#include <olutil/olExceptions.h>

#include <iostream>

namespace
{
// A deep copy of `cause` and its whole chain, or null when there is none or the copy
// fails: an exception is still raised without its cause rather than not at all.
DtException* copyChain(DtException const* cause)
{
   if (!cause)
      return nullptr;
   try
   {
      return new DtException(*cause);
   }
   catch (...)
   {
      return nullptr;
   }
}

// Building an exception's texts must not turn into a different failure, so nothing
// escapes; the report goes straight to std::cerr, past the notification streams.
template <class Build>
void buildTexts(Build const& build, char const* file = nullptr)
{
   try
   {
      build();
   }
   catch (...)
   {
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << (file ? file : "") << std::endl;
   }
}
}  // namespace

DtException::DtException(char const* what, DtException const* cause) : last(copyChain(cause))
{
   buildTexts(
       [&]
       {
          if (what)
             whatText = what;
       });
}

DtException::DtException(char const* what, char const* function, char const* file,
                         unsigned int line, DtException const* cause)
    : last(copyChain(cause))
{
   buildTexts(
       [&]
       {
          if (what)
             whatText = what;
          if (function)
             whereText = function;
          whereText += " [";
          if (file)
             whereText += file;
          whereText += ":";
          whereText += DtString(line);
          // The final blank is part of the location text; readers rely on it.
          whereText += "] ";
       },
       file);
}

DtException::DtException(DtException const& other) : last(copyChain(other.last))
{
   buildTexts([&] { copyTexts(other); });
}

DtException& DtException::operator=(DtException const& other)
{
   if (this == &other)
      return *this;
   // Copy the chain before letting go of ours: `other` may belong to our own chain.
   DtException* chain = copyChain(other.last);
   buildTexts([&] { copyTexts(other); });
   delete last;
   last = chain;
   return *this;
}

void DtException::copyTexts(DtException const& other)
{
   whereText = other.whereText;
   whatText = other.whatText;
}

DtException::~DtException()
{
   delete last;
   last = nullptr;
}

DtException const* DtException::lastException() const
{
   return last;
}

DtException const* DtException::initialException() const
{
   DtException const* root = this;
   while (root->lastException())
      root = root->lastException();
   return root;
}

char const* DtException::message() const
{
   return whatText.c_str();
}

DtString DtException::what() const
{
   return whatText;
}

DtString DtException::where() const
{
   return whereText;
}

std::ostream& operator<<(std::ostream& out, DtException const& exception)
{
   for (DtException const* e = &exception; e; e = e->lastException())
      out << e->what().c_str() << " (" << e->where().c_str() << ")" << std::endl;
   return out;
}
