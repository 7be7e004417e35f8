# cmake -DOUTPUT=file.cpp -DBASE_DIR=dir -DFILES="a;b" -P EmbedAssets.cmake
# Writes the dashboard's files into one C++ source as byte arrays, so the binary serves them
# without reading anything at run time.
set(table "")
set(arrays "")
set(index 0)
foreach(name IN LISTS FILES)
  file(READ "${BASE_DIR}/${name}" hex HEX)
  string(LENGTH "${hex}" hex_length)
  math(EXPR size "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
  string(APPEND arrays "const unsigned char kAsset${index}[] = {\n${bytes}0x00};\n")
  string(APPEND table "    {\"${name}\", kAsset${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Generated from tools/devserver/dashboard by EmbedAssets.cmake; do not edit.
#include \"DashboardAssets.h\"

namespace quorvia::devserver {
namespace {
${arrays}
const EmbeddedAsset kAssets[] = {
${table}};
}  // namespace

std::span<const EmbeddedAsset> dashboardAssets() { return kAssets; }

}  // namespace quorvia::devserver
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
