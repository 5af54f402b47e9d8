// The capacitance matrix solved with MUMPS: our own nested-dissection
// ordering (computed once per mesh pattern), analysis, factorisation in
// single precision, then batches of right-hand sides refined in double
// precision against the assembled matrix.
#include <cmumps_c.h>
#include <dmumps_c.h>
#include <omp.h>
#include <smumps_c.h>
#include <zmumps_c.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <type_traits>
#include <vector>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "forward/blkfct.h"
#include "forward/forward.h"
#include "forward/refinement.h"
#include "survey/survey_text.h"

namespace {

constexpr int use_comm_world = -987654;
// Columns of a batch whose residual decides on refinement.
constexpr int refine_sample = 8;
// Columns the library solves together inside a batch, and the sources whose
// right-hand sides are set up together.
constexpr int solve_block = 64;
constexpr int rhs_chunk = 8;

// The four arithmetics behind one interface.
template <class S, class V, void (*F)(S *)> struct Mumps_Arithmetic {
  using Struc = S;
  using Val = V;
  static void Call(Struc *s) { F(s); }
};
using Mumps_S = Mumps_Arithmetic<SMUMPS_STRUC_C, float, smumps_c>;
using Mumps_D = Mumps_Arithmetic<DMUMPS_STRUC_C, double, dmumps_c>;
using Mumps_C = Mumps_Arithmetic<CMUMPS_STRUC_C, mumps_complex, cmumps_c>;
using Mumps_Z = Mumps_Arithmetic<ZMUMPS_STRUC_C, mumps_double_complex, zmumps_c>;

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

// Nested-dissection ordering of the matrix's graph by METIS, kept while the
// pattern stays the same.
int Set_Ordering(Data_Set &ds) {
  CooMatrix64 &m = ds.Fem.coomatrix64;
  if (Ordering_Current(ds)) {
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
  if (r) {
    Show_Text(ds, "Message", MK_WARNING, "METIS ordering error code %d\n", r);
    return 1;
  }
  if (Keep_Ordering(ds, iperm.data()))
    return 1;
  ds.Fem.ordering.seconds = Seconds_Since(t0);
  TRACE("METIS_NodeND n %lld time %.2f\n", static_cast<long long>(m.n), ds.Fem.ordering.seconds);
  return 0;
}

} // namespace

bool Ordering_Current(Data_Set &ds) {
  const CooMatrix64 &m = ds.Fem.coomatrix64;
  const Matrix_Ordering &o = ds.Fem.ordering;
  return o.n == m.n && o.count == m.count && o.iperm.size() == m.n &&
         o.pattern_hash == Pattern_Hash(m);
}

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

namespace {

// One factorisation and its solves. X is the stored precision of the
// solutions (float or complex<float>), R the residual's (double or
// complex<double>); M the library's arithmetic.
template <class M, class X, class R> class Mumps_Run {
public:
  explicit Mumps_Run(Data_Set &ds) : ds_(ds), m_(ds.Fem.coomatrix64) {}
  ~Mumps_Run() { Release(); }

  // Phase 11: the analysis with the given ordering.
  int Analyse() {
    id_ = typename M::Struc();
    id_.job = -1;
    id_.par = 1;
    id_.sym = m_.cmplx ? 2 : 1;
    id_.comm_fortran = use_comm_world;
    M::Call(&id_);
    live_ = true;
    id_.icntl[0] = -1; // no error, warning, diagnostic or statistics output
    id_.icntl[1] = -1;
    id_.icntl[2] = -1;
    id_.icntl[3] = 0;
    id_.icntl[6] = 1; // the ordering is given
    id_.icntl[7] = 7; // scaling on: simultaneous row and column iterations
    id_.icntl[9] = 0; // no refinement of the library's own
    id_.icntl[13] = 40;
    id_.icntl[34] = 0; // full-rank factors
    id_.n = static_cast<MUMPS_INT>(m_.n);
    id_.nnz = m_.count;
    if (irn_.Resize(ds_, m_.count, "matrix rows") || jcn_.Resize(ds_, m_.count, "matrix columns"))
      return 1;
    for (int64_t i = 0; i < m_.n; i++)
      for (int64_t k = m_.ia[i] - 1; k < m_.ia[i + 1] - 1; k++) {
        irn_[k] = static_cast<MUMPS_INT>(i + 1);
        jcn_[k] = static_cast<MUMPS_INT>(m_.ja[k]);
      }
    id_.irn = irn_.data();
    id_.jcn = jcn_.data();
    id_.a = Values();
    id_.perm_in = ds_.Fem.ordering.iperm.data();
    id_.job = 1;
    M::Call(&id_);
    // Memory figures of the analysis: factor entries and working space in
    // 4-byte words (negative counts are millions).
    auto big = [](MUMPS_INT v) {
      return v < 0 ? -static_cast<int64_t>(v) * 1000000 : static_cast<int64_t>(v);
    };
    const int words = static_cast<int>(sizeof(typename M::Val) / 4);
    m_.factor_entries = big(id_.infog[19]);
    m_.mesh_matrix_size = m_.factor_entries * words + big(id_.infog[3]);
    m_.factor_flops = id_.rinfog[0];
    return id_.infog[0] < 0 ? id_.infog[0] : 0;
  }
  // Phase 22: the numerical factorisation; a shortage of working space is
  // met once with twice the relaxation.
  int Factor() {
    id_.job = 2;
    M::Call(&id_);
    if (id_.infog[0] == -8 || id_.infog[0] == -9 || id_.infog[0] == -14 || id_.infog[0] == -15) {
      TRACE("MUMPS factorisation error %d, relaxation raised\n", id_.infog[0]);
      id_.icntl[13] *= 2;
      M::Call(&id_);
    }
    return id_.infog[0] < 0 ? id_.infog[0] : 0;
  }
  // The right-hand sides of a batch go to the library in sparse form: the
  // sources are a few nodes each, and the forward elimination then follows
  // only the paths from those nodes to the root. Columns are added a few at
  // a time from dense scratch.
  void Clear_Rhs() {
    sp_ptr_.assign(1, 1);
    sp_row_.clear();
    sp_val_.clear();
  }
  void Add_Rhs_Columns(int ncols, const X *cols) {
    const int64_t n = m_.n;
    for (int c = 0; c < ncols; c++) {
      const X *col = cols + static_cast<int64_t>(c) * n;
      for (int64_t i = 0; i < n; i++)
        if (col[i] != X(0)) {
          sp_row_.push_back(static_cast<MUMPS_INT>(i + 1));
          sp_val_.push_back(Val_Of(col[i]));
        }
      sp_ptr_.push_back(static_cast<MUMPS_INT>(sp_row_.size() + 1));
    }
  }
  // Phase 33 for the columns added since Clear_Rhs: x (float storage),
  // refined when a sample of the columns shows the single-precision residual
  // above the tolerance.
  int Solve(X *x) {
    const int nblk = static_cast<int>(sp_ptr_.size()) - 1;
    const int64_t n = m_.n, total = n * nblk;
    id_.nrhs = nblk;
    id_.lrhs = static_cast<MUMPS_INT>(n);
    // The library's own block of columns bounds its solve work space.
    id_.icntl[26] = std::clamp(nblk, 1, solve_block);
    id_.nz_rhs = static_cast<MUMPS_INT>(sp_row_.size());
    id_.irhs_ptr = sp_ptr_.data();
    id_.irhs_sparse = sp_row_.data();
    id_.rhs_sparse = sp_val_.data();
    id_.icntl[19] = 1; // sparse right-hand sides, sparsity exploited
    int err = Solve_In_Place(x, total, false);
    id_.icntl[19] = 0;
    if (err)
      return err;
    Fem_State &fem = ds_.Fem;
    fem.refine_steps_done = 0;
    fem.residual_last = 0.0;
    if (High_Precision())
      return 0;
    acc_.resize(n * omp_get_max_threads()); // residual scratch, kept for every batch
    // The residual of a few columns spread over the batch tells whether the
    // factor's precision is enough for this matrix.
    const int sample = std::min(nblk, refine_sample);
    if (w_.size() < sample * n && w_.Resize(ds_, sample * n, "refinement"))
      return 1;
    double worst = Worst_Residual(sample, nblk, x);
    fem.residual_last = worst;
    if (worst <= fem.refine_tol)
      return 0;
    if (w_.size() < total && w_.Resize(ds_, total, "refinement"))
      return 1;
    for (int step = 0; step < fem.refine_steps_max; step++) {
      if (step > 0 || sample < nblk)
        worst = Worst_Residual(nblk, nblk, x);
      fem.residual_last = worst;
      if (worst <= fem.refine_tol)
        break;
      if ((err = Solve_In_Place(w_.data(), total)))
        return err;
#pragma omp parallel for schedule(static)
      for (int64_t k = 0; k < total; k++)
        x[k] += w_[k];
      fem.refine_steps_done = step + 1;
    }
    return 0;
  }
  int Error() const {
    return id_.infog[0];
  }
  int Error2() const {
    return id_.infog[1];
  }
  void Release() {
    if (live_) {
      id_.job = -2;
      M::Call(&id_);
      live_ = false;
    }
    irn_.Free();
    jcn_.Free();
    hp_.Free();
    w_.Free();
    std::vector<MUMPS_INT>().swap(sp_ptr_);
    std::vector<MUMPS_INT>().swap(sp_row_);
    std::vector<typename M::Val>().swap(sp_val_);
  }

private:
  static constexpr bool High_Precision() {
    return sizeof(typename M::Val) == 2 * sizeof(X);
  }
  typename M::Val *Values() {
    if constexpr (High_Precision())
      return reinterpret_cast<typename M::Val *>(m_.ad.data());
    else
      return reinterpret_cast<typename M::Val *>(m_.a.data());
  }
  // The largest relative residual of `count` columns spread evenly over the
  // batch; the residual of the s-th checked column is left in column s of w_.
  double Worst_Residual(int count, int nblk, const X *x) {
    const int64_t n = m_.n;
    X *w = w_.data();
    double worst = 0.0;
#pragma omp parallel for schedule(dynamic, 1) reduction(max : worst)
    for (int s = 0; s < count; s++) {
      const int c = count == nblk ? s : (s * nblk) / count;
      X *r = w + static_cast<int64_t>(s) * n;
      // The column's right-hand side back from its sparse form.
      std::fill(r, r + n, X(0));
      for (MUMPS_INT k = sp_ptr_[c] - 1; k < sp_ptr_[c + 1] - 1; k++)
        r[sp_row_[k] - 1] = X_Of(sp_val_[k]);
      worst = std::max(worst, Residual_Column<R, X>(m_, x + static_cast<int64_t>(c) * n, r, r,
                                                    acc_.data() + n * omp_get_thread_num()));
    }
    return worst;
  }
  static typename M::Val Val_Of(X v) {
    typename M::Val r;
    if constexpr (std::is_same_v<X, float>) {
      r = static_cast<typename M::Val>(v);
    } else {
      r.r = v.real();
      r.i = v.imag();
    }
    return r;
  }
  static X X_Of(typename M::Val v) {
    if constexpr (std::is_same_v<X, float>)
      return static_cast<X>(v);
    else
      return X(v.r, v.i);
  }
  // One solve; the result goes to v (which holds the right-hand sides when
  // `dense_rhs`).
  int Solve_In_Place(X *v, int64_t total, bool dense_rhs = true) {
    if constexpr (High_Precision()) {
      // Double arithmetic: the columns go through a double copy.
      if (hp_.size() < total && hp_.Resize(ds_, total, "right-hand sides double"))
        return 1;
      if (dense_rhs)
        for (int64_t k = 0; k < total; k++)
          hp_[k] = R(v[k]);
      id_.rhs = reinterpret_cast<typename M::Val *>(hp_.data());
      id_.job = 3;
      M::Call(&id_);
      for (int64_t k = 0; k < total; k++)
        v[k] = X(hp_[k]);
    } else {
      id_.rhs = reinterpret_cast<typename M::Val *>(v);
      id_.job = 3;
      M::Call(&id_);
    }
    return id_.infog[0] < 0 ? id_.infog[0] : 0;
  }

  Data_Set &ds_;
  CooMatrix64 &m_;
  typename M::Struc id_{};
  bool live_ = false;
  Block_Array<MUMPS_INT> irn_, jcn_;
  Block_Array<R> hp_;
  Block_Array<X> w_; // residuals and corrections
  std::vector<MUMPS_INT> sp_ptr_, sp_row_;
  std::vector<typename M::Val> sp_val_;
  std::vector<R> acc_;
};

// Analysis, factorisation and every batch of one arithmetic.
template <class M, class X, class R> int Run_Solver(Data_Set &ds, const char *kind) {
  Fem_State &fem = ds.Fem;
  CooMatrix64 &m = fem.coomatrix64;
  const bool cmplx = m.cmplx != 0;
  Mumps_Run<M, X, R> run(ds);
  // Phase 11.
  auto t0 = Clock::now();
  progress(ds, "Setting up ss mesh matrix analysis..", 0.0);
  if (Set_Ordering(ds))
    return 1;
  int err = run.Analyse();
  Progress_Text(ds, 0.0, "Mesh matrix size %lld", static_cast<long long>(m.mesh_matrix_size));
  if (err) {
    Show_Text(ds, "Message", MK_WARNING, "MUMPS permutation error code %lld\n",
              static_cast<long long>(err));
    Show_Text(ds, "Finite-element solution real permutation routine A", MK_WARNING,
              "Error in setting up FEM real matrix for semi-structured mesh.\nMemory space "
              "required is %lld\nError code %lld\n",
              static_cast<long long>(m.mesh_matrix_size), static_cast<long long>(err));
    return 1;
  }
  fem.t_analysis = Seconds_Since(t0);
  // Phase 22.
  t0 = Clock::now();
  const int threads = omp_get_max_threads();
  m.Set_nrhs(ds.nelec_use, ds.ssd_cache, threads);
  if (m.nrhs > 32)
    m.nrhs = 32;
  Progress_Text(ds, 0.0, "MUMPS factorization %s n %d ss", kind, static_cast<int>(m.n));
  err = run.Factor();
  if (err) {
    Show_Text(ds, "Finite-element solution real routine", MK_WARNING,
              "Error in solving finite-element real matrix.\nError code %lld\n",
              static_cast<long long>(err));
    return 1;
  }
  fem.t_factor = Seconds_Since(t0);
  // Phase 33, batch by batch.
  t0 = Clock::now();
  if (Set_Source_List(ds, fem.jacob))
    return 1;
  const int nsrc = fem.nsources;
  m.Set_nrhs(nsrc, ds.ssd_cache, threads);
  const int64_t vw = cmplx ? 2 : 1;
  Block_Array<float> b, x;
  auto take = [&](int64_t nrhs) {
    return b.Resize(ds, std::min<int64_t>(nrhs, rhs_chunk) * m.n * vw, "right-hand sides") == 0 &&
           x.Resize(ds, nrhs * m.n * vw, "potentials") == 0;
  };
  ds.quiet++;
  bool ok = take(m.nrhs);
  if (!ok) {
    m.nrhs = std::max<int64_t>(1, m.nrhs / 2);
    TRACE("Insufficient memory. Reduce nrhs by half to %lld\n", static_cast<long long>(m.nrhs));
    ok = take(m.nrhs);
  }
  ds.quiet--;
  if (!ok) {
    show_message(ds, "Insufficient memory to calculate potentials in FEM.\n", "Info",
                 MK_INFORMATION);
    return 1;
  }
  if (Reset_Potential_Files(ds, fem.jacob))
    return 1;
  const int nloops = nsrc > 0 ? static_cast<int>((nsrc + m.nrhs - 1) / m.nrhs) : 0;
  for (int loop = 0; loop < nloops; loop++) {
    const int first = static_cast<int>(loop * m.nrhs);
    const int nblk = static_cast<int>(std::min<int64_t>(m.nrhs, nsrc - first));
    const int *list = fem.sources.data() + first;
    Progress_Text(ds, static_cast<double>(first) / std::max(nsrc, 1),
                  "FEM electrode %d/%d %3.0f%% ss %d", first + nblk, nsrc,
                  100.0 * (first + nblk) / std::max(nsrc, 1), static_cast<int>(m.n));
    run.Clear_Rhs();
    for (int c = 0; c < nblk; c += rhs_chunk) {
      const int k = std::min(rhs_chunk, nblk - c);
      if (set_elec_numbers_ss(ds, k, list + c, b.data(), cmplx))
        return 1;
      run.Add_Rhs_Columns(k, reinterpret_cast<const X *>(b.data()));
    }
    if (run.Solve(reinterpret_cast<X *>(x.data()))) {
      Show_Text(ds, "Finite-element solution real routine", MK_WARNING,
                "Error in solving finite-element real matrix.\nError code %lld\n",
                static_cast<long long>(run.Error()));
      return 1;
    }
    TRACE("batch %d nblk %d refinement steps %d residual %.3e\n", loop, nblk, fem.refine_steps_done,
          fem.residual_last);
    if (seq_save_vpot_nblk_ss(ds, nblk, list, x.data(), cmplx))
      return 1;
    if (fem.jacob && Save_Pot_Jacob(ds, nblk, list, x.data(), cmplx)) {
      show_message(ds, "Error in saving Jacobian.\n", "Info", MK_INFORMATION);
      return 1;
    }
  }
  progress(ds, "Forward modelling solving electrodes semistructured end", 1.0);
  fem.t_solve = Seconds_Since(t0);
  return 0;
}

} // namespace

int Use_MUMPS_Solver(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  CooMatrix64 &m = fem.coomatrix64;
  const auto t0 = Clock::now();
  Progress_Text(ds, 0.0, "Finite-element modeling - Setting ss mesh %d nodes",
                static_cast<int>(m.n));
  int err;
  if (m.cmplx)
    err = fem.double_precision
              ? Run_Solver<Mumps_Z, std::complex<float>, std::complex<double>>(ds, "cmplx ")
              : Run_Solver<Mumps_C, std::complex<float>, std::complex<double>>(ds, "cmplx ");
  else
    err = fem.double_precision ? Run_Solver<Mumps_D, float, double>(ds, "real ")
                               : Run_Solver<Mumps_S, float, double>(ds, "real ");
  TRACE("FEM modeling solving ss mesh  nodes %d  Time %.2f   error return %d  splice %d\n",
        static_cast<int>(m.n), Seconds_Since(t0), err, 0);
  return err;
}

void Check_Generic_Solver_Settings(Data_Set &ds) {
  const int nseg = ds.Model_grid.num_splice_x * ds.Model_grid.num_splice_y;
  if (ds.nelec_use < 255 || nseg >= 2)
    ds.Data_lim_sys.cpu_type_solver = 0;
  TRACE("Generic solver disabled  nelec_use %d number_segments %d  cpu_type_solver reset to %d\n",
        ds.nelec_use, nseg, ds.Data_lim_sys.cpu_type_solver);
}
