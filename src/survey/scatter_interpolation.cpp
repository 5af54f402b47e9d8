#include "survey/scatter_interpolation.h"

#include "core/solve3.h"

#include <algorithm>
#include <cmath>

// The k smallest squared distances seen so far, with their point indices.
struct Height_Interpolator::Nearest_Set {
  static constexpr int k = 8;
  int wanted = 4; // the set keeps this many (at most k)
  double d2[k];
  int64_t index[k];
  int count = 0;

  void Offer(double d, int64_t i) {
    if (count == wanted && d >= d2[wanted - 1])
      return;
    int pos = count < wanted ? count++ : wanted - 1;
    while (pos > 0 && d2[pos - 1] > d) {
      d2[pos] = d2[pos - 1];
      index[pos] = index[pos - 1];
      pos--;
    }
    d2[pos] = d;
    index[pos] = i;
  }
};

namespace {

// Cell of a coordinate along one side, from 0 to `last` (NaN gives 0).
int Clamp_Cell(double v, int last) {
  return !(v > 0.0) ? 0 : (v >= last ? last : static_cast<int>(v));
}

} // namespace

void Height_Interpolator::Build_Buckets() {
  const int64_t n = size();
  cell_start_.assign(2, 0);
  items_.clear();
  nx_ = ny_ = 1;
  if (n == 0)
    return;
  const auto [xlo, xhi] = std::minmax_element(x_.begin(), x_.end());
  const auto [ylo, yhi] = std::minmax_element(y_.begin(), y_.end());
  x0_ = *xlo;
  y0_ = *ylo;
  const double w = *xhi - *xlo, h = *yhi - *ylo;
  const double extent = std::max({w, h, 1e-12});
  // About two points a cell; a flat spread (all points on a line) keeps a
  // narrow but non-zero side so the cell size stays finite.
  const double area = std::max(w, 1e-3 * extent) * std::max(h, 1e-3 * extent);
  cell_ = std::sqrt(area / std::max<double>(1.0, 0.5 * static_cast<double>(n)));
  if (std::isfinite(w) && std::isfinite(h) && cell_ > 0.0 && std::isfinite(cell_)) {
    nx_ = Clamp_Cell(w / cell_, 1 << 20) + 1;
    ny_ = Clamp_Cell(h / cell_, 1 << 20) + 1;
  } else {
    // Points so far apart that their spread overflows: one cell holds all.
    nx_ = ny_ = 1;
    cell_ = 1.0;
  }

  // Counting sort of the points into their cells.
  const int64_t cells = static_cast<int64_t>(nx_) * ny_;
  cell_start_.assign(cells + 1, 0);
  std::vector<int64_t> cell_of(n);
  for (int64_t p = 0; p < n; p++) {
    const int i = Clamp_Cell((x_[p] - x0_) / cell_, nx_ - 1);
    const int j = Clamp_Cell((y_[p] - y0_) / cell_, ny_ - 1);
    cell_of[p] = static_cast<int64_t>(j) * nx_ + i;
    cell_start_[cell_of[p] + 1]++;
  }
  for (int64_t c = 0; c < cells; c++)
    cell_start_[c + 1] += cell_start_[c];
  items_.resize(n);
  std::vector<int64_t> fill(cell_start_.begin(), cell_start_.end() - 1);
  for (int64_t p = 0; p < n; p++)
    items_[fill[cell_of[p]]++] = p;
}

double Height_Interpolator::operator()(double px, double py) const {
  if (x_.empty())
    return 0.0;
  return method_ == all_points    ? All_Points(px, py)
         : method_ == local_plane ? Local_Plane(px, py)
                                  : Nearest_Four(px, py);
}

void Height_Interpolator::Nearest(double px, double py, Nearest_Set &best) const {
  const int ci = Clamp_Cell((px - x0_) / cell_, nx_ - 1);
  const int cj = Clamp_Cell((py - y0_) / cell_, ny_ - 1);
  best.wanted = static_cast<int>(std::min<int64_t>(best.wanted, size()));
  const auto visit = [&](int i, int j) {
    if (i < 0 || j < 0 || i >= nx_ || j >= ny_)
      return;
    const int64_t c = static_cast<int64_t>(j) * nx_ + i;
    for (int64_t q = cell_start_[c]; q < cell_start_[c + 1]; q++) {
      const int64_t p = items_[q];
      const double dx = x_[p] - px, dy = y_[p] - py;
      best.Offer(dx * dx + dy * dy, p);
    }
  };
  // Rings of cells around the position's cell. Every cell outside ring r lies
  // at least r cells away, so the search ends once the last wanted point is
  // closer than that.
  const int rmax = std::max(nx_, ny_);
  for (int r = 0; r <= rmax; r++) {
    for (int i = ci - r; i <= ci + r; i++) {
      visit(i, cj - r);
      if (r > 0)
        visit(i, cj + r);
    }
    for (int j = cj - r + 1; j <= cj + r - 1; j++) {
      visit(ci - r, j);
      visit(ci + r, j);
    }
    const double reach = r * cell_;
    if (best.count >= best.wanted && best.d2[best.wanted - 1] <= reach * reach)
      break;
  }
}

double Height_Interpolator::Nearest_Four(double px, double py) const {
  Nearest_Set best;
  Nearest(px, py, best);
  double sw = 0.0, sz = 0.0;
  for (int m = 0; m < best.count; m++) {
    const double d = std::sqrt(best.d2[m]);
    if (d < coincide)
      return z_[best.index[m]];
    sw += 1.0 / d;
    sz += z_[best.index[m]] / d;
  }
  return sz / sw;
}

double Height_Interpolator::Local_Plane(double px, double py) const {
  Nearest_Set best;
  best.wanted = Nearest_Set::k;
  Nearest(px, py, best);
  // Weighted least squares of z = a + b dx + c dy, weights 1 / d^2 (scaled
  // by the nearest distance so that they stay finite).
  double m[3][3] = {}, r[3] = {};
  const double d0 = best.count > 0 ? best.d2[0] : 0.0;
  for (int q = 0; q < best.count; q++) {
    if (std::sqrt(best.d2[q]) < coincide)
      return z_[best.index[q]];
    const int64_t p = best.index[q];
    const double f[3] = {1.0, x_[p] - px, y_[p] - py};
    const double w = d0 / best.d2[q];
    for (int a = 0; a < 3; a++) {
      r[a] += w * f[a] * z_[p];
      for (int b = 0; b < 3; b++)
        m[a][b] += w * f[a] * f[b];
    }
  }
  // Points on one line (or too few) give no plane.
  double abc[3];
  if (best.count < 3 || !Solve3(m, r, abc, 1e-9))
    return Nearest_Four(px, py);
  return abc[0];
}

double Height_Interpolator::All_Points(double px, double py) const {
  double sw = 0.0, sz = 0.0;
  const int64_t n = size();
  for (int64_t p = 0; p < n; p++) {
    const double dx = x_[p] - px, dy = y_[p] - py;
    const double d2 = dx * dx + dy * dy;
    if (d2 < coincide * coincide)
      return z_[p];
    sw += 1.0 / d2;
    sz += z_[p] / d2;
  }
  return sz / sw;
}
