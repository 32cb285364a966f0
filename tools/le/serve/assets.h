// The page of le serve, built into the binary so that the tool is one file and the page always
// speaks the protocol of the server that serves it.
#pragma once

#include <cstddef>
#include <string>

namespace le::serve {

struct Asset {
  const char* name;  // path below the site root, e.g. "index.html"
  const unsigned char* bytes;
  size_t size;
};

// Every file of the page; the last entry has a null name.
extern const Asset kAssets[];

// The asset at name, or null.
const Asset* findAsset(const std::string& name);

// The Content-Type of a file name by its extension.
const char* mimeType(const std::string& name);

}  // namespace le::serve
