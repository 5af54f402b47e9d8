// The wavelet transform of Jacobian rows: round trips, lengths, the two
// implementations against each other, and the snake order of the cells.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "jacobian/wavelet.h"

namespace {

std::vector<float> Random_Row(int64_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<float> d(0.0f, 1.0f);
  std::vector<float> row(n);
  for (float &v : row)
    v = d(gen) * std::exp(d(gen)); // a spread of magnitudes, as Jacobian rows have
  return row;
}

double Energy(const std::vector<float> &v) {
  double s = 0.0;
  for (float x : v)
    s += static_cast<double>(x) * x;
  return s;
}

} // namespace

TEST(Wavelet, LengthsArePowersOfTwo) {
  EXPECT_EQ(Wavelet_Length(0), 1);
  EXPECT_EQ(Wavelet_Length(1), 1);
  EXPECT_EQ(Wavelet_Length(3), 4);
  EXPECT_EQ(Wavelet_Length(1024), 1024) << "a power of two needs no padding";
  EXPECT_EQ(Wavelet_Length(1025), 2048);
  EXPECT_EQ(Wavelet_Length(60000), 65536);
}

TEST(Wavelet, ForwardThenInverseGivesTheRowBack) {
  for (int impl : {WAVELET_PLAIN, WAVELET_VECTOR})
    for (int64_t n : {4, 8, 16, 64, 1024, 32768}) {
      const std::vector<float> row = Random_Row(n, static_cast<unsigned>(n));
      std::vector<float> t = row, work(n);
      Wavelet_Transform(t.data(), n, 0, work.data(), impl);
      // Orthogonal: the energy stays, and the row did change.
      EXPECT_NEAR(Energy(t), Energy(row), 1e-5 * Energy(row)) << n;
      EXPECT_NE(t, row);
      Wavelet_Transform(t.data(), n, 1, work.data(), impl);
      double scale = 0.0;
      for (float v : row)
        scale = std::max(scale, static_cast<double>(std::fabs(v)));
      for (int64_t i = 0; i < n; i++)
        ASSERT_NEAR(t[i], row[i], 4e-7 * scale * std::log2(static_cast<double>(n)))
            << "n " << n << " at " << i << " impl " << impl;
    }
}

TEST(Wavelet, ShortRowsAndZeroRowsAreLeftAlone) {
  std::vector<float> work(4);
  for (int64_t n : {1, 2}) {
    std::vector<float> row = {3.0f, -1.5f};
    const std::vector<float> before = row;
    Wavelet_Transform(row.data(), n, 0, work.data(), WAVELET_PLAIN);
    EXPECT_EQ(row, before);
  }
  std::vector<float> zeros(256, 0.0f), w(256);
  Wavelet_Transform(zeros.data(), 256, 0, w.data(), WAVELET_VECTOR);
  for (float v : zeros)
    EXPECT_EQ(v, 0.0f) << "a row of zeros keeps no coefficient";
}

TEST(Wavelet, SmoothRowsGoToTheFirstCoefficients) {
  // Two vanishing moments: a constant row has no detail at any level, so
  // everything but the coarsest level's values is zero.
  const int64_t n = 512;
  std::vector<float> row(n, 2.5f), work(n);
  Wavelet_Transform(row.data(), n, 0, work.data(), WAVELET_PLAIN);
  for (int64_t i = 2; i < n; i++)
    ASSERT_NEAR(row[i], 0.0f, 1e-5) << i;
  EXPECT_NEAR(row[0] * row[0] + row[1] * row[1], 2.5 * 2.5 * n, 1e-2);
}

TEST(Wavelet, PlainAndVectorisedAgreeExactly) {
  if (!Wavelet_Vector_Available())
    GTEST_SKIP() << "no AVX on this processor";
  for (int64_t n : {4, 8, 16, 32, 128, 4096, 65536})
    for (int direction : {0, 1}) {
      const std::vector<float> row = Random_Row(n, static_cast<unsigned>(n + direction));
      std::vector<float> a = row, b = row, work(n);
      Wavelet_Transform(a.data(), n, direction, work.data(), WAVELET_PLAIN);
      Wavelet_Transform(b.data(), n, direction, work.data(), WAVELET_VECTOR);
      EXPECT_EQ(std::memcmp(a.data(), b.data(), sizeof(float) * n), 0)
          << "n " << n << " direction " << direction;
    }
  EXPECT_STREQ(Wavelet_Impl_Word(WAVELET_PLAIN), " C++");
  EXPECT_STREQ(Wavelet_Impl_Word(WAVELET_VECTOR), " Asm");
}

TEST(Wavelet, SnakeOrderVisitsEveryCellThroughNeighbours) {
  for (const int *dims : {(const int[]){4, 3, 3}, (const int[]){5, 4, 2}, (const int[]){1, 1, 3},
                          (const int[]){6, 1, 1}}) {
    const int nx = dims[0], ny = dims[1], nz = dims[2];
    std::vector<int> perm;
    Snake_Permutation(nx, ny, nz, perm);
    ASSERT_EQ(static_cast<int>(perm.size()), nx * ny * nz);
    std::vector<int> seen(perm.size(), 0);
    for (int c : perm)
      seen[c]++;
    EXPECT_EQ(seen, std::vector<int>(perm.size(), 1)) << "every cell once";
    EXPECT_EQ(perm[0], 0) << "from the first cell of the first layer";
    for (size_t k = 1; k < perm.size(); k++) {
      const int a = perm[k - 1], b = perm[k];
      const int dx = std::abs(a % nx - b % nx), dy = std::abs(a / nx % ny - b / nx % ny),
                dz = std::abs(a / (nx * ny) - b / (nx * ny));
      ASSERT_EQ(dx + dy + dz, 1) << "positions " << k - 1 << " and " << k;
    }
  }
  // The first layer's second row runs back.
  std::vector<int> perm;
  Snake_Permutation(3, 2, 1, perm);
  EXPECT_EQ(perm, (std::vector<int>{0, 1, 2, 5, 4, 3}));
}
