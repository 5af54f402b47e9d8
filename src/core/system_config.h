// The computer and its surroundings: memory, processor, folders, the program
// settings file and the template of the capacity limits.
#pragma once

#include <cstdint>
#include <string>

#include "core/cpu_info.h"
#include "core/ini_file.h"
#include "core/limits.h"

// What a front end knows before the application object exists. Empty or zero
// fields mean "ask the system".
struct Start_Options {
  int64_t total_mem_bytes = 0; // physical memory; 0 reads the computer's
  std::string config_folder;   // where ohmvol3d.ini and ohmvol3d.ivp live
  std::string buffer_folder;   // buffer folder for temporary files
  int nthreads = 0;            // OpenMP threads; 0 leaves the runtime's default
};

class System_Config {
public:
  int64_t mem_total_byte = 0; // physical memory
  double mem_total_gb = 0.0;  // the same in GiB
  double mem_free_gb = 0.0;   // G = (total - 1 GiB) / 2^30, "Free RAM"
  int64_t mem_free_byte = 0;  // total - 1 GiB
  int64_t disk_free_byte = 0; // free bytes at the buffer folder
  std::string buffer_folder;  // ends in '/'
  std::string program_folder; // the configuration folder, ends in '/'
  std::string current_folder; // ends in '/'
  std::string buffer_default; // the folder used when none is named
  int buffer_named = 0;       // 1 when --buffer or ohmvol3d.ini named the folder
  Ini_Settings Ini;           // ohmvol3d.ini
  int nthreads = 1;           // parallel threads
  Cpu_Info cpu;               // vendor word and instruction level
  int screen_width = 1600;    // drawing surface when no screen is known
  int screen_height = 1000;
  Data_Limits lim_template; // template of the capacity limits

  // Builds the configuration in start-up order: limits from memory, the
  // program folder, ohmvol3d.ini, the buffer folder candidate, the template.
  void Start(const Start_Options &opt);
  std::string Ini_Path() const { return program_folder + "ohmvol3d.ini"; }
  std::string Ivp_Path() const { return program_folder + "ohmvol3d.ivp"; }
  std::string PolePole_Ivp_Path() const { return program_folder + "PolePole.ivp"; }
};

// $XDG_CONFIG_HOME/ohmvol3d/ (else ~/.config/ohmvol3d/), and the cache
// folder's default buffer $XDG_CACHE_HOME/ohmvol3d/temp_buffer_3D/ (else
// ~/.cache/ohmvol3d/temp_buffer_3D/).
std::string Default_Config_Folder();
std::string Default_Buffer_Folder();
