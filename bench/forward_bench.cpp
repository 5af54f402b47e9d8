// Times the whole forward model of a homogeneous half-space against a
// yardstick: CHOLMOD (double precision, supernodal, METIS ordering) on the
// same capacitance matrix, analysed, factorised and solved for 128 unit
// sources. Each run goes in a child process of its own, so that the child's
// peak resident memory is the peak of the solver it ran; times are the
// median of the runs.
//
// The survey is the dipole-dipole grid of the mesh benchmark: 30 x 30 lines
// (about 150,000 nodes in the adaptive solved mesh) and, with --large, also
// 66 x 66 lines (about 600,000 nodes).
// Goals: the forward model (all sources) within 0.7 of CHOLMOD's time and
// 0.6 of its peak memory.
//
// The same forward model runs with the generic block solver (single factor
// refined in double unless --block-double), its factorisation rate against
// the single-precision peak.
//
//   ohmvol3d_bench_forward [--large] [--grid N] [--reps N] [--block-code 0-5]
//                          [--block-double] [--hex-element 0-2]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <cholmod.h>
#include <omp.h>

#include "bench_survey.h"
#include "core/clock.h"
#include "core/commands.h"
#include "core/cpu_info.h"
#include "core/data_set.h"
#include "core/front_end.h"
#include "core/temp_files.h"
#include "forward/forward.h"

namespace {

constexpr int layers = 12;
constexpr int yard_rhs = 128;
constexpr double goal_time = 0.7, goal_memory = 0.6;
// Block solver options from the command line: the simultaneous-solves code
// (-1 keeps the setting) and a double-precision factor.
int block_code = -1;
int block_double = 0;
int hex_element = -1; // the element form; -1 the program's default
// SGEMM on the two cores of the machines this runs on, with the right kernel.
constexpr double sgemm_peak = 330.0;

// What a child process sends back through its pipe.
struct Run_Result {
  int ok = 0;
  int nodes = 0, nsources = 0, ndata = 0, refine_steps = 0;
  int batch = 0;     // right-hand sides solved together
  double wall = 0.0; // the timed work, wall clock
  double t_assembly = 0.0, t_ordering = 0.0, t_analysis = 0.0, t_factor = 0.0, t_solve = 0.0,
         t_total = 0.0;
  double factor_entries = 0.0, factor_flops = 0.0, residual = 0.0;
  double rss_before_mb = 0.0, peak_mb = 0.0;
};

// The program's forward model of a homogeneous 100 ohm.m ground.
Run_Result Forward_Run(const std::string &dir, const std::string &path, int cpu_type_solver) {
  Run_Result r;
  Bench_Data_Set b(dir);
  Data_Set &ds = b.ds;
  if (hex_element >= 0)
    ds.Fem.hex_element = hex_element;
  if (ds.Run_Command(CMD_READ_DATA, path.c_str()))
    return r;
  ds.Data_lim_sys.cpu_type_solver = cpu_type_solver;
  if (cpu_type_solver > 0) {
    if (block_code >= 0)
      ds.simultaneous_solves = block_code;
    ds.Fem.double_precision = block_double;
  }
  std::vector<float> res(std::max(ds.Model_grid.nmodel_blocks, 1), 100.0f);
  r.rss_before_mb = Status_MB("VmRSS:");
  const auto t0 = Clock::now();
  const int ierr = Forward_Model_LS(ds, res.data(), nullptr, 0);
  r.wall = Seconds_Since(t0);
  r.peak_mb = Status_MB("VmHWM:");
  const Fem_State &fem = ds.Fem;
  r.ok = ierr == 0;
  r.nodes = ds.Semistructured.number_nodes_ss;
  r.nsources = fem.nsources;
  r.ndata = ds.mdata;
  r.refine_steps = fem.refine_steps_done;
  r.batch = static_cast<int>(fem.coomatrix64.nrhs);
  r.t_assembly = fem.t_assembly;
  r.t_ordering = fem.ordering.seconds;
  r.t_analysis = fem.t_analysis;
  r.t_factor = fem.t_factor;
  r.t_solve = fem.t_solve;
  r.t_total = fem.t_total;
  r.factor_entries = static_cast<double>(fem.coomatrix64.factor_entries);
  r.factor_flops = fem.coomatrix64.factor_flops;
  r.residual = fem.residual_last;
  return r;
}

// CHOLMOD on the capacitance matrix the program assembles for the same
// model: analysis (with its METIS ordering), factorisation and the solve of
// 128 unit sources at nodes spread over the mesh.
Run_Result Cholmod_Run(const std::string &dir, const std::string &path) {
  Run_Result r;
  Bench_Data_Set b(dir);
  Data_Set &ds = b.ds;
  if (hex_element >= 0)
    ds.Fem.hex_element = hex_element;
  if (ds.Run_Command(CMD_READ_DATA, path.c_str()))
    return r;
  CooMatrix64 &m = ds.Fem.coomatrix64;
  if (Assemble_Half_Space(ds))
    return r;
  // Only the double-precision values and the pattern are needed. The upper
  // triangle by rows (from 1) is the lower triangle by columns (from 0).
  m.a.Free();
  m.perm.Free();
  const int64_t n = m.n;
  for (int64_t i = 0; i <= n; i++)
    m.ia[i]--;
  for (int64_t k = 0; k < m.count; k++)
    m.ja[k]--;
  r.nodes = ds.Semistructured.number_nodes_ss;
  r.ndata = ds.mdata;
  r.nsources = yard_rhs;

  cholmod_common cm;
  cholmod_l_start(&cm);
  cm.nmethods = 1;
  cm.method[0].ordering = CHOLMOD_METIS;
  cm.postorder = 1;
  cm.supernodal = CHOLMOD_SUPERNODAL;
  cm.print = 0;
  cholmod_sparse A{};
  A.nrow = A.ncol = static_cast<size_t>(n);
  A.nzmax = static_cast<size_t>(m.count);
  A.p = m.ia.data();
  A.i = m.ja.data();
  A.x = m.ad.data();
  A.stype = -1;
  A.itype = CHOLMOD_LONG;
  A.xtype = CHOLMOD_REAL;
  A.dtype = CHOLMOD_DOUBLE;
  A.sorted = 1;
  A.packed = 1;
  cholmod_dense *B = cholmod_l_zeros(A.nrow, yard_rhs, CHOLMOD_REAL, &cm);
  if (!B)
    return r;
  double *bx = static_cast<double *>(B->x);
  for (int c = 0; c < yard_rhs; c++)
    bx[c * n + (n * (2 * c + 1)) / (2 * yard_rhs)] = 1.0;

  r.rss_before_mb = Status_MB("VmRSS:");
  auto t0 = Clock::now();
  cholmod_factor *L = cholmod_l_analyze(&A, &cm);
  r.t_analysis = Seconds_Since(t0);
  t0 = Clock::now();
  const int factored = L && cholmod_l_factorize(&A, L, &cm) && cm.status == CHOLMOD_OK;
  r.t_factor = Seconds_Since(t0);
  t0 = Clock::now();
  cholmod_dense *X = factored ? cholmod_l_solve(CHOLMOD_A, L, B, &cm) : nullptr;
  r.t_solve = Seconds_Since(t0);
  r.wall = r.t_analysis + r.t_factor + r.t_solve;
  r.peak_mb = Status_MB("VmHWM:");
  r.factor_entries = cm.lnz;
  r.ok = X != nullptr;
  if (X) {
    // Worst relative residual |b - A x| / |b| of the columns.
    cholmod_dense *R = cholmod_l_copy_dense(B, &cm);
    double minus_one[2] = {-1.0, 0.0}, one[2] = {1.0, 0.0};
    if (R && cholmod_l_sdmult(&A, 0, minus_one, one, X, R, &cm)) {
      const double *rx = static_cast<const double *>(R->x);
      for (int c = 0; c < yard_rhs; c++) {
        double s = 0.0;
        for (int64_t i = 0; i < n; i++)
          s += rx[c * n + i] * rx[c * n + i];
        r.residual = std::max(r.residual, std::sqrt(s));
      }
    }
    cholmod_l_free_dense(&R, &cm);
  }
  cholmod_l_free_dense(&X, &cm);
  cholmod_l_free_dense(&B, &cm);
  cholmod_l_free_factor(&L, &cm);
  cholmod_l_finish(&cm);
  return r;
}

// Runs `work` in a child process and takes its result through a pipe.
template <class F> Run_Result In_Child(F work) {
  Run_Result r;
  int fd[2];
  if (pipe(fd))
    return r;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) {
    close(fd[0]);
    close(fd[1]);
    return r;
  }
  if (pid == 0) {
    close(fd[0]);
    const Run_Result c = work();
    const ssize_t w = write(fd[1], &c, sizeof c);
    close(fd[1]);
    _exit(w == static_cast<ssize_t>(sizeof c) ? 0 : 1);
  }
  close(fd[1]);
  size_t got = 0;
  char *p = reinterpret_cast<char *>(&r);
  while (got < sizeof r) {
    const ssize_t k = read(fd[0], p + got, sizeof r - got);
    if (k <= 0)
      break;
    got += static_cast<size_t>(k);
  }
  close(fd[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (got != sizeof r || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    if (WIFSIGNALED(status))
      std::fprintf(stderr, "child ended by signal %d\n", WTERMSIG(status));
    r = Run_Result();
  }
  return r;
}

// The first run's counts with the median of every timing and memory figure.
Run_Result Median_Run(const std::vector<Run_Result> &runs) {
  Run_Result m = runs[0];
  for (double Run_Result::*f :
       {&Run_Result::wall, &Run_Result::t_assembly, &Run_Result::t_ordering,
        &Run_Result::t_analysis, &Run_Result::t_factor, &Run_Result::t_solve, &Run_Result::t_total,
        &Run_Result::residual, &Run_Result::rss_before_mb, &Run_Result::peak_mb}) {
    std::vector<double> v;
    for (const Run_Result &r : runs)
      v.push_back(r.*f);
    m.*f = Median(v);
  }
  return m;
}

void Print_Forward_Row(const char *label, const Run_Result &r) {
  std::printf("  %-7s %8.2f %9.2f %9.2f %9.2f %8.2f %8.2f %8.2f %12.0f %7d %10.2e %9.0f %9.0f\n",
              label, r.wall, r.t_assembly, r.t_ordering, r.t_analysis, r.t_factor, r.t_solve,
              r.t_total, r.factor_entries, r.refine_steps, r.residual, r.rss_before_mb, r.peak_mb);
}

// The runs of one forward-model variant and their median, which it returns.
Run_Result Print_Forward_Table(const char *title, const std::vector<Run_Result> &runs) {
  std::printf("\nForward model (%s), seconds and MB\n", title);
  std::printf("  %-7s %8s %9s %9s %9s %8s %8s %8s %12s %7s %10s %9s %9s\n", "run", "wall",
              "assembly", "ordering", "analysis", "factor", "solve", "total", "factor ents",
              "refine", "residual", "RSS start", "peak MB");
  for (size_t k = 0; k < runs.size(); k++)
    Print_Forward_Row(std::to_string(k + 1).c_str(), runs[k]);
  const Run_Result m = Median_Run(runs);
  Print_Forward_Row("median", m);
  return m;
}

void Print_Cholmod_Row(const char *label, const Run_Result &r) {
  std::printf("  %-7s %8.2f %9.2f %8.2f %10.2f %12.0f %10.2e %9.0f %9.0f\n", label, r.wall,
              r.t_analysis, r.t_factor, r.t_solve, r.factor_entries, r.residual, r.rss_before_mb,
              r.peak_mb);
}

int Run_Case(int n, int reps) {
  char pattern[] = "/tmp/ohmvol3d_bench_forward_XXXXXX";
  if (!mkdtemp(pattern))
    return 1;
  const std::string dir = pattern;
  const std::string path = dir + "/grid.dat";
  FILE *f = std::fopen(path.c_str(), "w");
  if (!f)
    return 1;
  const std::string text = Make_Grid_Survey(
      "Forward benchmark: dipole-dipole lines over a square electrode grid", n, layers);
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);

  std::vector<Run_Result> fwd, blk, yard;
  for (int k = 0; k < reps; k++)
    fwd.push_back(In_Child([&] { return Forward_Run(dir, path, 0); }));
  for (int k = 0; k < reps; k++)
    blk.push_back(In_Child([&] { return Forward_Run(dir, path, 3); }));
  for (int k = 0; k < reps; k++)
    yard.push_back(In_Child([&] { return Cholmod_Run(dir, path); }));
  std::filesystem::remove_all(dir);
  for (const Run_Result &r : blk)
    if (!r.ok) {
      std::printf("grid %d x %d: the forward model with the block solver failed\n", n, n);
      return 1;
    }
  for (const Run_Result &r : fwd)
    if (!r.ok) {
      std::printf("grid %d x %d: the forward model failed\n", n, n);
      return 1;
    }
  for (const Run_Result &r : yard)
    if (!r.ok) {
      std::printf("grid %d x %d: the CHOLMOD run failed\n", n, n);
      return 1;
    }

  std::printf("\nGrid %d x %d electrodes 1 m apart, %d layers, %d data; adaptive mesh %d nodes; "
              "%d sources in batches of %d\n",
              n, n, layers, fwd[0].ndata, fwd[0].nodes, fwd[0].nsources, fwd[0].batch);
  const Run_Result mf =
      Print_Forward_Table("MUMPS single, refined where its residual needs it, all sources", fwd);
  const Run_Result mb = Print_Forward_Table(
      block_double ? "generic block solver, double factor, all sources"
                   : "generic block solver, single factor refined in double, all sources",
      blk);
  const double gflops = mb.factor_flops / std::max(mb.t_factor, 1e-9) / 1e9;
  std::printf("  block factorisation: %.3g flops, %.1f GFLOP/s = %.0f %% of the %.0f GFLOP/s "
              "single-precision peak\n",
              mb.factor_flops, gflops, 100.0 * gflops / sgemm_peak, sgemm_peak);

  std::printf(
      "\nCHOLMOD (double, supernodal, METIS) analyse + factor + %d solves, seconds and MB\n",
      yard_rhs);
  std::printf("  %-7s %8s %9s %8s %10s %12s %10s %9s %9s\n", "run", "wall", "analyse", "factor",
              "solves", "factor ents", "residual", "RSS start", "peak MB");
  for (int k = 0; k < reps; k++)
    Print_Cholmod_Row(std::to_string(k + 1).c_str(), yard[k]);
  const Run_Result my = Median_Run(yard);
  Print_Cholmod_Row("median", my);

  // The forward model solves every source of the survey, the yardstick 128:
  // the same yardstick with its solves scaled to the forward model's sources
  // is the like-for-like comparison; both are shown.
  const double same = my.t_analysis + my.t_factor + my.t_solve * fwd[0].nsources / yard_rhs;
  const double rt = mf.wall / my.wall, rs = mf.wall / same, rm = mf.peak_mb / my.peak_mb;
  auto verdict = [](double ratio, double goal) { return ratio <= goal ? "met" : "NOT MET"; };
  std::printf("\nSummary, %d nodes, %d sources (median of %d runs, peak memory of the whole "
              "process)\n",
              fwd[0].nodes, fwd[0].nsources, reps);
  std::printf("  %-58s %9s %9s\n", "", "seconds", "peak MB");
  std::printf("  %-58s %9.2f %9.0f\n", "forward model (MUMPS single, all sources)", mf.wall,
              mf.peak_mb);
  std::printf("  %-58s %9.2f %9.0f\n", "forward model (block solver, all sources)", mb.wall,
              mb.peak_mb);
  std::printf("  %-58s %9.2f %9.0f\n", "CHOLMOD analyse+factor+128 solves", my.wall, my.peak_mb);
  std::printf("  %-58s %9.2f\n", "CHOLMOD with its solves scaled to the same sources", same);
  std::printf("  %-58s %9.2f %9.2f   goal %.2f / %.2f: %s / %s\n",
              "ratio forward/CHOLMOD with 128 solves", rt, rm, goal_time, goal_memory,
              verdict(rt, goal_time), verdict(rm, goal_memory));
  std::printf("  %-58s %9.2f %9s   goal %.2f: %s\n", "ratio forward/CHOLMOD, same sources", rs, "",
              goal_time, verdict(rs, goal_time));
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  Select_Blas_Kernel(argv);
  std::vector<int> grids = {30};
  int reps = 3;
  for (int k = 1; k < argc; k++) {
    const std::string a = argv[k];
    if (const int used = Grid_Option(argc, argv, k, grids, reps)) {
      k += used - 1;
    } else if (a == "--block-code" && k + 1 < argc) {
      block_code = std::clamp(std::atoi(argv[++k]), 0, 5);
    } else if (a == "--block-double") {
      block_double = 1;
    } else if (a == "--hex-element" && k + 1 < argc) {
      hex_element = std::clamp(std::atoi(argv[++k]), 0, 2);
    } else {
      std::fprintf(stderr,
                   "usage: %s [--large] [--grid N] [--reps N] [--block-code 0-5] "
                   "[--block-double] [--hex-element 0-2]\n",
                   argv[0]);
      return 2;
    }
  }
  std::printf("Forward model against CHOLMOD: %d threads (omp_get_max_threads), BLAS kernel %s, "
              "%d runs each\n",
              omp_get_max_threads(), Blas_Kernel_Name(), reps);
  int status = 0;
  for (int n : grids)
    if (n >= 4)
      status |= Run_Case(n, reps);
    else
      status = 2;
  return status;
}
