// ReLU f32 over 16M elements against memcpy of the same bytes: contiguous,
// through a transposed view, and with a trace point set on one element.
#include <cstring>

#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include "BenchMain.h"
#include "kora/Kora.h"

using namespace kora;

namespace {

constexpr long kSide = 4096;  // 4096 x 4096 = 16M elements

Tensor filled(std::vector<long> shape) {
  Tensor t = Tensor::create(ElementType::f32, shape);
  auto data = t.data<float>();
  for (size_t i = 0; i < data.size(); ++i) data[i] = float(long(i % 1001) - 500);
  return t;
}

void memcpyBaseline(benchmark::State& state) {
  Tensor in = filled({kSide, kSide}), out = Tensor::create(ElementType::f32, {kSide, kSide});
  for (auto _ : state) {
    std::memcpy(out.data<char>().data(), in.data<char>().data(), in.byteSpan());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * long(in.byteSpan()));
}

void reluOver(benchmark::State& state, const Tensor& in) {
  Tensor out = Tensor::create(ElementType::f32, in.shape());
  for (auto _ : state) {
    Status s = native::ReLU(out, in);
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * long(in.byteSpan()));
}

void reluContiguous(benchmark::State& state) { reluOver(state, filled({kSide, kSide})); }
void reluTransposed(benchmark::State& state) { reluOver(state, filled({kSide, kSide}).permute({1, 0})); }

void reluTraced(benchmark::State& state) {
  auto previous = spdlog::default_logger();
  spdlog::set_default_logger(std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>()));
  const long point[] = {17, 42};
  Context::get().setTracePoint(point);
  reluOver(state, filled({kSide, kSide}));
  Context::get().setTracePoint({});
  spdlog::set_default_logger(previous);
}

}  // namespace

BENCHMARK(memcpyBaseline)->Name("memcpy")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(reluContiguous)->Name("relu_f32_contiguous")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(reluTransposed)->Name("relu_f32_transposed")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(reluTraced)->Name("relu_f32_traced")->Unit(benchmark::kMillisecond)->UseRealTime();

KORA_BENCH_RATIO("ReLU f32 contiguous / memcpy (goal >= 0.5)", "relu_f32_contiguous", "memcpy");
KORA_BENCH_RATIO("ReLU f32 transposed / memcpy (goal >= 0.2)", "relu_f32_transposed", "memcpy");
KORA_BENCH_RATIO("ReLU traced / untraced (goal >= 0.67)", "relu_f32_traced", "relu_f32_contiguous");

KORA_BENCH_MAIN()
