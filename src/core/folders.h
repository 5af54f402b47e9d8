// Folder paths: the closing '/', creation with parents, free space.
#pragma once

#include <cstdint>
#include <string>

// The path with a closing '/' (an empty path stays empty).
std::string With_Slash(std::string s);
// Free bytes of the file system that holds `path` (or its nearest existing
// parent); -1 when none can be measured.
int64_t Free_Disk_Bytes(const std::string &path);
// Creates a folder and its missing parents; 0 on success.
int Make_Folders(const std::string &path);
