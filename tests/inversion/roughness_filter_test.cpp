// Roughness filter: direction, cell and row weights; F's storage, symmetry,
// definiteness and stencils; sharp boundaries, L1 reweighting, sensitivity
// damping, fixed regions, and the model roughness of the L-curve.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "forward/forward_test_support.h"
#include "inversion/inversion.h"
#include "inversion/roughness_weights.h"

namespace {

class Roughness : public ::testing::Test {
protected:
  Example_Survey ex;
  Data_Set &ds = *ex.ds;
  Model_Grid &g = ds.Model_grid;
  LS_Method &lm = ds.LS_method;
  int n = 0;

  void SetUp() override {
    ASSERT_EQ(ex.Read_Example("grid_9x14.dat"), 0);
    n = g.nmodel_blocks;
    ASSERT_TRUE(g.nblockx == 8 && g.nblocky == 13 && g.nlayers >= 4 && n == 104 * g.nlayers);
    ASSERT_GT(g.blocks[n - 1].zc, g.blocks[0].zc); // centres are set
  }
  // Unit weights everywhere: every plain row holds -1 and +1.
  void Unit_Weights() {
    lm.uniform_filter_weights = 1, lm.use_first_layer_damp = 0;
    lm.vh_filter_ratio = lm.side_filter_weight = lm.damp_depth_factor = 1.0;
  }
  int Cell(int i, int j, int k) const { return g.Block_Number(i, j, k) - 1; }
  Sparse_Upper Filter(const std::vector<float> &model, int constr = 0, double wsdamp = 0.0,
                      const float *damp_ac = nullptr) {
    Sparse_Upper f;
    EXPECT_EQ(Calculate_Roughness_Filters(ds, model.data(), constr, wsdamp, 0.05, damp_ac, f), 0);
    return f;
  }
  // F(a, b); NaN where it is not stored.
  static double At(const Sparse_Upper &f, int a, int b) {
    for (int e = f.row[std::min(a, b)] - 1; e < f.row[std::min(a, b) + 1] - 1; e++)
      if (f.col[e] == std::max(a, b) + 1)
        return f.val[e];
    return NAN;
  }
  static std::vector<double> Times(const Sparse_Upper &f, double v) {
    std::vector<double> p(f.n, v), y(f.n);
    Filter_Multiply(f, p.data(), y.data());
    return y;
  }
  // Cholesky of the dense F + s 1 1^T succeeds. A pivot must pass 1e-2: far
  // above the rounding of a singular F, far below the pivots of these F.
  static bool Positive_Definite(const Sparse_Upper &f, double s) {
    const int m = f.n;
    std::vector<double> u(static_cast<size_t>(m) * m, s);
    const auto a = [&](int i, int j) -> double & { return u[static_cast<size_t>(i) * m + j]; };
    for (int i = 0; i < m; i++)
      for (int e = f.row[i] - 1; e < f.row[i + 1] - 1; e++)
        a(i, f.col[e] - 1) += f.val[e];
    for (int j = 0; j < m; j++) {
      for (int i = j; i < m; i++)
        for (int k = 0; k < j; k++)
          a(j, i) -= a(k, j) * a(k, i);
      if (!(a(j, j) > 1e-2))
        return false;
      const double d = std::sqrt(a(j, j));
      for (int i = j; i < m; i++)
        a(j, i) /= d;
    }
    return true;
  }
  // Storage rules (one-based, diagonal first, columns rising); returns the
  // largest |di|, |dj|, |dk| between coupled cells.
  std::array<int, 3> Check_Storage(const Sparse_Upper &f) {
    std::array<int, 3> reach = {0, 0, 0};
    const int nx = g.nblockx, ny = g.nblocky;
    EXPECT_TRUE(f.n == n && f.row[0] == 1 && f.Entries() == static_cast<int64_t>(f.col.size()));
    for (int i = 0; i < n; i++) {
      EXPECT_EQ(f.col[f.row[i] - 1], i + 1);
      for (int e = f.row[i]; e < f.row[i + 1] - 1; e++) {
        const int c = f.col[e] - 1;
        EXPECT_GT(c + 1, f.col[e - 1]);
        reach[0] = std::max(reach[0], std::abs(c % nx - i % nx));
        reach[1] = std::max(reach[1], std::abs(c / nx % ny - i / nx % ny));
        reach[2] = std::max(reach[2], c / (nx * ny) - i / (nx * ny));
      }
    }
    return reach;
  }
};

TEST(Roughness_Weights, DirectionWeights) {
  LS_Method m;
  float wx, wy, wz;
  Filter_Direction_Weights(m, wx, wy, wz);
  EXPECT_TRUE(wx == 1.0f && wy == 1.0f && wz == 1.0f); // not 1.4142 sqrt(0.5)
  m.xfilter_weight = 2.0, m.yfilter_weight = 0.5;
  Filter_Direction_Weights(m, wx, wy, wz);
  EXPECT_TRUE(wx == 2.0f && wy == 0.5f && wz == 1.0f);
  m.vh_filter_ratio = 0.5, m.xfilter_weight = m.yfilter_weight = 1.0;
  Filter_Direction_Weights(m, wx, wy, wz);
  EXPECT_FLOAT_EQ(wz, static_cast<float>(std::sqrt(0.2) * 1.4142));
  EXPECT_TRUE(wx == wy && wx == static_cast<float>(std::sqrt(0.8) * 1.4142));
  EXPECT_NEAR(wx * wx + wz * wz, 2.0, 1e-3);
}

TEST_F(Roughness, RowWeightsTakeSideDepthAndSurfaceFactors) {
  Unit_Weights();
  lm.side_filter_weight = 1.5, lm.damp_depth_factor = 1.2;
  lm.use_first_layer_damp = 1, lm.first_layer_damp_factor = 3.0;
  Filter_Weights w;
  ASSERT_EQ(Set_Filter_Weights(ds, nullptr, w), 0);
  const float mid1 = w.row[0][Cell(4, 6, 1)], mid2 = w.row[0][Cell(4, 6, 2)];
  EXPECT_FLOAT_EQ(mid1, 3.0f);
  EXPECT_FLOAT_EQ(mid2, 1.2f);
  EXPECT_FLOAT_EQ(w.row[2][Cell(4, 6, 3)], 1.44f);
  EXPECT_FLOAT_EQ(w.row[0][Cell(1, 6, 2)] / mid2, 1.5f);               // edge: once
  EXPECT_FLOAT_EQ(w.row[1][Cell(4, 13, 2)] / mid2, 1.5f);              // edge: once
  EXPECT_FLOAT_EQ(w.row[0][Cell(8, 1, 2)] / mid2, 1.5f * 1.5f * 1.5f); // corner: three times

  // Cell weights from the sizes stay within 0.5..2.0; the cell filter
  // weight of a unit-width cell is its thickness (sqrt(a c a), c = 1).
  lm.uniform_filter_weights = 0;
  ASSERT_EQ(Set_Filter_Weights(ds, nullptr, w), 0);
  for (int d = 0; d < 4; d++)
    for (int m = 0; m < n; m++)
      ASSERT_TRUE(w.cell[d][m] >= 0.5f && w.cell[d][m] <= 2.0f);
  const Model_Block &b = g.blocks[Cell(3, 3, 2)];
  EXPECT_NEAR(w.cell[3][Cell(3, 3, 2)], std::clamp(b.z[4] - b.z[0], 0.5f, 2.0f), 1e-5);
}

TEST_F(Roughness, FilterIsSymmetricSemiDefiniteWithConstantNullSpace) {
  std::vector<float> model(n);
  std::mt19937 rng(7);
  for (float &v : model)
    v = std::exp(std::uniform_real_distribution<float>(1.0f, 7.0f)(rng));
  for (const int constr : {0, 1}) {
    const Sparse_Upper f = Filter(model, constr);
    EXPECT_EQ(Check_Storage(f), (std::array<int, 3>{1, 1, 1})); // next cells only, no wrap
    // F 1 = 0 and F + 1 1^T / n definite: F is semi-definite with the
    // constants as its whole null space.
    for (const double v : Times(f, 3.0))
      ASSERT_NEAR(v, 0.0, 1e-3);
    EXPECT_TRUE(Positive_Definite(f, 1.0 / n));
  }
  // The L2 filter does not depend on the model.
  const Sparse_Upper a = Filter(model), b = Filter(std::vector<float>(n, 50.0f));
  EXPECT_EQ(a.val, b.val);
}

TEST_F(Roughness, PlainStencilsWithUnitWeights) {
  Unit_Weights();
  const int nx = g.nblockx, ny = g.nblocky, nz = g.nlayers;
  Sparse_Upper f = Filter(std::vector<float>(n, 100.0f));
  EXPECT_EQ(At(f, Cell(4, 6, 1), Cell(4, 6, 1)), 5.0);
  EXPECT_EQ(At(f, Cell(4, 6, 2), Cell(4, 6, 2)), 6.0);
  EXPECT_EQ(At(f, Cell(1, 1, 1), Cell(1, 1, 1)), 3.0);
  EXPECT_EQ(At(f, Cell(4, 6, 2), Cell(5, 6, 2)), -1.0);
  EXPECT_EQ(At(f, Cell(4, 6, 2), Cell(4, 7, 2)), -1.0);
  EXPECT_EQ(At(f, Cell(4, 6, 2), Cell(4, 6, 3)), -1.0);
  EXPECT_TRUE(std::isnan(At(f, Cell(nx, 1, 1), Cell(1, 2, 1)))); // no wrap at a row's end
  const int64_t pairs = (nx - 1) * ny * nz + nx * (ny - 1) * nz + nx * ny * (nz - 1);
  EXPECT_EQ(f.Entries(), n + pairs);

  // One layer: no z rows, so an interior cell has 4 on its diagonal.
  g.nlayers = 1, g.nmodel_blocks = n = nx * ny;
  f = Filter(std::vector<float>(n, 100.0f));
  EXPECT_EQ(At(f, Cell(4, 6, 1), Cell(4, 6, 1)), 4.0);
  EXPECT_EQ(f.Entries(), n + (nx - 1) * ny + nx * (ny - 1));
}

TEST_F(Roughness, DiagonalAndExtendedFilters) {
  Unit_Weights();
  lm.use_hdiag_filter = lm.use_vdiag_filter = lm.use_vcross_filter = 1;
  lm.extended_horizontal_filter = 2;
  const Sparse_Upper f = Filter(std::vector<float>(n, 100.0f));
  EXPECT_EQ(Check_Storage(f), (std::array<int, 3>{3, 3, 1}));
  EXPECT_TRUE(Positive_Definite(f, 1.0 / n));
  const int c = Cell(4, 6, 2);
  for (const int d : {Cell(5, 7, 2), Cell(3, 7, 2), Cell(5, 6, 3), Cell(4, 5, 3), Cell(3, 5, 3),
                      Cell(7, 6, 2), Cell(4, 9, 2)})
    EXPECT_LT(At(f, c, d), 0.0) << d;
  // x rows -1.75, 1, 0.5, 0.25 (the cells after next at e and e^2).
  EXPECT_FLOAT_EQ(At(f, c, Cell(7, 6, 2)), -1.75f * 0.25f);
  EXPECT_FLOAT_EQ(At(f, c, Cell(6, 6, 2)), -1.75f * 0.5f + 0.25f);
  for (const double v : Times(f, 1.0)) // every stencil keeps the constants flat
    ASSERT_NEAR(v, 0.0, 1e-4);
}

TEST_F(Roughness, SharpBoundaryDropsCoupling) {
  Unit_Weights();
  ds.Sharp_boundary.nregions = 2;
  const int nodes = g.ngridx * g.ngridy;
  std::fill(ds.Sharp_boundary.grid_depth[0], ds.Sharp_boundary.grid_depth[0] + nodes, g.zbl[2]);
  const Sparse_Upper f = Filter(std::vector<float>(n, 100.0f));
  EXPECT_TRUE(std::isnan(At(f, Cell(4, 6, 2), Cell(4, 6, 3))));
  EXPECT_EQ(At(f, Cell(4, 6, 1), Cell(4, 6, 2)), -1.0);
  EXPECT_EQ(At(f, Cell(4, 6, 3), Cell(4, 6, 4)), -1.0);
  // A group-wise constant model is flat for the filter.
  std::vector<double> p(n), fp(n);
  for (int m = 0; m < n; m++)
    p[m] = g.blocks[m].zc > g.zbl[2] ? 5.0 : -2.0;
  Filter_Multiply(f, p.data(), fp.data());
  for (const double v : fp)
    ASSERT_NEAR(v, 0.0, 1e-4);
  // The roughness ignores the step across the boundary.
  std::vector<float> model(n);
  for (int m = 0; m < n; m++)
    model[m] = static_cast<float>(std::exp(p[m]));
  EXPECT_NEAR(Calculate_Model_Roughness_Resis_Iter(ds, model.data(), 1), 0.0, 1e-9);
}

TEST_F(Roughness, L1ReweightingAndSensitivityDamping) {
  Unit_Weights();
  std::vector<float> model(n, 100.0f);
  model[Cell(5, 6, 2)] = 1000.0f;
  const int a = Cell(4, 6, 2), b = Cell(5, 6, 2), c = Cell(4, 10, 2), d = Cell(5, 10, 2);
  const Sparse_Upper l2 = Filter(model, 0), l1 = Filter(model, 1);
  EXPECT_EQ(At(l2, a, b), At(l2, c, d));
  EXPECT_FLOAT_EQ(At(l1, c, d), -1.0 / 0.05); // no jump: 1 / epsm
  EXPECT_LT(std::fabs(At(l1, a, b)), 0.03 * std::fabs(At(l1, c, d)));

  // Sensitivity damping multiplies each row weight, F by its square.
  const std::vector<float> damp(n, 2.0f);
  const Sparse_Upper s = Filter(model, 0, 0.0, damp.data());
  EXPECT_EQ(At(s, a, b), 4.0 * At(l2, a, b));
  lm.sensitivity_damp_direct = 1;
  const Sparse_Upper s2 = Filter(model, 0, 0.0, damp.data());
  EXPECT_FLOAT_EQ(At(s2, a, b), 4.0f * std::sqrt(2.0f) * At(l2, a, b));
}

TEST_F(Roughness, SetFiltersAndFixedRegions) {
  Unit_Weights();
  ds.LS.Size(n, ds.mdata);
  std::fill(ds.LS.rt.begin(), ds.LS.rt.end(), 100.0f);
  lm.use_reference = 1;
  ex.rec.Clear();
  ASSERT_EQ(Set_Roughness_Filters(ds), 0);
  ASSERT_EQ(ds.LS.F.n, n);
  EXPECT_EQ(ex.rec.progress_calls.front().text, "Calculate roughness filters");
  EXPECT_GE(ds.LS.time_rough_filter, 0.0);
  for (const double v : Times(ds.LS.F, 1.0))
    ASSERT_NEAR(v, lm.wsdamp, 1e-6); // the reference damping alone
  EXPECT_TRUE(Positive_Definite(ds.LS.F, 0.0));

  // A region over columns 2-3, rows 4-6, layers 1-2 (centres inside).
  Fix_Regions &fr = ds.Fix_regions;
  fr.nfix = 1, fr.weight[0] = 7.0f;
  const Model_Block &lo = g.blocks[Cell(2, 4, 1)], &hi = g.blocks[Cell(3, 6, 2)];
  fr.x1[0] = lo.xc - 0.01f, fr.y1[0] = lo.yc - 0.01f, fr.z1[0] = 0.0f;
  fr.x2[0] = hi.xc, fr.y2[0] = hi.yc, fr.z2[0] = hi.zc + 0.01f; // a centre on the edge is in
  ASSERT_EQ(Set_Fixed_Regions_Roughness_Filter(ds), 0);
  int fixed = 0;
  for (int m = 0; m < n; m++)
    fixed += ds.LS.sensfix[m] == 7.0f;
  EXPECT_EQ(fixed, 2 * 3 * 2);
  EXPECT_EQ(ds.LS.sensfix[Cell(3, 5, 2)], 7.0f);
  EXPECT_EQ(ds.LS.sensfix[Cell(3, 5, 3)], 1.0f);
}

TEST_F(Roughness, ModelRoughness) {
  Unit_Weights();
  std::vector<float> model(n, 30.0f);
  EXPECT_EQ(Calculate_Model_Roughness_Resis_Iter(ds, model.data(), 0), 0.0);
  EXPECT_EQ(Calculate_Model_Roughness_Resis_Iter(ds, model.data(), 1), 0.0);
  // One interior cell raised by e: six pairs, each r = 1 x 1 x (1 + 1).
  model[Cell(4, 6, 2)] = 30.0f * std::exp(1.0f);
  const int nx = g.nblockx, ny = g.nblocky, nz = g.nlayers;
  const double pairs = (nx - 1) * ny * nz + nx * (ny - 1) * nz + nx * ny * (nz - 1);
  EXPECT_NEAR(Calculate_Model_Roughness_Resis_Iter(ds, model.data(), 1), 12.0 / pairs, 1e-6);
  EXPECT_NEAR(Calculate_Model_Roughness_Resis_Iter(ds, model.data(), 0), std::sqrt(24.0 / pairs),
              1e-6);
}

} // namespace
