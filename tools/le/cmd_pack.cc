// le pack DIR OUT.imx: pack a bundle directory into a container.
#include <sys/stat.h>

#include <cstdio>

#include "tools/forge/imx_pack.h"
#include "tools/le/le_cli.h"

namespace le::cli {

int cmdPack(const std::vector<std::string>& argv) {
  const Args args(argv, {"quiet"}, {});
  if (args.help()) {
    std::fputs(
        "usage: le pack DIR OUT.imx [--quiet]\n"
        "\n"
        "Packs every file below the bundle directory DIR into the container OUT.imx\n"
        "(written as OUT.imx.part, then renamed). The engine unwraps it once on first use.\n",
        stdout);
    return kOk;
  }
  if (args.positional().size() != 2) throw UsageError("wants a bundle directory and an output container");
  const std::string& dir = args.positional()[0];
  const std::string& out = args.positional()[1];
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) throw std::runtime_error(dir + " is not a directory");
  const size_t n = forge::packImx(dir, out);
  if (!args.flag("quiet")) std::fprintf(stderr, "packed %zu members of %s into %s\n", n, dir.c_str(), out.c_str());
  return kOk;
}

}  // namespace le::cli
