// The solved mesh (dense and adaptive forms) checked by its own geometry and
// not by the library's check alone: conforming faces, volumes, levels, node
// keys, boundary flags, Jacobian limits, transition blocks and the VTK file.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/test_support.h"
#include "mesh/mesh.h"
#include "mesh/plan_blocks.h"
#include "mesh/transition_block.h"

using namespace test_support;

namespace {

struct Built {
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds;
};

// The solved mesh of an example; reduceside < 0 keeps the setting of the read.
std::unique_ptr<Built> Build(const char *name, int dense, int reduceside = -1) {
  auto b = std::make_unique<Built>();
  b->ds = Make_Data_Set(b->tmp, b->rec);
  b->ds->Semistructured.use_dense_rect_mesh = dense;
  const std::string path = b->tmp.sub(name);
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/" + name, path);
  if (b->ds->Run_Command(CMD_READ_DATA, path.c_str()) != 0)
    return nullptr;
  if (reduceside >= 0)
    b->ds->Model_grid.reduceside = reduceside;
  if (Set_SemiStructured_Mesh(*b->ds) != 0)
    return nullptr;
  return b;
}

struct Case {
  const char *name;
  int dense;
  bool flat;
};
const Case cases[] = {{"grid_dipole_dipole.dat", 1, true}, {"grid_dipole_dipole.dat", 0, true},
                      {"topography.dat", 1, false},        {"topography.dat", 0, false},
                      {"grid_9x14.dat", 0, true},          {"borehole.dat", 0, true}};

// Meshes are built once and shared by the tests, which only read them.
Data_Set &Mesh(const Case &c) {
  static std::map<std::string, std::unique_ptr<Built>> built;
  auto &b = built[std::string(c.name) + std::to_string(c.dense)];
  if (!b)
    b = Build(c.name, c.dense);
  if (!b)
    ADD_FAILURE() << "no mesh for " << c.name;
  return *b->ds;
}

struct Main_Point {
  int i, j, k;
};
Main_Point Main_Of(const Data_Set &ds, int node) {
  const Model_Grid &g = ds.Model_grid;
  const int m = ds.Semistructured.node_ss_to_main0[node - 1];
  return {m % g.lx, (m / g.lx) % g.ly, m / g.lxy};
}

// Outer sides of the main mesh that all the nodes lie on: bit 0 i == 0,
// 1 i == lx - 1, 2 j == 0, 3 j == ly - 1, 4 k == 0 (surface), 5 k == lzw - 1.
int Sides(const Data_Set &ds, const int *nodes, int n) {
  const Model_Grid &g = ds.Model_grid;
  int sides = 63;
  for (int c = 0; c < n; c++) {
    const Main_Point p = Main_Of(ds, nodes[c]);
    const bool on[6] = {p.i == 0,        p.i == g.lx - 1, p.j == 0,
                        p.j == g.ly - 1, p.k == 0,        p.k == g.lzw - 1};
    for (int s = 0; s < 6; s++)
      if (!on[s])
        sides &= ~(1 << s);
  }
  return sides;
}
bool Outer(const Data_Set &ds, const int *nodes, int n) {
  return Sides(ds, nodes, n) != 0;
}

using Tri = std::array<int, 3>;
using Quad = std::array<int, 4>;
const int hex_face[6][4] = {{0, 1, 5, 4}, {3, 2, 6, 7}, {0, 1, 2, 3},
                            {4, 5, 6, 7}, {1, 2, 6, 5}, {0, 3, 7, 4}};

void Expect_Conforming(const Data_Set &ds) {
  const SemiStructured &ss = ds.Semistructured;
  std::map<Tri, int> tris;
  std::map<Quad, int> quads;
  std::map<Quad, Quad> order; // sorted face -> nodes in face order
  for (int64_t e = 0; e < ss.number_elements; e++) {
    const Element &el = ss.elements[e];
    for (int f = 0; el.tet && f < 4; f++) {
      Tri t = {el.node[(f + 1) % 4], el.node[(f + 2) % 4], el.node[(f + 3) % 4]};
      std::sort(t.begin(), t.end());
      tris[t]++;
    }
    for (int f = 0; !el.tet && f < 6; f++) {
      Quad q, o;
      for (int c = 0; c < 4; c++)
        q[c] = o[c] = el.node[hex_face[f][c]];
      std::sort(q.begin(), q.end());
      quads[q]++;
      order[q] = o;
    }
  }
  std::map<Tri, Quad> on_quad; // every 3 nodes of a hexahedron face
  for (const auto &[q, n] : quads)
    for (int skip = 0; skip < 4; skip++) {
      Tri t;
      for (int c = 0, m = 0; c < 4; c++)
        if (c != skip)
          t[m++] = q[c];
      on_quad[t] = q;
    }
  std::map<Quad, std::vector<Tri>> cover;
  int64_t open = 0, over = 0, bad_cover = 0;
  for (const auto &[t, n] : tris) {
    const auto it = on_quad.find(t);
    if (n > 2 || (n == 2 && it != on_quad.end()))
      over++;
    else if (n == 1 && it != on_quad.end())
      cover[it->second].push_back(t);
    else if (n == 1 && !Outer(ds, t.data(), 3))
      open++;
  }
  for (const auto &[q, n] : quads) {
    const auto it = cover.find(q);
    if (n > 2 || (n == 2 && it != cover.end())) {
      over++;
    } else if (n == 1 && it == cover.end()) {
      open += !Outer(ds, q.data(), 4);
    } else if (n == 1) {
      // Two triangles meeting along a diagonal of the face.
      const auto &c = it->second;
      const Quad &o = order.at(q);
      std::vector<int> shared;
      if (c.size() == 2)
        std::set_intersection(c[0].begin(), c[0].end(), c[1].begin(), c[1].end(),
                              std::back_inserter(shared));
      auto diagonal = [&](int a, int b) {
        return shared == std::vector<int>{std::min(o[a], o[b]), std::max(o[a], o[b])};
      };
      bad_cover += !diagonal(0, 2) && !diagonal(1, 3);
    }
  }
  EXPECT_EQ(open, 0);
  EXPECT_EQ(over, 0);
  EXPECT_EQ(bad_cover, 0);
  const Mesh_Check r = Check_SemiStructured_Mesh(ds);
  EXPECT_EQ(r.open_tet_faces + r.open_hex_faces + r.overshared_faces, 0);
  EXPECT_EQ(r.level_errors + r.bad_volumes, 0);
}

// Lattice position (a, b, c) of a block point.
std::array<int, 3> Pos(int bit) {
  return {bit % 5, (bit / 5) % 5, bit / 25};
}

// Blocks as the adaptive mesh sets them up. A: a coarse block whose +x
// neighbour B is twice as fine, with C under B finer still; D: steps 2 by 4
// under a level of steps 2, over a coarse one; E: a buffer block of 4 by 1
// spacings with one extra point on its high y top edge.
const Block_Faces block_a{4, 4, 4, 4, 4, 4, 4, 2, 4, 4, {{4, 4, 4, 2}, {4, 4, 4, 1}}};
const Block_Faces block_b{4, 4, 2, 2, 1, 1, 2, 2, 2, 2, {{2, 2, 2, 2}, {1, 1, 1, 1}}};
const Block_Faces block_c{4, 4, 1, 1, 1, 1, 1, 1, 1, 1, {{1, 1, 1, 1}, {1, 1, 1, 1}}};
const Block_Faces block_d{4, 4, 2, 2, 2, 4, 4, 4, 2, 2, {{2, 2, 2, 2}, {2, 2, 4, 4}}};
const Block_Faces block_e{4, 1, 4, 1, 4, 1, 1, 1, 4, 4, {{4, 2, 1, 1}, {4, 4, 1, 1}}};

using Tri3 = std::array<std::array<int, 3>, 3>;
// Boundary triangles of `f` in the plane (axis d) = w, moved by `offset`.
std::set<Tri3> Face_Triangles(const Block_Faces &f, int d, int w, std::array<int, 3> offset) {
  std::set<Tri3> out;
  for (const auto &t : Block_Boundary_Triangles(f, Block_Points(f))) {
    Tri3 p;
    bool on = true;
    for (int n = 0; n < 3; n++) {
      p[n] = Pos(t[n]);
      on = on && p[n][d] == w;
      for (int x = 0; x < 3; x++)
        p[n][x] += offset[x];
    }
    std::sort(p.begin(), p.end());
    if (on)
      out.insert(p);
  }
  return out;
}

// The boundary triangles tile each of the block's six faces.
void Expect_Tiled(const Block_Faces &f) {
  const uint64_t points = Block_Points(f);
  const int extent[3] = {f.span_x, f.span_y, 1};
  std::vector<Tri3> on_face[6];
  int64_t off_face = 0, flat = 0, t_joints = 0;
  for (const auto &t : Block_Boundary_Triangles(f, points)) {
    Tri3 p = {Pos(t[0]), Pos(t[1]), Pos(t[2])};
    int face = -1, faces = 0;
    for (int d = 0; d < 3; d++)
      for (int w : {0, extent[d]})
        if (p[0][d] == w && p[1][d] == w && p[2][d] == w) {
          face = 2 * d + (w != 0);
          faces++;
        }
    if (faces != 1) {
      off_face++;
      continue;
    }
    on_face[face].push_back(p);
    for (int n = 0; n < 3; n++) { // no block point inside an edge
      const auto &q0 = p[n], &q1 = p[(n + 1) % 3];
      for (int bit = 0; bit < lattice_bits; bit++) {
        if (!((points >> bit) & 1u))
          continue;
        const auto r = Pos(bit);
        int e[3], g[3];
        for (int x = 0; x < 3; x++) {
          e[x] = q1[x] - q0[x];
          g[x] = r[x] - q0[x];
        }
        const bool line =
            e[1] * g[2] == e[2] * g[1] && e[2] * g[0] == e[0] * g[2] && e[0] * g[1] == e[1] * g[0];
        const int dot = e[0] * g[0] + e[1] * g[1] + e[2] * g[2];
        t_joints += line && dot > 0 && dot < e[0] * e[0] + e[1] * e[1] + e[2] * e[2];
      }
    }
  }
  EXPECT_EQ(off_face, 0);
  for (int face = 0; face < 6; face++) {
    const int d = face / 2, u = (d + 1) % 3, v = (d + 2) % 3;
    double area = 0.0;
    for (const Tri3 &p : on_face[face]) {
      const int a2 =
          (p[1][u] - p[0][u]) * (p[2][v] - p[0][v]) - (p[1][v] - p[0][v]) * (p[2][u] - p[0][u]);
      flat += a2 == 0;
      area += std::abs(a2) * 0.5;
    }
    EXPECT_EQ(area, extent[u] * extent[v]) << "face " << face;
    // Every sample point of the face lies in exactly one triangle.
    int64_t miscovered = 0;
    for (int su = 0; su < 4 * extent[u]; su++)
      for (int sv = 0; sv < 4 * extent[v]; sv++) {
        const double x = (su + 0.37) * 0.25, y = (sv + 0.61) * 0.25;
        int inside = 0;
        for (const Tri3 &p : on_face[face]) {
          int neg = 0, pos = 0;
          for (int n = 0; n < 3; n++) {
            const auto &q0 = p[n], &q1 = p[(n + 1) % 3];
            const double c = (q1[u] - q0[u]) * (y - q0[v]) - (q1[v] - q0[v]) * (x - q0[u]);
            (c < 0 ? neg : pos)++;
          }
          inside += neg == 0 || pos == 0;
        }
        miscovered += inside != 1;
      }
    EXPECT_EQ(miscovered, 0) << "face " << face;
  }
  EXPECT_EQ(flat, 0);
  EXPECT_EQ(t_joints, 0);
}

} // namespace

TEST(SS_Mesh, FacesConformAndElementsFillTheMainMesh) {
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.name) + (c.dense ? " dense" : " adaptive"));
    const Data_Set &ds = Mesh(c);
    const SemiStructured &ss = ds.Semistructured;
    const Model_Grid &g = ds.Model_grid;
    Expect_Conforming(ds);
    double sum = 0.0;
    int64_t tets = 0, not_positive = 0;
    for (int64_t e = 0; e < ss.number_elements; e++) {
      const double v = Element_Volume(ds, e);
      sum += v;
      not_positive += !(v > 0.0);
      const Element &el = ss.elements[e];
      tets += el.tet != 0;
      if (el.tet)
        EXPECT_TRUE(el.nnodes == 4 && el.code == 20) << "element " << e;
      else
        EXPECT_TRUE(el.nnodes == 8 && el.code == 8) << "element " << e;
    }
    EXPECT_EQ(not_positive, 0);
    EXPECT_EQ(tets, ss.num_tet);
    EXPECT_EQ(ss.num_hex + ss.num_tet, ss.number_elements);
    EXPECT_NEAR(sum, ss.vol_grid, (c.flat ? 1e-9 : 1e-6) * ss.vol_grid);
    if (c.flat) { // the main mesh is then a box
      const int64_t last = static_cast<int64_t>(g.lxy) * g.lzw - 1;
      const double box = (double(g.xn[last]) - g.xn[0]) * (double(g.yn[last]) - g.yn[0]) *
                         (double(g.zn[last]) - g.zn[0]);
      EXPECT_NEAR(ss.vol_grid, box, 1e-6 * box);
    }
    EXPECT_EQ(ss.number_nodes_main, static_cast<int64_t>(g.lxy) * g.lzw);
    if (c.dense) {
      EXPECT_EQ(ss.number_nodes_ss, ss.number_nodes_main);
      EXPECT_EQ(tets, 0);
      for (int s = 0; s < ss.number_nodes_ss; s++)
        ASSERT_EQ(ss.node_ss_to_main0[s], s);
    } else {
      EXPECT_LT(ss.number_nodes_ss, ss.number_nodes_main);
      EXPECT_GT(tets, 0);
    }
  }
}

TEST(SS_Mesh, ElementsKeepToTheirLevelsAndNodesToTheMainMesh) {
  // Boundary flag of each hexahedron face and the outer side it stands for.
  const unsigned char flag[5] = {FACE_LOW_X, FACE_HIGH_X, FACE_LOW_Y, FACE_HIGH_Y, FACE_BOTTOM};
  const int side[5] = {1, 2, 4, 8, 32};
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.name) + (c.dense ? " dense" : " adaptive"));
    const Data_Set &ds = Mesh(c);
    const SemiStructured &ss = ds.Semistructured;
    const Model_Grid &g = ds.Model_grid;
    // Elements level by level, every node on the element's two main levels.
    ASSERT_EQ(ss.nlevels, g.lzw - 1);
    EXPECT_EQ(ss.level_first[0], 0);
    EXPECT_EQ(ss.level_first[ss.nlevels], ss.number_elements);
    int64_t off_level = 0, moved = 0, bad_flags = 0;
    for (int k = 1; k <= ss.nlevels; k++)
      for (int64_t e = ss.level_first[k - 1]; e < ss.level_first[k]; e++) {
        const Element &el = ss.elements[e];
        off_level += el.layer != k;
        for (int n = 0; n < el.nnodes; n++) {
          const int kn = Main_Of(ds, el.node[n]).k, s = el.node[n] - 1;
          off_level += kn != k - 1 && kn != k;
          moved += el.x[n] != ss.xnodess[s] || el.y[n] != ss.ynodess[s] || el.z[n] != ss.znodess[s];
        }
        // Flags exactly on the hexahedron faces lying on their outer side;
        // tetrahedra carry none, so none may lie on a flagged side.
        unsigned char want = 0;
        for (int f = 0; f < (el.tet ? 4 : 5); f++) {
          int nodes[4];
          for (int n = 0; n < (el.tet ? 3 : 4); n++)
            nodes[n] = el.tet ? el.node[(f + 1 + n) % 4] : el.node[hex_face[f][n]];
          const int on = Sides(ds, nodes, el.tet ? 3 : 4);
          if (el.tet)
            bad_flags += (on & ~16) != 0;
          else if (on & side[f])
            want |= flag[f];
        }
        bad_flags += el.faces != want;
      }
    EXPECT_EQ(off_level, 0);
    EXPECT_EQ(moved, 0);
    EXPECT_EQ(bad_flags, 0);
    // Solved nodes: distinct main nodes at their positions, both maps
    // inverse, numbered level by level.
    const int n = ss.number_nodes_ss;
    int64_t mapped = 0, wrong = 0;
    for (int64_t m = 0; m < ss.number_nodes_main; m++)
      mapped += ss.node_main_ss[m] != -1;
    EXPECT_EQ(mapped, n);
    for (int s = 0; s < n; s++) {
      const int m = ss.node_ss_to_main0[s];
      ASSERT_TRUE(m >= 0 && m < ss.number_nodes_main) << "node " << s + 1;
      const int k = m / g.lxy;
      wrong += ss.node_main_ss[m] != s + 1;
      wrong += ss.xnodess[s] != g.xn[m] || ss.ynodess[s] != g.yn[m] || ss.znodess[s] != g.zn[m];
      wrong += s + 1 < ss.node_ss_level1[k] || (k + 1 < g.lzw && s + 1 >= ss.node_ss_level1[k + 1]);
    }
    EXPECT_EQ(wrong, 0);
    std::vector<int> by_x(n);
    for (int s = 0; s < n; s++)
      by_x[s] = s;
    auto level = [&](int s) { return ss.node_ss_to_main0[s] / g.lxy; };
    std::sort(by_x.begin(), by_x.end(), [&](int a, int b) {
      return level(a) != level(b) ? level(a) < level(b) : ss.xnodess[a] < ss.xnodess[b];
    });
    int64_t twins = 0;
    for (int a = 0; a < n; a++)
      for (int b = a + 1; b < n && level(by_x[b]) == level(by_x[a]) &&
                          ss.xnodess[by_x[b]] - ss.xnodess[by_x[a]] <= 1e-4f;
           b++)
        twins += std::fabs(ss.ynodess[by_x[b]] - ss.ynodess[by_x[a]]) <= 1e-4f;
    EXPECT_EQ(twins, 0);
  }
}

TEST(SS_Mesh, JacobianLimitsFollowTheSideReduction) {
  SemiStructured ss;
  ss.ngridz = 10;
  ss.Set_Jacobian_Limits(0, 13, 11, 9, 14, 0); // y limit from ngridx
  EXPECT_EQ(ss.jac_x[0], 1);
  EXPECT_EQ(ss.jac_x[1], 9 + 2 * 12);
  EXPECT_EQ(ss.jac_y[0], 1);
  EXPECT_EQ(ss.jac_y[1], 9 + 2 * 11 - 2);
  EXPECT_EQ(ss.z_jac, 18);
  EXPECT_EQ(ss.z_jac_first, 1);
  ss.Set_Jacobian_Limits(5, 13, 11, 9, 14, 0);
  EXPECT_EQ(ss.jac_x[0], 13);
  EXPECT_EQ(ss.jac_x[1], 9 + 13 - 2);
  EXPECT_EQ(ss.jac_y[0], 11);
  EXPECT_EQ(ss.jac_y[1], 14 + 11 - 2);
  EXPECT_EQ(ss.z_jac, 9);
  EXPECT_EQ(ss.z_jac_first, 1);
  ss.Set_Jacobian_Limits(5, 13, 11, 9, 14, 6);
  EXPECT_EQ(ss.z_jac, 15);
  EXPECT_EQ(ss.z_jac_first, 7);
  ss.Set_Jacobian_Limits(0, 13, 11, 9, 14, 6);
  EXPECT_EQ(ss.z_jac, 24);
  EXPECT_EQ(ss.z_jac_first, 7);
  // Without side blocks the Jacobian holds exactly the interior plan blocks
  // (those of the model cells) down to z_jac.
  for (int dense = 0; dense < 2; dense++) {
    SCOPED_TRACE(dense ? "dense" : "adaptive");
    const auto b = Build("grid_dipole_dipole.dat", dense, 5);
    ASSERT_TRUE(b);
    const Model_Grid &g = b->ds->Model_grid;
    const SemiStructured &m = b->ds->Semistructured;
    const Plan_Axis ax{g.ixfirst, g.ngridx, g.nodes_per_unit_spacing};
    const Plan_Axis ay{g.jyfirst, g.ngridy, g.nodes_per_unit_spacing};
    int64_t in = 0, wrong = 0;
    for (int64_t e = 0; e < m.number_elements; e++) {
      const Element &el = m.elements[e];
      const int bi = el.cell % ax.Count(), bj = el.cell / ax.Count();
      const bool want =
          ax.Interior(bi) && ay.Interior(bj) && el.layer >= m.z_jac_first && el.layer <= m.z_jac;
      wrong += el.jac != int(want);
      in += want;
      for (int n = 0; n < el.nnodes; n++) { // the element lies in its plan block
        const Main_Point p = Main_Of(*b->ds, el.node[n]);
        wrong += p.i < ax.Start(bi) || p.i > ax.Start(bi) + ax.Span(bi) || p.j < ay.Start(bj) ||
                 p.j > ay.Start(bj) + ay.Span(bj);
      }
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(in, 0);
    EXPECT_LT(in, m.number_elements);
  }
}

TEST(Transition_Block, BoundaryTrianglesTileEachFaceAndMatchAcrossSharedFaces) {
  for (const Block_Faces *f : {&block_a, &block_b, &block_c, &block_d, &block_e}) {
    SCOPED_TRACE("block " + std::string(1, char('a' + (f - &block_a))));
    Expect_Tiled(*f);
  }
  // A's high x face is B's low x face; B's bottom face is C's top face.
  const auto ab = Face_Triangles(block_a, 0, 4, {0, 0, 0});
  EXPECT_FALSE(ab.empty());
  EXPECT_EQ(ab, Face_Triangles(block_b, 0, 0, {4, 0, 0}));
  const auto bc = Face_Triangles(block_b, 2, 1, {0, 0, 0});
  EXPECT_EQ(bc.size(), 32u);
  EXPECT_EQ(bc, Face_Triangles(block_c, 2, 0, {0, 0, 1}));
}

TEST(Transition_Block, TetrahedraFillTheBlockAndEachPatternIsMadeOnce) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  Pattern_Cache cache;
  int64_t calls = 0;
  for (const Block_Faces *f : {&block_a, &block_b, &block_d, &block_e}) {
    SCOPED_TRACE("block " + std::string(1, char('a' + (f - &block_a))));
    const uint64_t points = Block_Points(*f);
    const Tet_List *tets = nullptr;
    ASSERT_EQ(Copy_Nodes_Element3(*ds, cache, *f, points, tets), 0);
    ASSERT_NE(tets, nullptr);
    EXPECT_EQ(cache.tetgen_calls, ++calls);
    double vol6 = 0.0;
    std::map<std::array<int, 3>, int> faces;
    for (const auto &t : *tets) {
      std::array<int, 3> p[4];
      for (int n = 0; n < 4; n++)
        p[n] = Pos(t[n]);
      int e[3][3];
      for (int n = 0; n < 3; n++)
        for (int x = 0; x < 3; x++)
          e[n][x] = p[n + 1][x] - p[0][x];
      const int det = e[0][0] * (e[1][1] * e[2][2] - e[1][2] * e[2][1]) -
                      e[0][1] * (e[1][0] * e[2][2] - e[1][2] * e[2][0]) +
                      e[0][2] * (e[1][0] * e[2][1] - e[1][1] * e[2][0]);
      EXPECT_NE(det, 0);
      vol6 += std::abs(det);
      for (int k = 0; k < 4; k++) {
        std::array<int, 3> tri = {t[(k + 1) % 4], t[(k + 2) % 4], t[(k + 3) % 4]};
        std::sort(tri.begin(), tri.end());
        faces[tri]++;
      }
    }
    EXPECT_EQ(vol6, 6.0 * f->span_x * f->span_y);
    // The faces met once are the boundary triangles, none is met more than twice.
    std::set<std::array<int, 3>> outer, boundary;
    for (const auto &[tri, count] : faces) {
      EXPECT_LE(count, 2);
      if (count == 1)
        outer.insert(tri);
    }
    for (const auto &t : Block_Boundary_Triangles(*f, points)) {
      std::array<int, 3> tri = {t[0], t[1], t[2]};
      std::sort(tri.begin(), tri.end());
      boundary.insert(tri);
    }
    EXPECT_EQ(outer, boundary);
    const Tet_List *again = nullptr;
    ASSERT_EQ(Copy_Nodes_Element3(*ds, cache, *f, points, again), 0);
    EXPECT_EQ(again, tets);
    EXPECT_EQ(cache.tetgen_calls, calls);
  }
  EXPECT_EQ(cache.patterns.size(), 4u);
}

TEST(SS_Mesh, VtkFileReadsBackWithPositiveCellVolumes) {
  if (std::system("/usr/bin/python3 -c 'import vtk' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "/usr/bin/python3 cannot import vtk";
  Temp_Folder tmp;
  const std::string script = tmp.sub("check.py");
  Write_File(script, R"(import sys, vtk
reader = vtk.vtkUnstructuredGridReader()
reader.SetFileName(sys.argv[1])
reader.Update()
grid = reader.GetOutput()
cells, want = int(sys.argv[2]), float(sys.argv[3])
if grid.GetNumberOfCells() != cells:
    sys.exit("cells %d, expected %d" % (grid.GetNumberOfCells(), cells))
sizes = vtk.vtkCellSizeFilter()
sizes.SetInputData(grid)
sizes.Update()
volume = sizes.GetOutput().GetCellData().GetArray("Volume")
vols = [volume.GetValue(i) for i in range(cells)]
if min(vols) <= 0:
    sys.exit("cell volume %g" % min(vols))
if abs(sum(vols) - want) > 1e-4 * want:
    sys.exit("volume %.9g, expected %.9g" % (sum(vols), want))
)");
  for (const Case &c : {cases[1], cases[3]}) {
    SCOPED_TRACE(c.name);
    Data_Set &ds = Mesh(c);
    const std::string vtk = tmp.sub("mesh.vtk");
    ASSERT_EQ(Write_Mesh_Vtk(ds, vtk.c_str()), 0);
    const double want = ds.Semistructured.vol_elements * std::pow(ds.spxx, 3);
    const std::string command = "/usr/bin/python3 " + script + " " + vtk + " " +
                                std::to_string(ds.Semistructured.number_elements) + " " +
                                std::to_string(want);
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
}
