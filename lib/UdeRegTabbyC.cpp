// The kernel table: every registration, in the published order, and nothing
// else. Kernels of a family keep their place in the published list; a kernel
// appears here only once it is implemented.
#include "Kernel/TableBuilder.h"
#include "kora/Kernel/Registration.h"
#include "kora/Native/Binary.h"
#include "kora/Native/MatMul.h"
#include "kora/Native/Reduce.h"
#include "kora/Lyra/Conv2d.h"
#include "kora/Mira/RoiAlign.h"
#include "kora/Native/Unary.h"
#include "kora/Vela/Conv2d.h"
#include "kora/Quant/Quant.h"

namespace kora {

void buildKernelTable(KernelRegistry& t) {
  using namespace native;
  // native
  registerKernel(t, "native::Abs", &AbsConfig, &Abs);
  registerKernel(t, "native::Acos", &AcosConfig, &Acos);
  registerKernel(t, "native::Acosh", &AcoshConfig, &Acosh);
  registerKernel(t, "native::Add", &AddConfig, &Add);
  registerKernel(t, "native::Asin", &AsinConfig, &Asin);
  registerKernel(t, "native::Asinh", &AsinhConfig, &Asinh);
  registerKernel(t, "native::Atan", &AtanConfig, &Atan);
  registerKernel(t, "native::Atanh", &AtanhConfig, &Atanh);
  registerKernel(t, "native::BitShift", &BitShiftConfig, &BitShift);
  registerKernel(t, "native::BitwiseAnd", &BitwiseAndConfig, &BitwiseAnd);
  registerKernel(t, "native::BitwiseNot", &BitwiseNotConfig, &BitwiseNot);
  registerKernel(t, "native::BitwiseOr", &BitwiseOrConfig, &BitwiseOr);
  registerKernel(t, "native::BitwiseXor", &BitwiseXorConfig, &BitwiseXor);
  registerKernel(t, "native::Cast", &CastConfig, &Cast);
  registerKernel(t, "native::Ceil", &CeilConfig, &Ceil);
  registerKernel(t, "native::Clamp", &ClampConfig, &Clamp);
  registerKernel(t, "native::ClampF", &ClampFConfig, &ClampF);
  registerKernel(t, "native::Cos", &CosConfig, &Cos);
  registerKernel(t, "native::Cosh", &CoshConfig, &Cosh);
  registerKernel(t, "native::CumSum", &CumSumConfig, &CumSum);
  registerKernel(t, "native::Div", &DivConfig, &Div);
  registerKernel(t, "native::Elu", &EluConfig, &Elu);
  registerKernel(t, "native::Equal", &EqualConfig, &Equal);
  registerKernel(t, "native::Erf", &ErfConfig, &Erf);
  registerKernel(t, "native::Exp", &ExpConfig, &Exp);
  registerKernel(t, "native::FakeCast", &FakeCastConfig, &FakeCast);
  registerKernel(t, "native::Floor", &FloorConfig, &Floor);
  registerKernel(t, "native::GELU", &GELUConfig, &GELU);
  registerKernel(t, "native::GELUV2", &GELUV2Config, &GELUV2);
  registerKernel(t, "native::Greater", &GreaterConfig, &Greater);
  registerKernel(t, "native::GreaterEqual", &GreaterEqualConfig, &GreaterEqual);
  registerKernel(t, "native::Hardsigmoid", &HardsigmoidConfig, &Hardsigmoid);
  registerKernel(t, "native::LeakyReLU", &LeakyReLUConfig, &LeakyReLU);
  registerKernel(t, "native::Less", &LessConfig, &Less);
  registerKernel(t, "native::LessEqual", &LessEqualConfig, &LessEqual);
  registerKernel(t, "native::Linear", &LinearConfig, &Linear);
  registerKernel(t, "native::LinearNoBias", &LinearNoBiasConfig, &LinearNoBias);
  registerKernel(t, "native::Log", &LogConfig, &Log);
  registerKernel(t, "native::LogicalAnd", &LogicalAndConfig, &LogicalAnd);
  registerKernel(t, "native::LogicalNot", &LogicalNotConfig, &LogicalNot);
  registerKernel(t, "native::LogicalOr", &LogicalOrConfig, &LogicalOr);
  registerKernel(t, "native::LogicalXor", &LogicalXorConfig, &LogicalXor);
  registerKernel(t, "native::Lut", &LutConfig, &Lut);
  registerKernel(t, "native::MatMul", &MatMulConfig, &MatMul);
  registerKernel(t, "native::Max", &MaxConfig, &Max);
  registerKernel(t, "native::Min", &MinConfig, &Min);
  registerKernel(t, "native::Mish", &MishConfig, &Mish);
  registerKernel(t, "native::Mod", &ModConfig, &Mod);
  registerKernel(t, "native::Mul", &MulConfig, &Mul);
  registerKernel(t, "native::NanToNum", &NanToNumConfig, &NanToNum);
  registerKernel(t, "native::Neg", &NegConfig, &Neg);
  registerKernel(t, "native::NotEqual", &NotEqualConfig, &NotEqual);
  registerKernel(t, "native::PRelu", &PReluConfig, &PRelu);
  registerKernel(t, "native::Pow", &PowConfig, &Pow);
  registerKernel(t, "native::ReLU", &ReLUConfig, &ReLU);
  registerKernel(t, "native::Reciprocal", &ReciprocalConfig, &Reciprocal);
  registerKernel(t, "native::ReduceAll", &ReduceAllConfig, &ReduceAll);
  registerKernel(t, "native::ReduceArgMax", &ReduceArgMaxConfig, &ReduceArgMax);
  registerKernel(t, "native::ReduceArgMin", &ReduceArgMinConfig, &ReduceArgMin);
  registerKernel(t, "native::ReduceLogSum", &ReduceLogSumConfig, &ReduceLogSum);
  registerKernel(t, "native::ReduceMax", &ReduceMaxConfig, &ReduceMax);
  registerKernel(t, "native::ReduceMean", &ReduceMeanConfig, &ReduceMean);
  registerKernel(t, "native::ReduceMin", &ReduceMinConfig, &ReduceMin);
  registerKernel(t, "native::ReduceProd", &ReduceProdConfig, &ReduceProd);
  registerKernel(t, "native::ReduceSum", &ReduceSumConfig, &ReduceSum);
  registerKernel(t, "native::ReduceSumSquare", &ReduceSumSquareConfig, &ReduceSumSquare);
  registerKernel(t, "native::Rem", &RemConfig, &Rem);
  registerKernel(t, "native::Round", &RoundConfig, &Round);
  registerKernel(t, "native::Rsqrt", &RsqrtConfig, &Rsqrt);
  registerKernel(t, "native::Selu", &SeluConfig, &Selu);
  registerKernel(t, "native::Sigmoid", &SigmoidConfig, &Sigmoid);
  registerKernel(t, "native::Sign", &SignConfig, &Sign);
  registerKernel(t, "native::Sin", &SinConfig, &Sin);
  registerKernel(t, "native::Sinh", &SinhConfig, &Sinh);
  registerKernel(t, "native::Softplus", &SoftplusConfig, &Softplus);
  registerKernel(t, "native::Softsign", &SoftsignConfig, &Softsign);
  registerKernel(t, "native::Sqrt", &SqrtConfig, &Sqrt);
  registerKernel(t, "native::Sub", &SubConfig, &Sub);
  registerKernel(t, "native::Swish", &SwishConfig, &Swish);
  registerKernel(t, "native::Tan", &TanConfig, &Tan);
  registerKernel(t, "native::Tanh", &TanhConfig, &Tanh);
  registerKernel(t, "native::Where", &WhereConfig, &Where);
  // quant: the kernels without a Config validate themselves and write into
  // outputs the caller passes with their element type and shape.
  registerKernel(t, "quant::quantize", nullptr, &quant::Quantize);
  registerKernel(t, "quant::dequantize", &quant::DequantizeConfig, &quant::Dequantize);
  registerKernel(t, "quant::qcast", nullptr, &quant::Qcast);
  registerKernel(t, "quant::dcast", &quant::DcastConfig, &quant::Dcast);
  // Callers may stop after the zero points: per tensor, axis -1, full range,
  // 8 bits, signed, half to even (FakeQuant's declared defaults).
  registerKernel(t, "quant::fakequant", nullptr, &quant::FakeQuant,
                 {Argument(false), Argument(-1), Argument(false), Argument(8), Argument(true), Argument(true)});
  registerKernel(t, "quant::dynamic_quantize", &quant::DynamicQuantizeConfig, &quant::DynamicQuantize);
  registerKernel(t, "quant::dynamic_dequantize", &quant::DynamicDequantizeConfig, &quant::DynamicDequantize);
  registerKernel(t, "quant::FuseDynamicDequantize", &quant::FuseDynamicDequantizeConfig, &quant::FuseDynamicDequantize);
  // mira
  {
    // samplingRatio, interpolateMode, canonicalBoxSize, canonicalLevel, boxClipRatio
    const std::vector<Argument> roiAlignDefaults = {1, "bilinear", 224, 4, std::vector<double>{}};
    registerKernel(t, "mira::RoiAlign", &mira::RoiAlignConfig, &mira::RoiAlign, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign1", &mira::RoiAlign1Config, &mira::RoiAlign1, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign2", &mira::RoiAlign2Config, &mira::RoiAlign2, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign3", &mira::RoiAlign3Config, &mira::RoiAlign3, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign4", &mira::RoiAlign4Config, &mira::RoiAlign4, roiAlignDefaults);
    registerKernel(t, "mira::RoiAlign5", &mira::RoiAlign5Config, &mira::RoiAlign5, roiAlignDefaults);
  }
  // vela
  registerKernel(t, "vela::Conv2d", &vela::Conv2dConfig, &vela::Conv2d,
                 {std::vector<int64_t>{1, 1}, 1, 0, false, false, false});
  // lyra
  registerKernel(t, "lyra::Conv2d", &lyra::Conv2dConfig, &lyra::Conv2d,
                 {std::vector<int64_t>{1, 1}, 1, 0, false, false, false});
  registerKernel(t, "lyra::Conv2dFpp", &lyra::Conv2dFppConfig, &lyra::Conv2dFpp,
                 {std::vector<int64_t>{1, 1}, 1, false, false, false});
}

}  // namespace kora
