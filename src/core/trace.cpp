#include "core/trace.h"

#include <cstdio>
#include <cstring>

Trace_Record trace_rec;

void Set_Trace_Paths(const std::string &folder) {
  std::snprintf(trace_rec.trace_name, sizeof trace_rec.trace_name, "%so3dtracesx64_Ohm3d.txt",
                folder.c_str());
  std::snprintf(trace_rec.memory_name, sizeof trace_rec.memory_name, "%so3dmem.txt",
                folder.c_str());
}

void trace_printf(const char *format, ...) {
  if (trace_rec.trace_on != 1)
    return;
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(trace_rec.line, sizeof trace_rec.line, format, ap);
  va_end(ap);
}

namespace {

void Append_Line(const char *path) {
  trace_rec.pending = 1;
  if (trace_rec.trace_on != 1)
    return;
  trace_rec.pending = 0;
  FILE *f = std::fopen(path, "a+");
  if (!f) {
    trace_rec.trace_on = 0;
    return;
  }
  std::fprintf(f, "%s", trace_rec.line);
  std::fflush(f);
  std::fclose(f);
}

} // namespace

void trace_flush() {
  Append_Line(trace_rec.trace_name);
}

void memory_report_flush() {
  Append_Line(trace_rec.memory_name);
}
