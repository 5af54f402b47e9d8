// The finite-element Jacobian against finite differences of the forward
// model, its hit-type grouping and its offsets.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "core/temp_files.h"
#include "forward/forward_test_support.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian.h"

namespace {

// A model with some contrast, so that the fields are not those of a
// half-space: resistivities from 40 to 160 ohm-m by cell number.
std::vector<float> Contrast_Model(int n) {
  std::vector<float> res(n);
  for (int b = 0; b < n; b++)
    res[b] = 40.0f + 120.0f * static_cast<float>((b * 37) % 11) / 10.0f;
  return res;
}

// Columns to check: cells under the survey's middle, one a layer down to
// `layers`, and one off the centre line.
std::vector<int> Probe_Cells(const Data_Set &ds, int layers) {
  const Model_Grid &g = ds.Model_grid;
  std::vector<int> cells;
  for (int k = 1; k <= std::min(layers, g.nlayers); k++)
    cells.push_back(g.Block_Number(g.nblockx / 2, g.nblocky / 2 + (k == 2), k) - 1);
  return cells;
}

struct Jacobian_Rows {
  std::vector<float> re, im;
};

// The Jacobian file(s) of the last forward model run with the fields kept.
Jacobian_Rows Read_Jacobian(Data_Set &ds, bool cmplx) {
  const int64_t count = static_cast<int64_t>(ds.mdata) * ds.Model_grid.nmodel_blocks;
  Jacobian_Rows j;
  j.re.resize(count);
  EXPECT_EQ(Read_Values_File(ds, ds.file_names.temp[TF_GRROWT], j.re.data(), count), 0);
  if (cmplx) {
    j.im.resize(count);
    EXPECT_EQ(Read_Values_File(ds, ds.file_names.temp[TF_GRROWT_I], j.im.data(), count), 0);
  }
  return j;
}

// log of the calculated potentials of a model (complex with a phase model).
std::vector<std::complex<double>> Log_Potentials(Data_Set &ds, const std::vector<float> &res,
                                                 const std::vector<float> *phase) {
  const int e = phase ? Forward_Model_Cmplx(ds, res.data(), phase->data(), 0)
                      : Forward_Model_Real(ds, res.data(), 0);
  EXPECT_EQ(e, 0);
  std::vector<std::complex<double>> v(ds.mdata);
  for (int i = 0; i < ds.mdata; i++)
    v[i] = std::log(std::complex<double>(ds.Fem.rm_volt[i], phase ? ds.Fem.rm_volt_i[i] : 0.0f));
  return v;
}

// Compares the Jacobian's columns at the probe cells with central
// differences of log V in log resistivity; returns the entries checked.
int Compare_With_Differences(Data_Set &ds, const std::vector<float> &res,
                             const std::vector<float> *phase, const Jacobian_Rows &jac,
                             int layers) {
  const int n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  // Row maxima over all cells.
  std::vector<double> row_max(m, 0.0);
  for (int i = 0; i < m; i++)
    for (int b = 0; b < n; b++)
      row_max[i] = std::max(row_max[i],
                            static_cast<double>(std::hypot(
                                jac.re[static_cast<int64_t>(i) * n + b],
                                jac.im.empty() ? 0.0f : jac.im[static_cast<int64_t>(i) * n + b])));
  const double h = 0.05;
  int checked = 0;
  for (int b : Probe_Cells(ds, layers)) {
    std::vector<float> up = res, down = res;
    up[b] = static_cast<float>(res[b] * std::exp(h));
    down[b] = static_cast<float>(res[b] * std::exp(-h));
    const auto vu = Log_Potentials(ds, up, phase), vd = Log_Potentials(ds, down, phase);
    for (int i = 0; i < m; i++) {
      const std::complex<double> fd = (vu[i] - vd[i]) / (2.0 * h);
      const int64_t k = static_cast<int64_t>(i) * n + b;
      const std::complex<double> j(jac.re[k], jac.im.empty() ? 0.0f : jac.im[k]);
      if (std::abs(j) <= 0.01 * row_max[i])
        continue;
      checked++;
      EXPECT_LT(std::abs(j - fd), 0.02 * std::abs(fd) + 1e-4 * row_max[i])
          << "datum " << i << " cell " << b << " J " << j << " differences " << fd;
    }
  }
  return checked;
}

} // namespace

TEST(FemJacobian, RealEntriesMatchFiniteDifferences) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  ds.Fem.double_precision = 1;
  const int n = ds.Model_grid.nmodel_blocks;
  ds.LS.Size(n, ds.mdata);
  const std::vector<float> res = Contrast_Model(n);
  ASSERT_EQ(Forward_Model_Real(ds, res.data(), 1), 0);
  ASSERT_EQ(Finite_Element_Jacobian_Real_data_ss(ds), 0);
  const Jacobian_Rows jac = Read_Jacobian(ds, false);
  // The Hessian diagonal gathered on the way is the column sums of squares.
  for (int b = 0; b < n; b += 17) {
    double s2 = 0.0;
    for (int i = 0; i < ds.mdata; i++)
      s2 += static_cast<double>(jac.re[static_cast<int64_t>(i) * n + b]) *
            jac.re[static_cast<int64_t>(i) * n + b];
    EXPECT_NEAR(ds.LS.diag_hessian_res[b], s2, 1e-6 * (s2 + 1e-12));
  }
  EXPECT_GT(Compare_With_Differences(ds, res, nullptr, jac, 3), 30);
}

TEST(FemJacobian, ComplexEntriesMatchFiniteDifferences) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("ip_chargeability.dat"), 0);
  Data_Set &ds = *s.ds;
  ds.Fem.double_precision = 1;
  const int n = ds.Model_grid.nmodel_blocks;
  ds.LS.Size(n, ds.mdata);
  const std::vector<float> res = Contrast_Model(n);
  std::vector<float> phase(n);
  for (int b = 0; b < n; b++)
    phase[b] = 0.01f + 0.04f * static_cast<float>(b % 5) / 4.0f;
  ASSERT_EQ(Forward_Model_Cmplx(ds, res.data(), phase.data(), 1), 0);
  ASSERT_EQ(Finite_Element_Jacobian_Real_data_ss(ds), 0);
  const Jacobian_Rows jac = Read_Jacobian(ds, true);
  EXPECT_GT(Compare_With_Differences(ds, res, &phase, jac, 2), 20);
}

TEST(FemJacobian, FieldsFromDiskGiveTheSameRows) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  const int n = ds.Model_grid.nmodel_blocks;
  ds.LS.Size(n, ds.mdata);
  const std::vector<float> res = Contrast_Model(n);
  Jacobian_Rows rows[2];
  for (int memp = 1; memp >= 0; memp--) {
    ds.Model_grid.always_load_potentials_Jacobian_ram = memp;
    ASSERT_EQ(Forward_Model_Real(ds, res.data(), 1), 0);
    ASSERT_EQ(Finite_Element_Jacobian_Real_data_ss(ds), 0);
    rows[memp] = Read_Jacobian(ds, false);
  }
  EXPECT_EQ(rows[0].re, rows[1].re);
}

TEST(FemJacobian, HitTypesGroupDataSharingACurrentField) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  // Runs of 5, 3, 2 and 1 data with the same current pair, then a new one.
  const int lengths[] = {5, 3, 2, 1};
  int d = 0, pair = 0;
  for (int len : lengths) {
    for (int k = 0; k < len; k++, d++) {
      ds.dp[d].nelec = 4;
      ds.dp[d].nc1 = 2 * pair;
      ds.dp[d].nc2 = 2 * pair + 1;
    }
    pair++;
  }
  ds.dp[d].nelec = 4;
  ds.dp[d].nc1 = 50;
  ds.dp[d].nc2 = 51;
  const int saved = ds.mdata;
  ds.mdata = d + 1;
  std::vector<int> hit;
  Jacobian_Hit_Types(ds, hit);
  // Run of 5: a group of 4, then the last alone. Run of 3: one, then a pair.
  // Run of 2: first and last of a run. Then two singles.
  const std::vector<int> expect = {4, 4, 4, 4, 0, 1, 3, 3, 1, 2, 0, 0};
  EXPECT_EQ(hit, expect);
  // Complex fields go one datum at a time.
  ds.Data_ip.ipcmplx = 1;
  Jacobian_Hit_Types(ds, hit);
  for (int h : hit)
    EXPECT_LE(h, 2);
  ds.Data_ip.ipcmplx = 0;
  ds.mdata = saved;
}

TEST(FemJacobian, OffsetsCountElementNodes) {
  std::vector<int> ksort;
  Calculate_Finite_Element_Jacobian_ksort_block_ss(0, nullptr, nullptr, ksort);
  EXPECT_EQ(ksort, std::vector<int>{0});
  const int tet[] = {2, 0, 0, 5}, hex[] = {1, 0, 3, 0};
  Calculate_Finite_Element_Jacobian_ksort_block_ss(4, tet, hex, ksort);
  // A cell without elements has equal neighbours.
  EXPECT_EQ(ksort, (std::vector<int>{0, 16, 16, 40, 60}));
}

// The half-space kernel of one datum summed over q x q x q points of a cell
// (q = 1 is the cell centre rule), times the cell volume over the datum's
// geometric factor, as the program's half-space rows are scaled.
double Half_Space_Cell(const Data_Point &d, const Model_Block &c, int q) {
  float lo[3] = {c.x[0], c.y[0], c.z[0]}, hi[3] = {c.x[0], c.y[0], c.z[0]};
  for (int k = 1; k < 8; k++) {
    const float p[3] = {c.x[k], c.y[k], c.z[k]};
    for (int a = 0; a < 3; a++)
      lo[a] = std::min(lo[a], p[a]), hi[a] = std::max(hi[a], p[a]);
  }
  const auto at = [&](int a, int i) { return lo[a] + (i + 0.5) * (hi[a] - lo[a]) / q; };
  double s = 0;
  for (int i = 0; i < q; i++)
    for (int j = 0; j < q; j++)
      for (int k = 0; k < q; k++) {
        const double x = q == 1 ? c.xc : at(0, i), y = q == 1 ? c.yc : at(1, j),
                     z = q == 1 ? c.zc : at(2, k);
        double v = Half_Space_Kernel(x, y, z, d.c1[0], d.c1[1], d.p1[0], d.p1[1]);
        if (d.nelec > 2)
          v -= Half_Space_Kernel(x, y, z, d.c1[0], d.c1[1], d.p2[0], d.p2[1]);
        if (d.nelec > 3)
          v += Half_Space_Kernel(x, y, z, d.c2[0], d.c2[1], d.p2[0], d.p2[1]) -
               Half_Space_Kernel(x, y, z, d.c2[0], d.c2[1], d.p1[0], d.p1[1]);
        s += v;
      }
  return s * c.vol / (q * q * q) / d.gfac;
}

struct Correlation {
  double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
  int64_t n = 0;
  void Add(double a, double b) { sa += a, sb += b, saa += a * a, sbb += b * b, sab += a * b, n++; }
  double r() const {
    const double cov = sab / n - sa / n * sb / n;
    return cov / std::sqrt((saa / n - sa * sa / n / n) * (sbb / n - sb * sb / n / n));
  }
};

TEST(FemJacobian, HomogeneousModelAgreesWithTheHalfSpaceForm) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  const Model_Grid &g = ds.Model_grid;
  const int n = g.nmodel_blocks, nxy = g.nblockx * g.nblocky;
  ds.LS.Size(n, ds.mdata);
  const std::vector<float> res(n, 100.0f);
  ASSERT_EQ(Forward_Model_Real(ds, res.data(), 1), 0);
  ASSERT_EQ(Finite_Element_Jacobian_Real_data_ss(ds), 0);
  const Jacobian_Rows jac = Read_Jacobian(ds, false);
  double ex[2] = {1e30, -1e30}, ey[2] = {1e30, -1e30};
  for (int e = 0; e < ds.num_point_elecs; e++) {
    ex[0] = std::min(ex[0], ds.pe[e].x), ex[1] = std::max(ex[1], ds.pe[e].x);
    ey[0] = std::min(ey[0], ds.pe[e].y), ey[1] = std::max(ey[1], ds.pe[e].y);
  }
  // Cells inside the electrodes' area. The outer columns and rows and the
  // bottom layer also take the mesh's elements out to its boundary, so they
  // are no half-space cells and are left out.
  const auto inner = [&](int b) {
    const Model_Block &c = g.blocks[b];
    const int ix = b % g.nblockx, iy = b / g.nblockx % g.nblocky, iz = b / nxy;
    return c.xc > ex[0] && c.xc < ex[1] && c.yc > ey[0] && c.yc < ey[1] && ix > 0 && iy > 0 &&
           ix < g.nblockx - 1 && iy < g.nblocky - 1 && iz < g.nlayers - 1;
  };
  Correlation integrated, far;
  double row_sum = 0;
  std::vector<float> row(n);
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    std::fill(row.begin(), row.end(), 0.0f);
    Jacobian_Homogeneous_Seq(ds, i, row.data());
    for (int b = 0; b < n; b++) {
      const Model_Block &c = g.blocks[b];
      const double fe = jac.re[static_cast<int64_t>(i) * n + b];
      row_sum += fe;
      // The program's rows are the centre rule of the same kernel.
      ASSERT_NEAR(row[b], Half_Space_Cell(d, c, 1), 1e-6 * std::fabs(row[b]) + 1e-12);
      if (!inner(b))
        continue;
      integrated.Add(fe, Half_Space_Cell(d, c, 4));
      // The centre rule holds where the cell is small against its distance
      // to every electrode of the datum.
      double dist = 1e30;
      const double *el[4] = {d.c1, d.p1, d.p2, d.c2};
      for (int e = 0; e < d.nelec; e++)
        dist = std::min(dist, std::hypot(c.xc - el[e][0], c.yc - el[e][1], c.zc));
      if (dist > 2.5 * std::cbrt(c.vol))
        far.Add(fe, row[b]);
    }
  }
  // d log(apparent resistivity) / d log(resistivity) sums to 1 over a row.
  EXPECT_NEAR(row_sum / ds.mdata, 1.0, 1e-3);
  ASSERT_GT(integrated.n, 1000);
  EXPECT_GT(integrated.r(), 0.99);
  ASSERT_GT(far.n, 1000);
  EXPECT_GT(far.r(), 0.99);
}
