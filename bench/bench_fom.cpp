// Reading and merging FOM modules against pugixml's bare parse of the same files,
// in the same run, with the ratios printed at the end.
//
// The set is the 14 modules of RPR FOM 2.0 with the IEEE 1516-2010 standard MIM, in
// their natural order. One round of the measured side reads every module from memory
// into a DtFomModule and merges each into the first (and drops them all, as the
// baseline drops its documents); one round of the baseline parses the same buffers
// with pugixml and nothing else. The target is at most 2x the baseline. The
// post-merge check is timed as a case of its own.
//
// The figure held against the target comes from one benchmark that times both sides
// in alternating rounds (which side goes first alternates too), in the thread's CPU
// time, so that a change in the machine's load falls on both alike; each side also
// runs as a case of its own. Every case runs three times and its median counts.
// Last, each side runs once in a fresh process of its own, five times over, as a
// program that reads its FOM at start-up would: that figure counts the first touch
// of every page, which the rounds of a long run mostly do not.
//
// The modules are looked for in ../shared/fom-modules beside the source tree, or in
// the folder that OLUTIL_FOM_MODULES names; without them the program says so and
// measures nothing.
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <pugixml.hpp>

#include <fomreader/olFomReader.h>
#include <olutil/olPrint.h>

#ifndef OLUTIL_SOURCE_DIR
#define OLUTIL_SOURCE_DIR "."
#endif

namespace
{

constexpr int theRepetitions = 3;

struct Module
{
   std::string name;
   std::string bytes;
};

std::vector<Module>& modules()
{
   static std::vector<Module> theModules;
   return theModules;
}

std::string moduleFolder()
{
   char const* const given = std::getenv("OLUTIL_FOM_MODULES");
   return given ? given : std::string(OLUTIL_SOURCE_DIR) + "/../shared/fom-modules";
}

// False, naming the file, if any module of the set cannot be read.
bool loadModules()
{
   std::string const dir = moduleFolder();
   std::vector<std::string> paths{dir + "/portico/HLAstandardMIM.xml"};
   for (char const* m :
        {"Switches", "Foundation", "Enumerations", "Base", "Physical", "Warfare", "Aggregate",
         "Communication", "DER", "Logistics", "SE", "Minefield", "SIMAN", "UA"})
      paths.push_back(dir + "/rpr-fom-2.0/RPR-" + m + "_v2.0.xml");
   for (std::string const& path : paths)
   {
      std::ifstream in(path, std::ios::binary);
      if (!in)
      {
         std::printf("bench_fom: %s not found; no FOM modules to measure, skipped\n", path.c_str());
         return false;
      }
      modules().push_back(Module{path, std::string(std::istreambuf_iterator<char>(in), {})});
   }
   return true;
}

// The baseline: pugixml parses every module, with the options the reader uses.
std::size_t bareParse()
{
   std::size_t nodes = 0;
   for (Module const& m : modules())
   {
      pugi::xml_document document;
      pugi::xml_parse_result const parsed = document.load_buffer(
          m.bytes.data(), m.bytes.size(), pugi::parse_default, pugi::encoding_auto);
      nodes += parsed ? 1 : 0;
      benchmark::DoNotOptimize(document.first_child());
   }
   return nodes;
}

// The measured side: read every module and merge each into the first. With `check`,
// the post-merge check runs too. The status of the last step.
int readAndMerge(bool check = false)
{
   std::vector<std::unique_ptr<DtFomModule>> read;
   for (Module const& m : modules())
   {
      read.emplace_back(new DtFomModule);
      DtString error;
      if (!DtFomReader::readBuffer(m.bytes.data(), m.bytes.size(), m.name.c_str(), *read.back(),
                                   error))
         return -1;
   }
   DtFomModule& merged = *read.front();
   int status = DtMergeFomSuccess;
   for (std::size_t i = 1; i < read.size() && status == DtMergeFomSuccess; ++i)
      status = merged.mergeTarget(*read[i], true);
   DtString errors;
   if (check && status == DtMergeFomSuccess)
      status = merged.postMergeCheckTarget(errors);
   return status;
}

double threadSeconds()
{
   timespec now{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
   return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

void checkMerge(benchmark::State& state, int status)
{
   if (status != DtMergeFomSuccess)
      state.SkipWithError("the RPR set did not merge with status 21");
}

void BM_BareParse(benchmark::State& state)
{
   for (auto _ : state)
      benchmark::DoNotOptimize(bareParse());
   state.SetItemsProcessed(state.iterations() * static_cast<long>(modules().size()));
}

void BM_ReadAndMerge(benchmark::State& state)
{
   int status = DtMergeFomSuccess;
   for (auto _ : state)
      status = readAndMerge();
   checkMerge(state, status);
   state.SetItemsProcessed(state.iterations() * static_cast<long>(modules().size()));
}

void BM_ReadMergeAndCheck(benchmark::State& state)
{
   int status = DtMergeFomSuccess;
   for (auto _ : state)
      status = readAndMerge(true);
   checkMerge(state, status);
   state.SetItemsProcessed(state.iterations() * static_cast<long>(modules().size()));
}

// The figure held against the target: both sides in alternating rounds. The counter
// "ratio" is the read-and-merge time over the bare parse's.
void BM_ReadAndMergeVsBareParse(benchmark::State& state)
{
   double parseSeconds = 0, mergeSeconds = 0;
   long rounds = 0;
   int status = DtMergeFomSuccess;
   auto const timeParse = [&]
   {
      double const start = threadSeconds();
      benchmark::DoNotOptimize(bareParse());
      parseSeconds += threadSeconds() - start;
   };
   auto const timeMerge = [&]
   {
      double const start = threadSeconds();
      status = readAndMerge();
      mergeSeconds += threadSeconds() - start;
   };
   for (auto _ : state)
   {
      if (rounds++ % 2)
      {
         timeParse();
         timeMerge();
      }
      else
      {
         timeMerge();
         timeParse();
      }
   }
   checkMerge(state, status);
   state.counters["ratio"] = parseSeconds > 0 ? mergeSeconds / parseSeconds : 0.0;
   state.counters["parse_ms"] = 1e3 * parseSeconds / static_cast<double>(rounds);
   state.counters["merge_ms"] = 1e3 * mergeSeconds / static_cast<double>(rounds);
}

BENCHMARK(BM_ReadAndMergeVsBareParse)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_BareParse)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_ReadAndMerge)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_ReadMergeAndCheck)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);

// Keeps the medians that the closing lines need.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
   void ReportRuns(std::vector<Run> const& runs) override
   {
      for (Run const& run : runs)
      {
         if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median")
            continue;
         std::string const name = run.run_name.function_name;
         auto const ratio = run.counters.find("ratio");
         if (ratio != run.counters.end())
            interleaved = ratio->second.value;
         times[name] = run.GetAdjustedCPUTime();
      }
      ConsoleReporter::ReportRuns(runs);
   }

   double interleaved = 0;
   std::map<std::string, double> times;  // median CPU time per iteration, by case
};

// ---------------------------------------------------------------- fresh processes

char const* const theRoundOption = "--fom-round=";
constexpr int theFreshRounds = 5;

// In a child: one round of one side, its CPU time printed in seconds.
int runOneRound(std::string const& side)
{
   double const start = threadSeconds();
   if (side == "parse")
      benchmark::DoNotOptimize(bareParse());
   else if (readAndMerge() != DtMergeFomSuccess)
      return 1;
   std::printf("%.9f\n", threadSeconds() - start);
   return 0;
}

// One round of `side` in a fresh copy of this program; negative on failure.
double freshRound(char const* self, char const* side)
{
   std::string const command = std::string("'") + self + "' " + theRoundOption + side;
   std::FILE* const child = popen(command.c_str(), "r");
   if (!child)
      return -1;
   double seconds = -1;
   if (std::fscanf(child, "%lf", &seconds) != 1)
      seconds = -1;
   return pclose(child) == 0 ? seconds : -1;
}

double median(std::vector<double> values)
{
   std::sort(values.begin(), values.end());
   return values.empty() ? 0 : values[values.size() / 2];
}

void printFreshRatio(char const* self)
{
   std::vector<double> parse, merge;
   for (int i = 0; i < theFreshRounds; ++i)
   {
      // Alternate which side goes first.
      char const* const first = i % 2 ? "parse" : "merge";
      char const* const second = i % 2 ? "merge" : "parse";
      double const a = freshRound(self, first);
      double const b = freshRound(self, second);
      if (a < 0 || b < 0)
      {
         std::printf("  (fresh processes: a round failed, no figure)\n");
         return;
      }
      (i % 2 ? parse : merge).push_back(a);
      (i % 2 ? merge : parse).push_back(b);
   }
   double const p = median(parse), m = median(merge);
   std::printf(
       "  one round in a fresh process each, medians of %d: bare parse %.2f ms, "
       "read + merge %.2f ms, ratio %.2fx\n",
       theFreshRounds, 1e3 * p, 1e3 * m, p > 0 ? m / p : 0.0);
}

}  // namespace

int main(int argc, char** argv)
{
   if (argc == 2 && std::string(argv[1]).rfind(theRoundOption, 0) == 0)
   {
      DtNotifyLevel = 0;
      if (!loadModules())
         return 1;
      return runOneRound(argv[1] + std::strlen(theRoundOption));
   }
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv))
      return 1;
   if (!loadModules())
      return 0;
   std::size_t bytes = 0;
   for (Module const& m : modules())
      bytes += m.bytes.size();
   std::printf("%zu modules, %zu bytes, from %s\n", modules().size(), bytes,
               moduleFolder().c_str());
   // A merge of the set is quiet; a warning here would be timed with it.
   DtNotifyLevel = 0;
   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   double const parse = reporter.times["BM_BareParse"];
   double const merge = reporter.times["BM_ReadAndMerge"];
   double const check = reporter.times["BM_ReadMergeAndCheck"];
   auto const ratio = [&](double t) { return parse > 0 ? t / parse : 0.0; };
   std::printf("\nratios (same run):\n");
   std::printf(
       "  read + merge of the RPR FOM 2.0 set with the MIM / pugixml bare parse, interleaved "
       "rounds: %.2fx (target <= 2x)\n",
       reporter.interleaved);
   std::printf("  the same from separate cases: %.2fx; with the post-merge check: %.2fx\n",
               ratio(merge), ratio(check));
   printFreshRatio(argv[0]);
   benchmark::Shutdown();
   return 0;
}
