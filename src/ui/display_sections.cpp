// Model sections: the values on show, the page layout, the cells of each
// layer or vertical slice in block or contoured fill, their titles and axes,
// the electrodes over the layers, the legend and the heading.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "results/exports.h"
#include "results/results_file.h"
#include "ui/display_window.h"

namespace {

constexpr uint32_t black = 0x000000, grid_grey = 0x808080, electrode_colour = 0x000000;
constexpr int border = 12;      // around each panel
constexpr int min_cell_px = 4;  // smallest cell before sections go to the next page
constexpr int tick_gap_px = 60; // least room between axis labels

} // namespace

Cell_Edges Model_Cell_Edges(const Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  Cell_Edges e;
  // Along one axis: the extent of each cell of a row (axis 2 counts depth).
  auto edges = [&](std::vector<double> &out, int count, int axis, auto cell) {
    double c[8][3];
    for (int k = 1; k <= count; k++) {
      Block_Corners_User(ds, cell(k), 0, c);
      const double sign = axis == 2 ? -1.0 : 1.0;
      double lo = sign * c[0][axis], hi = lo;
      for (auto &p : c)
        lo = std::min(lo, sign * p[axis]), hi = std::max(hi, sign * p[axis]);
      if (k == 1)
        out.push_back(lo);
      out.push_back(hi);
    }
  };
  edges(e.x, g.nblockx, 0, [&](int i) { return g.Block_Number(i, 1, 1) - 1; });
  edges(e.y, g.nblocky, 1, [&](int j) { return g.Block_Number(1, j, 1) - 1; });
  edges(e.z, g.nlayers, 2, [&](int k) { return g.Block_Number(1, 1, k) - 1; });
  return e;
}

namespace {

// Fractional cell index of v along edges (clamped to the ends).
double Axis_Position(const std::vector<double> &edges, double v) {
  const int n = static_cast<int>(edges.size()) - 1;
  if (n < 1 || v <= edges[0])
    return 0.0;
  if (v >= edges[n])
    return n;
  const int i =
      static_cast<int>(std::upper_bound(edges.begin(), edges.end(), v) - edges.begin()) - 1;
  const double w = edges[i + 1] - edges[i];
  return i + (w > 0.0 ? (v - edges[i]) / w : 0.0);
}

// Cells across and down of a section of the view.
void Section_Cells(const Data_Set &ds, int &ncx, int &ncy) {
  const Model_Grid &g = ds.Model_grid;
  const int view = ds.Dw.type_display;
  ncx = view == VIEW_YZ ? g.nblocky : g.nblockx;
  ncy = view == VIEW_LAYERS ? g.nblocky : g.nlayers;
}

int Section_Count(const Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  switch (ds.Dw.type_display) {
  case VIEW_XZ:
    return g.nblocky;
  case VIEW_YZ:
    return g.nblockx;
  default:
    return g.nlayers;
  }
}

// Pixels a cell for ndx x ndy sections on the page.
double Cell_Pixels(const Data_Set &ds, int ndx, int ndy) {
  const Display_Window &w = ds.Dw;
  int ncx, ncy;
  Section_Cells(ds, ncx, ncy);
  const int margin = std::max(w.max_strlen_y, 30);
  const double px =
      (static_cast<double>(w.draw_window.w) / ndx - margin - border) / std::max(ncx, 1);
  const double py = (static_cast<double>(w.draw_window.h) / ndy - 2 * border - 2 * (w.htexts + 6)) /
                    std::max(ncy, 1);
  double n = std::min(px, py);
  if (n > 3.0)
    n = std::floor(n);
  if (n > 10.0)
    n -= 1.0;
  return n;
}

// The cell of section `sec` at (a, b): column a across, row b down.
int Section_Cell(const Data_Set &ds, int sec, int a, int b) {
  const Model_Grid &g = ds.Model_grid;
  switch (ds.Dw.type_display) {
  case VIEW_XZ:
    return g.Block_Number(a + 1, sec + 1, b + 1) - 1;
  case VIEW_YZ:
    return g.Block_Number(sec + 1, a + 1, b + 1) - 1;
  default:
    return g.Block_Number(a + 1, b + 1, sec + 1) - 1;
  }
}

uint32_t Value_Colour(const Display_Window &w, double v) {
  const Contour_Scale &c = w.scale;
  if (c.colors.empty())
    return grid_grey;
  return c.colors[Contour_Color_Index(c, v)];
}

// The contoured fill of a section: cell-centre values interpolated to each
// pixel (in logarithms for resistivity), coloured by interval.
void Contoured_Fill(const Data_Set &ds, const Draw_Surface &s, int sec, const Pixel_Box &area,
                    int ncx, int ncy) {
  const Display_Window &w = ds.Dw;
  const bool logs = w.quantity == DQ_RESISTIVITY;
  // The section's values (in logarithms for resistivity) by display row:
  // display row r holds cell row r, or ncy - 1 - r where north is up.
  const bool flip = w.type_display == VIEW_LAYERS;
  std::vector<double> grid(static_cast<size_t>(ncx) * ncy);
  for (int r = 0; r < ncy; r++)
    for (int a = 0; a < ncx; a++) {
      const double v = w.values[Section_Cell(ds, sec, a, flip ? ncy - 1 - r : r)];
      grid[static_cast<size_t>(r) * ncx + a] = logs ? std::log(std::max(v, 1e-10)) : v;
    }
  auto value = [&](int a, int r) {
    return grid[static_cast<size_t>(std::clamp(r, 0, ncy - 1)) * ncx + std::clamp(a, 0, ncx - 1)];
  };
  std::vector<uint32_t> px(static_cast<size_t>(area.w) * area.h);
  for (int y = 0; y < area.h; y++) {
    const double fy = (y + 0.5) / w.npixel - 0.5;
    const int b0 = static_cast<int>(std::floor(fy));
    const double ty = fy - b0;
    for (int x = 0; x < area.w; x++) {
      const double fx = (x + 0.5) / w.npixel - 0.5;
      const int a0 = static_cast<int>(std::floor(fx));
      const double tx = fx - a0;
      const double v = (1 - ty) * ((1 - tx) * value(a0, b0) + tx * value(a0 + 1, b0)) +
                       ty * ((1 - tx) * value(a0, b0 + 1) + tx * value(a0 + 1, b0 + 1));
      px[static_cast<size_t>(y) * area.w + x] = Value_Colour(w, logs ? std::exp(v) : v);
    }
  }
  s.pixels(s.user, area.x, area.y, area.w, area.h, px.data());
}

// Labels along an axis of `count` cells from `x0` at `pitch` pixels: the
// edge values, every few edges so that they keep apart.
void Axis_Labels(const Draw_Surface &s, const std::vector<double> &edges, int horizontal, int x0,
                 int y0, double pitch, int size) {
  const int n = static_cast<int>(edges.size()) - 1;
  const int every = std::max(1, static_cast<int>(std::ceil(tick_gap_px / std::max(pitch, 1.0))));
  char t[32];
  auto label = [&](int i) {
    std::snprintf(t, sizeof t, "%.1f", edges[i]);
    const int at = static_cast<int>(std::lround(i * pitch));
    if (horizontal) {
      s.line(s.user, x0 + at, y0, x0 + at, y0 + 4, black, 1);
      s.text(s.user, x0 + at, y0 + 4 + size, t, black, TA_CENTRE, size);
    } else {
      s.line(s.user, x0 - 4, y0 + at, x0, y0 + at, black, 1);
      s.text(s.user, x0 - 6, y0 + at + size / 2, t, black, TA_RIGHT, size);
    }
  };
  for (int i = 0; i <= n; i += every)
    label(i);
  // The far edge too, when the last label left room for it.
  if (n % every >= (every + 1) / 2)
    label(n);
}

std::string Section_Title(const Data_Set &ds, int sec, const Cell_Edges &e) {
  char t[128];
  if (ds.Dw.type_display == VIEW_LAYERS)
    return Layer_Title(ds, sec + 1);
  const bool xz = ds.Dw.type_display == VIEW_XZ;
  const std::vector<double> &edges = xz ? e.y : e.x;
  std::snprintf(t, sizeof t, "%s = %.2f to %.2f m", xz ? "Y" : "X", edges[sec], edges[sec + 1]);
  return t;
}

// The electrodes the data use, over a layer section.
void Draw_Electrodes(const Data_Set &ds, const Draw_Surface &s, const Pixel_Box &area,
                     const Cell_Edges &e) {
  const double pitch = ds.Dw.npixel;
  for (int k : Used_Electrodes(ds)) {
    double p[3];
    Electrode_User(ds, k, 0, p);
    const int x = area.x + static_cast<int>(std::lround(Axis_Position(e.x, p[0]) * pitch));
    const int ny = static_cast<int>(e.y.size()) - 1; // north up
    const int y = area.y + static_cast<int>(std::lround((ny - Axis_Position(e.y, p[1])) * pitch));
    s.fill_rect(s.user, x - 1, y - 1, 3, 3, electrode_colour);
  }
}

} // namespace

// --- Values --------------------------------------------------------------------------

void Copy_Model_Resistivity_Display(Data_Set &ds, const float *src, int n) {
  Display_Window &w = ds.Dw;
  w.values.assign(src, src + n);
  Contour_Scale &c = w.scale;
  if (n > 0 && c.auto_contours) {
    const auto [lo, hi] = std::minmax_element(w.values.begin(), w.values.end());
    c.min_plot_value = *lo;
    c.max_plot_value = *hi > *lo ? *hi : *lo * 1.01 + 1e-6;
    Set_Auto_Contours(c);
  }
  if (c.colors.size() != static_cast<size_t>(c.ncolor))
    Set_Color_Table(c);
}

void Force_Block_Display(Data_Set &ds) {
  ds.Dw.draw_type = 0;
}

int Display_Resistivity_Model_Inv_Select(Data_Set &ds, int iteration, int ipflag, int time) {
  Inv_Results &r = ds.Inv_results;
  Display_Window &w = ds.Dw;
  const int it = iteration > 0 ? std::min(iteration, r.nitcount_inv) : r.nitcount_inv;
  if (it < 1 || Read_Model_Binary_File(ds, it)) {
    show_message(ds, "Error in reading binary file", "Message");
    return 1;
  }
  const int n = r.nmodel, t = std::clamp(time, 0, std::max(r.ntime - 1, 0));
  w.quantity = ipflag && r.typeip ? DQ_IP : DQ_RESISTIVITY;
  if (w.quantity == DQ_IP) {
    std::vector<float> v(r.ipt_disp.begin() + static_cast<size_t>(t) * n,
                         r.ipt_disp.begin() + static_cast<size_t>(t + 1) * n);
    for (float &x : v)
      x *= 1000.0f; // mV/V
    Copy_Model_Resistivity_Display(ds, v.data(), n);
  } else {
    Copy_Model_Resistivity_Display(ds, r.rt_disp.data() + static_cast<size_t>(t) * n, n);
  }
  w.iteration_shown = it;
  w.misfit_shown = it < static_cast<int>(r.rmsl.size())
                       ? (w.quantity == DQ_IP && it < static_cast<int>(r.rmsip.size()) ? r.rmsip[it]
                                                                                       : r.rmsl[it])
                       : 0.0;
  return 0;
}

// --- Layout --------------------------------------------------------------------------

void Set_Number_Display_XY(Data_Set &ds) {
  Display_Window &w = ds.Dw;
  w.nsections = Section_Count(ds);
  w.draw_window = {0, w.heading_height, w.width, w.height - w.heading_height - w.legend_height};
  // The most sections a page holds with cells of at least min_cell_px, laid
  // out to give the largest cells.
  int best_x = 1, best_y = 1;
  double best = -1.0;
  for (int count = std::max(w.nsections - w.first_section, 1); count >= 1; count--) {
    for (int nx = 1; nx <= count; nx++) {
      const int ny = (count + nx - 1) / nx;
      const double px = Cell_Pixels(ds, nx, ny);
      if (px > best) {
        best = px;
        best_x = nx;
        best_y = ny;
      }
    }
    if (best >= min_cell_px)
      break;
    best = -1.0;
  }
  w.ndispx = best_x;
  w.ndispy = best_y;
}

void Set_Plot_Window(Data_Set &ds) {
  Display_Window &w = ds.Dw;
  w.max_strlen_y = std::max(w.max_strlen_y, 30);
  w.npixel = std::max(Cell_Pixels(ds, w.ndispx, w.ndispy), 1.0);
  w.frame_draw_x = w.draw_window.w / w.ndispx;
  w.frame_draw_y = w.draw_window.h / w.ndispy;
  w.frame_border_left = w.draw_window.x + w.max_strlen_y + border;
  w.text_left = w.draw_window.x + w.max_strlen_y;
}

Pixel_Box Layer_Cell_Box(const Data_Set &ds, int slot, int i, int j) {
  const Display_Window &w = ds.Dw;
  const int col = slot % w.ndispx, row = slot / w.ndispx;
  const int x0 = w.frame_border_left + col * w.frame_draw_x;
  const int y0 = w.draw_window.y + row * w.frame_draw_y + border + w.htexts + 6;
  const int p = static_cast<int>(w.npixel);
  if (w.type_display == VIEW_LAYERS) // north up: the last row of cells at the top
    j = ds.Model_grid.nblocky - 1 - j;
  return {x0 + i * p, y0 + j * p, p, p};
}

// --- Drawing -------------------------------------------------------------------------

void Clear_Screen_Bitmap(const Draw_Surface &s) {
  s.fill_rect(s.user, 0, 0, s.width, s.height, 0xffffff);
}

std::string Layer_Title(const Data_Set &ds, int k) {
  const Cell_Edges e = Model_Cell_Edges(ds);
  const double top = e.z[k - 1], bottom = e.z[k];
  char t[96];
  // Layers thinner than a metre, or starting within the first 10 m, need the
  // second decimal.
  if (bottom - top < 1.0 || top < 10.0)
    std::snprintf(t, sizeof t, "Layer %d : %.2f to %.2f m", k, top, bottom);
  else
    std::snprintf(t, sizeof t, "Layer %d : %.1f to %.1f m", k, top, bottom);
  return t;
}

int Display_Sections(Data_Set &ds, const Draw_Surface &s) {
  Display_Window &w = ds.Dw;
  Clear_Screen_Bitmap(s);
  if (w.values.size() < static_cast<size_t>(ds.Model_grid.nmodel_blocks) ||
      ds.Model_grid.nmodel_blocks < 1)
    return 1;
  w.width = s.width;
  w.height = s.height;
  w.first_section = std::clamp(w.first_section, 0, std::max(Section_Count(ds) - 1, 0));
  char t[160];
  std::snprintf(t, sizeof t, "%.1f", -1000.0); // the widest depth label
  w.max_strlen_y = s.text_width(s.user, t, w.htexts) + 10;
  Set_Number_Display_XY(ds);
  Set_Plot_Window(ds);
  const Cell_Edges e = Model_Cell_Edges(ds);
  int ncx, ncy;
  Section_Cells(ds, ncx, ncy);
  const int p = static_cast<int>(w.npixel);
  const int fill = p > 10 ? p - 1 : p;
  const std::vector<double> &ex = w.type_display == VIEW_YZ ? e.y : e.x;
  const std::vector<double> &ey = w.type_display == VIEW_LAYERS ? e.y : e.z;
  const std::vector<double> ey_down(ey.rbegin(), ey.rend());       // north up
  const int top_row = w.type_display == VIEW_LAYERS ? ncy - 1 : 0; // the row drawn at the top
  w.legend_top = 0;
  for (int slot = 0; slot < w.ndispx * w.ndispy; slot++) {
    const int sec = w.first_section + slot;
    if (sec >= w.nsections)
      break;
    const Pixel_Box c0 = Layer_Cell_Box(ds, slot, 0, top_row);
    const Pixel_Box area = {c0.x, c0.y, ncx * p, ncy * p};
    s.text(s.user, area.x, area.y - 6, Section_Title(ds, sec, e).c_str(), black, TA_LEFT, w.htexts);
    if (w.draw_type == 1) {
      Contoured_Fill(ds, s, sec, area, ncx, ncy);
    } else {
      for (int b = 0; b < ncy; b++)
        for (int a = 0; a < ncx; a++) {
          const Pixel_Box c = Layer_Cell_Box(ds, slot, a, b);
          s.fill_rect(s.user, c.x, c.y, fill, fill,
                      Value_Colour(w, w.values[Section_Cell(ds, sec, a, b)]));
        }
    }
    Draw_Frame(s, area.x, area.y, area.w, area.h, black);
    Axis_Labels(s, ex, 1, area.x, area.y + area.h, p, w.htexts - 2);
    Axis_Labels(s, w.type_display == VIEW_LAYERS ? ey_down : ey, 0, area.x, area.y, p,
                w.htexts - 2);
    w.legend_top = std::max(w.legend_top, area.y + area.h + 2 * w.htexts + 24);
    if (w.show_electrodes && w.type_display == VIEW_LAYERS)
      Draw_Electrodes(ds, s, area, e);
  }
  // Axis names once, under the first panel and beside it.
  const Pixel_Box c0 = Layer_Cell_Box(ds, 0, 0, top_row);
  const char *xname = w.type_display == VIEW_YZ ? "Y (m)" : "X (m)";
  const char *yname = w.type_display == VIEW_LAYERS ? "Y (m)" : "Depth (m)";
  s.text(s.user, c0.x + ncx * p / 2, c0.y + ncy * p + 2 * w.htexts + 6, xname, black, TA_CENTRE,
         w.htexts - 2);
  s.text(s.user, 2, c0.y - 6, yname, black, TA_LEFT, w.htexts - 2);
  Draw_Legend(ds, s);
  // The heading: iteration and misfit, and the page's place among the sections.
  if (w.misfit_shown < 10.0)
    std::snprintf(t, sizeof t, "Iteration %d, Data misfit %.3f", w.iteration_shown, w.misfit_shown);
  else
    std::snprintf(t, sizeof t, "Iteration %d, Data misfit %.2f", w.iteration_shown, w.misfit_shown);
  s.text(s.user, s.width / 2, w.htexts + 8, t, black, TA_CENTRE, w.htexts + 4);
  const int last = std::min(w.first_section + w.ndispx * w.ndispy, w.nsections);
  std::snprintf(t, sizeof t, "%s %d to %d of %d    (misfit: RMS percent)",
                w.type_display == VIEW_LAYERS ? "Layers" : "Sections", w.first_section + 1, last,
                w.nsections);
  s.text(s.user, s.width / 2, 2 * w.htexts + 12, t, grid_grey, TA_CENTRE, w.htexts - 2);
  return 0;
}

// --- Legend --------------------------------------------------------------------------

Pixel_Box Legend_Box(const Data_Set &ds, int k) {
  const Display_Window &w = ds.Dw;
  const int n = std::max(w.scale.ncolor, 1);
  const int len = std::max(4, std::min(w.box_length, (w.width - 40) / n - w.box_gap));
  const int total = n * (len + w.box_gap) - w.box_gap;
  const int x0 = (w.width - total) / 2;
  // Under the sections, or at the foot of the page.
  const int foot = w.height - w.legend_height + 8;
  const int y0 = w.legend_top > 0 ? std::min(w.legend_top, foot) : foot;
  return {x0 + k * (len + w.box_gap), y0, len, w.box_height};
}

int Spacing_Legend_Text(const Data_Set &ds, const Draw_Surface &s) {
  const Display_Window &w = ds.Dw;
  const int pitch = Legend_Box(ds, 1).x - Legend_Box(ds, 0).x;
  int widest = 0;
  for (int k = 0; k <= w.scale.ncolor; k++)
    widest = std::max(
        widest, s.text_width(s.user, Format_Legend_Number(Contour_Boundary(w.scale, k)).c_str(),
                             w.htexts - 2));
  return std::max(1, (widest + 6 + pitch - 1) / std::max(pitch, 1));
}

void Draw_Legend(Data_Set &ds, const Draw_Surface &s) {
  Display_Window &w = ds.Dw;
  const Contour_Scale &c = w.scale;
  for (int k = 0; k < c.ncolor && k < static_cast<int>(c.colors.size()); k++) {
    const Pixel_Box b = Legend_Box(ds, k);
    s.fill_rect(s.user, b.x, b.y, b.w, b.h, c.colors[k]);
    Draw_Frame(s, b.x, b.y, b.w, b.h, black);
  }
  const int step = Spacing_Legend_Text(ds, s);
  w.nbound = 0;
  for (int k = 0; k <= c.ncolor; k += step) {
    const Pixel_Box b = Legend_Box(ds, std::min(k, c.ncolor - 1));
    const int x = k < c.ncolor ? b.x : b.x + b.w;
    s.text(s.user, x, b.y + b.h + w.htexts, Format_Legend_Number(Contour_Boundary(c, k)).c_str(),
           black, TA_CENTRE, w.htexts - 2);
    w.nbound++;
  }
  static const char *titles[] = {"Resistivity in ohm.m", "I.P. in mV/V",
                                 "Resistivity model resolution", "I.P. model resolution"};
  const Pixel_Box b = Legend_Box(ds, 0);
  s.text(s.user, w.width / 2, b.y + b.h + 2 * w.htexts + 8, titles[std::clamp(w.quantity, 0, 3)],
         black, TA_CENTRE, w.htexts);
}
