// The desktop program's main window: the menus that send the commands of the
// main menu through the core's dispatcher, the panel of lines the core
// writes, the picture of the display window, and the status bar with the
// progress of long work and the stop box.
#pragma once

#include <QMainWindow>

#include <memory>
#include <string>

#include "core/front_end.h"
#include "core/system_config.h"
#include "ui/qt/qimage_surface.h"

class Data_Set;
class QListWidget;
class QPushButton;
class QStackedWidget;
class Picture_View;
class Status_Window;

// The data file named on the command line: the words after the program's
// name joined by blanks, trimmed; empty unless 1 to 254 characters long.
std::string Command_Line_File(int argc, char **argv);

class Gui_Window : public QMainWindow {
public:
  // `data_file`: the data file named on the command line (may be null),
  // read with command 201 at first paint; `start`: the folders and limits
  // of the session.
  explicit Gui_Window(const char *data_file, const Start_Options &start = Start_Options());
  ~Gui_Window() override;

  Data_Set &Ds() { return *ds; }
  // Runs a menu command: its file chooser first where it has one, then the
  // dispatcher, then the picture or the panel. Returns the command's result,
  // or -1 when nothing ran (a chooser cancelled, a command already running).
  int Run_Menu_Command(int id, const char *path = nullptr);
  // The picture on show: 1 when the display window shows a view.
  int Showing_Picture() const;
  // The first paint's work (report, settings, the data file named) is done.
  bool First_Paint_Done() const { return first_paint_done; }
  // The stop box: "    Next" or, once clicked, "Exit Next".
  QPushButton *Stop_Box() { return stop; }
  // The panel lines shown so far.
  QListWidget *Panel() { return panel; }
  Picture_View *Picture() { return picture; }
  Status_Window *Status() { return status; }
  // Message boxes on (1) or, for scripted sessions, off (0): messages then
  // go to the panel as "title: text" and questions are answered No.
  void Set_Boxes(int on) { boxes = on; }

protected:
  void closeEvent(QCloseEvent *e) override;
  void showEvent(QShowEvent *e) override;

private:
  void Build_Menus();
  void Show_Picture(bool on);
  void Set_Title();
  void First_Paint();
  static Front_End Window_Front_End(Gui_Window *w);

  std::unique_ptr<Data_Set> ds;
  Image_Target image; // the core's saved pictures (command 7260)
  QStackedWidget *pages = nullptr;
  QListWidget *panel = nullptr;
  Picture_View *picture = nullptr;
  Status_Window *status = nullptr; // progress: the bar and the status text
  QPushButton *stop = nullptr;
  std::string first_file;
  bool first_paint_started = false, first_paint_done = false;
  int running = 0;    // a command is running (the menus stay live through the pump)
  int quit_asked = 0; // the window was closed during a run
  int boxes = 1;
};
