// CHOLMOD (SuiteSparse) behind the source driver: a supernodal Cholesky
// factor in double precision in our fill-reducing order, for real
// matrices (its complex factorisations are Hermitian, not the complex
// symmetric matrices of a complex resistivity). Built where SuiteSparse is
// installed; it is the yardstick of the forward benchmark and a check on
// the other solvers.
#include <cstdio>

#include "forward/sparse_solver.h"

#ifdef OHMVOL3D_HAVE_CHOLMOD

#include <cholmod.h>

#include <algorithm>
#include <vector>

#include "forward/coo_matrix.h"

namespace {

struct Cholmod_Backend {
  const Solver_Setup &setup;
  const CooMatrix64 &m;
  cholmod_common cm;
  cholmod_sparse a{};
  cholmod_factor *l = nullptr;
  std::vector<SuiteSparse_long> colptr, rowidx, perm;
  std::vector<double> rhs;

  explicit Cholmod_Backend(const Solver_Setup &s) : setup(s), m(*s.matrix) {
    cholmod_l_start(&cm);
    cm.print = 0;
  }
  ~Cholmod_Backend() {
    if (l)
      cholmod_l_free_factor(&l, &cm);
    cholmod_l_finish(&cm);
  }
  int Failed(Solver_Report &r, const char *phase) {
    std::snprintf(r.error_text, sizeof r.error_text, "CHOLMOD %s status %d", phase, cm.status);
    return cm.status == CHOLMOD_OUT_OF_MEMORY ? solver_no_memory : 1;
  }
  int Analyse(Solver_Report &r) {
    const int64_t n = m.n;
    // The upper triangle by rows (from 1) is the lower triangle by columns.
    if (!Try_Resize(colptr, n + 1) || !Try_Resize(rowidx, m.count) || !Try_Resize(perm, n))
      return solver_no_memory;
    for (int64_t i = 0; i <= n; i++)
      colptr[i] = m.ia[i] - 1;
    for (int64_t k = 0; k < m.count; k++)
      rowidx[k] = m.ja[k] - 1;
    for (int64_t i = 0; i < n; i++)
      perm[setup.iperm[i] - 1] = i;
    a.nrow = a.ncol = static_cast<size_t>(n);
    a.nzmax = static_cast<size_t>(m.count);
    a.p = colptr.data();
    a.i = rowidx.data();
    a.x = const_cast<double *>(m.ad.data());
    a.stype = -1;
    a.itype = CHOLMOD_LONG;
    a.xtype = CHOLMOD_REAL;
    a.dtype = CHOLMOD_DOUBLE;
    a.sorted = 1;
    a.packed = 1;
    cm.nmethods = 1;
    cm.method[0].ordering = CHOLMOD_GIVEN;
    cm.postorder = 1;
    cm.supernodal = CHOLMOD_SUPERNODAL;
    l = cholmod_l_analyze_p(&a, perm.data(), nullptr, 0, &cm);
    if (!l)
      return Failed(r, "analysis");
    r.factor_entries = static_cast<int64_t>(cm.lnz);
    r.factor_flops = cm.fl;
    r.memory_bytes = static_cast<int64_t>(8.0 * cm.lnz);
    return 0;
  }
  int Factorise(Solver_Report &r) {
    if (!cholmod_l_factorize(&a, l, &cm) || cm.status != CHOLMOD_OK)
      return Failed(r, "factorisation");
    return 0;
  }
  int Solve(float *x, int cols, Solver_Report &r) {
    const int64_t n = m.n, total = n * cols;
    if (!Try_Resize(rhs, total))
      return solver_no_memory;
    std::copy(x, x + total, rhs.begin());
    cholmod_dense b{};
    b.nrow = static_cast<size_t>(n);
    b.ncol = static_cast<size_t>(cols);
    b.nzmax = static_cast<size_t>(total);
    b.d = static_cast<size_t>(n);
    b.x = rhs.data();
    b.xtype = CHOLMOD_REAL;
    b.dtype = CHOLMOD_DOUBLE;
    cholmod_dense *sol = cholmod_l_solve(CHOLMOD_A, l, &b, &cm);
    if (!sol)
      return Failed(r, "solve");
    const double *v = static_cast<const double *>(sol->x);
    for (int64_t k = 0; k < total; k++)
      x[k] = static_cast<float>(v[k]);
    cholmod_l_free_dense(&sol, &cm);
    return 0;
  }
};

} // namespace

int Create_Cholmod_Solver(const Solver_Setup &setup, Sparse_Solver &s, Solver_Report &r) {
  if (setup.cmplx) {
    std::snprintf(r.error_text, sizeof r.error_text,
                  "CHOLMOD takes real matrices only (its complex factors are Hermitian)");
    return 1;
  }
  auto *p = new (std::nothrow) Cholmod_Backend(setup);
  if (!p) {
    std::snprintf(r.error_text, sizeof r.error_text, "no memory for the CHOLMOD solver");
    return 1;
  }
  using B = Cholmod_Backend;
  s.name = "CHOLMOD";
  s.state = p;
  s.analyse = [](void *q, Solver_Report &rep) { return static_cast<B *>(q)->Analyse(rep); };
  s.factorise = [](void *q, Solver_Report &rep) { return static_cast<B *>(q)->Factorise(rep); };
  s.solve = [](void *q, float *x, int cols, Solver_Report &rep) {
    return static_cast<B *>(q)->Solve(x, cols, rep);
  };
  s.batch = [](void *q) {
    const Solver_Setup &u = static_cast<B *>(q)->setup;
    return static_cast<int>(std::min<int64_t>(
        64, Library_Batch(u.matrix->n, false, u.sources, u.ssd_cache, u.threads)));
  };
  s.release = [](void *q) { delete static_cast<B *>(q); };
  return 0;
}

#else

int Create_Cholmod_Solver(const Solver_Setup &, Sparse_Solver &, Solver_Report &r) {
  std::snprintf(r.error_text, sizeof r.error_text,
                "this build has no CHOLMOD (SuiteSparse was not found when it was built)");
  return 1;
}

#endif
