// primitives_import: converts a mesh file into a .primitives file, or writes a built-in shape.
// Also built under its former name, primitives_from_obj. See import_command.hpp for the command
// line and the exit statuses.

#include "primitives_from_obj/import_command.hpp"

#ifndef IMPORT_TOOL_NAME
#define IMPORT_TOOL_NAME "primitives_import"
#endif

int main(int argc, char** argv)
{
  return objimport::runImport(argc, argv, IMPORT_TOOL_NAME);
}
