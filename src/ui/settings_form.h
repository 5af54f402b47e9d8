// How a setting of the settings table stands in its dialog: an edit box, a
// radio group or a check box, with the texts the form shows, and the check
// of a typed value against the setting's bounds. The desktop program builds
// its dialogs from these; they need no window system.
#pragma once

#include <string>
#include <vector>

class Data_Set;
struct Setting_Entry;

enum Control_Kind : int {
  CT_EDIT = 0,  // edit box of at most 15 characters
  CT_RADIO = 1, // one button for each value
  CT_CHECK = 2  // a 0/1 setting shown as one box
};

struct Setting_Choice {
  int value;
  std::string label;
};

// The text of the setting's control (its form text, else its caption on one
// line without a choice list that the buttons show).
std::string Setting_Form_Text(const Setting_Entry &e);

// The kind of control and, for a radio group, its buttons in order.
int Setting_Control(const Setting_Entry &e, std::vector<Setting_Choice> &choices);

// The longest text an edit box takes.
constexpr int edit_box_limit = 15;

// Checks the text typed for a setting: 0 when it is a number of the
// setting's kind within its bounds, else 1 with the refusal in `why`.
int Check_Setting_Text(const Setting_Entry &e, const char *text, std::string &why);

// The titles of the settings dialogs a menu command opens (empty when the
// command has none).
std::vector<const char *> Dialog_Titles_Of(int command);
