#!/usr/bin/env bash
# The le tool as a user meets it: exit codes 0/1/2, --help everywhere, one-line errors.
#   le_cli_check.sh LE_BINARY SCRATCH_DIR
set -u
le="$1"
tmp="$2"
rm -rf "$tmp" && mkdir -p "$tmp"
fails=0

# expect CODE DESCRIPTION -- command...   (stdout/stderr land in $tmp/out, $tmp/err)
expect() {
  local want="$1" what="$2"
  shift 3
  "$@" >"$tmp/out" 2>"$tmp/err"
  local got=$?
  if [ "$got" != "$want" ]; then
    echo "FAIL: $what: exit $got, wanted $want"; sed 's/^/  stderr: /' "$tmp/err"; fails=$((fails + 1))
  fi
}
# the last command's stderr, apart from the engine's tagged diagnostic lines, is one line
# starting with PREFIX and containing TEXT
one_line_error() {
  local prefix="$1" text="$2"
  grep -v -e '^\[' -e '^Vantorix: ' "$tmp/err" >"$tmp/err1"
  if [ "$(wc -l <"$tmp/err1")" != 1 ] || ! head -c "${#prefix}" "$tmp/err1" | grep -qF "$prefix" || ! grep -qF -- "$text" "$tmp/err1"; then
    echo "FAIL: wanted one line '$prefix...$text...' on stderr, got:"; sed 's/^/  /' "$tmp/err"; fails=$((fails + 1))
  fi
}
stdout_has() {
  if ! grep -qF -- "$1" "$tmp/out"; then echo "FAIL: stdout lacks '$1'"; sed 's/^/  /' "$tmp/out"; fails=$((fails + 1)); fi
}

expect 2 "no command" -- "$le"
expect 2 "unknown command" -- "$le" frobnicate
one_line_error "le: " "unknown command 'frobnicate'"
expect 0 "top-level help" -- "$le" --help
stdout_has "forge"
for cmd in forge info pack paste frame; do
  if grep -q "^  $cmd " "$tmp/out"; then
    expect 0 "$cmd --help" -- "$le" "$cmd" --help
    stdout_has "usage: le $cmd"
  fi
done

small=(--nt 4 --frames 6 --size 96x64 --crop 48 --quiet)
expect 2 "forge without a directory" -- "$le" forge "${small[@]}"
one_line_error "le forge: " "wants exactly one bundle directory"
expect 2 "forge with a bad number" -- "$le" forge "$tmp/b" --nt zero
one_line_error "le forge: " "--nt wants an integer"
expect 2 "forge with an unknown option" -- "$le" forge "$tmp/b" --colour red
one_line_error "le forge: " "unknown option --colour"
expect 2 "forge with an unknown break" -- "$le" forge "$tmp/b" --break nonsense
one_line_error "le forge: " "unknown break 'nonsense'"
expect 0 "forge --break list" -- "$le" forge --break list
stdout_has "short-pooled"

expect 0 "forge a bundle" -- "$le" forge "$tmp/b" "${small[@]}" --imx
[ -f "$tmp/b/manifest.json" ] && [ -f "$tmp/b.imx" ] || { echo "FAIL: forge wrote no bundle or container"; fails=$((fails + 1)); }
expect 1 "forge into a non-empty directory" -- "$le" forge "$tmp/b" "${small[@]}"
one_line_error "le forge: " "exists and is not empty"
expect 0 "forge --force" -- "$le" forge "$tmp/b" "${small[@]}" --force

expect 0 "info on a good bundle" -- "$le" info "$tmp/b"
stdout_has "NT        4 source frames"
stdout_has "pooled64.f16"
expect 0 "pack" -- "$le" pack "$tmp/b" "$tmp/c.imx" --quiet
expect 0 "info on a container" -- "$le" info "$tmp/c.imx"
stdout_has "(unwrapped container)"
expect 1 "pack a missing directory" -- "$le" pack "$tmp/nothing" "$tmp/x.imx"
one_line_error "le pack: " "is not a directory"
expect 2 "pack with one argument" -- "$le" pack "$tmp/b"

expect 0 "frame of a drive frame" -- "$le" frame "$tmp/b" -o "$tmp/f.png" --drive 1
[ -s "$tmp/f.png" ] || { echo "FAIL: frame wrote no PNG"; fails=$((fails + 1)); }
expect 0 "frame with the mouth opened" -- "$le" frame "$tmp/b" -o "$tmp/g.png" --si 0 --open 0.6
expect 2 "frame without an output" -- "$le" frame "$tmp/b"
one_line_error "le frame: " "wants -o OUT.png"
expect 2 "frame with --drive and --si" -- "$le" frame "$tmp/b" -o "$tmp/f.png" --drive 0 --si 0
one_line_error "le frame: " "exclude each other"
expect 1 "frame with a missing director" -- "$le" frame "$tmp/b" -o "$tmp/f.png" --model nosuch
grep -qF "le frame: le_render_kp_crop: Renderer: cannot open " "$tmp/err" || { echo "FAIL: missing director not named"; fails=$((fails + 1)); }

expect 1 "frame --lip without a template" -- "$le" frame "$tmp/b" -o "$tmp/f.png" --lip "$tmp/lip.png"
one_line_error "le frame: " "carries no lip_template.v1.json"
expect 0 "forge with a learned lip template" -- "$le" forge "$tmp/lips" "${small[@]}" --lips learned
expect 0 "frame --lip" -- "$le" frame "$tmp/lips" -o "$tmp/f.png" --lip "$tmp/lip.png" --open 0.5
[ -s "$tmp/lip.png" ] || { echo "FAIL: frame --lip wrote no PNG"; fails=$((fails + 1)); }
expect 2 "forge with an unknown lips kind" -- "$le" forge "$tmp/x" "${small[@]}" --lips round
one_line_error "le forge: " "--lips wants none, unified, template or learned, got 'round'"

expect 0 "forge a broken bundle" -- "$le" forge "$tmp/bad" "${small[@]}" --break manifest-duplicate-w
expect 1 "info refuses an ambiguous manifest" -- "$le" info "$tmp/bad"
one_line_error "le info: " "is AMBIGUOUS — 2 scalar occurrences"
stdout_has "REFUSED"

if "$le" --help | grep -q "^  paste "; then
  expect 2 "paste without an output" -- "$le" paste "$tmp/b"
  one_line_error "le paste: " "wants an output movie"
  expect 0 "paste five frames" -- "$le" paste "$tmp/b" -o "$tmp/p.mp4" --frames 8 --quiet
  frames=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 "$tmp/p.mp4" 2>/dev/null)
  [ "$frames" = 8 ] || { echo "FAIL: le paste wrote '$frames' frames, wanted 8"; fails=$((fails + 1)); }
  expect 0 "paste from a container" -- "$le" paste "$tmp/c.imx" -o "$tmp/c.mp4" --quiet
  expect 0 "forge an fs_red-only bundle" -- "$le" forge "$tmp/fs" "${small[@]}" --prior fs_red
  expect 1 "paste without a picture prior" -- "$le" paste "$tmp/fs" -o "$tmp/fs.mp4"
  one_line_error "le paste: " "fs_red.f16 alone"
  expect 1 "paste a bundle the engine refuses" -- "$le" paste "$tmp/bad" -o "$tmp/bad.mp4"
  one_line_error "le paste: " "le_create: manifest: key \"W\" is AMBIGUOUS"
fi

if [ "$fails" != 0 ]; then echo "$fails failure(s)"; exit 1; fi
echo "le tool: all checks passed"
