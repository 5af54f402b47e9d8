// Synthetic data of a model given as a background, boxes and layers, and the
// check of a mesh against analytic values: a homogeneous half-space on flat
// ground or under a plane (3-D distances between the electrodes), and a
// two-layer earth by its image series.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "forward/forward.h"
#include "forward/synthetic.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

int Read_Synthetic_Model(Data_Set &ds, const char *path, Synthetic_Model &model) {
  FILE *f = std::fopen(path, "r");
  if (!f)
    return Show_Text(ds, "Model File Error", MK_WARNING, "Cannot open the model file %s", path);
  model = Synthetic_Model();
  char line[1024];
  int number = 0, bad = 0;
  bool background = false;
  while (!bad && std::fgets(line, sizeof line, f)) {
    number++;
    if (char *hash = std::strchr(line, '#'))
      *hash = '\0';
    char word[32] = {};
    int used = 0;
    if (std::sscanf(line, " %31s%n", word, &used) != 1)
      continue;
    double v[8];
    int n = 0, more = 0;
    const char *p = line + used;
    while (n < 8 && std::sscanf(p, " %lf%n", &v[n], &more) == 1) {
      p += more;
      n++;
    }
    char rest[2];
    const bool trailing = std::sscanf(p, " %1s", rest) == 1;
    if (std::strcmp(word, "background") == 0 && (n == 1 || n == 2) && !trailing && v[0] > 0.0) {
      model.background = v[0];
      model.background_ip = n == 2 ? v[1] : 0.0;
      model.has_ip |= n == 2;
      background = true;
    } else if (std::strcmp(word, "box") == 0 && (n == 7 || n == 8) && !trailing && v[6] > 0.0 &&
               v[0] < v[1] && v[2] < v[3] && v[4] < v[5]) {
      Synthetic_Box b;
      std::copy(v, v + 6, b.lim);
      b.res = v[6];
      b.ip = n == 8 ? v[7] : 0.0;
      model.has_ip |= n == 8;
      model.boxes.push_back(b);
    } else if (std::strcmp(word, "layer") == 0 && (n == 3 || n == 4) && !trailing && v[2] > 0.0 &&
               v[0] < v[1]) {
      Synthetic_Box b;
      const double inf = std::numeric_limits<double>::infinity();
      const double lim[6] = {-inf, inf, -inf, inf, v[0], v[1]};
      std::copy(lim, lim + 6, b.lim);
      b.res = v[2];
      b.ip = n == 4 ? v[3] : 0.0;
      b.layer = true;
      model.has_ip |= n == 4;
      model.boxes.push_back(b);
    } else {
      bad = number;
    }
  }
  const bool unreadable = std::ferror(f) != 0;
  std::fclose(f);
  if (unreadable)
    return Show_Text(ds, "Model File Error", MK_WARNING, "Cannot read the model file %s", path);
  // Values the forward model would bound are refused here, not changed.
  std::vector<double> values = {model.background};
  for (const Synthetic_Box &b : model.boxes)
    values.push_back(b.res);
  for (double r : values)
    if (background && !bad && (r < forward_res_floor || r > forward_res_ceiling))
      return Show_Text(ds, "Model File Error", MK_WARNING,
                       "The resistivity %g ohm-m in the model file %s is outside the range the "
                       "forward model takes (%g to %g ohm-m).",
                       r, path, forward_res_floor, forward_res_ceiling);
  if (bad)
    return Show_Text(
        ds, "Model File Error", MK_WARNING,
        "Line %d of the model file %s is not understood.\nLines are \"background RES [IP]\", "
        "\"box X1 X2 Y1 Y2 Z1 Z2 RES [IP]\" or \"layer Z1 Z2 RES [IP]\" with X1 < X2, Y1 < Y2, "
        "Z1 < Z2 and RES above 0.",
        bad, path);
  if (!background)
    return Show_Text(ds, "Model File Error", MK_WARNING,
                     "The model file %s has no \"background RES\" line.", path);
  return 0;
}

void Model_Block_Values(const Data_Set &ds, const Synthetic_Model &model, std::vector<float> &res,
                        std::vector<float> &ip) {
  const Model_Grid &g = ds.Model_grid;
  res.assign(std::max(g.nmodel_blocks, 1), static_cast<float>(model.background));
  ip.assign(res.size(), static_cast<float>(model.background_ip / 1000.0));
  for (int m = 0; m < g.nmodel_blocks; m++) {
    const Model_Block &b = g.blocks[m];
    // Block centre in the survey's units.
    const double x = ds.xmin + b.xc * ds.spxx, y = ds.ymin + b.yc * ds.spxx, z = b.zc * ds.spxx;
    for (const Synthetic_Box &box : model.boxes)
      if (x >= box.lim[0] && x <= box.lim[1] && y >= box.lim[2] && y <= box.lim[3] &&
          z >= box.lim[4] && z <= box.lim[5]) {
        res[m] = static_cast<float>(box.res);
        ip[m] = static_cast<float>(box.ip / 1000.0);
      }
  }
}

int Forward_Synthetic_Data(Data_Set &ds, const Synthetic_Model &model, const char *out,
                           double noise_pct, unsigned seed) {
  std::vector<float> res, ip;
  Model_Block_Values(ds, model, res, ip);
  const bool with_ip = model.has_ip && ds.Data_ip.typeip > 0;
  if (with_ip)
    ds.Data_ip.complex_forward_model = 1;
  if (Forward_Model_Memory_Check(ds))
    return 1;
  const int failed = Forward_Model_LS(ds, res.data(), with_ip ? ip.data() : nullptr, 0);
  Remove_Run_Temp_Files(ds.file_names);
  if (failed)
    return 1;
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> gauss(0.0, 1.0);
  const double rel = noise_pct / 100.0;
  for (int i = 0; i < ds.mdata; i++) {
    Data_Point &d = ds.dp[i];
    const double c = ds.Fem.rm[i];
    d.value = static_cast<float>(c * (1.0 + rel * gauss(rng)));
    d.value_error = static_cast<float>(std::fabs(c) * rel);
    if (with_ip)
      d.ip_value = ds.Fem.rm_ip[i];
  }
  if (rel > 0.0)
    ds.error_estimate = 1;
  if (File_Save(ds, out))
    return 1;
  Panel(ds, "Calculated data of %d points written to %s (noise %.2f%%).", ds.mdata, out, noise_pct);
  return 0;
}

extern "C" void dsyev_(const char *jobz, const char *uplo, const int *n, double *a, const int *lda,
                       double *w, double *work, const int *lwork, int *info);

double Two_Layer_Surface_Potential(double rho1, double rho2, double h, double r) {
  constexpr double two_pi = 2.0 * M_PI;
  // A layer of no thickness leaves the lower half-space: the series sums to
  // rho1 (1 + k) / (1 - k) / r = rho2 / r.
  if (!(h > 0.0))
    return rho2 / (two_pi * r);
  const double k = (rho2 - rho1) / (rho2 + rho1);
  double sum = 1.0 / r, kn = 1.0;
  // Terms fall as k^n / n: ten million of them reach 1e-12 for contrasts up
  // to about 5e5 (|k| = 1 - 4e-6).
  constexpr long max_terms = 10000000;
  for (long n = 1; n <= max_terms && k != 0.0; n++) {
    kn *= k;
    const double d = 2.0 * static_cast<double>(n) * h;
    const double term = 2.0 * kn / std::sqrt(r * r + d * d);
    sum += term;
    if (std::fabs(term) < 1e-12 * std::fabs(sum))
      break;
  }
  return rho1 * sum / two_pi;
}

namespace {

double Distance(const std::array<double, 3> &a, const std::array<double, 3> &b) {
  return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                   (a[2] - b[2]) * (a[2] - b[2]));
}

// Mean distance from each point to its nearest other point (points at the
// same place are not neighbours): a sweep along x, which stops where the
// x distance alone is past the nearest found.
double Mean_Nearest_Spacing(const std::vector<std::array<double, 3>> &pts) {
  std::vector<int> order(pts.size());
  for (size_t i = 0; i < pts.size(); i++)
    order[i] = static_cast<int>(i);
  std::sort(order.begin(), order.end(), [&](int a, int b) { return pts[a][0] < pts[b][0]; });
  double sum = 0.0;
  int counted = 0;
  const int n = static_cast<int>(order.size());
  for (int i = 0; i < n; i++) {
    const std::array<double, 3> &p = pts[order[i]];
    double best = std::numeric_limits<double>::infinity();
    for (int j = i + 1; j < n && pts[order[j]][0] - p[0] < best; j++)
      if (const double d = Distance(p, pts[order[j]]); d > 0.0)
        best = std::min(best, d);
    for (int j = i - 1; j >= 0 && p[0] - pts[order[j]][0] < best; j--)
      if (const double d = Distance(p, pts[order[j]]); d > 0.0)
        best = std::min(best, d);
    if (std::isfinite(best)) {
      sum += best;
      counted++;
    }
  }
  return counted > 0 ? sum / counted : 0.0;
}

} // namespace

Plane_Fit Fit_Plane(const std::vector<std::array<double, 3>> &points) {
  Plane_Fit fit;
  const size_t n = points.size();
  if (n == 0)
    return fit;
  for (const auto &p : points)
    for (int k = 0; k < 3; k++)
      fit.centre[k] += p[k] / static_cast<double>(n);
  // The normal is the direction of least spread: the eigenvector of the
  // scatter matrix's smallest eigenvalue (LAPACK returns them ascending).
  double a[9] = {}, w[3], work[16];
  for (const auto &p : points)
    for (int i = 0; i < 3; i++)
      for (int j = 0; j < 3; j++)
        a[3 * i + j] += (p[i] - fit.centre[i]) * (p[j] - fit.centre[j]);
  const int n3 = 3, lwork = 16;
  int info = 0;
  dsyev_("V", "U", &n3, a, &n3, w, work, &lwork, &info);
  for (int k = 0; k < 3; k++)
    fit.normal[k] = info == 0 ? a[k] : (k == 2 ? 1.0 : 0.0);
  for (const auto &p : points) {
    double d = 0.0;
    for (int k = 0; k < 3; k++)
      d += fit.normal[k] * (p[k] - fit.centre[k]);
    fit.largest = std::max(fit.largest, std::fabs(d));
  }
  fit.spacing = Mean_Nearest_Spacing(points);
  fit.plane = fit.largest <= 1e-3 * fit.spacing;
  return fit;
}

namespace {

constexpr double check_resistivity = 100.0; // ohm-m of the half-space checked

const char *const what_can_be_checked =
    "What can be checked: a homogeneous half-space (check-mesh without --model) on flat "
    "ground with the electrodes on the surface or buried, or under topography with the "
    "electrodes on the surface; a two-layer earth (--model with a \"background RES2\" line and "
    "one \"layer 0 H RES1\" line) on flat ground with the electrodes on the surface. Neither "
    "with a water layer, nor with geometric factors given in the data file.";

// The earth compared with, in the solver's units: rho1 down to h, rho2 below
// (a half-space when not layered).
struct Check_Earth {
  double rho1 = check_resistivity, rho2 = check_resistivity, h = 0.0;
  bool layered = false;
};

// Potential between two electrodes for a unit current: horizontal distance
// on flat ground, 3-D distance under topography.
double Pair_Potential(const Data_Set &ds, const Check_Earth &earth, bool topo, int a, int b) {
  const Point_Electrode &p = ds.pe[a], &q = ds.pe[b];
  const double dx = p.x - q.x, dy = p.y - q.y, dz = topo ? p.z - q.z : 0.0;
  const double r = std::sqrt(dx * dx + dy * dy + dz * dz);
  if (!(r > 0.0))
    return 0.0;
  if (earth.layered)
    return Two_Layer_Surface_Potential(earth.rho1, earth.rho2, earth.h, r);
  return earth.rho1 / (2.0 * M_PI * r);
}

// The analytic value of a datum in the form the data are held. On flat
// ground the half-space's is the datum's own factor (the stored factor is
// the image form for buried electrodes).
double Analytic_Value(const Data_Set &ds, const Check_Earth &earth, bool topo, int i) {
  const Data_Point &d = ds.dp[i];
  if (!topo && !earth.layered)
    return Half_Space_Analytic_Ratio(ds, i) * earth.rho1 * (ds.resistance == 1 ? d.gfac : 1.0);
  const int c2 = d.nelec == 4 ? d.nc2 : -1, p2 = d.nelec > 2 ? d.np2 : -1;
  double v = Pair_Potential(ds, earth, topo, d.nc1, d.np1);
  if (p2 >= 0)
    v -= Pair_Potential(ds, earth, topo, d.nc1, p2);
  if (c2 >= 0) {
    v -= Pair_Potential(ds, earth, topo, c2, d.np1);
    if (p2 >= 0)
      v += Pair_Potential(ds, earth, topo, c2, p2);
  }
  return v * Calculated_Value_Scale(ds, i);
}

// The electrodes the data use (marked when the data were read), each once.
std::vector<int> Used_Electrodes(const Data_Set &ds) {
  std::vector<int> list;
  for (int e = 0; e < ds.num_point_elecs; e++)
    if (ds.pe[e].used)
      list.push_back(e);
  return list;
}

const char *Array_Kind(const Data_Point &d) {
  return d.nelec == 2 ? "pole-pole" : d.nelec == 3 ? "pole-dipole" : "four-electrode";
}

double Median(std::vector<double> v) {
  if (v.empty())
    return 0.0;
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

// The 95th percentile by nearest rank: the smallest value that at least 95 %
// of the values do not exceed.
double Percentile_95(std::vector<double> v) {
  if (v.empty())
    return 0.0;
  const size_t rank = static_cast<size_t>(std::ceil(0.95 * static_cast<double>(v.size())));
  const size_t at = std::min(v.size(), std::max<size_t>(rank, 1)) - 1;
  std::nth_element(v.begin(), v.begin() + at, v.end());
  return v[at];
}

double Largest(const std::vector<double> &v) {
  return v.empty() ? 0.0 : *std::max_element(v.begin(), v.end());
}

// Largest distance from the plane of the topography's heights at the model
// grid nodes within the electrodes' extent: the mesh's ground is made from
// them, so a plane of electrodes over heights off it is not a plane ground.
double Grid_Departure(const Data_Set &ds, const std::vector<std::array<double, 3>> &points,
                      const Plane_Fit &fit) {
  const Model_Grid &g = ds.Model_grid;
  if (points.empty() || !ds.topo.grid_z)
    return 0.0;
  double lo[2] = {points[0][0], points[0][1]}, hi[2] = {lo[0], lo[1]};
  for (const auto &p : points)
    for (int k = 0; k < 2; k++) {
      lo[k] = std::min(lo[k], p[k]);
      hi[k] = std::max(hi[k], p[k]);
    }
  double largest = 0.0;
  for (int j = 0; j < g.ngridy; j++)
    for (int i = 0; i < g.ngridx; i++) {
      const double x = g.xgrid[i], y = g.ygrid[j];
      if (x < lo[0] || x > hi[0] || y < lo[1] || y > hi[1])
        continue;
      const double z = ds.topo.grid_z[i + static_cast<int64_t>(j) * g.ngridx];
      const double d = fit.normal[0] * (x - fit.centre[0]) + fit.normal[1] * (y - fit.centre[1]) +
                       fit.normal[2] * (z - fit.centre[2]);
      largest = std::max(largest, std::fabs(d));
    }
  return largest;
}

// The refusals: whatever has no analytic values here.
int Check_Checkable(Data_Set &ds, const Check_Earth &earth, bool topo) {
  if (ds.type_geofac == 2 || ds.Model_grid.nwater > 0)
    return Refuse_Always(ds, "Check mesh", "The mesh cannot be checked with %s.\n%s",
                         ds.Model_grid.nwater > 0 ? "a water layer"
                                                  : "geometric factors given in the data file",
                         what_can_be_checked);
  for (int i = 0; i < ds.mdata; i++)
    if (ds.dp[i].gfac == 0.0)
      return Refuse_Always(ds, "Check mesh",
                           "Datum %d has no geometric factor: the mesh cannot be checked.\n%s",
                           i + 1, what_can_be_checked);
  if ((topo || earth.layered) && ds.array2 == 16)
    return Refuse_Always(ds, "Check mesh",
                         "Vector arrays are checked on flat ground against a homogeneous "
                         "half-space only.\n%s",
                         what_can_be_checked);
  int buried = 0;
  for (int e : Used_Electrodes(ds))
    buried += ds.pe[e].depth > 0.0;
  if (earth.layered && topo)
    return Refuse_Always(ds, "Check mesh",
                         "A two-layer earth has analytic values on flat ground only, and the "
                         "mesh follows the topography.\n%s",
                         what_can_be_checked);
  if (buried > 0 && (topo || earth.layered))
    return Refuse_Always(ds, "Check mesh",
                         "%d electrodes are buried: with %s the mesh is checked with the "
                         "electrodes on the surface only.\n%s",
                         buried, topo ? "topography" : "a two-layer earth", what_can_be_checked);
  if (!topo && !earth.layered && !Half_Space_Analytic_Available(ds))
    return Refuse_Always(ds, "Check mesh", "The data have no half-space analytic values.\n%s",
                         what_can_be_checked);
  return 0;
}

void Report(Data_Set &ds, const Check_Earth &earth, const Mesh_Accuracy &acc) {
  if (acc.ground != CHECK_FLAT) {
    const double largest = acc.fit.largest * ds.spxx, spacing = acc.fit.spacing * ds.spxx;
    const double rel = spacing > 0.0 ? largest / spacing : 0.0;
    if (acc.ground == CHECK_PLANE) {
      Panel(ds,
            "The electrodes lie on one plane (largest departure %.3g, %.3g of the mean spacing "
            "%.4g): the analytic values are exact.",
            largest, rel, spacing);
      const double grid = acc.grid_departure * ds.spxx;
      Panel(ds,
            "The topography's heights at the model grid nodes under the electrodes depart up to "
            "%.3g (%.3g of the mean spacing) from that plane: the mesh's ground is made from them.",
            grid, spacing > 0.0 ? grid / spacing : 0.0);
    } else {
      Panel(ds,
            "The ground is not a plane (the electrodes depart up to %.3g, %.3g of the mean "
            "spacing %.4g, from their best plane): the values compared are those of a "
            "half-space with the electrodes' 3-D distances, an approximation, not a bound.",
            largest, rel, spacing);
    }
  }
  if (earth.layered)
    Panel(ds,
          "Two-layer earth of %g ohm-m down to %g over %g ohm-m on the mesh of %d nodes: %d "
          "data%s",
          earth.rho1, earth.h * ds.spxx, earth.rho2, ds.Semistructured.number_nodes_ss, ds.mdata,
          acc.normalised ? ", potentials normalised by the mesh's half-space" : "");
  else
    Panel(ds, "Homogeneous half-space of %g ohm-m on the mesh of %d nodes: %d data", earth.rho1,
          ds.Semistructured.number_nodes_ss, ds.mdata);
  Panel(ds, "%-16s %8s %12s %12s %12s", "Array", "Data", "Median %", "95th pct %", "Largest %");
  for (const char *kind : {"pole-pole", "pole-dipole", "four-electrode"}) {
    std::vector<double> e;
    for (int i = 0; i < ds.mdata; i++)
      if (std::strcmp(Array_Kind(ds.dp[i]), kind) == 0)
        e.push_back(acc.err[i]);
    if (!e.empty())
      Panel(ds, "%-16s %8zu %12.3f %12.3f %12.3f", kind, e.size(), 100.0 * Median(e),
            100.0 * Percentile_95(e), 100.0 * Largest(e));
  }
  Panel(ds, "%-16s %8d %12.3f %12.3f %12.3f", "all", ds.mdata, 100.0 * acc.median, 100.0 * acc.p95,
        100.0 * acc.largest);
  std::vector<int> order(ds.mdata);
  for (int i = 0; i < ds.mdata; i++)
    order[i] = i;
  const int worst = std::min(ds.mdata, 10);
  std::partial_sort(order.begin(), order.begin() + worst, order.end(),
                    [&](int a, int b) { return acc.err[a] > acc.err[b]; });
  Panel(ds, "Largest errors:");
  Panel(ds, "%8s %6s %6s %6s %6s %12s %12s %10s", "Datum", "C1", "C2", "P1", "P2", "Calculated",
        "Analytic", "Error %");
  for (int r = 0; r < worst; r++) {
    const int i = order[r];
    const Data_Point &d = ds.dp[i];
    Panel(ds, "%8d %6d %6d %6d %6d %12.5g %12.5g %10.3f", i + 1, d.nc1 + 1,
          d.nelec == 4 ? d.nc2 + 1 : 0, d.np1 + 1, d.nelec > 2 ? d.np2 + 1 : 0, ds.Fem.rm[i],
          acc.analytic[i], 100.0 * acc.err[i]);
  }
  Panel(ds,
        "Forward model time %.2f s (mesh %.2f, assembly %.2f, ordering %.2f, analysis %.2f, "
        "factorisation %.2f, solves %.2f; %s)",
        ds.Fem.t_total, ds.Fem.t_mesh, ds.Fem.t_assembly, ds.Fem.report.t_ordering,
        ds.Fem.report.t_analysis, ds.Fem.report.t_factor, ds.Fem.report.t_solve,
        ds.Fem.report.name);
}

int Check_Mesh(Data_Set &ds, const Check_Earth &earth, const std::vector<float> &res,
               Mesh_Accuracy &acc) {
  const bool topo = ds.topo.grid_heights && ds.Model_grid.type_topo_model > 0;
  if (Check_Checkable(ds, earth, topo))
    return 1;
  acc = Mesh_Accuracy();
  if (topo) {
    std::vector<std::array<double, 3>> points;
    for (int e : Used_Electrodes(ds))
      points.push_back({ds.pe[e].x, ds.pe[e].y, ds.pe[e].z});
    acc.fit = Fit_Plane(points);
    acc.ground = acc.fit.plane ? CHECK_PLANE : CHECK_NOT_PLANE;
    acc.grid_departure = Grid_Departure(ds, points, acc.fit);
  }
  if (Forward_Model_Memory_Check(ds))
    return 1;
  // A half-space normalised by itself would come out exact: normalisation
  // is kept for a layered earth only, where it is what the user asked.
  const int normalise = ds.Fem.normalise_potentials;
  if (!earth.layered)
    ds.Fem.normalise_potentials = 0;
  const int ierr = Forward_Model_LS(ds, res.data(), nullptr, 0);
  Remove_Run_Temp_Files(ds.file_names);
  acc.normalised = ds.Fem.normalise_potentials && ds.Fem.norm_ready;
  ds.Fem.normalise_potentials = normalise;
  if (ierr)
    return 1;
  acc.analytic.resize(ds.mdata);
  acc.err.resize(ds.mdata);
#pragma omp parallel for schedule(dynamic, 64)
  for (int i = 0; i < ds.mdata; i++) {
    const double a = Analytic_Value(ds, earth, topo, i), c = ds.Fem.rm[i];
    acc.analytic[i] = a;
    const double e = a != 0.0 ? std::fabs(c - a) / std::fabs(a) : (c == 0.0 ? 0.0 : HUGE_VAL);
    acc.err[i] = e >= 0.0 ? e : HUGE_VAL; // a value that is not a number counts as the worst
  }
  acc.median = Median(acc.err);
  acc.p95 = Percentile_95(acc.err);
  acc.largest = Largest(acc.err);
  Report(ds, earth, acc);
  return 0;
}

} // namespace

int Check_Mesh_Half_Space(Data_Set &ds, Mesh_Accuracy &acc) {
  const std::vector<float> res(std::max(ds.Model_grid.nmodel_blocks, 1),
                               static_cast<float>(check_resistivity));
  return Check_Mesh(ds, Check_Earth(), res, acc);
}

int Check_Mesh_Model(Data_Set &ds, const Synthetic_Model &model, Mesh_Accuracy &acc) {
  int layers = 0, boxes = 0;
  const Synthetic_Box *layer = nullptr;
  for (const Synthetic_Box &b : model.boxes) {
    if (b.layer) {
      layers++;
      layer = &b;
    } else {
      boxes++;
    }
  }
  if (boxes > 0 || layers != 1 || layer->lim[4] > 0.0)
    return Refuse_Always(ds, "Check mesh",
                         "The model has %d box%s and %d layer%s%s: a model is checked when it is "
                         "a two-layer earth, a background and one layer from the surface (depth "
                         "0) down.\n%s",
                         boxes, boxes == 1 ? "" : "es", layers, layers == 1 ? "" : "s",
                         layers == 1 && boxes == 0 ? ", not from the surface" : "",
                         what_can_be_checked);
  Check_Earth earth;
  earth.rho1 = layer->res;
  earth.rho2 = model.background;
  earth.h = layer->lim[5] / ds.spxx;
  earth.layered = true;
  std::vector<float> res, ip;
  Model_Block_Values(ds, model, res, ip);
  // An interface between the model's layers is drawn exactly; one inside a
  // layer is not, and that, not the mesh, limits the agreement.
  const Model_Grid &g = ds.Model_grid;
  double nearest = 0.0;
  for (int k = 0; k <= g.nlayers; k++)
    if (std::fabs(g.zbl[k] - earth.h) < std::fabs(nearest - earth.h))
      nearest = g.zbl[k];
  if (std::fabs(nearest - earth.h) > 1e-4 * earth.h)
    Panel(ds,
          "The layer's base at %g is not a model layer boundary (the nearest is at %g): the "
          "model's layers, not only the mesh, limit the agreement.",
          earth.h * ds.spxx, nearest * ds.spxx);
  return Check_Mesh(ds, earth, res, acc);
}
