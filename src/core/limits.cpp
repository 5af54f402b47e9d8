#include "core/limits.h"

#include <cmath>

namespace {

struct Limits_Row {
  double g_above;
  int grid_lines, grid_xy, data, model, time, elecs, layers, nodes_base;
};

// Rows by memory size; the last row whose threshold G exceeds applies.
const Limits_Row limit_rows[] = {
    {-1.0e300, 150, 15000, 60000, 60000, 12, 15000, 14, 2000000},
    {30.0, 220, 40000, 200000, 200000, 16, 40000, 16, 3000000},
    {60.0, 400, 200000, 600000, 600000, 16, 80000, 20, 6000000},
    {90.0, 600, 300000, 1100000, 1000000, 30, 1000000, 25, 9000000},
    {120.0, 1950, 1200000, 1800000, 5200000, 40, 1260000, 25, 26000000},
    {180.0, 1950, 1300000, 1900000, 6000000, 45, 1600000, 30, 27000000},
    {250.0, 1950, 1400000, 1900000, 7000000, 45, 1800000, 35, 28000000},
};

} // namespace

double Memory_G(int64_t total_bytes) {
  const double gib = 1073741824.0;
  return (static_cast<double>(total_bytes) - gib) / gib;
}

void Compute_Limits(double G, int64_t mem_free_byte, Data_Limits &lim) {
  const Limits_Row *row = &limit_rows[0];
  for (const Limits_Row &r : limit_rows)
    if (G > r.g_above)
      row = &r;

  lim.nmax_grid_lines = row->grid_lines;
  lim.nmax_grid_xy = row->grid_xy;
  lim.nmax_data = row->data;
  lim.nmax_model = row->model;
  lim.nmax_time = row->time;
  lim.nmax_elecs = row->elecs;
  lim.nmax_layers = row->layers;
  lim.nmax_nodes_base = row->nodes_base;

  lim.nmax_half_nodes = row->nodes_base / 2;

  // round() is half away from zero, as std::llround is.
  const int64_t rg = std::llround(G);
  int64_t cells = ((rg << 10) << 20) / 800;
  if (cells < 1000000)
    cells = 1000000;
  if (cells > 4LL * row->nodes_base)
    cells = 4LL * row->nodes_base;
  if (cells > 260000000)
    cells = 260000000;
  lim.max_cells_mesh = cells;

  if (lim.nmax_model > 6000000)
    lim.nmax_model = 6000000;
  if (lim.nmax_data > 1900000)
    lim.nmax_data = 1900000;
  lim.nmax_elecs = (lim.nmax_elecs < 1600000 ? lim.nmax_elecs : 1600000) + lim.nmax_grid_xy;

  lim.nmax_xy_nodes = 4 * lim.nmax_grid_lines + 40;
  lim.nmax_z_nodes = 3 * lim.nmax_layers;
  lim.Mem_free_byte = mem_free_byte;

  int64_t res = std::llround(std::sqrt(0.8 * static_cast<double>(mem_free_byte) / 8.0));
  if (res < 50000)
    res = 50000;
  if (res > 200000)
    res = 200000;
  lim.nmodel_max_model_res = static_cast<int>(res);
}

int64_t Data_Records_Count(const Data_Limits &lim) {
  const int64_t n = static_cast<int64_t>(lim.nmax_time) * lim.nmax_data + 1;
  return n > 2500000 ? n : 2500000;
}
