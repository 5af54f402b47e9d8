// Model grid: grid lines, layers, cells and topography settings.
#pragma once

constexpr int max_grid_lines = 1950; // above every row's nmax_grid_lines
constexpr int max_user_layers = 64;  // above every row's nmax_layers

class Model_Grid {
public:
  int nlayers = 0; // layers of the present model

  // Grid lines of the data file (normalised after reading).
  int ngridx = 0, ngridy = 0;
  double xgrid[max_grid_lines + 1] = {};
  double ygrid[max_grid_lines + 1] = {};

  // User defined depths to layers (user units).
  int user_depths = 0;   // the data file gave them
  int nlayers_user = 0;  // their count
  double depth_user[max_user_layers + 1] = {};

  // Counts copied from the survey after a read.
  int num_point_elecs = 0, num_sub_elecs = 0, ndata = 0, ntime = 1, typeip = 0, nelec_use = 0;

  // Layers. Lengths are in unit electrode spacings.
  double thick1 = 0.5;     // thickness of the first layer
  double thickinc = 1.10;  // ratio of each layer's thickness to the one above
  double scaledepth = 1.0; // depth of the deepest layer as a factor of the survey's depth

  // Reduction of the side blocks: 0 none, 1 slight, 2 moderate, 3 severe, 4 truncate.
  int reduceside = 2;

  // Topography.
  int type_topo_model = 2;       // 0 ignored, 1 uniform distortion, 2 damped distortion
  double topo_damp_factor = 0.5; // damping of the distortion with depth
  int type_topo_trend = 0;       // removed trend: 0 the average elevation, 1 a fitted plane
  int type_topo_estimate = 1;    // elevations from 0 the nearest 4 electrodes, 1 all electrodes
  int refine_topo = 0;           // refine the topography grid

  // Main finite-element mesh.
  int nodes_per_unit_spacing = 4;  // mesh spacings in each model cell, in x and in y
  int nodes_per_layer_setting = 0; // vertical mesh: 0 default, 1 finer, 2 finest, 3 ultra-fine
  int nodes_bore_elec = 2;         // mesh spacings between adjacent borehole electrodes
  int ext_boundary_nodes = 0;      // extended boundary: 0 standard, 1 medium, 2 high
  int nbuffer_xy = 12;             // buffer nodes in x and in y
  int nbuffer_bottom = 8;          // buffer nodes below the lowest layer
  double buffer_rate = 1.2;        // growth rate of the buffer spacings
  int adjust_buffer_nodes = 1;     // fewer buffer nodes under the adaptive mesh

  // Dense zones of the adaptive mesh, in cells from an electrode.
  double dist_dense1f = 1.0; // to the first transition zone
  double dist_dense2f = 2.0; // from there to the second transition zone

  // Point electrodes: 0 at the nearest nodes, 1 on a distorted grid, shifting.
  int point_elec_method = 0;
  // Load all potentials into memory for the Jacobian when they fit.
  int always_load_potentials_Jacobian_ram = 1;

  // Segments.
  int num_splice_x = 1; // segments in x
  int num_splice_y = 1; // segments in y
};
