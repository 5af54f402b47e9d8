// Times the whole forward model of a homogeneous half-space, all sources,
// with each sparse solver behind the source driver: MUMPS (single factor,
// refined in double where a column's residual needs it), the generic block
// solver (single factor, same refinement) and CHOLMOD (double factor) as the
// yardstick. Each run goes in a child process of its own, so that the
// child's peak resident memory is the peak of the solver it ran; times are
// the median of the runs, and the runs of the three solvers alternate so
// that a change in the machine's load falls on all of them.
//
// The survey is the dipole-dipole grid of the mesh benchmark: 30 x 30 lines
// (about 190,000 nodes in the adaptive solved mesh) and, with --large, also
// 66 x 66 lines (about 600,000 nodes).
// Goals: MUMPS within 0.7 of CHOLMOD's time and 0.6 of its peak memory; the
// block solver within 0.8 of MUMPS's time; the block factorisation at 60 %
// or more of the SGEMM rate measured in the same run.
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

#include <omp.h>

#include "bench_survey.h"
#include "core/clock.h"
#include "core/commands.h"
#include "core/cpu_info.h"
#include "core/data_set.h"
#include "core/front_end.h"
#include "core/temp_files.h"
#include "forward/forward.h"
#include "forward/sparse_solver.h"
#include "gemm_rate.h"

namespace {

constexpr int layers = 12;
constexpr double goal_time = 0.7, goal_memory = 0.6, goal_block = 0.8, goal_rate = 0.6;
// Block solver options from the command line: the simultaneous-solves code
// (-1 keeps the setting) and a double-precision factor.
int block_code = -1;
int block_double = 0;
int hex_element = -1; // the element form; -1 the program's default

// What a child process sends back through its pipe.
struct Run_Result {
  int ok = 0;
  int nodes = 0, nsources = 0, ndata = 0, refine_steps = 0, refined = 0;
  int batch = 0;     // right-hand sides solved together
  double wall = 0.0; // the timed work, wall clock
  double t_assembly = 0.0, t_ordering = 0.0, t_analysis = 0.0, t_factor = 0.0, t_solve = 0.0,
         t_total = 0.0;
  double factor_entries = 0.0, factor_flops = 0.0, residual = 0.0;
  double rss_before_mb = 0.0, peak_mb = 0.0;
};

// The program's forward model of a homogeneous 100 ohm.m ground with the
// given solver.
Run_Result Forward_Run(const std::string &dir, const std::string &path, int kind) {
  Run_Result r;
  Bench_Data_Set b(dir);
  Data_Set &ds = b.ds;
  if (hex_element >= 0)
    ds.Fem.hex_element = hex_element;
  if (ds.Run_Command(CMD_READ_DATA, path.c_str()))
    return r;
  ds.Fem.solver_kind = kind;
  if (kind == solver_block) {
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
  const Solver_Report &rep = fem.report;
  r.ok = ierr == 0;
  r.nodes = ds.Semistructured.number_nodes_ss;
  r.nsources = fem.nsources;
  r.ndata = ds.mdata;
  r.refine_steps = rep.refine_steps;
  r.refined = static_cast<int>(rep.columns_refined);
  r.batch = rep.batch;
  r.t_assembly = fem.t_assembly;
  r.t_ordering = rep.t_ordering;
  r.t_analysis = rep.t_analysis;
  r.t_factor = rep.t_factor;
  r.t_solve = rep.t_solve;
  r.t_total = fem.t_total;
  r.factor_entries = static_cast<double>(rep.factor_entries);
  r.factor_flops = rep.factor_flops;
  r.residual = rep.residual;
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
  std::printf(
      "  %-7s %8.2f %9.2f %9.2f %9.2f %8.2f %8.2f %8.2f %12.0f %4d/%-4d %10.2e %9.0f %9.0f\n",
      label, r.wall, r.t_assembly, r.t_ordering, r.t_analysis, r.t_factor, r.t_solve, r.t_total,
      r.factor_entries, r.refine_steps, r.refined, r.residual, r.rss_before_mb, r.peak_mb);
}

// The runs of one forward-model variant and their median, which it returns.
Run_Result Print_Forward_Table(const char *title, const std::vector<Run_Result> &runs) {
  std::printf("\nForward model (%s), seconds and MB\n", title);
  std::printf("  %-7s %8s %9s %9s %9s %8s %8s %8s %12s %9s %10s %9s %9s\n", "run", "wall",
              "assembly", "ordering", "analysis", "factor", "solve", "total", "factor ents",
              "steps/cols", "residual", "RSS start", "peak MB");
  for (size_t k = 0; k < runs.size(); k++)
    Print_Forward_Row(std::to_string(k + 1).c_str(), runs[k]);
  const Run_Result m = Median_Run(runs);
  Print_Forward_Row("median", m);
  return m;
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

  const double sgemm = Sgemm_Gflops(2000);
  std::vector<Run_Result> fwd, blk, yard;
  for (int k = 0; k < reps; k++) {
    fwd.push_back(In_Child([&] { return Forward_Run(dir, path, solver_mumps); }));
    blk.push_back(In_Child([&] { return Forward_Run(dir, path, solver_block); }));
    yard.push_back(In_Child([&] { return Forward_Run(dir, path, solver_cholmod); }));
  }
  const double sgemm_after = Sgemm_Gflops(2000);
  std::filesystem::remove_all(dir);
  const char *names[3] = {"MUMPS", "block solver", "CHOLMOD"};
  const std::vector<Run_Result> *all[3] = {&fwd, &blk, &yard};
  for (int s = 0; s < 3; s++)
    for (const Run_Result &r : *all[s])
      if (!r.ok) {
        std::printf("grid %d x %d: the forward model with %s failed\n", n, n, names[s]);
        return 1;
      }

  std::printf("\nGrid %d x %d electrodes 1 m apart, %d layers, %d data; adaptive mesh %d nodes; "
              "%d sources (batches: MUMPS %d, block solver %d, CHOLMOD %d)\n",
              n, n, layers, fwd[0].ndata, fwd[0].nodes, fwd[0].nsources, fwd[0].batch, blk[0].batch,
              yard[0].batch);
  const Run_Result mf =
      Print_Forward_Table("MUMPS single, refined where its residual needs it", fwd);
  const Run_Result mb =
      Print_Forward_Table(block_double ? "generic block solver, double factor"
                                       : "generic block solver, single factor refined where needed",
                          blk);
  const Run_Result my = Print_Forward_Table("CHOLMOD, double factor", yard);
  const double rate = std::max(sgemm, sgemm_after);
  const double gflops = mb.factor_flops / std::max(mb.t_factor, 1e-9) / 1e9;
  std::printf("\n  block factorisation: %.3g flops, %.1f GFLOP/s = %.0f %% of SGEMM measured in "
              "this run (%.0f before, %.0f after the runs, GFLOP/s)\n",
              mb.factor_flops, gflops, 100.0 * gflops / rate, sgemm, sgemm_after);

  const double rt = mf.wall / my.wall, rm = mf.peak_mb / my.peak_mb, rb = mb.wall / mf.wall;
  const double rf = gflops / rate;
  auto verdict = [](double ratio, double goal, bool above) {
    return (above ? ratio >= goal : ratio <= goal) ? "met" : "NOT MET";
  };
  std::printf("\nSummary, %d nodes, %d sources (median of %d runs, peak memory of the whole "
              "process)\n",
              fwd[0].nodes, fwd[0].nsources, reps);
  std::printf("  %-44s %9s %9s\n", "", "seconds", "peak MB");
  for (int s = 0; s < 3; s++) {
    const Run_Result &r = s == 0 ? mf : s == 1 ? mb : my;
    std::printf("  forward model, %-29s %9.2f %9.0f\n", names[s], r.wall, r.peak_mb);
  }
  std::printf("  %-44s %9.2f %9.2f   goal %.2f / %.2f: %s / %s\n", "ratio MUMPS / CHOLMOD", rt, rm,
              goal_time, goal_memory, verdict(rt, goal_time, false),
              verdict(rm, goal_memory, false));
  std::printf("  %-44s %9.2f %9s   goal %.2f: %s\n", "ratio block solver / MUMPS", rb, "",
              goal_block, verdict(rb, goal_block, false));
  std::printf("  %-44s %9.2f %9s   goal %.2f: %s\n", "block factorisation rate / SGEMM", rf, "",
              goal_rate, verdict(rf, goal_rate, true));
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
  std::printf("Forward model with MUMPS, the block solver and CHOLMOD: %d threads "
              "(omp_get_max_threads), BLAS kernel %s, "
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
