#include "picture_view.h"

#include <QImage>
#include <QKeyEvent>
#include <QPainter>

#include <algorithm>

#include "core/commands.h"
#include "core/data_set.h"
#include "ui/display_window.h"

Picture_View::Picture_View(Data_Set &d, QWidget *parent) : QWidget(parent), ds(d) {
  setFocusPolicy(Qt::StrongFocus);
  setMinimumSize(320, 240);
}

int Picture_View::Redraw() {
  const Draw_Surface *s = image.Begin(std::max(width(), 320), std::max(height(), 240));
  drawn = s && Draw_Display_View(ds, *s) == 0;
  update();
  return drawn ? 0 : 1;
}

void Picture_View::paintEvent(QPaintEvent *) {
  QPainter p(this);
  if (drawn && image.Image())
    p.drawImage(0, 0, *image.Image());
  else
    p.fillRect(rect(), Qt::white);
}

void Picture_View::resizeEvent(QResizeEvent *) {
  if (drawn)
    Redraw();
}

void Picture_View::keyPressEvent(QKeyEvent *e) {
  // The sections step only while a results file's model is on show.
  Display_Window &w = ds.Dw;
  if (ds.inv_read != 1 || ds.current_command != CMD_DISPLAY_MODEL) {
    QWidget::keyPressEvent(e);
    return;
  }
  switch (e->key()) {
  case Qt::Key_PageUp:
    w.first_section = std::max(0, w.first_section - 1);
    break;
  case Qt::Key_PageDown:
    w.first_section = std::min(w.first_section + 1, std::max(w.nsections - 1, 0));
    break;
  case Qt::Key_Home:
    w.first_section = 0;
    break;
  case Qt::Key_End:
    w.first_section = std::max(w.nsections - 1, 0);
    break;
  case Qt::Key_R:
    break;
  default:
    QWidget::keyPressEvent(e);
    return;
  }
  Redraw();
}
