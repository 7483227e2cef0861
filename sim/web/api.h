#pragma once

#include <string>
#include <string_view>

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>

namespace routerd::web {

class WebState;

struct ApiReply {
    boost::beast::http::status status;
    std::string body;  // JSON
};

// The HTTP API under /api/: `target` is the request target, query included.
//   GET  /api/levels                 the levels
//   GET  /api/levels/N               crosspoints and locks of level N
//   POST /api/levels/N/take          {"destination":5,"source":3} or {"takes":[{...},...]}
//   POST /api/levels/N/lock          {"destination":5,"locked":true}
//   GET  /api/clients                the connected Leitch clients
//   GET  /api/events[?after=SEQ]     the recent activity
ApiReply handle_api(WebState& state, boost::beast::http::verb method, std::string_view target,
                    const std::string& body);

}  // namespace routerd::web
