// The residual of a solve in double precision against the assembled
// matrix: the test and the right-hand side of mixed-precision refinement.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>

#include "forward/coo_matrix.h"

template <class R> R Matrix_Value(const CooMatrix64 &m, int64_t k);
template <> inline double Matrix_Value<double>(const CooMatrix64 &m, int64_t k) {
  return m.ad[k];
}
template <>
inline std::complex<double> Matrix_Value<std::complex<double>>(const CooMatrix64 &m, int64_t k) {
  return {m.ad[2 * k], m.ad[2 * k + 1]};
}

// r = b - A x for one column, in double, from the upper-triangle matrix
// (complex symmetric: no conjugation); r may be b itself. `acc` holds n
// values of scratch.
// Returns |r| / |b|.
template <class R, class X>
double Residual_Column(const CooMatrix64 &m, const X *x, const X *b, X *r, R *acc) {
  const int64_t n = m.n;
  std::fill(acc, acc + n, R(0));
  for (int64_t i = 0; i < n; i++) {
    const R xi = R(x[i]);
    R s = 0;
    for (int64_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; k++) {
      const int64_t j = m.ja[k] - 1;
      const R a = Matrix_Value<R>(m, k);
      s += a * R(x[j]);
      if (j != i)
        acc[j] += a * xi;
    }
    acc[i] += s;
  }
  double rn = 0.0, bn = 0.0;
  for (int64_t i = 0; i < n; i++) {
    const R bi = R(b[i]), d = bi - acc[i];
    r[i] = X(d);
    rn += std::norm(std::complex<double>(d));
    bn += std::norm(std::complex<double>(bi));
  }
  return bn > 0.0 ? std::sqrt(rn / bn) : 0.0;
}
