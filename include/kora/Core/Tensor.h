#pragma once
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/ElementType.h"
#include "kora/Core/Export.h"
#include "kora/Core/Storage.h"

namespace kora {

/// The largest rank a tensor can have.
inline constexpr unsigned long kMaxRank = 11;

/// Compact row-major strides of `shape` in units of `elementBytes` (pass 1
/// for strides in elements): the last is elementBytes, each other the product
/// of elementBytes and all later sizes. An empty shape gives an empty vector.
KORA_API std::vector<long> getStrides(ArrayRef<long> shape, long elementBytes);

/// Splits a linear index into one coordinate per entry of `shape`: walking
/// the dimensions in order, the coordinate is index / stride (0 for a stride
/// of 0) and index is reduced by coordinate * stride. With element strides it
/// turns an element number into its coordinate.
KORA_API std::vector<long> getCoord(long index, ArrayRef<long> shape, ArrayRef<long> strides);

/// The type of a tensor without its data: element type and shape.
struct KORA_API TensorType {
  unsigned long rank = 0;
  long shape[kMaxRank] = {};
  uint64_t elementType = static_cast<uint32_t>(ElementType::invalid);

  TensorType() = default;
  TensorType(ElementType type, ArrayRef<long> shape);
  ElementType type() const { return static_cast<ElementType>(elementType); }
  ArrayRef<long> dims() const { return {shape, rank}; }
  bool operator==(const TensorType& other) const;
};

/// The buffer made by `Tensor::serialize`: owned bytes and their length.
struct SerializedTensor {
  std::unique_ptr<char[]> bytes;
  unsigned long size = 0;
  ArrayRef<char> view() const { return {bytes.get(), size}; }
};

/// A shaped, strided view of part of a shared Storage.
///
/// Copying a Tensor is cheap and shares the buffer: a tensor, its slices,
/// permutations and retyped views may all alias one Storage, and writes
/// through one are seen by all (there is no copy-on-write). Strides are in
/// BYTES and may be zero (broadcast views) or in any order. The element at
/// coordinate c lives at storage.data + offset + sum(c[i] * strides[i]).
///
/// A tensor is *valid* when it has storage and a valid element type; a
/// tensor without storage stands for an absent optional operand, or for an
/// output whose type and shape a Config function is about to fill.
///
/// The data members are laid out as hosts expect them: rank, 11 sizes,
/// 11 byte strides, the element type in 64 bits, the byte offset and the
/// shared storage pointer.
class KORA_API Tensor {
 public:
  /// A tensor that holds nothing (invalid type, no storage).
  Tensor() = default;
  /// Copies `rank` sizes and strides into the inline slots and takes over the
  /// shared storage. A rank above 11 traps.
  Tensor(const long* shape, unsigned long rank, const long* strides, ElementType type, long offset,
         std::shared_ptr<Storage> storage);
  Tensor(ArrayRef<long> shape, ArrayRef<long> strides, ElementType type, long offset,
         std::shared_ptr<Storage> storage);
  /// A tensor of this type and shape with compact strides and no storage: an
  /// output waiting for `allocate()`.
  Tensor(ElementType type, ArrayRef<long> shape);

  /// A compact tensor with new owning, uninitialised storage.
  static Tensor create(ElementType type, ArrayRef<long> shape);

  unsigned long rank() const { return rank_; }
  ArrayRef<long> shape() const { return {shape_, rank_}; }
  ArrayRef<long> strides() const { return {strides_, rank_}; }
  /// Size of dimension `dim`; a negative dim counts from the end.
  long dim(long dim) const { return shape_[dim < 0 ? dim + long(rank_) : dim]; }
  long stride(long dim) const { return strides_[dim < 0 ? dim + long(rank_) : dim]; }
  ElementType elementType() const { return static_cast<ElementType>(elementType_); }
  long offset() const { return offset_; }
  const std::shared_ptr<Storage>& storage() const { return storage_; }
  TensorType type() const { return TensorType(elementType(), shape()); }

  /// Sets the element type; a tensor without storage also gets compact strides.
  void setElementType(ElementType type);
  /// Sets the shape and compact strides (what a Config function does).
  void setShape(ArrayRef<long> shape);
  /// Gives the tensor new owning storage for its type and shape, with compact
  /// strides and offset 0.
  void allocate();

  bool isValid() const { return storage_ != nullptr && elementType() != ElementType::invalid; }
  /// True when any size is below 1.
  bool isEmpty() const;
  long numElements() const;
  /// Bytes from the first to one past the last element addressed:
  /// width + sum((shape[i] - 1) * strides[i]); 0 for an empty tensor.
  unsigned long byteSpan() const;
  bool sameShape(const Tensor& other) const { return shape().equals(other.shape()); }

  /// Whether dimensions dim .. rank-1 are compact (size-1 dimensions are
  /// ignored). A negative dim counts from the end; a dim past the last
  /// dimension, or rank 0, is compact.
  bool isContiguous(long dim = 0) const;

  /// The same view reinterpreted as another element type.
  Tensor view(ElementType type) const;
  /// A compact copy when this tensor is valid, non-empty, of rank >= 1 and not
  /// contiguous; otherwise a copy of this tensor sharing its storage.
  Tensor contiguous() const;
  /// A compact copy converted element by element to `type` (see Cast.h for
  /// the rule of each pair); the same type gives a copy sharing storage.
  Tensor cast(ElementType type, bool saturate = false) const;

  /// View of the axes reordered: result axis i is this tensor's axis order[i].
  Tensor permute(ArrayRef<long> order) const;
  /// View of elements start, start + step, ... below stop along `dim`.
  Tensor slice(long dim, long start, long stop, long step = 1) const;

  /// (storage.data + offset, span in elements); (null, 0) when invalid and a
  /// count of 0 when empty. Non-contiguous tensors are indexed with strides.
  template <class T>
  MutableArrayRef<T> data() const {
    if (!isValid()) return {};
    return {reinterpret_cast<T*>(storage_->data() + offset_), byteSpan() / byteWidth(elementType())};
  }
  /// Address of the element at `coord` (one entry per dimension).
  char* elementPointer(ArrayRef<long> coord) const;
  template <class T>
  T& at(ArrayRef<long> coord) const {
    return *reinterpret_cast<T*>(elementPointer(coord));
  }

  /// The self-describing buffer: header words (magic 0xFADE, element type,
  /// rank, sizes) then the elements compactly in row-major order.
  SerializedTensor serialize() const;
  /// Reads a serialized tensor; `copy` false makes the tensor view `bytes`,
  /// which must then outlive it. A wrong magic number traps.
  static Tensor deserialize(ArrayRef<char> bytes, bool copy);

 private:
  unsigned long rank_ = 0;
  long shape_[kMaxRank] = {};
  long strides_[kMaxRank] = {};
  uint64_t elementType_ = static_cast<uint32_t>(ElementType::invalid);
  long offset_ = 0;
  std::shared_ptr<Storage> storage_;
};

/// Copies the elements of `src` into `dst` through both tensors' strides,
/// byte for byte. Both must have the same shape and element width (the types
/// may differ, as with a retyped view); broadcast (stride-0) sources are fine.
KORA_API void copyElements(const Tensor& dst, const Tensor& src);

/// Converts the elements of `src` into `dst` (same shape, any strides,
/// broadcast sources allowed) by the rule of Tensor::cast for their pair of
/// types; equal types copy. Writes into existing storage, allocates nothing.
KORA_API void castElements(const Tensor& dst, const Tensor& src, bool saturate = false);

/// Tensor<si8,1x3x4,12x4x1>; rank 0: Tensor<f32>. Values are never printed.
KORA_API std::ostream& operator<<(std::ostream& os, const Tensor& tensor);
/// TensorType<f16,2x8>.
KORA_API std::ostream& operator<<(std::ostream& os, const TensorType& type);
KORA_API std::string toString(const Tensor& tensor);
KORA_API std::string toString(const TensorType& type);

}  // namespace kora

template <>
struct fmt::formatter<kora::Tensor> : fmt::formatter<std::string_view> {
  template <class Ctx>
  auto format(const kora::Tensor& t, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(kora::toString(t), ctx);
  }
};
template <>
struct fmt::formatter<kora::TensorType> : fmt::formatter<std::string_view> {
  template <class Ctx>
  auto format(const kora::TensorType& t, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(kora::toString(t), ctx);
  }
};
