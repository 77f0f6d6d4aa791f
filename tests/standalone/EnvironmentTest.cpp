// Runs in its own process, started with KORA_* variables set, so that the
// process-wide Context reads them on first use.
#include <gtest/gtest.h>

#include <stdexcept>

#include "kora/Kora.h"

using namespace kora;

TEST(Environment, TracePointFromVariable) {
  Context& context = Context::get();
  EXPECT_EQ(context.getTracePoint().vec(), (std::vector<long>{1, 0, 3, 5}));
  EXPECT_TRUE(context.getVerbose()) << "any value, even 0, turns verbose on";
  EXPECT_EQ(context.getNumThreads(), 1);
}

TEST(Environment, MalformedTracePointThrowsAtFirstUse) {
  EXPECT_THROW(Context::get(), std::invalid_argument);
}
