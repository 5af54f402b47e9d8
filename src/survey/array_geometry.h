// Sums of reciprocal electrode distances of one data point. Electrodes of a
// point: C1, P1 (two electrodes); C1, P1, P2 (three); C1, C2, P1, P2 (four).
// Positions are (x, y, depth).
#pragma once

#include <cmath>

#include "survey/data_point.h"

// Horizontal distance in single precision.
inline float Horizontal_Distance(const double *a, const double *b) {
  const float dx = static_cast<float>(a[0] - b[0]);
  const float dy = static_cast<float>(a[1] - b[1]);
  return std::sqrt(dx * dx + dy * dy);
}

// 1/r of the horizontal distance; a zero distance adds nothing (the pair then
// stands on one vertical, where the horizontal form has no meaning).
inline double Reciprocal_Horizontal(const double *a, const double *b) {
  const float r = Horizontal_Distance(a, b);
  return r > 0.0f ? 1.0 / r : 0.0;
}

// 1/r + 1/r' with r' the distance to the image of b above the surface.
inline double Image_Term(const double *a, const double *b) {
  const double dx = a[0] - b[0], dy = a[1] - b[1];
  const double h2 = dx * dx + dy * dy;
  const double dz = a[2] - b[2], sz = a[2] + b[2];
  const double r = std::sqrt(h2 + dz * dz), ri = std::sqrt(h2 + sz * sz);
  return (r > 0.0 ? 1.0 / r : 0.0) + (ri > 0.0 ? 1.0 / ri : 0.0);
}

// term(C1,P1) - term(C1,P2) - term(C2,P1) + term(C2,P2), over the pairs the
// point has.
template <class Term> double Sum_Pair_Terms(const Data_Point &d, Term term) {
  double k = term(d.c1, d.p1);
  if (d.nelec > 2)
    k -= term(d.c1, d.p2);
  if (d.nelec == 4)
    k += term(d.c2, d.p2) - term(d.c2, d.p1);
  return k;
}

// K of the surface form, from horizontal distances.
inline double Sum_Reciprocal_Horizontal(const Data_Point &d) {
  return Sum_Pair_Terms(d, Reciprocal_Horizontal);
}

// K of the image form, for buried electrodes.
inline double Sum_Image(const Data_Point &d) {
  return Sum_Pair_Terms(d, Image_Term);
}

inline bool All_Depths_Zero(const Data_Point &d) {
  return d.c1[2] == 0.0 && d.c2[2] == 0.0 && d.p1[2] == 0.0 && d.p2[2] == 0.0;
}

inline bool Same_Place(const double *a, const double *b) {
  return std::fabs(a[0] - b[0]) < 1e-6 && std::fabs(a[1] - b[1]) < 1e-6 &&
         std::fabs(a[2] - b[2]) < 1e-6;
}

inline void Swap_Positions(double *a, double *b) {
  for (int j = 0; j < 3; j++) {
    const double t = a[j];
    a[j] = b[j];
    b[j] = t;
  }
}
