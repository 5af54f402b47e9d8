#include "core/ini_file.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>

#include "core/folders.h"

namespace {

std::string Trim(const std::string &s) {
  size_t a = 0, b = s.size();
  while (a < b && std::isspace(static_cast<unsigned char>(s[a])))
    a++;
  while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1])))
    b--;
  return s.substr(a, b - a);
}

} // namespace

int Graphics_Type_From_Text(const char *text) {
  switch (std::tolower(static_cast<unsigned char>(text[0]))) {
  case 'j':
    return 1;
  case 'p':
    return 2;
  case 't':
    return 3;
  case 'g':
    return 4;
  default:
    return 0;
  }
}

const char *Graphics_Type_Word(int type) {
  static const char *const words[] = {"bmp", "jpeg", "png", "tiff", "gif"};
  return type >= 0 && type <= 4 ? words[type] : "bmp";
}

int Ini_Settings::Read(const std::string &path, const std::string &program_folder) {
  input = output = program_folder;
  FILE *f = std::fopen(path.c_str(), "r");
  if (!f)
    return 1;
  // Section and key lookup is case-insensitive, values keep up to 255 characters.
  std::map<std::string, std::string> values;
  std::string section;
  char line[1024];
  while (std::fgets(line, sizeof line, f)) {
    std::string s = Trim(line);
    if (s.empty() || s[0] == ';' || s[0] == '#')
      continue;
    if (s[0] == '[') {
      size_t e = s.find(']');
      section = s.substr(1, e == std::string::npos ? std::string::npos : e - 1);
      for (char &c : section)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      continue;
    }
    size_t eq = s.find('=');
    if (eq == std::string::npos)
      continue;
    std::string key = Trim(s.substr(0, eq));
    for (char &c : key)
      c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string value = Trim(s.substr(eq + 1)).substr(0, 255);
    values.emplace(section + "/" + key, value); // first occurrence wins
  }
  std::fclose(f);

  auto get = [&](const char *key, std::string &out) {
    auto it = values.find(key);
    if (it != values.end())
      out = it->second;
  };
  get("programs/paint", paint);
  get("programs/editor", editor);
  get("files/extension", extension);
  get("files/input", input);
  get("files/output", output);
  get("files/buffer", buffer);
  std::string graphics = Graphics_Type_Word(graphics_type);
  get("settings/graphics file type", graphics);
  graphics_type = Graphics_Type_From_Text(graphics.c_str());
  // "Pentium 4 Optimisation" is an old key: read by the lookup and ignored.
  buffer_set = buffer.size() > 1 ? 1 : 0;
  input = With_Slash(input);
  output = With_Slash(output);
  return 0;
}

int Ini_Settings::Write(const std::string &path) const {
  FILE *f = std::fopen(path.c_str(), "w");
  if (!f)
    return 1;
  std::fprintf(f, "[programs]\n");
  std::fprintf(f, "editor=%s\n", editor.c_str());
  std::fprintf(f, "[files]\n");
  std::fprintf(f, "extension=%s\n", extension.c_str());
  std::fprintf(f, "input=%s\n", With_Slash(input).c_str());
  std::fprintf(f, "output=%s\n", With_Slash(output).c_str());
  std::fprintf(f, "buffer=%s\n", buffer.c_str());
  std::fprintf(f, "[Settings]\n");
  std::fprintf(f, "Graphics file type=%s\n", Graphics_Type_Word(graphics_type));
  std::fclose(f);
  return 0;
}
