// Reading data files end to end: round trips through File_Save, electrode
// numbers, geometric factors, sorting, repeats and the files a read writes.
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/test_support.h"
#include "survey/survey.h"

using namespace test_support;

namespace {

// The field-like ones: resistances with negative geometric factors on a
// slope (the reader swaps those electrodes), boreholes off the grid lines.
const char *const example_files[] = {
    "grid_dipole_dipole.dat", "grid_pole_dipole.dat", "borehole.dat",
    "topography.dat",         "ip_chargeability.dat", "time_lapse.dat",
    "field_slope11.dat",      "field_slope20.dat",    "field_boreholes.dat"};

std::string Example(const char *name) {
  return std::string(OHMVOL3D_EXAMPLES) + "/" + name;
}

// What a read produced, in user units, for comparison between two reads.
struct Survey_Copy {
  int mdata = 0, ntime = 0, typeip = 0, array = 0, array2 = 0, npe = 0;
  std::vector<Data_Point> dp;
  std::vector<Point_Electrode> pe;
  Topography topo;
  std::vector<float> topo_x;
  int nfix = 0;
};

Survey_Copy Copy_Survey(const Data_Set &ds) {
  Survey_Copy c;
  c.mdata = ds.mdata;
  c.ntime = ds.ntime;
  c.typeip = ds.Data_ip.typeip;
  c.array = ds.array;
  c.array2 = ds.array2;
  c.npe = ds.num_point_elecs;
  c.dp.assign(ds.dp, ds.dp + static_cast<int64_t>(ds.mdata) * ds.ntime);
  c.pe.assign(ds.pe, ds.pe + ds.num_point_elecs);
  c.topo = ds.topo;
  if (ds.topo.x)
    c.topo_x.assign(ds.topo.x, ds.topo.x + ds.topo.num_points);
  c.nfix = ds.Fix_regions.nfix;
  return c;
}

void Expect_Same_Point(const Data_Point &a, const Data_Point &b, size_t r) {
  SCOPED_TRACE("record " + std::to_string(r));
  EXPECT_EQ(a.nelec, b.nelec);
  EXPECT_EQ(a.nc1, b.nc1);
  EXPECT_EQ(a.np1, b.np1);
  if (a.nelec == 4) {
    EXPECT_EQ(a.nc2, b.nc2);
  }
  if (a.nelec > 2) {
    EXPECT_EQ(a.np2, b.np2);
  }
  for (int j = 0; j < 3; j++) {
    EXPECT_NEAR(a.c1[j], b.c1[j], 1e-6);
    EXPECT_NEAR(a.p1[j], b.p1[j], 1e-6);
    EXPECT_NEAR(a.c2[j], b.c2[j], 1e-6);
    EXPECT_NEAR(a.p2[j], b.p2[j], 1e-6);
  }
  // Values are written with at least 4 significant digits (3 decimals).
  EXPECT_NEAR(a.value, b.value, 5e-4 * std::max(1.0f, std::fabs(a.value)));
  EXPECT_NEAR(a.value_error, b.value_error, 5e-4 * std::max(1.0f, std::fabs(a.value_error)));
  EXPECT_NEAR(a.ip_value, b.ip_value, 1e-6);
  EXPECT_NEAR(a.gfac, b.gfac, 1e-9 * std::max(1.0, std::fabs(a.gfac)));
}

class Survey_Read : public ::testing::Test {
protected:
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds = Make_Data_Set(tmp, rec);

  int Read(const std::string &path) { return ds->Run_Command(CMD_READ_DATA, path.c_str()); }
  std::string Copy_Example(const char *name) {
    const std::string path = tmp.sub(name);
    std::filesystem::copy_file(Example(name), path);
    return path;
  }
};

TEST_F(Survey_Read, EveryExampleReadsAndRoundTripsThroughFileSave) {
  for (const char *name : example_files) {
    SCOPED_TRACE(name);
    rec.Clear();
    ASSERT_EQ(Read(Example(name)), 0);
    EXPECT_EQ(ds->data_read, 1);
    EXPECT_GE(ds->mdata, 35);
    EXPECT_EQ(rec.Count("File Error"), 0);
    const Survey_Copy first = Copy_Survey(*ds);
    const std::string saved = tmp.sub(std::string("saved_") + name);
    ASSERT_EQ(File_Save(*ds, saved.c_str()), 0);
    // The saved file reads with the same messages (no new warning, say of
    // negative apparent resistivities where resistances were saved as such).
    std::vector<std::string> said;
    for (const Recorded_Message &m : rec.messages)
      said.push_back(m.title);
    rec.Clear();
    ASSERT_EQ(Read(saved), 0);
    std::vector<std::string> said_again;
    for (const Recorded_Message &m : rec.messages)
      said_again.push_back(m.title);
    EXPECT_EQ(said, said_again);
    const Survey_Copy second = Copy_Survey(*ds);
    ASSERT_EQ(first.mdata, second.mdata);
    EXPECT_EQ(first.ntime, second.ntime);
    EXPECT_EQ(first.typeip, second.typeip);
    EXPECT_EQ(first.array, second.array);
    EXPECT_EQ(first.array2, second.array2);
    ASSERT_EQ(first.npe, second.npe);
    for (size_t r = 0; r < first.dp.size(); r++)
      Expect_Same_Point(first.dp[r], second.dp[r], r);
    for (int e = 0; e < first.npe; e++) {
      EXPECT_NEAR(first.pe[e].x, second.pe[e].x, 1e-6);
      EXPECT_NEAR(first.pe[e].y, second.pe[e].y, 1e-6);
      EXPECT_NEAR(first.pe[e].z, second.pe[e].z, 1e-5);
      EXPECT_NEAR(first.pe[e].depth, second.pe[e].depth, 1e-6);
    }
    EXPECT_EQ(first.topo.type, second.topo.type);
    ASSERT_EQ(first.topo.num_points, second.topo.num_points);
    for (size_t i = 0; i < first.topo_x.size(); i++)
      EXPECT_NEAR(first.topo_x[i], second.topo_x[i], 1e-5);
    // A second save writes the same bytes; resistances (made again from
    // the apparent resistivities) the same numbers to float precision.
    const std::string again = tmp.sub(std::string("again_") + name);
    ASSERT_EQ(File_Save(*ds, again.c_str()), 0);
    if (ds->resistance_file != 1) {
      EXPECT_EQ(Read_File(saved), Read_File(again));
    } else {
      std::istringstream a(Read_File(saved)), b(Read_File(again));
      std::string wa, wb;
      int words = 0;
      while (a >> wa && b >> wb && ++words) {
        char *ea = nullptr, *eb = nullptr;
        const double va = std::strtod(wa.c_str(), &ea), vb = std::strtod(wb.c_str(), &eb);
        if (*ea || *eb || ea == wa.c_str())
          ASSERT_EQ(wa, wb) << "word " << words;
        else
          ASSERT_NEAR(va, vb, 1e-6 * std::fabs(va)) << "word " << words;
      }
      EXPECT_FALSE(b >> wb) << "the second save is longer";
      EXPECT_GT(words, 1000);
    }
  }
}

TEST_F(Survey_Read, GeometricFactorsAreThoseOfTheArrays) {
  ASSERT_EQ(Read(Example("grid_dipole_dipole.dat")), 0);
  for (int i = 0; i < ds->mdata; i++) {
    const Data_Point &d = ds->dp[i];
    // Dipole-dipole on a line: G = pi n (n+1) (n+2) a with a = 2 m.
    const double a = 2.0;
    const double n = std::fabs(d.c1[0] - d.p1[0]) * ds->spxx / a;
    const double expected = M_PI * n * (n + 1) * (n + 2) * a;
    ASSERT_NEAR(ds->spxx / d.gfac, expected, 1e-4 * expected) << "point " << i;
    EXPECT_GT(d.gfac_rel_error, 0.0f);
    EXPECT_DOUBLE_EQ(d.work[0], ds->spxx / d.gfac); // the working factor in user units
  }
  ASSERT_EQ(Read(Example("grid_pole_dipole.dat")), 0);
  for (int i = 0; i < ds->mdata; i++) {
    const Data_Point &d = ds->dp[i];
    const double a = 2.0, n = std::fabs(d.c1[0] - d.p1[0]) * ds->spxx / a;
    const double expected = 2.0 * M_PI * n * (n + 1) * a;
    ASSERT_NEAR(ds->spxx / d.gfac, expected, 1e-4 * expected) << "point " << i;
  }
}

TEST_F(Survey_Read, ElectrodeNumbersPointAtTheElectrodesOfEachPoint) {
  ASSERT_EQ(Read(Example("borehole.dat")), 0);
  EXPECT_EQ(ds->num_point_elecs, 26);
  EXPECT_EQ(ds->num_grid_points, 50);
  EXPECT_EQ(ds->elec_list_incomplete, 0);
  auto same = [](const Point_Electrode &e, const double *p) {
    return std::fabs(e.x - p[0]) < 1e-9 && std::fabs(e.y - p[1]) < 1e-9 &&
           std::fabs(e.depth - p[2]) < 1e-9;
  };
  for (int i = 0; i < ds->mdata; i++) {
    const Data_Point &d = ds->dp[i];
    EXPECT_TRUE(same(ds->pe[d.nc1], d.c1));
    EXPECT_TRUE(same(ds->pe[d.nc2], d.c2));
    EXPECT_TRUE(same(ds->pe[d.np1], d.p1));
    EXPECT_TRUE(same(ds->pe[d.np2], d.p2));
  }
  // Only the two boreholes' electrodes carry the cross-hole data.
  EXPECT_EQ(ds->nelec_use, 16);
  // Sorted by (C1, C2, P1, P2) numbers.
  for (int i = 1; i < ds->mdata; i++) {
    const Data_Point &a = ds->dp[i - 1], &b = ds->dp[i];
    EXPECT_LE(std::tie(a.nc1, a.nc2, a.np1, a.np2), std::tie(b.nc1, b.nc2, b.np1, b.np2));
  }
}

TEST_F(Survey_Read, PositionsCloserThanHalfAMillimetreShareOneElectrode) {
  std::string text = Read_File(Example("grid_pole_dipole.dat"));
  // Move every data position by 0.0004 m: still the same electrodes.
  const size_t count = text.find("\n198\n");
  ASSERT_NE(count, std::string::npos);
  std::string head = text.substr(0, count + 5), body = text.substr(count + 5);
  std::string moved;
  for (size_t p = 0; p < body.size();) {
    size_t e = body.find('\n', p);
    std::string line = body.substr(p, e - p);
    p = e == std::string::npos ? body.size() : e + 1;
    std::istringstream in(line);
    std::vector<double> v;
    for (double x; in >> x;)
      v.push_back(x);
    if (v.size() == 7) {
      char buf[256];
      std::snprintf(buf, sizeof buf, "%.4f %.4f %.4f %.4f %.4f %.4f %.3f\n", v[0] + 0.0004,
                    v[1] + 0.0004, v[2] + 0.0004, v[3], v[4], v[5] - 0.0004, v[6]);
      moved += buf;
    } else {
      moved += line + "\n";
    }
  }
  const std::string path = tmp.sub("moved.dat");
  Write_File(path, head + moved);
  ASSERT_EQ(Read(path), 0);
  EXPECT_EQ(ds->elec_list_incomplete, 0);
  EXPECT_EQ(ds->missing_electrodes, 0);
  EXPECT_EQ(rec.Count("Old data format warning"), 0);
}

TEST_F(Survey_Read, MissingElectrodesGoToANewFileThatMustBeRead) {
  std::string text = Read_File(Example("grid_pole_dipole.dat"));
  // The first data point's P2 moves off the grid lines and out of the list.
  const size_t count = text.find("\n198\n");
  ASSERT_NE(count, std::string::npos);
  const size_t p2 = text.find("  4.000 0.000", count);
  ASSERT_NE(p2, std::string::npos);
  text.replace(p2, 13, "  5.000 1.000");
  const std::string path = tmp.sub("short.dat");
  Write_File(path, text);
  EXPECT_NE(Read(path), 0);
  EXPECT_EQ(ds->mdata, 0);
  ASSERT_EQ(rec.Count("Old data format warning"), 1);
  const Recorded_Message *missing = rec.Last("Missing electrodes");
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(missing->text, "Number of point electrodes 61\nNumber of missing electrodes 1");
  const std::string written = tmp.sub("short_new.dat");
  ASSERT_TRUE(Exists(written));
  const Recorded_Message *m = rec.Last("Data File");
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(Starts_With(m->text, "Data file in point electrodes format saved in\n" + written +
                                       "\nThe original file had 1 missing point electrodes."));
  // The new file lists the electrode and reads without missing ones.
  rec.Clear();
  ASSERT_EQ(Read(written), 0);
  EXPECT_EQ(ds->missing_electrodes, 0);
  EXPECT_EQ(ds->mdata, 198);
  EXPECT_EQ(ds->num_point_elecs, 61);
}

TEST_F(Survey_Read, AFileWithoutAnElectrodeListIsConvertedFromTheGridNodes) {
  std::string text = Read_File(Example("grid_pole_dipole.dat"));
  const size_t from = text.find("Point Electrodes"), to = text.find("\n198\n");
  ASSERT_NE(from, std::string::npos);
  text.erase(from, to + 1 - from);
  const std::string path = tmp.sub("nolist.dat");
  Write_File(path, text);
  EXPECT_NE(Read(path), 0);
  EXPECT_EQ(ds->mdata, 0);
  EXPECT_EQ(rec.Count("Old data format warning"), 0);
  const std::string written = tmp.sub("nolist_new.dat");
  ASSERT_TRUE(Exists(written));
  rec.Clear();
  ASSERT_EQ(Read(written), 0);
  EXPECT_EQ(ds->mdata, 198);
  // Only electrodes the data use are listed: pole-dipole lines use every node.
  EXPECT_EQ(ds->num_point_elecs, 60);
}

TEST_F(Survey_Read, RepeatedPointsAskBeforeAnythingIsWritten) {
  std::string text = Read_File(Example("grid_pole_dipole.dat"));
  // Repeat the first data line, with another value.
  const size_t count = text.find("\n198\n");
  const size_t line = count + 5, end = text.find('\n', line);
  std::string first = text.substr(line, end - line);
  text.replace(count, 5, "\n199\n");
  text.insert(end + 1, first.substr(0, first.rfind(' ')) + " 50.0\n");
  const std::string path = tmp.sub("repeat.dat");
  Write_File(path, text);

  rec.question_answer = 0;
  ASSERT_EQ(Read(path), 0);
  EXPECT_EQ(ds->mdata, 199);
  EXPECT_EQ(ds->num_repeated, 1);
  ASSERT_EQ(rec.questions.size(), 1u);
  EXPECT_EQ(rec.questions[0].title, "Remove repeated data points?");
  EXPECT_FALSE(Exists(tmp.sub("repeat_unique.dat")));

  rec.Clear();
  ds->quiet = 1;
  ASSERT_EQ(Read(path), 0);
  EXPECT_EQ(ds->mdata, 199);
  EXPECT_TRUE(rec.questions.empty());
  EXPECT_EQ(rec.Count("Repeated data info"), 0);
  ds->quiet = 0;

  rec.question_answer = 1;
  EXPECT_NE(Read(path), 0);
  EXPECT_EQ(ds->mdata, 0);
  ASSERT_TRUE(Exists(tmp.sub("repeat_unique.dat")));
  rec.Clear();
  ASSERT_EQ(Read(tmp.sub("repeat_unique.dat")), 0);
  EXPECT_EQ(ds->mdata, 198);
  EXPECT_TRUE(rec.questions.empty());
}

TEST_F(Survey_Read, ResistanceDataBecomeApparentResistivity) {
  // The pole-dipole example as resistances of the general array: R = rho / G.
  ASSERT_EQ(Read(Example("grid_pole_dipole.dat")), 0);
  const Survey_Copy rho = Copy_Survey(*ds);
  for (int i = 0; i < ds->mdata; i++)
    ds->dp[i].value = static_cast<float>(ds->dp[i].value * ds->dp[i].gfac); // R spxx
  ds->array = 11;
  ds->array2 = 6;
  ds->resistance = 1;
  const std::string path = tmp.sub("resistance.dat");
  ASSERT_EQ(File_Save(*ds, path.c_str()), 0);
  EXPECT_NE(Read_File(path).find("Type of data (0=Apparent Resistivity,1=Resistance)\n1\n"),
            std::string::npos);
  ASSERT_EQ(Read(path), 0);
  EXPECT_EQ(ds->resistance, 0); // converted
  ASSERT_EQ(ds->mdata, rho.mdata);
  for (int i = 0; i < ds->mdata; i++)
    EXPECT_NEAR(ds->dp[i].value, rho.dp[i].value, 2e-3 * rho.dp[i].value) << i;
}

TEST_F(Survey_Read, PointsPastTheGeometricFactorCutOffAreRemoved) {
  // The cut-off factor is 2 pi x 2 spxx x 628.4 x gfcut_ratio: 790 m here,
  // between the n = 4 (754 m) and n = 5 (1319 m) dipole-dipole points.
  ds->Data_filter.gfcut_ratio = 0.05;
  const std::string path = Copy_Example("grid_dipole_dipole.dat");
  ASSERT_EQ(Read(path), 0);
  // The removal asks for the sorted data in a new file.
  EXPECT_TRUE(Exists(tmp.sub("grid_dipole_dipole_sort.dat")));
  const Recorded_Message *m = rec.Last("Data Change");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Number of data points reduced from 150 to 132.");
  EXPECT_EQ(ds->mdata, 132);
  for (int i = 0; i < ds->mdata; i++)
    EXPECT_LT(ds->spxx / ds->dp[i].gfac, 790.0);
  // With every point kept, nothing changes.
  ds->Data_filter.large_gfac_action = 2;
  rec.Clear();
  ASSERT_EQ(Read(path), 0);
  EXPECT_EQ(rec.Count("Data Change"), 0);
  EXPECT_EQ(ds->mdata, 150);
}

TEST_F(Survey_Read, DataElectrodesOutsideTheGridAreRefused) {
  std::string text = Read_File(Example("grid_pole_dipole.dat"));
  const size_t count = text.find("\n198\n");
  ASSERT_NE(count, std::string::npos);
  // C1 of the first point. (A line that begins "1e" would be taken for the
  // error estimate section's caption.)
  for (const char *far : {"30.000 0.000", "0.000 1e999"}) {
    SCOPED_TRACE(far);
    std::string t = text;
    t.replace(t.find("0.000 0.000", count), 11, far);
    const std::string path = tmp.sub("far.dat");
    Write_File(path, t);
    rec.Clear();
    EXPECT_NE(Read(path), 0);
    EXPECT_EQ(ds->mdata, 0);
    const Recorded_Message *m = rec.Last("Data Error");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->text, "Error in data point 1!\nElectrode 1 is outside the model grid.\nThe x "
                       "limits are 0.000 to 18.000 and the y limits are 0.000 to 10.000.");
  }
}

TEST_F(Survey_Read, CancelledChooserChangesNothing) {
  ASSERT_EQ(Read(Example("grid_pole_dipole.dat")), 0);
  const int m = ds->mdata;
  rec.Clear();
  EXPECT_NE(ds->Run_Command(CMD_READ_DATA, ""), 0);
  EXPECT_EQ(ds->mdata, m);
  EXPECT_TRUE(rec.messages.empty());
  EXPECT_NE(Read(tmp.sub("no_such_file.dat")), 0);
  const Recorded_Message *e = rec.Last("File Error");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->text,
            "There is a problem in reading the following file\n" + tmp.sub("no_such_file.dat"));
}

} // namespace
