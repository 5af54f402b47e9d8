#include "modes/ip_units.h"

#include <cmath>

#include "modes/data_ip.h"

namespace {

// Frequencies of a percent frequency effect that allow the exponential form.
bool Frequencies_Valid(const Data_IP &ip) {
  return ip.ip_par1 > 0.0 && ip.ip_par2 > ip.ip_par1;
}

} // namespace

double IP_To_Internal(const Data_IP &ip, double v, double r) {
  switch (ip.typeip) {
  case 1:
  case 4:
    return v * 0.001;
  case 2:
    return v * r / 100000.0;
  case 3: {
    // The inverse of the display form: P = ((f2/f1)^(m/1.32) - 1) * 100,
    // else P = m / (1 - m) * 100.
    if (Frequencies_Valid(ip)) {
      const double ratio = ip.ip_par2 / ip.ip_par1;
      const double x = 1.0 + v * 0.01;
      if (ratio < 200.0 && x > 0.0) {
        const double e = std::log(x) / std::log(ratio);
        if (e < 10.0)
          return 1.32 * e;
      }
    }
    return v / (100.0 + v);
  }
  default:
    return v;
  }
}

double IP_Display_Value(const Data_IP &ip, double m, double r) {
  switch (ip.typeip) {
  case 1:
  case 4:
    return m * 1000.0;
  case 2:
    return r != 0.0 ? m * 100000.0 / r : 0.0;
  case 3: {
    if (m >= 0.9)
      return 999.0;
    if (Frequencies_Valid(ip)) {
      const double v = m / 1.32;
      const double ratio = ip.ip_par2 / ip.ip_par1;
      if (v < 10.0 && ratio < 200.0)
        return (std::pow(ratio, v) - 1.0) * 100.0;
    }
    return m < 1.0 ? m / (1.0 - m) * 100.0 : 999.0;
  }
  default:
    return m;
  }
}
