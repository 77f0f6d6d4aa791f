// Matrix products: the shape rule, the description of a batch of products
// through byte strides, the packed kernel for f32 accumulation (f32 and f16
// data), the plain row loop for f64 and integers, traces and checks.
#include "kora/Native/MatMul.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "Native/MatMulKernel.h"
#include "kora/Core/Trace.h"
#include "kora/Native/Elementwise.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/FixedPoint.h"
#include "kora/Support/StridedWalk.h"

namespace kora::native {

namespace {

using ProductTypes = decltype(FloatTypes{} + SignedTypes{});

/// The accumulator of an element type: f32 for f16 and f32, f64 for f64,
/// int64 for the integers. An si8 or si16 product is at most 2^30 in
/// magnitude, so their sums cannot leave int64 before 2^33 terms and the
/// final saturation sees the exact sum; si32 and si64 sums may wrap at 64
/// bits first, as documented.
template <class T>
using Accumulator = std::conditional_t<std::is_integral_v<T>, int64_t, ComputeType<T>>;

/// One step of every output element: acc + a * b, the product rounded before
/// the sum (never fused); integers wrap at 64 bits.
template <class A>
A mulAdd(A acc, A a, A b) {
  if constexpr (std::is_integral_v<A>)
    return fixed::wrapAdd(acc, fixed::wrapMul(a, b));
  else
    return acc + a * b;
}

template <class A>
A addBias(A acc, A bias) {
  if constexpr (std::is_integral_v<A>)
    return fixed::wrapAdd(acc, bias);
  else
    return acc + bias;
}

/// The finished accumulator as an element: floats narrowed to nearest even,
/// integers saturated.
template <class T, class A>
T fromAccumulator(A acc) {
  if constexpr (std::is_integral_v<T>)
    return fixed::saturate<T>(acc);
  else
    return narrow<T>(acc);
}

template <class T>
T loadAt(const char* p) {
  return *reinterpret_cast<const T*>(p);
}

// --- shape rule ------------------------------------------------------------------

bool hasDynamicSize(const Tensor& t) {
  for (long size : t.shape())
    if (size < 0) return true;
  return false;
}

/// The output shape of lhs x rhs, or the reason the shapes do not agree.
Status productShape(ArrayRef<long> lhs, ArrayRef<long> rhs, std::vector<long>& shape) {
  const long lr = long(lhs.size()), rr = long(rhs.size());
  if (lr == 0 || rr == 0) return failure("operands must be at least 1d, but rank {}", 0);
  if (lr == 1 && rr == 1) {
    if (lhs[0] != rhs[0]) return failure("lhs and rhs axis -1 is not equal, lhs[-1]:{}, rhs[-1]:{}", lhs[0], rhs[0]);
    shape.clear();
    return Status::success();
  }
  if (rr == 1) {
    if (lhs[lr - 1] != rhs[0]) return failure("lhs[-1]:{} is not equal to rhs[0]:{}", lhs[lr - 1], rhs[0]);
  } else if (lhs[lr - 1] != rhs[rr - 2]) {
    return failure("lhs[-1]:{} is not equal to rhs[-2]:{}", lhs[lr - 1], rhs[rr - 2]);
  }
  const long lb = std::max(lr - 2, 0L), rb = std::max(rr - 2, 0L), batch = std::max(lb, rb);
  std::vector<long> result(size_t(batch), 1);
  for (long i = 0; i < batch; ++i) {  // from the innermost batch axis outwards
    const long la = lb - 1 - i, ra = rb - 1 - i;
    const long ls = la >= 0 ? lhs[la] : 1, rs = ra >= 0 ? rhs[ra] : 1;
    if (ls != rs && ls != 1 && rs != 1) return failure("lhs[{}]:{} is not equal to rhs[{}]:{}", la, ls, ra, rs);
    result[size_t(batch - 1 - i)] = ls == 1 ? rs : ls;
  }
  if (lr >= 2) result.push_back(lhs[lr - 2]);
  if (rr >= 2) result.push_back(rhs[rr - 1]);
  shape = std::move(result);
  return Status::success();
}

// --- a batch of products -----------------------------------------------------------

/// out[b] = lhs[b] x rhs[b] for every coordinate b of the batch shape, each
/// operand read through byte strides (a broadcast batch axis has stride 0; a
/// vector operand is a matrix with one row or column of stride 0).
struct Product {
  unsigned long batchRank = 0;
  long batch[kMaxRank] = {};
  long lhsBatch[kMaxRank] = {}, rhsBatch[kMaxRank] = {}, outBatch[kMaxRank] = {};
  long m = 0, n = 0, k = 0;
  MatrixView lhs, rhs;
  long outRow = 0, outCol = 0;
  char* out = nullptr;
};

char* dataOf(const Tensor& t) { return t.storage()->data() + t.offset(); }

/// The product of lhs and rhs into fout, whose shapes agree (productShape).
Product describe(const Tensor& fout, const Tensor& lhs, const Tensor& rhs) {
  Product p;
  const bool lhsVector = lhs.rank() == 1, rhsVector = rhs.rank() == 1;
  p.k = lhs.dim(-1);
  p.m = lhsVector ? 1 : lhs.dim(-2);
  p.n = rhsVector ? 1 : rhs.dim(-1);
  p.lhs = {dataOf(lhs), lhsVector ? 0 : lhs.stride(-2), lhs.stride(-1)};
  p.rhs = {dataOf(rhs), rhsVector ? rhs.stride(0) : rhs.stride(-2), rhsVector ? 0 : rhs.stride(-1)};
  p.batchRank = fout.rank() - (lhsVector ? 0 : 1) - (rhsVector ? 0 : 1);
  p.outRow = lhsVector ? 0 : fout.stride(long(p.batchRank));
  p.outCol = rhsVector ? 0 : fout.stride(-1);
  p.out = dataOf(fout);
  const long lhsBatchRank = lhsVector ? 0 : long(lhs.rank()) - 2, rhsBatchRank = rhsVector ? 0 : long(rhs.rank()) - 2;
  for (unsigned long b = 0; b < p.batchRank; ++b) {
    p.batch[b] = fout.dim(long(b));
    p.outBatch[b] = fout.stride(long(b));
    const long li = long(b) - (long(p.batchRank) - lhsBatchRank), ri = long(b) - (long(p.batchRank) - rhsBatchRank);
    p.lhsBatch[b] = li >= 0 && lhs.dim(li) == p.batch[b] ? lhs.stride(li) : 0;
    p.rhsBatch[b] = ri >= 0 && rhs.dim(ri) == p.batch[b] ? rhs.stride(ri) : 0;
  }
  // Batch axes that only stack more rows (rhs broadcast along them, lhs and
  // fout laid out row after row) become rows: one tall product instead of
  // many short ones, as in a fully connected layer over [N, T, C].
  while (p.batchRank > 0) {
    const unsigned long b = p.batchRank - 1;
    if (p.rhsBatch[b] != 0 || p.lhsBatch[b] != p.m * p.lhs.row || p.outBatch[b] != p.m * p.outRow) break;
    p.m *= p.batch[b];
    --p.batchRank;
  }
  return p;
}

/// Calls product(lhs, rhs, out) with the three base pointers of every
/// matrix of the batch.
template <class F>
void forEachMatrix(const Product& p, F&& product) {
  StridedWalk<3>(ArrayRef<long>(p.batch, p.batchRank),
                 {const_cast<char*>(p.lhs.data), const_cast<char*>(p.rhs.data), p.out},
                 {p.lhsBatch, p.rhsBatch, p.outBatch})
      .forEachChunk([&](char* const* ptr, const long* s, long count) {
        for (long j = 0; j < count; ++j) product(ptr[0] + j * s[0], ptr[1] + j * s[1], ptr[2] + j * s[2]);
      });
}

/// f32 and f16: the packed kernel into f32 sums, then the bias and the
/// narrowing. The sums go straight into an f32 fout when its rows allow and
/// it shares no storage with the operands; otherwise into a scratch matrix.
template <class T>
void productPacked(const Product& p, bool direct, const float* bias) {
  std::unique_ptr<float[]> scratch(direct ? nullptr : new float[size_t(p.m * p.n)]);
  PackedProduct engine(elementTypeOf<T>);
  forEachMatrix(p, [&](const char* lhs, const char* rhs, char* out) {
    float* sums = direct ? reinterpret_cast<float*>(out) : scratch.get();
    const long ldc = direct ? p.outRow / long(sizeof(float)) : p.n;
    engine.run({lhs, p.lhs.row, p.lhs.col}, {rhs, p.rhs.row, p.rhs.col}, p.m, p.n, p.k, sums, ldc);
    if (direct && !bias) return;
    for (long i = 0; i < p.m; ++i) {
      float* row = sums + i * ldc;
      char* o = out + i * p.outRow;
      if (bias)
        for (long j = 0; j < p.n; ++j) row[j] = row[j] + bias[j];
      if (std::is_same_v<T, half> && p.outCol == long(sizeof(half))) {
        narrowToHalves(row, reinterpret_cast<half*>(o), p.n);
        continue;
      }
      for (long j = 0; j < p.n; ++j) *reinterpret_cast<T*>(o + j * p.outCol) = narrow<T>(row[j]);
    }
  });
}

/// f64 and integers: one output row at a time, every element of the row
/// advancing by one k per pass.
template <class T>
void productRows(const Product& p, const Accumulator<T>* bias) {
  using A = Accumulator<T>;
  std::vector<A> row(size_t(p.n));
  forEachMatrix(p, [&](const char* lhs, const char* rhs, char* out) {
    for (long i = 0; i < p.m; ++i) {
      std::fill(row.begin(), row.end(), A(0));
      for (long q = 0; q < p.k; ++q) {
        const A a = A(loadAt<T>(lhs + i * p.lhs.row + q * p.lhs.col));
        const char* b = rhs + q * p.rhs.row;
        for (long j = 0; j < p.n; ++j) row[size_t(j)] = mulAdd(row[size_t(j)], a, A(loadAt<T>(b + j * p.rhs.col)));
      }
      for (long j = 0; j < p.n; ++j) {
        const A sum = bias ? addBias(row[size_t(j)], bias[j]) : row[size_t(j)];
        *reinterpret_cast<T*>(out + i * p.outRow + j * p.outCol) = fromAccumulator<T>(sum);
      }
    }
  });
}

bool sharesStorage(const Tensor& a, const Tensor& b) { return a.storage() == b.storage(); }

/// fout = lhs x rhs (+ bias) for element type T, shapes already checked.
template <class T>
void computeProduct(const Tensor& fout, const Tensor& lhs, const Tensor& rhs, const Tensor* bias) {
  using A = Accumulator<T>;
  const Product p = describe(fout, lhs, rhs);
  std::vector<A> biasValues;
  if (bias) {
    const Tensor compact = bias->contiguous();
    const T* values = compact.data<T>().data();
    for (long j = 0; j < p.n; ++j) biasValues.push_back(A(widen(values[j])));
  }
  const A* biasData = bias ? biasValues.data() : nullptr;
  if constexpr (std::is_same_v<A, float>) {
    const bool direct = std::is_same_v<T, float> && p.outCol == long(sizeof(float)) &&
                        (p.m == 1 || (p.outRow % long(sizeof(float)) == 0 && p.outRow >= p.n * long(sizeof(float)))) &&
                        !sharesStorage(fout, lhs) && !sharesStorage(fout, rhs);
    productPacked<T>(p, direct, biasData);
  } else {
    productRows<T>(p, biasData);
  }
}

// --- traces --------------------------------------------------------------------------

/// The traced MatMul element: the same steps, one line per k, nothing stored.
template <class T>
void traceMatMul(const Tensor& lhs, const Tensor& rhs, const Coord& o) {
  using A = Accumulator<T>;
  const bool lhsVector = lhs.rank() == 1, rhsVector = rhs.rank() == 1;
  const unsigned long batchRank = o.rank - (lhsVector ? 0 : 1) - (rhsVector ? 0 : 1);
  const Coord batch(ArrayRef<long>(o.v, batchRank));
  Coord a, b;
  if (!lhsVector) {
    a = broadcastSourceCoord(batch, ArrayRef<long>(lhs.shape().data(), lhs.rank() - 2));
    a.push(o[batchRank]);
  }
  a.push(0);
  if (!rhsVector) b = broadcastSourceCoord(batch, ArrayRef<long>(rhs.shape().data(), rhs.rank() - 2));
  const unsigned long kAt = b.rank;
  b.push(0);
  if (!rhsVector) b.push(o[o.rank - 1]);
  A acc = A(0);
  for (long q = 0; q < lhs.dim(-1); ++q) {
    a[a.rank - 1] = q;
    b[kAt] = q;
    const A x = A(widen(lhs.at<T>(a))), y = A(widen(rhs.at<T>(b)));
    const A next = mulAdd(acc, x, y);
    Tracer{}("fout{} += lhs{} * rhs{} // {} += {} * {} -> {}", o, a, b, acc, x, y, next);
    acc = next;
  }
}

/// The traced Linear element: one line per input channel, then the bias.
template <class T>
void traceLinear(const Tensor& fin, const Tensor& weight, const Tensor* bias, const Coord& o) {
  using A = Accumulator<T>;
  const long n = o[o.rank - 1];
  Coord in = o, w;
  w.push(n);
  w.push(0);
  A acc = A(0);
  for (long c = 0; c < fin.dim(-1); ++c) {
    in[in.rank - 1] = c;
    w[1] = c;
    const A x = A(widen(fin.at<T>(in))), y = A(widen(weight.at<T>(w)));
    const A next = mulAdd(acc, x, y);
    Tracer{}("psum{} *= fin{} * weight{} // {} += {} * {} -> {}", o, in, w, acc, x, y, next);
    acc = next;
  }
  if (bias) {
    const Coord at(getCoord(n, bias->shape(), getStrides(bias->shape(), 1)));
    const A value = A(widen(bias->at<T>(at)));
    Tracer{}("psum{} += bias{} // {} += {} -> {}", o, at, acc, value, addBias(acc, value));
  }
}

// --- Linear's checks -------------------------------------------------------------------

Status linearConfig(const char* kernel, Tensor& fout, const Tensor& fin, const Tensor& weight, const Tensor* bias) {
  if (hasDynamicSize(fin) || hasDynamicSize(weight) || (bias && hasDynamicSize(*bias)))
    return configError(kernel, "Linear inputs should not have dynamic shape");
  for (const Tensor* t : {&fin, &weight})
    if (t->rank() < 2) return configError(kernel, fmt::format("operands must be at least 2d, but rank {}", t->rank()));
  if (fin.dim(-1) != weight.dim(-1))
    return configError(kernel, fmt::format("input.c:[{}] must be equal to weight.c:[{}]", fin.dim(-1), weight.dim(-1)));
  if (bias && weight.dim(-2) != bias->numElements())
    return configError(kernel,
                       fmt::format("weight.n:[{}] must be equal to bias:[{}]", weight.dim(-2), bias->numElements()));
  std::vector<long> shape = fin.shape().vec();
  shape.back() = weight.dim(-2);
  if (fout.elementType() == ElementType::invalid) fout.setElementType(fin.elementType());
  fout.setShape(shape);
  return Status::success();
}

Status linearCompute(Tensor& fout, const Tensor& fin, const Tensor& weight, const Tensor* bias) {
  if (!fout.isValid() || !fin.isValid() || !weight.isValid() || (bias && !bias->isValid()))
    return Status::failure("fout, fin, weight and bias must hold data");
  if (bias && bias->elementType() != fin.elementType()) return Status::failure("bias must be same with fin");
  if (fout.elementType() != fin.elementType()) return Status::failure("fout must be same with fin");
  if (weight.elementType() != fin.elementType()) return Status::failure("weight must be same with fin");
  if (fout.rank() != fin.rank()) return Status::failure("rank of linear input and output must be same");
  if (weight.rank() != 2) return Status::failure("rank of linear weight must be 2");
  if (fin.rank() < 2) return failure("operands must be at least 2d, but rank {}", fin.rank());
  if (weight.dim(1) != fin.dim(-1)) return Status::failure("channel number for linear weight and input must be same");
  if (weight.dim(0) != fout.dim(-1)) return Status::failure("channel number for linear weight and output must be same");
  for (unsigned long a = 0; a + 1 < fin.rank(); ++a)
    if (fout.dim(long(a)) != fin.dim(long(a))) return Status::failure("shape mismatch");
  if (bias && bias->numElements() != weight.dim(0))
    return failure("weight.n:[{}] must be equal to bias:[{}]", weight.dim(0), bias->numElements());
  dispatch<ProductTypes>(fin.elementType(), [&]<class T>() {
    if (const TracePoint trace = TracePoint::forOutput(fout)) traceLinear<T>(fin, weight, bias, trace.coord());
    computeProduct<T>(fout, fin, weight.permute({1, 0}), bias);
  });
  return Status::success();
}

}  // namespace

Status MatMulConfig(Tensor& fout, Tensor const& lhs, Tensor const& rhs) {
  if (hasDynamicSize(lhs) || hasDynamicSize(rhs))
    return configError("MatMul", "Matmul inputs should not have dynamic shape");
  std::vector<long> shape;
  Status s = productShape(lhs.shape(), rhs.shape(), shape);
  if (!s.ok()) return configError("MatMul", s.message());
  if (fout.elementType() == ElementType::invalid) fout.setElementType(lhs.elementType());
  fout.setShape(shape);
  return Status::success();
}

Status MatMul(Tensor& fout, Tensor const& lhs, Tensor const& rhs) {
  if (!fout.isValid() || !lhs.isValid() || !rhs.isValid()) return Status::failure("fout, lhs and rhs must hold data");
  if (lhs.elementType() != fout.elementType() || rhs.elementType() != fout.elementType())
    return Status::failure("operands tensor element type miss");
  std::vector<long> shape;
  if (!productShape(lhs.shape(), rhs.shape(), shape).ok() || !fout.shape().equals(shape))
    return Status::failure("two operands shape miss");
  dispatch<ProductTypes>(fout.elementType(), [&]<class T>() {
    if (const TracePoint trace = TracePoint::forOutput(fout)) traceMatMul<T>(lhs, rhs, trace.coord());
    computeProduct<T>(fout, lhs, rhs, nullptr);
  });
  return Status::success();
}

Status LinearConfig(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& bias) {
  return linearConfig("Linear", fout, fin, weight, &bias);
}

Status Linear(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& bias) {
  return linearCompute(fout, fin, weight, &bias);
}

Status LinearNoBiasConfig(Tensor& fout, Tensor const& fin, Tensor const& weight) {
  return linearConfig("LinearNoBias", fout, fin, weight, nullptr);
}

Status LinearNoBias(Tensor& fout, Tensor const& fin, Tensor const& weight) {
  return linearCompute(fout, fin, weight, nullptr);
}

}  // namespace kora::native
