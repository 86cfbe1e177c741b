//===-- olutil/olFilename.h - File names and directories --------*- C++ -*-===//
//
// Family: Text.
//
// DtFilename is a DtString that knows path rules: which part is the directory,
// which the name, which the extension, and whether the file is there. Beside it
// stand free functions for the directories the library and its applications
// rely on: the user's home, configuration and log directories, the temporary
// directory and the working directory. Path handling is by text alone; only
// absolutePath() resolves a path on the file system.
//
// Threads: a DtFilename is a value used by one thread at a time. The functions
// share no state except nullFilename(), which is only read. DtMakeDirectory
// changes its argument's text for the length of the call, so that argument must
// not be shared with another thread meanwhile.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLFILENAME_H
#define OLUTIL_OLFILENAME_H

#include <olutil/olString.h>

#include <cstdio>
#include <vector>

class DtFilename : public DtString
{
public:
   DtFilename();
   DtFilename(char const* name);
   DtFilename(DtString const& name);
   DtFilename(DtFilename const& other);
   ~DtFilename() override;

   DtFilename& operator=(DtFilename const& other);
   DtFilename& operator=(DtString const& other) override;
   DtFilename& operator=(char const* name) override;

   /// A new heap copy that is a DtFilename too; owned by the caller.
   DtFilename* clone() const override;

   // ------------------------------------------------ virtual operations
   // The order of these declarations is the order of the virtual table after
   // DtString's: append only at the end.

   /// True if the text is not empty and begins with the separator.
   virtual bool absolute() const;
   /// The negation of absolute().
   virtual bool relative() const;
   /// An absolute `other` replaces this name; otherwise `other` is added behind
   /// a separator, which is added only when this name is not empty and does
   /// not end in one already.
   virtual DtFilename& append(DtFilename const& other);
   /// Puts `other` in front, as other.append(*this) would; an absolute name is
   /// left alone.
   virtual DtFilename& prepend(DtFilename const& other);
   /// The text behind the last '.' of the last path component, without the
   /// dot; empty when that component has no dot.
   virtual DtString extension() const;
   /// Replaces the extension: stripExtension(), then "." unless `extension`
   /// begins with one, then `extension`. `extension` may be this name itself;
   /// its text before the call is what is added.
   virtual DtFilename& setExtension(DtString const& extension);
   /// Removes the last path component, keeping the separator before it. The
   /// component is measured with the static stripPath(), so a name with no
   /// separator and a name like "/file" both become empty.
   virtual DtFilename& stripFilename();
   /// Removes everything up to and including the last separator; "/file"
   /// becomes "file". A name with no separator is left alone.
   virtual DtFilename& stripPath();
   /// Removes the last '.' of the last path component and everything behind
   /// it; the directory part, as the static stripFilename() gives it, stays.
   virtual DtFilename& stripExtension();
   /// exists() and the file may be written.
   virtual bool isWritable() const;
   /// exists() and the file may be read.
   virtual bool isReadable() const;
   /// The size in bytes; 0 when the file does not exist.
   virtual long fileLength() const;
   /// The name is there (access with mode 0 succeeds).
   virtual bool exists() const;
   /// True if this name exists. Otherwise tries this name prepended with
   /// `alternate`, and when that exists takes it as this name and returns
   /// true. A null `alternate` gives false.
   virtual bool searchAlternatePath(char const* alternate);

   // ------------------------------------------------ non-virtual operations

   /// Turns each '\' into '/', in place.
   void replaceSlashes();

   /// A copy with stripFilename() applied.
   static DtFilename stripFilename(DtFilename const& name);
   /// The part behind the last separator. Unlike the member, a name whose only
   /// separator is its first character comes back whole: "/file" stays
   /// "/file". Callers that want the bare file name of a source path rely on
   /// this form.
   static DtFilename stripPath(DtFilename const& name);
   /// A copy with stripExtension() applied.
   static DtFilename stripExtension(DtFilename const& name);
   /// `name` when it is absolute or `directory` is empty; otherwise
   /// `directory`, the separator and `name`, with the separator added even
   /// when `directory` ends in one: combine("/a/", "x") is "/a//x".
   static DtFilename combine(DtFilename const& directory, DtFilename const& name);
   /// When `path` exists, sets `result` to its canonical absolute form (from
   /// realpath) and returns true; otherwise sets it empty and returns false.
   static bool absolutePath(DtString const& path, DtString& result);

   static constexpr char separator() { return '/'; }
   /// The one process-wide empty file name.
   static DtFilename const& nullFilename();
};

/// fopen.
FILE* DtFileOpen(char const* name, char const* mode);
/// fclose; a null file gives EOF.
int DtFileClose(FILE* file);

/// Makes the directory and all its parents with mode 0750. True if at least
/// one mkdir succeeded, so a directory that exists already with all its
/// parents gives false. The text of `path` is cut and restored in place during
/// the call.
bool DtMakeDirectory(DtFilename const& path);
/// Removes the files directly inside the directory, then the directory. Not
/// recursive: a directory with a subdirectory stays. True if the directory
/// went.
bool DtDeleteDirectory(DtFilename const& path);

/// The home directory of the user running the process, from the password
/// database; empty when it has no entry.
DtFilename DtGetUserHomeDirectory();
/// DtGetUserHomeDirectory() followed by "/.qor".
DtFilename DtGetQorUserConfigurationDirectory();
/// The log directory, made when missing. QOR_LOG_DIR wins whole; otherwise
/// QOR_INSTALL_DIR, then QOR_BASE_DIR, with "logs" added; otherwise HOME with
/// "QOR/logs" added. Variables set to the empty text count as unset. With none
/// of the four, the home directory from the password database stands in for
/// HOME, and with no such entry either, the temporary directory.
DtFilename DtGetQorLogDirectory();
/// "/tmp/".
DtFilename DtGetTempDirectory();
/// Every entry name of the directory in the order the system lists them, "."
/// and ".." included; empty when the directory can't be opened. The second
/// argument is accepted for compatibility and not consulted.
std::vector<DtFilename> DtGetFileListFromDirectory(DtString directory,
                                                   DtString filter = DtString());
/// The working directory; empty when it can't be read.
DtFilename DtGetCwd();

#endif  // OLUTIL_OLFILENAME_H
