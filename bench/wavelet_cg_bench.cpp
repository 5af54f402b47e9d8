// Times one least-squares step of the incomplete Gauss-Newton road with the
// wavelet-compressed Jacobian on a model at the cell limit: the Jacobian of a
// homogeneous half-space written to the Jacobian file, its compression, the
// right-hand side from the compressed files and the conjugate-gradient
// solution. Sets the step against the direct road's memory and arithmetic
// (estimated, not run) and, with --dense, against the conjugate gradients on
// the whole Jacobian in memory.
//
// The survey: an n x n grid of electrodes 1 m apart (default 68, with 13
// layers: 58,357 cells, under the 60,000-cell limit of a machine with less
// than 31 GB, whose layer limit of 14 admits 13 user layers), dipole-dipole
// lines along x and along y on every other grid line, dipole length 1 m,
// n = 1..5 (21,420 data at 68).
//
//   ohmvol3d_bench_wavelet_cg [--small] [--grid N] [--layers N] [--dir DIR]
//                             [--cutoff X] [--dense]
//
// --dir names the folder under which a fresh temporary folder is made (default
// /tmp); the folder and every file in it are removed at the end. --small is
// the quick case (grid 20, 6 layers) that checks the bench itself.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <omp.h>

#include "bench_survey.h"
#include "core/clock.h"
#include "core/commands.h"
#include "core/data_set.h"
#include "core/memory.h"
#include "core/temp_files.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian.h"
#include "jacobian/jacobian_compression.h"

namespace {

// Measured rates of the machines this runs on: STREAM triad GB/s and DGEMM
// GFLOP/s with 2 threads.
constexpr double triad_gbs = 27.0;
constexpr double dgemm_gflops = 160.0;
constexpr double goal_pct = 10.0, goal_cutoff = 0.005, goal_step_s = 10.0;
// Damping factors of the steps: that of a first iteration, and that of a
// late one, where the conjugate gradients need the most iterations.
constexpr double damping_first = 0.05, damping_late = 0.005;
constexpr int max_spacing = 5;     // dipole-dipole n factors 1..5
constexpr int jacobian_rows = 128; // rows made and written at once

// The half-space Jacobian into the Jacobian file, rows made in parallel a
// block at a time and written in datum order. Returns 0 or 1.
int Write_Jacobian(Data_Set &ds, double &t_rows, double &t_write) {
  const int64_t m = ds.mdata, n = ds.Model_grid.nmodel_blocks;
  FILE *f = std::fopen(ds.file_names.temp[TF_GRROWT].c_str(), "wb");
  if (!f)
    return 1;
  std::vector<float> block(static_cast<size_t>(jacobian_rows) * n);
  t_rows = t_write = 0.0;
  int ierr = 0;
  for (int64_t r0 = 0; r0 < m && !ierr; r0 += jacobian_rows) {
    const int64_t nr = std::min<int64_t>(jacobian_rows, m - r0);
    auto t0 = Clock::now();
    std::fill(block.begin(), block.end(), 0.0f);
#pragma omp parallel for schedule(dynamic, 1)
    for (int64_t r = 0; r < nr; r++)
      Jacobian_Homogeneous_Seq(ds, static_cast<int>(r0 + r), block.data() + r * n);
    t_rows += Seconds_Since(t0);
    t0 = Clock::now();
    ierr = std::fwrite(block.data(), sizeof(float), nr * n, f) != static_cast<size_t>(nr * n);
    t_write += Seconds_Since(t0);
  }
  ierr |= std::fclose(f) != 0;
  return ierr;
}

// One least-squares step: the right-hand side and the solution, timed.
struct Step {
  double t_rhs = 0.0, t_solve = 0.0, t_load = 0.0;
  int iterations = 0, products = 0;
  double ratio = 0.0;
  std::vector<double> rhs;
  std::vector<float> dm;
  double Total() const { return t_rhs + t_solve; }
};

int LS_Step(Data_Set &ds, Step &s, double damping) {
  LS_State &ls = ds.LS;
  const int64_t n = ds.Model_grid.nmodel_blocks;
  auto t0 = Clock::now();
  if (Calculate_RHS(ds, 0, ls.ca.data()))
    return 1;
  s.t_rhs = Seconds_Since(t0);
  s.rhs.assign(ls.ca.begin(), ls.ca.begin() + n);
  ls.nitcount = 1;
  std::fill(ls.dm.begin(), ls.dm.end(), 0.0f);
  t0 = Clock::now();
  if (Solve_Constrained_Least_Squares_Equation(ds, damping, ls.dm.data()))
    return 1;
  s.t_solve = Seconds_Since(t0);
  s.iterations = ls.cg_iterations;
  s.ratio = ls.cg_ratio;
  s.dm.assign(ls.dm.begin(), ls.dm.begin() + n);
  return 0;
}

void Step_Report(const char *road, const Step &s, const char *load_what) {
  const double cg = std::max(s.t_solve - s.t_load, 0.0);
  std::printf("\n%s\n", road);
  std::printf("  %-44s %10.3f s\n", "right-hand side", s.t_rhs);
  std::printf("  %-44s %10.3f s\n", "solve (Solve_Constrained_Least_Squares_Eq.)", s.t_solve);
  std::printf("  %-44s %10.3f s  (timed apart)\n", load_what, s.t_load);
  std::printf("  %-44s %10d (limit %d), final ratio %.5f\n", "CG iterations", s.iterations,
              CG_Iteration_Limit(static_cast<int64_t>(s.dm.size())), s.ratio);
  std::printf("  %-44s %10.4f s  (%d products, %.4f s each without the load)\n",
              "time per CG iteration (solve / iterations)",
              s.iterations ? s.t_solve / s.iterations : 0.0, s.products,
              s.products ? cg / s.products : 0.0);
  std::printf("  %-44s %10.3f s\n", "least-squares step (RHS + solve)", s.Total());
}

double Norm(const float *a, const float *b, size_t n) {
  double s = 0.0;
  for (size_t i = 0; i < n; i++) {
    const double d = static_cast<double>(a[i]) - (b ? b[i] : 0.0f);
    s += d * d;
  }
  return std::sqrt(s);
}

// Removes the temporary folder at the end, on every path out.
struct Folder_Guard {
  std::string dir;
  ~Folder_Guard() {
    std::error_code ec;
    if (!dir.empty())
      std::filesystem::remove_all(dir, ec);
  }
};

int Usage(const char *prog) {
  std::fprintf(stderr,
               "usage: %s [--small] [--grid N] [--layers N] [--dir DIR] [--cutoff X] [--dense]\n",
               prog);
  return 2;
}

} // namespace

int main(int argc, char **argv) {
  int grid = 68, layers = 13, dense = 0;
  double cutoff = goal_cutoff;
  std::string parent = "/tmp";
  for (int k = 1; k < argc; k++) {
    const std::string a = argv[k];
    const bool more = k + 1 < argc;
    if (a == "--small")
      grid = 20, layers = 6;
    else if (a == "--grid" && more)
      grid = std::max(4, std::atoi(argv[++k]));
    else if (a == "--layers" && more)
      layers = std::max(1, std::atoi(argv[++k]));
    else if (a == "--dir" && more)
      parent = argv[++k];
    else if (a == "--cutoff" && more)
      cutoff = std::atof(argv[++k]);
    else if (a == "--dense")
      dense = 1;
    else
      return Usage(argv[0]);
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0); // lines in order with the messages on stderr
  std::error_code ec;
  std::filesystem::create_directories(parent, ec);
  std::string pattern = parent + "/ohmvol3d_bench_wavelet_cg_XXXXXX";
  if (!mkdtemp(pattern.data())) {
    std::printf("cannot make a folder under %s\n", parent.c_str());
    return 1;
  }
  Folder_Guard guard{pattern};
  const std::string dir = pattern, survey = dir + "/wavelet_cg_grid.dat";
  std::ofstream(survey) << Make_Grid_Survey("Wavelet CG benchmark grid", grid, layers, true,
                                            max_spacing);
  std::printf("Wavelet-compressed CG benchmark: %d threads, folder %s\n", omp_get_max_threads(),
              dir.c_str());

  Bench_Data_Set b(dir);
  Data_Set &ds = b.ds;
  if (ds.Run_Command(CMD_READ_DATA, survey.c_str())) {
    std::printf("the survey %s could not be read (user layers 3 to %d, cells up to %d here)\n",
                survey.c_str(), ds.Data_lim_sys.nmax_layers - 1, ds.Data_lim_sys.nmax_model);
    return 1;
  }
  LS_State &ls = ds.LS;
  const int64_t m = ds.mdata, n = ds.Model_grid.nmodel_blocks;
  const double full_bytes = 4.0 * m * n;
  std::printf("Survey: %d x %d electrodes 1 m apart, %d layers; data read back %lld, model cells "
              "%lld (%d x %d x %d; limits %d cells, %d data)\n",
              grid, grid, layers, static_cast<long long>(m), static_cast<long long>(n),
              ds.Model_grid.nblockx, ds.Model_grid.nblocky, ds.Model_grid.nlayers,
              ds.Data_lim_sys.nmax_model, ds.Data_lim_sys.nmax_data);
  const auto space = std::filesystem::space(dir, ec);
  if (!ec && static_cast<double>(space.available) < 1.3 * full_bytes) {
    std::printf("the Jacobian file needs %.2f GB; %s has %.2f GB free\n", full_bytes / 1e9,
                dir.c_str(), space.available / 1e9);
    return 1;
  }

  // The Jacobian file.
  ls.Size(static_cast<int>(n), static_cast<int>(m));
  ds.Model_grid.Calculate_Blocks_Centers();
  double t_rows = 0.0, t_write = 0.0;
  if (Write_Jacobian(ds, t_rows, t_write)) {
    std::printf("the Jacobian file %s could not be written\n",
                ds.file_names.temp[TF_GRROWT].c_str());
    return 1;
  }
  std::printf("\nJacobian (half-space kernel): %.2f GB, rows %.3f s (%.1f M cells/s), written "
              "%.3f s (%.2f GB/s)\n",
              full_bytes / 1e9, t_rows, m * static_cast<double>(n) / 1e6 / std::max(t_rows, 1e-9),
              t_write, full_bytes / 1e9 / std::max(t_write, 1e-9));

  // The misfits, the model and the filter of the step; the compression takes
  // its robust weights from the misfits.
  for (int64_t i = 0; i < m; i++)
    ls.ydiff[i] = static_cast<float>(0.05 * std::sin(0.37 * i) +
                                     0.01 * std::cos(0.013 * i) * ((i % 7) - 3) / 3.0);
  std::fill(ls.rt.begin(), ls.rt.end(), 100.0f);
  ls.average_res = 100.0;
  if (Set_Roughness_Filters(ds)) {
    std::printf("the roughness filter could not be made\n");
    return 1;
  }

  // The compression.
  LS_Method &lm = ds.LS_method;
  lm.incomplete_solve = 2;
  lm.data_compression = 1;
  lm.cut_off = cutoff;
  auto t0 = Clock::now();
  if (Set_Wave_Model_Grid(ds) || Compress_Jacobian_FileOne__Inv(ds)) {
    std::printf("the compression failed\n");
    return 1;
  }
  const double t_comp = Seconds_Since(t0);
  const int64_t kept = ls.wj.Total();
  const double comp_bytes = 8.0 * kept, comp_pct = 100.0 * comp_bytes / full_bytes;
  std::printf("\nCompression at cut-off %g (wavelet length %lld)\n", cutoff,
              static_cast<long long>(ls.wj.n2));
  std::printf("  %-44s %10.3f s  (%.2f GB/s of Jacobian file, likely from the page cache)\n",
              "time", t_comp, full_bytes / 1e9 / std::max(t_comp, 1e-9));
  std::printf("  %-44s %10lld  (%.3f %% of the %lld coefficients)\n", "kept coefficients",
              static_cast<long long>(kept), 100.0 * ls.wj.ratio, static_cast<long long>(m * n));
  std::printf("  %-44s %10.1f MB  (full Jacobian %.1f MB): %.2f %%\n", "compressed memory",
              comp_bytes / 1e6, full_bytes / 1e6, comp_pct);

  // The steps on the compressed road, with its files' load timed apart.
  Step w, late;
  {
    std::vector<float> val;
    std::vector<int> idx;
    t0 = Clock::now();
    Load_Compressed_Jacobian(ds, val, idx);
    w.t_load = late.t_load = Seconds_Since(t0);
  }
  for (Step *s : {&w, &late}) {
    const double fmarq = s == &w ? damping_first : damping_late;
    if (LS_Step(ds, *s, fmarq)) {
      std::printf("the least-squares step on the compressed road failed\n");
      return 1;
    }
    // Products: the start residual, one an iteration, a fresh residual every
    // 16 iterations.
    s->products = 1 + s->iterations + (s->iterations + 15) / 16;
    char title[160];
    std::snprintf(title, sizeof title,
                  "Least-squares step, compressed road (incomplete_solve 2, data_compression 1), "
                  "damping %g",
                  fmarq);
    Step_Report(title, *s, "  of which the compressed files' load");
    const double per_product = std::max(s->t_solve - s->t_load, 0.0) / std::max(s->products, 1);
    std::printf("  %-44s %10.2f GB/s  (%.1f MB a product; %.0f GB/s triad: %.0f %% of it)\n",
                "compressed product, values + indices", comp_bytes / 1e9 / per_product,
                comp_bytes / 1e6, triad_gbs, 100.0 * comp_bytes / 1e9 / per_product / triad_gbs);
  }
  const double hwm_wavelet = Status_MB("VmHWM:");
  const double slowest = std::max(w.Total(), late.Total());

  // The direct road, estimated.
  const double nd = static_cast<double>(n), md = static_cast<double>(m);
  const double direct_bytes = 8.0 * nd * nd + 4.0 * md * nd;
  const double avail = static_cast<double>(Available_Memory_Bytes());
  const double t_normal = md * nd * nd / (dgemm_gflops * 1e9);
  const double t_chol = nd * nd * nd / 3.0 / (dgemm_gflops * 1e9);
  std::printf("\nDirect road (estimated, not run)\n");
  std::printf("  %-44s %10.2f GB  (available %.2f GB: %s)\n", "memory 8 n^2 + 4 m n",
              direct_bytes / 1e9, avail / 1e9, direct_bytes < avail ? "fits" : "does not fit");
  std::printf("  %-44s %10.1f s  (m n^2 = %.3g flops at %.0f GFLOP/s)\n", "normal equations",
              t_normal, md * nd * nd, dgemm_gflops);
  std::printf("  %-44s %10.1f s  (n^3/3 = %.3g flops)\n", "Cholesky", t_chol, nd * nd * nd / 3.0);
  std::printf("  %-44s %10.1f s  against %.3f s measured on the compressed road (x%.0f)\n",
              "lower bound of the step", t_normal + t_chol, slowest,
              (t_normal + t_chol) / std::max(slowest, 1e-9));

  // The dense road, for comparison.
  if (dense && full_bytes * 1.1 < avail) {
    lm.data_compression = 0;
    Step d;
    {
      std::vector<float> jac(static_cast<size_t>(m * n));
      t0 = Clock::now();
      gradlod(ds, ds.file_names.temp[TF_GRROWT], m, n, jac.data());
      d.t_load = Seconds_Since(t0);
    }
    if (LS_Step(ds, d, damping_first)) {
      std::printf("the least-squares step on the dense road failed\n");
      return 1;
    }
    d.products = 1 + d.iterations;
    Step_Report("Least-squares step, dense road (data_compression 0, SGEMV products)", d,
                "  of which the Jacobian file's load");
    const double dense_per = std::max(d.t_solve - d.t_load, 0.0) / std::max(d.products, 1);
    std::printf("  %-44s %10.2f GB/s  (two passes of %.1f MB a product)\n",
                "dense product, Jacobian streamed twice", 2.0 * full_bytes / 1e9 / dense_per,
                full_bytes / 1e6);
    std::vector<float> rw(w.rhs.begin(), w.rhs.end()), rd(d.rhs.begin(), d.rhs.end());
    std::printf("  %-44s %10.5f\n", "||rhs_wavelet - rhs_dense|| / ||rhs_dense||",
                Norm(rw.data(), rd.data(), rd.size()) /
                    std::max(Norm(rd.data(), nullptr, rd.size()), 1e-30));
    std::printf("  %-44s %10.5f\n", "||dm_wavelet - dm_dense|| / ||dm_dense||",
                Norm(w.dm.data(), d.dm.data(), d.dm.size()) /
                    std::max(Norm(d.dm.data(), nullptr, d.dm.size()), 1e-30));
    std::printf("  %-44s %10.2f x\n", "dense step / compressed step",
                d.Total() / std::max(w.Total(), 1e-9));
  } else if (dense) {
    std::printf("\nDense road skipped: the Jacobian needs %.2f GB, %.2f GB available\n",
                full_bytes / 1e9, avail / 1e9);
  }

  std::printf("\nGoals\n");
  std::printf("  compressed Jacobian under %.0f %% of the full one at cut-off %g: %.2f %% at "
              "cut-off %g  %s%s\n",
              goal_pct, goal_cutoff, comp_pct, cutoff, comp_pct < goal_pct ? "PASS" : "MISS",
              cutoff == goal_cutoff ? "" : " (not at the goal's cut-off)");
  std::printf("  least-squares step under %.0f s (the slower of the two dampings): %.3f s  %s\n",
              goal_step_s, slowest, slowest < goal_step_s ? "PASS" : "MISS");
  std::printf("Peak memory (VmHWM): %.1f MB after the compressed step, %.1f MB at the end\n",
              hwm_wavelet, Status_MB("VmHWM:"));
  for (int f : {TF_GRROWT, TF_GRADCOMP, TF_GRADCOMP_I})
    std::filesystem::remove(ds.file_names.temp[f], ec);
  return 0;
}
