// L-curve settings and state.
#pragma once

class L_Curve {
public:
  int type_function = 0;   // analytic function family, 0 to 10 (0 is the 4th power function)
  int type_norm = 0;       // norm of the curve fit: 0 L2, 1 L1
  int num_iter_LC = 100;   // iterations of the curve fit (50 to 150)
  int npts_analytic = 100; // points sampled on the fitted curve (50 to 100)
  double fit_convergence = 1.0e-5; // convergence limit of the curve fit (0.000001 to 0.001)
  int type_res_ip = 0;             // curves of 0 resistivity and IP, 1 IP only, 2 resistivity only
  int use_same_norm = 0;      // misfit and roughness with the norms of the run (1) or always L2 (0)
  int reject_first_point = 0; // leave the first iteration out of the curve
  int nreject_end = 0;        // iterations left out at the end of the curve (0 to 3)
};
