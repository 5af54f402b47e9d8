// The generic block solver in the forward model: ordering, structure, the
// values of the capacitance matrix copied into the factor's panels,
// factorisation, then the sources solved in blocks (each thread its own
// columns), refined in double against the assembled matrix and saved in the
// electrode table.
#include <omp.h>

#include <algorithm>
#include <complex>
#include <cstdio>
#include <memory>
#include <string>
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

// Trilinear hexahedra couple a node to its 26 lattice neighbours; the
// tetrahedra and pyramids of transition blocks add a few more.
constexpr int max_neighbours = 64;
constexpr int blk_refine_steps = 3;

// The fill-reducing order, from the cache while the pattern stays the same.
int Order_Matrix(Data_Set &ds, std::vector<int> &perm, std::vector<int> &invp,
                 std::vector<int> &xadj, std::vector<int> &adjncy) {
  CooMatrix64 &m = ds.Fem.coomatrix64;
  const int64_t n = m.n;
  xadj.assign(n + 1, 0);
  adjncy.assign(std::max<int64_t>(2 * m.count, 1), 0);
  TRACE("Use_BLKFCT_Solver create adjncy\n");
  const int64_t longest = m.Set_Adjacency_From_CSR(max_neighbours, xadj.data(), adjncy.data());
  if (longest < 0) {
    Show_Text(ds, "Block solver error", MK_WARNING,
              "A mesh node has more than %d neighbours.\nThe generic block solver cannot "
              "take this mesh; use the MUMPS solver.",
              max_neighbours);
    return 1;
  }
  // Start from the identity.
  perm.resize(n);
  invp.resize(n);
  for (int64_t i = 0; i < n; i++)
    perm[i] = invp[i] = static_cast<int>(i + 1);
  TRACE("Use_BLKFCT_Solver metis permutation\n");
  Matrix_Ordering &o = ds.Fem.ordering;
  if (Ordering_Current(ds)) {
    for (int64_t i = 0; i < n; i++) {
      invp[i] = o.iperm[i];
      perm[o.iperm[i] - 1] = static_cast<int>(i + 1);
    }
    return 0;
  }
  const auto t0 = Clock::now();
  const int r = mnd_adj(xadj.data(), adjncy.data(), static_cast<int>(n), perm.data(), invp.data());
  if (r) {
    Show_Text(ds, "Message", MK_WARNING, "METIS ordering error code %d\n", r);
    return 1;
  }
  if (Keep_Ordering(ds, invp.data()))
    return 1;
  o.seconds = Seconds_Since(t0);
  return 0;
}

int write_lindx(Data_Set &ds, Blkfct &b, const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "wb");
  const size_t n = b.lindx.size();
  const bool ok = f && std::fwrite(b.lindx.data(), sizeof(int), n, f) == n;
  if (f)
    std::fclose(f);
  if (!ok)
    return Show_Text(ds, "File Error Message", MK_WARNING,
                     "Error in opening file\n%s\nfor writing with matrix structure in",
                     path.c_str()),
           1;
  std::vector<int>().swap(b.lindx);
  return 0;
}

int read_lindx(Data_Set &ds, Blkfct &b, const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f)
    return Show_Text(ds, "File Error Message", MK_WARNING,
                     "Error in opening file\n%s\nfor reading with matrix structure in",
                     path.c_str()),
           1;
  b.lindx.resize(b.nofsub);
  const size_t got = std::fread(b.lindx.data(), sizeof(int), b.lindx.size(), f);
  std::fclose(f);
  std::remove(path.c_str());
  return got == b.lindx.size() ? 0 : 1;
}

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
int Block_Width(Data_Set &ds, int threads) {
  int code = std::clamp(ds.simultaneous_solves, 0, 5);
  const int64_t n = ds.Fem.coomatrix64.n;
  int &cpu_type = ds.Data_lim_sys.cpu_type_solver;
  const int avx = ds.System_config.cpu.instruction_level > 0;
  if (!avx) {
    cpu_type = 1;
    code = 1;
  } else if (cpu_type > 2 && ds.System_config.cpu.instruction_level < 2) {
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
    if (static_cast<int64_t>(width) * threads > ds.nelec_use && width / 2 >= 4)
      width /= 2;
  return width;
}

// The smallest permuted row each source touches, and the sources sorted by
// it so that a block's columns start near each other.
int Set_Electrodes_Number_Nodes_Low(Data_Set &ds, const Blkfct &b, std::vector<int> &low) {
  Fem_State &fem = ds.Fem;
  const Electrode_Nodes *entries = ds.use_dipoles_fem == 1 ? fem.dip.data() : fem.en.data();
  const int64_t n = b.neqns_ll;
  low.assign(fem.nelec, INT32_MAX);
  int bad = 0;
  for (int s = 0; s < fem.nsources; s++) {
    const int e = fem.sources[s] - 1;
    const Electrode_Nodes &en = entries[e];
    for (int k = 0; k < en.ni; k++) {
      const int node = en.elec_int_ss[k];
      if (node < 1 || node > n) {
        Show_Text(ds, "Set_Electrodes_Number_Nodes_Low Error", MK_WARNING,
                  "Error in electrode %d node numbers.\ni_node %d k %d node low %d i_node low %d",
                  e + 1, node, k, low[e], 0);
        return 1;
      }
      low[e] = std::min(low[e], b.invp[node - 1]);
    }
    if (low[e] == INT32_MAX || low[e] < 1)
      bad++;
  }
  if (bad) {
    Show_Text(ds, "Inverse permutation nodes error", MK_WARNING,
              "Error in setting invp low node numbers for %d electrodes", bad);
    return 1;
  }
  progress(ds, "Start resort electrodes", 0.0);
  std::stable_sort(fem.sources.data(), fem.sources.data() + fem.nsources,
                   [&](int a, int c) { return low[a - 1] < low[c - 1]; });
  return 0;
}

// Both triangles of the assembled matrix by rows (from 0) in the residual's
// precision: the residual of a block of columns reads it once.
template <class R> struct Full_Matrix {
  std::vector<int64_t> ia;
  std::vector<int> ja;
  std::vector<R> a;
  void Build(const CooMatrix64 &m) {
    const int64_t n = m.n;
    ia.assign(n + 1, 0);
    for (int64_t i = 0; i < n; i++)
      for (int64_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; k++) {
        ia[i + 1]++;
        if (m.ja[k] - 1 != i)
          ia[m.ja[k]]++;
      }
    for (int64_t i = 0; i < n; i++)
      ia[i + 1] += ia[i];
    ja.resize(ia[n]);
    a.resize(ia[n]);
    std::vector<int64_t> at(ia.begin(), ia.end() - 1);
    for (int64_t i = 0; i < n; i++)
      for (int64_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; k++) {
        const int64_t j = m.ja[k] - 1;
        const R v = Matrix_Value<R>(m, k);
        ja[at[i]] = static_cast<int>(j);
        a[at[i]++] = v;
        if (j != i) {
          ja[at[j]] = static_cast<int>(i);
          a[at[j]++] = v;
        }
      }
  }
};

// Solves `cols` sources of x (node order, column by column) with the
// thread's scratch, the columns held row by row meanwhile; refines against
// the assembled matrix when the factor is single precision.
template <class T, class X, class R> struct Column_Solver {
  const Blkfct &b;
  const T *lnz;
  const Full_Matrix<R> &a;
  double tol;
  bool refine;
  std::vector<T> xp, work;
  std::vector<X> xi, ri; // solution and residuals, row by row
  struct Source_Entry {
    int64_t row;
    int col;
    X v;
  };
  std::vector<Source_Entry> bs; // the right-hand sides' few non-zeros, by row
  std::vector<R> racc;
  std::vector<double> rn, bn;
  std::vector<char> active;
  int steps = 0;
  double residual = 0.0;
  double t_passes = 0.0, t_residual = 0.0, t_all = 0.0; // seconds, for the trace

  Column_Solver(const Blkfct &bf, const T *l, const Full_Matrix<R> &full, int width, double t,
                bool rf)
      : b(bf), lnz(l), a(full), tol(t), refine(rf) {
    const int64_t n = b.neqns_ll;
    xp.resize(n * width);
    work.resize(Blkfct_Solve_Work(b, width));
    active.resize(b.nsuper);
    xi.resize(n * width);
    if (refine) {
      ri.resize(n * width);
      racc.resize(width);
      rn.resize(width);
      bn.resize(width);
    }
  }
  // One pass: y = A^-1 v in node order, y row by row, v's value (row,
  // column) at v[row * rs + column * cs] (v, y may be the same); the solve
  // itself in the factor's order.
  void Pass(const X *v, int64_t rs, int64_t cs, X *y, int cols) {
    const auto t0 = Clock::now();
    const int64_t n = b.neqns_ll;
    for (int64_t i = 0; i < n; i++) {
      const X *src = v + static_cast<int64_t>(b.perm[i] - 1) * rs;
      for (int c = 0; c < cols; c++)
        xp[i * cols + c] = static_cast<T>(src[c * cs]);
    }
    Blkfct_Solve(b, lnz, xp.data(), cols, work.data(), active.data());
    for (int64_t i = 0; i < n; i++) {
      const T *row = xp.data() + static_cast<int64_t>(b.invp[i] - 1) * cols;
      for (int c = 0; c < cols; c++)
        y[i * cols + c] = static_cast<X>(row[c]);
    }
    t_passes += Seconds_Since(t0);
  }
  // ri = b - A xi in double for every column at once; the largest
  // relative residual of the columns.
  double Residual(int cols) {
    const auto t0 = Clock::now();
    const int64_t n = b.neqns_ll;
    std::fill(rn.begin(), rn.begin() + cols, 0.0);
    std::fill(bn.begin(), bn.begin() + cols, 0.0);
    size_t next = 0;
    R *__restrict acc = racc.data();
    const X *__restrict x = xi.data();
    for (int64_t i = 0; i < n; i++) {
      for (int c = 0; c < cols; c++)
        acc[c] = R(0);
      for (; next < bs.size() && bs[next].row == i; next++) {
        acc[bs[next].col] += R(bs[next].v);
        bn[bs[next].col] += std::norm(std::complex<double>(R(bs[next].v)));
      }
      for (int64_t k = a.ia[i]; k < a.ia[i + 1]; k++) {
        const R v = a.a[k];
        const X *__restrict xj = x + static_cast<int64_t>(a.ja[k]) * cols;
#pragma omp simd
        for (int c = 0; c < cols; c++)
          acc[c] -= v * R(xj[c]);
      }
      X *__restrict rr = ri.data() + i * cols;
      for (int c = 0; c < cols; c++) {
        rr[c] = X(acc[c]);
        rn[c] += std::norm(std::complex<double>(acc[c]));
      }
    }
    double worst = 0.0;
    for (int c = 0; c < cols; c++)
      worst = std::max(worst, bn[c] > 0.0 ? std::sqrt(rn[c] / bn[c]) : 0.0);
    t_residual += Seconds_Since(t0);
    return worst;
  }
  void Solve(X *x, int cols) {
    const auto t0 = Clock::now();
    const int64_t n = b.neqns_ll;
    steps = 0;
    residual = 0.0;
    bs.clear();
    for (int c = 0; c < cols; c++)
      for (int64_t i = 0; i < n; i++)
        if (x[c * n + i] != X(0))
          bs.push_back({i, c, x[c * n + i]});
    std::sort(bs.begin(), bs.end(), [](const Source_Entry &p, const Source_Entry &q) {
      return p.row < q.row || (p.row == q.row && p.col < q.col);
    });
    // The first pass reads the columns as they are.
    Pass(x, 1, n, xi.data(), cols);
    if (refine)
      for (int step = 0; step <= blk_refine_steps; step++) {
        residual = Residual(cols);
        if (residual <= tol || step == blk_refine_steps)
          break;
        Pass(ri.data(), cols, 1, ri.data(), cols);
        for (int64_t k = 0; k < n * cols; k++)
          xi[k] += ri[k];
        steps = step + 1;
      }
    for (int64_t i = 0; i < n; i++)
      for (int c = 0; c < cols; c++)
        x[c * n + i] = xi[i * cols + c];
    t_all += Seconds_Since(t0);
  }
};

// Factorisation and every block of sources in one arithmetic: T the
// factor's values, X the stored potentials (float or complex<float>), R the
// residual's (double or complex<double>).
template <class T, class X, class R>
int Run_Blkfct(Data_Set &ds, Blkfct &b, const std::string &lindx_path) {
  Fem_State &fem = ds.Fem;
  CooMatrix64 &m = fem.coomatrix64;
  const bool cmplx = m.cmplx != 0;
  const int64_t n = m.n;
  const int threads = std::max(omp_get_max_threads(), 1);
  // The factor's values are taken while the row lists are on disk.
  if (write_lindx(ds, b, lindx_path))
    return 1;
  Block_Array<T> lnz;
  ds.quiet++;
  const int no_room = lnz.Resize(ds, std::max<int64_t>(b.panel_values, 1), "factor values");
  ds.quiet--;
  if (no_room) {
    std::remove(lindx_path.c_str());
    Show_Text(ds, "Memory error", MK_WARNING,
              "Insufficient memory for capacitence matrix factorization.\nSize required is "
              "%lld.\n",
              static_cast<long long>(b.panel_values));
    return 1;
  }
  if (read_lindx(ds, b, lindx_path))
    return 1;
  TRACE("Use_BLKFCT_Solver copy values n %d\n", static_cast<int>(n));
  const int64_t errors = Copy_Cap_Matrix_Blkfct(b, m, lnz.data());
  if (errors) {
    TRACE("Copy_Cap_Matrix_Blkfct errors %lld\n", static_cast<long long>(errors));
    Show_Text(ds, "Finite-element solution real routine", MK_WARNING,
              "Error in solving finite-element real matrix.\nError code %lld\n",
              static_cast<long long>(errors));
    return 1;
  }
  TRACE("Use_BLKFCT_Solver factor cmplx %d\n", cmplx ? 1 : 0);
  auto t0 = Clock::now();
  const char *what = "Factorization";
  Progress_Text(ds, 0.0, cmplx ? "%s %.3f %%  cmplx" : "%s %.2f %%", what, 0.0);
  const int64_t bad = Blkfct_Factor(b, lnz.data(), threads);
  Progress_Text(ds, 1.0, cmplx ? "%s %.3f %%  cmplx" : "%s %.2f %%", what, 100.0);
  fem.t_factor = Seconds_Since(t0);
  if (bad) {
    Progress_Text(ds, 0.0, "Error %d %lld %lld %lld", 1, static_cast<long long>(bad),
                  static_cast<long long>(b.snode[bad - 1]), static_cast<long long>(n));
    Show_Text(ds, "Finite-element solution real routine", MK_WARNING,
              "Error in solving finite-element real matrix.\nError code %lld\n",
              static_cast<long long>(bad));
    return 1;
  }

  // The solve loop.
  t0 = Clock::now();
  TRACE("Use_BLKFCT_Solver solve\n");
  if (Set_Source_List(ds, fem.jacob) || Reset_Potential_Files(ds, fem.jacob))
    return 1;
  std::vector<int> low;
  if (Set_Electrodes_Number_Nodes_Low(ds, b, low))
    return 1;
  const int width = Block_Width(ds, threads);
  fem.num_single_omp = width;
  const int nsrc = fem.nsources;
  const bool refine = sizeof(T) == sizeof(X);
  const int64_t vw = cmplx ? 2 : 1;
  std::vector<std::unique_ptr<Column_Solver<T, X, R>>> solver(threads);
  Block_Array<float> x;
  if (x.Resize(ds, static_cast<int64_t>(width) * threads * n * vw, "potentials")) {
    Show_Text(ds, "Memory Error Message", MK_WARNING,
              "Error in allocating memory for calculating potentials.\n%d %d %d %d\n", width,
              threads, static_cast<int>(n), nsrc);
    return 1;
  }
  Full_Matrix<R> full;
  if (refine)
    full.Build(m);
  for (int t = 0; t < threads; t++)
    solver[t] = std::make_unique<Column_Solver<T, X, R>>(b, lnz.data(), full, width,
                                                         fem.blk_refine_tol, refine);
  int err = 0;
  int done = 0, loop = 0;
  fem.refine_steps_done = 0;
  fem.residual_last = 0.0;
  while (done < nsrc && !err) {
    // Full blocks of width columns a thread, then fours, then singles.
    const int left = nsrc - done;
    int per = width;
    if (left < width * threads) {
      per = left >= 4 * threads ? 4 : 1;
      TRACE(per == 4 ? "Remainder 4 loop %d\n" : "Remainder 1 loop %d\n", loop);
    }
    const int nthr = std::min(threads, left / per);
    const int nblk = per * nthr;
    const int *list = fem.sources.data() + done;
    TRACE("Start Setup_Solver i %d i4 %d num_elec_fold %d\n", done, per, nblk);
    if (set_elec_numbers_ss(ds, nblk, list, x.data(), cmplx)) {
      err = 1;
      break;
    }
    Set_Blas_Threads(1);
#pragma omp parallel for num_threads(nthr) schedule(static, 1)
    for (int t = 0; t < nthr; t++) {
      solver[t]->Solve(reinterpret_cast<X *>(x.data()) + static_cast<int64_t>(t) * per * n, per);
    }
    for (int t = 0; t < nthr; t++) {
      fem.refine_steps_done = std::max(fem.refine_steps_done, solver[t]->steps);
      fem.residual_last = std::max(fem.residual_last, solver[t]->residual);
    }
    Progress_Text(ds, static_cast<double>(done + nblk) / nsrc, "%s resort potentials %d ",
                  "Block solver", done + nblk);
    Progress_Text(ds, static_cast<double>(done + nblk) / nsrc, "%s save electrodes potentials %d ",
                  "Block solver", done + nblk);
    if (seq_save_vpot_nblk_ss(ds, nblk, list, x.data(), cmplx))
      err = 1;
    else if (fem.jacob && Save_Pot_Jacob(ds, nblk, list, x.data(), cmplx)) {
      show_message(ds, "Error in saving Jacobian.\n", "Info", MK_INFORMATION);
      err = 1;
    }
    done += nblk;
    loop++;
  }
  Set_Blas_Threads(threads);
  for (int t = 0; t < threads; t++) {
    TRACE("Solve_Block_ll thread %d passes %.2f s residuals %.2f s in all %.2f s\n", t,
          solver[t]->t_passes, solver[t]->t_residual, solver[t]->t_all);
  }
  progress(ds, "Forward modelling solving electrodes semistructured end", 1.0);
  fem.t_solve = Seconds_Since(t0);
  return err;
}

} // namespace

int Use_BLKFCT_Solver(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  CooMatrix64 &m = fem.coomatrix64;
  const auto t0 = Clock::now();
  Progress_Text(ds, 0.0, "Finite-element modeling - ss mesh %d nodes ", static_cast<int>(m.n));
  Blkfct &b = fem.blkfct;
  std::vector<int> perm, invp, xadj, adjncy;
  if (Order_Matrix(ds, perm, invp, xadj, adjncy))
    return 1;
  TRACE("Use_BLKFCT_Solver sym fac\n");
  if (b.Symbolic_Factorization(m.n, xadj.data(), adjncy.data(), perm.data(), invp.data())) {
    Show_Text(ds, "Memory error", MK_WARNING,
              "Insufficient memory for capacitence matrix factorization.\nSize required is "
              "%lld.\n",
              static_cast<long long>(m.n));
    return 1;
  }
  std::vector<int>().swap(xadj);
  std::vector<int>().swap(adjncy);
  m.factor_entries = b.nofnz;
  m.factor_flops = b.flops;
  fem.t_analysis = Seconds_Since(t0);
  const std::string lindx_path = ds.file_names.folder + "blkfct_lindx.tmp";
  int err;
  if (m.cmplx)
    err = fem.double_precision
              ? Run_Blkfct<std::complex<double>, std::complex<float>, std::complex<double>>(
                    ds, b, lindx_path)
              : Run_Blkfct<std::complex<float>, std::complex<float>, std::complex<double>>(
                    ds, b, lindx_path);
  else
    err = fem.double_precision ? Run_Blkfct<double, float, double>(ds, b, lindx_path)
                               : Run_Blkfct<float, float, double>(ds, b, lindx_path);
  b.Free();
  TRACE("FEM modeling block solver ss mesh  nodes %d  Time %.2f   error return %d\n",
        static_cast<int>(m.n), Seconds_Since(t0), err);
  return err;
}

template int64_t Copy_Cap_Matrix_Blkfct<float>(const Blkfct &, const CooMatrix64 &, float *);
template int64_t Copy_Cap_Matrix_Blkfct<double>(const Blkfct &, const CooMatrix64 &, double *);
template int64_t Copy_Cap_Matrix_Blkfct<std::complex<float>>(const Blkfct &, const CooMatrix64 &,
                                                             std::complex<float> *);
template int64_t Copy_Cap_Matrix_Blkfct<std::complex<double>>(const Blkfct &, const CooMatrix64 &,
                                                              std::complex<double> *);
