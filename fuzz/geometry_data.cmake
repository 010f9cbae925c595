vertexmill_fuzzer(geometry_data SOURCES geometry_data_fuzz.cpp DEPENDS moo)
