// Optional data file sections: tank, topography, fixed regions, water layer,
// sharp boundaries and global coordinates; their writers; the interpolation
// of heights from scattered points.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/messages.h"
#include "core/test_support.h"
#include "survey/optional_sections.h"
#include "survey/scatter_interpolation.h"
#include "survey/survey.h"

using namespace test_support;

namespace {

// Grid of the tests: x lines 10, 12, .., 18 and y lines 20, 22, 24, 26 in
// user units, spacing unit 2, so the normalised lines are 0..4 and 0..3.
constexpr int nx = 5, ny = 4, nodes = nx * ny;

void Set_Grid(Data_Set &ds) {
  ds.spxx = 2.0;
  ds.xmin = 10.0;
  ds.ymin = 20.0;
  ds.Model_grid.ngridx = nx;
  ds.Model_grid.ngridy = ny;
  for (int i = 0; i < nx; i++)
    ds.Model_grid.xgrid[i] = i;
  for (int j = 0; j < ny; j++)
    ds.Model_grid.ygrid[j] = j;
  ds.num_grid_points = nodes;
}

// Every optional section after the data points, in the parser's order.
int Read_After_Data(Data_Set &ds) {
  int ierr = Check_Topography_Data(ds);
  ierr |= Check_Fixed_Regions(ds);
  ierr |= Check_Underwater_Settings(ds);
  ierr |= Read_Sharp_Boundary(ds, 0);
  ierr |= Read_Global_Coordinates(ds);
  return ierr;
}

// Text of a topography section with one point per grid node, z(i, j).
template <class F> std::string Node_List_Text(F z) {
  std::string s = "Topography present\n1\nTopography in unstructured list\nNumber of topography "
                  "data points\n" +
                  std::to_string(nodes) + "\nTopography data points (index,x,y,z)\n";
  char row[128];
  for (int j = 0; j < ny; j++)
    for (int i = 0; i < nx; i++) {
      std::snprintf(row, sizeof row, "%d %.3f %.3f %.3f\n", i + j * nx + 1, 10.0 + 2 * i,
                    20.0 + 2 * j, z(i, j));
      s += row;
    }
  return s;
}

// A topography section with points at the four grid corners: base, base + 4
// (x end), base + 2 (y end), base + 6.
std::string Corner_Topography(int base) {
  std::string s = "Topography present\n2\nTopography in unstructured list\n"
                  "Number of topography data points\n4\nTopography data points (index,x,y,z)\n";
  const int corner[4][3] = {{10, 20, 0}, {18, 20, 4}, {10, 26, 2}, {18, 26, 6}};
  for (int k = 0; k < 4; k++)
    s += std::to_string(k + 1) + " " + std::to_string(corner[k][0]) + " " +
         std::to_string(corner[k][1]) + " " + std::to_string(base + corner[k][2]) + "\n";
  return s;
}

const std::string corner_topography = Corner_Topography(100);

const std::string water_text = "Underwater survey parameters\nResistivity of water layer\n0.25000\n"
                               "Rectangular limits of water layer\n10.000,20.000,18.000,26.000\n"
                               "Elevation of water surface\n100.000\n"
                               "Type of geometric factor (1=surface,0=exact)\n";

const std::string boundary_head = "Sharp layers present\nNumber of boundaries\n1\n"
                                  "Boundary 1 parameters\nBoundary type\nLayer\nGroup weight\n";

std::string Global_Text(const std::vector<std::array<double, 4>> &points) {
  std::string s = "Global Coordinates present\nType of global coordinates\n0\n"
                  "Number of reference points\n" +
                  std::to_string(points.size()) + "\nLocal and global coordinates (x,y,X,Y)\n";
  char row[160];
  for (const auto &p : points) {
    std::snprintf(row, sizeof row, "%.4f %.4f %.4f %.4f\n", p[0], p[1], p[2], p[3]);
    s += row;
  }
  return s;
}

class OptionalSections : public ::testing::Test {
protected:
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds;
  std::string text;

  void SetUp() override {
    ASSERT_TRUE(tmp.ok());
    ds = Make_Data_Set(tmp, rec);
    Set_Grid(*ds);
  }
  void Load(const std::string &s) {
    text = s;
    ds->img.buf = text.data();
    ds->img.size = static_cast<int64_t>(text.size());
    ds->img.pos = 0;
  }
  bool Panel_Has(const std::string &line) const {
    for (const Recorded_Panel_Line &p : rec.panel_lines)
      if (p.text == line)
        return true;
    return false;
  }
  bool Panel_Starts(const std::string &prefix) const {
    for (const Recorded_Panel_Line &p : rec.panel_lines)
      if (Starts_With(p.text, prefix))
        return true;
    return false;
  }
  bool Progress_Has(const std::string &line) const {
    for (const Recorded_Progress &p : rec.progress_calls)
      if (p.text == line)
        return true;
    return false;
  }
  std::string Next_Line() {
    char line[text_line_max + 1];
    read_line(ds->img, line);
    return line;
  }
  // The grid heights in user units.
  double Grid_Height(int i, int j) const { return ds->topo.grid_z[i + j * nx] * ds->spxx; }
  // Everything Write_Optional_Sections writes for `d`.
  static std::string Written(Data_Set &d) {
    char *buf = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&buf, &size);
    Write_Optional_Sections(d, f);
    std::fclose(f);
    std::string s(buf, size);
    std::free(buf);
    return s;
  }
  // A second survey on the same grid that reads `written`.
  std::unique_ptr<Data_Set> Read_Back(const std::string &written, std::string &keep) {
    auto back = Make_Data_Set(tmp, rec);
    Set_Grid(*back);
    back->Data_ip.typeip = ds->Data_ip.typeip;
    keep = written + "0\n0\n0\n0\n0\n\n\n";
    back->img.buf = keep.data();
    back->img.size = static_cast<int64_t>(keep.size());
    EXPECT_EQ(Read_After_Data(*back), 0);
    return back;
  }
};

} // namespace

// ---------------------------------------------------------------------------

TEST_F(OptionalSections, TankIsReadOrReportedAbsentWithTheCursorKept) {
  Load("Tank Model\nBoundary positions\nx boundary positions (-x,+x)\n-5.000,25.000\n"
       "y boundary positions (-y,+y)\n15.000,31.000\nz boundary position\n12.500\n40\n");
  EXPECT_EQ(Read_Tank_Section(*ds), 0);
  EXPECT_EQ(ds->tank.present, 1);
  EXPECT_DOUBLE_EQ(ds->tank.x1, -5.0);
  EXPECT_DOUBLE_EQ(ds->tank.x2, 25.0);
  EXPECT_DOUBLE_EQ(ds->tank.y1, 15.0);
  EXPECT_DOUBLE_EQ(ds->tank.y2, 31.0);
  EXPECT_DOUBLE_EQ(ds->tank.z, 12.5);
  EXPECT_TRUE(Panel_Has("Tank x-boundaries are -5.000 and 25.000."));
  EXPECT_TRUE(Panel_Has("Tank y-boundaries are 15.000 and 31.000."));
  EXPECT_TRUE(Panel_Has("Tank z-boundary is 12.500."));
  EXPECT_EQ(read_int(ds->img), 40);

  char *buf = nullptr;
  size_t size = 0;
  FILE *f = open_memstream(&buf, &size);
  Write_Tank_Section(*ds, f);
  std::fclose(f);
  EXPECT_EQ(std::string(buf, size), text.substr(0, text.size() - 3));
  std::free(buf);

  rec.Clear();
  Load("40\n");
  EXPECT_EQ(Read_Tank_Section(*ds), 0);
  EXPECT_EQ(ds->tank.present, 0);
  EXPECT_EQ(ds->img.pos, 0);
  EXPECT_TRUE(Panel_Has("Not tank data set."));
}

TEST_F(OptionalSections, TopographyListIsNormalisedAndInterpolatedOntoTheGrid) {
  for (int method = 0; method < 2; method++) {
    rec.Clear();
    ds->Model_grid.type_topo_estimate = method;
    Load(corner_topography + "FIXED REGIONS\n");
    ASSERT_EQ(Check_Topography_Data(*ds), 0);
    const Topography &t = ds->topo;
    EXPECT_EQ(t.type, 2); // no point electrodes: the file's type stands
    ASSERT_EQ(t.num_points, 4);
    EXPECT_FLOAT_EQ(t.x[1], 4.0f);
    EXPECT_FLOAT_EQ(t.y[2], 3.0f);
    EXPECT_FLOAT_EQ(t.z[3], 53.0f);
    EXPECT_EQ(t.grid_heights, 1);
    EXPECT_NEAR(Grid_Height(0, 0), 100.0, 1e-4); // nodes on a point take its height
    EXPECT_NEAR(Grid_Height(4, 0), 104.0, 1e-4);
    EXPECT_NEAR(Grid_Height(4, 3), 106.0, 1e-4);
    double sum = 0.0;
    for (int k = 0; k < nodes; k++) {
      sum += t.grid_z[k] * 2.0;
      EXPECT_GE(t.grid_z[k] * 2.0, 100.0 - 1e-4);
      EXPECT_LE(t.grid_z[k] * 2.0, 106.0 + 1e-4);
      EXPECT_FLOAT_EQ(static_cast<float>(ds->pe[k].z), t.grid_z[k]); // grid node records
    }
    EXPECT_NEAR(t.average, sum / nodes, 1e-9);
    char expected[200];
    std::snprintf(expected, sizeof expected,
                  "Rectangular grid topography with average height %.2f, minimum height 100.00 "
                  "and maximum height 106.00.",
                  t.average);
    EXPECT_TRUE(Panel_Has(expected));
    EXPECT_TRUE(Panel_Has("Topography in separate list with 4 points."));
    EXPECT_TRUE(Progress_Has("Reading topography in unstructured list"));
    EXPECT_TRUE(Progress_Has("Interpolating topography for grid y line 4/4"));
    EXPECT_TRUE(Progress_Has("Checking topography completed"));
    EXPECT_TRUE(rec.messages.empty());
    EXPECT_EQ(Next_Line(), "FIXED REGIONS");
  }
  // The two methods differ away from the points.
  ds->Model_grid.type_topo_estimate = 0;
  Load(corner_topography);
  Check_Topography_Data(*ds);
  const double nearest = Grid_Height(1, 1);
  ds->Model_grid.type_topo_estimate = 1;
  Load(corner_topography);
  Check_Topography_Data(*ds);
  EXPECT_GT(std::fabs(nearest - Grid_Height(1, 1)), 1e-3);
}

TEST_F(OptionalSections, TopographyCountRefusalsAndNonSectionLines) {
  Load("Topography present\n1\nTopography in unstructured list\nNumber of topography data "
       "points\n2\nTopography data points (index,x,y,z)\n1 10 20 5\n2 12 20 6\n");
  EXPECT_EQ(Check_Topography_Data(*ds), 1);
  ASSERT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(rec.messages[0].title, "Data Error");
  EXPECT_EQ(rec.messages[0].text, "Number of topography data points is 2.\nToo few topography "
                                  "data points.\nMinimum required is 3.");
  EXPECT_EQ(ds->topo.type, 0);

  rec.Clear();
  ds->Data_lim_sys.nmax_elecs = 3;
  Load(corner_topography);
  EXPECT_EQ(Check_Topography_Data(*ds), 1);
  ASSERT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(rec.messages[0].text,
            "Number of topography data points is 4.\nToo many. Maximum allowed is 3.");

  // A second character E is not this section; nothing is consumed.
  for (const char *line : {"TEM survey\n", "tE\n", "Sharp layers present\n"}) {
    Load(line);
    EXPECT_EQ(Check_Topography_Data(*ds), 0);
    EXPECT_EQ(ds->img.pos, 0) << line;
    EXPECT_EQ(ds->topo.grid_heights, 0);
  }
}

TEST_F(OptionalSections, ElectrodesTakeListedHeightsOrGiveTheirOwn) {
  // Electrodes without elevations: two list points suffice with electrodes.
  ds->num_point_elecs = 2;
  ds->pe[0].x = 4.0;
  ds->pe[0].y = 3.0;
  ds->pe[1].x = 0.0;
  ds->pe[1].y = 0.0;
  Load("Topography present\n3\nTopography in unstructured list\nNumber of topography data "
       "points\n2\nTopography data points (index,x,y,z)\n1 10 20 90\n2 18 26 96\n");
  ASSERT_EQ(Check_Topography_Data(*ds), 0);
  EXPECT_EQ(ds->topo.type, 1); // electrodes in a list
  EXPECT_NEAR(ds->pe[0].z * 2.0, 96.0, 1e-4);
  EXPECT_NEAR(ds->pe[1].z * 2.0, 90.0, 1e-4);
  EXPECT_TRUE(Progress_Has("Estimate topography at point electrodes"));

  // Electrodes with elevations and no section; a borehole's second electrode
  // shares the first one's position and is not counted twice.
  rec.Clear();
  ds->topo_flag = 1;
  ds->num_point_elecs = 4;
  const double e[4][3] = {{0, 0, 40}, {4, 0, 41}, {4, 0, 41}, {4, 3, 43}};
  for (int k = 0; k < 4; k++) {
    ds->pe[k].x = e[k][0];
    ds->pe[k].y = e[k][1];
    ds->pe[k].z = e[k][2];
  }
  Load("FIXED REGIONS\n");
  ASSERT_EQ(Check_Topography_Data(*ds), 0);
  EXPECT_EQ(ds->topo.num_points, 0);
  EXPECT_EQ(ds->topo.num_elec_points, 3);
  EXPECT_EQ(ds->topo.grid_heights, 1);
  EXPECT_NEAR(Grid_Height(4, 3), 86.0, 1e-4);
  EXPECT_TRUE(Progress_Has("Calculating topography"));
  EXPECT_TRUE(Progress_Has("Estimate topography for grid y line 1/4"));
  char expected[200];
  std::snprintf(expected, sizeof expected,
                "Topography for point electrodes with average height %.2f, minimum height 80.00 "
                "and maximum height 86.00.",
                ds->topo.average);
  EXPECT_TRUE(Panel_Has(expected));
  EXPECT_EQ(ds->img.pos, 0);
}

TEST_F(OptionalSections, SteepGroundWarnsAndAVerySteepYSlopeDropsTheTopography) {
  // 5 m rise over 2 m in x: 68.2 degrees.
  Load(Node_List_Text([](int i, int) { return 100.0 + 5.0 * i; }));
  ASSERT_EQ(Check_Topography_Data(*ds), 0);
  ASSERT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(rec.messages[0].title, "Data Error?");
  EXPECT_EQ(rec.messages[0].text, "Possible error in topography data point 1 on y-line 1.\nThe "
                                  "slope of the ground in the x-direction is\ngreater than 60 "
                                  "degrees!");
  EXPECT_EQ(ds->topo.num_steep_x, (nx - 1) * ny);
  EXPECT_EQ(ds->topo.num_steep_y, 0);
  EXPECT_EQ(ds->topo.grid_heights, 1);

  rec.Clear();
  Load(Node_List_Text([](int, int j) { return 100.0 + 5.0 * j; }));
  ASSERT_EQ(Check_Topography_Data(*ds), 0);
  ASSERT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(rec.messages[0].text, "Possible error in topography data point 1 on y-line 1.\nThe "
                                  "slope of the ground in the y-direction is\n68.20 that is "
                                  "greater than 60 degrees!");
  EXPECT_EQ(ds->topo.type, 1);

  // 10 m over 2 m: 78.7 degrees, past the limit where the topography goes.
  rec.Clear();
  Load(Node_List_Text([](int i, int j) { return 100.0 + (i == 2 && j == 1 ? 10.0 : 0.0); }));
  ASSERT_EQ(Check_Topography_Data(*ds), 0);
  ASSERT_EQ(rec.messages.size(), 3u); // x, y, and the further y message
  EXPECT_EQ(rec.messages[2].title, "Data Error?");
  EXPECT_EQ(rec.messages[2].text, "Possible error in topography data point 3 on y-line 1.\nThe "
                                  "slope of the ground in the y-direction is\n78.69 that is "
                                  "greater than 75 degrees!\nThe data will be inverted without "
                                  "the topography.");
  EXPECT_EQ(ds->topo.type, 0);
  EXPECT_EQ(ds->topo.grid_heights, 0);
  EXPECT_EQ(Grid_Height(2, 1), 0.0);
  EXPECT_EQ(ds->pe[2 + nx].z, 0.0);
  EXPECT_FALSE(Panel_Starts("Rectangular grid topography"));
}

TEST_F(OptionalSections, FixedRegionsAreOrderedAndClamped) {
  Load("FIXED REGIONS\n3\nRegion 1\n18.0  26.0  -2.0\n10.0  20.0  -8.0\n0.001\n0.5\n"
       "Region 2\n12 22 1\n14 24 6\n250\n20\nRegion 3\n10 20 0\n12 22 2\n2e5\n2e5\nGlobal\n");
  ASSERT_EQ(Check_Fixed_Regions(*ds), 0);
  const Fix_Regions &f = ds->Fix_regions;
  ASSERT_EQ(f.nfix, 3);
  EXPECT_FLOAT_EQ(f.x1[0], 0.0f);
  EXPECT_FLOAT_EQ(f.x2[0], 4.0f);
  EXPECT_FLOAT_EQ(f.y1[0], 0.0f);
  EXPECT_FLOAT_EQ(f.y2[0], 3.0f);
  EXPECT_FLOAT_EQ(f.z1[0], 0.0f); // negative top becomes 0
  EXPECT_FLOAT_EQ(f.z2[0], 4.0f); // negative bottom becomes its absolute value
  EXPECT_FLOAT_EQ(f.res[0], 0.01f);
  EXPECT_FLOAT_EQ(f.weight[0], 1.0f);
  EXPECT_FLOAT_EQ(f.z1[1], 0.5f);
  EXPECT_FLOAT_EQ(f.z2[1], 3.0f);
  EXPECT_FLOAT_EQ(f.res[1], 250.0f);
  EXPECT_FLOAT_EQ(f.weight[1], 20.0f);
  EXPECT_FLOAT_EQ(f.res[2], 100000.0f);
  EXPECT_FLOAT_EQ(f.weight[2], 100000.0f);
  EXPECT_TRUE(Panel_Has("Number of fixed regions is 3."));
  EXPECT_TRUE(Panel_Has("Fixed region 1 : Resistivity 0.010   Weight 1.0"));
  EXPECT_TRUE(Panel_Has("Fixed region 2 : Resistivity 250.000   Weight 20.0"));
  EXPECT_EQ(Next_Line(), "Global");

  ds->Data_ip.typeip = 1;
  Load("FIxed regions\n1\nRegion 1\n10 20 0 12 22 2\n100\n25\n5\n");
  ASSERT_EQ(Check_Fixed_Regions(*ds), 0);
  EXPECT_FLOAT_EQ(f.ip[0], 0.025f);
  EXPECT_FLOAT_EQ(f.weight[0], 5.0f);
  EXPECT_TRUE(Panel_Has("Fixed region 1 : Resistivity 100.000   IP 25.0   Weight 5.0"));
}

TEST_F(OptionalSections, FixedRegionsRefusalsAndLineTests) {
  Load("FIXED REGIONS\n0\n");
  EXPECT_EQ(Check_Fixed_Regions(*ds), 1);
  ASSERT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(rec.messages[0].title, "Data Error");
  EXPECT_EQ(rec.messages[0].text, "Too few fixed regions!\nMinimum number is 1.");

  ds->Data_lim_sys.nmax_fix_regions = 1;
  Load("fixed regions\n2\n");
  EXPECT_EQ(Check_Fixed_Regions(*ds), 1);
  EXPECT_EQ(rec.messages.back().text,
            "Number of fixed regions is 2.\nMaximum number allowed is 1.");

  const struct {
    const char *line;
    bool section;
  } cases[] = {{"FIXED\n", true},  {"Fixed\n", true},      {"fixed\n", true},
               {"xFiXED\n", true}, {"fIXED\n", false},     {"Floating\n", false},
               {"F\n", false},     {"Underwater\n", false}};
  for (const auto &c : cases) {
    rec.Clear();
    Load(std::string(c.line) + "0\n");
    EXPECT_EQ(Check_Fixed_Regions(*ds), c.section ? 1 : 0) << c.line;
    EXPECT_EQ(ds->img.pos == 0, !c.section) << c.line;
  }
}

TEST_F(OptionalSections, UnderwaterSurveyClassifiesTheNodes) {
  ds->topo.grid_heights = 1;
  std::fill(ds->topo.grid_z, ds->topo.grid_z + nodes, 40.0f); // 80 m, below the water
  Load(water_text + "0\n");
  ASSERT_EQ(Check_Underwater_Settings(*ds), 0);
  const Water_Layer &w = ds->water;
  EXPECT_EQ(w.kind, 2);
  EXPECT_DOUBLE_EQ(w.res, 0.25);
  EXPECT_DOUBLE_EQ(w.x2, 18.0);
  EXPECT_DOUBLE_EQ(w.elevation, 100.0);
  EXPECT_TRUE(Panel_Has("Water layer with resistivity 0.25 and elevation 100.0 present."));
  EXPECT_TRUE(Panel_Has("Exact geometric factor used."));
  EXPECT_TRUE(Panel_Has("All electrodes underwater."));
  EXPECT_TRUE(Panel_Has("Minimum and maximum water thickness are   2.0000e+01 and   2.0000e+01."));
  EXPECT_EQ(w.some_above, 0);

  // Resistance data take the surface factor; some land above the water.
  rec.Clear();
  ds->resistance = 1;
  ds->topo.grid_z[7] = 55.0f; // 110 m
  Load(water_text + "0\n");
  ASSERT_EQ(Check_Underwater_Settings(*ds), 0);
  EXPECT_EQ(w.kind, 1);
  EXPECT_TRUE(Panel_Has("Surface geometric factor used."));
  EXPECT_TRUE(Panel_Has("Some electrodes are above the water layer."));
  EXPECT_EQ(w.some_above, 1);
  EXPECT_NEAR(w.land_max, 10.1, 1e-9);

  // No node below the water: no water layer.
  rec.Clear();
  std::fill(ds->topo.grid_z, ds->topo.grid_z + nodes, 55.0f);
  Load(water_text + "1\n");
  ASSERT_EQ(Check_Underwater_Settings(*ds), 0);
  EXPECT_EQ(w.kind, 0);
  EXPECT_TRUE(Panel_Has("All of the electrodes are above the water level!"));
}

TEST_F(OptionalSections, UnderwaterRefusals) {
  const auto expect_refusal = [&](const std::string &start) {
    EXPECT_EQ(Check_Underwater_Settings(*ds), 1);
    if (rec.messages.empty()) {
      ADD_FAILURE() << "no refusal";
      return std::string();
    }
    EXPECT_EQ(rec.messages.back().title, "Data Error");
    const std::string &m = rec.messages.back().text;
    EXPECT_TRUE(Starts_With(m, start)) << m;
    return m.substr(start.size());
  };
  Load(water_text + "0\n");
  const std::string contact =
      expect_refusal("Sorry, you must have topographical data\nfor an underwater survey in this "
                     "version.\n");
  EXPECT_GT(contact.size(), 10u);
  EXPECT_EQ(contact.find('\n'), std::string::npos);

  const std::string floating = "Floating electrodes survey parameters\n";
  ds->resistance = 1;
  Load(floating);
  EXPECT_EQ(expect_refusal("Sorry, the option to use measurements in resistance with\nan "
                           "underwater survey is not yet available in this version.\n"),
            contact);
  ds->resistance = 0;
  ds->topo.num_points = 4;
  Load(floating);
  EXPECT_EQ(expect_refusal("Sorry, for a floating electrodes survey the water bottom "
                           "topographical\ndata must be given after the water parameters "
                           "setcion."),
            "");
}

TEST_F(OptionalSections, FloatingSurveyTurnsTheWaterBottomIntoAFixedBoundary) {
  std::string s = "Floating electrodes survey parameters\nResistivity of water layer\n0.2\n"
                  "Rectangular limits of water layer\n10,20,18,26\nElevation of water surface\n"
                  "100\nWater layer damping weight\n500\nWater bottom elevations\n";
  std::string bad = s;
  for (int j = ny - 1; j >= 0; j--) // any order: nodes are found by position
    for (int i = 0; i < nx; i++) {
      s += std::to_string(10 + 2 * i) + "," + std::to_string(20 + 2 * j) + "," +
           std::to_string(90 - i - j) + "\n";
      bad += std::to_string(10 + 2 * i) + "," + std::to_string(20 + 2 * j) + "," +
             (i == 1 && j == 1 ? "101" : "90") + "\n";
    }
  Load(s);
  ASSERT_EQ(Check_Underwater_Settings(*ds), 0);
  EXPECT_EQ(ds->water.kind, 3);
  EXPECT_DOUBLE_EQ(ds->water.damp_weight, 100.0);
  EXPECT_TRUE(Panel_Has("Floating electrodes survey. Water layer damping weight 100.00"));
  EXPECT_TRUE(Panel_Has("Minimum and maximum water thickness are   1.0000e+01 and   1.7000e+01."));
  EXPECT_TRUE(Panel_Has("Converting water layer bottom to sharp boundary."));
  const Sharp_Boundary &b = ds->Sharp_boundary;
  EXPECT_EQ(b.nregions, 2);
  EXPECT_EQ(b.npoints[0], nodes);
  EXPECT_EQ(b.fix[0], 1);
  EXPECT_DOUBLE_EQ(b.res[0], 0.2);
  EXPECT_DOUBLE_EQ(b.weight[0], 100.0);
  for (int j = 0; j < ny; j++)
    for (int i = 0; i < nx; i++)
      EXPECT_FLOAT_EQ(b.grid_depth[0][i + j * nx], (10.0f + i + j) / 2.0f);
  // With no sharp boundary section after it, the water bottom stays.
  EXPECT_EQ(Read_Sharp_Boundary(*ds, 0), 0);
  EXPECT_EQ(b.nregions, 2);

  Load(bad);
  EXPECT_EQ(Check_Underwater_Settings(*ds), 1);
  EXPECT_EQ(rec.messages.back().title, "Data Error");
  EXPECT_EQ(rec.messages.back().text,
            "The elevation of the water bottom at x-y coordinate\nof 12.00,22.00 is 101.00 is "
            "above the water elevation\nof 100.00. Check your data format.\nNote the elevation "
            "and not the water thickness\nis used in this daat format");
}

TEST_F(OptionalSections, SharpBoundaryIsReadClampedAndInterpolated) {
  Load(boundary_head +
       "25.0\nFix resistivity of model cells above boundary (0=No.1=Yes)\n1\nResistivity value\n"
       "50.000\nNumber of points on boundary\n4\nx and y and z coordinates of points\n"
       "10,20,4\n18,20,6\n10,26,8\n18,26,10\nFix resistivity of last region (0 or 1)\n1\n"
       "Group weight\n0\nResistivity of region\n0.01\nGlobal\n");
  ASSERT_EQ(Read_Sharp_Boundary(*ds, 0), 0);
  const Sharp_Boundary &s = ds->Sharp_boundary;
  EXPECT_EQ(s.nregions, 2);
  EXPECT_DOUBLE_EQ(s.weight[0], 10.0);
  EXPECT_EQ(s.fix[0], 1);
  EXPECT_DOUBLE_EQ(s.res[0], 50.0);
  ASSERT_EQ(s.npoints[0], 4);
  EXPECT_DOUBLE_EQ(s.x[0][1], 4.0);
  EXPECT_DOUBLE_EQ(s.z[0][3], 5.0);
  EXPECT_FLOAT_EQ(s.grid_depth[0][0], 2.0f);
  EXPECT_FLOAT_EQ(s.grid_depth[0][4], 3.0f);
  EXPECT_FLOAT_EQ(s.grid_depth[0][15], 4.0f);
  EXPECT_FLOAT_EQ(s.grid_depth[0][19], 5.0f);
  EXPECT_EQ(s.fix[1], 1);
  EXPECT_DOUBLE_EQ(s.weight[1], 1.0); // 0 becomes 1
  EXPECT_DOUBLE_EQ(s.res[1], 0.1);
  EXPECT_TRUE(Panel_Has("Number of sharp boundaries is 1."));
  EXPECT_TRUE(Panel_Has("Resistivity of region 1 set at 50.00."));
  char expected[120];
  std::snprintf(expected, sizeof expected, "Boundary 1 has 4 points with average depth %.3f.",
                s.average_depth[0] * 2.0);
  EXPECT_TRUE(Panel_Has(expected));
  EXPECT_GT(s.average_depth[0], 2.0);
  EXPECT_LT(s.average_depth[0], 5.0);
  EXPECT_TRUE(Progress_Has("Reading sharp boundary parameters"));
  EXPECT_TRUE(Progress_Has("Calculating depths at boundary 1 with 4 points."));
  EXPECT_TRUE(Progress_Has("Check fixed resistivity above sharp boundary"));
  EXPECT_EQ(Next_Line(), "Global");
}

TEST_F(OptionalSections, SharpBoundaryFaultsLeaveNoBoundary) {
  Load(boundary_head + "1.0\nNumber of points on boundary\n3\nx and y and z coordinates of "
                       "points\n10,20,4\n18,20,6\n10,26,8\n");
  EXPECT_EQ(Read_Sharp_Boundary(*ds, 0), 0);
  EXPECT_EQ(ds->Sharp_boundary.nregions, 1);
  EXPECT_TRUE(Panel_Has("The boundary must have at least 4 points."));

  ds->Sharp_boundary.capacity = 5;
  Load(boundary_head + "1.0\nNumber of points on boundary\n6\n");
  EXPECT_EQ(Read_Sharp_Boundary(*ds, 0), 0);
  EXPECT_EQ(ds->Sharp_boundary.nregions, 1);
  EXPECT_TRUE(Panel_Has("The boundary cannot have more than 5 points."));
  ds->Sharp_boundary.capacity = 4 * ds->Data_lim_sys.nmax_grid_xy;

  // Mode 1 needs one point per grid node.
  const std::string four = "1.0\nNumber of points on boundary\n4\nx and y and z coordinates of "
                           "points\n10,20,4\n18,20,6\n10,26,8\n18,26,10\n";
  Load(boundary_head + four);
  EXPECT_EQ(Read_Sharp_Boundary(*ds, 1), 0);
  EXPECT_EQ(ds->Sharp_boundary.nregions, 1);
  ASSERT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(rec.messages[0].title, "Error Message");
  EXPECT_EQ(rec.messages[0].text,
            "Number of boundary points is 4.\nNumber of surface electrodes is 20.\nThe present "
            "version requires the number of\npoints on the boundary to be the same as\nthe "
            "number of model grid positions.\n");

  std::string per_node = boundary_head + "1.0\nNumber of points on boundary\n20\nx, y, z\n";
  for (int k = 0; k < nodes; k++)
    per_node += std::to_string(10 + 2 * (k % nx)) + " " + std::to_string(20 + 2 * (k / nx)) + " " +
                std::to_string(k) + "\n";
  Load(per_node);
  EXPECT_EQ(Read_Sharp_Boundary(*ds, 1), 0);
  EXPECT_EQ(ds->Sharp_boundary.nregions, 2);
  EXPECT_FLOAT_EQ(ds->Sharp_boundary.grid_depth[0][13], 6.5f);

  // Line tests: a second character E is not this section; V sets the flag.
  Load("Vertical notes\n");
  Read_Sharp_Boundary(*ds, 0);
  EXPECT_EQ(ds->img.pos, 0);
  EXPECT_EQ(ds->Sharp_boundary.nregions, 1);
  Load("v" + boundary_head.substr(1) + four);
  Read_Sharp_Boundary(*ds, 0);
  EXPECT_EQ(ds->Sharp_boundary.v_flag, 1);
  EXPECT_EQ(ds->Sharp_boundary.nregions, 2);
}

TEST_F(OptionalSections, GlobalCoordinatesFitTheTransform) {
  // Rotation by 30 degrees and a shift; areas agree.
  const double c = std::cos(M_PI / 6), s = std::sin(M_PI / 6);
  std::vector<std::array<double, 4>> points;
  for (const auto &p : {std::array<double, 2>{0, 0}, {100, 0}, {0, 50}, {100, 50}})
    points.push_back({p[0], p[1], 500000 + c * p[0] - s * p[1], 4000000 + s * p[0] + c * p[1]});
  Load(Global_Text(points));
  ASSERT_EQ(Read_Global_Coordinates(*ds), 0);
  const Global_Coords &g = ds->global_coords;
  EXPECT_EQ(g.present, 1);
  EXPECT_EQ(g.npoints, 4);
  EXPECT_TRUE(Panel_Has("Global coordinates present. Number of reference points is 4."));
  double gx, gy;
  Local_To_Global(g, 50.0, 25.0, gx, gy);
  EXPECT_NEAR(gx, 500000 + c * 50 - s * 25, 1e-3);
  EXPECT_NEAR(gy, 4000000 + s * 50 + c * 25, 1e-3);
  EXPECT_TRUE(rec.messages.empty());
}

TEST_F(OptionalSections, GlobalCoordinatesRefusals) {
  const auto expect_refused = [&](const std::string &message) {
    EXPECT_EQ(Read_Global_Coordinates(*ds), 0);
    EXPECT_EQ(ds->global_coords.present, 0);
    EXPECT_EQ(ds->global_coords.npoints, 0);
    ASSERT_FALSE(rec.messages.empty());
    EXPECT_EQ(rec.messages.back().title, "Error Message");
    EXPECT_EQ(rec.messages.back().text, message);
  };
  std::vector<std::array<double, 4>> six(6, {0, 0, 0, 0});
  Load(Global_Text(six));
  expect_refused("Number of global coordinates points is 6.\nIt must be at least 3 and not more "
                 "than 6.");

  Load(Global_Text({{0, 0, 0, 0}, {1, 1, 5, 0}, {2, 2, 0, 5}}));
  expect_refused("Coordinates of first local point is         0.00,        0.00.\nCoordinates "
                 "of second local point is         1.00,        1.00.\nCoordinates of third local "
                 "point is         2.00,        2.00.\nThe 3 points must not be colinear!");

  Load(Global_Text({{0, 0, 0, 0}, {5, 0, 1, 1}, {0, 5, 2, 2}}));
  expect_refused("Coordinates of first global point is         0.00,        0.00.\nCoordinates "
                 "of second global point is         1.00,        1.00.\nCoordinates of third "
                 "global point is         2.00,        2.00.\nThe 3 points must not be colinear!");

  Load(Global_Text({{0, 0, 0, 0}, {100, 0, 101, 0}, {0, 50, 0, 50.5}}));
  expect_refused("Area of triangle formed by local points of      2500.00 is different from      "
                 "2550.25 for global points.\nThe difference in areas is 2.010% is too large!\n");

  Load("Global Coordinates present\nType of global coordinates\n1\n");
  expect_refused("Type of global coordinates must be 0!");

  Load("GLOBAL\n");
  EXPECT_EQ(Read_Global_Coordinates(*ds), 0);
  EXPECT_EQ(ds->img.pos, 0);
}

TEST_F(OptionalSections, EverySectionReadsBackAsWritten) {
  EXPECT_EQ(Written(*ds), ""); // nothing present, nothing written
  ds->Data_ip.typeip = 1;
  Load(Corner_Topography(80) + "Fixed regions\n2\nRegion 1\n10 20 0 14 24 3\n40\n12\n2\n" +
       "Region 2\n12 22 1 18 26 6\n400\n7.5\n30\n" + water_text + "0\n" + boundary_head +
       "2.5\nFix resistivity of model cells above boundary (0=No.1=Yes)\n1\nResistivity "
       "value\n75.5\nNumber of points on boundary\n4\nx and y and z coordinates of points\n" +
       "10,20,4\n18,20,6\n10,26,8\n18,26,10\nFix resistivity of last region (0 or 1)\n1\nGroup "
       "weight\n3.25\nResistivity of region\n900\n" +
       Global_Text({{0, 0, 1000, 2000}, {100, 0, 1100, 2000}, {0, 50, 1000, 2050}}));
  ASSERT_EQ(Read_After_Data(*ds), 0);
  ASSERT_EQ(ds->water.kind, 2);
  ASSERT_EQ(ds->global_coords.present, 1);
  std::string keep;
  const std::string written = Written(*ds);
  EXPECT_TRUE(Starts_With(written, "Topography present\n2\nTopography in unstructured list\n"));
  auto back = Read_Back(written, keep);

  const Topography &t = ds->topo, &t2 = back->topo;
  EXPECT_EQ(t2.type, t.type);
  ASSERT_EQ(t2.num_points, t.num_points);
  for (int k = 0; k < t.num_points; k++) {
    EXPECT_NEAR(t2.x[k], t.x[k], 1e-4);
    EXPECT_NEAR(t2.z[k], t.z[k], 1e-4);
  }
  for (int k = 0; k < nodes; k++)
    EXPECT_NEAR(t2.grid_z[k], t.grid_z[k], 1e-4);
  const Fix_Regions &f = ds->Fix_regions, &f2 = back->Fix_regions;
  ASSERT_EQ(f2.nfix, 2);
  for (int r = 0; r < 2; r++) {
    for (const auto m :
         {&Fix_Regions::x1, &Fix_Regions::y1, &Fix_Regions::z1, &Fix_Regions::x2, &Fix_Regions::y2,
          &Fix_Regions::z2, &Fix_Regions::weight, &Fix_Regions::res, &Fix_Regions::ip})
      EXPECT_NEAR((f2.*m)[r], (f.*m)[r], 1e-4);
  }
  EXPECT_FLOAT_EQ(f2.ip[1], 0.0075f);
  const Water_Layer &w = ds->water, &w2 = back->water;
  EXPECT_EQ(w2.kind, w.kind);
  EXPECT_EQ(w2.type_geofac, w.type_geofac);
  for (const auto m :
       {&Water_Layer::res, &Water_Layer::x1, &Water_Layer::y1, &Water_Layer::x2, &Water_Layer::y2,
        &Water_Layer::elevation, &Water_Layer::thick_min, &Water_Layer::thick_max})
    EXPECT_NEAR(w2.*m, w.*m, 1e-4);
  const Sharp_Boundary &s = ds->Sharp_boundary, &s2 = back->Sharp_boundary;
  ASSERT_EQ(s2.nregions, 2);
  ASSERT_EQ(s2.npoints[0], 4);
  for (int r = 0; r < 2; r++) {
    EXPECT_EQ(s2.fix[r], s.fix[r]);
    EXPECT_DOUBLE_EQ(s2.weight[r], s.weight[r]);
    EXPECT_DOUBLE_EQ(s2.res[r], s.res[r]);
  }
  for (int k = 0; k < 4; k++) {
    EXPECT_NEAR(s2.y[0][k], s.y[0][k], 1e-4);
    EXPECT_NEAR(s2.z[0][k], s.z[0][k], 1e-4);
  }
  for (int k = 0; k < nodes; k++)
    EXPECT_NEAR(s2.grid_depth[0][k], s.grid_depth[0][k], 1e-4);
  const Global_Coords &g = ds->global_coords, &g2 = back->global_coords;
  EXPECT_EQ(g2.present, 1);
  ASSERT_EQ(g2.npoints, 3);
  for (int k = 0; k < 3; k++) {
    EXPECT_DOUBLE_EQ(g2.a[k], g.a[k]);
    EXPECT_DOUBLE_EQ(g2.b[k], g.b[k]);
    EXPECT_DOUBLE_EQ(g2.gy[k], g.gy[k]);
  }
  EXPECT_EQ(Written(*back), written);
}

TEST_F(OptionalSections, FloatingSurveyAndFlaggedBoundaryReadBackAsWritten) {
  std::string s = "Floating electrodes survey parameters\nResistivity of water layer\n0.3\n"
                  "Rectangular limits of water layer\n10,20,18,26\nElevation of water surface\n"
                  "50\nWater layer damping weight\n7.5\nWater bottom elevations\n";
  for (int k = 0; k < nodes; k++)
    s += std::to_string(10 + 2 * (k % nx)) + "," + std::to_string(20 + 2 * (k / nx)) + "," +
         std::to_string(30 + k) + ".25\n";
  Load(s);
  ASSERT_EQ(Read_After_Data(*ds), 0);
  std::string keep;
  const std::string written = Written(*ds);
  EXPECT_EQ(written.find("Sharp layers"), std::string::npos); // rebuilt from the water layer
  auto back = Read_Back(written, keep);
  EXPECT_EQ(back->water.kind, 3);
  EXPECT_DOUBLE_EQ(back->water.damp_weight, 7.5);
  for (int k = 0; k < nodes; k++) {
    EXPECT_FLOAT_EQ(back->water.bottom[k], ds->water.bottom[k]);
    EXPECT_FLOAT_EQ(back->Sharp_boundary.grid_depth[0][k], ds->Sharp_boundary.grid_depth[0][k]);
  }
  EXPECT_EQ(back->Sharp_boundary.nregions, 2);

  // A boundary without fixed regions, caption flagged with V.
  Load("V" + boundary_head.substr(1) +
       "0.5\nNumber of points on boundary\n5\nx and y and z coordinates of points\n"
       "10,20,4\n18,20,6\n10,26,8\n18,26,10\n14,23,7\n");
  ASSERT_EQ(Read_After_Data(*ds), 0);
  const std::string flagged = Written(*ds);
  EXPECT_EQ(flagged.find("Fix resistivity"), std::string::npos);
  auto again = Read_Back(flagged, keep);
  EXPECT_EQ(again->Sharp_boundary.v_flag, 1);
  EXPECT_EQ(again->Sharp_boundary.npoints[0], 5);
  EXPECT_DOUBLE_EQ(again->Sharp_boundary.weight[0], 0.5);
  EXPECT_EQ(Written(*again), flagged);
}

// ---------------------------------------------------------------------------

namespace {

// Inverse-distance value over the four nearest points by a full sort.
double Brute_Nearest_Four(const std::vector<double> &x, const std::vector<double> &y,
                          const std::vector<double> &z, double px, double py) {
  std::vector<std::pair<double, int>> d;
  for (size_t p = 0; p < x.size(); p++)
    d.push_back({std::hypot(x[p] - px, y[p] - py), static_cast<int>(p)});
  std::sort(d.begin(), d.end());
  double sw = 0.0, sz = 0.0;
  for (size_t m = 0; m < std::min<size_t>(4, d.size()); m++) {
    sw += 1.0 / d[m].first;
    sz += z[d[m].second] / d[m].first;
  }
  return sz / sw;
}

} // namespace

TEST(OptionalSectionsInterpolation, BucketedNearestFourMatchesAFullSearch) {
  std::mt19937 gen(7);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  for (const bool on_a_line : {false, true}) {
    std::vector<double> x, y, z;
    for (int p = 0; p < 700; p++) {
      x.push_back(50.0 * u(gen));
      y.push_back(on_a_line ? 3.0 : 20.0 * u(gen) * u(gen)); // clustered towards y = 0
      z.push_back(100.0 + 10.0 * u(gen));
    }
    const Height_Interpolator h(x.data(), y.data(), z.data(), 700,
                                Height_Interpolator::nearest_four);
    for (int q = 0; q < 300; q++) {
      const double px = -10.0 + 70.0 * u(gen), py = -5.0 + 30.0 * u(gen); // some outside
      EXPECT_NEAR(h(px, py), Brute_Nearest_Four(x, y, z, px, py), 1e-9) << px << " " << py;
    }
  }
}

TEST(OptionalSectionsInterpolation, AllPointsWeightsAndSpecialCases) {
  const float x[3] = {0, 2, 0}, y[3] = {0, 0, 2}, z[3] = {1, 3, 5};
  const Height_Interpolator all(x, y, z, 3, Height_Interpolator::all_points);
  // At (1, 1): distances squared 2, 2, 2: the plain mean.
  EXPECT_NEAR(all(1.0, 1.0), 3.0, 1e-12);
  // At (1, 0): 1/1, 1/1, 1/5.
  EXPECT_NEAR(all(1.0, 0.0), (1.0 + 3.0 + 5.0 / 5.0) / 2.2, 1e-12);
  EXPECT_DOUBLE_EQ(all(2.0, 0.0), 3.0); // on a point
  const Height_Interpolator near(x, y, z, 3, Height_Interpolator::nearest_four);
  EXPECT_DOUBLE_EQ(near(0.0, 2.0), 5.0);
  EXPECT_NEAR(near(1.0, 1.0), 3.0, 1e-12); // fewer than four points: all of them
  const Height_Interpolator none(x, y, z, 0, Height_Interpolator::nearest_four);
  EXPECT_EQ(none(1.0, 1.0), 0.0);
}

TEST(OptionalSectionsInterpolation, LocalPlaneKeepsASlope) {
  // Scattered points on a plane sloping 20 degrees: the local plane gives
  // the plane back anywhere, inside and beyond the points; the weighted
  // means flatten it between points. Points on one line (no plane across
  // it) fall back to the nearest four.
  std::mt19937 gen(11);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<double> x, y, z;
  const auto plane = [](double px, double py) { return 30.0 + 0.364 * px - 0.1 * py; };
  for (int p = 0; p < 200; p++) {
    x.push_back(40.0 * u(gen));
    y.push_back(25.0 * u(gen));
    z.push_back(plane(x.back(), y.back()));
  }
  const Height_Interpolator local(x.data(), y.data(), z.data(), 200,
                                  Height_Interpolator::local_plane);
  const Height_Interpolator near(x.data(), y.data(), z.data(), 200,
                                 Height_Interpolator::nearest_four);
  double near_worst = 0.0;
  for (int q = 0; q < 200; q++) {
    const double px = -5.0 + 50.0 * u(gen), py = -5.0 + 35.0 * u(gen);
    EXPECT_NEAR(local(px, py), plane(px, py), 1e-9) << px << " " << py;
    near_worst = std::max(near_worst, std::fabs(near(px, py) - plane(px, py)));
  }
  EXPECT_GT(near_worst, 0.1);
  std::vector<double> lx, ly, lz;
  for (int p = 0; p < 12; p++) {
    lx.push_back(p);
    ly.push_back(2.0);
    lz.push_back(p * p);
  }
  const Height_Interpolator line(lx.data(), ly.data(), lz.data(), 12,
                                 Height_Interpolator::local_plane);
  const Height_Interpolator line4(lx.data(), ly.data(), lz.data(), 12,
                                  Height_Interpolator::nearest_four);
  EXPECT_DOUBLE_EQ(line(4.3, 5.0), line4(4.3, 5.0));
}
