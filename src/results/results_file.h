// Writers of the inversion results file (.inv): the header (a data file in
// the arbitrary point electrodes form followed by the model geometry), one
// model section per iteration and the summary. Every writer opens the file
// for appending and closes it again, so a run that dies keeps each finished
// iteration.
#pragma once

#include <cstdio>

class Data_Set;
struct Data_Point;

// Iteration 0 writes the header, an iteration above 0 a model section.
// `misfit` is the fraction (0.05 is 5 percent).
int printmodelh(Data_Set &ds, const char *path, int iteration, double misfit);
// Records the iteration's misfit and writes its model section.
int Save_Model(Data_Set &ds);
// The summary, then `closing` on a line of its own.
int Print_Summary(Data_Set &ds, const char *closing);
// The value writer's format of one value.
void Write_Results_Value(FILE *f, double v);
// Error e of one datum, observed o against calculated c, by the quantity
// inverted (appres_inv): 0 log(o / c), 3 log(o^2 / c^2), both falling back to
// 2 (o - c) / (|o| + |c|) when c (or o) is at most 0; others (o - c) w.
double Calculate_Datum_Error(int appres_inv, double o, double c, double w);
// Positions of a datum's electrodes in line order (C1, C2, P1, P2, and the
// vector array's P3); returns their count.
int Datum_Electrodes(const Data_Point &d, bool vector, const double *e[5]);
