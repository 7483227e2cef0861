#pragma once

// Bytes written as C string text: what hosts show of the client's bytes in
// logs and transcripts, one entry per line whatever the bytes are.

#include <cstdio>
#include <string>
#include <string_view>

namespace plugin_host {

// CR, LF, TAB and backslash as \r \n \t \\, other control and non-ASCII bytes
// as \xHH, and with `quotes` a double quote as \".
inline std::string c_escape(std::string_view bytes, bool quotes = false) {
    std::string out;
    out.reserve(bytes.size());
    for (const unsigned char c : bytes) {
        switch (c) {
            case '\r': out += "\\r"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\\': out += "\\\\"; break;
            default:
                if (c == '"' && quotes) {
                    out += "\\\"";
                } else if (c < 0x20 || c >= 0x7f) {
                    char hex[5];
                    std::snprintf(hex, sizeof hex, "\\x%02X", c);
                    out += hex;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out;
}

}  // namespace plugin_host
