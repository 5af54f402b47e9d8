// The command line's way of showing the core: messages and questions on
// stderr, panel lines on stdout, a progress bar (or plain lines) on stderr.
#pragma once

#include <string>

#include "core/front_end.h"

struct Cli_Front_State {
  int answer = 0;        // the answer to every question
  bool quiet = false;    // no panel lines and no progress
  bool terminal = false; // stderr is a terminal: redraw one bar
  std::string last_text; // last progress text shown
  int last_decile = -1;  // last tenth of progress shown
  bool bar_open = false; // a bar is drawn and needs a line end
  int *stop = nullptr;   // set to 1 at the next progress once a stop signal came
};

// SIGINT and SIGTERM: the first asks the run to stop at its next safe point
// (an inversion after its current iteration, its results and temporary
// files in order); a second ends the program at once. Returns the signal
// seen (0 none), for the exit status 128 + signal.
void Catch_Stop_Signals();
int Stop_Signal();

Front_End Make_Cli_Front_End(Cli_Front_State &state);
// Ends a progress bar line before other output.
void Cli_Close_Bar(Cli_Front_State &state);
