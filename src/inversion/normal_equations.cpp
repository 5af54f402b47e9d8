// The normal equations of the damped least-squares step and their direct
// solution: M = J^T R J by DSYRK in blocks of Jacobian rows, the damping
// terms (roughness filter, Marquardt, fixed cells, barrier) and a dense
// Cholesky factorisation in double precision.
#include <cblas.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian_compression.h"
#include "survey/survey_text.h"

extern "C" {
void dpotrf_(const char *uplo, const int *n, double *a, const int *lda, int *info);
void dpotrs_(const char *uplo, const int *n, const int *nrhs, const double *a, const int *lda,
             double *b, const int *ldb, int *info);
}

namespace {

// Rows of the Jacobian widened to doubles at once.
int64_t Hessian_Block_Rows(int64_t n, int64_t m) {
  int64_t rows = 2048;
  if (n > 100000 || m > 100000)
    rows = 512;
  else if (n > 50000 || m > 50000)
    rows = 1024;
  return std::max<int64_t>(1, std::min(rows, m / 4 > 0 ? m / 4 : m));
}

// Solves with the damped Hessian in memory. Returns the LAPACK error code,
// or -1 when the Hessian stage could not run.
int Direct_Solution(Data_Set &ds, double fmarq, const double *rhs, float *dm) {
  LS_State &ls = ds.LS;
  const int64_t n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  if (ls.jacobian_store_mode > 2) {
    Show_Text(ds, "Message", MK_WARNING,
              "Insufficient memory for Jacobian matrix.\nUse incomplete Gauss-Newton method\nwith "
              "data compression!");
    return -1;
  }
  std::vector<double> hess;
  std::vector<float> jac;
  try {
    hess.assign(n * n, 0.0);
    jac.resize(m * n);
  } catch (...) {
    Show_Text(ds, "Error Message", MK_WARNING,
              "Insufficient memory for Standard Gauss-Newton method!\nUse the iterative "
              "Incomplete Gaus-Newton method.");
    return -1;
  }
  progress(ds, "Read Jacobian", 0.0);
  if (Read_Jacobian_Change_Ordering(ds, ds.file_names.temp[TF_GRROWT], m, n, jac.data()))
    return -1;
  std::vector<float> rw;
  const bool weighted = Jacobian_Row_Weights(ds, ls.dataconstr, true, rw);
  progress(ds, "Calculate Hessian", 0.0);
  progress(ds, "Calculating normal equations 2..", 0.0);
  const auto t0 = Clock::now();
  const int saved_mode = ls.jacobian_store_mode;
  ls.jacobian_store_mode = 2;
  if (Normal_Equations_Lapack(ds, jac.data(), m, n, weighted ? rw.data() : nullptr, hess.data())) {
    ls.jacobian_store_mode = saved_mode;
    Show_Text(ds, "Error Message", MK_WARNING,
              "Error in calculations for the normal equations for Gauss-Newton method!\nUse the "
              "iterative Incomplete Gaus-Newton method.");
    return -1;
  }
  ls.time_normal += Seconds_Since(t0);
  std::vector<float>().swap(jac);
  progress(ds, "Modifying Hessian", 0.0);
  const int rangebound = ls.nitcount > 1 ? ds.LS_method.rangebound : 0;
  Modify_Hessian(ds, rangebound, fmarq, hess.data(), n);
  if (ds.Sens_reso.Cal_Model_Reso == 1) {
    progress(ds, "Saving modified Hessian file", 0.0);
    FILE *f = std::fopen(ds.file_names.temp[TF_HESS_DAMP].c_str(), "wb");
    if (f) {
      std::fwrite(hess.data(), sizeof(double), n * n, f);
      std::fclose(f);
    }
  }
  progress(ds, "Copy ca[]", 0.0);
  std::vector<double> x(rhs, rhs + n);
  progress(ds, "Direct solution least-squares equation", 0.0);
  const auto t1 = Clock::now();
  const int info = Cholesky_Dense_Solution_Double(hess.data(), n, x.data());
  ls.time_chol += Seconds_Since(t1);
  ls.jacobian_store_mode = saved_mode;
  if (info > 0)
    return info;
  for (int64_t i = 0; i < n; i++)
    dm[i] = static_cast<float>(x[i]);
  return info;
}

} // namespace

int Normal_Equations_Lapack(Data_Set &ds, float *jac, int64_t m, int64_t n, const float *rd,
                            double *hess) {
  // Robust weights: rows scaled by sqrt(R) so that the product is J^T R J,
  // scaled back afterwards.
  if (rd) {
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < m; i++) {
      const float s = std::sqrt(rd[i]);
      for (int64_t j = 0; j < n; j++)
        jac[i * n + j] *= s;
    }
  }
  const int64_t rows = Hessian_Block_Rows(n, m);
  std::vector<double> buf;
  try {
    buf.resize(rows * n);
  } catch (...) {
    return 1;
  }
  std::fill(hess, hess + n * n, 0.0);
  for (int64_t r0 = 0; r0 < m; r0 += rows) {
    const int64_t nr = std::min(rows, m - r0);
    Progress_Text(ds, static_cast<double>(r0) / m, "Calculating normal equations block %.2f%%",
                  100.0 * r0 / m);
    const float *src = jac + r0 * n;
    double *dst = buf.data();
#pragma omp parallel for schedule(static)
    for (int64_t k = 0; k < nr * n; k++)
      dst[k] = src[k];
    // The block's rows are the columns of an n x nr column-major matrix B;
    // B B^T adds their outer products.
    cblas_dsyrk(CblasColMajor, CblasLower, CblasNoTrans, static_cast<int>(n), static_cast<int>(nr),
                1.0, dst, static_cast<int>(n), 1.0, hess, static_cast<int>(n));
  }
  // Both triangles, so that the damping terms can go to either.
  for (int64_t j = 0; j < n; j++)
    for (int64_t i = j + 1; i < n; i++)
      hess[i * n + j] = hess[j * n + i];
  if (rd) {
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < m; i++) {
      const float s = std::sqrt(rd[i]);
      if (s > 0.0f)
        for (int64_t j = 0; j < n; j++)
          jac[i * n + j] /= s;
    }
  }
  return 0;
}

double Barrier_Value(const LS_Method &lm, double r, double s) {
  if (!(r > 0.0) || !(s > 0.0))
    return lm.barrier_max;
  const double p = lm.barrier_exponent;
  const double b = std::pow(r / (s * lm.rangeup), p) + std::pow(s * lm.rangelow / r, p);
  return std::min(lm.barrier_max, b);
}

void Modify_Hessian(Data_Set &ds, int rangebound, double fmarq, double *hess, int64_t n) {
  const Sparse_Upper &f = ds.LS.F;
  for (int64_t i = 0; i < n; i++) {
    double add, b, rough;
    Damping_Terms(ds, rangebound, fmarq, i, add, b, rough);
    hess[i * n + i] += fmarq * b + add;
    if (i >= f.n)
      continue;
    for (int k = f.row[i] - 1; k < f.row[i + 1] - 1; k++) {
      const int64_t j = f.col[k] - 1;
      const double v = fmarq * rough * f.val[k];
      hess[j * n + i] += v;
      if (j != i)
        hess[i * n + j] += v;
    }
  }
}

int Cholesky_Dense_Solution_Double(double *hess, int64_t n, double *b) {
  const int nn = static_cast<int>(n), one = 1;
  int info = 0;
  TRACE("Solve Cholesky Dense n %d\n i   a[]\n", nn);
  dpotrf_("L", &nn, hess, &nn, &info);
  if (info != 0)
    return info;
  dpotrs_("L", &nn, &one, hess, &nn, b, &nn, &info);
  return info;
}

namespace {

// The conjugate-gradient roads: the filter with the damping inside, then the
// compressed or the dense product.
int Solve_Conjugate_Gradient_Road(Data_Set &ds, double fmarq, const double *rhs, float *dm) {
  LS_State &ls = ds.LS;
  const int64_t n = ds.Model_grid.nmodel_blocks;
  const int rangebound = ls.nitcount > 1 ? ds.LS_method.rangebound : 0;
  progress(ds, "Linear conjugate-gradient solution", 0.0);
  Sparse_Upper fp;
  Modify_Roughness_Filter_LCG(ds, rangebound, fmarq, fp, n);
  if (ds.Sens_reso.Cal_Model_Reso == 1) {
    const std::string &path = ds.file_names.temp[TF_SPACE_MOD_FILTER];
    FILE *f = std::fopen(path.c_str(), "wb");
    const size_t e = fp.col.size();
    const bool ok = f && std::fwrite(fp.row.data(), sizeof(int), n + 1, f) == size_t(n + 1) &&
                    std::fwrite(fp.col.data(), sizeof(int), e, f) == e &&
                    std::fwrite(fp.val.data(), sizeof(float), e, f) == e;
    if (f)
      std::fclose(f);
    if (!ok) {
      Show_Text(ds, "Filter File Error Message", MK_WARNING,
                "Error in creating modified filter file/n%s.", path.c_str());
      ds.Sens_reso.Cal_Model_Reso = 0;
    }
  }
  const auto t0 = Clock::now();
  const int ierr = ds.LS_method.data_compression
                       ? Solve_Linear_CG_Wavelet(ds, ls.dataconstr, fp, rhs, dm)
                       : Solve_Linear_CG_Dense(ds, ls.dataconstr, fp, rhs, dm);
  ls.time_cg += Seconds_Since(t0);
  return ierr;
}

} // namespace

int Solve_Constrained_Least_Squares_Equation(Data_Set &ds, double fmarq, float *dm) {
  LS_State &ls = ds.LS;
  const int64_t n = ds.Model_grid.nmodel_blocks;
  std::vector<double> rhs(ls.ca.begin(), ls.ca.begin() + n);
  Modify_RHS_Vector_Roughness_Filter(ds, ls.rt.data(), fmarq, rhs.data());
  if (ds.ntime > 1)
    return Refuse_Always(ds, "Message", "Time-lapse inversion is not available in this version.");
  if (ds.LS_method.incomplete_solve >= 2)
    return Solve_Conjugate_Gradient_Road(ds, fmarq, rhs.data(), dm);
  TRACE("Direct Gauss-Newton method\n");
  const int info = Direct_Solution(ds, fmarq, rhs.data(), dm);
  if (info > 0)
    Show_Text(ds, "Error message", MK_WARNING,
              "Error in least-squares solution step\nError code %d", info);
  return info != 0 ? 1 : 0;
}
