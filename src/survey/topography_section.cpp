// The topography of a survey: the optional list of the data file, the
// electrodes' elevations, the heights at the surface grid nodes and the check
// for steep ground between neighbour nodes.
#include <algorithm>
#include <cctype>
#include <cmath>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/optional_sections.h"
#include "survey/scatter_interpolation.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

// First or second character T, and the second not E.
bool Is_Topography_Line(const char *s) {
  return First_Or_Second_Letter(s, 'T') && std::toupper(static_cast<unsigned char>(s[1])) != 'E';
}

// The section's head and its list of points. 1 on a refused count.
int Read_Topography_List(Data_Set &ds) {
  Topography &t = ds.topo;
  char line[text_line_max + 1];
  Skip_Lines(ds, 1);
  t.type = read_int(ds.img);
  if (ds.num_point_elecs > 0)
    t.type = 1;
  const bool list = Peek_Line(ds, line) && First_Or_Second_Letter(line, 'T');
  int n = 0;
  if (list) {
    Skip_Lines(ds, 2);
    n = read_int(ds.img);
    Panel(ds, "Topography in separate list with %d points.", n);
  }
  if (n < 3 && ds.num_point_elecs == 0) {
    t.type = 0;
    return Refuse(ds, "Data Error",
                  "Number of topography data points is %d.\nToo few topography data "
                  "points.\nMinimum required is 3.",
                  n);
  }
  if (n > ds.Data_lim_sys.nmax_elecs) {
    t.type = 0;
    return Refuse(ds, "Data Error",
                  "Number of topography data points is %d.\nToo many. Maximum allowed is %d.", n,
                  ds.Data_lim_sys.nmax_elecs);
  }
  if (!list || n <= 0)
    return 0;
  Skip_Lines(ds, 1);
  progress(ds, "Reading topography in unstructured list", 0.0);
  for (int k = 0; k < n; k++) {
    read_int(ds.img); // the index
    const double x = read_real(ds.img), y = read_real(ds.img), z = read_real(ds.img);
    // Elevations follow the electrodes' rule; a point more than a million
    // grid spacings away is a typing error, not ground.
    if (!(z <= 10000.0 && z >= -1000.0))
      return Refuse(ds, "Data Error",
                    "Topography data point %d has\nan elevation of %.1f meters!\nThis is "
                    "probably an error!",
                    k + 1, z);
    if (!(std::fabs(Normal_X(ds, x)) < 1e6 && std::fabs(Normal_Y(ds, y)) < 1e6))
      return Refuse(ds, "Data Error",
                    "Topography data point %d at %.2f,%.2f is far outside the model grid.", k + 1,
                    x, y);
    t.x[k] = To_Float(Normal_X(ds, x));
    t.y[k] = To_Float(Normal_Y(ds, y));
    t.z[k] = To_Float(z / ds.spxx);
  }
  t.num_points = n;
  progress(ds, "Topography in unstructured list read", 1.0);
  return 0;
}

// Appends the listed electrodes' positions and elevations after the list.
// Electrodes of one borehole share a position (the table is sorted), so a
// position equal to the previous one is not repeated.
void Add_Electrode_Points(Data_Set &ds) {
  Topography &t = ds.topo;
  int64_t m = t.num_points;
  bool first = true;
  double last_x = 0.0, last_y = 0.0;
  for (int e = 0; e < ds.num_point_elecs && m < t.capacity; e++) {
    const Point_Electrode &p = ds.pe[e];
    if (!first && p.x == last_x && p.y == last_y)
      continue;
    first = false;
    last_x = p.x;
    last_y = p.y;
    t.x[m] = To_Float(p.x);
    t.y[m] = To_Float(p.y);
    t.z[m] = To_Float(p.z);
    m++;
  }
  t.num_elec_points = static_cast<int>(m - t.num_points);
}

// Electrodes without elevations take the height of the listed ground.
void Estimate_Electrode_Heights(Data_Set &ds) {
  const Topography &t = ds.topo;
  progress(ds, "Estimate topography at point electrodes", 0.0);
  const Height_Interpolator height(t.x, t.y, t.z, t.num_points, ds.Model_grid.type_topo_estimate);
  Point_Electrode *pe = ds.pe;
  const int n = ds.num_point_elecs;
#pragma omp parallel for schedule(dynamic, 256)
  for (int e = 0; e < n; e++)
    pe[e].z = height(pe[e].x, pe[e].y);
}

// Heights at every surface grid node from the list and the electrode points;
// `from_list` picks the progress text. Also the grid node records appended to
// the electrode table take their heights.
void Interpolate_Grid_Heights(Data_Set &ds, bool from_list) {
  Topography &t = ds.topo;
  const Model_Grid &g = ds.Model_grid;
  const int64_t points = static_cast<int64_t>(t.num_points) + t.num_elec_points;
  if (points == 0)
    return;
  const Height_Interpolator height(t.x, t.y, t.z, points, g.type_topo_estimate);
  for (int j = 0; j < g.ngridy; j++) {
    const double fraction = static_cast<double>(j) / g.ngridy;
    if (from_list)
      Progress_Text(ds, fraction, "Interpolating topography for grid y line %d/%d", j + 1,
                    g.ngridy);
    else
      Progress_Text(ds, fraction, "Estimate topography for grid y line %d/%d", j + 1, g.ngridy);
    float *row = t.grid_z + static_cast<int64_t>(j) * g.ngridx;
#pragma omp parallel for schedule(dynamic, 16)
    for (int i = 0; i < g.ngridx; i++)
      row[i] = To_Float(height(g.xgrid[i], g.ygrid[j]));
  }
  const int nodes = Grid_Node_Count(ds);
  double sum = 0.0, lo = t.grid_z[0], hi = t.grid_z[0];
  for (int k = 0; k < nodes; k++) {
    sum += t.grid_z[k];
    lo = std::min<double>(lo, t.grid_z[k]);
    hi = std::max<double>(hi, t.grid_z[k]);
  }
  t.average = sum / nodes * ds.spxx;
  t.zmin = lo * ds.spxx;
  t.zmax = hi * ds.spxx;
  // Depths below the ground are measured from the highest point.
  t.elevation_reference = t.zmax;
  t.grid_heights = 1;
  if (ds.num_grid_points == nodes)
    for (int k = 0; k < nodes; k++)
      ds.pe[ds.num_point_elecs + k].z = t.grid_z[k];
}

// Slopes between neighbour nodes along one direction (0: x, 1: y).
struct Slope_Scan {
  int count = 0; // pairs steeper than steep_slope_degrees
  int first_i = 0, first_j = 0;
  double first_angle = 0.0;
  int steep_i = 0, steep_j = 0; // the steepest pair
  double steep_angle = 0.0;
};

Slope_Scan Scan_Slopes(const Data_Set &ds, int direction) {
  const Model_Grid &g = ds.Model_grid;
  const float *z = ds.topo.grid_z;
  Slope_Scan s;
  const int di = direction == 0, dj = direction == 1;
  for (int j = 0; j + dj < g.ngridy; j++)
    for (int i = 0; i + di < g.ngridx; i++) {
      const int k = i + j * g.ngridx, k2 = (i + di) + (j + dj) * g.ngridx;
      const double run = direction == 0 ? g.xgrid[i + 1] - g.xgrid[i] : g.ygrid[j + 1] - g.ygrid[j];
      const double angle = std::atan2(std::fabs(z[k2] - z[k]), run) * 180.0 / M_PI;
      if (angle > s.steep_angle) {
        s.steep_angle = angle;
        s.steep_i = i;
        s.steep_j = j;
      }
      if (angle > steep_slope_degrees && s.count++ == 0) {
        s.first_i = i;
        s.first_j = j;
        s.first_angle = angle;
      }
    }
  return s;
}

// Warns once for each direction with steep ground; a y-direction slope past
// drop_topography_slope_degrees drops the topography.
void Check_Steep_Topography(Data_Set &ds) {
  Topography &t = ds.topo;
  progress(ds, "Checking for steep topography x direction", 0.0);
  const Slope_Scan sx = Scan_Slopes(ds, 0);
  t.num_steep_x = sx.count;
  if (sx.count > 0)
    Warn(ds, "Data Error?",
         "Possible error in topography data point %d on y-line %d.\nThe slope of the ground in "
         "the x-direction is\ngreater than 60 degrees!",
         sx.first_i + 1, sx.first_j + 1);
  progress(ds, "Checking for steep topography y direction", 0.5);
  const Slope_Scan sy = Scan_Slopes(ds, 1);
  t.num_steep_y = sy.count;
  if (sy.count > 0)
    Warn(ds, "Data Error?",
         "Possible error in topography data point %d on y-line %d.\nThe slope of the ground in "
         "the y-direction is\n%.2f that is greater than 60 degrees!",
         sy.first_i + 1, sy.first_j + 1, sy.first_angle);
  TRACE("Check_Steep_Topography x %d y %d steepest y %.2f\n", sx.count, sy.count, sy.steep_angle);
  if (sy.steep_angle <= drop_topography_slope_degrees)
    return;
  Warn(ds, "Data Error?",
       "Possible error in topography data point %d on y-line %d.\nThe slope of the ground in the "
       "y-direction is\n%.2f that is greater than %.0f degrees!\nThe data will be inverted "
       "without the topography.",
       sy.steep_i + 1, sy.steep_j + 1, sy.steep_angle, drop_topography_slope_degrees);
  const int nodes = Grid_Node_Count(ds);
  std::fill(t.grid_z, t.grid_z + nodes, 0.0f);
  if (ds.num_grid_points == nodes)
    for (int k = 0; k < nodes; k++)
      ds.pe[ds.num_point_elecs + k].z = 0.0;
  t.type = 0;
  t.grid_heights = 0;
  t.average = t.zmin = t.zmax = t.elevation_reference = 0.0;
}

} // namespace

int Check_Topography_Data(Data_Set &ds) {
  Topography &t = ds.topo;
  Reset_Topography(t);
  char line[text_line_max + 1];
  int ierr = 0;
  if (Peek_Line(ds, line) && Is_Topography_Line(line)) {
    ierr = Read_Topography_List(ds);
    if (ierr == 0) {
      if (ds.num_point_elecs > 0 && ds.topo_flag) {
        progress(ds, "Adding to topography info from point electrodes", 0.0);
        Add_Electrode_Points(ds);
      } else if (ds.num_point_elecs > 0 && t.num_points > 0) {
        Estimate_Electrode_Heights(ds);
      }
      Interpolate_Grid_Heights(ds, true);
      if (t.grid_heights)
        Check_Steep_Topography(ds);
      if (t.grid_heights)
        Panel(ds,
              "Rectangular grid topography with average height %.2f, minimum height %.2f and "
              "maximum height %.2f.",
              t.average, t.zmin, t.zmax);
    }
  } else if (ds.topo_flag && ds.num_point_elecs > 0) {
    progress(ds, "Calculating topography", 0.0);
    Add_Electrode_Points(ds);
    Interpolate_Grid_Heights(ds, false);
    Panel(ds,
          "Topography for point electrodes with average height %.2f, minimum height %.2f and "
          "maximum height %.2f.",
          t.average, t.zmin, t.zmax);
  }
  progress(ds, "Checking topography completed", 1.0);
  TRACE("Check_Topography_Data type %d points %d electrode points %d ierr %d\n", t.type,
        t.num_points, t.num_elec_points, ierr);
  return ierr;
}
