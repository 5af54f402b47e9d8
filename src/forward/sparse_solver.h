// The sparse solvers behind the source driver. A solver is a struct of
// function pointers over its own state: it analyses the capacitance
// matrix's pattern in a given fill-reducing order, factorises the values
// and solves blocks of right-hand-side columns in place. The driver
// (Solve_Sources) owns everything else: the sources and their batches, the
// right-hand sides, the refinement in double precision against the
// assembled matrix, the stored potentials and fields, the timings and the
// messages, so every mode that solves sources on a new matrix goes through
// one path whichever solver serves it.
//
// Columns are in node order (equation i of the matrix at position i, from
// 0), n values each, one after the other; a complex run holds (re, im)
// pairs of floats. The solvers are free of the application object.
#pragma once

#include <cstdint>

class CooMatrix64;
class Data_Set;

enum Solver_Kind : int {
  solver_mumps = 0,   // MUMPS, single precision (double on request)
  solver_block = 1,   // the generic block solver (own supernodal Cholesky)
  solver_cholmod = 2, // CHOLMOD, double precision, real matrices only
  solver_kinds = 3
};

// What a solve did: filled by the driver and the solver, kept in Fem_State
// for the trace, the benchmarks and the tests. Times in seconds.
struct Solver_Report {
  const char *name = "";
  int kind = solver_mumps;
  int64_t n = 0;
  int batch = 0;       // right-hand sides the driver gives the solver together
  int block_width = 0; // block solver: columns each thread solves at once
  int64_t factor_entries = 0;
  double factor_flops = 0.0; // flops of the factorisation (a multiply-add is 2)
  int64_t memory_bytes = 0;  // the factorisation's memory as the solver estimates it
  bool double_factor = false;
  double t_ordering = 0.0, t_analysis = 0.0, t_factor = 0.0, t_solve = 0.0;
  int64_t columns = 0, columns_refined = 0, passes_refined = 0;
  int refine_steps = 0;  // most refinement steps a batch took
  double residual = 0.0; // largest relative residual of the last batch checked
  // The solver's own words for a failure ("" when none).
  char error_text[256] = {};
};

// What a solver needs to know of the run, nothing more.
struct Solver_Setup {
  const CooMatrix64 *matrix = nullptr; // CSR with both precisions
  const int *iperm = nullptr;          // fill-reducing order: pivot position (from 1) of each row
  bool cmplx = false;
  bool double_factor = false; // factorise in double precision
  int threads = 1;
  int sources = 0;             // sources to solve, for the batch width
  double ssd_cache = 0.0;      // GB of right-hand sides the library may hold at once
  int simultaneous_solves = 3; // block solver: column block code 0-5 (4 << code columns)
  int cpu_type = 0;            // block solver: kernel level (1 SSE .. 4 AVX-512)
  int instruction_level = 0;   // what the processor has
};

// Return codes of the solver functions besides 0 and the library's own.
constexpr int solver_no_memory = -1000;

struct Sparse_Solver {
  const char *name = "";
  void *state = nullptr;
  // The pattern in the given order; sets factor_entries, factor_flops and
  // memory_bytes when the solver knows them.
  int (*analyse)(void *state, Solver_Report &r) = nullptr;
  int (*factorise)(void *state, Solver_Report &r) = nullptr;
  // Solves `cols` columns of x in place.
  int (*solve)(void *state, float *x, int cols, Solver_Report &r) = nullptr;
  // Columns the driver should give each solve.
  int (*batch)(void *state) = nullptr;
  void (*release)(void *state) = nullptr;
};

// A solver of the given kind for the setup (which must outlive it);
// returns 0, or 1 with the reason in r.error_text (a kind not built in, a
// complex matrix for a real-only solver, no memory).
int Create_Sparse_Solver(int kind, const Solver_Setup &setup, Sparse_Solver &s, Solver_Report &r);
int Create_Mumps_Solver(const Solver_Setup &setup, Sparse_Solver &s, Solver_Report &r);
int Create_Block_Solver(const Solver_Setup &setup, Sparse_Solver &s, Solver_Report &r);
int Create_Cholmod_Solver(const Solver_Setup &setup, Sparse_Solver &s, Solver_Report &r);
void Release_Sparse_Solver(Sparse_Solver &s);
const char *Solver_Name(int kind);

// The solver this run uses: the block solver where it is asked for
// (cpu_type_solver > 0) and the run has one mesh of 255 or more
// electrodes, else MUMPS; Fem_State::solver_kind (set by benchmarks and
// checks) overrides both.
int Choose_Sparse_Solver(Data_Set &ds);
// The matrix's fill-reducing order (METIS nested dissection), computed
// once for each matrix pattern and kept in Fem_State::ordering.
int Fill_Reducing_Order(Data_Set &ds);
// Every source of the run solved by the chosen solver, their potentials
// saved (and with Fem_State::jacob their whole fields).
int Solve_Sources(Data_Set &ds);

// Right-hand sides a library solves together for `sources` sources on a
// matrix of n equations (complex halves it), `ssd_cache` GB of values.
int64_t Library_Batch(int64_t n, bool cmplx, int64_t sources, double ssd_cache, int threads);

// Resizes a vector, returning false (no exception) when memory runs out.
template <class V> bool Try_Resize(V &v, int64_t count) {
  try {
    v.resize(static_cast<size_t>(count));
  } catch (...) {
    return false;
  }
  return true;
}
