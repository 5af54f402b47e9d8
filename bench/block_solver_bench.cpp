// Times the generic block solver on its own, on the capacitance matrix of
// the forward benchmark's mesh (a homogeneous ground): analysis (adjacency,
// METIS, symbolic factorisation), the single-precision factorisation
// (median and fastest of the runs, the rate against the machine's SGEMM
// peak and against SGEMM measured between the runs), and the solves of 128
// and 512 unit sources at nodes spread over the mesh, one
// pass (the sources' sparsity used) and the refinement's second pass (a
// dense right-hand side), each thread with its own block of columns. Peak
// memory is the process's.
//
//   ohmvol3d_bench_block [--large] [--grid N] [--reps N] [--width N] [--factor-only]
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_survey.h"
#include "core/clock.h"
#include "core/commands.h"
#include "core/cpu_info.h"
#include "forward/blkfct.h"
#include "gemm_rate.h"

namespace {

constexpr int layers = 12;
constexpr double sgemm_peak = 330.0; // GFLOP/s on the two cores, right kernel

// Seconds to solve `nsrc` sources in blocks of `width` columns a thread,
// each column a unit source at a node spread over the mesh; `dense` fills
// every row (as the refinement's right-hand side does).
double Solve_Sources(const Blkfct &b, const float *lnz, int nsrc, int width, bool dense) {
  const int threads = omp_get_max_threads();
  const int64_t n = b.neqns_ll;
  std::vector<std::vector<float>> x(threads, std::vector<float>(n * width));
  std::vector<std::vector<float>> work(threads, std::vector<float>(Blkfct_Solve_Work(b, width)));
  std::vector<std::vector<char>> active(threads, std::vector<char>(b.nsuper));
  const int blocks = (nsrc + width - 1) / width;
  Set_Blas_Threads(1);
  const auto t0 = Clock::now();
#pragma omp parallel for schedule(dynamic, 1)
  for (int k = 0; k < blocks; k++) {
    const int t = omp_get_thread_num();
    const int cols = std::min(width, nsrc - k * width);
    std::vector<float> &xt = x[t];
    if (dense) {
      for (int64_t i = 0; i < n * cols; i++)
        xt[i] = 1e-6f * static_cast<float>((i * 7919) % 1000 - 500);
    } else {
      std::fill(xt.begin(), xt.begin() + n * cols, 0.0f);
      for (int c = 0; c < cols; c++) {
        const int64_t s = k * width + c;
        xt[((n * (2 * s + 1)) / (2 * nsrc)) * cols + c] = 1.0f;
      }
    }
    Blkfct_Solve(b, lnz, xt.data(), cols, work[t].data(), active[t].data());
  }
  const double seconds = Seconds_Since(t0);
  Set_Blas_Threads(threads);
  return seconds;
}

int Run_Case(int grid, int reps, int width, bool factor_only) {
  char pattern[] = "/tmp/ohmvol3d_bench_block_XXXXXX";
  if (!mkdtemp(pattern))
    return 1;
  const std::string dir = pattern, path = dir + "/grid.dat";
  FILE *f = std::fopen(path.c_str(), "w");
  if (!f)
    return 1;
  const std::string text = Make_Grid_Survey("Block solver benchmark", grid, layers);
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);
  int status = 1;
  {
    Bench_Data_Set bd(dir);
    Data_Set &ds = bd.ds;
    if (ds.Run_Command(CMD_READ_DATA, path.c_str()) == 0 && Assemble_Half_Space(ds) == 0) {
      CooMatrix64 &m = ds.Fem.coomatrix64;
      const int n = static_cast<int>(m.n);
      const double rss_start = Status_MB("VmRSS:");
      // Analysis.
      auto t0 = Clock::now();
      std::vector<int> xadj(n + 1), adjncy(std::max<int64_t>(2 * m.count, 1)), perm(n), invp(n);
      Blkfct b;
      const int64_t edges = m.Set_Adjacency_From_CSR(INT64_MAX, xadj.data(), adjncy.data());
      const int ordered =
          edges >= 0 ? mnd_adj(xadj.data(), adjncy.data(), n, perm.data(), invp.data()) : -1;
      const int symbolic = ordered == 0 ? b.Symbolic_Factorization(n, xadj.data(), adjncy.data(),
                                                                   perm.data(), invp.data())
                                        : -1;
      const bool analysed = edges >= 0 && ordered == 0 && symbolic == 0;
      if (!analysed)
        std::printf("analysis failed: adjacency %lld, ordering %d, symbolic %d\n",
                    static_cast<long long>(edges), ordered, symbolic);
      const double t_analysis = Seconds_Since(t0);
      std::vector<int>().swap(xadj);
      std::vector<int>().swap(adjncy);
      if (analysed) {
        // Factorisation, median of the runs.
        std::vector<float> lnz(b.panel_values);
        std::vector<double> tf, sgemm;
        int64_t bad = 0;
        for (int r = 0; r < reps && !bad; r++) {
          Copy_Cap_Matrix_Blkfct(b, m, lnz.data());
          t0 = Clock::now();
          bad = Blkfct_Factor(b, lnz.data(), omp_get_max_threads());
          tf.push_back(Seconds_Since(t0));
          sgemm.push_back(Sgemm_Gflops(2000)); // the machine's rate at this moment
        }
        if (!bad) {
          const double t_factor = Median(tf), gflops = b.flops / t_factor / 1e9;
          const double t_fast = *std::min_element(tf.begin(), tf.end());
          const double sgemm_now = Median(sgemm);
          std::printf("\nGrid %d x %d: %d nodes, %lld supernodes, %lld factor entries, %.3g "
                      "flops\n",
                      grid, grid, n, static_cast<long long>(b.nsuper),
                      static_cast<long long>(b.nofnz), b.flops);
          std::printf("  analysis (adjacency, METIS, symbolic)  %8.2f s\n", t_analysis);
          std::printf("  factorisation (median of %d)           %8.2f s  %6.1f GFLOP/s = %.0f %% "
                      "of the %.0f GFLOP/s single peak\n",
                      reps, t_factor, gflops, 100.0 * gflops / sgemm_peak, sgemm_peak);
          std::printf("  fastest run                              %8.2f s  %6.1f GFLOP/s = %.0f %% "
                      "of the peak\n",
                      t_fast, b.flops / t_fast / 1e9, 100.0 * b.flops / t_fast / 1e9 / sgemm_peak);
          std::printf(
              "  SGEMM (n = 2000) between the runs         %6.1f GFLOP/s: the factorisation "
              "ran at %.0f %% of it\n",
              sgemm_now, 100.0 * gflops / sgemm_now);
          for (int nsrc : {128, 512}) {
            if (factor_only)
              break;
            std::vector<double> sparse, dense;
            for (int r = 0; r < reps; r++) {
              sparse.push_back(Solve_Sources(b, lnz.data(), nsrc, width, false));
              dense.push_back(Solve_Sources(b, lnz.data(), nsrc, width, true));
            }
            const double ts = Median(sparse), td = Median(dense);
            const double flop = 4.0 * static_cast<double>(b.nofnz) * nsrc;
            // A dense pass does 4 flops an entry of the factor a column; the
            // unit sources' forward pass follows only their paths to the root.
            std::printf("  %3d sources, %d columns a thread: unit sources %6.2f s, dense %6.2f s "
                        "(%5.1f GFLOP/s); with refinement %6.2f s\n",
                        nsrc, width, ts, td, flop / td / 1e9, ts + td);
            std::printf("  analysis + factorisation + %d sources, refined: %.2f s\n", nsrc,
                        t_analysis + t_factor + ts + td);
          }
          std::printf("  memory: %.0f MB at the start, peak %.0f MB\n", rss_start,
                      Status_MB("VmHWM:"));
          status = 0;
        }
      }
    }
  }
  std::filesystem::remove_all(dir);
  if (status)
    std::printf("grid %d x %d: the block solver run failed\n", grid, grid);
  return status;
}

} // namespace

int main(int argc, char **argv) {
  Select_Blas_Kernel(argv);
  std::vector<int> grids = {30};
  int reps = 3, width = 32;
  bool factor_only = false;
  for (int k = 1; k < argc; k++) {
    const std::string a = argv[k];
    if (const int used = Grid_Option(argc, argv, k, grids, reps)) {
      k += used - 1;
    } else if (a == "--width" && k + 1 < argc) {
      width = std::clamp(std::atoi(argv[++k]), 1, 128);
    } else if (a == "--factor-only") {
      factor_only = true;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--large] [--grid N] [--reps N] [--width N] [--factor-only]\n",
                   argv[0]);
      return 2;
    }
  }
  std::printf("Generic block solver: %d threads, BLAS kernel %s, %d runs each\n",
              omp_get_max_threads(), Blas_Kernel_Name(), reps);
  int status = 0;
  for (int g : grids)
    status |= g >= 4 ? Run_Case(g, reps, width, factor_only) : 2;
  return status;
}
