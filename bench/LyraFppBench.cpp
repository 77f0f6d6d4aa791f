// The second generation's post-processes over the same psums [1, 56, 56,
// 64]: the floating one (every step in soft fp24) against the integer one,
// both into si8, and the floating one into f32 and with an f32 sumin (which
// takes the element-by-element path); elements per second each.
#include <random>

#include "BenchMain.h"
#include "kora/Kora.h"

using namespace kora;

namespace {

constexpr long kSide = 56, kChannels = 64;
constexpr double kElements = double(kSide * kSide * kChannels);

struct Operands {
  Tensor psum = Tensor::create(ElementType::si32, {1, kSide, kSide, kChannels});
  Tensor quantInfo = Tensor::create(ElementType::si64, {kChannels, 6});
  Tensor floatInfo = Tensor::create(ElementType::f32, {kChannels, 3});
  Tensor sumin = Tensor::create(ElementType::f32, {1, kSide, kSide, kChannels});
  Operands() {
    std::mt19937 rng(1);
    for (float& v : sumin.data<float>()) v = std::uniform_real_distribution<float>(-4, 4)(rng);
    // Accumulators of a 3x3x64 int8 window: within +-2^20 or so.
    for (int32_t& v : psum.data<int32_t>()) v = int32_t(rng()) >> 11;
    for (long k = 0; k < kChannels; ++k) {
      const int64_t row[6] = {k * 10 - 300, 0, 0, 4, 1000 + k, 12};
      for (long j = 0; j < 6; ++j) quantInfo.at<int64_t>({k, j}) = row[j];
      floatInfo.at<float>({k, 0}) = 0.5f - float(k) / 32;
      floatInfo.at<float>({k, 1}) = 0.25f;
      floatInfo.at<float>({k, 2}) = 0.0001f * float(k + 1);
    }
  }
};

void reportElements(benchmark::State& state) {
  state.counters["elements"] = benchmark::Counter(kElements * double(state.iterations()), benchmark::Counter::kIsRate);
}

void integerPP(benchmark::State& state) {
  Operands o;
  Tensor fout = Tensor::create(ElementType::si8, {1, kSide, kSide, kChannels});
  for (auto _ : state) {
    Status s = lyra::intrinsic::TaeConvPP(fout, o.psum, o.quantInfo, Tensor(), true, true, false);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  reportElements(state);
}

void floatingPP(benchmark::State& state, ElementType outType, bool withSumin = false) {
  Operands o;
  Tensor fout = Tensor::create(outType, {1, kSide, kSide, kChannels});
  const Tensor sumin = withSumin ? o.sumin : Tensor();
  for (auto _ : state) {
    Status s = lyra::intrinsic::TaeConvFPP(fout, o.psum, o.floatInfo, sumin, true, true, false);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  reportElements(state);
}

void floatingToInt8(benchmark::State& state) { floatingPP(state, ElementType::si8); }
void floatingToF32(benchmark::State& state) { floatingPP(state, ElementType::f32); }
void floatingWithSumin(benchmark::State& state) { floatingPP(state, ElementType::si8, true); }

}  // namespace

BENCHMARK(integerPP)->Name("tae_conv_pp_si8")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(floatingToInt8)->Name("tae_conv_fpp_si8")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(floatingToF32)->Name("tae_conv_fpp_f32")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(floatingWithSumin)->Name("tae_conv_fpp_si8_sumin")->Unit(benchmark::kMicrosecond)->UseRealTime();

KORA_BENCH_RATIO("TaeConvFPP / TaeConvPP, both into si8 (goal >= 0.3)", "tae_conv_fpp_si8", "tae_conv_pp_si8");
KORA_BENCH_RATIO("TaeConvFPP into f32 / TaeConvPP into si8", "tae_conv_fpp_f32", "tae_conv_pp_si8");
KORA_BENCH_RATIO("TaeConvFPP with f32 sumin / TaeConvPP, both into si8", "tae_conv_fpp_si8_sumin", "tae_conv_pp_si8");

KORA_BENCH_MAIN()
