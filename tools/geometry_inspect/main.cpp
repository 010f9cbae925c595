// geometry_inspect: shows what the runtime will load from a .geometry file, checks it, exports it,
// and lists .primitives files. See inspect_command.hpp for the command line.

#include "geometry_inspect/inspect_command.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <iostream>

int main(int argc, char** argv)
{
  Moo::PrimitiveVertexFormat::init(0);
  const int status = geometry_inspect::runInspect(argc, argv, std::cout, std::cerr);
  std::cout.flush();
  Moo::PrimitiveVertexFormat::fini();
  return status;
}
