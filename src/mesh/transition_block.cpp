// Transition blocks: the boundary triangles of a block's faces and the
// tetrahedra TetGen fills it with, once per distinct pattern.
#include "mesh/transition_block.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

#define TETLIBRARY
#include <tetgen.h>

#include "core/data_set.h"
#include "core/trace.h"
#include "mesh/mesh.h"
#include "survey/survey_text.h"

namespace {

void Add_Lattice(uint64_t &points, int span_x, int span_y, int c, int sx, int sy) {
  for (int b = 0; b <= span_y; b += sy)
    for (int a = 0; a <= span_x; a += sx)
      points |= uint64_t(1) << Lattice_Bit(a, b, c);
}

// One face in its own coordinates (u, v); Point() gives the lattice bit.
struct Face {
  int U, V;   // extent
  int su, sv; // tensor steps
  int kind;   // 0 top, 1 bottom, 2 low x, 3 high x, 4 low y, 5 high y
  int span_x, span_y;
  int Point(int u, int v) const {
    switch (kind) {
    case 0:
      return Lattice_Bit(u, v, 0);
    case 1:
      return Lattice_Bit(u, v, 1);
    case 2:
      return Lattice_Bit(0, u, v);
    case 3:
      return Lattice_Bit(span_x, u, v);
    case 4:
      return Lattice_Bit(u, 0, v);
    default:
      return Lattice_Bit(u, span_y, v);
    }
  }
};

struct UV {
  int u, v, bit;
};

long Cross(const UV &p, const UV &q, const UV &r) {
  return static_cast<long>(q.u - p.u) * (r.v - p.v) - static_cast<long>(q.v - p.v) * (r.u - p.u);
}

// Point q lies on the closed segment p-r (p, q, r collinear).
bool On_Segment(const UV &p, const UV &q, const UV &r) {
  return Cross(p, q, r) == 0 && std::min(p.u, r.u) <= q.u && q.u <= std::max(p.u, r.u) &&
         std::min(p.v, r.v) <= q.v && q.v <= std::max(p.v, r.v);
}

// Triangles of a convex polygon whose sides may hold extra points: corners
// are clipped one at a time, always the one of the lowest lattice bit among
// those whose cut neither is flat nor runs along a side through another
// point, so the result depends only on the points and not on which block
// asks.
void Clip_Polygon(std::vector<UV> poly, std::vector<std::array<unsigned char, 3>> &out) {
  while (poly.size() > 3) {
    const int n = static_cast<int>(poly.size());
    int best = -1;
    for (int i = 0; i < n; i++) {
      const UV &p = poly[(i + n - 1) % n], &q = poly[i], &r = poly[(i + 1) % n];
      if (Cross(p, q, r) == 0 || (best >= 0 && q.bit >= poly[best].bit))
        continue;
      bool clear = true;
      for (int j = 0; j < n && clear; j++)
        if (j != i && j != (i + n - 1) % n && j != (i + 1) % n && On_Segment(p, poly[j], r))
          clear = false;
      if (clear)
        best = i;
    }
    if (best < 0)
      return; // all points on one line: nothing to fill
    const int n1 = (best + n - 1) % n, n2 = (best + 1) % n;
    out.push_back({static_cast<unsigned char>(poly[n1].bit),
                   static_cast<unsigned char>(poly[best].bit),
                   static_cast<unsigned char>(poly[n2].bit)});
    poly.erase(poly.begin() + best);
  }
  if (poly.size() == 3 && Cross(poly[0], poly[1], poly[2]) != 0)
    out.push_back({static_cast<unsigned char>(poly[0].bit), static_cast<unsigned char>(poly[1].bit),
                   static_cast<unsigned char>(poly[2].bit)});
}

void Triangulate_Face(const Face &f, uint64_t points,
                      std::vector<std::array<unsigned char, 3>> &out) {
  for (int v0 = 0; v0 < f.V; v0 += f.sv)
    for (int u0 = 0; u0 < f.U; u0 += f.su) {
      const int u1 = u0 + f.su, v1 = v0 + f.sv;
      std::vector<UV> poly;
      auto take = [&](int u, int v) {
        const int bit = f.Point(u, v);
        if ((points >> bit) & 1u)
          poly.push_back({u, v, bit});
      };
      for (int u = u0; u < u1; u++)
        take(u, v0);
      for (int v = v0; v < v1; v++)
        take(u1, v);
      for (int u = u1; u > u0; u--)
        take(u, v1);
      for (int v = v1; v > v0; v--)
        take(u0, v);
      Clip_Polygon(poly, out);
    }
}

template <class T> void Bit_Position(int bit, T *p) {
  p[0] = bit % 5;
  p[1] = (bit / 5) % 5;
  p[2] = bit / 25;
}

// The tetrahedra fill the block exactly and their outer faces are the given
// boundary triangles.
bool Valid_Pattern(const Block_Faces &f, const Tet_List &tets,
                   const std::vector<std::array<unsigned char, 3>> &boundary) {
  double vol6 = 0.0;
  std::map<std::array<unsigned char, 3>, int> faces;
  for (const auto &t : tets) {
    double p[4][3];
    for (int k = 0; k < 4; k++)
      Bit_Position(t[k], p[k]);
    const double v = Tet_Volume6(p); // exact: small integers
    if (v == 0.0)
      return false;
    vol6 += std::fabs(v);
    for (int k = 0; k < 4; k++) {
      std::array<unsigned char, 3> tri = {t[(k + 1) % 4], t[(k + 2) % 4], t[(k + 3) % 4]};
      std::sort(tri.begin(), tri.end());
      faces[tri]++;
    }
  }
  if (vol6 != 6.0 * f.span_x * f.span_y)
    return false;
  std::vector<std::array<unsigned char, 3>> outer;
  for (const auto &[tri, count] : faces) {
    if (count > 2)
      return false;
    if (count == 1)
      outer.push_back(tri);
  }
  std::vector<std::array<unsigned char, 3>> given;
  for (auto tri : boundary) {
    std::sort(tri.begin(), tri.end());
    given.push_back(tri);
  }
  std::sort(given.begin(), given.end());
  return outer == given; // the map keeps `outer` sorted
}

int Tetrahedralise(const std::vector<int> &bits,
                   const std::vector<std::array<unsigned char, 3>> &tris, Tet_List &tets) {
  tetgenio in, out;
  in.firstnumber = 0;
  in.numberofpoints = static_cast<int>(bits.size());
  in.pointlist = new REAL[3 * bits.size()];
  int index[lattice_bits];
  for (size_t k = 0; k < bits.size(); k++) {
    int p[3];
    Bit_Position(bits[k], p);
    for (int d = 0; d < 3; d++)
      in.pointlist[3 * k + d] = p[d];
    index[bits[k]] = static_cast<int>(k);
  }
  in.numberoffacets = static_cast<int>(tris.size());
  in.facetlist = new tetgenio::facet[tris.size()];
  for (size_t k = 0; k < tris.size(); k++) {
    tetgenio::facet &fc = in.facetlist[k];
    fc.numberofpolygons = 1;
    fc.polygonlist = new tetgenio::polygon[1];
    fc.numberofholes = 0;
    fc.holelist = nullptr;
    fc.polygonlist[0].numberofvertices = 3;
    fc.polygonlist[0].vertexlist = new int[3];
    for (int d = 0; d < 3; d++)
      fc.polygonlist[0].vertexlist[d] = index[tris[k][d]];
  }
  // p: the boundary triangles are a piecewise linear complex; Y: no point is
  // added on them; M: coplanar triangles are not merged (and so not cut
  // again); Q: quiet.
  char switches[] = "pYMQ";
  try {
    tetrahedralize(switches, &in, &out);
  } catch (int) {
    return 1;
  }
  if (out.numberofpoints != in.numberofpoints || out.numberofcorners != 4)
    return 1;
  tets.clear();
  for (int t = 0; t < out.numberoftetrahedra; t++) {
    std::array<unsigned char, 4> tet;
    for (int k = 0; k < 4; k++) {
      const int v = out.tetrahedronlist[4 * t + k] - out.firstnumber;
      if (v < 0 || v >= static_cast<int>(bits.size()))
        return 1;
      tet[k] = static_cast<unsigned char>(bits[v]);
    }
    tets.push_back(tet);
  }
  return 0;
}

} // namespace

uint64_t Block_Points(const Block_Faces &f) {
  uint64_t points = 0;
  Add_Lattice(points, f.span_x, f.span_y, 0, f.top_x, f.top_y);
  Add_Lattice(points, f.span_x, f.span_y, 1, f.bot_x, f.bot_y);
  for (int c = 0; c < 2; c++) {
    for (int a = 0; a <= f.span_x; a += f.edge[c][0])
      points |= uint64_t(1) << Lattice_Bit(a, 0, c);
    for (int a = 0; a <= f.span_x; a += f.edge[c][1])
      points |= uint64_t(1) << Lattice_Bit(a, f.span_y, c);
    for (int b = 0; b <= f.span_y; b += f.edge[c][2])
      points |= uint64_t(1) << Lattice_Bit(0, b, c);
    for (int b = 0; b <= f.span_y; b += f.edge[c][3])
      points |= uint64_t(1) << Lattice_Bit(f.span_x, b, c);
  }
  return points;
}

Pattern_Key Make_Pattern_Key(const Block_Faces &f, uint64_t points) {
  const int s[10] = {f.span_x, f.span_y,    f.top_x,     f.top_y,     f.bot_x,
                     f.bot_y,  f.side_lo_x, f.side_hi_x, f.side_lo_y, f.side_hi_y};
  uint64_t steps = 0;
  for (int v : s)
    steps = steps * 8 + static_cast<uint64_t>(v);
  return {points, steps};
}

std::vector<std::array<unsigned char, 3>> Block_Boundary_Triangles(const Block_Faces &f,
                                                                   uint64_t points) {
  std::vector<std::array<unsigned char, 3>> tris;
  const Face faces[6] = {
      {f.span_x, f.span_y, f.top_x, f.top_y, 0, f.span_x, f.span_y},
      {f.span_x, f.span_y, f.bot_x, f.bot_y, 1, f.span_x, f.span_y},
      {f.span_y, 1, f.side_lo_x, 1, 2, f.span_x, f.span_y},
      {f.span_y, 1, f.side_hi_x, 1, 3, f.span_x, f.span_y},
      {f.span_x, 1, f.side_lo_y, 1, 4, f.span_x, f.span_y},
      {f.span_x, 1, f.side_hi_y, 1, 5, f.span_x, f.span_y},
  };
  for (const Face &face : faces)
    Triangulate_Face(face, points, tris);
  return tris;
}

int Copy_Nodes_Element3(Data_Set &ds, Pattern_Cache &cache, const Block_Faces &f, uint64_t points,
                        const Tet_List *&tets) {
  const Pattern_Key key = Make_Pattern_Key(f, points);
  auto found = cache.patterns.find(key);
  if (found != cache.patterns.end()) {
    tets = &found->second;
    return 0;
  }
  std::vector<int> bits;
  for (int b = 0; b < lattice_bits; b++)
    if ((points >> b) & 1u)
      bits.push_back(b);
  TRACE("Copy_Nodes_Element3 kn %d\n i   x     y    z\n", static_cast<int>(bits.size()));
  for (size_t k = 0; k < bits.size(); k++) {
    int p[3];
    Bit_Position(bits[k], p);
    TRACE("%3d %3d %3d %3d\n", static_cast<int>(k), p[0], p[1], p[2]);
  }
  const auto tris = Block_Boundary_Triangles(f, points);
  Tet_List list;
  cache.tetgen_calls++;
  if (Tetrahedralise(bits, tris, list) || !Valid_Pattern(f, list, tris)) {
    Refuse_Always(ds, "Error Message",
                  "Transition block of %d by %d spacings with %d points could not be filled "
                  "with tetrahedra.",
                  f.span_x, f.span_y, static_cast<int>(bits.size()));
    return 1;
  }
  tets = &cache.patterns.emplace(key, std::move(list)).first->second;
  return 0;
}
