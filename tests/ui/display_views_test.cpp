// The electrode map, the mesh slices and the L-curve drawn offscreen: marker
// colours at the electrodes' own positions, the key's counts, the slice
// counts against the mesh's elements, and the L-curve points where the axes
// put them. With OHMVOL3D_VIEW_PNGS set to a folder the pictures are saved there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/commands.h"
#include "forward/forward_test_support.h"
#include "results/exports.h"
#include "survey/optional_sections.h"
#include "ui/display_window.h"
#include "ui/qt/qimage_surface.h"

namespace {

constexpr uint32_t surface_blue = 0x0000ff, subsurface_red = 0xff0000, unused_brown = 0x8b4513,
                   same_node_orange = 0xff8000, segment_purple = 0x800080, lcurve_red = 0xd00000,
                   misfit_blue = 0x0000d0, tet_blue = 0x0050d0;
const char *const surveys[3] = {"grid_9x14.dat", "topography.dat", "borehole.dat"};

// Records the texts and filled rectangles drawn through it, passing every
// call on to the image.
struct Recording_Surface {
  struct Call {
    int x, y, w, h;
    uint32_t rgb;
    std::string text;
  };
  Draw_Surface inner, s;
  std::vector<Call> texts, rects;
  static Recording_Surface &R(void *u) { return *static_cast<Recording_Surface *>(u); }

  explicit Recording_Surface(const Draw_Surface &in) : inner(in), s(in) {
    s.user = this;
    s.fill_rect = [](void *u, int x, int y, int w, int h, uint32_t rgb) {
      R(u).rects.push_back({x, y, w, h, rgb, ""});
      R(u).inner.fill_rect(R(u).inner.user, x, y, w, h, rgb);
    };
    s.line = [](void *u, int x0, int y0, int x1, int y1, uint32_t rgb, int pen) {
      R(u).inner.line(R(u).inner.user, x0, y0, x1, y1, rgb, pen);
    };
    s.text = [](void *u, int x, int y, const char *t, uint32_t rgb, int align, int size) {
      R(u).texts.push_back({x, y, 0, 0, rgb, t});
      R(u).inner.text(R(u).inner.user, x, y, t, rgb, align, size);
    };
    s.text_width = [](void *u, const char *t, int size) {
      return R(u).inner.text_width(R(u).inner.user, t, size);
    };
    s.pixels = [](void *u, int x, int y, int w, int h, const uint32_t *rgb) {
      R(u).inner.pixels(R(u).inner.user, x, y, w, h, rgb);
    };
  }
  // How many texts start with `prefix`.
  int Count(const std::string &prefix) const {
    return static_cast<int>(std::count_if(texts.begin(), texts.end(), [&](const Call &t) {
      return t.text.compare(0, prefix.size(), prefix) == 0;
    }));
  }
  // A text exactly `text` within 2 pixels of (x, y).
  bool Text_Near(const std::string &text, int x, int y) const {
    return std::any_of(texts.begin(), texts.end(), [&](const Call &t) {
      return t.text == text && std::abs(t.x - x) <= 2 && std::abs(t.y - y) <= 2;
    });
  }
};

// A data set reading an example, and the image its views are drawn into.
struct View_Case {
  Example_Survey s;
  Image_Target image;
  std::unique_ptr<Recording_Surface> rec;
  Data_Set &ds() { return *s.ds; }
  int Draw(int view, const std::string &png, int width = 1200, int height = 900) {
    Draw_Surface *surface = image.Begin(width, height);
    if (!surface)
      return -1;
    rec = std::make_unique<Recording_Surface>(*surface);
    ds().Dw.type_display = view;
    const int r = Draw_Display_View(ds(), rec->s);
    if (const char *dir = std::getenv("OHMVOL3D_VIEW_PNGS"))
      image.Save((std::string(dir) + "/" + png + ".png").c_str());
    return r;
  }
  uint32_t At(Data_Set &ds, double ux, double uy, int dx = 0, int dy = 0);
};

// The map's pixel colour at a position in metres: the extent of the map
// (model cells and electrodes) worked out here, its corner and scale from the view.
uint32_t View_Case::At(Data_Set &ds, double ux, double uy, int dx, int dy) {
  const Model_Grid &g = ds.Model_grid;
  // North up: rows count down from the largest y.
  double x0 = 1e30, y1 = -1e30, c[8][3];
  for (int b = 0; b < g.nblockx * g.nblocky; b++) {
    Block_Corners_User(ds, b, 0, c);
    for (auto &p : c)
      x0 = std::min(x0, p[0]), y1 = std::max(y1, p[1]);
  }
  for (int k = 0; k < ds.num_point_elecs; k++)
    x0 = std::min(x0, User_X(ds, ds.pe[k].x)), y1 = std::max(y1, User_Y(ds, ds.pe[k].y));
  const Display_Window &w = ds.Dw;
  return image.Pixel(w.draw_window.x + static_cast<int>(std::lround((ux - x0) * w.npixel)) + dx,
                     w.draw_window.y + static_cast<int>(std::lround((y1 - uy) * w.npixel)) + dy);
}

std::string Key(const char *text, int count) {
  return std::string(text) + " (" + std::to_string(count) + ")";
}

struct Slice_Counts {
  int level = 0, rect = 0, tet = 0, total = 0;
  long long all = 0;
};
Slice_Counts Parse_Status(const std::string &status) {
  Slice_Counts c;
  EXPECT_EQ(std::sscanf(status.c_str(),
                        "Level %d.  Rectangular elements %d  Tetrahedral elements %d  Total level "
                        "%d  Total all %lld",
                        &c.level, &c.rect, &c.tet, &c.total, &c.all),
            5)
      << status;
  const std::string tail = std::string(28, ' ') + "\n"; // and nothing more
  EXPECT_EQ(status.size() > tail.size() ? status.substr(status.size() - tail.size()) : "", tail);
  EXPECT_NE(status[status.size() - tail.size() - 1], ' ');
  return c;
}

} // namespace

TEST(DisplayViews, ElectrodeMapMarksEachClassAndCountsItInTheKey) {
  for (const char *name : surveys) {
    SCOPED_TRACE(name);
    View_Case v;
    ASSERT_EQ(v.s.Read_Example(name), 0);
    ASSERT_EQ(v.Draw(VIEW_ELECTRODES, std::string("electrodes_") + name), 0);
    Data_Set &ds = v.ds();
    int surface = 0, sub = 0, unused = 0, deep = 0;
    for (int e = 0; e < ds.num_point_elecs; e++) {
      const Point_Electrode &p = ds.pe[e];
      const double x = User_X(ds, p.x), y = User_Y(ds, p.y);
      deep += p.depth > 0.0;
      // A subsurface electrode by the ring of its larger mark, beyond any mark above it.
      const bool below = p.used && p.depth > 0.0;
      (!p.used ? unused : below ? sub : surface)++;
      EXPECT_EQ(v.At(ds, x, y, below ? 4 : 0), !p.used ? unused_brown
                                               : below ? subsurface_red
                                                       : surface_blue)
          << e;
    }
    EXPECT_EQ(v.rec->Count(Key("Point electrode", surface)), 1);
    EXPECT_EQ(v.rec->Count(Key("Subsurface point electrode", sub)), 1);
    EXPECT_EQ(v.rec->Count(Key("Point Electrode not used", unused)), 1);
    EXPECT_EQ(sub, std::string(name) == "borehole.dat" ? deep : 0);
    EXPECT_EQ(v.rec->Count("Long electrode") + v.rec->Count("Point electrodes"), 0);
    EXPECT_EQ(v.rec->Count("Segment_limits"), 0);
    EXPECT_EQ(v.rec->Count(std::string("Electrode and grid map    ") + name), 1);
    EXPECT_EQ(v.rec->Count("X (m)") + v.rec->Count("Y (m)"), 2);
    char range[96];
    std::snprintf(range, sizeof range, "Topography range %.1f to %.1f m", ds.elev_min, ds.elev_max);
    EXPECT_EQ(v.rec->Count(range), std::string(name) == "topography.dat" ? 1 : 0) << range;
  }
}

TEST(DisplayViews, SharedNodesUnusedElectrodesAndSegmentsJoinTheKey) {
  View_Case v;
  ASSERT_EQ(v.s.Read_Example("grid_9x14.dat"), 0);
  Data_Set &ds = v.ds();
  const int surface = static_cast<int>(Used_Electrodes(ds).size());
  ASSERT_GT(surface, 3);
  ds.pe[0].node = ds.pe[1].node = 7;
  ds.pe[2].node = 8; // alone on its node
  ds.pe[3].used = 0;
  ds.Model_grid.num_splice_x = 2;
  ASSERT_EQ(v.Draw(VIEW_ELECTRODES, "electrodes_classes"), 0);
  EXPECT_EQ(v.rec->Count("Point electrodes on same node (2)"), 1);
  EXPECT_EQ(v.rec->Count("Point Electrode not used (1)"), 1);
  EXPECT_EQ(v.rec->Count(Key("Point electrode", surface - 3)), 1);
  EXPECT_EQ(v.rec->Count("Segment_limits"), 1);
  const uint32_t expected[4] = {same_node_orange, same_node_orange, surface_blue, unused_brown};
  for (int e = 0; e < 4; e++)
    EXPECT_EQ(v.At(ds, User_X(ds, ds.pe[e].x), User_Y(ds, ds.pe[e].y)), expected[e]) << e;
  // The segment limit: a dash from the top (north) of the model cells, half
  // way across.
  const Model_Grid &g = ds.Model_grid;
  double top[8][3], mid[8][3];
  Block_Corners_User(ds, g.Block_Number(1, g.nblocky, 1) - 1, 0, top);
  Block_Corners_User(ds, g.Block_Number(g.nblockx / 2 + 1, 1, 1) - 1, 0, mid);
  double north = top[0][1];
  for (auto &p : top)
    north = std::max(north, p[1]);
  EXPECT_EQ(v.At(ds, std::min(mid[0][0], mid[2][0]), north, 0, 6), segment_purple);
}

TEST(DisplayViews, ViewsWithoutTheirDataRefuse) {
  View_Case v;
  EXPECT_EQ(v.Draw(VIEW_ELECTRODES, "none"), 1);
  EXPECT_EQ(v.Draw(VIEW_MESH, "none"), 1);
  EXPECT_FALSE(v.s.rec.messages.empty());
  v.s.rec.Clear();
  EXPECT_EQ(v.Draw(VIEW_LCURVE, "none"), 1);
  const test_support::Recorded_Message *m = v.s.rec.Last("Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "No L-curve values in this results file");
}

TEST(DisplayViews, MeshSliceCountsMatchTheElementsCut) {
  static const char *const words[3] = {"X-Y horizontal slice", "X-Z vertical slice",
                                       "Y-Z vertical slice"};
  for (const char *name : surveys) {
    View_Case v;
    ASSERT_EQ(v.s.Read_Example(name), 0);
    Data_Set &ds = v.ds();
    const SemiStructured &ss = ds.Semistructured;
    for (int dir = 0; dir < 3; dir++) {
      SCOPED_TRACE(std::string(name) + " " + words[dir]);
      const int level = dir == 0 ? 3 : (dir == 1 ? ds.Model_grid.ly : ds.Model_grid.lx) / 2;
      ds.Dw.mesh_direction = dir;
      ds.Dw.mesh_level = level;
      ASSERT_EQ(v.Draw(VIEW_MESH, "mesh" + std::to_string(dir) + "_" + name), 0);
      ASSERT_GT(ss.number_elements, 0) << "the view builds the mesh";
      const Slice_Counts c = Parse_Status(ds.Dw.status);
      EXPECT_EQ(c.level, level + 1);
      EXPECT_EQ(c.rect + c.tet, c.total);
      EXPECT_GT(c.total, 0);
      EXPECT_EQ(c.all, ss.number_elements);
      // The same counts from the elements' layers (horizontal) or positions
      // (vertical: half way between two node lines).
      int rect = 0, tet = 0;
      const float *lines = dir == 1 ? ss.ynodet.data() : ss.xnodet.data();
      const double at = dir == 0 ? 0.0 : 0.5 * (lines[level] + lines[level + 1]);
      for (int64_t e = 0; e < ss.number_elements; e++) {
        const Element &el = ss.elements[e];
        const float *p = dir == 1 ? el.y : el.x;
        const auto [lo, hi] = std::minmax_element(p, p + el.nnodes);
        if (dir == 0 ? el.layer == level + 1 : *lo<at && * hi> at)
          (el.tet ? tet : rect)++;
      }
      EXPECT_EQ(c.rect, rect);
      EXPECT_EQ(c.tet, tet);
      EXPECT_EQ(v.rec->Count(std::string("Finite-element mesh, ") + words[dir]), 1);
      EXPECT_EQ(v.rec->Count(ds.Dw.status.substr(0, ds.Dw.status.find_last_not_of(" \n") + 1)), 1);
      // Tetrahedra show in their own colour.
      bool blue = false;
      for (int y = 0; y < 900 && !blue; y++)
        for (int x = 0; x < 1200 && !blue; x++)
          blue = v.image.Pixel(x, y) == tet_blue;
      EXPECT_EQ(blue, tet > 0);
    }
  }
}

TEST(DisplayViews, HorizontalSlicesTogetherHoldEveryElementOnce) {
  View_Case v;
  ASSERT_EQ(v.s.Read_Example("topography.dat"), 0);
  Data_Set &ds = v.ds();
  long long sum = 0;
  for (int level = 0;; level++) {
    ds.Dw.mesh_level = level;
    ASSERT_EQ(v.Draw(VIEW_MESH, "slice", 400, 300), 0);
    if (ds.Dw.mesh_level != level)
      break; // clamped to the last
    sum += Parse_Status(ds.Dw.status).total;
  }
  EXPECT_EQ(sum, ds.Semistructured.number_elements);
  EXPECT_EQ(ds.Dw.mesh_level, ds.Model_grid.lzw - 2);
  EXPECT_EQ(Parse_Status(ds.Dw.status).level, ds.Model_grid.lzw - 1);
}

TEST(DisplayViews, LcurvePointsLieOnLogarithmicAxes) {
  View_Case v;
  Inv_Results &r = v.ds().Inv_results;
  r.nlcurve = r.nitcount_inv = 3;
  r.lcurve.assign(6, 0.0);
  const double rows[3][2] = {{100.0, 1.0}, {10.0, 10.0}, {1.0, 100.0}}; // misfit, roughness
  for (const auto &row : rows)
    r.lcurve.insert(r.lcurve.end(), {row[0], row[1], 0.1, 0.0, 0.0, 0.0});
  r.rmsl = {60.0, 40.0, 20.0, 10.0, 0.0};
  ASSERT_EQ(v.Draw(VIEW_LCURVE, "lcurve_table"), 0);
  std::vector<std::pair<int, int>> left, misfits;
  for (const auto &c : v.rec->rects)
    if (c.w == 7 && c.h == 7 && ((c.rgb == lcurve_red && c.x < 600) || c.rgb == misfit_blue))
      (c.rgb == misfit_blue ? misfits : left).push_back({c.x + 3, c.y + 3});
  ASSERT_EQ(left.size(), 3u);
  // Roughness grows to the right and misfit falls downwards, by equal steps
  // for equal ratios; each point numbered beside it.
  EXPECT_LT(left[0].first, left[1].first);
  EXPECT_LT(left[0].second, left[1].second);
  EXPECT_NEAR(left[1].first - left[0].first, left[2].first - left[1].first, 1);
  EXPECT_NEAR(left[1].second - left[0].second, left[2].second - left[1].second, 1);
  for (int k = 0; k < 3; k++) {
    EXPECT_EQ(v.image.Pixel(left[k].first, left[k].second), lcurve_red);
    EXPECT_TRUE(v.rec->Text_Near(std::to_string(k + 1), left[k].first + 6, left[k].second - 6));
  }
  // Misfits of the iterations read (40, 20, 10 percent) on a linear axis at the right.
  ASSERT_EQ(misfits.size(), 3u);
  EXPECT_GT(misfits[0].first, 600);
  EXPECT_NEAR(misfits[1].second - misfits[0].second, 2 * (misfits[2].second - misfits[1].second),
              1);
  EXPECT_NEAR(misfits[1].first - misfits[0].first, misfits[2].first - misfits[1].first, 1);
  EXPECT_EQ(v.rec->Count("L-curve") + v.rec->Count("Misfit and roughness by iteration"), 2);
}

TEST(DisplayViews, LcurveOfARunReadBack) {
  // One short run; all three surveys when the pictures are wanted.
  const int runs = std::getenv("OHMVOL3D_VIEW_PNGS") ? 3 : 1;
  for (int k = 0; k < runs; k++) {
    const char *name = surveys[(k + 2) % 3];
    SCOPED_TRACE(name);
    View_Case v;
    ASSERT_EQ(v.s.Read_Example(name), 0);
    v.ds().LS_method.nit = 2;
    const std::string path = v.s.tmp.sub("run.inv");
    ASSERT_EQ(v.ds().Run_Command(CMD_INVERT, path.c_str()), 0);
    ASSERT_EQ(v.ds().Run_Command(CMD_READ_RESULTS, path.c_str()), 0);
    ASSERT_EQ(v.ds().Inv_results.nlcurve, 2);
    ASSERT_EQ(v.Draw(VIEW_LCURVE, std::string("lcurve_") + name), 0);
    int points = 0;
    for (const auto &c : v.rec->rects)
      if (c.rgb == lcurve_red && c.w == 7 && c.x < 600) {
        EXPECT_TRUE(v.rec->Text_Near(std::to_string(++points), c.x + 9, c.y - 3));
      }
    EXPECT_EQ(points, 2);
  }
}

TEST(DisplayViews, ElectrodesTakeTheColourOfTheirDataMisfit) {
  View_Case v;
  ASSERT_EQ(v.s.Read_Example("grid_9x14.dat"), 0);
  Data_Set &ds = v.ds();
  // Calculated values of an iteration: every datum fits within 1 % except
  // those that use electrode 5, which are 50 % off.
  Inv_Results &r = ds.Inv_results;
  r.iteration_disp = 1;
  r.rm_disp.assign(ds.mdata, 0.0f);
  const int bad = 5;
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    const bool uses = d.nc1 == bad || d.nc2 == bad || d.np1 == bad || d.np2 == bad;
    r.rm_disp[i] = d.value * (uses ? 1.5f : 1.0f + 0.01f * (i % 3) / 2.0f);
  }
  ds.Dw.color_misfit = 1;
  ASSERT_EQ(v.Draw(VIEW_ELECTRODES, "electrodes_misfit"), 0);
  EXPECT_EQ(v.rec->Count("Display Electrodes Misfit"), 1);
  // The electrode of the bad data takes the top colour of the misfit scale
  // (the rainbow's dark red end); one that none of them uses does not.
  const Point_Electrode &p = ds.pe[bad - 1];
  const uint32_t top = v.At(ds, User_X(ds, p.x), User_Y(ds, p.y));
  EXPECT_GT((top >> 16) & 0xff, 0x60u);
  EXPECT_LT(top & 0xff, 0x20u);
  int far = -1;
  for (int e = 0; e < ds.num_point_elecs && far < 0; e++) {
    bool shared = false;
    for (int i = 0; i < ds.mdata && !shared; i++) {
      const Data_Point &d = ds.dp[i];
      const bool uses_bad = d.nc1 == bad || d.nc2 == bad || d.np1 == bad || d.np2 == bad;
      shared = uses_bad && (d.nc1 == e + 1 || d.nc2 == e + 1 || d.np1 == e + 1 || d.np2 == e + 1);
    }
    if (!shared && ds.pe[e].used)
      far = e;
  }
  ASSERT_GE(far, 0);
  EXPECT_NE(v.At(ds, User_X(ds, ds.pe[far].x), User_Y(ds, ds.pe[far].y)), top);
  // Without calculated values the classes' colours stay.
  r.iteration_disp = 0;
  ASSERT_EQ(v.Draw(VIEW_ELECTRODES, "electrodes_plain"), 0);
  EXPECT_EQ(v.At(ds, User_X(ds, p.x), User_Y(ds, p.y)), surface_blue);
  EXPECT_EQ(v.rec->Count("Display Electrodes Misfit"), 0);
}
