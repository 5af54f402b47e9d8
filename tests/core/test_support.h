// Shared helpers for the core tests: a temporary folder that cleans up after
// itself, a front end that records everything the core shows, and a
// Data_Set built inside a temporary folder.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "core/data_set.h"
#include "core/front_end.h"
#include "core/trace.h"

namespace test_support {

constexpr int64_t gib = 1073741824LL;

// A fresh folder under /tmp, removed with everything in it on destruction.
class Temp_Folder {
public:
  Temp_Folder() {
    char pattern[] = "/tmp/ohmvol3d_test_XXXXXX";
    const char *made = mkdtemp(pattern);
    if (made)
      path_ = made;
  }
  ~Temp_Folder() {
    if (path_.empty())
      return;
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  Temp_Folder(const Temp_Folder &) = delete;
  Temp_Folder &operator=(const Temp_Folder &) = delete;

  bool ok() const { return !path_.empty(); }
  // The folder, without a closing '/'.
  const std::string &path() const { return path_; }
  // A path inside the folder: path() + "/" + name.
  std::string sub(const std::string &name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

struct Recorded_Message {
  std::string title, text;
  int kind = 0;
};

struct Recorded_Panel_Line {
  std::string text;
  int indent = 0;
};

struct Recorded_Progress {
  std::string text;
  double fraction = 0.0;
};

// Everything a recording front end was asked to show, plus the answers it
// gives back (the pump result of `progress`, the answer to questions).
struct Front_End_Record {
  std::vector<Recorded_Message> messages;
  std::vector<Recorded_Message> questions;
  std::vector<Recorded_Panel_Line> panel_lines;
  std::vector<Recorded_Progress> progress_calls;
  int beeps = 0;
  int pump_result = 0;     // what `progress` returns
  int question_answer = 0; // what `question` returns (1 Yes, 0 No)

  void Clear() {
    messages.clear();
    questions.clear();
    panel_lines.clear();
    progress_calls.clear();
    beeps = 0;
  }
  // Messages with this title.
  int Count(const std::string &title) const {
    int n = 0;
    for (const Recorded_Message &m : messages)
      n += m.title == title;
    return n;
  }
  // The last message with this title, or nullptr.
  const Recorded_Message *Last(const std::string &title) const {
    for (auto it = messages.rbegin(); it != messages.rend(); ++it)
      if (it->title == title)
        return &*it;
    return nullptr;
  }
};

// A front end whose callbacks append to `rec`.
inline Front_End Recording_Front_End(Front_End_Record &rec) {
  Front_End fe;
  fe.user = &rec;
  fe.message = [](void *u, const char *title, const char *text, int kind) {
    static_cast<Front_End_Record *>(u)->messages.push_back({title, text, kind});
  };
  fe.question = [](void *u, const char *title, const char *text) {
    auto *r = static_cast<Front_End_Record *>(u);
    r->questions.push_back({title, text, MK_QUESTION});
    return r->question_answer;
  };
  fe.panel_line = [](void *u, const char *text, int indent) {
    static_cast<Front_End_Record *>(u)->panel_lines.push_back({text, indent});
  };
  fe.progress = [](void *u, const char *text, double fraction) {
    auto *r = static_cast<Front_End_Record *>(u);
    r->progress_calls.push_back({text, fraction});
    return r->pump_result;
  };
  fe.beep = [](void *u) { static_cast<Front_End_Record *>(u)->beeps++; };
  return fe;
}

// Start options that keep the configuration in tmp/cfg/ and the buffer
// folder in tmp/buf/.
inline Start_Options Test_Start_Options(const Temp_Folder &tmp,
                                        int64_t total_mem_bytes = 24 * gib) {
  Start_Options opt;
  opt.total_mem_bytes = total_mem_bytes;
  opt.config_folder = tmp.sub("cfg/");
  opt.buffer_folder = tmp.sub("buf/");
  return opt;
}

// A Data_Set for `tmp` that reports to `rec`, taken through Create() and
// First_Paint() as the program does at start-up. What start-up showed (such
// as the low-disk "Disk Error" warning on a small test disk) is cleared from
// `rec` unless keep_start_messages is set, so a test sees only its own.
inline std::unique_ptr<Data_Set> Make_Data_Set(const Temp_Folder &tmp, Front_End_Record &rec,
                                               int64_t total_mem_bytes = 24 * gib,
                                               bool keep_start_messages = false) {
  auto ds = std::make_unique<Data_Set>(Test_Start_Options(tmp, total_mem_bytes),
                                       Recording_Front_End(rec));
  ds->Create();
  ds->First_Paint();
  if (!keep_start_messages)
    rec.Clear();
  return ds;
}

// Whole file as text ("" when it cannot be read).
inline std::string Read_File(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void Write_File(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

// The lines of a text, without their line ends.
inline std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

inline bool Exists(const std::string &path) {
  return std::filesystem::exists(path);
}

inline bool Starts_With(const std::string &s, const std::string &prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

// Switches tracing off when the test ends, whatever its outcome: the trace
// record is global to the test program.
struct Trace_Off_Guard {
  ~Trace_Off_Guard() { trace_rec.trace_on = 0; }
};

} // namespace test_support
