#include <gtest/gtest.h>

#include "TestUtil.h"

using namespace kora;
using test::raw;
using test::tensorOf;
using test::valuesOf;
using test::words;

namespace {

std::string encoded(const Tensor& t, TensorFileFormat format) {
  std::vector<char> bytes;
  Status s = encodeTensor(bytes, t, format);
  EXPECT_TRUE(s.ok()) << s.message();
  return std::string(bytes.begin(), bytes.end());
}

/// A .npy file with the given preamble version, header text (padded by hand
/// in each case) and data bytes.
std::string npy(const std::string& header, const std::string& data, int major = 1) {
  const auto n = header.size();
  std::string file = std::string("\x93NUMPY", 6) + char(major) + '\0' + char(n & 0xff) + char((n >> 8) & 0xff);
  if (major >= 2) file += std::string{char((n >> 16) & 0xff), char((n >> 24) & 0xff)};
  return file + header + data;
}

Status read(Tensor& t, const std::string& bytes, TensorFileInfo* info = nullptr) {
  return readTensor(t, ArrayRef<char>(bytes.data(), bytes.size()), "in.npy", info);
}

}  // namespace

TEST(TensorFile, WrittenBytesOfBothFormats) {
  // The header numpy writes for a 2x3 float32 array: 118 header bytes, so the
  // data starts at byte 128. Rank 0 is the empty tuple (55 header
  // characters take the data to byte 128 too); the fuzz seeds, which must
  // read back, hold a one-element tuple.
  const std::string dict = "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }";
  EXPECT_EQ(encoded(tensorOf<float>(ElementType::f32, {2, 3}, {1, 2, 3, 4, 5, 6}), TensorFileFormat::Npy),
            std::string("\x93NUMPY\x01\x00\x76\x00", 10) + dict + std::string(58, ' ') + "\n" + raw<float>({1, 2, 3, 4, 5, 6}));
  const std::string scalar = encoded(tensorOf<double>(ElementType::f64, {}, {2.5}), TensorFileFormat::Npy);
  EXPECT_EQ(scalar.substr(10, 55) + scalar.substr(127), "{'descr': '<f8', 'fortran_order': False, 'shape': (), }\n" + raw<double>({2.5}));
  // The serialized form is the tensor's own; any layout is written compactly;
  // bools are 0 or 1 in .npy files and keep their bytes when serialized.
  Tensor base = tensorOf<int32_t>(ElementType::si32, {2, 3}, {1, 2, 3, 4, 5, 6});
  EXPECT_EQ(encoded(base.permute({1, 0}), TensorFileFormat::Serialized),
            words({0xFADE, 0x40104, 2, 3, 2}) + raw<int32_t>({1, 4, 2, 5, 3, 6}));
  Tensor flags = tensorOf<uint8_t>(ElementType::bool8, {4}, {0, 2, 255, 1});
  EXPECT_EQ(encoded(flags, TensorFileFormat::Npy).substr(128), std::string("\0\1\1\1", 4));
  EXPECT_EQ(encoded(flags, TensorFileFormat::Serialized).substr(32), std::string("\0\2\xff\1", 4));
}

TEST(TensorFile, EveryTypeRoundTripsBitForBit) {
  // Element bytes 0x00, 0x01, ... so that any byte moved or lost shows.
  for (ElementType type : kAllElementTypes) {
    for (TensorFileFormat format : {TensorFileFormat::Npy, TensorFileFormat::Serialized}) {
      if (format == TensorFileFormat::Npy && !npyDescriptor(type)) continue;
      Tensor t = Tensor::create(type, {2, 3});
      auto data = t.data<unsigned char>();
      for (size_t i = 0; i < data.size(); ++i) data[i] = type == ElementType::bool8 ? i % 2 : (unsigned char)(i * 7 + 1);
      Tensor back;
      TensorFileInfo info;
      ASSERT_TRUE(read(back, encoded(t, format), &info).ok()) << type;
      EXPECT_EQ(back.type(), t.type());
      EXPECT_EQ(test::compactBytes(back), test::compactBytes(t)) << type;
      EXPECT_EQ(info.format, format);
    }
  }
}

TEST(TensorFile, ReadsTheNpyVariantsOtherWritersProduce) {
  struct Case { const char* what; std::string file; ElementType type; std::vector<long> shape, values; bool fortran; };
  const std::string d6 = raw<int16_t>({0, 1, 2, 3, 4, 5});
  const std::vector<long> v6 = {0, 1, 2, 3, 4, 5};
  const ElementType si16 = ElementType::si16;
  const Case cases[] = {
      {"version 2", npy("{'descr': '<i2', 'fortran_order': False, 'shape': (2, 3), }\n", d6, 2), si16, {2, 3}, v6, false},
      // Column-major data 0..5 of a 2x3 array holds a[0][0], a[1][0], a[0][1], ...
      {"Fortran order", npy("{'descr': '<i2', 'fortran_order': True, 'shape': (2, 3), }\n", d6), si16, {2, 3}, {0, 2, 4, 1, 3, 5}, true},
      {"native byte order", npy("{'descr': '=u2', 'fortran_order': False, 'shape': (6,)}\n", d6), ElementType::ui16, {6}, v6, false},
      {"one-byte type with '<'", npy("{'descr': '<u1', 'fortran_order': False, 'shape': (2,)}\n", "\x05\x06"), ElementType::ui8, {2}, {5, 6}, false},
  };
  for (const Case& c : cases) {
    Tensor t;
    TensorFileInfo info;
    ASSERT_TRUE(read(t, c.file, &info).ok()) << c.what;
    EXPECT_EQ(t.type(), TensorType(c.type, c.shape)) << c.what;
    EXPECT_EQ(info.fortranOrder, c.fortran) << c.what;
    const std::vector<int64_t> values = valuesOf<int64_t>(t.cast(ElementType::si64));
    EXPECT_EQ(std::vector<long>(values.begin(), values.end()), c.values) << c.what;
  }
}

TEST(TensorFile, RefusesBadFilesInOneClearLine) {
  const std::string f4 = "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }\n", data24(24, '\0');
  auto header = [&](const std::string& dict) { return npy(dict + "\n", data24); };
  struct Case { std::string file, message; };
  const Case cases[] = {
      {"hello, world", "neither a .npy file nor a serialized tensor"},
      {std::string("\x93NUMPY\x01", 7), "truncated: 7 bytes end inside the .npy preamble"},
      {npy(f4, data24).replace(6, 1, "\x04"), "unsupported .npy version 4.0"},
      {npy(f4, "").substr(0, 40), "truncated: the .npy header needs 60 bytes, the file holds 30"},
      {npy(f4, data24.substr(4)), "truncated: shape 2x3 of f32 needs 24 bytes of data, the file holds 20"},
      {npy(f4, data24 + "xyz"), "3 bytes follow the data of shape 2x3 of f32"},
      {header("{'descr': '|i2', 'fortran_order': False, 'shape': (2,), }"), "unknown element type '|i2' in the .npy header"},
      {header("{'descr': '>f4', 'fortran_order': False, 'shape': (2,), }"),
       "big-endian data ('>f4') is not supported; save it little-endian"},
      {header("{'descr': '<f4', 'fortran_order': False, 'shape': (6) }"), "corrupt .npy header: 'shape' is not a tuple"},
      {header("{'descr': '<f4', 'fortran_order': False, 'shape': (2, -3) }"), "corrupt header: size -3 of dimension 1 is negative"},
      {header("{'descr': '<f4', 'fortran_order': False, 'shape': (4611686018427387904, 4) }"),
       "corrupt header: shape 4611686018427387904x4 is too large"},
      {header("{'descr': '<f4', 'fortran_order': False, 'shape': (99999999999999999999,) }"), "corrupt .npy header: integer too large"},
      // The serialized form.
      {words({0xFADE, 0x12345, 1, 1}) + "abcd", "unknown element type 0x12345 in the serialized tensor's header"},
      {words({0xFADE, 0x40003, 12}), "corrupt header: rank 12 is above 11"},
      {words({0xFADE, 0x40003, 3, 2}), "truncated: the header of rank 3 needs 48 bytes, the file holds 32"},
  };
  for (const Case& c : cases) {
    Tensor t;
    EXPECT_EQ(read(t, c.file).message(), "in.npy: " + c.message);
    EXPECT_FALSE(t.isValid()) << "nothing is built from a bad file: " << c.message;
  }
}

TEST(TensorFile, FilesAreReadIntoOneBufferAndWrittenAllOrNothing) {
  test::TempDir dir;
  Tensor back;
  TensorFileInfo info;
  ASSERT_TRUE(writeTensorFile(dir / "a.npy", tensorOf<float>(ElementType::f32, {2}, {1.5f, -2.f})).ok());
  ASSERT_TRUE(readTensorFile(back, dir / "a.npy", &info).ok());
  EXPECT_EQ(valuesOf<float>(back), (std::vector<float>{1.5f, -2.f}));
  EXPECT_EQ(back.offset(), 128) << "the tensor views the data behind the header";
  EXPECT_EQ(info.version + std::to_string(info.headerBytes), "1.0128");
  // A header of odd length puts the data off its alignment: it is moved.
  test::writeFile(dir / "odd.npy", npy("{'descr': '<f4', 'fortran_order': False, 'shape': (2,)}", raw<float>({7.f, -8.f})));
  ASSERT_TRUE(readTensorFile(back, dir / "odd.npy").ok());
  EXPECT_EQ(back.offset(), 0);
  EXPECT_EQ(valuesOf<float>(back), (std::vector<float>{7.f, -8.f}));
  // Not a regular file: read until it ends.
  EXPECT_EQ(readTensorFile(back, "/dev/null").message(), "/dev/null: empty file: neither a .npy file nor a serialized tensor");
  EXPECT_EQ(readTensorFile(back, dir / "none.npy").message(), dir / "none.npy" + ": cannot open: No such file or directory");
  const std::string target = dir / "out.npy";
  test::writeFile(target, "previous content");
  // A tensor the format cannot hold: refused before anything is written.
  EXPECT_EQ(writeTensorFile(target, Tensor::create(ElementType::vbf16, {2})).message(),
            target + ": element type vbf16 has no .npy counterpart; write it in the serialized form (a name ending in .kora)");
  EXPECT_EQ(test::readFile(target), "previous content");
  // Replacing an existing file leaves no temporary behind (see the names at the end).
  Tensor t = tensorOf<int8_t>(ElementType::si8, {3}, {1, 2, 3});
  ASSERT_TRUE(writeTensorFile(target, t).ok());
  // The name decides the format written; the content decides the format read.
  EXPECT_EQ(formatForPath("dir.kora/a.npy"), TensorFileFormat::Npy);
  ASSERT_TRUE(writeTensorFile(dir / "t.kora", t).ok());
  EXPECT_EQ(test::readFile(dir / "t.kora").substr(0, 8), words({0xFADE}));
  // Failures name the file; a missing directory leaves nothing behind.
  EXPECT_EQ(writeTensorFile(dir / "no/such/x.npy", t).message(), dir / "no/such/x.npy" + ": cannot write: No such file or directory");
  // Special files are written in place, not replaced through a temporary.
  if (std::filesystem::exists("/dev/full")) {
    EXPECT_EQ(writeTensorFile("/dev/full", t).message(), "/dev/full: cannot write: No space left on device");
  }
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"a.npy", "odd.npy", "out.npy", "t.kora"}));
}
