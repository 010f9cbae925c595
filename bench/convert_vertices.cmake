vertexmill_benchmark(convert_vertices
  SOURCES convert_vertices_bench.cpp
  DEPENDS moo)
