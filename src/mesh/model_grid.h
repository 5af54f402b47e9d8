// Model grid: grid lines, layers, model blocks, the electrode marking of the
// plan cells, and the main (rectangular) finite-element mesh fitted to them.
#pragma once

#include <cstdint>

#include "core/memory.h"

class Data_Set;

constexpr int max_grid_lines = 1950; // above every row's nmax_grid_lines
constexpr int max_user_layers = 64;  // above every row's nmax_layers
constexpr int zbl_generated = 80;    // layer interfaces generated from thick1 and thickinc
constexpr int zbl_capacity = 160;    // interfaces kept, the mesh's extension included

// One model block. Corners 0-3 lie on the top and 4-7 on the bottom, each set
// running (x left, y low), (x left, y high), (x right, y high), (x right, y low).
struct Model_Block {
  float x[8], y[8], z[8];
  float xc, yc, zc;
  float work[6];  // roughness and display values
  float vol;      // flat volume
  float vol_mesh; // volume from the mesh's real corner positions
  // Range of mesh nodes, i, j and k from 1 (k counts without the water nodes).
  int nx1, nx2, ny1, ny2, nz1, nz2;
};

class Model_Grid {
public:
  int nlayers = 0; // layers of the present model

  // Grid lines of the data file (normalised after reading).
  int ngridx = 0, ngridy = 0;
  double xgrid[max_grid_lines + 1] = {};
  double ygrid[max_grid_lines + 1] = {};

  // User defined depths to layers (user units).
  int user_depths = 0;                         // the data file gave them
  int nlayers_user = 0;                        // their count
  double depth_user[max_user_layers + 1] = {}; // bottom of layer i + 1 at [i]

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
  // Elevations from 0 the nearest 4 electrodes, 1 all electrodes, 2 the
  // local plane of the nearest 8 (exact on planar ground).
  int type_topo_estimate = 2;
  int refine_topo = 0; // refine the topography grid
  // Buffer nodes beyond the grid: 0 the elevation of the nearest grid node,
  // 1 that plus the rise of the survey's least-squares plane between them.
  int topo_buffer_slope = 1;

  // Main finite-element mesh.
  int nodes_per_unit_spacing = 4;  // mesh spacings in each model cell, in x and in y
  int nodes_per_layer_setting = 0; // vertical mesh: 0 default, 1 finer, 2 finest, 3 ultra-fine
  int nodes_bore_elec = 2;         // mesh spacings between adjacent borehole electrodes
  int ext_boundary_nodes = 0;      // extended boundary: 0 standard, 1 medium, 2 high
  int nbuffer_xy = 12;             // buffer nodes in x and in y
  int nbuffer_bottom = 10;         // buffer nodes below the lowest layer
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

  // --- Model layers and blocks ----------------------------------------------
  float zbl[zbl_capacity + 1] = {}; // interface depths, zbl[0] = 0, zbl[i] bottom of layer i
  int nblockx = 0, nblocky = 0;
  int nmodel_blocks = 0;
  int nmodel_max = 0;
  // Depth the survey reaches, and how it comes from the data:
  // 0 "Use maximum array length", 1 "Use median depth of investigation".
  double psdepthmax = 0.0;
  int depth_method = 1;
  // A tank stops the layers at its floor.
  int tank_limit = 0;
  double tank_depth = 0.0;
  // Blocks: flat, and following the topography. Same layout.
  Block_Array<Model_Block> blocks, blocks_topo;
  // Per layer, the blocks in x and in y (both range tables).
  int layer_nblockx[zbl_capacity + 1] = {}, layer_nblocky[zbl_capacity + 1] = {};
  double vol_min = 0.0, vol_max = 0.0; // of the mesh volumes

  // --- Plan cells by electrode ----------------------------------------------
  Block_Array<int> cellxy_elec; // 1 dense, 0 not dense, -1 beyond the zones
  int num_cells = 0, num_dense = 0;
  int edge_dense = 0;
  int side_dense = 0;                     // 2 clears the outer ring of an all-dense plan
  int dist_dense1i = 1, dist_dense2i = 2; // zone distances in whole cells
  int use_dist_electrodes_ss = 0;         // 0 level based, 1 distance based

  // --- Main mesh ---------------------------------------------------------------
  int ixfirst = 0, jyfirst = 0;             // node (from 1) of the first grid line
  int ixfirst_base = 13, jyfirst_base = 13; // their values before a mesh is set
  int nbot_buf = 0;                         // buffer nodes below the lowest layer
  double rate = 1.2;                        // buffer rate in force
  double tank_rate = 1.1;                   // a tank's buffer rate
  int tank_buffer = 4;                      // a tank's buffer nodes outside its walls
  double spac_buffer = 0.0;                 // largest buffer spacing in force
  double spac_buffer_base = 5.0;
  double min_cell_width = 0.0;
  int fixed_division = 0;                 // layers split into stored numbers of spacings
  int ndiv_first = 2, ndiv_other = 1;     // the two stored numbers
  int lx = 0, ly = 0, lz = 0;             // nodes in x, y and z (z without water)
  int nwater = 0;                         // z nodes of the water layer, above
  int lzw = 0;                            // lz + nwater
  int lx1 = 0, ly1 = 0, lz1 = 0;          // spacings
  int lxy = 0, lxy1 = 0;                  // lx * ly and (lx - 1) * (ly - 1)
  double total_depth = 0.0;               // depth of the mesh bottom
  int64_t max_layer_nodes = 0;            // most nodes in one mesh layer
  int64_t max_mesh_nodes = 0;             // most nodes of the 3-D mesh
  Block_Array<float> delx, dely, delz;    // spacings
  Block_Array<float> xmesh, ymesh, zmesh; // cumulative positions from 0
  Block_Array<float> sx, sy, sz;          // surface nodes: x, y and elevation, x fastest
  Block_Array<float> xn, yn, zn;          // 3-D node positions, lx * ly * lzw
  // Water levels: fraction of the local water depth at each water node.
  float water_levels[16] = {};
  // Z node range of each layer (from 1, with the water nodes).
  // The last layer also takes the bottom buffer; zn_last_layer is the z node
  // (from 1, without water) at zbl[nlayers] itself.
  int layer_nz1[zbl_capacity + 1] = {}, layer_nz2[zbl_capacity + 1] = {};
  int zn_last_layer = 0;
  // Topography of the mesh.
  double topo_reference = 0.0; // elevation (normalised) that depth 0 stands for
  double topo_damp_used = 0.0; // damping factor after the fold-over guard

  // Conductivity of each main mesh cell, (lx - 1) (ly - 1) (lzw - 1) values,
  // x fastest, z levels from the top with the water levels; imaginary part
  // only for complex modelling.
  int64_t num_cxyz = 0;
  Block_Array<float> cxyz_r, cxyz_i;

  // Main node number (from 0) of mesh point (i, j, k), each from 1.
  int64_t Node(int i, int j, int k) const {
    return (i - 1) + (static_cast<int64_t>(j - 1) + static_cast<int64_t>(k - 1) * ly) * lx;
  }
  // Block number (from 1) of block (i, j, k), each from 1.
  int Block_Number(int i, int j, int k) const {
    return (k - 1) * nblockx * nblocky + (j - 1) * nblockx + i;
  }

  // Layers and blocks.
  int Set_Model_Layers(Data_Set &ds, int zsize, int nmodel_max_in);
  void Calculate_Blocks_Centers();
  // Mesh volume of each block from the node positions; setting 0 or 1 picks
  // the clamp of the node bounds.
  void Calculate_Blocks_Volumes(int mesh_setting);
  // Gives each layer its z node range and then calls Calculate_Blocks_Volumes.
  void Set_Model_Blocks_Volumes_And_Mesh_Limits();

  // Electrode marking of plan cells (positions normalised).
  int Check_Cell(double xpos, double ypos);
  int Check_Cell_Ext2(double xpos, double ypos);

  // Main mesh.
  void setlz(const Data_Set &ds);
  int Set_Mesh_For_Point_Electrodes(Data_Set &ds);
  int Set_Mesh_Spacings_Rectangular_Grid(Data_Set &ds, int use_dense_rect_mesh);
  void Set_delz();
  void Adjust_Tank_Walls(const Data_Set &ds);
  void Set_Mesh_XYZ();
  void Set_Surface_XY_Nodes();
  void Zero_Surface_XY_Nodes_Positions();
  int Copy_XY_Node_Positions_To_3D_Mesh(Data_Set &ds, int64_t limit);
  void Set_3D_Mesh_Z_Node_Values(const Data_Set &ds);
  // The z of flat depth `depth` in surface column c (from 0), as the mesh's
  // levels follow the topography there.
  double Column_Depth(const Data_Set &ds, int64_t c, double depth) const;
  void Check_Buffer_Nodes_XY(const Data_Set &ds);

  // Mesh cell conductivities from the resistivity of each model block
  // (bounded to 0.00011..900000), with water and fixed regions laid over.
  // The complex form takes a phase value p per block: 1 / (r + i r p).
  int Set_Conductivity(Data_Set &ds, const float *res);
  int Set_Conductivity_Cmplx(Data_Set &ds, const float *res, const float *phase);

  // Topography.
  double Find_Maximum_Topography_Z_Shift() const;
  // Weight of the distortion at flat depth z: 1 at the surface.
  double Topography_Weight(double z) const;
  // Elevation (normalised) of mesh depth z.
  double Invert_Topography(double z) const { return topo_reference - z; }
};

// The depth the survey reaches (normalised) by `depth_method`.
double Survey_Depth(const Data_Set &ds, int depth_method);
// Volume of a hexahedron with corners in the block order (exact for the
// trilinear map between the corners).
double Hexahedron_Volume(const double *x, const double *y, const double *z);
