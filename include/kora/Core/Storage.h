#pragma once
#include <cstdint>
#include <memory>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/Export.h"

namespace kora {

/// Where a buffer lives. Only Host (0) is created by the library; other
/// values are carried for hosts and only decide whether the buffer is freed.
enum class DeviceType : uint32_t { Host = 0 };

/// A byte buffer, always held through a shared pointer (atomically counted).
/// Buffers made by `createUninit` are owned and 64-byte aligned; external
/// buffers wrap memory the caller owns and keeps alive.
class KORA_API Storage {
 public:
  /// A new owning buffer of `size` bytes: the allocation is 64-byte aligned
  /// and rounded up to a multiple of 64; size 0 gives a null data pointer.
  /// Contents are uninitialised. `alignment` is recorded only.
  static std::shared_ptr<Storage> createUninit(unsigned long size, DeviceType device = DeviceType::Host,
                                               unsigned long alignment = 0);
  /// Wraps caller-owned memory; nothing is copied and nothing is freed.
  static std::shared_ptr<Storage> createExternal(ArrayRef<char> bytes, DeviceType device = DeviceType::Host,
                                                 unsigned long alignment = 0);
  static std::shared_ptr<Storage> createExternal(MutableArrayRef<char> bytes,
                                                 DeviceType device = DeviceType::Host,
                                                 unsigned long alignment = 0);

  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;
  /// Frees the buffer only when it owns it and it lives on the host.
  ~Storage();

  char* data() const { return data_; }
  unsigned long size() const { return size_; }
  DeviceType deviceType() const { return deviceType_; }
  unsigned long alignment() const { return alignment_; }
  bool initializedByCreator() const { return initializedByCreator_; }
  bool ownsData() const { return ownsData_; }

 private:
  Storage(char* data, unsigned long size, DeviceType device, unsigned long alignment, bool owned);

  char* data_;
  unsigned long size_;
  DeviceType deviceType_;
  unsigned long alignment_;
  bool initializedByCreator_;
  bool ownsData_;
};

}  // namespace kora
