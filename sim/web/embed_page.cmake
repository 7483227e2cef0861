# Writes OUTPUT: the page's files (FILES, relative to PAGE_DIR) as C++ byte
# arrays and the table find_page_file() looks them up in.
set(table "")
set(arrays "")
set(index 0)
foreach(name IN LISTS FILES)
  file(READ "${PAGE_DIR}/${name}" hex HEX)
  string(LENGTH "${hex}" hex_length)
  math(EXPR length "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
  string(APPEND arrays "const char file${index}[] = {${bytes} 0};\n")
  if(name STREQUAL "index.html")
    set(path "/")
  else()
    set(path "/${name}")
  endif()
  if(name MATCHES "\\.html$")
    set(type "text/html; charset=utf-8")
  elseif(name MATCHES "\\.css$")
    set(type "text/css; charset=utf-8")
  elseif(name MATCHES "\\.js$")
    set(type "text/javascript; charset=utf-8")
  else()
    set(type "application/octet-stream")
  endif()
  string(APPEND table "    {\"${path}\", \"${type}\", {file${index}, ${length}}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Generated from sim/web/page/ by embed_page.cmake.
#include \"sim/web/page_files.h\"

namespace routerd::web {
namespace {
${arrays}
const PageFile kFiles[] = {
${table}};
}  // namespace

const PageFile* find_page_file(std::string_view path) {
    for (const PageFile& file : kFiles) {
        if (file.path == path) return &file;
    }
    return nullptr;
}

}  // namespace routerd::web
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
