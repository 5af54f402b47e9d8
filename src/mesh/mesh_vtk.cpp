// The solved mesh as a VTK legacy unstructured grid: positions in the
// survey's units with z as elevation (ten digits, for map coordinates), hexahedra and tetrahedra,
// and the mesh layer and Jacobian flag of each element as cell data.
#include <cstdio>

#include "core/data_set.h"
#include "mesh/mesh.h"
#include "survey/survey_text.h"

namespace {

// VTK's hexahedron: a face whose right-hand normal points to the opposite
// face, then that face. With z turned into elevation the low-y face of the
// element record runs the other way round.
const int vtk_hex_order[8] = {0, 3, 2, 1, 4, 7, 6, 5};

} // namespace

int Write_Mesh_Vtk(Data_Set &ds, const char *path) {
  const SemiStructured &ss = ds.Semistructured;
  const Model_Grid &g = ds.Model_grid;
  FILE *f = std::fopen(path, "w");
  if (!f)
    return Show_Text(ds, "File Error", MK_WARNING, "Unable to create the file %s", path);
  const double sp = ds.spxx;
  std::fprintf(f, "# vtk DataFile Version 3.0\nOhmvol3D finite-element mesh\nASCII\n"
                  "DATASET UNSTRUCTURED_GRID\n");
  std::fprintf(f, "POINTS %d double\n", ss.number_nodes_ss);
  for (int s = 0; s < ss.number_nodes_ss; s++)
    std::fprintf(f, "%.10g %.10g %.10g\n", ss.xnodess[s] * sp + ds.xmin,
                 ss.ynodess[s] * sp + ds.ymin, (g.topo_reference - ss.znodess[s]) * sp);
  const int64_t ne = ss.number_elements;
  std::fprintf(f, "CELLS %lld %lld\n", static_cast<long long>(ne),
               static_cast<long long>(ss.num_hex * 9 + ss.num_tet * 5 + ss.num_pyr * 6));
  for (int64_t e = 0; e < ne; e++) {
    const Element &el = ss.elements[e];
    if (el.tet) {
      // Positive orientation in the elevation frame.
      int n[4] = {el.node[0], el.node[1], el.node[2], el.node[3]};
      double p[4][3];
      for (int c = 0; c < 4; c++) {
        p[c][0] = el.x[c];
        p[c][1] = el.y[c];
        p[c][2] = -el.z[c];
      }
      if (Tet_Volume6(p) < 0) {
        const int t = n[1];
        n[1] = n[2];
        n[2] = t;
      }
      std::fprintf(f, "4 %d %d %d %d\n", n[0] - 1, n[1] - 1, n[2] - 1, n[3] - 1);
    } else if (el.nnodes == 5) {
      // Base round it, then the apex: VTK's own pyramid order.
      std::fprintf(f, "5 %d %d %d %d %d\n", el.node[0] - 1, el.node[1] - 1, el.node[2] - 1,
                   el.node[3] - 1, el.node[4] - 1);
    } else {
      std::fprintf(f, "8");
      for (int c : vtk_hex_order)
        std::fprintf(f, " %d", el.node[c] - 1);
      std::fprintf(f, "\n");
    }
  }
  std::fprintf(f, "CELL_TYPES %lld\n", static_cast<long long>(ne));
  for (int64_t e = 0; e < ne; e++)
    std::fprintf(f, "%d\n", ss.elements[e].tet ? 10 : ss.elements[e].nnodes == 5 ? 14 : 12);
  std::fprintf(f, "CELL_DATA %lld\nSCALARS mesh_layer int 1\nLOOKUP_TABLE default\n",
               static_cast<long long>(ne));
  for (int64_t e = 0; e < ne; e++)
    std::fprintf(f, "%d\n", ss.elements[e].layer);
  std::fprintf(f, "SCALARS jacobian int 1\nLOOKUP_TABLE default\n");
  for (int64_t e = 0; e < ne; e++)
    std::fprintf(f, "%d\n", ss.elements[e].jac);
  const bool ok = std::ferror(f) == 0;
  if (std::fclose(f) != 0 || !ok)
    return Show_Text(ds, "File Error", MK_WARNING, "Error in writing the file %s", path);
  return 0;
}
