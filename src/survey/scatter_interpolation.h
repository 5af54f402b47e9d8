// Heights at arbitrary (x, y) positions from scattered points: the surface
// topography and the sharp boundaries both come from such lists.
#pragma once

#include <cstdint>
#include <vector>

// Inverse-distance interpolation over a fixed set of points.
//   nearest 4: weights 1/d over the four points nearest the position; the
//              points are bucketed on a coarse grid so a query looks at a few
//              cells only, not at every point.
//   all points: weights 1/d^2 over every point, which gives the smoother
//              surface far from any point.
//   local plane: the plane fitted by least squares (weights 1/d^2) to the
//              eight points nearest the position, taken at the position:
//              ground that is a plane comes out exactly (the others do not
//              reproduce a slope); nearest 4 where the points lie on a line.
// A position within `coincide` of a point takes that point's value.
class Height_Interpolator {
public:
  enum Method : int { nearest_four = 0, all_points = 1, local_plane = 2 };

  template <class T>
  Height_Interpolator(const T *x, const T *y, const T *z, int64_t n, int method)
      : method_(method == all_points    ? all_points
                : method == local_plane ? local_plane
                                        : nearest_four) {
    x_.assign(x, x + n);
    y_.assign(y, y + n);
    z_.assign(z, z + n);
    Build_Buckets();
  }

  // The interpolated value at (px, py); 0 without points.
  double operator()(double px, double py) const;
  int64_t size() const { return static_cast<int64_t>(x_.size()); }

  static constexpr double coincide = 1e-7;

private:
  void Build_Buckets();
  struct Nearest_Set;
  void Nearest(double px, double py, Nearest_Set &best) const;
  double Nearest_Four(double px, double py) const;
  double Local_Plane(double px, double py) const;
  double All_Points(double px, double py) const;

  int method_;
  std::vector<double> x_, y_, z_;
  // Buckets: cell (i, j) holds items cell_start_[j * nx_ + i] .. the next start.
  double x0_ = 0.0, y0_ = 0.0, cell_ = 1.0;
  int nx_ = 1, ny_ = 1;
  std::vector<int64_t> cell_start_, items_;
};
