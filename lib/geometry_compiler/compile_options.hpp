#pragma once
// Everything besides its input files that decides what a compile writes. The cache key of a
// converted model is made from keyText(), so a switch added here changes the key.

#include <cstdio>
#include <string>

// The simplified copies of a model written beside it for the engine to draw at a distance.
struct LevelOfDetailOptions
{
  unsigned levels = 0;    // levels after the main model; 0: none are made
  float ratio = 0.5f;     // each level keeps about this share of the triangles of the level before it
  float maxError = 0.01f; // the largest deviation of any level from the main model, relative to its size
  bool sloppy = false;    // where the topology stops the simplifier, collapse the mesh regardless of it

  // Empty without levels, so that the key of a model converted without them stays as it was.
  std::string keyText() const
  {
    if (levels == 0)
      return {};
    char text[96];
    std::snprintf(text, sizeof text, " lods=%u lod-ratio=%.9g lod-error=%.9g lod-sloppy=%d", levels,
                  static_cast<double>(ratio), static_cast<double>(maxError), sloppy ? 1 : 0);
    return text;
  }

  bool operator==(const LevelOfDetailOptions&) const = default;
};

struct CompileOptions
{
  bool encodeBuffers = true;  // store merged buffers in their encoded form
  bool optimizeMeshes = true; // reorder every render set for the GPU caches
  bool verifyVertices = true; // check converted vertices and report unusable ones
  // Refuse (an error naming the file, section and vertex) a vertex section holding a normal,
  // tangent or binormal that is neither unit length nor zero, instead of letting its packing end
  // the process through the assertion. Off by default: such data is a broken invariant.
  bool refuseUnpackableNormals = false;
  LevelOfDetailOptions lods;

  // One line naming every switch and its value ("encode=1 optimize=1 verify=1"), the same for
  // equal options and different for different ones.
  std::string keyText() const
  {
    std::string text = std::string("encode=") + (encodeBuffers ? "1" : "0") + " optimize=" +
                       (optimizeMeshes ? "1" : "0") + " verify=" + (verifyVertices ? "1" : "0");
    // Left out when off, so the keys of the options the tool has always used stay as they were.
    if (refuseUnpackableNormals)
      text += " refuse-unpackable-normals=1";
    return text + lods.keyText();
  }

  bool operator==(const CompileOptions&) const = default;
};
