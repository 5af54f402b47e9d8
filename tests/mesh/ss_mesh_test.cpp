// The solved mesh, dense and adaptive, checked by its own geometry rather than
// by Check_SemiStructured_Mesh alone: conforming faces, volumes, levels, node
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
#include <stdexcept>
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
  std::unique_ptr<Data_Set> ds = Make_Data_Set(tmp, rec);
  bool ok = false;
  // The solved mesh of an example; reduceside < 0 keeps the setting of the read.
  bool Build(const char *name, int dense, int reduceside = -1) {
    ds->Semistructured.use_dense_rect_mesh = dense; // before the read, which sets up the main mesh
    const std::string path = tmp.sub(name);
    std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/" + name, path);
    if (ds->Run_Command(CMD_READ_DATA, path.c_str()) != 0)
      return false;
    if (reduceside >= 0)
      ds->Model_grid.reduceside = reduceside;
    return Set_SemiStructured_Mesh(*ds) == 0;
  }
};

struct Case {
  const char *name;
  int dense;
  bool flat;
};
const Case cases[] = {{"grid_dipole_dipole.dat", 1, true}, {"grid_dipole_dipole.dat", 0, true},
                      {"topography.dat", 1, false},        {"topography.dat", 0, false},
                      {"grid_9x14.dat", 0, true},          {"borehole.dat", 0, true}};

// Built once and shared by the tests, which only read them.
Data_Set &Mesh(const Case &c) {
  static std::map<std::string, Built> built;
  const auto [it, made] = built.try_emplace(c.name + std::to_string(c.dense));
  if (made)
    it->second.ok = it->second.Build(c.name, c.dense);
  if (!it->second.ok)
    throw std::runtime_error(std::string("no mesh for ") + c.name);
  return *it->second.ds;
}

struct Main_Point {
  int i, j, k;
};
Main_Point Main_Of(const Data_Set &ds, int node) {
  const Model_Grid &g = ds.Model_grid;
  const int m = ds.Semistructured.node_ss_to_main0[node - 1];
  return {m % g.lx, (m / g.lx) % g.ly, m / g.lxy};
}

// Outer sides that all the nodes lie on: bit 0 i == 0, 1 i == lx - 1,
// 2 j == 0, 3 j == ly - 1, 4 k == 0 (the surface), 5 k == lzw - 1.
int Sides(const Data_Set &ds, const int *nodes, int n) {
  const Model_Grid &g = ds.Model_grid;
  int sides = 63;
  for (int c = 0; c < n; c++) {
    const Main_Point p = Main_Of(ds, nodes[c]);
    const bool on[6] = {p.i == 0,        p.i == g.lx - 1, p.j == 0,
                        p.j == g.ly - 1, p.k == 0,        p.k == g.lzw - 1};
    for (int s = 0; s < 6; s++)
      sides &= on[s] ? 63 : ~(1 << s);
  }
  return sides;
}

using Tri = std::array<int, 3>;
using Quad = std::array<int, 4>;
const int hex_face[6][4] = {{0, 1, 5, 4}, {3, 2, 6, 7}, {0, 1, 2, 3},
                            {4, 5, 6, 7}, {1, 2, 6, 5}, {0, 3, 7, 4}};

// Every tetrahedron face is shared with one other tetrahedron, lies on a
// hexahedron face that two such triangles cut along a diagonal, or is outer.
void Expect_Conforming(const Data_Set &ds) {
  const SemiStructured &ss = ds.Semistructured;
  std::map<Tri, int> tris;
  std::map<Quad, int> quads;
  std::map<Quad, Quad> order; // sorted face -> its nodes in face order
  std::map<Tri, Quad> on_quad;
  for (int64_t e = 0; e < ss.number_elements; e++) {
    const Element &el = ss.elements[e];
    for (int f = 0; f < (el.tet ? 4 : 6); f++) {
      Quad q, o;
      for (int c = 0; c < (el.tet ? 3 : 4); c++)
        q[c] = o[c] = el.tet ? el.node[(f + 1 + c) % 4] : el.node[hex_face[f][c]];
      if (el.tet) {
        std::sort(q.begin(), q.begin() + 3);
        tris[{q[0], q[1], q[2]}]++;
        continue;
      }
      std::sort(q.begin(), q.end());
      quads[q]++;
      order[q] = o;
      for (int skip = 0; skip < 4; skip++)
        on_quad[{q[skip == 0], q[1 + (skip <= 1)], q[2 + (skip <= 2)]}] = q;
    }
  }
  std::map<Quad, std::vector<Tri>> cover;
  int64_t open = 0, over = 0, bad_cover = 0;
  for (const auto &[t, n] : tris) {
    const auto it = on_quad.find(t);
    if (n > 2 || (n == 2 && it != on_quad.end()))
      over++;
    else if (n == 1 && it != on_quad.end())
      cover[it->second].push_back(t);
    else if (n == 1)
      open += Sides(ds, t.data(), 3) == 0;
  }
  for (const auto &[q, n] : quads) {
    const auto it = cover.find(q);
    if (n > 2 || (n == 2 && it != cover.end())) {
      over++;
    } else if (n == 1 && it == cover.end()) {
      open += Sides(ds, q.data(), 4) == 0;
    } else if (n == 1) {
      const Quad &o = order.at(q);
      std::vector<int> shared;
      if (it->second.size() == 2)
        std::set_intersection(it->second[0].begin(), it->second[0].end(), it->second[1].begin(),
                              it->second[1].end(), std::back_inserter(shared));
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

// Lattice position (a, b, c) of a transition block point.
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
// Boundary triangles of `f` in the plane (axis d) == w, moved by `offset`.
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

// The boundary triangles tile each face exactly, with no block point inside
// one of their edges.
void Expect_Tiled(const Block_Faces &f) {
  const uint64_t points = Block_Points(f);
  const int extent[3] = {f.span_x, f.span_y, 1};
  int64_t on_faces = 0, flat = 0, t_joints = 0;
  for (int face = 0; face < 6; face++) {
    const int d = face / 2, w = face % 2 ? extent[d] : 0, u = (d + 1) % 3, v = (d + 2) % 3;
    // Twice the signed area of (o, a, (x, y)) in the face's (u, v) plane.
    auto cross = [&](const std::array<int, 3> &o, const std::array<int, 3> &a, double x, double y) {
      return (a[u] - o[u]) * (y - o[v]) - (a[v] - o[v]) * (x - o[u]);
    };
    const std::set<Tri3> tris = Face_Triangles(f, d, w, {0, 0, 0});
    on_faces += tris.size();
    double area = 0.0;
    for (const Tri3 &p : tris) {
      const double a2 = cross(p[0], p[1], p[2][u], p[2][v]);
      flat += a2 == 0.0;
      area += std::fabs(a2) * 0.5;
      for (int n = 0; n < 3; n++)
        for (int bit = 0; bit < lattice_bits; bit++) {
          const auto &q0 = p[n], &q1 = p[(n + 1) % 3], r = Pos(bit);
          const int dot = (q1[u] - q0[u]) * (r[u] - q0[u]) + (q1[v] - q0[v]) * (r[v] - q0[v]);
          t_joints += ((points >> bit) & 1u) && r[d] == w && cross(q0, q1, r[u], r[v]) == 0.0 &&
                      dot > 0 &&
                      dot < (q1[u] - q0[u]) * (q1[u] - q0[u]) + (q1[v] - q0[v]) * (q1[v] - q0[v]);
        }
    }
    EXPECT_EQ(area, extent[u] * extent[v]) << "face " << face;
    int64_t miscovered = 0; // sample points each in exactly one triangle
    for (double x = 0.0925; x < extent[u]; x += 0.25)
      for (double y = 0.1525; y < extent[v]; y += 0.25)
        miscovered += std::count_if(tris.begin(), tris.end(), [&](const Tri3 &p) {
                        const bool s0 = cross(p[0], p[1], x, y) > 0,
                                   s1 = cross(p[1], p[2], x, y) > 0;
                        return s0 == s1 && s1 == (cross(p[2], p[0], x, y) > 0);
                      }) != 1;
    EXPECT_EQ(miscovered, 0) << "face " << face;
  }
  EXPECT_EQ(on_faces, static_cast<int64_t>(Block_Boundary_Triangles(f, points).size()));
  EXPECT_EQ(flat, 0);
  EXPECT_EQ(t_joints, 0);
}

} // namespace

TEST(SS_Mesh, ElementsConformFillTheMainMeshAndKeepToTheirLevels) {
  // Boundary flag of each hexahedron face (hex_face order) and its outer side.
  const unsigned char flag[5] = {FACE_LOW_X, FACE_HIGH_X, FACE_LOW_Y, FACE_HIGH_Y, FACE_BOTTOM};
  const int side[5] = {1, 2, 4, 8, 32};
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.name) + (c.dense ? " dense" : " adaptive"));
    const Data_Set &ds = Mesh(c);
    const SemiStructured &ss = ds.Semistructured;
    const Model_Grid &g = ds.Model_grid;
    Expect_Conforming(ds);
    // Level by level (the parallel assembly relies on it), every node on the
    // element's two main levels.
    ASSERT_EQ(ss.nlevels, g.lzw - 1);
    EXPECT_EQ(ss.level_first[0], 0);
    EXPECT_EQ(ss.level_first[ss.nlevels], ss.number_elements);
    double sum = 0.0;
    int64_t tets = 0, bad = 0, off_level = 0, bad_flags = 0;
    for (int k = 1; k <= ss.nlevels; k++)
      for (int64_t e = ss.level_first[k - 1]; e < ss.level_first[k]; e++) {
        const Element &el = ss.elements[e];
        const double v = Element_Volume(ds, e);
        sum += v;
        tets += el.tet != 0;
        bad += !(v > 0.0) || (el.tet ? el.nnodes != 4 || el.code != 20 : el.nnodes != 8);
        off_level += el.layer != k;
        for (int n = 0; n < el.nnodes; n++) {
          const int kn = Main_Of(ds, el.node[n]).k, s = el.node[n] - 1;
          off_level += kn != k - 1 && kn != k;
          bad += el.x[n] != ss.xnodess[s] || el.y[n] != ss.ynodess[s] || el.z[n] != ss.znodess[s];
        }
        // Flags exactly on the hexahedron faces on their outer side; the
        // tetrahedra carry none, so none of their faces may lie on such a side.
        unsigned char want = 0;
        for (int f = 0; f < (el.tet ? 4 : 5); f++) {
          int nodes[4];
          for (int n = 0; n < (el.tet ? 3 : 4); n++)
            nodes[n] = el.tet ? el.node[(f + 1 + n) % 4] : el.node[hex_face[f][n]];
          const int on = Sides(ds, nodes, el.tet ? 3 : 4);
          bad_flags += el.tet && (on & ~16) != 0;
          want |= !el.tet && (on & side[f]) ? flag[f] : 0;
        }
        bad_flags += el.faces != want;
      }
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(off_level, 0);
    EXPECT_EQ(bad_flags, 0);
    EXPECT_EQ(tets, ss.num_tet);
    EXPECT_EQ(ss.num_hex + ss.num_tet, ss.number_elements);
    EXPECT_EQ(tets > 0, c.dense == 0);
    EXPECT_NEAR(sum, ss.vol_grid, (c.flat ? 1e-9 : 1e-6) * ss.vol_grid);
    const int64_t last = static_cast<int64_t>(g.lxy) * g.lzw - 1; // a flat main mesh is a box
    const double box = (double(g.xn[last]) - g.xn[0]) * (double(g.yn[last]) - g.yn[0]) *
                       (double(g.zn[last]) - g.zn[0]);
    EXPECT_TRUE(!c.flat || std::fabs(ss.vol_grid - box) <= 1e-6 * box) << ss.vol_grid << " " << box;
  }
}

TEST(SS_Mesh, SolvedNodesAreDistinctMainNodes) {
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.name) + (c.dense ? " dense" : " adaptive"));
    const Data_Set &ds = Mesh(c);
    const SemiStructured &ss = ds.Semistructured;
    const Model_Grid &g = ds.Model_grid;
    const int n = ss.number_nodes_ss;
    if (c.dense)
      EXPECT_EQ(n, ss.number_nodes_main);
    else
      EXPECT_LT(n, ss.number_nodes_main);
    // Both maps inverse, -1 for unused main nodes, positions of the main
    // node, numbered level by level; the dense form keeps the main numbers.
    int64_t mapped = 0, wrong = 0;
    for (int64_t m = 0; m < ss.number_nodes_main; m++)
      mapped += ss.node_main_ss[m] != -1;
    EXPECT_EQ(mapped, n);
    std::set<std::array<long, 3>> keys;
    for (int s = 0; s < n; s++) {
      const int m = ss.node_ss_to_main0[s], k = m / g.lxy;
      ASSERT_TRUE(m >= 0 && m < ss.number_nodes_main) << "node " << s + 1;
      wrong += ss.node_main_ss[m] != s + 1 || (c.dense && m != s);
      wrong += ss.xnodess[s] != g.xn[m] || ss.ynodess[s] != g.yn[m] || ss.znodess[s] != g.zn[m];
      wrong += s + 1 < ss.node_ss_level1[k] || (k + 1 < g.lzw && s + 1 >= ss.node_ss_level1[k + 1]);
      // No two nodes of a level at one plan position (to 1e-4).
      wrong += !keys.insert({k, std::lround(ss.xnodess[s] * 1e4), std::lround(ss.ynodess[s] * 1e4)})
                    .second;
    }
    EXPECT_EQ(wrong, 0);
  }
}

TEST(SS_Mesh, JacobianLimitsFollowTheSideReduction) {
  SemiStructured ss;
  ss.ngridz = 10;
  auto limits = [&](int reduceside, int nwater) { // i0 13, j0 11, ngridx 9, ngridy 14
    ss.Set_Jacobian_Limits(reduceside, 13, 11, 9, 14, nwater);
    return std::array{ss.jac_x[0], ss.jac_x[1], ss.jac_y[0], ss.jac_y[1], ss.z_jac, ss.z_jac_first};
  };
  EXPECT_EQ(limits(0, 0), (std::array{1, 33, 1, 29, 18, 1})); // y limit from ngridx
  EXPECT_EQ(limits(5, 0), (std::array{13, 20, 11, 23, 9, 1}));
  EXPECT_EQ(limits(5, 6), (std::array{13, 20, 11, 23, 15, 7}));
  EXPECT_EQ(limits(0, 6), (std::array{1, 33, 1, 29, 24, 7}));
  // Without side blocks the Jacobian holds exactly the elements of the
  // interior plan blocks (the model cells) down to z_jac.
  for (int dense = 0; dense < 2; dense++) {
    SCOPED_TRACE(dense ? "dense" : "adaptive");
    Built b;
    ASSERT_TRUE(b.Build("grid_dipole_dipole.dat", dense, 5));
    const Model_Grid &g = b.ds->Model_grid;
    const SemiStructured &m = b.ds->Semistructured;
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
      for (int n = 0; n < el.nnodes; n++) { // and the element lies in its plan block
        const Main_Point p = Main_Of(*b.ds, el.node[n]);
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
    EXPECT_EQ(cache.tetgen_calls, ++calls);
    int vol6 = 0, flat = 0;
    for (const auto &t : *tets) {
      const auto p = Pos(t[0]), a = Pos(t[1]), b = Pos(t[2]), c = Pos(t[3]);
      int e[3][3];
      for (int x = 0; x < 3; x++)
        e[0][x] = a[x] - p[x], e[1][x] = b[x] - p[x], e[2][x] = c[x] - p[x];
      const int det = e[0][0] * (e[1][1] * e[2][2] - e[1][2] * e[2][1]) -
                      e[0][1] * (e[1][0] * e[2][2] - e[1][2] * e[2][0]) +
                      e[0][2] * (e[1][0] * e[2][1] - e[1][1] * e[2][0]);
      flat += det == 0;
      vol6 += std::abs(det);
    }
    EXPECT_EQ(flat, 0);
    EXPECT_EQ(vol6, 6 * f->span_x * f->span_y);
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
  const std::string script = tmp.sub("check.py"), vtk = tmp.sub("mesh.vtk");
  Write_File(script, R"(import sys, vtk
reader = vtk.vtkUnstructuredGridReader()
reader.SetFileName(sys.argv[1])
reader.Update()
sizes = vtk.vtkCellSizeFilter()
sizes.SetInputConnection(reader.GetOutputPort())
sizes.Update()
volume = sizes.GetOutput().GetCellData().GetArray("Volume")
vols = [volume.GetValue(i) for i in range(volume.GetNumberOfTuples())]
cells, want = int(sys.argv[2]), float(sys.argv[3])
if len(vols) != cells or min(vols) <= 0 or abs(sum(vols) - want) > 1e-4 * want:
    sys.exit("%d cells, smallest %g, volume %.9g, expected %d cells of %.9g" %
             (len(vols), min(vols), sum(vols), cells, want))
)");
  for (const Case &c : {cases[1], cases[3]}) {
    SCOPED_TRACE(c.name);
    Data_Set &ds = Mesh(c);
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
