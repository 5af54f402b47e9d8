// The sections after the models of a results file: each is searched for or
// recognised by its first letters, and an absent one leaves its feature off,
// so that a file stopped in the middle of a run reads as well as a complete
// one.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/messages.h"
#include "core/trace.h"
#include "results/results_file.h"
#include "survey/optional_sections.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

void Read_Damping_Factors_Inv_File(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  Text_Image t = ds.img;
  int n = 0;
  for (int64_t at = find_text(t, ", Damping factor", 0); at >= 0;
       at = find_text(t, ", Damping factor", t.pos)) {
    t.pos = at + 16;
    const double v = read_real(t);
    if (!t.found)
      break;
    if (++n <= max_damping_iterations)
      r.damping[n] = v;
  }
  if (n > max_damping_iterations)
    Show_Text(ds, "Message", MK_WARNING, "Error in number of iterations %d", n);
  r.ndamping = std::min(n, max_damping_iterations);
}

void Read_Lcurve_Values(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  Text_Image t = ds.img;
  r.lcurve.clear();
  r.nlcurve = 0;
  const int64_t at =
      find_text(t, "Iter  App Res misfit   Model Res rough  Damping factor  Objective func", 0);
  if (at < 0)
    return;
  t.pos = at;
  char line[text_line_max + 1];
  read_line(t, line);
  const int per = r.typeip > 0 ? 12 : 6;
  r.lcurve.assign(per, 0.0); // row 0 unused
  std::vector<float> row;
  for (int it = 1; it <= r.nitcount_inv; it++) {
    const int64_t keep = t.pos;
    read_line(t, line);
    Text_Image lt = line_image(line);
    read_int(lt); // the iteration number
    row.resize(per);
    if (!lt.found || read_reals(lt, row.data(), per)) {
      t.pos = keep;
      break;
    }
    r.lcurve.insert(r.lcurve.end(), row.begin(), row.end());
    r.nlcurve++;
  }
  // The first iteration of a robust norm run is at L2: not on the curve.
  if (r.robust && r.nlcurve > 0) {
    r.lcurve.erase(r.lcurve.begin() + per, r.lcurve.begin() + 2 * per);
    r.nlcurve--;
  }
}

void Read_Topography_Model_Parameters(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  Text_Image &t = ds.img;
  const int64_t at = find_text(t, "Topography removal parameters", t.pos);
  if (at < 0)
    return;
  t.pos = at;
  char line[text_line_max + 1];
  read_line(t, line);
  for (double &v : r.topo_removal)
    v = read_real(t);
  r.topo_removal_present = t.found;
  const int64_t keep = t.pos;
  if (!read_line(t, line))
    return;
  if (First_Or_Second_Letter(line, 'D')) {
    read_line(t, line); // "Damping factor"
    r.distort_damping = read_real(t);
    read_line(t, line); // "Coordinates for model blocks"
    const int64_t n = static_cast<int64_t>(ds.Model_grid.nmodel_blocks) * 24;
    r.distorted_corners.resize(n);
    r.distorted = read_reals(t, r.distorted_corners.data(), n) ? 0 : 1;
    if (!r.distorted)
      r.distorted_corners.clear();
    const int64_t after = t.pos;
    if (!read_line(t, line))
      return;
    if (!First_Or_Second_Letter(line, 'F')) {
      t.pos = after;
      return;
    }
  } else if (!First_Or_Second_Letter(line, 'F')) {
    t.pos = keep;
    return;
  }
  // Finer topography grid.
  read_line(t, line); // "Interpolation Nodes"
  const int f = read_int(t);
  const Model_Grid &g = ds.Model_grid;
  if (!t.found || f < 1 || g.ngridx < 2 || g.ngridy < 2)
    return;
  const int64_t n = (static_cast<int64_t>(g.ngridy - 1) * f + 1) * ((g.ngridx - 1) * f + 1);
  r.finer_nodes = f;
  r.finer_surface.resize(n);
  r.finer_topo = read_reals(t, r.finer_surface.data(), n) ? 0 : 1;
}

void Read_Sensitivity_Values(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  Text_Image &t = ds.img;
  char line[text_line_max + 1];
  const int64_t keep = t.pos;
  if (Peek_Line(ds, line) && line[0] == '0')
    read_line(t, line);
  if (!Peek_Line(ds, line) || !First_Or_Second_Letter(line, 'B')) {
    t.pos = keep;
    return;
  }
  read_line(t, line);
  read_line(t, line);
  read_line(t, line);
  r.sens_per_vol = std::strstr(line, "Vol") || std::strstr(line, "vol") ? 1 : 0;
  progress(ds,
           r.sens_per_vol ? "Blocks sensitivity per unit volume information present."
                          : "Blocks sensitivity information present.",
           1.0);
  const int n = ds.Model_grid.nmodel_blocks;
  r.sens.assign(n, 0.0f);
  r.sens_vol.assign(r.sens_per_vol ? n : 0, 0.0f);
  for (int b = 0; b < n; b++) {
    read_int(t);
    r.sens[b] = static_cast<float>(read_real(t));
    if (r.sens_per_vol)
      r.sens_vol[b] = static_cast<float>(read_real(t));
    if (!t.found)
      break;
  }
  r.sens_present = n > 0 && r.sens[0] > 0.0f ? 1 : 0;
  read_line(t, line); // "Average Sensitivity %11.3e"
  if (std::strncmp(line, "Average Sensitivity", 19) == 0 && std::strlen(line + 19) < 20) {
    Text_Image value = line_image(line + 19);
    r.sens_average = read_real(value);
  }
  read_line(t, line); // "Minimum cell volume"
  r.vol_min = read_real(t);
  read_line(t, line); // "Maximum cell volume"
  r.vol_max = read_real(t);
  read_line(t, line);
  r.sens_normalised = std::strstr(line, "not") ? 0 : 1;
  if (!r.sens_present) {
    r.sens.clear();
    r.sens_vol.clear();
  }
}

void Read_Reference_Model(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  Text_Image t = ds.img;
  const int64_t at = find_text(t, "REFERENCE MODEL USED", 0);
  if (at < 0)
    return;
  r.reference_used = 1;
  const int64_t res = find_text(t, "Reference resistivity is", at);
  if (res >= 0) {
    t.pos = res + 24;
    r.reference_res = read_real(t);
  }
  const int64_t ip = find_text(t, "Reference IP is", at);
  if (ip >= 0 && ip < res + 200) {
    t.pos = ip + 15;
    r.reference_ip = read_real(t);
  }
}

void Read_Resolution_Values_Free_Format(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  Text_Image t = ds.img;
  int64_t at = find_text(t, "Resolution values", 0);
  const int64_t psf = find_text(t, "Resolution and PSF values", 0);
  if (psf >= 0 && (at < 0 || psf < at))
    at = psf;
  if (at < 0)
    return;
  t.pos = at;
  char line[text_line_max + 1];
  read_line(t, line);
  if (std::strstr(line, "not calculated"))
    return;
  read_line(t, line); // the column heads
  const char *head = line;
  r.reso_vol_col = std::strstr(head, "vol") || std::strstr(head, "Vol") ? 1 : 0;
  r.reso_psf_col = std::strstr(head, "PSF") ? 1 : 0;
  r.reso_ip_col = std::strstr(head, "I.P.") ? 1 : 0;
  r.reso_spread_col = std::strstr(head, "Spread") ? 1 : 0;
  r.reso_dev_col = std::strstr(head, "Resis. Dev") ? 1 : 0;
  const int n = ds.Model_grid.nmodel_blocks;
  std::vector<float> *cols[9];
  int ncol = 0;
  cols[ncol++] = &r.reso;
  if (r.reso_vol_col)
    cols[ncol++] = &r.reso_vol;
  if (r.reso_psf_col)
    cols[ncol++] = &r.reso_psf;
  std::vector<float> scratch[2];
  if (r.reso_dev_col) {
    cols[ncol++] = &r.model_dev;
    cols[ncol++] = &scratch[0];
    cols[ncol++] = &scratch[1];
  }
  if (r.reso_ip_col) {
    cols[ncol++] = &r.reso_ip;
    cols[ncol++] = &r.reso_ip_vol;
  }
  for (int c = 0; c < ncol; c++)
    cols[c]->assign(n, 0.0f);
  for (int b = 0; b < n; b++) {
    read_int(t);
    for (int c = 0; c < ncol; c++)
      (*cols[c])[b] = static_cast<float>(read_real(t));
    if (!t.found) {
      for (int c = 0; c < ncol; c++)
        cols[c]->clear();
      return;
    }
  }
  r.reso_present = 1;
  const int64_t avg = find_text(t, "Average Resolution", t.pos);
  if (avg >= 0) {
    t.pos = avg + 18;
    r.reso_average = read_real(t);
  }
  if (r.reso_psf_col) {
    double s = 0.0;
    for (float v : r.reso_psf)
      s += v;
    r.psf_average = n ? s / n : 0.0;
    Progress_Text(ds, 1.0, "Average model psf value is %.1f", r.psf_average);
  }
  Progress_Text(ds, 1.0, "Average model resolution value is %.4f", r.reso_average);
}

void Check_Inversion_Settings_Inv_File(Data_Set &ds) {
  const Text_Image &t = ds.img;
  const int64_t at = find_text(t, "Inversion settings", 0);
  if (at < 0)
    return;
  Read_Settings_Text(ds, t.buf + at, t.size - at, 1);
  if (find_text(t, "Increase of damping factor with depth", at) < 0)
    ds.LS_method.damp_depth_factor = 1.05;
}

int Check_Resolution_Matrix_File(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  r.reso_matrix_file = 0;
  char path[2048];
  Derived_File_Name(ds.file_names.data_file.c_str(), "_reso.bin", path, sizeof path);
  FILE *f = std::fopen(path, "rb");
  if (!f)
    return 0;
  int32_t head[4] = {};
  const bool got = std::fread(head, sizeof head, 1, f) == 1;
  std::fclose(f);
  if (!got)
    return 1;
  const int nmodel = ds.Model_grid.nmodel_blocks, ntime = std::max(1, ds.ntime);
  if (head[0] != nmodel)
    return Show_Text(ds, "Message", MK_WARNING,
                     "Number of model cells in inversion file is %d.\nNumber in resolution matrix "
                     "file is %d.\nThey must both be the same!",
                     nmodel, head[0]);
  if (head[1] != ntime)
    return Show_Text(ds, "Message", MK_WARNING,
                     "Number of time series in inversion file is %d.\nNumber in resolution matrix "
                     "file is %d.\nThey must both be the same!",
                     ntime, head[1]);
  if (head[3] != 4)
    return Show_Text(ds, "Message", MK_WARNING,
                     "Number of bytes in resolution matrix should be 4.\nNumber saved in "
                     "resolution matrix file is %d.\nThey must both be the same!",
                     head[3]);
  if (head[2] != nmodel * ntime)
    return Show_Text(ds, "Message", MK_WARNING,
                     "Total number of model cells is  %d.\nNumber saved in resolution matrix file "
                     "is %d.\nThey must both be the same!",
                     nmodel * ntime, head[2]);
  r.reso_matrix_file = 1;
  Panel(ds, "Resolution matrix file present. %d\n", 1);
  Panel(ds, "Full resolution matrix file %s present", path);
  return 0;
}
