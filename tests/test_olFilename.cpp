// Tests of file names, directories and the environment's directories.
#include <olutil/olFilename.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <pwd.h>
#include <string>
#include <tuple>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace
{
std::string str(DtString const& s)
{
   return s.c_str() ? s.c_str() : "";
}

// The text of `name` after an edit in place.
template <typename Edit>
std::string edited(char const* name, Edit edit)
{
   DtFilename f(name);
   edit(f);
   return str(f);
}

// A fresh directory under /tmp, removed with all it holds at the end.
class TempDir : public ::testing::Test
{
protected:
   void SetUp() override
   {
      char pattern[] = "/tmp/olFilenameTest.XXXXXX";
      ASSERT_NE(nullptr, mkdtemp(pattern));
      myRoot = pattern;
   }
   void TearDown() override { std::filesystem::remove_all(myRoot); }
   bool isDirectory(std::string const& relative) const
   {
      return std::filesystem::is_directory(path(relative));
   }
   void writeFile(std::string const& relative) const { std::ofstream(path(relative)) << "x"; }
   std::string path(std::string const& relative) const { return myRoot + "/" + relative; }
   DtFilename at(std::string const& relative) const { return DtFilename(path(relative).c_str()); }

   std::string myRoot;
};
}  // namespace

// ---------------------------------------------------------------- path rules

TEST(FilenamePathRules, StripPathAndStripFilename)
{
   // name, member stripPath, static stripPath, stripFilename (both forms).
   // The static stripPath keeps "/file" whole, and stripFilename measures with
   // it, so "/file" loses all its text.
   // clang-format off
   std::tuple<char const*, char const*, char const*, char const*> const cases[] = {
       {"/file", "file", "/file", ""}, {"/", "", "/", ""}, {"/a/b.txt", "b.txt", "b.txt", "/a/"},
       {"//file", "file", "file", "//"}, {"file", "file", "file", ""}, {"a/", "", "", "a/"},
       {"", "", "", ""}};
   // clang-format on
   for (auto const& [name, member, staticForm, noFile] : cases)
   {
      SCOPED_TRACE(name);
      EXPECT_EQ(member, edited(name, [](DtFilename& f) { f.stripPath(); }));
      EXPECT_EQ(staticForm, str(DtFilename::stripPath(DtFilename(name))));
      EXPECT_EQ(noFile, edited(name, [](DtFilename& f) { f.stripFilename(); }));
      EXPECT_EQ(noFile, str(DtFilename::stripFilename(DtFilename(name))));
   }
}

TEST(FilenamePathRules, Extensions)
{
   // name, extension(), stripExtension() (both forms), setExtension("txt").
   // The directory part comes from the static forms, which see none in
   // "/file.log": the leading separator goes with it.
   std::tuple<char const*, char const*, char const*, char const*> const cases[] = {
       {"a.b/c", "", "a.b/c", "a.b/c.txt"},
       {"a.tar.gz", "gz", "a.tar", "a.tar.txt"},
       {".hidden", "hidden", "", ".txt"},
       {"dir.d/", "", "dir.d/", "dir.d/.txt"},
       {"/file.log", "log", "file", "file.txt"}};
   for (auto const& [name, extension, stripped, renamed] : cases)
   {
      SCOPED_TRACE(name);
      EXPECT_EQ(extension, str(DtFilename(name).extension()));
      EXPECT_EQ(stripped, edited(name, [](DtFilename& f) { f.stripExtension(); }));
      EXPECT_EQ(stripped, str(DtFilename::stripExtension(DtFilename(name))));
      EXPECT_EQ(renamed, edited(name, [](DtFilename& f) { f.setExtension("txt"); }));
   }
   EXPECT_EQ("a.txt", edited("a.log", [](DtFilename& f) { f.setExtension(".txt"); }));
   EXPECT_EQ("a.", edited("a.log", [](DtFilename& f) { f.setExtension(""); }))
       << "the dot goes in even for no extension";
}

TEST(FilenamePathRules, AppendPrependAndCombine)
{
   // left, right, left.append(right), right.prepend(left), combine(left, right)
   std::tuple<char const*, char const*, char const*, char const*, char const*> const cases[] = {
       {"/a", "/x", "/x", "/x", "/x"},
       {"/a/", "x", "/a/x", "/a/x", "/a//x"},  // combine adds a separator even after one
       {"", "x", "x", "x", "x"},
       {"a", "", "a/", "a/", "a/"}};
   for (auto const& [left, right, append, prepend, combine] : cases)
   {
      SCOPED_TRACE(::testing::Message() << "'" << left << "' and '" << right << "'");
      std::string const l = left, r = right;
      EXPECT_EQ(append, edited(left, [&](DtFilename& f) { f.append(DtFilename(r.c_str())); }));
      EXPECT_EQ(prepend, edited(right, [&](DtFilename& f) { f.prepend(DtFilename(l.c_str())); }));
      EXPECT_EQ(combine, str(DtFilename::combine(DtFilename(left), DtFilename(right))));
   }

   DtFilename name("a");
   name.append(name);
   name.prepend(name);
   EXPECT_EQ("a/a/a/a", str(name));
}

TEST(FilenameValue, AbsoluteSlashesCloneAndConfigurationDirectory)
{
   EXPECT_TRUE(DtFilename("/").absolute() && DtFilename("").relative());
   DtFilename name("C:\\dir\\sub/file.txt");
   name.replaceSlashes();
   DtString const& asString = name;
   std::unique_ptr<DtString> cloned(asString.clone());
   ASSERT_NE(nullptr, dynamic_cast<DtFilename*>(cloned.get())) << "clone keeps the type";
   EXPECT_EQ("C:/dir/sub/file.txt", str(*cloned));

   struct passwd* entry = getpwuid(getuid());
   ASSERT_NE(nullptr, entry);
   EXPECT_EQ(std::string(entry->pw_dir) + "/.qor", str(DtGetQorUserConfigurationDirectory()));
}

// ---------------------------------------------------------------- the file system

TEST_F(TempDir, ExistenceLengthSearchAlternatePathAndAbsolutePath)
{
   ASSERT_EQ(0, mkdir(path("sub").c_str(), 0700));
   std::ofstream(path("sub/five.txt")) << "12345";
   DtFilename const file = at("sub/five.txt");
   EXPECT_TRUE(file.exists() && file.isReadable() && file.isWritable());
   EXPECT_EQ(5, file.fileLength());
   DtFilename const missing = at("missing");
   EXPECT_FALSE(missing.exists() || missing.isReadable() || missing.isWritable() ||
                DtFilename().exists());
   EXPECT_EQ(0, missing.fileLength());

   std::string const relative = "sub/five.txt";
   ASSERT_FALSE(DtFilename(relative.c_str()).exists()) << "the working directory has it";
   DtFilename name(relative.c_str());
   EXPECT_FALSE(name.searchAlternatePath(nullptr));
   EXPECT_TRUE(name.searchAlternatePath(myRoot.c_str()));
   EXPECT_EQ(path(relative), str(name));
   // An existing name stays as it is, whatever the alternate.
   EXPECT_TRUE(name.searchAlternatePath("/nowhere"));
   EXPECT_EQ(path(relative), str(name));
   DtFilename none("sub/none.txt");
   EXPECT_FALSE(none.searchAlternatePath(myRoot.c_str()));
   EXPECT_EQ("sub/none.txt", str(none));

   std::string const real = std::filesystem::canonical(path(relative));
   DtString result("stale");
   EXPECT_TRUE(DtFilename::absolutePath(at("sub/../sub/./five.txt"), result));
   EXPECT_EQ(real, str(result));
   EXPECT_FALSE(DtFilename::absolutePath(at("sub/none"), result));
   EXPECT_EQ("", str(result));
}

TEST_F(TempDir, MakeDirectoryMakesParentsAndRestoresTheText)
{
   std::string const target = path("x/y/z");
   DtFilename const name(target.c_str());
   EXPECT_TRUE(DtMakeDirectory(name));
   EXPECT_EQ(target, str(name)) << "the text is put back after the in-place cuts";
   EXPECT_TRUE(isDirectory("x/y/z"));
   EXPECT_FALSE(DtMakeDirectory(name)) << "everything exists already: no mkdir succeeds";
   EXPECT_TRUE(DtMakeDirectory(at("x/b\\c")));
   EXPECT_TRUE(isDirectory("x/b")) << "a backslash marks a parent too";
   struct stat status;
   ASSERT_EQ(0, stat(target.c_str(), &status));
   EXPECT_EQ(0u, status.st_mode & 0027) << "made with mode 0750 (less the umask)";

   EXPECT_FALSE(DtMakeDirectory(DtFilename()));
   writeFile("plain");
   EXPECT_FALSE(DtMakeDirectory(at("plain/sub")));
}

TEST_F(TempDir, DeleteDirectoryRemovesFilesButIsNotRecursive)
{
   ASSERT_EQ(0, mkdir(path("d").c_str(), 0700));
   writeFile("d/a");
   EXPECT_TRUE(DtDeleteDirectory(at("d")));
   EXPECT_FALSE(at("d").exists());

   ASSERT_EQ(0, mkdir(path("e").c_str(), 0700));
   ASSERT_EQ(0, mkdir(path("e/inner").c_str(), 0700));
   writeFile("e/file");
   EXPECT_FALSE(DtDeleteDirectory(at("e")));
   EXPECT_TRUE(isDirectory("e/inner"));
   EXPECT_FALSE(at("e/file").exists()) << "the files went all the same";
}

TEST_F(TempDir, FileListHoldsEveryEntry)
{
   writeFile("b.txt");
   ASSERT_EQ(0, mkdir(path("c").c_str(), 0700));
   std::vector<std::string> names;
   for (DtFilename const& f : DtGetFileListFromDirectory(DtString(myRoot.c_str()), "*.txt"))
      names.push_back(str(f));
   std::sort(names.begin(), names.end());
   EXPECT_EQ((std::vector<std::string>{".", "..", "b.txt", "c"}), names)
       << "the filter is not consulted";
   EXPECT_TRUE(DtGetFileListFromDirectory(at("none"), DtString()).empty());
}

// ---------------------------------------------------------------- the log directory

namespace
{
char const* const theLogVariables[] = {"HOME", "QOR_LOG_DIR", "QOR_INSTALL_DIR", "QOR_BASE_DIR"};

// Clears the four variables for the test and restores them after.
class LogDirectory : public TempDir
{
protected:
   void SetUp() override
   {
      TempDir::SetUp();
      for (int i = 0; i < 4; ++i)
      {
         char const* value = std::getenv(theLogVariables[i]);
         mySaved[i] = value ? std::optional<std::string>(value) : std::nullopt;
         unsetenv(theLogVariables[i]);
      }
   }
   void TearDown() override
   {
      for (int i = 0; i < 4; ++i)
         set(i, mySaved[i] ? mySaved[i]->c_str() : nullptr);
      TempDir::TearDown();
   }
   void set(int i, char const* value)
   {
      value ? setenv(theLogVariables[i], value, 1) : unsetenv(theLogVariables[i]);
   }
   std::optional<std::string> mySaved[4];
};
}  // namespace

TEST_F(LogDirectory, Precedence)
{
   // HOME, QOR_LOG_DIR, QOR_INSTALL_DIR, QOR_BASE_DIR (relative to the
   // temporary directory, or null for unset), then the expected directory.
   struct
   {
      char const* values[4];
      char const* expected;
   } const cases[] = {{{"home", nullptr, nullptr, nullptr}, "home/QOR/logs"},
                      {{"home2/", nullptr, nullptr, nullptr}, "home2/QOR/logs"},
                      {{"home", nullptr, nullptr, "base"}, "base/logs"},
                      {{"home", nullptr, "install", "base"}, "install/logs"},
                      {{"home", "log", "install", "base"}, "log"},
                      {{"home3", "", "", "base3"}, "base3/logs"}};  // empty counts as unset
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.expected);
      for (int i = 0; i < 4; ++i)
         set(i, !c.values[i] ? nullptr : *c.values[i] ? path(c.values[i]).c_str() : "");
      EXPECT_EQ(path(c.expected), str(DtGetQorLogDirectory()));
      EXPECT_TRUE(isDirectory(c.expected)) << "made when missing";
   }
}

TEST_F(LogDirectory, WithoutTheVariablesThePasswordDatabaseHasTheHome)
{
   if (geteuid() != 0)
      GTEST_SKIP() << "needs root to run a child as another user";
   // A child running as "nobody", whose home directory doesn't exist and can't
   // be made, shows the fallback without making anything in a real home.
   struct passwd* nobody = getpwnam("nobody");
   if (!nobody || !nobody->pw_dir || DtFilename(nobody->pw_dir).exists())
      GTEST_SKIP() << "no user \"nobody\" with a missing home directory";
   std::string const expected = std::string(nobody->pw_dir) + "/QOR/logs";
   uid_t const uid = nobody->pw_uid;
   gid_t const gid = nobody->pw_gid;

   pid_t const child = fork();
   ASSERT_NE(-1, child);
   if (child == 0)
   {
      alarm(30);  // the child never outlives a hung look-up
      if (setgid(gid) != 0 || setuid(uid) != 0)
         _exit(2);
      _exit(str(DtGetQorLogDirectory()) == expected ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(child, waitpid(child, &status, 0));
   ASSERT_TRUE(WIFEXITED(status)) << "the child did not finish";
   EXPECT_EQ(0, WEXITSTATUS(status)) << "1: wrong directory, 2: could not change user";
   EXPECT_FALSE(DtFilename(expected.c_str()).exists());
}
