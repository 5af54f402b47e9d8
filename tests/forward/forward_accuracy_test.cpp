// Accuracy of the finite-element forward model against closed-form results:
// the homogeneous half-space of the example surveys, a two-layer earth by its
// image series, and agreement between the solver variants (single against
// double precision, dipole against point sources) on a model with a
// conductive box.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/test_support.h"
#include "forward/forward.h"
#include "forward/synthetic.h"
#include "forward_test_support.h"

using namespace test_support;

namespace {

// A data set whose buffer folder and data files live in one temporary folder.
struct Survey : Example_Survey {
  std::vector<float> Uniform(float rho) const {
    return std::vector<float>(std::max(ds->Model_grid.nmodel_blocks, 1), rho);
  }
  // One forward model; the calculated apparent resistivities.
  std::vector<double> Forward(const std::vector<float> &res) {
    if (Forward_Model_LS(*ds, res.data(), nullptr, 0) != 0)
      return {};
    std::vector<double> rm(ds->mdata);
    for (int i = 0; i < ds->mdata; i++)
      rm[i] = ds->Fem.rm[i];
    return rm;
  }
};

double Largest_Relative_Difference(const std::vector<double> &a, const std::vector<double> &b) {
  double worst = 0.0;
  for (size_t i = 0; i < a.size() && i < b.size(); i++)
    worst = std::max(worst, std::fabs(a[i] - b[i]) / std::fabs(b[i]));
  return worst;
}

// An example data file with a "User defined depths to layers present"
// section (depths in metres) after its point electrodes.
std::string With_User_Depths(const std::string &name, const std::vector<double> &depths) {
  std::istringstream in(Read_File(std::string(OHMVOL3D_EXAMPLES) + "/" + name));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  size_t at = 0;
  for (size_t i = 0; i < lines.size(); i++)
    if (Starts_With(lines[i], "Number of point electrodes") && i + 1 < lines.size()) {
      at = i + 3 + std::strtoul(lines[i + 1].c_str(), nullptr, 10); // count, format line, rows
      break;
    }
  if (at == 0 || at > lines.size())
    return "";
  std::ostringstream section;
  section << "User defined depths to layers present\nNumber of layers\n"
          << depths.size() << "\nDepth of layers\n";
  for (size_t i = 0; i < depths.size(); i++) {
    char row[64];
    std::snprintf(row, sizeof row, "%3d %12.4f\n", static_cast<int>(i + 1), depths[i]);
    section << row;
  }
  std::string out;
  for (size_t i = 0; i < lines.size(); i++) {
    if (i == at)
      out += section.str();
    out += lines[i] + "\n";
  }
  return out;
}

// Potential at distance r (metres) from a unit current on the surface of a
// layer of rho1 and thickness h over a half-space of rho2, without the
// 1 / (2 pi) factor: rho1 [1/r + 2 sum k^n / sqrt(r^2 + (2 n h)^2)].
double Two_Layer_Potential(double r, double rho1, double rho2, double h) {
  const double k = (rho2 - rho1) / (rho2 + rho1);
  double sum = 1.0 / r, kn = 1.0;
  for (int n = 1; n < 100000; n++) {
    kn *= k;
    const double term = 2.0 * kn / std::sqrt(r * r + 4.0 * n * n * h * h);
    sum += term;
    if (std::fabs(term) < 1e-12)
      break;
  }
  return rho1 * sum;
}

double Distance_Metres(const double *a, const double *b, double spxx) {
  return spxx * std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                          (a[2] - b[2]) * (a[2] - b[2]));
}

// Apparent resistivity of a surface datum over the two-layer earth: the
// four-term potential over the four-term sum of the half-space's 1 / r.
double Two_Layer_Apparent_Resistivity(const Data_Point &d, double spxx, double rho1, double rho2,
                                      double h) {
  const bool has_c2 = d.nelec == 4, has_p2 = d.nelec >= 3;
  double v = 0.0, g = 0.0;
  auto add = [&](const double *c, const double *p, double sign) {
    const double r = Distance_Metres(c, p, spxx);
    v += sign * Two_Layer_Potential(r, rho1, rho2, h);
    g += sign / r;
  };
  add(d.c1, d.p1, 1.0);
  if (has_p2)
    add(d.c1, d.p2, -1.0);
  if (has_c2) {
    add(d.c2, d.p1, -1.0);
    if (has_p2)
      add(d.c2, d.p2, 1.0);
  }
  return v / g;
}

// Background 100 ohm-m with a 10 ohm-m box under the middle of the grid
// (x 7.5..12.5 m, y 10..20 m, depth 1..4 m, by block centres).
std::vector<float> Box_Model(const Data_Set &ds, int &in_box) {
  const Model_Grid &g = ds.Model_grid;
  std::vector<float> res(std::max(g.nmodel_blocks, 1), 100.0f);
  in_box = 0;
  for (int m = 0; m < g.nmodel_blocks; m++) {
    const Model_Block &b = g.blocks[m];
    const double x = ds.xmin + b.xc * ds.spxx, y = ds.ymin + b.yc * ds.spxx, z = b.zc * ds.spxx;
    if (x > 7.5 && x < 12.5 && y > 10.0 && y < 20.0 && z > 1.0 && z < 4.0) {
      res[m] = 10.0f;
      in_box++;
    }
  }
  return res;
}

// The box model of grid_9x14.dat, with point sources in single precision:
// the reference of the solver variants, computed once.
struct Box_Reference {
  Survey s;
  std::vector<float> res;
  std::vector<double> rm;
  int in_box = 0;
  bool ok = false;
  Box_Reference() {
    if (s.Read_Example("grid_9x14.dat") != 0)
      return;
    res = Box_Model(*s.ds, in_box);
    rm = s.Forward(res);
    ok = !rm.empty();
  }
};

Box_Reference &Box() {
  static Box_Reference ref;
  return ref;
}

} // namespace

TEST(Forward_Accuracy, HomogeneousHalfSpaceOfTheExamples) {
  for (const char *name : {"grid_9x14.dat", "grid_pole_dipole.dat"}) {
    SCOPED_TRACE(name);
    Survey s;
    ASSERT_EQ(s.Read_Example(name), 0);
    Data_Set &ds = *s.ds;
    ASSERT_GT(ds.mdata, 100);
    ASSERT_EQ(ds.Fem.normalise_potentials, 0);

    Mesh_Accuracy acc;
    ASSERT_EQ(Check_Mesh_Half_Space(ds, acc), 0);
    ASSERT_EQ(acc.err.size(), static_cast<size_t>(ds.mdata));
    int finite = 0;
    for (double e : acc.err)
      finite += std::isfinite(e);
    EXPECT_EQ(finite, ds.mdata);
    EXPECT_LT(acc.median, 0.005);
    EXPECT_LT(acc.largest, 0.02);
    EXPECT_LE(acc.median, acc.largest);
    std::printf("[ %s ] half-space error: median %.4f %%, largest %.4f %%\n", name,
                100.0 * acc.median, 100.0 * acc.largest);

    // The model is linear in the resistivity: ten times the resistivity gives
    // ten times the apparent resistivity.
    std::vector<double> rm100(ds.mdata);
    for (int i = 0; i < ds.mdata; i++)
      rm100[i] = ds.Fem.rm[i];
    const std::vector<double> rm1000 = s.Forward(s.Uniform(1000.0f));
    ASSERT_EQ(rm1000.size(), rm100.size());
    double worst = 0.0;
    for (int i = 0; i < ds.mdata; i++) {
      ASSERT_TRUE(std::isfinite(rm1000[i]) && rm100[i] > 0.0) << i;
      worst = std::max(worst, std::fabs(rm1000[i] / rm100[i] / 10.0 - 1.0));
    }
    // Single precision: the two factors round differently.
    EXPECT_LT(worst, 1e-4);
    std::printf("[ %s ] 1000 / 100 ohm-m ratio: largest departure from 10 %.3g\n", name, worst);
  }
}

TEST(Forward_Accuracy, TwoLayerEarthAgainstImageSeries) {
  // The layered earth needs the mesh a user would pick for it: the dense
  // rectangular mesh, the finer vertical division (elements near the
  // surface close to cubes: the five-tetrahedron hexahedron loses accuracy
  // on flat elements) and buffers reaching further out, since the current
  // spreads sideways in the conductive half-space.
  const double rho1 = 100.0, rho2 = 10.0, h = 3.0;
  const std::vector<double> depths = {1.0, 2.0, 3.0, 4.0, 5.25, 6.75, 8.5, 10.5, 13.0};
  const std::string text = With_User_Depths("grid_9x14.dat", depths);
  ASSERT_FALSE(text.empty());

  Survey s;
  s.ds->Semistructured.use_dense_rect_mesh = 1;
  s.ds->Model_grid.nodes_per_layer_setting = 1;
  s.ds->Model_grid.buffer_rate = 1.4;
  ASSERT_EQ(s.Read_Text("two_layer.dat", text), 0);
  Data_Set &ds = *s.ds;
  const Model_Grid &g = ds.Model_grid;
  ASSERT_EQ(g.user_depths, 1);
  ASSERT_EQ(g.nlayers, static_cast<int>(depths.size()));
  EXPECT_NEAR(g.zbl[3] * ds.spxx, h, 1e-5) << "the interface lies on a layer boundary";

  std::vector<float> res(std::max(g.nmodel_blocks, 1), static_cast<float>(rho2));
  int upper = 0;
  for (int m = 0; m < g.nmodel_blocks; m++)
    if (g.blocks[m].zc * ds.spxx < h) {
      res[m] = static_cast<float>(rho1);
      upper++;
    }
  EXPECT_EQ(upper, 3 * g.nblockx * g.nblocky);

  ds.Fem.normalise_potentials = 1;
  ds.Fem.norm_ready = 0;
  const std::vector<double> rm = s.Forward(res);
  ASSERT_EQ(rm.size(), static_cast<size_t>(ds.mdata));
  EXPECT_EQ(ds.Fem.norm_ready, 1);

  double worst = 0.0, lowest = rho1, highest = 0.0;
  int worst_at = -1;
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    ASSERT_TRUE(d.c1[2] == 0.0 && d.p1[2] == 0.0 && d.c2[2] == 0.0 && d.p2[2] == 0.0) << i;
    const double analytic = Two_Layer_Apparent_Resistivity(d, ds.spxx, rho1, rho2, h);
    lowest = std::min(lowest, analytic);
    highest = std::max(highest, analytic);
    const double e = std::fabs(rm[i] - analytic) / analytic;
    if (!(e <= worst)) {
      worst = e;
      worst_at = i;
    }
  }
  // The layering shows in the data: the longest arrays see far below rho1.
  EXPECT_LT(lowest, 0.6 * rho1);
  EXPECT_GT(highest, 0.9 * rho1);
  EXPECT_LT(worst, 0.01) << "datum " << worst_at + 1;
  std::printf("two-layer earth: analytic %.2f..%.2f ohm-m, largest error %.4f %% (datum %d)\n",
              lowest, highest, 100.0 * worst, worst_at + 1);
}

TEST(Forward_Accuracy, SinglePrecisionAgreesWithDouble) {
  Box_Reference &ref = Box();
  ASSERT_TRUE(ref.ok);
  Data_Set &ds = *ref.s.ds;
  EXPECT_GT(ref.in_box, 0);
  // The box shows in the data.
  double strongest = 0.0;
  for (double r : ref.rm)
    strongest = std::max(strongest, std::fabs(r - 100.0) / 100.0);
  EXPECT_GT(strongest, 0.1);

  ds.Fem.double_precision = 1;
  const std::vector<double> rm = ref.s.Forward(ref.res);
  ds.Fem.double_precision = 0;
  ASSERT_EQ(rm.size(), ref.rm.size());
  const double worst = Largest_Relative_Difference(ref.rm, rm);
  EXPECT_LT(worst, 1e-3);
  std::printf("box model: largest box effect %.2f %%, single against double %.3g\n",
              100.0 * strongest, worst);

  // The single factor's residual is far below the refinement tolerance here;
  // asked for a residual it cannot reach alone, the solve refines every batch
  // in double and comes closer to the double-precision solution.
  ASSERT_EQ(ref.s.Forward(ref.res).size(), rm.size());
  const double unrefined_residual = ds.Fem.report.residual;
  EXPECT_EQ(ds.Fem.report.refine_steps, 0);
  EXPECT_GT(unrefined_residual, 0.0);
  EXPECT_LT(unrefined_residual, ds.Fem.refine_tol);
  ds.Fem.refine_tol = 1e-12;
  const std::vector<double> refined = ref.s.Forward(ref.res);
  ds.Fem.refine_tol = Fem_State().refine_tol;
  ASSERT_EQ(refined.size(), rm.size());
  EXPECT_EQ(ds.Fem.report.refine_steps, ds.Fem.refine_steps_max);
  EXPECT_LT(ds.Fem.report.residual, 0.5 * unrefined_residual); // down to the float storage of x
  const double worst_refined = Largest_Relative_Difference(refined, rm);
  EXPECT_LE(worst_refined, 0.5 * worst);
  std::printf("box model: residual %.3g unrefined, %.3g after %d steps; against double %.3g\n",
              unrefined_residual, ds.Fem.report.residual, ds.Fem.report.refine_steps, worst_refined);
}

TEST(Forward_Accuracy, DipoleSourcesAgreeWithPointSources) {
  Box_Reference &ref = Box();
  ASSERT_TRUE(ref.ok);
  Data_Set &ds = *ref.s.ds;
  ds.use_dipoles_fem = 1;
  const std::vector<double> rm = ref.s.Forward(ref.res);
  const int dipoles = ds.Fem.ndipoles;
  ds.use_dipoles_fem = 0;
  ASSERT_EQ(rm.size(), ref.rm.size());
  EXPECT_GT(dipoles, 0);
  EXPECT_LT(dipoles, 2 * ds.mdata);
  const double worst = Largest_Relative_Difference(rm, ref.rm);
  EXPECT_LT(worst, 1e-4);
  std::printf("box model: %d dipoles, dipole against point sources %.3g\n", dipoles, worst);
}
