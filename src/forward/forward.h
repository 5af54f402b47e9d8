// The finite-element forward model: from a model of resistivity (and phase)
// to the potentials of every source electrode, the calculated apparent
// resistivities and the data misfit. Operations return 0 on success or a
// positive failure after showing their message.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class Data_Set;
class Model_Grid;
struct Electrode_Nodes;

// The resistivities (ohm-m) the forward model takes: a model with values
// outside is bounded to them cell by cell.
constexpr double forward_res_floor = 0.00011, forward_res_ceiling = 900000.0;

// --- Assembly -------------------------------------------------------------------
// Each element's conductivity from the mesh cell under its centre.
void Set_Mesh_Cell_Cond_ss(Data_Set &ds, bool complex_values);
// Conductivities on the elements, the row store and the parallel assembly;
// with `jacob` the unit-conductivity element values go to `store_path`.
// Returns the count of failed inserts (or 1 on a failed allocation).
int Set_Up_Cap_Matrix_Blk(Data_Set &ds, int jacob, const std::string &store_path);
// Model block (from 0) of each element of the solved mesh, or -1 where the
// element's conductivity comes from no block (water, fixed regions).
int Element_Model_Blocks(const Data_Set &ds, std::vector<int> &block);
int Calculate_FEM_Cap_Matrix_Fix_OMP(Data_Set &ds, int &jacob, const std::string &store_path);

// --- Solvers --------------------------------------------------------------------
// The sources are solved by Solve_Sources (forward/sparse_solver.h) over
// MUMPS, the generic block solver or CHOLMOD.
// The block solver serves only a single mesh of 255 or more electrodes:
// cpu_type_solver is set back to 0 otherwise.
void Check_Generic_Solver_Settings(Data_Set &ds);

// --- Electrodes --------------------------------------------------------------------
// Nodes and weights of an electrode at normalised (x, y) and flat depth z on
// the main mesh; `surface` uses the plan weights alone.
void Point_Electrode_Nodes(const Model_Grid &g, double x, double y, double depth, bool surface,
                           int floating, Electrode_Nodes &en);
// Node lists of every used electrode (or dipole), mapped to the solved mesh.
int Set_Electrode_Nodes(Data_Set &ds);
int set_elec_positions_node_semistructured(Data_Set &ds);
// The dipoles of the data set: every current and potential pair.
int Check_Number_Dipoles_Data_Set(Data_Set &ds);
// Nudging of surface nodes to the electrodes (before the 3-D copy).
int Check_Two_Electrodes_Nudge_Same_Node_Nearest_Surface(Data_Set &ds);
// Nudging (setting "Nudge node to electrode position"): the mesh column
// nearest each used electrode moves in plan onto it, its eight neighbours
// part of the way (0.725 at the sides, its square at the corners), so the
// electrode stands on a node; Nudge_Buried_Nodes then moves the nearest
// level's node of each buried electrode's column to its depth. Refused (by
// the check above, with its message) where two electrodes would want one
// node, or one column at two plan positions.
struct Plan_Moves {
  std::vector<float> x, y, weight; // new plan positions; weight 2 nudged, else 0 to 0.725
};
void Shift_Nearest_Surface_Node(const Model_Grid &g, Plan_Moves &m, int i, int j, double x,
                                double y);
void Nudge_Surface_Nodes(Data_Set &ds);
void Nudge_Buried_Nodes(Data_Set &ds);

// --- Potentials ----------------------------------------------------------------------
// The sources in solving order; `jacob` 0 leaves the last one out.
int Set_Source_List(Data_Set &ds, int jacob);
// Right-hand sides of sources list[0..nblk-1] (interleaved pairs if complex).
int set_elec_numbers_ss(Data_Set &ds, int nblk, const int *list, float *rhs, bool complex_values);
// Empties the potential files before the first batch.
int Reset_Potential_Files(Data_Set &ds, int jacob);
// Saves the electrode rows (and with `jacob` the whole fields) of a batch
// whose solutions x are nblk columns of neqns values (pairs if complex).
int seq_save_vpot_nblk_ss(Data_Set &ds, int nblk, const int *list, const float *x,
                          bool complex_values);
int Save_Pot_Jacob(Data_Set &ds, int nblk, const int *list, const float *x, bool complex_values);

// --- Apparent resistivity --------------------------------------------------------------
// Entry V(a, b) of the electrode table (a, b from 1, a != b).
inline int64_t Potential_Index(const int64_t *offset_pot, int a, int b) {
  const int lo = a < b ? a : b, hi = a < b ? b : a;
  return offset_pot[lo - 1] + hi - (lo + 1);
}
// Calculated values in the form the data are held: the potential difference
// of a unit current times this scale gives a resistance (kept in normalised
// units, where the two are the same) or an apparent resistivity (1 / gfac).
double Calculated_Value_Scale(const Data_Set &ds, int64_t i);
int Cal_App_Resis_Real(Data_Set &ds);
int Cal_App_Resis_cmplx_VC(Data_Set &ds);
// Misfit of the calculated against the measured data; sets rmslog.
double Cal_App_Resis_Diff(Data_Set &ds);
double Cal_App_Resis_Diff_cmplx(Data_Set &ds);
// Analytic apparent resistivity of a unit half-space for datum i, or a
// negative value when there is none (topography, given factors).
double Half_Space_Analytic_Ratio(const Data_Set &ds, int64_t i);
// Every datum has its analytic half-space value.
bool Half_Space_Analytic_Available(const Data_Set &ds);

// --- Driver -----------------------------------------------------------------------------
// One forward model of block resistivities `res` (and IP values `ip` for a
// complex model); with `jacob` the fields are stored for the Jacobian.
int Forward_Model_LS(Data_Set &ds, const float *res, const float *ip, int jacob);
int Select_Forward_Model(Data_Set &ds, const float *res, const float *ip, int jacob);
int Forward_Model_Real(Data_Set &ds, const float *res, int jacob);
int Forward_Model_Cmplx(Data_Set &ds, const float *res, const float *ip, int jacob);
int Call_Forward_Model_Calculation(Data_Set &ds);
int Forward_Model_FEM_MUMPS_ll_ss(Data_Set &ds);
int Start_SemiStructured(Data_Set &ds);
int Forward_Model_Memory_Check(Data_Set &ds);
void Free_Arrays_ss(Data_Set &ds);
// Factors of the normalisation: a homogeneous half-space on the same mesh
// against its analytic values. Refused (returns 1) where none exist.
int Set_Normalisation_Factors(Data_Set &ds);
