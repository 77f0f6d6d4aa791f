// The library's main job on built-in examples: list the kernel table, then
// run kernels by name with a trace point set, so that each traced output
// element explains itself step by step.
#include "Demo.h"

int main() {
  std::printf("libkora %s (%s)\n", KORA_VERSION, KORA_GIT_HASH);
  demo::showKernelTable();
  demo::runElementwise();
  demo::runBroadcast();
  demo::runReduce();
  demo::runMatMul();
  demo::runQuantization();
  demo::runRoiAlign();
  demo::runVelaConv();
  demo::runLyraConv();
  return 0;
}
