// The generic block solver behind the source driver: the structure of the
// factor from the fill-reducing order, the values of the capacitance matrix
// copied into the factor's panels, the supernodal factorisation, and solves
// of blocks of columns, each thread its own columns with single-threaded
// kernels (the forward solve pruned to the paths of the columns' non-zero
// rows).
#include <omp.h>

#include <algorithm>
#include <complex>
#include <cstdio>
#include <memory>
#include <vector>

#include "forward/blkfct.h"
#include "forward/coo_matrix.h"
#include "forward/sparse_solver.h"

namespace {

// Trilinear hexahedra couple a node to its 26 lattice neighbours; the
// tetrahedra and pyramids of transition blocks add a few more.
constexpr int max_neighbours = 64;

template <class T> T Entry_Value(const CooMatrix64 &m, int64_t k) {
  if constexpr (std::is_floating_point_v<T>)
    return static_cast<T>(m.ad[k]);
  else
    return T(static_cast<typename T::value_type>(m.ad[2 * k]),
             static_cast<typename T::value_type>(m.ad[2 * k + 1]));
}

// The position of permuted row r (from 0) in supernode J's panel column
// list, or -1.
int64_t Row_Position(const Blkfct &b, int64_t J, int r) {
  const int64_t f = b.xsuper[J], w = b.Width(J);
  if (r >= f && r < f + w)
    return r - f;
  const int *lo = b.lindx.data() + b.xlindx[J] + w, *hi = b.lindx.data() + b.xlindx[J + 1];
  const int *at = std::lower_bound(lo, hi, r);
  return at != hi && *at == r ? at - (b.lindx.data() + b.xlindx[J]) : -1;
}

} // namespace

// The upper triangle of the CSR matrix scattered into the permuted panels.
// Returns the number of entries that found no place in the structure.
template <class T> int64_t Copy_Cap_Matrix_Blkfct(const Blkfct &b, const CooMatrix64 &m, T *lnz) {
  std::fill(lnz, lnz + b.panel_values, T(0));
  int64_t errors = 0;
  for (int64_t i = 0; i < m.n; i++)
    for (int64_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; k++) {
      const int a = b.invp[i] - 1, c = b.invp[m.ja[k] - 1] - 1;
      if (a == c) {
        lnz[b.Column_Start(a)] += Entry_Value<T>(m, k);
        continue;
      }
      const int col = std::min(a, c), row = std::max(a, c);
      const int64_t J = b.snode[col];
      int64_t pos = Row_Position(b, J, row);
      if (pos < 0) {
        // The other way round, for a structure that holds it there.
        const int64_t J2 = b.snode[row];
        pos = Row_Position(b, J2, col);
        if (pos < 0) {
          errors++;
          continue;
        }
        lnz[b.xpanel[J2] + (row - b.xsuper[J2]) * b.Rows(J2) + pos] += Entry_Value<T>(m, k);
        continue;
      }
      lnz[b.xpanel[J] + (col - b.xsuper[J]) * b.Rows(J) + pos] += Entry_Value<T>(m, k);
    }
  return errors;
}

namespace {

// The columns each thread solves at once, from the simultaneous-solves code
// and its limits.
int Block_Width(const Solver_Setup &u, int64_t n) {
  int code = std::clamp(u.simultaneous_solves, 0, 5);
  int cpu_type = u.cpu_type;
  const int threads = u.threads;
  if (u.instruction_level <= 0) {
    cpu_type = 1;
    code = 1;
  } else if (cpu_type > 2 && u.instruction_level < 2) {
    cpu_type = 2;
  }
  if (n > 10000000 && threads >= 9 && code >= 4)
    code = 3;
  if (cpu_type != 4)
    code = std::min(code, 4);
  if (cpu_type < 2)
    code = std::min(code, 3);
  if (threads >= 33)
    code = std::min(code, 2);
  else if (threads >= 17)
    code = std::min(code, 3);
  int width = 4 << code;
  for (int k = 0; k < 2; k++)
    if (static_cast<int64_t>(width) * threads > u.sources && width / 2 >= 4)
      width /= 2;
  return width;
}

// One thread's scratch: its columns row by row in the factor's order.
template <class T> struct Column_Scratch {
  std::vector<T> xp, work;
  std::vector<char> active;
};

// T the factor's values, X the stored potentials (float or complex<float>).
template <class T, class X> struct Block_Backend {
  const Solver_Setup &setup;
  const CooMatrix64 &m;
  Blkfct b;
  std::unique_ptr<T[]> lnz; // filled by the copy: not zeroed twice
  int width = 4;
  std::vector<Column_Scratch<T>> scratch;

  explicit Block_Backend(const Solver_Setup &s) : setup(s), m(*s.matrix) {}

  int Analyse(Solver_Report &r) {
    const int64_t n = m.n;
    std::vector<int> xadj, adjncy, perm, invp;
    if (!Try_Resize(xadj, n + 1) || !Try_Resize(adjncy, std::max<int64_t>(2 * m.count, 1)) ||
        !Try_Resize(perm, n) || !Try_Resize(invp, n))
      return solver_no_memory;
    if (m.Set_Adjacency_From_CSR(max_neighbours, xadj.data(), adjncy.data()) < 0) {
      std::snprintf(r.error_text, sizeof r.error_text,
                    "a mesh node has more than %d neighbours; use the MUMPS solver",
                    max_neighbours);
      return 1;
    }
    for (int64_t i = 0; i < n; i++) {
      invp[i] = setup.iperm[i];
      perm[setup.iperm[i] - 1] = static_cast<int>(i + 1);
    }
    if (b.Symbolic_Factorization(n, xadj.data(), adjncy.data(), perm.data(), invp.data()))
      return solver_no_memory;
    r.factor_entries = b.nofnz;
    r.factor_flops = b.flops;
    r.memory_bytes = b.panel_values * static_cast<int64_t>(sizeof(T));
    width = Block_Width(setup, n);
    r.block_width = width;
    return 0;
  }
  int Factorise(Solver_Report &r) {
    lnz.reset(new (std::nothrow) T[std::max<int64_t>(b.panel_values, 1)]);
    if (!lnz)
      return solver_no_memory;
    const int64_t misplaced = Copy_Cap_Matrix_Blkfct(b, m, lnz.get());
    if (misplaced) {
      std::snprintf(r.error_text, sizeof r.error_text,
                    "%lld matrix entries found no place in the factor's structure",
                    static_cast<long long>(misplaced));
      return 1;
    }
    const int64_t bad = Blkfct_Factor(b, lnz.get(), setup.threads);
    if (bad) {
      std::snprintf(r.error_text, sizeof r.error_text,
                    "the pivot of column %lld (supernode %d) is not positive",
                    static_cast<long long>(bad), b.snode[bad - 1]);
      return 1;
    }
    scratch.resize(setup.threads);
    for (Column_Scratch<T> &s : scratch)
      if (!Try_Resize(s.xp, b.neqns_ll * width) ||
          !Try_Resize(s.work, Blkfct_Solve_Work(b, width)) || !Try_Resize(s.active, b.nsuper))
        return solver_no_memory;
    return 0;
  }
  // `cols` columns of x (node order, one after the other) in place.
  void Solve_Group(Column_Scratch<T> &s, X *x, int cols) {
    const int64_t n = b.neqns_ll;
    for (int64_t i = 0; i < n; i++) {
      const X *src = x + (b.perm[i] - 1);
      for (int c = 0; c < cols; c++)
        s.xp[i * cols + c] = static_cast<T>(src[c * n]);
    }
    Blkfct_Solve(b, lnz.get(), s.xp.data(), cols, s.work.data(), s.active.data());
    for (int64_t i = 0; i < n; i++) {
      const T *row = s.xp.data() + static_cast<int64_t>(b.invp[i] - 1) * cols;
      for (int c = 0; c < cols; c++)
        x[c * n + i] = static_cast<X>(row[c]);
    }
  }
  // Rounds of at most `width` columns a thread, each round's columns shared
  // evenly over the threads.
  int Solve(float *xf, int cols) {
    X *x = reinterpret_cast<X *>(xf);
    const int64_t n = b.neqns_ll;
    const int threads = static_cast<int>(scratch.size());
    Set_Blas_Threads(1);
    for (int done = 0; done < cols;) {
      const int round = std::min(cols - done, width * threads);
      const int groups = std::min(threads, round);
#pragma omp parallel for num_threads(groups) schedule(static, 1)
      for (int t = 0; t < groups; t++) {
        const int lo = done + (round * t) / groups, hi = done + (round * (t + 1)) / groups;
        Solve_Group(scratch[t], x + lo * n, hi - lo);
      }
      done += round;
    }
    Set_Blas_Threads(setup.threads);
    return 0;
  }
};

template <class T, class X> int Create(const Solver_Setup &setup, Sparse_Solver &s) {
  using B = Block_Backend<T, X>;
  auto *p = new (std::nothrow) B(setup);
  if (!p)
    return solver_no_memory;
  s.name = "block solver";
  s.state = p;
  s.analyse = [](void *q, Solver_Report &r) { return static_cast<B *>(q)->Analyse(r); };
  s.factorise = [](void *q, Solver_Report &r) { return static_cast<B *>(q)->Factorise(r); };
  s.solve = [](void *q, float *x, int cols, Solver_Report &) {
    return static_cast<B *>(q)->Solve(x, cols);
  };
  s.batch = [](void *q) {
    const B *self = static_cast<B *>(q);
    return self->width * self->setup.threads;
  };
  s.release = [](void *q) { delete static_cast<B *>(q); };
  return 0;
}

} // namespace

int Create_Block_Solver(const Solver_Setup &setup, Sparse_Solver &s, Solver_Report &r) {
  int e;
  if (setup.cmplx)
    e = setup.double_factor ? Create<std::complex<double>, std::complex<float>>(setup, s)
                            : Create<std::complex<float>, std::complex<float>>(setup, s);
  else
    e = setup.double_factor ? Create<double, float>(setup, s) : Create<float, float>(setup, s);
  if (e)
    std::snprintf(r.error_text, sizeof r.error_text, "no memory for the block solver");
  return e ? 1 : 0;
}

template int64_t Copy_Cap_Matrix_Blkfct<float>(const Blkfct &, const CooMatrix64 &, float *);
template int64_t Copy_Cap_Matrix_Blkfct<double>(const Blkfct &, const CooMatrix64 &, double *);
template int64_t Copy_Cap_Matrix_Blkfct<std::complex<float>>(const Blkfct &, const CooMatrix64 &,
                                                             std::complex<float> *);
template int64_t Copy_Cap_Matrix_Blkfct<std::complex<double>>(const Blkfct &, const CooMatrix64 &,
                                                              std::complex<double> *);
