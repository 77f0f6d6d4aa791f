// Encoding and decoding of the per-channel quant info (fields and their
// trace lines in QuantInfo.h), and the table checks both generations share.
#include "Vela/Intrinsic/QuantInfo.h"

#include "kora/Vela/Intrinsic.h"

namespace kora::vela::intrinsic {

namespace detail {

Status checkEncodeDecodePair(const Tensor& encode, const Tensor& decode, const PairReasons& reasons) {
  if (encode.elementType() != ElementType::si64 || decode.elementType() != ElementType::si64)
    return Status::failure(reasons.type);
  if (encode.rank() != decode.rank()) return Status::failure(reasons.rank);
  if (encode.rank() < 2) return Status::failure("encode and decode tensors must be at least rank 2");
  if (encode.dim(-2) != decode.dim(-2)) return Status::failure("encode and decode tensor axis -2 must be identical");
  for (long axis = 0; axis + 2 < long(encode.rank()); ++axis)
    if (encode.dim(axis) != decode.dim(axis))
      return failure("encode and decode tensor axis {} must be identical", axis);
  if (decode.dim(-1) != kDecodedWidth) return Status::failure("decode tensor axis -1 must be 6");
  if (encode.dim(-1) < reasons.minWords || encode.dim(-1) > 2) return Status::failure(reasons.width);
  if (!encode.isValid() || !decode.isValid()) return Status::failure("encode and decode tensors must hold data");
  return Status::success();
}

Status checkSumin32Shifts(const Tensor& decode) {
  Status bad = Status::success();
  forEachRow(decode, [&](const Coord& at) {
    const int64_t shift = decode.at<int64_t>(withLast(at, kSuminRShift));
    if (bad.ok() && !sumin32ShiftValid(shift))
      bad = failure("i32 suminRShift must be one of [8, 0, -8], but got {}", shift);
  });
  return bad;
}

}  // namespace detail

namespace {

using namespace detail;

constexpr PairReasons kPairReasons{"encoded and decoded quantInfo must be si64",
                                   "encode and decode tensors must be the same rank",
                                   "encode tensor axis -1 must be either 1 or 2", 1};

bool oddChannel(const Coord& at, int64_t channelBase) {
  return ((uint64_t(channelBase) + uint64_t(at[at.rank - 1])) & 1u) != 0;
}

template <class Trace>
void decodeRow(const Tensor& encode, const Coord& at, int64_t channelBase, int64_t* row, Trace& trace) {
  const uint64_t commonPart = uint64_t(encode.at<int64_t>(withLast(at, 0)));
  uint64_t suminWord = 0;
  const bool twoWords = encode.dim(-1) == 2;
  if (twoWords) suminWord = uint64_t(encode.at<int64_t>(withLast(at, 1)));
  decodeChannel(commonPart, twoWords ? &suminWord : nullptr, oddChannel(at, channelBase), withLast(at, 0), row, trace);
}

}  // namespace

Status EncodeQuantInfo(Tensor& encode, Tensor const& decode) {
  KORA_RETURN_IF_ERROR(checkEncodeDecodePair(encode, decode, kPairReasons));
  const bool sumin32 = encode.dim(-1) == 1;
  if (sumin32) KORA_RETURN_IF_ERROR(checkSumin32Shifts(decode));
  encodeRows(
      encode, decode,
      [&](const int64_t* row, const Coord& at, auto& trace) {
        return encodeChannel(row, sumin32, oddChannel(at, 0), at, withLast(at, 0), trace);
      },
      [&](const Coord& at, const PackedChannel& packed) {
        encode.at<int64_t>(withLast(at, 0)) = int64_t(packed.commonPart);
        if (!sumin32) {
          const unsigned half = oddChannel(at, 0) ? 32 : 0;
          encode.at<int64_t>(withLast(at, 1)) = int64_t(uint64_t(packed.suminPart) << half);
        }
      });
  return Status::success();
}

Status DecodeQuantInfo(Tensor& decode, Tensor const& encode, int64_t channelBase) {
  KORA_RETURN_IF_ERROR(checkEncodeDecodePair(encode, decode, kPairReasons));
  decodeRows(decode, encode,
             [&](const Coord& at, int64_t* row, auto& trace) { decodeRow(encode, at, channelBase, row, trace); });
  return Status::success();
}

}  // namespace kora::vela::intrinsic
