#include "cstdmf/critical_error.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/log_sinks.hpp"
#include "cstdmf/single_level_stdout_logger.hpp"
#include "fatal_exit_status.hpp"

#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>

#include <sstream>

namespace
{

// Captures what a sink with the given pattern and level would print.
struct CapturedSink
{
  std::ostringstream stream;
  std::shared_ptr<spdlog::sinks::ostream_sink_mt> sink;

  CapturedSink(const std::string& pattern, DebugMessagePriority level)
    : sink(std::make_shared<spdlog::sinks::ostream_sink_mt>(stream))
  {
    sink->set_formatter(cstdmf::makeFormatter(pattern));
    sink->set_level(static_cast<spdlog::level::level_enum>(level));
    cstdmf::appLogger().sinks().push_back(sink);
  }
  ~CapturedSink() { cstdmf::resetLogging(); }
};

TEST(Priority, NamesAndNumbers)
{
  EXPECT_EQ(cstdmf::priorityName(DebugMessagePriority::Trace), "TRACE");
  EXPECT_EQ(cstdmf::priorityName(DebugMessagePriority::Notice), "NOTICE");
  EXPECT_EQ(cstdmf::priorityName(DebugMessagePriority::Warning), "WARNING");
  EXPECT_EQ(cstdmf::priorityName(DebugMessagePriority::Hack), "HACK");
  EXPECT_EQ(cstdmf::priorityName(DebugMessagePriority::Asset), "ASSET");
  EXPECT_EQ(cstdmf::priorityName(DebugMessagePriority::Off), "OFF");
  EXPECT_EQ(static_cast<int>(DebugMessagePriority::Asset), 8);
}

TEST(Logging, EveryLevelPrintsItsOwnName)
{
  CapturedSink capture("%l|%v", DebugMessagePriority::Trace);
  cstdmf::appLogger().set_level(spdlog::level::trace);
  ZR_MSG(DebugMessagePriority::Notice, "Other", "n=%d", 3);
  ZR_MSG(DebugMessagePriority::Hack, "Other", "h");
  ZR_MSG(DebugMessagePriority::Asset, "Other", "a");
  ZR_MSG_FMT(DebugMessagePriority::Error, "Other", "bad argument: {}", "x");
  EXPECT_EQ(capture.stream.str(), "NOTICE|n=3\nHACK|h\nASSET|a\nERROR|bad argument: x\n");
}

TEST(Logging, BelowLoggerLevelIsDropped)
{
  CapturedSink capture("%v", DebugMessagePriority::Trace);
  ZR_MSG(DebugMessagePriority::Debug, "Other", "dropped");
  ZR_MSG(DebugMessagePriority::Info, "Other", "kept");
  EXPECT_EQ(capture.stream.str(), "kept\n");
}

TEST(Logging, CategoryFlag)
{
  CapturedSink capture("%l: %*%v", DebugMessagePriority::Trace);
  ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinSection: Can't save a section without a parent.\n");
  ZR_MSG(DebugMessagePriority::Warning, "", "plain");
  EXPECT_EQ(capture.stream.str(),
            "ERROR: [ResMgr] BinSection: Can't save a section without a parent.\n\nWARNING: plain\n");
}

TEST(Logging, LongMessagesAreNotCut)
{
  CapturedSink capture("%v", DebugMessagePriority::Trace);
  const std::string longText(5000, 'x');
  ZR_MSG(DebugMessagePriority::Error, "", "%s", longText.c_str());
  EXPECT_EQ(capture.stream.str(), longText + "\n");
}

TEST(ElapsedTime, TruncatesToMilliseconds)
{
  EXPECT_EQ(cstdmf::ElapsedTimeFormatter::formatTicks(12345000), "1.234");
  EXPECT_EQ(cstdmf::ElapsedTimeFormatter::formatTicks(12349999), "1.234");
  EXPECT_EQ(cstdmf::ElapsedTimeFormatter::formatTicks(9999), "0.000");
  EXPECT_EQ(cstdmf::ElapsedTimeFormatter::formatTicks(-50000), "0.000");
  EXPECT_EQ(cstdmf::ElapsedTimeFormatter::formatTicks(600000000), "60.000");
}

TEST(ElapsedTime, DebuggerPatternLine)
{
  CapturedSink capture(cstdmf::kDebuggerPattern, DebugMessagePriority::Trace);
  ZR_MSG(DebugMessagePriority::Error, "ResMgr", "boom\n");
  const std::string line = capture.stream.str();
  // "[<thread>]0.000 ERROR: [ResMgr] boom\n\n"
  ASSERT_EQ(line.front(), '[');
  const size_t close = line.find(']');
  ASSERT_NE(close, std::string::npos);
  EXPECT_EQ(line.substr(close + 1), "0.000 ERROR: [ResMgr] boom\n\n");
}

TEST(ConsoleModes, QuietDefaultVerbose)
{
  for (int mode : {0, 1, 2})
  {
    cstdmf::resetLogging();
    cstdmf::setupConsoleLogging(mode);
    const size_t expectedSinks = mode == 0 ? 1 : mode == 1 ? 2 : 3;
    EXPECT_EQ(cstdmf::appLogger().sinks().size(), expectedSinks) << "mode " << mode;
  }
  cstdmf::resetLogging();
}

TEST(ConsoleModes, SingleLevelSinkPassesOnlyItsLevel)
{
  testing::internal::CaptureStdout();
  {
    auto sink = std::make_shared<cstdmf::SingleLevelStdoutLogger>();
    sink->set_formatter(cstdmf::makeFormatter("%v"));
    sink->set_level(spdlog::level::info);
    cstdmf::appLogger().sinks().push_back(sink);
    cstdmf::appLogger().set_level(spdlog::level::trace);
    ZR_MSG(DebugMessagePriority::Info, "", "info line");
    ZR_MSG(DebugMessagePriority::Notice, "", "notice line");
    ZR_MSG(DebugMessagePriority::Error, "", "error line");
    cstdmf::appLogger().flush();
    cstdmf::resetLogging();
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "info line\n");
}

using AssertionDeathTest = testing::Test;

TEST_F(AssertionDeathTest, FailedAssertionEndsWithMinusOneAndCriticalLine)
{
  EXPECT_EXIT(
    {
      cstdmf::setupConsoleLogging(1);
      int value = 2;
      ZR_ASSERT(value == 3);
    },
    testing::ExitedWithCode(kFatalExitStatus), "CRITICAL: ASSERTION FAILED: value == 3\n");
}

TEST_F(AssertionDeathTest, QuietModePrintsNothing)
{
  EXPECT_EXIT(ZR_ASSERT(1 + 1 == 3), testing::ExitedWithCode(kFatalExitStatus), "^$");
}

struct ReturningHandler final : cstdmf::CriticalErrorHandler
{
  void handle(const char* text, const cstdmf::SourceLocation&) override { std::fprintf(stderr, "handled<%s>", text); }
};

TEST_F(AssertionDeathTest, InstalledHandlerRunsOnceThenProcessEnds)
{
  EXPECT_EXIT(
    {
      static ReturningHandler handler;
      cstdmf::setCriticalErrorHandler(&handler);
      ZR_CRITICAL_ERROR("first");
    },
    testing::ExitedWithCode(kFatalExitStatus), "handled<first>");
}

} // namespace
