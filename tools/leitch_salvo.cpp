// leitch-salvo: saved routings ("salvos") of a running leitch-routerd, through
// its HTTP API: list them, save the current crosspoints of one level or of all
// levels under a name, recall one (its takes go through the router like a
// client's; locked destinations are refused and listed), delete one.
//
// Exit codes: 0 done, 1 refused by the simulator (unknown name, locked
// destinations on recall, no state file...), 2 the simulator cannot be reached
// or does not answer within the timeout.

#include <iostream>
#include <optional>
#include <string>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using nlohmann::json;

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kUnreachable = 2;

struct Reply {
    unsigned status = 0;
    json body;
};

// One request to the simulator's API, the answer included within `timeout`;
// throws on a network error. (A stream's timeout holds for its asynchronous
// operations only, hence the io_context run to the end.)
Reply call(const std::string& address, std::chrono::seconds timeout, http::verb method, const std::string& target,
           const json& body) {
    const auto colon = address.rfind(':');
    if (colon == std::string::npos) throw std::runtime_error("--http needs HOST:PORT, got " + address);
    asio::io_context io;
    asio::ip::tcp::resolver resolver(io);
    beast::tcp_stream stream(io);
    http::request<http::string_body> request{method, target, 11};
    request.set(http::field::host, address);
    request.set(http::field::user_agent, "leitch-salvo");
    if (!body.is_null()) {
        request.set(http::field::content_type, "application/json");
        request.body() = body.dump();
    }
    request.prepare_payload();
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    beast::error_code failure;
    const auto failed = [&failure](const beast::error_code& ec) {
        failure = ec;
        return static_cast<bool>(ec);
    };
    stream.expires_after(timeout);
    stream.async_connect(resolver.resolve(address.substr(0, colon), address.substr(colon + 1)),
                         [&](const beast::error_code& ec, const asio::ip::tcp::endpoint&) {
                             if (failed(ec)) return;
                             http::async_write(stream, request, [&](const beast::error_code& ec, std::size_t) {
                                 if (failed(ec)) return;
                                 http::async_read(stream, buffer, response,
                                                  [&](const beast::error_code& ec, std::size_t) { failed(ec); });
                             });
                         });
    io.run();
    if (failure == beast::error::timeout)
        throw std::runtime_error("no answer within " + std::to_string(timeout.count()) + " s");
    if (failure) throw std::runtime_error(failure.message());
    beast::error_code ignored;
    stream.socket().shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    return {response.result_int(), json::parse(response.body(), nullptr, false)};
}

int refused(const Reply& reply) {
    std::cerr << "leitch-salvo: " << reply.body.value("error", std::string("refused")) << " (HTTP " << reply.status
              << ")\n";
    return kRefused;
}

std::string levels_text(const json& levels) {
    std::string text;
    for (const json& level : levels) text += (text.empty() ? "" : ",") + std::to_string(level.get<int>());
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"leitch-salvo: saved routings of a running leitch-routerd (started with --state FILE),\n"
                 "through its web view's HTTP API."};
    std::string address = "127.0.0.1:8080";
    app.add_option("--http", address, "the simulator's web view, HOST:PORT")->capture_default_str();
    int seconds = 10;
    app.add_option("--timeout", seconds, "seconds to wait for the connection and the answer")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    app.require_subcommand(1);
    auto* list = app.add_subcommand("list", "list the saved routings");
    std::string name;
    std::optional<int> level;
    auto* save = app.add_subcommand("save", "save the current crosspoints under a name (replacing one of that name)");
    save->add_option("name", name, "letters, digits, '-', '_' or '.'")->required();
    save->add_option("--level", level, "only this router level (default: all levels)");
    auto* recall = app.add_subcommand("recall", "take every crosspoint of a saved routing");
    recall->add_option("name", name)->required();
    auto* remove = app.add_subcommand("delete", "delete a saved routing");
    remove->add_option("name", name)->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? kDone : kUnreachable;
    }

    const std::chrono::seconds timeout(seconds);
    try {
        if (list->parsed()) {
            const Reply reply = call(address, timeout, http::verb::get, "/api/salvos", nullptr);
            if (reply.status != 200) return refused(reply);
            for (const json& salvo : reply.body["salvos"]) {
                std::cout << salvo["name"].get<std::string>() << "\tlevels " << levels_text(salvo["levels"]) << "\t"
                          << salvo["crosspoints"].get<int>() << " crosspoints\n";
            }
            return kDone;
        }
        if (save->parsed()) {
            json body = {{"name", name}};
            if (level) body["level"] = *level;
            const Reply reply = call(address, timeout, http::verb::post, "/api/salvos", body);
            if (reply.status != 200) return refused(reply);
            std::cout << "saved " << name << ": levels " << levels_text(reply.body["levels"]) << ", "
                      << reply.body["crosspoints"].get<int>() << " crosspoints\n";
            return kDone;
        }
        if (recall->parsed()) {
            const Reply reply = call(address, timeout, http::verb::post, "/api/salvos/" + name + "/recall", nullptr);
            if (reply.status != 200) return refused(reply);
            std::cout << "recalled " << name << ": " << reply.body["applied"].get<int>() << " taken, "
                      << reply.body["refused"].size() << " refused\n";
            for (const json& r : reply.body["refused"]) {
                std::cout << "  refused: level " << r["level"].get<int>() << " destination "
                          << r["destination"].get<int>() << " source " << r["source"].get<int>() << ": "
                          << r["reason"].get<std::string>() << "\n";
            }
            return reply.body["refused"].empty() ? kDone : kRefused;
        }
        const Reply reply = call(address, timeout, http::verb::delete_, "/api/salvos/" + name, nullptr);
        if (reply.status != 200) return refused(reply);
        std::cout << "deleted " << name << "\n";
        return kDone;
    } catch (const std::exception& e) {
        std::cerr << "leitch-salvo: cannot reach the simulator at " << address << ": " << e.what() << "\n";
        return kUnreachable;
    }
}
