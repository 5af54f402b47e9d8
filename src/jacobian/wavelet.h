// The four-coefficient Daubechies wavelet transform of a Jacobian row, and
// the order of the model cells in such a row. Rows are 32-bit; the products
// are made in 64-bit arithmetic and stored as 32-bit again.
#pragma once

#include <cstdint>
#include <vector>

// The two implementations behind one interface: the plain loop ("C++" in
// the status words) and the vectorised one ("Asm"). They give identical
// results, bit for bit.
enum Wavelet_Impl : int { WAVELET_PLAIN = 0, WAVELET_VECTOR = 1 };

// The implementation the setting "Type of function for wavelet compression
// calculations" names: 1 the vectorised one, anything else the plain one.
inline int Wavelet_Impl_Of_Setting(int wavelet_function_type) {
  return wavelet_function_type == 1 ? WAVELET_VECTOR : WAVELET_PLAIN;
}

// The smallest power of two not below n (at least 1): a row's length in the
// wavelet domain.
int64_t Wavelet_Length(int64_t n);

// The pyramid transform of row[0..n2): forward (direction 0) from length n2
// down to 4, or its inverse (direction not 0) from 4 up to n2, with
// wrap-around at the end of each level. n2 a power of two; below 4 nothing
// changes. `work` holds n2 floats.
void Wavelet_Transform(float *row, int64_t n2, int direction, float *work, int impl);

// The word of the status line for an implementation: " C++" or " Asm".
const char *Wavelet_Impl_Word(int impl);

// Whether this processor runs the vectorised form (else it falls back to the
// plain one, with the same results).
bool Wavelet_Vector_Available();

// The snake order of the cells of an nx x ny x nz grid (cell numbers from 0,
// x fastest, then y, then layers): in the first layer the y rows rise, the
// first row runs left to right and every next row turns back; each next
// layer starts above the cell where the last one ended and runs its rows in
// the opposite y sense. Neighbours in the order are neighbours in the
// ground. perm[k] is the cell at position k.
void Snake_Permutation(int nx, int ny, int nz, std::vector<int> &perm);
