#include "core/memory.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define OHMVOL3D_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define OHMVOL3D_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define OHMVOL3D_POISON(p, n) ((void)(p), (void)(n))
#define OHMVOL3D_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace {

// Each block carries one page in front of it that records its length.
int64_t Page() {
  static const int64_t page = sysconf(_SC_PAGESIZE);
  return page;
}

} // namespace

void *Allocate_Block(int64_t bytes) {
  if (bytes < 0)
    return nullptr;
  const int64_t page = Page();
  const int64_t len = ((bytes + page - 1) / page + 1) * page;
  void *base = mmap(nullptr, static_cast<size_t>(len), PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED)
    return nullptr;
  int64_t *head = static_cast<int64_t *>(base);
  head[0] = len;
  head[1] = bytes;
  // Under the address sanitizer the bytes between the block's end and its
  // last page's end are out of bounds.
  char *p = static_cast<char *>(base) + page;
  OHMVOL3D_POISON(p + bytes, len - page - bytes);
  return p;
}

void Free_Block(void *p) {
  if (!p)
    return;
  char *base = static_cast<char *>(p) - Page();
  const int64_t len = reinterpret_cast<int64_t *>(base)[0];
  OHMVOL3D_UNPOISON(base, len);
  munmap(base, static_cast<size_t>(len));
}

int64_t Block_Size(const void *p) {
  if (!p)
    return 0;
  const char *base = static_cast<const char *>(p) - Page();
  return reinterpret_cast<const int64_t *>(base)[1];
}

int Report_Allocation_Failure(Data_Set &ds, const char *name, int64_t bytes) {
  print_to_buffer(ds.mesg, sizeof ds.mesg,
                  "Memory allocation error for array %s\nMemory needed is %.3f GB (%lld bytes)",
                  name, bytes * 9.313225746154785e-10, static_cast<long long>(bytes));
  show_message(ds, ds.mesg, "Memory error");
  TRACE("Allocate %s failed bytes %lld\n", name, static_cast<long long>(bytes));
  return 1;
}

namespace {

int64_t Meminfo_Kb(const char *key) {
  FILE *f = std::fopen("/proc/meminfo", "r");
  if (!f)
    return -1;
  char line[256];
  int64_t kb = -1;
  const size_t klen = std::strlen(key);
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, key, klen) == 0 && line[klen] == ':') {
      long long v = 0;
      if (std::sscanf(line + klen + 1, "%lld", &v) == 1)
        kb = v;
      break;
    }
  }
  std::fclose(f);
  return kb;
}

} // namespace

// The process's address-space limit (ulimit -v), -1 without one.
int64_t Address_Space_Limit() {
  rlimit r;
  if (getrlimit(RLIMIT_AS, &r) != 0 || r.rlim_cur == RLIM_INFINITY)
    return -1;
  return static_cast<int64_t>(r.rlim_cur);
}

// The address space the process holds now (its virtual size).
int64_t Address_Space_Used() {
  FILE *f = std::fopen("/proc/self/statm", "r");
  if (!f)
    return 0;
  long long pages = 0;
  const int got = std::fscanf(f, "%lld", &pages);
  std::fclose(f);
  return got == 1 ? pages * Page() : 0;
}

// Under an address-space limit the memory a run may count on is what the
// limit leaves, whatever the machine holds: the limits and the memory checks
// then size the work to fit instead of failing part way.
int64_t Total_Memory_Bytes() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  int64_t total = pages > 0 ? static_cast<int64_t>(pages) * Page() : 0;
  if (total == 0) {
    const int64_t kb = Meminfo_Kb("MemTotal");
    total = kb > 0 ? kb * 1024 : 0;
  }
  const int64_t limit = Address_Space_Limit();
  return limit >= 0 ? std::min(total, std::max<int64_t>(limit - Address_Space_Used(), 0)) : total;
}

int64_t Available_Memory_Bytes() {
  const int64_t kb = Meminfo_Kb("MemAvailable");
  const int64_t avail =
      kb > 0 ? kb * 1024 : static_cast<int64_t>(sysconf(_SC_AVPHYS_PAGES)) * Page();
  const int64_t limit = Address_Space_Limit();
  return limit >= 0 ? std::min(avail, std::max<int64_t>(limit - Address_Space_Used(), 0)) : avail;
}
