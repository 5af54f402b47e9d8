// The finite-element Jacobian by the adjoint form: the entry of datum d and
// cell b is the sum over b's elements of (current field)^T K_e (potential
// field), K_e the element's unit-conductivity matrix, divided by the cell's
// resistivity and the datum's calculated voltage: the derivative of the log
// of the calculated value by the log of the cell's resistivity. No extra
// solves: the fields are the stored whole-mesh potentials of each source.
//
// The element work is done once per source, not once per datum. By
// reciprocity each datum's entry for cell b is (current side's field)^T K_b
// (potential side's field), K_b the sum of b's element matrices, and the
// fields of a side are signed sums of the sources' fields. So for a block of
// cells that fits in a core's cache, every source's field at the block's
// nodes (U) and K_b times it (W) are made once, and each datum's entry is a
// short dot product of two signed sums of their columns. Every cell's entry
// is made by one thread in a fixed order: the same bits whatever the number
// of threads.
//
// Layout: the elements of each cell are listed together; `ksort` gives each
// cell's first element-node entry (4 a tetrahedron, 8 a hexahedron, 5 a
// pyramid), `knode` the mesh node of each entry; each cell's distinct nodes
// are listed in `Cell_Nodes`.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <filesystem>
#include <omp.h>
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
// Each cell's distinct mesh nodes, and for every element-node entry its
// index among them: the cell's element matrices summed act on these nodes.
struct Cell_Nodes {
  std::vector<int> start;     // nmodel + 1 offsets into node
  std::vector<int> node;      // mesh node (from 0), ascending within a cell
  std::vector<int> local;     // per entry (ksort layout): index within its cell's nodes
  std::vector<uint8_t> level; // 1 where K_b 1 = 0 (no boundary terms in the cell)
};

// Marks the cells whose element matrices all have rows summing to zero
// (those without the outer boundary's terms): there a constant field gives
// nothing, and the fields may enter less a constant.
void Mark_Level_Cells(const SemiStructured &ss, const Fem_State &fem, const Cell_Layout &c,
                      Cell_Nodes &cn) {
  const int nmodel = static_cast<int>(c.ksort.size()) - 1;
  cn.level.assign(nmodel, 1);
#pragma omp parallel for schedule(dynamic, 64)
  for (int b = 0; b < nmodel; b++)
    for (int q = c.elem_start[b]; q < c.elem_start[b + 1] && cn.level[b]; q++) {
      const int64_t e = c.elems[q];
      const float *kv = fem.cp18.data() + fem.cp_offset[e];
      const int nv = static_cast<int>(fem.cp_offset[e + 1] - fem.cp_offset[e]);
      const int(*pairs)[2] = Element_Pairs(nv);
      double row[8] = {}, top = 0.0;
      for (int v = 0; v < nv; v++) {
        const int r = pairs[v][0], t = pairs[v][1];
        row[r] += kv[v];
        if (r != t)
          row[t] += kv[v];
        top = std::max(top, std::fabs(static_cast<double>(kv[v])));
      }
      for (int a = 0; a < ss.elements[e].nnodes; a++)
        if (std::fabs(row[a]) > 1e-5 * top)
          cn.level[b] = 0;
    }
}

void Build_Cell_Nodes(const Cell_Layout &c, Cell_Nodes &cn) {
  const int nmodel = static_cast<int>(c.ksort.size()) - 1;
  cn.start.assign(nmodel + 1, 0);
  cn.local.assign(c.knode.size(), 0);
  // Each cell's entries sorted once: their indices among its distinct nodes
  // and the count; the node list is then written back from those indices.
#pragma omp parallel
  {
    std::vector<int> nodes;
#pragma omp for schedule(dynamic, 64)
    for (int b = 0; b < nmodel; b++) {
      nodes.assign(c.knode.begin() + c.ksort[b], c.knode.begin() + c.ksort[b + 1]);
      std::sort(nodes.begin(), nodes.end());
      nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
      for (int k = c.ksort[b]; k < c.ksort[b + 1]; k++)
        cn.local[k] = static_cast<int>(std::lower_bound(nodes.begin(), nodes.end(), c.knode[k]) -
                                       nodes.begin());
      cn.start[b + 1] = static_cast<int>(nodes.size());
    }
  }
  for (int b = 0; b < nmodel; b++)
    cn.start[b + 1] += cn.start[b];
  cn.node.assign(cn.start[nmodel], 0);
#pragma omp parallel for schedule(dynamic, 64)
  for (int b = 0; b < nmodel; b++)
    for (int k = c.ksort[b]; k < c.ksort[b + 1]; k++)
      cn.node[cn.start[b] + cn.local[k]] = c.knode[k];
}

// The sources the data use, as columns: column j x vw + p holds part p (real,
// imaginary) of the field of source src_of[j] (from 0).
struct Source_Columns {
  std::vector<int> src_of; // source (from 0) of each column group
  std::vector<int> col_of; // column group of each source, -1 where unused
};

// One datum's terms: its current side and potential side as column groups
// with signs, and 1 / V.
struct Datum_Terms {
  int nc = 0, np = 0;
  int c[2] = {}, p[2] = {};
  float sc[2] = {}, sp[2] = {};
  std::complex<float> scale;
};

// The terms of data [d0, d0 + nd); returns the datum (from 1) whose
// source is out of range, else 0.
int Set_Datum_Terms(const Data_Set &ds, bool cmplx, int d0, int nd, Source_Columns &cols,
                    std::vector<Datum_Terms> &terms) {
  const int nelec = ds.Fem.nelec;
  terms.assign(nd, Datum_Terms());
  for (int k = 0; k < nd; k++) {
    const int d = d0 + k;
    const Side side[2] = {Current_Side(ds, d), Potential_Side(ds, d)};
    Datum_Terms &t = terms[k];
    for (int s = 0; s < 2; s++)
      for (int j = 0; j < side[s].n; j++) {
        const int src = side[s].src[j] - 1;
        if (src < 0 || src >= nelec)
          return d + 1;
        if (cols.col_of[src] < 0) {
          cols.col_of[src] = static_cast<int>(cols.src_of.size());
          cols.src_of.push_back(src);
        }
        (s ? t.p : t.c)[j] = cols.col_of[src];
        (s ? t.sp : t.sc)[j] = side[s].sign[j];
      }
    t.nc = side[0].n;
    t.np = side[1].n;
    const std::complex<double> v(ds.Fem.rm_volt[d], cmplx ? ds.Fem.rm_volt_i[d] : 0.0f);
    t.scale = std::abs(v) > 0.0 ? std::complex<float>(1.0 / v) : std::complex<float>(0.0f);
  }
  return 0;
}

// Fields go through the element products `lanes` columns at a time (16
// real fields, or the real and imaginary parts of 8 complex ones): K_e is
// real, so every lane takes the same products.
constexpr int lanes = 16;

// The kernels are built for AVX-512 and AVX2 besides the baseline, the
// widest the processor runs chosen at the first call.
#define OHMVOL3D_WIDE_KERNEL __attribute__((target_clones("avx512f", "avx2", "default")))

// A run of cells [b0, b1) and their nodes [s0, s0 + S): U holds each
// column's field at the nodes, W the cells' summed element matrices times
// it (column j at U[j x stride + i], node s0 + i).
struct Cell_Block {
  int b0 = 0, b1 = 0, s0 = 0, S = 0;
};

// K_e q in difference form, sum over t != r of K_rt (q_t - q_r), for an
// element of NN nodes whose values are its whole upper triangle by rows:
// the pairs known when compiled, so that the fields and sums stay in
// registers.
template <int NN>
inline void Level_Product(const float *kv, const float (*qe)[lanes], float (*acc)[lanes]) {
#pragma GCC unroll 8
  for (int r = 0; r < NN; r++)
#pragma GCC unroll 8
    for (int t = r + 1; t < NN; t++) {
      const float kk = kv[r * NN - r * (r - 1) / 2 + (t - r)];
      for (int w = 0; w < lanes; w++) {
        const float d = kk * (qe[t][w] - qe[r][w]);
        acc[r][w] += d;
        acc[t][w] -= d;
      }
    }
}

// U and W of `nl` columns (field[w] the whole-mesh field of column w) at
// the block's nodes; ql and wl are S x lanes work arrays.
OHMVOL3D_WIDE_KERNEL
void Fill_Columns(const SemiStructured &ss, const Fem_State &fem, const Cell_Layout &c,
                  const Cell_Nodes &cn, const Cell_Block &blk, const float *const *field, int nl,
                  float *ql, double *wl, float *U, float *W, int64_t stride) {
  const int S = blk.S;
  const int *node = cn.node.data() + blk.s0;
  for (int w = 0; w < lanes; w++) {
    if (w < nl) {
      const float *f = field[w];
      for (int i = 0; i < S; i++)
        ql[i * lanes + w] = f[node[i]];
    } else {
      for (int i = 0; i < S; i++)
        ql[i * lanes + w] = 0.0f;
    }
  }
  std::fill(wl, wl + static_cast<int64_t>(S) * lanes, 0.0);
  for (int b = blk.b0; b < blk.b1; b++) {
    int k = c.ksort[b];
    const int base = cn.start[b] - blk.s0;
    // Where the rows of K_e sum to zero, (K_e q)_r = sum over t != r of
    // K_rt (q_t - q_r): differences of the field, not the field, so that a
    // large common part (a source far away, or the two nearly equal fields
    // of a dipole seen from afar) does not cancel in single precision, and
    // the products of a cell sum to zero to the last bit.
    const bool level = cn.level[b] != 0;
    for (int q = c.elem_start[b]; q < c.elem_start[b + 1]; q++) {
      const int64_t e = c.elems[q];
      const float *kv = fem.cp18.data() + fem.cp_offset[e];
      const int nv = static_cast<int>(fem.cp_offset[e + 1] - fem.cp_offset[e]);
      const int(*pairs)[2] = Element_Pairs(nv);
      const int nn = ss.elements[e].nnodes;
      int loc[8];
      float qe[8][lanes];
      for (int a = 0; a < nn; a++) {
        loc[a] = base + cn.local[k + a];
        for (int w = 0; w < lanes; w++)
          qe[a][w] = ql[loc[a] * lanes + w];
      }
      float acc[8][lanes] = {};
      if (level && nv == hexq_values)
        Level_Product<8>(kv, qe, acc);
      else if (level && nv == tet_values)
        Level_Product<4>(kv, qe, acc);
      else
        for (int v = 0; v < nv; v++) {
          const int r = pairs[v][0], t = pairs[v][1];
          const float kk = kv[v];
          if (level) {
            if (r != t)
              for (int w = 0; w < lanes; w++) {
                const float d = kk * (qe[t][w] - qe[r][w]);
                acc[r][w] += d;
                acc[t][w] -= d;
              }
          } else {
            for (int w = 0; w < lanes; w++)
              acc[r][w] += kk * qe[t][w];
            if (r != t)
              for (int w = 0; w < lanes; w++)
                acc[t][w] += kk * qe[r][w];
          }
        }
      for (int a = 0; a < nn; a++)
        for (int w = 0; w < lanes; w++)
          wl[loc[a] * lanes + w] += acc[a][w];
      k += nn;
    }
  }
  for (int w = 0; w < nl; w++) {
    float *u = U + w * stride, *wv = W + w * stride;
    for (int i = 0; i < S; i++) {
      u[i] = ql[i * lanes + w];
      wv[i] = static_cast<float>(wl[i * lanes + w]);
    }
  }
}

// sum of x[i] y[i] over [i0, i1), in `lanes` partial sums: the same bits
// whatever the thread that runs it.
inline float Dot(const float *x, const float *y, int i0, int i1) {
  float acc[lanes] = {};
  int i = i0;
  for (; i + lanes <= i1; i += lanes)
    for (int w = 0; w < lanes; w++)
      acc[w] += x[i + w] * y[i + w];
  float s = 0.0f;
  for (; i < i1; i++)
    s += x[i] * y[i];
  for (int w = 0; w < lanes; w++)
    s += acc[w];
  return s;
}

// out[i] = sum of sign x column part p over the terms, at the block's nodes.
inline void Combine_Terms(const float *X, int64_t stride, int vw, int p, int n, const int *col,
                          const float *sign, int S, float *out) {
  const float *x0 = X + (static_cast<int64_t>(col[0]) * vw + p) * stride;
  if (n == 1) {
    for (int i = 0; i < S; i++)
      out[i] = sign[0] * x0[i];
    return;
  }
  const float *x1 = X + (static_cast<int64_t>(col[1]) * vw + p) * stride;
  for (int i = 0; i < S; i++)
    out[i] = sign[0] * x0[i] + sign[1] * x1[i];
}

// The block's entries of data [0, nd) into rows_r (rows_i), row k at
// rows + k x nmodel: the current side's field times the potential side's
// W, summed over each cell's nodes, times the cell's conductivity and
// 1 / V. `a` and `q` are 2 x S work arrays.
OHMVOL3D_WIDE_KERNEL
void Rows_Of_Block(const Cell_Layout &c, const Cell_Nodes &cn, const Cell_Block &blk,
                   const float *U, const float *W, int64_t stride, bool cmplx,
                   const Datum_Terms *terms, int nd, float *a, float *q, float *rows_r,
                   float *rows_i, int64_t nmodel) {
  const int S = blk.S, vw = cmplx ? 2 : 1;
  const Datum_Terms *last = nullptr;
  for (int k = 0; k < nd; k++) {
    const Datum_Terms &t = terms[k];
    // A datum sharing the current side of the one before keeps its a.
    if (!last || last->nc != t.nc || last->c[0] != t.c[0] || last->sc[0] != t.sc[0] ||
        (t.nc > 1 && (last->c[1] != t.c[1] || last->sc[1] != t.sc[1])))
      for (int p = 0; p < vw; p++)
        Combine_Terms(U, stride, vw, p, t.nc, t.c, t.sc, S, a + p * S);
    last = &t;
    for (int p = 0; p < vw; p++)
      Combine_Terms(W, stride, vw, p, t.np, t.p, t.sp, S, q + p * S);
    for (int b = blk.b0; b < blk.b1; b++) {
      const int i0 = cn.start[b] - blk.s0, i1 = cn.start[b + 1] - blk.s0;
      std::complex<float> sum;
      if (cmplx)
        sum = std::complex<float>(Dot(a, q, i0, i1) - Dot(a + S, q + S, i0, i1),
                                  Dot(a, q + S, i0, i1) + Dot(a + S, q, i0, i1));
      else
        sum = Dot(a, q, i0, i1);
      const std::complex<float> e =
          sum * std::complex<float>(c.cond_r[b], cmplx ? c.cond_i[b] : 0.0f) * t.scale;
      rows_r[k * nmodel + b] = e.real();
      if (rows_i)
        rows_i[k * nmodel + b] = e.imag();
    }
  }
}

// Runs of consecutive cells whose nodes number at most `cap` (a cell with
// more takes a block of its own).
std::vector<Cell_Block> Cell_Blocks(const Cell_Nodes &cn, int b_lo, int b_hi, int64_t cap) {
  std::vector<Cell_Block> blocks;
  for (int b = b_lo; b < b_hi;) {
    Cell_Block blk;
    blk.b0 = b;
    blk.s0 = cn.start[b];
    while (b < b_hi && (b == blk.b0 || cn.start[b + 1] - blk.s0 <= cap))
      b++;
    blk.b1 = b;
    blk.S = cn.start[b] - blk.s0;
    blocks.push_back(blk);
  }
  return blocks;
}

// The whole-mesh fields of the sources: all in memory when asked and they
// fit, else read from the files a column at a time.
class Field_Store {
public:
  Field_Store(Data_Set &ds, bool cmplx) : ds_(ds), cmplx_(cmplx), n_(ds.Fem.coomatrix64.n) {}
  ~Field_Store() {
    for (FILE *f : file_)
      if (f)
        std::fclose(f);
  }
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
    return 0;
  }
  // Part p of source src's field in memory.
  const float *Field(int src, int p) const { return ptemp_[p].data() + ds_.Fem.offset_field[src]; }
  // Part p of source src's field read into out (n values).
  int Read(int src, int p, float *out) {
    const int64_t off = ds_.Fem.offset_field[src];
    if (std::fseek(file_[p], off * 4, SEEK_SET) ||
        std::fread(out, 4, n_, file_[p]) != static_cast<size_t>(n_))
      return Show_Text(ds_, "Read File Error Message", MK_WARNING,
                       "Error in reading complex potential values file\n%s",
                       ds_.file_names.temp[p ? TF_POTENTIALS_I : TF_POTENTIALS].c_str());
    return 0;
  }
  int memp = 0;

private:
  Data_Set &ds_;
  bool cmplx_;
  int64_t n_;
  Block_Array<float> ptemp_[2];
  FILE *file_[2] = {nullptr, nullptr};
};

// Everything one pass over the cells needs.
struct Jacobian_Pass {
  const SemiStructured *ss = nullptr;
  const Fem_State *fem = nullptr;
  const Cell_Layout *c = nullptr;
  const Cell_Nodes *cn = nullptr;
  const Source_Columns *cols = nullptr;
  bool cmplx = false;
  int64_t nmodel = 0;
  const Datum_Terms *terms = nullptr;
  int nd = 0;
  float *rows_r = nullptr, *rows_i = nullptr;
  double t_fill = 0.0, t_rows = 0.0; // thread-seconds
};

// Per-thread work arrays of a pass, and the thread's seconds in each part.
struct Pass_Work {
  std::vector<float> ql, a, q, U, W;
  std::vector<double> wl;
  double t_fill = 0.0, t_rows = 0.0;
  void Size(int64_t smax, int64_t columns, bool own_uw) {
    ql.resize(smax * lanes);
    wl.resize(smax * lanes);
    a.resize(2 * smax);
    q.resize(2 * smax);
    if (own_uw) {
      U.resize(smax * columns);
      W.resize(smax * columns);
    }
  }
};

// body(k, work) for the blocks [k0, k1), a block at a time over the threads,
// each thread with its own work arrays (with U and W of its own where
// `own_uw`); the threads' seconds go to jp. Returns 1 where a thread could
// not have its arrays.
template <class Body>
int For_Blocks(Jacobian_Pass &jp, size_t k0, size_t k1, int64_t smax, int64_t columns, bool own_uw,
               Body body) {
  int failed = 0;
  double t_fill = 0.0, t_rows = 0.0;
#pragma omp parallel reduction(+ : t_fill, t_rows) reduction(| : failed)
  {
    Pass_Work pw;
    try {
      pw.Size(smax, columns, own_uw);
    } catch (...) {
      failed = 1;
    }
#pragma omp for schedule(dynamic, 1)
    for (size_t k = k0; k < k1; k++)
      if (!failed)
        body(k, pw);
    t_fill += pw.t_fill;
    t_rows += pw.t_rows;
  }
  jp.t_fill += t_fill;
  jp.t_rows += t_rows;
  return failed;
}

// Fields in memory: each thread takes a block at a time, fills its U and W
// for every column, then the block's entries of every datum. Blocks are
// sized so that U and W stay in the core's cache.
int Pass_In_Memory(Jacobian_Pass &jp, const Field_Store &fields,
                   const std::vector<Cell_Block> &blocks, int64_t smax) {
  const int vw = jp.cmplx ? 2 : 1;
  const int64_t columns = static_cast<int64_t>(jp.cols->src_of.size()) * vw;
  return For_Blocks(jp, 0, blocks.size(), smax, columns, true, [&](size_t k, Pass_Work &pw) {
    const Cell_Block &blk = blocks[k];
    const auto tf = Clock::now();
    for (int64_t g = 0; g < columns; g += lanes) {
      const int nl = static_cast<int>(std::min<int64_t>(lanes, columns - g));
      const float *field[lanes];
      for (int w = 0; w < nl; w++)
        field[w] = fields.Field(jp.cols->src_of[(g + w) / vw], static_cast<int>((g + w) % vw));
      Fill_Columns(*jp.ss, *jp.fem, *jp.c, *jp.cn, blk, field, nl, pw.ql.data(), pw.wl.data(),
                   pw.U.data() + g * blk.S, pw.W.data() + g * blk.S, blk.S);
    }
    pw.t_fill += Seconds_Since(tf);
    const auto tr = Clock::now();
    Rows_Of_Block(*jp.c, *jp.cn, blk, pw.U.data(), pw.W.data(), blk.S, jp.cmplx, jp.terms, jp.nd,
                  pw.a.data(), pw.q.data(), jp.rows_r, jp.rows_i, jp.nmodel);
    pw.t_rows += Seconds_Since(tr);
  });
}

// Fields on disk: the cells go in spans whose U and W fit the memory
// allowed; for each span every column's field is read once, its U and W
// filled block by block, then every block's entries as in memory.
int Pass_From_Disk(Jacobian_Pass &jp, Field_Store &fields, const std::vector<Cell_Block> &blocks,
                   int64_t smax, int64_t n, int64_t span_nodes) {
  const int vw = jp.cmplx ? 2 : 1;
  const int64_t columns = static_cast<int64_t>(jp.cols->src_of.size()) * vw;
  std::vector<float> U, W, buf;
  try {
    buf.resize(static_cast<size_t>(n) * lanes);
  } catch (...) {
    return 1;
  }
  for (size_t k0 = 0; k0 < blocks.size();) {
    // The span: blocks [k0, k1) with their nodes [s0, s0 + ST).
    size_t k1 = k0 + 1;
    const int s0 = blocks[k0].s0;
    while (k1 < blocks.size() && blocks[k1].s0 + blocks[k1].S - s0 <= span_nodes)
      k1++;
    const int64_t ST = blocks[k1 - 1].s0 + blocks[k1 - 1].S - s0;
    try {
      U.resize(ST * columns);
      W.resize(ST * columns);
    } catch (...) {
      return 1;
    }
    for (int64_t g = 0; g < columns; g += lanes) {
      const int nl = static_cast<int>(std::min<int64_t>(lanes, columns - g));
      const float *field[lanes];
      for (int w = 0; w < nl; w++) {
        float *f = buf.data() + static_cast<int64_t>(w) * n;
        if (fields.Read(jp.cols->src_of[(g + w) / vw], static_cast<int>((g + w) % vw), f))
          return 2;
        field[w] = f;
      }
      if (For_Blocks(jp, k0, k1, smax, columns, false, [&](size_t k, Pass_Work &pw) {
            const auto tf = Clock::now();
            const int64_t at = g * ST + blocks[k].s0 - s0;
            Fill_Columns(*jp.ss, *jp.fem, *jp.c, *jp.cn, blocks[k], field, nl, pw.ql.data(),
                         pw.wl.data(), U.data() + at, W.data() + at, ST);
            pw.t_fill += Seconds_Since(tf);
          }))
        return 1;
    }
    if (For_Blocks(jp, k0, k1, smax, columns, false, [&](size_t k, Pass_Work &pw) {
          const auto tr = Clock::now();
          const int64_t at = blocks[k].s0 - s0;
          Rows_Of_Block(*jp.c, *jp.cn, blocks[k], U.data() + at, W.data() + at, ST, jp.cmplx,
                        jp.terms, jp.nd, pw.a.data(), pw.q.data(), jp.rows_r, jp.rows_i, jp.nmodel);
          pw.t_rows += Seconds_Since(tr);
        }))
      return 1;
    k0 = k1;
  }
  return 0;
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
  Cell_Nodes cn;
  if (Build_Layout(ds, c))
    return 1;
  Build_Cell_Nodes(c, cn);
  Mark_Level_Cells(ss, fem, c, cn);
  // The sources as columns, and every datum's terms.
  Source_Columns cols;
  cols.col_of.assign(std::max(fem.nelec, 0), -1);
  std::vector<Datum_Terms> terms;
  if (const int bad = Set_Datum_Terms(ds, cmplx, 0, m, cols, terms))
    return Show_Text(ds, "Error Message", MK_WARNING,
                     cmplx ? "FEM cmplx Jacobian error %d at data %d"
                           : "FEM real Jacobian error %d at data %d",
                     1, bad);
  if (trace_rec.trace_on) {
    std::vector<int> hit;
    Jacobian_Hit_Types(ds, hit);
    int counts[5] = {};
    for (int d = 0; d < m; d += std::min(Group_Size(hit[d]), m - d))
      counts[hit[d]]++;
    TRACE("\nData calculation Jacobian analysis num data %d, hit0 %d hit1 %d hit2 %d hit3 %d hit4 "
          "%d all check %d\n",
          m, counts[0], counts[1], counts[2], counts[3], counts[4],
          counts[0] + counts[1] + counts[2] + 2 * counts[3] + 4 * counts[4]);
  }
  const int vw = cmplx ? 2 : 1;
  const int64_t columns = static_cast<int64_t>(cols.src_of.size()) * vw;
  // Blocks whose U and W (8 bytes a node and column) keep within about a
  // megabyte, the size of a core's cache.
  const int64_t cap = std::max<int64_t>(lanes, (int64_t(1) << 20) / (8 * columns));
  const std::vector<Cell_Block> blocks = Cell_Blocks(cn, 0, nmodel, cap);
  int64_t smax = 1;
  for (const Cell_Block &b : blocks)
    smax = std::max<int64_t>(smax, b.S);
  TRACE("FEM Jacobian entries %d cell nodes %d columns %lld blocks %zu largest %lld nodes\n",
        c.ksort[nmodel], cn.start[nmodel], static_cast<long long>(columns), blocks.size(),
        static_cast<long long>(smax));
  const double t_map = Seconds_Since(t0);

  Field_Store fields(ds, cmplx);
  if (fields.Open())
    return 1;
  // Rows a pass: as many as the cache setting holds (every cell's products
  // are made again for each pass).
  const int64_t row_bytes = static_cast<int64_t>(nmodel) * 4 * vw;
  const int ngr = static_cast<int>(std::clamp<int64_t>(
      static_cast<int64_t>(ds.ssd_cache * 1024.0 * 1024.0 * 1024.0) / row_bytes, 16, m));
  Block_Array<float> grtemp, grtemp_i;
  if (grtemp.Resize(ds, static_cast<int64_t>(ngr) * nmodel, "grtemp") ||
      (cmplx && grtemp_i.Resize(ds, static_cast<int64_t>(ngr) * nmodel, "grtemp_i")))
    return 1;
  progress(ds, "Calculating element partial derivatives start..", 0.0);
  const std::string &path = ds.file_names.temp[TF_GRROWT];
  const std::string &path_i = ds.file_names.temp[TF_GRROWT_I];
  if (Write_Values_Chunks(path, nullptr, 0, false) ||
      (cmplx && Write_Values_Chunks(path_i, nullptr, 0, false)))
    return Show_Text(ds, cmplx ? "FEM complex Jacobian Message" : "FEM Jacobian Message",
                     MK_WARNING, "Error in creating file\n%s", (cmplx ? path_i : path).c_str());

  std::vector<double> &diag = ds.LS.diag_hessian_res;
  diag.assign(nmodel, 0.0);
  const int threads = std::max(omp_get_max_threads(), 1);
  Jacobian_Pass jp;
  jp.ss = &ss;
  jp.fem = &fem;
  jp.c = &c;
  jp.cn = &cn;
  jp.cols = &cols;
  jp.cmplx = cmplx;
  jp.nmodel = nmodel;
  double t_write = 0.0, sum_abs = 0.0;
  int ierr = 0;
  for (int d0 = 0; d0 < m && !ierr; d0 += ngr) {
    const int nd = std::min(ngr, m - d0);
    Progress_Text(ds, static_cast<double>(d0) / m,
                  "Calculating FEM partial derivatives %.2f%% %d n %d", 100.0 * d0 / m, d0 + 1, m);
    jp.terms = terms.data() + d0;
    jp.nd = nd;
    jp.rows_r = grtemp.data();
    jp.rows_i = cmplx ? grtemp_i.data() : nullptr;
    // On disk, the cells go in spans whose products take at most a quarter
    // of the free memory.
    auto span = [&]() {
      return std::max<int64_t>(smax, fem.jacobian_span_nodes > 0
                                         ? fem.jacobian_span_nodes
                                         : Available_Memory_Bytes() / 4 /
                                               (8 * std::max<int64_t>(columns, 1)));
    };
    const int e = fields.memp ? Pass_In_Memory(jp, fields, blocks, smax)
                              : Pass_From_Disk(jp, fields, blocks, smax, n, span());
    if (e) {
      if (e == 1)
        Show_Text(ds, cmplx ? "Memory Error ipcmplx>0" : "Memory Error ipcmplx==0", MK_WARNING,
                  "Insufficient memory for the element products of the Jacobian\n(%lld columns, "
                  "%lld nodes a block)",
                  static_cast<long long>(columns), static_cast<long long>(smax));
      ierr = 1;
      break;
    }
    const auto tw = Clock::now();
    const int64_t values = static_cast<int64_t>(nd) * nmodel;
    for (int64_t k = 0; k < values; k++) {
      diag[k % nmodel] += static_cast<double>(grtemp[k]) * grtemp[k];
      sum_abs += std::fabs(grtemp[k]);
    }
    if (Write_Values_Chunks(path, grtemp.data(), values, true) ||
        (cmplx && Write_Values_Chunks(path_i, grtemp_i.data(), values, true))) {
      Show_Text(ds, "Jacobian Save Error", MK_WARNING,
                "Error in saving Jacobian values for data point %d.\nNumber should be saved is "
                "%lld.\nNumber actually saved is %lld.\n",
                d0 + 1, static_cast<long long>(values), 0LL);
      ierr = 1;
    }
    t_write += Seconds_Since(tw);
  }
  progress(ds, "Calculating element partial derivatives - free memory..", 1.0);
  ss.elements.Free();
  fem.cp18.Free();
  fem.cp_offset.Free();
  LS_State &ls = ds.LS;
  ls.time_jac1 += t_map;
  ls.time_jac2 += jp.t_fill / threads;
  ls.time_jac3 += jp.t_rows / threads;
  ls.time_jac4 += t_write;
  ls.time_jac += Seconds_Since(t0);
  TRACE("FEM Jacobian memp %d ngr %d map %.3f fill %.3f rows %.3f write %.3f sum |J| %.6e\n",
        fields.memp, ngr, t_map, jp.t_fill / threads, jp.t_rows / threads, t_write, sum_abs);
  if (!ierr)
    progress(ds, "Calculating element partial derivatives completed.", 1.0);
  return ierr;
}
