// Integer and float quant info from the floating scales and zero points of a
// quantized convolution. The integer search adjusts what the second
// generation's fields cannot express and says so; the float one rounds each
// value to fp24.
#include <algorithm>
#include <cmath>

#include "Lyra/Intrinsic/QuantInfo.h"
#include "Vela/Intrinsic/QuantScales.h"
#include "kora/Core/Context.h"
#include "kora/Lyra/Intrinsic.h"
#include "kora/Support/SoftFloat.h"

namespace kora::lyra::intrinsic {

namespace {

using namespace detail;
using vela::intrinsic::detail::biasOf;
using vela::intrinsic::detail::checkGeneratorOperands;
using vela::intrinsic::detail::checkScalesAndZeroPoint;
using vela::intrinsic::detail::PerChannel;
using vela::intrinsic::detail::QuantSearch;
using vela::intrinsic::detail::storeRows;
using vela::intrinsic::detail::weightSum;

constexpr double kScaleMax = 32767;  // the 15-bit scale fields
constexpr int kSuminRShiftLowest = -9;
constexpr int kTotalShiftMax = int(kPreRShiftMax + kPostRShiftMax);

/// The largest shift n with round(ratio * 2^n) <= 32767: the most precise
/// 15-bit scale for a positive, finite ratio.
int preciseShift(double ratio) {
  int n = 14 - std::ilogb(ratio);  // ratio * 2^n in [2^14, 2^15)
  while (std::round(std::ldexp(ratio, n)) > kScaleMax) --n;
  while (std::round(std::ldexp(ratio, n + 1)) <= kScaleMax) ++n;
  return n;
}

int64_t scaleAt(double ratio, int shift) { return int64_t(std::min(std::round(std::ldexp(ratio, shift)), kScaleMax)); }

/// preRShift, scale and postRShift for an 8-bit or 16-bit output with
/// multiplier m.
Status searchOutputShifts(double m, int64_t foutBits, int64_t* row) {
  int total = preciseShift(m);
  if (total < 0) {
    Context::get().logf(LogLevel::warn, "conv post process does not support left shift: {}, adjust to 0", total);
    total = 0;
  }
  total = std::min(total, kTotalShiftMax);
  // The smallest pre-shift that keeps every accumulator whose output is not
  // saturated anyway (|acc| <= 2^(foutBits-1) / m) inside the 16-bit clamp.
  const double limit = std::ldexp(1.0, int(foutBits) - 1) / m;
  int pre = 0;
  while (pre < kPreRShiftMax && limit > std::ldexp(32768.0, pre)) ++pre;
  pre = std::clamp(pre, std::max(0, total - int(kPostRShiftMax)), std::min(total, int(kPreRShiftMax)));
  row[kPreRShift] = pre;
  row[kPostRShift] = total - pre;
  row[kScale] = scaleAt(m, total);
  return Status::success();
}

/// suminScale and suminRShift for an 8-bit or 16-bit sumin with rescale
/// ratio r.
Status searchSuminShift(double r, int64_t* row) {
  int shift = preciseShift(r);
  if (shift > kSuminRShiftMax) {
    Context::get().logf(LogLevel::warn, "suminRShift cannot greater than 22: {}, adjust to 22", shift);
    shift = int(kSuminRShiftMax);
  } else if (shift < kSuminRShiftLowest) {
    Context::get().logf(LogLevel::warn, "suminRShift cannot less than -9: {}, adjust to -9", shift);
    shift = kSuminRShiftLowest;
  }
  row[kSuminRShift] = shift;
  row[kSuminScale] = scaleAt(r, shift);
  return Status::success();
}

constexpr QuantSearch kSearch{true, "sumin must be 8bit 16bit or 32bit", "fout must be 8bit 16bit or 32bit",
                              &searchOutputShifts, &searchSuminShift};

}  // namespace

Status GenQuantInfo(Tensor& quantInfo, Tensor const& weight, Tensor const& bias, ArrayRef<double> finScale,
                    int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                    int64_t suminZeroPoint, int64_t suminBits, ArrayRef<double> foutScale, int64_t foutZeroPoint,
                    int64_t foutBits) {
  return vela::intrinsic::detail::generateQuantInfo(quantInfo, weight, bias, finScale, finZeroPoint, weightScale,
                                                    suminScale, suminZeroPoint, suminBits, foutScale, foutZeroPoint,
                                                    foutBits, kSearch);
}

Status GenFloatQuantInfo(Tensor& quantInfo, Tensor const& weight, Tensor const& bias, ArrayRef<double> finScale,
                         int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                         ArrayRef<double> foutScale, int64_t foutZeroPoint) {
  constexpr long kWidth = 3;
  KORA_RETURN_IF_ERROR(checkGeneratorOperands(quantInfo, bias, kWidth, Status::success(), ElementType::f32,
                                              "float quantInfo must be f32"));
  const long K = quantInfo.dim(0);
  KORA_RETURN_IF_ERROR(
      checkScalesAndZeroPoint(weight, K, finScale, finZeroPoint, weightScale, suminScale, foutScale));

  // A value as the nearest fp24, read back as the float32 the unit cuts
  // without loss; false when it leaves fp24's normal range.
  auto toFp24 = [](double v, float& out) {
    if (!std::isfinite(v)) return false;
    const bool negative = v < 0;
    int e;
    const double fraction = std::frexp(std::fabs(v), &e);  // exact: [0.5, 1) * 2^e
    const uint64_t significand = uint64_t(std::ldexp(fraction, 53));
    const uint32_t fp24 = uint32_t(
        roundToFormat(kFp24, negative, significand, e - 53, softfloat::hardwareRule(FloatRounding::NearestEven)));
    out = softfloat::f24ToF32(fp24);
    return std::isfinite(out) && (out != 0 || v == 0);
  };
  std::vector<float> rows(size_t(K * kWidth), 0.0f);
  for (long k = 0; k < K; ++k) {
    const double accumulatorScale = finScale[0] * PerChannel{weightScale}[k];
    const double scale = accumulatorScale / PerChannel{foutScale}[k];
    const double sumin = suminScale.empty() ? 0.0 : PerChannel{suminScale}[k] / PerChannel{foutScale}[k];
    double offset = biasOf(bias, k, accumulatorScale);
    if (finZeroPoint != 0) offset -= double(finZeroPoint) * double(weightSum(weight, k));
    const double biasValue = offset * scale + double(foutZeroPoint);
    float* row = rows.data() + k * kWidth;
    if (!toFp24(biasValue, row[0])) return failure("can not get bias in range of fp24 on channel {}", k);
    if (!toFp24(sumin, row[1])) return failure("can not get suminScale in range of fp24 on channel {}", k);
    if (!toFp24(scale, row[2])) return failure("can not get scale in range of fp24 on channel {}", k);
  }
  storeRows(quantInfo, rows, kWidth);
  return Status::success();
}

}  // namespace kora::lyra::intrinsic
