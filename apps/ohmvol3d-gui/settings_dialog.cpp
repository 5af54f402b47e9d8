#include "settings_dialog.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QRadioButton>
#include <QVBoxLayout>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/settings_table.h"
#include "ui/settings_form.h"

namespace {

struct Edit_Row {
  const Setting_Entry *e;
  QLineEdit *edit;
};

// A radio group or check box: the value it had when the dialog opened.
struct Choice_Row {
  const Setting_Entry *e;
  std::string kept;
};

std::string last_refusal;

void Add_Choice_Control(QDialog &dialog, Data_Set &ds, const Setting_Entry &e, QWidget *box,
                        QFormLayout *form, std::vector<Setting_Choice> &choices, int kind) {
  const QString text = QString::fromStdString(Setting_Form_Text(e));
  const int now = std::atoi(Format_Setting_Value(ds, e).c_str());
  const Setting_Entry *pe = &e;
  Data_Set *pds = &ds;
  if (kind == CT_CHECK) {
    auto *check = new QCheckBox(text, box);
    check->setObjectName(QString::fromUtf8(e.key));
    check->setChecked(now != 0);
    QObject::connect(check, &QCheckBox::toggled, &dialog,
                     [pds, pe](bool on) { Set_Setting_Text(*pds, *pe, on ? "1" : "0"); });
    form->addRow(check);
    return;
  }
  auto *group_box = new QGroupBox(text, box);
  group_box->setObjectName(QString::fromUtf8(e.key));
  auto *column = new QVBoxLayout(group_box);
  auto *group = new QButtonGroup(group_box);
  for (const Setting_Choice &c : choices) {
    auto *b = new QRadioButton(QString::fromStdString(c.label), group_box);
    group->addButton(b, c.value);
    b->setChecked(c.value == now);
    column->addWidget(b);
  }
  QObject::connect(group, &QButtonGroup::idClicked, &dialog, [pds, pe](int value) {
    Set_Setting_Text(*pds, *pe, std::to_string(value).c_str());
  });
  form->addRow(group_box);
}

} // namespace

const std::string &Last_Settings_Refusal() {
  return last_refusal;
}

int Run_Settings_Dialog(QWidget *parent, Data_Set &ds, int command,
                        void (*script)(QDialog &, void *), void *user) {
  const std::vector<const char *> titles = Dialog_Titles_Of(command);
  if (titles.empty())
    return -1;
  QDialog dialog(parent);
  dialog.setWindowTitle(QString::fromUtf8(titles[0]));
  auto *layout = new QVBoxLayout(&dialog);
  std::vector<Edit_Row> edits;
  std::vector<Choice_Row> kept;
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
      std::vector<Setting_Choice> choices;
      const int kind = Setting_Control(e, choices);
      if (kind != CT_EDIT) {
        kept.push_back({&e, Format_Setting_Value(ds, e)});
        Add_Choice_Control(dialog, ds, e, box, form, choices, kind);
        continue;
      }
      auto *edit = new QLineEdit(QString::fromStdString(Format_Setting_Value(ds, e)), box);
      edit->setMaxLength(edit_box_limit);
      edit->setObjectName(QString::fromUtf8(e.key));
      auto *label = new QLabel(QString::fromStdString(Setting_Form_Text(e)), box);
      label->setWordWrap(true);
      form->addRow(label, edit);
      edits.push_back({&e, edit});
    }
  }
  auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
  layout->addWidget(buttons);
  QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
  // Cancel, Escape or the close box: the radio groups and check boxes get
  // back the values they had.
  QObject::connect(&dialog, &QDialog::rejected, &dialog, [&]() {
    for (const Choice_Row &k : kept)
      Set_Setting_Text(ds, *k.e, k.kept.c_str());
  });
  QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, [&]() {
    // Every value is checked before any is written.
    for (const Edit_Row &r : edits) {
      std::string why;
      if (Check_Setting_Text(*r.e, r.edit->text().toUtf8().constData(), why) == 0)
        continue;
      last_refusal = why;
      if (!script)
        QMessageBox::warning(&dialog, "Message", QString::fromStdString(why));
      r.edit->setFocus();
      return;
    }
    for (const Edit_Row &r : edits)
      Set_Setting_Text(ds, *r.e, r.edit->text().trimmed().toUtf8().constData());
    dialog.accept();
  });
  if (script) {
    dialog.show();
    script(dialog, user);
    return dialog.result() == QDialog::Accepted ? 1 : 0;
  }
  return dialog.exec() == QDialog::Accepted ? 1 : 0;
}
