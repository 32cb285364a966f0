#!/usr/bin/env bash
# Installs the dependencies, builds the engine and the le tool, forges a demo bundle and
# renders it into out/demo.mp4, plus one director frame with the mouth opened, out/demo_frame.png,
# and the person speaking an espeak-ng sentence with its sound, out/demo_speech.mp4, with real
# teeth borrowed from the bundle's donor bank (the lip template bounds where they go).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
bash scripts/bootstrap.sh
build="${LE_BUILD_DIR:-build}"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)" --target le
mkdir -p out
"$build/tools/le" forge out/demo_bundle --frames 50 --lips template --force
"$build/tools/le" paste out/demo_bundle -o out/demo.mp4
"$build/tools/le" frame out/demo_bundle -o out/demo_frame.png --si 0 --open 0.6
espeak-ng -w out/demo_speech.wav "Hello! I am a forged face, and I speak whatever you give me."
"$build/tools/le" speak out/demo_bundle out/demo_speech.wav -o out/demo_speech.mp4
echo "wrote out/demo.mp4, out/demo_frame.png and out/demo_speech.mp4"
