// The conjugate-gradient roads of the least-squares step against the direct
// Cholesky solution and against each other, the damped filter they use, and
// the recursion's limits: the iteration cap, a zero right-hand side and a
// start that already solves the system.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "jacobian/half_space_step.h"

namespace {

class CG_Step : public ::testing::Test, public Half_Space_Step {
protected:
  void SetUp() override { Build(); }
  std::vector<float> Direct(double fmarq) {
    ds.LS_method.incomplete_solve = 0;
    ds.LS_method.data_compression = 0;
    return Step(fmarq);
  }
  std::vector<float> Dense_CG(double fmarq) {
    ds.LS_method.incomplete_solve = 2;
    ds.LS_method.data_compression = 0;
    return Step(fmarq);
  }
  std::vector<float> Wavelet_CG(double fmarq, double cut) {
    EXPECT_EQ(Compress(cut), 0);
    return Step(fmarq);
  }
};

TEST_F(CG_Step, DenseRoadReachesTheCholeskySolution) {
  const std::vector<float> chol = Direct(0.05);
  const std::vector<float> cg = Dense_CG(0.05);
  EXPECT_GT(ls.cg_iterations, 1);
  EXPECT_LT(ls.cg_ratio, ds.LS_method.cg_convlim);
  EXPECT_LT(Relative_Difference(cg, chol), 0.02);
  // With a tighter limit the two come closer still.
  ds.LS_method.cg_convlim = 1e-4;
  EXPECT_LT(Relative_Difference(Dense_CG(0.05), chol), 1e-3);
}

TEST_F(CG_Step, CompressedRoadWithCutOffZeroFollowsTheDenseRoad) {
  for (int norm : {0, 1}) {
    ls.dataconstr = norm;
    const std::vector<float> dense = Dense_CG(0.05);
    const int iterations = ls.cg_iterations;
    const std::vector<float> wave = Wavelet_CG(0.05, 0.0);
    EXPECT_LT(Relative_Difference(wave, dense), 2e-3) << "norm " << norm;
    EXPECT_NEAR(ls.cg_iterations, iterations, 2) << "norm " << norm;
  }
}

TEST_F(CG_Step, CompressedRoadAtTheUsualCutOffStaysNearTheDirectStep) {
  const std::vector<float> chol = Direct(0.05);
  const std::vector<float> wave = Wavelet_CG(0.05, 0.005);
  EXPECT_LT(ls.wj.ratio, 0.5);
  EXPECT_LT(Relative_Difference(wave, chol), 0.1);
}

TEST_F(CG_Step, DampedFilterHoldsTheTermsOfTheDampedHessian) {
  // Every damping term at once: fixed-cell weights, the Marquardt term and a
  // barrier acting on the roughness, after the first iteration.
  LS_Method &lm = ds.LS_method;
  lm.combined_marquardt = 1;
  lm.rangebound = 1;
  lm.barrier_on_roughness = 1;
  for (int i = 0; i < n; i++) {
    ls.sensfix[i] = 1.0f + static_cast<float>(i % 3);
    ls.rt[i] = static_cast<float>(100.0 * std::exp(0.5 * std::sin(0.1 * i)));
  }
  const double fmarq = 0.07;
  std::vector<double> h(static_cast<size_t>(n) * n, 0.0);
  Modify_Hessian(ds, 1, fmarq, h.data(), n);
  Sparse_Upper fp;
  Modify_Roughness_Filter_LCG(ds, 1, fmarq, fp, n);
  ASSERT_EQ(fp.n, n);
  std::vector<double> g(static_cast<size_t>(n) * n, 0.0);
  for (int i = 0; i < n; i++) {
    ASSERT_EQ(fp.col[fp.row[i] - 1], i + 1) << "the diagonal leads row " << i;
    for (int k = fp.row[i] - 1; k < fp.row[i + 1] - 1; k++) {
      const int j = fp.col[k] - 1;
      g[static_cast<size_t>(i) * n + j] += fp.val[k];
      if (j != i)
        g[static_cast<size_t>(j) * n + i] += fp.val[k];
    }
  }
  for (size_t k = 0; k < h.size(); k++)
    ASSERT_NEAR(g[k], h[k], 1e-5 * std::max(1.0, std::fabs(h[k]))) << "entry " << k;
}

// A diagonal system for the recursion's own cases.
struct Diagonal {
  std::vector<float> d;
  static void Apply(void *c, const float *x, float *y) {
    const Diagonal &s = *static_cast<Diagonal *>(c);
    for (size_t i = 0; i < s.d.size(); i++)
      y[i] = s.d[i] * x[i];
  }
};

TEST(ConjugateGradient, IterationLimitFollowsTheSize) {
  EXPECT_EQ(CG_Iteration_Limit(100), 100);
  EXPECT_EQ(CG_Iteration_Limit(1000), 200);
  EXPECT_EQ(CG_Iteration_Limit(20000), 4000);
  EXPECT_EQ(CG_Iteration_Limit(1000000), 10000);
}

TEST(ConjugateGradient, ZeroRightSideAndSolvedStartEndAtOnce) {
  Half_Space_Step s;
  const int n = 50;
  Diagonal sys;
  for (int i = 0; i < n; i++)
    sys.d.push_back(1.0f + 0.1f * i);
  const CG_Product a{Diagonal::Apply, &sys};
  std::vector<float> m(n, 1.0f);
  // A zero right side: the data-error box, the step left as it was.
  std::vector<double> zero(n, 0.0);
  std::vector<float> dm(n, 7.0f);
  EXPECT_EQ(Start_Solve_Linear_Conjugate_Gradient(s.ds, a, m.data(), zero.data(), dm.data(), n, 0),
            1);
  const test_support::Recorded_Message *box = s.ex.rec.Last("Data error");
  ASSERT_NE(box, nullptr);
  EXPECT_EQ(box->text.rfind("Error in solving least-squares equation by linear conjugate "
                            "gradient method. Check your input data.",
                            0),
            0u);
  EXPECT_TRUE(std::all_of(dm.begin(), dm.end(), [](float v) { return v == 7.0f; }));
  // A start that solves the system leaves the loop in its first pass.
  std::vector<float> b(n), x(n);
  for (int i = 0; i < n; i++) {
    x[i] = 0.5f * i;
    b[i] = sys.d[i] * x[i];
  }
  const std::vector<float> x0 = x;
  EXPECT_EQ(Linear_Conjugate_Gradient(s.ds, a, m.data(), b.data(), x.data(), n, 1), 0);
  EXPECT_EQ(s.ls.cg_iterations, 0);
  EXPECT_EQ(x, x0);
  // From zero, the diagonal preconditioner solves it in one step.
  std::vector<float> m_exact(n);
  for (int i = 0; i < n; i++)
    m_exact[i] = 1.0f / sys.d[i];
  std::fill(x.begin(), x.end(), 0.0f);
  EXPECT_EQ(Linear_CG_Wavelet(s.ds, a, m_exact.data(), b.data(), x.data(), n, 0), 0);
  EXPECT_EQ(s.ls.cg_iterations, 1);
  for (int i = 0; i < n; i++)
    EXPECT_NEAR(x[i], x0[i], 1e-5 * (1.0 + x0[i]));
}

} // namespace
