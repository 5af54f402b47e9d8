// The pictures of the display window, independent of any window: model
// sections (horizontal layers, vertical slices along x and along y), the
// electrode map, the finite-element mesh slices and the L-curve, drawn on a
// Draw_Surface with their legend, titles and heading.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ui/contours.h"
#include "ui/draw_surface.h"

class Data_Set;

enum Display_View : int {
  VIEW_LAYERS = 0,     // horizontal sections, one per layer
  VIEW_XZ = 1,         // vertical sections along x, one per row of cells in y
  VIEW_YZ = 2,         // vertical sections along y, one per column of cells in x
  VIEW_ELECTRODES = 3, // electrode and grid map of the data
  VIEW_MESH = 4,       // a slice of the finite-element mesh
  VIEW_LCURVE = 5      // the L-curve of the iterations
};

// What the model sections show.
enum Display_Quantity : int {
  DQ_RESISTIVITY = 0,
  DQ_IP = 1,
  DQ_RESOLUTION = 2,
  DQ_IP_RESOLUTION = 3
};

// A pixel rectangle: left, top, width, height.
struct Pixel_Box {
  int x = 0, y = 0, w = 0, h = 0;
};

class Display_Window {
public:
  // Choices.
  int draw_type = 0; // 0 block fill, 1 contoured fill
  int type_display = VIEW_LAYERS;
  int quantity = DQ_RESISTIVITY;
  int extended_display = 0; // sections of the side cells too (not used by the layer grid)
  int show_electrodes = 1;  // electrodes over the layer sections
  int color_misfit = 0;     // electrode map: electrodes coloured by their data's misfit
  int iteration = 0;        // the iteration shown (0: the last read)
  int first_section = 0;    // the first section of the page (from 0)
  int mesh_direction = 0;   // 0 x-y, 1 x-z, 2 y-z mesh slice
  int mesh_level = 0;       // its level (from 0; 0 the top or the first node)
  int width = 1600, height = 1200;

  // Legend.
  int box_length = 48, box_gap = 2, box_height = 18;
  int nbound = 0; // labels written on the legend

  // Layout of the page, set by Set_Plot_Window.
  Pixel_Box draw_window;      // the area of the sections
  int frame_draw_x = 0;       // width of one section's panel
  int frame_draw_y = 0;       // height of one section's panel
  int frame_border_left = 0;  // left edge of the first panel's cells
  int text_left = 0;          // where the y-axis labels end
  int max_strlen_y = 30;      // width of the widest y label
  int htexts = 14;            // text height
  int ndispx = 1, ndispy = 1; // sections across and down
  double npixel = 1.0;        // pixels a cell (layers) or a metre (vertical sections)
  int nsections = 0;          // sections of the view
  int heading_height = 40;    // the heading band at the top
  int legend_height = 70;     // the legend band at the bottom
  int legend_top = 0;         // top of the legend (0: the foot of the page)

  // The values on show: one per model cell, and their scale.
  std::vector<float> values;
  int iteration_shown = 0;
  double misfit_shown = 0.0;
  Contour_Scale scale;

  // The last status line of a drawing (the mesh slice's counts).
  std::string status;
};

// The cells' edges in user units: along x, along y and in depth
// (nblockx + 1, nblocky + 1, nlayers + 1 rising values).
struct Cell_Edges {
  std::vector<double> x, y, z;
};
Cell_Edges Model_Cell_Edges(const Data_Set &ds);

// --- Model values ---------------------------------------------------------------
// The iteration's values from the model binary files into ds.Dw.values
// (resistivity, IP in mV/V, or the resolution columns by quantity); its misfit
// and number for the heading. Returns 0, or 1 after "Error in reading binary
// file".
int Display_Resistivity_Model_Inv_Select(Data_Set &ds, int iteration, int ipflag, int time);
// The values of `src` (one per cell) into the display array, and their range
// into the automatic contours.
void Copy_Model_Resistivity_Display(Data_Set &ds, const float *src, int n);
// Block fill whatever the choice (the topography and point-electrode models).
void Force_Block_Display(Data_Set &ds);

// --- Layout ---------------------------------------------------------------------
// Sections across and down for the view and the page size.
void Set_Number_Display_XY(Data_Set &ds);
// Margins, panel sizes and the pixels a cell.
void Set_Plot_Window(Data_Set &ds);
// The pixel box of cell (i, j) (from 0) of the layer section on the page at
// position `slot` (from 0, across then down).
Pixel_Box Layer_Cell_Box(const Data_Set &ds, int slot, int i, int j);
// The legend box of colour k.
Pixel_Box Legend_Box(const Data_Set &ds, int k);

// --- Drawing --------------------------------------------------------------------
void Clear_Screen_Bitmap(const Draw_Surface &s);
// The sections of the view (layers or vertical slices), their titles, the
// legend and the heading.
int Display_Sections(Data_Set &ds, const Draw_Surface &s);
// The title of layer k (from 1): two decimals for thin near-surface layers.
std::string Layer_Title(const Data_Set &ds, int k);
// The legend under the sections, and the spacing of its labels: every
// `step`-th boundary gets a label so that labels do not overlap.
void Draw_Legend(Data_Set &ds, const Draw_Surface &s);
int Spacing_Legend_Text(const Data_Set &ds, const Draw_Surface &s);
// The electrode and grid map of the data set.
int Call_DisplayPoint_Draw(Data_Set &ds, const Draw_Surface &s);
// One slice of the finite-element mesh; its counts go to ds.Dw.status.
int Plot_SemiStructured_Mesh_Elements(Data_Set &ds, const Draw_Surface &s);
// The L-curve of the iterations (misfit against roughness, and both against
// the iteration).
int Draw_Lcurve_Graphs(Data_Set &ds, const Draw_Surface &s);
// The view chosen in ds.Dw.
int Draw_Display_View(Data_Set &ds, const Draw_Surface &s);

// --- Command 7260 -----------------------------------------------------------------
// Draws the view into the front end's image and saves it as PNG at `path`.
int Save_Image_Png(Data_Set &ds, const char *path);
// The command: refuses without what the view needs.
int Run_Save_Image(Data_Set &ds, const char *path);
// Command 7050: the model sections of the iteration chosen (the last by
// default) become the view; the front end draws them.
int Run_Display_Model(Data_Set &ds, const char *path);
// Command 7275: the electrode map coloured by the data misfits of the
// iteration chosen.
int Run_Electrode_Misfit(Data_Set &ds, const char *path);
