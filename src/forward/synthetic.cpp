// Synthetic data of a model given as a background and boxes, and the check of
// a mesh against a homogeneous half-space's analytic values.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/data_set.h"
#include "core/messages.h"
#include "forward/forward.h"
#include "forward/synthetic.h"
#include "survey/survey.h"
#include "survey/survey_text.h"

int Read_Synthetic_Model(Data_Set &ds, const char *path, Synthetic_Model &model) {
  FILE *f = std::fopen(path, "r");
  if (!f)
    return Show_Text(ds, "Model File Error", MK_WARNING, "Cannot open the model file %s", path);
  model = Synthetic_Model();
  char line[1024];
  int number = 0, bad = 0;
  bool background = false;
  while (!bad && std::fgets(line, sizeof line, f)) {
    number++;
    if (char *hash = std::strchr(line, '#'))
      *hash = '\0';
    char word[32] = {};
    int used = 0;
    if (std::sscanf(line, " %31s%n", word, &used) != 1)
      continue;
    double v[8];
    int n = 0, more = 0;
    const char *p = line + used;
    while (n < 8 && std::sscanf(p, " %lf%n", &v[n], &more) == 1) {
      p += more;
      n++;
    }
    char rest[2];
    const bool trailing = std::sscanf(p, " %1s", rest) == 1;
    if (std::strcmp(word, "background") == 0 && (n == 1 || n == 2) && !trailing && v[0] > 0.0) {
      model.background = v[0];
      model.background_ip = n == 2 ? v[1] : 0.0;
      model.has_ip |= n == 2;
      background = true;
    } else if (std::strcmp(word, "box") == 0 && (n == 7 || n == 8) && !trailing && v[6] > 0.0 &&
               v[0] < v[1] && v[2] < v[3] && v[4] < v[5]) {
      Synthetic_Box b;
      std::copy(v, v + 6, b.lim);
      b.res = v[6];
      b.ip = n == 8 ? v[7] : 0.0;
      model.has_ip |= n == 8;
      model.boxes.push_back(b);
    } else {
      bad = number;
    }
  }
  std::fclose(f);
  if (bad)
    return Show_Text(
        ds, "Model File Error", MK_WARNING,
        "Line %d of the model file %s is not understood.\nLines are \"background RES [IP]\" "
        "or \"box X1 X2 Y1 Y2 Z1 Z2 RES [IP]\" with X1 < X2, Y1 < Y2, Z1 < Z2 and RES above 0.",
        bad, path);
  if (!background)
    return Show_Text(ds, "Model File Error", MK_WARNING,
                     "The model file %s has no \"background RES\" line.", path);
  return 0;
}

void Model_Block_Values(const Data_Set &ds, const Synthetic_Model &model, std::vector<float> &res,
                        std::vector<float> &ip) {
  const Model_Grid &g = ds.Model_grid;
  res.assign(std::max(g.nmodel_blocks, 1), static_cast<float>(model.background));
  ip.assign(res.size(), static_cast<float>(model.background_ip / 1000.0));
  for (int m = 0; m < g.nmodel_blocks; m++) {
    const Model_Block &b = g.blocks[m];
    // Block centre in the survey's units.
    const double x = ds.xmin + b.xc * ds.spxx, y = ds.ymin + b.yc * ds.spxx, z = b.zc * ds.spxx;
    for (const Synthetic_Box &box : model.boxes)
      if (x >= box.lim[0] && x <= box.lim[1] && y >= box.lim[2] && y <= box.lim[3] &&
          z >= box.lim[4] && z <= box.lim[5]) {
        res[m] = static_cast<float>(box.res);
        ip[m] = static_cast<float>(box.ip / 1000.0);
      }
  }
}

int Forward_Synthetic_Data(Data_Set &ds, const Synthetic_Model &model, const char *out,
                           double noise_pct, unsigned seed) {
  std::vector<float> res, ip;
  Model_Block_Values(ds, model, res, ip);
  const bool with_ip = model.has_ip && ds.Data_ip.typeip > 0;
  if (with_ip)
    ds.Data_ip.complex_forward_model = 1;
  if (Forward_Model_Memory_Check(ds) ||
      Forward_Model_LS(ds, res.data(), with_ip ? ip.data() : nullptr, 0))
    return 1;
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> gauss(0.0, 1.0);
  const double rel = noise_pct / 100.0;
  for (int i = 0; i < ds.mdata; i++) {
    Data_Point &d = ds.dp[i];
    const double c = ds.Fem.rm[i];
    d.value = static_cast<float>(c * (1.0 + rel * gauss(rng)));
    d.value_error = static_cast<float>(std::fabs(c) * rel);
    if (with_ip)
      d.ip_value = ds.Fem.rm_ip[i];
  }
  if (rel > 0.0)
    ds.error_estimate = 1;
  if (File_Save(ds, out))
    return 1;
  Panel(ds, "Calculated data of %d points written to %s (noise %.2f%%).", ds.mdata, out, noise_pct);
  return 0;
}

namespace {

constexpr double check_resistivity = 100.0; // ohm-m of the half-space checked

// The half-space's value of a datum, in the form the data are held.
double Half_Space_Value(const Data_Set &ds, const Data_Point &d) {
  return (ds.resistance == 1 ? d.gfac : 1.0) * check_resistivity;
}

const char *Array_Kind(const Data_Point &d) {
  return d.nelec == 2 ? "pole-pole" : d.nelec == 3 ? "pole-dipole" : "four-electrode";
}

double Median(std::vector<double> v) {
  if (v.empty())
    return 0.0;
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

} // namespace

int Check_Mesh_Half_Space(Data_Set &ds, Mesh_Accuracy &acc) {
  if (!Half_Space_Analytic_Available(ds))
    return Refuse_Always(
        ds, "Check mesh",
        "The mesh can be checked only where a homogeneous half-space has analytic "
        "values: flat ground, no water layer and geometric factors from the electrode "
        "positions.");
  if (Forward_Model_Memory_Check(ds))
    return 1;
  const int normalise = ds.Fem.normalise_potentials;
  ds.Fem.normalise_potentials = 0;
  std::vector<float> unit(std::max(ds.Model_grid.nmodel_blocks, 1),
                          static_cast<float>(check_resistivity));
  const int ierr = Forward_Model_LS(ds, unit.data(), nullptr, 0);
  ds.Fem.normalise_potentials = normalise;
  if (ierr)
    return 1;
  acc = Mesh_Accuracy();
  acc.err.resize(ds.mdata);
  for (int i = 0; i < ds.mdata; i++) {
    const double analytic = Half_Space_Value(ds, ds.dp[i]);
    acc.err[i] = std::fabs(ds.Fem.rm[i] - analytic) / analytic;
  }
  std::vector<double> all(acc.err.begin(), acc.err.end());
  acc.median = Median(all);
  acc.largest = all.empty() ? 0.0 : *std::max_element(all.begin(), all.end());
  Panel(ds, "Homogeneous half-space on the mesh of %d nodes: %d data",
        ds.Semistructured.number_nodes_ss, ds.mdata);
  Panel(ds, "%-16s %8s %12s %12s", "Array", "Data", "Median %", "Largest %");
  for (const char *kind : {"pole-pole", "pole-dipole", "four-electrode"}) {
    std::vector<double> e;
    for (int i = 0; i < ds.mdata; i++)
      if (std::strcmp(Array_Kind(ds.dp[i]), kind) == 0)
        e.push_back(acc.err[i]);
    if (!e.empty())
      Panel(ds, "%-16s %8zu %12.3f %12.3f", kind, e.size(), 100.0 * Median(e),
            100.0 * *std::max_element(e.begin(), e.end()));
  }
  Panel(ds, "%-16s %8d %12.3f %12.3f", "all", ds.mdata, 100.0 * acc.median, 100.0 * acc.largest);
  std::vector<int> order(ds.mdata);
  for (int i = 0; i < ds.mdata; i++)
    order[i] = i;
  const int worst = std::min(ds.mdata, 10);
  std::partial_sort(order.begin(), order.begin() + worst, order.end(),
                    [&](int a, int b) { return acc.err[a] > acc.err[b]; });
  Panel(ds, "Largest errors:");
  Panel(ds, "%8s %6s %6s %6s %6s %12s %12s %10s", "Datum", "C1", "C2", "P1", "P2", "Calculated",
        "Analytic", "Error %");
  for (int r = 0; r < worst; r++) {
    const int i = order[r];
    const Data_Point &d = ds.dp[i];
    const double analytic = Half_Space_Value(ds, d);
    Panel(ds, "%8d %6d %6d %6d %6d %12.4f %12.4f %10.3f", i + 1, d.nc1 + 1,
          d.nelec == 4 ? d.nc2 + 1 : 0, d.np1 + 1, d.nelec > 2 ? d.np2 + 1 : 0, ds.Fem.rm[i],
          analytic, 100.0 * acc.err[i]);
  }
  Panel(ds,
        "Forward model time %.2f s (assembly %.2f, analysis %.2f, factorisation %.2f, solves %.2f)",
        ds.Fem.t_total, ds.Fem.t_assembly, ds.Fem.t_analysis, ds.Fem.t_factor, ds.Fem.t_solve);
  return 0;
}
