// Transition blocks of the adaptive mesh: a block one z level thick whose
// faces carry the nodes of finer neighbours. Its points are lattice points
// (a, b, c) with a <= span_x, b <= span_y (main mesh spacings, at most 4) and
// c = 0 (top) or 1 (bottom), one bit each at a + 5 b + 25 c.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

class Data_Set;

constexpr int lattice_bits = 50;

inline int Lattice_Bit(int a, int b, int c) {
  return a + 5 * b + 25 * c;
}

// Steps (in main spacings) of the face lattices that decide a block's points.
struct Block_Faces {
  int span_x = 4, span_y = 4;
  // Tensor steps of the top (0) and bottom (1) faces, in x and y.
  int top_x = 4, top_y = 4, bot_x = 4, bot_y = 4;
  // Steps of the side faces along their horizontal direction: low x, high x
  // faces step in y; low y, high y faces step in x.
  int side_lo_x = 4, side_hi_x = 4, side_lo_y = 4, side_hi_y = 4;
  // Steps of the eight horizontal edges: [c][0] low y edge, [c][1] high y
  // edge (both along x), [c][2] low x edge, [c][3] high x edge (along y).
  int edge[2][4] = {{4, 4, 4, 4}, {4, 4, 4, 4}};
};

// The block's point set from its face and edge steps.
uint64_t Block_Points(const Block_Faces &f);

// Tetrahedra of one pattern, each as four lattice bits.
using Tet_List = std::vector<std::array<unsigned char, 4>>;

// The pattern of a block: its point set and its face steps.
struct Pattern_Key {
  uint64_t points = 0, steps = 0;
  bool operator==(const Pattern_Key &o) const { return points == o.points && steps == o.steps; }
};
struct Pattern_Hash {
  std::size_t operator()(const Pattern_Key &k) const {
    return std::hash<uint64_t>()(k.points * 0x9E3779B97F4A7C15ULL ^ k.steps);
  }
};
Pattern_Key Make_Pattern_Key(const Block_Faces &f, uint64_t points);

struct Pattern_Cache {
  std::unordered_map<Pattern_Key, Tet_List, Pattern_Hash> patterns;
  int64_t tetgen_calls = 0;
};

// Boundary triangles of the block: every face split into the sub-rectangles
// of its tensor steps, each sub-rectangle (with the edge points on its sides)
// cut into triangles by clipping corners in a fixed order of the points, so
// two blocks that share a face cut it the same way.
std::vector<std::array<unsigned char, 3>> Block_Boundary_Triangles(const Block_Faces &f,
                                                                   uint64_t points);

// Tetrahedra of a transition block by TetGen, from the cache when the same
// pattern was met before. 0 on success; 1 after the error message.
int Copy_Nodes_Element3(Data_Set &ds, Pattern_Cache &cache, const Block_Faces &f, uint64_t points,
                        const Tet_List *&tets);
