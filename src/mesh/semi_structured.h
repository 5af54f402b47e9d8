// The finite-element mesh that is solved: a subset of the main mesh's nodes,
// 8-node hexahedra and 4-node tetrahedra, kept level by level in z.
#pragma once

#include <cstdint>

#include "core/memory.h"

// Boundary face flags of a hexahedron (nodes as in the element record).
enum Face_Flag : unsigned char {
  FACE_LOW_X = 1,   // nodes 1, 2, 6, 5
  FACE_HIGH_X = 2,  // nodes 4, 3, 7, 8
  FACE_LOW_Y = 4,   // nodes 1, 2, 3, 4
  FACE_HIGH_Y = 8,  // nodes 5, 6, 7, 8
  FACE_BOTTOM = 16, // nodes 2, 3, 7, 6
};

// One element. Hexahedron nodes 1-4 lie in the plane of lower y and 5-8 in
// the plane of higher y, each set running (low x, top), (low x, bottom),
// (high x, bottom), (high x, top). A pyramid (5 nodes) has its base
// quadrilateral in nodes 1-4, in order round it, and its apex in node 5.
struct Element {
  int tet;             // non-zero: a tetrahedron of 4 nodes
  int cut_faces;       // hexahedron faces cut by tetrahedra (Hex_Q1_Element_Matrix)
  int nnodes;          // 4, 5 or 8
  int code;            // 8 hexahedron, 20 tetrahedron, 13 pyramid of a transition block
  int cell;            // plan block number (from 0) of the adaptive block
  int layer;           // mesh layer (z level, from 1)
  unsigned char faces; // Face_Flag bits
  int jac;             // 1 inside the Jacobian limits
  int node[8];         // solved node numbers, from 1
  float x[8], y[8], z[8];
  float cond_r, cond_i;
};

// Transition patterns met so far (their tetrahedra in block-local points).
struct Pattern_Cache;

class SemiStructured {
public:
  // Mesh: 0 adaptive semi-structured, 1 dense rectangular, 2 regular semi-structured.
  int use_dense_rect_mesh = 0;
  // Adaptive zones: 0 mixed, 1 uniform, 2 one transition zone, 3 two transition zones.
  int type_ss_mesh = 2;
  int type_ss_ver = 0;     // zones by 0 mesh level, 1 distance
  int num_fine_levels = 5; // dense mesh levels below the surface
  int num_fine_used = 5;   // the same after the vertical setting raised it

  // Nodes.
  int64_t number_nodes_main = 0;
  int number_nodes_ss = 0;                   // neqns
  Block_Array<float> xnodet, ynodet, znodet; // mesh line positions
  int nxlines = 0, nylines = 0, nzlines = 0;
  Block_Array<float> xnodess, ynodess, znodess;
  Block_Array<int> node_ss_to_main0; // solved node -> main node, from 0
  Block_Array<int> node_main_ss;     // main node -> solved node from 1, -1 unused
  // Per z level (from 0): first solved node (from 1), first y line, y lines.
  Block_Array<int> node_ss_level1, level_start_y_line1, number_y_lines;
  // Per y line: first solved node (from 1) and nodes on it.
  Block_Array<int> start_y_line1, nodes_y_line;
  int total_y_lines = 0;

  // Elements, level by level; level_first[k - 1] .. level_first[k] - 1 are
  // the elements of z level k (from 1).
  Block_Array<Element> elements;
  int64_t number_elements = 0, max_elements = 0;
  Block_Array<int64_t> level_first;
  int nlevels = 0;
  int64_t num_hex = 0, num_tet = 0, num_pyr = 0, num_transition_blocks = 0, num_patterns = 0;
  int64_t num_pattern_fallbacks = 0; // patterns filled with tetrahedra alone

  // Adaptive block table: per z level and plan block, the subdivision in x
  // and in y (4, 2 or 1) and a flag.
  int nblk_x = 0, nblk_y = 0, nblk_z = 0;
  int64_t max_cells = 0;
  Block_Array<unsigned char> sub_x, sub_y, cell_flag;
  int64_t n4 = 0, n42 = 0, n2 = 0, n21 = 0, n1 = 0;

  // Jacobian limits.
  int ngridz = 0, nlevels_jac = 0;
  int jac_x[2] = {}, jac_y[2] = {};
  int z_jac = 0, z_jac_first = 1;

  double xmid = 0.0, ymid = 0.0;
  double vol_elements = 0.0, vol_grid = 0.0;

  void Find_ngridz(int meshz, int reduceside, int zn1_last_layer, int nwater);
  void Set_Jacobian_Limits(int reduceside, int ixfirst, int jyfirst, int ngridx, int ngridy,
                           int nwater);
  void Calculate_Mid_Point();
};
