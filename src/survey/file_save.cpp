// Writes the survey back as a data file, in the user's coordinates and units.
#include <cmath>
#include <cstring>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "modes/ip_units.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

void Write_Grid_Lines(FILE *f, const char *caption, const double *v, int n, double origin,
                      double scale, const char *format) {
  std::fprintf(f, "%s\n", caption);
  for (int i = 0; i < n; i++) {
    std::fprintf(f, format, v[i] * scale + origin);
    if (i % 10 == 9 || i == n - 1)
      std::fprintf(f, "\n");
  }
}

int File_Array_Number(int code) {
  return code == 4 ? 2 : code == 5 ? 3 : code;
}

void Write_Point_Electrodes(Data_Set &ds, FILE *f, int index_width) {
  if (ds.num_point_elecs < 1)
    return;
  std::fprintf(f, "Point Electrodes outside grid present\nNumber of point electrodes\n%d\n",
               ds.num_point_elecs);
  if (ds.subsurface_present)
    std::fprintf(f, "Subsurface point electrodes present\n");
  if (ds.borehole_converted)
    std::fprintf(f, "Borehole format converted to subsurface point electrodes\n");
  std::fprintf(f, "Compressed format used for point electrodes coordinates\n");
  for (int e = 0; e < ds.num_point_elecs; e++) {
    const Point_Electrode &p = ds.pe[e];
    const double x = p.x * ds.spxx + ds.xmin, y = p.y * ds.spxx + ds.ymin, z = p.z * ds.spxx;
    if (ds.subsurface_present)
      std::fprintf(f, "%*d %13.4f,%13.4f,%13.4f,%13.4f\n", index_width, e + 1, x, y, z,
                   p.depth * ds.spxx);
    else
      std::fprintf(f, "%*d %13.4f,%13.4f,%13.4f\n", index_width, e + 1, x, y, z);
  }
}

void Write_User_Depths(Data_Set &ds, FILE *f) {
  const Model_Grid &g = ds.Model_grid;
  if (!g.user_depths || g.nlayers_user < 3)
    return;
  std::fprintf(f, "User defined depths to layers present\nNumber of layers\n%d\nDepth of layers\n",
               g.nlayers_user);
  for (int i = 0; i < g.nlayers_user; i++)
    std::fprintf(f, "%3d %12.4f\n", i + 1, g.depth_user[i]);
}

namespace {

// Resistance data are saved as the resistances they were read as: the
// apparent resistivity times the datum's factor for the electrode order kept
// after reading (the reader swaps a pair where the factor was negative), so
// that the file reads back to the same data.
bool Resistances_Kept(const Data_Set &ds) {
  return ds.resistance_file == 1 && ds.resistance != 1 && ds.array2 != 16;
}

// The file's array number (and sub-array number) of the survey.
void Write_Array(Data_Set &ds, FILE *f) {
  if (ds.array == 11) {
    const int sub = File_Array_Number(ds.array2);
    std::fprintf(f, "11\n%d\n", sub);
    if (ds.array2 == 16)
      std::fprintf(f,
                   "Type of measurements (Two component values=0, Apparent resistivity "
                   "amplitude and resistance ratio=1)\n%d\n",
                   ds.vector_data_type);
    else
      std::fprintf(f, "Type of data (0=Apparent Resistivity,1=Resistance)\n%d\n",
                   ds.resistance == 1 || Resistances_Kept(ds) ? 1 : 0);
    return;
  }
  std::fprintf(f, "%d\n", File_Array_Number(ds.array));
}

void Write_IP_Section(Data_Set &ds, FILE *f) {
  const Data_IP &ip = ds.Data_ip;
  if (ip.typeip <= 0)
    return;
  std::fprintf(f, "IP present\n%s\n%s\n%9.4f,%9.4f\n", ip.ip_name, ip.ip_unit, ip.ip_par1,
               ip.ip_par2);
}

void Write_Position(Data_Set &ds, FILE *f, const double *p, bool first) {
  if (!first)
    std::fprintf(f, " ");
  std::fprintf(f, "%12.3f %12.3f ", p[0] * ds.spxx + ds.xmin, p[1] * ds.spxx + ds.ymin);
  if (ds.depth_present)
    std::fprintf(f, "%12.3f ", p[2] * ds.spxx);
}

// A value (and its error) of datum record d.
void Write_Value_Error(Data_Set &ds, FILE *f, const Data_Point &d, double v, double e) {
  const bool kept = Resistances_Kept(ds), resistance = ds.resistance == 1 || kept;
  const double scale = kept ? d.gfac / ds.spxx : 1.0 / ds.spxx;
  auto put = [&](double x) {
    if (resistance)
      std::fprintf(f, " %14.7e ", x * scale);
    else
      Write_Data_Value(f, x);
  };
  put(v);
  if (ds.error_estimate)
    put(e);
}

void Write_IP_Value(Data_Set &ds, FILE *f, double m, double e, double r) {
  const Data_IP &ip = ds.Data_ip;
  const bool vector = ds.array2 == 16;
  if (static_cast<float>(m) == ip_missing_mark)
    std::fprintf(f, "%12s ", "*");
  else
    std::fprintf(f, "%12.3f ", vector ? m * 1000.0 : IP_Display_Value(ip, m, r));
  if (ds.error_estimate)
    std::fprintf(f, "%12.3f ", vector ? e * 1000.0 : std::fabs(IP_Display_Value(ip, e, r)));
}

void Write_Data_Line(Data_Set &ds, FILE *f, int i) {
  const Data_Point &d = ds.dp[i];
  const bool vector = ds.array2 == 16;
  if (ds.array == 11)
    std::fprintf(f, "%1d ", d.nelec);
  Write_Position(ds, f, d.c1, true);
  if (d.nelec == 4)
    Write_Position(ds, f, d.c2, false);
  Write_Position(ds, f, d.p1, false);
  if (d.nelec > 2)
    Write_Position(ds, f, d.p2, false);
  if (vector)
    Write_Position(ds, f, d.p3, false);
  Write_Value_Error(ds, f, d, d.value, d.value_error);
  if (vector)
    Write_Value_Error(ds, f, d, d.value2, d.value2_error);
  for (int k = 1; k < ds.ntime; k++) {
    const Data_Point &dk = ds.dp[Record_Index(ds, k, i)];
    Write_Value_Error(ds, f, dk, dk.value, dk.value_error);
  }
  if (ds.Data_ip.typeip > 0)
    for (int k = 0; k < ds.ntime; k++) {
      const Data_Point &dk = ds.dp[Record_Index(ds, k, i)];
      Write_IP_Value(ds, f, dk.ip_value, dk.ip_error, dk.value);
      if (vector)
        Write_IP_Value(ds, f, dk.ip_value2, dk.ip_value2_error, dk.value2);
    }
  if (ds.type_geofac == 2)
    std::fprintf(f, "%12.3f ", d.gfac != 0.0 ? ds.spxx / d.gfac : 0.0);
  std::fprintf(f, "\n");
}

} // namespace

void Write_Data_Value(FILE *f, double v) {
  const double a = std::fabs(v);
  const char *format = " %11.3e ";
  if (a == 0.0 || (a >= 10.0 && a < 1000.0))
    format = " %11.3f ";
  else if (a >= 1000.0 && a < 100000.0)
    format = " %11.1f ";
  else if (a >= 1.0 && a < 10.0)
    format = " %11.4f ";
  else if (a >= 0.1 && a < 1.0)
    format = " %11.5f ";
  else if (a >= 0.0001 && a < 0.1)
    format = " %11.6f ";
  std::fprintf(f, format, v);
}

void Print_Data(Data_Set &ds, FILE *f) {
  if (ds.ntime > 1) {
    std::fprintf(f,
                 "Time lapse data\nType of time lapse data (0=static,1=dynamic)\n0\nNumber of "
                 "time sections\n%d\nTime unit\n%s\n",
                 ds.ntime, ds.time_unit[0] ? ds.time_unit : "Days");
    for (int k = 1; k < ds.ntime; k++)
      std::fprintf(f, "Time series %d\n%.2f\n", k + 1, ds.time_values[k]);
  }
  if (ds.error_estimate)
    std::fprintf(f,
                 "Error estimate for data present\nType of error estimate (0=same unit as "
                 "data)\n%d\n",
                 ds.type_error);
  for (int i = 0; i < ds.mdata; i++)
    Write_Data_Line(ds, f, i);
}

void Derived_File_Name(const char *path, const char *ending, char *out, size_t size) {
  std::string name = path ? path : "";
  const size_t slash = name.find_last_of('/');
  const size_t dot = name.find_last_of('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash))
    name.erase(dot);
  name += ending;
  std::snprintf(out, size, "%s", name.c_str());
}

int File_Save(Data_Set &ds, const char *path) {
  std::string name = path;
  if (name.size() < 4 || name.compare(name.size() - 4, 4, ".dat") != 0)
    name += ".dat";
  FILE *f = std::fopen(name.c_str(), "w");
  if (!f) {
    return Show_Text(ds, "Message", MK_WARNING, "Cannot create the file\n%s", name.c_str());
  }
  const Model_Grid &g = ds.Model_grid;
  std::fprintf(f, "%s\n", ds.title);
  std::fprintf(f, "%d,%d\n", g.ngridx, g.ngridy);
  std::fprintf(f, "Nonuniform Grid\n");
  const double scale = ds.positions_scaled ? ds.spxx : 1.0;
  Write_Grid_Lines(f, "X-location of grid lines", g.xgrid, g.ngridx,
                   ds.positions_scaled ? ds.xmin : 0.0, scale, " %12.3f");
  Write_Grid_Lines(f, "Y-location of grid lines", g.ygrid, g.ngridy,
                   ds.positions_scaled ? ds.ymin : 0.0, scale, " %12.3f");
  if (ds.type_geofac > 0)
    std::fprintf(f, "Type of geometric factor\n%d\n", ds.type_geofac);
  Write_Array(ds, f);
  Write_Tank_Section(ds, f);
  Write_Point_Electrodes(ds, f, 4);
  Write_User_Depths(ds, f);
  std::fprintf(f, "%d\n", ds.mdata);
  Write_IP_Section(ds, f);
  Print_Data(ds, f);
  Write_Optional_Sections(ds, f);
  std::fprintf(f, "0\n0\n0\n0\n0\n\n\n");
  const int failed = std::ferror(f) != 0;
  const int closed = std::fclose(f) == 0;
  TRACE("File_Save %s mdata %d failed %d\n", name.c_str(), ds.mdata, failed || !closed);
  if (failed || !closed)
    return Show_Text(ds, "Message", MK_WARNING, "Error in writing the file %s", name.c_str());
  return 0;
}
