#include "forward/element_matrices.h"

#include "core/solve3.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>
#include <unordered_map>

const int tet_pairs[tet_values][2] = {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 1},
                                      {1, 2}, {1, 3}, {2, 2}, {2, 3}, {3, 3}};

const int hex_pairs[hex_values][2] = {
    {0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 4}, {0, 5}, {0, 7}, {1, 1}, {1, 2}, {1, 3}, {1, 4},
    {1, 5}, {1, 6}, {2, 2}, {2, 3}, {2, 5}, {2, 6}, {2, 7}, {3, 3}, {3, 4}, {3, 6}, {3, 7},
    {4, 4}, {4, 5}, {4, 6}, {4, 7}, {5, 5}, {5, 6}, {5, 7}, {6, 6}, {6, 7}, {7, 7}};

// Whole upper triangles by rows.
const int hexq_pairs[hexq_values][2] = {
    {0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 4}, {0, 5}, {0, 6}, {0, 7}, {1, 1}, {1, 2}, {1, 3}, {1, 4},
    {1, 5}, {1, 6}, {1, 7}, {2, 2}, {2, 3}, {2, 4}, {2, 5}, {2, 6}, {2, 7}, {3, 3}, {3, 4}, {3, 5},
    {3, 6}, {3, 7}, {4, 4}, {4, 5}, {4, 6}, {4, 7}, {5, 5}, {5, 6}, {5, 7}, {6, 6}, {6, 7}, {7, 7}};
const int pyr_pairs[pyr_values][2] = {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {0, 4},
                                      {1, 1}, {1, 2}, {1, 3}, {1, 4}, {2, 2},
                                      {2, 3}, {2, 4}, {3, 3}, {3, 4}, {4, 4}};

const int (*Element_Pairs(int values))[2] {
  switch (values) {
  case tet_values:
    return tet_pairs;
  case pyr_values:
    return pyr_pairs;
  case hex_values:
    return hex_pairs;
  case hexq_values:
    return hexq_pairs;
  default:
    return nullptr;
  }
}

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

// The cofactors of J (cof[r][d], so that J^-1[d][r] = cof[r][d] / det);
// returns the determinant.
double Cofactors(const double J[3][3], double cof[3][3]) {
  for (int r = 0; r < 3; r++)
    for (int d = 0; d < 3; d++) {
      const int r1 = (r + 1) % 3, r2 = (r + 2) % 3, d1 = (d + 1) % 3, d2 = (d + 2) % 3;
      cof[r][d] = J[r1][d1] * J[r2][d2] - J[r1][d2] * J[r2][d1];
    }
  return J[0][0] * cof[0][0] + J[0][1] * cof[0][1] + J[0][2] * cof[0][2];
}

// One integration point of an element of N nodes at positions p: `dg` are
// the derivatives in reference coordinates of the shape functions that map
// the element (its geometry), `dn` those of the functions that interpolate
// the potential (the same, except on an element with cut faces), `w` the
// point's weight. Adds to the upper triangle of m.
template <int N>
void Add_Point(const double p[][3], const double dg[N][3], const double dn[N][3], double w,
               double m[N][N]) {
  // Jacobian J[r][d] = d x_d / d xi_r, its inverse by cofactors.
  double J[3][3] = {};
  for (int n = 0; n < N; n++)
    for (int r = 0; r < 3; r++)
      for (int d = 0; d < 3; d++)
        J[r][d] += dg[n][r] * p[n][d];
  double cof[3][3];
  const double det = Cofactors(J, cof);
  if (det == 0.0)
    return;
  // Physical gradients: grad N = J^-1 dN, J^-1[d][r] = cof[r][d] / det.
  double gr[N][3];
  for (int n = 0; n < N; n++)
    for (int d = 0; d < 3; d++)
      gr[n][d] = (cof[0][d] * dn[n][0] + cof[1][d] * dn[n][1] + cof[2][d] * dn[n][2]) / det;
  const double f = w * std::fabs(det);
  for (int i = 0; i < N; i++)
    for (int j = i + 1; j < N; j++)
      m[i][j] += f * Dot(gr[i], gr[j]);
}

// The lower triangle from the upper, and each diagonal the negated sum of its
// row's other entries, so rows sum to zero exactly.
template <int N> void Close_Rows(double m[N][N]) {
  for (int i = 0; i < N; i++) {
    double s = 0.0;
    for (int j = 0; j < N; j++) {
      if (j < i)
        m[i][j] = m[j][i];
      if (j != i)
        s += m[i][j];
    }
    m[i][i] = -s;
  }
}

// Stiffness of an isoparametric element of N nodes at positions p: at each
// Gauss point (ng points a direction, tensor product) `shape` gives the
// shape functions' derivatives in reference coordinates.
// Point sets a direction: 2 Gauss points, 3 Gauss points, and the two
// points at +-sqrt(2/3) (see Hex_Q1_Element_Matrix).
enum Rule { GAUSS2, GAUSS3, HARMONIC2 };

template <int N, class Shape>
void Isoparametric_Matrix(const double p[][3], Rule rule, Shape shape, double m[N][N]) {
  static const double g2[2] = {-0.5773502691896257645, 0.5773502691896257645};
  static const double h2[2] = {-0.8164965809277260327, 0.8164965809277260327};
  static const double w2[2] = {1.0, 1.0};
  static const double g3[3] = {-0.7745966692414833770, 0.0, 0.7745966692414833770};
  static const double w3[3] = {5.0 / 9.0, 8.0 / 9.0, 5.0 / 9.0};
  const int ng = rule == GAUSS3 ? 3 : 2;
  const double *g = rule == GAUSS3 ? g3 : rule == GAUSS2 ? g2 : h2;
  const double *w = rule == GAUSS3 ? w3 : w2;
  for (int i = 0; i < N; i++)
    for (int j = 0; j < N; j++)
      m[i][j] = 0.0;
  for (int a = 0; a < ng; a++)
    for (int b = 0; b < ng; b++)
      for (int c = 0; c < ng; c++) {
        double dn[N][3];
        shape(g[a], g[b], g[c], dn);
        Add_Point<N>(p, dn, dn, w[a] * w[b] * w[c], m);
      }
  Close_Rows<N>(m);
}

// Reference corners of the hexahedron's nodes: x, y, and z (+1 top).
const double hex_ref[8][3] = {{-1, -1, 1}, {-1, -1, -1}, {1, -1, -1}, {1, -1, 1},
                              {-1, 1, 1},  {-1, 1, -1},  {1, 1, -1},  {1, 1, 1}};
// Reference corners of the pyramid's base, round it; the apex is at zeta 1.
const double pyr_ref[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};

} // namespace

namespace {

void Q1_Derivatives(double x, double y, double z, double dn[8][3]) {
  for (int n = 0; n < 8; n++) {
    const double a = 1 + x * hex_ref[n][0], b = 1 + y * hex_ref[n][1], c = 1 + z * hex_ref[n][2];
    dn[n][0] = 0.125 * hex_ref[n][0] * b * c;
    dn[n][1] = 0.125 * hex_ref[n][1] * a * c;
    dn[n][2] = 0.125 * hex_ref[n][2] * a * b;
  }
}

// Adds to dn the derivatives of the cut-face terms. On a face with
// tangential coordinates xi, eta in [0, 1] and corner values u00, u10, u01,
// u11, the linear interpolation on the two triangles of a diagonal differs
// from the bilinear one by d m(xi, eta), with the twist d = u00 - u10 - u01 +
// u11 and m = min(eta (1 - xi), xi (1 - eta)) for the diagonal through
// (0, 0) and (1, 1), or -min(xi eta, (1 - xi)(1 - eta)) for the other. The
// term d m times the linear fall to the opposite face vanishes on the other
// five faces, so every other face stays bilinear.
void Cut_Face_Derivatives(double x, double y, double z, unsigned cut, double dn[8][3]) {
  const double r[3] = {x, y, z};
  for (int f = 0; f < 6; f++) {
    const unsigned code = (cut >> (2 * f)) & 3u;
    if (!code)
      continue;
    const int a = f / 2, ua = a == 0 ? 1 : 0, va = a == 2 ? 1 : 2;
    const double s = (f & 1) ? 1.0 : -1.0;
    const double xi = 0.5 * (r[ua] + 1), eta = 0.5 * (r[va] + 1), h = 0.5 * (1 + s * r[a]);
    double m, dxi, deta;
    if (code == 1) {
      if (xi >= eta)
        m = eta * (1 - xi), dxi = -eta, deta = 1 - xi;
      else
        m = xi * (1 - eta), dxi = 1 - eta, deta = -xi;
    } else if (xi + eta <= 1) {
      m = -xi * eta, dxi = -eta, deta = -xi;
    } else {
      m = -(1 - xi) * (1 - eta), dxi = 1 - eta, deta = 1 - xi;
    }
    double dphi[3];
    dphi[ua] = 0.5 * dxi * h;
    dphi[va] = 0.5 * deta * h;
    dphi[a] = 0.5 * s * m;
    for (int n = 0; n < 8; n++) {
      if (hex_ref[n][a] != s)
        continue;
      const double t = hex_ref[n][ua] * hex_ref[n][va];
      for (int d = 0; d < 3; d++)
        dn[n][d] += t * dphi[d];
    }
  }
}

// Integration points of the trilinear element with cut faces. The cut terms
// fold along the planes through the body centre and a face diagonal, so the
// reference cube is split into 24 tetrahedra (centre, a face centre, an
// edge of that face), each integrated by a collapsed Gauss rule (4 x 3 x 3
// points): exact for a parallelepiped up to the sixth power of the first
// collapsed coordinate. `visit(dg, dn, w)` receives each point's geometry
// and potential derivatives (see Add_Point) and weight.
template <class Visit> void For_Cut_Points(unsigned cut, Visit visit) {
  static const double g4[4] = {-0.8611363115940526, -0.3399810435848563, 0.3399810435848563,
                               0.8611363115940526};
  static const double w4[4] = {0.3478548451374538, 0.6521451548625461, 0.6521451548625461,
                               0.3478548451374538};
  static const double g3[3] = {-0.7745966692414834, 0.0, 0.7745966692414834};
  static const double w3[3] = {5.0 / 9.0, 8.0 / 9.0, 5.0 / 9.0};
  static const double round_face[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
  for (int f = 0; f < 6; f++) {
    const int a = f / 2, ua = a == 0 ? 1 : 0, va = a == 2 ? 1 : 2;
    double fc[3] = {0, 0, 0};
    fc[a] = (f & 1) ? 1.0 : -1.0;
    for (int e = 0; e < 4; e++) {
      double c0[3], c1[3];
      c0[a] = c1[a] = fc[a];
      c0[ua] = round_face[e][0], c0[va] = round_face[e][1];
      c1[ua] = round_face[(e + 1) % 4][0], c1[va] = round_face[(e + 1) % 4][1];
      // Tetrahedron (centre 0, fc, c0, c1) of volume 1/3: the collapsed map
      // (s, t, q) in [0, 1]^3 -> s fc + (1 - s) t c0 + (1 - s)(1 - t) q c1
      // has determinant 2 (1 - s)^2 (1 - t).
      for (int i = 0; i < 4; i++)
        for (int j = 0; j < 3; j++)
          for (int l = 0; l < 3; l++) {
            const double sv = 0.5 * (g4[i] + 1), tv = 0.5 * (g3[j] + 1), qv = 0.5 * (g3[l] + 1);
            const double l1 = sv, l2 = (1 - sv) * tv, l3 = (1 - sv) * (1 - tv) * qv;
            double r[3];
            for (int d = 0; d < 3; d++)
              r[d] = l1 * fc[d] + l2 * c0[d] + l3 * c1[d];
            double dg[8][3], dn[8][3];
            Q1_Derivatives(r[0], r[1], r[2], dg);
            for (int n = 0; n < 8; n++)
              for (int d = 0; d < 3; d++)
                dn[n][d] = dg[n][d];
            Cut_Face_Derivatives(r[0], r[1], r[2], cut, dn);
            visit(dg, dn, 0.125 * w4[i] * w3[j] * w3[l] * 2.0 * (1 - sv) * (1 - sv) * (1 - tv));
          }
    }
  }
}

// Reference integrals of the cut element, I[r][s][i][j] = integral over the
// reference cube of dN_i/dxi_r dN_j/dxi_s, for one cut code: a
// parallelepiped's matrix follows from them and its constant Jacobian.
struct Cut_Reference {
  double I[3][3][8][8];
};

const Cut_Reference &Reference_Of_Cut(unsigned cut) {
  static std::mutex lock;
  static std::unordered_map<unsigned, std::unique_ptr<Cut_Reference>> known;
  const std::lock_guard<std::mutex> hold(lock);
  std::unique_ptr<Cut_Reference> &ref = known[cut];
  if (!ref) {
    ref = std::make_unique<Cut_Reference>();
    Cut_Reference &c = *ref;
    For_Cut_Points(cut, [&c](const double(*)[3], const double dn[8][3], double w) {
      for (int r = 0; r < 3; r++)
        for (int s = 0; s < 3; s++)
          for (int i = 0; i < 8; i++)
            for (int j = 0; j < 8; j++)
              c.I[r][s][i][j] += w * dn[i][r] * dn[j][s];
    });
  }
  return *ref;
}

// The Jacobian of the hexahedron's trilinear map at its centre, J[r][d] =
// d x_d / d xi_r; true when the map is affine (a parallelepiped): its
// bilinear and trilinear terms vanish against the element's size (to
// single precision).
bool Affine_Map(const double p[8][3], double J[3][3]) {
  double twist = 0.0, size = 0.0;
  for (int d = 0; d < 3; d++) {
    double c[4] = {};
    for (int r = 0; r < 3; r++)
      J[r][d] = 0.0;
    for (int n = 0; n < 8; n++) {
      const double *s = hex_ref[n];
      for (int r = 0; r < 3; r++)
        J[r][d] += 0.125 * s[r] * p[n][d];
      c[0] += s[0] * s[1] * p[n][d];
      c[1] += s[0] * s[2] * p[n][d];
      c[2] += s[1] * s[2] * p[n][d];
      c[3] += s[0] * s[1] * s[2] * p[n][d];
    }
    for (int t = 0; t < 4; t++)
      twist = std::max(twist, std::fabs(c[t]));
    for (int r = 0; r < 3; r++)
      size = std::max(size, std::fabs(J[r][d]));
  }
  // Node positions are stored in single precision: a twist at that level
  // is rounding, and the affine form is exact to it.
  return twist <= 1e-6 * size;
}

// The trilinear element with cut faces: from the reference integrals on a
// parallelepiped, by the points of For_Cut_Points otherwise.
void Cut_Hex_Matrix(const double p[8][3], unsigned cut, double m[8][8]) {
  for (int i = 0; i < 8; i++)
    for (int j = 0; j < 8; j++)
      m[i][j] = 0.0;
  double J[3][3];
  if (!Affine_Map(p, J)) {
    For_Cut_Points(cut, [&](const double dg[8][3], const double dn[8][3], double w) {
      Add_Point<8>(p, dg, dn, w, m);
    });
    Close_Rows<8>(m);
    return;
  }
  double cof[3][3];
  const double det = Cofactors(J, cof);
  if (det == 0.0)
    return;
  // grad N = J^-1 dN with J^-1[d][r] = cof[r][d] / det; the metric
  // G[r][s] = sum_d J^-1[d][r] J^-1[d][s] times |det|.
  const Cut_Reference &c = Reference_Of_Cut(cut);
  for (int r = 0; r < 3; r++)
    for (int s = 0; s < 3; s++) {
      const double G = (cof[r][0] * cof[s][0] + cof[r][1] * cof[s][1] + cof[r][2] * cof[s][2]) /
                       (det * det) * std::fabs(det);
      for (int i = 0; i < 8; i++)
        for (int j = i + 1; j < 8; j++)
          m[i][j] += G * c.I[r][s][i][j];
    }
  Close_Rows<8>(m);
}

} // namespace

void Hex_Q1_Element_Matrix(const double p[8][3], double k[hexq_values], bool harmonic,
                           unsigned cut_faces) {
  double m[8][8];
  if (cut_faces)
    Cut_Hex_Matrix(p, cut_faces, m);
  else
    Isoparametric_Matrix<8>(p, harmonic ? HARMONIC2 : GAUSS2, Q1_Derivatives, m);
  for (int v = 0; v < hexq_values; v++)
    k[v] = m[hexq_pairs[v][0]][hexq_pairs[v][1]];
}

void Pyramid_Element_Matrix(const double p[5][3], double k[pyr_values]) {
  double m[5][5];
  Isoparametric_Matrix<5>(
      p, GAUSS3,
      [](double x, double y, double z, double dn[5][3]) {
        // Base nodes (1 + x xi)(1 + y eta)(1 - z) / 8, apex (1 + z) / 2.
        for (int n = 0; n < 4; n++) {
          const double a = 1 + x * pyr_ref[n][0], b = 1 + y * pyr_ref[n][1];
          dn[n][0] = 0.125 * pyr_ref[n][0] * b * (1 - z);
          dn[n][1] = 0.125 * pyr_ref[n][1] * a * (1 - z);
          dn[n][2] = -0.125 * a * b;
        }
        dn[4][0] = dn[4][1] = 0.0;
        dn[4][2] = 0.5;
      },
      m);
  for (int v = 0; v < pyr_values; v++)
    k[v] = m[pyr_pairs[v][0]][pyr_pairs[v][1]];
}

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

void Hex_Face_Diagonals(int face, int diag1[2], int diag2[2]) {
  const int a = face / 2, ua = a == 0 ? 1 : 0, va = a == 2 ? 1 : 2;
  const double s = (face & 1) ? 1.0 : -1.0;
  int n1 = 0, n2 = 0;
  for (int n = 0; n < 8; n++) {
    if (hex_ref[n][a] != s)
      continue;
    if (hex_ref[n][ua] * hex_ref[n][va] > 0)
      diag1[n1++] = n;
    else
      diag2[n2++] = n;
  }
}

bool Tet_Point_Weights(const double p[4][3], const double q[3], double w[4]) {
  // r = sum_c l_c e_c with the edges e_c from node 0.
  double e[3][3], r[3], l[3];
  for (int d = 0; d < 3; d++) {
    for (int c = 0; c < 3; c++)
      e[d][c] = p[c + 1][d] - p[0][d];
    r[d] = q[d] - p[0][d];
  }
  if (!Solve3(e, r, l))
    return false;
  w[0] = 1.0 - l[0] - l[1] - l[2];
  for (int c = 0; c < 3; c++)
    w[c + 1] = l[c];
  constexpr double tol = 1e-9;
  return w[0] >= -tol && w[1] >= -tol && w[2] >= -tol && w[3] >= -tol;
}

bool Hex_Point_Weights(const double p[8][3], const double q[3], double w[8]) {
  double r[3] = {0.0, 0.0, 0.0};
  for (int it = 0; it < 30; it++) {
    double dn[8][3], x[3] = {0, 0, 0}, J[3][3] = {};
    Q1_Derivatives(r[0], r[1], r[2], dn);
    for (int n = 0; n < 8; n++) {
      const double N = 0.125 * (1 + r[0] * hex_ref[n][0]) * (1 + r[1] * hex_ref[n][1]) *
                       (1 + r[2] * hex_ref[n][2]);
      for (int d = 0; d < 3; d++) {
        x[d] += N * p[n][d];
        for (int a = 0; a < 3; a++)
          J[d][a] += dn[n][a] * p[n][d];
      }
    }
    // Newton step: J dr = q - x.
    double f[3], dr[3];
    for (int d = 0; d < 3; d++)
      f[d] = q[d] - x[d];
    if (!Solve3(J, f, dr))
      return false;
    double step = 0.0;
    for (int a = 0; a < 3; a++) {
      r[a] += dr[a];
      step = std::max(step, std::fabs(dr[a]));
    }
    if (std::fabs(r[0]) > 3 || std::fabs(r[1]) > 3 || std::fabs(r[2]) > 3)
      return false;
    if (step < 1e-12)
      break;
  }
  constexpr double tol = 1e-9;
  if (std::fabs(r[0]) > 1 + tol || std::fabs(r[1]) > 1 + tol || std::fabs(r[2]) > 1 + tol)
    return false;
  for (int n = 0; n < 8; n++)
    w[n] = 0.125 * (1 + r[0] * hex_ref[n][0]) * (1 + r[1] * hex_ref[n][1]) *
           (1 + r[2] * hex_ref[n][2]);
  return true;
}
