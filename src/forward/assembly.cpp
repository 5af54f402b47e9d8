// Assembly of the capacitance matrix: element matrices in double precision,
// times the element's conductivity, into the row store; outer hexahedron
// faces take the mixed boundary term.
#include <algorithm>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "forward/element_matrices.h"
#include "forward/forward.h"
#include "survey/survey_text.h"

namespace {

void Element_Points(const Element &el, double p[8][3]) {
  for (int c = 0; c < el.nnodes; c++) {
    p[c][0] = el.x[c];
    p[c][1] = el.y[c];
    p[c][2] = el.z[c];
  }
}

// Position in `pairs` (`nv` values) of the node pair (a, b), either order.
int Pair_Index(const int (*pairs)[2], int nv, int a, int b) {
  const int lo = std::min(a, b), hi = std::max(a, b);
  for (int v = 0; v < nv; v++)
    if (pairs[v][0] == lo && pairs[v][1] == hi)
      return v;
  return 0; // every face pair is a stored pair
}

// The unit-conductivity matrix of the element with node positions p;
// returns its number of values.
int Element_Matrix(const Element &el, const double p[8][3], int hex_element,
                   double k[hexq_values]) {
  if (el.tet) {
    Tet_Element_Matrix(p, k);
    return tet_values;
  }
  if (el.nnodes == 5) {
    Pyramid_Element_Matrix(p, k);
    return pyr_values;
  }
  if (hex_element != HEX_AVERAGED_TETS || el.cut_faces) {
    Hex_Q1_Element_Matrix(p, k, hex_element == HEX_TRILINEAR_HARMONIC,
                          static_cast<unsigned>(el.cut_faces));
    return hexq_values;
  }
  Hex_Element_Matrix(p, k);
  return hex_values;
}

// One element into the store; returns the failed inserts. `unit` receives
// the unit-conductivity matrix when not null.
int Add_Element(CooMatrix64 &m, const Element &el, int hex_element, double xmid, double ymid,
                float *unit) {
  const double sr = el.cond_r, si = el.cond_i;
  double p[8][3], k[hexq_values];
  Element_Points(el, p);
  const int nv = Element_Matrix(el, p, hex_element, k);
  const int(*pairs)[2] = Element_Pairs(nv);
  int fail = 0;
  for (int v = 0; v < nv; v++) {
    fail += m.add(el.node[pairs[v][0]], el.node[pairs[v][1]], k[v] * sr, k[v] * si);
    if (unit)
      unit[v] = static_cast<float>(k[v]);
  }
  if (el.nnodes != 8)
    return fail;
  for (int f = 0; f < 5; f++) {
    if (!(el.faces & (1 << f)))
      continue;
    double q[4][3];
    for (int c = 0; c < 4; c++)
      for (int d = 0; d < 3; d++)
        q[c][d] = p[hex_face_nodes[f][c]][d];
    const double g = Boundary_Face_Coefficient(q, hex_face_axis[f], xmid, ymid);
    const float gr = static_cast<float>(g * sr), gi = static_cast<float>(g * si);
    double mr[10], mi[10];
    Boundary_Face_Matrix(gr, mr);
    Boundary_Face_Matrix(gi, mi);
    for (int v = 0; v < 10; v++)
      fail += m.add(el.node[hex_face_nodes[f][face_pairs[v][0]]],
                    el.node[hex_face_nodes[f][face_pairs[v][1]]], mr[v], mi[v]);
    // The face term scales with the element's conductivity too, so the
    // unit-conductivity values that the Jacobian reads carry it.
    if (unit) {
      double mu[10];
      Boundary_Face_Matrix(g, mu);
      for (int v = 0; v < 10; v++)
        unit[Pair_Index(pairs, nv, hex_face_nodes[f][face_pairs[v][0]],
                        hex_face_nodes[f][face_pairs[v][1]])] += static_cast<float>(mu[v]);
    }
  }
  return fail;
}

} // namespace

int Calculate_FEM_Cap_Matrix_Fix_OMP(Data_Set &ds, int &jacob, const std::string &store_path) {
  SemiStructured &ss = ds.Semistructured;
  Fem_State &fem = ds.Fem;
  CooMatrix64 &m = fem.coomatrix64;
  const int64_t ne = ss.number_elements;
  if (jacob) {
    if (fem.cp_offset.Resize(ds, ne + 1, "element store offsets"))
      return 1;
    for (int64_t e = 0; e < ne; e++)
      fem.cp_offset[e + 1] =
          fem.cp_offset[e] + Element_Value_Count(ss.elements[e].nnodes, fem.hex_element,
                                                 ss.elements[e].cut_faces != 0);
    if (fem.cp18.Resize(ds, fem.cp_offset[ne], "element store"))
      return 1;
  }
  const double xmid = ss.xmid, ymid = ss.ymid;
  // Elements of one z level touch the nodes of two adjacent levels only, so
  // levels of the same parity never share a row of the store: each parity
  // runs in parallel without locks.
  int fail = 0;
  for (int parity = 1; parity >= 0; parity--) {
    progress(ds,
             parity ? "Calculating capacitence matrix semistructured 1"
                    : "Calculating capacitence matrix semistructured 2",
             parity ? 0.0 : 0.5);
    const int nlev = ss.nlevels;
#pragma omp parallel for schedule(dynamic, 1) reduction(+ : fail)
    for (int k = 1; k <= nlev; k++) {
      if ((k & 1) != parity)
        continue;
      for (int64_t e = ss.level_first[k - 1]; e < ss.level_first[k]; e++)
        fail += Add_Element(m, ss.elements[e], fem.hex_element, xmid, ymid,
                            jacob ? fem.cp18.data() + fem.cp_offset[e] : nullptr);
    }
  }
  if (fail) {
    show_message(ds, "Error in calculating capacitence matrix", "Message Fix OMP");
    return fail;
  }
  if (jacob) {
    progress(ds, "Saving capacitence matrix semistructured", 0.9);
    if (Write_Values_Chunks(store_path, fem.cp18.data(), fem.cp_offset[ne], false)) {
      Show_Text(ds, "Message", MK_WARNING, "Unable to create the file %s", store_path.c_str());
      jacob = 0;
    }
  }
  progress(ds, "Calculating capacitence matrix semistructured completed", 1.0);
  return 0;
}

int Set_Up_Cap_Matrix_Blk(Data_Set &ds, int jacob, const std::string &store_path) {
  SemiStructured &ss = ds.Semistructured;
  const bool cmplx = ds.Data_ip.ipcmplx == 1;
  Set_Mesh_Cell_Cond_ss(ds, cmplx);
  CooMatrix64 &m = ds.Fem.coomatrix64;
  if (m.Allocate_COO(ds, ss.number_nodes_ss, cmplx ? 1 : 0))
    return 1;
  m.nx = ds.Model_grid.lx;
  m.ny = ds.Model_grid.ly;
  m.nz = ds.Model_grid.lzw;
  ss.Calculate_Mid_Point();
  int j = jacob;
  const int fail = Calculate_FEM_Cap_Matrix_Fix_OMP(ds, j, store_path);
  ds.Fem.jacob = j;
  TRACE("Set_Up_Cap_Matrix_Blk nodes %lld elements %lld errors %d\n", static_cast<long long>(m.n),
        static_cast<long long>(ss.number_elements), fail);
  return fail;
}
