#include "core/data_set.h"

#include <cblas.h>
#include <cstdio>
#include <omp.h>
#include <unistd.h>

#include "core/cpu_info.h"
#include "core/ivp_file.h"
#include "core/memory.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/survey.h"

Data_Set::Data_Set(const Start_Options &opt, const Front_End &front) : fe(front) {
  // The thread count asked for holds for every pool: OpenMP (and with it
  // MUMPS) and OpenBLAS.
  if (opt.nthreads > 0) {
    omp_set_num_threads(opt.nthreads);
    if (!Address_Space_Tight())
      openblas_set_num_threads(opt.nthreads);
  }
  System_config.Start(opt);
  Reserve_Blas_Buffers();
}

Data_Set::~Data_Set() {
  Free_Arrays();
  Release_Buffer_Folder(file_names);
}

int Data_Set::Create() {
  System_Config &sc = System_config;
  sc.nthreads = omp_get_max_threads();
  sc.lim_template.nthreads = sc.nthreads;
  Data_lim_sys = sc.lim_template;
  long_tables_status = Allocate_Arrays();
  Detect_Cpu(sc.cpu);
  return long_tables_status;
}

int Data_Set::First_Paint(int report) {
  current_command = 0;
  const int ierr = Start_Buffer_Folder(*this, System_config.buffer_folder);
  Data_lim_sys.disk_free_byte = System_config.disk_free_byte;
  System_config.lim_template.disk_free_byte = System_config.disk_free_byte;
  if (report)
    Show_Configuration_Report();
  if (access(System_config.Ivp_Path().c_str(), R_OK) == 0)
    readinvset(*this, 1, System_config.Ivp_Path().c_str());
  Set_Folder_Names();
  return ierr;
}

void Data_Set::Set_Folder_Names() {
  if (Set_Temp_File_Names(file_names, System_config.buffer_folder)) {
    print_to_buffer(mesg, sizeof mesg,
                    "Another run uses the buffer folder %s: this run keeps its temporary files "
                    "in %s",
                    System_config.buffer_folder.c_str(), file_names.folder.c_str());
    panel_text(*this, mesg);
  }
  Set_Trace_Paths(System_config.buffer_folder);
}

void Data_Set::Exit() {
  TRACE("IDM_EXIT\n");
  System_config.Ini.Write(System_config.Ini_Path());
  Remove_Exit_Temp_Files(file_names);
  Release_Buffer_Folder(file_names);
}

int Data_Set::Allocate_Arrays() {
  const int64_t m = Data_lim_sys.nmax_model;
  int ierr = 0;
  for (float *&t : cell_values)
    ierr |= Allocate_Values(*this, t, m + 1, "model cell values");
  ierr |= Allocate_Values(*this, cell_flags, m, "model cell flags");
  ierr |= Allocate_Survey_Arrays();
  TRACE_MEMORY("Allocate_Arrays nmax_model %lld ierr %d\n", static_cast<long long>(m), ierr);
  return ierr;
}

void Data_Set::Free_Arrays() {
  for (float *&t : cell_values)
    Free_Values(t);
  Free_Values(cell_flags);
  Free_Survey_Arrays();
}

// The data arrays start small and grow to the data file read (within the
// limits), so that a small survey never asks for the limits' worth.
constexpr int64_t first_data_capacity = 1024;

int Data_Set::Allocate_Survey_Arrays() {
  const Data_Limits &lim = Data_lim_sys;
  const int64_t data = std::min<int64_t>(lim.nmax_data, first_data_capacity);
  const int64_t records = std::min(Data_Records_Count(lim), data + 1);
  const int64_t elecs = lim.nmax_elecs;
  int ierr = 0;
  num_dp_records = records;
  num_dp_data = data;
  ierr |= Allocate_Values(*this, dp, records, "data point records");
  ierr |= Allocate_Values(*this, dp_work, data + 4, "data point scratch records");
  ierr |= Allocate_Values(*this, valid_res, records, "data valid flags");
  ierr |= Allocate_Values(*this, valid_ip, records, "IP valid flags");
  ierr |= Allocate_Values(*this, keep, records, "data keep flags");
  ierr |= Allocate_Values(*this, sort_keys, 2 * data + 4, "data sort keys");
  ierr |= Allocate_Values(*this, sort_index, 2 * data + 4, "data sort index");
  ierr |= Allocate_Values(*this, pe, 2 * elecs + 4, "point electrodes");
  ierr |= Allocate_Values(*this, pe_copy, 2 * elecs + 4, "point electrodes copy");
  ierr |= Allocate_Values(*this, pe_work, 2 * elecs + 4, "point electrodes scratch");
  ierr |= Allocate_Values(*this, key_x, 2 * elecs + 4, "electrode x keys");
  ierr |= Allocate_Values(*this, key_y, 2 * elecs + 4, "electrode y keys");
  ierr |= Allocate_Values(*this, key_z, 2 * elecs + 4, "electrode depth keys");
  ierr |= Allocate_Values(*this, key_index, 2 * elecs + 4, "electrode key index");
  ierr |= Allocate_Section_Arrays(*this);
  return ierr;
}

int Data_Set::Reserve_Data_Records(int64_t data, int64_t series) {
  const int64_t records = data * std::max<int64_t>(series, 1) + 1;
  if (data < 0 || data > Data_lim_sys.nmax_data || records > Data_Records_Count(Data_lim_sys))
    return 1;
  if (records > num_dp_records) {
    const int64_t old = num_dp_records;
    if (Grow_Values(*this, dp, old, records, "data point records") ||
        Grow_Values(*this, valid_res, old, records, "data valid flags") ||
        Grow_Values(*this, valid_ip, old, records, "IP valid flags") ||
        Grow_Values(*this, keep, old, records, "data keep flags"))
      return 1;
    num_dp_records = records;
  }
  if (data > num_dp_data) {
    const int64_t old = num_dp_data;
    if (Grow_Values(*this, dp_work, old + 4, data + 4, "data point scratch records") ||
        Grow_Values(*this, sort_keys, 2 * old + 4, 2 * data + 4, "data sort keys") ||
        Grow_Values(*this, sort_index, 2 * old + 4, 2 * data + 4, "data sort index"))
      return 1;
    num_dp_data = data;
  }
  TRACE_MEMORY("Reserve_Data_Records data %lld records %lld\n", static_cast<long long>(data),
               static_cast<long long>(records));
  return 0;
}

void Data_Set::Free_Survey_Arrays() {
  Free_Values(dp);
  Free_Values(dp_work);
  Free_Values(valid_res);
  Free_Values(valid_ip);
  Free_Values(keep);
  Free_Values(sort_keys);
  Free_Values(sort_index);
  Free_Values(pe);
  Free_Values(pe_copy);
  Free_Values(pe_work);
  Free_Values(key_x);
  Free_Values(key_y);
  Free_Values(key_z);
  Free_Values(key_index);
  Free_Section_Arrays(*this);
  num_dp_records = 0;
  num_dp_data = 0;
}

std::string Data_Set::Configuration_Report() const {
  const System_Config &sc = System_config;
  const Data_Limits &lim = Data_lim_sys;
  char cpu_line[512];
  std::snprintf(cpu_line, sizeof cpu_line, "%s (%s)", sc.cpu.brand, sc.cpu.vendor_word);
  char level_line[512];
  std::snprintf(level_line, sizeof level_line, "%s\nOpenBLAS kernel %s, %s.\nOpenMP: %s.",
                Instruction_Level_Text(sc.cpu.instruction_level), Blas_Kernel_Name(),
                Blas_Kernel_Origin(), Thread_Wait_Text());
  char text[4096];
  int n = std::snprintf(text, sizeof text,
                        "PC configuration :-\n%s\nNumber of CPU parallel threads %d\nFree RAM %.1f "
                        "GB\n%s\nFree buffer disk space in drive %s is %.2f TB\nMonitor screen "
                        "window is %d by %d\n\n",
                        cpu_line, sc.nthreads, sc.mem_free_gb, level_line, sc.buffer_folder.c_str(),
                        static_cast<double>(sc.disk_free_byte) / 1099511627776.0, sc.screen_width,
                        sc.screen_height);
  n += std::snprintf(text + n, sizeof text - n,
                     "\nMaximum data allowed %d\nMaximum model allowed %d\nMaximum electrodes "
                     "allowed %d\nMaximum mesh cells %lld\n",
                     lim.nmax_data, lim.nmax_model, lim.nmax_elecs,
                     static_cast<long long>(lim.max_cells_mesh));
  char title[128];
  std::snprintf(title, sizeof title, "Ohmvol3Dx64 ver. %d.%d.%d", version_major, version_minor,
                version_sub);
  std::snprintf(text + n, sizeof text - n, "\n%s\nProgram version date %d-%d-%d", title,
                version_day, version_month, version_year);
  return text;
}

void Data_Set::Show_Configuration_Report() {
  const std::string report = Configuration_Report();
  panel_text(*this, "Program and System Configuration");
  size_t start = 0;
  while (start <= report.size()) {
    size_t end = report.find('\n', start);
    if (end == std::string::npos)
      end = report.size();
    panel_text(*this, report.substr(start, end - start).c_str());
    start = end + 1;
  }
}
