// The boundary between the core and whatever shows it to a person: a plain
// struct of callbacks that the desktop window and the command line each fill.
// The core never draws, prints or waits on its own.
#pragma once

struct Draw_Surface;

enum Message_Kind : int {
  MK_WARNING = 0,     // errors and refusals (the default)
  MK_INFORMATION = 1, // reports such as "Inversion parameters saved in file..."
  MK_PLAIN = 2,
  MK_QUESTION = 3 // yes-or-no question; the answer comes back from `question`
};

struct Front_End {
  void *user = nullptr; // handed back to every callback
  // A modal message with its title.
  void (*message)(void *user, const char *title, const char *text, int kind) = nullptr;
  // A yes-or-no question; returns 1 for Yes, 0 for No.
  int (*question)(void *user, const char *title, const char *text) = nullptr;
  // One line of the main window's panel (the scrolling list of what was read).
  void (*panel_line)(void *user, const char *text, int indent) = nullptr;
  // Status text with the fraction of work done (0..1). Runs the front end's
  // event pump and returns its result: 1 when a quit request was seen.
  int (*progress)(void *user, const char *text, double fraction) = nullptr;
  // The information beep that comes before some data messages.
  void (*beep)(void *user) = nullptr;
  // Pictures: a white image of width x height pixels to draw on (null when
  // the front end has none), and its saving as PNG (0 on success). Both get
  // `image_user`.
  void *image_user = nullptr;
  Draw_Surface *(*image_surface)(void *user, int width, int height) = nullptr;
  int (*image_save)(void *user, const char *path) = nullptr;
};
