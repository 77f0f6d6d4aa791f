// Decoded quant info from the floating scales and zero points of a quantized
// convolution: the search for shifts and scales the hardware can express.
#include <cmath>
#include <limits>

#include "Vela/Intrinsic/QuantInfo.h"
#include "Vela/Intrinsic/QuantScales.h"
#include "kora/Support/Dispatch.h"
#include "kora/Vela/Intrinsic.h"

namespace kora::vela::intrinsic {

namespace {

using namespace detail;

constexpr double kScaleMax = 32767;      // the 15-bit scale fields
constexpr int kSuminRShiftLowest = -9;   // sumin8 * scale << 9 still fits in 32 bits

/// preRShift, scale and postRShift for an 8-bit output with multiplier m.
Status searchOutputShifts(double m, int64_t, int64_t* row) {
  // The smallest pre-shift that keeps every accumulator whose output is not
  // saturated anyway (|acc| <= 128 / m) inside the 16-bit clamp.
  int pre = 0;
  while (pre < kPreRShiftMax && 128.0 > m * 32768.0 * std::ldexp(1.0, pre)) ++pre;
  // The largest post-shift that still fits the scale in 15 bits.
  if (std::round(m * std::ldexp(1.0, pre)) > kScaleMax)
    return Status::failure("conv post process does not support left shift");
  int post = 0;
  while (post < 31 && std::round(m * std::ldexp(1.0, pre + post + 1)) <= kScaleMax) ++post;
  row[kPreRShift] = pre;
  row[kPostRShift] = post;
  row[kScale] = int64_t(std::round(m * std::ldexp(1.0, pre + post)));
  return Status::success();
}

/// suminScale and suminRShift for an 8-bit sumin with rescale ratio r.
Status searchSuminShift(double r, int64_t* row) {
  if (std::round(r * std::ldexp(1.0, kSuminRShiftLowest)) > kScaleMax)
    return Status::failure("suminRShift cannot less than -9");
  int shift = kSuminRShiftLowest;
  while (shift < int(kSuminRShiftMax) && std::round(r * std::ldexp(1.0, shift + 1)) <= kScaleMax) ++shift;
  row[kSuminRShift] = shift;
  row[kSuminScale] = int64_t(std::round(r * std::ldexp(1.0, shift)));
  return Status::success();
}

constexpr QuantSearch kSearch{false, "sumin must be 8bit or 32bit", "fout must be 8bit or 32bit",
                              &searchOutputShifts, &searchSuminShift};

}  // namespace

namespace detail {

Status checkScales(const char* name, ArrayRef<double> values, long K, bool perChannelAllowed) {
  if (!perChannelAllowed && values.size() != 1) return failure("{} scale must hold 1 value", name);
  if (values.size() != 1 && long(values.size()) != K) return failure("{} scale must hold 1 or {} values", name, K);
  for (double v : values)
    if (!(v > 0) || !std::isfinite(v)) return failure("{} scale must be positive and finite", name);
  return Status::success();
}

double biasOf(const Tensor& bias, long k, double accumulatorScale) {
  if (!bias.isValid()) return 0;
  const long at[] = {k};
  if (bias.elementType() == ElementType::si32) return bias.at<int32_t>(at);
  const double real = bias.elementType() == ElementType::f32 ? double(bias.at<float>(at)) : bias.at<double>(at);
  return real / accumulatorScale;
}

Status checkInputZeroPoint(const Tensor& weight, int64_t finZeroPoint, long K) {
  if (finZeroPoint == 0) return Status::success();
  if (!weight.isValid()) return Status::failure("when fin zero point not zero, weight must be valid");
  if (weight.elementType() != ElementType::si8 || weight.rank() != 4 || weight.dim(0) != K || finZeroPoint < -128 ||
      finZeroPoint > 127)
    return Status::failure("cannot generate input zero point conv2d");
  return Status::success();
}

int64_t weightSum(const Tensor& weight, long k) {
  const Tensor row = weight.slice(0, k, k + 1).contiguous();
  int64_t sum = 0;
  for (int8_t w : row.data<int8_t>()) sum += w;
  return sum;
}

Status checkScalesAndZeroPoint(const Tensor& weight, long K, ArrayRef<double> finScale, int64_t finZeroPoint,
                               ArrayRef<double> weightScale, ArrayRef<double> suminScale, ArrayRef<double> foutScale) {
  KORA_RETURN_IF_ERROR(checkScales("fin", finScale, K, false));
  KORA_RETURN_IF_ERROR(checkScales("weight", weightScale, K, true));
  if (!suminScale.empty()) KORA_RETURN_IF_ERROR(checkScales("sumin", suminScale, K, true));
  KORA_RETURN_IF_ERROR(checkScales("fout", foutScale, K, true));
  return checkInputZeroPoint(weight, finZeroPoint, K);
}

Status checkGeneratorOperands(const Tensor& quantInfo, const Tensor& bias, long width, const Status& bits,
                              ElementType type, const char* typeReason) {
  const bool hasBias = bias.isValid();
  if (quantInfo.rank() != 2) return Status::failure("quantInfo must be rank of 2");
  if (hasBias && bias.rank() != 1) return Status::failure("bias must be rank of 1");
  if (quantInfo.dim(1) != width) return failure("quantInfo axis 1 size must be {}", width);
  KORA_RETURN_IF_ERROR(bits);
  if (hasBias && bias.dim(0) != quantInfo.dim(0))
    return Status::failure("quantInfo and bias axis 0 size must be identical");
  if (quantInfo.elementType() != type || !quantInfo.isValid()) return Status::failure(typeReason);
  if (hasBias && !typeIn<TypeList<float, double, int32_t>>(bias.elementType()))
    return Status::failure("bias must be f32, f64 or si32");
  return Status::success();
}

Status generateQuantInfo(Tensor& quantInfo, const Tensor& weight, const Tensor& bias, ArrayRef<double> finScale,
                         int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                         int64_t suminZeroPoint, int64_t suminBits, ArrayRef<double> foutScale, int64_t foutZeroPoint,
                         int64_t foutBits, const QuantSearch& search) {
  const bool hasSumin = !suminScale.empty();
  auto allowed = [&](int64_t bits) { return bits == 8 || bits == 32 || (search.sixteenBits && bits == 16); };
  const Status bits = hasSumin && !allowed(suminBits) ? Status::failure(search.suminBitsReason)
                      : !allowed(foutBits)            ? Status::failure(search.foutBitsReason)
                                                      : Status::success();
  KORA_RETURN_IF_ERROR(checkGeneratorOperands(quantInfo, bias, kDecodedWidth, bits, ElementType::si64,
                                              "decoded quantInfo must be si64"));
  const long K = quantInfo.dim(0);
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
      KORA_RETURN_IF_ERROR(search.outputShifts(m, foutBits, row));
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
        KORA_RETURN_IF_ERROR(search.suminShift(r, row));
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

}  // namespace detail

Status GenQuantInfo(Tensor& quantInfo, Tensor const& weight, Tensor const& bias, ArrayRef<double> finScale,
                    int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                    int64_t suminZeroPoint, int64_t suminBits, ArrayRef<double> foutScale, int64_t foutZeroPoint,
                    int64_t foutBits) {
  return generateQuantInfo(quantInfo, weight, bias, finScale, finZeroPoint, weightScale, suminScale, suminZeroPoint,
                           suminBits, foutScale, foutZeroPoint, foutBits, kSearch);
}

}  // namespace kora::vela::intrinsic
