// The pieces of tree mode that the end-to-end tests cannot steer: display text, the console
// router under concurrent logging, the walk order, and models that vanish after the walk.

#include "cstdmf/log_sinks.hpp"
#include "cstdmf/parallel.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "fw/string_utils.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "tool_test_support.hpp"
#include "vertexmill/cache_options.hpp"
#include "vertexmill/console_router.hpp"
#include "vertexmill/display_text.hpp"
#include "vertexmill/exit_status.hpp"
#include "vertexmill/shard.hpp"
#include "vertexmill/tree_run.hpp"
#include "vertexmill/tree_walk.hpp"

#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace vertexmill;

namespace
{

// --- Display text -------------------------------------------------------------------------------

// --- Option values -------------------------------------------------------------------------------

TEST(OptionValues, ShardsCacheSizesAndTimeouts)
{
  EXPECT_EQ(parseShard("1/1")->index, 1u);
  EXPECT_EQ(parseShard("3/65536")->count, 65536u);
  for (const char* bad : {"", "1", "0/2", "3/2", "1/0", "1/65537", "/2", "1/", "a/2", "1/2/3", "-1/2", "1 /2"})
    EXPECT_FALSE(parseShard(bad)) << bad;

  EXPECT_EQ(parseCacheSize("0"), 0u);
  EXPECT_EQ(parseCacheSize("512"), 512u);
  EXPECT_EQ(parseCacheSize("2K"), 2048u);
  EXPECT_EQ(parseCacheSize("3MiB"), 3u << 20);
  EXPECT_EQ(parseCacheSize("1gb"), 1u << 30);
  EXPECT_EQ(parseCacheSize("5T"), uint64_t{5} << 40);
  for (const char* bad : {"", "K", "1X", "1 G", "-1", "16777216T", "1.5G"})
    EXPECT_FALSE(parseCacheSize(bad)) << bad;

  EXPECT_EQ(parseCacheTimeout("1"), 1);
  EXPECT_EQ(parseCacheTimeout("600"), 600);
  for (const char* bad : {"0", "601", "", "10s", "-5"})
    EXPECT_FALSE(parseCacheTimeout(bad)) << bad;
}

TEST(DisplayText, EveryBadByteBecomesOneReplacementCharacter)
{
  for (const std::string text : {"", "plain/ascii", "mod\xC3\xA8le", "\xF0\x9F\x9A\x80", "\xF4\x8F\xBF\xBF"})
    EXPECT_EQ(toDisplayText(text), text);
  const std::string r = "\xEF\xBF\xBD";
  const std::vector<std::pair<std::string, std::string>> cases = {
    {"a\xFF" "b", "a" + r + "b"},
    {"\x80", r},                         // continuation without a lead
    {"x\xC3", "x" + r},                  // cut short at the end
    {"\xE2\x82" "z", r + r + "z"},       // cut short before another character
    {"\xC0\xAF", r + r},                 // overlong '/'
    {"\xED\xA0\x80", r + r + r},         // UTF-16 surrogate
    {"\xF4\x90\x80\x80", r + r + r + r}, // above U+10FFFF
    {"ok\xC3\xA8\xFE\xC3\xA8", "ok\xC3\xA8" + r + "\xC3\xA8"},
  };
  for (const auto& [raw, shown] : cases)
  {
    EXPECT_FALSE(FW::StringUtils::isValidUtf8(raw));
    EXPECT_EQ(toDisplayText(raw), shown);
  }
}

TEST(DisplayText, ControlCharactersFromFilesAreShownAsTheirCodes)
{
  // A format name read from a file may carry an escape sequence that would recolour the console
  // or move its cursor; line ends and tabs of the tool's own messages pass.
  const std::vector<std::pair<std::string, std::string>> cases = {
    {"format '\x1b[31mred\x1b[0m'\n", "format '\\x1b[31mred\\x1b[0m'\n"},
    {"a\rb\bc\x7f", "a\\x0db\\x08c\\x7f"},
    {std::string("nul\0!", 5), "nul\\x00!"},
    {"csi\xC2\x9B" "2J \xC2\xA0kept", "csi\\u009b2J \xC2\xA0kept"},
    {"line\n\tindented", "line\n\tindented"},
    {"\x1b\xFF", "\\x1b\xEF\xBF\xBD"},
  };
  for (const auto& [raw, shown] : cases)
    EXPECT_EQ(toDisplayText(raw), shown) << raw;
}

TEST(DisplayText, TailToWidthKeepsTheEndAndWholeCharacters)
{
  EXPECT_EQ(tailToWidth("abcdefghij", 10), "abcdefghij");
  EXPECT_EQ(tailToWidth("abcdefghijk", 10), "...efghijk");
  EXPECT_EQ(tailToWidth("abcdef", 2), "..");
  // Characters outside ASCII count two columns and are never split.
  EXPECT_EQ(displayWidth("a\xC3\xA8" "b"), 4u);
  EXPECT_EQ(tailToWidth("xxxxx\xC3\xA8\xC3\xA8", 7), "...\xC3\xA8\xC3\xA8");
  EXPECT_EQ(tailToWidth("xxxxx\xC3\xA8\xC3\xA8", 6), "...\xC3\xA8");
}

// --- Console router -----------------------------------------------------------------------------

// Keeps what it is given as "LEVEL|text" lines.
class CollectingSink final : public spdlog::sinks::base_sink<std::mutex>
{
public:
  std::vector<std::string> lines()
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    return m_lines;
  }

protected:
  void sink_it_(const spdlog::details::log_msg& msg) override
  {
    m_lines.push_back(std::to_string(static_cast<int>(msg.level)) + "|" +
                      std::string(msg.payload.data(), msg.payload.size()));
  }
  void flush_() override {}

private:
  std::vector<std::string> m_lines;
};

constexpr auto kInfo = spdlog::level::level_enum(2);
constexpr auto kWarning = spdlog::level::level_enum(4);
constexpr auto kError = spdlog::level::level_enum(5);
constexpr auto kCritical = spdlog::level::level_enum(6);

struct RouterFixture
{
  RouterFixture()
  {
    sink->set_level(kWarning);
    logger.set_level(kInfo);
  }
  std::shared_ptr<CollectingSink> sink = std::make_shared<CollectingSink>();
  std::shared_ptr<ConsoleRouter> router =
    std::make_shared<ConsoleRouter>(std::vector<std::shared_ptr<spdlog::sinks::sink>>{sink});
  spdlog::logger logger{"test", router};
};

TEST(ConsoleRouter, ModelMessagesWaitForTheReplayAndOthersPassStraightThrough)
{
  RouterFixture f;
  ModelLog log;
  {
    const cstdmf::ScopedWorkContext context(&log);
    f.logger.log(kWarning, "model warning \xFF");
    f.logger.log(kInfo, "model info"); // no console sink shows INFO: not kept
    f.logger.log(kError, "first error\nsecond line");
    f.logger.log(kError, "second error");
  }
  f.logger.log(kError, "outside \xC3(");
  EXPECT_EQ(f.sink->lines(), std::vector<std::string>{"5|outside \xEF\xBF\xBD("});
  EXPECT_EQ(log.firstError(), "first error");

  f.router->replay(log);
  EXPECT_EQ(f.sink->lines(), (std::vector<std::string>{"5|outside \xEF\xBF\xBD(", "4|model warning \xEF\xBF\xBD",
                                                       "5|first error\nsecond line", "5|second error"}));
  // A log is replayed once.
  f.router->replay(log);
  EXPECT_EQ(f.sink->lines().size(), 4u);

  // Quiet: nothing is kept, but the first error is still known for the summary.
  auto quiet = std::make_shared<ConsoleRouter>(std::vector<std::shared_ptr<spdlog::sinks::sink>>{});
  spdlog::logger quietLogger("quiet", quiet);
  ModelLog quietLog;
  {
    const cstdmf::ScopedWorkContext context(&quietLog);
    quietLogger.log(kError, "bad \xFF name");
  }
  EXPECT_EQ(quietLog.firstError(), "bad \xEF\xBF\xBD name");
  EXPECT_TRUE(quietLog.takeRecords().empty());
}

TEST(ConsoleRouter, CriticalMessageBringsOutTheModelsLinesFirst)
{
  RouterFixture f;
  ModelLog log;
  {
    const cstdmf::ScopedWorkContext context(&log);
    f.logger.log(kWarning, "before");
    f.logger.log(kCritical, "ASSERTION FAILED: x");
  }
  EXPECT_EQ(f.sink->lines(), (std::vector<std::string>{"4|before", "6|ASSERTION FAILED: x"}));
  f.router->replay(log);
  EXPECT_EQ(f.sink->lines().size(), 2u);
}

TEST(ConsoleRouter, ThreadsStartedForAModelLogIntoItsLog)
{
  // Several "models" at once, each splitting its work over threads as the compiler does; every
  // message must land in its own model's log and nothing on the console before the replay.
  RouterFixture f;
  constexpr int kModels = 6;
  constexpr size_t kItems = 40;
  std::vector<ModelLog> logs(kModels);
  std::vector<std::thread> threads;
  for (int m = 0; m < kModels; ++m)
  {
    threads.emplace_back([&, m] {
      const cstdmf::ScopedWorkContext context(&logs[m]);
      f.logger.log(kWarning, "model {} start", m);
      cstdmf::parallelFor(kItems, 4, [&](size_t i) { f.logger.log(kWarning, "model {} item {}", m, i); });
      f.logger.log(kWarning, "model {} end", m);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_TRUE(f.sink->lines().empty());

  for (int m = 0; m < kModels; ++m)
    f.router->replay(logs[m]);
  const std::vector<std::string> lines = f.sink->lines();
  ASSERT_EQ(lines.size(), kModels * (kItems + 2));
  for (int m = 0; m < kModels; ++m)
  {
    const size_t first = m * (kItems + 2);
    EXPECT_EQ(lines[first], "4|model " + std::to_string(m) + " start");
    EXPECT_EQ(lines[first + kItems + 1], "4|model " + std::to_string(m) + " end");
    std::vector<bool> seen(kItems, false);
    for (size_t i = 1; i <= kItems; ++i)
    {
      const std::string prefix = "4|model " + std::to_string(m) + " item ";
      ASSERT_EQ(lines[first + i].rfind(prefix, 0), 0u) << lines[first + i];
      seen[std::stoul(lines[first + i].substr(prefix.size()))] = true;
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), static_cast<long>(kItems));
  }
}

// --- Walk and runner ----------------------------------------------------------------------------

class TreeSupport : public ::testing::Test
{
protected:
  void SetUp() override
  {
    static std::atomic<int> s_counter{0};
    m_root = fs::temp_directory_path() / ("vertexmill_tree_" + std::to_string(platform::processId()) + "_" +
                                          std::to_string(s_counter++));
    fs::remove_all(m_root);
    fs::create_directories(m_root);
  }
  void TearDown() override
  {
    std::error_code error;
    fs::remove_all(m_root, error);
  }

  void touch(const std::string& relative, const std::string& bytes = "x")
  {
    const fs::path path = m_root / relative;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
  }

  fs::path m_root;
};

std::vector<fs::path> referenceWalk(const fs::path& root)
{
  std::vector<fs::path> found;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root))
  {
    if (fs::is_regular_file(entry.status()) && entry.path().extension() == ".primitives")
      found.push_back(entry.path());
  }
  return found;
}

TEST_F(TreeSupport, WalkListsModelsInTheOrderOfARecursiveIteration)
{
  for (const char* name : {"a.primitives", "b.txt", "sub/c.primitives", "sub/deeper/d.primitives", "sub/e.PRIMITIVES",
                           "z/y/x/w.primitives", "z/v.primitives", "dir.primitives/inner.primitives",
                           "m.primitives.bak"})
    touch(name);
  fs::create_directories(m_root / "empty");
  std::vector<fs::path> models;
  std::string error;
  ASSERT_TRUE(listModels(m_root, models, nullptr, error)) << error;
  EXPECT_EQ(models, referenceWalk(m_root));
  EXPECT_EQ(models.size(), 6u);
}

TEST_F(TreeSupport, WalkHandlesVeryDeepTrees)
{
#ifdef __MINGW32__
  GTEST_SKIP() << "MinGW's std::filesystem lists no directory whose path is longer than MAX_PATH";
#endif
  // Six hundred levels: the walk itself has no depth limit and keeps no directory open while it
  // descends.
  fs::path deep = m_root;
  for (int level = 0; level < 600; ++level)
    deep /= "d";
  std::error_code error;
  fs::create_directories(deep, error);
  ASSERT_FALSE(error) << error.message();
  std::ofstream(deep / "bottom.primitives") << "x";

  std::vector<fs::path> models;
  std::string text;
  ASSERT_TRUE(listModels(m_root, models, nullptr, text)) << text;
  EXPECT_EQ(models, std::vector<fs::path>{deep / "bottom.primitives"});
}

// Models listed by the walk that are gone when their turn comes.
class RunnerFixture : public TreeSupport
{
protected:
  void SetUp() override
  {
    TreeSupport::SetUp();
    Moo::PrimitiveVertexFormat::init(0);
    cstdmf::resetLogging();
    m_sink->set_level(kWarning);
    cstdmf::appLogger().sinks().push_back(m_sink);
    m_router = installConsoleRouter();
  }
  void TearDown() override
  {
    cstdmf::resetLogging();
    Moo::PrimitiveVertexFormat::fini();
    TreeSupport::TearDown();
  }

  std::shared_ptr<CollectingSink> m_sink = std::make_shared<CollectingSink>();
  std::shared_ptr<ConsoleRouter> m_router;
};

TEST_F(RunnerFixture, ModelsRemovedAfterTheWalkFailCleanly)
{
  const std::string model = vertexmill_test::validPrimitives();
  ASSERT_FALSE(model.empty());
  for (const char* name : {"src/a.primitives", "src/b.primitives", "src/c.primitives", "src/d.primitives"})
    touch(name, model);
  ModelList list;
  list.sourceRoot = m_root / "src";
  list.outputRoot = m_root / "out" / "src";
  std::string error;
  ASSERT_TRUE(listModels(list.sourceRoot, list.sources, &list.sizes, error)) << error;
  ASSERT_EQ(list.sources.size(), 4u);
  const fs::path removed = list.sources[1];
  fs::remove(removed);

  for (const unsigned jobs : {1u, 3u})
  {
    for (const bool keepGoing : {false, true})
    {
      fs::remove_all(m_root / "out");
      const size_t linesBefore = m_sink->lines().size();
      TreeRunOptions options;
      options.jobs = jobs;
      options.keepGoing = keepGoing;
      EXPECT_EQ(convertModels(list, options, *m_router), kExitFailed);

      const std::vector<std::string> all = m_sink->lines();
      const std::vector<std::string> lines(all.begin() + static_cast<long>(linesBefore), all.end());
      ASSERT_FALSE(lines.empty());
      EXPECT_NE(lines.front().find(cstdmf::toUtf8(removed)), std::string::npos) << lines.front();
      EXPECT_TRUE(fs::exists(list.outputFor(0))) << jobs;
      EXPECT_FALSE(fs::exists(list.outputFor(1)));
      if (keepGoing)
      {
        EXPECT_TRUE(fs::exists(list.outputFor(2)) && fs::exists(list.outputFor(3)));
        EXPECT_EQ(lines.back().rfind("5|1 of 4 models failed to convert:\n  " + cstdmf::toUtf8(removed) + ": ", 0), 0u)
          << lines.back();
      }
      else if (jobs == 1)
      {
        EXPECT_FALSE(fs::exists(list.outputFor(2)) || fs::exists(list.outputFor(3)));
      }
    }
  }
}

} // namespace
