// The second generation's floating post-process: psum through fp24
// arithmetic (Support/SoftFloat.h) into a float or integer output, over
// whole tensors, and the MAC followed by it.
#include <limits>

#include "Vela/Intrinsic/PostProcess.h"
#include "kora/Lyra/Intrinsic.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/StridedWalk.h"
#include "kora/Support/SoftFloat.h"

namespace kora::lyra::intrinsic {

namespace {

using namespace softfloat;
using vela::intrinsic::detail::ChannelPlan;
using vela::intrinsic::detail::checkedPostProcess;
using vela::intrinsic::detail::fillPlan;
using vela::intrinsic::detail::macThenPostProcess;
using vela::intrinsic::detail::PostProcessFlags;
using vela::intrinsic::detail::tableValue;

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
[[gnu::always_inline]] inline TOut elementOf(const Coord& at, int32_t psum, const void* sumin, const FloatRegisters& q,
                                             PostProcessFlags flags, Trace& trace) {
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
  if (!typeIn<FloatOutputs>(fout.elementType()))
    return Status::failure("fout must be f32, f16, bf16, si8, si16 or si32");
  const bool hasSumin = sumin.isValid();
  if (hasSumin && !typeIn<FloatSumins>(sumin.elementType())) return Status::failure("sumin must be f32 or f16");
  if (hasSumin && !sumin.sameShape(psum)) return Status::failure("shape of psum and sumin must be identical");
  if (!fout.isValid() || !quantInfo.isValid()) return Status::failure("post-process operands must hold data");

  return fillPlan(plan, tables, K, perTensor, [&](long x, long channel, FloatRegisters& regs) {
    regs = registersOf(tableValue<float>(quantInfo, x, channel, kFloatBias),
                       tableValue<float>(quantInfo, x, channel, kFloatSuminScale),
                       tableValue<float>(quantInfo, x, channel, kFloatScale));
    return Status::success();
  });
}

// ---------------------------------------------------------------------------
// The vectorised loop.
//
// When no step can meet a special case (overflow, a result below fp24's
// normal range, an infinity or a NaN), each fp24 step is a double operation
// followed by the rounding of its pattern to 16 bits (roundDoubleToFp24
// without the range checks it no longer needs), which the compiler
// vectorises across channels. The ranges that guarantee it:
// - without sumin: scale 0 or within [2^-90, 2^95], bias 0 or within
//   [2^-90, 2^125]. A product of an int32 by the scale stays below 2^127, the
//   sum with the bias below 2^127 + 2^126; both operands are multiples of
//   2^-105, so a nonzero sum is at least that.
// - with sumin: scale and suminScale 0 or within [2^-50, 2^40], bias 0 or
//   within [2^-50, 2^100], and in each row every sumin, cut to fp24, 0 or
//   within [2^-40, 2^41): every operand is then a multiple of 2^-120 below
//   2^102. A row with another sumin takes the element-by-element path.
// The results are elementOf's, bit for bit; the tests compare both paths.

/// Per-channel operands of the vectorised loop: fp24 values as doubles.
struct FastTables {
  std::vector<double> scale, bias, suminScale;  // [tables * channels]
};

bool fastRange(uint32_t fp24, int lowest, int highest) {
  const int e = int((fp24 >> 15) & 0xff);
  return e == 0 || (e != 0xff && e - 127 >= lowest && e - 127 <= highest);
}

/// The fp24 as the arithmetic reads it: a zero exponent is a zero.
double readFp24(uint32_t fp24) { return double(f24ToF32((fp24 & 0x7f8000) == 0 ? fp24 & 0x800000 : fp24)); }

bool planFast(const FloatPlan& plan, bool withSumin, FastTables& fast) {
  for (const FloatRegisters& q : plan.regs) {
    const bool usable = withSumin ? fastRange(q.f24Scale, -50, 40) && fastRange(q.f24SuminScale, -50, 40) &&
                                        fastRange(q.f24Bias, -50, 100)
                                  : fastRange(q.f24Scale, -90, 95) && fastRange(q.f24Bias, -90, 125);
    if (!usable) return false;
  }
  for (const FloatRegisters& q : plan.regs) {
    fast.scale.push_back(readFp24(q.f24Scale));
    fast.bias.push_back(readFp24(q.f24Bias));
    fast.suminScale.push_back(readFp24(q.f24SuminScale));
  }
  return true;
}

constexpr uint64_t kSignBit = uint64_t(1) << 63;

/// A double of at most 53 significant bits rounded to 16, to nearest, ties
/// to even, on its pattern (as roundDoubleToFp24, without range checks).
[[gnu::always_inline]] inline uint64_t round16(double x) {
  uint64_t bits = std::bit_cast<uint64_t>(x);
  bits += ((uint64_t(1) << 36) - 1) + ((bits >> 37) & 1);
  return bits & ~((uint64_t(1) << 37) - 1);
}

/// a + b of two fp24 values held in doubles, rounded to fp24 (no special
/// case can occur); an exact zero sum is -0 only from -0 + -0, whatever the
/// rounding mode.
[[gnu::always_inline]] inline double roundedSum(double a, double b) {
  const double sum = std::bit_cast<double>(round16(a + b));
  const double zero = std::bit_cast<double>(std::bit_cast<uint64_t>(a) & std::bit_cast<uint64_t>(b) & kSignBit);
  return sum == 0 ? zero : sum;
}

/// fp24Res (then relu) of one element, as a double: psum * scale + addBias.
template <bool relu>
[[gnu::always_inline]] inline double fastValue(double psum, double scale, double addBias) {
  const double product = std::bit_cast<double>(round16(std::bit_cast<double>(round16(psum)) * scale));
  const double result = roundedSum(product, addBias);
  if constexpr (relu) return result > 0 ? result : 0.0;
  return result;
}

/// fp24SuminAddBias of one element: bias + float32ToFp24(sumin) * suminScale.
[[gnu::always_inline]] inline double fastAddBias(float sumin, double suminScale, double bias) {
  uint32_t bits = std::bit_cast<uint32_t>(sumin);
  bits = (bits & 0x7f800000u) == 0 ? bits & 0x80000000u : bits & 0xffffff00u;  // cut; a zero exponent is a zero
  const double product = std::bit_cast<double>(round16(double(std::bit_cast<float>(bits)) * suminScale));
  return roundedSum(bias, product);
}

/// Whether every sumin of a row, cut to fp24, is 0 or within [2^-40, 2^41).
bool suminRowUsable(const float* __restrict sumin, long K) {
  uint32_t outside = 0;
  for (long k = 0; k < K; ++k) {
    const uint32_t e = (std::bit_cast<uint32_t>(sumin[k]) >> 23) & 0xff;
    outside |= uint32_t(e != 0) & uint32_t(e - (127 - 40) > 80u);
  }
  return outside == 0;
}

constexpr long kBlock = 8;

template <bool relu>
[[gnu::always_inline]] inline void fastBlock(const int32_t* __restrict psum, const double* __restrict scale,
                                             const double* __restrict bias, double* __restrict values) {
  for (long i = 0; i < kBlock; ++i) values[i] = fastValue<relu>(double(psum[i]), scale[i], bias[i]);
}

/// fastValue of K channels of contiguous psums, in blocks of a fixed count
/// through unaliased pointers, which the compiler vectorises at any
/// optimisation level. addBias holds one value per channel.
template <bool relu>
void fastValues(const int32_t* psum, const double* scale, const double* addBias, double* values, long K) {
  long k = 0;
  for (; k + kBlock <= K; k += kBlock) fastBlock<relu>(psum + k, scale + k, addBias + k, values + k);
  for (; k < K; ++k) values[k] = fastValue<relu>(double(psum[k]), scale[k], addBias[k]);
}

[[gnu::always_inline]] inline void addBiasBlock(const float* __restrict sumin, const double* __restrict suminScale,
                                                const double* __restrict bias, double* __restrict addBias) {
  for (long i = 0; i < kBlock; ++i) addBias[i] = fastAddBias(sumin[i], suminScale[i], bias[i]);
}

/// fastAddBias of K channels, in blocks as above.
void fastAddBiases(const float* sumin, const double* suminScale, const double* bias, double* addBias, long K) {
  long k = 0;
  for (; k + kBlock <= K; k += kBlock) addBiasBlock(sumin + k, suminScale + k, bias + k, addBias + k);
  for (; k < K; ++k) addBias[k] = fastAddBias(sumin[k], suminScale[k], bias[k]);
}

/// The range of an integer output, as doubles (exact).
template <class TOut>
constexpr double kLowest = double(std::numeric_limits<TOut>::min());
template <class TOut>
constexpr double kHighest = double(std::numeric_limits<TOut>::max());

template <class TOut>
[[gnu::always_inline]] inline double clampTo(double v) {
  const double above = v < kLowest<TOut> ? kLowest<TOut> : v;
  return above > kHighest<TOut> ? kHighest<TOut> : above;
}

/// A clamped value (within int32) to an integer: truncation (exact, whatever
/// the rounding mode) and, with `round`, the step to the nearest integer,
/// ties to the even one; all in doubles, without branches.
template <bool round>
[[gnu::always_inline]] inline int32_t toInteger(double clamped) {
  const double whole = double(int32_t(clamped));
  double step = 0;
  if constexpr (round) {
    const double rest = clamped - whole, away = rest < 0 ? -rest : rest;
    const bool odd = double(int32_t(whole * 0.5)) * 2 != whole;
    const double unit = rest < 0 ? -1.0 : 1.0;
    step = (away > 0.5) | ((away == 0.5) & odd) ? unit : 0.0;  // no short circuit
  }
  return int32_t(whole + step);
}

/// An fp24 value held in a double, stored as TOut (as elementOf stores it:
/// an integer range's ends are integers, so clamping first and rounding then
/// equals rounding and saturating).
template <class TOut, bool round>
[[gnu::always_inline]] inline TOut narrowValue(double v) {
  constexpr FloatRounding mode = narrowing(round);
  if constexpr (std::is_same_v<TOut, float>)
    return float(v);  // exact
  else if constexpr (std::is_same_v<TOut, half>)
    return half::fromBits(uint16_t(convert(float32ToFp24(float(v)), kFp24, kFp16, mode)));
  else if constexpr (std::is_same_v<TOut, bfloat16>)
    return bfloat16::fromBits(uint16_t(convert(float32ToFp24(float(v)), kFp24, kBf16, mode)));
  else
    return TOut(toInteger<round>(clampTo<TOut>(v)));
}

/// A row of values into a contiguous output row. Integer outputs go in
/// passes of fixed-count blocks (clamp, round to int32, narrow), each of which
/// the compiler vectorises; `whole` holds K int32.
template <class TOut, bool round>
void narrowRow(double* __restrict values, int32_t* __restrict whole, TOut* __restrict out, long K) {
  constexpr long kNarrowBlock = 16;
  const long blocked = K - K % kNarrowBlock;
  if constexpr (std::is_integral_v<TOut>) {
    for (long k = 0; k < blocked; k += kNarrowBlock)
      for (long i = 0; i < kNarrowBlock; ++i) values[k + i] = clampTo<TOut>(values[k + i]);
    for (long k = 0; k < blocked; k += kNarrowBlock)
      for (long i = 0; i < kNarrowBlock; ++i) whole[k + i] = toInteger<round>(values[k + i]);
    for (long k = 0; k < blocked; k += kNarrowBlock)
      for (long i = 0; i < kNarrowBlock; ++i) out[k + i] = TOut(whole[k + i]);
  } else {
    for (long k = 0; k < blocked; k += kNarrowBlock)
      for (long i = 0; i < kNarrowBlock; ++i) out[k + i] = narrowValue<TOut, round>(values[k + i]);
  }
  for (long k = blocked; k < K; ++k) out[k] = narrowValue<TOut, round>(values[k]);
}

/// Every row of one table's part of psum (and sumin: TSumin float or half,
/// or void) into fout through the vectorised loop; a row whose sumin is out
/// of its range goes through `element` with the channels' registers.
template <class TOut, class TSumin, bool relu, bool round, class Element>
void storeFast(const Tensor& fout, const Tensor& psum, const Tensor& sumin, const FastTables& fast, long first,
               const FloatRegisters* regs, const Element& element) {
  constexpr bool hasSumin = !std::is_void_v<TSumin>;
  const long K = psum.dim(-1);
  const Tensor& suminOrPsum = hasSumin ? sumin : psum;
  auto base = [](const Tensor& t) { return t.storage()->data() + t.offset(); };
  const ArrayRef<long> rows = psum.shape().slice(0, psum.rank() - 1);
  const StridedWalk<3> walk(rows, {base(fout), base(psum), base(suminOrPsum)},
                            {fout.strides().data(), psum.strides().data(), suminOrPsum.strides().data()});
  const long outStep = fout.stride(-1), psumStep = psum.stride(-1), suminStep = suminOrPsum.stride(-1);
  const double* scale = fast.scale.data() + first;
  const double* bias = fast.bias.data() + first;
  const double* suminScale = fast.suminScale.data() + first;
  const size_t width = static_cast<size_t>(K);
  std::vector<double> values(width), addBias(hasSumin ? width : 0);
  std::vector<int32_t> gathered(width), whole(width);
  std::vector<float> suminRow(hasSumin ? width : 0);
  walk.forEachChunk([&](char* const* p, const long* s, long n) {
    for (long j = 0; j < n; ++j) {
      char* out = p[0] + j * s[0];
      const char* in = p[1] + j * s[1];
      const char* add = p[2] + j * s[2];
      const int32_t* psumRow = reinterpret_cast<const int32_t*>(in);
      if (psumStep != long(sizeof(int32_t))) {
        for (long k = 0; k < K; ++k) gathered[size_t(k)] = *reinterpret_cast<const int32_t*>(in + k * psumStep);
        psumRow = gathered.data();
      }
      const double* rowBias = bias;
      if constexpr (hasSumin) {
        for (long k = 0; k < K; ++k) {
          const TSumin v = *reinterpret_cast<const TSumin*>(add + k * suminStep);
          if constexpr (std::is_same_v<TSumin, float>)
            suminRow[size_t(k)] = v;
          else
            suminRow[size_t(k)] = v.toFloat();  // exact
        }
        if (!suminRowUsable(suminRow.data(), K)) {
          static const Coord unused;
          for (long k = 0; k < K; ++k) {
            NoTrace quiet;
            *reinterpret_cast<TOut*>(out + k * outStep) =
                element(unused, regs[k], psumRow[k], static_cast<const void*>(add + k * suminStep), quiet);
          }
          continue;
        }
        fastAddBiases(suminRow.data(), suminScale, bias, addBias.data(), K);
        rowBias = addBias.data();
      }
      fastValues<relu>(psumRow, scale, rowBias, values.data(), K);
      if (outStep == long(sizeof(TOut)))
        narrowRow<TOut, round>(values.data(), whole.data(), reinterpret_cast<TOut*>(out), K);
      else
        for (long k = 0; k < K; ++k)
          *reinterpret_cast<TOut*>(out + k * outStep) = narrowValue<TOut, round>(values[size_t(k)]);
    }
  });
}

void runFloatPostProcess(Tensor& fout, const Tensor& psum, const Tensor& sumin, const FloatPlan& plan,
                         PostProcessFlags flags) {
  using vela::intrinsic::detail::runChannelwise;
  using vela::intrinsic::detail::storeChannelwise;
  using vela::intrinsic::detail::withConstantFlags;
  FastTables fast;
  const bool vectorised = psum.stride(-1) % long(sizeof(int32_t)) == 0 && planFast(plan, sumin.isValid(), fast);
  dispatch<FloatOutputs>(fout.elementType(), [&]<class TOut>() {
    auto run = [&]<class TSumin>() {
      withConstantFlags(flags, [&]<bool relu, bool round>() {
        auto element = [](const Coord& at, const FloatRegisters& q, int32_t value, const void* add, auto& trace) {
          return elementOf<TOut, TSumin>(at, value, add, q, PostProcessFlags{relu, round}, trace);
        };
        runChannelwise<TOut, TSumin>(fout, psum, sumin, plan, element,
                                     [&](const Tensor& out, const Tensor& in, const Tensor& add, long table) {
                                       const long first = table * plan.channels;
                                       if (vectorised)
                                         storeFast<TOut, TSumin, relu, round>(out, in, add, fast, first,
                                                                              plan.regs.data() + first, element);
                                       else
                                         storeChannelwise<TOut, TSumin>(out, in, add, plan.regs.data() + first,
                                                                        element);
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
  return checkedPostProcess<FloatPlan>(
      psum,
      [&](const Tensor& p, FloatPlan& plan) {
        return planFloatPostProcess(fout, p, quantInfo, sumin, perTensor, plan);
      },
      [&](const Tensor& p, const FloatPlan& plan) { runFloatPostProcess(fout, p, sumin, plan, {relu, round}); });
}

Status TaeConvMacFPP(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                     Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                     std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                     bool relu, bool round, bool perTensor) {
  return macThenPostProcess<FloatPlan>(
      fout, fin, weight, psum, pad, padValue, stride, dilation, group,
      [&](const Tensor& p, FloatPlan& plan) {
        return planFloatPostProcess(fout, p, quantInfo, sumin, perTensor, plan);
      },
      [&](const Tensor& acc, const FloatPlan& plan) {
        runFloatPostProcess(fout, acc, sumin, plan, {relu, round});
      });
}

}  // namespace kora::lyra::intrinsic
