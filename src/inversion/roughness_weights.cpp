// Weights of the roughness filter: direction weights, cell weights from the
// cell sizes, sharp-boundary groups, the weight of every difference row, and
// the fixed-region weights of the cells.
#include "inversion/roughness_weights.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "inversion/inversion.h"

void Filter_Direction_Weights(const LS_Method &m, float &wx, float &wy, float &wz) {
  wx = wy = wz = 1.0f;
  const float r = static_cast<float>(m.vh_filter_ratio);
  const float xw = static_cast<float>(m.xfilter_weight), yw = static_cast<float>(m.yfilter_weight);
  if (r == 1.0f) {
    if (xw != yw)
      wx = xw, wy = yw;
    return;
  }
  // The 1.4142 keeps wx^2 + wz^2 at about 2, as with the ratio 1.
  const double rr = static_cast<double>(r) * r;
  wz = static_cast<float>(std::sqrt(rr / (rr + 1.0)) * 1.4142);
  const float h = static_cast<float>(std::sqrt(1.0 / (rr + 1.0)) * 1.4142);
  if (xw == yw)
    wx = wy = h;
  else
    wx = xw * h, wy = yw * h;
}

int Filter_Stencils(const LS_Method &m, Filter_Stencil *s) {
  int n = 0;
  s[n++] = {1, 0, 0, 0, 0};
  s[n++] = {0, 1, 0, 1, 0};
  s[n++] = {0, 0, 1, 2, 0};
  if (m.use_hdiag_filter) {
    s[n++] = {1, 1, 0, 0, 1};
    s[n++] = {-1, 1, 0, 1, 1};
  }
  if (m.use_vdiag_filter)
    for (const int d : {1, -1}) {
      s[n++] = {d, 0, 1, 2, 1};
      s[n++] = {0, d, 1, 2, 1};
    }
  if (m.use_vcross_filter)
    for (const int dj : {1, -1})
      for (const int di : {1, -1})
        s[n++] = {di, dj, 1, 2, 1};
  return n;
}

float Stencil_Weight(const Filter_Stencil &s, const float *w, float diag) {
  if (!s.diag)
    return w[s.op];
  const int d[3] = {s.di, s.dj, s.dk};
  float sum = 0.0f;
  int count = 0;
  for (int a = 0; a < 3; a++)
    if (d[a] != 0)
      sum += w[a], count++;
  return diag * sum / static_cast<float>(count);
}

namespace {

float Clamp_Weight(double v) {
  return static_cast<float>(std::clamp(std::isfinite(v) ? v : 1.0, 0.5, 2.0));
}

// Mean of a size and the next one; the last takes the value of the one
// before it.
std::vector<double> Neighbour_Means(const std::vector<double> &size) {
  const int n = static_cast<int>(size.size());
  std::vector<double> mean(size);
  for (int i = 0; i + 1 < n; i++)
    mean[i] = 0.5 * (size[i] + size[i + 1]);
  if (n > 1)
    mean[n - 1] = mean[n - 2];
  return mean;
}

// Operator and cell filter weights from the cell sizes: a the layer
// thickness, d and c the widths in x and y, e, f and g the mean distances to
// the next cell in x, y and z. The cell filter weight takes the thickness
// twice and not the x width.
void Set_Cell_Weights(const Data_Set &ds, Filter_Weights &w) {
  const Model_Grid &g = ds.Model_grid;
  if (ds.LS_method.uniform_filter_weights) {
    for (Block_Array<float> &c : w.cell)
      std::fill(c.data(), c.data() + w.n, 1.0f);
    return;
  }
  std::vector<double> dx(w.nx), dy(w.ny), dz(w.nz);
  for (int i = 1; i <= w.nx; i++) {
    const Model_Block &b = g.blocks[g.Block_Number(i, 1, 1) - 1];
    dx[i - 1] = std::fabs(b.x[3] - b.x[0]);
  }
  for (int j = 1; j <= w.ny; j++) {
    const Model_Block &b = g.blocks[g.Block_Number(1, j, 1) - 1];
    dy[j - 1] = std::fabs(b.y[1] - b.y[0]);
  }
  for (int k = 1; k <= w.nz; k++) {
    const Model_Block &b = g.blocks[g.Block_Number(1, 1, k) - 1];
    dz[k - 1] = std::fabs(b.z[4] - b.z[0]);
  }
  const std::vector<double> ex = Neighbour_Means(dx), ey = Neighbour_Means(dy),
                            ez = Neighbour_Means(dz);
  int m = 0;
  for (int k = 0; k < w.nz; k++)
    for (int j = 0; j < w.ny; j++)
      for (int i = 0; i < w.nx; i++, m++) {
        const double a = dz[k], d = dx[i], c = dy[j];
        w.cell[0][m] = Clamp_Weight(std::sqrt(a * c / ex[i]));
        w.cell[1][m] = Clamp_Weight(std::sqrt(d * a / ey[j]));
        w.cell[2][m] = Clamp_Weight(std::sqrt(d * c / ez[k]));
        w.cell[3][m] = Clamp_Weight(std::sqrt(a * c * a));
      }
}

} // namespace

int Set_Sharp_Boundary_Groups(Data_Set &ds, Filter_Weights &w) {
  const Sharp_Boundary &s = ds.Sharp_boundary;
  const Model_Grid &g = ds.Model_grid;
  const int nb = std::min(s.nregions - 1, max_sharp_boundaries);
  w.ngroups = 1;
  if (nb < 1)
    return 0;
  if (w.group.size() < w.n && w.group.Resize(ds, w.n, "sharp boundary groups"))
    return 1;
  std::fill(w.group.data(), w.group.data() + w.n, 0);
  for (int b = 0; b < nb; b++) {
    const float *depth = s.grid_depth[b];
    if (!depth)
      continue;
    // Boundary depth under each plan cell: the mean of its four grid nodes.
    for (int j = 1; j <= w.ny; j++)
      for (int i = 1; i <= w.nx; i++) {
        const int n00 = (i - 1) + (j - 1) * g.ngridx;
        const double z = 0.25 * (depth[n00] + depth[n00 + 1] + depth[n00 + g.ngridx] +
                                 depth[n00 + g.ngridx + 1]);
        for (int k = 1; k <= w.nz; k++) {
          const int m = g.Block_Number(i, j, k) - 1;
          if (g.blocks[m].zc > z)
            w.group[m] = std::max(w.group[m], b + 1);
        }
      }
  }
  w.ngroups = nb + 1;
  return 0;
}

int Set_Filter_Weights(Data_Set &ds, const float *damp_ac, Filter_Weights &w) {
  const Model_Grid &g = ds.Model_grid;
  const LS_Method &lm = ds.LS_method;
  w.nx = g.nblockx, w.ny = g.nblocky, w.nz = g.nlayers;
  w.n = w.nx * w.ny * w.nz;
  if (w.n < 1 || w.n > g.nmodel_blocks || g.blocks.size() < w.n)
    return 1;
  for (Block_Array<float> &c : w.cell)
    if (c.size() < w.n && c.Resize(ds, w.n, "roughness filter cell weights"))
      return 1;
  for (Block_Array<float> &r : w.row)
    if (r.size() < w.n && r.Resize(ds, w.n, "roughness filter row weights"))
      return 1;
  if (Set_Sharp_Boundary_Groups(ds, w))
    return 1;
  Filter_Direction_Weights(lm, w.wx, w.wy, w.wz);
  Set_Cell_Weights(ds, w);

  const float depth_rate = static_cast<float>(lm.damp_depth_factor);
  const float p = static_cast<float>(lm.first_layer_damp_factor);
  const bool first_layer = lm.use_first_layer_damp && p > 1.0f && p < 100.0f;
  const float s = static_cast<float>(lm.side_filter_weight);
  const bool cell_weight = w.ngroups > 1 || ds.Fix_regions.nfix > 0;
  float layer[3] = {w.wx, w.wy, w.wz}; // running scalars, growing with depth
  for (int k = 1; k <= w.nz; k++) {
    for (int j = 1; j <= w.ny; j++)
      for (int i = 1; i <= w.nx; i++) {
        const int m = g.Block_Number(i, j, k) - 1;
        // Side rule: one s for each side the cell touches, one more at a corner.
        const bool side_i = i == 1 || i == w.nx, side_j = j == 1 || j == w.ny;
        const int nside = (i == 1) + (i == w.nx) + (j == 1) + (j == w.ny) + (side_i && side_j);
        float f = 1.0f;
        if (first_layer && k == 1)
          f *= p;
        for (int t = 0; t < nside; t++)
          f *= s;
        if (cell_weight)
          f *= w.cell[3][m];
        if (damp_ac)
          f *= damp_ac[m];
        for (int d = 0; d < 3; d++)
          w.row[d][m] = layer[d] * f * w.cell[d][m];
      }
    for (float &l : layer)
      l *= depth_rate;
  }
  TRACE("Set_Filter_Weights wx %.4f wy %.4f wz %.4f groups %d\n", w.wx, w.wy, w.wz, w.ngroups);
  return 0;
}

int Set_Fixed_Regions_Roughness_Filter(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  const Fix_Regions &fr = ds.Fix_regions;
  const int nx = g.nblockx, ny = g.nblocky, nz = g.nlayers, n = g.nmodel_blocks;
  if (n < 1 || nx * ny * nz != n || g.blocks.size() < n)
    return 1;
  progress(ds, "Set fixed regions", 0.0);
  ds.LS.sensfix.assign(static_cast<size_t>(n), 1.0f);
  // The centres along each axis (the flat blocks are a tensor grid), so each
  // region visits only the cells it holds.
  std::vector<float> xc(nx), yc(ny), zc(nz);
  for (int i = 1; i <= nx; i++)
    xc[i - 1] = g.blocks[g.Block_Number(i, 1, 1) - 1].xc;
  for (int j = 1; j <= ny; j++)
    yc[j - 1] = g.blocks[g.Block_Number(1, j, 1) - 1].yc;
  for (int k = 1; k <= nz; k++)
    zc[k - 1] = g.blocks[g.Block_Number(1, 1, k) - 1].zc;
  const auto range = [](const std::vector<float> &c, float lo, float hi, int &a, int &b) {
    a = static_cast<int>(std::lower_bound(c.begin(), c.end(), lo) - c.begin());
    b = static_cast<int>(std::upper_bound(c.begin(), c.end(), hi) - c.begin());
  };
  int nfixed = 0;
  for (int r = 0; r < fr.nfix; r++) {
    int i1, i2, j1, j2, k1, k2;
    range(xc, fr.x1[r], fr.x2[r], i1, i2);
    range(yc, fr.y1[r], fr.y2[r], j1, j2);
    range(zc, fr.z1[r], fr.z2[r], k1, k2);
    for (int k = k1; k < k2; k++)
      for (int j = j1; j < j2; j++)
        for (int i = i1; i < i2; i++) {
          ds.LS.sensfix[g.Block_Number(i + 1, j + 1, k + 1) - 1] = fr.weight[r];
          nfixed++;
        }
  }
  TRACE("Set_Fixed_Regions_Roughness_Filter regions %d cells %d\n", fr.nfix, nfixed);
  return progress(ds, "Set fixed regions", 1.0);
}
