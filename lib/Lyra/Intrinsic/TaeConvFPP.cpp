// The second generation's floating post-process: psum through fp24
// arithmetic (Support/SoftFloat.h) into a float or integer output, over
// whole tensors, and the MAC followed by it.
#include <limits>

#include "Vela/Intrinsic/MacEngine.h"
#include "Vela/Intrinsic/PostProcess.h"
#include "kora/Lyra/Intrinsic.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/SoftFloat.h"

namespace kora::lyra::intrinsic {

namespace {

using namespace softfloat;
using vela::intrinsic::detail::ChannelPlan;
using vela::intrinsic::detail::PostProcessFlags;

/// Float quant info positions.
enum FloatPosition : long { kFloatBias = 0, kFloatSuminScale = 1, kFloatScale = 2 };
constexpr long kFloatWidth = 3;

/// One channel's registers: the float32 values as given (for trace lines)
/// and their fp24 cuts, which the arithmetic uses.
struct FloatRegisters {
  float bias = 0, suminScale = 0, scale = 0;
  uint32_t f24Bias = 0, f24SuminScale = 0, f24Scale = 0;
};

/// The relu of the unit: everything not above zero, NaN included, is +0.
constexpr float relu(float x) { return x > 0 ? x : 0.0f; }

constexpr FloatRounding narrowing(bool round) { return round ? FloatRounding::NearestEven : FloatRounding::TowardZero; }

/// One output element, every step in fp24. TSumin is float, half or void
/// (no sumin).
template <class TOut, class TSumin, class Trace>
TOut elementOf(const Coord& at, int32_t psum, const void* sumin, const FloatRegisters& q, PostProcessFlags flags,
               Trace& trace) {
  KORA_TRACE(trace, "f24Bias = float32ToFp24({}) // {}", q.bias, Fp24Reading{q.f24Bias});
  uint32_t suminAddBias = q.f24Bias;
  KORA_TRACE(trace, "fp24SuminAddBias = f24Bias // {}", Fp24Reading{suminAddBias});
  if constexpr (!std::is_void_v<TSumin>) {
    KORA_TRACE(trace, "f24SuminScale = float32ToFp24({}) // {}", q.suminScale, Fp24Reading{q.f24SuminScale});
    const TSumin given = *static_cast<const TSumin*>(sumin);
    float fp32Sumin;
    if constexpr (std::is_same_v<TSumin, float>) {
      fp32Sumin = given;
      KORA_TRACE(trace, "fp32Sumin = floatToF24({}) // {}", given, Float32Reading{fp32Sumin});
    } else {
      fp32Sumin = given.toFloat();  // exact
      KORA_TRACE(trace, "fp32Sumin = halfToF24({}) // {}", given, Float32Reading{fp32Sumin});
    }
    uint32_t fp24Sumin = float32ToFp24(fp32Sumin);
    KORA_TRACE(trace, "fp24Sumin = fp32ToFp24(fp32Sumin) // {}", Fp24Reading{fp24Sumin});
    fp24Sumin = fp24Mul(fp24Sumin, q.f24SuminScale);
    KORA_TRACE(trace, "fp24Sumin *= f24SuminScale // {}", Fp24Reading{fp24Sumin});
    suminAddBias = fp24Add(suminAddBias, fp24Sumin);
    KORA_TRACE(trace, "fp24SuminAddBias += fp24Sumin // {}", Fp24Reading{suminAddBias});
  }
  uint32_t res = intToFp24(psum);
  KORA_TRACE(trace, "fp24Res = intToFp24({}) // {}", psum, Fp24Reading{res});
  KORA_TRACE(trace, "f24OutputScale = float32ToFp24({}) // {}", q.scale, Fp24Reading{q.f24Scale});
  res = fp24Mul(res, q.f24Scale);
  KORA_TRACE(trace, "fp24Res *= f24OutputScale // {}", Fp24Reading{res});
  res = fp24Add(res, suminAddBias);
  KORA_TRACE(trace, "fp24Res += fp24SuminAddBias // {}", Fp24Reading{res});
  float fp32Res = f24ToF32(res);
  KORA_TRACE(trace, "fp32Res = f24ToF32(fp24Res) // {}", Float32Reading{fp32Res});
  if (flags.relu) {
    fp32Res = relu(fp32Res);
    res = float32ToFp24(fp32Res);
    KORA_TRACE(trace, "psumF32{} = relu(fp32Res) // {}", at, Float32Reading{fp32Res});
  }
  const FloatRounding mode = narrowing(flags.round);
  if constexpr (std::is_same_v<TOut, float>) {
    return fp32Res;
  } else if constexpr (std::is_same_v<TOut, half>) {
    const half out = half::fromBits(uint16_t(convert(res, kFp24, kFp16, mode)));
    KORA_TRACE(trace, "fout{} = fp32ToFp16(fp32Res) // 0x{:04x}({})", at, out.bits, out);
    return out;
  } else if constexpr (std::is_same_v<TOut, bfloat16>) {
    const bfloat16 out = bfloat16::fromBits(uint16_t(convert(res, kFp24, kBf16, mode)));
    KORA_TRACE(trace, "fout{} = fp32ToBf16(fp32Res) // 0x{:04x}({})", at, out.bits, out);
    return out;
  } else {
    const TOut out = TOut(fp24ToInt(res, std::numeric_limits<TOut>::min(), std::numeric_limits<TOut>::max(), mode));
    KORA_TRACE(trace, "intRes = fp24ToInt(intRes) // {}", int64_t(out));
    return out;
  }
}

using FloatPlan = ChannelPlan<FloatRegisters>;
using FloatOutputs = TypeList<float, half, bfloat16, int8_t, int16_t, int32_t>;
using FloatSumins = TypeList<float, half>;

FloatRegisters registersOf(float bias, float suminScale, float scale) {
  FloatRegisters q;
  q.bias = bias;
  q.suminScale = suminScale;
  q.scale = scale;
  q.f24Bias = float32ToFp24(bias);
  q.f24SuminScale = float32ToFp24(suminScale);
  q.f24Scale = float32ToFp24(scale);
  return q;
}

/// All checks of TaeConvFPP (psum may be a shape without data), then the
/// registers.
Status planFloatPostProcess(const Tensor& fout, const Tensor& psum, const Tensor& quantInfo, const Tensor& sumin,
                            bool perTensor, FloatPlan& plan) {
  if (psum.elementType() != ElementType::si32) return Status::failure("psum must be si32");
  if (!psum.sameShape(fout)) return Status::failure("shape of psum and fout must be identical");
  if (quantInfo.elementType() != ElementType::f32) return Status::failure("float quantInfo must be f32");
  if (quantInfo.rank() != 2 && quantInfo.rank() != 3) return Status::failure("quantInfo rank must be either 2 or 3");
  if (quantInfo.dim(-1) != kFloatWidth) return Status::failure("float quantInfo axis -1 must be 3");
  if (psum.rank() == 0) return Status::failure("psum must have a channel axis");
  const long K = psum.dim(-1), rows = quantInfo.dim(-2);
  if (rows != K && !(perTensor && rows == 1))
    return Status::failure("quantInfo axis -2 must be identical to psum axis -1");
  const long batch = psum.rank() >= 2 ? psum.dim(0) : 1;
  const long tables = quantInfo.rank() == 3 ? quantInfo.dim(0) : 1;
  if (tables != 1 && tables != batch) return Status::failure("quantInfo axis 0 must be 1 or psum axis 0");
  if (!typeIn<FloatOutputs>(fout.elementType())) return Status::failure("fout must be f32, f16, bf16, si8, si16 or si32");
  const bool hasSumin = sumin.isValid();
  if (hasSumin && !typeIn<FloatSumins>(sumin.elementType())) return Status::failure("sumin must be f32 or f16");
  if (hasSumin && !sumin.sameShape(psum)) return Status::failure("shape of psum and sumin must be identical");
  if (!fout.isValid() || !quantInfo.isValid()) return Status::failure("post-process operands must hold data");

  plan.tables = tables;
  plan.channels = K;
  plan.regs.resize(size_t(tables * K));
  for (long x = 0; x < tables; ++x)
    for (long k = 0; k < K; ++k) {
      const long channel = perTensor ? 0 : k;
      auto value = [&](long j) {
        const long a3[] = {x, channel, j}, a2[] = {channel, j};
        return quantInfo.rank() == 3 ? quantInfo.at<float>(a3) : quantInfo.at<float>(a2);
      };
      plan.regs[size_t(x * K + k)] = registersOf(value(kFloatBias), value(kFloatSuminScale), value(kFloatScale));
    }
  return Status::success();
}

void runFloatPostProcess(Tensor& fout, const Tensor& psum, const Tensor& sumin, const FloatPlan& plan,
                         PostProcessFlags flags) {
  using vela::intrinsic::detail::runChannelwise;
  using vela::intrinsic::detail::withConstantFlags;
  dispatch<FloatOutputs>(fout.elementType(), [&]<class TOut>() {
    auto run = [&]<class TSumin>() {
      withConstantFlags(flags, [&]<bool relu, bool round>() {
        runChannelwise<TOut, TSumin>(
            fout, psum, sumin, plan, [](const Coord& at, const FloatRegisters& q, int32_t value, const void* add,
                                        auto& trace) {
              return elementOf<TOut, TSumin>(at, value, add, q, PostProcessFlags{relu, round}, trace);
            });
      });
    };
    if (!sumin.isValid())
      run.template operator()<void>();
    else
      dispatch<FloatSumins>(sumin.elementType(), run);
  });
}

}  // namespace

Status TaeConvFPP(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                  bool round, bool perTensor) {
  FloatPlan plan;
  KORA_RETURN_IF_ERROR(planFloatPostProcess(fout, psum, quantInfo, sumin, perTensor, plan));
  if (!psum.isValid()) return Status::failure("post-process operands must hold data");
  runFloatPostProcess(fout, psum, sumin, plan, {relu, round});
  return Status::success();
}

Status TaeConvMacFPP(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                     Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                     std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                     bool relu, bool round, bool perTensor) {
  using namespace vela::intrinsic::detail;
  // Everything is checked before the MAC runs, against a psum of fout's shape.
  const Tensor psumShape(ElementType::si32, fout.shape());
  MacProblem mac;
  KORA_RETURN_IF_ERROR(prepareConvMac(psumShape, fin, weight, pad, padValue, stride, dilation, group, mac));
  FloatPlan plan;
  KORA_RETURN_IF_ERROR(planFloatPostProcess(fout, psumShape, quantInfo, sumin, perTensor, plan));
  KORA_RETURN_IF_ERROR(checkInitialPsum(psum, fout));
  const Tensor acc = accumulate(fout.shape(), psum, fin, mac);
  runFloatPostProcess(fout, acc, sumin, plan, {relu, round});
  return Status::success();
}

}  // namespace kora::lyra::intrinsic
