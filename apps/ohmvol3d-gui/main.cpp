// ohmvol3d-gui: the desktop program. One main window, maximised; a data file
// named on the command line is read when the window is first shown.
#include <QApplication>
#include <QScreen>

#include "core/cpu_info.h"
#include "gui_window.h"

int main(int argc, char **argv) {
  Select_Blas_Kernel(argv);
  Ensure_Runtime_Folder();
  QApplication app(argc, argv);
  const std::string file = Command_Line_File(argc, argv);
  Gui_Window w(file.empty() ? nullptr : file.c_str());
  // The screen's size first: without a window manager nothing maximises.
  if (const QScreen *screen = QGuiApplication::primaryScreen())
    w.setGeometry(screen->availableGeometry());
  w.showMaximized();
  return app.exec();
}
