#pragma once
// Encodes render sets as the sections of a .primitives container, in one of the registered source
// vertex formats, and writes the container to disk without ever leaving a partial file behind.
//
// Per set two sections are written, in this order:
//   "<set>.vertices": 64-byte NUL-padded source format name, uint32 vertex count, the vertices
//                     in the format's source layout;
//   "<set>.indices":  64-byte NUL-padded "list" or "list32", uint32 index count, 4 zero bytes,
//                     the indices (16-bit when the set has at most 65536 vertices, else 32-bit).

#include "primitives_from_obj/mesh_builder.hpp"

#include "moo/index_format.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "resmgr/binary_block.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace objimport
{

// Largest number of vertices a set may have and still use 16-bit indices.
inline constexpr size_t kMaxVerticesFor16BitIndices = 65536;

// The source formats' 11-11-10 unit vector: x and y as signed 11-bit values scaled by 1023 (bits
// 0-10 and 11-21), z as a signed 10-bit value scaled by 511 (bits 22-31), each rounded to nearest
// and clamped. Non-finite components pack as 0.
uint32_t packNormal111110(Vec3 v);
// The inverse, as the converter decodes it (its own conversion function).
Vec3 unpackNormal111110(uint32_t word);

// Whether the format has tangent and binormal elements (and so needs tangent frames built).
bool needsTangentFrames(const Moo::PrimitiveVertexFormat& format);

// "list" for sets of at most kMaxVerticesFor16BitIndices vertices, "list32" beyond.
IndexFormat chooseIndexFormat(size_t vertexCount);

// The vertex section of `set` in the source layout of `format`. What the OBJ cannot supply is
// filled with neutral values: a second texture coordinate repeats the first where the set has none
// (a FLOAT1 one is 0), a rigid set's bone indices are 0, 0, 0 with weights 255, 0, and colours
// are 0xFFFFFFFF. Normals, tangents and
// binormals must be unit vectors (their packed form is asserted to decode within 0.01 of unit
// length); tangents and binormals must be present when the format has them (asserted).
// Returns null with `error` set when the format has an element this encoder cannot fill or when
// the section would exceed the container's payload limit.
[[nodiscard]] BinaryPtr encodeVertexSection(const RenderSet& set, const Moo::PrimitiveVertexFormat& format,
                                            std::string& error);

// The index section of `set`, in chooseIndexFormat(set.vertexCount()). Returns null with `error`
// set when the section would exceed the container's payload limit.
[[nodiscard]] BinaryPtr encodeIndexSection(const RenderSet& set, std::string& error);

// The whole container: the vertex and index sections of every set, in order. Returns null with
// `error` set when a section cannot be encoded or the container cannot be built.
[[nodiscard]] BinaryPtr encodePrimitives(const std::vector<RenderSet>& sets, const Moo::PrimitiveVertexFormat& format,
                                         std::string& error);

// Writes `size` bytes to `path`: first to "<path>.tmp" in the same directory, then renamed over
// `path`, so a failure never leaves a partial or truncated output. Returns false with `error`
// naming the file when the directory is missing or unwritable, or a write, flush or rename fails;
// the temporary file is removed then.
[[nodiscard]] bool writeFileReplacing(const std::string& path, const void* data, size_t size, std::string& error);

} // namespace objimport
