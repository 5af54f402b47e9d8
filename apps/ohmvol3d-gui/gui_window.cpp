#include "gui_window.h"

#include <QApplication>
#include <QCloseEvent>
#include <QFileDialog>
#include <QListWidget>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QStackedWidget>
#include <QStatusBar>
#include <QTimer>

#include <algorithm>
#include <cstdio>

#include "core/commands.h"
#include "core/data_set.h"
#include "picture_view.h"
#include "settings_dialog.h"
#include "status_window.h"
#include "ui/display_window.h"
#include "ui/settings_form.h"

namespace {

// The file a command asks for before it runs.
enum Chooser : int {
  CH_NONE = 0,
  CH_OPEN_DATA,
  CH_OPEN_INV,
  CH_SAVE_IVP,
  CH_OPEN_IVP,
  CH_SAVE_IMAGE
};

struct Menu_Entry {
  int menu; // index into menu_titles
  const char *text;
  int id;
  int chooser;
  const char *keys = nullptr; // the entry's accelerator, besides its & letter
};

const char *const menu_titles[] = {"&File",    "&Change Settings", "&Inversion",
                                   "&Display", "&L-Curve",         "&Help"};

// The main menu in its order: every entry sends its command id.
const Menu_Entry menu_entries[] = {
    {0, "&Read data file", CMD_READ_DATA, CH_OPEN_DATA, "Ctrl+O"},
    {0, "&Save data file after reading", CMD_SAVE_SORTED, CH_NONE},
    {0, "Set &buffer drive", CMD_BUFFER_FOLDER, CH_NONE},
    {0, "&Methods to handle data points with large geometric factors", CMD_GEOMETRIC_FILTER,
     CH_NONE},
    {0, "&Filter data points with large geometric factor relative errors", CMD_FILTER_GEOM_ERRORS,
     CH_NONE},
    {0, "&Trace program execution", CMD_TRACE, CH_NONE},
    {0, "E&xit", CMD_EXIT, CH_NONE, "Ctrl+Q"},
    {1, "&Modify thickness of layers", CMD_LAYER_THICKNESS, CH_NONE},
    {1, "&Reduce effect of side blocks", CMD_REDUCE_SIDE, CH_NONE},
    {1, "&Set depths of layers", CMD_LAYER_DEPTHS, CH_NONE},
    {1, "&Display model grid", CMD_DISPLAY_GRID, CH_NONE},
    {1, "Set &damping factors and roughness filters", CMD_DAMPING, CH_NONE},
    {1, "&Diagonal filter options", CMD_DIAGONAL_FILTERS, CH_NONE},
    {1, "&Adjust damping factors using sensitivity values", CMD_ADJUST_DAMPING_SENS, CH_NONE},
    {1, "&Set range of resistivity values", CMD_RESISTIVITY_RANGE, CH_NONE},
    {1, "Use &reference model", CMD_REFERENCE_MODEL, CH_NONE},
    {1, "Use &geometric factors for data weights", CMD_GEOM_FACTOR_WEIGHTS, CH_NONE},
    {1, "Set number of iterations and convergence limit", CMD_ITERATIONS, CH_NONE},
    {1, "&Choose data and model L1 or L2 norm", CMD_LNORM, CH_NONE},
    {1, "&Select type of least_squares solver", CMD_LS_SOLVER, CH_NONE},
    {1, "Calculate model resolution", CMD_RESOLUTION, CH_NONE},
    {1, "&Use log of apparent resistivity in inversion", CMD_APPRES_INV, CH_NONE},
    {1, "&Mesh settings", CMD_MESH_SETTINGS, CH_NONE},
    {1, "Select &type of FEM solver", CMD_FEM_SOLVER, CH_NONE},
    {1, "&Segment Options", CMD_SEGMENT_OPTIONS, CH_NONE},
    {1, "&Jacobian calculation options", CMD_JACOBIAN_OPTIONS, CH_NONE},
    {1, "I.P. &options", CMD_IP_OPTIONS, CH_NONE},
    {1, "I.P. &inversion sequence", CMD_IP_SEQUENCE, CH_NONE},
    {2, "&Data set inversion", CMD_INVERT, CH_NONE, "Ctrl+I"},
    {2, "&Resistivity VOI inversion", CMD_VOI_RESISTIVITY, CH_NONE},
    {2, "&IP VOI inversion", CMD_VOI_IP, CH_NONE},
    {2, "Save inversion parameters", CMD_SAVE_IVP, CH_SAVE_IVP},
    {2, "Read inversion parameters", CMD_READ_IVP, CH_OPEN_IVP},
    {2, "Test wavelet transforms", CMD_TEST_WAVELETS, CH_NONE},
    {3, "&Read file with inverse model", CMD_READ_RESULTS, CH_OPEN_INV, "Ctrl+M"},
    {3, "Display &model", CMD_DISPLAY_MODEL, CH_NONE},
    {3, "Display model grid and &electrodes", CMD_ELECTRODE_MISFIT, CH_NONE},
    {3, "&Save model in XYZ format", CMD_EXPORT_XYZ, CH_NONE},
    {3, "Save model in &Surfer/Voxler XYZC format", CMD_EXPORT_XYZC, CH_NONE},
    {3, "Save model in &VTK format", CMD_EXPORT_VTK, CH_NONE},
    {3, "Output data misfits in text file", CMD_EXPORT_MISFIT, CH_NONE},
    {3, "&Calculate VOI from inv files", CMD_VOI_FROM_FILES, CH_NONE},
    {3, "&Save screen image", CMD_SAVE_IMAGE, CH_SAVE_IMAGE, "Ctrl+S"},
    {4, "&Calculate L-curve numerical", CMD_LCURVE_NUMERICAL, CH_NONE},
    {4, "Calculate L-curve &analytical", CMD_LCURVE_ANALYTICAL, CH_NONE},
    {4, "&Reject L-curve points", CMD_LCURVE_REJECT, CH_NONE},
    {4, "&Plot L-curves", CMD_LCURVE_PLOT, CH_NONE},
    {4, "&Select Resistivity or IP L-curves", CMD_LCURVE_SELECT, CH_NONE},
    {5, "&Program Info", CMD_PROGRAM_INFO, CH_NONE},
};

// Caption, filter and kind of each chooser, by Chooser.
struct File_Chooser {
  const char *caption, *filter;
  bool save;
};
const File_Chooser choosers[] = {
    {"", "", false},
    {"Read data file", "Data files (*.dat)", false},
    {"Read file with inverse model", "Inversion files (*.inv)", false},
    {"Save inversion parameters file", "Inversion parameters (*.ivp)", true},
    {"Read inversion parameters file", "Inversion parameters (*.ivp)", false},
    {"Save screen image", "", true}};

// The screen image's types, the ini's "Graphics file type" first: PNG for
// "png", a bitmap for the rest.
QString Image_Filters(int graphics_type) {
  const QString png = "PNG (*.png)", bmp = "Bitmap (*.bmp)";
  return graphics_type == 2 ? png + ";;" + bmp : bmp + ";;" + png;
}

const char *const stop_idle = "    Next", *const stop_armed = "Exit Next";

QString Program_Title() {
  return QString::asprintf("Ohmvol3Dx64 ver. %d.%d.%d", version_major, version_minor, version_sub);
}

} // namespace

std::string Command_Line_File(int argc, char **argv) {
  std::string line;
  for (int i = 1; i < argc; i++)
    line += std::string(i > 1 ? " " : "") + argv[i];
  const size_t first = line.find_first_not_of(' '), last = line.find_last_not_of(' ');
  if (first == std::string::npos)
    return {};
  line = line.substr(first, last - first + 1);
  return line.size() <= 254 ? line : std::string();
}

Front_End Gui_Window::Window_Front_End(Gui_Window *w) {
  Front_End fe;
  fe.user = w;
  fe.message = [](void *u, const char *title, const char *text, int kind) {
    auto *g = static_cast<Gui_Window *>(u);
    if (!g->boxes) {
      g->panel->addItem(QString::fromUtf8(title) + ": " + QString::fromUtf8(text));
      return;
    }
    const QMessageBox::Icon icon = kind == MK_WARNING       ? QMessageBox::Warning
                                   : kind == MK_INFORMATION ? QMessageBox::Information
                                                            : QMessageBox::NoIcon;
    QMessageBox box(icon, QString::fromUtf8(title), QString::fromUtf8(text), QMessageBox::Ok, g);
    box.exec();
  };
  fe.question = [](void *u, const char *title, const char *text) {
    if (!static_cast<Gui_Window *>(u)->boxes)
      return 0;
    return QMessageBox::question(static_cast<Gui_Window *>(u), QString::fromUtf8(title),
                                 QString::fromUtf8(text)) == QMessageBox::Yes
               ? 1
               : 0;
  };
  fe.panel_line = [](void *u, const char *text, int indent) {
    QListWidget *p = static_cast<Gui_Window *>(u)->panel;
    p->addItem(QString(indent ? "    " : "") + QString::fromUtf8(text));
    p->scrollToBottom();
  };
  fe.progress = [](void *u, const char *text, double fraction) {
    auto *g = static_cast<Gui_Window *>(u);
    g->status->Set_Status(QString::fromUtf8(text), fraction);
    // The pump: menus, the stop box and repaints stay live during long work.
    QCoreApplication::processEvents();
    return g->quit_asked;
  };
  fe.beep = [](void *) { QApplication::beep(); };
  return fe;
}

Gui_Window::Gui_Window(const char *data_file, const Start_Options &start)
    : first_file(data_file ? data_file : "") {
  Front_End fe = Window_Front_End(this);
  Install_Image_Front_End(fe, image);
  ds = std::make_unique<Data_Set>(start, fe);
  pages = new QStackedWidget(this);
  panel = new QListWidget(pages);
  panel->setFont(QFont(QStringLiteral("DejaVu Sans Mono"), 9));
  picture = new Picture_View(*ds, pages);
  pages->addWidget(panel);
  pages->addWidget(picture);
  setCentralWidget(pages);
  status = new Status_Window(this);
  stop = new QPushButton(stop_idle, this);
  stop->setFixedWidth(90);
  // The stop box: a click arms the stop at the next iteration, another disarms it.
  connect(stop, &QPushButton::clicked, this, [this]() {
    ds->exit_next = !ds->exit_next;
    stop->setText(ds->exit_next ? stop_armed : stop_idle);
  });
  statusBar()->addWidget(status, 1);
  statusBar()->addPermanentWidget(stop);
  Build_Menus();
  setWindowTitle(Program_Title());
  ds->Create();
}

Gui_Window::~Gui_Window() {
  ds->Exit();
}

void Gui_Window::Build_Menus() {
  QMenu *menus[6];
  for (int k = 0; k < 6; k++)
    menus[k] = menuBar()->addMenu(menu_titles[k]);
  for (const Menu_Entry &e : menu_entries) {
    QAction *a = menus[e.menu]->addAction(QString::fromUtf8(e.text));
    if (e.keys)
      a->setShortcut(QKeySequence(QString::fromUtf8(e.keys)));
    const int id = e.id;
    connect(a, &QAction::triggered, this, [this, id]() { Run_Menu_Command(id); });
  }
}

void Gui_Window::showEvent(QShowEvent *e) {
  QMainWindow::showEvent(e);
  if (first_paint_started)
    return;
  first_paint_started = true;
  // After the window has painted once: a message box of the first paint
  // (a short buffer folder, a read error) then stands over the window.
  QTimer::singleShot(0, this, [this]() { First_Paint(); });
}

void Gui_Window::First_Paint() {
  // The report names the screen the window is on.
  if (const QScreen *screen = this->screen()) {
    ds->System_config.screen_width = screen->size().width();
    ds->System_config.screen_height = screen->size().height();
  }
  ds->First_Paint(1);
  if (!first_file.empty())
    Run_Menu_Command(CMD_READ_DATA, first_file.c_str());
  first_paint_done = true;
}

void Gui_Window::closeEvent(QCloseEvent *e) {
  if (running) {
    // A run in progress ends at its next pump; the window closes after it.
    quit_asked = 1;
    ds->exit_next = 1;
    e->ignore();
    return;
  }
  e->accept();
}

void Gui_Window::Show_Picture(bool on) {
  pages->setCurrentIndex(on ? 1 : 0);
  if (on)
    picture->Redraw();
}

int Gui_Window::Showing_Picture() const {
  return pages->currentIndex() == 1;
}

void Gui_Window::Set_Title() {
  // Only a read of more than 10 data points names its file in the title.
  if (ds->mdata > 10)
    setWindowTitle(Program_Title() + " - " + QString::fromStdString(ds->file_names.data_file));
}

int Gui_Window::Run_Menu_Command(int id, const char *path) {
  if (running) {
    if (boxes)
      QMessageBox::information(this, "Message",
                               "The program is busy. Click the stop box to end the inversion after "
                               "this iteration, or wait until the work is done.");
    return -1;
  }
  std::string chosen = path ? path : "";
  int chooser = CH_NONE;
  for (const Menu_Entry &e : menu_entries)
    if (e.id == id)
      chooser = e.chooser;
  if (!path && chooser != CH_NONE) {
    const File_Chooser &c = choosers[chooser];
    const QString filter = chooser == CH_SAVE_IMAGE
                               ? Image_Filters(ds->System_config.Ini.graphics_type)
                               : QString(c.filter);
    QString selected;
    QString f = c.save
                    ? QFileDialog::getSaveFileName(this, c.caption, QString(), filter, &selected)
                    : QFileDialog::getOpenFileName(this, c.caption, QString(), filter, &selected);
    if (f.isEmpty())
      return -1;
    if (chooser == CH_SAVE_IMAGE && !f.endsWith(".png", Qt::CaseInsensitive) &&
        !f.endsWith(".bmp", Qt::CaseInsensitive))
      f += selected.startsWith("PNG") ? ".png" : ".bmp";
    chosen = f.toStdString();
  }
  if (id == CMD_EXIT) {
    close();
    return 0;
  }
  // The settings dialogs are the window's own: their values go straight to
  // the settings. Where the core has work for the command (the model and
  // mesh settings rebuild the model of the data read), it follows.
  if (!Dialog_Titles_Of(id).empty()) {
    if (Run_Settings_Dialog(this, *ds, id) != 1)
      return -1;
    if (!Is_Built_Command(id))
      return 0;
  }
  const bool picture_before = Showing_Picture();
  if (id != CMD_SAVE_IMAGE) {
    panel->clear();
    Show_Picture(false);
  }
  running = 1;
  ds->exit_next = 0;
  stop->setText(stop_idle);
  const int ierr = ds->Run_Command(id, chosen.empty() ? nullptr : chosen.c_str());
  running = 0;
  ds->exit_next = 0;
  stop->setText(stop_idle);
  status->Set_Status(status->Text(), 0.0);
  if (id == CMD_READ_DATA)
    Set_Title();
  if (id == CMD_SAVE_IMAGE)
    Show_Picture(picture_before);
  else if (ierr == 0 && (id == CMD_READ_RESULTS || id == CMD_DISPLAY_MODEL))
    Show_Picture(ds->Run_Command(CMD_DISPLAY_MODEL) == 0);
  else if (ierr == 0 && id == CMD_ELECTRODE_MISFIT)
    Show_Picture(true);
  if (quit_asked)
    close();
  return ierr;
}
