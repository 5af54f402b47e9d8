// Inv_Results: back to the state before any results file was read.
#include "results/inv_results.h"

void Inv_Results::Clear() {
  const std::string keep[6] = {model_bin,       data_bin,         model_bin_voi[0],
                               data_bin_voi[0], model_bin_voi[1], data_bin_voi[1]};
  *this = Inv_Results();
  model_bin = keep[0], data_bin = keep[1];
  model_bin_voi[0] = keep[2], data_bin_voi[0] = keep[3];
  model_bin_voi[1] = keep[4], data_bin_voi[1] = keep[5];
}
