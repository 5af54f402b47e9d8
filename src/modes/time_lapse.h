// Time-lapse inversion settings.
#pragma once

class Time_Lapse {
public:
  int tl_constraint = 1;  // constraint between time models: 0 none, 1 L2, 2 L1
  double tl_damp = 1.0;   // temporal roughness damping factor
  int tl_reduce_damp = 0; // lower the temporal damping with the spatial one

  // A model from an earlier inversion.
  int use_previous_model = 0;       // 0 none, 1 to 3 the way it is used
  int previous_model_reference = 0; // as the reference model of a time-lapse run
  int previous_model_iteration = 5; // iteration of the earlier inversion

  // Barrier functions of the asymmetric constraint.
  double barrier_power = 30.0;      // exponent of the power penalty function
  double barrier_sigma = 0.05;      // sigma of the error function penalty
  double barrier_weight = 0.1;      // scale of the barrier function
  int fix_barrier_damping = 0;      // adjust the barrier weight to the damping of the iteration
  double barrier_adjust_max = 10.0; // upper limit of that adjustment

  // Method of transformation.
  int transform_refinement = 0;      // as a refinement step after a barrier method
  int nit_transform_initial = 3;     // iterations before the positivity constraint
  int nit_transform_refine = 2;      // iterations with the positivity constraint
  double transform_overshoot = 0.01; // overshoot allowed beyond the constraint boundary
  double trans_rough_damp = 1.0;     // roughness damping factor of the transformed problem
  double trans_ref_damp = 1.0;       // reference damping factor of the transformed problem
  double trans_tl_damp = 1.0;        // time-lapse damping factor of the transformed problem
};
