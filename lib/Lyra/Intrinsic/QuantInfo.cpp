// Encoding and decoding of the second generation's quant info (fields and
// their trace lines in QuantInfo.h).
#include "Lyra/Intrinsic/QuantInfo.h"

#include "kora/Lyra/Intrinsic.h"

namespace kora::lyra::intrinsic {

namespace {

using namespace detail;
using vela::intrinsic::detail::checkEncodeDecodePair;
using vela::intrinsic::detail::checkSumin32Shifts;
using vela::intrinsic::detail::decodeRows;
using vela::intrinsic::detail::encodeRows;
using vela::intrinsic::detail::PairReasons;
using vela::intrinsic::detail::withLast;

constexpr PairReasons kPairReasons{"encode and decode tensors must be the same",
                                   "encode and decode tensors must be same rank", "encode tensor axis -1 must be 2",
                                   kEncodedWidth};

}  // namespace

Status EncodeQuantInfo(Tensor& encode, Tensor const& decode, bool sumin32) {
  KORA_RETURN_IF_ERROR(checkEncodeDecodePair(encode, decode, kPairReasons));
  if (sumin32) KORA_RETURN_IF_ERROR(checkSumin32Shifts(decode));
  encodeRows(
      encode, decode,
      [&](const int64_t* row, const Coord& at, auto& trace) {
        return encodeChannel(row, sumin32, at, withLast(at, 0), withLast(at, 1), trace);
      },
      [&](const Coord& at, const PackedChannel& packed) {
        encode.at<int64_t>(withLast(at, 0)) = int64_t(packed.commonPart);
        encode.at<int64_t>(withLast(at, 1)) = int64_t(uint64_t(packed.suminPart));
      });
  return Status::success();
}

Status DecodeQuantInfo(Tensor& decode, Tensor const& encode, bool sumin32) {
  KORA_RETURN_IF_ERROR(checkEncodeDecodePair(encode, decode, kPairReasons));
  decodeRows(decode, encode, [&](const Coord& at, int64_t* row, auto& trace) {
    const uint64_t commonPart = uint64_t(encode.at<int64_t>(withLast(at, 0)));
    const uint64_t suminWord = uint64_t(encode.at<int64_t>(withLast(at, 1)));
    decodeChannel(commonPart, suminWord, sumin32, withLast(at, 0), withLast(at, 1), row, trace);
  });
  return Status::success();
}

}  // namespace kora::lyra::intrinsic
