// kora run KERNEL ARG... [-o OUT]...: one call through the invocation layer.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <ostream>

#include "Cli.h"

namespace kora::cli {

namespace {

constexpr uint64_t kKindTensorList = kKindArray + kKindTensor - 0x1000000;  // "Tensor[]"

std::string trim(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  for (;;) {
    const auto at = text.find(separator, start);
    pieces.push_back(trim(text.substr(start, at == std::string::npos ? std::string::npos : at - start)));
    if (at == std::string::npos) return pieces;
    start = at + 1;
  }
}

/// Decimal (a leading zero stays decimal) or hexadecimal with 0x.
bool parseInteger(const std::string& text, int64_t& out) {
  std::size_t digits = text.size() > 0 && (text[0] == '+' || text[0] == '-') ? 1 : 0;
  const bool hex = text.size() > digits + 2 && text[digits] == '0' && (text[digits + 1] == 'x' || text[digits + 1] == 'X');
  if (digits >= text.size() || !std::isdigit(static_cast<unsigned char>(text[digits]))) return false;
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, hex ? 16 : 10);
  if (errno != 0 || end != text.c_str() + text.size()) return false;
  out = value;
  return true;
}

bool parseReal(const std::string& text, double& out) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size();
}

/// A literal by its own spelling: true/false, an integer, a real, else text.
Argument literal(const std::string& text) {
  if (text == "true" || text == "True") return Argument(true);
  if (text == "false" || text == "False") return Argument(false);
  int64_t i;
  if (parseInteger(text, i)) return Argument(long(i));
  double d;
  if (parseReal(text, d)) return Argument(d);
  return Argument(text);
}

/// A list literal, "1,2,3" or "[0.5, 1]"; an empty text is the empty list.
Argument listLiteral(const std::string& text) {
  std::string body = trim(text);
  if (body.size() >= 2 && body.front() == '[' && body.back() == ']') body = trim(body.substr(1, body.size() - 2));
  std::vector<int64_t> ints;
  std::vector<double> reals;
  bool allIntegers = true;
  if (!body.empty()) {
    for (const std::string& piece : split(body, ',')) {
      int64_t i;
      double d;
      if (parseInteger(piece, i)) {
        ints.push_back(i);
        reals.push_back(double(i));
      } else if (parseReal(piece, d)) {
        allIntegers = false;
        reals.push_back(d);
      } else {
        return Argument(text);  // the layer names the kind it wanted
      }
    }
  }
  return allIntegers ? Argument(std::move(ints)) : Argument(std::move(reals));
}

/// One positional argument for a parameter of kind `kind` (0: beyond the
/// kernel's inputs). Tensors are read from files here; everything else is
/// handed to the invocation layer, which converts it or says why not.
Status parseArgument(const std::string& text, uint64_t kind, Argument& out) {
  if (kind == kKindTensor) {
    if (text == "none") return out = Argument(Tensor()), Status::success();
    Tensor t;
    KORA_RETURN_IF_ERROR(readTensorFile(t, text));
    out = Argument(std::move(t));
    return Status::success();
  }
  if (kind == kKindTensorList) {
    std::vector<Tensor> list;
    if (!trim(text).empty()) {
      for (const std::string& path : split(text, ',')) {
        Tensor t;
        KORA_RETURN_IF_ERROR(readTensorFile(t, path));
        list.push_back(std::move(t));
      }
    }
    out = Argument(std::move(list));
    return Status::success();
  }
  if (kind == kKindString) return out = Argument(text), Status::success();
  if (kind >= kKindArray && kind < kKindArray + 0x1000000) return out = listLiteral(text), Status::success();
  out = literal(text);
  return Status::success();
}

Status parseOutputType(const std::string& text, Tensor& out) {
  const auto colon = text.find(':');
  const std::string typeName = text.substr(0, colon);
  const ElementType type = elementTypeFromName(typeName);
  if (type == ElementType::invalid) return failure("-t '{}': unknown element type '{}'", text, typeName);
  std::vector<long> shape;
  if (colon != std::string::npos && colon + 1 < text.size()) {
    for (const std::string& piece : split(text.substr(colon + 1), 'x')) {
      int64_t size;
      if (!parseInteger(piece, size) || size < 0) return failure("-t '{}': '{}' is not a size", text, piece);
      shape.push_back(long(size));
    }
    if (shape.size() > kMaxRank) return failure("-t '{}': a tensor has at most {} dimensions", text, kMaxRank);
  }
  out = Tensor(type, shape);
  return Status::success();
}

Status parseCoordinate(const std::string& text, std::vector<long>& point) {
  std::string body = trim(text);
  if (body.size() >= 2 && body.front() == '[' && body.back() == ']') body = body.substr(1, body.size() - 2);
  for (const std::string& piece : split(body, ',')) {
    int64_t value;
    if (!parseInteger(piece, value)) return failure("--trace '{}' is not a coordinate such as 1,0,3", text);
    point.push_back(long(value));
  }
  if (point.size() > kMaxRank) return failure("--trace '{}' has more than {} entries", text, kMaxRank);
  return Status::success();
}

const KernelEntry* findEntry(const KernelRegistry& table, const std::string& name) {
  for (const auto& entry : table.entries)
    if (name == entry->name) return entry.get();
  return nullptr;
}

/// Registered names the user may have meant: equal ignoring case, or equal
/// after the family prefix.
std::string suggestion(const KernelRegistry& table, const std::string& name) {
  auto lower = [](std::string s) {
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  std::vector<std::string> near;
  for (const auto& entry : table.entries) {
    const std::string full = entry->name;
    const std::string bare = full.substr(full.find("::") == std::string::npos ? 0 : full.find("::") + 2);
    if (lower(full) == lower(name) || lower(bare) == lower(name)) near.push_back("\"" + full + "\"");
  }
  if (near.empty()) return " (see 'kora list')";
  std::string text = " (did you mean ";
  for (std::size_t i = 0; i < near.size() && i < 3; ++i) text += (i ? " or " : "") + near[i];
  return text + "?)";
}

/// The layer names a parameter that does not convert by its position among
/// outputs and inputs; the user also wants to see what they typed.
std::string withArgumentText(const std::string& message, const KernelEntry& entry, const std::vector<std::string>& texts) {
  const auto marker = message.find("-th parameter fails to convert");
  if (marker == std::string::npos) return message;
  const auto start = message.rfind(' ', marker) + 1;
  const long index = std::strtol(message.c_str() + start, nullptr, 10) - long(entry.numOutputs);
  if (index < 0 || index >= long(texts.size())) return message;
  const auto lineEnd = message.find('\n');
  return message.substr(0, lineEnd) + fmt::format(" (argument '{}')", texts[std::size_t(index)]) +
         (lineEnd == std::string::npos ? "" : message.substr(lineEnd));
}

bool traced(const std::vector<long>& point, const Tensor& t) {
  if (point.size() != t.rank()) return false;
  for (unsigned long i = 0; i < point.size(); ++i)
    if (point[i] < 0 || point[i] >= t.dim(long(i))) return false;
  return true;
}

/// Restores the context's trace point when the command ends.
class TracePointScope {
 public:
  explicit TracePointScope(const std::vector<long>& point) : saved_(Context::get().getTracePoint().vec()) {
    Context::get().setTracePoint(point);
  }
  ~TracePointScope() { Context::get().setTracePoint(saved_); }

 private:
  std::vector<long> saved_;
};

}  // namespace

int runCommand(const ParsedArgs& args, const KernelRegistry& table, std::ostream& out, std::ostream& err) {
  if (args.positional.empty()) return usageError(err, "run", "missing KERNEL (see 'kora list')");
  const std::string& name = args.positional[0];
  const KernelEntry* entry = findEntry(table, name);
  if (!entry) return usageError(err, "run", fmt::format("no kernel is registered as \"{}\"{}", name, suggestion(table, name)));

  const std::vector<std::string> paths = args.all("output"), types = args.all("out-type");
  if (paths.size() > entry->numOutputs || types.size() > entry->numOutputs)
    return usageError(err, "run", fmt::format("{} has {} output{}, but {} were given with {}", entry->name, entry->numOutputs,
                                              entry->numOutputs == 1 ? "" : "s", std::max(paths.size(), types.size()),
                                              paths.size() > entry->numOutputs ? "-o" : "-t"));
  std::vector<Tensor> outputs(entry->numOutputs);
  for (std::size_t i = 0; i < types.size(); ++i)
    if (Status s = parseOutputType(types[i], outputs[i]); !s.ok()) return usageError(err, "run", s.message());

  std::vector<long> point;
  const bool tracing = args.has("trace");
  if (tracing)
    if (Status s = parseCoordinate(args.last("trace"), point); !s.ok()) return usageError(err, "run", s.message());

  const std::vector<std::string> texts(args.positional.begin() + 1, args.positional.end());
  std::vector<Argument> inputs;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    Argument a;
    if (Status s = parseArgument(texts[i], i < entry->numInputs ? entry->inputKinds[i] : 0, a); !s.ok())
      return usageError(err, "run", s.message());
    inputs.push_back(std::move(a));
  }

  Status status;
  {
    std::optional<TracePointScope> scope;
    if (tracing) scope.emplace(point);
    status = invoke(*entry, outputs, std::move(inputs));
  }
  if (!status.ok()) {
    const std::string& message = status.message();
    const bool kernelFailed = message.find(" config function call failure! ") != std::string::npos ||
                              message.find(" impl function call failure!") != std::string::npos;
    const std::string shown = withArgumentText(message, *entry, texts);
    usageError(err, "run", shown);
    if (args.has("verbose") && shown.find('\n') != std::string::npos) err << shown.substr(shown.find('\n') + 1) << "\n";
    return kernelFailed ? 1 : 2;
  }

  if (tracing && !point.empty() && std::none_of(outputs.begin(), outputs.end(), [&](const Tensor& t) { return traced(point, t); })) {
    std::string shapes;
    for (const Tensor& t : outputs) shapes += (shapes.empty() ? "" : ", ") + shapeText(t.shape());
    err << fmt::format("kora run: warning: trace point {} lies outside every output ({}); nothing was traced\n",
                       fmt::format("{}", Coord(point)), shapes);
  }
  int result = 0;
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    if (i < paths.size()) {
      if (Status s = writeTensorFile(paths[i], outputs[i]); !s.ok()) result = usageError(err, "run", s.message());
      continue;
    }
    out << fmt::format("output {}: {}\n{}\n", i, describe(outputs[i]), formatValues(outputs[i]));
  }
  return result;
}

}  // namespace kora::cli
