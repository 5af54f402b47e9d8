// Calculated apparent resistivity of each datum from the electrode potential
// table (at most four entries a datum), and the misfit to the measured data.
#include <cmath>
#include <cstdio>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/temp_files.h"
#include "core/trace.h"
#include "forward/forward.h"
#include "survey/survey_text.h"

namespace {

// Reads table entries from memory or, value by value, from the file.
class Table_Reader {
public:
  Table_Reader(Data_Set &ds, bool imaginary)
      : fem_(ds.Fem), mem_(imaginary ? ds.Fem.vpot_i.data() : ds.Fem.vpot.data()) {
    if (fem_.use_file) {
      const std::string &path = ds.file_names.temp[imaginary ? TF_V_FILE_I : TF_V_FILE];
      f_ = std::fopen(path.c_str(), "rb");
      if (!f_)
        imaginary
            ? Show_Text(ds, "Error opening potentials binary file", MK_WARNING,
                        "Error in opening imaginary potentials file\n%s .", path.c_str())
            : Show_Text(ds, "Error opening potentials binary file", MK_WARNING,
                        "Error in opening binary file with potential values\n%s", path.c_str());
    }
  }
  ~Table_Reader() {
    if (f_)
      std::fclose(f_);
  }
  bool ok() const { return !fem_.use_file || f_; }
  double V(int a, int b) {
    const int64_t k = Potential_Index(fem_.offset_pot.data(), a, b);
    if (!fem_.use_file)
      return mem_[k];
    float v = 0.0f;
    if (std::fseek(f_, k * 4, SEEK_SET) == 0 && std::fread(&v, 4, 1, f_) == 1)
      return v;
    return 0.0;
  }

private:
  Fem_State &fem_;
  const float *mem_;
  FILE *f_ = nullptr;
};

// The four-term potential of a datum: pole electrodes' terms drop out.
// `second` takes the vector array's second potential pair (P1, P3).
double Datum_Potential(const Data_Set &ds, Table_Reader &t, int64_t i, bool second) {
  if (ds.use_dipoles_fem == 1)
    return t.V(ds.Fem.datum_dipole[2 * i], ds.Fem.datum_dipole[2 * i + 1]);
  const Data_Point &d = ds.dp[i];
  const int c1 = d.nc1 + 1, c2 = d.nelec == 4 ? d.nc2 + 1 : 0, p1 = d.np1 + 1;
  const int p2 = second ? d.np3 + 1 : (d.nelec > 2 ? d.np2 + 1 : 0);
  double v = t.V(c1, p1);
  if (p2 > 0)
    v -= t.V(c1, p2);
  if (c2 > 0) {
    v -= t.V(c2, p1);
    if (p2 > 0)
      v += t.V(c2, p2);
  }
  return v;
}

// The vector array's amplitude from its two components.
double Vector_Amplitude(double a, double b, double c) {
  return std::sqrt(a * a + b * b + 2.0 * a * b * c);
}

int Allocate_Data_Arrays(Data_Set &ds, bool complex_values) {
  Fem_State &fem = ds.Fem;
  const int64_t m = std::max(ds.mdata, 1);
  if (fem.rm.size() != m && (fem.rm.Resize(ds, m, "rm") || fem.rm_volt.Resize(ds, m, "rm_volt")))
    return 1;
  if (complex_values && fem.rm_ip.size() != m &&
      (fem.rm_ip.Resize(ds, m, "rm ip") || fem.rm_volt_i.Resize(ds, m, "rm_volt imaginary")))
    return 1;
  return 0;
}

void Count_Negative(Data_Set &ds) {
  int neg = 0;
  for (int i = 0; i < ds.mdata; i++)
    neg += !(ds.Fem.rm[i] > 0.0f) || !std::isfinite(ds.Fem.rm[i]);
  ds.Fem.negative_values = neg;
}

} // namespace

int Cal_App_Resis_Real(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  if (Allocate_Data_Arrays(ds, false))
    return 1;
  progress(ds, "Calculating apparent resistivity", 0.0);
  Table_Reader t(ds, false);
  if (!t.ok())
    return 1;
  const bool vector = ds.array2 == 16;
  const int m = ds.mdata;
  for (int i = 0; i < m; i++) {
    if (m > 10000 && i % 4096 == 0)
      Progress_Text(ds, static_cast<double>(i) / m,
                    fem.use_file ? "Calculating apparent resistivity values %d/%d D"
                                 : "Calculating Apparent Resistivity Values %d/%d",
                    i + 1, m);
    double v = Datum_Potential(ds, t, i, false);
    if (vector) {
      const double b = Datum_Potential(ds, t, i, true);
      v = Vector_Amplitude(v, b, std::cos(ds.dp[i].angle));
    }
    fem.rm_volt[i] = static_cast<float>(v);
    double r = v * Calculated_Value_Scale(ds, i);
    if (fem.normalise_potentials && fem.norm_ready)
      r *= fem.norm_factor[i];
    fem.rm[i] = static_cast<float>(r);
  }
  Count_Negative(ds);
  return 0;
}

int Cal_App_Resis_cmplx_VC(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  if (Allocate_Data_Arrays(ds, true))
    return 1;
  progress(ds, "Reading potentials for apparent resistivity/I.P.", 0.0);
  Table_Reader tr(ds, false), ti(ds, true);
  if (!tr.ok() || !ti.ok())
    return 1;
  const bool amplitude = ds.Data_ip.complex_forward_model_type_method_cal_app_values == 1;
  for (int i = 0; i < ds.mdata; i++) {
    const double vr = Datum_Potential(ds, tr, i, false), vi = Datum_Potential(ds, ti, i, false);
    fem.rm_volt[i] = static_cast<float>(vr);
    fem.rm_volt_i[i] = static_cast<float>(vi);
    const double v = amplitude ? std::copysign(std::hypot(vr, vi), vr) : vr;
    double r = v * Calculated_Value_Scale(ds, i);
    if (fem.normalise_potentials && fem.norm_ready)
      r *= fem.norm_factor[i];
    fem.rm[i] = static_cast<float>(r);
    fem.rm_ip[i] = vr != 0.0 ? static_cast<float>(vi / vr) : 0.0f;
  }
  Count_Negative(ds);
  return 0;
}

namespace {

// Root mean square of a per-datum term over the data in use.
template <class F> double Rms_Of(const Data_Set &ds, F term) {
  double sum = 0.0;
  int64_t count = 0;
  for (int i = 0; i < ds.mdata; i++) {
    if (ds.keep && !ds.keep[i])
      continue;
    double t;
    if (!term(i, t))
      continue;
    sum += t * t;
    count++;
  }
  return count > 0 ? std::sqrt(sum / count) : 0.0;
}

bool Resistivity_Term(const Data_Set &ds, int i, double &t) {
  const double o = ds.dp[i].value, c = ds.Fem.rm[i];
  if (ds.appres_inv == 1) {
    if (o == 0.0)
      return false;
    t = (o - c) / std::fabs(o);
    return true;
  }
  if (o == 0.0 || c == 0.0 || !std::isfinite(c))
    return false;
  t = std::log((o * o) / (c * c));
  return true;
}

} // namespace

double Cal_App_Resis_Diff(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  fem.rmslog = Rms_Of(ds, [&](int i, double &t) { return Resistivity_Term(ds, i, t); });
  TRACE("Cal_App_Resis_Diff real dataconstr %d rmslog %8.4f percent %8.4f\n",
        ds.LS_method.dataconstr, fem.rmslog, 100.0 * fem.rmslog);
  return fem.rmslog;
}

double Cal_App_Resis_Diff_cmplx(Data_Set &ds) {
  Fem_State &fem = ds.Fem;
  Cal_App_Resis_Diff(ds);
  fem.rmsip = Rms_Of(ds, [&](int i, double &t) {
    if (!ds.valid_ip || !ds.valid_ip[i])
      return false;
    t = ds.dp[i].ip_value - fem.rm_ip[i];
    return true;
  });
  TRACE("Final combine rmslog %10.5f rmsip %10.5f mdata_time_total_miss %d\n", fem.rmslog,
        fem.rmsip, 0);
  return fem.rmslog;
}

double Calculated_Value_Scale(const Data_Set &ds, int64_t i) {
  if (ds.resistance == 1)
    return 1.0;
  const double g = ds.dp[i].gfac;
  return g != 0.0 ? 1.0 / g : 0.0;
}

bool Half_Space_Analytic_Available(const Data_Set &ds) {
  for (int i = 0; i < ds.mdata; i++)
    if (Half_Space_Analytic_Ratio(ds, i) < 0.0)
      return false;
  return true;
}

double Half_Space_Analytic_Ratio(const Data_Set &ds, int64_t i) {
  const bool topo = ds.topo.grid_heights && ds.Model_grid.type_topo_model > 0;
  if (topo || ds.type_geofac == 2 || ds.Model_grid.nwater > 0 || ds.dp[i].gfac == 0.0)
    return -1.0;
  // Surface electrodes on flat ground and buried ones by the image form: the
  // stored factor is exactly the half-space's, so its apparent resistivity is
  // the half-space's own.
  return 1.0;
}
