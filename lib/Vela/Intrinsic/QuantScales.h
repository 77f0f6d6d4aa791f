#pragma once
// What every quant-info generator reads from the floating description of a
// quantized convolution: per-channel scale lists, the bias in accumulator
// units and the weight sums that fold an input zero point into the bias;
// and the integer generator both generations run, parameterised by the
// shifts their fields can express.
#include <cmath>
#include <cstdint>
#include <vector>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora::vela::intrinsic::detail {

/// A ratio this close to a power of two is taken as that power.
inline constexpr double kUnitTolerance = 1e-6;

/// One value per channel: a list of 1 (broadcast) or K values.
struct PerChannel {
  ArrayRef<double> values;
  double operator[](long k) const { return values.size() == 1 ? values[0] : values[size_t(k)]; }
};

/// "{name} scale must hold 1 value" (when per-channel values are not
/// allowed), "{name} scale must hold 1 or {K} values", "{name} scale must be
/// positive and finite".
Status checkScales(const char* name, ArrayRef<double> values, long K, bool perChannelAllowed);

inline bool nearlyEqual(double a, double b) { return std::fabs(a - b) <= kUnitTolerance * b; }

/// The bias tensor's value of channel k in accumulator units: si32 is
/// already there, f32 and f64 are real values divided by the accumulator
/// scale; an invalid tensor means no bias.
double biasOf(const Tensor& bias, long k, double accumulatorScale);

/// An input zero point other than 0 is folded into the bias through the
/// weights, which must then be si8 [K, R, S, Cg], with the zero point within
/// si8. Checks: "when fin zero point not zero, weight must be valid",
/// "cannot generate input zero point conv2d".
Status checkInputZeroPoint(const Tensor& weight, int64_t finZeroPoint, long K);

/// Sum of the si8 weights of output channel k (exact in int64).
int64_t weightSum(const Tensor& weight, long k);

/// The checks of the scales and the input zero point, in order: those of
/// checkScales for fin (1 value), weight, sumin (when not empty) and fout,
/// then those of checkInputZeroPoint.
Status checkScalesAndZeroPoint(const Tensor& weight, long K, ArrayRef<double> finScale, int64_t finZeroPoint,
                               ArrayRef<double> weightScale, ArrayRef<double> suminScale, ArrayRef<double> foutScale);

/// The checks every generator starts with, in order: "quantInfo must be
/// rank of 2", "bias must be rank of 1", "quantInfo axis 1 size must be
/// {width}", then `bits` (a failed Status: the integer generators' sumin and
/// fout widths), "quantInfo and bias axis 0 size must be identical",
/// `typeReason` (quantInfo not of `type` or without data), "bias must be
/// f32, f64 or si32". An invalid bias means none.
Status checkGeneratorOperands(const Tensor& quantInfo, const Tensor& bias, long width, const Status& bits,
                              ElementType type, const char* typeReason);

/// Writes rows [K, width] into a rank-2 tensor of any strides.
template <class T>
void storeRows(Tensor& quantInfo, const std::vector<T>& rows, long width) {
  for (long k = 0; k < quantInfo.dim(0); ++k)
    for (long j = 0; j < width; ++j) {
      const long at[] = {k, j};
      quantInfo.at<T>(at) = rows[size_t(k * width + j)];
    }
}

/// What a generation's integer generator can express.
struct QuantSearch {
  bool sixteenBits;             // 16-bit sumin and fout allowed beside 8 and 32
  const char* suminBitsReason;  // a sumin width it does not take
  const char* foutBitsReason;   // an output width it does not take
  /// preRShift, scale and postRShift of a decoded row for an output of
  /// foutBits (8 or 16) with multiplier m; a failure ends the generation.
  Status (*outputShifts)(double m, int64_t foutBits, int64_t* row);
  /// suminScale and suminRShift for an 8 or 16-bit sumin with rescale ratio r.
  Status (*suminShift)(double r, int64_t* row);
};

/// GenQuantInfo of either generation (Vela/Intrinsic.h documents the
/// arguments and the derivation). A 32-bit output needs a multiplier of 1,
/// a 32-bit sumin a ratio of 1, 2^-8 or 2^8; the bias folds the zero points
/// and must fit in int32. Every row is derived before any is written.
Status generateQuantInfo(Tensor& quantInfo, const Tensor& weight, const Tensor& bias, ArrayRef<double> finScale,
                         int64_t finZeroPoint, ArrayRef<double> weightScale, ArrayRef<double> suminScale,
                         int64_t suminZeroPoint, int64_t suminBits, ArrayRef<double> foutScale, int64_t foutZeroPoint,
                         int64_t foutBits, const QuantSearch& search);

}  // namespace kora::vela::intrinsic::detail
