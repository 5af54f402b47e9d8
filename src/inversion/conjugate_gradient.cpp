// The incomplete Gauss-Newton road: the damped least-squares equation
// solved by preconditioned conjugate gradients without forming J^T R J.
// Vectors are 32-bit, dot products 64-bit; the best solution met is kept.
#include <algorithm>
#include <cmath>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "inversion/inversion.h"
#include "jacobian/wavelet.h"
#include "survey/survey_text.h"

namespace {

double Dot(const float *a, const float *b, int64_t n) {
  double s = 0.0;
#pragma omp parallel for reduction(+ : s) schedule(static) if (n > 65536)
  for (int64_t i = 0; i < n; i++)
    s += static_cast<double>(a[i]) * b[i];
  return s;
}

// r = b - A x.
void Residual(const CG_Product &a, const float *b, const float *x, float *r, int64_t n) {
  a.apply(a.ctx, x, r);
  for (int64_t i = 0; i < n; i++)
    r[i] = b[i] - r[i];
}

void Scale(const float *m, const float *r, float *s, int64_t n) {
  for (int64_t i = 0; i < n; i++)
    s[i] = m[i] * r[i];
}

// The words of the status lines of the two forms.
struct CG_Words {
  const char *iteration;
  const char *done;
  const char *best;
};

int CG_Recursion(Data_Set &ds, const CG_Product &a, const float *m, const float *b, float *x,
                 int64_t n, int initial_sol_vector, int refresh, const CG_Words &words) {
  LS_State &ls = ds.LS;
  std::vector<float> r(n + 1), d(n + 1), q(n + 1), s(n + 1), x_best(n + 1);
  double del0 = 0.0;
  if (initial_sol_vector == 1) {
    std::vector<float> zero(n + 1, 0.0f);
    Residual(a, b, zero.data(), r.data(), n);
    Scale(m, r.data(), s.data(), n);
    del0 = Dot(r.data(), s.data(), n);
  } else {
    std::fill(x, x + n, 0.0f);
  }
  Residual(a, b, x, r.data(), n);
  Scale(m, r.data(), d.data(), n);
  double delnew = Dot(r.data(), d.data(), n);
  if (initial_sol_vector != 1)
    del0 = delnew;
  const int limit = CG_Iteration_Limit(n);
  ls.cg_iterations = 0;
  ls.cg_ratio = 0.0;
  if (del0 <= 1e-11) {
    return Show_Text(ds, "Data error", MK_WARNING,
                     "Error in solving least-squares equation by linear conjugate gradient "
                     "method. Check your input data.\nInitial residual %.4e.",
                     del0);
  }
  double ratio = delnew / del0, ratio_best = ratio;
  std::copy(x, x + n, x_best.begin());
  int it = 0;
  for (it = 0; it < limit; it++) {
    Progress_Text(ds, static_cast<double>(it) / limit, words.iteration, it, std::sqrt(ratio),
                  std::sqrt(ratio_best));
    a.apply(a.ctx, d.data(), q.data());
    const double dq = Dot(d.data(), q.data(), n);
    if (!(dq > 0.0))
      break;
    const double alpha = delnew / dq;
    for (int64_t i = 0; i < n; i++)
      x[i] = static_cast<float>(x[i] + alpha * d[i]);
    if (refresh > 0 && it % refresh == 0)
      Residual(a, b, x, r.data(), n);
    else
      for (int64_t i = 0; i < n; i++)
        r[i] = static_cast<float>(r[i] - alpha * q[i]);
    Scale(m, r.data(), s.data(), n);
    const double delold = delnew;
    delnew = Dot(r.data(), s.data(), n);
    const double beta = delnew / delold;
    for (int64_t i = 0; i < n; i++)
      d[i] = static_cast<float>(s[i] + beta * d[i]);
    ratio = delnew / del0;
    if (std::sqrt(ratio) < ds.LS_method.cg_convlim) {
      it++;
      break;
    }
    if (ratio < ratio_best) {
      ratio_best = ratio;
      std::copy(x, x + n, x_best.begin());
    }
  }
  Progress_Text(ds, 1.0, words.done, it, std::sqrt(ratio));
  if (ratio_best * 1.00001 < ratio) {
    std::copy(x_best.begin(), x_best.begin() + n, x);
    Progress_Text(ds, 1.0, words.best, std::sqrt(ratio_best));
    ratio = ratio_best;
  }
  ls.cg_iterations = it;
  ls.cg_ratio = std::sqrt(ratio);
  TRACE("Conjugate gradients: %d iterations of %d, ratio %.6f\n", it, limit, ls.cg_ratio);
  return 0;
}

} // namespace

void Damping_Terms(const Data_Set &ds, int rangebound, double fmarq, int64_t i, double &add,
                   double &b, double &rough) {
  const LS_Method &lm = ds.LS_method;
  const LS_State &ls = ds.LS;
  add = lm.combined_marquardt ? fmarq * lm.marquardt_weight : 0.0;
  add += (ls.sensfix[i] - 1.0) * fmarq;
  b = 0.0;
  if (rangebound) {
    const double s_ref = ls.reference_value != 0.0 ? std::exp(ls.reference_value) : ls.average_res;
    b = Barrier_Value(lm, ls.rt[i], s_ref);
  }
  rough = rangebound && lm.barrier_on_roughness ? b + 1.0 : 1.0;
}

void Modify_Roughness_Filter_LCG(Data_Set &ds, int rangebound, double fmarq, Sparse_Upper &fp,
                                 int64_t n) {
  const Sparse_Upper &f = ds.LS.F;
  fp.Clear();
  fp.n = static_cast<int>(n);
  fp.row.assign(n + 1, 1);
  fp.col.reserve(f.Entries() + n);
  fp.val.reserve(f.Entries() + n);
  for (int64_t i = 0; i < n; i++) {
    double add, b, rough;
    Damping_Terms(ds, rangebound, fmarq, i, add, b, rough);
    double diag = add + fmarq * b;
    const size_t at = fp.col.size();
    fp.col.push_back(static_cast<int>(i + 1));
    fp.val.push_back(0.0f);
    if (i < f.n)
      for (int k = f.row[i] - 1; k < f.row[i + 1] - 1; k++) {
        const double v = fmarq * rough * f.val[k];
        if (f.col[k] - 1 == i) {
          diag += v;
        } else {
          fp.col.push_back(f.col[k]);
          fp.val.push_back(static_cast<float>(v));
        }
      }
    fp.val[at] = static_cast<float>(diag);
    fp.row[i + 1] = static_cast<int>(fp.col.size() + 1);
  }
}

int CG_Iteration_Limit(int64_t n) {
  return static_cast<int>(std::clamp<int64_t>(n / 5, 100, 10000));
}

void Set_Precondition_Matrix(Data_Set &ds, const double *jdiag, const Sparse_Upper &fp, int64_t n,
                             float *m) {
  if (ds.LS_method.scale_ign != 1) {
    std::fill(m, m + n, 1.0f);
    return;
  }
  progress(ds, "Calculating diagonal preconditioner Jacobian", 0.0);
  std::vector<double> diag(jdiag, jdiag + n);
  progress(ds, "Calculating diagonal preconditioner Roughness Filter", 0.5);
#pragma omp parallel for schedule(static)
  for (int64_t i = 0; i < std::min<int64_t>(n, fp.n); i++)
    diag[i] += fp.val[fp.row[i] - 1]; // the diagonal entry leads each row
  progress(ds, "Calculating diagonal preconditioner final", 1.0);
  for (int64_t i = 0; i < n; i++)
    m[i] = diag[i] > 0.0 ? static_cast<float>(1.0 / diag[i]) : 1.0f;
}

void Set_Precond_Matrix_Wavelet(Data_Set &ds, int dataconstr, const Sparse_Upper &fp, int64_t n,
                                float *m) {
  progress(ds, "Calculate conjugate gradient preconditioner with wavelet compression", 0.0);
  const Compressed_Jacobian &cj = ds.LS.wj;
  const std::vector<double> &d = dataconstr ? cj.diag_l1 : cj.diag_l2;
  std::vector<double> zero;
  if (static_cast<int64_t>(d.size()) < n)
    zero.assign(n, 0.0);
  Set_Precondition_Matrix(ds, zero.empty() ? d.data() : zero.data(), fp, n, m);
  progress(ds, "End setting preconditioner", 1.0);
}

int Linear_Conjugate_Gradient(Data_Set &ds, const CG_Product &a, const float *m, const float *b,
                              float *x, int64_t n, int initial_sol_vector) {
  const bool amd = ds.System_config.cpu.vendor == 1;
  const bool asm_words = ds.LS_method.wavelet_function_type == 1;
  const CG_Words words = {
      amd ? (asm_words ? "Least-Squares Solution CG Iteration %d %6.4f (%6.4f)  AMD Asm"
                       : "Least-Squares Solution CG Iteration %d %6.4f (%6.4f)  AMD")
          : (asm_words ? "Least-Squares Solution CG Iteration %d %6.4f (%6.4f)  Intel Asm"
                       : "Least-Squares Solution CG Iteration %d %6.4f (%6.4f)  Intel"),
      "Least-squares solution CG iteration %d %6.4f", "Least-Squares Best Solution %6.4f"};
  return CG_Recursion(ds, a, m, b, x, n, initial_sol_vector, 0, words);
}

int Linear_CG_Wavelet(Data_Set &ds, const CG_Product &a, const float *m, const float *b, float *x,
                      int64_t n, int initial_sol_vector) {
  const CG_Words words = {"Least-squares solution CGW iteration %d %6.4f (%6.4f)",
                          "Least-squares solution CG iteration %d %6.4f",
                          "Least-squares best solution %5.3f"};
  return CG_Recursion(ds, a, m, b, x, n, initial_sol_vector, 16, words);
}

int Start_Solve_Linear_Conjugate_Gradient(Data_Set &ds, const CG_Product &a, const float *m,
                                          const double *rhs, float *dm, int64_t n, int wavelet) {
  std::vector<float> b(n + 1, 0.0f), x(n + 1, 0.0f);
  for (int64_t i = 0; i < n; i++)
    b[i] = static_cast<float>(rhs[i]);
  const int ierr = wavelet ? Linear_CG_Wavelet(ds, a, m, b.data(), x.data(), n, 0)
                           : Linear_Conjugate_Gradient(ds, a, m, b.data(), x.data(), n, 0);
  if (ierr)
    return ierr;
  std::copy(x.begin(), x.begin() + n, dm);
  return 0;
}
