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

  // Verbose calls by name report their inputs and outputs through the sink.
  std::vector<std::string> messages;
  context.regLogger([](LogLevel, const char* text, void* out) {
    static_cast<std::vector<std::string>*>(out)->push_back(text);
  }, &messages);
  Tensor fin = Tensor::create(ElementType::f32, {2});
  fin.data<float>()[0] = fin.data<float>()[1] = 1.0f;
  std::vector<Tensor> outputs;
  ASSERT_TRUE(invoke("native::ReLU", outputs, {fin}).ok());
  context.regLogger({}, nullptr);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0], "native::ReLU (Config invoke) The input params: Tensor<f32,2,4>");
  EXPECT_EQ(messages[1], "native::ReLU (Impl invoke) The output params: Tensor<f32,2,4>");
}

TEST(Environment, MalformedTracePointThrowsAtFirstUse) {
  EXPECT_THROW(Context::get(), std::invalid_argument);
}
