#include "core/messages.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/data_set.h"
#include "core/trace.h"

void show_message(Data_Set &ds, const char *text, const char *title, int kind) {
  TRACE("Message %s: %s\n", title, text);
  if (ds.fe.message)
    ds.fe.message(ds.fe.user, title, text, kind);
}

void show_check_message(Data_Set &ds, const char *text, const char *title, int kind) {
  if (ds.quiet == 0)
    show_message(ds, text, title, kind);
}

int ask_question(Data_Set &ds, const char *text, const char *title) {
  const int yes = ds.fe.question ? (ds.fe.question(ds.fe.user, title, text) != 0) : 0;
  TRACE("Question %s answered %s\n", title, yes ? "Yes" : "No");
  return yes;
}

void panel_text(Data_Set &ds, const char *text) {
  if (ds.fe.panel_line)
    ds.fe.panel_line(ds.fe.user, text, 0);
  ds.panel_y += ds.panel_line_height;
}

void panel_text_params(Data_Set &ds, const char *text) {
  if (ds.fe.panel_line)
    ds.fe.panel_line(ds.fe.user, text, 1);
  ds.panel_y += ds.panel_line_height + 1;
}

int progress(Data_Set &ds, const char *text, double fraction) {
  const size_t limit = static_cast<size_t>(ds.status_width_chars) < sizeof ds.status_text - 1
                           ? static_cast<size_t>(ds.status_width_chars)
                           : sizeof ds.status_text - 1;
  std::strncpy(ds.status_text, text, limit);
  ds.status_text[limit] = 0;
  if (!(fraction >= 0.0))
    fraction = 0.0; // also catches NaN
  if (fraction > 1.0)
    fraction = 1.0;
  ds.status_fraction = fraction;
  return ds.fe.progress ? ds.fe.progress(ds.fe.user, ds.status_text, fraction) : 0;
}

void beep(Data_Set &ds) {
  if (ds.fe.beep)
    ds.fe.beep(ds.fe.user);
}

int print_to_buffer(char *buffer, size_t limit, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  const int n = std::vsnprintf(buffer, limit, format, ap);
  va_end(ap);
  return n;
}

int Create_Trace_File(Data_Set &ds) {
  FILE *f = std::fopen(trace_rec.trace_name, "w");
  if (!f) {
    print_to_buffer(ds.mesg, sizeof ds.mesg,
                    "Could not create trace file\n%s\nYou need to check the buffer drive set is "
                    "valid.",
                    trace_rec.trace_name);
    show_message(ds, ds.mesg, "Trace File Error Message");
    trace_rec.trace_on = 0;
    return 1;
  }
  std::fprintf(f, "3D trace file\n\n");
  std::fclose(f);
  f = std::fopen(trace_rec.memory_name, "w");
  if (f)
    std::fclose(f);
  trace_rec.trace_on = 1;
  f = std::fopen(trace_rec.trace_name, "a");
  if (!f) {
    trace_rec.trace_on = 0;
    return 1;
  }
  std::fprintf(f, "\nTemporary buffer files\n");
  std::fclose(f);
  f = std::fopen(trace_rec.memory_name, "a");
  if (f) {
    std::fprintf(f, "\nMemory trace file\n");
    std::fclose(f);
  }
  print_to_buffer(ds.mesg, sizeof ds.mesg, "Program trace file\n%s\nwas created.",
                  trace_rec.trace_name);
  show_message(ds, ds.mesg, "Trace File Message", MK_INFORMATION);
  return 0;
}
