# Seeds are passed as inputs rather than as a corpus directory, so runs never write into the tree.
set(BIN_SECTION_SEEDS ${CMAKE_CURRENT_SOURCE_DIR}/seeds/bin_section)
vertexmill_fuzzer(bin_section
  SOURCES bin_section_fuzz.cpp
  DEPENDS resmgr
  SEEDS -seed_inputs=${BIN_SECTION_SEEDS}/current.bin,${BIN_SECTION_SEEDS}/legacy.bin,${BIN_SECTION_SEEDS}/nested.bin
  RUNS 20000)
