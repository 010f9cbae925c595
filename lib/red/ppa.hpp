#pragma once
// The packed prototype archive: turns an in-memory tree of plain records (records holding arrays
// of further records, strings and raw bytes) into one contiguous, relocatable block.
//
// Each packable type is described by a table of its fields. The packed block starts with the root
// record; every array is placed at the cursor, byte-exact and unaligned, depth first in field order
// (the whole element array, then the arrays of element 0, then those of element 1, ...). In the
// block every array pointer holds the unsigned 64-bit offset of the array's first element from the
// first byte of the record that contains the pointer field; an empty array holds 0.

#include "red/types.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace red::ppa
{

enum class FieldKind : uint8_t
{
  Scalar, // copied as it is
  Record, // a nested record stored in place; walked for its own arrays
  Array,  // a 64-bit pointer at `offset` and a 32-bit count at `countOffset` of the same record
};

struct TypeDescription;

struct FieldDescription
{
  const char* name;
  FieldKind kind;
  size_t offset;
  size_t countOffset; // arrays only
  // Scalar: the scalar's type; Record: the nested record's type; Array: the element type.
  const TypeDescription* type;
};

struct TypeDescription
{
  const char* name; // readable type name, used in tracebacks
  size_t size;      // the record size, which is also the array stride
  std::span<const FieldDescription> fields;
};

// Scalar and raw-data types.
inline constexpr TypeDescription kCharType{"char", 1, {}};
inline constexpr TypeDescription kByteType{"std::byte", 1, {}};
inline constexpr TypeDescription kUInt16Type{"unsigned short", 2, {}};
inline constexpr TypeDescription kUInt32Type{"unsigned int", 4, {}};

inline constexpr FieldDescription kStringFields[] = {
  {"size", FieldKind::Scalar, offsetof(types::String, size), 0, &kUInt32Type},
  {"text", FieldKind::Array, offsetof(types::String, text), offsetof(types::String, size), &kCharType},
};
inline constexpr TypeDescription kStringType{"red::types::String", sizeof(types::String), kStringFields};

// True when every field lies inside its record, array pointers and counts have room for 8 and 4
// bytes, element types are not empty, and nested records are themselves well formed. Meant for
// static_assert on each description (a null field type fails to compile there). Field types are
// not compared with null here: under the sanitizers such a comparison is not a constant expression.
constexpr bool isWellFormed(const TypeDescription& type)
{
  if (type.size == 0)
    return false;
  for (const FieldDescription& field : type.fields)
  {
    switch (field.kind)
    {
    case FieldKind::Scalar:
      if (field.offset > type.size || type.size - field.offset < field.type->size)
        return false;
      break;
    case FieldKind::Record:
      if (field.offset > type.size || type.size - field.offset < field.type->size || !isWellFormed(*field.type))
        return false;
      break;
    case FieldKind::Array:
      if (field.offset > type.size || type.size - field.offset < 8)
        return false;
      if (field.countOffset > type.size || type.size - field.countOffset < 4)
        return false;
      if (field.type->size == 0)
        return false;
      break;
    }
  }
  return true;
}

static_assert(isWellFormed(kStringType));

// The error texts of the walks.
inline constexpr const char* kErrorBadCount = "Negative or zero count on non-zero array";
inline constexpr const char* kErrorOutOfSpace = "Out of space";
inline constexpr const char* kErrorNullArray = "Non-zero count for a null array";
inline constexpr const char* kErrorZeroCount = "Zero count for a non-null array";
inline constexpr const char* kErrorOutOfBounds = "Pointer is referencing outside of bounds";
inline constexpr const char* kErrorBehindBase = "Pointer is referencing behind the base";

inline constexpr size_t kMaxTracebackFrames = 128;
inline constexpr size_t kTracebackTextCapacity = 4096;

struct TracebackFrame
{
  const char* typeName;
  const char* fieldName;
  int32_t index; // element index, or -1 for the field itself
};

// The first error of a walk and where it happened, innermost frame first. Frames beyond
// kMaxTracebackFrames are dropped, so the innermost ones are kept.
struct Traceback
{
  const char* error = nullptr; // one of the kError texts; null while all is well
  std::array<TracebackFrame, kMaxTracebackFrames> frames{};
  size_t frameCount = 0;

  bool failed() const { return error != nullptr; }
};

// Size walk. Needs `root` to be a record of `type` whose non-null array pointers address at least
// `count` readable elements. Returns the packed size in bytes, or 0 with traceback.error set
// (kErrorBadCount) when a count is negative as a signed 32-bit value, or 0 while its pointer is
// not null.
[[nodiscard]] size_t computeSize(const TypeDescription& type, const void* root, Traceback& traceback);

// Pack walk followed by the relocation walk. Needs `root` as for computeSize and `destination`
// writable for `capacity` bytes. Returns the number of bytes used (non-zero) on success. On failure
// returns 0, leaves the destination's content unspecified, and writes the traceback text (see
// formatTraceback) into `tracebackText` when `tracebackCapacity` is not 0.
[[nodiscard]] size_t pack(const TypeDescription& type, const void* root, void* destination, size_t capacity,
                          char* tracebackText, size_t tracebackCapacity);

// Relocation walk over a packed copy whose array pointers still hold absolute addresses: turns each
// into its offset from the containing record. Needs every non-null pointer of a non-empty array to
// address `count` readable elements. `usedEnd` is the end of the used space. Returns false with
// traceback.error set on the first of: a non-empty array with a null pointer, an empty array with
// a non-null pointer, a pointer past `usedEnd`, a pointer before its containing record.
[[nodiscard]] bool relocate(const TypeDescription& type, void* root, const void* usedEnd, Traceback& traceback);

// Writes "<error>\n" and one "\t-> <type>::<field>[<index>]\n" (or "\t-> <type>::<field>\n" for
// index -1) per frame into `text`, at most capacity - 1 characters plus a terminating zero, cut
// silently. Returns the number of characters written (0 when capacity is 0).
size_t formatTraceback(const Traceback& traceback, char* text, size_t capacity);

} // namespace red::ppa
