// Electrodes on the mesh: each electrode (or dipole) spreads its current, and
// reads its potential, over a short weighted list of nodes.
#include <algorithm>
#include <cmath>
#include <unordered_map>
#include <vector>

#include "core/data_set.h"
#include "core/trace.h"
#include "forward/element_matrices.h"
#include "forward/forward.h"
#include "survey/survey_text.h"

namespace {

// Plan line positions of the main mesh before any nudging, and the flat
// depths of its z levels (without water).
struct Lines {
  std::vector<double> x, y, z;
  explicit Lines(const Model_Grid &g) : x(g.lx), y(g.ly), z(g.lz) {
    const double ox = g.xgrid[0] - g.xmesh[g.ixfirst - 1];
    const double oy = g.ygrid[0] - g.ymesh[g.jyfirst - 1];
    for (int i = 0; i < g.lx; i++)
      x[i] = g.xmesh[i] + ox;
    for (int j = 0; j < g.ly; j++)
      y[j] = g.ymesh[j] + oy;
    for (int k = 0; k < g.lz; k++)
      z[k] = g.zmesh[k];
  }
};

int Nearest(const std::vector<double> &v, double p) {
  const int n = static_cast<int>(v.size());
  int i = static_cast<int>(std::lower_bound(v.begin(), v.end(), p) - v.begin());
  if (i >= n)
    return n - 1;
  if (i > 0 && p - v[i - 1] < v[i] - p)
    i--;
  return i;
}

// The neighbour on the side of the offset d, and the fraction of the way to it.
void Side(const std::vector<double> &v, int i, double d, int &i2, double &f) {
  const int n = static_cast<int>(v.size());
  i2 = d >= 0.0 ? i + 1 : i - 1;
  if (i2 < 0 || i2 >= n || d == 0.0) {
    i2 = i;
    f = 0.0;
    return;
  }
  f = d / (v[i2] - v[i]);
}

void Keep_Weights(Electrode_Nodes &en, const int *node, const double *w, int count) {
  double sum = 0.0;
  en.ni = 0;
  for (int c = 0; c < count; c++)
    if (w[c] > 0.0001) {
      en.elec_int[en.ni] = node[c];
      en.w[en.ni] = static_cast<float>(w[c]);
      sum += w[c];
      en.ni++;
    }
  for (int c = 0; c < en.ni; c++)
    en.w[c] = static_cast<float>(en.w[c] / sum);
}

// Nodes and weights of one electrode, with the mesh's lines taken once.
// With `nudged` the nearest node stands on the electrode (Nudge_Surface_Nodes).
void Electrode_Nodes_On(const Model_Grid &g, const Lines &lines, double x, double y, double depth,
                        bool surface, int floating, bool nudged, Electrode_Nodes &en) {
  const int i = Nearest(lines.x, x), j = Nearest(lines.y, y);
  const double dx = x - lines.x[i], dy = y - lines.y[j];
  const std::vector<double> &zl = lines.z;
  const int k = surface ? 0 : Nearest(zl, depth);
  const double dz = surface ? 0.0 : depth - zl[k];
  const int kw = floating && surface ? 0 : g.nwater; // level of depth 0
  auto node = [&](int a, int b, int c) {
    return static_cast<int>(g.Node(a + 1, b + 1, c + kw + 1)) + 1;
  };
  en.ni = 0;
  const double d2 = dx * dx + dy * dy + dz * dz;
  if (nudged || (surface ? d2 == 0.0 : d2 <= 0.001)) {
    en.ni = 1;
    en.elec_int[0] = node(i, j, k);
    en.w[0] = 1.0f;
    return;
  }
  int i2, j2, k2;
  double fx, fy, fz;
  Side(lines.x, i, dx, i2, fx);
  Side(lines.y, j, dy, j2, fy);
  const double plan[4] = {(1 - fx) * (1 - fy), fy * (1 - fx), fx * fy, fx * (1 - fy)};
  const int pi[4] = {i, i, i2, i2}, pj[4] = {j, j2, j2, j};
  int nodes[8];
  double w[8];
  if (surface) {
    TRACE(fx > 0.0 && fy > 0.0 ? "4 nodes\n" : fx > 0.0 ? "2 nodes x\n" : "2 nodes y\n");
    for (int c = 0; c < 4; c++) {
      nodes[c] = node(pi[c], pj[c], k);
      w[c] = plan[c];
    }
    Keep_Weights(en, nodes, w, 4);
    return;
  }
  Side(zl, k, dz, k2, fz);
  const double a = std::fabs(dz), b = std::fabs(depth - zl[k2]);
  const double up = k2 == k ? 1.0 : b / (a + b), down = k2 == k ? 0.0 : a / (a + b);
  for (int c = 0; c < 4; c++) {
    nodes[c] = node(pi[c], pj[c], k);
    w[c] = plan[c] * up;
    nodes[c + 4] = node(pi[c], pj[c], k2);
    w[c + 4] = plan[c] * down;
  }
  Keep_Weights(en, nodes, w, 8);
}

} // namespace

void Point_Electrode_Nodes(const Model_Grid &g, double x, double y, double depth, bool surface,
                           int floating, Electrode_Nodes &en) {
  Electrode_Nodes_On(g, Lines(g), x, y, depth, surface, floating, false, en);
}

namespace {

// An electrode whose lattice nodes are not all nodes of the solved mesh (a
// buried electrode inside the coarser blocks of the adaptive mesh): its
// position from the lattice weights, then the weights of the nodes of the
// solved element that holds it. False when no element holds it.
bool Weights_In_Solved_Mesh(const Data_Set &ds, Electrode_Nodes &en) {
  const Model_Grid &g = ds.Model_grid;
  const SemiStructured &ss = ds.Semistructured;
  double q[3] = {0.0, 0.0, 0.0};
  for (int c = 0; c < en.ni; c++) {
    const int64_t m = en.elec_int[c] - 1;
    q[0] += en.w[c] * g.xn[m];
    q[1] += en.w[c] * g.yn[m];
    q[2] += en.w[c] * g.zn[m];
  }
  for (int64_t e = 0; e < ss.number_elements; e++) {
    const Element &el = ss.elements[e];
    if (el.nnodes != 4 && el.nnodes != 8)
      continue;
    double p[8][3], lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
    for (int c = 0; c < el.nnodes; c++) {
      const int64_t m = ss.node_ss_to_main0[el.node[c] - 1];
      p[c][0] = g.xn[m], p[c][1] = g.yn[m], p[c][2] = g.zn[m];
      for (int d = 0; d < 3; d++)
        lo[d] = std::min(lo[d], p[c][d]), hi[d] = std::max(hi[d], p[c][d]);
    }
    const double tol = 1e-6 * (hi[0] - lo[0] + hi[1] - lo[1] + hi[2] - lo[2]);
    if (q[0] < lo[0] - tol || q[0] > hi[0] + tol || q[1] < lo[1] - tol || q[1] > hi[1] + tol ||
        q[2] < lo[2] - tol || q[2] > hi[2] + tol)
      continue;
    double w[8];
    if (!(el.nnodes == 4 ? Tet_Point_Weights(p, q, w) : Hex_Point_Weights(p, q, w)))
      continue;
    int nodes[8];
    for (int c = 0; c < el.nnodes; c++)
      nodes[c] = ss.node_ss_to_main0[el.node[c] - 1] + 1;
    Keep_Weights(en, nodes, w, el.nnodes);
    return true;
  }
  return false;
}

} // namespace

int set_elec_positions_node_semistructured(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  const SemiStructured &ss = ds.Semistructured;
  const bool dip = ds.use_dipoles_fem == 1;
  Electrode_Nodes *list = dip ? fem.dip.data() : fem.en.data();
  const int count = dip ? fem.ndipoles : ds.num_point_elecs;
  for (int e = 0; e < count; e++) {
    Electrode_Nodes &en = list[e];
    const auto solved = [&ss](int64_t main) {
      return main >= 0 && main < ss.number_nodes_main ? ss.node_main_ss[main] : -1;
    };
    bool all = true;
    for (int c = 0; c < en.ni; c++)
      all = all && solved(en.elec_int[c] - 1) >= 1;
    if (!all && !dip && !Weights_In_Solved_Mesh(ds, en))
      return Refuse_Always(ds, "Message", "Electrode %d lies in no element of the mesh", e + 1);
    for (int c = 0; c < en.ni; c++) {
      const int s = solved(en.elec_int[c] - 1);
      if (s < 1 || s > ss.number_nodes_ss)
        return Refuse_Always(
            ds, "Message", "Error A in mapping nodes for electrode %d for node point %d out of %d!",
            e + 1, c + 1, en.ni);
      en.elec_int_ss[c] = s;
    }
  }
  return 0;
}

int Check_Number_Dipoles_Data_Set(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  const int m = ds.mdata;
  if (fem.datum_dipole.Resize(ds, 2 * static_cast<int64_t>(m), "datum dipoles"))
    return 1;
  std::unordered_map<int64_t, int> index;
  std::vector<std::pair<int, int>> pairs;
  auto find = [&](int a, int b) {
    const int64_t key = static_cast<int64_t>(a) * (1LL << 32) + (b + 1);
    auto it = index.find(key);
    if (it != index.end())
      return it->second;
    pairs.push_back({a, b});
    index.emplace(key, static_cast<int>(pairs.size()));
    return static_cast<int>(pairs.size());
  };
  for (int i = 0; i < m; i++) {
    const Data_Point &d = ds.dp[i];
    fem.datum_dipole[2 * i] = find(d.nc1, d.nelec == 4 ? d.nc2 : -1);
    fem.datum_dipole[2 * i + 1] = find(d.np1, d.nelec > 2 ? d.np2 : -1);
  }
  fem.ndipoles = static_cast<int>(pairs.size());
  if (fem.dip.Resize(ds, fem.ndipoles, "dipole nodes"))
    return 1;
  for (int k = 0; k < fem.ndipoles; k++) {
    Electrode_Nodes &dn = fem.dip[k];
    dn.e1 = pairs[k].first;
    dn.e2 = pairs[k].second;
    const Electrode_Nodes &a = fem.en[dn.e1];
    dn.ni = a.ni;
    std::copy(a.elec_int, a.elec_int + a.ni, dn.elec_int);
    std::copy(a.w, a.w + a.ni, dn.w);
    if (dn.e2 < 0)
      continue;
    const Electrode_Nodes &b = fem.en[dn.e2];
    for (int c = 0; c < b.ni; c++) {
      int *hit = std::find(dn.elec_int, dn.elec_int + dn.ni, b.elec_int[c]);
      if (hit != dn.elec_int + dn.ni) {
        dn.w[hit - dn.elec_int] -= b.w[c];
      } else if (dn.ni < max_elec_nodes) {
        dn.elec_int[dn.ni] = b.elec_int[c];
        dn.w[dn.ni++] = -b.w[c];
      }
    }
  }
  TRACE("Check_Number_Dipoles_Data_Set dipoles %d\n", fem.ndipoles);
  return 0;
}

int Set_Electrode_Nodes(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  const Model_Grid &g = ds.Model_grid;
  const int ne = ds.num_point_elecs;
  if (fem.en.Resize(ds, std::max(ne, 1), "electrode nodes"))
    return 1;
  const int floating = ds.water.kind == 3;
  const bool nudged = fem.nudge_point_elec == 1;
  const Lines lines(g);
#pragma omp parallel for schedule(static)
  for (int e = 0; e < ne; e++) {
    const Point_Electrode &p = ds.pe[e];
    Electrode_Nodes &en = fem.en[e];
    en = Electrode_Nodes();
    en.e1 = e;
    if (p.used > 0)
      Electrode_Nodes_On(g, lines, p.x, p.y, p.depth, p.depth <= 0.0, floating, nudged, en);
  }
  fem.nelec = ne;
  if (ds.use_dipoles_fem == 1) {
    if (Check_Number_Dipoles_Data_Set(ds))
      return 1;
    fem.nelec = fem.ndipoles;
  }
  return set_elec_positions_node_semistructured(ds);
}

namespace {

// The node each used electrode is nudged onto: its nearest column (i, j)
// and, for a buried electrode, its nearest level k (below the ground's
// surface, from 0); k is -1 at the surface and i is -1 for unused electrodes.
struct Nudge_Target {
  int i = -1, j = -1, k = -1;
};

std::vector<Nudge_Target> Nudge_Targets(const Data_Set &ds, const Lines &lines) {
  std::vector<Nudge_Target> t(ds.num_point_elecs);
  for (int e = 0; e < ds.num_point_elecs; e++) {
    const Point_Electrode &p = ds.pe[e];
    if (p.used <= 0)
      continue;
    t[e].i = Nearest(lines.x, p.x);
    t[e].j = Nearest(lines.y, p.y);
    t[e].k = p.depth > 0.0 ? Nearest(lines.z, p.depth) : -1;
  }
  return t;
}

// An electrode on its node to the rounding of the summed spacings (single
// precision) moves nothing.
bool On_Its_Node(double nx, double ny, double x, double y) {
  return std::hypot(x - nx, y - ny) <= 1e-5 * (std::fabs(nx) + std::fabs(ny) + 1.0);
}

} // namespace

void Shift_Nearest_Surface_Node(const Model_Grid &g, Plan_Moves &m, int i, int j, double x,
                                double y) {
  const int64_t c = i + static_cast<int64_t>(j) * g.lx;
  const double sx = x - g.sx[c], sy = y - g.sy[c];
  m.weight[c] = 2.0f;
  if (On_Its_Node(g.sx[c], g.sy[c], x, y))
    return;
  auto move = [&](int a, int b, float f) {
    if (a < 0 || b < 0 || a >= g.lx || b >= g.ly)
      return;
    const int64_t k = a + static_cast<int64_t>(b) * g.lx;
    // A neighbour of two nudged nodes follows the nearer (side before
    // diagonal); nudged nodes are not moved as neighbours.
    if (m.weight[k] >= f)
      return;
    m.weight[k] = f;
    m.x[k] = static_cast<float>(g.sx[k] + f * sx);
    m.y[k] = static_cast<float>(g.sy[k] + f * sy);
  };
  constexpr float side = 0.725f, diagonal = 0.725f * 0.725f;
  move(i, j - 1, side);
  move(i - 1, j, side);
  move(i, j + 1, side);
  move(i + 1, j, side);
  move(i - 1, j - 1, diagonal);
  move(i + 1, j - 1, diagonal);
  move(i - 1, j + 1, diagonal);
  move(i + 1, j + 1, diagonal);
}

int Check_Two_Electrodes_Nudge_Same_Node_Nearest_Surface(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  if (fem.nudge_point_elec != 1)
    return 0;
  const Lines lines(ds.Model_grid);
  const std::vector<Nudge_Target> t = Nudge_Targets(ds, lines);
  // Electrodes that share a column must stand on one vertical (a borehole)
  // at different levels; any other sharing leaves no node for one of them.
  std::vector<int> order;
  for (int e = 0; e < ds.num_point_elecs; e++)
    if (t[e].i >= 0)
      order.push_back(e);
  std::sort(order.begin(), order.end(),
            [&](int a, int b) { return t[a].i != t[b].i ? t[a].i < t[b].i : t[a].j < t[b].j; });
  std::vector<uint8_t> close(ds.num_point_elecs, 0);
  const double tol = 1e-3 * std::min(lines.x[1] - lines.x[0], lines.y[1] - lines.y[0]);
  for (size_t p = 0; p < order.size(); p++)
    for (size_t q = p + 1; q < order.size(); q++) {
      const int a = order[p], b = order[q];
      if (t[a].i != t[b].i || t[a].j != t[b].j)
        break;
      const Point_Electrode &ea = ds.pe[a], &eb = ds.pe[b];
      if (t[a].k == t[b].k || std::hypot(ea.x - eb.x, ea.y - eb.y) > tol)
        close[a] = close[b] = 1;
    }
  const int count = static_cast<int>(std::count(close.begin(), close.end(), 1));
  if (count > 0) {
    Refuse_Always(ds, "Message",
                  "Number of electrodes with same nearest node is %d.Option to nudge nearest node "
                  "cannot be used\n",
                  count);
    fem.nudge_point_elec = 0;
    return 1;
  }
  return 0;
}

void Nudge_Surface_Nodes(Data_Set &ds) {
  if (ds.Fem.nudge_point_elec != 1 || Check_Two_Electrodes_Nudge_Same_Node_Nearest_Surface(ds))
    return;
  Model_Grid &g = ds.Model_grid;
  const Lines lines(g);
  const std::vector<Nudge_Target> t = Nudge_Targets(ds, lines);
  // The moves are gathered from the surface positions as they stand, then
  // copied to them: the nudged nodes last.
  Plan_Moves m;
  m.x.assign(g.sx.data(), g.sx.data() + g.lxy);
  m.y.assign(g.sy.data(), g.sy.data() + g.lxy);
  m.weight.assign(static_cast<size_t>(g.lxy), 0.0f);
  for (int e = 0; e < ds.num_point_elecs; e++)
    if (t[e].i >= 0)
      Shift_Nearest_Surface_Node(g, m, t[e].i, t[e].j, ds.pe[e].x, ds.pe[e].y);
  std::copy(m.x.begin(), m.x.end(), g.sx.data());
  std::copy(m.y.begin(), m.y.end(), g.sy.data());
  for (int e = 0; e < ds.num_point_elecs; e++)
    if (t[e].i >= 0) {
      const int64_t c = t[e].i + static_cast<int64_t>(t[e].j) * g.lx;
      if (On_Its_Node(g.sx[c], g.sy[c], ds.pe[e].x, ds.pe[e].y))
        continue;
      g.sx[c] = static_cast<float>(ds.pe[e].x);
      g.sy[c] = static_cast<float>(ds.pe[e].y);
    }
}

void Nudge_Buried_Nodes(Data_Set &ds) {
  if (ds.Fem.nudge_point_elec != 1)
    return;
  Model_Grid &g = ds.Model_grid;
  const Lines lines(g);
  const std::vector<Nudge_Target> t = Nudge_Targets(ds, lines);
  for (int e = 0; e < ds.num_point_elecs; e++) {
    if (t[e].i < 0 || t[e].k < 0)
      continue;
    const int64_t c = t[e].i + static_cast<int64_t>(t[e].j) * g.lx;
    g.zn[(g.nwater + t[e].k) * g.lxy + c] =
        static_cast<float>(g.Column_Depth(ds, c, ds.pe[e].depth));
  }
}
