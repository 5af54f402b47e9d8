#include "survey/survey_text.h"

#include <cstdarg>
#include <cstdio>

#include "core/data_set.h"
#include "core/messages.h"

namespace {

// Formats into the message scratch and shows it: always, or unless `quiet`.
void Show_Formatted(Data_Set &ds, const char *title, bool always, const char *format, va_list ap) {
  std::vsnprintf(ds.mesg, sizeof ds.mesg, format, ap);
  if (always)
    show_message(ds, ds.mesg, title);
  else
    show_check_message(ds, ds.mesg, title);
}

} // namespace

int Refuse(Data_Set &ds, const char *title, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  Show_Formatted(ds, title, false, format, ap);
  va_end(ap);
  return 1;
}

int Refuse_Always(Data_Set &ds, const char *title, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  Show_Formatted(ds, title, true, format, ap);
  va_end(ap);
  return 1;
}

void Warn(Data_Set &ds, const char *title, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  Show_Formatted(ds, title, false, format, ap);
  va_end(ap);
}

int Show_Text(Data_Set &ds, const char *title, int kind, const char *format, ...) {
  char text[4096];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  show_message(ds, text, title, kind);
  return 1;
}

void Panel(Data_Set &ds, const char *format, ...) {
  char line[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  panel_text(ds, line);
}

int Progress_Text(Data_Set &ds, double fraction, const char *format, ...) {
  char line[256];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  return progress(ds, line, fraction);
}
