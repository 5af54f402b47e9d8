// Contour lists of the section displays: the automatic linear and logarithmic
// lists, the colour index of values on, below and above the boundaries, the
// user's lists, legend number formats, the colour tables and the customised
// colour scheme file.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <numeric>
#include <string>
#include <vector>

#include "ui/contours.h"

namespace {

Contour_Scale Auto_Scale(double min, double max, int ncolor) {
  Contour_Scale c;
  c.min_plot_value = min;
  c.max_plot_value = max;
  c.ncolor = ncolor;
  Set_Auto_Contours(c);
  return c;
}

// Every boundary k starts colour k; just below it is colour k-1.
void Expect_Boundaries_Start_Colours(const Contour_Scale &c) {
  for (int k = 0; k < c.ncolor; k++) {
    double b = Contour_Boundary(c, k);
    EXPECT_EQ(Contour_Color_Index(c, b), k) << "boundary " << k;
    if (k > 0) {
      EXPECT_EQ(Contour_Color_Index(c, b - 1e-6 * std::fabs(b)), k - 1) << "below " << k;
    }
  }
}

int Sum_Rgb(uint32_t col) {
  return int((col >> 16) & 0xff) + int((col >> 8) & 0xff) + int(col & 0xff);
}

} // namespace

TEST(Contour_Auto, LinearUpToTheThresholdMeasuredFromZero) {
  Contour_Scale c = Auto_Scale(0.002, 10.002, 10);
  EXPECT_EQ(c.log_scale, 0);
  EXPECT_EQ(c.auto_contours, 1);
  EXPECT_NEAR(c.con_interval, 1.0, 1e-12);
  ASSERT_EQ(c.contours.size(), 10u);
  EXPECT_EQ(c.ncontour, 10);
  for (int i = 0; i < 10; i++)
    EXPECT_NEAR(c.contours[i], i + 1.0, 1e-12);
  EXPECT_NEAR(c.contour_first, 1.0, 1e-12);
  EXPECT_EQ(c.colors.size(), 10u);
  EXPECT_EQ(Auto_Scale(0.0021, 10.0, 10).log_scale, 1);
}

TEST(Contour_Auto, LogarithmicStepAndFirstContour) {
  Contour_Scale c = Auto_Scale(100, 1000, 10);
  EXPECT_EQ(c.log_scale, 1);
  EXPECT_NEAR(c.con_interval, 0.2303, 5e-5);
  EXPECT_NEAR(c.contour_first, 1.26, 0.005);
  EXPECT_NEAR(Last_Contour_Value(c), 10.0, 1e-9); // exp(ln 1000 - ln 100)
}

TEST(Contour_Index, LinearOriginRestoredAndClamped) {
  Contour_Scale c = Auto_Scale(-5, 15, 10); // interval 2, boundaries -5, -3, ..., 15
  EXPECT_EQ(Contour_Color_Index(c, -5.0), 0);
  EXPECT_EQ(Contour_Color_Index(c, -5.5), 0);
  EXPECT_EQ(Contour_Color_Index(c, -1e9), 0);
  EXPECT_EQ(Contour_Color_Index(c, 0.999), 2);
  EXPECT_EQ(Contour_Color_Index(c, 1.0), 3);
  EXPECT_EQ(Contour_Color_Index(c, 15.0), 9);
  EXPECT_EQ(Contour_Color_Index(c, 1e9), 9);
  EXPECT_DOUBLE_EQ(Contour_Boundary(c, 10), 15.0);
  Expect_Boundaries_Start_Colours(c);
  Contour_Scale tenths = Auto_Scale(0, 1, 10); // 0.3 / 0.1 rounds below 3
  EXPECT_EQ(Contour_Color_Index(tenths, 0.3), 3);
}

TEST(Contour_Index, LogarithmicOriginRestoredAndClamped) {
  Contour_Scale c = Auto_Scale(100, 1000, 10);
  EXPECT_DOUBLE_EQ(Contour_Boundary(c, 0), 100.0);
  EXPECT_NEAR(Contour_Boundary(c, 10), 1000.0, 1e-9);
  EXPECT_NEAR(Contour_Boundary(c, 5), std::sqrt(1e5), 1e-9);
  EXPECT_EQ(Contour_Color_Index(c, 99.0), 0);
  EXPECT_EQ(Contour_Color_Index(c, 0.0), 0);
  EXPECT_EQ(Contour_Color_Index(c, -3.0), 0);
  EXPECT_EQ(Contour_Color_Index(c, 320.0), 5);
  EXPECT_EQ(Contour_Color_Index(c, 1000.0), 9);
  EXPECT_EQ(Contour_Color_Index(c, 5e4), 9);
  Expect_Boundaries_Start_Colours(c);
}

TEST(Contour_Index, UserListBoundaries) {
  Contour_Scale c = Auto_Scale(0.5, 50, 17);
  ASSERT_EQ(Set_User_Contours(c, {1, 2, 5, 10}), 0);
  EXPECT_EQ(c.ncolor, 5);
  EXPECT_EQ(c.colors.size(), 5u);
  const double v[] = {0.1, 1, 1.999, 2, 4.9, 5, 10, 1e6};
  const int want[] = {0, 1, 1, 2, 2, 3, 4, 4};
  for (int i = 0; i < 8; i++)
    EXPECT_EQ(Contour_Color_Index(c, v[i]), want[i]) << v[i];
  EXPECT_EQ(Contour_Boundary(c, 0), 0.5);
  EXPECT_EQ(Contour_Boundary(c, 2), 2.0);
  EXPECT_EQ(Contour_Boundary(c, 5), 50.0);
}

TEST(Contour_User, ListsRefusedLeaveTheScaleUnchanged) {
  Contour_Scale c = Auto_Scale(1, 100, 17);
  std::vector<double> ramp(64);
  std::iota(ramp.begin(), ramp.end(), 0.0);
  const std::vector<std::vector<double>> bad = {{5},       {2, 1, 3},   {1, 3, 2},
                                                {1, 2, 2}, {1, NAN, 3}, ramp};
  for (const auto &b : bad) {
    EXPECT_EQ(Set_User_Contours(c, b), 1);
    EXPECT_EQ(c.auto_contours, 1);
    EXPECT_EQ(c.ncolor, 17);
    EXPECT_EQ(c.contours.size(), 17u);
  }
  EXPECT_EQ(Set_Linear_Contours(c, 10, 0, 4), 1);
  EXPECT_EQ(Set_Logarithmic_Contours(c, 1, 1, 4), 1);
  EXPECT_EQ(Set_Logarithmic_Contours(c, 0, 10, 4), 1);
  EXPECT_EQ(c.auto_contours, 1);
  ramp.pop_back();
  ASSERT_EQ(Set_User_Contours(c, ramp), 0);
  EXPECT_EQ(c.ncolor, 64);
  EXPECT_EQ(c.colors.size(), 64u);
}

TEST(Contour_User, LinearAndLogarithmicLists) {
  Contour_Scale c;
  ASSERT_EQ(Set_Linear_Contours(c, 10, 5, 4), 0);
  EXPECT_EQ(c.contours, (std::vector<double>{10, 15, 20, 25}));
  EXPECT_EQ(c.auto_contours, 0);
  EXPECT_EQ(Last_Contour_Value(c), 25.0);
  ASSERT_EQ(Set_Logarithmic_Contours(c, 2, 10, 3), 0);
  ASSERT_EQ(c.contours.size(), 3u);
  EXPECT_NEAR(c.contours[2], 200.0, 1e-9);
  EXPECT_EQ(c.ncolor, 4);
}

TEST(Legend, FormatsAcrossThresholds) {
  const std::pair<double, const char *> cases[] = {
      {1e6, "%10.2e"}, {999999, "%.1f"},   {10, "%.1f"},     {9.99, "%.2f"},     {1, "%.2f"},
      {0.999, "%.3f"}, {0.1, "%.3f"},      {0.0999, "%.4f"}, {0.01, "%.4f"},     {0.00999, "%.5f"},
      {0.001, "%.5f"}, {0.000999, "%.6f"}, {1e-6, "%.6f"},   {9.9e-7, "%10.2e"}, {0, "%.1f"},
      {-25, "%.1f"},   {-0.05, "%.4f"},    {-2e7, "%10.2e"}};
  for (const auto &[v, fmt] : cases)
    EXPECT_STREQ(Legend_Number_Format(v), fmt) << v;
  EXPECT_EQ(Format_Legend_Number(2.5e7), "2.50e+07");
  EXPECT_EQ(Format_Legend_Number(0.05), "0.0500");
  Contour_Scale c = Auto_Scale(1.5, 2500, 17);
  char buf[64];
  ASSERT_EQ(Range_Text(c, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "Range of values is 1.50 to 2500.0");
  EXPECT_EQ(Range_Text(c, buf, 10), 1);
  EXPECT_EQ(std::string(buf).size(), 9u);
}

TEST(Color_Table, SchemesSizeOrderAndReverse) {
  Contour_Scale c = Auto_Scale(1, 100, 17);
  ASSERT_EQ(c.colors.size(), 17u);
  uint32_t lo = c.colors.front(), hi = c.colors.back();
  EXPECT_GT(lo & 0xff, lo >> 16); // bluish
  EXPECT_GT(hi >> 16, hi & 0xff); // reddish
  std::vector<uint32_t> plain = c.colors;
  c.reverse = 1;
  Set_Color_Table(c);
  EXPECT_EQ(c.colors, std::vector<uint32_t>(plain.rbegin(), plain.rend()));
  c.reverse = 0;
  c.scheme = 1;
  Set_Color_Table(c);
  for (int i = 1; i < 17; i++) {
    EXPECT_GT(Sum_Rgb(c.colors[i]), Sum_Rgb(c.colors[i - 1]));
    EXPECT_EQ(c.colors[i] >> 16, c.colors[i] & 0xff);
  }
  c.scheme = 2;
  Set_Color_Table(c);
  EXPECT_LT(Sum_Rgb(c.colors.front()), Sum_Rgb(plain.front()));
  EXPECT_GT(c.colors.back() & 0xff, 0u); // purple at the top
  Set_Voxler_Rainbow(c);
  EXPECT_EQ(c.colors.front(), 0x0000ffu);
  EXPECT_EQ(c.colors.back(), 0xff0000u);
  EXPECT_EQ(c.colors.size(), 17u);
}

class Color_Scheme_File : public ::testing::Test {
protected:
  std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("ohmvol3d_contours_" + std::to_string(getpid()));
  void SetUp() override { std::filesystem::create_directories(dir); }
  void TearDown() override { std::filesystem::remove_all(dir); }
  std::string Write(const std::string &text) {
    std::string p = (dir / "scheme.txt").string();
    std::ofstream(p) << text;
    return p;
  }
};

TEST_F(Color_Scheme_File, RoundTripAndResampling) {
  Contour_Scale a = Auto_Scale(1, 100, 12);
  a.scheme = 2;
  Set_Color_Table(a);
  std::string p = (dir / "out.txt").string();
  ASSERT_EQ(Write_Color_Scheme(a, p.c_str()), 0);
  Contour_Scale b = Auto_Scale(1, 100, 12);
  std::string error;
  ASSERT_EQ(Read_Color_Scheme(b, p.c_str(), error), 0) << error;
  EXPECT_EQ(b.custom, 1);
  EXPECT_EQ(b.colors, a.colors);
  b.ncolor = 23;
  Set_Color_Table(b);
  ASSERT_EQ(b.colors.size(), 23u);
  EXPECT_EQ(b.colors.front(), a.colors.front());
  EXPECT_EQ(b.colors.back(), a.colors.back());
  b.ncolor = 6; // file entries nearest to 0, 2.2, 4.4, 6.6, 8.8, 11
  Set_Color_Table(b);
  const std::vector<uint32_t> nearest = {a.colors[0], a.colors[2], a.colors[4],
                                         a.colors[7], a.colors[9], a.colors[11]};
  EXPECT_EQ(b.colors, nearest);
}

TEST_F(Color_Scheme_File, BadFilesRefusedWithTheirLine) {
  const std::pair<const char *, const char *> cases[] = {
      {"Some colour scheme\n2\n0 0 0\n1 1 1\n", "Line 1: the file must start"},
      {"# comment\nOhmvol3D colour scheme\n1\n0 0 0\n", "Line 3: the number of colours"},
      {"Ohmvol3D colour scheme\n65\n", "Line 2: the number of colours"},
      {"Ohmvol3D colour scheme\n2\n0 0 0\n0 256 0\n", "Line 4: colour values"},
      {"Ohmvol3D colour scheme\n2\n0 -1 0\n0 0 0\n", "Line 3: colour values"},
      {"Ohmvol3D colour scheme\n2\n0 0\n0 0 0\n", "Line 3: a colour is three"},
      {"Ohmvol3D colour scheme\n2\n0 0 0 7\n0 0 0\n", "Line 3: a colour is three"},
      {"# only a comment\n\n", "empty"},
      {"Ohmvol3D colour scheme\n3\n0 0 0\n\n# end\n9 9 9\n", "ends after 2 of the 3"},
      {"Ohmvol3D colour scheme\n2\n0 0 0\n1 1 1\n2 2 2\n", "Line 5: more colours"}};
  Contour_Scale c = Auto_Scale(1, 100, 17);
  const std::vector<uint32_t> before = c.colors;
  for (const auto &[text, where] : cases) {
    std::string error, p = Write(text);
    EXPECT_EQ(Read_Color_Scheme(c, p.c_str(), error), 1) << text;
    EXPECT_NE(error.find(where), std::string::npos) << error;
    EXPECT_EQ(c.custom, 0);
    EXPECT_EQ(c.colors, before);
  }
  std::string error;
  EXPECT_EQ(Read_Color_Scheme(c, (dir / "none.txt").string().c_str(), error), 1);
  EXPECT_FALSE(error.empty());
}
