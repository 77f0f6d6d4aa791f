// The look-up transform against hand-worked values: range choice, the
// 17-bit index with its sign bit and clamp, interpolation from either bank.
#include <gtest/gtest.h>

#include "Vela/VelaTestUtil.h"

using namespace kora;
using namespace kora::vela::intrinsic;
using test::tensorOf;
using test::valuesOf;

namespace {

/// table[p] = 4 p^2 - 8000: neighbours differ, and differently everywhere.
std::vector<int16_t> squares() {
  std::vector<int16_t> t;
  for (int p = 0; p < 65; ++p) t.push_back(int16_t(4 * p * p - 8000));
  return t;
}

// Range 0: x <= 0, index = x. Range 1: x <= 200, index = 100 x >> 2.
// Range 2: index = x + 0x1f000 read as 17 bits, i.e. x - 4096.
const std::vector<int64_t> kRanges = {0, 1, 0, 0, 200, 100, 0, 2, 0, 1, 0x1f000, 0};

std::vector<int16_t> lut(const std::vector<int16_t>& x, const std::vector<int64_t>& ranges) {
  Tensor out = Tensor::create(ElementType::si16, {long(x.size())});
  const Status s = ConvLut(out, tensorOf<int16_t>(ElementType::si16, {long(x.size())}, x), squares(), ranges);
  EXPECT_TRUE(s.ok()) << s.message();
  return valuesOf<int16_t>(out);
}

}  // namespace

TEST(ConvLut, HandWorkedValuesAndTheSigned17BitIndex) {
  // One range everywhere: index = (k x + b) >> s.
  auto one = [](int64_t k, int64_t b, int64_t s) { return std::vector<int64_t>{32767, k, b, s, 32767, k, b, s, 0, k, b, s}; };
  struct Case { int16_t x; std::vector<int64_t> ranges; int16_t expected; const char* how; };
  const Case cases[] = {
      {-5, kRanges, -16, "range 0, index -5: select -1, left table[31] is odd: -3904 + (-252 * 5 >> 10) = -3906, >> 8"},
      {200, kRanges, -10, "max is inclusive: range 1, index 5000: -2816 + (292 * 904 >> 10) = -2559, >> 8"},
      {201, kRanges, -19, "range 2, index -3895: select -4, interp 201: -4864 + (228 * 201 >> 10) = -4820, >> 8"},
      // The index is a signed 17-bit number, then clamped to 16 bits.
      {20000, one(2, 0, 0), 32, "40000 fits 17 bits, clamps to 32767: table[63..64] -> 8383 >> 8"},
      {20000, one(4, 0, 0), -32, "80000 sets bit 16: negative, clamps to -32768"},
      {100, one(1, 0x40000 + 0x1f000 * 2, 1), -19, "bits above 16 after the shift are dropped: (0x40000 + 2 * 0x1f000 + 100) >> 1"},
      {100, one(0x10000 + 1, 0x1f000 + (int64_t(1) << 32), 0), -19, "k and b keep their register widths"},
  };
  for (const Case& c : cases) EXPECT_EQ(lut({c.x}, c.ranges)[0], c.expected) << c.how;
}

TEST(ConvLut, TraceOfOneElement) {
  // An si8 input and output here, si16 ones above.
  Tensor out = test::filled(ElementType::si8, {1, 2}, 0x5a);
  test::TraceCapture capture;
  {
    test::ScopedTracePoint point({0, 1});
    ASSERT_TRUE(ConvLut(out, tensorOf<int8_t>(ElementType::si8, {1, 2}, {0, -5}), squares(), kRanges).ok());
  }
  EXPECT_EQ(capture.lines(),
            (std::vector<std::string>{
                "lut trans: ", " value =     -5, max =      0, k =      1, b =      0, s =  0", " index =     -5",
                " index = clamp(-5, -32768, 32767) = res", " range 0", " lut interp: index =    -5  select =  -1",
                " odd = table[31] =  -4156", " even = table[32] =  -3904",
                " result = (diff * (1024 - interp)) >> 10 + even = (  -252 *      5) >> 10 +  -3904) =  -3906",
                " result >>= 8 =    -16"}));
  // A refused call writes nothing.
  const std::string before = test::storageBytes(out);
  EXPECT_EQ(ConvLut(out, Tensor::create(ElementType::si32, {1, 2}), squares(), kRanges).message(),
            "lut input must be si8 or si16");
  EXPECT_EQ(ConvLut(out, Tensor::create(ElementType::si8, {1, 2}), squares(),
                    std::vector<int64_t>(kRanges.begin(), kRanges.end() - 1)).message(),
            "Incorrect lut range size");
  EXPECT_EQ(test::storageBytes(out), before);
}
