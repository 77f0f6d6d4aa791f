// The first generation's convolution: ConvMac on fin [1, 56, 56, 64] with a
// 3x3x64 weight of 64 channels (stride 1, pad 1) against a bare int8
// dot-product loop over the same number of MACs, and the whole vela::Conv2d
// (MAC then post-process) against ConvMac alone.
#include <cstring>
#include <random>

#include "BenchMain.h"
#include "kora/Kora.h"

using namespace kora;

namespace {

constexpr long kSide = 56, kChannels = 64, kKernel = 3;
constexpr long kWindow = kKernel * kKernel * kChannels;                      // MACs per output element
constexpr long kOutputs = kSide * kSide * kChannels;                         // output elements
constexpr double kMacs = double(kOutputs) * double(kWindow);                 // 115,605,504

Tensor random8(std::vector<long> shape, unsigned seed) {
  Tensor t = Tensor::create(ElementType::si8, shape);
  std::mt19937 rng(seed);
  for (int8_t& v : t.data<int8_t>()) v = int8_t(rng());
  return t;
}

void reportMacs(benchmark::State& state) {
  state.counters["MAC"] = benchmark::Counter(kMacs * double(state.iterations()), benchmark::Counter::kIsRate);
}

/// The baseline: one plain int8 dot product of a window's length per output
/// element, over operands that stay in cache.
void dotLoop(benchmark::State& state) {
  const Tensor windows = random8({64, kWindow}, 1), weights = random8({kChannels, kWindow}, 2);
  const int8_t* a = windows.data<int8_t>().data();
  const int8_t* w = weights.data<int8_t>().data();
  for (auto _ : state) {
    int32_t total = 0;
    for (long pixel = 0; pixel < kSide * kSide; ++pixel) {
      const int8_t* x = a + (pixel % 64) * kWindow;
      for (long k = 0; k < kChannels; ++k) {
        const int8_t* y = w + k * kWindow;
        int32_t sum = 0;  // |sum| <= 576 * 2^14
        for (long i = 0; i < kWindow; ++i) sum += int32_t(x[i]) * int32_t(y[i]);
        total ^= sum;
      }
    }
    benchmark::DoNotOptimize(total);
  }
  reportMacs(state);
}

struct ConvOperands {
  Tensor fin = random8({1, kSide, kSide, kChannels}, 3);
  Tensor weight = random8({kChannels, kKernel, kKernel, kChannels}, 4);
  Tensor psum = Tensor::create(ElementType::si32, {1, kSide, kSide, kChannels});
  Tensor quantInfo = Tensor::create(ElementType::si64, {kChannels, 6});
  Tensor fout = Tensor::create(ElementType::si8, {1, kSide, kSide, kChannels});
  ConvOperands() {
    std::memset(psum.data<int32_t>().data(), 0, psum.byteSpan());
    for (long k = 0; k < kChannels; ++k) {
      const int64_t row[6] = {k * 10 - 300, 0, 0, 2, 1000 + k, 12};
      for (long j = 0; j < 6; ++j) quantInfo.at<int64_t>({k, j}) = row[j];
    }
  }
};

void convMac(benchmark::State& state) {
  ConvOperands c;
  for (auto _ : state) {
    Status s = vela::intrinsic::ConvMac(c.psum, c.fin, c.weight, {1, 1}, 0, {1, 1}, {1, 1}, 1);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  reportMacs(state);
}

void conv2d(benchmark::State& state) {
  ConvOperands c;
  for (auto _ : state) {
    Status s = vela::Conv2d(c.fout, c.fin, c.weight, c.quantInfo, Tensor(), Tensor(), 0, {1, 1}, {1, 1}, {1, 1}, 1, 0,
                            true, true, false);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  reportMacs(state);
}

void convMacDepthwise(benchmark::State& state) {
  ConvOperands c;
  const Tensor weight = random8({kChannels, kKernel, kKernel, 1}, 5);
  for (auto _ : state) {
    Status s = vela::intrinsic::ConvMac(c.psum, c.fin, weight, {1, 1}, 0, {1, 1}, {1, 1}, kChannels);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  state.counters["MAC"] = benchmark::Counter(kMacs / kChannels * double(state.iterations()), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(dotLoop)->Name("int8_dot_loop")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(convMac)->Name("conv_mac")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(conv2d)->Name("vela_conv2d")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(convMacDepthwise)->Name("conv_mac_depthwise")->Unit(benchmark::kMillisecond)->UseRealTime();

KORA_BENCH_RATIO("ConvMac / bare int8 dot loop, same MACs (goal >= 0.3)", "conv_mac", "int8_dot_loop");
KORA_BENCH_RATIO("vela::Conv2d / ConvMac (goal >= 0.77, i.e. within 1.3x)", "vela_conv2d", "conv_mac");

KORA_BENCH_MAIN()
