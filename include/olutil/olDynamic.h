//===- olutil/olDynamic.h - Dynamic libraries -------------------*- C++ -*-===//
//
// Family: Platform.
//
// DtDynamicLibrary wraps the system's dynamic loader (dlopen, dlsym, dlerror,
// dlclose): open a library by name, find a symbol in it, and keep the text of
// the last failure. Plug-ins are opened this way.
//
// An object belongs to one thread at a time. The loader's error text is per
// thread, so open and procAddress read it on the thread that failed.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLDYNAMIC_H
#define OLUTIL_OLDYNAMIC_H

#include <olutil/olString.h>

class DtDynamicLibrary
{
public:
   /// Allocates an object with new and opens it with the three flags; it is
   /// returned whether or not it opened. The caller tests isValid() and
   /// deletes the object.
   static DtDynamicLibrary* create(DtString const& name, bool addExtension, bool lazyLoad,
                                   bool globalSymbols);
   /// ".so".
   static DtString standardExtension();

   /// Stores the name and opens nothing.
   explicit DtDynamicLibrary(DtString const& name);
   DtDynamicLibrary(DtDynamicLibrary const&) = delete;
   DtDynamicLibrary& operator=(DtDynamicLibrary const&) = delete;
   /// Frees the error text and closes the library if it is open.
   virtual ~DtDynamicLibrary();

   /// Opens the library: its name, with standardExtension() appended when
   /// `addExtension` is set, goes to dlopen as it stands (a name without '/'
   /// is searched for as the loader searches). `lazyLoad` chooses RTLD_LAZY
   /// over RTLD_NOW, and `globalSymbols` adds RTLD_GLOBAL. On failure the
   /// error text is "dlopen returned NULL (Error: " + dlerror() + ")". A
   /// library already open is closed first. True if it opened.
   virtual bool open(bool addExtension, bool lazyLoad, bool globalSymbols);
   /// True once opened.
   bool isValid() const;
   /// The address of `symbol`, or null. Clears the error text first; when the
   /// loader reports an error, the text is the loader's, and "Could not find
   /// symbol SYMBOL in library NAME" goes to DtWarn. An invalid library gives
   /// null and leaves the error text alone.
   void* procAddress(DtString const& symbol);
   /// The text of the last failure, or null when the last operation succeeded.
   char const* error() const;
   /// The name as given, without the extension.
   DtString const& libraryName() const;

private:
   void setError(char const* text);

   // The order of these fields is part of the binary layout.
   void* handle = nullptr;
   DtString name;
   char* errorText = nullptr;  // owned, from DtStrdup
};

#endif  // OLUTIL_OLDYNAMIC_H
