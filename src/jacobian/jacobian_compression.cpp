// Wavelet compression of the Jacobian file: rows read in blocks, weighted,
// put in snake order, transformed and thresholded in parallel, and appended
// to the value and index files; the whole-file loads of the Jacobian used by
// the solvers.
#include "jacobian/jacobian_compression.h"

#include <omp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "inversion/inversion.h"
#include "jacobian/wavelet.h"
#include "survey/survey_text.h"

namespace {

// Size of a file in bytes, -1 when it is not there.
int64_t File_Bytes(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    return -1;
  return static_cast<int64_t>(st.st_size);
}

// Reads n values from f; 0 or 1 on a short read.
template <class T> int Read_Whole(FILE *f, T *p, int64_t n) {
  const int64_t chunk = 1 << 24;
  for (int64_t at = 0; at < n; at += chunk) {
    const int64_t k = std::min(chunk, n - at);
    if (std::fread(p + at, sizeof(T), k, f) != static_cast<size_t>(k))
      return 1;
  }
  return 0;
}

// The per-thread sums of a block added into the run's totals.
void Join_Thread_Sums(Compressed_Jacobian &cj, Compression_Work &w) {
  const int n = cj.nmodel;
  for (int t = 0; t < w.threads; t++) {
    const double *s = w.sum.data() + static_cast<int64_t>(t) * n;
    const double *a = w.sq_l2.data() + static_cast<int64_t>(t) * n;
    const double *b = w.sq_l1.data() + static_cast<int64_t>(t) * n;
    for (int j = 0; j < n; j++) {
      if (w.first)
        cj.cell_sum[j] = static_cast<float>(cj.cell_sum[j] + s[j]);
      cj.diag_l2[j] += a[j];
      cj.diag_l1[j] += b[j];
    }
  }
  std::fill(w.sum.begin(), w.sum.end(), 0.0);
  std::fill(w.sq_l2.begin(), w.sq_l2.end(), 0.0);
  std::fill(w.sq_l1.begin(), w.sq_l1.end(), 0.0);
}

} // namespace

void Compressed_Jacobian::Clear() {
  numwave.clear();
  diag_l2.clear();
  diag_l1.clear();
  valid = 0;
  ratio = 0.0;
}

int Set_Wave_Model_Grid(Data_Set &ds) {
  Compressed_Jacobian &cj = ds.LS.wj;
  const Model_Grid &g = ds.Model_grid;
  const int n = g.nmodel_blocks;
  progress(ds, "Compressed Jacobian matrix - permuting model blocks", 0.0);
  cj.nmodel = n;
  cj.n2 = Wavelet_Length(n);
  if (static_cast<int64_t>(g.nblockx) * g.nblocky * g.nlayers == n) {
    Snake_Permutation(g.nblockx, g.nblocky, g.nlayers, cj.perm);
  } else {
    cj.perm.resize(n);
    std::iota(cj.perm.begin(), cj.perm.end(), 0);
  }
  cj.cell_sum.assign(n, 0.0f);
  cj.sums_valid = 0;
  cj.Clear();
  TRACE("Set_Wave_Model_Grid nmodel %d n2 %lld\n", n, static_cast<long long>(cj.n2));
  return 0;
}

int Compression_Block_Rows(double cache_gb, int64_t n2, int64_t m, int threads) {
  int64_t rows = Jacobian_Block_Rows(cache_gb, n2, m, false);
  rows = std::min<int64_t>(rows, std::max<int64_t>(m / 2, 1));
  rows = std::min<int64_t>(rows, 512);
  rows = std::min<int64_t>(rows, 128LL * std::max(threads, 1));
  return static_cast<int>(std::max<int64_t>(rows, 1));
}

int64_t Max_Wavelet_Coefs(const Compressed_Jacobian &cj) {
  return cj.n2;
}

void Model_To_Wavelet_Row(const Compressed_Jacobian &cj, const float *in, float *row, float *work,
                          int impl) {
  const int n = cj.nmodel;
  for (int k = 0; k < n; k++)
    row[k] = in[cj.perm[k]];
  std::fill(row + n, row + cj.n2, 0.0f);
  Wavelet_Transform(row, cj.n2, 0, work, impl);
}

void Wavelet_Row_To_Model(const Compressed_Jacobian &cj, float *row, float *work, int impl,
                          float *out) {
  Wavelet_Transform(row, cj.n2, 1, work, impl);
  for (int k = 0; k < cj.nmodel; k++)
    out[cj.perm[k]] = row[k];
}

int Compress_Jacobian_File_Block_Inv(Data_Set &ds, Compressed_Jacobian &cj, Compression_Work &w,
                                     const float *rows, int first_row, int nrows, const float *wt,
                                     const float *r1, FILE *fval, FILE *fidx) {
  const int n = cj.nmodel;
  const int64_t n2 = cj.n2, stride = n2 + 2;
  const int impl = Wavelet_Impl_Of_Setting(ds.LS_method.wavelet_function_type);
  const double cut = ds.LS_method.cut_off;
  const double pct = 100.0 * first_row / std::max(cj.mdata, 1);
  Progress_Text(ds, pct / 100.0, "Compressing Jacobian Matrix %.2f%% C%s", pct,
                Wavelet_Impl_Word(impl));
#pragma omp parallel for schedule(dynamic, 1) num_threads(w.threads)
  for (int r = 0; r < nrows; r++) {
    const int t = omp_get_thread_num();
    const int64_t i = first_row + r;
    const float s = wt ? wt[i] : 1.0f;
    const double q1 = r1 ? r1[i] : 1.0;
    const float *src = rows + static_cast<int64_t>(r) * n;
    float *dst = w.rows.data() + r * stride;
    double *sum = w.sum.data() + static_cast<int64_t>(t) * n;
    double *a = w.sq_l2.data() + static_cast<int64_t>(t) * n;
    double *b = w.sq_l1.data() + static_cast<int64_t>(t) * n;
    for (int j = 0; j < n; j++) {
      const float v = src[j] * s;
      const double v2 = static_cast<double>(v) * v;
      if (w.first)
        sum[j] += std::fabs(v);
      a[j] += v2;
      b[j] += q1 * v2;
    }
    for (int k = 0; k < n; k++)
      dst[k] = src[cj.perm[k]] * s;
    std::fill(dst + n, dst + n2, 0.0f);
    Wavelet_Transform(dst, n2, 0, w.scratch.data() + static_cast<int64_t>(t) * n2, impl);
    float big = 0.0f;
    for (int64_t k = 0; k < n2; k++)
      big = std::max(big, std::fabs(dst[k]));
    w.rmax[r] = big;
    const float lim = static_cast<float>(cut * big);
    int64_t c = 0;
    for (int64_t k = 0; k < n2; k++)
      c += std::fabs(dst[k]) > lim;
    w.count[r] = c;
  }
  Join_Thread_Sums(cj, w);
  Progress_Text(ds, pct / 100.0, "Compressing Jacobian Matrix %.2f%% S %d/%d", pct, first_row,
                cj.mdata);
  // Row offsets, then each row's kept values in rising position order.
  int64_t total = 0;
  for (int r = 0; r < nrows; r++) {
    cj.numwave[first_row + r] = w.written + total;
    total += w.count[r];
  }
  cj.numwave[first_row + nrows] = w.written + total;
  try {
    w.out_val.resize(total);
    w.out_idx.resize(total);
  } catch (...) {
    return Show_Text(ds, "Memory error", MK_WARNING,
                     "Memory for compressed Jacobian rows was not allocated.\nRows %d values %lld",
                     nrows, static_cast<long long>(total));
  }
  Progress_Text(ds, pct / 100.0, "Compressing Jacobian Matrix %.2f%% F", pct);
#pragma omp parallel for schedule(dynamic, 1) num_threads(w.threads)
  for (int r = 0; r < nrows; r++) {
    const float *dst = w.rows.data() + r * stride;
    const float lim = static_cast<float>(cut * w.rmax[r]);
    int64_t at = cj.numwave[first_row + r] - w.written;
    for (int64_t k = 0; k < n2; k++)
      if (std::fabs(dst[k]) > lim) {
        w.out_val[at] = dst[k];
        w.out_idx[at] = static_cast<int>(k);
        at++;
      }
  }
  Progress_Text(ds, pct / 100.0, "Compressing Jacobian Matrix %.2f%% W", pct);
  if (total > 0 &&
      (std::fwrite(w.out_val.data(), sizeof(float), total, fval) != static_cast<size_t>(total) ||
       std::fwrite(w.out_idx.data(), sizeof(int), total, fidx) != static_cast<size_t>(total)))
    return Show_Text(ds, "File Error Message", MK_WARNING,
                     "Error in writing compressed Jacobian matrix files\n%s\n%s",
                     ds.file_names.temp[TF_GRADCOMP].c_str(),
                     ds.file_names.temp[TF_GRADCOMP_I].c_str());
  w.written += total;
  return 0;
}

int Compress_Jacobian_File_One_Inv(Data_Set &ds, int mdata, const std::string &path,
                                   const float *wt, const float *r1) {
  Compressed_Jacobian &cj = ds.LS.wj;
  const int n = ds.Model_grid.nmodel_blocks;
  if (cj.nmodel != n || static_cast<int64_t>(cj.perm.size()) != n)
    Set_Wave_Model_Grid(ds);
  cj.mdata = mdata;
  cj.valid = 0;
  Compression_Work w;
  w.threads = std::max(1, omp_get_max_threads());
  w.num_buf = Compression_Block_Rows(ds.ssd_cache, cj.n2, mdata, w.threads);
  w.first = cj.sums_valid ? 0 : 1;
  Progress_Text(ds, 0.0, "data %d model %d buffer size %d", mdata, n, w.num_buf);
  std::vector<float> block;
  try {
    block.resize(static_cast<int64_t>(w.num_buf) * n);
    w.rows.resize(static_cast<int64_t>(w.num_buf) * (cj.n2 + 2));
    w.scratch.resize(static_cast<int64_t>(w.threads) * cj.n2);
    w.rmax.resize(w.num_buf);
    w.count.resize(w.num_buf);
    w.sum.assign(static_cast<int64_t>(w.threads) * n, 0.0);
    w.sq_l2.assign(static_cast<int64_t>(w.threads) * n, 0.0);
    w.sq_l1.assign(static_cast<int64_t>(w.threads) * n, 0.0);
  } catch (...) {
    return Show_Text(ds, "Memory error", MK_WARNING,
                     "Memory for Jacobian matrix was not allocated\nbefore loading matrix.\nData "
                     "%d model %d",
                     mdata, n);
  }
  progress(ds, "Setting compressed Jacobian matrix - checking Jacobian file", 0.0);
  const int64_t size = File_Bytes(path);
  if (size < 0)
    return Show_Text(ds, "Jacobian File Error", MK_WARNING,
                     "Data compression routine error.\nCould not find the Jacobian file\n%s",
                     path.c_str());
  const int64_t expected = 4LL * mdata * n;
  if (size != expected)
    return Show_Text(ds, "File Size Check Jacobian", MK_WARNING,
                     "Different files sizes.\nExpected %lld.\nFound %lld\nNumber of data points "
                     "%d\nNumber of model cells %d\nFile name %s .",
                     static_cast<long long>(expected), static_cast<long long>(size), mdata, n,
                     path.c_str());
  progress(ds, "Creating compressed Jacobian matrix files", 0.0);
  const std::string &vpath = ds.file_names.temp[TF_GRADCOMP],
                    &ipath = ds.file_names.temp[TF_GRADCOMP_I];
  FILE *fin = std::fopen(path.c_str(), "rb");
  FILE *fval = std::fopen(vpath.c_str(), "wb");
  FILE *fidx = std::fopen(ipath.c_str(), "wb");
  auto close_all = [&]() {
    for (FILE *f : {fin, fval, fidx})
      if (f)
        std::fclose(f);
  };
  if (!fin || !fval || !fidx) {
    close_all();
    return Show_Text(ds, "File Error Message", MK_WARNING,
                     "Error in creating compressed Jacobian matrix files\n%s\n%s", vpath.c_str(),
                     ipath.c_str());
  }
  cj.numwave.assign(static_cast<size_t>(mdata) + 1, 0);
  cj.diag_l2.assign(n, 0.0);
  cj.diag_l1.assign(n, 0.0);
  if (w.first)
    std::fill(cj.cell_sum.begin(), cj.cell_sum.end(), 0.0f);
  const auto t0 = Clock::now();
  int ierr = 0;
  for (int r0 = 0; r0 < mdata && !ierr; r0 += w.num_buf) {
    const int nr = std::min(w.num_buf, mdata - r0);
    const double pct = 100.0 * r0 / mdata;
    Progress_Text(ds, pct / 100.0, "Compressing Jacobian Matrix %d/%d  %.2f%% R", r0, mdata, pct);
    if (Read_Whole(fin, block.data(), static_cast<int64_t>(nr) * n)) {
      ierr = Show_Text(ds, "Jacobian file read error", MK_WARNING,
                       "Jacobian file read error\n%s\nRows %d to %d of %d, model %d", path.c_str(),
                       r0 + 1, r0 + nr, mdata, n);
      break;
    }
    Progress_Text(ds, pct / 100.0, "Compressing Jacobian Matrix %.2f%% D", pct);
    ierr = Compress_Jacobian_File_Block_Inv(ds, cj, w, block.data(), r0, nr, wt, r1, fval, fidx);
  }
  close_all();
  if (ierr)
    return ierr;
  if (w.first)
    cj.sums_valid = 1;
  const double full = static_cast<double>(mdata) * n;
  cj.ratio = full > 0.0 ? cj.Total() / full : 0.0;
  cj.valid = 1;
  double lo = 0.0, hi = 0.0;
  if (n > 0) {
    const auto [a, b] = std::minmax_element(cj.diag_l2.begin(), cj.diag_l2.end());
    lo = *a;
    hi = *b;
  }
  TRACE("Compress_Jacobian_File_One_Inv wavelet arrays size %lld full Jacobian %lld ratio_cut "
        "%7.4f rate %.2f rd[] %8.5f %8.5f %8.5f diagonal %8.5f %8.5f\n",
        static_cast<long long>(cj.Total()), static_cast<long long>(full), cj.ratio,
        full * 4.0 / 1048576.0 / std::max(Seconds_Since(t0), 1e-9), wt ? wt[0] : 1.0,
        wt && mdata > 1 ? wt[mdata / 2] : 1.0, wt ? wt[mdata - 1] : 1.0, lo, hi);
  return 0;
}

int Compress_Jacobian_FileOne__Inv(Data_Set &ds) {
  LS_State &ls = ds.LS;
  const int m = ds.mdata;
  progress(ds, "Jacobian matrix data compression", 0.0);
  // The robust weights that the misfits of this model would give: with the
  // row weights they make the preconditioner's second diagonal.
  std::vector<float> r1(m);
  Calculate_Data_Weights(ls.ydiff.data(), m, 1, ds.LS_method.eps, r1.data());
  return Compress_Jacobian_File_One_Inv(ds, m, ds.file_names.temp[TF_GRROWT],
                                        ls.error_weight.data(), r1.data());
}

int Load_Compressed_Jacobian(Data_Set &ds, std::vector<float> &val, std::vector<int> &idx) {
  const Compressed_Jacobian &cj = ds.LS.wj;
  const int64_t total = cj.Total();
  try {
    val.resize(total);
    idx.resize(total);
  } catch (...) {
    return Show_Text(ds, "Error Message", MK_WARNING,
                     "Linear conjugate gradient method with wavelet\ncompression Insufficient "
                     "memory.\nCompressed Jacobian size is %lld\n",
                     static_cast<long long>(total));
  }
  const std::string *names[2] = {&ds.file_names.temp[TF_GRADCOMP],
                                 &ds.file_names.temp[TF_GRADCOMP_I]};
  for (int which = 0; which < 2; which++) {
    FILE *f = std::fopen(names[which]->c_str(), "rb");
    const int bad =
        !f || (which == 0 ? Read_Whole(f, val.data(), total) : Read_Whole(f, idx.data(), total));
    if (f)
      std::fclose(f);
    if (bad)
      return Show_Text(ds, "Error Message", MK_WARNING,
                       "Linear conjugate gradient method with wavelet\ncompression. Error %d in "
                       "reading compressed Jacobian file\n%s\n",
                       which + 1, names[which]->c_str());
  }
  return 0;
}

int gradlod(Data_Set &ds, const std::string &path, int64_t m, int64_t n, float *jac) {
  if (!jac)
    return Show_Text(ds, "Memory error", MK_WARNING,
                     "Memory for Jacobian matrix was not allocated\nbefore loading matrix.\nData "
                     "%d model %d",
                     static_cast<int>(m), static_cast<int>(n));
  const int64_t size = File_Bytes(path);
  if (size != 4 * m * n)
    return Show_Text(ds, "File opening error B", MK_WARNING,
                     "Error %d in Jacobian matrix file\n%s.\nFile size is %lld\nData %d model %d",
                     size < 0 ? 1 : 2, path.c_str(), static_cast<long long>(size),
                     static_cast<int>(m), static_cast<int>(n));
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f)
    return Show_Text(ds, "File read error", MK_WARNING, "Cannot open file\n%s", path.c_str());
  const int bad = Read_Whole(f, jac, m * n);
  std::fclose(f);
  if (bad)
    return Show_Text(ds, "Jacobian file read error", MK_WARNING,
                     "Jacobian file read error\n%s\nData %d model %d", path.c_str(),
                     static_cast<int>(m), static_cast<int>(n));
  return 0;
}

int Read_Jacobian_Change_Ordering(Data_Set &ds, const std::string &path, int64_t m, int64_t n,
                                  float *jac) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f)
    return Show_Text(ds, "Jacobian file error", MK_WARNING, "Error in opdening Jacobian file\n%s.",
                     path.c_str());
  const int64_t rows = Jacobian_Block_Rows(ds.ssd_cache, n, m, false);
  int ierr = 0;
  for (int64_t r0 = 0; r0 < m && !ierr; r0 += rows) {
    const int64_t nr = std::min(rows, m - r0);
    Progress_Text(ds, static_cast<double>(r0) / m, "Read Jacobian %.2f%%", 100.0 * r0 / m);
    if (Read_Whole(f, jac + r0 * n, nr * n))
      ierr =
          Show_Text(ds, "Jacobian file read error", MK_WARNING,
                    "Jacobian file read error\n%s\nRows %lld to %lld of %lld, model %lld",
                    path.c_str(), static_cast<long long>(r0 + 1), static_cast<long long>(r0 + nr),
                    static_cast<long long>(m), static_cast<long long>(n));
  }
  std::fclose(f);
  return ierr;
}
