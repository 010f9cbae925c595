// What changed between two runs' reports: each kind of change found, small changes ignored, the
// order an artist reads it in, and the same tree from two checkouts matched model by model.
#include "run_report/compare.hpp"

#include <gtest/gtest.h>

namespace
{
using nlohmann::json;

json model(const std::string& source, const std::string& status, double triangles, double bytes)
{
  return {{"source", source},
          {"status", status},
          {"errors", status == "failed" ? json::array({"cannot read it"}) : json::array()},
          {"totals", {{"triangles", triangles}, {"vertices", triangles / 2}, {"outputBytes", bytes}}}};
}

json report(std::vector<json> models)
{
  return {{"schema", "vertexmill-report"}, {"models", models}};
}

std::vector<std::string> listed(const json& changes, const char* field)
{
  std::vector<std::string> values;
  for (const json& entry : changes["models"])
    values.push_back(entry[field].get<std::string>());
  return values;
}
} // namespace

TEST(CompareReports, EachChangeIsFoundAndListedFailuresFirstThenLargestFirst)
{
  // The older run read ~/a/art, the newer one /build/b/art: the same models.
  const json older = report({model("/home/a/art/ship.primitives", "converted", 1000, 5000),
                             model("/home/a/art/crate.primitives", "converted", 100, 800),
                             model("/home/a/art/rock.primitives", "converted", 400, 2000),
                             model("/home/a/art/tree.primitives", "failed", 0, 0),
                             model("/home/a/art/old.primitives", "converted", 10, 100),
                             model("/home/a/art/props/barrel.primitives", "converted", 50, 300)});
  const json newer = report({model("/build/b/art/ship.primitives", "converted", 500, 2600),  // halved
                             model("/build/b/art/crate.primitives", "failed", 0, 0),          // failed since
                             model("/build/b/art/rock.primitives", "up-to-date", 402, 2010), // within 1%
                             model("/build/b/art/tree.primitives", "converted", 30, 90),     // working again
                             model("/build/b/art/new.primitives", "converted", 20, 150),     // added
                             model("/build/b/art/props/barrel.primitives", "converted", 60, 300)}); // +20%
  const json changes = run_report::compareReports(newer, older);

  EXPECT_EQ(changes["counts"]["failedSince"], 1);
  EXPECT_EQ(changes["counts"]["added"], 1);
  EXPECT_EQ(changes["counts"]["removed"], 1);
  EXPECT_EQ(changes["counts"]["fixed"], 1);
  EXPECT_EQ(changes["counts"]["changed"], 2);
  EXPECT_EQ(changes["counts"]["unchanged"], 1);
  EXPECT_EQ(listed(changes, "change"), (std::vector<std::string>{"failed-since", "added", "fixed", "removed",
                                                                 "changed", "changed"}));
  EXPECT_EQ(listed(changes, "source"),
            (std::vector<std::string>{"/build/b/art/crate.primitives", "/build/b/art/new.primitives",
                                      "/build/b/art/tree.primitives", "/home/a/art/old.primitives",
                                      "/build/b/art/ship.primitives", "/build/b/art/props/barrel.primitives"}));
  EXPECT_EQ(changes["models"][0]["messages"], json::array({"cannot read it"}));

  // The halved model names each figure that moved, with its sign.
  const json& ship = changes["models"][4];
  EXPECT_DOUBLE_EQ(ship["size"].get<double>(), 0.5);
  ASSERT_EQ(ship["figures"].size(), 3u);
  EXPECT_EQ(ship["figures"][0]["name"], "triangles");
  EXPECT_DOUBLE_EQ(ship["figures"][0]["relative"].get<double>(), -0.5);
  EXPECT_EQ(ship["figures"][0]["before"], 1000);
  EXPECT_EQ(ship["figures"][0]["after"], 500);

  // A larger threshold hides the smaller change; a report compared with itself has none.
  EXPECT_EQ(run_report::compareReports(newer, older, 0.3)["counts"]["changed"], 1);
  const json same = run_report::compareReports(newer, newer);
  EXPECT_TRUE(same["models"].empty());
  EXPECT_EQ(same["counts"]["unchanged"], 6);
}

TEST(CompareReports, AnythingThatIsNotAReportComparesAsEmpty)
{
  const json one = report({model("art/a.primitives", "converted", 10, 100)});
  for (const json& other : {json(), json::array(), json{{"models", 3}}, json{{"models", json::array({1, "x"})}}})
  {
    EXPECT_EQ(run_report::compareReports(one, other)["counts"]["added"], 1) << other.dump();
    EXPECT_EQ(run_report::compareReports(other, one)["counts"]["removed"], 1) << other.dump();
  }
  // Figures that are missing or not numbers are not compared.
  json odd = one;
  odd["models"][0]["totals"] = {{"triangles", "many"}};
  EXPECT_EQ(run_report::compareReports(odd, one)["counts"]["unchanged"], 1);
}
