// Capacity limits of a run, derived from the computer's physical memory.
#pragma once

#include <cstdint>

struct Data_Limits {
  int nmax_grid_lines = 0; // most grid lines along x or along y
  int nmax_grid_xy = 0;    // most surface grid nodes
  int nmax_data = 0;       // most data points over all time series
  int nmax_model = 0;      // most model cells
  int nmax_time = 0;       // most time series
  int nmax_elecs = 0;      // most electrodes (room for one at every surface grid node included)
  int nmax_layers = 0;     // most model layers
  double carried_real = 2.0;
  int nmax_fix_regions = 1000;            // most fixed regions
  int nmodel_max_model_res = 50000;       // most model cells for a model resolution calculation
  int64_t nmax_elements_half = 260000000; // the node lists hold twice this many entries
  int nmax_half_nodes = 0;
  int nmax_xy_nodes = 0;      // most mesh nodes along x or y
  int nmax_z_nodes = 0;       // most mesh nodes along z
  int64_t Mem_free_byte = 0;  // memory budget of the whole run
  int64_t disk_free_byte = 0; // free bytes of the buffer folder's file system
  int count25 = 25;
  int cpu_type_solver = 0; // solver selection
  int nthreads = 1;        // OpenMP thread count
  int count2048 = 2048;
  int nmax_nodes_base = 0;    // mesh node base figure of the memory row
  int64_t max_cells_mesh = 0; // most finite-element mesh cells
};

// G: (total physical memory in bytes - 1 GiB) / 2^30.
double Memory_G(int64_t total_bytes);

// Fills the table-driven limits and their adjustments for memory figure G and
// the memory budget (total - 1 GiB). Does not touch nthreads or disk_free_byte.
void Compute_Limits(double G, int64_t mem_free_byte, Data_Limits &lim);

// Records of the data-point table: max(nmax_time * nmax_data + 1, 2500000).
int64_t Data_Records_Count(const Data_Limits &lim);
