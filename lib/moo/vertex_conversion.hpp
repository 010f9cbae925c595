#pragma once
// Converts vertex elements between the source layouts of the .primitives files and the packed
// GPU layouts, and single elements back to floats. Every conversion is a fixed function chosen by
// (semantic, destination type, source type); equal types are copied byte for byte.

#include "moo/vertex_format.hpp"

#include <cstddef>
#include <cstdint>

namespace Moo
{

// Writes one destination element of destSize bytes from one source element. Neither pointer
// needs any alignment.
using ConversionFunc = void (*)(void* dest, const void* src, uint32_t destSize);

// Two half floats, u then v.
struct PackedVector2Float16_X2
{
  uint16_t x = 0;
  uint16_t y = 0;
};
static_assert(sizeof(PackedVector2Float16_X2) == 4);

// The conversion for this triple, or nullptr when the pair of types cannot be converted for the
// semantic. Equal types are not looked up here (see convertElements).
ConversionFunc fetchConversionFunc(VertexSemantic semantic, VertexDataType destType, VertexDataType srcType);

// Converts one element over `count` vertices: element i is written at destData + destOffset +
// i * destStride from srcData + srcOffset + i * srcStride. Both buffers must be large enough for
// that; null buffers are an assertion failure. Returns false, converting nothing, when no
// conversion exists for the types.
[[nodiscard]] bool convertElements(VertexSemantic semantic, void* destData, VertexDataType destType, size_t destOffset,
                                   size_t destStride, const void* srcData, VertexDataType srcType, size_t srcOffset,
                                   size_t srcStride, size_t count);

// convertElements for one element with offsets and strides 0.
[[nodiscard]] bool convertSingleElement(VertexSemantic semantic, void* dest, VertexDataType destType, const void* src,
                                        VertexDataType srcType);

// Converts vertexCount vertices from srcFormat to destFormat (both single-stream, asserted).
// destData must hold vertexCount × destFormat's stride bytes, srcData vertexCount × srcFormat's
// stride bytes; with vertexCount 0 either may be null. Destination elements the source format
// lacks are left as they are. Returns false when some element had no conversion; the other
// elements are converted all the same.
[[nodiscard]] bool convertVertices(void* destData, const VertexFormat& destFormat, const void* srcData,
                                   const VertexFormat& srcFormat, size_t vertexCount);

// True when packFloat3toUByte4Normal888 accepts the vector: its length is almost 0 or within
// 0.01 of 1 (a NaN component is neither).
bool isPackableUnitVector(const Vector3& v);

// Looks, before convertVertices, for the first source vertex whose normal, tangent or binormal
// the conversion to destFormat would refuse to pack. True (with its index in `vertex`) when one
// exists. srcData holds vertexCount × srcFormat's stride bytes.
[[nodiscard]] bool findUnpackableUnitVector(const VertexFormat& destFormat, const void* srcData,
                                            const VertexFormat& srcFormat, size_t vertexCount, size_t& vertex);

// Packs a unit vector (or a zero vector) into three biased bytes: byte i = 127 - trunc(c × -127),
// byte 3 = 0. A length that is neither almost 0 nor within 0.01 of 1 fails an assertion.
uint32_t packFloat3toUByte4Normal888(const Vector3& unpacked);

// Texture coordinates are stored as half floats centred on 0.5: u - 0.5 and v - 0.5, truncated.
// destSize must be 4 (asserted).
void conv_TexCoord_Float2_to_Float16_2(void* dest, const void* src, uint32_t destSize);
// Half floats back to u and v (+ 0.5). destSize must be 8 (asserted).
void conv_TexCoord_Float16_2_to_Float2(void* dest, const void* src, uint32_t destSize);
// As conv_TexCoord_Float16_2_to_Float2, with z = 0. destSize must be 12 (asserted).
void conv_TexCoord_Float16_2_to_Float3(void* dest, const void* src, uint32_t destSize);

} // namespace Moo
