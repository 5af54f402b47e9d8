// Checks of the solved mesh: element volumes, shared faces (no cracks) and
// the z levels the parallel assembly relies on.
#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "core/data_set.h"
#include "mesh/mesh.h"

namespace {

// Six times the signed volumes of the tetrahedra of a tetrahedron or a
// pyramid element (a pyramid as two on its base's diagonal), from
// pos(corner, axis); returns how many (1 or 2).
template <class Pos> int Cell_Tet_Volumes6(const Element &el, Pos pos, double v6[2]) {
  static const int cut[2][4] = {{0, 1, 2, 4}, {0, 2, 3, 4}};
  const int nt = el.tet ? 1 : 2;
  for (int t = 0; t < nt; t++) {
    double p[4][3];
    for (int c = 0; c < 4; c++)
      for (int d = 0; d < 3; d++)
        p[c][d] = pos(el.tet ? c : cut[t][c], d);
    v6[t] = Tet_Volume6(p);
  }
  return nt;
}

} // namespace

double Element_Volume(const Data_Set &ds, int64_t e) {
  const SemiStructured &ss = ds.Semistructured;
  const Element &el = ss.elements[e];
  auto pos = [&ss](int node, int d) {
    const int s = node - 1;
    return static_cast<double>(d == 0 ? ss.xnodess[s] : d == 1 ? ss.ynodess[s] : ss.znodess[s]);
  };
  if (el.nnodes != 8) {
    double v6[2];
    const int nt = Cell_Tet_Volumes6(
        el, [&](int c, int d) { return pos(el.node[c], d); }, v6);
    return (std::fabs(v6[0]) + (nt > 1 ? std::fabs(v6[1]) : 0.0)) / 6.0;
  }
  double p[8][3];
  for (int c = 0; c < 8; c++)
    for (int d = 0; d < 3; d++)
      p[hex_local_corner[c]][d] = pos(el.node[c], d);
  return Trilinear_Volume(p);
}

namespace {

using Tri = std::array<int, 3>;
using Quad = std::array<int, 4>;

// Hexahedron faces by node positions in the element record.
const int hex_faces[6][4] = {{0, 1, 5, 4}, {3, 2, 6, 7}, {0, 1, 2, 3},
                             {4, 5, 6, 7}, {1, 2, 6, 5}, {0, 3, 7, 4}};

struct Main_Point {
  int i, j, k;
};

} // namespace

Mesh_Check Check_SemiStructured_Mesh(const Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  const SemiStructured &ss = ds.Semistructured;
  Mesh_Check r;
  r.vol_grid = ss.vol_grid;
  r.vol_elements = ss.vol_elements; // summed when the mesh was made
  auto main_of = [&](int node) {
    const int m = ss.node_ss_to_main0[node - 1];
    return Main_Point{m % g.lx, (m / g.lx) % g.ly, m / g.lxy};
  };
  std::vector<Tri> tris;
  std::vector<Quad> quads;
  for (int64_t e = 0; e < ss.number_elements; e++) {
    const Element &el = ss.elements[e];
    for (int c = 0; c < el.nnodes; c++) {
      const int k = main_of(el.node[c]).k;
      if (k != el.layer - 1 && k != el.layer)
        r.level_errors++;
    }
    if (el.tet) {
      for (int f = 0; f < 4; f++) {
        Tri t = {el.node[(f + 1) % 4], el.node[(f + 2) % 4], el.node[(f + 3) % 4]};
        std::sort(t.begin(), t.end());
        tris.push_back(t);
      }
    } else if (el.nnodes == 5) {
      Quad q = {el.node[0], el.node[1], el.node[2], el.node[3]};
      std::sort(q.begin(), q.end());
      quads.push_back(q);
      for (int f = 0; f < 4; f++) {
        Tri t = {el.node[f], el.node[(f + 1) % 4], el.node[4]};
        std::sort(t.begin(), t.end());
        tris.push_back(t);
      }
    } else {
      for (const auto &hf : hex_faces) {
        Quad q = {el.node[hf[0]], el.node[hf[1]], el.node[hf[2]], el.node[hf[3]]};
        std::sort(q.begin(), q.end());
        quads.push_back(q);
      }
    }
  }
  std::sort(tris.begin(), tris.end());
  std::sort(quads.begin(), quads.end());
  // A face on the outside has all its nodes on one side of the mesh.
  auto outside = [&](const int *nodes, int n) {
    bool side[6] = {true, true, true, true, true, true};
    for (int c = 0; c < n; c++) {
      const Main_Point p = main_of(nodes[c]);
      side[0] &= p.i == 0;
      side[1] &= p.i == g.lx - 1;
      side[2] &= p.j == 0;
      side[3] &= p.j == g.ly - 1;
      side[4] &= p.k == 0;
      side[5] &= p.k == g.lzw - 1;
    }
    return side[0] || side[1] || side[2] || side[3] || side[4] || side[5];
  };
  // Faces met once, grouped by their counts.
  std::vector<Tri> single_tris;
  for (size_t a = 0; a < tris.size();) {
    size_t b = a;
    while (b < tris.size() && tris[b] == tris[a])
      b++;
    if (b - a > 2)
      r.overshared_faces++;
    else if (b - a == 1)
      single_tris.push_back(tris[a]);
    a = b;
  }
  std::vector<Quad> single_quads;
  for (size_t a = 0; a < quads.size();) {
    size_t b = a;
    while (b < quads.size() && quads[b] == quads[a])
      b++;
    if (b - a > 2)
      r.overshared_faces++;
    else if (b - a == 1 && !outside(quads[a].data(), 4))
      single_quads.push_back(quads[a]);
    a = b;
  }
  // Each hexahedron face met once inside must be covered by two tetrahedron
  // faces made of its own nodes; each such triangle is then accounted for.
  std::vector<char> used(single_tris.size(), 0);
  for (const Quad &q : single_quads) {
    int found = 0;
    std::array<bool, 4> seen = {};
    for (int skip = 0; skip < 4; skip++) {
      Tri t;
      for (int c = 0, n = 0; c < 4; c++)
        if (c != skip)
          t[n++] = q[c];
      const auto it = std::lower_bound(single_tris.begin(), single_tris.end(), t);
      if (it != single_tris.end() && *it == t) {
        found++;
        used[it - single_tris.begin()] = 1;
        for (int c = 0; c < 4; c++)
          seen[c] = seen[c] || c != skip;
      }
    }
    if (found != 2 || !(seen[0] && seen[1] && seen[2] && seen[3]))
      r.open_hex_faces++;
  }
  for (size_t t = 0; t < single_tris.size(); t++)
    if (!used[t] && !outside(single_tris[t].data(), 3))
      r.open_tet_faces++;
  // Transition blocks: the volume their boundary encloses (the signed sum of
  // their tetrahedra) against the sum of the tetrahedra's volumes.
  for (int64_t e = 0; e < ss.number_elements;) {
    if (ss.elements[e].nnodes == 8) {
      e++;
      continue;
    }
    const int cell = ss.elements[e].cell, layer = ss.elements[e].layer;
    double signed_sum = 0.0, sum = 0.0;
    int64_t f = e;
    for (; f < ss.number_elements && ss.elements[f].nnodes != 8 && ss.elements[f].cell == cell &&
           ss.elements[f].layer == layer;
         f++) {
      const Element &el = ss.elements[f];
      double v6[2];
      const int nt = Cell_Tet_Volumes6(
          el,
          [&](int c, int d) {
            return static_cast<double>(d == 0 ? el.x[c] : d == 1 ? el.y[c] : el.z[c]);
          },
          v6);
      for (int t = 0; t < nt; t++) {
        signed_sum += v6[t];
        sum += std::fabs(v6[t]);
      }
    }
    r.bad_volumes += Tetrahedra_Folded(signed_sum, sum);
    e = f;
  }
  return r;
}
