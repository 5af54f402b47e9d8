// The misfit vector, the robust data weights and the right-hand side of the
// least-squares equation: ca = J^T R y - fmarq F (q - q0).
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "inversion/inversion.h"
#include "jacobian/wavelet.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

// Misfit of one datum for the quantity inverted.
double Datum_Misfit(int appres_inv, double o, double c, double weight) {
  if (appres_inv == 0)
    return c > 0.0 && o > 0.0 ? std::log(o / c) : (o != 0.0 ? (o - c) / o : 0.0);
  if (appres_inv == 3) {
    if (std::fabs(c) > 0.0 && o != 0.0)
      return std::log((o * o) / (c * c));
    return o != 0.0 ? 2.0 * (o - c) / o : 0.0;
  }
  return (o - c) * weight;
}

// Weight of a datum for the linear misfits: its relative scale.
double Linear_Weight(const Data_Point &d) {
  return d.value != 0.0f ? 1.0 / std::fabs(static_cast<double>(d.value)) : 1.0;
}

// Sums the misfits under the norm: root mean square (L2) or mean absolute (L1).
double Misfit_Norm(const float *y, int m, const uint8_t *keep, int dataconstr) {
  double sum = 0.0;
  int count = 0;
  for (int i = 0; i < m; i++) {
    if (keep && !keep[i])
      continue;
    sum += dataconstr == 0 ? static_cast<double>(y[i]) * y[i] : std::fabs(y[i]);
    count++;
  }
  if (count == 0)
    return 0.0;
  return dataconstr == 0 ? std::sqrt(sum / count) : sum / count;
}

} // namespace

int Calculate_Initial_Data_Misfit(Data_Set &ds) {
  LS_State &ls = ds.LS;
  const int m = ds.mdata, n = ds.Model_grid.nmodel_blocks;
  // The start model: the average apparent resistivity (geometric mean of the
  // positive values, the mean of the logarithms being what the misfit sees).
  double sum = 0.0;
  int count = 0;
  for (int i = 0; i < m; i++)
    if (ds.dp[i].value > 0.0f) {
      sum += std::log(static_cast<double>(ds.dp[i].value));
      count++;
    }
  const double average = count > 0 ? std::exp(sum / count) : 100.0;
  ls.average_res = average;
  std::fill(ls.rt.begin(), ls.rt.begin() + n, static_cast<float>(average));
  std::fill(ls.dm.begin(), ls.dm.end(), 0.0f);
  for (int i = 0; i < m; i++) {
    double r = average;
    if (ds.appres_inv == 1) {
      // A resistance datum: the average times the geometric term of its
      // electrodes' horizontal distances.
      const Data_Point &d = ds.dp[i];
      auto dist = [](const double *a, const double *b) {
        return static_cast<float>(std::hypot(a[0] - b[0], a[1] - b[1]));
      };
      const float r1 = dist(d.c1, d.p1), r2 = dist(d.c1, d.p2), r3 = dist(d.c2, d.p1),
                  r4 = dist(d.c2, d.p2);
      double term = 1.0 / r1;
      if (d.nelec == 3)
        term = 1.0 / r1 - 1.0 / r2;
      else if (d.nelec == 4)
        term = 1.0 / r1 - 1.0 / r2 - 1.0 / r3 + 1.0 / r4;
      r = term / 6.2832 * average;
    }
    ls.rm[i] = static_cast<float>(r);
  }
  for (int i = 0; i < m; i++) {
    const double o = ds.dp[i].value;
    double y;
    if (ds.appres_inv == 0)
      y = o > 0.0 ? std::log(o) - std::log(average) : 0.0;
    else if (ds.appres_inv == 3)
      y = o > 0.0 ? std::log(o * o) - std::log(average) * std::log(average) : 0.0;
    else
      y = (o - ls.rm[i]) * Linear_Weight(ds.dp[i]);
    ls.ydiff[i] = static_cast<float>(y * ls.error_weight[i]);
  }
  ls.rmslog = ls.rmslog_res = Misfit_Norm(ls.ydiff.data(), m, ds.keep, 0);
  TRACE("Calculate_Initial_Data_Misfit average %.4f rmslog %.5f\n", average, ls.rmslog);
  return 0;
}

double Calculate_Absolute_Misfit(Data_Set &ds) {
  LS_State &ls = ds.LS;
  const int m = ds.mdata;
  for (int i = 0; i < m; i++) {
    const double y = Datum_Misfit(ds.appres_inv, ds.dp[i].value, ls.rm[i], Linear_Weight(ds.dp[i]));
    ls.ydiff[i] = static_cast<float>(y * ls.error_weight[i]);
  }
  ls.rmslog = ls.rmslog_res = Misfit_Norm(ls.ydiff.data(), m, ds.keep, ls.dataconstr);
  return ls.rmslog;
}

void Calculate_Data_Weights(const float *y, int m, int dataconstr, double eps, float *rd) {
  for (int i = 0; i < m; i++) {
    if (dataconstr == 0) {
      rd[i] = 1.0f;
      continue;
    }
    const float s = y[i] * y[i] + static_cast<float>(eps * eps);
    rd[i] = static_cast<float>(1.0 / std::sqrt(static_cast<double>(s)));
  }
}

int Jacobian_Block_Rows(double cache_gb, int64_t columns, int64_t m, bool halve) {
  int64_t rows =
      static_cast<int64_t>(cache_gb * 250.0 * 1024.0 * 1024.0) / std::max<int64_t>(columns, 1);
  if (halve)
    rows /= 2;
  rows = std::min<int64_t>(rows, 16384);
  if (rows > m / 2)
    rows = (m + 1) / 2;
  return static_cast<int>(std::max<int64_t>(rows, 16));
}

bool Jacobian_Row_Weights(const Data_Set &ds, int dataconstr, bool with_error,
                          std::vector<float> &w) {
  const LS_State &ls = ds.LS;
  const int m = ds.mdata;
  w.assign(m, 1.0f);
  bool any = false;
  for (int i = 0; i < m; i++) {
    double v = dataconstr ? ls.rd_res[i] : 1.0;
    if (with_error)
      v *= static_cast<double>(ls.error_weight[i]) * ls.error_weight[i];
    w[i] = static_cast<float>(v);
    any = any || w[i] != 1.0f;
  }
  return any;
}

namespace {

// ca = J^T d from the Jacobian file, in row blocks, a parallel loop over
// columns.
int RHS_From_Jacobian_File(Data_Set &ds, const double *d, double *ca) {
  const int64_t n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  progress(ds, "Calculate RHS without wavelet compression", 0.0);
  const std::string &path = ds.file_names.temp[TF_GRROWT];
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) {
    TRACE("Cannot open file\n%s\nfor reading!\n", path.c_str());
    return Show_Text(ds, "RHS Jacobian File Error", MK_WARNING,
                     "Cannot open file\n%s\nfor reading!\n", path.c_str());
  }
  const int64_t rows = Jacobian_Block_Rows(ds.ssd_cache, n, m, true);
  std::vector<float> buf;
  try {
    buf.resize(rows * n);
  } catch (...) {
    std::fclose(f);
    return Show_Text(
        ds, "RHS Error Message", MK_WARNING,
        "Error in allocating memory for calculating RHS.\nModel %d Data %d Buffer %lld",
        static_cast<int>(n), static_cast<int>(m), static_cast<long long>(rows * n));
  }
  int ierr = 0;
  for (int64_t r0 = 0; r0 < m; r0 += rows) {
    const int64_t nr = std::min(rows, m - r0);
    if (std::fread(buf.data(), sizeof(float), nr * n, f) != static_cast<size_t>(nr * n)) {
      ierr = Show_Text(ds, "RHS Jacobian File Error", MK_WARNING,
                       "Cannot open file\n%s\nfor reading!\n", path.c_str());
      break;
    }
    // Each thread owns a range of columns and walks the rows in storage
    // order over it.
#pragma omp parallel
    {
      const int64_t t = omp_get_thread_num(), nt = omp_get_num_threads();
      const int64_t j0 = n * t / nt, j1 = n * (t + 1) / nt;
      for (int64_t i = 0; i < nr; i++) {
        const double di = d[r0 + i];
        if (di == 0.0)
          continue;
        const float *row = buf.data() + i * n;
        for (int64_t j = j0; j < j1; j++)
          ca[j] += static_cast<double>(row[j]) * di;
      }
    }
  }
  std::fclose(f);
  return ierr;
}

// ca = J^T d from the compressed rows: the sums made in the wavelet domain,
// block by block of rows, then one inverse transform.
int RHS_From_Compressed_Jacobian(Data_Set &ds, const double *d, double *ca) {
  const Compressed_Jacobian &cj = ds.LS.wj;
  const int64_t n = cj.nmodel, m = cj.mdata;
  progress(ds, "Wavelet compression used. Using compressed Jacobian.", 0.0);
  const std::string &vpath = ds.file_names.temp[TF_GRADCOMP],
                    &ipath = ds.file_names.temp[TF_GRADCOMP_I];
  FILE *fv = std::fopen(vpath.c_str(), "rb"), *fi = std::fopen(ipath.c_str(), "rb");
  if (!fv || !fi) {
    for (FILE *f : {fv, fi})
      if (f)
        std::fclose(f);
    return Show_Text(ds, "RHS Jacobian File Error", MK_WARNING,
                     "Cannot open file\n%s\nfor reading!\n", (fv ? ipath : vpath).c_str());
  }
  const int64_t rows = Jacobian_Block_Rows(ds.ssd_cache, Max_Wavelet_Coefs(cj), m, true);
  std::vector<float> val, model(n);
  std::vector<double> total(cj.n2, 0.0);
  std::vector<int> idx;
  std::vector<double> acc;
  int ierr = 0;
  for (int64_t r0 = 0; r0 < m && !ierr; r0 += rows) {
    const int64_t nr = std::min(rows, m - r0);
    const int64_t base = cj.numwave[r0], count = cj.numwave[r0 + nr] - base;
    try {
      val.resize(count);
      idx.resize(count);
    } catch (...) {
      ierr =
          Show_Text(ds, "RHS Error Message", MK_WARNING,
                    "Error in allocating memory for calculating RHS.\nModel %d Data %d Buffer %lld",
                    static_cast<int>(n), static_cast<int>(m), static_cast<long long>(count));
      break;
    }
    if (std::fread(val.data(), sizeof(float), count, fv) != static_cast<size_t>(count) ||
        std::fread(idx.data(), sizeof(int), count, fi) != static_cast<size_t>(count)) {
      ierr = Show_Text(ds, "RHS Jacobian File Error", MK_WARNING,
                       "Cannot open file\n%s\nfor reading!\n", vpath.c_str());
      break;
    }
    Wavelet_Scatter_Rows(cj, val.data(), idx.data(), base, r0, nr, d + r0, acc);
    const int64_t threads = static_cast<int64_t>(acc.size()) / cj.n2;
    for (int64_t t = 0; t < threads; t++)
      for (int64_t k = 0; k < cj.n2; k++)
        total[k] += acc[t * cj.n2 + k];
  }
  std::fclose(fv);
  std::fclose(fi);
  if (ierr)
    return ierr;
  Wavelet_Acc_To_Model(cj, total, Wavelet_Impl_Of_Setting(ds.LS_method.wavelet_function_type),
                       model.data());
  for (int64_t j = 0; j < n; j++)
    ca[j] = model[j];
  return 0;
}

} // namespace

int Calculate_RHS(Data_Set &ds, int dataconstr, double *ca) {
  LS_State &ls = ds.LS;
  const int64_t n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  if (dataconstr)
    progress(ds, "Calcuting L1-norm for data misfits", 0.0);
  Calculate_Data_Weights(ls.ydiff.data(), static_cast<int>(m), dataconstr, ds.LS_method.eps,
                         ls.rd_res.data());
  // The compressed rows carry the error weights already; the file's rows
  // take them here, with the misfits.
  const bool compressed =
      ds.LS_method.data_compression > 0 && ls.wj.valid && ls.wj.nmodel == n && ls.wj.mdata == m;
  std::vector<double> d_dbl(m);
  for (int64_t i = 0; i < m; i++) {
    const double w = compressed ? 1.0 : ls.error_weight[i];
    d_dbl[i] = (ds.keep && !ds.keep[i]) ? 0.0 : w * static_cast<double>(ls.rd_res[i]) * ls.ydiff[i];
  }
  std::fill(ca, ca + n, 0.0);
  return compressed ? RHS_From_Compressed_Jacobian(ds, d_dbl.data(), ca)
                    : RHS_From_Jacobian_File(ds, d_dbl.data(), ca);
}

void Modify_RHS_Vector_Roughness_Filter(Data_Set &ds, const float *model, double fmarq,
                                        double *ca) {
  const LS_Method &lm = ds.LS_method;
  if (lm.smooth_model_res != 1)
    return;
  const LS_State &ls = ds.LS;
  const int n = ls.F.n;
  std::vector<double> p(n), g(n);
  for (int i = 0; i < n; i++) {
    p[i] = std::log(static_cast<double>(model[i]));
    if (lm.use_reference)
      p[i] -= ls.reference[i];
  }
  Filter_Multiply(ls.F, p.data(), g.data());
  for (int i = 0; i < n; i++)
    ca[i] -= fmarq * g[i];
}

double Calculate_Data_Misfit_Resis_Iter(Data_Set &ds, int norm) {
  const LS_State &ls = ds.LS;
  double sum = 0.0;
  int count = 0;
  for (int i = 0; i < ds.mdata; i++) {
    const double o = ds.dp[i].value, c = ls.rm[i];
    if (!(o > 0.0) || !(c > 0.0))
      continue;
    const double d = std::log(o) - std::log(c);
    sum += norm ? std::fabs(d) : d * d;
    count++;
  }
  if (count == 0)
    return 0.0;
  return norm ? sum / count : std::sqrt(sum / count);
}

double Calculate_Lcurve_Values_Resis_Iter(Data_Set &ds, int iteration, double fmarq) {
  LS_State &ls = ds.LS;
  const int dnorm = ds.LCurve.use_same_norm ? ls.dataconstr : 0;
  const int mnorm = ds.LCurve.use_same_norm ? ls.modelconstr : 0;
  const double misfit = Calculate_Data_Misfit_Resis_Iter(ds, dnorm);
  const double rough = Calculate_Model_Roughness_Resis_Iter(ds, ls.rt.data(), mnorm);
  const double objf = misfit + fmarq * rough;
  if (iteration > 0 && iteration < static_cast<int>(ls.hist_objf.size())) {
    ls.hist_misfit[iteration] = 100.0 * misfit;
    ls.hist_rough[iteration] = rough;
    ls.hist_objf[iteration] = objf;
    ls.hist_misfit_norm[iteration] = dnorm;
    ls.hist_rough_norm[iteration] = mnorm;
  }
  return objf;
}
