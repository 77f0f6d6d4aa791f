// Integer and float quant info from the floating scales and zero points of a
// quantized convolution. The integer search adjusts what the second
// generation's fields cannot express and says so; the float one rounds each
// value to fp24.
#include <cmath>
#include <limits>

#include "Lyra/Intrinsic/QuantInfo.h"
#include "Vela/Intrinsic/QuantScales.h"
#include "kora/Core/Context.h"
#include "kora/Lyra/Intrinsic.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/SoftFloat.h"

namespace kora::lyra::intrinsic {

namespace {

using namespace detail;
using vela::intrinsic::detail::biasOf;
using vela::intrinsic::detail::checkInputZeroPoint;
using vela::intrinsic::detail::checkScales;
using vela::intrinsic::detail::nearlyEqual;
using vela::intrinsic::detail::PerChannel;
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
void searchOutputShifts(double m, int64_t foutBits, int64_t* row) {
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
}

/// suminScale and suminRShift for an 8-bit or 16-bit sumin with rescale
/// ratio r.
void searchSuminShift(double r, int64_t* row) {
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
}

/// The checks of the scales and zero points both generators share.
Status checkScalesAndZeroPoint(const Tensor& weight, long K, ArrayRef<double> finScale, int64_t finZeroPoint,
                               ArrayRef<double> weightScale, ArrayRef<double> suminScale, ArrayRef<double> foutScale) {
  KORA_RETURN_IF_ERROR(checkScales("fin", finScale, K, false));
  KORA_RETURN_IF_ERROR(checkScales("weight", weightScale, K, true));
  if (!suminScale.empty()) KORA_RETURN_IF_ERROR(checkScales("sumin", suminScale, K, true));
  KORA_RETURN_IF_ERROR(checkScales("fout", foutScale, K, true));
  return checkInputZeroPoint(weight, finZeroPoint, K);
}

/// Writes rows [K, width] into a compact-or-strided rank-2 tensor.
template <class T>
void storeRows(Tensor& quantInfo, const std::vector<T>& rows, long width) {
  for (long k = 0; k < quantInfo.dim(0); ++k)
    for (long j = 0; j < width; ++j) {
      const long at[] = {k, j};
      quantInfo.at<T>(at) = rows[size_t(k * width + j)];
    }
}

}  // namespace

Status GenQuantInfo(Tensor& quantInfo, Tensor const& weight, Tensor const& bias, ArrayRef<double> finScale,
                    int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                    int64_t suminZeroPoint, int64_t suminBits, ArrayRef<double> foutScale, int64_t foutZeroPoint,
                    int64_t foutBits) {
  const bool hasBias = bias.isValid(), hasSumin = !suminScale.empty();
  auto wide = [](int64_t bits) { return bits == 8 || bits == 16 || bits == 32; };
  if (quantInfo.rank() != 2) return Status::failure("quantInfo must be rank of 2");
  if (hasBias && bias.rank() != 1) return Status::failure("bias must be rank of 1");
  if (quantInfo.dim(1) != kDecodedWidth) return Status::failure("quantInfo axis 1 size must be 6");
  if (hasSumin && !wide(suminBits)) return Status::failure("sumin must be 8bit 16bit or 32bit");
  if (!wide(foutBits)) return Status::failure("fout must be 8bit 16bit or 32bit");
  const long K = quantInfo.dim(0);
  if (hasBias && bias.dim(0) != K) return Status::failure("quantInfo and bias axis 0 size must be identical");
  if (quantInfo.elementType() != ElementType::si64 || !quantInfo.isValid())
    return Status::failure("decoded quantInfo must be si64");
  if (hasBias && !typeIn<TypeList<float, double, int32_t>>(bias.elementType()))
    return Status::failure("bias must be f32, f64 or si32");
  KORA_RETURN_IF_ERROR(
      checkScalesAndZeroPoint(weight, K, finScale, finZeroPoint, weightScale, suminScale, foutScale));

  // Every row is derived before any is written.
  std::vector<int64_t> rows(size_t(K * kDecodedWidth), 0);
  for (long k = 0; k < K; ++k) {
    int64_t* row = rows.data() + k * kDecodedWidth;
    const double accumulatorScale = finScale[0] * PerChannel{weightScale}[k];
    const double m = accumulatorScale / PerChannel{foutScale}[k];
    if (foutBits == 32) {
      if (!nearlyEqual(m, 1.0)) return Status::failure("si32 conv does not support rescale, check fout scale");
      row[kScale] = 1;
    } else {
      searchOutputShifts(m, foutBits, row);
    }
    // Folded into the bias, in accumulator units.
    double offset = biasOf(bias, k, accumulatorScale);
    if (finZeroPoint != 0) offset -= double(finZeroPoint) * double(weightSum(weight, k));
    if (hasSumin) {
      const double r = PerChannel{suminScale}[k] / accumulatorScale;
      double effective;  // the rescale the hardware applies
      if (suminBits == 32) {
        if (nearlyEqual(r, 1.0))
          row[kSuminRShift] = 0;
        else if (nearlyEqual(r, 1.0 / 256))
          row[kSuminRShift] = 8;
        else if (nearlyEqual(r, 256.0))
          row[kSuminRShift] = -8;
        else
          return Status::failure("si32 sumin does not support rescale, check sumin scale");
        effective = std::ldexp(1.0, -int(row[kSuminRShift]));
      } else {
        searchSuminShift(r, row);
        effective = double(row[kSuminScale]) * std::ldexp(1.0, -int(row[kSuminRShift]));
      }
      offset -= double(suminZeroPoint) * effective;
    }
    if (row[kScale] != 0)
      offset += double(foutZeroPoint) * std::ldexp(1.0, int(row[kPreRShift] + row[kPostRShift])) / double(row[kScale]);
    const double rounded = std::round(offset);
    if (!(rounded >= double(std::numeric_limits<int32_t>::min()) &&
          rounded <= double(std::numeric_limits<int32_t>::max())))
      return failure("can not get bias in range of int32 on channel {}", k);
    row[kBias] = int64_t(rounded);
  }
  storeRows(quantInfo, rows, kDecodedWidth);
  return Status::success();
}

Status GenFloatQuantInfo(Tensor& quantInfo, Tensor const& weight, Tensor const& bias, ArrayRef<double> finScale,
                         int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                         ArrayRef<double> foutScale, int64_t foutZeroPoint) {
  constexpr long kWidth = 3;
  const bool hasBias = bias.isValid();
  if (quantInfo.rank() != 2) return Status::failure("quantInfo must be rank of 2");
  if (hasBias && bias.rank() != 1) return Status::failure("bias must be rank of 1");
  if (quantInfo.dim(1) != kWidth) return Status::failure("quantInfo axis 1 size must be 3");
  const long K = quantInfo.dim(0);
  if (hasBias && bias.dim(0) != K) return Status::failure("quantInfo and bias axis 0 size must be identical");
  if (quantInfo.elementType() != ElementType::f32 || !quantInfo.isValid())
    return Status::failure("float quantInfo must be f32");
  if (hasBias && !typeIn<TypeList<float, double, int32_t>>(bias.elementType()))
    return Status::failure("bias must be f32, f64 or si32");
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
