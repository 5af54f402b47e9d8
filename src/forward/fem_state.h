// State of the finite-element forward model: the capacitance matrix, the
// electrode node lists, the sources, the stored potentials and the
// calculated data of the last forward model.
#pragma once

#include <cstdint>

#include "core/memory.h"
#include "forward/coo_matrix.h"
#include "forward/sparse_solver.h"

constexpr int max_elec_nodes = 16;

// Nodes and weights of one electrode (or of one dipole: the first
// electrode's weights as they stand, the second's negated).
struct Electrode_Nodes {
  int lead = 0;
  int ni = 0;                        // nodes, 0 to 16
  int elec_int[max_elec_nodes] = {}; // main mesh nodes, from 1
  int elec_int_ss[max_elec_nodes] = {};
  int e1 = -1, e2 = -1; // dipole: its electrodes (from 0), e2 -1 for a pole
  float w[max_elec_nodes] = {};
};

// The fill-reducing ordering of the capacitance matrix's pattern: the mesh
// is the same for every forward model of a run, so it is computed once.
struct Matrix_Ordering {
  int64_t n = 0, count = 0;
  uint64_t pattern_hash = 0;
  Block_Array<int> iperm; // position (from 1) of each equation in the pivot order
  double seconds = 0.0;
};

class Fem_State {
public:
  CooMatrix64 coomatrix64;
  Matrix_Ordering ordering;
  // The solver of the last solve: its name, factor, timings and refinement.
  Solver_Report report;
  int solver_kind = -1; // a Solver_Kind forced (benchmarks, checks); -1 the run's choice
  // Nodes of a span of cells in the Jacobian when the fields stay on disk
  // (checks); 0 as many as a quarter of the free memory holds.
  int64_t jacobian_span_nodes = 0;

  int jacob = 0;            // store the element matrices and the whole fields
  int double_precision = 0; // factorise in double precision (checks and benchmarks)
  int refine_steps_max = 3; // mixed-precision refinement steps
  // Relative residual (in double, against the assembled matrix) above which
  // a column solved with a single-precision factor is refined.
  double refine_tol = 1e-4;

  // Hexahedron form (Hex_Element_Form): 0 mean of two five-tetrahedron
  // decompositions, 1 trilinear, 2 trilinear with the harmonic rule (the
  // default: accurate on flat elements, and conforming to the transition
  // blocks of the adaptive mesh by its cut faces).
  int hex_element = 2;
  // Element store for the Jacobian: unit-conductivity values of each element
  // (10 a tetrahedron, 15 a pyramid, 36 a trilinear hexahedron, 32 an
  // averaged one) and the offsets, one per element + 1.
  Block_Array<float> cp18;
  Block_Array<int64_t> cp_offset;

  // Electrodes (point electrodes, or dipoles with use_dipoles_fem).
  int nelec = 0;                    // entries of the potential table
  Block_Array<Electrode_Nodes> en;  // per point electrode
  Block_Array<Electrode_Nodes> dip; // per dipole
  int ndipoles = 0;
  Block_Array<int> datum_dipole; // per datum: source dipole, receiving dipole (from 1)
  int nudge_point_elec = 1;      // "Nudge node to electrode position"
  int use_file = 0;              // 0 electrode potentials from memory, 1 from the file

  // Sources in solving order (from 1) and the potential table's offsets.
  int nsources = 0;
  Block_Array<int> sources;
  Block_Array<int64_t> offset_pot, offset_field;
  int64_t kpot = 0, kfield = 0;
  Block_Array<float> vpot, vpot_i; // the table in memory (upper triangle)

  // Calculated data of the last forward model.
  Block_Array<float> rm, rm_ip, rm_volt, rm_volt_i;
  double rmslog = 0.0, rmsip = 0.0;
  int negative_values = 0;

  // Normalisation by a homogeneous half-space: per datum analytic / computed.
  int normalise_potentials = 0;
  Block_Array<float> norm_factor;
  int norm_ready = 0;

  // Timing of the last forward model.
  double t_mesh = 0.0, t_assembly = 0.0, t_total = 0.0; // the solver's own in `report`
};
