// Processor identification and the choice of OpenBLAS's kernels.
#pragma once

struct Cpu_Info {
  int vendor = 2;            // 0 Intel, 1 AMD, 2 anything else
  char vendor_word[16] = {}; // "Intel", "AMD" or "Unknown"
  int instruction_level = 0; // 0 SSE only, 1 AVX, 2 AVX2/FMA, 3 AVX512
  char brand[64] = {};       // the processor's own name string
};

// Reads cpuid (and the operating system's saved register state, so that an
// instruction set the kernel does not enable is not counted).
void Detect_Cpu(Cpu_Info &cpu);

// Text of the configuration report for an instruction level.
const char *Instruction_Level_Text(int level);

// OpenBLAS core type that fits a processor: "SkylakeX", "Haswell", "Zen",
// "Sandybridge" or "Nehalem".
const char *Blas_Core_For(const Cpu_Info &cpu);

// OpenBLAS reads OPENBLAS_CORETYPE when it is loaded, before main() runs, and
// on some virtual machines its own detection falls back to a generic kernel.
// The OpenMP runtime likewise reads how its waiting threads wait
// (OMP_WAIT_POLICY, GOMP_SPINCOUNT) when it loads. Unless the user set them,
// this sets the kernel from cpuid and a short spin before sleeping (so that a
// run shares the cores with other busy processes in proportion), and
// re-executes the program once so that the libraries start with them. Call
// it first thing in main(). Returns only when no re-execution happened.
void Select_Blas_Kernel(char **argv);
// An address-space limit (ulimit -v) below the machine's memory: the BLAS
// library then runs on the calling thread alone (set before its threads
// start), since its worker threads reserve large buffers and retry a
// failed one for ever.
bool Address_Space_Tight();
// One product of each precision at start, so that OpenBLAS takes its work
// buffers while memory is free (it keeps and reuses them; a buffer it
// cannot get later it asks for again for ever).
void Reserve_Blas_Buffers();
// How the OpenMP threads wait, and who chose it, for the configuration report.
const char *Thread_Wait_Text();

// The kernel OpenBLAS runs, and whether the program chose it ("set by the
// program", "set by the user" or "detected by OpenBLAS").
const char *Blas_Kernel_Name();
const char *Blas_Kernel_Origin();
