// Tests of the olfom-merge tool, run as a program on the repository's own test modules.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#ifndef OLFOM_MERGE_PATH
#define OLFOM_MERGE_PATH ""  // not built in this configuration
#endif

namespace
{

std::string const theModules = std::string(OLUTIL_SOURCE_DIR) + "/tests/fom/";

std::string slurp(std::string const& path)
{
   std::ostringstream text;
   text << std::ifstream(path, std::ios::binary).rdbuf();
   std::remove(path.c_str());
   return text.str();
}

// Runs the tool with the arguments, split at blanks (a leading '@' stands for the test module
// folder): its exit status, standard output and standard error.
std::tuple<int, std::string, std::string> run(std::string const& args)
{
   std::string const base = "/tmp/olutil_fom_merge_" + std::to_string(getpid());
   std::string command = OLFOM_MERGE_PATH;
   std::istringstream in(args);
   for (std::string a; in >> a;)
      command += " '" + (a.rfind('@', 0) == 0 ? theModules + a.substr(1) : a) + "'";
   int const status = std::system((command + " >" + base + ".out 2>" + base + ".err").c_str());
   return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(base + ".out"),
           slurp(base + ".err")};
}

}  // namespace

TEST(MergeTool, ExitStatusesAndWhatItPrints)
{
   if (!*OLFOM_MERGE_PATH)
      GTEST_SKIP() << "olfom-merge is not built in this configuration";
   std::string const broken = "/tmp/olutil_fom_broken_" + std::to_string(getpid()) + ".xml";
   std::ofstream(broken) << "<objectModel>\n<objects>\n";
   // Exit status, how standard output begins (all of it when empty), standard error (its first
   // line where nothing is printed; "?" not compared), and the arguments.
   std::tuple<int, char const*, std::string, std::string> const rows[] = {
       {0, "status 21: success\n", "", "@base.xml"},
       {1, "status 4: update rate conflict\n", "", "--strict @base.xml @conflict_rates.xml"},
       {0, "status 21: success\n", "Merge Error ignored: \tSlow: 0.25, \"Twice a second\"\n",
        "--lenient @base.xml @conflict_rates.xml"},
       {1,
        "status 20: a post-merge check failed: references that no merged module defines\n"
        "  check: Unresolved dimension Zone of attribute HLAobjectRoot.Sign.Range\n",
        "?", "@refs_user.xml"},
       {2, "", "olfom-merge: no module given\n", ""},
       {2, "", "olfom-merge: unknown option --bogus\n", "--bogus @base.xml"},
       // The document ends inside <objects>, opened on line 2.
       {2, "", "olfom-merge: " + broken + ":2: not well-formed XML: Start-end tags mismatch\n",
        "@base.xml " + broken},
       {0, "usage: olfom-merge [--strict|--lenient] [--dump] [--json] MODULE.xml...\n", "",
        "--help"},
   };
   for (auto const& [exitStatus, firstOut, err, args] : rows)
   {
      SCOPED_TRACE(args);
      auto const [status, out, errors] = run(args);
      EXPECT_EQ(status, exitStatus);
      EXPECT_EQ(out.substr(0, *firstOut ? std::strlen(firstOut) : std::string::npos), firstOut);
      std::string const got = *firstOut ? errors : errors.substr(0, errors.find('\n') + 1);
      EXPECT_TRUE(err == "?" || got == err) << got;
   }
   std::remove(broken.c_str());

   // A conflict names the module, the table and both records; --dump gives one record a line,
   // --json one document on one line.
   EXPECT_EQ(std::get<1>(run("--strict @base.xml @conflict_objects.xml")),
             "status 16: object class conflict\nconflict: " + theModules +
                 "conflict_objects.xml (Other objects) in Object Classes\n"
                 "  message: Other objects has conflicts in Object Classes:\n"
                 "  message: \tHLAobjectRoot.Vehicle.Speed: HLAoctet, HLAreliable, \"\"\n"
                 "  merged: HLAobjectRoot.Vehicle.Speed: SpeedType, HLAreliable, \"Lane\"\n"
                 "  module: HLAobjectRoot.Vehicle.Speed: HLAoctet, HLAreliable, \"\"\n");
   EXPECT_NE(std::get<1>(run("--dump @base.xml @conflict_rates.xml"))
                 .find("\nupdateRate Quick: 10, \"\"\nupdateRate Slow: 0.5, \"Twice a second\"\n"),
             std::string::npos);
   std::string const json = std::get<1>(run("--json --strict @base.xml @conflict_rates.xml"));
   EXPECT_EQ(json.find('\n'), json.size() - 1);
   EXPECT_EQ(json.rfind("{\"status\":4,\"meaning\":\"update rate conflict\",\"strict\":true,", 0),
             0u);
}
