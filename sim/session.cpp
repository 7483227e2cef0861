#include "sim/session.h"

#include <list>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include "sim/session_manager.h"

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

std::string describe_peer(const tcp::socket& socket) {
    boost::system::error_code ec;
    const tcp::endpoint peer = socket.remote_endpoint(ec);
    if (ec) return "unknown peer";
    return peer.address().to_string() + ":" + std::to_string(peer.port());
}

}  // namespace

Session::Session(tcp::socket socket, int id, const SessionContext& context)
    : socket_(std::move(socket)),
      id_(id),
      peer_(describe_peer(socket_)),
      context_(context),
      link_(*this),
      driver_(id, context.router, context.switches, context.log) {}

Session::~Session() = default;

void Session::start() {
    // The reply to a command and the reports that follow it are separate
    // writes; with Nagle's algorithm the second would wait for the client's
    // delayed acknowledgement.
    boost::system::error_code ignored;
    socket_.set_option(tcp::no_delay(true), ignored);

    instance_ = context_.plugin->create(link_);
    instance_->SetCommandDriver(&driver_);
    instance_->LoadConfig(context_.converter_config);
    introduce_router();
    context_.router.subscribe(*this);
    context_.log.info("client " + std::to_string(id_) + " connected from " + peer_);
    do_read();
}

// The framework's start-up order: the full level list, then the current
// crosspoint of every destination and the state of every locked one, so that
// the instance can answer a status query for the whole matrix at once.
void Session::introduce_router() {
    const Router& router = context_.router;
    std::list<LevelDesc> levels;
    for (const LevelSpec& levelSpec : router.levels()) levels.push_back({levelSpec.number, levelSpec.sources, levelSpec.destinations});
    instance_->LevelList(levels, false);

    in_event_ = true;  // whatever the instance says now leaves with the first flush
    for (const LevelSpec& levelSpec : router.levels()) {
        for (int destination = 0; destination < levelSpec.destinations; ++destination)
            instance_->Crosspoint(levelSpec.number, router.source_of(levelSpec.number, destination), destination);
        for (int destination = 0; destination < levelSpec.destinations; ++destination) {
            const int state = router.lock_of(levelSpec.number, destination);
            if (state != 0) instance_->CrosspointLock(levelSpec.number, destination, state);
        }
    }
    in_event_ = false;
    flush();
}

void Session::stop(const std::string& reason) {
    if (stopped_) return;
    stopped_ = true;
    // Leave the router before the instance goes, so that no change is told to
    // a destroyed instance.
    context_.router.unsubscribe(*this);
    instance_.reset();
    boost::system::error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_both, ignored);
    socket_.close(ignored);
    context_.log.info("client " + std::to_string(id_) + " (" + peer_ + ") disconnected: " + reason);
    context_.manager.leave(shared_from_this());
}

void Session::crosspoint_changed(int level, int source, int destination) {
    if (instance_ && !dropping_) instance_->Crosspoint(level, source, destination);
}

void Session::lock_changed(int level, int destination, int state) {
    if (instance_ && !dropping_) instance_->CrosspointLock(level, destination, state);
}

void Session::send(const std::string& data) {
    if (stopped_ || dropping_) return;
    outbox_ += data;
    if (outbox_.size() + in_flight_.size() > context_.limits.max_output_bytes) {
        drop("more than " + std::to_string(context_.limits.max_output_bytes) +
             " bytes of output waiting (client does not read)");
        return;
    }
    // Output caused by a router change is written once the change's event is
    // over, so that all of it leaves together.
    if (!in_event_ && !awaiting_flush_) {
        awaiting_flush_ = true;
        context_.manager.await_flush(shared_from_this());
    }
}

void Session::flush() {
    awaiting_flush_ = false;
    if (writing_ || outbox_.empty() || stopped_) return;
    if (context_.log.verbose())
        context_.log.activity("client " + std::to_string(id_) + " >> \"" + escape(outbox_) + "\"");
    in_flight_.swap(outbox_);
    writing_ = true;
    asio::async_write(socket_, asio::buffer(in_flight_),
                      [self = shared_from_this()](const boost::system::error_code& ec, std::size_t) {
                          self->on_write(ec);
                      });
}

void Session::on_write(const boost::system::error_code& ec) {
    writing_ = false;
    in_flight_.clear();
    if (ec) return stop(ec == asio::error::operation_aborted ? "closed" : "write failed: " + ec.message());
    flush();
    if (client_done_ && !writing_) stop("closed by client");
}

void Session::do_read() {
    socket_.async_read_some(asio::buffer(received_),
                            [self = shared_from_this()](const boost::system::error_code& ec, std::size_t n) {
                                self->on_read(ec, n);
                            });
}

void Session::on_read(const boost::system::error_code& ec, std::size_t length) {
    if (stopped_) return;
    if (ec == asio::error::eof) {
        // A client that only closed its sending side still gets the answers under way.
        client_done_ = true;
        if (!writing_) stop("closed by client");
        return;
    }
    if (ec) return stop(ec == asio::error::operation_aborted ? "closed" : "read failed: " + ec.message());
    if (dropping_) return;
    if (line_too_long(received_.data(), length)) {
        return stop("more than " + std::to_string(context_.limits.max_line_bytes) +
                    " bytes received without a line end");
    }
    if (context_.log.verbose()) log_received(received_.data(), length);

    in_event_ = true;
    instance_->ReceiveData(std::string(received_.data(), length), nullptr);
    in_event_ = false;
    if (dropping_) return;
    flush();
    do_read();
}

bool Session::line_too_long(const char* data, std::size_t length) {
    for (std::size_t i = length; i > 0; --i) {
        if (data[i - 1] == '\r' || data[i - 1] == '\n') {
            bytes_since_line_end_ = length - i;
            return bytes_since_line_end_ > context_.limits.max_line_bytes;
        }
    }
    bytes_since_line_end_ += length;
    return bytes_since_line_end_ > context_.limits.max_line_bytes;
}

void Session::log_received(const char* data, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        const char c = data[i];
        if (c != '\r' && c != '\n') {
            // Long lines are cut in the log; their start is enough to tell them apart.
            if (activity_line_.size() < 256) activity_line_ += c;
            continue;
        }
        if (!activity_line_.empty())
            context_.log.activity("client " + std::to_string(id_) + " << \"" + escape(activity_line_) + "\"");
        activity_line_.clear();
    }
}

// A limit was passed while the instance may be in the middle of a call: stop
// once the current event is over.
void Session::drop(const std::string& reason) {
    dropping_ = true;
    outbox_.clear();
    asio::post(socket_.get_executor(), [self = shared_from_this(), reason] { self->stop(reason); });
}

void SessionManager::flush_waiting() {
    std::vector<std::shared_ptr<Session>> waiting;
    waiting.swap(awaiting_flush_);
    for (const auto& session : waiting) session->flush();
    // The vector's storage is reused by the next frame.
    waiting.clear();
    if (awaiting_flush_.empty()) awaiting_flush_.swap(waiting);
}

void SessionManager::stop_all() {
    // stop() leaves the set, so work from a copy.
    const auto sessions = sessions_;
    for (const auto& session : sessions) session->stop("simulator shutting down");
}

}  // namespace routerd
