# Writes OUT, a C++ source holding the files of DIR (FILES, names relative to DIR) as byte arrays
# with a table le::serve::kAssets of {name, bytes, size}. Run at build time, so an edited page
# is rebuilt into the binary.
#   cmake -DDIR=... -DFILES="a.html;b.js" -DOUT=... -P embed_files.cmake
set(body "// Generated from ${DIR} by cmake/embed_files.cmake; do not edit.\n#include <cstddef>\n\n#include \"tools/le/serve/assets.h\"\n\nnamespace le::serve {\nnamespace {\n")
set(table "")
set(i 0)
foreach(name ${FILES})
  file(READ "${DIR}/${name}" hex HEX)
  string(LENGTH "${hex}" n)
  math(EXPR n "${n} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," hex "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" hex "${hex}")
  string(APPEND body "const unsigned char kFile${i}[] = {\n${hex}0};\n")
  string(APPEND table "    {\"${name}\", kFile${i}, ${n}},\n")
  math(EXPR i "${i} + 1")
endforeach()
string(APPEND body "}  // namespace\n\nconst Asset kAssets[] = {\n${table}    {nullptr, nullptr, 0},\n};\n\n}  // namespace le::serve\n")
file(WRITE "${OUT}.tmp" "${body}")
execute_process(COMMAND "${CMAKE_COMMAND}" -E copy_if_different "${OUT}.tmp" "${OUT}")
file(REMOVE "${OUT}.tmp")
