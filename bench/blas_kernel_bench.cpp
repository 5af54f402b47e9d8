// Measures DGEMM and SGEMM with the OpenBLAS kernel the program selects and
// reports them against this machine's peaks (2 threads: DGEMM 160, SGEMM 330
// GFLOP/s). Run it as `ohmvol3d_bench_blas [n]`; with OPENBLAS_CORETYPE set
// by hand it measures that kernel instead.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <cblas.h>

#include "core/cpu_info.h"

namespace {

template <class T, class F> double Gflops(int n, F gemm) {
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

} // namespace

int main(int argc, char **argv) {
  Select_Blas_Kernel(argv);
  const int n = argc > 1 ? std::atoi(argv[1]) : 2000;
  const double d = Gflops<double>(n, [](int m, double *a, double *b, double *c) {
    cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, m, m, m, 1.0, a, m, b, m, 0.0, c, m);
  });
  const double s = Gflops<float>(n, [](int m, float *a, float *b, float *c) {
    cblas_sgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, m, m, m, 1.0f, a, m, b, m, 0.0f, c, m);
  });
  std::printf("OpenBLAS kernel %s (%s), %d threads, n = %d\n", Blas_Kernel_Name(),
              Blas_Kernel_Origin(), openblas_get_num_threads(), n);
  std::printf("DGEMM %7.1f GFLOP/s  (%5.1f %% of 160)\n", d, 100.0 * d / 160.0);
  std::printf("SGEMM %7.1f GFLOP/s  (%5.1f %% of 330)\n", s, 100.0 * s / 330.0);
  return 0;
}
