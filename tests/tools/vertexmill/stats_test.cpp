// --stats: one line of figures per model on standard output, in walk order, agreeing with the
// report; without it nothing of the kind is printed.
#include "tool_test_support.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>
#include <tuple>
#include <utility>
#include <vector>

namespace vertexmill_test
{
namespace
{
struct StatsLine
{
  std::string source;
  std::string status;
  std::map<std::string, std::string> figures;
  std::string reason; // as written, quotes and backslashes escaped
};

// The "stats: " lines of standard output; everything else (the used-files list) is skipped.
std::vector<StatsLine> statsLines(const std::string& out)
{
  std::vector<StatsLine> lines;
  std::istringstream stream(out);
  for (std::string line; std::getline(stream, line);)
  {
    if (line.rfind("stats: ", 0) != 0)
      continue;
    StatsLine parsed;
    // The reason comes last and may hold anything but an unescaped quote.
    if (const size_t reason = line.find(" reason=\""); reason != std::string::npos)
    {
      parsed.reason = line.substr(reason + 9, line.size() - reason - 10);
      line.resize(reason);
    }
    const size_t sourceEnd = line.rfind(": ");
    parsed.source = line.substr(7, sourceEnd - 7);
    std::istringstream fields(line.substr(sourceEnd + 2));
    fields >> parsed.status;
    for (std::string field; fields >> field;)
    {
      const size_t equals = field.find('=');
      parsed.figures[field.substr(0, equals)] = field.substr(equals + 1);
    }
    lines.push_back(std::move(parsed));
  }
  return lines;
}

TEST_F(VertexmillTool, StatsLinesFollowTheWalkAndAgreeWithTheReport)
{
  writeFile(path("art/a_ship.primitives"), validPrimitives({"hull", "turret"}));
  writeFile(path("art/a_ship.collision"), std::string(100, 'c'));
  writeFile(path("art/b_broken.primitives"), kInvalidPrimitives);
  writeFile(path("art/sub/c_boat.primitives"), validPrimitives({"deck"}));
  fs::create_directories(path("out"));

  std::vector<std::string> firstOrder;
  for (const char* jobs : {"1", "3"})
  {
    const RunResult result = run({"--stats", "--verbose", "--keep-going", "-j", jobs, "--report",
                                  str("out/report.json"), "--tree", str("art"), str("out")});
    EXPECT_EQ(result.status, 3) << jobs;
    const std::vector<StatsLine> lines = statsLines(result.out);
    const auto report = nlohmann::json::parse(readFile(path("out/report.json")));
    const auto& models = report["models"];
    ASSERT_EQ(lines.size(), 3u) << result.out;
    ASSERT_EQ(models.size(), 3u);

    std::vector<std::string> order, reportOrder;
    for (const auto& model : models)
      reportOrder.push_back(model["source"].get<std::string>());
    // The report lists the models by source path, whatever the walk order.
    EXPECT_TRUE(std::is_sorted(reportOrder.begin(), reportOrder.end()));
    for (size_t i = 0; i < lines.size(); ++i)
    {
      const StatsLine& line = lines[i];
      const auto found = std::find(reportOrder.begin(), reportOrder.end(), line.source);
      ASSERT_NE(found, reportOrder.end()) << line.source;
      const auto& model = models[size_t(found - reportOrder.begin())];
      order.push_back(line.source);
      // Walk order, and each line right after its model's used files.
      EXPECT_EQ(line.status, model["status"].get<std::string>());
      const size_t listed = result.out.find(line.source + "\n");
      const size_t shown = result.out.find("stats: " + line.source + ": ");
      EXPECT_LT(listed, shown) << result.out;
      EXPECT_EQ(line.figures.at("triangles"), std::to_string(model["totals"]["triangles"].get<uint64_t>()));
      EXPECT_EQ(line.figures.at("vertices"), std::to_string(model["totals"]["vertices"].get<uint64_t>()));
      EXPECT_EQ(line.figures.at("bytes_in"), std::to_string(model["totals"]["inputBytes"].get<uint64_t>()));
      EXPECT_EQ(line.figures.at("bytes_out"), std::to_string(model["totals"]["outputBytes"].get<uint64_t>()));
      EXPECT_NEAR(std::stod(line.figures.at("acmr")), model["totals"]["acmr"].get<double>(), 0.0005);
      EXPECT_EQ(line.figures.count("seconds"), 1u);
    }
    if (firstOrder.empty())
      firstOrder = order;
    EXPECT_EQ(order, firstOrder);

    for (const StatsLine& line : lines)
    {
      if (line.source.find("a_ship") != std::string::npos)
      {
        EXPECT_EQ(line.status, "converted");
        EXPECT_EQ(line.figures.at("triangles"), "2");
        EXPECT_EQ(line.figures.at("vertices"), "6");
        // The model and its collision file.
        const uint64_t in = fs::file_size(path("art/a_ship.primitives")) + 100;
        EXPECT_EQ(line.figures.at("bytes_in"), std::to_string(in));
        EXPECT_EQ(line.figures.at("bytes_out"), std::to_string(fs::file_size(path("out/art/a_ship.geometry"))));
        // One triangle per set: three vertices missed for one triangle.
        EXPECT_EQ(line.figures.at("acmr"), "3.000");
      }
      else if (line.source.find("b_broken") != std::string::npos)
      {
        EXPECT_EQ(line.status, "failed");
        EXPECT_EQ(line.figures.at("bytes_out"), "0");
      }
    }
  }
}

TEST_F(VertexmillTool, StatsEvenWhenQuietAndNothingWithoutThem)
{
  writeFile(path("art/ship.primitives"), validPrimitives({"hull"}));
  fs::create_directories(path("out"));

  const RunResult quiet = run({"-q", "--stats", str("art/ship.primitives"), str("out")});
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.err, "");
  const std::vector<StatsLine> lines = statsLines(quiet.out);
  ASSERT_EQ(lines.size(), 1u) << quiet.out;
  EXPECT_EQ(lines[0].source, str("art/ship.primitives"));
  EXPECT_EQ(quiet.out.find("stats: "), 0u);
  EXPECT_EQ(std::count(quiet.out.begin(), quiet.out.end(), '\n'), 1);

  const RunResult plain = run({str("art/ship.primitives"), str("out")});
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.out + plain.err, "");
}

TEST_F(VertexmillTool, AModelThatLoggedAnErrorIsMarkedAndStrictFailsIt)
{
  // The collision companion is a directory: it cannot be read, the model is written without it.
  writeFile(path("art/ship.primitives"), validPrimitives({"hull"}));
  fs::create_directories(path("art/ship.collision"));
  writeFile(path("art/boat.primitives"), validPrimitives({"deck"}));
  fs::create_directories(path("out"));

  const RunResult marked = run({"--stats", "--keep-going", "-j2", "--report", str("report.json"), "--report-html",
                                str("report.html"), "--tree", str("art"), str("out")});
  EXPECT_EQ(marked.status, 0) << marked.err;
  std::map<std::string, std::string> statuses, reasons;
  for (const StatsLine& line : statsLines(marked.out))
  {
    statuses[line.source] = line.status;
    reasons[line.source] = line.reason;
  }
  EXPECT_EQ(statuses[str("art/ship.primitives")], "converted-with-errors");
  // The system's words for the companion, beside the tool's own message ("Is a directory";
  // Windows says "Permission denied").
  EXPECT_FALSE(reasons[str("art/ship.primitives")].empty()) << marked.out;
  EXPECT_EQ(reasons[str("art/boat.primitives")], "");
  EXPECT_EQ(statuses[str("art/boat.primitives")], "converted");
  const auto report = nlohmann::json::parse(readFile(path("report.json")));
  EXPECT_EQ(report["schemaVersion"], 2);
  EXPECT_EQ(report["totals"]["converted"], 1);
  EXPECT_EQ(report["totals"]["convertedWithErrors"], 1);
  const std::string page = readFile(path("report.html"));
  EXPECT_NE(page.find("<h2>Converted with errors (1)</h2>"), std::string::npos);
  EXPECT_NE(page.find("\"converted with errors\""), std::string::npos);
  EXPECT_NE(page.find("<li>the system said: "), std::string::npos);
  EXPECT_TRUE(fs::exists(path("out/art/ship.geometry")));

  // --strict: the model fails, its earlier output stays as it was, nothing of it is cached, and
  // the other model is converted and cached as always.
  const std::string earlier = readFile(path("out/art/ship.geometry"));
  fs::remove(path("out/art/boat.geometry"));
  for (const char* jobs : {"1", "2"})
  {
    SCOPED_TRACE(jobs);
    const RunResult strict = run({"--strict", "--stats", "--keep-going", "-j", jobs, "--cache", str("cache"), "--tree",
                                  str("art"), str("out")});
    EXPECT_EQ(strict.status, 3);
    EXPECT_NE(strict.err.find("ERROR: --strict: " + str("out/art/ship.geometry") +
                              " not written: its conversion logged 2 errors\n"),
              std::string::npos)
      << strict.err;
    EXPECT_NE(strict.err.find("  " + str("art/ship.primitives") + ": "), std::string::npos) << strict.err;
    EXPECT_NE(strict.out.find("stats: " + str("art/ship.primitives") + ": failed "), std::string::npos) << strict.out;
    EXPECT_EQ(readFile(path("out/art/ship.geometry")), earlier);
    EXPECT_TRUE(fs::exists(path("out/art/boat.geometry")));
    size_t entries = 0;
    for (const auto& file : fs::recursive_directory_iterator(path("cache")))
      entries += file.is_regular_file() && file.path().filename().string().find(".tmp") == std::string::npos;
    EXPECT_GE(entries, 1u);
  }
  // Without the broken companion --strict changes nothing.
  fs::remove(path("art/ship.collision"));
  EXPECT_EQ(run({"--strict", "--tree", str("art"), str("out")}).status, 0);
}

// One model's result is the same whichever way it was made: converted here, converted by a
// --keep-going worker, or replayed from a warm cache, apart from the time and the cache field.
TEST_F(VertexmillTool, ConvertedWorkerAndCacheHitReportTheSameResult)
{
  writeFile(path("art/ship.primitives"), validPrimitives({"hull", "turret"}));
  writeFile(path("art/ship.collision"), std::string(100, 'c'));
  writeFile(path("art/sub/boat.primitives"), validPrimitives({"deck"}));
  fs::create_directories(path("out"));

  // The stats lines and report entries without what may differ.
  const auto resultOf = [&](const std::vector<std::string>& options) {
    std::vector<std::string> args = options;
    args.insert(args.end(), {"--stats", "--report", str("report.json"), "--tree", str("art"), str("out")});
    const RunResult result = run(args);
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<std::string> lines;
    for (StatsLine line : statsLines(result.out))
    {
      line.figures.erase("seconds");
      line.figures.erase("cache");
      std::string text = line.source + " " + line.status;
      for (const auto& [name, value] : line.figures)
        text += " " + name + "=" + value;
      lines.push_back(text);
    }
    auto models = nlohmann::json::parse(readFile(path("report.json")))["models"];
    std::vector<std::string> caches;
    for (auto& model : models)
    {
      caches.push_back(model.value("cache", ""));
      model.erase("seconds");
      model.erase("cache");
    }
    return std::make_tuple(lines, models, caches);
  };

  const auto [lines, models, none] = resultOf({});
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(none, (std::vector<std::string>{"", ""}));
  // A run that asks for no figures still keeps them with its results.
  ASSERT_EQ(run({"-q", "--cache", str("cache"), "--tree", str("art"), str("out")}).status, 0);
  for (const auto& [options, cache] : std::vector<std::pair<std::vector<std::string>, std::string>>{
         {{"--cache", str("cache")}, "hit"},
         {{"--cache", str("cache"), "--keep-going", "-j2"}, "hit"},
         {{"--keep-going", "-j2"}, ""},
         {{"--cache", str("cache"), "--report-overdraw"}, "miss"},
       })
  {
    SCOPED_TRACE(options.size() > 2 ? options[2] : options.empty() ? "" : options[0]);
    const auto [otherLines, otherModels, caches] = resultOf(options);
    EXPECT_EQ(caches, (std::vector<std::string>{cache, cache}));
    if (std::find(options.begin(), options.end(), "--report-overdraw") != options.end())
      continue;
    EXPECT_EQ(otherLines, lines);
    EXPECT_EQ(otherModels, models);
  }
  // Overdraw measured once is kept: the next such run hits, with the figures.
  const auto [overdrawLines, overdrawModels, overdrawCaches] =
    resultOf({"--cache", str("cache"), "--report-overdraw"});
  EXPECT_EQ(overdrawCaches, (std::vector<std::string>{"hit", "hit"}));
  EXPECT_TRUE(overdrawModels[0]["renderSets"][0]["after"].contains("overdraw")) << overdrawModels[0];
}

} // namespace
} // namespace vertexmill_test
