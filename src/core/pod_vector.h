// Internal: a growable array of trivially copyable elements.
#ifndef ZELSOCKET_SRC_CORE_POD_VECTOR_H
#define ZELSOCKET_SRC_CORE_POD_VECTOR_H

#include <cstddef>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

namespace zelsocket {

// What std::vector cannot do: grow with realloc.  A large array then moves by
// having its pages remapped instead of copied into fresh pages that each fault
// on first touch, which made a round of 100,000 armings that doubled a timer
// heap cost two to four times a round that did not.  Only what the timer heap
// uses.
template <typename T>
class PodVector {
  static_assert(std::is_trivially_copyable<T>::value, "elements are moved with realloc");

 public:
  PodVector() = default;
  ~PodVector() { std::free(m_data); }
  PodVector(const PodVector&) = delete;
  PodVector& operator=(const PodVector&) = delete;

  void swap(PodVector& other) noexcept {
    std::swap(m_data, other.m_data);
    std::swap(m_size, other.m_size);
    std::swap(m_capacity, other.m_capacity);
  }

  std::size_t size() const { return m_size; }
  std::size_t capacity() const { return m_capacity; }
  T* begin() { return m_data; }
  T* end() { return m_data + m_size; }
  T& operator[](std::size_t i) { return m_data[i]; }
  T& front() { return m_data[0]; }
  T& back() { return m_data[m_size - 1]; }

  void push_back(const T& value) {
    if (m_size == m_capacity) _Grow(m_size + 1);
    m_data[m_size++] = value;
  }
  void pop_back() { --m_size; }
  void clear() { m_size = 0; }
  void reserve(std::size_t capacity) {
    if (capacity > m_capacity) _Grow(capacity);
  }

 private:
  void _Grow(std::size_t atLeast) {
    std::size_t capacity = m_capacity ? 2 * m_capacity : 64;
    if (capacity < atLeast) capacity = atLeast;
    void* data = std::realloc(m_data, capacity * sizeof(T));
    if (!data) throw std::bad_alloc();
    m_data = static_cast<T*>(data);
    m_capacity = capacity;
  }

  T* m_data = nullptr;
  std::size_t m_size = 0;
  std::size_t m_capacity = 0;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CORE_POD_VECTOR_H
