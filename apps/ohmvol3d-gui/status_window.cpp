#include "status_window.h"

#include <QPainter>

#include <algorithm>
#include <cmath>

Status_Window::Status_Window(QWidget *parent) : QWidget(parent) {
  setMinimumHeight(fontMetrics().height() + 3);
}

void Status_Window::Set_Status(const QString &t, double f) {
  text = t;
  fraction = std::clamp(f, 0.0, 1.0);
  repaint();
}

void Status_Window::paintEvent(QPaintEvent *) {
  QPainter p(this);
  p.fillRect(rect(), palette().base());
  const int filled = static_cast<int>(std::lround(width() * fraction));
  p.fillRect(0, 0, filled, height(), QColor(120, 170, 230));
  p.setPen(palette().text().color());
  p.drawText(rect().adjusted(2, 0, 0, 0), Qt::AlignLeft | Qt::AlignVCenter, text);
}
