// Weights of the roughness filter: the per-cell weights from the cell sizes,
// the sharp-boundary group of each cell, the weight of every x, y and z
// difference row, and the neighbour stencils shared by the filter and the
// model roughness of the L-curve.
#pragma once

#include "core/memory.h"

class Data_Set;
class LS_Method;

// Plain neighbour differences (x, y, z) and the diagonal ones. Each stencil
// pairs a cell (i, j, k) with the cell at (i + di, j + dj, k + dk); `op`
// names the operator (0 x, 1 y, 2 z) whose rows hold it, and `diag` marks
// the diagonal stencils, weighted by the diagonal filter weight times the
// mean of the row weights of the directions they cross.
//   plain:            (+1, 0, 0) x, (0, +1, 0) y, (0, 0, +1) z
//   horizontal diag:  (+1, +1, 0) in x, (-1, +1, 0) in y
//   vertical diag:    (+1, 0, +1), (-1, 0, +1), (0, +1, +1), (0, -1, +1) in z
//   cross diag:       (+1, +1, +1), (-1, +1, +1), (+1, -1, +1), (-1, -1, +1) in z
// Every diagonal stencil is a two-cell difference of its own row, so a row
// never holds more than two entries (three or four with the extended x and
// y filter), well inside the 23 that a row may hold.
struct Filter_Stencil {
  int di, dj, dk;
  int op;
  int diag;
};
constexpr int max_filter_stencils = 13;

// The stencils in force under the diagonal filter flags of the settings,
// into s (room for max_filter_stencils); returns their count.
int Filter_Stencils(const LS_Method &m, Filter_Stencil *s);
// Weight of stencil s from the direction (or row) weights w[3]: w[op] for a
// plain difference, `diag` times the mean of the crossed directions' weights
// for a diagonal one.
float Stencil_Weight(const Filter_Stencil &s, const float *w, float diag);

// Weight applied to the cell after next (and the one after that) by the
// extended horizontal filter, relative to the plain difference.
constexpr float extended_filter_weight = 0.5f;

struct Filter_Weights {
  int nx = 0, ny = 0, nz = 0, n = 0;
  float wx = 1.0f, wy = 1.0f, wz = 1.0f; // direction weights
  int ngroups = 1;                       // sharp-boundary groups in the model
  Block_Array<int> group;                // group of each cell (0 from the top), when ngroups > 1
  Block_Array<float> cell[4];            // x, y, z operator and cell filter weights, 0.5..2.0
  Block_Array<float> row[3];             // weight of the x, y and z row of each cell
};

// Sharp-boundary group of each cell into w.group: a cell whose centre lies
// below boundary b takes group b + 1 (the deepest such boundary wins). Sets
// w.ngroups (1 when the survey has no sharp boundary).
int Set_Sharp_Boundary_Groups(Data_Set &ds, Filter_Weights &w);
// Everything above for the present model grid and settings; `damp_ac` (per
// cell, may be null) multiplies the row weights.
int Set_Filter_Weights(Data_Set &ds, const float *damp_ac, Filter_Weights &w);
