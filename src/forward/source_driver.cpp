// The source driver: one path from an assembled capacitance matrix to the
// stored potentials of every source, whichever sparse solver serves the
// run. It picks the solver, keeps the fill-reducing order of the matrix
// pattern, has the solver analyse and factorise, then solves the sources in
// batches: right-hand sides from the electrode nodes, the solver's solve,
// a residual in double precision against the assembled matrix for a sample
// of each batch's columns and, where that is above the tolerance, further
// solves for the columns that need them; then the electrode potentials (and
// for the Jacobian the whole fields) are saved.
#include <omp.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdio>
#include <vector>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "forward/blkfct.h"
#include "forward/forward.h"
#include "forward/refinement.h"
#include "forward/sparse_solver.h"
#include "survey/survey_text.h"

namespace {

// Columns of a batch whose residual decides on refinement.
constexpr int refine_sample = 8;

uint64_t Pattern_Hash(const CooMatrix64 &m) {
  uint64_t h = 1469598103934665603ull;
  auto mix = [&h](int64_t v) {
    h ^= static_cast<uint64_t>(v);
    h *= 1099511628211ull;
  };
  for (int64_t i = 0; i <= m.n; i++)
    mix(m.ia[i]);
  for (int64_t k = 0; k < m.count; k++)
    mix(m.ja[k]);
  return h;
}

bool Ordering_Current(const CooMatrix64 &m, const Matrix_Ordering &o) {
  return o.n == m.n && o.count == m.count && o.iperm.size() == m.n &&
         o.pattern_hash == Pattern_Hash(m);
}

// Keeps a fill-reducing ordering (iperm from 1) for the present pattern.
int Keep_Ordering(Data_Set &ds, const int *iperm) {
  const CooMatrix64 &m = ds.Fem.coomatrix64;
  Matrix_Ordering &o = ds.Fem.ordering;
  o.n = 0;
  if (o.iperm.Resize(ds, std::max<int64_t>(m.n, 1), "ordering iperm"))
    return 1;
  std::copy(iperm, iperm + m.n, o.iperm.data());
  o.n = m.n;
  o.count = m.count;
  o.pattern_hash = Pattern_Hash(m);
  return 0;
}

const char *Arithmetic(bool cmplx) {
  return cmplx ? "complex" : "real";
}

// A solver's failure in words, with the phase and the arithmetic.
int Solver_Failed(Data_Set &ds, const Solver_Report &r, const char *phase, int err, bool cmplx) {
  if (err == solver_no_memory)
    return Show_Text(ds, "Memory Error Message", MK_WARNING,
                     "Insufficient memory for the %s of the finite-element %s matrix (%s "
                     "solver, %lld equations).",
                     phase, Arithmetic(cmplx), r.name, static_cast<long long>(r.n)),
           1;
  return Show_Text(ds, "Finite-element solution routine", MK_WARNING,
                   "Error in the %s of the finite-element %s matrix (%s solver).\nError code "
                   "%d\n%s",
                   phase, Arithmetic(cmplx), r.name, err, r.error_text),
         1;
}

// The right-hand sides of a batch as (row, value) lists per column, kept
// for the residuals after the solve has overwritten them.
template <class X> struct Sparse_Columns {
  std::vector<int64_t> ptr, row;
  std::vector<X> val;
  void Take(const X *x, int64_t n, int cols) {
    ptr.assign(1, 0);
    row.clear();
    val.clear();
    for (int c = 0; c < cols; c++) {
      const X *col = x + c * n;
      for (int64_t i = 0; i < n; i++)
        if (col[i] != X(0)) {
          row.push_back(i);
          val.push_back(col[i]);
        }
      ptr.push_back(static_cast<int64_t>(row.size()));
    }
  }
  void Scatter(int c, int64_t n, X *to) const {
    std::fill(to, to + n, X(0));
    for (int64_t k = ptr[c]; k < ptr[c + 1]; k++)
      to[row[k]] = val[k];
  }
};

// Refinement of a solved batch in double precision: X the stored values
// (float or complex<float>), R the residual's (double or complex<double>).
template <class X, class R> struct Refinement {
  const CooMatrix64 &m;
  const Sparse_Solver &s;
  Solver_Report &rep;
  double tol;
  int steps_max;
  Sparse_Columns<X> rhs;
  std::vector<X> w;      // residual columns, compacted
  std::vector<R> acc;    // residual scratch, n a thread
  std::vector<int> cols; // batch column of each residual column
  std::vector<double> res;

  Refinement(const CooMatrix64 &matrix, const Sparse_Solver &solver, Solver_Report &r, double t,
             int steps)
      : m(matrix), s(solver), rep(r), tol(t), steps_max(steps) {}

  // Residuals of the batch columns `cols` into w (in that order); their
  // relative norms into res.
  void Residuals(const X *x) {
    const int64_t n = m.n;
    const int k = static_cast<int>(cols.size());
    res.assign(k, 0.0);
#pragma omp parallel for schedule(dynamic, 1)
    for (int j = 0; j < k; j++) {
      X *r = w.data() + j * n;
      rhs.Scatter(cols[j], n, r);
      res[j] =
          Residual_Column<R, X>(m, x + cols[j] * n, r, r, acc.data() + n * omp_get_thread_num());
    }
  }
  // Keeps the columns above the tolerance (their residuals moved to the
  // front of w); the largest residual of all.
  double Keep_Above(int64_t n) {
    double worst = 0.0;
    size_t kept = 0;
    for (size_t j = 0; j < cols.size(); j++) {
      worst = std::max(worst, res[j]);
      if (res[j] <= tol)
        continue;
      if (kept != j)
        std::copy(w.begin() + j * n, w.begin() + (j + 1) * n, w.begin() + kept * n);
      cols[kept++] = cols[j];
    }
    cols.resize(kept);
    return worst;
  }
  // Returns 0 or the solver's error.
  int Run(X *x, int nblk) {
    const int64_t n = m.n;
    rep.residual = 0.0;
    int batch_steps = 0;
    if (!Try_Resize(acc, n * omp_get_max_threads()) ||
        !Try_Resize(w, std::min(nblk, refine_sample) * n))
      return solver_no_memory;
    const int sample = std::min(nblk, refine_sample);
    cols.resize(sample);
    for (int j = 0; j < sample; j++)
      cols[j] = sample == nblk ? j : (j * nblk) / sample;
    Residuals(x);
    double worst = Keep_Above(n);
    rep.residual = worst;
    if (worst > tol && steps_max > 0) {
      // Every column of the batch is checked, and those above refined.
      if (sample < nblk) {
        if (!Try_Resize(w, nblk * n))
          return solver_no_memory;
        cols.resize(nblk);
        for (int j = 0; j < nblk; j++)
          cols[j] = j;
        Residuals(x);
        worst = Keep_Above(n);
      }
      rep.columns_refined += static_cast<int64_t>(cols.size());
      for (int step = 0; !cols.empty(); step++) {
        const int k = static_cast<int>(cols.size());
        if (const int e = s.solve(s.state, reinterpret_cast<float *>(w.data()), k, rep))
          return e;
        rep.passes_refined += k;
#pragma omp parallel for schedule(static)
        for (int j = 0; j < k; j++) {
          X *to = x + cols[j] * n;
          const X *d = w.data() + j * n;
          for (int64_t i = 0; i < n; i++)
            to[i] += d[i];
        }
        batch_steps = step + 1;
        Residuals(x);
        worst = Keep_Above(n);
        if (batch_steps == steps_max)
          break;
      }
      rep.residual = worst;
    }
    rep.refine_steps = std::max(rep.refine_steps, batch_steps);
    return 0;
  }
};

// Sources sorted by the first pivot their nodes reach, so that a batch's
// columns share the paths of the forward elimination.
void Sort_Sources(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  const Electrode_Nodes *entries = ds.use_dipoles_fem == 1 ? fem.dip.data() : fem.en.data();
  const int64_t n = fem.coomatrix64.n;
  std::vector<int> low(fem.nelec, INT_MAX);
  for (int s = 0; s < fem.nsources; s++) {
    const int e = fem.sources[s] - 1;
    for (int k = 0; k < entries[e].ni; k++) {
      const int node = entries[e].elec_int_ss[k];
      if (node >= 1 && node <= n)
        low[e] = std::min(low[e], fem.ordering.iperm[node - 1]);
    }
  }
  std::stable_sort(fem.sources.data(), fem.sources.data() + fem.nsources,
                   [&](int a, int c) { return low[a - 1] < low[c - 1]; });
}

template <class X, class R> int Solve_Batches(Data_Set &ds, Sparse_Solver &s) {
  Fem_State &fem = ds.Fem;
  const CooMatrix64 &m = fem.coomatrix64;
  Solver_Report &rep = fem.report;
  const bool cmplx = m.cmplx != 0;
  const int64_t n = m.n, vw = cmplx ? 2 : 1;
  const int nsrc = fem.nsources;
  rep.batch = std::clamp(s.batch(s.state), 1, std::max(nsrc, 1));
  Block_Array<float> x;
  if (x.Resize(ds, rep.batch * n * vw, "potentials"))
    return 1;
  Refinement<X, R> refine(m, s, rep, fem.refine_tol, rep.double_factor ? 0 : fem.refine_steps_max);
  for (int first = 0; first < nsrc; first += rep.batch) {
    const int nblk = std::min(rep.batch, nsrc - first);
    const int *list = fem.sources.data() + first;
    Progress_Text(ds, static_cast<double>(first) / nsrc, "FEM electrode %d/%d %3.0f%% %s %s %d",
                  first + nblk, nsrc, 100.0 * (first + nblk) / nsrc, rep.name, Arithmetic(cmplx),
                  static_cast<int>(n));
    if (set_elec_numbers_ss(ds, nblk, list, x.data(), cmplx))
      return 1;
    X *xv = reinterpret_cast<X *>(x.data());
    if (!rep.double_factor)
      refine.rhs.Take(xv, n, nblk);
    int e = s.solve(s.state, x.data(), nblk, rep);
    if (!e && !rep.double_factor)
      e = refine.Run(xv, nblk);
    if (e)
      return Solver_Failed(ds, rep, "solve", e, cmplx);
    rep.columns += nblk;
    TRACE("batch at %d nblk %d refinement steps %d residual %.3e\n", first, nblk, rep.refine_steps,
          rep.residual);
    if (seq_save_vpot_nblk_ss(ds, nblk, list, x.data(), cmplx))
      return 1;
    if (fem.jacob && Save_Pot_Jacob(ds, nblk, list, x.data(), cmplx)) {
      show_message(ds, "Error in saving Jacobian.\n", "Info", MK_INFORMATION);
      return 1;
    }
  }
  return 0;
}

} // namespace

int Fill_Reducing_Order(Data_Set &ds) {
  const CooMatrix64 &m = ds.Fem.coomatrix64;
  Solver_Report &rep = ds.Fem.report;
  if (Ordering_Current(m, ds.Fem.ordering)) {
    TRACE("Ordering reused n %lld\n", static_cast<long long>(m.n));
    return 0;
  }
  const auto t0 = Clock::now();
  progress(ds, "Setting up ss mesh matrix ordering..", 0.0);
  const int64_t nadj = 2 * (m.count - m.n);
  Block_Array<int> xadj, adjncy, perm, iperm;
  if (xadj.Resize(ds, m.n + 1, "ordering xadj") ||
      adjncy.Resize(ds, std::max<int64_t>(nadj, 1), "ordering adjncy") ||
      perm.Resize(ds, m.n, "ordering perm") || iperm.Resize(ds, m.n, "ordering iperm"))
    return 1;
  if (m.Set_Adjacency_From_CSR(INT64_MAX, xadj.data(), adjncy.data()) < 0)
    return 1;
  const int r =
      mnd_adj(xadj.data(), adjncy.data(), static_cast<int>(m.n), perm.data(), iperm.data());
  if (r)
    return Show_Text(ds, "Message", MK_WARNING, "METIS ordering error code %d\n", r), 1;
  if (Keep_Ordering(ds, iperm.data()))
    return 1;
  rep.t_ordering = Seconds_Since(t0);
  TRACE("METIS_NodeND n %lld time %.2f\n", static_cast<long long>(m.n), rep.t_ordering);
  return 0;
}

void Check_Generic_Solver_Settings(Data_Set &ds) {
  const int nseg = ds.Model_grid.num_splice_x * ds.Model_grid.num_splice_y;
  if (ds.nelec_use < 255 || nseg >= 2)
    ds.Data_lim_sys.cpu_type_solver = 0;
  TRACE("Generic solver disabled  nelec_use %d number_segments %d  cpu_type_solver reset to %d\n",
        ds.nelec_use, nseg, ds.Data_lim_sys.cpu_type_solver);
}

int Choose_Sparse_Solver(Data_Set &ds) {
  if (ds.Fem.solver_kind >= 0 && ds.Fem.solver_kind < solver_kinds)
    return ds.Fem.solver_kind;
  Check_Generic_Solver_Settings(ds);
  return ds.Data_lim_sys.cpu_type_solver > 0 ? solver_block : solver_mumps;
}

const char *Solver_Name(int kind) {
  static const char *const names[solver_kinds] = {"MUMPS", "block solver", "CHOLMOD"};
  return kind >= 0 && kind < solver_kinds ? names[kind] : "unknown solver";
}

int Create_Sparse_Solver(int kind, const Solver_Setup &setup, Sparse_Solver &s, Solver_Report &r) {
  s = Sparse_Solver();
  r.name = Solver_Name(kind);
  switch (kind) {
  case solver_mumps:
    return Create_Mumps_Solver(setup, s, r);
  case solver_block:
    return Create_Block_Solver(setup, s, r);
  case solver_cholmod:
    return Create_Cholmod_Solver(setup, s, r);
  default:
    std::snprintf(r.error_text, sizeof r.error_text, "no solver of kind %d", kind);
    return 1;
  }
}

void Release_Sparse_Solver(Sparse_Solver &s) {
  if (s.release && s.state)
    s.release(s.state);
  s = Sparse_Solver();
}

int64_t Library_Batch(int64_t n, bool cmplx, int64_t sources, double ssd_cache, int threads) {
  const int64_t t = std::max(threads, 1);
  int64_t r =
      n > 0 ? std::llround(ssd_cache * 256.0 * 1024.0 * 1024.0 / static_cast<double>(n)) : 8;
  if (r < 8) {
    r = 8;
  } else {
    if (r > 256)
      r = 256;
    if (r > 192 && n > 1000000)
      r = 192;
    if (r > 128 && n > 2500000)
      r = 128;
    if (r > 96 && n > 3700000)
      r = 96;
    if (r > 64 && n > 5000000)
      r = 64;
  }
  if (cmplx)
    r /= 2;
  if (r < t)
    r = t;
  if (sources > t)
    r = std::min(r, (sources + 1) / 2);
  else
    r = t; // a few sources: one batch as wide as the threads
  if (r > t)
    r = r / t * t;
  return r;
}

int Solve_Sources(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  const CooMatrix64 &m = fem.coomatrix64;
  const bool cmplx = m.cmplx != 0;
  Solver_Report &rep = fem.report;
  rep = Solver_Report();
  const int kind = Choose_Sparse_Solver(ds);
  rep.kind = kind;
  rep.n = m.n;
  const auto t_start = Clock::now();
  if (Fill_Reducing_Order(ds) || Set_Source_List(ds, fem.jacob))
    return 1;
  Sort_Sources(ds);
  Solver_Setup setup;
  setup.matrix = &m;
  setup.iperm = fem.ordering.iperm.data();
  setup.cmplx = cmplx;
  setup.double_factor = fem.double_precision != 0 || kind == solver_cholmod;
  setup.threads = std::max(omp_get_max_threads(), 1);
  setup.sources = fem.nsources;
  setup.ssd_cache = ds.ssd_cache;
  setup.simultaneous_solves = ds.simultaneous_solves;
  setup.cpu_type = ds.Data_lim_sys.cpu_type_solver;
  setup.instruction_level = ds.System_config.cpu.instruction_level;
  rep.double_factor = setup.double_factor;
  Sparse_Solver s;
  if (Create_Sparse_Solver(kind, setup, s, rep))
    return Show_Text(ds, "Finite-element solution routine", MK_WARNING,
                     "The %s cannot solve this finite-element %s matrix: %s", rep.name,
                     Arithmetic(cmplx), rep.error_text),
           1;
  int err = 0;
  auto t0 = Clock::now();
  Progress_Text(ds, 0.0, "%s analysis, %s matrix, %d equations", rep.name, Arithmetic(cmplx),
                static_cast<int>(m.n));
  if (const int e = s.analyse(s.state, rep))
    err = Solver_Failed(ds, rep, "analysis", e, cmplx);
  rep.t_analysis = Seconds_Since(t0);
  if (!err) {
    TRACE("%s factor entries %lld memory %lld bytes flops %.3g\n", rep.name,
          static_cast<long long>(rep.factor_entries), static_cast<long long>(rep.memory_bytes),
          rep.factor_flops);
    Progress_Text(ds, 0.0, "%s factorization, %s matrix, %d equations", rep.name, Arithmetic(cmplx),
                  static_cast<int>(m.n));
    t0 = Clock::now();
    if (const int e = s.factorise(s.state, rep))
      err = Solver_Failed(ds, rep, "factorization", e, cmplx);
    rep.t_factor = Seconds_Since(t0);
  }
  if (!err) {
    t0 = Clock::now();
    err = Reset_Potential_Files(ds, fem.jacob);
    if (!err)
      err = cmplx ? Solve_Batches<std::complex<float>, std::complex<double>>(ds, s)
                  : Solve_Batches<float, double>(ds, s);
    rep.t_solve = Seconds_Since(t0);
  }
  Release_Sparse_Solver(s);
  progress(ds, "Forward modelling solving electrodes semistructured end", 1.0);
  TRACE("%s: %lld equations, analysis %.2f s, factorisation %.2f s, solves %.2f s (%lld columns, "
        "%lld refined, %lld refinement passes), in all %.2f s, error %d\n",
        rep.name, static_cast<long long>(m.n), rep.t_analysis, rep.t_factor, rep.t_solve,
        static_cast<long long>(rep.columns), static_cast<long long>(rep.columns_refined),
        static_cast<long long>(rep.passes_refined), Seconds_Since(t_start), err);
  return err;
}
