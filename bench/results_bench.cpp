// Reading a results file back and exporting its last iteration, timed.
// Without a file name the results come from the synthetic-block case: the
// 9 x 14 electrode grid over a 10 ohm-m box in 100 ohm-m, 3 % noise, eight
// iterations. Usage: ohmvol3d_bench_results [RESULTS.inv] [--reps N]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_survey.h"
#include "core/clock.h"
#include "core/commands.h"
#include "results/exports.h"
#include "results/results_file.h"

namespace {

struct Timing {
  const char *what;
  double best = 1e30, sum = 0.0;
  int runs = 0, ok = 1;
  size_t bytes = 0;
};

} // namespace

int main(int argc, char **argv) {
  std::string inv;
  int reps = 5;
  for (int k = 1; k < argc; k++) {
    if (!std::strcmp(argv[k], "--reps") && k + 1 < argc)
      reps = std::max(1, std::atoi(argv[++k]));
    else
      inv = argv[k];
  }
  std::string dir;
  if (Bench_Results_File("ohmvol3d_bench_results", dir, inv))
    return 1;
  const auto size = std::filesystem::file_size(inv);
  Bench_Data_Set b(dir);
  Data_Set &ds = b.ds;
  Timing read{"read back (command 7000)"};
  for (int k = 0; k < reps; k++) {
    const auto t0 = Clock::now();
    read.ok &= ds.Run_Command(CMD_READ_RESULTS, inv.c_str()) == 0;
    const double t = Seconds_Since(t0);
    read.best = std::min(read.best, t), read.sum += t, read.runs++;
  }
  if (!read.ok) {
    std::printf("%s could not be read\n", inv.c_str());
    return 1;
  }
  const Inv_Results &r = ds.Inv_results;
  std::printf("Results file %s: %.2f MB, %d iterations, %d cells, %d data\n", inv.c_str(),
              size / 1048576.0, r.nitcount_inv, r.nmodel, r.mdata);
  struct Export {
    const char *what;
    int id, log;
  } exports[] = {{"model list (xyz)", CMD_EXPORT_XYZ, 0},
                 {"XYZC table and electrodes", CMD_EXPORT_XYZC, 0},
                 {"log10 XYZC table", CMD_EXPORT_XYZC, 1},
                 {"VTK model and electrodes", CMD_EXPORT_VTK, 0},
                 {"data misfit listing", CMD_EXPORT_MISFIT, 0}};
  std::vector<Timing> times;
  for (const Export &e : exports) {
    Timing t{e.what};
    for (int k = 0; k < reps; k++) {
      ds.Run_Command(CMD_READ_RESULTS, inv.c_str());
      ds.Inv_results.export_log = e.log;
      const auto t0 = Clock::now();
      t.ok &= ds.Run_Command(e.id) == 0;
      const double s = Seconds_Since(t0);
      t.best = std::min(t.best, s), t.sum += s, t.runs++;
    }
    times.push_back(t);
  }
  std::printf("\nSeconds (best and mean of %d; goal: under 1 s each)\n", reps);
  std::printf("  %-30s %9.4f %9.4f\n", read.what, read.best, read.sum / read.runs);
  for (const Timing &t : times)
    std::printf("  %-30s %9.4f %9.4f%s\n", t.what, t.best, t.sum / t.runs, t.ok ? "" : "  FAILED");
  std::printf("  read rate %.1f MB/s\n", size / 1048576.0 / read.best);
  std::filesystem::remove_all(dir);
  return 0;
}
