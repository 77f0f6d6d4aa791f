// MatMul f32 [512, 512] x [512, 512] against a single-threaded optimised
// BLAS sgemm (when the build found one) and against a plain loop that keeps
// the same order of additions, in the same binary. Also f16 data, a
// transposed rhs, a broadcast batch and Linear with a bias.
//
// The BLAS is free to fuse and to reorder its sums, so its results differ
// from the reference's in the last bits; the reference keeps the sequential
// k-sum of separately rounded products.
#include <cmath>
#include <string>

#include "BenchMain.h"
#include "kora/Kora.h"

#ifdef KORA_BENCH_OPENBLAS
#include <cblas.h>
#endif

using namespace kora;

namespace {

constexpr long kSize = 512;

Tensor filled(ElementType type, std::vector<long> shape, float scale) {
  Tensor t = Tensor::create(ElementType::f32, shape);
  auto data = t.data<float>();
  for (size_t i = 0; i < data.size(); ++i) data[i] = float(long(i % 1013) - 506) * scale;
  return type == ElementType::f32 ? t : t.cast(type);
}

template <class F>
void runKernel(benchmark::State& state, F&& call) {
  for (auto _ : state) {
    Status s = call();
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  state.counters["GFLOPS"] = benchmark::Counter(2.0 * kSize * kSize * kSize, benchmark::Counter::kIsIterationInvariantRate,
                                                benchmark::Counter::kIs1000);
}

void matmulF32(benchmark::State& state) {
  Tensor a = filled(ElementType::f32, {kSize, kSize}, 0.01f), b = filled(ElementType::f32, {kSize, kSize}, 0.02f);
  Tensor c = Tensor::create(ElementType::f32, {kSize, kSize});
  runKernel(state, [&] { return native::MatMul(c, a, b); });
}

// The narrower instruction sets, for machines without the widest one.
void matmulF32With(benchmark::State& state, const char* kernel) {
  const std::string widest = native::matMulKernel();
  if (!native::selectMatMulKernel(kernel)) {
    state.SkipWithError("not available on this processor");
    return;
  }
  matmulF32(state);
  native::selectMatMulKernel(widest);
}

void matmulF16(benchmark::State& state) {
  Tensor a = filled(ElementType::f16, {kSize, kSize}, 0.01f), b = filled(ElementType::f16, {kSize, kSize}, 0.02f);
  Tensor c = Tensor::create(ElementType::f16, {kSize, kSize});
  runKernel(state, [&] { return native::MatMul(c, a, b); });
}

void matmulTransposedRhs(benchmark::State& state) {
  Tensor a = filled(ElementType::f32, {kSize, kSize}, 0.01f);
  Tensor b = filled(ElementType::f32, {kSize, kSize}, 0.02f).permute({1, 0});
  Tensor c = Tensor::create(ElementType::f32, {kSize, kSize});
  runKernel(state, [&] { return native::MatMul(c, a, b); });
}

void matmulBatched(benchmark::State& state) {  // [8, 64, 512] x [512, 512]: the same flops
  Tensor a = filled(ElementType::f32, {8, kSize / 8, kSize}, 0.01f), b = filled(ElementType::f32, {kSize, kSize}, 0.02f);
  Tensor c = Tensor::create(ElementType::f32, {8, kSize / 8, kSize});
  runKernel(state, [&] { return native::MatMul(c, a, b); });
}

void linearWithBias(benchmark::State& state) {
  Tensor x = filled(ElementType::f32, {kSize, kSize}, 0.01f), w = filled(ElementType::f32, {kSize, kSize}, 0.02f);
  Tensor bias = filled(ElementType::f32, {kSize}, 0.5f), c = Tensor::create(ElementType::f32, {kSize, kSize});
  runKernel(state, [&] { return native::Linear(c, x, w, bias); });
}

// The same sums in the same order, written as the obvious loop (k in the
// middle so that the inner loop runs along rows and vectorises).
void plainLoop(benchmark::State& state) {
  Tensor a = filled(ElementType::f32, {kSize, kSize}, 0.01f), b = filled(ElementType::f32, {kSize, kSize}, 0.02f);
  Tensor c = Tensor::create(ElementType::f32, {kSize, kSize});
  const float* x = a.data<float>().data();
  const float* y = b.data<float>().data();
  float* z = c.data<float>().data();
  runKernel(state, [&] {
    for (long i = 0; i < kSize; ++i) {
      float* row = z + i * kSize;
      for (long j = 0; j < kSize; ++j) row[j] = 0.0f;
      for (long k = 0; k < kSize; ++k) {
        const float s = x[i * kSize + k];
        for (long j = 0; j < kSize; ++j) row[j] = row[j] + s * y[k * kSize + j];
      }
    }
    return Status::success();
  });
}

#ifdef KORA_BENCH_OPENBLAS
void blasSgemm(benchmark::State& state) {
  openblas_set_num_threads(1);
  Tensor a = filled(ElementType::f32, {kSize, kSize}, 0.01f), b = filled(ElementType::f32, {kSize, kSize}, 0.02f);
  Tensor c = Tensor::create(ElementType::f32, {kSize, kSize});
  runKernel(state, [&] {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kSize, kSize, kSize, 1.0f, a.data<float>().data(), kSize,
                b.data<float>().data(), kSize, 0.0f, c.data<float>().data(), kSize);
    return Status::success();
  });
}
BENCHMARK(blasSgemm)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK(matmulF32)->Unit(benchmark::kMillisecond);
BENCHMARK(plainLoop)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(matmulF32With, avx2, "avx2")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(matmulF32With, baseline, "baseline")->Unit(benchmark::kMillisecond);
BENCHMARK(matmulF16)->Unit(benchmark::kMillisecond);
BENCHMARK(matmulTransposedRhs)->Unit(benchmark::kMillisecond);
BENCHMARK(matmulBatched)->Unit(benchmark::kMillisecond);
BENCHMARK(linearWithBias)->Unit(benchmark::kMillisecond);

KORA_BENCH_RATIO("MatMul f32 512^3 / BLAS sgemm, one thread", "matmulF32", "blasSgemm");
KORA_BENCH_RATIO("MatMul f32 512^3 / plain loop, same order", "matmulF32", "plainLoop");
KORA_BENCH_RATIO("MatMul f32 on avx2 / BLAS sgemm", "matmulF32With/avx2", "blasSgemm");
KORA_BENCH_RATIO("MatMul f32 on the baseline / BLAS sgemm", "matmulF32With/baseline", "blasSgemm");
KORA_BENCH_RATIO("MatMul f16 / MatMul f32", "matmulF16", "matmulF32");
KORA_BENCH_RATIO("MatMul f32 transposed rhs / MatMul f32", "matmulTransposedRhs", "matmulF32");
KORA_BENCH_RATIO("MatMul [8, 64, 512] x [512, 512] / MatMul f32", "matmulBatched", "matmulF32");
KORA_BENCH_RATIO("Linear with bias / MatMul f32", "linearWithBias", "matmulF32");

KORA_BENCH_MAIN();
