// The converting one-input operators: Cast (any pair of element types, by
// the rule of Tensor::cast), FakeCast (a round trip through f16) and Lut.
#include <limits>

#include "Native/UnaryKernel.h"
#include "kora/Native/Unary.h"

namespace kora::native {

namespace {

using detail::unaryChecks;
using detail::unaryConfig;

using LutTypes = TypeList<int8_t, uint8_t, int16_t, uint16_t>;

// Checks shared by the operators whose output type is fixed by the caller
// rather than by fin.
Status shapeAndDataChecks(const Tensor& fout, const Tensor& fin) {
  if (!fout.sameShape(fin)) return Status::failure("shape mismatch");
  if (fout.elementType() == ElementType::invalid) trapUnknownElementType(ElementType::invalid);
  if (!fout.isValid() || !fin.isValid()) return Status::failure("fout and fin must hold data");
  return Status::success();
}

Status typedConfig(const char* kernel, Tensor& fout, const Tensor& fin) {
  if (fout.elementType() == ElementType::invalid) return configError(kernel, "invalid fout ElementType");
  return unaryConfig(kernel, fout, fin);
}

// The table entry an element selects: its distance from its type's lowest
// value, so every value of an 8- or 16-bit type has its own entry.
template <class T>
unsigned long lutIndex(T x) {
  return static_cast<unsigned long>(long(x) - long(std::numeric_limits<T>::min()));
}

}  // namespace

Status CastConfig(Tensor& fout, Tensor const& fin, bool) { return typedConfig("CastOp", fout, fin); }
Status Cast(Tensor& fout, Tensor const& fin, bool saturate) {
  KORA_RETURN_IF_ERROR(shapeAndDataChecks(fout, fin));
  castElements(fout, fin, saturate);
  return Status::success();
}

Status FakeCastConfig(Tensor& fout, Tensor const& fin, ElementType const&) {
  return typedConfig("FakeCast", fout, fin);
}
Status FakeCast(Tensor& fout, Tensor const& fin, ElementType const& dtype) {
  KORA_RETURN_IF_ERROR(shapeAndDataChecks(fout, fin));
  if (fin.elementType() != ElementType::f32 || fout.elementType() != ElementType::f32)
    return Status::failure("input and output type must be float32");
  if (dtype != ElementType::f16) return Status::failure("only float16 is supported as dtype");
  auto roundTrip = [](float x) { return half(x).toFloat(); };
  if (const TracePoint trace = TracePoint::forOutput(fout)) {
    const float x = fin.at<float>(trace.coord());
    Tracer{}("fout{} = fakecast(fin{}) // fakecast({}) -> {}", trace.coord(), trace.coord(), x, roundTrip(x));
  }
  mapElements<float, float>(fout, fin, roundTrip);
  return Status::success();
}

Status LutConfig(Tensor& fout, Tensor const& fin, Tensor const&) { return unaryConfig("Lut", fout, fin); }
Status Lut(Tensor& fout, Tensor const& fin, Tensor const& table) {
  KORA_RETURN_IF_ERROR(unaryChecks(fout, fin));
  if (table.elementType() != fout.elementType()) return Status::failure("type mismatch");
  if (table.rank() != 1) return Status::failure("table must have rank 1");
  if (!table.isValid()) return Status::failure("fout and fin must hold data");
  return dispatch<LutTypes>(fout.elementType(), [&]<class T>() -> Status {
    const unsigned long entries = static_cast<unsigned long>(table.dim(0));
    const char* base = table.storage()->data() + table.offset();
    const long stride = table.stride(0);
    // A table shorter than the type's range may be indexed past its end:
    // find the first such element before anything is written.
    if (entries < lutIndex(std::numeric_limits<T>::max()) + 1) {
      bool outOfRange = false;
      unsigned long bad = 0;
      StridedWalk<1>::over(fin).forEachChunk([&](char* const* p, const long* s, long n) {
        for (long j = 0; j < n && !outOfRange; ++j) {
          const unsigned long index = lutIndex(*reinterpret_cast<const T*>(p[0] + j * s[0]));
          if (index >= entries) outOfRange = true, bad = index;
        }
      });
      if (outOfRange) return failure("lut index {} out of range for a table of {} entries", bad, entries);
    }
    mapElements<T, T>(fout, fin, [base, stride](T x) { return *reinterpret_cast<const T*>(base + long(lutIndex(x)) * stride); });
    return Status::success();
  });
}

}  // namespace kora::native
