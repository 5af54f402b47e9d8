// The block sparse Cholesky solver: the structure of the factor by
// supernodes (symbolic factorisation), the numeric factorisation of a real
// symmetric positive definite or a complex symmetric matrix (L L^T, no
// conjugation), and solves of many right-hand sides at once.
//
// Supernode J holds columns xsuper[J] .. xsuper[J+1]-1 of the permuted
// matrix; its rows are lindx[xlindx[J] .. xlindx[J+1]-1] (from 0, its own
// columns first, ascending). Its values are a dense column-major panel of
// rows x width at lnz + xpanel[J]; column j starts at Column_Start(j), its
// diagonal.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

class Data_Set;
class CooMatrix64;

struct Blkfct {
  int64_t neqns_ll = 0; // equations
  int64_t nnza = 0;     // off-diagonal entries of the input graph (both triangles)
  int64_t nofnz = 0;    // entries of the factor (lower trapezoids of the panels)
  int64_t nofsub = 0;   // entries of lindx
  int64_t nsuper = 0;   // supernodes
  int64_t panel_values =
      0;              // values of all panels (nofnz plus the upper parts of the diagonal blocks)
  double flops = 0.0; // multiply-adds of the factorisation, times 2

  std::vector<int> perm, invp; // perm[new] = old, invp[old] = new, both from 1
  std::vector<int> lindx;      // rows are below 2^31: the graph is 32-bit
  std::vector<int64_t> xlindx, xsuper, xpanel;
  std::vector<int> snode;   // supernode of each column
  std::vector<int> sparent; // parent supernode, -1 at a root

  // Updates: supernode J receives from the supernodes upd[xupd[J] ..
  // xupd[J+1]-1], each with the position in its row list of its first row
  // inside J.
  std::vector<int64_t> xupd;
  std::vector<int> upd_snode;
  std::vector<int> upd_first;

  int relax = 1; // amalgamate small supernodes where the added zeros stay few

  int64_t Rows(int64_t J) const { return xlindx[J + 1] - xlindx[J]; }
  int64_t Width(int64_t J) const { return xsuper[J + 1] - xsuper[J]; }
  // Where column j's values start in the factor (its diagonal entry).
  int64_t Column_Start(int64_t j) const {
    const int64_t J = snode[j], c = j - xsuper[J];
    return xpanel[J] + c * Rows(J) + c;
  }

  // From the graph (xadj, adjncy from 1, both triangles, no diagonal) and
  // a fill-reducing order (perm, invp from 1): the postordered order, the
  // supernodes and their structure. Returns 0, or 1 when memory runs out.
  int Symbolic_Factorization(int64_t n, const int *xadj, const int *adjncy, const int *perm_in,
                             const int *invp_in);
  void Free();
};

// The fill-reducing order of a graph by METIS nested dissection; perm and
// invp from 1. Returns 0 or METIS's error code.
int mnd_adj(const int *xadj, const int *adjncy, int n, int *perm, int *invp);

// Numeric factorisation of the panels in place (values already copied in).
// Returns 0, or the column (from 1) whose pivot failed.
template <class T> int64_t Blkfct_Factor(const Blkfct &b, T *lnz, int threads);

// Solves L L^T x = b for nrhs columns held in permuted order, row by row
// (row i's nrhs values together), with single-threaded kernels. The forward solve visits only
// the supernodes on the paths from the right-hand sides' non-zero rows to
// the root. `work` holds Blkfct_Solve_Work values, `active` nsuper bytes.
template <class T>
void Blkfct_Solve(const Blkfct &b, const T *lnz, T *x, int nrhs, T *work, char *active);
int64_t Blkfct_Solve_Work(const Blkfct &b, int nrhs);

// The upper triangle of the CSR matrix (double values) scattered into the
// permuted panels; returns the entries that found no place.
template <class T> int64_t Copy_Cap_Matrix_Blkfct(const Blkfct &b, const CooMatrix64 &m, T *lnz);

// BLAS threads for the calls that follow (OpenBLAS's own pool).
void Set_Blas_Threads(int threads);
