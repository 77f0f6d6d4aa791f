#include "kora/Io/TensorPrint.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fmt/format.h>

#include "kora/Core/Trace.h"
#include "kora/Support/Dispatch.h"
#include "kora/Support/FloatFormat.h"

namespace kora {

namespace {

// Whether `text` reads back as the value `v` of element type `type`.
bool readsBack(const std::string& text, double v, ElementType type) {
  const double back = std::strtod(text.c_str(), nullptr);
  switch (type) {
    case ElementType::f16: return doubleToHalfBits(back) == doubleToHalfBits(v);
    case ElementType::vbf16: return doubleToBf16Bits(back) == doubleToBf16Bits(v);
    case ElementType::f32: return doubleToFloat(back) == float(v);
    default: return back == v;
  }
}

std::string floatText(double v, ElementType type) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
  if (v == std::floor(v) && std::fabs(v) < 1e16) return fmt::format("{:.0f}.", v);
  if (type == ElementType::f32) return fmt::format("{}", float(v));
  if (type == ElementType::f64) return fmt::format("{}", v);
  for (int digits = 1; digits < 17; ++digits) {
    std::string text = fmt::format("{:.{}g}", v, digits);
    if (readsBack(text, v, type)) return text;
  }
  return fmt::format("{}", v);
}

std::string hexText(const char* p, unsigned long width) {
  std::string text = "0x";
  for (unsigned long i = width; i-- > 0;) text += fmt::format("{:02x}", static_cast<unsigned char>(p[i]));
  return text;
}

std::string elementText(const char* p, ElementType type) {
  if (type == ElementType::bool8) return *p ? "True" : "False";
  if (!typeIn<NumericTypes>(type)) return hexText(p, byteWidth(type));
  return dispatch<NumericTypes>(type, [&]<class T>() -> std::string {
    T x;
    std::memcpy(&x, p, sizeof(T));
    if constexpr (std::is_integral_v<T>)
      return fmt::format("{}", x);
    else if constexpr (std::is_same_v<T, Bool8>)
      return x.value ? "True" : "False";
    else
      return floatText(double(widen(x)), type);
  });
}

class Printer {
 public:
  Printer(const Tensor& t, const PrintOptions& o) : t_(t), options_(o) {
    elide_ = o.threshold >= 0 && t.numElements() > o.threshold;
  }

  std::string run() {
    if (t_.rank() == 0) return elementText(t_.elementPointer({}), t_.elementType());
    if (t_.isEmpty()) return "[]";
    collect(0);
    std::string out;
    emit(0, out);
    return out;
  }

 private:
  // The indices shown along `dim`; -1 stands for the elided middle.
  std::vector<long> shown(unsigned long dim) const {
    const long n = t_.dim(long(dim)), edge = std::max(options_.edgeItems, 1l);
    std::vector<long> indices;
    if (!elide_ || n <= 2 * edge) {
      for (long i = 0; i < n; ++i) indices.push_back(i);
      return indices;
    }
    for (long i = 0; i < edge; ++i) indices.push_back(i);
    indices.push_back(-1);
    for (long i = n - edge; i < n; ++i) indices.push_back(i);
    return indices;
  }

  void collect(unsigned long dim) {
    for (long i : shown(dim)) {
      if (i < 0) continue;
      coord_[dim] = i;
      if (dim + 1 < t_.rank()) {
        collect(dim + 1);
        continue;
      }
      texts_.push_back(elementText(t_.elementPointer(coord_.ref()), t_.elementType()));
    }
    if (dim == 0) align();
  }

  // Floating values line up on their decimal points (unless some value is
  // written with an exponent); everything else is right-aligned.
  void align() {
    bool decimal = isFloat(t_.elementType()) && typeIn<NumericTypes>(t_.elementType());
    for (const std::string& text : texts_) decimal = decimal && text.find('e') == std::string::npos;
    std::size_t whole = 0, fraction = 0, plain = 0;
    for (const std::string& text : texts_) {
      const std::size_t point = decimal ? text.find('.') : std::string::npos;
      if (point == std::string::npos) {
        plain = std::max(plain, text.size());
      } else {
        whole = std::max(whole, point);
        fraction = std::max(fraction, text.size() - point);
      }
    }
    // Texts without a point (integers, nan, inf) are right-aligned in the
    // same width, widening it if they need more.
    width_ = std::max(whole + fraction, plain);
    whole = width_ - fraction;
    for (std::string& text : texts_) {
      const std::size_t point = decimal ? text.find('.') : std::string::npos;
      if (point == std::string::npos)
        text.insert(0, width_ - text.size(), ' ');
      else
        text = std::string(whole - point, ' ') + text + std::string(fraction - (text.size() - point), ' ');
    }
  }

  void emit(unsigned long dim, std::string& out) {
    const unsigned long rank = t_.rank();
    const std::vector<long> indices = shown(dim);
    out += '[';
    std::size_t lineStart = out.rfind('\n') == std::string::npos ? 0 : out.rfind('\n') + 1;
    for (std::size_t k = 0; k < indices.size(); ++k) {
      const bool last = dim + 1 == rank;
      if (k > 0) {
        if (last) {
          const std::size_t next = (indices[k] < 0 ? 3 : width_) + 1;
          if (long(out.size() - lineStart + next + 1) > options_.lineWidth) {
            out += '\n';
            lineStart = out.size();
            out.append(dim + 1, ' ');
          } else {
            out += ' ';
          }
        } else {
          out.append(rank - dim - 1, '\n');
          out.append(dim + 1, ' ');
          lineStart = out.rfind('\n') + 1;
        }
      }
      if (indices[k] < 0) {
        out += "...";
        continue;
      }
      coord_[dim] = indices[k];
      if (last) {
        const std::string& text = texts_[next_++];
        out.append(width_ - text.size(), ' ');
        out += text;
      } else {
        emit(dim + 1, out);
      }
    }
    out += ']';
  }

  const Tensor& t_;
  PrintOptions options_;
  bool elide_ = false;
  Coord coord_ = Coord(std::vector<long>(t_.rank(), 0));
  std::vector<std::string> texts_;
  std::size_t next_ = 0;
  std::size_t width_ = 0;
};

}  // namespace

std::string formatValues(const Tensor& tensor, const PrintOptions& options) {
  if (!tensor.isValid()) return "(no data)";
  return Printer(tensor, options).run();
}

std::string formatValue(double value, ElementType type) {
  if (type == ElementType::bool8) return value != 0 ? "True" : "False";
  if (isFloat(type)) return floatText(value, type);
  if (isInteger(type) && value >= -9.2e18 && value < 0) return fmt::format("{}", static_cast<long long>(value));
  if (isInteger(type) && value >= 0 && value < 1.8e19) return fmt::format("{}", static_cast<unsigned long long>(value));
  return fmt::format("{}", value);
}

}  // namespace kora
