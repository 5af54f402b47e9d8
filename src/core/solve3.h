// A 3 x 3 linear system by Cramer's rule, for the small geometric fits
// (local coordinates in an element, least-squares planes).
#pragma once

#include <cmath>

inline double Det3(const double m[3][3]) {
  return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
         m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
         m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

// x with m x = r; false when the determinant is at most `tol` times the
// product of the diagonal's magnitudes (a singular or near-singular system).
inline bool Solve3(const double m[3][3], const double r[3], double x[3], double tol = 0.0) {
  const double det = Det3(m);
  if (!(std::fabs(det) > tol * std::fabs(m[0][0] * m[1][1] * m[2][2])) || det == 0.0)
    return false;
  for (int c = 0; c < 3; c++) {
    double t[3][3];
    for (int a = 0; a < 3; a++)
      for (int b = 0; b < 3; b++)
        t[a][b] = b == c ? r[a] : m[a][b];
    x[c] = Det3(t) / det;
  }
  return true;
}
