#include "cli_options.h"

#include <cstdlib>
#include <cstring>

#include "core/settings_table.h"

namespace {

// Options of single subcommands that take a value.
const char *const valued_named[] = {"-o",     "--save",    "--model",  "--noise",
                                    "--seed", "--vtk",     "--format", "--iteration",
                                    "--view", "--section", "--size"};
// Options of single subcommands that stand alone.
const char *const flag_named[] = {"--ip", "--contour", "--misfit"};

bool In(const char *word, const char *const *list, size_t n) {
  for (size_t i = 0; i < n; i++)
    if (std::strcmp(word, list[i]) == 0)
      return true;
  return false;
}

} // namespace

int Parse_Cli(int argc, char **argv, Cli_Options &opt, std::string &error) {
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    auto value = [&](std::string &out) -> bool {
      if (i + 1 >= argc) {
        error = "option " + a + " needs a value";
        return false;
      }
      out = argv[++i];
      return true;
    };
    if (a == "--help" || a == "-h")
      opt.help = true;
    else if (a == "--version")
      opt.version = true;
    else if (a == "--yes")
      opt.answer = 1;
    else if (a == "--no")
      opt.answer = 0;
    else if (a == "--trace")
      opt.trace = true;
    else if (a == "--quiet")
      opt.quiet = true;
    else if (a == "--ivp") {
      if (!value(opt.ivp))
        return 2;
    } else if (a == "--buffer") {
      if (!value(opt.buffer))
        return 2;
    } else if (a == "--threads") {
      std::string v;
      if (!value(v))
        return 2;
      char *end = nullptr;
      const long n = std::strtol(v.c_str(), &end, 10);
      if (end == v.c_str() || *end || n < 1 || n > 4096) {
        error = "--threads needs a whole number from 1 to 4096, not '" + v + "'";
        return 2;
      }
      opt.threads = static_cast<int>(n);
    } else if (a == "--set") {
      std::string kv;
      if (!value(kv))
        return 2;
      const size_t eq = kv.find('=');
      if (eq == std::string::npos || eq == 0) {
        error = "--set needs KEY=VALUE, not '" + kv + "'";
        return 2;
      }
      const std::string key = kv.substr(0, eq);
      const Setting_Entry *e = Find_Setting(key.c_str());
      if (!e) {
        error = "unknown setting '" + key + "' (see 'ohmvol3d settings show')";
        return 2;
      }
      if (e->kind == SK_FIXED) {
        error = "setting '" + key + "' is fixed and cannot be changed";
        return 2;
      }
      opt.sets.emplace_back(key, kv.substr(eq + 1));
    } else if (In(a.c_str(), valued_named, std::size(valued_named))) {
      std::string v;
      if (!value(v))
        return 2;
      opt.named.emplace_back(a, v);
    } else if (In(a.c_str(), flag_named, std::size(flag_named))) {
      opt.named.emplace_back(a, "");
    } else if (a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9')) {
      error = "unknown option " + a;
      return 2;
    } else if (opt.subcommand.empty()) {
      opt.subcommand = a;
    } else {
      opt.args.push_back(a);
    }
  }
  return 0;
}

const char *Cli_Usage(const std::string &subcommand) {
  if (subcommand == "info")
    return "Usage: ohmvol3d info [OPTIONS]\n"
           "Shows the program and system configuration: processor, threads, memory,\n"
           "buffer folder and the capacity limits that follow from the memory size.\n";
  if (subcommand == "settings")
    return "Usage: ohmvol3d settings show|save FILE.ivp|load FILE.ivp|reset [OPTIONS]\n"
           "  show           every setting: key, value, bounds and caption\n"
           "  save FILE.ivp  write the present settings (after --ivp and --set)\n"
           "  load FILE.ivp  read a settings file and keep it as the settings that\n"
           "                 later runs start from\n"
           "  reset          forget the kept settings: later runs start from the defaults\n";
  return "Usage: ohmvol3d SUBCOMMAND [ARGS] [OPTIONS]\n"
         "       ohmvol3d --help | SUBCOMMAND --help | --version\n"
         "\n"
         "Subcommands:\n"
         "  info                         program and system configuration\n"
         "  settings show|save|load|reset  inversion settings (.ivp files)\n"
         "  read DATA.dat [--save OUT.dat]  read a survey data file and report it;\n"
         "                               --save writes the data read as a data file\n"
         "  mesh DATA.dat [--vtk MESH.vtk]  read, then build and check the finite-element\n"
         "                               mesh; --vtk writes it for ParaView\n"
         "  forward DATA.dat --model MODEL.txt -o SYNTH.dat [--noise PCT] [--seed N]\n"
         "                               calculated data of a model of a background, boxes\n"
         "                               and layers\n"
         "  check-mesh DATA.dat [--model MODEL.txt]  forward model of a homogeneous\n"
         "                               half-space (flat ground or topography) or of a\n"
         "                               two-layer model against analytic values: errors by\n"
         "                               array type\n"
         "  invert DATA.dat [-o RESULTS.inv]  invert a survey data file\n"
         "  export RESULTS.inv --format xyz|xyzc|logxyzc|vtk|misfit [--iteration N] [--ip]\n"
         "  plot FILE [--view layers|xz|yz|electrodes|mesh|lcurve] [--iteration N] [--ip]\n"
         "       [--section K] [--size WxH] [--contour] [--misfit] -o FILE.png\n"
         "\n"
         "Options:\n"
         "  --ivp FILE        read inversion settings from an .ivp file\n"
         "  --set KEY=VALUE   set one setting (repeatable; keys: 'settings show')\n"
         "  --buffer DIR      buffer folder for temporary files\n"
         "  --threads N       number of parallel threads (default: all cores)\n"
         "  --yes | --no      answer to every yes-or-no question (default --no)\n"
         "  --trace           write a trace file and memory report in the buffer folder\n"
         "  --quiet           no panel lines and no progress\n"
         "\n"
         "Exit status: 0 success, 1 refused or failed, 2 usage error.\n";
}
