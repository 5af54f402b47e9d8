// Inversion settings files (.ivp): the writer, the reader and the access to
// one setting by its short name, all driven by the settings table.
#pragma once

#include <cstdint>
#include <string>

#include "core/settings_table.h"

class Data_Set;

// Writes every setting in table order; 1 when the file cannot be created.
int Save_Inversion_Parameters(Data_Set &ds, const char *path);

// Reads an .ivp file. Each setting found (its caption as a whole line) takes
// the value on the lines after it, clamped to its bounds; settings not in the
// file keep their values. silent = 1: no messages and no panel lines, as at
// start-up. Returns 0 when the file was taken, 1 when nothing was changed.
int readinvset(Data_Set &ds, int silent, const char *path);

// The settings found in a text in the .ivp form (each caption as a whole
// line, its value after it), then the consistency checks. Returns how many
// were found.
int Read_Settings_Text(Data_Set &ds, const char *buf, int64_t size, int silent);

// The consistency checks that follow a read of settings.
void Check_Settings_After_Read(Data_Set &ds);

// The value of a setting as its .ivp line writes it.
std::string Format_Setting_Value(Data_Set &ds, const Setting_Entry &e);
// Sets a setting from text, clamped to its bounds. Returns 1 when the text
// is not a number of the setting's kind, 2 for a fixed entry.
int Set_Setting_Text(Data_Set &ds, const Setting_Entry &e, const char *text);
// Stores a number into a setting, clamped to its bounds.
void Store_Setting_Value(Data_Set &ds, const Setting_Entry &e, double value);
