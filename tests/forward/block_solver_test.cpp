// The generic block solver: its structure against a plain elimination, its
// factors and solves against dense arithmetic (real and complex symmetric),
// and the potentials of whole forward models against a double-precision
// library solve of the same matrix.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/test_support.h"
#include "forward/blkfct.h"
#include "forward/forward.h"
#include "forward/sparse_solver.h"
#include "forward_test_support.h"

using namespace test_support;

namespace {

// The graph of an nx x ny x nz grid whose nodes couple to every node of the
// cells round them (the hexahedron pattern of the mesh), both triangles,
// from 1; and its matrix: a Laplacian-like operator with a positive shift.
struct Grid_Graph {
  int n = 0;
  std::vector<int> xadj, adjncy;
  std::vector<std::vector<int>> nb;
  Grid_Graph(int nx, int ny, int nz, bool full) {
    n = nx * ny * nz;
    nb.resize(n);
    auto id = [&](int i, int j, int k) { return i + nx * (j + ny * k); };
    for (int k = 0; k < nz; k++)
      for (int j = 0; j < ny; j++)
        for (int i = 0; i < nx; i++)
          for (int dk = -1; dk <= 1; dk++)
            for (int dj = -1; dj <= 1; dj++)
              for (int di = -1; di <= 1; di++) {
                const int a = i + di, b = j + dj, c = k + dk;
                const int manhattan = std::abs(di) + std::abs(dj) + std::abs(dk);
                if ((di || dj || dk) && a >= 0 && b >= 0 && c >= 0 && a < nx && b < ny && c < nz &&
                    (full || manhattan == 1))
                  nb[id(i, j, k)].push_back(id(a, b, c));
              }
    xadj.push_back(1);
    for (int v = 0; v < n; v++) {
      for (int u : nb[v])
        adjncy.push_back(u + 1);
      xadj.push_back(static_cast<int>(adjncy.size()) + 1);
    }
  }
};

// Entries of the factor by eliminating the graph node by node in the given
// order (perm[new] = old from 1): each eliminated node's later neighbours
// become a clique.
int64_t Plain_Factor_Entries(const Grid_Graph &g, const std::vector<int> &invp) {
  std::vector<std::set<int>> adj(g.n);
  for (int v = 0; v < g.n; v++)
    for (int u : g.nb[v])
      adj[invp[v] - 1].insert(invp[u] - 1);
  int64_t entries = 0;
  for (int j = 0; j < g.n; j++) {
    std::vector<int> later;
    for (int u : adj[j])
      if (u > j)
        later.push_back(u);
    entries += 1 + static_cast<int64_t>(later.size());
    for (int a : later)
      for (int b : later)
        if (a != b)
          adj[a].insert(b);
  }
  return entries;
}

// Dense copy of the grid matrix in the original order: off-diagonal value
// -1 (times s), diagonal the neighbour count plus 0.5 (times s).
template <class T> std::vector<T> Dense_Matrix(const Grid_Graph &g, T s) {
  std::vector<T> a(static_cast<size_t>(g.n) * g.n, T(0));
  for (int v = 0; v < g.n; v++) {
    a[static_cast<size_t>(v) * g.n + v] = s * T(g.nb[v].size() + 0.5);
    for (int u : g.nb[v])
      a[static_cast<size_t>(v) * g.n + u] = -s;
  }
  return a;
}

// The panels of b filled from a dense matrix in the original order.
template <class T> std::vector<T> Panels_From_Dense(const Blkfct &b, const std::vector<T> &a) {
  const int64_t n = b.neqns_ll;
  std::vector<T> lnz(b.panel_values, T(0));
  for (int64_t J = 0; J < b.nsuper; J++)
    for (int64_t c = 0; c < b.Width(J); c++)
      for (int64_t r = c; r < b.Rows(J); r++) {
        const int col = b.perm[b.xsuper[J] + c] - 1, row = b.perm[b.lindx[b.xlindx[J] + r]] - 1;
        lnz[b.xpanel[J] + c * b.Rows(J) + r] = a[static_cast<size_t>(row) * n + col];
      }
  return lnz;
}

// Solves with the block factor for `nrhs` random columns `rhs` (original
// order, column after column); the solution as the solve holds it (its own
// order, row by row).
template <class T>
std::vector<T> Solve_Random_Columns(const Blkfct &b, const std::vector<T> &lnz, int nrhs,
                                    unsigned seed, std::vector<T> &rhs) {
  const int64_t n = b.neqns_ll;
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  rhs.resize(static_cast<size_t>(n) * nrhs);
  std::vector<T> x(rhs.size());
  for (auto &v : rhs)
    v = T(u(rng));
  for (int c = 0; c < nrhs; c++)
    for (int64_t i = 0; i < n; i++)
      x[static_cast<size_t>(b.invp[i] - 1) * nrhs + c] = rhs[static_cast<size_t>(c) * n + i];
  std::vector<T> work(Blkfct_Solve_Work(b, nrhs));
  std::vector<char> active(b.nsuper);
  Blkfct_Solve(b, lnz.data(), x.data(), nrhs, work.data(), active.data());
  return x;
}

// Solves with the block factor for `nrhs` columns of a dense right-hand
// side (original order; the solve holds them row by row in its own order)
// and returns the largest relative residual.
template <class T>
double Factor_And_Solve(const Grid_Graph &g, T scale, int threads, int nrhs, bool relax) {
  std::vector<int> perm(g.n), invp(g.n);
  EXPECT_EQ(mnd_adj(g.xadj.data(), g.adjncy.data(), g.n, perm.data(), invp.data()), 0);
  Blkfct b;
  b.relax = relax;
  EXPECT_EQ(b.Symbolic_Factorization(g.n, g.xadj.data(), g.adjncy.data(), perm.data(), invp.data()),
            0);
  const std::vector<T> a = Dense_Matrix<T>(g, scale);
  std::vector<T> lnz = Panels_From_Dense(b, a);
  EXPECT_EQ(Blkfct_Factor(b, lnz.data(), threads), 0);
  std::vector<T> rhs;
  const std::vector<T> x = Solve_Random_Columns(b, lnz, nrhs, 7, rhs);
  double worst = 0.0;
  for (int c = 0; c < nrhs; c++) {
    double rn = 0.0, bn = 0.0;
    for (int i = 0; i < g.n; i++) {
      std::complex<double> s = 0.0;
      for (int j = 0; j < g.n; j++) {
        const T aij = a[static_cast<size_t>(i) * g.n + j];
        if (aij != T(0))
          s += std::complex<double>(aij) *
               std::complex<double>(x[static_cast<size_t>(b.invp[j] - 1) * nrhs + c]);
      }
      const std::complex<double> bi(rhs[static_cast<size_t>(c) * g.n + i]);
      rn += std::norm(bi - s);
      bn += std::norm(bi);
    }
    worst = std::max(worst, std::sqrt(rn / bn));
  }
  return worst;
}

} // namespace

TEST(Block_Solver, StructureCountsMatchPlainElimination) {
  for (bool full : {false, true}) {
    for (int size : {3, 5, 7}) {
      SCOPED_TRACE(std::string(full ? "27-point " : "7-point ") + std::to_string(size));
      const Grid_Graph g(size, size + 1, size - 1, full);
      std::vector<int> perm(g.n), invp(g.n);
      ASSERT_EQ(mnd_adj(g.xadj.data(), g.adjncy.data(), g.n, perm.data(), invp.data()), 0);
      Blkfct b;
      b.relax = 0;
      ASSERT_EQ(
          b.Symbolic_Factorization(g.n, g.xadj.data(), g.adjncy.data(), perm.data(), invp.data()),
          0);
      // The postorder changes the order, not the fill.
      EXPECT_EQ(b.nofnz, Plain_Factor_Entries(g, b.invp));
      EXPECT_EQ(b.nofnz, Plain_Factor_Entries(g, invp));
      EXPECT_EQ(b.xsuper[b.nsuper], g.n);
      EXPECT_EQ(b.nofsub, b.xlindx[b.nsuper]);
      // Every supernode's rows start with its own columns, then ascend.
      for (int64_t J = 0; J < b.nsuper; J++) {
        const int *r = b.lindx.data() + b.xlindx[J];
        for (int64_t k = 0; k < b.Width(J); k++)
          ASSERT_EQ(r[k], b.xsuper[J] + k);
        ASSERT_TRUE(std::is_sorted(r, r + b.Rows(J)));
      }
      // Amalgamation adds explicit zeros, never loses an entry.
      Blkfct relaxed;
      ASSERT_EQ(relaxed.Symbolic_Factorization(g.n, g.xadj.data(), g.adjncy.data(), perm.data(),
                                               invp.data()),
                0);
      EXPECT_GE(relaxed.nofnz, b.nofnz);
      EXPECT_LE(relaxed.nsuper, b.nsuper);
    }
  }
}

TEST(Block_Solver, FactorsSolveRealAndComplexSymmetricMatrices) {
  const Grid_Graph g(9, 8, 7, true);
  for (int threads : {1, 2}) {
    for (bool relax : {false, true}) {
      SCOPED_TRACE("threads " + std::to_string(threads) + (relax ? " relaxed" : " fundamental"));
      EXPECT_LT(Factor_And_Solve<double>(g, 1.0, threads, 5, relax), 1e-12);
      EXPECT_LT(Factor_And_Solve<float>(g, 1.0f, threads, 3, relax), 1e-5);
      // Complex symmetric (not Hermitian): L L^T without conjugation.
      EXPECT_LT(Factor_And_Solve<std::complex<double>>(g, {1.0, 0.3}, threads, 4, relax), 1e-12);
      EXPECT_LT(Factor_And_Solve<std::complex<float>>(g, {1.0f, -0.2f}, threads, 2, relax), 1e-5);
    }
  }
  Set_Blas_Threads(2);
}

// Supernodes hundreds of columns wide and rows deep (a
// 20 x 20 x 20 grid of 27-point couplings): their panels are factorised by
// halves, with the products split among the threads above the subtrees.
// Checked by the residual of the sparse matrix, real and complex symmetric.
TEST(Block_Solver, WidePanelsSplitAmongThreads) {
  const Grid_Graph g(20, 20, 20, true);
  std::vector<int> perm(g.n), invp(g.n);
  ASSERT_EQ(mnd_adj(g.xadj.data(), g.adjncy.data(), g.n, perm.data(), invp.data()), 0);
  Blkfct b;
  ASSERT_EQ(b.Symbolic_Factorization(g.n, g.xadj.data(), g.adjncy.data(), perm.data(), invp.data()),
            0);
  int64_t widest = 0, deepest = 0;
  for (int64_t J = 0; J < b.nsuper; J++) {
    widest = std::max(widest, b.Width(J));
    deepest = std::max(deepest, b.Rows(J));
  }
  EXPECT_GT(widest, 256);
  EXPECT_GT(deepest, 512);
  auto check = [&](auto scale) {
    using T = decltype(scale);
    // The panels from the graph: row i of column j (new order, i >= j).
    std::vector<T> lnz(b.panel_values, T(0));
    auto put = [&](int i, int j, T v) {
      const int64_t J = b.snode[j];
      const int *r = b.lindx.data() + b.xlindx[J];
      const int64_t k = std::lower_bound(r, r + b.Rows(J), i) - r;
      ASSERT_EQ(r[k], i);
      lnz[b.xpanel[J] + (j - b.xsuper[J]) * b.Rows(J) + k] = v;
    };
    for (int v = 0; v < g.n; v++) {
      const int iv = b.invp[v] - 1;
      put(iv, iv, scale * T(g.nb[v].size() + 0.5));
      for (int u : g.nb[v])
        if (b.invp[u] - 1 > iv)
          put(b.invp[u] - 1, iv, -scale);
    }
    ASSERT_EQ(Blkfct_Factor(b, lnz.data(), 2), 0);
    const int nrhs = 3;
    std::vector<T> rhs;
    const std::vector<T> x = Solve_Random_Columns(b, lnz, nrhs, 11, rhs);
    auto sol = [&](int i, int c) {
      return std::complex<double>(x[static_cast<size_t>(b.invp[i] - 1) * nrhs + c]);
    };
    for (int c = 0; c < nrhs; c++) {
      double rn = 0.0, bn = 0.0;
      for (int v = 0; v < g.n; v++) {
        std::complex<double> s = std::complex<double>(scale * T(g.nb[v].size() + 0.5)) * sol(v, c);
        for (int w : g.nb[v])
          s -= std::complex<double>(scale) * sol(w, c);
        const std::complex<double> bv(rhs[static_cast<size_t>(c) * g.n + v]);
        rn += std::norm(bv - s);
        bn += std::norm(bv);
      }
      EXPECT_LT(std::sqrt(rn / bn), 2e-4) << "column " << c;
    }
  };
  check(1.0f);
  check(std::complex<float>(1.0f, 0.4f));
  Set_Blas_Threads(2);
}

TEST(Block_Solver, PivotFailureNamesTheColumn) {
  const Grid_Graph g(4, 4, 3, false);
  std::vector<int> perm(g.n), invp(g.n);
  ASSERT_EQ(mnd_adj(g.xadj.data(), g.adjncy.data(), g.n, perm.data(), invp.data()), 0);
  Blkfct b;
  ASSERT_EQ(b.Symbolic_Factorization(g.n, g.xadj.data(), g.adjncy.data(), perm.data(), invp.data()),
            0);
  // Not positive definite: the Laplacian shifted below zero.
  std::vector<double> lnz = Panels_From_Dense(b, Dense_Matrix<double>(g, -1.0));
  const int64_t bad = Blkfct_Factor(b, lnz.data(), 1);
  EXPECT_EQ(bad, 1) << "the first pivot is negative";
}

namespace {

struct Survey : Example_Survey {
  // A forward model of a box model with the given solver; the electrode
  // potential table by (source, electrode) and the apparent resistivities.
  bool Forward(int solver, int double_precision, std::vector<double> &table,
               std::vector<double> &rm) {
    Data_Set &d = *ds;
    const Model_Grid &g = d.Model_grid;
    std::vector<float> res(std::max(g.nmodel_blocks, 1), 100.0f);
    for (int m = 0; m < g.nmodel_blocks; m++)
      if (g.blocks[m].zc * d.spxx > 1.0 && g.blocks[m].zc * d.spxx < 4.0 &&
          g.blocks[m].xc * d.spxx > 5.0 && g.blocks[m].xc * d.spxx < 12.0)
        res[m] = 10.0f;
    d.Data_lim_sys.cpu_type_solver = solver;
    d.Fem.solver_kind = solver > 0 ? solver_block : solver_mumps;
    // Single-factor columns refined to a residual of 2e-6, where the
    // potentials agree with a double-precision solve to 1e-5 (the default
    // tolerance, 1e-4, leaves them about 1e-4 apart).
    d.Fem.refine_tol = 2e-6;
    d.Fem.double_precision = double_precision;
    const int ierr = Forward_Model_LS(d, res.data(), nullptr, 0);
    d.Data_lim_sys.cpu_type_solver = 0;
    d.Fem.solver_kind = -1;
    d.Fem.refine_tol = Fem_State().refine_tol;
    d.Fem.double_precision = 0;
    if (ierr)
      return false;
    const Fem_State &f = d.Fem;
    table.clear();
    for (const std::complex<double> &v : Electrode_Table(f))
      table.push_back(v.real());
    rm.assign(f.rm.data(), f.rm.data() + d.mdata);
    return true;
  }
};

double Largest_Relative(const std::vector<double> &a, const std::vector<double> &b) {
  double worst = a.size() == b.size() ? 0.0 : 1.0;
  for (size_t i = 0; i < a.size() && i < b.size(); i++)
    worst = std::max(worst, std::fabs(a[i] - b[i]) / std::max(std::fabs(b[i]), 1e-30));
  return worst;
}

} // namespace

TEST(Block_Solver, ForwardPotentialsAgreeWithDoubleLibrarySolve) {
  for (int dense : {0, 1}) {
    SCOPED_TRACE(dense ? "dense hexahedral mesh" : "adaptive mesh with transition tetrahedra");
    Survey s;
    s.ds->Semistructured.use_dense_rect_mesh = dense;
    ASSERT_EQ(s.Read_Example("grid_9x14.dat"), 0);
    std::vector<double> ref_table, ref_rm, lib_table, lib_rm, table, rm;
    ASSERT_TRUE(s.Forward(0, 1, ref_table, ref_rm));
    ASSERT_TRUE(s.Forward(0, 0, lib_table, lib_rm));
    ASSERT_TRUE(s.Forward(3, 0, table, rm));
    ASSERT_FALSE(table.empty());
    const double pot = Largest_Relative(table, ref_table);
    EXPECT_LT(pot, 1e-5);
    const double app = Largest_Relative(rm, lib_rm);
    EXPECT_LT(app, 1e-4);
    std::printf("block solver: potentials against double %.3g, apparent resistivity against "
                "MUMPS %.3g, refinement steps %d\n",
                pot, app, s.ds->Fem.report.refine_steps);
  }
}

TEST(Block_Solver, EveryBlockWidthCoversEverySource) {
  Survey s;
  ASSERT_EQ(s.Read_Example("grid_9x14.dat"), 0);
  std::vector<double> ref_table, ref_rm;
  s.ds->simultaneous_solves = 3;
  ASSERT_TRUE(s.Forward(3, 0, ref_table, ref_rm));
  // 125 sources on the threads: wide blocks, then fours, then singles.
  for (int code : {0, 1, 2}) {
    SCOPED_TRACE("simultaneous solves code " + std::to_string(code));
    s.ds->simultaneous_solves = code;
    std::vector<double> table, rm;
    ASSERT_TRUE(s.Forward(3, 0, table, rm));
    EXPECT_EQ(s.ds->Fem.report.block_width, 4 << code);
    ASSERT_EQ(table.size(), ref_table.size());
    int unset = 0;
    for (double v : table)
      unset += v == 0.0;
    EXPECT_EQ(unset, 0);
    EXPECT_LT(Largest_Relative(table, ref_table), 1e-6);
    EXPECT_LT(Largest_Relative(rm, ref_rm), 1e-6);
  }
}

TEST(Block_Solver, ComplexForwardWithNarrowBlocks) {
  Survey s;
  ASSERT_EQ(s.Read_Example("ip_chargeability.dat"), 0);
  Data_Set &d = *s.ds;
  ASSERT_GT(d.Data_ip.typeip, 0);
  d.Data_ip.complex_forward_model = 1;
  d.simultaneous_solves = 0;
  const Model_Grid &g = d.Model_grid;
  // Phase values (radians) of a weakly polarisable ground with a more
  // polarisable body.
  std::vector<float> res(std::max(g.nmodel_blocks, 1), 100.0f), ip(res.size(), 0.005f);
  for (int m = 0; m < g.nmodel_blocks; m++)
    if (g.blocks[m].xc * d.spxx > 6.0 && g.blocks[m].xc * d.spxx < 12.0 &&
        g.blocks[m].zc * d.spxx > 1.0)
      ip[m] = 0.04f;
  auto run = [&](int solver, int dbl, std::vector<std::complex<double>> &table) {
    d.Data_lim_sys.cpu_type_solver = solver;
    d.Fem.solver_kind = solver > 0 ? solver_block : solver_mumps;
    // Single-factor columns refined to a residual of 2e-6, where the
    // potentials agree with a double-precision solve to 1e-5 (the default
    // tolerance, 1e-4, leaves them about 1e-4 apart).
    d.Fem.refine_tol = 2e-6;
    d.Fem.double_precision = dbl;
    const int ierr = Forward_Model_LS(d, res.data(), ip.data(), 0);
    d.Data_lim_sys.cpu_type_solver = 0;
    d.Fem.solver_kind = -1;
    d.Fem.refine_tol = Fem_State().refine_tol;
    d.Fem.double_precision = 0;
    if (ierr || !d.Fem.coomatrix64.cmplx)
      return false;
    table = Electrode_Table(d.Fem);
    return true;
  };
  std::vector<std::complex<double>> ref, blk;
  ASSERT_TRUE(run(0, 1, ref));
  ASSERT_TRUE(run(3, 0, blk));
  EXPECT_EQ(d.Fem.report.block_width, 4);
  ASSERT_EQ(ref.size(), blk.size());
  ASSERT_FALSE(ref.empty());
  double magnitude = 0.0, phase = 0.0, largest_phase = 0.0;
  for (size_t i = 0; i < ref.size(); i++) {
    magnitude =
        std::max(magnitude, std::fabs(std::abs(blk[i]) - std::abs(ref[i])) / std::abs(ref[i]));
    phase = std::max(phase, std::fabs(std::arg(blk[i]) - std::arg(ref[i])));
    largest_phase = std::max(largest_phase, std::fabs(std::arg(ref[i])));
  }
  EXPECT_GT(largest_phase, 1e-3) << "the chargeable ground shows in the phases";
  EXPECT_LT(magnitude, 1e-5);
  EXPECT_LT(phase, 1e-5 * largest_phase);
  std::printf("complex block solver: magnitude %.3g, phase %.3g rad (largest phase %.3g)\n",
              magnitude, phase, largest_phase);
}

TEST(Block_Solver, GenericSolverNeedsTwoHundredFiftyFiveElectrodes) {
  Survey s;
  Data_Set &d = *s.ds;
  d.Model_grid.num_splice_x = d.Model_grid.num_splice_y = 1;
  d.nelec_use = 255;
  d.Data_lim_sys.cpu_type_solver = 3;
  Check_Generic_Solver_Settings(d);
  EXPECT_EQ(d.Data_lim_sys.cpu_type_solver, 3);
  d.nelec_use = 254;
  Check_Generic_Solver_Settings(d);
  EXPECT_EQ(d.Data_lim_sys.cpu_type_solver, 0);
  // Segments keep to the library whatever the electrodes.
  d.nelec_use = 5000;
  d.Data_lim_sys.cpu_type_solver = 3;
  d.Model_grid.num_splice_x = 2;
  Check_Generic_Solver_Settings(d);
  EXPECT_EQ(d.Data_lim_sys.cpu_type_solver, 0);
}
