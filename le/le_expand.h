// The warp-prior check run before the identity tables are mapped.
#pragma once

namespace le {

struct Manifest;

// Throws, with a message naming the members and the manifest value, when the bundle has no
// usable warp prior: neither "P.f16" nor "fs_red.f16", and no video prior named by "P_hevc";
// or a raw prior renamed through "P_rgb" that the identity would not map.
void ensureIdentityMembers(const Manifest& m);

}  // namespace le
