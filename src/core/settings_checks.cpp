// Consistency checks that follow every read of inversion settings.
#include "core/data_set.h"
#include "core/ivp_file.h"
#include "core/trace.h"

namespace {

// The sequential IP stage needs enough iterations to settle the IP model.
void Check_Use_Sequential_IP_Inversion(Data_Set &ds) {
  if (ds.Data_ip.ipinvm == 1 && ds.LS_method.nit_ip < 5)
    ds.LS_method.nit_ip = 5;
}

// A user-defined reference IP value must lie inside the IP model's limits.
void Check_User_Defined_Reference_IP_Value(Data_Set &ds) {
  Data_IP &ip = ds.Data_ip;
  if (ip.set_reference_ip_to_zero != 2)
    return;
  if (ip.ip_ref_user < ip.ip_lower_limit)
    ip.ip_ref_user = ip.ip_lower_limit;
  if (ip.ip_ref_user > ip.ip_upper_limit)
    ip.ip_ref_user = ip.ip_upper_limit;
}

// The vectorised wavelet routines need AVX2; without it the plain ones run.
void Check_Use_Asm_Wavelet(Data_Set &ds) {
  if (ds.LS_method.wavelet_function_type == 1 && ds.System_config.cpu.instruction_level < 2)
    ds.LS_method.wavelet_function_type = 0;
}

// The damping factor falls from its initial value to its minimum: a minimum
// above the start would stop the schedule (and an exit at the minimum) at once.
void Check_exit_at_min_damping_factor(Data_Set &ds) {
  LS_Method &ls = ds.LS_method;
  if (ls.fmarqm > ls.fmarq1)
    ls.fmarqm = ls.fmarq1;
}

} // namespace

void Check_Settings_After_Read(Data_Set &ds) {
  Check_Use_Sequential_IP_Inversion(ds);
  Check_User_Defined_Reference_IP_Value(ds);
  ds.Model_grid.Check_Buffer_Nodes_XY(ds);
  Check_Use_Asm_Wavelet(ds);
  Check_exit_at_min_damping_factor(ds);
  TRACE("Check_Settings_After_Read nit_ip %d fmarqm %.4f wavelet %d\n", ds.LS_method.nit_ip,
        ds.LS_method.fmarqm, ds.LS_method.wavelet_function_type);
}
