// Messages, questions, panel lines and progress: the three ways out of the
// core besides the trace. Each goes through the front end's callbacks.
#pragma once

#include <cstddef>

#include "core/front_end.h"

class Data_Set;

// A modal message with its title (kind: Message_Kind).
void show_message(Data_Set &ds, const char *text, const char *title, int kind = MK_WARNING);
// The same, for a check on data: silent while `quiet` is set.
void show_check_message(Data_Set &ds, const char *text, const char *title, int kind = MK_WARNING);
// A yes-or-no question: 1 Yes, 0 No.
int ask_question(Data_Set &ds, const char *text, const char *title);
// One line of the main panel, and the indented form of the "Inversion
// Parameters" panel; both move the panel cursor down.
void panel_text(Data_Set &ds, const char *text);
void panel_text_params(Data_Set &ds, const char *text);
// Status text and fraction of work done; returns the pump's result (1 on a
// quit request).
int progress(Data_Set &ds, const char *text, double fraction);
void beep(Data_Set &ds);

// Formatted print into a caller's buffer with a limit (1024 by default, 2048
// for the file-name messages); the text is cut, never overrun.
int print_to_buffer(char *buffer, size_t limit, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Creates the trace file and memory report in the buffer folder and switches
// tracing on; on failure shows the message and tracing stays off. Returns ierr.
int Create_Trace_File(Data_Set &ds);
