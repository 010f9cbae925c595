#pragma once
// Turns one model's .primitives file (plus its collision and armor companions) into one
// .geometry file.

#include <string>

class GeometryCompiler
{
public:
  // What to convert; texts in UTF-8.
  struct Request
  {
    std::string primitivesPath;  // must not be empty
    std::string collisionPath;   // companion files, or empty
    std::string armorPath;
    std::string armorVisualPath;
    std::string modelName;       // used only in companion-loading messages
  };

  // The whole conversion: reads the request's files and writes outputPath whole or not at all.
  // encode: store merged buffers encoded; optimize: reorder meshes for the GPU; verify: check
  // converted vertices. Returns false (after logging why) when no file was written.
  [[nodiscard]] bool compile(const Request& request, const std::string& outputPath, bool encode, bool optimize,
                             bool verify);
};
