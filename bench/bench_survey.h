// Shared by the benchmarks: a front end that shows nothing but messages, and
// the synthetic survey they time (dipole-dipole lines along x, on every
// other grid line, over an n x n grid of electrodes 1 m apart, with user
// layers).
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/front_end.h"
#include "core/temp_files.h"
#include "forward/forward.h"
#include "forward/synthetic.h"

// Messages go to stderr (only warnings when `warnings_only`); panel lines,
// progress and questions are silent (every question answered No).
inline Front_End Silent_Front_End(bool warnings_only) {
  Front_End fe;
  if (warnings_only)
    fe.message = [](void *, const char *title, const char *text, int kind) {
      if (kind == MK_WARNING)
        std::fprintf(stderr, "%s: %s\n", title, text);
    };
  else
    fe.message = [](void *, const char *title, const char *text, int) {
      std::fprintf(stderr, "%s: %s\n", title, text);
    };
  fe.question = [](void *, const char *, const char *) { return 0; };
  fe.panel_line = [](void *, const char *, int) {};
  fe.progress = [](void *, const char *, double) { return 0; };
  fe.beep = [](void *) {};
  return fe;
}

// The head of a survey file over an n x n grid of lines `spacing` metres
// apart with an electrode at every node: the title, the grid lines, the
// array lines `array` and the electrode list.
inline std::string Square_Grid_Head(const char *title, int n, double spacing, const char *array) {
  std::string f = std::string(title) + "\n";
  char line[256];
  std::snprintf(line, sizeof line, "%d,%d\nNonuniform Grid\nX-location of grid lines\n", n, n);
  f += line;
  for (int axis = 0; axis < 2; axis++) {
    for (int i = 0; i < n; i++) {
      std::snprintf(line, sizeof line, "%.2f ", i * spacing);
      f += line;
    }
    f += axis == 0 ? "\nY-location of grid lines\n" : "\n";
  }
  f += array;
  std::snprintf(line, sizeof line,
                "Point Electrodes outside grid present\nNumber of point electrodes\n%d\n"
                "Compressed format used for point electrodes coordinates\n",
                n * n);
  f += line;
  for (int j = 0, e = 1; j < n; j++)
    for (int i = 0; i < n; i++, e++) {
      std::snprintf(line, sizeof line, "%d %.3f,%.3f,0.000\n", e, i * spacing, j * spacing);
      f += line;
    }
  return f;
}

// The data file's text: `title` on its first line, n x n grid lines and
// electrodes, `layers` user layers growing by 1.15 from 0.5 m; dipole-dipole
// lines along x (and along y too with `both_ways`) on every other grid line,
// dipole length 1 m, n factors 1 to `max_spacing`.
inline std::string Make_Grid_Survey(const char *title, int n, int layers, bool both_ways = false,
                                    int max_spacing = 6) {
  std::string f = Square_Grid_Head(title, n, 1.0, "3\n");
  char line[256];
  std::snprintf(line, sizeof line,
                "User defined depths to layers present\nNumber of layers\n%d\nDepth of layers\n",
                layers);
  f += line;
  double depth = 0.0, t = 0.5;
  for (int k = 1; k <= layers; k++) {
    depth += t;
    t *= 1.15;
    std::snprintf(line, sizeof line, "%d %.4f\n", k, depth);
    f += line;
  }
  std::string points;
  int count = 0;
  for (int along_y = 0; along_y < (both_ways ? 2 : 1); along_y++)
    for (int j = 0; j < n; j += 2)
      for (int i = 0; i + 3 < n; i++)
        for (int s = 1; s <= max_spacing && i + s + 2 < n; s++, count++) {
          const int a[4] = {i + s + 1, i + s + 2, i + 1, i};
          if (along_y)
            std::snprintf(line, sizeof line, "%d %d %d %d %d %d %d %d 100.0\n", j, a[0], j, a[1], j,
                          a[2], j, a[3]);
          else
            std::snprintf(line, sizeof line, "%d %d %d %d %d %d %d %d 100.0\n", a[0], j, a[1], j,
                          a[2], j, a[3], j);
          points += line;
        }
  std::snprintf(line, sizeof line, "%d\n", count);
  f += line;
  f += points;
  f += "0\n0\n0\n0\n0\n";
  return f;
}

// The data file's text of a square n x n electrode grid at `spacing`
// metres, general array form, apparent resistivities: on every other grid
// line along x and along y, dipole-dipole (a = 1, n = 1 to 6), pole-dipole
// (n = 1 to 6, the remote current electrode off the file) and Wenner
// (a = 1 up to a quarter of the line), with the electrodes listed. Every
// value is `value`.
inline std::string Make_Square_Survey(const char *title, int n, double spacing, double value) {
  std::string f = Square_Grid_Head(
      title, n, spacing, "11\n0\nType of data (0=Apparent Resistivity,1=Resistance)\n0\n");
  std::string points;
  char line[256];
  int count = 0;
  // Electrode i of grid line j along x (along_y 0) or y (1), in metres.
  auto at = [&](int along_y, int j, int i, char *out, size_t size) {
    const double u = i * spacing, v = j * spacing;
    std::snprintf(out, size, "%.3f %.3f", along_y ? v : u, along_y ? u : v);
  };
  auto add = [&](int along_y, int j, std::initializer_list<int> e) {
    char xy[4][64], row[384];
    int k = 0;
    for (int i : e)
      at(along_y, j, i, xy[k], sizeof xy[k]), k++;
    if (k == 4)
      std::snprintf(row, sizeof row, "4 %s %s %s %s %.3f\n", xy[0], xy[1], xy[2], xy[3], value);
    else
      std::snprintf(row, sizeof row, "3 %s %s %s %.3f\n", xy[0], xy[1], xy[2], value);
    points += row;
    count++;
  };
  for (int along_y = 0; along_y < 2; along_y++)
    for (int j = 0; j < n; j += 2) {
      for (int i = 0; i + 3 < n; i++)
        for (int s = 1; s <= 6 && i + s + 2 < n; s++)
          add(along_y, j, {i + 1, i, i + s + 1, i + s + 2});
      for (int i = 0; i + 1 < n; i++)
        for (int s = 1; s <= 6 && i + s + 1 < n; s++)
          add(along_y, j, {i, i + s, i + s + 1});
      for (int a = 1; 4 * a <= n; a++)
        for (int i = 0; i + 3 * a < n; i++)
          add(along_y, j, {i, i + 3 * a, i + a, i + 2 * a});
    }
  std::snprintf(line, sizeof line, "%d\n", count);
  f += line;
  f += points;
  f += "0\n0\n0\n0\n0\n";
  return f;
}

// A field of /proc/self/status in MB ("VmHWM:", "VmRSS:").
inline double Status_MB(const char *field) {
  FILE *f = std::fopen("/proc/self/status", "r");
  if (!f)
    return 0.0;
  char line[256];
  double kb = 0.0;
  const size_t len = std::strlen(field);
  while (std::fgets(line, sizeof line, f))
    if (std::strncmp(line, field, len) == 0) {
      kb = std::atof(line + len);
      break;
    }
  std::fclose(f);
  return kb / 1024.0;
}

// A data set read from the survey file, in batch mode, with its temporary
// files in `dir`.
struct Bench_Data_Set {
  Data_Set ds;
  explicit Bench_Data_Set(const std::string &dir) : ds(Options(dir), Silent_Front_End(true)) {
    ds.batch_mode = 1;
    ds.Create();
    ds.First_Paint();
  }
  static Start_Options Options(const std::string &dir) {
    Start_Options start;
    start.buffer_folder = dir + "/";
    start.config_folder = dir + "/";
    return start;
  }
};

// The capacitance matrix of a homogeneous 100 ohm.m ground on the solved
// mesh, in CSR form (ds.Fem.coomatrix64). Returns 0 or the failure.
inline int Assemble_Half_Space(Data_Set &ds) {
  std::vector<float> res(std::max(ds.Model_grid.nmodel_blocks, 1), 100.0f);
  CooMatrix64 &m = ds.Fem.coomatrix64;
  ds.Data_ip.ipcmplx = 0;
  ds.Fem.jacob = 0;
  return ds.Model_grid.Set_Conductivity(ds, res.data()) || Start_SemiStructured(ds) ||
         Set_Up_Cap_Matrix_Blk(ds, 0, ds.file_names.temp[TF_JACOBFX]) ||
         m.COO_to_CSR_Fix(ds, ds.file_names.temp[TF_TEMPFILE]) ||
         m.Get_CSR(ds, ds.file_names.temp[TF_TEMPFILE]);
}

// The options every grid benchmark takes: --large (grids 30 and 66), --grid
// N, --reps N. Returns the number of arguments taken at argv[k] (0 when the
// argument is none of these).
inline int Grid_Option(int argc, char **argv, int k, std::vector<int> &grids, int &reps) {
  const std::string a = argv[k];
  if (a == "--large") {
    grids = {30, 66};
    return 1;
  }
  if (a == "--grid" && k + 1 < argc) {
    grids = {std::atoi(argv[k + 1])};
    return 2;
  }
  if (a == "--reps" && k + 1 < argc) {
    reps = std::max(1, std::atoi(argv[k + 1]));
    return 2;
  }
  return 0;
}

// The median of a few timings (0 for none).
inline double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty()      ? 0.0
         : v.size() % 2 ? v[v.size() / 2]
                        : 0.5 * (v[v.size() / 2 - 1] + v[v.size() / 2]);
}

#ifdef OHMVOL3D_EXAMPLES
// The synthetic-block results file in `dir` (the 9 x 14 electrode grid over
// a 10 ohm-m box in 100 ohm-m, 3 % noise, eight iterations); returns its
// path or "".
inline std::string Synthetic_Results(const std::string &dir) {
  const std::string survey = dir + "/grid_9x14.dat", data = dir + "/synthetic.dat";
  std::error_code ec;
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_9x14.dat", survey, ec);
  if (ec)
    return "";
  {
    Bench_Data_Set b(dir);
    if (b.ds.Run_Command(CMD_READ_DATA, survey.c_str()))
      return "";
    Synthetic_Model model;
    model.background = 100.0;
    Synthetic_Box box;
    const double lim[6] = {7.5, 12.5, 13.75, 18.75, 1.5, 4.5};
    std::copy(lim, lim + 6, box.lim);
    box.res = 10.0;
    model.boxes.push_back(box);
    if (Forward_Synthetic_Data(b.ds, model, data.c_str(), 3.0, 7))
      return "";
  }
  Bench_Data_Set b(dir);
  const std::string inv = dir + "/synthetic.inv";
  if (b.ds.Run_Command(CMD_READ_DATA, data.c_str()) || b.ds.Run_Command(CMD_INVERT, inv.c_str()))
    return "";
  return inv;
}

// A fresh folder /tmp/NAME_XXXXXX in `dir` and, when `inv` is empty, the
// synthetic-block results file made there. Returns 0, or 1 after saying why.
inline int Bench_Results_File(const char *name, std::string &dir, std::string &inv) {
  std::string pattern = std::string("/tmp/") + name + "_XXXXXX";
  if (!mkdtemp(pattern.data())) {
    std::printf("cannot make a folder under /tmp\n");
    return 1;
  }
  dir = pattern;
  if (inv.empty()) {
    std::printf("Making the synthetic-block results file (forward model and 8 iterations)...\n");
    inv = Synthetic_Results(dir);
    if (inv.empty()) {
      std::printf("the synthetic results could not be made\n");
      return 1;
    }
  }
  return 0;
}
#endif
