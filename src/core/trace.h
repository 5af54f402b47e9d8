// Tracing: an optional record of the run for diagnosis, off by default. Each
// line is appended to the trace file with the file opened and closed around
// it, so a crash leaves everything up to the last line on disk.
#pragma once

#include <cstdarg>
#include <string>

struct Trace_Record {
  char trace_name[1024] = {};  // buffer folder + "o3dtracesx64_Ohm3d.txt"
  char memory_name[1024] = {}; // buffer folder + "o3dmem.txt"
  int pending = 0;             // 1 between a format and the write
  char line[8192] = {};        // the line being written
  int trace_on = 0;            // 1 while tracing
};

extern Trace_Record trace_rec;

// Sets both paths from the buffer folder (which ends in '/').
void Set_Trace_Paths(const std::string &folder);

// Formats one line into the line buffer (only while trace_on is 1).
void trace_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Appends the line buffer to the trace file; a failed open turns tracing off.
void trace_flush();
// The same for the memory report.
void memory_report_flush();

// One guarded trace line: arguments are not evaluated while tracing is off.
#define TRACE(...)                                                                                 \
  do {                                                                                             \
    if (trace_rec.trace_on) {                                                                      \
      trace_printf(__VA_ARGS__);                                                                   \
      trace_flush();                                                                               \
    }                                                                                              \
  } while (0)

// One guarded line of the memory report.
#define TRACE_MEMORY(...)                                                                          \
  do {                                                                                             \
    if (trace_rec.trace_on) {                                                                      \
      trace_printf(__VA_ARGS__);                                                                   \
      memory_report_flush();                                                                       \
    }                                                                                              \
  } while (0)
