#include "forward/element_matrices.h"

#include <cmath>

const int tet_pairs[tet_values][2] = {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 1},
                                      {1, 2}, {1, 3}, {2, 2}, {2, 3}, {3, 3}};

const int hex_pairs[hex_values][2] = {
    {0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 4}, {0, 5}, {0, 7}, {1, 1}, {1, 2}, {1, 3}, {1, 4},
    {1, 5}, {1, 6}, {2, 2}, {2, 3}, {2, 5}, {2, 6}, {2, 7}, {3, 3}, {3, 4}, {3, 6}, {3, 7},
    {4, 4}, {4, 5}, {4, 6}, {4, 7}, {5, 5}, {5, 6}, {5, 7}, {6, 6}, {6, 7}, {7, 7}};

const int hex_face_nodes[5][4] = {
    {0, 1, 5, 4}, {3, 2, 6, 7}, {0, 1, 2, 3}, {4, 5, 6, 7}, {1, 2, 6, 5}};
const int hex_face_axis[5] = {0, 0, 1, 1, 2};

const int face_pairs[10][2] = {{0, 0}, {1, 0}, {2, 0}, {3, 0}, {1, 1},
                               {2, 1}, {3, 1}, {2, 2}, {3, 2}, {3, 3}};

namespace {

void Cross(const double a[3], const double b[3], double c[3]) {
  c[0] = a[1] * b[2] - a[2] * b[1];
  c[1] = a[2] * b[0] - a[0] * b[2];
  c[2] = a[0] * b[1] - a[1] * b[0];
}

double Dot(const double a[3], const double b[3]) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

} // namespace

double Tet_Element_Matrix(const double p[4][3], double k[tet_values]) {
  double e[3][3];
  for (int i = 0; i < 3; i++)
    for (int d = 0; d < 3; d++)
      e[i][d] = p[i + 1][d] - p[0][d];
  // Cofactor vectors (b, c, d) of the shape functions of nodes 2, 3 and 4;
  // node 1's is minus their sum.
  double g[4][3];
  Cross(e[1], e[2], g[1]);
  Cross(e[2], e[0], g[2]);
  Cross(e[0], e[1], g[3]);
  for (int d = 0; d < 3; d++)
    g[0][d] = -(g[1][d] + g[2][d] + g[3][d]);
  const double vol = std::fabs(Dot(e[0], g[1])) / 6.0;
  const double f = vol > 0.0 ? 1.0 / (36.0 * vol) : 0.0;
  double off[4][4] = {};
  for (int i = 0; i < 4; i++)
    for (int j = i + 1; j < 4; j++)
      off[i][j] = off[j][i] = f * Dot(g[i], g[j]);
  for (int v = 0; v < tet_values; v++) {
    const int i = tet_pairs[v][0], j = tet_pairs[v][1];
    if (i != j) {
      k[v] = off[i][j];
    } else {
      double s = 0.0;
      for (int c = 0; c < 4; c++)
        s += c != i ? off[i][c] : 0.0;
      k[v] = -s;
    }
  }
  return vol;
}

void Hex_Element_Matrix(const double p[8][3], double k[hex_values]) {
  // Local orders of the two decompositions, and the five tetrahedra of each
  // (positions in the order).
  static const int order[2][8] = {{0, 1, 2, 3, 4, 5, 6, 7}, {3, 2, 6, 7, 0, 1, 5, 4}};
  static const int tets[5][4] = {
      {0, 2, 5, 1}, {2, 0, 7, 3}, {5, 7, 0, 4}, {7, 5, 2, 6}, {0, 2, 5, 7}};
  double m[8][8] = {};
  for (const auto &t : order)
    for (const auto &tet : tets) {
      double q[4][3], kt[tet_values];
      int node[4];
      for (int c = 0; c < 4; c++) {
        node[c] = t[tet[c]];
        for (int d = 0; d < 3; d++)
          q[c][d] = p[node[c]][d];
      }
      Tet_Element_Matrix(q, kt);
      for (int v = 0; v < tet_values; v++) {
        const int a = node[tet_pairs[v][0]], b = node[tet_pairs[v][1]];
        m[a][b] += kt[v];
        if (a != b)
          m[b][a] += kt[v];
      }
    }
  for (int v = 0; v < hex_values; v++)
    k[v] = 0.5 * m[hex_pairs[v][0]][hex_pairs[v][1]];
}

double Boundary_Face_Coefficient(const double q[4][3], int axis, double xmid, double ymid) {
  // The face's own coordinate plane: the two axes other than its normal.
  const int u = axis == 0 ? 1 : 0, w = axis == 2 ? 1 : 2;
  auto tri = [&](int a, int b, int c) {
    const double ux = q[b][u] - q[a][u], uy = q[b][w] - q[a][w];
    const double vx = q[c][u] - q[a][u], vy = q[c][w] - q[a][w];
    return 0.5 * std::fabs(ux * vy - uy * vx);
  };
  const double area = tri(0, 1, 2) + tri(0, 2, 3);
  double mean[3] = {};
  for (int c = 0; c < 4; c++)
    for (int d = 0; d < 3; d++)
      mean[d] += 0.25 * q[c][d];
  const double dx = std::fabs(xmid - mean[0]), dy = std::fabs(ymid - mean[1]), dz = mean[2];
  const double r2 = dx * dx + dy * dy + dz * dz;
  const double n = axis == 0 ? dx : axis == 1 ? dy : dz;
  return r2 > 0.0 ? n * area / r2 : 0.0;
}

void Boundary_Face_Matrix(double g, double m[10]) {
  for (int v = 0; v < 10; v++) {
    const int a = face_pairs[v][0], b = face_pairs[v][1];
    m[v] = a == b ? g / 9.0 : (a - b == 2 ? g / 36.0 : g / 18.0);
  }
}
