#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "TestUtil.h"

using namespace kora;

namespace {

// Sets (or with null, unsets) an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name), had_(std::getenv(name) != nullptr) {
    if (had_) saved_ = std::getenv(name);
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { had_ ? setenv(name_, saved_.c_str(), 1) : unsetenv(name_); }

 private:
  const char* name_;
  bool had_;
  std::string saved_;
};

}  // namespace

TEST(Context, SinkGetsEveryLevelUnchangedAndTheConsoleOnlyKnownOnes) {
  {
    test::LogCapture capture;
    Context::get().log(static_cast<LogLevel>(7), "odd level");
    Context::get().warn("careful");
    Context::get().logf(LogLevel::critical, "{} + {}", 1, 2);
    EXPECT_EQ(capture.messages, (std::vector<std::pair<LogLevel, std::string>>{
                                    {static_cast<LogLevel>(7), "odd level"},
                                    {LogLevel::warn, "careful"},
                                    {LogLevel::critical, "1 + 2"}}));
  }
  testing::internal::CaptureStdout();
  Context::get().log(static_cast<LogLevel>(7), "must not appear");
  Context::get().warn("console warning");
  spdlog::get("console")->flush();
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.find("must not appear"), std::string::npos);
  EXPECT_NE(out.find("console warning"), std::string::npos);
}

TEST(Context, TypeRegistrySwitchesAndFixedThreadCount) {
  Context fresh;
  EXPECT_EQ(fresh.getTypeId("a"), 1000u);
  EXPECT_EQ(fresh.getTypeId("b"), 1001u);
  EXPECT_EQ(fresh.getTypeId("a"), 1000u);
  EXPECT_STREQ(fresh.getTypeStr(1001), "b");
  EXPECT_EQ(fresh.getTypeStr(5), nullptr);
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
  // What constructing a Context does with KORA_TRACE_COORD set to `value`:
  // malformed coordinates throw as std::stoi does, out-of-range ones too.
  auto traceCoord = [](const char* value) -> std::string {
    ScopedEnv env("KORA_TRACE_COORD", value);
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
      {"2147483647", "[2147483647]"}, {"-2147483648", "[-2147483648]"},
      {"0,x", "invalid_argument stoi"}, {"1,,2", "invalid_argument stoi"}, {"1,", "invalid_argument stoi"},
      {"", "invalid_argument stoi"}, {",1", "invalid_argument stoi"}, {"x", "invalid_argument stoi"},
      {"99999999999", "out_of_range stoi"}, {"1,2147483648", "out_of_range stoi"}, {"-2147483649", "out_of_range stoi"},
  };
  for (const auto& [value, expected] : cases) EXPECT_EQ(traceCoord(value), expected) << (value ? value : "unset");
  ScopedEnv threads("KORA_THREAD_NUM", "8");
  EXPECT_EQ(Context().getNumThreads(), 1);
  for (const char* verbose : {"0", "1", static_cast<const char*>(nullptr)}) {
    ScopedEnv env("KORA_DISPATCHER_VERBOSE", verbose);
    EXPECT_EQ(Context().getVerbose(), verbose != nullptr) << "any value, even 0, turns verbose on";
  }
}
