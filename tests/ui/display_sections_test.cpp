// Model sections drawn offscreen: a known block's cells in the colour of
// their interval at their pixel boxes, in horizontal and vertical sections
// and in the contoured fill; the legend boxes in order; layer titles; the
// page layout; and the PNG saved by command 7260 with its message.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "forward/forward_test_support.h"
#include "ui/display_window.h"
#include "ui/qt/qimage_surface.h"

namespace {

class Sections : public ::testing::Test {
protected:
  Example_Survey ex;
  Data_Set &ds = *ex.ds;
  Model_Grid &g = ds.Model_grid;
  Display_Window &w = ds.Dw;
  Image_Target image;

  // A 10 ohm.m block (cells 2..4 in x, 3..6 in y, layers 2..3) in 100 ohm.m,
  // with a gentle gradient elsewhere so that several intervals show.
  void Load(const char *example) {
    ASSERT_EQ(ex.Read_Example(example), 0);
    const int n = g.nmodel_blocks;
    ASSERT_GT(n, 0);
    std::vector<float> v(n);
    for (int k = 1; k <= g.nlayers; k++)
      for (int j = 1; j <= g.nblocky; j++)
        for (int i = 1; i <= g.nblockx; i++)
          v[g.Block_Number(i, j, k) - 1] = static_cast<float>(100.0 + 40.0 * k + 5.0 * i);
    for (int k = 2; k <= 3; k++)
      for (int j = 3; j <= 6; j++)
        for (int i = 2; i <= 4; i++)
          v[g.Block_Number(i, j, k) - 1] = 10.0f;
    Copy_Model_Resistivity_Display(ds, v.data(), n);
    w.iteration_shown = 4;
    w.misfit_shown = 2.718;
  }
  const Draw_Surface &Surface(int width = 1600, int height = 1200) {
    const Draw_Surface *s = image.Begin(width, height);
    EXPECT_NE(s, nullptr);
    return *s;
  }
  // The colour at the middle of a pixel box.
  uint32_t Middle(const Pixel_Box &b) const { return image.Pixel(b.x + b.w / 2, b.y + b.h / 2); }
  uint32_t Expected(int cell) const {
    return w.scale.colors[Contour_Color_Index(w.scale, w.values[cell])];
  }
};

TEST_F(Sections, LayerCellsTakeTheColourOfTheirInterval) {
  Load("grid_9x14.dat");
  const Draw_Surface &s = Surface();
  ASSERT_EQ(Display_Sections(ds, s), 0);
  ASSERT_GE(w.npixel, 4.0);
  // Every layer fits on the page of this size.
  EXPECT_EQ(w.nsections, g.nlayers);
  ASSERT_GE(w.ndispx * w.ndispy, g.nlayers);
  int block_cells = 0;
  for (int k = 1; k <= g.nlayers; k++)
    for (int j = 1; j <= g.nblocky; j++)
      for (int i = 1; i <= g.nblockx; i++) {
        const int cell = g.Block_Number(i, j, k) - 1;
        const Pixel_Box b = Layer_Cell_Box(ds, k - 1, i - 1, j - 1);
        ASSERT_EQ(Middle(b), Expected(cell)) << "layer " << k << " cell " << i << "," << j;
        block_cells += w.values[cell] == 10.0f;
      }
  EXPECT_EQ(block_cells, 24);
  // The block's colour is the lowest interval's.
  EXPECT_EQ(Middle(Layer_Cell_Box(ds, 1, 2, 3)), w.scale.colors[0]);
  // The legend: one box per colour, left to right in the table's order.
  for (int k = 0; k < w.scale.ncolor; k++) {
    const Pixel_Box b = Legend_Box(ds, k);
    ASSERT_EQ(Middle(b), w.scale.colors[k]) << "legend box " << k;
    if (k > 0) {
      EXPECT_GT(b.x, Legend_Box(ds, k - 1).x + Legend_Box(ds, k - 1).w - 1);
    }
  }
  EXPECT_GE(w.nbound, 2);
}

TEST_F(Sections, VerticalSectionsAndContouredFill) {
  Load("grid_9x14.dat");
  for (int view : {VIEW_XZ, VIEW_YZ}) {
    w.type_display = view;
    w.first_section = 0;
    const Draw_Surface &s = Surface(1200, 900);
    ASSERT_EQ(Display_Sections(ds, s), 0);
    const int across = view == VIEW_XZ ? g.nblockx : g.nblocky;
    // The page holds the first sections; each is a slice of all layers.
    for (int slot = 0; slot < std::min(w.ndispx * w.ndispy, w.nsections); slot++)
      for (int k = 1; k <= g.nlayers; k++)
        for (int a = 1; a <= across; a++) {
          const int cell = view == VIEW_XZ ? g.Block_Number(a, slot + 1, k) - 1
                                           : g.Block_Number(slot + 1, a, k) - 1;
          ASSERT_EQ(Middle(Layer_Cell_Box(ds, slot, a - 1, k - 1)), Expected(cell))
              << "view " << view << " section " << slot << " cell " << a << "," << k;
        }
  }
  // Contoured fill: the middle of a cell inside the block (3 x 4 cells) is
  // the block's own value, so its colour.
  w.type_display = VIEW_LAYERS;
  w.draw_type = 1;
  const Draw_Surface &s = Surface();
  ASSERT_EQ(Display_Sections(ds, s), 0);
  EXPECT_EQ(Middle(Layer_Cell_Box(ds, 1, 2, 4)), w.scale.colors[0]);
  EXPECT_EQ(Middle(Layer_Cell_Box(ds, 0, 7, 12)), Expected(g.Block_Number(8, 13, 1) - 1));
}

TEST_F(Sections, TitlesPagesAndTheSavedPicture) {
  Load("grid_9x14.dat");
  const std::regex two(R"(Layer \d+ : \d+\.\d\d to \d+\.\d\d m)"),
      one(R"(Layer \d+ : \d+\.\d to \d+\.\d m)");
  for (int k = 1; k <= g.nlayers; k++) {
    const std::string t = Layer_Title(ds, k);
    EXPECT_TRUE(std::regex_match(t, two) || std::regex_match(t, one)) << t;
  }
  EXPECT_TRUE(std::regex_match(Layer_Title(ds, 1), two)) << "the first layer is thin";
  // A small page holds fewer sections; the next page starts where it ended.
  const Draw_Surface &s = Surface(400, 300);
  ASSERT_EQ(Display_Sections(ds, s), 0);
  const int per_page = w.ndispx * w.ndispy;
  ASSERT_LT(per_page, g.nlayers);
  w.first_section = per_page;
  ASSERT_EQ(Display_Sections(ds, Surface(400, 300)), 0);
  EXPECT_EQ(Middle(Layer_Cell_Box(ds, 0, 0, 0)), Expected(g.Block_Number(1, 1, per_page + 1) - 1));
  // Command 7260 writes the picture through the front end's image.
  Install_Image_Front_End(ds.fe, image);
  ds.Inv_results.nitcount_inv = 1;
  w.first_section = 0;
  const std::string png = ex.tmp.sub("sections.png");
  ASSERT_EQ(ds.Run_Command(CMD_SAVE_IMAGE, png.c_str()), 0);
  EXPECT_GT(std::filesystem::file_size(png), 1000u);
  const test_support::Recorded_Message *m = ex.rec.Last("Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Screen image save in file\n" + png + ".");
  // A path that cannot be written gives the capture error.
  EXPECT_EQ(ds.Run_Command(CMD_SAVE_IMAGE, "/nonexistent-folder/x.png"), 1);
  EXPECT_EQ(ex.rec.Last("Message")->text, "Error in capturing screen image\n");
}

TEST_F(Sections, SurveysWithTopographyAndBuriedElectrodesRender) {
  for (const char *example : {"topography.dat", "borehole.dat"}) {
    Example_Survey other;
    ASSERT_EQ(other.Read_Example(example), 0) << example;
    Data_Set &d = *other.ds;
    std::vector<float> v(d.Model_grid.nmodel_blocks);
    for (size_t c = 0; c < v.size(); c++)
      v[c] = static_cast<float>(50.0 + c % 17);
    Copy_Model_Resistivity_Display(d, v.data(), static_cast<int>(v.size()));
    for (int view : {VIEW_LAYERS, VIEW_XZ, VIEW_YZ}) {
      d.Dw.type_display = view;
      const Draw_Surface *s = image.Begin(1000, 800);
      ASSERT_NE(s, nullptr);
      ASSERT_EQ(Display_Sections(d, *s), 0) << example << " view " << view;
      const uint32_t want = d.Dw.scale.colors[Contour_Color_Index(d.Dw.scale, v[0])];
      EXPECT_EQ(Middle(Layer_Cell_Box(d, 0, 0, 0)), want) << example << " view " << view;
    }
  }
}

} // namespace
