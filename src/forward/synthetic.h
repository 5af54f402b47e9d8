// Synthetic data of a simple model, and the check of a mesh against the
// analytic values of a half-space or a two-layer earth.
#pragma once

#include <array>
#include <vector>

class Data_Set;

struct Synthetic_Box {
  double lim[6] = {}; // x1 x2 y1 y2 z1 z2, survey units, depth down
  double res = 0.0, ip = 0.0;
  bool layer = false; // a "layer" line: x and y without limits
};

// "background RES [IP]", "box X1 X2 Y1 Y2 Z1 Z2 RES [IP]" and "layer Z1 Z2
// RES [IP]" lines; `#` starts a comment. IP values in mV/V. Boxes and layers
// are kept in the file's order.
struct Synthetic_Model {
  double background = 0.0, background_ip = 0.0;
  bool has_ip = false;
  std::vector<Synthetic_Box> boxes;
};

int Read_Synthetic_Model(Data_Set &ds, const char *path, Synthetic_Model &model);
// Resistivity (and IP as a fraction) of each model block: the last box or
// layer that holds the block's centre, else the background.
void Model_Block_Values(const Data_Set &ds, const Synthetic_Model &model, std::vector<float> &res,
                        std::vector<float> &ip);
// The data of the model, with Gaussian relative noise of `noise_pct` percent
// recorded as the error estimate, written as a data file.
int Forward_Synthetic_Data(Data_Set &ds, const Synthetic_Model &model, const char *out,
                           double noise_pct, unsigned seed);

// Potential of a unit current on the surface of a layer of `rho1` and
// thickness `h` over a half-space of `rho2`, at the distance `r` on the
// surface (r and h in one unit): the image series, summed until its terms
// fall below 1e-12 of the sum.
double Two_Layer_Surface_Potential(double rho1, double rho2, double h, double r);

// The least-squares plane of a set of points (the normal of the smallest
// spread) and how far the points depart from it.
struct Plane_Fit {
  double centre[3] = {}, normal[3] = {0.0, 0.0, 1.0};
  double largest = 0.0; // largest distance of a point from the plane
  double spacing = 0.0; // mean distance from a point to its nearest neighbour
  bool plane = true;    // largest below 1e-3 of the spacing
};
Plane_Fit Fit_Plane(const std::vector<std::array<double, 3>> &points);

// What check-mesh compared with.
enum Check_Ground : int {
  CHECK_FLAT = 0,      // flat ground: surface or buried electrodes, exact
  CHECK_PLANE = 1,     // topography, the electrodes on one plane: exact
  CHECK_NOT_PLANE = 2, // topography off a plane: the 3-D distance approximation
};

struct Mesh_Accuracy {
  std::vector<double> err;      // relative error of each datum
  std::vector<double> analytic; // each datum's analytic value, in the data's form
  double median = 0.0, p95 = 0.0, largest = 0.0;
  int ground = CHECK_FLAT;
  Plane_Fit fit;               // of the used electrodes, with topography (normalised units)
  double grid_departure = 0.0; // topography heights at grid nodes under the electrodes: their
                               // largest distance from the plane (normalised units)
  bool normalised = false;     // a layered earth's potentials normalised by the half-space's
};
// Forward model of a homogeneous 100 ohm-m half-space on the mesh of the
// present settings against the analytic values; the report goes to the
// panel. Flat ground (surface or buried electrodes) or topography (surface
// electrodes: the half-space bounded by a plane through them).
int Check_Mesh_Half_Space(Data_Set &ds, Mesh_Accuracy &acc);
// The same for a model of a background and one layer from the surface down
// (a two-layer earth), on flat ground with surface electrodes.
int Check_Mesh_Model(Data_Set &ds, const Synthetic_Model &model, Mesh_Accuracy &acc);
