//===- olDynamic.cpp - Dynamic libraries ----------------------------------===//
//
// Family: Platform.
//
//===----------------------------------------------------------------------===//
#include <olutil/olDynamic.h>

#include <olutil/olPrint.h>
#include <olutil/olStringUtil.h>

#include <dlfcn.h>

#include <string>

DtDynamicLibrary* DtDynamicLibrary::create(DtString const& name, bool addExtension, bool lazyLoad,
                                           bool globalSymbols)
{
   auto* const library = new DtDynamicLibrary(name);
   library->open(addExtension, lazyLoad, globalSymbols);
   return library;
}

DtString DtDynamicLibrary::standardExtension()
{
   return DtString(".so");
}

DtDynamicLibrary::DtDynamicLibrary(DtString const& name) : name(name)
{
}

DtDynamicLibrary::~DtDynamicLibrary()
{
   setError(nullptr);
   if (handle)
      dlclose(handle);
}

bool DtDynamicLibrary::open(bool addExtension, bool lazyLoad, bool globalSymbols)
{
   if (handle)
   {
      dlclose(handle);
      handle = nullptr;
   }
   setError(nullptr);
   std::string file = name.c_str();
   if (addExtension)
      file += standardExtension().c_str();
   int const mode = (lazyLoad ? RTLD_LAZY : RTLD_NOW) | (globalSymbols ? RTLD_GLOBAL : 0);
   handle = dlopen(file.c_str(), mode);
   if (!handle)
   {
      char const* const reason = dlerror();
      setError(("dlopen returned NULL (Error: " + std::string(reason ? reason : "") + ")").c_str());
   }
   return handle != nullptr;
}

bool DtDynamicLibrary::isValid() const
{
   return handle != nullptr;
}

void* DtDynamicLibrary::procAddress(DtString const& symbol)
{
   if (!isValid())
      return nullptr;
   setError(nullptr);
   dlerror();  // an error left from an earlier call must not be taken for this one
   void* const address = dlsym(handle, symbol.c_str());
   if (char const* const reason = dlerror())
   {
      setError(reason);
      DtWarn << "Could not find symbol " << symbol.c_str() << " in library " << name.c_str()
             << std::endl;
      return nullptr;
   }
   return address;
}

char const* DtDynamicLibrary::error() const
{
   return errorText;
}

DtString const& DtDynamicLibrary::libraryName() const
{
   return name;
}

void DtDynamicLibrary::setError(char const* text)
{
   delete[] errorText;
   errorText = DtStrdup(text);
}
