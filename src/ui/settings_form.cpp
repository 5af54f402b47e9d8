#include "ui/settings_form.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/commands.h"
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

std::string Trim(std::string s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back())))
    s.pop_back();
  size_t i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i])))
    i++;
  return s.substr(i);
}

// Splits "a|b|c" (or "a,b,c", "a or b") into its items.
std::vector<std::string> Split_Items(const std::string &list, bool pipe) {
  std::vector<std::string> items;
  size_t start = 0;
  for (size_t i = 0; i <= list.size(); i++) {
    const bool end = i == list.size();
    size_t skip = 0;
    if (!end && pipe && list[i] == '|')
      skip = 1;
    else if (!end && !pipe && list[i] == ',')
      skip = 1;
    else if (!end && !pipe && list.compare(i, 4, " or ") == 0)
      skip = 4;
    if (end || skip) {
      items.push_back(Trim(list.substr(start, i - start)));
      start = i + skip;
      i += skip ? skip - 1 : 0;
    }
  }
  return items;
}

// "3=Decrease" or "2-Error function": the value and the label.
int Parse_Item(const std::string &item, Setting_Choice &c) {
  char *end = nullptr;
  const long v = std::strtol(item.c_str(), &end, 10);
  if (end == item.c_str() || (*end != '=' && *end != '-'))
    return 1;
  c.value = static_cast<int>(v);
  c.label = Trim(end + 1);
  return c.label.empty() ? 1 : 0;
}

// The caption's last parenthesised list, when it is a list of choices.
int Caption_Choices(const char *caption, std::vector<Setting_Choice> &out, size_t &open) {
  const std::string cap = caption;
  open = cap.rfind('(');
  if (open == std::string::npos)
    return 1;
  const size_t close = cap.find(')', open);
  const std::string inner =
      cap.substr(open + 1, (close == std::string::npos ? cap.size() : close) - open - 1);
  for (const std::string &item : Split_Items(inner, false)) {
    Setting_Choice c;
    if (Parse_Item(item, c))
      return 1;
    out.push_back(c);
  }
  return out.size() < 2 ? 1 : 0;
}

bool Yes_No(const std::vector<Setting_Choice> &c) {
  return c.size() == 2 && c[0].value == 0 && c[1].value == 1 && c[0].label == "No" &&
         c[1].label == "Yes";
}

} // namespace

std::vector<const char *> Dialog_Titles_Of(int command) {
  for (const Command_Dialogs &d : command_dialogs)
    if (d.command == command)
      return d.titles;
  return {};
}

std::string Setting_Form_Text(const Setting_Entry &e) {
  std::string t = e.form ? e.form : e.caption;
  for (char &ch : t)
    if (ch == '\n')
      ch = ' ';
  if (!e.form) {
    std::vector<Setting_Choice> c;
    size_t open = 0;
    if (Caption_Choices(e.caption, c, open) == 0)
      t = t.substr(0, open);
  }
  return Trim(t);
}

int Setting_Control(const Setting_Entry &e, std::vector<Setting_Choice> &choices) {
  choices.clear();
  if (e.kind != SK_INT)
    return CT_EDIT;
  if (e.choices) {
    for (const std::string &item : Split_Items(e.choices, true)) {
      Setting_Choice c;
      if (Parse_Item(item, c) == 0)
        choices.push_back(c);
    }
  } else {
    size_t open = 0;
    if (Caption_Choices(e.caption, choices, open)) {
      choices.clear();
      // "(0 or 1)" and a bare 0/1 switch: one box.
      return e.lo == 0 && e.hi == 1 && std::strstr(e.caption, "(0 or 1)") ? CT_CHECK : CT_EDIT;
    }
  }
  // Every button must be a value the setting takes, and every value of a
  // choice setting must have its button; otherwise the value is typed.
  for (const Setting_Choice &c : choices)
    if (c.value < e.lo || c.value > e.hi)
      return choices.clear(), CT_EDIT;
  if (!e.choices && static_cast<double>(choices.size()) != e.hi - e.lo + 1)
    return choices.clear(), CT_EDIT;
  if (Yes_No(choices))
    return choices.clear(), CT_CHECK;
  return choices.empty() ? CT_EDIT : CT_RADIO;
}

int Check_Setting_Text(const Setting_Entry &e, const char *text, std::string &why) {
  const std::string t = Trim(text ? text : "");
  char *end = nullptr;
  const double v = std::strtod(t.c_str(), &end);
  const bool number = !t.empty() && end && *end == '\0' && std::isfinite(v);
  const bool whole = e.kind == SK_REAL || v == std::floor(v);
  if (number && whole && v >= e.lo && v <= e.hi && t.size() <= static_cast<size_t>(edit_box_limit))
    return 0;
  char buf[1024];
  std::snprintf(buf, sizeof buf, "%s\nThe value must be %s from %g to %g.",
                Setting_Form_Text(e).c_str(), e.kind == SK_REAL ? "a number" : "a whole number",
                e.lo, e.hi);
  why = buf;
  return 1;
}
