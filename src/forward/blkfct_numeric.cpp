// Numeric work of the block Cholesky solver: the left-looking supernodal
// factorisation (updates from descendants as dense products, each panel
// factorised by halves down to a small column kernel) and the multi-column
// forward and back solves. The dense work goes through BLAS level 3 on
// OpenMP's threads; complex matrices are symmetric, so every transpose is a
// plain one (no conjugation).
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

// Panels up to this wide are factorised by the column kernels; wider ones
// are halved (recursively), so that most of the work is a few large
// products.
constexpr int64_t panel_base = 32;
// Below the diagonal block, columns of base panels up to this wide are
// solved in place; wider ones multiply by the inverse of the block.
constexpr int64_t inverse_columns = 12;
// Update blocks at least this wide make their symmetric part by SYRK.
constexpr int64_t syrk_columns = 64;

// Threads worth starting for `work` multiply-adds: none below half a
// million.
int Parts_For(int64_t work, int threads) {
  return work < (int64_t(1) << 19) ? 1 : threads;
}

// Column boundaries that split a lower trapezoid of `rows` rows and `cols`
// columns into `parts` ranges of equal work (a column's work falls with
// its position).
std::vector<int64_t> Split_Columns(int64_t rows, int64_t cols, int parts) {
  std::vector<int64_t> edge(parts + 1, cols);
  edge[0] = 0;
  double total = 0.0;
  for (int64_t c = 0; c < cols; c++)
    total += static_cast<double>(rows - c);
  double acc = 0.0;
  int t = 1;
  for (int64_t c = 0; c < cols && t < parts; c++) {
    acc += static_cast<double>(rows - c);
    if (acc >= total * t / parts)
      edge[t++] = c + 1;
  }
  return edge;
}

// Columns lo .. hi-1 of the lower trapezoid C (rows x cols) set to
// alpha A A^T + beta C (A: rows x k): SYRK on their diagonal block, a GEMM
// below it.
template <class T>
void Update_Trapezoid(T *c, int64_t ldc, const T *a, int64_t lda, int64_t rows, int64_t k,
                      int64_t lo, int64_t hi, T alpha = T(-1), T beta = T(1)) {
  const int64_t nc = hi - lo;
  if (nc <= 0)
    return;
  Syrk(nc, k, alpha, a + lo, lda, beta, c + lo + lo * ldc, ldc);
  if (rows > hi)
    Gemm(false, true, rows - hi, nc, k, alpha, a + hi, lda, a + lo, lda, beta, c + hi + lo * ldc,
         ldc);
}

// A descendant's product for its first nn rows (pk: m x wk, leading
// dimension ldk) into C (m x nn, leading dimension ldc) as alpha P P^T +
// beta C: wide blocks make only the lower triangle of their top nn x nn
// block (half the products where the descendant's rows mostly lie in the
// target); narrow ones one GEMM over the whole block.
template <class T>
void Descendant_Product(const T *pk, int64_t ldk, int64_t m, int64_t nn, int64_t wk, T alpha,
                        T beta, T *c, int64_t ldc) {
  if (nn >= syrk_columns)
    Update_Trapezoid(c, ldc, pk, ldk, m, wk, 0, nn, alpha, beta);
  else
    Gemm(false, true, m, nn, wk, alpha, pk, ldk, pk, ldk, beta, c, ldc);
}

// y = y - f x over n values.
template <class T> void Subtract_Scaled(T *y, const T *x, T f, int64_t n) {
#pragma omp simd
  for (int64_t i = 0; i < n; i++)
    y[i] -= x[i] * f;
}

// The Cholesky factor of the n x n lower triangle at d (leading dimension
// ld), in place, column by column (left-looking). Returns the failing
// column from 1, or 0.
template <class T> int64_t Factor_Block(T *d, int64_t n, int64_t ld) {
  for (int64_t c = 0; c < n; c++) {
    T *col = d + c * ld;
    for (int64_t k = 0; k < c; k++)
      Subtract_Scaled(col + c, d + k * ld + c, d[c + k * ld], n - c);
    if (Bad_Pivot(col[c]))
      return c + 1;
    const T root = std::sqrt(col[c]);
    col[c] = root;
    const T inv = T(1) / root;
#pragma omp simd
    for (int64_t i = c + 1; i < n; i++)
      col[i] *= inv;
  }
  return 0;
}

// The inverse of the n x n lower triangle at l (leading dimension ld) into
// v (n x n, zeros above the diagonal).
template <class T> void Invert_Lower(const T *l, int64_t n, int64_t ld, T *v) {
  std::fill(v, v + n * n, T(0));
  for (int64_t j = 0; j < n; j++) {
    T *vj = v + j * n;
    vj[j] = T(1);
    for (int64_t k = j; k < n; k++) {
      vj[k] /= l[k + k * ld];
      Subtract_Scaled(vj + k + 1, l + k * ld + k + 1, vj[k], n - k - 1);
    }
  }
}

// B = B L^-T for the m x n block B (leading dimension ld) and the factored
// n x n diagonal block L above it: narrow blocks by substitution along the
// columns, wider ones as a product with the inverse (OpenBLAS's triangular
// solves run far below its products), the rows shared among `threads`.
// `work` holds m * n + n * n values.
template <class T>
void Solve_Below(const T *l, T *bb, int64_t m, int64_t n, int64_t ld, T *work, int threads) {
  if (n <= inverse_columns) {
    for (int64_t j = 0; j < n; j++) {
      T *bj = bb + j * ld;
      for (int64_t k = 0; k < j; k++)
        Subtract_Scaled(bj, bb + k * ld, l[j + k * ld], m);
      const T inv = T(1) / l[j + j * ld];
#pragma omp simd
      for (int64_t i = 0; i < m; i++)
        bj[i] *= inv;
    }
    return;
  }
  T *copy = work, *v = work + m * n;
  Invert_Lower(l, n, ld, v);
  const int parts = Parts_For(m * n * n, threads);
#pragma omp parallel for num_threads(parts) if (parts > 1)
  for (int k = 0; k < parts; k++) {
    const int64_t r0 = m * k / parts, r1 = m * (k + 1) / parts;
    for (int64_t c = 0; c < n; c++)
      std::copy(bb + c * ld + r0, bb + c * ld + r1, copy + c * m + r0);
    Gemm(false, true, r1 - r0, n, n, T(1), copy + r0, m, v, n, T(0), bb + r0, ld);
  }
}

// Factorises the panel of rows x w at p (leading dimension ld) in place:
// L L^T of the diagonal block and the rows below solved against it, for
// real and complex symmetric matrices alike (no conjugation). Wide panels
// split in two halves: the left half, its product into the right half,
// then the right half; `threads` share the products. Returns the failing
// column from 1 within the panel, or 0.
template <class T>
int64_t Factor_Panel(T *p, int64_t rows, int64_t w, int64_t ld, T *work, int threads) {
  if (w <= panel_base) {
    const int64_t bad = Factor_Block(p, w, ld);
    if (bad == 0 && rows > w)
      Solve_Below(p, p + w, rows - w, w, ld, work, threads);
    return bad;
  }
  const int64_t w1 = (w / 2 + 15) / 16 * 16, w2 = w - w1;
  const int64_t bad = Factor_Panel(p, rows, w1, ld, work, threads);
  if (bad)
    return bad;
  const T *l = p + w1;
  T *c = p + w1 + w1 * ld;
  const int64_t below = rows - w1;
  const int parts = Parts_For(below * w2 * w1, threads);
  if (parts == 1) {
    Update_Trapezoid(c, ld, l, ld, below, w1, 0, w2);
  } else {
    const std::vector<int64_t> edge = Split_Columns(below, w2, parts);
#pragma omp parallel for num_threads(parts)
    for (int k = 0; k < parts; k++)
      Update_Trapezoid(c, ld, l, ld, below, w1, edge[k], edge[k + 1]);
  }
  const int64_t bad2 = Factor_Panel(c, below, w2, ld, work, threads);
  return bad2 ? w1 + bad2 : 0;
}

// Values of the panel factorisation's work space for panels of up to
// `rows` rows.
int64_t Panel_Work(int64_t rows) {
  return rows * panel_base + panel_base * panel_base;
}

// Work values that the largest update product, or the largest panel, needs.
int64_t Update_Work(const Blkfct &b) {
  int64_t most = 1;
  for (int64_t J = 0; J < b.nsuper; J++) {
    most = std::max(most, Panel_Work(b.Rows(J)));
    for (int64_t u = b.xupd[J]; u < b.xupd[J + 1]; u++) {
      const int K = b.upd_snode[u];
      const int64_t p1 = b.upd_first[u], rows = b.Rows(K);
      int64_t p2 = p1;
      const int *rk = b.lindx.data() + b.xlindx[K];
      while (p2 < rows && b.snode[rk[p2]] == J)
        p2++;
      // The product, then the row positions (an int fits in a value).
      most = std::max(most, (rows - p1) * (p2 - p1 + 1));
    }
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
    const int *rows_k = rk + p1;
    // Where the descendant's rows all lie next to each other in J, the
    // product goes straight into J's panel.
    if (map[rows_k[m - 1]] - map[rows_k[0]] == m - 1) {
      Descendant_Product(pk, rk_n, m, nn, wk, T(-1), T(1),
                         pj + map[rows_k[0]] + (rows_k[0] - f) * rows, rows);
      continue;
    }
    Descendant_Product(pk, rk_n, m, nn, wk, T(1), T(0), w, m);
    int *at = reinterpret_cast<int *>(w + m * nn);
    for (int64_t r = 0; r < m; r++)
      at[r] = map[rows_k[r]];
    for (int64_t c = 0; c < nn; c++) {
      T *dst = pj + (rows_k[c] - f) * rows;
      const T *src = w + c * m;
      for (int64_t r = c; r < m; r++)
        dst[at[r]] -= src[r];
    }
  }
}

// The left-looking step of supernode J on one thread: its updates, then its
// own panel (`w` serves both). Returns the failing column from 1, or 0.
template <class T> int64_t Factor_Supernode(const Blkfct &b, T *lnz, int64_t J, int *map, T *w) {
  Map_Rows(b, J, map);
  Update_Columns(b, lnz, J, 0, b.Width(J), map, w);
  const int64_t bad = Factor_Panel(lnz + b.xpanel[J], b.Rows(J), b.Width(J), b.Rows(J), w, 1);
  return bad ? b.xsuper[J] + bad : 0;
}

// The same for a large supernode with every thread: the updates split by
// columns of equal work, then the panel with its products shared.
template <class T>
int64_t Factor_Supernode_Shared(const Blkfct &b, T *lnz, int64_t J, int *map,
                                std::vector<std::vector<T>> &w, int threads) {
  Map_Rows(b, J, map);
  const int64_t width = b.Width(J), rows = b.Rows(J);
  const std::vector<int64_t> edge = Split_Columns(rows, width, threads);
#pragma omp parallel for num_threads(threads) schedule(static, 1)
  for (int k = 0; k < threads; k++)
    Update_Columns(b, lnz, J, edge[k], edge[k + 1], map, w[k].data());
  const int64_t bad = Factor_Panel(lnz + b.xpanel[J], rows, width, rows, w[0].data(), threads);
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

  // Every BLAS call below runs on one thread: the threads are OpenMP's
  // alone (a second pool would contend with it for the cores).
  Set_Blas_Threads(1);
  std::atomic<int64_t> failed{0};
  if (!subtrees.empty()) {
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
  if (failed.load() == 0) {
    std::vector<int> map(n);
    std::vector<std::vector<T>> w(threads, std::vector<T>(wmax));
    for (int64_t J : top) {
      const int64_t bad = Factor_Supernode_Shared(b, lnz, J, map.data(), w, threads);
      if (bad) {
        failed.store(bad);
        break;
      }
    }
  }
  Set_Blas_Threads(threads);
  return failed.load();
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
