// Conductivity of the main mesh cells from the model blocks, and of each
// element from the cell under its centre.
#include <algorithm>
#include <cmath>
#include <vector>

#include "core/data_set.h"
#include "core/trace.h"
#include "forward/forward.h"

namespace {

constexpr float res_floor = static_cast<float>(forward_res_floor),
                res_ceiling = static_cast<float>(forward_res_ceiling);

// Resistivity bounded once the extremes show that some value passes a bound.
struct Res_Bounds {
  bool clamp = false;
  Res_Bounds(const float *res, int n) {
    if (n < 1)
      return;
    const auto [lo, hi] = std::minmax_element(res, res + n);
    clamp = *lo < res_floor || *hi > res_ceiling;
  }
  float operator()(float r) const { return clamp ? std::clamp(r, res_floor, res_ceiling) : r; }
};

// Calls f(cell index, block index) for every main mesh cell: cells inside a block's
// node range take that block; cells of the side and bottom buffers take the
// nearest block of their layer.
template <class F> void For_Each_Cell_Block(const Model_Grid &g, F f) {
  const int cx = g.lx - 1, cy = g.ly - 1;
  const int npu = g.nodes_per_unit_spacing;
  const int64_t plane = static_cast<int64_t>(cx) * cy;
  // Layer of each z cell (without water), from the blocks' z node ranges.
  std::vector<int> layer_of(g.lz, g.nlayers);
  for (int k = 1; k <= g.nlayers; k++) {
    const Model_Block &b = g.blocks[g.Block_Number(1, 1, k) - 1];
    for (int c = b.nz1; c < b.nz2 && c <= g.lz - 1; c++)
      layer_of[c - 1] = k;
  }
#pragma omp parallel for schedule(static)
  for (int kc = 0; kc < g.lz - 1; kc++) {
    const int layer = layer_of[kc];
    for (int j = 0; j < cy; j++) {
      const int bj = std::clamp((j - (g.jyfirst - 1)) / npu + ((j < g.jyfirst - 1) ? -1 : 0), 0,
                                g.nblocky - 1);
      for (int i = 0; i < cx; i++) {
        const int bi = std::clamp((i - (g.ixfirst - 1)) / npu + ((i < g.ixfirst - 1) ? -1 : 0), 0,
                                  g.nblockx - 1);
        const int64_t cell = (kc + g.nwater) * plane + static_cast<int64_t>(j) * cx + i;
        f(cell, g.Block_Number(bi + 1, bj + 1, layer) - 1);
      }
    }
  }
}

// Calls f(region, cell index) for every main mesh cell whose centre lies in
// a fixed region.
template <class F> void For_Each_Fixed_Cell(const Model_Grid &g, const Fix_Regions &fr, F f) {
  const int cx = g.lx - 1, cy = g.ly - 1;
  const int64_t plane = static_cast<int64_t>(cx) * cy;
  for (int r = 0; r < fr.nfix; r++) {
    for (int kc = 0; kc < g.lz - 1; kc++) {
      const float zc = 0.5f * (g.zmesh[kc] + g.zmesh[kc + 1]);
      if (zc < fr.z1[r] || zc > fr.z2[r])
        continue;
      for (int j = 0; j < cy; j++) {
        const float yc = 0.5f * (g.sy[static_cast<int64_t>(j) * g.lx] +
                                 g.sy[static_cast<int64_t>(j + 1) * g.lx]);
        if (yc < fr.y1[r] || yc > fr.y2[r])
          continue;
        for (int i = 0; i < cx; i++) {
          const float xc = 0.5f * (g.sx[i] + g.sx[i + 1]);
          if (xc < fr.x1[r] || xc > fr.x2[r])
            continue;
          f(r, (kc + g.nwater) * plane + static_cast<int64_t>(j) * cx + i);
        }
      }
    }
  }
}

// Water above the ground and the fixed regions, over the cells.
void Overlay_Water_And_Fixed(Data_Set &ds, float *cr, float *ci) {
  Model_Grid &g = ds.Model_grid;
  const int cx = g.lx - 1, cy = g.ly - 1;
  const int64_t plane = static_cast<int64_t>(cx) * cy;
  if (g.nwater > 0 && ds.water.res > 0.0) {
    const float c = static_cast<float>(1.0 / ds.water.res);
    std::fill(cr, cr + plane * g.nwater, c);
    if (ci)
      std::fill(ci, ci + plane * g.nwater, 0.0f);
  }
  const Fix_Regions &fr = ds.Fix_regions;
  For_Each_Fixed_Cell(g, fr, [&](int r, int64_t cell) {
    cr[cell] = fr.res[r] > 0.0f ? 1.0f / fr.res[r] : 0.0f;
    if (ci)
      ci[cell] = 0.0f;
  });
  TRACE("Copy_Fix_Res end\n");
}

int Allocate_Cells(Data_Set &ds, bool complex_values) {
  Model_Grid &g = ds.Model_grid;
  g.num_cxyz = static_cast<int64_t>(g.lx - 1) * (g.ly - 1) * (g.lzw - 1);
  if (g.cxyz_r.size() != g.num_cxyz && g.cxyz_r.Resize(ds, g.num_cxyz, "mesh conductivity"))
    return 1;
  if (complex_values && g.cxyz_i.size() != g.num_cxyz &&
      g.cxyz_i.Resize(ds, g.num_cxyz, "mesh conductivity imaginary"))
    return 1;
  return 0;
}

} // namespace

int Model_Grid::Set_Conductivity(Data_Set &ds, const float *res) {
  if (nmodel_blocks < 1 || lx < 2 || ly < 2 || lzw < 2)
    return 2;
  if (Allocate_Cells(ds, false))
    return 1;
  const Res_Bounds bound(res, nmodel_blocks);
  float *cr = cxyz_r.data();
  For_Each_Cell_Block(*this, [&](int64_t cell, int m) { cr[cell] = 1.0f / bound(res[m]); });
  Overlay_Water_And_Fixed(ds, cr, nullptr);
  return 0;
}

int Model_Grid::Set_Conductivity_Cmplx(Data_Set &ds, const float *res, const float *phase) {
  if (nmodel_blocks < 1 || lx < 2 || ly < 2 || lzw < 2)
    return 2;
  if (Allocate_Cells(ds, true))
    return 1;
  const Res_Bounds bound(res, nmodel_blocks);
  float *cr = cxyz_r.data(), *ci = cxyz_i.data();
  For_Each_Cell_Block(*this, [&](int64_t cell, int m) {
    const double r = bound(res[m]), q = r * phase[m];
    const double d = r * r + q * q;
    cr[cell] = static_cast<float>(r / d);
    ci[cell] = static_cast<float>(-q / d);
  });
  Overlay_Water_And_Fixed(ds, cr, ci);
  return 0;
}

namespace {

// The main mesh cell under an element's centre.
class Element_Cell_Locator {
public:
  explicit Element_Cell_Locator(const Model_Grid &g)
      : cx_(g.lx - 1), cy_(g.ly - 1), plane_(static_cast<int64_t>(g.lx - 1) * (g.ly - 1)),
        xl_(g.lx), yl_(g.ly) {
    for (int i = 0; i < g.lx; i++)
      xl_[i] = g.sx[i];
    for (int j = 0; j < g.ly; j++)
      yl_[j] = g.sy[static_cast<int64_t>(j) * g.lx];
  }
  int64_t Cell(const Element &el) const {
    float mx = 0.0f, my = 0.0f;
    for (int c = 0; c < el.nnodes; c++) {
      mx += el.x[c];
      my += el.y[c];
    }
    mx /= el.nnodes;
    my /= el.nnodes;
    // The last column whose upper line does not exceed the mean.
    const int i = std::clamp(
        static_cast<int>(std::upper_bound(xl_.begin() + 1, xl_.end(), mx) - xl_.begin()) - 1, 0,
        cx_ - 1);
    const int j = std::clamp(
        static_cast<int>(std::upper_bound(yl_.begin() + 1, yl_.end(), my) - yl_.begin()) - 1, 0,
        cy_ - 1);
    return (el.layer - 1) * plane_ + static_cast<int64_t>(j) * cx_ + i;
  }

private:
  int cx_, cy_;
  int64_t plane_;
  std::vector<float> xl_, yl_;
};

} // namespace

void Set_Mesh_Cell_Cond_ss(Data_Set &ds, bool complex_values) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  const Element_Cell_Locator locate(g);
  const float *cr = g.cxyz_r.data(), *ci = complex_values ? g.cxyz_i.data() : nullptr;
  const int64_t ne = ss.number_elements;
#pragma omp parallel for schedule(static)
  for (int64_t e = 0; e < ne; e++) {
    Element &el = ss.elements[e];
    const int64_t cell = locate.Cell(el);
    el.cond_r = cr[cell];
    el.cond_i = ci ? ci[cell] : 0.0f;
  }
}

int Element_Model_Blocks(const Data_Set &ds, std::vector<int> &block) {
  const Model_Grid &g = ds.Model_grid;
  const SemiStructured &ss = ds.Semistructured;
  if (g.nmodel_blocks < 1 || g.lx < 2 || g.ly < 2 || g.lzw < 2)
    return 2;
  // Block of each main mesh cell; water and fixed-region cells take none.
  std::vector<int> cell_block(static_cast<size_t>(g.lx - 1) * (g.ly - 1) * (g.lzw - 1), -1);
  For_Each_Cell_Block(g, [&](int64_t cell, int m) { cell_block[cell] = m; });
  For_Each_Fixed_Cell(g, ds.Fix_regions, [&](int, int64_t cell) { cell_block[cell] = -1; });
  const Element_Cell_Locator locate(g);
  const int64_t ne = ss.number_elements;
  block.assign(ne, -1);
#pragma omp parallel for schedule(static)
  for (int64_t e = 0; e < ne; e++)
    block[e] = cell_block[locate.Cell(ss.elements[e])];
  return 0;
}
