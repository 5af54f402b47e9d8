// Program settings file, temporary file names, value files, disk estimates,
// the buffer folder and memory blocks.
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <set>
#include <unistd.h>
#include <vector>

#include "core/ini_file.h"
#include "core/memory.h"
#include "core/temp_files.h"
#include "test_support.h"

using namespace test_support;

TEST(IniFile, WriteThenReadKeepsEveryValueInFixedOrder) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Ini_Settings out;
  out.paint = "gimp";
  out.editor = "vim";
  out.extension = "*.txt";
  out.input = "/data/in"; // a closing '/' is added on writing
  out.output = "/data/out/";
  out.buffer = "/scratch/buf/";
  out.graphics_type = 2;
  const std::string path = tmp.sub("ohmvol3d.ini");
  ASSERT_EQ(out.Write(path), 0);
  EXPECT_EQ(Read_File(path), "[programs]\neditor=vim\n[files]\nextension=*.txt\ninput=/data/in/\n"
                             "output=/data/out/\nbuffer=/scratch/buf/\n[Settings]\n"
                             "Graphics file type=png\n");

  Ini_Settings in;
  ASSERT_EQ(in.Read(path, "/prog/"), 0);
  EXPECT_EQ(in.paint, "pbrush.exe"); // not written back, so the default stands
  EXPECT_EQ(in.editor, "vim");
  EXPECT_EQ(in.extension, "*.txt");
  EXPECT_EQ(in.input, "/data/in/");
  EXPECT_EQ(in.output, "/data/out/");
  EXPECT_EQ(in.buffer, "/scratch/buf/");
  EXPECT_EQ(in.buffer_set, 1);
  EXPECT_EQ(in.graphics_type, 2);

  EXPECT_EQ(out.Write(tmp.sub("no/such/folder/ohmvol3d.ini")), 1);
}

TEST(IniFile, ReadingRulesAndDefaults) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  const std::string path = tmp.sub("ohmvol3d.ini");

  Ini_Settings missing;
  EXPECT_EQ(missing.Read(tmp.sub("absent.ini"), "/prog/"), 1);
  EXPECT_EQ(missing.input, "/prog/");
  EXPECT_EQ(missing.output, "/prog/");
  EXPECT_EQ(missing.editor, "notepad.exe");
  EXPECT_EQ(missing.extension, "*.dat");
  EXPECT_EQ(missing.graphics_type, 0);
  EXPECT_EQ(missing.buffer_set, 0);

  // Keys and sections in any case, blanks around values, a one-character buffer.
  Write_File(path, "[PROGRAMS]\nPaint = mspaint\n[Files]\nOUTPUT= /res \nbuffer=C\n"
                   "[settings]\nPentium 4 Optimisation=Yes\ngraphics FILE type=JPG\n");
  Ini_Settings s;
  ASSERT_EQ(s.Read(path, "/prog"), 0);
  EXPECT_EQ(s.paint, "mspaint");
  EXPECT_EQ(s.output, "/res/");
  EXPECT_EQ(s.input, "/prog/"); // not in the file: the program folder, with its '/'
  EXPECT_EQ(s.buffer, "C");
  EXPECT_EQ(s.buffer_set, 0); // one character does not name a folder
  EXPECT_EQ(s.graphics_type, 1);

  EXPECT_EQ(Graphics_Type_From_Text("jpeg"), 1);
  EXPECT_EQ(Graphics_Type_From_Text("Png"), 2);
  EXPECT_EQ(Graphics_Type_From_Text("TIF"), 3);
  EXPECT_EQ(Graphics_Type_From_Text("gif"), 4);
  EXPECT_EQ(Graphics_Type_From_Text("bmp"), 0);
  EXPECT_EQ(Graphics_Type_From_Text("xyz"), 0);
  EXPECT_EQ(Graphics_Type_From_Text(""), 0);
  EXPECT_STREQ(Graphics_Type_Word(1), "jpeg");
  EXPECT_STREQ(Graphics_Type_Word(3), "tiff");
  EXPECT_STREQ(Graphics_Type_Word(4), "gif");
  EXPECT_STREQ(Graphics_Type_Word(7), "bmp");
}

TEST(TempFiles, NamesRebuiltForAFolder) {
  File_Names names;
  Set_Temp_File_Names(names, "/tmp/bufA");
  EXPECT_EQ(names.folder, "/tmp/bufA/");
  EXPECT_EQ(names.temp[TF_GRROWT_RES], "/tmp/bufA/grrowt_res.bin");
  EXPECT_EQ(names.temp[TF_JACOBFX], "/tmp/bufA/jacobfx.tmp");
  EXPECT_EQ(names.temp[TF_POTENTIALS_I], "/tmp/bufA/potentials_nodes_i.bin");
  EXPECT_EQ(names.temp[TF_HESSARRA], "/tmp/bufA/hessarra.bin");
  EXPECT_EQ(names.temp[TF_GRADCOMP_NW], "/tmp/bufA/gradcomp_nw.bin");
  EXPECT_EQ(names.temp[TF_SPACE_MOD_FILTER_IP], "/tmp/bufA/space_modified_filter_ip_file.bin");
  EXPECT_EQ(names.temp[TF_RES_IP_DATA_VOI2], "/tmp/bufA/res_ip_data_inv_file_voi2.bin");
  EXPECT_EQ(names.temp[TF_DUMP_IMAGE], "/tmp/bufA/dump_image.png");
  EXPECT_EQ(names.temp[TF_TEMPFILE], "/tmp/bufA/tempfile.bin");
  EXPECT_STREQ(Temp_File_Base_Name(TF_COUNT), "");
  EXPECT_STREQ(Temp_File_Base_Name(-1), "");

  std::set<std::string> distinct;
  for (int i = 0; i < TF_COUNT; i++) {
    EXPECT_GT(std::string(Temp_File_Base_Name(i)).size(), 4u) << i;
    distinct.insert(Temp_File_Base_Name(i));
  }
  EXPECT_EQ(distinct.size(), static_cast<size_t>(TF_COUNT));

  Set_Temp_File_Names(names, "/other/");
  EXPECT_EQ(names.folder, "/other/");
  EXPECT_EQ(names.temp[TF_GRROWT_RES], "/other/grrowt_res.bin");
  EXPECT_EQ(Factor_File_Name(names, "block", 1, 2, 13), "/other/block_lnz_2_13.bin");
  EXPECT_EQ(Factor_File_Name(names, "block", 0, 0, 7), "/other/block_unz_0_7.bin");
}

TEST(TempFiles, ChunkLength) {
  EXPECT_EQ(Chunk_Values(0), 0);
  EXPECT_EQ(Chunk_Values(1000), 1000);
  EXPECT_EQ(Chunk_Values(1048576), 1048576);
  EXPECT_EQ(Chunk_Values(1048578), 524289);
  EXPECT_EQ(Chunk_Values(1500000), 750000);
  EXPECT_EQ(Chunk_Values(3000000), 1048576);
}

TEST(TempFiles, ValueFilesRoundTripAndErrors) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  const std::string path = tmp.sub("jacobian.bin");

  // Three whole chunks of 1048576 values do not fit: two chunks and a remainder.
  const int64_t n = 3000001;
  std::vector<float> big(n);
  for (int64_t i = 0; i < n; i++)
    big[i] = static_cast<float>(i) * 0.5f - 7.0f;
  const float head[3] = {1.0f, 2.0f, 3.0f};
  ASSERT_EQ(Write_Values_File(*ds, path, head, 3), 0);
  ASSERT_EQ(Write_Values_File(*ds, path, big.data(), n, 12, true), 0);
  EXPECT_EQ(std::filesystem::file_size(path), static_cast<uintmax_t>(12 + 4 * n));

  std::vector<float> back(n, -1.0f);
  float head_back[3] = {};
  ASSERT_EQ(Read_Values_File(*ds, path, head_back, 3), 0);
  ASSERT_EQ(Read_Values_File(*ds, path, back.data(), n, 12), 0);
  EXPECT_EQ(head_back[2], 3.0f);
  EXPECT_EQ(back, big);
  EXPECT_TRUE(rec.messages.empty());

  // Without keep_contents the file starts anew.
  ASSERT_EQ(Write_Values_File(*ds, path, head, 3), 0);
  EXPECT_EQ(std::filesystem::file_size(path), 12u);

  // Reading past the end.
  float past[5];
  EXPECT_EQ(Read_Values_File(*ds, path, past, 5), 1);
  ASSERT_EQ(rec.Count("Jacobian Matrix Read"), 1);
  EXPECT_EQ(rec.messages.back().text, "Jacobian matrix read error " + path + ".\n12/20");

  const std::string bad = tmp.sub("no_folder/jacobian.bin");
  EXPECT_EQ(Write_Values_File(*ds, bad, head, 3), 2);
  ASSERT_EQ(rec.Count("Jacobian Matrix Save"), 1);
  EXPECT_EQ(rec.messages.back().text, "Error in creating Jacobian matrix file " + bad + ".");
  EXPECT_EQ(Read_Values_File(*ds, bad, past, 3), 2);
  EXPECT_EQ(rec.Count("Jacobian Matrix Read"), 2);

  // A full disk, in words.
  if (access("/dev/full", W_OK) == 0) {
    EXPECT_EQ(Write_Values_File(*ds, "/dev/full", head, 3), 1);
    ASSERT_EQ(rec.Count("Jacobian Matrix Save"), 2);
    EXPECT_EQ(rec.messages.back().text, "Jacobian matrix save error /dev/full.\n0/12\nThe disk is "
                                        "full (no space left on the device).");
  }
}

TEST(TempFiles, DiskEstimateForTheRead) {
  // Numbers chosen so each part is a whole GB (2^30 bytes).
  Disk_Inputs one;
  one.mesh_nodes = 1 << 20;
  one.nelec_use = 256; // mesh: 2^20 * 4 * 256 bytes = 1 GB
  one.nmodel_blocks = 1 << 18;
  one.mdata = 1024; // Jacobian: 2^18 * 4 * 1024 bytes = 1 GB
  EXPECT_DOUBLE_EQ(Disk_Space_Temp_Files_GB(one), 2.0 * 1.1);
  Disk_Inputs half = one;
  half.half_potentials = 1;
  EXPECT_DOUBLE_EQ(Disk_Space_Temp_Files_GB(half), 1.5 * 1.1);
  Disk_Inputs series = one;
  series.ntime = 3;
  EXPECT_DOUBLE_EQ(Disk_Space_Temp_Files_GB(series), 4.0 * 1.1);
  Disk_Inputs ip = one;
  ip.ip = 1;
  EXPECT_DOUBLE_EQ(Disk_Space_Temp_Files_GB(ip), 4.0 * 1.1);

  // Four segments: mesh ((N * 1.1) / 4) * 4 * (E / 4) = 1.1 GB, times 1.1; the larger counts.
  Disk_Inputs seg = one;
  seg.nseg = 4;
  seg.mesh_nodes = 1 << 22;
  seg.nelec_use = 1024;
  EXPECT_NEAR(Disk_Space_Temp_Files_GB(seg), 1.21 * 1.1, 1e-12);
  seg.mdata = 2048; // Jacobian 2 GB * 1.1 now the larger
  EXPECT_NEAR(Disk_Space_Temp_Files_GB(seg), 2.2 * 1.1, 1e-12);
  seg.mdata = 0;
  seg.half_potentials = 1;
  EXPECT_NEAR(Disk_Space_Temp_Files_GB(seg), 0.605 * 1.1, 1e-12);
  seg.ip = 1;
  EXPECT_NEAR(Disk_Space_Temp_Files_GB(seg), 1.21 * 1.1, 1e-12);

  const std::string lead = "Disk space needed for temporary files is ";
  EXPECT_EQ(Disk_Space_Text(0.5), lead + "0.5000 GB.  ");
  EXPECT_EQ(Disk_Space_Text(0.9999), lead + "0.9999 GB.  ");
  EXPECT_EQ(Disk_Space_Text(1.0), lead + "1.00 GB.  ");
  EXPECT_EQ(Disk_Space_Text(9.5), lead + "9.50 GB.  ");
  EXPECT_EQ(Disk_Space_Text(10.0), lead + "10.0 GB.  ");
  EXPECT_EQ(Disk_Space_Text(2047.9), lead + "2047.9 GB.  ");
  EXPECT_EQ(Disk_Space_Text(2048.0), lead + "2.00 TB.  ");
  EXPECT_EQ(Disk_Space_Text(3584.0), lead + "3.50 TB.  ");

  // The read's estimate goes to the indented "Inversion Parameters" panel.
  Temp_Folder tmp;
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  Disk_Inputs in;
  in.mesh_nodes = 1 << 20;
  in.nelec_use = 256; // 1 GiB of potentials
  EXPECT_NEAR(Calculate_Disk_Space_Temp_Files(*ds, in), 1.1, 1e-12);
  ASSERT_EQ(rec.panel_lines.size(), 1u);
  EXPECT_EQ(rec.panel_lines[0].text, lead + "1.10 GB.  ");
  EXPECT_EQ(rec.panel_lines[0].indent, 1);
}

TEST(TempFiles, DiskCheckBeforeARun) {
  Disk_Inputs in;
  in.mesh_nodes = 1 << 20;
  in.nelec_use = 256; // mesh 1 GB
  in.nmodel_blocks = 1 << 18;
  in.mdata = 1024; // Jacobian 1 GB; filter and table 2 * 256^2 bytes each
  // The matrix files: 368 bytes a mesh node; then a tenth more.
  const double matrix = 368.0 / 1024.0, table = 2.0 * 256 * 256 / 1073741824.0;
  EXPECT_DOUBLE_EQ(Disk_Space_Inversion_GB(in), 1.1 * (2.0 + matrix + table));
  in.nseg = 5; // mesh and matrix times 1.25 / 5
  EXPECT_DOUBLE_EQ(Disk_Space_Inversion_GB(in), 1.1 * (1.25 + matrix / 4.0 + table));
  in.nseg = 1;
  in.mdata = 0;
  in.mesh_nodes = 1 << 10;
  in.ndipoles = 1 << 14; // dipoles replace electrodes: filter and table 0.5 GB, mesh 1/16 GB
  EXPECT_DOUBLE_EQ(Disk_Space_Inversion_GB(in), 1.1 * (0.5 + 0.0625 + 368.0 / 1048576.0 + 0.5));

  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  Disk_Inputs tiny;
  tiny.mesh_nodes = 1000;
  tiny.nelec_use = 10;
  tiny.nmodel_blocks = 100;
  tiny.mdata = 50;
  EXPECT_EQ(Calculate_Disk_Space_Inversion_Files(*ds, tiny), 0);
  EXPECT_TRUE(rec.messages.empty());

  Disk_Inputs huge = tiny;
  huge.mesh_nodes = 1000000000000LL; // 4e16 bytes per electrode set
  huge.nelec_use = 10000;
  EXPECT_EQ(Calculate_Disk_Space_Inversion_Files(*ds, huge), 1);
  const Recorded_Message *m = rec.Last("Disk Space Message");
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(Starts_With(m->text, "Insufficent free disk space for temporary files.\n"
                                   "Space needed is "))
      << m->text;
  EXPECT_NE(m->text.find(" TB\nSpace available is "), std::string::npos) << m->text;
  // Sizes in the unit that fits, never "0.00 TB".
  EXPECT_EQ(m->text.find("0.00 TB"), std::string::npos) << m->text;
  EXPECT_EQ(Size_Text(11.9 * 1048576.0), "11.9 MB");
  EXPECT_EQ(Size_Text(2.5 * 1073741824.0), "2.50 GB");
  EXPECT_EQ(Size_Text(3.0 * 1099511627776.0), "3.00 TB");
}

TEST(TempFiles, JacobianMemoryProbe) {
  EXPECT_EQ(Jacobian_Probe_Values(1, 1000, 500, 1), 500000);
  EXPECT_EQ(Jacobian_Probe_Values(1, 1000, 500, 2), 500000); // two segments: no division
  EXPECT_EQ(Jacobian_Probe_Values(1, 1000, 500, 3), 250000);
  EXPECT_EQ(Jacobian_Probe_Values(2, 1000, 500, 5), 250000);
  EXPECT_EQ(Jacobian_Probe_Values(2, 100000, 6000000, 1), 1200000000000LL); // 64-bit product

  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  EXPECT_EQ(Check_Memory_Jacobian(*ds, 1000), 0);
  EXPECT_EQ(ds->jacobian_on_disk, 0);
  EXPECT_TRUE(rec.messages.empty());

  const int64_t values = 1LL << 50; // 4 PiB
  EXPECT_EQ(Check_Memory_Jacobian(*ds, values), 1);
  const Recorded_Message *m = rec.Last("Jacobian Memory Error Message");
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(Starts_With(m->text, "Jacobian Memory Check\nJacobian memory allocation error\n"
                                   "Array size is 1125899906842624 values\nMemory needed is "))
      << m->text;
  EXPECT_EQ(ds->jacobian_on_disk, 1);
  EXPECT_EQ(ds->LS_method.incomplete_solve, 2);

  // Once on disk the probe is not repeated.
  ds->LS_method.incomplete_solve = 0;
  EXPECT_EQ(Check_Memory_Jacobian(*ds, values), 0);
  EXPECT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(ds->LS_method.incomplete_solve, 0);
}

TEST(TempFiles, ChangingTheBufferFolder) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  const std::string old_folder = tmp.sub("buf/");
  ASSERT_EQ(ds->System_config.buffer_folder, old_folder);
  ASSERT_EQ(ds->file_names.temp[TF_JACOBIAN], old_folder + "jacobian.bin");

  // Under a regular file no folder can be made: the old folder stays.
  Write_File(tmp.sub("plain_file"), "x");
  const std::string blocked = tmp.sub("plain_file/buffer");
  EXPECT_EQ(Test_Buffer_Folder(*ds, blocked), 1);
  const Recorded_Message *m = rec.Last("Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Failed to create file\n" + blocked + "/testxxx.fil.");
  EXPECT_EQ(ds->System_config.buffer_folder, old_folder);
  EXPECT_EQ(ds->file_names.temp[TF_JACOBIAN], old_folder + "jacobian.bin");
  EXPECT_EQ(ds->System_config.Ini.buffer_set, 0);

  // A folder that does not exist yet is made.
  const std::string fresh = tmp.sub("new/buffer");
  rec.Clear();
  EXPECT_EQ(Test_Buffer_Folder(*ds, fresh), 0);
  ASSERT_EQ(rec.messages.size(), 1u);
  EXPECT_EQ(rec.messages[0].title, "Message");
  EXPECT_TRUE(Starts_With(rec.messages[0].text,
                          "New buffer drive selected is " + fresh + "/.\nFree space is "))
      << rec.messages[0].text;
  EXPECT_EQ(ds->System_config.buffer_folder, fresh + "/");
  EXPECT_EQ(ds->file_names.folder, fresh + "/");
  EXPECT_EQ(ds->file_names.temp[TF_JACOBIAN], fresh + "/jacobian.bin");
  EXPECT_EQ(ds->System_config.Ini.buffer, fresh + "/");
  EXPECT_EQ(ds->System_config.Ini.buffer_set, 1);
  EXPECT_EQ(std::string(trace_rec.trace_name), fresh + "/o3dtracesx64_Ohm3d.txt");
  EXPECT_EQ(ds->Data_lim_sys.disk_free_byte, ds->System_config.disk_free_byte);
  EXPECT_GT(ds->System_config.disk_free_byte, 0);
  EXPECT_FALSE(Exists(fresh + "/testxxx.fil"));
}

TEST(TempFiles, StartUpKeepsNamedBufferFolderAndWarnsWithoutRoom) {
  // A buffer folder named in ohmvol3d.ini is always taken; with less than
  // 256 GiB free the start-up warns.
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  const std::string named = tmp.sub("inibuf/");
  ASSERT_EQ(Make_Folders(tmp.sub("cfg/")), 0);
  Write_File(tmp.sub("cfg/ohmvol3d.ini"), "[files]\nbuffer=" + named + "\n");
  Start_Options opt = Test_Start_Options(tmp);
  opt.buffer_folder.clear();
  Front_End_Record rec;
  auto ds = std::make_unique<Data_Set>(opt, Recording_Front_End(rec));
  ds->Create();
  EXPECT_EQ(ds->First_Paint(), 0);

  EXPECT_EQ(ds->System_config.Ini.buffer, named);
  EXPECT_EQ(ds->System_config.buffer_folder, named);
  EXPECT_EQ(ds->file_names.temp[TF_GRROWT], named + "grrowt.bin");
  const bool low = Free_Disk_Bytes(named) < 274877906944LL;
  EXPECT_EQ(rec.Count("Disk Error"), low ? 1 : 0);
}

TEST(TempFiles, ExitRemovesOnlyTheResultFiles) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  File_Names names;
  Set_Temp_File_Names(names, tmp.path());
  const int gone[] = {TF_GRROWT_RES,        TF_RES_IP_DATA,      TF_RES_IP_MODEL,
                      TF_RES_IP_MODEL_VOI1, TF_RES_IP_DATA_VOI1, TF_RES_IP_MODEL_VOI2,
                      TF_RES_IP_DATA_VOI2};
  const int kept[] = {TF_GRROWT, TF_JACOBIAN, TF_TEMPFILE, TF_HESS};
  for (int w : gone)
    Write_File(names.temp[w], "data");
  for (int w : kept)
    Write_File(names.temp[w], "data");
  Remove_Exit_Temp_Files(names);
  for (int w : gone)
    EXPECT_FALSE(Exists(names.temp[w])) << names.temp[w];
  for (int w : kept)
    EXPECT_EQ(Read_File(names.temp[w]), "data") << names.temp[w];
  Remove_Exit_Temp_Files(names); // nothing left to remove: no harm
  EXPECT_FALSE(Exists(names.temp[TF_GRROWT_RES]));
}

TEST(Memory, BlocksAreZeroFilledAndPageAligned) {
  const int64_t page = sysconf(_SC_PAGESIZE);
  for (int64_t bytes : {int64_t{1}, page - 1, page, 3 * page + 17, int64_t{5000000}}) {
    SCOPED_TRACE(bytes);
    auto *p = static_cast<unsigned char *>(Allocate_Block(bytes));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % static_cast<uintptr_t>(page), 0u);
    EXPECT_EQ(Block_Size(p), bytes);
    bool zero = true;
    for (int64_t i = 0; i < bytes; i++)
      zero = zero && p[i] == 0;
    EXPECT_TRUE(zero);
    p[bytes - 1] = 0xFF; // the whole block is writable
    Free_Block(p);
  }
  EXPECT_EQ(Allocate_Block(-1), nullptr);
  EXPECT_EQ(Block_Size(nullptr), 0);
  Free_Block(nullptr);

  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = Make_Data_Set(tmp, rec);
  double *d = nullptr;
  ASSERT_EQ(Allocate_Values(*ds, d, 1000, "test values"), 0);
  EXPECT_EQ(Block_Size(d), 8000);
  Free_Values(d);
  EXPECT_EQ(d, nullptr);
  float *f = nullptr;
  EXPECT_EQ(Allocate_Values(*ds, f, int64_t{1} << 58, "huge table"), 1); // 1 EiB
  EXPECT_EQ(f, nullptr);
  const Recorded_Message *m = rec.Last("Memory error");
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(Starts_With(m->text, "Memory allocation error for array huge table\n")) << m->text;
}

TEST(TempFiles, TwoRunsOnOneBufferFolderKeepTheirFilesApart) {
  // The first data set holds the buffer folder's lock and its files are in
  // the folder; the second (as a second process would) gets a folder of its
  // own, says so, and removes it with what is in it when it ends. The lock
  // goes with the first: a later run takes the folder again.
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec1, rec2, rec3;
  auto first = Make_Data_Set(tmp, rec1);
  const std::string buffer = tmp.sub("buf/");
  ASSERT_EQ(first->file_names.folder, buffer);
  std::string own;
  {
    auto second = Make_Data_Set(tmp, rec2, 24 * gib, true);
    own = second->file_names.folder;
    EXPECT_NE(own, buffer);
    EXPECT_TRUE(Starts_With(own, buffer + "run_")) << own;
    EXPECT_TRUE(Exists(own));
    EXPECT_EQ(second->file_names.temp[TF_JACOBIAN], own + "jacobian.bin");
    bool said = false;
    for (const auto &l : rec2.panel_lines)
      said = said || l.text.find("Another run uses the buffer folder") != std::string::npos;
    EXPECT_TRUE(said);
    Write_File(second->file_names.temp[TF_JACOBIAN], "x");
  }
  EXPECT_FALSE(Exists(own));
  EXPECT_EQ(first->file_names.temp[TF_JACOBIAN], buffer + "jacobian.bin");
  first.reset();
  auto third = Make_Data_Set(tmp, rec3);
  EXPECT_EQ(third->file_names.folder, buffer);
}
