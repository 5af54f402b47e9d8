// Reading, checking and writing the survey data file. Every operation takes
// the application object and returns 0 on success or a positive failure
// after showing its message (check messages stay silent while `quiet` is set).
#pragma once

#include <memory>

#include <cstdint>
#include <cstdio>

class Data_Set;

// --- The data file ---------------------------------------------------------
// Parses the image in ds.img into the survey. 0 on success; on failure the
// caller sets mdata to 0.
int Parse_Data_File(Data_Set &ds);
// The survey half of a results file: header, data lines, optional sections
// and electrode numbers, without the clean-up of a data file's read. Returns
// 0, 1 on a failed step, 2 without a point electrode list, 3 when the data
// use electrodes that are not in the list.
int Parse_Results_Survey(Data_Set &ds);
// The whole file at `path` into `buffer` (size + 1 bytes, the last 0) and the
// memory image ds.img over it.
int Load_Text_File(Data_Set &ds, const char *path, std::unique_ptr<char[]> &buffer);
// Header sections, in file order.
int Read_Grid_Section(Data_Set &ds);
int Read_Array_Section(Data_Set &ds);
int Read_Point_Electrodes_Section(Data_Set &ds);
int Read_User_Depths_Section(Data_Set &ds);
int Read_Data_Count_Sections(Data_Set &ds); // mdata, IP, time lapse, error estimate
int Read_Data_Points(Data_Set &ds);
// Peeks at the next line: 1 and the line in `line` (260 bytes) when there is one.
int Peek_Line(Data_Set &ds, char *line);
// Index of data point i in series k.
int64_t Record_Index(const Data_Set &ds, int k, int i);

// The whole read of a file from disk (command 201). `path` is the chooser's
// answer. Returns 0 when a data file is read and ready.
int Call_Read_Data_File(Data_Set &ds, const char *path);
// After the model or mesh settings changed with a data file read: the
// layers, the mesh and the electrode cells again, and the inversion
// parameters on the panel. Nothing to do without data.
int Reset_Model_After_Settings(Data_Set &ds, const char *path);
// Writes the survey as a data file (".dat" is added when missing).
int File_Save(Data_Set &ds, const char *path);
// The data point lines of File_Save.
void Print_Data(Data_Set &ds, FILE *f);
// Value format of the data lines.
void Write_Data_Value(FILE *f, double v);
// Pieces of the data file's header, shared with the results file (user units).
// Grid lines in rows of 10, each value by `format`.
void Write_Grid_Lines(FILE *f, const char *caption, const double *v, int n, double origin,
                      double scale, const char *format);
// The file's number of a stored array code: 4 is written as 2 and 5 as 3.
int File_Array_Number(int code);
// The point electrode list, the index `index_width` characters wide.
void Write_Point_Electrodes(Data_Set &ds, FILE *f, int index_width);
// The user defined depths to layers, when at least 3 were given.
void Write_User_Depths(Data_Set &ds, FILE *f);
// `path` with its extension replaced by `ending` (e.g. "_sort.dat").
void Derived_File_Name(const char *path, const char *ending, char *out, size_t size);

// --- Electrodes ------------------------------------------------------------
int Sort_Point_Electrodes(Data_Set &ds);
int Check_Repeated_Point_Electrodes(Data_Set &ds);
int Scale_Positions(Data_Set &ds);
int Find_Electrode_Numbers_Points(Data_Set &ds);
int Find_Electrode_Numbers_Points_Only(Data_Set &ds);
int Calculate_Location_Electrodes_Model_Grid_Topography(Data_Set &ds);
int Sort_Data_Set(Data_Set &ds);
int Find_Distance_Array_Electrodes(Data_Set &ds);
int Check_Number_Dipoles_Data_Set(Data_Set &ds, int mode);
void Calculate_Minimum_Electrode_Separation(Data_Set &ds);
void Calculate_Electrode_Extents(Data_Set &ds);
void Calculate_Vector_Working_Values(Data_Set &ds, int64_t r);
// Number of the electrode at normalised (x, y, depth), or -1.
int Find_Electrode_Number(const Data_Set &ds, const double *pos);

// --- Checks ----------------------------------------------------------------
int Check_Point_Same_Electrodes(Data_Set &ds, int i); // C1 = C2, P1 = P2
int Check_Array_Coincident_Electrodes(Data_Set &ds, int i);
int Check_Pseudodepths(Data_Set &ds);
int Check_Electrodes_Usage(Data_Set &ds);
int Check_Invalid_IP(Data_Set &ds);
int Check_Invalid_Res_Time_Data(Data_Set &ds);
int Check_Repeated_Data_Sorted(Data_Set &ds); // returns the repeat count, marks them
int Check_Repeated_Data(Data_Set &ds);        // count, message, question, "_unique.dat"
int Check_Vector_Array_Data(Data_Set &ds);
int Count_Vector_Triplets(Data_Set &ds);
int Trim_Data_Tag(Data_Set &ds);
int Save_Postive_App_Res(Data_Set &ds, const float *calculated);
int Save_Postive_App_Res_IP(Data_Set &ds, const float *calculated, const float *calculated_ip);
void Classify_Arrays(Data_Set &ds);
void Calculate_Median_Apparent_Resistivity(Data_Set &ds);
// Drops the records whose keep byte is 0, order kept, in every series.
int Compact_Data_Records(Data_Set &ds, uint8_t remove_mark);

// --- Geometric factors -----------------------------------------------------
int Calculate_Geometric_Factors(Data_Set &ds);
int Calculate_Geometric_Factor_Relative_Error_Arrays(Data_Set &ds, double spxx);
int Calculate_Range_Geometric_Factor_Arrays(Data_Set &ds, double spxx);
int Use_Geometric_Factor_Relative_Error_Data_Weight(Data_Set &ds);
// Data weights of the inversion (one per point and series): 1 / relative error.
int Set_Error_Vector(Data_Set &ds, float *weights);

// --- Optional sections -----------------------------------------------------
int Read_Tank_Section(Data_Set &ds);
int Check_Topography_Data(Data_Set &ds);
int Check_Fixed_Regions(Data_Set &ds);
int Check_Underwater_Settings(Data_Set &ds);
int Read_Sharp_Boundary(Data_Set &ds, int mode);
int Read_Global_Coordinates(Data_Set &ds);
void Write_Tank_Section(Data_Set &ds, FILE *f);
void Write_Optional_Sections(Data_Set &ds, FILE *f);
// The fixed regions section: the data file's form, or the results file's
// second copy ("R" per region, corners with four decimals).
void Write_Fixed_Regions_Form(Data_Set &ds, FILE *f, bool results_form);
// Tables of the optional sections; freed with the survey tables.
int Allocate_Section_Arrays(Data_Set &ds);
void Free_Section_Arrays(Data_Set &ds);
