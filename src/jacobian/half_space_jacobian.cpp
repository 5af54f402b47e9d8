// The Jacobian of a homogeneous half-space: d log(apparent resistivity) /
// d log(cell resistivity) for unit resistivity, from the product of the
// field gradients of two surface point sources, and the sensitivity values
// it gives before any mesh exists. Sums are made row by row: two rows of
// nmodel values, never the whole matrix.
#include <algorithm>
#include <cmath>

#include "core/data_set.h"
#include "core/memory.h"
#include "core/trace.h"
#include "jacobian/jacobian.h"
#include "survey/survey_text.h"

// Average, extremes and the spare slot of the sensitivity sums (sensitivity.cpp).
void Finish_Sensitivity_Values(Data_Set &ds);

namespace {

// Terms of one cell: the source-receiver pairs with their signs, as many as
// the datum has electrodes. The sum is scaled by the cell volume and by the
// reciprocal of the datum's half-space voltage, so that the row over the
// whole half-space adds up to 1.
double Cell_Value(const Data_Point &d, const Model_Block &b) {
  const double x = b.xc, y = b.yc, z = b.zc;
  double s = Half_Space_Kernel(x, y, z, d.c1[0], d.c1[1], d.p1[0], d.p1[1]);
  if (d.nelec > 2)
    s -= Half_Space_Kernel(x, y, z, d.c1[0], d.c1[1], d.p2[0], d.p2[1]);
  if (d.nelec > 3)
    s = s - Half_Space_Kernel(x, y, z, d.c2[0], d.c2[1], d.p1[0], d.p1[1]) +
        Half_Space_Kernel(x, y, z, d.c2[0], d.c2[1], d.p2[0], d.p2[1]);
  const double scale = d.gfac != 0.0 ? 1.0 / d.gfac : 0.0;
  return s * b.vol * scale;
}

} // namespace

double Half_Space_Kernel(double x, double y, double z, double ax, double ay, double bx, double by) {
  const double u = x - ax, v = y - ay;
  const double us = u - (bx - ax), vs = v - (by - ay), w = z * z;
  const double d = (us * us + vs * vs + w) * (u * u + v * v + w);
  // 4 pi squared: the two unit-current fields 1 / (2 pi r) multiplied.
  return (us * u + vs * v + w) / (std::sqrt(d) * d * 39.47841877);
}

void Jacobian_Homogeneous_Seq(const Data_Set &ds, int idata, float *row) {
  const Data_Point &d = ds.dp[idata];
  const Model_Block *blocks = ds.Model_grid.blocks.data();
  const int n = ds.Model_grid.nmodel_blocks;
  for (int i = 0; i < n; i++)
    if (row[i] == 0.0f)
      row[i] = static_cast<float>(Cell_Value(d, blocks[i]));
}

int Calculated_Jacobian_Half_Space(Data_Set &ds) {
  const int m = ds.mdata, n = ds.Model_grid.nmodel_blocks;
  if (m <= 0 || n <= 0)
    return 0;
  LS_State &ls = ds.LS;
  if (ls.sens_reso.size() < static_cast<size_t>(n) + 2 ||
      ls.approx_reso.size() < static_cast<size_t>(n)) {
    TRACE("Calculated_Jacobian_Half_Space: arrays sized for %d cells, %d needed\n", ls.nmodel, n);
    return 1;
  }
  float *row = nullptr, *q = nullptr;
  if (Allocate_Values(ds, row, n, "half-space Jacobian row") ||
      Allocate_Values(ds, q, n, "half-space Jacobian squares")) {
    Free_Values(row);
    return 1;
  }
  std::fill(ls.sens_reso.begin(), ls.sens_reso.end(), 0.0f);
  Progress_Text(ds, 0.0, "Calculation Jacobian Homogeneous Half-Space %d", m);
  for (int i = 0; i < m; i++) {
    if (i % 16 == 0)
      Progress_Text(ds, static_cast<double>(i) / m, "Jacobian %d/%d", i + 1, m);
    std::fill(row, row + n, 0.0f);
    Jacobian_Homogeneous_Seq(ds, i, row);
    for (int j = 0; j < n; j++) {
      ls.sens_reso[j] += std::fabs(row[j]);
      q[j] += row[j] * row[j];
    }
  }
  for (int j = 0; j < n; j++)
    ls.approx_reso[j] = q[j] / (q[j] + 0.001f);
  Free_Values(row);
  Free_Values(q);
  Finish_Sensitivity_Values(ds);
  TRACE("Half-space sensitivity: %d data, %d cells, average %.4e min %.4e max %.4e\n", m, n,
        ls.sens_average, ls.sens_min, ls.sens_max);
  Calculate_Sensitivity_Constraints(ds);
  return 0;
}
