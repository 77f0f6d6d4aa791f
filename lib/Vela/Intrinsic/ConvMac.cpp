// The MAC variants: each validates its operands in its own fixed order, then
// describes its window as taps for the shared engine (MacEngine.h).
#include <cstring>

#include "Vela/Intrinsic/MacEngine.h"
#include "kora/Support/StridedWalk.h"
#include "kora/Vela/Intrinsic.h"

namespace kora::vela::intrinsic {

namespace {

using detail::MacProblem;
using detail::Tap;

constexpr int64_t kWindowLimit = int64_t(1) << 30;

/// Axis `axis` (negative from the end) or 0 when the tensor has no such axis,
/// so that checks on a malformed operand read no foreign memory.
long axisOr0(const Tensor& t, long axis) {
  const long i = axis < 0 ? axis + long(t.rank()) : axis;
  return i >= 0 && i < long(t.rank()) ? t.dim(i) : 0;
}

bool withinWindowLimit(ArrayRef<int64_t> values) {
  for (int64_t v : values)
    if (v < -kWindowLimit || v > kWindowLimit) return false;
  return true;
}

/// The checks every MAC adds after its own: operands that hold data, NHWC
/// feature maps of one batch, and window parameters small enough for exact
/// index arithmetic.
Status checkFeatureMaps(const Tensor& psum, const Tensor& fin, const Tensor& weight,
                        std::initializer_list<ArrayRef<int64_t>> windowLists) {
  if (!fin.isValid() || !weight.isValid()) return Status::failure("conv operands must hold data");
  if (fin.rank() != 4 || psum.rank() != 4) return Status::failure("rank of conv input and output must be 4: [n, h, w, c]");
  if (fin.dim(0) != psum.dim(0)) return Status::failure("batch of conv input and output must be same");
  for (ArrayRef<int64_t> list : windowLists)
    if (!withinWindowLimit(list)) return Status::failure("conv window parameters must lie within [-2^30, 2^30]");
  return Status::success();
}

/// The last check of a MAC that writes psum itself.
Status checkPsumData(const Tensor& psum) {
  return psum.isValid() ? Status::success() : Status::failure("conv operands must hold data");
}

/// The part of a problem every variant shares: sizes, pad, stride, grouping.
MacProblem baseProblem(const Tensor& psum, const Tensor& fin, ArrayRef<int64_t> pad, ArrayRef<int64_t> stride,
                       int64_t padValue, long group, long cPerGroup) {
  MacProblem p;
  p.batch = psum.dim(0);
  p.outH = psum.dim(1);
  p.outW = psum.dim(2);
  p.outK = psum.dim(3);
  p.inH = fin.dim(1);
  p.inW = fin.dim(2);
  p.inC = fin.dim(3);
  p.padTop = long(pad[0]);
  p.padLeft = long(pad[1]);
  p.strH = long(stride[0]);
  p.strW = long(stride[1]);
  p.kPerGroup = p.outK / group;
  p.cPerGroup = cPerGroup;
  p.padValue = int8_t(uint8_t(uint64_t(padValue)));  // the low 8 bits, as si8
  return p;
}

/// Zigzag position i of an R-row window: column i / R, walked down for an
/// even column and up for an odd one.
void zigzagTap(long i, long R, long& r, long& s) {
  s = i / R;
  const long j = i - s * R;
  r = s % 2 == 0 ? j : R - 1 - j;
}

}  // namespace

namespace detail {

Status prepareConvMac(const Tensor& psum, const Tensor& fin, const Tensor& weight, ArrayRef<int64_t> pad,
                      int64_t padValue, ArrayRef<int64_t> stride, ArrayRef<int64_t> dilation, int64_t group,
                      MacProblem& p) {
  if (fin.elementType() != ElementType::si8 || weight.elementType() != ElementType::si8)
    return Status::failure("fin and weight must be si8");
  if (psum.elementType() != ElementType::si32) return Status::failure("psum must be si32 when fin is si8");
  if (psum.rank() != fin.rank()) return Status::failure("rank of conv input and output must be same");
  if (weight.rank() != 4) return Status::failure("rank of conv weight must be 4: [k, r, s, c]");
  const long C = axisOr0(fin, -1), K = weight.dim(0), Cg = weight.dim(-1);
  if (group < 1 || C % group != 0 || C / group != Cg || K % group != 0)
    return Status::failure("tensor group number invalid");
  if (K != axisOr0(psum, -1)) return Status::failure("k of weight and psum must be same");
  if (pad.size() != 4 && pad.size() != 2) return Status::failure("wrong size of pad");
  if (stride.size() != 2 || dilation.size() != 2) return Status::failure("wrong size of stride, dilation");
  KORA_RETURN_IF_ERROR(checkFeatureMaps(psum, fin, weight, {pad, stride, dilation}));

  p = baseProblem(psum, fin, pad, stride, padValue, long(group), Cg);
  const long R = weight.dim(1), S = weight.dim(2);
  p.weight = weight.contiguous();
  p.weightRows = R * S;
  p.tapsPerChannel = R * S;
  for (long r = 0; r < R; ++r)
    for (long s = 0; s < S; ++s) {
      Tap tap;
      tap.dy = r * long(dilation[0]);
      tap.dx = s * long(dilation[1]);
      tap.row = r * S + s;
      tap.weightCoord[0] = r;
      tap.weightCoord[1] = s;
      tap.weightCoordRank = 2;
      p.taps.push_back(tap);
    }
  return Status::success();
}

}  // namespace detail

Status ConvMac(Tensor& psum, Tensor const& fin, Tensor const& weight, ArrayRef<int64_t> pad, int64_t padValue,
               ArrayRef<int64_t> stride, ArrayRef<int64_t> dilation, int64_t group) {
  MacProblem p;
  KORA_RETURN_IF_ERROR(detail::prepareConvMac(psum, fin, weight, pad, padValue, stride, dilation, group, p));
  KORA_RETURN_IF_ERROR(checkPsumData(psum));
  detail::runMac(psum, fin, p);
  return Status::success();
}

Status ConvZigzagWeight(Tensor& fout, Tensor const& fin) {
  if (fout.rank() + 1 != fin.rank()) return Status::failure("fout rank must be fin rank minus 1");
  if (fout.rank() < 3) return Status::failure("fout rank must greater than 3");
  const long leading = long(fout.rank()) - 2;
  for (long axis = 0; axis < leading; ++axis)
    if (fin.dim(axis) != fout.dim(axis)) return failure("fin fout axis {} must be identical", axis);
  const long H = fin.dim(-3), W = fin.dim(-2), C = fin.dim(-1);
  if (fout.dim(-2) != H * W) return Status::failure("fout axis -2 must be fin axis -3 times fin axis -2");
  if (fout.dim(-1) != C) return Status::failure("fout axis -1 must be fin axis -1");
  if (fout.elementType() != fin.elementType()) return Status::failure("fin and fout must have the same element type");
  if (!fout.isValid() || !fin.isValid()) return Status::failure("fin and fout must hold data");
  if (fout.isEmpty()) return Status::success();

  // Every leading index: copy H * W rows of C elements, each element as bytes.
  const long width = long(byteWidth(fin.elementType()));
  const StridedWalk<2> walk(fout.shape().slice(0, leading), {fout.storage()->data() + fout.offset(),
                            fin.storage()->data() + fin.offset()}, {fout.strides().data(), fin.strides().data()});
  const long outRow = fout.stride(-2), outElem = fout.stride(-1);
  const long inRow = fin.stride(-3), inCol = fin.stride(-2), inElem = fin.stride(-1);
  walk.forEachChunk([&](char* const* base, const long* step, long n) {
    for (long j = 0; j < n; ++j) {
      char* out = base[0] + j * step[0];
      const char* in = base[1] + j * step[1];
      for (long q = 0, i = 0; q < W; ++q)
        for (long j = 0; j < H; ++j, ++i) {
          const long h = q % 2 == 0 ? j : H - 1 - j;  // down the even columns, up the odd ones
          for (long c = 0; c < C; ++c)
            std::memcpy(out + i * outRow + c * outElem, in + h * inRow + q * inCol + c * inElem, size_t(width));
        }
    }
  });
  return Status::success();
}

Status ConvZigzagMac(Tensor& psum, Tensor const& fin, Tensor const& weight, ArrayRef<int64_t> pad,
                     ArrayRef<int64_t> kernel, int64_t padValue, ArrayRef<int64_t> stride, int64_t group,
                     int64_t firstTap) {
  if (fin.elementType() != ElementType::si8 || weight.elementType() != ElementType::si8)
    return Status::failure("operands type for conv must be si8");
  if (psum.elementType() != ElementType::si32) return Status::failure("psum type for conv must be si32");
  if (axisOr0(weight, 0) != axisOr0(psum, -1))
    return Status::failure("channel number for conv weight and output must be same");
  if ((pad.size() != 2 && pad.size() != 4) || stride.size() != 2 || kernel.size() != 2)
    return Status::failure("wrong size of pad, stride or kernel");
  if (weight.rank() < 3) return Status::failure("rank of conv weight must be at lease 3");
  const long C = axisOr0(fin, -1), K = weight.dim(0), Cg = weight.dim(-1);
  if (group < 1 || C % group != 0 || C / group != Cg || K % group != 0) return Status::failure("invalid group num");
  KORA_RETURN_IF_ERROR(checkFeatureMaps(psum, fin, weight, {pad, stride, kernel}));
  if (weight.rank() != 3) return Status::failure("rank of zigzag conv weight must be 3: [k, t, c]");
  const long R = long(kernel[0]), S = long(kernel[1]), T = weight.dim(1);
  if (R < 1 || S < 1 || firstTap < 0 || firstTap > R * S || T > R * S - firstTap)
    return Status::failure("wrong size of pad, stride or kernel");
  KORA_RETURN_IF_ERROR(checkPsumData(psum));

  MacProblem p = baseProblem(psum, fin, pad, stride, padValue, long(group), Cg);
  p.weight = weight.contiguous();
  p.weightRows = T;
  p.tapsPerChannel = T;
  for (long t = 0; t < T; ++t) {
    long r, s;
    zigzagTap(long(firstTap) + t, R, r, s);
    Tap tap;
    tap.dy = r;
    tap.dx = s;
    tap.row = t;
    tap.weightCoord[0] = t;
    tap.weightCoordRank = 1;
    p.taps.push_back(tap);
  }
  detail::runMac(psum, fin, p);
  return Status::success();
}

Status ConvSparseMac(Tensor& psum, Tensor const& fin, Tensor const& weight, Tensor const& index,
                     ArrayRef<int64_t> kernel, ArrayRef<int64_t> pad, int64_t padValue, ArrayRef<int64_t> stride) {
  if (psum.rank() != fin.rank()) return Status::failure("rank of conv input and output must be same");
  if (weight.rank() < 3) return Status::failure("rank of conv weight must be at lease 3");
  if (pad.size() != 2) return Status::failure("invalid pad info. Should contain 2 elements: padTop and padLeft");
  if (kernel.size() != 2) return Status::failure("invalid kernel info. Should contain 2 elements: kerH and kerW");
  if (stride.size() != 2) return Status::failure("invalid stride info. Should contain 2 elements: strH and strW");
  if (fin.elementType() != ElementType::si8 || weight.elementType() != ElementType::si8)
    return Status::failure("operands type for conv must be si8");
  if (psum.elementType() != ElementType::si32) return Status::failure("psum type for conv must be si32");
  KORA_RETURN_IF_ERROR(checkFeatureMaps(psum, fin, weight, {pad, stride, kernel}));
  if (weight.rank() != 3) return Status::failure("rank of sparse conv weight must be 3: [k, t, c]");
  const long K = weight.dim(0), T = weight.dim(1), C = weight.dim(2);
  if (K != psum.dim(3)) return Status::failure("channel number for conv weight and output must be same");
  if (C != fin.dim(3)) return Status::failure("channel number of sparse conv weight and input must be same");
  if ((index.elementType() != ElementType::si32 && index.elementType() != ElementType::si64) || !index.isValid() ||
      index.rank() != 2 || index.dim(0) != K || index.dim(1) != T)
    return Status::failure("sparse index must be si32 or si64 of shape [k, t]");
  const long R = long(kernel[0]), S = long(kernel[1]);
  if (R < 1 || S < 1) return Status::failure("kernel size must be positive");
  KORA_RETURN_IF_ERROR(checkPsumData(psum));

  MacProblem p = baseProblem(psum, fin, pad, stride, padValue, 1, C);
  p.weight = weight.contiguous();
  p.weightRows = T;
  p.tapsPerChannel = T;
  p.sharedTaps = false;
  p.taps.resize(size_t(K * T));
  const bool wide = index.elementType() == ElementType::si64;
  for (long k = 0; k < K; ++k)
    for (long t = 0; t < T; ++t) {
      const long coord[] = {k, t};
      const int64_t which = wide ? index.at<int64_t>(coord) : index.at<int32_t>(coord);
      if (which >= R * S) return Status::failure("sparse index must be less than kerH * kerW");
      Tap& tap = p.taps[size_t(k * T + t)];
      if (which < 0) continue;  // an unused slot
      tap.dy = long(which) / S;
      tap.dx = long(which) % S;
      tap.row = t;
      tap.weightCoord[0] = t;
      tap.weightCoordRank = 1;
    }
  detail::runMac(psum, fin, p);
  return Status::success();
}

}  // namespace kora::vela::intrinsic
