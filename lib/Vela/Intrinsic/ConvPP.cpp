// The first generation's post-process over whole tensors (decoded or encoded
// quant info), and the MAC followed by it.
#include "Vela/Intrinsic/PostProcess.h"
#include "Vela/Intrinsic/QuantInfo.h"
#include "kora/Support/Dispatch.h"
#include "kora/Vela/Intrinsic.h"

namespace kora::vela::intrinsic {

namespace {

using namespace detail;

/// The first generation's sumin rescale (step 3 of the pipeline): an 8-bit
/// sumin is multiplied by its 15-bit scale and shifted; a 32-bit sumin is
/// only shifted (by 8 either way, or not at all).
template <class TSumin>
struct AddSumin {
  const Coord& at;
  TSumin value;
  int64_t scale;
  int rshift;

  template <class Trace>
  int64_t operator()(Trace& trace, int64_t psum64) const {
    int64_t rescaled;
    if constexpr (sizeof(TSumin) == 1) {
      rescaled = int64_t(value) * scale;  // below 2^22 in magnitude
      KORA_TRACE(trace, "rescaledSumin = sumin8{} * suminScale //  {} * {} -> {}", at, int(value), scale, rescaled);
      rescaled = fixed::shiftRightOrLeft(rescaled, rshift);  // shift in [-13, 22]
      if (rshift < 0)
        KORA_TRACE(trace, "rescaledSumin = rescaledSumin << (-1 * suminRShift({})) // {}", rshift, rescaled);
      else
        KORA_TRACE(trace, "rescaledSumin = rescaledSumin >> suminRShift({})) // {}", rshift, rescaled);
    } else {
      KORA_TRACE(trace, "sumin32 = sumin{} // {}", at, value);
      rescaled = fixed::shiftRightOrLeft(int64_t(value), rshift);  // shift 8, 0 or -8
      if (rshift < 0)
        KORA_TRACE(trace, "rescaledSumin = sumin32 << (-1 * suminRShift) // {} << (-1 * {}) -> {}", value, rshift,
                   rescaled);
      else
        KORA_TRACE(trace, "rescaledSumin = sumin32 >> suminRShift // {} >> {} -> {}", value, rshift, rescaled);
    }
    psum64 += rescaled;
    KORA_TRACE(trace, "psum64 += rescaledSumin //  {}", psum64);
    return psum64;
  }
};

/// The registers of every (table, channel), ready for the loop.
using PostProcessPlan = ChannelPlan<QuantRegisters>;
using Sumins = TypeList<int8_t, int32_t>;

/// All checks of ConvPP / ConvPPEncoded (psum may be a shape without data:
/// ConvMacPP checks before its psum exists), then the registers.
Status planPostProcess(const Tensor& fout, const Tensor& psum, const Tensor& quantInfo, const Tensor& sumin,
                       bool encoded, bool perTensor, PostProcessPlan& plan) {
  if (psum.elementType() != ElementType::si32) return Status::failure("psum must be si32");
  if (!psum.sameShape(fout)) return Status::failure("shape of psum and fout must be identical");
  if (quantInfo.elementType() != ElementType::si64)
    return Status::failure(encoded ? "encoded and decoded quantInfo must be si64" : "decoded quantInfo must be si64");
  if (quantInfo.rank() != 2 && quantInfo.rank() != 3) return Status::failure("quantInfo rank must be either 2 or 3");
  const long width = quantInfo.dim(-1);
  if (!encoded && width != kDecodedWidth) return Status::failure("decoded quantInfo axis -1 be 6");
  if (encoded && width != 1 && width != 2) return Status::failure("encode tensor axis -1 must be either 1 or 2");
  const long K = psum.rank() > 0 ? psum.dim(-1) : 0;
  if (quantInfo.dim(-2) < (perTensor ? 1 : K))
    return Status::failure("quantInfo axis -2 must be greater or equal to psum axis -1");
  if (psum.rank() == 0) return Status::failure("psum must have a channel axis");
  const long batch = psum.rank() >= 2 ? psum.dim(0) : 1;
  const long tables = quantInfo.rank() == 3 ? quantInfo.dim(0) : 1;
  if (tables != 1 && tables != batch) return Status::failure("quantInfo axis 0 must be 1 or psum axis 0");
  if (!typeIn<IntegerOutputs>(fout.elementType())) return Status::failure("fout must be si8, si16 or si32");
  const bool hasSumin = sumin.isValid();
  if (hasSumin && sumin.elementType() != ElementType::si8 && sumin.elementType() != ElementType::si32)
    return Status::failure("sumin must be 8bit or 32bit");
  if (hasSumin && !sumin.sameShape(psum)) return Status::failure("shape of psum and sumin must be identical");
  const bool sumin32 = hasSumin ? sumin.elementType() == ElementType::si32 : encoded && width == 1;
  if (encoded && hasSumin && sumin32 != (width == 1))
    return Status::failure("sumin type does not match the quantInfo form");
  if (!fout.isValid() || !quantInfo.isValid()) return Status::failure("post-process operands must hold data");

  return fillPlan(plan, tables, K, perTensor, [&](long x, long channel, QuantRegisters& regs) {
    int64_t row[kDecodedWidth];
    if (encoded) {
      const uint64_t suminWord = width == 2 ? uint64_t(tableValue<int64_t>(quantInfo, x, channel, 1)) : 0;
      NoTrace quiet;
      decodeChannel(uint64_t(tableValue<int64_t>(quantInfo, x, channel, 0)), width == 2 ? &suminWord : nullptr,
                    channel % 2 == 1, Coord(), row, quiet);
    } else {
      for (long j = 0; j < kDecodedWidth; ++j) row[j] = tableValue<int64_t>(quantInfo, x, channel, j);
      if (hasSumin && sumin32 && !sumin32ShiftValid(row[kSuminRShift]))
        return failure("i32 suminRShift must be one of [8, 0, -8], but got {}", row[kSuminRShift]);
    }
    regs = registersOf(row, sumin32, kRanges);
    return Status::success();
  });
}

using Calls = IntegerPostProcess<AddSumin, Sumins, &planPostProcess>;

}  // namespace

Status ConvPP(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu, bool round,
              bool perTensor) {
  return Calls::tensors(fout, psum, quantInfo, sumin, false, relu, round, perTensor);
}

Status ConvPPEncoded(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                     bool round, bool perTensor) {
  return Calls::tensors(fout, psum, quantInfo, sumin, true, relu, round, perTensor);
}

Status ConvMacPP(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo, Tensor const& sumin,
                 Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                 std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                 int64_t quantForm, bool relu, bool round, bool perTensor) {
  return Calls::afterMac(fout, fin, weight, quantInfo, sumin, psum, padValue, pad, stride, dilation, group, quantForm,
                         relu, round, perTensor);
}

}  // namespace kora::vela::intrinsic
