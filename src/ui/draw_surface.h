// What the display logic draws on: a plain struct of callbacks over a pixel
// surface of a given size (an image in memory for the saved pictures, the
// window's own bitmap in the desktop program). Coordinates are pixels from
// the top left corner; colours 0xRRGGBB.
#pragma once

#include <cstdint>

enum Text_Align : int { TA_LEFT = 0, TA_CENTRE = 1, TA_RIGHT = 2 };

struct Draw_Surface {
  void *user = nullptr;
  int width = 0, height = 0;
  // A filled rectangle of w x h pixels.
  void (*fill_rect)(void *user, int x, int y, int w, int h, uint32_t rgb) = nullptr;
  // A line of `pen` pixels.
  void (*line)(void *user, int x0, int y0, int x1, int y1, uint32_t rgb, int pen) = nullptr;
  // A text whose baseline starts (TA_LEFT), is centred (TA_CENTRE) or ends
  // (TA_RIGHT) at x, y; `size` is the font's pixel height.
  void (*text)(void *user, int x, int y, const char *s, uint32_t rgb, int align,
               int size) = nullptr;
  // The width in pixels of a text at this size.
  int (*text_width)(void *user, const char *s, int size) = nullptr;
  // A block of w x h pixels, rows from the top (the contoured fill).
  void (*pixels)(void *user, int x, int y, int w, int h, const uint32_t *rgb) = nullptr;
};

// Outline of a rectangle, one pixel wide.
inline void Draw_Frame(const Draw_Surface &s, int x, int y, int w, int h, uint32_t rgb) {
  s.line(s.user, x, y, x + w, y, rgb, 1);
  s.line(s.user, x + w, y, x + w, y + h, rgb, 1);
  s.line(s.user, x + w, y + h, x, y + h, rgb, 1);
  s.line(s.user, x, y + h, x, y, rgb, 1);
}
