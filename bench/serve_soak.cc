// Soak of le serve: headless Chromium's page speaks in a loop (push-to-talk 3 s on, 1 s off,
// its fake microphone playing synthesised speech) into a server in this process, and reloads
// every `reload` seconds (its pipeline destroyed, a new one made). Prints the server's resident
// memory over time, then its growth after the first minute.
//
//   serve_soak [seconds = 600] [sample every seconds = 10] [reload every seconds = 60]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>

#include "tests/support/headless_page.h"
#include "tests/support/speech.h"
#include "tests/support/utt_soak.h"
#include "tools/forge/forge.h"
#include "tools/forge/forge_audio.h"
#include "tools/le/serve/server.h"

namespace hl = le::testmedia::headless;

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 600.0;
  const double every = argc > 2 ? std::atof(argv[2]) : 10.0;
  const double reload = argc > 3 ? std::atof(argv[3]) : 60.0;
  const char* t = std::getenv("LE_BENCH_TMP");
  const std::string dir = std::string(t && *t ? t : "/tmp") + "/le_serve_soak";
  const std::string chromium = hl::which("chromium");
  if (chromium.empty()) {
    std::fprintf(stderr, "serve_soak: chromium is not installed (apt install chromium)\n");
    return 2;
  }
  try {
    le::forge::Params p = le::testmedia::uttBundleParams(320, 240, 128, 8);
    p.extraMembers = le::forge::audioMembers(p, {});
    p.replace = true;
    const std::string bundle = le::forge::forgeBundle(dir + "/b", p).dir;
    hl::writeWav(dir + "/speech.wav",
                 le::testmedia::speak16kPcm("Say ah, then stop. Now once more, a little longer, and then rest."));
    le::serve::ServeOptions o;
    o.bundle = bundle;
    o.port = 0;
    o.chatty = false;
    le::serve::Server server(o);
    std::thread run([&] { server.run(false); });
    struct Joiner {  // the server stops whatever ends the soak
      le::serve::Server& s;
      std::thread& t;
      ~Joiner() {
        s.stop();
        t.join();
      }
    } joiner{server, run};
    double first = 0, last = 0;
    long long speech = 0, drawn = 0, utts = 0, reloads = 0;
    {
      hl::Browser br(chromium, "http://127.0.0.1:" + std::to_string(server.port()) + "/?loop=3,1",
                     dir + "/speech.wav", dir + "/profile");
      const auto t0 = hl::Clock::now();
      auto nextSample = t0, nextReload = t0 + std::chrono::duration_cast<hl::Clock::duration>(std::chrono::duration<double>(reload));
      const auto since = [&] { return std::chrono::duration<double>(hl::Clock::now() - t0).count(); };
      for (;;) {
        std::this_thread::sleep_until(nextSample);
        auto m = br.summary();
        const long long pageSpeech = std::atoll(m["speech"].c_str()), pageDrawn = pageSpeech + std::atoll(m["idle"].c_str()) + std::atoll(m["ramp"].c_str());
        const long long pageUtts = m["utts"].empty() ? 0 : 1 + static_cast<long long>(std::count(m["utts"].begin(), m["utts"].end(), ','));
        last = le::testmedia::residentMiB();
        if (since() >= 60 && first == 0) first = last;
        // What the server and the transport add to the pipeline's first-frame latency, on average
        // over this page's utterances (fields: samples, speech, ramp, end-to-end ms, pipeline ms).
        double extra = 0;
        int n = 0;
        for (const auto& u : br.utterances())
          if (u.size() == 5 && u[3] >= 0) extra += u[3] - u[4], ++n;
        std::printf("t=%7.1f s  rss=%8.1f MiB  pipelines=%d  page: utterances=%lld speech=%lld frames=%lld late=%s "
                    "added latency=%.1f ms  reloads=%lld\n",
                    since(), last, server.pipelines(), utts + pageUtts, speech + pageSpeech, drawn + pageDrawn,
                    m["late"].c_str(), n ? extra / n : 0.0, reloads);
        std::fflush(stdout);
        if (since() >= seconds) break;
        if (reload > 0 && hl::Clock::now() >= nextReload) {
          speech += pageSpeech, drawn += pageDrawn, utts += pageUtts, ++reloads;
          br.reload();
          nextReload += std::chrono::duration_cast<hl::Clock::duration>(std::chrono::duration<double>(reload));
        }
        nextSample += std::chrono::duration_cast<hl::Clock::duration>(std::chrono::duration<double>(every));
      }
    }
    if (first > 0) std::printf("resident memory after the first minute: %+.1f MiB (%.1f -> %.1f)\n", last - first, first, last);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "serve_soak: %s\n", e.what());
    return 1;
  }
}
