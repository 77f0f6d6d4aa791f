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
  const Tensor tensors[] = {test::tensorOf<float>(ElementType::f32, {2, 3}, {1, -2, 3.5f, 0, 1e30f, -1e-30f}),
                            test::tensorOf<uint8_t>(ElementType::bool8, {4}, {0, 1, 1, 0}),
                            test::tensorOf<double>(ElementType::f64, {}, {2.5}), Tensor::create(ElementType::ui64, {0, 4})};
  for (const Tensor& t : tensors)
    for (TensorFileFormat format : {TensorFileFormat::Npy, TensorFileFormat::Serialized}) {
      std::vector<char> bytes;
      if (!encodeTensor(bytes, t, format).ok()) throw std::logic_error("cannot encode a seed");
      list.emplace_back(bytes.begin(), bytes.end());
    }
  return list;
}

// One to four rounds of: flip a bit, write an interesting byte, truncate,
// delete a range, overwrite a size field, turn a digit into a long number,
// duplicate a chunk.
std::string mutate(std::string s, std::mt19937_64& rng) {
  auto pick = [&](std::size_t n) { return n == 0 ? 0 : std::size_t(rng() % n); };
  static const char interesting[] = "\0\1\x7f\x80\xff(),'\"{}:0123456789L \n-<>|x";
  const uint64_t sizes[] = {0, 1, 11, 12, 0x7fffffffffffffff, 0xffffffffffffffff, 1ull << 32, 65535, rng() % (1 << 20)};
  for (int round = int(pick(4)); round >= 0; --round) {
    const std::size_t at = pick(s.size()), n = s.size();
    switch (pick(7)) {
      case 0: if (n) s[at] ^= char(1 << pick(8)); break;
      case 1: if (n) s[at] = interesting[pick(sizeof(interesting) - 1)]; break;
      case 2: s.resize(pick(n + 1)); break;
      case 3: if (n) s.erase(at, 1 + pick(std::min<std::size_t>(16, n - at))); break;
      case 4: {  // the .npy header length, or a serialized header word
        const std::size_t field = n > 16 && s[0] != '\x93' ? 8 * (1 + pick(n / 8 < 4 ? 1 : 3)) : 8;
        const uint64_t v = sizes[pick(std::size(sizes))];
        for (std::size_t i = 0; i < 8 && field + i < n; ++i) s[field + i] = char((v >> (8 * i)) & 0xff);
        break;
      }
      case 5: if (std::size_t d = s.find_first_of("0123456789", at); d != std::string::npos) s.replace(d, 1, std::to_string(rng())); break;
      default: if (n) s.insert(pick(n + 1), s.substr(at, 1 + pick(32)));
    }
  }
  return s;
}

}  // namespace

TEST(TensorFileFuzz, MutatedFilesReadConsistentlyOrFailInOneLine) {
  const std::vector<std::string> corpus = seeds();
  std::mt19937_64 rng(20240611);
  const std::string file = (std::filesystem::temp_directory_path() / fmt::format("kora-fuzz-{}.bin", ::getpid())).string();
  long accepted = 0, refused = 0;
  constexpr int kIterations = 150000;
  for (int i = 0; i < kIterations; ++i) {
    const std::string bytes = i < long(corpus.size()) ? corpus[i] : mutate(corpus[std::size_t(i) % corpus.size()], rng);
    Tensor t;
    Status s;
    if (i % 97 == 0) {  // some go through a real file, the way the command line reads them
      std::filesystem::remove(file);  // truncating a file makes some file systems flush it
      std::ofstream(file, std::ios::binary) << bytes;
      s = readTensorFile(t, file);
    } else {
      s = readTensor(t, ArrayRef<char>(bytes.data(), bytes.size()), "fuzz");
    }
    ASSERT_TRUE(s.ok() || i >= long(corpus.size())) << "seed " << i << ": " << s.message();
    if (!s.ok()) {
      ++refused;
      const std::string& m = s.message();
      ASSERT_TRUE((m.rfind("fuzz: ", 0) == 0 || m.rfind(file + ": ", 0) == 0) && m.find('\n') == std::string::npos && !t.isValid()) << m;
      continue;
    }
    // What was read is consistent, prints, and writes back to the same elements.
    ++accepted;
    ASSERT_TRUE(t.isValid() && t.rank() <= kMaxRank) << "mutant " << i;
    const unsigned long payload = t.isEmpty() ? 0 : static_cast<unsigned long>(t.numElements()) * byteWidth(t.elementType());
    ASSERT_TRUE(t.byteSpan() == payload && payload <= bytes.size()) << "mutant " << i;
    (void)formatValues(t, PrintOptions{50, 3, 75});
    std::vector<char> again;
    ASSERT_TRUE(encodeTensor(again, t, TensorFileFormat::Serialized).ok());
    Tensor back;
    bool identical = false;
    ASSERT_TRUE(readTensor(back, again, "again").ok() && AllIdentical(identical, t, back).ok() && identical) << "mutant " << i;
  }
  std::filesystem::remove(file);
  // Both outcomes must be common, or the mutations explore nothing.
  EXPECT_GT(accepted, kIterations / 50);
  EXPECT_GT(refused, kIterations / 2);
}
