// Reading and writing inversion settings files, and one setting from text.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/settings_table.h"
#include "test_support.h"

using namespace test_support;

namespace {

const Setting_Entry &Entry(const char *key) {
  const Setting_Entry *e = Find_Setting(key);
  EXPECT_NE(e, nullptr) << key;
  return *e;
}

// Writes `text` as an .ivp file in tmp and reads it into ds.
int Read_Ivp_Text(Data_Set &ds, const Temp_Folder &tmp, const std::string &text, int silent) {
  const std::string path = tmp.sub("text.ivp");
  Write_File(path, text);
  return readinvset(ds, silent, path.c_str());
}

TEST(IvpFile, WriterAndReaderAgreeOnEverySetting) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto a = Make_Data_Set(tmp, rec);
  // Move every setting off its default to a value inside its bounds.
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    if (e.kind == SK_FIXED)
      continue;
    const double v = e.kind == SK_REAL ? e.lo + (e.hi - e.lo) * 0.37 : std::ceil(e.lo);
    Store_Setting_Value(*a, e, v);
  }
  const std::string path = tmp.sub("all.ivp");
  ASSERT_EQ(Save_Inversion_Parameters(*a, path.c_str()), 0);

  Temp_Folder tmp2;
  auto b = Make_Data_Set(tmp2, rec);
  ASSERT_EQ(readinvset(*b, 1, path.c_str()), 0);
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    if (e.kind == SK_FIXED)
      continue;
    EXPECT_EQ(Format_Setting_Value(*a, e), Format_Setting_Value(*b, e)) << e.key;
  }
  // The fixed entries carry their digit whatever the state.
  const std::string text = Read_File(path);
  EXPECT_NE(text.find("Use AVX instructions (0=SSE,1=AVX,2=FMA/AVX2)\n0\n"), std::string::npos);
  EXPECT_NE(text.find("Use SSE registers in multi-CPU workstations? (0=No,1=Yes)\n1\n"),
            std::string::npos);
}

TEST(IvpFile, KeySearchFirstPlaceWholeLinesAndLineEnds) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  const int nit_before = ds->LS_method.nit;
  // CRLF line ends, trailing blanks, a repeated key (the first counts), a
  // caption that only starts like another ("Convergence limit for ...").
  ASSERT_EQ(Read_Ivp_Text(*ds, tmp,
                          "Inversion settings\r\n"
                          "Convergence limit for Incomplete Gauss-Newton method\r\n0.05\r\n"
                          "Number of iterations  \r\n6\r\n"
                          "Number of iterations\r\n9\r\n"
                          "Minimum damping factor\r\n0.00001\r\n",
                          0),
            0);
  EXPECT_EQ(ds->LS_method.nit, 6);
  EXPECT_NE(nit_before, 6);
  EXPECT_DOUBLE_EQ(ds->LS_method.cg_convlim, 0.05);
  EXPECT_DOUBLE_EQ(ds->LS_method.convergence_limit, Data_Set().LS_method.convergence_limit);
  EXPECT_DOUBLE_EQ(ds->LS_method.fmarqm, 0.0001); // clamped to its lower bound
  bool saw_panel = false;
  for (const auto &l : rec.panel_lines)
    saw_panel |= l.text == "Number of iterations  6";
  EXPECT_TRUE(saw_panel);
}

TEST(IvpFile, MissingShortAndWrongFiles) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  const double fmarq1 = ds->LS_method.fmarq1;

  EXPECT_EQ(readinvset(*ds, 0, tmp.sub("none.ivp").c_str()), 1);
  ASSERT_FALSE(rec.panel_lines.empty());
  EXPECT_TRUE(Starts_With(rec.panel_lines.back().text, "Cannot find the file "));

  Write_File(tmp.sub("short.ivp"), "Inv");
  EXPECT_EQ(readinvset(*ds, 0, tmp.sub("short.ivp").c_str()), 1);
  ASSERT_NE(rec.Last("Message"), nullptr);
  EXPECT_TRUE(Starts_With(rec.Last("Message")->text, "file error jread 3\n"));

  rec.Clear();
  Write_File(tmp.sub("bad.ivp"), "Settings of something else\nInitial damping factor\n0.5\n");
  EXPECT_EQ(readinvset(*ds, 1, tmp.sub("bad.ivp").c_str()), 1);
  EXPECT_TRUE(rec.messages.empty()) << "silent mode shows nothing";
  EXPECT_EQ(readinvset(*ds, 0, tmp.sub("bad.ivp").c_str()), 1);
  ASSERT_NE(rec.Last("Error in ivp file format"), nullptr);
  EXPECT_NE(rec.Last("Error in ivp file format")->text.find("\nSettings of something else\n"),
            std::string::npos);
  EXPECT_DOUBLE_EQ(ds->LS_method.fmarq1, fmarq1);
}

TEST(IvpFile, StartUpReadsKeptSettingsSilently) {
  Temp_Folder tmp;
  Front_End_Record rec;
  ASSERT_EQ(Make_Folders(tmp.sub("cfg/")), 0);
  Write_File(tmp.sub("cfg/ohmvol3d.ivp"), "Inversion settings\nNumber of iterations\n3\n");
  auto ds = Make_Data_Set(tmp, rec, 24 * gib, true);
  EXPECT_EQ(ds->LS_method.nit, 3);
  EXPECT_TRUE(rec.panel_lines.empty());
}

TEST(IvpFile, SettingFromTextAndChecksAfterRead) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  EXPECT_EQ(Set_Setting_Text(*ds, Entry("nit"), "5"), 0);
  EXPECT_EQ(ds->LS_method.nit, 5);
  EXPECT_EQ(Set_Setting_Text(*ds, Entry("nit"), "99"), 0);
  EXPECT_EQ(ds->LS_method.nit, static_cast<int>(Entry("nit").hi));
  EXPECT_EQ(Set_Setting_Text(*ds, Entry("nit"), "2.5"), 1);
  EXPECT_EQ(Set_Setting_Text(*ds, Entry("nit"), "five"), 1);
  EXPECT_EQ(Set_Setting_Text(*ds, Entry("fmarq1"), "1e-9"), 0);
  EXPECT_DOUBLE_EQ(ds->LS_method.fmarq1, 0.03);
  EXPECT_EQ(Set_Setting_Text(*ds, Entry("fmarq1"), "nan"), 1);
  EXPECT_EQ(Set_Setting_Text(*ds, Entry("use_avx_instructions"), "1"), 2);

  // A minimum damping above the initial one, a user IP reference outside
  // the IP limits, sequential IP with too few iterations.
  ASSERT_EQ(Read_Ivp_Text(*ds, tmp,
                          "Inversion settings\n"
                          "Initial damping factor\n0.2\nMinimum damping factor\n0.5\n"
                          "Use zero reference I.P. model value? (0=No,1=Yes, 2=user defined)\n2\n"
                          "Upper limit for IP model value (100 to 900 mV/V)\n200\n"
                          "User defined reference I.P. model value (0-900 mV/V)\n800\n"
                          "Use concurrrent or sequential IP inversion. (0=Concurrent, "
                          "1=Sequential)\n1\n"
                          "Number of iterations for sequential IP inversion. (5-16)\n2\n",
                          1),
            0);
  EXPECT_DOUBLE_EQ(ds->LS_method.fmarqm, 0.2);
  EXPECT_DOUBLE_EQ(ds->Data_ip.ip_ref_user, 200.0);
  EXPECT_EQ(ds->LS_method.nit_ip, 5);
}

} // namespace
