// The finite-element Jacobian against its definition element by element (in
// double) and against finite differences of the forward model; the same bits
// whatever the thread count and wherever the fields are kept; its hit-type
// grouping and its offsets.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "core/temp_files.h"
#include "forward/element_matrices.h"
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

// The Jacobian in double straight from its definition, from the stored
// fields of the last forward model (run before the Jacobian, which frees the
// elements): for every datum and element, (current side's field)^T K_e
// (potential side's field), summed into the element's cell, times the
// element's conductivity, over the datum's calculated voltage.
std::vector<std::complex<double>> Reference_Jacobian(Data_Set &ds, bool cmplx) {
  const Fem_State &fem = ds.Fem;
  const SemiStructured &ss = ds.Semistructured;
  const int n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  std::vector<std::complex<double>> jac(static_cast<size_t>(m) * n);
  std::vector<int> block;
  EXPECT_EQ(Element_Model_Blocks(ds, block), 0);
  EXPECT_EQ(ds.use_dipoles_fem, 0);
  std::vector<float> field[2];
  for (int p = 0; p < (cmplx ? 2 : 1); p++) {
    field[p].resize(fem.kfield);
    EXPECT_EQ(Read_Values_File(ds, ds.file_names.temp[p ? TF_POTENTIALS_I : TF_POTENTIALS],
                               field[p].data(), fem.kfield),
              0);
  }
  // A side's field at a mesh node (from 1): electrodes from 0, sign +, -.
  const auto side = [&](int e1, int e2, bool two, int node) {
    std::complex<double> v;
    for (int k = 0; k < (two ? 2 : 1); k++) {
      const int64_t at = fem.offset_field[k ? e2 : e1] + node - 1;
      v += (k ? -1.0 : 1.0) * std::complex<double>(field[0][at], cmplx ? field[1][at] : 0.0f);
    }
    return v;
  };
  for (int64_t e = 0; e < ss.number_elements; e++) {
    const int b = block[e];
    if (b < 0 || b >= n)
      continue;
    const Element &el = ss.elements[e];
    const float *kv = fem.cp18.data() + fem.cp_offset[e];
    const int nv = static_cast<int>(fem.cp_offset[e + 1] - fem.cp_offset[e]);
    const int(*pairs)[2] = Element_Pairs(nv);
    const std::complex<double> sigma(el.cond_r, cmplx ? el.cond_i : 0.0f);
    for (int d = 0; d < m; d++) {
      const Data_Point &dp = ds.dp[d];
      std::complex<double> cur[8], pot[8], s;
      for (int a = 0; a < el.nnodes; a++) {
        cur[a] = side(dp.nc1, dp.nc2, dp.nelec == 4, el.node[a]);
        pot[a] = side(dp.np1, dp.np2, dp.nelec > 2, el.node[a]);
      }
      for (int v = 0; v < nv; v++) {
        const int r = pairs[v][0], t = pairs[v][1];
        s += static_cast<double>(kv[v]) * (cur[r] * pot[t] + (r != t ? cur[t] * pot[r] : 0.0));
      }
      jac[static_cast<size_t>(d) * n + b] += s * sigma;
    }
  }
  for (int d = 0; d < m; d++) {
    const std::complex<double> v(fem.rm_volt[d], cmplx ? fem.rm_volt_i[d] : 0.0f);
    for (int b = 0; b < n; b++)
      jac[static_cast<size_t>(d) * n + b] /= v;
  }
  return jac;
}

// The largest difference of a row's entries from the reference, relative to
// the row's largest reference entry, over all rows.
double Largest_Row_Difference(const Jacobian_Rows &jac,
                              const std::vector<std::complex<double>> &ref, int m, int n) {
  double worst = 0.0;
  for (int d = 0; d < m; d++) {
    double top = 0.0, diff = 0.0;
    for (int b = 0; b < n; b++) {
      const size_t k = static_cast<size_t>(d) * n + b;
      const std::complex<double> j(jac.re[k], jac.im.empty() ? 0.0f : jac.im[k]);
      top = std::max(top, std::abs(ref[k]));
      diff = std::max(diff, std::abs(j - ref[k]));
    }
    worst = std::max(worst, diff / std::max(top, 1e-30));
  }
  return worst;
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

// Surface data on the adaptive mesh (with transition tetrahedra) and on
// the dense mesh (hexahedra only), pole-dipole data, borehole electrodes,
// and complex fields: every row within 1e-5 of its largest entry.
TEST(FemJacobian, RowsMatchTheElementByElementDefinition) {
  struct Case {
    const char *file;
    int dense;
    bool cmplx;
    bool tets;
  };
  const Case cases[] = {{"grid_dipole_dipole.dat", 0, false, true},
                        {"grid_dipole_dipole.dat", 1, false, false},
                        {"grid_pole_dipole.dat", 0, false, true},
                        {"borehole.dat", 0, false, false},
                        {"ip_chargeability.dat", 0, true, true}};
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.file) + (c.dense ? " dense mesh" : " adaptive mesh"));
    Example_Survey s;
    s.ds->Semistructured.use_dense_rect_mesh = c.dense;
    ASSERT_EQ(s.Read_Example(c.file), 0);
    Data_Set &ds = *s.ds;
    const int n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
    ds.LS.Size(n, m);
    const std::vector<float> res = Contrast_Model(n);
    std::vector<float> phase(n);
    for (int b = 0; b < n; b++)
      phase[b] = 0.01f + 0.04f * static_cast<float>(b % 5) / 4.0f;
    ASSERT_EQ(c.cmplx ? Forward_Model_Cmplx(ds, res.data(), phase.data(), 1)
                      : Forward_Model_Real(ds, res.data(), 1),
              0);
    if (c.tets) {
      EXPECT_GT(ds.Semistructured.num_tet, 0);
    } else if (c.dense) {
      EXPECT_EQ(ds.Semistructured.num_tet, 0);
    }
    const auto ref = Reference_Jacobian(ds, c.cmplx);
    ASSERT_EQ(Finite_Element_Jacobian_Real_data_ss(ds), 0);
    const Jacobian_Rows jac = Read_Jacobian(ds, c.cmplx);
    const double worst = Largest_Row_Difference(jac, ref, m, n);
    std::printf("    %s: largest row difference %.2e of the row's largest entry\n", c.file, worst);
    EXPECT_LT(worst, 1e-5);
  }
}

// One thread or two: the same Jacobian to the bit (the forward model runs
// on two threads both times, and its fields are checked to be the same).
TEST(FemJacobian, SameBitsOnOneThreadAndTwo) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  const int n = ds.Model_grid.nmodel_blocks;
  ds.LS.Size(n, ds.mdata);
  const std::vector<float> res = Contrast_Model(n);
  const int saved = omp_get_max_threads();
  Jacobian_Rows rows[2];
  std::string fields[2];
  for (int t = 0; t < 2; t++) {
    omp_set_num_threads(2);
    ASSERT_EQ(Forward_Model_Real(ds, res.data(), 1), 0);
    fields[t] = test_support::Read_File(ds.file_names.temp[TF_POTENTIALS]);
    omp_set_num_threads(t + 1);
    ASSERT_EQ(Finite_Element_Jacobian_Real_data_ss(ds), 0);
    rows[t] = Read_Jacobian(ds, false);
  }
  omp_set_num_threads(saved);
  ASSERT_FALSE(fields[0].empty());
  ASSERT_EQ(fields[0], fields[1]);
  EXPECT_EQ(rows[0].re, rows[1].re);
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
    // From disk in spans of a few cells.
    ds.Fem.jacobian_span_nodes = 200;
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
