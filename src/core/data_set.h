// Data_Set: the one application object. It owns the survey, the settings
// groups, the model grid and mesh, the least-squares state and the run state;
// every subsystem works on it directly.
#pragma once

#include <cstdint>
#include <string>

#include "appraisal/lcurve.h"
#include "appraisal/sens_reso.h"
#include "core/data_set_settings.h"
#include "core/front_end.h"
#include "core/limits.h"
#include "core/system_config.h"
#include "core/temp_files.h"
#include "forward/fem_state.h"
#include "inversion/ls_method.h"
#include "inversion/ls_state.h"
#include "mesh/model_grid.h"
#include "mesh/semi_structured.h"
#include "modes/data_ip.h"
#include "modes/inv_splice.h"
#include "modes/time_lapse.h"
#include "results/inv_results.h"
#include "survey/data_filter.h"
#include "survey/survey_state.h"
#include "survey/vector_para.h"
#include "ui/display_window.h"

// Program version.
constexpr int version_major = 1;
constexpr int version_minor = 0;
constexpr int version_sub = 0;
constexpr int version_year = 2026, version_month = 11, version_day = 21;

class Data_Set : public Data_Set_Settings, public Survey_State {
public:
  // The computer and its surroundings.
  System_Config System_config;
  // Scratch for messages.
  char mesg[1024] = {};
  // The capacity limits every check compares with.
  Data_Limits Data_lim_sys;

  Model_Grid Model_grid;
  Data_IP Data_ip;
  Time_Lapse Time_lapse;
  LS_Method LS_method;
  LS_State LS; // working state of the inversion run
  Data_Filter Data_filter;
  SemiStructured Semistructured;
  Fem_State Fem; // capacitance matrix, electrode nodes, potentials, calculated data
  Sens_Reso Sens_reso;
  Vector_Para Vector_para;

  // Paths of all temporary files, the data file and the results file.
  File_Names file_names;

  // Survey counters.
  int mdata = 0;           // data points in one time series
  int num_point_elecs = 0; // point electrodes
  int nelec_use = 0;       // electrodes used

  Inv_Splice Invsplice;
  L_Curve LCurve;
  Inv_Results Inv_results; // what a results file read back holds
  Display_Window Dw;       // the pictures: view, values on show, scale, layout

  // Application state.
  int data_read = 0;               // 1 after a successful read of a data file
  int inv_read = 0;                // 1 after a results file was read
  int current_command = -1;        // last command id; all ones at start
  int display_mode = 0;            // 0 normal, 1 model grid window, 2 reading results
  int flag_save_in_new_format = 0; // the read flow writes a new data file
  int grid_extend = 0;             // ... with an extended grid
  int quiet = 0;                   // checks return failure without messages
  int data_points_removed = 0;     // a read removed points: save the sorted data
  int save_sorted_next_read = 0;   // the user asked that the next read saves its sorted data
  int batch_mode = 0;              // 1: no dialog ever waits for a person
  int exit_next = 0;               // stop the run at the next iteration boundary
  int jacobian_on_disk = 0;        // the Jacobian is kept on disk (memory probe failed)
  int long_tables_status = 0;      // result of Allocate_Arrays

  // Panel and status display.
  int panel_y = 0; // panel cursor
  int panel_line_height = 16;
  char status_text[256] = {};   // text of the status bar
  double status_fraction = 0.0; // filled part of the status bar
  int status_width_chars = 120; // the status bar's width in characters

  // Long-lived tables.
  float *cell_values[4] = {}; // model cell value tables, nmax_model + 1 each
  int *cell_flags = nullptr;  // one flag per model cell

  Front_End fe;

  // Construction: the system configuration (limits, folders, ini file, buffer
  // folder candidate), then every group with its defaults.
  explicit Data_Set(const Start_Options &opt = Start_Options(),
                    const Front_End &front = Front_End());
  ~Data_Set();
  Data_Set(const Data_Set &) = delete;
  Data_Set &operator=(const Data_Set &) = delete;

  // Window creation: threads, limits in force, long-lived tables, trace
  // paths, processor. Returns the allocation status.
  int Create();
  // First paint: starts the buffer folder, shows the configuration report
  // when `report` is 1 (the desktop window), reads the user's ohmvol3d.ivp
  // silently and names the temporary files in the buffer folder.
  int First_Paint(int report = 0);
  // Rebuilds the temporary file names and the trace paths from the buffer
  // folder (at first paint and whenever the folder changes).
  void Set_Folder_Names();
  // Exit flow: writes ohmvol3d.ini and removes the exit temporary files.
  void Exit();

  // Runs command `id`; `path` stands for a file chooser's answer where the
  // command asks for a file. Returns 0 when the command ran.
  int Run_Command(int id, const char *path = nullptr);

  int Allocate_Arrays();
  void Free_Arrays();
  // The survey's tables: data points, point electrodes, keys, sections.
  int Allocate_Survey_Arrays();
  void Free_Survey_Arrays();
  // Grows the data arrays to hold `data` points a series in `series`
  // series (kept values stay); 1 past the limits or when memory fails (the
  // memory message names the array).
  int Reserve_Data_Records(int64_t data, int64_t series);

  // "Program and System Configuration" report.
  std::string Configuration_Report() const;
  void Show_Configuration_Report();
};
