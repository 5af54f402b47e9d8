// Parse_Data_File: the data file from its memory image into the survey, in
// the fixed order of its steps.
#include <cmath>
#include <cstring>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

// A failed step shows its own name.
int Step_Failed(Data_Set &ds, const char *name) {
  return Refuse(ds, "Data error", "%s", name);
}

void Reset_Survey(Data_Set &ds) {
  ds.mdata = 0;
  ds.num_point_elecs = ds.num_point_elecs_file = ds.num_grid_points = 0;
  ds.num_sub_elecs = ds.subsurface_present = ds.borehole_converted = ds.depth_present = 0;
  ds.topo_flag = ds.pe_sorted = ds.positions_scaled = ds.pe_converted = 0;
  ds.elec_list_incomplete = ds.missing_electrodes = 0;
  ds.nelec_use = 0;
  ds.ntime = 1;
  ds.error_estimate = ds.type_error = ds.type_geofac = 0;
  ds.array = ds.array2 = ds.resistance = ds.resistance_file = ds.vector_data_type = 0;
  ds.Data_ip.typeip = 0;
  ds.Model_grid.user_depths = ds.Model_grid.nlayers_user = 0;
  ds.tank.present = 0;
  ds.topo.type = ds.topo.num_points = 0;
  ds.Fix_regions.nfix = 0;
  ds.water.kind = 0;
  ds.Sharp_boundary.nregions = 1;
  ds.global_coords.present = 0;
  ds.data_points_removed = ds.flag_save_in_new_format = ds.grid_extend = 0;
  ds.num_repeated = ds.num_vector_triplets = 0;
  ds.gfac_min = ds.gfac_max = ds.gfac_cut = ds.gfac_range_min = ds.gfac_range_max = 0.0;
  ds.res_average = 100.0;
}

int Read_Title(Data_Set &ds) {
  read_line(ds.img, ds.title);
  panel_text(ds, ds.title);
  return 0;
}

int Read_Header(Data_Set &ds) {
  return Read_Title(ds) || Read_Grid_Section(ds) || Read_Array_Section(ds) ||
         Read_Point_Electrodes_Section(ds) || Read_User_Depths_Section(ds) ||
         Read_Data_Count_Sections(ds);
}

int Read_Optional_Sections(Data_Set &ds) {
  if (Check_Topography_Data(ds))
    return Step_Failed(ds, "Check_Topography_Data()");
  if (Check_Fixed_Regions(ds))
    return Step_Failed(ds, "Check_Fixed_Regions()");
  if (Check_Underwater_Settings(ds))
    return Step_Failed(ds, "Check_Underwater_Settings()");
  Read_Sharp_Boundary(ds, 0);
  if (Read_Global_Coordinates(ds))
    return Step_Failed(ds, "Read_Global_Coordinates()");
  return 0;
}

void Store_Geometric_Factor_Range(Data_Set &ds) {
  if (ds.appres_inv == 1)
    return;
  double lo = 0.0, hi = 0.0;
  bool first = true;
  for (int i = 0; i < ds.mdata; i++) {
    const double g = ds.dp[i].gfac;
    if (g == 0.0)
      continue;
    const double a = std::fabs(1.0 / g);
    lo = first ? a : std::min(lo, a);
    hi = first ? a : std::max(hi, a);
    first = false;
  }
  ds.gfac_min = lo;
  ds.gfac_max = hi;
  ds.gfac_cut = lo * ds.Data_filter.gfcut_ratio;
}

void Copy_Counts_To_Grid(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  g.num_point_elecs = ds.num_point_elecs;
  g.num_sub_elecs = ds.num_sub_elecs;
  g.ndata = ds.mdata;
  g.ntime = ds.ntime;
  g.typeip = ds.Data_ip.typeip;
  g.nelec_use = ds.nelec_use;
}

} // namespace

int Parse_Results_Survey(Data_Set &ds) {
  Reset_Survey(ds);
  if (Read_Header(ds))
    return 1;
  if (ds.num_point_elecs_file == 0 || ds.num_point_elecs == 0)
    return 2;
  if (Read_Data_Points(ds))
    return Step_Failed(ds, "Error in Read_Data_Points()");
  // Every series takes the geometric factors of the first.
  for (int k = 1; k < ds.ntime; k++)
    for (int i = 0; i < ds.mdata; i++)
      ds.dp[static_cast<int64_t>(k) * ds.mdata + i].gfac = ds.dp[i].gfac;
  if (Scale_Positions(ds))
    return Step_Failed(ds, "Error in Scale_Positions()");
  if (Read_Optional_Sections(ds))
    return 1;
  // Electrodes of the data that are not in the list come out as grid
  // positions (numbers past the list) or not at all.
  if (Find_Electrode_Numbers_Points_Only(ds) != 0)
    return 3;
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    for (int32_t e : {d.nc1, d.nc2, d.np1, d.np2, d.np3})
      if (e >= ds.num_point_elecs)
        return 3;
  }
  if (Calculate_Location_Electrodes_Model_Grid_Topography(ds))
    return 1;
  Check_Electrodes_Usage(ds);
  Check_Pseudodepths(ds);
  Copy_Counts_To_Grid(ds);
  return 0;
}

int Parse_Data_File(Data_Set &ds) {
  TRACE("Parse_Data_File size %lld\n", static_cast<long long>(ds.img.size));
  Reset_Survey(ds);
  if (Read_Header(ds))
    return 1;
  if (Read_Data_Points(ds))
    return Step_Failed(ds, "Error in Read_Data_Points()");
  if (Scale_Positions(ds))
    return Step_Failed(ds, "Error in Scale_Positions()");
  if (const int ierr = Find_Electrode_Numbers_Points(ds))
    return Refuse(ds, "Data error", "Error %d in function\nFind_Electrode_Numbers_Points()", ierr);
  if (Read_Optional_Sections(ds))
    return 1;
  if (Calculate_Location_Electrodes_Model_Grid_Topography(ds))
    return 1;
  if (Sort_Data_Set(ds))
    return 1;
  Calculate_Geometric_Factors(ds);
  // Every point has its factor from here on (apparent resistivity data got
  // theirs just now), so the working factors are taken once, here.
  Calculate_Geometric_Factor_Relative_Error_Arrays(ds, ds.spxx);
  Check_Pseudodepths(ds);
  if (!ds.elec_list_incomplete)
    Check_Electrodes_Usage(ds);
  if (Check_Invalid_IP(ds))
    return Step_Failed(ds, "Check_Invalid_IP()");
  if (Check_Invalid_Res_Time_Data(ds))
    return Step_Failed(ds, "Check_Invalid_Res_Time_Data()");
  if (!ds.elec_list_incomplete)
    Check_Repeated_Data(ds);
  if (ds.mdata == 0)
    return 0; // the consolidated data went to a new file that must be read
  if (ds.array2 == 16)
    Count_Vector_Triplets(ds);
  Check_Number_Dipoles_Data_Set(ds, 2);
  Calculate_Range_Geometric_Factor_Arrays(ds, ds.spxx);
  Use_Geometric_Factor_Relative_Error_Data_Weight(ds);
  Panel(ds,
        "Minimum x grid spacing %.2f   Minimum geometric factor %.2f  Maximum geometric factor "
        "%.2f  Ratio %.2f",
        ds.spxx, ds.gfac_range_min, ds.gfac_range_max,
        ds.gfac_range_min > 0.0 ? ds.gfac_range_max / ds.gfac_range_min : 0.0);
  Copy_Counts_To_Grid(ds);
  Store_Geometric_Factor_Range(ds);
  ds.data_read = 1;
  progress(ds, "Reading data completed", 1.0);
  return 0;
}
