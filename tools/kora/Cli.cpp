#include "Cli.h"

#include <cstdlib>
#include <new>
#include <ostream>
#include <string_view>

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

namespace kora::cli {

namespace {

constexpr const char* kUsage =
    "usage: kora COMMAND [ARGS]\n"
    "\n"
    "The reference kernels of libkora from the shell.\n"
    "\n"
    "commands:\n"
    "  list [PATTERN]                      the kernel table, one kernel a line with its parameter kinds\n"
    "  run KERNEL ARG... [-o OUT]...       run a kernel on tensors from files, optionally tracing one element\n"
    "  compare EXPECTED ACTUAL             all comparison metrics and the difference view\n"
    "  show FILE                           element type, shape and values of a tensor file\n"
    "\n"
    "Tensor files are read as .npy (versions 1 to 3) or as the library's serialized form,\n"
    "recognised by their content. 'kora COMMAND --help' describes each command.\n"
    "\n"
    "exit status: 0 success, 1 the kernel failed or the tensors differ, 2 bad usage or input,\n"
    "3 the library stopped on a broken invariant.\n";

constexpr const char* kListHelp =
    "usage: kora list [PATTERN]\n"
    "\n"
    "Lists the kernel table in registration order: the name, the kinds of the outputs and of the\n"
    "inputs (with the defaults of trailing inputs that may be omitted), and \"no Config\" for\n"
    "kernels whose outputs must be typed with -t when run.\n"
    "PATTERN selects kernels by a glob ('native::Re*') or, without wildcards, by a\n"
    "case-insensitive substring ('relu'). Exit status 1 when nothing matches.\n";

constexpr const char* kRunHelp =
    "usage: kora run KERNEL ARG... [-o OUT]... [-t TYPE[:SHAPE]]... [--trace C,C,...] [-v]\n"
    "\n"
    "Runs KERNEL (a name from 'kora list') on its inputs, given by position in the kernel's order:\n"
    "  Tensor        a tensor file (.npy or serialized); 'none' for an absent optional tensor\n"
    "  Tensor[]      tensor files separated by commas\n"
    "  numbers       literals: 3, -0.5, 1e-3, inf, nan; bool as true/false\n"
    "  lists         comma-separated numbers, optionally in brackets: 1,2,3 or [0.5,1]\n"
    "  string        the text itself (element types by name: f16, si8, ...; round modes: ROUND)\n"
    "Trailing inputs that have defaults may be omitted.\n"
    "\n"
    "options:\n"
    "  -o, --output FILE       where the next output goes: .npy, or the serialized form for names\n"
    "                          ending in .kora; outputs without -o are printed\n"
    "  -t, --out-type T[:S]    element type (and shape, as 2x3) of the next output, for kernels\n"
    "                          that take it from the caller (no Config, or a target type)\n"
    "  --trace C,C,...         trace this output coordinate: each arithmetic step is printed\n"
    "  -v, --verbose           print the whole message of a failing kernel\n"
    "  --                      ends the options: later arguments may begin with '-'\n"
    "\n"
    "Output files are written only when the kernel succeeds, each all or nothing.\n";

constexpr const char* kCompareHelp =
    "usage: kora compare EXPECTED ACTUAL [--rtol R] [--atol A] [--equal-nan] [--worst N]\n"
    "\n"
    "Compares ACTUAL against the reference EXPECTED (equal shapes, any numeric element types) and\n"
    "prints AllClose, AllIdentical, CosineDistance, RootMeanSquareDeviation,\n"
    "MaximumQuantizationNoise and SignalQuantizationNoiseRatio, then the worst mismatches with\n"
    "their coordinates and a histogram of |actual - expected|.\n"
    "\n"
    "options:\n"
    "  --rtol R        relative tolerance, scaled by |expected| (default 1e-05)\n"
    "  --atol A        absolute tolerance (default 1e-08)\n"
    "  --equal-nan     a NaN is close to a NaN\n"
    "  --worst N       rows of the worst-elements table (default 10)\n"
    "\n"
    "exit status: 0 when every element is close, 1 when not, 2 on bad input.\n";

constexpr const char* kShowHelp =
    "usage: kora show FILE [--all]\n"
    "\n"
    "Prints the file's format, element type and shape, then its values as numpy prints them;\n"
    "tensors of more than 1000 elements show only the first and last 3 entries of each axis.\n"
    "\n"
    "options:\n"
    "  --all           print every value\n";

struct Command {
  const char* name;
  const char* help;
  std::vector<OptionSpec> options;
};

const std::vector<Command>& commands() {
  static const std::vector<Command> list = {
      {"list", kListHelp, {{"help", 'h', false}}},
      {"run",
       kRunHelp,
       {{"help", 'h', false}, {"output", 'o', true}, {"out-type", 't', true}, {"trace", 0, true}, {"verbose", 'v', false}}},
      {"compare",
       kCompareHelp,
       {{"help", 'h', false}, {"rtol", 0, true}, {"atol", 0, true}, {"equal-nan", 0, false}, {"worst", 0, true}}},
      {"show", kShowHelp, {{"help", 'h', false}, {"all", 0, false}}},
  };
  return list;
}

/// For the length of one command: trace lines (written by kernels to the
/// logging library's default logger) go plainly to `out`, the library's
/// messages to `err`.
class Streams {
 public:
  Streams(std::ostream& out, std::ostream& err) : previous_(spdlog::default_logger()) {
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(out, true);
    sink->set_pattern("%v");
    auto logger = std::make_shared<spdlog::logger>("kora-trace", sink);
    logger->set_level(spdlog::level::info);
    spdlog::set_default_logger(logger);
    Context::get().regLogger(
        [](LogLevel level, const char* text, void* stream) {
          std::ostream& e = *static_cast<std::ostream*>(stream);
          if (level == LogLevel::critical) {
            if (std::string_view(text).starts_with("trapped at ")) trapAnnounced = 1;
            e << "kora: " << text << std::endl;
          } else if (level == LogLevel::warn) {
            e << "kora: warning: " << text << std::endl;
          } else {
            e << text << "\n";
          }
        },
        &err);
  }
  ~Streams() {
    Context::get().regLogger({}, nullptr);
    spdlog::set_default_logger(previous_);
  }

 private:
  std::shared_ptr<spdlog::logger> previous_;
};

bool readsAsNumber(const std::string& text) {
  if (text.size() < 2) return false;
  char* end = nullptr;
  std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size();
}

}  // namespace

bool ParsedArgs::has(const std::string& name) const {
  for (const auto& [key, value] : options)
    if (key == name) return true;
  return false;
}

std::vector<std::string> ParsedArgs::all(const std::string& name) const {
  std::vector<std::string> values;
  for (const auto& [key, value] : options)
    if (key == name) values.push_back(value);
  return values;
}

std::string ParsedArgs::last(const std::string& name, const std::string& fallback) const {
  std::string value = fallback;
  for (const auto& [key, v] : options)
    if (key == name) value = v;
  return value;
}

bool parseArgs(const std::vector<std::string>& args, std::size_t first, const std::vector<OptionSpec>& specs,
               const char* command, ParsedArgs& parsed, std::ostream& err) {
  bool optionsEnded = false;
  for (std::size_t i = first; i < args.size(); ++i) {
    const std::string& token = args[i];
    if (optionsEnded || token.size() < 2 || token[0] != '-' || readsAsNumber(token)) {
      parsed.positional.push_back(token);
      continue;
    }
    if (token == "--") {
      optionsEnded = true;
      continue;
    }
    const OptionSpec* spec = nullptr;
    std::string value;
    bool hasValue = false;
    if (token[1] == '-') {
      std::string name = token.substr(2);
      if (const auto eq = name.find('='); eq != std::string::npos) {
        value = name.substr(eq + 1);
        name.resize(eq);
        hasValue = true;
      }
      for (const OptionSpec& s : specs)
        if (name == s.longName) spec = &s;
    } else {
      for (const OptionSpec& s : specs)
        if (s.shortName && token[1] == s.shortName) spec = &s;
      if (spec && token.size() > 2) {
        value = token.substr(2);
        hasValue = true;
      }
    }
    if (!spec) return usageError(err, command, "unknown option '" + token + "'"), false;
    if (spec->takesValue && !hasValue) {
      if (i + 1 >= args.size())
        return usageError(err, command, "option '" + token + "' needs a value"), false;
      value = args[++i];
    } else if (!spec->takesValue && hasValue) {
      return usageError(err, command, "option '--" + std::string(spec->longName) + "' takes no value"), false;
    }
    parsed.options.emplace_back(spec->longName, value);
  }
  return true;
}

int usageError(std::ostream& err, const char* command, const std::string& message) {
  err << "kora" << (*command ? " " : "") << command << ": error: " << message.substr(0, message.find('\n')) << "\n";
  return 2;
}

std::string shapeText(ArrayRef<long> shape) {
  if (shape.empty()) return "()";
  std::string text;
  for (unsigned long i = 0; i < shape.size(); ++i) text += fmt::format("{}{}", i ? "x" : "", shape[i]);
  return text;
}

std::string describe(const Tensor& t) { return fmt::format("{} {}", elementTypeName(t.elementType()), shapeText(t.shape())); }

volatile std::sig_atomic_t trapAnnounced = 0;

int main(const std::vector<std::string>& args, const KernelRegistry& table, std::ostream& out, std::ostream& err) {
  // The environment is read when the library's context is first used; a
  // malformed trace point there is bad input like any other.
  try {
    Context::get();
  } catch (const std::exception&) {
    return usageError(err, "", fmt::format("KORA_TRACE_COORD '{}' is not a coordinate such as 1,0,3",
                                           std::getenv("KORA_TRACE_COORD") ? std::getenv("KORA_TRACE_COORD") : ""));
  }
  Streams streams(out, err);
  if (args.empty()) {
    err << kUsage;
    return 2;
  }
  const std::string& word = args[0];
  if (word == "--help" || word == "-h" || (word == "help" && args.size() == 1)) {
    out << kUsage;
    return 0;
  }
  if (word == "--version") {
    out << "kora " << KORA_VERSION << " (" << KORA_GIT_HASH << ")\n";
    return 0;
  }
  if (word == "help") {
    for (const Command& c : commands())
      if (args[1] == c.name) return out << c.help, 0;
    return usageError(err, "", "unknown command '" + args[1] + "' (commands: list, run, compare, show)");
  }
  for (const Command& c : commands()) {
    if (word != c.name) continue;
    ParsedArgs parsed;
    if (!parseArgs(args, 1, c.options, c.name, parsed, err)) return 2;
    if (parsed.has("help")) return out << c.help, 0;
    // The library reports bad input through Status; what still throws
    // (memory exhausted, say) ends the command with its reason, not a crash.
    try {
      if (word == "list") return listCommand(parsed, table, out, err);
      if (word == "run") return runCommand(parsed, table, out, err);
      if (word == "compare") return compareCommand(parsed, out, err);
      return showCommand(parsed, out, err);
    } catch (const std::bad_alloc&) {
      return usageError(err, c.name, "out of memory");
    } catch (const std::exception& e) {
      return usageError(err, c.name, e.what());
    }
  }
  return usageError(err, "", "unknown command '" + word + "' (commands: list, run, compare, show)");
}

}  // namespace kora::cli
