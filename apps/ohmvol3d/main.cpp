// ohmvol3d: the batch front end. Each subcommand runs the core's commands
// with their gates; no dialog ever waits for a person.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "cli_front_end.h"
#include "cli_options.h"
#include "core/commands.h"
#include "core/cpu_info.h"
#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/messages.h"
#include "core/settings_table.h"
#include "forward/synthetic.h"
#include "mesh/mesh.h"
#include "results/results_file.h"
#include "survey/survey.h"
#include "ui/qt/qimage_surface.h"

namespace {

int Usage_Error(const std::string &error) {
  std::fprintf(stderr, "ohmvol3d: %s\n\n%s", error.c_str(), Cli_Usage(""));
  return 2;
}

int Run_Settings(Data_Set &ds, const Cli_Options &opt) {
  const std::string verb = opt.args.empty() ? "" : opt.args[0];
  const std::string file = opt.args.size() > 1 ? opt.args[1] : "";
  const size_t want = (verb == "save" || verb == "load") ? 2 : 1;
  if (verb != "show" && verb != "save" && verb != "load" && verb != "reset")
    return Usage_Error("settings needs show, save FILE, load FILE or reset");
  if (opt.args.size() != want)
    return Usage_Error("wrong number of words for 'settings " + verb + "'");
  const std::string kept = ds.System_config.Ivp_Path(); // settings later runs start from
  if (verb == "show")
    return ds.Run_Command(CMD_LIST_SETTINGS) ? 1 : 0;
  if (verb == "save")
    return ds.Run_Command(CMD_SAVE_IVP, file.c_str()) ? 1 : 0;
  if (verb == "load") {
    if (ds.Run_Command(CMD_READ_IVP, file.c_str()))
      return 1;
    // Later runs start from these settings.
    if (Save_Inversion_Parameters(ds, kept.c_str())) {
      print_to_buffer(ds.mesg, sizeof ds.mesg, "Cannot create file %s\n", kept.c_str());
      show_message(ds, ds.mesg, "File Error");
      return 1;
    }
    return 0;
  }
  if (std::remove(kept.c_str()) == 0) {
    print_to_buffer(ds.mesg, sizeof ds.mesg, "Removed %s: later runs start from the defaults.",
                    kept.c_str());
  } else {
    print_to_buffer(ds.mesg, sizeof ds.mesg, "No kept settings file %s: the defaults are in use.",
                    kept.c_str());
  }
  panel_text(ds, ds.mesg);
  return 0;
}

const std::string *Named_Option(const Cli_Options &opt, const char *name) {
  for (const auto &[key, value] : opt.named)
    if (key == name)
      return &value;
  return nullptr;
}

// read DATA.dat [--save OUT.dat]
int Run_Read(Data_Set &ds, const Cli_Options &opt) {
  if (opt.args.size() != 1)
    return Usage_Error("read needs one data file name");
  if (ds.Run_Command(CMD_READ_DATA, opt.args[0].c_str()))
    return 1;
  const std::string *out = Named_Option(opt, "--save");
  return out && File_Save(ds, out->c_str()) ? 1 : 0;
}

// mesh DATA.dat [--vtk MESH.vtk]
int Run_Mesh(Data_Set &ds, const Cli_Options &opt) {
  if (opt.args.size() != 1)
    return Usage_Error("mesh needs one data file name");
  if (ds.Run_Command(CMD_READ_DATA, opt.args[0].c_str()))
    return 1;
  const std::string *vtk = Named_Option(opt, "--vtk");
  return Call_Generate_Mesh(ds, vtk ? vtk->c_str() : nullptr) ? 1 : 0;
}

// forward DATA.dat --model MODEL.txt -o SYNTH.dat [--noise PCT] [--seed N]
int Run_Forward(Data_Set &ds, const Cli_Options &opt) {
  const std::string *model = Named_Option(opt, "--model"), *out = Named_Option(opt, "-o");
  const std::string *noise = Named_Option(opt, "--noise"), *seed = Named_Option(opt, "--seed");
  if (opt.args.size() != 1 || !model || !out)
    return Usage_Error("forward needs a data file name, --model MODEL.txt and -o SYNTH.dat");
  char *end = nullptr;
  const double pct = noise ? std::strtod(noise->c_str(), &end) : 0.0;
  if (noise && (end == noise->c_str() || *end || !(pct >= 0.0 && pct <= 100.0)))
    return Usage_Error("--noise needs a percentage from 0 to 100, not '" + *noise + "'");
  const unsigned long long sd = seed ? std::strtoull(seed->c_str(), &end, 10) : 1;
  if (seed && (end == seed->c_str() || *end))
    return Usage_Error("--seed needs a whole number, not '" + *seed + "'");
  if (ds.Run_Command(CMD_READ_DATA, opt.args[0].c_str()))
    return 1;
  Synthetic_Model m;
  if (Read_Synthetic_Model(ds, model->c_str(), m))
    return 1;
  return Forward_Synthetic_Data(ds, m, out->c_str(), pct, static_cast<unsigned>(sd)) ? 1 : 0;
}

// check-mesh DATA.dat [--model MODEL.txt]: the figures are information, so
// a check that ran exits 0 whatever they are.
int Run_Check_Mesh(Data_Set &ds, const Cli_Options &opt) {
  if (opt.args.size() != 1)
    return Usage_Error("check-mesh needs one data file name");
  const std::string *model = Named_Option(opt, "--model");
  if (ds.Run_Command(CMD_READ_DATA, opt.args[0].c_str()))
    return 1;
  Mesh_Accuracy acc;
  if (!model)
    return Check_Mesh_Half_Space(ds, acc) ? 1 : 0;
  Synthetic_Model m;
  if (Read_Synthetic_Model(ds, model->c_str(), m))
    return 1;
  return Check_Mesh_Model(ds, m, acc) ? 1 : 0;
}

// invert DATA.dat [-o RESULTS.inv]
int Run_Invert(Data_Set &ds, const Cli_Options &opt) {
  if (opt.args.size() != 1)
    return Usage_Error("invert needs one data file name");
  if (ds.Run_Command(CMD_READ_DATA, opt.args[0].c_str()))
    return 1;
  const std::string *out = Named_Option(opt, "-o");
  const int r = ds.Run_Command(CMD_INVERT, out ? out->c_str() : nullptr);
  if (r == 0 && !ds.LS.results_path.empty()) {
    print_to_buffer(ds.mesg, sizeof ds.mesg, "Results file %s", ds.LS.results_path.c_str());
    panel_text(ds, ds.mesg);
  }
  return r ? 1 : 0;
}

// 1 where the results file read ends inside an iteration (the reader has
// said so, and the command worked with the iterations before it): the run
// that wrote it did not finish writing.
int Results_Cut_Short(const Data_Set &ds) {
  return ds.Inv_results.cut_iteration > 0 ? 1 : 0;
}

// export RESULTS.inv --format xyz|xyzc|logxyzc|vtk|misfit [--iteration N] [--ip]
int Run_Export(Data_Set &ds, const Cli_Options &opt) {
  const std::string *format = Named_Option(opt, "--format");
  const std::string *iter = Named_Option(opt, "--iteration");
  if (opt.args.size() != 1 || !format)
    return Usage_Error("export needs a results file name and --format xyz|xyzc|logxyzc|vtk|misfit");
  const std::string &f = *format;
  const int id = f == "xyz"                      ? CMD_EXPORT_XYZ
                 : f == "xyzc" || f == "logxyzc" ? CMD_EXPORT_XYZC
                 : f == "vtk"                    ? CMD_EXPORT_VTK
                 : f == "misfit"                 ? CMD_EXPORT_MISFIT
                                                 : 0;
  if (!id)
    return Usage_Error("--format needs xyz, xyzc, logxyzc, vtk or misfit, not '" + f + "'");
  char *end = nullptr;
  const long it = iter ? std::strtol(iter->c_str(), &end, 10) : 0;
  if (iter && (end == iter->c_str() || *end || it < 1))
    return Usage_Error("--iteration needs an iteration number from 1, not '" + *iter + "'");
  if (ds.Run_Command(CMD_READ_RESULTS, opt.args[0].c_str()))
    return 1;
  Inv_Results &r = ds.Inv_results;
  r.export_iteration = static_cast<int>(it);
  r.export_ip = Named_Option(opt, "--ip") ? 1 : 0;
  r.export_log = f == "logxyzc" ? 1 : 0;
  if (ds.Run_Command(id))
    return 1;
  return Results_Cut_Short(ds);
}

// plot FILE [--view layers|xz|yz|electrodes|mesh|lcurve] [--iteration N]
// [--ip] [--section K] [--size WxH] [--contour] [--misfit] -o FILE.png: a results file
// for the model views and the L-curve, a data or results file for the
// electrode map and the mesh.
int Run_Plot(Data_Set &ds, const Cli_Options &opt) {
  const std::string *out = Named_Option(opt, "-o");
  if (opt.args.size() != 1 || !out)
    return Usage_Error("plot needs a results file name and -o FILE.png");
  static const char *const views[] = {"layers", "xz", "yz", "electrodes", "mesh", "lcurve"};
  Display_Window &w = ds.Dw;
  if (const std::string *v = Named_Option(opt, "--view")) {
    int k = 0;
    while (k < 6 && *v != views[k])
      k++;
    if (k == 6)
      return Usage_Error("--view needs layers, xz, yz, electrodes, mesh or lcurve, not '" + *v +
                         "'");
    w.type_display = k;
  }
  auto whole = [](const std::string *t, long lo, long &out) {
    char *end = nullptr;
    out = t ? std::strtol(t->c_str(), &end, 10) : 0;
    return !t || (end != t->c_str() && !*end && out >= lo);
  };
  long it = 0, sec = 0;
  if (!whole(Named_Option(opt, "--iteration"), 1, it))
    return Usage_Error("--iteration needs an iteration number from 1");
  if (!whole(Named_Option(opt, "--section"), 1, sec))
    return Usage_Error("--section needs a section number from 1");
  if (const std::string *size = Named_Option(opt, "--size")) {
    int wd = 0, ht = 0;
    if (std::sscanf(size->c_str(), "%dx%d", &wd, &ht) != 2 || wd < 200 || ht < 150 || wd > 20000 ||
        ht > 20000)
      return Usage_Error("--size needs WIDTHxHEIGHT in pixels (200x150 to 20000x20000), not '" +
                         *size + "'");
    w.width = wd;
    w.height = ht;
  }
  w.iteration = static_cast<int>(it);
  w.first_section = sec > 0 ? static_cast<int>(sec) - 1 : 0;
  w.quantity = Named_Option(opt, "--ip") ? DQ_IP : DQ_RESISTIVITY;
  w.draw_type = Named_Option(opt, "--contour") ? 1 : 0;
  w.color_misfit = Named_Option(opt, "--misfit") ? 1 : 0;
  const std::string &file = opt.args[0];
  const bool results = file.size() > 4 && file.compare(file.size() - 4, 4, ".inv") == 0;
  const bool model_view = w.type_display <= VIEW_YZ || w.type_display == VIEW_LCURVE;
  if (model_view && !results)
    return Usage_Error("the " + std::string(views[w.type_display]) +
                       " view needs a results file (.inv)");
  if (w.type_display == VIEW_MESH && results)
    return Usage_Error("the mesh view needs a data file (.dat)");
  if (ds.Run_Command(results ? CMD_READ_RESULTS : CMD_READ_DATA, file.c_str()))
    return 1;
  // The iteration's model (and, for the electrode map, its calculated data).
  const bool iteration_needed =
      w.type_display <= VIEW_YZ || (w.type_display == VIEW_ELECTRODES && results);
  if (results && Check_Results_Choice(ds, w.iteration, w.quantity == DQ_IP))
    return 1;
  if (iteration_needed &&
      Display_Resistivity_Model_Inv_Select(ds, w.iteration, w.quantity == DQ_IP, 0))
    return 1;
  if (ds.Run_Command(CMD_SAVE_IMAGE, out->c_str()))
    return 1;
  std::printf("Picture: %s\n", out->c_str());
  return results ? Results_Cut_Short(ds) : 0;
}

} // namespace

int main(int argc, char **argv) {
  Select_Blas_Kernel(argv);

  Cli_Options opt;
  std::string error;
  if (Parse_Cli(argc, argv, opt, error))
    return Usage_Error(error);
  if (opt.version) {
    std::printf("ohmvol3d %d.%d.%d\n", version_major, version_minor, version_sub);
    return 0;
  }
  if (opt.help) {
    std::fputs(Cli_Usage(opt.subcommand), stdout);
    return 0;
  }
  const std::string &sub = opt.subcommand;
  const bool known = sub == "read" || sub == "mesh" || sub == "forward" || sub == "check-mesh" ||
                     sub == "invert" || sub == "export" || sub == "plot";
  if (sub.empty())
    return Usage_Error("no subcommand given");
  if (sub != "info" && sub != "settings" && !known)
    return Usage_Error("unknown subcommand '" + sub + "'");
  if (sub == "info" && !opt.args.empty())
    return Usage_Error("info takes no file");

  Cli_Front_State state;
  state.answer = opt.answer;
  state.quiet = opt.quiet;
  Start_Options start;
  start.buffer_folder = opt.buffer;
  start.nthreads = opt.threads;
  static Image_Target image;
  Front_End fe = Make_Cli_Front_End(state);
  Install_Image_Front_End(fe, image);
  static Data_Set ds(start, fe);
  ds.batch_mode = 1;
  state.stop = &ds.exit_next;
  Catch_Stop_Signals();
  // The program's tables come first: without them nothing can run (the
  // allocation has shown what it lacked).
  if (ds.Create()) {
    ds.Exit();
    return 1;
  }
  ds.First_Paint();

  // A trace that cannot be created is reported and the run goes on without it.
  if (opt.trace)
    ds.Run_Command(CMD_TRACE, "1");
  if (!opt.ivp.empty() && readinvset(ds, 0, opt.ivp.c_str())) {
    ds.Exit();
    return 1;
  }
  for (const auto &[key, value] : opt.sets) {
    if (Set_Setting_Text(ds, *Find_Setting(key.c_str()), value.c_str())) {
      ds.Exit();
      return Usage_Error("setting '" + key + "' needs a number, not '" + value + "'");
    }
  }

  int result = 0;
  if (sub == "info")
    result = ds.Run_Command(CMD_PROGRAM_INFO) ? 1 : 0;
  else if (sub == "settings")
    result = Run_Settings(ds, opt);
  else if (sub == "read")
    result = Run_Read(ds, opt);
  else if (sub == "mesh")
    result = Run_Mesh(ds, opt);
  else if (sub == "forward")
    result = Run_Forward(ds, opt);
  else if (sub == "check-mesh")
    result = Run_Check_Mesh(ds, opt);
  else if (sub == "invert")
    result = Run_Invert(ds, opt);
  else if (sub == "export")
    result = Run_Export(ds, opt);
  else if (sub == "plot")
    result = Run_Plot(ds, opt);
  Cli_Close_Bar(state);
  ds.Exit();
  if (const int sig = Stop_Signal()) {
    std::fprintf(stderr, "Stopped by signal %d%s\n", sig,
                 sub == "invert" ? ": the results file holds the iterations finished" : "");
    return 128 + sig;
  }
  return result;
}
