// ReduceSum over a [4096, 4096] f32 tensor against bare sequential-sum
// loops over the same layout in the same binary: over the last axis (one
// running sum per row) and over the first axis (one running sum per column,
// the rows added in order). Also ReduceSum on f16, ReduceMax and CumSum over
// the last axis, against the f32 sum loop.
#include <cmath>

#include "BenchMain.h"
#include "kora/Kora.h"

using namespace kora;

namespace {

constexpr long kSide = 4096;

Tensor filled(ElementType type) {
  Tensor t = Tensor::create(ElementType::f32, {kSide, kSide});
  auto data = t.data<float>();
  for (size_t i = 0; i < data.size(); ++i) data[i] = float(long(i % 1001) - 500) * 0.01f;
  return type == ElementType::f32 ? t : t.cast(type);
}

void bareSumLastAxis(benchmark::State& state) {
  Tensor in = filled(ElementType::f32), out = Tensor::create(ElementType::f32, {kSide});
  const float* x = in.data<float>().data();
  float* y = out.data<float>().data();
  for (auto _ : state) {
    for (long i = 0; i < kSide; ++i) {
      float acc = 0.0f;
      for (long j = 0; j < kSide; ++j) acc = acc + x[i * kSide + j];
      y[i] = acc;
    }
    benchmark::ClobberMemory();
  }
}

void bareSumFirstAxis(benchmark::State& state) {
  Tensor in = filled(ElementType::f32), out = Tensor::create(ElementType::f32, {kSide});
  const float* x = in.data<float>().data();
  float* y = out.data<float>().data();
  for (auto _ : state) {
    for (long j = 0; j < kSide; ++j) y[j] = 0.0f;
    for (long i = 0; i < kSide; ++i)
      for (long j = 0; j < kSide; ++j) y[j] = y[j] + x[i * kSide + j];
    benchmark::ClobberMemory();
  }
}

using ReduceFn = Status (*)(Tensor&, Tensor const&, std::vector<int64_t> const&, bool);

template <ReduceFn Kernel>
void reduceOver(benchmark::State& state, ElementType type, int64_t axis) {
  Tensor in = filled(type), out = Tensor::create(type, {kSide});
  const std::vector<int64_t> dims = {axis};
  for (auto _ : state) {
    Status s = Kernel(out, in, dims, false);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
}

void sumLastAxis(benchmark::State& state) { reduceOver<native::ReduceSum>(state, ElementType::f32, 1); }
void sumFirstAxis(benchmark::State& state) { reduceOver<native::ReduceSum>(state, ElementType::f32, 0); }
void sumHalfLastAxis(benchmark::State& state) { reduceOver<native::ReduceSum>(state, ElementType::f16, 1); }
void maxLastAxis(benchmark::State& state) { reduceOver<native::ReduceMax>(state, ElementType::f32, 1); }

void cumSumLastAxis(benchmark::State& state) {
  Tensor in = filled(ElementType::f32), out = Tensor::create(ElementType::f32, {kSide, kSide});
  for (auto _ : state) {
    Status s = native::CumSum(out, in, 1, false, false);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
}

}  // namespace

BENCHMARK(bareSumLastAxis)->Unit(benchmark::kMillisecond);
BENCHMARK(sumLastAxis)->Unit(benchmark::kMillisecond);
BENCHMARK(bareSumFirstAxis)->Unit(benchmark::kMillisecond);
BENCHMARK(sumFirstAxis)->Unit(benchmark::kMillisecond);
BENCHMARK(sumHalfLastAxis)->Unit(benchmark::kMillisecond);
BENCHMARK(maxLastAxis)->Unit(benchmark::kMillisecond);
BENCHMARK(cumSumLastAxis)->Unit(benchmark::kMillisecond);

KORA_BENCH_RATIO("ReduceSum f32 last axis / bare loop", "sumLastAxis", "bareSumLastAxis");
KORA_BENCH_RATIO("ReduceSum f32 first axis / bare loop", "sumFirstAxis", "bareSumFirstAxis");
KORA_BENCH_RATIO("ReduceSum f16 last axis / bare f32 loop", "sumHalfLastAxis", "bareSumLastAxis");
KORA_BENCH_RATIO("ReduceMax f32 last axis / bare sum loop", "maxLastAxis", "bareSumLastAxis");
KORA_BENCH_RATIO("CumSum f32 last axis / bare sum loop", "cumSumLastAxis", "bareSumLastAxis");

KORA_BENCH_MAIN();
