// The program settings file ohmvol3d.ini: folders and a few choices kept
// between runs of the program.
#pragma once

#include <string>

struct Ini_Settings {
  std::string paint = "pbrush.exe"; // read, never written back
  std::string editor = "notepad.exe";
  std::string extension = "*.dat"; // the data file chooser's filter
  std::string input;               // data folder, with a closing '/'
  std::string output;              // results folder, with a closing '/'
  std::string buffer;              // buffer folder the user chose ("" none)
  int graphics_type = 0;           // 0 bmp, 1 jpeg, 2 png, 3 tiff, 4 gif
  int buffer_set = 0;              // 1 when `buffer` names a folder

  // Reads `path`; a missing file leaves every default standing. Returns 0 when
  // the file was read, 1 when it was not there.
  int Read(const std::string &path, const std::string &program_folder);
  // Writes the file in its fixed order; returns 1 if it cannot be created.
  int Write(const std::string &path) const;
};

// "j" jpeg 1, "p" png 2, "t" tiff 3, "g" gif 4, anything else bmp 0.
int Graphics_Type_From_Text(const char *text);
const char *Graphics_Type_Word(int type);
