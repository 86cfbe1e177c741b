// The umbrella header compiles on its own and every public header is in it.
#include <olutil/olutil.h>

#include <dirent.h>

#include <fstream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#ifndef OLUTIL_SOURCE_DIR
#define OLUTIL_SOURCE_DIR ""
#endif

TEST(Umbrella, IncludesEveryPublicHeader)
{
   std::string dir = std::string(OLUTIL_SOURCE_DIR) + "/include/olutil";
   DIR* d = opendir(dir.c_str());
   if (!d)
      GTEST_SKIP() << "source tree not found at " << dir;
   std::set<std::string> headers;
   while (dirent* e = readdir(d))
   {
      std::string name = e->d_name;
      if (name.size() > 2 && name.compare(name.size() - 2, 2, ".h") == 0 && name != "olutil.h")
         headers.insert(name);
   }
   closedir(d);

   std::ifstream umbrella(dir + "/olutil.h");
   std::string text((std::istreambuf_iterator<char>(umbrella)), std::istreambuf_iterator<char>());
   for (std::string const& h : headers)
      EXPECT_NE(text.find("<olutil/" + h + ">"), std::string::npos) << h << " is missing";
}
