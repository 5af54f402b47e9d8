// Large arrays come in whole zero-filled, page-aligned blocks straight from
// the kernel (mmap), never from the heap, and go back at once when freed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

class Data_Set;

// A block of `bytes` zero-filled bytes, page-aligned; nullptr on failure.
void *Allocate_Block(int64_t bytes);
// Returns a block from Allocate_Block (nullptr is allowed).
void Free_Block(void *p);
// Size in bytes of a block from Allocate_Block.
int64_t Block_Size(const void *p);

// Shows the memory message naming the array and the amount; returns 1.
int Report_Allocation_Failure(Data_Set &ds, const char *name, int64_t bytes);

// Allocates `n` values of T for the array `name`; on failure shows the memory
// message naming the array and the amount, and returns 1.
template <class T> int Allocate_Values(Data_Set &ds, T *&p, int64_t n, const char *name) {
  const int64_t bytes = (n > 0 ? n : 1) * static_cast<int64_t>(sizeof(T));
  p = static_cast<T *>(Allocate_Block(bytes));
  return p ? 0 : Report_Allocation_Failure(ds, name, bytes);
}

// Grows p from `old_n` to `new_n` values of T, the first old_n kept (the
// rest zero); on failure p stays as it was and the memory message names the
// array. Returns 0 or 1.
template <class T>
int Grow_Values(Data_Set &ds, T *&p, int64_t old_n, int64_t new_n, const char *name) {
  if (new_n <= old_n && p)
    return 0;
  T *q = nullptr;
  if (Allocate_Values(ds, q, new_n, name))
    return 1;
  if (p && old_n > 0)
    std::memcpy(static_cast<void *>(q), static_cast<const void *>(p),
                static_cast<size_t>(old_n) * sizeof(T));
  Free_Block(p);
  p = q;
  return 0;
}

template <class T> void Free_Values(T *&p) {
  Free_Block(p);
  p = nullptr;
}

// Physical memory of the computer: total and available now, in bytes.
int64_t Total_Memory_Bytes();
int64_t Available_Memory_Bytes();
// The process's address-space limit (ulimit -v) in bytes, -1 without one,
// and the address space it holds now.
int64_t Address_Space_Limit();
int64_t Address_Space_Used();

// An owned array in one block: Resize gives a fresh zero-filled block of
// `count` values (the old one goes back), the destructor frees it.
template <class T> class Block_Array {
public:
  Block_Array() = default;
  Block_Array(const Block_Array &) = delete;
  Block_Array &operator=(const Block_Array &) = delete;
  ~Block_Array() { Free(); }

  int Resize(Data_Set &ds, int64_t count, const char *name) {
    Free();
    if (Allocate_Values(ds, p_, count, name))
      return 1;
    n_ = count;
    return 0;
  }
  void Free() {
    Free_Values(p_);
    n_ = 0;
  }
  T *data() { return p_; }
  const T *data() const { return p_; }
  int64_t size() const { return n_; }
  T &operator[](int64_t i) { return p_[i]; }
  const T &operator[](int64_t i) const { return p_[i]; }

private:
  T *p_ = nullptr;
  int64_t n_ = 0;
};
