#pragma once
// Intrusive reference counting for shared engine objects (byte blocks, data sections).

#include "cstdmf/debug.hpp"

#include <atomic>
#include <cstdint>
#include <utility>

// Base of every reference-counted object: the count lives in the object and is atomic; the
// object deletes itself when the count falls to zero.
class ReferenceCount
{
public:
  ReferenceCount() = default;
  ReferenceCount(const ReferenceCount&) : m_refCount(0) {}
  ReferenceCount& operator=(const ReferenceCount&) = delete;

  void incRef() const { m_refCount.fetch_add(1, std::memory_order_relaxed); }
  void decRef() const
  {
    if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
      delete this;
  }
  int32_t refCount() const { return m_refCount.load(std::memory_order_relaxed); }

protected:
  virtual ~ReferenceCount() { ZR_ASSERT(m_refCount.load() == 0); }

private:
  mutable std::atomic<int32_t> m_refCount{0};
};

template <typename T>
class ConstSmartPointer
{
public:
  ConstSmartPointer() = default;
  ConstSmartPointer(std::nullptr_t) {}
  ConstSmartPointer(const T* object) : m_object(object) { incRef(); }
  ConstSmartPointer(const ConstSmartPointer& other) : m_object(other.m_object) { incRef(); }
  ConstSmartPointer(ConstSmartPointer&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
  template <typename U>
  ConstSmartPointer(const ConstSmartPointer<U>& other) : m_object(other.get())
  {
    incRef();
  }
  ~ConstSmartPointer() { decRef(); }

  ConstSmartPointer& operator=(const ConstSmartPointer& other)
  {
    ConstSmartPointer copy(other);
    std::swap(m_object, copy.m_object);
    return *this;
  }
  ConstSmartPointer& operator=(ConstSmartPointer&& other) noexcept
  {
    ConstSmartPointer moved(std::move(other));
    std::swap(m_object, moved.m_object);
    return *this;
  }

  const T* get() const { return m_object; }
  const T* operator->() const { return m_object; }
  const T& operator*() const { return *m_object; }
  explicit operator bool() const { return m_object != nullptr; }
  bool operator==(const ConstSmartPointer& other) const { return m_object == other.m_object; }
  bool operator==(std::nullptr_t) const { return m_object == nullptr; }

protected:
  void incRef() const
  {
    if (m_object)
      m_object->incRef();
  }
  void decRef() const
  {
    if (m_object)
      m_object->decRef();
  }
  const T* m_object = nullptr;
};

template <typename T>
class SmartPointer : public ConstSmartPointer<T>
{
public:
  SmartPointer() = default;
  SmartPointer(std::nullptr_t) {}
  SmartPointer(T* object) : ConstSmartPointer<T>(object) {}
  template <typename U>
  SmartPointer(const SmartPointer<U>& other) : ConstSmartPointer<T>(other.get())
  {
  }

  T* get() const { return const_cast<T*>(this->m_object); }
  T* operator->() const { return get(); }
  T& operator*() const { return *get(); }
};
