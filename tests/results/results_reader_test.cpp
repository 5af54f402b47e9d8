// Results files read back: a run's own file gives its models, calculated
// data, misfits and damping factors again; files cut short read as far as
// they are complete; files of other kinds are refused; the model binary
// files give any iteration.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/test_support.h"
#include "forward/forward_test_support.h"
#include "inversion/inversion.h"
#include "results/exports.h"
#include "results/results_file.h"

using namespace test_support;

namespace {

// What a run left in memory, to compare with what its file reads back as.
struct Run_Record {
  std::string text;                 // the results file
  std::vector<float> model, calc;   // the last iteration
  std::vector<double> rms, damping; // per iteration from 1
  int iterations = 0;
};

// A three-iteration inversion of the dipole-dipole example, run once.
const Run_Record &Small_Run() {
  static Run_Record rec;
  if (rec.iterations)
    return rec;
  Example_Survey s;
  EXPECT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  ds.LS_method.nit = 3;
  const std::string path = s.tmp.sub("run.inv");
  EXPECT_EQ(ds.Run_Command(CMD_INVERT, path.c_str()), 0);
  const LS_State &ls = ds.LS;
  rec.iterations = ls.nitcountres;
  rec.model.assign(ls.rt.begin(), ls.rt.begin() + ds.Model_grid.nmodel_blocks);
  rec.calc.assign(ls.rm.begin(), ls.rm.begin() + ds.mdata);
  for (int k = 1; k <= rec.iterations; k++) {
    rec.rms.push_back(ls.hist_rms[k]);
    rec.damping.push_back(ls.hist_fmarq[k]);
  }
  rec.text = Read_File(path);
  return rec;
}

// A fresh data set that reads `text` as a results file.
struct Reader {
  Example_Survey s;
  std::string path;
  int Read(const std::string &text, const std::string &name = "back.inv") {
    path = s.tmp.sub(name);
    Write_File(path, text);
    return s.ds->Run_Command(CMD_READ_RESULTS, path.c_str());
  }
  Inv_Results &r() { return s.ds->Inv_results; }
};

std::string Cut_Before(const std::string &text, const std::string &what) {
  const size_t at = text.find(what);
  EXPECT_NE(at, std::string::npos) << what;
  return text.substr(0, at);
}

void Expect_Near_Relative(const std::vector<float> &a, const std::vector<float> &b, double tol) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); i++)
    ASSERT_NEAR(a[i], b[i], tol * std::fabs(b[i]) + 1e-6) << "at " << i;
}

} // namespace

TEST(ResultsReader, ARunsFileGivesItsModelsDataMisfitsAndDampingBack) {
  const Run_Record &run = Small_Run();
  ASSERT_EQ(run.iterations, 3);
  Reader rd;
  ASSERT_EQ(rd.Read(run.text), 0);
  const Inv_Results &r = rd.r();
  Data_Set &ds = *rd.s.ds;
  EXPECT_EQ(ds.inv_read, 1);
  EXPECT_EQ(r.nitcount_inv, 3);
  // The live iteration after a read is the last one.
  EXPECT_EQ(r.iteration_disp, 3);
  Expect_Near_Relative(r.rt_disp, run.model, 1e-4);
  Expect_Near_Relative(r.rm_disp, run.calc, 1e-4);
  ASSERT_EQ(r.ndamping, 3);
  for (int k = 1; k <= 3; k++) {
    EXPECT_NEAR(r.rmsl[k], run.rms[k - 1], 0.0006) << k;
    EXPECT_NEAR(r.damping[k], run.damping[k - 1], 1e-5) << k;
  }
  EXPECT_GT(r.rmsl[0], r.rmsl[3]) << "the initial misfit";
  // The L-curve table holds a row per iteration.
  EXPECT_EQ(r.nlcurve, 3);
  EXPECT_EQ(r.topo_removal_present, 1);
  // Block geometry: the cells of the run's grid, with their centres.
  Example_Survey again;
  ASSERT_EQ(again.Read_Example("grid_dipole_dipole.dat"), 0);
  const Model_Grid &g0 = again.ds->Model_grid, &g1 = ds.Model_grid;
  ASSERT_EQ(g1.nmodel_blocks, g0.nmodel_blocks);
  ASSERT_EQ(g1.nlayers, g0.nlayers);
  for (int b = 0; b < g0.nmodel_blocks; b++) {
    ASSERT_NEAR(g1.blocks[b].xc, g0.blocks[b].xc, 1e-4) << b;
    ASSERT_NEAR(g1.blocks[b].zc, g0.blocks[b].zc, 1e-4) << b;
  }
  // Write again: the results read back export the same values.
  std::vector<std::string> files;
  ASSERT_EQ(Save_Blocks_Values_XYZ(ds, rd.path, 3, 0, 0, files), 0);
  ASSERT_FALSE(files.empty());
  std::istringstream xyzc(Read_File(files[0]));
  std::string head;
  std::getline(xyzc, head);
  double x, y, z, v;
  int rows = 0;
  while (xyzc >> x >> y >> z >> v) {
    ASSERT_LT(rows, static_cast<int>(run.model.size()));
    EXPECT_NEAR(v, run.model[rows], 0.002 + 1e-4 * run.model[rows]);
    rows++;
  }
  EXPECT_EQ(rows, static_cast<int>(run.model.size()));
}

TEST(ResultsReader, FilesCutShortReadAsFarAsTheyAreComplete) {
  const Run_Record &run = Small_Run();
  {
    Reader rd;
    ASSERT_EQ(rd.Read(Cut_Before(run.text, "MODEL iteration 3")), 0);
    EXPECT_EQ(rd.r().nitcount_inv, 2);
    EXPECT_EQ(rd.r().cut_iteration, 0) << "a stopped run's file ends between sections";
    EXPECT_EQ(rd.r().topo_removal_present, 0) << "no tail in a stopped run";
    EXPECT_EQ(rd.r().iteration_disp, 2);
  }
  {
    // Cut inside the third section: its half is left out.
    const std::string text = run.text;
    const size_t at = text.find("CALCULATED APPARENT RESISTIVITY", text.find("MODEL iteration 3"));
    Reader rd;
    ASSERT_EQ(rd.Read(text.substr(0, at + 40)), 0);
    EXPECT_EQ(rd.r().nitcount_inv, 2);
    EXPECT_EQ(rd.r().cut_iteration, 3);
  }
  {
    // Cut inside the third section's misfit number ("2.708" as "2."): the
    // section is not taken as whole, and the reader says so.
    const std::string text = run.text;
    const size_t calc =
        text.find("CALCULATED APPARENT RESISTIVITY", text.find("MODEL iteration 3"));
    const size_t misfit_end = text.find("\nTopography removal parameters", calc);
    ASSERT_NE(misfit_end, std::string::npos);
    const size_t dot = text.rfind('.', misfit_end);
    ASSERT_GT(dot, text.rfind('\n', misfit_end - 1));
    Reader rd;
    ASSERT_EQ(rd.Read(text.substr(0, dot + 1)), 0);
    EXPECT_EQ(rd.r().nitcount_inv, 2);
    EXPECT_EQ(rd.r().cut_iteration, 3);
    const Recorded_Message *said = rd.s.rec.Last("Inv file message");
    ASSERT_NE(said, nullptr);
    EXPECT_NE(said->text.find("ends inside iteration 3"), std::string::npos) << said->text;
  }
  {
    // The header alone: an inversion that had not finished its first step.
    Reader rd;
    ASSERT_EQ(rd.Read(Cut_Before(run.text, "MODEL iteration 1")), 0);
    EXPECT_EQ(rd.r().nitcount_inv, 0);
    EXPECT_EQ(rd.s.ds->Model_grid.nmodel_blocks, static_cast<int>(run.model.size()));
  }
}

TEST(ResultsReader, ValuesBelowTheFloorAndLongDampingListsAreLimited) {
  const Run_Record &run = Small_Run();
  std::string text = run.text;
  // The first value of the first model section to 1e-9.
  const size_t layer = text.find("LAYER 1", text.find("MODEL iteration 1"));
  const size_t start = text.find_first_not_of(" \n", text.find('\n', layer));
  const size_t end = text.find(' ', start);
  text.replace(start, end - start, "0.000000001");
  // More than 40 iterations in the damping list.
  for (int k = 0; k < 41; k++)
    text += "Iteration 99 - Time taken in seconds       1.00, RMS error    1.000, Damping factor "
            "  0.01000\n";
  Reader rd;
  ASSERT_EQ(rd.Read(text), 0);
  ASSERT_EQ(Read_Model_Binary_File(*rd.s.ds, 1), 0);
  EXPECT_FLOAT_EQ(rd.r().rt_disp[0], 1e-7f);
  EXPECT_EQ(rd.r().ndamping, 40);
  int said = 0;
  for (const auto &m : rd.s.rec.messages)
    said += m.text == "Error in number of iterations 44";
  EXPECT_EQ(said, 1);
}

TEST(ResultsReader, FilesOfOtherKindsAreRefusedAndKeepNothing) {
  const Run_Record &run = Small_Run();
  {
    // No point electrode list.
    std::string text = run.text;
    const size_t at = text.find("Point Electrodes outside grid present");
    const size_t end = text.find("\n   60 ", at);
    ASSERT_NE(end, std::string::npos);
    text.erase(at, text.find('\n', end + 1) + 1 - at);
    Reader rd;
    EXPECT_EQ(rd.Read(text), 1);
    const auto *m = rd.s.rec.Last("Inv file message");
    ASSERT_NE(m, nullptr);
    EXPECT_NE(m->text.find("It only supports data in the arbitrary point electrodes format."),
              std::string::npos);
  }
  {
    // An electrode of the data missing from the list.
    std::string text = run.text;
    const size_t at = text.find("Number of point electrodes\n60\n");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, 30, "Number of point electrodes\n59\n");
    const size_t last = text.find("\n   60 ");
    ASSERT_NE(last, std::string::npos);
    text.erase(last + 1, text.find('\n', last + 1) - last);
    Reader rd;
    EXPECT_EQ(rd.Read(text), 1);
    const auto *m = rd.s.rec.Last("Inv file message");
    ASSERT_NE(m, nullptr);
    EXPECT_NE(m->text.find("All the electrodes used must be included in the list"),
              std::string::npos);
    EXPECT_EQ(rd.s.ds->mdata, 0);
    EXPECT_EQ(rd.s.ds->Model_grid.nmodel_blocks, 0);
    EXPECT_EQ(rd.s.ds->inv_read, 0);
  }
  {
    // A data file is a results file without model geometry.
    Reader rd;
    EXPECT_EQ(rd.Read(Read_File(std::string(OHMVOL3D_EXAMPLES) + "/grid_dipole_dipole.dat")), 1);
    EXPECT_EQ(rd.r().nitcount_inv, 0);
    EXPECT_EQ(rd.s.ds->inv_read, 0);
  }
}

TEST(ResultsReader, BinaryFilesGiveAnyIterationAndKeepTheLiveOneOtherwise) {
  const Run_Record &run = Small_Run();
  Reader rd;
  ASSERT_EQ(rd.Read(run.text), 0);
  Data_Set &ds = *rd.s.ds;
  const Inv_Results &r = rd.r();
  const int n = ds.Model_grid.nmodel_blocks, m = ds.mdata;
  // No IP: one section of nit blocks each.
  EXPECT_EQ(std::filesystem::file_size(r.model_bin), sizeof(float) * 3 * n);
  EXPECT_EQ(std::filesystem::file_size(r.data_bin), sizeof(float) * 3 * m);
  ASSERT_EQ(Read_Model_Binary_File(ds, 1), 0);
  const std::vector<float> first = r.rt_disp;
  EXPECT_EQ(r.iteration_disp, 1);
  // Iteration 1 differs from the last, and a number past the count leaves
  // the live arrays alone.
  ASSERT_EQ(first.size(), run.model.size());
  EXPECT_NE(first, run.model);
  EXPECT_NE(Read_Model_Binary_File(ds, 4), 0);
  EXPECT_EQ(r.rt_disp, first);
  EXPECT_EQ(r.iteration_disp, 1);
  // The next read overwrites the files.
  ASSERT_EQ(rd.Read(Cut_Before(run.text, "MODEL iteration 2"), "cut.inv"), 0);
  EXPECT_EQ(std::filesystem::file_size(r.model_bin), sizeof(float) * 1 * n);
}

TEST(ResultsReader, TailSectionsAreTakenWhenPresent) {
  const Run_Record &run = Small_Run();
  const int n = static_cast<int>(run.model.size());
  std::string tail = "Blocks sensitivity values\n          Resistivity\nBlock No.  Sensitivity  "
                     "Sensitivity/vol\n";
  char row[128];
  for (int b = 0; b < n; b++) {
    std::snprintf(row, sizeof row, "%6d   %11.3e   %11.3e\n", b + 1, 0.5 + 0.01 * b, 0.25 + b);
    tail += row;
  }
  tail += "Average Sensitivity   1.250e-01\nMinimum cell volume\n      0.500\nMaximum cell "
          "volume\n     12.000\nSensitivity values not normalised\n";
  tail += "REFERENCE MODEL USED\nCONSTANT REFERENCE MODEL METHOD\nReference resistivity "
          "is\n55.000\n";
  tail += "Resolution values\nBlock No.  Resolution  Resolution/vol\n";
  for (int b = 0; b < n; b++) {
    std::snprintf(row, sizeof row, "  %4d   %12.4e   %12.4e\n", b + 1, 0.001 * b, 0.002 * b);
    tail += row;
  }
  tail += "Average Resolution   3.0000e-01\nMinimum block normalized volume\n 5.0000e-01\n";
  std::string text = run.text;
  const size_t topo = text.find("Topography removal parameters\n");
  ASSERT_NE(topo, std::string::npos);
  const size_t after = text.find('\n', text.find('\n', topo) + 1) + 1;
  text.insert(after, tail);

  Reader rd;
  // A resolution matrix file of the same model beside the results file.
  const std::string reso = rd.s.tmp.sub("back_reso.bin");
  const int32_t head[4] = {n, 1, n, 4};
  Write_File(reso, std::string(reinterpret_cast<const char *>(head), sizeof head));
  ASSERT_EQ(rd.Read(text), 0);
  const Inv_Results &r = rd.r();
  EXPECT_EQ(r.nitcount_inv, 3);
  ASSERT_EQ(r.sens_present, 1);
  EXPECT_EQ(r.sens_per_vol, 1);
  EXPECT_FLOAT_EQ(r.sens[0], 0.5f);
  EXPECT_NEAR(r.sens[n - 1], 0.5 + 0.01 * (n - 1), 1e-3);
  EXPECT_NEAR(r.sens_vol[2], 2.25, 1e-3);
  EXPECT_DOUBLE_EQ(r.sens_average, 0.125);
  EXPECT_DOUBLE_EQ(r.vol_min, 0.5);
  EXPECT_DOUBLE_EQ(r.vol_max, 12.0);
  EXPECT_EQ(r.sens_normalised, 0);
  EXPECT_EQ(r.reference_used, 1);
  EXPECT_DOUBLE_EQ(r.reference_res, 55.0);
  ASSERT_EQ(r.reso_present, 1);
  EXPECT_EQ(r.reso_vol_col, 1);
  EXPECT_NEAR(r.reso[n - 1], 0.001 * (n - 1), 1e-6);
  EXPECT_NEAR(r.reso_vol[3], 0.006, 1e-7);
  EXPECT_DOUBLE_EQ(r.reso_average, 0.3);
  EXPECT_EQ(r.reso_matrix_file, 1);

  // A matrix of another model is reported and not taken.
  const int32_t other[4] = {n + 1, 1, n + 1, 4};
  Write_File(reso, std::string(reinterpret_cast<const char *>(other), sizeof other));
  ASSERT_EQ(rd.Read(text), 0);
  EXPECT_EQ(rd.r().reso_matrix_file, 0);
  int said = 0;
  for (const auto &m : rd.s.rec.messages)
    said += m.text.find("Number of model cells in inversion file is") == 0;
  EXPECT_EQ(said, 1);
}

namespace {

// A resistivity results file of m data turned into one with IP: the header
// says IP and each data line has an IP value of 5 mV/V, the initial misfit
// has its IP line, and each section an IP model of 20 mV/V and calculated IP
// of 5.5 mV/V with an IP misfit of 1.
std::string With_IP(const std::string &text, int m) {
  const std::vector<std::string> lines = Lines(text);
  std::string out, model;
  int data_left = 0;
  bool in_model = false, header = true, calc = false, said_ip = false;
  for (size_t i = 0; i < lines.size(); i++) {
    const std::string &l = lines[i];
    if (header && !said_ip && l == std::to_string(m)) {
      said_ip = true;
      out += l + "\nIP present\nChargeability\nmV/V\n0.1200  1.0000\n";
      data_left = m;
      continue;
    }
    if (data_left > 0) {
      out += l + "  5.000\n";
      data_left--;
      continue;
    }
    if (i + 1 < lines.size() && lines[i + 1] == "MODEL iteration 1" && header) {
      out += l + "\n   2.000\n"; // the initial misfit and its IP line
      header = false;
      continue;
    }
    if (l.rfind("MODEL iteration", 0) == 0) {
      in_model = true;
      model.clear();
    } else if (in_model && l.rfind("CALCULATED", 0) == 0) {
      out += "IP MODEL\n" + model;
      in_model = false;
      calc = true;
    } else if (in_model) {
      if (l.rfind("LAYER", 0) == 0) {
        model += l + "\n";
      } else {
        std::istringstream in(l);
        for (std::string t; in >> t;)
          model += "20.0 ";
        model += "\n";
      }
    } else if (calc && l.find('.') != std::string::npos && l.size() < 12) {
      // The section's misfit line ends its calculated values.
      out += l + "\nCALCULATED APPARENT IP\n";
      for (int k = 0; k < m; k++)
        out += k % 10 == 9 || k == m - 1 ? "5.500\n" : "5.500 ";
      out += "   1.00000\n";
      calc = false;
      continue;
    }
    out += l + "\n";
  }
  return out;
}

} // namespace

TEST(ResultsReader, IPModelsAndCalculatedIPAreRead) {
  const Run_Record &run = Small_Run();
  const int n = static_cast<int>(run.model.size()), m = static_cast<int>(run.calc.size());
  Reader rd;
  ASSERT_EQ(rd.Read(With_IP(run.text, m)), 0);
  const Inv_Results &r = rd.r();
  ASSERT_EQ(r.typeip, 1);
  EXPECT_EQ(r.nitcount_inv, 3);
  EXPECT_EQ(rd.s.ds->num_valid_ip, m);
  EXPECT_NEAR(r.rmsip[0], 2.0, 1e-9);
  EXPECT_NEAR(r.rmsip[2], 1.0, 1e-9);
  // The binary files hold the IP blocks after the resistivity ones.
  EXPECT_EQ(std::filesystem::file_size(r.model_bin), sizeof(float) * 2 * 3 * n);
  EXPECT_EQ(std::filesystem::file_size(r.data_bin), sizeof(float) * 2 * 3 * m);
  ASSERT_EQ(Read_Model_Binary_File(*rd.s.ds, 2), 0);
  ASSERT_EQ(r.ipt_disp.size(), static_cast<size_t>(n));
  for (int b = 0; b < n; b++)
    ASSERT_NEAR(r.ipt_disp[b], 0.020, 1e-7) << b;
  ASSERT_EQ(r.mip_disp.size(), static_cast<size_t>(m));
  EXPECT_NEAR(r.mip_disp[m - 1], 0.0055, 1e-8);
  EXPECT_GT(r.rt_disp[0], 1.0f) << "the resistivity model is untouched";
}
