#pragma once
// The published kernel names, family by family, in the order hosts list
// them. The table must register a subsequence of this list, in this order.
#include <array>
#include <string_view>

namespace kora::test {

inline constexpr std::array<std::string_view, 257> kPublishedKernels = {
    // native
    "native::Abs", "native::Acos", "native::Acosh", "native::Add", "native::Asin", "native::Asinh",
    "native::Atan", "native::Atanh", "native::AvgPool", "native::BatchNormChannelLast",
    "native::BatchNormChannelLastNoAffine", "native::BevPoolV2", "native::BitShift", "native::BitwiseAnd",
    "native::BitwiseNot", "native::BitwiseOr", "native::BitwiseXor", "native::Cast", "native::Ceil",
    "native::Clamp", "native::ClampF", "native::Concat", "native::Conv", "native::Conv1dTransposeNWC",
    "native::Conv1dTransposeNWCNoBias", "native::Conv2dNHWC", "native::Conv2dNHWCNoBias",
    "native::Conv2dTransposeNHWC", "native::Conv2dTransposeNHWCNoBias", "native::Conv3dNDHWC",
    "native::Conv3dNDHWCNoBias", "native::Conv3dTransposeNDHWC", "native::Conv3dTransposeNDHWCNoBias",
    "native::ConvAdd", "native::ConvAddNoBias", "native::ConvNoBias", "native::Correlation", "native::Cos",
    "native::Cosh", "native::CumSum", "native::DeformConv2dNHWC", "native::DeformConv2dNHWCNoBias",
    "native::Div", "native::DummyOutput", "native::DynamicSlice", "native::Elu", "native::Equal",
    "native::Erf", "native::Exp", "native::FakeCast", "native::Filter", "native::Flip", "native::Floor",
    "native::GELU", "native::GELUV2", "native::GatherElements", "native::GatherND", "native::Greater",
    "native::GreaterEqual", "native::GridSample2dBilinearNHWC", "native::GridSample2dNearestNHWC",
    "native::Hardsigmoid", "native::Identical", "native::IndexSelect", "native::KvCacheUpdate",
    "native::LayerNorm", "native::LayerNormNoAffine", "native::LeakyReLU", "native::Less",
    "native::LessEqual", "native::Linear", "native::LinearNoBias", "native::Log", "native::LogSoftmax",
    "native::LogicalAnd", "native::LogicalNot", "native::LogicalOr", "native::LogicalXor",
    "native::LpNormalize", "native::LpPoolChannelLast", "native::Lut", "native::MaskedSelect",
    "native::MatMul", "native::Max", "native::MaxPool", "native::MaxPoolWithIndicesChannelLast",
    "native::MaxUnpoolChannelLast", "native::Min", "native::Mish", "native::Mod", "native::Mul",
    "native::NanToNum", "native::Neg", "native::NonMaxSuppression", "native::NonZero", "native::NotEqual",
    "native::PRelu", "native::PadBorder", "native::PadConst", "native::PadConstF",
    "native::PointPillarPreProcess", "native::PointPillarScatter", "native::Pow", "native::ReLU",
    "native::Reciprocal", "native::ReduceAll", "native::ReduceArgMax", "native::ReduceArgMin",
    "native::ReduceLogSum", "native::ReduceMax", "native::ReduceMean", "native::ReduceMin",
    "native::ReduceProd", "native::ReduceSum", "native::ReduceSumSquare", "native::Rem", "native::Reshape",
    "native::Resize2dBicubicNHWC", "native::Resize2dBilinearNHWC", "native::Resize2dNearestNHWC",
    "native::RmsNorm", "native::RmsNormNoAffine", "native::RoiResizeNV12", "native::RoiResizeY",
    "native::Roll", "native::Rope", "native::Round", "native::Rsqrt", "native::ScatterElement",
    "native::ScatterMean", "native::ScatterND", "native::Select", "native::Selu", "native::ShuffleFactor",
    "native::Sigmoid", "native::Sign", "native::Sin", "native::Sinh", "native::Slice", "native::SliceScatter",
    "native::Softmax", "native::Softplus", "native::Softsign", "native::Sort", "native::Sqrt",
    "native::Stack", "native::Sub", "native::Swish", "native::Tan", "native::Tanh", "native::Tile",
    "native::TopK", "native::Transpose", "native::View", "native::Warp2dBilinear", "native::Warp2dNearest",
    "native::Where",
    // quant
    "quant::quantize", "quant::dequantize", "quant::qcast", "quant::dcast", "quant::fakequant",
    "quant::dynamic_quantize", "quant::dynamic_dequantize",
    "quant::FuseDynamicDequantize",
    // mira
    "mira::Correlation", "mira::DetectionPostProcessQuantized", "mira::DppQuantized1", "mira::DppQuantized2",
    "mira::DppQuantized3", "mira::DppQuantized4", "mira::DppQuantized5", "mira::FPP1", "mira::FPP2",
    "mira::FPP3", "mira::FPP4", "mira::FPP5", "mira::FilterCopy", "mira::FilterPostProcess",
    "mira::ImagePreProcess", "mira::Nv12ToYuv444Sub128", "mira::Pyramid", "mira::RcnnPostProcess",
    "mira::RlePostProcess", "mira::RoiAlign", "mira::RoiAlign1", "mira::RoiAlign2", "mira::RoiAlign3",
    "mira::RoiAlign4", "mira::RoiAlign5", "mira::RunLengthEncode",
    // vela
    "vela::AvgPool2d", "vela::Binary", "vela::ComplexBinary", "vela::Conv2d", "vela::Lut", "vela::LutSimple",
    "vela::MaxPool2d", "vela::Resize2d", "vela::RunLengthEncode", "vela::Select", "vela::Unary",
    "vela::Warp2d",
    // lyra
    "lyra::AvgPool2d", "lyra::Binary", "lyra::ComplexBinary", "lyra::CompressPacketLane", "lyra::Conv2d",
    "lyra::Conv2dFpp", "lyra::FilterOp", "lyra::Gather2d", "lyra::Gather2dMultiType", "lyra::Lut",
    "lyra::LutSimple", "lyra::MaxPool2d", "lyra::Resize2d", "lyra::Scatter2d", "lyra::Select", "lyra::Unary",
    "lyra::Warp2d", "lyra::Warp2dNearest",
    // lyravpu
    "lyravpu::BinaryEltwiseAdd", "lyravpu::BinaryEltwiseDiv", "lyravpu::BinaryEltwiseMax",
    "lyravpu::BinaryEltwiseMin", "lyravpu::BinaryEltwiseMod", "lyravpu::BinaryEltwiseMul",
    "lyravpu::BinaryEltwisePow", "lyravpu::BinaryEltwiseRem", "lyravpu::BinaryEltwiseSub", "lyravpu::Dequant",
    "lyravpu::Quant", "lyravpu::ReduceArgMaxK", "lyravpu::ReduceMaxK", "lyravpu::ReduceMaxWithPartialSum",
    "lyravpu::ReduceMean", "lyravpu::ReduceMeanWithPartialSum", "lyravpu::ReduceSum",
    "lyravpu::ReduceSumWithPartialSum", "lyravpu::UnaryEltwiseAbs", "lyravpu::UnaryEltwiseAcos",
    "lyravpu::UnaryEltwiseAsin", "lyravpu::UnaryEltwiseAtan", "lyravpu::UnaryEltwiseCast",
    "lyravpu::UnaryEltwiseClip", "lyravpu::UnaryEltwiseCos", "lyravpu::UnaryEltwiseExp",
    "lyravpu::UnaryEltwiseGELU", "lyravpu::UnaryEltwiseLeakyReLU", "lyravpu::UnaryEltwiseLog",
    "lyravpu::UnaryEltwiseNeg", "lyravpu::UnaryEltwiseReciprocal", "lyravpu::UnaryEltwiseRsqrt",
    "lyravpu::UnaryEltwiseSigmoid", "lyravpu::UnaryEltwiseSin", "lyravpu::UnaryEltwiseSoftplus",
    "lyravpu::UnaryEltwiseSqrt",
};

}  // namespace kora::test
