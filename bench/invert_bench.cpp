// Times a whole inversion of synthetic data and splits its time into the
// forward models, the Jacobian (with its parts), the normal equations and
// their solution; checks that the run finds the buried block; and sets the
// Jacobian's time against what the memory bandwidth allows for streaming the
// stored fields it combines.
//
// The case: the 9 x 14 electrode grid at 2.5 m of examples/grid_9x14.dat
// (dipole-dipole lines along x and y) over a 10 ohm-m box (x 7.5..12.5 m,
// y 13.75..18.75 m, depth 1.5..4.5 m) in a 100 ohm-m half-space, 3 % noise,
// 8 iterations. With --small: the 10 x 6 grid at 2 m of
// examples/grid_dipole_dipole.dat over a box x 6..12, y 3..7, depth 0.7..2.5.
// The synthetic data are written once; each run reads them into a fresh data
// set and inverts them. Times are the median of the runs.
//
// With --scale: the cost's growth with the survey. Square grids of 9 x 9,
// 18 x 18 and 27 x 27 electrodes at 2.5 m (dipole-dipole, pole-dipole and
// Wenner lines along x and y on every other grid line, made by the bench)
// over a 10 ohm-m box in 100 ohm-m, 3 iterations each; a table of the time
// per iteration split into its parts, the peak memory of each case, and the
// growth exponent of the time per iteration between the two larger grids.
// --scale-grid N runs one such grid.
//
//   ohmvol3d_bench_invert [--small | --scale | --scale-grid N] [--reps N]
//                         [--solver mumps|block] [--models DIR]
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <omp.h>

#include "bench_survey.h"
#include "core/clock.h"
#include "core/commands.h"
#include "core/cpu_info.h"
#include "core/data_set.h"
#include "core/front_end.h"
#include "forward/sparse_solver.h"
#include "forward/synthetic.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian.h"

#ifndef OHMVOL3D_EXAMPLES
#define OHMVOL3D_EXAMPLES "examples"
#endif

namespace {

// STREAM triad rate of the machines this runs on, GB/s.
constexpr double triad_gbs = 27.0;
constexpr double noise_pct = 3.0;
constexpr unsigned noise_seed = 7;
constexpr int lowest_cells = 10;
// The sparse solver forced with --solver (-1: the program's choice).
int forced_solver = -1;
// --models DIR: each case's last model and RMS are kept there, or compared
// with those kept there by an earlier build.
std::string models_dir;

struct Bench_Case {
  std::string name;
  std::string file; // in the examples folder, or the file the bench makes
  double box[6];    // x1 x2 y1 y2 depth1 depth2, metres
  double box_res, background;
  int iterations = 8;
  int square_grid = 0; // n of an n x n grid the bench makes (0: an example file)
};

const Bench_Case full_case = {"block under the 9 x 14 grid",
                              "grid_9x14.dat",
                              {7.5, 12.5, 13.75, 18.75, 1.5, 4.5},
                              10.0,
                              100.0,
                              8,
                              0};
const Bench_Case small_case = {"block under the 10 x 6 grid",
                               "grid_dipole_dipole.dat",
                               {6.0, 12.0, 3.0, 7.0, 0.7, 2.5},
                               10.0,
                               100.0,
                               8,
                               0};

constexpr double square_spacing = 2.5;

// The n x n grid case: a box a quarter of the grid wide near its centre,
// 1.5 to 4.5 m deep.
Bench_Case Square_Case(int n) {
  const double len = (n - 1) * square_spacing;
  Bench_Case c{"block under the " + std::to_string(n) + " x " + std::to_string(n) + " grid",
               "square_" + std::to_string(n) + ".dat",
               {0.35 * len, 0.6 * len, 0.4 * len, 0.65 * len, 1.5, 4.5},
               10.0,
               100.0,
               3,
               n};
  return c;
}

// Counts the work of one run from the progress lines the core sends: each
// forward calculation ends with "End forward modeling" (the normalisation
// pass of a run with normalised potentials is one more, announced by
// "Normalise potentials"); each Jacobian starts with "FEM Jacobian matrix
// calculation." (where the nodes of the solved mesh are taken); each direct
// solution of the normal equations announces its Cholesky step.
struct Work_Count {
  Data_Set *ds = nullptr;
  int forward = 0, normalise = 0, jacobians = 0, fields_in_ram = 0, solves = 0;
  double nodes_sum = 0.0; // n of the solved mesh, summed over the Jacobians
  int64_t nodes_min = 0, nodes_max = 0;
  int complex_fields = 0;
};

int Count_Progress(void *user, const char *text, double) {
  Work_Count &c = *static_cast<Work_Count *>(user);
  if (std::strcmp(text, "End forward modeling") == 0) {
    c.forward++;
  } else if (std::strcmp(text, "Normalise potentials") == 0) {
    c.normalise++;
  } else if (std::strcmp(text, "FEM Jacobian matrix calculation.") == 0) {
    const int64_t n = c.ds->Fem.coomatrix64.n;
    c.nodes_min = c.jacobians ? std::min(c.nodes_min, n) : n;
    c.nodes_max = c.jacobians ? std::max(c.nodes_max, n) : n;
    c.nodes_sum += static_cast<double>(n);
    c.complex_fields |= c.ds->Fem.coomatrix64.cmplx != 0;
    c.jacobians++;
  } else if (std::strcmp(text, "Finite-element method. Read potentials data values.") == 0) {
    c.fields_in_ram++;
  } else if (std::strcmp(text, "Direct solution least-squares equation") == 0) {
    c.solves++;
  }
  return 0;
}

// The stored fields one Jacobian reads: each source's field once (the
// element products are made once a source), against the field terms a
// datum-by-datum method would combine (one per electrode of each side).
struct Field_Count {
  int64_t sources = 0, terms = 0;
};

Field_Count Count_Fields(const Data_Set &ds) {
  Field_Count f;
  std::vector<char> used(std::max(ds.nelec_use, 0) + 1, 0);
  for (int d = 0; d < ds.mdata; d++) {
    const Data_Point &p = ds.dp[d];
    const int e[4] = {p.nc1, p.np1, p.nelec > 2 ? p.np2 : -1, p.nelec > 3 ? p.nc2 : -1};
    for (int k : e)
      if (k >= 0) {
        f.terms++;
        if (k >= static_cast<int>(used.size()))
          used.resize(k + 1, 0);
        used[k] = 1;
      }
  }
  f.sources = std::count(used.begin(), used.end(), 1);
  return f;
}

// One cell of the last model.
struct Cell {
  int block = 0;
  double res = 0.0, x = 0.0, y = 0.0, depth = 0.0;
  bool in_x = false, in_y = false, in_depth = false;
  bool In_Box() const { return in_x && in_y && in_depth; }
};

// What one run gives.
struct Run_Result {
  int ok = 0;
  int mdata = 0, nmodel = 0, nlayers = 0;
  int iterations = 0;
  double rms = 0.0, rms0 = 0.0;
  std::vector<double> hist_rms, hist_seconds, hist_fmarq;
  Work_Count work;
  Field_Count fields;
  std::vector<Cell> lowest;
  std::vector<double> model; // the last model, ohm-m by cell
  int use_dipoles = 0;
  // Seconds.
  double peak_mb = 0.0;
  double wall = 0.0, t_first_setup = 0.0, t_set = 0.0, t_forward = 0.0, t_fac = 0.0,
         t_solve_fem = 0.0, t_jac = 0.0, t_jac1 = 0.0, t_jac2 = 0.0, t_jac3 = 0.0, t_jac4 = 0.0,
         t_normal = 0.0, t_chol = 0.0;
};

// The numbers of the last "MODEL iteration" section of a results file, in
// block order.
std::vector<double> Last_Model(const std::string &path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  const std::string text = s.str();
  std::vector<double> v;
  const size_t last = text.rfind("MODEL iteration");
  if (last == std::string::npos)
    return v;
  std::istringstream lines(text.substr(last));
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line) && line.rfind("CALCULATED", 0) != 0) {
    if (line.rfind("LAYER", 0) == 0)
      continue;
    std::istringstream ls(line);
    double x;
    while (ls >> x)
      v.push_back(x);
  }
  return v;
}

// The `lowest_cells` cells of lowest resistivity with their positions in
// metres and whether they lie in the box.
std::vector<Cell> Lowest_Cells(const Data_Set &ds, const std::vector<double> &model,
                               const double *box) {
  const Model_Grid &g = ds.Model_grid;
  std::vector<int> order(g.nmodel_blocks);
  for (int b = 0; b < g.nmodel_blocks; b++)
    order[b] = b;
  const int k = std::min<int>(lowest_cells, g.nmodel_blocks);
  std::partial_sort(order.begin(), order.begin() + k, order.end(),
                    [&](int a, int b) { return model[a] < model[b]; });
  std::vector<Cell> cells;
  for (int i = 0; i < k; i++) {
    const Model_Block &b = g.blocks[order[i]];
    Cell c;
    c.block = order[i];
    c.res = model[order[i]];
    c.x = b.xc * ds.spxx + ds.xmin;
    c.y = b.yc * ds.spxx + ds.ymin;
    c.depth = b.zc * ds.spxx;
    c.in_x = c.x >= box[0] && c.x <= box[1];
    c.in_y = c.y >= box[2] && c.y <= box[3];
    c.in_depth = c.depth >= box[4] && c.depth <= box[5];
    cells.push_back(c);
  }
  return cells;
}

// Reads the synthetic data into a fresh data set and inverts them.
// Starts a new peak of the resident memory (VmHWM) for the next case.
void Reset_Peak_Memory() {
  if (FILE *f = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", f);
    std::fclose(f);
  }
}

Run_Result Invert_Run(const std::string &dir, const std::string &data, const double *box,
                      int iterations) {
  Run_Result r;
  Bench_Data_Set b(dir);
  Data_Set &ds = b.ds;
  if (ds.Run_Command(CMD_READ_DATA, data.c_str()))
    return r;
  ds.LS_method.nit = iterations;
  ds.Fem.solver_kind = forced_solver;
  r.fields = Count_Fields(ds);
  r.use_dipoles = ds.use_dipoles_fem;
  r.work.ds = &ds;
  ds.fe.user = &r.work;
  ds.fe.progress = Count_Progress;
  const std::string results = dir + "/synthetic.inv";
  const auto t0 = Clock::now();
  Reset_Peak_Memory();
  const int ierr = ds.Run_Command(CMD_INVERT, results.c_str());
  r.wall = Seconds_Since(t0);
  r.peak_mb = Status_MB("VmHWM:");
  ds.fe.progress = Silent_Front_End(true).progress;
  r.work.ds = nullptr;
  if (ierr)
    return r;
  const LS_State &ls = ds.LS;
  r.mdata = ds.mdata;
  r.nmodel = ds.Model_grid.nmodel_blocks;
  r.nlayers = ds.Model_grid.nlayers;
  r.iterations = ls.nitcountres;
  r.rms = ls.hist_rms[ls.nitcountres];
  r.rms0 = ls.hist_rms[0];
  for (int k = 0; k <= ls.nitcountres; k++) {
    r.hist_rms.push_back(ls.hist_rms[k]);
    r.hist_seconds.push_back(ls.hist_seconds[k]);
    r.hist_fmarq.push_back(ls.hist_fmarq[k]);
  }
  r.t_set = ls.time_set;
  r.t_first_setup = ls.time_first_setup;
  r.t_forward = ls.time_forward;
  r.t_fac = ls.time_fac;
  r.t_solve_fem = ls.time_solve;
  r.t_jac = ls.time_jac;
  r.t_jac1 = ls.time_jac1;
  r.t_jac2 = ls.time_jac2;
  r.t_jac3 = ls.time_jac3;
  r.t_jac4 = ls.time_jac4;
  r.t_normal = ls.time_normal;
  r.t_chol = ls.time_chol;
  const std::vector<double> model = Last_Model(results);
  if (static_cast<int>(model.size()) != r.nmodel) {
    std::fprintf(stderr, "the last model of %s has %zu values for %d cells\n", results.c_str(),
                 model.size(), r.nmodel);
    return r;
  }
  r.lowest = Lowest_Cells(ds, model, box);
  r.model = model;
  std::filesystem::remove(results);
  r.ok = 1;
  return r;
}

// The first run with the median of every time.
Run_Result Median_Run(const std::vector<Run_Result> &runs) {
  Run_Result m = runs[0];
  for (double Run_Result::*f :
       {&Run_Result::wall, &Run_Result::peak_mb, &Run_Result::t_first_setup, &Run_Result::t_set,
        &Run_Result::t_forward, &Run_Result::t_fac, &Run_Result::t_solve_fem, &Run_Result::t_jac,
        &Run_Result::t_jac1, &Run_Result::t_jac2, &Run_Result::t_jac3, &Run_Result::t_jac4,
        &Run_Result::t_normal, &Run_Result::t_chol}) {
    std::vector<double> v;
    for (const Run_Result &r : runs)
      v.push_back(r.*f);
    m.*f = Median(v);
  }
  return m;
}

double Per(double total, int count) {
  return count > 0 ? total / count : 0.0;
}

void Time_Row(const char *label, double total, int iters, int count, const char *per_what) {
  std::printf("  %-34s %10.3f %12.4f %7d %12.4f  per %s\n", label, total, Per(total, iters), count,
              Per(total, count), per_what);
}

// Keeps the model in models_dir, or compares it with the one kept there.
void Keep_Or_Compare_Model(const Bench_Case &bc, const Run_Result &r) {
  const std::string path =
      models_dir + "/" + std::filesystem::path(bc.file).stem().string() + ".model";
  std::ifstream in(path);
  if (!in) {
    FILE *f = std::fopen(path.c_str(), "w");
    bool ok = f && std::fprintf(f, "%.9g\n", r.rms) > 0;
    for (double v : r.model)
      ok = ok && std::fprintf(f, "%.9g\n", v) > 0;
    if (!f || std::fclose(f) || !ok)
      std::printf("  cannot write %s\n", path.c_str());
    else
      std::printf("  last model kept in %s\n", path.c_str());
    return;
  }
  double rms = 0.0, v = 0.0;
  std::vector<double> kept;
  in >> rms;
  while (in >> v)
    kept.push_back(v);
  if (kept.size() != r.model.size()) {
    std::printf("  %s has %zu cells, this run %zu: not compared\n", path.c_str(), kept.size(),
                r.model.size());
    return;
  }
  double largest = 0.0;
  size_t at = 0;
  for (size_t k = 0; k < kept.size(); k++) {
    const double d = std::fabs(r.model[k] - kept[k]) / std::max(std::fabs(kept[k]), 1e-30);
    if (d > largest)
      largest = d, at = k;
  }
  std::printf("  against %s: final RMS %.4f %% then, %.4f %% now (%.4f %% relative); largest "
              "relative change of a cell %.5f %% (cell %zu)\n",
              path.c_str(), rms, r.rms, 100.0 * std::fabs(r.rms - rms) / rms, 100.0 * largest,
              at + 1);
}

int Run_Case(const Bench_Case &bc, int reps, Run_Result *median = nullptr) {
  char pattern[] = "/tmp/ohmvol3d_bench_invert_XXXXXX";
  if (!mkdtemp(pattern))
    return 1;
  const std::string dir = pattern;
  const std::string survey = dir + "/" + bc.file, data = dir + "/synthetic.dat";
  if (bc.square_grid > 0) {
    const std::string text =
        Make_Square_Survey(bc.name.c_str(), bc.square_grid, square_spacing, 100.0);
    FILE *f = std::fopen(survey.c_str(), "w");
    const bool ok = f && std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (!f || std::fclose(f) || !ok) {
      std::printf("cannot write %s\n", survey.c_str());
      std::filesystem::remove_all(dir);
      return 1;
    }
  } else {
    std::error_code ec;
    std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/" + bc.file, survey, ec);
    if (ec) {
      std::printf("cannot copy %s/%s: %s\n", OHMVOL3D_EXAMPLES, bc.file.c_str(),
                  ec.message().c_str());
      std::filesystem::remove_all(dir);
      return 1;
    }
  }

  // The synthetic data, written once.
  double t_synth = 0.0;
  {
    Bench_Data_Set b(dir);
    Data_Set &ds = b.ds;
    if (ds.Run_Command(CMD_READ_DATA, survey.c_str())) {
      std::printf("%s: %s could not be read\n", bc.name.c_str(), survey.c_str());
      std::filesystem::remove_all(dir);
      return 1;
    }
    Synthetic_Model model;
    model.background = bc.background;
    Synthetic_Box box;
    std::copy(bc.box, bc.box + 6, box.lim);
    box.res = bc.box_res;
    model.boxes.push_back(box);
    const auto t0 = Clock::now();
    const int ierr = Forward_Synthetic_Data(ds, model, data.c_str(), noise_pct, noise_seed);
    t_synth = Seconds_Since(t0);
    if (ierr) {
      std::printf("%s: the synthetic data could not be made\n", bc.name.c_str());
      std::filesystem::remove_all(dir);
      return 1;
    }
  }

  std::vector<Run_Result> runs;
  for (int k = 0; k < reps; k++) {
    runs.push_back(Invert_Run(dir, data, bc.box, bc.iterations));
    if (!runs.back().ok) {
      std::printf("%s: inversion run %d failed\n", bc.name.c_str(), k + 1);
      std::filesystem::remove_all(dir);
      return 1;
    }
  }
  std::filesystem::remove_all(dir);

  const Run_Result m = Median_Run(runs);
  const Work_Count &w = m.work;
  std::printf("\n=== %s (%s) ===\n", bc.name.c_str(), bc.file.c_str());
  std::printf("Model: %.0f ohm-m box x %.2f..%.2f m, y %.2f..%.2f m, depth %.2f..%.2f m in "
              "%.0f ohm-m; %.0f %% noise (seed %u), made in %.2f s\n",
              bc.box_res, bc.box[0], bc.box[1], bc.box[2], bc.box[3], bc.box[4], bc.box[5],
              bc.background, noise_pct, noise_seed, t_synth);
  std::printf("Inversion: %d data, %d model cells in %d layers, %d iterations asked; solved mesh "
              "%lld nodes",
              m.mdata, m.nmodel, m.nlayers, bc.iterations, static_cast<long long>(w.nodes_max));
  if (w.nodes_min != w.nodes_max)
    std::printf(" (%lld to %lld over the run)", static_cast<long long>(w.nodes_min),
                static_cast<long long>(w.nodes_max));
  std::printf("\n");

  std::printf("\nRuns\n  %-4s %9s %6s %9s %8s %8s %8s %8s\n", "run", "wall s", "iters", "RMS %",
              "fwd", "jacob", "solves", "in box");
  for (size_t k = 0; k < runs.size(); k++) {
    const Run_Result &r = runs[k];
    const int inside = static_cast<int>(
        std::count_if(r.lowest.begin(), r.lowest.end(), [](const Cell &c) { return c.In_Box(); }));
    std::printf("  %-4zu %9.2f %6d %9.2f %8d %8d %8d %5d/%zu\n", k + 1, r.wall, r.iterations, r.rms,
                r.work.forward, r.work.jacobians, r.work.solves, inside, r.lowest.size());
  }
  for (const Run_Result &r : runs)
    if (r.iterations != m.iterations || r.work.forward != w.forward ||
        r.work.jacobians != w.jacobians || r.work.solves != w.solves)
      std::printf("  note: the runs differ in their counts; the tables below use run 1's\n");

  std::printf("\nIterations (run 1)\n  %-5s %9s %10s %9s\n", "iter", "RMS %", "damping", "seconds");
  for (size_t k = 0; k < m.hist_rms.size(); k++)
    if (k == 0)
      std::printf("  %-5s %9.2f %10s %9s\n", "start", m.hist_rms[0], "", "");
    else
      std::printf("  %-5zu %9.2f %10.5f %9.2f\n", k, m.hist_rms[k], m.hist_fmarq[k],
                  m.hist_seconds[k]);

  const int inside = static_cast<int>(
      std::count_if(m.lowest.begin(), m.lowest.end(), [](const Cell &c) { return c.In_Box(); }));
  const int inside_xy = static_cast<int>(std::count_if(
      m.lowest.begin(), m.lowest.end(), [](const Cell &c) { return c.in_x && c.in_y; }));
  std::printf("\nThe %zu lowest-resistivity cells of the last model (run 1)\n", m.lowest.size());
  std::printf("  %-6s %10s %8s %8s %8s  %s\n", "cell", "ohm-m", "x m", "y m", "depth m",
              "in box (x y depth)");
  for (const Cell &c : m.lowest)
    std::printf("  %-6d %10.3f %8.3f %8.3f %8.3f  %-3s (%c %c %c)\n", c.block + 1, c.res, c.x, c.y,
                c.depth, c.In_Box() ? "yes" : "NO", c.in_x ? '+' : '-', c.in_y ? '+' : '-',
                c.in_depth ? '+' : '-');

  // time_forward is the forward calculation alone (Forward_Model_LS, with the
  // normalisation pass where there is one); the Jacobian that follows it is
  // timed apart in time_jac, so the two do not overlap.
  const int it = m.iterations;
  const int fwd_models = w.forward - w.normalise;
  const double jac_parts = m.t_jac1 + m.t_jac2 + m.t_jac3 + m.t_jac4;
  const double counted = m.t_forward + m.t_jac + m.t_normal + m.t_chol;
  std::printf("\nTimes, seconds (median of %d runs; totals are cumulative over the run, set-up "
              "included)\n",
              reps);
  std::printf("  %-34s %10s %12s %7s %12s\n", "", "total", "/ iteration", "count", "/ call");
  Time_Row("whole run (wall clock)", m.wall, it, it, "iteration");
  Time_Row("  set-up (to the first RHS)", m.t_set, it, 1, "run");
  Time_Row("  first forward's set-up (no solves)", m.t_first_setup, it, 1, "run");
  Time_Row("forward model (time_forward)", m.t_forward, it, fwd_models, "forward model");
  Time_Row("  factorisation (Fem.t_factor)", m.t_fac, it, fwd_models, "forward model");
  Time_Row("  solves (Fem.t_solve)", m.t_solve_fem, it, fwd_models, "forward model");
  Time_Row("Jacobian (time_jac)", m.t_jac, it, w.jacobians, "Jacobian");
  Time_Row("  map (time_jac1)", m.t_jac1, it, w.jacobians, "Jacobian");
  Time_Row("  element products (time_jac2)", m.t_jac2, it, w.jacobians, "Jacobian");
  Time_Row("  data rows (time_jac3)", m.t_jac3, it, w.jacobians, "Jacobian");
  Time_Row("  write (time_jac4)", m.t_jac4, it, w.jacobians, "Jacobian");
  Time_Row("  rest (fields in, buffers)", m.t_jac - jac_parts, it, w.jacobians, "Jacobian");
  Time_Row("normal equations (time_normal)", m.t_normal, it, w.solves, "solution");
  Time_Row("solve (time_chol)", m.t_chol, it, w.solves, "solution");
  Time_Row("other (wall - the four above)", m.wall - counted, it, it, "iteration");
  std::printf("  forward models %d (%d with the Jacobian, %d without)%s; normal-equation "
              "solutions %d; iterations %d\n",
              fwd_models, w.jacobians, fwd_models - w.jacobians,
              w.normalise ? " plus normalisation passes" : "", w.solves, it);
  if (w.normalise)
    std::printf("  normalisation passes: %d, inside time_forward\n", w.normalise);

  // Bytes of stored fields the Jacobian reads per forward model.
  const Field_Count &f = m.fields;
  const double n = Per(w.nodes_sum, w.jacobians);
  const int parts = w.complex_fields ? 2 : 1;
  const double bytes = static_cast<double>(f.sources) * n * 4.0 * parts;
  const double t_bound = bytes / (triad_gbs * 1e9);
  const double t_meas = Per(m.t_jac, w.jacobians);
  std::printf("\nJacobian against the memory bandwidth (%.0f GB/s triad), per forward model with "
              "the Jacobian\n",
              triad_gbs);
  std::printf("  fields read %lld (each source once; %lld field terms over the data), n = %.0f "
              "nodes%s%s\n",
              static_cast<long long>(f.sources), static_cast<long long>(f.terms), n,
              parts == 2 ? ", complex (x2)" : "",
              m.use_dipoles ? "; NOTE: dipole sources are on, counted by electrode" : "");
  std::printf("  %-46s %14.0f  (%.3f GB)\n", "stored-field bytes read", bytes, bytes / 1e9);
  std::printf("  %-46s %14.4f s\n", "time at the bandwidth limit", t_bound);
  std::printf("  %-46s %14.4f s  ratio %.2f\n", "measured Jacobian (time_jac / Jacobians)", t_meas,
              t_bound > 0.0 ? t_meas / t_bound : 0.0);
  std::printf("  %-46s %14.4f s\n", "  element products (time_jac2)", Per(m.t_jac2, w.jacobians));
  std::printf("  %-46s %14.4f s\n", "  data rows (time_jac3)", Per(m.t_jac3, w.jacobians));
  std::printf("  fields held in memory for %d of %d Jacobians\n", w.fields_in_ram, w.jacobians);

  std::printf("\nSummary (%s)\n", bc.name.c_str());
  std::printf("  iterations done %d of %d, final RMS %.2f %% (start %.2f %%), %d of %zu lowest "
              "cells in the box (%d in its x-y outline), wall %.2f s, %.2f s per iteration\n",
              m.iterations, bc.iterations, m.rms, m.rms0, inside, m.lowest.size(), inside_xy,
              m.wall, Per(m.wall, it));
  if (!models_dir.empty())
    Keep_Or_Compare_Model(bc, runs[0]);
  if (median)
    *median = m;
  return 0;
}

// The median time of an iteration (set-up apart).
double Iteration_Seconds(const Run_Result &r) {
  std::vector<double> v(r.hist_seconds.begin() + std::min<size_t>(1, r.hist_seconds.size()),
                        r.hist_seconds.end());
  return Median(v);
}

// The square grids one after another, then their table: the median time of
// an iteration, the wall clock over the iterations (set-up included), the
// first forward model's set-up, each forward model's and each Jacobian's
// time with their parts, each solution of the normal equations (product
// and Cholesky), the peak memory.
int Run_Scale(const std::vector<int> &grids, int reps) {
  std::vector<Run_Result> rows;
  for (int n : grids) {
    Run_Result m;
    if (Run_Case(Square_Case(n), reps, &m))
      return 1;
    rows.push_back(m);
  }
  std::printf("\nGrowth with the survey (seconds, median of %d run%s; forward, factor and solves "
              "per forward model, J and its parts per Jacobian, normal per solution)\n",
              reps, reps == 1 ? "" : "s");
  std::printf("  %5s %6s %7s %7s %8s %7s %7s %7s %7s %7s %7s %7s %7s %7s %7s\n", "elec", "data",
              "nodes", "iter", "wall/it", "1st set", "forward", "factor", "solves", "J", "J fill",
              "J rows", "J write", "normal", "peak MB");
  for (size_t k = 0; k < rows.size(); k++) {
    const Run_Result &r = rows[k];
    const int it = std::max(r.iterations, 1), fw = std::max(r.work.forward, 1),
              jc = std::max(r.work.jacobians, 1), sv = std::max(r.work.solves, 1);
    std::printf("  %5d %6d %7lld %7.2f %8.2f %7.2f %7.2f %7.2f %7.2f %7.2f %7.2f %7.2f %7.2f %7.2f "
                "%7.0f\n",
                grids[k] * grids[k], r.mdata, static_cast<long long>(r.work.nodes_max),
                Iteration_Seconds(r), r.wall / it, r.t_first_setup, r.t_forward / fw, r.t_fac / fw,
                r.t_solve_fem / fw, r.t_jac / jc, r.t_jac2 / jc, r.t_jac3 / jc, r.t_jac4 / jc,
                (r.t_normal + r.t_chol) / sv, r.peak_mb);
  }
  if (rows.size() >= 2) {
    const size_t a = rows.size() - 2, b = rows.size() - 1;
    const double ea = grids[a] * grids[a], eb = grids[b] * grids[b];
    std::printf("  the time of an iteration grows as electrodes^%.2f from %.0f to %.0f "
                "electrodes\n",
                std::log(Iteration_Seconds(rows[b]) / Iteration_Seconds(rows[a])) /
                    std::log(eb / ea),
                ea, eb);
  }
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  Select_Blas_Kernel(argv);
  const Bench_Case *bc = &full_case;
  std::vector<int> scale;
  int reps = 1;
  for (int k = 1; k < argc; k++) {
    const std::string a = argv[k];
    if (a == "--small") {
      bc = &small_case;
    } else if (a == "--scale") {
      scale = {9, 18, 27};
    } else if (a == "--scale-grid" && k + 1 < argc) {
      scale = {std::max(4, std::atoi(argv[++k]))};
    } else if (a == "--reps" && k + 1 < argc) {
      reps = std::max(1, std::atoi(argv[++k]));
    } else if (a == "--models" && k + 1 < argc) {
      models_dir = argv[++k];
    } else if (a == "--solver" && k + 1 < argc) {
      const std::string name = argv[++k];
      forced_solver = name == "mumps" ? solver_mumps : name == "block" ? solver_block : -2;
      if (forced_solver == -2) {
        std::fprintf(stderr, "--solver takes mumps or block\n");
        return 2;
      }
    } else {
      std::fprintf(
          stderr,
          "usage: %s [--small | --scale | --scale-grid N] [--reps N] [--solver mumps|block]\n"
          "       [--models DIR]\n",
          argv[0]);
      return 2;
    }
  }
  std::printf("Inversion benchmark: %d threads (omp_get_max_threads), BLAS kernel %s, %d run%s\n",
              omp_get_max_threads(), Blas_Kernel_Name(), reps, reps == 1 ? "" : "s");
  return scale.empty() ? Run_Case(*bc, reps) : Run_Scale(scale, reps);
}
