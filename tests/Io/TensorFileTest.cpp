#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "TestUtil.h"

using namespace kora;
using test::tensorOf;
using test::valuesOf;

namespace {

std::string bytesOf(const std::vector<char>& v) { return std::string(v.begin(), v.end()); }

/// A .npy file with the given preamble version, header text (padded by hand
/// in each case) and data bytes.
std::string npy(const std::string& header, const std::string& data, int major = 1) {
  std::string file = std::string("\x93NUMPY", 6) + char(major) + '\0';
  const auto n = header.size();
  file += char(n & 0xff);
  file += char((n >> 8) & 0xff);
  if (major >= 2) {
    file += char((n >> 16) & 0xff);
    file += char((n >> 24) & 0xff);
  }
  return file + header + data;
}

std::string words(std::initializer_list<uint64_t> list) {
  std::string s;
  for (uint64_t w : list) s.append(reinterpret_cast<const char*>(&w), 8);
  return s;
}

template <class T>
std::string raw(std::initializer_list<T> values) {
  std::string s;
  for (T v : values) s.append(reinterpret_cast<const char*>(&v), sizeof(T));
  return s;
}

Status read(Tensor& t, const std::string& bytes, TensorFileInfo* info = nullptr) {
  return readTensor(t, ArrayRef<char>(bytes.data(), bytes.size()), "in.npy", info);
}

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kora-io-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  std::vector<std::string> names() const {
    std::vector<std::string> list;
    for (const auto& e : std::filesystem::directory_iterator(path_)) list.push_back(e.path().filename().string());
    std::sort(list.begin(), list.end());
    return list;
  }

 private:
  std::filesystem::path path_;
};

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

TEST(TensorFile, NpyHeaderIsNumpysOwnSpelling) {
  // The header numpy writes for a 2x3 float32 array: 118 header bytes, so the
  // data starts at byte 128.
  Tensor t = tensorOf<float>(ElementType::f32, {2, 3}, {1, 2, 3, 4, 5, 6});
  std::vector<char> bytes;
  ASSERT_TRUE(encodeTensor(bytes, t, TensorFileFormat::Npy).ok());
  const std::string expected = std::string("\x93NUMPY\x01\x00\x76\x00", 10) +
                               "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }" + std::string(58, ' ') +
                               "\n" + raw<float>({1, 2, 3, 4, 5, 6});
  EXPECT_EQ(bytesOf(bytes), expected);

  // One dimension is a one-element tuple, rank 0 the empty tuple.
  ASSERT_TRUE(encodeTensor(bytes, tensorOf<int8_t>(ElementType::si8, {3}, {1, -1, 7}), TensorFileFormat::Npy).ok());
  EXPECT_NE(bytesOf(bytes).find("{'descr': '|i1', 'fortran_order': False, 'shape': (3,), }"), std::string::npos);
  ASSERT_TRUE(encodeTensor(bytes, tensorOf<double>(ElementType::f64, {}, {2.5}), TensorFileFormat::Npy).ok());
  EXPECT_NE(bytesOf(bytes).find("'shape': (), }"), std::string::npos);
  EXPECT_EQ(bytes.size(), 128u + 8u) << "55 header characters take the data to the second 64-byte boundary";
}

TEST(TensorFile, SerializedFormIsTheTensorsOwn) {
  Tensor t = tensorOf<int16_t>(ElementType::si16, {2, 3}, {1, -2, 3, -4, 5, -6});
  std::vector<char> bytes;
  ASSERT_TRUE(encodeTensor(bytes, t, TensorFileFormat::Serialized).ok());
  SerializedTensor own = t.serialize();
  EXPECT_EQ(bytesOf(bytes), std::string(own.bytes.get(), own.size));
  EXPECT_EQ(bytes.size(), 52u);  // 5 words and 6 two-byte elements
}

TEST(TensorFile, EveryTypeRoundTripsBitForBit) {
  // Element bytes 0x00, 0x01, ... so that any byte moved or lost shows.
  for (ElementType type : kAllElementTypes) {
    const bool npyType = npyDescriptor(type) != nullptr;
    for (TensorFileFormat format : {TensorFileFormat::Npy, TensorFileFormat::Serialized}) {
      if (format == TensorFileFormat::Npy && !npyType) continue;
      Tensor t = Tensor::create(type, {2, 3});
      auto data = t.data<unsigned char>();
      for (size_t i = 0; i < data.size(); ++i) data[i] = type == ElementType::bool8 ? i % 2 : (unsigned char)(i * 7 + 1);
      std::vector<char> bytes;
      ASSERT_TRUE(encodeTensor(bytes, t, format).ok()) << elementTypeName(type);
      Tensor back;
      TensorFileInfo info;
      ASSERT_TRUE(readTensor(back, bytes, "x", &info).ok()) << elementTypeName(type);
      EXPECT_EQ(back.elementType(), type);
      EXPECT_EQ(back.shape().vec(), (std::vector<long>{2, 3}));
      auto got = back.data<unsigned char>();
      EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin(), data.end())) << elementTypeName(type);
      EXPECT_EQ(info.format, format);
    }
  }
  std::vector<char> bytes;
  EXPECT_EQ(encodeTensor(bytes, Tensor::create(ElementType::vbf16, {1}), TensorFileFormat::Npy).message(),
            "tensor: element type vbf16 has no .npy counterpart; write it in the serialized form (a name ending in .kora)");
}

TEST(TensorFile, WritesAnyLayoutCompactlyAndBoolsAsZeroOrOne) {
  Tensor base = tensorOf<int32_t>(ElementType::si32, {2, 3}, {1, 2, 3, 4, 5, 6});
  std::vector<char> bytes;
  ASSERT_TRUE(encodeTensor(bytes, base.permute({1, 0}), TensorFileFormat::Serialized).ok());
  EXPECT_EQ(bytesOf(bytes), words({0xFADE, 0x40104, 2, 3, 2}) + raw<int32_t>({1, 4, 2, 5, 3, 6}));
  // A broadcast view (stride 0) repeats its element.
  Tensor one = tensorOf<int32_t>(ElementType::si32, {1}, {9});
  Tensor repeated(std::vector<long>{3}, std::vector<long>{0}, ElementType::si32, 0, one.storage());
  ASSERT_TRUE(encodeTensor(bytes, repeated, TensorFileFormat::Serialized).ok());
  EXPECT_EQ(bytesOf(bytes), words({0xFADE, 0x40104, 1, 3}) + raw<int32_t>({9, 9, 9}));

  Tensor flags = tensorOf<uint8_t>(ElementType::bool8, {4}, {0, 2, 255, 1});
  ASSERT_TRUE(encodeTensor(bytes, flags, TensorFileFormat::Npy).ok());
  EXPECT_EQ(bytesOf(bytes).substr(128), std::string("\0\1\1\1", 4));
  ASSERT_TRUE(encodeTensor(bytes, flags, TensorFileFormat::Serialized).ok());
  EXPECT_EQ(bytesOf(bytes).substr(32), std::string("\0\2\xff\1", 4)) << "the serialized form keeps the bytes";
}

TEST(TensorFile, ReadsTheNpyVariantsOtherWritersProduce) {
  struct Case {
    const char* what;
    std::string file;
    ElementType type;
    std::vector<long> shape;
    std::vector<long> values;  // row-major
    bool fortran;
  };
  const std::string d6 = raw<int16_t>({0, 1, 2, 3, 4, 5});
  const Case cases[] = {
      {"version 2", npy("{'descr': '<i2', 'fortran_order': False, 'shape': (2, 3), }\n", d6, 2), ElementType::si16, {2, 3}, {0, 1, 2, 3, 4, 5}, false},
      {"version 3", npy("{'descr': '<i2', 'fortran_order': False, 'shape': (6,), }\n", d6, 3), ElementType::si16, {6}, {0, 1, 2, 3, 4, 5}, false},
      // Column-major data 0..5 of a 2x3 array holds a[0][0], a[1][0], a[0][1], ...
      {"Fortran order", npy("{'descr': '<i2', 'fortran_order': True, 'shape': (2, 3), }\n", d6), ElementType::si16, {2, 3}, {0, 2, 4, 1, 3, 5}, true},
      {"keys in another order, double quotes, no padding",
       npy("{\"shape\": (3, 2), \"fortran_order\": False, \"descr\": \"<i2\"}", d6), ElementType::si16, {3, 2}, {0, 1, 2, 3, 4, 5}, false},
      {"Python 2 long integers", npy("{'descr': '<i2', 'fortran_order': False, 'shape': (2L, 3L), }\n", d6), ElementType::si16, {2, 3}, {0, 1, 2, 3, 4, 5}, false},
      {"native byte order", npy("{'descr': '=i2', 'fortran_order': False, 'shape': (6,)}\n", d6), ElementType::si16, {6}, {0, 1, 2, 3, 4, 5}, false},
      {"no byte order", npy("{'descr': 'u2', 'fortran_order': False, 'shape': (6,)}\n", d6), ElementType::ui16, {6}, {0, 1, 2, 3, 4, 5}, false},
      {"one-byte type with '<'", npy("{'descr': '<u1', 'fortran_order': False, 'shape': (2,)}\n", "\x05\x06"), ElementType::ui8, {2}, {5, 6}, false},
      {"rank 0", npy("{'descr': '<i2', 'fortran_order': False, 'shape': (), }\n", raw<int16_t>({-7})), ElementType::si16, {}, {-7}, false},
      {"no elements", npy("{'descr': '<f4', 'fortran_order': False, 'shape': (0, 3), }\n", ""), ElementType::f32, {0, 3}, {}, false},
      {"tabs and newlines", npy("{'descr':\t'|b1',\n'fortran_order' : False ,'shape':( 2 , ) }  \n", std::string("\x01\x00", 2)), ElementType::bool8, {2}, {1, 0}, false},
  };
  for (const Case& c : cases) {
    Tensor t;
    TensorFileInfo info;
    Status s = read(t, c.file, &info);
    ASSERT_TRUE(s.ok()) << c.what << ": " << s.message();
    EXPECT_EQ(t.elementType(), c.type) << c.what;
    EXPECT_EQ(t.shape().vec(), c.shape) << c.what;
    EXPECT_EQ(info.fortranOrder, c.fortran) << c.what;
    std::vector<long> values;
    Tensor wide = t.cast(ElementType::si64);
    if (!t.isEmpty()) {
      const std::vector<int64_t> wideValues = valuesOf<int64_t>(wide);
      values.assign(wideValues.begin(), wideValues.end());
    }
    EXPECT_EQ(values, c.values) << c.what;
  }
}

TEST(TensorFile, RefusesBadFilesInOneClearLine) {
  const std::string f4 = "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }\n";
  const std::string data24(24, '\0');
  struct Case {
    std::string file;
    std::string message;
  };
  const Case cases[] = {
      {"", "in.npy: empty file: neither a .npy file nor a serialized tensor"},
      {"hello, world", "in.npy: neither a .npy file nor a serialized tensor"},
      {std::string("\x93NUMPY\x01", 7), "in.npy: truncated: 7 bytes end inside the .npy preamble"},
      {npy(f4, data24).substr(0, 11).replace(6, 1, "\x02"), "in.npy: truncated: 11 bytes end inside the .npy preamble"},
      {npy(f4, data24).replace(6, 1, "\x04"), "in.npy: unsupported .npy version 4.0"},
      {npy(f4, data24).replace(7, 1, "\x01"), "in.npy: unsupported .npy version 1.1"},
      {npy(f4, "").substr(0, 40), "in.npy: truncated: the .npy header needs 60 bytes, the file holds 30"},
      {npy(f4, data24.substr(4)), "in.npy: truncated: shape 2x3 of f32 needs 24 bytes of data, the file holds 20"},
      {npy(f4, data24 + "xyz"), "in.npy: 3 bytes follow the data of shape 2x3 of f32"},
      {npy("{'descr': '<c8', 'fortran_order': False, 'shape': (2,), }\n", data24), "in.npy: unknown element type '<c8' in the .npy header"},
      {npy("{'descr': '|f4', 'fortran_order': False, 'shape': (2,), }\n", data24), "in.npy: unknown element type '|f4' in the .npy header"},
      {npy("{'descr': '<V8', 'fortran_order': False, 'shape': (2,), }\n", data24), "in.npy: unknown element type '<V8' in the .npy header"},
      {npy("{'descr': '>f4', 'fortran_order': False, 'shape': (2,), }\n", data24),
       "in.npy: big-endian data ('>f4') is not supported; save it little-endian"},
      {npy("{'descr': [('a', '<f4')], 'fortran_order': False, 'shape': (2,), }\n", data24),
       "in.npy: corrupt .npy header: 'descr' is not a plain type descriptor (structured types are not supported)"},
      {npy("{'descr': '<f4', 'fortran_order': False, }\n", data24), "in.npy: corrupt .npy header: no 'shape' key"},
      {npy("{'descr': '<f4', 'shape': (2,), }\n", data24), "in.npy: corrupt .npy header: no 'fortran_order' key"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (2,), 'extra': 1 }\n", data24),
       "in.npy: corrupt .npy header: unexpected key 'extra'"},
      {npy("{'descr': '<f4', 'descr': '<f4', 'fortran_order': False, 'shape': (2,) }\n", data24),
       "in.npy: corrupt .npy header: key 'descr' appears twice"},
      {npy("{'descr': '<f4', 'fortran_order': 'no', 'shape': (2,) }\n", data24),
       "in.npy: corrupt .npy header: 'fortran_order' is not True or False"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (6) }\n", data24), "in.npy: corrupt .npy header: 'shape' is not a tuple"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (2, -3) }\n", data24),
       "in.npy: corrupt header: size -3 of dimension 1 is negative"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (4611686018427387904, 4) }\n", data24),
       "in.npy: corrupt header: shape 4611686018427387904x4 is too large"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (0, 4611686018427387904, 4) }\n", ""),
       "in.npy: corrupt header: shape 0x4611686018427387904x4 is too large"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (1,1,1,1,1,1,1,1,1,1,1,6) }\n", data24),
       "in.npy: shape has 12 dimensions; a tensor has at most 11"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (99999999999999999999,) }\n", data24),
       "in.npy: corrupt .npy header: integer too large"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (6,) } x\n", data24),
       "in.npy: corrupt .npy header: unexpected text after the dictionary"},
      {npy("{'descr: '<f4', 'fortran_order': False, 'shape': (6,) }\n", data24), "in.npy: corrupt .npy header: expected ':' after 'descr: '"},
      {npy("['descr', '<f4']\n", data24), "in.npy: corrupt .npy header: the header is not a dictionary"},
      {npy("{'descr': '<f4', 'fortran_order': False, 'shape': (6,) }\xc3\xa9\n", data24),
       "in.npy: corrupt .npy header: non-ASCII characters"},
      // The serialized form.
      {words({0xFADE, 0x40003}), "in.npy: truncated: 16 bytes end inside the serialized tensor's header"},
      {words({0xFADE, 0x12345, 1, 1}) + "abcd", "in.npy: unknown element type 0x12345 in the serialized tensor's header"},
      {words({0xFADE, 0xFFFFFFFF, 0}) + "abcd", "in.npy: unknown element type 0xffffffff in the serialized tensor's header"},
      {words({0xFADE, 0x140003, 0}) + "abcd", "in.npy: unknown element type 0x140003 in the serialized tensor's header"},
      {words({0xFADE, 0x40003, 12}), "in.npy: corrupt header: rank 12 is above 11"},
      {words({0xFADE, 0x40003, 3, 2}), "in.npy: truncated: the header of rank 3 needs 48 bytes, the file holds 32"},
      {words({0xFADE, 0x40003, 2, 2, 3}) + data24.substr(1), "in.npy: truncated: shape 2x3 of f32 needs 24 bytes of data, the file holds 23"},
      {words({0xFADE, 0x40003, 1, uint64_t(-2)}), "in.npy: corrupt header: size -2 of dimension 0 is negative"},
  };
  for (const Case& c : cases) {
    Tensor t;
    Status s = read(t, c.file);
    EXPECT_FALSE(s.ok()) << c.message;
    EXPECT_EQ(s.message(), c.message);
    EXPECT_FALSE(t.isValid()) << "nothing is built from a bad file: " << c.message;
  }
}

TEST(TensorFile, ReadsFilesIntoOneBufferAndAlignsOddHeaders) {
  TempDir dir;
  Tensor t = tensorOf<float>(ElementType::f32, {2, 2}, {1.5f, -2.f, 3.f, 0.25f});
  ASSERT_TRUE(writeTensorFile(dir.file("a.npy"), t).ok());
  Tensor back;
  TensorFileInfo info;
  ASSERT_TRUE(readTensorFile(back, dir.file("a.npy"), &info).ok());
  EXPECT_EQ(valuesOf<float>(back), valuesOf<float>(t));
  EXPECT_EQ(back.offset(), 128) << "the tensor views the data behind the header";
  EXPECT_EQ(info.version, "1.0");
  EXPECT_EQ(info.headerBytes, 128u);

  // A header of odd length puts the data off its alignment: it is moved.
  writeFile(dir.file("odd.npy"), npy("{'descr': '<f4', 'fortran_order': False, 'shape': (2,)}", raw<float>({7.f, -8.f})));
  ASSERT_TRUE(readTensorFile(back, dir.file("odd.npy")).ok());
  EXPECT_EQ(back.offset(), 0);
  EXPECT_EQ(valuesOf<float>(back), (std::vector<float>{7.f, -8.f}));

  // Not a regular file: read until it ends.
  Tensor piped;
  EXPECT_EQ(readTensorFile(piped, "/dev/null").message(), "/dev/null: empty file: neither a .npy file nor a serialized tensor");
  EXPECT_EQ(readTensorFile(piped, dir.file("none.npy")).message(), dir.file("none.npy") + ": cannot open: No such file or directory");
  EXPECT_EQ(readTensorFile(piped, dir.file("")).message(), dir.file("") + ": cannot read: Is a directory");
}

TEST(TensorFile, WritingIsAllOrNothing) {
  TempDir dir;
  const std::string target = dir.file("out.npy");
  writeFile(target, "previous content");
  // A tensor the format cannot hold: refused before anything is written.
  Status s = writeTensorFile(target, Tensor::create(ElementType::vbf16, {2}));
  EXPECT_EQ(s.message(), target + ": element type vbf16 has no .npy counterpart; write it in the serialized form (a name ending in .kora)");
  EXPECT_EQ(readFile(target), "previous content");
  EXPECT_EQ(writeTensorFile(target, Tensor()).message(), target + ": the tensor holds no data");

  // Replacing an existing file leaves no temporary behind.
  Tensor t = tensorOf<int8_t>(ElementType::si8, {3}, {1, 2, 3});
  ASSERT_TRUE(writeTensorFile(target, t).ok());
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"out.npy"}));
  Tensor back;
  ASSERT_TRUE(readTensorFile(back, target).ok());
  EXPECT_EQ(valuesOf<int8_t>(back), (std::vector<int8_t>{1, 2, 3}));

  // The name decides the format written; the content decides the format read.
  ASSERT_TRUE(writeTensorFile(dir.file("t.kora"), t).ok());
  EXPECT_EQ(readFile(dir.file("t.kora")).substr(0, 8), words({0xFADE}));
  ASSERT_TRUE(writeTensorFile(dir.file("t.bin"), t, TensorFileFormat::Serialized).ok());
  TensorFileInfo info;
  ASSERT_TRUE(readTensorFile(back, dir.file("t.bin"), &info).ok());
  EXPECT_EQ(info.format, TensorFileFormat::Serialized);

  // A symbolic link is written through.
  std::filesystem::create_symlink(target, dir.file("link.npy"));
  ASSERT_TRUE(writeTensorFile(dir.file("link.npy"), tensorOf<int8_t>(ElementType::si8, {1}, {9})).ok());
  EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.npy")));
  ASSERT_TRUE(readTensorFile(back, target).ok());
  EXPECT_EQ(valuesOf<int8_t>(back), (std::vector<int8_t>{9}));

  // Failures name the file; a missing directory leaves nothing behind.
  EXPECT_EQ(writeTensorFile(dir.file("no/such/x.npy"), t).message(), dir.file("no/such/x.npy") + ": cannot write: No such file or directory");
  EXPECT_EQ(writeTensorFile(dir.file(""), t).message(), dir.file("") + ": cannot write: Is a directory");
  // Special files are written in place (the null device stays what it is).
  EXPECT_TRUE(writeTensorFile("/dev/null", t).ok());
  struct stat st {};
  ASSERT_EQ(::stat("/dev/null", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
  if (std::filesystem::exists("/dev/full")) {
    EXPECT_EQ(writeTensorFile("/dev/full", t).message(), "/dev/full: cannot write: No space left on device");
  }
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"link.npy", "out.npy", "t.bin", "t.kora"}));
}

TEST(TensorFile, FormatFollowsTheName) {
  EXPECT_EQ(formatForPath("a.kora"), TensorFileFormat::Serialized);
  EXPECT_EQ(formatForPath("dir.kora/a.npy"), TensorFileFormat::Npy);
  EXPECT_EQ(formatForPath("a.bin"), TensorFileFormat::Npy);
  EXPECT_EQ(formatForPath("kora"), TensorFileFormat::Npy);
}
