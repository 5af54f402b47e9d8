// The data point lines of a data file and the steps that follow them.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "modes/ip_units.h"
#include "survey/array_geometry.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

namespace {

constexpr double four_pi = 12.5663708;
constexpr double two_pi = 6.283189;
constexpr double gfac_zero = 1e-7;

// Marks of the keep table.
constexpr uint8_t keep_point = 1, remove_cutoff = 0, remove_infinite = 2;

struct Reading {
  double cutoff = 0.0;             // K at or below it: geometric factor past the cut-off
  double sum_log = 0.0;            // sum of log10 apparent resistivities
  int64_t count_log = 0;           // their count
  double k_min = 0.0, k_max = 0.0; // sums of reciprocal distances
  int k_count = 0;
  bool series_ip_seen = false;
};

bool Is_Vector(const Data_Set &ds) {
  return ds.array2 == 16;
}

int Electrodes_Of_Array(const Data_Set &ds) {
  return ds.array == 4 ? 2 : ds.array == 6 ? 3 : 4;
}

void Read_Position(Data_Set &ds, double *p) {
  p[0] = read_real(ds.img);
  p[1] = read_real(ds.img);
  p[2] = ds.depth_present ? read_real(ds.img) : 0.0;
}

// Number (from 1, in the order of the line) of the first electrode of the
// point outside the grid or with a depth that is not a number of meters;
// 0 when all are in. A millimetre is allowed on every side: positions that
// close to a grid line are that line's electrode.
int Electrode_Outside_Grid(const Data_Set &ds, const Data_Point &d) {
  const double *e[5] = {d.c1, d.c2, d.p1, d.p2, d.p3};
  const bool used[5] = {true, d.nelec == 4, true, d.nelec > 2, ds.array2 == 16};
  int number = 0;
  for (int k = 0; k < 5; k++) {
    if (!used[k])
      continue;
    number++;
    const double *p = e[k];
    constexpr double tol = 0.001;
    if (!(p[0] >= ds.xmin - tol && p[0] <= ds.xmax + tol && p[1] >= ds.ymin - tol &&
          p[1] <= ds.ymax + tol && std::fabs(p[2]) < 1e7))
      return number;
  }
  return 0;
}

int Read_Positions(Data_Set &ds, int i, Data_Point &d) {
  int ne = Electrodes_Of_Array(ds);
  if (ds.array == 11) {
    ne = read_int(ds.img);
    if (Is_Vector(ds) && ne < 2)
      return Refuse_Always(ds, "Data Error",
                           "Error in data point %d! Number of electrodes is %d. A vector array "
                           "must have at least 3 electrodes with 2 potential electrodes.",
                           i + 1, ne);
    if (ne < 2 || ne > 4)
      return Refuse(ds, "Data Error",
                    "Error in data point %d!\nNumber of electrodes is %d.\nThere can only be 2 to "
                    "4 electrodes.",
                    i + 1, ne);
  }
  d.nelec = ne;
  Read_Position(ds, d.c1);
  if (ne == 4)
    Read_Position(ds, d.c2);
  Read_Position(ds, d.p1);
  if (ne > 2)
    Read_Position(ds, d.p2);
  if (Is_Vector(ds))
    Read_Position(ds, d.p3);
  if (const int bad = Electrode_Outside_Grid(ds, d))
    return Refuse(ds, "Data Error",
                  "Error in data point %d!\nElectrode %d is outside the model grid.\nThe x "
                  "limits are %.3f to %.3f and the y limits are %.3f to %.3f.",
                  i + 1, bad, ds.xmin, ds.xmax, ds.ymin, ds.ymax);
  if (ne == 4 && Same_Place(d.c1, d.c2))
    return Refuse_Always(ds, "Data Error",
                         "Error in data point %d!\nThe C1 and C2 electrodes have the same "
                         "locations.",
                         i + 1);
  if (ne > 2 && Same_Place(d.p1, d.p2))
    return Refuse_Always(ds, "Data Error",
                         "Error in data point %d!\nThe P1 and P2 electrodes have the same "
                         "locations.",
                         i + 1);
  return Check_Array_Coincident_Electrodes(ds, i);
}

// A value of the file; |v| above 1e30 (or not a number) is refused.
int Read_Value(Data_Set &ds, int i, float &v) {
  const double x = read_real(ds.img);
  // A sign without digits (the "-" of "-inf" or "-nan") is no value.
  if (ds.img.found && !ds.img.well_formed)
    return Refuse(ds, "Data Error", "Data point number %d has a value that is not a number.\n",
                  i + 1);
  if (!(std::fabs(x) <= 1e30))
    return Refuse(ds, "Data Error", "Data point number %d has an invalid value of %g.\n", i + 1, x);
  v = static_cast<float>(x);
  return 0;
}

int Read_Value_Error(Data_Set &ds, int i, float &v, float &e) {
  if (Read_Value(ds, i, v))
    return 1;
  if (ds.error_estimate) {
    if (Read_Value(ds, i, e))
      return 1;
    e = std::fabs(e);
  }
  return 0;
}

// One IP value (and error) of the file as internal chargeability.
void Read_IP(Data_Set &ds, float resistivity, float &ip, float &err) {
  const Data_IP &dip = ds.Data_ip;
  int star = 0;
  double v = read_real_star(ds.img, 0.0, star);
  double e = ds.error_estimate ? std::fabs(read_real(ds.img)) : 0.0;
  double m;
  if (star) {
    m = ip_missing_mark;
  } else if (Is_Vector(ds)) {
    if (std::fabs(v) >= 800.0)
      v = 0.011;
    m = v * 0.001;
    e *= 0.001;
    if (std::fabs(m) < 0.8) {
      ds.ip_min = std::min(ds.ip_min, m);
      ds.ip_max = std::max(ds.ip_max, m);
    }
  } else {
    m = IP_To_Internal(dip, v, resistivity);
    e = std::fabs(IP_To_Internal(dip, e, resistivity));
    if (!(std::fabs(m) < 1.0))
      m = ip_missing_mark;
    else if (dip.auto_replace_invalid_ip && std::fabs(m) > dip.invalid_ip_limit * 0.001)
      m = ip_missing_mark;
    if (m > ds.ip_allowed_min && m < ds.ip_allowed_max && std::fabs(m) < dip.valid_ip_limit) {
      ds.ip_min = std::min(ds.ip_min, m);
      ds.ip_max = std::max(ds.ip_max, m);
    }
  }
  ip = static_cast<float>(m);
  err = static_cast<float>(std::isfinite(e) ? std::min(e, 1e30) : 0.0);
}

// Values, errors, later series, IP and a given geometric factor of point i.
int Read_Values(Data_Set &ds, int i) {
  const int m = ds.mdata;
  Data_Point &d = ds.dp[i];
  if (Read_Value_Error(ds, i, d.value, d.value_error))
    return 1;
  if (Is_Vector(ds)) {
    if (Read_Value_Error(ds, i, d.value2, d.value2_error))
      return 1;
    if (ds.vector_data_type == 2) {
      read_real(ds.img); // amplitude and ratio: recomputed from the components
      read_real(ds.img);
    }
  }
  for (int k = 1; k < ds.ntime; k++) {
    Data_Point &dk = ds.dp[static_cast<int64_t>(k) * m + i];
    dk = d;
    if (Read_Value_Error(ds, i, dk.value, dk.value_error))
      return 1;
    dk.value = std::fabs(dk.value);
  }
  if (ds.Data_ip.typeip > 0) {
    for (int k = 0; k < ds.ntime; k++) {
      Data_Point &dk = ds.dp[static_cast<int64_t>(k) * m + i];
      Read_IP(ds, dk.value, dk.ip_value, dk.ip_error);
      if (Is_Vector(ds))
        Read_IP(ds, dk.value2, dk.ip_value2, dk.ip_value2_error);
    }
  }
  if (ds.type_geofac == 2) {
    const double g = read_real(ds.img);
    d.gfac = g != 0.0 && std::isfinite(g) ? 1.0 / (g / ds.spxx) : 0.0;
    for (int k = 1; k < ds.ntime; k++)
      ds.dp[static_cast<int64_t>(k) * m + i].gfac = d.gfac;
  }
  if (Is_Vector(ds)) {
    for (int k = 0; k < ds.ntime; k++) {
      Data_Point &dk = ds.dp[static_cast<int64_t>(k) * m + i];
      dk.vector_component1 = dk.value;
      dk.vector_component2 = dk.value2;
      Calculate_Vector_Working_Values(ds, static_cast<int64_t>(k) * m + i);
      dk.vector_component1 *= static_cast<float>(ds.spxx);
      dk.vector_component2 *= static_cast<float>(ds.spxx);
    }
  }
  return 0;
}

// Applies f to the record of point i in every series.
template <class F> void For_All_Series(Data_Set &ds, int i, F f) {
  for (int k = 0; k < ds.ntime; k++)
    f(ds.dp[static_cast<int64_t>(k) * ds.mdata + i]);
}

// Sign handling of a zero or negative apparent resistivity.
int Handle_Sign(Data_Set &ds, int i) {
  Data_Point &d = ds.dp[i];
  if (!(d.value <= 0.0f) || ds.resistance == 1 || ds.appres_inv != 0 ||
      (d.value == 0.0f && ds.ntime > 1))
    return 0;
  if (d.nelec == 2) {
    beep(ds);
    return Refuse(ds, "Negative apparent resistivity",
                  "Data point number %d has a zero or\nnegative apparent resistivity value!\nThe "
                  "value is %.4f.\n",
                  i + 1, d.value);
  }
  const double k = Sum_Reciprocal_Horizontal(d);
  if (k >= 0.0) {
    beep(ds);
    if (ds.Data_filter.force_positive == 0 || d.value <= 0.0f) {
      ds.appres_inv = 2;
      Warn(ds, "Data negative error",
           "Zero or negative apparent resistivity value\nof %.2f detected at data point number "
           "%d!\nProgram will use apparent resistivity\nvalues directly in the inversion",
           d.value, i + 1);
    }
  } else {
    For_All_Series(ds, i, [](Data_Point &r) { Swap_Positions(r.p1, r.p2); });
  }
  return 0;
}

// Resistance data: the apparent resistivity test and the conversion.
int Convert_Resistance(Data_Set &ds, Reading &rd, int i) {
  Data_Point &d = ds.dp[i];
  const double k = Sum_Image(d);
  const double r = d.value;
  if (i == 0 || std::fabs(r) < ds.resistance_abs_min)
    ds.resistance_abs_min = std::fabs(r);
  if (i == 0 || r < ds.resistance_min)
    ds.resistance_min = r;
  if (i == 0 || r > ds.resistance_max)
    ds.resistance_max = r;
  const double g = k / four_pi;
  if (k != 0.0) {
    const double tested = r == 0.0 ? gfac_zero : r;
    if (std::fabs(tested) <= gfac_zero) {
      beep(ds);
      return Refuse(ds, "Data zero resistance error",
                    "Data point number %d has a\nzero apparent resistivity value!\nThe value is "
                    "%.4f %.4f.\n",
                    i + 1, r, g);
    }
    if (std::fabs(g) > rd.cutoff) {
      rd.sum_log += std::log10(std::fabs(tested / g));
      rd.count_log++;
    }
  }
  if (ds.appres_inv == 1) {
    const float s = static_cast<float>(ds.spxx);
    For_All_Series(ds, i, [s](Data_Point &p) {
      p.value *= s;
      p.value_error *= s;
    });
    return 0;
  }
  if (k == 0.0) {
    ds.keep[i] = remove_infinite;
    ds.infinite_gfac_count++;
    return 0;
  }
  const bool force = ds.Data_filter.force_positive != 0;
  For_All_Series(ds, i, [g, force](Data_Point &p) {
    p.value = static_cast<float>(p.value / g);
    p.value_error = static_cast<float>(std::fabs(p.value_error / g));
    if (force && p.value < 0.0f)
      p.value = -p.value;
  });
  double ga = g;
  if (g < 0.0) {
    For_All_Series(ds, i, [](Data_Point &p) {
      if (p.nelec == 3)
        Swap_Positions(p.p1, p.p2);
      else
        Swap_Positions(p.c1, p.c2);
      p.value = -p.value;
    });
    ga = -g;
  }
  const double gfac = ga * ds.spxx;
  For_All_Series(ds, i, [gfac](Data_Point &p) { p.gfac = gfac; });
  return 0;
}

int Locations_Error(Data_Set &ds, int i, bool negative) {
  const Data_Point &d = ds.dp[i];
  const char *kind = negative       ? "a negative geometric"
                     : d.nelec == 4 ? "an infinite geometric"
                                    : "a infinite geometric";
  const char *tail = negative ? "\nYou can use the option to 'Automatically\nswitch electrodes' to "
                                "avoid this error\nmessage."
                              : "";
  if (d.nelec == 4)
    return Refuse(ds, "Data locations error",
                  "There appears to be an error in the\nlocations of the electrodes which\nwill "
                  "result in %s\nfactor value.\n\nPlease check the location of the\nelectrodes "
                  "for point number %d.\n\nLocations of electrodes are\nC1  %10.2f  %10.2f\nC2  "
                  "%10.2f  %10.2f\nP1  %10.2f  %10.2f\nP2  %10.2f  %10.2f\n%s",
                  kind, i + 1, d.c1[0], d.c1[1], d.c2[0], d.c2[1], d.p1[0], d.p1[1], d.p2[0],
                  d.p2[1], tail);
  return Refuse(ds, "Data locations error",
                "There appears to be an error in the\nlocations of the electrodes which\nwill "
                "result in %s\nfactor value.\n\nPlease check the location of the\nelectrodes for "
                "point number %d.\n\nLocations of electrodes are\nC1  %10.2f  %10.2f\nP1  %10.2f  "
                "%10.2f\nP2  %10.2f  %10.2f\n%s",
                kind, i + 1, d.c1[0], d.c1[1], d.p1[0], d.p1[1], d.p2[0], d.p2[1], tail);
}

// The geometric factor check of apparent resistivity data.
int Check_Geometric_Factor(Data_Set &ds, Reading &rd, int i) {
  Data_Point &d = ds.dp[i];
  double k;
  if (All_Depths_Zero(d))
    k = ds.array == 4 ? Reciprocal_Horizontal(d.c1, d.p1) : Sum_Reciprocal_Horizontal(d);
  else
    k = ds.array == 4 ? 0.5 * Image_Term(d.c1, d.p1) : 0.5 * Sum_Image(d);
  if (rd.k_count == 0 || k < rd.k_min)
    rd.k_min = k;
  if (rd.k_count == 0 || k > rd.k_max)
    rd.k_max = k;
  rd.k_count++;
  if (k == 0.0)
    return Locations_Error(ds, i, false);
  if (k > 0.0 && k <= rd.cutoff) {
    if (ds.Data_filter.large_gfac_action == 0)
      return Refuse(ds, "Large geometric factor",
                    "Data point number %d has a geometric factor of %.2f that is larger than the "
                    "cutoff value of %.2f.\nEdit the data file, or choose another method to handle "
                    "data points with large geometric factors.",
                    i + 1, two_pi / k, two_pi / rd.cutoff);
    if (ds.Data_filter.large_gfac_action == 1) {
      ds.keep[i] = remove_cutoff;
      ds.any_removal_marked = 1;
    }
    ds.large_gfac_present = 1;
  } else if (k < 0.0) {
    if (ds.Data_filter.auto_switch_electrodes == 0)
      return Locations_Error(ds, i, true);
    For_All_Series(ds, i, [](Data_Point &p) { Swap_Positions(p.p1, p.p2); });
  }
  return 0;
}

int Read_One_Point(Data_Set &ds, Reading &rd, int i, bool &stop) {
  Data_Point &d = ds.dp[i];
  ds.keep[i] = keep_point;
  if (Read_Positions(ds, i, d) || Read_Values(ds, i))
    return 1;
  if (!Is_Vector(ds)) {
    if (Handle_Sign(ds, i))
      return 1;
    if (ds.Data_filter.force_positive && d.value < 0.0f && ds.resistance != 1)
      For_All_Series(ds, i, [](Data_Point &p) { p.value = std::fabs(p.value); });
  }
  const double av = std::fabs(d.value);
  ds.value_max = std::max(ds.value_max, av);
  if (av > 0.0 && (ds.value_min_nonzero == 0.0 || av < ds.value_min_nonzero))
    ds.value_min_nonzero = av;
  if (d.value < 0.0f)
    ds.num_negative++;
  if (ds.resistance == 1)
    return Convert_Resistance(ds, rd, i);
  if (Is_Vector(ds))
    return 0;
  if (av <= gfac_zero && ds.ntime == 1 && ds.appres_inv != 2 && ds.appres_inv != 3) {
    beep(ds);
    Warn(ds, "Data zero error",
         "Data point number %d has a zero\napparent resistivity value!\nThe value is %.4f.\n",
         i + 1, d.value);
    stop = true;
    return 0;
  }
  For_All_Series(ds, i, [&rd](Data_Point &p) {
    if (p.value != 0.0f) {
      rd.sum_log += std::log10(std::fabs(p.value));
      rd.count_log++;
    }
  });
  return Check_Geometric_Factor(ds, rd, i);
}

void Check_Collinear_Vector_Dipoles(Data_Set &ds) {
  int n = 0;
  for (int i = 0; i < ds.mdata; i++) {
    const double a = std::fabs(ds.dp[i].angle * 57.29577951);
    if (a < 5.0 || a > 175.0)
      n++;
  }
  ds.num_collinear_vector = n;
  if (n > 0)
    Warn(ds, "Collinear potential dipoles in vector array",
         "There were %d data points out of %d where the angle between the potential dipoles is "
         "less than 5 degrees. Such data points might be potentially unstable.\nIt is "
         "recommended you enable the option to automatically remove negative calculated apparent "
         "resistivity values before carrying out the inversion.",
         n, ds.mdata);
}

void Remove_Infinite_Geometric_Factors(Data_Set &ds) {
  if (ds.infinite_gfac_count == 0)
    return;
  const int before = ds.mdata;
  Compact_Data_Records(ds, remove_infinite);
  Warn(ds, "Infinite geometric factor",
       "There were %d data points with infinite geometric factors which were removed. It is "
       "recommended that you save the data to a new file, and read the file.",
       before - ds.mdata);
  ds.data_points_removed = 1;
  TRACE("Number of data points after removing throse with infinite geometric factors %d out of "
        "%d\n",
        ds.mdata, before);
}

void Average_Resistivity(Data_Set &ds, const Reading &rd) {
  if (ds.resistance_file == 1 && rd.count_log == 0) {
    ds.res_average = 100.0;
    return;
  }
  double divisor = static_cast<double>(rd.count_log);
  if (ds.ntime == 1 && (rd.count_log < 1 || rd.count_log > ds.mdata))
    divisor = ds.mdata;
  ds.res_average = divisor > 0.0 ? std::pow(10.0, rd.sum_log / divisor) : 100.0;
  if (!std::isfinite(ds.res_average) || ds.res_average <= 0.0)
    ds.res_average = 100.0;
}

void Relative_Errors(Data_Set &ds) {
  if (!ds.error_estimate)
    return;
  double sum = 0.0, noise = 0.0;
  int noise_count = 0;
  ds.num_rel_error_large = ds.num_rel_error_zero_value = 0;
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    double r = 1.0;
    if (d.value != 0.0f)
      r = std::fabs(d.value_error / d.value);
    else
      ds.num_rel_error_zero_value++;
    if (i == 0 || r < ds.rel_error_min)
      ds.rel_error_min = r;
    if (i == 0 || r > ds.rel_error_max)
      ds.rel_error_max = r;
    sum += r;
    if (r > 0.05)
      ds.num_rel_error_large++;
    if (std::fabs(d.value) > 0.01 * std::fabs(d.value_error) && d.value != 0.0f) {
      noise += std::fabs(d.value_error / d.value);
      noise_count++;
    }
  }
  ds.rel_error_mean = ds.mdata > 0 ? sum / ds.mdata : 0.0;
  ds.noise_average = noise_count > 0 ? noise / noise_count : 0.0;
}

void Invert_Negative_Values(Data_Set &ds) {
  if (ds.num_negative == 0)
    return;
  Panel(ds, "Number of negative data values is %d.", ds.num_negative);
  if (ds.num_negative > ds.mdata / 2 && ds.appres_inv != 1) {
    Warn(ds, "Apparent resistivity data error",
         "Number of data points with negative apparent resistivity values is %d out of %d data "
         "points.\nIt is quite likely there is an error in the sign of the input data. Normally "
         "the number of negative apparent resistivity values is less than 10%% of the data "
         "set.\nThe program will invert the sign of the apparent resistivity values\n",
         ds.num_negative, ds.mdata);
    const int64_t n = static_cast<int64_t>(ds.mdata) * ds.ntime;
    for (int64_t r = 0; r < n; r++)
      ds.dp[r].value = -ds.dp[r].value;
  }
}

void Adjust_Invert_Resistivity_Setting(Data_Set &ds) {
  if (ds.resistance == 1 && ds.appres_inv != 1)
    ds.resistance = 0;
  const int64_t n = static_cast<int64_t>(ds.mdata) * ds.ntime;
  if (ds.appres_inv != 3)
    for (int64_t r = 0; r < n; r++)
      if (ds.dp[r].value <= 0.0f) {
        ds.appres_inv = 2;
        break;
      }
  if (ds.appres_inv_setting == 1 || ds.appres_inv_setting == 2)
    ds.appres_inv = 2;
}

void Show_Ranges(Data_Set &ds, const Reading &rd) {
  if (!Is_Vector(ds) && rd.k_min > 0.0) {
    const double gmin = two_pi / rd.k_max, gmax = two_pi / rd.k_min;
    Panel(ds, "Minimum and maximum geometric factors are %.2f to %.2f.", gmin, gmax);
    Panel(ds, "Ratio is %.2f. Cutoff value set is %.2f.", gmax / gmin, two_pi / rd.cutoff);
  }
  Panel(ds,
        "Minimum and maximum x-locations are %.3f and %.3f. Minimum and maximum y-locations are "
        "%.3f and %.3f.",
        ds.elec_xmin, ds.elec_xmax, ds.elec_ymin, ds.elec_ymax);
  Panel(ds, "Minimum, maximum and average resistiity values are %.3f,%.3f and %.3f.",
        ds.value_min_nonzero, ds.value_max, ds.res_average);
  if (ds.Data_ip.typeip > 0)
    Panel(ds, "Range of valid apparent I.P. values is %.3f to %.3f.", ds.ip_min, ds.ip_max);
  if (ds.resistance_file == 1)
    Panel(ds,
          "Minimum and maximum resistance values are %12.4e and %12.4e. Lowest absolute value is "
          "%12.4e.",
          ds.resistance_min, ds.resistance_max, ds.resistance_abs_min);
}

void Clear_Reading_State(Data_Set &ds) {
  const int64_t n = static_cast<int64_t>(ds.mdata) * ds.ntime + 1;
  std::memset(static_cast<void *>(ds.dp), 0, sizeof(Data_Point) * n);
  std::memset(ds.keep, keep_point, n);
  ds.ip_allowed_min = -10000000.0;
  ds.ip_allowed_max = 10000000.0;
  ds.ip_min = ds.ip_max = 0.0;
  ds.value_max = ds.value_min_nonzero = 0.0;
  ds.resistance_min = ds.resistance_max = ds.resistance_abs_min = 0.0;
  ds.num_negative = 0;
  ds.infinite_gfac_count = 0;
  ds.any_removal_marked = 0;
  ds.large_gfac_present = 0;
  ds.depth_present = ds.subsurface_present ? 1 : 0;
}

} // namespace

int64_t Record_Index(const Data_Set &ds, int k, int i) {
  return static_cast<int64_t>(k) * ds.mdata + i;
}

int Read_Data_Points(Data_Set &ds) {
  if (ds.Reserve_Data_Records(ds.mdata, ds.ntime))
    return 1;
  Clear_Reading_State(ds);
  Reading rd;
  rd.cutoff = (1.0 / (ds.spxx * 628.4)) * 0.5 / ds.Data_filter.gfcut_ratio;
  ds.gfac_cutoff_k = rd.cutoff;
  progress(ds, "Reading data points", 0.0);
  bool stop = false;
  for (int i = 0; i < ds.mdata && !stop; i++) {
    if (i % 128 == 0)
      Progress_Text(ds, static_cast<double>(i) / ds.mdata, "Reading data point %d/%d", i + 1,
                    ds.mdata);
    if (Read_One_Point(ds, rd, i, stop))
      return 1;
    if (stop) {
      // A zero value ends the reading here; the points before it stand.
      const int read = i;
      for (int k = 1; k < ds.ntime; k++)
        std::memmove(static_cast<void *>(ds.dp + static_cast<int64_t>(k) * read),
                     ds.dp + static_cast<int64_t>(k) * ds.mdata, sizeof(Data_Point) * read);
      ds.mdata = read;
    }
  }
  if (ds.mdata < 1)
    return 1;
  ds.k_min = rd.k_min;
  ds.k_max = rd.k_max;

  if (Is_Vector(ds))
    Check_Collinear_Vector_Dipoles(ds);
  Calculate_Median_Apparent_Resistivity(ds);
  if (Is_Vector(ds))
    Check_Vector_Array_Data(ds);
  Remove_Infinite_Geometric_Factors(ds);
  if (Is_Vector(ds) && ds.error_estimate) {
    Warn(ds, "Data Message",
         "The combination of vector array and data error estimates is not yet supported in this "
         "version. The data set will be inverted without the data values.");
    ds.error_estimate = 0;
  }
  Calculate_Electrode_Extents(ds);
  Average_Resistivity(ds, rd);
  Calculate_Minimum_Electrode_Separation(ds);
  Relative_Errors(ds);
  Classify_Arrays(ds);
  if (ds.error_estimate)
    Panel(ds, "Average data noise level is %.3f percent", ds.noise_average * 100.0);
  Find_Distance_Array_Electrodes(ds);
  Panel(ds,
        "Minimum and maximum distance between current and potential electrode in same array are "
        "%.2f and %.2f.",
        ds.dist_cp_min, ds.dist_cp_max);
  Panel(ds,
        "Minimum and maximum distance between any two electrodes in same array are %.2f and %.2f.",
        ds.dist_2e_min, ds.dist_2e_max);
  Invert_Negative_Values(ds);
  Adjust_Invert_Resistivity_Setting(ds);
  Trim_Data_Tag(ds);
  Show_Ranges(ds, rd);
  return 0;
}
