// kora list [PATTERN]: the kernel table, one kernel a line.
#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <ostream>

#include "Cli.h"

namespace kora::cli {

namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

bool matches(const std::string& pattern, const char* name) {
  if (pattern.empty()) return true;
  if (pattern.find_first_of("*?[") != std::string::npos) return fnmatch(pattern.c_str(), name, 0) == 0;
  return lower(name).find(lower(pattern)) != std::string::npos;
}

/// "Tensor, double, int64_t[] = [], int8_t = 0": inputs with their defaults.
std::string inputsText(const KernelEntry& entry) {
  std::string text;
  const unsigned long firstDefault = entry.numInputs - std::min<unsigned long>(entry.defaults.size(), entry.numInputs);
  for (unsigned long i = 0; i < entry.numInputs; ++i) {
    text += (i ? ", " : "") + kindName(entry.inputKinds[i]);
    if (i >= firstDefault) text += " = " + toString(entry.defaults[entry.defaults.size() - (entry.numInputs - i)]);
  }
  return text;
}

}  // namespace

int listCommand(const ParsedArgs& args, const KernelRegistry& table, std::ostream& out, std::ostream& err) {
  if (args.positional.size() > 1) return usageError(err, "list", "takes at most one PATTERN");
  const std::string pattern = args.positional.empty() ? "" : args.positional[0];
  struct Line {
    std::string name, outputs, inputs;
    bool config;
  };
  std::vector<Line> lines;
  std::size_t nameWidth = 0, outputsWidth = 0;
  for (const auto& entry : table.entries) {
    if (!matches(pattern, entry->name)) continue;
    std::string outputs;
    for (unsigned long i = 0; i < entry->numOutputs; ++i) outputs += (i ? ", " : "") + kindName(entry->outputKinds[i]);
    lines.push_back({entry->name, outputs, inputsText(*entry), entry->hasConfig()});
    nameWidth = std::max(nameWidth, lines.back().name.size());
    outputsWidth = std::max(outputsWidth, lines.back().outputs.size());
  }
  if (lines.empty()) {
    err << "kora list: no kernel matches '" << pattern << "'\n";
    return 1;
  }
  for (const Line& l : lines)
    out << fmt::format("{:<{}}  outputs: {:<{}}  inputs: {}{}\n", l.name, nameWidth, l.outputs, outputsWidth, l.inputs,
                       l.config ? "" : "  (no Config)");
  return 0;
}

}  // namespace kora::cli
