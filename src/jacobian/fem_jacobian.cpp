// The finite-element Jacobian by the adjoint form: the entry of datum d and
// cell b is the sum over b's elements of (current field)^T K_e (potential
// field), K_e the element's unit-conductivity matrix, divided by the cell's
// resistivity and the datum's calculated voltage: the derivative of the log
// of the calculated value by the log of the cell's resistivity. No extra
// solves: the fields are the stored whole-mesh potentials of each source.
//
// Layout: the elements of each cell are listed together; `ksort` gives each
// cell's first element-node entry (4 a tetrahedron, 8 a hexahedron), `knode`
// the mesh node of each entry. For a group of data sharing one current
// field, `vtemp` holds K_e times each datum's potential field at every
// entry, so that the kernel streams vtemp in order and gathers only the
// current field.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/memory.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "forward/element_matrices.h"
#include "forward/forward.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian.h"
#include "survey/survey_text.h"

namespace {

int64_t File_Size_Bytes(const std::string &path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  return ec ? -1 : static_cast<int64_t>(size);
}

// Sources of a datum's current or potential side with their signs.
struct Side {
  int n = 0;
  int src[2] = {};
  float sign[2] = {};
};

// Data go through the kernels in batches of `lanes` values a node: 16 real
// data, or 8 complex data with their real and imaginary parts side by side.
// Lane w of qdiff holds datum w's potential field and lane w of pdiff its
// current field, interleaved by node (field[node x lanes + w]); vtemp holds
// K_e q the same way by element-node entry. K_e is real, so every lane takes
// the same products, and the cost of fetching an element is shared by the
// whole batch.
constexpr int lanes = 16;

Side Current_Side(const Data_Set &ds, int i) {
  Side s;
  if (ds.use_dipoles_fem == 1) {
    s.n = 1;
    s.src[0] = ds.Fem.datum_dipole[2 * i];
    s.sign[0] = 1.0f;
    return s;
  }
  const Data_Point &d = ds.dp[i];
  s.src[s.n] = d.nc1 + 1;
  s.sign[s.n++] = 1.0f;
  if (d.nelec == 4) {
    s.src[s.n] = d.nc2 + 1;
    s.sign[s.n++] = -1.0f;
  }
  return s;
}

Side Potential_Side(const Data_Set &ds, int i) {
  Side s;
  if (ds.use_dipoles_fem == 1) {
    s.n = 1;
    s.src[0] = ds.Fem.datum_dipole[2 * i + 1];
    s.sign[0] = 1.0f;
    return s;
  }
  const Data_Point &d = ds.dp[i];
  s.src[s.n] = d.np1 + 1;
  s.sign[s.n++] = 1.0f;
  if (d.nelec > 2) {
    s.src[s.n] = d.np2 + 1;
    s.sign[s.n++] = -1.0f;
  }
  return s;
}

// Data d and d + 1 share their current field.
bool Share_Current(const Data_Set &ds, int d) {
  if (d + 1 >= ds.mdata)
    return false;
  if (ds.use_dipoles_fem == 1)
    return ds.Fem.datum_dipole[2 * d] == ds.Fem.datum_dipole[2 * d + 2];
  const Data_Point &a = ds.dp[d], &b = ds.dp[d + 1];
  return a.nelec == b.nelec && a.nc1 == b.nc1 && (a.nelec < 4 || a.nc2 == b.nc2);
}

int Group_Size(int hit) {
  return hit == 4 ? 4 : hit == 3 ? 2 : 1;
}

// The element-node layout of the cells.
struct Cell_Layout {
  std::vector<int> ksort;            // nmodel + 1 entry offsets
  std::vector<int> knode;            // mesh node (from 0) of each entry
  std::vector<int64_t> elems;        // elements, cell by cell
  std::vector<int> elem_start;       // nmodel + 1 offsets into elems
  std::vector<float> cond_r, cond_i; // each cell's conductivity, from its elements
};

int Build_Layout(Data_Set &ds, Cell_Layout &c) {
  const SemiStructured &ss = ds.Semistructured;
  const int nmodel = ds.Model_grid.nmodel_blocks;
  std::vector<int> block;
  if (Element_Model_Blocks(ds, block))
    return 1;
  const int64_t ne = ss.number_elements;
  std::vector<int> ntet(nmodel, 0), nhex(nmodel, 0), npyr(nmodel, 0);
  for (int64_t e = 0; e < ne; e++) {
    const int b = block[e];
    if (b < 0 || b >= nmodel)
      continue;
    const int nn = ss.elements[e].nnodes;
    (nn == 4 ? ntet : nn == 5 ? npyr : nhex)[b]++;
  }
  Calculate_Finite_Element_Jacobian_ksort_block_ss(nmodel, ntet.data(), nhex.data(), c.ksort,
                                                   npyr.data());
  TRACE("ksort max %d\n", c.ksort[nmodel]);
  c.elem_start.assign(nmodel + 1, 0);
  for (int b = 0; b < nmodel; b++)
    c.elem_start[b + 1] = c.elem_start[b] + ntet[b] + nhex[b] + npyr[b];
  c.elems.assign(c.elem_start[nmodel], 0);
  std::vector<int> at(c.elem_start.begin(), c.elem_start.end() - 1);
  c.cond_r.assign(nmodel, 0.0f);
  c.cond_i.assign(nmodel, 0.0f);
  for (int64_t e = 0; e < ne; e++) {
    const int b = block[e];
    if (b < 0 || b >= nmodel)
      continue;
    c.elems[at[b]++] = e;
    c.cond_r[b] = ss.elements[e].cond_r;
    c.cond_i[b] = ss.elements[e].cond_i;
  }
  c.knode.assign(c.ksort[nmodel], 0);
#pragma omp parallel for schedule(dynamic, 64)
  for (int b = 0; b < nmodel; b++) {
    int k = c.ksort[b];
    for (int q = c.elem_start[b]; q < c.elem_start[b + 1]; q++) {
      const Element &el = ss.elements[c.elems[q]];
      for (int a = 0; a < el.nnodes; a++)
        c.knode[k++] = el.node[a] - 1;
    }
  }
  return 0;
}

// Whole-mesh fields of the sources, from memory or from the files.
class Field_Store {
public:
  Field_Store(Data_Set &ds, bool cmplx) : ds_(ds), cmplx_(cmplx), n_(ds.Fem.coomatrix64.n) {}
  ~Field_Store() {
    for (FILE *f : file_)
      if (f)
        std::fclose(f);
  }
  // Loads every field when asked and they fit; else opens the files.
  int Open() {
    const Fem_State &fem = ds_.Fem;
    const int64_t values = fem.kfield;
    const std::string *path[2] = {&ds_.file_names.temp[TF_POTENTIALS],
                                  &ds_.file_names.temp[TF_POTENTIALS_I]};
    const int parts = cmplx_ ? 2 : 1;
    for (int p = 0; p < parts; p++) {
      const int64_t size = File_Size_Bytes(*path[p]);
      if (size < values * 4)
        return Show_Text(ds_, "Mesh potential file error", MK_WARNING,
                         "Error in size of mesh potential values file\n%s", path[p]->c_str());
    }
    const double need = static_cast<double>(values) * 4.0 * parts;
    memp = ds_.Model_grid.always_load_potentials_Jacobian_ram == 1 &&
           need < 0.8 * static_cast<double>(Available_Memory_Bytes());
    if (memp) {
      progress(ds_, "Finite-element method. Read potentials data values.", 0.0);
      for (int p = 0; p < parts; p++) {
        if (ptemp_[p].Resize(ds_, std::max<int64_t>(values, 1), "ptemp") ||
            Read_Values_File(ds_, *path[p], ptemp_[p].data(), values)) {
          show_message(ds_, "Error in reading complex potential values", "Read File Error Message");
          return Show_Text(ds_, "Read File Error Message", MK_WARNING,
                           "Error in reading complex potential values file\n%s", path[p]->c_str());
        }
      }
      return 0;
    }
    TRACE("Reading electrodes potentials from disk for Jacobian calculation\n");
    for (int p = 0; p < parts; p++) {
      file_[p] = std::fopen(path[p]->c_str(), "rb");
      if (!file_[p])
        return Show_Text(ds_, "Read File Error Message", MK_WARNING,
                         "Error in reading complex potential values file\n%s", path[p]->c_str());
    }
    buf_.resize(n_);
    return 0;
  }
  // out[i x stride + p] (node i; p the real and imaginary part of a complex
  // field) = sum of sign x field(source).
  int Combine(const Side &s, float *out, int stride) {
    const int64_t n = n_;
    const int vw = cmplx_ ? 2 : 1;
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < n; i++)
      for (int p = 0; p < vw; p++)
        out[i * stride + p] = 0.0f;
    for (int k = 0; k < s.n; k++) {
      const int src = s.src[k];
      if (src < 1 || src > ds_.Fem.nelec)
        return 1;
      const int64_t off = ds_.Fem.offset_field[src - 1];
      const float sign = s.sign[k];
      for (int p = 0; p < vw; p++) {
        const float *f = nullptr;
        if (memp) {
          f = ptemp_[p].data() + off;
        } else {
          if (std::fseek(file_[p], off * 4, SEEK_SET) ||
              std::fread(buf_.data(), 4, n, file_[p]) != static_cast<size_t>(n))
            return 2;
          f = buf_.data();
        }
#pragma omp parallel for schedule(static)
        for (int64_t i = 0; i < n; i++)
          out[i * stride + p] += sign * f[i];
      }
    }
    return 0;
  }
  // The fields of `count` sides at once, side j in the lanes from j x vw:
  // one pass over the nodes where the fields are in memory.
  int Combine_Lanes(const Side *sides, int count, float *out, int stride) {
    if (!memp) {
      for (int j = 0; j < count; j++)
        if (const int e = Combine(sides[j], out + j * (cmplx_ ? 2 : 1), stride))
          return e;
      return 0;
    }
    const int vw = cmplx_ ? 2 : 1;
    int64_t off[lanes][2] = {};
    float sign[lanes][2] = {};
    int terms[lanes] = {};
    for (int j = 0; j < count; j++) {
      terms[j] = sides[j].n;
      for (int k = 0; k < sides[j].n; k++) {
        const int src = sides[j].src[k];
        if (src < 1 || src > ds_.Fem.nelec)
          return 1;
        off[j][k] = ds_.Fem.offset_field[src - 1];
        sign[j][k] = sides[j].sign[k];
      }
    }
    const int64_t n = n_;
    const float *f[2] = {ptemp_[0].data(), cmplx_ ? ptemp_[1].data() : nullptr};
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < n; i++) {
      float *row = out + i * stride;
      for (int j = 0; j < count; j++)
        for (int p = 0; p < vw; p++) {
          float v = 0.0f;
          for (int k = 0; k < terms[j]; k++)
            v += sign[j][k] * f[p][off[j][k] + i];
          row[j * vw + p] = v;
        }
    }
    return 0;
  }
  int memp = 0;

private:
  Data_Set &ds_;
  bool cmplx_;
  int64_t n_;
  Block_Array<float> ptemp_[2];
  FILE *file_[2] = {nullptr, nullptr};
  std::vector<float> buf_;
};

// The kernels are built for AVX-512 and AVX2 besides the baseline, the
// widest the processor runs chosen at the first call; each call takes a
// chunk of cells.
#define OHMVOL3D_WIDE_KERNEL __attribute__((target_clones("avx512f", "avx2", "default")))
constexpr int cells_a_chunk = 64;

// vtemp of cells [lo, hi): K_e q at every entry of every cell.
OHMVOL3D_WIDE_KERNEL
void Vtemp_Cells(const SemiStructured &ss, const Fem_State &fem, const Cell_Layout &c,
                 const float *qdiff, float *vtemp, int lo, int hi) {
  for (int b = lo; b < hi; b++) {
    int k = c.ksort[b];
    for (int q = c.elem_start[b]; q < c.elem_start[b + 1]; q++) {
      const int64_t e = c.elems[q];
      const Element &el = ss.elements[e];
      const float *kv = fem.cp18.data() + fem.cp_offset[e];
      const int nv = static_cast<int>(fem.cp_offset[e + 1] - fem.cp_offset[e]);
      const int(*pairs)[2] = Element_Pairs(nv);
      const int nn = el.nnodes;
      // The fields at the element's nodes, gathered once.
      float ql[8][lanes];
      for (int a = 0; a < nn; a++) {
        const float *src = qdiff + static_cast<int64_t>(el.node[a] - 1) * lanes;
        for (int w = 0; w < lanes; w++)
          ql[a][w] = src[w];
      }
      float acc[8][lanes] = {};
      for (int v = 0; v < nv; v++) {
        const int r = pairs[v][0], t = pairs[v][1];
        const float kk = kv[v];
        for (int w = 0; w < lanes; w++)
          acc[r][w] += kk * ql[t][w];
        if (r != t)
          for (int w = 0; w < lanes; w++)
            acc[t][w] += kk * ql[r][w];
      }
      float *out = vtemp + static_cast<int64_t>(k) * lanes;
      for (int a = 0; a < nn; a++)
        for (int w = 0; w < lanes; w++)
          out[a * lanes + w] = acc[a][w];
      k += nn;
    }
  }
}

void Fill_Vtemp(const Data_Set &ds, const Cell_Layout &c, const float *qdiff, float *vtemp) {
  const int nmodel = static_cast<int>(c.ksort.size()) - 1;
#pragma omp parallel for schedule(dynamic, 1)
  for (int lo = 0; lo < nmodel; lo += cells_a_chunk)
    Vtemp_Cells(ds.Semistructured, ds.Fem, c, qdiff, vtemp, lo,
                std::min(lo + cells_a_chunk, nmodel));
}

// Rows of cells [lo, hi) for a batch of `nd` data into rows_r (rows_i): p^T
// K_e q summed over the cell's elements, times the cell's conductivity and
// each datum's 1 / V.
OHMVOL3D_WIDE_KERNEL
void Kernel_Cells(const Cell_Layout &c, const float *pdiff, const float *vtemp, int nd, bool cmplx,
                  const std::complex<float> *scale, float *rows_r, float *rows_i, int64_t nmodel,
                  int64_t lo, int64_t hi) {
  for (int64_t b = lo; b < hi; b++) {
    // Lane products v[w] p[w] and, for complex pairs, v[w] p[w ^ 1].
    float same[lanes] = {}, cross[lanes] = {};
    for (int k = c.ksort[b]; k < c.ksort[b + 1]; k++) {
      const float *v = vtemp + static_cast<int64_t>(k) * lanes;
      const float *p = pdiff + static_cast<int64_t>(c.knode[k]) * lanes;
      for (int w = 0; w < lanes; w++)
        same[w] += v[w] * p[w];
      if (cmplx)
        for (int w = 0; w < lanes; w++)
          cross[w] += v[w] * p[w ^ 1];
    }
    const std::complex<float> sigma(c.cond_r[b], cmplx ? c.cond_i[b] : 0.0f);
    for (int d = 0; d < nd; d++) {
      // (vr + i vi)(pr + i pi) for a complex datum in lanes 2d and 2d + 1.
      const std::complex<float> sum = cmplx ? std::complex<float>(same[2 * d] - same[2 * d + 1],
                                                                  cross[2 * d] + cross[2 * d + 1])
                                            : std::complex<float>(same[d], 0.0f);
      const std::complex<float> e = sum * sigma * scale[d];
      rows_r[d * nmodel + b] = e.real();
      if (rows_i)
        rows_i[d * nmodel + b] = e.imag();
    }
  }
}

void Jacobian_Block_Kernel(const Cell_Layout &c, const float *pdiff, const float *vtemp, int nd,
                           bool cmplx, const std::complex<float> *scale, float *rows_r,
                           float *rows_i, int64_t nmodel) {
  constexpr int64_t chunk = 4 * cells_a_chunk;
#pragma omp parallel for schedule(dynamic, 1)
  for (int64_t lo = 0; lo < nmodel; lo += chunk)
    Kernel_Cells(c, pdiff, vtemp, nd, cmplx, scale, rows_r, rows_i, nmodel, lo,
                 std::min(lo + chunk, nmodel));
}

} // namespace

void Jacobian_Hit_Types(const Data_Set &ds, std::vector<int> &hit) {
  const int m = ds.mdata;
  hit.assign(std::max(m, 0), 0);
  const bool cmplx = ds.Data_ip.ipcmplx == 1;
  bool open = false;
  for (int d = 0; d < m;) {
    const bool next = Share_Current(ds, d);
    int h;
    if (next && Share_Current(ds, d + 1) && Share_Current(ds, d + 2)) {
      h = 4;
      open = false;
    } else if (next && open) {
      h = 3;
      open = Share_Current(ds, d + 1);
    } else if (next) {
      h = 1;
      open = true;
    } else if (open) {
      h = 2;
      open = false;
    } else {
      h = 0;
    }
    if (ds.array2 == 16 && h == 0)
      h = 1;
    if (cmplx && h > 2)
      h = 2;
    const int take = std::min(Group_Size(h), m - d);
    for (int k = 0; k < take; k++)
      hit[d + k] = h;
    d += take;
  }
}

void Calculate_Finite_Element_Jacobian_ksort_block_ss(int nmodel, const int *nelem_tet,
                                                      const int *nelem_hex, std::vector<int> &ksort,
                                                      const int *nelem_pyr) {
  if (nmodel < 1) {
    ksort.assign(1, 0);
    return;
  }
  ksort.assign(nmodel + 1, 0);
  for (int b = 0; b < nmodel; b++)
    ksort[b + 1] = ksort[b] + 4 * std::max(nelem_tet[b], 0) + 8 * std::max(nelem_hex[b], 0) +
                   (nelem_pyr ? 5 * std::max(nelem_pyr[b], 0) : 0);
}

int Finite_Element_Jacobian_Real_data_ss(Data_Set &ds) {
  const auto t0 = Clock::now();
  Fem_State &fem = ds.Fem;
  SemiStructured &ss = ds.Semistructured;
  const int nmodel = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  const bool cmplx = fem.coomatrix64.cmplx != 0;
  const int64_t n = fem.coomatrix64.n;
  progress(ds, "FEM Jacobian matrix calculation.", 0.0);
  if (nmodel < 1 || m < 1 || n < 1 || fem.cp18.size() < 1 || ss.number_elements < 1)
    return Show_Text(ds, "Error Message", MK_WARNING,
                     "Cannot allocate memory for FEM\ncoupling coefficients. Size is %d.",
                     static_cast<int>(fem.cp18.size()));
  Cell_Layout c;
  if (Build_Layout(ds, c))
    return 1;
  const double t_map = Seconds_Since(t0);

  Field_Store fields(ds, cmplx);
  if (fields.Open())
    return 1;
  const int vw = cmplx ? 2 : 1, batch = lanes / vw;
  const int ngr = Jacobian_Block_Rows(ds.ssd_cache, nmodel, m, false);
  std::vector<float> grtemp, grtemp_i, pdiff, qdiff, vtemp;
  try {
    grtemp.assign(static_cast<size_t>(ngr + batch) * nmodel, 0.0f);
    if (cmplx)
      grtemp_i.assign(grtemp.size(), 0.0f);
    pdiff.assign(static_cast<size_t>(n) * lanes, 0.0f);
    qdiff.assign(static_cast<size_t>(n) * lanes, 0.0f);
    vtemp.assign(static_cast<size_t>(c.ksort[nmodel]) * lanes, 0.0f);
  } catch (...) {
    return Show_Text(ds, cmplx ? "Memory Error ipcmplx>0" : "Memory Error ipcmplx==0", MK_WARNING,
                     "Insufficient memory for grtemp\nin Finite_Element_Jacobian_Real_data_ss\nngr "
                     "%d mem_gr %lld",
                     ngr, static_cast<long long>(ngr) * nmodel * 4);
  }

  progress(ds, "Calculating element partial derivatives start..", 0.0);
  const std::string &path = ds.file_names.temp[TF_GRROWT];
  const std::string &path_i = ds.file_names.temp[TF_GRROWT_I];
  if (Write_Values_Chunks(path, nullptr, 0, false) ||
      (cmplx && Write_Values_Chunks(path_i, nullptr, 0, false)))
    return Show_Text(ds, cmplx ? "FEM complex Jacobian Message" : "FEM Jacobian Message",
                     MK_WARNING, "Error in creating file\n%s", (cmplx ? path_i : path).c_str());

  std::vector<int> hit;
  Jacobian_Hit_Types(ds, hit);
  int counts[5] = {};
  for (int d = 0; d < m; d += std::min(Group_Size(hit[d]), m - d))
    counts[hit[d]]++;
  TRACE("\nData calculation Jacobian analysis num data %d, hit0 %d hit1 %d hit2 %d hit3 %d hit4 "
        "%d all check %d\n",
        m, counts[0], counts[1], counts[2], counts[3], counts[4],
        counts[0] + counts[1] + counts[2] + 2 * counts[3] + 4 * counts[4]);

  std::vector<double> &diag = ds.LS.diag_hessian_res;
  diag.assign(nmodel, 0.0);
  double t_fetch = 0.0, t_kernel = 0.0, t_write = 0.0;
  int rows_held = 0, first_held = 0, groups = 0, ierr = 0;
  double sum_abs = 0.0;
  auto flush = [&]() {
    const auto tw = Clock::now();
    const int64_t values = static_cast<int64_t>(rows_held) * nmodel;
    for (int64_t k = 0; k < values; k++) {
      diag[k % nmodel] += static_cast<double>(grtemp[k]) * grtemp[k];
      sum_abs += std::fabs(grtemp[k]);
    }
    if (Write_Values_Chunks(path, grtemp.data(), values, true) ||
        (cmplx && Write_Values_Chunks(path_i, grtemp_i.data(), values, true))) {
      Show_Text(ds, "Jacobian Save Error", MK_WARNING,
                "Error in saving Jacobian values for data point %d.\nNumber should be saved is "
                "%lld.\nNumber actually saved is %lld.\n",
                first_held + 1, static_cast<long long>(values), 0LL);
      return 1;
    }
    rows_held = 0;
    t_write += Seconds_Since(tw);
    return 0;
  };
  // Batches of data; a datum whose current field is that of the datum before
  // it takes a copy of that lane instead of a new sum.
  for (int d = 0; d < m && !ierr;) {
    const int nd = std::min(batch, m - d);
    if (groups++ % 4 == 0)
      Progress_Text(ds, static_cast<double>(d) / m,
                    "Calculating FEM partial derivatives %.2f%% %d n %d", 100.0 * d / m, d + 1, m);
    const auto tf = Clock::now();
    std::complex<float> scale[lanes];
    Side cur[lanes], pot[lanes];
    for (int k = 0; k < nd; k++) {
      cur[k] = Current_Side(ds, d + k);
      pot[k] = Potential_Side(ds, d + k);
      const std::complex<double> v(fem.rm_volt[d + k], cmplx ? fem.rm_volt_i[d + k] : 0.0f);
      scale[k] = std::abs(v) > 0.0 ? std::complex<float>(1.0 / v) : std::complex<float>(0.0f);
    }
    int e = fields.Combine_Lanes(cur, nd, pdiff.data(), lanes);
    if (!e)
      e = fields.Combine_Lanes(pot, nd, qdiff.data(), lanes);
    if (e) {
      Show_Text(ds, "Error Message", MK_WARNING,
                cmplx ? "FEM cmplx Jacobian error %d at data %d"
                      : "FEM real Jacobian error %d at data %d",
                e, d + 1);
      ierr = e;
      break;
    }
    Fill_Vtemp(ds, c, qdiff.data(), vtemp.data());
    t_fetch += Seconds_Since(tf);
    const auto tk = Clock::now();
    if (rows_held == 0)
      first_held = d;
    Jacobian_Block_Kernel(
        c, pdiff.data(), vtemp.data(), nd, cmplx, scale,
        grtemp.data() + static_cast<int64_t>(rows_held) * nmodel,
        cmplx ? grtemp_i.data() + static_cast<int64_t>(rows_held) * nmodel : nullptr, nmodel);
    t_kernel += Seconds_Since(tk);
    rows_held += nd;
    d += nd;
    if ((rows_held >= ngr || d >= m) && flush())
      ierr = 1;
  }
  progress(ds, "Calculating element partial derivatives - free memory..", 1.0);
  ss.elements.Free();
  fem.cp18.Free();
  fem.cp_offset.Free();
  LS_State &ls = ds.LS;
  ls.time_jac1 += t_map;
  ls.time_jac2 += t_fetch;
  ls.time_jac3 += t_kernel;
  ls.time_jac4 += t_write;
  ls.time_jac += Seconds_Since(t0);
  TRACE("FEM Jacobian memp %d ngr %d map %.3f fetch %.3f kernel %.3f write %.3f sum |J| %.6e\n",
        fields.memp, ngr, t_map, t_fetch, t_kernel, t_write, sum_abs);
  if (!ierr)
    progress(ds, "Calculating element partial derivatives completed.", 1.0);
  return ierr;
}
