// Every sparse solver behind the source driver through the same cases: its
// solves of blocks of columns (every width, remainders) against dense
// double arithmetic, real and complex symmetric; then whole forward models
// whose electrode potentials must agree with a double-precision solve, with
// the driver's refinement forced on and off.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "core/data_set.h"
#include "core/test_support.h"
#include "forward/blkfct.h"
#include "forward/forward.h"
#include "forward/sparse_solver.h"
#include "forward_test_support.h"

using namespace test_support;

namespace {

using cplx = std::complex<double>;

// A 27-point operator on an nx x ny x nz grid, held as the driver holds the
// capacitance matrix (upper triangle by rows, from 1, float and double
// values, pairs when complex), and densely for the reference solve. The
// complex matrix is the real one times (1 + 0.2i) with an imaginary shift:
// symmetric, not Hermitian.
struct Test_Matrix {
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds = Make_Data_Set(tmp, rec);
  CooMatrix64 m;
  std::vector<cplx> dense;
  std::vector<int> iperm;

  Test_Matrix(int nx, int ny, int nz, bool cmplx) {
    const int n = nx * ny * nz;
    auto id = [&](int i, int j, int k) { return i + nx * (j + ny * k); };
    dense.assign(static_cast<size_t>(n) * n, 0.0);
    const cplx scale = cmplx ? cplx(1.0, 0.2) : cplx(1.0, 0.0);
    for (int k = 0; k < nz; k++)
      for (int j = 0; j < ny; j++)
        for (int i = 0; i < nx; i++) {
          const int a = id(i, j, k);
          double diag = 0.05 + 0.01 * ((a * 7) % 5);
          for (int dk = -1; dk <= 1; dk++)
            for (int dj = -1; dj <= 1; dj++)
              for (int di = -1; di <= 1; di++) {
                const int ii = i + di, jj = j + dj, kk = k + dk;
                if ((di | dj | dk) == 0 || ii < 0 || jj < 0 || kk < 0 || ii >= nx || jj >= ny ||
                    kk >= nz)
                  continue;
                const double w = 1.0 / (std::abs(di) + std::abs(dj) + std::abs(dk));
                dense[static_cast<size_t>(a) * n + id(ii, jj, kk)] = -w * scale;
                diag += w;
              }
          dense[static_cast<size_t>(a) * n + a] = diag * scale + (cmplx ? cplx(0.0, 0.03) : 0.0);
        }
    m.n = n;
    m.cmplx = cmplx ? 1 : 0;
    int64_t count = 0;
    for (int i = 0; i < n; i++)
      for (int j = i; j < n; j++)
        count += dense[static_cast<size_t>(i) * n + j] != 0.0;
    const int vw = cmplx ? 2 : 1;
    m.count = count;
    EXPECT_EQ(m.ia.Resize(*ds, n + 1, "ia"), 0);
    EXPECT_EQ(m.ja.Resize(*ds, count, "ja"), 0);
    EXPECT_EQ(m.a.Resize(*ds, count * vw, "a"), 0);
    EXPECT_EQ(m.ad.Resize(*ds, count * vw, "ad"), 0);
    int64_t k = 0;
    for (int i = 0; i < n; i++) {
      m.ia[i] = k + 1;
      for (int j = i; j < n; j++) {
        const cplx v = dense[static_cast<size_t>(i) * n + j];
        if (v == 0.0)
          continue;
        m.ja[k] = j + 1;
        m.ad[vw * k] = v.real();
        m.a[vw * k] = static_cast<float>(v.real());
        if (cmplx) {
          m.ad[2 * k + 1] = v.imag();
          m.a[2 * k + 1] = static_cast<float>(v.imag());
        }
        k++;
      }
    }
    m.ia[n] = k + 1;
    std::vector<int> xadj(n + 1), adjncy(2 * count), perm(n);
    EXPECT_GE(m.Set_Adjacency_From_CSR(INT64_MAX, xadj.data(), adjncy.data()), 0);
    iperm.resize(n);
    EXPECT_EQ(mnd_adj(xadj.data(), adjncy.data(), n, perm.data(), iperm.data()), 0);
  }

  // x = A^-1 b by Gaussian elimination in double (the matrices are
  // diagonally dominant: no pivoting needed).
  std::vector<cplx> Reference(const std::vector<cplx> &b) const {
    const int n = static_cast<int>(m.n);
    std::vector<cplx> a = dense, x = b;
    for (int p = 0; p < n; p++)
      for (int r = p + 1; r < n; r++) {
        const cplx f = a[static_cast<size_t>(r) * n + p] / a[static_cast<size_t>(p) * n + p];
        if (f == 0.0)
          continue;
        for (int c = p; c < n; c++)
          a[static_cast<size_t>(r) * n + c] -= f * a[static_cast<size_t>(p) * n + c];
        x[r] -= f * x[p];
      }
    for (int p = n - 1; p >= 0; p--) {
      for (int c = p + 1; c < n; c++)
        x[p] -= a[static_cast<size_t>(p) * n + c] * x[c];
      x[p] /= a[static_cast<size_t>(p) * n + p];
    }
    return x;
  }
};

bool Kind_Takes(int kind, bool cmplx) {
  return !(kind == solver_cholmod && cmplx);
}

} // namespace

TEST(Sparse_Solvers, BlocksOfColumnsAgreeWithDenseSolves) {
  for (const bool cmplx : {false, true}) {
    Test_Matrix t(7, 6, 5, cmplx);
    const int64_t n = t.m.n;
    const int vw = cmplx ? 2 : 1;
    for (int kind = 0; kind < solver_kinds; kind++)
      for (const bool dbl : {false, true}) {
        if (!Kind_Takes(kind, cmplx))
          continue;
        SCOPED_TRACE(std::string(Solver_Name(kind)) + (cmplx ? " complex" : " real") +
                     (dbl ? " double factor" : " single factor"));
        Solver_Setup u;
        u.matrix = &t.m;
        u.iperm = t.iperm.data();
        u.cmplx = cmplx;
        u.double_factor = dbl || kind == solver_cholmod;
        u.threads = 2;
        u.sources = 37;
        u.simultaneous_solves = 1; // 8 columns a thread
        u.cpu_type = 3;
        u.instruction_level = 2;
        Sparse_Solver s;
        Solver_Report r;
        ASSERT_EQ(Create_Sparse_Solver(kind, u, s, r), 0) << r.error_text;
        ASSERT_EQ(s.analyse(s.state, r), 0) << r.error_text;
        EXPECT_GT(r.factor_entries, n);
        ASSERT_EQ(s.factorise(s.state, r), 0) << r.error_text;
        EXPECT_GE(s.batch(s.state), 1);
        std::mt19937 gen(11);
        std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
        // Widths below, at and above a thread's block, and uneven remainders.
        for (const int cols : {1, 3, 8, 16, 17, 37}) {
          std::vector<float> x(static_cast<size_t>(cols) * n * vw, 0.0f);
          std::vector<std::vector<cplx>> b(cols, std::vector<cplx>(n, 0.0));
          for (int c = 0; c < cols; c++)
            for (int64_t i = 0; i < n; i++) {
              // Sparse columns (sources) and dense ones (refinement residuals).
              if (c % 2 == 0 && (i * 13 + c) % 29 != 0)
                continue;
              b[c][i] = cplx(uni(gen), cmplx ? uni(gen) : 0.0f);
              x[vw * (c * n + i)] = static_cast<float>(b[c][i].real());
              if (cmplx)
                x[vw * (c * n + i) + 1] = static_cast<float>(b[c][i].imag());
            }
          ASSERT_EQ(s.solve(s.state, x.data(), cols, r), 0) << r.error_text;
          double worst = 0.0;
          for (int c = 0; c < cols; c++) {
            const std::vector<cplx> ref = t.Reference(b[c]);
            double num = 0.0, den = 0.0;
            for (int64_t i = 0; i < n; i++) {
              const cplx got(x[vw * (c * n + i)], cmplx ? x[vw * (c * n + i) + 1] : 0.0f);
              num += std::norm(got - ref[i]);
              den += std::norm(ref[i]);
            }
            worst = std::max(worst, std::sqrt(num / den));
          }
          EXPECT_LT(worst, u.double_factor ? 1e-6 : 1e-4) << cols << " columns";
        }
        Release_Sparse_Solver(s);
        EXPECT_EQ(s.state, nullptr);
      }
  }
}

namespace {

struct Driver_Survey : Example_Survey {
  // The electrode table of a forward model of a box (and a polarisable
  // body when `ip`) with the given solver.
  bool Forward(int kind, bool dbl, std::vector<cplx> &table, bool ip) {
    Data_Set &d = *ds;
    const Model_Grid &g = d.Model_grid;
    std::vector<float> res(std::max(g.nmodel_blocks, 1), 100.0f), phase(res.size(), 0.005f);
    for (int m = 0; m < g.nmodel_blocks; m++)
      if (g.blocks[m].zc * d.spxx > 1.0 && g.blocks[m].xc * d.spxx > 5.0 &&
          g.blocks[m].xc * d.spxx < 12.0) {
        res[m] = 10.0f;
        phase[m] = 0.04f;
      }
    d.Fem.solver_kind = kind;
    d.Fem.double_precision = dbl;
    const int ierr = Forward_Model_LS(d, res.data(), ip ? phase.data() : nullptr, 0);
    d.Fem.solver_kind = -1;
    d.Fem.double_precision = 0;
    if (ierr)
      return false;
    table = Electrode_Table(d.Fem);
    return !table.empty();
  }
};

double Largest_Relative(const std::vector<cplx> &a, const std::vector<cplx> &b) {
  double worst = a.size() == b.size() ? 0.0 : 1.0;
  for (size_t i = 0; i < a.size() && i < b.size(); i++)
    worst = std::max(worst, std::abs(a[i] - b[i]) / std::max(std::abs(b[i]), 1e-30));
  return worst;
}

// Each solver's potentials against MUMPS in double, refinement forced on
// (every column refined to a residual of 1e-9, as far as float storage
// allows) and off.
void Check_Every_Solver(const char *example, bool ip) {
  Driver_Survey s;
  ASSERT_EQ(s.Read_Example(example), 0);
  Data_Set &d = *s.ds;
  if (ip) {
    ASSERT_GT(d.Data_ip.typeip, 0);
    d.Data_ip.complex_forward_model = 1;
  }
  d.simultaneous_solves = 1;
  std::vector<cplx> ref;
  ASSERT_TRUE(s.Forward(solver_mumps, true, ref, ip));
  EXPECT_TRUE(d.Fem.report.double_factor);
  EXPECT_EQ(d.Fem.report.columns_refined, 0);
  for (int kind = 0; kind < solver_kinds; kind++) {
    if (!Kind_Takes(kind, ip))
      continue;
    for (const bool refine : {true, false}) {
      SCOPED_TRACE(std::string(Solver_Name(kind)) + (refine ? ", refined" : ", not refined"));
      d.Fem.refine_tol = refine ? 1e-9 : 1.0;
      std::vector<cplx> table;
      ASSERT_TRUE(s.Forward(kind, false, table, ip));
      d.Fem.refine_tol = Fem_State().refine_tol;
      const Solver_Report &r = d.Fem.report;
      EXPECT_EQ(r.kind, kind);
      EXPECT_EQ(r.columns, d.Fem.nsources);
      const double err = Largest_Relative(table, ref);
      if (kind == solver_cholmod) {
        // A double factor: never refined.
        EXPECT_EQ(r.columns_refined, 0);
        EXPECT_LT(err, 1e-5);
      } else if (refine) {
        EXPECT_EQ(r.columns_refined, r.columns);
        EXPECT_GE(r.refine_steps, 1);
        EXPECT_LT(err, 1e-5);
      } else {
        EXPECT_EQ(r.columns_refined, 0);
        EXPECT_EQ(r.refine_steps, 0);
        EXPECT_GT(r.residual, 0.0);
        EXPECT_LT(err, 1e-3);
      }
      std::printf("%s%s, %s: %lld columns, %lld refined, largest difference from double %.3g\n",
                  Solver_Name(kind), ip ? " complex" : "", refine ? "refined" : "not refined",
                  static_cast<long long>(r.columns), static_cast<long long>(r.columns_refined),
                  err);
    }
  }
}

} // namespace

TEST(Sparse_Solvers, EverySolverGivesTheDoublePrecisionPotentials) {
  Check_Every_Solver("grid_9x14.dat", false);
}

TEST(Sparse_Solvers, ComplexPotentialsAndTheRealOnlySolver) {
  Check_Every_Solver("ip_chargeability.dat", true);
  // CHOLMOD's complex factors are Hermitian: a complex run is refused in
  // words, not solved wrongly.
  Driver_Survey s;
  ASSERT_EQ(s.Read_Example("ip_chargeability.dat"), 0);
  s.ds->Data_ip.complex_forward_model = 1;
  std::vector<cplx> table;
  EXPECT_FALSE(s.Forward(solver_cholmod, false, table, true));
  bool said = false;
  for (const Recorded_Message &m : s.rec.messages)
    said |= m.text.find("real matrices only") != std::string::npos;
  EXPECT_TRUE(said);
}

TEST(Sparse_Solvers, TheRunsChoiceOfSolver) {
  Example_Survey s;
  Data_Set &d = *s.ds;
  d.Model_grid.num_splice_x = d.Model_grid.num_splice_y = 1;
  d.nelec_use = 300;
  d.Data_lim_sys.cpu_type_solver = 3;
  EXPECT_EQ(Choose_Sparse_Solver(d), solver_block);
  d.Data_lim_sys.cpu_type_solver = 0;
  EXPECT_EQ(Choose_Sparse_Solver(d), solver_mumps);
  // Fewer than 255 electrodes: the library, unless a solver is forced.
  d.nelec_use = 126;
  d.Data_lim_sys.cpu_type_solver = 3;
  d.Fem.solver_kind = solver_block;
  EXPECT_EQ(Choose_Sparse_Solver(d), solver_block);
  d.Fem.solver_kind = -1;
  EXPECT_EQ(Choose_Sparse_Solver(d), solver_mumps);
}
