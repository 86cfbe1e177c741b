//===- olExceptions.cpp - Exceptions with a chain of causes ----------------===//
//
// Family: Diagnostics.
//
//===----------------------------------------------------------------------===//
#include <olutil/olExceptions.h>

#include <iostream>
#include <string>

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
}  // namespace

DtException::DtException(char const* what, DtException const* last) : last_(copyChain(last))
{
   try
   {
      if (what)
         whatText_ = what;
   }
   catch (...)
   {
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << std::endl;
   }
}

DtException::DtException(char const* what, char const* function, char const* file,
                         unsigned int line, DtException const* last)
    : last_(copyChain(last))
{
   try
   {
      if (what)
         whatText_ = what;
      if (function)
         whereText_ = function;
      whereText_ += " [";
      if (file)
         whereText_ += file;
      whereText_ += ":";
      // The final blank is part of the location text; readers rely on it.
      whereText_ += (std::to_string(line) + "] ").c_str();
   }
   catch (...)
   {
      // Raising an exception must not turn into a different failure, so nothing
      // escapes; the report goes straight to std::cerr, past the notification streams.
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << (file ? file : "") << std::endl;
   }
}

DtException::DtException(DtException const& other) : last_(copyChain(other.last_))
{
   try
   {
      whereText_ = other.whereText_;
      whatText_ = other.whatText_;
   }
   catch (...)
   {
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << std::endl;
   }
}

DtException& DtException::operator=(DtException const& other)
{
   if (this == &other)
      return *this;
   // Copy the chain before letting go of ours: `other` may belong to our own chain.
   DtException* chain = copyChain(other.last_);
   try
   {
      whereText_ = other.whereText_;
      whatText_ = other.whatText_;
   }
   catch (...)
   {
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << std::endl;
   }
   delete last_;
   last_ = chain;
   return *this;
}

DtException::~DtException()
{
   delete last_;
   last_ = nullptr;
}

DtException const* DtException::lastException() const
{
   return last_;
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
   return whatText_.c_str();
}

DtString DtException::what() const
{
   return whatText_;
}

DtString DtException::where() const
{
   return whereText_;
}

std::ostream& operator<<(std::ostream& out, DtException const& exception)
{
   for (DtException const* e = &exception; e; e = e->lastException())
      out << e->what().c_str() << " (" << e->where().c_str() << ")" << std::endl;
   return out;
}
