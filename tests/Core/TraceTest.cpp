#include <gtest/gtest.h>

#include "TestUtil.h"

using namespace kora;
using test::ScopedTracePoint;
using test::TraceCapture;

TEST(TracePoint, MatchesOnlyACoordinateInsideTheOutputOfItsRank) {
  struct Case { std::vector<long> point; bool active; };
  const Case cases[] = {{{}, false}, {{1, 2}, true}, {{0, 0}, true}, {{2, 0}, false},
                        {{1, 3}, false}, {{-1, 0}, false}, {{1}, false}, {{1, 2, 0}, false}};
  for (const Case& c : cases) {
    ScopedTracePoint point(c.point);
    TracePoint tp = TracePoint::forOutput(std::vector<long>{2, 3});
    EXPECT_EQ(bool(tp), c.active) << fmt::format("{}", Coord(c.point));
    if (c.active) {
      EXPECT_TRUE(tp.matches(c.point));
      EXPECT_FALSE(tp.matches(std::vector<long>{1, 1}));
    }
  }
  EXPECT_EQ(fmt::format("fout{}", Coord(std::vector<long>{1, 0, 3})), "fout[1, 0, 3]");
  EXPECT_EQ(fmt::format("{}", Coord()), "[]");
}

TEST(Trace, LinesGoToTheDefaultLoggerOnlyWhenItListens) {
  test::LogCapture hostSink;
  int evaluated = 0;
  {
    TraceCapture capture;
    Tracer{}("x{} // {} -> {}", Coord(std::vector<long>{2}), 1.5f, half(2.5f));
    NoTrace quiet;
    KORA_TRACE(quiet, "{}", ++evaluated);  // untraced steps do not evaluate their arguments
    Tracer loud;
    KORA_TRACE(loud, "{}", ++evaluated);
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{"x[2] // 1.5 -> 2.5", "1"}));
  }
  EXPECT_EQ(evaluated, 1);
  EXPECT_TRUE(hostSink.messages.empty()) << "trace lines are not host messages";
  TraceCapture capture;
  spdlog::default_logger()->set_level(spdlog::level::warn);
  EXPECT_FALSE(traceLoggerActive());
  Tracer{}("fout{} = {}", Coord(std::vector<long>{0}), 1);
  EXPECT_TRUE(capture.lines().empty());
}
