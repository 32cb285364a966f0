#include "le/le_moviedec_ff.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/version.h>
}

namespace le {

namespace driver {
std::string libavcodecBuildVersion() {
  return std::to_string(LIBAVCODEC_VERSION_MAJOR) + "." + std::to_string(LIBAVCODEC_VERSION_MINOR) +
         "." + std::to_string(LIBAVCODEC_VERSION_MICRO);
}
}  // namespace driver

std::string movieDecoderBuild() {
  const char* conf = avcodec_configuration();
  return "libavcodec " + driver::libavcodecBuildVersion() + " / " + (conf ? conf : "");
}

}  // namespace le
