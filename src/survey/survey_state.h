// The survey held by Data_Set: header of the data file, the tables of data
// points and point electrodes, and what the reading learned about them.
//
// Positions are stored normalised to the grid: x' = (x - xmin) / spxx,
// y' = (y - ymin) / spxx, depth' = depth / spxx. Every output applies the
// reverse.
#pragma once

#include <cstdint>

#include "core/text_scan.h"
#include "survey/data_point.h"
#include "survey/survey_sections.h"

constexpr int max_time_series = 64; // above every row's nmax_time

struct Survey_State {
  // The data file image being read (the whole file, one buffer).
  Text_Image img;

  // Header.
  char title[260] = {};
  int array = 0;           // code of the file's array number
  int array2 = 0;          // code of the electrode arrangement
  int resistance = 0;      // 1: the values are resistances
  int resistance_file = 0; // the measurement type as the file gave it
  int type_geofac = 0;     // 0 horizontal distance, 1 linear distance, 2 given in the file
  int vector_data_type = 0;
  int error_estimate = 0; // the data carry error estimates
  int type_error = 0;     // 0 same unit as the data
  int ntime = 1;          // time series
  char time_unit[64] = {};
  double time_values[max_time_series] = {};

  // Grid normalisation.
  double spxx = 1.0, spyy = 1.0; // x spacing unit, average y spacing
  double y_x_ratio = 1.0;        // y to x spacing ratio
  double xmin = 0.0, ymin = 0.0, xmax = 0.0, ymax = 0.0;
  double grid_extent_x = 0.0, grid_extent_y = 0.0; // last grid lines, normalised
  double grid_diag = 0.0;                          // diagonal extent, normalised

  // Point electrodes.
  Point_Electrode *pe = nullptr;      // the table (2 E + 4 records)
  Point_Electrode *pe_copy = nullptr; // copy taken after the list is read (E + 4)
  Point_Electrode *pe_work = nullptr; // permutation scratch (E + 4)
  int num_point_elecs_file = 0;       // electrodes the file listed
  int num_sub_elecs = 0;              // subsurface electrodes
  int subsurface_present = 0;         // the subsurface marker line was there
  int borehole_converted = 0;         // converted from a borehole format
  int depth_present = 0;              // positions of data points carry a depth
  int topo_flag = 0;                  // electrodes have elevations
  int num_grid_points = 0;            // surface grid nodes appended to the table
  int pe_sorted = 0;                  // the table is in key order
  int elec_list_incomplete = 0;       // some data electrodes are not in the list
  int missing_electrodes = 0;         // their count
  double elev_min = 0.0, elev_max = 0.0;
  double depth_min = 0.0, depth_max = 0.0;
  double repeat_tolerance = 1e-7; // repeated point electrode tolerance
  int positions_scaled = 0;       // positions are normalised
  int pe_converted = 0;           // electrodes were added to (or make up) the list
  int num_keyed = 0;              // electrodes in the key tables
  // Position keys: x, y and depth in thousandths, relative to the smallest,
  // and the electrodes in ascending (x, y, depth) key order.
  int64_t *key_x = nullptr, *key_y = nullptr, *key_z = nullptr;
  int32_t *key_index = nullptr;
  int64_t xrangei = 0, yrangei = 0, zrangei = 0;

  // Data points. Series k's copy of point i is dp[k * mdata + i].
  Data_Point *dp = nullptr;
  Data_Point *dp_work = nullptr; // permutation scratch
  int64_t num_dp_records = 0;    // capacity of dp
  int64_t num_dp_data = 0;       // data a series the scratch and sort arrays hold
  uint8_t *valid_res = nullptr;  // resistivity value valid, per point and series
  uint8_t *valid_ip = nullptr;   // IP value valid
  uint8_t *keep = nullptr;       // 1 keep, 0 removed by a check
  int64_t *sort_keys = nullptr;  // data-sized scratch (2 nmax_data + 4)
  int64_t *sort_index = nullptr;
  int any_removal_marked = 0;  // Trim_Data_Tag has work
  int large_gfac_present = 0;  // points with a geometric factor past the cut-off
  int infinite_gfac_count = 0; // points with a zero sum of reciprocal distances

  // What the reading learned.
  int narray_same = 0, nelec_max = 0;
  double value_max = 0.0, value_min_nonzero = 0.0;
  double res_median = 0.0, res_abs_min = 0.0, res_abs_max = 0.0;
  double res_average = 100.0;
  double resistance_min = 0.0, resistance_max = 0.0, resistance_abs_min = 0.0;
  double k_min = 0.0, k_max = 0.0;                       // sums of reciprocal distances
  double gfac_cutoff_k = 0.0;                            // cut-off of K at reading
  double gfac_min = 0.0, gfac_max = 0.0, gfac_cut = 0.0; // of 1 / gfac; cut-off
  double gfac_range_min = 0.0, gfac_range_max = 0.0;     // |G| in user units
  double gfac_rel_error_average = 0.0;
  double ip_min = 0.0, ip_max = 0.0;                  // IP extremes seen
  double ip_allowed_min = -1e7, ip_allowed_max = 1e7; // range of valid IP
  int num_valid_ip = 0;
  int num_valid_ip_series[max_time_series] = {};
  int num_negative = 0;
  int num_missing_ip_lines = 0, max_missing_ip_line = 0;
  int num_missing_res = 0;
  double rel_error_min = 0.0, rel_error_max = 0.0, rel_error_mean = 0.0;
  int num_rel_error_large = 0, num_rel_error_zero_value = 0;
  double noise_average = 0.0;
  int num_conventional = 0, num_general = 0;
  double dist_cp_min = 0.0, dist_cp_max = 0.0, dist_2e_min = 0.0, dist_2e_max = 0.0;
  int dist_max_point = 0;
  double min_elec_sep = 0.0;
  double pseudo_min = 0.0, pseudo_max = 0.0;
  int64_t num_cp_dipoles = 0, nelec_pot = 0;
  int num_repeated = 0;
  int num_vector_triplets = 0;
  int num_collinear_vector = 0;
  double elec_xmin = 0.0, elec_xmax = 0.0, elec_ymin = 0.0, elec_ymax = 0.0;
  double elec_zmin = 0.0, elec_zmax = 0.0;

  // Optional sections.
  Tank tank;
  Topography topo;
  Fix_Regions Fix_regions;
  Water_Layer water;
  Sharp_Boundary Sharp_boundary;
  Global_Coords global_coords;
};
