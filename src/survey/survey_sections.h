// Optional sections of a data file: tank, topography, fixed regions, water
// layer, sharp boundaries and global coordinates.
#pragma once

#include <cstdint>

struct Tank {
  int present = 0;
  double x1 = 0.0, x2 = 0.0; // x boundaries, user units
  double y1 = 0.0, y2 = 0.0; // y boundaries
  double z = 0.0;            // bottom
};

struct Topography {
  int type = 0;            // 0 none; above 0 the section is in force
  int num_points = 0;      // points of the unstructured list
  int num_elec_points = 0; // electrode positions added after the list for the interpolation
  float *x = nullptr, *y = nullptr, *z = nullptr; // the list, normalised
  int64_t capacity = 0;                           // records of x, y, z
  float *grid_z = nullptr; // height at each surface grid node (x fastest), normalised
  int grid_heights = 0;    // grid_z holds the surface heights (list or electrode elevations)
  double average = 0.0, zmin = 0.0, zmax = 0.0; // of the grid heights, user units
  double elevation_reference = 0.0;
  int num_steep_x = 0, num_steep_y = 0; // neighbour pairs steeper than 60 degrees
};

constexpr int max_fix_regions = 1000;

struct Fix_Regions {
  int nfix = 0;
  float x1[max_fix_regions] = {}, y1[max_fix_regions] = {}, z1[max_fix_regions] = {};
  float x2[max_fix_regions] = {}, y2[max_fix_regions] = {}, z2[max_fix_regions] = {};
  float weight[max_fix_regions] = {};
  float res[max_fix_regions] = {};
  float ip[max_fix_regions] = {}; // fraction
};

struct Water_Layer {
  int kind = 0; // 0 none, 1 surface geometric factor, 2 exact, 3 floating electrodes
  double res = 0.0;
  double x1 = 0.0, y1 = 0.0, x2 = 0.0, y2 = 0.0; // rectangular limits, user units
  double elevation = 0.0;
  int type_geofac = 0; // as written: 1 surface, 0 exact
  double damp_weight = 1.0;
  double thick_max = 0.0, thick_min = 0.0;
  double land_max = 0.0;   // highest ground above the water (+0.1)
  int some_above = 0;      // some electrodes stand above the water
  float *bottom = nullptr; // floating survey: bottom elevation per grid node, user units
};

constexpr int max_sharp_boundaries = 3;

struct Sharp_Boundary {
  int nregions = 1; // boundaries + 1
  int v_flag = 0;   // caption began with V
  int npoints[max_sharp_boundaries] = {};
  int fix[max_sharp_boundaries + 1] = {};
  double weight[max_sharp_boundaries + 1] = {};
  double res[max_sharp_boundaries + 1] = {};
  double *x[max_sharp_boundaries] = {}, *y[max_sharp_boundaries] = {},
         *z[max_sharp_boundaries] = {};         // points, normalised
  int64_t capacity = 0;                         // points each list holds
  float *grid_depth[max_sharp_boundaries] = {}; // boundary depth at each grid node, normalised
  double average_depth[max_sharp_boundaries] = {};
};

constexpr int max_global_points = 5;

struct Global_Coords {
  int present = 0;
  int type = 0;
  int npoints = 0;
  double lx[max_global_points] = {}, ly[max_global_points] = {};
  double gx[max_global_points] = {}, gy[max_global_points] = {};
  // Transform local -> global: gx = a0 + a1 x + a2 y, gy = b0 + b1 x + b2 y.
  double a[3] = {}, b[3] = {};
};
