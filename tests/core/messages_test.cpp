// Progress, panel lines, check messages and the trace file.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

#include "core/messages.h"
#include "core/trace.h"
#include "test_support.h"

using namespace test_support;

TEST(Messages, ProgressClampsCutsAndReturnsThePumpResult) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);

  EXPECT_EQ(progress(*ds, "Reading data point 5/10", 0.25), 0);
  ASSERT_EQ(rec.progress_calls.size(), 1u);
  EXPECT_EQ(rec.progress_calls[0].text, "Reading data point 5/10");
  EXPECT_DOUBLE_EQ(rec.progress_calls[0].fraction, 0.25);
  EXPECT_DOUBLE_EQ(ds->status_fraction, 0.25);

  progress(*ds, "full", 1.7);
  EXPECT_DOUBLE_EQ(rec.progress_calls.back().fraction, 1.0);
  EXPECT_DOUBLE_EQ(ds->status_fraction, 1.0);
  progress(*ds, "empty", -0.4);
  EXPECT_DOUBLE_EQ(rec.progress_calls.back().fraction, 0.0);
  progress(*ds, "nan", std::numeric_limits<double>::quiet_NaN());
  EXPECT_DOUBLE_EQ(rec.progress_calls.back().fraction, 0.0);
  EXPECT_DOUBLE_EQ(ds->status_fraction, 0.0);

  ds->status_width_chars = 10;
  progress(*ds, "Calculating FEM partial derivatives", 0.5);
  EXPECT_STREQ(ds->status_text, "Calculatin");
  EXPECT_EQ(rec.progress_calls.back().text, "Calculatin");
  ds->status_width_chars = 10000; // wider than the status buffer
  const std::string long_text(400, 'x');
  progress(*ds, long_text.c_str(), 0.5);
  EXPECT_EQ(std::string(ds->status_text), long_text.substr(0, sizeof ds->status_text - 1));

  rec.pump_result = 1; // a quit request was seen
  EXPECT_EQ(progress(*ds, "quit", 0.0), 1);
  ds->fe.progress = nullptr;
  EXPECT_EQ(progress(*ds, "no front end", 0.0), 0);
  EXPECT_STREQ(ds->status_text, "no front end");
}

TEST(Messages, PanelCursorAndQuietChecks) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);

  ds->panel_y = 100;
  ds->panel_line_height = 20;
  panel_text(*ds, "Reading file");
  EXPECT_EQ(ds->panel_y, 120);
  panel_text_params(*ds, "Number of layers is 8.");
  EXPECT_EQ(ds->panel_y, 141);
  panel_text_params(*ds, "Number of model blocks is 512.");
  EXPECT_EQ(ds->panel_y, 162);
  ASSERT_EQ(rec.panel_lines.size(), 3u);
  EXPECT_EQ(rec.panel_lines[0].text, "Reading file");
  EXPECT_EQ(rec.panel_lines[0].indent, 0);
  EXPECT_EQ(rec.panel_lines[1].text, "Number of layers is 8.");
  EXPECT_EQ(rec.panel_lines[1].indent, 1);

  ds->quiet = 1;
  show_check_message(*ds, "Too many data points", "Data Error");
  EXPECT_TRUE(rec.messages.empty());
  ds->quiet = 0;
  show_check_message(*ds, "Too many data points", "Data Error");
  ASSERT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(rec.messages[0].title, "Data Error");
  EXPECT_EQ(rec.messages[0].text, "Too many data points");
  EXPECT_EQ(rec.messages[0].kind, MK_WARNING);
  show_message(*ds, "Inversion parameters saved", "Message", MK_INFORMATION);
  EXPECT_EQ(rec.messages.back().kind, MK_INFORMATION);
}

TEST(Trace, CreateTraceFileAndAppendLines) {
  Trace_Off_Guard guard;
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  const std::string trace_path = tmp.sub("buf/o3dtracesx64_Ohm3d.txt");
  const std::string memory_path = tmp.sub("buf/o3dmem.txt");
  ASSERT_EQ(std::string(trace_rec.trace_name), trace_path);
  ASSERT_EQ(std::string(trace_rec.memory_name), memory_path);

  // Off: nothing is written and the arguments are not evaluated.
  int evaluated = 0;
  TRACE("never %d\n", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  EXPECT_FALSE(Exists(trace_path));

  ASSERT_EQ(Create_Trace_File(*ds), 0);
  EXPECT_EQ(trace_rec.trace_on, 1);
  EXPECT_TRUE(Starts_With(Read_File(trace_path), "3D trace file\n\n\nTemporary buffer files\n"))
      << Read_File(trace_path);
  EXPECT_EQ(Read_File(memory_path), "\nMemory trace file\n");
  const Recorded_Message *m = rec.Last("Trace File Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Program trace file\n" + trace_path + "\nwas created.");

  const size_t before = Read_File(trace_path).size();
  TRACE("Read_Data_Points exit ierr %d\n", 0);
  TRACE("Data_Set::Scale_Positions() start\n");
  const std::string after = Read_File(trace_path);
  EXPECT_EQ(after.substr(before),
            "Read_Data_Points exit ierr 0\nData_Set::Scale_Positions() start\n");
  TRACE_MEMORY("Invert_Data_Set start mem_free_check %lld\n", 123LL);
  EXPECT_EQ(Read_File(memory_path),
            "\nMemory trace file\nInvert_Data_Set start mem_free_check 123\n");
  EXPECT_EQ(Read_File(trace_path), after); // the memory line went only to its own file

  // Threads that trace at once write whole lines: none lost, none mixed, no
  // stray bytes.
  constexpr int lines = 400;
  const char *const forms[2] = {"line %03d even",
                                "line %03d of an odd turn, padded to some length"};
#pragma omp parallel for num_threads(4) schedule(static, 1)
  for (int i = 0; i < lines; i++)
    TRACE(i % 2 ? "line %03d of an odd turn, padded to some length\n" : "line %03d even\n", i);
  const std::string text = Read_File(trace_path).substr(after.size());
  EXPECT_EQ(text.find('\0'), std::string::npos);
  std::vector<int> seen(lines, 0);
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    const std::string line = text.substr(start, end - start);
    int i = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "line %d", &i), 1) << line;
    ASSERT_TRUE(i >= 0 && i < lines) << line;
    char expected[128];
    std::snprintf(expected, sizeof expected, forms[i % 2], i);
    EXPECT_EQ(line, expected);
    seen[i]++;
    start = end + 1;
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), lines);
}

TEST(Trace, UnusableFolderLeavesTracingOff) {
  Trace_Off_Guard guard;
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);

  Write_File(tmp.sub("plain_file"), "x");
  Set_Trace_Paths(tmp.sub("plain_file/buffer/"));
  const std::string trace_path = tmp.sub("plain_file/buffer/o3dtracesx64_Ohm3d.txt");
  EXPECT_EQ(Create_Trace_File(*ds), 1);
  EXPECT_EQ(trace_rec.trace_on, 0);
  const Recorded_Message *m = rec.Last("Trace File Error Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Could not create trace file\n" + trace_path +
                         "\nYou need to check the buffer drive set is valid.");
  EXPECT_EQ(rec.Count("Trace File Message"), 0);
}

TEST(Trace, VanishingTraceFolderTurnsTracingOffSilently) {
  Trace_Off_Guard guard;
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);

  const std::string folder = tmp.sub("trace_here/");
  ASSERT_TRUE(std::filesystem::create_directory(folder));
  Set_Trace_Paths(folder);
  ASSERT_EQ(Create_Trace_File(*ds), 0);
  ASSERT_EQ(trace_rec.trace_on, 1);
  std::filesystem::remove_all(folder);
  rec.Clear();

  TRACE("line after the folder went %d\n", 1);
  EXPECT_EQ(trace_rec.trace_on, 0);
  EXPECT_TRUE(rec.messages.empty());
  EXPECT_FALSE(Exists(folder));
  int evaluated = 0;
  TRACE("%d\n", ++evaluated); // off again: the guard holds
  EXPECT_EQ(evaluated, 0);
}
