#include "red/ppa.hpp"

#include "cstdmf/debug.hpp"

#include <cstdio>
#include <cstring>

namespace red::ppa
{
namespace
{

// Records inside the trees and the packed block are not aligned: every field is read and written
// with memcpy.
int32_t readCount(const std::byte* record, const FieldDescription& field)
{
  int32_t count = 0;
  std::memcpy(&count, record + field.countOffset, sizeof(count));
  return count;
}

uintptr_t readPointer(const std::byte* record, const FieldDescription& field)
{
  uintptr_t pointer = 0;
  std::memcpy(&pointer, record + field.offset, sizeof(pointer));
  return pointer;
}

void writePointer(std::byte* record, const FieldDescription& field, uintptr_t value)
{
  std::memcpy(record + field.offset, &value, sizeof(value));
}

void writeOffset(std::byte* record, const FieldDescription& field, uint64_t value)
{
  std::memcpy(record + field.offset, &value, sizeof(value));
}

const std::byte* toAddress(uintptr_t pointer)
{
  return reinterpret_cast<const std::byte*>(pointer);
}

// Addresses inside the packed copy, which the walks own and rewrite.
std::byte* toMutableAddress(uintptr_t pointer)
{
  return reinterpret_cast<std::byte*>(pointer);
}

uintptr_t toInteger(const void* address)
{
  return reinterpret_cast<uintptr_t>(address);
}

// Raw data arrays have no fields of their own; skipping their per-element walk keeps packing a
// large vertex buffer one memcpy.
bool hasNestedArrays(const TypeDescription& type)
{
  for (const FieldDescription& field : type.fields)
  {
    if (field.kind != FieldKind::Scalar)
      return true;
  }
  return false;
}

void fail(Traceback& traceback, const char* error)
{
  if (traceback.error == nullptr)
    traceback.error = error;
}

void addFrame(Traceback& traceback, const TypeDescription& type, const FieldDescription& field, int32_t index)
{
  if (traceback.frameCount < kMaxTracebackFrames)
    traceback.frames[traceback.frameCount++] = TracebackFrame{type.name, field.name, index};
}

// ---- Size walk -------------------------------------------------------------------------------

void sizeRecord(const TypeDescription& type, const std::byte* record, uint64_t& total, Traceback& traceback)
{
  for (const FieldDescription& field : type.fields)
  {
    if (field.kind == FieldKind::Scalar)
      continue;
    if (field.kind == FieldKind::Record)
    {
      sizeRecord(*field.type, record + field.offset, total, traceback);
      if (traceback.failed())
      {
        addFrame(traceback, type, field, -1);
        return;
      }
      continue;
    }

    const int32_t count = readCount(record, field);
    const uintptr_t pointer = readPointer(record, field);
    if (count < 0 || (count == 0 && pointer != 0))
    {
      fail(traceback, kErrorBadCount);
      addFrame(traceback, type, field, -1);
      return;
    }
    if (count == 0)
      continue;

    const TypeDescription& element = *field.type;
    total += static_cast<uint64_t>(count) * element.size;
    if (!hasNestedArrays(element))
      continue;
    for (int32_t i = 0; i < count; ++i)
    {
      sizeRecord(element, toAddress(pointer) + static_cast<size_t>(i) * element.size, total, traceback);
      if (traceback.failed())
      {
        addFrame(traceback, type, field, i);
        return;
      }
    }
  }
}

// ---- Pack walk -------------------------------------------------------------------------------

struct PackContext
{
  Traceback& traceback;
  std::byte* end;    // end of the destination block
  std::byte* cursor; // where the next array goes
};

void packRecord(PackContext& context, const TypeDescription& type, const std::byte* source, std::byte* destination)
{
  Traceback& traceback = context.traceback;
  for (const FieldDescription& field : type.fields)
  {
    if (field.kind == FieldKind::Scalar)
      continue;
    if (field.kind == FieldKind::Record)
    {
      packRecord(context, *field.type, source + field.offset, destination + field.offset);
      if (traceback.failed())
      {
        addFrame(traceback, type, field, -1);
        return;
      }
      continue;
    }

    const int32_t count = readCount(source, field);
    const uintptr_t pointer = readPointer(source, field);
    if (count == 0 && pointer == 0)
    {
      writePointer(destination, field, 0);
      continue;
    }
    if (count <= 0)
    {
      fail(traceback, kErrorBadCount);
      addFrame(traceback, type, field, -1);
      return;
    }

    const TypeDescription& element = *field.type;
    const uint64_t bytes = static_cast<uint64_t>(count) * element.size;
    if (bytes > static_cast<uint64_t>(context.end - context.cursor))
    {
      writePointer(destination, field, 0);
      fail(traceback, kErrorOutOfSpace);
      addFrame(traceback, type, field, -1);
      return;
    }
    std::byte* copy = context.cursor;
    context.cursor += bytes;
    std::memcpy(copy, toAddress(pointer), static_cast<size_t>(bytes));
    writePointer(destination, field, toInteger(copy));
    if (!hasNestedArrays(element))
      continue;
    for (int32_t i = 0; i < count; ++i)
    {
      const size_t elementOffset = static_cast<size_t>(i) * element.size;
      packRecord(context, element, toAddress(pointer) + elementOffset, copy + elementOffset);
      if (traceback.failed())
      {
        addFrame(traceback, type, field, i);
        return;
      }
    }
  }
}

// ---- Relocation walk ---------------------------------------------------------------------------

void relocateRecord(const TypeDescription& type, std::byte* record, uintptr_t usedEnd, Traceback& traceback)
{
  for (const FieldDescription& field : type.fields)
  {
    if (field.kind == FieldKind::Scalar)
      continue;
    if (field.kind == FieldKind::Record)
    {
      relocateRecord(*field.type, record + field.offset, usedEnd, traceback);
      if (traceback.failed())
      {
        addFrame(traceback, type, field, -1);
        return;
      }
      continue;
    }

    const int32_t count = readCount(record, field);
    const uintptr_t pointer = readPointer(record, field);
    if (count >= 1 && pointer == 0)
    {
      fail(traceback, kErrorNullArray);
      addFrame(traceback, type, field, -1);
      return;
    }
    if (count == 0 && pointer != 0)
    {
      fail(traceback, kErrorZeroCount);
      addFrame(traceback, type, field, -1);
      return;
    }
    if (count < 1)
      continue; // empty, or negative: the earlier walks refuse negative counts

    // The elements are relocated first, while this pointer still addresses them.
    const TypeDescription& element = *field.type;
    if (hasNestedArrays(element))
    {
      std::byte* elements = toMutableAddress(pointer);
      for (int32_t i = 0; i < count; ++i)
      {
        relocateRecord(element, elements + static_cast<size_t>(i) * element.size, usedEnd, traceback);
        if (traceback.failed())
        {
          addFrame(traceback, type, field, i);
          return;
        }
      }
    }

    if (pointer > usedEnd)
    {
      fail(traceback, kErrorOutOfBounds);
      addFrame(traceback, type, field, -1);
      return;
    }
    const uintptr_t base = toInteger(record);
    if (pointer < base)
    {
      fail(traceback, kErrorBehindBase);
      addFrame(traceback, type, field, -1);
      return;
    }
    writeOffset(record, field, static_cast<uint64_t>(pointer - base));
  }
}

// Appends printf-style text, keeping at most capacity - 1 characters in all.
template <typename... Args>
void appendText(char* text, size_t capacity, size_t& length, const char* format, Args... args)
{
  if (length + 1 >= capacity)
    return;
  const int written = std::snprintf(text + length, capacity - length, format, args...);
  if (written < 0)
    return;
  const size_t room = capacity - length - 1;
  length += static_cast<size_t>(written) < room ? static_cast<size_t>(written) : room;
}

} // namespace

size_t computeSize(const TypeDescription& type, const void* root, Traceback& traceback)
{
  uint64_t total = type.size;
  sizeRecord(type, static_cast<const std::byte*>(root), total, traceback);
  if (traceback.failed())
    return 0;
  return static_cast<size_t>(total);
}

size_t pack(const TypeDescription& type, const void* root, void* destination, size_t capacity, char* tracebackText,
            size_t tracebackCapacity)
{
  Traceback traceback;
  auto* block = static_cast<std::byte*>(destination);
  if (capacity < type.size)
  {
    fail(traceback, kErrorOutOfSpace);
  }
  else
  {
    std::memcpy(block, root, type.size);
    PackContext context{traceback, block + capacity, block + type.size};
    packRecord(context, type, static_cast<const std::byte*>(root), block);
    if (!traceback.failed() && relocate(type, block, context.cursor, traceback))
      return static_cast<size_t>(context.cursor - block);
  }
  formatTraceback(traceback, tracebackText, tracebackCapacity);
  return 0;
}

bool relocate(const TypeDescription& type, void* root, const void* usedEnd, Traceback& traceback)
{
  relocateRecord(type, static_cast<std::byte*>(root), toInteger(usedEnd), traceback);
  return !traceback.failed();
}

size_t formatTraceback(const Traceback& traceback, char* text, size_t capacity)
{
  if (capacity == 0)
    return 0;
  ZR_ASSERT(text != nullptr);
  text[0] = '\0';
  size_t length = 0;
  appendText(text, capacity, length, "%s\n", traceback.error ? traceback.error : "");
  for (size_t i = 0; i < traceback.frameCount; ++i)
  {
    const TracebackFrame& frame = traceback.frames[i];
    if (frame.index >= 0)
      appendText(text, capacity, length, "\t-> %s::%s[%d]\n", frame.typeName, frame.fieldName, frame.index);
    else
      appendText(text, capacity, length, "\t-> %s::%s\n", frame.typeName, frame.fieldName);
  }
  return length;
}

} // namespace red::ppa
