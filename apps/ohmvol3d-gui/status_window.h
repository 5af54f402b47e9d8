// The status window at the bottom of the main window: a bar filled to the
// fraction of the work done, with the status text drawn over it from x = 2.
#pragma once

#include <QString>
#include <QWidget>

class Status_Window : public QWidget {
public:
  explicit Status_Window(QWidget *parent);
  // The text and the fraction (clamped to 0..1); redraws at once.
  void Set_Status(const QString &text, double fraction);
  const QString &Text() const { return text; }
  double Fraction() const { return fraction; }

protected:
  void paintEvent(QPaintEvent *e) override;

private:
  QString text = "Program information status window";
  double fraction = 0.0;
};
