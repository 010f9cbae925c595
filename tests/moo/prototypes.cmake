list(APPEND MOO_PROTOTYPE_TESTS
  moo_prototypes_test.cpp
  geometry_data_test.cpp)
