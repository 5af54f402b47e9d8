// Exports of the live iteration of a results file: block-centre tables for
// contouring programs, the electrode table, the model list, VTK legacy files
// of the model and of the electrodes, and the listing of observed against
// calculated data. Positions go out in user units with z as elevation.
#include "results/exports.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "modes/ip_units.h"
#include "results/results_file.h"
#include "survey/array_geometry.h"
#include "survey/optional_sections.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

// Smallest value taken into a logarithm.
constexpr double log_floor = 1e-10;
// Observed values from this size up take the wide column of the data listing.
constexpr double wide_value = 1e6;
// VTK positions are merged at this many parts of a unit (three decimals).
constexpr double vtk_parts = 1000.0;
// Quantised positions beyond this size are refused (far beyond any survey).
constexpr double vtk_limit = 1e15;

// --- Names, messages, values ------------------------------------------------------

// The path beside the results file for `ending` (which may hold one %d for
// the iteration number).
std::string Export_Name(const std::string &results_path, const char *ending, int iteration) {
  char part[128];
  std::snprintf(part, sizeof part, ending, iteration);
  char out[4096];
  Derived_File_Name(results_path.c_str(), part, out, sizeof out);
  return out;
}

FILE *Create_File(Data_Set &ds, const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "w");
  if (!f)
    Show_Text(ds, "File Error", MK_WARNING, "Cannot create file\n%s\n", path.c_str());
  return f;
}

// Closes `f`; a failed write or close is reported and gives 1.
int Close_File(Data_Set &ds, FILE *f, const std::string &path) {
  const bool bad = std::ferror(f) != 0;
  if (std::fclose(f) != 0 || bad)
    return Show_Text(ds, "File Error", MK_WARNING, "Error in writing file\n%s\n", path.c_str());
  return 0;
}

// The live iteration holds a resistivity for every block.
int Check_Model_Values(Data_Set &ds, int iteration) {
  const int n = ds.Model_grid.nmodel_blocks;
  if (n < 1 || ds.Model_grid.blocks.size() < n ||
      static_cast<int64_t>(ds.Inv_results.rt_disp.size()) < n)
    return Show_Text(ds, "Message", MK_WARNING, "No model values for iteration %d.", iteration);
  return 0;
}

bool Has_IP_Model(const Data_Set &ds) {
  return ds.Inv_results.typeip > 0 &&
         static_cast<int64_t>(ds.Inv_results.ipt_disp.size()) >= ds.Model_grid.nmodel_blocks;
}

// The IP description for display values: the survey's, or chargeability
// when the survey does not name one.
Data_IP Display_IP(const Data_Set &ds) {
  Data_IP ip = ds.Data_ip;
  if (ip.typeip <= 0)
    ip.typeip = ds.Inv_results.typeip > 0 ? ds.Inv_results.typeip : 1;
  return ip;
}

// IP of block b in display units.
double Block_IP(const Data_Set &ds, const Data_IP &ip, int b) {
  const Inv_Results &r = ds.Inv_results;
  return IP_Display_Value(ip, r.ipt_disp[b], r.rt_disp[b]);
}

double Log10_Of(double v) {
  return std::log10(std::max(v, log_floor));
}

// --- Elevations ----------------------------------------------------------------------

bool Has_Surface(const Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  return ds.topo.grid_heights && ds.topo.grid_z && g.ngridx > 0 && g.ngridy > 0;
}

bool Has_Distorted_Blocks(const Data_Set &ds) {
  const Inv_Results &r = ds.Inv_results;
  return r.distorted &&
         static_cast<int64_t>(r.distorted_corners.size()) >= 24LL * ds.Model_grid.nmodel_blocks;
}

// Cell of position v among n grid lines and the fraction across it.
void Grid_Cell(const double *lines, int n, double v, int &i, double &f) {
  if (n < 2 || v <= lines[0]) {
    i = 0;
    f = 0.0;
    return;
  }
  if (v >= lines[n - 1]) {
    i = n - 2;
    f = 1.0;
    return;
  }
  i = static_cast<int>(std::upper_bound(lines, lines + n, v) - lines) - 1;
  i = std::clamp(i, 0, n - 2);
  const double w = lines[i + 1] - lines[i];
  f = w > 0.0 ? (v - lines[i]) / w : 0.0;
}

// Surface elevation (user units) at normalised position x, y: bilinear
// between the four grid nodes around it, the edge values outside the grid.
double Surface_Elevation(const Data_Set &ds, double x, double y) {
  const Model_Grid &g = ds.Model_grid;
  const float *h = ds.topo.grid_z;
  int i, j;
  double fx, fy;
  Grid_Cell(g.xgrid, g.ngridx, x, i, fx);
  Grid_Cell(g.ygrid, g.ngridy, y, j, fy);
  const int i2 = std::min(i + 1, g.ngridx - 1), j2 = std::min(j + 1, g.ngridy - 1);
  const int64_t r1 = static_cast<int64_t>(j) * g.ngridx, r2 = static_cast<int64_t>(j2) * g.ngridx;
  const double z = (1.0 - fy) * ((1.0 - fx) * h[r1 + i] + fx * h[r1 + i2]) +
                   fy * ((1.0 - fx) * h[r2 + i] + fx * h[r2 + i2]);
  return z * ds.spxx;
}

// Level (user units) that the distorted blocks' z values are measured down
// from: the highest surface grid node.
double Distortion_Reference(const Data_Set &ds) {
  if (!Has_Surface(ds))
    return 0.0;
  const int64_t n = static_cast<int64_t>(ds.Model_grid.ngridx) * ds.Model_grid.ngridy;
  double top = ds.topo.grid_z[0];
  for (int64_t k = 1; k < n; k++)
    top = std::max<double>(top, ds.topo.grid_z[k]);
  return top * ds.spxx;
}

void Corners_User(const Data_Set &ds, int block, int topography, double reference,
                  double xyz[8][3]) {
  const Model_Block &b = ds.Model_grid.blocks[block];
  const bool distorted = topography && Has_Distorted_Blocks(ds);
  const bool surface = topography && !distorted && Has_Surface(ds);
  // The distortion moves z only, so x and y come from the flat blocks, whose
  // normalised values keep more digits than user units in single precision.
  const float *dz =
      distorted ? ds.Inv_results.distorted_corners.data() + 24LL * block + 16 : nullptr;
  for (int c = 0; c < 8; c++) {
    xyz[c][0] = User_X(ds, b.x[c]);
    xyz[c][1] = User_Y(ds, b.y[c]);
    const double depth = b.z[c] * ds.spxx;
    if (distorted)
      xyz[c][2] = reference - dz[c];
    else if (surface)
      xyz[c][2] = Surface_Elevation(ds, b.x[c], b.y[c]) - depth;
    else
      xyz[c][2] = -depth;
  }
}

void Centre_Of(const double xyz[8][3], double centre[3]) {
  for (int a = 0; a < 3; a++) {
    double s = 0.0;
    for (int c = 0; c < 8; c++)
      s += xyz[c][a];
    centre[a] = s / 8.0;
  }
}

} // namespace

// Electrode e in user units; with `topography` at its own elevation (the
// ground under it less its depth), else below a flat 0 level.
void Electrode_User(const Data_Set &ds, int e, int topography, double xyz[3]) {
  const Point_Electrode &p = ds.pe[e];
  xyz[0] = User_X(ds, p.x);
  xyz[1] = User_Y(ds, p.y);
  xyz[2] = ((topography ? p.z : 0.0) - p.depth) * ds.spxx;
}

// Electrodes of the survey that the data use.
std::vector<int> Used_Electrodes(const Data_Set &ds) {
  std::vector<int> used;
  if (!ds.pe)
    return used;
  for (int e = 0; e < ds.num_point_elecs; e++)
    if (ds.pe[e].used)
      used.push_back(e);
  return used;
}

namespace {

// --- Block-centre tables --------------------------------------------------------------

int Write_Electrode_Table(Data_Set &ds, const std::string &path) {
  FILE *f = Create_File(ds, path);
  if (!f)
    return 1;
  const char *q = "\"";
  std::fprintf(f, " %sX%s,%sY%s,%sZ%s,%sElectrode Colour%s\n", q, q, q, q, q, q, q, q);
  for (int e : Used_Electrodes(ds)) {
    double p[3];
    Electrode_User(ds, e, 1, p);
    std::fprintf(f, "%14.4f %14.4f %14.4f  1000000.0\n", p[0], p[1], p[2]);
  }
  return Close_File(ds, f, path);
}

// --- VTK ---------------------------------------------------------------------------------

// VTK's hexahedron takes a face whose right-hand normal points to the
// opposite face, then that face. With z up our bottom corners 4-7 run
// clockwise seen from above, so the bottom goes 4, 7, 6, 5 and the top above
// it 0, 3, 2, 1.
const int vtk_hex_order[8] = {4, 7, 6, 5, 0, 3, 2, 1};

// The merged corners of all blocks: positions quantised to thousandths, one
// 64-bit key per position with x in the highest part, and each block's
// corners as point numbers in VTK order.
struct Vtk_Grid {
  int64_t qmin[3] = {}, count[3] = {};
  int64_t mult[3] = {};           // key = rx mult[0] + ry mult[1] + rz mult[2]
  bool ranked = false;            // r is the rank among the axis' distinct values
  std::vector<int64_t> values[3]; // the distinct values of each axis, when ranked
  std::vector<int64_t> keys;      // sorted and unique: the points
  std::vector<int64_t> cells;     // 8 a block
  std::vector<double> point_xyz;  // 3 a point, user units

  int64_t Axis_Part(int a, int64_t q) const {
    if (!ranked)
      return q - qmin[a];
    return std::lower_bound(values[a].begin(), values[a].end(), q) - values[a].begin();
  }
  int64_t Axis_Value(int a, int64_t r) const { return ranked ? values[a][r] : qmin[a] + r; }
  int64_t Key(const int64_t q[3]) const {
    return Axis_Part(0, q[0]) * mult[0] + Axis_Part(1, q[1]) * mult[1] + Axis_Part(2, q[2]);
  }
};

// Product of three counts if it stays below 2^63, else -1.
int64_t Key_Span(const int64_t count[3]) {
  constexpr int64_t top = INT64_MAX;
  if (count[1] > top / count[2])
    return -1;
  const int64_t yz = count[1] * count[2];
  if (count[0] > top / yz)
    return -1;
  return count[0] * yz;
}

// Limits of the quantised corners and the key multipliers over them. The
// plain range is used when its key span fits in 63 bits; otherwise each axis
// counts only its distinct values, which still keeps every distinct corner
// apart. 1 when even that does not fit.
int Range_Point3_VTK(Vtk_Grid &v, const std::vector<int64_t> &q) {
  const int64_t n = static_cast<int64_t>(q.size()) / 3;
  for (int a = 0; a < 3; a++) {
    int64_t lo = q[a], hi = q[a];
    for (int64_t k = 1; k < n; k++) {
      lo = std::min(lo, q[3 * k + a]);
      hi = std::max(hi, q[3 * k + a]);
    }
    v.qmin[a] = lo;
    v.count[a] = hi - lo + 1;
  }
  v.ranked = Key_Span(v.count) < 0;
  if (v.ranked)
    for (int a = 0; a < 3; a++) {
      std::vector<int64_t> &s = v.values[a];
      s.resize(n);
      for (int64_t k = 0; k < n; k++)
        s[k] = q[3 * k + a];
      std::sort(s.begin(), s.end());
      s.erase(std::unique(s.begin(), s.end()), s.end());
      v.count[a] = static_cast<int64_t>(s.size());
    }
  if (Key_Span(v.count) < 0)
    return 1;
  v.mult[2] = 1;
  v.mult[1] = v.count[2];
  v.mult[0] = v.count[1] * v.count[2];
  return 0;
}

int Build_Vtk_Grid(Data_Set &ds, int topography, Vtk_Grid &v) {
  const int nb = ds.Model_grid.nmodel_blocks;
  const double reference = Distortion_Reference(ds);
  std::vector<int64_t> q(static_cast<size_t>(nb) * 24);
  for (int b = 0; b < nb; b++) {
    double xyz[8][3];
    Corners_User(ds, b, topography, reference, xyz);
    for (int c = 0; c < 8; c++)
      for (int a = 0; a < 3; a++) {
        const double s = xyz[c][a] * vtk_parts;
        if (!(std::fabs(s) < vtk_limit))
          return Show_Text(ds, "Message", MK_WARNING,
                           "Block %d has a corner at an invalid position.", b + 1);
        q[(static_cast<size_t>(b) * 8 + c) * 3 + a] = std::llround(s);
      }
  }
  if (Range_Point3_VTK(v, q))
    return Show_Text(ds, "Message", MK_WARNING, "Too many distinct corners for the VTK file.");
  const size_t ncorners = static_cast<size_t>(nb) * 8;
  v.keys.resize(ncorners);
  for (size_t k = 0; k < ncorners; k++)
    v.keys[k] = v.Key(&q[3 * k]);
  std::sort(v.keys.begin(), v.keys.end());
  v.keys.erase(std::unique(v.keys.begin(), v.keys.end()), v.keys.end());
  // Positions back from the keys.
  v.point_xyz.resize(v.keys.size() * 3);
  for (size_t p = 0; p < v.keys.size(); p++) {
    const int64_t key = v.keys[p];
    const int64_t r[3] = {key / v.mult[0], key % v.mult[0] / v.mult[1], key % v.mult[1]};
    for (int a = 0; a < 3; a++)
      v.point_xyz[3 * p + a] = static_cast<double>(v.Axis_Value(a, r[a])) / vtk_parts;
  }
  // Each block's corners by binary search.
  v.cells.resize(ncorners);
  for (int b = 0; b < nb; b++)
    for (int c = 0; c < 8; c++) {
      const int corner = vtk_hex_order[c];
      const int64_t key = v.Key(&q[(static_cast<size_t>(b) * 8 + corner) * 3]);
      const auto it = std::lower_bound(v.keys.begin(), v.keys.end(), key);
      if (it == v.keys.end() || *it != key)
        return Show_Text(ds, "Message", MK_WARNING, "Error %d in binary search for block %d",
                         corner + 1, b + 1);
      v.cells[static_cast<size_t>(b) * 8 + c] = it - v.keys.begin();
    }
  return 0;
}

// Position of point p as written: local, or global with `global`.
void Point_Out(const Data_Set &ds, const double *p, bool global, double out[3]) {
  out[0] = p[0];
  out[1] = p[1];
  out[2] = p[2];
  if (global)
    Local_To_Global(ds.global_coords, p[0], p[1], out[0], out[1]);
}

struct Vtk_Scalars {
  const char *name;
  std::vector<float> values;
};

int Write_Model_Vtk(Data_Set &ds, const std::string &path, const Vtk_Grid &v,
                    const std::vector<Vtk_Scalars> &scalars, bool global) {
  FILE *f = Create_File(ds, path);
  if (!f)
    return 1;
  const int np = static_cast<int>(v.keys.size());
  const int nb = static_cast<int>(v.cells.size() / 8);
  std::fprintf(f, "# vtk DataFile Version 3.0\n");
  std::fprintf(f, scalars.size() > 1 ? "Model Resistivity and IP\n" : "Model Resistivity\n");
  std::fprintf(f, "ASCII\n\nDATASET UNSTRUCTURED_GRID\nPOINTS %d double\n", np);
  for (int p = 0; p < np; p++) {
    double out[3];
    Point_Out(ds, &v.point_xyz[3 * static_cast<size_t>(p)], global, out);
    std::fprintf(f, "%12.3f%12.3f%12.3f", out[0], out[1], out[2]);
    if (p % 3 == 2 || p == np - 1)
      std::fprintf(f, "\n");
  }
  std::fprintf(f, "\nCELLS %d %d\n", nb, 9 * nb);
  for (int b = 0; b < nb; b++) {
    const int64_t *c = &v.cells[static_cast<size_t>(b) * 8];
    std::fprintf(f, "8 %8lld %8lld %8lld %8lld %8lld %8lld %8lld %8lld\n",
                 static_cast<long long>(c[0]), static_cast<long long>(c[1]),
                 static_cast<long long>(c[2]), static_cast<long long>(c[3]),
                 static_cast<long long>(c[4]), static_cast<long long>(c[5]),
                 static_cast<long long>(c[6]), static_cast<long long>(c[7]));
  }
  std::fprintf(f, "\nCELL_TYPES %d\n", nb);
  for (int b = 0; b + 10 <= nb; b += 10)
    std::fprintf(f, " 12 12 12 12 12 12 12 12 12 12\n");
  if (nb % 10 != 0) {
    for (int b = 0; b < nb % 10; b++)
      std::fprintf(f, " 12");
    std::fprintf(f, "\n");
  }
  std::fprintf(f, "CELL_DATA %d\n", nb);
  for (const Vtk_Scalars &s : scalars) {
    std::fprintf(f, "SCALARS %s float\n", s.name);
    std::fprintf(f, "LOOKUP_TABLE default\n");
    for (int b = 0; b < nb; b++) {
      std::fprintf(f, " %12.4e", s.values[b]);
      if (b % 10 == 9 || b == nb - 1)
        std::fprintf(f, "\n");
    }
  }
  return Close_File(ds, f, path);
}

int Write_Electrodes_Vtk(Data_Set &ds, const std::string &path, int topography, bool global) {
  FILE *f = Create_File(ds, path);
  if (!f)
    return 1;
  const std::vector<int> used = Used_Electrodes(ds);
  const int n = static_cast<int>(used.size());
  std::fprintf(f, "# vtk DataFile Version 3.0\nElectrode Positions\nASCII\nDATASET "
                  "UNSTRUCTURED_GRID\n");
  std::fprintf(f, "Points %d double\n", n);
  for (int k = 0; k < n; k++) {
    double p[3], out[3];
    Electrode_User(ds, used[k], topography, p);
    Point_Out(ds, p, global, out);
    std::fprintf(f, "%12.3f%12.3f%12.3f ", out[0], out[1], out[2]);
    if (k % 3 == 2 || k == n - 1)
      std::fprintf(f, "\n");
  }
  std::fprintf(f, "\nCELLS %d %d\n", n, 2 * n);
  for (int k = 0; k < n; k++)
    std::fprintf(f, "1 %d\n", k);
  std::fprintf(f, "\nCELL_TYPES %d\n", n);
  for (int k = 0; k < n; k++)
    std::fprintf(f, "1\n");
  std::fprintf(f, "\nPOINT_DATA %d\nSCALARS sample_values double 1\nLOOKUP_TABLE default\n", n);
  for (int k = 0; k < n; k++)
    std::fprintf(f, "1000000.0\n");
  return Close_File(ds, f, path);
}

// The main scalars of the VTK model by `opt`.
Vtk_Scalars Main_Scalars(const Data_Set &ds, const Vtk_Export &opt) {
  static const char *const names[2][3] = {{"Resistivity", "Conductivity", "IP"},
                                          {"Log10_Resistivity", "Log10_Conductivity", "Log10_IP"}};
  const int nb = ds.Model_grid.nmodel_blocks;
  const int quantity = std::clamp(opt.quantity, 0, 2);
  Vtk_Scalars s{names[opt.logarithm ? 1 : 0][quantity], std::vector<float>(nb)};
  const Data_IP ip = Display_IP(ds);
  for (int b = 0; b < nb; b++) {
    const double r = ds.Inv_results.rt_disp[b];
    double v = quantity == 0 ? r : quantity == 1 ? (r != 0.0 ? 1.0 / r : 0.0) : Block_IP(ds, ip, b);
    if (opt.logarithm)
      v = Log10_Of(v);
    s.values[b] = To_Float(v);
  }
  return s;
}

// --- Data listing ------------------------------------------------------------------------

// Electrode columns of the listing in order for the largest electrode count
// n: C1, P1 (2); C1, P1, P2 (3); C1, C2, P1, P2 (4). A datum's electrode per
// column, or nullptr where it has none.
void Listing_Columns(const Data_Point &d, int n, const double *col[4]) {
  col[0] = d.c1;
  col[1] = col[2] = col[3] = nullptr;
  if (n == 4) {
    col[1] = d.nelec == 4 ? d.c2 : nullptr;
    col[2] = d.p1;
    col[3] = d.nelec > 2 ? d.p2 : nullptr;
  } else if (n == 3) {
    col[1] = d.p1;
    col[2] = d.nelec > 2 ? d.p2 : nullptr;
  } else {
    col[1] = d.p1;
  }
}

// A format text without arguments as it prints: "%%" stands for "%".
std::string Format_Text(const char *format) {
  std::string out;
  for (const char *c = format; *c; c++) {
    out += *c;
    if (c[0] == '%' && c[1] == '%')
      c++;
  }
  return out;
}

// The two header lines of the listing (their texts are printf formats).
void Listing_Heads(int nelec, bool ip, const char *&h1, const char *&h2) {
  static const char *const first[2][3] = {
      {"  Data            Current C1              Potential P1      Observed  Calculated\n",
       "  Data            Current C1              Potential P1            Potential P2      "
       "Observed  Calculated\n",
       "  Data            Current C1              Current C2              Potential P1         "
       "   Potential P2      Observed  Calculated\n"},
      {"  Data            Current C1              Potential P1      Observed  Calculated   "
       "Observed  Calculated\n",
       "  Data            Current C1              Potential P1            Potential P2      "
       "Observed  Calculated   Observed  Calculated\n",
       "  Data            Current C1              Current C2              Potential P1         "
       "   Potential P2      Observed  Calculated   Observed  Calculated\n"}};
  static const char *const second[2][3] = {
      {"               XC1         YC1         XP1         YP1     App.Res.    App.Res.   "
       "App.Res.err.(%%)\n",
       "               XC1         YC1         XP1         YP1         XP2         YP2     "
       "App.Res.    App.Res.   App.Res.err.(%%)\n",
       "               XC1         YC1         XC2         YC2         XP1         YP1         "
       "XP2         YP2     App.Res.    App.Res.   App.Res.err.(%%)\n"},
      {"               XC1         YC1         XP1         YP1     App.Res.    App.Res.   "
       "App.Res.err.(%%)        I.P.        I.P.   I.P. diff.\n",
       "               XC1         YC1         XP1         YP1         XP2         YP2     "
       "App.Res.    App.Res.   App.Res.err.(%%)        I.P.        I.P.   I.P. diff.\n",
       "               XC1         YC1         XC2         YC2         XP1         YP1         "
       "XP2         YP2     App.Res.    App.Res.   App.Res.err.(%%)        I.P.        I.P.   "
       "I.P. diff.\n"}};
  const int k = std::clamp(nelec, 2, 4) - 2;
  h1 = first[ip ? 1 : 0][k];
  h2 = second[ip ? 1 : 0][k];
}

double Misfit_Percent(double observed, double calculated) {
  return calculated != 0.0 ? 100.0 * (observed - calculated) / calculated : 0.0;
}

// Plotting point of a datum: the mean of its electrodes' positions, and
// below the ground there by the mean electrode depth and 0.17 of the
// largest electrode spread (the survey's pseudodepth).
void Datum_Point_User(const Data_Set &ds, const Data_Point &d, double xyz[3]) {
  const double *e[5];
  const int n = Datum_Electrodes(d, false, e);
  double x = 0.0, y = 0.0, depth = 0.0, spread = 0.0;
  for (int a = 0; a < n; a++) {
    x += e[a][0];
    y += e[a][1];
    depth += e[a][2];
    for (int b = a + 1; b < n; b++)
      spread = std::max(spread, static_cast<double>(Horizontal_Distance(e[a], e[b])));
  }
  x /= n;
  y /= n;
  const double below = (0.17 * spread + depth / n) * ds.spxx;
  xyz[0] = User_X(ds, x);
  xyz[1] = User_Y(ds, y);
  xyz[2] = (Has_Surface(ds) ? Surface_Elevation(ds, x, y) : 0.0) - below;
}

} // namespace

// --- Block positions ---------------------------------------------------------------------

void Block_Corners_User(const Data_Set &ds, int block, int topography, double xyz[8][3]) {
  Corners_User(ds, block, topography,
               topography && Has_Distorted_Blocks(ds) ? Distortion_Reference(ds) : 0.0, xyz);
}

void Block_Centre_User(const Data_Set &ds, int block, int topography, double xyz[3]) {
  double corners[8][3];
  Block_Corners_User(ds, block, topography, corners);
  Centre_Of(corners, xyz);
}

// --- Block-centre tables --------------------------------------------------------------

int Save_Blocks_Values_XYZ(Data_Set &ds, const std::string &results_path, int iteration,
                           int logarithm, int with_ip, std::vector<std::string> &files) {
  if (Check_Model_Values(ds, iteration))
    return 1;
  const bool ip = with_ip && Has_IP_Model(ds);
  const char *ending =
      logarithm ? (ip ? "_Iter%d_LogRes_IP_Model_XYZC.dat" : "_Iter%d_LogRes_Model_XYZC.dat")
                : (ip ? "_Iter%d_Res_IP_Model_XYZC.dat" : "_Iter%d_Res_Model_XYZC.dat");
  const std::string path = Export_Name(results_path, ending, iteration);
  FILE *f = Create_File(ds, path);
  if (!f)
    return 1;
  const char *q = "\"";
  if (logarithm && ip)
    std::fprintf(f, "%sX%s,%sY%s,%sZ%s,%sModel Log10 Resis%s,%sModel IP%s\n", q, q, q, q, q, q, q,
                 q, q, q);
  else if (logarithm)
    std::fprintf(f, " %sX%s,%sY%s,%sZ%s,%sModel Log10 Resis%s\n", q, q, q, q, q, q, q, q);
  else if (ip)
    std::fprintf(f, "%sX%s,%sY%s,%sZ%s,%sModel Resistivity%s,%sModel IP%s\n", q, q, q, q, q, q, q,
                 q, q, q);
  else
    std::fprintf(f, "%sX%s,%sY%s,%sZ%s,%sModel Resistivity%s\n", q, q, q, q, q, q, q, q);
  const Inv_Results &r = ds.Inv_results;
  const Data_IP ipd = Display_IP(ds);
  const double reference = Distortion_Reference(ds);
  for (int b = 0; b < ds.Model_grid.nmodel_blocks; b++) {
    double corners[8][3], c[3];
    Corners_User(ds, b, 1, reference, corners);
    Centre_Of(corners, c);
    std::fprintf(f, logarithm ? "%12.4f %12.4f %12.4f %12.6f" : "%12.4f %12.4f %12.4f %12.3f", c[0],
                 c[1], c[2], logarithm ? Log10_Of(r.rt_disp[b]) : r.rt_disp[b]);
    if (ip)
      std::fprintf(f, " %9.3f", Block_IP(ds, ipd, b));
    std::fprintf(f, "\n");
  }
  if (Close_File(ds, f, path))
    return 1;
  files.push_back(path);
  const std::string elec = Export_Name(results_path, "_Elec.dat", iteration);
  if (Write_Electrode_Table(ds, elec))
    return 1;
  files.push_back(elec);
  Show_Text(ds, "Message", MK_INFORMATION, "Output xyz files are :-\n%s\n%s\n", path.c_str(),
            elec.c_str());
  return 0;
}

int Save_Resolution_Values_XYZ(Data_Set &ds, const std::string &results_path,
                               std::vector<std::string> &files) {
  const Inv_Results &r = ds.Inv_results;
  const int nb = ds.Model_grid.nmodel_blocks;
  if (nb < 1 || ds.Model_grid.blocks.size() < nb || !r.reso_present ||
      static_cast<int64_t>(r.reso.size()) < nb)
    return Show_Text(ds, "Message", MK_WARNING, "No resolution values in the results file.");
  const bool ip = r.typeip > 0 && static_cast<int64_t>(r.reso_ip.size()) >= nb;
  const std::string path = Export_Name(results_path, "_Res_Model_Reso_XYZC.dat", 0);
  FILE *f = Create_File(ds, path);
  if (!f)
    return 1;
  const char *q = "\"";
  if (ip)
    std::fprintf(f, " %sX%s,%sY%s,%sZ%s,%sResoution Resistivity%s,%sResoution IP%s\n", q, q, q, q,
                 q, q, q, q, q, q);
  else
    std::fprintf(f, " %sX%s,%sY%s,%sZ%s,%sModel Resoution%s\n", q, q, q, q, q, q, q, q);
  const double reference = Distortion_Reference(ds);
  for (int b = 0; b < nb; b++) {
    double corners[8][3], c[3];
    Corners_User(ds, b, 1, reference, corners);
    Centre_Of(corners, c);
    if (ip)
      std::fprintf(f, "%12.4f %12.4f %12.4f %12.6f %12.6f\n", c[0], c[1], c[2], r.reso[b],
                   r.reso_ip[b]);
    else
      std::fprintf(f, "%12.4f %12.4f %12.4f %12.6f\n", c[0], c[1], c[2], r.reso[b]);
  }
  if (Close_File(ds, f, path))
    return 1;
  files.push_back(path);
  Show_Text(ds, "Message", MK_INFORMATION, "Output xyz file is :- %s\n", path.c_str());
  return 0;
}

// --- VTK ---------------------------------------------------------------------------------

int Save_Model_VTK(Data_Set &ds, const std::string &results_path, int iteration,
                   const Vtk_Export &opt, std::vector<std::string> &files) {
  if (Check_Model_Values(ds, iteration))
    return 1;
  const bool has_ip = Has_IP_Model(ds);
  if (opt.quantity == 2 && !has_ip)
    return Show_Text(ds, "Message", MK_WARNING, "No IP model values for iteration %d.", iteration);
  // The IP model goes out with the resistivity model; an IP file has the
  // resistivity as its second block.
  const int nb = ds.Model_grid.nmodel_blocks;
  std::vector<Vtk_Scalars> scalars;
  scalars.push_back(Main_Scalars(ds, opt));
  if (opt.quantity == 2) {
    Vtk_Scalars res{"Resistivity", std::vector<float>(nb)};
    for (int b = 0; b < nb; b++)
      res.values[b] = ds.Inv_results.rt_disp[b];
    scalars.push_back(std::move(res));
  } else if (opt.with_ip && has_ip) {
    Vtk_Scalars ips{"IP", std::vector<float>(nb)};
    const Data_IP ip = Display_IP(ds);
    for (int b = 0; b < nb; b++)
      ips.values[b] = To_Float(Block_IP(ds, ip, b));
    scalars.push_back(std::move(ips));
  }
  Vtk_Grid grid;
  if (Build_Vtk_Grid(ds, opt.topography, grid))
    return 1;
  const bool ip_file = scalars.size() > 1;
  const int passes = ds.global_coords.present ? 2 : 1;
  for (int pass = 0; pass < passes; pass++) {
    const bool global = pass == 1;
    const char *model_ending =
        ip_file ? (global ? "_Iter%d_Res_IP_Model_Global.vtk" : "_Iter%d_Res_IP_Model.vtk")
                : (global ? "_Iter%d_Res_Model_Global.vtk" : "_Iter%d_Res_Model.vtk");
    const std::string model = Export_Name(results_path, model_ending, iteration);
    if (Write_Model_Vtk(ds, model, grid, scalars, global))
      return 1;
    files.push_back(model);
    const std::string elec =
        Export_Name(results_path, global ? "_Elec_Global.vtk" : "_Elec.vtk", iteration);
    if (Write_Electrodes_Vtk(ds, elec, opt.topography, global))
      return 1;
    files.push_back(elec);
    Show_Text(ds, "Message", MK_INFORMATION, "Output elec vtk files are :-\n%s\n%s\n",
              model.c_str(), elec.c_str());
  }
  return 0;
}

// --- Model list ----------------------------------------------------------------------

int Save_Model_List_XYZ(Data_Set &ds, const std::string &results_path, int iteration, int with_ip,
                        std::vector<std::string> &files) {
  if (Check_Model_Values(ds, iteration))
    return 1;
  const bool ip = with_ip && Has_IP_Model(ds);
  const std::string path = Export_Name(results_path, "_model.xyz", iteration);
  FILE *f = Create_File(ds, path);
  if (!f)
    return 1;
  const int nb = ds.Model_grid.nmodel_blocks;
  std::fprintf(f, "/Name of survey line is %s\n", ds.title);
  std::fprintf(f, "/Number of blocks is %d\n", nb);
  std::fprintf(f, "/Results for iteration %d\n", iteration);
  std::fprintf(f, "       X            Y        Depth       Resistivity");
  if (ip)
    std::fprintf(f, "         I.P.");
  std::fprintf(f, "\n");
  const Data_IP ipd = Display_IP(ds);
  for (int b = 0; b < nb; b++) {
    double corners[8][3], c[3];
    Corners_User(ds, b, 0, 0.0, corners);
    Centre_Of(corners, c);
    std::fprintf(f, "%12.4f %12.4f %12.4f %12.3f", c[0], c[1], -c[2], ds.Inv_results.rt_disp[b]);
    if (ip)
      std::fprintf(f, " %12.3f", Block_IP(ds, ipd, b));
    std::fprintf(f, "\n");
  }
  if (Close_File(ds, f, path))
    return 1;
  files.push_back(path);
  Show_Text(ds, "Message", MK_INFORMATION, "Output xyz file is :- %s\n", path.c_str());
  return 0;
}

// --- Data listing ------------------------------------------------------------------------

int Dump_Data_Misfits_Txt(Data_Set &ds, const std::string &results_path, int iteration,
                          std::vector<std::string> &files) {
  const Inv_Results &r = ds.Inv_results;
  const int n = ds.mdata;
  if (n < 1 || !ds.dp || static_cast<int64_t>(r.rm_disp.size()) < n)
    return Show_Text(ds, "Message", MK_WARNING, "No calculated data values for iteration %d.",
                     iteration);
  const bool ip = r.typeip > 0 && static_cast<int64_t>(r.mip_disp.size()) >= n;
  const Data_IP ipd = Display_IP(ds);
  const double unit = ds.resistance == 1 ? 1.0 / ds.spxx : 1.0;
  int nelec = 2;
  for (int i = 0; i < n; i++)
    nelec = std::max(nelec, std::min(static_cast<int>(ds.dp[i].nelec), 4));

  // The listing.
  const std::string text = Export_Name(results_path, "_iter%d_data_misfit.txt", iteration);
  FILE *f = Create_File(ds, text);
  if (!f)
    return 1;
  std::fprintf(f, "Listing of measured and calculated data values for iteration %d\n", iteration);
  const char *h1, *h2;
  Listing_Heads(nelec, ip, h1, h2);
  std::fprintf(f, "%s %s", Format_Text(h1).c_str(), Format_Text(h2).c_str());
  for (int i = 0; i < n; i++) {
    const Data_Point &d = ds.dp[i];
    std::fprintf(f, "%7d ", i + 1);
    const double *col[4];
    Listing_Columns(d, nelec, col);
    for (int k = 0; k < nelec; k++)
      if (col[k])
        std::fprintf(f, " %11.3f,%11.3f", User_X(ds, col[k][0]), User_Y(ds, col[k][1]));
      else
        std::fprintf(f, " %11s %11s", "", "");
    const double o = d.value * unit, c = r.rm_disp[i] * unit;
    std::fprintf(f, std::fabs(o) >= wide_value ? " %16.3f,%11.3f,%11.3f" : " %11.3f,%11.3f,%11.3f",
                 o, c, Misfit_Percent(o, c));
    if (ip) {
      const double mc = IP_Display_Value(ipd, r.mip_disp[i], r.rm_disp[i]);
      if (d.ip_value == ip_missing_mark) {
        std::fprintf(f, " %11s,%11.3f,%11s", "*", mc, "*");
      } else {
        const double mo = IP_Display_Value(ipd, d.ip_value, d.value);
        std::fprintf(f, " %11.3f,%11.3f,%11.3f", mo, mc, mo - mc);
      }
    }
    std::fprintf(f, "\n");
  }
  if (Close_File(ds, f, text))
    return 1;
  files.push_back(text);
  Show_Text(ds, "Message", MK_INFORMATION, "Data saved in file\n%s\n", text.c_str());

  // The same for contouring: one row per datum at its plotting point; with
  // IP, data without an IP value are left out.
  const std::string xyzc = Export_Name(results_path, "_iter%d_data_misfit_XYZC.dat", iteration);
  f = Create_File(ds, xyzc);
  if (!f)
    return 1;
  const char *q = "\"";
  std::fprintf(
      f, " %sX%s,%sY%s,%sZ%s,%sObserved App.Res.%s,%sCalculated App.Res.%s,%sApp.Res.err.(%%)%s", q,
      q, q, q, q, q, q, q, q, q, q, q);
  if (ip)
    std::fprintf(f, ",%sObserved IP%s,%sCalculated IP%s,%sIP difference%s", q, q, q, q, q, q);
  std::fprintf(f, "\n");
  for (int i = 0; i < n; i++) {
    const Data_Point &d = ds.dp[i];
    if (ip && d.ip_value == ip_missing_mark)
      continue;
    double p[3];
    Datum_Point_User(ds, d, p);
    const double o = d.value * unit, c = r.rm_disp[i] * unit;
    std::fprintf(f, "%12.4f %12.4f %12.4f %12.3f %12.3f %12.3f", p[0], p[1], p[2], o, c,
                 Misfit_Percent(o, c));
    if (ip) {
      const double mo = IP_Display_Value(ipd, d.ip_value, d.value);
      const double mc = IP_Display_Value(ipd, r.mip_disp[i], r.rm_disp[i]);
      std::fprintf(f, " %9.3f %9.3f %9.3f", mo, mc, mo - mc);
    }
    std::fprintf(f, "\n");
  }
  if (Close_File(ds, f, xyzc))
    return 1;
  files.push_back(xyzc);
  Show_Text(ds, "Message", MK_INFORMATION, "Data saved in file\n%s\n", xyzc.c_str());
  return 0;
}
