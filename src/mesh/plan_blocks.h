// Plan blocks of the adaptive mesh along one direction: a buffer block for
// each buffer spacing on either side, and one block for each model cell.
#pragma once

struct Plan_Axis {
  int first = 1; // node (from 1) of the first grid line
  int ngrid = 2; // grid lines
  int npu = 4;   // main spacings in a model cell

  int Count() const { return ngrid + 2 * first - 3; }
  bool Interior(int b) const { return b >= first - 1 && b < first - 1 + ngrid - 1; }
  // First main node (from 0) and main spacings of block b (from 0).
  int Start(int b) const {
    if (b < first - 1)
      return b;
    if (Interior(b))
      return first - 1 + (b - (first - 1)) * npu;
    return first - 1 + (ngrid - 1) * npu + (b - (first - 1) - (ngrid - 1));
  }
  int Span(int b) const { return Interior(b) ? npu : 1; }
  // Block (from 0) that holds main cell i (from 0).
  int Block_Of_Cell(int i) const {
    if (i < first - 1)
      return i;
    const int interior = (ngrid - 1) * npu;
    if (i < first - 1 + interior)
      return first - 1 + (i - (first - 1)) / npu;
    return first - 1 + (ngrid - 1) + (i - (first - 1) - interior);
  }
};
