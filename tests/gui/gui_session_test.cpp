// The desktop window driven by a script, offscreen: a data file read at
// first paint, an inversion run to its end with the stop box clicked during
// iteration 1, the results read back and shown, the sections stepped with
// the keys, and the screen image saved; the window's contents are captured
// after each step (written to OHMVOL3D_GUI_SHOTS when that is set).
#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QImage>
#include <QKeyEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QTimer>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/settings_table.h"
#include "gui_window.h"
#include "picture_view.h"
#include "settings_dialog.h"
#include "ui/display_window.h"

namespace {

// Colours in an image other than white: a blank capture has none.
int Coloured_Pixels(const QImage &img) {
  int n = 0;
  for (int y = 0; y < img.height(); y += 4)
    for (int x = 0; x < img.width(); x += 4)
      n += (img.pixel(x, y) & 0xffffff) != 0xffffff;
  return n;
}

QImage Shot(Gui_Window &w, const char *name) {
  QImage img = w.grab().toImage();
  if (const char *dir = std::getenv("OHMVOL3D_GUI_SHOTS"))
    img.save(QString::fromStdString(std::string(dir) + "/" + name + ".png"));
  return img;
}

std::string Work_Folder() {
  const std::string dir =
      (std::filesystem::temp_directory_path() / ("ohmvol3d_gui_" + std::to_string(getpid())))
          .string();
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

} // namespace

TEST(GuiSession, ReadInvertStopDisplayAndSave) {
  const std::string dir = Work_Folder();
  const std::string data = dir + "/grid_9x14.dat";
  std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/grid_9x14.dat", data);
  // The session's settings and temporary files stay in the work folder.
  Start_Options start;
  start.config_folder = dir + "/";
  start.buffer_folder = dir + "/";
  Gui_Window w(data.c_str(), start);
  Data_Set &ds = w.Ds();
  w.Set_Boxes(0); // no modal boxes in the script
  w.resize(1280, 900);
  w.show();
  QApplication::processEvents();
  // First paint read the file named on the command line.
  ASSERT_EQ(ds.mdata, 711);
  EXPECT_TRUE(w.windowTitle().endsWith("grid_9x14.dat")) << w.windowTitle().toStdString();
  EXPECT_GT(w.Panel()->count(), 5);
  EXPECT_GT(Coloured_Pixels(Shot(w, "1_read")), 100);

  // The inversion: the stop box clicked once iteration 1 has begun ends the
  // run after it, with the model saved and the summary written.
  ds.LS_method.nit = 4;
  QTimer poll;
  int clicked = 0;
  QObject::connect(&poll, &QTimer::timeout, [&]() {
    if (!clicked && ds.LS.nitcount == 1) {
      w.Stop_Box()->click();
      clicked = 1;
    }
  });
  poll.start(5);
  const std::string inv = dir + "/grid_9x14.inv";
  ds.LS.results_path.clear();
  ASSERT_EQ(w.Run_Menu_Command(CMD_INVERT), 0);
  poll.stop();
  EXPECT_EQ(clicked, 1);
  EXPECT_EQ(ds.LS.nitcountres, 1);
  EXPECT_EQ(w.Stop_Box()->text().toStdString(), "    Next");
  ASSERT_TRUE(std::filesystem::exists(inv));
  EXPECT_GT(Coloured_Pixels(Shot(w, "2_inverted")), 100);

  // The results read back and shown; the sections step with the keys.
  ASSERT_EQ(w.Run_Menu_Command(CMD_READ_RESULTS, inv.c_str()), 0);
  ASSERT_EQ(w.Showing_Picture(), 1);
  const QImage shown = Shot(w, "3_sections");
  EXPECT_GT(Coloured_Pixels(shown), 1000);
  EXPECT_EQ(ds.Dw.iteration_shown, 1);
  Picture_View *view = w.Picture();
  QKeyEvent down(QEvent::KeyPress, Qt::Key_PageDown, Qt::NoModifier);
  QApplication::sendEvent(view, &down);
  EXPECT_EQ(ds.Dw.first_section, 1);
  QKeyEvent home(QEvent::KeyPress, Qt::Key_Home, Qt::NoModifier);
  QApplication::sendEvent(view, &home);
  EXPECT_EQ(ds.Dw.first_section, 0);

  // The screen image: the same picture the command line draws.
  const std::string png = dir + "/screen.png";
  ASSERT_EQ(w.Run_Menu_Command(CMD_SAVE_IMAGE, png.c_str()), 0);
  EXPECT_EQ(w.Showing_Picture(), 1);
  QImage saved(QString::fromStdString(png));
  ASSERT_FALSE(saved.isNull());
  EXPECT_GT(Coloured_Pixels(saved), 1000);
  std::filesystem::remove_all(dir);
}

// Every settings dialog shows the present values; OK refuses a value out of
// its bounds and keeps the dialog open; Cancel changes nothing.
TEST(GuiSession, SettingsDialogsShowCheckAndCancel) {
  const std::string dir = Work_Folder();
  Start_Options start;
  start.config_folder = dir + "/";
  start.buffer_folder = dir + "/";
  Gui_Window w(nullptr, start);
  Data_Set &ds = w.Ds();
  struct Probe {
    Data_Set *ds;
    int fields = 0, wrong = 0;
  } probe{&ds};
  const int commands[] = {CMD_LAYER_THICKNESS,  CMD_REDUCE_SIDE,         CMD_DAMPING,
                          CMD_DIAGONAL_FILTERS, CMD_ADJUST_DAMPING_SENS, CMD_RESISTIVITY_RANGE,
                          CMD_REFERENCE_MODEL,  CMD_ITERATIONS,          CMD_LNORM,
                          CMD_LS_SOLVER,        CMD_APPRES_INV,          CMD_MESH_SETTINGS,
                          CMD_FEM_SOLVER,       CMD_JACOBIAN_OPTIONS};
  for (int id : commands) {
    const int before = probe.fields;
    EXPECT_EQ(Run_Settings_Dialog(
                  &w, ds, id,
                  [](QDialog &d, void *u) {
                    Probe &p = *static_cast<Probe *>(u);
                    for (QLineEdit *e : d.findChildren<QLineEdit *>()) {
                      const Setting_Entry *s = Find_Setting(e->objectName().toUtf8().constData());
                      p.fields++;
                      p.wrong += !s || e->text().toStdString() != Format_Setting_Value(*p.ds, *s) ||
                                 e->maxLength() != 15;
                    }
                    d.reject();
                  },
                  &probe),
              0)
        << id;
    EXPECT_GT(probe.fields, before) << "command " << id << " shows no setting";
  }
  EXPECT_EQ(probe.wrong, 0);
  EXPECT_EQ(Run_Settings_Dialog(&w, ds, CMD_INVERT), -1);

  // The iterations: -3 is out of range and refused, 5 is written; Cancel
  // after an edit leaves the value.
  struct Edit {
    const char *text;
    bool ok;
  };
  auto edit_nit = [](QDialog &d, void *u) {
    const Edit &e = *static_cast<Edit *>(u);
    d.findChild<QLineEdit *>("nit")->setText(e.text);
    if (e.ok)
      QMetaObject::invokeMethod(d.findChild<QDialogButtonBox *>(), "accepted");
    else
      d.reject();
  };
  const int old = ds.LS_method.nit;
  Edit bad{"-3", true}, good{"5", true}, cancelled{"7", false};
  EXPECT_EQ(Run_Settings_Dialog(&w, ds, CMD_ITERATIONS, edit_nit, &bad), 0);
  EXPECT_NE(Last_Settings_Refusal().find("The value must be a whole number from"),
            std::string::npos)
      << Last_Settings_Refusal();
  EXPECT_EQ(ds.LS_method.nit, old);
  EXPECT_EQ(Run_Settings_Dialog(&w, ds, CMD_ITERATIONS, edit_nit, &good), 1);
  EXPECT_EQ(ds.LS_method.nit, 5);
  EXPECT_EQ(Run_Settings_Dialog(&w, ds, CMD_ITERATIONS, edit_nit, &cancelled), 0);
  EXPECT_EQ(ds.LS_method.nit, 5);
  std::filesystem::remove_all(dir);
}

int main(int argc, char **argv) {
  if (!std::getenv("QT_QPA_PLATFORM"))
    qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
