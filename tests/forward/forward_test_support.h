// Shared by the forward-model tests: a data set in a temporary folder that
// reads an example file or a text, and the electrode potential table of the
// last forward model in electrode order.
#pragma once

#include <algorithm>
#include <complex>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/commands.h"
#include "core/data_set.h"
#include "core/test_support.h"
#include "forward/forward.h"

struct Example_Survey {
  test_support::Temp_Folder tmp;
  test_support::Front_End_Record rec;
  std::unique_ptr<Data_Set> ds = test_support::Make_Data_Set(tmp, rec);

  Example_Survey() { ds->batch_mode = 1; }
  // Reads a copy of an example data file.
  int Read_Example(const std::string &name) {
    const std::string path = tmp.sub(name);
    std::filesystem::copy_file(std::string(OHMVOL3D_EXAMPLES) + "/" + name, path,
                               std::filesystem::copy_options::overwrite_existing);
    return ds->Run_Command(CMD_READ_DATA, path.c_str());
  }
  // Reads a data file written from `text`.
  int Read_Text(const std::string &name, const std::string &text) {
    const std::string path = tmp.sub(name);
    test_support::Write_File(path, text);
    return ds->Run_Command(CMD_READ_DATA, path.c_str());
  }
};

// The potential table (source, electrode above it) with the sources in
// electrode order, whatever order they were solved in; the imaginary parts
// when the model was complex.
inline std::vector<std::complex<double>> Electrode_Table(const Fem_State &f) {
  std::vector<int> sources(f.sources.data(), f.sources.data() + f.nsources);
  std::sort(sources.begin(), sources.end());
  const bool cmplx = f.coomatrix64.cmplx != 0;
  std::vector<std::complex<double>> table;
  for (int a : sources)
    for (int e = a + 1; e <= f.nelec; e++) {
      const int64_t k = Potential_Index(f.offset_pot.data(), a, e);
      table.emplace_back(f.vpot[k], cmplx ? f.vpot_i[k] : 0.0f);
    }
  return table;
}
