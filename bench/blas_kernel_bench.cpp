// Measures DGEMM and SGEMM with the OpenBLAS kernel the program selects and
// reports them against this machine's peaks (2 threads: DGEMM 160, SGEMM 330
// GFLOP/s). Run it as `ohmvol3d_bench_blas [n]`; with OPENBLAS_CORETYPE set
// by hand it measures that kernel instead.
#include <cstdio>
#include <cstdlib>

#include <cblas.h>

#include "core/cpu_info.h"
#include "gemm_rate.h"

int main(int argc, char **argv) {
  Select_Blas_Kernel(argv);
  const int n = argc > 1 ? std::atoi(argv[1]) : 2000;
  const double d = Dgemm_Gflops(n), s = Sgemm_Gflops(n);
  std::printf("OpenBLAS kernel %s (%s), %d threads, n = %d\n", Blas_Kernel_Name(),
              Blas_Kernel_Origin(), openblas_get_num_threads(), n);
  std::printf("DGEMM %7.1f GFLOP/s  (%5.1f %% of 160)\n", d, 100.0 * d / 160.0);
  std::printf("SGEMM %7.1f GFLOP/s  (%5.1f %% of 330)\n", s, 100.0 * s / 330.0);
  return 0;
}
