#!/usr/bin/env bash
# The main job on the bundled example: the program's configuration report,
# the read of an example data file saved back in the program's own layout,
# the finite-element mesh of the 9 by 14 electrode grid written for ParaView,
# the mesh's check against a homogeneous half-space, synthetic data of a
# buried conductor with 3 % noise, the inversion of those data, and the
# results file read back and exported for ParaView, and the final model's
# layer sections drawn as a PNG picture. The results stay in
# BUILD/demo/.
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "$0")/.." && pwd)
out="$build/demo"
rm -rf "$out"
mkdir -p "$out"
"$build/ohmvol3d" info
cp "$here/examples/ip_chargeability.dat" "$out/"
"$build/ohmvol3d" read "$out/ip_chargeability.dat" --save "$out/saved.dat"
echo "Saved the data read as $out/saved.dat ($(wc -l <"$out/saved.dat") lines)."
cp "$here/examples/grid_9x14.dat" "$out/"
"$build/ohmvol3d" mesh "$out/grid_9x14.dat" --vtk "$out/grid_9x14_mesh.vtk"
"$build/ohmvol3d" check-mesh "$out/grid_9x14.dat"
cat >"$out/model.txt" <<'MODEL'
background 100
box 7.5 12.5  12.5 20  1 4  10   # a conductor under the middle of the grid
MODEL
"$build/ohmvol3d" forward "$out/grid_9x14.dat" --model "$out/model.txt" -o "$out/synthetic.dat" --noise 3 --seed 7
echo "Synthetic data: $out/synthetic.dat ($(wc -l <"$out/synthetic.dat") lines)."
"$build/ohmvol3d" invert "$out/synthetic.dat" -o "$out/synthetic.inv" --buffer "$out"
echo "Inversion results: $out/synthetic.inv"
"$build/ohmvol3d" export "$out/synthetic.inv" --format vtk --buffer "$out"
echo "Results file read back: $out/synthetic.inv"
echo "ParaView model of the last iteration: $(ls "$out"/synthetic_Iter*_Res_Model.vtk | tail -1)"
"$build/ohmvol3d" plot "$out/synthetic.inv" -o "$out/synthetic_layers.png" --buffer "$out"
echo "Layer sections of the final model (PNG): $out/synthetic_layers.png"
