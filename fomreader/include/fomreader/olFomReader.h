//===- fomreader/olFomReader.h - Reads FOM module files ----------*- C++ -*-===//
//
// Family: FOM.
//
// DtFomReader reads an IEEE 1516-2010 FOM module file (the XML interchange format of
// the HLA Object Model Template) into a DtFomModule: every record table, the switches
// and automaticResignAction, the model identification and its dependencies, the
// object classes with their attributes, the interaction classes with their
// parameters, and the dimensions. It accepts the namespaces that real files use
// ("http://standards.ieee.org/IEEE1516-2010", "http://www.sisostds.org/schemas/
// IEEE1516-2010", or none), any line ends, empty and absent tables alike, and
// ignores `notes` attributes and whatever stands in XML comments.
//
// A file that is not well-formed XML, is not an object model, or holds a value that
// cannot be read (a rate that is no number, an unknown endianness) gives false and an
// error "FILE:LINE: what". The module then holds what was read before the fault and
// is best discarded.
//
// The functions keep no state: any thread may read into a module of its own.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_FOMREADER_OLFOMREADER_H
#define OLUTIL_FOMREADER_OLFOMREADER_H

#include <fomreader/olFomModule.h>

#include <cstddef>

// How the reader maps the FOM's words onto the records' numbers.
enum DtFomEndian : int
{
   DtFomEndianUnspecified = 0,
   DtFomEndianBig = 1,
   DtFomEndianLittle = 2
};

enum DtFomSyncCapability : int
{
   DtFomSyncCapabilityNA = 0,
   DtFomSyncCapabilityRegister = 1,
   DtFomSyncCapabilityAchieve = 2,
   DtFomSyncCapabilityRegisterAchieve = 3,
   DtFomSyncCapabilityNoAchieve = 4
};

class DtFomReader
{
public:
   // Classes nested deeper than this are refused rather than walked.
   static constexpr int theMaxClassDepth = 256;

   // Reads the file at `path` into `module`. A module that names itself nowhere is
   // known by the file's base name. An unreadable file gives "PATH: strerror".
   static bool readFile(char const* path, DtFomModule& module, DtString& error);
   // Reads `size` bytes; `sourceName` stands for the file in error messages and for
   // the model identification of a module that names itself nowhere.
   static bool readBuffer(char const* data, std::size_t size, char const* sourceName,
                          DtFomModule& module, DtString& error);
};

#endif  // OLUTIL_FOMREADER_OLFOMREADER_H
