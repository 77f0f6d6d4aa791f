#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

#include "TestUtil.h"

using namespace kora;
using test::tensorOf;

TEST(TensorPrint, ValuesInTheFewestDigitsOfTheirOwnType) {
  struct Case { double value; ElementType type; const char* text; };
  const Case cases[] = {
      {double(float(0.1f)), ElementType::f32, "0.1"},
      {double(float(0.1f)), ElementType::f64, "0.10000000149011612"},
      {double(halfBitsToFloat(0x2e66)), ElementType::f16, "0.1"},  // the f16 nearest 0.1
      {double(bf16BitsToFloat(0x3dcd)), ElementType::vbf16, "0.1"},
      {-0.0, ElementType::f32, "-0."},
      {1.0, ElementType::bool8, "True"},
  };
  for (const Case& c : cases) EXPECT_EQ(formatValue(c.value, c.type), c.text) << c.value;
}

TEST(TensorPrint, NumpyLayout) {
  struct Case { const char* what; Tensor tensor; const char* text; };
  const Tensor base = tensorOf<float>(ElementType::f32, {2, 3}, {-1.5f, 0.f, 2.25f, 3.f, -0.5f, -7.f});
  const Case cases[] = {
      {"decimal points line up", base, "[[-1.5   0.    2.25]\n [ 3.   -0.5  -7.  ]]"},
      {"through strides", base.permute({1, 0}), "[[-1.5   3.  ]\n [ 0.   -0.5 ]\n [ 2.25 -7.  ]]"},
      {"nan and inf within the numbers' width", tensorOf<float>(ElementType::f32, {4}, {NAN, 1.25f, -INFINITY, 100.f}),
       "[   nan   1.25   -inf 100.  ]"},
      {"exponents right-aligned", tensorOf<float>(ElementType::f32, {2}, {1.5e-20f, 2.25f}), "[1.5e-20    2.25]"},
      {"booleans", tensorOf<uint8_t>(ElementType::bool8, {3}, {1, 0, 7}), "[ True False  True]"},
      {"rank 0", tensorOf<int32_t>(ElementType::si32, {}, {-9}), "-9"},
      {"no elements", Tensor::create(ElementType::f32, {2, 0}), "[]"},
      {"rank 3 blocks", tensorOf<int8_t>(ElementType::si8, {2, 1, 2}, {1, 2, 3, 4}), "[[[1 2]]\n\n [[3 4]]]"},
      {"opaque bytes in hexadecimal", tensorOf<uint16_t>(ElementType::opaque16, {2}, {0x3f80, 0x0102}), "[0x3f80 0x0102]"},
  };
  for (const Case& c : cases) EXPECT_EQ(formatValues(c.tensor), c.text) << c.what;
}

TEST(TensorPrint, LargeTensorsAreElidedAndLongRowsWrap) {
  std::vector<int32_t> values(2000);
  std::iota(values.begin(), values.end(), 0);
  Tensor t = tensorOf<int32_t>(ElementType::si32, {40, 50}, values);
  EXPECT_EQ(formatValues(t),
            "[[   0    1    2 ...   47   48   49]\n"
            " [  50   51   52 ...   97   98   99]\n"
            " [ 100  101  102 ...  147  148  149]\n"
            " ...\n"
            " [1850 1851 1852 ... 1897 1898 1899]\n"
            " [1900 1901 1902 ... 1947 1948 1949]\n"
            " [1950 1951 1952 ... 1997 1998 1999]]");
  // Below the threshold (or with none) nothing is elided, and a row longer
  // than the line width continues on the next line, indented under its bracket.
  Tensor row = tensorOf<int32_t>(ElementType::si32, {1, 20}, std::vector<int32_t>(values.begin() + 1000, values.begin() + 1020));
  EXPECT_EQ(formatValues(row),
            "[[1000 1001 1002 1003 1004 1005 1006 1007 1008 1009 1010 1011 1012 1013\n"
            "  1014 1015 1016 1017 1018 1019]]");
  EXPECT_EQ(formatValues(t, PrintOptions{-1, 3, 75}).find("..."), std::string::npos);
}
