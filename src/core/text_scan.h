// Scanners over a text file held whole in memory. Numbers may be separated by
// blanks, commas or any other text, and may continue on the next line; a
// caption line must be taken with read_line so its digits are not numbers.
#pragma once

#include <cstdint>

struct Text_Image {
  const char *buf = nullptr; // the file's bytes
  int64_t size = 0;          // their count
  int64_t pos = 0;           // the cursor
  int found = 0;             // 1 when the last number scan found a token
  int well_formed = 0;       // 1 when that token was a whole number (a digit, and
                             // nothing left over after the conversion)
};

constexpr int text_line_max = 259; // characters a line keeps

// Skips every byte of signed value 32 or less (blanks, line ends, bytes above
// 127), then copies up to 259 characters to the line's end and moves past it.
// `line` holds at least 260 bytes. Returns the length (0 at the end).
int read_line(Text_Image &t, char *line);
// Skips bytes that cannot start a number, then converts the token as a
// decimal integer (stopping at the first character that does not fit). At the
// end of the text returns 0 with `found` 0.
int read_int(Text_Image &t);
int64_t read_int64(Text_Image &t);
// The position of the first `what` at or after `from`, or -1.
int64_t find_text(const Text_Image &t, const char *what, int64_t from);
// An image over one line of text (a buffer ended by 0), cursor at its start.
Text_Image line_image(const char *line);
// n real numbers into `into`, each times `scale`; 1 when the text ends first.
int read_reals(Text_Image &t, float *into, int64_t n, double scale = 1.0);
// The same for a real number; the exponent letters e, E, d and D are taken.
double read_real(Text_Image &t);
// read_real that also takes "*" in a token: such a token gives `dflt` and
// sets `star` to 1.
double read_real_star(Text_Image &t, double dflt, int &star);
