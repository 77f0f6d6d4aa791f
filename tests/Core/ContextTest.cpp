#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "TestUtil.h"

using namespace kora;

namespace {

// Sets (or with null, unsets) environment variables for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) saved_ = old, hadValue_ = true;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { hadValue_ ? setenv(name_, saved_.c_str(), 1) : unsetenv(name_); }

 private:
  const char* name_;
  std::string saved_;
  bool hadValue_ = false;
};

}  // namespace

TEST(Context, SinkReceivesEveryLevelUnchanged) {
  test::LogCapture capture;
  Context::get().log(static_cast<LogLevel>(7), "odd level");
  Context::get().warn("careful");
  Context::get().logf(LogLevel::critical, "{} + {}", 1, 2);
  ASSERT_EQ(capture.messages.size(), 3u);
  EXPECT_EQ(uint32_t(capture.messages[0].first), 7u);
  EXPECT_EQ(capture.messages[0].second, "odd level");
  EXPECT_EQ(capture.messages[1], std::make_pair(LogLevel::warn, std::string("careful")));
  EXPECT_EQ(capture.messages[2], std::make_pair(LogLevel::critical, std::string("1 + 2")));
}

TEST(Context, WithoutSinkOnlyKnownLevelsReachTheConsole) {
  testing::internal::CaptureStdout();
  Context::get().log(static_cast<LogLevel>(7), "must not appear");
  Context::get().warn("console warning");
  spdlog::get("console")->flush();
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.find("must not appear"), std::string::npos);
  EXPECT_NE(out.find("console warning"), std::string::npos);
}

TEST(Context, TypeRegistry) {
  Context context;  // a fresh registry
  EXPECT_EQ(context.getTypeId("a"), 1000u);
  EXPECT_EQ(context.getTypeId("b"), 1001u);
  EXPECT_EQ(context.getTypeId("a"), 1000u);
  EXPECT_STREQ(context.getTypeStr(1001), "b");
  EXPECT_EQ(context.getTypeStr(5), nullptr);
}

TEST(Context, SwitchesAndFixedThreadCount) {
  Context& context = Context::get();
  EXPECT_TRUE(context.getEnableVerify());
  context.setEnableVerify(false);
  EXPECT_FALSE(context.getEnableVerify());
  context.setEnableVerify(true);
  context.setNumThreads(8);
  EXPECT_EQ(context.getNumThreads(), 1);
  context.setTracePoint({4, 5});
  EXPECT_EQ(context.getTracePoint().vec(), (std::vector<long>{4, 5}));
  context.setTracePoint({});
  EXPECT_TRUE(context.getTracePoint().empty());
}

TEST(Context, EnvironmentIsReadAtConstruction) {
  struct Case {
    const char* traceCoord;
    std::vector<long> point;
  };
  const Case cases[] = {
      {nullptr, {}},       {"1,0,3,5", {1, 0, 3, 5}}, {"2", {2}},          {" 7,-3", {7, -3}},
      {"4abc,+2", {4, 2}}, {"2147483647", {2147483647}}, {"-2147483648", {-2147483648}},
  };
  for (const Case& c : cases) {
    ScopedEnv env("KORA_TRACE_COORD", c.traceCoord);
    EXPECT_EQ(Context().getTracePoint().vec(), c.point) << (c.traceCoord ? c.traceCoord : "unset");
  }
  ScopedEnv threads("KORA_THREAD_NUM", "8");
  EXPECT_EQ(Context().getNumThreads(), 1);
  {
    ScopedEnv verbose("KORA_DISPATCHER_VERBOSE", "0");
    EXPECT_TRUE(Context().getVerbose());
  }
  {
    ScopedEnv verbose("KORA_DISPATCHER_VERBOSE", nullptr);
    EXPECT_FALSE(Context().getVerbose());
  }
}

TEST(Context, MalformedTracePointThrowsLikeStoi) {
  for (const char* bad : {"0,x", "1,,2", "1,", "", ",1", "x"}) {
    ScopedEnv env("KORA_TRACE_COORD", bad);
    try {
      Context context;
      ADD_FAILURE() << "no throw for \"" << bad << "\"";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "stoi") << bad;
    }
  }
  for (const char* big : {"99999999999", "1,2147483648", "-2147483649"}) {
    ScopedEnv env("KORA_TRACE_COORD", big);
    try {
      Context context;
      ADD_FAILURE() << "no throw for \"" << big << "\"";
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ(e.what(), "stoi") << big;
    }
  }
}
