// Elementwise kernels over 16M elements against bare loops in the same
// binary: contiguous and broadcast Add, f16 Add, Equal writing bool8 and
// Sigmoid against a plain `1 / (expf(-x) + 1)` loop.
#include <cmath>

#include "BenchMain.h"
#include "kora/Kora.h"

using namespace kora;

namespace {

constexpr long kSide = 4096;  // 4096 x 4096 = 16M elements

template <class T>
Tensor filled(ElementType type, std::vector<long> shape, float scale) {
  Tensor t = Tensor::create(type, shape);
  auto data = t.data<T>();
  for (size_t i = 0; i < data.size(); ++i) data[i] = T(float(long(i % 1001) - 500) * scale);
  return t;
}

Tensor f32(std::vector<long> shape) { return filled<float>(ElementType::f32, shape, 0.01f); }

void bareAdd(benchmark::State& state) {
  Tensor a = f32({kSide, kSide}), b = f32({kSide, kSide}), c = Tensor::create(ElementType::f32, {kSide, kSide});
  const float* x = a.data<float>().data();
  const float* y = b.data<float>().data();
  float* z = c.data<float>().data();
  const long n = kSide * kSide;
  for (auto _ : state) {
    for (long i = 0; i < n; ++i) z[i] = x[i] + y[i];
    benchmark::ClobberMemory();
  }
}

template <Status (*Kernel)(Tensor&, Tensor const&, Tensor const&)>
void binaryOver(benchmark::State& state, const Tensor& a, const Tensor& b, ElementType outType) {
  Tensor c = Tensor::create(outType, {kSide, kSide});
  for (auto _ : state) {
    Status s = Kernel(c, a, b);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
}

void addContiguous(benchmark::State& state) {
  binaryOver<native::Add>(state, f32({kSide, kSide}), f32({kSide, kSide}), ElementType::f32);
}
void addBroadcastRow(benchmark::State& state) {
  binaryOver<native::Add>(state, f32({kSide, kSide}), f32({kSide}), ElementType::f32);
}
void addBroadcastColumn(benchmark::State& state) {
  binaryOver<native::Add>(state, f32({kSide, kSide}), f32({kSide, 1}), ElementType::f32);
}
void addTransposed(benchmark::State& state) {
  binaryOver<native::Add>(state, f32({kSide, kSide}), f32({kSide, kSide}).permute({1, 0}), ElementType::f32);
}
void addHalf(benchmark::State& state) {
  binaryOver<native::Add>(state, filled<half>(ElementType::f16, {kSide, kSide}, 0.01f),
                          filled<half>(ElementType::f16, {kSide, kSide}, 0.03f), ElementType::f16);
}
void equalBool8(benchmark::State& state) {
  binaryOver<native::Equal>(state, f32({kSide, kSide}), filled<float>(ElementType::f32, {kSide, kSide}, 0.02f),
                            ElementType::bool8);
}

void bareSigmoid(benchmark::State& state) {
  Tensor a = f32({kSide, kSide}), c = Tensor::create(ElementType::f32, {kSide, kSide});
  const float* x = a.data<float>().data();
  float* z = c.data<float>().data();
  const long n = kSide * kSide;
  for (auto _ : state) {
    for (long i = 0; i < n; ++i) z[i] = 1.0f / (expf(-x[i]) + 1.0f);
    benchmark::ClobberMemory();
  }
}

void sigmoid(benchmark::State& state) {
  Tensor a = f32({kSide, kSide}), c = Tensor::create(ElementType::f32, {kSide, kSide});
  for (auto _ : state) {
    Status s = native::Sigmoid(c, a);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
}

}  // namespace

#define KORA_ELEMENTWISE_BENCH(fn, name) \
  BENCHMARK(fn)->Name(name)->Unit(benchmark::kMillisecond)->UseRealTime()

KORA_ELEMENTWISE_BENCH(bareAdd, "bare_add_f32");
KORA_ELEMENTWISE_BENCH(addContiguous, "add_f32_contiguous");
KORA_ELEMENTWISE_BENCH(addBroadcastRow, "add_f32_broadcast_row");
KORA_ELEMENTWISE_BENCH(addBroadcastColumn, "add_f32_broadcast_column");
KORA_ELEMENTWISE_BENCH(addTransposed, "add_f32_transposed");
KORA_ELEMENTWISE_BENCH(addHalf, "add_f16_contiguous");
KORA_ELEMENTWISE_BENCH(equalBool8, "equal_f32_to_bool8");
KORA_ELEMENTWISE_BENCH(bareSigmoid, "bare_sigmoid_f32");
KORA_ELEMENTWISE_BENCH(sigmoid, "sigmoid_f32");

KORA_BENCH_RATIO("Add f32 / bare loop (goal >= 0.5)", "add_f32_contiguous", "bare_add_f32");
KORA_BENCH_RATIO("Add [4096,4096]+[4096] / contiguous (goal >= 0.5)", "add_f32_broadcast_row", "add_f32_contiguous");
KORA_BENCH_RATIO("Add [4096,4096]+[4096,1] / contiguous", "add_f32_broadcast_column", "add_f32_contiguous");
KORA_BENCH_RATIO("Add transposed rhs / contiguous", "add_f32_transposed", "add_f32_contiguous");
KORA_BENCH_RATIO("Add f16 / Add f32 (goal >= 0.25)", "add_f16_contiguous", "add_f32_contiguous");
KORA_BENCH_RATIO("Equal to bool8 / Add f32 (goal >= 0.5)", "equal_f32_to_bool8", "add_f32_contiguous");
KORA_BENCH_RATIO("Sigmoid f32 / bare loop (goal >= 0.8)", "sigmoid_f32", "bare_sigmoid_f32");

KORA_BENCH_MAIN()
