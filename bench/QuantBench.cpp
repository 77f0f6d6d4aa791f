// Quantization over 16M elements (4096 x 4096) against memcpy of the input
// bytes: f32 to si8 per tensor, per innermost axis (4096 channels) and per
// outer axis, dequantization back,
// fake quantization and dynamic per-row quantization.
#include <cstring>

#include "BenchMain.h"
#include "kora/Kora.h"

using namespace kora;

namespace {

constexpr long kSide = 4096;  // 4096 x 4096 = 16M elements

Tensor filledF32() {
  Tensor t = Tensor::create(ElementType::f32, {kSide, kSide});
  auto data = t.data<float>();
  for (size_t i = 0; i < data.size(); ++i) data[i] = float(long(i % 1001) - 500) * 0.37f;
  return t;
}

Tensor filledSi8() {
  Tensor t = Tensor::create(ElementType::si8, {kSide, kSide});
  auto data = t.data<int8_t>();
  for (size_t i = 0; i < data.size(); ++i) data[i] = int8_t(long(i % 255) - 127);
  return t;
}

std::vector<double> channelScales() {
  std::vector<double> scales(kSide);
  for (long i = 0; i < kSide; ++i) scales[size_t(i)] = 0.5 + double(i % 7) * 0.25;
  return scales;
}

template <class Kernel>
void measure(benchmark::State& state, const Tensor& in, const Kernel& kernel) {
  for (auto _ : state) {
    Status s = kernel();
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * long(in.byteSpan()));
}

void memcpyBaseline(benchmark::State& state) {
  Tensor in = filledF32(), out = Tensor::create(ElementType::f32, {kSide, kSide});
  measure(state, in, [&] {
    std::memcpy(out.data<char>().data(), in.data<char>().data(), in.byteSpan());
    return Status::success();
  });
}

void quantizePerTensor(benchmark::State& state) {
  Tensor in = filledF32(), out = Tensor::create(ElementType::si8, {kSide, kSide});
  measure(state, in, [&] { return quant::Quantize(out, in, {0.37}, {3}, false, 0, false); });
}

/// Per channel, with a scale per channel and either one zero point for all
/// (symmetric per-channel quantization) or one per channel.
void quantizePerAxis(benchmark::State& state, int64_t axis, bool zeroPerChannel) {
  Tensor in = filledF32(), out = Tensor::create(ElementType::si8, {kSide, kSide});
  const std::vector<double> scales = channelScales();
  std::vector<int64_t> zeros(kSide, 0);
  if (zeroPerChannel)
    for (long i = 0; i < kSide; ++i) zeros[size_t(i)] = i % 5 - 2;
  measure(state, in, [&] { return quant::Quantize(out, in, scales, zeros, true, axis, false); });
}
void quantizeInnermost(benchmark::State& state) { quantizePerAxis(state, -1, false); }
void quantizeInnermostZeros(benchmark::State& state) { quantizePerAxis(state, -1, true); }
void quantizeOuter(benchmark::State& state) { quantizePerAxis(state, 0, true); }

void quantizeHalfUp(benchmark::State& state) {
  Tensor in = filledF32(), out = Tensor::create(ElementType::si8, {kSide, kSide});
  measure(state, in, [&] { return quant::Qcast(out, in, {0.37}, {3}, false, 0, true, false); });
}

void dequantizePerTensor(benchmark::State& state) {
  Tensor in = filledSi8(), out = Tensor::create(ElementType::f32, {kSide, kSide});
  measure(state, in, [&] { return quant::Dequantize(out, in, {0.37}, {3}, false, 0); });
}

void fakeQuantPerTensor(benchmark::State& state) {
  Tensor in = filledF32(), out = Tensor::create(ElementType::f32, {kSide, kSide});
  measure(state, in, [&] { return quant::FakeQuant(out, in, {0.37}, {3}); });
}

void dynamicQuantizePerRow(benchmark::State& state) {
  Tensor in = filledF32(), out = Tensor::create(ElementType::si8, {kSide, kSide});
  Tensor scale = Tensor::create(ElementType::f32, {kSide, 1});
  measure(state, in, [&] { return quant::DynamicQuantize(out, scale, in, true); });
}

}  // namespace

BENCHMARK(memcpyBaseline)->Name("memcpy")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(quantizePerTensor)->Name("quantize_f32_si8_per_tensor")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(quantizeInnermost)->Name("quantize_f32_si8_innermost_axis")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(quantizeInnermostZeros)->Name("quantize_f32_si8_innermost_axis_zeros")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(quantizeOuter)->Name("quantize_f32_si8_outer_axis")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(quantizeHalfUp)->Name("qcast_f32_si8_half_up_narrow")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(dequantizePerTensor)->Name("dequantize_si8_f32_per_tensor")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(fakeQuantPerTensor)->Name("fakequant_f32_per_tensor")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(dynamicQuantizePerRow)->Name("dynamic_quantize_f32_si8_per_row")->Unit(benchmark::kMillisecond)->UseRealTime();

KORA_BENCH_RATIO("Quantize f32->si8 per tensor / memcpy (goal >= 0.3)", "quantize_f32_si8_per_tensor", "memcpy");
KORA_BENCH_RATIO("Quantize innermost axis / per tensor (goal >= 0.8)", "quantize_f32_si8_innermost_axis",
                 "quantize_f32_si8_per_tensor");
KORA_BENCH_RATIO("Quantize innermost axis, zero per channel / per tensor", "quantize_f32_si8_innermost_axis_zeros",
                 "quantize_f32_si8_per_tensor");
KORA_BENCH_RATIO("Quantize outer axis / per tensor", "quantize_f32_si8_outer_axis", "quantize_f32_si8_per_tensor");
KORA_BENCH_RATIO("Qcast half up, narrow / Quantize", "qcast_f32_si8_half_up_narrow", "quantize_f32_si8_per_tensor");
KORA_BENCH_RATIO("Dequantize si8->f32 / memcpy of the f32 bytes", "dequantize_si8_f32_per_tensor", "memcpy");
KORA_BENCH_RATIO("FakeQuant f32 / memcpy", "fakequant_f32_per_tensor", "memcpy");
KORA_BENCH_RATIO("DynamicQuantize per row / Quantize per tensor", "dynamic_quantize_f32_si8_per_row",
                 "quantize_f32_si8_per_tensor");

KORA_BENCH_MAIN()
