// Contour lists, colour indices, legend numbers and colour tables of the
// section displays.
#include "ui/contours.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

struct Rgb {
  int r, g, b;
};

// Rainbow of the colour scheme: dark blue to dark red.
const Rgb rainbow[] = {{0, 0, 128},   {0, 0, 255},   {0, 255, 255}, {0, 220, 0},
                       {255, 255, 0}, {255, 140, 0}, {255, 0, 0},   {128, 0, 0}};
// Extended colours: near black at the bottom, magenta and purple at the top.
const Rgb extended[] = {{0, 0, 40},    {0, 0, 128},   {0, 0, 255}, {0, 255, 255}, {0, 220, 0},
                        {255, 255, 0}, {255, 140, 0}, {255, 0, 0}, {255, 0, 255}, {128, 0, 128}};
// The second rainbow, without dark ends.
const Rgb bright_rainbow[] = {{0, 0, 255}, {0, 255, 255}, {0, 255, 0}, {255, 255, 0}, {255, 0, 0}};
const Rgb greys[] = {{16, 16, 16}, {240, 240, 240}};

// Colour indices within a margin of an exact boundary go to the colour above.
constexpr double boundary_margin = 1e-9;

uint32_t Pack(int r, int g, int b) {
  return (uint32_t(r & 0xff) << 16) | (uint32_t(g & 0xff) << 8) | uint32_t(b & 0xff);
}

int Clamp_Ncolor(int n) {
  return std::clamp(n, 2, max_colors);
}

// n colours spread evenly along the anchors, interpolated linearly.
void Fill_From_Anchors(std::vector<uint32_t> &out, int n, const Rgb *a, int na) {
  out.resize(n);
  for (int i = 0; i < n; i++) {
    double pos = n > 1 ? double(i) * (na - 1) / (n - 1) : 0.0;
    int j = std::min(int(pos), na - 2);
    double f = pos - j;
    auto mix = [f](int x, int y) { return int(std::lround(x + f * (y - x))); };
    out[i] = Pack(mix(a[j].r, a[j + 1].r), mix(a[j].g, a[j + 1].g), mix(a[j].b, a[j + 1].b));
  }
}

// Index of a value `t` intervals above the start, clamped to 0..ncolor-1.
int Interval_Index(double t, int ncolor) {
  if (!std::isfinite(t))
    return t > 0 ? ncolor - 1 : 0;
  double k = std::floor(t + boundary_margin);
  if (k < 0)
    return 0;
  return k >= ncolor - 1 ? ncolor - 1 : int(k);
}

// Removes the comment and the surrounding white space; true when anything is left.
bool Strip_Line(std::string &line) {
  size_t hash = line.find('#');
  if (hash != std::string::npos)
    line.erase(hash);
  size_t b = 0, e = line.size();
  while (b < e && std::isspace((unsigned char)line[b]))
    b++;
  while (e > b && std::isspace((unsigned char)line[e - 1]))
    e--;
  line = line.substr(b, e - b);
  return !line.empty();
}

// The whole numbers of a line; false when anything else is on it.
bool Line_Integers(const std::string &line, std::vector<long> &v) {
  v.clear();
  const char *p = line.c_str();
  while (*p) {
    char *end = nullptr;
    long x = std::strtol(p, &end, 10);
    if (end == p || (*end && !std::isspace((unsigned char)*end)))
      return false;
    v.push_back(x);
    p = end;
    while (std::isspace((unsigned char)*p))
      p++;
  }
  return true;
}

std::string Line_Text(int line, const char *what) {
  char buf[160];
  std::snprintf(buf, sizeof buf, "Line %d: %s", line, what);
  return buf;
}

} // namespace

void Set_Auto_Contours(Contour_Scale &c) {
  c.ncolor = Clamp_Ncolor(c.ncolor);
  c.auto_contours = 1;
  c.value_range = c.max_plot_value - c.min_plot_value;
  c.contours.resize(c.ncolor);
  if (c.min_plot_value <= 0.002) {
    c.log_scale = 0;
    c.con_interval = c.value_range / c.ncolor;
    for (int i = 0; i < c.ncolor; i++)
      c.contours[i] = (i + 1) * c.con_interval;
  } else {
    c.log_scale = 1;
    c.con_interval = (std::log(c.max_plot_value) - std::log(c.min_plot_value)) / c.ncolor;
    for (int i = 0; i < c.ncolor; i++)
      c.contours[i] = std::exp((i + 1) * c.con_interval);
  }
  c.ncontour = c.ncolor;
  c.contour_first = c.contours[0];
  if (int(c.colors.size()) != c.ncolor)
    Set_Color_Table(c);
}

int Contour_Color_Index(const Contour_Scale &c, double v) {
  if (c.ncolor < 1 || std::isnan(v))
    return 0;
  if (!c.auto_contours) {
    auto above = std::upper_bound(c.contours.begin(), c.contours.end(), v);
    return std::min(int(above - c.contours.begin()), c.ncolor - 1);
  }
  if (!(c.con_interval > 0))
    return 0;
  if (!c.log_scale)
    return Interval_Index((v - c.min_plot_value) / c.con_interval, c.ncolor);
  if (!(v > 0) || !(c.min_plot_value > 0))
    return 0;
  return Interval_Index((std::log(v) - std::log(c.min_plot_value)) / c.con_interval, c.ncolor);
}

double Contour_Boundary(const Contour_Scale &c, int k) {
  k = std::clamp(k, 0, std::max(c.ncolor, 0));
  if (!c.auto_contours) {
    if (k == 0)
      return c.min_plot_value;
    if (k == c.ncolor || k > int(c.contours.size()))
      return c.max_plot_value;
    return c.contours[k - 1];
  }
  if (!c.log_scale)
    return c.min_plot_value + k * c.con_interval;
  return std::exp(std::log(c.min_plot_value) + k * c.con_interval);
}

int Set_User_Contours(Contour_Scale &c, const std::vector<double> &values) {
  if (values.size() < 2 || values.size() > size_t(max_colors - 1))
    return 1;
  for (size_t i = 0; i < values.size(); i++) {
    if (!std::isfinite(values[i]) || (i > 0 && !(values[i] > values[i - 1])))
      return 1;
  }
  c.auto_contours = 0;
  c.log_scale = 0;
  c.contours = values;
  c.ncontour = int(values.size());
  c.contour_first = values[0];
  c.ncolor = c.ncontour + 1;
  Set_Color_Table(c);
  return 0;
}

int Set_Linear_Contours(Contour_Scale &c, double first, double interval, int count) {
  if (!(interval > 0) || count < 2 || count > max_colors - 1)
    return 1;
  std::vector<double> v(count);
  for (int i = 0; i < count; i++)
    v[i] = first + i * interval;
  return Set_User_Contours(c, v);
}

int Set_Logarithmic_Contours(Contour_Scale &c, double first, double factor, int count) {
  if (!(factor > 1) || !(first > 0) || count < 2 || count > max_colors - 1)
    return 1;
  std::vector<double> v(count);
  for (int i = 0; i < count; i++)
    v[i] = first * std::pow(factor, i);
  return Set_User_Contours(c, v);
}

double Last_Contour_Value(const Contour_Scale &c) {
  return c.contours.empty() ? 0.0 : c.contours.back();
}

const char *Legend_Number_Format(double v) {
  double a = std::fabs(v);
  if (a == 0)
    return "%.1f";
  if (!(a < 1e6) || !(a >= 1e-6))
    return "%10.2e";
  if (a >= 10)
    return "%.1f";
  if (a >= 1)
    return "%.2f";
  if (a >= 0.1)
    return "%.3f";
  if (a >= 0.01)
    return "%.4f";
  if (a >= 0.001)
    return "%.5f";
  return "%.6f";
}

std::string Format_Legend_Number(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, Legend_Number_Format(v), v);
  const char *p = buf;
  while (*p == ' ')
    p++;
  return p;
}

int Range_Text(const Contour_Scale &c, char *buf, size_t size) {
  if (!buf || size == 0)
    return 1;
  int n = std::snprintf(buf, size, "Range of values is %s to %s",
                        Format_Legend_Number(c.min_plot_value).c_str(),
                        Format_Legend_Number(c.max_plot_value).c_str());
  return n < 0 || size_t(n) >= size ? 1 : 0;
}

void Set_Color_Table(Contour_Scale &c) {
  c.ncolor = Clamp_Ncolor(c.ncolor);
  int n = c.ncolor;
  if (c.custom && !c.custom_table.empty()) {
    int m = int(c.custom_table.size());
    c.colors.resize(n);
    for (int i = 0; i < n; i++)
      c.colors[i] = c.custom_table[std::lround(double(i) * (m - 1) / (n - 1))];
  } else if (c.scheme == 1) {
    Fill_From_Anchors(c.colors, n, greys, 2);
  } else if (c.scheme == 2) {
    Fill_From_Anchors(c.colors, n, extended, int(std::size(extended)));
  } else {
    Fill_From_Anchors(c.colors, n, rainbow, int(std::size(rainbow)));
  }
  if (c.reverse)
    std::reverse(c.colors.begin(), c.colors.end());
}

void Set_Voxler_Rainbow(Contour_Scale &c) {
  c.ncolor = Clamp_Ncolor(c.ncolor);
  Fill_From_Anchors(c.colors, c.ncolor, bright_rainbow, int(std::size(bright_rainbow)));
  if (c.reverse)
    std::reverse(c.colors.begin(), c.colors.end());
}

int Read_Color_Scheme(Contour_Scale &c, const char *path, std::string &error) {
  std::ifstream in(path ? path : "");
  if (!in) {
    error = std::string("Cannot open the colour scheme file ") + (path ? path : "");
    return 1;
  }
  // 0 header, 1 count, 2 colours, 3 done
  int stage = 0, count = 0, line_no = 0;
  std::vector<uint32_t> table;
  std::vector<long> v;
  for (std::string line; std::getline(in, line);) {
    line_no++;
    if (!Strip_Line(line))
      continue;
    if (stage == 0) {
      if (line != "Ohmvol3D colour scheme") {
        error = Line_Text(line_no, "the file must start with \"Ohmvol3D colour scheme\"");
        return 1;
      }
      stage = 1;
    } else if (stage == 1) {
      if (!Line_Integers(line, v) || v.size() != 1 || v[0] < 2 || v[0] > max_colors) {
        error = Line_Text(line_no, "the number of colours must be one whole number from 2 to 64");
        return 1;
      }
      count = int(v[0]);
      stage = 2;
    } else if (stage == 2) {
      if (!Line_Integers(line, v) || v.size() != 3) {
        error = Line_Text(line_no, "a colour is three whole numbers R G B");
        return 1;
      }
      for (long x : v)
        if (x < 0 || x > 255) {
          error = Line_Text(line_no, "colour values run from 0 to 255");
          return 1;
        }
      table.push_back(Pack(int(v[0]), int(v[1]), int(v[2])));
      if (int(table.size()) == count)
        stage = 3;
    } else {
      error = Line_Text(line_no, "more colours than the number given");
      return 1;
    }
  }
  if (stage < 3) {
    char buf[160];
    if (stage == 0)
      std::snprintf(buf, sizeof buf, "The colour scheme file is empty");
    else if (stage == 1)
      std::snprintf(buf, sizeof buf, "Line %d: the file ends before the number of colours",
                    line_no);
    else
      std::snprintf(buf, sizeof buf, "Line %d: the file ends after %d of the %d colours", line_no,
                    int(table.size()), count);
    error = buf;
    return 1;
  }
  c.custom_table = table;
  c.custom = 1;
  Set_Color_Table(c);
  return 0;
}

int Write_Color_Scheme(const Contour_Scale &c, const char *path) {
  int n = int(c.colors.size());
  if (n < 2 || n > max_colors || !path)
    return 1;
  std::FILE *f = std::fopen(path, "w");
  if (!f)
    return 1;
  std::fprintf(f, "Ohmvol3D colour scheme\n%d\n# R G B, lowest values first\n", n);
  for (uint32_t col : c.colors)
    std::fprintf(f, "%u %u %u\n", (col >> 16) & 0xff, (col >> 8) & 0xff, col & 0xff);
  bool bad = std::ferror(f) != 0;
  return std::fclose(f) != 0 || bad ? 1 : 0;
}
