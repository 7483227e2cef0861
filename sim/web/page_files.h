#pragma once

#include <string_view>

namespace routerd::web {

// The page's files, compiled into the simulator (embed_page.cmake).
struct PageFile {
    std::string_view path;  // "/", "/app.js"...
    std::string_view content_type;
    std::string_view body;
};

const PageFile* find_page_file(std::string_view path);

}  // namespace routerd::web
