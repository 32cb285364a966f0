// Flat interface of the borrow members: slot keys, the carriage query and the member loader.
// Failures go to the caller's error buffer, never to a per-thread string.
#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>

#include "le/le.h"
#include "le/le_error.h"
#include "le/tessera/le_bundle_tessera.h"

struct le_tessera_carriage {
  le::TesseraCarriage c;
  std::string path;  // the last path handed out
};

struct le_tessera_members {
  le::TesseraAttachInputs in;
  std::array<int32_t, le::tessera::GeometryStamp::kCount> stamp{};
};

namespace {

void copyErr(char* buf, size_t cap, const char* msg) { le::err::copyOut(buf, cap, msg); }

// A carriage that carries nothing: what a failed query reports.
le::TesseraCarriage emptyCarriage() {
  le::TesseraCarriage c;
  for (const char* k : le::tesseraSlotKeys()) c.missing.emplace_back(k);
  return c;
}

template <class T>
const T* orNull(const std::vector<T>& v) {
  return v.empty() ? nullptr : v.data();
}

}  // namespace

extern "C" {

int le_tessera_slot_count(void) { return le::tesseraSlotCount(); }

const char* le_tessera_slot_key(int index) {
  if (index < 0 || index >= le::tesseraSlotCount()) return nullptr;
  return le::tesseraSlotKeys()[static_cast<size_t>(index)];
}

le_tessera_carriage* le_tessera_carriage_open(const char* bundle_dir) {
  if (!bundle_dir) return nullptr;
  auto h = std::unique_ptr<le_tessera_carriage>(new (std::nothrow) le_tessera_carriage);
  if (!h) return nullptr;
  try {
    h->c = le::tesseraCarriage(bundle_dir);
  } catch (const std::bad_alloc&) {
    return nullptr;
  } catch (...) {
    try {
      h->c = emptyCarriage();
    } catch (...) {
      return nullptr;
    }
  }
  return h.release();
}

void le_tessera_carriage_close(le_tessera_carriage* h) { delete h; }

int le_tessera_carriage_complete(const le_tessera_carriage* h) { return h && h->c.complete ? 1 : 0; }
int le_tessera_carriage_declared(const le_tessera_carriage* h) { return h && h->c.declared ? 1 : 0; }

const char* le_tessera_carriage_path(le_tessera_carriage* h, const char* slot_key) {
  if (!h || !slot_key) return "";
  const int i = le::tesseraSlotIndex(slot_key);
  if (i < 0) return "";
  try {
    h->path = h->c.paths[static_cast<size_t>(i)];
  } catch (...) {
    return "";
  }
  return h->path.c_str();
}

int le_tessera_carriage_missing_count(const le_tessera_carriage* h) {
  return h ? static_cast<int>(h->c.missing.size()) : 0;
}

const char* le_tessera_carriage_missing(const le_tessera_carriage* h, int index) {
  if (!h || index < 0 || static_cast<size_t>(index) >= h->c.missing.size()) return nullptr;
  return h->c.missing[static_cast<size_t>(index)].c_str();
}

le_tessera_members* le_tessera_members_open(const char* bundle_dir, char* err, size_t err_cap) {
  copyErr(err, err_cap, "");
  if (!bundle_dir) {
    copyErr(err, err_cap, "le_tessera_members_open: null bundle_dir");
    return nullptr;
  }
  try {
    auto h = std::make_unique<le_tessera_members>();
    h->in = le::loadTesseraMembers(bundle_dir);
    h->stamp = h->in.stamp.values();
    return h.release();
  } catch (const std::bad_alloc&) {
    copyErr(err, err_cap, "le_tessera_members_open: out of memory");
  } catch (const std::exception& e) {
    copyErr(err, err_cap, e.what());
  } catch (...) {
    copyErr(err, err_cap, "le_tessera_members_open: unknown failure");
  }
  return nullptr;
}

void le_tessera_members_close(le_tessera_members* h) { delete h; }

int le_tessera_members_n_donors(const le_tessera_members* h) { return h ? h->in.n_donors : 0; }
const double* le_tessera_members_cent(const le_tessera_members* h) { return h ? orNull(h->in.cent) : nullptr; }
const double* le_tessera_members_c_canon(const le_tessera_members* h) { return h ? h->in.c_canon.data() : nullptr; }
const double* le_tessera_members_aperture(const le_tessera_members* h) {
  return h ? orNull(h->in.aperture) : nullptr;
}
const int32_t* le_tessera_members_stamp(const le_tessera_members* h) { return h ? h->stamp.data() : nullptr; }
const uint8_t* le_tessera_members_head_pt(const le_tessera_members* h) { return h ? orNull(h->in.head_pt) : nullptr; }
uint32_t le_tessera_members_head_pt_len(const le_tessera_members* h) {
  return h ? static_cast<uint32_t>(h->in.head_pt.size()) : 0;
}
const char* le_tessera_members_head_json(const le_tessera_members* h) { return h ? h->in.head_json.c_str() : ""; }
const char* le_tessera_members_manifest_json(const le_tessera_members* h) {
  return h ? h->in.manifest_json.c_str() : "";
}
const char* le_tessera_members_bank_track_path(const le_tessera_members* h) {
  return h ? h->in.bank_track_path.c_str() : "";
}
const char* le_tessera_members_bank_container(const le_tessera_members* h) {
  return h ? h->in.bank_container.c_str() : "";
}
const char* le_tessera_members_bank_codec(const le_tessera_members* h) { return h ? h->in.bank_codec.c_str() : ""; }
const char* le_tessera_members_bank_pix_fmt(const le_tessera_members* h) {
  return h ? h->in.bank_pix_fmt.c_str() : "";
}
const char* le_tessera_members_bank_packing(const le_tessera_members* h) {
  return h ? h->in.bank_packing.c_str() : "";
}
int le_tessera_members_band_w(const le_tessera_members* h) { return h ? h->in.band_w : 0; }
int le_tessera_members_band_h(const le_tessera_members* h) { return h ? h->in.band_h : 0; }
uint64_t le_tessera_members_band_bytes(const le_tessera_members* h) {
  return h ? static_cast<uint64_t>(h->in.bandBytes()) : 0;
}

int le_tessera_members_reorder(const le_tessera_members* h, const uint8_t* track_bytes, uint8_t* donor_bytes,
                               char* err, size_t err_cap) {
  copyErr(err, err_cap, "");
  if (!h) {
    copyErr(err, err_cap, "le_tessera_members_reorder: null argument");
    return 1;
  }
  return le::err::guardCopy(err, err_cap, "le_tessera_members_reorder: unknown failure", 1, [&] {
    le::reorderTrackToDonor(h->in, track_bytes, donor_bytes);
    return 0;
  });
}

}  // extern "C"
