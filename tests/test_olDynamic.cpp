// Tests of DtDynamicLibrary on two small plug-ins built beside the tests.
#include <olutil/olDynamic.h>

#include <dlfcn.h>

#include <memory>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

std::string const theDirectory = OLUTIL_TEST_PLUGIN_DIR;
std::string const thePlugin = theDirectory + "/libolutil_test_plugin";
std::string const theLazyPlugin = theDirectory + "/libolutil_test_plugin_lazy";

using Library = std::unique_ptr<DtDynamicLibrary>;

Library open(std::string const& name, bool addExtension, bool lazy = false, bool global = false)
{
   return Library(DtDynamicLibrary::create(DtString(name), addExtension, lazy, global));
}

}  // namespace

TEST(DtDynamicLibraryTest, OpensByNameWithOrWithoutTheExtensionAndTellsWhyNot)
{
   for (auto const& [name, addExtension, valid] :
        {std::tuple<std::string, bool, bool>{thePlugin, true, true},
         {thePlugin + ".so", false, true},
         {thePlugin + ".so", true, false},  // ".so.so"
         {theDirectory + "/no-such-plugin", true, false}})
   {
      SCOPED_TRACE(name + (addExtension ? " +.so" : ""));
      Library library = open(name, addExtension);
      EXPECT_EQ(valid, library->isValid());
      EXPECT_EQ(DtString(name.c_str()), library->libraryName());
      std::string const error = library->error() ? library->error() : "";
      // The loader's text names the file; a failed lookup keeps it.
      EXPECT_TRUE(valid ||
                  (error.rfind("dlopen returned NULL (Error: ", 0) == 0 && error.back() == ')' &&
                   error.find(name) != std::string::npos &&
                   !library->procAddress("olTestPluginAnswer") && error == library->error()))
          << error;
      EXPECT_EQ(valid, error.empty());
   }
   DtDynamicLibrary unopened(DtString(thePlugin.c_str()));
   EXPECT_TRUE(!unopened.isValid() && !unopened.procAddress("olTestPluginAnswer") &&
               !unopened.error());
}

TEST(DtDynamicLibraryTest, SymbolsAreFoundAMissingOneLeavesTheLoadersTextAndReopeningCloses)
{
   Library library = open(thePlugin, true);
   ASSERT_TRUE(library->isValid());
   auto answer = reinterpret_cast<int (*)()>(library->procAddress("olTestPluginAnswer"));
   EXPECT_TRUE(answer && answer() == 42);
   olt::CapturePrinter warnings(DtWarn);
   EXPECT_EQ(nullptr, library->procAddress("olTestPluginNoSuchSymbol"));
   EXPECT_NE(std::string::npos, std::string(library->error()).find("olTestPluginNoSuchSymbol"));
   EXPECT_TRUE(library->procAddress("olTestPluginAnswer") && !library->error())
       << "cleared by the successful lookup";
   EXPECT_TRUE(library->open(true, false, false) && library->procAddress("olTestPluginAnswer"));
   EXPECT_FALSE(library->open(false, false, false)) << "without the extension there is no file";
   EXPECT_TRUE(!library->isValid() && library->error());
   EXPECT_EQ("Could not find symbol olTestPluginNoSuchSymbol in library " + thePlugin + "\n",
             warnings.text());
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

   // Local symbols stay out of the global scope, global ones join it (local first:
   // a library once opened globally stays global while it is loaded).
   {
      Library local = open(thePlugin, true, false, false);
      ASSERT_TRUE(local->isValid());
      EXPECT_EQ(nullptr, dlsym(RTLD_DEFAULT, "olTestPluginAnswer"));
   }
   Library global = open(thePlugin, true, true, true);
   ASSERT_TRUE(global->isValid());
   EXPECT_NE(nullptr, dlsym(RTLD_DEFAULT, "olTestPluginAnswer"));
}
