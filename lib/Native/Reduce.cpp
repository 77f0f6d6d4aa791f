// The reductions. Each member is its step, its starting value, its type
// rule and its trace lines; the axes, the shape checks, the fold and the
// traced element come from ReduceKernel.h.
#include "kora/Native/Reduce.h"

#include <cmath>
#include <limits>

#include "Native/ReduceKernel.h"
#include "kora/Support/FixedPoint.h"

namespace kora::native {

namespace {

using namespace detail;

using OrderedTypes = decltype(FloatTypes{} + IntegerTypes{});
using HighPrecisionTypes = TypeList<half, float, int32_t, int64_t>;
using AllTypes = TypeList<int8_t, int16_t, int32_t, int64_t, float, half, Bool8>;

// --- steps ---------------------------------------------------------------------

template <class C>
constexpr bool isIntegral = std::is_integral_v<C>;

/// The larger value, as native::Max: a NaN wins, and of two zeros +0. The
/// ordered cases are decided first, by one comparison each.
template <class C>
C maxOf(C x, C val) {
  if (x > val) return x;
  if constexpr (!isIntegral<C>) {
    if (x < val) return val;
    if (std::isnan(x)) return x;
    if (std::isnan(val)) return val;
    return std::signbit(x) ? val : x;  // equal: of two zeros, +0
  }
  return val;
}

/// The smaller value, as native::Min: a NaN wins, and of two zeros -0.
template <class C>
C minOf(C x, C val) {
  if (x < val) return x;
  if constexpr (!isIntegral<C>) {
    if (x > val) return val;
    if (std::isnan(x)) return x;
    if (std::isnan(val)) return val;
    return std::signbit(x) ? x : val;  // equal: of two zeros, -0
  }
  return val;
}

struct MaxOp : FoldOp {
  static constexpr bool kStartsAtFirst = true;
  template <class A, class X>
  A operator()(A val, X x) const {
    return maxOf<A>(A(x), val);
  }
  template <class A>
  void traceStart(A val) const {
    Tracer{}("val = {}", val);
  }
  template <class A, class X>
  void traceStep(const Coord&, const Coord& in, A before, X x, A after) const {
    Tracer{}("val = max(fin{}, val) // max({}, {}) -> {}", in, x, before, after);
  }
  template <class A, class O>
  void traceFinish(const Coord& out, A, O result) const {
    Tracer{}("fout{} = val // {}", out, result);
  }
};

struct MinOp : MaxOp {
  template <class A, class X>
  A operator()(A val, X x) const {
    return minOf<A>(A(x), val);
  }
  template <class A, class X>
  void traceStep(const Coord&, const Coord& in, A before, X x, A after) const {
    Tracer{}("val = min(fin{}, val) // min({}, {}) -> {}", in, x, before, after);
  }
};

struct SumOp : FoldOp {
  template <class A>
  A start() const {
    return A(0);
  }
  template <class A, class X>
  A operator()(A acc, X x) const {
    if constexpr (isIntegral<A>)
      return fixed::wrapAdd(acc, static_cast<A>(x));
    else
      return acc + x;
  }
  template <class A, class X>
  void traceStep(const Coord& out, const Coord& in, A before, X x, A after) const {
    Tracer{}("fout{} += fin{} // {} += {} -> {}", out, in, before, x, after);
  }
};

struct MeanOp : FoldOp {
  explicit MeanOp(float d) : divisor(d) {}
  float divisor;
  template <class A>
  A start() const {
    return A(0);
  }
  template <class A, class X>
  A operator()(A acc, X x) const {
    return acc + x * divisor;
  }
  template <class A, class X>
  void traceStep(const Coord& out, const Coord& in, A before, X x, A after) const {
    Tracer{}("fout{} += fin{} * divisor // {} += {} * {} -> {}", out, in, before, x, divisor, after);
  }
};

struct ProdOp : FoldOp {
  template <class A>
  A start() const {
    return A(1);
  }
  template <class A, class X>
  A operator()(A acc, X x) const {
    if constexpr (isIntegral<A>)
      return fixed::wrapMul(acc, static_cast<A>(x));
    else
      return acc * x;
  }
  template <class A, class X>
  void traceStep(const Coord& out, const Coord& in, A before, X x, A after) const {
    Tracer{}("fout{} *= fin{} // {} *= {} -> {}", out, in, before, x, after);
  }
};

struct SumSquareOp : SumOp {
  template <class A, class X>
  A operator()(A acc, X x) const {
    if constexpr (isIntegral<A>)
      return fixed::wrapAdd(acc, fixed::wrapMul(static_cast<A>(x), static_cast<A>(x)));
    else
      return acc + x * x;
  }
  template <class A, class X>
  void traceStep(const Coord& out, const Coord& in, A before, X x, A after) const {
    Tracer{}("fout{} += fin{} * fin{} // {} += {} * {} -> {}", out, in, in, before, x, x, after);
  }
};

struct LogSumOp : SumOp {
  static constexpr bool kPlainFinish = false;
  template <class Out, class A>
  Out finish(A acc) const {
    return toOut<Out>(logf(acc));
  }
  template <class A, class O>
  void traceFinish(const Coord& out, A acc, O result) const {
    Tracer{}("fout{} = log(fout{}) // log({}) -> {}", out, out, acc, result);
  }
};

template <class X>
bool nonZero(X x) {
  if constexpr (std::is_same_v<X, Bool8>)
    return x.value != 0;
  else
    return x != X(0);
}

struct AllOp : FoldOp {
  static constexpr bool kPlainFinish = false;
  template <class A>
  A start() const {
    return A(1);
  }
  template <class A, class X>
  A operator()(A acc, X x) const {
    return A(acc & A(nonZero(x)));
  }
  template <class A, class X>
  void traceStep(const Coord& out, const Coord& in, A before, X x, A after) const {
    Tracer{}("fout{} = fout{} && fin{} // {} && {} -> {}", out, out, in, before, x, after);
  }
};

// ReduceLp's three forms: the order 1 and 2 avoid powf, whose result for
// these exponents need not be the exactly rounded |x| and x * x.
struct L1Op : SumOp {
  template <class A, class X>
  A operator()(A acc, X x) const {
    return acc + std::fabs(x);
  }
  template <class A, class X>
  void traceStep(const Coord& out, const Coord& in, A before, X x, A after) const {
    Tracer{}("fout{} += abs(fin{}) // {} += abs({}) -> {}", out, in, before, x, after);
  }
};

struct L2Op : SumSquareOp {
  static constexpr bool kPlainFinish = false;
  template <class Out, class A>
  Out finish(A acc) const {
    return toOut<Out>(sqrtf(acc));
  }
  template <class A, class O>
  void traceFinish(const Coord& out, A acc, O result) const {
    Tracer{}("fout{} = sqrt(fout{}) // sqrt({}) -> {}", out, out, acc, result);
  }
};

struct LpOp : SumOp {
  static constexpr bool kPlainFinish = false;
  explicit LpOp(float order) : p(order), inverse(1.0f / order) {}
  float p, inverse;
  template <class A, class X>
  A operator()(A acc, X x) const {
    return acc + powf(std::fabs(x), p);
  }
  template <class Out, class A>
  Out finish(A acc) const {
    return toOut<Out>(powf(acc, inverse));
  }
  template <class A, class X>
  void traceStep(const Coord& out, const Coord& in, A before, X x, A after) const {
    Tracer{}("fout{} += pow(abs(fin{}), p) // {} += pow(abs({}), {}) -> {}", out, in, before, x, p, after);
  }
  template <class A, class O>
  void traceFinish(const Coord& out, A acc, O result) const {
    Tracer{}("fout{} = pow(fout{}, 1 / p) // pow({}, {}) -> {}", out, out, acc, inverse, result);
  }
};

// --- shared checks ---------------------------------------------------------------

Status reduceConfig(const char* kernel, Tensor& fout, const Tensor& fin, const std::vector<int64_t>& dims,
                    bool keepDims, const char* argTypeText = nullptr) {
  if (argTypeText && dims.size() != 1) return configError(kernel, "ReduceArg op can have only one reduced axis");
  ReducedAxes axes;
  Status s = reduceAxesOf(dims, fin.rank(), axes);
  if (!s.ok()) return configError(kernel, s.message());
  if (argTypeText) {
    const ElementType type = fout.elementType();
    if (type != ElementType::invalid && !typeIn<IntegerTypes>(type)) return configError(kernel, argTypeText);
    if (type == ElementType::invalid) fout.setElementType(ElementType::si64);
  } else if (fout.elementType() == ElementType::invalid) {
    fout.setElementType(fin.elementType());
  }
  fout.setShape(reducedShape(fin, axes, keepDims));
  return Status::success();
}

// The checks every member makes before its type rule.
Status reducePrelude(const Tensor& fout, const Tensor& fin, const std::vector<int64_t>& dims, ReducedAxes& axes) {
  if (!fout.isValid() || !fin.isValid()) return Status::failure("fout and fin must hold data");
  KORA_RETURN_IF_ERROR(reduceAxesOf(dims, fin.rank(), axes));
  return checkReducedShape(fout, fin, axes);
}

// Members without a starting value of their own need every group non-empty.
Status requireElements(const Tensor& fin, const ReducedAxes& axes) {
  for (unsigned long a = 0; a < fin.rank(); ++a)
    if (axes.reduced[a] && fin.dim(long(a)) == 0) return failure("reduced axis {} is empty", a);
  return Status::success();
}

struct SumTexts {
  const char* floatTypes;
  const char* integerTypes;
};

/// Sums, floating or integer: float fin into fout of its type, si8 ... si64
/// into fout's own integer type.
template <class Op>
Status sumCompute(const Tensor& fout, const Tensor& fin, const ReducedAxes& axes, const Op& op, SumTexts texts) {
  if (isFloat(fin.elementType())) {
    if (fout.elementType() != fin.elementType()) return Status::failure(texts.floatTypes);
    dispatch<FloatTypes>(fin.elementType(), [&]<class T>() { foldReduce<T, T, ComputeType<T>>(fout, fin, axes, op); });
    return Status::success();
  }
  if (!typeIn<SignedTypes>(fin.elementType())) return Status::failure(texts.integerTypes);
  if (!typeIn<IntegerTypes>(fout.elementType())) return Status::failure("input and output element type miss");
  dispatch<SignedTypes>(fin.elementType(), [&]<class In>() {
    dispatch<IntegerTypes>(fout.elementType(), [&]<class Out>() { foldReduce<In, Out, Out>(fout, fin, axes, op); });
  });
  return Status::success();
}

/// Members over f16, f32, si32, si64 with one type for fin and fout.
template <class Op>
Status highPrecisionCompute(const Tensor& fout, const Tensor& fin, const ReducedAxes& axes, const Op& op,
                            const char* typesText, const char* sameText) {
  if (!typeIn<HighPrecisionTypes>(fin.elementType()) || !typeIn<HighPrecisionTypes>(fout.elementType()))
    return Status::failure(typesText);
  if (fin.elementType() != fout.elementType()) return Status::failure(sameText);
  dispatch<HighPrecisionTypes>(fin.elementType(),
                               [&]<class T>() { foldReduce<T, T, ComputeType<T>>(fout, fin, axes, op); });
  return Status::success();
}

/// Members over f16 and f32 with one type for fin and fout.
template <class Op>
Status floatCompute(const Tensor& fout, const Tensor& fin, const ReducedAxes& axes, const Op& op) {
  if (fin.elementType() != fout.elementType()) return Status::failure("input and output element type miss");
  dispatch<HalfFloat>(fin.elementType(), [&]<class T>() { foldReduce<T, T, float>(fout, fin, axes, op); });
  return Status::success();
}

template <class Op>
Status extremeCompute(const Tensor& fout, const Tensor& fin, const std::vector<int64_t>& dims, const Op& op,
                      const char* sameText) {
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  if (fin.elementType() != fout.elementType()) return Status::failure(sameText);
  KORA_RETURN_IF_ERROR(requireElements(fin, axes));
  dispatch<OrderedTypes>(fin.elementType(), [&]<class T>() { foldReduce<T, T, ComputeType<T>>(fout, fin, axes, op); });
  return Status::success();
}

// --- ReduceArgMax and ReduceArgMin -------------------------------------------------

/// One step of an Arg member: the element replaces val and arg when strictly
/// greater (strictly less).
template <class C>
bool argReplaces(C x, C val, bool greatest) {
  return greatest ? x > val : x < val;
}

template <class In>
void traceArg(const Tensor& fin, const ReducedAxes& axes, long axis, const Coord& point, bool greatest) {
  Coord c = inputCoordOf(point, fin, axes);
  auto val = widen(fin.at<In>(c));
  int64_t arg = 0;
  Tracer{}("val = {}", val);
  for (long i = 0; i < fin.dim(axis); ++i) {
    c[axis] = i;
    const auto x = widen(fin.at<In>(c));
    const bool replace = argReplaces(x, val, greatest);
    const int64_t next = replace ? i : arg;
    if (greatest)
      Tracer{}("arg = (fin{} > val) ? {} : arg // ({} > {}) ? {} : {} -> {}", c, i, x, val, i, arg, next);
    else
      Tracer{}("arg = (fin{} < val) ? {} : arg // ({} > {}) ? {} : {} -> {}", c, i, x, val, i, arg, next);
    if (replace) val = x;
    arg = next;
  }
  Tracer{}("fout{} = arg // {}", point, arg);
}

/// The index of the first extreme element along `axis` of each group, as
/// int64 in `args` (kept shape). The walk is row-major over fin, so every
/// group sees its elements in increasing index; the index of each element
/// comes from a fourth operand, the numbers 0 .. n-1 laid along the axis.
template <class In>
void argReduce(const Tensor& args, const Tensor& fin, const ReducedAxes& axes, long axis, bool greatest) {
  using C = ComputeType<In>;
  const long n = fin.dim(axis);
  const Tensor vals = Tensor::create(elementTypeOf<C>, args.shape());
  mapElements<C, In>(vals, firstOfGroups(fin, axes), [](In x) { return widen(x); });
  fillElements<int64_t>(args, 0);
  Tensor numbers = Tensor::create(ElementType::si64, {n});
  int64_t* number = numbers.data<int64_t>().data();
  for (long i = 0; i < n; ++i) number[i] = i;
  long strides[kMaxRank] = {};
  strides[axis] = long(sizeof(int64_t));
  const Tensor index(fin.shape().data(), fin.rank(), strides, ElementType::si64, 0, numbers.storage());
  StridedWalk<4>::over(overInput(vals, fin), overInput(args, fin), fin, index)
      .forEachChunk([greatest](char* const* p, const long* s, long count) {
        for (long j = 0; j < count; ++j) {
          C& val = *reinterpret_cast<C*>(p[0] + j * s[0]);
          const C x = widen(loadAt<In>(p[2], s[2], j));
          if (argReplaces(x, val, greatest)) {
            val = x;
            *reinterpret_cast<int64_t*>(p[1] + j * s[1]) = loadAt<int64_t>(p[3], s[3], j);
          }
        }
      });
}

Status argCompute(Tensor& fout, const Tensor& fin, const std::vector<int64_t>& dims, bool greatest) {
  const char* integerText = greatest ? "reduce arg max fout must be integer" : "reduce arg min fout must be integer";
  if (dims.size() != 1) return Status::failure("ReduceArg op can have only one reduced axis");
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  if (!typeIn<IntegerTypes>(fout.elementType())) return Status::failure(integerText);
  KORA_RETURN_IF_ERROR(requireElements(fin, axes));
  const long axis = long(dims[0] < 0 ? dims[0] + int64_t(fin.rank()) : dims[0]);
  const long largest = fin.dim(axis) - 1;
  const bool fits = dispatch<IntegerTypes>(fout.elementType(), [&]<class Out>() {
    return uint64_t(largest) <= uint64_t(std::numeric_limits<Out>::max());
  });
  if (!fits) return failure("reduce arg index {} does not fit in fout {}", largest, fout.elementType());
  dispatch<OrderedTypes>(fin.elementType(), [&]<class In>() {
    if (const TracePoint trace = TracePoint::forOutput(fout)) traceArg<In>(fin, axes, axis, trace.coord(), greatest);
    const Tensor out = keptView(fout, fin, axes);
    const Tensor args = Tensor::create(ElementType::si64, out.shape());
    argReduce<In>(args, fin, axes, axis, greatest);
    castElements(out, args);
  });
  return Status::success();
}

// --- ReduceLogSumExp ---------------------------------------------------------------

float logSumExpShift(float max) { return std::isfinite(max) ? max : 0.0f; }

template <class In>
void traceLogSumExp(const Tensor& fin, const ReducedAxes& axes, const Coord& point) {
  const Coord first = inputCoordOf(point, fin, axes);
  float max = -std::numeric_limits<float>::infinity();
  Tracer{}("max = {}", max);
  forEachInGroup(fin, axes, first, [&](const Coord& c) {
    const float x = widen(fin.at<In>(c));
    const float next = maxOf(x, max);
    Tracer{}("max = max(fin{}, max) // max({}, {}) -> {}", c, x, max, next);
    max = next;
  });
  const float shift = logSumExpShift(max);
  Tracer{}("shift = {}", shift);
  float sum = 0.0f;
  forEachInGroup(fin, axes, first, [&](const Coord& c) {
    const float x = widen(fin.at<In>(c));
    const float next = sum + expf(x - shift);
    Tracer{}("fout{} += exp(fin{} - shift) // {} += exp({} - {}) -> {}", point, c, sum, x, shift, next);
    sum = next;
  });
  Tracer{}("fout{} = shift + log(fout{}) // {} + log({}) -> {}", point, point, shift, sum,
           In(shift + logf(sum)));
}

template <class In>
void logSumExp(const Tensor& fout, const Tensor& fin, const ReducedAxes& axes) {
  if (const TracePoint trace = TracePoint::forOutput(fout)) traceLogSumExp<In>(fin, axes, trace.coord());
  const Tensor out = keptView(fout, fin, axes);
  // The maximum from -inf, which no element but -inf or NaN leaves unchanged,
  // so an empty group needs no case of its own.
  const Tensor shifts = Tensor::create(ElementType::f32, out.shape());
  fillElements<float>(shifts, -std::numeric_limits<float>::infinity());
  foldGroups<In, float>(shifts, fin, MaxOp{});
  mapElements<float, float>(shifts, shifts, logSumExpShift);
  const Tensor sums = Tensor::create(ElementType::f32, out.shape());
  fillElements<float>(sums, 0.0f);
  StridedWalk<3>::over(overInput(sums, fin), overInput(shifts, fin), fin)
      .forEachChunk([](char* const* p, const long* s, long n) {
        for (long j = 0; j < n; ++j) {
          float& sum = *reinterpret_cast<float*>(p[0] + j * s[0]);
          sum = sum + expf(widen(loadAt<In>(p[2], s[2], j)) - loadAt<float>(p[1], s[1], j));
        }
      });
  zipElements<In, float, float>(out, shifts, sums, [](float shift, float sum) { return In(shift + logf(sum)); });
}

}  // namespace

// --- the members --------------------------------------------------------------------

#define KORA_REDUCE_SIGNATURE(Name) Name(Tensor& fout, Tensor const& fin, std::vector<int64_t> const& dims, bool keepDims)

#define KORA_DEFINE_REDUCE_CONFIG(Name)                           \
  Status KORA_REDUCE_SIGNATURE(Name##Config) {                    \
    return reduceConfig(#Name, fout, fin, dims, keepDims);        \
  }

KORA_DEFINE_REDUCE_CONFIG(ReduceMax)
KORA_DEFINE_REDUCE_CONFIG(ReduceMin)
KORA_DEFINE_REDUCE_CONFIG(ReduceSum)
KORA_DEFINE_REDUCE_CONFIG(ReduceMean)
KORA_DEFINE_REDUCE_CONFIG(ReduceProd)
KORA_DEFINE_REDUCE_CONFIG(ReduceSumSquare)
KORA_DEFINE_REDUCE_CONFIG(ReduceLogSum)
KORA_DEFINE_REDUCE_CONFIG(ReduceAll)
KORA_DEFINE_REDUCE_CONFIG(ReduceLogSumExp)

#undef KORA_DEFINE_REDUCE_CONFIG

Status KORA_REDUCE_SIGNATURE(ReduceArgMaxConfig) {
  return reduceConfig("ReduceArgMax", fout, fin, dims, keepDims, "reduce arg max fout must be integer");
}
Status KORA_REDUCE_SIGNATURE(ReduceArgMinConfig) {
  return reduceConfig("ReduceArgMin", fout, fin, dims, keepDims, "reduce arg min fout must be integer");
}

Status KORA_REDUCE_SIGNATURE(ReduceMax) {
  (void)keepDims;
  return extremeCompute(fout, fin, dims, MaxOp{}, "reduce max fin and fout must be the same");
}

Status KORA_REDUCE_SIGNATURE(ReduceMin) {
  (void)keepDims;
  return extremeCompute(fout, fin, dims, MinOp{}, "reduce min fin and fout must be the same");
}

Status KORA_REDUCE_SIGNATURE(ReduceArgMax) {
  (void)keepDims;
  return argCompute(fout, fin, dims, true);
}

Status KORA_REDUCE_SIGNATURE(ReduceArgMin) {
  (void)keepDims;
  return argCompute(fout, fin, dims, false);
}

Status KORA_REDUCE_SIGNATURE(ReduceSum) {
  (void)keepDims;
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  return sumCompute(fout, fin, axes, SumOp{},
                    {"float reduce sum fin and fout must be the same",
                     "quant reduce sum fin should be in [si8, si16, s32, s64]"});
}

Status KORA_REDUCE_SIGNATURE(ReduceMean) {
  (void)keepDims;
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  if (fin.elementType() != ElementType::f32 && fin.elementType() != ElementType::f16)
    return Status::failure("fin must be f32 or f16");
  if (fin.elementType() != fout.elementType()) return Status::failure("fin and fout must be the same type");
  const long n = groupSize(fin, axes);
  if (n == 0) {
    // The mean of nothing: no element to multiply by 1 / 0.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    dispatch<HalfFloat>(fout.elementType(), [&]<class T>() { fillElements<T>(fout, T(nan)); });
    return Status::success();
  }
  return floatCompute(fout, fin, axes, MeanOp(1.0f / float(n)));
}

Status KORA_REDUCE_SIGNATURE(ReduceProd) {
  (void)keepDims;
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  return highPrecisionCompute(
      fout, fin, axes, ProdOp{},
      "reduce prod fin and fout must be high-precision numeric tensors (i.e. float, half, int32, int64)",
      "reduce prod fin and fout must have the same type");
}

Status KORA_REDUCE_SIGNATURE(ReduceSumSquare) {
  (void)keepDims;
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  return highPrecisionCompute(
      fout, fin, axes, SumSquareOp{},
      "reduce sumsquare fin and fout must be high-precision numeric tensors (i.e. float, half, int32 and int64)",
      "reduce sumsquare fin and fout must have the same type");
}

Status KORA_REDUCE_SIGNATURE(ReduceLogSum) {
  (void)keepDims;
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  return floatCompute(fout, fin, axes, LogSumOp{});
}

Status KORA_REDUCE_SIGNATURE(ReduceAll) {
  (void)keepDims;
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  if (!typeIn<AllTypes>(fin.elementType()))
    return Status::failure("tensor.all fin should be in [si8, si16, s32, s64, float32, float16, bool]");
  if (fout.elementType() != fin.elementType() && fout.elementType() != ElementType::bool8)
    return Status::failure("input and output element type miss");
  dispatch<AllTypes>(fin.elementType(), [&]<class T>() {
    if (fout.elementType() == ElementType::bool8)
      foldReduce<T, Bool8, uint8_t>(fout, fin, axes, AllOp{});
    else
      foldReduce<T, T, uint8_t>(fout, fin, axes, AllOp{});
  });
  return Status::success();
}

Status KORA_REDUCE_SIGNATURE(ReduceLogSumExp) {
  (void)keepDims;
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reducePrelude(fout, fin, dims, axes));
  if (fin.elementType() != fout.elementType()) return Status::failure("input and output element type miss");
  dispatch<HalfFloat>(fin.elementType(), [&]<class T>() { logSumExp<T>(fout, fin, axes); });
  return Status::success();
}

#undef KORA_REDUCE_SIGNATURE

// --- ReduceLp -------------------------------------------------------------------------

namespace {

Status checkOrder(int64_t p) {
  if (p < 1) return failure("p should be at least 1, but got {}", p);
  return Status::success();
}

}  // namespace

Status ReduceLpConfig(Tensor& fout, Tensor const& fin, int64_t p) {
  Status s = checkOrder(p);
  if (!s.ok()) return configError("ReduceLp", s.message());
  if (fout.elementType() == ElementType::invalid) fout.setElementType(fin.elementType());
  fout.setShape({});
  return Status::success();
}

Status ReduceLp(Tensor& fout, Tensor const& fin, int64_t p) {
  KORA_RETURN_IF_ERROR(checkOrder(p));
  if (!fout.isValid() || !fin.isValid()) return Status::failure("fout and fin must hold data");
  if (fout.numElements() != 1) return Status::failure("shape mismatch");
  ReducedAxes axes;
  KORA_RETURN_IF_ERROR(reduceAxesOf({}, fin.rank(), axes));
  if (p == 1) return floatCompute(fout, fin, axes, L1Op{});
  if (p == 2) return floatCompute(fout, fin, axes, L2Op{});
  return floatCompute(fout, fin, axes, LpOp(float(p)));
}

// --- CumSum ---------------------------------------------------------------------------

namespace {

Status cumSumAxis(int64_t axis, unsigned long rank, long& normalised) {
  const int64_t a = axis < 0 ? axis + int64_t(rank) : axis;
  if (a < 0 || a >= int64_t(rank)) return failure("invalid cumsum axis {}, finRank {}", a, rank);
  normalised = long(a);
  return Status::success();
}

/// One line of a running sum: n elements at byte strides `si` (in) and `so`
/// (out), in the order of the pointers (reverse lines come with negated
/// strides from their last element).
template <class In, class Out, class Acc>
void cumulateLine(char* out, long so, const char* in, long si, long n, bool exclusive) {
  Acc acc = Acc(0);
  for (long i = 0; i < n; ++i) {
    const auto x = widen(loadAt<In>(in, si, i));  // read before the store: fout may be fin
    if (exclusive) *reinterpret_cast<Out*>(out + i * so) = toOut<Out>(acc);
    acc = SumOp{}(acc, x);
    if (!exclusive) *reinterpret_cast<Out*>(out + i * so) = toOut<Out>(acc);
  }
}

/// `lanes` independent lines side by side (lane j at byte offsets j * lo,
/// j * li), each running along the axis: the lanes advance together, one
/// element of each line per step, in blocks of kLanes accumulators.
template <class In, class Out, class Acc>
void cumulateLanes(char* out, long lo, long so, const char* in, long li, long si, long lanes, long n,
                   bool exclusive) {
  constexpr long kLanes = 256;
  Acc acc[kLanes];
  for (long j0 = 0; j0 < lanes; j0 += kLanes) {
    const long m = std::min(kLanes, lanes - j0);
    for (long j = 0; j < m; ++j) acc[j] = Acc(0);
    for (long i = 0; i < n; ++i) {
      char* o = out + j0 * lo + i * so;
      const char* x = in + j0 * li + i * si;
      for (long j = 0; j < m; ++j) {
        const auto v = widen(loadAt<In>(x, li, j));
        if (exclusive) *reinterpret_cast<Out*>(o + j * lo) = toOut<Out>(acc[j]);
        acc[j] = SumOp{}(acc[j], v);
        if (!exclusive) *reinterpret_cast<Out*>(o + j * lo) = toOut<Out>(acc[j]);
      }
    }
  }
}

template <class In, class Out, class Acc>
void traceCumSum(const Tensor& fin, long axis, const Coord& point, bool exclusive, bool reverse) {
  const long n = fin.dim(axis), at = point[axis];
  const long first = reverse ? n - 1 : 0, step = reverse ? -1 : 1;
  const long count = (reverse ? n - 1 - at : at) + (exclusive ? 0 : 1);
  Coord c = point;
  Acc acc = Acc(0);
  for (long k = 0; k < count; ++k) {
    c[axis] = first + k * step;
    const auto x = widen(fin.at<In>(c));
    const Acc next = SumOp{}(acc, x);
    SumOp{}.traceStep(point, c, acc, x, next);
    acc = next;
  }
}

template <class In, class Out, class Acc>
void cumulate(const Tensor& fout, const Tensor& fin, long axis, bool exclusive, bool reverse) {
  if (const TracePoint trace = TracePoint::forOutput(fout))
    traceCumSum<In, Out, Acc>(fin, axis, trace.coord(), exclusive, reverse);
  const long n = fin.dim(axis);
  if (n == 0) return;
  long so = fout.stride(axis), si = fin.stride(axis);
  char* outBase = fout.storage()->data() + fout.offset();
  char* inBase = fin.storage()->data() + fin.offset();
  if (reverse) {
    outBase += (n - 1) * so;
    inBase += (n - 1) * si;
    so = -so;
    si = -si;
  }
  // The walk runs over every axis but `axis`; each of its runs is a set of
  // independent lines.
  long shape[kMaxRank] = {}, outStrides[kMaxRank] = {}, inStrides[kMaxRank] = {};
  unsigned long r = 0;
  for (unsigned long a = 0; a < fin.rank(); ++a) {
    if (long(a) == axis) continue;
    shape[r] = fin.dim(long(a));
    outStrides[r] = fout.stride(long(a));
    inStrides[r++] = fin.stride(long(a));
  }
  StridedWalk<2>(ArrayRef<long>(shape, r), {outBase, inBase}, {outStrides, inStrides})
      .forEachChunk([&](char* const* p, const long* s, long lanes) {
        // Lines that run through memory are summed one after the other;
        // lines whose neighbours are closer than their own elements advance
        // together.
        if (lanes == 1 || std::labs(si) <= std::labs(s[1])) {
          for (long j = 0; j < lanes; ++j)
            cumulateLine<In, Out, Acc>(p[0] + j * s[0], so, p[1] + j * s[1], si, n, exclusive);
        } else {
          cumulateLanes<In, Out, Acc>(p[0], s[0], so, p[1], s[1], si, lanes, n, exclusive);
        }
      });
}

}  // namespace

Status CumSumConfig(Tensor& fout, Tensor const& fin, int64_t axis, bool, bool) {
  long normalised = 0;
  Status s = cumSumAxis(axis, fin.rank(), normalised);
  if (!s.ok()) return configError("CumSum", s.message());
  if (fout.elementType() == ElementType::invalid) fout.setElementType(fin.elementType());
  fout.setShape(fin.shape());
  return Status::success();
}

Status CumSum(Tensor& fout, Tensor const& fin, int64_t axis, bool exclusive, bool reverse) {
  if (!fout.isValid() || !fin.isValid()) return Status::failure("fout and fin must hold data");
  long a = 0;
  KORA_RETURN_IF_ERROR(cumSumAxis(axis, fin.rank(), a));
  if (!fout.sameShape(fin)) return Status::failure("shape mismatch");
  if (isFloat(fin.elementType())) {
    if (fout.elementType() != fin.elementType()) return Status::failure("float cumsum fin and fout must be the same");
    dispatch<FloatTypes>(fin.elementType(),
                         [&]<class T>() { cumulate<T, T, ComputeType<T>>(fout, fin, a, exclusive, reverse); });
    return Status::success();
  }
  if (!typeIn<SignedTypes>(fin.elementType()))
    return Status::failure("quant cumsum fin should be in [si8, si16, s32, s64]");
  if (!typeIn<IntegerTypes>(fout.elementType())) return Status::failure("input and output element type miss");
  dispatch<SignedTypes>(fin.elementType(), [&]<class In>() {
    dispatch<IntegerTypes>(fout.elementType(),
                           [&]<class Out>() { cumulate<In, Out, Out>(fout, fin, a, exclusive, reverse); });
  });
  return Status::success();
}

}  // namespace kora::native
