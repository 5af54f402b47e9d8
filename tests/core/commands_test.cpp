// The command dispatcher: gates and their refusals, commands not built yet,
// the settings and buffer folder commands, the exit flow.
#include <gtest/gtest.h>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/settings_table.h"
#include "core/trace.h"
#include "test_support.h"

using namespace test_support;

namespace {

struct Gate_Case {
  int id;
  const char *text;
  int kind;
};

TEST(Commands, GatesRefuseWithTheirTexts) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  const Gate_Case cases[] = {
      {CMD_INVERT, "You must first read in a data file", MK_WARNING},
      {CMD_GEOMETRIC_FILTER, "You need to first read in a data file!", MK_PLAIN},
      {CMD_DISPLAY_GRID, "You must first read in a data file!", MK_INFORMATION},
      {CMD_LAYER_DEPTHS, "You need to read in a data file!", MK_WARNING},
      {CMD_DISPLAY_MODEL, "You need to first read in a file with the inversion results.",
       MK_WARNING},
      {CMD_EXPORT_VTK, "You need to first read in a file with the inversion results.", MK_WARNING},
      {CMD_LCURVE_PLOT, "You need to first read in a file with the inversion results.", MK_WARNING},
      {CMD_INV_READ_NOOP, "You need to first read in a file with the inversion results.",
       MK_WARNING},
  };
  for (const Gate_Case &c : cases) {
    rec.Clear();
    EXPECT_EQ(ds->Run_Command(c.id), 1) << c.id;
    ASSERT_EQ(rec.messages.size(), 1u) << c.id;
    EXPECT_EQ(rec.messages[0].title, "Message");
    EXPECT_EQ(rec.messages[0].text, c.text) << c.id;
    EXPECT_EQ(rec.messages[0].kind, c.kind) << c.id;
    EXPECT_EQ(ds->current_command, c.id);
  }
  // Data read without data points still refuses the run; data points
  // without a model grid stop at the run's own check.
  ds->data_read = 1;
  rec.Clear();
  EXPECT_EQ(ds->Run_Command(CMD_INVERT), 1);
  EXPECT_EQ(rec.messages.at(0).text, "You must first read in a data file");
  ds->mdata = 20;
  rec.Clear();
  EXPECT_EQ(ds->Run_Command(CMD_INVERT), 1);
  EXPECT_EQ(rec.messages.at(0).text, "You must first read in a data file");
  // A command that is not built says so.
  rec.Clear();
  EXPECT_EQ(ds->Run_Command(CMD_SEGMENT_OPTIONS), 1);
  EXPECT_EQ(rec.messages.at(0).text, "This command is not available yet.");
  // The model settings' follow-up has nothing to do without data.
  rec.Clear();
  ds->mdata = 0;
  EXPECT_EQ(ds->Run_Command(CMD_MESH_SETTINGS), 0);
  EXPECT_TRUE(rec.messages.empty());
}

TEST(Commands, NoOpsUnknownIdsAndDisplayMode) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  ds->display_mode = 2;
  EXPECT_EQ(ds->Run_Command(CMD_TEST_WAVELETS), 0);
  EXPECT_EQ(ds->Run_Command(CMD_FILTER_GEOM_ERRORS), 0);
  EXPECT_TRUE(rec.messages.empty());
  EXPECT_EQ(ds->display_mode, 0);
  EXPECT_EQ(ds->Run_Command(123456), 1);
  EXPECT_FALSE(Is_Known_Command(123456));
  EXPECT_FALSE(Is_Built_Command(123456));
  EXPECT_FALSE(Is_Built_Command(CMD_SEGMENT_OPTIONS));
  EXPECT_TRUE(Is_Built_Command(CMD_MESH_SETTINGS));
  EXPECT_TRUE(rec.messages.empty()) << "unknown ids are not the core's to answer";
  ds->inv_read = 1;
  EXPECT_EQ(ds->Run_Command(CMD_INV_READ_NOOP), 0);
}

TEST(Commands, SettingsFilesAndListing) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  const std::string path = tmp.sub("s.ivp");
  EXPECT_EQ(ds->Run_Command(CMD_SAVE_IVP, path.c_str()), 0);
  ASSERT_NE(rec.Last("Message"), nullptr);
  EXPECT_EQ(rec.Last("Message")->text, "Inversion parameters saved in file\n" + path);
  EXPECT_EQ(ds->Run_Command(CMD_READ_IVP, path.c_str()), 0);
  EXPECT_EQ(rec.Last("Message")->text, "Inversion settings from file\n" + path + " restored.");
  EXPECT_EQ(ds->Run_Command(CMD_SAVE_IVP, "/nonexistent-folder/s.ivp"), 1);
  EXPECT_NE(rec.Last("File Error"), nullptr);
  // A cancelled chooser changes nothing.
  rec.Clear();
  EXPECT_EQ(ds->Run_Command(CMD_READ_IVP, nullptr), 0);
  EXPECT_TRUE(rec.messages.empty());

  rec.Clear();
  EXPECT_EQ(ds->Run_Command(CMD_LIST_SETTINGS), 0);
  EXPECT_EQ(rec.panel_lines.size(), static_cast<size_t>(nsettings_table));
  EXPECT_TRUE(Starts_With(rec.panel_lines[0].text, "fmarq1 "));
}

TEST(Commands, TraceBufferFolderAndExit) {
  Trace_Off_Guard guard;
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  rec.question_answer = 0;
  EXPECT_EQ(ds->Run_Command(CMD_TRACE), 0);
  EXPECT_EQ(trace_rec.trace_on, 0);
  EXPECT_EQ(rec.questions.size(), 1u) << "no answer given: the dialog asks";
  EXPECT_EQ(ds->Run_Command(CMD_TRACE, "1"), 0);
  EXPECT_EQ(trace_rec.trace_on, 1);
  EXPECT_TRUE(Exists(tmp.sub("buf/o3dtracesx64_Ohm3d.txt")));

  // A new buffer folder moves the temporary files and the next trace file.
  const std::string other = tmp.sub("other/");
  EXPECT_EQ(ds->Run_Command(CMD_BUFFER_FOLDER, other.c_str()), 0);
  EXPECT_EQ(ds->file_names.temp[TF_JACOBIAN], other + "jacobian.bin");
  EXPECT_EQ(std::string(trace_rec.trace_name), other + "o3dtracesx64_Ohm3d.txt");

  EXPECT_EQ(ds->Run_Command(CMD_SAVE_SORTED, "1"), 0);
  EXPECT_EQ(ds->save_sorted_next_read, 1);

  Write_File(ds->file_names.temp[TF_GRROWT_RES], "x");
  Write_File(ds->file_names.temp[TF_JACOBIAN], "x");
  EXPECT_EQ(ds->Run_Command(CMD_EXIT), 0);
  EXPECT_FALSE(Exists(ds->file_names.temp[TF_GRROWT_RES]));
  EXPECT_TRUE(Exists(ds->file_names.temp[TF_JACOBIAN]));
  const std::string ini = Read_File(tmp.sub("cfg/ohmvol3d.ini"));
  EXPECT_NE(ini.find("buffer=" + other + "\n"), std::string::npos) << ini;
}

TEST(Commands, ProgramInfoIsThePanelReport) {
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec, 300 * gib);
  EXPECT_EQ(ds->Run_Command(CMD_PROGRAM_INFO), 0);
  ASSERT_GT(rec.panel_lines.size(), 10u);
  EXPECT_EQ(rec.panel_lines[0].text, "Program and System Configuration");
  EXPECT_EQ(rec.panel_lines[1].text, "PC configuration :-");
  std::string all;
  for (const auto &l : rec.panel_lines)
    all += l.text + "\n";
  EXPECT_NE(all.find("Maximum model allowed 6000000\n"), std::string::npos);
  EXPECT_NE(all.find("Maximum electrodes allowed 3000000\n"), std::string::npos);
  EXPECT_NE(all.find("Maximum mesh cells 112000000\n"), std::string::npos);
}

} // namespace
