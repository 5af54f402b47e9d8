// Sensitivity and model resolution settings.
#pragma once

class Sens_Reso {
public:
  int Cal_Model_Reso = 0;  // calculate the model resolution
  int cal_psf = 0;         // calculate the point-spread function
  int cal_approx_reso = 0; // calculate the approximate resolution from the Jacobian only
};
