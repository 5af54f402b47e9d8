#include "core/folders.h"

#include <cerrno>
#include <sys/stat.h>
#include <sys/statvfs.h>

std::string With_Slash(std::string s) {
  if (!s.empty() && s.back() != '/')
    s += '/';
  return s;
}

int64_t Free_Disk_Bytes(const std::string &path) {
  // Walk up to the nearest folder that exists; an empty path means here.
  std::string p = path;
  for (;;) {
    struct statvfs st;
    if (statvfs(p.empty() ? "." : p.c_str(), &st) == 0)
      return static_cast<int64_t>(st.f_bavail) * static_cast<int64_t>(st.f_frsize);
    while (p.size() > 1 && p.back() == '/')
      p.pop_back();
    const size_t slash = p.rfind('/');
    if (p.empty() || p == "/")
      return -1;
    p.resize(slash == std::string::npos ? 0 : (slash == 0 ? 1 : slash));
  }
}

int Make_Folders(const std::string &path) {
  std::string p;
  for (size_t i = 0; i <= path.size(); i++) {
    if (i == path.size() || path[i] == '/') {
      if (!p.empty() && mkdir(p.c_str(), 0755) != 0 && errno != EEXIST)
        return 1;
    }
    if (i < path.size())
      p += path[i];
  }
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? 0 : 1;
}
