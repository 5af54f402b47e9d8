// ohmvol3d-gui: the desktop program. One main window; an optional data file
// named on the command line is read when the window is first shown.
#include <QApplication>

#include "core/cpu_info.h"
#include "gui_window.h"

int main(int argc, char **argv) {
  Select_Blas_Kernel(argv);
  QApplication app(argc, argv);
  Gui_Window w(argc > 1 ? argv[1] : nullptr);
  w.showMaximized();
  return app.exec();
}
