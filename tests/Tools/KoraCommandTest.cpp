// The `kora` command: its commands run in-process against the test-local
// kernel table (and the library's own), and the program itself as a child
// process for what only a process shows (exit status after a trap, real files).
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <sstream>

#include "Cli.h"
#include "Kernel/TestKernels.h"

using namespace kora;
using test::tensorOf;
using test::valuesOf;

namespace {

struct Result { int status; std::string out, err; };

Result command(const std::vector<std::string>& args, const KernelRegistry& table = test::testKernels()) {
  std::ostringstream out, err;
  const int status = cli::main(args, table, out, err);
  return {status, out.str(), err.str()};
}

std::string save(const test::TempDir& dir, const std::string& name, const Tensor& t) {
  if (Status s = writeTensorFile(dir / name, t); !s.ok()) throw std::runtime_error(s.message());
  return dir / name;
}

Tensor load(const std::string& path) {
  Tensor t;
  if (Status s = readTensorFile(t, path); !s.ok()) throw std::runtime_error(s.message());
  return t;
}

Tensor f32(std::vector<long> shape, std::vector<float> values) { return tensorOf<float>(ElementType::f32, shape, values); }

/// The installed program, run by the shell with its output in files.
Result program(const std::vector<std::string>& args, const test::TempDir& dir) {
  std::string line = std::string("'") + KORA_CLI_PATH + "'";
  for (const std::string& a : args) line += " '" + a + "'";
  const int wait = std::system((line + " >'" + (dir / "stdout") + "' 2>'" + (dir / "stderr") + "'").c_str());
  Result r{WIFEXITED(wait) ? WEXITSTATUS(wait) : 128 + WTERMSIG(wait), test::readFile(dir / "stdout"), test::readFile(dir / "stderr")};
  std::filesystem::remove(dir / "stdout");
  std::filesystem::remove(dir / "stderr");
  return r;
}

}  // namespace

TEST(KoraCommand, HelpAndList) {
  const std::pair<std::vector<std::string>, std::string> help[] = {{{"list", "--help"}, "usage: kora list"},
                                                                    {{"help", "run"}, "usage: kora run"}};
  for (const auto& [args, usage] : help) EXPECT_EQ(command(args).out.substr(0, usage.size()), usage);
  EXPECT_EQ(command({"list"}).out,
            "test::Scale    outputs: Tensor          inputs: Tensor, double, int64_t[] = [], int8_t = 0\n"
            "test::Split    outputs: Tensor, Tensor  inputs: Tensor, float\n"
            "test::Fill     outputs: Tensor          inputs: double  (no Config)\n"
            "test::Concat   outputs: Tensor          inputs: Tensor[]\n"
            "test::Convert  outputs: Tensor          inputs: Tensor, string, uint64_t, bool\n");
  for (auto [pattern, lines] : {std::pair{"SPLIT", 1}, {"test::S*", 2}}) {
    Result r = command({"list", pattern});
    EXPECT_EQ(r.status, 0) << pattern;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), lines) << pattern;
  }
}

TEST(KoraCommand, MisuseAndFailuresExitWithTheirStatusAndOneMessage) {
  test::TempDir dir;
  const std::string in = save(dir, "in.npy", f32({2}, {1.f, -2.f}));
  const std::string e = save(dir, "e.npy", f32({2, 2}, {1, 2, 3, 4}));
  const std::string run = "kora run: error: ", compare = "kora compare: error: ", convert = "parameter fails to convert. Kernel expect type is ";
  struct Case { std::vector<std::string> args; int status; std::string err; };
  const Case cases[] = {
      {{}, 2, "usage: kora COMMAND [ARGS]\n"},  // (the start of the text)
      {{"frobnicate"}, 2, "kora: error: unknown command 'frobnicate' (commands: list, run, compare, show)\n"},
      {{"show", "--all=yes", "x"}, 2, "kora show: error: option '--all' takes no value\n"},
      {{"run", "scale", in}, 2, run + "no kernel is registered as \"scale\" (did you mean \"test::Scale\"?)\n"},
      {{"run", "test::Scale", in, "abc"}, 2, run + "test::Scale: 2-th " + convert + "double, but got a type string (argument 'abc')\n"},
      {{"run", "test::Scale", in, "1", "[]", "300"}, 2, run + "test::Scale: 4-th " + convert + "int8_t, but got a type int64_t (argument '300')\n"},
      {{"run", "test::Scale", in, "1", "[]", "1", "5"}, 2, run + "test::Scale expects 4 inputs, but got 5\n"},
      {{"run", "test::Scale", in, "1", "-o", "a.npy", "-o", "b.npy"}, 2, run + "test::Scale has 1 output, but 2 were given with -o\n"},
      {{"run", "test::Fill", "1"}, 2, run + "test::Fill: output 0 has no element type; pass it with one\n"},
      {{"run", "test::Scale", in, "1", "--trace", "1,x"}, 2, run + "--trace '1,x' is not a coordinate such as 1,0,3\n"},
      // Failures the kernel itself reports: status 1, the first line of the message; nothing is written.
      {{"run", "test::Scale", in, "1", "[]", "13", "-o", dir / "never.npy"}, 1,
       run + "test::Scale config function call failure! Scale config error: unlucky offset\n"},
      {{"compare", e}, 2, compare + "needs EXPECTED and ACTUAL, got 1 file\n"},
      {{"compare", e, e, "--rtol", "-1"}, 2, compare + "--rtol '-1' is not a non-negative number\n"},
      {{"compare", e, save(dir, "v.npy", f32({4}, {1, 2, 3, 4}))}, 2, compare + dir / "v.npy" + " against " + e + ": shape mismatch: expected 2x2, actual 4\n"},
  };
  for (const Case& c : cases) {
    Result r = command(c.args);
    EXPECT_EQ(r.status, c.status) << c.err;
    EXPECT_EQ(c.args.empty() ? r.err.substr(0, c.err.size()) : r.err, c.err);
    EXPECT_EQ(r.out, "") << c.err;
  }
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"e.npy", "in.npy", "v.npy"}));
  // -v adds the rest of the layer's message.
  Result r = command({"run", "test::Scale", in, "1", "[]", "13", "-v"});
  EXPECT_EQ(r.err.rfind(run + "test::Scale config function call failure! Scale config error: unlucky offset\n"
                              "(Config invoke) The input params: Tensor<f32,2,4>, 1, [], 13\nIt's defined at ", 0), 0u) << r.err;
}

TEST(KoraCommand, RunConvertsEachArgumentByItsParameterKindAndWritesOrShowsOutputs) {
  test::TempDir dir;
  const std::string in = save(dir, "in.npy", f32({2}, {1.f, -2.f}));
  const std::string a = save(dir, "a.npy", f32({2}, {1.f, 2.f})), b = save(dir, "b.kora", f32({1}, {3.f}));
  struct Case { std::vector<std::string> args; std::vector<float> values; /* of the one output, written with -o */ };
  const Case cases[] = {
      {{"test::Scale", in, "2"}, {2.f, -4.f}},               // trailing inputs take their defaults
      {{"test::Scale", in, "2", "[]", "-3"}, {-1.f, -7.f}},  // a negative number is no option
      {{"test::Scale", in, "0.5", "", "0x10"}, {16.5f, 15.f}},
      {{"test::Scale", in, "-inf", "[ ]", "010"}, {-INFINITY, INFINITY}},  // 010 is ten
      {{"test::Concat", a + "," + b}, {1.f, 2.f, 3.f}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"run"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", dir / "out.npy"});
    Result r = command(args);
    ASSERT_EQ(r.status, 0) << c.args[0] << ": " << r.err;
    EXPECT_EQ(r.err + r.out, "");
    Tensor out = load(dir / "out.npy");
    EXPECT_EQ(valuesOf<float>(out), c.values) << c.args[0];
  }
  // Outputs without -o are shown; -o takes the outputs in order.
  // A string, an element type by its name and a flag, converted by kind.
  ASSERT_EQ(command({"run", "test::Convert", in, "cast", "si16", "1", "-o", dir / "h.npy"}).status, 0);
  EXPECT_EQ(valuesOf<int16_t>(load(dir / "h.npy")), (std::vector<int16_t>{1, -2}));
  Result r = command({"run", "test::Split", in, "0.75", "-o", dir / "lo.npy"});
  EXPECT_EQ(valuesOf<float>(load(dir / "lo.npy")), (std::vector<float>{0.75f, -2.f}));
  EXPECT_EQ(r.out, "output 1: f32 2\n[1.   0.75]\n");
  EXPECT_EQ(command({"run", "test::Fill", "2.5", "-t", "f32:2x2"}).out, "output 0: f32 2x2\n[[2.5 2.5]\n [2.5 2.5]]\n");
  // One element is traced for the one command.
  const std::string x = save(dir, "x.npy", f32({2, 3}, {-1.5f, 0.f, 2.25f, 3.f, -0.5f, -7.f}));
  r = command({"run", "native::ReLU", x, "--trace", "[1, 2]"}, kernelTable());
  EXPECT_EQ(r.out + r.err, "fout[1, 2] = relu(fin[1, 2]) // relu(-7) -> 0 \noutput 0: f32 2x3\n[[0.   0.   2.25]\n [3.   0.   0.  ]]\n");
  EXPECT_TRUE(Context::get().getTracePoint().empty()) << "the trace point lasts one command";
  r = command({"run", "native::ReLU", x, "--trace", "2,0", "-o", dir / "out.npy"}, kernelTable());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out + r.err, "kora run: warning: trace point [2, 0] lies outside every output (2x3); nothing was traced\n");
}

TEST(KoraCommand, CompareExitsByClosenessAndShowPrintsFiles) {
  test::TempDir dir;
  const Tensor expected = f32({2, 2}, {1, 2, 3, 4}), actual = f32({2, 2}, {1, 2.5f, 3, 3.75f});
  const std::string e = save(dir, "e.npy", expected), a = save(dir, "a.npy", actual);
  // The report is the library's (its texts are checked with the metrics).
  Comparison c;
  ASSERT_TRUE(compareTensors(c, expected, actual).ok());
  Result r = command({"compare", e, a});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "expected  " + e + "  f32 2x2\nactual    " + a + "  f32 2x2\n" + formatMetrics(c) + differenceView(c));
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{e, e}, 0}, {{e, a, "--atol", "0.5"}, 0}};
  for (const auto& [args, status] : cases) {
    std::vector<std::string> full = {"compare"};
    full.insert(full.end(), args.begin(), args.end());
    EXPECT_EQ(command(full).status, status) << args.back();
  }
  const std::string s = save(dir, "s.kora", tensorOf<int8_t>(ElementType::si8, {}, {-3}));
  EXPECT_EQ(command({"show", e}).out, e + ": f32 2x2 (.npy 1.0, 4 elements)\n[[1. 2.]\n [3. 4.]]\n");
  EXPECT_EQ(command({"show", s}).out, s + ": si8 () (serialized tensor, 1 elements)\n-3\n");
}

TEST(KoraCommand, TheProgramEndToEnd) {
  test::TempDir dir;
  EXPECT_EQ(program({"--version"}, dir).out, std::string("kora ") + KORA_VERSION + " (" + KORA_GIT_HASH + ")\n");
  // A kernel meeting an element type it does not serve stops the library;
  // the program says why and exits with status 3 instead of dumping core.
  const std::string flags = save(dir, "flags.npy", tensorOf<uint8_t>(ElementType::bool8, {2}, {1, 0}));
  Result r = program({"run", "native::ReLU", flags, "-o", dir / "never.npy"}, dir);
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.err.find("kora: trapped at include/kora/Core/ElementType, line "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("kora: unknown element type: bool8\n"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(dir / "never.npy"));
}
