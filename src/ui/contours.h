// Contour intervals and colour tables of the section displays. A display
// colours each model cell by the contour interval that holds its value; this
// file makes the contour list (automatic or the user's), picks the colour of
// a value, writes the legend's numbers and builds the colour tables
// (colours are 0xRRGGBB).
//
// The automatic list (Set_Auto_Contours), with ncolor colours:
//   - min_plot_value <= 0.002: linear. value_range = max - min,
//     con_interval = value_range / ncolor, entry i = (i + 1) * con_interval.
//   - otherwise logarithmic: step = (ln max - ln min) / ncolor, kept in
//     con_interval, entry i = exp((i + 1) * step), log_scale = 1.
//   The list has ncolor entries (i = 0 .. ncolor-1) and is measured from 0
//   (linear) or from ln 1 (logarithmic), not from min_plot_value, so it
//   does not bracket the data range; the list itself is kept in that form
//   (Last_Contour_Value reports its last entry). The origin is put back
//   only where a value is placed or a legend label written:
//     Contour_Color_Index: linear floor((v - min) / con_interval),
//       logarithmic floor((ln v - ln min) / step), clamped to 0..ncolor-1;
//     Contour_Boundary(k): linear min + k * con_interval, logarithmic
//       exp(ln min + k * step), so boundary 0 is min and boundary ncolor max.
//   A value on a boundary takes the colour above it (a relative margin of
//   1e-9 of an interval absorbs rounding).
//
// A user list (auto_contours = 0) holds ncolor - 1 strictly increasing
// values; they are the boundaries themselves. Colour index = the number of
// list values <= v (clamped to 0..ncolor-1); boundary 0 is min_plot_value,
// boundary ncolor is max_plot_value and boundary k is contours[k-1].
//
// Customised colour scheme file (Read_Color_Scheme, Write_Color_Scheme),
// plain text, '#' starts a comment that runs to the end of the line and
// blank lines are skipped:
//   Ohmvol3D colour scheme
//   N                  number of colours, 2..64
//   R G B              N lines, three integers 0..255 each, lowest values first
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr int max_colors = 64;

class Contour_Scale {
public:
  double min_plot_value = 1.0; // range of the displayed values
  double max_plot_value = 1000.0;
  double value_range = 0.0;  // max - min, set by Set_Auto_Contours
  double con_interval = 0.0; // linear interval, or the natural-log step
  int ncolor = 17;           // number of colours, 2..max_colors
  int ncontour = 0;          // entries of `contours`: ncolor automatic, ncolor - 1 user
  std::vector<double> contours;
  double contour_first = 0.0;   // contours[0]
  int auto_contours = 1;        // 1 automatic list, 0 the user's list
  int log_scale = 0;            // 1 when the automatic list is logarithmic
  std::vector<uint32_t> colors; // ncolor entries, 0xRRGGBB, lowest values first
  int reverse = 0;              // 1: the table is flipped
  int scheme = 0;               // 0 colour, 1 grey scale, 2 extended colours
  int custom = 0;               // 1: a customised table was read (custom_table)
  std::vector<uint32_t> custom_table;
};

// The automatic list from min_plot_value, max_plot_value and ncolor (brought
// into 2..max_colors); sets auto_contours = 1. The colour table is re-made
// when it has not ncolor entries.
void Set_Auto_Contours(Contour_Scale &c);

// Colour index 0..ncolor-1 of a value (see above). A value that cannot be
// placed (not a number, not positive on a logarithmic scale, an empty range)
// takes colour 0.
int Contour_Color_Index(const Contour_Scale &c, double v);

// Boundary between colours k-1 and k in data units, k = 0..ncolor (legend labels).
double Contour_Boundary(const Contour_Scale &c, int k);

// The user's list: 2..max_colors-1 finite, strictly increasing values. Sets
// auto_contours = 0, ncolor = size + 1 and re-makes the colour table. On a
// bad list returns 1 and leaves `c` unchanged.
int Set_User_Contours(Contour_Scale &c, const std::vector<double> &values);
// first, first + interval, ... (count values); 1 when interval <= 0.
int Set_Linear_Contours(Contour_Scale &c, double first, double interval, int count);
// first, first * factor, ... (count values); 1 when factor <= 1 or first <= 0.
int Set_Logarithmic_Contours(Contour_Scale &c, double first, double factor, int count);
// Last entry of the list (0 when empty), for "Last contour value is %.2f".
double Last_Contour_Value(const Contour_Scale &c);

// printf format of a legend number by its size: |v| >= 1e6 "%10.2e";
// >= 10 "%.1f"; >= 1 "%.2f"; >= 0.1 "%.3f"; >= 0.01 "%.4f"; >= 0.001 "%.5f";
// >= 1e-6 "%.6f"; 0 "%.1f"; anything else (smaller, not a number) "%10.2e".
const char *Legend_Number_Format(double v);
// The number written with its format, leading spaces removed.
std::string Format_Legend_Number(double v);
// "Range of values is <min> to <max>"; 1 when `buf` is missing or too short
// (what fits is written, terminated).
int Range_Text(const Contour_Scale &c, char *buf, size_t size);

// Fills `colors` with ncolor entries (ncolor brought into 2..max_colors):
// the customised table when `custom` is set (nearest entry), otherwise by
// `scheme`: 0 rainbow (dark blue, blue, cyan, green, yellow, orange, red,
// dark red), 1 grey scale (dark to light), 2 extended colours (the rainbow
// from near black to magenta and purple). `reverse` flips the table.
void Set_Color_Table(Contour_Scale &c);
// The second rainbow: blue, cyan, green, yellow, red (no dark ends); `reverse` flips it.
void Set_Voxler_Rainbow(Contour_Scale &c);

// Reads a customised scheme into custom_table, sets custom = 1 and re-makes
// the colour table. On bad input returns 1 with the line and the fault in
// `error`, leaving `c` unchanged.
int Read_Color_Scheme(Contour_Scale &c, const char *path, std::string &error);
// Writes the table in use (`colors`, 2..max_colors entries) in the same form;
// 1 when the table is out of range or the file cannot be written.
int Write_Color_Scheme(const Contour_Scale &c, const char *path);
