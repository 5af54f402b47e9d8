// IP values between the units of the data file and the internal fraction
// (1.0 = 1000 mV/V).
#pragma once

class Data_IP;

// The file's IP value v of a point with apparent resistivity r, as internal
// chargeability.
double IP_To_Internal(const Data_IP &ip, double v, double r);
// The internal value m shown in the file's units.
double IP_Display_Value(const Data_IP &ip, double m, double r);
