// Numeric work of the block Cholesky solver: the left-looking supernodal
// factorisation (updates from descendants as dense products, the panel
// factorised in blocks) and the multi-column forward and back solves. The
// dense work goes through BLAS level 3; complex matrices are symmetric, so
// every transpose is a plain one (no conjugation).
#include <cblas.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <vector>

#include "forward/blkfct.h"

namespace {

using cf = std::complex<float>;
using cd = std::complex<double>;

CBLAS_TRANSPOSE Tr(bool t) {
  return t ? CblasTrans : CblasNoTrans;
}

// C = alpha op(A) op(B) + beta C, column-major.
void Gemm(bool ta, bool tb, int64_t m, int64_t n, int64_t k, float alpha, const float *a,
          int64_t lda, const float *b, int64_t ldb, float beta, float *c, int64_t ldc) {
  cblas_sgemm(CblasColMajor, Tr(ta), Tr(tb), m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
void Gemm(bool ta, bool tb, int64_t m, int64_t n, int64_t k, double alpha, const double *a,
          int64_t lda, const double *b, int64_t ldb, double beta, double *c, int64_t ldc) {
  cblas_dgemm(CblasColMajor, Tr(ta), Tr(tb), m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
void Gemm(bool ta, bool tb, int64_t m, int64_t n, int64_t k, cf alpha, const cf *a, int64_t lda,
          const cf *b, int64_t ldb, cf beta, cf *c, int64_t ldc) {
  cblas_cgemm(CblasColMajor, Tr(ta), Tr(tb), m, n, k, &alpha, a, lda, b, ldb, &beta, c, ldc);
}
void Gemm(bool ta, bool tb, int64_t m, int64_t n, int64_t k, cd alpha, const cd *a, int64_t lda,
          const cd *b, int64_t ldb, cd beta, cd *c, int64_t ldc) {
  cblas_zgemm(CblasColMajor, Tr(ta), Tr(tb), m, n, k, &alpha, a, lda, b, ldb, &beta, c, ldc);
}

// The lower triangle of C = alpha A A^T + beta C (A: n x k), column-major;
// complex matrices without conjugation.
void Syrk(int64_t n, int64_t k, float alpha, const float *a, int64_t lda, float beta, float *c,
          int64_t ldc) {
  cblas_ssyrk(CblasColMajor, CblasLower, CblasNoTrans, n, k, alpha, a, lda, beta, c, ldc);
}
void Syrk(int64_t n, int64_t k, double alpha, const double *a, int64_t lda, double beta, double *c,
          int64_t ldc) {
  cblas_dsyrk(CblasColMajor, CblasLower, CblasNoTrans, n, k, alpha, a, lda, beta, c, ldc);
}
void Syrk(int64_t n, int64_t k, cf alpha, const cf *a, int64_t lda, cf beta, cf *c, int64_t ldc) {
  cblas_csyrk(CblasColMajor, CblasLower, CblasNoTrans, n, k, &alpha, a, lda, &beta, c, ldc);
}
void Syrk(int64_t n, int64_t k, cd alpha, const cd *a, int64_t lda, cd beta, cd *c, int64_t ldc) {
  cblas_zsyrk(CblasColMajor, CblasLower, CblasNoTrans, n, k, &alpha, a, lda, &beta, c, ldc);
}

// Triangular solves with the lower triangle L of a diagonal block:
// right side B = B op(L)^-1, left side B = op(L)^-1 B.
void Trsm(bool right, bool trans, int64_t m, int64_t n, const float *l, int64_t ldl, float *b,
          int64_t ldb) {
  cblas_strsm(CblasColMajor, right ? CblasRight : CblasLeft, CblasLower, Tr(trans), CblasNonUnit, m,
              n, 1.0f, l, ldl, b, ldb);
}
void Trsm(bool right, bool trans, int64_t m, int64_t n, const double *l, int64_t ldl, double *b,
          int64_t ldb) {
  cblas_dtrsm(CblasColMajor, right ? CblasRight : CblasLeft, CblasLower, Tr(trans), CblasNonUnit, m,
              n, 1.0, l, ldl, b, ldb);
}
void Trsm(bool right, bool trans, int64_t m, int64_t n, const cf *l, int64_t ldl, cf *b,
          int64_t ldb) {
  const cf one(1.0f);
  cblas_ctrsm(CblasColMajor, right ? CblasRight : CblasLeft, CblasLower, Tr(trans), CblasNonUnit, m,
              n, &one, l, ldl, b, ldb);
}
void Trsm(bool right, bool trans, int64_t m, int64_t n, const cd *l, int64_t ldl, cd *b,
          int64_t ldb) {
  const cd one(1.0);
  cblas_ztrsm(CblasColMajor, right ? CblasRight : CblasLeft, CblasLower, Tr(trans), CblasNonUnit, m,
              n, &one, l, ldl, b, ldb);
}

// A pivot that cannot be taken: not positive (real) or zero (complex).
template <class T> bool Bad_Pivot(T d) {
  if constexpr (std::is_floating_point_v<T>)
    return !(d > T(0));
  else
    return !(std::abs(d) > 0) || !std::isfinite(std::abs(d));
}

constexpr int64_t panel_block = 64;
// Update blocks at least this wide make their symmetric part by SYRK.
constexpr int64_t syrk_columns = 64;

extern "C" {
void spotrf_(const char *uplo, const int *n, float *a, const int *lda, int *info);
void dpotrf_(const char *uplo, const int *n, double *a, const int *lda, int *info);
}

// The diagonal block of a real panel by LAPACK (blocked, level-3 inside);
// returns the failing column from 1, or 0.
int64_t Factor_Diagonal(float *d, int64_t w, int64_t ld) {
  const int n = static_cast<int>(w), lda = static_cast<int>(ld);
  int info = 0;
  spotrf_("L", &n, d, &lda, &info);
  return info;
}
int64_t Factor_Diagonal(double *d, int64_t w, int64_t ld) {
  const int n = static_cast<int>(w), lda = static_cast<int>(ld);
  int info = 0;
  dpotrf_("L", &n, d, &lda, &info);
  return info;
}

// Factorises the panel of one supernode in place (rows x w, leading
// dimension rows). Real: the diagonal block by LAPACK, then one triangular
// solve for the rows below. Complex symmetric (no conjugation, which
// LAPACK's Hermitian routines cannot do): blocks of columns, each with a
// small column kernel on its diagonal block, a triangular solve below and a
// product into the columns to its right. Returns the failing column from 1
// within the panel, or 0.
template <class T> int64_t Factor_Panel(T *p, int64_t rows, int64_t w) {
  if constexpr (std::is_floating_point_v<T>) {
    const int64_t bad = Factor_Diagonal(p, w, rows);
    if (bad)
      return bad;
    if (rows > w)
      Trsm(true, true, rows - w, w, p, rows, p + w, rows);
    return 0;
  }
  for (int64_t kb = 0; kb < w; kb += panel_block) {
    const int64_t nb = std::min(panel_block, w - kb);
    T *d = p + kb + kb * rows;
    for (int64_t c = 0; c < nb; c++) {
      T *col = d + c * rows;
      if (Bad_Pivot(col[c]))
        return kb + c + 1;
      const T root = std::sqrt(col[c]);
      col[c] = root;
      const T inv = T(1) / root;
      for (int64_t i = c + 1; i < nb; i++)
        col[i] *= inv;
      for (int64_t j = c + 1; j < nb; j++) {
        const T f = col[j];
        T *cj = d + j * rows;
        for (int64_t i = j; i < nb; i++)
          cj[i] -= col[i] * f;
      }
    }
    const int64_t below = rows - kb - nb;
    if (below > 0)
      Trsm(true, true, below, nb, d, rows, d + nb, rows);
    const int64_t right = w - kb - nb;
    if (right > 0 && below > 0)
      Gemm(false, true, below, right, nb, T(-1), d + nb, rows, d + nb, rows, T(1),
           d + nb + nb * rows, rows);
  }
  return 0;
}

// Work values that the largest update product needs.
int64_t Update_Work(const Blkfct &b) {
  int64_t most = 1;
  for (int64_t J = 0; J < b.nsuper; J++)
    for (int64_t u = b.xupd[J]; u < b.xupd[J + 1]; u++) {
      const int K = b.upd_snode[u];
      const int64_t p1 = b.upd_first[u], rows = b.Rows(K);
      int64_t p2 = p1;
      const int *rk = b.lindx.data() + b.xlindx[K];
      while (p2 < rows && b.snode[rk[p2]] == J)
        p2++;
      most = std::max(most, (rows - p1) * (p2 - p1));
    }
  return most;
}

// Fills `map` with the position of each of supernode J's rows.
void Map_Rows(const Blkfct &b, int64_t J, int *map) {
  const int *rj = b.lindx.data() + b.xlindx[J];
  for (int64_t k = 0; k < b.Rows(J); k++)
    map[rj[k]] = static_cast<int>(k);
}

// The updates of supernode J from every descendant that reaches it, for
// J's columns lo .. hi-1 (positions within J): a dense product for each
// descendant, subtracted through the row map. Column ranges of different
// calls touch different values.
template <class T>
void Update_Columns(const Blkfct &b, T *lnz, int64_t J, int64_t lo, int64_t hi, const int *map,
                    T *w) {
  const int64_t f = b.xsuper[J], rows = b.Rows(J);
  T *pj = lnz + b.xpanel[J];
  for (int64_t u = b.xupd[J]; u < b.xupd[J + 1]; u++) {
    const int K = b.upd_snode[u];
    const int64_t rk_n = b.Rows(K), wk = b.Width(K);
    const int *rk = b.lindx.data() + b.xlindx[K];
    int64_t p1 = b.upd_first[u];
    while (p1 < rk_n && b.snode[rk[p1]] == J && rk[p1] < f + lo)
      p1++;
    int64_t p2 = p1;
    while (p2 < rk_n && b.snode[rk[p2]] == J && rk[p2] < f + hi)
      p2++;
    if (p2 == p1)
      continue;
    const int64_t m = rk_n - p1, nn = p2 - p1;
    const T *pk = lnz + b.xpanel[K] + p1;
    // The top nn x nn block is symmetric: only its lower triangle is made
    // (half the products where the descendant's rows mostly lie in J).
    if (nn >= syrk_columns) {
      Syrk(nn, wk, T(1), pk, rk_n, T(0), w, m);
      if (m > nn)
        Gemm(false, true, m - nn, nn, wk, T(1), pk + nn, rk_n, pk, rk_n, T(0), w + nn, m);
    } else {
      Gemm(false, true, m, nn, wk, T(1), pk, rk_n, pk, rk_n, T(0), w, m);
    }
    for (int64_t c = 0; c < nn; c++) {
      T *dst = pj + (rk[p1 + c] - f) * rows;
      const T *src = w + c * m;
      for (int64_t r = c; r < m; r++)
        dst[map[rk[p1 + r]]] -= src[r];
    }
  }
}

// The left-looking step of supernode J on one thread: its updates, then its
// own panel. Returns the failing column from 1, or 0.
template <class T> int64_t Factor_Supernode(const Blkfct &b, T *lnz, int64_t J, int *map, T *w) {
  Map_Rows(b, J, map);
  Update_Columns(b, lnz, J, 0, b.Width(J), map, w);
  const int64_t bad = Factor_Panel(lnz + b.xpanel[J], b.Rows(J), b.Width(J));
  return bad ? b.xsuper[J] + bad : 0;
}

// The same for a large supernode with every thread: the updates split by
// columns of equal work, then the panel with the threads inside the kernels.
template <class T>
int64_t Factor_Supernode_Shared(const Blkfct &b, T *lnz, int64_t J, int *map,
                                std::vector<std::vector<T>> &w, int threads) {
  Map_Rows(b, J, map);
  const int64_t width = b.Width(J), rows = b.Rows(J);
  // Column boundaries: the work of a column falls with its position.
  std::vector<int64_t> edge(threads + 1, width);
  edge[0] = 0;
  double total = 0.0;
  for (int64_t c = 0; c < width; c++)
    total += static_cast<double>(rows - c);
  double acc = 0.0;
  int t = 1;
  for (int64_t c = 0; c < width && t < threads; c++) {
    acc += static_cast<double>(rows - c);
    if (acc >= total * t / threads)
      edge[t++] = c + 1;
  }
  Set_Blas_Threads(1);
#pragma omp parallel for num_threads(threads) schedule(static, 1)
  for (int k = 0; k < threads; k++)
    Update_Columns(b, lnz, J, edge[k], edge[k + 1], map, w[k].data());
  Set_Blas_Threads(threads);
  const int64_t bad = Factor_Panel(lnz + b.xpanel[J], rows, width);
  return bad ? b.xsuper[J] + bad : 0;
}

// Supernodes in each subtree (the subtree of J is the range ending at J).
std::vector<int64_t> Subtree_Sizes(const Blkfct &b, std::vector<double> &work) {
  std::vector<int64_t> size(b.nsuper, 1);
  work.assign(b.nsuper, 0.0);
  for (int64_t J = 0; J < b.nsuper; J++) {
    const double r = static_cast<double>(b.Rows(J));
    for (int64_t c = 0; c < b.Width(J); c++)
      work[J] += (r - c) * (r - c);
  }
  for (int64_t J = 0; J < b.nsuper; J++)
    if (b.sparent[J] >= 0) {
      size[b.sparent[J]] += size[J];
      work[b.sparent[J]] += work[J];
    }
  return size;
}

} // namespace

void Set_Blas_Threads(int threads) {
  openblas_set_num_threads(std::max(threads, 1));
}

template <class T> int64_t Blkfct_Factor(const Blkfct &b, T *lnz, int threads) {
  const int64_t n = b.neqns_ll;
  const int64_t wmax = Update_Work(b);
  threads = std::max(threads, 1);
  // Independent subtrees go to the threads with single-threaded kernels; the
  // supernodes above them (the large separators) follow in order with all
  // threads inside the kernels.
  std::vector<double> work;
  const std::vector<int64_t> size = Subtree_Sizes(b, work);
  double total = 0.0;
  std::vector<int64_t> subtrees, top;
  for (int64_t J = 0; J < b.nsuper; J++)
    if (b.sparent[J] < 0) {
      subtrees.push_back(J);
      total += work[J];
    }
  const double grain = total / (4.0 * threads);
  // One thread takes every tree whole.
  while (threads > 1) {
    auto big = std::max_element(subtrees.begin(), subtrees.end(),
                                [&](int64_t a, int64_t c) { return work[a] < work[c]; });
    if (big == subtrees.end() || work[*big] <= grain)
      break;
    const int64_t J = *big;
    subtrees.erase(big);
    top.push_back(J);
    for (int64_t C = J - 1; C >= J - size[J] + 1; C -= size[C])
      subtrees.push_back(C);
  }
  std::sort(subtrees.begin(), subtrees.end(),
            [&](int64_t a, int64_t c) { return work[a] > work[c]; });
  std::sort(top.begin(), top.end());

  std::atomic<int64_t> failed{0};
  if (!subtrees.empty()) {
    Set_Blas_Threads(1);
#pragma omp parallel num_threads(threads)
    {
      std::vector<int> map(n);
      std::vector<T> w(wmax);
#pragma omp for schedule(dynamic, 1)
      for (int64_t s = 0; s < static_cast<int64_t>(subtrees.size()); s++) {
        const int64_t R = subtrees[s];
        for (int64_t J = R - size[R] + 1; J <= R && failed.load() == 0; J++) {
          const int64_t bad = Factor_Supernode(b, lnz, J, map.data(), w.data());
          if (bad)
            failed.store(bad);
        }
      }
    }
  }
  Set_Blas_Threads(threads);
  if (failed.load())
    return failed.load();
  std::vector<int> map(n);
  std::vector<std::vector<T>> w(threads, std::vector<T>(wmax));
  for (int64_t J : top) {
    const int64_t bad = Factor_Supernode_Shared(b, lnz, J, map.data(), w, threads);
    if (bad)
      return bad;
  }
  return 0;
}

int64_t Blkfct_Solve_Work(const Blkfct &b, int nrhs) {
  int64_t most = 1;
  for (int64_t J = 0; J < b.nsuper; J++)
    most = std::max(most, b.Rows(J) - b.Width(J));
  return most * nrhs;
}

template <class T>
void Blkfct_Solve(const Blkfct &b, const T *lnz, T *x, int nr, T *work, char *active) {
  // x holds the columns row by row: row i's nr values at x + i * nr, so that
  // the block of a supernode's own rows is a column-major nr x w matrix and
  // each scattered row is nr contiguous values.
  const int64_t n = b.neqns_ll;
  std::fill(active, active + b.nsuper, 0);
  for (int64_t i = 0; i < n; i++) {
    const T *xi = x + i * nr;
    for (int c = 0; c < nr; c++)
      if (xi[c] != T(0)) {
        active[b.snode[i]] = 1;
        break;
      }
  }
  // Forward: L y = b, only along the paths from the non-zero rows.
  for (int64_t J = 0; J < b.nsuper; J++) {
    if (!active[J])
      continue;
    if (b.sparent[J] >= 0)
      active[b.sparent[J]] = 1;
    const int64_t f = b.xsuper[J], w = b.Width(J), rows = b.Rows(J), below = rows - w;
    const T *p = lnz + b.xpanel[J];
    T *xj = x + f * nr;
    Trsm(true, true, nr, w, p, rows, xj, nr);
    if (below == 0)
      continue;
    Gemm(false, true, nr, below, w, T(1), xj, nr, p + w, rows, T(0), work, nr);
    const int *ri = b.lindx.data() + b.xlindx[J] + w;
    for (int64_t r = 0; r < below; r++) {
      T *xr = x + static_cast<int64_t>(ri[r]) * nr;
      const T *wr = work + r * nr;
#pragma omp simd
      for (int c = 0; c < nr; c++)
        xr[c] -= wr[c];
    }
  }
  // Back: L^T x = y, every supernode.
  for (int64_t J = b.nsuper - 1; J >= 0; J--) {
    const int64_t f = b.xsuper[J], w = b.Width(J), rows = b.Rows(J), below = rows - w;
    const T *p = lnz + b.xpanel[J];
    T *xj = x + f * nr;
    if (below > 0) {
      const int *ri = b.lindx.data() + b.xlindx[J] + w;
      for (int64_t r = 0; r < below; r++)
        std::copy(x + static_cast<int64_t>(ri[r]) * nr, x + static_cast<int64_t>(ri[r] + 1) * nr,
                  work + r * nr);
      Gemm(false, false, nr, w, below, T(-1), work, nr, p + w, rows, T(1), xj, nr);
    }
    Trsm(true, false, nr, w, p, rows, xj, nr);
  }
}

template int64_t Blkfct_Factor<float>(const Blkfct &, float *, int);
template int64_t Blkfct_Factor<double>(const Blkfct &, double *, int);
template int64_t Blkfct_Factor<cf>(const Blkfct &, cf *, int);
template int64_t Blkfct_Factor<cd>(const Blkfct &, cd *, int);
template void Blkfct_Solve<float>(const Blkfct &, const float *, float *, int, float *, char *);
template void Blkfct_Solve<double>(const Blkfct &, const double *, double *, int, double *, char *);
template void Blkfct_Solve<cf>(const Blkfct &, const cf *, cf *, int, cf *, char *);
template void Blkfct_Solve<cd>(const Blkfct &, const cd *, cd *, int, cd *, char *);
