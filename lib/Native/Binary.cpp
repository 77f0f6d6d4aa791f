// The two-input elementwise operators and Where. Each operator is its
// formula and its trace name; the checks, the broadcast views, the dispatch,
// the f16 handling, the trace line and the loop are written once below.
#include "kora/Native/Binary.h"

#include <cmath>
#include <string>
#include <type_traits>

#include "Native/UnaryKernel.h"
#include "kora/Support/FixedPoint.h"

namespace kora::native {

namespace {

using ArithmeticTypes = decltype(FloatTypes{} + IntegerTypes{});
using PredicateTypes = decltype(FloatTypes{} + IntegerTypes{} + TypeList<Bool8>{});

// --- operators ---------------------------------------------------------------
//
// An operator is called with the compute type (float for f16 elements). An
// operator that needs the element type itself instead provides
// `template <class T> T apply(T a, T b) const`.

template <class C>
inline constexpr bool isInteger = std::is_integral_v<C>;

struct AddOp {
  const char* name = "add";
  template <class C>
  C operator()(C a, C b) const {
    if constexpr (isInteger<C>) return fixed::wrapAdd(a, b);
    else return a + b;
  }
};

struct SubOp {
  const char* name = "sub";
  template <class C>
  C operator()(C a, C b) const {
    if constexpr (isInteger<C>) return fixed::wrapSub(a, b);
    else return a - b;
  }
};

struct MulOp {
  const char* name = "mul";
  template <class C>
  C operator()(C a, C b) const {
    if constexpr (isInteger<C>) return fixed::wrapMul(a, b);
    else return a * b;
  }
};

struct DivOp {
  const char* name = "div";
  template <class C>
  C operator()(C a, C b) const {
    if constexpr (isInteger<C>) return fixed::divideTowardZero(a, b);
    else return a / b;
  }
};

// Rem and Mod: one truncated remainder for both.
struct RemOp {
  const char* name = "rem";
  template <class C>
  C operator()(C a, C b) const {
    if constexpr (isInteger<C>) return fixed::remainderTowardZero(a, b);
    else return std::fmod(a, b);
  }
};

struct PowOp {
  const char* name = "pow";
  template <class T>
  T apply(T a, T b) const {
    return convertElement<T, double>(std::pow(double(widen(a)), double(widen(b))), false);
  }
};

struct MaxOp {
  const char* name = "max";
  template <class C>
  C operator()(C a, C b) const {
    if constexpr (!isInteger<C>) {
      if (std::isnan(a)) return a;
      if (std::isnan(b)) return b;
      if (a == b) return std::signbit(a) ? b : a;  // of two zeros, +0
    }
    return a > b ? a : b;
  }
};

struct MinOp {
  const char* name = "min";
  template <class C>
  C operator()(C a, C b) const {
    if constexpr (!isInteger<C>) {
      if (std::isnan(a)) return a;
      if (std::isnan(b)) return b;
      if (a == b) return std::signbit(a) ? a : b;  // of two zeros, -0
    }
    return a < b ? a : b;
  }
};

struct BitShiftOp {
  const char* name = "bit_shift";
  template <class T>
  T apply(T value, T count) const {
    using U = std::make_unsigned_t<T>;
    // The shift is done in 64 bits, with the count taken modulo 64.
    uint64_t shifted;
    if (count >= 1) {
      const unsigned n = unsigned(uint64_t(count) & 63);
      if constexpr (std::is_signed_v<T>)
        shifted = uint64_t(fixed::shiftRightArithmetic(int64_t(value), n));
      else
        shifted = uint64_t(value) >> n;
    } else {
      const unsigned n = unsigned((uint64_t(0) - uint64_t(int64_t(count))) & 63);
      shifted = uint64_t(int64_t(value)) << n;
    }
    return T(U(shifted));
  }
};

struct BitwiseAndOp {
  const char* name = "bitwise_and";
  template <class C>
  C operator()(C a, C b) const {
    return C(a & b);
  }
};

struct BitwiseOrOp {
  const char* name = "bitwise_or";
  template <class C>
  C operator()(C a, C b) const {
    return C(a | b);
  }
};

struct BitwiseXorOp {
  const char* name = "bitwise_xor";
  template <class C>
  C operator()(C a, C b) const {
    return C(a ^ b);
  }
};

// Predicates take the value read by `readValue` (a bool8 reads as 0 or 1).
#define KORA_PREDICATE(Op, traceName, expr)   \
  struct Op {                                 \
    const char* name = traceName;             \
    template <class C>                        \
    bool operator()(C a, C b) const {         \
      return expr;                            \
    }                                         \
  };

KORA_PREDICATE(EqualOp, "equal", a == b)
KORA_PREDICATE(NotEqualOp, "not_equal", a != b)
KORA_PREDICATE(GreaterOp, "greater", a > b)
KORA_PREDICATE(GreaterEqualOp, "greater_equal", a >= b)
KORA_PREDICATE(LessOp, "less", a < b)
KORA_PREDICATE(LessEqualOp, "less_equal", a <= b)
KORA_PREDICATE(LogicalAndOp, "logical_and", a != C(0) && b != C(0))
KORA_PREDICATE(LogicalOrOp, "logical_or", a != C(0) || b != C(0))
KORA_PREDICATE(LogicalXorOp, "logical_xor", (a != C(0)) != (b != C(0)))

#undef KORA_PREDICATE

template <class T>
auto readValue(T x) {
  if constexpr (std::is_same_v<T, Bool8>)
    return uint8_t(x.value != 0);
  else
    return widen(x);
}

// --- shared checks and trace -------------------------------------------------

Status binaryConfig(const char* kernel, Tensor& fout, const Tensor& lhs, const Tensor& rhs, bool predicate) {
  std::vector<long> shape;
  Status inferred = inferElementwiseShape({&lhs, &rhs}, shape);
  if (!inferred.ok()) return configError(kernel, inferred.message());
  fout.setShape(shape);
  if (fout.elementType() == ElementType::invalid)
    fout.setElementType(predicate ? ElementType::bool8 : lhs.elementType());
  return Status::success();
}

// The rank check, the data check and the broadcast views of both inputs.
Status broadcastOperands(const Tensor& fout, const Tensor& lhs, const Tensor& rhs, Tensor& l, Tensor& r) {
  if (fout.rank() < lhs.rank() || fout.rank() < rhs.rank())
    return Status::failure("rank of fout is less than lhs and rhs");
  if (!lhs.isValid() || !rhs.isValid()) return Status::failure("lhs and rhs must both valid");
  if (!fout.isValid()) return Status::failure("fout must hold data");
  l = lhs;
  r = rhs;
  return broadcastBinary(fout, l, r);
}

template <class T, class Element>
void traceBinary(const TracePoint& trace, const char* name, const Tensor& lhs, const Tensor& rhs, const Tensor& l,
                 const Tensor& r, const Element& element) {
  const T a = l.at<T>(trace.coord()), b = r.at<T>(trace.coord());
  Tracer{}("fout{} = {}(lhs{}, rhs{}) // {}({}, {}) -> {} ", trace.coord(), name,
           broadcastSourceCoord(trace.coord(), lhs.shape()), broadcastSourceCoord(trace.coord(), rhs.shape()), name,
           a, b, element(a, b));
}

// --- the two loops -----------------------------------------------------------

/// Operators whose result has the operands' type.
template <class Types, class Op>
Status arithmeticCompute(Tensor& fout, const Tensor& lhs, const Tensor& rhs, const Op& op) {
  if (lhs.elementType() != fout.elementType() || rhs.elementType() != fout.elementType())
    return Status::failure("type mismatch");
  Tensor l, r;
  KORA_RETURN_IF_ERROR(broadcastOperands(fout, lhs, rhs, l, r));
  const TracePoint trace = TracePoint::forOutput(fout);
  dispatch<Types>(fout.elementType(), [&]<class T>() {
    auto element = [&op](T a, T b) -> T {
      if constexpr (requires { op.template apply<T>(a, b); })
        return op.template apply<T>(a, b);
      else
        return narrow<T>(op(widen(a), widen(b)));
    };
    // Traced first, without storing, so that an in-place call sees its input.
    if (trace) traceBinary<T>(trace, op.name, lhs, rhs, l, r, element);
    if constexpr (requires { op.template apply<T>(T{}, T{}); })
      zipElements<T, T, T>(fout, l, r, element);
    else
      zipComputed<T>(fout, l, r, op);
  });
  return Status::success();
}

/// Comparisons and logical operators: 1 or 0 in fout's type. bool8 results
/// are written directly; any other output type receives them through one
/// conversion pass from a bool8 tensor of fout's shape.
template <class Op>
Status predicateCompute(Tensor& fout, const Tensor& lhs, const Tensor& rhs, const Op& op) {
  if (fout.elementType() == ElementType::invalid) trapUnknownElementType(ElementType::invalid);
  if (lhs.elementType() != rhs.elementType()) return Status::failure("input type miss");
  Tensor l, r;
  KORA_RETURN_IF_ERROR(broadcastOperands(fout, lhs, rhs, l, r));
  if (!typeIn<NumericTypes>(fout.elementType())) trapUnknownElementType(fout.elementType());
  const bool direct = fout.elementType() == ElementType::bool8;
  const Tensor target = direct ? fout : Tensor::create(ElementType::bool8, fout.shape());
  const TracePoint trace = TracePoint::forOutput(fout);
  dispatch<PredicateTypes>(lhs.elementType(), [&]<class T>() {
    auto element = [&op](T a, T b) { return Bool8{uint8_t(op(readValue(a), readValue(b)))}; };
    if (trace) traceBinary<T>(trace, op.name, lhs, rhs, l, r, element);
    zipElements<Bool8, T, T>(target, l, r, element);
  });
  if (!direct) castElements(fout, target);
  return Status::success();
}

// --- Where -------------------------------------------------------------------

template <class S>
bool selects(S s) {
  if constexpr (std::is_same_v<S, Bool8>)
    return s.value != 0;
  else
    return widen(s) != 0;
}

// Values are copied as bit patterns, so one loop serves every value type of
// a width.
template <class Bits, class S>
void selectElements(const Tensor& fout, const Tensor& l, const Tensor& r, const Tensor& s) {
  zip3Elements<Bits, Bits, Bits, S>(fout, l, r, s, [](Bits a, Bits b, S c) { return selects(c) ? a : b; });
}

}  // namespace

// --- the members -------------------------------------------------------------

#define KORA_DEFINE_BINARY(Name, Types, OpType)                                          \
  Status Name##Config(Tensor& fout, Tensor const& lhs, Tensor const& rhs) {              \
    return binaryConfig(#Name, fout, lhs, rhs, false);                                   \
  }                                                                                      \
  Status Name(Tensor& fout, Tensor const& lhs, Tensor const& rhs) {                      \
    return arithmeticCompute<Types>(fout, lhs, rhs, OpType{});                           \
  }

KORA_DEFINE_BINARY(Add, ArithmeticTypes, AddOp)
KORA_DEFINE_BINARY(Sub, ArithmeticTypes, SubOp)
KORA_DEFINE_BINARY(Mul, ArithmeticTypes, MulOp)
KORA_DEFINE_BINARY(Div, ArithmeticTypes, DivOp)
KORA_DEFINE_BINARY(Rem, ArithmeticTypes, RemOp)
KORA_DEFINE_BINARY(Pow, ArithmeticTypes, PowOp)
KORA_DEFINE_BINARY(Max, ArithmeticTypes, MaxOp)
KORA_DEFINE_BINARY(Min, ArithmeticTypes, MinOp)
KORA_DEFINE_BINARY(BitShift, IntegerTypes, BitShiftOp)
KORA_DEFINE_BINARY(BitwiseAnd, IntegerTypes, BitwiseAndOp)
KORA_DEFINE_BINARY(BitwiseOr, IntegerTypes, BitwiseOrOp)
KORA_DEFINE_BINARY(BitwiseXor, IntegerTypes, BitwiseXorOp)

#undef KORA_DEFINE_BINARY

Status ModConfig(Tensor& fout, Tensor const& lhs, Tensor const& rhs) {
  return binaryConfig("Mod", fout, lhs, rhs, false);
}
Status Mod(Tensor& fout, Tensor const& lhs, Tensor const& rhs) {
  return arithmeticCompute<ArithmeticTypes>(fout, lhs, rhs, RemOp{.name = "mod"});
}

#define KORA_DEFINE_PREDICATE(Name, OpType)                                 \
  Status Name##Config(Tensor& fout, Tensor const& lhs, Tensor const& rhs) { \
    return binaryConfig(#Name, fout, lhs, rhs, true);                       \
  }                                                                         \
  Status Name(Tensor& fout, Tensor const& lhs, Tensor const& rhs) {         \
    return predicateCompute(fout, lhs, rhs, OpType{});                      \
  }

KORA_DEFINE_PREDICATE(Equal, EqualOp)
KORA_DEFINE_PREDICATE(NotEqual, NotEqualOp)
KORA_DEFINE_PREDICATE(Greater, GreaterOp)
KORA_DEFINE_PREDICATE(GreaterEqual, GreaterEqualOp)
KORA_DEFINE_PREDICATE(Less, LessOp)
KORA_DEFINE_PREDICATE(LessEqual, LessEqualOp)
KORA_DEFINE_PREDICATE(LogicalAnd, LogicalAndOp)
KORA_DEFINE_PREDICATE(LogicalOr, LogicalOrOp)
KORA_DEFINE_PREDICATE(LogicalXor, LogicalXorOp)

#undef KORA_DEFINE_PREDICATE

Status WhereConfig(Tensor& fout, Tensor const& lhs, Tensor const& rhs, Tensor const& sls) {
  std::vector<long> shape;
  Status inferred = inferElementwiseShape({&lhs, &rhs, &sls}, shape);
  if (!inferred.ok()) return configError("Where", inferred.message());
  fout.setShape(shape);
  if (fout.elementType() == ElementType::invalid) fout.setElementType(lhs.elementType());
  return Status::success();
}

Status Where(Tensor& fout, Tensor const& lhs, Tensor const& rhs, Tensor const& sls) {
  if (lhs.elementType() != fout.elementType() || rhs.elementType() != fout.elementType())
    return failure("type mismatch, fout: {}, lhs: {}, rhs: {}", fout.elementType(), lhs.elementType(),
                   rhs.elementType());
  if (fout.rank() < lhs.rank() || fout.rank() < rhs.rank() || fout.rank() < sls.rank())
    return Status::failure("rank of fout is less than lhs, rhs or sls");
  if (!lhs.isValid() || !rhs.isValid() || !sls.isValid()) return Status::failure("lhs, rhs and sls must be valid");
  if (!fout.isValid()) return Status::failure("fout must hold data");
  Tensor l = lhs, r = rhs, s = sls;
  KORA_RETURN_IF_ERROR(broadcastBinary(fout, l, r));
  KORA_RETURN_IF_ERROR(broadcastTo(fout.shape(), s));
  if (!typeIn<NumericTypes>(fout.elementType())) trapUnknownElementType(fout.elementType());
  if (const TracePoint trace = TracePoint::forOutput(fout)) {
    const Coord& c = trace.coord();
    std::string selector;
    bool chooseLhs = false;
    dispatch<NumericTypes>(sls.elementType(), [&]<class S>() {
      const S value = s.at<S>(c);
      selector = fmt::format("{}", value);
      chooseLhs = selects(value);
    });
    dispatch<NumericTypes>(fout.elementType(), [&]<class T>() {
      const T a = l.at<T>(c), b = r.at<T>(c);
      Tracer{}("fout{} = {}(lhs{}, rhs{}, sls{}) // {}({}, {}, {}) -> {} ", c, "ternary_select",
               broadcastSourceCoord(c, lhs.shape()), broadcastSourceCoord(c, rhs.shape()),
               broadcastSourceCoord(c, sls.shape()), "ternary_select", a, b, selector, chooseLhs ? a : b);
    });
  }
  dispatch<NumericTypes>(sls.elementType(), [&]<class S>() {
    switch (byteWidth(fout.elementType())) {
      case 1: return selectElements<uint8_t, S>(fout, l, r, s);
      case 2: return selectElements<uint16_t, S>(fout, l, r, s);
      case 4: return selectElements<uint32_t, S>(fout, l, r, s);
      default: return selectElements<uint64_t, S>(fout, l, r, s);
    }
  });
  return Status::success();
}

}  // namespace kora::native
