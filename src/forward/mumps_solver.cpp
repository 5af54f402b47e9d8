// MUMPS behind the source driver: the analysis in our own fill-reducing
// order, the factorisation (single precision, or double on request) and
// solves of blocks of columns. Columns with few non-zeros (the sources) go
// to the library in sparse form, so that the forward elimination follows
// only the paths from their nodes to the root.
#include <cmumps_c.h>
#include <dmumps_c.h>
#include <smumps_c.h>
#include <zmumps_c.h>

#include <algorithm>
#include <complex>
#include <cstdio>
#include <type_traits>
#include <vector>

#include "forward/coo_matrix.h"
#include "forward/sparse_solver.h"

namespace {

constexpr int use_comm_world = -987654;
// Columns the library solves together inside one call (its work space).
constexpr int solve_block = 64;
// Largest batch of sources given to the library at once.
constexpr int64_t largest_batch = 32;

// The four arithmetics behind one interface.
template <class S, class V, void (*F)(S *), bool C> struct Mumps_Arithmetic {
  using Struc = S;
  using Val = V;
  static constexpr bool complex_values = C;
  static void Call(Struc *s) { F(s); }
};
using Mumps_S = Mumps_Arithmetic<SMUMPS_STRUC_C, float, smumps_c, false>;
using Mumps_D = Mumps_Arithmetic<DMUMPS_STRUC_C, double, dmumps_c, false>;
using Mumps_C = Mumps_Arithmetic<CMUMPS_STRUC_C, mumps_complex, cmumps_c, true>;
using Mumps_Z = Mumps_Arithmetic<ZMUMPS_STRUC_C, mumps_double_complex, zmumps_c, true>;

template <class M> struct Mumps_Backend {
  using Val = typename M::Val;
  // Floats a value: 1 real, 2 complex; a high-precision library value holds
  // twice the bytes of the stored one.
  static constexpr int vw = M::complex_values ? 2 : 1;
  static constexpr bool high_precision = sizeof(Val) == 2 * 4 * vw;

  const Solver_Setup &setup;
  const CooMatrix64 &m;
  typename M::Struc id{};
  bool live = false;
  std::vector<MUMPS_INT> irn, jcn, sp_ptr, sp_row;
  std::vector<Val> sp_val, hp;

  explicit Mumps_Backend(const Solver_Setup &s) : setup(s), m(*s.matrix) {}
  ~Mumps_Backend() {
    if (live) {
      id.job = -2;
      M::Call(&id);
    }
  }

  Val *Values() {
    if constexpr (high_precision)
      return reinterpret_cast<Val *>(const_cast<double *>(m.ad.data()));
    else
      return reinterpret_cast<Val *>(const_cast<float *>(m.a.data()));
  }
  static Val Val_Of(const float *v) {
    if constexpr (M::complex_values) {
      Val r;
      r.r = v[0];
      r.i = v[1];
      return r;
    } else {
      return static_cast<Val>(v[0]);
    }
  }
  static void Store(Val v, float *to) {
    if constexpr (M::complex_values) {
      to[0] = static_cast<float>(v.r);
      to[1] = static_cast<float>(v.i);
    } else {
      to[0] = static_cast<float>(v);
    }
  }

  int Analyse(Solver_Report &r) {
    id.job = -1;
    id.par = 1;
    id.sym = M::complex_values ? 2 : 1;
    id.comm_fortran = use_comm_world;
    M::Call(&id);
    live = true;
    id.icntl[0] = -1; // no error, warning, diagnostic or statistics output
    id.icntl[1] = -1;
    id.icntl[2] = -1;
    id.icntl[3] = 0;
    id.icntl[6] = 1; // the ordering is given
    id.icntl[7] = 7; // scaling: simultaneous row and column iterations
    id.icntl[9] = 0; // no refinement of the library's own: the driver refines
    id.icntl[13] = 40;
    id.icntl[34] = 0; // full-rank factors
    id.n = static_cast<MUMPS_INT>(m.n);
    id.nnz = m.count;
    if (!Try_Resize(irn, m.count) || !Try_Resize(jcn, m.count))
      return solver_no_memory;
    for (int64_t i = 0; i < m.n; i++)
      for (int64_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; k++) {
        irn[k] = static_cast<MUMPS_INT>(i + 1);
        jcn[k] = static_cast<MUMPS_INT>(m.ja[k]);
      }
    id.irn = irn.data();
    id.jcn = jcn.data();
    id.a = Values();
    id.perm_in = const_cast<int *>(setup.iperm);
    id.job = 1;
    M::Call(&id);
    // Factor entries and working space in 4-byte words (negative counts
    // are millions).
    auto big = [](MUMPS_INT v) {
      return v < 0 ? -static_cast<int64_t>(v) * 1000000 : static_cast<int64_t>(v);
    };
    r.factor_entries = big(id.infog[19]);
    r.memory_bytes =
        4 * (r.factor_entries * static_cast<int64_t>(sizeof(Val) / 4) + big(id.infog[3]));
    r.factor_flops = id.rinfog[0];
    return Error(r, "analysis");
  }
  // A shortage of working space is met once with twice the relaxation.
  int Factorise(Solver_Report &r) {
    id.job = 2;
    M::Call(&id);
    const int e = id.infog[0];
    if (e == -8 || e == -9 || e == -14 || e == -15) {
      id.icntl[13] *= 2;
      M::Call(&id);
    }
    return Error(r, "factorisation");
  }
  int Solve(float *x, int cols) {
    const int64_t n = m.n, total = n * cols;
    // Sparse form where the columns are mostly zero.
    int64_t nz = 0;
    for (int64_t k = 0; k < total; k++)
      nz += (x[vw * k] != 0.0f || x[vw * k + vw - 1] != 0.0f);
    const bool sparse = nz <= total / 8;
    id.nrhs = cols;
    id.lrhs = static_cast<MUMPS_INT>(n);
    id.icntl[26] = std::clamp(cols, 1, solve_block);
    id.icntl[19] = 0;
    if (sparse) {
      if (!Try_Resize(sp_ptr, cols + 1) || !Try_Resize(sp_row, nz) || !Try_Resize(sp_val, nz))
        return solver_no_memory;
      int64_t at = 0;
      for (int c = 0; c < cols; c++) {
        sp_ptr[c] = static_cast<MUMPS_INT>(at + 1);
        for (int64_t i = 0; i < n; i++) {
          const float *v = x + vw * (c * n + i);
          if (v[0] != 0.0f || v[vw - 1] != 0.0f) {
            sp_row[at] = static_cast<MUMPS_INT>(i + 1);
            sp_val[at++] = Val_Of(v);
          }
        }
      }
      sp_ptr[cols] = static_cast<MUMPS_INT>(at + 1);
      id.nz_rhs = static_cast<MUMPS_INT>(at);
      id.irhs_ptr = sp_ptr.data();
      id.irhs_sparse = sp_row.data();
      id.rhs_sparse = sp_val.data();
      id.icntl[19] = 1; // sparse right-hand sides, sparsity exploited
    }
    if constexpr (high_precision) {
      if (!Try_Resize(hp, total))
        return solver_no_memory;
      if (!sparse)
        for (int64_t k = 0; k < total; k++)
          hp[k] = Val_Of(x + vw * k);
      id.rhs = hp.data();
    } else {
      id.rhs = reinterpret_cast<Val *>(x);
    }
    id.job = 3;
    M::Call(&id);
    id.icntl[19] = 0;
    if constexpr (high_precision)
      for (int64_t k = 0; k < total; k++)
        Store(hp[k], x + vw * k);
    return id.infog[0] < 0 ? id.infog[0] : 0;
  }
  int Error(Solver_Report &r, const char *phase) {
    if (id.infog[0] >= 0)
      return 0;
    std::snprintf(r.error_text, sizeof r.error_text, "MUMPS %s error %d (detail %d)", phase,
                  id.infog[0], id.infog[1]);
    // -13: the library's own allocation failed.
    return id.infog[0] == -13 ? solver_no_memory : id.infog[0];
  }
};

template <class M> int Create(const Solver_Setup &setup, Sparse_Solver &s) {
  auto *b = new (std::nothrow) Mumps_Backend<M>(setup);
  if (!b)
    return solver_no_memory;
  s.name = "MUMPS";
  s.state = b;
  s.analyse = [](void *p, Solver_Report &r) {
    return static_cast<Mumps_Backend<M> *>(p)->Analyse(r);
  };
  s.factorise = [](void *p, Solver_Report &r) {
    return static_cast<Mumps_Backend<M> *>(p)->Factorise(r);
  };
  s.solve = [](void *p, float *x, int cols, Solver_Report &r) {
    auto *self = static_cast<Mumps_Backend<M> *>(p);
    const int e = self->Solve(x, cols);
    return e && e != solver_no_memory ? self->Error(r, "solve") : e;
  };
  s.batch = [](void *p) {
    const Solver_Setup &u = static_cast<Mumps_Backend<M> *>(p)->setup;
    return static_cast<int>(std::min(
        largest_batch, Library_Batch(u.matrix->n, u.cmplx, u.sources, u.ssd_cache, u.threads)));
  };
  s.release = [](void *p) { delete static_cast<Mumps_Backend<M> *>(p); };
  return 0;
}

} // namespace

int Create_Mumps_Solver(const Solver_Setup &setup, Sparse_Solver &s, Solver_Report &r) {
  int e;
  if (setup.cmplx)
    e = setup.double_factor ? Create<Mumps_Z>(setup, s) : Create<Mumps_C>(setup, s);
  else
    e = setup.double_factor ? Create<Mumps_D>(setup, s) : Create<Mumps_S>(setup, s);
  if (e)
    std::snprintf(r.error_text, sizeof r.error_text, "no memory for the MUMPS solver");
  return e ? 1 : 0;
}
