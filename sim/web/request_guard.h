#pragma once

#include <string_view>

namespace routerd::web {

// DNS rebinding: a page of another site whose name was made to point at this
// address would send its own name as Host. Only the names that cannot be
// rebound are served: "localhost" and IP literals, with the port served.
bool host_allowed(std::string_view host, unsigned short port);

// Another web page open in the engineer's browser may send requests here, but
// its browser names that page's origin. Changes and WebSocket upgrades are
// accepted from the page's own origin ("http://" + the Host served), and from
// clients that are not browsers (curl, scripts), which send no Origin.
bool origin_allowed(std::string_view origin, bool has_origin, std::string_view host);

}  // namespace routerd::web
