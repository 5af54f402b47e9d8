// Model layers and blocks: the interface depths, the block corners, centres
// and volumes, and the depth the survey reaches.
#include <algorithm>
#include <cmath>
#include <vector>

#include "core/data_set.h"
#include "core/trace.h"
#include "mesh/mesh.h"
#include "survey/array_geometry.h"
#include "survey/survey_text.h"

double Trilinear_Volume(const double p[8][3]) {
  // The map is x(u, v, w) = a + b u + c v + d w + e uv + f uw + g vw + h uvw
  // on the unit cube; det J is of degree 2 in each local coordinate, so the
  // 2-point Gauss rule in each direction integrates it exactly.
  double b[3], c[3], d[3], e[3], f[3], g[3], h[3];
  for (int k = 0; k < 3; k++) {
    b[k] = p[1][k] - p[0][k];
    c[k] = p[2][k] - p[0][k];
    d[k] = p[4][k] - p[0][k];
    e[k] = p[3][k] - p[2][k] - p[1][k] + p[0][k];
    f[k] = p[5][k] - p[4][k] - p[1][k] + p[0][k];
    g[k] = p[6][k] - p[4][k] - p[2][k] + p[0][k];
    h[k] = p[7][k] - p[6][k] - p[5][k] - p[3][k] + p[4][k] + p[2][k] + p[1][k] - p[0][k];
  }
  const double r = 0.5 / std::sqrt(3.0);
  const double gp[2] = {0.5 - r, 0.5 + r};
  double v = 0.0;
  for (double w : gp)
    for (double t : gp)
      for (double u : gp) {
        double ju[3], jv[3], jw[3];
        for (int k = 0; k < 3; k++) {
          ju[k] = b[k] + e[k] * t + f[k] * w + h[k] * t * w;
          jv[k] = c[k] + e[k] * u + g[k] * w + h[k] * u * w;
          jw[k] = d[k] + f[k] * u + g[k] * t + h[k] * u * t;
        }
        v += ju[0] * (jv[1] * jw[2] - jv[2] * jw[1]) - ju[1] * (jv[0] * jw[2] - jv[2] * jw[0]) +
             ju[2] * (jv[0] * jw[1] - jv[1] * jw[0]);
      }
  return std::fabs(v) * 0.125;
}

double Hexahedron_Volume(const double *x, const double *y, const double *z) {
  // Block corner c sits at local (u, v, w) = block_uvw[c].
  static const int order[8] = {0, 3, 1, 2, 4, 7, 5, 6}; // local index -> block corner
  double p[8][3];
  for (int c = 0; c < 8; c++) {
    const int b = order[c];
    p[c][0] = x[b];
    p[c][1] = y[b];
    p[c][2] = z[b];
  }
  return Trilinear_Volume(p);
}

double Survey_Depth(const Data_Set &ds, int depth_method) {
  // Normalised lengths. "Use maximum array length": a fifth of the longest
  // spread of any data point. "Use median depth of investigation": the
  // deepest of the points' median depths of investigation, 0.17 of each
  // point's spread below the mean depth of its electrodes. Either way the
  // model reaches below the deepest electrode.
  double depth = 0.0;
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    const double *e[4] = {d.c1, d.p1, d.p2, d.c2};
    const int n = d.nelec < 2 ? 2 : d.nelec > 4 ? 4 : d.nelec;
    double spread = 0.0, mean = 0.0;
    for (int a = 0; a < n; a++) {
      mean += e[a][2];
      for (int b = a + 1; b < n; b++)
        spread = std::max(spread, static_cast<double>(Horizontal_Distance(e[a], e[b])));
    }
    const double z = depth_method == 0 ? 0.2 * spread : 0.17 * spread + mean / n;
    depth = std::max(depth, z);
  }
  for (int e = 0; e < ds.num_point_elecs; e++)
    depth = std::max(depth, 1.1 * ds.pe[e].depth);
  return depth;
}

int Model_Grid::Set_Model_Layers(Data_Set &ds, int zsize, int nmodel_max_in) {
  nmodel_max = nmodel_max_in;
  zsize = std::min(zsize, zbl_capacity);
  double t;
  zbl[0] = 0.0f;
  if (user_depths && nlayers_user > 0) {
    nlayers = std::min(nlayers_user, zbl_capacity - 1);
    for (int i = 1; i <= nlayers; i++)
      zbl[i] = static_cast<float>(depth_user[i - 1] / ds.spxx);
    t = zbl[nlayers] - zbl[nlayers - 1];
  } else {
    t = thick1;
    for (int i = 1; i < zbl_generated; i++) {
      zbl[i] = static_cast<float>(zbl[i - 1] + t);
      t *= thickinc;
    }
    const double limit = scaledepth * psdepthmax;
    nlayers = 1;
    bool floor = false;
    for (int i = 1; i < zbl_generated - 1; i++) {
      if (!(limit > zbl[i]))
        break;
      if (tank_limit && !(tank_depth - 0.01 > zbl[i + 1])) {
        zbl[i] = static_cast<float>(tank_depth);
        floor = true;
        break;
      }
      nlayers++;
    }
    // A tank's floor is the model's bottom: no layer goes below it.
    if (psdepthmax > 1.02 && !floor)
      nlayers++;
    nlayers = std::min(nlayers, zbl_generated - 1);
    // t carries on from the last layer (the generated one where a tank's
    // floor cut the last layer short).
    t = std::max(zbl[nlayers] - zbl[nlayers - 1], zbl[nlayers + 1] - zbl[nlayers]);
  }
  for (int i = nlayers + 1; i <= zsize; i++) {
    zbl[i] = static_cast<float>(zbl[i - 1] + t);
    t *= buffer_rate;
  }
  nblockx = ngridx - 1;
  nblocky = ngridy - 1;
  const int64_t nm = static_cast<int64_t>(nblockx) * nblocky * nlayers;
  nmodel_blocks = static_cast<int>(std::min<int64_t>(nm, INT32_MAX));
  if (nm > nmodel_max) {
    const int fit = nblockx * nblocky > 0 ? nmodel_max / (nblockx * nblocky) : 0;
    Refuse_Always(ds, "Model Error",
                  "Too many model parameters at %d.\nMaximum allowed is %d.\nYou need to reduce "
                  "the number of layers to %d.\n",
                  nmodel_blocks, nmodel_max, fit);
    return 1;
  }
  if (blocks.size() < nm + 1 || blocks_topo.size() < nm + 1) {
    if (blocks.Resize(ds, nm + 1, "model blocks") || blocks_topo.Resize(ds, nm + 1, "model blocks"))
      return 1;
  }
  for (int k = 1; k <= nlayers; k++) {
    layer_nblockx[k] = nblockx;
    layer_nblocky[k] = nblocky;
    for (int j = 1; j <= nblocky; j++)
      for (int i = 1; i <= nblockx; i++) {
        Model_Block &b = blocks[Block_Number(i, j, k) - 1];
        const float xl = static_cast<float>(xgrid[i - 1]), xr = static_cast<float>(xgrid[i]);
        const float yl = static_cast<float>(ygrid[j - 1]), yh = static_cast<float>(ygrid[j]);
        const float xs[4] = {xl, xl, xr, xr}, ys[4] = {yl, yh, yh, yl};
        for (int c = 0; c < 4; c++) {
          b.x[c] = b.x[c + 4] = xs[c];
          b.y[c] = b.y[c + 4] = ys[c];
          b.z[c] = zbl[k - 1];
          b.z[c + 4] = zbl[k];
        }
      }
  }
  std::copy(blocks.data(), blocks.data() + nm, blocks_topo.data());
  TRACE("Set_Model_Layers nlayers %d psdepthmax %.3f nmodel_blocks %d zbl last %.3f\n", nlayers,
        psdepthmax, nmodel_blocks, zbl[nlayers]);
  return 0;
}

void Model_Grid::Calculate_Blocks_Centers() {
  Model_Block *arrays[2] = {blocks.data(), blocks_topo.data()};
  const int n = nmodel_blocks;
  for (Model_Block *a : arrays) {
#pragma omp parallel for schedule(static)
    for (int m = 0; m < n; m++) {
      Model_Block &b = a[m];
      float sx = 0, sy = 0, sz = 0;
      for (int c = 0; c < 8; c++) {
        sx += b.x[c];
        sy += b.y[c];
        sz += b.z[c];
      }
      b.xc = 0.125f * sx;
      b.yc = 0.125f * sy;
      b.zc = 0.125f * sz;
      b.vol = std::fabs(b.x[0] - b.x[6]) * std::fabs(b.y[0] - b.y[6]) * std::fabs(b.z[0] - b.z[6]);
    }
  }
}

void Model_Grid::Calculate_Blocks_Volumes(int mesh_setting) {
  const int widen = mesh_setting == 1 ? nodes_per_unit_spacing : 1;
  double previous = 1.0;
  for (int m = 0; m < nmodel_blocks; m++) {
    Model_Block &b = blocks[m];
    int x1 = b.nx1, x2 = b.nx2, y1 = b.ny1, y2 = b.ny2, z1 = b.nz1, z2 = b.nz2;
    if (z2 >= lz - 1)
      z2 = lz - 2;
    if (x1 < 2)
      x1 = 1 + 2 * widen;
    if (y1 < 2)
      y1 = 1 + 2 * widen;
    if (x2 >= lx - 1)
      x2 = lx - 1 - widen;
    if (y2 >= ly - 1)
      y2 = ly - 1 - widen;
    const int is[8] = {x1, x1, x2, x2, x1, x1, x2, x2};
    const int js[8] = {y1, y2, y2, y1, y1, y2, y2, y1};
    const int ks[8] = {z1, z1, z1, z1, z2, z2, z2, z2};
    double cx[8], cy[8], cz[8];
    for (int c = 0; c < 8; c++) {
      const int64_t node = Node(is[c], js[c], ks[c] + nwater);
      cx[c] = xn[node];
      cy[c] = yn[node];
      cz[c] = zn[node];
    }
    double v = Hexahedron_Volume(cx, cy, cz);
    // A collapsed block before (volume 0) sets no bound.
    if (previous > 0.0 && v / previous > 10000.0)
      v = previous * 10000.0;
    b.vol_mesh = static_cast<float>(v);
    blocks_topo[m].vol_mesh = b.vol_mesh;
    previous = v;
    if (m == 0) {
      vol_min = vol_max = v;
    } else if (v > 1e-6) {
      vol_min = std::min(vol_min, v);
      vol_max = std::max(vol_max, v);
    }
  }
}

void Model_Grid::Set_Model_Blocks_Volumes_And_Mesh_Limits() {
  // Z nodes of each layer, from 1 with the water nodes: the first layer takes
  // 2, 2, 3 or 4 spacings by the vertical setting, the others 1 to 4.
  const int s = std::clamp(nodes_per_layer_setting, 0, 3);
  const int first = s <= 1 ? 2 : s + 1;
  const int step = s + 1;
  layer_nz1[1] = nwater + 1;
  layer_nz2[1] = nwater + 1 + first;
  for (int k = 2; k <= nlayers; k++) {
    layer_nz1[k] = layer_nz2[k - 1];
    layer_nz2[k] = layer_nz1[k] + step;
  }
  zn_last_layer = layer_nz2[nlayers] - nwater;
  layer_nz2[nlayers] = lz + nwater;
  const int npu = nodes_per_unit_spacing;
  for (int k = 1; k <= nlayers; k++)
    for (int j = 1; j <= nblocky; j++)
      for (int i = 1; i <= nblockx; i++) {
        const int m = Block_Number(i, j, k) - 1;
        for (Model_Block *b : {&blocks[m], &blocks_topo[m]}) {
          b->nx1 = ixfirst + (i - 1) * npu;
          b->nx2 = ixfirst + i * npu;
          b->ny1 = jyfirst + (j - 1) * npu;
          b->ny2 = jyfirst + j * npu;
          b->nz1 = layer_nz1[k] - nwater;
          b->nz2 = layer_nz2[k] - nwater;
        }
      }
  Calculate_Blocks_Volumes(0);
}
