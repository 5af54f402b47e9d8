// Positions of the main mesh's nodes: the surface nodes, the copy to every
// level, and the z of each node with water and topography.
#include <algorithm>
#include <cmath>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "forward/forward.h"
#include "mesh/mesh.h"
#include "survey/survey_text.h"

void Model_Grid::Set_Surface_XY_Nodes() {
  for (int j = 0; j < ly; j++) {
    const float y = ymesh[j];
    float *rx = sx.data() + static_cast<int64_t>(j) * lx;
    float *ry = sy.data() + static_cast<int64_t>(j) * lx;
    float x = 0.0f;
    for (int i = 0; i < lx; i++) {
      rx[i] = x;
      ry[i] = y;
      if (i + 1 < lx)
        x += delx[i];
    }
  }
}

void Model_Grid::Zero_Surface_XY_Nodes_Positions() {
  // The first model grid line falls on its own position (0 after the
  // normalisation of the survey).
  const int64_t k0 = (ixfirst - 1) + static_cast<int64_t>(jyfirst - 1) * lx;
  const float dx = sx[k0] - static_cast<float>(xgrid[0]);
  const float dy = sy[k0] - static_cast<float>(ygrid[0]);
  for (int64_t k = 0; k < lxy; k++) {
    sx[k] -= dx;
    sy[k] -= dy;
  }
}

int Model_Grid::Copy_XY_Node_Positions_To_3D_Mesh(Data_Set &ds, int64_t limit) {
  const int64_t total = static_cast<int64_t>(lz + nwater) * ly * lx;
  if (!(total < limit)) {
    Refuse_Always(ds, "Mesh size limits",
                  "Total number of nodes with rectangular mesh is %d.\nMaximum allowed is "
                  "%d.\nYou need to reduce the number of layers.",
                  static_cast<int>(std::min<int64_t>(total, INT32_MAX)),
                  static_cast<int>(std::min<int64_t>(limit, INT32_MAX)));
    return 1;
  }
  if (xn.Resize(ds, total, "mesh node x") || yn.Resize(ds, total, "mesh node y") ||
      zn.Resize(ds, total, "mesh node z"))
    return 1;
  const int levels = lz + nwater;
#pragma omp parallel for schedule(static)
  for (int k = 0; k < levels; k++) {
    std::copy(sx.data(), sx.data() + lxy, xn.data() + static_cast<int64_t>(k) * lxy);
    std::copy(sy.data(), sy.data() + lxy, yn.data() + static_cast<int64_t>(k) * lxy);
  }
  return 0;
}

namespace {

bool Follows_Topography(const Data_Set &ds, const Model_Grid &g) {
  return ds.topo.grid_heights && g.type_topo_model > 0;
}

} // namespace

double Model_Grid::Column_Depth(const Data_Set &ds, int64_t c, double depth) const {
  const double shift = Follows_Topography(ds, *this) ? topo_reference - sz[c] : 0.0;
  return depth + shift * Topography_Weight(depth);
}

void Model_Grid::Set_3D_Mesh_Z_Node_Values(const Data_Set &ds) {
  const float zlast = zmesh[lz - 1];
  const int64_t n = lxy;
  const bool topo = Follows_Topography(ds, *this);
  const double water_top = ds.water.kind > 0 ? ds.water.elevation / ds.spxx : 0.0;
  float *z = zn.data();
  // Where the ground stands above the water the water levels keep a least
  // thickness, a quarter of the deepest water, so that they do not pinch
  // out over one cell at the shore.
  double deepest = 0.0;
  if (nwater > 0)
    for (int64_t c = 0; c < n; c++)
      deepest = std::max(deepest, water_top - (topo ? sz[c] : 0.0));
  const double least = std::max(0.01 * nwater, 0.25 * deepest);
#pragma omp parallel for schedule(static)
  for (int64_t c = 0; c < n; c++) {
    double above = -1e30;
    for (int k = 0; k < lz; k++) {
      double zz = Column_Depth(ds, c, zmesh[k]);
      // A column never folds over: each spacing keeps a tenth of its flat size.
      if (k > 0)
        zz = std::max(zz, above + 0.1 * delz[k - 1]);
      z[(nwater + k) * n + c] = static_cast<float>(zz);
      above = zz;
    }
    if (nwater > 0) {
      // Water levels between the water's surface and the bed, by the table of
      // fractions of the local water depth.
      const double bed = z[nwater * n + c];
      const double bed_elevation = topo ? sz[c] : 0.0;
      const double depth = std::max(water_top - bed_elevation, least);
      for (int k = 0; k < nwater; k++)
        z[k * n + c] = static_cast<float>(bed - depth * (1.0 - water_levels[k]));
    }
  }
  zmesh[lz - 1] = zlast;
}

double Model_Grid::Topography_Weight(double z) const {
  // Uniform distortion moves every level by the surface's shift. Damped
  // distortion fades linearly with depth, by the damping factor, down to the
  // model's last layer (factor 1: nothing is left there), and what is left
  // fades on to nothing at the mesh bottom.
  if (type_topo_model == 1)
    return 1.0;
  if (type_topo_model != 2)
    return 0.0;
  const double zm = zbl[nlayers], zb = zmesh[lz - 1];
  if (z <= zm)
    return 1.0 - topo_damp_used * z / zm;
  const double at_model = 1.0 - topo_damp_used;
  return zb > zm ? at_model * std::max(0.0, (zb - z) / (zb - zm)) : 0.0;
}

double Model_Grid::Find_Maximum_Topography_Z_Shift() const {
  double shift = 0.0;
  for (int64_t c = 0; c < lxy; c++)
    shift = std::max(shift, topo_reference - sz[c]);
  return shift;
}

int Set_Model_Mesh_XYZ_Rect(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  if (g.Set_Mesh_Spacings_Rectangular_Grid(ds, ds.Semistructured.use_dense_rect_mesh) ||
      g.delz.Resize(ds, g.lz, "mesh z spacings") || g.xmesh.Resize(ds, g.lx, "mesh x lines") ||
      g.ymesh.Resize(ds, g.ly, "mesh y lines") || g.zmesh.Resize(ds, g.lz, "mesh z lines") ||
      g.sx.Resize(ds, g.lxy, "surface node x") || g.sy.Resize(ds, g.lxy, "surface node y"))
    return 1;
  g.Set_delz();
  if (ds.tank.present)
    g.Adjust_Tank_Walls(ds);
  g.Set_Mesh_XYZ();
  g.Set_Surface_XY_Nodes();
  g.Zero_Surface_XY_Nodes_Positions();
  Nudge_Surface_Nodes(ds);
  Continue_Topography_Into_Buffers(ds);
  if (g.Copy_XY_Node_Positions_To_3D_Mesh(ds, g.max_mesh_nodes))
    return 1;
  // The damped distortion is kept from folding the model's levels over.
  g.topo_damp_used = g.topo_damp_factor;
  const double relief = g.Find_Maximum_Topography_Z_Shift();
  if (relief > 0.0 && g.type_topo_model == 2)
    g.topo_damp_used = std::min(g.topo_damp_factor, 0.5 * g.zbl[g.nlayers] / relief);
  for (int k = 0; k < g.nwater; k++)
    g.water_levels[k] = static_cast<float>(k) / g.nwater;
  g.Set_3D_Mesh_Z_Node_Values(ds);
  Nudge_Buried_Nodes(ds);
  TRACE("Set_Model_Mesh_XYZ_Rect lx %d ly %d lz %d nwater %d spac_buffer %.3f depth %.3f\n", g.lx,
        g.ly, g.lz, g.nwater, g.spac_buffer, g.zmesh[g.lz - 1]);
  return 0;
}
