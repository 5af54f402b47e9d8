// Fuzz harness of the survey data file parser. Fuzz_One runs one input
// through Parse_Data_File on a Data_Set shared by all cases and checks what a
// read must leave behind, accepted or refused. Built with libFuzzer
// (OHMVOL3D_LIBFUZZER) the file is a fuzz target; otherwise main() is a
// deterministic mutation driver over the bundled examples and handmade seeds:
//
//   ohmvol3d_fuzz --cases N --seed S [--jobs J] [--keep-going] --corpus DIR...
//       the seeds as given, then mutated cases, in J processes; stops at the
//       first broken invariant unless --keep-going
//   ohmvol3d_fuzz --replay S C --corpus DIR... [--out FILE]
//       writes case C of seed S to a file
//   ohmvol3d_fuzz --run FILE...
//       runs the files as cases
//
// Every case starts from the settings the run started with, so a case
// replays alone as it ran among the others.
//
// A case never writes a file: questions are answered No, batch_mode is set and
// the data file's name points into an empty folder that is checked after
// every case.
#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "core/data_set.h"
#include "core/front_end.h"
#include "core/settings_snapshot.h"
#include "survey/survey.h"

namespace {

// Outcome of one case.
enum Fuzz_Result : int { FR_ACCEPTED = 0, FR_REFUSED = 1, FR_INVARIANT = 2 };

constexpr int min_data_points = 35;   // the data count a file must give at least
constexpr int fuzz_nmax_data = 20000; // data limit of the cases (keeps each case cheap)

// What the front end saw, and what the checks found.
struct Fuzz_State {
  std::string folder;      // temporary folder of the run
  std::string data_folder; // the data file's folder: must stay empty
  Settings_Snapshot start; // settings every case starts from
  char last_title[128] = {};
  char failure[1024] = {};            // the broken invariant
  const char *failure_kind = nullptr; // its format: the same for the same check
  int64_t accepted_short = 0;         // accepted with fewer points kept than the file's minimum
  int64_t accepted_empty = 0;         // accepted with no point kept
};

int Fail(Fuzz_State &st, const char *format, ...) __attribute__((format(printf, 2, 3)));

int Fail(Fuzz_State &st, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(st.failure, sizeof st.failure, format, ap);
  va_end(ap);
  st.failure_kind = format;
  return FR_INVARIANT;
}

Front_End Quiet_Front_End(Fuzz_State &st) {
  Front_End fe;
  fe.user = &st;
  fe.message = [](void *u, const char *title, const char *, int) {
    auto *s = static_cast<Fuzz_State *>(u);
    std::snprintf(s->last_title, sizeof s->last_title, "%s", title ? title : "");
  };
  fe.question = [](void *, const char *, const char *) {
    return 0; // No: nothing is saved
  };
  fe.panel_line = [](void *, const char *, int) {};
  fe.progress = [](void *, const char *, double) { return 0; };
  fe.beep = [](void *) {};
  return fe;
}

// FNV-1a: picks the message path of an input, the same wherever it runs.
uint64_t Input_Hash(const uint8_t *data, size_t size) {
  uint64_t h = 1469598103934665603ULL;
  for (size_t i = 0; i < size; i++)
    h = (h ^ data[i]) * 1099511628211ULL;
  return h ^ size;
}

bool Folder_Empty(const std::string &path) {
  DIR *d = opendir(path.c_str());
  if (!d)
    return false;
  bool empty = true;
  while (const dirent *e = readdir(d))
    if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
      empty = false;
  closedir(d);
  return empty;
}

bool Finite3(const double *p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

// The checks of an accepted read.
int Check_Accepted(Data_Set &ds, Fuzz_State &st) {
  const Data_Limits &lim = ds.Data_lim_sys;
  const int nmax_time = std::min(lim.nmax_time, max_time_series);
  if (ds.ntime < 1 || ds.ntime > nmax_time)
    return Fail(st, "accepted with %d time series (limit %d)", ds.ntime, nmax_time);
  if (ds.mdata < 0 || ds.mdata > lim.nmax_data ||
      static_cast<int64_t>(ds.mdata) * ds.ntime > lim.nmax_data)
    return Fail(st, "accepted with %d data points in %d series (limit %d)", ds.mdata, ds.ntime,
                lim.nmax_data);
  // Points the checks removed (a zero value ends the list, infinite or too
  // large geometric factors) can leave fewer than the file's minimum.
  if (ds.mdata == 0)
    st.accepted_empty++;
  else if (ds.mdata < min_data_points)
    st.accepted_short++;
  if (ds.num_point_elecs < 0 || ds.num_point_elecs > lim.nmax_elecs || ds.num_grid_points < 0 ||
      ds.num_grid_points > lim.nmax_grid_xy)
    return Fail(st, "accepted with %d point electrodes and %d grid points", ds.num_point_elecs,
                ds.num_grid_points);
  if (strnlen(ds.title, sizeof ds.title) == sizeof ds.title)
    return Fail(st, "title not terminated");
  const int table = ds.num_point_elecs + ds.num_grid_points;
  for (int e = 0; e < table; e++) {
    const Point_Electrode &p = ds.pe[e];
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z) ||
        !std::isfinite(p.depth))
      return Fail(st, "point electrode %d of %d at (%g, %g, %g, depth %g)", e + 1, table, p.x, p.y,
                  p.z, p.depth);
  }
  // Heights and boundary depths at the surface grid nodes.
  const Model_Grid &g = ds.Model_grid;
  const int nodes = g.ngridx * g.ngridy;
  if (nodes < 4 || nodes > lim.nmax_grid_xy)
    return Fail(st, "accepted with %d x %d grid lines", g.ngridx, g.ngridy);
  if (ds.topo.grid_heights)
    for (int k = 0; k < nodes; k++)
      if (!std::isfinite(ds.topo.grid_z[k]))
        return Fail(st, "topography height %g at grid node %d", ds.topo.grid_z[k], k + 1);
  const Sharp_Boundary &sb = ds.Sharp_boundary;
  if (sb.nregions < 1 || sb.nregions > max_sharp_boundaries + 1)
    return Fail(st, "accepted with %d sharp boundary regions", sb.nregions);
  for (int b = 0; b + 1 < sb.nregions; b++)
    for (int k = 0; k < nodes; k++)
      if (!std::isfinite(sb.grid_depth[b][k]))
        return Fail(st, "sharp boundary %d depth %g at grid node %d", b + 1, sb.grid_depth[b][k],
                    k + 1);
  const bool vector = ds.array2 == 16;
  const int m = ds.mdata;
  for (int k = 0; k < ds.ntime; k++)
    for (int i = 0; i < m; i++) {
      const Data_Point &d = ds.dp[static_cast<int64_t>(k) * m + i];
      const Data_Point &d0 = ds.dp[i];
      if (d.nelec < 2 || d.nelec > 4)
        return Fail(st, "data point %d series %d has %d electrodes", i + 1, k + 1, d.nelec);
      struct Used {
        const char *name;
        int32_t number, first_series;
        const double *pos;
      };
      Used used[5];
      int n = 0;
      used[n++] = {"C1", d.nc1, d0.nc1, d.c1};
      if (d.nelec == 4)
        used[n++] = {"C2", d.nc2, d0.nc2, d.c2};
      used[n++] = {"P1", d.np1, d0.np1, d.p1};
      if (d.nelec > 2)
        used[n++] = {"P2", d.np2, d0.np2, d.p2};
      if (vector)
        used[n++] = {"P3", d.np3, d0.np3, d.p3};
      for (int u = 0; u < n; u++) {
        if (used[u].number < -1 || used[u].number >= table)
          return Fail(st, "data point %d series %d: %s electrode number %d outside the table of %d",
                      i + 1, k + 1, used[u].name, used[u].number, table);
        if (used[u].number != used[u].first_series)
          return Fail(st, "data point %d series %d: %s electrode %d, series 1 has %d", i + 1, k + 1,
                      used[u].name, used[u].number, used[u].first_series);
        if (!Finite3(used[u].pos))
          return Fail(st, "data point %d series %d: %s position (%g, %g, %g) not finite", i + 1,
                      k + 1, used[u].name, used[u].pos[0], used[u].pos[1], used[u].pos[2]);
      }
    }
  return FR_ACCEPTED;
}

} // namespace

// Runs one input through the parser as the read flow does (an image of
// exactly `size` bytes, no closing 0) and checks the outcome.
int Fuzz_One(Data_Set &ds, const uint8_t *data, size_t size);

int Fuzz_One(Data_Set &ds, const uint8_t *data, size_t size) {
  Fuzz_State &st = *static_cast<Fuzz_State *>(ds.fe.user);
  st.failure[0] = 0;
  std::unique_ptr<char[]> buffer(new char[size]);
  if (size > 0)
    std::memcpy(buffer.get(), data, size);

  st.start.Restore(ds);
  ds.quiet = static_cast<int>(Input_Hash(data, size) & 1);
  ds.batch_mode = 1;
  ds.save_sorted_next_read = 0;
  ds.data_read = 0;
  ds.current_command = 201;
  ds.img = Text_Image();
  ds.img.buf = buffer.get();
  ds.img.size = static_cast<int64_t>(size);
  Settings_Snapshot before;
  before.Take(ds);

  // The core throws nothing: an exception out of the parser is a fault.
  int ierr = 0;
  try {
    ierr = Parse_Data_File(ds);
  } catch (const std::exception &e) {
    ds.img = Text_Image();
    return Fail(st, "Parse_Data_File threw an exception: %s", e.what());
  } catch (...) {
    ds.img = Text_Image();
    return Fail(st, "Parse_Data_File threw an exception");
  }

  const int64_t pos = ds.img.pos;
  ds.img = Text_Image();
  if (pos < 0 || pos > static_cast<int64_t>(size))
    return Fail(st, "text cursor at %lld of %zu bytes", static_cast<long long>(pos), size);
  int result;
  if (ierr) {
    // The read flow's reset of a refused file.
    ds.mdata = 0;
    before.Restore(ds);
    Settings_Snapshot after;
    after.Take(ds);
    if (after.bytes != before.bytes)
      return Fail(st, "settings not restored after a refusal");
    result = ds.mdata == 0 ? FR_REFUSED : Fail(st, "mdata %d after a refusal", ds.mdata);
  } else {
    result = Check_Accepted(ds, st);
  }
  if (result != FR_INVARIANT && !Folder_Empty(st.data_folder))
    return Fail(st, "a file was written into %s", st.data_folder.c_str());
  return result;
}

namespace {

// The Data_Set of a run, in a temporary folder of its own (configuration
// folder and the data file's folder), with small data limits.
class Fuzz_Session {
public:
  Fuzz_Session() {
    const char *tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && tmp[0] ? tmp : "/tmp") + "/ohmvol3d_fuzz_XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back(0);
    if (!mkdtemp(name.data())) {
      std::perror("ohmvol3d_fuzz: mkdtemp");
      std::exit(2);
    }
    state_.folder = name.data();
    state_.data_folder = state_.folder + "/data";
    std::filesystem::create_directory(state_.data_folder);
    Start_Options opt;
    opt.total_mem_bytes = 16LL << 30; // the same limits on every computer
    opt.config_folder = state_.folder + "/cfg/";
    opt.buffer_folder = state_.folder + "/buf/";
    opt.nthreads = 1;
    ds_ = std::make_unique<Data_Set>(opt, Quiet_Front_End(state_));
    Data_Limits &lim = ds_->System_config.lim_template;
    lim.nmax_data = fuzz_nmax_data;
    if (ds_->Create() != 0) {
      std::fprintf(stderr, "ohmvol3d_fuzz: the tables could not be allocated\n");
      std::exit(2);
    }
    ds_->batch_mode = 1;
    ds_->file_names.data_file = state_.data_folder + "/case.dat";
    state_.start.Take(*ds_);
  }
  ~Fuzz_Session() {
    ds_.reset();
    std::error_code ec;
    std::filesystem::remove_all(state_.folder, ec);
  }
  Fuzz_Session(const Fuzz_Session &) = delete;
  Fuzz_Session &operator=(const Fuzz_Session &) = delete;

  Data_Set &ds() { return *ds_; }
  Fuzz_State &state() { return state_; }

private:
  Fuzz_State state_;
  std::unique_ptr<Data_Set> ds_;
};

} // namespace

#ifdef OHMVOL3D_LIBFUZZER

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Fuzz_Session session;
  if (Fuzz_One(session.ds(), data, size) == FR_INVARIANT) {
    std::fprintf(stderr, "ohmvol3d_fuzz: invariant broken: %s\n", session.state().failure);
    std::abort();
  }
  return 0;
}

#else // the mutation driver

namespace {

constexpr int watchdog_seconds = 10; // a case running longer is a hang
constexpr size_t max_case_bytes = 1 << 20;

// ---------------------------------------------------------------------------
// Handmade seeds: small data files with each header and optional section
// present or absent.

struct Seed_Layout {
  int array = 11;           // array number of the file (2, 3, 6 or 11)
  int sub = 3;              // sub-array of the general array
  int type = 0;             // 0 resistivity, 1 resistance, vector: 0 components, 2 with amplitude
  int geofac_line = -1;     // type of geometric factor line: -1 absent, else its value
  bool tank = false;        // tank section
  int elec_list = 1;        // 0 none, 1 surface, 2 subsurface, 3 subsurface from boreholes
  bool elevations = false;  // electrodes with elevations
  bool user_depths = false; // user defined depths
  int ip = 0;               // 0 none, 1 chargeability, 2 frequency effect, 3 phase, 4 metal factor
  int ntime = 1;            // time series
  bool errors = false;      // error estimates
  bool topo_list = false;   // topography list
  bool fixed = false;       // fixed regions
  int water = 0;            // 0 none, 1 underwater, 2 floating electrodes
  bool sharp = false;       // sharp boundary
  bool global = false;      // global coordinates
  bool star_ip = false;     // some IP values given as "*"
};

constexpr int seed_nx = 8, seed_ny = 5; // grid lines at 1 m

struct Seed_Point {
  int ne;
  double e[5][3]; // C1, C2, P1, P2, P3 as the point uses them (x, y, depth)
};

double Image_K(const double *a, const double *b) {
  const double dx = a[0] - b[0], dy = a[1] - b[1], dz = a[2] - b[2], sz = a[2] + b[2];
  return 1.0 / std::sqrt(dx * dx + dy * dy + dz * dz) +
         1.0 / std::sqrt(dx * dx + dy * dy + sz * sz);
}

// The image form of K (order C1 C2 P1 P2 as the point uses them).
double Point_K(const Seed_Point &p) {
  const double *c1 = p.e[0], *c2 = p.e[1], *p1 = p.e[2], *p2 = p.e[3];
  double k = Image_K(c1, p1);
  if (p.ne > 2)
    k -= Image_K(c1, p2);
  if (p.ne == 4)
    k += Image_K(c2, p2) - Image_K(c2, p1);
  return k;
}

std::vector<Seed_Point> Seed_Points(const Seed_Layout &s, int ne) {
  std::vector<Seed_Point> pts;
  const bool vector = s.array == 11 && s.sub == 16;
  for (int y = 0; y < seed_ny; y++)
    for (int n = 1; n <= 3; n++)
      for (int c = 0; c < seed_nx; c++) {
        Seed_Point p = {};
        p.ne = ne;
        const auto set = [&p](int slot, double x, double yy, double depth) {
          p.e[slot][0] = x;
          p.e[slot][1] = yy;
          p.e[slot][2] = depth;
        };
        if (ne == 4) { // dipole-dipole: C1 C2 to the right of P1 P2
          if (c - n - 1 < 0 || c + 1 >= seed_nx)
            continue;
          set(0, c, y, 0);
          set(1, c + 1, y, 0);
          set(2, c - n, y, 0);
          set(3, c - n - 1, y, 0);
        } else if (ne == 3) { // pole-dipole
          if (c - n - 1 < 0)
            continue;
          set(0, c, y, 0);
          set(2, c - n, y, 0);
          set(3, c - n - 1, y, 0);
        } else { // pole-pole
          if (c - n < 0)
            continue;
          set(0, c, y, 0);
          set(2, c - n, y, 0);
        }
        if (vector) // the third potential electrode off the line
          set(4, c - n, y + 1 < seed_ny ? y + 1 : y - 1, 0);
        pts.push_back(p);
      }
  if (s.elec_list >= 2 && ne == 4) // cross-hole points between the two boreholes
    for (int a = 1; a <= 3; a++)
      for (int b = 1; b <= 3; b++) {
        Seed_Point p = {};
        p.ne = 4;
        const double at[4][3] = {
            {2, 2, double(a)}, {2, 2, a + 1.0}, {5, 2, double(b)}, {5, 2, b + 1.0}};
        std::memcpy(p.e, at, sizeof at);
        if (vector)
          p.e[4][0] = 5, p.e[4][1] = 3, p.e[4][2] = 0;
        pts.push_back(p);
      }
  for (Seed_Point &p : pts)
    if (p.ne > 2 && Point_K(p) < 0.0)
      for (int j = 0; j < 3; j++)
        std::swap(p.e[2][j], p.e[3][j]);
  return pts;
}

double Elevation(double x, double y) {
  return 100.0 + 0.5 * x + 0.2 * y;
}

std::string Handmade_Seed(const Seed_Layout &s) {
  std::ostringstream f;
  f.setf(std::ios::fixed);
  f.precision(3);
  const bool sub = s.elec_list >= 2;
  const bool vector = s.array == 11 && s.sub == 16;
  f << "Handmade seed file\n" << seed_nx << "," << seed_ny << "\nNonuniform Grid\n";
  f << "X-location of grid lines\n";
  for (int i = 0; i < seed_nx; i++)
    f << i << ".0 ";
  f << "\nY-location of grid lines\n";
  for (int j = 0; j < seed_ny; j++)
    f << j << ".0 ";
  f << "\n";
  if (s.geofac_line >= 0)
    f << "Type of geometric factor\n" << s.geofac_line << "\n";
  f << s.array << "\n";
  if (s.array == 11)
    f << s.sub << "\nType of measurement (0=Apparent Resistivity,1=Resistance)\n" << s.type << "\n";
  if (s.tank)
    f << "Tank present\nTank boundaries\nX boundaries\n-1.0,8.0\nY boundaries\n-1.0,5.0\nZ "
         "boundary\n10.0\n";
  if (s.elec_list > 0) {
    std::vector<std::array<double, 4>> e;
    for (int j = 0; j < seed_ny; j++)
      for (int i = 0; i < seed_nx; i++)
        e.push_back({double(i), double(j), s.elevations ? Elevation(i, j) : 0.0, 0.0});
    if (sub)
      for (int d = 1; d <= 4; d++) {
        e.push_back({2.0, 2.0, s.elevations ? Elevation(2, 2) : 0.0, double(d)});
        e.push_back({5.0, 2.0, s.elevations ? Elevation(5, 2) : 0.0, double(d)});
      }
    f << "Point Electrodes outside grid present\nNumber of point electrodes\n" << e.size() << "\n";
    if (sub)
      f << "Subsurface point electrodes present\n";
    if (s.elec_list == 3)
      f << "Borehole format converted to subsurface point electrodes\n";
    f << "Compressed format used for point electrodes coordinates\n";
    for (size_t k = 0; k < e.size(); k++) {
      f << "  " << k + 1 << " " << e[k][0] << "," << e[k][1] << "," << e[k][2];
      if (sub)
        f << "," << e[k][3];
      f << "\n";
    }
  }
  if (s.user_depths) {
    f << "User defined depths present\nNumber of layers\n5\nLayer, depth\n";
    for (int l = 0; l < 5; l++)
      f << l + 1 << " " << 0.5 * (l + 1) * (l + 2) << "\n";
  }
  const int ne = s.array == 2 ? 2 : s.array == 6 ? 3 : 4;
  const std::vector<Seed_Point> pts = Seed_Points(s, ne);
  f << pts.size() << "\n";
  if (s.ip > 0) {
    static const char *names[] = {"", "Chargeability", "Percent Frequency Effect", "Phase",
                                  "Metal factor"};
    static const char *units[] = {"", "mV/V", "Percent", "mrad", "mho/m"};
    f << "IP present\n" << names[s.ip] << "\n" << units[s.ip] << "\n";
    f << (s.ip == 2 ? "1.0,4.0" : "0.12,1.0") << "\n";
  }
  if (s.ntime > 1) {
    f << "Time lapse data\nType of time lapse data (0=static,1=dynamic)\n0\nNumber of time "
         "sections\n"
      << s.ntime << "\nTime unit\nDays\n";
    for (int k = 1; k < s.ntime; k++)
      f << "Time series " << k + 1 << "\n" << 10.0 * k << "\n";
  }
  if (s.errors)
    f << "Error estimate for data present\nType of error estimate (0=same unit as data)\n0\n";
  const int slots[5] = {0, 1, 2, 3, 4};
  for (size_t i = 0; i < pts.size(); i++) {
    const Seed_Point &p = pts[i];
    if (s.array == 11)
      f << p.ne;
    for (int u = 0; u < 5; u++) {
      const int slot = slots[u];
      if ((slot == 1 && p.ne != 4) || (slot == 3 && p.ne < 3) || (slot == 4 && !vector))
        continue;
      f << "  " << p.e[slot][0] << " " << p.e[slot][1];
      if (sub)
        f << " " << p.e[slot][2];
    }
    const double rho = 100.0 - 5.0 * std::sin(0.37 * static_cast<double>(i));
    const double k = Point_K(p);
    for (int t = 0; t < s.ntime; t++) {
      const double v = (s.type == 1 && !vector ? rho * k / 12.5663708 : rho) * (1.0 - 0.02 * t);
      f << "  " << v;
      if (vector)
        f << " " << 0.8 * v;
      if (vector && s.type == 2)
        f << " " << 1.28 * v << " " << 0.8;
      if (s.errors)
        f << " " << 0.02 * v;
    }
    if (s.ip > 0)
      for (int t = 0; t < s.ntime; t++) {
        if (s.star_ip && i % 7 == 3)
          f << "  *";
        else
          f << "  " << (s.ip == 4 ? 0.05 : 5.0 + 0.1 * static_cast<double>(i % 11));
        if (vector)
          f << " " << 4.0;
        if (s.errors)
          f << " " << 0.1;
      }
    if (s.geofac_line == 2)
      f << "  " << 12.5663708 / (k > 0.0 ? k : 1.0);
    f << "\n";
  }
  if (s.topo_list || s.water == 1) {
    f << "Topography present\n1\nTopography in unstructured list\nNumber of topography data "
         "points\n"
      << seed_nx * seed_ny << "\nTopography data points (index,x,y,z)\n";
    for (int j = 0; j < seed_ny; j++)
      for (int i = 0; i < seed_nx; i++)
        f << "  " << j * seed_nx + i + 1 << " " << double(i) << " " << double(j) << " "
          << Elevation(i, j) << "\n";
  }
  if (s.fixed) {
    f << "Fixed regions present\n2\nRegion one\n1.0 1.0 0.0 3.0 3.0 2.0 50.0";
    if (s.ip > 0)
      f << " 10.0";
    f << " 2.0\nRegion two\n4.0 1.0 1.0 6.0 3.0 3.0 500.0";
    if (s.ip > 0)
      f << " 20.0";
    f << " 5.0\n";
  }
  if (s.water == 1)
    f << "Underwater survey present\nWater resistivity\n20.0\nWater limits\n0.0 0.0 7.0 "
         "4.0\nWater elevation\n103.0\nType of geometric factor\n0\n";
  if (s.water == 2) {
    f << "Floating electrodes survey present\nWater resistivity\n20.0\nWater limits\n0.0 0.0 "
         "7.0 4.0\nWater elevation\n0.0\nDamping weight\n5.0\nBottom elevations\n";
    for (int j = 0; j < seed_ny; j++)
      for (int i = 0; i < seed_nx; i++)
        f << double(i) << " " << double(j) << " " << -1.0 - 0.1 * i << "\n";
  }
  if (s.sharp) {
    f << "Sharp boundary present\nNumber of boundaries\n1\nBoundary one\nParameters\nBoundary "
         "weight\nWeight\n2.0\nFixed resistivity\n1\nResistivity\n300.0\nNumber of points\n5\n"
         "Points x y depth\n";
    const double b[5][3] = {{0, 0, 1.5}, {7, 0, 2.0}, {0, 4, 1.8}, {7, 4, 2.2}, {3.5, 2, 1.9}};
    for (const auto &q : b)
      f << q[0] << " " << q[1] << " " << q[2] << "\n";
  }
  if (s.global)
    f << "Global Coordinates present\nType of global coordinates\n0\nNumber of points\n3\nLocal "
         "and global points\n0.0 0.0 1000.0 2000.0\n7.0 0.0 1007.0 2000.0\n0.0 4.0 1000.0 "
         "2004.0\n";
  f << "0\n0\n0\n0\n0\n";
  return f.str();
}

std::vector<Seed_Layout> Handmade_Layouts() {
  std::vector<Seed_Layout> v;
  const Seed_Layout plain;
  v.push_back(plain);
  auto with = [&v, &plain](auto change) {
    Seed_Layout s = plain;
    change(s);
    v.push_back(s);
  };
  with([](Seed_Layout &s) { s.array = 3; });
  with([](Seed_Layout &s) { s.array = 6; });
  with([](Seed_Layout &s) { s.array = 2; });
  with([](Seed_Layout &s) { s.sub = 0; });
  with([](Seed_Layout &s) { s.type = 1; });
  with([](Seed_Layout &s) { s.sub = 16; });
  with([](Seed_Layout &s) {
    s.sub = 16;
    s.type = 2;
    s.ip = 1;
  });
  with([](Seed_Layout &s) { s.geofac_line = 0; });
  with([](Seed_Layout &s) { s.geofac_line = 1; });
  with([](Seed_Layout &s) { s.geofac_line = 2; });
  with([](Seed_Layout &s) { s.tank = true; });
  with([](Seed_Layout &s) { s.elec_list = 0; });
  with([](Seed_Layout &s) { s.elec_list = 2; });
  with([](Seed_Layout &s) { s.elec_list = 3; });
  with([](Seed_Layout &s) { s.elevations = true; });
  with([](Seed_Layout &s) { s.user_depths = true; });
  for (int ip = 1; ip <= 4; ip++)
    with([ip](Seed_Layout &s) { s.ip = ip; });
  with([](Seed_Layout &s) {
    s.ip = 1;
    s.star_ip = true;
  });
  with([](Seed_Layout &s) { s.ntime = 3; });
  with([](Seed_Layout &s) { s.errors = true; });
  with([](Seed_Layout &s) {
    s.ntime = 2;
    s.ip = 1;
    s.errors = true;
  });
  with([](Seed_Layout &s) { s.topo_list = true; });
  with([](Seed_Layout &s) {
    s.topo_list = true;
    s.elevations = true;
  });
  with([](Seed_Layout &s) { s.fixed = true; });
  with([](Seed_Layout &s) {
    s.fixed = true;
    s.ip = 1;
  });
  with([](Seed_Layout &s) { s.water = 1; });
  with([](Seed_Layout &s) { s.water = 2; });
  with([](Seed_Layout &s) { s.sharp = true; });
  with([](Seed_Layout &s) { s.global = true; });
  with([](Seed_Layout &s) { // every section at once
    s.geofac_line = 0;
    s.tank = true;
    s.elec_list = 2;
    s.elevations = true;
    s.user_depths = true;
    s.ip = 1;
    s.ntime = 2;
    s.errors = true;
    s.topo_list = true;
    s.fixed = true;
    s.sharp = true;
    s.global = true;
  });
  return v;
}

// ---------------------------------------------------------------------------
// Mutations

struct Rng {
  uint64_t s;
  uint64_t Next() { // splitmix64
    uint64_t z = (s += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  size_t Below(size_t n) { return n ? static_cast<size_t>(Next() % n) : 0; }
};

bool Number_Char(char c) {
  return (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.' || c == 'e' || c == 'E' ||
         c == 'd' || c == 'D';
}

// A number token at or after a random place: [begin, end), false when none.
bool Find_Number(const std::string &s, Rng &rng, size_t &begin, size_t &end) {
  if (s.empty())
    return false;
  const size_t start = rng.Below(s.size());
  for (size_t step = 0; step < s.size(); step++) {
    const size_t i = (start + step) % s.size();
    if (s[i] >= '0' && s[i] <= '9') {
      begin = i;
      while (begin > 0 && Number_Char(s[begin - 1]))
        begin--;
      end = i;
      while (end < s.size() && Number_Char(s[end]))
        end++;
      return true;
    }
  }
  return false;
}

// Starts of the lines of s (and s.size() at the end).
std::vector<size_t> Line_Starts(const std::string &s) {
  std::vector<size_t> starts{0};
  for (size_t i = 0; i < s.size(); i++)
    if (s[i] == '\n' && i + 1 < s.size())
      starts.push_back(i + 1);
  starts.push_back(s.size());
  return starts;
}

const char *const extreme_values[] = {
    "0",           "-1",        "1e308",      "-1e308",      "2147483647",
    "-2147483648", "nan",       "inf",        "1e-320",      "99999999999",
    "1e999",       "-1e999",    "-0",         "1",           "2",
    "35",          "34",        "4294967296", "-2147483649", "9223372036854775807",
    "1d308",       "0.0000001", ".",          "-",           "1e",
    "3.4e38"};

void Mutate(std::string &s, Rng &rng, const std::vector<std::string> &seeds) {
  size_t b = 0, e = 0;
  switch (rng.Below(14)) {
  case 0: // flip a bit
    if (!s.empty())
      s[rng.Below(s.size())] ^= static_cast<char>(1u << rng.Below(8));
    break;
  case 1: { // insert bytes
    static const char interesting[] = "0123456789 \n\r\t,.-+eEdD*\0\x80\xff";
    const size_t n = 1 + rng.Below(4);
    const size_t at = rng.Below(s.size() + 1);
    std::string ins;
    for (size_t k = 0; k < n; k++)
      ins += rng.Below(3) ? interesting[rng.Below(sizeof interesting - 1)]
                          : static_cast<char>(rng.Below(256));
    s.insert(at, ins);
    break;
  }
  case 2: // delete bytes
    if (!s.empty()) {
      const size_t at = rng.Below(s.size());
      s.erase(at, 1 + rng.Below(std::min<size_t>(16, s.size() - at)));
    }
    break;
  case 3:
  case 4: { // delete or duplicate a line
    const std::vector<size_t> ls = Line_Starts(s);
    const size_t l = rng.Below(ls.size() - 1);
    const std::string line = s.substr(ls[l], ls[l + 1] - ls[l]);
    if (rng.Below(2))
      s.erase(ls[l], line.size());
    else
      s.insert(ls[l], line);
    break;
  }
  case 5: { // swap two lines
    const std::vector<size_t> ls = Line_Starts(s);
    if (ls.size() < 3)
      break;
    size_t a = rng.Below(ls.size() - 1), c = rng.Below(ls.size() - 1);
    if (a == c)
      break;
    if (a > c)
      std::swap(a, c);
    const std::string la = s.substr(ls[a], ls[a + 1] - ls[a]);
    const std::string lc = s.substr(ls[c], ls[c + 1] - ls[c]);
    s.replace(ls[c], lc.size(), la);
    s.replace(ls[a], la.size(), lc);
    break;
  }
  case 6:
  case 7:
  case 8: // a number token becomes an extreme value
    if (Find_Number(s, rng, b, e))
      s.replace(b, e - b, extreme_values[rng.Below(std::size(extreme_values))]);
    break;
  case 9: // a number token one up or one down (counts and indices)
    if (Find_Number(s, rng, b, e)) {
      long long v = std::strtoll(s.substr(b, e - b).c_str(), nullptr, 10);
      if (rng.Below(2))
        v = v < LLONG_MAX ? v + 1 : v;
      else
        v = v > LLONG_MIN ? v - 1 : v;
      s.replace(b, e - b, std::to_string(v));
    }
    break;
  case 10: // truncate
    s.resize(rng.Below(s.size() + 1));
    break;
  case 11: // "*" inside a number
    if (Find_Number(s, rng, b, e))
      s.insert(b + rng.Below(e - b + 1), "*");
    break;
  case 12: { // splice: the head of this input and the tail of a seed
    const std::string &other = seeds[rng.Below(seeds.size())];
    const std::vector<size_t> la = Line_Starts(s), lb = Line_Starts(other);
    const size_t cut_a = la[rng.Below(la.size())], cut_b = lb[rng.Below(lb.size())];
    s = s.substr(0, cut_a) + other.substr(cut_b);
    break;
  }
  default: { // copy a run of bytes elsewhere
    if (s.size() < 2)
      break;
    const size_t from = rng.Below(s.size());
    const size_t n = 1 + rng.Below(std::min<size_t>(64, s.size() - from));
    s.insert(rng.Below(s.size() + 1), s.substr(from, n));
    break;
  }
  }
  if (s.size() > max_case_bytes)
    s.resize(max_case_bytes);
}

// Case c of run `seed`: the plain seeds first, then mutated ones.
std::string Make_Case(const std::vector<std::string> &seeds, uint64_t seed, uint64_t c) {
  if (c < seeds.size())
    return seeds[c];
  Rng rng{seed * 0xD1B54A32D192ED03ULL ^ (c + 1) * 0x9E3779B97F4A7C15ULL};
  rng.Next();
  std::string s = seeds[rng.Below(seeds.size())];
  const size_t n = rng.Below(8) == 0 ? 4 + rng.Below(12) : 1 + rng.Below(3);
  for (size_t k = 0; k < n; k++)
    Mutate(s, rng, seeds);
  return s;
}

// ---------------------------------------------------------------------------
// The driver: a supervisor forks the workers (case c goes to worker c mod
// jobs); each worker tells the supervisor, through a shared page, the case it
// is running, so a case that ends its worker (a sanitizer report, a signal,
// the watchdog) is named with the command that replays it.

struct Worker_Slot {
  volatile int64_t current = -1; // the case running; -1 between cases
  volatile uint64_t cases = 0, accepted = 0, refused = 0, broken = 0;
  volatile int64_t accepted_short = 0, accepted_empty = 0;
  volatile uint64_t seeds_accepted = 0;
};

constexpr int max_jobs = 64;

void Write_Text(const char *s) {
  const ssize_t r = write(2, s, std::strlen(s));
  (void)r;
}

void On_Alarm(int) {
  Write_Text("\nohmvol3d_fuzz: a case ran for more than 10 s\n");
  std::abort();
}

bool Read_Whole_File(const std::string &path, std::string &out) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  std::ostringstream s;
  s << in.rdbuf();
  out = s.str();
  return true;
}

// The regular files of the folders, in name order, then the handmade seeds.
std::vector<std::string> Load_Seeds(const std::vector<std::string> &folders) {
  std::vector<std::string> seeds;
  for (const std::string &folder : folders) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(folder, ec))
      if (entry.is_regular_file() && entry.file_size() <= max_case_bytes)
        names.push_back(entry.path().string());
    if (ec)
      std::fprintf(stderr, "ohmvol3d_fuzz: cannot read folder %s\n", folder.c_str());
    std::sort(names.begin(), names.end());
    for (const std::string &n : names) {
      std::string text;
      if (Read_Whole_File(n, text))
        seeds.push_back(text);
    }
  }
  for (const Seed_Layout &l : Handmade_Layouts())
    seeds.push_back(Handmade_Seed(l));
  return seeds;
}

// Runs one input under the watchdog; returns its Fuzz_Result.
int Run_Case(Fuzz_Session &session, const std::string &input) {
  session.state().last_title[0] = 0;
  alarm(watchdog_seconds);
  const int r =
      Fuzz_One(session.ds(), reinterpret_cast<const uint8_t *>(input.data()), input.size());
  alarm(0);
  return r;
}

// Worker `job` of `jobs`: its share of the cases. Stops at the first broken
// invariant unless `keep_going`, which names the first case of each check
// that failed and counts them all. Returns the exit status.
int Run_Worker(const std::vector<std::string> &seeds, uint64_t seed, uint64_t ncases, int job,
               int jobs, bool keep_going, Worker_Slot &slot) {
  Fuzz_Session session;
  std::vector<const char *> kinds_seen;
  for (uint64_t c = static_cast<uint64_t>(job); c < ncases; c += static_cast<uint64_t>(jobs)) {
    const std::string input = Make_Case(seeds, seed, c);
    slot.current = static_cast<int64_t>(c);
    const int r = Run_Case(session, input);
    if (r == FR_INVARIANT) {
      const Fuzz_State &st = session.state();
      if (!keep_going) {
        std::fprintf(stderr, "ohmvol3d_fuzz: invariant broken: %s\n", st.failure);
        return 1;
      }
      if (std::find(kinds_seen.begin(), kinds_seen.end(), st.failure_kind) == kinds_seen.end()) {
        kinds_seen.push_back(st.failure_kind);
        std::fprintf(stderr, "ohmvol3d_fuzz: case %" PRIu64 ": invariant broken: %s\n", c,
                     st.failure);
      }
      slot.broken = slot.broken + 1;
    }
    slot.current = -1;
    slot.cases = slot.cases + 1;
    if (r == FR_ACCEPTED)
      slot.accepted = slot.accepted + 1;
    else if (r == FR_REFUSED)
      slot.refused = slot.refused + 1;
    if (c < seeds.size()) {
      slot.seeds_accepted = slot.seeds_accepted + (r == FR_ACCEPTED);
      if (r != FR_ACCEPTED)
        std::printf("seed %" PRIu64 " refused (last message: %s)\n", c, session.state().last_title);
    }
  }
  slot.accepted_short = session.state().accepted_short;
  slot.accepted_empty = session.state().accepted_empty;
  return slot.broken > 0 ? 1 : 0;
}

int Usage() {
  std::fprintf(stderr,
               "usage: ohmvol3d_fuzz [--cases N] [--seed S] [--jobs J] [--keep-going] [--corpus "
               "DIR]...\n"
               "       ohmvol3d_fuzz --replay S C [--corpus DIR]... [--out FILE]\n"
               "       ohmvol3d_fuzz --run FILE...\n");
  return 2;
}

} // namespace

int main(int argc, char **argv) {
  uint64_t ncases = 10000, seed = 1, replay_case = 0;
  int jobs = 1;
  bool replay = false, keep_going = false;
  std::string out;
  std::vector<std::string> corpus, files;
  for (int a = 1; a < argc; a++) {
    const std::string arg = argv[a];
    const bool more = a + 1 < argc;
    if (arg == "--cases" && more)
      ncases = std::strtoull(argv[++a], nullptr, 10);
    else if (arg == "--seed" && more)
      seed = std::strtoull(argv[++a], nullptr, 10);
    else if (arg == "--jobs" && more)
      jobs = std::clamp(std::atoi(argv[++a]), 1, max_jobs);
    else if (arg == "--keep-going")
      keep_going = true;
    else if (arg == "--corpus" && more)
      corpus.push_back(argv[++a]);
    else if (arg == "--out" && more)
      out = argv[++a];
    else if (arg == "--replay" && a + 2 < argc) {
      replay = true;
      seed = std::strtoull(argv[++a], nullptr, 10);
      replay_case = std::strtoull(argv[++a], nullptr, 10);
    } else if (arg == "--run") {
      while (a + 1 < argc && std::strncmp(argv[a + 1], "--", 2) != 0)
        files.push_back(argv[++a]);
    } else
      return Usage();
  }
  std::signal(SIGALRM, On_Alarm);

  if (replay) {
    const std::vector<std::string> seeds = Load_Seeds(corpus);
    const std::string input = Make_Case(seeds, seed, replay_case);
    if (out.empty())
      out = "fuzz_case_" + std::to_string(seed) + "_" + std::to_string(replay_case) + ".dat";
    std::ofstream f(out, std::ios::binary);
    f << input;
    f.close();
    if (!f) {
      std::fprintf(stderr, "ohmvol3d_fuzz: cannot write %s\n", out.c_str());
      return 2;
    }
    std::printf("case %" PRIu64 " of seed %" PRIu64 " (%zu bytes) written to %s\n", replay_case,
                seed, input.size(), out.c_str());
    return 0;
  }

  if (!files.empty()) {
    // Every file runs; the status says whether one broke an invariant.
    Fuzz_Session session;
    int status = 0;
    for (const std::string &path : files) {
      std::string input;
      if (!Read_Whole_File(path, input)) {
        std::fprintf(stderr, "ohmvol3d_fuzz: cannot read %s\n", path.c_str());
        return 2;
      }
      std::printf("%s: ", path.c_str());
      std::fflush(stdout);
      const int r = Run_Case(session, input);
      if (r == FR_INVARIANT) {
        std::printf("invariant broken: %s\n", session.state().failure);
        status = 1;
      } else {
        std::printf("%s (last message: %s)\n", r == FR_ACCEPTED ? "accepted" : "refused",
                    session.state().last_title);
      }
      std::fflush(stdout);
    }
    return status;
  }

  const std::vector<std::string> seeds = Load_Seeds(corpus);
  void *page = mmap(nullptr, sizeof(Worker_Slot) * max_jobs, PROT_READ | PROT_WRITE,
                    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) {
    std::perror("ohmvol3d_fuzz: mmap");
    return 2;
  }
  Worker_Slot *slots = static_cast<Worker_Slot *>(page);
  for (int j = 0; j < max_jobs; j++)
    new (slots + j) Worker_Slot();
  const auto t0 = std::chrono::steady_clock::now();
  std::fflush(stdout);
  std::vector<pid_t> pids(jobs, -1);
  for (int j = 0; j < jobs; j++) {
    pids[j] = fork();
    if (pids[j] == 0) {
      const int status = Run_Worker(seeds, seed, ncases, j, jobs, keep_going, slots[j]);
      std::fflush(stdout);
      std::exit(status);
    }
    if (pids[j] < 0) {
      std::perror("ohmvol3d_fuzz: fork");
      return 2;
    }
  }
  int failed = 0;
  bool stopping = false; // the other workers were told to stop
  for (int left = jobs; left > 0; left--) {
    int status = 0;
    const pid_t pid = wait(&status);
    const int j = static_cast<int>(std::find(pids.begin(), pids.end(), pid) - pids.begin());
    if (j >= jobs)
      continue;
    pids[j] = -1;
    if ((WIFEXITED(status) && WEXITSTATUS(status) == 0) ||
        (stopping && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM))
      continue;
    failed = 1;
    const int64_t c = slots[j].current;
    if (keep_going && WIFEXITED(status) && WEXITSTATUS(status) == 1 && c < 0)
      continue; // broken invariants, named and counted
    if (WIFSIGNALED(status))
      std::fprintf(stderr, "ohmvol3d_fuzz: worker %d ended by signal %d\n", j, WTERMSIG(status));
    if (c >= 0) {
      std::string again =
          std::string(argv[0]) + " --replay " + std::to_string(seed) + " " + std::to_string(c);
      for (const std::string &folder : corpus)
        again += " --corpus " + folder;
      std::fprintf(stderr,
                   "ohmvol3d_fuzz: case %lld of seed %" PRIu64 " failed\nreplay: %s && %s --run "
                   "fuzz_case_%" PRIu64 "_%lld.dat\n",
                   static_cast<long long>(c), seed, again.c_str(), argv[0], seed,
                   static_cast<long long>(c));
    }
    for (int k = 0; k < jobs; k++) // the other workers stop
      if (pids[k] > 0)
        kill(pids[k], SIGTERM);
    stopping = true;
  }
  const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  uint64_t cases = 0, accepted = 0, refused = 0, broken = 0, seeds_accepted = 0;
  int64_t short_kept = 0, none_kept = 0;
  for (int j = 0; j < jobs; j++) {
    cases += slots[j].cases;
    accepted += slots[j].accepted;
    refused += slots[j].refused;
    broken += slots[j].broken;
    seeds_accepted += slots[j].seeds_accepted;
    short_kept += slots[j].accepted_short;
    none_kept += slots[j].accepted_empty;
  }
  std::printf("ohmvol3d_fuzz: %" PRIu64 " cases run (seed %" PRIu64 ", %d jobs, %zu seeds, %" PRIu64
              " of them accepted as given)\n",
              cases, seed, jobs, seeds.size(), seeds_accepted);
  std::printf("accepted %" PRIu64 " (%" PRId64 " keeping fewer than %d points, %" PRId64
              " keeping none), refused %" PRIu64 "\n",
              accepted, short_kept, min_data_points, none_kept, refused);
  if (broken > 0)
    std::printf("invariant broken in %" PRIu64 " cases\n", broken);
  std::printf("elapsed %.1f s, %.0f cases per second\n", s, s > 0.0 ? cases / s : 0.0);
  munmap(page, sizeof(Worker_Slot) * max_jobs);
  return failed;
}

#endif
