// Tests of file names, directories and the environment's directories.
#include <olutil/olFilename.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <pwd.h>
#include <string>
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
         std::string const command = "rm -rf '" + myRoot + "'";
         EXPECT_EQ(0, std::system(command.c_str()));
      }
   }
   std::string path(std::string const& relative) const { return myRoot + "/" + relative; }

   std::string myRoot;
};
}  // namespace

// ---------------------------------------------------------------- path rules

TEST(FilenamePathRules, StripPathStaticAndMemberDiffer)
{
   struct Case
   {
      char const* name;
      char const* member;
      char const* staticForm;
   };
   Case const cases[] = {
       {"/file", "file", "/file"},  // the one place where the two differ
       {"/", "", "/"},
       {"/a/b.txt", "b.txt", "b.txt"},
       {"//file", "file", "file"},
       {"file", "file", "file"},
       {"a/", "", ""},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.name);
      DtFilename member(c.name);
      member.stripPath();
      EXPECT_EQ(c.member, str(member));
      EXPECT_EQ(c.staticForm, str(DtFilename::stripPath(DtFilename(c.name))));
   }
}

TEST(FilenamePathRules, StripFilenameMeasuresWithTheStaticStripPath)
{
   struct Case
   {
      char const* name;
      char const* expected;
   };
   Case const cases[] = {
       // "/file" loses all its text: the static stripPath keeps it whole.
       {"/a/b.txt", "/a/"}, {"a/", "a/"}, {"file", ""}, {"/file", ""}, {"", ""}, {"//file", "//"},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.name);
      DtFilename member(c.name);
      member.stripFilename();
      EXPECT_EQ(c.expected, str(member));
      EXPECT_EQ(c.expected, str(DtFilename::stripFilename(DtFilename(c.name))));
   }
}

TEST(FilenamePathRules, ExtensionAndStripExtension)
{
   struct Case
   {
      char const* name;
      char const* extension;
      char const* stripped;
   };
   Case const cases[] = {
       {"a/b.txt", "txt", "a/b"},
       {"a.b/c", "", "a.b/c"},  // a dot in the directory part is no extension
       {"a.tar.gz", "gz", "a.tar"},
       {".hidden", "hidden", ""},
       {"dir.d/", "", "dir.d/"},
       {"", "", ""},
       // The directory part is taken with the static forms, which see no
       // directory in "/file.txt": the leading separator goes with it.
       {"/file.txt", "txt", "file"},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.name);
      EXPECT_EQ(c.extension, str(DtFilename(c.name).extension()));
      DtFilename member(c.name);
      member.stripExtension();
      EXPECT_EQ(c.stripped, str(member));
      EXPECT_EQ(c.stripped, str(DtFilename::stripExtension(DtFilename(c.name))));
   }
}

TEST(FilenamePathRules, SetExtension)
{
   struct Case
   {
      char const* name;
      char const* extension;
      char const* expected;
   };
   Case const cases[] = {
       {"a.log", "txt", "a.txt"},
       {"a.log", ".txt", "a.txt"},
       {"a.b/c", "d", "a.b/c.d"},
       {"a.txt", "", "a."},               // the dot goes in even for no extension
       {"/file.log", "txt", "file.txt"},  // through stripExtension's static forms
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(::testing::Message() << c.name << " + " << c.extension);
      DtFilename name(c.name);
      name.setExtension(c.extension);
      EXPECT_EQ(c.expected, str(name));
   }
}

TEST(FilenamePathRules, AppendPrependAndCombine)
{
   struct Case
   {
      char const* left;
      char const* right;
      char const* append;   // left.append(right)
      char const* prepend;  // right.prepend(left)
      char const* combine;  // combine(left, right)
   };
   Case const cases[] = {
       {"/a", "/x", "/x", "/x", "/x"},
       {"/a/", "x", "/a/x", "/a/x", "/a//x"},  // combine adds a separator even after one
       {"", "x", "x", "x", "x"},
       {"a", "", "a/", "a/", "a/"},
       {"a/b", "c/d", "a/b/c/d", "a/b/c/d", "a/b/c/d"},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(::testing::Message() << "'" << c.left << "' and '" << c.right << "'");
      DtFilename appended(c.left);
      appended.append(DtFilename(c.right));
      EXPECT_EQ(c.append, str(appended));

      DtFilename prepended(c.right);
      prepended.prepend(DtFilename(c.left));
      EXPECT_EQ(c.prepend, str(prepended));

      EXPECT_EQ(c.combine, str(DtFilename::combine(DtFilename(c.left), DtFilename(c.right))));
   }
}

TEST(FilenamePathRules, AppendingANameToItself)
{
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
   EXPECT_TRUE(DtFilename::nullFilename().isEmpty());
}

// ---------------------------------------------------------------- the file system

TEST_F(TempDir, ExistenceAccessAndLength)
{
   writeFile(path("five.txt"), "12345");
   DtFilename file(path("five.txt").c_str());
   EXPECT_TRUE(file.exists());
   EXPECT_TRUE(file.isReadable());
   EXPECT_TRUE(file.isWritable());
   EXPECT_EQ(5, file.fileLength());

   DtFilename missing(path("missing").c_str());
   EXPECT_FALSE(missing.exists());
   EXPECT_FALSE(missing.isReadable());
   EXPECT_FALSE(missing.isWritable());
   EXPECT_EQ(0, missing.fileLength());
   EXPECT_FALSE(DtFilename().exists());
}

TEST_F(TempDir, SearchAlternatePath)
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
}

TEST_F(TempDir, AbsolutePath)
{
   ASSERT_EQ(0, mkdir(path("sub").c_str(), 0700));
   writeFile(path("sub/f"), "x");
   char* real = realpath(path("sub/f").c_str(), nullptr);
   ASSERT_NE(nullptr, real);
   std::string const expected = real;
   std::free(real);

   DtString result("stale");
   EXPECT_TRUE(DtFilename::absolutePath(DtString(path("sub/../sub/./f").c_str()), result));
   EXPECT_EQ(expected, str(result));

   EXPECT_FALSE(DtFilename::absolutePath(DtString(path("sub/none").c_str()), result));
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
   EXPECT_TRUE(DtMakeDirectory(DtFilename(path("x/b\\c").c_str())));
   EXPECT_TRUE(isDirectory(path("x/b")));

   struct stat status;
   ASSERT_EQ(0, stat(target.c_str(), &status));
   EXPECT_EQ(0u, status.st_mode & 0027) << "made with mode 0750 (less the umask)";

   EXPECT_FALSE(DtMakeDirectory(DtFilename()));
   writeFile(path("plain"), "x");
   EXPECT_FALSE(DtMakeDirectory(DtFilename(path("plain/sub").c_str())));
}

TEST_F(TempDir, DeleteDirectoryRemovesFilesButIsNotRecursive)
{
   ASSERT_EQ(0, mkdir(path("d").c_str(), 0700));
   writeFile(path("d/a"), "1");
   EXPECT_TRUE(DtDeleteDirectory(DtFilename(path("d").c_str())));
   EXPECT_FALSE(DtFilename(path("d").c_str()).exists());
   EXPECT_FALSE(DtDeleteDirectory(DtFilename(path("d").c_str()))) << "gone already";

   ASSERT_EQ(0, mkdir(path("e").c_str(), 0700));
   ASSERT_EQ(0, mkdir(path("e/inner").c_str(), 0700));
   writeFile(path("e/file"), "x");
   EXPECT_FALSE(DtDeleteDirectory(DtFilename(path("e").c_str())));
   EXPECT_TRUE(isDirectory(path("e/inner")));
   EXPECT_FALSE(DtFilename(path("e/file").c_str()).exists()) << "the files went all the same";
}

TEST_F(TempDir, FileListHoldsEveryEntry)
{
   writeFile(path("a"), "");
   writeFile(path("b.txt"), "");
   ASSERT_EQ(0, mkdir(path("c").c_str(), 0700));

   std::vector<std::string> names;
   for (DtFilename const& f : DtGetFileListFromDirectory(DtString(myRoot.c_str()), "*.txt"))
   {
      names.push_back(str(f));
   }
   std::sort(names.begin(), names.end());
   EXPECT_EQ((std::vector<std::string>{".", "..", "a", "b.txt", "c"}), names)
       << "the filter is not consulted";

   EXPECT_TRUE(DtGetFileListFromDirectory(DtString(path("none").c_str()), DtString()).empty());
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
         {
            setenv(theLogVariables[i], mySaved[i]->c_str(), 1);
         }
         else
         {
            unsetenv(theLogVariables[i]);
         }
      }
      TempDir::TearDown();
   }

   std::vector<std::optional<std::string>> mySaved;
};
}  // namespace

TEST_F(LogDirectory, Precedence)
{
   struct Case
   {
      char const* label;
      char const* home;  // relative to the temporary directory, or null
      char const* logDir;
      char const* installDir;
      char const* baseDir;
      char const* expected;  // relative to the temporary directory
   };
   Case const cases[] = {
       {"home only", "home", nullptr, nullptr, nullptr, "home/QOR/logs"},
       {"home with a separator", "home2/", nullptr, nullptr, nullptr, "home2/QOR/logs"},
       {"base over home", "home", nullptr, nullptr, "base", "base/logs"},
       {"install over base", "home", nullptr, "install", "base", "install/logs"},
       {"log dir over all", "home", "log", "install", "base", "log"},
       {"empty counts as unset", "home3", "", "", "base3", "base3/logs"},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.label);
      auto set = [this](char const* variable, char const* relative)
      {
         if (!relative)
         {
            unsetenv(variable);
         }
         else
         {
            setenv(variable, *relative ? path(relative).c_str() : "", 1);
         }
      };
      set("HOME", c.home);
      set("QOR_LOG_DIR", c.logDir);
      set("QOR_INSTALL_DIR", c.installDir);
      set("QOR_BASE_DIR", c.baseDir);

      EXPECT_EQ(path(c.expected), str(DtGetQorLogDirectory()));
      EXPECT_TRUE(isDirectory(path(c.expected))) << "made when missing";
   }
}

TEST_F(LogDirectory, WithoutTheVariablesThePasswordDatabaseHasTheHome)
{
   if (geteuid() != 0)
   {
      GTEST_SKIP() << "needs root to run a child as another user";
   }
   // A child running as "nobody", whose home directory doesn't exist and can't
   // be made, shows the fallback without making anything in a real home.
   struct passwd* nobody = getpwnam("nobody");
   if (!nobody || !nobody->pw_dir || DtFilename(nobody->pw_dir).exists())
   {
      GTEST_SKIP() << "no user \"nobody\" with a missing home directory";
   }
   std::string const expected = std::string(nobody->pw_dir) + "/QOR/logs";
   uid_t const uid = nobody->pw_uid;
   gid_t const gid = nobody->pw_gid;

   pid_t const child = fork();
   ASSERT_NE(-1, child);
   if (child == 0)
   {
      alarm(30);  // the child never outlives a hung look-up
      int status = 2;
      if (setgid(gid) == 0 && setuid(uid) == 0)
      {
         status = str(DtGetQorLogDirectory()) == expected ? 0 : 1;
      }
      _exit(status);
   }
   int status = 0;
   ASSERT_EQ(child, waitpid(child, &status, 0));
   ASSERT_TRUE(WIFEXITED(status)) << "the child did not finish";
   EXPECT_EQ(0, WEXITSTATUS(status)) << "1: wrong directory, 2: could not change user";
   EXPECT_FALSE(DtFilename(expected.c_str()).exists());
}
