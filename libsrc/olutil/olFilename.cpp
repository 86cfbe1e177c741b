// File names and directories.
#include <olutil/olFilename.h>

#include "olLogDirectory.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace
{
// The text of a name, never null: a released string reads as empty.
char const* textOf(DtString const& s)
{
   char const* text = s.c_str();
   return text ? text : "";
}

bool isSet(char const* value)
{
   return value && *value;
}

// The value of an environment variable, or null when it is unset or empty.
char const* environmentValue(char const* name)
{
   char const* value = std::getenv(name);
   return isSet(value) ? value : nullptr;
}
}  // namespace

// ---------------------------------------------------------------- construction

DtFilename::DtFilename() = default;

DtFilename::DtFilename(char const* name) : DtString(name) {}

DtFilename::DtFilename(DtString const& name) : DtString(name) {}

DtFilename::DtFilename(DtFilename const& other) : DtString(other) {}

DtFilename::~DtFilename() = default;

DtFilename& DtFilename::operator=(DtFilename const& other)
{
   DtString::operator=(other);
   return *this;
}

DtFilename& DtFilename::operator=(DtString const& other)
{
   DtString::operator=(other);
   return *this;
}

DtFilename& DtFilename::operator=(char const* name)
{
   DtString::operator=(name);
   return *this;
}

DtFilename* DtFilename::clone() const
{
   return new DtFilename(*this);
}

// ---------------------------------------------------------------- path rules

bool DtFilename::absolute() const
{
   return textOf(*this)[0] == separator();
}

bool DtFilename::relative() const
{
   return !absolute();
}

DtFilename& DtFilename::append(DtFilename const& other)
{
   if (other.absolute())
   {
      *this = other;
      return *this;
   }
   if (&other == this)
   {
      // Appending a name to itself: the separator added below would
      // otherwise show up in the appended copy as well.
      return append(DtFilename(other));
   }
   char const* text = textOf(*this);
   std::size_t const length = std::strlen(text);
   if (length > 0 && text[length - 1] != separator())
   {
      char const separatorText[] = {separator(), '\0'};
      *this += separatorText;
   }
   *this += textOf(other);
   return *this;
}

DtFilename& DtFilename::prepend(DtFilename const& other)
{
   if (absolute())
   {
      return *this;
   }
   DtFilename result(other);
   result.append(*this);
   *this = result;
   return *this;
}

DtString DtFilename::extension() const
{
   char const* text = textOf(*this);
   char const* lastSeparator = std::strrchr(text, separator());
   char const* component = lastSeparator ? lastSeparator + 1 : text;
   char const* dot = std::strrchr(component, '.');
   return dot ? DtString(dot + 1) : DtString();
}

DtFilename& DtFilename::setExtension(DtString const& extension)
{
   if (&extension == this)
   {
      // This name as its own extension: stripping and growing it below would
      // change, or free, the text being added.
      return setExtension(DtString(extension));
   }
   stripExtension();
   char const* text = textOf(extension);
   if (text[0] != '.')
   {
      *this += ".";
   }
   *this += text;
   return *this;
}

DtFilename& DtFilename::stripFilename()
{
   // The last component is measured with the static stripPath, which keeps a
   // leading separator: "/file" therefore loses its whole text.
   if (!c_str())
   {
      return *this;
   }
   int const componentLength = stripPath(*this).size();
   int const keep = size() - componentLength;
   (*this)[keep] = '\0';
   return *this;
}

DtFilename& DtFilename::stripPath()
{
   snipFront(separator(), true);
   return *this;
}

DtFilename& DtFilename::stripExtension()
{
   DtFilename const directory = stripFilename(*this);
   stripPath();
   snipBack('.', false);
   prepend(directory);
   return *this;
}

bool DtFilename::isWritable() const
{
   return exists() && access(textOf(*this), W_OK) == 0;
}

bool DtFilename::isReadable() const
{
   return exists() && access(textOf(*this), R_OK) == 0;
}

long DtFilename::fileLength() const
{
   if (!exists())
   {
      return 0;
   }
   struct stat status;
   if (stat(textOf(*this), &status) != 0)
   {
      return 0;
   }
   return static_cast<long>(status.st_size);
}

bool DtFilename::exists() const
{
   return access(textOf(*this), F_OK) == 0;
}

bool DtFilename::searchAlternatePath(char const* alternate)
{
   if (exists())
   {
      return true;
   }
   if (!alternate)
   {
      return false;
   }
   DtFilename candidate(*this);
   candidate.prepend(DtFilename(alternate));
   if (!candidate.exists())
   {
      return false;
   }
   *this = candidate;
   return true;
}

void DtFilename::replaceSlashes()
{
   if (!c_str())
   {
      return;
   }
   int const length = size();
   for (int i = 0; i < length; ++i)
   {
      if ((*this)[i] == '\\')
      {
         (*this)[i] = '/';
      }
   }
}

DtFilename DtFilename::stripFilename(DtFilename const& name)
{
   DtFilename result(name);
   result.stripFilename();
   return result;
}

DtFilename DtFilename::stripPath(DtFilename const& name)
{
   char const* text = textOf(name);
   char const* lastSeparator = std::strrchr(text, separator());
   // A separator at the very start is not taken as the end of a directory
   // part: "/file" is returned whole.
   if (!lastSeparator || lastSeparator == text)
   {
      return name;
   }
   return DtFilename(lastSeparator + 1);
}

DtFilename DtFilename::stripExtension(DtFilename const& name)
{
   DtFilename result(name);
   result.stripExtension();
   return result;
}

DtFilename DtFilename::combine(DtFilename const& directory, DtFilename const& name)
{
   if (name.absolute() || directory.isEmpty())
   {
      return name;
   }
   // Unlike append, the separator goes in even behind one that is there.
   DtFilename result(directory);
   char const separatorText[] = {separator(), '\0'};
   result += separatorText;
   result += textOf(name);
   return result;
}

bool DtFilename::absolutePath(DtString const& path, DtString& result)
{
   char const* text = textOf(path);
   if (access(text, F_OK) == 0)
   {
      if (char* resolved = realpath(text, nullptr))
      {
         result = resolved;
         std::free(resolved);
         return true;
      }
   }
   result = "";
   return false;
}

DtFilename const& DtFilename::nullFilename()
{
   static DtFilename const theNullFilename;
   return theNullFilename;
}

namespace
{
// Makes the shared empty name during start-up, before any thread of the
// application can ask for it.
DtFilename const& theStartupNullFilename = DtFilename::nullFilename();
}  // namespace

// ---------------------------------------------------------------- free functions

FILE* DtFileOpen(char const* name, char const* mode)
{
   return std::fopen(name, mode);
}

int DtFileClose(FILE* file)
{
   return file ? std::fclose(file) : EOF;
}

bool DtMakeDirectory(DtFilename const& path)
{
   // The text is cut in place at each separator, so that every parent is made
   // from the caller's own buffer, and the byte is restored at once.
   char* text = const_cast<char*>(path.c_str());
   // An empty name makes nothing; returning early also keeps the shared
   // nullFilename() from being written while other threads read it.
   if (!text || !*text)
   {
      return false;
   }
   bool madeAny = false;
   for (char* cursor = text;; ++cursor)
   {
      char const saved = *cursor;
      if (saved == '/' || saved == '\\' || saved == '\0')
      {
         *cursor = '\0';
         // A parent that exists already fails like any other: only the
         // overall result says whether anything was made.
         if (mkdir(text, 0750) == 0)
         {
            madeAny = true;
         }
         *cursor = saved;
      }
      if (saved == '\0')
      {
         break;
      }
   }
   return madeAny;
}

bool DtDeleteDirectory(DtFilename const& path)
{
   char const* directoryName = textOf(path);
   if (DIR* directory = opendir(directoryName))
   {
      while (struct dirent* entry = readdir(directory))
      {
         DtString entryPath(directoryName);
         entryPath += "/";
         entryPath += entry->d_name;
         // "." and ".." and subdirectories fail here and are left alone.
         unlink(entryPath.c_str());
      }
      closedir(directory);
   }
   return rmdir(directoryName) == 0;
}

DtFilename DtGetUserHomeDirectory()
{
   long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
   std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384);
   struct passwd entry;
   struct passwd* found = nullptr;
   int status;
   while ((status = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
          buffer.size() < (1U << 20))
   {
      buffer.resize(buffer.size() * 2);
   }
   if (status != 0 || !found || !found->pw_dir)
   {
      return DtFilename();
   }
   return DtFilename(found->pw_dir);
}

DtFilename DtGetQorUserConfigurationDirectory()
{
   DtFilename directory = DtGetUserHomeDirectory();
   directory += "/.qor";
   return directory;
}

DtFilename olfilename::qorLogDirectoryPath()
{
   DtFilename directory;
   if (char const* logDir = environmentValue("QOR_LOG_DIR"))
   {
      directory = logDir;
   }
   else if (char const* installDir = environmentValue("QOR_INSTALL_DIR"))
   {
      directory = installDir;
      directory.append("logs");
   }
   else if (char const* baseDir = environmentValue("QOR_BASE_DIR"))
   {
      directory = baseDir;
      directory.append("logs");
   }
   else
   {
      if (char const* home = environmentValue("HOME"))
      {
         directory = home;
      }
      else
      {
         // No HOME: the password database knows the home directory, and
         // failing that the logs go where anyone may write.
         directory = DtGetUserHomeDirectory();
         if (directory.isEmpty())
         {
            directory = DtGetTempDirectory();
         }
      }
      directory.append("QOR/logs");
   }
   return directory;
}

DtFilename DtGetQorLogDirectory()
{
   DtFilename directory = olfilename::qorLogDirectoryPath();
   if (!directory.exists())
   {
      DtMakeDirectory(directory);
   }
   return directory;
}

DtFilename DtGetTempDirectory()
{
   return DtFilename("/tmp/");
}

std::vector<DtFilename> DtGetFileListFromDirectory(DtString directory, DtString /*filter*/)
{
   std::vector<DtFilename> names;
   DIR* handle = opendir(textOf(directory));
   if (!handle)
   {
      return names;
   }
   while (struct dirent* entry = readdir(handle))
   {
      names.emplace_back(entry->d_name);
   }
   closedir(handle);
   return names;
}

DtFilename DtGetCwd()
{
   char buffer[4096];
   if (!getcwd(buffer, sizeof(buffer)))
   {
      return DtFilename();
   }
   return DtFilename(buffer);
}
