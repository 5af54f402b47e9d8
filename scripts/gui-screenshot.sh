#!/usr/bin/env bash
# Takes the README's picture of the desktop program: the scripted session of
# the GUI tests (read, settings dialogs, inversion to its end, model shown)
# writes a capture of the main window after each step; the one of the
# finished inversion's sections becomes docs/gui_sections.png.
# Usage: scripts/gui-screenshot.sh [BUILD_DIR]
set -euo pipefail
build=${1:-build}
shots=$(mktemp -d)
trap 'rm -rf "$shots"' EXIT
OHMVOL3D_GUI_SHOTS="$shots" QT_QPA_PLATFORM=offscreen \
  "$build/tests/ohmvol3d_gui_tests" --gtest_filter=GuiSession.ScriptedSessionToTheEnd > /dev/null
mkdir -p docs
cp "$shots/5_sections.png" docs/gui_sections.png
echo "docs/gui_sections.png"
