// The statistics report: one JSON document for the whole run, in walk order, with failures.
#include "tool_test_support.hpp"
#include "vertexmill/report.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace vertexmill_test
{

TEST_F(VertexmillTool, ReportDescribesEveryModelInWalkOrder)
{
  writeFile(path("art/a_ship.primitives"), validPrimitives({"hull", "turret"}));
  writeFile(path("art/a_ship.collision"), std::string(100, 'c'));
  writeFile(path("art/b_broken.primitives"), std::string(64, 'x'));
  writeFile(path("art/c_boat.primitives"), validPrimitives({"deck"}));
  fs::create_directories(path("out"));

  std::vector<std::string> orderWithOneJob;
  nlohmann::json setWithOneJob;
  for (const char* jobs : {"1", "3"})
  {
    // The second run also asks for overdraw figures, which only that run's report holds.
    const bool overdraw = std::string(jobs) == "3";
    std::vector<std::string> arguments = {"--tree", "--keep-going", "--jobs", jobs, "--report", str("out/report.json"),
                                          "--src-path", str("art"), "--dst-path", str("out")};
    if (overdraw)
      arguments.push_back("--report-overdraw");
    const RunResult result = run(arguments);
    EXPECT_EQ(result.status, 3) << result.err;
    const auto report = nlohmann::json::parse(readFile(path("out/report.json")));
    EXPECT_EQ(report["schema"], "vertexmill-report");
    EXPECT_EQ(report["schemaVersion"], 2);
    const auto& models = report["models"];
    ASSERT_EQ(models.size(), 3u);

    // Models appear in the order of the directory walk, whatever the number of jobs.
    std::vector<std::string> order;
    auto model = [&](const std::string& name) -> const nlohmann::json& {
      for (const auto& m : models)
        if (m["source"].get<std::string>().find(name) != std::string::npos)
          return m;
      ADD_FAILURE() << name << " missing";
      return models[0];
    };
    for (const auto& m : models)
      order.push_back(m["source"]);
    if (orderWithOneJob.empty())
      orderWithOneJob = order;
    EXPECT_EQ(order, orderWithOneJob);

    EXPECT_EQ(model("a_ship")["status"], "converted");
    EXPECT_EQ(model("b_broken")["status"], "failed");
    EXPECT_EQ(model("c_boat")["status"], "converted");
    EXPECT_FALSE(model("b_broken")["errors"].empty());
    EXPECT_TRUE(model("a_ship")["errors"].empty());

    const auto& ship = model("a_ship");
    ASSERT_EQ(ship["sections"].size(), 4u);
    EXPECT_EQ(ship["sections"][0]["kind"], "vertices");
    ASSERT_EQ(ship["renderSets"].size(), 2u);
    EXPECT_EQ(ship["renderSets"][0]["name"], "hull");
    EXPECT_TRUE(ship["renderSets"][0]["optimized"].get<bool>());
    EXPECT_GT(ship["renderSets"][0]["before"]["acmr"].get<double>(), 0.0);
    nlohmann::json set = ship["renderSets"][0];
    for (const char* when : {"before", "after"})
    {
      EXPECT_EQ(set[when].contains("overdraw"), overdraw) << set.dump();
      if (overdraw)
      {
        EXPECT_GE(set[when]["overdraw"].get<double>(), 1.0) << set.dump();
      }
      set[when].erase("overdraw");
    }
    // The other figures do not depend on the jobs or on measuring overdraw.
    if (setWithOneJob.is_null())
      setWithOneJob = set;
    EXPECT_EQ(set, setWithOneJob);
    // A rigid format has no bones; the size is the extent of the set's positions.
    EXPECT_EQ(set["bones"], 0);
    ASSERT_EQ(set["size"].size(), 3u);
    EXPECT_GT(set["size"][0].get<double>() + set["size"][1].get<double>() + set["size"][2].get<double>(), 0.0);
    EXPECT_EQ(ship["companions"][0]["name"], "a_ship.collision");
    EXPECT_EQ(ship["companions"][0]["bytes"], 100);
    EXPECT_EQ(ship["verifier"].size(), 2u);
    EXPECT_EQ(ship["totals"]["outputBytes"].get<uint64_t>(), fs::file_size(path("out/art/a_ship.geometry")));

    EXPECT_EQ(report["totals"]["models"], 3);
    EXPECT_EQ(report["totals"]["converted"], 2);
    EXPECT_EQ(report["totals"]["failed"], 1);
  }
}

TEST_F(VertexmillTool, ReportNamesEachRenderSetsBonesAndSize)
{
  // The jumper example: a body in three skinned meshes, which share none of their 54 bones.
  fs::create_directories(path("out"));
  const RunResult result = run({"--report", str("out/report.json"), VERTEXMILL_EXAMPLES_DIR "/creatures/jumper.primitives",
                                str("out")});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto sets = nlohmann::json::parse(readFile(path("out/report.json")))["models"][0]["renderSets"];
  ASSERT_EQ(sets.size(), 3u);
  unsigned bones = 0;
  double top = 0.0;
  for (const auto& set : sets)
  {
    EXPECT_GT(set["bones"].get<unsigned>(), 1u) << set.dump();
    bones += set["bones"].get<unsigned>();
    top = std::max(top, set["size"][1].get<double>());
  }
  EXPECT_EQ(bones, 54u);
  EXPECT_NEAR(top, 1.064, 0.001); // the legs' set is the tallest
}

TEST_F(VertexmillTool, ReportInDefaultModeAndUnwritableReport)
{
  writeFile(path("art/ship.primitives"), validPrimitives({"hull"}));
  fs::create_directories(path("out"));
  const RunResult result = run({"--report", str("out/one.json"), str("art/ship.primitives"), str("out")});
  EXPECT_EQ(result.status, 0) << result.err;
  const auto report = nlohmann::json::parse(readFile(path("out/one.json")));
  ASSERT_EQ(report["models"].size(), 1u);
  EXPECT_EQ(report["models"][0]["status"], "converted");

  // A report that could not be written is refused before anything is converted.
  fs::remove(path("out/ship.geometry"));
  const RunResult unwritable =
    run({"--report", str("missing/dir/r.json"), str("art/ship.primitives"), str("out")});
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_NE(unwritable.err.find("ERROR: cannot write report '" + str("missing/dir/r.json") + "'"), std::string::npos)
    << unwritable.err;
  EXPECT_FALSE(fs::exists(path("out/ship.geometry")));
}

// --compare: the page of a run opens with what changed since an earlier run's report, which the run
// never overwrites; asked for wrongly, it costs no conversion.
TEST_F(VertexmillTool, ThePageSaysWhatChangedSinceAnEarlierReport)
{
  writeFile(path("art/ship.primitives"), validPrimitives({"hull", "turret"}));
  writeFile(path("art/crate.primitives"), validPrimitives({"box"}));
  writeFile(path("art/rock.primitives"), validPrimitives({"stone"}));
  fs::create_directories(path("out"));
  ASSERT_EQ(run({"--tree", "--report", str("old.json"), str("art"), str("out")}).status, 0);
  const std::string older = readFile(path("old.json"));

  // A re-export: one model broken, one removed, one added, one with fewer render sets.
  writeFile(path("art/crate.primitives"), std::string(64, 'x'));
  fs::remove(path("art/rock.primitives"));
  writeFile(path("art/barrel.primitives"), validPrimitives({"staves"}));
  writeFile(path("art/ship.primitives"), validPrimitives({"hull"}));
  const RunResult result = run({"--tree", "--keep-going", "--report", str("new.json"), "--report-html", str("page.html"),
                                "--compare", str("old.json"), str("art"), str("out")});
  EXPECT_EQ(result.status, 3) << result.err;
  const std::string page = readFile(path("page.html"));
  const size_t changes = page.find("<h2>Changes since " + str("old.json") + "</h2>");
  ASSERT_NE(changes, std::string::npos);
  const std::string section = page.substr(changes, page.find("<h2>", changes + 4) - changes);
  for (const char* expected : {"<tr class=\"failed-since\"><td>failed since</td><td>" , "crate.primitives",
                               "<tr class=\"added\">", "barrel.primitives", "<tr class=\"removed\">",
                               "rock.primitives", "<tr class=\"changed\">", "ship.primitives", "triangles "})
    EXPECT_NE(section.find(expected), std::string::npos) << expected;
  // Failures come first.
  EXPECT_LT(section.find("failed-since"), section.find("class=\"added\""));
  EXPECT_EQ(readFile(path("old.json")), older);

  // Refused before any conversion: without a page, an output in its place, a file that is not a report.
  fs::remove_all(path("out"));
  fs::create_directories(path("out"));
  writeFile(path("not-a-report.json"), "[1, 2]");
  const std::vector<std::pair<std::vector<std::string>, int>> refused = {
    {{"--compare", str("old.json")}, 1},
    {{"--report", str("old.json"), "--report-html", str("p.html"), "--compare", str("old.json")}, 1},
    {{"--report-html", str("old.json"), "--compare", str("old.json")}, 1},
    {{"--report-html", str("p.html"), "--compare", str("missing.json")}, 2},
    {{"--report-html", str("p.html"), "--compare", str("not-a-report.json")}, 2},
  };
  for (const auto& [options, status] : refused)
  {
    std::vector<std::string> arguments = options;
    for (const std::string& rest : {std::string("--tree"), str("art"), str("out")})
      arguments.push_back(rest);
    const RunResult refusal = run(arguments);
    EXPECT_EQ(refusal.status, status) << options[1];
    EXPECT_EQ(refusal.err.rfind("ERROR: ", 0), 0u) << refusal.err;
    EXPECT_TRUE(fs::is_empty(path("out"))) << options[1];
    EXPECT_EQ(readFile(path("old.json")), older);
  }
}

// The model's figures behind the report's totals and the --stats line.
TEST(ModelTotals, SumsWeighAcmrByTrianglesAndCountCompanionsIn)
{
  vertexmill::ModelReport model;
  model.source = "art/ship.primitives";
  model.status = "converted";
  model.seconds = 0.0126;
  CompileStatistics& stats = model.statistics;
  stats.renderSets.resize(3);
  stats.renderSets[0].vertexCount = 12;
  stats.renderSets[0].triangleCount = 10;
  stats.renderSets[0].after.acmr = 1.0f;
  stats.renderSets[1].vertexCount = 20;
  stats.renderSets[1].triangleCount = 30;
  stats.renderSets[1].after.acmr = 0.5f;
  stats.renderSets[1].before.acmr = 3.0f; // only the figure after optimisation counts
  stats.renderSets[2].vertexCount = 3;    // no triangles: no weight
  stats.renderSets[2].after.acmr = 3.0f;
  stats.buffers.push_back({"vertices", "xyznuv", 32, 35, 1120, 700, true});
  stats.buffers.push_back({"indices", "list", 2, 120, 240, 240, false});
  stats.companions.push_back({"ship.collision", "collision", 100});
  stats.companions.push_back({"ship.armor", "armor", 20});
  stats.inputBytes = 2000;
  stats.outputBytes = 1500;

  const vertexmill::ModelTotals totals = vertexmill::modelTotals(stats);
  EXPECT_EQ(totals.vertices, 35u);
  EXPECT_EQ(totals.triangles, 40u);
  EXPECT_DOUBLE_EQ(totals.acmr, 0.625);
  EXPECT_EQ(totals.rawBytes, 1360u);
  EXPECT_EQ(totals.storedBytes, 940u);
  EXPECT_EQ(totals.rawVertexBytes, 1120u);
  EXPECT_EQ(totals.storedVertexBytes, 700u);
  EXPECT_EQ(totals.inputBytes, 2120u);
  EXPECT_EQ(totals.outputBytes, 1500u);
  EXPECT_EQ(vertexmill::statsLine(model), "stats: art/ship.primitives: converted triangles=40 vertices=35 "
                                          "bytes_in=2120 bytes_out=1500 acmr=0.625 seconds=0.013");

  // Nothing gathered (a model that failed early): zeros, not a division by zero.
  EXPECT_EQ(vertexmill::modelTotals(CompileStatistics{}).acmr, 0.0);
}

} // namespace vertexmill_test
