// Writers of the optional data file sections, in user units: a file they
// write reads back to the same section state.
#include <cstdio>

#include "core/data_set.h"
#include "survey/optional_sections.h"
#include "survey/survey.h"

namespace {

void Write_Topography(Data_Set &ds, FILE *f) {
  const Topography &t = ds.topo;
  if (t.num_points <= 0)
    return;
  std::fprintf(f, "Topography present\n%d\n", t.type);
  std::fprintf(f,
               "Topography in unstructured list\nNumber of topography data points\n%d\n"
               "Topography data points (index,x,y,z)\n",
               t.num_points);
  for (int k = 0; k < t.num_points; k++)
    std::fprintf(f, "%4d %12.3f %12.3f %12.3f\n", k + 1, User_X(ds, t.x[k]), User_Y(ds, t.y[k]),
                 t.z[k] * ds.spxx);
}

void Write_Fixed_Regions(Data_Set &ds, FILE *f) {
  Write_Fixed_Regions_Form(ds, f, false);
}

void Write_Water_Layer(Data_Set &ds, FILE *f) {
  const Water_Layer &w = ds.water;
  if (w.kind <= 0)
    return;
  std::fprintf(f, "%s survey parameters\nResistivity of water layer\n%.5f\n",
               w.kind == 3 ? "Floating electrodes" : "Underwater", w.res);
  std::fprintf(f, "Rectangular limits of water layer\n%12.3f,%12.3f,%12.3f,%12.3f\n", w.x1, w.y1,
               w.x2, w.y2);
  std::fprintf(f, "Elevation of water surface\n%12.3f\n", w.elevation);
  if (w.kind != 3) {
    std::fprintf(f, "Type of geometric factor (1=surface,0=exact)\n%d\n", w.type_geofac);
    return;
  }
  std::fprintf(f,
               "Water layer damping weight\n%.2f\n"
               "Water bottom elevation at model grid positions (x,y,z)\n",
               w.damp_weight);
  const Model_Grid &g = ds.Model_grid;
  const int nodes = Grid_Node_Count(ds);
  for (int k = 0; k < nodes; k++)
    std::fprintf(f, "%12.3f,%12.3f,%12.3f\n", User_X(ds, g.xgrid[k % g.ngridx]),
                 User_Y(ds, g.ygrid[k / g.ngridx]), w.bottom[k]);
}

// A region whose fixing lines are written: fixed, or given a resistivity.
bool Has_Fix_Lines(const Sharp_Boundary &s, int region) {
  return s.fix[region] != 0 || s.res[region] > 0.0;
}

void Write_Sharp_Boundaries(Data_Set &ds, FILE *f) {
  const Sharp_Boundary &s = ds.Sharp_boundary;
  const int nb = s.nregions - 1;
  // The water bottom of a floating electrodes survey is written with the
  // water layer and rebuilt from it.
  if (nb < 1 || ds.water.kind == 3)
    return;
  std::fprintf(f, "%s layers present\nNumber of boundaries\n%d\n", s.v_flag ? "V sharp" : "Sharp",
               nb);
  for (int b = 0; b < nb; b++) {
    std::fprintf(f, "Boundary %d parameters\nBoundary type\nLayer\nGroup weight\n%.1f\n", b + 1,
                 s.weight[b]);
    if (Has_Fix_Lines(s, b))
      std::fprintf(f,
                   "Fix resistivity of model cells above boundary (0=No.1=Yes)\n%d\nResistivity "
                   "value\n%.3f\n",
                   s.fix[b], s.res[b]);
    std::fprintf(f, "Number of points on boundary\n%d\nx and y and z coordinates of points\n",
                 s.npoints[b]);
    for (int k = 0; k < s.npoints[b]; k++)
      std::fprintf(f, "%12.3f,%12.3f,%12.3f\n", User_X(ds, s.x[b][k]), User_Y(ds, s.y[b][k]),
                   s.z[b][k] * ds.spxx);
  }
  if (Has_Fix_Lines(s, nb)) {
    std::fprintf(f, "Fix resistivity of last region (0 or 1)\n%d\n", s.fix[nb]);
    std::fprintf(f, "Group weight\n%.2f\n", s.weight[nb]);
    std::fprintf(f, "Resistivity of region\n%.2f\n", s.res[nb]);
  }
}

void Write_Global_Coordinates(Data_Set &ds, FILE *f) {
  const Global_Coords &g = ds.global_coords;
  if (!g.present)
    return;
  std::fprintf(f,
               "Global Coordinates present\nType of global coordinates\n%d\nNumber of reference "
               "points\n%d\nLocal and global coordinates (x,y,X,Y)\n",
               g.type, g.npoints);
  for (int p = 0; p < g.npoints; p++)
    std::fprintf(f, "%12.3f %12.3f %14.3f %14.3f\n", g.lx[p], g.ly[p], g.gx[p], g.gy[p]);
}

} // namespace

void Write_Fixed_Regions_Form(Data_Set &ds, FILE *f, bool results_form) {
  const Fix_Regions &r = ds.Fix_regions;
  if (r.nfix <= 0)
    return;
  // The data file names each region; the results file's second copy marks
  // it with "R" and gives the corners with more decimals.
  const char *corner = results_form ? "%14.4f  %14.4f  %14.4f\n" : "%12.3f  %12.3f  %12.3f\n";
  std::fprintf(f, "FIXED REGIONS\n%d\n", r.nfix);
  for (int k = 0; k < r.nfix; k++) {
    if (results_form)
      std::fprintf(f, "R\n");
    else
      std::fprintf(f, "Region %d corners (x,y,z)\n", k + 1);
    std::fprintf(f, corner, User_X(ds, r.x1[k]), User_Y(ds, r.y1[k]), r.z1[k] * ds.spxx);
    std::fprintf(f, corner, User_X(ds, r.x2[k]), User_Y(ds, r.y2[k]), r.z2[k] * ds.spxx);
    if (ds.Data_ip.typeip > 0)
      std::fprintf(f, "%.3f\n%.1f\n%.1f\n", r.res[k], r.ip[k] * 1000.0, r.weight[k]);
    else
      std::fprintf(f, "%.3f\n%.1f\n", r.res[k], r.weight[k]);
  }
}

void Write_Tank_Section(Data_Set &ds, FILE *f) {
  const Tank &t = ds.tank;
  if (!t.present)
    return;
  std::fprintf(f,
               "Tank Model\nBoundary positions\nx boundary positions (-x,+x)\n%.3f,%.3f\ny "
               "boundary positions (-y,+y)\n%.3f,%.3f\nz boundary position\n%.3f\n",
               t.x1, t.x2, t.y1, t.y2, t.z);
}

void Write_Optional_Sections(Data_Set &ds, FILE *f) {
  Write_Topography(ds, f);
  Write_Fixed_Regions(ds, f);
  Write_Water_Layer(ds, f);
  Write_Sharp_Boundaries(ds, f);
  Write_Global_Coordinates(ds, f);
}
