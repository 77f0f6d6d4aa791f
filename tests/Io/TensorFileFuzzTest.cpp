// Seeded random mutations of valid .npy files and serialized tensors: every
// mutant must either read as a consistent tensor or be refused with one line
// naming the file; none may crash (the sanitizer build runs this too).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "TestUtil.h"

using namespace kora;

namespace {

std::vector<std::string> seeds() {
  std::vector<std::string> list;
  auto add = [&](const Tensor& t, TensorFileFormat format) {
    std::vector<char> bytes;
    if (!encodeTensor(bytes, t, format).ok()) throw std::logic_error("cannot encode a seed");
    list.emplace_back(bytes.begin(), bytes.end());
  };
  add(test::tensorOf<float>(ElementType::f32, {2, 3}, {1, -2, 3.5f, 0, 1e30f, -1e-30f}), TensorFileFormat::Npy);
  add(test::tensorOf<int16_t>(ElementType::si16, {3, 1, 2}, {1, 2, 3, 4, 5, 6}), TensorFileFormat::Npy);
  add(test::tensorOf<uint8_t>(ElementType::bool8, {4}, {0, 1, 1, 0}), TensorFileFormat::Npy);
  add(test::tensorOf<double>(ElementType::f64, {}, {2.5}), TensorFileFormat::Npy);
  add(Tensor::create(ElementType::ui64, {0, 4}), TensorFileFormat::Npy);
  add(test::tensorOf<int32_t>(ElementType::si32, {3, 2}, {1, 2, 3, 4, 5, 6}), TensorFileFormat::Serialized);
  add(test::tensorOf<uint16_t>(ElementType::vbf16, {2}, {0x3f80, 0xc000}), TensorFileFormat::Serialized);
  add(test::tensorOf<uint16_t>(ElementType::f16, {}, {0x3c00}), TensorFileFormat::Serialized);
  // Hand-written variants the writer never produces.
  auto npy = [](int major, const std::string& header, const std::string& data) {
    std::string file = std::string("\x93NUMPY", 6) + char(major) + '\0' + char(header.size()) + '\0';
    if (major >= 2) file += std::string(2, '\0');
    return file + header + data;
  };
  list.push_back(npy(2, "{'descr': '<i2', 'fortran_order': True, 'shape': (2, 2)}\n", std::string("\1\0\2\0\3\0\4\0", 8)));
  list.push_back(npy(1, "{'descr':'<f4','fortran_order':False,'shape':(1,)}", std::string("\0\0\x80\x3f", 4)));
  return list;
}

class Mutator {
 public:
  explicit Mutator(uint64_t seed) : rng_(seed) {}

  std::string mutate(std::string s) {
    const int rounds = 1 + int(pick(4));
    for (int r = 0; r < rounds; ++r) {
      switch (pick(8)) {
        case 0:  // flip one bit
          if (!s.empty()) s[pick(s.size())] ^= char(1 << pick(8));
          break;
        case 1: {  // an interesting byte
          static const char interesting[] = "\0\1\x7f\x80\xff(),'\"{}:0123456789L \n-<>|x";
          if (!s.empty()) s[pick(s.size())] = interesting[pick(sizeof(interesting) - 1)];
          break;
        }
        case 2:  // truncate
          s.resize(pick(s.size() + 1));
          break;
        case 3: {  // insert random bytes
          std::string bytes(1 + pick(8), '\0');
          for (char& c : bytes) c = char(pick(256));
          s.insert(pick(s.size() + 1), bytes);
          break;
        }
        case 4: {  // delete a range
          if (s.empty()) break;
          const std::size_t at = pick(s.size());
          s.erase(at, 1 + pick(std::min<std::size_t>(16, s.size() - at)));
          break;
        }
        case 5: {  // a size field: .npy header length or a serialized header word
          const std::size_t at = s.size() > 16 && s[0] != '\x93' ? 8 * (1 + pick(s.size() / 8 < 4 ? 1 : 3)) : 8;
          const uint64_t values[] = {0, 1, 11, 12, 0x7fffffffffffffff, 0xffffffffffffffff, 1ull << 32, 65535, pick(1 << 20)};
          const uint64_t v = values[pick(std::size(values))];
          for (std::size_t i = 0; i < 8 && at + i < s.size(); ++i) s[at + i] = char((v >> (8 * i)) & 0xff);
          break;
        }
        case 6: {  // a digit becomes a long number
          const std::size_t at = s.find_first_of("0123456789", pick(s.size() + 1));
          if (at != std::string::npos) s.replace(at, 1, std::to_string(rng_()));
          break;
        }
        default: {  // duplicate a chunk
          if (s.empty()) break;
          const std::size_t at = pick(s.size());
          s.insert(pick(s.size() + 1), s.substr(at, 1 + pick(32)));
          break;
        }
      }
    }
    return s;
  }

 private:
  std::size_t pick(std::size_t n) { return n == 0 ? 0 : std::size_t(rng_() % n); }
  std::mt19937_64 rng_;
};

/// What every successfully read tensor must satisfy.
void checkConsistent(const Tensor& t, const std::string& bytes) {
  ASSERT_TRUE(t.isValid());
  ASSERT_LE(t.rank(), kMaxRank);
  const unsigned long payload = t.isEmpty() ? 0 : static_cast<unsigned long>(t.numElements()) * byteWidth(t.elementType());
  ASSERT_EQ(t.byteSpan(), payload);
  ASSERT_LE(payload, bytes.size());
  (void)formatValues(t, PrintOptions{50, 3, 75});
  // Whatever was read writes back and reads again to the same elements.
  std::vector<char> again;
  ASSERT_TRUE(encodeTensor(again, t, TensorFileFormat::Serialized).ok());
  Tensor back;
  ASSERT_TRUE(readTensor(back, again, "again").ok());
  bool identical = false;
  ASSERT_TRUE(AllIdentical(identical, t, back).ok());
  ASSERT_TRUE(identical);
}

}  // namespace

TEST(TensorFileFuzz, MutatedFilesReadConsistentlyOrFailInOneLine) {
  const std::vector<std::string> corpus = seeds();
  for (const std::string& seed : corpus) {
    Tensor t;
    ASSERT_TRUE(readTensor(t, ArrayRef<char>(seed.data(), seed.size()), "seed").ok());
  }
  Mutator mutator(20240611);
  const std::filesystem::path file = std::filesystem::temp_directory_path() / fmt::format("kora-fuzz-{}.bin", ::getpid());
  long accepted = 0, refused = 0;
  constexpr int kIterations = 150000;
  for (int i = 0; i < kIterations; ++i) {
    const std::string bytes = mutator.mutate(corpus[std::size_t(i) % corpus.size()]);
    Tensor t;
    Status s;
    // Most mutants are read from memory; some go through a real file, the
    // way the command line reads them.
    if (i % 97 == 0) {
      // Removed first: truncating a file makes some file systems flush it.
      std::filesystem::remove(file);
      std::ofstream(file, std::ios::binary) << bytes;
      s = readTensorFile(t, file.string());
    } else {
      s = readTensor(t, ArrayRef<char>(bytes.data(), bytes.size()), "fuzz");
    }
    if (s.ok()) {
      ++accepted;
      ASSERT_NO_FATAL_FAILURE(checkConsistent(t, bytes)) << "mutant " << i;
    } else {
      ++refused;
      const std::string& m = s.message();
      ASSERT_TRUE(m.rfind("fuzz: ", 0) == 0 || m.rfind(file.string() + ": ", 0) == 0) << m;
      ASSERT_EQ(m.find('\n'), std::string::npos) << m;
      ASSERT_FALSE(t.isValid());
    }
  }
  std::filesystem::remove(file);
  // Both outcomes must be common, or the mutations explore nothing.
  EXPECT_GT(accepted, kIterations / 50);
  EXPECT_GT(refused, kIterations / 2);
}
