#pragma once
// What every quant-info generator reads from the floating description of a
// quantized convolution: per-channel scale lists, the bias in accumulator
// units and the weight sums that fold an input zero point into the bias.
#include <cmath>
#include <cstdint>

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

}  // namespace kora::vela::intrinsic::detail
