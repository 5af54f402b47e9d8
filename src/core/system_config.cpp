#include "core/system_config.h"

#include <cstdlib>
#include <unistd.h>

#include "core/folders.h"
#include "core/memory.h"

namespace {

std::string Home_Relative(const char *xdg_var, const char *fallback, const char *tail) {
  const char *xdg = std::getenv(xdg_var);
  std::string base;
  if (xdg && xdg[0] == '/')
    base = xdg;
  else {
    const char *home = std::getenv("HOME");
    base = std::string(home && home[0] ? home : "/tmp") + fallback;
  }
  if (base.back() != '/')
    base += '/';
  return base + tail;
}

} // namespace

std::string Default_Config_Folder() {
  return Home_Relative("XDG_CONFIG_HOME", "/.config", "ohmvol3d/");
}

std::string Default_Buffer_Folder() {
  return Home_Relative("XDG_CACHE_HOME", "/.cache", "ohmvol3d/temp_buffer_3D/");
}

void System_Config::Start(const Start_Options &opt) {
  mem_total_byte = opt.total_mem_bytes > 0 ? opt.total_mem_bytes : Total_Memory_Bytes();
  mem_total_gb = static_cast<double>(mem_total_byte) / 1073741824.0;
  mem_free_byte = mem_total_byte - 1073741824LL;
  mem_free_gb = Memory_G(mem_total_byte);
  Compute_Limits(mem_free_gb, mem_free_byte, lim_template);

  program_folder =
      With_Slash(opt.config_folder.empty() ? Default_Config_Folder() : opt.config_folder);
  Make_Folders(program_folder);
  char cwd[4096];
  current_folder = With_Slash(getcwd(cwd, sizeof cwd) ? cwd : ".");
  Ini.Read(Ini_Path(), program_folder);

  buffer_default = Default_Buffer_Folder();
  // A named folder is always taken; Start_Buffer_Folder warns when it has
  // less room than a large survey needs.
  buffer_named = !opt.buffer_folder.empty() || Ini.buffer_set;
  if (!opt.buffer_folder.empty())
    buffer_folder = With_Slash(opt.buffer_folder);
  else if (Ini.buffer_set)
    buffer_folder = With_Slash(Ini.buffer);
  else
    buffer_folder = buffer_default;
  disk_free_byte = Free_Disk_Bytes(buffer_folder);
  lim_template.disk_free_byte = disk_free_byte;
}
