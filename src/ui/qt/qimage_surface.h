// Pictures drawn into a QImage through QPainter and saved as PNG: the
// drawing surface of the saved images, for the command line (no window is
// needed: without a display the offscreen platform is used) and the tests.
#pragma once

#include <memory>

#include "core/front_end.h"
#include "ui/draw_surface.h"

class QImage;

// Names a private runtime folder for Qt when the session has none (a batch
// session), so that Qt does not warn on every start.
void Ensure_Runtime_Folder();

// Makes sure a Qt GUI application object exists (fonts need one); returns 0,
// or 1 when none could be made.
int Ensure_Gui_Application();

// One image at a time: made by Begin, drawn through `surface`, saved by Save.
class Image_Target {
public:
  Image_Target();
  ~Image_Target();
  // A white image of width x height pixels and its surface (null on failure).
  Draw_Surface *Begin(int width, int height);
  // Ends the drawing and writes the image: a name ending in ".bmp" as a
  // bitmap, any other as PNG; 0 on success.
  int Save(const char *path);
  // The image (after Begin).
  const QImage *Image() const;
  // The colour 0xRRGGBB of a pixel of the image.
  uint32_t Pixel(int x, int y) const;

private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

// Fills the image callbacks of a front end with those of `target`.
void Install_Image_Front_End(Front_End &fe, Image_Target &target);
