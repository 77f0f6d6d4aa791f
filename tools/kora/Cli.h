#pragma once
// The `kora` command: the library's kernels, files and comparison metrics
// from the shell.
//
//   kora list [PATTERN]
//   kora run KERNEL ARG... [-o OUT]... [-t TYPE[:SHAPE]]... [--trace C,C,...]
//   kora compare EXPECTED ACTUAL [--rtol R] [--atol A] [--equal-nan] [--worst N]
//   kora show FILE [--all]
//
// Exit status: 0 success (compare: the tensors are close); 1 the kernel
// reported a failure (compare: the tensors are not close); 2 bad usage or
// bad input (a missing, truncated or corrupt file, an unknown kernel, an
// argument of the wrong kind or count); 3 the library stopped on a broken
// invariant (the trap message is printed first).
//
// Errors are one line on the error stream, "kora <command>: error: ...",
// naming the file or the argument at fault.
#include <csignal>
#include <iosfwd>
#include <string>
#include <vector>

#include "kora/Kora.h"

namespace kora::cli {

/// Runs one command line (without the program name) against `table`,
/// writing results to `out` and messages to `err`; returns the exit status.
int main(const std::vector<std::string>& args, const KernelRegistry& table, std::ostream& out, std::ostream& err);

/// Set when the library announces a trap ("trapped at ..."), just before it
/// stops the process: the program's signal handler then exits with status 3.
extern volatile std::sig_atomic_t trapAnnounced;

// ------------------------------------------------- shared by the commands

/// Options and positional arguments of one command line.
struct ParsedArgs {
  std::vector<std::string> positional;
  std::vector<std::pair<std::string, std::string>> options;  // (long name, value) in order

  bool has(const std::string& name) const;
  std::vector<std::string> all(const std::string& name) const;
  /// The last value given for `name`, or `fallback`.
  std::string last(const std::string& name, const std::string& fallback = "") const;
};

struct OptionSpec {
  const char* longName;
  char shortName;  // 0: none
  bool takesValue;
};

/// Parses `args` after the command word. A token that starts with '-' and
/// reads as a number ("-1", "-0.5", "-inf") is a positional argument; "--"
/// ends the options. Returns false after writing the error line to `err`.
bool parseArgs(const std::vector<std::string>& args, std::size_t first, const std::vector<OptionSpec>& specs,
               const char* command, ParsedArgs& parsed, std::ostream& err);

/// Writes "kora <command>: error: <message>" (first line of a multi-line
/// message only) and returns 2.
int usageError(std::ostream& err, const char* command, const std::string& message);

/// "2x3", or "()" for rank 0.
std::string shapeText(ArrayRef<long> shape);
/// "f32 2x3".
std::string describe(const Tensor& t);

int listCommand(const ParsedArgs& args, const KernelRegistry& table, std::ostream& out, std::ostream& err);
int runCommand(const ParsedArgs& args, const KernelRegistry& table, std::ostream& out, std::ostream& err);
int compareCommand(const ParsedArgs& args, std::ostream& out, std::ostream& err);
int showCommand(const ParsedArgs& args, std::ostream& out, std::ostream& err);

}  // namespace kora::cli
