// The kora command on 16M-element f32 files, against the work it cannot
// avoid, each measured in the same run:
//  - kora compare vs reading the two files (goal: within 3x, ratio >= 0.33);
//  - kora run native::ReLU -o vs reading, the kernel and writing done
//    directly (goal: under 30% of the time elsewhere, ratio >= 0.7).
// The programs run as child processes, start-up included. Files live in
// /dev/shm when it exists, so that no disk takes part in the timings.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "BenchMain.h"
#include "kora/Kora.h"

extern char** environ;

using namespace kora;

namespace {

constexpr long kElements = 16l << 20;

/// Removes the scratch directory at exit.
struct Cleanup {
  std::filesystem::path dir;
  ~Cleanup() { std::filesystem::remove_all(dir); }
};

std::filesystem::path scratch() {
  static const std::filesystem::path dir = [] {
    std::filesystem::path base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path();
    std::filesystem::path d = base / fmt::format("kora-bench-{}", ::getpid());
    std::filesystem::create_directories(d);
    return d;
  }();
  static const Cleanup cleanup{dir};
  return dir;
}

std::string file(const char* name) { return (scratch() / name).string(); }

/// expected.npy (values in [-1, 1)) and actual.npy (every element nudged).
void makeFiles() {
  static bool made = false;
  if (made) return;
  Tensor e = Tensor::create(ElementType::f32, {4096, 4096}), a = Tensor::create(ElementType::f32, {4096, 4096});
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> value(-1.f, 1.f), noise(-1e-4f, 1e-4f);
  float* pe = e.data<float>().data();
  float* pa = a.data<float>().data();
  for (long i = 0; i < kElements; ++i) {
    pe[i] = value(rng);
    pa[i] = pe[i] + noise(rng);
  }
  if (!writeTensorFile(file("expected.npy"), e).ok() || !writeTensorFile(file("actual.npy"), a).ok())
    throw std::runtime_error("cannot write the benchmark's files");
  made = true;
}

int spawn(const std::vector<std::string>& args) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid;
  int status = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) waitpid(pid, &status, 0);
  posix_spawn_file_actions_destroy(&actions);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void readTwoFiles(benchmark::State& state) {
  makeFiles();
  for (auto _ : state) {
    Tensor e, a;
    if (!readTensorFile(e, file("expected.npy")).ok() || !readTensorFile(a, file("actual.npy")).ok())
      state.SkipWithError("read failed");
    benchmark::DoNotOptimize(e);
    benchmark::DoNotOptimize(a);
  }
}

void compareInProcess(benchmark::State& state) {
  makeFiles();
  Tensor e, a;
  (void)readTensorFile(e, file("expected.npy"));
  (void)readTensorFile(a, file("actual.npy"));
  for (auto _ : state) {
    Comparison c;
    if (!compareTensors(c, e, a).ok()) state.SkipWithError("compare failed");
    benchmark::DoNotOptimize(differenceView(c));
  }
}

void koraCompare(benchmark::State& state) {
  makeFiles();
  for (auto _ : state)
    if (spawn({KORA_CLI_PATH, "compare", file("expected.npy"), file("actual.npy")}) != 1)
      state.SkipWithError("kora compare did not report a difference");
}

void reluDirect(benchmark::State& state) {
  makeFiles();
  for (auto _ : state) {
    Tensor in, out;
    (void)readTensorFile(in, file("expected.npy"));
    (void)native::ReLUConfig(out, in);
    out.allocate();
    (void)native::ReLU(out, in);
    if (!writeTensorFile(file("direct.npy"), out).ok()) state.SkipWithError("write failed");
    state.PauseTiming();
    std::filesystem::remove(file("direct.npy"));
    state.ResumeTiming();
  }
}

void koraRun(benchmark::State& state) {
  makeFiles();
  for (auto _ : state) {
    if (spawn({KORA_CLI_PATH, "run", "native::ReLU", file("expected.npy"), "-o", file("run.npy")}) != 0)
      state.SkipWithError("kora run failed");
    state.PauseTiming();
    std::filesystem::remove(file("run.npy"));
    state.ResumeTiming();
  }
}

}  // namespace

BENCHMARK(readTwoFiles)->Name("read_two_files")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);
BENCHMARK(compareInProcess)->Name("compare_in_process")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);
BENCHMARK(koraCompare)->Name("kora_compare")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);
BENCHMARK(reluDirect)->Name("read_relu_write")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);
BENCHMARK(koraRun)->Name("kora_run_relu")->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(8);

KORA_BENCH_RATIO("reading two files / kora compare (goal >= 0.33)", "kora_compare", "read_two_files");
KORA_BENCH_RATIO("reading two files / metrics and view alone", "compare_in_process", "read_two_files");
KORA_BENCH_RATIO("read + ReLU + write / kora run (goal >= 0.7)", "kora_run_relu", "read_relu_write");

KORA_BENCH_MAIN()
