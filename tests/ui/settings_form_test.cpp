// How the settings stand in their dialogs: radio groups and check boxes
// from the entries' choice lists, the form texts, the check of typed values,
// and the dialogs of the menu commands against the settings table.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "core/commands.h"
#include "core/settings_table.h"
#include "ui/settings_form.h"

namespace {

Setting_Entry Entry(const char *caption, int kind, double lo, double hi,
                    const char *choices = nullptr, const char *form = nullptr) {
  Setting_Entry e{"probe", caption, "%d", kind, lo, hi, nullptr, "Probe", "", nullptr};
  e.form = form;
  e.choices = choices;
  return e;
}

std::string Labels(const std::vector<Setting_Choice> &c) {
  std::string s;
  for (const Setting_Choice &x : c)
    s += std::to_string(x.value) + ":" + x.label + ";";
  return s;
}

} // namespace

TEST(SettingsForm, ControlsFromChoiceLists) {
  std::vector<Setting_Choice> c;
  // A full list in the caption, "=" and "-" alike, blanks trimmed.
  Setting_Entry mesh = Entry(
      "Type of semi-structured mesh (0=Mixed,1=Uniform,2=Adaptive, 3-Adaptive Ext)", SK_INT, 0, 3);
  EXPECT_EQ(Setting_Control(mesh, c), CT_RADIO);
  EXPECT_EQ(Labels(c), "0:Mixed;1:Uniform;2:Adaptive;3:Adaptive Ext;");
  EXPECT_EQ(Setting_Form_Text(mesh), "Type of semi-structured mesh");
  // No and Yes, or "(0 or 1)": one box.
  EXPECT_EQ(Setting_Control(Entry("Use filter (0=No,1=Yes)", SK_INT, 0, 1), c), CT_CHECK);
  EXPECT_EQ(Setting_Control(Entry("Shift? (0=No or 1=Yes)", SK_INT, 0, 1), c), CT_CHECK);
  EXPECT_EQ(Setting_Control(Entry("Continue? (0 or 1)", SK_INT, 0, 1), c), CT_CHECK);
  EXPECT_TRUE(c.empty());
  // A caption list that misses values of the range, or names one outside
  // it, leaves the value to be typed.
  EXPECT_EQ(Setting_Control(Entry("Reduce? (0=No,1=Yes)", SK_INT, 0, 5), c), CT_EDIT);
  EXPECT_EQ(Setting_Control(Entry("Method (0=a,2=b)", SK_INT, 0, 2), c), CT_EDIT);
  EXPECT_EQ(Setting_Control(Entry("Method (0=a,1=b,2=c)", SK_INT, 0, 1), c), CT_EDIT);
  EXPECT_EQ(Setting_Control(Entry("Exponent (2,4,6)", SK_INT, 2, 6), c), CT_EDIT);
  EXPECT_EQ(Setting_Control(Entry("Limit (1 to 10)", SK_INT, 1, 10), c), CT_EDIT);
  EXPECT_TRUE(c.empty());
  // An entry's own list may leave values out and starts where it likes.
  Setting_Entry own = Entry("Exponent (2,4,6)", SK_INT, 2, 6, "2=2|4=4|6=6", "Exponent");
  EXPECT_EQ(Setting_Control(own, c), CT_RADIO);
  EXPECT_EQ(Labels(c), "2:2;4:4;6:6;");
  EXPECT_EQ(Setting_Form_Text(own), "Exponent");
  EXPECT_EQ(Setting_Control(Entry("x", SK_INT, 0, 2, "0=a|7=b"), c), CT_EDIT);
  // Real values are always typed.
  EXPECT_EQ(Setting_Control(Entry("Factor (0=a,1=b)", SK_REAL, 0, 1), c), CT_EDIT);
  // A caption on two lines stands on one.
  EXPECT_EQ(Setting_Form_Text(Entry("Line one\nline two", SK_REAL, 0, 1)), "Line one line two");
}

TEST(SettingsForm, TypedValuesAgainstTheBounds) {
  std::string why;
  Setting_Entry nit =
      Entry("Number of iterations", SK_INT, 1, 10, nullptr, "Iterations (1 to 10) :-");
  for (const char *ok : {"1", "10", " 5 ", "1e1", "007"})
    EXPECT_EQ(Check_Setting_Text(nit, ok, why), 0) << ok;
  for (const char *bad : {"0", "11", "2.5", "", "five", "5x", "nan", "inf", "0000000000000005"})
    EXPECT_EQ(Check_Setting_Text(nit, bad, why), 1) << bad;
  EXPECT_EQ(why, "Iterations (1 to 10) :-\nThe value must be a whole number from 1 to 10.");
  Setting_Entry damp = Entry("Initial damping factor", SK_REAL, 0.03, 10.0);
  for (const char *ok : {"0.03", "10", "2.5", ".5"})
    EXPECT_EQ(Check_Setting_Text(damp, ok, why), 0) << ok;
  for (const char *bad : {"0.0299", "10.01", "-1", "1,5"})
    EXPECT_EQ(Check_Setting_Text(damp, bad, why), 1) << bad;
  EXPECT_EQ(why, "Initial damping factor\nThe value must be a number from 0.03 to 10.");
}

// The table itself: every choice list is one the dialogs can show, and every
// menu command's dialog holds settings.
TEST(SettingsForm, TableChoicesAndCommandDialogs) {
  int radios = 0, checks = 0;
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    std::vector<Setting_Choice> c;
    const int kind = Setting_Control(e, c);
    if (e.choices) {
      EXPECT_NE(kind, CT_EDIT) << e.key << ": its own choice list is not shown";
    }
    std::set<int> values;
    for (const Setting_Choice &x : c) {
      EXPECT_TRUE(values.insert(x.value).second) << e.key << " repeats " << x.value;
      EXPECT_FALSE(x.label.empty()) << e.key;
    }
    EXPECT_FALSE(Setting_Form_Text(e).empty()) << e.key;
    radios += kind == CT_RADIO;
    checks += kind == CT_CHECK;
  }
  EXPECT_GT(radios, 10);
  EXPECT_GT(checks, 20);
  for (int id :
       {CMD_LAYER_THICKNESS, CMD_DAMPING, CMD_ITERATIONS, CMD_MESH_SETTINGS, CMD_FEM_SOLVER}) {
    const std::vector<const char *> titles = Dialog_Titles_Of(id);
    ASSERT_FALSE(titles.empty()) << id;
    for (const char *t : titles) {
      int n = 0;
      for (int i = 0; i < nsettings_table; i++)
        n += settings_table[i].dialog && std::strcmp(settings_table[i].dialog, t) == 0;
      EXPECT_GT(n, 0) << t;
    }
  }
  // Work not built yet has no dialog: its command refuses in the dispatcher.
  for (int id : {CMD_IP_OPTIONS, CMD_SEGMENT_OPTIONS, CMD_RESOLUTION, CMD_INVERT})
    EXPECT_TRUE(Dialog_Titles_Of(id).empty()) << id;
}
