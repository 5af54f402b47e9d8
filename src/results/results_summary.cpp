// The summary at the end of the results file: topography, sensitivity,
// reference model, the settings of the run, the error distribution of the
// last model, the iteration tables, the mesh, the timing and the sizes.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/memory.h"
#include "core/messages.h"
#include "core/settings_table.h"
#include "core/trace.h"
#include "modes/ip_units.h"
#include "results/results_file.h"
#include "survey/optional_sections.h"
#include "survey/survey_text.h"

namespace {

constexpr double bytes_gb = 9.313225746154785e-10; // 1 / 2^30

// --- Topography ----------------------------------------------------------------------

void Write_Topography_Model(Data_Set &ds, FILE *f) {
  const Model_Grid &g = ds.Model_grid;
  // Elevations are kept whole (Scale_Positions takes no average out), so the
  // average removed is 0.
  const double removed = 0.0;
  std::fprintf(f, "Topography removal parameters\n0.00, 0.00, 0.00, 0.00, %.3f\n",
               removed * ds.spxx);
  if (!ds.topo.grid_heights || g.type_topo_model <= 0 || g.nmodel_blocks < 1 ||
      g.blocks_topo.size() < g.nmodel_blocks)
    return;
  std::fprintf(f,
               "Damped distorted topography modelling used\nDamping factor\n%.3f\nCoordinates "
               "for model blocks\n",
               g.topo_damp_used);
  for (int m = 0; m < g.nmodel_blocks; m++) {
    const Model_Block &b = g.blocks_topo[m];
    double x[8], y[8], z[8];
    for (int c = 0; c < 8; c++) {
      x[c] = User_X(ds, b.x[c]);
      y[c] = User_Y(ds, b.y[c]);
      z[c] = b.z[c] * ds.spxx; // depth below the reference level
    }
    std::fprintf(f, "%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f\n", x[0], x[1], x[2], x[3], x[4], x[5],
                 x[6], x[7]);
    std::fprintf(f, "%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f\n", y[0], y[1], y[2], y[3], y[4], y[5],
                 y[6], y[7]);
    std::fprintf(f, "%.3f,%.3f,%.3f,%.3f,%.3f,%.3f,%.3f,%.3f\n", z[0], z[1], z[2], z[3], z[4], z[5],
                 z[6], z[7]);
  }
}

// The surface of the main mesh between the first and the last grid lines.
void Write_Finer_Topography(Data_Set &ds, FILE *f) {
  const Model_Grid &g = ds.Model_grid;
  if (!g.refine_topo || !ds.topo.grid_heights || g.lx < 1 || g.sz.size() < g.lxy)
    return;
  const int npu = g.nodes_per_unit_spacing;
  const int nx = (g.ngridx - 1) * npu + 1, ny = (g.ngridy - 1) * npu + 1;
  std::fprintf(f, "Finer Topography Grid Used\nInterpolation Nodes\n%d\n", npu);
  for (int j = 0; j < ny; j++)
    for (int i = 0; i < nx; i++) {
      const int64_t node = static_cast<int64_t>(g.jyfirst - 1 + j) * g.lx + g.ixfirst - 1 + i;
      std::fprintf(f, "%14.4f ", g.sz[node] * ds.spxx);
      if (i == nx - 1 || i % 20 == 19)
        std::fprintf(f, "\n");
    }
}

// --- Sensitivity, reference model, resolution, settings ---------------------------

void Write_Sensitivity(Data_Set &ds, FILE *f) {
  const LS_State &ls = ds.LS;
  const Model_Grid &g = ds.Model_grid;
  const int n = g.nmodel_blocks;
  if (!ls.sens_calculated || static_cast<int64_t>(ls.sens_reso.size()) < n + 1)
    return;
  const double cube = ds.spxx * ds.spxx * ds.spxx;
  std::fprintf(f, "Blocks sensitivity values\n          Resistivity\nBlock No.  Sensitivity  "
                  "Sensitivity/vol\n");
  for (int m = 0; m < n; m++) {
    const Model_Block &b = g.blocks[m];
    const double vol = (b.vol_mesh > 0.0f ? b.vol_mesh : b.vol) * cube;
    const double s = ls.sens_reso[m];
    std::fprintf(f, "%6d   %11.3e   %11.3e\n", m + 1, s, vol > 0.0 ? s / vol : 0.0);
  }
  std::fprintf(f, "Average Sensitivity %11.3e\n", static_cast<double>(ls.sens_reso[n]));
  std::fprintf(f, "Minimum cell volume\n%11.3f\nMaximum cell volume\n%11.3f\n", g.vol_min * cube,
               g.vol_max * cube);
  std::fprintf(f, "Sensitivity values not normalised\n");
}

void Write_Reference_And_Resolution(Data_Set &ds, FILE *f) {
  if (ds.LS_method.use_reference)
    std::fprintf(f,
                 "REFERENCE MODEL USED\nCONSTANT REFERENCE MODEL METHOD\nReference resistivity "
                 "is\n%.3f\n",
                 std::exp(ds.LS.reference_value));
  const int n = ds.Model_grid.nmodel_blocks;
  const int limit = ds.Data_lim_sys.nmodel_max_model_res;
  if (ds.Sens_reso.Cal_Model_Reso && ds.ntime < 2 && n > limit)
    std::fprintf(f,
                 "Resolution values not calculated.\nNumber of model parameters %d.\nMaximum "
                 "allowed is %d\n",
                 n, limit);
}

// The settings block, as the .ivp file holds it.
void Write_Settings(Data_Set &ds, FILE *f) {
  std::fprintf(f, "\nInversion parameters used\nInversion settings\n");
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    std::fprintf(f, "%s\n%s\n", e.caption, Format_Setting_Value(ds, e).c_str());
  }
  std::fprintf(f, "\nEnd of file\n\n");
}

// --- Error distribution of the last model --------------------------------------------

const char *const header_lines[2][3][2] = {
    {{"   CURRENT ELEC. POTENTIAL ELEC.  OBSERVED  CALCULATED\n",
      "     XC     YC     XP     YP      APP.RES.  APP.RES.   ERROR\n"},
     {"   CURRENT ELEC. POT. ELEC. P1   POT. ELEC. P2   OBSERVED  CALCULATED\n",
      "     XC     YC     XP     YP       XP     YP     APP.RES.  APP.RES.   ERROR\n"},
     {"   CURRENT ELEC.1 CURRENT ELEC.2 POT. ELEC. P1   POT. ELEC. P2   OBSERVED  CALCULATED\n",
      "     XC     YC       XC     YC      XP     YP       XP     YP     APP.RES.  APP.RES.   "
      "ERROR\n"}},
    {{"   CURRENT ELEC. POTENTIAL ELEC.  OBSERVED              CALCULATED\n",
      "     XC     YC     XP     YP      APP.RES.     I.P.     APP.RES.   ERROR\n"},
     {"   CURRENT ELEC. POT. ELEC. P1   POT. ELEC. P2   OBSERVED               CALCULATED\n",
      "     XC     YC     XP     YP       XP     YP     APP.RES.    I.P.       APP.RES.   "
      "ERROR\n"},
     {"   CURRENT ELEC.1 CURRENT ELEC.2 POT. ELEC. P1   POT. ELEC. P2   OBSERVED               "
      "CALCULATED\n",
      "     XC     YC       XC     YC      XP     YP       XP     YP     APP.RES.    I.P.      "
      "APP.RES.   ERROR\n"}}};

double Datum_Error(const Data_Set &ds, int i) {
  const LS_State &ls = ds.LS;
  const double w = i < static_cast<int>(ls.error_weight.size()) ? ls.error_weight[i] : 1.0;
  return Calculate_Datum_Error(ds.appres_inv, ds.dp[i].value, ls.rm[i], w);
}

void Write_Error_Distribution(Data_Set &ds, FILE *f) {
  const int m = std::min<int64_t>(ds.mdata, ds.LS.rm.size());
  double sum_abs = 0.0, sum_sq = 0.0;
  int nelec_max = 2;
  for (int i = 0; i < m; i++) {
    const double e = Datum_Error(ds, i);
    sum_abs += std::fabs(e);
    sum_sq += e * e;
    nelec_max = std::max(nelec_max, static_cast<int>(ds.dp[i].nelec));
  }
  const double rms = m > 0 ? std::sqrt(sum_sq / m) : 0.0;
  const double average = m > 0 ? sum_abs / m : 0.0;
  const bool ip = ds.Data_ip.typeip > 0;
  const double unit = ds.resistance == 1 ? 1.0 / ds.spxx : 1.0;
  std::fprintf(f, "Last iteration least-squares RMS error is %.2f\n", rms * 100.0);
  std::fprintf(f, "\nAverage absolute error %.4f\n", average * 100.0);
  const char *const *head = header_lines[ip ? 1 : 0][std::clamp(nelec_max, 2, 4) - 2];
  std::fprintf(f, "Error distribution\nNo. Elec.%s%s", head[0], head[1]);
  for (int i = 0; i < m; i++) {
    const Data_Point &d = ds.dp[i];
    const double *e[5];
    const int n = Datum_Electrodes(d, false, e);
    std::fprintf(f, " %1d ", d.nelec);
    for (int k = 0; k < n; k++)
      std::fprintf(f, " %13.4f %13.4f", User_X(ds, e[k][0]), User_Y(ds, e[k][1]));
    const double err = Datum_Error(ds, i);
    if (!ip)
      std::fprintf(f, " %10.2f %10.2f %11.4f", d.value * unit, ds.LS.rm[i] * unit, err);
    else if (d.ip_value == ip_missing_mark)
      std::fprintf(f, " %13.4f %10s %10.2f %11.4f", d.value * unit, "*", ds.LS.rm[i] * unit, err);
    else
      std::fprintf(f, " %13.4f %10.2f %10.2f %11.4f", d.value * unit,
                   IP_Display_Value(ds.Data_ip, d.ip_value, d.value), ds.LS.rm[i] * unit, err);
    std::fprintf(f, std::fabs(err) > 2.5 * rms ? "   ***\n" : "\n");
  }
}

// --- Iterations ----------------------------------------------------------------------

void Write_Iteration_Tables(Data_Set &ds, FILE *f) {
  const LS_State &ls = ds.LS;
  const int last = std::min<int>(ls.nitcountres, static_cast<int>(ls.hist_rms.size()) - 1);
  std::fprintf(f, "Resistivity inversion summary\n");
  for (int i = 1; i <= last; i++)
    std::fprintf(f,
                 "Iteration %2d - Time taken in seconds %10.2f, %s %8.3f, Damping factor %9.5f\n",
                 i, ls.hist_seconds[i], ls.hist_dataconstr[i] ? "Abs. error" : "RMS error",
                 ls.hist_rms[i], ls.hist_fmarq[i]);
  std::fprintf(f, "\nIterations resistivity inversion\nIter  App Res misfit   Model Res rough  "
                  "Damping factor  Objective func Data misfit norm(%%) Model rough norm\n");
  for (int i = 1; i <= last; i++)
    std::fprintf(f, "%4d    %12.5f    %14.5f    %12.5f    %12.5f    %12.7f       %12.7f\n", i,
                 ls.hist_misfit[i], ls.hist_rough[i], ls.hist_fmarq[i], ls.hist_objf[i],
                 ls.hist_misfit_norm[i], ls.hist_rough_norm[i]);
}

// --- Mesh, timing, sizes -------------------------------------------------------------

void Write_Mesh_And_Timing(Data_Set &ds, FILE *f) {
  const Model_Grid &g = ds.Model_grid;
  const SemiStructured &ss = ds.Semistructured;
  const LS_State &ls = ds.LS;
  const int64_t nodes = static_cast<int64_t>(g.lx) * g.ly * g.lzw;
  std::fprintf(f,
               ss.use_dense_rect_mesh == 1 ? "Finite-element rectangular mesh %dx%dx%d=%lld nodes\n"
                                           : "Finite-element mesh used %dx%dx%d=%lld nodes\n",
               g.lx, g.ly, g.lzw, static_cast<long long>(nodes));
  if (ss.use_dense_rect_mesh != 1 && ss.number_nodes_ss > 0)
    std::fprintf(f,
                 "Finite-element semistructured mesh used=%d nodes\nCapacitence matrix size is "
                 "%lld\n",
                 ss.number_nodes_ss, static_cast<long long>(ds.Fem.coomatrix64.count));
  if (ds.water.kind > 0 && g.nwater > 0)
    std::fprintf(f, "Number of nodes used for water layer is %d\n", g.nwater);
  std::fprintf(f,
               "Time set %.2f  Time_fac %.2f Time solve %.2f\nNumber of CPU threads %d\n"
               "time_jac1 %.2f time_jac2 %.2f time_jac3 %.2f time_jac4 %.2f time_jac_mul %.2f "
               "time_jac %.2f\ntime_mesh %.2f\ntime_rough_filter %.3f\n",
               ls.time_set, ls.time_fac, ls.time_solve, ds.Data_lim_sys.nthreads, ls.time_jac1,
               ls.time_jac2, ls.time_jac3, ls.time_jac4, ls.time_jac_mul, ls.time_jac, ls.time_mesh,
               ls.time_rough_filter);
}

void Write_Sizes(Data_Set &ds, FILE *f) {
  const LS_State &ls = ds.LS;
  const Model_Grid &g = ds.Model_grid;
  const long long jac = static_cast<long long>(ls.mdata) * ls.nmodel;
  const long long hess = static_cast<long long>(ls.nmodel) * ls.nmodel;
  // The Jacobian is kept in single precision, the Hessian in double.
  if (ds.LS_method.data_compression > 0) {
    std::fprintf(f, "\nData compression cut-off factor %.5f\n", ds.LS_method.cut_off);
    std::fprintf(f, "Full Jacobian size %dx%d=%lld (%.3f GB)\n", ls.mdata, ls.nmodel, jac,
                 jac * 4.0 * bytes_gb);
    std::fprintf(f, "Full Hessian size %dx%d=%lld (%.3f GB)\n", ls.nmodel, ls.nmodel, hess,
                 hess * 8.0 * bytes_gb);
  } else {
    std::fprintf(f, "\nFull Jacobian  %dx%d=%lld (%.3f GB)\n", ls.mdata, ls.nmodel, jac,
                 jac * 4.0 * bytes_gb);
    std::fprintf(f, "Full Hessian  %dx%d=%lld (%.3f GB)\n", ls.nmodel, ls.nmodel, hess,
                 hess * 8.0 * bytes_gb);
  }
  const long long nodes = static_cast<long long>(g.lx) * g.ly * g.lzw;
  const long long pot = nodes * ds.nelec_use;
  std::fprintf(f,
               "\nNumber of electrodes used (%d) times rectangular mesh nodes (%lld) is %lld "
               "(%.3f GB).\n",
               ds.nelec_use, nodes, pot, pot * 4.0 * bytes_gb);
  if (ds.Fem.ndipoles > 0) {
    const long long dip = nodes * ds.Fem.ndipoles;
    std::fprintf(f, "\nNumber of dipoles times rectangular mesh nodes is %lld (%.3fGB).\n", dip,
                 dip * 4.0 * bytes_gb);
  }
}

// Average and median of the valid measured IP values, in mV/V.
int Write_IP_Averages(Data_Set &ds, FILE *f) {
  if (ds.Data_ip.typeip <= 0 || ds.mdata < 1)
    return 0;
  float *v = nullptr;
  if (Allocate_Values(ds, v, ds.mdata, "IP values"))
    return 1;
  int n = 0;
  double sum = 0.0;
  for (int i = 0; i < ds.mdata; i++) {
    const float m = ds.dp[i].ip_value;
    if (m == ip_missing_mark || !(std::fabs(m) <= ds.Data_ip.valid_ip_limit))
      continue;
    v[n++] = m * 1000.0f;
    sum += m * 1000.0;
  }
  double median = 0.0;
  if (n > 0) {
    std::sort(v, v + n);
    median = n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
  }
  Free_Values(v);
  std::fprintf(f,
               "\nAverage measured apparent I.P. value in mV/V is %.2f\nMedian measured apparent "
               "I.P. value in mV/V is %.2f\n",
               n > 0 ? sum / n : 0.0, median);
  return 0;
}

} // namespace

double Calculate_Datum_Error(int appres_inv, double o, double c, double w) {
  if (appres_inv != 0 && appres_inv != 3)
    return (o - c) * w;
  if (c > 0.0 && o > 0.0)
    return appres_inv == 0 ? std::log(o / c) : std::log(o * o / (c * c));
  const double s = std::fabs(o) + std::fabs(c);
  return s > 0.0 ? 2.0 * (o - c) / s : 0.0;
}

int Print_Summary(Data_Set &ds, const char *closing) {
  const char *path = ds.LS.results_path.c_str();
  FILE *f = path[0] ? std::fopen(path, "a") : nullptr;
  if (!f)
    return Show_Text(ds, "File open error", MK_WARNING, "Error in opening file\n%s.", path);
  Write_Topography_Model(ds, f);
  Write_Finer_Topography(ds, f);
  Write_Sensitivity(ds, f);
  Write_Reference_And_Resolution(ds, f);
  Write_Settings(ds, f);
  Write_Error_Distribution(ds, f);
  Write_Iteration_Tables(ds, f);
  Write_Mesh_And_Timing(ds, f);
  Write_Sizes(ds, f);
  int ierr = Write_IP_Averages(ds, f);
  std::fprintf(f, "\n%s\n", closing ? closing : "");
  TRACE("Print_Summary %s iterations %d ierr %d\n", path, ds.LS.nitcountres, ierr);
  return Close_Results_File(ds, f, path) ? 1 : ierr;
}
