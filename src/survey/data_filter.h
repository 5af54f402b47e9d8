// Geometric-factor cut-off and data filter settings.
#pragma once

class Data_Filter {
public:
  double gfcut_ratio = 1000.0; // largest accepted ratio of geometric factors
  // Points with a geometric factor past the cut-off: 0 stop the read, 1 remove
  // them, 2 keep them.
  int large_gfac_action = 1;
  int use_gfac_weight = 0;            // weight the data by their geometric factor relative errors
  double low_pot_cutoff = 0.001;      // cut-off factor for data with very low potentials
  int use_gfac_rel_error = 0;         // remove arrays with a large geometric factor relative error
  double gfac_rel_error_cutoff = 5.0; // that relative error's cut-off
  int auto_switch_electrodes = 0;     // swap electrodes whose geometric factor is negative
  int force_positive = 0;             // take the absolute value of negative apparent resistivities
  int remove_negative_calc = 0;       // remove data whose calculated value is negative
  int type_error_scaling = 0;         // error weights scaled to 0 average 1.0, 1 minimum 1.0
};
