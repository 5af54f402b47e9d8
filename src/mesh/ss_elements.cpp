// Elements of the solved mesh, level by level in z: every main cell a
// hexahedron (dense form), or the adaptive form's hexahedra and the
// tetrahedra of its transition blocks.
#include <algorithm>
#include <cmath>
#include <unordered_set>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "forward/element_matrices.h"
#include "mesh/mesh.h"
#include "mesh/plan_blocks.h"
#include "mesh/transition_block.h"
#include "survey/survey_text.h"

namespace {

// Main node number (from 0) of main point (i, j, k), each from 0.
inline int Main(const Model_Grid &g, int i, int j, int k) {
  return i + (j + k * g.ly) * g.lx;
}

bool In_Jacobian(const SemiStructured &ss, int bi, int bj, int k) {
  return bi + 1 >= ss.jac_x[0] && bi + 1 <= ss.jac_x[1] && bj + 1 >= ss.jac_y[0] &&
         bj + 1 <= ss.jac_y[1] && k >= ss.z_jac_first && k <= ss.z_jac;
}

// A hexahedron over main points i0..i1, j0..j1 at level k (from 1); node
// numbers hold main node numbers until the solved nodes are numbered.
void Set_Hexahedron(const Model_Grid &g, Element &e, int i0, int i1, int j0, int j1, int k) {
  e = Element();
  e.nnodes = 8;
  e.code = 8;
  e.layer = k;
  const int top = k - 1, bot = k;
  const int corner[8][3] = {{i0, j0, top}, {i0, j0, bot}, {i1, j0, bot}, {i1, j0, top},
                            {i0, j1, top}, {i0, j1, bot}, {i1, j1, bot}, {i1, j1, top}};
  for (int c = 0; c < 8; c++)
    e.node[c] = Main(g, corner[c][0], corner[c][1], corner[c][2]);
  if (i0 == 0)
    e.faces |= FACE_LOW_X;
  if (i1 == g.lx - 1)
    e.faces |= FACE_HIGH_X;
  if (j0 == 0)
    e.faces |= FACE_LOW_Y;
  if (j1 == g.ly - 1)
    e.faces |= FACE_HIGH_Y;
  if (k == g.lzw - 1)
    e.faces |= FACE_BOTTOM;
}

// Steps of the adaptive blocks.
struct Steps {
  const SemiStructured &ss;
  const Plan_Axis &ax, &ay;
  int64_t plan;
  // Step in x and y of block (bi, bj) at level k; false outside the mesh.
  bool At(int bi, int bj, int k, int &sx, int &sy) const {
    if (bi < 0 || bj < 0 || bi >= ss.nblk_x || bj >= ss.nblk_y || k < 1 || k > ss.nblk_z)
      return false;
    const int64_t c = (k - 1) * plan + static_cast<int64_t>(bj) * ss.nblk_x + bi;
    sx = ax.Span(bi) / ss.sub_x[c];
    sy = ay.Span(bj) / ss.sub_y[c];
    return true;
  }
  int X(int bi, int bj, int k, int own) const {
    int sx, sy;
    return At(bi, bj, k, sx, sy) ? std::min(own, sx) : own;
  }
  int Y(int bi, int bj, int k, int own) const {
    int sx, sy;
    return At(bi, bj, k, sx, sy) ? std::min(own, sy) : own;
  }
};

// Face and edge steps of block (bi, bj) at level k.
Block_Faces Faces_Of(const Steps &s, int bi, int bj, int k) {
  Block_Faces f;
  int sx = 1, sy = 1;
  s.At(bi, bj, k, sx, sy);
  f.span_x = s.ax.Span(bi);
  f.span_y = s.ay.Span(bj);
  f.top_x = s.X(bi, bj, k - 1, sx);
  f.top_y = s.Y(bi, bj, k - 1, sy);
  f.bot_x = s.X(bi, bj, k + 1, sx);
  f.bot_y = s.Y(bi, bj, k + 1, sy);
  f.side_lo_x = s.Y(bi - 1, bj, k, sy);
  f.side_hi_x = s.Y(bi + 1, bj, k, sy);
  f.side_lo_y = s.X(bi, bj - 1, k, sx);
  f.side_hi_y = s.X(bi, bj + 1, k, sx);
  for (int c = 0; c < 2; c++) {
    const int kk = c == 0 ? k - 1 : k + 1; // the level across this horizontal face
    // Edges along x are shared with the blocks across y; edges along y with
    // the blocks across x; each also with the level across the face.
    const int dj[2] = {-1, 1}, di[2] = {-1, 1};
    for (int e = 0; e < 2; e++) {
      int st = sx;
      st = s.X(bi, bj + dj[e], k, st);
      st = s.X(bi, bj, kk, st);
      st = s.X(bi, bj + dj[e], kk, st);
      f.edge[c][e] = st;
      st = sy;
      st = s.Y(bi + di[e], bj, k, st);
      st = s.Y(bi, bj, kk, st);
      st = s.Y(bi + di[e], bj, kk, st);
      f.edge[c][2 + e] = st;
    }
  }
  return f;
}

uint64_t Own_Points(int span_x, int span_y, int sx, int sy) {
  Block_Faces f;
  f.span_x = span_x;
  f.span_y = span_y;
  f.top_x = f.bot_x = sx;
  f.top_y = f.bot_y = sy;
  for (auto &c : f.edge) {
    c[0] = c[1] = sx;
    c[2] = c[3] = sy;
  }
  return Block_Points(f);
}

// Volume check of a transition block at its real positions. The lattice
// check of its pattern proved that the tetrahedra fill the block; here vol1
// is the volume the block's boundary encloses (the signed sum of its
// tetrahedra, by the divergence theorem) and vol2 the sum of their volumes:
// they differ when the distortion of the mesh folds a tetrahedron over.
int Check_Block_Volume(Data_Set &ds, const Element *tets, int64_t ntets, int i0, int j0, int k,
                       int block) {
  const Model_Grid &g = ds.Model_grid;
  double vol1 = 0.0, vol2 = 0.0;
  for (int64_t t = 0; t < ntets; t++) {
    double p[4][3];
    for (int c = 0; c < 4; c++) {
      p[c][0] = g.xn[tets[t].node[c]];
      p[c][1] = g.yn[tets[t].node[c]];
      p[c][2] = g.zn[tets[t].node[c]];
    }
    const double v = Tet_Volume6(p) / 6.0;
    vol1 += v;
    vol2 += std::fabs(v);
  }
  if (!Tetrahedra_Folded(vol1, vol2))
    return 0;
  vol1 = std::fabs(vol1);
  return Refuse_Always(ds, "Error Message",
                       "Error in cell %d,%d,%d for model block %d\nvol1 %14.6e vol2 %14.6e diff "
                       "%14.6e",
                       i0 + 1, j0 + 1, k, block, vol1, vol2, vol1 - vol2);
}

// Marks the hexahedron faces that the tetrahedra of a transition block cut
// by a diagonal. Both sides then interpolate the potential on the face
// alike (linear on each triangle), so the mesh stays conforming. A diagonal
// of a hexahedron face that is also a tetrahedron edge can only be the cut
// of that face by the tetrahedra across it. Node numbers are main node
// numbers (below `main_nodes`).
void Mark_Cut_Faces(Element *el, int64_t n, int64_t main_nodes) {
  std::vector<char> on_tet(static_cast<size_t>(main_nodes), 0);
  std::unordered_set<uint64_t> edges;
  const auto key = [main_nodes](int a, int b) {
    return static_cast<uint64_t>(std::min(a, b)) * static_cast<uint64_t>(main_nodes) +
           static_cast<uint64_t>(std::max(a, b));
  };
  for (int64_t e = 0; e < n; e++) {
    if (!el[e].tet)
      continue;
    for (int a = 0; a < 4; a++) {
      on_tet[el[e].node[a]] = 1;
      for (int b = a + 1; b < 4; b++)
        edges.insert(key(el[e].node[a], el[e].node[b]));
    }
  }
  const auto edge = [&](const Element &h, const int d[2]) {
    const int a = h.node[d[0]], b = h.node[d[1]];
    return on_tet[a] && on_tet[b] && edges.count(key(a, b)) > 0;
  };
  for (int64_t e = 0; e < n; e++) {
    Element &h = el[e];
    if (h.nnodes != 8)
      continue;
    h.cut_faces = 0;
    for (int f = 0; f < 6; f++) {
      int d1[2], d2[2];
      Hex_Face_Diagonals(f, d1, d2);
      const unsigned code = edge(h, d1) ? 1u : edge(h, d2) ? 2u : 0u;
      h.cut_faces |= static_cast<int>(code << (2 * f));
    }
  }
}

} // namespace

int Generate_SemiStructured_Mesh_Elements_Rect_Jac(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  const Plan_Axis ax{g.ixfirst, g.ngridx, g.nodes_per_unit_spacing};
  const Plan_Axis ay{g.jyfirst, g.ngridy, g.nodes_per_unit_spacing};
  const int levels = g.lzw - 1;
  const int64_t per_level = static_cast<int64_t>(g.lx - 1) * (g.ly - 1);
  const int64_t total = per_level * levels;
  ss.max_elements = std::max<int64_t>(ds.Data_lim_sys.max_cells_mesh, 1);
  if (total > ss.max_elements) {
    Refuse_Always(ds, "Warning!",
                  "\nWarning! Current number of elements up to level %d out of %d is "
                  "%lld.\nMaximum number of elements allocated is %lld\n\n",
                  static_cast<int>(ss.max_elements / per_level) + 1, levels,
                  static_cast<long long>(total), static_cast<long long>(ss.max_elements));
    return 1;
  }
  if (ss.elements.Resize(ds, total, "mesh elements") ||
      ss.level_first.Resize(ds, levels + 1, "mesh levels"))
    return 1;
  for (int k = 1; k <= levels; k++) {
    ss.level_first[k - 1] = (k - 1) * per_level;
    Element *level = ss.elements.data() + (k - 1) * per_level;
#pragma omp parallel for schedule(static)
    for (int j = 0; j < g.ly - 1; j++)
      for (int i = 0; i < g.lx - 1; i++) {
        Element &e = level[static_cast<int64_t>(j) * (g.lx - 1) + i];
        Set_Hexahedron(g, e, i, i + 1, j, j + 1, k);
        const int bi = ax.Block_Of_Cell(i), bj = ay.Block_Of_Cell(j);
        e.cell = bj * ax.Count() + bi;
        e.jac = In_Jacobian(ss, bi, bj, k);
      }
  }
  ss.level_first[levels] = total;
  ss.nlevels = levels;
  ss.number_elements = total;
  ss.num_hex = total;
  ss.num_tet = ss.num_transition_blocks = ss.num_patterns = 0;
  return 0;
}

int Generate_SemiStructured_Mesh_Elements_Adaptive(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  const Plan_Axis ax{g.ixfirst, g.ngridx, g.nodes_per_unit_spacing};
  const Plan_Axis ay{g.jyfirst, g.ngridy, g.nodes_per_unit_spacing};
  const Steps steps{ss, ax, ay, static_cast<int64_t>(ss.nblk_x) * ss.nblk_y};
  ss.max_elements = std::max<int64_t>(ds.Data_lim_sys.max_cells_mesh, 1);
  Pattern_Cache cache;
  // Two passes: the first counts the elements (and meets every pattern),
  // the second writes them into a block of exactly that size.
  int64_t count = 0;
  int levels_done = ss.nblk_z;
  for (int pass = 0; pass < 2; pass++) {
    if (pass == 1) {
      if (ss.elements.Resize(ds, count, "mesh elements") ||
          ss.level_first.Resize(ds, levels_done + 1, "mesh levels"))
        return 1;
    }
    int64_t n = 0, transitions = 0;
    int64_t ntet = 0;
    for (int k = 1; k <= levels_done; k++) {
      if (pass == 1) {
        ss.level_first[k - 1] = n;
        char text[64];
        print_to_buffer(text, sizeof text, "Generating semistructured mesh level %d", k);
        progress(ds, text, static_cast<double>(k) / levels_done);
      }
      const int64_t level_start = n, changes_start = transitions;
      for (int bj = 0; bj < ss.nblk_y; bj++)
        for (int bi = 0; bi < ss.nblk_x; bi++) {
          int sx = 1, sy = 1;
          steps.At(bi, bj, k, sx, sy);
          const int i0 = ax.Start(bi), j0 = ay.Start(bj);
          const Block_Faces f = Faces_Of(steps, bi, bj, k);
          const uint64_t points = Block_Points(f);
          const int cell = bj * ss.nblk_x + bi;
          const int jac = In_Jacobian(ss, bi, bj, k);
          if (points == Own_Points(f.span_x, f.span_y, sx, sy)) {
            const int64_t nhex = static_cast<int64_t>(f.span_x / sx) * (f.span_y / sy);
            if (pass == 1)
              for (int b = 0; b < f.span_y; b += sy)
                for (int a = 0; a < f.span_x; a += sx) {
                  Element &e = ss.elements[n + (b / sy) * (f.span_x / sx) + a / sx];
                  Set_Hexahedron(g, e, i0 + a, i0 + a + sx, j0 + b, j0 + b + sy, k);
                  e.cell = cell;
                  e.jac = jac;
                }
            n += nhex;
            continue;
          }
          transitions++;
          const Tet_List *tets = nullptr;
          if (Copy_Nodes_Element3(ds, cache, f, points, tets))
            return 1;
          if (pass == 1) {
            for (size_t t = 0; t < tets->size(); t++) {
              Element &e = ss.elements[n + static_cast<int64_t>(t)];
              e = Element();
              e.tet = 1;
              e.nnodes = 4;
              e.code = 20;
              e.cell = cell;
              e.layer = k;
              e.jac = jac;
              for (int c = 0; c < 4; c++) {
                const int bit = (*tets)[t][c];
                e.node[c] = Main(g, i0 + bit % 5, j0 + (bit / 5) % 5, k - 1 + bit / 25);
              }
            }
            if (Check_Block_Volume(ds, &ss.elements[n], static_cast<int64_t>(tets->size()), i0, j0,
                                   k, cell + 1))
              return 1;
          }
          n += static_cast<int64_t>(tets->size());
          ntet += static_cast<int64_t>(tets->size());
        }
      if (pass == 1)
        TRACE("Level %2d nmeshz4 %d nwater %d blk1 %8d  blk change %5d num_ele %8d change %7d\n", k,
              ss.num_fine_used, g.nwater, static_cast<int>(ss.nblk_x * ss.nblk_y),
              static_cast<int>(transitions - changes_start), static_cast<int>(n),
              static_cast<int>(n - level_start));
      if (pass == 0 && n > ss.max_elements) {
        Refuse_Always(ds, "Warning!",
                      "\nWarning! Current number of elements up to level %d out of %d is "
                      "%lld.\nMaximum number of elements allocated is %lld\n\n",
                      k, ss.nblk_z, static_cast<long long>(n),
                      static_cast<long long>(ss.max_elements));
        return 1;
      }
    }
    count = n;
    if (pass == 1) {
      ss.level_first[levels_done] = n;
      ss.nlevels = levels_done;
      ss.number_elements = n;
      ss.num_tet = ntet;
      ss.num_hex = n - ntet;
      ss.num_transition_blocks = transitions;
      if (ntet > 0)
        Mark_Cut_Faces(ss.elements.data(), n, static_cast<int64_t>(g.lx) * g.ly * g.lzw);
    }
  }
  ss.num_patterns = static_cast<int64_t>(cache.patterns.size());
  TRACE("Adaptive elements %lld hexahedra %lld tetrahedra %lld transition blocks %lld patterns "
        "%lld\n",
        static_cast<long long>(ss.number_elements), static_cast<long long>(ss.num_hex),
        static_cast<long long>(ss.num_tet), static_cast<long long>(ss.num_transition_blocks),
        static_cast<long long>(ss.num_patterns));
  return 0;
}
