#pragma once
// The published kernel names, family by family, in the order hosts list
// them. The table must register a subsequence of this list, in this order.
#include <sstream>
#include <string>
#include <vector>

namespace kora::test {

// Each family's names, separated by spaces, in the published order.
inline const std::pair<const char*, const char*> kPublishedFamilies[] = {
    {"native", "Abs Acos Acosh Add Asin Asinh Atan Atanh AvgPool BatchNormChannelLast BatchNormChannelLastNoAffine "
     "BevPoolV2 BitShift BitwiseAnd BitwiseNot BitwiseOr BitwiseXor Cast Ceil Clamp ClampF Concat Conv "
     "Conv1dTransposeNWC Conv1dTransposeNWCNoBias Conv2dNHWC Conv2dNHWCNoBias Conv2dTransposeNHWC "
     "Conv2dTransposeNHWCNoBias Conv3dNDHWC Conv3dNDHWCNoBias Conv3dTransposeNDHWC Conv3dTransposeNDHWCNoBias "
     "ConvAdd ConvAddNoBias ConvNoBias Correlation Cos Cosh CumSum DeformConv2dNHWC DeformConv2dNHWCNoBias Div "
     "DummyOutput DynamicSlice Elu Equal Erf Exp FakeCast Filter Flip Floor GELU GELUV2 GatherElements GatherND "
     "Greater GreaterEqual GridSample2dBilinearNHWC GridSample2dNearestNHWC Hardsigmoid Identical IndexSelect "
     "KvCacheUpdate LayerNorm LayerNormNoAffine LeakyReLU Less LessEqual Linear LinearNoBias Log LogSoftmax "
     "LogicalAnd LogicalNot LogicalOr LogicalXor LpNormalize LpPoolChannelLast Lut MaskedSelect MatMul Max MaxPool "
     "MaxPoolWithIndicesChannelLast MaxUnpoolChannelLast Min Mish Mod Mul NanToNum Neg NonMaxSuppression NonZero "
     "NotEqual PRelu PadBorder PadConst PadConstF PointPillarPreProcess PointPillarScatter Pow ReLU Reciprocal "
     "ReduceAll ReduceArgMax ReduceArgMin ReduceLogSum ReduceMax ReduceMean ReduceMin ReduceProd ReduceSum "
     "ReduceSumSquare Rem Reshape Resize2dBicubicNHWC Resize2dBilinearNHWC Resize2dNearestNHWC RmsNorm "
     "RmsNormNoAffine RoiResizeNV12 RoiResizeY Roll Rope Round Rsqrt ScatterElement ScatterMean ScatterND Select "
     "Selu ShuffleFactor Sigmoid Sign Sin Sinh Slice SliceScatter Softmax Softplus Softsign Sort Sqrt Stack Sub "
     "Swish Tan Tanh Tile TopK Transpose View Warp2dBilinear Warp2dNearest Where"},
    {"quant", "quantize dequantize qcast dcast fakequant dynamic_quantize dynamic_dequantize FuseDynamicDequantize"},
    {"mira", "Correlation DetectionPostProcessQuantized DppQuantized1 DppQuantized2 DppQuantized3 DppQuantized4 "
     "DppQuantized5 FPP1 FPP2 FPP3 FPP4 FPP5 FilterCopy FilterPostProcess ImagePreProcess Nv12ToYuv444Sub128 "
     "Pyramid RcnnPostProcess RlePostProcess RoiAlign RoiAlign1 RoiAlign2 RoiAlign3 RoiAlign4 RoiAlign5 "
     "RunLengthEncode"},
    {"vela", "AvgPool2d Binary ComplexBinary Conv2d Lut LutSimple MaxPool2d Resize2d RunLengthEncode Select Unary "
     "Warp2d"},
    {"lyra", "AvgPool2d Binary ComplexBinary CompressPacketLane Conv2d Conv2dFpp FilterOp Gather2d "
     "Gather2dMultiType Lut LutSimple MaxPool2d Resize2d Scatter2d Select Unary Warp2d Warp2dNearest"},
    {"lyravpu", "BinaryEltwiseAdd BinaryEltwiseDiv BinaryEltwiseMax BinaryEltwiseMin BinaryEltwiseMod "
     "BinaryEltwiseMul BinaryEltwisePow BinaryEltwiseRem BinaryEltwiseSub Dequant Quant ReduceArgMaxK ReduceMaxK "
     "ReduceMaxWithPartialSum ReduceMean ReduceMeanWithPartialSum ReduceSum ReduceSumWithPartialSum "
     "UnaryEltwiseAbs UnaryEltwiseAcos UnaryEltwiseAsin UnaryEltwiseAtan UnaryEltwiseCast UnaryEltwiseClip "
     "UnaryEltwiseCos UnaryEltwiseExp UnaryEltwiseGELU UnaryEltwiseLeakyReLU UnaryEltwiseLog UnaryEltwiseNeg "
     "UnaryEltwiseReciprocal UnaryEltwiseRsqrt UnaryEltwiseSigmoid UnaryEltwiseSin UnaryEltwiseSoftplus "
     "UnaryEltwiseSqrt"},
};

/// "family::Name" for every published kernel, in order.
inline std::vector<std::string> publishedKernels() {
  std::vector<std::string> names;
  for (auto [family, list] : kPublishedFamilies) {
    std::istringstream in(list);
    for (std::string name; in >> name;) names.push_back(std::string(family) + "::" + name);
  }
  return names;
}

}  // namespace kora::test
