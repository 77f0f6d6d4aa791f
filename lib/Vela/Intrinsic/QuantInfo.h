#pragma once
// The first generation's per-channel quant info: the packed fields, one
// channel's encoding and decoding (each step traceable); and what both
// generations share: the decoded row's layout, the registers the
// post-process unit runs on, and the walk over whole tables.
#include <cstdint>

#include "kora/Core/Tensor.h"
#include "kora/Core/Trace.h"
#include "kora/Kernel/Status.h"
#include "kora/Support/FixedPoint.h"

namespace kora::vela::intrinsic::detail {

/// Positions of a decoded row.
enum DecodedPosition : unsigned { kBias = 0, kSuminScale = 1, kSuminRShift = 2, kPreRShift = 3, kScale = 4, kPostRShift = 5 };
inline constexpr long kDecodedWidth = 6;

/// The valid ranges of a generation's packed shift fields: the encoder
/// writes 0 for a value outside them, and a stored value outside them
/// decodes (and is held in the registers) as 0.
struct FieldRanges {
  int64_t preRShiftMax;                    // preRShift: [0, preRShiftMax]
  int64_t suminRShiftMin, suminRShiftMax;  // the 6-bit two's complement suminRShift
  uint64_t postRShiftMask;                 // the postRShift field's width
  int64_t postRShiftMax;                   // its valid values: [0, postRShiftMax]

  constexpr bool preRShiftValid(int64_t v) const { return v >= 0 && v <= preRShiftMax; }
  constexpr bool suminRShiftValid(int64_t v) const { return v >= suminRShiftMin && v <= suminRShiftMax; }
  constexpr bool postRShiftValid(int64_t v) const { return v >= 0 && v <= postRShiftMax; }
};

/// The first generation's fields: preRShift [0, 17], suminRShift [-13, 22]
/// and a 5-bit postRShift, every value of which is valid.
inline constexpr int64_t kPreRShiftMax = 17;
inline constexpr int64_t kSuminRShiftMin = -13, kSuminRShiftMax = 22;
inline constexpr uint64_t kPostRShiftMask = 31;
inline constexpr FieldRanges kRanges{kPreRShiftMax, kSuminRShiftMin, kSuminRShiftMax, kPostRShiftMask, 31};

/// The 15-bit scale fields.
inline constexpr uint64_t kScaleMask = 0x7fff;
/// The shift mode of a 32-bit sumin: 2 shifts it right by 8, 3 left by 8.
inline constexpr uint64_t kShiftModeNone = 0, kShiftModeRight8 = 2, kShiftModeLeft8 = 3;

/// A 32-bit sumin shifts by 8 either way or not at all.
inline bool sumin32ShiftValid(int64_t v) { return v == 8 || v == 0 || v == -8; }

/// The shift mode of a (valid) 32-bit sumin shift, and back: 2 -> 8, 3 ->
/// -8, 0 and the unused 1 -> 0.
inline uint64_t modeOfShift(int64_t shift) {
  return shift == 8 ? kShiftModeRight8 : shift == -8 ? kShiftModeLeft8 : kShiftModeNone;
}
inline int64_t shiftOfMode(uint64_t mode) { return mode == kShiftModeRight8 ? 8 : mode == kShiftModeLeft8 ? -8 : 0; }

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

/// One channel's packed words: the commonPart and the 32-bit suminPart
/// (which the first generation's 32-bit sumin form does not store).
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
    if (kRanges.suminRShiftValid(suminRShift)) {
      out.suminPart = uint32_t(insertBits(out.suminPart, 21, 16, uint64_t(suminRShift) & 63));
      KORA_TRACE(trace, "suminPart[21:16] = suminRShift // {}", suminRShift);
    } else {
      KORA_TRACE(trace, "suminPart[21:16] = 0 // exceeds range of [-13, 22]");
    }
  } else {
    const uint64_t mode = modeOfShift(suminRShift);
    out.commonPart = insertBits(out.commonPart, 54, 53, mode);
    KORA_TRACE(trace, "commonPart[54:53] = shiftMode // {}", mode);
  }
  const int64_t preRShift = row[kPreRShift];
  if (kRanges.preRShiftValid(preRShift)) {
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
    if (kRanges.suminRShiftValid(shift)) {
      row[kSuminRShift] = shift;
      KORA_TRACE(trace, "suminRShift = suminPart[21:16] // {}", shift);
    } else {
      row[kSuminRShift] = 0;
      KORA_TRACE(trace, "suminRShift = 0 // exceeds [-13,22] range");
    }
  } else {
    row[kSuminScale] = 0;
    row[kSuminRShift] = shiftOfMode(mode);
    KORA_TRACE(trace, "suminRShift = {}", row[kSuminRShift]);
  }
  const int64_t preRShift = int64_t(extractBits(commonPart, 52, 48));
  if (kRanges.preRShiftValid(preRShift)) {
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

/// One channel's registers in the post-process unit (either generation).
struct QuantRegisters {
  int32_t bias = 0;
  uint32_t suminScale = 0;  // 15 bits
  int suminRShift = 0;      // 8 and 16-bit sumin: within the ranges; 32-bit sumin: 8, 0 or -8
  unsigned preRShift = 0;   // within the ranges
  uint32_t scale = 0;       // 15 bits
  unsigned postRShift = 0;  // within the ranges
};

/// A decoded row as the registers hold it: each field reduced to its width
/// and range exactly as encoding and decoding it would. A 32-bit sumin's
/// shift must have been checked.
inline QuantRegisters registersOf(const int64_t* row, bool sumin32, const FieldRanges& ranges) {
  QuantRegisters q;
  q.bias = fixed::truncateToInt32(row[kBias]);
  q.suminScale = uint32_t(uint64_t(row[kSuminScale]) & kScaleMask);
  const int64_t shift = row[kSuminRShift];
  q.suminRShift = sumin32 || ranges.suminRShiftValid(shift) ? int(shift) : 0;
  q.preRShift = ranges.preRShiftValid(row[kPreRShift]) ? unsigned(row[kPreRShift]) : 0;
  q.scale = uint32_t(uint64_t(row[kScale]) & kScaleMask);
  const uint64_t post = uint64_t(row[kPostRShift]) & ranges.postRShiftMask;
  q.postRShift = ranges.postRShiftValid(int64_t(post)) ? unsigned(post) : 0;
  return q;
}

// Whole tables (every generation's EncodeQuantInfo and DecodeQuantInfo).

/// The reasons a generation gives for an encode / decode pair, and the
/// words per channel it accepts: minWords to 2.
struct PairReasons {
  const char* type;   // either is not si64
  const char* rank;   // their ranks differ
  const char* width;  // encode's last axis
  long minWords;
};

/// The checks of an encode / decode pair, in order: `type`, `rank`, "encode
/// and decode tensors must be at least rank 2", "encode and decode tensor
/// axis -2 must be identical", "encode and decode tensor axis {} must be
/// identical" for a leading axis, "decode tensor axis -1 must be 6",
/// `width`, "encode and decode tensors must hold data".
Status checkEncodeDecodePair(const Tensor& encode, const Tensor& decode, const PairReasons& reasons);

/// "i32 suminRShift must be one of [8, 0, -8], but got {}" for the first
/// decoded row whose suminRShift a 32-bit sumin cannot take.
Status checkSumin32Shifts(const Tensor& decode);

/// Encodes every row of `decode`: the traced row of `encode` first (with
/// Tracer, not stored), then every row, store(at, packed) storing it.
/// encodeRow(row, at, trace) packs the decoded row at `at`.
template <class EncodeRow, class Store>
void encodeRows(const Tensor& encode, const Tensor& decode, const EncodeRow& encodeRow, const Store& store) {
  int64_t row[kDecodedWidth];
  Coord traced;
  if (tracedRow(TracePoint::forOutput(encode), traced)) {
    Tracer tracer;
    readDecodedRow(decode, traced, row);
    (void)encodeRow(static_cast<const int64_t*>(row), static_cast<const Coord&>(traced), tracer);
  }
  forEachRow(decode, [&](const Coord& at) {
    NoTrace quiet;
    readDecodedRow(decode, at, row);
    store(at, encodeRow(static_cast<const int64_t*>(row), at, quiet));
  });
}

/// Decodes every row of `encode` into `decode`, the traced row of `decode`
/// first (not stored); decodeRow(at, row, trace) unpacks the row at `at`.
template <class DecodeRow>
void decodeRows(Tensor& decode, const Tensor& encode, const DecodeRow& decodeRow) {
  int64_t row[kDecodedWidth];
  Coord traced;
  if (tracedRow(TracePoint::forOutput(decode), traced)) {
    Tracer tracer;
    decodeRow(static_cast<const Coord&>(traced), row, tracer);
  }
  forEachRow(encode, [&](const Coord& at) {
    NoTrace quiet;
    decodeRow(at, row, quiet);
    for (long j = 0; j < kDecodedWidth; ++j) decode.at<int64_t>(withLast(at, j)) = row[j];
  });
}

}  // namespace kora::vela::intrinsic::detail
