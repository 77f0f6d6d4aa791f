#include <kora/Kora.h>

int main() {
  kora::Tensor fin = kora::Tensor::create(kora::ElementType::f32, {3});
  for (float& x : fin.data<float>()) x = -1.0f;
  kora::Tensor fout;
  if (!kora::native::ReLUConfig(fout, fin).ok()) return 1;
  fout.allocate();
  if (!kora::native::ReLU(fout, fin).ok()) return 1;
  return fout.data<float>()[0] == 0.0f ? 0 : 1;
}
