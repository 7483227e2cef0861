// leitch-responder: answers the same bytes leitch-routerd answers to the load
// generator's commands, without a router or a plug-in behind them. Built like
// the simulator (one io_context, TCP_NODELAY, the reply and the reports as
// separate writes), it shows what the machine's loopback and Asio cost.
//
//   leitch-responder [--listen 127.0.0.1:0] [--destinations 32]

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include <boost/asio.hpp>

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

class Responder;

class Client : public std::enable_shared_from_this<Client> {
public:
    Client(tcp::socket socket, Responder& responder) : socket_(std::move(socket)), responder_(responder) {}
    void start();
    void send(const std::string& text) {
        outbox_ += text;
        flush();
    }
    bool reporting = false;

private:
    void read();
    void line(const std::string& text);
    void flush();

    tcp::socket socket_;
    Responder& responder_;
    char buffer_[16384];
    std::string partial_, outbox_, in_flight_;
    bool writing_ = false;
};

class Responder {
public:
    Responder(asio::io_context& io, const tcp::endpoint& at, int destinations) : io_(io), acceptor_(io, at) {
        for (int d = 0; d < destinations; ++d) {
            char report[32];
            std::snprintf(report, sizeof report, "\r\nS:0%X,0", d);
            level_status_ += report;
        }
        accept();
    }
    unsigned short port() const { return acceptor_.local_endpoint().port(); }
    const std::string& level_status() const { return level_status_; }
    std::set<std::shared_ptr<Client>> clients;

    // The report of a take reaches every client in report mode in the event after the command.
    void report(std::string text) {
        asio::post(io_, [this, text = std::move(text)] {
            for (const auto& c : clients) if (c->reporting) c->send(text);
        });
    }

private:
    void accept() {
        acceptor_.async_accept([this](boost::system::error_code ec, tcp::socket socket) {
            if (!ec) {
                auto client = std::make_shared<Client>(std::move(socket), *this);
                clients.insert(client);
                client->start();
            }
            accept();
        });
    }
    asio::io_context& io_;
    tcp::acceptor acceptor_;
    std::string level_status_;
};

void Client::start() {
    socket_.set_option(tcp::no_delay(true));
    read();
}

void Client::read() {
    socket_.async_read_some(asio::buffer(buffer_), [self = shared_from_this()](boost::system::error_code ec, std::size_t n) {
        if (ec) {
            self->responder_.clients.erase(self);
            return;
        }
        for (std::size_t i = 0; i < n; ++i) {
            const char c = self->buffer_[i];
            if (c == '\r' || c == '\n') {
                if (!self->partial_.empty()) self->line(self->partial_);
                self->partial_.clear();
            } else {
                self->partial_ += c;
            }
        }
        self->read();
    });
}

void Client::line(const std::string& text) {
    if (text.rfind("@ ?", 0) == 0) {
        reporting = true;
        return send(text + "\r\n>");
    }
    if (text.rfind("@ !", 0) == 0) {
        reporting = false;
        return send("\r\n>");
    }
    std::string reply = reporting ? text : std::string();
    if (text.rfind("@ S?", 0) == 0) reply += responder_.level_status();
    if (text.rfind("@ X:", 0) == 0) {
        // "@ X:L/D,S" is reported as "S:LD,S".
        const auto slash = text.find('/');
        if (slash != std::string::npos) {
            std::string report = "\r\nS:" + text.substr(4, slash - 4);
            report += text.substr(slash + 1);
            responder_.report(report + "\r\n>");
        }
    }
    send(reply + "\r\n>");
}

void Client::flush() {
    if (writing_ || outbox_.empty()) return;
    in_flight_.swap(outbox_);
    writing_ = true;
    asio::async_write(socket_, asio::buffer(in_flight_), [self = shared_from_this()](boost::system::error_code ec, std::size_t) {
        self->writing_ = false;
        self->in_flight_.clear();
        if (!ec) self->flush();
    });
}

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    unsigned short port = 0;
    int destinations = 32;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--listen")) {
            const std::string text = argv[i + 1];
            host = text.substr(0, text.rfind(':'));
            port = static_cast<unsigned short>(std::atoi(text.c_str() + text.rfind(':') + 1));
        } else if (!std::strcmp(argv[i], "--destinations")) {
            destinations = std::atoi(argv[i + 1]);
        }
    }
    asio::io_context io;
    Responder responder(io, tcp::endpoint(asio::ip::make_address(host), port), destinations);
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&](auto, int) { io.stop(); });
    std::printf("listening on %s:%u\n", host.c_str(), responder.port());
    std::fflush(stdout);
    io.run();
}
