// The header of a data file: title, grid, array, point electrodes, user
// defined depths, data count, IP, time lapse and error estimate sections.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/optional_sections.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

inline int Upper(char c) {
  return std::toupper(static_cast<unsigned char>(c));
}

// Letter test of a peeked line: character `at` (from 0) is `letter`, any case.

inline bool First_Or_Second(const char *line, char letter) {
  return First_Or_Second_Letter(line, letter);
}

// Reads n strictly increasing grid lines into v; checks the spacing ratio.
// `axis` is 'x' or 'y'.
int Read_Grid_Lines(Data_Set &ds, double *v, int n, char axis, double &smin, double &smax) {
  char line[text_line_max + 1];
  read_line(ds.img, line); // caption
  for (int i = 0; i < n; i++)
    v[i] = read_real(ds.img);
  const char *title = axis == 'x' ? "X-grid error" : "Y-grid error";
  smin = 0.0;
  smax = 0.0;
  for (int i = 1; i < n; i++) {
    const double s = v[i] - v[i - 1];
    if (!(s > 0.0))
      return Refuse(ds, title, "Error in %c-grid lines %d and %d.\nValues are %.2f and %.2f.", axis,
                    i, i + 1, v[i - 1], v[i]);
    if (i == 1 || s < smin)
      smin = s;
    if (s > smax)
      smax = s;
  }
  if (!std::isfinite(v[n - 1] - v[0]))
    return Refuse(ds, title, "Error in %c-grid lines %d and %d.\nValues are %.2f and %.2f.", axis,
                  1, n, v[0], v[n - 1]);
  if (0.02 * smax > smin)
    return Refuse(ds, title,
                  "Error in %c-grid lines\nThe maximum spacing of %.2f is more than\n50 times the "
                  "minimum spacing of %.2f.",
                  axis, smax, smin);
  return 0;
}

const char *Array_Name(int n) {
  switch (n) {
  case 1:
    return "Wenner array";
  case 2:
    return "Pole-Pole array";
  case 3:
    return "Dipole-Dipole array";
  case 4:
    return "Wenner Beta converted to Dipole-Dipole array";
  case 6:
    return "Pole-dipole array";
  case 7:
    return "Wenner-Schlumberger array";
  case 8:
    return "Equatorial dipole-dipole array";
  case 11:
    return "General array";
  default:
    return nullptr;
  }
}

// array2 and the name shown for sub-array number s of the general array.
int Sub_Array_Code(int s, const char *&name) {
  static const struct {
    int s, code;
    const char *name;
  } table[] = {{1, 1, "Wenner array arrangement"},
               {2, 4, "Pole-pole array arrangement"},
               {3, 5, "Dipole-dipole array arrangement"},
               {4, 2, "Wenner Beta array arrangement"},
               {5, 3, "Wenner Gamma array arrangement"},
               {6, 6, "Pole-dipole array arrangement"},
               {7, 7, "Wenner-Schlumberger array arrangement"},
               {8, 8, "Equatorial dipole-dipole array arrangement"},
               {10, 10, "Offset pole-dipole array"},
               {15, 15, "Gradient array"},
               {16, 16, "Vector array"}};
  for (const auto &e : table)
    if (e.s == s) {
      name = e.name;
      return e.code;
    }
  name = "General array with non specific electrode arrangement";
  return 0;
}

// Keeps at most ip_text_max characters of a line.
void Keep_Text(char *dst, const char *line) {
  std::snprintf(dst, ip_text_max + 1, "%.*s", ip_text_max, line);
}

} // namespace

int Peek_Line(Data_Set &ds, char *line) {
  const int64_t pos = ds.img.pos;
  const int n = read_line(ds.img, line);
  ds.img.pos = pos;
  return n > 0;
}

int Read_Grid_Section(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  const Data_Limits &lim = ds.Data_lim_sys;
  g.ngridx = read_int(ds.img);
  g.ngridy = read_int(ds.img);
  const int64_t nxy = static_cast<int64_t>(g.ngridx) * g.ngridy;
  if (g.ngridx > lim.nmax_grid_lines || g.ngridy > lim.nmax_grid_lines || nxy > lim.nmax_grid_xy)
    return Refuse(ds, "Program grid size limit",
                  "Horizontal model grid size is too large!\nThe model grid size is %d x %d = "
                  "%lld.\nThe maximum x or y grid size allowed is %d.\nThe maximum x-y grid size "
                  "allowed is %d.\nYou will need to use a computer with more RAM.",
                  g.ngridx, g.ngridy, static_cast<long long>(nxy), lim.nmax_grid_lines,
                  lim.nmax_grid_xy);
  if (g.ngridx < 2 || g.ngridy < 2)
    return Refuse(ds, "Model grid error",
                  "The model grid size is %d x %d.\nThe model grid must have at least 2 lines in "
                  "the x and in the y direction.",
                  g.ngridx, g.ngridy);
  Panel(ds, "Layer model grid size is %d x %d = %lld.\n", g.ngridx, g.ngridy,
        static_cast<long long>(nxy));

  char line[text_line_max + 1];
  read_line(ds.img, line);
  bool nonuniform = false;
  for (int i = 0; i < 4 && line[i]; i++)
    nonuniform = nonuniform || Upper(line[i]) == 'N';
  if (!nonuniform)
    return Refuse(ds, "Model grid error",
                  "The model grid lines must be specified using the nonunform grid format!");

  double sxmin, sxmax, symin, symax;
  if (Read_Grid_Lines(ds, g.xgrid, g.ngridx, 'x', sxmin, sxmax) ||
      Read_Grid_Lines(ds, g.ygrid, g.ngridy, 'y', symin, symax))
    return 1;
  ds.xmin = g.xgrid[0];
  ds.xmax = g.xgrid[g.ngridx - 1];
  ds.ymin = g.ygrid[0];
  ds.ymax = g.ygrid[g.ngridy - 1];
  const double xaverage = (ds.xmax - ds.xmin) / (g.ngridx - 1);
  ds.spxx = sxmax / sxmin < 5.0 ? sxmin : xaverage;
  ds.spyy = (ds.ymax - ds.ymin) / (g.ngridy - 1);
  ds.y_x_ratio = ds.spyy / ds.spxx;
  Panel(ds, "Nonuniform grid used with average spacings of %.2f by %.2f", xaverage, ds.spyy);
  TRACE("Read_Grid_Section %d x %d spxx %.4f spyy %.4f\n", g.ngridx, g.ngridy, ds.spxx, ds.spyy);

  // Type of geometric factor.
  ds.type_geofac = 0;
  if (Peek_Line(ds, line) && line[0] == 'T' && line[1] == 'y') {
    read_line(ds.img, line);
    ds.type_geofac = read_int(ds.img);
    panel_text(ds, ds.type_geofac == 0   ? "Horizontal distance geometric factor"
                   : ds.type_geofac == 1 ? "Linear distance geometric factor"
                                         : "User defined geometric factor");
  }
  return 0;
}

int Read_Array_Section(Data_Set &ds) {
  const int n = read_int(ds.img);
  if (n == 5)
    return Refuse(ds, "Data array error",
                  "Array number %d.\nSorry, the Wenner Gamma array is not directly supported!\nYou "
                  "need to reformat the data into the general array format.",
                  n);
  if (n == 12 || n == 13) {
    panel_text(ds, "Borehole tomography survey");
    panel_text(ds, n == 13 ? "Measurements are given as resistance values."
                           : "Measurements are given as resistivity values.");
    return Refuse(ds, "Array type error",
                  "Borehole data format is not supported.\nReformat the data into the subsurface "
                  "point electrodes format.");
  }
  const char *name = Array_Name(n);
  if (!name)
    return Refuse(ds, "Data array error", "Array number %d.\nSorry, this array is not supported!",
                  n);
  static const int codes[12] = {0, 1, 4, 5, 5, 0, 6, 7, 8, 0, 0, 11};
  ds.array = codes[n];
  ds.array2 = ds.array;
  panel_text(ds, name);
  ds.resistance = 0;
  ds.resistance_file = 0;
  ds.vector_data_type = 0;
  char line[text_line_max + 1];
  if (ds.array == 11) {
    const char *sub_name;
    ds.array2 = Sub_Array_Code(read_int(ds.img), sub_name);
    panel_text(ds, sub_name);
    read_line(ds.img, line); // the caption
    const int type = read_int(ds.img);
    if (ds.array2 == 16) {
      ds.vector_data_type = type;
      panel_text(ds, type == 1   ? "Measurements are given as amplitude and ratio."
                     : type == 2 ? "Measurements are given as two components plus amplitude and "
                                   "ratio."
                                 : "Measurements are given as two component values.");
    } else {
      ds.resistance = type == 1 ? 1 : 0;
      ds.resistance_file = ds.resistance;
      panel_text(ds, ds.resistance ? "Measurements are given as resistance values."
                                   : "Measurements are given as resistivity values.");
    }
  }
  if (ds.resistance == 1 && ds.type_geofac == 2)
    return Refuse(ds, "Data resistance error",
                  "You cannot have a combination of resistance\ndata and user defined geometric "
                  "factor!");
  if (ds.array2 == 16 && ds.vector_data_type == 1)
    return Refuse(ds, "Vector array format error",
                  "Vector array in input data file must be given as component values.");
  if (Peek_Line(ds, line) && (First_Or_Second(line, 'F') || First_Or_Second(line, 'R')))
    return Refuse(ds, "Remote electrodes error",
                  "Remote electrodes not supported.\nYou need to include the remote electrodes as "
                  "point electrodes in the data file and extend the model grid so that it covers "
                  "them.");
  return Read_Tank_Section(ds);
}

namespace {

// Tolerances of the grid extent test: the high x side is deliberately wider.
constexpr double extent_tol_low = 1e-05, extent_tol_high_x = 0.0001;

int Check_Electrode_Grid_Extent(Data_Set &ds, int i, double x, double y) {
  if (!(x >= ds.xmin - extent_tol_low && x <= ds.xmax + extent_tol_high_x))
    return Refuse(ds, "Error in electrode x-position",
                  "Error in x-position of point electrode %d.\nThe x position is %.3f.\nThis is "
                  "outside the x limits of %.3f to %.3f of the model grid.",
                  i + 1, x, ds.xmin, ds.xmax);
  if (!(y >= ds.ymin - extent_tol_low && y <= ds.ymax + extent_tol_low))
    return Refuse(ds, "Error in electrode y-position",
                  "Error in y-position of point electrode %d.\nThe y position is %.3f.\nThis is "
                  "outside the y limits of %.3f to %.3f  of the model grid.",
                  i + 1, y, ds.ymin, ds.ymax);
  return 0;
}

int Read_Electrode_List(Data_Set &ds) {
  const int n = ds.num_point_elecs;
  panel_text(ds, "");
  Panel(ds, "Number of point electrodes is %d.", n);
  ds.topo_flag = 0;
  ds.num_sub_elecs = 0;
  ds.elev_min = ds.elev_max = 0.0;
  ds.depth_min = ds.depth_max = 0.0;
  for (int i = 0; i < n; i++) {
    Point_Electrode &e = ds.pe[i];
    e = Point_Electrode();
    read_int(ds.img); // the index, ignored
    e.x = read_real(ds.img);
    e.y = read_real(ds.img);
    e.z = read_real(ds.img);
    if (ds.subsurface_present)
      e.depth = read_real(ds.img);
    if (i % 4096 == 0)
      Progress_Text(ds, static_cast<double>(i) / n, "Read point electrode %d/%d", i + 1, n);
    if (e.z != 0.0)
      ds.topo_flag = 1;
    if (!(e.z <= 10000.0 && e.z >= -1000.0))
      return Refuse(ds, "Error in elevation",
                    "Point electrode number %d has\nan elevation of %.1f meters!\nThis is more "
                    "than 10000 m.\nThis is probably an error!",
                    i + 1, e.z);
    if (!(std::fabs(e.depth) < 1e7))
      return Refuse(ds, "Error in elevation",
                    "Point electrode number %d has\na depth of %.1f meters!\nThis is probably an "
                    "error!",
                    i + 1, e.depth);
    if (i == 0 || e.z < ds.elev_min)
      ds.elev_min = e.z;
    if (i == 0 || e.z > ds.elev_max)
      ds.elev_max = e.z;
    if (e.depth > 0.0) {
      if (ds.num_sub_elecs == 0 || e.depth < ds.depth_min)
        ds.depth_min = e.depth;
      if (e.depth > ds.depth_max)
        ds.depth_max = e.depth;
      ds.num_sub_elecs++;
    }
  }
  const double range = ds.elev_max - ds.elev_min;
  if (ds.elev_min != 0.0 && ds.elev_max != 0.0)
    Panel(ds, "Minimum elevation %.2f  Maximum elevation %.2f  Elevation range %.2f", ds.elev_min,
          ds.elev_max, range);
  if (ds.num_sub_elecs >= 1)
    Panel(ds, "Minimum and maximum depths of point electrodes are %.3f and %.3f", ds.depth_min,
          ds.depth_max);
  else
    Panel(ds, "%d surface point electrodes. Topography present flag %d.", n, ds.topo_flag);
  if (range > 9000.0)
    return Refuse(ds, "Error in elevation",
                  "Minimum elevation is %.1f meters.\nMaximum elevation is %.1f meters.\nThe "
                  "difference is %.1f meters!\nThis is probably an error!",
                  ds.elev_min, ds.elev_max, range);
  if (ds.subsurface_present && ds.num_sub_elecs == 0)
    ds.num_sub_elecs = 1;
  for (int i = 0; i < n; i++)
    if (Check_Electrode_Grid_Extent(ds, i, ds.pe[i].x, ds.pe[i].y))
      return 1;
  return 0;
}

} // namespace

int Read_Point_Electrodes_Section(Data_Set &ds) {
  char line[text_line_max + 1];
  ds.num_point_elecs = 0;
  ds.num_point_elecs_file = 0;
  ds.subsurface_present = 0;
  ds.borehole_converted = 0;
  ds.pe_sorted = 0;
  if (!Peek_Line(ds, line) || !First_Or_Second(line, 'P'))
    return 0;
  read_line(ds.img, line);
  read_line(ds.img, line);
  const int n = read_int(ds.img);
  if (n < 2 || n > ds.Data_lim_sys.nmax_elecs) {
    beep(ds);
    if (n <= 1)
      return Refuse(ds, "Point electrodes number error",
                    "Number of point electrode given as %d is wrong.\nIt must be at least 2.\nAdd "
                    "a dummy point electrode to have at least 2.\n",
                    n);
    return Refuse(ds, "Point electrodes number error",
                  "Number of point electrode given as %d is wrong.\nIt must be more than 1 and "
                  "less than %d.",
                  n, ds.Data_lim_sys.nmax_elecs);
  }
  if (Peek_Line(ds, line) &&
      (line[0] == 'S' || line[0] == 's' || line[0] == '1' || (line[0] && line[1] == 's'))) {
    read_line(ds.img, line);
    ds.subsurface_present = 1;
    if (Peek_Line(ds, line) && Upper(line[0]) == 'B') {
      read_line(ds.img, line);
      ds.borehole_converted = 1;
    }
    panel_text(ds, ds.borehole_converted
                       ? "Subsurface point electrodes present converted from borehole electrodes."
                       : "Subsurface point electrodes present.");
  }
  if (!Peek_Line(ds, line) || !First_Or_Second(line, 'C'))
    return Refuse(ds, "Error in elevation", "You must use compressed format for point electrodes.");
  read_line(ds.img, line);
  ds.num_point_elecs = n;
  if (Read_Electrode_List(ds)) {
    ds.num_point_elecs = 0;
    return 1;
  }
  ds.num_point_elecs_file = n;
  std::memcpy(static_cast<void *>(ds.pe_copy), ds.pe, sizeof(Point_Electrode) * n);
  Sort_Point_Electrodes(ds);
  const int repeats = Check_Repeated_Point_Electrodes(ds);
  if (repeats > 0) {
    if (!ds.Invsplice.reading_segment)
      Warn(ds, "Repeated point electrode positions",
           "The data set has %d repeated point\nelectrodes that were removed!\nNumber of point "
           "electrodes is now %d.",
           repeats, ds.num_point_elecs);
    ds.num_point_elecs_file = ds.num_point_elecs;
    if (ds.pe_sorted)
      Sort_Point_Electrodes(ds);
  }
  return 0;
}

int Read_User_Depths_Section(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  char line[text_line_max + 1];
  g.user_depths = 0;
  g.nlayers_user = 0;
  if (!Peek_Line(ds, line) ||
      !(std::strstr(line, "User") || std::strstr(line, "user") || std::strstr(line, "USER"))) {
    panel_text(ds, "No user defined model depths.");
    return 0;
  }
  read_line(ds.img, line);
  read_line(ds.img, line);
  const int n = read_int(ds.img);
  if (n < 3 || n >= ds.Data_lim_sys.nmax_layers || n > max_user_layers) {
    Panel(ds, "Error in defined model depths with %d layers.", n);
    return 1;
  }
  read_line(ds.img, line);
  for (int i = 0; i < n; i++) {
    read_int(ds.img);
    const double d = read_real(ds.img);
    if (!(d > 0.0) || (i > 0 && !(d > g.depth_user[i - 1])) || !std::isfinite(d)) {
      Panel(ds, "Error in layer %d with depth value %.2f.", i + 1, d);
      return 1;
    }
    g.depth_user[i] = d;
  }
  g.nlayers_user = n;
  g.user_depths = 1;
  Panel(ds, "User defined model depths with %d layers present.", n);
  return 0;
}

namespace {

int Read_IP_Section(Data_Set &ds) {
  Data_IP &ip = ds.Data_ip;
  char line[text_line_max + 1];
  ip.typeip = 0;
  if (!Peek_Line(ds, line) || Upper(line[0]) != 'I')
    return 0;
  read_line(ds.img, line);
  read_line(ds.img, line);
  Keep_Text(ip.ip_name, line);
  read_line(ds.img, line);
  Keep_Text(ip.ip_unit, line);
  ip.ip_par1 = read_real(ds.img);
  ip.ip_par2 = read_real(ds.img);
  if (ip.ip_par1 < 0.0)
    return Refuse(ds, "Data Error", "There is an error in the value for first IP parameter!");
  Panel(ds, "IP data present as %s in %s with settings %.2f and %.2f", ip.ip_name, ip.ip_unit,
        ip.ip_par1, ip.ip_par2);
  bool has_m = false, has_p = false, has_h = false;
  for (int i = 0; i < 3 && ip.ip_name[i]; i++) {
    has_m = has_m || Upper(ip.ip_name[i]) == 'M';
    has_p = has_p || Upper(ip.ip_name[i]) == 'P';
  }
  for (int i = 1; i < 4 && ip.ip_name[i - 1] && ip.ip_name[i]; i++)
    has_h = has_h || Upper(ip.ip_name[i]) == 'H';
  if (has_m) {
    ip.typeip = 2;
    panel_text(ds, "IP values given in terms of metal factor");
  } else if (!has_p) {
    ip.typeip = 1;
    panel_text(ds, "IP values given in terms of chargeability");
  } else if (!has_h) {
    ip.typeip = 3;
    panel_text(ds, "IP values given in terms of Percent Frequency Effect");
    if (ip.ip_par1 <= 0.0 || !(ip.ip_par1 < ip.ip_par2))
      Warn(ds, "IP Data Error", "There is an error in IP measurement frequency values!");
  } else {
    ip.typeip = 4;
    panel_text(ds, "IP values given in terms of Phase Angle");
  }
  return 0;
}

int Read_Time_Lapse_Section(Data_Set &ds) {
  char line[text_line_max + 1];
  ds.ntime = 1;
  ds.time_values[0] = 0.0;
  if (!Peek_Line(ds, line) || Upper(line[0]) != 'T') {
    panel_text(ds, "No time lapse data");
    return 0;
  }
  read_line(ds.img, line);
  read_line(ds.img, line);
  read_int(ds.img); // type: static or dynamic
  read_line(ds.img, line);
  const int n = read_int(ds.img);
  const int nmax =
      ds.Data_lim_sys.nmax_time < max_time_series ? ds.Data_lim_sys.nmax_time : max_time_series;
  if (n < 2 || n > nmax)
    return Refuse(ds, "Time lapse data Error",
                  "Number of time series is %d!\nIt must be between 2 and %d.", n, nmax);
  read_line(ds.img, line);
  read_line(ds.img, line);
  std::snprintf(ds.time_unit, sizeof ds.time_unit, "%.63s", line);
  // A data file gives the intervals of series 2 on; a results file (read
  // while display_mode is 2) gives one for every series, the first's too.
  for (int k = ds.display_mode == 2 ? 0 : 1; k < n; k++) {
    read_line(ds.img, line);
    ds.time_values[k] = read_real(ds.img);
  }
  ds.ntime = n;
  Panel(ds, "Number of time series is %d. Last time series interval is %.1f.", n,
        ds.time_values[n - 1]);
  return 0;
}

int Read_Error_Section(Data_Set &ds) {
  char line[text_line_max + 1];
  ds.error_estimate = 0;
  ds.type_error = 0;
  if (!Peek_Line(ds, line) || !First_Or_Second(line, 'E')) {
    panel_text(ds, "No data error estimate");
    return 0;
  }
  read_line(ds.img, line);
  read_line(ds.img, line);
  const int type = read_int(ds.img);
  ds.type_error = type == 0 || type == 1 ? type : 0;
  ds.error_estimate = 1;
  Panel(ds, "Data error estimate present type %d", ds.type_error);
  return 0;
}

} // namespace

int Read_Data_Count_Sections(Data_Set &ds) {
  const int n = read_int(ds.img);
  Panel(ds, "Number of data points %d", n);
  if (n > ds.Data_lim_sys.nmax_data) {
    beep(ds);
    return Refuse(ds, "Data error",
                  "Number of data points is %d.\nToo many data points. Maximum number is %d\n", n,
                  ds.Data_lim_sys.nmax_data);
  }
  if (n < 35)
    return Refuse(ds, "Data error",
                  "Too few data points.\nYou only have %d data points.\nMinimum number is 35\n", n);
  ds.mdata = n;
  if (Read_IP_Section(ds) || Read_Time_Lapse_Section(ds) || Read_Error_Section(ds))
    return 1;
  const int64_t total = static_cast<int64_t>(ds.mdata) * ds.ntime;
  if (total > ds.Data_lim_sys.nmax_data)
    return Refuse(ds, "File Error",
                  "Number of time series is %d and data points is %d.\nTotal number is %lld that "
                  "exceeds the limit of %d.",
                  ds.ntime, ds.mdata, static_cast<long long>(total), ds.Data_lim_sys.nmax_data);
  return 0;
}
