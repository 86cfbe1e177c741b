// Tests of the olfom-merge tool: its exit statuses and what it prints, run as a
// program on the repository's own test modules.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#ifndef OLUTIL_SOURCE_DIR
#define OLUTIL_SOURCE_DIR ""
#endif

namespace
{

std::string const theModules = std::string(OLUTIL_SOURCE_DIR) + "/tests/fom/";

struct Outcome
{
   int exitStatus = -1;
   std::string out;
   std::string err;
};

[[maybe_unused]] std::string slurp(std::string const& path)
{
   std::ifstream in(path, std::ios::binary);
   return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs the tool with the arguments; a leading '@' stands for the test module folder.
Outcome run(std::vector<std::string> const& args)
{
   Outcome r;
#ifdef OLFOM_MERGE_PATH
   std::string const base = "/tmp/olutil_fom_merge_" + std::to_string(getpid());
   std::string command = OLFOM_MERGE_PATH;
   for (std::string a : args)
   {
      if (!a.empty() && a[0] == '@')
         a = theModules + a.substr(1);
      command += " '" + a + "'";
   }
   command += " >" + base + ".out 2>" + base + ".err";
   int const status = std::system(command.c_str());
   r.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   r.out = slurp(base + ".out");
   r.err = slurp(base + ".err");
   std::remove((base + ".out").c_str());
   std::remove((base + ".err").c_str());
#else
   (void)args;
#endif
   return r;
}

class MergeTool : public ::testing::Test
{
protected:
   void SetUp() override
   {
#ifndef OLFOM_MERGE_PATH
      GTEST_SKIP() << "olfom-merge is not built in this configuration";
#endif
   }
};

}  // namespace

TEST_F(MergeTool, ExitStatusTellsSuccessProblemAndBadInput)
{
   std::string const broken = "/tmp/olutil_fom_broken_" + std::to_string(getpid()) + ".xml";
   std::ofstream(broken) << "<objectModel>\n<objects>\n";
   struct Row
   {
      std::vector<std::string> args;
      int exitStatus;
      char const* out;  // the first line, or the whole of standard error when out is empty
      char const* err;
   } const rows[] = {
       {{"@base.xml"}, 0, "status 21: success\n", ""},
       {{"--strict", "@base.xml", "@conflict_rates.xml"},
        1,
        "status 4: update rate conflict\n",
        ""},
       {{"--lenient", "@base.xml", "@conflict_rates.xml"},
        0,
        "status 21: success\n",
        "Merge Error ignored: \tSlow: 0.25, \"Twice a second\"\n"},
       {{"@base.xml", "@conflict_time.xml"}, 1, "status 9: time type conflict\n", ""},
       {{"@refs_user.xml"},
        1,
        "status 20: a post-merge check failed: references that no merged module defines\n",
        nullptr},
       {{"@refs_user.xml", "@refs_lib.xml"}, 0, "status 21: success\n", nullptr},
       {{}, 2, "", "olfom-merge: no module given\n"},
       {{"--bogus", "@base.xml"}, 2, "", "olfom-merge: unknown option --bogus\n"},
       {{"/nonexistent/fom.xml"},
        2,
        "",
        "olfom-merge: /nonexistent/fom.xml: No such file or directory\n"},
       {{"@base.xml", broken}, 2, "", nullptr},
       {{"--help"},
        0,
        "usage: olfom-merge [--strict|--lenient] [--dump] [--json] MODULE.xml...\n",
        ""},
   };
   for (auto const& row : rows)
   {
      SCOPED_TRACE(row.args.empty() ? "no arguments" : row.args.back());
      Outcome const r = run(row.args);
      EXPECT_EQ(r.exitStatus, row.exitStatus);
      EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1), row.out);
      if (row.err)
      {
         if (*row.out)
            EXPECT_EQ(r.err, row.err);
         else
            EXPECT_EQ(r.err.substr(0, r.err.find('\n') + 1), row.err);
      }
   }
   // The document ends inside <objects>, opened on line 2.
   EXPECT_NE(run({broken}).err.find(broken + ":2: not well-formed XML: Start-end tags mismatch"),
             std::string::npos);
   std::remove(broken.c_str());
}

TEST_F(MergeTool, ConflictNamesModuleTableAndTheRecordsThatDiffer)
{
   Outcome const r = run({"--strict", "@base.xml", "@conflict_objects.xml"});
   EXPECT_EQ(r.out,
             "status 16: object class conflict\n"
             "conflict: " +
                 theModules +
                 "conflict_objects.xml (Other objects) in Object Classes\n"
                 "  message: Other objects has conflicts in Object Classes:\n"
                 "  message: \tHLAobjectRoot.Vehicle.Speed: HLAoctet, HLAreliable, \"\"\n"
                 "  merged: HLAobjectRoot.Vehicle.Speed: SpeedType, HLAreliable, \"Lane\"\n"
                 "  module: HLAobjectRoot.Vehicle.Speed: HLAoctet, HLAreliable, \"\"\n");

   // A failed check lists what it found.
   Outcome const check = run({"@refs_user.xml"});
   EXPECT_NE(check.out.find("  check: Unresolved data type Distance used by attribute "
                            "HLAobjectRoot.Sign.Range\n"),
             std::string::npos);
}

TEST_F(MergeTool, DumpListsOneRecordALine)
{
   Outcome const r = run({"--dump", "@base.xml", "@conflict_rates.xml"});
   EXPECT_EQ(r.exitStatus, 0);
   for (char const* line :
        {"identification Base + Other rates\n", "dependency MIM\n",
         "automaticResignAction DeleteObjectsThanDivest\n", "switch autoProvide: enabled\n",
         "updateRate Quick: 10, \"\"\n", "updateRate Slow: 0.5, \"Twice a second\"\n",
         "transportation Fast: BestEffort, \"\", \"Low latency, spread over lines\"\n",
         "dimension Lane: LaneIndex, 4, \"linear (Lane, 0, 4)\", [0..4)\n",
         "objectClass HLAobjectRoot.Vehicle.Car\n",
         "attribute HLAobjectRoot.Vehicle.Speed: SpeedType, HLAreliable, \"Lane\"\n",
         "parameter HLAinteractionRoot.Honk.Loudness: LevelEnum\n"})
      EXPECT_NE(r.out.find(line), std::string::npos) << line;
}

TEST_F(MergeTool, JsonIsOneDocumentOnOneLine)
{
   Outcome const r = run({"--json", "--strict", "@base.xml", "@conflict_rates.xml"});
   EXPECT_EQ(r.exitStatus, 1);
   ASSERT_FALSE(r.out.empty());
   EXPECT_EQ(r.out.find('\n'), r.out.size() - 1);
   EXPECT_EQ(r.out.rfind("{\"status\":4,\"meaning\":\"update rate conflict\",\"strict\":true,", 0),
             0u);
   for (char const* part :
        {"\"table\":\"Update Rates\"",
         "\"records\":[{\"merged\":\"Slow: 0.5, \\\"Twice a second\\\"\","
         "\"module\":\"Slow: 0.25, \\\"Twice a second\\\"\"}]",
         "\"message\":\"\\tSlow: 0.25, \\\"Twice a second\\\"\"",
         "\"updateRates\":[{\"name\":\"Slow\",\"rate\":0.5,\"semantics\":\"Twice a second\"}]"})
      EXPECT_NE(r.out.find(part), std::string::npos) << part;
}
