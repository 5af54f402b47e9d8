// The roughness filter F = Dx^T Dx + Dy^T Dy + Dz^T Dz of the weighted
// one-sided difference operators of log(resistivity), held by its upper rows,
// and the model roughness of the L-curve.
//
// Each operator is a set of rows, one per difference: the plain difference of
// a cell with its next cell in x, y or z, and the diagonal differences of
// roughness_weights.h when their filters are on. A row is written only where
// the neighbour exists and lies in the same sharp-boundary group. A plain
// row holds -w at the cell and +w at the next; the extended horizontal filter
// adds e w and e^2 w at the cells after it (e = extended_filter_weight) with
// -(1 + e + e^2) w at the cell, so every row sums to zero. The rows are
// one-based (row starts from 1, columns from 1). With the L1 model norm each
// row is reweighted by 1 / sqrt(diff^2 + epsm^2) of its present difference,
// so F = D^T R D.
#include <omp.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "inversion/inversion.h"
#include "inversion/roughness_weights.h"

namespace {

// One difference operator in row form plus its column form.
struct Difference_Operator {
  int nrow = 0;
  int64_t nent = 0;
  Block_Array<int> row; // nrow + 1 starts, from 1
  Block_Array<int> col; // cell, from 1
  Block_Array<float> val;
  Block_Array<float> rw;   // weight of each row in the product: 1, or the L1 weight
  Block_Array<int> cstart; // column form: n + 1 starts, from 0
  Block_Array<int> crow;   // row, from 0
  Block_Array<float> cval; // value
};

int Too_Large(Data_Set &ds) {
  show_message(ds, "The roughness filter is too large for this model.", "Roughness Filter");
  return 1;
}

// Rows of operator `op` for every cell and stencil that belongs to it.
int Set_Filter_Rows(Data_Set &ds, const Filter_Weights &w, const Filter_Stencil *st, int nst,
                    int op, Difference_Operator &d) {
  const int ext = std::clamp(ds.LS_method.extended_horizontal_filter, 0, 2);
  const float diagw = static_cast<float>(ds.LS_method.diag_filter_weight);
  int per_cell = 0;
  for (int s = 0; s < nst; s++)
    per_cell += st[s].op == op;
  const int64_t maxrow = static_cast<int64_t>(w.n) * per_cell;
  const int64_t maxent = maxrow * (2 + ext);
  if (maxent >= INT_MAX)
    return Too_Large(ds);
  if (d.row.Resize(ds, maxrow + 1, "roughness filter rows") ||
      d.col.Resize(ds, maxent, "roughness filter columns") ||
      d.val.Resize(ds, maxent, "roughness filter values") ||
      d.rw.Resize(ds, maxrow, "roughness filter row weights"))
    return 1;
  const bool groups = w.ngroups > 1;
  const auto same_group = [&](int a, int b) { return !groups || w.group[a] == w.group[b]; };
  int64_t e = 0;
  int r = 0;
  d.row[0] = 1;
  int m = 0;
  for (int k = 1; k <= w.nz; k++)
    for (int j = 1; j <= w.ny; j++)
      for (int i = 1; i <= w.nx; i++, m++) {
        const float rowsw[3] = {w.row[0][m], w.row[1][m], w.row[2][m]};
        for (int s = 0; s < nst; s++) {
          const Filter_Stencil &t = st[s];
          if (t.op != op)
            continue;
          const auto cell = [&](int step) {
            const int a = i + step * t.di, b = j + step * t.dj, c = k + step * t.dk;
            if (a < 1 || a > w.nx || b < 1 || b > w.ny || c < 1 || c > w.nz)
              return -1;
            return (c - 1) * w.nx * w.ny + (b - 1) * w.nx + a - 1;
          };
          const int next = cell(1);
          if (next < 0 || !same_group(m, next))
            continue;
          const float wt = Stencil_Weight(t, rowsw, diagw);
          const int64_t centre = e;
          d.col[e] = m + 1, d.val[e++] = -wt;
          d.col[e] = next + 1, d.val[e++] = wt;
          // Extended horizontal filter: the cells after next, with weights
          // e and e^2 relative to the next one.
          float extw = wt;
          for (int step = 2; !t.diag && t.op < 2 && step <= ext + 1; step++) {
            const int far = cell(step);
            if (far < 0 || !same_group(m, far))
              break;
            extw *= extended_filter_weight;
            d.col[e] = far + 1, d.val[e++] = extw;
            d.val[centre] -= extw;
          }
          d.row[++r] = static_cast<int>(e + 1);
        }
      }
  d.nrow = r;
  d.nent = e;
  return 0;
}

// Column form of an operator: for each cell the rows that hold it.
int Convert_Filter_Row_To_Col(Data_Set &ds, int n, Difference_Operator &d) {
  if (d.cstart.Resize(ds, n + 1, "roughness filter column starts") ||
      d.crow.Resize(ds, d.nent, "roughness filter column rows") ||
      d.cval.Resize(ds, d.nent, "roughness filter column values"))
    return 1;
  for (int64_t e = 0; e < d.nent; e++)
    d.cstart[d.col[e]]++;
  for (int c = 0; c < n; c++)
    d.cstart[c + 1] += d.cstart[c];
  std::vector<int> fill(d.cstart.data(), d.cstart.data() + n);
  for (int r = 0; r < d.nrow; r++)
    for (int e = d.row[r] - 1; e < d.row[r + 1] - 1; e++) {
      const int c = d.col[e] - 1, at = fill[c]++;
      d.crow[at] = r;
      d.cval[at] = d.val[e];
    }
  return 0;
}

// Product weight of each row: 1 under the L2 norm, else the inverse of the
// smoothed size of the row's present difference of log(model); with the
// sensitivity damping acting directly, sqrt(damp_ac) of the row's cell.
void Set_Row_Product_Weights(const LS_Method &lm, const std::vector<double> &q, int modelconstr,
                             double epsm, const float *damp_ac, Difference_Operator &d) {
  for (int r = 0; r < d.nrow; r++) {
    double f = 1.0;
    if (modelconstr != 0) {
      double diff = 0.0;
      for (int e = d.row[r] - 1; e < d.row[r + 1] - 1; e++)
        diff += d.val[e] * q[d.col[e] - 1];
      const float df = static_cast<float>(diff);
      f = 1.0 / std::sqrt(static_cast<double>(df) * df + epsm * epsm);
    }
    if (damp_ac && lm.sensitivity_damp_direct)
      f *= std::sqrt(static_cast<double>(damp_ac[d.col[d.row[r] - 1] - 1]));
    d.rw[r] = static_cast<float>(f);
  }
}

// Row i (from 0) of the product, the diagonal term `diag` added: the sorted
// columns (from 0, each >= i) into cols, the values left in acc[col].
void Product_Row(int i, const Difference_Operator *ops, double diag, double *acc, int *mark,
                 std::vector<int> &cols) {
  cols.clear();
  const auto touch = [&](int c) {
    if (mark[c] != i + 1) {
      mark[c] = i + 1;
      acc[c] = 0.0;
      cols.push_back(c);
    }
  };
  touch(i);
  acc[i] = diag;
  for (int o = 0; o < 3; o++) {
    const Difference_Operator &d = ops[o];
    for (int k = d.cstart[i]; k < d.cstart[i + 1]; k++) {
      const int r = d.crow[k];
      const double v = static_cast<double>(d.cval[k]) * d.rw[r];
      for (int e = d.row[r] - 1; e < d.row[r + 1] - 1; e++) {
        const int c = d.col[e] - 1;
        if (c < i)
          continue;
        touch(c);
        acc[c] += v * d.val[e];
      }
    }
  }
  std::sort(cols.begin(), cols.end());
}

// F = sum of D^T R D over the three operators plus `diag` on the diagonal,
// rows in parallel: a first pass counts each row's entries, the second fills
// them in place.
int Filter_XYZ_Hessian(Data_Set &ds, int n, const Difference_Operator *ops,
                       const std::vector<double> &diag, Sparse_Upper &f) {
  const int nthreads = std::max(1, omp_get_max_threads());
  Block_Array<double> acc;
  Block_Array<int> mark;
  if (acc.Resize(ds, static_cast<int64_t>(n) * nthreads, "roughness filter scratch rows") ||
      mark.Resize(ds, static_cast<int64_t>(n) * nthreads, "roughness filter scratch marks"))
    return 1;
  f.n = n;
  f.row.assign(static_cast<size_t>(n) + 1, 1);
  for (int pass = 0; pass < 2; pass++) {
    std::fill(mark.data(), mark.data() + mark.size(), 0);
#pragma omp parallel num_threads(nthreads)
    {
      const int64_t t = omp_get_thread_num();
      double *a = acc.data() + t * n;
      int *mk = mark.data() + t * n;
      std::vector<int> cols;
#pragma omp for schedule(dynamic, 256)
      for (int i = 0; i < n; i++) {
        Product_Row(i, ops, diag[i], a, mk, cols);
        if (pass == 0) {
          f.row[i + 1] = static_cast<int>(cols.size());
          continue;
        }
        int at = f.row[i] - 1;
        for (const int c : cols) {
          f.col[at] = c + 1;
          f.val[at++] = static_cast<float>(a[c]);
        }
      }
    }
    if (pass == 0) {
      int64_t total = 1;
      for (int i = 0; i < n; i++) {
        total += f.row[i + 1];
        if (total >= INT_MAX)
          return Too_Large(ds);
        f.row[i + 1] = static_cast<int>(total);
      }
      f.col.assign(static_cast<size_t>(total - 1), 0);
      f.val.assign(static_cast<size_t>(total - 1), 0.0f);
    }
  }
  return 0;
}

} // namespace

int Calculate_Roughness_Filters(Data_Set &ds, const float *model, int modelconstr, double wsdamp,
                                double epsm, const float *damp_ac, Sparse_Upper &f) {
  const LS_Method &lm = ds.LS_method;
  Filter_Weights w;
  if (!model || Set_Filter_Weights(ds, damp_ac, w))
    return 1;
  const int n = w.n;
  std::vector<double> q(static_cast<size_t>(n));
  for (int m = 0; m < n; m++)
    q[m] = std::log(std::max(static_cast<double>(model[m]), 1e-30));

  Filter_Stencil st[max_filter_stencils];
  const int nst = Filter_Stencils(lm, st);
  Difference_Operator ops[3];
  static const char *names[3] = {"X", "Y", "Z"};
  for (int o = 2; o >= 0; o--) {
    TRACE("Filter %s\n", names[o]);
    if (Set_Filter_Rows(ds, w, st, nst, o, ops[o]))
      return 1;
    Set_Row_Product_Weights(lm, q, modelconstr, epsm, damp_ac, ops[o]);
    if (Convert_Filter_Row_To_Col(ds, n, ops[o]))
      return 1;
  }

  // Reference damping on the diagonal: wsdamp times the cell filter weight,
  // reweighted under the L1 norm by the distance from the reference model.
  std::vector<double> diag(static_cast<size_t>(n), 0.0);
  if (wsdamp > 0.0) {
    const std::vector<float> &ref = ds.LS.reference;
    const bool per_cell = ref.size() >= static_cast<size_t>(n);
    for (int m = 0; m < n; m++) {
      diag[m] = wsdamp * w.cell[3][m];
      if (modelconstr != 0) {
        const double r = per_cell ? ref[m] : ds.LS.reference_value;
        const double v = std::max(std::fabs(q[m] - r), 1e-4);
        diag[m] /= std::sqrt(v * v + epsm * epsm);
      }
    }
  }
  if (Filter_XYZ_Hessian(ds, n, ops, diag, f))
    return 1;
  TRACE("Calculate_Roughness_Filters n %d rows %d %d %d entries %lld modelconstr %d\n", n,
        ops[0].nrow, ops[1].nrow, ops[2].nrow, static_cast<long long>(f.Entries()), modelconstr);
  return 0;
}

int Set_Roughness_Filters(Data_Set &ds) {
  const Clock::time_point t0 = Clock::now();
  const LS_Method &lm = ds.LS_method;
  const size_t n = static_cast<size_t>(std::max(ds.Model_grid.nmodel_blocks, 0));
  if (n == 0 || ds.LS.rt.size() < n) {
    show_message(ds, "The model has not been set up for the roughness filter.", "Roughness Filter");
    return 1;
  }
  progress(ds, "Calculate roughness filters", 0.0);
  const double wsdamp = lm.use_reference ? lm.wsdamp : 0.0;
  const float *damp_ac =
      lm.use_sensitivity_damp && ds.LS.damp_ac.size() >= n ? ds.LS.damp_ac.data() : nullptr;
  const int ierr = Calculate_Roughness_Filters(ds, ds.LS.rt.data(), ds.LS.modelconstr, wsdamp,
                                               lm.epsm, damp_ac, ds.LS.F);
  ds.LS.time_rough_filter = Seconds_Since(t0);
  progress(ds, "Calculate roughness filters", 1.0);
  return ierr;
}

// Mean over the neighbour pairs (the stencils of the filter, diagonal ones
// included when their filters are on, none across a sharp boundary) of
// r = (log a - log b) w (c[a] + c[b]), w the direction weight and c the
// sensitivity damping of the cells (1.0 without it): the mean of |r| for the
// L1 norm, the root of the mean of r^2 for the L2 norm.
double Calculate_Model_Roughness_Resis_Iter(Data_Set &ds, const float *model, int norm) {
  const Model_Grid &g = ds.Model_grid;
  const LS_Method &lm = ds.LS_method;
  Filter_Weights w;
  w.nx = g.nblockx, w.ny = g.nblocky, w.nz = g.nlayers;
  w.n = w.nx * w.ny * w.nz;
  if (!model || w.n < 1 || w.n > g.nmodel_blocks || Set_Sharp_Boundary_Groups(ds, w))
    return 0.0;
  Filter_Direction_Weights(lm, w.wx, w.wy, w.wz);
  const float dirw[3] = {w.wx, w.wy, w.wz};
  const float *c = lm.use_sensitivity_damp && ds.LS.damp_ac.size() >= static_cast<size_t>(w.n)
                       ? ds.LS.damp_ac.data()
                       : nullptr;
  Filter_Stencil st[max_filter_stencils];
  const int nst = Filter_Stencils(lm, st);
  double sum = 0.0;
  int64_t npairs = 0;
  for (int s = 0; s < nst; s++) {
    const Filter_Stencil &t = st[s];
    const double ws = Stencil_Weight(t, dirw, static_cast<float>(lm.diag_filter_weight));
    for (int k = 1; k + t.dk <= w.nz; k++)
      for (int j = std::max(1, 1 - t.dj); j <= std::min(w.ny, w.ny - t.dj); j++)
        for (int i = std::max(1, 1 - t.di); i <= std::min(w.nx, w.nx - t.di); i++) {
          const int a = g.Block_Number(i, j, k) - 1,
                    b = g.Block_Number(i + t.di, j + t.dj, k + t.dk) - 1;
          if (w.ngroups > 1 && w.group[a] != w.group[b])
            continue;
          const double la = std::log(std::max(static_cast<double>(model[a]), 1e-30)),
                       lb = std::log(std::max(static_cast<double>(model[b]), 1e-30));
          const double r = (la - lb) * ws * (c ? c[a] + c[b] : 2.0);
          sum += norm == 1 ? std::fabs(r) : r * r;
          npairs++;
        }
  }
  if (npairs == 0)
    return 0.0;
  const double mean = sum / static_cast<double>(npairs);
  return norm == 1 ? mean : std::sqrt(mean);
}
