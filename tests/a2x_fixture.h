// Forged audio bundles and speech shared by the le_a2x tests.
#pragma once

#include <string>
#include <vector>

#include "le/le_a2x.h"
#include "tests/bundle_fixture.h"
#include "tests/support/speech.h"
#include "tools/forge/forge.h"
#include "tools/forge/forge_audio.h"

namespace le::testa2x {

// Twelve seconds of speech with pauses: longer than one 8 s window (200 frames) and than the
// forged positional table (160 frames).
inline const std::vector<float>& longSpeech() {
  static const std::vector<float> a = le::testmedia::speak16k(
      "Speech moves the lips of the face on the screen. Every frame of forty milliseconds carries "
      "its own loudness. When the speaker pauses, the mouth rests and closes again. Then the voice "
      "returns, and the lips open wide.");
  return a;
}

// The bundle's 8 s speech encoder, for W2V_ONNX.
inline std::string w2vOf(const std::string& dir) { return dir + "/" + le::forge::kW2vMember; }

// A small bundle with the audio members o asks for, in d/name. Returns its directory.
inline std::string forgeAudioBundle(const le::testing::ScratchDir& d, const std::string& name,
                                    const le::forge::AudioOptions& o = {}, int nt = 8) {
  le::forge::Params p = le::forge::sized(nt, 64, 48, 16, 4);
  p.drive = le::forge::DriveMedia::None;
  p.extraMembers = le::forge::audioMembers(p, o);
  return le::forge::forgeBundle(d / name, p).dir;
}

// A handle that is destroyed with its scope.
struct Handle {
  le_a2x* h;
  explicit Handle(const std::string& dir, int eager = 1) : h(le_a2x_create(dir.c_str(), eager)) {}
  explicit Handle(le_a2x* created) : h(created) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { le_a2x_destroy(h); }
  operator le_a2x*() const { return h; }
};

// Every frame of a closed utterance pushed in one piece: target, driven and width rows.
struct Pulled {
  std::vector<int> si;
  std::vector<float> target, driven, wn;
  int frames = 0;
};
inline Pulled pullAll(le_a2x* h, const std::vector<float>& audio) {
  le_a2x_push(h, audio.data(), static_cast<int>(audio.size()));
  le_a2x_finish(h);
  Pulled r;
  const int n = le_a2x_total(h);
  r.si.resize(static_cast<size_t>(n));
  r.target.resize(size_t(n) * 63);
  r.driven.resize(size_t(n) * 63);
  r.wn.resize(size_t(n));
  r.frames = le_a2x_pull_wn(h, r.si.data(), r.target.data(), r.driven.data(), r.wn.data(), n);
  return r;
}

// Appends every frame ready on h to r (no widths).
inline void drain(le_a2x* h, Pulled& r) {
  std::vector<int> si(64);
  std::vector<float> t(64 * 63), d(64 * 63);
  for (int got; (got = le_a2x_pull(h, si.data(), t.data(), d.data(), 64)) > 0;) {
    r.si.insert(r.si.end(), si.begin(), si.begin() + got);
    r.target.insert(r.target.end(), t.begin(), t.begin() + got * 63);
    r.driven.insert(r.driven.end(), d.begin(), d.begin() + got * 63);
  }
}

}  // namespace le::testa2x
