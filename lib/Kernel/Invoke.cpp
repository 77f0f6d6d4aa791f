#include "kora/Kernel/Invoke.h"

#include <string>

#include <fmt/format.h>

#include "kora/Core/Context.h"
#include "kora/Kernel/KindCode.h"

namespace kora {

namespace {

uint64_t parameterKind(const KernelEntry& entry, unsigned long index) {
  return index < entry.numOutputs ? entry.outputKinds[index] : entry.inputKinds[index - entry.numOutputs];
}

std::string describe(const std::vector<Argument>& args, unsigned long first, unsigned long count) {
  std::string text;
  for (unsigned long i = first; i < first + count && i < args.size(); ++i)
    text += fmt::format("{}{}", i > first ? ", " : "", toString(args[i]));
  return text;
}

std::string definedAt(const KernelEntry& entry) {
  auto text = [](uint64_t word) { return word ? reinterpret_cast<const char*>(word) : "?"; };
  return fmt::format("It's defined at {} {} ({})", text(entry.libraryInfo[0]), text(entry.libraryInfo[1]),
                     text(entry.libraryInfo[2]));
}

Status conversionFailure(const KernelEntry& entry, const std::vector<Argument>& args, long index) {
  const std::string expected = kindName(parameterKind(entry, index));
  const std::string got = args[index].kindName();
  std::string message = fmt::format("{}: {}-th parameter fails to convert. Kernel expect type is {}, but got a type {}",
                                    entry.name, index, expected, got);
  if (expected == "Tensor[]" && got == "Tensor") message += ". you should use vector<Variable> to wrap vector<Tensor>.";
  return Status::failure(message);
}

}  // namespace

Status invoke(const KernelEntry& entry, std::vector<Tensor>& outputs, std::vector<Argument> inputs) {
  const unsigned long numOutputs = entry.numOutputs;
  const unsigned long numInputs = entry.numInputs;
  if (outputs.empty()) outputs.resize(numOutputs);
  if (outputs.size() != numOutputs)
    return failure("{} expects {} outputs, but got {}", entry.name, numOutputs, outputs.size());
  const unsigned long omitted = numInputs > inputs.size() ? numInputs - inputs.size() : 0;
  if (inputs.size() > numInputs || omitted > entry.defaults.size())
    return failure("{} expects {} inputs, but got {}", entry.name, numInputs, inputs.size());
  for (unsigned long i = inputs.size(); i < numInputs; ++i)
    inputs.push_back(entry.defaults[entry.defaults.size() - (numInputs - i)]);

  std::vector<Argument> args;
  args.reserve(numOutputs + numInputs);
  for (const Tensor& t : outputs) args.emplace_back(t);
  for (Argument& a : inputs) args.push_back(std::move(a));

  long failedIndex = -1;
  std::unique_ptr<BoundCall> call = entry.bind(args, failedIndex);
  if (!call) return conversionFailure(entry, args, failedIndex);

  Context& context = Context::get();
  const bool verbose = context.getVerbose();
  if (verbose)
    context.logf(LogLevel::info, "{} (Config invoke) The input params: {}", entry.name,
                 describe(args, numOutputs, numInputs));
  if (entry.config) {
    Status status = call->config();
    if (!status.ok())
      return failure("{} config function call failure! {}\n(Config invoke) The input params: {}\n{}", entry.name,
                     status.message(), describe(args, numOutputs, numInputs), definedAt(entry));
  }
  for (unsigned i = 0; i < numOutputs; ++i) {
    Tensor& out = call->output(i);
    if (out.storage()) continue;
    if (out.elementType() == ElementType::invalid)
      return failure("{}: output {} has no element type; pass it with one", entry.name, i);
    out.allocate();
  }
  Status status = call->impl();
  for (unsigned i = 0; i < numOutputs; ++i) outputs[i] = call->output(i);
  if (verbose) {
    std::vector<Argument> outs(outputs.begin(), outputs.end());
    context.logf(LogLevel::info, "{} (Impl invoke) The output params: {}", entry.name, describe(outs, 0, numOutputs));
  }
  if (!status.ok())
    return failure("{} impl function call failure! {}\n(Impl invoke) The output params: {}\n{}", entry.name,
                   status.message(), describe(std::vector<Argument>(outputs.begin(), outputs.end()), 0, numOutputs),
                   definedAt(entry));
  return Status::success();
}

Status invoke(std::string_view name, std::vector<Tensor>& outputs, std::vector<Argument> inputs) {
  const KernelEntry* entry = findKernel(name);
  if (!entry) return failure("no kernel is registered as \"{}\"", name);
  return invoke(*entry, outputs, std::move(inputs));
}

}  // namespace kora
