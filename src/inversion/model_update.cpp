// One Gauss-Newton step on the log resistivities: the update with clipping,
// the forward model of the new model, the line search or the extra step,
// the damping schedule and the convergence test.
#include <algorithm>
#include <cmath>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "forward/forward.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian.h"
#include "jacobian/jacobian_compression.h"
#include "survey/survey_text.h"

namespace {

// rt = exp(a dm) x rt_prev.
void Apply_Step(LS_State &ls, double a) {
  const int n = ls.nmodel;
  for (int i = 0; i < n; i++)
    ls.rt[i] = static_cast<float>(std::exp(a * ls.dm[i]) * ls.rt_prev[i]);
}

} // namespace

int Forward_Model_Inversion(Data_Set &ds, int jacob) {
  LS_State &ls = ds.LS;
  const auto t0 = Clock::now();
  int ierr = Forward_Model_LS(ds, ls.rt.data(), nullptr, jacob);
  const double t_forward = Seconds_Since(t0);
  if (ls.time_forward == 0.0) // the run's first forward model
    ls.time_first_setup = t_forward - ds.Fem.report.t_factor - ds.Fem.report.t_solve;
  ls.time_forward += t_forward;
  ls.time_fac += ds.Fem.report.t_factor;
  ls.time_solve += ds.Fem.report.t_solve;
  if (ierr)
    return ierr;
  std::copy(ds.Fem.rm.data(), ds.Fem.rm.data() + ds.mdata, ls.rm.begin());
  Calculate_Absolute_Misfit(ds);
  if (jacob)
    ierr = Finite_Element_Jacobian_Real_data_ss(ds);
  if (jacob && !ierr && ds.LS_method.data_compression && ds.LS_method.incomplete_solve >= 2) {
    const auto t1 = Clock::now();
    ierr = Compress_Jacobian_FileOne__Inv(ds);
    ls.time_compress += Seconds_Since(t1);
  }
  return ierr;
}

int Least_Squares_New_Model(Data_Set &ds) {
  LS_State &ls = ds.LS;
  const LS_Method &lm = ds.LS_method;
  const int n = ls.nmodel;
  const double rms0 = ls.rmslog;
  const double objf0 = Calculate_Lcurve_Values_Resis_Iter(ds, 0, ls.fmarq);
  for (int i = 0; i < n; i++) {
    const float lim = static_cast<float>(ls.max_log_change);
    if (std::fabs(ls.dm[i]) > lim)
      ls.dm[i] = ls.dm[i] > 0.0f ? lim : -lim;
  }
  Apply_Step(ls, 1.0);
  if (ds.appres_inv == 0) {
    const auto [lo, hi] = std::minmax_element(ls.rt.begin(), ls.rt.begin() + n);
    if (*lo <= 0.000001f || *hi > 10000000.0f) {
      ls.fmarq *= 2.0;
      ls.unstable_step = 1;
      Show_Text(ds, "Warning Message", MK_WARNING,
                "Large range of apparent resistivity values in new model.\nMinimum %.4e Maximum "
                "%.4e\nThe damping factor is increased to %.4f.",
                static_cast<double>(*lo), static_cast<double>(*hi), ls.fmarq);
    }
  }
  const int calc_saved = ls.calc_jacobian;
  ls.calc_jacobian = lm.line_search_option == 1 ? 0 : 1;
  int ierr = Forward_Model_Inversion(ds, ls.calc_jacobian);
  double rms1 = ls.rmslog;
  double objf1 = Calculate_Lcurve_Values_Resis_Iter(ds, ls.nitcount, ls.fmarq);
  if (!ierr && ls.nitcount > 0 &&
      (ls.calc_jacobian == 0 || lm.line_search_option > 0 || rms0 < rms1)) {
    if (lm.line_search_option == 1) {
      progress(ds, "Quadratic interpolation", 0.5);
      const double a = objf1 < objf0 ? 1.1 : 0.5;
      Apply_Step(ls, a);
      ls.calc_jacobian = 0;
      ierr = Forward_Model_Inversion(ds, 0);
      const double objf2 = Calculate_Lcurve_Values_Resis_Iter(ds, 0, ls.fmarq);
      const float num = static_cast<float>((1.0 - a * a) * objf0 + a * a * objf1 - objf2);
      const float den = static_cast<float>((1.0 - a) * objf0 + a * objf1 - objf2);
      const double aa = 0.5 * static_cast<double>(num) / static_cast<double>(den);
      TRACE("Quadratic interpolation a %.3f objf %.6f %.6f %.6f step %.4f\n", a, objf0, objf1,
            objf2, aa);
      Apply_Step(ls, std::isfinite(aa) ? aa : 1.0);
      ls.calc_jacobian = 1;
      if (!ierr)
        ierr = Forward_Model_Inversion(ds, 1);
    } else {
      progress(ds, "Extra least-squares optimization step for same damping factor", 0.5);
      ls.rt_prev = ls.rt;
      if (Solve_Constrained_Least_Squares_Equation(ds, ls.fmarq, ls.dm.data()) == 0) {
        Apply_Step(ls, 1.0);
        ierr = Forward_Model_Inversion(ds, ls.calc_jacobian);
      }
    }
    rms1 = ls.rmslog;
    objf1 = Calculate_Lcurve_Values_Resis_Iter(ds, ls.nitcount, ls.fmarq);
  }
  ls.calc_jacobian = calc_saved;
  // The user's stop (a quit request from the front end's pump) ends the run
  // at the head of the next iteration.
  if (Progress_Text(ds, 1.0,
                    ls.dataconstr ? "Iteration %d  Abs. error %6.2f "
                                  : "Iteration %d  RMS error %6.2f ",
                    ls.nitcount, ls.rmslog_res * 100.0))
    ls.stop_inversion = 1;
  if (ls.nitcount < static_cast<int>(ls.hist_rms.size()))
    ls.hist_rms[ls.nitcount] = ls.rmslog_res * 100.0;
  if (rms1 < rms0 && (lm.extra_reduce_damp_L2_L1 == 1 || ls.nitcount == 1))
    ls.fmarq *= lm.reduce_damping_factor;
  return ierr;
}

void Reduce_Damping_Factor_Linear(Data_Set &ds) {
  LS_State &ls = ds.LS;
  const LS_Method &lm = ds.LS_method;
  if (lm.reduce_damping_linear != 1 || ls.nitcount <= 1)
    return;
  ls.fmarq_reduce = ls.nit > 1 ? (lm.fmarq1 - lm.fmarqm) / (ls.nit - 1) : 0.0;
  ls.fmarq = std::max(lm.fmarq1 - (ls.nitcount - 1) * ls.fmarq_reduce, lm.fmarqm);
}

int Check_Convergence(Data_Set &ds, int stop) {
  LS_State &ls = ds.LS;
  LS_Method &lm = ds.LS_method;
  if (ls.nitcount < 2)
    ls.min_damping_count = 0;
  const double factor = lm.staggered_damping == 1 && ls.nitcount < 4
                            ? std::sqrt(lm.reduce_damping_factor)
                            : lm.reduce_damping_factor;
  ls.fmarq *= factor;
  if (lm.fmarqm > ls.fmarq) {
    ls.min_damping_count++;
    ls.fmarq = lm.fmarqm;
  }
  if (stop == 0 && ls.nitcount >= 2 && ls.nitcount < ls.nitlimit) {
    const float diff = static_cast<float>(ls.rmslog_prev) - static_cast<float>(ls.rmslog);
    const double change = ls.rmslog_prev > 0.0 ? diff * 100.0 / ls.rmslog_prev : 0.0;
    if (lm.convergence_limit > change && ls.nitcount >= 3) {
      if (ds.batch_mode) {
        progress(ds, "Program has converged.", 1.0);
        return 1;
      }
      print_to_buffer(ds.mesg, sizeof ds.mesg,
                      "Relative change in RMS error on last\n2 iterations was %3.1f percent.\nThis "
                      "is less than the minimum relative\nchange that was set at %3.1f "
                      "percent.\nDo you want to continue with the inversion?",
                      change, lm.convergence_limit);
      if (!ask_question(ds, ds.mesg, "Convergence Warning")) {
        progress(ds, "Program has converged.", 1.0);
        return 1;
      }
      // Going on: the limit is lowered so that the run is not stopped again
      // by the same change.
      lm.convergence_limit = std::max(0.0, change - 0.1);
    }
  }
  ls.nitcount++;
  if (stop || ls.nitcount <= ls.nit || ls.nitcount >= ls.nitlimit)
    return 0;
  if (ds.batch_mode) {
    if (lm.gint > 0 && lm.auto_continue == 1) {
      ls.nit = std::min(ls.nit + lm.gint, ls.nitlimit);
      progress(ds, "Reached maximum iterations.", 1.0);
      return 0;
    }
    return 1;
  }
  print_to_buffer(ds.mesg, sizeof ds.mesg,
                  "The inversion has reached the %d iterations set.\nDo you want to add %d more "
                  "iterations?",
                  ls.nit, lm.gint);
  if (lm.gint <= 0 || !ask_question(ds, ds.mesg, "Add iterations")) {
    progress(ds, "Reached maximum iterations", 1.0);
    ls.nitcount--;
    return 1;
  }
  progress(ds, "Reached maximum iterations.", 1.0);
  ls.nit = std::min(ls.nit + lm.gint, ls.nitlimit);
  return 0;
}
