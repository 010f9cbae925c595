#pragma once
// Everything besides its input files that decides what a compile writes. The cache key of a
// converted model is made from keyText(), so a switch added here changes the key.

#include <string>

struct CompileOptions
{
  bool encodeBuffers = true;  // store merged buffers in their encoded form
  bool optimizeMeshes = true; // reorder every render set for the GPU caches
  bool verifyVertices = true; // check converted vertices and report unusable ones
  // Refuse (an error naming the file, section and vertex) a vertex section holding a normal,
  // tangent or binormal that is neither unit length nor zero, instead of letting its packing end
  // the process through the assertion. Off by default: such data is a broken invariant.
  bool refuseUnpackableNormals = false;

  // One line naming every switch and its value ("encode=1 optimize=1 verify=1"), the same for
  // equal options and different for different ones.
  std::string keyText() const
  {
    std::string text = std::string("encode=") + (encodeBuffers ? "1" : "0") + " optimize=" +
                       (optimizeMeshes ? "1" : "0") + " verify=" + (verifyVertices ? "1" : "0");
    // Left out when off, so the keys of the options the tool has always used stay as they were.
    if (refuseUnpackableNormals)
      text += " refuse-unpackable-normals=1";
    return text;
  }

  bool operator==(const CompileOptions&) const = default;
};
