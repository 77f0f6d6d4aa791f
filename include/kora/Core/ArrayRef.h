#pragma once
#include <array>
#include <cstddef>
#include <initializer_list>
#include <vector>

namespace kora {

/// A read-only, non-owning view of `count` elements starting at `data`.
///
/// Passed by value; it never owns or copies what it points at, so the viewed
/// elements must outlive every use of the view. Views made from a braced list
/// (`ArrayRef<long>{2, 3}`) are valid only until the end of the full
/// expression that creates them: pass them straight to a call, never store
/// them. Functions that keep a view's contents beyond a call copy them
/// (`vec()`).
template <class T>
class ArrayRef {
 public:
  using value_type = T;
  using iterator = const T*;

  constexpr ArrayRef() = default;
  constexpr ArrayRef(const T* data, unsigned long count) : data_(data), count_(count) {}
  ArrayRef(const std::vector<T>& v) : data_(v.data()), count_(v.size()) {}
  template <std::size_t N>
  constexpr ArrayRef(const std::array<T, N>& a) : data_(a.data()), count_(N) {}
  template <std::size_t N>
  constexpr ArrayRef(const T (&a)[N]) : data_(a), count_(N) {}
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winit-list-lifetime"
  // Deliberately views the list's array: valid until the end of the full
  // expression, which is all a call argument needs.
  constexpr ArrayRef(std::initializer_list<T> list)
      : data_(list.begin() == list.end() ? nullptr : list.begin()), count_(list.size()) {}
#pragma GCC diagnostic pop

  constexpr const T* data() const { return data_; }
  constexpr unsigned long size() const { return count_; }
  constexpr bool empty() const { return count_ == 0; }
  constexpr const T* begin() const { return data_; }
  constexpr const T* end() const { return data_ + count_; }
  constexpr const T& operator[](unsigned long i) const { return data_[i]; }
  constexpr const T& front() const { return data_[0]; }
  constexpr const T& back() const { return data_[count_ - 1]; }
  /// Elements [start, start + n).
  constexpr ArrayRef slice(unsigned long start, unsigned long n) const { return {data_ + start, n}; }
  /// An owning copy, for callers that keep the elements beyond the call.
  std::vector<T> vec() const { return std::vector<T>(begin(), end()); }

  bool equals(ArrayRef other) const {
    if (count_ != other.count_) return false;
    for (unsigned long i = 0; i < count_; ++i)
      if (!(data_[i] == other.data_[i])) return false;
    return true;
  }
  friend bool operator==(ArrayRef a, ArrayRef b) { return a.equals(b); }

 protected:
  const T* data_ = nullptr;
  unsigned long count_ = 0;
};

/// The writable counterpart of `ArrayRef`: same layout (pointer, count), same
/// lifetime rules; it never owns its elements.
template <class T>
class MutableArrayRef : public ArrayRef<T> {
 public:
  using iterator = T*;

  constexpr MutableArrayRef() = default;
  constexpr MutableArrayRef(T* data, unsigned long count) : ArrayRef<T>(data, count) {}
  MutableArrayRef(std::vector<T>& v) : ArrayRef<T>(v.data(), v.size()) {}
  template <std::size_t N>
  constexpr MutableArrayRef(std::array<T, N>& a) : ArrayRef<T>(a.data(), N) {}
  template <std::size_t N>
  constexpr MutableArrayRef(T (&a)[N]) : ArrayRef<T>(a, N) {}

  constexpr T* data() const { return const_cast<T*>(this->data_); }
  constexpr T* begin() const { return data(); }
  constexpr T* end() const { return data() + this->count_; }
  constexpr T& operator[](unsigned long i) const { return data()[i]; }
  constexpr MutableArrayRef slice(unsigned long start, unsigned long n) const { return {data() + start, n}; }
};

}  // namespace kora
