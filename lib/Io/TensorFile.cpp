#include "kora/Io/TensorFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include <fmt/format.h>

namespace kora {

namespace {

constexpr char kNpyMagic[] = "\x93NUMPY";
constexpr unsigned long kNpyMagicBytes = 6;
constexpr uint64_t kSerializedMagic = 0xFADE;
// .npy headers are padded so that the data starts on this boundary.
constexpr unsigned long kNpyAlignment = 64;

/// What a file's header says about its tensor.
struct Layout {
  TensorFileInfo info;
  ElementType type = ElementType::invalid;
  unsigned long rank = 0;
  long shape[kMaxRank] = {};
  unsigned long dataOffset = 0;
  unsigned long dataBytes = 0;

  std::vector<long> strides() const {
    const long width = long(byteWidth(type));
    if (!info.fortranOrder) return getStrides({shape, rank}, width);
    std::vector<long> s(rank);
    long running = width;
    for (unsigned long i = 0; i < rank; ++i) {
      s[i] = running;
      running *= shape[i];
    }
    return s;
  }
};

template <class... A>
Status fileError(std::string_view name, fmt::format_string<A...> format, A&&... args) {
  return Status::failure(fmt::format("{}: {}", name, fmt::format(format, std::forward<A>(args)...)));
}

std::string shapeText(const long* shape, unsigned long rank) {
  if (rank == 0) return "() (a scalar)";
  std::string text;
  for (unsigned long i = 0; i < rank; ++i) text += fmt::format("{}{}", i ? "x" : "", shape[i]);
  return text;
}

uint64_t readWord(const char* p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  return w;
}

/// Checks the sizes and sets layout.dataBytes to the bytes they need; the
/// data area must then be exactly that long.
Status checkDataArea(Layout& layout, unsigned long available, std::string_view name) {
  // The product of the non-zero sizes must fit, even when another size is 0:
  // strides are products of sizes too.
  unsigned long bytes = byteWidth(layout.type);
  bool hasZero = false;
  for (unsigned long i = 0; i < layout.rank; ++i) {
    if (layout.shape[i] < 0) return fileError(name, "corrupt header: size {} of dimension {} is negative", layout.shape[i], i);
    if (layout.shape[i] == 0) {
      hasZero = true;
      continue;
    }
    if (__builtin_mul_overflow(bytes, static_cast<unsigned long>(layout.shape[i]), &bytes) || bytes > LONG_MAX)
      return fileError(name, "corrupt header: shape {} is too large", shapeText(layout.shape, layout.rank));
  }
  if (hasZero) bytes = 0;
  if (available < bytes)
    return fileError(name, "truncated: shape {} of {} needs {} bytes of data, the file holds {}",
                     shapeText(layout.shape, layout.rank), elementTypeName(layout.type), bytes, available);
  if (available > bytes)
    return fileError(name, "{} bytes follow the data of shape {} of {}", available - bytes,
                     shapeText(layout.shape, layout.rank), elementTypeName(layout.type));
  layout.dataBytes = bytes;
  return Status::success();
}

// ---------------------------------------------------------------- .npy header

/// A value of the header's dictionary literal.
struct HeaderValue {
  enum Kind { Text, Boolean, Tuple, Integer } kind = Text;
  std::string text;
  bool boolean = false;
  std::vector<long> numbers;
};

/// The subset of Python literal syntax .npy headers use: a dictionary of
/// quoted keys whose values are quoted strings, True/False or tuples of
/// integers (old files write integers with a trailing L).
class HeaderParser {
 public:
  HeaderParser(std::string_view text, std::string_view name) : text_(text), name_(name) {}

  Status parse(Layout& layout) {
    std::optional<HeaderValue> descr, fortran, shape;
    skipSpace();
    if (!take('{')) return error("the header is not a dictionary");
    for (;;) {
      skipSpace();
      if (take('}')) break;
      std::string key;
      KORA_RETURN_IF_ERROR(parseString(key));
      skipSpace();
      if (!take(':')) return error(fmt::format("expected ':' after '{}'", key));
      HeaderValue value;
      KORA_RETURN_IF_ERROR(parseValue(value));
      std::optional<HeaderValue>* slot = key == "descr" ? &descr : key == "fortran_order" ? &fortran
                                       : key == "shape" ? &shape : nullptr;
      if (!slot) return error(fmt::format("unexpected key '{}'", key));
      if (slot->has_value()) return error(fmt::format("key '{}' appears twice", key));
      *slot = std::move(value);
      skipSpace();
      if (take('}')) break;
      if (!take(',')) return error("expected ',' or '}' in the dictionary");
    }
    skipSpace();
    if (pos_ != text_.size()) return error("unexpected text after the dictionary");
    if (!descr) return error("no 'descr' key");
    if (!fortran) return error("no 'fortran_order' key");
    if (!shape) return error("no 'shape' key");
    if (descr->kind != HeaderValue::Text) return error("'descr' is not a plain type descriptor (structured types are not supported)");
    if (fortran->kind != HeaderValue::Boolean) return error("'fortran_order' is not True or False");
    if (shape->kind != HeaderValue::Tuple) return error("'shape' is not a tuple");
    KORA_RETURN_IF_ERROR(typeFromDescriptor(descr->text, layout.type));
    if (shape->numbers.size() > kMaxRank)
      return fileError(name_, "shape has {} dimensions; a tensor has at most {}", shape->numbers.size(), kMaxRank);
    layout.info.fortranOrder = fortran->boolean;
    layout.rank = shape->numbers.size();
    for (unsigned long i = 0; i < layout.rank; ++i) layout.shape[i] = shape->numbers[i];
    return Status::success();
  }

 private:
  Status error(std::string_view what) const { return fileError(name_, "corrupt .npy header: {}", what); }

  void skipSpace() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n' || text_[pos_] == '\r'))
      ++pos_;
  }
  bool take(char c) {
    if (pos_ < text_.size() && text_[pos_] == c) return ++pos_, true;
    return false;
  }
  bool takeWord(std::string_view word) {
    if (text_.substr(pos_, word.size()) != word) return false;
    pos_ += word.size();
    return true;
  }

  Status parseString(std::string& out) {
    if (pos_ >= text_.size() || (text_[pos_] != '\'' && text_[pos_] != '"')) return error("expected a quoted string");
    const char quote = text_[pos_++];
    const auto end = text_.find(quote, pos_);
    if (end == std::string_view::npos) return error("unterminated string");
    out.assign(text_.substr(pos_, end - pos_));
    if (out.find('\\') != std::string::npos || out.find('\n') != std::string::npos)
      return error("unsupported characters in a string");
    pos_ = end + 1;
    return Status::success();
  }

  Status parseInteger(long& out) {
    const bool negative = take('-');
    if (pos_ >= text_.size() || text_[pos_] < '0' || text_[pos_] > '9') return error("expected an integer");
    unsigned long value = 0;
    while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
      if (value > (static_cast<unsigned long>(LONG_MAX) - 9) / 10) return error("integer too large");
      value = value * 10 + unsigned(text_[pos_++] - '0');
    }
    take('L');
    out = negative ? -long(value) : long(value);
    return Status::success();
  }

  Status parseValue(HeaderValue& value) {
    skipSpace();
    if (pos_ >= text_.size()) return error("value missing");
    const char c = text_[pos_];
    if (c == '\'' || c == '"') {
      value.kind = HeaderValue::Text;
      return parseString(value.text);
    }
    if (takeWord("True") || takeWord("False")) {
      value.kind = HeaderValue::Boolean;
      value.boolean = c == 'T';
      return Status::success();
    }
    if (take('(')) {
      value.kind = HeaderValue::Tuple;
      bool trailingComma = false;
      for (;;) {
        skipSpace();
        if (take(')')) break;
        if (value.numbers.size() > kMaxRank) return error("too many dimensions in 'shape'");
        long n = 0;
        KORA_RETURN_IF_ERROR(parseInteger(n));
        value.numbers.push_back(n);
        skipSpace();
        trailingComma = take(',');
        if (trailingComma) continue;
        if (!take(')')) return error("expected ',' or ')' in a tuple");
        break;
      }
      // (3) is an integer in parentheses, not a tuple.
      if (value.numbers.size() == 1 && !trailingComma) return error("'shape' is not a tuple");
      return Status::success();
    }
    if (c == '[' || c == '{') return error("'descr' is not a plain type descriptor (structured types are not supported)");
    if (c == '-' || (c >= '0' && c <= '9')) {
      value.kind = HeaderValue::Integer;
      value.numbers.resize(1);
      return parseInteger(value.numbers[0]);
    }
    return error("unexpected value");
  }

  Status typeFromDescriptor(std::string_view d, ElementType& type) const {
    const std::string quoted(d);
    char order = '=';
    std::string_view code = d;
    if (!code.empty() && (code[0] == '<' || code[0] == '>' || code[0] == '=' || code[0] == '|')) {
      order = code[0];
      code.remove_prefix(1);
    }
    static constexpr struct {
      std::string_view code;
      ElementType type;
    } kTable[] = {{"f2", ElementType::f16}, {"f4", ElementType::f32}, {"f8", ElementType::f64},
                  {"i1", ElementType::si8}, {"i2", ElementType::si16}, {"i4", ElementType::si32},
                  {"i8", ElementType::si64}, {"u1", ElementType::ui8}, {"u2", ElementType::ui16},
                  {"u4", ElementType::ui32}, {"u8", ElementType::ui64}, {"b1", ElementType::bool8}};
    for (const auto& entry : kTable) {
      if (entry.code != code) continue;
      const bool oneByte = byteWidth(entry.type) == 1;
      if (order == '>' && !oneByte)
        return fileError(name_, "big-endian data ('{}') is not supported; save it little-endian", quoted);
      if (order == '|' && !oneByte) break;
      type = entry.type;
      return Status::success();
    }
    return fileError(name_, "unknown element type '{}' in the .npy header", quoted);
  }

  std::string_view text_;
  std::string_view name_;
  std::size_t pos_ = 0;
};

Status parseNpy(ArrayRef<char> bytes, std::string_view name, Layout& layout) {
  if (bytes.size() < 10) return fileError(name, "truncated: {} bytes end inside the .npy preamble", bytes.size());
  const auto major = static_cast<unsigned char>(bytes[6]), minor = static_cast<unsigned char>(bytes[7]);
  if (major < 1 || major > 3 || minor != 0) return fileError(name, "unsupported .npy version {}.{}", major, minor);
  const auto byteAt = [&](unsigned long i) { return static_cast<unsigned long>(static_cast<unsigned char>(bytes[i])); };
  unsigned long headerStart = 10, headerLength = byteAt(8) | byteAt(9) << 8;
  if (major >= 2) {
    if (bytes.size() < 12) return fileError(name, "truncated: {} bytes end inside the .npy preamble", bytes.size());
    headerStart = 12;
    headerLength |= byteAt(10) << 16 | byteAt(11) << 24;
  }
  if (headerLength > bytes.size() - headerStart)
    return fileError(name, "truncated: the .npy header needs {} bytes, the file holds {}", headerLength,
                     bytes.size() - headerStart);
  layout.info.format = TensorFileFormat::Npy;
  layout.info.version = fmt::format("{}.{}", major, minor);
  std::string_view header(bytes.data() + headerStart, headerLength);
  if (major < 3)
    for (char c : header)
      if (static_cast<unsigned char>(c) > 0x7f) return fileError(name, "corrupt .npy header: non-ASCII characters");
  KORA_RETURN_IF_ERROR(HeaderParser(header, name).parse(layout));
  layout.dataOffset = headerStart + headerLength;
  return checkDataArea(layout, bytes.size() - layout.dataOffset, name);
}

Status parseSerialized(ArrayRef<char> bytes, std::string_view name, Layout& layout) {
  if (bytes.size() < 24) return fileError(name, "truncated: {} bytes end inside the serialized tensor's header", bytes.size());
  const uint64_t typeWord = readWord(bytes.data() + 8), rank = readWord(bytes.data() + 16);
  const auto type = static_cast<ElementType>(static_cast<uint32_t>(typeWord));
  if (typeWord > 0xFFFFFFFFu || type == ElementType::invalid || std::string_view(elementTypeName(type)) == "unreachable")
    return fileError(name, "unknown element type 0x{:x} in the serialized tensor's header", typeWord);
  if (rank > kMaxRank) return fileError(name, "corrupt header: rank {} is above {}", rank, kMaxRank);
  const unsigned long header = (rank + 3) * 8;
  if (bytes.size() < header)
    return fileError(name, "truncated: the header of rank {} needs {} bytes, the file holds {}", rank, header, bytes.size());
  layout.info.format = TensorFileFormat::Serialized;
  layout.type = type;
  layout.rank = rank;
  for (unsigned long i = 0; i < rank; ++i) layout.shape[i] = static_cast<long>(readWord(bytes.data() + 24 + 8 * i));
  layout.dataOffset = header;
  return checkDataArea(layout, bytes.size() - header, name);
}

Status parseFile(ArrayRef<char> bytes, std::string_view name, Layout& layout) {
  if (bytes.size() >= kNpyMagicBytes && std::memcmp(bytes.data(), kNpyMagic, kNpyMagicBytes) == 0)
    KORA_RETURN_IF_ERROR(parseNpy(bytes, name, layout));
  else if (bytes.size() >= 8 && readWord(bytes.data()) == kSerializedMagic)
    KORA_RETURN_IF_ERROR(parseSerialized(bytes, name, layout));
  else if (bytes.empty())
    return fileError(name, "empty file: neither a .npy file nor a serialized tensor");
  else
    return fileError(name, "neither a .npy file nor a serialized tensor");
  layout.info.headerBytes = layout.dataOffset;
  return Status::success();
}

// ------------------------------------------------------------------ writing

std::string npyHeader(const Tensor& t) {
  std::string shape = "(";
  for (unsigned long i = 0; i < t.rank(); ++i) shape += fmt::format("{}{}", i ? ", " : "", t.dim(long(i)));
  shape += t.rank() == 1 ? ",)" : ")";
  std::string dict = fmt::format("{{'descr': '{}', 'fortran_order': False, 'shape': {}, }}", npyDescriptor(t.elementType()), shape);
  const unsigned long unpadded = kNpyMagicBytes + 4 + dict.size() + 1;
  dict.append((kNpyAlignment - unpadded % kNpyAlignment) % kNpyAlignment, ' ');
  dict += '\n';
  std::string header(kNpyMagic, kNpyMagicBytes);
  header += '\x01';
  header += '\x00';
  header += char(dict.size() & 0xff);
  header += char(dict.size() >> 8);
  return header + dict;
}

std::string serializedHeader(const Tensor& t) {
  uint64_t words[3 + kMaxRank] = {kSerializedMagic, static_cast<uint32_t>(t.elementType()), t.rank()};
  for (unsigned long i = 0; i < t.rank(); ++i) words[3 + i] = static_cast<uint64_t>(t.dim(long(i)));
  return std::string(reinterpret_cast<const char*>(words), (t.rank() + 3) * 8);
}

/// The header and the compact data of a tensor about to be written. The data
/// points into the tensor itself when it is compact already.
struct Encoded {
  std::string header;
  Tensor compact;
  std::vector<char> normalized;  // bool8 as 0/1
  const char* data = nullptr;
  unsigned long dataBytes = 0;
};

Status encode(Encoded& e, const Tensor& t, TensorFileFormat format, std::string_view name) {
  if (!t.isValid()) return fileError(name, "the tensor holds no data");
  if (format == TensorFileFormat::Npy && !npyDescriptor(t.elementType()))
    return fileError(name, "element type {} has no .npy counterpart; write it in the serialized form (a name ending in .kora)",
                     elementTypeName(t.elementType()));
  e.header = format == TensorFileFormat::Npy ? npyHeader(t) : serializedHeader(t);
  if (t.isEmpty()) return Status::success();
  e.compact = t.contiguous();
  e.data = e.compact.data<char>().data();
  e.dataBytes = static_cast<unsigned long>(t.numElements()) * byteWidth(t.elementType());
  if (format == TensorFileFormat::Npy && t.elementType() == ElementType::bool8) {
    e.normalized.resize(e.dataBytes);
    for (unsigned long i = 0; i < e.dataBytes; ++i) e.normalized[i] = e.data[i] != 0;
    e.data = e.normalized.data();
  }
  return Status::success();
}

bool writeAll(int fd, const char* p, unsigned long n) {
  while (n > 0) {
    const ssize_t written = ::write(fd, p, n > (1ul << 30) ? (1ul << 30) : n);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += written;
    n -= static_cast<unsigned long>(written);
  }
  return true;
}

Status writeTo(int fd, const Encoded& e, const std::string& path) {
  if (!writeAll(fd, e.header.data(), e.header.size()) || !writeAll(fd, e.data, e.dataBytes))
    return fileError(path, "cannot write: {}", std::strerror(errno));
  return Status::success();
}

}  // namespace

const char* npyDescriptor(ElementType type) {
  switch (type) {
    case ElementType::f16: return "<f2";
    case ElementType::f32: return "<f4";
    case ElementType::f64: return "<f8";
    case ElementType::si8: return "|i1";
    case ElementType::si16: return "<i2";
    case ElementType::si32: return "<i4";
    case ElementType::si64: return "<i8";
    case ElementType::ui8: return "|u1";
    case ElementType::ui16: return "<u2";
    case ElementType::ui32: return "<u4";
    case ElementType::ui64: return "<u8";
    case ElementType::bool8: return "|b1";
    default: return nullptr;
  }
}

TensorFileFormat formatForPath(std::string_view path) {
  constexpr std::string_view suffix = ".kora";
  return path.size() >= suffix.size() && path.substr(path.size() - suffix.size()) == suffix ? TensorFileFormat::Serialized
                                                                                           : TensorFileFormat::Npy;
}

Status readTensor(Tensor& out, ArrayRef<char> bytes, std::string_view name, TensorFileInfo* info) {
  Layout layout;
  KORA_RETURN_IF_ERROR(parseFile(bytes, name, layout));
  auto storage = Storage::createUninit(layout.dataBytes);
  if (layout.dataBytes) std::memcpy(storage->data(), bytes.data() + layout.dataOffset, layout.dataBytes);
  const std::vector<long> strides = layout.strides();
  out = Tensor(layout.shape, layout.rank, strides.data(), layout.type, 0, std::move(storage));
  if (info) *info = layout.info;
  return Status::success();
}

Status readTensorFile(Tensor& out, const std::string& path, TensorFileInfo* info) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return fileError(path, "cannot open: {}", std::strerror(errno));
  struct FdCloser {
    int fd;
    ~FdCloser() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) return fileError(path, "cannot read: {}", std::strerror(errno));
  if (S_ISDIR(st.st_mode)) return fileError(path, "cannot read: {}", std::strerror(EISDIR));

  // Regular files are read in one pass into the tensor's storage; pipes and
  // other streams grow a buffer until they end.
  std::shared_ptr<Storage> storage;
  unsigned long size = 0;
  const auto readInto = [&](char* p, unsigned long n) -> long {
    for (;;) {
      const ssize_t got = ::read(fd, p, n);
      if (got >= 0 || errno != EINTR) return got;
    }
  };
  if (S_ISREG(st.st_mode)) {
    try {
      storage = Storage::createUninit(static_cast<unsigned long>(st.st_size));
    } catch (const std::bad_alloc&) {
      return fileError(path, "cannot read: {} bytes do not fit in memory", st.st_size);
    }
    while (size < storage->size()) {
      const long got = readInto(storage->data() + size, std::min(storage->size() - size, 1ul << 30));
      if (got < 0) return fileError(path, "cannot read: {}", std::strerror(errno));
      if (got == 0) break;
      size += static_cast<unsigned long>(got);
    }
  } else {
    std::vector<char> buffer;
    for (;;) {
      buffer.resize(size + (1ul << 20));
      const long got = readInto(buffer.data() + size, 1ul << 20);
      if (got < 0) return fileError(path, "cannot read: {}", std::strerror(errno));
      if (got == 0) break;
      size += static_cast<unsigned long>(got);
    }
    storage = Storage::createUninit(size);
    if (size) std::memcpy(storage->data(), buffer.data(), size);
  }

  Layout layout;
  KORA_RETURN_IF_ERROR(parseFile({storage->data(), size}, path, layout));
  // Element loads must be aligned to the element; a header of an odd length
  // (written by some other tool) moves the data to the front of the buffer.
  unsigned long offset = layout.dataOffset;
  if (offset % std::min(byteWidth(layout.type), 8ul) != 0) {
    std::memmove(storage->data(), storage->data() + offset, layout.dataBytes);
    offset = 0;
  }
  const std::vector<long> strides = layout.strides();
  out = Tensor(layout.shape, layout.rank, strides.data(), layout.type, long(offset), std::move(storage));
  if (info) *info = layout.info;
  return Status::success();
}

Status encodeTensor(std::vector<char>& out, const Tensor& tensor, TensorFileFormat format) {
  Encoded e;
  KORA_RETURN_IF_ERROR(encode(e, tensor, format, "tensor"));
  out.assign(e.header.begin(), e.header.end());
  out.insert(out.end(), e.data, e.data + e.dataBytes);
  return Status::success();
}

Status writeTensorFile(const std::string& path, const Tensor& tensor, TensorFileFormat format) {
  Encoded e;
  KORA_RETURN_IF_ERROR(encode(e, tensor, format, path));

  // Special files (a terminal, /dev/null, a pipe) cannot be replaced by a
  // rename: write them directly.
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    if (S_ISDIR(st.st_mode)) return fileError(path, "cannot write: {}", std::strerror(EISDIR));
    const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) return fileError(path, "cannot write: {}", std::strerror(errno));
    Status status = writeTo(fd, e, path);
    ::close(fd);
    return status;
  }

  // A symbolic link is written through: the file it names is replaced.
  std::string target = path;
  if (char* resolved = ::realpath(path.c_str(), nullptr)) {
    target = resolved;
    std::free(resolved);
  }
  static std::atomic<unsigned long> counter{0};
  std::string temporary;
  int fd = -1;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temporary = fmt::format("{}.tmp-{}-{}", target, ::getpid(), counter++);
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) return fileError(path, "cannot write: {}", std::strerror(errno));
  }
  if (fd < 0) return fileError(path, "cannot write: no free temporary name");
  Status status = writeTo(fd, e, path);
  if (::close(fd) != 0 && status.ok()) status = fileError(path, "cannot write: {}", std::strerror(errno));
  if (status.ok() && ::rename(temporary.c_str(), target.c_str()) != 0)
    status = fileError(path, "cannot write: {}", std::strerror(errno));
  if (!status.ok()) ::unlink(temporary.c_str());
  return status;
}

Status writeTensorFile(const std::string& path, const Tensor& tensor) {
  return writeTensorFile(path, tensor, formatForPath(path));
}

}  // namespace kora
