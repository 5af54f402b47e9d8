// Settings dialogs made from the one settings table: a dialog holds every
// setting whose entry names one of its titles, each as its caption and an
// edit box (15 characters) showing the present value. OK checks each value
// against its bounds and writes them all; a value out of range is refused
// with its bounds and the dialog stays open; Cancel changes nothing.
#pragma once

#include <string>
#include <vector>

class Data_Set;
class QWidget;

// The dialog titles a menu command opens (empty when the command has no
// settings dialog that this version can show).
std::vector<const char *> Dialog_Titles_Of(int command);

// Runs the dialog of `command`; 1 when OK wrote the values, 0 on Cancel, -1
// when the command has no dialog. `script` (may be null) is called with the
// open dialog instead of waiting for the user (tests).
class QDialog;
int Run_Settings_Dialog(QWidget *parent, Data_Set &ds, int command,
                        void (*script)(QDialog &dialog, void *user) = nullptr,
                        void *user = nullptr);
// The text of the last value refused by a dialog's OK.
const std::string &Last_Settings_Refusal();
