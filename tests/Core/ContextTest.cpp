// The process-wide Context (host sink, type registry, environment) and the
// trace machinery it drives.
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "TestUtil.h"

using namespace kora;

TEST(Context, SinkGetsEveryLevelUnchanged) {
  test::LogCapture capture;
  Context::get().log(static_cast<LogLevel>(7), "odd level");
  Context::get().logf(LogLevel::critical, "{} + {}", 1, 2);
  EXPECT_EQ(capture.messages, (std::vector<std::pair<LogLevel, std::string>>{{static_cast<LogLevel>(7), "odd level"},
                                                                             {LogLevel::critical, "1 + 2"}}));
}

// (The thread count stays 1 whatever KORA_THREAD_NUM says: EnvironmentTest.)
TEST(Context, TypeRegistry) {
  Context fresh;
  EXPECT_EQ(fresh.getTypeId("a"), 1000u);
  EXPECT_EQ(fresh.getTypeId("b"), 1001u);
  EXPECT_EQ(fresh.getTypeId("a"), 1000u);
  EXPECT_STREQ(fresh.getTypeStr(1001), "b");
}

TEST(Context, EnvironmentIsReadAtConstruction) {
  // What constructing a Context does with KORA_TRACE_COORD set to `value`:
  // each piece is read as std::stoi reads it, and throws as it does.
  auto traceCoord = [](const char* value) -> std::string {
    value ? setenv("KORA_TRACE_COORD", value, 1) : unsetenv("KORA_TRACE_COORD");
    try {
      return fmt::format("{}", Coord(Context().getTracePoint()));
    } catch (const std::invalid_argument& e) {
      return std::string("invalid_argument ") + e.what();
    } catch (const std::out_of_range& e) {
      return std::string("out_of_range ") + e.what();
    }
  };
  const std::pair<const char*, std::string> cases[] = {
      {nullptr, "[]"}, {"1,0,3,5", "[1, 0, 3, 5]"}, {" 7,-3", "[7, -3]"}, {"4abc,+2", "[4, 2]"},
      {"-2147483648", "[-2147483648]"}, {"0,x", "invalid_argument stoi"}, {"1,", "invalid_argument stoi"},
      {"1,2147483648", "out_of_range stoi"},
  };
  for (const auto& [value, expected] : cases) EXPECT_EQ(traceCoord(value), expected) << (value ? value : "unset");
  unsetenv("KORA_TRACE_COORD");
  for (const char* verbose : {"0", "1", static_cast<const char*>(nullptr)}) {
    verbose ? setenv("KORA_DISPATCHER_VERBOSE", verbose, 1) : unsetenv("KORA_DISPATCHER_VERBOSE");
    EXPECT_EQ(Context().getVerbose(), verbose != nullptr) << "any value, even 0, turns verbose on";
  }
}

TEST(Trace, PointMatchesOnlyInsideTheOutputOfItsRankAndLinesGoToTheDefaultLoggerWhenItListens) {
  const std::pair<std::vector<long>, bool> points[] = {{{}, false}, {{1, 2}, true}, {{0, 0}, true}, {{2, 0}, false},
                                                       {{1, 3}, false}, {{-1, 0}, false}, {{1}, false}, {{1, 2, 0}, false}};
  for (const auto& [point, active] : points) {
    test::ScopedTracePoint scope(point);
    TracePoint tp = TracePoint::forOutput(std::vector<long>{2, 3});
    EXPECT_EQ(bool(tp), active) << fmt::format("{}", Coord(point));
    EXPECT_TRUE(!active || (tp.matches(point) && !tp.matches(std::vector<long>{1, 1})));
  }
  test::LogCapture hostSink;
  int evaluated = 0;
  {
    test::TraceCapture capture;
    Tracer{}("x{} // {} -> {}", Coord(std::vector<long>{2, 0}), 1.5f, half(2.5f));
    NoTrace quiet;
    KORA_TRACE(quiet, "{}", ++evaluated);  // untraced steps do not evaluate their arguments
    Tracer loud;
    KORA_TRACE(loud, "{}{}", ++evaluated, Coord());
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{"x[2, 0] // 1.5 -> 2.5", "1[]"}));
  }
  EXPECT_EQ(evaluated, 1);
  EXPECT_TRUE(hostSink.messages.empty()) << "trace lines are not host messages";
}

TEST(Version, TaggedFormsCarryNameAndValue) {
  const std::string version = KORA_VERSION, hash = KORA_GIT_HASH;
  EXPECT_EQ(std::string(KORA_VERSION_WITH_TAG), "@(KORA_VERSION = \"" + version + "\"");
  EXPECT_EQ(std::string(KORA_GIT_HASH_WITH_TAG), "@(KORA_GIT_HASH = \"" + hash + "\"");
  EXPECT_EQ(std::string(KORA_SOURCE_DATE_EPOCH_WITH_TAG), "@(KORA_SOURCE_DATE_EPOCH = " + std::to_string(KORA_SOURCE_DATE_EPOCH));
}
