// kora compare EXPECTED ACTUAL: every metric and the difference view.
#include <algorithm>
#include <cstdlib>
#include <ostream>

#include "Cli.h"

namespace kora::cli {

namespace {

bool parseNumber(const std::string& text, double& out) {
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return !text.empty() && end == text.c_str() + text.size();
}

}  // namespace

int compareCommand(const ParsedArgs& args, std::ostream& out, std::ostream& err) {
  if (args.positional.size() != 2)
    return usageError(err, "compare", fmt::format("needs EXPECTED and ACTUAL, got {} file{}", args.positional.size(),
                                                  args.positional.size() == 1 ? "" : "s"));
  CompareOptions options;
  for (const auto& [option, target] : {std::pair{"rtol", &options.rtol}, std::pair{"atol", &options.atol}}) {
    if (!args.has(option)) continue;
    const std::string text = args.last(option);
    if (!parseNumber(text, *target) || !(*target >= 0))
      return usageError(err, "compare", fmt::format("--{} '{}' is not a non-negative number", option, text));
  }
  options.equalNan = args.has("equal-nan");
  if (args.has("worst")) {
    double rows;
    if (!parseNumber(args.last("worst"), rows) || rows < 0 || rows != double(long(rows)) || rows > 1e6)
      return usageError(err, "compare", fmt::format("--worst '{}' is not a count", args.last("worst")));
    options.worstCount = long(rows);
  }

  const std::string& expectedPath = args.positional[0];
  const std::string& actualPath = args.positional[1];
  Tensor expected, actual;
  if (Status s = readTensorFile(expected, expectedPath); !s.ok()) return usageError(err, "compare", s.message());
  if (Status s = readTensorFile(actual, actualPath); !s.ok()) return usageError(err, "compare", s.message());
  Comparison c;
  if (Status s = compareTensors(c, expected, actual, options); !s.ok())
    return usageError(err, "compare", fmt::format("{} against {}: {}", actualPath, expectedPath, s.message()));

  DifferenceViewOptions view;
  view.worstRows = options.worstCount;
  const std::size_t width = std::max(expectedPath.size(), actualPath.size());
  out << fmt::format("expected  {:<{}}  {}\nactual    {:<{}}  {}\n", expectedPath, width, describe(expected), actualPath,
                     width, describe(actual))
      << formatMetrics(c) << differenceView(c, view);
  return c.allClose ? 0 : 1;
}

}  // namespace kora::cli
