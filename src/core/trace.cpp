#include "core/trace.h"

#include <cstdio>
#include <cstring>
#include <mutex>

Trace_Record trace_rec;

void Set_Trace_Paths(const std::string &folder) {
  std::snprintf(trace_rec.trace_name, sizeof trace_rec.trace_name, "%so3dtracesx64_Ohm3d.txt",
                folder.c_str());
  std::snprintf(trace_rec.memory_name, sizeof trace_rec.memory_name, "%so3dmem.txt",
                folder.c_str());
}

namespace {

// One line at a time reaches the files, whichever thread writes it.
std::mutex trace_mutex;

void Append_Line(const char *path, const char *line) {
  std::lock_guard<std::mutex> hold(trace_mutex);
  if (trace_rec.trace_on != 1)
    return;
  FILE *f = std::fopen(path, "a+");
  if (!f) {
    trace_rec.trace_on = 0;
    return;
  }
  std::fprintf(f, "%s", line);
  std::fflush(f);
  std::fclose(f);
}

} // namespace

void trace_line(int memory, const char *format, ...) {
  if (trace_rec.trace_on != 1)
    return;
  // Formatted on the caller's own stack: threads that trace at once do not
  // share a buffer.
  char line[trace_line_size];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  Append_Line(memory ? trace_rec.memory_name : trace_rec.trace_name, line);
}
