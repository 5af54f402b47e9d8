// Times the read of a large survey data file from disk (Call_Read_Data_File:
// load, parse, checks, sort, geometric factors). The file is made here: a
// general array (sub-array 3, dipole-dipole) over a point electrode list on a
// 100 x 60 grid of lines 1 m apart, 60,000 four-electrode data points with
// positive geometric factors; once with resistivity only, once with IP values
// and 2 time series. Goal: under 2 s for 60,000 points.
//
//   ohmvol3d_bench_parse [points] [runs]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/front_end.h"
#include "survey/survey.h"

namespace {

constexpr int grid_nx = 100, grid_ny = 60; // grid lines, 1 m apart; an electrode at each node

Front_End Silent_Front_End() {
  Front_End fe;
  fe.message = [](void *, const char *, const char *, int) {};
  fe.question = [](void *, const char *, const char *) { return 0; };
  fe.panel_line = [](void *, const char *, int) {};
  fe.progress = [](void *, const char *, double) { return 0; };
  fe.beep = [](void *) {};
  return fe;
}

// The data file text. Dipole-dipole points along the x lines: C1 C2 one
// spacing apart to the right of P1 P2, n = 1, 2, ... spacings between them.
std::string Make_Data_File(int points, bool ip, int ntime) {
  std::string f;
  f.reserve(static_cast<size_t>(points) * (ip ? 96 : 72) + 200000);
  char line[256];
  f += "General array dipole-dipole benchmark survey\n";
  std::snprintf(line, sizeof line, "%d,%d\nNonuniform Grid\nX-location of grid lines\n", grid_nx,
                grid_ny);
  f += line;
  for (int i = 0; i < grid_nx; i++) {
    std::snprintf(line, sizeof line, "%d.00 ", i);
    f += line;
  }
  f += "\nY-location of grid lines\n";
  for (int j = 0; j < grid_ny; j++) {
    std::snprintf(line, sizeof line, "%d.00 ", j);
    f += line;
  }
  f += "\n11\n3\nType of measurement (0=Apparent Resistivity,1=Resistance)\n0\n";
  std::snprintf(line, sizeof line,
                "Point Electrodes outside grid present\nNumber of point electrodes\n%d\nCompressed "
                "format used for point electrodes coordinates\n",
                grid_nx * grid_ny);
  f += line;
  for (int j = 0, k = 1; j < grid_ny; j++)
    for (int i = 0; i < grid_nx; i++, k++) {
      std::snprintf(line, sizeof line, "%6d %d.000,%d.000,0.000\n", k, i, j);
      f += line;
    }
  std::snprintf(line, sizeof line, "%d\n", points);
  f += line;
  if (ip)
    f += "IP present\nChargeability\nmV/V\n0.12,1.0\n";
  if (ntime > 1) {
    std::snprintf(line, sizeof line,
                  "Time lapse data\nType of time lapse data (0=static,1=dynamic)\n0\nNumber of "
                  "time sections\n%d\nTime unit\nDays\n",
                  ntime);
    f += line;
    for (int k = 1; k < ntime; k++) {
      std::snprintf(line, sizeof line, "Time series %d\n%.2f\n", k + 1, 10.0 * k);
      f += line;
    }
  }
  const int per_line = points / grid_ny + (points % grid_ny != 0);
  int written = 0;
  for (int y = 0; y < grid_ny && written < points; y++) {
    int on_line = 0;
    for (int n = 1; n < grid_nx - 2 && on_line < per_line && written < points; n++)
      for (int c = n + 1; c + 1 < grid_nx && on_line < per_line && written < points; c++) {
        const double rho = 100.0 + 20.0 * std::sin(0.05 * c + 0.3 * n) + 0.1 * y;
        int len = std::snprintf(line, sizeof line,
                                "4 %d.000 %d.000 %d.000 %d.000 %d.000 %d.000 %d.000 %d.000", c, y,
                                c + 1, y, c - n, y, c - n - 1, y);
        for (int t = 0; t < ntime; t++)
          len += std::snprintf(line + len, sizeof line - len, " %.3f", rho * (1.0 - 0.03 * t));
        if (ip)
          for (int t = 0; t < ntime; t++)
            len += std::snprintf(line + len, sizeof line - len, " %.3f",
                                 5.0 + 2.0 * std::cos(0.07 * c + 0.2 * n) + 0.5 * t);
        line[len++] = '\n';
        f.append(line, static_cast<size_t>(len));
        on_line++;
        written++;
      }
  }
  if (written < points) {
    std::fprintf(stderr, "only %d of %d points fit on the grid\n", written, points);
    std::exit(1);
  }
  f += "0\n0\n0\n0\n0\n";
  return f;
}

void Time_Reads(Data_Set &ds, const std::string &folder, const char *label, int points, bool ip,
                int ntime, int runs) {
  const std::string path = folder + "/bench_" + std::to_string(ntime) + (ip ? "_ip" : "") + ".dat";
  const std::string text = Make_Data_File(points, ip, ntime);
  FILE *f = std::fopen(path.c_str(), "wb");
  if (!f || std::fwrite(text.data(), 1, text.size(), f) != text.size()) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
  std::fclose(f);
  std::vector<double> times;
  for (int r = 0; r < runs; r++) {
    const auto t0 = Clock::now();
    const int ierr = Call_Read_Data_File(ds, path.c_str());
    times.push_back(Seconds_Since(t0));
    if (ierr != 0 || ds.mdata != points || ds.ntime != ntime) {
      std::fprintf(stderr, "%s: the read failed (ierr %d, %d points, %d series): %s\n", label, ierr,
                   ds.mdata, ds.ntime, ds.mesg);
      std::exit(1);
    }
  }
  std::sort(times.begin(), times.end());
  const double median = times[times.size() / 2];
  std::printf("%-32s file %7.2f MB  min %.3f s  median %.3f s  %9.0f points/s%s\n", label,
              static_cast<double>(text.size()) / 1e6, times.front(), median, points / median,
              median < 2.0 ? "" : "  (over the 2 s goal)");
}

} // namespace

int main(int argc, char **argv) {
  const int points = argc > 1 ? std::atoi(argv[1]) : 60000;
  const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
  char pattern[] = "/tmp/ohmvol3d_bench_XXXXXX";
  if (!mkdtemp(pattern)) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string folder = pattern;
  int status = 0;
  {
    Start_Options opt;
    // Limits of a 64 GiB computer, so that 2 series of 60,000 points fit.
    opt.total_mem_bytes = 64LL << 30;
    opt.config_folder = folder + "/cfg/";
    opt.buffer_folder = folder + "/buf/";
    Data_Set ds(opt, Silent_Front_End());
    if (ds.Create() != 0) {
      std::fprintf(stderr, "the tables could not be allocated\n");
      status = 1;
    } else {
      ds.batch_mode = 1;
      std::printf("Call_Read_Data_File, %d points, %d runs each, %d threads, %d x %d grid lines, "
                  "%d point electrodes (goal: under 2 s)\n",
                  points, runs, ds.System_config.nthreads, grid_nx, grid_ny, grid_nx * grid_ny);
      Time_Reads(ds, folder, "resistivity, 1 series", points, false, 1, runs);
      Time_Reads(ds, folder, "resistivity and IP, 2 series", points, true, 2, runs);
    }
  }
  std::error_code ec;
  std::filesystem::remove_all(folder, ec);
  return status;
}
