// Induced-polarisation measurement description and IP inversion settings.
#pragma once

constexpr int ip_text_max = 32; // characters kept of the IP name and unit

class Data_IP {
public:
  // The IP data of the survey.
  int typeip = 0; // 0 none, 1 chargeability, 2 metal factor, 3 percent frequency effect, 4 phase
  char ip_name[ip_text_max + 1] = {}; // quantity's name as the file gives it
  char ip_unit[ip_text_max + 1] = {}; // its unit
  double ip_par1 = 0.0, ip_par2 = 0.0; // the two settings (frequencies for type 3)
  int auto_replace_invalid_ip = 0;     // mark values past invalid_ip_limit as missing
  double invalid_ip_limit = 800.0;     // in mV/V

  double valid_ip_limit = 0.8; // largest absolute IP value of a valid datum, as a fraction

  // IP model. Limits and reference are in mV/V.
  int transip = 1;               // transform: 0 none, 1 square root, 2 exponential, 3 range bound
  double ip_lower_limit = 0.0;   // lower limit of the IP model
  double ip_upper_limit = 500.0; // upper limit of the IP model
  int set_reference_ip_to_zero = 0; // reference: 0 median of the data, 1 near zero, 2 ip_ref_user
  double ip_ref_user = 10.0;        // user defined reference
  int ipinvm = 0;                   // sequence: 0 with the resistivity, 1 after it

  // IP forward model and Jacobian.
  int complex_forward_model = 0; // 0 linear perturbation, 1 complex resistivity
  int ipcmplx = 0;               // the forward model in use is complex
  // Complex model values from 0 the real potentials, 1 the amplitude of the potentials.
  int complex_forward_model_type_method_cal_app_values = 0;
  int compress_ip_jacobian_direct = 1; // compress the IP Jacobian rows without a file
  int ip_jacobian_from_compressed = 0; // IP Jacobian from the compressed resistivity Jacobian
};
