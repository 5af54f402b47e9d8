// Settings held by Data_Set itself rather than by one of its groups.
#pragma once

#include <cstdint>

struct Data_Set_Settings {
  // Quantity inverted: 0 log of apparent resistivity, 1 resistance, 2 apparent
  // resistivity, 3 log of squared apparent resistivity.
  int appres_inv = 0;
  // The quantity the user chose in the dialog; a read resets appres_inv from it.
  int appres_inv_setting = 0;
  int auto_sort_data = 1; // sort the data points after reading

  // Finite-element solvers.
  int use_dipoles_fem = 0;     // solve potentials for dipole pairs rather than single electrodes
  double ssd_cache = 2.0;      // right-hand side block of the sparse library solver, in GB
  int simultaneous_solves = 3; // block solver: solves a core, code of 4, 8, 16, 32, 64, 128
  int64_t cpu_cache_kb = 2048; // block solver: processor cache size in kB
  int use_asm_amd = 0;         // hand-tuned routines on AMD processors
};
