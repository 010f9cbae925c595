#pragma once
// The records of a .geometry file. The file is one packed MergedGeometryPrototype (see red/ppa.hpp):
// the root record at position 0, then every array placed depth first behind it. In memory the
// array fields are real pointers; in the file each holds the offset of its array from the first
// byte of the record that contains the field (0 for an empty array).

#include "cstdmf/string_id.hpp"
#include "red/ppa.hpp"
#include "red/types.hpp"
#include "resmgr/binary_block.hpp"

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Moo
{

// One source section's range of a merged buffer.
struct MappingPrototype
{
  StringID mappingId;          // string id of the source section's name
  uint16_t mergedBufferIndex;  // into mergedVertices or mergedIndices
  uint16_t packedTexelDensity; // half float, see packedTexelDensity()
  uint32_t itemsOffset;        // first vertex or index of the section, counted in decoded items
  uint32_t itemsCount;         // vertices or indices of the section
};

struct MergedVerticesPrototype
{
  const std::byte* verticesData; // sizeInBytes bytes: vertices, or their encoded stream
  red::types::String formatName; // GPU vertex format name
  uint32_t sizeInBytes;
  uint16_t strideInBytes;
  std::byte isSkinned; // 1 or 0
  std::byte isBumped;  // 1 or 0
};

struct MergedIndicesPrototype
{
  const std::byte* indicesData; // sizeInBytes bytes: indices, or their encoded stream
  uint32_t sizeInBytes;
  uint16_t primitiveType; // 0: 16-bit indices ("list"), 1: 32-bit indices ("list32")
  uint16_t strideInBytes; // 2 or 4
};

struct CollisionModelDataPrototype
{
  uint32_t sizeInBytes;
  uint32_t padding;
  red::types::String collisionModelName;
  const std::byte* cmData;
};

struct ArmorDataPrototype
{
  uint32_t sizeInBytes;
  uint32_t padding;
  red::types::String armorModelName;
  const std::byte* armorData;
};

struct MergedGeometryPrototype
{
  uint32_t mergedVerticesCount;
  uint32_t mergedIndicesCount;
  uint32_t verticesMappingCount;
  uint32_t indicesMappingCount;
  uint32_t collisionModelCount;
  uint32_t armorModelCount;
  const MappingPrototype* verticesMapping;
  const MappingPrototype* indicesMapping;
  const MergedVerticesPrototype* mergedVertices;
  const MergedIndicesPrototype* mergedIndices;
  const CollisionModelDataPrototype* collisionModels;
  const ArmorDataPrototype* armorModels;
};

static_assert(sizeof(MappingPrototype) == 16);
static_assert(offsetof(MappingPrototype, mappingId) == 0);
static_assert(offsetof(MappingPrototype, mergedBufferIndex) == 4);
static_assert(offsetof(MappingPrototype, packedTexelDensity) == 6);
static_assert(offsetof(MappingPrototype, itemsOffset) == 8);
static_assert(offsetof(MappingPrototype, itemsCount) == 12);
static_assert(std::is_trivially_copyable_v<MappingPrototype>);

static_assert(sizeof(MergedVerticesPrototype) == 32);
static_assert(offsetof(MergedVerticesPrototype, verticesData) == 0);
static_assert(offsetof(MergedVerticesPrototype, formatName) == 8);
static_assert(offsetof(MergedVerticesPrototype, sizeInBytes) == 24);
static_assert(offsetof(MergedVerticesPrototype, strideInBytes) == 28);
static_assert(offsetof(MergedVerticesPrototype, isSkinned) == 30);
static_assert(offsetof(MergedVerticesPrototype, isBumped) == 31);
static_assert(std::is_trivially_copyable_v<MergedVerticesPrototype>);

static_assert(sizeof(MergedIndicesPrototype) == 16);
static_assert(offsetof(MergedIndicesPrototype, indicesData) == 0);
static_assert(offsetof(MergedIndicesPrototype, sizeInBytes) == 8);
static_assert(offsetof(MergedIndicesPrototype, primitiveType) == 12);
static_assert(offsetof(MergedIndicesPrototype, strideInBytes) == 14);
static_assert(std::is_trivially_copyable_v<MergedIndicesPrototype>);

static_assert(sizeof(CollisionModelDataPrototype) == 32);
static_assert(offsetof(CollisionModelDataPrototype, sizeInBytes) == 0);
static_assert(offsetof(CollisionModelDataPrototype, padding) == 4);
static_assert(offsetof(CollisionModelDataPrototype, collisionModelName) == 8);
static_assert(offsetof(CollisionModelDataPrototype, cmData) == 24);
static_assert(std::is_trivially_copyable_v<CollisionModelDataPrototype>);

static_assert(sizeof(ArmorDataPrototype) == 32);
static_assert(offsetof(ArmorDataPrototype, sizeInBytes) == 0);
static_assert(offsetof(ArmorDataPrototype, padding) == 4);
static_assert(offsetof(ArmorDataPrototype, armorModelName) == 8);
static_assert(offsetof(ArmorDataPrototype, armorData) == 24);
static_assert(std::is_trivially_copyable_v<ArmorDataPrototype>);

static_assert(sizeof(MergedGeometryPrototype) == 72);
static_assert(offsetof(MergedGeometryPrototype, mergedVerticesCount) == 0);
static_assert(offsetof(MergedGeometryPrototype, mergedIndicesCount) == 4);
static_assert(offsetof(MergedGeometryPrototype, verticesMappingCount) == 8);
static_assert(offsetof(MergedGeometryPrototype, indicesMappingCount) == 12);
static_assert(offsetof(MergedGeometryPrototype, collisionModelCount) == 16);
static_assert(offsetof(MergedGeometryPrototype, armorModelCount) == 20);
static_assert(offsetof(MergedGeometryPrototype, verticesMapping) == 24);
static_assert(offsetof(MergedGeometryPrototype, indicesMapping) == 32);
static_assert(offsetof(MergedGeometryPrototype, mergedVertices) == 40);
static_assert(offsetof(MergedGeometryPrototype, mergedIndices) == 48);
static_assert(offsetof(MergedGeometryPrototype, collisionModels) == 56);
static_assert(offsetof(MergedGeometryPrototype, armorModels) == 64);
static_assert(std::is_trivially_copyable_v<MergedGeometryPrototype>);

// ---- Archive descriptions ----------------------------------------------------------------------
// The field order is the walk order and so fixes the file layout. Two fields are deliberately
// absent: MergedGeometryPrototype::armorModelCount and MergedIndicesPrototype::strideInBytes. No
// byte of the layout changes: scalars are copied with their record, and armorModels still finds its
// count through its count offset. Tracebacks just never name them.

namespace prototype_detail
{
using red::ppa::FieldDescription;
using red::ppa::FieldKind;
using red::ppa::TypeDescription;

inline constexpr TypeDescription kStringIdType{"StringID", sizeof(StringID), {}};

inline constexpr FieldDescription kMappingFields[] = {
  {"mappingId", FieldKind::Scalar, offsetof(MappingPrototype, mappingId), 0, &kStringIdType},
  {"mergedBufferIndex", FieldKind::Scalar, offsetof(MappingPrototype, mergedBufferIndex), 0, &red::ppa::kUInt16Type},
  {"packedTexelDensity", FieldKind::Scalar, offsetof(MappingPrototype, packedTexelDensity), 0,
   &red::ppa::kUInt16Type},
  {"itemsOffset", FieldKind::Scalar, offsetof(MappingPrototype, itemsOffset), 0, &red::ppa::kUInt32Type},
  {"itemsCount", FieldKind::Scalar, offsetof(MappingPrototype, itemsCount), 0, &red::ppa::kUInt32Type},
};

inline constexpr FieldDescription kMergedVerticesFields[] = {
  {"sizeInBytes", FieldKind::Scalar, offsetof(MergedVerticesPrototype, sizeInBytes), 0, &red::ppa::kUInt32Type},
  {"verticesData", FieldKind::Array, offsetof(MergedVerticesPrototype, verticesData),
   offsetof(MergedVerticesPrototype, sizeInBytes), &red::ppa::kByteType},
  {"formatName", FieldKind::Record, offsetof(MergedVerticesPrototype, formatName), 0, &red::ppa::kStringType},
  {"strideInBytes", FieldKind::Scalar, offsetof(MergedVerticesPrototype, strideInBytes), 0, &red::ppa::kUInt16Type},
  {"isSkinned", FieldKind::Scalar, offsetof(MergedVerticesPrototype, isSkinned), 0, &red::ppa::kByteType},
  {"isBumped", FieldKind::Scalar, offsetof(MergedVerticesPrototype, isBumped), 0, &red::ppa::kByteType},
};

inline constexpr FieldDescription kMergedIndicesFields[] = {
  {"sizeInBytes", FieldKind::Scalar, offsetof(MergedIndicesPrototype, sizeInBytes), 0, &red::ppa::kUInt32Type},
  {"indicesData", FieldKind::Array, offsetof(MergedIndicesPrototype, indicesData),
   offsetof(MergedIndicesPrototype, sizeInBytes), &red::ppa::kByteType},
  {"primitiveType", FieldKind::Scalar, offsetof(MergedIndicesPrototype, primitiveType), 0, &red::ppa::kUInt16Type},
};

inline constexpr FieldDescription kCollisionModelDataFields[] = {
  {"sizeInBytes", FieldKind::Scalar, offsetof(CollisionModelDataPrototype, sizeInBytes), 0, &red::ppa::kUInt32Type},
  {"cmData", FieldKind::Array, offsetof(CollisionModelDataPrototype, cmData),
   offsetof(CollisionModelDataPrototype, sizeInBytes), &red::ppa::kByteType},
  {"collisionModelName", FieldKind::Record, offsetof(CollisionModelDataPrototype, collisionModelName), 0,
   &red::ppa::kStringType},
};

inline constexpr FieldDescription kArmorDataFields[] = {
  {"sizeInBytes", FieldKind::Scalar, offsetof(ArmorDataPrototype, sizeInBytes), 0, &red::ppa::kUInt32Type},
  {"armorData", FieldKind::Array, offsetof(ArmorDataPrototype, armorData), offsetof(ArmorDataPrototype, sizeInBytes),
   &red::ppa::kByteType},
  {"armorModelName", FieldKind::Record, offsetof(ArmorDataPrototype, armorModelName), 0, &red::ppa::kStringType},
};
} // namespace prototype_detail

inline constexpr red::ppa::TypeDescription kMappingPrototypeType{"Moo::MappingPrototype", sizeof(MappingPrototype),
                                                                 prototype_detail::kMappingFields};
inline constexpr red::ppa::TypeDescription kMergedVerticesPrototypeType{
  "Moo::MergedVerticesPrototype", sizeof(MergedVerticesPrototype), prototype_detail::kMergedVerticesFields};
inline constexpr red::ppa::TypeDescription kMergedIndicesPrototypeType{
  "Moo::MergedIndicesPrototype", sizeof(MergedIndicesPrototype), prototype_detail::kMergedIndicesFields};
inline constexpr red::ppa::TypeDescription kCollisionModelDataPrototypeType{
  "Moo::CollisionModelDataPrototype", sizeof(CollisionModelDataPrototype),
  prototype_detail::kCollisionModelDataFields};
inline constexpr red::ppa::TypeDescription kArmorDataPrototypeType{
  "Moo::ArmorDataPrototype", sizeof(ArmorDataPrototype), prototype_detail::kArmorDataFields};

namespace prototype_detail
{
using MGP = MergedGeometryPrototype;
inline constexpr FieldDescription kMergedGeometryFields[] = {
  {"mergedVerticesCount", FieldKind::Scalar, offsetof(MGP, mergedVerticesCount), 0, &red::ppa::kUInt32Type},
  {"mergedIndicesCount", FieldKind::Scalar, offsetof(MGP, mergedIndicesCount), 0, &red::ppa::kUInt32Type},
  {"verticesMappingCount", FieldKind::Scalar, offsetof(MGP, verticesMappingCount), 0, &red::ppa::kUInt32Type},
  {"indicesMappingCount", FieldKind::Scalar, offsetof(MGP, indicesMappingCount), 0, &red::ppa::kUInt32Type},
  {"collisionModelCount", FieldKind::Scalar, offsetof(MGP, collisionModelCount), 0, &red::ppa::kUInt32Type},
  {"verticesMapping", FieldKind::Array, offsetof(MGP, verticesMapping), offsetof(MGP, verticesMappingCount),
   &kMappingPrototypeType},
  {"indicesMapping", FieldKind::Array, offsetof(MGP, indicesMapping), offsetof(MGP, indicesMappingCount),
   &kMappingPrototypeType},
  {"mergedVertices", FieldKind::Array, offsetof(MGP, mergedVertices), offsetof(MGP, mergedVerticesCount),
   &kMergedVerticesPrototypeType},
  {"mergedIndices", FieldKind::Array, offsetof(MGP, mergedIndices), offsetof(MGP, mergedIndicesCount),
   &kMergedIndicesPrototypeType},
  {"collisionModels", FieldKind::Array, offsetof(MGP, collisionModels), offsetof(MGP, collisionModelCount),
   &kCollisionModelDataPrototypeType},
  {"armorModels", FieldKind::Array, offsetof(MGP, armorModels), offsetof(MGP, armorModelCount),
   &kArmorDataPrototypeType},
};
} // namespace prototype_detail

inline constexpr red::ppa::TypeDescription kMergedGeometryPrototypeType{
  "Moo::MergedGeometryPrototype", sizeof(MergedGeometryPrototype), prototype_detail::kMergedGeometryFields};

static_assert(red::ppa::isWellFormed(kMappingPrototypeType));
static_assert(red::ppa::isWellFormed(kMergedVerticesPrototypeType));
static_assert(red::ppa::isWellFormed(kMergedIndicesPrototypeType));
static_assert(red::ppa::isWellFormed(kCollisionModelDataPrototypeType));
static_assert(red::ppa::isWellFormed(kArmorDataPrototypeType));
static_assert(red::ppa::isWellFormed(kMergedGeometryPrototypeType));

// ---- Packing -----------------------------------------------------------------------------------

// The texel density as stored in MappingPrototype::packedTexelDensity: an IEEE 754 half float made
// by truncation, never rounding (1.0 -> 0x3C00, 0.1 -> 0x2E66, 1.000732421875 -> 0x3C00, above
// 65504 -> 0x7C00). It is Moo::floatToHalf.
uint16_t packedTexelDensity(float density);

// Packs a filled prototype into one block of exactly its packed size (allocation tag "Geometry"):
// the whole content of a .geometry file. The prototype's arrays must hold `count` elements each.
// Returns null after logging at error level (category "Other") with the archive's traceback when
// a count is refused or the block cannot be filled, and null when the block cannot be allocated.
[[nodiscard]] BinaryPtr packMergedGeometry(const MergedGeometryPrototype& prototype);

} // namespace Moo
