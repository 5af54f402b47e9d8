// Sensitivity values from the Jacobian file (the sum over data of |J| per
// cell), the approximate resolution, and the damping multipliers that raise
// the damping where the data are most sensitive: from the sensitivity, or
// from the distance to the point electrodes.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "core/data_set.h"
#include "core/memory.h"
#include "core/trace.h"
#include "jacobian/jacobian.h"
#include "jacobian/jacobian_compression.h"
#include "jacobian/wavelet.h"
#include "survey/survey_text.h"

// Shared with the half-space road (half_space_jacobian.cpp).
void Finish_Sensitivity_Values(Data_Set &ds);

namespace {

// The cells most sensitive of all lie next to the electrodes; this many per
// layer are passed over when the maximum that scales the damping is taken.
constexpr int skipped_cells_per_layer = 16;

bool Damping_Arrays_Sized(const LS_State &ls, int n) {
  const size_t cells = static_cast<size_t>(n);
  return ls.sens_reso.size() >= cells + 2 && ls.approx_reso.size() >= cells + 1 &&
         ls.damp_ac.size() >= cells + 1 && ls.damp_ac_ip.size() >= cells + 1;
}

void Initialize_damp_ac(LS_State &ls) {
  std::fill(ls.damp_ac.begin(), ls.damp_ac.end(), 1.0f);
}

// Row i of the compressed Jacobian in model order: its stored coefficients
// scattered into a zero wavelet row and transformed back.
int Compressed_Row(Data_Set &ds, int i, FILE *fv, FILE *fi, std::vector<float> &val,
                   std::vector<int> &idx, std::vector<float> &w, float *row) {
  const Compressed_Jacobian &cj = ds.LS.wj;
  const int64_t count = cj.numwave[i + 1] - cj.numwave[i];
  val.resize(count);
  idx.resize(count);
  if (std::fread(val.data(), sizeof(float), count, fv) != static_cast<size_t>(count) ||
      std::fread(idx.data(), sizeof(int), count, fi) != static_cast<size_t>(count))
    return 1;
  const int64_t n2 = Max_Wavelet_Coefs(cj);
  w.assign(2 * n2, 0.0f);
  for (int64_t k = 0; k < count; k++)
    w[idx[k]] = val[k];
  Wavelet_Row_To_Model(cj, w.data(), w.data() + n2,
                       Wavelet_Impl_Of_Setting(ds.LS_method.wavelet_function_type), row);
  return 0;
}

// Sums of |J| and J^2 over the rows of the Jacobian: from the compressed
// files where the run keeps them, else from the Jacobian file.
int Sum_Jacobian_File(Data_Set &ds, float *row, float *q) {
  const int m = ds.mdata, n = ds.Model_grid.nmodel_blocks;
  LS_State &ls = ds.LS;
  const bool compressed =
      ds.LS_method.data_compression > 0 && ls.wj.valid && ls.wj.nmodel == n && ls.wj.mdata == m;
  const std::string &path = ds.file_names.temp[compressed ? TF_GRADCOMP : TF_GRROWT];
  FILE *f = std::fopen(path.c_str(), "rb");
  FILE *fi = compressed ? std::fopen(ds.file_names.temp[TF_GRADCOMP_I].c_str(), "rb") : nullptr;
  if (!f || (compressed && !fi)) {
    for (FILE *g : {f, fi})
      if (g)
        std::fclose(g);
    return Show_Text(ds, "Sensitivity Error Message", MK_WARNING,
                     "Cannot open Jacobian matrix file\n%s\nfor sensitivity calculations.",
                     path.c_str());
  }
  std::vector<float> val, w;
  std::vector<int> idx;
  for (int i = 0; i < m; i++) {
    if (i % 128 == 0)
      Progress_Text(ds, static_cast<double>(i) / m, "Calculating sensitivity information %.2f%%",
                    100.0 * i / m);
    const bool short_read = compressed
                                ? Compressed_Row(ds, i, f, fi, val, idx, w, row) != 0
                                : std::fread(row, sizeof(float), n, f) != static_cast<size_t>(n);
    if (short_read) {
      std::fclose(f);
      if (fi)
        std::fclose(fi);
      return Show_Text(ds, "Sensitivity Error Message", MK_WARNING,
                       "Jacobian matrix file\n%s\nends at row %d of %d.", path.c_str(), i + 1, m);
    }
    for (int j = 0; j < n; j++) {
      ls.sens_reso[j] += std::fabs(row[j]);
      q[j] += row[j] * row[j];
    }
  }
  std::fclose(f);
  if (fi)
    std::fclose(fi);
  Progress_Text(ds, 1.0, "Calculating sensitivity information %.2f%%", 100.0);
  return 0;
}

} // namespace

void Finish_Sensitivity_Values(Data_Set &ds) {
  LS_State &ls = ds.LS;
  const int n = ds.Model_grid.nmodel_blocks;
  if (n <= 0 || ls.sens_reso.size() < static_cast<size_t>(n) + 1)
    return;
  double sum = 0.0, lo = ls.sens_reso[0], hi = ls.sens_reso[0];
  for (int j = 0; j < n; j++) {
    const double s = ls.sens_reso[j];
    sum += s;
    lo = std::min(lo, s);
    hi = std::max(hi, s);
  }
  // The values stay as sums of |J|, not divided by their average: the results
  // file says "not normalised".
  ls.sens_average = sum / n;
  ls.sens_min = lo;
  ls.sens_max = hi;
  ls.sens_reso[n] = static_cast<float>(ls.sens_average);
}

int CalculateSensitivity(Data_Set &ds) {
  const int m = ds.mdata, n = ds.Model_grid.nmodel_blocks;
  if (m <= 0 || n <= 0)
    return 0;
  LS_State &ls = ds.LS;
  if (!Damping_Arrays_Sized(ls, n)) {
    TRACE("CalculateSensitivity: arrays sized for %d cells, %d needed\n", ls.nmodel, n);
    return 1;
  }
  if (!ls.sens_calculated) {
    float *row = nullptr, *q = nullptr;
    if (Allocate_Values(ds, row, n, "sensitivity Jacobian row") ||
        Allocate_Values(ds, q, n, "sensitivity squares")) {
      Free_Values(row);
      return 1;
    }
    std::fill(ls.sens_reso.begin(), ls.sens_reso.end(), 0.0f);
    const int ierr = Sum_Jacobian_File(ds, row, q);
    if (ierr == 0) {
      // The minimum damping factor in place of a fixed small constant.
      const double floor = ds.LS_method.fmarqm;
      for (int j = 0; j < n; j++) {
        const double den = floor + q[j];
        ls.approx_reso[j] = den > 0.0 ? static_cast<float>(q[j] / den) : 0.0f;
      }
      ls.sens_calculated = 1;
    }
    Free_Values(row);
    Free_Values(q);
    if (ierr)
      return ierr;
  }
  Finish_Sensitivity_Values(ds);
  TRACE("Sensitivity: %d data, %d cells, average %.4e min %.4e max %.4e\n", m, n, ls.sens_average,
        ls.sens_min, ls.sens_max);
  return 0;
}

void Calculate_Sensitivity_Constraints(Data_Set &ds) {
  const int n = ds.Model_grid.nmodel_blocks;
  LS_State &ls = ds.LS;
  if (n <= 0 || !Damping_Arrays_Sized(ls, n))
    return;
  const LS_Method &lm = ds.LS_method;
  float *sorted = nullptr;
  if (Allocate_Values(ds, sorted, n, "sorted sensitivity"))
    return;
  std::copy(ls.sens_reso.begin(), ls.sens_reso.begin() + n, sorted);
  std::sort(sorted, sorted + n);
  // Rank-based maximum: the value at position n - 16 nlayers counted from 1.
  // A model with fewer cells than that takes its largest value.
  int rank = n - skipped_cells_per_layer * ds.Model_grid.nlayers;
  if (rank < 1)
    rank = n;
  const double sens_max = sorted[rank - 1];
  Free_Values(sorted);
  const double scale = sens_max > 0.0 ? 1.0 / sens_max : 0.0;
  const double fac = lm.bore_damp_fac;
  TRACE("Sensitivity constraints: sens_max %.4e (rank %d of %d) bore_damp_fac %.3f "
        "bore_damp_rate %.3f damp_sens_cutoff %.3f reso %d\n",
        sens_max, rank, n, fac, lm.bore_damp_rate, lm.damp_sens_cutoff,
        lm.use_sensitivity_damp_reso);
  // To n inclusive: the slot after the last cell follows the average.
  for (int i = 0; i <= n; i++) {
    const double s = ls.sens_reso[i] * scale;
    const double t = lm.use_sensitivity_damp_reso ? ls.approx_reso[i] : s;
    ls.damp_ac[i] = static_cast<float>(fac * t + 1.0);
    ls.damp_ac_ip[i] =
        lm.ip_same_ref_damp ? ls.damp_ac[i] : static_cast<float>(fac * t * lm.ip_damp + 1.0);
  }
}

void Calculated_Damp_Dist_Model_Block(Data_Set &ds) {
  const int n = ds.Model_grid.nmodel_blocks, ne = ds.num_point_elecs;
  LS_State &ls = ds.LS;
  if (n <= 0 || ne <= 0 || !ds.pe || ls.damp_ac.size() < static_cast<size_t>(n))
    return;
  Initialize_damp_ac(ls);
  double *dist = nullptr;
  if (Allocate_Values(ds, dist, n, "distance to electrodes"))
    return;
  const Model_Block *blocks = ds.Model_grid.blocks.data();
  const Point_Electrode *pe = ds.pe;
#pragma omp parallel for schedule(static)
  for (int i = 0; i < n; i++) {
    const Model_Block &b = blocks[i];
    double d = 100.0;
    for (int e = 0; e < ne; e++) {
      if (!pe[e].used)
        continue;
      const double dx = b.xc - pe[e].x, dy = b.yc - pe[e].y, dz = b.zc - pe[e].depth;
      d = std::min(d, std::sqrt(dx * dx + dy * dy + dz * dz));
    }
    dist[i] = std::max(d, 0.1);
  }
  const double dmin = *std::min_element(dist, dist + n);
  const double rise = ds.LS_method.bore_damp_fac - 1.0;
  for (int i = 0; i < n; i++) {
    const double r = dmin / dist[i];
    ls.damp_ac[i] = static_cast<float>(r * r * rise + 1.0);
  }
  Free_Values(dist);
  TRACE("Damping from electrode distance: %d cells, %d electrodes, nearest %.4f\n", n, ne, dmin);
}

void Set_Sensitivity_Constraints_Limits(LS_Method &m) {
  m.bore_damp_fac = std::clamp(m.bore_damp_fac, 1.5, 10.0);
  m.bore_damp_rate = std::clamp(m.bore_damp_rate, 0.05, 5.0);
  // Wider than the 0.10 of its label below, deliberately.
  m.damp_sens_cutoff = std::clamp(m.damp_sens_cutoff, 0.01, 0.6);
}
