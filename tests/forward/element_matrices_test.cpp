// The element matrices against closed forms: the trilinear hexahedron on a
// flat box (both integration rules) against the tensor-product integral, the
// energy of a linear potential on distorted hexahedra and pyramids, and the
// face weights of a pyramid that make it conform to its neighbours.
#include <cmath>
#include <gtest/gtest.h>

#include "forward/element_matrices.h"
#include "mesh/mesh.h"

namespace {

// Reference signs of the hexahedron's nodes: x, y, z (+1 top).
const double hex_sign[8][3] = {{-1, -1, 1}, {-1, -1, -1}, {1, -1, -1}, {1, -1, 1},
                               {-1, 1, 1},  {-1, 1, -1},  {1, 1, -1},  {1, 1, 1}};

void Box(double a, double b, double c, double p[8][3]) {
  for (int n = 0; n < 8; n++) {
    p[n][0] = 0.5 * a * (hex_sign[n][0] + 1);
    p[n][1] = 0.5 * b * (hex_sign[n][1] + 1);
    p[n][2] = 0.5 * c * (hex_sign[n][2] + 1);
  }
}

// The stiffness of a trilinear box a x b x c as the sum of tensor products
// of the 1-D stiffness [1 -1; -1 1] / h and the 1-D mass h [d o; o d] across
// it (consistent mass d = 1/3, o = 1/6).
double Tensor_Entry(double a, double b, double c, int i, int j, double d, double o) {
  const double h[3] = {a, b, c};
  double sum = 0.0;
  for (int axis = 0; axis < 3; axis++) {
    double t = 1.0;
    for (int q = 0; q < 3; q++) {
      const bool same = hex_sign[i][q] == hex_sign[j][q];
      t *= q == axis ? (same ? 1.0 : -1.0) / h[q] : h[q] * (same ? d : o);
    }
    sum += t;
  }
  return sum;
}

// u^T K u for the values u at the nodes.
template <int N>
double Energy(const double *k, const int (*pairs)[2], int nv, const double (&u)[N]) {
  double e = 0.0;
  for (int v = 0; v < nv; v++) {
    const int i = pairs[v][0], j = pairs[v][1];
    e += (i == j ? 1.0 : 2.0) * k[v] * u[i] * u[j];
  }
  return e;
}

const double grad[3] = {0.3, -1.2, 0.7};

double Linear(const double *p) {
  return 2.0 + grad[0] * p[0] + grad[1] * p[1] + grad[2] * p[2];
}

} // namespace

TEST(Element_Matrices, TrilinearFlatBoxMatchesTensorIntegral) {
  // A flat element, 1 x 1 x 0.05: where the five-tetrahedron form degrades.
  double p[8][3];
  Box(1.0, 1.0, 0.05, p);
  double gauss[hexq_values], harmonic[hexq_values];
  Hex_Q1_Element_Matrix(p, gauss, false);
  Hex_Q1_Element_Matrix(p, harmonic, true);
  double largest = 0.0;
  for (int v = 0; v < hexq_values; v++)
    largest = std::max(largest, std::fabs(gauss[v]));
  for (int v = 0; v < hexq_values; v++) {
    const int i = hexq_pairs[v][0], j = hexq_pairs[v][1];
    EXPECT_NEAR(gauss[v], Tensor_Entry(1.0, 1.0, 0.05, i, j, 1.0 / 3.0, 1.0 / 6.0), 1e-12 * largest)
        << i << "," << j;
    // Half consistent, half lumped mass across each derivative.
    EXPECT_NEAR(harmonic[v], Tensor_Entry(1.0, 1.0, 0.05, i, j, 5.0 / 12.0, 1.0 / 12.0),
                1e-12 * largest)
        << i << "," << j;
  }
  // The averaged form couples no body diagonal and differs on flat boxes.
  double avg[hex_values];
  Hex_Element_Matrix(p, avg);
  EXPECT_GT(std::fabs(avg[0] - gauss[0]), 0.1 * std::fabs(gauss[0]));
}

TEST(Element_Matrices, LinearPotentialEnergyOnDistortedElements) {
  // A hexahedron with a sloping, warped top (as topography makes them): the
  // trilinear map reproduces a linear potential, so its energy is |g|^2 V.
  double p[8][3];
  Box(2.0, 1.5, 0.4, p);
  const double lift[8] = {0.31, 0.0, 0.0, 0.52, 0.44, 0.0, 0.0, 0.98};
  for (int n = 0; n < 8; n++)
    p[n][2] += lift[n] + 0.1 * p[n][0];
  double u[8], k[hexq_values];
  for (int n = 0; n < 8; n++)
    u[n] = Linear(p[n]);
  Hex_Q1_Element_Matrix(p, k, false);
  double corners[8][3];
  for (int n = 0; n < 8; n++)
    for (int d = 0; d < 3; d++)
      corners[hex_local_corner[n]][d] = p[n][d];
  const double g2 = grad[0] * grad[0] + grad[1] * grad[1] + grad[2] * grad[2];
  const double vol = Trilinear_Volume(corners);
  EXPECT_NEAR(Energy(k, hexq_pairs, hexq_values, u), g2 * vol, 1e-12 * g2 * vol);
  // The same with its plane bottom cut by tetrahedra (the element is not a
  // parallelepiped, so integrated point by point): the linear potential has
  // no twist on a parallelogram face, and the cut term vanishes.
  double kc[hexq_values];
  Hex_Q1_Element_Matrix(p, kc, false, 2u << (2 * 4));
  EXPECT_NEAR(Energy(kc, hexq_pairs, hexq_values, u), g2 * vol, 1e-12 * g2 * vol);
  // Constants carry no energy: every row sums to zero.
  for (int i = 0; i < 8; i++) {
    double row = 0.0;
    for (int v = 0; v < hexq_values; v++)
      if (hexq_pairs[v][0] == i || hexq_pairs[v][1] == i)
        row += k[v];
    EXPECT_NEAR(row, 0.0, 1e-13) << i;
  }

  // A pyramid with a slanted parallelogram base and its apex off centre.
  const double q[5][3] = {
      {0, 0, 0}, {2, 0.3, 0.2}, {2.4, 1.8, 0.5}, {0.4, 1.5, 0.3}, {0.9, 0.6, 1.7}};
  double up[5], kp[pyr_values];
  for (int n = 0; n < 5; n++)
    up[n] = Linear(q[n]);
  Pyramid_Element_Matrix(q, kp);
  const double t1[4][3] = {{0, 0, 0}, {2, 0.3, 0.2}, {2.4, 1.8, 0.5}, {0.9, 0.6, 1.7}};
  const double t2[4][3] = {{0, 0, 0}, {2.4, 1.8, 0.5}, {0.4, 1.5, 0.3}, {0.9, 0.6, 1.7}};
  const double pv = (std::fabs(Tet_Volume6(t1)) + std::fabs(Tet_Volume6(t2))) / 6.0;
  EXPECT_NEAR(Energy(kp, pyr_pairs, pyr_values, up), g2 * pv, 1e-12 * g2 * pv);
}

TEST(Element_Matrices, PyramidFaceWeightsConformToNeighbours) {
  // K u for a linear potential gives each node the flux through the element's
  // faces weighted by the node's shape function there: area / 4 for a corner
  // of the bilinear base (as on a trilinear hexahedron's face) and area / 3
  // for a corner of a linear triangle (as on a tetrahedron's face). A pyramid
  // whose faces weigh their nodes so joins both without a gap.
  const double q[5][3] = {{0, 0, 0}, {2, 0, 0}, {2, 1, 0}, {0, 1, 0}, {0.5, 0.25, 0.8}};
  double k[pyr_values], u[5];
  Pyramid_Element_Matrix(q, k);
  for (int n = 0; n < 5; n++)
    u[n] = Linear(q[n]);
  double ku[5] = {};
  for (int v = 0; v < pyr_values; v++) {
    const int i = pyr_pairs[v][0], j = pyr_pairs[v][1];
    ku[i] += k[v] * u[j];
    if (i != j)
      ku[j] += k[v] * u[i];
  }
  // Expected: sum over the faces holding node i of (g . n A) w, with the
  // outward normal times area n A and w = 1/4 on the base, 1/3 on triangles.
  double expect[5] = {};
  auto face = [&](const int *nodes, int count, double w) {
    double e1[3], e2[3], na[3];
    for (int d = 0; d < 3; d++) {
      e1[d] = q[nodes[1]][d] - q[nodes[0]][d];
      e2[d] = q[nodes[count - 1]][d] - q[nodes[0]][d];
    }
    na[0] = e1[1] * e2[2] - e1[2] * e2[1];
    na[1] = e1[2] * e2[0] - e1[0] * e2[2];
    na[2] = e1[0] * e2[1] - e1[1] * e2[0];
    const double scale = count == 4 ? 1.0 : 0.5; // parallelogram or triangle
    // Outward: away from the centroid.
    double c[3] = {}, f[3] = {};
    for (int n = 0; n < 5; n++)
      for (int d = 0; d < 3; d++)
        c[d] += q[n][d] / 5.0;
    for (int m = 0; m < count; m++)
      for (int d = 0; d < 3; d++)
        f[d] += q[nodes[m]][d] / count;
    const double out = (f[0] - c[0]) * na[0] + (f[1] - c[1]) * na[1] + (f[2] - c[2]) * na[2];
    const double flux =
        (out > 0 ? 1.0 : -1.0) * scale * (grad[0] * na[0] + grad[1] * na[1] + grad[2] * na[2]);
    for (int m = 0; m < count; m++)
      expect[nodes[m]] += w * flux;
  };
  const int base[4] = {0, 1, 2, 3};
  face(base, 4, 0.25);
  for (int s = 0; s < 4; s++) {
    const int tri[3] = {s, (s + 1) % 4, 4};
    face(tri, 3, 1.0 / 3.0);
  }
  for (int n = 0; n < 5; n++)
    EXPECT_NEAR(ku[n], expect[n], 1e-12) << n;
}

TEST(Element_Matrices, CutFacesWeighTheirNodesAsTetrahedra) {
  // A box with its high-x face cut by the diagonal of code 1 and its bottom
  // by that of code 2. K u for a linear potential gives each node the flux
  // through the faces holding it weighted by its shape function there:
  // area / 4 on the bilinear faces, area / 3 for a corner on the cut's
  // diagonal and area / 6 for one off it (as on two tetrahedra's faces).
  // The energy of the linear potential stays |g|^2 V: the cut terms vanish.
  const double h[3] = {2.0, 1.5, 0.4};
  double p[8][3];
  Box(h[0], h[1], h[2], p);
  const unsigned cut = (1u << (2 * 1)) | (2u << (2 * 4));
  double k[hexq_values], u[8];
  Hex_Q1_Element_Matrix(p, k, false, cut);
  for (int n = 0; n < 8; n++)
    u[n] = Linear(p[n]);
  const double g2 = grad[0] * grad[0] + grad[1] * grad[1] + grad[2] * grad[2];
  const double vol = h[0] * h[1] * h[2];
  EXPECT_NEAR(Energy(k, hexq_pairs, hexq_values, u), g2 * vol, 1e-12 * g2 * vol);
  double ku[8] = {};
  for (int v = 0; v < hexq_values; v++) {
    const int i = hexq_pairs[v][0], j = hexq_pairs[v][1];
    ku[i] += k[v] * u[j];
    if (i != j)
      ku[j] += k[v] * u[i];
  }
  double expect[8] = {};
  for (int f = 0; f < 6; f++) {
    const int axis = f / 2;
    const double side = (f & 1) ? 1.0 : -1.0;
    const double area = vol / h[axis], flux = side * grad[axis] * area;
    int d1[2], d2[2];
    Hex_Face_Diagonals(f, d1, d2);
    const unsigned code = (cut >> (2 * f)) & 3u;
    for (int m = 0; m < 2; m++) {
      expect[d1[m]] += flux * (code == 0 ? 0.25 : code == 1 ? 1.0 / 3.0 : 1.0 / 6.0);
      expect[d2[m]] += flux * (code == 0 ? 0.25 : code == 2 ? 1.0 / 3.0 : 1.0 / 6.0);
    }
  }
  for (int n = 0; n < 8; n++)
    EXPECT_NEAR(ku[n], expect[n], 1e-12) << n;
  // The diagonals of a face are its own nodes, opposite corners.
  int d1[2], d2[2];
  Hex_Face_Diagonals(4, d1, d2);
  for (int m = 0; m < 2; m++) {
    EXPECT_EQ(hex_sign[d1[m]][2], -1.0);
    EXPECT_EQ(hex_sign[d2[m]][2], -1.0);
  }
  EXPECT_EQ(hex_sign[d1[0]][0], -hex_sign[d1[1]][0]);
  EXPECT_EQ(hex_sign[d1[0]][1], -hex_sign[d1[1]][1]);
}

TEST(Element_Matrices, PointWeightsInterpolateInsideAndRefuseOutside) {
  // A warped hexahedron: the point at reference coordinates r has the
  // shape functions at r for weights, found back from its position alone.
  double p[8][3];
  Box(2.0, 1.5, 0.4, p);
  const double lift[8] = {0.31, 0.0, 0.0, 0.52, 0.44, 0.0, 0.0, 0.98};
  for (int n = 0; n < 8; n++)
    p[n][2] += lift[n] + 0.1 * p[n][0];
  const double r[3] = {0.3, -0.5, 0.7};
  double q[3] = {0, 0, 0}, expect[8];
  for (int n = 0; n < 8; n++) {
    expect[n] = 0.125 * (1 + r[0] * hex_sign[n][0]) * (1 + r[1] * hex_sign[n][1]) *
                (1 + r[2] * hex_sign[n][2]);
    for (int d = 0; d < 3; d++)
      q[d] += expect[n] * p[n][d];
  }
  double w[8];
  ASSERT_TRUE(Hex_Point_Weights(p, q, w));
  for (int n = 0; n < 8; n++)
    EXPECT_NEAR(w[n], expect[n], 1e-12) << n;
  const double beyond[3] = {2.3, 0.7, 0.2};
  EXPECT_FALSE(Hex_Point_Weights(p, beyond, w));

  // A tetrahedron: barycentric weights, and a point past one face refused.
  const double t[4][3] = {{0, 0, 0}, {2, 0.3, 0.2}, {0.4, 1.5, 0.3}, {0.9, 0.6, 1.7}};
  const double l[4] = {0.1, 0.2, 0.3, 0.4};
  double tq[3] = {0, 0, 0}, tw[4];
  for (int c = 0; c < 4; c++)
    for (int d = 0; d < 3; d++)
      tq[d] += l[c] * t[c][d];
  ASSERT_TRUE(Tet_Point_Weights(t, tq, tw));
  for (int c = 0; c < 4; c++)
    EXPECT_NEAR(tw[c], l[c], 1e-12) << c;
  const double past[3] = {2.0, 1.5, 1.5};
  EXPECT_FALSE(Tet_Point_Weights(t, past, tw));
}
