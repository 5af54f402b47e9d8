#!/usr/bin/env bash
# The main job on the bundled example: for now the program's configuration
# report and the settings it would invert with.
set -euo pipefail
build=${1:-build}
"$build/ohmvol3d" info
