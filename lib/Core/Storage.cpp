#include "kora/Core/Storage.h"

#include <cstdlib>
#include <new>

namespace kora {

Storage::Storage(char* data, unsigned long size, DeviceType device, unsigned long alignment, bool owned)
    : data_(data), size_(size), deviceType_(device), alignment_(alignment), initializedByCreator_(owned),
      ownsData_(owned) {}

std::shared_ptr<Storage> Storage::createUninit(unsigned long size, DeviceType device, unsigned long alignment) {
  char* data = nullptr;
  if (size != 0) {
    // 64-byte alignment and a length rounded up to 64 let kernels read whole
    // cache lines (and vectors) at the end of a buffer.
    unsigned long padded = (size + 63) / 64 * 64;
    data = static_cast<char*>(std::aligned_alloc(64, padded));
    if (!data) throw std::bad_alloc();
  }
  try {
    return std::shared_ptr<Storage>(new Storage(data, size, device, alignment, true));
  } catch (...) {
    std::free(data);
    throw;
  }
}

std::shared_ptr<Storage> Storage::createExternal(ArrayRef<char> bytes, DeviceType device, unsigned long alignment) {
  return std::shared_ptr<Storage>(
      new Storage(const_cast<char*>(bytes.data()), bytes.size(), device, alignment, false));
}

std::shared_ptr<Storage> Storage::createExternal(MutableArrayRef<char> bytes, DeviceType device,
                                                 unsigned long alignment) {
  return std::shared_ptr<Storage>(new Storage(bytes.data(), bytes.size(), device, alignment, false));
}

Storage::~Storage() {
  if (ownsData_ && deviceType_ == DeviceType::Host) std::free(data_);
}

}  // namespace kora
