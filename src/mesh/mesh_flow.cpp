// The model and mesh steps of a data file's read: settings from the data,
// the layers, the main mesh, and the "Inversion Parameters" panel.
#include <algorithm>
#include <cmath>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "forward/element_matrices.h"
#include "mesh/mesh.h"
#include "survey/survey_text.h"

namespace {

// Jacobian and Hessian sizes against the memory: the incomplete
// Gauss-Newton method when they would not fit.
void Check_Jacobian_Size(Data_Set &ds) {
  progress(ds, "Check model Jacobian size", 0.9);
  const Model_Grid &g = ds.Model_grid;
  LS_Method &ls = ds.LS_method;
  double jac = 4.0 * ds.mdata * g.nmodel_blocks;
  if (ls.data_compression > 0)
    jac *= 2.0;
  const double hess = 8.0 * g.nmodel_blocks * static_cast<double>(g.nmodel_blocks);
  const double bound = 0.9 * static_cast<double>(ds.Data_lim_sys.Mem_free_byte);
  if (ls.incomplete_solve == 0 && (hess > bound || jac > bound)) {
    print_to_buffer(ds.mesg, sizeof ds.mesg,
                    "Your data set has %d data points,\nand the current model has %d cells.\nIt "
                    "could take a long while to invert\nthis data set using the "
                    "standard\nGauss-Newton optimization method.\nIt might be possible to "
                    "significantly\nreduce the inversion time by using\nthe incomplete "
                    "Gauss-Newton method.\n\nIf you wish to use the incomplete\nGauss-Newton "
                    "method,click 'Yes' below.\n\nIf you click 'No',the default "
                    "standard\nGauss-Newton method will be used.\n",
                    ds.mdata, g.nmodel_blocks);
    if (ask_question(ds, ds.mesg, "Incomplete Gauss-Newton method"))
      ls.incomplete_solve = 2;
    if (jac > bound) {
      ls.incomplete_solve = 2;
      ds.jacobian_on_disk = 1;
    }
  } else if (ls.incomplete_solve != 0 && jac > bound) {
    ls.incomplete_solve = 2;
    ds.jacobian_on_disk = 1;
  }
}

} // namespace

int Set_Inversion_Settings_From_Data(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  if (ds.array2 == 16)
    ds.appres_inv = 0; // vector arrays are inverted as logarithms
  if (ds.num_point_elecs > 0) {
    progress(ds, "Set point electrode settings", 0.1);
    if (ds.num_sub_elecs > 0) {
      g.nodes_per_layer_setting = std::max(g.nodes_per_layer_setting, 1);
      g.reduceside = std::min(g.reduceside, 1);
      ds.LS_method.vh_filter_ratio = 1.0;
    }
  }
  progress(ds, "Set grid node numbers", 0.2);
  if (g.ngridx < 2 || g.ngridy < 2)
    return 1;
  g.Check_Buffer_Nodes_XY(ds);
  g.tank_limit = ds.tank.present;
  g.tank_depth = ds.tank.present ? ds.tank.z / ds.spxx : 0.0;
  if (ds.array != 11 && ds.num_sub_elecs > 0) {
    progress(ds, "Set model conventional array layers", 0.3);
    if (ds.min_elec_sep > 0.0)
      g.thick1 = std::max(g.thick1, 0.1 * ds.min_elec_sep);
  } else {
    progress(ds, "Set general array model layers", 0.3);
  }
  g.psdepthmax = Survey_Depth(ds, g.depth_method);
  if (g.Set_Model_Layers(ds, zbl_capacity, ds.Data_lim_sys.nmax_model))
    return 1;
  if (ds.water.kind == 1 || ds.water.kind == 2)
    g.nwater = ds.water.some_above ? 8 : 6;
  else
    g.nwater = 0;
  Check_Jacobian_Size(ds);
  TRACE("Set_Inversion_Settings_From_Data nlayers %d psdepthmax %.3f nwater %d incomplete %d\n",
        g.nlayers, g.psdepthmax, g.nwater, ds.LS_method.incomplete_solve);
  return 0;
}

int Set_Model_Mesh_XYZ(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  g.max_layer_nodes =
      static_cast<int64_t>(ds.Data_lim_sys.nmax_xy_nodes) * ds.Data_lim_sys.nmax_xy_nodes;
  g.max_mesh_nodes = ds.Data_lim_sys.max_cells_mesh;
  // The adaptive mesh divides each model cell into four spacings, and keeps
  // more fine levels under a finer vertical mesh.
  static const int fine_levels[4] = {5, 10, 14, 16};
  const int s = std::clamp(g.nodes_per_layer_setting, 0, 3);
  ss.num_fine_used = ss.num_fine_levels;
  if (ss.use_dense_rect_mesh != 1) {
    g.nodes_per_unit_spacing = 4;
    ss.num_fine_used = std::max(ss.num_fine_levels, fine_levels[s]);
    // The trilinear element converges with the mesh where the averaged one
    // gains by cancelling errors: two more dense levels under the
    // electrodes halve its error near the sources for a fifth more nodes.
    if (ds.Fem.hex_element != HEX_AVERAGED_TETS)
      ss.num_fine_used += 2;
  }
  if (g.Set_Mesh_For_Point_Electrodes(ds))
    return 1;
  if (g.sz.Resize(ds, g.lxy, "surface node elevation"))
    return 1;
  Set_Surface_Mesh_Topography(ds);
  g.setlz(ds);
  if (Set_Model_Mesh_XYZ_Rect(ds))
    return 1;
  g.Set_Model_Blocks_Volumes_And_Mesh_Limits();
  Add_Topography_Model(ds);
  g.Calculate_Blocks_Centers();
  return 0;
}

double Calculate_Disk_Space_Temp_Files(Data_Set &ds, char *text, int size) {
  const Model_Grid &g = ds.Model_grid;
  const double gb = 9.313225746154785e-10;
  const int nseg = g.num_splice_x * g.num_splice_y;
  const double nodes = static_cast<double>(g.lx) * g.ly * g.lzw;
  const double series = std::max(1, ds.ntime);
  double disk_jac = g.nmodel_blocks * series * 4.0 * ds.mdata * gb;
  double total;
  if (nseg < 2) {
    const double disk_mesh = nodes * 4.0 * ds.nelec_use * gb;
    total = disk_mesh + disk_jac;
  } else {
    const double disk_mesh =
        (nodes * 1.1 / nseg) * 4.0 * (static_cast<double>(ds.nelec_use) / nseg) * gb * 1.1;
    disk_jac *= 1.1;
    total = std::max(disk_mesh, disk_jac);
  }
  if (ds.Data_ip.typeip > 0)
    total *= 2.0;
  total *= 1.1;
  if (total < 1.0)
    print_to_buffer(text, size, "Disk space needed for temporary files is %.4f GB.  ", total);
  else if (total < 10.0)
    print_to_buffer(text, size, "Disk space needed for temporary files is %.2f GB.  ", total);
  else if (total < 2048.0)
    print_to_buffer(text, size, "Disk space needed for temporary files is %.1f GB.  ", total);
  else
    print_to_buffer(text, size, "Disk space needed for temporary files is %.2f TB.  ",
                    total * 0.0009765625);
  return total;
}

void Show_Inversion_Parameters(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  char line[256];
  panel_text(ds, "Inversion Parameters");
  auto show = [&](const char *text) { panel_text_params(ds, text); };
  print_to_buffer(line, sizeof line, "Number of layers is %d.", g.nlayers);
  show(line);
  print_to_buffer(line, sizeof line, "Depth of last layer is %5.2f to %5.2f.",
                  g.zbl[g.nlayers - 1] * ds.spxx, g.zbl[g.nlayers] * ds.spxx);
  show(line);
  print_to_buffer(line, sizeof line, "Number of model blocks is %d.", g.nmodel_blocks);
  show(line);
  print_to_buffer(line, sizeof line, "Number of data points is %d.", ds.mdata);
  show(line);
  print_to_buffer(line, sizeof line, "Number of nodes in mesh is %dx%dx%d=%d.", g.lx, g.ly, g.lzw,
                  g.lx * g.ly * g.lzw);
  show(line);
  print_to_buffer(line, sizeof line, "Number of electrodes used is %d.", ds.nelec_use);
  show(line);
  Calculate_Disk_Space_Temp_Files(ds, line, sizeof line);
  show(line);
}

int Call_Generate_Mesh(Data_Set &ds, const char *vtk_path) {
  if (ds.mdata < 1 || ds.Model_grid.nlayers < 1)
    return Refuse_Always(ds, "Message", "You must first read in a data file");
  const SemiStructured &ss = ds.Semistructured;
  const Model_Grid &g = ds.Model_grid;
  const auto start = Clock::now();
  if (Set_SemiStructured_Mesh(ds))
    return 1;
  const double seconds = Seconds_Since(start);
  Panel(ds, "Finite-element mesh: %s.",
        ss.use_dense_rect_mesh == 1 ? "dense rectangular" : "adaptive semi-structured");
  Panel(ds, "Main mesh nodes %dx%dx%d=%lld.", g.lx, g.ly, g.lzw,
        static_cast<long long>(ss.number_nodes_main));
  Panel(ds, "Nodes in the solved mesh %d.", ss.number_nodes_ss);
  Panel(ds, "Elements %lld: %lld hexahedra, %lld tetrahedra.",
        static_cast<long long>(ss.number_elements), static_cast<long long>(ss.num_hex),
        static_cast<long long>(ss.num_tet));
  if (ss.use_dense_rect_mesh != 1)
    Panel(ds, "Transition blocks %lld of %lld patterns.",
          static_cast<long long>(ss.num_transition_blocks),
          static_cast<long long>(ss.num_patterns));
  Panel(ds, "Mesh generated in %.3f s.", seconds);
  const Mesh_Check c = Check_SemiStructured_Mesh(ds);
  Panel(ds, "Element volume %.6g, mesh volume %.6g (relative difference %.2e).", c.vol_elements,
        c.vol_grid, c.vol_grid > 0.0 ? std::fabs(c.vol_elements - c.vol_grid) / c.vol_grid : 0.0);
  Panel(ds,
        "Open faces %lld, faces shared more than twice %lld, elements off their levels %lld, "
        "transition volume errors %lld.",
        static_cast<long long>(c.open_tet_faces + c.open_hex_faces),
        static_cast<long long>(c.overshared_faces), static_cast<long long>(c.level_errors),
        static_cast<long long>(c.bad_volumes));
  if (vtk_path && vtk_path[0]) {
    if (Write_Mesh_Vtk(ds, vtk_path))
      return 1;
    Panel(ds, "Mesh written to %s.", vtk_path);
  }
  return 0;
}
