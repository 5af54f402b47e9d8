// A copy of every value of the settings table, to put back after a step
// that failed half way (a refused data file leaves the settings as they were).
#pragma once

#include <vector>

class Data_Set;

struct Settings_Snapshot {
  std::vector<unsigned char> bytes;
  void Take(Data_Set &ds);
  void Restore(Data_Set &ds) const;
};
