list(APPEND MOO_FORMAT_SOURCES
  vertex_format.cpp vertex_format.hpp
  primitive_vertex_format.cpp primitive_vertex_format.hpp
  vertex_conversion.cpp vertex_conversion.hpp
  vertex_section.cpp vertex_section.hpp section_records.hpp
  index_format.cpp index_format.hpp)
