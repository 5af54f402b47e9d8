// Drawing the model sections of a results file, timed: the layer sections in
// block and contoured fill, the vertical sections, and the PNG written.
// Without a file name the results come from the synthetic-block case.
// Usage: ohmvol3d_bench_render [RESULTS.inv] [--reps N] [--size WxH]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "bench_survey.h"
#include "core/clock.h"
#include "core/commands.h"
#include "ui/display_window.h"
#include "ui/qt/qimage_surface.h"

int main(int argc, char **argv) {
  std::string inv;
  int reps = 5, width = 1600, height = 1200;
  for (int k = 1; k < argc; k++) {
    if (!std::strcmp(argv[k], "--reps") && k + 1 < argc)
      reps = std::max(1, std::atoi(argv[++k]));
    else if (!std::strcmp(argv[k], "--size") && k + 1 < argc)
      std::sscanf(argv[++k], "%dx%d", &width, &height);
    else
      inv = argv[k];
  }
  std::string dir;
  if (Bench_Results_File("ohmvol3d_bench_render", dir, inv))
    return 1;
  Bench_Data_Set b(dir);
  Data_Set &ds = b.ds;
  Image_Target image;
  Install_Image_Front_End(ds.fe, image);
  if (ds.Run_Command(CMD_READ_RESULTS, inv.c_str()) ||
      Display_Resistivity_Model_Inv_Select(ds, 0, 0, 0)) {
    std::printf("%s could not be read\n", inv.c_str());
    return 1;
  }
  std::printf("Results %s: %d cells (%d x %d x %d), iteration %d; picture %d x %d\n", inv.c_str(),
              ds.Model_grid.nmodel_blocks, ds.Model_grid.nblockx, ds.Model_grid.nblocky,
              ds.Model_grid.nlayers, ds.Dw.iteration_shown, width, height);
  struct Case {
    const char *what;
    int view, draw_type, save;
  } cases[] = {{"layer sections, block fill", VIEW_LAYERS, 0, 0},
               {"layer sections, contoured fill", VIEW_LAYERS, 1, 0},
               {"vertical sections along x", VIEW_XZ, 0, 0},
               {"vertical sections along y", VIEW_YZ, 0, 0},
               {"layer sections and PNG (command 7260)", VIEW_LAYERS, 0, 1}};
  std::printf("\nSeconds (best and mean of %d; goal: the demo's sections under 1 s)\n", reps);
  const std::string png = dir + "/sections.png";
  for (const Case &c : cases) {
    double best = 1e30, sum = 0.0;
    int ok = 1;
    for (int k = 0; k < reps; k++) {
      ds.Dw.type_display = c.view;
      ds.Dw.draw_type = c.draw_type;
      ds.Dw.width = width;
      ds.Dw.height = height;
      const auto t0 = Clock::now();
      if (c.save) {
        ok &= ds.Run_Command(CMD_SAVE_IMAGE, png.c_str()) == 0;
      } else {
        const Draw_Surface *s = image.Begin(width, height);
        ok &= s && Display_Sections(ds, *s) == 0;
      }
      const double t = Seconds_Since(t0);
      best = std::min(best, t), sum += t;
    }
    std::printf("  %-40s %9.4f %9.4f%s\n", c.what, best, sum / reps, ok ? "" : "  FAILED");
  }
  if (std::filesystem::exists(png))
    std::printf("  PNG size %.1f kB\n", std::filesystem::file_size(png) / 1024.0);
  std::filesystem::remove_all(dir);
  return 0;
}
