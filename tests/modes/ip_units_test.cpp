// IP values between the data file's units and the internal fraction.
#include <cmath>
#include <gtest/gtest.h>

#include "modes/data_ip.h"
#include "modes/ip_units.h"

namespace {

Data_IP Ip(int type, double f1 = 0.0, double f2 = 0.0) {
  Data_IP ip;
  ip.typeip = type;
  ip.ip_par1 = f1;
  ip.ip_par2 = f2;
  return ip;
}

TEST(Ip_Units, FileUnitsComeBackFromTheInternalValue) {
  struct Case {
    Data_IP ip;
    double v, r;
  } cases[] = {
      {Ip(1), 12.5, 100.0},        // chargeability in mV/V
      {Ip(4), -3.0, 100.0},        // phase angle in mrad
      {Ip(2), 40.0, 250.0},        // metal factor
      {Ip(3, 0.3, 3.0), 4.0, 1},   // percent frequency effect, exponential form
      {Ip(3, 0.0, 3.0), 4.0, 1},   // frequencies not valid: m / (1 - m) form
      {Ip(3, 1.0, 500.0), 4.0, 1}, // frequency ratio too large
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.ip.typeip);
    const double m = IP_To_Internal(c.ip, c.v, c.r);
    EXPECT_NEAR(IP_Display_Value(c.ip, m, c.r), c.v, 1e-9);
  }
}

TEST(Ip_Units, InternalValuesOfEachType) {
  EXPECT_DOUBLE_EQ(IP_To_Internal(Ip(1), 10.0, 50.0), 0.01);
  EXPECT_DOUBLE_EQ(IP_To_Internal(Ip(2), 10.0, 50.0), 10.0 * 50.0 / 100000.0);
  // PFE of 4 % between 0.3 and 3 Hz: m = 1.32 log(1.04) / log(10).
  EXPECT_NEAR(IP_To_Internal(Ip(3, 0.3, 3.0), 4.0, 1.0), 1.32 * std::log(1.04) / std::log(10.0),
              1e-12);
  // A percent frequency effect at or above 0.9 shows as 999.
  EXPECT_EQ(IP_Display_Value(Ip(3, 0.3, 3.0), 0.9, 1.0), 999.0);
  EXPECT_EQ(IP_Display_Value(Ip(0), 0.25, 1.0), 0.25);
}

} // namespace
