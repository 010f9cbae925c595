// The command line and the worker request as values: every option reaches its field, values out of
// range are refused, and a worker request survives its round trip or is refused by name.
#include "cstdmf/platform.hpp"
#include "vertexmill/depfile.hpp"
#include "vertexmill/shard.hpp"
#include "vertexmill/tool_options.hpp"
#include "vertexmill/worker_request.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace
{
using namespace vertexmill;

// Parses the arguments after the program name; standard error takes the parser's refusals.
bool parse(std::vector<std::string> args, ToolOptions& options)
{
  args.insert(args.begin(), "vertexmill");
  std::vector<const char*> argv;
  for (const std::string& arg : args)
    argv.push_back(arg.c_str());
  return parseToolOptions(static_cast<int>(argv.size()), argv.data(), options);
}

TEST(ToolOptions, EveryOptionReachesItsField)
{
  ToolOptions o;
  ASSERT_TRUE(parse({"-v", "--tree", "-j", "0", "--keep-going", "--time-limit", "86400", "--memory-limit", "3",
                     "--incremental", "--strict", "--report", "-", "--cache", "c", "--cache-url", "http://h/",
                     "--cache-max-size", "2K", "--cache-timeout", "600", "--shard", "2/3", "--report-html", "r.html",
                     "--report-overdraw", "--stats", "--no-progress", "src", "dst"},
                    o));
  EXPECT_EQ(o.verbosity, 2);
  EXPECT_TRUE(o.tree && o.keepGoing && o.incremental && o.strict && o.stats && o.reportOverdraw);
  EXPECT_FALSE(o.progress);
  EXPECT_EQ(o.jobs, 0u);
  EXPECT_EQ(o.modelTimeout, 86400u);
  EXPECT_EQ(o.modelMemory, 3ull << 20);
  EXPECT_EQ(o.reportPath, "-");
  EXPECT_EQ(o.reportHtmlPath, "r.html");
  EXPECT_EQ(o.cache.directory, "c");
  EXPECT_EQ(o.cache.url, "http://h/");
  EXPECT_EQ(o.cache.maxSize, 2048u);
  EXPECT_EQ(o.cache.timeoutSeconds, 600);
  ASSERT_TRUE(o.shard);
  EXPECT_EQ(o.shard->index, 2u);
  EXPECT_EQ(o.shard->count, 3u);
  EXPECT_EQ(o.srcPath, "src");
  EXPECT_EQ(o.dstPath, "dst");
  EXPECT_EQ(o.lods.levels, 0u);
  EXPECT_TRUE(o.lodTuning.empty());

  ToolOptions levels;
  ASSERT_TRUE(parse({"--lods", "8", "--lod-ratio", "0.25", "--lod-error", "1", "--lod-sloppy", "--shard", "auto", "a", "b"},
                    levels));
  EXPECT_EQ(levels.lods, (LevelOfDetailOptions{8, 0.25f, 1.0f, true}));
  EXPECT_EQ(levels.lodTuning, "--lod-ratio");
  EXPECT_TRUE(levels.shardAuto);
  EXPECT_FALSE(levels.shard);

  ToolOptions q;
  ASSERT_TRUE(parse({"-q", "--src-path", "a.primitives", "--dst-path", "out", "--depfile", "d", "--no-cache"}, q));
  EXPECT_EQ(q.verbosity, 0);
  EXPECT_EQ(q.depfilePath, "d");
  EXPECT_TRUE(q.cache.off);
  EXPECT_FALSE(q.tree);
  EXPECT_EQ(q.jobs, 1u);
  EXPECT_FALSE(q.modelMemory);
}

TEST(ToolOptions, ValuesOutOfRangeAreRefused)
{
  const std::vector<std::vector<std::string>> refused = {
    {"-j", "1025"},          {"-j", "-1"},           {"-j", "2x"},         {"--time-limit", "0"},
    {"--memory-limit", "1048577"}, {"--report", ""},  {"--report-html", "-"}, {"--depfile", "-"},
    {"--depfile", ""},       {"--shard", "0/0"},     {"--shard", "3/2"},   {"--cache-timeout", "0"},
    {"--cache-max-size", "1X"}, {"--cache", ""},     {"--no-such-option"}, {"--shard", "Auto"},
    {"--lods", "9"},         {"--lod-ratio", "1"},   {"--lod-ratio", "0"}, {"--lod-ratio", "0.5x"},
    {"--lod-error", "1.01"}, {"--lod-error", "nan"}, {"--lod-ratio", "inf"},
  };
  for (const std::vector<std::string>& args : refused)
  {
    ToolOptions options;
    EXPECT_FALSE(parse(args, options)) << args[0];
  }
}

TEST(Shards, AutoTakesTheShardFromTheSchedulerOrRefusesByName)
{
  const char* const names[] = {"VERTEXMILL_SHARD", "SLURM_ARRAY_TASK_ID", "SLURM_ARRAY_TASK_MIN",
                               "SLURM_ARRAY_TASK_STEP", "SLURM_ARRAY_TASK_COUNT"};
  const auto setAll = [&](std::vector<std::optional<std::string>> values) {
    for (size_t i = 0; i < std::size(names); ++i)
      platform::setEnvironmentVariable(names[i], values[i]);
  };
  const auto shard = [](std::string& problem) {
    const std::optional<Shard> found = shardFromEnvironment(problem);
    return found ? std::to_string(found->index) + "/" + std::to_string(found->count) : std::string();
  };
  std::string problem;
  setAll({"3/4", "0", std::nullopt, std::nullopt, "2"});
  EXPECT_EQ(shard(problem), "3/4"); // said outright, it wins over the array
  setAll({std::nullopt, "7", "4", std::nullopt, "4"});
  EXPECT_EQ(shard(problem), "4/4"); // --array=4-7
  setAll({std::nullopt, "10", "2", "4", "3"});
  EXPECT_EQ(shard(problem), "3/3"); // --array=2-10:4
  setAll({std::nullopt, "0", std::nullopt, std::nullopt, "1"});
  EXPECT_EQ(shard(problem), "1/1");

  for (const auto& values : std::vector<std::vector<std::optional<std::string>>>{
         {"0/4", {}, {}, {}, {}}, {{}, "5", {}, {}, "5"}, {{}, "3", "4", {}, "2"}, {{}, "3", {}, "2", "4"},
         {{}, "x", {}, {}, "2"}, {{}, "1", {}, {}, {}}, {{}, {}, {}, {}, {}}})
  {
    setAll(values);
    problem.clear();
    EXPECT_EQ(shard(problem), "");
    EXPECT_FALSE(problem.empty());
  }
  EXPECT_NE(problem.find("VERTEXMILL_SHARD=K/N"), std::string::npos) << problem;
  setAll({{}, {}, {}, {}, {}});
}

TEST(DepfileWords, BlanksHashesAndDollarsAreEscaped)
{
  EXPECT_EQ(depfileWord("art/ship.primitives"), "art/ship.primitives");
  EXPECT_EQ(depfileWord("my ship#1$.primitives"), "my\\ ship\\#1$$.primitives");
  EXPECT_EQ(depfileWord("a\\ b"), "a\\\\\\ b");
  EXPECT_EQ(depfileWord("C:/art/x.primitives"), "C:/art/x.primitives");
  EXPECT_EQ(depfileText({"out/a.geometry"}, {"a.primitives", "a.collision"}),
            "out/a.geometry: \\\n  a.primitives \\\n  a.collision\n");
}

TEST(WorkerRequests, RoundTripAndRefusalsByName)
{
  WorkerRequest request;
  request.source = "art/m\xC3\xA8sh \"1\".primitives";
  request.output = "out/m.geometry";
  request.compilerJobs = 4;
  request.strict = true;
  request.figures = WorkerRequest::Figures::WithOverdraw;
  request.compile.refuseUnpackableNormals = true;
  request.cache = WorkerRequest::Cache{"cache dir", "http://127.0.0.1:1/", 7};
  WorkerRequest back;
  std::string problem;
  ASSERT_TRUE(WorkerRequest::fromJson(request.toJson(), back, problem)) << problem;
  EXPECT_EQ(back, request);

  // Paths that are not UTF-8 (a Linux name can be any bytes) survive too.
  request.cache.reset();
  request.output = "out/bad\xFF\xFEname.geometry";
  ASSERT_TRUE(WorkerRequest::fromJson(request.toJson(), back, problem)) << problem;
  EXPECT_EQ(back, request);

  const std::vector<std::pair<std::string, std::string>> refused = {
    {"", "not a JSON object"},
    {"[1]", "not a JSON object"},
    {R"({"source":"a"})", "field 'version'"},
    {R"({"version":2})", "of version 2"},
    {R"({"version":1,"source":"","output":"o"})", "field 'source'"},
    {R"({"version":1,"source":{"hex":"4"},"output":"o"})", "field 'source'"},
    {R"({"version":1,"source":"s","output":"o","compilerJobs":0})", "field 'compilerJobs'"},
    {R"({"version":1,"source":"s","output":"o","compilerJobs":1,"incremental":1})", "field 'incremental'"},
    {R"({"version":1,"source":"s","output":"o","compilerJobs":1,"incremental":false,"strict":false,"figures":3})",
     "field 'figures'"},
    {R"({"version":1,"source":"s","output":"o","compilerJobs":1,"incremental":false,"strict":false,"figures":0})",
     "field 'compile'"},
    {R"({"version":1,"source":"s","output":"o","compilerJobs":1,"incremental":false,"strict":false,"figures":0,)"
     R"("compile":{"encodeBuffers":true,"optimizeMeshes":true,"verifyVertices":true,"refuseUnpackableNormals":false},)"
     R"("cache":{"directory":"d","url":"","timeoutSeconds":601}})",
     "in 'cache', field 'timeoutSeconds'"},
  };
  for (const auto& [text, expected] : refused)
  {
    problem.clear();
    EXPECT_FALSE(WorkerRequest::fromJson(text, back, problem)) << text;
    EXPECT_NE(problem.find(expected), std::string::npos) << text << ": " << problem;
  }
}

} // namespace
