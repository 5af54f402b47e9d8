#include "core/commands.h"

#include <cstdio>
#include <cstring>

#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/messages.h"
#include "core/settings_table.h"
#include "core/trace.h"
#include "inversion/inversion.h"
#include "results/results_file.h"
#include "survey/survey.h"

namespace {

// What a command needs before it runs.
enum Gate : int {
  G_NONE,
  G_MDATA,       // a data file has data points
  G_DATA_READ,   // a data file is read (mdata >= 1 and data_read = 1)
  G_POINT_ELECS, // point electrodes exist
  G_LAYERS,      // the model has at least two layers
  G_INV_READ     // a results file is read
};

struct Command_Entry {
  int id;
  int gate;
  int (*run)(Data_Set &ds, const char *path); // nullptr: not available yet
};

const char *const not_yet = "This command is not available yet.";

// A dialog's answer: "1"/"yes" or "0"/"no" from the caller, else the question.
int Answer(Data_Set &ds, const char *path, const char *question, const char *title) {
  if (path && *path)
    return std::strchr("1yY", path[0]) != nullptr;
  return ask_question(ds, question, title);
}

int Run_Nothing(Data_Set &, const char *) {
  return 0;
}

int Run_Program_Info(Data_Set &ds, const char *) {
  ds.Show_Configuration_Report();
  return 0;
}

int Run_Exit(Data_Set &ds, const char *) {
  ds.Exit();
  return 0;
}

int Run_Trace(Data_Set &ds, const char *path) {
  const int on = Answer(ds, path, "Trace inversion progress?", "Trace inversion progress");
  if (!on) {
    trace_rec.trace_on = 0;
    return 0;
  }
  return trace_rec.trace_on ? 0 : Create_Trace_File(ds);
}

// "Data set inversion": `path` names the results file (null: the data
// file's name with ".inv").
int Run_Invert(Data_Set &ds, const char *path) {
  return Set_Save_Inversion_Results(ds, path);
}

int Run_Save_Sorted(Data_Set &ds, const char *path) {
  ds.save_sorted_next_read =
      Answer(ds, path, "Save the sorted data file after the next read?", "Save sorted data file");
  return 0;
}

int Run_Buffer_Folder(Data_Set &ds, const char *path) {
  if (!path || !*path)
    return 0; // the chooser was cancelled
  return Test_Buffer_Folder(ds, path);
}

int Run_Save_Ivp(Data_Set &ds, const char *path) {
  if (!path || !*path)
    return 0;
  if (Save_Inversion_Parameters(ds, path)) {
    print_to_buffer(ds.mesg, sizeof ds.mesg, "Cannot create file %s\n", path);
    show_message(ds, ds.mesg, "File Error");
    return 1;
  }
  print_to_buffer(ds.mesg, sizeof ds.mesg, "Inversion parameters saved in file\n%s", path);
  show_message(ds, ds.mesg, "Message", MK_INFORMATION);
  return 0;
}

int Run_Read_Ivp(Data_Set &ds, const char *path) {
  if (!path || !*path)
    return 0;
  if (readinvset(ds, 0, path))
    return 1;
  print_to_buffer(ds.mesg, sizeof ds.mesg, "Inversion settings from file\n%s restored.", path);
  show_message(ds, ds.mesg, "Message", MK_INFORMATION);
  return 0;
}

int Run_List_Settings(Data_Set &ds, const char *) {
  char line[1024];
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    const std::string v = Format_Setting_Value(ds, e);
    if (e.kind == SK_FIXED)
      std::snprintf(line, sizeof line, "%-34s %-12s (fixed)  %s", e.key, v.c_str(), e.caption);
    else
      std::snprintf(line, sizeof line, "%-34s %-12s [%g, %g]  %s", e.key, v.c_str(), e.lo, e.hi,
                    e.caption);
    panel_text(ds, line);
  }
  return 0;
}

const Command_Entry command_table[] = {
    {CMD_PROGRAM_INFO, G_NONE, Run_Program_Info},
    {CMD_EXIT, G_NONE, Run_Exit},
    {CMD_READ_DATA, G_NONE, Call_Read_Data_File},
    {CMD_SAVE_IVP, G_NONE, Run_Save_Ivp},
    {CMD_READ_IVP, G_NONE, Run_Read_Ivp},
    {CMD_INVERT, G_DATA_READ, Run_Invert},
    {CMD_TRACE, G_NONE, Run_Trace},
    {CMD_APPRES_INV, G_NONE, nullptr},
    {CMD_SAVE_SORTED, G_NONE, Run_Save_Sorted},
    {CMD_LAYER_THICKNESS, G_NONE, Reset_Model_After_Settings},
    {CMD_MESH_SETTINGS, G_NONE, Reset_Model_After_Settings},
    {CMD_ADJUST_DAMPING_SENS, G_NONE, nullptr},
    {CMD_REDUCE_SIDE, G_NONE, nullptr},
    {CMD_LAYER_DEPTHS, G_LAYERS, nullptr},
    {CMD_LS_SOLVER, G_NONE, nullptr},
    {CMD_SUBDIVIDE_GRID, G_NONE, nullptr},
    {CMD_DISPLAY_GRID, G_POINT_ELECS, nullptr},
    {CMD_RESISTIVITY_RANGE, G_NONE, nullptr},
    {CMD_LNORM, G_NONE, nullptr},
    {CMD_DAMPING, G_NONE, nullptr},
    {CMD_ITERATIONS, G_NONE, nullptr},
    {CMD_SET_DISPLAY, G_NONE, nullptr},
    {CMD_RESOLUTION, G_NONE, nullptr},
    {CMD_JACOBIAN_OPTIONS, G_NONE, nullptr},
    {CMD_IP_OPTIONS, G_NONE, nullptr},
    {CMD_READ_RESULTS, G_NONE, Run_Read_Results},
    {CMD_DISPLAY_MODEL, G_INV_READ, Run_Display_Model},
    {CMD_DIAGONAL_FILTERS, G_NONE, nullptr},
    {CMD_REFERENCE_MODEL, G_NONE, nullptr},
    {CMD_GEOMETRIC_FILTER, G_MDATA, nullptr},
    {CMD_DIPOLE_FEM, G_DATA_READ, nullptr},
    {CMD_DISPLAY_MESH_TYPE, G_NONE, nullptr},
    {CMD_SHIFT_POINT_ELECS, G_NONE, nullptr},
    {CMD_SAVE_IMAGE, G_NONE, Run_Save_Image},
    {CMD_EXPORT_XYZ, G_INV_READ, Run_Export_Model_List},
    {CMD_EXPORT_XYZC, G_INV_READ, Run_Export_XYZC},
    {CMD_EXPORT_VTK, G_INV_READ, Run_Export_VTK},
    {CMD_ELECTRODE_MISFIT, G_INV_READ, Run_Electrode_Misfit},
    {CMD_SEGMENT_OPTIONS, G_NONE, nullptr},
    {CMD_BUFFER_FOLDER, G_NONE, Run_Buffer_Folder},
    {CMD_LCURVE_NUMERICAL, G_INV_READ, nullptr},
    {CMD_LCURVE_PLOT, G_INV_READ, nullptr},
    {CMD_LCURVE_ANALYTICAL, G_INV_READ, nullptr},
    {CMD_LCURVE_SELECT, G_INV_READ, nullptr},
    {CMD_LCURVE_REJECT, G_INV_READ, nullptr},
    {CMD_FEM_SOLVER, G_NONE, nullptr},
    {CMD_IP_SEQUENCE, G_NONE, nullptr},
    {CMD_EXPORT_MISFIT, G_INV_READ, Run_Export_Misfit},
    {CMD_INV_READ_NOOP, G_INV_READ, Run_Nothing},
    {CMD_VOI_FROM_FILES, G_NONE, nullptr},
    {CMD_VOI_RESISTIVITY, G_NONE, nullptr},
    {CMD_VOI_IP, G_NONE, nullptr},
    {CMD_TEST_WAVELETS, G_NONE, Run_Nothing},
    {CMD_GEOM_FACTOR_WEIGHTS, G_NONE, nullptr},
    {CMD_FILTER_GEOM_ERRORS, G_NONE, Run_Nothing},
    {CMD_LIST_SETTINGS, G_NONE, Run_List_Settings},
};

const Command_Entry *Find_Command(int id) {
  for (const Command_Entry &c : command_table)
    if (c.id == id)
      return &c;
  return nullptr;
}

// Tests a command's gate; shows the refusal and returns 1 when it is shut.
int Check_Gate(Data_Set &ds, int gate) {
  switch (gate) {
  case G_MDATA:
    if (ds.mdata > 0)
      return 0;
    show_message(ds, "You need to first read in a data file!", "Message", MK_PLAIN);
    return 1;
  case G_DATA_READ:
    if (ds.mdata >= 1 && ds.data_read == 1)
      return 0;
    show_message(ds, "You must first read in a data file", "Message");
    return 1;
  case G_POINT_ELECS:
    if (ds.num_point_elecs >= 1)
      return 0;
    show_message(ds, "You must first read in a data file!", "Message", MK_INFORMATION);
    return 1;
  case G_LAYERS:
    if (ds.Model_grid.nlayers >= 2)
      return 0;
    show_message(ds, "You need to read in a data file!", "Message");
    return 1;
  case G_INV_READ:
    if (ds.inv_read == 1)
      return 0;
    show_message(ds, "You need to first read in a file with the inversion results.", "Message");
    return 1;
  default:
    return 0;
  }
}

} // namespace

bool Is_Known_Command(int id) {
  return Find_Command(id) != nullptr;
}

bool Is_Built_Command(int id) {
  const Command_Entry *c = Find_Command(id);
  return c && c->run;
}

int Data_Set::Run_Command(int id, const char *path) {
  const Command_Entry *c = Find_Command(id);
  if (!c) {
    TRACE("Run_Command unknown id %d\n", id);
    return 1;
  }
  // Every command starts from a clear drawing surface in the normal display.
  display_mode = 0;
  panel_y = 0;
  current_command = id;
  TRACE("Run_Command %d\n", id);
  if (Check_Gate(*this, c->gate))
    return 1;
  if (!c->run) {
    show_message(*this, not_yet, "Message");
    return 1;
  }
  const int ierr = c->run(*this, path);
  TRACE("Run_Command %d exit ierr %d\n", id, ierr);
  return ierr;
}
