// Reading a results file back: the survey half with the data file's own
// parsers, then the layers, the blocks and every model section, then the
// tail sections, and the model binary files for the display and exports.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "modes/ip_units.h"
#include "results/results_file.h"
#include "survey/optional_sections.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

constexpr float model_floor = 1e-7f;

const char *const inv_file_title = "Inv file message";

bool Starts_With(const char *line, const char *what) {
  return std::strncmp(line, what, std::strlen(what)) == 0;
}

// The start of the line `back` lines before the one that starts at `pos`.
int64_t Line_Start_Before(const Text_Image &t, int64_t pos, int back) {
  int64_t p = pos;
  for (int k = 0; k < back && p > 0; k++) {
    p--; // onto the previous line's end
    while (p > 0 && (t.buf[p] == '\n' || t.buf[p] == '\r'))
      p--;
    while (p > 0 && t.buf[p - 1] != '\n')
      p--;
  }
  return p;
}

// Values, iteration by iteration, kept while the sections are read.
struct Sections {
  std::vector<float> res, ip;      // models: nmodel x ntime per iteration
  std::vector<float> calc, calcip; // calculated: mdata x ntime per iteration
};

// The values of one model, layer by layer; values below `floor` are raised
// to it.
int Read_Model_Blocks_Values(Data_Set &ds, float *into, int64_t room, float floor = model_floor) {
  const Model_Grid &g = ds.Model_grid;
  char line[text_line_max + 1];
  if (room < g.nmodel_blocks)
    return Show_Text(ds, "Message", MK_WARNING,
                     "Insufficient array size to store model values.\nSize allocated %lld. Size "
                     "needed %lld.",
                     static_cast<long long>(room), static_cast<long long>(g.nmodel_blocks));
  int b = 0;
  for (int k = 1; k <= g.nlayers; k++) {
    read_line(ds.img, line); // "LAYER k"
    const int n = g.layer_nblockx[k] * g.layer_nblocky[k];
    for (int i = 0; i < n && b < g.nmodel_blocks; i++, b++) {
      const double v = read_real(ds.img);
      if (!ds.img.found)
        return 1;
      into[b] = std::max(static_cast<float>(v), floor);
    }
  }
  return 0;
}

// An IP model in display units back to the internal fraction.
int Read_IP_Model(Data_Set &ds, float *ip, const float *res, int64_t room) {
  if (Read_Model_Blocks_Values(ds, ip, room, -HUGE_VALF))
    return 1;
  for (int b = 0; b < ds.Model_grid.nmodel_blocks; b++)
    ip[b] = static_cast<float>(IP_To_Internal(ds.Data_ip, ip[b], res[b]));
  return 0;
}

// A misfit line: one number, or three with the direction component (the
// second taken), as a fraction. 1 where the line is missing, holds no
// number, or ends the file without its line end: a line cut short, whose
// last number may be cut too.
int Read_Misfit_Line(Data_Set &ds, bool direction, double &fraction) {
  char line[text_line_max + 1];
  if (read_line(ds.img, line) == 0 || ds.img.pos >= ds.img.size)
    return 1;
  Text_Image t = line_image(line);
  double v = read_real(t);
  if (direction && t.found)
    v = read_real(t);
  if (!t.found)
    return 1;
  fraction = v * 0.01;
  return 0;
}

// The RMS misfit in percent of the calculated values of one series.
double Series_Misfit_Percent(const Data_Set &ds, const float *calc, int t) {
  double sum = 0.0;
  int n = 0;
  for (int i = 0; i < ds.mdata; i++) {
    const double o = ds.dp[static_cast<int64_t>(t) * ds.mdata + i].value, c = calc[i];
    if (c <= 0.0 || o <= 0.0)
      continue;
    const double e = std::log(o / c);
    sum += e * e;
    n++;
  }
  return n ? 100.0 * std::sqrt(sum / n) : 0.0;
}

void Show_Iteration_Status(Data_Set &ds, int it, double rms, double rmsip) {
  const Inv_Results &r = ds.Inv_results;
  if (r.typeip > 0)
    Progress_Text(ds, 1.0,
                  r.robust ? "Iteration %d- Resistivity Abs. error %.2f, IP Abs. error %.2f    "
                           : "Iteration %d- Resistivity RMS error %.2f, IP RMS error %.2f    ",
                  it, rms, rmsip);
  else
    Progress_Text(ds, 1.0,
                  r.robust ? "Iteration %d-Abs. error %.2f    " : "Iteration %d-RMS error %.2f    ",
                  it, rms);
}

// One model section (after its "MODEL" line) into iteration `it` of `s`.
int Read_Section(Data_Set &ds, Sections &s, int it) {
  Inv_Results &r = ds.Inv_results;
  char line[text_line_max + 1];
  const int64_t nm = static_cast<int64_t>(r.nmodel) * r.ntime;
  const int64_t nd = static_cast<int64_t>(r.mdata) * r.ntime;
  const double unit = ds.resistance == 1 ? ds.spxx : 1.0;
  float *res = s.res.data() + (it - 1) * nm,
        *ip = r.typeip > 0 ? s.ip.data() + (it - 1) * nm : nullptr;
  float *calc = s.calc.data() + (it - 1) * nd;
  float *calcip = r.typeip > 0 ? s.calcip.data() + (it - 1) * nd : nullptr;
  const bool valid_only = r.typeip > 0 && r.num_valid_ip != r.mdata;
  if (r.ntime < 2) {
    if (Read_Model_Blocks_Values(ds, res, nm))
      return 1;
    if (ip) {
      read_line(ds.img, line); // "IP MODEL"
      if (Read_IP_Model(ds, ip, res, nm))
        return 1;
    }
    read_line(ds.img, line); // "CALCULATED ..."
    if (read_reals(ds.img, calc, r.mdata, unit))
      return 1;
    TRACE("Iteration %d misfit from the values %.3f\n", it, Series_Misfit_Percent(ds, calc, 0));
    if (ds.array2 == 16) {
      read_line(ds.img, line); // the ratios
      std::vector<float> skip(r.mdata);
      read_reals(ds.img, skip.data(), r.mdata, 1.0);
    }
    double misfit = 0.0;
    if (Read_Misfit_Line(ds, r.vector_dir, misfit))
      return 1;
    r.rmsl[it] = 100.0 * misfit;
    if (calcip) {
      read_line(ds.img, line); // "CALCULATED APPARENT IP"
      const int n = valid_only ? r.num_valid_ip : r.mdata;
      std::vector<float> v(n);
      if (read_reals(ds.img, v.data(), n, 1.0))
        return 1;
      for (int i = 0, k = 0; i < r.mdata; i++) {
        const bool taken = !valid_only || (ds.valid_ip && ds.valid_ip[i]);
        calcip[i] = taken ? static_cast<float>(IP_To_Internal(ds.Data_ip, v[k++], calc[i])) : 0.0f;
      }
      if (ds.array2 == 16) {
        read_line(ds.img, line);
        read_reals(ds.img, v.data(), n, 1.0);
      }
      if (Read_Misfit_Line(ds, r.vector_dir, misfit))
        return 1;
      r.rmsip[it] = 100.0 * misfit;
    }
    Show_Iteration_Status(ds, it, r.rmsl[it], r.typeip > 0 ? r.rmsip[it] : 0.0);
    return 0;
  }
  for (int t = 0; t < r.ntime; t++) {
    read_line(ds.img, line); // "MODEL TIME t"
    if (Read_Model_Blocks_Values(ds, res + static_cast<int64_t>(t) * r.nmodel, r.nmodel))
      return 1;
    if (ip) {
      read_line(ds.img, line);
      const int64_t o = static_cast<int64_t>(t) * r.nmodel;
      if (Read_IP_Model(ds, ip + o, res + o, r.nmodel))
        return 1;
    }
  }
  double all = 0.0, allip = 0.0;
  for (int t = 0; t < r.ntime; t++) {
    read_line(ds.img, line); // "CALCULATED ..."
    read_line(ds.img, line); // "TIME DATA SERIES t"
    float *c = calc + static_cast<int64_t>(t) * r.mdata;
    if (read_reals(ds.img, c, r.mdata, unit))
      return 1;
    double misfit = 0.0;
    if (Read_Misfit_Line(ds, false, misfit))
      return 1;
    const double rms = 100.0 * misfit;
    all += rms * rms;
    Progress_Text(ds, 1.0, "Iteration %d Series %d-RMS error %.2f    ", it, t + 1, rms);
    if (calcip) {
      read_line(ds.img, line);
      float *ci = calcip + static_cast<int64_t>(t) * r.mdata;
      if (read_reals(ds.img, ci, r.mdata, 1.0))
        return 1;
      for (int i = 0; i < r.mdata; i++)
        ci[i] = static_cast<float>(IP_To_Internal(ds.Data_ip, ci[i], c[i]));
      if (Read_Misfit_Line(ds, false, misfit))
        return 1;
      const double rip = 100.0 * misfit;
      allip += rip * rip;
    }
  }
  r.rmsl[it] = std::sqrt(all / r.ntime);
  Progress_Text(ds, 1.0, "Iteration %d all series-RMS error %.2f    ", it, r.rmsl[it]);
  if (calcip)
    r.rmsip[it] = std::sqrt(allip / r.ntime);
  return 0;
}

// Layers and blocks: the model grid of the file.
int Read_Model_Geometry(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  char line[text_line_max + 1];
  const int64_t at = find_text(ds.img, "\nCoordinates of blocks", ds.img.pos);
  if (at < 0)
    return Show_Text(ds, "Message", MK_WARNING, "%s",
                     "Trapezoidal grid or uniform grid format is no longer supported.\nThe "
                     "nonunifrom rectnagular grid format must be used!");
  ds.img.pos = Line_Start_Before(ds.img, at + 1, 2);
  const int nlayers = read_int(ds.img);
  if (!ds.img.found || nlayers < 1 || nlayers > zbl_capacity)
    return 1;
  g.nlayers = nlayers;
  for (int k = 0; k <= nlayers; k++)
    g.zbl[k] = static_cast<float>(read_real(ds.img) / ds.spxx);
  ds.img.pos = at + 1;
  read_line(ds.img, line); // "Coordinates of blocks"
  g.nmodel_max = ds.Data_lim_sys.nmax_model;
  std::vector<Model_Block> blocks;
  for (int k = 1; k <= nlayers; k++) {
    read_line(ds.img, line); // "Layer k"
    const int nx = read_int(ds.img), ny = read_int(ds.img);
    if (!ds.img.found || nx < 1 || ny < 1)
      return 1;
    g.layer_nblockx[k] = nx;
    g.layer_nblocky[k] = ny;
    const int64_t total = static_cast<int64_t>(blocks.size()) + static_cast<int64_t>(nx) * ny;
    if (total > g.nmodel_max)
      return Show_Text(ds, "Message", MK_WARNING,
                       "Model has at least %d model blocks.\nMaximum allowed is %d.",
                       static_cast<int>(total), g.nmodel_max);
    for (int b = 0; b < nx * ny; b++) {
      if (blocks.size() % 512 == 0)
        Progress_Text(ds, static_cast<double>(k) / nlayers, "Reading model block %d",
                      static_cast<int>(blocks.size()) + 1);
      read_line(ds.img, line); // "Block n"
      Model_Block m;
      for (int c = 0; c < 8; c++) {
        m.x[c] = static_cast<float>(Normal_X(ds, read_real(ds.img)));
        m.y[c] = static_cast<float>(Normal_Y(ds, read_real(ds.img)));
        m.z[c] = static_cast<float>(read_real(ds.img) / ds.spxx);
      }
      if (!ds.img.found)
        return 1;
      blocks.push_back(m);
    }
  }
  const int n = static_cast<int>(blocks.size());
  if (g.blocks.Resize(ds, n + 1, "model blocks") || g.blocks_topo.Resize(ds, n + 1, "model blocks"))
    return 1;
  std::copy(blocks.begin(), blocks.end(), g.blocks.data());
  std::copy(blocks.begin(), blocks.end(), g.blocks_topo.data());
  g.nmodel_blocks = n;
  g.nblockx = g.layer_nblockx[1];
  g.nblocky = g.layer_nblocky[1];
  return 0;
}

} // namespace

int Get_Model_Inversion(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  char line[text_line_max + 1];
  if (Read_Model_Geometry(ds))
    return 1;
  const Model_Grid &g = ds.Model_grid;
  r.nmodel = g.nmodel_blocks;
  r.mdata = ds.mdata;
  r.ntime = std::max(1, ds.ntime);
  r.typeip = ds.Data_ip.typeip > 0 ? 1 : 0;
  const int maxiter = max_inv_iterations;
  const int64_t nm = static_cast<int64_t>(r.nmodel) * r.ntime,
                nd = static_cast<int64_t>(r.mdata) * r.ntime;
  Sections s;
  try {
    s.res.resize(nm * maxiter);
    if (r.typeip)
      s.ip.resize(nm * maxiter);
  } catch (...) {
    return Show_Text(ds, "Message", MK_WARNING,
                     "Error in allocating arrays for inverse model values.\nnummodel %d ntime %d "
                     "maxiter %d",
                     r.nmodel, r.ntime, maxiter);
  }
  try {
    s.calc.resize(nd * maxiter);
    if (r.typeip)
      s.calcip.resize(nd * maxiter);
  } catch (...) {
    return Show_Text(ds, "Message", MK_WARNING,
                     "Error in allocating arrays for calculated apparent values.\nnummodel %d "
                     "ntime %d maxiter %d",
                     r.nmodel, r.ntime, maxiter);
  }
  r.rmsl.assign(maxiter + 1, 0.0);
  r.rmsip.assign(maxiter + 1, 0.0);
  // The initial misfit (and the direction component's mark).
  Peek_Line(ds, line);
  if (std::toupper(static_cast<unsigned char>(line[0])) == 'D') {
    r.vector_dir = 1;
    read_line(ds.img, line);
  }
  // (A file cut inside these lines has no iteration to read.)
  double misfit = 0.0;
  if (!Read_Misfit_Line(ds, r.vector_dir, misfit))
    r.rmsl[0] = 100.0 * misfit;
  if (r.typeip && !Read_Misfit_Line(ds, r.vector_dir, misfit))
    r.rmsip[0] = 100.0 * misfit;
  r.num_valid_ip = ds.mdata;
  if (Peek_Line(ds, line) && std::toupper(static_cast<unsigned char>(line[0])) == 'I') {
    read_line(ds.img, line);
    read_line(ds.img, line);
    r.num_valid_ip = read_int(ds.img);
  }
  int it = 0;
  while (Peek_Line(ds, line) && Starts_With(line, "MOD")) {
    if (it + 1 >= maxiter) {
      Show_Text(ds, "Message", MK_WARNING, "Too many iterations.\nMaximum number allowed is %d.",
                maxiter);
      break;
    }
    const int64_t keep = ds.img.pos;
    read_line(ds.img, line);
    if (Read_Section(ds, s, it + 1)) {
      // A section cut short (a run stopped while writing, a full disk) is
      // left out, in words.
      ds.img.pos = keep;
      r.cut_iteration = it + 1;
      Show_Text(ds, inv_file_title, MK_WARNING,
                "The results file %s ends inside iteration %d: the file was cut short.\nOnly "
                "the iterations before it (%d) are read.",
                ds.file_names.data_file.c_str(), it + 1, it);
      break;
    }
    it++;
  }
  r.nitcount_inv = it;
  Progress_Text(ds, 1.0, "Number of iterations is %d.", it);
  // The tail's first line tells the data norm of the run.
  const int ierr = it > 0 ? Save_Model_Binary_File(ds, 0, s.res.data(), s.ip.data(), s.calc.data(),
                                                   s.calcip.data())
                          : 0;
  if (it > 0 && !ierr)
    Read_Model_Binary_File(ds, it);
  Progress_Text(ds, 1.0, "Inversion model has %d layers and %d cells", g.nlayers, g.nmodel_blocks);
  return 0;
}

int Read_Inverse_Model_File(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  r.Clear();
  ds.LS.nitcount = 0;
  ds.ntime = 1;
  progress(ds, "Read start", 0.0);
  const int ierr = Parse_Results_Survey(ds);
  if (ierr == 2 || ierr == 3) {
    show_message(ds,
                 ierr == 2 ? "This program will not read in inv files produced by other programs "
                             "or old versions of the program.\nIt only supports data in the "
                             "arbitrary point electrodes format."
                           : "This program will not read in inv files produced by other programs "
                             "or old versions of the program.\nAll the electrodes used must be "
                             "included in the list with the point electrodes",
                 inv_file_title, MK_WARNING);
    return 0;
  }
  if (ierr)
    return 0;
  // Valid IP data: within 0.8 and the cut-off.
  if (ds.Data_ip.typeip > 0) {
    const double cut = std::min(0.8, static_cast<double>(ds.Data_ip.valid_ip_limit));
    int valid = 0;
    for (int i = 0; i < ds.mdata; i++) {
      const bool ok = std::fabs(ds.dp[i].ip_value) <= cut;
      if (ds.valid_ip)
        ds.valid_ip[i] = ok ? 1 : 0;
      valid += ok;
    }
    ds.num_valid_ip = valid;
  }
  if (Get_Model_Inversion(ds))
    return 0;
  r.robust = find_text(ds.img, "Abs. error", ds.img.pos) >= 0 ? 1 : 0;
  Read_Topography_Model_Parameters(ds);
  Read_Sensitivity_Values(ds);
  Read_Reference_Model(ds);
  Read_Resolution_Values_Free_Format(ds);
  ds.Model_grid.Calculate_Blocks_Centers();
  Read_Damping_Factors_Inv_File(ds);
  Check_Resolution_Matrix_File(ds);
  Check_Inversion_Settings_Inv_File(ds);
  Read_Lcurve_Values(ds);
  progress(ds, "Reading of inverse model file completed", 1.0);
  return 1;
}

int Call_Read_Inversion_File(Data_Set &ds, const char *path) {
  ds.current_command = 7000;
  if (!path || !path[0])
    return 1; // the chooser was cancelled: nothing changes
  std::unique_ptr<char[]> buffer;
  if (Load_Text_File(ds, path, buffer))
    return 1;
  const int mode = ds.display_mode;
  ds.display_mode = 2;
  ds.file_names.data_file = path;
  const int ok = Read_Inverse_Model_File(ds);
  ds.display_mode = mode;
  ds.img = Text_Image();
  buffer.reset();
  if (!ok) {
    Show_Text(ds, "Message", MK_WARNING,
              "Error in reading of file %s with inversion results. Click OK to continue.", path);
    ds.mdata = 0;
    ds.Model_grid.nmodel_blocks = 0;
    ds.Inv_results.nitcount_inv = 0;
    ds.LS.nitcount = 0;
    ds.data_read = ds.inv_read = 0;
    return 1;
  }
  ds.file_names.results_file = path;
  ds.inv_read = 1;
  ds.data_read = 0; // the survey of a results file is for looking, not for a new run
  Show_Text(ds, "Message", MK_INFORMATION, "Reading of file %s completed.\nClick OK to continue.",
            path);
  Progress_Text(ds, 1.0, "Data file %s read", path);
  return 0;
}
