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
// The message of a results file that could not be written (disk full, ...),
// with the system's reason for `error` (an errno value); returns 1.
int Results_Not_Written(Data_Set &ds, const char *path, int error);
// Closes a results file written to, and reports a write or close that
// failed (with Results_Not_Written); 0 when all went out.
int Close_Results_File(Data_Set &ds, FILE *f, const char *path);
// A results file read back holds iteration `iteration` (0: the last) and,
// with `ip`, an IP model; otherwise the message and 1.
int Check_Results_Choice(Data_Set &ds, int iteration, bool ip);
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

// Reading a results file back (command 7000). Call_Read_Inversion_File reads
// the file at `path` whole and parses it; on failure nothing of it survives
// (mdata, the model cells and the iterations are all 0). Returns 0 when read.
int Call_Read_Inversion_File(Data_Set &ds, const char *path);
// The parse of the file's memory image (ds.img). Returns 1 on success.
int Read_Inverse_Model_File(Data_Set &ds);
// The layers, the blocks and every model section from the cursor on.
int Get_Model_Inversion(Data_Set &ds);
// The tail sections (each searched for; absent ones leave their feature off).
void Read_Damping_Factors_Inv_File(Data_Set &ds);
void Read_Lcurve_Values(Data_Set &ds);
void Read_Topography_Model_Parameters(Data_Set &ds);
void Read_Sensitivity_Values(Data_Set &ds);
void Read_Reference_Model(Data_Set &ds);
void Read_Resolution_Values_Free_Format(Data_Set &ds);
void Check_Inversion_Settings_Inv_File(Data_Set &ds);
int Check_Resolution_Matrix_File(Data_Set &ds);

// Model binary files. Run 0 is the present results, 1 and 2 the VOI runs.
void Set_Model_Binary_Names(Data_Set &ds);
int Save_Model_Binary_File(Data_Set &ds, int run, const float *models, const float *ip_models,
                           const float *data, const float *ip_data);
// Iteration k (from 1) into the live arrays; above the count nothing changes.
int Read_Model_Binary_File(Data_Set &ds, int iteration);
int Read_Model_Binary_File_Voi(Data_Set &ds, int run, int iteration);

// Commands on a results file read back: 7000 reads `path`; the exports of
// the iteration chosen in Inv_Results (7270 model list, 7271 XYZC tables,
// 7272 VTK, 7420 data misfit listing) write beside the results file.
int Run_Read_Results(Data_Set &ds, const char *path);
int Run_Export_Model_List(Data_Set &ds, const char *path);
int Run_Export_XYZC(Data_Set &ds, const char *path);
int Run_Export_VTK(Data_Set &ds, const char *path);
int Run_Export_Misfit(Data_Set &ds, const char *path);
