#include "forward/coo_matrix.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "survey/survey_text.h"

int CooMatrix64::Allocate_COO(Data_Set &ds, int64_t neq, int complex_values) {
  n = neq;
  cmplx = complex_values;
  mtype = cmplx ? 6 : 2;
  overflow = 0;
  count = 0;
  Free_CSR();
  const int64_t slots = n * (num_diags + 1);
  if (row_count.Resize(ds, n, "row counts") || coo_col.Resize(ds, slots, "matrix columns") ||
      coo_val.Resize(ds, slots * (cmplx ? 2 : 1), "matrix values"))
    return 1;
  return 0;
}

void CooMatrix64::Free_COO() {
  row_count.Free();
  coo_col.Free();
  coo_val.Free();
}

void CooMatrix64::Free_CSR() {
  ia.Free();
  ja.Free();
  a.Free();
  ad.Free();
  perm.Free();
}

namespace {

// The compressed matrix goes to its file in 64 pieces and a remainder.
template <class T> int Pieces(FILE *f, T *p, int64_t total, bool write) {
  const int64_t piece = total / 64;
  int64_t done = 0;
  auto move = [&](int64_t m) {
    if (m <= 0)
      return true;
    const size_t r =
        write ? std::fwrite(p + done, sizeof(T), m, f) : std::fread(p + done, sizeof(T), m, f);
    done += m;
    return static_cast<int64_t>(r) == m;
  };
  bool ok = true;
  for (int i = 0; i < 64 && ok; i++)
    ok = move(piece);
  return ok && move(total - done) ? 0 : 1;
}

} // namespace

int CooMatrix64::COO_to_CSR_Fix(Data_Set &ds, const std::string &path) {
  const int vw = cmplx ? 2 : 1;
  // Rows compacted in place: each row sorted by column, equal columns merged,
  // and moved down to the next free slot of the whole store.
  int64_t next = 0;
  std::vector<int> idx(num_diags);
  std::vector<int64_t> cols(num_diags);
  std::vector<double> vals(num_diags * 2);
  for (int64_t r = 0; r < n; r++) {
    const int64_t base = r * num_diags, cnt = row_count[r];
    for (int64_t s = 0; s < cnt; s++) {
      cols[s] = coo_col[base + s];
      for (int w = 0; w < vw; w++)
        vals[s * vw + w] = coo_val[(base + s) * vw + w];
    }
    std::iota(idx.begin(), idx.begin() + cnt, 0);
    std::stable_sort(idx.begin(), idx.begin() + cnt,
                     [&](int p, int q) { return cols[p] < cols[q]; });
    int64_t kept = 0;
    for (int64_t s = 0; s < cnt; s++) {
      const int src = idx[s];
      if (kept > 0 && coo_col[next + kept - 1] == cols[src]) {
        for (int w = 0; w < vw; w++)
          coo_val[(next + kept - 1) * vw + w] += vals[src * vw + w];
        continue;
      }
      coo_col[next + kept] = cols[src];
      for (int w = 0; w < vw; w++)
        coo_val[(next + kept) * vw + w] = vals[src * vw + w];
      kept++;
    }
    row_count[r] = kept;
    next += kept;
  }
  count = next;
  if (ia.Resize(ds, n + 1, "ia"))
    return 1;
  ia[0] = 1;
  for (int64_t r = 0; r < n; r++)
    ia[r + 1] = ia[r] + row_count[r];

  progress(ds, "Save CSR..", 0.0);
  FILE *f = std::fopen(path.c_str(), "wb");
  if (!f) {
    Show_Text(ds, "Message", MK_WARNING, "Unable to create the file %s", path.c_str());
    return 1;
  }
  const int32_t n32 = static_cast<int32_t>(n);
  errno = 0;
  int err = std::fwrite(&n32, 4, 1, f) != 1 || std::fwrite(&count, 8, 1, f) != 1;
  err += Pieces(f, ia.data(), n + 1, true);
  err += Pieces(f, coo_col.data(), count, true);
  err += Pieces(f, coo_val.data(), count * vw, true);
  err += std::fclose(f) != 0;
  const int why = errno;
  progress(ds, "Release arrays MUMPS..", 0.0);
  Free_COO();
  if (err) {
    Show_Text(ds, "Message", MK_WARNING, "Error in writing the file %s%s", path.c_str(),
              Os_Error_Text(why).c_str());
    return 1;
  }
  progress(ds, "Setting up ss mesh matrix memory..", 0.0);
  if (ja.Resize(ds, count, "ja") || a.Resize(ds, count * vw, "matrix values") ||
      ad.Resize(ds, count * vw, "matrix values double") || perm.Resize(ds, n, "perm"))
    return 1;
  for (int64_t i = 0; i < n; i++)
    perm[i] = i + 1;
  return 0;
}

int CooMatrix64::Get_CSR(Data_Set &ds, const std::string &path) {
  const int vw = cmplx ? 2 : 1;
  FILE *f = std::fopen(path.c_str(), "rb");
  int32_t n32 = 0;
  int64_t c = 0;
  int err = !f || std::fread(&n32, 4, 1, f) != 1 || std::fread(&c, 8, 1, f) != 1 || n32 != n ||
            c != count;
  if (!err) {
    err += Pieces(f, ia.data(), n + 1, false);
    err += Pieces(f, ja.data(), count, false);
    err += Pieces(f, ad.data(), count * vw, false);
  }
  if (f)
    std::fclose(f);
  std::remove(path.c_str());
  if (err) {
    Show_Text(ds, "Message", MK_WARNING, "Error in reading the file %s", path.c_str());
    return 1;
  }
  int64_t longest = 0;
  for (int64_t r = 0; r < n; r++)
    longest = std::max(longest, ia[r + 1] - ia[r]);
  max_adj = 2 * longest;
#pragma omp parallel for schedule(static)
  for (int64_t k = 0; k < count * vw; k++)
    a[k] = static_cast<float>(ad[k]);
  return 0;
}

int64_t CooMatrix64::Set_Adjacency_From_CSR(int64_t capacity, int *xadj, int *adjncy) const {
  // Row lengths of the full graph first, then the rows filled in place.
  std::vector<int64_t> len(n, 0);
  for (int64_t r = 0; r < n; r++)
    for (int64_t k = ia[r] - 1; k < ia[r + 1] - 1; k++) {
      const int64_t c = ja[k] - 1;
      if (c != r) {
        len[r]++;
        len[c]++;
      }
    }
  const int64_t longest = n > 0 ? *std::max_element(len.begin(), len.end()) : 0;
  TRACE("node max adjncy values %d\n", static_cast<int>(longest));
  if (longest > capacity)
    return -1;
  xadj[0] = 1;
  for (int64_t r = 0; r < n; r++)
    xadj[r + 1] = xadj[r] + static_cast<int>(len[r]);
  std::vector<int64_t> fill(n, 0);
  for (int64_t r = 0; r < n; r++)
    for (int64_t k = ia[r] - 1; k < ia[r + 1] - 1; k++) {
      const int64_t c = ja[k] - 1;
      if (c == r)
        continue;
      adjncy[xadj[r] - 1 + fill[r]++] = static_cast<int>(c + 1);
      adjncy[xadj[c] - 1 + fill[c]++] = static_cast<int>(r + 1);
    }
  return longest;
}
