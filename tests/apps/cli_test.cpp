// The ohmvol3d command line as a user runs it: exit statuses, where output
// goes, settings files kept between runs, tracing.
#include <filesystem>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

std::string Slurp(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

void Spit(const std::string &path, const std::string &text) {
  std::ofstream f(path, std::ios::binary);
  f << text;
}

struct Run_Result {
  int status = -1;
  std::string out, err;
};

// Each test gets its own configuration and cache folders, so the user's own
// settings are never touched.
class Cli : public ::testing::Test {
protected:
  std::string dir;
  void SetUp() override {
    char tmpl[] = "/tmp/ohmvol3d_cli_XXXXXX";
    dir = mkdtemp(tmpl);
  }
  void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }
  std::string Cfg() const { return dir + "/cfg/ohmvol3d/"; }
  std::string Buffer() const { return dir + "/cache/ohmvol3d/temp_buffer_3D/"; }

  Run_Result Run(const std::string &args) {
    const std::string cmd = "cd '" + dir + "' && XDG_CONFIG_HOME='" + dir +
                            "/cfg' XDG_CACHE_HOME='" + dir + "/cache' '" OHMVOL3D_CLI "' " + args +
                            " >'" + dir + "/out.txt' 2>'" + dir + "/err.txt' </dev/null";
    Run_Result r;
    const int raw = std::system(cmd.c_str());
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = Slurp(dir + "/out.txt");
    r.err = Slurp(dir + "/err.txt");
    return r;
  }
  // The program run by bash with `shell` before it (commands ending in ';'
  // or '&&'), `lead` in front of it on its line (variables, a wrapper) and
  // `tail` after it (a '$' escaped as '\\$'); its output in out.txt and
  // err.txt. Returns the raw status of std::system.
  int Shell(const std::string &shell, const std::string &lead, const std::string &args,
            const std::string &tail = "") {
    const std::string cmd = "cd '" + dir + "' || exit 9; " + shell + " " + lead +
                            " XDG_CONFIG_HOME='" + dir + "/cfg' XDG_CACHE_HOME='" + dir +
                            "/cache' '" OHMVOL3D_CLI "' " + args +
                            " >out.txt 2>err.txt </dev/null " + tail;
    return std::system(("/bin/bash -c \"" + cmd + "\"").c_str());
  }
  // What a run left in a buffer folder besides its lock.
  static std::vector<std::string> Left_In(const std::string &folder) {
    std::vector<std::string> left;
    for (const auto &e : std::filesystem::directory_iterator(folder))
      if (e.path().filename() != "ohmvol3d.lock")
        left.push_back(e.path().filename().string());
    return left;
  }
  // The value column of one setting in 'settings show'.
  std::string Shown_Value(const std::string &key) {
    const Run_Result r = Run("settings show");
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line)) {
      std::istringstream words(line);
      std::string k, v;
      words >> k >> v;
      if (k == key)
        return v;
    }
    return "";
  }
};

TEST_F(Cli, InfoReportsConfigurationAndWritesIni) {
  const Run_Result r = Run("info");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("PC configuration :-"), std::string::npos);
  EXPECT_NE(r.out.find("Maximum data allowed "), std::string::npos);
  EXPECT_NE(r.out.find("Maximum mesh cells "), std::string::npos);
  EXPECT_NE(r.out.find("OpenBLAS kernel"), std::string::npos);
  EXPECT_EQ(Slurp(Cfg() + "ohmvol3d.ini").rfind("[programs]\neditor=", 0), 0u);
  EXPECT_EQ(access(Buffer().c_str(), W_OK), 0) << "buffer folder created";
  // The start-up's general low-disk warning is the desktop's: a command says
  // what its own run needs, when it needs it.
  EXPECT_EQ(r.err.find("Disk Error"), std::string::npos) << r.err;
}

TEST_F(Cli, UsageErrorsExitTwo) {
  EXPECT_EQ(Run("").status, 2);
  EXPECT_EQ(Run("frobnicate").status, 2);
  EXPECT_EQ(Run("info --bogus").status, 2);
  EXPECT_EQ(Run("info --set nosuchsetting=1").status, 2);
  EXPECT_EQ(Run("info --set nit=many").status, 2);
  EXPECT_EQ(Run("info --set nit").status, 2);
  EXPECT_EQ(Run("info --threads 0").status, 2);
  EXPECT_EQ(Run("settings").status, 2);
  EXPECT_EQ(Run("settings save").status, 2);
  const Run_Result help = Run("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("Usage: ohmvol3d"), std::string::npos);
  EXPECT_EQ(Run("--version").status, 0);
}

TEST_F(Cli, ReadReportsAndSavesTheData) {
  const std::string example = std::string(OHMVOL3D_EXAMPLES) + "/grid_pole_dipole.dat";
  const Run_Result r = Run("read " + example + " --save out.dat");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Number of data points 198"), std::string::npos);
  EXPECT_NE(r.err.find("File Read: Reading of file"), std::string::npos);
  const std::string saved = Slurp(dir + "/out.dat");
  EXPECT_EQ(saved.rfind("Pole-dipole lines along x", 0), 0u);
  // What was saved reads back and saves to the same bytes.
  ASSERT_EQ(Run("read out.dat --save again.dat").status, 0);
  EXPECT_EQ(saved, Slurp(dir + "/again.dat"));
  EXPECT_EQ(Run("read").status, 2);
}

TEST_F(Cli, ResultsFilesExportAndPlot) {
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_pole_dipole.dat",
                             dir + "/x.dat");
  // A data file is no results file.
  const Run_Result notinv = Run("export x.dat --format xyz");
  EXPECT_EQ(notinv.status, 1);
  EXPECT_NE(notinv.err.find("inversion results"), std::string::npos) << notinv.err;
  ASSERT_EQ(Run("invert x.dat -o x.inv --set nit=1 --quiet").status, 0);
  const Run_Result vtk = Run("export x.inv --format vtk");
  EXPECT_EQ(vtk.status, 0) << vtk.err;
  EXPECT_TRUE(std::filesystem::exists(dir + "/x_Iter1_Res_Model.vtk")) << vtk.out;
  EXPECT_EQ(Run("export x.inv --format vtk --iteration 2").status, 1);
  EXPECT_EQ(Run("export x.inv --format pdf").status, 2);
  EXPECT_EQ(Run("export x.inv --format xyz --iteration 0").status, 2);
  // The last iteration's layers as a PNG, and the other views and options.
  const Run_Result r = Run("plot x.inv -o x.png");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Picture: x.png"), std::string::npos) << r.out;
  EXPECT_EQ(Slurp(dir + "/x.png").substr(1, 3), "PNG");
  EXPECT_EQ(Run("plot x.inv --view yz --contour --size 800x600 -o yz.png").status, 0);
  EXPECT_EQ(Run("plot x.dat --view electrodes -o e.png").status, 0);
  EXPECT_TRUE(std::filesystem::exists(dir + "/yz.png") && std::filesystem::exists(dir + "/e.png"));
  EXPECT_EQ(Run("plot x.inv --view side -o s.png").status, 2);
  EXPECT_EQ(Run("plot x.inv --size 10x10 -o s.png").status, 2);
  EXPECT_EQ(Run("plot x.dat -o s.png").status, 2); // the sections need results
  EXPECT_EQ(Run("plot x.inv --view mesh -o s.png").status, 2);
  EXPECT_EQ(Run("plot x.inv").status, 2); // no -o
  // What the file does not hold is refused, not drawn from what it holds.
  const Run_Result later = Run("plot x.inv --iteration 99 -o s.png");
  EXPECT_EQ(later.status, 1);
  EXPECT_NE(later.err.find("Iteration 99 is not in the results file"), std::string::npos);
  for (const char *ip : {"plot x.inv --ip -o s.png", "export x.inv --format xyz --ip"}) {
    const Run_Result no_ip = Run(ip);
    EXPECT_EQ(no_ip.status, 1) << ip;
    EXPECT_NE(no_ip.err.find("holds no IP model"), std::string::npos) << ip << no_ip.err;
  }
  EXPECT_FALSE(std::filesystem::exists(dir + "/s.png"));
  // A folder named as the results file is kept, the run refused.
  std::filesystem::create_directories(dir + "/out.inv");
  EXPECT_EQ(Run("invert x.dat -o out.inv --set nit=1 --quiet").status, 1);
  EXPECT_TRUE(std::filesystem::is_directory(dir + "/out.inv"));
  // A file that is no data file stops at the read.
  Spit(dir + "/y.dat", "title\n");
  const Run_Result bad = Run("invert y.dat");
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.err.find("File Error: Error in reading file"), std::string::npos);
  EXPECT_EQ(bad.err.find("not available yet"), std::string::npos);
}

// A results file cut inside the last iteration's misfit number (a full disk,
// a run killed while writing): the commands work with the iterations before
// it, say why, and exit 1.
TEST_F(Cli, ResultsFileCutInsideANumberFails) {
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_pole_dipole.dat",
                             dir + "/x.dat");
  ASSERT_EQ(Run("invert x.dat -o x.inv --set nit=2 --quiet").status, 0);
  const std::string text = Slurp(dir + "/x.inv");
  const size_t end = text.find("\nTopography removal parameters");
  ASSERT_NE(end, std::string::npos);
  const size_t dot = text.rfind('.', end);
  Spit(dir + "/cut.inv", text.substr(0, dot + 1));
  for (const char *cmd : {"export cut.inv --format xyz", "plot cut.inv -o cut.png"}) {
    const Run_Result r = Run(cmd);
    EXPECT_EQ(r.status, 1) << cmd;
    EXPECT_NE(r.err.find("ends inside iteration 2"), std::string::npos) << cmd << r.err;
  }
  // The whole file still reads.
  EXPECT_EQ(Run("export x.inv --format xyz").status, 0);
}

// The 9 by 14 electrode grid: the adaptive mesh is smaller than the dense one
// and both pass the mesh checks; --vtk writes the mesh.
TEST_F(Cli, MeshReportsBothFormsAndWritesVtk) {
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_9x14.dat", dir + "/g.dat");
  int nodes[2] = {};
  for (int dense = 0; dense < 2; dense++) {
    const Run_Result r =
        Run("mesh g.dat --vtk m.vtk --set use_dense_rect_mesh=" + std::to_string(dense));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Number of layers is "), std::string::npos);
    EXPECT_NE(r.out.find("Open faces 0, faces shared more than twice 0, elements off their "
                         "levels 0, transition volume errors 0."),
              std::string::npos)
        << r.out;
    const size_t at = r.out.find("Nodes in the solved mesh ");
    ASSERT_NE(at, std::string::npos);
    nodes[dense] = std::atoi(r.out.c_str() + at + 25);
    EXPECT_EQ(Slurp(dir + "/m.vtk").rfind("# vtk DataFile Version 3.0\n", 0), 0u);
  }
  EXPECT_GT(nodes[0], 0);
  EXPECT_LT(nodes[0], nodes[1]);
  EXPECT_EQ(Run("mesh").status, 2);
}

// Synthetic data of a model file: a conductor lowers the values above it,
// the file reads back, and noise is recorded as the error estimate. Broken
// model files are refused with the line that is wrong.
TEST_F(Cli, ForwardWritesSyntheticDataThatReadsBack) {
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_pole_dipole.dat",
                             dir + "/p.dat");
  Spit(dir + "/flat.txt", "# uniform ground\nbackground 50\n");
  Spit(dir + "/box.txt", "background 50\nbox 4 14  2 8  0.5 3  5  # conductor\n");
  ASSERT_EQ(Run("forward p.dat --model flat.txt -o flat.dat").status, 0);
  const Run_Result r = Run("forward p.dat --model box.txt -o box.dat --noise 2 --seed 3");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Calculated data of 198 points written to"), std::string::npos);
  // Values: the last column of each data line.
  auto values = [&](const std::string &file) {
    std::vector<double> v;
    std::istringstream in(Slurp(dir + "/" + file));
    std::string line;
    while (std::getline(in, line)) {
      std::istringstream words(line);
      std::vector<double> w;
      double x;
      while (words >> x)
        w.push_back(x);
      if (w.size() >= 7 && w.size() <= 9)
        v.push_back(w[w.size() - (file == "box.dat" ? 2 : 1)]);
    }
    return v;
  };
  const std::vector<double> flat = values("flat.dat"), box = values("box.dat");
  ASSERT_EQ(flat.size(), 198u);
  ASSERT_EQ(box.size(), 198u);
  int lower = 0;
  for (size_t i = 0; i < flat.size(); i++) {
    EXPECT_NEAR(flat[i], 50.0, 1.5) << i; // the mesh's own error on a half-space
    lower += box[i] < 0.97 * flat[i];
  }
  EXPECT_GT(lower, 20);
  const Run_Result back = Run("read box.dat");
  ASSERT_EQ(back.status, 0) << back.err;
  EXPECT_EQ(back.err.find("No data error estimate"), std::string::npos);
  Spit(dir + "/bad.txt", "background 50\nbox 4 2  2 8  0.5 3  5\n");
  const Run_Result bad = Run("forward p.dat --model bad.txt -o x.dat");
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.err.find("Line 2 of the model file"), std::string::npos) << bad.err;
  EXPECT_EQ(Run("forward p.dat --model box.txt").status, 2);
  EXPECT_EQ(Run("forward p.dat --model box.txt -o y.dat --noise -1").status, 2);
}

// One row of check-mesh's error table: data, median, 95th percentile and
// largest error (percent) of the arrays named.
struct Error_Row {
  bool found = false;
  int count = 0;
  double median = -1.0, p95 = -1.0, largest = -1.0;
};

// A row of `count` data whose median, 95th percentile and largest rise in order.
void Expect_Row_Of(const Error_Row &row, int count) {
  EXPECT_EQ(row.count, count);
  EXPECT_LE(row.median, row.p95);
  EXPECT_LE(row.p95, row.largest);
}

Error_Row Check_Mesh_Row(const std::string &out, const std::string &name) {
  Error_Row e;
  const size_t at = out.find("\n" + name + " ");
  if (at == std::string::npos)
    return e;
  std::istringstream row(out.substr(at + name.size() + 2));
  e.found = static_cast<bool>(row >> e.count >> e.median >> e.p95 >> e.largest);
  return e;
}

// The mesh check reports its errors by array type and the worst data.
TEST_F(Cli, CheckMeshReportsErrorsByArrayType) {
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_pole_dipole.dat",
                             dir + "/p.dat");
  const Run_Result r = Run("check-mesh p.dat");
  ASSERT_EQ(r.status, 0) << r.err;
  const Error_Row row = Check_Mesh_Row(r.out, "pole-dipole");
  ASSERT_TRUE(row.found) << r.out;
  Expect_Row_Of(row, 198);
  EXPECT_GT(row.median, 0.0);
  EXPECT_LT(row.largest, 2.0);
  EXPECT_NE(r.out.find("Largest errors:"), std::string::npos);
  // The forward model's temporary files go with the command.
  const std::vector<std::string> left = Left_In(Buffer());
  EXPECT_TRUE(left.empty()) << left.front();
}

// With --model the check compares a two-layer earth; a model that is not
// one is refused with what can be checked.
TEST_F(Cli, CheckMeshTwoLayerModel) {
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_pole_dipole.dat",
                             dir + "/p.dat");
  Spit(dir + "/two.txt", "background 20\nlayer 0 2 100  # upper layer\n");
  const Run_Result r = Run("check-mesh p.dat --model two.txt");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Two-layer earth of 100 ohm-m down to 2 over 20 ohm-m"), std::string::npos)
      << r.out;
  const Error_Row row = Check_Mesh_Row(r.out, "all");
  ASSERT_TRUE(row.found) << r.out;
  Expect_Row_Of(row, 198);
  EXPECT_GE(row.median, 0.0);
  EXPECT_LT(row.median, 5.0);
  Spit(dir + "/box.txt", "background 20\nbox 0 4 0 4 0 1 5\n");
  const Run_Result refused = Run("check-mesh p.dat --model box.txt");
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("What can be checked"), std::string::npos) << refused.err;
  EXPECT_EQ(Run("check-mesh p.dat --model missing.txt").status, 1);
}

TEST_F(Cli, SettingsSaveLoadSaveIsStable) {
  ASSERT_EQ(Run("settings save a.ivp --set nit=7").status, 0);
  const Run_Result load = Run("settings load a.ivp");
  ASSERT_EQ(load.status, 0) << load.err;
  EXPECT_NE(load.err.find("Inversion settings from file"), std::string::npos);
  EXPECT_NE(load.out.find("Number of iterations  7"), std::string::npos);
  ASSERT_EQ(Run("settings save b.ivp").status, 0);
  const std::string a = Slurp(dir + "/a.ivp");
  EXPECT_EQ(a.rfind("Inversion settings\n", 0), 0u);
  EXPECT_EQ(a.substr(a.size() - 13), "\nEnd of file\n");
  EXPECT_EQ(a, Slurp(dir + "/b.ivp"));
  // The loaded file is kept: a plain later run starts from it.
  EXPECT_EQ(Shown_Value("nit"), "7");
  ASSERT_EQ(Run("settings reset").status, 0);
  EXPECT_NE(Shown_Value("nit"), "7");
}

TEST_F(Cli, PartialFileChangesOnlyItsSettingClamped) {
  ASSERT_EQ(Run("settings save before.ivp").status, 0);
  Spit(dir + "/one.ivp", "Inversion settings\nInitial damping factor\n50\n");
  ASSERT_EQ(Run("settings load one.ivp").status, 0);
  ASSERT_EQ(Run("settings save after.ivp").status, 0);
  std::istringstream before(Slurp(dir + "/before.ivp")), after(Slurp(dir + "/after.ivp"));
  std::string lb, la, caption;
  int differences = 0;
  while (std::getline(before, lb) && std::getline(after, la)) {
    if (lb != la) {
      differences++;
      EXPECT_EQ(caption, "Initial damping factor");
      EXPECT_EQ(la, "10.0000");
    }
    caption = lb;
  }
  EXPECT_EQ(differences, 1);
}

TEST_F(Cli, WrongHeaderRefusedButSilentAtStart) {
  Spit(dir + "/bad.ivp", "Some other file\nInitial damping factor\n0.5\n");
  const Run_Result r = Run("settings load bad.ivp");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error in ivp file format: Error in format of file with inversion "
                       "settings.\n\nThe first line is given as\nSome other file\n"),
            std::string::npos);
  // The same file as the kept settings is passed over without a word.
  ASSERT_EQ(Run("info").status, 0);
  Spit(Cfg() + "ohmvol3d.ivp", "Some other file\nInitial damping factor\n0.5\n");
  const Run_Result start = Run("info");
  EXPECT_EQ(start.status, 0);
  EXPECT_EQ(start.err.find("ivp file format"), std::string::npos);
}

// A folder where a settings file is wanted, and a data set the inversion
// refuses: a message and exit 1, no abort, no crash, no results file named.
TEST_F(Cli, FolderSettingsAndRefusedInversionFailCleanly) {
  std::filesystem::create_directories(dir + "/folder.ivp");
  for (const char *args : {"settings load folder.ivp", "info --ivp folder.ivp"}) {
    SCOPED_TRACE(args);
    const Run_Result r = Run(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("folder.ivp is not a file"), std::string::npos) << r.err;
  }
  const Run_Result t =
      Run(std::string("invert '") + OHMVOL3D_EXAMPLES + "/time_lapse.dat' -o tl.inv");
  EXPECT_EQ(t.status, 1);
  EXPECT_NE(t.err.find("Time-lapse inversion is not available"), std::string::npos) << t.err;
  EXPECT_EQ((t.out + t.err).find("Results file"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir + "/tl.inv"));
}

// Under an address-space limit too small for the program's tables the run
// says what it lacked and exits 1: no crash after the failed allocation.
// One thread a pool: OpenBLAS's own worker threads retry a failed buffer
// allocation for ever, which no program of its can end.
TEST_F(Cli, AddressSpaceLimitEndsWithAMessage) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer's shadow memory needs more address space than the limits";
#endif
  // The data arrays are sized from the data file (711 data), not from the
  // limits of the machine: the mesh fits in 400 MB of address space.
  const int raw = Shell("ulimit -v 400000 &&", "OPENBLAS_NUM_THREADS=1 OMP_NUM_THREADS=1",
                        "mesh '" + std::string(OHMVOL3D_EXAMPLES) + "/grid_9x14.dat'");
  ASSERT_TRUE(WIFEXITED(raw));
  EXPECT_EQ(WEXITSTATUS(raw), 0) << Slurp(dir + "/err.txt");
  // Tighter, with the libraries' own thread counts: the BLAS library's
  // threads would retry their buffers for ever; the run still ends, in words.
  const int tight = Shell("ulimit -v 160000 &&", "timeout -s KILL 60 env",
                          "mesh '" + std::string(OHMVOL3D_EXAMPLES) + "/grid_9x14.dat'");
  ASSERT_TRUE(WIFEXITED(tight));
  EXPECT_EQ(WEXITSTATUS(tight), 1) << "137: killed after a minute";
  EXPECT_NE(Slurp(dir + "/err.txt").find("Memory allocation error"), std::string::npos);
  // An inversion whose factorisation does not fit: it ends with a memory
  // message; it does not hang in the BLAS library's buffers.
  const int invert =
      Shell("ulimit -v 300000 &&", "timeout -s KILL 120 env",
            "invert '" + std::string(OHMVOL3D_EXAMPLES) + "/grid_9x14.dat' -o g.inv");
  ASSERT_TRUE(WIFEXITED(invert));
  const int status = WEXITSTATUS(invert);
  EXPECT_TRUE(status == 0 ||
              (status == 1 && Slurp(dir + "/err.txt").find("memory") != std::string::npos))
      << "status " << status << " (137: killed after two minutes)\n"
      << Slurp(dir + "/err.txt");
}

// SIGINT during an inversion: the run stops after its current iteration,
// keeps the iterations finished in the results file, leaves no temporary
// files and exits 130.
TEST_F(Cli, InterruptedInversionKeepsItsIterations) {
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_9x14.dat", dir + "/g.dat");
  std::filesystem::create_directories(dir + "/buf");
  // The program itself in the background (not a subshell), so that $! is its own.
  const int raw = Shell("", "", "invert g.dat -o g.inv --set nit=10 --buffer buf",
                        "& sleep 2; kill -INT \\$!; wait \\$!");
  ASSERT_TRUE(WIFEXITED(raw));
  EXPECT_EQ(WEXITSTATUS(raw), 130) << Slurp(dir + "/err.txt");
  EXPECT_NE(Slurp(dir + "/err.txt").find("Stopped by signal 2"), std::string::npos);
  const std::vector<std::string> left = Left_In(dir + "/buf");
  EXPECT_TRUE(left.empty()) << left.front();
}

// Two inversions at once on one machine (and one buffer folder), each with
// two threads: both finish, with the model of a run alone.
TEST_F(Cli, TwoInversionsAtOnceGiveTheModelOfOneAlone) {
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_dipole_dipole.dat",
                             dir + "/g.dat");
  const std::string inv = "invert g.dat --set nit=3 --threads 2 -o ";
  ASSERT_EQ(Run(inv + "a.inv").status, 0);
  const int raw =
      Shell("", "", inv + "b.inv",
            "& " + std::string("XDG_CONFIG_HOME=cfg XDG_CACHE_HOME=cache '") + OHMVOL3D_CLI "' " +
                inv + "c.inv >out2.txt 2>&1; s=\\$?; wait \\$! && exit \\$s");
  ASSERT_TRUE(WIFEXITED(raw));
  EXPECT_EQ(WEXITSTATUS(raw), 0) << Slurp(dir + "/err.txt") << Slurp(dir + "/out2.txt");
  for (const char *name : {"a", "b", "c"})
    ASSERT_EQ(Run(std::string("export ") + name + ".inv --format xyz").status, 0) << name;
  const std::string alone = Slurp(dir + "/a_model.xyz");
  EXPECT_FALSE(alone.empty());
  EXPECT_EQ(Slurp(dir + "/b_model.xyz"), alone);
  EXPECT_EQ(Slurp(dir + "/c_model.xyz"), alone);
}

TEST_F(Cli, SetIsClampedAndIvpOptionApplies) {
  EXPECT_FALSE(Shown_Value("fmarq1").empty()) << "settings show lists fmarq1";
  const Run_Result r = Run("settings save c.ivp --set fmarq1=50");
  ASSERT_EQ(r.status, 0);
  EXPECT_NE(Slurp(dir + "/c.ivp").find("Initial damping factor\n10.0000\n"), std::string::npos);
  Spit(dir + "/d.ivp", "Inversion settings\nNumber of iterations\n4\n");
  ASSERT_EQ(Run("settings save e.ivp --ivp d.ivp").status, 0);
  EXPECT_NE(Slurp(dir + "/e.ivp").find("Number of iterations\n4\n"), std::string::npos);
  EXPECT_EQ(Run("info --ivp missing.ivp").status, 1);
}

TEST_F(Cli, TraceFileInBufferFolder) {
  const Run_Result r = Run("--trace info");
  EXPECT_EQ(r.status, 0);
  const std::string trace = Slurp(Buffer() + "o3dtracesx64_Ohm3d.txt");
  EXPECT_EQ(trace.rfind("3D trace file\n\n", 0), 0u);
  EXPECT_NE(trace.find("Run_Command 104"), std::string::npos);
  EXPECT_EQ(Slurp(Buffer() + "o3dmem.txt").rfind("\nMemory trace file\n", 0), 0u);

  Spit(dir + "/plainfile", "x");
  const Run_Result bad = Run("--trace info --buffer plainfile/buffer");
  EXPECT_EQ(bad.status, 0);
  EXPECT_NE(bad.err.find("Trace File Error Message: Could not create trace file\n"),
            std::string::npos);
}

} // namespace
