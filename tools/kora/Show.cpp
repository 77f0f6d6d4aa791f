// kora show FILE: format, element type, shape and values of a tensor file.
#include <ostream>

#include "Cli.h"

namespace kora::cli {

int showCommand(const ParsedArgs& args, std::ostream& out, std::ostream& err) {
  if (args.positional.size() != 1)
    return usageError(err, "show", fmt::format("needs one FILE, got {}", args.positional.size()));
  const std::string& path = args.positional[0];
  Tensor t;
  TensorFileInfo info;
  if (Status s = readTensorFile(t, path, &info); !s.ok()) return usageError(err, "show", s.message());
  const std::string format = info.format == TensorFileFormat::Npy
                                 ? fmt::format(".npy {}{}", info.version, info.fortranOrder ? ", Fortran order" : "")
                                 : std::string("serialized tensor");
  PrintOptions print;
  if (args.has("all")) print.threshold = -1;
  out << fmt::format("{}: {} ({}, {} elements)\n{}\n", path, describe(t), format, t.isEmpty() ? 0 : t.numElements(),
                     formatValues(t, print));
  return 0;
}

}  // namespace kora::cli
