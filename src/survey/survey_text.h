// Formatted messages of the survey reader: each formats into the message
// scratch of Data_Set and goes through the message routines.
#pragma once

class Data_Set;

// A check's refusal: shows the message (unless `quiet`) and returns 1.
int Refuse(Data_Set &ds, const char *title, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// The same, shown whatever `quiet` says.
int Refuse_Always(Data_Set &ds, const char *title, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// A check's warning: shows the message (unless `quiet`); the read goes on.
void Warn(Data_Set &ds, const char *title, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// A message of the given kind whose text may hold a file name (a larger
// buffer than the message scratch); returns 1.
int Show_Text(Data_Set &ds, const char *title, int kind, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
// One panel line.
void Panel(Data_Set &ds, const char *format, ...) __attribute__((format(printf, 2, 3)));
// Progress with a formatted status text.
int Progress_Text(Data_Set &ds, double fraction, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
