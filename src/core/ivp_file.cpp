#include "core/ivp_file.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/text_scan.h"
#include "core/trace.h"

namespace {

const char *const ivp_header = "Inversion settings";

std::string_view Trim_Right(std::string_view s) {
  while (!s.empty() && static_cast<unsigned char>(s.back()) <= 32)
    s.remove_suffix(1);
  return s;
}

std::string_view Trim_Left(std::string_view s) {
  while (!s.empty() && static_cast<unsigned char>(s.front()) <= 32)
    s.remove_prefix(1);
  return s;
}

// Where each line of the text (trimmed) first stands: the offset just past
// that line, from which its value is read.
std::unordered_map<std::string_view, int64_t> Index_Lines(const char *buf, int64_t size) {
  std::unordered_map<std::string_view, int64_t> first;
  int64_t i = 0;
  while (i < size) {
    int64_t e = i;
    while (e < size && buf[e] != '\n' && buf[e] != '\r')
      e++;
    std::string_view line = Trim_Left(Trim_Right(std::string_view(buf + i, e - i)));
    int64_t next = e;
    if (next < size && buf[next] == '\r')
      next++;
    if (next < size && buf[next] == '\n')
      next++;
    if (!line.empty())
      first.emplace(line, next);
    i = next > e ? next : e + 1;
  }
  return first;
}

} // namespace

void Store_Setting_Value(Data_Set &ds, const Setting_Entry &e, double value) {
  void *m = e.member ? e.member(ds) : nullptr;
  if (!m)
    return;
  const double v = std::clamp(value, e.lo, e.hi);
  switch (e.kind) {
  case SK_INT:
    *static_cast<int *>(m) = static_cast<int>(std::llround(v));
    break;
  case SK_INT64:
    *static_cast<int64_t *>(m) = std::llround(v);
    break;
  case SK_REAL:
    *static_cast<double *>(m) = v;
    break;
  default:
    break;
  }
}

std::string Format_Setting_Value(Data_Set &ds, const Setting_Entry &e) {
  char buf[64];
  void *m = e.member ? e.member(ds) : nullptr;
  switch (e.kind) {
  case SK_INT:
    std::snprintf(buf, sizeof buf, e.format, *static_cast<int *>(m));
    break;
  case SK_INT64:
    std::snprintf(buf, sizeof buf, e.format, static_cast<long long>(*static_cast<int64_t *>(m)));
    break;
  case SK_REAL:
    std::snprintf(buf, sizeof buf, e.format, *static_cast<double *>(m));
    break;
  default:
    std::snprintf(buf, sizeof buf, "%s", e.format);
    break;
  }
  return buf;
}

int Set_Setting_Text(Data_Set &ds, const Setting_Entry &e, const char *text) {
  if (e.kind == SK_FIXED || !e.member)
    return 2;
  char *end = nullptr;
  errno = 0;
  const double v = std::strtod(text, &end);
  while (end && *end && static_cast<unsigned char>(*end) <= 32)
    end++;
  if (end == text || (end && *end) || errno == ERANGE || !std::isfinite(v))
    return 1;
  if (e.kind != SK_REAL && v != std::floor(v))
    return 1;
  Store_Setting_Value(ds, e, v);
  return 0;
}

namespace {

// The panel line of a setting just read: its own format where it has one,
// else the caption, two blanks and the value as the file writes it.
std::string Panel_Line(Data_Set &ds, const Setting_Entry &e) {
  char line[1024];
  const void *m = e.member(ds);
  if (!e.panel)
    std::snprintf(line, sizeof line, "%s  %s", e.caption, Format_Setting_Value(ds, e).c_str());
  else if (e.kind == SK_REAL)
    std::snprintf(line, sizeof line, e.panel, *static_cast<const double *>(m));
  else
    std::snprintf(line, sizeof line, e.panel, *static_cast<const int *>(m));
  return line;
}

} // namespace

int Save_Inversion_Parameters(Data_Set &ds, const char *path) {
  FILE *f = std::fopen(path, "w");
  if (!f) {
    TRACE("Save_Inversion_Parameters cannot create %s\n", path);
    return 1;
  }
  std::fprintf(f, "%s\n", ivp_header);
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    std::fprintf(f, "%s\n%s\n", e.caption, Format_Setting_Value(ds, e).c_str());
  }
  std::fprintf(f, "\nEnd of file\n");
  const int ierr = std::fclose(f) != 0 ? 1 : 0;
  TRACE("Save_Inversion_Parameters %s ierr %d\n", path, ierr);
  return ierr;
}

int Read_Settings_Text(Data_Set &ds, const char *buf, int64_t size, int silent) {
  Text_Image t;
  t.buf = buf;
  t.size = size;
  const auto lines = Index_Lines(t.buf, t.size);
  int found = 0;
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    if (e.kind == SK_FIXED)
      continue;
    const auto it = lines.find(Trim_Right(e.caption));
    if (it == lines.end())
      continue; // older files lack newer settings
    t.pos = it->second;
    const double v = e.kind == SK_REAL ? read_real(t) : static_cast<double>(read_int64(t));
    if (!t.found)
      continue;
    Store_Setting_Value(ds, e, v);
    found++;
    if (!silent)
      panel_text(ds, Panel_Line(ds, e).c_str());
  }
  Check_Settings_After_Read(ds);
  return found;
}

int readinvset(Data_Set &ds, int silent, const char *path) {
  TRACE("readinvset start %s silent %d\n", path, silent);
  FILE *f = std::fopen(path, "rb");
  if (!f) {
    if (!silent) {
      print_to_buffer(ds.mesg, sizeof ds.mesg, "Cannot find the file %s", path);
      panel_text(ds, ds.mesg);
    }
    return 1;
  }
  // A folder opens on Linux and reports an absurd size: refused as what it is.
  struct stat st;
  if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) {
    std::fclose(f);
    print_to_buffer(ds.mesg, sizeof ds.mesg, "The settings file %s is not a file (a folder?)",
                    path);
    show_message(ds, ds.mesg, "Message");
    return 1;
  }
  std::fseek(f, 0, SEEK_END);
  const long fsize = std::ftell(f);
  std::fseek(f, 0, SEEK_SET);
  std::vector<char> block(static_cast<size_t>(fsize > 32768 ? fsize : 32768) + 1024, 0);
  const size_t jread = fsize > 0 ? std::fread(block.data(), 1, static_cast<size_t>(fsize), f) : 0;
  std::fclose(f);
  if (jread < 5) {
    print_to_buffer(ds.mesg, sizeof ds.mesg, "file error jread %d\n%s\n", static_cast<int>(jread),
                    path);
    show_message(ds, ds.mesg, "Message");
    print_to_buffer(ds.mesg, sizeof ds.mesg, "IVP file %s format error", path);
    panel_text(ds, ds.mesg);
    return 1;
  }

  Text_Image t;
  t.buf = block.data();
  t.size = static_cast<int64_t>(jread);
  char line[text_line_max + 1];
  read_line(t, line);
  if (!std::strstr(line, ivp_header)) {
    if (!silent) {
      print_to_buffer(ds.mesg, sizeof ds.mesg,
                      "Error in format of file with inversion settings.\n\nThe first line is "
                      "given as\n%s\n\nThe first line must have the header\n'Inversion settings'",
                      line);
      show_message(ds, ds.mesg, "Error in ivp file format");
    }
    return 1;
  }

  Read_Settings_Text(ds, t.buf, t.size, silent);
  TRACE("readinvset exit\n");
  return 0;
}
