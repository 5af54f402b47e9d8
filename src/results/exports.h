// Exports of a results file's iteration for other programs: block-centre
// tables (XYZC), the electrode table, the model list, VTK legacy files of the
// model and the electrodes, and the listing of observed and calculated data.
// Each writes beside the results file, with a name built from the results
// file's name, and adds the paths it wrote to `files`. The values are those
// of the live iteration (Inv_Results::rt_disp, ipt_disp, rm_disp, mip_disp):
// the caller loads `iteration` with Read_Model_Binary_File first.
#pragma once

#include <string>
#include <vector>

class Data_Set;

// Quantity, scale and geometry of a VTK model file.
struct Vtk_Export {
  int quantity = 0;   // 0 resistivity, 1 conductivity, 2 IP
  int logarithm = 0;  // 1: log10 of the values
  int topography = 1; // 1: blocks at their elevations under the surface
  int with_ip = 0;    // a second scalar block with the IP model (quantity 0 or 1)
};

// "_Iter%d_Res_Model_XYZC.dat" (and the IP and log10 forms) with "_Elec.dat".
int Save_Blocks_Values_XYZ(Data_Set &ds, const std::string &results_path, int iteration,
                           int logarithm, int with_ip, std::vector<std::string> &files);
// "_Res_Model_Reso_XYZC.dat" from the resolution values read with the file.
int Save_Resolution_Values_XYZ(Data_Set &ds, const std::string &results_path,
                               std::vector<std::string> &files);
// "_Iter%d_Res_Model.vtk" or "_Iter%d_Res_IP_Model.vtk", the electrodes'
// VTK file, and the same model in global coordinates when the survey has them.
int Save_Model_VTK(Data_Set &ds, const std::string &results_path, int iteration,
                   const Vtk_Export &opt, std::vector<std::string> &files);
// "_model.xyz".
int Save_Model_List_XYZ(Data_Set &ds, const std::string &results_path, int iteration, int with_ip,
                        std::vector<std::string> &files);
// "_iter%d_data_misfit.txt" and "_iter%d_data_misfit_XYZC.dat".
int Dump_Data_Misfits_Txt(Data_Set &ds, const std::string &results_path, int iteration,
                          std::vector<std::string> &files);

// Block centre and corners in user units: x, y and elevation (with
// `topography`, under the survey's surface; without, below a flat 0 level).
void Block_Centre_User(const Data_Set &ds, int block, int topography, double xyz[3]);
void Block_Corners_User(const Data_Set &ds, int block, int topography, double xyz[8][3]);
// Electrode e (from 0) in user units; with `topography` at its own elevation
// (the ground under it less its depth), else below a flat 0 level.
void Electrode_User(const Data_Set &ds, int e, int topography, double xyz[3]);
// Electrodes of the survey that the data use.
std::vector<int> Used_Electrodes(const Data_Set &ds);
