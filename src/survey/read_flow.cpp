// The read of a data file (command 201): the whole file into memory, the
// parse, and the new data file that some reads must write.
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/settings_snapshot.h"
#include "core/trace.h"
#include "mesh/mesh.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

void Electrodes_Per_Point(Data_Set &ds) {
  ds.narray_same = ds.mdata > 0 ? ds.dp[0].nelec : 0;
  ds.nelec_max = 0;
  for (int i = 0; i < ds.mdata; i++) {
    if (ds.dp[i].nelec != ds.narray_same)
      ds.narray_same = 0;
    if (ds.dp[i].nelec > ds.nelec_max)
      ds.nelec_max = ds.dp[i].nelec;
  }
}

// Writes the data read into "_sort.dat", "_ext.dat" or "_new.dat". Returns 1
// when the read must count as failed (the new file must be read instead).
int Save_New_Data_File(Data_Set &ds) {
  char path[2048];
  const char *ending = ds.flag_save_in_new_format == 0 ? "_sort.dat"
                       : ds.grid_extend                ? "_ext.dat"
                                                       : "_new.dat";
  Derived_File_Name(ds.file_names.data_file.c_str(), ending, path, sizeof path);
  const int listed = ds.num_point_elecs;
  if (ds.pe_converted) {
    // Only the electrodes the data use are written; the table comes back after.
    Check_Electrodes_Usage(ds);
    std::memcpy(static_cast<void *>(ds.pe_work), ds.pe, sizeof(Point_Electrode) * listed);
    int n = 0;
    for (int e = 0; e < listed; e++)
      if (ds.pe_work[e].used)
        ds.pe[n++] = ds.pe_work[e];
    ds.num_point_elecs = n;
  }
  const int ierr = File_Save(ds, path);
  if (ds.pe_converted) {
    std::memcpy(static_cast<void *>(ds.pe), ds.pe_work, sizeof(Point_Electrode) * listed);
    ds.num_point_elecs = listed;
  }
  if (ierr)
    return 1;
  if (!ds.pe_converted) {
    Show_Text(ds, "Data File", MK_INFORMATION, "Sorted data file saved in\n%s\n", path);
    return 0;
  }
  if (ds.grid_extend) {
    Show_Text(ds, "File extended grid modification", MK_INFORMATION,
              "Model cell with 4 nodes at edge of grid.\nSaving the data into a new file with "
              "extended model grid\n%s\nIt is recommeded that you read this new file and select "
              "the semi-structured grid method. The computer might not have sufficient memory "
              "for the simple rectangular mesh.",
              path);
    return 0;
  }
  Show_Text(ds, "Data File", MK_INFORMATION,
            "Data file in point electrodes format saved in\n%s\nThe original file had %d "
            "missing point electrodes.\nYou need to read in this new sorted file to carry out "
            "the inversion.",
            path, ds.missing_electrodes);
  ds.mdata = 0;
  return 1;
}

} // namespace

// The whole file into a buffer of size + 1 bytes.
int Load_Text_File(Data_Set &ds, const char *path, std::unique_ptr<char[]> &buffer) {
  FILE *f = std::fopen(path, "rb");
  struct stat st;
  if (!f || fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) {
    if (f)
      std::fclose(f);
    return Show_Text(ds, "File Error", MK_WARNING,
                     "There is a problem in reading the following file\n%s", path);
  }
  const size_t size = static_cast<size_t>(st.st_size);
  buffer.reset(new (std::nothrow) char[size + 1]);
  const bool ok = buffer && std::fread(buffer.get(), 1, size, f) == size;
  std::fclose(f);
  if (!ok)
    return Show_Text(ds, "File Error", MK_WARNING,
                     "There is a problem in reading the following file\n%s", path);
  buffer[size] = 0;
  ds.img = Text_Image();
  ds.img.buf = buffer.get();
  ds.img.size = static_cast<int64_t>(size);
  return 0;
}

// The settings the data call for, the model layers and mesh, and the cells of
// the electrodes; on failure the data are dropped (mdata 0) and 1 returned.
static int Set_Model_For_Data(Data_Set &ds) {
  if (Set_Inversion_Settings_From_Data(ds) || Set_Model_Mesh_XYZ(ds)) {
    Show_Text(ds, "File Error", MK_WARNING, "Error in setting up model mesh\n");
    ds.mdata = 0;
    return 1;
  }
  if (Check_Model_Cell_Electrodes(ds)) {
    ds.mdata = 0;
    return 1;
  }
  return 0;
}

int Call_Read_Data_File(Data_Set &ds, const char *path) {
  ds.current_command = 201;
  if (!path || !path[0])
    return 1; // the chooser was cancelled: nothing changes
  std::unique_ptr<char[]> buffer;
  if (Load_Text_File(ds, path, buffer))
    return 1;
  ds.file_names.data_file = path;
  Settings_Snapshot before;
  before.Take(ds);
  if (Parse_Data_File(ds)) {
    Show_Text(ds, "File Error", MK_WARNING, "Error in reading file %s\n", path);
    ds.mdata = 0;
    before.Restore(ds);
    ds.img = Text_Image();
    return 1;
  }
  ds.img = Text_Image();
  Show_Text(ds, "File Read", MK_WARNING, "Reading of file %s completed\n", path);
  Electrodes_Per_Point(ds);
  if (Set_Model_For_Data(ds))
    return 1;
  int failed = 0;
  if (ds.mdata > 0 &&
      (ds.data_points_removed == 1 || ds.flag_save_in_new_format > 0 || ds.save_sorted_next_read))
    failed = Save_New_Data_File(ds);
  if (!failed && ds.mdata > 0 && ds.Model_grid.nmodel_blocks > 0)
    Show_Inversion_Parameters(ds);
  if (ds.flag_save_in_new_format > 0) {
    ds.mdata = 0;
    ds.flag_save_in_new_format = 0;
  }
  progress(ds, "Completed reading file", 1.0);
  TRACE("Call_Read_Data_File %s mdata %d\n", path, ds.mdata);
  return failed || ds.mdata < 1 ? 1 : 0;
}

int Reset_Model_After_Settings(Data_Set &ds, const char *) {
  if (ds.mdata < 1 || ds.data_read != 1)
    return 0;
  if (Set_Model_For_Data(ds))
    return 1;
  if (ds.Model_grid.nmodel_blocks > 0)
    Show_Inversion_Parameters(ds);
  return 0;
}
