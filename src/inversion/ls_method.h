// Least-squares settings and state of an inversion run.
#pragma once

class LS_Method {
public:
  // Damping factor and its schedule.
  double fmarq1 = 0.15;                 // damping factor of the first iteration
  double fmarqm = 0.002;                // floor of the damping factor
  double reduce_damping_factor = 0.5;   // factor that lowers the damping after each iteration
  int reduce_damping_linear = 0;        // reduction: 0 by a constant factor, 1 by a constant amount
  int staggered_damping = 0;            // another reduction factor in the first iterations
  int extra_reduce_damp_L2_L1 = 0;      // extra reduction in every iteration that lowers the misfit
  int exit_min_damping = 0;             // end the run once the minimum damping factor is reached
  double damp_depth_factor = 1.05;      // growth of the damping with each deeper layer
  int use_first_layer_damp = 1;         // higher damping for the first layer
  double first_layer_damp_factor = 2.0; // damping increase of the first layer
  int combined_marquardt = 0;           // add a Marquardt term to the smoothness constraint
  double marquardt_weight = 0.1;        // weight of the Marquardt term

  // Iterations, line search and convergence.
  int nit = 8;                        // iterations asked for
  int gint = 2;                       // iterations added when the limit is reached
  int auto_continue = 0;              // add those iterations without asking on large meshes
  int line_search_option = 0;         // 0 further step when the misfit rises, 1 quadratic
                                      // interpolation, 2 extra least-squares step
  double convergence_limit = 1.0;     // relative misfit change (percent) that ends the run
  double min_rms_change = 1.0;        // smallest relative misfit decrease (percent) that counts
  double rms_convergence_limit = 1.0; // misfit (percent) at which the run stops

  // Roughness filters.
  int smooth_model_res = 1;           // roughness of the present model on the right-hand side
  double vh_filter_ratio = 1.0;       // vertical to horizontal roughness filter ratio
  double xfilter_weight = 1.0;        // roughness filter weight in x
  double yfilter_weight = 1.0;        // roughness filter weight in y
  int uniform_filter_weights = 0;     // all cell weights of the filter 1.0
  double side_filter_weight = 1.2;    // roughness filter weight of the side cells
  int extended_horizontal_filter = 0; // reach of the horizontal filter: 0 next cell, 1 and 2 more
  int use_hdiag_filter = 0;           // horizontal diagonal filter
  int use_vdiag_filter = 0;           // vertical diagonal filter
  int use_vcross_filter = 0;          // vertical cross-diagonal filter
  double diag_filter_weight = 0.5;    // weight of the diagonal filter components

  // Data misfit and model roughness norms.
  int dataconstr = 0;            // data misfit: 0 L2, 1 L1 (robust)
  double eps = 0.05;             // cut-off of the robust data weights
  int modelconstr = 0;           // model roughness: 0 L2, 1 L1 (blocky)
  double epsm = 0.05;            // cut-off of the robust model weights
  int type_ip_constraint = 0;    // IP norms: 0 always smooth, 1 as for resistivity
  double cutoff_ip = 0.05;       // cut-off of the robust IP data weights
  double cutoff_ip_model = 0.05; // cut-off of the robust IP model weights

  // Reference model.
  int use_reference = 0;       // use a reference model
  double wsdamp = 0.01;        // damping factor of the reference model
  double ref_res_factor = 1.0; // reference resistivity as a factor of the average
  int type_ref_constraint = 0; // reference damping: 0 uniform, 1 adaptive
  int ip_same_ref_damp = 1;    // the IP model takes the resistivity reference damping
  double wsdampip = 0.05;      // damping factor of the IP reference model

  // Least-squares solver and Jacobian compression.
  int incomplete_solve = 0;         // 0 Gauss-Newton, 2 incomplete Gauss-Newton
  double cg_convlim = 0.01;         // relative residual that ends the conjugate gradients
  int scale_ign = 1;                // diagonal preconditioner of the conjugate gradients
  int data_compression = 0;         // wavelet compression of the Jacobian
  double cut_off = 0.005;           // wavelet coefficients kept above this share of a row's largest
  int compress_jacobian_direct = 0; // compress the Jacobian right after it is calculated
  int wavelet_function_type = 0;    // wavelet routines: 0 C++, 1 hand-tuned

  // Range of model resistivities.
  int rangebound = 0;           // limit the model resistivities by a barrier
  double rangeup = 20.0;        // upper limit as a factor of the reference resistivity
  double rangelow = 0.05;       // lower limit as a factor of the reference resistivity
  int type_range_reference = 0; // reference: 0 model average, 1 model of the first iteration
  int barrier_exponent = 4;     // barrier function exponent (2, 4 or 6)
  double barrier_max = 20.0;    // largest weight of the barrier function
  int barrier_on_roughness = 0; // the barrier weight also acts on the roughness filter

  // Higher damping near electrodes.
  int use_sensitivity_damp = 0;      // damping raised where the sensitivity is high
  int sensitivity_damp_direct = 0;   // that damping acts directly on the roughness filter
  int use_sensitivity_damp_reso = 0; // approximate resolution in place of the sensitivity
  double bore_damp_fac = 2.0;        // damping increase at the most sensitive cells
  double bore_damp_rate = 1.0;       // rate of the damping reduction with sensitivity
  double damp_sens_cutoff = 0.2;     // sensitivity above which the higher damping applies

  // IP inversion.
  double ip_damp = 0.15; // ratio of the IP damping factor to the resistivity damping factor
  int auto_ip_damp = 0;  // set the IP damping automatically
  int nit_ip = 8;        // iterations of the sequential IP stage

  // Asymmetric time-lapse constraint.
  int type_asymmetric_constraint = 0; // 0 none, 1 power, 2 error function, 3 transformation
  int type_asymmetric_direction = 0;  // allowed change in time: 0 any, 1 decrease, 2 increase,
                                      // 3 monotonic decrease, 4 monotonic increase
};
