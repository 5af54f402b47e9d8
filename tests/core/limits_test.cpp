// Capacity limits derived from the computer's memory.
#include <cmath>
#include <gtest/gtest.h>
#include <omp.h>

#include "core/limits.h"
#include "core/memory.h"
#include "test_support.h"

using namespace test_support;

namespace {

Data_Limits Limits_For(double G, int64_t mem_free_byte = 24 * gib) {
  Data_Limits lim;
  Compute_Limits(G, mem_free_byte, lim);
  return lim;
}

} // namespace

TEST(Limits, ThirtyGigabytesExactlyStaysOnFirstRow) {
  const Data_Limits lim = Limits_For(30.0);
  EXPECT_EQ(lim.nmax_grid_lines, 150);
  EXPECT_EQ(lim.nmax_grid_xy, 15000);
  EXPECT_EQ(lim.nmax_data, 60000);
  EXPECT_EQ(lim.nmax_model, 60000);
  EXPECT_EQ(lim.nmax_time, 12);
  EXPECT_EQ(lim.nmax_layers, 14);
  EXPECT_EQ(lim.nmax_elecs, 15000 + 15000);
  EXPECT_EQ(lim.nmax_nodes_base, 2000000);
  EXPECT_EQ(lim.nmax_half_nodes, 1000000);
  EXPECT_EQ(lim.nmax_xy_nodes, 4 * 150 + 40);
  EXPECT_EQ(lim.nmax_z_nodes, 3 * 14);
  // round(30) * 2^30 / 800 is far above the cap of four times the node base.
  EXPECT_EQ(lim.max_cells_mesh, 8000000);
}

TEST(Limits, JustAboveThirtyGivesSecondRow) {
  const Data_Limits lim = Limits_For(std::nextafter(30.0, 31.0));
  EXPECT_EQ(lim.nmax_grid_lines, 220);
  EXPECT_EQ(lim.nmax_grid_xy, 40000);
  EXPECT_EQ(lim.nmax_data, 200000);
  EXPECT_EQ(lim.nmax_model, 200000);
  EXPECT_EQ(lim.nmax_time, 16);
  EXPECT_EQ(lim.nmax_layers, 16);
  EXPECT_EQ(lim.nmax_elecs, 40000 + 40000);
  EXPECT_EQ(lim.nmax_half_nodes, 1500000);
  EXPECT_EQ(lim.nmax_xy_nodes, 920);
  EXPECT_EQ(lim.nmax_z_nodes, 48);
  EXPECT_EQ(lim.max_cells_mesh, 12000000);
}

TEST(Limits, EveryThresholdIsStrictlyGreaterThan) {
  // Threshold, then nmax_grid_lines/nmax_time/nmax_layers below and above it.
  struct Step {
    double g;
    int lines_below, time_below, layers_below, lines_above, time_above, layers_above;
  };
  const Step steps[] = {{60.0, 220, 16, 16, 400, 16, 20},
                        {90.0, 400, 16, 20, 600, 30, 25},
                        {120.0, 600, 30, 25, 1950, 40, 25},
                        {180.0, 1950, 40, 25, 1950, 45, 30},
                        {250.0, 1950, 45, 30, 1950, 45, 35}};
  for (const Step &s : steps) {
    SCOPED_TRACE(s.g);
    const Data_Limits at = Limits_For(s.g);
    const Data_Limits above = Limits_For(s.g + 0.01);
    EXPECT_EQ(at.nmax_grid_lines, s.lines_below);
    EXPECT_EQ(at.nmax_time, s.time_below);
    EXPECT_EQ(at.nmax_layers, s.layers_below);
    EXPECT_EQ(above.nmax_grid_lines, s.lines_above);
    EXPECT_EQ(above.nmax_time, s.time_above);
    EXPECT_EQ(above.nmax_layers, s.layers_above);
  }
}

TEST(Limits, LargestRowIsCappedAndElectrodesIncludeGridNodes) {
  const Data_Limits lim = Limits_For(300.0, 299 * gib);
  EXPECT_EQ(lim.nmax_model, 6000000); // 7000000 in the table
  EXPECT_EQ(lim.nmax_data, 1900000);
  EXPECT_EQ(lim.nmax_elecs, 1600000 + 1400000); // min(1800000, 1600000) + nmax_grid_xy
  EXPECT_EQ(lim.nmax_half_nodes, 14000000);
  EXPECT_EQ(lim.nmax_xy_nodes, 4 * 1950 + 40);
  EXPECT_EQ(lim.nmax_z_nodes, 105);
  EXPECT_EQ(lim.max_cells_mesh, 4LL * 28000000); // below the 260000000 ceiling
  EXPECT_EQ(lim.Mem_free_byte, 299 * gib);

  // Rows 120-180 and 180-250: model below the cap, electrodes below 1600000.
  const Data_Limits r5 = Limits_For(150.0);
  EXPECT_EQ(r5.nmax_model, 5200000);
  EXPECT_EQ(r5.nmax_data, 1800000);
  EXPECT_EQ(r5.nmax_elecs, 1260000 + 1200000);
  const Data_Limits r6 = Limits_For(200.0);
  EXPECT_EQ(r6.nmax_model, 6000000);
  EXPECT_EQ(r6.nmax_elecs, 1600000 + 1300000);
}

TEST(Limits, MeshCellsFloorCapAndRounding) {
  EXPECT_EQ(Limits_For(0.3).max_cells_mesh, 1000000); // round(0.3) = 0: the floor
  EXPECT_EQ(Limits_For(0.49).max_cells_mesh, 1000000);
  EXPECT_EQ(Limits_For(0.5).max_cells_mesh, 1342177); // half away from zero: 1 << 30 / 800
  EXPECT_EQ(Limits_For(1.0).max_cells_mesh, 1342177);
  EXPECT_EQ(Limits_For(2.49).max_cells_mesh, 2684354); // 2 * 2^30 / 800 = 2684354.56
  EXPECT_EQ(Limits_For(2.5).max_cells_mesh, 4026531);  // 3, not the even 2
  EXPECT_EQ(Limits_For(5.0).max_cells_mesh, 6710886);
  EXPECT_EQ(Limits_For(5.49).max_cells_mesh, 6710886);
  EXPECT_EQ(Limits_For(5.5).max_cells_mesh, 8000000); // 8053063 capped at 4 * 2000000
  EXPECT_EQ(Limits_For(22.4).max_cells_mesh, 8000000);
  EXPECT_EQ(Limits_For(70.0).max_cells_mesh, 24000000);
  EXPECT_EQ(Limits_For(100.0).max_cells_mesh, 36000000);
  EXPECT_EQ(Limits_For(130.0).max_cells_mesh, 104000000);
  EXPECT_EQ(Limits_For(200.0).max_cells_mesh, 108000000);
}

TEST(Limits, ModelResolutionCellsRange) {
  // round(sqrt(0.8 * bytes / 8)) limited to 50000..200000.
  EXPECT_EQ(Limits_For(23.0, 23 * gib).nmodel_max_model_res, 50000); // 49695 raised
  EXPECT_EQ(Limits_For(90.0, 100000000000LL).nmodel_max_model_res, 100000);
  EXPECT_EQ(Limits_For(90.0, 40000000000LL).nmodel_max_model_res, 63246); // 63245.55
  EXPECT_EQ(Limits_For(300.0, 1000000000000LL).nmodel_max_model_res, 200000);
}

TEST(Limits, MemoryFigureAndRecordCount) {
  EXPECT_DOUBLE_EQ(Memory_G(24 * gib), 23.0);
  EXPECT_DOUBLE_EQ(Memory_G(31 * gib), 30.0);
  EXPECT_DOUBLE_EQ(Memory_G(gib + gib / 2), 0.5);

  EXPECT_EQ(Data_Records_Count(Limits_For(10.0)), 2500000);         // 12 * 60000 + 1
  EXPECT_EQ(Data_Records_Count(Limits_For(40.0)), 16 * 200000 + 1); // 3200001
  EXPECT_EQ(Data_Records_Count(Limits_For(300.0)), 45LL * 1900000 + 1);
}

TEST(Limits, DataSetTakesTemplateAtCreate) {
  Temp_Folder tmp;
  ASSERT_TRUE(tmp.ok());
  Front_End_Record rec;
  auto ds = std::make_unique<Data_Set>(Test_Start_Options(tmp, 24 * gib), Recording_Front_End(rec));
  EXPECT_DOUBLE_EQ(ds->System_config.mem_free_gb, 23.0);
  EXPECT_EQ(ds->System_config.lim_template.nmax_data, 60000);
  EXPECT_EQ(ds->Data_lim_sys.nmax_data, 0); // not in force before window creation

  ds->Create();
  const Data_Limits &lim = ds->Data_lim_sys;
  EXPECT_EQ(lim.nmax_data, 60000);
  EXPECT_EQ(lim.nmax_model, 60000);
  EXPECT_EQ(lim.nmax_elecs, 30000);
  EXPECT_EQ(lim.nmax_layers, 14);
  EXPECT_EQ(lim.max_cells_mesh, 8000000);
  EXPECT_EQ(lim.Mem_free_byte, 23 * gib);
  EXPECT_EQ(lim.nmax_fix_regions, 1000);
  EXPECT_EQ(lim.nthreads, omp_get_max_threads());
  EXPECT_EQ(ds->long_tables_status, 0);
  ASSERT_NE(ds->cell_values[3], nullptr);
  EXPECT_EQ(Block_Size(ds->cell_values[0]), 4 * (60000 + 1));

  // The data arrays start small and grow to the data read, keeping what
  // they held, up to the limits and no further.
  EXPECT_LT(ds->num_dp_records, 2000);
  ds->dp[5].value = 42.0f;
  ds->keep[5] = 3;
  ASSERT_EQ(ds->Reserve_Data_Records(5000, 3), 0);
  EXPECT_EQ(ds->num_dp_records, 15001);
  EXPECT_EQ(ds->num_dp_data, 5000);
  EXPECT_EQ(Block_Size(ds->dp), static_cast<int64_t>(sizeof(Data_Point)) * 15001);
  EXPECT_EQ(Block_Size(ds->sort_index), static_cast<int64_t>(sizeof(int64_t)) * 10004);
  EXPECT_EQ(ds->dp[5].value, 42.0f);
  EXPECT_EQ(ds->keep[5], 3);
  ASSERT_EQ(ds->Reserve_Data_Records(100, 1), 0); // never shrinks
  EXPECT_EQ(ds->num_dp_records, 15001);
  EXPECT_EQ(ds->Reserve_Data_Records(60001, 1), 1);
  EXPECT_EQ(ds->Reserve_Data_Records(60000, 100), 1); // past the record count
  EXPECT_EQ(ds->num_dp_records, 15001);

  ds->First_Paint();
  const std::string report = ds->Configuration_Report();
  EXPECT_TRUE(Starts_With(report, "PC configuration :-\n")) << report;
  EXPECT_NE(report.find("\nFree RAM 23.0 GB\n"), std::string::npos) << report;
  EXPECT_NE(report.find("Maximum data allowed 60000\nMaximum model allowed 60000\nMaximum "
                        "electrodes allowed 30000\nMaximum mesh cells 8000000"),
            std::string::npos)
      << report;
}
