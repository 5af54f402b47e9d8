// Model grid: layer depths, model blocks and their volumes, the electrode
// marking of plan cells, and the main mesh built when a data file is read.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
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

class Model_Grid_Check : public ::testing::Test {
protected:
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds = Make_Data_Set(tmp, rec);
  Model_Grid &g = ds->Model_grid;

  void Plan(const std::vector<double> &xs, const std::vector<double> &ys) {
    g.ngridx = static_cast<int>(xs.size()), g.ngridy = static_cast<int>(ys.size());
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
};

using Point = std::array<double, 3>;

// Volume of the trilinear map f(u, v, w) of the unit cube, from its corners
// in the block order and in the local order (a + 2 b + 4 c).
template <class F> void Check_Volume(F f, double expected) {
  double x[8], y[8], z[8], p[8][3];
  for (int i = 0; i < 8; i++) {
    const Point b = f(i % 4 > 1, i % 4 == 1 || i % 4 == 2, i >= 4),
                l = f(i & 1, i >> 1 & 1, i >> 2);
    x[i] = b[0], y[i] = b[1], z[i] = b[2];
    std::copy(l.begin(), l.end(), p[i]);
  }
  EXPECT_NEAR(Hexahedron_Volume(x, y, z), expected, 1e-12 * expected);
  EXPECT_NEAR(Trilinear_Volume(p), expected, 1e-12 * expected);
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
    if (z += t; i <= 6 || i > 12) { // all 79 generated, 7..12 replaced by the extension
      EXPECT_NEAR(g.zbl[i], z, 1e-5 * z) << i;
    }
  }
  for (int i = 7; i < 12; i++) // which grows by the buffer rate
    EXPECT_NEAR((g.zbl[i + 1] - g.zbl[i]) / (g.zbl[i] - g.zbl[i - 1]), 1.5, 1e-4) << i;

  // Equal layers of 0.5: the count against the depth limit scaledepth * psdepthmax.
  const double cases[][3] = {{1, 0.4, 1},  {1, 0.5, 1},  {0.1, 2.0, 2}, {1, 1.0, 2},
                             {1, 1.02, 3}, {1, 1.03, 4}, {0.5, 1.03, 3}};
  g.thickinc = 1.0;
  for (const auto &c : cases) {
    g.scaledepth = c[0], g.psdepthmax = c[1];
    ASSERT_EQ(g.Set_Model_Layers(*ds, 20, 1000), 0);
    EXPECT_EQ(g.nlayers, c[2]) << c[0] << " x " << c[1];
    for (int i = 0; i <= g.nlayers; i++)
      EXPECT_FLOAT_EQ(g.zbl[i], 0.5f * i);
  }
  // A tank floor ends the layers where the next interface would pass it, and
  // no layer goes below it; the mesh's interfaces keep going down.
  g.scaledepth = 1.0, g.psdepthmax = 10.0, g.tank_limit = 1;
  for (double floor : {1.02, 1.6}) {
    g.tank_depth = floor;
    ASSERT_EQ(g.Set_Model_Layers(*ds, 20, 1000), 0);
    const int last = floor < 1.5 ? 2 : 3;
    EXPECT_FLOAT_EQ(g.zbl[last], static_cast<float>(floor));
    EXPECT_FLOAT_EQ(g.zbl[last - 1], 0.5f * (last - 1));
    EXPECT_EQ(g.nlayers, last);
    for (int i = last + 1; i <= 20; i++)
      EXPECT_GT(g.zbl[i], g.zbl[i - 1]);
  }
}

TEST_F(Model_Grid_Check, BlocksTakeTheirCornersFromGridAndLayers) {
  // Depths given in the file (user units, stored from index 0 as the reader does).
  Plan({0, 1, 3}, {0, 2, 5});
  ds->spxx = 2.0, g.buffer_rate = 1.5;
  g.user_depths = 1, g.nlayers_user = 3;
  g.depth_user[0] = 1.0, g.depth_user[1] = 2.5, g.depth_user[2] = 4.0;
  ASSERT_EQ(g.Set_Model_Layers(*ds, 6, 12), 0);
  EXPECT_EQ(g.nlayers, 3);
  const float zu[4] = {0, 0.5f, 1.25f, 2.0f}; // the depths over spxx
  EXPECT_NEAR((g.zbl[6] - g.zbl[5]) / (g.zbl[5] - g.zbl[4]), 1.5, 1e-4);
  EXPECT_EQ(g.nmodel_blocks, 12);
  // Block corners from the grid lines and the interfaces (zu); then centres and flat
  // volumes, also of blocks the topography has moved.
  const float xs[3] = {0, 1, 3}, ys[3] = {0, 2, 5};
  for (int m = 0; m < 12; m++) {
    const int i = m % 2, j = m / 2 % 2, k = m / 4 + 1; // from 0, 0 and 1
    for (int c = 0; c < 8; c++) {
      for (const Model_Block *b : {&g.blocks[m], &g.blocks_topo[m]}) {
        EXPECT_EQ(b->x[c], xs[i + (c % 4 > 1)]) << m << " " << c;
        EXPECT_EQ(b->y[c], ys[j + (c % 4 == 1 || c % 4 == 2)]) << m << " " << c;
        EXPECT_EQ(b->z[c], zu[c < 4 ? k - 1 : k]) << m << " " << c;
      }
      g.blocks_topo[m].z[c] -= 0.1f * c + 0.01f * m;
    }
  }
  g.Calculate_Blocks_Centers();
  for (int m = 0; m < 12; m++)
    for (const Model_Block *b : {&g.blocks[m], &g.blocks_topo[m]}) {
      double s[3] = {};
      for (int c = 0; c < 8; c++)
        s[0] += b->x[c], s[1] += b->y[c], s[2] += b->z[c];
      EXPECT_NEAR(b->xc, s[0] / 8, 1e-5);
      EXPECT_NEAR(b->yc, s[1] / 8, 1e-5);
      EXPECT_NEAR(b->zc, s[2] / 8, 1e-5);
      const double dx = xs[m % 2 + 1] - xs[m % 2], dy = ys[m / 2 % 2 + 1] - ys[m / 2 % 2];
      EXPECT_NEAR(b->vol, dx * dy * std::fabs(b->z[0] - b->z[6]), 1e-5);
    }
  // One block more than allowed is refused.
  EXPECT_EQ(g.Set_Model_Layers(*ds, 6, 11), 1);
  const Recorded_Message *m = rec.Last("Model Error");
  EXPECT_TRUE(m && Starts_With(m->text, "Too many model parameters at"));
}

TEST(Model_Grid_Volume, HexahedraAreExactForTrilinearBlocks) {
  using D = double;
  Check_Volume([](D u, D v, D w) { return Point{2 * u, 3 * v, 4 * w}; }, 24.0);
  // Sheared: the same volume.
  Check_Volume([](D u, D v, D w) { return Point{2 * u + 0.7 * w, 3 * v - 0.3 * w, 4 * w}; }, 24.0);
  // The top corner at x right, y high raised by 1: the thickness grows by u v, 1/4 on average.
  Check_Volume([](D u, D v, D w) { return Point{2 * u, 3 * v, 4 * w - (1 - w) * u * v}; }, 25.5);
  // Twisted in all three directions: det J = 1 - (u^2 + v^2 + w^2) / 4 + u v w / 4,
  // whose mean is 1 - 1/4 + 1/32 (the centre value is 0.84375).
  Check_Volume(
      [](D u, D v, D w) {
        return Point{u + v * w / 2, v + u * w / 2, w + u * v / 2};
      },
      25.0 / 32.0);
}

TEST_F(Model_Grid_Check, MeshVolumesOfBlocksAreClampedAndCapped) {
  g.lx = g.ly = 10, g.lz = 6, g.nwater = 1, g.nodes_per_unit_spacing = 4;
  const float zlev[7] = {-50, 0, 0.001, 2.001, 4.001, 6.001, 8.001}; // water level first
  const int64_t n = 10 * 10 * 7;
  ASSERT_EQ(g.xn.Resize(*ds, n, "x") + g.yn.Resize(*ds, n, "y") + g.zn.Resize(*ds, n, "z"), 0);
  for (int64_t q = 0; q < n; q++) // x fastest, then y, then the levels
    g.xn[q] = 10.0f * (q % 10), g.yn[q] = 10.0f * (q / 10 % 10), g.zn[q] = zlev[q / 100];
  // Node ranges (x1 x2 y1 y2 z1 z2) and the volume each must get.
  const int r[5][6] = {{3, 5, 3, 4, 2, 3},   // 20 x 10 x 2
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
  auto marked = [&](int value) { // rows of 5 cells from the low y side
    std::string s;
    for (int c = 0; c < 15; c++)
      s += std::string(c % 5 || !c ? "" : "|") + (g.cellxy_elec[c] == value ? 'x' : '.');
    return s;
  };
  auto check = [&](double x, double y, int r, const char *cells) {
    SCOPED_TRACE(testing::Message() << "at " << x << ", " << y << " r " << r);
    std::fill(g.cellxy_elec.data(), g.cellxy_elec.data() + 15, 0);
    g.dist_dense1i = r, g.cellxy_elec[15] = 7; // past the last cell
    EXPECT_EQ(g.Check_Cell(x, y) == -1, std::string(cells).find('x') == std::string::npos);
    EXPECT_EQ(marked(1), cells);
    EXPECT_EQ(g.cellxy_elec[15], 7);
  };
  check(2.0, 1.0, 1, ".xx..|.xx..|.....");    // on lines: r cells a side
  check(2.0004, 1.0, 1, ".xx..|.xx..|....."); // thousandths
  check(2.0006, 1.0, 1, ".xxx.|.xxx.|.....");
  check(2.01, 1.5, 1, ".xxx.|.xxx.|.xxx."); // inside a cell: r cells more a side
  check(1.99, 1.0, 1, "xxx..|xxx..|.....");
  check(0.0, 0.0, 2, "xx...|xx...|.....");  // clamped at the low end
  check(5.0, 3.0, 1, ".....|.....|....x");  // and at the high end
  check(5.01, 1.0, 1, ".....|.....|....."); // beyond the last line
  check(1.0, 3.01, 1, ".....|.....|.....");
  // The outer zone only turns -1 into 0.
  std::fill(g.cellxy_elec.data(), g.cellxy_elec.data() + 15, -1);
  g.cellxy_elec[6] = 1;
  g.dist_dense1i = 1, g.dist_dense2i = 1;
  EXPECT_NE(g.Check_Cell_Ext2(2.0, 1.0), -1);
  EXPECT_EQ(marked(0), "xxxx.|x.xx.|xxxx.");
  EXPECT_EQ(marked(1), ".....|.x...|.....");
  EXPECT_EQ(marked(-1), "....x|....x|....x");
}

TEST_F(Model_Grid_Check, MainMeshOfAReadFollowsTheGridAndLayers) {
  g.spac_buffer_base = 0.4; // small enough for the buffers to reach it
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
    for (int i = 0, hi = g.lx - 2; i < fx - 1; i++, hi--) { // buffers, both sides
      const double low = std::min(g.spac_buffer, g.delx[i + 1] * g.rate);
      const double high = std::min(g.spac_buffer, g.delx[hi - 1] * g.rate);
      EXPECT_NEAR(g.delx[i], low, 1e-5 * low) << i;
      EXPECT_NEAR(g.delx[hi], high, 1e-5 * high) << hi;
    }
    EXPECT_FLOAT_EQ(g.delx[0], g.spac_buffer);
    for (int i = 1; i < g.lx; i++)
      EXPECT_NEAR(g.xmesh[i] - g.xmesh[i - 1], g.delx[i - 1], 1e-5 * g.xmesh[i]) << i;
    // Every grid line is a mesh line, the first at its own position.
    for (int c = 0; c < g.ngridx; c++)
      EXPECT_NEAR(g.sx[(fx - 1 + c * npu) + (fy - 1) * g.lx], g.xgrid[c], 1e-4);
    for (int c = 0; c < g.ngridy; c++)
      EXPECT_NEAR(g.sy[(fx - 1) + (fy - 1 + c * npu) * g.lx], g.ygrid[c], 1e-4);
    // Vertical spacings: the layers, then the buffer below them.
    const int per_layer = setting == 0 ? 1 : 4;
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
    for (int n = setting == 0 ? g.nlayers + 1 : 4 * g.nlayers; n < g.lz - 1; n++)
      EXPECT_NEAR(g.delz[n], std::min(g.spac_buffer, g.delz[n - 1] * g.rate), 1e-5 * g.delz[n]);
    // The panel reports the same counts.
    char layers[64], nodes[128];
    std::snprintf(layers, sizeof layers, "Number of layers is %d.", g.nlayers);
    std::snprintf(nodes, sizeof nodes, "Number of nodes in mesh is %dx%dx%d=%d.", g.lx, g.ly,
                  g.lz + g.nwater, g.lx * g.ly * (g.lz + g.nwater));
    int found = 0;
    for (const Recorded_Panel_Line &l : rec.panel_lines)
      found += (l.text == layers) + 2 * (l.text == nodes);
    EXPECT_EQ(found, 3);
  }
  // A plan too large for one mesh layer is refused; the limit itself fits.
  g.max_layer_nodes = int64_t{g.lx} * g.ly;
  EXPECT_EQ(g.Set_Mesh_For_Point_Electrodes(*ds), 0);
  g.max_layer_nodes--;
  EXPECT_EQ(g.Set_Mesh_For_Point_Electrodes(*ds), 1);
  const Recorded_Message *m = rec.Last("Model Data Error");
  EXPECT_TRUE(m && Starts_With(m->text, "Mesh grid size is too large!"));
  // The 3-D mesh must stay below its node limit.
  const int64_t nodes = int64_t{g.lz + g.nwater} * g.ly * g.lx;
  EXPECT_EQ(g.Copy_XY_Node_Positions_To_3D_Mesh(*ds, nodes), 1);
  EXPECT_EQ(rec.Count("Mesh size limits"), 1);
  EXPECT_EQ(g.Copy_XY_Node_Positions_To_3D_Mesh(*ds, nodes + 1), 0);
  // 251 cells of 261 spacings and 12 buffers a side: 65536 x 65536 nodes, 0 in 32 bits.
  Plan(std::vector<double>(252, 0.0), std::vector<double>(252, 0.0));
  g.ixfirst_base = g.jyfirst_base = 13, g.nodes_per_unit_spacing = 261;
  g.max_layer_nodes = 1000000000;
  EXPECT_EQ(g.Set_Mesh_For_Point_Electrodes(*ds), 1);
  EXPECT_EQ(int64_t{g.lx} * g.ly, int64_t{1} << 32);
}

TEST_F(Model_Grid_Check, TopographyMovesTheMeshAndTheBlocks) {
  for (int type : {2, 1, 3}) {
    SCOPED_TRACE(testing::Message() << "topography model " << type);
    g.type_topo_model = std::min(type, 2);
    ASSERT_EQ(Read("topography.dat"), 0);
    if (type == 3) { // a relief 20 times as high: the damped distortion would fold levels over
      for (int k = 0; k < g.ngridx * g.ngridy; k++)
        ds->topo.grid_z[k] *= 20.0f;
      ASSERT_EQ(Set_Model_Mesh_XYZ(*ds), 0);
    }
    const int npu = g.nodes_per_unit_spacing, n = g.lxy;
    auto column = [&](int i, int j) {
      return (g.ixfirst - 1 + i * npu) + (g.jyfirst - 1 + j * npu) * g.lx;
    };
    for (int j = 0; j < g.ngridy; j++)
      for (int i = 0; i < g.ngridx; i++)
        EXPECT_FLOAT_EQ(g.sz[column(i, j)], ds->topo.grid_z[i + j * g.ngridx]);
    EXPECT_GT(*std::max_element(g.sz.data(), g.sz.data() + n), 0.5f + g.sz[column(0, 0)]);
    for (int c = 0; c < n; c++) {
      EXPECT_NEAR(g.zn[int64_t{g.nwater} * n + c], g.topo_reference - g.sz[c], 1e-4) << c;
      for (int k = 1; k < g.lzw; k++)
        ASSERT_GT(g.zn[int64_t{k} * n + c], g.zn[int64_t{k - 1} * n + c]) << c << " " << k;
    }
    // Block corners sit on the nodes of their layer's interfaces (level k + 1
    // for zbl[k] at the default vertical setting).
    for (int m = 0; m < g.nmodel_blocks; m++) {
      const Model_Block &b = g.blocks_topo[m];
      const int i = m % g.nblockx, j = m / g.nblockx % g.nblocky, k = m / g.nblockx / g.nblocky;
      const int cols[4] = {column(i, j), column(i, j + 1), column(i + 1, j + 1), column(i + 1, j)};
      double sum = 0.0;
      for (int c = 0; c < 8; c++) {
        const int level = (c < 4 ? (k ? k + 1 : 0) : k + 2) + g.nwater;
        const float node_z = g.zn[int64_t{level} * n + cols[c % 4]];
        if (c < 4 || k + 1 < g.nlayers) {
          EXPECT_FLOAT_EQ(b.z[c], node_z) << m << " " << c;
        } else { // the last layer reaches down to the mesh bottom
          EXPECT_GE(b.z[c], node_z) << m << " " << c;
        }
        sum += b.z[c];
      }
      EXPECT_NEAR(b.zc, sum / 8, 1e-4) << m;
    }
  }
  ASSERT_EQ(Read("grid_dipole_dipole.dat"), 0);
  for (int64_t c = 0; c < g.lxy; c++)
    ASSERT_EQ(g.sz[c], 0.0f) << c;
}

} // namespace
