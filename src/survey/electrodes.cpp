// The point electrode table: position keys, sort, repeats, normalisation of
// positions, electrode numbers of the data points and the consolidated list.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numeric>
#include <omp.h>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/array_geometry.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

struct Key3 {
  int64_t x, y, z;
};

inline bool Key_Less(const Key3 &a, const Key3 &b) {
  if (a.x != b.x)
    return a.x < b.x;
  if (a.y != b.y)
    return a.y < b.y;
  return a.z < b.z;
}

// Thousandths of v relative to the origin, through a 32-bit real.
inline int64_t Key_Of(double v, double origin) {
  const float f = static_cast<float>(v - origin);
  const double k = std::round(static_cast<double>(f) * 1000.0);
  // Kept within +-4e18 so that neighbour keys and ranges cannot overflow.
  constexpr double limit = 4e18;
  return static_cast<int64_t>(std::isfinite(k) ? std::clamp(k, -limit, limit) : limit);
}

Key3 Position_Key(const Data_Set &ds, double x, double y, double depth) {
  const double x0 = ds.positions_scaled ? 0.0 : ds.xmin;
  const double y0 = ds.positions_scaled ? 0.0 : ds.ymin;
  return {Key_Of(x, x0), Key_Of(y, y0), Key_Of(depth, 0.0)};
}

inline Key3 Table_Key(const Data_Set &ds, int e) {
  return {ds.key_x[e], ds.key_y[e], ds.key_z[e]};
}

// Key tables over the first n electrodes of the table, sorted.
void Build_Keys(Data_Set &ds, int n) {
  for (int e = 0; e < n; e++) {
    const Key3 k = Position_Key(ds, ds.pe[e].x, ds.pe[e].y, ds.pe[e].depth);
    ds.key_x[e] = k.x;
    ds.key_y[e] = k.y;
    ds.key_z[e] = k.z;
  }
  std::iota(ds.key_index, ds.key_index + n, 0);
  std::stable_sort(ds.key_index, ds.key_index + n,
                   [&ds](int a, int b) { return Key_Less(Table_Key(ds, a), Table_Key(ds, b)); });
  ds.num_keyed = n;
  if (n > 0) {
    const Key3 lo = Table_Key(ds, ds.key_index[0]), hi = Table_Key(ds, ds.key_index[n - 1]);
    ds.xrangei = hi.x - lo.x + 1;
    int64_t ymin = ds.key_y[0], ymax = ds.key_y[0], zmin = ds.key_z[0], zmax = ds.key_z[0];
    for (int e = 1; e < n; e++) {
      ymin = std::min(ymin, ds.key_y[e]);
      ymax = std::max(ymax, ds.key_y[e]);
      zmin = std::min(zmin, ds.key_z[e]);
      zmax = std::max(zmax, ds.key_z[e]);
    }
    ds.yrangei = ymax - ymin + 1;
    ds.zrangei = zmax - zmin + 1;
  }
}

// Sorted positions [first, last) of the key table whose key equals k, or
// (xy_only) whose x and y keys equal k's.
std::pair<const int32_t *, const int32_t *> Key_Range(const Data_Set &ds, const Key3 &k,
                                                      bool xy_only) {
  const int32_t *b = ds.key_index, *e = ds.key_index + ds.num_keyed;
  auto less = [&ds, xy_only](int a, const Key3 &key) {
    const Key3 t = Table_Key(ds, a);
    return xy_only ? (t.x != key.x ? t.x < key.x : t.y < key.y) : Key_Less(t, key);
  };
  auto greater = [&ds, xy_only](const Key3 &key, int a) {
    const Key3 t = Table_Key(ds, a);
    return xy_only ? (t.x != key.x ? key.x < t.x : key.y < t.y) : Key_Less(key, t);
  };
  const int32_t *lo = std::lower_bound(b, e, k, less);
  const int32_t *hi = std::upper_bound(lo, e, k, greater);
  return {lo, hi};
}

void Normalise(const Data_Set &ds, double *p) {
  p[0] = (p[0] - ds.xmin) / ds.spxx;
  p[1] = (p[1] - ds.ymin) / ds.spxx;
  p[2] /= ds.spxx;
}

// Calls f on every electrode position of record d that the point uses.
template <class F> void For_Each_Electrode(Data_Point &d, bool vector, F f) {
  f(d.c1, d.nc1);
  if (d.nelec == 4)
    f(d.c2, d.nc2);
  f(d.p1, d.np1);
  if (d.nelec > 2)
    f(d.p2, d.np2);
  if (vector)
    f(d.p3, d.np3);
}

void Append_Grid_Nodes(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  int n = ds.num_point_elecs;
  for (int j = 0; j < g.ngridy; j++)
    for (int i = 0; i < g.ngridx; i++) {
      Point_Electrode &e = ds.pe[n++];
      e = Point_Electrode();
      e.x = g.xgrid[i];
      e.y = g.ygrid[j];
    }
  ds.num_grid_points = g.ngridx * g.ngridy;
}

int Check_Tank_Boundaries(Data_Set &ds) {
  const Tank &t = ds.tank;
  const double gx0 = ds.xmin, gx1 = ds.xmax, gy0 = ds.ymin, gy1 = ds.ymax;
  if (!(t.x1 < gx0))
    return Refuse(ds, "File format error", "Error in tank left x boundary %.3f", t.x1);
  if (!(t.x2 > gx1))
    return Refuse(ds, "File format error",
                  "Error in tank right x boundary %.4f\nMaximum x model grid position is "
                  "%.4f.\nThe tank boundary must be beyond the largest x model grid position.",
                  t.x2, gx1);
  if (!(t.y1 < gy0))
    return Refuse(ds, "File format error", "Error in tank lower y boundary %.3f", t.y1);
  if (!(t.y2 > gy1))
    return Refuse(ds, "File format error",
                  "Error in tank upper y boundary %.3f\nMaximum y grid position is %.3f.\nThe tank "
                  "boundary must be beyond the largest y model grid position.",
                  t.y2, gy1);
  return 0;
}

constexpr double tol_low = 1e-05, tol_high_x = 0.0001;

int Check_Electrodes_In_Grid(Data_Set &ds) {
  const int n = ds.num_point_elecs;
  if (n < 1)
    return 0;
  double x0 = ds.pe[0].x, x1 = x0, y0 = ds.pe[0].y, y1 = y0, d0 = ds.pe[0].depth, d1 = d0;
  for (int e = 1; e < n; e++) {
    x0 = std::min(x0, ds.pe[e].x);
    x1 = std::max(x1, ds.pe[e].x);
    y0 = std::min(y0, ds.pe[e].y);
    y1 = std::max(y1, ds.pe[e].y);
    d0 = std::min(d0, ds.pe[e].depth);
    d1 = std::max(d1, ds.pe[e].depth);
  }
  ds.elec_zmin = d0;
  ds.elec_zmax = d1;
  if (!(x0 >= ds.xmin - tol_low && x1 <= ds.xmax + tol_high_x && y0 >= ds.ymin - tol_low &&
        y1 <= ds.ymax + tol_low))
    return Refuse(ds, "Point Electrodes Model Grid Error",
                  "Minimum and maximum x-locations for point electrodes\nare %.2f and "
                  "%.2f.\nMinimum and maximum y-locations for point electrodes\nare %.2f and "
                  "%.2f.\nThe model grid x limits are %.2f and %.2f.\nThe model grid y limits are "
                  "%.2f and %.2f.\nOne or more of the point electrodes fall outside the model "
                  "grid.\nYou will need to extend the model grid!",
                  x0, x1, y0, y1, ds.xmin, ds.xmax, ds.ymin, ds.ymax);
  for (int e = 0; e < n; e++) {
    const Point_Electrode &p = ds.pe[e];
    if (!(p.x >= ds.xmin - tol_low && p.x <= ds.xmax + tol_high_x))
      return Refuse(ds, "Point Electrodes Data Error",
                    "There is an error in x-position of point electrode number %d\nwith a value "
                    "of %.2f as it falls outside the survey grid.",
                    e + 1, p.x);
    if (!(p.y >= ds.ymin - tol_low && p.y <= ds.ymax + tol_low))
      return Refuse(ds, "Point Electrodes Data Error",
                    "There is an error in y-position of point electrode number %d\nwith a value "
                    "of %.2f as it falls outside the survey grid.",
                    e + 1, p.y);
  }
  return 0;
}

// Height of the ground at normalised (x, y) from the grid node heights.
double Grid_Height(const Data_Set &ds, double x, double y) {
  const Model_Grid &g = ds.Model_grid;
  if (!ds.topo.grid_z || ds.topo.type == 0)
    return 0.0;
  const int i = static_cast<int>(std::upper_bound(g.xgrid, g.xgrid + g.ngridx, x) - g.xgrid) - 1;
  const int j = static_cast<int>(std::upper_bound(g.ygrid, g.ygrid + g.ngridy, y) - g.ygrid) - 1;
  const int i0 = std::clamp(i, 0, g.ngridx - 2), j0 = std::clamp(j, 0, g.ngridy - 2);
  const double tx = std::clamp((x - g.xgrid[i0]) / (g.xgrid[i0 + 1] - g.xgrid[i0]), 0.0, 1.0);
  const double ty = std::clamp((y - g.ygrid[j0]) / (g.ygrid[j0 + 1] - g.ygrid[j0]), 0.0, 1.0);
  const float *z = ds.topo.grid_z;
  const int64_t n0 = static_cast<int64_t>(j0) * g.ngridx + i0, n1 = n0 + g.ngridx;
  return (1 - ty) * ((1 - tx) * z[n0] + tx * z[n0 + 1]) + ty * ((1 - tx) * z[n1] + tx * z[n1 + 1]);
}

} // namespace

int Sort_Point_Electrodes(Data_Set &ds) {
  const int n = ds.num_point_elecs;
  if (n < 2) {
    ds.pe_sorted = 0;
    return 0;
  }
  Build_Keys(ds, n);
  for (int e = 0; e < n; e++)
    ds.pe_work[e] = ds.pe[ds.key_index[e]];
  std::memcpy(static_cast<void *>(ds.pe), ds.pe_work, sizeof(Point_Electrode) * n);
  // The key tables now describe the old order; every user builds its own.
  ds.num_keyed = 0;
  ds.pe_sorted = 1;
  return 0;
}

int Check_Repeated_Point_Electrodes(Data_Set &ds) {
  const int n = ds.num_point_elecs;
  if (n < 2)
    return 0;
  Build_Keys(ds, n);
  const double tol = ds.repeat_tolerance;
  std::vector<uint8_t> repeat(n, 0);
  // Two positions within the tolerance (far below a thousandth) have keys
  // that differ by at most one in each direction, so only the neighbouring
  // key cells are searched. An electrode is a repeat of an earlier one.
#pragma omp parallel for schedule(static)
  for (int e = 0; e < n; e++) {
    if (omp_get_thread_num() == 0 && e % 1024 == 0)
      Progress_Text(ds, static_cast<double>(e) / n, "Check Repeated Point Electrode %d/%d", e + 1,
                    n);
    const Point_Electrode &p = ds.pe[e];
    const Key3 k = Table_Key(ds, e);
    bool found = false;
    for (int dx = -1; dx <= 1 && !found; dx++)
      for (int dy = -1; dy <= 1 && !found; dy++)
        for (int dz = -1; dz <= 1 && !found; dz++) {
          const auto r = Key_Range(ds, {k.x + dx, k.y + dy, k.z + dz}, false);
          for (const int32_t *q = r.first; q != r.second && !found; q++) {
            const Point_Electrode &o = ds.pe[*q];
            found = *q < e && std::fabs(o.x - p.x) <= tol && std::fabs(o.y - p.y) <= tol &&
                    std::fabs(o.depth - p.depth) <= tol;
          }
        }
    repeat[e] = found;
  }
  int kept = 0;
  for (int e = 0; e < n; e++)
    if (!repeat[e])
      ds.pe[kept++] = ds.pe[e];
  ds.num_point_elecs = kept;
  TRACE("Check_Repeated_Point_Electrodes %d repeats of %d\n", n - kept, n);
  return n - kept;
}

int Scale_Positions(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  ds.xmin = std::min(ds.xmin, g.xgrid[0]);
  ds.ymin = std::min(ds.ymin, g.ygrid[0]);
  ds.xmax = std::max(ds.xmax, g.xgrid[g.ngridx - 1]);
  ds.ymax = std::max(ds.ymax, g.ygrid[g.ngridy - 1]);
  if (ds.tank.present && Check_Tank_Boundaries(ds))
    return 1;
  if (Check_Electrodes_In_Grid(ds))
    return 1;
  for (int i = 0; i < g.ngridx; i++)
    g.xgrid[i] = (g.xgrid[i] - ds.xmin) / ds.spxx;
  for (int j = 0; j < g.ngridy; j++)
    g.ygrid[j] = (g.ygrid[j] - ds.ymin) / ds.spxx;
  ds.grid_extent_x = g.xgrid[g.ngridx - 1];
  ds.grid_extent_y = g.ygrid[g.ngridy - 1];
  ds.grid_diag =
      std::sqrt(ds.grid_extent_x * ds.grid_extent_x + ds.grid_extent_y * ds.grid_extent_y);
  Panel(ds, "Maximum model grid extent is %.2f.", ds.grid_diag * ds.spxx);
  for (int e = 0; e < ds.num_point_elecs; e++) {
    Point_Electrode &p = ds.pe[e];
    p.x = (p.x - ds.xmin) / ds.spxx;
    p.y = (p.y - ds.ymin) / ds.spxx;
    p.z /= ds.spxx;
    p.depth /= ds.spxx;
  }
  Append_Grid_Nodes(ds);
  const int64_t n = static_cast<int64_t>(ds.mdata) * ds.ntime;
  const bool vector = ds.array2 == 16;
#pragma omp parallel for schedule(static)
  for (int64_t r = 0; r < n; r++)
    For_Each_Electrode(ds.dp[r], vector, [&ds](double *p, int32_t &) { Normalise(ds, p); });
  ds.positions_scaled = 1;
  return 0;
}

int Find_Electrode_Number(const Data_Set &ds, const double *pos) {
  const Key3 k = Position_Key(ds, pos[0], pos[1], pos[2]);
  auto r = Key_Range(ds, k, false);
  if (r.first == r.second)
    r = Key_Range(ds, k, true);
  return r.first != r.second ? *r.first : -1;
}

int Find_Electrode_Numbers_Points_Only(Data_Set &ds) {
  Build_Keys(ds, ds.num_point_elecs + ds.num_grid_points);
  const int m = ds.mdata;
  const bool vector = ds.array2 == 16;
  int missing = 0;
#pragma omp parallel for schedule(static) reduction(+ : missing)
  for (int i = 0; i < m; i++) {
    if (m > 10000 && omp_get_thread_num() == 0 && i % 128 == 0)
      Progress_Text(ds, static_cast<double>(i) / m,
                    "Finding Electrode Numbers for Data Point %d/%d  ", i + 1, m);
    Data_Point &d = ds.dp[i];
    d.nc2 = d.np2 = d.np3 = -1;
    For_Each_Electrode(d, vector, [&ds, &missing](double *p, int32_t &number) {
      number = Find_Electrode_Number(ds, p);
      missing += number < 0;
    });
    for (int k = 1; k < ds.ntime; k++) {
      Data_Point &dk = ds.dp[static_cast<int64_t>(k) * m + i];
      dk.nc1 = d.nc1;
      dk.nc2 = d.nc2;
      dk.np1 = d.np1;
      dk.np2 = d.np2;
      dk.np3 = d.np3;
    }
  }
  ds.missing_electrodes = missing;
  return missing;
}

int Find_Electrode_Numbers_Points(Data_Set &ds) {
  const int missing = Find_Electrode_Numbers_Points_Only(ds);
  ds.elec_list_incomplete = 0;
  if (ds.num_point_elecs_file == 0) {
    // No list in the file: the data's electrodes make up a new list, and
    // the data are saved in the point electrode format after the read.
    ds.elec_list_incomplete = 1;
    ds.flag_save_in_new_format = 1;
    return 0;
  }
  if (missing != 0) {
    Warn(ds, "Old data format warning",
         "Some electrodes not in arbitrary electrodes list.\nYou need to save the data in the new "
         "arbitrary electrode format, and read the new file to carry out the inversion.\nThe "
         "program will save the data in the new file format after reading in this file.");
    ds.flag_save_in_new_format = 1;
    ds.elec_list_incomplete = 1;
  }
  return 0;
}

int Calculate_Location_Electrodes_Model_Grid_Topography(Data_Set &ds) {
  const int m = ds.mdata;
  const int listed = ds.num_point_elecs;
  const bool vector = ds.array2 == 16;
  // Electrodes the data use: grid nodes, and positions in no list.
  std::vector<uint8_t> grid_used(ds.num_grid_points, 0);
  std::vector<Point_Electrode> added;
  for (int i = 0; i < m; i++)
    For_Each_Electrode(ds.dp[i], vector, [&](double *p, int32_t &number) {
      if (number >= listed) {
        grid_used[number - listed] = 1;
      } else if (number < 0) {
        Point_Electrode e;
        e.x = p[0];
        e.y = p[1];
        e.depth = p[2];
        added.push_back(e);
      }
    });
  const int grid_count = static_cast<int>(std::count(grid_used.begin(), grid_used.end(), 1));
  if (grid_count == 0 && added.empty())
    return 0;
  // Unique missing positions, by key.
  std::sort(added.begin(), added.end(), [&ds](const Point_Electrode &a, const Point_Electrode &b) {
    return Key_Less(Position_Key(ds, a.x, a.y, a.depth), Position_Key(ds, b.x, b.y, b.depth));
  });
  added.erase(std::unique(added.begin(), added.end(),
                          [&ds](const Point_Electrode &a, const Point_Electrode &b) {
                            const Key3 ka = Position_Key(ds, a.x, a.y, a.depth);
                            const Key3 kb = Position_Key(ds, b.x, b.y, b.depth);
                            return !Key_Less(ka, kb) && !Key_Less(kb, ka);
                          }),
              added.end());
  const int missing = static_cast<int>(added.size());
  if (missing > 0)
    TRACE("num_point_elecs %d. Add number of missing electrodes %d\n", listed, missing);
  const int64_t total = static_cast<int64_t>(listed) + grid_count + missing;
  if (total > ds.Data_lim_sys.nmax_elecs)
    return Refuse(ds, "Electrodes Error Message",
                  "num_point_elecs %d  num_point_elecs+num_grid_points %lld\nMaximum number of "
                  "point electrodes is %d\n",
                  listed, static_cast<long long>(total), ds.Data_lim_sys.nmax_elecs);
  // The used grid nodes join the list (through the scratch table, since they
  // stand after the list), then the missing positions.
  int n = 0;
  for (int g = 0; g < ds.num_grid_points; g++)
    if (grid_used[g])
      ds.pe_work[n++] = ds.pe[listed + g];
  std::memcpy(static_cast<void *>(ds.pe + listed), ds.pe_work, sizeof(Point_Electrode) * n);
  n += listed;
  for (const Point_Electrode &e : added) {
    ds.pe[n] = e;
    ds.pe[n].z = Grid_Height(ds, e.x, e.y);
    n++;
  }
  ds.num_point_elecs = n;
  ds.pe_converted = 1;
  Sort_Point_Electrodes(ds);
  Append_Grid_Nodes(ds);
  Find_Electrode_Numbers_Points_Only(ds);
  if (missing > 0)
    Warn(ds, "Missing electrodes", "Number of point electrodes %d\nNumber of missing electrodes %d",
         ds.num_point_elecs, missing);
  ds.missing_electrodes = missing;
  return 0;
}

int Sort_Data_Set(Data_Set &ds) {
  const int m = ds.mdata;
  if (m < 2 || m + 1 > 2 * static_cast<int64_t>(ds.Data_lim_sys.nmax_data) + 4)
    return m < 2 ? 0 : 1;
  // Ascending by (C1, C2, P1, P2) numbers: the order of the key
  // nc1 (E^3 + 1) + nc2 (E^2 + 1) + np1 (E + 1) + np2 without its overflow
  // for large electrode counts.
  auto key = [&ds](int i) {
    const Data_Point &d = ds.dp[i];
    return std::array<int32_t, 4>{d.nc1, d.nelec == 4 ? d.nc2 : 0, d.np1, d.nelec > 2 ? d.np2 : 0};
  };
  int64_t *idx = ds.sort_index;
  std::iota(idx, idx + m, 0);
  std::stable_sort(idx, idx + m, [&key](int64_t a, int64_t b) {
    return key(static_cast<int>(a)) < key(static_cast<int>(b));
  });
  for (int k = 0; k < ds.ntime; k++) {
    Data_Point *series = ds.dp + static_cast<int64_t>(k) * m;
    for (int i = 0; i < m; i++)
      ds.dp_work[i] = series[idx[i]];
    std::memcpy(static_cast<void *>(series), ds.dp_work, sizeof(Data_Point) * m);
  }
  return 0;
}
