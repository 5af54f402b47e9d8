// Model grid: layer depths, model blocks and their volumes, the electrode
// marking of plan cells, and the main mesh built when a data file is read.
#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/test_support.h"
#include "mesh/mesh.h"

using namespace test_support;

namespace {

using Corners = std::array<std::array<double, 3>, 8>; // block corner order

class Model_Grid_Check : public ::testing::Test {
protected:
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds = Make_Data_Set(tmp, rec);
  Model_Grid &g = ds->Model_grid;

  void Plan(const std::vector<double> &xs, const std::vector<double> &ys) {
    g.ngridx = static_cast<int>(xs.size());
    g.ngridy = static_cast<int>(ys.size());
    std::copy(xs.begin(), xs.end(), g.xgrid);
    std::copy(ys.begin(), ys.end(), g.ygrid);
    ds->spxx = 1.0;
  }
  int Read(const char *name) {
    const std::string path = tmp.sub(name);
    std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/" + name, path,
                               std::filesystem::copy_options::overwrite_existing);
    return ds->Run_Command(CMD_READ_DATA, path.c_str());
  }
  // Mesh level (from 0, without water) whose flat depth is d.
  int Level_At(double d) const {
    for (int k = 0; k < g.lz; k++)
      if (std::fabs(g.zmesh[k] - d) < 1e-4 * std::max(1.0, d))
        return k;
    return -1;
  }
};

// Sum of the tetrahedra of an n^3 subdivision of the trilinear map of `c`,
// each sub-cell cut into the six tetrahedra around its main diagonal.
double Tetrahedra_Volume(const Corners &c, int n) {
  auto at = [&](double u, double v, double w, int k) {
    // Block corners: (u, v) = (0,0), (0,1), (1,1), (1,0) on w = 0, then w = 1.
    const double top = (1 - u) * (1 - v) * c[0][k] + (1 - u) * v * c[1][k] + u * v * c[2][k] +
                       u * (1 - v) * c[3][k];
    const double bot = (1 - u) * (1 - v) * c[4][k] + (1 - u) * v * c[5][k] + u * v * c[6][k] +
                       u * (1 - v) * c[7][k];
    return (1 - w) * top + w * bot;
  };
  static const int perms[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2},
                                  {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
  double v = 0.0;
  const double h = 1.0 / n;
  for (int a = 0; a < n; a++)
    for (int b = 0; b < n; b++)
      for (int d = 0; d < n; d++)
        for (const auto &p : perms) {
          double q[4][3], l[3] = {a * h, b * h, d * h};
          for (int s = 0; s < 4; s++) {
            if (s > 0)
              l[p[s - 1]] += h;
            for (int k = 0; k < 3; k++)
              q[s][k] = at(l[0], l[1], l[2], k);
          }
          double e[3][3];
          for (int s = 0; s < 3; s++)
            for (int k = 0; k < 3; k++)
              e[s][k] = q[s + 1][k] - q[0][k];
          v += std::fabs(e[0][0] * (e[1][1] * e[2][2] - e[1][2] * e[2][1]) -
                         e[0][1] * (e[1][0] * e[2][2] - e[1][2] * e[2][0]) +
                         e[0][2] * (e[1][0] * e[2][1] - e[1][1] * e[2][0])) /
               6.0;
        }
  return v;
}

double Block_Volume(const Corners &c) {
  double x[8], y[8], z[8];
  for (int i = 0; i < 8; i++)
    x[i] = c[i][0], y[i] = c[i][1], z[i] = c[i][2];
  return Hexahedron_Volume(x, y, z);
}

Corners Box(double dx, double dy, double dz) {
  const double u[4] = {0, 0, 1, 1}, v[4] = {0, 1, 1, 0};
  Corners c;
  for (int i = 0; i < 8; i++)
    c[i] = {u[i % 4] * dx, v[i % 4] * dy, i < 4 ? 0.0 : dz};
  return c;
}

TEST_F(Model_Grid_Check, LayerDepthsFollowThicknessDepthAndTank) {
  Plan({0, 1, 3}, {0, 2, 5});
  g.thick1 = 0.5, g.thickinc = 1.1, g.buffer_rate = 1.5, g.scaledepth = 1.0, g.psdepthmax = 3.0;
  std::fill(std::begin(g.zbl), std::end(g.zbl), -1.0f);
  ASSERT_EQ(g.Set_Model_Layers(*ds, 12, 1000), 0);
  // 0.5, 1.05, 1.655, 2.3205, 3.0526: four interfaces above 3, one more layer for depth > 1.02.
  EXPECT_EQ(g.nlayers, 6);
  EXPECT_EQ(g.zbl[0], 0.0f);
  double z = 0.0, t = 0.5;
  for (int i = 1; i < 80; i++, t *= 1.1) {
    z += t;
    if (i <= 6 || i > 12)
      EXPECT_NEAR(g.zbl[i], z, 1e-5 * z) << i;
  }
  for (int i = 7; i < 12; i++) // the extension grows by the buffer rate
    EXPECT_NEAR((g.zbl[i + 1] - g.zbl[i]) / (g.zbl[i] - g.zbl[i - 1]), 1.5, 1e-4) << i;

  // Equal layers of 0.5: the count against the depth limit scaledepth * psdepthmax.
  struct Case {
    double scale, depth;
    int n;
  } cases[] = {{1, 0.4, 1}, {1, 0.5, 1},  {0.1, 2.0, 2}, {1, 1.0, 2},
               {1, 1.02, 3}, {1, 1.03, 4}, {0.5, 1.03, 3}};
  g.thickinc = 1.0;
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << c.scale << " x " << c.depth);
    g.scaledepth = c.scale, g.psdepthmax = c.depth;
    ASSERT_EQ(g.Set_Model_Layers(*ds, 20, 1000), 0);
    EXPECT_EQ(g.nlayers, c.n);
    for (int i = 0; i <= g.nlayers; i++)
      EXPECT_FLOAT_EQ(g.zbl[i], 0.5f * i);
  }
  // A tank floor ends the layers where the next interface would pass it.
  g.scaledepth = 1.0, g.psdepthmax = 10.0, g.tank_limit = 1;
  for (double floor : {1.02, 1.6}) {
    g.tank_depth = floor;
    ASSERT_EQ(g.Set_Model_Layers(*ds, 20, 1000), 0);
    const int last = floor < 1.5 ? 2 : 3;
    EXPECT_FLOAT_EQ(g.zbl[last], static_cast<float>(floor));
    EXPECT_FLOAT_EQ(g.zbl[last - 1], 0.5f * (last - 1));
    EXPECT_EQ(g.nlayers, last + 1);
  }
  g.tank_limit = 0;

  // Depths given in the file (stored from index 0, user units).
  ds->spxx = 2.0;
  g.user_depths = 1, g.nlayers_user = 3;
  g.depth_user[0] = 1.0, g.depth_user[1] = 2.5, g.depth_user[2] = 4.0;
  ASSERT_EQ(g.Set_Model_Layers(*ds, 6, 12), 0);
  EXPECT_EQ(g.nlayers, 3);
  EXPECT_FLOAT_EQ(g.zbl[1], 0.5f);
  EXPECT_FLOAT_EQ(g.zbl[2], 1.25f);
  EXPECT_FLOAT_EQ(g.zbl[3], 2.0f);
  EXPECT_NEAR((g.zbl[6] - g.zbl[5]) / (g.zbl[5] - g.zbl[4]), 1.5, 1e-4);
  EXPECT_EQ(g.nmodel_blocks, 12);
  EXPECT_TRUE(rec.messages.empty());
  // Block corners from the grid lines and the interfaces.
  const float xl[2] = {0, 1}, xr[2] = {1, 3}, yl[2] = {0, 2}, yh[2] = {2, 5};
  for (int k = 1; k <= 3; k++)
    for (int j = 1; j <= 2; j++)
      for (int i = 1; i <= 2; i++) {
        const int m = (k - 1) * 4 + (j - 1) * 2 + i - 1;
        for (const Model_Block *b : {&g.blocks[m], &g.blocks_topo[m]})
          for (int c = 0; c < 8; c++) {
            SCOPED_TRACE(testing::Message() << "block " << m << " corner " << c);
            EXPECT_EQ(b->x[c], c % 4 < 2 ? xl[i - 1] : xr[i - 1]);
            EXPECT_EQ(b->y[c], c % 4 == 0 || c % 4 == 3 ? yl[j - 1] : yh[j - 1]);
            EXPECT_EQ(b->z[c], g.zbl[c < 4 ? k - 1 : k]);
          }
      }
  // Centres and flat volumes, also of blocks moved by the topography.
  for (int m = 0; m < 12; m++)
    for (int c = 0; c < 8; c++)
      g.blocks_topo[m].z[c] -= 0.1f * c + 0.01f * m;
  g.Calculate_Blocks_Centers();
  for (int m = 0; m < 12; m++)
    for (const Model_Block *b : {&g.blocks[m], &g.blocks_topo[m]}) {
      double s[3] = {};
      for (int c = 0; c < 8; c++)
        s[0] += b->x[c], s[1] += b->y[c], s[2] += b->z[c];
      EXPECT_NEAR(b->xc, s[0] / 8, 1e-5);
      EXPECT_NEAR(b->yc, s[1] / 8, 1e-5);
      EXPECT_NEAR(b->zc, s[2] / 8, 1e-5);
      EXPECT_NEAR(b->vol,
                  std::fabs(b->x[0] - b->x[6]) * std::fabs(b->y[0] - b->y[6]) *
                      std::fabs(b->z[0] - b->z[6]),
                  1e-5);
    }
  EXPECT_FLOAT_EQ(g.blocks[11].vol, 2.0f * 3.0f * 0.75f);

  // One block more than allowed is refused.
  EXPECT_EQ(g.Set_Model_Layers(*ds, 6, 11), 1);
  const Recorded_Message *m = rec.Last("Model Error");
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(Starts_With(m->text, "Too many model parameters at")) << m->text;
}

TEST_F(Model_Grid_Check, HexahedronVolumesAreExactForTrilinearBlocks) {
  EXPECT_NEAR(Block_Volume(Box(1, 1, 1)), 1.0, 1e-12);
  Corners c = Box(2, 3, 4);
  EXPECT_NEAR(Block_Volume(c), 24.0, 1e-12);
  for (auto &p : c)
    p[0] += 0.7 * p[2], p[1] -= 0.3 * p[2]; // sheared: same volume
  EXPECT_NEAR(Block_Volume(c), 24.0, 1e-12);
  // One top corner raised by h: the thickness grows as h u v, by h / 4 on average.
  c = Box(2, 3, 4);
  c[2][2] -= 1.0;
  EXPECT_NEAR(Block_Volume(c), 6.0 * 4.25, 1e-12);
  // A twisted block against a fine subdivision into tetrahedra.
  c = Box(1, 1, 1);
  const double shift[8][3] = {{0.1, -0.2, 0.05}, {-0.15, 0.1, 0.2},  {0.25, 0.2, -0.1},
                              {0.0, -0.1, 0.15}, {-0.2, 0.05, 0.3},  {0.1, 0.25, -0.2},
                              {0.3, -0.1, 0.1},  {-0.05, 0.2, -0.25}};
  for (int i = 0; i < 8; i++)
    for (int k = 0; k < 3; k++)
      c[i][k] += shift[i][k];
  const double exact = Block_Volume(c), fine = Tetrahedra_Volume(c, 48);
  EXPECT_NEAR(exact, fine, 1e-4 * fine);
  EXPECT_GT(std::fabs(Tetrahedra_Volume(c, 1) - fine), 1e-3); // the check can see a twist
  // The same block in local corner order (a + 2 b + 4 c).
  static const int corner_of_local[8] = {0, 3, 1, 2, 4, 7, 5, 6};
  double p[8][3];
  for (int l = 0; l < 8; l++)
    for (int k = 0; k < 3; k++)
      p[l][k] = c[corner_of_local[l]][k];
  EXPECT_NEAR(Trilinear_Volume(p), exact, 1e-12);
}

TEST_F(Model_Grid_Check, MeshVolumesOfBlocksAreClampedAndCapped) {
  g.lx = g.ly = 10, g.lz = 6, g.nwater = 1, g.nodes_per_unit_spacing = 4;
  const double zlev[7] = {-50, 0, 0.001, 2.001, 4.001, 6.001, 8.001}; // water level first
  const int64_t n = 10 * 10 * 7;
  ASSERT_EQ(g.xn.Resize(*ds, n, "x") + g.yn.Resize(*ds, n, "y") + g.zn.Resize(*ds, n, "z"), 0);
  for (int k = 1; k <= 7; k++)
    for (int j = 1; j <= 10; j++)
      for (int i = 1; i <= 10; i++) {
        const int64_t node = g.Node(i, j, k);
        g.xn[node] = 10.0f * (i - 1), g.yn[node] = 10.0f * (j - 1);
        g.zn[node] = static_cast<float>(zlev[k - 1]);
      }
  // Node ranges (x1 x2 y1 y2 z1 z2) and the volume each must get.
  const int r[5][6] = {{3, 5, 3, 4, 2, 3},  // 20 x 10 x 2
                       {1, 10, 2, 10, 3, 6}, // clamped to 3..8, 2..8, 3..4: 50 x 60 x 2
                       {3, 4, 3, 4, 1, 2},   // 10 x 10 x 0.001
                       {3, 8, 3, 8, 2, 4},   // 10000, capped at 10000 times the 0.1 before
                       {3, 4, 3, 4, 3, 3}};  // collapsed
  const double expected[5] = {400, 6000, 0.1, 1000, 0};
  g.nmodel_blocks = 5;
  ASSERT_EQ(g.blocks.Resize(*ds, 5, "b") + g.blocks_topo.Resize(*ds, 5, "t"), 0);
  for (int m = 0; m < 5; m++) {
    Model_Block &b = g.blocks[m];
    b.nx1 = r[m][0], b.nx2 = r[m][1], b.ny1 = r[m][2], b.ny2 = r[m][3];
    b.nz1 = r[m][4], b.nz2 = r[m][5];
  }
  g.Calculate_Blocks_Volumes(0);
  for (int m = 0; m < 5; m++) {
    EXPECT_NEAR(g.blocks[m].vol_mesh, expected[m], 1e-4 * std::max(1.0, expected[m])) << m;
    EXPECT_EQ(g.blocks_topo[m].vol_mesh, g.blocks[m].vol_mesh) << m;
  }
  EXPECT_NEAR(g.vol_min, 0.1, 1e-6);
  EXPECT_NEAR(g.vol_max, 6000, 1e-2);
  // The first block is compared with 1: 50 x 50 x 4.001 becomes 10000.
  g.nmodel_blocks = 1;
  g.blocks[0].nx2 = g.blocks[0].ny2 = 8, g.blocks[0].nz1 = 1, g.blocks[0].nz2 = 4;
  g.Calculate_Blocks_Volumes(0);
  EXPECT_NEAR(g.blocks[0].vol_mesh, 10000.0, 1e-2);
  EXPECT_NEAR(g.vol_min, 10000.0, 1e-2);
}

TEST_F(Model_Grid_Check, ElectrodesMarkTheCellsAroundThem) {
  Plan({0, 1, 2, 3, 4, 5}, {0, 1, 2, 3}); // 5 x 3 cells
  ASSERT_EQ(g.cellxy_elec.Resize(*ds, 16, "marks"), 0);
  g.dist_dense1i = 1;
  auto marked = [&](int value) {
    std::string s;
    for (int c = 0; c < 15; c++)
      s += g.cellxy_elec[c] == value ? 'x' : '.';
    return s; // rows of 5 cells, y from the low side
  };
  auto check = [&](double x, double y, int r, const std::string &cells) {
    SCOPED_TRACE(testing::Message() << "at " << x << ", " << y << " r " << r);
    std::fill(g.cellxy_elec.data(), g.cellxy_elec.data() + 15, 0);
    g.dist_dense1i = r;
    EXPECT_NE(g.Check_Cell(x, y), -1);
    EXPECT_EQ(marked(1), cells);
  };
  check(2.0, 1.0, 1, ".xx.." ".xx.." ".....");    // on lines: r cells a side
  check(2.0004, 1.0, 1, ".xx.." ".xx.." "....."); // thousandths
  check(2.0006, 1.0, 1, ".xxx." ".xxx." ".....");
  check(2.01, 1.5, 1, ".xxx." ".xxx." ".xxx.");   // inside a cell: r more a side
  check(1.99, 1.0, 1, "xxx.." "xxx.." ".....");
  check(0.0, 0.0, 2, "xx..." "xx..." ".....");    // clamped at the low end
  check(5.0, 3.0, 1, "....." "....." "....x");    // and at the high end
  std::fill(g.cellxy_elec.data(), g.cellxy_elec.data() + 15, 0);
  g.dist_dense1i = 1;
  EXPECT_EQ(g.Check_Cell(5.01, 1.0), -1);
  EXPECT_EQ(g.Check_Cell(1.0, 3.01), -1);
  EXPECT_EQ(marked(1), "...............");
  // The outer zone only turns -1 into 0.
  std::fill(g.cellxy_elec.data(), g.cellxy_elec.data() + 15, -1);
  g.cellxy_elec[6] = 1;
  g.dist_dense1i = 1, g.dist_dense2i = 1;
  EXPECT_NE(g.Check_Cell_Ext2(2.0, 1.0), -1);
  EXPECT_EQ(marked(0), "xxxx." "x.xx." "xxxx.");
  EXPECT_EQ(marked(1), "......x........");
  EXPECT_EQ(marked(-1), "....x" "....x" "....x");
}

TEST_F(Model_Grid_Check, MainMeshOfAReadFollowsTheGridAndLayers) {
  for (int setting : {0, 3}) {
    SCOPED_TRACE(testing::Message() << "vertical setting " << setting);
    g.nodes_per_layer_setting = setting;
    rec.Clear();
    ASSERT_EQ(Read("grid_dipole_dipole.dat"), 0);
    const int npu = g.nodes_per_unit_spacing, fx = g.ixfirst, fy = g.jyfirst;
    ASSERT_EQ(g.lx, 2 * fx - 1 + (g.ngridx - 1) * npu);
    ASSERT_EQ(g.ly, 2 * fy - 1 + (g.ngridy - 1) * npu);
    for (int c = 0; c + 1 < g.ngridx; c++)
      for (int k = 0; k < npu; k++)
        EXPECT_FLOAT_EQ(g.delx[fx - 1 + c * npu + k], (g.xgrid[c + 1] - g.xgrid[c]) / npu);
    for (int i = 0; i < fx - 1; i++) { // buffers, both sides
      const double low = std::min(g.spac_buffer, g.delx[i + 1] * g.rate);
      EXPECT_NEAR(g.delx[i], low, 1e-5 * low) << i;
      const int hi = g.lx - 2 - i;
      const double high = std::min(g.spac_buffer, g.delx[hi - 1] * g.rate);
      EXPECT_NEAR(g.delx[hi], high, 1e-5 * high) << hi;
      EXPECT_LE(g.delx[i], g.spac_buffer);
    }
    double x = 0.0;
    for (int i = 0; i < g.lx; x += g.delx[i], i++)
      EXPECT_NEAR(g.xmesh[i], x, 1e-5 * std::max(1.0, x));
    // Every grid line is a mesh line, the first at its own position.
    for (int c = 0; c < g.ngridx; c++)
      EXPECT_NEAR(g.sx[(fx - 1 + c * npu) + (fy - 1) * g.lx], g.xgrid[c], 1e-4);
    for (int c = 0; c < g.ngridy; c++)
      EXPECT_NEAR(g.sy[(fx - 1) + (fy - 1 + c * npu) * g.lx], g.ygrid[c], 1e-4);
    // Vertical spacings: layers, then the buffer below.
    const int per_layer = setting == 0 ? 1 : 4;
    int end = setting == 0 ? g.nlayers + 1 : 4 * g.nlayers;
    if (setting == 0) {
      EXPECT_NEAR(g.delz[0], 0.3 * g.zbl[1] / 0.7, 1e-6);
      EXPECT_NEAR(g.delz[1], 0.4 * g.zbl[1] / 0.7, 1e-6);
    }
    for (int k = 1; k <= g.nlayers; k++) {
      const int level = setting == 0 ? k + 1 : 4 * k;
      EXPECT_NEAR(g.zmesh[level], g.zbl[k], 1e-5 * g.zbl[k]) << k;
      for (int s = 0; s < per_layer && k > 1; s++)
        EXPECT_NEAR(g.delz[level - 1 - s], (g.zbl[k] - g.zbl[k - 1]) / per_layer, 1e-5) << k;
    }
    for (; end < g.lz - 1; end++)
      EXPECT_NEAR(g.delz[end], std::min(g.spac_buffer, g.delz[end - 1] * g.rate),
                  1e-5 * g.delz[end]);
    // The panel reports the same counts.
    const std::string layers = "Number of layers is " + std::to_string(g.nlayers) + ".";
    const std::string nodes = "Number of nodes in mesh is " + std::to_string(g.lx) + "x" +
                              std::to_string(g.ly) + "x" + std::to_string(g.lzw) + "=" +
                              std::to_string(g.lx * g.ly * g.lzw) + ".";
    EXPECT_EQ(g.lzw, g.lz + g.nwater);
    int found = 0;
    for (const Recorded_Panel_Line &l : rec.panel_lines)
      found += (l.text == layers) + 2 * (l.text == nodes);
    EXPECT_EQ(found, 3);
  }
  // The mesh refuses a plan too large for one layer (in 64 bits) and its node limit.
  for (int64_t limit : {int64_t{g.lx} * g.ly, int64_t{g.lx} * g.ly - 1}) {
    rec.Clear();
    g.max_layer_nodes = limit;
    const bool fits = limit == int64_t{g.lx} * g.ly;
    EXPECT_EQ(g.Set_Mesh_For_Point_Electrodes(*ds), fits ? 0 : 1);
    const Recorded_Message *m = rec.Last("Model Data Error");
    EXPECT_EQ(m == nullptr, fits);
    if (m)
      EXPECT_TRUE(Starts_With(m->text, "Mesh grid size is too large!")) << m->text;
  }
  const int64_t nodes = int64_t{g.lz + g.nwater} * g.ly * g.lx;
  rec.Clear();
  EXPECT_EQ(g.Copy_XY_Node_Positions_To_3D_Mesh(*ds, nodes), 1);
  EXPECT_EQ(rec.Count("Mesh size limits"), 1);
  EXPECT_EQ(g.Copy_XY_Node_Positions_To_3D_Mesh(*ds, nodes + 1), 0);
  // 251 cells of 261 spacings and 12 buffers a side: 65536 nodes along x and y.
  Plan(std::vector<double>(252, 0.0), std::vector<double>(252, 0.0));
  g.ixfirst_base = g.jyfirst_base = 13, g.nodes_per_unit_spacing = 261;
  g.max_layer_nodes = 1000000000;
  EXPECT_EQ(g.Set_Mesh_For_Point_Electrodes(*ds), 1);
  EXPECT_EQ(int64_t{g.lx} * g.ly, int64_t{1} << 32);
}

TEST_F(Model_Grid_Check, TopographyMovesTheMeshAndTheBlocks) {
  for (int type : {2, 1}) {
    SCOPED_TRACE(testing::Message() << "topography model " << type);
    g.type_topo_model = type;
    ASSERT_EQ(Read("topography.dat"), 0);
    ASSERT_TRUE(ds->topo.grid_heights);
    const int npu = g.nodes_per_unit_spacing, n = g.lxy;
    auto column = [&](int i, int j) { return (g.ixfirst - 1 + i * npu) + (g.jyfirst - 1 + j * npu) * g.lx; };
    for (int j = 0; j < g.ngridy; j++)
      for (int i = 0; i < g.ngridx; i++)
        EXPECT_FLOAT_EQ(g.sz[column(i, j)], ds->topo.grid_z[i + j * g.ngridx]);
    EXPECT_GT(*std::max_element(g.sz.data(), g.sz.data() + n) -
                  *std::min_element(g.sz.data(), g.sz.data() + n),
              0.5f);
    for (int c = 0; c < n; c++) {
      EXPECT_NEAR(g.zn[int64_t{g.nwater} * n + c], g.topo_reference - g.sz[c], 1e-4) << c;
      for (int k = 1; k < g.lzw; k++)
        ASSERT_GT(g.zn[int64_t{k} * n + c], g.zn[int64_t{k - 1} * n + c]) << c << " " << k;
    }
    // Block corners sit on the nodes of their layer's interfaces.
    for (int k = 1; k <= g.nlayers; k++) {
      const int top = Level_At(g.zbl[k - 1]), bottom = Level_At(g.zbl[k]);
      ASSERT_GE(top, 0);
      ASSERT_GE(bottom, 0);
      for (int j = 1; j <= g.nblocky; j++)
        for (int i = 1; i <= g.nblockx; i++) {
          const Model_Block &b = g.blocks_topo[g.Block_Number(i, j, k) - 1];
          const int cols[4] = {column(i - 1, j - 1), column(i - 1, j), column(i, j),
                               column(i, j - 1)};
          double sum = 0.0;
          for (int c = 0; c < 8; c++) {
            const int64_t level = (c < 4 ? top : bottom) + g.nwater;
            const float node_z = g.zn[level * n + cols[c % 4]];
            if (c < 4 || k < g.nlayers)
              EXPECT_FLOAT_EQ(b.z[c], node_z) << k << " " << c;
            else // the last layer reaches down to the mesh bottom
              EXPECT_GE(b.z[c], node_z);
            sum += b.z[c];
          }
          EXPECT_NEAR(b.zc, sum / 8, 1e-4);
        }
    }
  }
  ASSERT_EQ(Read("grid_dipole_dipole.dat"), 0);
  for (int64_t c = 0; c < g.lxy; c++)
    ASSERT_EQ(g.sz[c], 0.0f) << c;
}

} // namespace
