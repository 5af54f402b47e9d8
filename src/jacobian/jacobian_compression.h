// The Jacobian compressed row by row in the wavelet domain: each row is put
// in the snake order of the model cells, padded with zeros to the wavelet
// length n2, transformed, and only its coefficients above the cut-off share
// of the row's largest are kept. The value file holds the kept coefficients
// (32-bit floats) of all rows in row order, the index file their positions in
// the transformed row (32-bit, from 0), and numwave the start of each row.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

class Data_Set;

class Compressed_Jacobian {
public:
  int64_t n2 = 0;               // wavelet length of a row
  int nmodel = 0;               // cells of a row
  int mdata = 0;                // rows
  std::vector<int> perm;        // snake order: perm[k] is the cell at position k
  std::vector<int64_t> numwave; // mdata + 1 row starts, counted in values
  // Sums over the rows of the first iteration: |J| per cell.
  std::vector<float> cell_sum;
  int sums_valid = 0;
  // Diagonals of J^T W J per cell for the preconditioner, taken from the
  // weighted rows before their transform: W = 1 (least squares) and W = the
  // robust weights of the misfits the rows were compressed with.
  std::vector<double> diag_l2, diag_l1;
  int valid = 0;      // the files hold the rows of the present Jacobian
  double ratio = 0.0; // kept share of all coefficients
  int64_t Total() const { return numwave.empty() ? 0 : numwave.back(); }
  void Clear();
};

// n2 and the snake order of the model cells (the grid's x, y and layers;
// the cells in their own order where the grid is not a full box).
int Set_Wave_Model_Grid(Data_Set &ds);

// Rows compressed at once: the cache rule, at most half of the rows, at most
// 512 and at most 128 per thread.
int Compression_Block_Rows(double cache_gb, int64_t n2, int64_t m, int threads);

// The length of a row in the wavelet domain: the scatter vector of a row.
int64_t Max_Wavelet_Coefs(const Compressed_Jacobian &cj);

// Work of a compression run: the transformed rows of a block and the
// per-thread sums; `first` marks the run that gathers the per-cell sums.
struct Compression_Work {
  std::vector<float> rows;               // num_buf rows of n2 + 2
  std::vector<float> scratch;            // a work row of n2 per thread
  std::vector<float> rmax;               // largest |coefficient| of each row
  std::vector<int64_t> count;            // kept coefficients of each row
  std::vector<double> sum, sq_l2, sq_l1; // per thread x nmodel
  std::vector<float> out_val;            // a block's kept values
  std::vector<int> out_idx;              // and their positions
  int threads = 1, num_buf = 0, first = 0;
  int64_t written = 0;
};

// Compresses `nrows` rows in memory (nmodel floats each), rows first_row..
// of the Jacobian: each multiplied by its weight w[row] (null: 1), its
// robust weight r1[row] entering the second diagonal (null: 1), and appends
// them to the open value and index files. Returns 0, or 1 after its message.
int Compress_Jacobian_File_Block_Inv(Data_Set &ds, Compressed_Jacobian &cj, Compression_Work &work,
                                     const float *rows, int first_row, int nrows, const float *w,
                                     const float *r1, FILE *fval, FILE *fidx);

// The whole step for the Jacobian file `path` of `mdata` rows into the value
// and index files of the run. `w` the row weights, `r1` the robust weights
// (both may be null).
int Compress_Jacobian_File_One_Inv(Data_Set &ds, int mdata, const std::string &path, const float *w,
                                   const float *r1);

// The step of an inversion after each Jacobian: the row weights of the data
// and the robust weights of the present misfits, then the compression.
int Compress_Jacobian_FileOne__Inv(Data_Set &ds);

// Reads the whole value and index files of the run into memory.
int Load_Compressed_Jacobian(Data_Set &ds, std::vector<float> &val, std::vector<int> &idx);

// A wavelet-domain row (n2 floats) back to model order: inverse transform,
// then out[perm[k]] = row[k] for the nmodel cells. `row` is overwritten.
void Wavelet_Row_To_Model(const Compressed_Jacobian &cj, float *row, float *work, int impl,
                          float *out);
// A model-order vector into the wavelet domain: permuted, padded, forward.
void Model_To_Wavelet_Row(const Compressed_Jacobian &cj, const float *in, float *row, float *work,
                          int impl);

// The whole Jacobian file (m rows of n) into `jac`.
int gradlod(Data_Set &ds, const std::string &path, int64_t m, int64_t n, float *jac);
// The Jacobian file read in row blocks into `jac` (n x m, column-major: the
// rows as columns, the form of the normal-equation products).
int Read_Jacobian_Change_Ordering(Data_Set &ds, const std::string &path, int64_t m, int64_t n,
                                  float *jac);
