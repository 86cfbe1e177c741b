// Tests of DtDynamicLibrary on two small plug-ins built beside the tests.
#include <olutil/olDynamic.h>

#include <dlfcn.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

std::string const theDirectory = OLUTIL_TEST_PLUGIN_DIR;
// Without the extension, which open may add.
std::string const thePlugin = theDirectory + "/libolutil_test_plugin";
std::string const theLazyPlugin = theDirectory + "/libolutil_test_plugin_lazy";

using Library = std::unique_ptr<DtDynamicLibrary>;

Library open(std::string const& name, bool addExtension, bool lazy = false, bool global = false)
{
   return Library(DtDynamicLibrary::create(DtString(name), addExtension, lazy, global));
}

bool startsWith(char const* text, std::string const& start)
{
   return text && std::string(text).compare(0, start.size(), start) == 0;
}

}  // namespace

TEST(DtDynamicLibraryTest, OpensByNameWithOrWithoutTheExtension)
{
   EXPECT_EQ(DtString(".so"), DtDynamicLibrary::standardExtension());
   struct Case
   {
      std::string name;
      bool addExtension;
      bool valid;
   } const cases[] = {
       {thePlugin, true, true},
       {thePlugin + ".so", false, true},
       {thePlugin + ".so", true, false},  // ".so.so"
       {thePlugin, false, false},
       {theDirectory + "/no-such-plugin", true, false},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.name + (c.addExtension ? " +.so" : ""));
      Library library = open(c.name, c.addExtension);
      ASSERT_NE(nullptr, library);
      EXPECT_EQ(c.valid, library->isValid());
      EXPECT_EQ(DtString(c.name.c_str()), library->libraryName());
      if (c.valid)
      {
         EXPECT_EQ(nullptr, library->error());
      }
      else
      {
         std::string const error = library->error() ? library->error() : "";
         EXPECT_TRUE(startsWith(library->error(), "dlopen returned NULL (Error: ")) << error;
         EXPECT_NE(std::string::npos, error.find(c.name)) << "the loader's text names the file";
         EXPECT_EQ(')', error.back());
      }
   }
}

TEST(DtDynamicLibraryTest, SymbolsAreFoundAndAMissingOneLeavesTheLoadersText)
{
   Library library = open(thePlugin, true);
   ASSERT_TRUE(library->isValid());
   auto answer = reinterpret_cast<int (*)()>(library->procAddress("olTestPluginAnswer"));
   ASSERT_NE(nullptr, answer);
   EXPECT_EQ(42, answer());
   auto* value = static_cast<int*>(library->procAddress("olTestPluginValue"));
   ASSERT_NE(nullptr, value);
   EXPECT_EQ(7, *value);

   {
      olt::CapturePrinter warnings(DtWarn);
      EXPECT_EQ(nullptr, library->procAddress("olTestPluginNoSuchSymbol"));
      EXPECT_EQ("Could not find symbol olTestPluginNoSuchSymbol in library " + thePlugin + "\n",
                warnings.text());
   }
   ASSERT_NE(nullptr, library->error());
   EXPECT_NE(std::string::npos, std::string(library->error()).find("olTestPluginNoSuchSymbol"));
   EXPECT_NE(nullptr, library->procAddress("olTestPluginAnswer"));
   EXPECT_EQ(nullptr, library->error()) << "cleared by the successful lookup";
}

TEST(DtDynamicLibraryTest, AnInvalidLibraryFindsNothingAndKeepsItsError)
{
   DtDynamicLibrary unopened(DtString(thePlugin.c_str()));
   EXPECT_FALSE(unopened.isValid());
   EXPECT_EQ(nullptr, unopened.procAddress("olTestPluginAnswer"));
   EXPECT_EQ(nullptr, unopened.error());

   Library missing = open(theDirectory + "/no-such-plugin", true);
   std::string const error = missing->error();
   EXPECT_EQ(nullptr, missing->procAddress("olTestPluginAnswer"));
   EXPECT_EQ(error, missing->error());
}

TEST(DtDynamicLibraryTest, OpeningAgainClosesTheFirstHandle)
{
   Library library = open(thePlugin, true);
   ASSERT_TRUE(library->isValid());
   EXPECT_TRUE(library->open(true, false, false));
   EXPECT_NE(nullptr, library->procAddress("olTestPluginAnswer"));
   EXPECT_FALSE(library->open(false, false, false)) << "without the extension there is no file";
   EXPECT_FALSE(library->isValid());
   EXPECT_NE(nullptr, library->error());
}

TEST(DtDynamicLibraryTest, LazyBindingAndGlobalSymbolsFollowTheFlags)
{
   // A library that calls an undefined function opens only with lazy binding.
   Library now = open(theLazyPlugin, true, false, false);
   EXPECT_FALSE(now->isValid());
   EXPECT_NE(std::string::npos, std::string(now->error()).find("olTestPluginMissing"));
   Library lazy = open(theLazyPlugin, true, true, false);
   EXPECT_TRUE(lazy->isValid());
   EXPECT_NE(nullptr, lazy->procAddress("olTestPluginCallsMissing")) << "found, never called";

   // Local symbols stay out of the global scope; global ones join it. Local
   // first: a library once opened globally stays global while it is loaded.
   {
      Library local = open(thePlugin, true, false, false);
      ASSERT_TRUE(local->isValid());
      EXPECT_EQ(nullptr, dlsym(RTLD_DEFAULT, "olTestPluginAnswer"));
   }
   Library global = open(thePlugin, true, true, true);
   ASSERT_TRUE(global->isValid());
   EXPECT_NE(nullptr, dlsym(RTLD_DEFAULT, "olTestPluginAnswer"));
}
