// Encoding and decoding of the second generation's quant info (fields and
// their trace lines in QuantInfo.h).
#include "Lyra/Intrinsic/QuantInfo.h"

#include "kora/Lyra/Intrinsic.h"

namespace kora::lyra::intrinsic {

namespace {

using namespace detail;
using vela::intrinsic::detail::forEachRow;
using vela::intrinsic::detail::readDecodedRow;
using vela::intrinsic::detail::tracedRow;
using vela::intrinsic::detail::withLast;

Status checkEncodeDecodePair(const Tensor& encode, const Tensor& decode) {
  if (encode.elementType() != ElementType::si64 || decode.elementType() != ElementType::si64)
    return Status::failure("encode and decode tensors must be the same");
  if (encode.rank() != decode.rank()) return Status::failure("encode and decode tensors must be same rank");
  if (encode.rank() < 2) return Status::failure("encode and decode tensors must be at least rank 2");
  if (encode.dim(-2) != decode.dim(-2)) return Status::failure("encode and decode tensor axis -2 must be identical");
  for (long axis = 0; axis + 2 < long(encode.rank()); ++axis)
    if (encode.dim(axis) != decode.dim(axis))
      return failure("encode and decode tensor axis {} must be identical", axis);
  if (decode.dim(-1) != kDecodedWidth) return Status::failure("decode tensor axis -1 must be 6");
  if (encode.dim(-1) != kEncodedWidth) return Status::failure("encode tensor axis -1 must be 2");
  if (!encode.isValid() || !decode.isValid()) return Status::failure("encode and decode tensors must hold data");
  return Status::success();
}

template <class Trace>
PackedChannel encodeRow(const Tensor& decode, const Coord& at, bool sumin32, Trace& trace) {
  int64_t row[kDecodedWidth];
  readDecodedRow(decode, at, row);
  return encodeChannel(row, sumin32, at, withLast(at, 0), withLast(at, 1), trace);
}

template <class Trace>
void decodeRow(const Tensor& encode, const Coord& at, bool sumin32, int64_t* row, Trace& trace) {
  const uint64_t commonPart = uint64_t(encode.at<int64_t>(withLast(at, 0)));
  const uint64_t suminWord = uint64_t(encode.at<int64_t>(withLast(at, 1)));
  decodeChannel(commonPart, suminWord, sumin32, withLast(at, 0), withLast(at, 1), row, trace);
}

}  // namespace

Status EncodeQuantInfo(Tensor& encode, Tensor const& decode, bool sumin32) {
  KORA_RETURN_IF_ERROR(checkEncodeDecodePair(encode, decode));
  if (sumin32) {
    Status bad = Status::success();
    forEachRow(decode, [&](const Coord& at) {
      const int64_t shift = decode.at<int64_t>(withLast(at, kSuminRShift));
      if (bad.ok() && !sumin32ShiftValid(shift))
        bad = failure("i32 suminRShift must be one of [8, 0, -8], but got {}", shift);
    });
    KORA_RETURN_IF_ERROR(bad);
  }
  Coord traced;
  if (tracedRow(TracePoint::forOutput(encode), traced)) {
    Tracer tracer;
    (void)encodeRow(decode, traced, sumin32, tracer);
  }
  forEachRow(decode, [&](const Coord& at) {
    NoTrace quiet;
    const PackedChannel packed = encodeRow(decode, at, sumin32, quiet);
    encode.at<int64_t>(withLast(at, 0)) = int64_t(packed.commonPart);
    encode.at<int64_t>(withLast(at, 1)) = int64_t(uint64_t(packed.suminPart));
  });
  return Status::success();
}

Status DecodeQuantInfo(Tensor& decode, Tensor const& encode, bool sumin32) {
  KORA_RETURN_IF_ERROR(checkEncodeDecodePair(encode, decode));
  int64_t row[kDecodedWidth];
  Coord traced;
  if (tracedRow(TracePoint::forOutput(decode), traced)) {
    Tracer tracer;
    decodeRow(encode, traced, sumin32, row, tracer);
  }
  forEachRow(encode, [&](const Coord& at) {
    NoTrace quiet;
    decodeRow(encode, at, sumin32, row, quiet);
    for (long j = 0; j < kDecodedWidth; ++j) decode.at<int64_t>(withLast(at, j)) = row[j];
  });
  return Status::success();
}

}  // namespace kora::lyra::intrinsic
