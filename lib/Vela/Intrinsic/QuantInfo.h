#pragma once
// The first generation's per-channel quant info: the packed fields, one
// channel's encoding and decoding (each step traceable), and the registers
// the post-process unit runs on.
#include <cstdint>

#include "kora/Core/Tensor.h"
#include "kora/Core/Trace.h"
#include "kora/Support/FixedPoint.h"

namespace kora::vela::intrinsic::detail {

/// Positions of a decoded row.
enum DecodedPosition : unsigned { kBias = 0, kSuminScale = 1, kSuminRShift = 2, kPreRShift = 3, kScale = 4, kPostRShift = 5 };
inline constexpr long kDecodedWidth = 6;

/// Field ranges of the packed words.
inline constexpr int64_t kPreRShiftMax = 17;
inline constexpr int64_t kSuminRShiftMin = -13, kSuminRShiftMax = 22;
inline constexpr uint64_t kScaleMask = 0x7fff;
inline constexpr uint64_t kPostRShiftMask = 31;
/// commonPart[54:53] for a 32-bit sumin: 2 shifts it right by 8, 3 left by 8.
inline constexpr uint64_t kShiftModeNone = 0, kShiftModeRight8 = 2, kShiftModeLeft8 = 3;

inline bool preRShiftInRange(int64_t v) { return v >= 0 && v <= kPreRShiftMax; }
inline bool suminRShiftInRange(int64_t v) { return v >= kSuminRShiftMin && v <= kSuminRShiftMax; }
/// A 32-bit sumin shifts by 8 either way or not at all.
inline bool sumin32ShiftValid(int64_t v) { return v == 8 || v == 0 || v == -8; }

/// "bias=5 preRShift=1 scale=3 postRShift=2 suminScale=0 suminRShift=0".
struct PrintedRow {
  const int64_t* row;
};

}  // namespace kora::vela::intrinsic::detail

template <>
struct fmt::formatter<kora::vela::intrinsic::detail::PrintedRow> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  template <class Ctx>
  auto format(const kora::vela::intrinsic::detail::PrintedRow& r, Ctx& ctx) const {
    using namespace kora::vela::intrinsic::detail;
    return fmt::format_to(ctx.out(), "bias={} preRShift={} scale={} postRShift={} suminScale={} suminRShift={}",
                          r.row[kBias], r.row[kPreRShift], r.row[kScale], r.row[kPostRShift], r.row[kSuminScale],
                          r.row[kSuminRShift]);
  }
};

namespace kora::vela::intrinsic::detail {

// Walking a quant-info tensor row by row (a row: one channel's words or
// decoded values, the last axis).

/// Calls f(rowCoord) for every coordinate of `t` without its last axis, in
/// row-major order.
template <class F>
inline void forEachRow(const Tensor& t, F&& f) {
  if (t.isEmpty()) return;
  const long rank = long(t.rank()) - 1;
  Coord at;
  for (long d = 0; d < rank; ++d) at.push(0);
  for (;;) {
    f(static_cast<const Coord&>(at));
    long d = rank - 1;
    for (; d >= 0; --d) {
      if (++at[d] < t.dim(d)) break;
      at[d] = 0;
    }
    if (d < 0) return;
  }
}

/// `row` with `last` appended: the coordinate of one word or value of a row.
inline Coord withLast(const Coord& row, long last) {
  Coord c = row;
  c.push(last);
  return c;
}

/// The traced row (the trace point without its last axis), if any.
inline bool tracedRow(const TracePoint& trace, Coord& row) {
  if (!trace) return false;
  row = trace.coord();
  --row.rank;
  return true;
}

inline void readDecodedRow(const Tensor& decode, const Coord& at, int64_t* row) {
  for (long j = 0; j < kDecodedWidth; ++j) row[j] = decode.at<int64_t>(withLast(at, j));
}

/// The coordinate of a channel's second word, from that of its first.
inline Coord secondWord(Coord word0) {
  word0[word0.rank - 1] = 1;
  return word0;
}

/// One channel's packed words. suminPart is meaningful in the 8-bit form only.
struct PackedChannel {
  uint64_t commonPart = 0;
  uint32_t suminPart = 0;
};

/// Packs one decoded row (whose 32-bit shift the caller has checked). `at`
/// is the row's coordinate and `word0` the coordinate of its first encoded
/// word, both for trace lines; the suminPart goes to the high half word when
/// `highHalf`.
template <class Trace>
PackedChannel encodeChannel(const int64_t* row, bool sumin32, bool highHalf, const Coord& at, const Coord& word0,
                            Trace& trace) {
  using fixed::insertBits;
  KORA_TRACE(trace, "decode{} // {}", at, PrintedRow{row});
  PackedChannel out;
  const int32_t bias = fixed::truncateToInt32(row[kBias]);
  out.commonPart = insertBits(out.commonPart, 31, 0, uint64_t(uint32_t(bias)));
  KORA_TRACE(trace, "commonPart[31:0] = bias // {}", bias);
  const int64_t suminRShift = row[kSuminRShift];
  if (!sumin32) {
    const uint64_t suminScale = uint64_t(row[kSuminScale]) & kScaleMask;
    out.suminPart = uint32_t(insertBits(out.suminPart, 14, 0, suminScale));
    KORA_TRACE(trace, "suminPart[14:0] = suminScale // {}", suminScale);
    if (suminRShiftInRange(suminRShift)) {
      out.suminPart = uint32_t(insertBits(out.suminPart, 21, 16, uint64_t(suminRShift) & 63));
      KORA_TRACE(trace, "suminPart[21:16] = suminRShift // {}", suminRShift);
    } else {
      KORA_TRACE(trace, "suminPart[21:16] = 0 // exceeds range of [-13, 22]");
    }
  } else {
    const uint64_t mode = suminRShift == 8 ? kShiftModeRight8 : suminRShift == -8 ? kShiftModeLeft8 : kShiftModeNone;
    out.commonPart = insertBits(out.commonPart, 54, 53, mode);
    KORA_TRACE(trace, "commonPart[54:53] = shiftMode // {}", mode);
  }
  const int64_t preRShift = row[kPreRShift];
  if (preRShiftInRange(preRShift)) {
    out.commonPart = insertBits(out.commonPart, 52, 48, uint64_t(preRShift));
    KORA_TRACE(trace, "commonPart[52:48] = preRShift // {}", preRShift);
  } else {
    KORA_TRACE(trace, "commonPart[52:48] = 0 // {} exceeds range of [0, 17]", preRShift);
  }
  const uint64_t scale = uint64_t(row[kScale]) & kScaleMask;
  out.commonPart = insertBits(out.commonPart, 46, 32, scale);
  KORA_TRACE(trace, "commonPart[46:32] = scale // {}", scale);
  const uint64_t postRShift = uint64_t(row[kPostRShift]) & kPostRShiftMask;
  out.commonPart = insertBits(out.commonPart, 60, 56, postRShift);
  KORA_TRACE(trace, "commonPart[60:56] = postRShift // {}", postRShift);
  KORA_TRACE(trace, "encode{} = commonPart // {}", word0, int64_t(out.commonPart));
  if (!sumin32) {
    if (highHalf)
      KORA_TRACE(trace, "encode{}[63:32] = suminPart", secondWord(word0));
    else
      KORA_TRACE(trace, "encode{}[31:0] = suminPart", secondWord(word0));
  }
  return out;
}

/// Unpacks one channel into a decoded row. `suminWord` is the channel's
/// second word (8-bit form) or null (32-bit form); its suminPart sits in the
/// high half when `highHalf`. `word0` is the coordinate of the first word.
template <class Trace>
void decodeChannel(uint64_t commonPart, const uint64_t* suminWord, bool highHalf, const Coord& word0, int64_t* row,
                   Trace& trace) {
  using fixed::extractBits;
  KORA_TRACE(trace, "commonPart = quantInfo{} // {}", word0, int64_t(commonPart));
  row[kBias] = fixed::signExtend(extractBits(commonPart, 31, 0), 32);
  KORA_TRACE(trace, "bias = commonPart[31:0] // {}", row[kBias]);
  const uint64_t mode = extractBits(commonPart, 54, 53);
  KORA_TRACE(trace, "suminShiftMode = commonPart[54:53] // {}", mode);
  if (suminWord) {
    const uint32_t suminPart = uint32_t(highHalf ? extractBits(*suminWord, 63, 32) : extractBits(*suminWord, 31, 0));
    if (highHalf)
      KORA_TRACE(trace, "suminPart = quantInfo{}[63:32] // {}", secondWord(word0), suminPart);
    else
      KORA_TRACE(trace, "suminPart = quantInfo{}[31:0] // {}", secondWord(word0), suminPart);
    row[kSuminScale] = int64_t(extractBits(suminPart, 14, 0));
    KORA_TRACE(trace, "suminScale = suminPart[14:0] // {}", row[kSuminScale]);
    const int64_t shift = fixed::signExtend(extractBits(suminPart, 21, 16), 6);
    if (suminRShiftInRange(shift)) {
      row[kSuminRShift] = shift;
      KORA_TRACE(trace, "suminRShift = suminPart[21:16] // {}", shift);
    } else {
      row[kSuminRShift] = 0;
      KORA_TRACE(trace, "suminRShift = 0 // exceeds [-13,22] range");
    }
  } else {
    row[kSuminScale] = 0;
    row[kSuminRShift] = mode == kShiftModeRight8 ? 8 : mode == kShiftModeLeft8 ? -8 : 0;
    KORA_TRACE(trace, "suminRShift = {}", row[kSuminRShift]);
  }
  const int64_t preRShift = int64_t(extractBits(commonPart, 52, 48));
  if (preRShiftInRange(preRShift)) {
    row[kPreRShift] = preRShift;
    KORA_TRACE(trace, "preRShift = commonPart[52:48] // {}", preRShift);
  } else {
    row[kPreRShift] = 0;
    KORA_TRACE(trace, "preRShift = 0 // exceeds [0, 17] range");
  }
  row[kScale] = int64_t(extractBits(commonPart, 46, 32));
  KORA_TRACE(trace, "scale = commonPart[46:32] // {}", row[kScale]);
  row[kPostRShift] = int64_t(extractBits(commonPart, 60, 56));
  KORA_TRACE(trace, "postRShift = commonPart[60:56] // {}", row[kPostRShift]);
}

/// One channel's registers in the post-process unit.
struct QuantRegisters {
  int32_t bias = 0;
  uint32_t suminScale = 0;  // 15 bits
  int suminRShift = 0;      // 8-bit sumin: [-13, 22]; 32-bit sumin: 8, 0 or -8
  unsigned preRShift = 0;   // [0, 17]
  uint32_t scale = 0;       // 15 bits
  unsigned postRShift = 0;  // 5 bits
};

/// A decoded row as the registers hold it: each field reduced to its width
/// and range exactly as the encoder stores it. A 32-bit sumin's shift must
/// have been checked.
inline QuantRegisters registersOf(const int64_t* row, bool sumin32) {
  QuantRegisters q;
  q.bias = fixed::truncateToInt32(row[kBias]);
  q.suminScale = uint32_t(uint64_t(row[kSuminScale]) & kScaleMask);
  const int64_t shift = row[kSuminRShift];
  q.suminRShift = sumin32 ? int(shift) : suminRShiftInRange(shift) ? int(shift) : 0;
  q.preRShift = preRShiftInRange(row[kPreRShift]) ? unsigned(row[kPreRShift]) : 0;
  q.scale = uint32_t(uint64_t(row[kScale]) & kScaleMask);
  q.postRShift = unsigned(uint64_t(row[kPostRShift]) & kPostRShiftMask);
  return q;
}

}  // namespace kora::vela::intrinsic::detail
