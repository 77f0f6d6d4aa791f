#pragma once
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "kora/Core/Export.h"
#include "kora/Core/Tensor.h"

namespace kora {

/// One argument of a call by name: a tensor, a list of tensors, a scalar, a
/// list of numbers or a text. The invocation layer converts it to the kind of
/// the parameter it lands on (an integer fits any integer or floating
/// parameter whose range holds it; a text names an element type or a round
/// mode where the parameter is one).
class KORA_API Argument {
 public:
  using Value = std::variant<std::monostate, Tensor, std::vector<Tensor>, bool, int64_t, double, std::string,
                             std::vector<int64_t>, std::vector<double>>;

  Argument() = default;
  Argument(Tensor t) : value_(std::move(t)) {}
  Argument(std::vector<Tensor> t) : value_(std::move(t)) {}
  Argument(bool b) : value_(b) {}
  Argument(int i) : value_(int64_t(i)) {}
  Argument(long i) : value_(int64_t(i)) {}
  Argument(double d) : value_(d) {}
  Argument(const char* s) : value_(std::string(s)) {}
  Argument(std::string s) : value_(std::move(s)) {}
  Argument(std::vector<int64_t> v) : value_(std::move(v)) {}
  Argument(std::vector<double> v) : value_(std::move(v)) {}
  Argument(ElementType t) : value_(std::string(elementTypeName(t))) {}

  const Value& value() const { return value_; }
  template <class T>
  const T* get() const { return std::get_if<T>(&value_); }
  /// "Tensor", "Tensor[]", "bool", "int64_t", "double", "string", "int64_t[]",
  /// "double[]" or "none": how messages name what a caller passed.
  const char* kindName() const;

 private:
  Value value_;
};

/// Prints an argument for the invocation layer's verbose reports: tensors by
/// their type and strides, scalars and lists by value.
KORA_API std::string toString(const Argument& argument);

}  // namespace kora
