// The le tool's audio in and out: any audio FFmpeg decodes becomes the engine's 16 kHz mono,
// and the movie writer's AAC track decodes back to what it was given, as long as the video.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/bundle_fixture.h"
#include "tests/support/media.h"
#include "tests/support/speech.h"
#include "tools/forge/forge_movie.h"
#include "tools/le/audio_in.h"


namespace {

const char kSentence[] = "The quick brown fox jumps over the lazy dog.";

std::string scratch(const std::string& name) {
  static const le::testing::ScratchDir dir("av_io");
  return dir / name;
}

// Signal-to-noise ratio of got against want in dB, over want's length, at the best lag in
// [-maxLag, maxLag] (found by the error itself, so no lag is assumed).
double snrDb(const std::vector<int16_t>& want, const std::vector<int16_t>& got, int maxLag, int* bestLag) {
  double best = -1e9;
  for (int lag = -maxLag; lag <= maxLag; ++lag) {
    double sig = 0, err = 0;
    for (size_t i = 0; i < want.size(); ++i) {
      const long j = static_cast<long>(i) + lag;
      const double g = j >= 0 && j < static_cast<long>(got.size()) ? got[static_cast<size_t>(j)] : 0.0;
      sig += double(want[i]) * want[i];
      err += (g - want[i]) * (g - want[i]);
    }
    const double db = 10.0 * std::log10(sig / (err + 1e-9));
    if (db > best) best = db, *bestLag = lag;
  }
  return best;
}

// Stream durations in seconds and the video's packet count, as the ffprobe tool reads them.
struct Probe {
  double video = 0, audio = 0;
  int frames = 0;
};
Probe probe(const std::string& path) {
  const std::string out = path + ".probe";
  le::testmedia::run("ffprobe -v error -count_packets -show_entries stream=codec_type,duration,nb_read_packets "
                     "-of csv=p=0 '" + path + "' > '" + out + "'");
  Probe p;
  std::ifstream f(out);
  for (std::string line; std::getline(f, line);) {
    std::replace(line.begin(), line.end(), ',', ' ');
    std::istringstream fields(line);
    std::string type;
    double duration = 0;
    int packets = 0;
    fields >> type >> duration >> packets;
    (type == "video" ? p.video : p.audio) = duration;
    if (type == "video") p.frames = packets;
  }
  return p;
}

// A stereo 44.1 kHz WAV and a FLAC of the same speech decode to what sox makes of it at 16 kHz
// mono: the resampler and the down-mix are real, not a truncation.
TEST(AudioIn, AnyAudioBecomesTheEngines16kMono) {
  const std::vector<int16_t> ref = le::testmedia::speak16kPcm(kSentence);
  const std::string raw = scratch("ref.s16"), wav = scratch("stereo44k.wav"), flac = scratch("mono22k.flac");
  le::testing::writeFile(raw, std::string_view(reinterpret_cast<const char*>(ref.data()), ref.size() * 2));
  ASSERT_EQ(0, le::testmedia::run("sox -D -t raw -r 16000 -c 1 -b 16 -e signed-integer '" + raw + "' -r 44100 -c 2 '" +
                                  wav + "' 2>/dev/null"));
  ASSERT_EQ(0, le::testmedia::run("sox -D -t raw -r 16000 -c 1 -b 16 -e signed-integer '" + raw + "' -r 22050 '" +
                                  flac + "' 2>/dev/null"));
  for (const std::string& path : {wav, flac}) {
    SCOPED_TRACE(path);
    const std::vector<int16_t> got = le::cli::readAudio16k(path);
    EXPECT_NEAR(static_cast<double>(got.size()), static_cast<double>(ref.size()), 16.0);
    int lag = 0;
    EXPECT_GT(snrDb(ref, got, 4, &lag), 32.0);
    EXPECT_EQ(lag, 0);
  }
}

// What is not audio fails with one line that names the file.
TEST(AudioIn, NotAudioIsOneLineNamingTheFile) {
  const std::string text = scratch("notes.wav"), silent = scratch("silent.mp4"), empty = scratch("empty.mp3");
  le::testmedia::run("printf 'not audio at all\\n' > '" + text + "'; : > '" + empty + "'");
  le::testmedia::writeMovie(silent, le::testmedia::movieSpec(), 12);
  for (const auto& [path, why] : {std::pair<std::string, std::string>{text, ""},
                                  {empty, ""},
                                  {silent, "holds no audio stream"},
                                  {scratch("missing.wav"), "No such file"}}) {
    const std::string msg = le::testing::thrown([&] { le::cli::readAudio16k(path); });
    EXPECT_EQ(msg.rfind(path + ": ", 0), 0u) << msg;
    EXPECT_EQ(msg.find('\n'), std::string::npos) << msg;
    EXPECT_NE(msg.find(why), std::string::npos) << msg;
  }
}

// The movie's AAC track decodes back to the samples given, in step with the frames, and both
// streams last as long as the frames.
TEST(MovieAudio, TrackDecodesBackInStepWithTheFrames) {
  std::vector<int16_t> pcm = le::testmedia::speak16kPcm(kSentence);
  const int frames = static_cast<int>((pcm.size() + 639) / 640);
  pcm.resize(static_cast<size_t>(frames) * 640, 0);
  le::forge::MovieSpec spec;
  spec.width = 64;
  spec.height = 48;
  spec.audioRate = 16000;
  const std::string path = scratch("speech.mp4");
  {
    le::forge::MovieWriter movie(path, spec);
    const std::vector<uint8_t> rgb = le::testmedia::patternRgb(64, 48, 0);
    for (int f = 0; f < frames; ++f) {
      movie.write(rgb.data());
      movie.writeAudio(pcm.data() + f * 640, 640);
    }
    movie.finish();
  }
  const Probe p = probe(path);
  EXPECT_EQ(p.frames, frames);
  EXPECT_NEAR(p.video, frames / 25.0, 1e-6);
  EXPECT_NEAR(p.audio, p.video, 0.04);
  const std::vector<int16_t> back = le::cli::readAudio16k(path);
  EXPECT_NEAR(static_cast<double>(back.size()), static_cast<double>(pcm.size()), 640.0);
  int lag = 0;
  EXPECT_GT(snrDb(pcm, back, 64, &lag), 18.0);
  EXPECT_EQ(lag, 0) << "the encoder's priming delay leaked into the timeline";
}

}  // namespace
