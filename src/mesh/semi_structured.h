// Semi-structured finite-element mesh settings and state.
#pragma once

class SemiStructured {
public:
  // Mesh: 0 adaptive semi-structured, 1 dense rectangular, 2 regular semi-structured.
  int use_dense_rect_mesh = 0;
  // Adaptive zones: 0 mixed, 1 uniform, 2 one transition zone, 3 two transition zones.
  int type_ss_mesh = 2;
  int type_ss_ver = 0;     // zones by 0 mesh level, 1 distance
  int num_fine_levels = 5; // dense mesh levels below the surface
};
