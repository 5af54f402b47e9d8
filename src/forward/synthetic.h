// Synthetic data of a simple model, and the check of a mesh against the
// analytic half-space.
#pragma once

#include <vector>

class Data_Set;

struct Synthetic_Box {
  double lim[6] = {}; // x1 x2 y1 y2 z1 z2, survey units, depth down
  double res = 0.0, ip = 0.0;
};

// "background RES [IP]" and "box X1 X2 Y1 Y2 Z1 Z2 RES [IP]" lines; `#`
// starts a comment. IP values in mV/V.
struct Synthetic_Model {
  double background = 0.0, background_ip = 0.0;
  bool has_ip = false;
  std::vector<Synthetic_Box> boxes;
};

int Read_Synthetic_Model(Data_Set &ds, const char *path, Synthetic_Model &model);
// Resistivity (and IP as a fraction) of each model block: the last box that
// holds the block's centre, else the background.
void Model_Block_Values(const Data_Set &ds, const Synthetic_Model &model, std::vector<float> &res,
                        std::vector<float> &ip);
// The data of the model, with Gaussian relative noise of `noise_pct` percent
// recorded as the error estimate, written as a data file.
int Forward_Synthetic_Data(Data_Set &ds, const Synthetic_Model &model, const char *out,
                           double noise_pct, unsigned seed);

struct Mesh_Accuracy {
  std::vector<double> err; // relative error of each datum
  double median = 0.0, largest = 0.0;
};
// Forward model of a homogeneous half-space on the mesh of the present
// settings against the analytic values; the report goes to the panel.
int Check_Mesh_Half_Space(Data_Set &ds, Mesh_Accuracy &acc);
