// Nodes of the solved mesh: numbering of the dense and adaptive forms, the
// map to the main mesh, and the z levels and Jacobian limits.
#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "mesh/mesh.h"
#include "survey/survey_text.h"

int Generate_Mesh_Lines(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  if (ss.xnodet.Resize(ds, g.lx, "mesh lines") || ss.ynodet.Resize(ds, g.ly, "mesh lines") ||
      ss.znodet.Resize(ds, g.lzw, "mesh lines"))
    return 1;
  for (int i = 0; i < g.lx; i++)
    ss.xnodet[i] = g.sx[i];
  for (int j = 0; j < g.ly; j++)
    ss.ynodet[j] = g.sy[static_cast<int64_t>(j) * g.lx];
  // z lines: the levels of the first node column (flat levels without topography).
  for (int k = 0; k < g.lzw; k++)
    ss.znodet[k] = g.zn[static_cast<int64_t>(k) * g.lxy];
  ss.nxlines = g.lx;
  ss.nylines = g.ly;
  ss.nzlines = g.lzw;
  TRACE("zlines lz %d nwater %d lx %d ly %d il %lld\n", g.lz, g.nwater, g.lx, g.ly,
        static_cast<long long>(g.lxy));
  return 0;
}

int64_t Set_Nodes_Main(const Data_Set &ds, float *x, float *y, float *z) {
  const Model_Grid &g = ds.Model_grid;
  const int64_t n = static_cast<int64_t>(g.lxy) * g.lzw;
#pragma omp parallel for schedule(static)
  for (int64_t m = 0; m < n; m++) {
    x[m] = g.xn[m];
    y[m] = g.yn[m];
    z[m] = g.zn[m];
  }
  return n;
}

namespace {

int Allocate_Node_Arrays(Data_Set &ds, int64_t nodes) {
  SemiStructured &ss = ds.Semistructured;
  const Model_Grid &g = ds.Model_grid;
  return ss.xnodess.Resize(ds, nodes, "solved node x") ||
         ss.ynodess.Resize(ds, nodes, "solved node y") ||
         ss.znodess.Resize(ds, nodes, "solved node z") ||
         ss.node_ss_to_main0.Resize(ds, nodes, "solved to main nodes") ||
         ss.node_main_ss.Resize(ds, ss.number_nodes_main, "main to solved nodes") ||
         ss.node_ss_level1.Resize(ds, g.lzw + 1, "node levels") ||
         ss.level_start_y_line1.Resize(ds, g.lzw + 1, "node levels") ||
         ss.number_y_lines.Resize(ds, g.lzw + 1, "node levels");
}

int Allocate_Line_Arrays(Data_Set &ds, int64_t lines) {
  SemiStructured &ss = ds.Semistructured;
  return ss.start_y_line1.Resize(ds, lines + 1, "node y lines") ||
         ss.nodes_y_line.Resize(ds, lines + 1, "node y lines");
}

} // namespace

int Generate_SemiStructured_Mesh_Nodes_Rect(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  ss.number_nodes_main = static_cast<int64_t>(g.lxy) * g.lzw;
  if (Allocate_Node_Arrays(ds, ss.number_nodes_main) ||
      Allocate_Line_Arrays(ds, static_cast<int64_t>(g.ly) * g.lzw))
    return 1;
  Set_Nodes_Main(ds, ss.xnodess.data(), ss.ynodess.data(), ss.znodess.data());
  int count = 0, line = 0;
  for (int k = 0; k < g.lzw; k++) {
    ss.node_ss_level1[k] = count + 1;
    ss.level_start_y_line1[k] = line + 1;
    ss.number_y_lines[k] = g.ly;
    for (int j = 0; j < g.ly; j++, line++) {
      ss.start_y_line1[line] = count + 1;
      ss.nodes_y_line[line] = g.lx;
      for (int i = 0; i < g.lx; i++, count++) {
        ss.node_ss_to_main0[count] = count;
        ss.node_main_ss[count] = count + 1;
      }
    }
  }
  ss.total_y_lines = line;
  ss.number_nodes_ss = count;
  // Element nodes held main numbers: the solved numbers are the same plus 1.
  const int64_t ne = ss.number_elements;
#pragma omp parallel for schedule(static)
  for (int64_t e = 0; e < ne; e++)
    for (int c = 0; c < ss.elements[e].nnodes; c++)
      ss.elements[e].node[c] += 1;
  TRACE("Number of nodes in ss dense mesh %d original dense mesh %d\n", count,
        static_cast<int>(ss.number_nodes_main));
  return 0;
}

int Generate_SemiStructured_Mesh_Nodes(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  ss.number_nodes_main = static_cast<int64_t>(g.lxy) * g.lzw;
  const int64_t ne = ss.number_elements;
  int64_t total = 0;
  for (int64_t e = 0; e < ne; e++)
    total += ss.elements[e].nnodes;
  const int64_t allowed = 2 * ds.Data_lim_sys.nmax_elements_half;
  if (total > allowed)
    return Refuse_Always(ds, "Memory error", "total_nodes_sum %d max allowed %d",
                         static_cast<int>(std::min<int64_t>(total, INT32_MAX)),
                         static_cast<int>(std::min<int64_t>(allowed, INT32_MAX)));
  // Keys: level, then y and x in thousandths relative to the mesh minimum.
  // x and y corners within a thousandth are one node; z enters by the main
  // mesh level, which with topography stands for a surface, not one depth.
  auto thousandths = [](float v) { return std::llround(static_cast<double>(v) * 1000.0); };
  const int64_t xmini = thousandths(ss.xnodet[0]), ymini = thousandths(ss.ynodet[0]);
  const int64_t xrangei = thousandths(ss.xnodet[g.lx - 1]) - xmini + 1;
  const int64_t yrangei = thousandths(ss.ynodet[g.ly - 1]) - ymini + 1;
  std::vector<std::pair<int64_t, int64_t>> keys(static_cast<size_t>(total));
  {
    int64_t s = 0;
    for (int64_t e = 0; e < ne; e++)
      for (int c = 0; c < ss.elements[e].nnodes; c++, s++) {
        const int m = ss.elements[e].node[c];
        const int64_t k = m / g.lxy;
        const int64_t ix = thousandths(g.xn[m]) - xmini, iy = thousandths(g.yn[m]) - ymini;
        keys[s] = {(k * yrangei + iy) * xrangei + ix, e * 8 + c};
      }
  }
  progress(ds, "Sorting sparse mesh node keys", 0.0);
  std::sort(keys.begin(), keys.end());
  // Unique keys are the nodes; count them first.
  int64_t nodes = 0;
  for (int64_t s = 0; s < total; s++)
    nodes += s == 0 || keys[s].first != keys[s - 1].first;
  if (Allocate_Node_Arrays(ds, nodes))
    return 1;
  std::fill(ss.node_main_ss.data(), ss.node_main_ss.data() + ss.number_nodes_main, -1);
  int64_t node = 0, lines = 0;
  std::vector<int> line_start, line_count;
  int64_t last_line = -1, last_level = -1;
  for (int64_t s = 0; s < total; s++) {
    const int64_t e = keys[s].second / 8;
    const int c = static_cast<int>(keys[s].second % 8);
    if (s == 0 || keys[s].first != keys[s - 1].first) {
      const int m = ss.elements[e].node[c];
      ss.xnodess[node] = g.xn[m];
      ss.ynodess[node] = g.yn[m];
      ss.znodess[node] = g.zn[m];
      const int64_t level = keys[s].first / (yrangei * xrangei);
      const int64_t yline = keys[s].first / xrangei;
      if (level != last_level) {
        for (int64_t k = last_level + 1; k <= level; k++) {
          ss.node_ss_level1[k] = static_cast<int>(node + 1);
          ss.level_start_y_line1[k] = static_cast<int>(lines + 1);
          ss.number_y_lines[k] = 0;
        }
        last_level = level;
      }
      if (yline != last_line) {
        line_start.push_back(static_cast<int>(node + 1));
        line_count.push_back(0);
        ss.number_y_lines[level]++;
        lines++;
        last_line = yline;
      }
      line_count.back()++;
      node++;
    }
    ss.elements[e].node[c] = static_cast<int>(node); // from 1
  }
  for (int64_t k = last_level + 1; k < g.lzw; k++) {
    ss.node_ss_level1[k] = static_cast<int>(node + 1);
    ss.level_start_y_line1[k] = static_cast<int>(lines + 1);
    ss.number_y_lines[k] = 0;
  }
  if (Allocate_Line_Arrays(ds, lines))
    return 1;
  std::copy(line_start.begin(), line_start.end(), ss.start_y_line1.data());
  std::copy(line_count.begin(), line_count.end(), ss.nodes_y_line.data());
  ss.total_y_lines = static_cast<int>(lines);
  ss.number_nodes_ss = static_cast<int>(nodes);
  TRACE("Number of unique nodes %d\nLowest node %7.2f,%7.2f,%7.2f number %lld\nHighest node "
        "%7.2f,%7.2f,%7.2f number %lld\n",
        ss.number_nodes_ss, ss.xnodess[0], ss.ynodess[0], ss.znodess[0],
        static_cast<long long>(keys.front().first), ss.xnodess[nodes - 1], ss.ynodess[nodes - 1],
        ss.znodess[nodes - 1], static_cast<long long>(keys.back().first));
  progress(ds, "Setting of node numbers for sparse mesh completed", 1.0);
  return 0;
}

int Map_Sparse_Adaptive_to_Main_Nearest(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  std::fill(ss.node_main_ss.data(), ss.node_main_ss.data() + ss.number_nodes_main, -1);
  auto nearest = [](const float *lines, int n, float v) {
    const int i = static_cast<int>(std::lower_bound(lines, lines + n, v) - lines);
    if (i <= 0)
      return 0;
    if (i >= n)
      return n - 1;
    return v - lines[i - 1] <= lines[i] - v ? i - 1 : i;
  };
  const int n = ss.number_nodes_ss;
  int errors = 0;
#pragma omp parallel for schedule(static) reduction(+ : errors)
  for (int s = 0; s < n; s++) {
    const int i = nearest(ss.xnodet.data(), g.lx, ss.xnodess[s]);
    const int j = nearest(ss.ynodet.data(), g.ly, ss.ynodess[s]);
    // z: the nearest level of this node column (levels follow the topography).
    const int64_t column = i + static_cast<int64_t>(j) * g.lx;
    int kbest = 0;
    float dbest = 1e30f;
    for (int k = 0; k < g.lzw; k++) {
      const float d = std::fabs(g.zn[column + k * static_cast<int64_t>(g.lxy)] - ss.znodess[s]);
      if (d < dbest) {
        dbest = d;
        kbest = k;
      }
    }
    const int64_t m = column + kbest * static_cast<int64_t>(g.lxy);
    ss.node_ss_to_main0[s] = static_cast<int>(m);
    if (ss.node_main_ss[m] != -1)
      errors++;
    ss.node_main_ss[m] = s + 1;
  }
  TRACE("Map_Sparse_Adaptive_to_Main_Nearest nodes %d shared %d\n", n, errors);
  return errors ? 1 : 0;
}

void Get_Elements_Nodes_Coordinates(Data_Set &ds) {
  SemiStructured &ss = ds.Semistructured;
  const int64_t ne = ss.number_elements;
#pragma omp parallel for schedule(static)
  for (int64_t e = 0; e < ne; e++) {
    Element &el = ss.elements[e];
    for (int c = 0; c < el.nnodes; c++) {
      const int s = el.node[c] - 1;
      el.x[c] = ss.xnodess[s];
      el.y[c] = ss.ynodess[s];
      el.z[c] = ss.znodess[s];
    }
  }
}

void SemiStructured::Find_ngridz(int meshz, int reduceside, int zn1_last_layer, int nwater) {
  const int m = std::clamp(meshz, 0, 3);
  if (reduceside == 0) {
    ngridz = nzlines - nwater - 2;
  } else {
    const int add_z_mesh = reduceside == 1 ? 4 : reduceside == 2 ? 2 : reduceside == 3 ? 1 : 0;
    ngridz = zn1_last_layer + add_z_mesh + m + 1;
  }
  static const int extra[6] = {5, 3, 2, 0, 0, -1};
  nlevels_jac = ngridz + extra[std::clamp(reduceside, 0, 5)] + (nwater > 0 ? nwater : 0);
}

void SemiStructured::Set_Jacobian_Limits(int reduceside, int i0, int j0, int ngridx, int ngridy,
                                         int nwater) {
  if (reduceside <= 0) {
    // The whole mesh; its y limit is built from ngridx as well.
    jac_x[0] = jac_y[0] = 1;
    jac_x[1] = ngridx + 2 * (i0 - 1);
    jac_y[1] = ngridx + 2 * j0 - 2;
    z_jac = ngridz + 8;
  } else {
    // Blocks beyond the first and last grid line (a), beyond them on the
    // high side (b), and z levels below ngridz (c), by reduceside 1 to 5.
    static const int a[5] = {-8, -6, -2, -2, 0}, b[5] = {6, 4, 0, 0, -2}, c[5] = {5, 3, 1, 1, -1};
    const int r = std::min(reduceside, 5) - 1;
    jac_x[0] = i0 + a[r];
    jac_x[1] = ngridx + i0 + b[r];
    jac_y[0] = j0 + a[r];
    jac_y[1] = ngridy + j0 + b[r];
    z_jac = ngridz + c[r];
  }
  z_jac_first = 1;
  if (nwater > 0) {
    z_jac += nwater;
    z_jac_first = nwater + 1;
  }
}

void SemiStructured::Calculate_Mid_Point() {
  if (number_nodes_ss < 1)
    return;
  float x0 = xnodess[0], x1 = x0, y0 = ynodess[0], y1 = y0;
  for (int s = 1; s < number_nodes_ss; s++) {
    x0 = std::min(x0, xnodess[s]);
    x1 = std::max(x1, xnodess[s]);
    y0 = std::min(y0, ynodess[s]);
    y1 = std::max(y1, ynodess[s]);
  }
  xmid = (static_cast<double>(x0) + x1) * 0.5;
  ymid = (static_cast<double>(y0) + y1) * 0.5;
}

int Set_SemiStructured_Mesh(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  if (Generate_Mesh_Lines(ds))
    return 1;
  ss.Find_ngridz(g.nodes_per_layer_setting, g.reduceside, g.zn_last_layer, g.nwater);
  ss.Set_Jacobian_Limits(g.reduceside, g.ixfirst, g.jyfirst, g.ngridx, g.ngridy, g.nwater);
  int ierr;
  if (ss.use_dense_rect_mesh == 1) {
    ierr = Generate_SemiStructured_Mesh_Elements_Rect_Jac(ds) ||
           Generate_SemiStructured_Mesh_Nodes_Rect(ds);
  } else {
    ierr = Generate_SemiStructured_Mesh_Elements_Adaptive(ds) ||
           Generate_SemiStructured_Mesh_Nodes(ds) || Map_Sparse_Adaptive_to_Main_Nearest(ds);
  }
  if (ierr)
    return 1;
  Get_Elements_Nodes_Coordinates(ds);
  ss.Calculate_Mid_Point();
  double vol = 0.0;
  const int64_t ne = ss.number_elements;
#pragma omp parallel for schedule(static) reduction(+ : vol)
  for (int64_t e = 0; e < ne; e++)
    vol += Element_Volume(ds, e);
  ss.vol_elements = vol;
  // The main mesh's own volume. Its cells stand on a rectangle of the x-y
  // grid with vertical edges, so a whole column's volume is exactly the
  // rectangle's area times the mean length of its four corner edges.
  double grid = 0.0;
  const int64_t bottom = static_cast<int64_t>(g.lzw - 1) * g.lxy;
#pragma omp parallel for schedule(static) reduction(+ : grid)
  for (int j = 0; j < g.ly - 1; j++)
    for (int i = 0; i < g.lx - 1; i++) {
      const int64_t m = i + static_cast<int64_t>(j) * g.lx;
      const int64_t c[4] = {m, m + 1, m + g.lx, m + g.lx + 1};
      double height = 0.0;
      for (int64_t q : c)
        height += g.zn[q + bottom] - g.zn[q];
      grid +=
          (g.xn[m + 1] - g.xn[m]) * static_cast<double>(g.yn[m + g.lx] - g.yn[m]) * 0.25 * height;
    }
  ss.vol_grid = grid;
  TRACE("vol elements %.3f  vol grid %.3f\n", ss.vol_elements, ss.vol_grid);
  TRACE("Number of nodes in ss sparse mesh %d original dense mesh %d\n", ss.number_nodes_ss,
        static_cast<int>(ss.number_nodes_main));
  return 0;
}
