// Records of the survey: one data point (per time series) and one point
// electrode. Positions are stored normalised to the grid (see Survey_State).
#pragma once

#include <cstdint>

struct Data_Point {
  int32_t nelec = 0;                          // electrodes of the point, 2 to 4
  int32_t nc1 = 0, nc2 = 0, np1 = 0, np2 = 0; // numbers in the point electrode table
  double gfac = 0.0;                          // reciprocal geometric factor, normalised units
  double c1[3] = {}, c2[3] = {};              // current electrodes x, y, depth
  double p1[3] = {}, p2[3] = {};              // potential electrodes x, y, depth
  double work[4] =
      {}; // [0] geometric factor in user units, [1] weight from it, [2..3] forward model
  float gfac_rel_error = 0.0f; // relative error of the geometric factor
  int32_t np3 = 0;             // third potential electrode's number (vector array)
  double p3[3] = {};           // third potential electrode (vector array)
  double angle = 0.0;          // angle between the potential dipoles (vector array)
  float value = 0.0f;          // apparent resistivity, resistance, or first vector amplitude
  float ip_value = 0.0f;       // IP as internal chargeability
  float value_error = 0.0f;    // absolute error of value
  float ip_error = 0.0f;       // absolute error of ip_value
  float vector_component1 = 0.0f, vector_component2 = 0.0f;
  float value2 = 0.0f, ip_value2 = 0.0f, value2_error = 0.0f, ip_value2_error = 0.0f;
  float dir1[2] = {}, dir2[2] = {}; // unit directions of the two potential dipoles
  float amplitude = 0.0f, ratio = 0.0f;
};

struct Point_Electrode {
  uint8_t used = 0;
  double x = 0.0, y = 0.0, z = 0.0, depth = 0.0; // depth 0: on the surface
  int64_t node = 0;                              // mesh node of the electrode
  int64_t node2 = 0;                             // second node (distorted placement)
};

// Missing IP value mark.
constexpr float ip_missing_mark = 0.901f;
