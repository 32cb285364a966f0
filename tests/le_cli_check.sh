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
# refused CODE PREFIX TEXT -- command...: exits CODE with the one-line error PREFIX...TEXT...
refused() {
  local code="$1" prefix="$2" text="$3"
  shift 3
  expect "$code" "$prefix$text" "$@"
  one_line_error "$prefix" "$text"
}
stdout_has() {
  if ! grep -qF -- "$1" "$tmp/out"; then echo "FAIL: stdout lacks '$1'"; sed 's/^/  /' "$tmp/out"; fails=$((fails + 1)); fi
}

expect 2 "no command" -- "$le"
refused 2 "le: " "unknown command 'frobnicate'" -- "$le" frobnicate
expect 0 "top-level help" -- "$le" --help
stdout_has "forge"
for cmd in forge info pack paste frame; do
  if grep -q "^  $cmd " "$tmp/out"; then
    expect 0 "$cmd --help" -- "$le" "$cmd" --help
    stdout_has "usage: le $cmd"
  fi
done

small=(--nt 4 --frames 6 --size 96x64 --crop 48 --quiet)
refused 2 "le forge: " "wants exactly one bundle directory" -- "$le" forge "${small[@]}"
refused 2 "le forge: " "--nt wants an integer" -- "$le" forge "$tmp/b" --nt zero
refused 2 "le forge: " "unknown option --colour" -- "$le" forge "$tmp/b" --colour red
refused 2 "le forge: " "unknown break 'nonsense'" -- "$le" forge "$tmp/b" --break nonsense
expect 0 "forge --break list" -- "$le" forge --break list
stdout_has "short-pooled"

expect 0 "forge a bundle" -- "$le" forge "$tmp/b" "${small[@]}" --imx
[ -f "$tmp/b/manifest.json" ] && [ -f "$tmp/b.imx" ] || { echo "FAIL: forge wrote no bundle or container"; fails=$((fails + 1)); }
refused 1 "le forge: " "exists and is not empty" -- "$le" forge "$tmp/b" "${small[@]}"
expect 0 "forge --force" -- "$le" forge "$tmp/b" "${small[@]}" --force

expect 0 "info on a good bundle" -- "$le" info "$tmp/b"
stdout_has "NT        4 source frames"
stdout_has "pooled64.f16"
expect 0 "pack" -- "$le" pack "$tmp/b" "$tmp/c.imx" --quiet
expect 0 "info on a container" -- "$le" info "$tmp/c.imx"
stdout_has "(unwrapped container)"
refused 1 "le pack: " "is not a directory" -- "$le" pack "$tmp/nothing" "$tmp/x.imx"
expect 2 "pack with one argument" -- "$le" pack "$tmp/b"

expect 0 "frame of a drive frame" -- "$le" frame "$tmp/b" -o "$tmp/f.png" --drive 1
[ -s "$tmp/f.png" ] || { echo "FAIL: frame wrote no PNG"; fails=$((fails + 1)); }
expect 0 "frame with the mouth opened" -- "$le" frame "$tmp/b" -o "$tmp/g.png" --si 0 --open 0.6
refused 2 "le frame: " "wants -o OUT.png" -- "$le" frame "$tmp/b"
refused 2 "le frame: " "exclude each other" -- "$le" frame "$tmp/b" -o "$tmp/f.png" --drive 0 --si 0
expect 1 "frame with a missing director" -- "$le" frame "$tmp/b" -o "$tmp/f.png" --model nosuch
grep -qF "le frame: le_render_kp_crop: Renderer: cannot open " "$tmp/err" || { echo "FAIL: missing director not named"; fails=$((fails + 1)); }

refused 1 "le frame: " "carries no lip_template.v1.json" -- "$le" frame "$tmp/b" -o "$tmp/f.png" --lip "$tmp/lip.png"
expect 0 "forge with a learned lip template" -- "$le" forge "$tmp/lips" "${small[@]}" --lips learned
expect 0 "frame --lip" -- "$le" frame "$tmp/lips" -o "$tmp/f.png" --lip "$tmp/lip.png" --open 0.5
[ -s "$tmp/lip.png" ] || { echo "FAIL: frame --lip wrote no PNG"; fails=$((fails + 1)); }
refused 2 "le forge: " "--lips wants none, unified, template or learned, got 'round'" -- "$le" forge "$tmp/x" "${small[@]}" --lips round

expect 0 "forge a broken bundle" -- "$le" forge "$tmp/bad" "${small[@]}" --break manifest-duplicate-w
refused 1 "le info: " "is AMBIGUOUS — 2 scalar occurrences" -- "$le" info "$tmp/bad"
stdout_has "REFUSED"

if "$le" --help | grep -q "^  paste "; then
  refused 2 "le paste: " "wants an output movie" -- "$le" paste "$tmp/b"
  expect 0 "paste five frames" -- "$le" paste "$tmp/b" -o "$tmp/p.mp4" --frames 8 --quiet
  frames=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 "$tmp/p.mp4" 2>/dev/null)
  [ "$frames" = 8 ] || { echo "FAIL: le paste wrote '$frames' frames, wanted 8"; fails=$((fails + 1)); }
  expect 0 "paste from a container" -- "$le" paste "$tmp/c.imx" -o "$tmp/c.mp4" --quiet
  expect 0 "forge an fs_red-only bundle" -- "$le" forge "$tmp/fs" "${small[@]}" --prior fs_red
  refused 1 "le paste: " "fs_red.f16 alone" -- "$le" paste "$tmp/fs" -o "$tmp/fs.mp4"
  refused 1 "le paste: " "le_create: manifest: key \"W\" is AMBIGUOUS" -- "$le" paste "$tmp/bad" -o "$tmp/bad.mp4"
fi

if "$le" --help | grep -q "^  speak "; then
  # a sentence from espeak-ng as stereo 44.1 kHz WAV, and the same at 16 kHz mono raw
  espeak-ng -w "$tmp/s.wav" "Hello there, this is a test." && sox "$tmp/s.wav" -r 44100 -c 2 "$tmp/st.wav" &&
    sox "$tmp/st.wav" -r 16000 -c 1 -t raw -e signed -b 16 "$tmp/s.raw" || { echo "FAIL: espeak-ng or sox"; fails=$((fails + 1)); }
  n=$(( $(stat -c %s "$tmp/s.raw") / 2 ))
  speech=$(( (n + 639) / 640 ))
  # "stream: FRAMES DURATION" of OUT's video and audio
  probe() { ffprobe -v error -count_frames -show_entries stream=codec_type,nb_read_frames,duration -of csv=p=0 "$1" 2>/dev/null; }
  # frames = lead-in + ceil(samples / 640) + ramp + tail; the AAC track lasts as long as the video
  check_movie() {
    local file="$1" want="$2" v a
    v=$(probe "$file" | grep video); a=$(probe "$file" | grep audio)
    [ "$(echo "$v" | cut -d, -f3)" = "$want" ] || { echo "FAIL: $file: video '$v', wanted $want frames"; fails=$((fails + 1)); }
    awk -v v="$(echo "$v" | cut -d, -f2)" -v a="$(echo "$a" | cut -d, -f2)" 'BEGIN { d = v - a; exit !(a > 0 && d < 0.04 && d > -0.04) }' ||
      { echo "FAIL: $file: video $v and audio $a durations differ by a frame or more"; fails=$((fails + 1)); }
  }
  expect 0 "speak a stereo 44.1 kHz WAV" -- "$le" speak "$tmp/b" "$tmp/st.wav" -o "$tmp/s.mp4" --lead-in 0.2 --tail 0.4 --quiet
  check_movie "$tmp/s.mp4" $((5 + speech + 6 + 10))
  expect 0 "speak interrupted" -- "$le" speak "$tmp/b" "$tmp/st.wav" -o "$tmp/i.mp4" --lead-in 0 --tail 0.2 --interrupt-at 0.8 --quiet
  check_movie "$tmp/i.mp4" $((20 + 4 + 5))
  expect 0 "speak offline" -- "$le" speak "$tmp/b" "$tmp/st.wav" -o "$tmp/o.mp4" --offline --quiet
  check_movie "$tmp/o.mp4" "$speech"
  refused 2 "le speak: " "--offline renders the speech alone: it takes no --lead-in" -- "$le" speak "$tmp/b" "$tmp/st.wav" -o "$tmp/x.mp4" --offline --lead-in 1
  refused 1 "le speak: " "$tmp/b/manifest.json: " -- "$le" speak "$tmp/b" "$tmp/b/manifest.json" -o "$tmp/x.mp4"
  refused 2 "le speak: " "--interrupt-at wants a time inside the speech" -- "$le" speak "$tmp/b" "$tmp/st.wav" -o "$tmp/x.mp4" --interrupt-at 60
  # the borrow: attached and reported when the bundle carries one, off with --no-borrow
  expect 0 "forge a bundle with a borrow" -- "$le" forge "$tmp/t" --nt 4 --frames 6 --size 192x160 --crop 128 --lips template --tessera-donors 16 --quiet
  expect 0 "speak with the borrow" -- "$le" speak "$tmp/t" "$tmp/st.wav" -o "$tmp/t.mp4" --lead-in 0 --tail 0.2
  grep -qF "borrow: corpus geometry v1, 16 donors, window " "$tmp/err" && grep -qE "^borrow: $((speech + 6)) frames with borrowed teeth, 0 skipped$" "$tmp/err" ||
    { echo "FAIL: le speak did not report its borrow:"; sed 's/^/  /' "$tmp/err"; fails=$((fails + 1)); }
  expect 0 "speak --no-borrow" -- "$le" speak "$tmp/t" "$tmp/st.wav" -o "$tmp/t.mp4" --lead-in 0 --tail 0.2 --no-borrow
  ! grep -qE "^(borrow:|\[borrow\])" "$tmp/err" || { echo "FAIL: le speak --no-borrow still borrows:"; sed 's/^/  /' "$tmp/err"; fails=$((fails + 1)); }
  "$le" live "$tmp/t" --size 64x48 <"$tmp/s.raw" >/dev/null 2>"$tmp/err"
  grep -qF "borrow: corpus geometry v1, 16 donors" "$tmp/err" && grep -qE "^borrow: [1-9][0-9]* frames with borrowed teeth" "$tmp/err" ||
    { echo "FAIL: le live did not report its borrow:"; sed 's/^/  /' "$tmp/err"; fails=$((fails + 1)); }
  # live: every pushed sample spoken once, then the ramp, at the asked size
  "$le" live "$tmp/b" --size 64x48 <"$tmp/s.raw" >"$tmp/l.y4m" 2>"$tmp/err"
  grep -qF "($speech speech, 6 ramp," "$tmp/err" || { echo "FAIL: le live, wanted $speech speech frames:"; sed 's/^/  /' "$tmp/err"; fails=$((fails + 1)); }
  head -c 40 "$tmp/l.y4m" | grep -q "^YUV4MPEG2 W64 H48 F25:1" || { echo "FAIL: le live wrote no 64x48 YUV4MPEG2 stream"; fails=$((fails + 1)); }
fi

if "$le" --help | grep -q "^  serve "; then
  expect 0 "serve --help" -- "$le" serve --help
  stdout_has "usage: le serve BUNDLE"
  refused 2 "le serve: " "--port wants an integer" -- "$le" serve "$tmp/b" --port 70000
  refused 2 "le serve: " "--bind wants an IP address, got 'localhost:80'" -- "$le" serve "$tmp/b" --bind localhost:80
  refused 1 "le serve: " "AMBIGUOUS" -- "$le" serve "$tmp/bad" --port 0
  # the page over HTTP, then Ctrl-C: a clean exit
  "$le" serve "$tmp/b" --port 0 --quiet 2>"$tmp/serve.err" &
  pid=$!
  for _ in $(seq 100); do grep -q "at http://" "$tmp/serve.err" && break; sleep 0.1; done
  port=$(sed -n 's|.* at http://127.0.0.1:\([0-9]*\)/.*|\1|p' "$tmp/serve.err")
  if [ -n "$port" ] && exec 3<>"/dev/tcp/127.0.0.1/$port"; then
    printf 'GET / HTTP/1.0\r\n\r\n' >&3
    grep -q '<canvas id="face"' <&3 || { echo "FAIL: le serve served no page"; fails=$((fails + 1)); }
    exec 3<&-
  else
    echo "FAIL: le serve did not listen:"; sed 's/^/  /' "$tmp/serve.err"; fails=$((fails + 1))
  fi
  kill -INT "$pid"
  wait "$pid" || { echo "FAIL: le serve exited $? after Ctrl-C"; fails=$((fails + 1)); }
fi

if [ "$fails" != 0 ]; then echo "$fails failure(s)"; exit 1; fi
echo "le tool: all checks passed"
