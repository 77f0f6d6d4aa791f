#include "kora/Core/Tensor.h"

#include <cstring>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "kora/Core/Trap.h"
#include "kora/Support/StridedWalk.h"

namespace kora {

namespace {

void checkRank(unsigned long rank) {
  if (rank > kMaxRank) throw std::length_error(fmt::format("tensor rank {} exceeds {}", rank, kMaxRank));
}

// Serialized form: header words, then the elements compactly.
constexpr uint64_t kSerializedMagic = 64222;  // 0xFADE

}  // namespace

std::vector<long> getStrides(ArrayRef<long> shape, long elementBytes) {
  std::vector<long> strides(shape.size());
  long running = elementBytes;
  for (long i = long(shape.size()) - 1; i >= 0; --i) {
    strides[i] = running;
    running *= shape[i];
  }
  return strides;
}

std::vector<long> getCoord(long index, ArrayRef<long> shape, ArrayRef<long> strides) {
  std::vector<long> coord(shape.size());
  for (unsigned long i = 0; i < shape.size(); ++i) {
    coord[i] = strides[i] == 0 ? 0 : index / strides[i];
    index -= coord[i] * strides[i];
  }
  return coord;
}

TensorType::TensorType(ElementType type, ArrayRef<long> dims)
    : rank(dims.size()), elementType(static_cast<uint32_t>(type)) {
  checkRank(rank);
  for (unsigned long i = 0; i < rank; ++i) shape[i] = dims[i];
}

bool TensorType::operator==(const TensorType& other) const {
  return elementType == other.elementType && dims().equals(other.dims());
}

Tensor::Tensor(const long* shape, unsigned long rank, const long* strides, ElementType type, long offset,
               std::shared_ptr<Storage> storage)
    : rank_(rank), elementType_(static_cast<uint32_t>(type)), offset_(offset), storage_(std::move(storage)) {
  checkRank(rank);
  for (unsigned long i = 0; i < rank; ++i) {
    shape_[i] = shape[i];
    strides_[i] = strides[i];
  }
}

Tensor::Tensor(ArrayRef<long> shape, ArrayRef<long> strides, ElementType type, long offset,
               std::shared_ptr<Storage> storage)
    : Tensor(shape.data(), shape.size(), strides.data(), type, offset, std::move(storage)) {
  if (strides.size() != shape.size()) throw std::invalid_argument("tensor shape and strides differ in length");
}

Tensor::Tensor(ElementType type, ArrayRef<long> shape) : elementType_(static_cast<uint32_t>(type)) {
  setShape(shape);
}

Tensor Tensor::create(ElementType type, ArrayRef<long> shape) {
  Tensor t(type, shape);
  t.allocate();
  return t;
}

void Tensor::setElementType(ElementType type) {
  elementType_ = static_cast<uint32_t>(type);
  if (!storage_) setShape(shape());
}

void Tensor::setShape(ArrayRef<long> shape) {
  checkRank(shape.size());
  long dims[kMaxRank];  // `shape` may view this tensor's own slots
  for (unsigned long i = 0; i < shape.size(); ++i) dims[i] = shape[i];
  rank_ = shape.size();
  long width = elementType() == ElementType::invalid ? 1 : long(byteWidth(elementType()));
  long running = width;
  for (unsigned long i = kMaxRank; i-- > 0;) {
    shape_[i] = i < rank_ ? dims[i] : 0;
    strides_[i] = i < rank_ ? running : 0;
    if (i < rank_) running *= dims[i];
  }
}

void Tensor::allocate() {
  setShape(shape());
  long count = isEmpty() ? 0 : numElements();
  storage_ = Storage::createUninit(static_cast<unsigned long>(count) * byteWidth(elementType()));
  offset_ = 0;
}

bool Tensor::isEmpty() const {
  for (unsigned long i = 0; i < rank_; ++i)
    if (shape_[i] < 1) return true;
  return false;
}

long Tensor::numElements() const {
  long n = 1;
  for (unsigned long i = 0; i < rank_; ++i) n *= shape_[i] < 0 ? 0 : shape_[i];
  return n;
}

unsigned long Tensor::byteSpan() const {
  if (isEmpty()) return 0;
  long span = long(byteWidth(elementType()));
  for (unsigned long i = 0; i < rank_; ++i) span += (shape_[i] - 1) * strides_[i];
  return static_cast<unsigned long>(span);
}

bool Tensor::isContiguous(long dim) const {
  if (dim < 0) dim += long(rank_);
  long expected = long(byteWidth(elementType()));
  for (long i = long(rank_) - 1; i >= dim && i >= 0; --i) {
    if (shape_[i] == 1) continue;
    if (strides_[i] != expected) return false;
    expected *= shape_[i];
  }
  return true;
}

Tensor Tensor::view(ElementType type) const {
  Tensor t = *this;
  t.elementType_ = static_cast<uint32_t>(type);
  return t;
}

Tensor Tensor::contiguous() const {
  if (!isValid() || isEmpty() || rank_ == 0 || isContiguous(0)) return *this;
  Tensor t = create(elementType(), shape());
  copyElements(t, *this);
  return t;
}

Tensor Tensor::permute(ArrayRef<long> order) const {
  if (order.size() != rank_) throw std::invalid_argument("permute order must list every axis once");
  Tensor t = *this;
  bool seen[kMaxRank] = {};
  for (unsigned long i = 0; i < rank_; ++i) {
    long axis = order[i];
    if (axis < 0 || axis >= long(rank_) || seen[axis])
      throw std::invalid_argument("permute order must list every axis once");
    seen[axis] = true;
    t.shape_[i] = shape_[axis];
    t.strides_[i] = strides_[axis];
  }
  return t;
}

Tensor Tensor::slice(long dim, long start, long stop, long step) const {
  if (dim < 0) dim += long(rank_);
  if (dim < 0 || dim >= long(rank_) || step < 1 || start < 0 || stop > shape_[dim])
    throw std::out_of_range("slice outside the tensor");
  Tensor t = *this;
  t.offset_ += start * strides_[dim];
  t.shape_[dim] = stop > start ? (stop - start + step - 1) / step : 0;
  t.strides_[dim] = strides_[dim] * step;
  return t;
}

char* Tensor::elementPointer(ArrayRef<long> coord) const {
  long byte = offset_;
  for (unsigned long i = 0; i < rank_ && i < coord.size(); ++i) byte += coord[i] * strides_[i];
  return storage_->data() + byte;
}

void copyElements(const Tensor& dst, const Tensor& src) {
  const unsigned long width = byteWidth(dst.elementType());
  auto walk = StridedWalk<2>::over(dst, src);
  walk.forEachChunk([width](char* const* p, const long* s, long n) {
    if (s[0] == long(width) && s[1] == long(width)) {
      std::memmove(p[0], p[1], static_cast<size_t>(n) * width);
      return;
    }
    for (long i = 0; i < n; ++i) std::memcpy(p[0] + i * s[0], p[1] + i * s[1], width);
  });
}

SerializedTensor Tensor::serialize() const {
  const unsigned long header = (rank_ + 3) * 8;
  const unsigned long data = isValid() ? static_cast<unsigned long>(numElements()) * byteWidth(elementType()) : 0;
  SerializedTensor out;
  out.size = header + data;
  out.bytes.reset(new char[out.size]);
  uint64_t words[3 + kMaxRank] = {kSerializedMagic, static_cast<uint32_t>(elementType()), rank_};
  for (unsigned long i = 0; i < rank_; ++i) words[3 + i] = static_cast<uint64_t>(shape_[i]);
  std::memcpy(out.bytes.get(), words, header);
  if (data != 0) {
    // Writing through a compact tensor over the data area copies any layout,
    // broadcast views included, into row-major order.
    Tensor compact(shape().data(), rank_, getStrides(shape(), long(byteWidth(elementType()))).data(),
                   elementType(), 0, Storage::createExternal(MutableArrayRef<char>(out.bytes.get() + header, data)));
    copyElements(compact, *this);
  }
  return out;
}

Tensor Tensor::deserialize(ArrayRef<char> bytes, bool copy) {
  uint64_t magic = 0, typeWord = 0, rank = 0;
  if (bytes.size() >= 24) {
    std::memcpy(&magic, bytes.data(), 8);
    std::memcpy(&typeWord, bytes.data() + 8, 8);
    std::memcpy(&rank, bytes.data() + 16, 8);
  }
  // A buffer too short for its own header cannot be read without running
  // past its end, so it counts as not being a tensor at all.
  if (magic != kSerializedMagic || rank > kMaxRank || bytes.size() < (rank + 3) * 8)
    trapAt("lib/Core/Tensor", 146, "given data is not a tensor");
  long shape[kMaxRank] = {};
  std::memcpy(shape, bytes.data() + 24, rank * 8);
  const unsigned long header = (rank + 3) * 8;
  const ElementType type = static_cast<ElementType>(static_cast<uint32_t>(typeWord));
  const std::vector<long> strides = getStrides({shape, rank}, long(byteWidth(type)));
  const unsigned long dataBytes = bytes.size() - header;
  std::shared_ptr<Storage> storage;
  if (copy) {
    storage = Storage::createUninit(dataBytes);
    if (dataBytes) std::memcpy(storage->data(), bytes.data() + header, dataBytes);
  } else {
    storage = Storage::createExternal(ArrayRef<char>(bytes.data() + header, dataBytes));
  }
  return Tensor(shape, rank, strides.data(), type, 0, std::move(storage));
}

namespace {
void joinDims(std::ostream& os, ArrayRef<long> values) {
  for (unsigned long i = 0; i < values.size(); ++i) os << (i ? "x" : "") << values[i];
}
}  // namespace

std::ostream& operator<<(std::ostream& os, const Tensor& tensor) {
  os << "Tensor<" << elementTypeName(tensor.elementType());
  if (tensor.rank() > 0) {
    os << ",";
    joinDims(os, tensor.shape());
    os << ",";
    joinDims(os, tensor.strides());
  }
  return os << ">";
}

std::ostream& operator<<(std::ostream& os, const TensorType& type) {
  os << "TensorType<" << elementTypeName(type.type());
  if (type.rank > 0) {
    os << ",";
    joinDims(os, type.dims());
  }
  return os << ">";
}

std::string toString(const Tensor& tensor) {
  std::ostringstream os;
  os << tensor;
  return os.str();
}

std::string toString(const TensorType& type) {
  std::ostringstream os;
  os << type;
  return os.str();
}

}  // namespace kora
