// The report page built from report documents made here: what it holds, in what order, and that no
// text from a report can break out of it.

#include "report_page/report_page.hpp"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

namespace
{

using nlohmann::json;

json model(const std::string& source, const std::string& status, double triangles)
{
  return {{"source", source},
          {"output", source + ".geometry"},
          {"status", status},
          {"seconds", 0.5},
          {"renderSets",
           json::array({{{"name", "hull"},
                         {"vertices", 10},
                         {"triangles", triangles},
                         {"before", {{"acmr", 1.5}, {"atvr", 2.0}, {"overdraw", 1.2}, {"overfetch", 2.5}}},
                         {"after", {{"acmr", 0.75}, {"atvr", 1.0}, {"overdraw", 1.1}, {"overfetch", 1.0}}}}})},
          {"warnings", json::array()},
          {"errors", json::array()},
          {"totals", {{"vertices", 10}, {"triangles", triangles}, {"rawBytes", 400}, {"storedBytes", 100}, {"outputBytes", 180}}}};
}

size_t count(const std::string& text, const std::string& part)
{
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++n;
  return n;
}

TEST(ReportPage, FailuresComeFirstAndReportTextCannotEscape)
{
  json report = {{"schema", "vertexmill-report"}, {"tool", {{"name", "vertexmill"}, {"version", "9.9"}}}};
  report["models"] = json::array({model("a.primitives", "converted", 8), model("b</script><script>bad()//.primitives", "failed", 0)});
  report["models"][1]["errors"] = json::array({"ERROR: <b>broken</b> & gone"});
  report["totals"] = {{"models", 2}, {"converted", 1}, {"failed", 1}};

  size_t previewCalls = 0;
  const std::string page = report_page::buildPage(report, [&](const json& m, bool) {
    ++previewCalls;
    return m["status"] == "failed" ? report_page::ModelPreviews()
                                   : report_page::ModelPreviews{{1, 2, 3, 4}, {5, 6}, {7, 8}, {9}};
  });
  EXPECT_EQ(previewCalls, 2u);

  // The page's own script elements and nothing else, whatever the names say.
  EXPECT_EQ(count(page, "<script"), 7u);
  EXPECT_EQ(count(page, "</script>"), 7u);
  EXPECT_NE(page.find("ERROR: &lt;b&gt;broken&lt;/b&gt; &amp; gone"), std::string::npos);
  // Failures are listed before the table of models.
  const size_t failures = page.find("<h2>Failures (1)</h2>");
  ASSERT_NE(failures, std::string::npos);
  EXPECT_LT(failures, page.find("<h2>Models</h2>"));
  // Previews are one base64 line per model ("AQIDBA==" is 1 2 3 4), empty for none.
  EXPECT_NE(page.find("id=\"previews\">\nAQIDBA==\n\n</script>"), std::string::npos);
  // Nothing is fetched: the only URL is the SVG namespace.
  std::string withoutNamespace = std::regex_replace(page, std::regex("xmlns=\"http://www.w3.org/2000/svg\""), "");
  EXPECT_EQ(withoutNamespace.find("http:"), std::string::npos);
  EXPECT_EQ(withoutNamespace.find("https:"), std::string::npos);
  EXPECT_EQ(withoutNamespace.find("//cdn"), std::string::npos);
}

TEST(ReportPage, ABigPageCarriesEveryModeOfTheTroubledAndTheLargestModels)
{
  // One more model than the page carries every mode of: the smallest untroubled one goes without.
  json report = {{"models", json::array()}};
  for (size_t i = 0; i <= report_page::kModePreviewModels; ++i)
    report["models"].push_back(model("m" + std::to_string(i) + ".primitives", "converted", 100.0 + double(i)));
  report["models"][0]["warnings"] = json::array({"WARNING: the smallest, but it has a warning"});
  std::set<std::string> withoutModes;
  (void)report_page::buildPage(report, [&](const json& m, bool allModes) {
    if (!allModes)
      withoutModes.insert(m["source"].get<std::string>());
    return report_page::ModelPreviews();
  });
  EXPECT_EQ(withoutModes, std::set<std::string>{"m1.primitives"});
}

TEST(ReportPage, AnyDocumentGivesAPage)
{
  for (const json& report : {json(), json::array(), json({{"models", 3}}), json({{"models", json::array({1, "x", json()})}}),
                             json({{"models", json::array({{{"totals", "x"}, {"renderSets", json::array({1})}}})}})})
  {
    const std::string page = report_page::buildPage(report, nullptr);
    EXPECT_NE(page.find("</html>"), std::string::npos) << report.dump();
  }
}

TEST(ReportPage, DataUri)
{
  EXPECT_EQ(report_page::pngDataUri({}), "data:image/png;base64,");
  EXPECT_EQ(report_page::pngDataUri({'M'}), "data:image/png;base64,TQ==");
  EXPECT_EQ(report_page::pngDataUri({'M', 'a'}), "data:image/png;base64,TWE=");
  EXPECT_EQ(report_page::pngDataUri({'M', 'a', 'n'}), "data:image/png;base64,TWFu");
}

} // namespace
