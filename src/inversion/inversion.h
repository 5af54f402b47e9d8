// The least-squares inversion: roughness filters, misfits and right-hand
// side, normal equations and their direct solution, the model update with
// damping and convergence, and the driver of command 501. Operations return
// 0 on success or a positive failure after showing their message.
#pragma once

#include <cstdint>
#include <vector>

#include "inversion/ls_state.h"

class Data_Set;
class LS_Method;
struct Disk_Inputs;

// --- Roughness filters -------------------------------------------------------------
// Direction weights wx, wy, wz of the filter from the vertical-to-horizontal
// ratio and the x and y weight settings.
void Filter_Direction_Weights(const LS_Method &m, float &wx, float &wy, float &wz);
// F of the model `model` (resistivities, one per cell) into `f`: the product
// of the weighted x, y and z difference operators with themselves, plus the
// reference damping `wsdamp` on the diagonal when a reference model is in
// use; with `modelconstr` non-zero the rows are reweighted by the present
// differences (L1, cut-off `epsm`). `damp_ac` (per cell, may be null) raises
// the damping where the sensitivity asks for it.
int Calculate_Roughness_Filters(Data_Set &ds, const float *model, int modelconstr, double wsdamp,
                                double epsm, const float *damp_ac, Sparse_Upper &f);
// F of the run (ds.LS.F) from the present model and norm.
int Set_Roughness_Filters(Data_Set &ds);
// Fixed-cell weights (ds.LS.sensfix): 1.0, or a fixed region's weight for the
// cells it holds. Returns non-zero to end the run.
int Set_Fixed_Regions_Roughness_Filter(Data_Set &ds);
// Model roughness of `model` (resistivities) over all neighbouring cell pairs,
// L1 (norm 1) or L2 (norm 0).
double Calculate_Model_Roughness_Resis_Iter(Data_Set &ds, const float *model, int norm);

// --- Misfits, weights and right-hand side ------------------------------------------
// Start model (the average apparent resistivity), its misfit; sets rmslog.
int Calculate_Initial_Data_Misfit(Data_Set &ds);
// Misfit of the calculated values ds.LS.rm under the norm in force: fills
// ydiff and returns rmslog (also stored in ds.LS.rmslog and rmslog_res).
double Calculate_Absolute_Misfit(Data_Set &ds);
// L1 weights R of the misfits (1.0 everywhere for the L2 norm).
void Calculate_Data_Weights(const float *y, int m, int dataconstr, double eps, float *rd);
// ca = J^T R y from the Jacobian file in row blocks.
int Calculate_RHS(Data_Set &ds, int dataconstr, double *ca);
// Rows of the Jacobian read in one block (the shared cache rule).
int Jacobian_Block_Rows(double cache_gb, int64_t columns, int64_t m, bool halve);
// ca -= fmarq F (q - q0) when the smoothing of the model is on.
void Modify_RHS_Vector_Roughness_Filter(Data_Set &ds, const float *model, double fmarq, double *ca);
// Misfit and objective of the L-curve quantities; records them for
// `iteration` > 0 and returns the objective misfit + fmarq roughness.
double Calculate_Data_Misfit_Resis_Iter(Data_Set &ds, int norm);
double Calculate_Lcurve_Values_Resis_Iter(Data_Set &ds, int iteration, double fmarq);

// --- Normal equations and the direct solution ----------------------------------------
// dm from (J^T R J + fmarq F + fmarq D) dm = ca - fmarq F (q - q0).
int Solve_Constrained_Least_Squares_Equation(Data_Set &ds, double fmarq, float *dm);
// M (n x n, column-major, lower and upper filled) = J^T R J from the float
// Jacobian `jac` (m rows of n), in blocks of rows through DSYRK.
int Normal_Equations_Lapack(Data_Set &ds, float *jac, int64_t m, int64_t n, const float *rd,
                            double *hess);
// The damping terms added to M (n x n, column-major).
void Modify_Hessian(Data_Set &ds, int rangebound, double fmarq, double *hess, int64_t n);
// Solves M x = b in place (b in, x out); returns the LAPACK error code.
int Cholesky_Dense_Solution_Double(double *hess, int64_t n, double *b);
// Barrier weight of a cell of resistivity r against reference s.
double Barrier_Value(const LS_Method &m, double r, double s);

// Weights of the Jacobian rows in the product J^T R J of the equation:
// R (the robust weights where `dataconstr` is set, else 1) times the square
// of the data's error weight where `with_error` is set. Returns false when
// every weight is 1 (w then holds 1s).
bool Jacobian_Row_Weights(const Data_Set &ds, int dataconstr, bool with_error,
                          std::vector<float> &w);
// The damping terms of row i (from 0): `add` for the diagonal, the barrier
// value `b` and the factor `rough` of the roughness entries.
void Damping_Terms(const Data_Set &ds, int rangebound, double fmarq, int64_t i, double &add,
                   double &b, double &rough);

// --- Conjugate-gradient solution (incomplete Gauss-Newton) ---------------------------
// A product y = A x of n floats, through a plain function and its context.
struct CG_Product {
  void (*apply)(void *ctx, const float *x, float *y) = nullptr;
  void *ctx = nullptr;
};
// The filter with the damping inside: F' = fmarq (F + D), every row with its
// diagonal entry first.
void Modify_Roughness_Filter_LCG(Data_Set &ds, int rangebound, double fmarq, Sparse_Upper &fp,
                                 int64_t n);
// The iteration limit of a system of n unknowns: n / 5 within 100 and 10000.
int CG_Iteration_Limit(int64_t n);
// M = 1 / (diag(J^T R J) + diag(F')) with scale_ign, else 1.
void Set_Precondition_Matrix(Data_Set &ds, const double *jdiag, const Sparse_Upper &fp, int64_t n,
                             float *m);
// The preconditioner from the compressed Jacobian's stored diagonals.
void Set_Precond_Matrix_Wavelet(Data_Set &ds, int dataconstr, const Sparse_Upper &fp, int64_t n,
                                float *m);
// The recursion of the conjugate gradients on A x = b with the diagonal
// preconditioner m; x holds the start (used with `initial_sol_vector`, else
// zeroed) and the result. Every `refresh` iterations (0 never) the residual
// is recalculated from b - A x. Returns 0, or 1 after the data-error box.
int Linear_Conjugate_Gradient(Data_Set &ds, const CG_Product &a, const float *m, const float *b,
                              float *x, int64_t n, int initial_sol_vector);
int Linear_CG_Wavelet(Data_Set &ds, const CG_Product &a, const float *m, const float *b, float *x,
                      int64_t n, int initial_sol_vector);
// The common entry: float right side from `rhs`, the recursion (`wavelet`
// selects the form), dm from the solution.
int Start_Solve_Linear_Conjugate_Gradient(Data_Set &ds, const CG_Product &a, const float *m,
                                          const double *rhs, float *dm, int64_t n, int wavelet);
// The dense road: the Jacobian file loaded whole, the product through SGEMV.
int Solve_Linear_CG_Dense(Data_Set &ds, int dataconstr, const Sparse_Upper &fp, const double *rhs,
                          float *dm);
// The same with the Jacobian in memory (m rows of n floats).
int Solve_Linear_CG_Dense_Mem(Data_Set &ds, int dataconstr, const float *jac, int64_t m,
                              const Sparse_Upper &fp, const double *rhs, float *dm);
// The compressed road: the product in the wavelet domain.
int Solve_Linear_CG_Wavelet(Data_Set &ds, int dataconstr, const Sparse_Upper &fp, const double *rhs,
                            float *dm);
// Adds sum of t[i] c_i over rows row0 .. row0 + rows of the compressed
// Jacobian into `acc` (per-thread rows of n2 doubles, sized here): val and
// idx hold the stored entries from entry `base` on.
void Wavelet_Scatter_Rows(const Compressed_Jacobian &cj, const float *val, const int *idx,
                          int64_t base, int64_t row0, int64_t rows, const double *t,
                          std::vector<double> &acc);
// The joined sums back to model order: one inverse transform; `out` has
// nmodel values.
void Wavelet_Acc_To_Model(const Compressed_Jacobian &cj, const std::vector<double> &acc, int impl,
                          float *out);

// --- Update, damping, convergence ----------------------------------------------------
int Least_Squares_New_Model(Data_Set &ds);
void Reduce_Damping_Factor_Linear(Data_Set &ds);
// Returns 1 to end the loop; advances nitcount.
int Check_Convergence(Data_Set &ds, int stop);
// Forward model of ds.LS.rt with or without the Jacobian; fills ds.LS.rm and
// the misfit.
int Forward_Model_Inversion(Data_Set &ds, int jacob);

// --- Driver ---------------------------------------------------------------------------
// Command 501: the checks, the disk estimate and the run. `path` names the
// results file (null: the data file's name with ".inv").
int Set_Save_Inversion_Results(Data_Set &ds, const char *path);
int Invert_Data_Set(Data_Set &ds);
// What the disk check before a run counts: the data, cells, electrodes and
// mesh of the data set read.
Disk_Inputs Inversion_Disk_Inputs(const Data_Set &ds);
void Set_IGN(Data_Set &ds, int64_t memory_bytes);
