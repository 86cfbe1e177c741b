// Tests of file names, directories and the environment's directories.
#include <olutil/olFilename.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{
// The text of `name` after an edit in place.
template <typename Edit>
std::string edited(char const* name, Edit edit)
{
   DtFilename f(name);
   edit(f);
   return f.stdString();
}

// A fresh directory under /tmp, removed with all it holds at the end.
class TempDir : public ::testing::Test
{
protected:
   TempDir() { std::filesystem::create_directories(myRoot); }
   ~TempDir() override { std::filesystem::remove_all(myRoot); }
   bool isDirectory(std::string const& r) const { return std::filesystem::is_directory(path(r)); }
   std::string path(std::string const& relative) const { return myRoot + "/" + relative; }
   DtFilename at(std::string const& relative) const { return DtFilename(path(relative).c_str()); }

   std::string const myRoot = "/tmp/olFilenameTest." + std::to_string(getpid());
};
}  // namespace

TEST(FilenamePathRules, StripPathAndStripFilename)
{
   // name, member and static stripPath, stripFilename (which measures with the static one).
   // clang-format off
   std::tuple<char const*, char const*, char const*, char const*> const cases[] = {
       {"/file", "file", "/file", ""}, {"/", "", "/", ""}, {"/a/b.txt", "b.txt", "b.txt", "/a/"},
       {"//file", "file", "file", "//"}, {"file", "file", "file", ""}, {"a/", "", "", "a/"}};
   // clang-format on
   for (auto const& [name, member, staticForm, noFile] : cases)
   {
      SCOPED_TRACE(name);
      EXPECT_EQ(member, edited(name, [](DtFilename& f) { f.stripPath(); }));
      EXPECT_EQ(staticForm, DtFilename::stripPath(DtFilename(name)).stdString());
      EXPECT_EQ(noFile, edited(name, [](DtFilename& f) { f.stripFilename(); }));
      EXPECT_EQ(noFile, DtFilename::stripFilename(DtFilename(name)).stdString());
   }
}

TEST(FilenamePathRules, Extensions)
{
   // name, extension, stripExtension (both forms; "/file.log" loses its "/"), setExtension.
   // clang-format off
   std::tuple<char const*, char const*, char const*, char const*> const cases[] = {
       {"a.b/c", "", "a.b/c", "a.b/c.txt"}, {"a.tar.gz", "gz", "a.tar", "a.tar.txt"},
       {".hidden", "hidden", "", ".txt"},   {"/file.log", "log", "file", "file.txt"}};
   // clang-format on
   for (auto const& [name, extension, stripped, renamed] : cases)
   {
      SCOPED_TRACE(name);
      EXPECT_EQ(extension, DtFilename(name).extension().stdString());
      EXPECT_EQ(stripped, edited(name, [](DtFilename& f) { f.stripExtension(); }));
      EXPECT_EQ(stripped, DtFilename::stripExtension(DtFilename(name)).stdString());
      EXPECT_EQ(renamed, edited(name, [](DtFilename& f) { f.setExtension("txt"); }));
   }
   EXPECT_EQ("a.txt", edited("a.log", [](DtFilename& f) { f.setExtension(".txt"); }));
   EXPECT_EQ("a.", edited("a.log", [](DtFilename& f) { f.setExtension(""); }));
}

TEST(FilenamePathRules, AppendPrependAndCombine)
{
   // left, right, left.append(right), right.prepend(left), combine (which doubles a "/").
   // clang-format off
   std::tuple<char const*, char const*, char const*, char const*, char const*> const cases[] = {
       {"/a", "/x", "/x", "/x", "/x"}, {"/a/", "x", "/a/x", "/a/x", "/a//x"},
       {"", "x", "x", "x", "x"},       {"a", "", "a/", "a/", "a/"}};
   // clang-format on
   for (auto const& [left, right, append, prepend, combine] : cases)
   {
      SCOPED_TRACE(::testing::Message() << "'" << left << "' and '" << right << "'");
      EXPECT_EQ(append, edited(left, [r = right](DtFilename& f) { f.append(DtFilename(r)); }));
      EXPECT_EQ(prepend, edited(right, [l = left](DtFilename& f) { f.prepend(DtFilename(l)); }));
      EXPECT_EQ(combine, DtFilename::combine(DtFilename(left), DtFilename(right)).stdString());
   }
   DtFilename name("a");
   name.append(name);
   name.prepend(name);
   EXPECT_EQ("a/a/a/a", name.stdString());
}

// Every operation that takes a name or text must give the same result when that
// argument is the name itself, or lies inside its buffer, as when it is a
// separate copy. The 64-character name without a dot is the one whose growth by
// "." frees the buffer an aliased extension still points into.
TEST(FilenameAliasing, ArgumentsFromTheNameItselfActAsCopies)
{
   typedef std::function<std::string(DtFilename & target, DtFilename const& argument)> Edit;
   auto middle = [](DtFilename const& f) { return f.c_str() + f.size() / 2; };
   auto done = [](DtFilename const& f) { return f.stdString(); };
   // clang-format off
   std::vector<std::pair<char const*, Edit>> const edits = {
       {"setExtension",        [&](DtFilename& t, DtFilename const& a) { return done(t.setExtension(a)); }},
       {"setExtension middle", [&](DtFilename& t, DtFilename const& a) { return done(t.setExtension(middle(a))); }},
       {"append",              [&](DtFilename& t, DtFilename const& a) { return done(t.append(a)); }},
       {"append middle",       [&](DtFilename& t, DtFilename const& a) { return done(t.append(middle(a))); }},
       {"prepend",             [&](DtFilename& t, DtFilename const& a) { return done(t.prepend(a)); }},
       {"prepend middle",      [&](DtFilename& t, DtFilename const& a) { return done(t.prepend(middle(a))); }},
       {"= name",              [&](DtFilename& t, DtFilename const& a) { return done(t = a); }},
       {"= string",            [&](DtFilename& t, DtFilename const& a) { return done(t = static_cast<DtString const&>(a)); }},
       {"= middle",            [&](DtFilename& t, DtFilename const& a) { return done(t = middle(a)); }},
       {"+= name",             [&](DtFilename& t, DtFilename const& a) { t += a; return done(t); }},
       {"combine",             [&](DtFilename&, DtFilename const& a) { return done(DtFilename::combine(a, a)); }},
       {"searchAlternatePath", [&](DtFilename& t, DtFilename const& a)
                               { return std::to_string(t.searchAlternatePath(middle(a))) + done(t); }},
       {"absolutePath",        [&](DtFilename& t, DtFilename const& a)
                               {
                                  DtFilename copy(a);
                                  DtFilename const& path = &t == &a ? t : copy;
                                  return std::to_string(DtFilename::absolutePath(path, t)) + done(t);
                               }},
   };
   // clang-format on
   std::string const long64(64, 'n');
   std::string const long200 = "/tmp/" + std::string(100, 'd') + ".d/" + std::string(90, 'e');
   for (char const* start :
        {"", "/", "a", "a.b", "dir.d/name", "/tmp", long64.c_str(), long200.c_str()})
   {
      for (auto const& [name, edit] : edits)
      {
         SCOPED_TRACE(std::string(name) + " on " + std::to_string(std::strlen(start)) + " bytes");
         DtFilename separate(start), argument(start), aliased(start);
         std::string const expected = edit(separate, argument);
         EXPECT_EQ(expected, edit(aliased, aliased));
      }
   }
   // The extension added is the whole name as it was before the call.
   DtFilename name(long64.c_str());
   EXPECT_EQ(long64 + "." + long64, name.setExtension(name).stdString());
}

TEST(FilenameValue, AbsoluteSlashesCloneAndConfigurationDirectory)
{
   EXPECT_TRUE(DtFilename("/").absolute() && DtFilename("").relative());
   DtFilename name("C:\\dir\\sub/file.txt");
   name.replaceSlashes();
   std::unique_ptr<DtString> cloned(static_cast<DtString const&>(name).clone());
   ASSERT_NE(nullptr, dynamic_cast<DtFilename*>(cloned.get())) << "clone keeps the type";
   EXPECT_EQ("C:/dir/sub/file.txt", cloned->stdString());
   passwd const* user = getpwuid(getuid());
   ASSERT_NE(nullptr, user) << "no password entry for this user";
   EXPECT_EQ(std::string(user->pw_dir) + "/.qor", DtGetQorUserConfigurationDirectory().stdString());
}

TEST_F(TempDir, ExistenceLengthSearchAlternatePathAndAbsolutePath)
{
   ASSERT_EQ(0, mkdir(path("sub").c_str(), 0700));
   std::ofstream(path("sub/five.txt")) << "12345";
   DtFilename const file = at("sub/five.txt"), missing = at("missing");
   EXPECT_TRUE(file.exists() && file.isReadable() && file.isWritable());
   EXPECT_FALSE(missing.exists() || missing.isReadable() || missing.isWritable());
   EXPECT_TRUE(file.fileLength() == 5 && missing.fileLength() == 0);

   // A name found under the alternate takes it on; an existing one stays as it is.
   ASSERT_FALSE(DtFilename("sub/five.txt").exists()) << "the working directory has it";
   DtFilename name("sub/five.txt"), none("sub/none.txt");
   EXPECT_FALSE(name.searchAlternatePath(nullptr));
   EXPECT_TRUE(name.searchAlternatePath(myRoot.c_str()) && name.searchAlternatePath("/nowhere"));
   EXPECT_EQ(path("sub/five.txt"), name.stdString());
   EXPECT_TRUE(!none.searchAlternatePath(myRoot.c_str()) && none == "sub/none.txt");

   DtString result("stale");
   EXPECT_TRUE(DtFilename::absolutePath(at("sub/../sub/./five.txt"), result));
   EXPECT_EQ(std::filesystem::canonical(path("sub/five.txt")).string(), result.stdString());
   EXPECT_TRUE(!DtFilename::absolutePath(at("sub/none"), result) && result.isEmpty());
}

TEST_F(TempDir, MakeDirectoryMakesParentsAndRestoresTheText)
{
   std::string const target = path("x/y/z");
   DtFilename const name(target.c_str());
   EXPECT_TRUE(DtMakeDirectory(name) && isDirectory("x/y/z"));
   EXPECT_EQ(target, name.stdString()) << "the text is put back after the in-place cuts";
   EXPECT_FALSE(DtMakeDirectory(name)) << "everything exists already: no mkdir succeeds";
   EXPECT_TRUE(DtMakeDirectory(at("x/b\\c")) && isDirectory("x/b")) << "a backslash cuts too";
   struct stat status;
   ASSERT_EQ(0, stat(target.c_str(), &status));
   EXPECT_EQ(0u, status.st_mode & 0027) << "made with mode 0750 (less the umask)";
   std::ofstream(path("plain")) << "x";
   EXPECT_FALSE(DtMakeDirectory(at("plain/sub")));
}

TEST_F(TempDir, DeleteDirectoryRemovesFilesButIsNotRecursive)
{
   ASSERT_TRUE(std::filesystem::create_directories(path("d/inner")));
   std::ofstream(path("d/file")) << "x";
   EXPECT_FALSE(DtDeleteDirectory(at("d")));
   EXPECT_TRUE(isDirectory("d/inner") && !at("d/file").exists()) << "the files went all the same";
   ASSERT_EQ(0, rmdir(path("d/inner").c_str()));
   EXPECT_TRUE(DtDeleteDirectory(at("d")) && !at("d").exists());
}

TEST_F(TempDir, FileListHoldsEveryEntry)
{
   std::ofstream(path("b.txt")) << "x";
   ASSERT_EQ(0, mkdir(path("c").c_str(), 0700));
   std::vector<std::string> names;
   for (DtFilename const& f : DtGetFileListFromDirectory(DtString(myRoot.c_str()), "*.txt"))
      names.push_back(f.stdString());
   std::sort(names.begin(), names.end());
   EXPECT_EQ((std::vector<std::string>{".", "..", "b.txt", "c"}), names);
   EXPECT_TRUE(DtGetFileListFromDirectory(at("none"), DtString()).empty());
}

// HOME, QOR_LOG_DIR, QOR_INSTALL_DIR, QOR_BASE_DIR (null: unset), then the directory made.
TEST_F(TempDir, LogDirectoryPrecedence)
{
   char const* const variables[] = {"HOME", "QOR_LOG_DIR", "QOR_INSTALL_DIR", "QOR_BASE_DIR"};
   std::optional<std::string> saved[4];
   for (int i = 0; i < 4; ++i)
      if (char const* value = std::getenv(variables[i]))
         saved[i] = value;
   char const* const cases[][5] = {{"home", nullptr, nullptr, nullptr, "home/QOR/logs"},
                                   {"home", nullptr, nullptr, "base", "base/logs"},
                                   {"home", nullptr, "install", "base", "install/logs"},
                                   {"home", "log", "install", "base", "log"}};
   for (auto const& c : cases)
   {
      for (int i = 0; i < 4; ++i)
         c[i] ? setenv(variables[i], path(c[i]).c_str(), 1) : unsetenv(variables[i]);
      EXPECT_EQ(path(c[4]), DtGetQorLogDirectory().stdString());
      EXPECT_TRUE(isDirectory(c[4])) << c[4];
   }
   for (int i = 0; i < 4; ++i)
      saved[i] ? setenv(variables[i], saved[i]->c_str(), 1) : unsetenv(variables[i]);
}
