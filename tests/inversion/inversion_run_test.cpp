// Whole inversion runs on small surveys: the results file's sections, the
// user's stop, the first iteration's norm, recovery of a buried block and of
// a two-layer earth, and a run killed from outside.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/temp_files.h"
#include "forward/forward_test_support.h"
#include "forward/synthetic.h"
#include "inversion/inversion.h"

namespace {

std::string Read_Text_File(const std::string &path) {
  std::ifstream f(path);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

int Count_Of(const std::string &text, const std::string &what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    n++;
  return n;
}

// Runs command 501 on the survey read by `s`, results in `name`.
int Invert(Example_Survey &s, const std::string &name) {
  return s.ds->Run_Command(CMD_INVERT, s.tmp.sub(name).c_str());
}

// Numbers in `text` from `from` up to the next line starting with a letter
// other than 'e' or 'E' after the first line.
std::vector<double> Numbers_After(const std::string &text, size_t from) {
  std::vector<double> v;
  std::istringstream in(text.substr(from));
  std::string line;
  std::getline(in, line); // the caption
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    double x;
    bool any = false;
    while (ls >> x) {
      v.push_back(x);
      any = true;
    }
    if (!any)
      break;
  }
  return v;
}

} // namespace

TEST(InversionRun, NoIterationsWritesHeaderAndSummaryOnly) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  s.ds->LS_method.nit = 0;
  ASSERT_EQ(Invert(s, "none.inv"), 0);
  const std::string inv = Read_Text_File(s.tmp.sub("none.inv"));
  EXPECT_EQ(Count_Of(inv, "MODEL iteration"), 0);
  EXPECT_EQ(Count_Of(inv, "Topography removal parameters"), 1);
  EXPECT_EQ(Count_Of(inv, "Coordinates of blocks"), 1);
}

TEST(InversionRun, IpDataGiveAResistivityOnlyResultsFile) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("ip_chargeability.dat"), 0);
  const int typeip = s.ds->Data_ip.typeip;
  ASSERT_GT(typeip, 0);
  s.ds->LS_method.nit = 1;
  ASSERT_EQ(Invert(s, "ip.inv"), 0);
  const std::string inv = Read_Text_File(s.tmp.sub("ip.inv"));
  // Models and calculated values of resistivity only, and a header that
  // says no IP, so that the file reads back as what it holds.
  EXPECT_EQ(Count_Of(inv, "MODEL iteration"), 1);
  EXPECT_EQ(Count_Of(inv, "IP present"), 0);
  EXPECT_EQ(Count_Of(inv, "IP MODEL"), 0);
  EXPECT_EQ(Count_Of(inv, "CALCULATED APPARENT IP"), 0);
  EXPECT_EQ(s.ds->Data_ip.typeip, typeip) << "the data set keeps its IP values";
}

// The disk check before a run asks for at least what the run's temporary
// files take at their peak: the buffer folder measured at every progress
// call of a run (surface data, a pole-dipole survey, boreholes).
TEST(InversionRun, DiskEstimateCoversThePeakOfTheBufferFolder) {
  struct Folder_Peak {
    std::string folder;
    int64_t peak = 0;
  };
  static Folder_Peak watch;
  for (const char *file : {"grid_dipole_dipole.dat", "grid_pole_dipole.dat", "borehole.dat"}) {
    SCOPED_TRACE(file);
    Example_Survey s;
    ASSERT_EQ(s.Read_Example(file), 0);
    watch = Folder_Peak{s.ds->System_config.buffer_folder, 0};
    s.ds->fe.progress = [](void *, const char *, double) {
      int64_t bytes = 0;
      std::error_code ec;
      for (const auto &e : std::filesystem::directory_iterator(watch.folder, ec))
        if (e.is_regular_file(ec))
          bytes += static_cast<int64_t>(e.file_size(ec));
      watch.peak = std::max(watch.peak, bytes);
      return 0;
    };
    s.ds->LS_method.nit = 2;
    const double estimate = Disk_Space_Inversion_GB(Inversion_Disk_Inputs(*s.ds)) * 1073741824.0;
    ASSERT_EQ(Invert(s, "disk.inv"), 0);
    EXPECT_GT(watch.peak, 1000000) << "the run's files were not seen";
    EXPECT_GE(estimate, 1.05 * static_cast<double>(watch.peak))
        << "estimate " << estimate << " bytes, peak " << watch.peak;
    std::printf("    %s: estimate %.1f MB, peak of the buffer folder %.1f MB\n", file,
                estimate / 1048576.0, static_cast<double>(watch.peak) / 1048576.0);
  }
}

TEST(InversionRun, UserStopKeepsFinishedIterationsAndTheSummary) {
  // The pump reports a quit request once the second iteration's status line
  // is shown: the run ends at the next iteration head.
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Front_End fe = s.ds->fe;
  fe.progress = [](void *u, const char *text, double fraction) {
    auto *r = static_cast<test_support::Front_End_Record *>(u);
    r->progress_calls.push_back({text, fraction});
    return std::strncmp(text, "Iteration 2 ", 12) == 0 ? 1 : 0;
  };
  s.ds->fe = fe;
  s.ds->LS_method.nit = 6;
  ASSERT_EQ(Invert(s, "stop.inv"), 0);
  const std::string inv = Read_Text_File(s.tmp.sub("stop.inv"));
  EXPECT_EQ(Count_Of(inv, "MODEL iteration"), 2);
  EXPECT_EQ(Count_Of(inv, "Topography removal parameters"), 1);
  EXPECT_EQ(s.ds->LS.stop_inversion, 0); // cleared on leaving
}

TEST(InversionRun, RobustRunStartsWithTheLeastSquaresNorm) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  s.ds->LS_method.nit = 3;
  s.ds->LS_method.dataconstr = 1;
  s.ds->LS_method.convergence_limit = 0.0;
  ASSERT_EQ(Invert(s, "l1.inv"), 0);
  const std::string inv = Read_Text_File(s.tmp.sub("l1.inv"));
  EXPECT_NE(inv.find("Iteration  1 - Time taken in seconds"), std::string::npos);
  const size_t first = inv.find("Iteration  1 - Time taken in seconds");
  const size_t second = inv.find("Iteration  2 - Time taken in seconds");
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(second, std::string::npos);
  EXPECT_NE(inv.substr(first, second - first).find("RMS error"), std::string::npos);
  EXPECT_NE(inv.substr(second, 120).find("Abs. error"), std::string::npos);
  // The user's norm is back after the run.
  EXPECT_EQ(s.ds->LS_method.dataconstr, 1);
}

TEST(InversionRun, BuriedConductiveBlockIsRecovered) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  // A 10 ohm-m block in 100 ohm-m under the middle of the 18 x 10 m grid.
  Synthetic_Model model;
  model.background = 100.0;
  Synthetic_Box box;
  const double lim[6] = {6.0, 12.0, 3.0, 7.0, 0.7, 2.5};
  std::copy(lim, lim + 6, box.lim);
  box.res = 10.0;
  model.boxes.push_back(box);
  const std::string synth = s.tmp.sub("block.dat");
  ASSERT_EQ(Forward_Synthetic_Data(ds, model, synth.c_str(), 3.0, 7), 0);
  Example_Survey t;
  ASSERT_EQ(t.ds->Run_Command(CMD_READ_DATA, synth.c_str()), 0);
  Data_Set &dt = *t.ds;
  dt.LS_method.nit = 8;
  ASSERT_EQ(Invert(t, "block.inv"), 0);
  EXPECT_LE(dt.LS.hist_rms[dt.LS.nitcountres], 4.0);
  EXPECT_LE(dt.LS.nitcountres, 8);
  // The 10 lowest cells of the last model have their centres in the block
  // (positions normalised by the survey's unit spacing).
  const Model_Grid &g = dt.Model_grid;
  std::vector<int> order(g.nmodel_blocks);
  for (int b = 0; b < g.nmodel_blocks; b++)
    order[b] = b;
  const std::string inv = Read_Text_File(t.tmp.sub("block.inv"));
  ASSERT_NE(inv.find("MODEL iteration"), std::string::npos);
  // The model in memory is freed with the run; the last section holds it.
  const size_t last = inv.rfind("MODEL iteration");
  std::vector<double> res;
  {
    std::istringstream in(inv.substr(last));
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line) && line.rfind("CALCULATED", 0) != 0) {
      if (line.rfind("LAYER", 0) == 0)
        continue;
      std::istringstream ls(line);
      double x;
      while (ls >> x)
        res.push_back(x);
    }
  }
  ASSERT_EQ(static_cast<int>(res.size()), g.nmodel_blocks);
  std::partial_sort(order.begin(), order.begin() + 10, order.end(),
                    [&](int a, int b) { return res[a] < res[b]; });
  const double u = dt.spxx;
  for (int k = 0; k < 10; k++) {
    const Model_Block &b = g.blocks[order[k]];
    const double x = b.xc * u + dt.xmin, y = b.yc * u + dt.ymin, z = b.zc * u;
    // Cells whose centres lie on the box's faces belong to it.
    const double e = 0.01;
    EXPECT_TRUE(x > lim[0] - e && x < lim[1] + e && y > lim[2] - e && y < lim[3] + e &&
                z < lim[5] + 1.0)
        << "cell " << order[k] << " at " << x << ", " << y << ", " << z << " " << res[order[k]]
        << " ohm-m";
  }
  // The data misfit falls from the first iteration to the last.
  EXPECT_LT(dt.LS.hist_rms[dt.LS.nitcountres], dt.LS.hist_rms[1]);

  // The incomplete Gauss-Newton road with the compressed Jacobian, on the
  // same data, ends within 10 % of the direct road's misfit in as many
  // iterations.
  Example_Survey c;
  ASSERT_EQ(c.ds->Run_Command(CMD_READ_DATA, synth.c_str()), 0);
  Data_Set &dc = *c.ds;
  dc.LS_method.nit = 8;
  dc.LS_method.incomplete_solve = 2;
  dc.LS_method.data_compression = 1;
  dc.LS_method.cut_off = 0.005;
  ASSERT_EQ(Invert(c, "block_cg.inv"), 0);
  EXPECT_EQ(dc.LS.nitcountres, dt.LS.nitcountres);
  const double direct = dt.LS.hist_rms[dt.LS.nitcountres];
  EXPECT_NEAR(dc.LS.hist_rms[dc.LS.nitcountres], direct, 0.1 * direct);
  EXPECT_GT(dc.LS.cg_iterations, 0);
  EXPECT_GT(dc.LS.time_compress, 0.0);
}

TEST(InversionRun, TwoLayerEarthIsFitted) {
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  Data_Set &ds = *s.ds;
  // Surface potentials of a point source on 100 over 10 ohm-m with the
  // interface at 3 m, by the image series.
  const double rho1 = 100.0, rho2 = 10.0, h = 3.0 / ds.spxx;
  const double k = (rho2 - rho1) / (rho2 + rho1);
  auto potential = [&](const double *a, const double *b) {
    const double r = std::hypot(a[0] - b[0], a[1] - b[1]);
    double v = 1.0 / r, kn = 1.0;
    for (int n = 1; n < 400; n++) {
      kn *= k;
      v += 2.0 * kn / std::sqrt(r * r + 4.0 * n * n * h * h);
    }
    return rho1 * v / (2.0 * M_PI);
  };
  for (int i = 0; i < ds.mdata; i++) {
    Data_Point &d = ds.dp[i];
    double v = potential(d.c1, d.p1);
    if (d.nelec > 2)
      v -= potential(d.c1, d.p2);
    if (d.nelec == 4) {
      v -= potential(d.c2, d.p1);
      v += potential(d.c2, d.p2);
    }
    d.value = static_cast<float>(v / d.gfac);
  }
  // The potentials normalised by the half-space's, which takes most of the
  // mesh's own error out of the calculated values.
  ds.Fem.normalise_potentials = 1;
  ds.LS_method.nit = 10;
  ds.LS_method.convergence_limit = 0.2;
  // Noise-free data: the damping may fall below the default floor, which is
  // set for data with a few percent of noise.
  ds.LS_method.fmarqm = 0.0005;
  ASSERT_EQ(Invert(s, "layers.inv"), 0);
  EXPECT_LE(ds.LS.hist_rms[ds.LS.nitcountres], 2.0);
}

TEST(InversionRun, KilledRunKeepsCompleteIterations) {
  test_support::Temp_Folder tmp;
  const std::string data = tmp.sub("run.dat"), inv = tmp.sub("run.inv");
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_dipole_dipole.dat", data);
  std::filesystem::create_directories(tmp.sub("buf"));
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    execl(OHMVOL3D_CLI, OHMVOL3D_CLI, "invert", data.c_str(), "-o", inv.c_str(), "--buffer",
          tmp.sub("buf").c_str(), "--set", "nit=6", "--set", "convergence_limit=0.1",
          static_cast<char *>(nullptr));
    _exit(127);
  }
  close(out[1]);
  // Read the panel lines until the second iteration is reported saved.
  std::string seen;
  char buf[4096];
  bool second = false;
  ssize_t got;
  while (!second && (got = read(out[0], buf, sizeof buf)) > 0) {
    seen.append(buf, got);
    second = seen.find("Iteration 2 ") != std::string::npos;
  }
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  close(out[0]);
  ASSERT_TRUE(second) << seen;
  const std::string text = Read_Text_File(inv);
  EXPECT_EQ(Count_Of(text, "MODEL iteration"), 2);
  EXPECT_EQ(Count_Of(text, "Topography removal parameters"), 0);
  // The second section is whole: its calculated values and the misfit.
  const size_t at = text.find("CALCULATED APPARENT RESISTIVITY", text.find("MODEL iteration 2"));
  ASSERT_NE(at, std::string::npos);
  Example_Survey s;
  ASSERT_EQ(s.Read_Example("grid_dipole_dipole.dat"), 0);
  EXPECT_EQ(static_cast<int>(Numbers_After(text, at).size()), s.ds->mdata + 1);
}
