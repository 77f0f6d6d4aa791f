// Block conversions between f16 and f32. The software loops are the
// reference; the F16C loops are chosen at run time where the processor has
// the instructions and give the same bits (see HalfTest's sweeps over every
// f16 pattern and every f32 pattern).
#include <immintrin.h>

#include "kora/Support/Half.h"

namespace kora {

namespace {

__attribute__((target("avx,f16c"))) void widenF16c(const half* in, float* out, long n) {
  const __m128i exponentMask = _mm_set1_epi16(0x7c00);
  long j = 0;
  for (; j + 8 <= n; j += 8) {
    const __m128i h = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + j));
    // The instruction quiets signalling NaNs; infinities and NaNs (exponent
    // all ones) take the software path, which keeps every payload bit.
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(h, exponentMask), exponentMask)) != 0) {
      for (long k = j; k < j + 8; ++k) out[k] = in[k].toFloat();
      continue;
    }
    _mm256_storeu_ps(out + j, _mm256_cvtph_ps(h));
  }
  for (; j < n; ++j) out[j] = in[j].toFloat();
}

__attribute__((target("avx,f16c"))) void narrowF16c(const float* in, half* out, long n) {
  long j = 0;
  for (; j + 8 <= n; j += 8) {
    // Immediate 0: round to nearest even whatever the thread's mode.
    const __m128i h = _mm256_cvtps_ph(_mm256_loadu_ps(in + j), _MM_FROUND_TO_NEAREST_INT);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + j), h);
  }
  for (; j < n; ++j) out[j] = half(in[j]);
}

bool detectF16c() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx") && __builtin_cpu_supports("f16c");
}

const bool kUseF16c = detectF16c();

}  // namespace

bool halfConversionsUseF16c() { return kUseF16c; }

void widenHalves(const half* in, float* out, long n) {
  if (kUseF16c) return widenF16c(in, out, n);
  for (long j = 0; j < n; ++j) out[j] = in[j].toFloat();
}

void narrowToHalves(const float* in, half* out, long n) {
  if (kUseF16c) return narrowF16c(in, out, n);
  for (long j = 0; j < n; ++j) out[j] = half(in[j]);
}

}  // namespace kora
