// The one-input elementwise operators: each is its formula and its trace
// name; the checks, dispatch, f16 handling, tracing and loop come from
// UnaryKernel.h. Cast, FakeCast and Lut live in UnaryConvert.cpp.
#include <cfenv>
#include <cmath>
#include <math.h>

#include "Native/UnaryKernel.h"
#include "kora/Native/Unary.h"
#include "kora/Support/FixedPoint.h"

namespace kora::native {

namespace {

using detail::constantAs;
using detail::unaryChecks;
using detail::unaryCompute;
using detail::unaryConfig;

using IntegerAndFloat = TypeList<half, float, int8_t, int16_t, int32_t, int64_t>;
using LogicalTypes = decltype(TypeList<half, float, double, Bool8>{} + IntegerTypes{});

// A single precision libm function applied as it is.
template <float (*F)(float)>
struct LibmOp {
  const char* name;
  float operator()(float x) const { return F(x); }
};

struct ReluOp {
  const char* name = "relu";
  template <class T>
  T operator()(T x) const {
    return x > T(0) ? x : T(0);
  }
};

struct LeakyReluOp {
  const char* name = "leakyrelu";
  double alpha;
  template <class T>
  auto forElement() const {
    return [alpha = constantAs<T>(alpha)](float x) { return x > 0.0f ? x : alpha * x; };
  }
};

struct SigmoidOp {
  const char* name = "sigmoid";
  float operator()(float x) const { return 1.0f / (expf(-x) + 1.0f); }
};

struct SwishOp {
  const char* name = "swish";
  float operator()(float x) const { return x * (1.0f / (expf(-x) + 1.0f)); }
};

struct MishOp {
  const char* name = "mish";
  float operator()(float x) const {
    const float s = logf(expf(x) + 1.0f);
    return x * (expf(s) - expf(-s)) / (expf(s) + expf(-s));
  }
};

struct GeluOp {
  const char* name = "gelu";
  float operator()(float x) const { return x * 0.5f * (erff(x / 1.4142135f) + 1.0f); }
};

struct GeluTanhOp {
  const char* name = "geluv2_tanh";
  float operator()(float x) const {
    return 0.5f * x * (1.0f + tanhf(0.7978845f * (x + 0.044715f * x * x * x)));
  }
};

struct SoftsignOp {
  const char* name = "softsign";
  float operator()(float x) const { return x / (fabsf(x) + 1.0f); }
};

struct RsqrtOp {
  const char* name = "rsqrt";
  float operator()(float x) const { return 1.0f / sqrtf(x); }
};

struct ReciprocalOp {
  const char* name = "reciprocal";
  float operator()(float x) const { return 1.0f / x; }
};

struct SoftplusOp {
  const char* name = "softplus";
  float beta, threshold;
  float operator()(float x) const {
    const float t = beta * x;
    return t > threshold ? x : (1.0f / beta) * logf(expf(t) + 1.0f);
  }
};

struct EluOp {
  const char* name = "elu";
  float alpha;
  float operator()(float x) const { return x < 0.0f ? (expf(x) - 1.0f) * alpha : x; }
};

struct SeluOp {
  const char* name = "selu";
  float alpha, gamma;
  float operator()(float x) const { return x > 0.0f ? gamma * x : gamma * fmaf(alpha, expf(x), -alpha); }
};

struct HardsigmoidOp {
  const char* name = "hardsigmoid";
  float alpha, beta;
  float operator()(float x) const {
    const float v = alpha * x + beta;
    return v < 1.0f ? (v > 0.0f ? v : 0.0f) : 1.0f;
  }
};

struct NegOp {
  const char* name = "neg";
  float operator()(float x) const { return -x; }
};

struct SignOp {
  const char* name = "sign";
  float operator()(float x) const { return x > 0.0f ? 1.0f : x < 0.0f ? -1.0f : x; }
};

struct ClampFOp {
  const char* name = "clamp";
  double min, max;
  template <class T>
  auto forElement() const {
    return [lo = constantAs<T>(min), hi = constantAs<T>(max)](float x) {
      float y = x;
      if (x < lo) y = lo;
      if (hi < y) y = hi;
      return y;
    };
  }
};

struct ClampOp {
  const char* name = "clamp";
  int64_t min, max;
  template <class T>
  T operator()(T x) const {
    // Bounds truncated to the element width, lower bound first.
    const T lo = T(std::make_unsigned_t<T>(min)), hi = T(std::make_unsigned_t<T>(max));
    const T y = x < lo ? lo : x;
    return y > hi ? hi : y;
  }
};

struct RoundOp {
  const char* name = "round";
  float scale;
  float operator()(float x) const { return std::rint(x * scale) / scale; }
};

struct NanToNumOp {
  const char* name = "nanToNum";
  double nan, posinf, neginf;
  template <class T>
  auto forElement() const {
    return [nan = constantAs<T>(nan), posinf = constantAs<T>(posinf), neginf = constantAs<T>(neginf)](float x) {
      if (std::isnan(x)) return nan;
      if (std::isinf(x)) return x > 0.0f ? posinf : neginf;
      return x;
    };
  }
};

struct BitwiseNotOp {
  const char* name = "bitwise_not";
  template <class T>
  T operator()(T x) const {
    using U = std::make_unsigned_t<T>;
    return T(U(~U(x)));
  }
};

struct LogicalNotOp {
  const char* name = "logical_not";
  template <class C>
  C operator()(C x) const {
    return x == C(0) ? C(1) : C(0);
  }
  Bool8 operator()(Bool8 x) const { return Bool8{uint8_t(x.value == 0)}; }
};

struct PreluOp {
  template <class C>
  C operator()(C x, C slope) const {
    if constexpr (std::is_integral_v<C>)
      return x < 0 ? fixed::wrapMul(x, slope) : x;
    else
      return x < C(0) ? x * slope : x;
  }
};

Status checkHalfFloatInput(const Tensor& fout, const Tensor& fin, const char* message) {
  KORA_RETURN_IF_ERROR(unaryChecks(fout, fin));
  if (!typeIn<HalfFloat>(fin.elementType())) return Status::failure(message);
  return Status::success();
}

Status checkApproximate(const std::string& approximate) {
  if (approximate != "none" && approximate != "tanh") return Status::failure("only support none or tanh approximate.");
  return Status::success();
}

}  // namespace

// Members without attributes: one line each.
#define KORA_DEFINE_UNARY(Name, Types, ...)                                                               \
  Status Name##Config(Tensor& fout, Tensor const& fin) { return unaryConfig(#Name, fout, fin); }        \
  Status Name(Tensor& fout, Tensor const& fin) { return unaryCompute<Types>(fout, fin, __VA_ARGS__); }

KORA_DEFINE_UNARY(ReLU, IntegerAndFloat, ReluOp{})
KORA_DEFINE_UNARY(Sigmoid, HalfFloat, SigmoidOp{})
KORA_DEFINE_UNARY(Tanh, HalfFloat, LibmOp<::tanhf>{"tanh"})
KORA_DEFINE_UNARY(Swish, HalfFloat, SwishOp{})
KORA_DEFINE_UNARY(Mish, HalfFloat, MishOp{})
KORA_DEFINE_UNARY(GELU, HalfFloat, GeluOp{})
KORA_DEFINE_UNARY(Softsign, HalfFloat, SoftsignOp{})
KORA_DEFINE_UNARY(Rsqrt, HalfFloat, RsqrtOp{})
KORA_DEFINE_UNARY(Reciprocal, HalfFloat, ReciprocalOp{})
KORA_DEFINE_UNARY(Exp, HalfFloat, LibmOp<::expf>{"exp"})
KORA_DEFINE_UNARY(Log, HalfFloat, LibmOp<::logf>{"log"})
KORA_DEFINE_UNARY(Sqrt, HalfFloat, LibmOp<::sqrtf>{"sqrt"})
KORA_DEFINE_UNARY(Sin, HalfFloat, LibmOp<::sinf>{"sin"})
KORA_DEFINE_UNARY(Cos, HalfFloat, LibmOp<::cosf>{"cos"})
KORA_DEFINE_UNARY(Tan, HalfFloat, LibmOp<::tanf>{"tan"})
KORA_DEFINE_UNARY(Asin, HalfFloat, LibmOp<::asinf>{"asin"})
KORA_DEFINE_UNARY(Acos, HalfFloat, LibmOp<::acosf>{"acos"})
KORA_DEFINE_UNARY(Atan, HalfFloat, LibmOp<::atanf>{"atan"})
KORA_DEFINE_UNARY(Sinh, HalfFloat, LibmOp<::sinhf>{"sinh"})
KORA_DEFINE_UNARY(Cosh, HalfFloat, LibmOp<::coshf>{"cosh"})
KORA_DEFINE_UNARY(Asinh, HalfFloat, LibmOp<::asinhf>{"asinh"})
KORA_DEFINE_UNARY(Acosh, HalfFloat, LibmOp<::acoshf>{"acosh"})
KORA_DEFINE_UNARY(Atanh, HalfFloat, LibmOp<::atanhf>{"atanh"})
KORA_DEFINE_UNARY(Erf, HalfFloat, LibmOp<::erff>{"erf"})
KORA_DEFINE_UNARY(Floor, HalfFloat, LibmOp<::floorf>{"floor"})
KORA_DEFINE_UNARY(Ceil, HalfFloat, LibmOp<::ceilf>{"ceil"})
KORA_DEFINE_UNARY(Abs, HalfFloat, LibmOp<::fabsf>{"abs"})
KORA_DEFINE_UNARY(Neg, HalfFloat, NegOp{})
KORA_DEFINE_UNARY(Sign, HalfFloat, SignOp{})
KORA_DEFINE_UNARY(LogicalNot, LogicalTypes, LogicalNotOp{})

#undef KORA_DEFINE_UNARY

Status LeakyReLUConfig(Tensor& fout, Tensor const& fin, double) { return unaryConfig("LeakyReLU", fout, fin); }
Status LeakyReLU(Tensor& fout, Tensor const& fin, double alpha) {
  return unaryCompute<HalfFloat>(fout, fin, LeakyReluOp{.alpha = alpha});
}

Status GELUV2Config(Tensor& fout, Tensor const& fin, std::string const& approximate) {
  Status valid = checkApproximate(approximate);
  if (!valid.ok()) return configError("GELUV2", valid.message());
  return unaryConfig("GELUV2", fout, fin);
}
Status GELUV2(Tensor& fout, Tensor const& fin, std::string const& approximate) {
  KORA_RETURN_IF_ERROR(checkApproximate(approximate));
  if (approximate == "tanh") return unaryCompute<HalfFloat>(fout, fin, GeluTanhOp{});
  return unaryCompute<HalfFloat>(fout, fin, GeluOp{.name = "geluv2_none"});
}

Status SoftplusConfig(Tensor& fout, Tensor const& fin, double, double) { return unaryConfig("Softplus", fout, fin); }
Status Softplus(Tensor& fout, Tensor const& fin, double beta, double threshold) {
  return unaryCompute<HalfFloat>(
      fout, fin, SoftplusOp{.beta = convertElement<float>(beta, false), .threshold = convertElement<float>(threshold, false)});
}

Status EluConfig(Tensor& fout, Tensor const& fin, float) { return unaryConfig("Elu", fout, fin); }
Status Elu(Tensor& fout, Tensor const& fin, float alpha) {
  return unaryCompute<HalfFloat>(fout, fin, EluOp{.alpha = alpha});
}

Status SeluConfig(Tensor& fout, Tensor const& fin, float, float) { return unaryConfig("Selu", fout, fin); }
Status Selu(Tensor& fout, Tensor const& fin, float alpha, float gamma) {
  return unaryCompute<HalfFloat>(fout, fin, SeluOp{.alpha = alpha, .gamma = gamma});
}

Status HardsigmoidConfig(Tensor& fout, Tensor const& fin, float, float) {
  return unaryConfig("Hardsigmoid", fout, fin);
}
Status Hardsigmoid(Tensor& fout, Tensor const& fin, float alpha, float beta) {
  return unaryCompute<HalfFloat>(fout, fin, HardsigmoidOp{.alpha = alpha, .beta = beta});
}

Status ClampFConfig(Tensor& fout, Tensor const& fin, double, double) { return unaryConfig("ClampF", fout, fin); }
Status ClampF(Tensor& fout, Tensor const& fin, double min, double max) {
  return unaryCompute<HalfFloat>(fout, fin, ClampFOp{.min = min, .max = max});
}

Status ClampConfig(Tensor& fout, Tensor const& fin, int64_t, int64_t) { return unaryConfig("Clamp", fout, fin); }
Status Clamp(Tensor& fout, Tensor const& fin, int64_t min, int64_t max) {
  return unaryCompute<SignedTypes>(fout, fin, ClampOp{.min = min, .max = max});
}

Status RoundConfig(Tensor& fout, Tensor const& fin, int64_t) { return unaryConfig("Round", fout, fin); }
Status Round(Tensor& fout, Tensor const& fin, int64_t decimals) {
  KORA_RETURN_IF_ERROR(checkHalfFloatInput(fout, fin, "round fin should be in [float32, float16]"));
  // rint rounds in the thread's mode; nothing inside the loop changes it, so
  // setting it once stands for setting it before every element.
  std::fesetround(FE_TONEAREST);
  const float scale = float(std::pow(10.0, double(decimals)));
  return unaryCompute<HalfFloat>(fout, fin, RoundOp{.scale = scale});
}

Status NanToNumConfig(Tensor& fout, Tensor const& fin, double, double, double) {
  return unaryConfig("NanToNum", fout, fin);
}
Status NanToNum(Tensor& fout, Tensor const& fin, double nan, double posinf, double neginf) {
  KORA_RETURN_IF_ERROR(checkHalfFloatInput(fout, fin, "numToNum fin should be in [float32, float16]"));
  return unaryCompute<HalfFloat>(fout, fin, NanToNumOp{.nan = nan, .posinf = posinf, .neginf = neginf});
}

Status BitwiseNotConfig(Tensor& fout, Tensor const& fin) { return unaryConfig("BitwiseNot", fout, fin); }
Status BitwiseNot(Tensor& fout, Tensor const& fin) {
  KORA_RETURN_IF_ERROR(unaryChecks(fout, fin));
  if (!typeIn<SignedTypes>(fout.elementType())) return Status::failure("must be integral");
  return unaryCompute<SignedTypes>(fout, fin, BitwiseNotOp{});
}

Status PReluConfig(Tensor& fout, Tensor const& fin, Tensor const& slope) {
  std::vector<long> shape;
  Status inferred = inferElementwiseShape({&fin, &slope}, shape);
  if (!inferred.ok()) return configError("PRelu", inferred.message());
  if (!fin.shape().equals(shape)) return configError("PRelu", "shape mismatch");
  fout.setShape(shape);
  if (fout.elementType() == ElementType::invalid) fout.setElementType(fin.elementType());
  return Status::success();
}

Status PRelu(Tensor& fout, Tensor const& fin, Tensor const& slope) {
  if (fout.elementType() == ElementType::invalid) trapUnknownElementType(ElementType::invalid);
  if (fin.elementType() != fout.elementType() || slope.elementType() != fout.elementType())
    return Status::failure("type mismatch");
  Tensor slopeView = slope;
  if (!fout.sameShape(fin) || !broadcastTo(fout.shape(), slopeView).ok()) return Status::failure("shape mismatch");
  if (!fout.isValid() || !fin.isValid() || !slope.isValid()) return Status::failure("fout and fin must hold data");
  const TracePoint trace = TracePoint::forOutput(fout);
  dispatch<IntegerAndFloat>(fout.elementType(), [&]<class T>() {
    auto element = [](T x, T s) -> T { return narrow<T>(PreluOp{}(widen(x), widen(s))); };
    if (trace) {
      const T x = fin.at<T>(trace.coord());
      const T y = element(x, slopeView.at<T>(trace.coord()));
      Tracer{}("fout{} = {}(fin{}) // {}({}) -> {} ", trace.coord(), "prelu", trace.coord(), "prelu", x, y);
    }
    zipElements<T, T, T>(fout, fin, slopeView, element);
  });
  return Status::success();
}

}  // namespace kora::native
