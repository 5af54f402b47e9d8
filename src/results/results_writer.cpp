// The results file's header and model sections. The header is a data file in
// the arbitrary point electrodes form (its sections in the data file's order,
// positions in user units) followed by the layers and the model blocks; each
// iteration then adds the block resistivities and the calculated values.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "modes/ip_units.h"
#include "results/results_file.h"
#include "survey/optional_sections.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

// --- Header: the data file part ------------------------------------------------

void Write_Array_Section(Data_Set &ds, FILE *f) {
  std::fprintf(f, "%d\n", File_Array_Number(ds.array));
  if (ds.array != 11)
    return;
  if (ds.array2 == 16) {
    std::fprintf(f,
                 "16\nType of measurement (Two component=0,Amplitude and ratio=1,Two component "
                 "plus Amplitude and ratio=2)\n%d\n",
                 ds.vector_data_type);
    return;
  }
  std::fprintf(f, "%d\nType of data (0=apparent resistivity,1=resistance)\n%d\n",
               File_Array_Number(ds.array2), ds.resistance == 1 ? 1 : 0);
}

const char *IP_Type_Line(int typeip) {
  switch (typeip) {
  case 3:
    return "Percent Frequency Effect";
  case 2:
    return "Metal factor";
  case 4:
    return "Phase angle";
  default:
    return "Chargeability";
  }
}

void Write_Time_Lapse_Section(Data_Set &ds, FILE *f) {
  if (ds.ntime <= 1)
    return;
  std::fprintf(f,
               "Time lapse data\nType of time lapse data (0=static,1=dynamic)\n%d\nNumber of "
               "time sections\n%d\nTime unit\n%s\n",
               0, ds.ntime, ds.time_unit[0] ? ds.time_unit : "Days");
  static const char *const first[3] = {"First", "Second", "Third"};
  for (int i = 1; i <= ds.ntime; i++) {
    if (i <= 3)
      std::fprintf(f, "%s time section interval\n", first[i - 1]);
    else if (i < 10)
      std::fprintf(f, "%1dth time section interval\n", i);
    else
      std::fprintf(f, "%2dth time section interval\n", i);
    std::fprintf(f, "%.2f\n", ds.time_values[i - 1]);
  }
}

// The electrode part of a data line: the electrodes in line order (and the
// vector array's third potential electrode).
void Write_Electrodes(Data_Set &ds, FILE *f, const Data_Point &d) {
  const bool vector = ds.array2 == 16;
  const double *e[5];
  const int n = Datum_Electrodes(d, vector, e);
  if (!ds.subsurface_present) {
    if (ds.array == 11)
      std::fprintf(f, "%d ", d.nelec);
    for (int k = 0; k < n; k++)
      std::fprintf(f, "%13.4f,%13.4f ", User_X(ds, e[k][0]), User_Y(ds, e[k][1]));
    return;
  }
  // Subsurface electrodes: x, y and depth of each, grouped by three, but by
  // four in a 4-electrode line of apparent resistivity.
  double v[15];
  for (int k = 0; k < n; k++) {
    v[3 * k] = User_X(ds, e[k][0]);
    v[3 * k + 1] = User_Y(ds, e[k][1]);
    v[3 * k + 2] = e[k][2] * ds.spxx;
  }
  const int group = d.nelec == 4 && ds.resistance != 1 && !vector ? 4 : 3;
  std::fprintf(f, "%d", d.nelec);
  for (int k = 0; k < 3 * n; k++)
    std::fprintf(f, k % group == 0 ? " %13.4f" : ",%13.4f", v[k]);
  if (ds.ntime < 2)
    std::fprintf(f, " ");
}

void Write_IP_Value(Data_Set &ds, FILE *f, float m, float e, float r) {
  const Data_IP &ip = ds.Data_ip;
  if (m == ip_missing_mark)
    std::fprintf(f, "  %8s", "*");
  else
    std::fprintf(f, "  %8.3f", IP_Display_Value(ip, m, r));
  if (ds.error_estimate)
    std::fprintf(f, "  %8.3f", std::fabs(IP_Display_Value(ip, e, r)));
}

void Write_Data_Line(Data_Set &ds, FILE *f, int i) {
  const Data_Point &d = ds.dp[i];
  const double unit = ds.resistance == 1 ? 1.0 / ds.spxx : 1.0;
  Write_Electrodes(ds, f, d);
  if (ds.array2 == 16) {
    // Measurement type 2: the two components, the amplitude and the ratio.
    Write_Results_Value(f, d.vector_component1 / ds.spxx);
    Write_Results_Value(f, d.vector_component2 / ds.spxx);
    Write_Results_Value(f, d.amplitude);
    Write_Results_Value(f, d.ratio);
    for (int t = 1; t < ds.ntime; t++)
      Write_Results_Value(f, ds.dp[Record_Index(ds, t, i)].value);
    if (ds.Data_ip.typeip > 0)
      for (int t = 0; t < ds.ntime; t++) {
        const Data_Point &dt = ds.dp[Record_Index(ds, t, i)];
        std::fprintf(f, "%8.3f %8.3f ", dt.ip_value * 1000.0, dt.ip_value2 * 1000.0);
      }
    std::fprintf(f, "\n");
    return;
  }
  for (int t = 0; t < ds.ntime; t++) {
    const Data_Point &dt = ds.dp[Record_Index(ds, t, i)];
    Write_Results_Value(f, dt.value * unit);
    if (ds.error_estimate)
      Write_Results_Value(f, dt.value_error * unit);
  }
  if (ds.Data_ip.typeip > 0)
    for (int t = 0; t < ds.ntime; t++) {
      const Data_Point &dt = ds.dp[Record_Index(ds, t, i)];
      Write_IP_Value(ds, f, dt.ip_value, dt.ip_error, dt.value);
    }
  std::fprintf(f, "\n");
}

// --- Header: the second copy of the optional sections, the model geometry --------

void Write_Grid_Topography(Data_Set &ds, FILE *f) {
  const Topography &t = ds.topo;
  const Model_Grid &g = ds.Model_grid;
  if (!t.grid_heights || !t.grid_z)
    return;
  std::fprintf(f, "Topography\n%d\n", t.type);
  for (int j = 0; j < g.ngridy; j++)
    for (int i = 0; i < g.ngridx; i++) {
      const double z = t.grid_z[i + static_cast<int64_t>(j) * g.ngridx] * ds.spxx;
      const double a = std::fabs(z);
      std::fprintf(f, a >= 100.0 ? "%7.1f " : a >= 10.0 ? "%7.2f " : "%7.4f ", z);
      if (i == g.ngridx - 1 || i % 20 == 19)
        std::fprintf(f, "\n");
    }
}

void Write_Water_Layer_Copy(Data_Set &ds, FILE *f) {
  const Water_Layer &w = ds.water;
  if (w.kind <= 0)
    return;
  std::fprintf(f, "Underwater survey parameters\nResistivity of water layer\n%.5f\n", w.res);
  std::fprintf(f, "Rectangular limits of water layer\n%14.4f,%14.4f,%14.4f,%14.4f\n", w.x1, w.y1,
               w.x2, w.y2);
  std::fprintf(f, "Elevation of water surface\n%14.4f\n", w.elevation);
  std::fprintf(f, "Type of geometric factor (1=surface,0=exact)\n%d\n", w.type_geofac);
}

void Write_Sharp_Boundaries_Copy(Data_Set &ds, FILE *f) {
  const Sharp_Boundary &s = ds.Sharp_boundary;
  const int nb = s.nregions - 1;
  // A floating survey's water bottom is rebuilt from the water layer.
  if (nb < 1 || ds.water.kind == 3)
    return;
  std::fprintf(f, "Sharp layers present\nNumber of boundaries\n%d\n", nb);
  for (int b = 0; b < nb; b++) {
    std::fprintf(f, "Boundary %d parameters\nBoundary type\nLayer\nGroup weight\n%.1f\n", b + 1,
                 s.weight[b]);
    if (s.fix[b] != 0 || s.res[b] > 0.0)
      std::fprintf(f,
                   "Fix resistivity of model cells above boundary (0=No.1=Yes)\n%d\nResistivity "
                   "value\n%.3f\n",
                   s.fix[b], s.res[b]);
    std::fprintf(f, "Number of points on boundary\n%d\nx and y and z coordinates of points\n",
                 s.npoints[b]);
    for (int k = 0; k < s.npoints[b]; k++)
      std::fprintf(f, "%14.4f,%14.4f,%14.4f\n", User_X(ds, s.x[b][k]), User_Y(ds, s.y[b][k]),
                   s.z[b][k] * ds.spxx);
  }
}

void Write_Global_Coordinates_Section(Data_Set &ds, FILE *f) {
  const Global_Coords &g = ds.global_coords;
  if (!g.present)
    return;
  std::fprintf(f,
               "Global coordinates information present\nType of global coordinates information "
               "(0=point-to-point)\n%d\n",
               g.type);
  if (g.type != 0)
    return;
  std::fprintf(f, "Number of points\n%d\n              Local x-y                     Global x-y\n",
               g.npoints);
  for (int p = 0; p < g.npoints; p++)
    std::fprintf(f, "%14.4f,%14.4f   %14.4f,%14.4f\n", g.lx[p], g.ly[p], g.gx[p], g.gy[p]);
}

void Write_Layers_And_Blocks(Data_Set &ds, FILE *f) {
  const Model_Grid &g = ds.Model_grid;
  std::fprintf(f, "%d\n", g.nlayers);
  for (int k = 0; k < g.nlayers; k++)
    std::fprintf(f, "%14.6f ", g.zbl[k] * ds.spxx);
  std::fprintf(f, "%14.6f\n", g.zbl[g.nlayers] * ds.spxx);
  const char *corner = ds.spxx >= 100.0  ? "%11.2f %11.2f %8.2f  "
                       : ds.spxx >= 10.0 ? "%11.3f %11.3f %8.3f  "
                                         : "%12.4f %12.4f %9.4f  ";
  std::fprintf(f, "Coordinates of blocks\n");
  int m = 0;
  for (int k = 1; k <= g.nlayers; k++) {
    const int nx = g.layer_nblockx[k], ny = g.layer_nblocky[k];
    std::fprintf(f, "Layer %d\n%d  %d\n", k, nx, ny);
    for (int b = 0; b < nx * ny && m < g.nmodel_blocks; b++, m++) {
      const Model_Block &blk = g.blocks[m];
      std::fprintf(f, "Block %d\n", m + 1);
      for (int c = 0; c < 8; c++)
        std::fprintf(f, corner, User_X(ds, blk.x[c]), User_Y(ds, blk.y[c]), blk.z[c] * ds.spxx);
      std::fprintf(f, "\n");
    }
  }
}

void Write_Header(Data_Set &ds, FILE *f, double misfit) {
  const Model_Grid &g = ds.Model_grid;
  std::fprintf(f, "%s\n", ds.title);
  std::fprintf(f, "%d,%d\nNonuniform grid\n", g.ngridx, g.ngridy);
  const double scale = ds.positions_scaled ? ds.spxx : 1.0;
  Write_Grid_Lines(f, "X location of grid-lines", g.xgrid, g.ngridx,
                   ds.positions_scaled ? ds.xmin : 0.0, scale, "%12.4f ");
  Write_Grid_Lines(f, "Y location of grid-lines", g.ygrid, g.ngridy,
                   ds.positions_scaled ? ds.ymin : 0.0, scale, "%12.4f ");
  Write_Array_Section(ds, f);
  Write_Tank_Section(ds, f);
  Write_Point_Electrodes(ds, f, 5);
  Write_User_Depths(ds, f);
  std::fprintf(f, "%d\n", ds.mdata);
  const Data_IP &ip = ds.Data_ip;
  if (ip.typeip > 0)
    std::fprintf(f, "IP present\n%s\n%s\n%.4f  %.4f\n", IP_Type_Line(ip.typeip), ip.ip_unit,
                 ip.ip_par1, ip.ip_par2);
  Write_Time_Lapse_Section(ds, f);
  if (ds.error_estimate)
    std::fprintf(f,
                 "Error estimate for data present\nType of error estimate (0=same unit as "
                 "data)\n%d\n",
                 ds.type_error);
  for (int i = 0; i < ds.mdata; i++)
    Write_Data_Line(ds, f, i);
  // The data file's own sections, without the topography list (the grid
  // heights follow) and the global coordinates (written below).
  const int list_points = ds.topo.num_points, global = ds.global_coords.present;
  ds.topo.num_points = 0;
  ds.global_coords.present = 0;
  Write_Optional_Sections(ds, f);
  ds.topo.num_points = list_points;
  ds.global_coords.present = global;
  Write_Grid_Topography(ds, f);
  Write_Fixed_Regions_Form(ds, f, true);
  Write_Water_Layer_Copy(ds, f);
  Write_Sharp_Boundaries_Copy(ds, f);
  Write_Global_Coordinates_Section(ds, f);
  Write_Layers_And_Blocks(ds, f);
  std::fprintf(f, "%8.3f\n", misfit * 100.0);
  if (ip.typeip > 0 && ds.num_valid_ip != ds.mdata)
    std::fprintf(f, "Invalid IP data points present\nNumber of valid IP data points\n%d\n",
                 ds.num_valid_ip);
}

// --- Model sections ----------------------------------------------------------------

// The block values of every layer of one model, 21 to a line at most.
void Write_Layer_Values(Data_Set &ds, FILE *f, const float *model) {
  const Model_Grid &g = ds.Model_grid;
  int m = 0;
  for (int k = 1; k <= g.nlayers; k++) {
    std::fprintf(f, "LAYER %d\n", k);
    for (int j = 0; j < g.layer_nblocky[k]; j++) {
      int count = 0;
      for (int i = 0; i < g.layer_nblockx[k]; i++) {
        Write_Results_Value(f, model[m++]);
        if (count == 20) {
          std::fprintf(f, "\n");
          count = 0;
        } else {
          count++;
        }
      }
      if (count > 0)
        std::fprintf(f, "\n");
    }
  }
}

// n values in rows of 10, each times `unit`.
void Write_Rows(FILE *f, const float *v, int n, double unit) {
  for (int start = 0; start < n; start += 10) {
    const int end = std::min(n, start + 10);
    for (int k = start; k < end; k++)
      Write_Results_Value(f, v[k] * unit);
    std::fprintf(f, "\n");
  }
}

const char *Calculated_Caption(const Data_Set &ds) {
  return ds.resistance == 1 ? "CALCULATED RESISTANCE\n" : "CALCULATED APPARENT RESISTIVITY\n";
}

// Percent misfit of time series t from its calculated values.
double Series_Misfit(Data_Set &ds, int t) {
  const LS_State &ls = ds.LS;
  double sum = 0.0;
  for (int i = 0; i < ds.mdata; i++) {
    const int64_t r = Record_Index(ds, t, i);
    const double w = r < static_cast<int64_t>(ls.error_weight.size()) ? ls.error_weight[r] : 1.0;
    const double e = Calculate_Datum_Error(ds.appres_inv, ds.dp[r].value, ls.rm[r], w);
    sum += e * e;
  }
  return ds.mdata > 0 ? 100.0 * std::sqrt(sum / ds.mdata) : 0.0;
}

void Write_Model_Section(Data_Set &ds, FILE *f, int iteration, double misfit) {
  const LS_State &ls = ds.LS;
  const int nblocks = ds.Model_grid.nmodel_blocks;
  const double unit = ds.resistance == 1 ? 1.0 / ds.spxx : 1.0;
  if (ds.ntime < 2) {
    if (static_cast<int64_t>(ls.rt.size()) < nblocks ||
        static_cast<int64_t>(ls.rm.size()) < ds.mdata)
      return;
    std::fprintf(f, "MODEL iteration %d\n", iteration);
    Write_Layer_Values(ds, f, ls.rt.data());
    std::fprintf(f, "%s", Calculated_Caption(ds));
    Write_Rows(f, ls.rm.data(), ds.mdata, unit);
    std::fprintf(f, "%8.3f\n", misfit * 100.0);
    return;
  }
  // Time-lapse: the run state holds the models and the calculated values of
  // every time one after the other.
  if (static_cast<int64_t>(ls.rt.size()) < static_cast<int64_t>(nblocks) * ds.ntime ||
      static_cast<int64_t>(ls.rm.size()) < static_cast<int64_t>(ds.mdata) * ds.ntime) {
    TRACE("printmodelh iteration %d: the run state does not hold %d times\n", iteration, ds.ntime);
    return;
  }
  std::fprintf(f, "MODEL iteration %d\n", iteration);
  for (int t = 0; t < ds.ntime; t++) {
    std::fprintf(f, "MODEL TIME %d\n", t + 1);
    Write_Layer_Values(ds, f, ls.rt.data() + static_cast<int64_t>(t) * nblocks);
  }
  for (int t = 0; t < ds.ntime; t++) {
    std::fprintf(f, "%sTIME DATA SERIES %d\n", Calculated_Caption(ds), t + 1);
    Write_Rows(f, ls.rm.data() + Record_Index(ds, t, 0), ds.mdata, unit);
    std::fprintf(f, "%8.3f\n", Series_Misfit(ds, t));
  }
}

} // namespace

void Write_Results_Value(FILE *f, double v) {
  const float s = static_cast<float>(v);
  const float a = std::fabs(s);
  const char *format = " %11.6f ";
  if (a == 0.0f)
    format = " %11.3f ";
  else if (a >= 100000.0f || a < 0.0001)
    format = " %11.3e ";
  else if (a >= 1000.0f)
    format = " %11.1f ";
  else if (a >= 10.0f)
    format = " %11.3f ";
  else if (a >= 1.0f)
    format = " %11.4f ";
  else if (a >= 0.1)
    format = " %11.5f ";
  std::fprintf(f, format, s);
}

int printmodelh(Data_Set &ds, const char *path, int iteration, double misfit) {
  FILE *f = path && path[0] ? std::fopen(path, "a") : nullptr;
  if (!f) {
    const int open_errno = errno;
    Progress_Text(ds, 0.0, "Error in opening file %s", path ? path : "");
    return Results_Not_Written(ds, path ? path : "", open_errno);
  }
  if (iteration == 0) {
    // A saved file always gives vector data as two components plus
    // amplitude and ratio.
    const int vector_type = ds.vector_data_type;
    if (ds.array2 == 16)
      ds.vector_data_type = 2;
    Write_Header(ds, f, misfit);
    ds.vector_data_type = vector_type;
  } else {
    Write_Model_Section(ds, f, iteration, misfit);
  }
  TRACE("printmodelh %s iteration %d misfit %.5f\n", path, iteration, misfit);
  return Close_Results_File(ds, f, path);
}

int Results_Not_Written(Data_Set &ds, const char *path, int error) {
  return Refuse_Always(ds, "File Error",
                       "The results file %s could not be written (%s).\nThe run stops; the file "
                       "holds only what was written before.",
                       path, error ? std::strerror(error) : "write error");
}

int Close_Results_File(Data_Set &ds, FILE *f, const char *path) {
  const bool bad = std::ferror(f) != 0;
  const int write_errno = errno;
  const bool closed = std::fclose(f) == 0;
  if (bad || !closed)
    return Results_Not_Written(ds, path, closed ? write_errno : errno);
  return 0;
}

int Save_Model(Data_Set &ds) {
  LS_State &ls = ds.LS;
  if (ls.nitcount >= 0 && ls.nitcount < static_cast<int>(ls.hist_rms.size()))
    ls.hist_rms[ls.nitcount] = ls.rmslog_res * 100.0; // percent, as the run keeps it
  return printmodelh(ds, ls.results_path.c_str(), ls.nitcount, ls.rmslog_res);
}

int Datum_Electrodes(const Data_Point &d, bool vector, const double *e[5]) {
  int n = 0;
  e[n++] = d.c1;
  if (d.nelec == 4)
    e[n++] = d.c2;
  e[n++] = d.p1;
  if (d.nelec > 2)
    e[n++] = d.p2;
  if (vector)
    e[n++] = d.p3;
  return n;
}
