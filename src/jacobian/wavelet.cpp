// Daubechies four-coefficient wavelet transform of Jacobian rows, plain and
// vectorised. Both evaluate every sum in the same order in 64-bit
// arithmetic (no fused multiply-add), so they agree bit for bit. The pairs
// of a level run in parallel when the row is long enough to pay for it; the
// pair that wraps round the row's end is done after them.
#include "jacobian/wavelet.h"

#include <algorithm>
#include <cstring>
#include <immintrin.h>

namespace {

constexpr double c0 = 0.4829629131445341, c1 = 0.8365163037378077, c2 = 0.2241438680420134,
                 c3 = -0.12940952255126034;

// Pairs of a level below this run on the calling thread only.
constexpr int64_t parallel_pairs = 8192;

// Forward level: smooth half to w[i], detail half to w[i + n/2].
inline void Forward_Pair(const float *a, int64_t i, int64_t j0, int64_t j1, int64_t j2, int64_t j3,
                         int64_t nh, float *w) {
  const double x0 = a[j0], x1 = a[j1], x2 = a[j2], x3 = a[j3];
  w[i] = static_cast<float>(c0 * x0 + c1 * x1 + c2 * x2 + c3 * x3);
  w[i + nh] = static_cast<float>(c3 * x0 - c2 * x1 + c1 * x2 - c0 * x3);
}

// Inverse level: the pair of values at w[j], w[j + 1].
inline void Inverse_Pair(const float *a, int64_t k0, int64_t k1, int64_t k2, int64_t k3, int64_t j,
                         float *w) {
  const double x0 = a[k0], x1 = a[k1], x2 = a[k2], x3 = a[k3];
  w[j] = static_cast<float>(c2 * x0 + c1 * x1 + c0 * x2 + c3 * x3);
  w[j + 1] = static_cast<float>(c3 * x0 - c0 * x1 + c1 * x2 - c2 * x3);
}

void Forward_Plain(const float *a, int64_t n, float *w, int64_t from) {
  const int64_t nh = n / 2;
#pragma omp parallel for schedule(static) if (nh > parallel_pairs)
  for (int64_t i = from; i < nh - 1; i++)
    Forward_Pair(a, i, 2 * i, 2 * i + 1, 2 * i + 2, 2 * i + 3, nh, w);
}

void Inverse_Plain(const float *a, int64_t n, float *w, int64_t from) {
  const int64_t nh = n / 2;
#pragma omp parallel for schedule(static) if (nh > parallel_pairs)
  for (int64_t i = from; i < nh - 1; i++)
    Inverse_Pair(a, i, i + nh, i + 1, i + nh + 1, 2 * i + 2, w);
}

// The vectorised levels: four pairs at a time in 256-bit registers of
// doubles, the same products and sums in the same order; they return the
// first pair left for the plain loop.
__attribute__((target("avx"))) int64_t Forward_Vector(const float *a, int64_t n, float *w) {
  const int64_t nh = n / 2, blocks = (nh - 1) / 4;
  const __m256d k0 = _mm256_set1_pd(c0), k1 = _mm256_set1_pd(c1), k2 = _mm256_set1_pd(c2),
                k3 = _mm256_set1_pd(c3);
#pragma omp parallel for schedule(static) if (nh > parallel_pairs)
  for (int64_t b = 0; b < blocks; b++) {
    const int64_t i = 4 * b;
    const float *p = a + 2 * i;
    const __m128 v0 = _mm_loadu_ps(p), v1 = _mm_loadu_ps(p + 4);
    const __m128 u0 = _mm_loadu_ps(p + 2), u1 = _mm_loadu_ps(p + 6);
    const __m256d x0 = _mm256_cvtps_pd(_mm_shuffle_ps(v0, v1, _MM_SHUFFLE(2, 0, 2, 0)));
    const __m256d x1 = _mm256_cvtps_pd(_mm_shuffle_ps(v0, v1, _MM_SHUFFLE(3, 1, 3, 1)));
    const __m256d x2 = _mm256_cvtps_pd(_mm_shuffle_ps(u0, u1, _MM_SHUFFLE(2, 0, 2, 0)));
    const __m256d x3 = _mm256_cvtps_pd(_mm_shuffle_ps(u0, u1, _MM_SHUFFLE(3, 1, 3, 1)));
    __m256d s = _mm256_mul_pd(k0, x0);
    s = _mm256_add_pd(s, _mm256_mul_pd(k1, x1));
    s = _mm256_add_pd(s, _mm256_mul_pd(k2, x2));
    s = _mm256_add_pd(s, _mm256_mul_pd(k3, x3));
    __m256d d = _mm256_mul_pd(k3, x0);
    d = _mm256_sub_pd(d, _mm256_mul_pd(k2, x1));
    d = _mm256_add_pd(d, _mm256_mul_pd(k1, x2));
    d = _mm256_sub_pd(d, _mm256_mul_pd(k0, x3));
    _mm_storeu_ps(w + i, _mm256_cvtpd_ps(s));
    _mm_storeu_ps(w + i + nh, _mm256_cvtpd_ps(d));
  }
  return 4 * blocks;
}

__attribute__((target("avx"))) int64_t Inverse_Vector(const float *a, int64_t n, float *w) {
  const int64_t nh = n / 2, blocks = (nh - 1) / 4;
  const __m256d k0 = _mm256_set1_pd(c0), k1 = _mm256_set1_pd(c1), k2 = _mm256_set1_pd(c2),
                k3 = _mm256_set1_pd(c3);
#pragma omp parallel for schedule(static) if (nh > parallel_pairs)
  for (int64_t b = 0; b < blocks; b++) {
    const int64_t i = 4 * b;
    const __m256d x0 = _mm256_cvtps_pd(_mm_loadu_ps(a + i));
    const __m256d x1 = _mm256_cvtps_pd(_mm_loadu_ps(a + i + nh));
    const __m256d x2 = _mm256_cvtps_pd(_mm_loadu_ps(a + i + 1));
    const __m256d x3 = _mm256_cvtps_pd(_mm_loadu_ps(a + i + nh + 1));
    __m256d s = _mm256_mul_pd(k2, x0);
    s = _mm256_add_pd(s, _mm256_mul_pd(k1, x1));
    s = _mm256_add_pd(s, _mm256_mul_pd(k0, x2));
    s = _mm256_add_pd(s, _mm256_mul_pd(k3, x3));
    __m256d d = _mm256_mul_pd(k3, x0);
    d = _mm256_sub_pd(d, _mm256_mul_pd(k0, x1));
    d = _mm256_add_pd(d, _mm256_mul_pd(k1, x2));
    d = _mm256_sub_pd(d, _mm256_mul_pd(k2, x3));
    const __m128 sf = _mm256_cvtpd_ps(s), df = _mm256_cvtpd_ps(d);
    _mm_storeu_ps(w + 2 * i + 2, _mm_unpacklo_ps(sf, df));
    _mm_storeu_ps(w + 2 * i + 6, _mm_unpackhi_ps(sf, df));
  }
  return 4 * blocks;
}

// One level of length n: the body, then the wrapping pair.
void Level(float *a, int64_t n, int direction, float *w, bool vector) {
  if (n < 4)
    return;
  const int64_t nh = n / 2;
  if (direction == 0) {
    const int64_t from = vector ? Forward_Vector(a, n, w) : 0;
    Forward_Plain(a, n, w, from);
    Forward_Pair(a, nh - 1, n - 2, n - 1, 0, 1, nh, w);
  } else {
    const int64_t from = vector ? Inverse_Vector(a, n, w) : 0;
    Inverse_Plain(a, n, w, from);
    Inverse_Pair(a, nh - 1, n - 1, 0, nh, 0, w);
  }
  std::memcpy(a, w, sizeof(float) * n);
}

} // namespace

int64_t Wavelet_Length(int64_t n) {
  int64_t n2 = 1;
  while (n2 < n)
    n2 *= 2;
  return n2;
}

bool Wavelet_Vector_Available() {
  static const bool avx = __builtin_cpu_supports("avx");
  return avx;
}

const char *Wavelet_Impl_Word(int impl) {
  return impl == WAVELET_VECTOR ? " Asm" : " C++";
}

void Wavelet_Transform(float *row, int64_t n2, int direction, float *work, int impl) {
  if (n2 < 4)
    return;
  const bool vector = impl == WAVELET_VECTOR && Wavelet_Vector_Available();
  if (direction == 0)
    for (int64_t n = n2; n >= 4; n /= 2)
      Level(row, n, 0, work, vector);
  else
    for (int64_t n = 4; n <= n2; n *= 2)
      Level(row, n, 1, work, vector);
}

void Snake_Permutation(int nx, int ny, int nz, std::vector<int> &perm) {
  perm.clear();
  perm.reserve(static_cast<size_t>(std::max(nx, 0)) * std::max(ny, 0) * std::max(nz, 0));
  bool right = true;
  for (int k = 0; k < nz; k++) {
    const bool rising = k % 2 == 0;
    for (int r = 0; r < ny; r++) {
      const int j = rising ? r : ny - 1 - r;
      for (int c = 0; c < nx; c++) {
        const int i = right ? c : nx - 1 - c;
        perm.push_back((k * ny + j) * nx + i);
      }
      right = !right;
    }
  }
}
