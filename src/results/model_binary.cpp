// Model binary files: every iteration's models and calculated values of the
// results file read last, flat 32-bit floats without a header, so that any
// iteration can be taken up again without parsing text. One iteration is
// read by walking the blocks in order.
#include <cstdio>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "results/results_file.h"
#include "survey/survey_text.h"

namespace {

const char *const model_names[3] = {"res_ip_model_inv_file.bin", "res_ip_model_inv_file_voi1.bin",
                                    "res_ip_model_inv_file_voi2.bin"};
const char *const data_names[3] = {"res_ip_data_inv_file.bin", "res_ip_data_inv_file_voi1.bin",
                                   "res_ip_data_inv_file_voi2.bin"};

// Writes the resistivity values and, when given, the IP values.
int Write_Sections(Data_Set &ds, const std::string &path, const float *res, const float *ip,
                   int64_t count, bool model) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (!f)
    return Show_Text(ds, "Message", MK_WARNING,
                     model ? "Error in creating inversion model file\n%s."
                           : "Error in creating inversion data file\n%s.",
                     path.c_str());
  bool ok = std::fwrite(res, sizeof(float), count, f) == static_cast<size_t>(count);
  if (ok && ip)
    ok = std::fwrite(ip, sizeof(float), count, f) == static_cast<size_t>(count);
  ok = std::fclose(f) == 0 && ok;
  if (!ok)
    return Show_Text(ds, "Message", MK_WARNING, "%s",
                     model ? "Error in saving inversion model values to binary file."
                           : "Error in saving inversion data values to binary file.");
  return 0;
}

// Walks `iterations` blocks of `size` values (then as many IP blocks when
// `ip`), reading block `k` into the targets and the others into scratch.
int Walk_Blocks(Data_Set &ds, const std::string &path, int iterations, int k, int64_t size, bool ip,
                std::vector<float> &res, std::vector<float> &ipv, bool model) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f)
    return Show_Text(ds, "Message", MK_WARNING,
                     model ? "Error in opening inversion model file\n%s."
                           : "Error in opening inversion data file\n%s.",
                     path.c_str());
  std::vector<float> scratch(static_cast<size_t>(size));
  std::vector<float> got_res, got_ip;
  int ierr = 0;
  for (int part = 0; part < (ip ? 2 : 1) && !ierr; part++) {
    std::vector<float> &target = part == 0 ? got_res : got_ip;
    for (int i = 1; i <= iterations; i++) {
      float *into = scratch.data();
      if (i == k) {
        target.resize(static_cast<size_t>(size));
        into = target.data();
      }
      if (std::fread(into, sizeof(float), size, f) != static_cast<size_t>(size)) {
        ierr = 1;
        break;
      }
    }
  }
  std::fclose(f);
  if (ierr) {
    TRACE("Model binary file %s is shorter than %d iterations of %lld values\n", path.c_str(),
          iterations, static_cast<long long>(size));
    return 1;
  }
  res.swap(got_res);
  if (ip)
    ipv.swap(got_ip);
  return 0;
}

} // namespace

void Set_Model_Binary_Names(Data_Set &ds) {
  Inv_Results &r = ds.Inv_results;
  const std::string &folder = ds.file_names.folder;
  r.model_bin = folder + model_names[0];
  r.data_bin = folder + data_names[0];
  for (int v = 0; v < 2; v++) {
    r.model_bin_voi[v] = folder + model_names[v + 1];
    r.data_bin_voi[v] = folder + data_names[v + 1];
  }
}

int Save_Model_Binary_File(Data_Set &ds, int run, const float *models, const float *ip_models,
                           const float *data, const float *ip_data) {
  Inv_Results &r = ds.Inv_results;
  Set_Model_Binary_Names(ds);
  const std::string &model_path = run == 0 ? r.model_bin : r.model_bin_voi[run - 1];
  const std::string &data_path = run == 0 ? r.data_bin : r.data_bin_voi[run - 1];
  const int64_t nm = static_cast<int64_t>(r.nitcount_inv) * r.nmodel * r.ntime;
  const int64_t nd = static_cast<int64_t>(r.nitcount_inv) * r.mdata * r.ntime;
  const bool ip = r.typeip > 0;
  int ierr = 0;
  if (nm <= 0 || !models)
    ierr |= Show_Text(ds, "Message", MK_WARNING, "No model information in inv file");
  else
    ierr |= Write_Sections(ds, model_path, models, ip ? ip_models : nullptr, nm, true);
  if (nd <= 0 || !data)
    ierr |= Show_Text(ds, "Message", MK_WARNING, "No data information in inv file");
  else
    ierr |= Write_Sections(ds, data_path, data, ip ? ip_data : nullptr, nd, false);
  return ierr;
}

int Read_Model_Binary_File_Voi(Data_Set &ds, int run, int iteration) {
  Inv_Results &r = ds.Inv_results;
  if (iteration < 1 || iteration > r.nitcount_inv)
    return 1; // the live arrays stay as they are
  if (r.model_bin.empty())
    Set_Model_Binary_Names(ds);
  const std::string &model_path = run == 0 ? r.model_bin : r.model_bin_voi[run - 1];
  const std::string &data_path = run == 0 ? r.data_bin : r.data_bin_voi[run - 1];
  const bool ip = r.typeip > 0;
  const int64_t nm = static_cast<int64_t>(r.nmodel) * r.ntime;
  const int64_t nd = static_cast<int64_t>(r.mdata) * r.ntime;
  if (Walk_Blocks(ds, model_path, r.nitcount_inv, iteration, nm, ip, r.rt_disp, r.ipt_disp, true) ||
      Walk_Blocks(ds, data_path, r.nitcount_inv, iteration, nd, ip, r.rm_disp, r.mip_disp, false))
    return 1;
  r.iteration_disp = iteration;
  return 0;
}

int Read_Model_Binary_File(Data_Set &ds, int iteration) {
  return Read_Model_Binary_File_Voi(ds, 0, iteration);
}
