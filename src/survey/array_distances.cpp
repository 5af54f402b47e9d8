// Distances and counts drawn from the electrode geometry of the data points.
#include <algorithm>
#include <cmath>
#include <limits>
#include <omp.h>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/array_geometry.h"
#include "survey/survey.h"

namespace {

inline double Distance(const double *a, const double *b) {
  const double dx = a[0] - b[0], dy = a[1] - b[1], dz = a[2] - b[2];
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

// The electrodes of a point in the order C1, C2, P1, P2, P3; `current` tells
// which are current electrodes. Returns their count.
int Point_Electrodes(const Data_Point &d, bool vector, const double *e[5], bool current[5]) {
  int n = 0;
  e[n] = d.c1, current[n++] = true;
  if (d.nelec == 4)
    e[n] = d.c2, current[n++] = true;
  e[n] = d.p1, current[n++] = false;
  if (d.nelec > 2)
    e[n] = d.p2, current[n++] = false;
  if (vector)
    e[n] = d.p3, current[n++] = false;
  return n;
}

// Calls f(distance, one of them is a current and the other a potential
// electrode) for every pair of electrodes of point d.
template <class F> void For_Each_Pair(const Data_Point &d, bool vector, F f) {
  const double *e[5];
  bool current[5];
  const int n = Point_Electrodes(d, vector, e, current);
  for (int a = 0; a < n; a++)
    for (int b = a + 1; b < n; b++)
      f(Distance(e[a], e[b]), current[a] != current[b]);
}

} // namespace

int Find_Distance_Array_Electrodes(Data_Set &ds) {
  const int m = ds.mdata;
  const bool vector = ds.array2 == 16;
  const double inf = std::numeric_limits<double>::infinity();
  double cp_min = inf, cp_max = 0.0, e2_min = inf, e2_max = 0.0;
  int spread_point = 0;
#pragma omp parallel
  {
    double tcp_min = inf, tcp_max = 0.0, te_min = inf, te_max = 0.0;
    int tpoint = 0;
#pragma omp for schedule(static) nowait
    for (int i = 0; i < m; i++)
      For_Each_Pair(ds.dp[i], vector, [&](double r, bool cp) {
        if (cp) {
          tcp_min = std::min(tcp_min, r);
          tcp_max = std::max(tcp_max, r);
        }
        te_min = std::min(te_min, r);
        if (r > te_max) {
          te_max = r;
          tpoint = i;
        }
      });
#pragma omp critical
    {
      cp_min = std::min(cp_min, tcp_min);
      cp_max = std::max(cp_max, tcp_max);
      e2_min = std::min(e2_min, te_min);
      if (te_max > e2_max || (te_max == e2_max && tpoint < spread_point)) {
        e2_max = te_max;
        spread_point = tpoint;
      }
    }
  }
  ds.dist_cp_min = std::isfinite(cp_min) ? cp_min : 0.0;
  ds.dist_cp_max = cp_max;
  ds.dist_2e_min = std::isfinite(e2_min) ? e2_min : 0.0;
  ds.dist_2e_max = e2_max;
  ds.dist_max_point = spread_point;
  return 0;
}

void Calculate_Minimum_Electrode_Separation(Data_Set &ds) {
  const bool vector = ds.array2 == 16;
  double best = 10000.0;
  for (int i = 0; i < ds.mdata; i++)
    For_Each_Pair(ds.dp[i], vector, [&best](double r, bool) { best = std::min(best, r * r); });
  ds.min_elec_sep = std::sqrt(best);
}

void Calculate_Electrode_Extents(Data_Set &ds) {
  const bool vector = ds.array2 == 16;
  bool first = true;
  for (int i = 0; i < ds.mdata; i++) {
    const double *e[5];
    bool current[5];
    const int n = Point_Electrodes(ds.dp[i], vector, e, current);
    for (int a = 0; a < n; a++) {
      if (first || e[a][0] < ds.elec_xmin)
        ds.elec_xmin = e[a][0];
      if (first || e[a][0] > ds.elec_xmax)
        ds.elec_xmax = e[a][0];
      if (first || e[a][1] < ds.elec_ymin)
        ds.elec_ymin = e[a][1];
      if (first || e[a][1] > ds.elec_ymax)
        ds.elec_ymax = e[a][1];
      first = false;
    }
  }
}

void Calculate_Vector_Working_Values(Data_Set &ds, int64_t r) {
  Data_Point &d = ds.dp[r];
  auto unit = [](const double *a, const double *b, float *u) {
    const double dx = b[0] - a[0], dy = b[1] - a[1];
    const double len = std::sqrt(dx * dx + dy * dy);
    u[0] = len > 0.0 ? static_cast<float>(dx / len) : 0.0f;
    u[1] = len > 0.0 ? static_cast<float>(dy / len) : 0.0f;
  };
  unit(d.p1, d.p2, d.dir1);
  unit(d.p1, d.p3, d.dir2);
  const double c =
      std::clamp(static_cast<double>(d.dir1[0] * d.dir2[0] + d.dir1[1] * d.dir2[1]), -1.0, 1.0);
  d.angle = std::acos(c);
  d.amplitude = std::sqrt(d.vector_component1 * d.vector_component1 +
                          d.vector_component2 * d.vector_component2);
  d.ratio = d.vector_component1 != 0.0f ? d.vector_component2 / d.vector_component1 : 0.0f;
}

int Check_Number_Dipoles_Data_Set(Data_Set &ds, int mode) {
  progress(ds, "Checking dipoles", 0.0);
  const int m = ds.mdata;
  const int64_t e = static_cast<int64_t>(ds.num_point_elecs) + ds.num_grid_points + 1;
  int64_t *key = ds.sort_keys;
  // Current dipoles: the pair (C1, C2), C2 absent for pole sources.
  for (int i = 0; i < m; i++) {
    const Data_Point &d = ds.dp[i];
    const int64_t a = d.nc1 + 1, b = d.nelec == 4 ? d.nc2 + 1 : 0;
    key[i] = std::min(a, b) * (e + 1) + std::max(a, b);
  }
  std::sort(key, key + m);
  ds.num_cp_dipoles = std::unique(key, key + m) - key;
  // Potential electrodes in use.
  int64_t n = 0;
  for (int i = 0; i < m; i++) {
    const Data_Point &d = ds.dp[i];
    key[n++] = d.np1;
    if (d.nelec > 2)
      key[n++] = d.np2;
    if (n >= 2 * static_cast<int64_t>(m))
      break;
  }
  std::sort(key, key + n);
  ds.nelec_pot = std::unique(key, key + n) - key;
  TRACE("Check_Number_Dipoles_Data_Set mode %d num_cp_dipoles %lld nelec_pot %lld\n", mode,
        static_cast<long long>(ds.num_cp_dipoles), static_cast<long long>(ds.nelec_pot));
  return 0;
}
