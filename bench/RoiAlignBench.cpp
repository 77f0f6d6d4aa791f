// RoiAlign: 1,000 rois pooled to 7 x 7 from a four-level pyramid of 64
// channels (strides 8 to 64 over a 1024 x 1024 image), reported in rois/s,
// against a memcpy of the bytes the pooling reads (four neighbours per output
// element), and with a trace point set on one element.
#include <cstring>
#include <random>

#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include "BenchMain.h"
#include "kora/Kora.h"

using namespace kora;

namespace {

constexpr long kRois = 1000, kPooled = 7, kChannels = 64;

struct Problem {
  std::vector<Tensor> inputs;
  std::vector<int64_t> shape{kPooled, kPooled};
  std::vector<int64_t> strides{8, 16, 32, 64};
  Tensor out;

  Problem() {
    std::mt19937 rng(1);
    Tensor rois = Tensor::create(ElementType::si16, {kRois, 4});
    auto box = rois.data<int16_t>();
    for (long n = 0; n < kRois; ++n) {
      // Sides of 16 to 1008 pixels, so every level is chosen.
      const int w = 64 + int(rng() % 3969), h = 64 + int(rng() % 3969);
      const int x1 = int(rng() % unsigned(4096 - w)), y1 = int(rng() % unsigned(4096 - h));
      const int16_t row[4] = {int16_t(x1), int16_t(y1), int16_t(x1 + w), int16_t(y1 + h)};
      std::memcpy(&box[size_t(n * 4)], row, sizeof(row));
    }
    inputs.push_back(rois);
    for (long side = 128; side >= 16; side /= 2) {
      Tensor map = Tensor::create(ElementType::si8, {side, side, kChannels});
      for (int8_t& v : map.data<int8_t>()) v = int8_t(rng());
      inputs.push_back(map);
    }
    Status s = mira::RoiAlignConfig(out, inputs, shape, strides, 1, "bilinear", 224, 4, {});
    if (!s.ok()) throw std::runtime_error(s.message());
    out.allocate();
  }

  void run() {
    Status s = mira::RoiAlign(out, inputs, shape, strides, 1, "bilinear", 224, 4, {});
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
};

void roiAlign(benchmark::State& state) {
  Problem p;
  for (auto _ : state) p.run();
  state.counters["rois/s"] = benchmark::Counter(double(state.iterations() * kRois), benchmark::Counter::kIsRate);
}

void roiAlignTraced(benchmark::State& state) {
  auto previous = spdlog::default_logger();
  spdlog::set_default_logger(std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>()));
  const long point[] = {500, 3, 4, 17};
  Context::get().setTracePoint(point);
  roiAlign(state);
  Context::get().setTracePoint({});
  spdlog::set_default_logger(previous);
}

void memcpyBaseline(benchmark::State& state) {
  const size_t bytes = size_t(4 * kRois * kPooled * kPooled * kChannels);
  std::vector<char> from(bytes, 1), to(bytes);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * long(bytes));
}

}  // namespace

BENCHMARK(memcpyBaseline)->Name("memcpy_neighbour_bytes")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(roiAlign)->Name("roialign_1000x7x7x64")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(roiAlignTraced)->Name("roialign_1000x7x7x64_traced")->Unit(benchmark::kMillisecond)->UseRealTime();

KORA_BENCH_RATIO("RoiAlign / memcpy of the neighbour bytes", "roialign_1000x7x7x64", "memcpy_neighbour_bytes");
KORA_BENCH_RATIO("RoiAlign traced / untraced", "roialign_1000x7x7x64_traced", "roialign_1000x7x7x64");

KORA_BENCH_MAIN()
