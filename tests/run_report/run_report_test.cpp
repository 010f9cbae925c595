// The parts of a run split by --shard merged into one report, and every way a set of parts is not
// one run refused with the files named.
#include "run_report/run_report.hpp"

#include <gtest/gtest.h>

namespace
{
using nlohmann::ordered_json;

ordered_json model(const std::string& source, const std::string& status, uint64_t triangles, double seconds)
{
  return {{"source", source},
          {"status", status},
          {"seconds", seconds},
          {"totals",
           {{"vertices", triangles * 2}, {"triangles", triangles}, {"rawBytes", 100}, {"storedBytes", 60},
            {"outputBytes", 80}}}};
}

run_report::Part part(const std::string& path, uint64_t index, uint64_t count, std::vector<ordered_json> models)
{
  ordered_json list = ordered_json::array();
  for (ordered_json& entry : models)
    list.push_back(std::move(entry));
  ordered_json document{{"schema", "vertexmill-report"},
                        {"schemaVersion", 1},
                        {"tool", {{"name", "vertexmill"}, {"version", "1.0"}}},
                        {"shard", {{"index", index}, {"count", count}}},
                        {"run", {{"source", "art"}, {"compile", "encode=1"}}},
                        {"models", list}};
  document["totals"] = run_report::totalsOf(document["models"]);
  return {path, std::move(document)};
}

TEST(RunReport, PartsMergeIntoOneReportInSourceOrder)
{
  const std::vector<run_report::Part> parts = {
    part("b.json", 2, 2, {model("art/z.primitives", "failed", 0, 0.5), model("art/b.primitives", "converted", 10, 1.0)}),
    part("a.json", 1, 2, {model("art/m.primitives", "up-to-date", 5, 0.25)}),
  };
  std::string problem;
  const std::optional<ordered_json> merged = run_report::mergeParts(parts, problem);
  ASSERT_TRUE(merged) << problem;
  ASSERT_EQ((*merged)["models"].size(), 3u);
  EXPECT_EQ((*merged)["models"][0]["source"], "art/b.primitives");
  EXPECT_EQ((*merged)["models"][2]["source"], "art/z.primitives");
  const ordered_json& totals = (*merged)["totals"];
  EXPECT_EQ(totals["models"], 3);
  EXPECT_EQ(totals["converted"], 1);
  EXPECT_EQ(totals["failed"], 1);
  EXPECT_EQ(totals["upToDate"], 1);
  EXPECT_EQ(totals["triangles"], 15);
  EXPECT_EQ(totals["outputBytes"], 240);
  EXPECT_DOUBLE_EQ(totals["seconds"].get<double>(), 1.75);
  EXPECT_FALSE(merged->contains("shard"));
  EXPECT_EQ((*merged)["run"], parts[0].document["run"]);
}

TEST(RunReport, PartsThatAreNotOneRunAreRefusedByName)
{
  const auto refusal = [](std::vector<run_report::Part> parts) {
    std::string problem;
    EXPECT_FALSE(run_report::mergeParts(parts, problem));
    return problem;
  };
  const run_report::Part one = part("one.json", 1, 2, {model("art/a.primitives", "converted", 1, 0.1)});
  const run_report::Part two = part("two.json", 2, 2, {model("art/b.primitives", "converted", 1, 0.1)});

  EXPECT_EQ(refusal({}), "no report parts were given");
  EXPECT_EQ(refusal({one}), "shard 2/2 is missing");
  EXPECT_EQ(refusal({one, two, part("again.json", 2, 2, {})}),
            "shard 2/2 is given twice: 'two.json' and 'again.json'");
  EXPECT_EQ(refusal({one, part("three.json", 2, 3, {})}), "'three.json' and 'one.json' are parts of different runs");

  run_report::Part otherRun = two;
  otherRun.document["run"]["compile"] = "encode=0";
  EXPECT_EQ(refusal({one, otherRun}), "'two.json' and 'one.json' are parts of different runs");
  run_report::Part otherTool = two;
  otherTool.document["tool"]["version"] = "2.0";
  EXPECT_EQ(refusal({one, otherTool}), "'two.json' and 'one.json' come from different tool versions");

  run_report::Part unsharded = two;
  unsharded.document.erase("shard");
  EXPECT_EQ(refusal({one, unsharded}), "'two.json' is not the report of a shard (it was not written with --shard K/N)");
  EXPECT_EQ(refusal({one, {"list.json", ordered_json::array()}}), "'list.json' is not a vertexmill report");

  const run_report::Part twice = part("twice.json", 2, 2, {model("art/a.primitives", "converted", 1, 0.1)});
  EXPECT_EQ(refusal({one, twice}), "model 'art/a.primitives' is in two parts: 'one.json' and 'twice.json'");
}

} // namespace
