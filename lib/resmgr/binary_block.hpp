#pragma once
// Shared, reference-counted byte buffers: every file read and every packed result is one.

#include "cstdmf/smartpointer.hpp"

#include <cstddef>
#include <iosfwd>

// A byte buffer that either owns its bytes or borrows a range of an owner block, which it keeps
// alive. Once shared, a block never changes; sharing is by reference count only.
class BinaryBlock : public ReferenceCount
{
public:
  // Inflating a block never produces more than this many bytes unless the caller allows more.
  static constexpr size_t kDefaultMaxDecompressedLength = size_t(1) << 30;

  // Without an owner: allocates `length` bytes and copies them from `data` when it is non-null,
  // zero-fills them otherwise. When the allocation fails the failure is logged and the block is
  // left empty (len() == 0), so a caller that needs the bytes checks len().
  // With an owner: points at `data` inside the owner's bytes (no copy) and keeps the owner alive;
  // the range must lie inside the owner (asserted).
  // `allocationTag` names the purpose of the bytes; it must outlive the block (a literal).
  BinaryBlock(const void* data, size_t length, const char* allocationTag,
              ConstSmartPointer<BinaryBlock> owner = nullptr);
  // Reads `length` bytes from `stream` into a new owning block. When the allocation fails
  // ("BinaryBlock: Failed to alloc %Iu bytes (creating from stream)\n") or the stream ends early
  // (logged too) the block is left empty, so a caller checks len().
  BinaryBlock(std::istream& stream, size_t length, const char* allocationTag);
  ~BinaryBlock() override;

  // Makes the next allocation of a block's own bytes fail, once, so that tests can see what a
  // block does when memory runs out.
  static void failNextAllocationForTesting();

  BinaryBlock(const BinaryBlock&) = delete;
  BinaryBlock& operator=(const BinaryBlock&) = delete;

  // Never null, also for an empty block.
  const char* data() const { return m_data; }
  // Writable access, for a block that is being filled before it is shared.
  char* cdata() { return m_data; }
  size_t len() const { return m_length; }
  const char* allocationTag() const { return m_allocationTag; }
  ConstSmartPointer<BinaryBlock> owner() const { return m_owner; }

  // Whether the block may be stored compressed by an archive; true unless turned off.
  bool canZip() const { return m_canZip; }
  void canZip(bool value) { m_canZip = value; }

  // The whole block deflated into a new owning block (a zlib stream). Null, after logging, when
  // memory runs out or the block is too large for the compressor.
  [[nodiscard]] SmartPointer<BinaryBlock> compress(int level = -1) const;

  // The whole block inflated into a new owning block. The block must hold exactly one complete
  // zlib stream (no trailing bytes) that inflates to at most `maxLength` bytes; otherwise, or when
  // memory runs out, returns null after logging.
  [[nodiscard]] SmartPointer<BinaryBlock> decompress(size_t maxLength = kDefaultMaxDecompressedLength) const;

private:
  struct AdoptBytes
  {
  };
  // Takes ownership of `bytes`, allocated with std::malloc.
  BinaryBlock(AdoptBytes, char* bytes, size_t length, const char* allocationTag);

  bool ownsBytes() const;

  char* m_data;
  size_t m_length;
  ConstSmartPointer<BinaryBlock> m_owner;
  bool m_canZip = true;
  const char* m_allocationTag;
};

using BinaryPtr = SmartPointer<BinaryBlock>;
using ConstBinaryPtr = ConstSmartPointer<BinaryBlock>;
