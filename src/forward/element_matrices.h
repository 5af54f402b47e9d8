// Element matrices of the finite-element forward model: the linear
// tetrahedron, the hexahedron as the mean of its two five-tetrahedron
// decompositions, and the mixed boundary term of an outer hexahedron face.
// All in double precision, for unit conductivity.
#pragma once

// Values of a tetrahedron's matrix, upper triangle by rows:
// (1,1) (1,2) (1,3) (1,4) (2,2) (2,3) (2,4) (3,3) (3,4) (4,4).
constexpr int tet_values = 10;
// Values of a hexahedron's matrix: its upper triangle without the four body
// diagonals (1,7), (2,8), (3,5), (4,6), which neither decomposition couples.
constexpr int hex_values = 32;

// (row, column) from 0 of each stored value.
extern const int tet_pairs[tet_values][2];
extern const int hex_pairs[hex_values][2];

// Unit-conductivity matrix of the tetrahedron p[0..3]; each row sums to
// zero exactly (the diagonal is the negated sum of the row's other entries).
// Returns the tetrahedron's volume.
double Tet_Element_Matrix(const double p[4][3], double k[tet_values]);

// Unit-conductivity matrix of the hexahedron with node positions p[0..7] in
// element order (nodes 1-4 in the lower y plane, 5-8 in the higher).
void Hex_Element_Matrix(const double p[8][3], double k[hex_values]);

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
