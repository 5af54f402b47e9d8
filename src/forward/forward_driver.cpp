// The order of one forward calculation: mesh, conductivities, assembly,
// factorisation and solves, apparent resistivities and misfits.
#include <algorithm>
#include <cmath>
#include <vector>

#include "core/clock.h"
#include "core/data_set.h"
#include "core/folders.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "forward/forward.h"
#include "forward/sparse_solver.h"
#include "mesh/mesh.h"
#include "survey/survey_text.h"

namespace {

// Assembly to stored potentials, then the calculated data and misfits.
int Solve_And_Calculate(Data_Set &ds, bool cmplx) {
  Fem_State &fem = ds.Fem;
  const auto t0 = Clock::now();
  int ierr = Start_SemiStructured(ds);
  fem.t_mesh = Seconds_Since(t0);
  TRACE("After Start_Semistructured\n");
  if (!ierr) {
    progress(ds, cmplx ? "Selecting complex forward modeling method" : "Forward Modeling Real",
             0.0);
    ierr = Call_Forward_Model_Calculation(ds);
  }
  if (!ierr)
    ierr = cmplx ? Cal_App_Resis_cmplx_VC(ds) : Cal_App_Resis_Real(ds);
  if (!ierr) {
    progress(ds, "Calculating data misfits", 0.0);
    cmplx ? Cal_App_Resis_Diff_cmplx(ds) : Cal_App_Resis_Diff(ds);
    progress(ds, "End calculating potentials", 1.0);
    if (fem.negative_values > 0) {
      progress(ds,
               "Negative calculated apparent resistivity or large range of resistivity/I.P. values",
               1.0);
      TRACE("Dumping negative values %d\n", fem.negative_values);
    }
  }
  progress(ds, "End forward modeling", 1.0);
  Free_Arrays_ss(ds);
  return ierr;
}

} // namespace

int Forward_Model_Memory_Check(Data_Set &ds) {
  const Model_Grid &g = ds.Model_grid;
  progress(ds, "Checking memory", 0.0);
  const int64_t nodes = static_cast<int64_t>(g.lx) * g.ly * (g.lz + g.nwater);
  const int64_t limit = g.max_mesh_nodes > 0 ? g.max_mesh_nodes : INT32_MAX;
  if (nodes > limit) {
    if (ds.batch_mode)
      Progress_Text(ds, 0.0, "Model grid has %d nodes. Maximum allowed is %d",
                    static_cast<int>(std::min<int64_t>(nodes, INT32_MAX)),
                    static_cast<int>(std::min<int64_t>(limit, INT32_MAX)));
    else
      Refuse_Always(ds, "Program limit message",
                    "Your model grid has %d nodes.\nThe maximum allowed is %d nodes.",
                    static_cast<int>(std::min<int64_t>(nodes, INT32_MAX)),
                    static_cast<int>(std::min<int64_t>(limit, INT32_MAX)));
    return 1;
  }
  double lx = g.lx, ly = g.ly, lz = g.lz + g.nwater;
  const int nsx = g.num_splice_x, nsy = g.num_splice_y;
  if (nsx * nsy > 1) {
    lx = 4.0 * lx / (3.0 * nsx);
    ly = 4.0 * ly / (3.0 * nsy);
  }
  if (ds.Semistructured.use_dense_rect_mesh != 1) {
    lx *= 0.7;
    ly *= 0.7;
    lz *= 0.7;
  }
  // The assembly store (37 slots of a column and a value a row) and the
  // single-precision factors of a nested-dissection ordering of a 3-D mesh,
  // whose entries grow as n^(4/3).
  const double n = lx * ly * lz;
  const double factor_bytes = 80.0 * std::pow(n, 4.0 / 3.0);
  const double mb = (n * 37.0 * 16.0 + factor_bytes) / 1048576.0;
  const double free_mb = Available_Memory_Bytes() / 1048576.0;
  int ierr = 0;
  if (mb > free_mb) {
    progress(ds, "Insufficient memory for finite-element method", 0.0);
    Refuse_Always(
        ds, "Memory Error Message",
        "The is insufficient memory for finite-element\nsubroutine to model your data set. You "
        "need\n%.2f MB RAM to model this data set which is\nmore than the amount of free memory "
        "%.2f MB\nthat you have.\n",
        mb, free_mb);
    ierr = 1;
  }
  progress(ds, "End checking memory", 1.0);
  TRACE("end Data_Set::Forward_Model_Memory_Check lx %d ly %d lz %d  memory needed %8.3f MB ierr "
        "%d\n",
        g.lx, g.ly, g.lz, mb, ierr);
  return ierr;
}

int Start_SemiStructured(Data_Set &ds) {
  Model_Grid &g = ds.Model_grid;
  SemiStructured &ss = ds.Semistructured;
  progress(ds, "Generating elements..", 0.0);
  g.Set_Model_Blocks_Volumes_And_Mesh_Limits();
  TRACE("Selecting ss meshing method  use_dense_rect_mesh %d   type_ss_mesh %d   type_ss_ver %d\n",
        ss.use_dense_rect_mesh, ss.type_ss_mesh, ss.type_ss_ver);
  if (Set_SemiStructured_Mesh(ds))
    return 1;
  if (Set_Electrode_Nodes(ds))
    return 1;
  progress(ds, "Setting Jacobian limits..", 0.0);
  TRACE("End Data_Set::Start_Semistructured\n\n");
  return 0;
}

void Free_Arrays_ss(Data_Set &ds) {
  SemiStructured &ss = ds.Semistructured;
  Fem_State &fem = ds.Fem;
  TRACE("Free_Arrays_ss elements %lld nodes %d\n", static_cast<long long>(ss.number_elements),
        ss.number_nodes_ss);
  fem.coomatrix64.Free_COO();
  fem.coomatrix64.Free_CSR();
  // The Jacobian reads the elements and their stored values; it frees them.
  if (!fem.jacob) {
    ss.elements.Free();
    fem.cp18.Free();
    fem.cp_offset.Free();
  }
}

int Forward_Model_FEM_MUMPS_ll_ss(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  auto t0 = Clock::now();
  progress(ds, "FEM Modeling-Setting matrices ss", 0.0);
  int ierr = Set_Up_Cap_Matrix_Blk(ds, fem.jacob, ds.file_names.temp[TF_JACOBFX]);
  if (ierr) {
    show_message(ds, "Error in calculating ss capacitence matrix",
                 "Finite-element capacitence matrix real routine");
    return ierr;
  }
  progress(ds, "FEM Modeling-Setting grid ss", 0.0);
  CooMatrix64 &m = fem.coomatrix64;
  if (m.COO_to_CSR_Fix(ds, ds.file_names.temp[TF_TEMPFILE]) ||
      m.Get_CSR(ds, ds.file_names.temp[TF_TEMPFILE]))
    return 1;
  fem.t_assembly = Seconds_Since(t0);
  return Solve_Sources(ds);
}

int Call_Forward_Model_Calculation(Data_Set &ds) {
  return Forward_Model_FEM_MUMPS_ll_ss(ds);
}

int Forward_Model_Real(Data_Set &ds, const float *res, int jacob) {
  progress(ds, "Forward Modeling Real", 0.0);
  ds.Data_ip.ipcmplx = 0;
  ds.Fem.jacob = jacob;
  progress(ds, "Set mesh conductivity", 0.0);
  const int ierr = ds.Model_grid.Set_Conductivity(ds, res);
  if (ierr) {
    Refuse_Always(ds, "Message", "Error number %d in Set_Conductivity\nin Forward_Model_Real",
                  ierr);
    return ierr;
  }
  progress(ds, "Adjust mesh conductivity", 0.0);
  const int e = Solve_And_Calculate(ds, false);
  if (e)
    Refuse_Always(ds, "Message", "Error %d in Forward_Model_Real_Single", e);
  return e;
}

int Forward_Model_Cmplx(Data_Set &ds, const float *res, const float *ip, int jacob) {
  Fem_State &fem = ds.Fem;
  ds.Data_ip.ipcmplx = 1;
  fem.jacob = jacob;
  progress(ds, "Complex Forward Modeling", 0.0);
  progress(ds, "Setting mesh complex conductivity", 0.0);
  int ierr = ds.Model_grid.Set_Conductivity_Cmplx(ds, res, ip);
  if (!ierr && jacob) {
    progress(ds, "Checking disk space for complex forward modeling", 0.0);
    const double need = 2.0 * 4.0 * ds.nelec_use * static_cast<double>(ds.Model_grid.lx) *
                        ds.Model_grid.ly * ds.Model_grid.lzw / 1073741824.0;
    const double have = Free_Disk_Bytes(ds.file_names.folder) / 1073741824.0;
    if (need > have) {
      Refuse_Always(
          ds, "Error Message",
          "Insufficient disk space for complex\nJacobian matrix potentials!\nSpace needed is "
          "%.1fGB. Space available is %.1fGB\n",
          need, have);
      ierr = 1;
    }
  }
  if (!ierr)
    ierr = Solve_And_Calculate(ds, true);
  if (ierr)
    Refuse_Always(ds, "Error Message", "Error %d in complex forward modelling!", ierr);
  return ierr;
}

int Select_Forward_Model(Data_Set &ds, const float *res, const float *ip, int jacob) {
  if (ds.Data_ip.typeip > 0 && ds.Data_ip.complex_forward_model == 1 && ip)
    return Forward_Model_Cmplx(ds, res, ip, jacob);
  return Forward_Model_Real(ds, res, jacob);
}

int Set_Normalisation_Factors(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  if (!Half_Space_Analytic_Available(ds)) {
    fem.normalise_potentials = 0;
    return Refuse_Always(
        ds, "Normalise potentials",
        "Normalisation of the potentials needs a homogeneous half-space with analytic "
        "values (flat ground, no water layer, geometric factors from the electrode "
        "positions).\nThe potentials are not normalised in this run.");
  }
  std::vector<float> unit(std::max(ds.Model_grid.nmodel_blocks, 1), 1.0f);
  fem.norm_ready = 0;
  const int jacob = fem.jacob;
  progress(ds, "Normalise potentials", 0.0);
  const int ierr = Forward_Model_Real(ds, unit.data(), 0);
  fem.jacob = jacob;
  if (ierr || fem.norm_factor.Resize(ds, std::max(ds.mdata, 1), "normalisation factors"))
    return 1;
  for (int i = 0; i < ds.mdata; i++) {
    const double v = fem.rm_volt[i];
    fem.norm_factor[i] =
        v != 0.0 ? static_cast<float>(Half_Space_Analytic_Ratio(ds, i) * ds.dp[i].gfac / v) : 1.0f;
  }
  fem.norm_ready = 1;
  return 0;
}

int Forward_Model_LS(Data_Set &ds, const float *res, const float *ip, int jacob) {
  TRACE("\nForward_Model_LS enter dataconstr %d\n", ds.LS_method.dataconstr);
  const auto t0 = Clock::now();
  if (ds.Fem.normalise_potentials && !ds.Fem.norm_ready)
    Set_Normalisation_Factors(ds);
  const int ierr = Select_Forward_Model(ds, res, ip, jacob);
  ds.Fem.t_total = Seconds_Since(t0);
  return ierr;
}
