// Working state of one inversion run: the model, the calculated data, the
// misfits, the weights, the roughness filter, the right-hand side and the
// per-iteration histories. Settings live in LS_Method; this is what changes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "jacobian/jacobian_compression.h"

// A symmetric sparse matrix held by its upper rows, one-based: row i (from 1)
// holds its entries in col[row[i-1]-1 .. row[i]-2], each column >= i, and
// row[n] - 1 is the entry count. Single precision, as it is kept beside the
// Jacobian.
struct Sparse_Upper {
  int n = 0;
  std::vector<int> row; // n + 1 starts, from 1
  std::vector<int> col; // from 1
  std::vector<float> val;
  int64_t Entries() const { return row.empty() ? 0 : row[n] - 1; }
  void Clear() {
    n = 0;
    row.clear();
    col.clear();
    val.clear();
  }
};

// g = F p with F symmetric and held by its upper rows.
void Filter_Multiply(const Sparse_Upper &f, const double *p, double *g);

// Largest iteration count a run may reach, added iterations included.
constexpr int nitlimit_max = 30;

class LS_State {
public:
  // Iteration control.
  int nitcount = 0; // present iteration, 1 in the first; 0 during the set-up
  int nit = 0;      // iterations asked for (may grow when iterations are added)
  int nitlimit = nitlimit_max;
  int dataconstr = 0;                            // data misfit norm in force: 0 L2, 1 L1
  int modelconstr = 0;                           // model roughness norm in force
  int dataconstr_save = 0, modelconstr_save = 0; // the user's norms
  int calc_jacobian = 0;                         // the next forward model also gives the Jacobian
  int stop_inversion = 0; // set by the user's stop; tested at the head of an iteration
  int save_results = 0;   // results go to the results file
  int min_damping_count = 0;
  int unstable_step = 0; // a step gave extreme resistivities
  int jacobian_store_mode = 1;
  double fmarq = 0.0, fmarq_reduce = 0.0;
  double fmarq1_saved = 0.0, fmarqm_saved = 0.0;
  double max_log_change = 0.0; // log(50)
  double rmslog = 0.0, rmslog_res = 0.0, rmslog_prev = 0.0;
  double reference_value = 0.0; // log of the reference resistivity
  double average_res = 0.0;     // start model resistivity

  // Sizes.
  int nmodel = 0, mdata = 0;

  // Model: resistivities of the present and the previous iteration, the step
  // in log units, the reference model (log), the fixed-cell weights.
  std::vector<float> rt, rt_prev, dm, reference, sensfix;
  // Data: calculated values, misfit y, robust weights R, error weights.
  std::vector<float> rm, rm_prev, ydiff, rd_res, error_weight;
  // Right-hand side J^T R y (- lambda F (q - q0)).
  std::vector<double> ca;
  // Roughness filter F and the diagonal of J^T J gathered by the Jacobian.
  Sparse_Upper F;
  std::vector<double> diag_hessian_res;
  // The Jacobian compressed in the wavelet domain (incomplete Gauss-Newton
  // with data compression).
  Compressed_Jacobian wj;

  // Sensitivity: sums of |J| per cell (+ a spare slot with the average),
  // the approximate resolution and the damping multiplier per cell.
  std::vector<float> sens_reso, approx_reso, damp_ac, damp_ac_ip;
  int sens_calculated = 0;
  double sens_average = 0.0, sens_min = 0.0, sens_max = 0.0;

  // Histories, indexed by iteration (0 the initial model).
  std::vector<double> hist_fmarq, hist_rms, hist_seconds;
  std::vector<double> hist_misfit, hist_rough, hist_objf, hist_misfit_norm, hist_rough_norm;
  std::vector<int> hist_dataconstr;
  int nitcountres = 0; // iterations recorded

  // Results file of the run.
  std::string results_path;

  // Timing counters of the run, seconds.
  double time_set = 0.0, time_fac = 0.0, time_solve = 0.0, time_mesh = 0.0;
  double time_jac = 0.0, time_jac1 = 0.0, time_jac2 = 0.0, time_jac3 = 0.0, time_jac4 = 0.0,
         time_jac_mul = 0.0, time_rough_filter = 0.0;
  double time_forward = 0.0, time_normal = 0.0, time_chol = 0.0;
  // The first forward model of the run less its factorisation and solves:
  // mesh, element matrices, assembly, ordering and analysis.
  double time_first_setup = 0.0;
  double time_compress = 0.0, time_cg = 0.0;
  // The last conjugate-gradient solve: iterations, sqrt of its final ratio.
  int cg_iterations = 0;
  double cg_ratio = 0.0;

  // Sizes the run time's choices: (re)sizes every per-cell and per-datum array.
  void Size(int nmodel_in, int mdata_in);
  void Free();
};
