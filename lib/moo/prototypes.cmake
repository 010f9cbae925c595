list(APPEND MOO_PROTOTYPE_SOURCES
  moo_prototypes.cpp moo_prototypes.hpp
  geometry_data.cpp geometry_data.hpp)
