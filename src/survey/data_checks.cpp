// Checks of the data points after reading, and the removal of marked points.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "core/trace.h"
#include "survey/array_geometry.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

int Check_Array_Coincident_Electrodes(Data_Set &ds, int i) {
  const Data_Point &d = ds.dp[i];
  const int n = i + 1;
  if (Same_Place(d.c1, d.p1))
    return Refuse(ds, "Data Error",
                  "The C1 and P1 electrodes for data point\nnumber %d are at the same "
                  "location!\nPlease check your data file.\nThe location of the electrodes are "
                  "%.2f,%.2f  %.2f,%.2f",
                  n, d.c1[0], d.c1[1], d.p1[0], d.p1[1]);
  if (d.nelec > 2 && Same_Place(d.c1, d.p2))
    return Refuse(ds, "Data Error",
                  "The C1 and P2 electrodes for data point\nnumber %d are at the same "
                  "location!\nPlease check your data file.\n\nC1 coordinates %.1f %.1f\nP2 "
                  "coordinates %.1f %.1f\n",
                  n, d.c1[0], d.c1[1], d.p2[0], d.p2[1]);
  if (d.nelec > 2 && Same_Place(d.p1, d.p2))
    return Refuse(ds, "Data Error",
                  "The P1 and P2 electrodes for data point\nnumber %d are at the same "
                  "location!\nPlease check your data file.",
                  n);
  if (d.nelec == 4 && Same_Place(d.c2, d.p1))
    return Refuse(ds, "Data Error",
                  "The C2 and P1 electrodes for data point\nnumber %d are at the same "
                  "location!\nPlease check your data file.",
                  n);
  if (d.nelec == 4 && Same_Place(d.c2, d.p2))
    return Refuse(ds, "Data Error",
                  "C2 electrode is located at %8.2f %8.2f %8.2f\nP2 electrode is located at %8.2f "
                  "%8.2f %8.2f\n\nThe C2 and P2 electrodes for data point\nnumber %d are at the "
                  "same location!\nPlease check your data file.",
                  d.c2[0], d.c2[1], d.c2[2], d.p2[0], d.p2[1], d.p2[2], n);
  return 0;
}

int Check_Pseudodepths(Data_Set &ds) {
  // Pseudodepth of a point: 0.17 of its largest electrode spread (about the
  // median depth of investigation of the common arrays) below the mean depth
  // of its electrodes.
  double lo = 0.0, hi = 0.0;
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    const double *e[4] = {d.c1, d.p1, d.p2, d.c2};
    const int n = d.nelec == 2 ? 2 : d.nelec == 3 ? 3 : 4;
    double spread = 0.0, depth = 0.0;
    for (int a = 0; a < n; a++) {
      depth += e[a][2];
      for (int b = a + 1; b < n; b++)
        spread = std::max(spread, static_cast<double>(Horizontal_Distance(e[a], e[b])));
    }
    const double z = (0.17 * spread + depth / n) * ds.spxx;
    if (i == 0 || z < lo)
      lo = z;
    if (i == 0 || z > hi)
      hi = z;
  }
  ds.pseudo_min = lo;
  ds.pseudo_max = hi;
  Panel(ds, "Minimum and maximum pseudodepths are %.2f and %.2f", lo, hi);
  return 0;
}

int Check_Electrodes_Usage(Data_Set &ds) {
  const int n = ds.num_point_elecs + ds.num_grid_points;
  for (int e = 0; e < n; e++)
    ds.pe[e].used = 0;
  auto use = [&ds, n](int e) {
    if (e >= 0 && e < n)
      ds.pe[e].used = 1;
  };
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    use(d.nc1);
    use(d.np1);
    if (d.nelec == 4)
      use(d.nc2);
    if (d.nelec > 2)
      use(d.np2);
    if (ds.array2 == 16)
      use(d.np3);
  }
  ds.nelec_use = 0;
  for (int e = 0; e < n; e++)
    ds.nelec_use += ds.pe[e].used;
  return 0;
}

int Check_Invalid_IP(Data_Set &ds) {
  if (ds.Data_ip.typeip == 0)
    return 0;
  const int m = ds.mdata;
  const double limit = ds.Data_ip.valid_ip_limit;
  int total_valid = 0;
  for (int k = 0; k < ds.ntime; k++) {
    int valid = 0;
    for (int i = 0; i < m; i++) {
      const int64_t r = Record_Index(ds, k, i);
      ds.valid_ip[r] = std::fabs(ds.dp[r].ip_value) < limit ? 1 : 0;
      valid += ds.valid_ip[r];
    }
    ds.num_valid_ip_series[k] = valid;
    total_valid += valid;
  }
  ds.num_valid_ip = ds.num_valid_ip_series[0];
  Panel(ds, "Total number of data points %d, number of valid I.P. data points %d.", m * ds.ntime,
        total_valid);
  ds.num_missing_ip_lines = 0;
  ds.max_missing_ip_line = 0;
  if (ds.ntime < 2)
    return 0;
  for (int i = 0; i < m; i++) {
    int missing = 0;
    for (int k = 0; k < ds.ntime; k++)
      missing += ds.valid_ip[Record_Index(ds, k, i)] == 0;
    if (missing > 0)
      ds.num_missing_ip_lines++;
    ds.max_missing_ip_line = std::max(ds.max_missing_ip_line, missing);
  }
  // A time-lapse IP inversion needs most lines complete: more than a fifth of
  // the lines with a missing value, or a line with no valid value at all, is
  // too much.
  if (ds.num_missing_ip_lines * 5 > m || ds.max_missing_ip_line >= ds.ntime)
    return Refuse(ds, "Error Message",
                  "Number of data lines with missing IP data is %d.\nMaxmimum number of missing "
                  "points in a data line is %d.\nThere is too much missing data for a time lapse "
                  "inversion!",
                  ds.num_missing_ip_lines, ds.max_missing_ip_line);
  return 0;
}

int Check_Invalid_Res_Time_Data(Data_Set &ds) {
  const int m = ds.mdata;
  const int64_t total = static_cast<int64_t>(m) * ds.ntime;
  int64_t missing = 0;
  int lines_none = 0, lines_few = 0;
  for (int i = 0; i < m; i++) {
    int valid = 0;
    for (int k = 0; k < ds.ntime; k++) {
      const int64_t r = Record_Index(ds, k, i);
      ds.valid_res[r] = ds.dp[r].value != 0.0f || ds.ntime == 1;
      valid += ds.valid_res[r];
    }
    missing += ds.ntime - valid;
    lines_none += valid == 0;
    lines_few += valid < 2;
  }
  ds.num_missing_res = static_cast<int>(missing);
  if (ds.ntime > 1) {
    if (missing * 5 > total)
      return Refuse(ds, "Error Message",
                    "Number of missing data points is %lld.\nThis is more than 20%% of the total "
                    "data set of %lld points.\nThere is too much missing data for a time lapse "
                    "inversion!",
                    static_cast<long long>(missing), static_cast<long long>(total));
    if (lines_none > 0)
      return Refuse(ds, "Error Message",
                    "There are %d data lines with less than two valid data points.\nThere must be "
                    "at least one valid data points for all data lines!",
                    lines_none);
    if (missing > 0)
      Panel(ds, "Warning! The data set has %.2f percent missing data points.",
            100.0 * missing / total);
    if (lines_few > 0)
      Panel(ds, "Warning! There are %d data lines with less than two valid data points.",
            lines_few);
  }
  Panel(ds, "Number of missing data points is %lld out of %lld.", static_cast<long long>(missing),
        static_cast<long long>(total));
  return 0;
}

namespace {

std::array<int32_t, 6> Point_Electrode_Key(const Data_Point &d) {
  return {d.nelec, d.nc1, d.nelec == 4 ? d.nc2 : -1, d.np1, d.nelec > 2 ? d.np2 : -1, d.np3};
}

// Repeats are consolidated into the first of their group: values, errors
// and IP values become the group's means (a repeated reading is a second
// sample of the same quantity).
void Consolidate_Repeats(Data_Set &ds) {
  const int m = ds.mdata;
  for (int k = 0; k < ds.ntime; k++) {
    int first = 0, count = 1;
    for (int i = 1; i <= m; i++) {
      const bool repeat = i < m && ds.keep[i] == 0;
      if (repeat) {
        Data_Point &a = ds.dp[Record_Index(ds, k, first)];
        const Data_Point &b = ds.dp[Record_Index(ds, k, i)];
        a.value += b.value;
        a.value_error += b.value_error;
        a.ip_value += b.ip_value;
        a.ip_error += b.ip_error;
        count++;
        continue;
      }
      if (count > 1) {
        Data_Point &a = ds.dp[Record_Index(ds, k, first)];
        a.value /= count;
        a.value_error /= count;
        a.ip_value /= count;
        a.ip_error /= count;
      }
      first = i;
      count = 1;
    }
  }
  Compact_Data_Records(ds, 0);
}

} // namespace

int Check_Repeated_Data_Sorted(Data_Set &ds) {
  progress(ds, "Checking repeated data points", 0.0);
  int repeats = 0;
  ds.keep[0] = 1;
  for (int i = 1; i < ds.mdata; i++) {
    if (i % 65536 == 0)
      Progress_Text(ds, static_cast<double>(i) / ds.mdata, "Checking repeated data points %d", i);
    const bool same = Point_Electrode_Key(ds.dp[i]) == Point_Electrode_Key(ds.dp[i - 1]);
    ds.keep[i] = same ? 0 : 1;
    repeats += same;
  }
  return repeats;
}

int Check_Repeated_Data(Data_Set &ds) {
  const int repeats = Check_Repeated_Data_Sorted(ds);
  ds.num_repeated = repeats;
  if (repeats == 0 || ds.quiet)
    return 0;
  Warn(ds, "Repeated data info",
       "The data set has %d repeated data points out of total of %d data points!\nNumber of unique "
       "data points is %d.\nThe repeated data points should be consolidated before running the "
       "inversion.",
       repeats, ds.mdata, ds.mdata - repeats);
  if (!ask_question(ds,
                    "Do you want to consolidate repeated data points and save data set into a new "
                    "file?",
                    "Remove repeated data points?"))
    return 0;
  char path[2048];
  Derived_File_Name(ds.file_names.data_file.c_str(), "_unique.dat", path, sizeof path);
  Consolidate_Repeats(ds);
  if (File_Save(ds, path) == 0)
    Show_Text(ds, "Message", MK_INFORMATION,
              "The new data set was saved in the file\n%s\nThis data set has %d data "
              "points.\nTo make use of this new data file, you must read this file.",
              path, ds.mdata);
  ds.mdata = 0;
  return 0;
}

int Check_Vector_Array_Data(Data_Set &ds) {
  int neg1 = 0, neg2 = 0;
  for (int i = 0; i < ds.mdata; i++) {
    neg1 += ds.dp[i].vector_component1 < 0.0f;
    neg2 += ds.dp[i].vector_component2 < 0.0f;
  }
  if (neg1 > 0)
    Warn(ds, "Vector Array Data Check 1",
         "The first component of the vector array data set has %d negative apparent resistivity "
         "values. The total number of data points is %d.\nThere might be an error in the sign of "
         "the input resistance value, or the positions of the current or potentials pairs were "
         "swapped.\n",
         neg1, ds.mdata);
  if (neg2 > 0)
    Warn(ds, "Vector Array Data Check 2",
         "The second component of the vector array data set has %d negative apparent resistivity "
         "values. The total number of data points is %d.\nThere might be an error in the sign of "
         "the input resistance value, or the positions of the current or potentials pairs were "
         "swapped.\n",
         neg2, ds.mdata);
  return 0;
}

int Count_Vector_Triplets(Data_Set &ds) {
  // A triplet is a current dipole with one set of three potential electrodes.
  std::vector<std::array<int32_t, 5>> t(ds.mdata);
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    t[i] = {d.nc1, d.nelec == 4 ? d.nc2 : -1, d.np1, d.np2, d.np3};
  }
  std::sort(t.begin(), t.end());
  ds.num_vector_triplets = static_cast<int>(std::unique(t.begin(), t.end()) - t.begin());
  Panel(ds, "Number of vector array triplets is  %d.", ds.num_vector_triplets);
  return 0;
}

int Compact_Data_Records(Data_Set &ds, uint8_t remove_mark) {
  const int m = ds.mdata;
  int n = 0;
  for (int i = 0; i < m; i++)
    if (ds.keep[i] != remove_mark)
      n++;
  if (n == m)
    return 0;
  for (int k = 0; k < ds.ntime; k++) {
    int j = 0;
    for (int i = 0; i < m; i++)
      if (ds.keep[i] != remove_mark)
        ds.dp[static_cast<int64_t>(k) * n + j++] = ds.dp[static_cast<int64_t>(k) * m + i];
  }
  int j = 0;
  for (int i = 0; i < m; i++)
    if (ds.keep[i] != remove_mark)
      ds.keep[j++] = ds.keep[i];
  ds.mdata = n;
  return m - n;
}

int Trim_Data_Tag(Data_Set &ds) {
  if (!ds.any_removal_marked)
    return 0;
  const int before = ds.mdata;
  Compact_Data_Records(ds, 0);
  ds.any_removal_marked = 0;
  if (ds.mdata != before) {
    Warn(ds, "Data Change", "Number of data points reduced from %d to %d.", before, ds.mdata);
    ds.data_points_removed = 1;
  }
  return 0;
}

namespace {

// Saves the points whose keep byte is 1 in "<data file>_trim.dat".
void Save_Trimmed(Data_Set &ds) {
  char path[2048];
  Derived_File_Name(ds.file_names.data_file.c_str(), "_trim.dat", path, sizeof path);
  progress(ds, "Dumping positive apparent resistivity values", 0.5);
  const int m = ds.mdata;
  std::vector<uint8_t> keep(ds.keep, ds.keep + m);
  std::vector<Data_Point> saved(ds.dp, ds.dp + static_cast<int64_t>(m) * ds.ntime);
  Compact_Data_Records(ds, 0);
  const int ierr = File_Save(ds, path);
  std::memcpy(static_cast<void *>(ds.dp), saved.data(), sizeof(Data_Point) * saved.size());
  std::memcpy(ds.keep, keep.data(), keep.size());
  ds.mdata = m;
  if (ierr == 0)
    Show_Text(ds, "Message", MK_INFORMATION, "Trimmed data set saved in\n%s file.", path);
}

} // namespace

int Save_Postive_App_Res(Data_Set &ds, const float *calculated) {
  // A configuration is dodgy when the forward model gives it a zero or
  // negative apparent resistivity.
  int dodgy = 0;
  double lo = 0.0, hi = 0.0;
  for (int i = 0; i < ds.mdata; i++) {
    const double c = calculated[i];
    lo = i == 0 ? c : std::min(lo, c);
    hi = i == 0 ? c : std::max(hi, c);
    ds.keep[i] = c > 0.0 ? 1 : 0;
    dodgy += c <= 0.0;
  }
  if (dodgy == 0)
    return 0;
  progress(ds, "Dumping negative values", 0.0);
  std::snprintf(ds.mesg, sizeof ds.mesg,
                "Your original resistivity data set with %d data points\nhas %d dodgy array "
                "configurations that will\ngive negative apparent resistivity values with\nthe "
                "present forward modeling routine.\nMinimum and maximum values are\n%12.4e and "
                "%12.4e.\n\nDo you want to saved a trimmed data set\nwithout the dodgy array "
                "configurations?",
                ds.mdata, dodgy, lo, hi);
  if (ask_question(ds, ds.mesg, "Negative Apparent Resistivity"))
    Save_Trimmed(ds);
  return dodgy;
}

int Save_Postive_App_Res_IP(Data_Set &ds, const float *calculated, const float *calculated_ip) {
  // With IP data a configuration is also dodgy when its calculated IP is past
  // the limit of valid IP values.
  int dodgy = 0;
  for (int i = 0; i < ds.mdata; i++) {
    const bool bad =
        !(calculated[i] > 0.0f) || !(std::fabs(calculated_ip[i]) < ds.Data_ip.valid_ip_limit);
    ds.keep[i] = bad ? 0 : 1;
    dodgy += bad;
  }
  if (dodgy == 0)
    return 0;
  progress(ds, "Dumping negative values", 0.0);
  std::snprintf(ds.mesg, sizeof ds.mesg,
                "Your original IP data set with %d data points\nhas %d dodgy array "
                "configurations that will\ngive negative apparent resistivity values or\nvery "
                "large apparent I.P values.\nDo you want to saved a trimmed data set\nwithout the "
                "dodgy array configurations?",
                ds.mdata, dodgy);
  if (ask_question(ds, ds.mesg, "Negative Apparent Resistivity or high I.P."))
    Save_Trimmed(ds);
  return dodgy;
}

void Classify_Arrays(Data_Set &ds) {
  // The pair figure is the distance between two electrodes in units of the
  // point's smallest pair distance: a conventional array (Wenner,
  // Schlumberger, dipole-dipole, pole-dipole) has figures that are whole
  // multiples of one spacing, so their fractional parts agree; a spread of
  // the fractional parts above 0.2 means a general arrangement.
  ds.num_conventional = ds.num_general = 0;
  for (int i = 0; i < ds.mdata; i++) {
    const Data_Point &d = ds.dp[i];
    if (ds.array2 == 16) {
      ds.num_general++;
      continue;
    }
    if (d.nelec == 2) {
      ds.num_conventional++;
      continue;
    }
    const double *e[4] = {d.c1, d.p1, d.p2, d.c2};
    const int n = d.nelec;
    double r[6];
    int np = 0;
    double rmin = 0.0;
    for (int a = 0; a < n; a++)
      for (int b = a + 1; b < n; b++) {
        r[np] = Horizontal_Distance(e[a], e[b]);
        rmin = np == 0 ? r[np] : std::min(rmin, r[np]);
        np++;
      }
    double lo = 1.0, hi = 0.0;
    for (int p = 0; p < np && rmin > 0.0; p++) {
      const double f = r[p] / rmin;
      double frac = f - std::floor(f + 0.5);
      frac = std::fabs(frac);
      lo = std::min(lo, frac);
      hi = std::max(hi, frac);
    }
    if (rmin > 0.0 && hi - lo <= 0.2)
      ds.num_conventional++;
    else
      ds.num_general++;
  }
}

void Calculate_Median_Apparent_Resistivity(Data_Set &ds) {
  const int m = ds.mdata;
  if (m < 1)
    return;
  std::vector<float> v(m);
  for (int i = 0; i < m; i++)
    v[i] = std::fabs(ds.dp[i].value);
  std::sort(v.begin(), v.end());
  const int c = m / 2;
  double sum = 0.0;
  int n = 0;
  for (int i = c - 2; i <= c + 2; i++)
    if (i >= 0 && i < m) {
      sum += v[i];
      n++;
    }
  ds.res_median = sum / n;
  ds.res_abs_min = v[0];
  ds.res_abs_max = v[m - 1];
}
