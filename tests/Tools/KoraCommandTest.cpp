// The `kora` command: its commands run in-process against a test-local kernel
// table (and the library's own), and the program itself as a child process
// for what only a process shows (exit status after a trap, real files).
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include "Cli.h"
#include "TestUtil.h"

using namespace kora;
using test::tensorOf;
using test::valuesOf;

namespace {

// ------------------------------------------------ a test-local kernel table

Status scaleConfig(Tensor& out, Tensor const& in, double, const std::vector<long>&, int8_t offset) {
  if (offset == 13) return configError("Scale", "unlucky offset");
  out.setShape(in.shape());
  if (out.elementType() == ElementType::invalid) out.setElementType(in.elementType());
  return Status::success();
}

Status scale(Tensor& out, Tensor const& in, double k, const std::vector<long>& dims, int8_t offset) {
  if (in.elementType() != ElementType::f32) return Status::failure("only f32");
  if (!dims.empty()) return failure("dims {} not supported", dims.size());
  mapElements<float, float>(out, in, [&](float x) { return x * float(k) + float(offset); });
  return Status::success();
}

Status splitConfig(Tensor& lo, Tensor& hi, Tensor const& in, float) {
  for (Tensor* t : {&lo, &hi}) {
    t->setShape(in.shape());
    t->setElementType(in.elementType());
  }
  return Status::success();
}

Status split(Tensor& lo, Tensor& hi, Tensor const& in, float threshold) {
  mapElements<float, float>(lo, in, [&](float x) { return std::min(x, threshold); });
  mapElements<float, float>(hi, in, [&](float x) { return std::max(x, threshold); });
  return Status::success();
}

Status fill(Tensor& out, double value) {
  if (out.elementType() != ElementType::f32) return Status::failure("Fill serves f32 only");
  for (float& x : out.data<float>()) x = float(value);
  return Status::success();
}

Status concatConfig(Tensor& out, const std::vector<Tensor>& ins) {
  long n = 0;
  for (const Tensor& t : ins) n += t.numElements();
  out.setShape(std::vector<long>{n});
  out.setElementType(ElementType::f32);
  return Status::success();
}

Status concat(Tensor& out, const std::vector<Tensor>& ins) {
  long at = 0;
  for (const Tensor& t : ins)
    for (float x : valuesOf<float>(t)) out.data<float>()[std::size_t(at++)] = x;
  return Status::success();
}

Status convertConfig(Tensor& out, Tensor const& in, const std::string&, ElementType type, bool enabled) {
  if (!enabled) return configError("Convert", "switched off");
  out.setShape(in.shape());
  out.setElementType(type);
  return Status::success();
}

Status convert(Tensor& out, Tensor const& in, const std::string& mode, ElementType type, bool) {
  if (mode != "cast") return failure("unknown mode {}", mode);
  copyElements(out, in.cast(type));
  return Status::success();
}

const KernelRegistry& testTable() {
  static const KernelRegistry table = [] {
    KernelRegistry t;
    registerKernel(t, "test::Scale", &scaleConfig, &scale, {Argument(std::vector<int64_t>{}), Argument(0)});
    registerKernel(t, "test::Split", &splitConfig, &split);
    registerKernel(t, "test::Fill", nullptr, &fill);
    registerKernel(t, "test::Concat", &concatConfig, &concat);
    registerKernel(t, "test::Convert", &convertConfig, &convert);
    return t;
  }();
  return table;
}

// ------------------------------------------------------------- harness

struct Result {
  int status;
  std::string out, err;
};

Result command(const std::vector<std::string>& args, const KernelRegistry& table = testTable()) {
  std::ostringstream out, err;
  const int status = cli::main(args, table, out, err);
  return {status, out.str(), err.str()};
}

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kora-cli-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  std::vector<std::string> names() const {
    std::vector<std::string> list;
    for (const auto& e : std::filesystem::directory_iterator(path_)) list.push_back(e.path().filename().string());
    std::sort(list.begin(), list.end());
    return list;
  }

 private:
  std::filesystem::path path_;
};

std::string save(const TempDir& dir, const std::string& name, const Tensor& t) {
  const std::string path = dir / name;
  Status s = writeTensorFile(path, t);
  if (!s.ok()) throw std::runtime_error(s.message());
  return path;
}

Tensor load(const std::string& path) {
  Tensor t;
  Status s = readTensorFile(t, path);
  if (!s.ok()) throw std::runtime_error(s.message());
  return t;
}

/// The installed program, run by the shell with its output in files.
Result program(const std::vector<std::string>& args, const TempDir& dir) {
  std::string command = std::string("'") + KORA_CLI_PATH + "'";
  for (const std::string& a : args) command += " '" + a + "'";
  command += " >'" + (dir / "stdout") + "' 2>'" + (dir / "stderr") + "'";
  const int wait = std::system(command.c_str());
  auto slurp = [](const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  Result r{WIFEXITED(wait) ? WEXITSTATUS(wait) : 128 + WTERMSIG(wait), slurp(dir / "stdout"), slurp(dir / "stderr")};
  std::filesystem::remove(dir / "stdout");
  std::filesystem::remove(dir / "stderr");
  return r;
}

}  // namespace

TEST(KoraCommand, HelpAndUsage) {
  Result r = command({});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err.rfind("usage: kora COMMAND [ARGS]\n", 0), 0u);
  for (const char* word : {"--help", "-h", "help"}) {
    r = command({word});
    EXPECT_EQ(r.status, 0) << word;
    EXPECT_EQ(r.out.rfind("usage: kora COMMAND [ARGS]\n", 0), 0u) << word;
  }
  for (const char* name : {"list", "run", "compare", "show"}) {
    const std::string usage = std::string("usage: kora ") + name;
    EXPECT_EQ(command({name, "--help"}).out.rfind(usage, 0), 0u) << name;
    EXPECT_EQ(command({"help", name}).out.rfind(usage, 0), 0u) << name;
  }
  r = command({"frobnicate"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "kora: error: unknown command 'frobnicate' (commands: list, run, compare, show)\n");
  EXPECT_EQ(command({"list", "--frob"}).err, "kora list: error: unknown option '--frob'\n");
  EXPECT_EQ(command({"show", "--all=yes", "x"}).err, "kora show: error: option '--all' takes no value\n");
  EXPECT_EQ(command({"compare", "a", "b", "--rtol"}).err, "kora compare: error: option '--rtol' needs a value\n");
}

TEST(KoraCommand, ListShowsKindsDefaultsAndMissingConfigs) {
  Result r = command({"list"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "test::Scale    outputs: Tensor          inputs: Tensor, double, int64_t[] = [], int8_t = 0\n"
            "test::Split    outputs: Tensor, Tensor  inputs: Tensor, float\n"
            "test::Fill     outputs: Tensor          inputs: double  (no Config)\n"
            "test::Concat   outputs: Tensor          inputs: Tensor[]\n"
            "test::Convert  outputs: Tensor          inputs: Tensor, string, uint64_t, bool\n");
  struct Case {
    std::string pattern;
    int lines;
  };
  for (const Case& c : {Case{"SPLIT", 1}, Case{"test::S*", 2}, Case{"*::Con*", 2}, Case{"c", 3}}) {
    r = command({"list", c.pattern});
    EXPECT_EQ(r.status, 0) << c.pattern;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), c.lines) << c.pattern;
  }
  r = command({"list", "nothing"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "kora list: no kernel matches 'nothing'\n");
  EXPECT_EQ(command({"list", "a", "b"}).err, "kora list: error: takes at most one PATTERN\n");
  // The library's own table lists its kernels the same way.
  EXPECT_NE(command({"list", "native::ReLU"}, kernelTable()).out.find("native::ReLU  outputs: Tensor  inputs: Tensor\n"),
            std::string::npos);
}

TEST(KoraCommand, RunConvertsEachArgumentByItsParameterKind) {
  TempDir dir;
  const std::string in = save(dir, "in.npy", tensorOf<float>(ElementType::f32, {2}, {1.f, -2.f}));
  const std::string a = save(dir, "a.npy", tensorOf<float>(ElementType::f32, {2}, {1.f, 2.f}));
  const std::string b = save(dir, "b.kora", tensorOf<float>(ElementType::f32, {1}, {3.f}));
  struct Case {
    std::vector<std::string> args;
    std::vector<float> values;  // of the one output, written with -o
  };
  const Case cases[] = {
      {{"test::Scale", in, "2"}, {2.f, -4.f}},            // trailing inputs take their defaults
      {{"test::Scale", in, "2", "[]", "-3"}, {-1.f, -7.f}},  // a negative number is no option
      {{"test::Scale", in, "0.5", "", "0x10"}, {16.5f, 15.f}},
      {{"test::Scale", in, "-inf", "[ ]", "010"}, {-INFINITY, INFINITY}},  // 010 is ten
      {{"test::Concat", a + "," + b}, {1.f, 2.f, 3.f}},
      {{"test::Concat", b}, {3.f}},
      {{"test::Concat", ""}, {}},
      {{"test::Convert", in, "cast", "f32", "true"}, {1.f, -2.f}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"run"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", dir / "out.npy"});
    Result r = command(args);
    ASSERT_EQ(r.status, 0) << c.args[0] << ": " << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "");
    Tensor out = load(dir / "out.npy");
    EXPECT_EQ(out.isEmpty() ? std::vector<float>{} : valuesOf<float>(out), c.values) << c.args[0];
  }
  // The element type of Convert's output comes from a string argument.
  Result r = command({"run", "test::Convert", in, "cast", "si16", "1", "-o", dir / "h.npy"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(valuesOf<int16_t>(load(dir / "h.npy")), (std::vector<int16_t>{1, -2}));
}

TEST(KoraCommand, RunMisuseInTheLayersOwnWords) {
  TempDir dir;
  const std::string in = save(dir, "in.npy", tensorOf<float>(ElementType::f32, {2}, {1.f, -2.f}));
  const std::string ints = save(dir, "ints.npy", tensorOf<int32_t>(ElementType::si32, {2}, {1, 2}));
  std::ofstream(dir / "bad.npy") << "\x93NUMPY\x01";
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  const Case cases[] = {
      {{}, 2, "kora run: error: missing KERNEL (see 'kora list')\n"},
      {{"scale", in}, 2, "kora run: error: no kernel is registered as \"scale\" (did you mean \"test::Scale\"?)\n"},
      {{"test::Nothing"}, 2, "kora run: error: no kernel is registered as \"test::Nothing\" (see 'kora list')\n"},
      {{"test::Scale", in, "abc"}, 2,
       "kora run: error: test::Scale: 2-th parameter fails to convert. Kernel expect type is double, but got a type string "
       "(argument 'abc')\n"},
      {{"test::Scale", in, "1", "[1.5]"}, 2,
       "kora run: error: test::Scale: 3-th parameter fails to convert. Kernel expect type is int64_t[], but got a type double[] "
       "(argument '[1.5]')\n"},
      {{"test::Scale", in, "1", "[]", "300"}, 2,
       "kora run: error: test::Scale: 4-th parameter fails to convert. Kernel expect type is int8_t, but got a type int64_t "
       "(argument '300')\n"},
      {{"test::Scale", in, "1", "[]", "1", "5"}, 2, "kora run: error: test::Scale expects 4 inputs, but got 5\n"},
      {{"test::Scale"}, 2, "kora run: error: test::Scale expects 4 inputs, but got 0\n"},
      {{"test::Scale", dir / "none.npy", "1"}, 2, "kora run: error: " + (dir / "none.npy") + ": cannot open: No such file or directory\n"},
      {{"test::Scale", dir / "bad.npy", "1"}, 2, "kora run: error: " + (dir / "bad.npy") + ": truncated: 7 bytes end inside the .npy preamble\n"},
      {{"test::Scale", in, "1", "-o", "a.npy", "-o", "b.npy"}, 2, "kora run: error: test::Scale has 1 output, but 2 were given with -o\n"},
      {{"test::Fill", "1"}, 2, "kora run: error: test::Fill: output 0 has no element type; pass it with one\n"},
      {{"test::Fill", "1", "-t", "f99"}, 2, "kora run: error: -t 'f99': unknown element type 'f99'\n"},
      {{"test::Fill", "1", "-t", "f32:2xa"}, 2, "kora run: error: -t 'f32:2xa': 'a' is not a size\n"},
      {{"test::Scale", in, "1", "--trace", "1,x"}, 2, "kora run: error: --trace '1,x' is not a coordinate such as 1,0,3\n"},
      // Failures the kernel itself reports: status 1, the first line of the message.
      {{"test::Scale", in, "1", "[]", "13"}, 1,
       "kora run: error: test::Scale config function call failure! Scale config error: unlucky offset\n"},
      {{"test::Scale", ints, "1"}, 1, "kora run: error: test::Scale impl function call failure! only f32\n"},
      {{"test::Fill", "1", "-t", "si8:2"}, 1, "kora run: error: test::Fill impl function call failure! Fill serves f32 only\n"},
      {{"test::Convert", in, "cast", "f32", "false"}, 1,
       "kora run: error: test::Convert config function call failure! Convert config error: switched off\n"},
      {{"test::Convert", in, "-x", "f32", "true"}, 2, "kora run: error: unknown option '-x'\n"},
      {{"test::Convert", in, "--", "-x", "f32", "true"}, 1,
       "kora run: error: test::Convert impl function call failure! unknown mode -x\n"},
      {{"test::Convert", in, "cast", "f33", "true"}, 2,
       "kora run: error: test::Convert: 3-th parameter fails to convert. Kernel expect type is uint64_t, but got a type string "
       "(argument 'f33')\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"run"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Result r = command(args);
    EXPECT_EQ(r.status, c.status) << c.err;
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
  }
  // -v adds the rest of the layer's message.
  Result r = command({"run", "test::Scale", in, "1", "[]", "13", "-v"});
  EXPECT_EQ(r.err.rfind("kora run: error: test::Scale config function call failure! Scale config error: unlucky offset\n"
                        "(Config invoke) The input params: Tensor<f32,2,4>, 1, [], 13\nIt's defined at ",
                        0),
            0u)
      << r.err;
}

TEST(KoraCommand, RunOutputsGoToFilesOrAreShown) {
  TempDir dir;
  const std::string in = save(dir, "in.npy", tensorOf<float>(ElementType::f32, {3}, {-1.f, 0.5f, 4.f}));
  Result r = command({"run", "test::Split", in, "0.75", "-o", dir / "lo.npy"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(valuesOf<float>(load(dir / "lo.npy")), (std::vector<float>{-1.f, 0.5f, 0.75f}));
  EXPECT_EQ(r.out, "output 1: f32 3\n[0.75 0.75 4.  ]\n");
  r = command({"run", "test::Split", in, "0", "--output=" + (dir / "lo.kora"), "--output", dir / "hi.npy"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(valuesOf<float>(load(dir / "lo.kora")), (std::vector<float>{-1.f, 0.f, 0.f}));
  EXPECT_EQ(valuesOf<float>(load(dir / "hi.npy")), (std::vector<float>{0.f, 0.5f, 4.f}));
  r = command({"run", "test::Fill", "2.5", "-t", "f32:2x2"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "output 0: f32 2x2\n[[2.5 2.5]\n [2.5 2.5]]\n");

  // Nothing is written when the kernel fails, or when a file cannot hold the output.
  r = command({"run", "test::Scale", in, "1", "[]", "13", "-o", dir / "never.npy"});
  EXPECT_EQ(r.status, 1);
  r = command({"run", "test::Convert", in, "cast", "vbf16", "true", "-o", dir / "b.npy"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "kora run: error: " + (dir / "b.npy") +
                       ": element type vbf16 has no .npy counterpart; write it in the serialized form (a name ending in .kora)\n");
  r = command({"run", "test::Convert", in, "cast", "vbf16", "true", "-o", dir / "missing/b.npy"});
  EXPECT_EQ(r.err, "kora run: error: " + (dir / "missing/b.npy") + ": element type vbf16 has no .npy counterpart; "
                       "write it in the serialized form (a name ending in .kora)\n");
  r = command({"run", "test::Scale", in, "1", "-o", dir / "missing/b.npy"});
  EXPECT_EQ(r.err, "kora run: error: " + (dir / "missing/b.npy") + ": cannot write: No such file or directory\n");
  r = command({"run", "test::Convert", in, "cast", "vbf16", "true", "-o", dir / "b.kora"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(load(dir / "b.kora").elementType(), ElementType::vbf16);
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"b.kora", "hi.npy", "in.npy", "lo.kora", "lo.npy"}));
}

TEST(KoraCommand, RunTracesOneElement) {
  TempDir dir;
  const std::string in = save(dir, "in.npy", tensorOf<float>(ElementType::f32, {2, 3}, {-1.5f, 0.f, 2.25f, 3.f, -0.5f, -7.f}));
  Result r = command({"run", "native::ReLU", in, "--trace", "1,2", "-o", dir / "out.npy"}, kernelTable());
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "fout[1, 2] = relu(fin[1, 2]) // relu(-7) -> 0 \n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(valuesOf<float>(load(dir / "out.npy")), (std::vector<float>{0.f, 0.f, 2.25f, 3.f, 0.f, 0.f}));
  EXPECT_TRUE(Context::get().getTracePoint().empty()) << "the trace point lasts one command";

  r = command({"run", "native::ReLU", in, "--trace", "[0, 0]"}, kernelTable());
  EXPECT_EQ(r.out, "fout[0, 0] = relu(fin[0, 0]) // relu(-1.5) -> 0 \noutput 0: f32 2x3\n[[0.   0.   2.25]\n [3.   0.   0.  ]]\n");
  for (const std::string point : {"2,0", "1"}) {
    r = command({"run", "native::ReLU", in, "--trace", point, "-o", dir / "out.npy"}, kernelTable());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "kora run: warning: trace point [" + std::string(point == "1" ? "1" : "2, 0") +
                         "] lies outside every output (2x3); nothing was traced\n");
  }
}

TEST(KoraCommand, CompareExitsByCloseness) {
  TempDir dir;
  const std::string e = save(dir, "e.npy", tensorOf<float>(ElementType::f32, {2, 2}, {1, 2, 3, 4}));
  const std::string a = save(dir, "a.npy", tensorOf<float>(ElementType::f32, {2, 2}, {1, 2.5f, 3, 3.75f}));
  const std::string h = save(dir, "h.kora", tensorOf<uint16_t>(ElementType::f16, {2, 2}, {0x3c00, 0x4000, 0x4200, 0x4400}));
  const std::string n = save(dir, "n.npy", tensorOf<float>(ElementType::f32, {2, 2}, {1, NAN, 3, 4}));
  Result r = command({"compare", e, a});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "expected  " + e + "  f32 2x2\nactual    " + a + "  f32 2x2\n" +
                       "AllClose                      no: 2 of 4 elements differ beyond rtol 1e-05, atol 1e-08\n"
                       "AllIdentical                  no\n"
                       "CosineDistance                0.00516799\n"
                       "RootMeanSquareDeviation       0.279508\n"
                       "MaximumQuantizationNoise      0.5\n"
                       "SignalQuantizationNoiseRatio  19.8227 dB\n"
                       "worst mismatches (2 of 2):\n"
                       "  coordinate  expected  actual  difference\n"
                       "  [0, 1]            2.     2.5  0.5\n"
                       "  [1, 1]            4.    3.75  -0.25\n"
                       "|difference| histogram (4 elements):\n"
                       "  0 (equal)       2  ########################################\n"
                       "  [1e-01, 1e+00)  2  ########################################\n");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  const Case cases[] = {
      {{e, h}, 0, ""},  // f32 against f16 holding the same values
      {{e, a, "--atol", "0.5"}, 0, ""},
      {{e, a, "--rtol=0.2"}, 1, ""},  // 0.5 > 0.2 * 2
      {{e, a, "--rtol", "0.25"}, 0, ""},
      {{n, n}, 1, ""},
      {{n, n, "--equal-nan"}, 0, ""},
      {{e}, 2, "kora compare: error: needs EXPECTED and ACTUAL, got 1 file\n"},
      {{e, a, "--rtol", "-1"}, 2, "kora compare: error: --rtol '-1' is not a non-negative number\n"},
      {{e, a, "--atol", "x"}, 2, "kora compare: error: --atol 'x' is not a non-negative number\n"},
      {{e, a, "--worst", "1.5"}, 2, "kora compare: error: --worst '1.5' is not a count\n"},
      {{e, dir / "none.npy"}, 2, "kora compare: error: " + (dir / "none.npy") + ": cannot open: No such file or directory\n"},
      {{e, save(dir, "v.npy", tensorOf<float>(ElementType::f32, {4}, {1, 2, 3, 4}))}, 2,
       "kora compare: error: " + (dir / "v.npy") + " against " + e + ": shape mismatch: expected 2x2, actual 4\n"},
      {{e, save(dir, "o.kora", Tensor::create(ElementType::opaque32, {2, 2}))}, 2,
       "kora compare: error: " + (dir / "o.kora") + " against " + e + ": element type opaque32 of actual has no numeric reading\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"compare"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    r = command(args);
    EXPECT_EQ(r.status, c.status) << c.args.back() << r.err;
    EXPECT_EQ(r.err, c.err);
  }
  r = command({"compare", e, a, "--worst", "0"});
  EXPECT_EQ(r.out.find("worst mismatches"), std::string::npos);
  EXPECT_NE(r.out.find("|difference| histogram"), std::string::npos);
}

TEST(KoraCommand, ShowPrintsFormatTypeShapeAndValues) {
  TempDir dir;
  const std::string f = save(dir, "f.npy", tensorOf<float>(ElementType::f32, {2, 2}, {1.5f, -2.f, 0.f, 8.f}));
  const std::string s = save(dir, "s.kora", tensorOf<int8_t>(ElementType::si8, {}, {-3}));
  std::vector<int16_t> many(3000);
  for (size_t i = 0; i < many.size(); ++i) many[i] = int16_t(i);
  const std::string big = save(dir, "big.npy", tensorOf<int16_t>(ElementType::si16, {3000}, many));
  EXPECT_EQ(command({"show", f}).out, f + ": f32 2x2 (.npy 1.0, 4 elements)\n[[ 1.5 -2. ]\n [ 0.   8. ]]\n");
  EXPECT_EQ(command({"show", s}).out, s + ": si8 () (serialized tensor, 1 elements)\n-3\n");
  EXPECT_EQ(command({"show", big}).out, big + ": si16 3000 (.npy 1.0, 3000 elements)\n[   0    1    2 ... 2997 2998 2999]\n");
  EXPECT_EQ(command({"show", big, "--all"}).out.find("..."), std::string::npos);
  EXPECT_EQ(command({"show"}).err, "kora show: error: needs one FILE, got 0\n");
  Result r = command({"show", dir / "none"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "kora show: error: " + (dir / "none") + ": cannot open: No such file or directory\n");
}

TEST(KoraCommand, TheProgramEndToEnd) {
  TempDir dir;
  const std::string in = save(dir, "in.npy", tensorOf<float>(ElementType::f32, {3}, {-1.f, 2.f, -3.f}));
  Result r = program({"--version"}, dir);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("kora ") + KORA_VERSION + " (" + KORA_GIT_HASH + ")\n");
  r = program({"run", "native::ReLU", in, "--trace", "2", "-o", dir / "out.npy"}, dir);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "fout[2] = relu(fin[2]) // relu(-3) -> 0 \n");
  EXPECT_EQ(valuesOf<float>(load(dir / "out.npy")), (std::vector<float>{0.f, 2.f, 0.f}));
  r = program({"compare", in, dir / "out.npy"}, dir);
  EXPECT_EQ(r.status, 1);
  r = program({"show", dir / "in.npy"}, dir);
  EXPECT_EQ(r.status, 0);

  // A kernel meeting an element type it does not serve stops the library;
  // the program says why and exits with status 3 instead of dumping core.
  const std::string flags = save(dir, "flags.npy", tensorOf<uint8_t>(ElementType::bool8, {2}, {1, 0}));
  r = program({"run", "native::ReLU", flags, "-o", dir / "never.npy"}, dir);
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.err.find("kora: trapped at include/kora/Core/ElementType, line "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("kora: unknown element type: bool8\n"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(dir / "never.npy"));
}

TEST(KoraCommand, CorruptFilesNeverCrashTheCommands) {
  // Mutants of a valid file through show, compare and run: each ends with
  // status 0, 1 or 2 and at most one error line.
  TempDir dir;
  std::vector<char> seed;
  ASSERT_TRUE(encodeTensor(seed, tensorOf<float>(ElementType::f32, {2, 2}, {1, -2, 3, 0.5f}), TensorFileFormat::Npy).ok());
  std::vector<char> serialized;
  ASSERT_TRUE(encodeTensor(serialized, tensorOf<float>(ElementType::f32, {2, 2}, {1, -2, 3, 0.5f}), TensorFileFormat::Serialized).ok());
  const std::string good = save(dir, "good.npy", tensorOf<float>(ElementType::f32, {2, 2}, {1, -2, 3, 0.5f}));
  std::mt19937 rng(99);
  for (int i = 0; i < 600; ++i) {
    std::string bytes = i % 2 ? std::string(seed.begin(), seed.end()) : std::string(serialized.begin(), serialized.end());
    for (int k = 0, n = 1 + int(rng() % 3); k < n; ++k) {
      if (rng() % 4 == 0)
        bytes.resize(rng() % (bytes.size() + 1));
      else if (!bytes.empty())
        bytes[rng() % bytes.size()] = char(rng() % 256);
    }
    // Fresh names: replacing a file's content makes some file systems flush it.
    const std::string mutant = dir / fmt::format("m{}.npy", i);
    std::ofstream(mutant, std::ios::binary) << bytes;
    const std::vector<std::vector<std::string>> commands = {
        {"show", mutant}, {"compare", good, mutant}, {"run", "native::ReLU", mutant, "-o", dir / fmt::format("o{}.npy", i)}};
    const auto& args = commands[std::size_t(i) % commands.size()];
    // The ReLU kernel traps on element types it does not serve (by design),
    // so only mutants that read as f32 or fail to read may reach it.
    if (args[0] == "run") {
      Tensor t;
      if (readTensorFile(t, mutant).ok() && t.elementType() != ElementType::f32) continue;
    }
    Result r = command(args, kernelTable());
    EXPECT_TRUE(r.status == 0 || r.status == 1 || r.status == 2) << r.status;
    EXPECT_LE(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  // A few through the program itself.
  for (int i = 0; i < 20; ++i) {
    std::string bytes(seed.begin(), seed.end());
    bytes[rng() % 128] = char(rng() % 256);
    const std::string mutant = dir / fmt::format("p{}.npy", i);
    std::ofstream(mutant, std::ios::binary) << bytes;
    Result r = program({"show", mutant}, dir);
    EXPECT_TRUE(r.status == 0 || r.status == 2) << r.status << r.err;
  }
}
