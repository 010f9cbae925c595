#pragma once
// A byte vector whose growth does not clear the new bytes. Buffers that are about to be
// overwritten (converted vertices, encoder output) then cost no clearing pass, and the pages the
// writer never reaches (the unused tail of an encoder's worst case) are never touched at all.

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace cstdmf
{

// std::allocator, except that value-initialisation without arguments leaves the element as it is.
template <typename T>
class DefaultInitAllocator : public std::allocator<T>
{
public:
  using value_type = T;
  template <typename U>
  struct rebind
  {
    using other = DefaultInitAllocator<U>;
  };

  DefaultInitAllocator() noexcept = default;
  template <typename U>
  DefaultInitAllocator(const DefaultInitAllocator<U>&) noexcept
  {
  }

  template <typename U>
  void construct(U* p) noexcept(noexcept(::new (static_cast<void*>(p)) U))
  {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args)
  {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

template <typename T, typename U>
bool operator==(const DefaultInitAllocator<T>&, const DefaultInitAllocator<U>&) noexcept
{
  return true;
}

// resize() leaves new bytes unspecified: write them before reading.
using ByteVector = std::vector<std::byte, DefaultInitAllocator<std::byte>>;

} // namespace cstdmf
