// Fuzz driver of the program's other readers: inversion settings files
// (.ivp), model files (forward --model), results files (.inv) and the
// program's ini file. Each mode starts from seeds the driver makes with the
// program's own writers (a results file from a one-iteration inversion of a
// bundled example), then runs mutated copies: bytes flipped, inserted or
// cut, lines doubled, swapped or dropped, numbers replaced by extreme,
// negative, non-finite or malformed ones, the file cut short. A case passes
// when the reader returns (taken or refused) within the time allowed; the
// sanitizers of the build report everything else. Every case starts from
// the settings the run started with, so a case replays alone.
//
//   ohmvol3d_fuzz_readers --cases N [--seed S] [--mode ivp|model|results|ini|all]
//   ohmvol3d_fuzz_readers --replay S C --mode M --out FILE   writes case C of seed S
//   ohmvol3d_fuzz_readers --run FILE... --mode M              runs files as cases
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/front_end.h"
#include "core/ini_file.h"
#include "core/ivp_file.h"
#include "core/settings_snapshot.h"
#include "core/test_support.h"
#include "forward/synthetic.h"

namespace {

using test_support::Lines;
using test_support::Read_File;

constexpr unsigned case_seconds = 20; // a case running longer is a hang

// splitmix64: the cases of a seed are the same wherever they run.
struct Random {
  uint64_t s;
  uint64_t Next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  size_t Below(size_t n) { return n ? static_cast<size_t>(Next() % n) : 0; }
};

std::string Join(const std::vector<std::string> &lines) {
  std::string text;
  for (const std::string &l : lines)
    text += l + "\n";
  return text;
}

// Replaces one number of the text by a hostile one.
std::string Replace_Number(const std::string &text, Random &r) {
  static const char *const hostile[] = {
      "-1",           "0", "1e400", "-1e400", "nan",         "-inf", "2147483648", "-0", "1e-400",
      "999999999999", "",  "3.5.7", "1e38",   "-2147483649", "0x10", "1,5"};
  std::vector<size_t> starts;
  for (size_t i = 0; i < text.size(); i++)
    if ((text[i] >= '0' && text[i] <= '9') && (i == 0 || !std::isdigit(text[i - 1])))
      starts.push_back(i);
  if (starts.empty())
    return text;
  const size_t at = starts[r.Below(starts.size())];
  size_t end = at;
  while (end < text.size() && (std::isdigit(text[end]) || text[end] == '.' || text[end] == 'e' ||
                               text[end] == 'E' || text[end] == '-' || text[end] == '+'))
    end++;
  return text.substr(0, at) + hostile[r.Below(sizeof hostile / sizeof *hostile)] + text.substr(end);
}

// One to four mutations of a seed.
std::string Mutate(std::string text, Random &r) {
  const int count = 1 + static_cast<int>(r.Below(4));
  for (int k = 0; k < count; k++) {
    std::vector<std::string> lines = Lines(text);
    switch (r.Below(8)) {
    case 0: // flip a byte
      if (!text.empty())
        text[r.Below(text.size())] ^= static_cast<char>(1 << r.Below(8));
      break;
    case 1: // insert a byte
      text.insert(text.begin() + static_cast<long>(r.Below(text.size() + 1)),
                  static_cast<char>(r.Below(256)));
      break;
    case 2: // cut a range
      if (!text.empty()) {
        const size_t at = r.Below(text.size());
        text.erase(at, 1 + r.Below(std::min<size_t>(64, text.size() - at)));
      }
      break;
    case 3: // double a line
      if (!lines.empty()) {
        const size_t at = r.Below(lines.size());
        lines.insert(lines.begin() + static_cast<long>(at), lines[at]);
        text = Join(lines);
      }
      break;
    case 4: // drop a line
      if (!lines.empty()) {
        lines.erase(lines.begin() + static_cast<long>(r.Below(lines.size())));
        text = Join(lines);
      }
      break;
    case 5: // swap two lines
      if (lines.size() > 1) {
        std::swap(lines[r.Below(lines.size())], lines[r.Below(lines.size())]);
        text = Join(lines);
      }
      break;
    case 6: // cut the file short
      text.resize(r.Below(text.size() + 1));
      break;
    default:
      text = Replace_Number(text, r);
    }
  }
  return text;
}

bool Spit(const std::string &path, const std::string &text) {
  std::ofstream f(path, std::ios::binary);
  f << text;
  return static_cast<bool>(f.flush());
}

// One reader under test: its seeds and how a case runs.
struct Mode {
  const char *name;
  std::vector<std::string> seeds;
  int (*run)(Data_Set &ds, const std::string &path);
};

int Run_Ivp(Data_Set &ds, const std::string &path) {
  return readinvset(ds, 0, path.c_str());
}

int Run_Model(Data_Set &ds, const std::string &path) {
  Synthetic_Model model;
  return Read_Synthetic_Model(ds, path.c_str(), model);
}

int Run_Results(Data_Set &ds, const std::string &path) {
  return ds.Run_Command(CMD_READ_RESULTS, path.c_str());
}

int Run_Ini(Data_Set &, const std::string &path) {
  Ini_Settings ini;
  return ini.Read(path, "/tmp/");
}

// The run: a temporary folder, a data set that has read a bundled example
// (the model reader maps boxes onto its grid), the seeds of every mode.
struct Run {
  std::string folder;
  std::unique_ptr<Data_Set> ds;
  Settings_Snapshot start;
  std::vector<Mode> modes;

  int Set_Up() {
    char pattern[] = "/tmp/ohmvol3d_fuzz_readers_XXXXXX";
    if (!mkdtemp(pattern))
      return 1;
    folder = pattern;
    Start_Options so;
    so.buffer_folder = folder + "/";
    so.config_folder = folder + "/";
    ds = std::make_unique<Data_Set>(so, Front_End());
    ds->batch_mode = 1;
    ds->Create();
    ds->First_Paint();
    const std::string data = folder + "/survey.dat";
    std::error_code ec;
    std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_dipole_dipole.dat", data,
                               ec);
    if (ec || ds->Run_Command(CMD_READ_DATA, data.c_str()))
      return 1;
    // Seeds from the program's own writers.
    const std::string ivp = folder + "/seed.ivp", ini = folder + "/seed.ini",
                      inv = folder + "/seed.inv";
    if (Save_Inversion_Parameters(*ds, ivp.c_str()) || Ini_Settings().Write(ini))
      return 1;
    const int nit = ds->LS_method.nit;
    ds->LS_method.nit = 1;
    if (ds->Run_Command(CMD_INVERT, inv.c_str()))
      return 1;
    ds->LS_method.nit = nit;
    start.Take(*ds);
    modes = {{"ivp", {Read_File(ivp)}, Run_Ivp},
             {"model",
              {Read_File(std::string(OHMVOL3D_EXAMPLES) + "/field_two_layer_model.txt"),
               "background 100\nbox 2 8 1 5 0.5 2 10\nlayer 0 3 30\n"},
              Run_Model},
             {"results", {Read_File(inv)}, Run_Results},
             {"ini", {Read_File(ini)}, Run_Ini}};
    return 0;
  }
  ~Run() {
    ds.reset();
    if (!folder.empty())
      std::filesystem::remove_all(folder);
  }
  Mode *Find(const std::string &name) {
    for (Mode &m : modes)
      if (name == m.name)
        return &m;
    return nullptr;
  }
  std::string Case(const Mode &m, uint64_t seed, uint64_t c) const {
    Random r{seed * 0x100000001B3ULL + c};
    const std::string &s = m.seeds[r.Below(m.seeds.size())];
    return c < m.seeds.size() ? m.seeds[c] : Mutate(s, r);
  }
  // Runs one text as a case of mode m; true when the reader took it.
  bool Run_Case(const Mode &m, const std::string &text) {
    const std::string path = folder + "/case." + (std::string(m.name) == "results" ? "inv" : "txt");
    if (!Spit(path, text)) {
      std::fprintf(stderr, "cannot write %s\n", path.c_str());
      std::exit(2);
    }
    start.Restore(*ds);
    alarm(case_seconds);
    const int e = m.run(*ds, path);
    alarm(0);
    return e == 0;
  }
};

Run *the_run = nullptr;
const char *current_mode = "";
uint64_t current_seed = 0, current_case = 0;

void On_Alarm(int) {
  char line[160];
  const int n =
      std::snprintf(line, sizeof line, "a case ran past %u s: mode %s seed %llu case %llu\n",
                    case_seconds, current_mode, static_cast<unsigned long long>(current_seed),
                    static_cast<unsigned long long>(current_case));
  if (write(2, line, static_cast<size_t>(n)) < 0)
    _exit(3);
  _exit(3);
}

} // namespace

int main(int argc, char **argv) {
  uint64_t cases = 1000, seed = 1, replay_case = 0;
  std::string mode = "all", out;
  std::vector<std::string> files;
  bool replay = false;
  for (int k = 1; k < argc; k++) {
    const std::string a = argv[k];
    if (a == "--cases" && k + 1 < argc)
      cases = std::strtoull(argv[++k], nullptr, 10);
    else if (a == "--seed" && k + 1 < argc)
      seed = std::strtoull(argv[++k], nullptr, 10);
    else if (a == "--mode" && k + 1 < argc)
      mode = argv[++k];
    else if (a == "--replay" && k + 2 < argc) {
      replay = true;
      seed = std::strtoull(argv[++k], nullptr, 10);
      replay_case = std::strtoull(argv[++k], nullptr, 10);
    } else if (a == "--out" && k + 1 < argc)
      out = argv[++k];
    else if (a == "--run") {
      while (k + 1 < argc && argv[k + 1][0] != '-')
        files.push_back(argv[++k]);
    } else {
      std::fprintf(stderr,
                   "usage: %s --cases N [--seed S] [--mode ivp|model|results|ini|all]\n"
                   "       %s --replay S C --mode M --out FILE\n"
                   "       %s --run FILE... --mode M\n",
                   argv[0], argv[0], argv[0]);
      return 2;
    }
  }
  Run run;
  if (run.Set_Up()) {
    std::fprintf(stderr, "the seeds could not be made\n");
    return 2;
  }
  the_run = &run;
  std::signal(SIGALRM, On_Alarm);
  std::vector<Mode *> chosen;
  for (Mode &m : run.modes)
    if (mode == "all" || mode == m.name)
      chosen.push_back(&m);
  if (chosen.empty() || ((replay || !files.empty()) && chosen.size() != 1)) {
    std::fprintf(stderr, "--mode needs ivp, model, results or ini (all only for --cases)\n");
    return 2;
  }
  if (replay) {
    const std::string text = run.Case(*chosen[0], seed, replay_case);
    if (out.empty() || !Spit(out, text)) {
      std::fprintf(stderr, "--replay needs --out FILE that can be written\n");
      return 2;
    }
    return 0;
  }
  const auto t0 = std::chrono::steady_clock::now();
  uint64_t done = 0;
  for (Mode *m : chosen) {
    current_mode = m->name;
    current_seed = seed;
    uint64_t taken = 0, n = 0;
    const auto tm = std::chrono::steady_clock::now();
    if (!files.empty()) {
      for (const std::string &f : files) {
        taken += run.Run_Case(*m, Read_File(f));
        n++;
      }
    } else {
      for (uint64_t c = 0; c < cases; c++, n++) {
        current_case = c;
        taken += run.Run_Case(*m, run.Case(*m, seed, c));
      }
    }
    done += n;
    std::printf("ohmvol3d_fuzz_readers: mode %s, %llu cases (seed %llu) clean, %llu taken, "
                "%llu refused, %.1f s\n",
                m->name, static_cast<unsigned long long>(n), static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(taken), static_cast<unsigned long long>(n - taken),
                std::chrono::duration<double>(std::chrono::steady_clock::now() - tm).count());
  }
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::printf("ohmvol3d_fuzz_readers: %llu cases in %.1f s (%.0f a second)\n",
              static_cast<unsigned long long>(done), s, done / std::max(s, 1e-9));
  return 0;
}
