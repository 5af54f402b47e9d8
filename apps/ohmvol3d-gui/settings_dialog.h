// Settings dialogs made from the one settings table: a dialog holds, under
// each of its titles, every setting whose entry names that title: an edit
// box (15 characters) showing the present value, a radio group, or a check
// box. Radio buttons and check boxes write their setting at once and keep
// the value they had when the dialog opened; OK checks every edit box
// against its bounds before writing any (a value out of range is refused and
// the dialog stays open); Cancel puts the kept values back.
#pragma once

#include <string>

class Data_Set;
class QDialog;
class QWidget;

// Runs the dialog of `command`; 1 when OK wrote the values, 0 on Cancel, -1
// when the command has no dialog. `script` (may be null) is called with the
// open dialog instead of waiting for the user (tests).
int Run_Settings_Dialog(QWidget *parent, Data_Set &ds, int command,
                        void (*script)(QDialog &dialog, void *user) = nullptr,
                        void *user = nullptr);
// The text of the last value refused by a dialog's OK.
const std::string &Last_Settings_Refusal();
