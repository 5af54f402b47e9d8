// The rate of a square matrix product with the OpenBLAS kernel in use, best
// of three after a warm-up, in GFLOP/s. The machines these benchmarks run on
// share their cores, so a solver's rate is best read beside the product's
// rate measured at the same time.
#pragma once

#include <cblas.h>

#include <chrono>
#include <vector>

template <class T, class F> double Gemm_Gflops(int n, F gemm) {
  std::vector<T> a(static_cast<size_t>(n) * n), b(a.size()), c(a.size());
  for (size_t i = 0; i < a.size(); i++) {
    a[i] = static_cast<T>((i % 97) * 0.01);
    b[i] = static_cast<T>((i % 89) * 0.02);
  }
  gemm(n, a.data(), b.data(), c.data()); // warm-up
  double best = 0.0;
  for (int rep = 0; rep < 3; rep++) {
    const auto t0 = std::chrono::steady_clock::now();
    gemm(n, a.data(), b.data(), c.data());
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const double g = 2.0 * n * n * static_cast<double>(n) / s * 1e-9;
    if (g > best)
      best = g;
  }
  return best;
}

inline double Sgemm_Gflops(int n) {
  return Gemm_Gflops<float>(n, [](int m, float *a, float *b, float *c) {
    cblas_sgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, m, m, m, 1.0f, a, m, b, m, 0.0f, c, m);
  });
}

inline double Dgemm_Gflops(int n) {
  return Gemm_Gflops<double>(n, [](int m, double *a, double *b, double *c) {
    cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, m, m, m, 1.0, a, m, b, m, 0.0, c, m);
  });
}
