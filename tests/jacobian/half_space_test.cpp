// The half-space Jacobian: its terms per electrode count and its integral
// over the half-space; the sensitivity sums and the damping multipliers.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

#include "core/data_set.h"
#include "forward/forward_test_support.h"
#include "jacobian/jacobian.h"

namespace {

std::vector<float> Row(const Data_Set &ds, int idata) {
  std::vector<float> row(ds.Model_grid.nmodel_blocks, 0.0f);
  Jacobian_Homogeneous_Seq(ds, idata, row.data());
  return row;
}

// Largest difference from the row summed by hand from the first `terms`
// kernel terms, relative to the row's largest entry.
double Departure(const Data_Set &ds, int idata, int terms) {
  const std::vector<float> row = Row(ds, idata);
  const Data_Point &d = ds.dp[idata];
  double diff = 0.0, big = 0.0;
  for (size_t i = 0; i < row.size(); i++) {
    const Model_Block &b = ds.Model_grid.blocks[i];
    auto k = [&](const double *a, const double *p) {
      return Half_Space_Kernel(b.xc, b.yc, b.zc, a[0], a[1], p[0], p[1]);
    };
    const double s = k(d.c1, d.p1) - (terms > 1 ? k(d.c1, d.p2) : 0.0) +
                     (terms > 2 ? k(d.c2, d.p2) - k(d.c2, d.p1) : 0.0);
    diff = std::max(diff, std::fabs(row[i] - s * b.vol / d.gfac));
    big = std::max(big, std::fabs(static_cast<double>(row[i])));
  }
  return diff / big;
}

// Grid lines 0.2 apart over [lo, hi], then growing by 1.3 for 50 units
// beyond it (below lo too unless it is the surface).
std::vector<double> Lines(double lo, double hi) {
  std::vector<double> x;
  for (double s = 0.26, v = lo - s; lo < 0 && v > lo - 50; s *= 1.3, v -= s)
    x.insert(x.begin(), v);
  for (int i = 0; i <= std::lround((hi - lo) / 0.2); i++)
    x.push_back(lo + 0.2 * i);
  for (double s = 0.26, v = hi + s; v < hi + 50 + s; s *= 1.3, v += s)
    x.push_back(v);
  return x;
}

} // namespace

TEST(HalfSpace_Jacobian, DatumTermsFollowTheElectrodeCount) {
  Example_Survey dd, pd;
  ASSERT_EQ(dd.Read_Example("grid_9x14.dat"), 0);
  ASSERT_EQ(pd.Read_Example("grid_pole_dipole.dat"), 0);
  ASSERT_EQ(dd.ds->dp[3].nelec, 4);
  EXPECT_LT(Departure(*dd.ds, 3, 3), 1e-5);
  EXPECT_GT(Departure(*dd.ds, 3, 2), 0.05); // the C2 terms are seen
  Data_Set &ds = *pd.ds;
  ASSERT_EQ(ds.dp[3].nelec, 3);
  EXPECT_LT(Departure(ds, 3, 2), 1e-5);
  EXPECT_GT(Departure(ds, 3, 1), 0.05);
  ds.dp[3].nelec = 2; // pole-pole: P2 and C2 left in place are ignored
  EXPECT_LT(Departure(ds, 3, 1), 1e-5);
  // Entries already non-zero are kept.
  std::vector<float> row(ds.Model_grid.nmodel_blocks, 0.0f);
  row[0] = 5.0f;
  Jacobian_Homogeneous_Seq(ds, 3, row.data());
  EXPECT_EQ(row[0], 5.0f);
  EXPECT_EQ(row[1], Row(ds, 3)[1]);
  EXPECT_NE(row[1], 0.0f);
}

TEST(HalfSpace_Jacobian, SensitivityIsTheSumOverAllData) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_pole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  const int n = ds.Model_grid.nmodel_blocks;
  ds.LS.Size(n, ds.mdata);
  std::vector<double> sum(n, 0.0), q(n, 0.0);
  for (int i = 0; i < ds.mdata; i++) {
    const std::vector<float> row = Row(ds, i);
    for (int j = 0; j < n; j++)
      sum[j] += std::fabs(row[j]), q[j] += row[j] * row[j];
  }
  ASSERT_EQ(Calculated_Jacobian_Half_Space(ds), 0);
  double total = 0.0;
  for (int j = 0; j < n; j++) {
    EXPECT_NEAR(ds.LS.sens_reso[j], sum[j], 1e-5 * sum[j]) << j;
    EXPECT_NEAR(ds.LS.approx_reso[j], q[j] / (q[j] + 0.001), 1e-5) << j;
    total += sum[j];
  }
  EXPECT_NEAR(ds.LS.sens_reso[n], total / n, 1e-5 * total / n);
  EXPECT_GT(*std::max_element(ds.LS.damp_ac.begin(), ds.LS.damp_ac.end()), 3.0f);
}

TEST(HalfSpace_Jacobian, RowOverTheWholeHalfSpaceSumsToOne) {
  Example_Survey s;
  Data_Set &ds = *s.ds;
  Model_Grid &g = ds.Model_grid;
  const std::vector<double> xs = Lines(-1, 4), ys = Lines(-1, 1), zs = Lines(0, 1);
  ASSERT_EQ(g.blocks.Resize(ds, (xs.size() - 1) * (ys.size() - 1) * (zs.size() - 1), "c"), 0);
  g.nmodel_blocks = static_cast<int>(g.blocks.size());
  Model_Block *b = g.blocks.data();
  for (size_t i = 0; i + 1 < xs.size(); i++)
    for (size_t j = 0; j + 1 < ys.size(); j++)
      for (size_t k = 0; k + 1 < zs.size(); k++, b++) {
        b->xc = 0.5 * (xs[i] + xs[i + 1]), b->yc = 0.5 * (ys[j] + ys[j + 1]);
        b->zc = 0.5 * (zs[k] + zs[k + 1]);
        b->vol = (xs[i + 1] - xs[i]) * (ys[j + 1] - ys[j]) * (zs[k + 1] - zs[k]);
      }
  // Electrode count, C1 C2 P1 P2 along x, the half-space voltage times 2 pi
  // and the tolerance (the far field is cut off at 50 units).
  const double cases[4][7] = {{4, 1, 0, 2, 3, 1.0 / 3, 0.005}, // dipole-dipole
                              {4, 0, 3, 1, 2, 1.0, 0.01},      // Wenner
                              {3, 0, 0, 1, 2, 0.5, 0.01},      // pole-dipole
                              {2, 0, 0, 1, 0, 1.0, 0.05}};     // pole-pole
  for (const auto &e : cases) {
    Data_Point &d = ds.dp[0];
    d.nelec = static_cast<int>(e[0]);
    d.c1[0] = e[1], d.c2[0] = e[2], d.p1[0] = e[3], d.p2[0] = e[4];
    d.gfac = e[5] / (2 * std::numbers::pi);
    double sum = 0.0;
    for (float v : Row(ds, 0))
      sum += v;
    EXPECT_NEAR(sum, 1.0, e[6]) << d.nelec << " electrodes";
  }
}

TEST(Sensitivity, RankBasedMaximumSkipsTheLargestCells) {
  Example_Survey s;
  Data_Set &ds = *s.ds;
  LS_State &ls = ds.LS;
  const int n = 40;
  ds.Model_grid.nmodel_blocks = n;
  ls.Size(n, 1);
  for (int i = 0; i < n; i++)
    ls.sens_reso[i] = (i * 7) % n + 1; // 1 to 40, shuffled
  ls.sens_reso[n] = 20.5f;             // the average slot is scaled too
  ds.LS_method.bore_damp_fac = 2.5, ds.LS_method.ip_damp = 0.2;
  for (int same : {1, 0})
    for (int layers : {1, 2, 3}) { // 16 x nlayers passed over; too few cells take the largest
      ds.Model_grid.nlayers = layers, ds.LS_method.ip_same_ref_damp = same;
      Calculate_Sensitivity_Constraints(ds);
      const double t = 2.5 / (layers == 1 ? 24.0 : layers == 2 ? 8.0 : 40.0);
      for (int i = 0; i <= n; i++) {
        EXPECT_FLOAT_EQ(ls.damp_ac[i], t * ls.sens_reso[i] + 1.0) << layers << " " << i;
        EXPECT_FLOAT_EQ(ls.damp_ac_ip[i], t * ls.sens_reso[i] * (same ? 1.0 : 0.2) + 1.0) << i;
      }
    }
  // The approximate resolution in place of the scaled sensitivity.
  ds.LS_method.use_sensitivity_damp_reso = 1;
  ls.approx_reso[7] = 0.4f;
  Calculate_Sensitivity_Constraints(ds);
  EXPECT_FLOAT_EQ(ls.damp_ac[7], 2.0f);
}

TEST(Sensitivity, CellAtAnElectrodeTakesTheDistanceOneTenth) {
  Example_Survey s;
  Data_Set &ds = *s.ds;
  ds.num_point_elecs = 2; // the second is not used
  ds.pe[0] = Point_Electrode{1, 2.0, 3.0};
  ds.pe[1] = Point_Electrode{0, 10.0, 3.0};
  // Cells at the electrode, 0.05, 2 and 8 from it, and beyond the 100 cap.
  const float x[5] = {2, 2, 2, 10, 200}, z[5] = {0, 0.05f, 2, 0, 0};
  ASSERT_EQ(ds.Model_grid.blocks.Resize(ds, 5, "c"), 0);
  ds.Model_grid.nmodel_blocks = 5;
  for (int i = 0; i < 5; i++) {
    Model_Block &b = ds.Model_grid.blocks[i];
    b.xc = x[i], b.yc = 3, b.zc = z[i];
  }
  ds.LS.Size(5, 1);
  ds.LS_method.bore_damp_fac = 4.0;
  Calculated_Damp_Dist_Model_Block(ds);
  const double r[5] = {1, 1, 0.1 / 2, 0.1 / 8, 0.1 / 100}; // 0.1 over the distance
  for (int i = 0; i < 5; i++)
    EXPECT_FLOAT_EQ(ds.LS.damp_ac[i], 1.0 + 3.0 * r[i] * r[i]) << i;
  EXPECT_EQ(*std::max_element(ds.LS.damp_ac.begin(), ds.LS.damp_ac.end()), 4.0f);
}

TEST(Sensitivity, SumsTheRowsOfTheJacobianFile) {
  Example_Survey s;
  Data_Set &ds = *s.ds;
  LS_State &ls = ds.LS;
  ds.mdata = 3, ds.Model_grid.nmodel_blocks = 4;
  ls.Size(4, 3);
  ds.LS_method.fmarqm = 0.5;
  const std::string &path = ds.file_names.temp[TF_GRROWT];
  const float rows[3][4] = {{1, -2, 0, 0.5f}, {-3, 1, 0, 0.5f}, {2, 2, 0, -1}};
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(rows), sizeof rows);
  ASSERT_EQ(CalculateSensitivity(ds), 0);
  const float sens[4] = {6, 5, 0, 2}, q[4] = {14, 9, 0, 1.5f};
  for (int j = 0; j < 4; j++) {
    EXPECT_FLOAT_EQ(ls.sens_reso[j], sens[j]) << j;
    EXPECT_FLOAT_EQ(ls.approx_reso[j], q[j] / (0.5f + q[j])) << j;
  }
  EXPECT_FLOAT_EQ(ls.sens_reso[4], 3.25f); // the average
  // Once calculated, only the average and extremes are taken again.
  std::filesystem::remove(path);
  ls.sens_reso[0] = 10.0f;
  ASSERT_EQ(CalculateSensitivity(ds), 0);
  EXPECT_FLOAT_EQ(ls.sens_reso[4], 4.25f);
  ls.sens_calculated = 0;
  EXPECT_EQ(CalculateSensitivity(ds), 1);
  const test_support::Recorded_Message *m = s.rec.Last("Sensitivity Error Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text,
            "Cannot open Jacobian matrix file\n" + path + "\nfor sensitivity calculations.");
}
