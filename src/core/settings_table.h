// The one table of inversion settings. Each entry ties the caption that the
// .ivp file carries to the member it sets, its value format and its bounds.
// The .ivp reader and writer, the command line's --set and the settings
// listing all walk this table, so a setting is described exactly once.
#pragma once

#include <cstdint>

class Data_Set;

enum Setting_Kind : int {
  SK_INT = 0,   // 32-bit integer member, bounds inclusive
  SK_REAL = 1,  // double member, bounds inclusive
  SK_INT64 = 2, // 64-bit integer member, bounds inclusive
  SK_FIXED = 3  // no member: the file always carries the literal in `format`
};

struct Setting_Entry {
  const char *key;             // short name: the member's own name where it has one
  const char *caption;         // the caption line of the .ivp file, without its line break
  const char *format;          // printf format of the value line (the literal for SK_FIXED)
  int kind;                    // Setting_Kind
  double lo, hi;               // bounds the reader clamps to
  void *(*member)(Data_Set &); // address of the member; nullptr for SK_FIXED
  const char *dialog;          // title of the settings dialog the value belongs to
  const char *reason;          // one line: why the default is what it is
  const char *panel; // panel line format when read back; nullptr: caption, two blanks, value
  // The control's text in its settings dialog; nullptr: the caption.
  const char *form = nullptr;
  // Radio buttons of a choice setting, "value=label" items separated by '|';
  // nullptr: the caption's own "(0=..,1=..)" list where it has a full one.
  const char *choices = nullptr;
};

extern const Setting_Entry settings_table[];
extern const int nsettings_table;

// Looks a setting up by its short name; nullptr when there is none.
const Setting_Entry *Find_Setting(const char *key);
