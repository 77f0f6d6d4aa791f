// The second generation's integer post-process over whole tensors (decoded
// or encoded quant info), and the MAC followed by it. The pipeline of one
// element is the first generation's (Vela/Intrinsic/PostProcess.h); only the
// sumin rescale, the field ranges and the quant-info layout differ.
#include "Lyra/Intrinsic/QuantInfo.h"
#include "Vela/Intrinsic/PostProcess.h"
#include "kora/Lyra/Intrinsic.h"
#include "kora/Support/Dispatch.h"

namespace kora::lyra::intrinsic {

namespace {

using namespace detail;
using vela::intrinsic::detail::ChannelPlan;
using vela::intrinsic::detail::fillPlan;
using vela::intrinsic::detail::IntegerOutputs;
using vela::intrinsic::detail::IntegerPostProcess;
using vela::intrinsic::detail::tableValue;

/// The second generation's sumin rescale (step 3 of the pipeline): an 8 or
/// 16-bit sumin is multiplied by its 15-bit scale and shifted either way; a
/// 32-bit sumin is only shifted (by 8 either way, or not at all).
template <class TSumin>
struct AddSumin {
  const Coord& at;
  TSumin value;
  int64_t scale;
  int rshift;

  template <class Trace>
  int64_t operator()(Trace& trace, int64_t psum64) const {
    int64_t rescaled;
    if constexpr (sizeof(TSumin) == 4) {
      KORA_TRACE(trace, "sumin32 = sumin{} // {}", at, value);
      KORA_TRACE(trace, "suminRShift {}", rshift);
      rescaled = fixed::shiftRightOrLeft(int64_t(value), rshift);  // shift 8, 0 or -8
      if (rshift < 0)
        KORA_TRACE(trace, "rescaledSumin = sumin32 << (-1 * suminRShift) //  {}", rescaled);
      else
        KORA_TRACE(trace, "rescaledSumin = sumin32 >> suminRShift //  {}", rescaled);
    } else {
      rescaled = int64_t(value) * scale;  // below 2^30 in magnitude
      if constexpr (sizeof(TSumin) == 1)
        KORA_TRACE(trace, "rescaledSumin = sumin8{} * suminScale //  {} * {} -> {}", at, int(value), scale, rescaled);
      else
        KORA_TRACE(trace, "rescaledSumin = sumin16{} * suminScale //  {} * {} -> {}", at, value, scale, rescaled);
      KORA_TRACE(trace, "suminRShift {}", rshift);
      rescaled = fixed::shiftRightOrLeft(rescaled, rshift);  // shift in [-17, 22]: below 2^47
      if (rshift < 0)
        KORA_TRACE(trace, "rescaledSumin = rescaledSumin << (-1 * suminRShift) //  {}", rescaled);
      else
        KORA_TRACE(trace, "rescaledSumin = rescaledSumin >> suminRShift //  {}", rescaled);
    }
    psum64 += rescaled;
    KORA_TRACE(trace, "psum64 += rescaledSumin //  {}", psum64);
    return psum64;
  }
};

using PostProcessPlan = ChannelPlan<QuantRegisters>;
using IntegerSumins = TypeList<int8_t, int16_t, int32_t>;

/// All checks of TaeConvPP / TaeConvPPEncoded (psum may be a shape without
/// data: TaeConvMacPP checks before its psum exists), then the registers.
Status planPostProcess(const Tensor& fout, const Tensor& psum, const Tensor& quantInfo, const Tensor& sumin,
                       bool encoded, bool perTensor, PostProcessPlan& plan) {
  if (psum.elementType() != ElementType::si32) return Status::failure("psum must be si32");
  if (!psum.sameShape(fout)) return Status::failure("shape of psum and fout must be identical");
  if (quantInfo.elementType() != ElementType::si64)
    return Status::failure(encoded ? "encoded quantInfo must be si64" : "decoded quantInfo must be si64");
  if (quantInfo.rank() != 2 && quantInfo.rank() != 3) return Status::failure("quantInfo rank must be either 2 or 3");
  const long width = quantInfo.dim(-1);
  if (!encoded && width != kDecodedWidth) return Status::failure("decoded quantInfo axis -1 be 6");
  if (encoded && width != kEncodedWidth) return Status::failure("encode tensor axis -1 must be 2");
  if (psum.rank() == 0) return Status::failure("psum must have a channel axis");
  const long K = psum.dim(-1), rows = quantInfo.dim(-2);
  if (rows != K && !(perTensor && rows == 1))
    return Status::failure("quantInfo axis -2 must be identical to psum axis -1");
  const long batch = psum.rank() >= 2 ? psum.dim(0) : 1;
  const long tables = quantInfo.rank() == 3 ? quantInfo.dim(0) : 1;
  if (tables != 1 && tables != batch) return Status::failure("quantInfo axis 0 must be 1 or psum axis 0");
  if (!typeIn<IntegerOutputs>(fout.elementType())) return Status::failure("fout must be si8, si16 or si32");
  const bool hasSumin = sumin.isValid();
  if (hasSumin && !typeIn<IntegerSumins>(sumin.elementType()))
    return Status::failure("sumin must be 8bit 16bit or 32bit");
  if (hasSumin && !sumin.sameShape(psum)) return Status::failure("shape of psum and sumin must be identical");
  if (!fout.isValid() || !quantInfo.isValid()) return Status::failure("post-process operands must hold data");

  const bool sumin32 = hasSumin && sumin.elementType() == ElementType::si32;
  return fillPlan(plan, tables, K, perTensor, [&](long x, long channel, QuantRegisters& regs) {
    int64_t row[kDecodedWidth];
    if (encoded) {
      NoTrace quiet;
      decodeChannel(uint64_t(tableValue<int64_t>(quantInfo, x, channel, 0)),
                    uint64_t(tableValue<int64_t>(quantInfo, x, channel, 1)), sumin32, Coord(), Coord(), row, quiet);
    } else {
      for (long j = 0; j < kDecodedWidth; ++j) row[j] = tableValue<int64_t>(quantInfo, x, channel, j);
      if (sumin32 && !sumin32ShiftValid(row[kSuminRShift]))
        return failure("i32 suminRShift must be one of [8, 0, -8], but got {}", row[kSuminRShift]);
    }
    regs = registersOf(row, sumin32, kRanges);
    return Status::success();
  });
}

using Calls = IntegerPostProcess<AddSumin, IntegerSumins, &planPostProcess>;

}  // namespace

Status TaeConvPP(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                 bool round, bool perTensor) {
  return Calls::tensors(fout, psum, quantInfo, sumin, false, relu, round, perTensor);
}

Status TaeConvPPEncoded(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                        bool round, bool perTensor) {
  return Calls::tensors(fout, psum, quantInfo, sumin, true, relu, round, perTensor);
}

Status TaeConvMacPP(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                    Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                    std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                    int64_t quantForm, bool relu, bool round, bool perTensor) {
  return Calls::afterMac(fout, fin, weight, quantInfo, sumin, psum, padValue, pad, stride, dilation, group, quantForm,
                         relu, round, perTensor);
}

}  // namespace kora::lyra::intrinsic
