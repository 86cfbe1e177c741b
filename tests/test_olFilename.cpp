// Tests of file names, directories and the environment's directories.
#include <olutil/olFilename.h>

#include <algorithm>
#include <cstdlib>
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

bool isDirectory(std::string const& path)
{
   struct stat status;
   return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void writeFile(std::string const& path, std::string const& content)
{
   std::ofstream out(path, std::ios::binary);
   out << content;
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
   void TearDown() override
   {
      if (!myRoot.empty())
      {
         EXPECT_EQ(0, std::system(("rm -rf '" + myRoot + "'").c_str()));
      }
   }
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
      DtFilename stripped(name);
      stripped.stripPath();
      EXPECT_EQ(member, str(stripped));
      EXPECT_EQ(staticForm, str(DtFilename::stripPath(DtFilename(name))));
      DtFilename directory(name);
      directory.stripFilename();
      EXPECT_EQ(noFile, str(directory));
      EXPECT_EQ(noFile, str(DtFilename::stripFilename(DtFilename(name))));
   }
}

TEST(FilenamePathRules, Extensions)
{
   // name, extension(), stripExtension() (both forms), setExtension("txt").
   // The directory part comes from the static forms, which see none in
   // "/file.log": the leading separator goes with it.
   std::tuple<char const*, char const*, char const*, char const*> const cases[] = {
       {"a/b.log", "log", "a/b", "a/b.txt"},     {"a.b/c", "", "a.b/c", "a.b/c.txt"},
       {"a.tar.gz", "gz", "a.tar", "a.tar.txt"}, {".hidden", "hidden", "", ".txt"},
       {"dir.d/", "", "dir.d/", "dir.d/.txt"},   {"", "", "", ".txt"},
       {"/file.log", "log", "file", "file.txt"}};
   for (auto const& [name, extension, stripped, renamed] : cases)
   {
      SCOPED_TRACE(name);
      EXPECT_EQ(extension, str(DtFilename(name).extension()));
      DtFilename member(name);
      member.stripExtension();
      EXPECT_EQ(stripped, str(member));
      EXPECT_EQ(stripped, str(DtFilename::stripExtension(DtFilename(name))));
      DtFilename withTxt(name);
      withTxt.setExtension("txt");
      EXPECT_EQ(renamed, str(withTxt));
   }
   DtFilename dotted("a.log");
   dotted.setExtension(".txt");
   EXPECT_EQ("a.txt", str(dotted));
   dotted.setExtension("");
   EXPECT_EQ("a.", str(dotted)) << "the dot goes in even for no extension";
}

TEST(FilenamePathRules, AppendPrependAndCombine)
{
   // left, right, left.append(right), right.prepend(left), combine(left, right)
   std::tuple<char const*, char const*, char const*, char const*, char const*> const cases[] = {
       {"/a", "/x", "/x", "/x", "/x"},
       {"/a/", "x", "/a/x", "/a/x", "/a//x"},  // combine adds a separator even after one
       {"", "x", "x", "x", "x"},
       {"a", "", "a/", "a/", "a/"},
       {"a/b", "c/d", "a/b/c/d", "a/b/c/d", "a/b/c/d"}};
   for (auto const& [left, right, append, prepend, combine] : cases)
   {
      SCOPED_TRACE(::testing::Message() << "'" << left << "' and '" << right << "'");
      DtFilename appended(left);
      appended.append(DtFilename(right));
      EXPECT_EQ(append, str(appended));
      DtFilename prepended(right);
      prepended.prepend(DtFilename(left));
      EXPECT_EQ(prepend, str(prepended));
      EXPECT_EQ(combine, str(DtFilename::combine(DtFilename(left), DtFilename(right))));
   }

   DtFilename name("a");
   name.append(name);
   EXPECT_EQ("a/a", str(name));
   name.prepend(name);
   EXPECT_EQ("a/a/a/a", str(name));
}

TEST(FilenameValue, AbsoluteSlashesAndClone)
{
   EXPECT_TRUE(DtFilename("/").absolute());
   EXPECT_TRUE(DtFilename("").relative());

   DtFilename name("C:\\dir\\sub/file.txt");
   name.replaceSlashes();
   EXPECT_EQ("C:/dir/sub/file.txt", str(name));

   DtString const& asString = name;
   std::unique_ptr<DtString> cloned(asString.clone());
   ASSERT_NE(nullptr, dynamic_cast<DtFilename*>(cloned.get())) << "clone keeps the type";
   EXPECT_EQ("C:/dir/sub/file.txt", str(*cloned));
}

// ---------------------------------------------------------------- the file system

TEST_F(TempDir, ExistenceAccessAndLength)
{
   writeFile(path("five.txt"), "12345");
   DtFilename const file = at("five.txt");
   EXPECT_TRUE(file.exists() && file.isReadable() && file.isWritable());
   EXPECT_EQ(5, file.fileLength());

   DtFilename const missing = at("missing");
   EXPECT_FALSE(missing.exists() || missing.isReadable() || missing.isWritable());
   EXPECT_EQ(0, missing.fileLength());
   EXPECT_FALSE(DtFilename().exists());
}

TEST_F(TempDir, SearchAlternatePathAndAbsolutePath)
{
   ASSERT_EQ(0, mkdir(path("sub").c_str(), 0700));
   writeFile(path("sub/found.txt"), "x");
   std::string const unlikelyHere = "sub/found.txt";
   ASSERT_FALSE(DtFilename(unlikelyHere.c_str()).exists()) << "the working directory has it";

   DtFilename name(unlikelyHere.c_str());
   EXPECT_FALSE(name.searchAlternatePath(nullptr));
   EXPECT_EQ(unlikelyHere, str(name));
   EXPECT_TRUE(name.searchAlternatePath(myRoot.c_str()));
   EXPECT_EQ(path("sub/found.txt"), str(name));
   // An existing name stays as it is, whatever the alternate.
   EXPECT_TRUE(name.searchAlternatePath("/nowhere"));
   EXPECT_EQ(path("sub/found.txt"), str(name));

   DtFilename missing("sub/none.txt");
   EXPECT_FALSE(missing.searchAlternatePath(myRoot.c_str()));
   EXPECT_EQ("sub/none.txt", str(missing));

   char* real = realpath(path("sub/found.txt").c_str(), nullptr);
   ASSERT_NE(nullptr, real);
   std::string const expected = real;
   std::free(real);
   DtString result("stale");
   EXPECT_TRUE(DtFilename::absolutePath(at("sub/../sub/./found.txt"), result));
   EXPECT_EQ(expected, str(result));
   EXPECT_FALSE(DtFilename::absolutePath(at("sub/none"), result));
   EXPECT_EQ("", str(result));
}

TEST_F(TempDir, MakeDirectoryMakesParentsAndRestoresTheText)
{
   std::string const target = path("x/y/z");
   DtFilename const name(target.c_str());
   EXPECT_TRUE(DtMakeDirectory(name));
   EXPECT_EQ(target, str(name)) << "the text is put back after the in-place cuts";
   EXPECT_TRUE(isDirectory(path("x/y")));
   EXPECT_TRUE(isDirectory(target));

   // Everything exists already: no mkdir succeeds.
   EXPECT_FALSE(DtMakeDirectory(name));

   // A backslash marks a parent too.
   EXPECT_TRUE(DtMakeDirectory(at("x/b\\c")));
   EXPECT_TRUE(isDirectory(path("x/b")));

   struct stat status;
   ASSERT_EQ(0, stat(target.c_str(), &status));
   EXPECT_EQ(0u, status.st_mode & 0027) << "made with mode 0750 (less the umask)";

   EXPECT_FALSE(DtMakeDirectory(DtFilename()));
   writeFile(path("plain"), "x");
   EXPECT_FALSE(DtMakeDirectory(at("plain/sub")));
}

TEST_F(TempDir, DeleteDirectoryRemovesFilesButIsNotRecursive)
{
   ASSERT_EQ(0, mkdir(path("d").c_str(), 0700));
   writeFile(path("d/a"), "1");
   EXPECT_TRUE(DtDeleteDirectory(at("d")));
   EXPECT_FALSE(at("d").exists());
   EXPECT_FALSE(DtDeleteDirectory(at("d"))) << "gone already";

   ASSERT_EQ(0, mkdir(path("e").c_str(), 0700));
   ASSERT_EQ(0, mkdir(path("e/inner").c_str(), 0700));
   writeFile(path("e/file"), "x");
   EXPECT_FALSE(DtDeleteDirectory(at("e")));
   EXPECT_TRUE(isDirectory(path("e/inner")));
   EXPECT_FALSE(at("e/file").exists()) << "the files went all the same";
}

TEST_F(TempDir, FileListHoldsEveryEntry)
{
   writeFile(path("a"), "");
   writeFile(path("b.txt"), "");
   ASSERT_EQ(0, mkdir(path("c").c_str(), 0700));

   std::vector<std::string> names;
   for (DtFilename const& f : DtGetFileListFromDirectory(DtString(myRoot.c_str()), "*.txt"))
      names.push_back(str(f));
   std::sort(names.begin(), names.end());
   EXPECT_EQ((std::vector<std::string>{".", "..", "a", "b.txt", "c"}), names)
       << "the filter is not consulted";

   EXPECT_TRUE(DtGetFileListFromDirectory(at("none"), DtString()).empty());
}

TEST(FilenameDirectories, ConfigurationDirectoryIsUnderTheHome)
{
   struct passwd* entry = getpwuid(getuid());
   ASSERT_NE(nullptr, entry);
   EXPECT_EQ(std::string(entry->pw_dir) + "/.qor", str(DtGetQorUserConfigurationDirectory()));
}

// ---------------------------------------------------------------- the log directory

namespace
{
char const* const theLogVariables[] = {"HOME", "QOR_LOG_DIR", "QOR_INSTALL_DIR", "QOR_BASE_DIR"};

// Saves the four variables, clears them for the test and restores them after.
class LogDirectory : public TempDir
{
protected:
   void SetUp() override
   {
      TempDir::SetUp();
      for (char const* variable : theLogVariables)
      {
         char const* value = std::getenv(variable);
         mySaved.emplace_back(value ? std::optional<std::string>(value) : std::nullopt);
         unsetenv(variable);
      }
   }
   void TearDown() override
   {
      for (std::size_t i = 0; i < mySaved.size(); ++i)
      {
         if (mySaved[i])
            setenv(theLogVariables[i], mySaved[i]->c_str(), 1);
         else
            unsetenv(theLogVariables[i]);
      }
      TempDir::TearDown();
   }

   std::vector<std::optional<std::string>> mySaved;
};
}  // namespace

TEST_F(LogDirectory, Precedence)
{
   // HOME, QOR_LOG_DIR, QOR_INSTALL_DIR, QOR_BASE_DIR (relative to the
   // temporary directory, or null for unset), then the expected directory.
   std::tuple<char const*, char const*, char const*, char const*, char const*> const cases[] = {
       {"home", nullptr, nullptr, nullptr, "home/QOR/logs"},
       {"home2/", nullptr, nullptr, nullptr, "home2/QOR/logs"},
       {"home", nullptr, nullptr, "base", "base/logs"},
       {"home", nullptr, "install", "base", "install/logs"},
       {"home", "log", "install", "base", "log"},
       {"home3", "", "", "base3", "base3/logs"}};  // empty counts as unset
   for (auto const& c : cases)
   {
      SCOPED_TRACE(std::get<4>(c));
      char const* const values[] = {std::get<0>(c), std::get<1>(c), std::get<2>(c), std::get<3>(c)};
      for (std::size_t i = 0; i < 4; ++i)
      {
         if (values[i])
            setenv(theLogVariables[i], *values[i] ? path(values[i]).c_str() : "", 1);
         else
            unsetenv(theLogVariables[i]);
      }
      EXPECT_EQ(path(std::get<4>(c)), str(DtGetQorLogDirectory()));
      EXPECT_TRUE(isDirectory(path(std::get<4>(c)))) << "made when missing";
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
