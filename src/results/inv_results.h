// What a results file read back holds beyond the survey and the model grid:
// the iterations' models and calculated values (in the model binary files,
// one iteration live at a time), the misfits and damping factors, and the
// optional sections of the file's tail.
#pragma once

#include <string>
#include <vector>

// Iterations kept from the damping factor list of a results file.
constexpr int max_damping_iterations = 40;
// Iterations a results file may hold.
constexpr int max_inv_iterations = 100;

class Inv_Results {
public:
  int nitcount_inv = 0;  // model sections read
  int cut_iteration = 0; // the iteration whose section the file ends inside (0: none)
  int ntime = 1;         // time series of each section
  int nmodel = 0;        // cells of one model
  int mdata = 0;         // data of one series
  int typeip = 0;        // the file has IP models and data
  int vector_dir = 0;    // the direction component of vector data was used
  int robust = 0;        // the data norm was the robust one ("Abs. error")
  int num_valid_ip = 0;  // IP data counted valid

  // Misfits in percent: [0] the initial model, [k] iteration k.
  std::vector<double> rmsl, rmsip;
  // Damping factors of iterations 1 to ndamping ([0] unused).
  double damping[max_damping_iterations + 1] = {};
  int ndamping = 0;

  // The live iteration: its models (nmodel x ntime) and calculated values
  // (mdata x ntime), filled by Read_Model_Binary_File.
  int iteration_disp = 0;
  std::vector<float> rt_disp, ipt_disp; // resistivity, IP as a fraction
  std::vector<float> rm_disp, mip_disp; // calculated values, calculated IP

  // L-curve table: per iteration 6 values (misfit, roughness, damping,
  // objective, misfit norm, roughness norm), 6 more with IP; [0] unused.
  std::vector<double> lcurve;
  int nlcurve = 0;

  // Tail: topography removal and the damped distorted grid.
  int topo_removal_present = 0;
  double topo_removal[5] = {};
  int distorted = 0;
  double distort_damping = 0.0;
  std::vector<float> distorted_corners; // 24 a block: x[8], y[8], z[8], user units
  int finer_topo = 0, finer_nodes = 0;
  std::vector<float> finer_surface;

  // Tail: sensitivity.
  int sens_present = 0, sens_per_vol = 0, sens_normalised = 0;
  std::vector<float> sens, sens_vol;
  double sens_average = 0.0, vol_min = 0.0, vol_max = 0.0;

  // Tail: reference model.
  int reference_used = 0;
  double reference_res = 0.0, reference_ip = 0.0;

  // Tail: resolution columns (empty when absent).
  int reso_present = 0, reso_vol_col = 0, reso_psf_col = 0, reso_ip_col = 0, reso_spread_col = 0,
      reso_dev_col = 0;
  std::vector<float> reso, reso_vol, reso_psf, reso_ip, reso_ip_vol, model_dev;
  double reso_average = 0.0, psf_average = 0.0;
  int reso_matrix_file = 0; // a matching "_reso.bin" lies beside the data file

  // Choices of the export commands (the export dialogs' answers): the
  // iteration (0: the last), IP columns, log10 values; the VTK quantity
  // (0 resistivity, 1 conductivity, 2 IP), logarithm and topography.
  int export_iteration = 0, export_ip = 0, export_log = 0;
  int vtk_quantity = 0, vtk_log = 0, vtk_topography = 1;

  // Model binary files (the present results and the two VOI runs).
  std::string model_bin, data_bin;
  std::string model_bin_voi[2], data_bin_voi[2];

  void Clear();
};
