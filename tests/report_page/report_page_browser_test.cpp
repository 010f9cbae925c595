// The report page in a real browser (headless Chromium): it loads from a file URL with no console
// message and no request of its own, its table sorts and filters, and a screenshot shows something.
// The page's self-check runs when its URL ends in "#selftest" and leaves its findings in
// <pre id="selftest"> as JSON, which --dump-dom prints.

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "preview/png_image.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>

namespace
{
namespace fs = std::filesystem;

const fs::path kSource = VERTEXMILL_SOURCE_DIR;
constexpr const char* kChromium = "/usr/bin/chromium";

std::string slurp(const fs::path& path)
{
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int run(const std::string& tool, const std::vector<std::string>& args, const fs::path& out, const fs::path& err)
{
  const auto status = platform::runProcess(tool, args, {cstdmf::toUtf8(out), cstdmf::toUtf8(err), ""});
  return status ? *status : -1000;
}

// Requests the browser makes for itself (updates, time, accounts) even with background networking
// off; anything else in the network log came from the page.
bool browserOwnHost(const std::string& url)
{
  static const std::regex kOwn(R"(^https?://([a-z0-9-]+\.)*(google\.com|googleapis\.com|gvt1\.com|gstatic\.com)(/|:|$))");
  return std::regex_search(url, kOwn);
}

class ReportPageBrowser : public testing::Test
{
protected:
  void SetUp() override
  {
    if (!fs::exists(kChromium))
      GTEST_FAIL() << kChromium << " is missing: scripts/install-deps.sh installs it";
    m_dir = fs::temp_directory_path() / ("vertexmill-page-" + std::to_string(platform::processId()));
    fs::remove_all(m_dir);
    fs::create_directories(m_dir / "out");
    // The examples and one model that cannot be converted.
    fs::copy(kSource / "examples", m_dir / "src", fs::copy_options::recursive);
    std::ofstream(m_dir / "src" / "props" / "broken.primitives", std::ios::binary) << "not a container";
  }
  void TearDown() override
  {
    std::error_code ignored;
    fs::remove_all(m_dir, ignored);
  }

  // Runs the browser on the page; returns standard output, keeps standard error in `log`.
  std::string browse(const std::string& url, const std::vector<std::string>& extra, std::string& log)
  {
    const fs::path profile = m_dir / ("profile" + std::to_string(m_runs++));
    std::vector<std::string> args = {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                                     "--user-data-dir=" + profile.string(), "--enable-logging=stderr", "--v=0",
                                     "--virtual-time-budget=5000"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(url);
    const fs::path out = m_dir / "browser-out.txt", err = m_dir / "browser-err.txt";
    EXPECT_EQ(run(kChromium, args, out, err), 0);
    log = slurp(err);
    return slurp(out);
  }

  fs::path m_dir;
  int m_runs = 0;
};

TEST_F(ReportPageBrowser, LoadsSortsFiltersAndShows)
{
  const fs::path page = m_dir / "page.html";
  const fs::path report = m_dir / "report.json";
  const fs::path logs = m_dir / "vertexmill-out.txt";
  ASSERT_EQ(run(VERTEXMILL, {"--tree", "--keep-going", "--src-path", (m_dir / "src").string(), "--dst-path",
                             (m_dir / "out").string(), "--lods", "2", "--report", report.string(), "--report-html",
                             page.string()},
                logs, m_dir / "vertexmill-err.txt"),
            3);

  // The inspector makes the same page from the JSON report.
  const fs::path again = m_dir / "again.html";
  ASSERT_EQ(run(GEOMETRY_INSPECT, {"--report-html", again.string(), report.string()}, m_dir / "inspect-out.txt",
                m_dir / "inspect-err.txt"),
            0)
    << slurp(m_dir / "inspect-err.txt");
  EXPECT_TRUE(slurp(again) == slurp(page)) << "the two pages differ: " << again.string() << ", " << page.string();

  const std::string url = "file://" + fs::absolute(page).generic_string();
  std::string log;
  const std::string dom = browse(
    url + "#selftest", {"--log-net-log=" + (m_dir / "net.json").string(), "--window-size=1280,900", "--dump-dom"}, log);
  // Found by hand: std::regex recurses once per character, and the page's text runs to megabytes.
  const std::string opening = "<pre id=\"selftest\">";
  const size_t start = dom.find(opening);
  const size_t end = start == std::string::npos ? start : dom.find("</pre>", start);
  ASSERT_NE(end, std::string::npos) << dom.substr(0, 2000) << log;
  const std::string checkText = dom.substr(start + opening.size(), end - start - opening.size());
  const nlohmann::json check = nlohmann::json::parse(checkText, nullptr, false);
  ASSERT_TRUE(check.is_object()) << checkText;
  EXPECT_EQ(check["models"], 6); // the five example models and the broken one
  EXPECT_EQ(check["sortedDescending"], true);
  EXPECT_EQ(check["tableFits"], true); // every column in view at 1,280 pixels
  EXPECT_EQ(check["lastRowDrawn"], true);
  EXPECT_EQ(check["largest"], (m_dir / "src" / "creatures" / "jumper.primitives").string());
  EXPECT_EQ(check["filterMatches"], 1);
  EXPECT_EQ(check["filterRowsDrawn"], 1);
  EXPECT_EQ(check["filterNone"], 0);
  EXPECT_EQ(check["detailImages"], 1);
  // Previews big enough to judge, labelled; a thumbnail shows its preview at full size on hover.
  EXPECT_EQ(check["detailImageSize"], 256);
  // What a model holds: its status, output and companions; each render set's format, stride,
  // skinning with its bones, size and texel density.
  EXPECT_NE(check["detailFacts"].get<std::string>().find("written to "), std::string::npos) << check.dump();
  ASSERT_EQ(check["setFacts"].size(), 5u) << check.dump();
  EXPECT_FALSE(check["setFacts"][0].get<std::string>().empty()) << check.dump();
  const std::string skinning = check["setFacts"][2];
  EXPECT_TRUE(skinning == "no" || std::regex_match(skinning, std::regex("yes, [0-9]+ bones?"))) << check.dump();
  EXPECT_TRUE(std::regex_match(check["setFacts"][3].get<std::string>(), std::regex("[0-9.e+-]+( \u00d7 [0-9.e+-]+){2}")))
    << check.dump();
  EXPECT_EQ(check["detailCaption"].get<std::string>().rfind("after optimisation", 0), 0u) << check.dump();
  EXPECT_EQ(check["thumbTipSize"], 256);
  // The detail switches between the render sets, the wireframe, the texel density and the vertex
  // cache before and after: four different pictures, each labelled with its mode and its moment.
  ASSERT_EQ(check["modeCaptions"].size(), 4u) << check.dump();
  const char* modes[] = {"render sets", "wireframe", "UV density", "vertex cache"};
  std::set<std::string> pictures;
  for (size_t k = 0; k < 4; ++k)
  {
    EXPECT_NE(check["modeCaptions"][k].get<std::string>().find(modes[k]), std::string::npos) << check.dump();
    EXPECT_EQ(check["modePictures"][k].get<std::string>().rfind("data:image/png;base64,", 0), 0u);
    pictures.insert(check["modePictures"][k].get<std::string>());
  }
  EXPECT_EQ(pictures.size(), 4u);
  EXPECT_EQ(check["modeCaptions"][3].get<std::string>().rfind("before (left) and after (right)", 0), 0u);
  // A model's levels of detail are shown beside it, each with its own preview.
  EXPECT_EQ(check["chainLevels"], 2);
  EXPECT_EQ(check["chainImages"], 3);
  // A plot names the model under the pointer and opens it on a click.
  ASSERT_TRUE(check["plotModel"].is_string()) << check.dump();
  EXPECT_EQ(check["plotTip"].get<std::string>().rfind(check["plotModel"].get<std::string>() + ": ", 0), 0u) << check.dump();
  EXPECT_EQ(check["plotOpened"], check["plotModel"]);
  EXPECT_EQ(check["problems"], nlohmann::json::array());
  EXPECT_TRUE(dom.find("Failures (1)") != std::string::npos);

  // No console message of any kind, and no network request (a file URL itself never reaches the
  // network log).
  EXPECT_EQ(log.find(":CONSOLE"), std::string::npos) << log;
  const std::string net = slurp(m_dir / "net.json");
  ASSERT_FALSE(net.empty());
  const std::regex urlPattern("\"url\":\"([^\"]*)\"");
  for (auto it = std::sregex_iterator(net.begin(), net.end(), urlPattern); it != std::sregex_iterator(); ++it)
  {
    const std::string requested = (*it)[1].str();
    EXPECT_TRUE(browserOwnHost(requested)) << requested;
  }

  // A link to a model (by its source path) opens its detail in the mode it names.
  const std::string jumper = (m_dir / "src" / "creatures" / "jumper.primitives").generic_string();
  const std::string linked = browse(url + "#model=" + jumper + "&mode=wireframe", {"--dump-dom"}, log);
  EXPECT_NE(linked.find("<h3>" + jumper), std::string::npos) << log;
  EXPECT_NE(linked.find("after optimisation \u00b7 wireframe"), std::string::npos) << log;

  // Screenshots at the narrowest and widest screens the page is made for, with the summary, the
  // table and previews in them: many colours, not a blank page.
  for (const unsigned width : {1280u, 1920u})
  {
    SCOPED_TRACE(width);
    const fs::path shot = m_dir / ("shot-" + std::to_string(width) + ".png");
    (void)browse(url, {"--hide-scrollbars", "--window-size=" + std::to_string(width) + ",900", "--screenshot=" + shot.string()},
                 log);
    const std::string bytes = slurp(shot);
    preview::Image image;
    std::string error;
    ASSERT_TRUE(preview::decodePng(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), image, error))
      << error << log;
    EXPECT_EQ(image.width, width);
    std::set<uint32_t> colours;
    size_t notBackground = 0;
    for (size_t i = 0; i < image.rgb.size(); i += 3)
    {
      const uint32_t colour = (uint32_t(image.rgb[i]) << 16) | (uint32_t(image.rgb[i + 1]) << 8) | image.rgb[i + 2];
      colours.insert(colour);
      notBackground += colour != 0xF6F8FA;
    }
    EXPECT_GT(colours.size(), 100u);
    EXPECT_GT(notBackground, image.rgb.size() / 3 / 10);
  }
}

} // namespace
