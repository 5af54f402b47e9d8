// Shared by the compression and conjugate-gradient tests: one least-squares
// step of the 9 x 14 electrode grid, its Jacobian made by the half-space
// kernel and written to the run's Jacobian file, a deterministic misfit, the
// roughness filter of a uniform model and the right-hand side.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "forward/forward_test_support.h"
#include "inversion/inversion.h"
#include "jacobian/jacobian.h"
#include "jacobian/jacobian_compression.h"

struct Half_Space_Step {
  Example_Survey ex;
  Data_Set &ds = *ex.ds;
  LS_State &ls = ds.LS;
  int n = 0, m = 0;
  std::vector<float> jac; // m rows of n

  // Reads the grid, sizes the run and writes the Jacobian file; rows listed
  // in `zero_rows` are left all zero (negative: counted from the end).
  void Build(const std::vector<int> &zero_rows = {}) {
    ASSERT_EQ(ex.Read_Example("grid_9x14.dat"), 0);
    n = ds.Model_grid.nmodel_blocks;
    m = ds.mdata;
    ASSERT_GT(n, 100);
    ASSERT_GT(m, 100);
    ls.Size(n, m);
    ds.Model_grid.Calculate_Blocks_Centers();
    jac.assign(static_cast<size_t>(m) * n, 0.0f);
    for (int i = 0; i < m; i++)
      Jacobian_Homogeneous_Seq(ds, i, jac.data() + static_cast<size_t>(i) * n);
    for (int z : zero_rows) {
      const int i = z < 0 ? m + z : z;
      std::fill(jac.begin() + static_cast<size_t>(i) * n,
                jac.begin() + static_cast<size_t>(i + 1) * n, 0.0f);
    }
    Write_Jacobian();
    for (int i = 0; i < m; i++)
      ls.ydiff[i] = static_cast<float>(0.05 * std::sin(0.37 * i) + 0.02 * std::cos(1.3 * i));
    std::fill(ls.rt.begin(), ls.rt.end(), 100.0f);
    ls.average_res = 100.0;
    ls.nitcount = 1;
    ASSERT_EQ(Set_Roughness_Filters(ds), 0);
    ds.LS_method.cg_convlim = 0.005;
  }
  void Write_Jacobian() {
    FILE *f = std::fopen(ds.file_names.temp[TF_GRROWT].c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(std::fwrite(jac.data(), sizeof(float), jac.size(), f), jac.size());
    std::fclose(f);
  }
  // Compresses the Jacobian file at `cut`.
  int Compress(double cut) {
    ds.LS_method.incomplete_solve = 2;
    ds.LS_method.data_compression = 1;
    ds.LS_method.cut_off = cut;
    Set_Wave_Model_Grid(ds);
    return Compress_Jacobian_FileOne__Inv(ds);
  }
  // dm of one step with the road chosen by the settings.
  std::vector<float> Step(double fmarq) {
    std::vector<float> dm(n, 0.0f);
    EXPECT_EQ(Calculate_RHS(ds, ls.dataconstr, ls.ca.data()), 0);
    EXPECT_EQ(Solve_Constrained_Least_Squares_Equation(ds, fmarq, dm.data()), 0);
    return dm;
  }
  static double Relative_Difference(const std::vector<float> &a, const std::vector<float> &b) {
    double d = 0.0, s = 0.0;
    for (size_t i = 0; i < a.size(); i++) {
      d += (static_cast<double>(a[i]) - b[i]) * (static_cast<double>(a[i]) - b[i]);
      s += static_cast<double>(b[i]) * b[i];
    }
    return std::sqrt(d / s);
  }
};
