// Element matrices of the finite-element forward model: the linear
// tetrahedron, the hexahedron in two forms (the mean of its two
// five-tetrahedron decompositions, or the trilinear element by Gauss
// integration), the pyramid that joins a hexahedron's face to the
// tetrahedra of a transition block, and the mixed boundary term of an outer
// hexahedron face. All in double precision, for unit conductivity.
#pragma once

// Values of a tetrahedron's matrix, upper triangle by rows:
// (1,1) (1,2) (1,3) (1,4) (2,2) (2,3) (2,4) (3,3) (3,4) (4,4).
constexpr int tet_values = 10;
// Values of a hexahedron's matrix: its upper triangle without the four body
// diagonals (1,7), (2,8), (3,5), (4,6), which neither decomposition couples.
constexpr int hex_values = 32;

// Values of the trilinear hexahedron: its whole upper triangle, body
// diagonals included, by rows.
constexpr int hexq_values = 36;
// Values of the pyramid: its whole upper triangle by rows.
constexpr int pyr_values = 15;

// (row, column) from 0 of each stored value.
extern const int tet_pairs[tet_values][2];
extern const int hex_pairs[hex_values][2];
extern const int hexq_pairs[hexq_values][2];
extern const int pyr_pairs[pyr_values][2];

// Hexahedron forms: the setting `hex_element`.
enum Hex_Element_Form { HEX_AVERAGED_TETS = 0, HEX_TRILINEAR = 1, HEX_TRILINEAR_HARMONIC = 2 };

// Number of stored values of an element of `nnodes` nodes (4 tetrahedron, 5
// pyramid, 8 hexahedron in the form `hex_element`). A hexahedron with faces
// cut by tetrahedra is trilinear in every form: for a linear potential the
// averaged form weighs each face corner by a quarter of the face, as the
// bilinear face does, so the cut trilinear element joins averaged
// neighbours and tetrahedra alike.
inline int Element_Value_Count(int nnodes, int hex_element, bool cut_faces = false) {
  return nnodes == 4 ? tet_values
         : nnodes == 5
             ? pyr_values
             : (hex_element == HEX_AVERAGED_TETS && !cut_faces ? hex_values : hexq_values);
}

// The pairs table of an element's stored values, found from their count
// (10, 15, 32 or 36, all distinct); nullptr for any other count.
const int (*Element_Pairs(int values))[2];

// Unit-conductivity matrix of the tetrahedron p[0..3]; each row sums to
// zero exactly (the diagonal is the negated sum of the row's other entries).
// Returns the tetrahedron's volume.
double Tet_Element_Matrix(const double p[4][3], double k[tet_values]);

// Unit-conductivity matrix of the hexahedron with node positions p[0..7] in
// element order (nodes 1-4 in the lower y plane, 5-8 in the higher), as the
// mean of two five-tetrahedron decompositions. On flat elements its central
// tetrahedron degenerates and the matrix loses accuracy.
void Hex_Element_Matrix(const double p[8][3], double k[hex_values]);

// The trilinear (isoparametric) hexahedron, same node order, integrated by
// 2 x 2 x 2 Gauss points: exact for parallelepipeds, and its rows sum to
// zero exactly. Stays accurate on flat and distorted elements.
// With `harmonic` the two points a direction stand at +-sqrt(2/3) instead of
// +-sqrt(1/3): on a box this is the exact stiffness with the mass factors
// across each derivative taken half consistent and half lumped, whose
// assembled 27-point stencil is fourth-order accurate for harmonic
// potentials on a uniform grid (the Gauss form is second-order: it
// underestimates the potential a few spacings from a source).
//
// `cut_faces` (two bits a face, face f = 2 axis + side: axis 0 x, 1 y, 2 z
// with +1 the top, side 1 the reference +1 side) marks faces shared with
// tetrahedra that cut the face by one diagonal: 1 the diagonal through the
// corners whose two tangential reference coordinates are equal, 2 the other.
// The potential on such a face is then linear on its two triangles, as on
// the tetrahedra's side, and stays bilinear on the others, so the element
// conforms to both neighbours and still holds linear potentials exactly;
// it is integrated piecewise (see Cut_Hex_Matrix), whatever `harmonic` says.
void Hex_Q1_Element_Matrix(const double p[8][3], double k[hexq_values], bool harmonic = false,
                           unsigned cut_faces = 0);

// Faces of the hexahedron for `cut_faces`: its nodes (from 0) with reference
// coordinate `side` on axis `axis`, the pair (from 0, in node order) on the
// diagonal of code 1 and that of code 2.
void Hex_Face_Diagonals(int face, int diag1[2], int diag2[2]);

// The pyramid p[0..3] (base quadrilateral, in order round it) and p[4] (apex)
// as a trilinear hexahedron whose top face is collapsed into the apex: its
// shape functions are bilinear on the base and linear on the four triangles,
// so it conforms to a trilinear hexahedron on its base and to tetrahedra on
// its sides. Integrated by 3 x 3 x 3 Gauss points, exact for a pyramid with a
// parallelogram base; rows sum to zero exactly.
void Pyramid_Element_Matrix(const double p[5][3], double k[pyr_values]);

// Nodes (from 0) of the face of each boundary flag bit, in the order
// low x, high x, low y, high y, bottom; and the axis of its normal term.
extern const int hex_face_nodes[5][4];
extern const int hex_face_axis[5];

// Coefficient n A / r^2 of the mixed boundary condition of a face with
// corners q[0..3] (round the face), seen from the reference point
// (xmid, ymid, 0); `axis` picks the normal term (0 x, 1 y, 2 z).
double Boundary_Face_Coefficient(const double q[4][3], int axis, double xmid, double ymid);

// The bilinear quadrilateral's mass term of a face for coefficient g, in the
// order (a,a) (b,a) (c,a) (d,a) (b,b) (c,b) (d,b) (c,c) (d,c) (d,d).
extern const int face_pairs[10][2];
void Boundary_Face_Matrix(double g, double m[10]);

// Weights of the nodes of a tetrahedron (4) or trilinear hexahedron (8, node
// order as above) that interpolate at the point q: barycentric coordinates,
// or the shape functions at q's reference coordinates (by Newton steps).
// False when q lies outside the element (beyond rounding).
bool Tet_Point_Weights(const double p[4][3], const double q[3], double w[4]);
bool Hex_Point_Weights(const double p[8][3], const double q[3], double w[8]);
