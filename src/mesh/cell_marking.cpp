// Marking of the plan cells by their distance from the point electrodes: the
// marks decide how dense the adaptive mesh is in each cell.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "core/data_set.h"
#include "core/trace.h"
#include "mesh/mesh.h"

namespace {

int64_t Thousandths(double v) {
  return std::llround(v * 1000.0);
}

// Index of the first of `n` lines at or past v.
int First_Line_At(const double *lines, int n, double v) {
  const int64_t p = Thousandths(v);
  int i = 0;
  while (i < n && Thousandths(lines[i]) < p)
    i++;
  return i;
}

// Cells [lo, hi) along one grid within `r` cells of position v; false if the
// position is beyond the last line.
bool Cell_Range(const double *lines, int nlines, double v, int r, int &lo, int &hi) {
  const int64_t p = Thousandths(v);
  const int i = First_Line_At(lines, nlines, v);
  if (i == nlines)
    return false;
  lo = Thousandths(lines[i]) == p ? i - r : i - r - 1;
  hi = i + r;
  lo = std::max(lo, 0);
  hi = std::min(hi, nlines - 1);
  return lo < hi;
}

// Marks the cells within `r` cells of (xpos, ypos): `set_all` writes 1 to
// each, otherwise only cells holding -1 become 0.
int Mark_Cells(Model_Grid &g, double xpos, double ypos, int r, bool set_all) {
  int x0, x1, y0, y1;
  if (!Cell_Range(g.xgrid, g.ngridx, xpos, r, x0, x1) ||
      !Cell_Range(g.ygrid, g.ngridy, ypos, r, y0, y1))
    return -1;
  const int nbx = g.ngridx - 1;
  for (int j = y0; j < y1; j++)
    for (int i = x0; i < x1; i++) {
      int &c = g.cellxy_elec[static_cast<int64_t>(j) * nbx + i];
      if (set_all)
        c = 1;
      else if (c == -1)
        c = 0;
    }
  return 1 + y0 * nbx + x0;
}

// Cell (i, j), grown by half its size on every side, holds (x, y) in its
// closed rectangle: an electrode off the grid lines near the cell's side
// keeps the cell dense, so the electrode's nodes stay inside dense blocks.
bool Touches(const Model_Grid &g, int i, int j, double x, double y) {
  const double hx = 0.5 * (g.xgrid[i + 1] - g.xgrid[i]), hy = 0.5 * (g.ygrid[j + 1] - g.ygrid[j]);
  const int64_t px = Thousandths(x), py = Thousandths(y);
  return Thousandths(g.xgrid[i] - hx) <= px && px <= Thousandths(g.xgrid[i + 1] + hx) &&
         Thousandths(g.ygrid[j] - hy) <= py && py <= Thousandths(g.ygrid[j + 1] + hy);
}

} // namespace

int Model_Grid::Check_Cell(double xpos, double ypos) {
  return Mark_Cells(*this, xpos, ypos, dist_dense1i, true);
}

int Model_Grid::Check_Cell_Ext2(double xpos, double ypos) {
  return Mark_Cells(*this, xpos, ypos, dist_dense1i + dist_dense2i, false);
}

int Check_Model_Cell_Electrodes_Levels(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  const SemiStructured &ss = ds.Semistructured;
  const int nbx = g.ngridx - 1, nby = g.ngridy - 1;
  g.num_cells = nbx * nby;
  if (g.cellxy_elec.size() < g.num_cells + 1 &&
      g.cellxy_elec.Resize(ds, g.num_cells + 1, "plan cell marks"))
    return 1;
  std::fill(g.cellxy_elec.data(), g.cellxy_elec.data() + g.num_cells, 0);
  g.dist_dense1i = std::clamp(static_cast<int>(std::lround(g.dist_dense1f)), 1, 3);
  g.dist_dense2i = std::clamp(static_cast<int>(std::lround(g.dist_dense2f)), 1, 3);
  const int n = ds.num_point_elecs + ds.num_grid_points;
  if (ss.type_ss_mesh <= 1 || ss.use_dense_rect_mesh == 2) {
    std::fill(g.cellxy_elec.data(), g.cellxy_elec.data() + g.num_cells, 1);
    if (g.side_dense == 2)
      for (int j = 0; j < nby; j++)
        for (int i = 0; i < nbx; i++)
          if (i == 0 || j == 0 || i == nbx - 1 || j == nby - 1)
            g.cellxy_elec[static_cast<int64_t>(j) * nbx + i] = 0;
  } else {
    for (int e = 0; e < n; e++)
      if (ds.pe[e].used)
        g.Check_Cell(ds.pe[e].x, ds.pe[e].y);
    if (ss.type_ss_mesh > 2) {
      for (int c = 0; c < g.num_cells; c++)
        if (g.cellxy_elec[c] == 0)
          g.cellxy_elec[c] = -1;
      for (int e = 0; e < n; e++)
        if (ds.pe[e].used)
          g.Check_Cell_Ext2(ds.pe[e].x, ds.pe[e].y);
    }
  }
  g.num_dense = 0;
  for (int c = 0; c < g.num_cells; c++)
    g.num_dense += g.cellxy_elec[c] > 0;
  // The outer ring of the plan is made coarse, except cells with an
  // electrode on them (edges included): an electrode must never sit on the
  // boundary between a dense and a coarse block, where the hexahedra meet
  // the tetrahedra of a transition block. Those cells are counted.
  std::vector<uint8_t> holds(g.num_cells, 0);
  for (int e = 0; e < n; e++) {
    if (!ds.pe[e].used)
      continue;
    // The first line at or past the electrode: the cells on both sides of
    // it, and the next ones, may hold the electrode.
    const int i1 = First_Line_At(g.xgrid, g.ngridx, ds.pe[e].x);
    const int j1 = First_Line_At(g.ygrid, g.ngridy, ds.pe[e].y);
    for (int j = std::max(j1 - 2, 0); j <= std::min(j1 + 1, nby - 1); j++)
      for (int i = std::max(i1 - 2, 0); i <= std::min(i1 + 1, nbx - 1); i++)
        if (Touches(g, i, j, ds.pe[e].x, ds.pe[e].y))
          holds[static_cast<int64_t>(j) * nbx + i] = 1;
  }
  g.edge_dense = 0;
  for (int j = 0; j < nby; j++)
    for (int i = 0; i < nbx; i++) {
      const int64_t k = static_cast<int64_t>(j) * nbx + i;
      int &c = g.cellxy_elec[k];
      if ((i == 0 || j == 0 || i == nbx - 1 || j == nby - 1) && c == 1) {
        if (holds[k])
          g.edge_dense++;
        else
          c = 0;
      }
    }
  TRACE("Number of dense cells A %d\nModel grid %d x %d. Cells marked as dense. edge_dense %d\n\n",
        g.num_dense, g.ngridx, g.ngridy, g.edge_dense);
  return 0;
}

int Check_Model_Cell_Electrodes(Data_Set &ds) {
  ds.Model_grid.use_dist_electrodes_ss = 0;
  if (Check_Model_Cell_Electrodes_Levels(ds))
    return 1;
  return Convert_Model_Cell_to_Mesh_Cell(ds);
}
