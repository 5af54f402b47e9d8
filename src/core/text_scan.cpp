#include "core/text_scan.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

inline bool Number_Start(char c) {
  return c == '+' || c == '-' || c == '.' || (c >= '0' && c <= '9');
}

inline bool Number_Byte(char c, bool star) {
  return Number_Start(c) || c == 'e' || c == 'E' || c == 'd' || c == 'D' || (star && c == '*');
}

// Copies the next token (at most 80 characters) into tok; returns its length,
// 0 at the end of the text. Exponent letters d and D become e.
int Next_Token(Text_Image &t, char *tok, bool star, bool &has_star) {
  has_star = false;
  while (t.pos < t.size && !(Number_Start(t.buf[t.pos]) || (star && t.buf[t.pos] == '*')))
    t.pos++;
  if (t.pos >= t.size) {
    t.found = 0;
    return 0;
  }
  int n = 0;
  while (t.pos < t.size && n < 80 && Number_Byte(t.buf[t.pos], star)) {
    char c = t.buf[t.pos++];
    if (c == '*')
      has_star = true;
    if (c == 'd' || c == 'D')
      c = 'e';
    tok[n++] = c;
  }
  tok[n] = 0;
  t.found = 1;
  return n;
}

} // namespace

int read_line(Text_Image &t, char *line) {
  while (t.pos < t.size && static_cast<signed char>(t.buf[t.pos]) <= 32)
    t.pos++;
  int n = 0;
  while (t.pos < t.size && t.buf[t.pos] != '\r' && t.buf[t.pos] != '\n') {
    if (n < text_line_max)
      line[n++] = t.buf[t.pos];
    t.pos++;
  }
  line[n] = 0;
  return n;
}

int64_t read_int64(Text_Image &t) {
  char tok[84];
  bool has_star;
  if (!Next_Token(t, tok, false, has_star))
    return 0;
  return std::strtoll(tok, nullptr, 10);
}

int read_int(Text_Image &t) {
  return static_cast<int>(read_int64(t));
}

double read_real(Text_Image &t) {
  char tok[84];
  bool has_star;
  t.well_formed = 0;
  if (!Next_Token(t, tok, false, has_star))
    return 0.0;
  char *end = nullptr;
  const double v = std::strtod(tok, &end);
  t.well_formed = end && *end == 0 && std::strpbrk(tok, "0123456789") != nullptr;
  return v;
}

double read_real_star(Text_Image &t, double dflt, int &star) {
  char tok[84];
  bool has_star;
  star = 0;
  if (!Next_Token(t, tok, true, has_star))
    return 0.0;
  if (has_star) {
    star = 1;
    return dflt;
  }
  return std::strtod(tok, nullptr);
}

int64_t find_text(const Text_Image &t, const char *what, int64_t from) {
  const size_t n = std::strlen(what);
  if (from < 0 || from >= t.size || n == 0)
    return -1;
  const char *end = t.buf + t.size;
  const char *p = std::search(t.buf + from, end, what, what + n);
  return p == end ? -1 : p - t.buf;
}

Text_Image line_image(const char *line) {
  Text_Image t;
  t.buf = line;
  t.size = static_cast<int64_t>(std::strlen(line));
  return t;
}

int read_reals(Text_Image &t, float *into, int64_t n, double scale) {
  for (int64_t i = 0; i < n; i++) {
    into[i] = static_cast<float>(read_real(t) * scale);
    if (!t.found)
      return 1;
  }
  return 0;
}
