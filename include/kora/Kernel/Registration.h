#pragma once
// Registration of kernels: one line per kernel,
//
//   registerKernel(table, "native::ReLU", &native::ReLUConfig, &native::ReLU);
//
// The entry's parameter kinds, its output count (the leading non-const Tensor&
// parameters) and its type-erased call are all derived from the C++ signature.
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "kora/Kernel/Argument.h"
#include "kora/Kernel/KindCode.h"
#include "kora/Kernel/Registry.h"

namespace kora {

namespace detail {

template <class D>
struct HolderOf {
  using type = D;
};
template <class T>
struct HolderOf<ArrayRef<T>> {
  using type = std::vector<T>;
};
template <>
struct HolderOf<std::string_view> {
  using type = std::string;
};
template <>
struct HolderOf<const char*> {
  using type = std::string;
};
template <class P>
using Holder = typename HolderOf<std::remove_cvref_t<P>>::type;

KORA_API bool convertArgument(const Argument& a, Tensor& out);
KORA_API bool convertArgument(const Argument& a, std::vector<Tensor>& out);
KORA_API bool convertArgument(const Argument& a, std::string& out);
KORA_API bool convertArgument(const Argument& a, bool& out);
KORA_API bool convertArgument(const Argument& a, double& out);
KORA_API bool convertArgument(const Argument& a, float& out);
KORA_API bool convertArgument(const Argument& a, half& out);
KORA_API bool convertArgument(const Argument& a, ElementType& out);
KORA_API bool convertArgument(const Argument& a, RoundMode& out);

/// An integer fits an integer parameter only when its type holds the value.
template <class T>
bool fitInteger(int64_t v, T& out) {
  if constexpr (std::is_unsigned_v<T>) {
    if (v < 0 || uint64_t(v) > std::numeric_limits<T>::max()) return false;
  } else {
    if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()) return false;
  }
  out = T(v);
  return true;
}

template <class T>
  requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
bool convertArgument(const Argument& a, T& out) {
  const int64_t* v = a.get<int64_t>();
  return v && fitInteger(*v, out);
}

/// Lists convert element by element; a list of integers also serves a list
/// of floating numbers.
template <class T>
bool convertArgument(const Argument& a, std::vector<T>& out) {
  std::vector<T> result;
  if (const auto* ints = a.get<std::vector<int64_t>>()) {
    result.resize(ints->size());
    for (size_t i = 0; i < ints->size(); ++i) {
      if constexpr (std::is_floating_point_v<T>)
        result[i] = T((*ints)[i]);
      else if (!fitInteger((*ints)[i], result[i]))
        return false;
    }
  } else if (const auto* reals = a.get<std::vector<double>>(); reals && std::is_floating_point_v<T>) {
    result.assign(reals->begin(), reals->end());
  } else {
    return false;
  }
  out = std::move(result);
  return true;
}

template <class P, class H>
decltype(auto) passAs(H& holder) {
  using D = std::remove_cvref_t<P>;
  if constexpr (IsArrayRef<D>::value)
    return D(holder);
  else if constexpr (std::is_same_v<D, std::string_view>)
    return std::string_view(holder);
  else if constexpr (std::is_same_v<D, const char*>)
    return holder.c_str();
  else
    return static_cast<H&>(holder);
}

template <class... P>
constexpr unsigned leadingOutputs() {
  constexpr bool isOutput[] = {isOutputParam<P>...};
  unsigned n = 0;
  while (n < sizeof...(P) && isOutput[n]) ++n;
  return n;
}

}  // namespace detail

/// The entry class of one call signature.
template <class... P>
class KernelEntryFor final : public KernelEntry {
 public:
  using Function = Status (*)(P...);
  static constexpr unsigned kOutputs = detail::leadingOutputs<P...>();
  static_assert(kOutputs >= 1 && kOutputs <= 5, "a kernel has one to five leading Tensor& outputs");
  static_assert(sizeof...(P) - kOutputs <= 40, "a kernel has at most 40 inputs");

  KernelEntryFor(const char* kernelName, Function configFn, Function implFn, const uint64_t info[3]) {
    static constexpr uint64_t kinds[] = {paramKind<P>()...};
    name = kernelName;
    for (unsigned i = 0; i < sizeof...(P); ++i) {
      if (i < kOutputs)
        outputKinds[i] = kinds[i];
      else
        inputKinds[i - kOutputs] = kinds[i];
    }
    for (int i = 0; i < 3; ++i) libraryInfo[i] = info[i];
    impl = reinterpret_cast<AnyFunction>(implFn);
    config = reinterpret_cast<AnyFunction>(configFn);
    numOutputs = kOutputs;
    numInputs = sizeof...(P) - kOutputs;
  }

  std::unique_ptr<BoundCall> bind(const std::vector<Argument>& args, long& failedIndex) const override {
    auto call = std::make_unique<Call>(*this);
    failedIndex = call->convert(args, std::index_sequence_for<P...>{});
    if (failedIndex >= 0) return nullptr;
    return call;
  }

 private:
  class Call final : public BoundCall {
   public:
    explicit Call(const KernelEntryFor& e) : entry_(e) {}

    template <std::size_t... I>
    long convert(const std::vector<Argument>& args, std::index_sequence<I...>) {
      long failed = -1;
      if (args.size() != sizeof...(P)) return long(args.size());
      ((failed < 0 && !detail::convertArgument(args[I], std::get<I>(holders_)) ? (failed = long(I)) : 0), ...);
      return failed;
    }
    Status config() override { return run(entry_.config, std::index_sequence_for<P...>{}); }
    Status impl() override { return run(entry_.impl, std::index_sequence_for<P...>{}); }
    Tensor& output(unsigned index) override { return outputAt(index, std::index_sequence_for<P...>{}); }

   private:
    template <std::size_t... I>
    Status run(AnyFunction fn, std::index_sequence<I...>) {
      return reinterpret_cast<Function>(fn)(detail::passAs<P>(std::get<I>(holders_))...);
    }
    template <std::size_t... I>
    Tensor& outputAt(unsigned index, std::index_sequence<I...>) {
      Tensor* found = nullptr;
      ((I == index ? (found = outputPointer<I>()) : nullptr), ...);
      return *found;
    }
    template <std::size_t I>
    Tensor* outputPointer() {
      if constexpr (I < kOutputs)
        return &std::get<I>(holders_);
      else
        return nullptr;
    }

    const KernelEntryFor& entry_;
    std::tuple<detail::Holder<P>...> holders_;
  };
};

/// Appends an entry with a Config function (or nullptr for kernels that
/// validate inside their Impl). `defaults` fill trailing inputs a caller
/// omits. If the append fails the half-built entry is destroyed.
template <class... P>
void registerKernel(KernelRegistry& registry, const char* name, Status (*config)(P...), Status (*impl)(P...),
                    std::vector<Argument> defaults = {}) {
  auto entry = std::make_unique<KernelEntryFor<P...>>(name, config, impl, registry.libraryInfo);
  entry->defaults = std::move(defaults);
  registry.entries.push_back(std::move(entry));
}

template <class... P>
void registerKernel(KernelRegistry& registry, const char* name, std::nullptr_t, Status (*impl)(P...),
                    std::vector<Argument> defaults = {}) {
  registerKernel<P...>(registry, name, static_cast<Status (*)(P...)>(nullptr), impl, std::move(defaults));
}

}  // namespace kora
