// Every refusal of the data file reader, one table row each: a good file with
// one small textual change, the message (title and text, word for word) that
// the refusal shows, the name of the step that stopped, and what a refused
// read must leave behind. A second table holds the edge cases the reader
// accepts.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/settings_snapshot.h"
#include "core/test_support.h"
#include "survey/survey.h"

using namespace test_support;

namespace {

// Limits of every test Data_Set, set before the read: below the capacities
// its tables were made with, and fixed so that the texts quoting them are.
void Set_Test_Limits(Data_Set &ds) {
  Data_Limits &lim = ds.Data_lim_sys;
  lim.nmax_grid_lines = 40;
  lim.nmax_grid_xy = 1000;
  lim.nmax_elecs = 500;
  lim.nmax_layers = 10;
  lim.nmax_time = 5;
  lim.nmax_data = 5000;
}

// ---------------------------------------------------------------------------
// The good file: a 10 x 4 grid (x lines 10, 12, .., 28 and y lines 20, 22,
// 24, 26), a general array with dipole-dipole points, and 20 point electrodes
// along y = 20 and y = 22. Point k (from 0) has the value 100 + k.

struct Base_Options {
  int npoints = 35;        // data points written, and the count line
  const char *extra = "";  // appended to every data point line
  const char *z = "0.000"; // elevation of every electrode
};

std::string Fixed(const char *format, double v) {
  char b[64];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

std::string Base_File(const Base_Options &o) {
  std::string s =
      "Survey of the data file tests\n10,4\nNonuniform Grid\nX-location of grid lines\n";
  for (int i = 0; i < 10; i++)
    s += (i ? " " : "") + Fixed("%.3f", 10.0 + 2 * i);
  s += "\nY-location of grid lines\n";
  for (int j = 0; j < 4; j++)
    s += (j ? " " : "") + Fixed("%.3f", 20.0 + 2 * j);
  s += "\n11\n3\nType of data (0=Apparent Resistivity,1=Resistance)\n0\n"
       "Point Electrodes outside grid present\nNumber of point electrodes\n20\n"
       "Compressed format used for point electrodes coordinates\n";
  char line[256];
  for (int row = 0; row < 2; row++)
    for (int j = 0; j < 10; j++) {
      std::snprintf(line, sizeof line, "%4d %.3f,%.3f,%s\n", row * 10 + j + 1, 10.0 + 2 * j,
                    20.0 + 2 * row, o.z);
      s += line;
    }
  s += std::to_string(o.npoints) + "\n";
  // C2 at electrode j, C1 at j + 1, P1 at j + 1 + n and P2 at j + 2 + n of a
  // row: a positive geometric factor.
  int k = 0;
  for (int row = 0; row < 2; row++)
    for (int n = 1; n <= 7; n++)
      for (int j = 0; j + 2 + n <= 9 && k < o.npoints; j++, k++) {
        const double y = 20.0 + 2 * row;
        auto x = [](int e) { return 10.0 + 2 * e; };
        std::snprintf(line, sizeof line, "4 %.3f %.3f  %.3f %.3f  %.3f %.3f  %.3f %.3f  %.3f%s\n",
                      x(j + 1), y, x(j), y, x(j + 1 + n), y, x(j + 2 + n), y, 100.0 + k, o.extra);
        s += line;
      }
  return s + "0\n0\n0\n0\n0\n";
}

// Lines of the good file that the cases change.
const std::string point1 = "4 12.000 20.000  10.000 20.000  14.000 20.000  16.000 20.000  100.000";
const std::string point2 = "4 14.000 20.000  12.000 20.000  16.000 20.000  18.000 20.000  101.000";
const std::string array_lines = "\n11\n3\nType of data (0=Apparent Resistivity,1=Resistance)\n0\n";
const std::string resistance_lines =
    "\n11\n3\nType of data (0=Apparent Resistivity,1=Resistance)\n1\n";
const std::string vector_lines = "\n11\n16\nType of measurements (Two component values=0, Apparent "
                                 "resistivity amplitude and resistance ratio=1)\n";
const std::string x_lines = "X-location of grid lines\n10.000 12.000 14.000";
const std::string y_lines = "Y-location of grid lines\n20.000 22.000 24.000 26.000\n";
const std::string point_section = "Point Electrodes outside grid present\n";
const std::string count_line = "\n35\n";

std::string Tank(double x1, double x2, double y1, double y2) {
  char b[256];
  std::snprintf(b, sizeof b,
                "Tank Model\nBoundary positions\nx boundary positions (-x,+x)\n%.3f,%.3f\ny "
                "boundary positions (-y,+y)\n%.3f,%.3f\nz boundary position\n12.000\n",
                x1, x2, y1, y2);
  return b + point_section;
}

// The user depths section with these depths, before the count line.
std::string User_Depths(const std::vector<double> &depths) {
  std::string s = "\nUser defined depths to layers present\nNumber of layers\n" +
                  std::to_string(depths.size()) + "\nDepth of layers\n";
  for (size_t i = 0; i < depths.size(); i++)
    s += std::to_string(i + 1) + " " + Fixed("%.4f", depths[i]) + "\n";
  return s + "35\n";
}

// Depths 1.5, 3, 4.5, ... of n layers.
std::vector<double> Layers(int n) {
  std::vector<double> d;
  for (int i = 1; i <= n; i++)
    d.push_back(1.5 * i);
  return d;
}

// The time lapse section with n series, after the count line.
std::string Time_Lapse(int n) {
  std::string s = "\n35\nTime lapse data\nType of time lapse data (0=static,1=dynamic)\n0\nNumber "
                  "of time sections\n" +
                  std::to_string(n) + "\nTime unit\nDays\n";
  for (int k = 2; k <= n; k++)
    s += "Time series " + std::to_string(k) + "\n" + Fixed("%.2f", 10.0 * (k - 1)) + "\n";
  return s;
}

// The IP section with this name and these settings, after the count line.
std::string IP_Section(const char *name, const char *settings) {
  return std::string("\n35\nIP present\n") + name + "\nmV/V\n" + settings + "\n";
}

struct Edit {
  std::string find, replace;
};

// The good file with the edits applied; each `find` must stand exactly once.
std::string Edited_File(const Base_Options &o, const std::vector<Edit> &edits) {
  std::string s = Base_File(o);
  for (const Edit &e : edits) {
    const size_t at = s.find(e.find);
    EXPECT_NE(at, std::string::npos) << "not in the file: " << e.find;
    if (at == std::string::npos)
      continue;
    EXPECT_EQ(s.find(e.find, at + 1), std::string::npos) << "more than once: " << e.find;
    s.replace(at, e.find.size(), e.replace);
  }
  return s;
}

struct Read_Run {
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds = Make_Data_Set(tmp, rec);
  std::string path = tmp.sub("survey.dat");

  int Read(const std::string &text) {
    Write_File(path, text);
    return ds->Run_Command(CMD_READ_DATA, path.c_str());
  }
  bool Panel_Has(const std::string &line) const {
    for (const Recorded_Panel_Line &p : rec.panel_lines)
      if (p.text == line)
        return true;
    return false;
  }
};

void Quiet(Data_Set &ds) {
  ds.quiet = 1;
}

// ---------------------------------------------------------------------------
// Refusals

const char *const read_points_step = "Error in Read_Data_Points()";
const char *const scale_step = "Error in Scale_Positions()";

struct Refusal {
  const char *name;
  std::vector<Edit> edits;
  const char *title;          // nullptr: the stop shows no message of its own
  std::string text;           // the message's text
  const char *step = nullptr; // the step's name that the parse shows after it
  std::string panel = "";     // a panel line the read must have shown
  void (*setup)(Data_Set &) = nullptr;
  Base_Options base = {};
  const char *earlier = nullptr; // title of a message shown before the refusal
};

const std::string negative_gfac_tail = "\nYou can use the option to 'Automatically\nswitch "
                                       "electrodes' to avoid this error\nmessage.";

std::string Locations_Text(const char *result, const char *electrodes) {
  return std::string("There appears to be an error in the\nlocations of the electrodes which\nwill "
                     "result in ") +
         result +
         "\nfactor value.\n\nPlease check the location of the\nelectrodes for point number "
         "1.\n\nLocations of electrodes are\n" +
         electrodes;
}

const std::vector<Refusal> refusals = {
    // The grid.
    {"grid_lines_above_limit",
     {{"\n10,4\n", "\n41,4\n"}},
     "Program grid size limit",
     "Horizontal model grid size is too large!\nThe model grid size is 41 x 4 = 164.\nThe maximum "
     "x or y grid size allowed is 40.\nThe maximum x-y grid size allowed is 1000.\nYou will need "
     "to use a computer with more RAM."},
    {"grid_y_lines_above_limit",
     {{"\n10,4\n", "\n10,41\n"}},
     "Program grid size limit",
     "Horizontal model grid size is too large!\nThe model grid size is 10 x 41 = 410.\nThe "
     "maximum x or y grid size allowed is 40.\nThe maximum x-y grid size allowed is 1000.\nYou "
     "will need to use a computer with more RAM."},
    {"grid_nodes_above_limit",
     {{"\n10,4\n", "\n40,26\n"}},
     "Program grid size limit",
     "Horizontal model grid size is too large!\nThe model grid size is 40 x 26 = 1040.\nThe "
     "maximum x or y grid size allowed is 40.\nThe maximum x-y grid size allowed is 1000.\nYou "
     "will need to use a computer with more RAM."},
    {"grid_letter_missing",
     {{"Nonuniform Grid\n", "Grid lines\n"}},
     "Model grid error",
     "The model grid lines must be specified using the nonunform grid format!"},
    {"grid_size_comment_taken_for_the_grid_line",
     {{"\n10,4\n", "\n10,4 grid size\n"}},
     "Model grid error",
     "The model grid lines must be specified using the nonunform grid format!"},
    {"x_grid_not_increasing",
     {{x_lines, "X-location of grid lines\n10.000 12.000 12.000"}},
     "X-grid error",
     "Error in x-grid lines 2 and 3.\nValues are 12.00 and 12.00."},
    {"y_grid_not_increasing",
     {{y_lines, "Y-location of grid lines\n20.000 22.000 21.000 26.000\n"}},
     "Y-grid error",
     "Error in y-grid lines 2 and 3.\nValues are 22.00 and 21.00."},
    {"x_spacing_ratio_above_50",
     {{x_lines, "X-location of grid lines\n10.000 10.030 14.000"}},
     "X-grid error",
     "Error in x-grid lines\nThe maximum spacing of 3.97 is more than\n50 times the minimum "
     "spacing of 0.03."},
    {"y_spacing_ratio_above_50",
     {{y_lines, "Y-location of grid lines\n20.000 20.030 24.000 26.000\n"}},
     "Y-grid error",
     "Error in y-grid lines\nThe maximum spacing of 3.97 is more than\n50 times the minimum "
     "spacing of 0.03."},
    // The array.
    {"wenner_gamma_array",
     {{array_lines, "\n5\n"}},
     "Data array error",
     "Array number 5.\nSorry, the Wenner Gamma array is not directly supported!\nYou need to "
     "reformat the data into the general array format."},
    {"borehole_array_12",
     {{array_lines, "\n12\n"}},
     "Array type error",
     "Borehole data format is not supported.\nReformat the data into the subsurface point "
     "electrodes format.",
     nullptr,
     "Borehole tomography survey"},
    {"borehole_array_13",
     {{array_lines, "\n13\n"}},
     "Array type error",
     "Borehole data format is not supported.\nReformat the data into the subsurface point "
     "electrodes format.",
     nullptr,
     "Measurements are given as resistance values."},
    {"array_number_9",
     {{array_lines, "\n9\n"}},
     "Data array error",
     "Array number 9.\nSorry, this array is not supported!"},
    {"array_number_0",
     {{array_lines, "\n0\n"}},
     "Data array error",
     "Array number 0.\nSorry, this array is not supported!"},
    {"resistance_with_user_geometric_factor",
     {{y_lines, y_lines + "Type of geometric factor\n2\n"}, {array_lines, resistance_lines}},
     "Data resistance error",
     "You cannot have a combination of resistance\ndata and user defined geometric factor!",
     nullptr,
     "User defined geometric factor"},
    {"vector_array_of_type_1",
     {{array_lines, vector_lines + "1\n"}},
     "Vector array format error",
     "Vector array in input data file must be given as component values."},
    {"remote_electrodes",
     {{point_section, "Remote electrodes present\n" + point_section}},
     "Remote electrodes error",
     "Remote electrodes not supported.\nYou need to include the remote electrodes as point "
     "electrodes in the data file and extend the model grid so that it covers them."},
    {"far_electrodes",
     {{point_section, " Far electrodes present\n" + point_section}},
     "Remote electrodes error",
     "Remote electrodes not supported.\nYou need to include the remote electrodes as point "
     "electrodes in the data file and extend the model grid so that it covers them."},
    // The point electrodes.
    {"point_electrode_count_1",
     {{"Number of point electrodes\n20\n", "Number of point electrodes\n1\n"}},
     "Point electrodes number error",
     "Number of point electrode given as 1 is wrong.\nIt must be at least 2.\nAdd a dummy point "
     "electrode to have at least 2.\n"},
    {"point_electrode_count_above_limit",
     {{"Number of point electrodes\n20\n", "Number of point electrodes\n501\n"}},
     "Point electrodes number error",
     "Number of point electrode given as 501 is wrong.\nIt must be more than 1 and less than 500."},
    {"compressed_format_line_missing",
     {{"Compressed format used for point electrodes coordinates\n", ""}},
     "Error in elevation",
     "You must use compressed format for point electrodes."},
    {"elevation_above_10000",
     {{"   1 10.000,20.000,0.000", "   1 10.000,20.000,10000.5"}},
     "Error in elevation",
     "Point electrode number 1 has\nan elevation of 10000.5 meters!\nThis is more than 10000 "
     "m.\nThis is probably an error!"},
    {"elevation_below_minus_1000",
     {{"   2 12.000,20.000,0.000", "   2 12.000,20.000,-1000.5"}},
     "Error in elevation",
     "Point electrode number 2 has\nan elevation of -1000.5 meters!\nThis is more than 10000 "
     "m.\nThis is probably an error!"},
    {"elevation_range_above_9000",
     {{"   1 10.000,20.000,0.000", "   1 10.000,20.000,-500"},
      {"   2 12.000,20.000,0.000", "   2 12.000,20.000,8600.5"}},
     "Error in elevation",
     "Minimum elevation is -500.0 meters.\nMaximum elevation is 8600.5 meters.\nThe difference "
     "is 9100.5 meters!\nThis is probably an error!",
     nullptr,
     "Minimum elevation -500.00  Maximum elevation 8600.50  Elevation range 9100.50"},
    {"electrode_below_low_x",
     {{"   1 10.000,20.000", "   1 9.900,20.000"}},
     "Error in electrode x-position",
     "Error in x-position of point electrode 1.\nThe x position is 9.900.\nThis is outside the "
     "x limits of 10.000 to 28.000 of the model grid."},
    {"electrode_at_low_x_limit_minus_0_00005",
     {{"   1 10.000,20.000", "   1 9.99995,20.000"}},
     "Error in electrode x-position",
     "Error in x-position of point electrode 1.\nThe x position is 10.000.\nThis is outside the "
     "x limits of 10.000 to 28.000 of the model grid."},
    {"electrode_above_high_x",
     {{"  20 28.000,22.000", "  20 28.500,22.000"}},
     "Error in electrode x-position",
     "Error in x-position of point electrode 20.\nThe x position is 28.500.\nThis is outside "
     "the x limits of 10.000 to 28.000 of the model grid."},
    {"electrode_above_high_y",
     {{"  11 10.000,22.000", "  11 10.000,26.500"}},
     "Error in electrode y-position",
     "Error in y-position of point electrode 11.\nThe y position is 26.500.\nThis is outside "
     "the y limits of 20.000 to 26.000  of the model grid."},
    {"electrode_below_low_y",
     {{"   3 14.000,20.000", "   3 14.000,19.500"}},
     "Error in electrode y-position",
     "Error in y-position of point electrode 3.\nThe y position is 19.500.\nThis is outside the "
     "y limits of 20.000 to 26.000  of the model grid."},
    // User defined depths: panel lines only.
    {"user_depths_with_2_layers",
     {{count_line, User_Depths(Layers(2))}},
     nullptr,
     "",
     nullptr,
     "Error in defined model depths with 2 layers."},
    {"user_depths_with_nmax_layers",
     {{count_line, User_Depths(Layers(10))}},
     nullptr,
     "",
     nullptr,
     "Error in defined model depths with 10 layers."},
    {"user_depth_not_increasing",
     {{count_line, User_Depths({1.0, 2.0, 2.0})}},
     nullptr,
     "",
     nullptr,
     "Error in layer 3 with depth value 2.00."},
    {"user_depth_zero",
     {{count_line, User_Depths({0.0, 2.0, 3.0})}},
     nullptr,
     "",
     nullptr,
     "Error in layer 1 with depth value 0.00."},
    // The data count and the sections after it.
    {"too_many_data_points",
     {{count_line, "\n5001\n"}},
     "Data error",
     "Number of data points is 5001.\nToo many data points. Maximum number is 5000\n"},
    {"34_data_points",
     {{count_line, "\n34\n"}},
     "Data error",
     "Too few data points.\nYou only have 34 data points.\nMinimum number is 35\n"},
    {"time_series_count_1",
     {{count_line, Time_Lapse(1)}},
     "Time lapse data Error",
     "Number of time series is 1!\nIt must be between 2 and 5."},
    {"time_series_count_above_limit",
     {{count_line, Time_Lapse(6)}},
     "Time lapse data Error",
     "Number of time series is 6!\nIt must be between 2 and 5."},
    {"total_data_above_limit",
     {{count_line, Time_Lapse(2)}},
     "File Error",
     "Number of time series is 2 and data points is 35.\nTotal number is 70 that exceeds the "
     "limit of 69.",
     nullptr,
     "",
     [](Data_Set &ds) { ds.Data_lim_sys.nmax_data = 69; },
     {.extra = " 90.000"}},
    {"ip_first_parameter_negative",
     {{count_line, IP_Section("Chargeability", "-0.12,1.0")}},
     "Data Error",
     "There is an error in the value for first IP parameter!"},
    // The data point lines.
    {"electrode_count_0",
     {{point1, "0" + point1.substr(1)}},
     "Data Error",
     "Error in data point 1!\nNumber of electrodes is 0.\nThere can only be 2 to 4 electrodes.",
     read_points_step},
    {"electrode_count_5",
     {{point1, "5" + point1.substr(1)}},
     "Data Error",
     "Error in data point 1!\nNumber of electrodes is 5.\nThere can only be 2 to 4 electrodes.",
     read_points_step},
    {"vector_array_electrode_count",
     {{array_lines, vector_lines + "0\n"}, {point1, "1" + point1.substr(1)}},
     "Data Error",
     "Error in data point 1! Number of electrodes is 1. A vector array must have at least 3 "
     "electrodes with 2 potential electrodes.",
     read_points_step},
    {"vector_array_electrode_count_quiet",
     {{array_lines, vector_lines + "0\n"}, {point1, "1" + point1.substr(1)}},
     "Data Error",
     "Error in data point 1! Number of electrodes is 1. A vector array must have at least 3 "
     "electrodes with 2 potential electrodes.",
     read_points_step,
     "",
     Quiet},
    {"c1_c2_same_place",
     {{point1, "4 12.000 20.000  12.000 20.000  14.000 20.000  16.000 20.000  100.000"}},
     "Data Error",
     "Error in data point 1!\nThe C1 and C2 electrodes have the same locations.",
     read_points_step},
    {"c1_c2_same_place_quiet",
     {{point1, "4 12.000 20.000  12.000 20.000  14.000 20.000  16.000 20.000  100.000"}},
     "Data Error",
     "Error in data point 1!\nThe C1 and C2 electrodes have the same locations.",
     read_points_step,
     "",
     Quiet},
    {"p1_p2_same_place",
     {{point1, "4 12.000 20.000  10.000 20.000  14.000 20.000  14.000 20.000  100.000"}},
     "Data Error",
     "Error in data point 1!\nThe P1 and P2 electrodes have the same locations.",
     read_points_step},
    {"p1_p2_same_place_quiet",
     {{point1, "3 12.000 20.000  14.000 20.000  14.000 20.000  100.000"}},
     "Data Error",
     "Error in data point 1!\nThe P1 and P2 electrodes have the same locations.",
     read_points_step,
     "",
     Quiet},
    {"c1_p1_coincident",
     {{point1, "4 12.000 20.000  10.000 20.000  12.000 20.000  16.000 20.000  100.000"}},
     "Data Error",
     "The C1 and P1 electrodes for data point\nnumber 1 are at the same location!\nPlease check "
     "your data file.\nThe location of the electrodes are 12.00,20.00  12.00,20.00",
     read_points_step},
    {"c1_p1_coincident_quiet_shows_nothing",
     {{point1, "4 12.000 20.000  10.000 20.000  12.000 20.000  16.000 20.000  100.000"}},
     nullptr,
     "",
     read_points_step,
     "",
     Quiet},
    {"c1_p2_coincident",
     {{point1, "4 12.000 20.000  10.000 20.000  14.000 20.000  12.000 20.000  100.000"}},
     "Data Error",
     "The C1 and P2 electrodes for data point\nnumber 1 are at the same location!\nPlease check "
     "your data file.\n\nC1 coordinates 12.0 20.0\nP2 coordinates 12.0 20.0\n",
     read_points_step},
    {"c2_p1_coincident",
     {{point1, "4 12.000 20.000  10.000 20.000  10.000 20.000  16.000 20.000  100.000"}},
     "Data Error",
     "The C2 and P1 electrodes for data point\nnumber 1 are at the same location!\nPlease check "
     "your data file.",
     read_points_step},
    {"c2_p2_coincident",
     {{point1, "4 12.000 20.000  10.000 20.000  14.000 20.000  10.000 20.000  100.000"}},
     "Data Error",
     "C2 electrode is located at    10.00    20.00     0.00\nP2 electrode is located at    10.00 "
     "   20.00     0.00\n\nThe C2 and P2 electrodes for data point\nnumber 1 are at the same "
     "location!\nPlease check your data file.",
     read_points_step},
    {"pole_pole_negative_apparent_resistivity",
     {{point1, "2 12.000 20.000  14.000 20.000  -5.000"}},
     "Negative apparent resistivity",
     "Data point number 1 has a zero or\nnegative apparent resistivity value!\nThe value is "
     "-5.0000.\n",
     read_points_step},
    {"pole_pole_zero_apparent_resistivity",
     {{point1, "2 12.000 20.000  14.000 20.000  0.000"}},
     "Negative apparent resistivity",
     "Data point number 1 has a zero or\nnegative apparent resistivity value!\nThe value is "
     "0.0000.\n",
     read_points_step},
    {"zero_apparent_resistivity_at_the_first_point",
     {{point1, "4 12.000 20.000  10.000 20.000  16.000 20.000  14.000 20.000  0.000"}},
     "Data zero error",
     "Data point number 1 has a zero\napparent resistivity value!\nThe value is 0.0000.\n",
     read_points_step},
    // K = 2 (1/2 - 1/4 - 1/4 + 1/6) = 1/3, and 1/3 / 12.5663708 = 0.0265.
    {"zero_resistance",
     {{array_lines, resistance_lines},
      {point1, "4 12.000 20.000  10.000 20.000  14.000 20.000  16.000 20.000  0.000"}},
     "Data zero resistance error",
     "Data point number 1 has a\nzero apparent resistivity value!\nThe value is 0.0000 0.0265.\n",
     read_points_step},
    // "-inf" (and "-nan") scan as a lone sign: no value, not a zero.
    {"value_without_digits",
     {{point1, "4 12.000 20.000  10.000 20.000  14.000 20.000  16.000 20.000  -inf"}},
     "Data Error",
     "Data point number 1 has a value that is not a number.\n",
     read_points_step},
    {"infinite_geometric_factor_four_electrodes",
     {{point1, "4 12.000 20.000  16.000 20.000  14.000 22.000  14.000 20.000  100.000"}},
     "Data locations error",
     Locations_Text("an infinite geometric", "C1       12.00       20.00\nC2       16.00       "
                                             "20.00\nP1       14.00       22.00\nP2       14.00  "
                                             "     20.00\n"),
     read_points_step},
    {"infinite_geometric_factor_three_electrodes",
     {{point1, "3 12.000 20.000  14.000 20.000  10.000 20.000  100.000"}},
     "Data locations error",
     Locations_Text("a infinite geometric", "C1       12.00       20.00\nP1       14.00       "
                                            "20.00\nP2       10.00       20.00\n"),
     read_points_step},
    {"negative_geometric_factor_four_electrodes",
     {{point1, "4 12.000 20.000  10.000 20.000  16.000 20.000  14.000 20.000  100.000"}},
     "Data locations error",
     Locations_Text("a negative geometric", "C1       12.00       20.00\nC2       10.00       "
                                            "20.00\nP1       16.00       20.00\nP2       14.00   "
                                            "    20.00\n") +
         negative_gfac_tail,
     read_points_step},
    {"negative_geometric_factor_three_electrodes",
     {{point1, "3 12.000 20.000  16.000 20.000  14.000 20.000  100.000"}},
     "Data locations error",
     Locations_Text("a negative geometric", "C1       12.00       20.00\nP1       16.00       "
                                            "20.00\nP2       14.00       20.00\n") +
         negative_gfac_tail,
     read_points_step},
    // The negative value of point 1 switches appres_inv to 2 before point 2
    // is refused: the refused read puts it back.
    {"refusal_after_appres_inv_switched",
     {{point1, "4 12.000 20.000  10.000 20.000  14.000 20.000  16.000 20.000  -100.000"},
      {point2, "4 14.000 20.000  12.000 20.000  14.000 20.000  18.000 20.000  101.000"}},
     "Data Error",
     "The C1 and P1 electrodes for data point\nnumber 2 are at the same location!\nPlease check "
     "your data file.\nThe location of the electrodes are 14.00,20.00  14.00,20.00",
     read_points_step,
     "",
     nullptr,
     {},
     "Data negative error"},
    // The tank's boundaries.
    {"tank_left_boundary",
     {{point_section, Tank(10.5, 33.0, 15.0, 31.0)}},
     "File format error",
     "Error in tank left x boundary 10.500",
     scale_step},
    {"tank_right_boundary",
     {{point_section, Tank(5.0, 27.0, 15.0, 31.0)}},
     "File format error",
     "Error in tank right x boundary 27.0000\nMaximum x model grid position is 28.0000.\nThe "
     "tank boundary must be beyond the largest x model grid position.",
     scale_step},
    {"tank_lower_boundary",
     {{point_section, Tank(5.0, 33.0, 20.0, 31.0)}},
     "File format error",
     "Error in tank lower y boundary 20.000",
     scale_step},
    {"tank_upper_boundary",
     {{point_section, Tank(5.0, 33.0, 15.0, 25.5)}},
     "File format error",
     "Error in tank upper y boundary 25.500\nMaximum y grid position is 26.000.\nThe tank "
     "boundary must be beyond the largest y model grid position.",
     scale_step},
};

// Test names only, in place of the bytes of the rows.
void PrintTo(const Refusal &r, std::ostream *os) {
  *os << r.name;
}

class Data_File_Refusals : public ::testing::TestWithParam<Refusal> {};

TEST_P(Data_File_Refusals, ShowItsMessageAndLeaveNoSurveyNorSettingChanged) {
  const Refusal &c = GetParam();
  Read_Run run;
  Data_Set &ds = *run.ds;
  Set_Test_Limits(ds);
  if (c.setup)
    c.setup(ds);
  const int appres_inv = ds.appres_inv;
  Settings_Snapshot before;
  before.Take(ds);

  EXPECT_NE(run.Read(Edited_File(c.base, c.edits)), 0);
  EXPECT_EQ(ds.mdata, 0);
  EXPECT_EQ(ds.appres_inv, appres_inv);
  Settings_Snapshot after;
  after.Take(ds);
  EXPECT_TRUE(after.bytes == before.bytes) << "a setting changed";

  // The messages the read ended with, in order.
  std::vector<Recorded_Message> expected;
  if (c.title)
    expected.push_back({c.title, c.text});
  if (c.step && !ds.quiet)
    expected.push_back({"Data error", c.step});
  expected.push_back({"File Error", "Error in reading file " + run.path + "\n"});
  const std::vector<Recorded_Message> &got = run.rec.messages;
  ASSERT_GE(got.size(), expected.size());
  const size_t first = got.size() - expected.size();
  for (size_t m = 0; m < expected.size(); m++) {
    EXPECT_EQ(got[first + m].title, expected[m].title) << "message " << m;
    EXPECT_EQ(got[first + m].text, expected[m].text) << "message " << m;
  }
  if (ds.quiet) {
    EXPECT_EQ(got.size(), expected.size()) << "a quiet read showed more";
  }
  if (c.earlier) {
    EXPECT_GE(run.rec.Count(c.earlier), 1) << c.earlier;
  }
  if (!c.panel.empty()) {
    EXPECT_TRUE(run.Panel_Has(c.panel)) << c.panel;
  }
}

INSTANTIATE_TEST_SUITE_P(Reader, Data_File_Refusals, ::testing::ValuesIn(refusals),
                         [](const ::testing::TestParamInfo<Refusal> &info) {
                           return std::string(info.param.name);
                         });

// ---------------------------------------------------------------------------
// Accepted edge cases

struct Accepted {
  const char *name;
  std::vector<Edit> edits;
  void (*check)(const Read_Run &run);
  Base_Options base = {};
  void (*setup)(Data_Set &) = nullptr;
  std::string (*transform)(const std::string &) = nullptr; // applied after the edits
  int mdata = 35;
};

// The survey of the good file, whatever the layout of the text.
void Check_Good_Survey(const Read_Run &run) {
  const Data_Set &ds = *run.ds;
  EXPECT_EQ(ds.Model_grid.ngridx, 10);
  EXPECT_EQ(ds.Model_grid.ngridy, 4);
  EXPECT_DOUBLE_EQ(ds.spxx, 2.0);
  EXPECT_EQ(ds.array, 11);
  EXPECT_EQ(ds.array2, 5);
  EXPECT_EQ(ds.num_point_elecs_file, 20);
  EXPECT_STREQ(ds.title, "Survey of the data file tests");
  // Values 100 .. 134, in whatever order the sort left them.
  double sum = 0.0;
  for (int i = 0; i < ds.mdata; i++)
    sum += ds.dp[i].value;
  EXPECT_NEAR(sum, 35 * 100.0 + 34 * 35 / 2, 1e-3);
}

void Check_Typeip(const Read_Run &run, int typeip) {
  EXPECT_EQ(run.ds->Data_ip.typeip, typeip);
  EXPECT_EQ(run.rec.Count("IP Data Error"), 0);
}

// Every "\n" of the text followed by two blank lines, one of them blanks.
std::string Blank_Lines_Everywhere(const std::string &s) {
  std::string out;
  for (char c : s) {
    out += c;
    if (c == '\n')
      out += "   \n\n";
  }
  return "\n \n" + out;
}

const std::vector<Accepted> accepted = {
    {"good_file_of_35_points", {}, Check_Good_Survey},
    {"blank_lines_anywhere", {}, Check_Good_Survey, {}, nullptr, Blank_Lines_Everywhere},
    {"windows_line_ends",
     {},
     Check_Good_Survey,
     {},
     nullptr,
     [](const std::string &s) {
       std::string out;
       for (char c : s)
         out += c == '\n' ? std::string("\r\n") : std::string(1, c);
       return out;
     }},
    // The comment after the grid size is the next line: the grid line.
    {"grid_line_as_comment_of_the_grid_size",
     {{"\n10,4\nNonuniform Grid\n", "\n10,4 Nonuniform grid follows\n"}},
     Check_Good_Survey},
    {"comment_after_the_data_count",
     {{count_line, "\n35 data points follow\n"}},
     Check_Good_Survey},
    {"title_beginning_with_blanks",
     {{"Survey of the data file tests\n", " \t Survey of the data file tests\n"}},
     [](const Read_Run &run) {
       EXPECT_STREQ(run.ds->title, "Survey of the data file tests");
       EXPECT_TRUE(run.Panel_Has("Survey of the data file tests"));
     }},
    {"elevation_of_exactly_10000",
     {{"   1 10.000,20.000,9999.000", "   1 10.000,20.000,10000"}},
     [](const Read_Run &run) {
       EXPECT_EQ(run.ds->topo_flag, 1);
       EXPECT_DOUBLE_EQ(run.ds->elev_max, 10000.0);
       EXPECT_DOUBLE_EQ(run.ds->elev_min, 9999.0);
     },
     {.z = "9999.000"}},
    {"ip_phase",
     {{count_line, IP_Section("Phase angle", "0.12,1.0")}},
     [](const Read_Run &run) { Check_Typeip(run, 4); },
     {.extra = " 5.000"}},
    {"ip_percent",
     {{count_line, IP_Section("Percent frequency effect", "0.12,1.0")}},
     [](const Read_Run &run) { Check_Typeip(run, 3); },
     {.extra = " 5.000"}},
    {"ip_percent_with_wrong_frequencies",
     {{count_line, IP_Section("Percent frequency effect", "4.0,1.0")}},
     [](const Read_Run &run) {
       EXPECT_EQ(run.ds->Data_ip.typeip, 3);
       const Recorded_Message *m = run.rec.Last("IP Data Error");
       ASSERT_NE(m, nullptr);
       EXPECT_EQ(m->text, "There is an error in IP measurement frequency values!");
     },
     {.extra = " 5.000"}},
    {"ip_metal_factor",
     {{count_line, IP_Section("Metal factor", "0.12,1.0")}},
     [](const Read_Run &run) { Check_Typeip(run, 2); },
     {.extra = " 5.000"}},
    {"ip_chargeability",
     {{count_line, IP_Section("Chargeability", "0.12,1.0")}},
     [](const Read_Run &run) { Check_Typeip(run, 1); },
     {.extra = " 5.000"}},
    {"negative_value_of_a_later_series",
     {{count_line, Time_Lapse(2)}},
     [](const Read_Run &run) {
       const Data_Set &ds = *run.ds;
       ASSERT_EQ(ds.ntime, 2);
       for (int i = 0; i < ds.mdata; i++)
         EXPECT_FLOAT_EQ(ds.dp[Record_Index(ds, 1, i)].value, 90.0f) << i;
       EXPECT_EQ(ds.appres_inv, 0);
       EXPECT_EQ(run.rec.Count("Data negative error"), 0);
       EXPECT_EQ(run.rec.Count("Negative apparent resistivity"), 0);
       EXPECT_EQ(run.rec.Count("Apparent resistivity data error"), 0);
     },
     {.extra = " -90.000"}},
    {"data_times_series_at_the_limit",
     {{count_line, Time_Lapse(2)}},
     [](const Read_Run &run) {
       EXPECT_EQ(run.ds->ntime, 2);
       EXPECT_EQ(static_cast<int64_t>(run.ds->mdata) * run.ds->ntime,
                 run.ds->Data_lim_sys.nmax_data);
     },
     {.extra = " 90.000"},
     [](Data_Set &ds) { ds.Data_lim_sys.nmax_data = 70; }},
    {"electrode_at_high_x_limit_plus_0_00005",
     {{"  10 28.000,20.000", "  10 28.00005,20.000"}},
     [](const Read_Run &run) {
       const Data_Set &ds = *run.ds;
       double xmax = 0.0;
       for (int e = 0; e < ds.num_point_elecs_file; e++)
         xmax = std::max(xmax, ds.pe[e].x);
       EXPECT_NEAR(xmax, (28.00005 - 10.0) / 2.0, 1e-9);
     }},
    {"user_depths_with_nmax_layers_minus_1",
     {{count_line, User_Depths(Layers(9))}},
     [](const Read_Run &run) {
       EXPECT_EQ(run.ds->Model_grid.user_depths, 1);
       EXPECT_EQ(run.ds->Model_grid.nlayers_user, 9);
       EXPECT_DOUBLE_EQ(run.ds->Model_grid.depth_user[8], 13.5);
       EXPECT_TRUE(run.Panel_Has("User defined model depths with 9 layers present."));
     }},
    {"tank_around_the_grid",
     {{point_section, Tank(5.0, 33.0, 15.0, 31.0)}},
     [](const Read_Run &run) {
       EXPECT_EQ(run.ds->tank.present, 1);
       EXPECT_EQ(run.rec.Count("File format error"), 0);
     }},
    {"negative_geometric_factor_with_switch_electrodes",
     {{point1, "4 12.000 20.000  10.000 20.000  16.000 20.000  14.000 20.000  100.000"}},
     [](const Read_Run &run) {
       // Point 1 in normalised units: C1 (1, 0), C2 (0, 0); P1 and P2 swapped.
       const Data_Set &ds = *run.ds;
       int found = 0;
       for (int i = 0; i < ds.mdata; i++) {
         const Data_Point &d = ds.dp[i];
         if (d.c1[0] == 1.0 && d.c1[1] == 0.0 && d.c2[0] == 0.0 && d.c2[1] == 0.0 &&
             d.value == 100.0f) {
           found++;
           EXPECT_DOUBLE_EQ(d.p1[0], 2.0);
           EXPECT_DOUBLE_EQ(d.p2[0], 3.0);
         }
       }
       EXPECT_EQ(found, 1);
       EXPECT_EQ(run.rec.Count("Data locations error"), 0);
     },
     {},
     [](Data_Set &ds) { ds.Data_filter.auto_switch_electrodes = 1; }},
    // A zero value ends the reading without failure: 36 points, the last
    // one zero (its P1 and P2 swapped, so that the sign handling swaps them
    // back and leaves appres_inv alone).
    {"zero_value_ends_the_reading",
     {{"4 12.000 22.000  10.000 22.000  16.000 22.000  18.000 22.000  135.000",
       "4 12.000 22.000  10.000 22.000  18.000 22.000  16.000 22.000  0.000"}},
     [](const Read_Run &run) {
       const Recorded_Message *m = run.rec.Last("Data zero error");
       ASSERT_NE(m, nullptr);
       EXPECT_EQ(m->text,
                 "Data point number 36 has a zero\napparent resistivity value!\nThe value is "
                 "0.0000.\n");
       EXPECT_EQ(run.ds->appres_inv, 0);
     },
     {.npoints = 36}},
};

void PrintTo(const Accepted &a, std::ostream *os) {
  *os << a.name;
}

class Data_File_Accepts : public ::testing::TestWithParam<Accepted> {};

TEST_P(Data_File_Accepts, ReadTheSurvey) {
  const Accepted &c = GetParam();
  Read_Run run;
  Data_Set &ds = *run.ds;
  Set_Test_Limits(ds);
  if (c.setup)
    c.setup(ds);
  std::string text = Edited_File(c.base, c.edits);
  if (c.transform)
    text = c.transform(text);
  ASSERT_EQ(run.Read(text), 0);
  EXPECT_EQ(ds.mdata, c.mdata);
  EXPECT_EQ(ds.data_read, 1);
  EXPECT_EQ(run.rec.Count("File Error"), 0);
  const Recorded_Message *done = run.rec.Last("File Read");
  ASSERT_NE(done, nullptr);
  EXPECT_EQ(done->text, "Reading of file " + run.path + " completed\n");
  c.check(run);
}

INSTANTIATE_TEST_SUITE_P(Reader, Data_File_Accepts, ::testing::ValuesIn(accepted),
                         [](const ::testing::TestParamInfo<Accepted> &info) {
                           return std::string(info.param.name);
                         });

} // namespace
