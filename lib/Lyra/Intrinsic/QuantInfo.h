#pragma once
// The second generation's per-channel quant info: its wider fields and one
// channel's encoding and decoding (each step traceable). The decoded row's
// layout, its printed form and the registers the post-process unit runs on
// are the first generation's (Vela/Intrinsic/QuantInfo.h).
#include <cstdint>

#include "Vela/Intrinsic/QuantInfo.h"
#include "kora/Core/Trace.h"
#include "kora/Support/FixedPoint.h"

namespace kora::lyra::intrinsic::detail {

using vela::intrinsic::detail::FieldRanges;
using vela::intrinsic::detail::kBias;
using vela::intrinsic::detail::kDecodedWidth;
using vela::intrinsic::detail::kPostRShift;
using vela::intrinsic::detail::kPreRShift;
using vela::intrinsic::detail::kScale;
using vela::intrinsic::detail::kScaleMask;
using vela::intrinsic::detail::kSuminRShift;
using vela::intrinsic::detail::kSuminScale;
using vela::intrinsic::detail::modeOfShift;
using vela::intrinsic::detail::PackedChannel;
using vela::intrinsic::detail::PrintedRow;
using vela::intrinsic::detail::QuantRegisters;
using vela::intrinsic::detail::registersOf;
using vela::intrinsic::detail::shiftOfMode;
using vela::intrinsic::detail::sumin32ShiftValid;

/// Encoded words per channel: commonPart, then suminPart in the low half.
inline constexpr long kEncodedWidth = 2;
inline constexpr int64_t kPreRShiftMax = 25;
inline constexpr int64_t kPostRShiftMax = 40;
inline constexpr uint64_t kPostRShiftMask = 63;
inline constexpr int64_t kSuminRShiftMin = -17, kSuminRShiftMax = 22;
/// A 6-bit postRShift whose values above 40 are invalid.
inline constexpr FieldRanges kRanges{kPreRShiftMax, kSuminRShiftMin, kSuminRShiftMax, kPostRShiftMask, kPostRShiftMax};

/// An encoded word's coordinate as a trace line names it: "encode[1, 0]".
struct EncodedWord {
  const Coord& at;
};

}  // namespace kora::lyra::intrinsic::detail

template <>
struct fmt::formatter<kora::lyra::intrinsic::detail::EncodedWord> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  template <class Ctx>
  auto format(const kora::lyra::intrinsic::detail::EncodedWord& w, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "encode{}", w.at);
  }
};

namespace kora::lyra::intrinsic::detail {

/// Packs one decoded row (whose 32-bit shift the caller has checked). `at`
/// is the row's coordinate, `word0` and `word1` those of its encoded words,
/// all for trace lines.
template <class Trace>
PackedChannel encodeChannel(const int64_t* row, bool sumin32, const Coord& at, const Coord& word0,
                            const Coord& word1, Trace& trace) {
  using fixed::insertBits;
  KORA_TRACE(trace, "EncodeQuantInfo: decode{} // {}", at, PrintedRow{row});
  PackedChannel out;
  const int32_t bias = fixed::truncateToInt32(row[kBias]);
  out.commonPart = insertBits(out.commonPart, 31, 0, uint64_t(uint32_t(bias)));
  KORA_TRACE(trace, "commonPart[31:0] = bias // {} -> {}[31:0]", bias, EncodedWord{word0});
  const int64_t suminRShift = row[kSuminRShift];
  if (!sumin32) {
    const uint64_t suminScale = uint64_t(row[kSuminScale]) & kScaleMask;
    out.suminPart = uint32_t(insertBits(out.suminPart, 14, 0, suminScale));
    KORA_TRACE(trace, "suminPart[14:0] = suminScale // {} -> {}[14:0]", suminScale, EncodedWord{word1});
    if (kRanges.suminRShiftValid(suminRShift)) {
      out.suminPart = uint32_t(insertBits(out.suminPart, 21, 16, uint64_t(suminRShift)));
      KORA_TRACE(trace, "suminPart[21:16] = suminRShift // {} -> {}[21:16]", suminRShift, EncodedWord{word1});
    } else {
      KORA_TRACE(trace, "suminPart[21:16] = 0 // exceeds range of [-17, 22], 0 -> {}[21:16]", EncodedWord{word1});
    }
  } else {
    const uint64_t mode = modeOfShift(suminRShift);
    out.suminPart = uint32_t(insertBits(out.suminPart, 17, 16, mode));
    KORA_TRACE(trace, "suminPart[17:16] = shiftMode // {} -> {}[17:16]", mode, EncodedWord{word1});
  }
  KORA_TRACE(trace, "suminPart = {}", out.suminPart);
  const int64_t preRShift = row[kPreRShift];
  if (kRanges.preRShiftValid(preRShift)) {
    out.commonPart = insertBits(out.commonPart, 52, 48, uint64_t(preRShift));
    KORA_TRACE(trace, "commonPart[52:48] = preRShift // {} -> {}[52:48]", preRShift, EncodedWord{word0});
  } else {
    KORA_TRACE(trace, "commonPart[52:48] = 0 // preRShift {} exceeds range of [0, 25], 0 -> {}[52:48]", preRShift,
               EncodedWord{word0});
  }
  const uint64_t scale = uint64_t(row[kScale]) & kScaleMask;
  out.commonPart = insertBits(out.commonPart, 46, 32, scale);
  KORA_TRACE(trace, "commonPart[46:32] = scale // {} -> {}[46:43]", scale, EncodedWord{word0});
  const uint64_t postRShift = uint64_t(row[kPostRShift]) & kPostRShiftMask;
  out.commonPart = insertBits(out.commonPart, 61, 56, postRShift);
  KORA_TRACE(trace, "commonPart[61:56] = postRShift // {} -> {}[61:56]", postRShift, EncodedWord{word0});
  return out;
}

/// Unpacks one channel's words into a decoded row; `word0` and `word1` are
/// their coordinates, for trace lines.
template <class Trace>
void decodeChannel(uint64_t commonPart, uint64_t suminWord, bool sumin32, const Coord& word0, const Coord& word1,
                   int64_t* row, Trace& trace) {
  using fixed::extractBits;
  KORA_TRACE(trace, "DecodeQuantInfo:  ");
  KORA_TRACE(trace, "commonPart = quantInfo{} // {}", word0, int64_t(commonPart));
  row[kBias] = fixed::signExtend(extractBits(commonPart, 31, 0), 32);
  KORA_TRACE(trace, "bias = commonPart[31:0] // {}", row[kBias]);
  const uint32_t suminPart = uint32_t(extractBits(suminWord, 31, 0));
  KORA_TRACE(trace, "suminPart = quantInfo{} // {}", word1, suminPart);
  if (sumin32) {
    // The shift mode sits in the suminPart, where the 8-bit form keeps its
    // shift; the line's fixed text (which tools match) names commonPart.
    const uint64_t mode = extractBits(suminPart, 17, 16);
    KORA_TRACE(trace, "suminShiftMode = commonPart[17:16] // {}", mode);
    row[kSuminScale] = 0;
    row[kSuminRShift] = shiftOfMode(mode);
    KORA_TRACE(trace, "suminRShift = {}", row[kSuminRShift]);
  } else {
    row[kSuminScale] = int64_t(extractBits(suminPart, 14, 0));
    KORA_TRACE(trace, "suminScale = suminPart[14:0] // {}", row[kSuminScale]);
    const int64_t shift = fixed::signExtend(extractBits(suminPart, 21, 16), 6);
    if (kRanges.suminRShiftValid(shift)) {
      row[kSuminRShift] = shift;
      KORA_TRACE(trace, "suminRShift = suminPart[21:16] // {}", shift);
    } else {
      row[kSuminRShift] = 0;
      KORA_TRACE(trace, "suminRShift = 0 // exceeds [-17,22] range");
    }
  }
  const int64_t preRShift = int64_t(extractBits(commonPart, 52, 48));
  if (kRanges.preRShiftValid(preRShift)) {
    row[kPreRShift] = preRShift;
    KORA_TRACE(trace, "preRShift = commonPart[52:48] // {}", preRShift);
  } else {
    row[kPreRShift] = 0;
    KORA_TRACE(trace, "preRShift = 0 // exceeds [0, 25] range");
  }
  row[kScale] = int64_t(extractBits(commonPart, 46, 32));
  KORA_TRACE(trace, "scale = commonPart[46:32] // {}", row[kScale]);
  const int64_t postRShift = int64_t(extractBits(commonPart, 61, 56));
  if (kRanges.postRShiftValid(postRShift)) {
    row[kPostRShift] = postRShift;
    KORA_TRACE(trace, "postRShift = commonPart[61:56] // {}", postRShift);
  } else {
    row[kPostRShift] = 0;
    KORA_TRACE(trace, "postRShift = 0 // exceeds [0,40] range");
  }
}

}  // namespace kora::lyra::intrinsic::detail
