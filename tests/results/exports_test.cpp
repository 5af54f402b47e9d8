// The exports of a results file's iteration: block-centre tables, the
// electrode table, the model list, the VTK model and electrode files (merged
// corners, hexahedron order, cell types, scalars; read back by VTK's own
// reader), block elevations with and without topography, and the listing of
// observed against calculated data.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "core/data_set.h"
#include "core/memory.h"
#include "core/test_support.h"
#include "forward/forward_test_support.h"
#include "results/exports.h"
#include "survey/optional_sections.h"

using namespace test_support;

namespace {

std::vector<double> Numbers(const std::string &line) {
  std::string s = line;
  std::replace(s.begin(), s.end(), ',', ' ');
  std::istringstream in(s);
  std::vector<double> v;
  for (double x; in >> x;)
    v.push_back(x);
  return v;
}

bool Has_Suffix(const std::string &s, const std::string &end) {
  return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}

// The one file of `files` whose name ends with `end` ("" when none).
std::string File_Ending(const std::vector<std::string> &files, const std::string &end) {
  std::string found;
  int n = 0;
  for (const std::string &f : files)
    if (Has_Suffix(f, end)) {
      found = f;
      n++;
    }
  return n == 1 ? found : "";
}

// A model of nx by ny by nz blocks built by hand: unit cells in x and y,
// layers 0.5 thick (normalised), spxx 2, origin (100, 200). Resistivity of
// block b is 10 + b, IP (fraction) 0.001 (b + 1).
void Hand_Model(Data_Set &ds, int nx, int ny, int nz) {
  Model_Grid &g = ds.Model_grid;
  ds.spxx = 2.0;
  ds.xmin = 100.0;
  ds.ymin = 200.0;
  g.nlayers = nz;
  g.nblockx = nx;
  g.nblocky = ny;
  g.nmodel_blocks = nx * ny * nz;
  ASSERT_EQ(g.blocks.Resize(ds, g.nmodel_blocks, "test blocks"), 0);
  int b = 0;
  for (int k = 0; k < nz; k++) {
    g.layer_nblockx[k + 1] = nx;
    g.layer_nblocky[k + 1] = ny;
    for (int j = 0; j < ny; j++)
      for (int i = 0; i < nx; i++, b++) {
        Model_Block &m = g.blocks[b];
        const float x1 = i, x2 = i + 1, y1 = j, y2 = j + 1;
        const float xs[4] = {x1, x1, x2, x2}, ys[4] = {y1, y2, y2, y1};
        for (int c = 0; c < 8; c++) {
          m.x[c] = xs[c % 4];
          m.y[c] = ys[c % 4];
          m.z[c] = 0.5f * (k + (c < 4 ? 0 : 1));
        }
        m.xc = i + 0.5f;
        m.yc = j + 0.5f;
        m.zc = 0.5f * k + 0.25f;
      }
  }
  Inv_Results &r = ds.Inv_results;
  r.nmodel = g.nmodel_blocks;
  r.rt_disp.resize(g.nmodel_blocks);
  r.ipt_disp.resize(g.nmodel_blocks);
  for (int m = 0; m < g.nmodel_blocks; m++) {
    r.rt_disp[m] = 10.0f + m;
    r.ipt_disp[m] = 0.001f * (m + 1);
  }
}

struct Hand_Set {
  Temp_Folder tmp;
  Front_End_Record rec;
  std::unique_ptr<Data_Set> ds = Make_Data_Set(tmp, rec);
  std::vector<std::string> files;
  std::string results() const { return tmp.sub("model.inv"); }
  Hand_Set() { ds->batch_mode = 1; }
};

// An example survey read from examples/ with a live iteration: resistivity
// of block b 20 + 7.5 (b % 13), IP 0.002 (b % 7 + 1); calculated data the
// observed ones times 1 + 0.01 ((i % 5) - 2).
struct Example_Results : Example_Survey {
  std::vector<std::string> files;
  std::string results;
  explicit Example_Results(const char *name) {
    if (Read_Example(name) != 0)
      return;
    Data_Set &d = *ds;
    results = tmp.sub("survey.inv");
    const int n = d.Model_grid.nmodel_blocks;
    Inv_Results &r = d.Inv_results;
    r.nmodel = n;
    r.mdata = d.mdata;
    r.rt_disp.resize(n);
    r.ipt_disp.resize(n);
    for (int b = 0; b < n; b++) {
      r.rt_disp[b] = static_cast<float>(20.0 + 7.5 * (b % 13));
      r.ipt_disp[b] = 0.002f * (b % 7 + 1);
    }
    r.rm_disp.resize(d.mdata);
    r.mip_disp.resize(d.mdata);
    for (int i = 0; i < d.mdata; i++) {
      r.rm_disp[i] = d.dp[i].value * (1.0f + 0.01f * ((i % 5) - 2));
      r.mip_disp[i] = d.dp[i].ip_value * 0.9f;
    }
  }
};

// --- A legacy VTK file taken apart --------------------------------------------------------

struct Vtk_File {
  std::vector<std::array<double, 3>> points;
  std::vector<std::array<long long, 8>> cells;
  std::map<std::string, std::vector<double>> scalars;
};

Vtk_File Parse_Model_Vtk(const std::string &text) {
  Vtk_File v;
  std::istringstream in(text);
  std::string word;
  while (in >> word) {
    if (word == "POINTS") {
      int n;
      std::string type;
      in >> n >> type;
      v.points.resize(n);
      for (auto &p : v.points)
        in >> p[0] >> p[1] >> p[2];
    } else if (word == "CELLS") {
      int n, size;
      in >> n >> size;
      v.cells.resize(n);
      for (auto &c : v.cells) {
        int count;
        in >> count;
        for (long long &k : c)
          in >> k;
      }
    } else if (word == "SCALARS") {
      std::string name, type, lookup, table;
      in >> name >> type >> lookup >> table;
      std::vector<double> &values = v.scalars[name];
      values.resize(v.cells.size());
      for (double &x : values)
        in >> x;
    }
  }
  return v;
}

// Signed volume of a VTK hexahedron from its 12 tetrahedra about the centre
// of its faces' diagonals: positive when the first face's right-hand normal
// points to the second face.
double Hex_Volume(const Vtk_File &v, const std::array<long long, 8> &c) {
  static const int faces[6][4] = {{0, 3, 2, 1}, {4, 5, 6, 7}, {0, 1, 5, 4},
                                  {1, 2, 6, 5}, {2, 3, 7, 6}, {3, 0, 4, 7}};
  std::array<double, 3> centre = {0, 0, 0};
  for (long long k : c)
    for (int a = 0; a < 3; a++)
      centre[a] += v.points[k][a] / 8.0;
  double vol = 0.0;
  for (const auto &f : faces) {
    std::array<double, 3> fc = {0, 0, 0};
    for (int e = 0; e < 4; e++)
      for (int a = 0; a < 3; a++)
        fc[a] += v.points[c[f[e]]][a] / 4.0;
    for (int e = 0; e < 4; e++) {
      const auto &p = v.points[c[f[e]]], &q = v.points[c[f[(e + 1) % 4]]];
      double u[3], w[3], s[3];
      for (int a = 0; a < 3; a++) {
        u[a] = p[a] - centre[a];
        w[a] = q[a] - centre[a];
        s[a] = fc[a] - centre[a];
      }
      // Outward faces (counter-clockwise seen from outside) give positive terms.
      vol += (u[0] * (w[1] * s[2] - w[2] * s[1]) - u[1] * (w[0] * s[2] - w[2] * s[0]) +
              u[2] * (w[0] * s[1] - w[1] * s[0])) /
             6.0;
    }
  }
  return vol;
}

// The text strictly between `from` and the next `to`.
std::string Inside(const std::string &text, const std::string &from, const std::string &to) {
  const size_t a = text.find(from);
  if (a == std::string::npos)
    return "";
  const size_t b = text.find(to, a + from.size());
  return b == std::string::npos ? "" : text.substr(a + from.size(), b - a - from.size());
}

// The text between `from` and the next `to` (to included when found).
std::string Between(const std::string &text, const std::string &from, const std::string &to) {
  const size_t a = text.find(from);
  if (a == std::string::npos)
    return "";
  const size_t b = text.find(to, a + from.size());
  return text.substr(a, b == std::string::npos ? std::string::npos : b + to.size() - a);
}

std::string Run_Command(const std::string &command) {
  std::string out;
  FILE *p = popen(command.c_str(), "r");
  if (!p)
    return out;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
    out.append(buf, n);
  pclose(p);
  return out;
}

bool Python_Vtk() {
  return std::system("/usr/bin/python3 -c 'import vtk' > /dev/null 2>&1") == 0;
}

// What VTK's legacy reader makes of each file: "file N", "cells N",
// "points N", "minvol V", and per array "cell NAME MIN MAX" or
// "point NAME MIN MAX".
std::string Vtk_Reader_Report(const std::vector<std::string> &paths, const std::string &folder) {
  const std::string script = folder + "/read_vtk.py";
  Write_File(script,
             "import sys, vtk\n"
             "for n, path in enumerate(sys.argv[1:]):\n"
             "    r = vtk.vtkUnstructuredGridReader()\n"
             "    r.SetFileName(path)\n"
             "    r.ReadAllScalarsOn()\n"
             "    r.Update()\n"
             "    g = r.GetOutput()\n"
             "    print('file', n)\n"
             "    print('cells', g.GetNumberOfCells())\n"
             "    print('points', g.GetNumberOfPoints())\n"
             "    vols = [vtk.vtkMeshQuality.HexVolume(g.GetCell(i))\n"
             "            for i in range(g.GetNumberOfCells()) if g.GetCellType(i) == 12]\n"
             "    print('minvol', min(vols) if vols else 0)\n"
             "    for kind, data in (('cell', g.GetCellData()), ('point', g.GetPointData())):\n"
             "        for a in range(data.GetNumberOfArrays()):\n"
             "            arr = data.GetArray(a)\n"
             "            lo, hi = arr.GetRange()\n"
             "            print(kind, arr.GetName(), repr(lo), repr(hi))\n");
  std::string command = "/usr/bin/python3 " + script;
  for (const std::string &p : paths)
    command += " '" + p + "'";
  return Run_Command(command + " 2>&1");
}

// The section of a reader report for file n.
std::vector<std::string> Report_Of(const std::string &report, int n) {
  std::vector<std::string> out;
  bool in = false;
  for (const std::string &line : Lines(report)) {
    if (line.rfind("file ", 0) == 0) {
      in = line == "file " + std::to_string(n);
      continue;
    }
    if (in)
      out.push_back(line);
  }
  return out;
}

std::string Report_Value(const std::vector<std::string> &lines, const std::string &key) {
  for (const std::string &l : lines)
    if (l.rfind(key + " ", 0) == 0)
      return l.substr(key.size() + 1);
  return "";
}

// --- VTK model: points, cells, cell types, scalars ---------------------------------------

TEST(ExportVtk, SharedCornersAreOnePointAndHexahedraArePositive) {
  Hand_Set s;
  Hand_Model(*s.ds, 2, 2, 1);
  Vtk_Export opt;
  ASSERT_EQ(Save_Model_VTK(*s.ds, s.results(), 3, opt, s.files), 0);
  const std::string path = File_Ending(s.files, "model_Iter3_Res_Model.vtk");
  ASSERT_FALSE(path.empty());
  const std::string text = Read_File(path);
  EXPECT_TRUE(Starts_With(text, "# vtk DataFile Version 3.0\nModel Resistivity\nASCII\n\nDATASET "
                                "UNSTRUCTURED_GRID\nPOINTS 18 double\n"));
  EXPECT_NE(text.find("\nCELLS 4 36\n"), std::string::npos);
  EXPECT_NE(text.find("\nCELL_TYPES 4\n 12 12 12 12\nCELL_DATA 4\nSCALARS Resistivity float\n"
                      "LOOKUP_TABLE default\n"),
            std::string::npos);
  // Points: three to a line, each "%12.3f" three times.
  const std::vector<std::string> lines = Lines(text);
  EXPECT_EQ(lines[6].size(), 108u);
  const Vtk_File v = Parse_Model_Vtk(text);
  ASSERT_EQ(v.points.size(), 18u);
  ASSERT_EQ(v.cells.size(), 4u);
  std::set<std::array<double, 3>> distinct(v.points.begin(), v.points.end());
  EXPECT_EQ(distinct.size(), 18u);
  // Each cell holds its block's corners in user units (x 100 + 2 i, y 200 +
  // 2 j, elevation 0 and -1) and has a positive volume of 2 x 2 x 1.
  for (int b = 0; b < 4; b++) {
    std::set<std::array<double, 3>> want, got;
    double c[8][3];
    Block_Corners_User(*s.ds, b, 1, c);
    for (int k = 0; k < 8; k++)
      want.insert({c[k][0], c[k][1], c[k][2]});
    for (long long k : v.cells[b]) {
      ASSERT_GE(k, 0);
      ASSERT_LT(k, 18);
      got.insert(v.points[k]);
    }
    EXPECT_EQ(got, want) << "block " << b;
    EXPECT_NEAR(Hex_Volume(v, v.cells[b]), 4.0, 1e-9) << "block " << b;
    // The bottom face comes first.
    for (int k = 0; k < 4; k++)
      EXPECT_LT(v.points[v.cells[b][k]][2], v.points[v.cells[b][k + 4]][2]);
  }
  const std::vector<double> &res = v.scalars.at("Resistivity");
  for (int b = 0; b < 4; b++)
    EXPECT_DOUBLE_EQ(res[b], 10.0 + b);
  // The electrodes' file goes with it (no electrodes here).
  const std::string elec = File_Ending(s.files, "model_Elec.vtk");
  ASSERT_FALSE(elec.empty());
  EXPECT_TRUE(Starts_With(Read_File(elec), "# vtk DataFile Version 3.0\nElectrode "
                                           "Positions\nASCII\nDATASET UNSTRUCTURED_GRID\nPoints "
                                           "0 double\n"));
  const Recorded_Message *m = s.rec.Last("Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Output elec vtk files are :-\n" + path + "\n" + elec + "\n");
  EXPECT_EQ(m->kind, MK_INFORMATION);
}

TEST(ExportVtk, CellTypesEndWithAShortRowOnlyWhenNeeded) {
  {
    Hand_Set s;
    Hand_Model(*s.ds, 3, 3, 2); // 18 blocks, 4 x 4 x 3 corners
    ASSERT_EQ(Save_Model_VTK(*s.ds, s.results(), 1, Vtk_Export(), s.files), 0);
    const std::string text = Read_File(File_Ending(s.files, "_Iter1_Res_Model.vtk"));
    EXPECT_NE(text.find("POINTS 48 double\n"), std::string::npos);
    EXPECT_EQ(Between(text, "\nCELL_TYPES", "CELL_DATA"),
              "\nCELL_TYPES 18\n 12 12 12 12 12 12 12 12 12 12\n 12 12 12 12 12 12 12 12\n"
              "CELL_DATA");
    // Values ten to a row, the last row short.
    const std::vector<std::string> lines = Lines(Between(text, "LOOKUP_TABLE default\n", "\n\n"));
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(Numbers(lines[1]).size(), 10u);
    EXPECT_EQ(Numbers(lines[2]).size(), 8u);
    EXPECT_EQ(lines[1].substr(0, 14), "   1.0000e+01 ");
    // 48 points make 16 full lines of three.
    const std::vector<std::string> points = Lines(Inside(text, "POINTS 48 double\n", "\nCELLS"));
    ASSERT_EQ(points.size(), 16u);
    for (const std::string &line : points)
      EXPECT_EQ(Numbers(line).size(), 9u);
  }
  {
    Hand_Set s;
    Hand_Model(*s.ds, 1, 1, 1); // 8 points: the last line of points is short
    ASSERT_EQ(Save_Model_VTK(*s.ds, s.results(), 1, Vtk_Export(), s.files), 0);
    const std::string text = Read_File(File_Ending(s.files, "_Iter1_Res_Model.vtk"));
    const std::vector<std::string> points = Lines(Inside(text, "POINTS 8 double\n", "\nCELLS"));
    ASSERT_EQ(points.size(), 3u);
    EXPECT_EQ(points[2].size(), 72u);
    EXPECT_NE(text.find(points[2] + "\n\nCELLS 1 9\n"), std::string::npos);
    EXPECT_EQ(Between(text, "\nCELL_TYPES", "CELL_DATA"), "\nCELL_TYPES 1\n 12\nCELL_DATA");
    EXPECT_TRUE(Has_Suffix(text, "LOOKUP_TABLE default\n   1.0000e+01\n"));
  }
  {
    Hand_Set s;
    Hand_Model(*s.ds, 5, 2, 1); // 10 blocks: one full row, no empty one
    ASSERT_EQ(Save_Model_VTK(*s.ds, s.results(), 1, Vtk_Export(), s.files), 0);
    const std::string text = Read_File(File_Ending(s.files, "_Iter1_Res_Model.vtk"));
    EXPECT_EQ(Between(text, "\nCELL_TYPES", "CELL_DATA"),
              "\nCELL_TYPES 10\n 12 12 12 12 12 12 12 12 12 12\nCELL_DATA");
  }
}

TEST(ExportVtk, CornersApartByAMillimetreStayApartAtAnyExtent) {
  // Two blocks with a gap of 0.001 between them: 16 points, not 12.
  {
    Hand_Set s;
    Hand_Model(*s.ds, 2, 1, 1);
    s.ds->spxx = 1.0;
    Model_Block &b = s.ds->Model_grid.blocks[1];
    for (int c = 0; c < 8; c++)
      if (b.x[c] == 1.0f)
        b.x[c] = 1.001f;
    ASSERT_EQ(Save_Model_VTK(*s.ds, s.results(), 1, Vtk_Export(), s.files), 0);
    const Vtk_File v = Parse_Model_Vtk(Read_File(File_Ending(s.files, "_Iter1_Res_Model.vtk")));
    EXPECT_EQ(v.points.size(), 16u);
    for (const auto &c : v.cells)
      EXPECT_GT(Hex_Volume(v, c), 0.0);
  }
  // A survey 200 km across and 1 km deep: its thousandths do not fit one
  // 64-bit key over the plain ranges, and the corners still merge exactly.
  {
    Hand_Set s;
    Hand_Model(*s.ds, 2, 2, 1);
    Model_Grid &g = s.ds->Model_grid;
    s.ds->spxx = 1000.0;
    s.ds->xmin = 500000.0;
    s.ds->ymin = 6000000.0;
    for (int m = 0; m < 4; m++)
      for (int c = 0; c < 8; c++) {
        g.blocks[m].x[c] *= 100.0f;
        g.blocks[m].y[c] *= 100.0f;
        g.blocks[m].z[c] *= 2.0f;
      }
    ASSERT_EQ(Save_Model_VTK(*s.ds, s.results(), 1, Vtk_Export(), s.files), 0);
    const Vtk_File v = Parse_Model_Vtk(Read_File(File_Ending(s.files, "_Iter1_Res_Model.vtk")));
    ASSERT_EQ(v.points.size(), 18u);
    std::set<double> xs, ys, zs;
    for (const auto &p : v.points) {
      xs.insert(p[0]);
      ys.insert(p[1]);
      zs.insert(p[2]);
    }
    EXPECT_EQ(xs, (std::set<double>{500000.0, 600000.0, 700000.0}));
    EXPECT_EQ(ys, (std::set<double>{6000000.0, 6100000.0, 6200000.0}));
    EXPECT_EQ(zs, (std::set<double>{-1000.0, 0.0}));
    for (const auto &c : v.cells)
      EXPECT_NEAR(Hex_Volume(v, c), 1e5 * 1e5 * 1e3, 1.0);
  }
}

TEST(ExportVtk, QuantitiesLogarithmsAndTheIPBlock) {
  Hand_Set s;
  Hand_Model(*s.ds, 2, 2, 1);
  s.ds->Inv_results.typeip = 1;
  s.ds->Data_ip.typeip = 1;
  Vtk_Export opt;
  opt.quantity = 1;
  opt.logarithm = 1;
  opt.with_ip = 1;
  ASSERT_EQ(Save_Model_VTK(*s.ds, s.results(), 2, opt, s.files), 0);
  const std::string text = Read_File(File_Ending(s.files, "_Iter2_Res_IP_Model.vtk"));
  ASSERT_FALSE(text.empty());
  EXPECT_NE(text.find("\nModel Resistivity and IP\n"), std::string::npos);
  const Vtk_File v = Parse_Model_Vtk(text);
  ASSERT_EQ(v.scalars.size(), 2u);
  for (int b = 0; b < 4; b++) {
    EXPECT_NEAR(v.scalars.at("Log10_Conductivity")[b], -std::log10(10.0 + b), 1e-4);
    EXPECT_NEAR(v.scalars.at("IP")[b], 1.0 * (b + 1), 1e-4); // mV/V
  }
  // The IP model alone as the main quantity, the resistivity after it.
  s.files.clear();
  opt = Vtk_Export();
  opt.quantity = 2;
  ASSERT_EQ(Save_Model_VTK(*s.ds, s.results(), 2, opt, s.files), 0);
  const std::string ip_text = Read_File(File_Ending(s.files, "_Iter2_Res_IP_Model.vtk"));
  ASSERT_LT(ip_text.find("SCALARS IP float"), ip_text.find("SCALARS Resistivity float"));
  // Without an IP model the IP quantity is refused and nothing is written.
  s.ds->Inv_results.typeip = 0;
  s.files.clear();
  s.rec.Clear();
  EXPECT_EQ(Save_Model_VTK(*s.ds, s.results(), 2, opt, s.files), 1);
  EXPECT_TRUE(s.files.empty());
  EXPECT_EQ(s.rec.Count("Message"), 1);
}

TEST(ExportVtk, GlobalCoordinatesAddASecondPairOfFiles) {
  Example_Results e("grid_9x14.dat");
  ASSERT_FALSE(e.results.empty());
  Data_Set &d = *e.ds;
  Global_Coords &g = d.global_coords;
  g.present = 1;
  g.a[0] = 1000.0, g.a[1] = 0.0, g.a[2] = -1.0; // a quarter turn and a shift
  g.b[0] = 5000.0, g.b[1] = 1.0, g.b[2] = 0.0;
  ASSERT_EQ(Save_Model_VTK(d, e.results, 4, Vtk_Export(), e.files), 0);
  ASSERT_EQ(e.files.size(), 4u);
  const Vtk_File local = Parse_Model_Vtk(Read_File(File_Ending(e.files, "_Iter4_Res_Model.vtk")));
  const Vtk_File global =
      Parse_Model_Vtk(Read_File(File_Ending(e.files, "_Iter4_Res_Model_Global.vtk")));
  ASSERT_EQ(local.points.size(), global.points.size());
  ASSERT_GT(local.points.size(), 0u);
  EXPECT_EQ(local.cells, global.cells);
  for (size_t p = 0; p < local.points.size(); p++) {
    EXPECT_NEAR(global.points[p][0], 1000.0 - local.points[p][1], 1.5e-3);
    EXPECT_NEAR(global.points[p][1], 5000.0 + local.points[p][0], 1.5e-3);
    EXPECT_EQ(global.points[p][2], local.points[p][2]);
  }
  EXPECT_FALSE(File_Ending(e.files, "_Elec_Global.vtk").empty());
}

// --- VTK files through VTK's own reader ----------------------------------------------------

TEST(ExportVtk, ModelAndElectrodesOpenInVtkReader) {
  if (!Python_Vtk())
    GTEST_SKIP() << "python3 with vtk is not installed";
  Example_Results e("ip_chargeability.dat");
  ASSERT_FALSE(e.results.empty());
  Data_Set &d = *e.ds;
  d.Inv_results.typeip = 1;
  Vtk_Export opt;
  opt.with_ip = 1;
  ASSERT_EQ(Save_Model_VTK(d, e.results, 5, opt, e.files), 0);
  const std::string model = File_Ending(e.files, "_Iter5_Res_IP_Model.vtk");
  const std::string elec = File_Ending(e.files, "_Elec.vtk");
  ASSERT_FALSE(model.empty());
  ASSERT_FALSE(elec.empty());
  const std::string report = Vtk_Reader_Report({model, elec}, e.tmp.path());
  const std::vector<std::string> m = Report_Of(report, 0), el = Report_Of(report, 1);
  ASSERT_FALSE(m.empty()) << report;
  const int nb = d.Model_grid.nmodel_blocks;
  const Vtk_File v = Parse_Model_Vtk(Read_File(model));
  EXPECT_EQ(Report_Value(m, "cells"), std::to_string(nb));
  EXPECT_EQ(Report_Value(m, "points"), std::to_string(v.points.size()));
  EXPECT_GT(std::atof(Report_Value(m, "minvol").c_str()), 0.0) << report;
  const auto [rlo, rhi] =
      std::minmax_element(d.Inv_results.rt_disp.begin(), d.Inv_results.rt_disp.end());
  const std::vector<double> res = Numbers(Report_Value(m, "cell Resistivity"));
  ASSERT_EQ(res.size(), 2u) << report;
  EXPECT_NEAR(res[0], *rlo, 1e-3 * *rlo);
  EXPECT_NEAR(res[1], *rhi, 1e-3 * *rhi);
  const std::vector<double> ip = Numbers(Report_Value(m, "cell IP"));
  ASSERT_EQ(ip.size(), 2u) << report;
  EXPECT_NEAR(ip[0], 2.0, 1e-3);  // 0.002 as mV/V
  EXPECT_NEAR(ip[1], 14.0, 1e-3); // 0.014
  int used = 0;
  for (int k = 0; k < d.num_point_elecs; k++)
    used += d.pe[k].used;
  ASSERT_GT(used, 0);
  EXPECT_EQ(Report_Value(el, "cells"), std::to_string(used)) << report;
  EXPECT_EQ(Report_Value(el, "points"), std::to_string(used));
  EXPECT_EQ(Report_Value(el, "point sample_values"), "1000000.0 1000000.0");
}

TEST(ExportVtk, TopographyModelOpensInVtkReaderUnderTheSurface) {
  if (!Python_Vtk())
    GTEST_SKIP() << "python3 with vtk is not installed";
  Example_Results e("topography.dat");
  ASSERT_FALSE(e.results.empty());
  Data_Set &d = *e.ds;
  ASSERT_TRUE(d.topo.grid_heights);
  ASSERT_EQ(Save_Model_VTK(d, e.results, 1, Vtk_Export(), e.files), 0);
  const std::string model = File_Ending(e.files, "_Iter1_Res_Model.vtk");
  const std::vector<std::string> m = Report_Of(Vtk_Reader_Report({model}, e.tmp.path()), 0);
  EXPECT_EQ(Report_Value(m, "cells"), std::to_string(d.Model_grid.nmodel_blocks));
  EXPECT_GT(std::atof(Report_Value(m, "minvol").c_str()), 0.0);
  // Every point lies at or below the highest ground, and the top corners
  // follow the ground: the highest point stands at the highest corner node.
  const Vtk_File v = Parse_Model_Vtk(Read_File(model));
  double top = -1e30;
  for (const auto &p : v.points)
    top = std::max(top, p[2]);
  EXPECT_LE(top, d.topo.zmax + 1e-3);
  EXPECT_GT(top, d.topo.zmin);
}

// --- Elevations of blocks ----------------------------------------------------------------

// A surface grid of 3 by 3 nodes over the hand model's plan (normalised x
// lines at 0, xlast / 2 and xlast; y lines at 0, 1, 2) with a plane of
// heights: 50 + 3 x + 1 y in user units.
void Plane_Surface(Data_Set &ds, double xlast = 2.0) {
  Model_Grid &g = ds.Model_grid;
  g.ngridx = 3;
  g.ngridy = 3;
  for (int i = 0; i < 3; i++) {
    g.xgrid[i] = 0.5 * xlast * i;
    g.ygrid[i] = i;
  }
  if (!ds.topo.grid_z) {
    ASSERT_EQ(Allocate_Values(ds, ds.topo.grid_z, 9, "test heights"), 0);
  }
  for (int j = 0; j < 3; j++)
    for (int i = 0; i < 3; i++)
      ds.topo.grid_z[i + 3 * j] = static_cast<float>(
          (50.0 + 3.0 * User_X(ds, g.xgrid[i]) + User_Y(ds, g.ygrid[j])) / ds.spxx);
  ds.topo.grid_heights = 1;
  ds.topo.type = 1;
}

TEST(ExportElevation, FlatSurfaceAndDistortedBlocks) {
  Hand_Set s;
  Data_Set &d = *s.ds;
  Hand_Model(d, 2, 2, 2);
  // No topography: elevation is minus the depth; the centre is the corners' mean.
  double c[3], k[8][3];
  Block_Centre_User(d, 7, 1, c); // i 1, j 1, layer 2
  EXPECT_DOUBLE_EQ(c[0], 100.0 + 2.0 * 1.5);
  EXPECT_DOUBLE_EQ(c[1], 200.0 + 2.0 * 1.5);
  EXPECT_DOUBLE_EQ(c[2], -1.5);
  // A surface: each corner lies its depth under the ground at its position.
  Plane_Surface(d);
  auto ground = [](double x, double y) { return 50.0 + 3.0 * x + y; };
  for (int b = 0; b < 8; b++) {
    Block_Corners_User(d, b, 1, k);
    for (int m = 0; m < 8; m++) {
      const double depth = d.Model_grid.blocks[b].z[m] * d.spxx;
      EXPECT_NEAR(k[m][2], ground(k[m][0], k[m][1]) - depth, 1e-4) << b << " " << m;
    }
  }
  Block_Centre_User(d, 0, 1, c);
  EXPECT_NEAR(c[2], ground(101.0, 201.0) - 0.5, 1e-4);
  // Beyond the grid the edge heights hold: with the last x line at 1 the
  // corners at x 104 take the ground at x 102.
  Plane_Surface(d, 1.0);
  Block_Corners_User(d, 1, 1, k);
  EXPECT_NEAR(k[2][2], ground(102.0, 202.0), 1e-4);
  EXPECT_NEAR(k[0][2], ground(102.0, 200.0), 1e-4); // inside: the plane itself
  Plane_Surface(d);
  // Without topography the surface is not used.
  Block_Centre_User(d, 0, 0, c);
  EXPECT_DOUBLE_EQ(c[2], -0.5);
  // Distorted blocks: z counts down from the highest ground node (50 + 3 *
  // 104 + 204 = 566), x and y stay those of the flat blocks.
  Inv_Results &r = d.Inv_results;
  r.distorted = 1;
  r.distorted_corners.assign(24 * 8, 0.0f);
  for (int b = 0; b < 8; b++)
    for (int m = 0; m < 8; m++)
      r.distorted_corners[24 * b + 16 + m] = static_cast<float>(10.0 * b + m);
  Block_Corners_User(d, 3, 1, k);
  for (int m = 0; m < 8; m++) {
    EXPECT_NEAR(k[m][2], 566.0 - (30.0 + m), 1e-3);
    EXPECT_DOUBLE_EQ(k[m][0], User_X(d, d.Model_grid.blocks[3].x[m]));
  }
  Block_Centre_User(d, 3, 1, c);
  EXPECT_NEAR(c[2], 566.0 - 33.5, 1e-3);
  Block_Centre_User(d, 3, 0, c);
  EXPECT_DOUBLE_EQ(c[2], -0.5);
  // Too few distorted values for the model: the surface rule again.
  r.distorted_corners.resize(24 * 7);
  Block_Centre_User(d, 0, 1, c);
  EXPECT_NEAR(c[2], ground(101.0, 201.0) - 0.5, 1e-4);
}

// --- Block-centre tables -------------------------------------------------------------------

TEST(ExportXYZC, HeadsRowsAndNamesOfTheFourTables) {
  Hand_Set s;
  Data_Set &d = *s.ds;
  Hand_Model(d, 2, 2, 2);
  d.Inv_results.typeip = 1;
  d.Data_ip.typeip = 1;
  struct Case {
    int log, ip;
    const char *ending, *head;
  } cases[] = {
      {0, 0, "model_Iter6_Res_Model_XYZC.dat", "\"X\",\"Y\",\"Z\",\"Model Resistivity\""},
      {0, 1, "model_Iter6_Res_IP_Model_XYZC.dat",
       "\"X\",\"Y\",\"Z\",\"Model Resistivity\",\"Model IP\""},
      {1, 0, "model_Iter6_LogRes_Model_XYZC.dat", " \"X\",\"Y\",\"Z\",\"Model Log10 Resis\""},
      {1, 1, "model_Iter6_LogRes_IP_Model_XYZC.dat",
       "\"X\",\"Y\",\"Z\",\"Model Log10 Resis\",\"Model IP\""}};
  for (const Case &c : cases) {
    s.files.clear();
    s.rec.Clear();
    ASSERT_EQ(Save_Blocks_Values_XYZ(d, s.results(), 6, c.log, c.ip, s.files), 0);
    ASSERT_EQ(s.files.size(), 2u);
    const std::string path = File_Ending(s.files, c.ending);
    ASSERT_FALSE(path.empty()) << c.ending;
    const std::vector<std::string> lines = Lines(Read_File(path));
    ASSERT_EQ(lines.size(), 9u) << c.ending;
    EXPECT_EQ(lines[0], c.head);
    for (int b = 0; b < 8; b++) {
      const std::vector<double> v = Numbers(lines[b + 1]);
      ASSERT_EQ(v.size(), c.ip ? 5u : 4u);
      double centre[3];
      Block_Centre_User(d, b, 1, centre);
      EXPECT_NEAR(v[0], centre[0], 1e-4);
      EXPECT_NEAR(v[1], centre[1], 1e-4);
      EXPECT_NEAR(v[2], centre[2], 1e-4);
      const double r = 10.0 + b;
      EXPECT_NEAR(v[3], c.log ? std::log10(r) : r, c.log ? 1e-6 : 1e-3);
      if (c.ip) {
        EXPECT_NEAR(v[4], b + 1.0, 1e-3);
      }
    }
    // The row layout itself.
    char want[128];
    if (c.log)
      std::snprintf(want, sizeof want, "%12.4f %12.4f %12.4f %12.6f", 101.0, 201.0, -0.5,
                    std::log10(10.0));
    else
      std::snprintf(want, sizeof want, "%12.4f %12.4f %12.4f %12.3f", 101.0, 201.0, -0.5, 10.0);
    EXPECT_EQ(lines[1].substr(0, 51), want);
    EXPECT_EQ(lines[1].substr(51), c.ip ? "     1.000" : "");
    const std::string elec = File_Ending(s.files, "model_Elec.dat");
    ASSERT_FALSE(elec.empty());
    EXPECT_EQ(Read_File(elec), " \"X\",\"Y\",\"Z\",\"Electrode Colour\"\n");
    const Recorded_Message *m = s.rec.Last("Message");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->text, "Output xyz files are :-\n" + path + "\n" + elec + "\n");
  }
  // No IP model: the IP form falls back to resistivity only.
  d.Inv_results.typeip = 0;
  s.files.clear();
  ASSERT_EQ(Save_Blocks_Values_XYZ(d, s.results(), 6, 0, 1, s.files), 0);
  EXPECT_FALSE(File_Ending(s.files, "_Iter6_Res_Model_XYZC.dat").empty());
}

TEST(ExportXYZC, ResolutionTableWithAndWithoutIP) {
  Hand_Set s;
  Data_Set &d = *s.ds;
  Hand_Model(d, 2, 1, 1);
  Inv_Results &r = d.Inv_results;
  // No resolution values: refused.
  EXPECT_EQ(Save_Resolution_Values_XYZ(d, s.results(), s.files), 1);
  EXPECT_TRUE(s.files.empty());
  r.reso_present = 1;
  r.reso = {0.25f, 0.5f};
  ASSERT_EQ(Save_Resolution_Values_XYZ(d, s.results(), s.files), 0);
  const std::string path = File_Ending(s.files, "model_Res_Model_Reso_XYZC.dat");
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(Read_File(path), " \"X\",\"Y\",\"Z\",\"Model Resoution\"\n"
                             "    101.0000     201.0000      -0.5000     0.250000\n"
                             "    103.0000     201.0000      -0.5000     0.500000\n");
  r.typeip = 1;
  r.reso_ip = {0.125f, 0.0625f};
  s.files.clear();
  ASSERT_EQ(Save_Resolution_Values_XYZ(d, s.results(), s.files), 0);
  EXPECT_EQ(Read_File(path), " \"X\",\"Y\",\"Z\",\"Resoution Resistivity\",\"Resoution IP\"\n"
                             "    101.0000     201.0000      -0.5000     0.250000     0.125000\n"
                             "    103.0000     201.0000      -0.5000     0.500000     0.062500\n");
}

// --- Electrodes ------------------------------------------------------------------------------

TEST(ExportElectrodes, OnlyElectrodesInUseGoOut) {
  Example_Results e("grid_9x14.dat");
  ASSERT_FALSE(e.results.empty());
  Data_Set &d = *e.ds;
  ASSERT_GT(d.num_point_elecs, 10);
  // Take some electrodes out of use, including the first and the last.
  const int off[3] = {0, 5, d.num_point_elecs - 1};
  for (int k : off)
    d.pe[k].used = 0;
  std::vector<std::array<double, 3>> want;
  for (int k = 0; k < d.num_point_elecs; k++)
    if (d.pe[k].used)
      want.push_back(
          {User_X(d, d.pe[k].x), User_Y(d, d.pe[k].y), (d.pe[k].z - d.pe[k].depth) * d.spxx});
  ASSERT_EQ(want.size(), static_cast<size_t>(d.num_point_elecs - 3));

  ASSERT_EQ(Save_Model_VTK(d, e.results, 1, Vtk_Export(), e.files), 0);
  const std::string vtk = Read_File(File_Ending(e.files, "_Elec.vtk"));
  const int n = static_cast<int>(want.size());
  const std::string count = std::to_string(n);
  EXPECT_NE(vtk.find("Points " + count + " double\n"), std::string::npos);
  EXPECT_NE(vtk.find("\nCELLS " + count + " " + std::to_string(2 * n) + "\n1 0\n1 1\n"),
            std::string::npos);
  EXPECT_NE(vtk.find("\nCELL_TYPES " + count + "\n1\n"), std::string::npos);
  EXPECT_NE(vtk.find("\nPOINT_DATA " + count +
                     "\nSCALARS sample_values double 1\nLOOKUP_TABLE default\n1000000.0\n"),
            std::string::npos);
  const std::vector<double> pts = Numbers(Inside(vtk, "double\n", "\nCELLS"));
  ASSERT_EQ(pts.size(), 3 * want.size());
  for (int k = 0; k < n; k++)
    for (int a = 0; a < 3; a++)
      EXPECT_NEAR(pts[3 * k + a], want[k][a], 1e-3) << k;

  ASSERT_EQ(Save_Blocks_Values_XYZ(d, e.results, 1, 0, 0, e.files), 0);
  const std::vector<std::string> rows = Lines(Read_File(File_Ending(e.files, "_Elec.dat")));
  ASSERT_EQ(rows.size(), want.size() + 1);
  for (int k = 0; k < n; k++) {
    char line[128];
    std::snprintf(line, sizeof line, "%14.4f %14.4f %14.4f  1000000.0", want[k][0], want[k][1],
                  want[k][2]);
    EXPECT_EQ(rows[k + 1], line);
  }
}

TEST(ExportElectrodes, ElevationsFollowTheGroundWithTopography) {
  Example_Results e("topography.dat");
  ASSERT_FALSE(e.results.empty());
  Data_Set &d = *e.ds;
  ASSERT_GT(d.num_point_elecs, 2);
  ASSERT_EQ(Save_Blocks_Values_XYZ(d, e.results, 1, 0, 0, e.files), 0);
  const std::vector<std::string> rows = Lines(Read_File(File_Ending(e.files, "_Elec.dat")));
  // The example's second electrode stands at 2, 0 at 100.8.
  bool found = false;
  for (const std::string &row : rows) {
    const std::vector<double> v = Numbers(row);
    if (v.size() == 4 && std::fabs(v[0] - 2.0) < 1e-6 && std::fabs(v[1]) < 1e-6) {
      EXPECT_NEAR(v[2], 100.8, 1e-3);
      found = true;
    }
  }
  EXPECT_TRUE(found);
  // Without topography the VTK electrodes stand on a flat 0 level.
  Vtk_Export opt;
  opt.topography = 0;
  e.files.clear();
  ASSERT_EQ(Save_Model_VTK(d, e.results, 1, opt, e.files), 0);
  const std::vector<double> pts =
      Numbers(Inside(Read_File(File_Ending(e.files, "_Elec.vtk")), "double\n", "\nCELLS"));
  ASSERT_FALSE(pts.empty());
  for (size_t k = 2; k < pts.size(); k += 3)
    EXPECT_EQ(pts[k], 0.0);
}

// --- Model list ------------------------------------------------------------------------------

TEST(ExportModelList, HeadAndOneRowPerBlock) {
  Hand_Set s;
  Data_Set &d = *s.ds;
  Hand_Model(d, 2, 1, 2);
  std::snprintf(d.title, sizeof d.title, "Test line");
  Plane_Surface(d); // depths stay depths below the ground
  ASSERT_EQ(Save_Model_List_XYZ(d, s.results(), 2, 0, s.files), 0);
  const std::string path = File_Ending(s.files, "model_model.xyz");
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(Read_File(path), "/Name of survey line is Test line\n"
                             "/Number of blocks is 4\n"
                             "/Results for iteration 2\n"
                             "       X            Y        Depth       Resistivity\n"
                             "    101.0000     201.0000       0.5000       10.000\n"
                             "    103.0000     201.0000       0.5000       11.000\n"
                             "    101.0000     201.0000       1.5000       12.000\n"
                             "    103.0000     201.0000       1.5000       13.000\n");
  const Recorded_Message *m = s.rec.Last("Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Output xyz file is :- " + path + "\n");
  d.Inv_results.typeip = 1;
  d.Data_ip.typeip = 1;
  ASSERT_EQ(Save_Model_List_XYZ(d, s.results(), 2, 1, s.files), 0);
  const std::vector<std::string> lines = Lines(Read_File(path));
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[3], "       X            Y        Depth       Resistivity         I.P.");
  EXPECT_EQ(lines[7], "    103.0000     201.0000       1.5000       13.000        4.000");
}

// --- Data listing ----------------------------------------------------------------------------

TEST(ExportMisfit, ListingOfObservedAndCalculatedData) {
  Example_Results e("grid_9x14.dat");
  ASSERT_FALSE(e.results.empty());
  Data_Set &d = *e.ds;
  ASSERT_EQ(Dump_Data_Misfits_Txt(d, e.results, 3, e.files), 0);
  ASSERT_EQ(e.files.size(), 2u);
  const std::string text = File_Ending(e.files, "survey_iter3_data_misfit.txt");
  const std::string xyzc = File_Ending(e.files, "survey_iter3_data_misfit_XYZC.dat");
  ASSERT_FALSE(text.empty());
  ASSERT_FALSE(xyzc.empty());
  const std::vector<std::string> lines = Lines(Read_File(text));
  ASSERT_EQ(lines.size(), static_cast<size_t>(d.mdata) + 3);
  EXPECT_EQ(lines[0], "Listing of measured and calculated data values for iteration 3");
  int nelec = 0;
  for (int i = 0; i < d.mdata; i++)
    nelec = std::max(nelec, d.dp[i].nelec);
  ASSERT_EQ(nelec, 4); // dipole-dipole
  EXPECT_EQ(lines[1], "  Data            Current C1              Current C2              "
                      "Potential P1            Potential P2      Observed  Calculated");
  EXPECT_EQ(lines[2], "                XC1         YC1         XC2         YC2         XP1  "
                      "       YP1         XP2         YP2     App.Res.    App.Res.   "
                      "App.Res.err.(%)");
  for (int i = 0; i < d.mdata; i++) {
    const Data_Point &p = d.dp[i];
    const std::string &row = lines[i + 3];
    char head[64];
    std::snprintf(head, sizeof head, "%7d  %11.3f,%11.3f", i + 1, User_X(d, p.c1[0]),
                  User_Y(d, p.c1[1]));
    ASSERT_EQ(row.substr(0, std::string(head).size()), head) << i;
    const std::vector<double> v = Numbers(row);
    ASSERT_EQ(v.size(), 1u + 8u + 3u) << row;
    EXPECT_NEAR(v[7], User_X(d, p.p2[0]), 1e-3);
    const double o = p.value, c = d.Inv_results.rm_disp[i];
    EXPECT_NEAR(v[9], o, 1e-3);
    EXPECT_NEAR(v[10], c, 1e-3);
    EXPECT_NEAR(v[11], 100.0 * (o - c) / c, 1e-3);
    // i % 5 == 0: calculated 2 percent low.
    if (i % 5 == 0) {
      EXPECT_NEAR(v[11], 100.0 * (1.0 / 0.98 - 1.0), 1e-2);
    }
  }
  const std::vector<std::string> rows = Lines(Read_File(xyzc));
  ASSERT_EQ(rows.size(), static_cast<size_t>(d.mdata) + 1);
  EXPECT_EQ(rows[0], " \"X\",\"Y\",\"Z\",\"Observed App.Res.\",\"Calculated App.Res.\","
                     "\"App.Res.err.(%)\"");
  for (int i = 0; i < d.mdata; i++) {
    const std::vector<double> v = Numbers(rows[i + 1]);
    ASSERT_EQ(v.size(), 6u);
    const Data_Point &p = d.dp[i];
    EXPECT_NEAR(v[0], User_X(d, (p.c1[0] + p.c2[0] + p.p1[0] + p.p2[0]) / 4), 1e-3);
    EXPECT_LT(v[2], 0.0); // under the flat ground
    EXPECT_NEAR(v[5], 100.0 * (p.value - d.Inv_results.rm_disp[i]) / d.Inv_results.rm_disp[i],
                1e-3);
  }
  const Recorded_Message *m = e.rec.Last("Message");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Data saved in file\n" + xyzc + "\n");
}

TEST(ExportMisfit, IPColumnsAndTheWideValueForm) {
  Example_Results e("ip_chargeability.dat");
  ASSERT_FALSE(e.results.empty());
  Data_Set &d = *e.ds;
  ASSERT_GT(d.Data_ip.typeip, 0);
  d.Inv_results.typeip = d.Data_ip.typeip;
  // One datum with a large observed value.
  d.dp[1].value = 2.5e6f;
  d.Inv_results.rm_disp[1] = 2.0e6f;
  ASSERT_EQ(Dump_Data_Misfits_Txt(d, e.results, 1, e.files), 0);
  const std::vector<std::string> lines =
      Lines(Read_File(File_Ending(e.files, "_iter1_data_misfit.txt")));
  ASSERT_EQ(lines.size(), static_cast<size_t>(d.mdata) + 3);
  EXPECT_NE(lines[1].find("Observed  Calculated   Observed  Calculated"), std::string::npos);
  EXPECT_TRUE(Has_Suffix(lines[2], "App.Res.err.(%)        I.P.        I.P.   I.P. diff."));
  int nelec = 0;
  for (int i = 0; i < d.mdata; i++)
    nelec = std::max(nelec, d.dp[i].nelec);
  for (int i = 0; i < d.mdata; i++) {
    const std::vector<double> v = Numbers(lines[i + 3]);
    ASSERT_EQ(v.size(), 1u + 2u * nelec + 6u) << lines[i + 3];
    const double mo = d.dp[i].ip_value * 1000.0, mc = d.Inv_results.mip_disp[i] * 1000.0;
    EXPECT_NEAR(v[v.size() - 3], mo, 1e-3);
    EXPECT_NEAR(v[v.size() - 2], mc, 1e-3);
    EXPECT_NEAR(v[v.size() - 1], mo - mc, 2e-3);
  }
  // The wide form: 16 places for the observed value.
  EXPECT_NE(lines[4].find("      2500000.000,2000000.000,     25.000"), std::string::npos)
      << lines[4];
  const std::vector<std::string> rows =
      Lines(Read_File(File_Ending(e.files, "_iter1_data_misfit_XYZC.dat")));
  EXPECT_TRUE(Has_Suffix(rows[0], ",\"Observed IP\",\"Calculated IP\",\"IP difference\""));
  EXPECT_EQ(Numbers(rows[1]).size(), 9u);
}

// --- Failures --------------------------------------------------------------------------------

TEST(ExportFailures, MissingValuesAndUnwritableFolders) {
  Hand_Set s;
  Data_Set &d = *s.ds;
  Hand_Model(d, 2, 2, 1);
  // A folder that does not exist.
  const std::string bad = s.tmp.sub("missing/model.inv");
  EXPECT_EQ(Save_Blocks_Values_XYZ(d, bad, 1, 0, 0, s.files), 1);
  EXPECT_EQ(Save_Model_VTK(d, bad, 1, Vtk_Export(), s.files), 1);
  EXPECT_EQ(Save_Model_List_XYZ(d, bad, 1, 0, s.files), 1);
  EXPECT_TRUE(s.files.empty());
  const Recorded_Message *m = s.rec.Last("File Error");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->text, "Cannot create file\n" + s.tmp.sub("missing/model_model.xyz") + "\n");
  // No live model or calculated values.
  d.Inv_results.rt_disp.resize(3);
  s.rec.Clear();
  EXPECT_EQ(Save_Blocks_Values_XYZ(d, s.results(), 4, 0, 0, s.files), 1);
  EXPECT_EQ(Save_Model_VTK(d, s.results(), 4, Vtk_Export(), s.files), 1);
  EXPECT_EQ(Save_Model_List_XYZ(d, s.results(), 4, 0, s.files), 1);
  EXPECT_EQ(Dump_Data_Misfits_Txt(d, s.results(), 4, s.files), 1);
  EXPECT_TRUE(s.files.empty());
  EXPECT_EQ(s.rec.Count("Message"), 4);
  ASSERT_NE(s.rec.Last("Message"), nullptr);
  EXPECT_EQ(s.rec.Last("Message")->text, "No calculated data values for iteration 4.");
}

} // namespace
