list(APPEND MOO_FORMAT_SOURCES)  # vertex_format, primitive_vertex_format, vertex_conversion, index_format
