// Geometric factors of the data points, their relative errors, their range
// and the data weights taken from them.
#include <algorithm>
#include <cmath>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/array_geometry.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

constexpr double two_pi = 6.283189;

// Position error of an electrode, in unit spacings, behind the relative
// error of a geometric factor: electrodes are placed to about 1% of the
// electrode spacing, and the error of K that follows from it measures how
// far a factor can be trusted (a large factor is a small, steep K).
constexpr double position_error = 0.01;

// Electrode depth or elevation: the linear-distance factor uses the
// elevations of the electrode table.
double Elevation(const Data_Set &ds, int number) {
  const int n = ds.num_point_elecs + ds.num_grid_points;
  return number >= 0 && number < n ? ds.pe[number].z : 0.0;
}

struct Pair_Term {
  const double *a, *b;
  double za, zb;
  double sign;
};

int Pair_Terms(const Data_Set &ds, const Data_Point &d, Pair_Term *t) {
  const bool linear = ds.type_geofac == 1;
  auto z = [&](int number) { return linear ? Elevation(ds, number) : 0.0; };
  int n = 0;
  t[n++] = {d.c1, d.p1, z(d.nc1), z(d.np1), 1.0};
  if (d.nelec > 2)
    t[n++] = {d.c1, d.p2, z(d.nc1), z(d.np2), -1.0};
  if (d.nelec == 4) {
    t[n++] = {d.c2, d.p1, z(d.nc2), z(d.np1), -1.0};
    t[n++] = {d.c2, d.p2, z(d.nc2), z(d.np2), 1.0};
  }
  return n;
}

// K of the point by the surface formula (horizontal or linear distance), or
// half the image form for buried electrodes; its relative error from the
// position error of every electrode.
double Surface_K(const Data_Set &ds, const Data_Point &d, double &rel_error) {
  Pair_Term t[4];
  const int n = Pair_Terms(ds, d, t);
  const bool buried = !All_Depths_Zero(d);
  double k = 0.0, grad = 0.0;
  for (int p = 0; p < n; p++) {
    const double dx = t[p].a[0] - t[p].b[0], dy = t[p].a[1] - t[p].b[1];
    const double dz = buried ? t[p].a[2] - t[p].b[2] : t[p].za - t[p].zb;
    const double r2 = dx * dx + dy * dy + dz * dz;
    if (buried) {
      k += t[p].sign * 0.5 * Image_Term(t[p].a, t[p].b);
    } else if (r2 > 0.0) {
      k += t[p].sign / std::sqrt(r2);
    }
    // |d(1/r)/dr| = 1/r^2 for each of the pair's two electrodes.
    if (r2 > 0.0)
      grad += 2.0 / r2;
  }
  rel_error = k != 0.0 ? position_error * grad / std::fabs(k) : 1.0;
  return k;
}

} // namespace

int Calculate_Geometric_Factors(Data_Set &ds) {
  TRACE("geofacsurf mdata %d\n", ds.mdata);
  if (ds.array2 == 16 || ds.mdata < 2)
    return 0;
  if (!(ds.dp[0].gfac == 0.0 && ds.dp[1].gfac == 0.0))
    return 0;
  const int m = ds.mdata;
  double sum = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : sum)
  for (int i = 0; i < m; i++) {
    Data_Point &d = ds.dp[i];
    double rel = 0.0;
    const double k = Surface_K(ds, d, rel);
    d.gfac = k / two_pi;
    d.gfac_rel_error = static_cast<float>(std::min(rel, 1e30));
    sum += rel;
    for (int s = 1; s < ds.ntime; s++) {
      Data_Point &dk = ds.dp[Record_Index(ds, s, i)];
      dk.gfac = d.gfac;
      dk.gfac_rel_error = d.gfac_rel_error;
    }
  }
  ds.gfac_rel_error_average = sum / m;
  return 0;
}

int Calculate_Geometric_Factor_Relative_Error_Arrays(Data_Set &ds, double spxx) {
  double lo = 0.0, hi = 0.0;
  bool first = true;
  for (int i = 0; i < ds.mdata; i++) {
    Data_Point &d = ds.dp[i];
    d.work[0] = d.gfac != 0.0 ? spxx / d.gfac : 0.0;
    if (ds.array2 != 16 || d.gfac == 0.0)
      continue;
    if (i > 0)
      d.gfac_rel_error = 1.0f;
    const double g = std::fabs(d.work[0]);
    lo = first ? g : std::min(lo, g);
    hi = first ? g : std::max(hi, g);
    first = false;
  }
  if (ds.array2 == 16 && !first)
    Panel(ds,
          "Minimum and maximum vector array geometric factors are %14.6e and %14.6e. Ratio is "
          "%14.6e with cutoff value %12.4e.",
          lo, hi, lo > 0.0 ? hi / lo : 0.0, lo * ds.Data_filter.gfcut_ratio);
  return 0;
}

int Calculate_Range_Geometric_Factor_Arrays(Data_Set &ds, double spxx) {
  // Bins of a quarter decade of |G| from the smallest factor; groups are runs
  // of filled bins. The largest ratio is that of the last filled bin's upper
  // edge to the smallest factor.
  double lo = 0.0, hi = 0.0;
  bool first = true;
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    if (d.gfac == 0.0)
      continue;
    const double g = std::fabs(spxx / d.gfac);
    lo = first ? g : std::min(lo, g);
    hi = first ? g : std::max(hi, g);
    first = false;
  }
  if (first || !(lo > 0.0))
    return 0;
  const double ratio = hi / lo;
  const int nbins = std::min(400, static_cast<int>(std::log10(ratio) * 4.0) + 1);
  std::vector<int> bin(nbins, 0);
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    if (d.gfac == 0.0)
      continue;
    const int b = static_cast<int>(std::log10(std::fabs(spxx / d.gfac) / lo) * 4.0);
    bin[std::clamp(b, 0, nbins - 1)]++;
  }
  TRACE("\nmin_geo_fac %.2f max_geo_fac %.2f rmin %.2f ratio_max %.2f\n     %d   geometric_factor "
        "geometric_factor_ratio\n",
        lo, hi, ds.res_abs_min, ratio, nbins);
  TRACE("Normalised min_geo_fac %8.2f  max_geo_fac  %8.2f\n", lo / spxx, hi / spxx);
  TRACE(" i      bin    group    sum\n");
  int group = 0, sum = 0;
  for (int b = 0; b < nbins; b++) {
    if (bin[b] > 0 && (b == 0 || bin[b - 1] == 0))
      group++;
    sum += bin[b];
    TRACE("%3d %8d %8d %8d\n", b, bin[b], bin[b] > 0 ? group : 0, sum);
  }
  ds.gfac_range_min = lo;
  ds.gfac_range_max = hi;
  TRACE("Actual min_geo_fac %8.2f  max_geo_fac %8.2f  ratio_geo_fac %8.2f  "
        "geometric_factor_ratio_max %.2f\n",
        lo, hi, ratio, ds.Data_filter.gfcut_ratio);
  return 0;
}

int Use_Geometric_Factor_Relative_Error_Data_Weight(Data_Set &ds) {
  // Weight of a point: sqrt of (mean |G| / |G|) and of (mean relative error /
  // its relative error), each at most 1, so that points with large factors or
  // unstable geometry count less; then scaled so that the largest weight is 1.
  const int m = ds.mdata;
  if (m < 1)
    return 0;
  double gsum = 0.0, esum = 0.0;
  int n = 0;
  for (int i = 0; i < m; i++) {
    const Data_Point &d = ds.dp[i];
    if (d.gfac == 0.0)
      continue;
    gsum += std::log(std::fabs(ds.spxx / d.gfac));
    esum += d.gfac_rel_error;
    n++;
  }
  const double gaver = n > 0 ? std::exp(gsum / n) : 1.0, eaver = n > 0 ? esum / n : 1.0;
  TRACE("%12s %12s %12s %12s %12s %12s\n", "geom_factor", "1.0/geom_fac", "weight_geom_fac",
        "geom_fac_aver", "geom_fac_rel_err", "rel_err_aver");
  double wmax = 0.0, wg_sum = 0.0, we_sum = 0.0;
  for (int i = 0; i < m; i++) {
    Data_Point &d = ds.dp[i];
    double wg = 1.0, we = 1.0;
    if (d.gfac != 0.0) {
      const double g = std::fabs(ds.spxx / d.gfac);
      wg = std::min(1.0, std::sqrt(gaver / g));
      if (d.gfac_rel_error > 0.0f)
        we = std::min(1.0, std::sqrt(eaver / d.gfac_rel_error));
      if (i < 64)
        TRACE("%12.4e %12.4e %12.6f %12.4e %12.6f %12.6f\n", g, 1.0 / g, wg, gaver,
              d.gfac_rel_error, eaver);
    }
    wg_sum += wg;
    we_sum += we;
    d.work[1] = wg * we;
    wmax = std::max(wmax, d.work[1]);
  }
  for (int i = 0; i < m; i++) {
    ds.dp[i].work[1] = wmax > 0.0 ? ds.dp[i].work[1] / wmax : 1.0;
    for (int s = 1; s < ds.ntime; s++)
      ds.dp[Record_Index(ds, s, i)].work[1] = ds.dp[i].work[1];
  }
  TRACE("aver_geom_fac_weight %12.6f  aver_rel_err_weight %12.6f\n\n", wg_sum / m, we_sum / m);
  return 0;
}

int Set_Error_Vector(Data_Set &ds, float *weights) {
  // With error estimates a point's weight is the inverse of its relative
  // error (at least 0.1%), scaled to an average of 1 (type_error_scaling 0)
  // or a smallest weight of 1 (1); otherwise 1. The geometric factor weight
  // multiplies it when that option is on.
  const int64_t n = static_cast<int64_t>(ds.mdata) * ds.ntime;
  double sum = 0.0, lo = 0.0;
  for (int64_t r = 0; r < n; r++) {
    const Data_Point &d = ds.dp[r];
    double w = 1.0;
    if (ds.error_estimate && d.value != 0.0f)
      w = 1.0 / std::max(0.001, std::fabs(static_cast<double>(d.value_error / d.value)));
    weights[r] = static_cast<float>(w);
    sum += w;
    lo = r == 0 ? w : std::min(lo, w);
  }
  const double scale = !ds.error_estimate                       ? 1.0
                       : ds.Data_filter.type_error_scaling == 0 ? (sum > 0.0 ? n / sum : 1.0)
                                                                : (lo > 0.0 ? 1.0 / lo : 1.0);
  const bool gfac_weight = ds.Data_filter.use_gfac_weight != 0;
  for (int64_t r = 0; r < n; r++) {
    weights[r] = static_cast<float>(weights[r] * scale);
    if (gfac_weight)
      weights[r] = static_cast<float>(weights[r] * ds.dp[r].work[1]);
  }
  return 0;
}
