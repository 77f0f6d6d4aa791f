#!/usr/bin/env bash
# The library's main job as a user meets it: an input saved by numpy, a kernel
# run with `kora run` and one output element traced, the result compared
# against a deliberately perturbed copy with `kora compare`, then the same
# three steps in Python.
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
kora="$build/tools/kora/kora"
python=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

step() { printf '\n== %s ==\n' "$1"; }
run() { printf '$ %s\n' "$*"; "$@"; }
# Shows `kora` as the user types it, runs the one just built.
kora() { printf '$ kora %s\n' "$*"; "$kora" "$@"; }

step "the kernel table"
kora list

step "an input, saved by numpy as input.npy"
cat > make_input.py <<'EOF'
import numpy as np
x = np.array([[-1.5, 0.0, 2.25, -0.125],
              [3.0, -0.5, -7.0, 0.001]], dtype=np.float32)
np.save("input.npy", x)
EOF
cat make_input.py
"$python" make_input.py
kora show input.npy

step "run native::ReLU on it, tracing output element [1, 2]"
kora run native::ReLU input.npy --trace 1,2 -o relu.npy
kora show relu.npy

step "a deliberately perturbed copy of the result"
cat > perturb.py <<'EOF'
import numpy as np
y = np.load("relu.npy")
y[0, 2] += np.float32(0.01)     # an error of 1e-2
y[1, 3] *= np.float32(1.000001) # within tolerance
np.save("perturbed.npy", y)
EOF
cat perturb.py
"$python" perturb.py

step "compare the result with the perturbed copy"
status=0
kora compare relu.npy perturbed.npy || status=$?
echo "(exit status $status: 0 close, 1 not close, 2 bad input)"

step "the same in Python"
if ! PYTHONPATH="$build/python" "$python" -c "import kora" 2>/dev/null; then
  echo "(the Python module was not built: python3 development files or pybind11 missing)"
  exit 0
fi
cat > walkthrough.py <<'EOF'
import numpy as np
import kora

x = np.load("input.npy")
with kora.trace([1, 2]) as lines:
    y = kora.run("native::ReLU", x)
print("trace:", lines)

perturbed = y.copy()
perturbed[0, 2] += np.float32(0.01)
print("AllClose:", kora.AllClose(y, perturbed))
print("SignalQuantizationNoiseRatio: %.2f dB" % kora.SignalQuantizationNoiseRatio(y, perturbed))
print(kora.compare(y, perturbed).view(), end="")
EOF
cat walkthrough.py
printf '$ python3 walkthrough.py\n'
PYTHONPATH="$build/python" "$python" walkthrough.py
