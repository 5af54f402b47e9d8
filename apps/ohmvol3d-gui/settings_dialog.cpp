#include "settings_dialog.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QVBoxLayout>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/settings_table.h"

namespace {

struct Command_Dialogs {
  int command;
  std::vector<const char *> titles;
};

// The settings dialogs of the main menu's commands, by the titles of the
// settings table.
const Command_Dialogs command_dialogs[] = {
    {CMD_LAYER_THICKNESS, {"Change model discretization parameters"}},
    {CMD_REDUCE_SIDE, {"Reduce effect of side blocks"}},
    {CMD_DAMPING,
     {"Set roughness filters and damping factors", "Set damping factors",
      "Choose vertical-to-horizontal roughness filter ratio", "Increase damping factor with depth",
      "Use combined Marquardt and Occam inversion"}},
    {CMD_DIAGONAL_FILTERS, {"Diagonal filters options"}},
    {CMD_ADJUST_DAMPING_SENS,
     {"Reduce resistivity changes near electrodes using sensitivity values",
      "Reduce resistivity changes near electrodes using approximate resolution values"}},
    {CMD_RESISTIVITY_RANGE,
     {"Limit range of model resistivity values",
      "Use barrier function method to limit range of model resistivity values"}},
    {CMD_REFERENCE_MODEL, {"Use reference model"}},
    {CMD_ITERATIONS,
     {"Number of iterations and convergence settings", "Add additional iterations"}},
    {CMD_LNORM, {"Select robust inversion"}},
    {CMD_LS_SOLVER, {"Type of method to solve least-squares equation"}},
    {CMD_APPRES_INV, {"Use logarithm of apparent resistivity"}},
    {CMD_MESH_SETTINGS, {"Finite-element mesh settings"}},
    {CMD_FEM_SOLVER, {"Type of numerical solver for finite-element calculations"}},
    {CMD_JACOBIAN_OPTIONS, {"Jacobian calculation options"}},
};

struct Row {
  const Setting_Entry *e;
  QLineEdit *edit;
};

std::string last_refusal;

// The caption as one line (the table's captions may hold line breaks).
QString Caption(const char *c) {
  return QString::fromUtf8(c).replace('\n', ' ').trimmed();
}

} // namespace

const std::string &Last_Settings_Refusal() {
  return last_refusal;
}

std::vector<const char *> Dialog_Titles_Of(int command) {
  for (const Command_Dialogs &d : command_dialogs)
    if (d.command == command)
      return d.titles;
  return {};
}

int Run_Settings_Dialog(QWidget *parent, Data_Set &ds, int command,
                        void (*script)(QDialog &, void *), void *user) {
  const std::vector<const char *> titles = Dialog_Titles_Of(command);
  if (titles.empty())
    return -1;
  QDialog dialog(parent);
  dialog.setWindowTitle(QString::fromUtf8(titles[0]));
  auto *layout = new QVBoxLayout(&dialog);
  std::vector<Row> rows;
  for (const char *title : titles) {
    QGroupBox *box = nullptr;
    QFormLayout *form = nullptr;
    for (int i = 0; i < nsettings_table; i++) {
      const Setting_Entry &e = settings_table[i];
      if (e.kind == SK_FIXED || !e.dialog || std::strcmp(e.dialog, title) != 0)
        continue;
      if (!box) {
        box = new QGroupBox(QString::fromUtf8(title), &dialog);
        form = new QFormLayout(box);
        layout->addWidget(box);
      }
      auto *edit = new QLineEdit(QString::fromStdString(Format_Setting_Value(ds, e)), box);
      edit->setMaxLength(15);
      edit->setObjectName(QString::fromUtf8(e.key));
      auto *label = new QLabel(Caption(e.caption), box);
      label->setWordWrap(true);
      form->addRow(label, edit);
      rows.push_back({&e, edit});
    }
  }
  auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
  layout->addWidget(buttons);
  QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
  QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, [&]() {
    // Every value is checked before any is written.
    for (const Row &r : rows) {
      const std::string text = r.edit->text().trimmed().toStdString();
      char *end = nullptr;
      const double v = std::strtod(text.c_str(), &end);
      const bool number = !text.empty() && end && *end == '\0';
      const bool whole =
          r.e->kind == SK_REAL || v == static_cast<double>(static_cast<long long>(v));
      if (!number || !whole || v < r.e->lo || v > r.e->hi) {
        const QString why = QString("%1\nThe value must be %2 from %3 to %4.")
                                .arg(Caption(r.e->caption))
                                .arg(r.e->kind == SK_REAL ? "a number" : "a whole number")
                                .arg(r.e->lo)
                                .arg(r.e->hi);
        last_refusal = why.toStdString();
        if (!script)
          QMessageBox::warning(&dialog, "Message", why);
        r.edit->setFocus();
        return;
      }
    }
    for (const Row &r : rows)
      Set_Setting_Text(ds, *r.e, r.edit->text().trimmed().toUtf8().constData());
    dialog.accept();
  });
  if (script) {
    script(dialog, user);
    return dialog.result() == QDialog::Accepted ? 1 : 0;
  }
  return dialog.exec() == QDialog::Accepted ? 1 : 0;
}
