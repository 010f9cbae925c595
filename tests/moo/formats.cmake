list(APPEND MOO_FORMAT_TESTS
  vertex_format_test.cpp
  vertex_conversion_test.cpp
  section_header_test.cpp
  formats_test_support.hpp)
