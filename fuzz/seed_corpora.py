#!/usr/bin/env python3
"""Writes the seed inputs of every fuzz target from bundles the forge writes, plus broken variants
of them (the forge's own --break bundles and cut or edited copies).

    fuzz/seed_corpora.py LE_TOOL [CORPUS_ROOT]

LE_TOOL is the built `le` tool (build/tools/le); CORPUS_ROOT defaults to fuzz/corpus. The same
tool always writes the same seeds. Seeds stay small (a few KiB) so the fuzzers run fast.
"""
import os
import struct
import subprocess
import sys
import tempfile

TINY = ["--nt", "2", "--frames", "2", "--size", "64x48", "--crop", "32", "--quiet"]


def forge(le, out, *flags):
    subprocess.run([le, "forge", out, *TINY, *flags], check=True)
    return out


def write(root, target, name, data):
    d = os.path.join(root, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


def read(path):
    with open(path, "rb") as f:
        return f.read()


def toc(entries, version=2, magic=b"IMX\0"):
    """A container header and table: entries of (name bytes, offset, size)."""
    out = magic + struct.pack("<HH", version, len(entries))
    for name, off, size in entries:
        out += struct.pack("<H", len(name)) + name + struct.pack("<QQ", off, size)
    return out


def image(members, **kw):
    """A whole container: members (name bytes, payload) after the table, in order."""
    head = len(toc([(n, 0, 0) for n, _ in members], **kw))
    entries, off = [], head
    for name, data in members:
        entries.append((name, off, len(data)))
        off += len(data)
    return toc(entries, **kw) + b"".join(d for _, d in members)


def member_files(bundle):
    for base, _, files in os.walk(bundle):
        for f in sorted(files):
            p = os.path.join(base, f)
            yield os.path.relpath(p, bundle).encode(), p


def imx_seeds(le, root, tmp):
    b = forge(le, os.path.join(tmp, "imx"), "--no-directors", "--no-motion", "--no-audio")
    # Every member name of a real bundle, payloads cut to their first bytes.
    members = [(n, read(p)[:24]) for n, p in sorted(member_files(b))]
    write(root, "imx_toc", "bundle_names.imx", image(members))
    # The small members whole, packed by the tool itself.
    small = os.path.join(tmp, "imx_small")
    os.makedirs(os.path.join(small, "drive"))
    for rel in ["manifest.json", "M.f32", "drive/si.i32"]:
        with open(os.path.join(small, rel), "wb") as f:
            f.write(read(os.path.join(b, rel)))
    packed = os.path.join(tmp, "small.imx")
    subprocess.run([le, "pack", small, packed, "--quiet"], check=True)
    real = read(packed)
    write(root, "imx_toc", "packed_small.imx", real)
    # Broken variants: the refusals the unwrap names.
    write(root, "imx_toc", "truncated_toc.imx", real[:20])
    write(root, "imx_toc", "truncated_payload.imx", real[:-8])
    write(root, "imx_toc", "version1.imx", image(members[:2], version=1))
    write(root, "imx_toc", "bad_magic.imx", image(members[:2], magic=b"IMY\0"))
    write(root, "imx_toc", "empty.imx", toc([]))
    manifest = read(os.path.join(b, "manifest.json"))
    write(root, "imx_toc", "unsafe_names.imx",
          image([(b"../escape", b"x"), (b"/abs", b"y"), (b"a\0b", b"z"), (b"ok/..x", b"w")]))
    write(root, "imx_toc", "synthetic_manifest.imx",
          image([(b"manifest.json", b'{"_imx_synthetic_manifest": true}'), (b"M.f32", b"\0" * 8)]))
    write(root, "imx_toc", "nested_and_duplicate.imx",
          image([(b"d/e/f.bin", b"1"), (b"d/e", b"2"), (b"manifest.json", manifest),
                 (b"manifest.json", b"{}")]))
    write(root, "imx_toc", "offset_past_end.imx",
          toc([(b"manifest.json", 1 << 40, 16), (b"M.f32", 0, 1 << 62)]))


def manifest_seeds(le, root, tmp, full):
    variants = {
        "plain": [],
        "alt_names": ["--alt-names"],
        "frame_count_key": ["--frame-count-key", "--crop-size-key"],
        "long_stamp_keys": ["--long-stamp-keys"],
        "no_stamp": ["--stamp", "none"],
        "other_stamp": ["--stamp", "128x96"],
        "unified_lips": ["--lips", "unified"],
        "bad_format": ["--break", "manifest-bad-format"],
        "no_agent": ["--break", "manifest-no-agent"],
        "zero_dims": ["--break", "manifest-zero-dims"],
        "duplicate_w": ["--break", "manifest-duplicate-w"],
        "no_nt": ["--break", "manifest-no-nt"],
    }
    # The first byte picks the key: below 0x80 one of the target's keys, else a prefix of the
    # text of that many bytes.
    picks = [0, 1, 3, 4, 0x80 + 5]
    # The manifest of a bundle with every member names them all.
    write(root, "manifest_key", "full_00.json", b"\0" + read(os.path.join(full, "manifest.json")))
    flags = ["--no-directors", "--no-motion", "--no-tessera", "--no-audio", "--drive", "none"]
    for name, extra in variants.items():
        b = forge(le, os.path.join(tmp, "m_" + name), *flags, *extra)
        text = read(os.path.join(b, "manifest.json"))
        for pick in picks if name == "plain" else picks[:1]:
            write(root, "manifest_key", "%s_%02x.json" % (name, pick), bytes([pick]) + text)


def onnx_seeds(root, b):
    models = {
        "director": "model_b1.onnx",
        "director_fs": "model_b1_fs.onnx",
        "stitch": "motion/stitch.onnx",
        "lmdm": "motion/lmdm.onnx",
        "a2x_dec": "a2x_dec.onnx",
    }
    # The first byte picks the edit: 0 none, 1 drop nodes, 2/4 input edits, 8 drop outputs,
    # 0x70 add an input with dims.
    for name, rel in models.items():
        data = read(os.path.join(b, rel))
        for mode in [0x00, 0x01, 0x02, 0x04, 0x08, 0x70] if name == "director" else [0x00, 0x11]:
            write(root, "onnx_bytes", "%s_%02x.onnx" % (name, mode), bytes([mode]) + data)
    director = read(os.path.join(b, models["director"]))
    write(root, "onnx_bytes", "truncated_director.onnx", b"\0" + director[: len(director) // 3])
    write(root, "onnx_bytes", "bad_varint.onnx", b"\0\x08" + b"\xff" * 11)
    write(root, "onnx_bytes", "bad_wire_type.onnx", b"\0\x0f\x01")
    write(root, "onnx_bytes", "length_past_end.onnx", b"\0\x3a\xff\xff\x03\x0a")


def borrow_seeds(le, root, tmp):
    flags = ["--no-directors", "--no-motion", "--no-audio", "--drive", "none", "--tessera-donors", "8"]
    bundles = {"plain": forge(le, os.path.join(tmp, "t_plain"), *flags, "--lips", "learned")}
    for brk in ["bank-geometry-disagrees", "bank-order-repeats", "bank-over-cap", "head-deflated",
                "head-wrong-shape", "no-head-config"]:
        bundles[brk] = forge(le, os.path.join(tmp, "t_" + brk), *flags, "--break", brk)
    seen = set()
    for name, b in bundles.items():
        tag = name.replace("-", "_")
        manifest = read(os.path.join(b, "manifest.json"))
        bank = read(os.path.join(b, "tessera_bank.v1.json"))
        # The member loader's input: the manifest's length (two bytes), the manifest, the sidecar.
        write(root, "tessera_members", tag + ".bin", struct.pack("<H", len(manifest)) + manifest + bank)
        for member in ["manifest.json", "tessera_bank.v1.json", "tessera_head.v1.json"]:
            path = os.path.join(b, member)
            if os.path.exists(path) and read(path) not in seen:
                seen.add(read(path))
                write(root, "tessera_json", "%s_%s" % (tag, member), read(path))
        pt = os.path.join(b, "tessera_head.v1.pt")
        if name == "plain" or name.startswith("head-"):
            write(root, "tessera_pt", tag + ".pt", read(pt))
    plain = bundles["plain"]
    bank = read(os.path.join(plain, "tessera_bank.v1.json"))
    write(root, "tessera_json", "cut_bank.json", bank[: len(bank) // 2])
    pt = read(os.path.join(plain, "tessera_head.v1.pt"))
    write(root, "tessera_pt", "cut_head.pt", pt[: len(pt) - 100])
    write(root, "tessera_members", "cut_sidecar.bin",
          struct.pack("<H", 0xffff) + read(os.path.join(plain, "manifest.json")) + bank[:40])
    # The lip template of a measured face (anchors only) and with its learned map, then cut.
    anchors = forge(le, os.path.join(tmp, "t_template"), *flags, "--no-tessera", "--lips", "template")
    write(root, "lip_template", "template.json", read(os.path.join(anchors, "lip_template.v1.json")))
    learned = read(os.path.join(plain, "lip_template.v1.json"))
    write(root, "lip_template", "learned.json", learned)
    write(root, "lip_template", "cut_learned.json", learned[: len(learned) // 3])


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    le = os.path.abspath(sys.argv[1])
    root = sys.argv[2] if len(sys.argv) == 3 else os.path.join(os.path.dirname(__file__), "corpus")
    with tempfile.TemporaryDirectory() as tmp:
        full = forge(le, os.path.join(tmp, "full"))
        imx_seeds(le, root, tmp)
        manifest_seeds(le, root, tmp, full)
        onnx_seeds(root, full)
        borrow_seeds(le, root, tmp)


if __name__ == "__main__":
    main()
