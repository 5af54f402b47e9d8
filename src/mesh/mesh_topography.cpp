// Surface elevations of the main mesh from the survey's grid heights, and the
// model blocks that follow them.
#include <algorithm>
#include <cmath>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/solve3.h"
#include "core/trace.h"
#include "mesh/mesh.h"
#include "survey/scatter_interpolation.h"
#include "survey/survey_text.h"

namespace {

// Grid cell and fraction of main mesh node i along one direction, for the
// interior nodes; buffer nodes take the nearest interior node.
void Cell_Of_Node(int i, int first, int ngrid, int npu, int &cell, double &f) {
  const int last = (ngrid - 1) * npu;
  const int m = std::clamp(i - (first - 1), 0, last);
  cell = std::min(m / npu, ngrid - 2);
  f = static_cast<double>(m - cell * npu) / npu;
}

} // namespace

void Set_Surface_Mesh_Topography(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  const Topography &t = ds.topo;
  std::fill(g.sz.data(), g.sz.data() + g.lxy, 0.0f);
  g.topo_reference = 0.0;
  if (!t.grid_heights || !t.grid_z || g.ngridx < 2 || g.ngridy < 2)
    return;
  const int npu = g.nodes_per_unit_spacing;
  const float *h = t.grid_z;
  const int nx = g.ngridx;
  const int i0 = g.ixfirst - 1, j0 = g.jyfirst - 1;
  const int ilast = i0 + (g.ngridx - 1) * npu, jlast = j0 + (g.ngridy - 1) * npu;
  // Interior: bilinear between the four grid points of the node's cell.
  for (int j = j0; j <= jlast; j++) {
    if ((j - j0) % 16 == 0)
      Progress_Text(ds, static_cast<double>(j - j0) / (jlast - j0 + 1),
                    "Set surface mesh topography interior %d/%d", j - j0 + 1, jlast - j0 + 1);
    int cj;
    double fy;
    Cell_Of_Node(j, g.jyfirst, g.ngridy, npu, cj, fy);
    float *row = g.sz.data() + static_cast<int64_t>(j) * g.lx;
#pragma omp parallel for schedule(static)
    for (int i = i0; i <= ilast; i++) {
      int ci;
      double fx;
      Cell_Of_Node(i, g.ixfirst, g.ngridx, npu, ci, fx);
      const double a = h[ci + cj * nx], b = h[ci + 1 + cj * nx];
      const double c = h[ci + (cj + 1) * nx], d = h[ci + 1 + (cj + 1) * nx];
      row[i] =
          static_cast<float>((1 - fy) * ((1 - fx) * a + fx * b) + fy * ((1 - fx) * c + fx * d));
    }
  }
  // Refinement: interior nodes between grid lines take the ground's own
  // interpolation at their positions instead of the bilinear value.
  const int64_t points = static_cast<int64_t>(t.num_points) + t.num_elec_points;
  if (g.refine_topo && points > 0 && t.x) {
    progress(ds, "Set surface mesh refine topography", 0.0);
    const Height_Interpolator height(t.x, t.y, t.z, points, g.type_topo_estimate);
#pragma omp parallel for schedule(dynamic, 4)
    for (int j = j0; j <= jlast; j++) {
      int cj;
      double fy;
      Cell_Of_Node(j, g.jyfirst, g.ngridy, npu, cj, fy);
      const double y = g.ygrid[cj] + fy * (g.ygrid[cj + 1] - g.ygrid[cj]);
      for (int i = i0; i <= ilast; i++) {
        int ci;
        double fx;
        Cell_Of_Node(i, g.ixfirst, g.ngridx, npu, ci, fx);
        if (fx == 0.0 && fy == 0.0)
          continue; // grid points keep the survey's heights
        const double x = g.xgrid[ci] + fx * (g.xgrid[ci + 1] - g.xgrid[ci]);
        g.sz[static_cast<int64_t>(j) * g.lx + i] = static_cast<float>(height(x, y));
      }
    }
  }
  // Sides: each buffer node takes the elevation of the nearest interior node.
  for (int j = 0; j < g.ly; j++) {
    if (j % 32 == 0)
      Progress_Text(ds, static_cast<double>(j) / g.ly, "Set surface mesh topography sides %d/%d",
                    j + 1, g.ly);
    const int jj = std::clamp(j, j0, jlast);
    float *row = g.sz.data() + static_cast<int64_t>(j) * g.lx;
    const float *src = g.sz.data() + static_cast<int64_t>(jj) * g.lx;
    for (int i = 0; i < g.lx; i++)
      if (i < i0 || i > ilast || j != jj)
        row[i] = src[std::clamp(i, i0, ilast)];
  }
  double top = g.sz[0];
  for (int64_t k = 1; k < g.lxy; k++)
    top = std::max<double>(top, g.sz[k]);
  g.topo_reference = top;
  TRACE("Set surface mesh topography end\n");
}

void Continue_Topography_Into_Buffers(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  if (!g.topo_buffer_slope || !ds.topo.grid_heights || !ds.topo.grid_z || g.ngridx < 2 ||
      g.ngridy < 2)
    return;
  const int npu = g.nodes_per_unit_spacing;
  const int i0 = g.ixfirst - 1, j0 = g.jyfirst - 1;
  const int ilast = i0 + (g.ngridx - 1) * npu, jlast = j0 + (g.ngridy - 1) * npu;
  const auto at = [&g](int i, int j) { return i + static_cast<int64_t>(j) * g.lx; };
  // The least-squares plane z = a + b (x - xc) + c (y - yc) of the grid's
  // surface nodes, about their centroid.
  double xc = 0.0, yc = 0.0, n = 0.0;
  for (int j = j0; j <= jlast; j++)
    for (int i = i0; i <= ilast; i++) {
      xc += g.sx[at(i, j)];
      yc += g.sy[at(i, j)];
      n += 1.0;
    }
  xc /= n;
  yc /= n;
  double m[3][3] = {}, r[3] = {}, plane[3];
  for (int j = j0; j <= jlast; j++)
    for (int i = i0; i <= ilast; i++) {
      const int64_t k = at(i, j);
      const double f[3] = {1.0, g.sx[k] - xc, g.sy[k] - yc};
      for (int a = 0; a < 3; a++) {
        r[a] += f[a] * g.sz[k];
        for (int b = 0; b < 3; b++)
          m[a][b] += f[a] * f[b];
      }
    }
  if (!Solve3(m, r, plane, 1e-12))
    return; // the grid is one line of nodes: no slope across it
  // Each buffer node keeps the elevation of its nearest grid node (set with
  // the surface) plus the plane's rise between the two, over at most the
  // grid's own length and width beyond its edge: the ground further out is
  // unknown, and the relief added stays that of the survey.
  const double reach_x = g.xgrid[g.ngridx - 1] - g.xgrid[0];
  const double reach_y = g.ygrid[g.ngridy - 1] - g.ygrid[0];
  for (int j = 0; j < g.ly; j++)
    for (int i = 0; i < g.lx; i++) {
      const int ii = std::clamp(i, i0, ilast), jj = std::clamp(j, j0, jlast);
      if (ii == i && jj == j)
        continue;
      const int64_t k = at(i, j), kn = at(ii, jj);
      const double dx = std::clamp<double>(g.sx[k] - g.sx[kn], -reach_x, reach_x);
      const double dy = std::clamp<double>(g.sy[k] - g.sy[kn], -reach_y, reach_y);
      g.sz[k] = static_cast<float>(g.sz[kn] + plane[1] * dx + plane[2] * dy);
    }
  double top = g.sz[0];
  for (int64_t k = 1; k < g.lxy; k++)
    top = std::max<double>(top, g.sz[k]);
  g.topo_reference = top;
}

void Add_Topography_Model(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  const Topography &t = ds.topo;
  TRACE("Data_Set::Add_Topography_Model surface grid %d by %d  topoelec %.3f %.3f %.3f\n", g.ngridx,
        g.ngridy, t.zmin, t.zmax, t.average);
  // The topographic blocks take the z of the mesh nodes at their corners.
  const int n = g.nmodel_blocks;
#pragma omp parallel for schedule(static)
  for (int m = 0; m < n; m++) {
    Model_Block &b = g.blocks_topo[m];
    const int is[8] = {b.nx1, b.nx1, b.nx2, b.nx2, b.nx1, b.nx1, b.nx2, b.nx2};
    const int js[8] = {b.ny1, b.ny2, b.ny2, b.ny1, b.ny1, b.ny2, b.ny2, b.ny1};
    for (int c = 0; c < 8; c++) {
      const int k = (c < 4 ? b.nz1 : b.nz2) + g.nwater;
      b.z[c] = g.zn[g.Node(is[c], js[c], k)];
    }
  }
}
