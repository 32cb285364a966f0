#include "le/tessera/le_tessera_pt.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <unordered_map>

#include "le/le_util.h"

namespace le::tessera {

namespace {

uint16_t u16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t u32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

// ---------------------------------------------------------------------------------------------
// ZIP, stored entries only

struct ZipEntry {
  std::string name;
  uint16_t method;
  uint64_t size;
  uint64_t local;  // offset of the local header
};

class Zip {
 public:
  Zip(const uint8_t* data, size_t size) : d_(data), n_(size) {
    if (n_ < 4 || u32(d_) != 0x04034b50) fail("teeth: head .pt is not a zip");
    size_t eocd = SIZE_MAX;
    if (n_ >= 22) {
      const size_t stop = n_ - 22 > 0xFFFF ? n_ - 22 - 0xFFFF : 0;
      for (size_t i = n_ - 22 + 1; i-- > stop;)
        if (u32(d_ + i) == 0x06054b50) {
          eocd = i;
          break;
        }
    }
    if (eocd == SIZE_MAX) fail("teeth: head .pt has no zip EOCD");
    const uint16_t count = u16(d_ + eocd + 10);
    const uint64_t cd_size = u32(d_ + eocd + 12), cd_off = u32(d_ + eocd + 16);
    if (cd_off > n_ || cd_size > n_ - cd_off) fail("teeth: head .pt central directory is malformed");
    const uint8_t* p = d_ + cd_off;
    const uint8_t* end = p + cd_size;
    for (uint16_t i = 0; i < count; ++i) {
      if (end - p < 46 || u32(p) != 0x02014b50) fail("teeth: head .pt central directory is malformed");
      const size_t name_len = u16(p + 28), extra_len = u16(p + 30), comment_len = u16(p + 32);
      if (static_cast<size_t>(end - p) - 46 < name_len + extra_len + comment_len)
        fail("teeth: head .pt central directory is malformed");
      ZipEntry e;
      e.method = u16(p + 10);
      e.size = u32(p + 20);
      e.local = u32(p + 42);
      e.name.assign(reinterpret_cast<const char*>(p + 46), name_len);
      entries_.push_back(std::move(e));
      p += 46 + name_len + extra_len + comment_len;
    }
  }

  // The first entry whose name ends with tail, or null.
  const ZipEntry* find(std::string_view tail) const {
    for (const ZipEntry& e : entries_)
      if (endsWith(e.name, tail)) return &e;
    return nullptr;
  }

  // The entry's bytes inside the file.
  std::string_view data(const ZipEntry& e) const {
    if (e.method != 0)
      fail("teeth: head .pt entry is DEFLATEd; torch writes ZIP_STORED — refusing to guess at a compressed member");
    if (e.local > n_ || n_ - e.local < 30) fail("teeth: head .pt entry out of range");
    const uint8_t* h = d_ + e.local;
    if (u32(h) != 0x04034b50) fail("teeth: head .pt local header out of range");
    const uint64_t start = e.local + 30 + u16(h + 26) + u16(h + 28);
    if (start > n_) fail("teeth: head .pt local header out of range");
    if (e.size > n_ - start) fail("teeth: head .pt entry out of range");
    return {reinterpret_cast<const char*>(d_ + start), static_cast<size_t>(e.size)};
  }

 private:
  const uint8_t* d_;
  size_t n_;
  std::vector<ZipEntry> entries_;
};

// ---------------------------------------------------------------------------------------------
// Pickle subset

struct Value;
using Ref = std::shared_ptr<const Value>;  // memo entries and tuples share, never copy

struct Value {
  enum Kind { None, Bool, Int, String, Tuple, Dict, Global, Storage, Tensor } kind = None;
  int64_t i = 0;
  std::string s;               // String text, Global "module name", Storage key
  std::vector<Ref> items;      // Tuple
  std::vector<int64_t> shape;  // Tensor
  int64_t offset = 0;          // Tensor
};

Value of(Value::Kind k) {
  Value v;
  v.kind = k;
  return v;
}

Ref make(Value v) { return std::make_shared<const Value>(std::move(v)); }

struct StateEntry {
  std::string key;
  Ref tensor;
};

class Unpickler {
 public:
  explicit Unpickler(std::string_view prog) : p_(prog) {}

  std::vector<StateEntry> run() {
    for (;;) {
      const uint8_t op = byte();
      switch (op) {
        case 0x80: byte(); break;  // PROTO
        case 0x28: marks_.push_back(stack_.size()); break;
        case 0x29: push(of(Value::Tuple)); break;
        case 0x7D: push(of(Value::Dict)); break;
        case 0x4A: pushInt(static_cast<int32_t>(u32(take(4)))); break;
        case 0x4B: pushInt(*take(1)); break;
        case 0x4D: pushInt(u16(take(2))); break;
        case 0x4E: push(of(Value::None)); break;
        case 0x88:
        case 0x89: {
          Value v = of(Value::Bool);
          v.i = op == 0x88;
          push(std::move(v));
          break;
        }
        case 0x58: {
          const uint32_t len = u32(take(4));
          Value v = of(Value::String);
          v.s.assign(reinterpret_cast<const char*>(take(len)), len);
          push(std::move(v));
          break;
        }
        case 0x63: {
          Value v = of(Value::Global);
          v.s = line();
          v.s += " " + line();
          push(std::move(v));
          break;
        }
        case 0x85: tupleOf(1); break;
        case 0x86: tupleOf(2); break;
        case 0x87: tupleOf(3); break;
        case 0x74: {
          const size_t m = popMark();
          Value t = of(Value::Tuple);
          t.items.assign(stack_.begin() + static_cast<std::ptrdiff_t>(m), stack_.end());
          stack_.resize(m);
          push(std::move(t));
          break;
        }
        case 0x71: memo_[*take(1)] = top(); break;
        case 0x72: memo_[u32(take(4))] = top(); break;
        case 0x68: get(*take(1), "teeth: pickle BINGET out of range"); break;
        case 0x6A: get(u32(take(4)), "teeth: pickle LONG_BINGET out of range"); break;
        case 0x73: {
          need(2);
          const Ref v = pop(), k = pop();
          keep(k, v);
          break;
        }
        case 0x75: {
          const size_t m = popMark();
          if ((stack_.size() - m) % 2) malformed();
          for (size_t j = m; j < stack_.size(); j += 2) keep(stack_[j], stack_[j + 1]);
          stack_.resize(m);
          break;
        }
        case 0x51: persistentId(); break;
        case 0x52: reduce(); break;
        case 0x62: break;  // BUILD: PyTorch's metadata rides on it; nothing is applied
        case 0x2E: return std::move(state_);
        default: {
          char hex[3];
          std::snprintf(hex, sizeof hex, "%02x", op);
          fail(std::string("teeth: unsupported pickle opcode 0x") + hex + " in head .pt");
        }
      }
    }
  }

 private:
  [[noreturn]] static void malformed() { fail("teeth: head .pt pickle is malformed (stack or mark underflow)"); }

  const uint8_t* take(size_t n) {
    if (p_.size() - at_ < n) fail("teeth: pickle truncated");
    const auto* r = reinterpret_cast<const uint8_t*>(p_.data() + at_);
    at_ += n;
    return r;
  }
  uint8_t byte() { return *take(1); }
  std::string line() {
    const size_t nl = p_.find('\n', at_);
    if (nl == std::string_view::npos) fail("teeth: pickle truncated");
    std::string s(p_.substr(at_, nl - at_));
    at_ = nl + 1;
    return s;
  }

  void push(Value v) { stack_.push_back(make(std::move(v))); }
  void pushInt(int64_t i) {
    Value v = of(Value::Int);
    v.i = i;
    push(std::move(v));
  }
  void need(size_t n) {
    const size_t floor = marks_.empty() ? 0 : marks_.back();
    if (stack_.size() < floor + n) malformed();
  }
  Ref top() {
    need(1);
    return stack_.back();
  }
  Ref pop() {
    need(1);
    Ref r = std::move(stack_.back());
    stack_.pop_back();
    return r;
  }
  size_t popMark() {
    if (marks_.empty()) malformed();
    const size_t m = marks_.back();
    marks_.pop_back();
    return m;
  }
  void tupleOf(size_t n) {
    need(n);
    Value t = of(Value::Tuple);
    t.items.assign(stack_.end() - static_cast<std::ptrdiff_t>(n), stack_.end());
    stack_.resize(stack_.size() - n);
    push(std::move(t));
  }
  void get(uint32_t idx, const char* msg) {
    const auto it = memo_.find(idx);
    if (it == memo_.end()) fail(msg);
    stack_.push_back(it->second);
  }
  void keep(const Ref& k, const Ref& v) {
    if (k->kind == Value::String && v->kind == Value::Tensor) state_.push_back({k->s, v});
  }

  void persistentId() {
    const Ref pid = pop();
    const auto& it = pid->items;
    if (pid->kind != Value::Tuple || it.size() != 5 || it[0]->kind != Value::String || it[0]->s != "storage" ||
        it[2]->kind != Value::String)
      fail("teeth: unexpected persistent id in head .pt");
    if (it[1]->kind != Value::Global || it[1]->s != "torch FloatStorage")
      fail("teeth: head .pt storage is " + (it[1]->kind == Value::Global ? it[1]->s : std::string("?")) +
           ", not torch FloatStorage — refusing to reinterpret it");
    Value s = of(Value::Storage);
    s.s = it[2]->s;
    push(std::move(s));
  }

  void reduce() {
    const Ref args = pop();
    const Ref fn = pop();
    if (fn->kind != Value::Global || args->kind != Value::Tuple) malformed();
    if (fn->s == "collections OrderedDict") {
      push(of(Value::Dict));
      return;
    }
    if (fn->s != "torch._utils _rebuild_tensor_v2")
      fail("teeth: head .pt calls " + fn->s + " — this reader refuses code it does not model");
    const auto& a = args->items;
    if (a.size() < 4 || a[0]->kind != Value::Storage || a[1]->kind != Value::Int || a[2]->kind != Value::Tuple ||
        a[3]->kind != Value::Tuple)
      fail("teeth: malformed _rebuild_tensor_v2");
    Value t = of(Value::Tensor);
    t.s = a[0]->s;
    t.offset = a[1]->i;
    for (const Ref& d : a[2]->items) {
      if (d->kind != Value::Int) fail("teeth: malformed _rebuild_tensor_v2");
      t.shape.push_back(d->i);
    }
    push(std::move(t));
  }

  std::string_view p_;
  size_t at_ = 0;
  std::vector<Ref> stack_;
  std::vector<size_t> marks_;
  std::unordered_map<uint32_t, Ref> memo_;
  std::vector<StateEntry> state_;
};

std::string shapeText(const std::vector<int64_t>& s) {
  std::string t = "[";
  for (int64_t d : s) t += std::to_string(d) + ",";
  return t + "]";
}

}  // namespace

size_t HeadTensorSpec::elements() const {
  size_t n = 1;
  for (int64_t d : shape) n *= static_cast<size_t>(d);
  return n;
}

const std::array<HeadTensorSpec, 10>& headTensorSpecs() {
  static const std::array<HeadTensorSpec, 10> specs = {{
      {"cand.0.weight", {16, 7, 3, 3}},
      {"cand.0.bias", {16}},
      {"cand.2.weight", {16, 16, 3, 3}},
      {"cand.2.bias", {16}},
      {"cand.4.weight", {1, 16, 3, 3}},
      {"cand.4.bias", {1}},
      {"syn.0.weight", {16, 3, 3, 3}},
      {"syn.0.bias", {16}},
      {"syn.2.weight", {1, 16, 3, 3}},
      {"syn.2.bias", {1}},
  }};
  return specs;
}

size_t HeadWeights::params() const {
  size_t n = 0;
  for (const auto& v : t) n += v.size();
  return n;
}

HeadWeights loadHeadPt(const std::vector<uint8_t>& bytes) { return loadHeadPt(bytes.data(), bytes.size()); }

HeadWeights loadHeadPt(const uint8_t* data, size_t size) {
  if (!data) size = 0;
  const Zip zip(data, size);
  const ZipEntry* pkl = zip.find("/data.pkl");
  if (!pkl) fail("teeth: head .pt has no data.pkl");
  const std::vector<StateEntry> state = Unpickler(zip.data(*pkl)).run();
  if (state.empty()) fail("teeth: head .pt state_dict is empty");

  // The synthesis branch is read when any of its names occurs; then all four are required.
  bool syn = false;
  for (const StateEntry& e : state)
    for (size_t i = 6; i < 10; ++i) syn |= e.key == headTensorSpecs()[i].name;
  HeadWeights w;
  const size_t count = syn ? 10 : 6;
  for (size_t i = 0; i < count; ++i) {
    const HeadTensorSpec& spec = headTensorSpecs()[i];
    const Value* v = nullptr;
    size_t seen = 0;
    for (const StateEntry& e : state)
      if (e.key == spec.name) {
        if (!seen) v = e.tensor.get();
        ++seen;
      }
    if (!seen) fail(std::string("teeth: head .pt lacks '") + spec.name + "'");
    if (seen > 1)
      fail(std::string("teeth: head .pt names '") + spec.name + "' " + std::to_string(seen) + " times — ambiguous");
    if (v->shape != spec.shape)
      fail(std::string("teeth: head '") + spec.name + "' has shape " + shapeText(v->shape) +
           " — not the BlendHead(16) arch");
    const ZipEntry* st = zip.find("/data/" + v->s);
    if (!st) fail("teeth: head storage " + v->s + " missing");
    const std::string_view bytes = zip.data(*st);
    const size_t n = spec.elements();
    if (v->offset < 0 || static_cast<uint64_t>(v->offset) > bytes.size() / 4 ||
        bytes.size() / 4 - static_cast<size_t>(v->offset) < n)
      fail("teeth: head storage " + v->s + " too small");
    w.t[i].resize(n);
    std::memcpy(w.t[i].data(), bytes.data() + static_cast<size_t>(v->offset) * 4, n * 4);  // little-endian host
  }
  w.envelope = 12.0f / 255.0f;
  const size_t p = w.params();
  if (p != 4082 && p != 3489)
    fail("teeth: head has " + std::to_string(p) +
         " params, not the 4,082 of BlendHead(16) nor the 3,489 of BlendHead8(16)");
  return w;
}

}  // namespace le::tessera
