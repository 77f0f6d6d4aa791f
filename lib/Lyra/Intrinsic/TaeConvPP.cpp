// The second generation's integer post-process over whole tensors (decoded
// or encoded quant info), and the MAC followed by it. The pipeline of one
// element is the first generation's (Vela/Intrinsic/PostProcess.h); only the
// sumin rescale, the field ranges and the quant-info layout differ.
#include "Lyra/Intrinsic/QuantInfo.h"
#include "Vela/Intrinsic/MacEngine.h"
#include "Vela/Intrinsic/PostProcess.h"
#include "kora/Lyra/Intrinsic.h"
#include "kora/Support/Dispatch.h"

namespace kora::lyra::intrinsic {

namespace {

using namespace detail;
using vela::intrinsic::detail::ChannelPlan;
using vela::intrinsic::detail::PostProcessFlags;
using vela::intrinsic::detail::PostProcessStage;

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

PostProcessStage stageOf(const QuantRegisters& q) {
  PostProcessStage s;
  s.bias = q.bias;
  s.preRShift = q.preRShift;
  s.scale = q.scale;
  s.postRShift = q.postRShift;
  return s;
}

/// One element with the second generation's registers; TSumin is void
/// without sumin.
template <class TOut, class TSumin, class Trace>
TOut elementOf(const Coord& at, int32_t psum, const void* sumin, const QuantRegisters& q, PostProcessFlags flags,
               Trace& trace) {
  using vela::intrinsic::detail::postProcessElement;
  if constexpr (std::is_void_v<TSumin>) {
    return postProcessElement<TOut>(at, psum, stageOf(q), vela::intrinsic::detail::NoSumin{}, flags, trace);
  } else {
    const AddSumin<TSumin> add{at, *static_cast<const TSumin*>(sumin), int64_t(q.suminScale), q.suminRShift};
    return postProcessElement<TOut>(at, psum, stageOf(q), add, flags, trace);
  }
}

using PostProcessPlan = ChannelPlan<QuantRegisters>;
using IntegerOutputs = TypeList<int8_t, int16_t, int32_t>;
using IntegerSumins = TypeList<int8_t, int16_t, int32_t>;

/// The quant-info table's word or value j of (table x, channel).
int64_t tableWord(const Tensor& quantInfo, long x, long channel, long j) {
  const long a3[] = {x, channel, j}, a2[] = {channel, j};
  return quantInfo.rank() == 3 ? quantInfo.at<int64_t>(a3) : quantInfo.at<int64_t>(a2);
}

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
  plan.tables = tables;
  plan.channels = K;
  plan.regs.resize(size_t(tables * K));
  for (long x = 0; x < tables; ++x)
    for (long k = 0; k < K; ++k) {
      const long channel = perTensor ? 0 : k;
      int64_t row[kDecodedWidth];
      if (encoded) {
        NoTrace quiet;
        decodeChannel(uint64_t(tableWord(quantInfo, x, channel, 0)), uint64_t(tableWord(quantInfo, x, channel, 1)),
                      sumin32, Coord(), Coord(), row, quiet);
      } else {
        for (long j = 0; j < kDecodedWidth; ++j) row[j] = tableWord(quantInfo, x, channel, j);
        if (sumin32 && !sumin32ShiftValid(row[kSuminRShift]))
          return failure("i32 suminRShift must be one of [8, 0, -8], but got {}", row[kSuminRShift]);
      }
      plan.regs[size_t(x * K + k)] = registersOf(row, sumin32);
    }
  return Status::success();
}

void runPostProcess(Tensor& fout, const Tensor& psum, const Tensor& sumin, const PostProcessPlan& plan,
                    PostProcessFlags flags) {
  using vela::intrinsic::detail::runChannelwise;
  using vela::intrinsic::detail::withConstantFlags;
  dispatch<IntegerOutputs>(fout.elementType(), [&]<class TOut>() {
    auto run = [&]<class TSumin>() {
      withConstantFlags(flags, [&]<bool relu, bool round>() {
        runChannelwise<TOut, TSumin>(
            fout, psum, sumin, plan, [](const Coord& at, const QuantRegisters& q, int32_t value, const void* add,
                                        auto& trace) {
              return elementOf<TOut, TSumin>(at, value, add, q, PostProcessFlags{relu, round}, trace);
            });
      });
    };
    if (!sumin.isValid())
      run.template operator()<void>();
    else
      dispatch<IntegerSumins>(sumin.elementType(), run);
  });
}

Status postProcess(Tensor& fout, const Tensor& psum, const Tensor& quantInfo, const Tensor& sumin, bool encoded,
                   bool relu, bool round, bool perTensor) {
  PostProcessPlan plan;
  KORA_RETURN_IF_ERROR(planPostProcess(fout, psum, quantInfo, sumin, encoded, perTensor, plan));
  if (!psum.isValid()) return Status::failure("post-process operands must hold data");
  runPostProcess(fout, psum, sumin, plan, {relu, round});
  return Status::success();
}

}  // namespace

Status TaeConvPP(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                 bool round, bool perTensor) {
  return postProcess(fout, psum, quantInfo, sumin, false, relu, round, perTensor);
}

Status TaeConvPPEncoded(Tensor& fout, Tensor const& psum, Tensor const& quantInfo, Tensor const& sumin, bool relu,
                        bool round, bool perTensor) {
  return postProcess(fout, psum, quantInfo, sumin, true, relu, round, perTensor);
}

Status TaeConvMacPP(Tensor& fout, Tensor const& fin, Tensor const& weight, Tensor const& quantInfo,
                    Tensor const& sumin, Tensor const& psum, int64_t padValue, std::vector<int64_t> const& pad,
                    std::vector<int64_t> const& stride, std::vector<int64_t> const& dilation, int64_t group,
                    int64_t quantForm, bool relu, bool round, bool perTensor) {
  using namespace vela::intrinsic::detail;
  if (quantForm != 0 && quantForm != 1) return Status::failure("quantForm must be 0 (decoded) or 1 (encoded)");
  // Everything is checked before the MAC runs, against a psum of fout's shape.
  const Tensor psumShape(ElementType::si32, fout.shape());
  MacProblem mac;
  KORA_RETURN_IF_ERROR(prepareConvMac(psumShape, fin, weight, pad, padValue, stride, dilation, group, mac));
  PostProcessPlan plan;
  KORA_RETURN_IF_ERROR(planPostProcess(fout, psumShape, quantInfo, sumin, quantForm == 1, perTensor, plan));
  KORA_RETURN_IF_ERROR(checkInitialPsum(psum, fout));
  const Tensor acc = accumulate(fout.shape(), psum, fin, mac);
  runPostProcess(fout, acc, sumin, plan, {relu, round});
  return Status::success();
}

}  // namespace kora::lyra::intrinsic
