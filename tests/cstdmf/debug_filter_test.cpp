#include "cstdmf/debug_filter.hpp"

#include "cstdmf/critical_error.hpp"
#include "cstdmf/log_sinks.hpp"
#include "fatal_exit_status.hpp"
#include "log_capture.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace
{

struct Recorder final : cstdmf::ScopedMessageWatcher
{
  explicit Recorder(std::vector<std::string>& seen, std::string name) : m_seen(seen), m_name(std::move(name)) {}
  void onMessage(DebugMessagePriority priority, std::string_view category, std::string_view text) override
  {
    m_seen.push_back(m_name + ":" + std::string(cstdmf::priorityName(priority)) + ":" + std::string(category) + ":" +
                     std::string(text));
  }
  std::vector<std::string>& m_seen;
  std::string m_name;
};

// The filter decides for the watchers and the sinks alike; the logger's own level still applies
// under it.
TEST(DebugFilter, SeverityGatesWatchersAndSinks)
{
  testutil::LogCapture capture("%l|%v");
  std::vector<std::string> seen;
  Recorder recorder(seen, "r");
  cstdmf::DebugFilter& filter = cstdmf::DebugFilter::instance();

  filter.setupBySeverity(DebugMessagePriority::Error);
  EXPECT_FALSE(filter.shouldAccept(DebugMessagePriority::Warning, "ResMgr"));
  EXPECT_TRUE(filter.shouldAccept(DebugMessagePriority::Error, ""));
  ZR_MSG(DebugMessagePriority::Warning, "ResMgr", "w");
  ZR_MSG(DebugMessagePriority::Critical, "ResMgr", "c");
  EXPECT_EQ(capture.take(), "CRITICAL|c\n");

  filter.setupDefault();
  EXPECT_TRUE(filter.shouldAccept(DebugMessagePriority::Info, "Other"));
  EXPECT_FALSE(filter.shouldAccept(DebugMessagePriority::Debug, "Other")); // the logger's INFO level
  ZR_MSG(DebugMessagePriority::Debug, "Other", "d");
  ZR_MSG_FMT(DebugMessagePriority::Warning, "Other", "w{}", 2);
  EXPECT_EQ(capture.take(), "WARNING|w2\n");
  EXPECT_EQ(seen, (std::vector<std::string>{"r:CRITICAL:ResMgr:c", "r:WARNING:Other:w2"}));
}

TEST(DebugFilter, WatchersNestAndBelongToTheirThread)
{
  std::vector<std::string> seen;
  {
    Recorder outer(seen, "outer");
    {
      Recorder inner(seen, "inner");
      ZR_MSG(DebugMessagePriority::Error, "", "one");
    }
    ZR_MSG(DebugMessagePriority::Error, "", "two");

    // Another thread's messages are not this thread's watchers' business.
    std::vector<std::string> otherSeen;
    std::thread([&] {
      Recorder other(otherSeen, "other");
      ZR_MSG(DebugMessagePriority::Error, "", "three");
    }).join();
    EXPECT_EQ(otherSeen, std::vector<std::string>{"other:ERROR::three"});
  }
  ZR_MSG(DebugMessagePriority::Error, "", "four");
  EXPECT_EQ(seen, (std::vector<std::string>{"inner:ERROR::one", "outer:ERROR::one", "outer:ERROR::two"}));

  // Explicit adding and removing, several at once; removing one never added does nothing.
  struct Plain final : cstdmf::ScopedMessageWatcher
  {
    int count = 0;
    void onMessage(DebugMessagePriority, std::string_view, std::string_view) override { ++count; }
  } a, b;
  cstdmf::DebugFilter& filter = cstdmf::DebugFilter::instance();
  filter.addWatchers({&a, &b}); // now each is in the list twice
  ZR_MSG(DebugMessagePriority::Error, "", "x");
  filter.removeWatchers({&a, &b, nullptr});
  ZR_MSG(DebugMessagePriority::Error, "", "y");
  EXPECT_EQ(a.count, 3);
  EXPECT_EQ(b.count, 3);
}

// Prints what the critical-error path was given, so a death test can match it without any sink
// (making a sink would make the logger, and with it the settings).
struct PrintingHandler final : cstdmf::CriticalErrorHandler
{
  void handle(const char* text, const cstdmf::SourceLocation&) override { std::fprintf(stderr, "<%s>", text); }
};

TEST(DebugFilterDeathTest, ConfigBeforeTheLoggerIsAnAssertion)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe"); // a fresh process: nothing logged yet
  EXPECT_EXIT(
    {
      static PrintingHandler handler;
      cstdmf::setCriticalErrorHandler(&handler);
      (void)cstdmf::DebugConfig::instance();
    },
    testing::ExitedWithCode(kFatalExitStatus),
    "<ASSERTION FAILED: storage\\.has_value\\(\\) && \"before debug helpers init\"\n>");
}

TEST(DebugFilterDeathTest, DevelopmentAssertionIsFatal)
{
  EXPECT_EXIT(
    {
      static PrintingHandler handler;
      cstdmf::setCriticalErrorHandler(&handler);
      const int value = 2;
      ZR_ASSERT_DEV(value == 3);
    },
    testing::ExitedWithCode(kFatalExitStatus), "^<MF_ASSERT_DEV FAILED: value == 3\n>$");
}

} // namespace
