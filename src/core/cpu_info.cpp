#include "core/cpu_info.h"
#include "core/memory.h"

#include <cblas.h>
#include <cpuid.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

#include <vector>

extern "C" char *openblas_get_corename(void);

namespace {

const char *env_marker = "OHMVOL3D_BLAS_KERNEL_SET";
const char *wait_marker = "OHMVOL3D_THREAD_WAIT_SET";
// OpenMP threads waiting at a barrier spin this many turns, then sleep. The
// runtime's own default spins for about a second's worth of turns: with
// another busy process on the same cores a waiting thread then burns the
// core that the thread it waits for needs, and two such runs slowed each
// other 5 to 6 times (8.7 s alone, 48 s together for the 9 x 14 grid's
// inversion); with 1,000 turns, 12.8 s together, and no loss alone.
const char *omp_spin_count = "1000";
// OpenBLAS's idle threads likewise spin 2^N cycles before they sleep (N = 28
// by default, about a tenth of a second); 2^4, its least. Beside two
// CPU-bound processes on the two cores the same inversion took 42 s with
// the runtime's spinning, 20 s with this.
const char *blas_thread_timeout = "4";

uint64_t Read_Xcr0() {
  uint32_t eax, edx;
  __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
  return (static_cast<uint64_t>(edx) << 32) | eax;
}

} // namespace

void Detect_Cpu(Cpu_Info &cpu) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  cpu = Cpu_Info();
  if (!__get_cpuid(0, &a, &b, &c, &d)) {
    std::strcpy(cpu.vendor_word, "Unknown");
    return;
  }
  const unsigned max_leaf = a;
  char word[13];
  std::memcpy(word, &b, 4);
  std::memcpy(word + 4, &d, 4);
  std::memcpy(word + 8, &c, 4);
  word[12] = 0;
  if (std::strcmp(word, "GenuineIntel") == 0) {
    cpu.vendor = 0;
    std::strcpy(cpu.vendor_word, "Intel");
  } else if (std::strcmp(word, "AuthenticAMD") == 0) {
    cpu.vendor = 1;
    std::strcpy(cpu.vendor_word, "AMD");
  } else {
    cpu.vendor = 2;
    std::strcpy(cpu.vendor_word, "Unknown");
  }

  __get_cpuid(1, &a, &b, &c, &d);
  const bool osxsave = (c & bit_OSXSAVE) != 0;
  const bool avx = (c & bit_AVX) != 0;
  const bool fma = (c & bit_FMA) != 0;
  uint64_t xcr0 = osxsave ? Read_Xcr0() : 0;
  const bool ymm_state = (xcr0 & 0x6) == 0x6;
  const bool zmm_state = (xcr0 & 0xe6) == 0xe6;
  bool avx2 = false, avx512 = false;
  if (max_leaf >= 7) {
    __get_cpuid_count(7, 0, &a, &b, &c, &d);
    avx2 = (b & bit_AVX2) != 0;
    avx512 = (b & bit_AVX512F) != 0 && (b & bit_AVX512DQ) != 0 && (b & bit_AVX512BW) != 0 &&
             (b & bit_AVX512VL) != 0;
  }
  int level = 0;
  if (avx && ymm_state)
    level = 1;
  if (level == 1 && avx2 && fma)
    level = 2;
  if (level == 2 && avx512 && zmm_state)
    level = 3;
  cpu.instruction_level = level;

  unsigned ext = __get_cpuid_max(0x80000000, nullptr);
  if (ext >= 0x80000004) {
    unsigned regs[12];
    for (unsigned i = 0; i < 3; i++)
      __get_cpuid(0x80000002 + i, &regs[4 * i], &regs[4 * i + 1], &regs[4 * i + 2],
                  &regs[4 * i + 3]);
    char name[49];
    std::memcpy(name, regs, 48);
    name[48] = 0;
    const char *p = name;
    while (*p == ' ')
      p++;
    std::strncpy(cpu.brand, p, sizeof(cpu.brand) - 1);
  }
  if (!cpu.brand[0])
    std::strcpy(cpu.brand, cpu.vendor_word);
}

const char *Instruction_Level_Text(int level) {
  switch (level) {
  case 1:
    return "Computer CPU supports AVX instructions.";
  case 2:
    return "Computer CPU supports AVX2/FMA instructions.";
  case 3:
    return "Computer CPU supports AVX512 instructions.";
  default:
    return "Computer CPU supports SSE instructions only.";
  }
}

const char *Blas_Core_For(const Cpu_Info &cpu) {
  switch (cpu.instruction_level) {
  case 3:
    return "SkylakeX";
  case 2:
    return cpu.vendor == 1 ? "Zen" : "Haswell";
  case 1:
    return "Sandybridge";
  default:
    return "Nehalem";
  }
}

bool Address_Space_Tight() {
  const int64_t limit = Address_Space_Limit();
  if (limit < 0)
    return false;
  const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
  const double ram = pages > 0 && page > 0 ? static_cast<double>(pages) * page : 1073741824.0;
  return static_cast<double>(limit) < ram;
}

void Select_Blas_Kernel(char **argv) {
  // Each variable is set only where the user has not (and a re-executed
  // program finds both set, so it runs on).
  bool again = false;
  if (!std::getenv("OPENBLAS_CORETYPE")) {
    Cpu_Info cpu;
    Detect_Cpu(cpu);
    setenv("OPENBLAS_CORETYPE", Blas_Core_For(cpu), 1);
    setenv(env_marker, "1", 1);
    again = true;
  }
  if (!std::getenv("OMP_WAIT_POLICY") && !std::getenv("GOMP_SPINCOUNT")) {
    setenv("GOMP_SPINCOUNT", omp_spin_count, 1);
    setenv(wait_marker, "1", 1);
    again = true;
  }
  if (!std::getenv("OPENBLAS_THREAD_TIMEOUT")) {
    setenv("OPENBLAS_THREAD_TIMEOUT", blas_thread_timeout, 1);
    setenv(wait_marker, "1", 1);
    again = true;
  }
  // OpenBLAS's worker threads retry a failed buffer allocation for ever, so
  // under an address-space limit below the machine's memory the library
  // keeps to the calling thread: the run then fits or ends with the
  // program's own allocation message.
  if (Address_Space_Tight() && !std::getenv("OPENBLAS_NUM_THREADS")) {
    setenv("OPENBLAS_NUM_THREADS", "1", 1);
    again = true;
  }
  if (!again)
    return;
  execv("/proc/self/exe", argv);
  // The re-execution failed: go on with what the libraries chose by themselves.
  unsetenv(env_marker);
  unsetenv(wait_marker);
}

const char *Thread_Wait_Text() {
  if (std::getenv(wait_marker))
    return "idle threads sleep after a short spin (GOMP_SPINCOUNT, OPENBLAS_THREAD_TIMEOUT set "
           "by the program where the user had not)";
  if (std::getenv("OMP_WAIT_POLICY") || std::getenv("GOMP_SPINCOUNT") ||
      std::getenv("OPENBLAS_THREAD_TIMEOUT"))
    return "idle threads wait as the user set (OMP_WAIT_POLICY or GOMP_SPINCOUNT, "
           "OPENBLAS_THREAD_TIMEOUT)";
  return "idle threads wait as the libraries chose";
}

const char *Blas_Kernel_Name() {
  const char *name = openblas_get_corename();
  return name ? name : "unknown";
}

const char *Blas_Kernel_Origin() {
  if (std::getenv(env_marker))
    return "set by the program";
  if (std::getenv("OPENBLAS_CORETYPE"))
    return "set by the user";
  return "detected by OpenBLAS";
}

namespace {

void Take_Blas_Buffers() {
  // Where the limit leaves no room for a buffer (128 MB on some kernels)
  // the program's own tables fail first, before any product is asked for.
  const int64_t limit = Address_Space_Limit();
  if (limit >= 0 && limit - Address_Space_Used() < (int64_t{512} << 20))
    return;
  // Above OpenBLAS's small-matrix path, which takes no buffer.
  constexpr int n = 192;
  std::vector<double> a(n * n, 1.0), c(n * n, 0.0);
  cblas_dgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, n, n, n, 1.0, a.data(), n, a.data(), n,
              0.0, c.data(), n);
  std::vector<float> af(n * n, 1.0f), cf(n * n, 0.0f);
  cblas_sgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, n, n, n, 1.0f, af.data(), n, af.data(), n,
              0.0f, cf.data(), n);
}

} // namespace

void Reserve_Blas_Buffers() {
  // Once a process: the buffers stay with the library.
  static std::once_flag once;
  std::call_once(once, Take_Blas_Buffers);
}
