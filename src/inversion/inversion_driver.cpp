// Command 501, "Data set inversion": the checks and the disk estimate, the
// set-up of the arrays and the start model, the first forward model with its
// Jacobian, then the damped Gauss-Newton iterations, each saved to the
// results file as soon as it is done.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/memory.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "forward/forward.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian.h"
#include "jacobian/jacobian_compression.h"
#include "results/results_file.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

Disk_Inputs Inversion_Disk_Inputs(const Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  Disk_Inputs in;
  in.nseg = g.num_splice_x * g.num_splice_y;
  in.mesh_nodes = static_cast<int64_t>(g.lx) * g.ly * g.lzw;
  in.ntime = std::max(1, ds.ntime);
  in.nelec_use = ds.nelec_use;
  in.nmodel_blocks = g.nmodel_blocks;
  in.mdata = ds.mdata;
  in.ip = ds.Data_ip.typeip > 0 ? 1 : 0;
  in.ndipoles = ds.use_dipoles_fem == 1 ? ds.Fem.ndipoles : 0;
  return in;
}

namespace {

// The options that follow from the data and the memory.
void Invert_Initial_Settings(Data_Set &ds) {
  LS_Method &lm = ds.LS_method;
  LS_State &ls = ds.LS;
  if (ds.appres_inv == 1 || lm.data_compression > 0)
    lm.incomplete_solve = 2;
  if (ds.Sens_reso.Cal_Model_Reso == 1) {
    lm.incomplete_solve = 0;
    lm.data_compression = 0;
  }
  if (lm.incomplete_solve == 0)
    lm.data_compression = 0;
  lm.cg_convlim = std::max(lm.cg_convlim, 0.005);
  if (lm.data_compression)
    lm.cut_off = std::clamp(lm.cut_off, 0.0001, 0.02);
  const double avail = 0.9 * static_cast<double>(Available_Memory_Bytes());
  const double n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  const double jbytes = 4.0 * m * n, hbytes = 8.0 * n * n;
  if (avail < jbytes || avail < hbytes) {
    lm.incomplete_solve = 2;
    if (avail < jbytes)
      lm.data_compression = 1;
  }
  ls.jacobian_store_mode = lm.incomplete_solve < 2 ? 1 + (avail <= jbytes + hbytes ? 1 : 0)
                                                   : 2 + (avail <= jbytes ? 1 : 0);
  if (ds.appres_inv > 0)
    lm.dataconstr = 1;
}

// Arrays, damping and the reference model of the run.
void Set_Initial_Settings_LeastSquares(Data_Set &ds) {
  LS_State &ls = ds.LS;
  const LS_Method &lm = ds.LS_method;
  ls.Size(ds.Model_grid.nmodel_blocks, ds.mdata);
  ls.nitcount = 0;
  ls.rmslog = ls.rmslog_res = ls.rmslog_prev = 0.0;
  ls.fmarq = lm.fmarq1;
  ls.calc_jacobian = 1;
  ls.max_log_change = std::log(50.0);
  ls.stop_inversion = 0;
  ls.min_damping_count = 0;
  ls.unstable_step = 0;
  ls.time_set = ls.time_fac = ls.time_solve = ls.time_mesh = 0.0;
  ls.time_first_setup = 0.0;
  ls.time_jac = ls.time_jac1 = ls.time_jac2 = ls.time_jac3 = ls.time_jac4 = 0.0;
  ls.time_jac_mul = ls.time_rough_filter = ls.time_forward = ls.time_normal = ls.time_chol = 0.0;
  ls.time_compress = ls.time_cg = 0.0;
  if (ds.error_estimate)
    Set_Error_Vector(ds, ls.error_weight.data());
}

void Set_Norms_First_Iteration(LS_State &ls) {
  ls.dataconstr = 0;
  ls.modelconstr = 0;
}

void Restore_Norms_After_First_Iteration(LS_State &ls) {
  ls.dataconstr = ls.dataconstr_save;
  ls.modelconstr = ls.modelconstr_save;
}

// Reference model and its value: the log of the average times the factor.
void Set_Reference_Model(Data_Set &ds) {
  LS_State &ls = ds.LS;
  ls.reference_value = std::log(ls.average_res * ds.LS_method.ref_res_factor);
  std::fill(ls.reference.begin(), ls.reference.end(), static_cast<float>(ls.reference_value));
}

// The set-up from the start model to the first right-hand side. Returns
// non-zero to end the run.
int Set_Up_Run(Data_Set &ds) {
  LS_State &ls = ds.LS;
  LS_Method &lm = ds.LS_method;
  Model_Grid &g = ds.Model_grid;
  if (Forward_Model_Memory_Check(ds))
    return 1;
  if (ls.save_results) {
    // Only a file is replaced: a folder of that name (empty or not) is kept.
    std::error_code ec;
    if (std::filesystem::is_directory(ls.results_path, ec))
      return Show_Text(ds, "File Error Message", MK_WARNING,
                       "Error in creating output file\n%s\nThis is a folder, not a file.",
                       ls.results_path.c_str());
    std::remove(ls.results_path.c_str());
    FILE *f = std::fopen(ls.results_path.c_str(), "w");
    if (!f)
      return Show_Text(ds, "File Error Message", MK_WARNING, "Error in creating output file\n%s\n",
                       ls.results_path.c_str());
    std::fclose(f);
  }
  Set_Norms_First_Iteration(ls);
  if (Calculate_Initial_Data_Misfit(ds))
    return 1;
  Set_Reference_Model(ds);
  g.Calculate_Blocks_Centers();
  if (lm.data_compression)
    Set_Wave_Model_Grid(ds);
  if (lm.use_sensitivity_damp)
    Calculated_Jacobian_Half_Space(ds);
  if (Set_Fixed_Regions_Roughness_Filter(ds))
    return 1;
  if (Set_Roughness_Filters(ds))
    return 1;
  const int64_t nodes = static_cast<int64_t>(g.lx) * g.ly * g.lzw;
  if (nodes > 2147483647LL)
    return Show_Text(ds, "Warning!", MK_WARNING,
                     "Mesh of %dx%dx%d has %lld nodes.\nThis exceeds 32-bit integer limit!", g.lx,
                     g.ly, g.lzw, static_cast<long long>(nodes));
  print_to_buffer(ds.mesg, sizeof ds.mesg,
                  "Inversion of %d data with %d model cells (%d layers), initial damping %.4f",
                  ds.mdata, g.nmodel_blocks, g.nlayers, ls.fmarq);
  panel_text(ds, ds.mesg);

  // The whole Jacobian must fit in memory unless it is compressed.
  if (!lm.data_compression &&
      Check_Memory_Jacobian(ds, Jacobian_Probe_Values(1, ds.mdata, g.nmodel_blocks,
                                                      g.num_splice_x * g.num_splice_y))) {
    lm.data_compression = 1;
    lm.incomplete_solve = 2;
    lm.cut_off = std::clamp(lm.cut_off, 0.0001, 0.02);
    Set_Wave_Model_Grid(ds);
  }
  if (Forward_Model_Inversion(ds, 1)) {
    if (!ds.batch_mode)
      show_message(ds, "Error in calculating initial Jacobian numerically",
                   "Jacobian Calculation Error Message");
    progress(ds, "End initial Jacobian", 1.0);
    return 1;
  }
  if (ds.appres_inv == 0) {
    const auto [lo, hi] = std::minmax_element(ls.rm.begin(), ls.rm.end());
    if (*lo <= 0.000001f || *hi > 10000000.0f) {
      if (!ds.batch_mode)
        Show_Text(ds, "Calculated Apparent Resistivity Error Message", MK_WARNING,
                  "Invalid calculated apparent resistivity values encountred!\nMinimum values is "
                  "%124e\nMaximum value is %12.4e\n\nThe program will now stop the inversion.",
                  static_cast<double>(*lo), static_cast<double>(*hi));
      progress(ds, "End initial Jacobian", 1.0);
      return 1;
    }
  }
  if (Calculate_RHS(ds, ls.dataconstr, ls.ca.data()))
    return 1;
  if (lm.use_sensitivity_damp) {
    CalculateSensitivity(ds);
    Calculate_Sensitivity_Constraints(ds);
  }
  progress(ds, "End initial Jacobian", 1.0);
  {
    // The balance of the two sides: mean diagonals of J^T J and of F.
    double jj = 0.0, ff = 0.0;
    for (int i = 0; i < ls.nmodel; i++)
      jj += ls.diag_hessian_res[i];
    for (int i = 0; i < ls.F.n; i++)
      ff += ls.F.val[ls.F.row[i] - 1];
    TRACE("Mean diagonal of J^T J %.6e, of the roughness filter %.6e\n", jj / ls.nmodel,
          ff / std::max(ls.F.n, 1));
  }
  ls.hist_rms[0] = ls.rmslog_res * 100.0;
  Calculate_Lcurve_Values_Resis_Iter(ds, 0, ls.fmarq);
  if (ls.save_results) {
    progress(ds, "Saving input data", 1.0);
    if (printmodelh(ds, ls.results_path.c_str(), 0, ls.rmslog_res))
      return 1;
  }
  return 0;
}

// Head of an iteration: the damping of the iteration, the filter where it
// depends on the model, the previous model kept.
void Start_Iteration_Parameters(Data_Set &ds) {
  LS_State &ls = ds.LS;
  if (ls.nitcount < static_cast<int>(ls.hist_fmarq.size()))
    ls.hist_fmarq[ls.nitcount] = ls.fmarq;
  ls.rmslog_prev = ls.rmslog;
  if (ls.nitcount >= 2 && (ls.modelconstr > 0 || ds.Sharp_boundary.nregions > 1))
    Set_Roughness_Filters(ds);
  ls.rt_prev = ls.rt;
  ls.rm_prev = ls.rm;
}

void Finish_Run(Data_Set &ds) {
  LS_State &ls = ds.LS;
  ds.LS_method.fmarq1 = ls.fmarq1_saved;
  ds.LS_method.fmarqm = ls.fmarqm_saved;
  progress(ds, "Erasing tmeporary files", 1.0);
  Remove_Run_Temp_Files(ds.file_names);
  ls.stop_inversion = 0;
  ds.exit_next = 0;
}

} // namespace

void Set_IGN(Data_Set &ds, int64_t mem) {
  LS_Method &lm = ds.LS_method;
  const int64_t n = static_cast<int64_t>(std::max(1, ds.ntime)) * ds.Model_grid.nmodel_blocks;
  const int64_t m = static_cast<int64_t>(std::max(1, ds.ntime)) * ds.mdata;
  const int64_t h = n * n * 80 / 9, j = m * n * 40 / 9;
  if (lm.incomplete_solve == 0) {
    if (mem < h) {
      lm.incomplete_solve = 2;
      if (mem < j)
        lm.data_compression = 1;
    }
  } else if (mem < j) {
    lm.data_compression = 1;
    lm.incomplete_solve = 2;
  }
}

int Invert_Data_Set(Data_Set &ds) {
  LS_State &ls = ds.LS;
  LS_Method &lm = ds.LS_method;
  const auto run_start = Clock::now();
  // Refused before any set-up: the settings and arrays below are sized for
  // one series.
  if (ds.ntime > 1)
    return Refuse_Always(ds, "Message", "Time-lapse inversion is not available in this version.");
  ls.fmarq1_saved = lm.fmarq1;
  ls.fmarqm_saved = lm.fmarqm;
  ls.dataconstr_save = lm.dataconstr;
  ls.modelconstr_save = lm.modelconstr;
  Invert_Initial_Settings(ds);
  ls.dataconstr_save = lm.dataconstr;
  Set_Initial_Settings_LeastSquares(ds);
  int ierr = Set_Up_Run(ds);
  ls.time_set = Seconds_Since(run_start);
  if (ierr) {
    Finish_Run(ds);
    ls.Free();
    return ierr;
  }
  Set_Norms_First_Iteration(ls);
  ls.nitcount = 1;
  ls.nit = std::min(lm.nit, ls.nitlimit);
  ls.nitcountres = 0;
  while (ls.nit >= 1 && ls.stop_inversion != 1 && !ds.exit_next) {
    const auto t_iter = Clock::now();
    Reduce_Damping_Factor_Linear(ds);
    Start_Iteration_Parameters(ds);
    progress(ds, "Solving resistivity least squares equation.", 0.0);
    if (ls.nitcount < static_cast<int>(ls.hist_fmarq.size()))
      ls.hist_fmarq[ls.nitcount] = ls.fmarq;
    if (Solve_Constrained_Least_Squares_Equation(ds, ls.fmarq, ls.dm.data()))
      TRACE("Iteration %d: the step keeps the solver's last values\n", ls.nitcount);
    ierr = Least_Squares_New_Model(ds);
    if (ierr)
      break;
    Calculate_Absolute_Misfit(ds);
    ls.hist_rms[ls.nitcount] = ls.rmslog_res * 100.0;
    ls.hist_dataconstr[ls.nitcount] = ls.dataconstr;
    ls.hist_seconds[ls.nitcount] = Seconds_Since(t_iter);
    ls.nitcountres = ls.nitcount;
    if (ls.save_results && Save_Model(ds)) {
      ierr = 1;
      break;
    }
    print_to_buffer(ds.mesg, sizeof ds.mesg, "Iteration %d  %s %.2f%%  Damping factor %.5f  %.1f s",
                    ls.nitcount, ls.dataconstr ? "Abs. error" : "RMS error", ls.rmslog_res * 100.0,
                    ls.hist_fmarq[ls.nitcount], ls.hist_seconds[ls.nitcount]);
    panel_text(ds, ds.mesg);
    Restore_Norms_After_First_Iteration(ls);
    if (Check_Convergence(ds, ls.stop_inversion || ds.exit_next))
      break;
    progress(ds, "Calculate final RHS vector", 0.0);
    Calculate_Absolute_Misfit(ds);
    if (Calculate_RHS(ds, ls.dataconstr, ls.ca.data()))
      break;
    if (ls.min_damping_count > 1 && lm.exit_min_damping == 1)
      break;
    if (ls.nitcount > ls.nit)
      break;
  }
  lm.fmarq1 = ls.fmarq1_saved;
  lm.fmarqm = ls.fmarqm_saved;
  if (ls.save_results && !ierr && Print_Summary(ds, "End of inversion results"))
    ierr = 1;
  if (!ierr)
    show_message(ds, ds.exit_next ? "Inversion stopped on request" : "Inversion completed",
                 "Message", MK_INFORMATION);
  Finish_Run(ds);
  return ierr;
}

int Set_Save_Inversion_Results(Data_Set &ds, const char *path) {
  if (ds.mdata < 1 || !ds.data_read)
    return Refuse_Always(ds, "Message", "You must first read in a data file");
  LS_State &ls = ds.LS;
  ls.save_results = 1;
  if (path && *path) {
    ls.results_path = path;
  } else {
    char name[2048];
    Derived_File_Name(ds.file_names.data_file.c_str(), ".inv", name, sizeof name);
    ls.results_path = name;
  }
  Progress_Text(ds, 0.0, "Invert data file %s", ds.file_names.data_file.c_str());
  if (ds.Model_grid.nmodel_blocks < 1 || ds.Model_grid.nlayers < 1)
    return Refuse_Always(ds, "Message", "You must first read in a data file");
  // The IP values of the data take no part in this run: the run and its
  // results file are those of the resistivity data alone, and the IP values
  // stay with the data set for later.
  const int typeip = ds.Data_ip.typeip;
  if (typeip > 0) {
    panel_text(ds, "IP values are not inverted in this version: resistivity inversion only.");
    ds.Data_ip.typeip = 0;
  }
  int ierr = Calculate_Disk_Space_Inversion_Files(ds, Inversion_Disk_Inputs(ds));
  if (!ierr) {
    if (!ds.batch_mode)
      Set_IGN(ds, Available_Memory_Bytes());
    ierr = Invert_Data_Set(ds);
    progress(ds, "Quit inversion data set", 1.0);
  }
  ds.Data_ip.typeip = typeip;
  return ierr;
}
