// Readers of the optional data file sections other than the topography: tank,
// fixed regions, water layer, sharp boundaries and global coordinates, and
// the tables they share.
#include "survey/optional_sections.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "core/data_set.h"
#include "core/memory.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/scatter_interpolation.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

int Upper(char c) {
  return std::toupper(static_cast<unsigned char>(c));
}

// Line tests of the sections, on a peeked line.
bool Is_Tank_Line(const char *s) {
  return First_Or_Second_Letter(s, 'T');
}

// F followed by I or i, or f followed by i, at the start or one in.
bool Is_Fixed_Regions_Line(const char *s) {
  const auto fi = [](const char *p) {
    return (p[0] == 'F' && (p[1] == 'I' || p[1] == 'i')) || (p[0] == 'f' && p[1] == 'i');
  };
  return fi(s) || (s[0] != 0 && fi(s + 1));
}

bool Is_Underwater_Line(const char *s) {
  return First_Or_Second_Letter(s, 'U');
}

bool Is_Floating_Line(const char *s) {
  return s[0] == 'F' && s[1] == 'l';
}

bool Is_Sharp_Boundary_Line(const char *s) {
  return (Upper(s[0]) == 'S' || Upper(s[0]) == 'V') && Upper(s[1]) != 'E';
}

bool Is_Fix_Line(const char *s) {
  return Upper(s[0]) == 'F';
}

bool Is_Global_Line(const char *s) {
  return s[0] == 'G' && s[1] == 'l';
}

// Line of "Please ..." that follows the refusals of options not yet written.
constexpr const char *contact_line =
    "Please contact the Ohmvol3D developers through the project's issue tracker.";

} // namespace

bool First_Or_Second_Letter(const char *line, char letter) {
  const int c = Upper(letter);
  return line[0] != 0 && (Upper(line[0]) == c || Upper(line[1]) == c);
}

int Grid_Node_Count(const Data_Set &ds) {
  return ds.Model_grid.ngridx * ds.Model_grid.ngridy;
}

double Normal_X(const Data_Set &ds, double x) {
  return (x - ds.xmin) / ds.spxx;
}
double Normal_Y(const Data_Set &ds, double y) {
  return (y - ds.ymin) / ds.spxx;
}
double User_X(const Data_Set &ds, double x) {
  return x * ds.spxx + ds.xmin;
}
double User_Y(const Data_Set &ds, double y) {
  return y * ds.spxx + ds.ymin;
}

void Skip_Lines(Data_Set &ds, int n) {
  char line[text_line_max + 1];
  for (int k = 0; k < n; k++)
    read_line(ds.img, line);
}

void Reset_Topography(Topography &t) {
  Topography clean;
  clean.x = t.x;
  clean.y = t.y;
  clean.z = t.z;
  clean.capacity = t.capacity;
  clean.grid_z = t.grid_z;
  t = clean;
}

void Reset_Water_Layer(Water_Layer &w) {
  Water_Layer clean;
  clean.bottom = w.bottom;
  w = clean;
}

void Reset_Sharp_Boundary(Sharp_Boundary &s) {
  Sharp_Boundary clean;
  std::copy(s.x, s.x + max_sharp_boundaries, clean.x);
  std::copy(s.y, s.y + max_sharp_boundaries, clean.y);
  std::copy(s.z, s.z + max_sharp_boundaries, clean.z);
  std::copy(s.grid_depth, s.grid_depth + max_sharp_boundaries, clean.grid_depth);
  clean.capacity = s.capacity;
  s = clean;
}

// ---------------------------------------------------------------------------
// Tables

int Allocate_Section_Arrays(Data_Set &ds) {
  Free_Section_Arrays(ds);
  const Data_Limits &lim = ds.Data_lim_sys;
  const int64_t nodes = lim.nmax_grid_xy;
  // The listed points plus, at most, every listed electrode.
  const int64_t topo_points = 2 * static_cast<int64_t>(lim.nmax_elecs);
  int ierr = 0;
  Topography &t = ds.topo;
  ierr |= Allocate_Values(ds, t.x, topo_points, "topography x");
  ierr |= Allocate_Values(ds, t.y, topo_points, "topography y");
  ierr |= Allocate_Values(ds, t.z, topo_points, "topography z");
  ierr |= Allocate_Values(ds, t.grid_z, nodes, "topography at grid nodes");
  t.capacity = topo_points;
  Sharp_Boundary &s = ds.Sharp_boundary;
  for (int b = 0; b < max_sharp_boundaries; b++) {
    ierr |= Allocate_Values(ds, s.x[b], 4 * nodes, "sharp boundary x");
    ierr |= Allocate_Values(ds, s.y[b], 4 * nodes, "sharp boundary y");
    ierr |= Allocate_Values(ds, s.z[b], 4 * nodes, "sharp boundary z");
    ierr |= Allocate_Values(ds, s.grid_depth[b], nodes, "sharp boundary depths");
  }
  s.capacity = 4 * nodes;
  ierr |= Allocate_Values(ds, ds.water.bottom, nodes, "water bottom");
  TRACE_MEMORY("Allocate_Section_Arrays grid nodes %lld ierr %d\n", static_cast<long long>(nodes),
               ierr);
  return ierr;
}

void Free_Section_Arrays(Data_Set &ds) {
  Topography &t = ds.topo;
  Free_Values(t.x);
  Free_Values(t.y);
  Free_Values(t.z);
  Free_Values(t.grid_z);
  t.capacity = 0;
  Sharp_Boundary &s = ds.Sharp_boundary;
  for (int b = 0; b < max_sharp_boundaries; b++) {
    Free_Values(s.x[b]);
    Free_Values(s.y[b]);
    Free_Values(s.z[b]);
    Free_Values(s.grid_depth[b]);
  }
  s.capacity = 0;
  Free_Values(ds.water.bottom);
}

// ---------------------------------------------------------------------------
// Tank

int Read_Tank_Section(Data_Set &ds) {
  Tank &tank = ds.tank;
  tank = Tank();
  char line[text_line_max + 1];
  if (!Peek_Line(ds, line) || !Is_Tank_Line(line)) {
    panel_text(ds, "Not tank data set.");
    return 0;
  }
  Skip_Lines(ds, 3);
  tank.x1 = read_real(ds.img);
  tank.x2 = read_real(ds.img);
  Skip_Lines(ds, 1);
  tank.y1 = read_real(ds.img);
  tank.y2 = read_real(ds.img);
  Skip_Lines(ds, 1);
  tank.z = read_real(ds.img);
  tank.present = 1;
  Panel(ds, "Tank x-boundaries are %.3f and %.3f.", tank.x1, tank.x2);
  Panel(ds, "Tank y-boundaries are %.3f and %.3f.", tank.y1, tank.y2);
  Panel(ds, "Tank z-boundary is %.3f.", tank.z);
  return 0;
}

// ---------------------------------------------------------------------------
// Fixed regions

int Check_Fixed_Regions(Data_Set &ds) {
  Fix_Regions &f = ds.Fix_regions;
  f.nfix = 0;
  char line[text_line_max + 1];
  if (!Peek_Line(ds, line) || !Is_Fixed_Regions_Line(line))
    return 0;
  Skip_Lines(ds, 1);
  const int n = read_int(ds.img);
  const int limit = std::min(ds.Data_lim_sys.nmax_fix_regions, max_fix_regions);
  if (n < 1)
    return Refuse(ds, "Data Error", "Too few fixed regions!\nMinimum number is 1.");
  if (n > limit)
    return Refuse(ds, "Data Error", "Number of fixed regions is %d.\nMaximum number allowed is %d.",
                  n, limit);
  Panel(ds, "Number of fixed regions is %d.", n);
  const int ip = ds.Data_ip.typeip > 0;
  for (int r = 0; r < n; r++) {
    Skip_Lines(ds, 1);
    double x1 = Normal_X(ds, read_real(ds.img));
    double y1 = Normal_Y(ds, read_real(ds.img));
    const double z1 = read_real(ds.img) / ds.spxx;
    double x2 = Normal_X(ds, read_real(ds.img));
    double y2 = Normal_Y(ds, read_real(ds.img));
    const double z2 = read_real(ds.img) / ds.spxx;
    if (x1 > x2)
      std::swap(x1, x2);
    if (y1 > y2)
      std::swap(y1, y2);
    f.x1[r] = To_Float(x1);
    f.x2[r] = To_Float(x2);
    f.y1[r] = To_Float(y1);
    f.y2[r] = To_Float(y2);
    f.z1[r] = To_Float(z1 < 0.0 ? 0.0 : z1);
    f.z2[r] = To_Float(std::fabs(z2));
    const double res = read_real(ds.img);
    f.ip[r] = ip ? To_Float(read_real(ds.img) / 1000.0) : 0.0f;
    const double weight = read_real(ds.img);
    f.res[r] = To_Float(std::clamp(res, 0.01, 100000.0));
    f.weight[r] = To_Float(std::clamp(weight, 1.0, 100000.0));
    if (r < 5) {
      if (ip)
        Panel(ds, "Fixed region %d : Resistivity %.3f   IP %.1f   Weight %.1f", r + 1, f.res[r],
              f.ip[r] * 1000.0, f.weight[r]);
      else
        Panel(ds, "Fixed region %d : Resistivity %.3f   Weight %.1f", r + 1, f.res[r], f.weight[r]);
    }
  }
  f.nfix = n;
  TRACE("Check_Fixed_Regions nfix %d\n", n);
  return 0;
}

// ---------------------------------------------------------------------------
// Water layer

namespace {

// Reads the bottom elevation at every grid node of a floating electrodes
// survey and turns the water into the first sharp boundary, its region fixed.
int Read_Floating_Bottom(Data_Set &ds) {
  Water_Layer &w = ds.water;
  const int nodes = Grid_Node_Count(ds);
  const Model_Grid &g = ds.Model_grid;
  const auto nearest_line = [](const double *lines, int n, double v) {
    const double *p = std::lower_bound(lines, lines + n, v);
    int k = static_cast<int>(p - lines);
    if (k >= n || (k > 0 && v - lines[k - 1] < lines[k] - v))
      k--;
    return k;
  };
  std::fill(w.bottom, w.bottom + nodes, To_Float(w.elevation));
  w.thick_min = 1e30;
  w.thick_max = 0.0;
  for (int k = 0; k < nodes; k++) {
    const double x = read_real(ds.img), y = read_real(ds.img), bottom = read_real(ds.img);
    if (bottom > w.elevation)
      return Refuse(ds, "Data Error",
                    "The elevation of the water bottom at x-y coordinate\nof %.2f,%.2f is %.2f is "
                    "above the water elevation\nof %.2f. Check your data format.\nNote the "
                    "elevation and not the water thickness\nis used in this daat format",
                    x, y, bottom, w.elevation);
    const int i = nearest_line(g.xgrid, g.ngridx, Normal_X(ds, x));
    const int j = nearest_line(g.ygrid, g.ngridy, Normal_Y(ds, y));
    w.bottom[i + j * g.ngridx] = To_Float(bottom);
    const double thick = w.elevation - bottom;
    w.thick_min = std::min(w.thick_min, thick);
    w.thick_max = std::max(w.thick_max, thick);
  }
  Panel(ds, "Minimum and maximum water thickness are %12.4e and %12.4e.", w.thick_min, w.thick_max);
  panel_text(ds, "Converting water layer bottom to sharp boundary.");

  Sharp_Boundary &s = ds.Sharp_boundary;
  Reset_Sharp_Boundary(s);
  s.nregions = 2;
  s.npoints[0] = nodes;
  s.weight[0] = w.damp_weight;
  s.res[0] = w.res;
  s.fix[0] = 1;
  double sum = 0.0;
  for (int k = 0; k < nodes; k++) {
    const double depth = (w.elevation - w.bottom[k]) / ds.spxx;
    s.x[0][k] = g.xgrid[k % g.ngridx];
    s.y[0][k] = g.ygrid[k / g.ngridx];
    s.z[0][k] = depth;
    s.grid_depth[0][k] = To_Float(depth);
    sum += depth;
  }
  s.average_depth[0] = nodes > 0 ? sum / nodes : 0.0;
  return 0;
}

// Compares every grid node's height with the water surface.
void Classify_Nodes_Under_Water(Data_Set &ds) {
  Water_Layer &w = ds.water;
  const int nodes = Grid_Node_Count(ds);
  int below = 0;
  w.thick_min = 1e30;
  w.thick_max = 0.0;
  w.land_max = 0.0;
  for (int k = 0; k < nodes; k++) {
    const double height = ds.topo.grid_z[k] * ds.spxx;
    if (height < w.elevation) {
      const double thick = w.elevation - height;
      w.thick_min = std::min(w.thick_min, thick);
      w.thick_max = std::max(w.thick_max, thick);
      below++;
    } else {
      w.some_above = 1;
      w.land_max = std::max(w.land_max, height - w.elevation + water_land_margin);
    }
  }
  panel_text(ds, w.some_above ? "Some electrodes are above the water layer."
                              : "All electrodes underwater.");
  if (below == 0) {
    w.thick_min = 0.0;
    panel_text(ds, "All of the electrodes are above the water level!");
    w.kind = 0;
    return;
  }
  Panel(ds, "Minimum and maximum water thickness are %12.4e and %12.4e.", w.thick_min, w.thick_max);
}

} // namespace

int Check_Underwater_Settings(Data_Set &ds) {
  Water_Layer &w = ds.water;
  Reset_Water_Layer(w);
  char line[text_line_max + 1];
  if (!Peek_Line(ds, line))
    return 0;
  const bool floating = Is_Floating_Line(line);
  if (!floating && !Is_Underwater_Line(line))
    return 0;
  // Resistance data have no geometric factor to correct for the floating
  // electrodes' water layer; the underwater survey takes them with the
  // surface geometric factor below.
  if (floating && ds.resistance == 1)
    return Refuse(ds, "Data Error",
                  "Sorry, the option to use measurements in resistance with\nan underwater survey "
                  "is not yet available in this version.\n%s",
                  contact_line);
  if (!floating && !ds.topo.grid_heights)
    return Refuse(ds, "Data Error",
                  "Sorry, you must have topographical data\nfor an underwater survey in this "
                  "version.\n%s",
                  contact_line);
  if (floating && ds.topo.num_points > 0)
    return Refuse(ds, "Data Error",
                  "Sorry, for a floating electrodes survey the water bottom topographical\ndata "
                  "must be given after the water parameters setcion.");
  Skip_Lines(ds, 2);
  w.res = read_real(ds.img);
  Skip_Lines(ds, 1);
  w.x1 = read_real(ds.img);
  w.y1 = read_real(ds.img);
  w.x2 = read_real(ds.img);
  w.y2 = read_real(ds.img);
  Skip_Lines(ds, 1);
  w.elevation = read_real(ds.img);
  Panel(ds, "Water layer with resistivity %.2f and elevation %.1f present.", w.res, w.elevation);
  if (floating) {
    w.kind = 3;
    Skip_Lines(ds, 1);
    w.damp_weight = std::clamp(read_real(ds.img), 1.0, 100.0);
    Skip_Lines(ds, 1);
    Panel(ds, "Floating electrodes survey. Water layer damping weight %.2f", w.damp_weight);
    return Read_Floating_Bottom(ds);
  }
  Skip_Lines(ds, 1);
  w.type_geofac = read_int(ds.img);
  if (w.type_geofac == 0 && ds.resistance != 1) {
    w.kind = 2;
    panel_text(ds, "Exact geometric factor used.");
  } else {
    w.kind = 1;
    panel_text(ds, "Surface geometric factor used.");
  }
  Classify_Nodes_Under_Water(ds);
  TRACE("Check_Underwater_Settings kind %d elevation %.3f\n", w.kind, w.elevation);
  return 0;
}

// ---------------------------------------------------------------------------
// Sharp boundaries

double Boundary_Depths_At_Grid(Data_Set &ds, int b) {
  Sharp_Boundary &s = ds.Sharp_boundary;
  const Model_Grid &g = ds.Model_grid;
  const int nodes = Grid_Node_Count(ds);
  const Height_Interpolator depth_at(s.x[b], s.y[b], s.z[b], s.npoints[b],
                                     ds.Model_grid.type_topo_estimate);
  float *out = s.grid_depth[b];
  double sum = 0.0;
#pragma omp parallel for reduction(+ : sum) schedule(dynamic, 64)
  for (int k = 0; k < nodes; k++) {
    out[k] = To_Float(depth_at(g.xgrid[k % g.ngridx], g.ygrid[k / g.ngridx]));
    sum += out[k];
  }
  return nodes > 0 ? sum / nodes : 0.0;
}

namespace {

// Reads the points of boundary b (count already checked). Mode 0 takes any
// points and interpolates them onto the grid; the other mode takes one point
// per grid node, in node order. Returns 1 when the boundary is refused.
int Read_Boundary_Points(Data_Set &ds, int b, int mode) {
  Sharp_Boundary &s = ds.Sharp_boundary;
  const int n = s.npoints[b];
  const int nodes = Grid_Node_Count(ds);
  if (mode != 0 && n != nodes)
    return Refuse(ds, "Error Message",
                  "Number of boundary points is %d.\nNumber of surface electrodes is %d.\nThe "
                  "present version requires the number of\npoints on the boundary to be the same "
                  "as\nthe number of model grid positions.\n",
                  n, nodes);
  for (int k = 0; k < n; k++) {
    s.x[b][k] = Normal_X(ds, read_real(ds.img));
    s.y[b][k] = Normal_Y(ds, read_real(ds.img));
    s.z[b][k] = read_real(ds.img) / ds.spxx;
    if (!(std::fabs(s.x[b][k]) < 1e9 && std::fabs(s.y[b][k]) < 1e9 && std::fabs(s.z[b][k]) < 1e9))
      return Refuse(ds, "Error Message", "Point %d of boundary %d has an invalid position.", k + 1,
                    b + 1);
  }
  if (mode != 0) {
    double sum = 0.0;
    for (int k = 0; k < n; k++) {
      s.grid_depth[b][k] = To_Float(s.z[b][k]);
      sum += s.z[b][k];
    }
    s.average_depth[b] = n > 0 ? sum / n : 0.0;
  } else {
    Progress_Text(ds, 0.0, "Calculating depths at boundary %d with %d points.", b + 1, n);
    s.average_depth[b] = Boundary_Depths_At_Grid(ds, b);
  }
  Panel(ds, "Boundary %d has %d points with average depth %.3f.", b + 1, n,
        s.average_depth[b] * ds.spxx);
  return 0;
}

// One boundary's parameters and points; 1 ends the section.
int Read_One_Boundary(Data_Set &ds, int b, int mode) {
  Sharp_Boundary &s = ds.Sharp_boundary;
  char line[text_line_max + 1];
  Skip_Lines(ds, 4);
  s.weight[b] = std::clamp(read_real(ds.img), 0.2, 10.0);
  if (Peek_Line(ds, line) && Is_Fix_Line(line)) {
    Skip_Lines(ds, 1);
    s.fix[b] = read_int(ds.img);
    Skip_Lines(ds, 1);
    s.res[b] = std::clamp(read_real(ds.img), 0.1, 100000.0);
    Panel(ds, "Resistivity of region %d set at %.2f.", b + 1, s.res[b]);
  }
  Skip_Lines(ds, 1);
  const int n = read_int(ds.img);
  if (n < 4) {
    panel_text(ds, "The boundary must have at least 4 points.");
    return 1;
  }
  if (n > s.capacity) {
    Panel(ds, "The boundary cannot have more than %d points.", static_cast<int>(s.capacity));
    return 1;
  }
  Skip_Lines(ds, 1);
  s.npoints[b] = n;
  return Read_Boundary_Points(ds, b, mode);
}

} // namespace

int Read_Sharp_Boundary(Data_Set &ds, int mode) {
  Sharp_Boundary &s = ds.Sharp_boundary;
  char line[text_line_max + 1];
  const bool present = Peek_Line(ds, line) && Is_Sharp_Boundary_Line(line);
  // A floating electrodes survey has set up its water bottom as a boundary.
  if (!present && ds.water.kind == 3)
    return 0;
  Reset_Sharp_Boundary(s);
  if (!present)
    return 0;
  s.v_flag = Upper(line[0]) == 'V';
  progress(ds, "Reading sharp boundary parameters", 0.0);
  Skip_Lines(ds, 2);
  const int nb = read_int(ds.img);
  Panel(ds, "Number of sharp boundaries is %d.", nb);
  if (nb < 1 || nb > max_sharp_boundaries)
    return 0;
  for (int b = 0; b < nb; b++) {
    if (Read_One_Boundary(ds, b, mode)) {
      const int v_flag = s.v_flag;
      Reset_Sharp_Boundary(s);
      s.v_flag = v_flag;
      return 0;
    }
  }
  s.nregions = nb + 1;
  progress(ds, "Check fixed resistivity above sharp boundary", 1.0);
  if (Peek_Line(ds, line) && Is_Fix_Line(line)) {
    Skip_Lines(ds, 1);
    s.fix[nb] = read_int(ds.img);
    Skip_Lines(ds, 1);
    const double weight = read_real(ds.img);
    s.weight[nb] = std::clamp(weight == 0.0 ? 1.0 : weight, 0.2, 20.0);
    Skip_Lines(ds, 1);
    s.res[nb] = std::clamp(read_real(ds.img), 0.1, 100000.0);
  }
  TRACE("Read_Sharp_Boundary regions %d mode %d\n", s.nregions, mode);
  return 0;
}

// ---------------------------------------------------------------------------
// Global coordinates

namespace {

// Area of the triangle of the first three points.
double Triangle_Area(const double *x, const double *y) {
  return 0.5 * std::fabs((x[1] - x[0]) * (y[2] - y[0]) - (x[2] - x[0]) * (y[1] - y[0]));
}

int Check_Not_Colinear(Data_Set &ds, const double *x, const double *y, const char *which) {
  if (Triangle_Area(x, y) >= 0.001)
    return 0;
  return Refuse(ds, "Error Message",
                "Coordinates of first %s point is %12.2f,%12.2f.\nCoordinates of second %s point "
                "is %12.2f,%12.2f.\nCoordinates of third %s point is %12.2f,%12.2f.\nThe 3 points "
                "must not be colinear!",
                which, x[0], y[0], which, x[1], y[1], which, x[2], y[2]);
}

// Solves the 3 by 3 system m c = r by elimination with partial pivoting.
void Solve_3(double m[3][3], double r[3], double c[3]) {
  for (int col = 0; col < 3; col++) {
    int piv = col;
    for (int row = col + 1; row < 3; row++)
      if (std::fabs(m[row][col]) > std::fabs(m[piv][col]))
        piv = row;
    std::swap(m[col], m[piv]);
    std::swap(r[col], r[piv]);
    for (int row = col + 1; row < 3; row++) {
      const double f = m[row][col] / m[col][col];
      for (int k = col; k < 3; k++)
        m[row][k] -= f * m[col][k];
      r[row] -= f * r[col];
    }
  }
  for (int row = 2; row >= 0; row--) {
    double v = r[row];
    for (int k = row + 1; k < 3; k++)
      v -= m[row][k] * c[k];
    c[row] = v / m[row][row];
  }
}

// Least-squares affine fit of one global coordinate over the local points,
// about the points' centre for a well-conditioned system: out = {c0, c1, c2}
// with value = c0 + c1 x + c2 y.
void Fit_Affine(const Global_Coords &g, const double *value, double out[3]) {
  const int n = g.npoints;
  double mx = 0.0, my = 0.0;
  for (int p = 0; p < n; p++) {
    mx += g.lx[p] / n;
    my += g.ly[p] / n;
  }
  double m[3][3] = {}, r[3] = {}, c[3] = {};
  for (int p = 0; p < n; p++) {
    const double row[3] = {1.0, g.lx[p] - mx, g.ly[p] - my};
    for (int a = 0; a < 3; a++) {
      for (int b = 0; b < 3; b++)
        m[a][b] += row[a] * row[b];
      r[a] += row[a] * value[p];
    }
  }
  Solve_3(m, r, c);
  out[0] = c[0] - c[1] * mx - c[2] * my;
  out[1] = c[1];
  out[2] = c[2];
}

} // namespace

void Local_To_Global(const Global_Coords &g, double x, double y, double &gx, double &gy) {
  gx = g.a[0] + g.a[1] * x + g.a[2] * y;
  gy = g.b[0] + g.b[1] * x + g.b[2] * y;
}

int Read_Global_Coordinates(Data_Set &ds) {
  Global_Coords &g = ds.global_coords;
  g = Global_Coords();
  char line[text_line_max + 1];
  if (!Peek_Line(ds, line) || !Is_Global_Line(line))
    return 0;
  Skip_Lines(ds, 2);
  g.type = read_int(ds.img);
  if (g.type != 0) {
    Warn(ds, "Error Message", "Type of global coordinates must be 0!");
    return 0;
  }
  Skip_Lines(ds, 1);
  const int n = read_int(ds.img);
  if (n < 3 || n > max_global_points) {
    Warn(ds, "Error Message",
         "Number of global coordinates points is %d.\nIt must be at least 3 and not more than 6.",
         n);
    return 0;
  }
  g.npoints = n;
  Panel(ds, "Global coordinates present. Number of reference points is %d.", n);
  Skip_Lines(ds, 1);
  for (int p = 0; p < n; p++) {
    g.lx[p] = read_real(ds.img);
    g.ly[p] = read_real(ds.img);
    g.gx[p] = read_real(ds.img);
    g.gy[p] = read_real(ds.img);
  }
  if (Check_Not_Colinear(ds, g.lx, g.ly, "local") || Check_Not_Colinear(ds, g.gx, g.gy, "global")) {
    g.npoints = 0;
    return 0;
  }
  const double local_area = Triangle_Area(g.lx, g.ly);
  const double global_area = Triangle_Area(g.gx, g.gy);
  const double difference = std::fabs(local_area - global_area);
  if (difference > 0.002 * local_area) {
    Warn(ds, "Error Message",
         "Area of triangle formed by local points of %12.2f is different from %12.2f for global "
         "points.\nThe difference in areas is %.3f%% is too large!\n",
         local_area, global_area, 100.0 * difference / local_area);
    g.npoints = 0;
    return 0;
  }
  Fit_Affine(g, g.gx, g.a);
  Fit_Affine(g, g.gy, g.b);
  g.present = 1;
  TRACE("Read_Global_Coordinates points %d\n", n);
  return 0;
}
