// Tracing: an optional record of the run for diagnosis, off by default. Each
// line is appended to the trace file with the file opened and closed around
// it, so a crash leaves everything up to the last line on disk.
#pragma once

#include <cstdarg>
#include <string>

struct Trace_Record {
  char trace_name[1024] = {};  // buffer folder + "o3dtracesx64_Ohm3d.txt"
  char memory_name[1024] = {}; // buffer folder + "o3dmem.txt"
  int trace_on = 0;            // 1 while tracing
};

extern Trace_Record trace_rec;

// The longest trace line; a longer one is cut.
constexpr int trace_line_size = 8192;

// Sets both paths from the buffer folder (which ends in '/').
void Set_Trace_Paths(const std::string &folder);

// Formats one line and appends it, whole, to the trace file (memory 0) or
// the memory report (memory 1), only while trace_on is 1. Lines from
// threads that trace at once do not mix. A failed open turns tracing off.
void trace_line(int memory, const char *format, ...) __attribute__((format(printf, 2, 3)));

// One guarded trace line: arguments are not evaluated while tracing is off.
#define TRACE(...)                                                                                 \
  do {                                                                                             \
    if (trace_rec.trace_on)                                                                        \
      trace_line(0, __VA_ARGS__);                                                                  \
  } while (0)

// One guarded line of the memory report.
#define TRACE_MEMORY(...)                                                                          \
  do {                                                                                             \
    if (trace_rec.trace_on)                                                                        \
      trace_line(1, __VA_ARGS__);                                                                  \
  } while (0)
