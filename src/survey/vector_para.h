// Vector-array settings.
#pragma once

class Vector_Para {
public:
  // Vector arrays inverted with 0 the amplitude only, 1 amplitude and direction.
  int vector_use_direction_component = 0;
};
