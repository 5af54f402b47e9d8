// Sources, right-hand sides and the stored potentials: the upper triangle of
// electrode-to-electrode values (v_file), and the whole field of every
// source for the Jacobian (potentials_nodes), both appended batch by batch.
#include <cerrno>
#include <cstdio>
#include <vector>

#include <cerrno>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "forward/forward.h"
#include "survey/survey_text.h"

namespace {

const Electrode_Nodes *Entries(const Data_Set &ds) {
  return ds.use_dipoles_fem == 1 ? ds.Fem.dip.data() : ds.Fem.en.data();
}

bool Entry_Used(const Data_Set &ds, int e) {
  return ds.use_dipoles_fem == 1 ? true : ds.pe[e].used > 0;
}

// Appends n values to a file; a failure is shown with the file's name.
int Append_Values(Data_Set &ds, const std::string &path, const float *v, int64_t n) {
  errno = 0;
  const int r = Write_Values_Chunks(path, v, n, true);
  const int err = errno;
  if (r == 2)
    return Show_Text(ds, "Error opening potentials binary file", MK_WARNING,
                     "Error in opening binary file with potential values\n%s", path.c_str());
  if (r)
    return Show_Text(ds, "Message", MK_WARNING, "Error in writing the file %s%s", path.c_str(),
                     Os_Error_Text(err).c_str());
  return 0;
}

int Empty_File(Data_Set &ds, const std::string &path) {
  std::remove(path.c_str());
  if (Write_Values_Chunks(path, nullptr, 0, false))
    return Show_Text(ds, "Message", MK_WARNING, "Unable to create the file %s", path.c_str());
  return 0;
}

} // namespace

int Set_Source_List(Data_Set &ds, int jacob) {
  Fem_State &fem = ds.Fem;
  const int n = fem.nelec;
  if (fem.sources.Resize(ds, std::max(n, 1), "sources") ||
      fem.offset_pot.Resize(ds, std::max(n, 1), "potential offsets") ||
      fem.offset_field.Resize(ds, std::max(n, 1), "field offsets"))
    return 1;
  int count = 0;
  int64_t table = 0;
  for (int e = 0; e < n; e++) {
    if (!Entry_Used(ds, e) || (jacob == 0 && e == n - 1))
      continue;
    fem.sources[count++] = e + 1;
    table += n - (e + 1);
  }
  fem.nsources = count;
  fem.kpot = fem.kfield = 0;
  const int64_t vw = ds.Fem.coomatrix64.cmplx ? 1 : 0;
  if (fem.use_file == 0) {
    if (fem.vpot.Resize(ds, std::max<int64_t>(table, 1), "electrode potentials"))
      return 1;
    if (vw && fem.vpot_i.Resize(ds, std::max<int64_t>(table, 1), "electrode potentials imaginary"))
      return 1;
  }
  return 0;
}

int set_elec_numbers_ss(Data_Set &ds, int nblk, const int *list, float *rhs, bool complex_values) {
  const int64_t n = ds.Fem.coomatrix64.n, vw = complex_values ? 2 : 1;
  std::fill(rhs, rhs + nblk * n * vw, 0.0f);
  const Electrode_Nodes *entries = Entries(ds);
  for (int c = 0; c < nblk; c++) {
    const Electrode_Nodes &en = entries[list[c] - 1];
    float *col = rhs + c * n * vw;
    for (int k = 0; k < en.ni; k++) {
      const int node = en.elec_int_ss[k];
      if (node < 1 || node > n) {
        if (ds.use_dipoles_fem == 1)
          return Refuse_Always(ds, "Error dipole current",
                               "Error in setting dipole current electrode %d", list[c]);
        continue;
      }
      col[(node - 1) * vw] += en.ni == 1 ? 1.0f : en.w[k];
    }
  }
  return 0;
}

int Reset_Potential_Files(Data_Set &ds, int jacob) {
  const File_Names &f = ds.file_names;
  const bool cmplx = ds.Fem.coomatrix64.cmplx != 0;
  if (Empty_File(ds, f.temp[TF_V_FILE]) || (cmplx && Empty_File(ds, f.temp[TF_V_FILE_I])))
    return 1;
  if (jacob &&
      (Empty_File(ds, f.temp[TF_POTENTIALS]) || (cmplx && Empty_File(ds, f.temp[TF_POTENTIALS_I]))))
    return 1;
  return 0;
}

int seq_save_vpot_nblk_ss(Data_Set &ds, int nblk, const int *list, const float *x,
                          bool complex_values) {
  Fem_State &fem = ds.Fem;
  const int64_t n = fem.coomatrix64.n, vw = complex_values ? 2 : 1;
  const int nelec = fem.nelec;
  const Electrode_Nodes *entries = Entries(ds);
  std::vector<float> row(nelec), row_i(complex_values ? nelec : 0);
  for (int c = 0; c < nblk; c++) {
    const int s = list[c];
    const float *col = x + c * n * vw;
    fem.offset_pot[s - 1] = fem.kpot;
    const int len = nelec - s;
    int errors = 0;
#pragma omp parallel for schedule(static) reduction(+ : errors)
    for (int j = s + 1; j <= nelec; j++) {
      double vr = 0.0, vi = 0.0;
      if (Entry_Used(ds, j - 1)) {
        const Electrode_Nodes &en = entries[j - 1];
        for (int k = 0; k < en.ni; k++) {
          const int node = en.elec_int_ss[k];
          if (node < 1 || node > n) {
            errors++;
            continue;
          }
          vr += en.w[k] * static_cast<double>(col[(node - 1) * vw]);
          if (complex_values)
            vi += en.w[k] * static_cast<double>(col[(node - 1) * vw + 1]);
        }
      }
      row[j - s - 1] = static_cast<float>(vr);
      if (complex_values)
        row_i[j - s - 1] = static_cast<float>(vi);
    }
    if (errors) {
      if (ds.use_dipoles_fem == 1)
        Refuse_Always(ds, "Error Message 2",
                      "There were %d errors in setting the node number for dipoles", errors);
      else
        Refuse_Always(ds, "Error Message 1",
                      "There were %d error in setting the node number for electrodes", errors);
    }
    if (len > 0) {
      if (Append_Values(ds, ds.file_names.temp[TF_V_FILE], row.data(), len) ||
          (complex_values && Append_Values(ds, ds.file_names.temp[TF_V_FILE_I], row_i.data(), len)))
        return 1;
      if (fem.use_file == 0) {
        std::copy(row.begin(), row.begin() + len, fem.vpot.data() + fem.kpot);
        if (complex_values)
          std::copy(row_i.begin(), row_i.begin() + len, fem.vpot_i.data() + fem.kpot);
      }
    }
    fem.kpot += len;
  }
  return 0;
}

int Save_Pot_Jacob(Data_Set &ds, int nblk, const int *list, const float *x, bool complex_values) {
  Fem_State &fem = ds.Fem;
  const int64_t n = fem.coomatrix64.n;
  for (int c = 0; c < nblk; c++) {
    if (list[c] < 1)
      return Refuse_Always(ds, "Message", "Error in ielec i %lld ielec %d",
                           static_cast<long long>(c), list[c]);
    fem.offset_field[list[c] - 1] = fem.kfield;
    fem.kfield += n;
  }
  const int64_t total = nblk * n;
  if (!complex_values)
    return Append_Values(ds, ds.file_names.temp[TF_POTENTIALS], x, total);
  Block_Array<float> part;
  if (part.Resize(ds, total, "v and vi")) {
    show_message(ds, "Error in allocating v and vi", "Message");
    return 1;
  }
  for (int pass = 0; pass < 2; pass++) {
#pragma omp parallel for schedule(static)
    for (int64_t k = 0; k < total; k++)
      part[k] = x[2 * k + pass];
    if (Append_Values(ds, ds.file_names.temp[pass ? TF_POTENTIALS_I : TF_POTENTIALS], part.data(),
                      total))
      return 1;
  }
  return 0;
}
