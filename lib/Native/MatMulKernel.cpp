// The packed f32 matrix product. Loop structure, outermost first:
//   columns in blocks of kColumnBlock  (b's block is packed once here)
//   depth in blocks of kDepthBlock     (partial sums are stored and resumed)
//   rows in blocks of kRowBlock        (a's block is packed once here)
//   register tiles of MR x NR outputs  (the innermost loop runs over depth)
// Storing a partial sum in f32 and loading it back changes no bit, so the
// depth blocking keeps every output's sequence of additions intact.
#include "Native/MatMulKernel.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>
#include <type_traits>

#include "kora/Native/MatMul.h"
#include "kora/Support/Dispatch.h"

namespace kora::native {

namespace {

constexpr long kDepthBlock = 256;
constexpr long kRowBlock = 96;       // a multiple of every MR below
constexpr long kColumnBlock = 2048;  // a multiple of every NR below

template <int W>
struct VectorOf {
  typedef float type __attribute__((vector_size(W * sizeof(float))));
};

/// One MR x NR tile: c = (first ? 0 : c) + the kc products of a's panel
/// (kc x MR, one column of MR values per depth) and b's panel (kc x NR).
/// Each lane of each vector is one output; the multiply and the add are
/// separate operations (the library is built without contraction).
template <int MR, int NV, int W>
[[gnu::always_inline]] inline void tile(long kc, const float* a, const float* b, float* c, long ldc, bool first) {
  using V = typename VectorOf<W>::type;
  constexpr int NR = NV * W;
  V acc[MR][NV];
#pragma GCC unroll 16
  for (int i = 0; i < MR; ++i) {
#pragma GCC unroll 4
    for (int v = 0; v < NV; ++v) {
      if (first)
        acc[i][v] = V{};  // +0 in every lane
      else
        std::memcpy(&acc[i][v], c + i * ldc + v * W, sizeof(V));
    }
  }
  for (long p = 0; p < kc; ++p) {
    V bv[NV];
#pragma GCC unroll 4
    for (int v = 0; v < NV; ++v) std::memcpy(&bv[v], b + p * NR + v * W, sizeof(V));
#pragma GCC unroll 16
    for (int i = 0; i < MR; ++i) {
      const float s = a[p * MR + i];
#pragma GCC unroll 4
      for (int v = 0; v < NV; ++v) acc[i][v] = acc[i][v] + s * bv[v];
    }
  }
#pragma GCC unroll 16
  for (int i = 0; i < MR; ++i) {
#pragma GCC unroll 4
    for (int v = 0; v < NV; ++v) std::memcpy(c + i * ldc + v * W, &acc[i][v], sizeof(V));
  }
}

/// The tiles of an mc x nc block of c from packed a (mc rows in panels of
/// MR) and packed b (nc columns in panels of NR). Edge tiles are computed in
/// a local tile and only their valid part is copied.
template <int MR, int NV, int W>
[[gnu::always_inline]] inline void block(long mc, long nc, long kc, const float* a, const float* b, float* c, long ldc,
                                         bool first) {
  constexpr int NR = NV * W;
  for (long j = 0; j < nc; j += NR) {
    const long nr = std::min<long>(NR, nc - j);
    for (long i = 0; i < mc; i += MR) {
      const long mr = std::min<long>(MR, mc - i);
      float* ct = c + i * ldc + j;
      if (mr == MR && nr == NR) {
        tile<MR, NV, W>(kc, a + i * kc, b + j * kc, ct, ldc, first);
        continue;
      }
      alignas(64) float local[MR * NR] = {};
      if (!first)
        for (long r = 0; r < mr; ++r) std::memcpy(local + r * NR, ct + r * ldc, size_t(nr) * sizeof(float));
      tile<MR, NV, W>(kc, a + i * kc, b + j * kc, local, NR, first);
      for (long r = 0; r < mr; ++r) std::memcpy(ct + r * ldc, local + r * NR, size_t(nr) * sizeof(float));
    }
  }
}

using BlockFn = void (*)(long, long, long, const float*, const float*, float*, long, bool);

__attribute__((target("avx512f"))) void blockAvx512(long mc, long nc, long kc, const float* a, const float* b,
                                                    float* c, long ldc, bool first) {
  block<8, 2, 16>(mc, nc, kc, a, b, c, ldc, first);
}

__attribute__((target("avx2"))) void blockAvx2(long mc, long nc, long kc, const float* a, const float* b, float* c,
                                               long ldc, bool first) {
  block<4, 2, 8>(mc, nc, kc, a, b, c, ldc, first);
}

void blockBaseline(long mc, long nc, long kc, const float* a, const float* b, float* c, long ldc, bool first) {
  block<4, 2, 4>(mc, nc, kc, a, b, c, ldc, first);
}

struct Kernel {
  const char* name;
  long mr, nr;
  BlockFn block;
};

// Widest first.
const Kernel kKernels[] = {
    {"avx512f", 8, 32, blockAvx512},
    {"avx2", 4, 16, blockAvx2},
    {"baseline", 4, 8, blockBaseline},
};

bool runsHere(const Kernel& kernel) {
  __builtin_cpu_init();
  const std::string_view name = kernel.name;
  if (name == "avx512f") return __builtin_cpu_supports("avx512f");
  if (name == "avx2") return __builtin_cpu_supports("avx2");
  return true;
}

std::atomic<const Kernel*>& currentKernel() {
  static std::atomic<const Kernel*> kernel{[] {
    for (const Kernel& k : kKernels)
      if (runsHere(k)) return &k;
    return &kKernels[std::size(kKernels) - 1];
  }()};
  return kernel;
}

template <class T>
float loadWidened(const char* p) {
  return widen(*reinterpret_cast<const T*>(p));
}

/// Rows i0 .. i0+mc-1, depths p0 .. p0+kc-1 of a into panels of mr rows:
/// panel[p * mr + i], rows past the end zero.
template <class T>
void packRows(const MatrixView& a, long i0, long mc, long p0, long kc, long mr, float* out) {
  const bool alongRows = std::labs(a.col) <= std::labs(a.row);
  for (long ib = 0; ib < mc; ib += mr) {
    float* panel = out + ib * kc;
    const long rows = std::min(mr, mc - ib);
    const char* origin = a.data + (i0 + ib) * a.row + p0 * a.col;
    if (std::is_same_v<T, half> && a.col == long(sizeof(half))) {
      // Whole rows of halves are widened in blocks (8 at once where the
      // processor can), then spread over the panel.
      float widened[kDepthBlock];
      for (long i = 0; i < rows; ++i) {
        widenHalves(reinterpret_cast<const half*>(origin + i * a.row), widened, kc);
        for (long p = 0; p < kc; ++p) panel[p * mr + i] = widened[p];
      }
    } else if (alongRows) {
      for (long i = 0; i < rows; ++i)
        for (long p = 0; p < kc; ++p) panel[p * mr + i] = loadWidened<T>(origin + i * a.row + p * a.col);
    } else {
      for (long p = 0; p < kc; ++p)
        for (long i = 0; i < rows; ++i) panel[p * mr + i] = loadWidened<T>(origin + i * a.row + p * a.col);
    }
    for (long p = 0; p < kc; ++p)
      for (long i = rows; i < mr; ++i) panel[p * mr + i] = 0.0f;
  }
}

/// Depths p0 .. p0+kc-1, columns j0 .. j0+nc-1 of b into panels of nr
/// columns: panel[p * nr + j], columns past the end zero.
template <class T>
void packColumns(const MatrixView& b, long p0, long kc, long j0, long nc, long nr, float* out) {
  const bool alongRows = std::labs(b.col) <= std::labs(b.row);
  for (long jb = 0; jb < nc; jb += nr) {
    float* panel = out + jb * kc;
    const long cols = std::min(nr, nc - jb);
    const char* origin = b.data + p0 * b.row + (j0 + jb) * b.col;
    if (std::is_same_v<T, half> && b.col == long(sizeof(half))) {
      for (long p = 0; p < kc; ++p)
        widenHalves(reinterpret_cast<const half*>(origin + p * b.row), panel + p * nr, cols);
    } else if (alongRows) {
      for (long p = 0; p < kc; ++p)
        for (long j = 0; j < cols; ++j) panel[p * nr + j] = loadWidened<T>(origin + p * b.row + j * b.col);
    } else {
      for (long j = 0; j < cols; ++j)
        for (long p = 0; p < kc; ++p) panel[p * nr + j] = loadWidened<T>(origin + p * b.row + j * b.col);
    }
    for (long p = 0; p < kc; ++p)
      for (long j = cols; j < nr; ++j) panel[p * nr + j] = 0.0f;
  }
}

}  // namespace

PackedProduct::PackedProduct(ElementType type) : type_(type) {}
PackedProduct::~PackedProduct() = default;

std::vector<std::string> matMulKernels() {
  std::vector<std::string> names;
  for (const Kernel& k : kKernels)
    if (runsHere(k)) names.emplace_back(k.name);
  return names;
}

std::string matMulKernel() { return currentKernel().load()->name; }

bool selectMatMulKernel(std::string_view name) {
  for (const Kernel& k : kKernels) {
    if (k.name != name) continue;
    if (!runsHere(k)) return false;
    currentKernel().store(&k);
    return true;
  }
  return false;
}

void PackedProduct::run(MatrixView a, MatrixView b, long m, long n, long k, float* sums, long ldc) {
  if (m == 0 || n == 0) return;
  if (k == 0) {
    for (long i = 0; i < m; ++i) std::fill(sums + i * ldc, sums + i * ldc + n, 0.0f);
    return;
  }
  const Kernel& kernel = *currentKernel().load();
  const long mr = kernel.mr, nr = kernel.nr;
  const long depth = std::min(k, kDepthBlock);
  const long needA = std::min(m + mr, kRowBlock) * depth;
  const long needB = std::min((n + nr - 1) / nr * nr, kColumnBlock) * depth;
  if (needA > capacityA_) packedA_.reset(new float[size_t(capacityA_ = needA)]);
  if (needB > capacityB_) packedB_.reset(new float[size_t(capacityB_ = needB)]);
  const bool isHalf = type_ == ElementType::f16;
  for (long jc = 0; jc < n; jc += kColumnBlock) {
    const long nc = std::min(kColumnBlock, n - jc);
    for (long pc = 0; pc < k; pc += kDepthBlock) {
      const long kc = std::min(kDepthBlock, k - pc);
      if (isHalf)
        packColumns<half>(b, pc, kc, jc, nc, nr, packedB_.get());
      else
        packColumns<float>(b, pc, kc, jc, nc, nr, packedB_.get());
      for (long ic = 0; ic < m; ic += kRowBlock) {
        const long mc = std::min(kRowBlock, m - ic);
        if (isHalf)
          packRows<half>(a, ic, mc, pc, kc, mr, packedA_.get());
        else
          packRows<float>(a, ic, mc, pc, kc, mr, packedA_.get());
        kernel.block(mc, nc, kc, packedA_.get(), packedB_.get(), sums + ic * ldc + jc, ldc, pc == 0);
      }
    }
  }
}

}  // namespace kora::native
