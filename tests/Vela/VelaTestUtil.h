#pragma once
// Helpers of the accelerator-model tests: seeded random operands and a plain
// convolution reference that shares nothing with the library's engine (one
// int64 sum per output element, reduced modulo 2^32 at the end).
#include <cstdint>
#include <random>
#include <vector>

#include "TestUtil.h"

namespace kora::test {

inline Tensor randomTensor8(std::vector<long> shape, std::mt19937& rng, int lo = -128, int hi = 127) {
  Tensor t = Tensor::create(ElementType::si8, shape);
  std::uniform_int_distribution<int> pick(lo, hi);
  for (int8_t& v : t.data<int8_t>()) v = int8_t(pick(rng));
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

/// The bytes a compact tensor spans, to check that a failed call wrote nothing.
inline std::vector<uint8_t> bytesOf(const Tensor& t) {
  const auto bytes = t.data<uint8_t>();
  return std::vector<uint8_t>(bytes.data(), bytes.data() + t.byteSpan());
}

struct ConvShape {
  long pad[2];
  int8_t padValue;
  long stride[2], dilation[2], group;
};

/// psum0 + the convolution of fin by a dense or grouped weight [K, R, S, Cg],
/// each element summed in int64 and wrapped to 32 bits at the end.
inline std::vector<int32_t> referenceConv(const Tensor& psum0, const Tensor& fin, const Tensor& weight,
                                          const ConvShape& c) {
  const long N = psum0.dim(0), HO = psum0.dim(1), WO = psum0.dim(2), K = psum0.dim(3);
  const long H = fin.dim(1), W = fin.dim(2);
  const long R = weight.dim(1), S = weight.dim(2), Cg = weight.dim(3), Kg = K / c.group;
  std::vector<int32_t> out = valuesOf<int32_t>(psum0);
  for (long b = 0; b < N; ++b)
    for (long y = 0; y < HO; ++y)
      for (long x = 0; x < WO; ++x)
        for (long k = 0; k < K; ++k) {
          int64_t sum = out[((b * HO + y) * WO + x) * K + k];
          for (long r = 0; r < R; ++r)
            for (long s = 0; s < S; ++s)
              for (long ci = 0; ci < Cg; ++ci) {
                const long h = y * c.stride[0] - c.pad[0] + r * c.dilation[0];
                const long w = x * c.stride[1] - c.pad[1] + s * c.dilation[1];
                const long channel = (k / Kg) * Cg + ci;
                const int64_t a = (h >= 0 && h < H && w >= 0 && w < W) ? fin.at<int8_t>({b, h, w, channel}) : c.padValue;
                sum += a * weight.at<int8_t>({k, r, s, ci});
              }
          out[((b * HO + y) * WO + x) * K + k] = int32_t(uint32_t(uint64_t(sum)));
        }
  return out;
}

/// The weight of a grouped convolution spread over all input channels (zero
/// outside each output channel's group): the same convolution with group 1.
inline Tensor denseWeightOf(const Tensor& weight, long group, long C) {
  const long K = weight.dim(0), R = weight.dim(1), S = weight.dim(2), Cg = weight.dim(3), Kg = K / group;
  Tensor dense = Tensor::create(ElementType::si8, {K, R, S, C});
  for (int8_t& v : dense.data<int8_t>()) v = 0;
  for (long k = 0; k < K; ++k)
    for (long r = 0; r < R; ++r)
      for (long s = 0; s < S; ++s)
        for (long ci = 0; ci < Cg; ++ci) dense.at<int8_t>({k, r, s, (k / Kg) * Cg + ci}) = weight.at<int8_t>({k, r, s, ci});
  return dense;
}

}  // namespace kora::test
