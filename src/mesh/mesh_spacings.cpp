// Node counts and spacings of the main mesh in x, y and z.
#include <algorithm>
#include <cmath>
#include <vector>

#include "core/data_set.h"
#include "core/trace.h"
#include "mesh/mesh.h"
#include "survey/survey_text.h"

namespace {

int Nodes_Along(int first, int ngrid, int npu) {
  return 2 * first - 1 + (ngrid - 1) * npu;
}

} // namespace

void Model_Grid::Check_Buffer_Nodes_XY(const Data_Set &ds) {
  // The buffer keeps its dialog range; a plan too large for one mesh layer
  // gives up buffer nodes, down to 6 a side, until the layer fits.
  nbuffer_xy = std::clamp(nbuffer_xy, 10, 22);
  ixfirst_base = jyfirst_base = nbuffer_xy + 1;
  const int64_t limit =
      ds.Data_lim_sys.nmax_xy_nodes > 0
          ? static_cast<int64_t>(ds.Data_lim_sys.nmax_xy_nodes) * ds.Data_lim_sys.nmax_xy_nodes
          : 0;
  if (limit <= 0 || ngridx < 2 || ngridy < 2)
    return;
  const int npu = nodes_per_unit_spacing;
  while (ixfirst_base > 7 && static_cast<int64_t>(Nodes_Along(ixfirst_base, ngridx, npu)) *
                                     Nodes_Along(jyfirst_base, ngridy, npu) >
                                 limit) {
    ixfirst_base--;
    jyfirst_base--;
  }
}

void Model_Grid::setlz(const Data_Set &ds) {
  const int s = std::clamp(nodes_per_layer_setting, 0, 3);
  int base = nbuffer_bottom;
  const int so_far = (s == 0 ? 1 : s + 1) * nlayers;
  base += 2 * s;
  nbot_buf = base;
  if (nodes_per_unit_spacing == 4)
    nbot_buf++;
  if (ds.tank.present) {
    const double d = tank_depth, z = zbl[nlayers];
    for (double f : {1.2, 1.4, 1.6, 1.8, 2.0})
      nbot_buf += d > f * z;
  }
  lz = so_far + nbot_buf;
  lx = Nodes_Along(ixfirst, ngridx, nodes_per_unit_spacing);
  ly = Nodes_Along(jyfirst, ngridy, nodes_per_unit_spacing);
  double depth = zbl[nlayers];
  double step = zbl[nlayers] - zbl[nlayers - 1];
  for (int i = 0; i < nbot_buf; i++) {
    depth += step;
    step *= rate;
  }
  if (nbot_buf < 1 && !ds.tank.present) {
    const double target = (ds.elec_xmax - ds.elec_xmin) * scaledepth;
    for (int round = 0; round < 25 && depth < target; round++) {
      lz++;
      nbot_buf++;
      depth += step;
      step *= rate;
    }
    lz--;
    nbot_buf--;
  }
  total_depth = depth;
  lzw = lz + nwater;
  lz1 = lz - 1;
}

int Model_Grid::Set_Mesh_For_Point_Electrodes(Data_Set &ds) {
  TRACE("Set mesh for point electrodes\n");
  if (!ds.tank.present) {
    ixfirst = ixfirst_base;
    jyfirst = jyfirst_base;
    rate = buffer_rate;
    spac_buffer = spac_buffer_base;
  } else {
    ixfirst = jyfirst = tank_buffer;
    rate = tank_rate;
  }
  lx = Nodes_Along(ixfirst, ngridx, nodes_per_unit_spacing);
  ly = Nodes_Along(jyfirst, ngridy, nodes_per_unit_spacing);
  lx1 = lx - 1;
  ly1 = ly - 1;
  const int64_t layer = static_cast<int64_t>(lx) * ly;
  if (layer > max_layer_nodes) {
    Refuse_Always(ds, "Model Data Error",
                  "Mesh grid size is too large!\nNumber of nodes in x direction is %d.\nNumber of "
                  "nodes in x direction is %d.\nTotal number of nodes in one mesh layer is "
                  "%lld\nThis is more than the maximum allowed of %lld.",
                  lx, ly, static_cast<long long>(layer), static_cast<long long>(max_layer_nodes));
    return 1;
  }
  lxy = static_cast<int>(layer);
  lxy1 = lx1 * ly1;
  return 0;
}

namespace {

// Spacings along one direction: `npu` equal spacings a cell, then the
// buffers grown outward from the first and last interior spacing.
void Fill_Spacings(float *del, int n, const double *lines, int ngrid, int first, int npu,
                   double rate, double cap, bool tank) {
  for (int c = 0; c + 1 < ngrid; c++) {
    const float q = static_cast<float>((lines[c + 1] - lines[c]) / npu);
    for (int k = 0; k < npu; k++)
      del[c * npu + first - 1 + k] = q;
  }
  auto grow = [&](double s, int i) {
    if (!tank || i > 2)
      s = std::min(cap, s * rate);
    return s;
  };
  double s = del[first - 1];
  for (int i = 1; i <= first - 1; i++) {
    s = grow(s, i);
    del[first - 1 - i] = static_cast<float>(s);
  }
  s = del[n - first];
  for (int i = 1; i <= first - 1; i++) {
    s = grow(s, i);
    del[n - first + i] = static_cast<float>(s);
  }
}

} // namespace

int Model_Grid::Set_Mesh_Spacings_Rectangular_Grid(Data_Set &ds, int use_dense_rect_mesh) {
  (void)use_dense_rect_mesh; // both forms share the main mesh's spacings
  double w = 1e30;
  for (int i = 0; i + 1 < ngridx; i++)
    w = std::min(w, xgrid[i + 1] - xgrid[i]);
  for (int j = 0; j + 1 < ngridy; j++)
    w = std::min(w, ygrid[j + 1] - ygrid[j]);
  min_cell_width = w;
  spac_buffer = w * 1200.0 / nodes_per_unit_spacing;
  if (spac_buffer > 2.0 * spac_buffer_base)
    spac_buffer = 2.0 * spac_buffer_base;
  if (delx.Resize(ds, lx, "mesh x spacings") || dely.Resize(ds, ly, "mesh y spacings"))
    return 1;
  const bool tank = ds.tank.present != 0;
  Fill_Spacings(delx.data(), lx - 1, xgrid, ngridx, ixfirst, nodes_per_unit_spacing, rate,
                spac_buffer, tank);
  Fill_Spacings(dely.data(), ly - 1, ygrid, ngridy, jyfirst, nodes_per_unit_spacing, rate,
                spac_buffer, tank);
  return 0;
}

void Model_Grid::Set_delz() {
  float *d = delz.data();
  int n = 0;
  const int s = std::clamp(nodes_per_layer_setting, 0, 3);
  if (!fixed_division) {
    const float t = zbl[1];
    if (s <= 1) {
      // The pair sums to t; the upper spacing is the smaller.
      d[n++] = 0.3f * t / 0.7f;
      d[n++] = 0.4f * t / 0.7f;
    } else {
      for (int k = 0; k <= s; k++)
        d[n++] = s == 2 ? t / 3.0f : 0.25f * t;
    }
    for (int k = 2; k <= nlayers; k++) {
      const float th = zbl[k] - zbl[k - 1];
      if (s == 0) {
        d[n++] = th;
      } else {
        const float q = th / (s + 1);
        for (int m = 0; m < s; m++)
          d[n++] = q;
        d[n++] = th - s * q;
      }
    }
  } else {
    const int a = std::max(1, ndiv_first), b = std::max(1, ndiv_other);
    for (int m = 0; m < a; m++)
      d[n++] = zbl[1] / a;
    for (int k = 2; k <= nlayers; k++)
      for (int m = 0; m < b; m++)
        d[n++] = (zbl[k] - zbl[k - 1]) / b;
  }
  const int layers_end = n;
  for (; n < lz - 1; n++) {
    const double grow = !fixed_division ? rate : (n - layers_end < 2 ? 1.25 : 1.45);
    d[n] = static_cast<float>(std::min(spac_buffer, d[n - 1] * grow));
  }
}

void Model_Grid::Adjust_Tank_Walls(const Data_Set &ds) {
  // A tank's walls become mesh lines: the buffer spacings between the wall's
  // nearest line and the grid are scaled so that the line falls on the wall.
  const Tank &t = ds.tank;
  auto fit = [](float *del, int n, int first, double lo_wall, double hi_wall, double grid0,
                double grid_last) {
    // Low side: lines 0 .. first-1, the first grid line at index first-1.
    double x = 0.0, best = 1e30;
    int m_best = -1;
    std::vector<double> pos(n + 1);
    pos[0] = 0.0;
    for (int i = 0; i < n; i++)
      pos[i + 1] = pos[i] + del[i];
    const double g0 = pos[first - 1];
    for (int m = 0; m < first - 1; m++) {
      x = g0 - pos[m];
      if (std::fabs(x - (grid0 - lo_wall)) < best) {
        best = std::fabs(x - (grid0 - lo_wall));
        m_best = m;
      }
    }
    if (m_best >= 0 && grid0 - lo_wall > 0.0) {
      const double f = (grid0 - lo_wall) / (g0 - pos[m_best]);
      for (int i = m_best; i < first - 1; i++)
        del[i] = static_cast<float>(del[i] * f);
    }
    // High side: the last grid line at index n - first + 1.
    const int gl = n - first + 1;
    const double glast = pos[gl];
    best = 1e30;
    m_best = -1;
    for (int m = gl + 1; m <= n; m++) {
      x = pos[m] - glast;
      if (std::fabs(x - (hi_wall - grid_last)) < best) {
        best = std::fabs(x - (hi_wall - grid_last));
        m_best = m;
      }
    }
    if (m_best >= 0 && hi_wall - grid_last > 0.0) {
      const double f = (hi_wall - grid_last) / (pos[m_best] - glast);
      for (int i = gl; i < m_best; i++)
        del[i] = static_cast<float>(del[i] * f);
    }
  };
  const double sp = ds.spxx;
  fit(delx.data(), lx - 1, ixfirst, (t.x1 - ds.xmin) / sp, (t.x2 - ds.xmin) / sp, xgrid[0],
      xgrid[ngridx - 1]);
  fit(dely.data(), ly - 1, jyfirst, (t.y1 - ds.ymin) / sp, (t.y2 - ds.ymin) / sp, ygrid[0],
      ygrid[ngridy - 1]);
}

void Model_Grid::Set_Mesh_XYZ() {
  xmesh[0] = ymesh[0] = zmesh[0] = 0.0f;
  for (int i = 1; i < lx; i++)
    xmesh[i] = xmesh[i - 1] + delx[i - 1];
  for (int j = 1; j < ly; j++)
    ymesh[j] = ymesh[j - 1] + dely[j - 1];
  for (int k = 1; k < lz; k++)
    zmesh[k] = zmesh[k - 1] + delz[k - 1];
}
