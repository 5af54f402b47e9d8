// The buffer folder and its temporary files: names, the folder test, free
// space, chunked binary files of 32-bit values and the disk estimates.
#pragma once

#include <cstdint>
#include <string>

#include "core/folders.h"

class Data_Set;

// Every temporary file, by the subject it belongs to.
enum Temp_File : int {
  TF_JACOBFX,
  TF_JACOBFX_I,
  TF_JACOBIAN,
  TF_JACOBIAN_I,
  TF_PERMUTE,
  TF_NODES_1,
  TF_NODES_2,
  TF_NODESFILE,
  TF_TEMP_TXT,
  TF_TIME_INV,
  TF_COORD_TOPO,
  TF_COORD_XYZ,
  TF_V_FILE,
  TF_V_FILE_I,
  TF_HESS,
  TF_HESS_DAMP,
  TF_HESS_IP,
  TF_HESS_DAMP_IP,
  TF_HESSARRA,
  TF_GRADARRA4,
  TF_GRADARRA3,
  TF_GRADARRA2,
  TF_GRADMATRIX,
  TF_GRADARRA_CMPLX,
  TF_POTENTIALS,
  TF_POTENTIALS_I,
  TF_GRADTIME,
  TF_GRADTIME_IP,
  TF_GRADSPLICE,
  TF_GRADSPLICE_IP,
  TF_BACKUP,
  TF_GRROWT,
  TF_GRROWT_RES,
  TF_GRROWT_B,
  TF_GRROWT_TEMP,
  TF_GRROWT_I,
  TF_GRROWTIP,
  TF_GRROWTIP_B,
  TF_GRROWTIP_TEMP,
  TF_GRROWT_ELEC_SHIFT,
  TF_GRADCOMP,
  TF_GRADCOMP_I,
  TF_GRADCOMP_IP,
  TF_GRADCOMP_IP_I,
  TF_GRADCOMP_NW,
  TF_GRADTEMP,
  TF_GRADTEMP_I,
  TF_SPACE_FILTER,
  TF_SPACE_FILTER_IP,
  TF_SPACE_FILTER_RES,
  TF_SPACE_MOD_FILTER,
  TF_SPACE_MOD_FILTER_RES,
  TF_SPACE_MOD_FILTER_IP,
  TF_TMFILFL,
  TF_TPFILFL,
  TF_RES_IP_MODEL,
  TF_RES_IP_DATA,
  TF_RES_IP_MODEL_VOI1,
  TF_RES_IP_DATA_VOI1,
  TF_RES_IP_MODEL_VOI2,
  TF_RES_IP_DATA_VOI2,
  TF_DUMP_IMAGE,
  TF_TEMPFILE,
  TF_COUNT
};

// The file's name inside the buffer folder.
const char *Temp_File_Base_Name(int which);

// Full paths of all temporary files, rebuilt whenever the folder changes.
struct File_Names {
  std::string folder;            // where the run's temporary files go, ends in '/': the
                                 // buffer folder, or a folder of this run's inside it
  std::string temp[TF_COUNT];    // full paths
  std::string data_file;         // the data file read last
  std::string results_file;      // the results file written or read last
  std::string command_line_file; // file named on the command line
  int lock_fd = -1;              // the buffer folder's lock file, held while the names stand
  std::string own_folder;        // the run's own folder when another run held the lock
};

// Rebuilds every temporary file name from the buffer folder `folder` (a
// closing '/' is added). A run takes the folder's lock file
// ("ohmvol3d.lock"); where another run (this program in another process, or
// another data set) holds it, this run's files go to a folder of its own in
// the buffer folder ("run_PID_N/"), so that two runs never share temporary
// files. Returns 1 in that case, 0 otherwise.
int Set_Temp_File_Names(File_Names &names, const std::string &folder);
// Lets go of the lock and removes the run's own folder with what is in it.
void Release_Buffer_Folder(File_Names &names);
// Names of the block solver's factor files: "%s_lnz_%d_%d.bin", "%s_unz_%d_%d.bin".
std::string Factor_File_Name(const File_Names &names, const char *stem, int lower, int i, int j);

// Start-up choice of the buffer folder (see System_Config). Creates the
// folder and tests it with "temp.bin". Returns 0 when the folder is usable.
int Start_Buffer_Folder(Data_Set &ds, const std::string &folder);
// Command 7350: tries a new buffer folder with "testxxx.fil"; on success the
// new folder is taken and all temporary file names rebuilt. Returns ierr.
int Test_Buffer_Folder(Data_Set &ds, const std::string &new_folder);

// Chunked writing and reading of n 32-bit values at a byte offset, with
// direct system calls and 64-bit positions. Writing: 1 on a short write (with
// the save message), 2 when the file cannot be created. `append` keeps the
// file's earlier contents (row blocks written one after another).
int Write_Values_File(Data_Set &ds, const std::string &path, const float *values, int64_t n,
                      int64_t byte_offset = 0, bool keep_contents = false);
int Read_Values_File(Data_Set &ds, const std::string &path, float *values, int64_t n,
                     int64_t byte_offset = 0);
// The same without messages, for files that are not the Jacobian's: n
// values written from the start of a new file, or appended. 0, 1 on a short
// write, 2 when the file cannot be opened.
int Write_Values_Chunks(const std::string &path, const float *values, int64_t n, bool append);
// The reason of a failed read or write (the errno it left) for a message:
// a full disk or file size limit in words, else the system's text; "" for 0.
std::string Os_Error_Text(int err);
// The chunk length for n values: min(n/2, 1048576) above 1048576 values, else n.
int64_t Chunk_Values(int64_t n);

// Inputs of the disk estimates.
struct Disk_Inputs {
  int nseg = 1;              // num_splice_x * num_splice_y
  int64_t mesh_nodes = 0;    // x nodes * y nodes * z nodes (water nodes included)
  int ntime = 1;             // time series
  int nelec_use = 0;         // electrodes used
  int64_t nmodel_blocks = 0; // model cells
  int64_t mdata = 0;         // data points of one time series
  int ip = 0;                // 1 with IP data
  int half_potentials = 0;   // the half-potentials setting with type_mesh 0
  int ndipoles = 0;          // dipole count when dipole storage is used, else 0
};

// Disk needed for temporary files in GB (the read's estimate) and its panel line.
double Disk_Space_Temp_Files_GB(const Disk_Inputs &in);
std::string Disk_Space_Text(double gb);
// The read's estimate on the "Inversion Parameters" panel; returns the GB.
double Calculate_Disk_Space_Temp_Files(Data_Set &ds, const Disk_Inputs &in);
// The run's check: needed GB; 0 if it fits, else 1 with the refusal shown.
double Disk_Space_Inversion_GB(const Disk_Inputs &in);
// A size in bytes as MB, GB or TB, whichever fits ("10.3 MB").
std::string Size_Text(double bytes);
int Calculate_Disk_Space_Inversion_Files(Data_Set &ds, const Disk_Inputs &in);

// Probes whether the Jacobian of `values` 32-bit values fits in memory; when
// it does not, shows the message and switches to the disk-buffered,
// incomplete Gauss-Newton road. Returns 1 when the settings were changed.
int Check_Memory_Jacobian(Data_Set &ds, int64_t values);
// Size in values of the Jacobian for the memory probe.
int64_t Jacobian_Probe_Values(int ip_factor, int64_t mdata_series, int64_t nmodel_blocks, int nseg);

// Exit flow: empties "grrowt_res.bin", then deletes it and the six result
// binary files.
void Remove_Exit_Temp_Files(const File_Names &names);
// The end of a run (an inversion, or a forward model on its own): deletes
// the potentials, Jacobian, matrix and gradient files it made.
void Remove_Run_Temp_Files(const File_Names &names);
