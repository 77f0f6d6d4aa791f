// A host that knows only the published ABI: it loads the library with
// dlopen, checks the layout identifier and reads the kernel table as raw
// memory, without any of the library's headers.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

// The entry as the layout defines it: a vtable pointer, then the fields.
struct RawEntry {
  void* vtable;
  const char* name;
  uint64_t reserved;
  uint64_t outputKinds[5];
  uint64_t inputKinds[40];
  uint64_t libraryInfo[3];
  void* impl;
  void* config;
  uint64_t numOutputs;
  uint64_t numInputs;
};

// The registry object: the entries' vector (three pointers), then three words.
struct RawRegistry {
  RawEntry** begin;
  RawEntry** end;
  RawEntry** capacity;
  uint64_t libraryInfo[3];
};

int fail(const char* what) {
  std::fprintf(stderr, "FAILED: %s\n", what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return fail("usage: kora_abi_host <path to libkora.so>");
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (!library) return fail(dlerror());
  auto abiCheck = reinterpret_cast<uint64_t (*)()>(dlsym(library, "UDE_ABI_CHECK"));
  auto libraryMain = reinterpret_cast<void* (*)(uint64_t*, uint64_t*)>(dlsym(library, "UDE_LIBRARY_MAIN"));
  auto handle = reinterpret_cast<void* (*)()>(dlsym(library, "getTabbyCHandle"));
  if (!abiCheck || !libraryMain || !handle) return fail("entry points not exported with C linkage");
  if (abiCheck() != 730268002998899ull) return fail("UDE_ABI_CHECK value");

  uint64_t p0 = 7, p1 = 7;
  auto* registry = static_cast<RawRegistry*>(libraryMain(&p0, &p1));
  if (p0 != 1 || p1 != 0) return fail("UDE_LIBRARY_MAIN must write 1 and 0");
  p0 = p1 = 7;
  if (libraryMain(&p0, &p1) != registry || p0 != 1 || p1 != 0 || handle() != registry)
    return fail("a second UDE_LIBRARY_MAIN call or getTabbyCHandle returns another object, or 1 and 0 are not written");

  const RawEntry* relu = nullptr;
  for (RawEntry** it = registry->begin; it != registry->end; ++it)
    if (std::strcmp((*it)->name, "native::ReLU") == 0) relu = *it;
  if (!relu) return fail("native::ReLU not in the table");
  if (relu->numOutputs != 1 || relu->numInputs != 1 || !relu->impl || !relu->config || relu->reserved != 0)
    return fail("ReLU counts, functions or reserved word");
  // One Tensor in, one out; unused kind slots are 0; libraryInfo is the registry's.
  if (relu->outputKinds[0] != 0x1000400 || relu->inputKinds[0] != 0x1000400 || relu->outputKinds[1] != 0 ||
      relu->inputKinds[1] != 0 || std::memcmp(relu->libraryInfo, registry->libraryInfo, sizeof registry->libraryInfo) != 0)
    return fail("ReLU kinds or libraryInfo");
  std::printf("ok: %ld kernels, native::ReLU 1 -> 1 Tensor\n", long(registry->end - registry->begin));
  return 0;
}
