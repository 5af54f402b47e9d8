// The products of the conjugate-gradient roads, (J^T R J + F') x: from the
// Jacobian held whole in memory (two SGEMV calls), or from its compressed
// rows in the wavelet domain (one forward transform of x, one pass over the
// stored coefficients, one inverse transform); and the two solve entries.
#include <cblas.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <vector>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/memory.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian_compression.h"
#include "jacobian/wavelet.h"
#include "survey/survey_text.h"

namespace {

// F' with both triangles, so that each row's product is its own.
struct Filter_Full {
  int64_t n = 0;
  std::vector<int64_t> row;
  std::vector<int> col;
  std::vector<float> val;
};

void Expand_Filter(const Sparse_Upper &f, int64_t n, Filter_Full &full) {
  std::vector<int64_t> count(n + 1, 0);
  for (int64_t i = 0; i < f.n; i++)
    for (int k = f.row[i] - 1; k < f.row[i + 1] - 1; k++) {
      count[i + 1]++;
      if (f.col[k] - 1 != i)
        count[f.col[k]]++;
    }
  full.n = n;
  full.row.assign(n + 1, 0);
  for (int64_t i = 0; i < n; i++)
    full.row[i + 1] = full.row[i] + count[i + 1];
  full.col.resize(full.row[n]);
  full.val.resize(full.row[n]);
  std::vector<int64_t> at(full.row.begin(), full.row.end() - 1);
  for (int64_t i = 0; i < f.n; i++)
    for (int k = f.row[i] - 1; k < f.row[i + 1] - 1; k++) {
      const int64_t j = f.col[k] - 1;
      full.col[at[i]] = static_cast<int>(j);
      full.val[at[i]++] = f.val[k];
      if (j != i) {
        full.col[at[j]] = static_cast<int>(i);
        full.val[at[j]++] = f.val[k];
      }
    }
}

// y = F' x, each row a reduction of its own.
void Filter_Product(const Filter_Full &f, const float *x, float *y) {
#pragma omp parallel for schedule(static)
  for (int64_t i = 0; i < f.n; i++) {
    double s = 0.0;
    for (int64_t k = f.row[i]; k < f.row[i + 1]; k++)
      s += static_cast<double>(f.val[k]) * x[f.col[k]];
    y[i] = static_cast<float>(s);
  }
}

struct Dense_Context {
  const float *jac = nullptr;
  int64_t m = 0, n = 0;
  const float *rw = nullptr; // row weights, null for 1
  Filter_Full f;
  std::vector<float> t;
};

void Dense_Apply(void *c, const float *x, float *y) {
  Dense_Context &d = *static_cast<Dense_Context *>(c);
  Filter_Product(d.f, x, y);
  const int m = static_cast<int>(d.m), n = static_cast<int>(d.n);
  cblas_sgemv(CblasRowMajor, CblasNoTrans, m, n, 1.0f, d.jac, n, x, 1, 0.0f, d.t.data(), 1);
  if (d.rw)
    for (int64_t k = 0; k < d.m; k++)
      d.t[k] *= d.rw[k];
  cblas_sgemv(CblasRowMajor, CblasTrans, m, n, 1.0f, d.jac, n, d.t.data(), 1, 1.0f, y, 1);
}

// Adds s_i c_i over the rows into the per-thread sums, where s_i is t[i]
// when t is given, else rw_i (c_i . vw) (rw null for 1). Rows go to the
// threads in fixed shares, so the sums do not depend on timing.
void Scatter_Rows(const Compressed_Jacobian &cj, const float *val, const int *idx, int64_t base,
                  int64_t row0, int64_t rows, const double *t, const float *vw, const float *rw,
                  std::vector<double> &acc) {
  const int threads = std::max(1, omp_get_max_threads());
  const int64_t n2 = cj.n2;
  acc.assign(static_cast<size_t>(threads) * n2, 0.0);
#pragma omp parallel num_threads(threads)
  {
    double *a = acc.data() + static_cast<int64_t>(omp_get_thread_num()) * n2;
#pragma omp for schedule(static)
    for (int64_t r = 0; r < rows; r++) {
      const int64_t i = row0 + r;
      const int64_t k0 = cj.numwave[i] - base, k1 = cj.numwave[i + 1] - base;
      double s;
      if (t) {
        s = t[r];
      } else {
        s = 0.0;
        for (int64_t k = k0; k < k1; k++)
          s += static_cast<double>(val[k]) * vw[idx[k]];
        if (rw)
          s *= rw[i];
      }
      if (s == 0.0)
        continue;
      for (int64_t k = k0; k < k1; k++)
        a[idx[k]] += static_cast<double>(val[k]) * s;
    }
  }
}

struct Wavelet_Context {
  const Compressed_Jacobian *cj = nullptr;
  const float *val = nullptr;
  const int *idx = nullptr;
  const float *rw = nullptr;
  int impl = WAVELET_PLAIN;
  Filter_Full f;
  std::vector<float> vw, work, jt;
  std::vector<double> acc;
};

void Wavelet_Apply(void *c, const float *x, float *y) {
  Wavelet_Context &w = *static_cast<Wavelet_Context *>(c);
  const Compressed_Jacobian &cj = *w.cj;
  Filter_Product(w.f, x, y);
  Model_To_Wavelet_Row(cj, x, w.vw.data(), w.work.data(), w.impl);
  Scatter_Rows(cj, w.val, w.idx, 0, 0, cj.mdata, nullptr, w.vw.data(), w.rw, w.acc);
  Wavelet_Acc_To_Model(cj, w.acc, w.impl, w.jt.data());
  for (int64_t i = 0; i < cj.nmodel; i++)
    y[i] += w.jt[i];
}

} // namespace

void Wavelet_Scatter_Rows(const Compressed_Jacobian &cj, const float *val, const int *idx,
                          int64_t base, int64_t row0, int64_t rows, const double *t,
                          std::vector<double> &acc) {
  Scatter_Rows(cj, val, idx, base, row0, rows, t, nullptr, nullptr, acc);
}

void Wavelet_Acc_To_Model(const Compressed_Jacobian &cj, const std::vector<double> &acc, int impl,
                          float *out) {
  const int64_t n2 = cj.n2, threads = static_cast<int64_t>(acc.size()) / std::max<int64_t>(n2, 1);
  std::vector<float> row(n2), work(n2);
  for (int64_t k = 0; k < n2; k++) {
    double s = 0.0;
    for (int64_t t = 0; t < threads; t++)
      s += acc[t * n2 + k];
    row[k] = static_cast<float>(s);
  }
  Wavelet_Row_To_Model(cj, row.data(), work.data(), impl, out);
}

int Solve_Linear_CG_Dense_Mem(Data_Set &ds, int dataconstr, const float *jac, int64_t m,
                              const Sparse_Upper &fp, const double *rhs, float *dm) {
  const int64_t n = ds.Model_grid.nmodel_blocks;
  Dense_Context c;
  c.jac = jac;
  c.m = m;
  c.n = n;
  std::vector<float> rw;
  if (Jacobian_Row_Weights(ds, dataconstr, true, rw))
    c.rw = rw.data();
  c.t.resize(m);
  Expand_Filter(fp, n, c.f);
  // The diagonal of J^T R J, gathered by thread over rows.
  const int threads = std::max(1, omp_get_max_threads());
  std::vector<double> part(static_cast<size_t>(threads) * n, 0.0), jdiag(n, 0.0);
#pragma omp parallel num_threads(threads)
  {
    double *p = part.data() + static_cast<int64_t>(omp_get_thread_num()) * n;
#pragma omp for schedule(static)
    for (int64_t i = 0; i < m; i++) {
      const double w = c.rw ? c.rw[i] : 1.0;
      const float *r = jac + i * n;
      for (int64_t j = 0; j < n; j++)
        p[j] += w * r[j] * r[j];
    }
  }
  for (int t = 0; t < threads; t++)
    for (int64_t j = 0; j < n; j++)
      jdiag[j] += part[t * n + j];
  std::vector<float> precond(n + 1, 1.0f);
  Set_Precondition_Matrix(ds, jdiag.data(), fp, n, precond.data());
  const CG_Product a{Dense_Apply, &c};
  return Start_Solve_Linear_Conjugate_Gradient(ds, a, precond.data(), rhs, dm, n, 0);
}

int Solve_Linear_CG_Dense(Data_Set &ds, int dataconstr, const Sparse_Upper &fp, const double *rhs,
                          float *dm) {
  const int64_t n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  // Not zero-filled: the file fills it, and the pages are touched only then.
  std::unique_ptr<float[]> jac;
  if (static_cast<double>(4 * m * n) <= 0.9 * static_cast<double>(Available_Memory_Bytes()))
    jac.reset(new (std::nothrow) float[m * n + 4]);
  if (!jac) {
    return Show_Text(ds, "Jacobian memory error", MK_WARNING,
                     "Not enough memory for Jacobian in linear conjugate solver.\nMemory needed "
                     "%lld bytes.\nUse wavelet compression method.",
                     static_cast<long long>(4 * m * n + 16));
  }
  const std::string &path = ds.file_names.temp[TF_GRROWT];
  if (gradlod(ds, path, m, n, jac.get()))
    return 1;
  return Solve_Linear_CG_Dense_Mem(ds, dataconstr, jac.get(), m, fp, rhs, dm);
}

int Solve_Linear_CG_Wavelet(Data_Set &ds, int dataconstr, const Sparse_Upper &fp, const double *rhs,
                            float *dm) {
  const int64_t n = ds.Model_grid.nmodel_blocks;
  const Compressed_Jacobian &cj = ds.LS.wj;
  if (!cj.valid || cj.nmodel != n || cj.mdata != ds.mdata)
    return Show_Text(ds, "Error Message", MK_WARNING,
                     "Linear conjugate gradient method with wavelet\ncompression. Error %d in "
                     "reading compressed Jacobian file\n%s\n",
                     1, ds.file_names.temp[TF_GRADCOMP].c_str());
  std::vector<float> val;
  std::vector<int> idx;
  if (Load_Compressed_Jacobian(ds, val, idx))
    return 1;
  Wavelet_Context c;
  c.cj = &cj;
  c.val = val.data();
  c.idx = idx.data();
  c.impl = Wavelet_Impl_Of_Setting(ds.LS_method.wavelet_function_type);
  std::vector<float> rw;
  if (Jacobian_Row_Weights(ds, dataconstr, false, rw))
    c.rw = rw.data();
  c.vw.resize(cj.n2);
  c.work.resize(cj.n2);
  c.jt.resize(n);
  Expand_Filter(fp, n, c.f);
  std::vector<float> precond(n + 1, 1.0f);
  Set_Precond_Matrix_Wavelet(ds, dataconstr, fp, n, precond.data());
  const CG_Product a{Wavelet_Apply, &c};
  return Start_Solve_Linear_Conjugate_Gradient(ds, a, precond.data(), rhs, dm, n, 1);
}
