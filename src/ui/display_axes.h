// Round axis steps and their numbers, shared by the map and mesh pictures.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

// A step of 1, 2 or 5 times a power of ten of at least `least`.
inline double Nice_Step(double least) {
  const double p = std::pow(10.0, std::floor(std::log10(std::max(least, 1e-9))));
  for (double m : {1.0, 2.0, 5.0, 10.0})
    if (m * p >= least * (1.0 - 1e-12))
      return m * p;
  return 10.0 * p;
}

// v written with the decimals that a step of `step` needs.
inline std::string Axis_Number(double v, double step) {
  char t[48];
  const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step) + 1e-9)));
  std::snprintf(t, sizeof t, "%.*f", decimals, std::fabs(v) < 0.5 * step * 1e-6 ? 0.0 : v);
  return t;
}
