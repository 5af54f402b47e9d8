// Times the finite-element mesh of the largest model this machine takes: a
// 70 x 70 grid of lines 1 m apart (an electrode at every node), 12 user
// layers, dipole-dipole lines along x. The read (which sets up the main
// mesh) is timed apart from the solved mesh, in its adaptive and its dense
// form. Goal: the read's mesh steps and the solved mesh under 5 s together.
//
//   ohmvol3d_bench_mesh [grid lines] [layers]
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench_survey.h"
#include "core/clock.h"
#include "core/data_set.h"
#include "core/front_end.h"
#include "mesh/mesh.h"
#include "survey/survey.h"

namespace {} // namespace

int main(int argc, char **argv) {
  const int n = argc > 1 ? std::atoi(argv[1]) : 70;
  const int layers = argc > 2 ? std::atoi(argv[2]) : 12;
  char pattern[] = "/tmp/ohmvol3d_bench_mesh_XXXXXX";
  if (!mkdtemp(pattern))
    return 1;
  const std::string dir = pattern;
  const std::string path = dir + "/grid.dat";
  FILE *f = std::fopen(path.c_str(), "w");
  const std::string text = Make_Grid_Survey(
      "Mesh benchmark: dipole-dipole lines over a square electrode grid", n, layers);
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);
  std::printf("Grid %d x %d lines, %d layers\n", n, n, layers);
  int status = 0;
  for (int dense = 0; dense < 2 && status == 0; dense++) {
    Start_Options start;
    start.buffer_folder = dir + "/";
    start.config_folder = dir + "/";
    Data_Set ds(start, Silent_Front_End(false));
    ds.batch_mode = 1;
    ds.Create();
    ds.Semistructured.use_dense_rect_mesh = dense;
    auto t0 = Clock::now();
    if (Call_Read_Data_File(ds, path.c_str())) {
      status = 1;
      break;
    }
    const double read = Seconds_Since(t0);
    t0 = Clock::now();
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
