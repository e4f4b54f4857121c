#!/usr/bin/env bash
# Builds zvcompute and runs a few real computations on the shipped sample image, printing each step.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DZV_TESTS=OFF >/dev/null
cmake --build build -j"$(nproc)" --target zvcompute >/dev/null
zv=build/zvcompute
out=$(mktemp -d)
run() { echo "+ zvcompute $*"; "$zv" "$@"; }
# Debian's interpreter has the numpy and mrcfile packages that deps.sh installs.
py=python3
[ -x /usr/bin/python3 ] && py=/usr/bin/python3
summary() {  # element type, shape and value range of a .npy or .mrc file
  "$py" - "$1" <<'PY'
import sys, numpy as np
p = sys.argv[1]
if p.endswith('.npy'):
    a = np.load(p)
else:
    import mrcfile
    a = mrcfile.open(p, permissive=True).data
print(f"  {p.split('/')[-1]}: {a.dtype} shape {a.shape} min {a.min():.4g} max {a.max():.4g} mean {a.mean():.4g}")
PY
}
echo "sample image: examples/wave.npy (64 x 64 real32)"
summary examples/wave.npy
run "$out/scaled.mrc" = examples/wave.npy '*' 2.5
summary "$out/scaled.mrc"
run "$out/mask.npy" = "$out/scaled.mrc" gt 50
summary "$out/mask.npy"
run "$out/scaled.mrc" -mean
summary "$out/scaled.mrc"
run "$out/scaled.mrc" /rms
summary "$out/scaled.mrc"
echo "results in $out"
