// The desktop window driven by a script, offscreen: a data file read at
// first paint, settings changed through the menus' dialogs, an inversion run
// to its end, the results read back and shown, the sections stepped with the
// keys, the model exported and the screen image saved; and a run ended by a
// click on the stop box. The window's contents are captured after each step
// (written to OHMVOL3D_GUI_SHOTS when that is set).
#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QGroupBox>
#include <QImage>
#include <QImageReader>
#include <QKeyEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/settings_table.h"
#include "gui_window.h"
#include "picture_view.h"
#include "settings_dialog.h"
#include "status_window.h"
#include "ui/display_window.h"
#include "ui/qt/qimage_surface.h"
#include "ui/settings_form.h"

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

// A work folder of the test's own, with a copy of an example data file.
struct Work {
  std::string dir, data;
  Start_Options start;
  explicit Work(const char *example = nullptr) {
    dir = (std::filesystem::temp_directory_path() / ("ohmvol3d_gui_" + std::to_string(getpid())))
              .string();
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    if (example) {
      data = dir + "/" + example;
      std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/" + example, data);
    }
    // The session's settings and temporary files stay in the work folder.
    start.config_folder = dir + "/";
    start.buffer_folder = dir + "/";
  }
  ~Work() { std::filesystem::remove_all(dir); }
};

// Does `act` to the next modal dialog once it is open (the menu command that
// opens it waits in the dialog's own event loop).
void On_Next_Dialog(std::function<void(QDialog &)> act) {
  auto *poll = new QTimer;
  QObject::connect(poll, &QTimer::timeout, [poll, act]() {
    auto *d = qobject_cast<QDialog *>(QApplication::activeModalWidget());
    if (!d)
      return;
    poll->stop();
    poll->deleteLater();
    act(*d);
  });
  poll->start(5);
}

void Set_Edit(QDialog &d, const char *key, const QString &text) {
  QLineEdit *e = d.findChild<QLineEdit *>(key);
  ASSERT_NE(e, nullptr) << key;
  e->setText(text);
}

void Press(QDialog &d, QDialogButtonBox::StandardButton which) {
  QTest::mouseClick(d.findChild<QDialogButtonBox *>()->button(which), Qt::LeftButton);
}

// Shows the window and waits for its first paint's work.
void Show_And_Wait(Gui_Window &w) {
  w.show();
  while (!w.First_Paint_Done())
    QApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
}

void Key(QWidget *w, int key) {
  QKeyEvent e(QEvent::KeyPress, key, Qt::NoModifier);
  QApplication::sendEvent(w, &e);
}

// Pixels of two images of one size that differ.
int64_t Differing_Pixels(const QImage &a, const QImage &b) {
  int64_t n = 0;
  for (int y = 0; y < a.height(); y++)
    for (int x = 0; x < a.width(); x++)
      n += (a.pixel(x, y) & 0xffffff) != (b.pixel(x, y) & 0xffffff);
  return n;
}

} // namespace

TEST(GuiSession, ScriptedSessionToTheEnd) {
  Work work("grid_9x14.dat");
  Gui_Window w(work.data.c_str(), work.start);
  Data_Set &ds = w.Ds();
  w.Set_Boxes(0); // messages to the panel: no boxes wait in the script
  w.resize(1280, 900);
  Show_And_Wait(w);
  // First paint read the file named on the command line and named it in
  // the title.
  ASSERT_EQ(ds.mdata, 711);
  EXPECT_EQ(w.windowTitle().toStdString(), "Ohmvol3Dx64 ver. 1.0.0 - " + work.data);
  EXPECT_FALSE(w.Panel()->findItems("Inversion Parameters", Qt::MatchContains).isEmpty());
  EXPECT_GT(Coloured_Pixels(Shot(w, "1_read")), 100);

  // The layers: a thicker first layer through the menu's dialog rebuilds
  // the model of the data read.
  const float first_depth = ds.Model_grid.zbl[1];
  const double thick1 = ds.Model_grid.thick1 * 1.5;
  On_Next_Dialog([&](QDialog &d) {
    Set_Edit(d, "thick1", QString::number(thick1, 'f', 4));
    Press(d, QDialogButtonBox::Ok);
  });
  EXPECT_EQ(w.Run_Menu_Command(CMD_LAYER_THICKNESS), 0);
  EXPECT_NEAR(ds.Model_grid.thick1, thick1, 1e-4);
  EXPECT_GT(ds.Model_grid.zbl[1], first_depth * 1.2f);
  Shot(w, "2_layers");

  // Damping: a new initial damping and the first layer's extra damping on;
  // the iterations: three.
  const int first_layer = ds.LS_method.use_first_layer_damp;
  On_Next_Dialog([&](QDialog &d) {
    Set_Edit(d, "fmarq1", "0.2");
    QCheckBox *c = d.findChild<QCheckBox *>("use_first_layer_damp");
    ASSERT_NE(c, nullptr);
    QTest::mouseClick(c, Qt::LeftButton);
    Press(d, QDialogButtonBox::Ok);
  });
  EXPECT_EQ(w.Run_Menu_Command(CMD_DAMPING), 0);
  EXPECT_DOUBLE_EQ(ds.LS_method.fmarq1, 0.2);
  EXPECT_EQ(ds.LS_method.use_first_layer_damp, 1 - first_layer);
  On_Next_Dialog([&](QDialog &d) {
    Set_Edit(d, "nit", "3");
    Press(d, QDialogButtonBox::Ok);
  });
  EXPECT_EQ(w.Run_Menu_Command(CMD_ITERATIONS), 0);
  ASSERT_EQ(ds.LS_method.nit, 3);
  Shot(w, "3_settings");

  // The inversion to its end.
  const std::string inv = work.dir + "/grid_9x14.inv";
  ds.LS.results_path.clear();
  ASSERT_EQ(w.Run_Menu_Command(CMD_INVERT), 0);
  ASSERT_TRUE(std::filesystem::exists(inv));
  EXPECT_EQ(ds.LS.nitcountres, 3);
  EXPECT_GT(Coloured_Pixels(Shot(w, "4_inverted")), 100);

  // The results read back and shown; the sections step with the keys.
  ASSERT_EQ(w.Run_Menu_Command(CMD_READ_RESULTS, inv.c_str()), 0);
  ASSERT_EQ(w.Run_Menu_Command(CMD_DISPLAY_MODEL), 0);
  ASSERT_EQ(w.Showing_Picture(), 1);
  EXPECT_GT(Coloured_Pixels(Shot(w, "5_sections")), 1000);
  EXPECT_EQ(ds.Dw.iteration_shown, 3);
  Picture_View *view = w.Picture();
  Key(view, Qt::Key_PageDown);
  EXPECT_EQ(ds.Dw.first_section, std::min(1, ds.Dw.nsections - 1));
  Key(view, Qt::Key_End);
  EXPECT_EQ(ds.Dw.first_section, ds.Dw.nsections - 1);
  Key(view, Qt::Key_PageUp);
  EXPECT_EQ(ds.Dw.first_section, std::max(ds.Dw.nsections - 2, 0));
  Key(view, Qt::Key_Home);
  EXPECT_EQ(ds.Dw.first_section, 0);

  // The model exported to VTK beside the results file.
  w.Panel()->clear();
  ASSERT_EQ(w.Run_Menu_Command(CMD_EXPORT_VTK), 0);
  const QList<QListWidgetItem *> written =
      w.Panel()->findItems("File written ", Qt::MatchStartsWith);
  ASSERT_FALSE(written.isEmpty());
  const std::string vtk = written[0]->text().mid(13).toStdString();
  EXPECT_TRUE(vtk.ends_with(".vtk")) << vtk;
  EXPECT_GT(std::filesystem::file_size(vtk), 1000u);

  // The screen image, as PNG and as a bitmap: the picture on show, and the
  // picture the command line draws of the same iteration at the same size.
  ASSERT_EQ(w.Run_Menu_Command(CMD_DISPLAY_MODEL), 0);
  const std::string png = work.dir + "/screen.png", bmp = work.dir + "/screen.bmp";
  ASSERT_EQ(w.Run_Menu_Command(CMD_SAVE_IMAGE, png.c_str()), 0);
  ASSERT_EQ(w.Run_Menu_Command(CMD_SAVE_IMAGE, bmp.c_str()), 0);
  EXPECT_EQ(w.Showing_Picture(), 1);
  const QImage saved(QString::fromStdString(png)), saved_bmp(QString::fromStdString(bmp));
  ASSERT_FALSE(saved.isNull());
  EXPECT_EQ(QImageReader::imageFormat(QString::fromStdString(bmp)), "bmp");
  EXPECT_EQ(saved.size(), w.Picture()->size());
  EXPECT_EQ(Differing_Pixels(saved, saved_bmp), 0);
  const std::string cli_png = work.dir + "/cli.png";
  const std::string cmd = std::string(OHMVOL3D_CLI) + " --quiet --buffer " + work.dir + " plot " +
                          inv + " --iteration 3 --size " + std::to_string(saved.width()) + "x" +
                          std::to_string(saved.height()) + " -o " + cli_png + " > /dev/null 2>&1";
  ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
  const QImage cli(QString::fromStdString(cli_png));
  ASSERT_EQ(cli.size(), saved.size());
  EXPECT_EQ(Differing_Pixels(saved, cli), 0);
}

// A click on the stop box during iteration 1 ends the run after that
// iteration, with its model saved and the summary written.
TEST(GuiSession, StopBoxEndsTheRunAfterTheIteration) {
  Work work("grid_9x14.dat");
  Gui_Window w(work.data.c_str(), work.start);
  Data_Set &ds = w.Ds();
  w.Set_Boxes(0);
  w.resize(1024, 768);
  Show_And_Wait(w);
  ASSERT_EQ(ds.mdata, 711);
  ds.LS_method.nit = 4;
  QTimer poll;
  int clicked = 0;
  QObject::connect(&poll, &QTimer::timeout, [&]() {
    if (!clicked && ds.LS.nitcount == 1) {
      QTest::mouseClick(w.Stop_Box(), Qt::LeftButton);
      clicked = 1;
      EXPECT_EQ(w.Stop_Box()->text().toStdString(), "Exit Next");
      // The status window follows the run.
      EXPECT_NE(w.Status()->Text().toStdString(), "Program information status window");
      // Another command while the run goes on is refused.
      EXPECT_EQ(w.Run_Menu_Command(CMD_READ_RESULTS, "x.inv"), -1);
    }
  });
  poll.start(5);
  ds.LS.results_path.clear();
  ASSERT_EQ(w.Run_Menu_Command(CMD_INVERT), 0);
  poll.stop();
  EXPECT_EQ(clicked, 1);
  EXPECT_EQ(ds.LS.nitcountres, 1);
  EXPECT_EQ(w.Stop_Box()->text().toStdString(), "    Next");
  const std::string inv = work.dir + "/grid_9x14.inv";
  ASSERT_TRUE(std::filesystem::exists(inv));
  ASSERT_EQ(w.Run_Menu_Command(CMD_READ_RESULTS, inv.c_str()), 0);
  EXPECT_EQ(ds.Inv_results.nitcount_inv, 1);
  EXPECT_EQ(w.Showing_Picture(), 1);
}

// Every settings dialog opens with the present values in its controls; OK
// refuses a value out of its bounds and keeps the dialog open; Cancel leaves
// every value, the radio buttons' and check boxes' included.
TEST(GuiSession, SettingsDialogsShowCheckAndCancel) {
  Work work;
  Gui_Window w(nullptr, work.start);
  Data_Set &ds = w.Ds();
  EXPECT_EQ(w.Status()->Text().toStdString(), "Program information status window");
  EXPECT_EQ(w.windowTitle().toStdString(), "Ohmvol3Dx64 ver. 1.0.0");
  struct Probe {
    Data_Set *ds;
    int fields = 0, wrong = 0, radios = 0, checks = 0;
  } probe{&ds};
  const int commands[] = {CMD_LAYER_THICKNESS,  CMD_REDUCE_SIDE,         CMD_DAMPING,
                          CMD_DIAGONAL_FILTERS, CMD_ADJUST_DAMPING_SENS, CMD_RESISTIVITY_RANGE,
                          CMD_REFERENCE_MODEL,  CMD_ITERATIONS,          CMD_LNORM,
                          CMD_LS_SOLVER,        CMD_APPRES_INV,          CMD_MESH_SETTINGS,
                          CMD_FEM_SOLVER,       CMD_JACOBIAN_OPTIONS};
  for (int id : commands) {
    const int before = probe.fields;
    const std::string ivp_before = [&] {
      std::string all;
      for (int i = 0; i < nsettings_table; i++)
        all += Format_Setting_Value(ds, settings_table[i]) + "\n";
      return all;
    }();
    EXPECT_EQ(Run_Settings_Dialog(
                  &w, ds, id,
                  [](QDialog &d, void *u) {
                    Probe &p = *static_cast<Probe *>(u);
                    auto setting = [](QObject *o) {
                      return Find_Setting(o->objectName().toUtf8().constData());
                    };
                    for (QLineEdit *e : d.findChildren<QLineEdit *>()) {
                      const Setting_Entry *s = setting(e);
                      p.fields++;
                      p.wrong += !s || e->text().toStdString() != Format_Setting_Value(*p.ds, *s) ||
                                 e->maxLength() != 15;
                    }
                    // A check box shows its setting, and a click on it is undone
                    // by Cancel.
                    for (QCheckBox *c : d.findChildren<QCheckBox *>()) {
                      const Setting_Entry *s = setting(c);
                      p.fields++;
                      p.checks++;
                      p.wrong += !s || c->isChecked() != (Format_Setting_Value(*p.ds, *s) != "0");
                      c->click();
                    }
                    // A radio group has its present value's button checked; a
                    // click on another writes at once, and Cancel undoes it.
                    for (QGroupBox *g : d.findChildren<QGroupBox *>()) {
                      const Setting_Entry *s = setting(g);
                      if (!s)
                        continue;
                      p.fields++;
                      p.radios++;
                      std::vector<Setting_Choice> choices;
                      p.wrong += Setting_Control(*s, choices) != CT_RADIO;
                      const QList<QRadioButton *> buttons = g->findChildren<QRadioButton *>();
                      const int now = std::atoi(Format_Setting_Value(*p.ds, *s).c_str());
                      for (size_t k = 0; k < choices.size() && k < size_t(buttons.size()); k++)
                        p.wrong += buttons[k]->isChecked() != (choices[k].value == now);
                      for (size_t k = 0; k < choices.size() && k < size_t(buttons.size()); k++)
                        if (choices[k].value != now) {
                          buttons[k]->click();
                          p.wrong += std::atoi(Format_Setting_Value(*p.ds, *s).c_str()) !=
                                     choices[k].value;
                          break;
                        }
                    }
                    Press(d, QDialogButtonBox::Cancel);
                  },
                  &probe),
              0)
        << id;
    EXPECT_GT(probe.fields, before) << "command " << id << " shows no setting";
    std::string after;
    for (int i = 0; i < nsettings_table; i++)
      after += Format_Setting_Value(ds, settings_table[i]) + "\n";
    EXPECT_EQ(after, ivp_before) << "Cancel of command " << id << " changed a setting";
  }
  EXPECT_EQ(probe.wrong, 0);
  EXPECT_GT(probe.radios, 5);
  EXPECT_GT(probe.checks, 5);
  EXPECT_EQ(Run_Settings_Dialog(&w, ds, CMD_INVERT), -1);

  // The iterations: -3 and 2.5 are refused with the range, 5 is written;
  // Cancel after an edit leaves the value.
  struct Edit {
    const char *text;
    bool ok;
  };
  auto edit_nit = [](QDialog &d, void *u) {
    const Edit &e = *static_cast<Edit *>(u);
    Set_Edit(d, "nit", e.text);
    Press(d, e.ok ? QDialogButtonBox::Ok : QDialogButtonBox::Cancel);
    if (d.result() != QDialog::Accepted)
      d.reject(); // a refused value leaves the dialog open
  };
  const int old = ds.LS_method.nit;
  for (const char *bad : {"-3", "2.5", "ten"}) {
    Edit e{bad, true};
    EXPECT_EQ(Run_Settings_Dialog(&w, ds, CMD_ITERATIONS, edit_nit, &e), 0) << bad;
    EXPECT_EQ(Last_Settings_Refusal(),
              "Number of iterations set (1 to 10) :-\nThe value must be a whole number from 1 to "
              "10.");
    EXPECT_EQ(ds.LS_method.nit, old);
  }
  Edit good{"5", true}, cancelled{"7", false};
  EXPECT_EQ(Run_Settings_Dialog(&w, ds, CMD_ITERATIONS, edit_nit, &good), 1);
  EXPECT_EQ(ds.LS_method.nit, 5);
  EXPECT_EQ(Run_Settings_Dialog(&w, ds, CMD_ITERATIONS, edit_nit, &cancelled), 0);
  EXPECT_EQ(ds.LS_method.nit, 5);

  // The dialogs of work not built yet refuse through the dispatcher.
  w.Set_Boxes(0);
  for (int id : {CMD_IP_OPTIONS, CMD_SEGMENT_OPTIONS, CMD_RESOLUTION, CMD_VOI_RESISTIVITY}) {
    w.Panel()->clear();
    EXPECT_EQ(w.Run_Menu_Command(id), 1) << id;
    EXPECT_FALSE(
        w.Panel()->findItems("This command is not available yet.", Qt::MatchContains).isEmpty())
        << id;
  }
}

// The offscreen platform's note on every dialog shown says nothing of use.
void Quiet_Platform_Notes(QtMsgType type, const QMessageLogContext &, const QString &text) {
  if (!text.contains("propagateSizeHints"))
    std::fprintf(stderr, "%s%s\n", type == QtWarningMsg ? "Qt: " : "", text.toUtf8().constData());
}

// The command line's file name: the words after the program, joined and
// trimmed, kept when 1 to 254 characters long.
TEST(GuiSession, CommandLineFileName) {
  char prog[] = "ohmvol3d-gui", a[] = "my", b[] = "survey.dat ", blank[] = "  ";
  char *two[] = {prog, a, b}, *none[] = {prog}, *blanks[] = {prog, blank};
  EXPECT_EQ(Command_Line_File(3, two), "my survey.dat");
  EXPECT_EQ(Command_Line_File(1, none), "");
  EXPECT_EQ(Command_Line_File(2, blanks), "");
  std::string longest(254, 'x'), too_long(255, 'x');
  char *l1[] = {prog, longest.data()}, *l2[] = {prog, too_long.data()};
  EXPECT_EQ(Command_Line_File(2, l1), longest);
  EXPECT_EQ(Command_Line_File(2, l2), "");
}

int main(int argc, char **argv) {
  qInstallMessageHandler(Quiet_Platform_Notes);
  Ensure_Runtime_Folder();
  if (!std::getenv("QT_QPA_PLATFORM"))
    qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
