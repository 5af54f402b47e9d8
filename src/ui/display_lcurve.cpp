// The L-curve of a results file read back: on the left the data misfit
// against the model roughness of each iteration on logarithmic axes, the
// points joined in order and numbered; on the right the misfit (percent) and
// the roughness against the iteration, each on its own axis.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "ui/display_window.h"

namespace {

constexpr uint32_t black = 0x000000, join_grey = 0x808080, point_colour = 0xd00000;
constexpr uint32_t misfit_colour = 0x0000d0, rough_colour = 0xd00000;

// An axis from lo to hi (logarithms of the values on a logarithmic axis),
// over `len` pixels from `at` (downwards when `flip`).
struct Graph_Axis {
  double lo = 0.0, hi = 1.0;
  bool log = false, flip = false;
  int at = 0, len = 1;
  int Pixel(double v) const {
    const double f = ((log ? std::log10(v) : v) - lo) / (hi - lo);
    return at + static_cast<int>(std::lround((flip ? 1.0 - f : f) * len));
  }
};

// The largest value 1, 2 or 5 times a power of ten not above v, and the
// smallest not below it.
double Nice_Down(double v) {
  const double p = std::pow(10.0, std::floor(std::log10(v)));
  return v >= 5 * p ? 5 * p : v >= 2 * p ? 2 * p : p;
}
double Nice_Up(double v) {
  const double p = std::pow(10.0, std::floor(std::log10(v)));
  return v <= p ? p : v <= 2 * p ? 2 * p : v <= 5 * p ? 5 * p : 10 * p;
}

// Logarithmic axis around the positive values of `v`, with its ticks.
Graph_Axis Log_Axis(const std::vector<double> &v, std::vector<double> &ticks) {
  double a = 1e300, b = 0.0;
  for (double x : v)
    if (x > 0.0)
      a = std::min(a, x), b = std::max(b, x);
  if (b <= 0.0)
    a = 1.0, b = 10.0;
  Graph_Axis ax;
  ax.log = true;
  ax.lo = std::log10(Nice_Down(a / 1.15));
  ax.hi = std::log10(Nice_Up(b * 1.15));
  // Every digit within a decade, 1, 2 and 5 over a few, else the decades.
  const double span = ax.hi - ax.lo;
  ticks.clear();
  for (int d = static_cast<int>(std::floor(ax.lo)); d <= static_cast<int>(std::ceil(ax.hi)); d++)
    for (int m = 1; m <= 9; m++) {
      const double t = m * std::pow(10.0, d);
      const bool wanted = span < 1.0 || m == 1 || (span < 2.5 && (m == 2 || m == 5));
      if (wanted && std::log10(t) >= ax.lo - 1e-9 && std::log10(t) <= ax.hi + 1e-9)
        ticks.push_back(t);
    }
  return ax;
}

// Linear axis from 0 to above the largest value, with five or so ticks.
Graph_Axis Linear_Axis(const std::vector<double> &v, std::vector<double> &ticks) {
  double b = 0.0;
  for (double x : v)
    b = std::max(b, x);
  if (!(b > 0.0))
    b = 1.0;
  const double step = Nice_Up(b * 1.1 / 5.0);
  Graph_Axis ax;
  ax.hi = std::ceil(b * 1.1 / step) * step;
  ticks.clear();
  for (int k = 0; k * step <= ax.hi + 1e-9 * step; k++)
    ticks.push_back(k * step);
  return ax;
}

std::string Number(double v) {
  char t[32];
  std::snprintf(t, sizeof t, "%g", v);
  return t;
}

// Ticks and numbers of an axis along the bottom (side 0), left (1) or right (2) of a box.
void Draw_Ticks(const Draw_Surface &s, const Pixel_Box &b, const Graph_Axis &ax,
                const std::vector<double> &ticks, int side, int size) {
  int last = -1000000, last_half = 0; // the last label's centre and half extent
  for (double t : ticks) {
    const int p = ax.Pixel(t);
    const std::string n = Number(t);
    // A label that would run into the one before keeps only its tick.
    const int half = side == 0 ? s.text_width(s.user, n.c_str(), size) / 2 : size / 2 + 2;
    const bool label = std::abs(p - last) >= half + last_half + 6;
    if (label)
      last = p, last_half = half;
    if (side == 0) {
      s.line(s.user, p, b.y + b.h, p, b.y + b.h + 5, black, 1);
      if (label)
        s.text(s.user, p, b.y + b.h + 7 + size, n.c_str(), black, TA_CENTRE, size);
    } else if (side == 1) {
      s.line(s.user, b.x - 5, p, b.x, p, black, 1);
      if (label)
        s.text(s.user, b.x - 7, p + size / 2, n.c_str(), black, TA_RIGHT, size);
    } else {
      s.line(s.user, b.x + b.w, p, b.x + b.w + 5, p, black, 1);
      if (label)
        s.text(s.user, b.x + b.w + 7, p + size / 2, n.c_str(), black, TA_LEFT, size);
    }
  }
}

void Marker(const Draw_Surface &s, int x, int y, uint32_t rgb) {
  s.fill_rect(s.user, x - 3, y - 3, 7, 7, rgb);
}

} // namespace

int Draw_Lcurve_Graphs(Data_Set &ds, const Draw_Surface &s) {
  const Inv_Results &r = ds.Inv_results;
  const Display_Window &w = ds.Dw;
  Clear_Screen_Bitmap(s);
  const int per = r.typeip > 0 ? 12 : 6;
  if (r.nlcurve < 1 || r.lcurve.size() < static_cast<size_t>(per) * (r.nlcurve + 1)) {
    show_message(ds, "No L-curve values in this results file", "Message");
    return 1;
  }
  // Row k of the table is iteration k, one later after a robust run's first
  // (least-squares) iteration was left out.
  const int first = r.robust ? 2 : 1;
  std::vector<double> misfit, rough, iter;
  for (int k = 1; k <= r.nlcurve; k++) {
    misfit.push_back(r.lcurve[static_cast<size_t>(k) * per]);
    rough.push_back(r.lcurve[static_cast<size_t>(k) * per + 1]);
    iter.push_back(k + first - 1);
  }
  const int ht = w.htexts, hs = w.htexts - 2;
  const int half = s.width / 2;
  const int top = w.heading_height + 2 * ht + 10, bottom = s.height - 3 * ht - 20;
  const int label_w = s.text_width(s.user, "0.0001", hs) + 16;
  const Pixel_Box left_box = {label_w + 10, top, half - label_w - 40, bottom - top};
  const Pixel_Box right_box = {half + label_w + 10, top, half - 2 * label_w - 30, bottom - top};

  // Left: the L-curve.
  std::vector<double> xt, yt;
  Graph_Axis ax = Log_Axis(rough, xt), ay = Log_Axis(misfit, yt);
  ax.at = left_box.x, ax.len = left_box.w;
  ay.at = left_box.y, ay.len = left_box.h, ay.flip = true;
  Draw_Frame(s, left_box.x, left_box.y, left_box.w, left_box.h, black);
  Draw_Ticks(s, left_box, ax, xt, 0, hs);
  Draw_Ticks(s, left_box, ay, yt, 1, hs);
  int last_x = -1, last_y = -1;
  for (size_t k = 0; k < misfit.size(); k++) {
    if (!(misfit[k] > 0.0 && rough[k] > 0.0))
      continue;
    const int x = ax.Pixel(rough[k]), y = ay.Pixel(misfit[k]);
    if (last_x >= 0)
      s.line(s.user, last_x, last_y, x, y, join_grey, 1);
    last_x = x, last_y = y;
  }
  for (size_t k = 0; k < misfit.size(); k++) {
    if (!(misfit[k] > 0.0 && rough[k] > 0.0))
      continue;
    const int x = ax.Pixel(rough[k]), y = ay.Pixel(misfit[k]);
    Marker(s, x, y, point_colour);
    s.text(s.user, x + 6, y - 6, Number(iter[k]).c_str(), black, TA_LEFT, hs);
  }
  s.text(s.user, left_box.x + left_box.w / 2, left_box.y - 10, "L-curve", black, TA_CENTRE, ht + 2);
  s.text(s.user, left_box.x + left_box.w / 2, left_box.y + left_box.h + 2 * hs + 16,
         "Model roughness", black, TA_CENTRE, ht);
  s.text(s.user, 4, left_box.y - 10 - ht - 4, "Data misfit", black, TA_LEFT, ht);

  // Right: misfit and roughness by iteration.
  std::vector<double> rms, rms_iter;
  const int nrms = std::min(r.nitcount_inv, static_cast<int>(r.rmsl.size()) - 1);
  for (int k = 1; k <= nrms; k++)
    rms.push_back(r.rmsl[k]), rms_iter.push_back(k);
  const double nit = std::max(rms_iter.empty() ? 1.0 : rms_iter.back(), iter.back());
  Graph_Axis ix;
  ix.lo = 0.5, ix.hi = nit + 0.5, ix.at = right_box.x, ix.len = right_box.w;
  std::vector<double> it_ticks;
  const double it_step = std::max(
      1.0, Nice_Up((2.0 * s.text_width(s.user, "00", hs) + 10) * nit / std::max(right_box.w, 1)));
  for (double k = it_step; k <= nit + 1e-9; k += it_step)
    it_ticks.push_back(k);
  if (it_step > 1.0)
    it_ticks.insert(it_ticks.begin(), 1.0);
  std::vector<double> mt, rt;
  Graph_Axis am = Linear_Axis(rms, mt), ar = Linear_Axis(rough, rt);
  am.at = ar.at = right_box.y, am.len = ar.len = right_box.h, am.flip = ar.flip = true;
  Draw_Frame(s, right_box.x, right_box.y, right_box.w, right_box.h, black);
  Draw_Ticks(s, right_box, ix, it_ticks, 0, hs);
  Draw_Ticks(s, right_box, am, mt, 1, hs);
  Draw_Ticks(s, right_box, ar, rt, 2, hs);
  auto plot_line = [&](const std::vector<double> &xs, const std::vector<double> &ys,
                       const Graph_Axis &a, uint32_t rgb) {
    for (size_t k = 0; k < xs.size(); k++) {
      const int x = ix.Pixel(xs[k]), y = a.Pixel(ys[k]);
      if (k > 0)
        s.line(s.user, ix.Pixel(xs[k - 1]), a.Pixel(ys[k - 1]), x, y, rgb, 2);
      Marker(s, x, y, rgb);
    }
  };
  plot_line(rms_iter, rms, am, misfit_colour);
  plot_line(iter, rough, ar, rough_colour);
  s.text(s.user, right_box.x + right_box.w / 2, right_box.y - 10,
         "Misfit and roughness by iteration", black, TA_CENTRE, ht + 2);
  s.text(s.user, right_box.x + right_box.w / 2, right_box.y + right_box.h + 2 * hs + 16,
         "Iteration", black, TA_CENTRE, ht);
  s.text(s.user, right_box.x - label_w, right_box.y - 10 - ht - 4, "Data misfit (%)", misfit_colour,
         TA_LEFT, ht);
  s.text(s.user, right_box.x + right_box.w + label_w, right_box.y - 10 - ht - 4, "Model roughness",
         rough_colour, TA_RIGHT, ht);
  // The key, in the graph's upper right corner.
  const char *names[2] = {"Data misfit (%)", "Model roughness"};
  const uint32_t colours[2] = {misfit_colour, rough_colour};
  const int kw = s.text_width(s.user, names[1], hs) + 44;
  const int kx = right_box.x + right_box.w - kw - 10, ky = right_box.y + 10;
  s.fill_rect(s.user, kx, ky, kw, 2 * (hs + 8) + 6, 0xffffff);
  Draw_Frame(s, kx, ky, kw, 2 * (hs + 8) + 6, black);
  for (int k = 0; k < 2; k++) {
    const int y = ky + 6 + k * (hs + 8) + hs / 2;
    s.line(s.user, kx + 6, y, kx + 30, y, colours[k], 2);
    s.text(s.user, kx + 36, y + hs / 2 - 1, names[k], black, TA_LEFT, hs);
  }
  std::string name = ds.file_names.results_file;
  name = name.substr(name.find_last_of('/') == std::string::npos ? 0 : name.find_last_of('/') + 1);
  name = name.empty() ? "The inversion's iterations" : "The iterations of " + name;
  s.text(s.user, s.width / 2, ht + 10, name.c_str(), black, TA_CENTRE, ht + 4);
  return 0;
}
