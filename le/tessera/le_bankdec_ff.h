// The in-memory reader FFmpeg pulls the bank track through. Internal: hosts call
// le::tessera::decodeBankTrack (le/le.h).
#pragma once

#include <cstdint>

namespace le::tessera::bankio {

struct MemReader {
  const uint8_t* data;
  int64_t size;
  int64_t pos;
};

// Copies up to want bytes from the position on; FFmpeg's end-of-file code at the end.
int memRead(void* opaque, uint8_t* buf, int want);
// SEEK_SET / SEEK_CUR / SEEK_END, or AVSEEK_SIZE for the size. A position outside [0, size]
// answers -1 and leaves the position alone.
int64_t memSeek(void* opaque, int64_t offset, int whence);

}  // namespace le::tessera::bankio
