// The capacitance matrix from its parts: element matrices checked against
// shape-function gradients worked out by hand, the mixed boundary term, the
// row store and its compressed form, the batches of right-hand sides, the
// electrode potential table, the electrode nodes, and the assembled matrix of
// an example mesh against constant and linear fields (the patch test).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/test_support.h"
#include "forward/element_matrices.h"
#include "forward/fem_state.h"
#include "forward/forward.h"
#include "forward/sparse_solver.h"
#include "mesh/mesh.h"

using namespace test_support;

namespace {

using Mat4 = std::array<std::array<double, 4>, 4>;
using Mat8 = std::array<std::array<double, 8>, 8>;

Mat4 Full_Tet(const double k[tet_values]) {
  Mat4 m{};
  for (int v = 0; v < tet_values; v++)
    m[tet_pairs[v][0]][tet_pairs[v][1]] = m[tet_pairs[v][1]][tet_pairs[v][0]] = k[v];
  return m;
}

Mat8 Full_Hex(const double k[hex_values]) {
  Mat8 m{};
  for (int v = 0; v < hex_values; v++)
    m[hex_pairs[v][0]][hex_pairs[v][1]] = m[hex_pairs[v][1]][hex_pairs[v][0]] = k[v];
  return m;
}

Mat8 Hex(const double p[8][3]) {
  double k[hex_values];
  Hex_Element_Matrix(p, k);
  return Full_Hex(k);
}

// Gradients of the linear shape functions of the tetrahedron p[0..3], from
// N_i(p_j) = delta_ij solved by elimination; returns the signed determinant
// of the system (six times the signed volume).
double Shape_Gradients(const double p[4][3], double grad[4][3]) {
  // Gauss-Jordan on [M | I], M's rows (1, x, y, z) of each node: column j
  // of the inverse holds node j's function (a, grad N_j).
  double m[4][8] = {};
  for (int r = 0; r < 4; r++) {
    m[r][0] = 1.0;
    for (int d = 0; d < 3; d++)
      m[r][1 + d] = p[r][d];
    m[r][4 + r] = 1.0;
  }
  double det = 1.0;
  for (int c = 0; c < 4; c++) {
    int piv = c;
    for (int r = c + 1; r < 4; r++)
      if (std::fabs(m[r][c]) > std::fabs(m[piv][c]))
        piv = r;
    if (piv != c) {
      std::swap(m[piv], m[c]);
      det = -det;
    }
    det *= m[c][c];
    const double s = m[c][c];
    for (int k = 0; k < 8; k++)
      m[c][k] /= s;
    for (int r = 0; r < 4; r++)
      if (r != c) {
        const double f = m[r][c];
        for (int k = 0; k < 8; k++)
          m[r][k] -= f * m[c][k];
      }
  }
  for (int j = 0; j < 4; j++)
    for (int d = 0; d < 3; d++)
      grad[j][d] = m[1 + d][4 + j];
  return det;
}

// One five-tetrahedron decomposition of the hexahedron p, assembled from
// Tet_Element_Matrix: tets[][] are node numbers from 0.
Mat8 Decomposition(const double p[8][3], const int tets[5][4]) {
  Mat8 m{};
  for (int t = 0; t < 5; t++) {
    double q[4][3], k[tet_values];
    for (int c = 0; c < 4; c++)
      for (int d = 0; d < 3; d++)
        q[c][d] = p[tets[t][c]][d];
    Tet_Element_Matrix(q, k);
    const Mat4 kt = Full_Tet(k);
    for (int a = 0; a < 4; a++)
      for (int b = 0; b < 4; b++)
        m[tets[t][a]][tets[t][b]] += kt[a][b];
  }
  return m;
}

// Decomposition with the central tetrahedron on nodes 1, 3, 6, 8 (from 1),
// and the one with it on the other four corners 2, 4, 5, 7.
const int tets_a[5][4] = {{0, 2, 5, 1}, {2, 0, 7, 3}, {5, 7, 0, 4}, {7, 5, 2, 6}, {0, 2, 5, 7}};
const int tets_b[5][4] = {{0, 1, 3, 4}, {2, 1, 3, 6}, {5, 1, 4, 6}, {7, 3, 4, 6}, {1, 3, 4, 6}};

// The reflection x -> X - x takes node c to node mirror[c].
const int mirror[8] = {3, 2, 1, 0, 7, 6, 5, 4};

// A box in element order: nodes 1-4 at y = y0, 5-8 at y = y1, each set
// (low x, top), (low x, bottom), (high x, bottom), (high x, top); z is depth.
void Box(double p[8][3], double x0, double x1, double y0, double y1, double z0, double z1) {
  const double xs[8] = {x0, x0, x1, x1, x0, x0, x1, x1};
  const double zs[8] = {z0, z1, z1, z0, z0, z1, z1, z0};
  for (int c = 0; c < 8; c++) {
    p[c][0] = xs[c];
    p[c][1] = c < 4 ? y0 : y1;
    p[c][2] = zs[c];
  }
}

double Max_Abs(const Mat8 &m) {
  double s = 0.0;
  for (const auto &row : m)
    for (double v : row)
      s = std::max(s, std::fabs(v));
  return s;
}

struct Read_Example {
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds = Make_Data_Set(tmp, rec);
  // Reads an example; the mesh kind goes in first, as the read sets up the
  // main mesh.
  bool Read(const char *name, int dense) {
    ds->Semistructured.use_dense_rect_mesh = dense;
    const std::string path = tmp.sub(name);
    std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/" + name, path);
    return ds->Run_Command(CMD_READ_DATA, path.c_str()) == 0;
  }
};

} // namespace

// --- Element matrices ----------------------------------------------------------

TEST(AssemblyElementMatrices, TetrahedronFromShapeFunctionGradients) {
  // Right tetrahedron with legs a, b, c on the axes: N1 = 1 - x/a - y/b - z/c,
  // N2 = x/a, N3 = y/b, N4 = z/c.
  const double a = 2.0, b = 3.0, c = 0.5;
  const double right[4][3] = {{0, 0, 0}, {a, 0, 0}, {0, b, 0}, {0, 0, c}};
  const double g[4][3] = {{-1 / a, -1 / b, -1 / c}, {1 / a, 0, 0}, {0, 1 / b, 0}, {0, 0, 1 / c}};
  double k[tet_values];
  const double vol = Tet_Element_Matrix(right, k);
  EXPECT_NEAR(vol, a * b * c / 6.0, 1e-15);
  for (int v = 0; v < tet_values; v++) {
    const int i = tet_pairs[v][0], j = tet_pairs[v][1];
    const double want = vol * (g[i][0] * g[j][0] + g[i][1] * g[j][1] + g[i][2] * g[j][2]);
    EXPECT_NEAR(k[v], want, 1e-14) << "pair " << i << "," << j;
  }
  // The stored pairs are the upper triangle, each once.
  std::set<std::pair<int, int>> seen;
  for (int v = 0; v < tet_values; v++) {
    EXPECT_LE(tet_pairs[v][0], tet_pairs[v][1]);
    seen.insert({tet_pairs[v][0], tet_pairs[v][1]});
  }
  EXPECT_EQ(seen.size(), 10u);

  // A skewed tetrahedron, in both orientations: gradients from the linear
  // system, the volume from its determinant; rows sum to zero.
  const double skew[4][3] = {{0.3, -0.2, 1.1}, {2.4, 0.5, 1.7}, {0.9, 3.1, 0.8}, {1.2, 1.0, 4.6}};
  for (int flip = 0; flip < 2; flip++) {
    double p[4][3];
    const int order[4] = {0, 1, flip ? 3 : 2, flip ? 2 : 3};
    for (int n = 0; n < 4; n++)
      for (int d = 0; d < 3; d++)
        p[n][d] = skew[order[n]][d];
    double grad[4][3];
    const double det = Shape_Gradients(p, grad);
    const double v = Tet_Element_Matrix(p, k);
    EXPECT_NEAR(v, std::fabs(det) / 6.0, 1e-13 * v);
    const Mat4 m = Full_Tet(k);
    for (int i = 0; i < 4; i++) {
      double row = 0.0;
      for (int j = 0; j < 4; j++) {
        const double want =
            v * (grad[i][0] * grad[j][0] + grad[i][1] * grad[j][1] + grad[i][2] * grad[j][2]);
        EXPECT_NEAR(m[i][j], want, 1e-12 * std::fabs(m[i][i])) << "flip " << flip;
        row += m[i][j];
      }
      EXPECT_NEAR(row, 0.0, 1e-12 * m[i][i]);
      EXPECT_GT(m[i][i], 0.0);
    }
  }
}

TEST(AssemblyElementMatrices, HexahedronMeanOfTwoDecompositions) {
  // The stored pairs: the upper triangle less the four body diagonals.
  std::set<std::pair<int, int>> stored;
  for (int v = 0; v < hex_values; v++) {
    EXPECT_LE(hex_pairs[v][0], hex_pairs[v][1]);
    stored.insert({hex_pairs[v][0], hex_pairs[v][1]});
  }
  EXPECT_EQ(stored.size(), 32u);
  const std::set<std::pair<int, int>> diagonals = {{0, 6}, {1, 7}, {2, 4}, {3, 5}};
  for (int i = 0; i < 8; i++)
    for (int j = i; j < 8; j++)
      EXPECT_EQ(stored.count({i, j}), diagonals.count({i, j}) ? 0u : 1u) << i << "," << j;

  // Unit cube: each decomposition has four corner tetrahedra (legs 1, volume
  // 1/6) and a regular central one (edge sqrt 2, volume 1/3). The central
  // one's corners take 1/6 from each of three corner tetrahedra and 1/4 from
  // itself (3/4), the other corners 1/2; cube edges -1/6 (one corner
  // tetrahedron), face diagonals -1/12 in the central tetrahedron and 0 in
  // the other decomposition. The mean: 5/8, -1/6, -1/24, body diagonals 0.
  double cube[8][3];
  Box(cube, 0, 1, 0, 1, 0, 1);
  const Mat8 k = Hex(cube);
  for (int i = 0; i < 8; i++)
    for (int j = 0; j < 8; j++) {
      int differ = 0;
      for (int d = 0; d < 3; d++)
        differ += cube[i][d] != cube[j][d];
      const double want[4] = {5.0 / 8.0, -1.0 / 6.0, -1.0 / 24.0, 0.0};
      EXPECT_NEAR(k[i][j], want[differ], 1e-14) << i << "," << j;
    }
  // Each decomposition alone is lopsided: its central corners (nodes 1, 3,
  // 6, 8 for the first) are stiffer, so the reflection x -> 1 - x, which
  // swaps the two sets, changes it; the mean is unchanged.
  const Mat8 da = Decomposition(cube, tets_a);
  EXPECT_NEAR(da[0][0], 0.75, 1e-14);
  EXPECT_NEAR(da[1][1], 0.5, 1e-14);
  EXPECT_NEAR(da[0][2], -1.0 / 12.0, 1e-14);
  EXPECT_NEAR(da[1][3], 0.0, 1e-14);
  double asym_a = 0.0, asym_mean = 0.0;
  for (int i = 0; i < 8; i++)
    for (int j = 0; j < 8; j++) {
      asym_a = std::max(asym_a, std::fabs(da[mirror[i]][mirror[j]] - da[i][j]));
      asym_mean = std::max(asym_mean, std::fabs(k[mirror[i]][mirror[j]] - k[i][j]));
    }
  EXPECT_NEAR(asym_a, 0.25, 1e-14);
  EXPECT_LT(asym_mean, 1e-14);

  // A general hexahedron with planar faces: a box of 2 by 1.5 under a
  // sloping top (depth 0.2 + 0.1 x - 0.15 y), bottom at depth 1.4.
  double p[8][3];
  Box(p, 0, 2, 0, 1.5, 0, 1.4);
  for (int c = 0; c < 8; c++)
    if (p[c][2] == 0.0)
      p[c][2] = 0.2 + 0.1 * p[c][0] - 0.15 * p[c][1];
  const double volume = 2.0 * 1.5 * (1.4 - (0.2 + 0.1 * 1.0 - 0.15 * 0.75));
  const Mat8 h = Hex(p);
  const Mat8 db = Decomposition(p, tets_b), dp = Decomposition(p, tets_a);
  Mat8 mean{};
  for (int i = 0; i < 8; i++)
    for (int j = 0; j < 8; j++)
      mean[i][j] = 0.5 * (dp[i][j] + db[i][j]);
  const double scale = Max_Abs(h);
  for (int i = 0; i < 8; i++) {
    double row = 0.0;
    for (int j = 0; j < 8; j++) {
      EXPECT_NEAR(h[i][j], mean[i][j], 1e-13 * scale) << i << "," << j;
      row += h[i][j];
    }
    EXPECT_NEAR(row, 0.0, 1e-12 * h[i][i]);
    EXPECT_GT(h[i][i], 0.0);
  }
  // Neither decomposition couples a body diagonal, so nothing is dropped.
  for (const auto &[i, j] : diagonals)
    EXPECT_EQ(dp[i][j] + db[i][j], 0.0) << i << "," << j;

  // Energy of a linear field: |a|^2 times the volume.
  const double av[3][3] = {{1, 0, 0}, {0, 1, 0}, {0.7, -1.3, 2.1}};
  for (const auto &a : av) {
    double u[8];
    for (int c = 0; c < 8; c++)
      u[c] = a[0] * p[c][0] + a[1] * p[c][1] + a[2] * p[c][2] + 3.0;
    double e = 0.0;
    for (int i = 0; i < 8; i++)
      for (int j = 0; j < 8; j++)
        e += u[i] * h[i][j] * u[j];
    const double a2 = a[0] * a[0] + a[1] * a[1] + a[2] * a[2];
    EXPECT_NEAR(e, a2 * volume, 1e-12 * a2 * volume);
  }

  // The mirror image (x -> 2 - x, renumbered to element order) has the
  // mirrored matrix.
  double q[8][3];
  for (int c = 0; c < 8; c++) {
    q[c][0] = 2.0 - p[mirror[c]][0];
    q[c][1] = p[mirror[c]][1];
    q[c][2] = p[mirror[c]][2];
  }
  const Mat8 hm = Hex(q);
  for (int i = 0; i < 8; i++)
    for (int j = 0; j < 8; j++)
      EXPECT_NEAR(hm[i][j], h[mirror[i]][mirror[j]], 1e-13 * scale) << i << "," << j;
}

// --- Boundary term ---------------------------------------------------------------

TEST(AssemblyBoundaryTerm, FaceCoefficientAndMassMatrix) {
  // Faces of a box hexahedron: each lies in its plane, corners run round it.
  const double x0 = -10, x1 = -8, y0 = 2, y1 = 5, z0 = 3, z1 = 7;
  double p[8][3];
  Box(p, x0, x1, y0, y1, z0, z1);
  const double xmid = 1.5, ymid = 0.5;
  const unsigned char flags[5] = {FACE_LOW_X, FACE_HIGH_X, FACE_LOW_Y, FACE_HIGH_Y, FACE_BOTTOM};
  const int axis[5] = {0, 0, 1, 1, 2};
  const double plane[5] = {x0, x1, y0, y1, z1};
  // Area, centre and the normal distance component of each face, by hand.
  const double area[5] = {(y1 - y0) * (z1 - z0), (y1 - y0) * (z1 - z0), (x1 - x0) * (z1 - z0),
                          (x1 - x0) * (z1 - z0), (x1 - x0) * (y1 - y0)};
  for (int f = 0; f < 5; f++) {
    EXPECT_EQ(1 << f, flags[f]);
    EXPECT_EQ(hex_face_axis[f], axis[f]);
    double q[4][3];
    double centre[3] = {};
    for (int c = 0; c < 4; c++)
      for (int d = 0; d < 3; d++) {
        q[c][d] = p[hex_face_nodes[f][c]][d];
        centre[d] += 0.25 * q[c][d];
      }
    for (int c = 0; c < 4; c++) {
      EXPECT_EQ(q[c][axis[f]], plane[f]) << "face " << f;
      int differ = 0;
      for (int d = 0; d < 3; d++)
        differ += q[c][d] != q[(c + 1) % 4][d];
      EXPECT_EQ(differ, 1) << "face " << f << " corner " << c;
    }
    const double dx = centre[0] - xmid, dy = centre[1] - ymid, dz = centre[2];
    const double n[3] = {std::fabs(dx), std::fabs(dy), dz};
    const double want = n[axis[f]] * area[f] / (dx * dx + dy * dy + dz * dz);
    EXPECT_NEAR(Boundary_Face_Coefficient(q, hex_face_axis[f], xmid, ymid), want, 1e-14 * want)
        << "face " << f;
  }
  // A low-x face at x = -10: n = 11.5, A = 12, r^2 = 11.5^2 + 3^2 + 5^2.
  double q[4][3];
  for (int c = 0; c < 4; c++)
    for (int d = 0; d < 3; d++)
      q[c][d] = p[hex_face_nodes[0][c]][d];
  EXPECT_NEAR(Boundary_Face_Coefficient(q, 0, xmid, ymid), 11.5 * 12.0 / 166.25, 1e-14);
  // A face seen edge-on from the reference point has no term.
  EXPECT_EQ(Boundary_Face_Coefficient(q, 0, -10.0, ymid), 0.0);

  // The bilinear mass matrix of a unit square, by 2 x 2 Gauss points (exact
  // for these biquadratic products), corners round the square.
  const double corner[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  const double gp[2] = {0.5 - 0.5 / std::sqrt(3.0), 0.5 + 0.5 / std::sqrt(3.0)};
  double mass[4][4] = {};
  for (double s : gp)
    for (double t : gp) {
      double nshape[4];
      for (int c = 0; c < 4; c++)
        nshape[c] = (corner[c][0] ? s : 1 - s) * (corner[c][1] ? t : 1 - t);
      for (int a = 0; a < 4; a++)
        for (int b = 0; b < 4; b++)
          mass[a][b] += 0.25 * nshape[a] * nshape[b];
    }
  const double g = 2.7;
  double m[10];
  Boundary_Face_Matrix(g, m);
  double total = 0.0;
  std::set<std::pair<int, int>> seen;
  for (int v = 0; v < 10; v++) {
    const int a = face_pairs[v][0], b = face_pairs[v][1];
    EXPECT_GE(a, b);
    seen.insert({a, b});
    EXPECT_NEAR(m[v], g * mass[a][b], 1e-14) << a << "," << b;
    total += a == b ? m[v] : 2.0 * m[v];
  }
  EXPECT_EQ(seen.size(), 10u);
  EXPECT_NEAR(total, g, 1e-14);
  EXPECT_NEAR(m[0], g / 9.0, 1e-15);
  EXPECT_NEAR(m[1], g / 18.0, 1e-15);
  EXPECT_NEAR(m[2], g / 36.0, 1e-15);
}

// --- Row store and compressed rows ----------------------------------------------------

TEST(AssemblyCooMatrix, RowStoreOrderRangeAndCapacity) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  CooMatrix64 m;
  ASSERT_EQ(m.Allocate_COO(*ds, 50, 0), 0);
  EXPECT_EQ(m.mtype, 2);
  // (r, c) and (c, r) are one entry, in the row of the smaller node.
  EXPECT_EQ(m.add(3, 1, 1.5, 0.0), 0);
  EXPECT_EQ(m.add(1, 3, 2.25, 0.0), 0);
  EXPECT_EQ(m.row_count[0], 1);
  EXPECT_EQ(m.row_count[2], 0);
  EXPECT_EQ(m.coo_col[0], 3);
  EXPECT_EQ(m.coo_val[0], 3.75);
  // Nodes out of range are refused without marking an overflow.
  EXPECT_EQ(m.add(0, 2, 1.0, 0.0), 1);
  EXPECT_EQ(m.add(2, 51, 1.0, 0.0), 1);
  EXPECT_EQ(m.add(51, 2, 1.0, 0.0), 1);
  EXPECT_EQ(m.add(-1, 2, 1.0, 0.0), 1);
  EXPECT_EQ(m.overflow, 0);
  EXPECT_EQ(m.row_count[1], 0);
  // A row takes 36 distinct columns; the 37th is refused and marks the
  // overflow, while columns already there still accumulate.
  for (int c = 5; c < 5 + CooMatrix64::num_diags; c++)
    EXPECT_EQ(m.add(5, c, 1.0, 0.0), 0) << c;
  EXPECT_EQ(m.row_count[4], 36);
  EXPECT_EQ(m.overflow, 0);
  EXPECT_EQ(m.add(5, 5 + CooMatrix64::num_diags, 1.0, 0.0), 1);
  EXPECT_EQ(m.overflow, 1);
  EXPECT_EQ(m.row_count[4], 36);
  EXPECT_EQ(m.add(7, 5, 1.0, 0.0), 0);
  EXPECT_EQ(m.coo_val[4 * CooMatrix64::num_diags + 2], 2.0);
  EXPECT_EQ(m.add(6, 50, 1.0, 0.0), 0);
  m.Free_COO();
}

TEST(AssemblyCooMatrix, CompressedRowsThroughFileAndAdjacency) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  // Entries added in both orders, repeated, columns out of order.
  struct Add {
    int r, c;
    double v;
  };
  const Add adds[] = {{1, 4, -2.0}, {1, 1, 4.0},  {7, 1, 0.125},  {2, 1, -1.0},  {1, 2, -0.5},
                      {2, 2, 5.0},  {3, 2, -1.5}, {6, 3, -0.5},   {3, 3, 3.0},   {3, 6, -0.25},
                      {4, 4, 2.0},  {5, 4, -1.0}, {5, 5, 1.0},    {7, 5, 0.75},  {6, 6, 2.5},
                      {7, 7, 1.0},  {2, 3, -0.5}, {4, 4, 0.5},    {6, 2, 0.375}, {2, 7, -3.0},
                      {7, 2, 0.25}, {1, 1, -1.0}, {4, 7, 0.0625}, {2, 4, 1.25},  {3, 7, -0.125}};
  const int n = 7;
  for (int cmplx = 0; cmplx < 2; cmplx++) {
    SCOPED_TRACE(cmplx ? "complex" : "real");
    std::map<std::pair<int, int>, std::pair<double, double>> want;
    CooMatrix64 m;
    ASSERT_EQ(m.Allocate_COO(*ds, n, cmplx), 0);
    EXPECT_EQ(m.mtype, cmplx ? 6 : 2);
    for (const Add &a : adds) {
      const double vi = 10.0 * a.v + 0.5;
      ASSERT_EQ(m.add(a.r, a.c, a.v, vi), 0);
      auto &w = want[{std::min(a.r, a.c), std::max(a.r, a.c)}];
      w.first += a.v;
      w.second += vi;
    }
    const std::string path = tmp.sub(cmplx ? "csr_c.bin" : "csr_r.bin");
    ASSERT_EQ(m.COO_to_CSR_Fix(*ds, path), 0);
    EXPECT_TRUE(Exists(path));
    ASSERT_EQ(m.Get_CSR(*ds, path), 0);
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(m.count, static_cast<int64_t>(want.size()));
    EXPECT_EQ(m.ia[0], 1);
    EXPECT_EQ(m.ia[n], m.count + 1);
    int64_t longest = 0;
    auto it = want.begin();
    for (int r = 1; r <= n; r++) {
      longest = std::max(longest, m.ia[r] - m.ia[r - 1]);
      for (int64_t k = m.ia[r - 1] - 1; k < m.ia[r] - 1; k++, ++it) {
        ASSERT_NE(it, want.end());
        EXPECT_EQ(it->first.first, r);
        EXPECT_EQ(m.ja[k], it->first.second) << "row " << r;
        const int vw = cmplx ? 2 : 1;
        EXPECT_DOUBLE_EQ(m.ad[k * vw], it->second.first) << r << "," << m.ja[k];
        EXPECT_EQ(m.a[k * vw], static_cast<float>(m.ad[k * vw]));
        if (cmplx) {
          EXPECT_DOUBLE_EQ(m.ad[k * 2 + 1], it->second.second) << r << "," << m.ja[k];
          EXPECT_EQ(m.a[k * 2 + 1], static_cast<float>(m.ad[k * 2 + 1]));
        }
      }
    }
    EXPECT_EQ(it, want.end());
    EXPECT_EQ(m.max_adj, 2 * longest);

    // The full graph without the diagonal: each off-diagonal entry both ways.
    std::vector<std::set<int>> nb(n + 1);
    for (const auto &e : want)
      if (e.first.first != e.first.second) {
        nb[e.first.first].insert(e.first.second);
        nb[e.first.second].insert(e.first.first);
      }
    size_t most = 0, edges = 0;
    for (const auto &s : nb) {
      most = std::max(most, s.size());
      edges += s.size();
    }
    std::vector<int> xadj(n + 1), adjncy(edges);
    EXPECT_EQ(m.Set_Adjacency_From_CSR(static_cast<int64_t>(most), xadj.data(), adjncy.data()),
              static_cast<int64_t>(most));
    EXPECT_EQ(xadj[0], 1);
    for (int r = 1; r <= n; r++) {
      const std::set<int> got(adjncy.begin() + xadj[r - 1] - 1, adjncy.begin() + xadj[r] - 1);
      EXPECT_EQ(static_cast<size_t>(xadj[r] - xadj[r - 1]), got.size()) << "row " << r;
      EXPECT_EQ(got, nb[r]) << "row " << r;
    }
    EXPECT_EQ(m.Set_Adjacency_From_CSR(static_cast<int64_t>(most) - 1, xadj.data(), adjncy.data()),
              -1);
    m.Free_CSR();
  }

  // A column met twice in a row of the store (as a direct fill leaves it) is
  // merged by the conversion.
  CooMatrix64 m;
  ASSERT_EQ(m.Allocate_COO(*ds, 3, 0), 0);
  m.row_count[0] = 3;
  m.coo_col[0] = 3;
  m.coo_col[1] = 1;
  m.coo_col[2] = 3;
  m.coo_val[0] = 1.0;
  m.coo_val[1] = 2.0;
  m.coo_val[2] = 4.0;
  ASSERT_EQ(m.add(2, 2, 7.0, 0.0), 0);
  const std::string path = tmp.sub("csr_dup.bin");
  ASSERT_EQ(m.COO_to_CSR_Fix(*ds, path), 0);
  ASSERT_EQ(m.Get_CSR(*ds, path), 0);
  ASSERT_EQ(m.count, 3);
  EXPECT_EQ(m.ia[1], 3);
  EXPECT_EQ(m.ia[2], 4);
  EXPECT_EQ(m.ia[3], 4);
  EXPECT_EQ(m.ja[0], 1);
  EXPECT_EQ(m.ja[1], 3);
  EXPECT_EQ(m.ja[2], 2);
  EXPECT_EQ(m.ad[0], 2.0);
  EXPECT_EQ(m.ad[1], 5.0);
  EXPECT_EQ(m.ad[2], 7.0);
  EXPECT_EQ(m.max_adj, 4);
  m.Free_CSR();
}

// --- Batches of right-hand sides --------------------------------------------------------

TEST(AssemblySolverBatches, RightHandSidesPerBatch) {
  auto nrhs = [](int64_t n, int cmplx, int64_t nelec, double cache, int threads) {
    return Library_Batch(n, cmplx != 0, nelec, cache, threads);
  };
  // 1 GB of single-precision values over 3000000 equations: 89 columns,
  // then a multiple of the threads at or below it.
  EXPECT_EQ(nrhs(3000000, 0, 1000, 1.0, 1), 89);
  EXPECT_EQ(nrhs(3000000, 0, 1000, 1.0, 4), 88);
  EXPECT_EQ(nrhs(3000000, 0, 1000, 1.0, 3), 87);
  EXPECT_EQ(nrhs(3000000, 0, 1000, 1.0, 16), 80);
  // Small meshes: at most 256 real and 128 complex columns.
  EXPECT_EQ(nrhs(1000, 0, 100000, 8.0, 4), 256);
  EXPECT_EQ(nrhs(1000, 1, 100000, 8.0, 4), 128);
  // Above 5000000 equations at most 64 (32 complex).
  EXPECT_EQ(nrhs(5000001, 0, 100000, 8.0, 1), 64);
  EXPECT_EQ(nrhs(6000000, 1, 100000, 8.0, 1), 32);
  // More sources than threads always make at least two batches.
  for (int threads : {1, 2, 3, 4, 8, 16})
    for (int64_t n : {1000LL, 3000000LL, 6000000LL})
      for (int cmplx = 0; cmplx < 2; cmplx++)
        for (int64_t nelec = threads + 1; nelec <= 300; nelec++) {
          const int64_t r = nrhs(n, cmplx, nelec, 2.0, threads);
          ASSERT_GE(r, 1);
          ASSERT_GE((nelec + r - 1) / r, 2)
              << "threads " << threads << " n " << n << " nelec " << nelec << " nrhs " << r;
        }
  // 1 GB over 2684354 equations: 100 columns, so 1000 sources take 10 batches.
  EXPECT_EQ(nrhs(2684354, 0, 1000, 1.0, 4), 100);
  EXPECT_EQ(nrhs(2684354, 0, 1000, 1.0, 1), 100);
}

TEST(AssemblySolverBatches, FewSourcesTakeOneBatchOfThreadWidth) {
  // Two electrodes on four threads: one batch as wide as the threads, not a
  // block of right-hand sides sized for the cache.
  EXPECT_EQ(Library_Batch(1000, false, 2, 2.0, 4), 4);
}

// --- Electrode potential table -----------------------------------------------------------

TEST(AssemblyPotentialTable, RowsAndSymmetricIndex) {
  Read_Example r;
  ASSERT_TRUE(r.Read("grid_9x14.dat", 0));
  Data_Set &ds = *r.ds;
  Fem_State &fem = ds.Fem;
  ds.use_dipoles_fem = 0;
  fem.use_file = 0;
  for (const int nelec : {5, 2}) {
    for (const int jacob : {0, 1}) {
      SCOPED_TRACE("nelec " + std::to_string(nelec) + " jacob " + std::to_string(jacob));
      // Electrode e sits on solved node e alone; the solution of source s is
      // 10 s + j at node j.
      fem.nelec = nelec;
      ASSERT_EQ(fem.en.Resize(ds, nelec, "electrode nodes"), 0);
      for (int e = 0; e < nelec; e++) {
        fem.en[e].ni = 1;
        fem.en[e].elec_int_ss[0] = e + 1;
        fem.en[e].w[0] = 1.0f;
      }
      fem.coomatrix64.n = nelec;
      fem.coomatrix64.cmplx = 0;
      ASSERT_EQ(Set_Source_List(ds, jacob), 0);
      // The last electrode has no row to fill and is a source only when the
      // whole fields are kept.
      ASSERT_EQ(fem.nsources, jacob ? nelec : nelec - 1);
      for (int s = 0; s < fem.nsources; s++)
        EXPECT_EQ(fem.sources[s], s + 1);
      ASSERT_EQ(Reset_Potential_Files(ds, 0), 0);
      // Batches of two sources.
      for (int first = 0; first < fem.nsources; first += 2) {
        const int nblk = std::min(2, fem.nsources - first);
        std::vector<float> x(static_cast<size_t>(nblk) * nelec);
        for (int c = 0; c < nblk; c++)
          for (int j = 1; j <= nelec; j++)
            x[c * nelec + j - 1] = static_cast<float>(10 * fem.sources[first + c] + j);
        ASSERT_EQ(seq_save_vpot_nblk_ss(ds, nblk, fem.sources.data() + first, x.data(), false), 0);
      }
      // Rows of nelec - 1, nelec - 2, ..., 0 values.
      const int64_t *off = fem.offset_pot.data();
      for (int s = 1; s < fem.nsources; s++)
        EXPECT_EQ(off[s] - off[s - 1], nelec - s) << "row " << s;
      EXPECT_EQ(off[0], 0);
      EXPECT_EQ(fem.kpot, nelec * (nelec - 1) / 2);
      if (jacob) {
        EXPECT_EQ(off[nelec - 1], fem.kpot);
      }
      EXPECT_EQ(static_cast<int64_t>(std::filesystem::file_size(ds.file_names.temp[TF_V_FILE])),
                4 * fem.kpot);
      std::set<int64_t> used;
      for (int a = 1; a <= nelec; a++)
        for (int b = a + 1; b <= nelec; b++) {
          const int64_t k = Potential_Index(off, a, b);
          EXPECT_EQ(Potential_Index(off, b, a), k);
          ASSERT_GE(k, 0);
          ASSERT_LT(k, fem.kpot);
          used.insert(k);
          EXPECT_EQ(fem.vpot[k], static_cast<float>(10 * a + b)) << a << "," << b;
        }
      EXPECT_EQ(static_cast<int64_t>(used.size()), fem.kpot);
      EXPECT_EQ(Potential_Index(off, 1, 2), 0);
      EXPECT_EQ(Potential_Index(off, 2, 1), 0);
    }
  }
}

// --- Electrode nodes ----------------------------------------------------------------------

TEST(AssemblyElectrodeNodes, PointElectrodesOnTheMainMesh) {
  Read_Example r;
  ASSERT_TRUE(r.Read("grid_9x14.dat", 0));
  const Data_Set &ds = *r.ds;
  const Model_Grid &g = ds.Model_grid;
  const float *pos[3] = {g.xn.data(), g.yn.data(), g.zn.data()};
  const int64_t nodes = static_cast<int64_t>(g.lx) * g.ly * g.lzw;
  // Weighted position of the nodes; false when a node or weight is off.
  auto check = [&](const Electrode_Nodes &en, double x, double y, double z, int most) {
    SCOPED_TRACE("electrode at " + std::to_string(x) + ", " + std::to_string(y) + ", " +
                 std::to_string(z));
    EXPECT_GE(en.ni, 1);
    EXPECT_LE(en.ni, most);
    double sum = 0.0, at[3] = {};
    std::set<int> distinct;
    for (int c = 0; c < en.ni; c++) {
      const int node = en.elec_int[c];
      EXPECT_GE(node, 1);
      EXPECT_LE(node, nodes);
      if (node < 1 || node > nodes)
        return;
      distinct.insert(node);
      EXPECT_GT(en.w[c], 1e-4);
      sum += en.w[c];
      for (int d = 0; d < 3; d++)
        at[d] += en.w[c] * static_cast<double>(pos[d][node - 1]);
    }
    EXPECT_EQ(static_cast<int>(distinct.size()), en.ni);
    EXPECT_NEAR(sum, 1.0, 1e-6);
    EXPECT_NEAR(at[0], x, 1e-5);
    EXPECT_NEAR(at[1], y, 1e-5);
    EXPECT_NEAR(at[2], z, 1e-5);
  };
  // Every electrode of the survey lies on a surface node.
  int count = 0;
  for (int e = 0; e < ds.num_point_elecs; e++) {
    const Point_Electrode &p = ds.pe[e];
    if (p.used <= 0)
      continue;
    count++;
    Electrode_Nodes en;
    Point_Electrode_Nodes(g, p.x, p.y, p.depth, true, 0, en);
    EXPECT_EQ(en.ni, 1) << "electrode " << e;
    EXPECT_EQ(en.w[0], 1.0f);
    check(en, p.x, p.y, 0.0, 1);
  }
  EXPECT_EQ(count, 126);
  // Off the nodes: the plan weights are bilinear over the cell (4 nodes, 2
  // on a mesh line), and a buried electrode adds the linear weights between
  // the two levels round its depth (8 nodes, 4 on a mesh line).
  const double plan[][2] = {{2.075, 3.0375}, {1.94, 2.8}, {2.1, 3.0},
                            {2.0, 2.97},     {4.2, 5.19}, {-1.3, 13.55}};
  for (const auto &xy : plan) {
    const bool on_line = xy[0] == 2.0 || xy[1] == 3.0;
    Electrode_Nodes en;
    Point_Electrode_Nodes(g, xy[0], xy[1], 0.0, true, 0, en);
    check(en, xy[0], xy[1], 0.0, 4);
    EXPECT_EQ(en.ni, on_line ? 2 : 4);
    for (const double depth : {0.35, 0.8, 2.3}) {
      Point_Electrode_Nodes(g, xy[0], xy[1], depth, false, 0, en);
      check(en, xy[0], xy[1], depth, 8);
      EXPECT_EQ(en.ni, on_line ? 4 : 8) << depth;
    }
  }
  // A buried electrode on a node takes that node alone.
  Electrode_Nodes en;
  Point_Electrode_Nodes(g, 2.0, 3.0, g.zmesh[3], false, 0, en);
  EXPECT_EQ(en.ni, 1);
  check(en, 2.0, 3.0, g.zmesh[3], 1);
}

// --- The assembled matrix ------------------------------------------------------------------

namespace {

struct Matrix_Checks {
  int64_t rows = 0, bad_diagonal = 0;
  int64_t inner = 0;               // nodes off the outer sides and bottom
  double row_sum_inner = 0.0;      // largest |row sum| / diagonal there
  double row_sum_all = 0.0;        // the same over every row
  double row_sum_outer_min = 0;    // smallest row sum / diagonal on the outer nodes
  int64_t interface = 0;           // inner nodes where hexahedra meet tetrahedra
  double patch = 0.0;              // largest |K u| / diagonal at the other inner nodes
  double patch_interface = 0.0;    // the same at the interface nodes
  int64_t patch_interface_bad = 0; // interface nodes above 1e-9
};

// Assembles the matrix of the solved mesh of `ds` (faces kept or cleared)
// and measures it against a constant field and the linear fields x, y and
// z (z away from the surface, where it has a flux through the free surface).
testing::AssertionResult Assemble_And_Measure(Data_Set &ds, const Temp_Folder &tmp,
                                              bool clear_faces, Matrix_Checks &out) {
  SemiStructured &ss = ds.Semistructured;
  const Model_Grid &g = ds.Model_grid;
  if (clear_faces)
    for (int64_t e = 0; e < ss.number_elements; e++)
      ss.elements[e].faces = 0;
  if (Set_Up_Cap_Matrix_Blk(ds, 0, tmp.sub("store.bin")) != 0)
    return testing::AssertionFailure() << "assembly failed";
  CooMatrix64 &m = ds.Fem.coomatrix64;
  if (m.overflow)
    return testing::AssertionFailure() << "row store overflow";
  if (m.COO_to_CSR_Fix(ds, tmp.sub("csr.bin")) || m.Get_CSR(ds, tmp.sub("csr.bin")))
    return testing::AssertionFailure() << "conversion failed";
  const int64_t n = m.n;
  if (n != ss.number_nodes_ss)
    return testing::AssertionFailure() << "n " << n << " nodes " << ss.number_nodes_ss;
  const float *pos[3] = {ss.xnodess.data(), ss.ynodess.data(), ss.znodess.data()};
  std::vector<double> diag(n, 0.0), one(n, 0.0), ku[3];
  for (auto &v : ku)
    v.assign(n, 0.0);
  for (int64_t r = 0; r < n; r++)
    for (int64_t k = m.ia[r] - 1; k < m.ia[r + 1] - 1; k++) {
      const int64_t c = m.ja[k] - 1;
      const double v = m.ad[k];
      if (c < r || c >= n)
        return testing::AssertionFailure() << "column " << c + 1 << " in row " << r + 1;
      if (c == r)
        diag[r] = v;
      one[r] += v;
      for (int d = 0; d < 3; d++)
        ku[d][r] += v * pos[d][c];
      if (c == r)
        continue;
      one[c] += v;
      for (int d = 0; d < 3; d++)
        ku[d][c] += v * pos[d][r];
    }
  std::vector<uint8_t> touches(n, 0); // bit 0 a hexahedron, bit 1 a tetrahedron
  for (int64_t e = 0; e < ss.number_elements; e++) {
    const Element &el = ss.elements[e];
    for (int c = 0; c < el.nnodes; c++)
      touches[el.node[c] - 1] |= el.tet ? 2 : 1;
  }
  out = Matrix_Checks();
  out.rows = n;
  out.row_sum_outer_min = 1e300;
  for (int64_t r = 0; r < n; r++) {
    if (!(diag[r] > 0.0)) {
      out.bad_diagonal++;
      continue;
    }
    const int main = ss.node_ss_to_main0[r];
    const int i = main % g.lx, j = (main / g.lx) % g.ly, k = main / g.lxy;
    const bool outer = i == 0 || i == g.lx - 1 || j == 0 || j == g.ly - 1 || k == g.lzw - 1;
    const double s = one[r] / diag[r];
    out.row_sum_all = std::max(out.row_sum_all, std::fabs(s));
    if (outer) {
      out.row_sum_outer_min = std::min(out.row_sum_outer_min, s);
      continue;
    }
    out.inner++;
    out.row_sum_inner = std::max(out.row_sum_inner, std::fabs(s));
    double p = std::max(std::fabs(ku[0][r]), std::fabs(ku[1][r]));
    if (k > 0)
      p = std::max(p, std::fabs(ku[2][r]));
    p /= diag[r];
    if (touches[r] == 3) {
      out.interface++;
      out.patch_interface = std::max(out.patch_interface, p);
      out.patch_interface_bad += p > 1e-9;
    } else {
      out.patch = std::max(out.patch, p);
    }
  }
  return testing::AssertionSuccess();
}

// Reads the example with the mesh kind, sets a homogeneous model and builds
// the solved mesh.
testing::AssertionResult Homogeneous_Mesh(Read_Example &r, int dense) {
  if (!r.Read("grid_9x14.dat", dense))
    return testing::AssertionFailure() << "read failed";
  Data_Set &ds = *r.ds;
  if (Start_SemiStructured(ds) != 0)
    return testing::AssertionFailure() << "no solved mesh";
  std::vector<float> res(std::max(ds.Model_grid.nmodel_blocks, 1), 100.0f);
  if (ds.Model_grid.Set_Conductivity(ds, res.data()) != 0)
    return testing::AssertionFailure() << "no conductivity";
  return testing::AssertionSuccess();
}

} // namespace

// With the mixed boundary term the diagonal is positive and only the rows of
// the outer sides and bottom have a positive sum; without it every row sums
// to zero and a linear field is reproduced at the inner nodes.
void Expect_Matrix(const Matrix_Checks &with, const Matrix_Checks &without) {
  for (const Matrix_Checks *c : {&with, &without}) {
    EXPECT_EQ(c->bad_diagonal, 0);
    EXPECT_GT(c->inner, c->rows / 2);
    EXPECT_LT(c->row_sum_inner, 1e-12);
  }
  EXPECT_GT(with.row_sum_outer_min, 1e-6);
  EXPECT_LT(without.row_sum_all, 1e-12);
  EXPECT_LT(without.patch, 1e-9);
  EXPECT_LT(with.patch, 1e-9);
}

TEST(AssemblyMatrix, DenseMeshPatchTest) {
  Read_Example r;
  ASSERT_TRUE(Homogeneous_Mesh(r, 1));
  Data_Set &ds = *r.ds;
  ASSERT_EQ(ds.Semistructured.num_tet, 0);
  Matrix_Checks with, without;
  ASSERT_TRUE(Assemble_And_Measure(ds, r.tmp, false, with));
  ASSERT_TRUE(Assemble_And_Measure(ds, r.tmp, true, without));
  Expect_Matrix(with, without);
  EXPECT_EQ(without.interface, 0);
}

// The adaptive mesh with each hexahedron form. The hexahedron faces that
// meet transition blocks are cut along the tetrahedra's diagonals (the
// trilinear element with cut faces, in every form: the averaged form's
// faces weigh their corners as a bilinear face does), so the linear field
// is reproduced at every inner node, those where hexahedra meet tetrahedra
// included.
TEST(AssemblyMatrix, AdaptiveMeshPatchTest) {
  for (int form : {HEX_TRILINEAR, HEX_TRILINEAR_HARMONIC, HEX_AVERAGED_TETS}) {
    SCOPED_TRACE(form);
    Read_Example r;
    ASSERT_TRUE(Homogeneous_Mesh(r, 0));
    Data_Set &ds = *r.ds;
    ds.Fem.hex_element = form;
    ASSERT_GT(ds.Semistructured.num_tet, 0);
    ASSERT_GT(ds.Semistructured.num_hex, 0);
    Matrix_Checks with, without;
    ASSERT_TRUE(Assemble_And_Measure(ds, r.tmp, false, with));
    ASSERT_TRUE(Assemble_And_Measure(ds, r.tmp, true, without));
    Expect_Matrix(with, without);
    EXPECT_GT(without.interface, 100);
    EXPECT_LT(without.patch_interface, 1e-9);
    EXPECT_LT(with.patch_interface, 1e-9);
  }
}
