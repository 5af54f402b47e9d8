// The results file writers: the header reads back as a data file, one model
// section per iteration, the value formats, the rows of calculated values,
// the summary's tables and error marks, and appending after a stopped run.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/test_support.h"
#include "forward/forward_test_support.h"
#include "results/results_file.h"

using namespace test_support;

namespace {

int Count_Tokens(const std::string &line) {
  std::istringstream in(line);
  int n = 0;
  for (std::string t; in >> t;)
    n++;
  return n;
}

// Index of the first line equal to `text` from `from`, or -1.
int Find_Line(const std::vector<std::string> &lines, const std::string &text, int from = 0) {
  for (int i = from; i < static_cast<int>(lines.size()); i++)
    if (lines[i] == text)
      return i;
  return -1;
}

std::string Value_Text(double v) {
  char *buf = nullptr;
  size_t size = 0;
  FILE *f = open_memstream(&buf, &size);
  Write_Results_Value(f, v);
  std::fclose(f);
  std::string s(buf, size);
  std::free(buf);
  return s;
}

// A read survey with a model and calculated values in its run state; datum
// `outlier` is calculated three times too high.
struct Results_Run : Example_Survey {
  static constexpr int outlier = 17;
  std::string path;

  explicit Results_Run(const char *name = "grid_9x14.dat") {
    if (Read_Example(name) != 0)
      return;
    Data_Set &d = *ds;
    path = tmp.sub("run.inv");
    d.LS.results_path = path;
    d.LS.Size(d.Model_grid.nmodel_blocks, d.mdata);
    for (int m = 0; m < d.LS.nmodel; m++)
      d.LS.rt[m] = static_cast<float>(20.0 + 7.5 * (m % 13));
    for (int i = 0; i < d.mdata; i++)
      d.LS.rm[i] = d.dp[i].value * (1.0f + 0.01f * ((i % 5) - 2));
    d.LS.rm[outlier] = d.dp[outlier].value * 3.0f;
    for (int it = 1; it <= 2; it++) {
      d.LS.hist_rms[it] = 6.0 / it;
      d.LS.hist_fmarq[it] = 0.15 / it;
      d.LS.hist_seconds[it] = 1.5 * it;
    }
  }
  // Header, then iterations 1 .. n.
  int Write_Iterations(int n) {
    Data_Set &d = *ds;
    if (printmodelh(d, path.c_str(), 0, 0.0812))
      return 1;
    for (int it = 1; it <= n; it++) {
      d.LS.nitcount = it;
      d.LS.nitcountres = it;
      d.LS.rmslog_res = 0.06 / it;
      if (Save_Model(d))
        return 1;
    }
    return 0;
  }
  std::string Text() const { return Read_File(path); }
};

TEST(ResultsValueWriter, FormatsChangeAtTheirBreakpoints) {
  const struct {
    double v;
    const char *text;
  } cases[] = {{0.0, "       0.000 "},   {1e-4, "   1.000e-04 "},   {0.0002, "    0.000200 "},
               {0.09, "    0.090000 "},  {0.1, "     0.10000 "},    {0.99, "     0.99000 "},
               {1.0, "      1.0000 "},   {9.5, "      9.5000 "},    {10.0, "      10.000 "},
               {999.5, "     999.500 "}, {1000.0, "      1000.0 "}, {99999.0, "     99999.0 "},
               {1e5, "   1.000e+05 "},   {-12.25, "     -12.250 "}, {-3e-5, "  -3.000e-05 "}};
  for (const auto &c : cases)
    EXPECT_EQ(Value_Text(c.v), c.text) << "value " << c.v;
}

TEST(ResultsValueWriter, DatumErrorFollowsTheInvertedQuantity) {
  EXPECT_NEAR(Calculate_Datum_Error(0, 110.0, 100.0, 9.0), std::log(1.1), 1e-12);
  EXPECT_NEAR(Calculate_Datum_Error(3, 110.0, 100.0, 9.0), std::log(1.21), 1e-12);
  // A calculated value at most 0 falls back to the relative difference.
  EXPECT_NEAR(Calculate_Datum_Error(0, 10.0, -10.0, 9.0), 2.0, 1e-12);
  EXPECT_NEAR(Calculate_Datum_Error(3, 10.0, 0.0, 9.0), 2.0, 1e-12);
  EXPECT_EQ(Calculate_Datum_Error(0, 0.0, 0.0, 1.0), 0.0);
  // Other quantities: the weighted difference.
  EXPECT_NEAR(Calculate_Datum_Error(2, 12.0, 10.0, 0.5), 1.0, 1e-12);
  EXPECT_NEAR(Calculate_Datum_Error(1, 8.0, 10.0, 3.0), -6.0, 1e-12);
}

// The header is a data file: written with two model sections and the
// summary after it, the file reads back to the same survey. Subsurface
// electrodes (four coordinates grouped by four), pole-dipole, topography and
// IP data alike.
TEST(ResultsFile, HeaderReadsBackAsDataFile) {
  for (const char *name : {"grid_9x14.dat", "borehole.dat", "grid_pole_dipole.dat",
                           "topography.dat", "ip_chargeability.dat"}) {
    Results_Run run(name);
    ASSERT_GT(run.ds->mdata, Results_Run::outlier) << name;
    ASSERT_EQ(run.Write_Iterations(2), 0) << name;
    ASSERT_EQ(Print_Summary(*run.ds, "End of test run"), 0) << name;
    const std::string copy = run.tmp.sub("run_copy.dat");
    std::filesystem::copy_file(run.path, copy);
    Example_Survey again;
    ASSERT_EQ(again.ds->Run_Command(CMD_READ_DATA, copy.c_str()), 0) << name;
    const Data_Set &a = *run.ds, &b = *again.ds;
    ASSERT_EQ(b.mdata, a.mdata) << name;
    EXPECT_EQ(b.num_point_elecs, a.num_point_elecs) << name;
    EXPECT_EQ(b.array, a.array) << name;
    EXPECT_EQ(b.subsurface_present, a.subsurface_present) << name;
    EXPECT_EQ(b.Data_ip.typeip, a.Data_ip.typeip) << name;
    EXPECT_EQ(b.topo.grid_heights, a.topo.grid_heights) << name;
    EXPECT_EQ(b.Model_grid.nmodel_blocks, a.Model_grid.nmodel_blocks) << name;
    EXPECT_NEAR(b.spxx, a.spxx, 1e-9) << name;
    for (int i = 0; i < a.mdata; i++) {
      const Data_Point &p = a.dp[i], &q = b.dp[i];
      ASSERT_EQ(q.nelec, p.nelec) << name << " datum " << i;
      EXPECT_NEAR(q.value, p.value, 1e-3 * std::fabs(p.value)) << name << " datum " << i;
      EXPECT_NEAR(q.ip_value, p.ip_value, 2e-6) << name << " datum " << i;
      for (int k = 0; k < 3; k++) {
        EXPECT_NEAR(q.c1[k], p.c1[k], 1e-4) << name << " datum " << i;
        EXPECT_NEAR(q.p2[k], p.p2[k], 1e-4) << name << " datum " << i;
      }
    }
    for (int e = 0; e < a.num_point_elecs; e++) {
      EXPECT_NEAR(b.pe[e].z, a.pe[e].z, 1e-4) << name << " electrode " << e;
      EXPECT_NEAR(b.pe[e].depth, a.pe[e].depth, 1e-4) << name << " electrode " << e;
    }
  }
}

TEST(ResultsFile, HeaderGeometryAndModelSections) {
  Results_Run run;
  ASSERT_GT(run.ds->mdata, 0);
  ASSERT_EQ(run.Write_Iterations(2), 0);
  const Data_Set &d = *run.ds;
  const Model_Grid &g = d.Model_grid;
  const std::vector<std::string> lines = Lines(run.Text());
  ASSERT_GT(lines.size(), 10u);
  EXPECT_EQ(lines[0], d.title);
  EXPECT_EQ(lines[1], "9,14");
  EXPECT_EQ(lines[2], "Nonuniform grid");
  EXPECT_EQ(lines[3], "X location of grid-lines");
  EXPECT_EQ(lines[4], "      0.0000       2.5000       5.0000       7.5000      10.0000      "
                      "12.5000      15.0000      17.5000      20.0000 ");
  EXPECT_EQ(lines[5], "Y location of grid-lines");
  EXPECT_EQ(Count_Tokens(lines[6]), 10);
  EXPECT_EQ(Count_Tokens(lines[7]), 4);
  EXPECT_EQ(lines[8], "3"); // dipole-dipole, stored as 5
  EXPECT_EQ(lines[13], "    1        0.0000,       0.0000,       0.0000");

  int count = 0;
  for (const std::string &l : lines)
    count += l.rfind("MODEL iteration", 0) == 0;
  EXPECT_EQ(count, 2);
  const int blocks = Find_Line(lines, "Coordinates of blocks");
  ASSERT_GT(blocks, 0);
  EXPECT_EQ(lines[blocks - 2], std::to_string(g.nlayers));
  EXPECT_EQ(Count_Tokens(lines[blocks - 1]), g.nlayers + 1);
  EXPECT_EQ(lines[blocks + 1], "Layer 1");
  EXPECT_EQ(lines[blocks + 2], "8  13");
  EXPECT_EQ(lines[blocks + 3], "Block 1");
  EXPECT_EQ(Count_Tokens(lines[blocks + 4]), 24);
  const int first = Find_Line(lines, "MODEL iteration 1");
  ASSERT_GT(first, blocks);
  EXPECT_EQ(lines[first - 1], "   8.120"); // the initial misfit in percent

  // Each layer: one line of 8 block values per block row.
  EXPECT_EQ(lines[first + 1], "LAYER 1");
  for (int j = 0; j < g.nblocky; j++)
    EXPECT_EQ(Count_Tokens(lines[first + 2 + j]), g.nblockx);
  EXPECT_EQ(lines[first + 2 + g.nblocky], "LAYER 2");
  const int calc = Find_Line(lines, "CALCULATED APPARENT RESISTIVITY", first);
  EXPECT_EQ(calc, first + 1 + g.nlayers * (g.nblocky + 1));
  const int rows = (d.mdata + 9) / 10;
  for (int r = 0; r < rows; r++)
    EXPECT_EQ(Count_Tokens(lines[calc + 1 + r]), r < rows - 1 ? 10 : d.mdata - 10 * (rows - 1));
  EXPECT_EQ(lines[calc + 1 + rows], "   6.000");
  EXPECT_EQ(lines[calc + 2 + rows], "MODEL iteration 2");
  EXPECT_EQ(lines.back(), "   3.000");
}

TEST(ResultsFile, CalculatedValuesInRowsOfTen) {
  Results_Run run;
  ASSERT_GT(run.ds->mdata, 40);
  Data_Set &d = *run.ds;
  const int full = d.mdata;
  for (int n : {30, 37}) {
    std::remove(run.path.c_str());
    d.mdata = n;
    ASSERT_EQ(printmodelh(d, run.path.c_str(), 1, 0.05), 0);
    d.mdata = full;
    const std::vector<std::string> lines = Lines(run.Text());
    const int calc = Find_Line(lines, "CALCULATED APPARENT RESISTIVITY");
    ASSERT_GT(calc, 0);
    const int rows = static_cast<int>(lines.size()) - calc - 2;
    EXPECT_EQ(rows, (n + 9) / 10) << n << " values";
    for (int r = 0; r < rows; r++)
      EXPECT_EQ(Count_Tokens(lines[calc + 1 + r]), std::min(10, n - 10 * r)) << n << " values";
    EXPECT_EQ(lines.back(), "   5.000");
  }
}

TEST(ResultsFile, SummaryTablesAndErrorMarks) {
  Results_Run run;
  ASSERT_GT(run.ds->mdata, 0);
  ASSERT_EQ(run.Write_Iterations(2), 0);
  ASSERT_EQ(Print_Summary(*run.ds, "End of test run"), 0);
  const Data_Set &d = *run.ds;
  const std::vector<std::string> lines = Lines(run.Text());
  EXPECT_GE(Find_Line(lines, "Topography removal parameters"), 0);
  EXPECT_GE(Find_Line(lines, "Inversion settings"), 0);
  EXPECT_EQ(Find_Line(lines, "Iteration  1 - Time taken in seconds       1.50, RMS error    6.000, "
                             "Damping factor   0.15000"),
            Find_Line(lines, "Resistivity inversion summary") + 1);
  const int table = Find_Line(lines, "Iter  App Res misfit   Model Res rough  Damping factor  "
                                     "Objective func Data misfit norm(%) Model rough norm");
  ASSERT_GT(table, 0);
  EXPECT_EQ(Count_Tokens(lines[table + 1]), 7);
  EXPECT_EQ(lines[table + 2].substr(0, 4), "   2");
  EXPECT_EQ(lines.back(), "End of test run");

  // The error column: e = log(observed / calculated); the outlier alone is
  // past 2.5 times the root mean square.
  double sum = 0.0;
  for (int i = 0; i < d.mdata; i++) {
    const double e = std::log(d.dp[i].value / static_cast<double>(d.LS.rm[i]));
    sum += e * e;
  }
  const double rms = std::sqrt(sum / d.mdata);
  char expected[64];
  std::snprintf(expected, sizeof expected, "Last iteration least-squares RMS error is %.2f",
                rms * 100.0);
  const int head = Find_Line(lines, expected);
  ASSERT_GT(head, 0);
  EXPECT_EQ(lines[head + 3], "Error distribution");
  EXPECT_EQ(lines[head + 4], "No. Elec.   CURRENT ELEC.1 CURRENT ELEC.2 POT. ELEC. P1   POT. ELEC. "
                             "P2   OBSERVED  CALCULATED");
  int marked = 0;
  for (int i = 0; i < d.mdata; i++) {
    const std::string &l = lines[head + 6 + i];
    ASSERT_EQ(l.substr(0, 3), " 4 ") << "datum " << i;
    EXPECT_EQ(Count_Tokens(l), 12 + (i == Results_Run::outlier)) << "datum " << i;
    const bool star = l.size() > 6 && l.compare(l.size() - 6, 6, "   ***") == 0;
    EXPECT_EQ(star, i == Results_Run::outlier) << "datum " << i;
    marked += star;
  }
  EXPECT_EQ(marked, 1);
  std::istringstream row(lines[head + 6 + Results_Run::outlier]);
  std::vector<double> v(11);
  int n = 0;
  row >> n;
  for (double &x : v)
    row >> x;
  EXPECT_NEAR(v[10], std::log(1.0 / 3.0), 1e-4);
}

TEST(ResultsFile, AppendingAfterAStoppedRunKeepsEarlierContent) {
  Results_Run run;
  ASSERT_GT(run.ds->mdata, 0);
  ASSERT_EQ(run.Write_Iterations(1), 0);
  const std::string before = run.Text();
  ASSERT_FALSE(before.empty());

  // The run goes on in a later call: every writer appends.
  Data_Set &d = *run.ds;
  d.LS.nitcount = 2;
  d.LS.nitcountres = 2;
  d.LS.rmslog_res = 0.03;
  ASSERT_EQ(Save_Model(d), 0);
  EXPECT_NEAR(d.LS.hist_rms[2], 3.0, 1e-12);
  ASSERT_EQ(Print_Summary(d, "End of test run"), 0);
  const std::string after = run.Text();
  ASSERT_GT(after.size(), before.size());
  EXPECT_EQ(after.compare(0, before.size(), before), 0);
  EXPECT_EQ(after.compare(before.size(), 18, "MODEL iteration 2\n"), 0);
}

TEST(ResultsFile, UnopenableFileIsReported) {
  Results_Run run;
  ASSERT_GT(run.ds->mdata, 0);
  const std::string bad = run.tmp.sub("missing/run.inv");
  run.rec.Clear();
  EXPECT_EQ(printmodelh(*run.ds, bad.c_str(), 0, 0.05), 1);
  ASSERT_FALSE(run.rec.progress_calls.empty());
  EXPECT_EQ(run.rec.progress_calls.back().text, "Error in opening file " + bad);
  run.ds->LS.results_path = bad;
  EXPECT_EQ(Print_Summary(*run.ds, "x"), 1);
  const Recorded_Message *m = run.rec.Last("File open error");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Error in opening file\n" + bad + ".");
  EXPECT_FALSE(Exists(bad));
}

} // namespace

TEST(ResultsFile, WriteFailuresAreReportedWithTheirReason) {
  // A results path that cannot take the file (here a folder): the header,
  // a model section and the summary each fail with the message and the
  // system's reason, not in silence.
  Results_Run run;
  Data_Set &d = *run.ds;
  const std::string folder = run.tmp.sub("a_folder");
  std::filesystem::create_directories(folder);
  d.LS.results_path = folder;
  run.rec.Clear();
  EXPECT_EQ(printmodelh(d, folder.c_str(), 0, 0.05), 1);
  EXPECT_EQ(printmodelh(d, folder.c_str(), 1, 0.05), 1);
  const test_support::Recorded_Message *m = run.rec.Last("File Error");
  ASSERT_NE(m, nullptr);
  EXPECT_NE(m->text.find("The results file " + folder + " could not be written (Is a directory)"),
            std::string::npos)
      << m->text;
  EXPECT_NE(Print_Summary(d, "End"), 0);
}
