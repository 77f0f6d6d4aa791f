#pragma once
// Helpers of the accelerator-model tests (both generations): seeded random
// operands, a plain convolution reference that shares nothing with the
// library's engine, decoded quant-info rows, an integer post-process
// reference written with floor divisions, and what the integer tests need of
// each generation.
#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "TestUtil.h"

namespace kora::test {

inline Tensor randomTensor8(std::vector<long> shape, std::mt19937& rng) {
  Tensor t = Tensor::create(ElementType::si8, shape);
  for (int8_t& v : t.data<int8_t>()) v = int8_t(rng());
  return t;
}

inline Tensor randomTensor32(std::vector<long> shape, std::mt19937& rng, int32_t lo, int32_t hi) {
  Tensor t = Tensor::create(ElementType::si32, shape);
  std::uniform_int_distribution<int32_t> pick(lo, hi);
  for (int32_t& v : t.data<int32_t>()) v = pick(rng);
  return t;
}

/// A compact copy of any tensor (the library's contiguous() may share).
inline Tensor compactCopy(const Tensor& t) {
  Tensor c = Tensor::create(t.elementType(), t.shape());
  copyElements(c, t);
  return c;
}

struct ConvShape {
  long pad[2];
  int8_t padValue;
  long stride[2], dilation[2], group;
};

/// psum0 + the convolution of fin by a dense or grouped weight [K, R, S, Cg],
/// each element summed in int64 and wrapped to 32 bits at the end.
inline Tensor referenceConv(const Tensor& psum0, const Tensor& fin, const Tensor& weight, const ConvShape& c) {
  const long N = psum0.dim(0), HO = psum0.dim(1), WO = psum0.dim(2), K = psum0.dim(3);
  const long R = weight.dim(1), S = weight.dim(2), Cg = weight.dim(3), Kg = K / c.group;
  Tensor out = compactCopy(psum0);
  for (long b = 0; b < N; ++b)
    for (long y = 0; y < HO; ++y)
      for (long x = 0; x < WO; ++x)
        for (long k = 0; k < K; ++k) {
          int64_t sum = out.at<int32_t>({b, y, x, k});
          for (long r = 0; r < R; ++r)
            for (long s = 0; s < S; ++s)
              for (long ci = 0; ci < Cg; ++ci) {
                const long h = y * c.stride[0] - c.pad[0] + r * c.dilation[0];
                const long w = x * c.stride[1] - c.pad[1] + s * c.dilation[1];
                const bool inside = h >= 0 && h < fin.dim(1) && w >= 0 && w < fin.dim(2);
                const int64_t a = inside ? fin.at<int8_t>({b, h, w, (k / Kg) * Cg + ci}) : c.padValue;
                sum += a * weight.at<int8_t>({k, r, s, ci});
              }
          out.at<int32_t>({b, y, x, k}) = int32_t(uint32_t(uint64_t(sum)));
        }
  return out;
}

/// A decoded quant-info row: bias, suminScale, suminRShift, preRShift, scale, postRShift.
using Row = std::array<int64_t, 6>;

inline Tensor rowsOf(const std::vector<Row>& rows) {
  std::vector<int64_t> flat;
  for (const Row& r : rows) flat.insert(flat.end(), r.begin(), r.end());
  return tensorOf<int64_t>(ElementType::si64, {long(rows.size()), 6}, flat);
}

inline int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

/// One element of the integer post-process as it is described, with floor
/// divisions and products instead of shifts; `q` holds register values.
inline int64_t referencePP(int64_t psum, int64_t sumin, bool sumin32, const Row& q, bool relu, bool round, int64_t lo,
                           int64_t hi) {
  const int64_t s = sumin32 ? sumin : sumin * q[1];
  int64_t v = psum + q[0] + (q[2] >= 0 ? floorDiv(s, int64_t(1) << q[2]) : s * (int64_t(1) << -q[2]));
  if (relu && v < 1) v = 0;
  v = std::clamp<int64_t>(floorDiv(v, int64_t(1) << q[3]), -32768, 32767) * q[4];
  const int64_t half = round && q[5] > 0 ? int64_t(1) << (q[5] - 1) : 0;
  return std::clamp<int64_t>(floorDiv(v + half, int64_t(1) << q[5]), lo, hi);
}

/// What the integer tests need of one generation: its field ranges and its
/// quant-info and post-process calls behind one signature.
struct Generation {
  const char* name;
  bool second;  // the second generation: 16-bit sumin, wider shifts, two words per channel always
  int64_t preMax, suminMin, suminMax, postMax;
  uint64_t postMask;
  Status (*encode)(Tensor& encode, const Tensor& decode, bool sumin32);
  Status (*decode)(Tensor& decode, const Tensor& encode, bool sumin32);
  Status (*pp)(Tensor&, const Tensor&, const Tensor&, const Tensor&, bool, bool, bool);
  Status (*ppEncoded)(Tensor&, const Tensor&, const Tensor&, const Tensor&, bool, bool, bool);
  Status (*gen)(Tensor&, const Tensor&, const Tensor&, ArrayRef<double>, int64_t, ArrayRef<double>, ArrayRef<double>,
                int64_t, int64_t, ArrayRef<double>, int64_t, int64_t);
  long words(bool sumin32) const { return second || !sumin32 ? 2 : 1; }
};

inline const Generation kVela{
    "first", false, 17, -13, 22, 31, 31,
    [](Tensor& e, const Tensor& d, bool) { return vela::intrinsic::EncodeQuantInfo(e, d); },
    [](Tensor& d, const Tensor& e, bool) { return vela::intrinsic::DecodeQuantInfo(d, e, 0); },
    &vela::intrinsic::ConvPP, &vela::intrinsic::ConvPPEncoded, &vela::intrinsic::GenQuantInfo};
inline const Generation kLyra{
    "second", true, 25, -17, 22, 40, 63, &lyra::intrinsic::EncodeQuantInfo, &lyra::intrinsic::DecodeQuantInfo,
    &lyra::intrinsic::TaeConvPP, &lyra::intrinsic::TaeConvPPEncoded, &lyra::intrinsic::GenQuantInfo};
inline const Generation* const kGenerations[] = {&kVela, &kLyra};

/// Whether a table row marked 'B' (both), 'V' (the first) or 'L' (the second) runs on `g`.
inline bool runsOn(char gens, const Generation& g) { return gens == 'B' || gens == (g.second ? 'L' : 'V'); }

inline std::vector<int64_t> encodeRows(const Generation& g, const std::vector<Row>& rows, bool sumin32) {
  Tensor out = Tensor::create(ElementType::si64, {long(rows.size()), g.words(sumin32)});
  const Status s = g.encode(out, rowsOf(rows), sumin32);
  EXPECT_TRUE(s.ok()) << g.name << ": " << s.message();
  return valuesOf<int64_t>(out);
}

inline std::vector<int64_t> decodeWords(const Generation& g, const std::vector<int64_t>& words, bool sumin32) {
  const long K = long(words.size()) / g.words(sumin32);
  Tensor out = Tensor::create(ElementType::si64, {K, 6});
  const Status s = g.decode(out, tensorOf<int64_t>(ElementType::si64, {K, g.words(sumin32)}, words), sumin32);
  EXPECT_TRUE(s.ok()) << g.name << ": " << s.message();
  return valuesOf<int64_t>(out);
}

/// The elements of an integer tensor as int64.
inline std::vector<int64_t> integersOf(const Tensor& t) { return valuesOf<int64_t>(t.cast(ElementType::si64)); }

}  // namespace kora::test
