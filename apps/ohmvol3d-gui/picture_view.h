// The display window's picture: the view chosen in the display settings,
// drawn at the widget's size whenever it is shown, resized or stepped, with
// Page Up / Page Down / Home / End stepping through the sections and R
// redrawing.
#pragma once

#include <QWidget>

#include "ui/qt/qimage_surface.h"

class Data_Set;

class Picture_View : public QWidget {
public:
  explicit Picture_View(Data_Set &ds, QWidget *parent = nullptr);
  // Draws the view again at the present size; 0 when it drew.
  int Redraw();
  // The last picture drawn.
  const Image_Target &Picture() const { return image; }

protected:
  void paintEvent(QPaintEvent *e) override;
  void resizeEvent(QResizeEvent *e) override;
  void keyPressEvent(QKeyEvent *e) override;

private:
  Data_Set &ds;
  Image_Target image;
  int drawn = 0;
};
