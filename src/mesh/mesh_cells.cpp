// The level table of the adaptive mesh: for each z level and plan block, how
// finely the block is divided, from the electrode marks of its plan cell.
#include <algorithm>

#include "core/data_set.h"
#include "core/trace.h"
#include "mesh/mesh.h"
#include "mesh/plan_blocks.h"
#include "survey/survey_text.h"

namespace {

// Division in x and y (4, 2 or 1) of a block of plan mark `mark` at z level
// k: dense levels down to l0, then two transition levels.
void Level_Division(int mark, int k, int l0, int &sx, int &sy, int &flag) {
  sx = sy = flag = 1;
  if (k <= l0) {
    sx = sy = mark == 1 ? 4 : mark == 0 ? 2 : 1;
  } else if (k == l0 + 1) {
    if (mark == 1) {
      sx = 4;
      sy = 2;
      flag = 0;
    } else if (mark == 0) {
      sx = sy = 2;
    }
  } else if (k <= l0 + 3) {
    if (mark == 1) {
      sx = sy = 2;
    } else if (mark == 0) {
      sx = 2;
      sy = 1;
      flag = 0;
    }
  }
}

// The deepest dense level (from 1): `l0`, or deeper where a buried
// electrode's nearest level lies lower, so that the nodes round every
// electrode (its level and those above and below) belong to dense blocks
// wherever it stands in plan.
int Deepest_Dense_Level(const Data_Set &ds, int l0) {
  const Model_Grid &g = ds.Model_grid;
  const float *z = g.zmesh.data();
  int deepest = l0;
  for (int e = 0; e < ds.num_point_elecs; e++) {
    const Point_Electrode &p = ds.pe[e];
    if (p.used <= 0 || !(p.depth > 0.0))
      continue;
    const int kn = static_cast<int>(std::lower_bound(z, z + g.lz, static_cast<float>(p.depth)) - z);
    deepest = std::max(deepest, g.nwater + std::min(kn, g.lz - 1) + 2);
  }
  return std::min(deepest, g.lzw - 1);
}

} // namespace

int Convert_Model_Cell_to_Mesh_Cell(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  const Plan_Axis ax{g.ixfirst, g.ngridx, g.nodes_per_unit_spacing};
  const Plan_Axis ay{g.jyfirst, g.ngridy, g.nodes_per_unit_spacing};
  ss.nblk_x = ax.Count();
  ss.nblk_y = ay.Count();
  ss.nblk_z = g.lzw - 1;
  ss.max_cells = ds.Data_lim_sys.max_cells_mesh;
  const int64_t plan = static_cast<int64_t>(ss.nblk_x) * ss.nblk_y;
  const int64_t k3 = plan * ss.nblk_z;
  if (k3 > ss.max_cells)
    return Refuse_Always(ds, "Max cells", "Too many cells. k3 %lld max_cells %lld",
                         static_cast<long long>(k3), static_cast<long long>(ss.max_cells));
  if (ss.sub_x.Resize(ds, k3, "mesh cell table") || ss.sub_y.Resize(ds, k3, "mesh cell table") ||
      ss.cell_flag.Resize(ds, k3, "mesh cell table"))
    return 1;
  const int l0 = Deepest_Dense_Level(ds, g.nwater + ss.num_fine_used - 1);
  const bool all_dense = ss.use_dense_rect_mesh == 2;
  const int nbx = g.ngridx - 1;
  constexpr int follow_buffer = 6;
  ss.n4 = ss.n42 = ss.n2 = ss.n21 = ss.n1 = 0;
  for (int k = 1; k <= ss.nblk_z; k++)
    for (int bj = 0; bj < ss.nblk_y; bj++)
      for (int bi = 0; bi < ss.nblk_x; bi++) {
        const int64_t c = (k - 1) * plan + static_cast<int64_t>(bj) * ss.nblk_x + bi;
        int sx = 1, sy = 1, flag = 1;
        const bool in_x = ax.Interior(bi), in_y = ay.Interior(bj);
        // The first buffer blocks beside the grid take, along the grid's
        // edge, the division of the interior block beside them, so that no
        // transition block stands on the grid's outer lines (where
        // electrodes may lie); the transition comes further out, inside the
        // mesh.
        const int out_x = in_x                ? 0
                          : bi < ax.first - 1 ? ax.first - 1 - bi
                                              : bi - (ax.first - 2 + ax.ngrid);
        const int out_y = in_y                ? 0
                          : bj < ay.first - 1 ? ay.first - 1 - bj
                                              : bj - (ay.first - 2 + ay.ngrid);
        if ((in_x || in_y) && out_x <= follow_buffer && out_y <= follow_buffer) {
          const int ci = std::clamp(bi - (g.ixfirst - 1), 0, nbx - 1);
          const int cj = std::clamp(bj - (g.jyfirst - 1), 0, g.ngridy - 2);
          const int mark = all_dense ? 1 : g.cellxy_elec[static_cast<int64_t>(cj) * nbx + ci];
          Level_Division(mark, k, l0, sx, sy, flag);
          if (!in_x)
            sx = 1;
          if (!in_y)
            sy = 1;
        }
        ss.sub_x[c] = static_cast<unsigned char>(sx);
        ss.sub_y[c] = static_cast<unsigned char>(sy);
        ss.cell_flag[c] = static_cast<unsigned char>(flag);
        if (sx == 4)
          (sy == 4 ? ss.n4 : ss.n42)++;
        else if (sx == 2)
          (sy == 2 ? ss.n2 : ss.n21)++;
        else
          ss.n1++;
      }
  TRACE("Convert_Model_Cell_to_Mesh_Cell nblk %d %d %d n4 %lld n42 %lld n2 %lld n21 %lld n1 "
        "%lld\n",
        ss.nblk_x, ss.nblk_y, ss.nblk_z, static_cast<long long>(ss.n4),
        static_cast<long long>(ss.n42), static_cast<long long>(ss.n2),
        static_cast<long long>(ss.n21), static_cast<long long>(ss.n1));
  return 0;
}
