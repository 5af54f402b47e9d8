// The electrode and grid map of a data set: the model cells in plan, the
// survey's area, the segment limits, and each point electrode marked by its
// class, with a key of the classes and their counts on the right. The map is
// drawn at the same scale in x and y with north up, as in the layer
// sections; its area (the extent of the model cells and of every
// electrode) goes to ds.Dw.draw_window and its pixels a metre to ds.Dw.npixel.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/data_set.h"
#include "results/exports.h"
#include "survey/optional_sections.h"
#include "ui/display_axes.h"
#include "ui/display_window.h"

namespace {

constexpr uint32_t black = 0x000000, grid_grey = 0xd0d0d0, segment_colour = 0x800080;
constexpr int small_marker = 3; // half width of a marker
constexpr int large_marker = 5; // half width of a subsurface electrode's marker

enum Electrode_Class : int {
  EC_POINT = 0,
  EC_SUBSURFACE,
  EC_LONG,
  EC_CLOSE_SAME,
  EC_CLOSE_OTHER,
  EC_SAME_NODE,
  EC_NOT_USED,
  EC_COUNT
};

struct Class_Key {
  const char *text;
  uint32_t colour;
  int always; // shown even when no electrode is of the class
};

const Class_Key class_keys[EC_COUNT] = {
    {"Point electrode", 0x0000ff, 1},
    {"Subsurface point electrode", 0xff0000, 1},
    {"Long electrode", 0x00a000, 0},
    {"Point electrodes too close together in same array(%d)", 0xff00ff, 0},
    {"Point electrodes close together not in same array(%d)", 0x00c0c0, 0},
    {"Point electrodes on same node (%d)", 0xff8000, 0},
    {"Point Electrode not used (%d)", 0x8b4513, 1}};

// The class of each electrode: unused ones first, then used ones sharing a
// mesh node (when the nodes are set), then by depth.
std::vector<int> Classify_Electrodes(const Data_Set &ds) {
  const int n = ds.num_point_elecs;
  std::vector<int> cls(n);
  std::vector<std::pair<int64_t, int>> nodes;
  for (int e = 0; e < n; e++) {
    const Point_Electrode &p = ds.pe[e];
    cls[e] = !p.used ? EC_NOT_USED : p.depth > 0.0 ? EC_SUBSURFACE : EC_POINT;
    if (p.used && p.node > 0)
      nodes.push_back({p.node, e});
  }
  std::sort(nodes.begin(), nodes.end());
  for (size_t k = 0; k < nodes.size(); k++) {
    const bool before = k > 0 && nodes[k - 1].first == nodes[k].first;
    const bool after = k + 1 < nodes.size() && nodes[k + 1].first == nodes[k].first;
    if (before || after)
      cls[nodes[k].second] = EC_SAME_NODE;
  }
  return cls;
}

// The mean absolute misfit (percent of log(observed / calculated)) of the
// data that use each electrode, from the iteration read back; -1 for an
// electrode no datum with a calculated value uses. False without calculated
// values.
bool Electrode_Misfits(const Data_Set &ds, std::vector<double> &misfit) {
  const Inv_Results &r = ds.Inv_results;
  const int n = ds.num_point_elecs, m = ds.mdata;
  if (r.iteration_disp < 1 || static_cast<int>(r.rm_disp.size()) < m)
    return false;
  std::vector<double> sum(n, 0.0);
  std::vector<int> count(n, 0);
  for (int i = 0; i < m; i++) {
    const double o = ds.dp[i].value, c = r.rm_disp[i];
    if (!(o > 0.0) || !(c > 0.0))
      continue;
    const double y = 100.0 * std::fabs(std::log(o / c));
    for (int e : {ds.dp[i].nc1, ds.dp[i].nc2, ds.dp[i].np1, ds.dp[i].np2})
      if (e >= 1 && e <= n) {
        sum[e - 1] += y;
        count[e - 1]++;
      }
  }
  misfit.assign(n, -1.0);
  for (int e = 0; e < n; e++)
    if (count[e] > 0)
      misfit[e] = sum[e] / count[e];
  return true;
}

std::string Key_Text(int c, int count) {
  char t[128];
  if (std::strstr(class_keys[c].text, "%d"))
    std::snprintf(t, sizeof t, class_keys[c].text, count);
  else
    std::snprintf(t, sizeof t, "%s (%d)", class_keys[c].text, count);
  return t;
}

void Dashed_Line(const Draw_Surface &s, int x0, int y0, int x1, int y1, uint32_t rgb) {
  const double len = std::hypot(x1 - x0, y1 - y0);
  constexpr double on = 12.0, off = 7.0;
  for (double a = 0.0; a < len; a += on + off) {
    const double b = std::min(a + on, len);
    s.line(s.user, x0 + static_cast<int>(std::lround((x1 - x0) * a / len)),
           y0 + static_cast<int>(std::lround((y1 - y0) * a / len)),
           x0 + static_cast<int>(std::lround((x1 - x0) * b / len)),
           y0 + static_cast<int>(std::lround((y1 - y0) * b / len)), rgb, 3);
  }
}

} // namespace

int Call_DisplayPoint_Draw(Data_Set &ds, const Draw_Surface &s) {
  Display_Window &w = ds.Dw;
  const Model_Grid &g = ds.Model_grid;
  Clear_Screen_Bitmap(s);
  const int n = ds.num_point_elecs;
  if (n < 1 || !ds.pe)
    return 1;
  const int ht = w.htexts, hs = w.htexts - 2;

  // Cell edges of the model grid and the extent of the map.
  const Cell_Edges edges = Model_Cell_Edges(ds);
  const std::vector<double> &ex = edges.x, &ey = edges.y;
  double x0 = User_X(ds, ds.pe[0].x), x1 = x0, y0 = User_Y(ds, ds.pe[0].y), y1 = y0;
  for (int e = 0; e < n; e++) {
    x0 = std::min(x0, User_X(ds, ds.pe[e].x)), x1 = std::max(x1, User_X(ds, ds.pe[e].x));
    y0 = std::min(y0, User_Y(ds, ds.pe[e].y)), y1 = std::max(y1, User_Y(ds, ds.pe[e].y));
  }
  if (!ex.empty())
    x0 = std::min(x0, ex.front()), x1 = std::max(x1, ex.back());
  if (!ey.empty())
    y0 = std::min(y0, ey.front()), y1 = std::max(y1, ey.back());
  if (x1 <= x0)
    x1 = x0 + 1.0;
  if (y1 <= y0)
    y1 = y0 + 1.0;

  // The key's lines, to size its column.
  const std::vector<int> cls = Classify_Electrodes(ds);
  int count[EC_COUNT] = {};
  for (int k : cls)
    count[k]++;
  std::vector<std::pair<std::string, int>> keys; // text, class (-1 segments, -2 plain text)
  for (int k = 0; k < EC_COUNT; k++)
    if (class_keys[k].always || count[k] > 0)
      keys.push_back({Key_Text(k, count[k]), k});
  if (g.num_splice_x > 1 || g.num_splice_y > 1)
    keys.push_back({"Segment_limits", -1});
  if (ds.topo_flag || ds.topo.type > 0) {
    double lo = ds.pe[0].z, hi = lo;
    for (int e = 0; e < n; e++)
      lo = std::min(lo, ds.pe[e].z), hi = std::max(hi, ds.pe[e].z);
    char t[96];
    std::snprintf(t, sizeof t, "Topography range %.1f to %.1f m", lo * ds.spxx, hi * ds.spxx);
    keys.push_back({t, -2});
  }
  const int box_w = 30, box_h = 14, row = std::max(box_h, ht) + 8;
  int key_w = 0;
  for (const auto &k : keys)
    key_w = std::max(key_w, s.text_width(s.user, k.first.c_str(), hs));
  key_w += box_w + 10;

  // Layout: labels on the left and below, the key on the right.
  const int label_w = std::max(
      s.text_width(s.user, Axis_Number(-std::max(std::fabs(y0), std::fabs(y1)), 0.1).c_str(), hs),
      30);
  const int left = label_w + 16, top = w.heading_height + ht + 10;
  const int misfit_band = w.color_misfit ? 2 * ht + 24 : 0; // the misfit legend's room
  const int right = s.width - key_w - 30, bottom = s.height - 2 * ht - 24 - misfit_band;
  const double np = std::max(
      1e-6, std::min((right - left) / (x1 - x0), static_cast<double>(bottom - top) / (y1 - y0)));
  w.npixel = np;
  w.draw_window = {left, top, static_cast<int>(std::lround((x1 - x0) * np)),
                   static_cast<int>(std::lround((y1 - y0) * np))};
  const Pixel_Box &a = w.draw_window;
  auto px = [&](double x) { return a.x + static_cast<int>(std::lround((x - x0) * np)); };
  // North up: the largest y at the top.
  auto py = [&](double y) { return a.y + static_cast<int>(std::lround((y1 - y) * np)); };

  // Title.
  std::string name = ds.file_names.data_file;
  const size_t slash = name.find_last_of('/');
  if (slash != std::string::npos)
    name = name.substr(slash + 1);
  const std::string title = "Electrode and grid map    " + name;
  s.text(s.user, s.width / 2, ht + 10, title.c_str(), black, TA_CENTRE, ht + 4);

  // Model cells, the survey's area and the segment limits.
  for (double x : ex)
    s.line(s.user, px(x), py(ey.empty() ? y0 : ey.front()), px(x), py(ey.empty() ? y1 : ey.back()),
           grid_grey, 1);
  for (double y : ey)
    s.line(s.user, px(ex.empty() ? x0 : ex.front()), py(y), px(ex.empty() ? x1 : ex.back()), py(y),
           grid_grey, 1);
  if (g.ngridx > 1 && g.ngridy > 1) {
    const int fx0 = px(User_X(ds, g.xgrid[0])), fx1 = px(User_X(ds, g.xgrid[g.ngridx - 1]));
    const int fy0 = py(User_Y(ds, g.ygrid[0])), fy1 = py(User_Y(ds, g.ygrid[g.ngridy - 1]));
    for (int d = 0; d < 2; d++)
      Draw_Frame(s, fx0 - d, fy0 - d, fx1 - fx0 + 2 * d, fy1 - fy0 + 2 * d, black);
  }
  const int nbx = static_cast<int>(ex.size()) - 1, nby = static_cast<int>(ey.size()) - 1;
  for (int k = 1; k < g.num_splice_x && nbx > 0 && nby > 0; k++) {
    const int x = px(ex[k * nbx / g.num_splice_x]);
    Dashed_Line(s, x, py(ey.back()), x, py(ey.front()), segment_colour); // from the top
  }
  for (int k = 1; k < g.num_splice_y && nbx > 0 && nby > 0; k++) {
    const int y = py(ey[k * nby / g.num_splice_y]);
    Dashed_Line(s, px(ex.front()), y, px(ex.back()), y, segment_colour);
  }

  // Axes: labels spaced by their own width, the names beside them.
  Draw_Frame(s, a.x, a.y, a.w, a.h, black);
  const double xstep = Nice_Step(
      (s.text_width(s.user, Axis_Number(-std::max(std::fabs(x0), std::fabs(x1)), 0.01).c_str(),
                    hs) +
       16) /
      np);
  for (double x = std::ceil(x0 / xstep - 1e-9) * xstep; x <= x1 + 1e-9 * xstep; x += xstep) {
    s.line(s.user, px(x), a.y + a.h, px(x), a.y + a.h + 4, black, 1);
    s.text(s.user, px(x), a.y + a.h + 6 + hs, Axis_Number(x, xstep).c_str(), black, TA_CENTRE, hs);
  }
  const double ystep = Nice_Step((2.0 * hs + 4) / np);
  for (double y = std::ceil(y0 / ystep - 1e-9) * ystep; y <= y1 + 1e-9 * ystep; y += ystep) {
    s.line(s.user, a.x - 4, py(y), a.x, py(y), black, 1);
    s.text(s.user, a.x - 6, py(y) + hs / 2, Axis_Number(y, ystep).c_str(), black, TA_RIGHT, hs);
  }
  s.text(s.user, a.x + a.w / 2, a.y + a.h + 2 * hs + 14, "X (m)", black, TA_CENTRE, ht);
  s.text(s.user, 4, a.y - 8, "Y (m)", black, TA_LEFT, ht);

  // With misfit colours, each used electrode takes the colour of its data's
  // mean misfit on a scale of its own (the legend under the map).
  std::vector<double> misfit;
  const bool by_misfit = w.color_misfit && Electrode_Misfits(ds, misfit);
  Contour_Scale scale = w.scale;
  if (by_misfit) {
    double lo = 1e30, hi = 0.0;
    for (double v : misfit)
      if (v >= 0.0)
        lo = std::min(lo, v), hi = std::max(hi, v);
    scale.auto_contours = 1;
    scale.min_plot_value = std::max(lo, 0.01);
    scale.max_plot_value = std::max(hi, scale.min_plot_value * 1.01);
    scale.ncolor = 10;
    scale.colors.clear();
    Set_Auto_Contours(scale);
  }
  // The electrodes: the larger subsurface marks first, so that a surface
  // electrode above a borehole stays visible inside its mark.
  for (int pass = 0; pass < 2; pass++)
    for (int e = 0; e < n; e++) {
      if ((cls[e] == EC_SUBSURFACE) != (pass == 0))
        continue;
      const int h = pass == 0 ? large_marker : small_marker;
      const uint32_t colour = by_misfit && misfit[e] >= 0.0
                                  ? scale.colors[Contour_Color_Index(scale, misfit[e])]
                                  : class_keys[cls[e]].colour;
      s.fill_rect(s.user, px(User_X(ds, ds.pe[e].x)) - h, py(User_Y(ds, ds.pe[e].y)) - h, 2 * h + 1,
                  2 * h + 1, colour);
    }
  if (by_misfit) {
    const int bw = 36, y = a.y + a.h + 2 * hs + 28;
    for (int k = 0; k < scale.ncolor; k++) {
      s.fill_rect(s.user, a.x + k * bw, y, bw - 2, box_h, scale.colors[k]);
      s.text(s.user, a.x + k * bw, y + box_h + hs,
             Format_Legend_Number(Contour_Boundary(scale, k)).c_str(), black, TA_CENTRE, hs - 1);
    }
    s.text(s.user, a.x + scale.ncolor * bw + 10, y + box_h - 2,
           "Display Electrodes Misfit: mean data misfit (%) of the electrode's data", black,
           TA_LEFT, hs);
  }

  // The key.
  const int kx = std::min(a.x + a.w + 40, s.width - key_w - 14);
  int ky = top;
  for (const auto &[text, k] : keys) {
    if (k >= 0) {
      s.fill_rect(s.user, kx, ky, box_w, box_h, class_keys[k].colour);
      Draw_Frame(s, kx, ky, box_w, box_h, black);
    } else if (k == -1) {
      Dashed_Line(s, kx, ky + box_h / 2, kx + box_w, ky + box_h / 2, segment_colour);
    }
    s.text(s.user, k == -2 ? kx : kx + box_w + 10, ky + box_h - 2, text.c_str(), black, TA_LEFT,
           hs);
    ky += row;
  }
  return 0;
}
