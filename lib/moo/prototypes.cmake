list(APPEND MOO_PROTOTYPE_SOURCES)  # moo_prototypes, geometry_data
