// The Jacobian of log apparent resistivity with respect to log model
// resistivity: by the finite-element adjoint form from the stored fields, or
// analytically for a homogeneous half-space; and the sensitivity values and
// damping multipliers derived from it. The Jacobian file holds mdata rows of
// nmodel floats in datum order.
#pragma once

#include <cstdint>
#include <vector>

class Data_Set;
class LS_Method;

// --- Finite-element Jacobian -----------------------------------------------------
// Hit type of each datum: how it shares its current field with the next.
void Jacobian_Hit_Types(const Data_Set &ds, std::vector<int> &hit);
// Offsets of each cell's element-node values (4 a tetrahedron, 8 a
// hexahedron, 5 a pyramid) from the block-to-element map; ksort has
// nmodel + 1 entries.
void Calculate_Finite_Element_Jacobian_ksort_block_ss(int nmodel, const int *nelem_tet,
                                                      const int *nelem_hex, std::vector<int> &ksort,
                                                      const int *nelem_pyr = nullptr);
// The Jacobian from the last forward model run with `jacob`, written to the
// Jacobian file; gathers the Hessian diagonal into ds.LS.diag_hessian_res.
int Finite_Element_Jacobian_Real_data_ss(Data_Set &ds);

// --- Half-space Jacobian and sensitivity ------------------------------------------
// Kernel of a cell centre (x, y, z) for a source at (ax, ay) and a receiver at
// (bx, by), both on the surface.
double Half_Space_Kernel(double x, double y, double z, double ax, double ay, double bx, double by);
// Analytic row of datum `idata` into the entries of `row` that are exactly 0.
void Jacobian_Homogeneous_Seq(const Data_Set &ds, int idata, float *row);
// Sensitivity from the half-space Jacobian (before any mesh), then the
// damping multipliers.
int Calculated_Jacobian_Half_Space(Data_Set &ds);
// Sensitivity from the Jacobian file.
int CalculateSensitivity(Data_Set &ds);
// damp_ac from the sensitivity, with the rank-based maximum.
void Calculate_Sensitivity_Constraints(Data_Set &ds);
// damp_ac from the distance to the point electrodes.
void Calculated_Damp_Dist_Model_Block(Data_Set &ds);
void Set_Sensitivity_Constraints_Limits(LS_Method &m);
