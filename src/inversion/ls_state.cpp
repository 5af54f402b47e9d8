// Sizing of the run's arrays and the product with a filter held by its upper
// rows.
#include "inversion/ls_state.h"

void Filter_Multiply(const Sparse_Upper &f, const double *p, double *g) {
  for (int i = 0; i < f.n; i++)
    g[i] = 0.0;
  for (int i = 0; i < f.n; i++)
    for (int k = f.row[i] - 1; k < f.row[i + 1] - 1; k++) {
      const int j = f.col[k] - 1;
      const double v = f.val[k];
      g[i] += v * p[j];
      if (j != i)
        g[j] += v * p[i];
    }
}

void LS_State::Size(int nmodel_in, int mdata_in) {
  nmodel = nmodel_in;
  mdata = mdata_in;
  const size_t n = static_cast<size_t>(nmodel), m = static_cast<size_t>(mdata);
  rt.assign(n, 0.0f);
  rt_prev.assign(n, 0.0f);
  dm.assign(n, 0.0f);
  reference.assign(n, 0.0f);
  sensfix.assign(n, 1.0f);
  rm.assign(m, 0.0f);
  rm_prev.assign(m, 0.0f);
  ydiff.assign(m, 0.0f);
  rd_res.assign(m, 1.0f);
  error_weight.assign(m, 1.0f);
  ca.assign(n, 0.0);
  diag_hessian_res.assign(n, 0.0);
  sens_reso.assign(n + 2, 0.0f);
  approx_reso.assign(n + 1, 0.0f);
  damp_ac.assign(n + 1, 1.0f);
  damp_ac_ip.assign(n + 1, 1.0f);
  const size_t h = nitlimit_max + 2;
  for (auto *v : {&hist_fmarq, &hist_rms, &hist_seconds, &hist_misfit, &hist_rough, &hist_objf,
                  &hist_misfit_norm, &hist_rough_norm})
    v->assign(h, 0.0);
  hist_dataconstr.assign(h, 0);
  nitcountres = 0;
  sens_calculated = 0;
  wj = Compressed_Jacobian();
}

void LS_State::Free() {
  for (auto *v : {&rt, &rt_prev, &dm, &reference, &sensfix, &rm, &rm_prev, &ydiff, &rd_res,
                  &error_weight, &sens_reso, &approx_reso, &damp_ac, &damp_ac_ip})
    std::vector<float>().swap(*v);
  std::vector<double>().swap(ca);
  std::vector<double>().swap(diag_hessian_res);
  F.Clear();
  wj = Compressed_Jacobian();
}
