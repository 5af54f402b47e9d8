// The commands that read a results file back and export one of its
// iterations: each loads the chosen iteration from the model binary files,
// then writes beside the results file.
#include <string>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "results/exports.h"
#include "results/results_file.h"
#include "survey/survey_text.h"

int Check_Results_Choice(Data_Set &ds, int iteration, bool ip) {
  const Inv_Results &r = ds.Inv_results;
  if (r.nitcount_inv < 1)
    return Show_Text(ds, "Message", MK_WARNING, "%s",
                     "The results file holds no model: the inversion stopped before its first "
                     "iteration.");
  if (iteration > r.nitcount_inv)
    return Show_Text(ds, "Message", MK_WARNING,
                     "Iteration %d is not in the results file.\nIt holds iterations 1 to %d.",
                     iteration, r.nitcount_inv);
  if (ip && !r.typeip)
    return Show_Text(ds, "Message", MK_WARNING, "%s",
                     "The results file holds no IP model: it is of resistivity data only.");
  return 0;
}

namespace {

// The chosen iteration (the last when none was chosen) into the live arrays.
int Load_Export_Iteration(Data_Set &ds, int &iteration) {
  const Inv_Results &r = ds.Inv_results;
  iteration = r.export_iteration > 0 ? r.export_iteration : r.nitcount_inv;
  if (Check_Results_Choice(ds, iteration, r.export_ip != 0))
    return 1;
  return Read_Model_Binary_File(ds, iteration);
}

int With_Iteration(Data_Set &ds,
                   int (*write)(Data_Set &, const std::string &, int, std::vector<std::string> &)) {
  int iteration = 0;
  if (Load_Export_Iteration(ds, iteration))
    return 1;
  std::vector<std::string> files;
  const int ierr = write(ds, ds.file_names.results_file, iteration, files);
  for (const std::string &f : files)
    Panel(ds, "File written %s", f.c_str());
  return ierr;
}

} // namespace

int Run_Read_Results(Data_Set &ds, const char *path) {
  return Call_Read_Inversion_File(ds, path);
}

int Run_Export_Model_List(Data_Set &ds, const char *) {
  return With_Iteration(
      ds, [](Data_Set &d, const std::string &p, int it, std::vector<std::string> &f) {
        return Save_Model_List_XYZ(d, p, it, d.Inv_results.export_ip && d.Inv_results.typeip, f);
      });
}

int Run_Export_XYZC(Data_Set &ds, const char *) {
  return With_Iteration(
      ds, [](Data_Set &d, const std::string &p, int it, std::vector<std::string> &f) {
        const Inv_Results &r = d.Inv_results;
        return Save_Blocks_Values_XYZ(d, p, it, r.export_log, r.export_ip && r.typeip, f);
      });
}

int Run_Export_VTK(Data_Set &ds, const char *) {
  return With_Iteration(ds,
                        [](Data_Set &d, const std::string &p, int it, std::vector<std::string> &f) {
                          const Inv_Results &r = d.Inv_results;
                          Vtk_Export opt;
                          opt.quantity = r.vtk_quantity == 2 && !r.typeip ? 0 : r.vtk_quantity;
                          opt.logarithm = r.vtk_log;
                          opt.topography = r.vtk_topography;
                          opt.with_ip = r.export_ip && r.typeip && opt.quantity != 2;
                          return Save_Model_VTK(d, p, it, opt, f);
                        });
}

int Run_Export_Misfit(Data_Set &ds, const char *) {
  return With_Iteration(ds, Dump_Data_Misfits_Txt);
}
