// Tests of file names, directories and the environment's directories.
#include <olutil/olFilename.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace
{
// The text of `name` after an edit in place.
std::string edited(char const* name, std::function<void(DtFilename&)> const& edit)
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

TEST(FilenamePathRules, StripExtensionsAppendPrependAndCombine)
{
   // Member and static stripPath differ on "/file" and "/"; stripFilename uses the static.
   auto const strip = [](char const* name)
   {
      return edited(name, [](DtFilename& f) { f.stripPath(); }) + "|" +
             DtFilename::stripPath(DtFilename(name)).stdString() + "|" +
             edited(name, [](DtFilename& f) { f.stripFilename(); });
   };
   EXPECT_EQ("file|/file|", strip("/file"));
   EXPECT_EQ("|/|", strip("/"));
   EXPECT_EQ("file|file|//", strip("//file"));
   EXPECT_EQ("||a/", strip("a/"));
   // Both forms of stripExtension agree; "/file.log" loses its "/".
   auto const extension = [](char const* name)
   {
      std::string const stripped = edited(name, [](DtFilename& f) { f.stripExtension(); });
      EXPECT_EQ(stripped, DtFilename::stripExtension(DtFilename(name)).stdString()) << name;
      return DtFilename(name).extension().stdString() + "|" + stripped + "|" +
             edited(name, [](DtFilename& f) { f.setExtension("txt"); });
   };
   EXPECT_EQ("|a.b/c|a.b/c.txt", extension("a.b/c"));
   EXPECT_EQ("gz|a.tar|a.tar.txt", extension("a.tar.gz"));
   EXPECT_EQ("hidden||.txt", extension(".hidden"));
   EXPECT_EQ("log|file|file.txt", extension("/file.log"));
   EXPECT_EQ("a.txt", edited("a.log", [](DtFilename& f) { f.setExtension(".txt"); }));
   EXPECT_EQ("a.", edited("a.log", [](DtFilename& f) { f.setExtension(""); }));

   // append, prepend, and combine (which doubles a "/").
   auto const join = [](char const* left, char const* right)
   {
      return edited(left, [&](DtFilename& f) { f.append(DtFilename(right)); }) + "|" +
             edited(right, [&](DtFilename& f) { f.prepend(DtFilename(left)); }) + "|" +
             DtFilename::combine(DtFilename(left), DtFilename(right)).stdString();
   };
   EXPECT_EQ("/x|/x|/x", join("/a", "/x"));
   EXPECT_EQ("/a/x|/a/x|/a//x", join("/a/", "x"));
   EXPECT_EQ("a/|a/|a/", join("a", ""));
   EXPECT_EQ("x|x|x", join("", "x")) << "no directory: the name stays relative";
}

// setExtension, append, prepend and assignment given the name itself, or text inside
// it, act as on a copy. The 64-character name without a dot is the one whose growth
// by "." frees the buffer an aliased extension still points into.
TEST(FilenameAliasing, ArgumentsFromTheNameItselfActAsCopies)
{
   auto middle = [](DtFilename const& f) { return f.c_str() + f.size() / 2; };
   std::function<void(DtFilename&, DtFilename const&)> const edits[] = {
       [](DtFilename& t, DtFilename const& a) { t.setExtension(a); },
       [&](DtFilename& t, DtFilename const& a) { t.setExtension(middle(a)); },
       [](DtFilename& t, DtFilename const& a) { t.append(a); },
       [&](DtFilename& t, DtFilename const& a) { t.append(middle(a)); },
       [](DtFilename& t, DtFilename const& a) { t.prepend(a); },
       [&](DtFilename& t, DtFilename const& a) { t = middle(a); },
   };
   std::string const long64(64, 'n');
   std::string const long200 = "/tmp/" + std::string(100, 'd') + ".d/" + std::string(90, 'e');
   for (char const* start : {"", "a.b", "dir.d/name", "/tmp", long64.c_str(), long200.c_str()})
   {
      for (std::size_t i = 0; i < std::size(edits); ++i)
      {
         DtFilename separate(start), argument(start), aliased(start);
         edits[i](separate, argument);
         edits[i](aliased, aliased);
         EXPECT_EQ(separate, aliased) << "edit " << i << " on " << std::strlen(start) << " bytes";
      }
   }
   // The extension added is the whole name as it was before the call.
   DtFilename name(long64.c_str());
   EXPECT_EQ(long64 + "." + long64, name.setExtension(name).stdString());
}

TEST_F(TempDir, CloneSearchAlternatePathAndAbsolutePath)
{
   ASSERT_TRUE(std::filesystem::create_directory(path("sub")));
   std::ofstream(path("sub/five.txt")) << "12345";
   std::unique_ptr<DtString> cloned(static_cast<DtString const&>(at("sub")).clone());
   EXPECT_TRUE(dynamic_cast<DtFilename*>(cloned.get())) << "clone keeps the type";

   // A name found under the alternate takes it on; an existing one stays as it is.
   DtFilename name("sub/five.txt"), none("sub/none.txt");
   EXPECT_TRUE(name.searchAlternatePath(myRoot.c_str()) && name.searchAlternatePath("/nowhere"));
   EXPECT_EQ(path("sub/five.txt"), name.stdString());
   EXPECT_TRUE(!none.searchAlternatePath(myRoot.c_str()) && none == "sub/none.txt");

   DtString result("stale");
   EXPECT_TRUE(DtFilename::absolutePath(at("sub/../sub/./five.txt"), result));
   EXPECT_EQ(std::filesystem::canonical(path("sub/five.txt")).string(), result.stdString());
   EXPECT_TRUE(!DtFilename::absolutePath(at("sub/none"), result) && result.isEmpty());
}

TEST_F(TempDir, MakeAndDeleteDirectories)
{
   std::string const target = path("x/y/z");
   DtFilename const name(target.c_str());
   EXPECT_TRUE(DtMakeDirectory(name) && isDirectory("x/y/z"));
   EXPECT_EQ(target, name.stdString()) << "the text is put back after the in-place cuts";
   EXPECT_FALSE(DtMakeDirectory(name)) << "everything exists already: no mkdir succeeds";
   EXPECT_TRUE(DtMakeDirectory(at("w/b\\c")) && isDirectory("w/b")) << "a backslash cuts too";
   std::ofstream(path("x/plain.txt")) << "x";
   EXPECT_FALSE(DtMakeDirectory(at("x/plain.txt/sub")));

   EXPECT_TRUE(DtGetFileListFromDirectory(at("none"), DtString()).empty());
   EXPECT_FALSE(DtDeleteDirectory(at("x"))) << "not recursive";
   EXPECT_TRUE(isDirectory("x/y") && !at("x/plain.txt").exists()) << "the files went all the same";
   EXPECT_TRUE(DtDeleteDirectory(at("x/y/z")) && !at("x/y/z").exists());
}

// HOME, QOR_LOG_DIR, QOR_INSTALL_DIR, QOR_BASE_DIR (null: unset), then the directory made.
TEST_F(TempDir, LogDirectoryPrecedence)
{
   char const* const variables[] = {"HOME", "QOR_LOG_DIR", "QOR_INSTALL_DIR", "QOR_BASE_DIR"};
   std::string const home = std::getenv("HOME") ? std::getenv("HOME") : "/";
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
   setenv("HOME", home.c_str(), 1);
   for (int i = 1; i < 4; ++i)
      unsetenv(variables[i]);
}
