#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>

namespace routerd::web {

class WebState;

struct ApiReply {
    boost::beast::http::status status;
    std::string body;  // JSON
};

// A request as a route's handler sees it.
struct ApiRequest {
    std::vector<std::string_view> parameters;  // the parts of the path a route's {...} stand for, in order
    std::string_view query;
    const std::string& body;
};

// Where a handler's reply goes, now or later (after the state file's thread
// has done its part); called exactly once.
using ApiRespond = std::function<void(ApiReply)>;
// `request` lives until the handler returns: what is answered later copies
// what it needs.
using ApiHandler = void (*)(WebState& state, const ApiRequest& request, const ApiRespond& respond);

struct ApiRoute {
    boost::beast::http::verb method;
    std::string_view path;  // "/api/levels/{level}": a {...} stands for one part of the path
    ApiHandler handler;
    std::string_view summary;  // what it serves or does, for the listing
};

// Every route of the HTTP API, in the order they are listed. The first route
// of a path names the method a request with another method is told to use.
const std::vector<ApiRoute>& api_routes();

// The route a request's method and path find. Without one, `path_route` is
// the first route of that path when some route serves it with another method
// (405), else null (404). Empty parts of the path are skipped.
struct RouteMatch {
    const ApiRoute* route = nullptr;
    const ApiRoute* path_route = nullptr;
    std::vector<std::string_view> parameters;
};
RouteMatch find_route(boost::beast::http::verb method, std::string_view path);

// The routes as text, one a line: method, path, summary.
std::string describe_routes();

// The HTTP API under /api/: `target` is the request target, query included.
void handle_api(WebState& state, boost::beast::http::verb method, std::string_view target, const std::string& body,
                ApiRespond respond);

}  // namespace routerd::web
