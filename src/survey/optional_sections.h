// Helpers shared by the readers and writers of the optional data file
// sections (tank, topography, fixed regions, water layer, sharp boundaries,
// global coordinates). The section operations themselves are declared in
// survey/survey.h.
#pragma once

#include "survey/survey_sections.h"

class Data_Set;

// Slope between neighbour grid nodes above which the topography check warns.
constexpr double steep_slope_degrees = 60.0;
// Slope in the y direction above which the topography is dropped: the data
// are then inverted without it (topo.type 0, no grid heights). At 75 degrees a
// rise is 3.7 times the node spacing; the distorted mesh under such a step has
// elements too skewed for reliable potentials, and a step like that is almost
// always a unit or sign error in the list rather than real ground.
constexpr double drop_topography_slope_degrees = 75.0;

// Added to the highest ground above the water for the land reference level.
constexpr double water_land_margin = 0.1;

// Letter test of a peeked line: its first or second character is `letter`,
// in either case.
bool First_Or_Second_Letter(const char *line, char letter);

// Surface grid nodes: ngridx * ngridy, x fastest (node i + j * ngridx).
int Grid_Node_Count(const Data_Set &ds);

// Positions between user units and the normalised units held in Data_Set.
double Normal_X(const Data_Set &ds, double x);
double Normal_Y(const Data_Set &ds, double y);
double User_X(const Data_Set &ds, double x);
double User_Y(const Data_Set &ds, double y);

// Consumes `n` lines of the data file image (captions).
void Skip_Lines(Data_Set &ds, int n);

// Clears a section's state; the tables allocated for it stay.
void Reset_Topography(Topography &t);
void Reset_Water_Layer(Water_Layer &w);
void Reset_Sharp_Boundary(Sharp_Boundary &s);

// Local survey coordinates (user units) to global ones with the fitted
// transform.
void Local_To_Global(const Global_Coords &g, double x, double y, double &gx, double &gy);

// Interpolates one sharp boundary from its points onto every surface grid
// node (grid_depth) and returns the average depth over the nodes, normalised.
double Boundary_Depths_At_Grid(Data_Set &ds, int boundary);

// A double as a float, saturated at the float range (a cast of a value
// beyond it is undefined).
inline float To_Float(double v) {
  constexpr double big = 3.4e38;
  return static_cast<float>(v > big ? big : v < -big ? -big : v);
}
