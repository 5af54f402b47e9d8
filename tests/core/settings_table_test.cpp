// Invariants of the settings table: every .ivp setting once and in file order,
// a format that suits the member's type, and a default inside the bounds.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <regex>
#include <set>
#include <string>

#include "core/data_set.h"
#include "core/settings_table.h"

namespace {

// The .ivp list has 150 entries; three of them hold two caption/value pairs
// (the initial and minimum damping factors, and the robust data and robust
// model pairs with their cut-offs): 150 + 3 = 153 pairs; then the forward
// model's four (normalisation, nudging, the electrode table's source, the
// hexahedral element).
constexpr int ivp_pairs = 158;

std::unique_ptr<Data_Set> Make_Data_Set() {
  Start_Options opt;
  opt.total_mem_bytes = int64_t{8} << 30;
  opt.config_folder = ::testing::TempDir() + "settings_table_test_config/";
  opt.buffer_folder = ::testing::TempDir() + "settings_table_test_buffer/";
  return std::make_unique<Data_Set>(opt);
}

std::string Caption(int i) {
  return settings_table[i].caption;
}

} // namespace

TEST(SettingsTable, HoldsEveryPairOfTheFileInOrder) {
  ASSERT_EQ(nsettings_table, ivp_pairs);
  EXPECT_EQ(Caption(0), "Initial damping factor");
  EXPECT_EQ(Caption(1), "Minimum damping factor");
  EXPECT_EQ(Caption(2), "Line search option");
  EXPECT_EQ(Caption(15), "Robust data constrain?");
  EXPECT_EQ(Caption(16), "Cutoff factor for data constrain");
  EXPECT_EQ(Caption(17), "Robust model constrain?");
  EXPECT_EQ(Caption(18), "Cutoff factor for model constrain");
  EXPECT_EQ(Caption(ivp_pairs - 5), "User defined reference I.P. model value (0-900 mV/V)");
  EXPECT_EQ(Caption(ivp_pairs - 4), "Normalise potentials (0=No,1=Yes)");
  EXPECT_EQ(Caption(ivp_pairs - 2),
            "Type of hexahedral element (0=Averaged tetrahedra,1=Trilinear,2=Trilinear harmonic)");
}

TEST(SettingsTable, KeysAreUniqueCommandLineNames) {
  const std::regex name("[A-Za-z][A-Za-z0-9_]*");
  std::set<std::string> keys;
  for (int i = 0; i < nsettings_table; i++) {
    const char *key = settings_table[i].key;
    ASSERT_NE(key, nullptr) << i;
    EXPECT_TRUE(std::regex_match(key, name)) << key;
    EXPECT_TRUE(keys.insert(key).second) << "repeated key " << key;
    EXPECT_EQ(Find_Setting(key), &settings_table[i]) << key;
  }
  EXPECT_EQ(Find_Setting("no_such_setting"), nullptr);
  EXPECT_EQ(Find_Setting(""), nullptr);
  for (const char *key : {"nit", "fmarq1", "fmarqm", "incomplete_solve", "data_compression",
                          "dataconstr", "modelconstr", "line_search_option", "cpu_type_solver",
                          "type_ss_mesh", "use_dense_rect_mesh", "appres_inv"})
    EXPECT_NE(Find_Setting(key), nullptr) << key;
}

TEST(SettingsTable, CaptionsAreSingleDistinctLines) {
  std::set<std::string> seen;
  for (int i = 0; i < nsettings_table; i++) {
    const std::string c = Caption(i);
    ASSERT_FALSE(c.empty()) << i;
    EXPECT_EQ(c.find_first_of("\r\n"), std::string::npos) << c;
    EXPECT_NE(c.front(), ' ') << c;
    // The reader looks captions up without their trailing blanks.
    EXPECT_TRUE(seen.insert(c.substr(0, c.find_last_not_of(' ') + 1)).second) << c;
  }
}

TEST(SettingsTable, FormatSuitsKind) {
  const std::regex int_format("%d"), int64_format("%lld"), real_format("%[0-9]*\\.[0-9]+f");
  int fixed = 0, panels = 0;
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    ASSERT_NE(e.format, nullptr) << e.key;
    EXPECT_TRUE(e.dialog && e.dialog[0]) << e.key;
    EXPECT_TRUE(e.reason && e.reason[0]) << e.key;
    switch (e.kind) {
    case SK_INT:
      EXPECT_TRUE(std::regex_match(e.format, int_format)) << e.key;
      break;
    case SK_INT64:
      EXPECT_TRUE(std::regex_match(e.format, int64_format)) << e.key;
      break;
    case SK_REAL:
      EXPECT_TRUE(std::regex_match(e.format, real_format)) << e.key;
      break;
    case SK_FIXED:
      fixed++;
      EXPECT_TRUE(!std::strcmp(e.format, "0") || !std::strcmp(e.format, "1")) << e.key;
      EXPECT_EQ(e.member, nullptr) << e.key;
      EXPECT_EQ(e.lo, e.format[0] - '0') << e.key;
      EXPECT_EQ(e.hi, e.lo) << e.key;
      break;
    default:
      ADD_FAILURE() << "unknown kind " << e.kind << " of " << e.key;
    }
    if (e.kind != SK_FIXED) {
      EXPECT_NE(e.member, nullptr) << e.key;
      EXPECT_LE(e.lo, e.hi) << e.key;
    }
    if (e.panel) {
      // The caption, two blanks and one conversion of the member's kind.
      panels++;
      const std::string head = std::string(e.caption) + "  ";
      const std::string panel = e.panel;
      ASSERT_EQ(panel.compare(0, head.size(), head), 0) << e.key;
      const std::string tail = panel.substr(head.size());
      EXPECT_TRUE(std::regex_match(tail, e.kind == SK_INT ? int_format : real_format)) << e.key;
    }
  }
  EXPECT_EQ(fixed, 5);
  EXPECT_EQ(panels, 3);
}

TEST(SettingsTable, DefaultsLieWithinBounds) {
  auto ds = Make_Data_Set();
  const char *first = reinterpret_cast<const char *>(ds.get());
  std::set<const void *> members;
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    if (e.kind == SK_FIXED)
      continue;
    void *m = e.member(*ds);
    const char *p = static_cast<const char *>(m);
    ASSERT_TRUE(p >= first && p < first + sizeof(Data_Set)) << e.key;
    EXPECT_TRUE(members.insert(m).second) << e.key << " shares its member";
    double v = 0;
    if (e.kind == SK_INT)
      v = *static_cast<int *>(m);
    else if (e.kind == SK_INT64)
      v = static_cast<double>(*static_cast<int64_t *>(m));
    else
      v = *static_cast<double *>(m);
    EXPECT_GE(v, e.lo) << e.key;
    EXPECT_LE(v, e.hi) << e.key;
  }
}

TEST(SettingsTable, TellingBounds) {
  const Setting_Entry *initial = Find_Setting("fmarq1");
  const Setting_Entry *minimum = Find_Setting("fmarqm");
  ASSERT_TRUE(initial && minimum);
  EXPECT_DOUBLE_EQ(initial->lo, 0.03);
  EXPECT_DOUBLE_EQ(initial->hi, 10.0);
  EXPECT_DOUBLE_EQ(minimum->lo, 0.0001);
  EXPECT_STREQ(Find_Setting("nit")->panel, "Number of iterations  %d");
}
