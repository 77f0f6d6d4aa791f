#pragma once
// Tensors in files: NumPy's .npy format and the library's own serialized form
// (the bytes of Tensor::serialize).
//
// Reading recognises a file by its first bytes, never by its name: "\x93NUMPY"
// opens a .npy file, the little-endian word 0xFADE a serialized tensor. Every
// header field is checked before any tensor is built, so a missing, truncated
// or corrupt file comes back as a failed Status whose message starts with the
// file's name and says what is wrong, e.g.
//   "in.npy: truncated: shape 2x3 of f32 needs 24 bytes of data, the file holds 20"
//   "in.npy: unknown element type '<c8' in the .npy header"
// A file whose data area is longer than its header describes is refused too:
// for a reference, trailing bytes mean the file is not what it claims.
//
// .npy: versions 1.0, 2.0 and 3.0 are read (3.0 differs from 2.0 only in
// allowing UTF-8 in the header), in C or Fortran order; a Fortran-order file
// is read as a strided view over its data (no copy). The header is the
// Python dictionary literal with exactly the keys 'descr', 'fortran_order'
// and 'shape'. Type descriptors and element types correspond one to one:
//
//   '<f2' f16   '<f4' f32   '<f8' f64   '|b1' bool8
//   '|i1' si8   '<i2' si16  '<i4' si32  '<i8' si64
//   '|u1' ui8   '<u2' ui16  '<u4' ui32  '<u8' ui64
//
// On reading, '=' (native, little-endian here) and a missing byte-order
// character are accepted for '<', and any of '<', '=', '|' for one-byte
// types; big-endian data ('>') is refused. Written files are version 1.0
// with numpy's own spelling of the header, padded with spaces so that the
// data starts at a multiple of 64 bytes; bool8 elements are written as 0 or 1
// (any non-zero byte reads as true). vbf16, cf8, vf32, tf32, si4x2 and the
// opaque types have no .npy counterpart: they can only be written in the
// serialized form.
//
// Serialized form: words of 64 bits (magic 0xFADE, element type, rank, the
// sizes), then the elements compactly in row-major order. On reading, the
// element type must be a known one, the rank at most 11, every size at least
// 0, and the data area exactly as long as the shape needs.
//
// Writing is all or nothing: the bytes go to a temporary file next to the
// target, which is renamed over the target once it is complete, so a failed
// write never leaves a partial file behind. (A target that exists and is not
// a regular file, such as /dev/null, is written directly.)
#include <string>
#include <string_view>
#include <vector>

#include "kora/Core/ArrayRef.h"
#include "kora/Core/ElementType.h"
#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"
#include "kora/Kernel/Status.h"

namespace kora {

enum class TensorFileFormat { Npy, Serialized };

/// What reading learnt about a file beyond the tensor itself.
struct TensorFileInfo {
  TensorFileFormat format = TensorFileFormat::Npy;
  /// The .npy format version ("1.0", "2.0", "3.0"); empty for the serialized form.
  std::string version;
  /// True for a .npy file whose data is in Fortran (column-major) order.
  bool fortranOrder = false;
  /// Bytes before the data area.
  unsigned long headerBytes = 0;
};

/// The .npy type descriptor written for `type` ("<f4", "|b1" ...), or null
/// when the type has no .npy counterpart.
KORA_API const char* npyDescriptor(ElementType type);

/// The format a file name asks for when written: the serialized form for
/// names ending in ".kora", .npy for every other name.
KORA_API TensorFileFormat formatForPath(std::string_view path);

/// Reads the tensor held in `bytes` (the whole content of a file); `name`
/// starts every message. The tensor owns a copy of the data, compact (or in
/// Fortran order, as a strided view).
KORA_API Status readTensor(Tensor& out, ArrayRef<char> bytes, std::string_view name,
                           TensorFileInfo* info = nullptr);

/// Reads the file at `path` in one pass into the tensor's own storage; the
/// tensor views the data area of that buffer (the header bytes stay in front
/// of it, unused).
KORA_API Status readTensorFile(Tensor& out, const std::string& path, TensorFileInfo* info = nullptr);

/// The complete bytes of `tensor` written in `format` (any strides; the data
/// is written compactly in row-major order).
KORA_API Status encodeTensor(std::vector<char>& out, const Tensor& tensor, TensorFileFormat format);

/// Writes `tensor` to `path` in `format`, all or nothing (see above).
KORA_API Status writeTensorFile(const std::string& path, const Tensor& tensor, TensorFileFormat format);
/// As above, in the format the name asks for.
KORA_API Status writeTensorFile(const std::string& path, const Tensor& tensor);

}  // namespace kora
