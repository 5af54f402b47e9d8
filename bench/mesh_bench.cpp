// Times the finite-element mesh of the largest model this machine takes: a
// 70 x 70 grid of lines 1 m apart (an electrode at every node), 12 user
// layers, dipole-dipole lines along x. The read (which sets up the main
// mesh) is timed apart from the solved mesh, in its adaptive and its dense
// form. Goal: the read's mesh steps and the solved mesh under 5 s together.
//
//   ohmvol3d_bench_mesh [grid lines] [layers]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "core/data_set.h"
#include "core/front_end.h"
#include "mesh/mesh.h"
#include "survey/survey.h"

namespace {

Front_End Silent_Front_End() {
  Front_End fe;
  fe.message = [](void *, const char *title, const char *text, int) {
    std::fprintf(stderr, "%s: %s\n", title, text);
  };
  fe.question = [](void *, const char *, const char *) { return 0; };
  fe.panel_line = [](void *, const char *, int) {};
  fe.progress = [](void *, const char *, double) { return 0; };
  fe.beep = [](void *) {};
  return fe;
}

std::string Make_Data_File(int n, int layers) {
  std::string f;
  char line[256];
  f += "Mesh benchmark: dipole-dipole lines over a square electrode grid\n";
  std::snprintf(line, sizeof line, "%d,%d\nNonuniform Grid\nX-location of grid lines\n", n, n);
  f += line;
  for (int axis = 0; axis < 2; axis++) {
    for (int i = 0; i < n; i++) {
      std::snprintf(line, sizeof line, "%d.00 ", i);
      f += line;
    }
    f += axis == 0 ? "\nY-location of grid lines\n" : "\n";
  }
  std::snprintf(line, sizeof line,
                "3\nPoint Electrodes outside grid present\nNumber of point electrodes\n%d\n"
                "Compressed format used for point electrodes coordinates\n",
                n * n);
  f += line;
  for (int j = 0, e = 1; j < n; j++)
    for (int i = 0; i < n; i++, e++) {
      std::snprintf(line, sizeof line, "%d %d.000,%d.000,0.000\n", e, i, j);
      f += line;
    }
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
  for (int j = 0; j < n; j += 2)
    for (int i = 0; i + 3 < n; i++)
      for (int s = 1; s <= 6 && i + s + 2 < n; s++, count++) {
        std::snprintf(line, sizeof line, "%d %d %d %d %d %d %d %d 100.0\n", i + s + 1, j, i + s + 2,
                      j, i + 1, j, i, j);
        points += line;
      }
  std::snprintf(line, sizeof line, "%d\n", count);
  f += line;
  f += points;
  f += "0\n0\n0\n0\n0\n";
  return f;
}

double Seconds_Since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

} // namespace

int main(int argc, char **argv) {
  const int n = argc > 1 ? std::atoi(argv[1]) : 70;
  const int layers = argc > 2 ? std::atoi(argv[2]) : 12;
  char pattern[] = "/tmp/ohmvol3d_bench_mesh_XXXXXX";
  if (!mkdtemp(pattern))
    return 1;
  const std::string dir = pattern;
  const std::string path = dir + "/grid.dat";
  FILE *f = std::fopen(path.c_str(), "w");
  const std::string text = Make_Data_File(n, layers);
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);
  std::printf("Grid %d x %d lines, %d layers\n", n, n, layers);
  int status = 0;
  for (int dense = 0; dense < 2 && status == 0; dense++) {
    Start_Options start;
    start.buffer_folder = dir + "/";
    start.config_folder = dir + "/";
    Data_Set ds(start, Silent_Front_End());
    ds.batch_mode = 1;
    ds.Create();
    ds.Semistructured.use_dense_rect_mesh = dense;
    auto t0 = std::chrono::steady_clock::now();
    if (Call_Read_Data_File(ds, path.c_str())) {
      status = 1;
      break;
    }
    const double read = Seconds_Since(t0);
    t0 = std::chrono::steady_clock::now();
    if (Set_SemiStructured_Mesh(ds)) {
      status = 1;
      break;
    }
    const double mesh = Seconds_Since(t0);
    const SemiStructured &ss = ds.Semistructured;
    const Model_Grid &g = ds.Model_grid;
    std::printf("%-9s layers %d, main mesh %dx%dx%d, solved nodes %d, elements %lld "
                "(%lld tetrahedra, %lld patterns)\n",
                dense ? "dense" : "adaptive", g.nlayers, g.lx, g.ly, g.lzw, ss.number_nodes_ss,
                static_cast<long long>(ss.number_elements), static_cast<long long>(ss.num_tet),
                static_cast<long long>(ss.num_patterns));
    std::printf(
        "          read with main mesh %.3f s, solved mesh %.3f s, total %.3f s (goal 5 s)\n", read,
        mesh, read + mesh);
  }
  std::filesystem::remove_all(dir);
  return status;
}
