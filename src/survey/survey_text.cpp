#include "survey/survey_text.h"

#include <cstdarg>
#include <cstdio>

#include "core/data_set.h"
#include "core/messages.h"

namespace {

void Format_Message(Data_Set &ds, const char *format, va_list ap) {
  std::vsnprintf(ds.mesg, sizeof ds.mesg, format, ap);
}

} // namespace

int Refuse(Data_Set &ds, const char *title, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  Format_Message(ds, format, ap);
  va_end(ap);
  show_check_message(ds, ds.mesg, title);
  return 1;
}

int Refuse_Always(Data_Set &ds, const char *title, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  Format_Message(ds, format, ap);
  va_end(ap);
  show_message(ds, ds.mesg, title);
  return 1;
}

void Warn(Data_Set &ds, const char *title, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  Format_Message(ds, format, ap);
  va_end(ap);
  show_check_message(ds, ds.mesg, title);
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
