// Segment (spliced mesh) inversion settings.
#pragma once

class Inv_Splice {
public:
  int reading_segment = 0;           // a segment's data set is being read
  int segment_overlap = 3;           // model blocks by which a segment extends its edges
  int type_jacobian_outside = 1;     // Jacobian outside a segment: 0 zero, 1 half-space values
  int shift_segment_boundaries = 0;  // shift segment boundaries after each iteration
  int Insitu_IP_Jacobian_splice = 1; // form the IP Jacobian within the segment pass
  int extra_first_xgrid = 0;         // extra x model lines for the first segment
  int extra_first_ygrid = 0;         // extra y model lines for the first segment
  int shift_segment_display = 0;     // shift segment lines in the display
};
