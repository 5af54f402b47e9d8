// Building the model grid and the finite-element meshes. Every operation
// takes the application object and returns 0 on success or a positive failure
// after showing its message.
#pragma once

#include <cmath>
#include <cstdint>

class Data_Set;

// --- Read flow ----------------------------------------------------------------
// Settings that follow from the data just read (layers, mesh settings, the
// Jacobian-size question).
int Set_Inversion_Settings_From_Data(Data_Set &ds);
// The main mesh, the plan cell marks and the solved mesh of the data read.
int Set_Model_Mesh_XYZ(Data_Set &ds);
// The "Inversion Parameters" panel with the disk estimate.
void Show_Inversion_Parameters(Data_Set &ds);
// The disk estimate's panel text into `text`; returns the total in GB.
double Calculate_Disk_Space_Temp_Files(Data_Set &ds, char *text, int size);

// --- Plan cells -----------------------------------------------------------------
int Check_Model_Cell_Electrodes_Levels(Data_Set &ds);
int Check_Model_Cell_Electrodes(Data_Set &ds);
int Convert_Model_Cell_to_Mesh_Cell(Data_Set &ds);

// --- Main mesh --------------------------------------------------------------------
// The rectangular main mesh: spacings, positions, surface and 3-D nodes.
int Set_Model_Mesh_XYZ_Rect(Data_Set &ds);
// Elevations of the surface nodes from the grid heights of the survey.
void Set_Surface_Mesh_Topography(Data_Set &ds);
// With `topo_buffer_slope`, the buffer nodes' elevations (copied from the
// nearest grid node) rise or fall with the least-squares plane of the
// grid's surface; needs the surface nodes' plan positions.
void Continue_Topography_Into_Buffers(Data_Set &ds);
// The topographic model blocks from the surface elevations.
void Add_Topography_Model(Data_Set &ds);

// --- Solved mesh --------------------------------------------------------------------
int Generate_Mesh_Lines(Data_Set &ds);
// Fills positions of all main nodes; returns their count.
int64_t Set_Nodes_Main(const Data_Set &ds, float *x, float *y, float *z);
int Generate_SemiStructured_Mesh_Nodes_Rect(Data_Set &ds);
int Generate_SemiStructured_Mesh_Nodes(Data_Set &ds);
int Map_Sparse_Adaptive_to_Main_Nearest(Data_Set &ds);
int Generate_SemiStructured_Mesh_Elements_Rect_Jac(Data_Set &ds);
int Generate_SemiStructured_Mesh_Elements_Adaptive(Data_Set &ds);
// Copies node positions into the element records.
void Get_Elements_Nodes_Coordinates(Data_Set &ds);
// The whole solved mesh (dense or adaptive, as the settings say).
int Set_SemiStructured_Mesh(Data_Set &ds);

// --- Volumes ----------------------------------------------------------------------
// Volume of a hexahedron from corners p[a + 2 b + 4 c] at local (a, b, c),
// exact for the trilinear map between the corners.
double Trilinear_Volume(const double p[8][3]);
// Local corner (a + 2 b + 4 c) of each node of a hexahedral element.
constexpr int hex_local_corner[8] = {0, 4, 5, 1, 2, 6, 7, 3};
// Largest relative difference allowed between the volume a transition
// block's boundary encloses and the sum of its tetrahedra's volumes. Both
// come from the same single-precision positions in double arithmetic, so
// only double rounding separates them (about 1e-14 for a few dozen
// tetrahedra); any folded tetrahedron makes a difference of its own size.
constexpr double transition_volume_tolerance = 1e-9;

// Six times the signed volume of the tetrahedron p[0..3].
inline double Tet_Volume6(const double p[4][3]) {
  double a[3][3];
  for (int c = 0; c < 3; c++)
    for (int d = 0; d < 3; d++)
      a[c][d] = p[c + 1][d] - p[0][d];
  return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
         a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
         a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
}
// A transition block's tetrahedra with these sums of signed and of absolute
// volumes do not fill the volume its boundary encloses: one is folded over.
inline bool Tetrahedra_Folded(double signed_sum, double abs_sum) {
  return std::fabs(std::fabs(signed_sum) - abs_sum) > transition_volume_tolerance * abs_sum;
}

// --- Checks and output ----------------------------------------------------------------
// Volume of element `e` from its positions.
double Element_Volume(const Data_Set &ds, int64_t e);
struct Mesh_Check {
  double vol_elements = 0.0, vol_grid = 0.0;
  int64_t open_tet_faces = 0;   // tetrahedron faces neither shared nor on a hexahedron face
  int64_t open_hex_faces = 0;   // hexahedron faces neither shared nor covered
  int64_t overshared_faces = 0; // faces met more than twice
  int64_t level_errors = 0;     // elements whose nodes leave their two z levels
  int64_t bad_volumes = 0;      // transition blocks failing the volume check
};
// Conformity, levels and volumes of the solved mesh.
Mesh_Check Check_SemiStructured_Mesh(const Data_Set &ds);
// VTK legacy unstructured grid of the solved mesh.
int Write_Mesh_Vtk(Data_Set &ds, const char *path);

// Builds the solved mesh of the data read, checks it and reports its counts,
// volumes and time on the panel; writes its VTK file when `vtk_path` is given.
int Call_Generate_Mesh(Data_Set &ds, const char *vtk_path);
