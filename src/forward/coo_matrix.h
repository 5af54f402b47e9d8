// The capacitance matrix: assembled in a row store of fixed capacity
// (upper triangle, row = smaller node), then compacted to compressed rows
// through a file so that the two forms are never in memory together.
#pragma once

#include <cstdint>
#include <string>

#include "core/memory.h"

class Data_Set;

class CooMatrix64 {
public:
  static constexpr int num_diags = 36; // entries a row

  int64_t n = 0; // equations
  int nx = 0, ny = 0, nz = 0;
  int cmplx = 0; // complex values (ipcmplx)
  int mtype = 2; // 2 real symmetric positive definite, 6 complex symmetric

  // Assembly store: rows num_diags apart, columns from 1, values in double
  // (pairs when complex).
  Block_Array<int64_t> row_count, coo_col;
  Block_Array<double> coo_val;
  int overflow = 0;

  // Compressed rows after the conversion: ia (n + 1, from 1), ja (from 1),
  // single-precision values (pairs when complex) for the factorisation and
  // their double-precision originals for the residuals of the refinement.
  int64_t count = 0;
  Block_Array<int64_t> ia, ja;
  Block_Array<float> a;
  Block_Array<double> ad;
  Block_Array<int64_t> perm; // 1 to n
  int64_t max_adj = 0;       // largest row length times 2

  // Allocates the store for `neq` equations; 1 on failure (message shown).
  int Allocate_COO(Data_Set &ds, int64_t neq, int complex_values);
  void Free_COO();
  void Free_CSR();
  // Adds (vr, vi) at (row, col), both from 1, in either order. 0 on success,
  // 1 when a node is out of range or the row is full (overflow set).
  int add(int64_t r, int64_t c, double vr, double vi) {
    if (r > c) {
      const int64_t t = r;
      r = c;
      c = t;
    }
    if (r < 1 || c > n)
      return 1;
    const int64_t base = (r - 1) * num_diags;
    int64_t &cnt = row_count[r - 1];
    int64_t *cols = coo_col.data() + base;
    int64_t s = 0;
    while (s < cnt && cols[s] != c)
      s++;
    if (s == cnt) {
      if (cnt == num_diags) {
        overflow = 1;
        return 1;
      }
      cols[s] = c;
      cnt++;
    }
    if (cmplx) {
      coo_val[2 * (base + s)] += vr;
      coo_val[2 * (base + s) + 1] += vi;
    } else {
      coo_val[base + s] += vr;
    }
    return 0;
  }
  // Sorts and compacts the rows, sets ia and count, writes the compressed
  // matrix to `path` and releases the store, then takes the exact arrays.
  int COO_to_CSR_Fix(Data_Set &ds, const std::string &path);
  // Reads the compressed matrix back from `path`; sets max_adj.
  int Get_CSR(Data_Set &ds, const std::string &path);
  // Full symmetric graph without the diagonal, 32-bit from 1, rows of at
  // most `capacity` neighbours: xadj (n + 1) and adjncy. Returns the largest
  // row length, or -1 when a row passes `capacity`.
  int64_t Set_Adjacency_From_CSR(int64_t capacity, int *xadj, int *adjncy) const;
};
