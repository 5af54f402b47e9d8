#include "cli_front_end.h"

#include <csignal>

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

Cli_Front_State &State(void *user) {
  return *static_cast<Cli_Front_State *>(user);
}

void Cli_Message(void *user, const char *title, const char *text, int) {
  Cli_Close_Bar(State(user));
  std::fprintf(stderr, "%s: %s\n", title, text);
  std::fflush(stderr);
}

int Cli_Question(void *user, const char *title, const char *text) {
  Cli_Front_State &s = State(user);
  Cli_Close_Bar(s);
  std::fprintf(stderr, "%s: %s\nAnswer: %s\n", title, text, s.answer ? "Yes" : "No");
  std::fflush(stderr);
  return s.answer;
}

void Cli_Panel_Line(void *user, const char *text, int indent) {
  Cli_Front_State &s = State(user);
  if (s.quiet)
    return;
  Cli_Close_Bar(s);
  std::printf("%s%s\n", indent ? "  " : "", text);
  std::fflush(stdout);
}

volatile std::sig_atomic_t stop_signal = 0;

extern "C" void On_Stop_Signal(int sig) {
  stop_signal = sig;
  std::signal(sig, SIG_DFL);
}

int Cli_Progress(void *user, const char *text, double fraction) {
  Cli_Front_State &s = State(user);
  if (stop_signal && s.stop)
    *s.stop = 1;
  if (s.quiet)
    return stop_signal ? 1 : 0;
  const int percent = static_cast<int>(fraction * 100.0 + 0.5);
  if (s.terminal) {
    const int width = 30;
    const int filled = static_cast<int>(fraction * width + 0.5);
    char bar[width + 1];
    for (int i = 0; i < width; i++)
      bar[i] = i < filled ? '#' : '-';
    bar[width] = 0;
    std::fprintf(stderr, "\r[%s] %3d%% %-70.70s", bar, percent, text);
    s.bar_open = true;
  } else {
    const int decile = static_cast<int>(fraction * 10.0);
    if (s.last_text == text && decile == s.last_decile)
      return 0;
    std::fprintf(stderr, "%3d%% %s\n", percent, text);
    s.last_decile = decile;
  }
  s.last_text = text;
  std::fflush(stderr);
  return 0;
}

void Cli_Beep(void *) {}

} // namespace

void Cli_Close_Bar(Cli_Front_State &s) {
  if (!s.bar_open)
    return;
  std::fprintf(stderr, "\n");
  s.bar_open = false;
}

Front_End Make_Cli_Front_End(Cli_Front_State &state) {
  state.terminal = isatty(STDERR_FILENO) != 0;
  Front_End fe;
  fe.user = &state;
  fe.message = Cli_Message;
  fe.question = Cli_Question;
  fe.panel_line = Cli_Panel_Line;
  fe.progress = Cli_Progress;
  fe.beep = Cli_Beep;
  return fe;
}

void Catch_Stop_Signals() {
  std::signal(SIGINT, On_Stop_Signal);
  std::signal(SIGTERM, On_Stop_Signal);
}

int Stop_Signal() {
  return static_cast<int>(stop_signal);
}
