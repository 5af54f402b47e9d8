// Wavelet compression of the Jacobian file: the block rule, rows rebuilt from
// their kept coefficients, the strict threshold and empty rows, the sums made
// on the way, the plain and vectorised transforms writing the same files, the
// right-hand side formed in the wavelet domain, and the file checks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <vector>

#include "half_space_step.h"
#include "jacobian/wavelet.h"

namespace {

std::vector<char> File_Bytes(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<char>(std::istreambuf_iterator<char>(f), {});
}

class Compression : public ::testing::Test, public Half_Space_Step {
protected:
  std::vector<float> val;
  std::vector<int> idx;

  void Load() { ASSERT_EQ(Load_Compressed_Jacobian(ds, val, idx), 0); }
  // Row i rebuilt from its kept coefficients, in model order.
  std::vector<float> Row(int i) {
    const Compressed_Jacobian &cj = ls.wj;
    std::vector<float> w(cj.n2, 0.0f), work(cj.n2), out(n);
    for (int64_t k = cj.numwave[i]; k < cj.numwave[i + 1]; k++)
      w[idx[k]] = val[k];
    Wavelet_Row_To_Model(cj, w.data(), work.data(), WAVELET_PLAIN, out.data());
    return out;
  }
  float Row_Max(int i) const {
    float big = 0.0f;
    for (int j = 0; j < n; j++)
      big = std::max(big, std::fabs(jac[static_cast<size_t>(i) * n + j]));
    return big;
  }
};

TEST(CompressionBlockRows, CacheRuleThenHalfTheRowsThenTheCaps) {
  // 2 GB of cache over rows of 65536: 8000 rows, then the cap of 128 a thread.
  EXPECT_EQ(Compression_Block_Rows(2.0, 65536, 20000, 2), 256);
  EXPECT_EQ(Compression_Block_Rows(2.0, 65536, 20000, 8), 512);
  // A small cache: 0.01 GB over 65536 values is 40 rows.
  EXPECT_EQ(Compression_Block_Rows(0.01, 65536, 20000, 2), 40);
  // Few rows: never more than half of them, and at least one.
  EXPECT_EQ(Compression_Block_Rows(2.0, 1024, 30, 2), 15);
  EXPECT_EQ(Compression_Block_Rows(2.0, 1024, 1, 2), 1);
}

TEST_F(Compression, CutOffZeroKeepsEveryRowWhole) {
  Build();
  ASSERT_EQ(Compress(0.0), 0);
  const Compressed_Jacobian &cj = ls.wj;
  EXPECT_EQ(cj.n2, Wavelet_Length(n));
  EXPECT_EQ(Max_Wavelet_Coefs(cj), cj.n2);
  ASSERT_EQ(static_cast<int>(cj.numwave.size()), m + 1);
  EXPECT_LE(cj.Total(), static_cast<int64_t>(m) * cj.n2);
  Load();
  for (int i = 0; i < m; i += 37) {
    const std::vector<float> r = Row(i);
    const float tol = 2e-6f * Row_Max(i);
    for (int j = 0; j < n; j++)
      ASSERT_NEAR(r[j], jac[static_cast<size_t>(i) * n + j], tol) << "row " << i << " cell " << j;
  }
  // The per-cell sums and the squares were made from the same rows.
  for (int j = 0; j < n; j += 11) {
    double s = 0.0, q = 0.0;
    for (int i = 0; i < m; i++) {
      const double v = jac[static_cast<size_t>(i) * n + j];
      s += std::fabs(v);
      q += v * v;
    }
    EXPECT_NEAR(cj.cell_sum[j], s, 1e-5 * s);
    EXPECT_NEAR(cj.diag_l2[j], q, 1e-5 * q);
  }
  EXPECT_EQ(cj.sums_valid, 1);
  // The sensitivity read back through the compressed rows: the same sums.
  ls.sens_calculated = 0;
  std::remove(ds.file_names.temp[TF_GRROWT].c_str());
  ASSERT_EQ(CalculateSensitivity(ds), 0);
  for (int j = 0; j < n; j += 11)
    EXPECT_NEAR(ls.sens_reso[j], cj.cell_sum[j], 1e-4 * cj.cell_sum[j]) << "cell " << j;
}

TEST_F(Compression, ThresholdIsStrictAndEmptyRowsKeepNothing) {
  Build({0, 5, -1});
  const double cut = 0.005;
  ASSERT_EQ(Compress(cut), 0);
  const Compressed_Jacobian &cj = ls.wj;
  for (int i : {0, 5, m - 1})
    EXPECT_EQ(cj.numwave[i], cj.numwave[i + 1]) << "row " << i;
  Load();
  std::vector<float> w(cj.n2), work(cj.n2);
  for (int i = 1; i < m; i += 23) {
    if (i == 5)
      continue;
    Model_To_Wavelet_Row(cj, jac.data() + static_cast<size_t>(i) * n, w.data(), work.data(),
                         WAVELET_PLAIN);
    float big = 0.0f;
    for (float v : w)
      big = std::max(big, std::fabs(v));
    const float lim = static_cast<float>(cut * big);
    std::vector<int> kept;
    for (int64_t k = 0; k < cj.n2; k++)
      if (std::fabs(w[k]) > lim)
        kept.push_back(static_cast<int>(k));
    ASSERT_EQ(cj.numwave[i + 1] - cj.numwave[i], static_cast<int64_t>(kept.size()));
    for (size_t k = 0; k < kept.size(); k++) {
      EXPECT_EQ(idx[cj.numwave[i] + k], kept[k]);
      EXPECT_EQ(val[cj.numwave[i] + k], w[kept[k]]);
    }
  }
  // Most of a smooth half-space row goes.
  EXPECT_LT(cj.ratio, 0.5);
  EXPECT_GT(cj.ratio, 0.0);
}

TEST_F(Compression, PlainAndVectorisedTransformsWriteTheSameFiles) {
  Build();
  ds.LS_method.wavelet_function_type = 0;
  ASSERT_EQ(Compress(0.005), 0);
  const std::vector<char> v0 = File_Bytes(ds.file_names.temp[TF_GRADCOMP]);
  const std::vector<char> i0 = File_Bytes(ds.file_names.temp[TF_GRADCOMP_I]);
  ds.LS_method.wavelet_function_type = 1;
  ASSERT_EQ(Compress(0.005), 0);
  EXPECT_FALSE(v0.empty());
  EXPECT_TRUE(v0 == File_Bytes(ds.file_names.temp[TF_GRADCOMP]));
  EXPECT_TRUE(i0 == File_Bytes(ds.file_names.temp[TF_GRADCOMP_I]));
}

TEST_F(Compression, RightHandSideInTheWaveletDomainMatchesTheFile) {
  Build();
  // Error weights: the compressed rows carry them, the file's rows take them
  // with the misfits; both roads must give the same J^T W R y.
  for (int i = 0; i < m; i++)
    ls.error_weight[i] = 0.5f + static_cast<float>(i % 7) * 0.25f;
  ds.LS_method.data_compression = 0;
  std::vector<double> plain(n), wave(n);
  ASSERT_EQ(Calculate_RHS(ds, 1, plain.data()), 0);
  ASSERT_EQ(Compress(0.0), 0);
  ASSERT_EQ(Calculate_RHS(ds, 1, wave.data()), 0);
  double big = 0.0;
  for (double v : plain)
    big = std::max(big, std::fabs(v));
  ASSERT_GT(big, 0.0);
  for (int j = 0; j < n; j++)
    ASSERT_NEAR(wave[j], plain[j], 1e-5 * big) << "cell " << j;
  // An all-zero misfit gives a zero right-hand side.
  std::fill(ls.ydiff.begin(), ls.ydiff.end(), 0.0f);
  ASSERT_EQ(Calculate_RHS(ds, 0, wave.data()), 0);
  EXPECT_TRUE(std::all_of(wave.begin(), wave.end(), [](double v) { return v == 0.0; }));
}

TEST_F(Compression, MissingOrShortJacobianFileIsReported) {
  Build();
  ex.rec.Clear();
  ds.LS_method.cut_off = 0.005;
  EXPECT_EQ(
      Compress_Jacobian_File_One_Inv(ds, m + 1, ds.file_names.temp[TF_GRROWT], nullptr, nullptr),
      1);
  const test_support::Recorded_Message *size = ex.rec.Last("File Size Check Jacobian");
  ASSERT_NE(size, nullptr);
  EXPECT_NE(size->text.find("Different files sizes.\nExpected"), std::string::npos);
  EXPECT_EQ(ls.wj.valid, 0);
  std::remove(ds.file_names.temp[TF_GRROWT].c_str());
  EXPECT_EQ(Compress(0.005), 1);
  const test_support::Recorded_Message *missing = ex.rec.Last("Jacobian File Error");
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(missing->text.rfind("Data compression routine error.\nCould not find", 0), 0u);
}

} // namespace
