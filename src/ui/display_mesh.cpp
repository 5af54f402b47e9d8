// One slice of the finite-element mesh that is solved. Every node of that
// mesh is a node of the main mesh, so each has whole indices along x, y and
// z there; slice `level` along a direction passes half way between the main
// mesh's node planes `level` and `level + 1` (the mesh layer `level + 1` of a
// horizontal slice). An element is cut when its nodes lie on both sides of
// the slice; the outline of its section (a rectangle of a hexahedron, a
// triangle or quadrilateral of a tetrahedron) is drawn in the slice's plane
// at the same scale across and down, depth growing downwards. The picture's
// area goes to ds.Dw.draw_window and its pixels a metre to ds.Dw.npixel.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string>

#include "core/data_set.h"
#include "core/messages.h"
#include "mesh/mesh.h"
#include "survey/optional_sections.h"
#include "ui/display_axes.h"
#include "ui/display_window.h"

namespace {

constexpr uint32_t black = 0x000000, tet_colour = 0x0050d0, area_colour = 0xe00000;
const int hex_edges[12][2] = {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {4, 5}, {5, 6},
                              {6, 7}, {7, 4}, {0, 4}, {1, 5}, {2, 6}, {3, 7}};
const int tet_edges[6][2] = {{0, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}};
const int pyr_edges[8][2] = {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {0, 4}, {1, 4}, {2, 4}, {3, 4}};
const char *const slice_names[3] = {"X-Y horizontal slice", "X-Z vertical slice",
                                    "Y-Z vertical slice"};
// Per direction: the axis along the slice's normal, and the axes across and down.
const int normal_axis[3] = {2, 1, 0}, across_axis[3] = {0, 0, 1}, down_axis[3] = {1, 2, 2};

// The solved mesh belongs to the main mesh in force (not to an earlier data set).
bool Mesh_Ready(const Data_Set &ds) {
  const SemiStructured &ss = ds.Semistructured;
  const Model_Grid &g = ds.Model_grid;
  return ss.number_elements > 0 && ss.number_nodes_ss > 0 && ss.nxlines == g.lx &&
         ss.nylines == g.ly && ss.nzlines == g.lzw &&
         ss.number_nodes_main == static_cast<int64_t>(g.lxy) * g.lzw;
}

// Main mesh index along `axis` of solved node `node` (from 1).
int Node_Index(const Data_Set &ds, int node, int axis) {
  const Model_Grid &g = ds.Model_grid;
  const int64_t m = ds.Semistructured.node_ss_to_main0[node - 1];
  if (axis == 0)
    return static_cast<int>(m % g.lx);
  if (axis == 1)
    return static_cast<int>(m / g.lx % g.ly);
  return static_cast<int>(m / g.lxy);
}

double Coordinate(const Element &el, int c, int axis) {
  return axis == 0 ? el.x[c] : axis == 1 ? el.y[c] : el.z[c];
}

// The section of an element by the plane at index `plane` along the
// direction's normal: its corners across and down (normalised units) in
// order around it; returns their count (0 when the element is not cut).
int Element_Section(const Data_Set &ds, const Element &el, int dir, double plane,
                    std::array<double, 2> p[6]) {
  const int(*edges)[2] = el.tet ? tet_edges : el.nnodes == 5 ? pyr_edges : hex_edges;
  const int nedges = el.tet ? 6 : el.nnodes == 5 ? 8 : 12;
  int idx[8];
  for (int c = 0; c < el.nnodes; c++)
    idx[c] = Node_Index(ds, el.node[c], normal_axis[dir]);
  int n = 0;
  for (int k = 0; k < nedges && n < 6; k++) {
    const int a = edges[k][0], b = edges[k][1];
    if ((idx[a] - plane) * (idx[b] - plane) >= 0.0)
      continue;
    const double t = (plane - idx[a]) / (idx[b] - idx[a]);
    for (int d = 0; d < 2; d++) {
      const int axis = d == 0 ? across_axis[dir] : down_axis[dir];
      p[n][d] = Coordinate(el, a, axis) + t * (Coordinate(el, b, axis) - Coordinate(el, a, axis));
    }
    n++;
  }
  // The section is convex: order its corners by angle about their centre.
  double cu = 0.0, cv = 0.0;
  for (int k = 0; k < n; k++)
    cu += p[k][0] / n, cv += p[k][1] / n;
  std::sort(p, p + n, [&](const std::array<double, 2> &a, const std::array<double, 2> &b) {
    return std::atan2(a[1] - cv, a[0] - cu) < std::atan2(b[1] - cv, b[0] - cu);
  });
  return n;
}

// User units of a normalised position along an axis: x, y, and depth or
// (with topography) elevation; and back.
double To_User(const Data_Set &ds, int axis, double v, bool elevation) {
  if (axis == 0)
    return User_X(ds, v);
  if (axis == 1)
    return User_Y(ds, v);
  return (elevation ? ds.Model_grid.topo_reference - v : v) * ds.spxx;
}
double To_Normal(const Data_Set &ds, int axis, double u, bool elevation) {
  if (axis == 0)
    return Normal_X(ds, u);
  if (axis == 1)
    return Normal_Y(ds, u);
  return elevation ? ds.Model_grid.topo_reference - u / ds.spxx : u / ds.spxx;
}

} // namespace

int Plot_SemiStructured_Mesh_Elements(Data_Set &ds, const Draw_Surface &s) {
  Display_Window &w = ds.Dw;
  const Model_Grid &g = ds.Model_grid;
  const SemiStructured &ss = ds.Semistructured;
  Clear_Screen_Bitmap(s);
  if (!Mesh_Ready(ds) && (Call_Generate_Mesh(ds, nullptr) || !Mesh_Ready(ds))) {
    if (ds.mdata > 0)
      show_message(ds, "Unable to make the finite-element mesh of this data set", "Message");
    return 1;
  }
  const int dir = std::clamp(w.mesh_direction, 0, 2);
  w.mesh_direction = dir;
  const int planes = normal_axis[dir] == 0 ? g.lx : normal_axis[dir] == 1 ? g.ly : g.lzw;
  const int level = std::clamp(w.mesh_level, 0, std::max(planes - 2, 0));
  w.mesh_level = level;
  const bool elevation = ds.topo_flag || ds.topo.type > 0;
  const int ua = across_axis[dir], va = down_axis[dir];

  // Extent of the mesh across and down.
  double lo[3], hi[3];
  for (int a = 0; a < 3; a++)
    lo[a] = 1e30, hi[a] = -1e30;
  for (int n = 0; n < ss.number_nodes_ss; n++) {
    const double q[3] = {ss.xnodess[n], ss.ynodess[n], ss.znodess[n]};
    for (int a = 0; a < 3; a++)
      lo[a] = std::min(lo[a], q[a]), hi[a] = std::max(hi[a], q[a]);
  }
  const int ht = w.htexts, hs = w.htexts - 2;
  char t[256];
  std::snprintf(t, sizeof t, "%.1f",
                -std::max(std::fabs(To_User(ds, va, lo[va], elevation)),
                          std::fabs(To_User(ds, va, hi[va], elevation))));
  const int left = s.text_width(s.user, t, hs) + 24, top = w.heading_height + ht + 10;
  const int right = s.width - 20, bottom = s.height - 4 * ht - 36;
  const double du = std::max(hi[ua] - lo[ua], 1e-6), dv = std::max(hi[va] - lo[va], 1e-6);
  const double np = std::max(1e-6, std::min((right - left) / du, (bottom - top) / dv));
  w.npixel = np / ds.spxx; // pixels a metre
  w.draw_window = {left, top, static_cast<int>(std::lround(du * np)),
                   static_cast<int>(std::lround(dv * np))};
  w.draw_window.x += std::max(0, (right - left - w.draw_window.w) / 2);
  const Pixel_Box a = w.draw_window;
  auto px = [&](double u) { return a.x + static_cast<int>(std::lround((u - lo[ua]) * np)); };
  // Horizontal slices north up; vertical ones with depth growing downwards.
  auto py = [&](double v) {
    return a.y + static_cast<int>(std::lround((dir == 0 ? hi[va] - v : v - lo[va]) * np));
  };

  // The elements cut by the slice.
  const double plane = level + 0.5;
  int nhex = 0, ntet = 0;
  for (int64_t e = 0; e < ss.number_elements; e++) {
    const Element &el = ss.elements[e];
    std::array<double, 2> p[6];
    const int n = Element_Section(ds, el, dir, plane, p);
    if (n < 3)
      continue;
    (el.nnodes == 8 ? nhex : ntet)++;
    const uint32_t colour = el.nnodes == 8 ? black : tet_colour;
    for (int k = 0; k < n; k++)
      s.line(s.user, px(p[k][0]), py(p[k][1]), px(p[(k + 1) % n][0]), py(p[(k + 1) % n][1]), colour,
             1);
  }
  if (dir == 0 && g.ngridx > 1 && g.ngridy > 1) {
    const int x0 = px(g.xgrid[0]), x1 = px(g.xgrid[g.ngridx - 1]);
    const int y0 = py(g.ygrid[0]), y1 = py(g.ygrid[g.ngridy - 1]);
    for (int d = 0; d < 2; d++)
      Draw_Frame(s, x0 - d, y0 - d, x1 - x0 + 2 * d, y1 - y0 + 2 * d, area_colour);
  }

  // Axes in metres, labels kept apart.
  const char *names[3] = {"X (m)", "Y (m)", elevation ? "Elevation (m)" : "Depth (m)"};
  for (int d = 0; d < 2; d++) {
    const int axis = d == 0 ? ua : va;
    const double u0 = To_User(ds, axis, lo[axis], elevation);
    const double u1 = To_User(ds, axis, hi[axis], elevation);
    const double ulo = std::min(u0, u1), uhi = std::max(u0, u1);
    std::snprintf(t, sizeof t, "%.2f", -std::max(std::fabs(ulo), std::fabs(uhi)));
    const int gap = d == 0 ? s.text_width(s.user, t, hs) + 16 : 2 * hs + 6;
    const double step = Nice_Step(gap * ds.spxx / np);
    for (double u = std::ceil(ulo / step - 1e-9) * step; u <= uhi + 1e-9 * step; u += step) {
      const std::string label = Axis_Number(u, step);
      const double v = To_Normal(ds, axis, u, elevation);
      if (d == 0) {
        s.line(s.user, px(v), a.y + a.h, px(v), a.y + a.h + 4, black, 1);
        s.text(s.user, px(v), a.y + a.h + 6 + hs, label.c_str(), black, TA_CENTRE, hs);
      } else {
        s.line(s.user, a.x - 4, py(v), a.x, py(v), black, 1);
        s.text(s.user, a.x - 6, py(v) + hs / 2, label.c_str(), black, TA_RIGHT, hs);
      }
    }
  }
  Draw_Frame(s, a.x, a.y, a.w, a.h, black);
  s.text(s.user, a.x + a.w / 2, a.y + a.h + 2 * hs + 14, names[ua], black, TA_CENTRE, ht);
  s.text(s.user, a.x - left + 4, a.y - 8, names[va], black, TA_LEFT, ht);

  // Title: the slice and where it lies (the depth of a horizontal slice only
  // where the levels are flat).
  const int na = normal_axis[dir];
  const Block_Array<float> &node_lines = na == 0 ? ss.xnodet : na == 1 ? ss.ynodet : ss.znodet;
  const double c0 = To_User(ds, na, node_lines[level], false);
  const double c1 = To_User(ds, na, node_lines[level + 1], false);
  static const char *const between[3] = {"x", "y", "depth"};
  const int n = std::snprintf(t, sizeof t, "Finite-element mesh, %s, level %d of %d",
                              slice_names[dir], level + 1, planes - 1);
  if (na < 2 || !elevation)
    std::snprintf(t + n, sizeof t - n, ", %s %.2f to %.2f m", between[na], c0, c1);
  s.text(s.user, s.width / 2, ht + 10, t, black, TA_CENTRE, ht + 4);

  // The counts: the status line, drawn under the picture with a key.
  std::snprintf(t, sizeof t,
                "Level %d.  Rectangular elements %d  Tetrahedral elements %d  Total level %d  "
                "Total all %lld                            \n",
                level + 1, nhex, ntet, nhex + ntet, static_cast<long long>(ss.number_elements));
  w.status = t;
  std::string shown = w.status;
  shown.erase(shown.find_last_not_of(" \n") + 1);
  const int ys = a.y + a.h + 3 * hs + 28;
  s.text(s.user, a.x, ys, shown.c_str(), black, TA_LEFT, ht);
  int kx = a.x, ky = ys + ht + 10;
  const std::pair<const char *, uint32_t> key[3] = {{"Rectangular elements", black},
                                                    {"Tetrahedral elements", tet_colour},
                                                    {"Survey area", area_colour}};
  for (int k = 0; k < (dir == 0 ? 3 : 2); k++) {
    s.line(s.user, kx, ky - hs / 2 + 1, kx + 24, ky - hs / 2 + 1, key[k].second, 2);
    s.text(s.user, kx + 30, ky, key[k].first, black, TA_LEFT, hs);
    kx += 30 + s.text_width(s.user, key[k].first, hs) + 24;
  }
  return 0;
}
