#include "core/temp_files.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <unistd.h>

#include "core/data_set.h"
#include "core/memory.h"
#include "core/messages.h"
#include "core/trace.h"

namespace {

const char *const temp_base_names[TF_COUNT] = {"jacobfx.tmp",
                                               "jacobfx_i.tmp",
                                               "jacobian.bin",
                                               "jacobian_i.bin",
                                               "permutefile.bin",
                                               "nodes_1.txt",
                                               "nodes_2.txt",
                                               "nodesfile.bin",
                                               "temp_txt.txt",
                                               "time_inv.txt",
                                               "coord_topo.bin",
                                               "coord_xyz_arrays.bin",
                                               "v_file.tmp",
                                               "v_file_i.tmp",
                                               "hess_file.bin",
                                               "hess_file_damp.bin",
                                               "hess_file_ip.bin",
                                               "hess_file_damp_ip.bin",
                                               "hessarra.bin",
                                               "gradarra4.bin",
                                               "gradarra3.bin",
                                               "gradarra2.bin",
                                               "gradmatrix.bin",
                                               "gradarra_cmplx.bin",
                                               "potentials_nodes.bin",
                                               "potentials_nodes_i.bin",
                                               "gradtime.bin",
                                               "gradtime_ip.bin",
                                               "gradsplice.bin",
                                               "gradsplice_ip.bin",
                                               "backupfile.bin",
                                               "grrowt.bin",
                                               "grrowt_res.bin",
                                               "grrowt_b.bin",
                                               "grrowt_temp.bin",
                                               "grrowt_i.bin",
                                               "grrowtip.bin",
                                               "grrowtip_b.bin",
                                               "grrowtip_temp.bin",
                                               "grrowt_elec_shift.bin",
                                               "gradcomp.bin",
                                               "gradcomp_i.bin",
                                               "gradcomp_ip.bin",
                                               "gradcomp_ip_i.bin",
                                               "gradcomp_nw.bin",
                                               "gradtemp.bin",
                                               "gradtemp_i.bin",
                                               "space_filter_file.bin",
                                               "space_filter_ip_file.bin",
                                               "space_filter_res_file.bin",
                                               "space_modified_filter_file.bin",
                                               "space_modified_filter_res_file.bin",
                                               "space_modified_filter_ip_file.bin",
                                               "tmfilfl.bin",
                                               "tpfilfl.bin",
                                               "res_ip_model_inv_file.bin",
                                               "res_ip_data_inv_file.bin",
                                               "res_ip_model_inv_file_voi1.bin",
                                               "res_ip_data_inv_file_voi1.bin",
                                               "res_ip_model_inv_file_voi2.bin",
                                               "res_ip_data_inv_file_voi2.bin",
                                               "dump_image.png",
                                               "tempfile.bin"};

const double gb_factor = 9.313225746154785e-10; // 2^-30
const double tb_per_gb = 0.0009765625;          // 2^-10

// Creates `name` in `folder` for writing, then closes and deletes it.
int Try_Create_File(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (!f)
    return 1;
  std::fclose(f);
  std::remove(path.c_str());
  return 0;
}

} // namespace

const char *Temp_File_Base_Name(int which) {
  return which >= 0 && which < TF_COUNT ? temp_base_names[which] : "";
}

void Release_Buffer_Folder(File_Names &names) {
  if (names.lock_fd >= 0)
    close(names.lock_fd);
  names.lock_fd = -1;
  if (!names.own_folder.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(names.own_folder, ec);
  }
  names.own_folder.clear();
}

int Set_Temp_File_Names(File_Names &names, const std::string &folder) {
  Release_Buffer_Folder(names);
  const std::string base = With_Slash(folder);
  names.folder = base;
  int apart = 0;
  names.lock_fd = open((base + "ohmvol3d.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (names.lock_fd >= 0 && flock(names.lock_fd, LOCK_EX | LOCK_NB) != 0) {
    static std::atomic<int> count{0};
    char sub[64];
    std::snprintf(sub, sizeof sub, "run_%d_%d/", static_cast<int>(getpid()), ++count);
    std::error_code ec;
    if (std::filesystem::create_directories(base + sub, ec) ||
        std::filesystem::is_directory(base + sub)) {
      names.folder = base + sub;
      names.own_folder = names.folder;
      apart = 1;
    }
    close(names.lock_fd);
    names.lock_fd = -1;
  }
  for (int i = 0; i < TF_COUNT; i++)
    names.temp[i] = names.folder + temp_base_names[i];
  return apart;
}

std::string Factor_File_Name(const File_Names &names, const char *stem, int lower, int i, int j) {
  char buf[2048];
  std::snprintf(buf, sizeof buf, lower ? "%s_lnz_%d_%d.bin" : "%s_unz_%d_%d.bin",
                (names.folder + stem).c_str(), i, j);
  return buf;
}

int Start_Buffer_Folder(Data_Set &ds, const std::string &folder) {
  System_Config &sc = ds.System_config;
  sc.buffer_folder = With_Slash(folder);
  sc.disk_free_byte = Free_Disk_Bytes(sc.buffer_folder);
  // The recommended space for large surveys, and more for a folder the user
  // named. Only warnings: the check before a run is what refuses.
  const char *need = nullptr;
  if (sc.disk_free_byte < 91625968981LL)
    need = "128GB";
  else if (sc.buffer_named && sc.disk_free_byte < 274877906944LL)
    need = "256GB";
  // On the command line the check before each run says what that run needs;
  // this general warning is for the desktop program's start.
  if (need && !ds.batch_mode) {
    print_to_buffer(ds.mesg, sizeof ds.mesg,
                    "Free disk space at %s is %8.2f\nYou need at least %s free disk space",
                    sc.buffer_folder.c_str(), sc.disk_free_byte * gb_factor, need);
    show_message(ds, ds.mesg, "Disk Error");
  }
  const std::string test = sc.buffer_folder + "temp.bin";
  if (Make_Folders(sc.buffer_folder) != 0 || Try_Create_File(test) != 0) {
    print_to_buffer(ds.mesg, sizeof ds.mesg, "Cannot create file %s\n", test.c_str());
    show_message(ds, ds.mesg, "Disk File Error");
    return 1;
  }
  return 0;
}

int Test_Buffer_Folder(Data_Set &ds, const std::string &new_folder) {
  System_Config &sc = ds.System_config;
  const std::string folder = With_Slash(new_folder);
  const std::string test = folder + "testxxx.fil";
  FILE *f = std::fopen(test.c_str(), "wb");
  if (!f && Make_Folders(folder) == 0)
    f = std::fopen(test.c_str(), "wb");
  if (!f) {
    print_to_buffer(ds.mesg, sizeof ds.mesg, "Failed to create file\n%s.", test.c_str());
    show_message(ds, ds.mesg, "Message");
    return 1; // the old folder stays
  }
  std::fclose(f);
  std::remove(test.c_str());
  const int64_t free_bytes = Free_Disk_Bytes(folder);
  print_to_buffer(ds.mesg, sizeof ds.mesg,
                  "New buffer drive selected is %s.\nFree space is %.2f GB.", folder.c_str(),
                  free_bytes * gb_factor);
  show_message(ds, ds.mesg, "Message", MK_INFORMATION);
  sc.buffer_folder = folder;
  sc.disk_free_byte = free_bytes;
  sc.Ini.buffer = folder;
  sc.Ini.buffer_set = 1;
  ds.Data_lim_sys.disk_free_byte = free_bytes;
  ds.Set_Folder_Names();
  TRACE("Test_Buffer_Folder new folder %s\n", folder.c_str());
  return 0;
}

int64_t Chunk_Values(int64_t n) {
  if (n <= 1048576)
    return n;
  return n / 2 < 1048576 ? n / 2 : 1048576;
}

namespace {

// Moves n values between memory and the file in chunks; returns the bytes moved.
int64_t Transfer_Chunks(int fd, float *values, int64_t n, int64_t byte_offset, bool write) {
  const int64_t chunk_bytes = 4 * Chunk_Values(n);
  char *p = reinterpret_cast<char *>(values);
  const int64_t total = 4 * n;
  int64_t done = 0;
  while (done < total) {
    const size_t want = static_cast<size_t>(std::min(total - done, chunk_bytes));
    const ssize_t k = write ? pwrite(fd, p + done, want, byte_offset + done)
                            : pread(fd, p + done, want, byte_offset + done);
    if (k <= 0)
      break;
    done += k;
  }
  return done;
}

} // namespace

int Write_Values_Chunks(const std::string &path, const float *values, int64_t n, bool append) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | (append ? 0 : O_TRUNC), 0644);
  if (fd < 0)
    return 2;
  const int64_t offset = append ? lseek(fd, 0, SEEK_END) : 0;
  const int64_t done =
      offset < 0 ? 0 : Transfer_Chunks(fd, const_cast<float *>(values), n, offset, true);
  return close(fd) == 0 && done == 4 * n ? 0 : 1;
}

std::string Os_Error_Text(int err) {
  if (err == ENOSPC || err == EDQUOT)
    return "\nThe disk is full (no space left on the device).";
  if (err == EFBIG)
    return "\nThe file has reached the size limit for files.";
  return err ? std::string("\n") + std::strerror(err) : std::string();
}

namespace {

// The texts of one direction of the value files.
struct Values_File_Texts {
  const char *open_failed; // with the path
  const char *short_move;  // with the path, bytes moved and bytes wanted
  const char *title;
};

// Opens `path`, moves n values in chunks and reports a failure with `texts`:
// 2 when the file cannot be opened, 1 when fewer bytes moved than asked.
int Move_Values_File(Data_Set &ds, const std::string &path, float *values, int64_t n,
                     int64_t byte_offset, int open_flags, bool write,
                     const Values_File_Texts &texts) {
  const int fd = open(path.c_str(), open_flags, 0644);
  if (fd < 0) {
    print_to_buffer(ds.mesg, sizeof ds.mesg, texts.open_failed, path.c_str());
    show_message(ds, ds.mesg, texts.title);
    return 2;
  }
  const int64_t total = 4 * n;
  errno = 0;
  const int64_t done = Transfer_Chunks(fd, values, n, byte_offset, write);
  const int err = errno;
  close(fd);
  if (done != total) {
    print_to_buffer(ds.mesg, sizeof ds.mesg, texts.short_move, path.c_str(),
                    static_cast<long long>(done), static_cast<long long>(total));
    const std::string why = Os_Error_Text(err);
    std::strncat(ds.mesg, why.c_str(), sizeof ds.mesg - std::strlen(ds.mesg) - 1);
    show_message(ds, ds.mesg, texts.title);
    return 1;
  }
  return 0;
}

} // namespace

int Write_Values_File(Data_Set &ds, const std::string &path, const float *values, int64_t n,
                      int64_t byte_offset, bool keep_contents) {
  static const Values_File_Texts texts = {"Error in creating Jacobian matrix file %s.",
                                          "Jacobian matrix save error %s.\n%lld/%lld",
                                          "Jacobian Matrix Save"};
  const int flags = O_WRONLY | O_CREAT | (keep_contents ? 0 : O_TRUNC);
  return Move_Values_File(ds, path, const_cast<float *>(values), n, byte_offset, flags, true,
                          texts);
}

int Read_Values_File(Data_Set &ds, const std::string &path, float *values, int64_t n,
                     int64_t byte_offset) {
  static const Values_File_Texts texts = {"Error in opening Jacobian matrix file %s.",
                                          "Jacobian matrix read error %s.\n%lld/%lld",
                                          "Jacobian Matrix Read"};
  return Move_Values_File(ds, path, values, n, byte_offset, O_RDONLY, false, texts);
}

double Disk_Space_Temp_Files_GB(const Disk_Inputs &in) {
  double disk_jac = static_cast<double>(in.nmodel_blocks) * in.ntime * 4.0 *
                    static_cast<double>(in.mdata) * gb_factor;
  double disk_mesh, disk_total;
  if (in.nseg < 2) {
    disk_mesh = static_cast<double>(in.mesh_nodes) * 4.0 * in.nelec_use * gb_factor;
    if (in.half_potentials)
      disk_mesh *= 0.5;
    disk_total = disk_mesh + disk_jac;
  } else {
    disk_mesh = ((static_cast<double>(in.mesh_nodes) * 1.1) / in.nseg) * 4.0 *
                (static_cast<double>(in.nelec_use) / in.nseg) * gb_factor;
    if (in.half_potentials)
      disk_mesh *= 0.5;
    disk_mesh *= 1.1;
    disk_jac *= 1.1;
    disk_total = disk_mesh > disk_jac ? disk_mesh : disk_jac;
  }
  if (in.ip)
    disk_total *= 2.0;
  return disk_total * 1.1;
}

std::string Disk_Space_Text(double gb) {
  char buf[128];
  if (gb < 1.0)
    std::snprintf(buf, sizeof buf, "Disk space needed for temporary files is %.4f GB.  ", gb);
  else if (gb < 10.0)
    std::snprintf(buf, sizeof buf, "Disk space needed for temporary files is %.2f GB.  ", gb);
  else if (gb < 2048.0)
    std::snprintf(buf, sizeof buf, "Disk space needed for temporary files is %.1f GB.  ", gb);
  else
    std::snprintf(buf, sizeof buf, "Disk space needed for temporary files is %.2f TB.  ",
                  gb * tb_per_gb);
  return buf;
}

double Calculate_Disk_Space_Temp_Files(Data_Set &ds, const Disk_Inputs &in) {
  const double gb = Disk_Space_Temp_Files_GB(in);
  panel_text_params(ds, Disk_Space_Text(gb).c_str());
  TRACE("Calculate_Disk_Space_Temp_Files %.4f GB\n", gb);
  return gb;
}

double Disk_Space_Inversion_GB(const Disk_Inputs &in) {
  const double nuse = in.ndipoles > 0 ? in.ndipoles : in.nelec_use;
  const double disk_jac = 4.0 * static_cast<double>(in.nmodel_blocks) * in.ntime *
                          static_cast<double>(in.mdata) * gb_factor;
  double disk_mesh = 4.0 * static_cast<double>(in.mesh_nodes) * nuse * gb_factor;
  // The forward model's matrix files, there with the fields and the
  // Jacobian: the element store (up to 36 values a hexahedron, about one a
  // node) and the assembled matrix (27 entries a row, value and column).
  double disk_matrix =
      (36.0 * 4.0 + 27.0 * 8.0 + 8.0) * static_cast<double>(in.mesh_nodes) * gb_factor;
  if (in.nseg > 1) {
    disk_mesh *= 1.25 / in.nseg;
    disk_matrix *= 1.25 / in.nseg;
  }
  const double disk_filter = 2.0 * nuse * nuse * gb_factor;
  // The electrode potential table (a half matrix of floats), and a tenth
  // more for the small files and the file system's blocks.
  const double disk_table = 2.0 * nuse * nuse * gb_factor;
  const double total =
      (disk_jac > disk_filter ? disk_jac : disk_filter) + disk_mesh + disk_matrix + disk_table;
  return 1.1 * total * (in.ip ? 2.0 : 1.0);
}

std::string Size_Text(double bytes) {
  char buf[64];
  if (bytes < 1024.0 * 1024.0 * 1024.0)
    std::snprintf(buf, sizeof buf, "%.1f MB", bytes / (1024.0 * 1024.0));
  else if (bytes < 1024.0 * 1024.0 * 1024.0 * 1024.0)
    std::snprintf(buf, sizeof buf, "%.2f GB", bytes / (1024.0 * 1024.0 * 1024.0));
  else
    std::snprintf(buf, sizeof buf, "%.2f TB", bytes / (1024.0 * 1024.0 * 1024.0 * 1024.0));
  return buf;
}

int Calculate_Disk_Space_Inversion_Files(Data_Set &ds, const Disk_Inputs &in) {
  const double needed = Disk_Space_Inversion_GB(in) / gb_factor;
  const double free_bytes = static_cast<double>(Free_Disk_Bytes(ds.System_config.buffer_folder));
  TRACE("Calculate_Disk_Space_Inversion_Files needed %.0f bytes available %.0f bytes\n", needed,
        free_bytes);
  if (needed > free_bytes) {
    print_to_buffer(ds.mesg, sizeof ds.mesg,
                    "Insufficent free disk space for temporary files.\nSpace needed is %s\nSpace "
                    "available is %s\n",
                    Size_Text(needed).c_str(), Size_Text(free_bytes).c_str());
    show_message(ds, ds.mesg, "Disk Space Message");
    return 1;
  }
  return 0;
}

int64_t Jacobian_Probe_Values(int ip_factor, int64_t mdata_series, int64_t nmodel_blocks,
                              int nseg) {
  int64_t values = static_cast<int64_t>(ip_factor) * mdata_series * nmodel_blocks;
  if (nseg > 2)
    values /= (nseg - 1);
  return values;
}

int Check_Memory_Jacobian(Data_Set &ds, int64_t values) {
  if (ds.jacobian_on_disk)
    return 0;
  const int64_t bytes = 4 * values;
  // Linux commits pages lazily, so a mapping alone proves little: the block
  // must also fit in the memory that is free now.
  void *p = bytes <= Available_Memory_Bytes() ? Allocate_Block(bytes) : nullptr;
  if (p) {
    Free_Block(p);
    return 0;
  }
  print_to_buffer(ds.mesg, sizeof ds.mesg,
                  "Jacobian Memory Check\nJacobian memory allocation error\nArray size is %lld "
                  "values\nMemory needed is %.1f GB\nProgram will now use a disk buffer.\n",
                  static_cast<long long>(values), bytes * gb_factor);
  show_message(ds, ds.mesg, "Jacobian Memory Error Message");
  ds.jacobian_on_disk = 1;
  ds.LS_method.incomplete_solve = 2;
  return 1;
}

void Remove_Exit_Temp_Files(const File_Names &names) {
  if (names.folder.empty())
    return;
  FILE *f = std::fopen(names.temp[TF_GRROWT_RES].c_str(), "wb");
  if (f)
    std::fclose(f);
  const int gone[] = {TF_GRROWT_RES,        TF_RES_IP_DATA,      TF_RES_IP_MODEL,
                      TF_RES_IP_MODEL_VOI1, TF_RES_IP_DATA_VOI1, TF_RES_IP_MODEL_VOI2,
                      TF_RES_IP_DATA_VOI2};
  for (int which : gone)
    std::remove(names.temp[which].c_str());
}

void Remove_Run_Temp_Files(const File_Names &names) {
  if (names.folder.empty())
    return;
  for (int t : {TF_POTENTIALS, TF_POTENTIALS_I, TF_GRROWT, TF_GRROWT_I, TF_JACOBFX, TF_V_FILE,
                TF_V_FILE_I, TF_TEMPFILE, TF_GRADCOMP, TF_GRADCOMP_I})
    std::remove(names.temp[t].c_str());
}
