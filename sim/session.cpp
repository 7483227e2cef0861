#include "sim/session.h"

#include <boost/asio/post.hpp>

#include "sim/links/admission.h"
#include "sim/session_manager.h"

namespace routerd {

namespace asio = boost::asio;

namespace {

// A client whose recent slices kept the converter busy longer than this (the
// last one counting fully, the one before half, and so on) waits for its turn
// among the costly ones (see schedule_slice).
constexpr std::chrono::milliseconds kCostlySlice{1};

}  // namespace

Session::Session(std::unique_ptr<Transport> transport, int id, const LinkSettings& settings,
                 const SessionContext& context, AddressShares::Place place)
    : transport_(std::move(transport)),
      place_(std::move(place)),
      id_(id),
      link_note_(settings.note()),
      context_(context),
      front_(settings, transport_->executor(), context.log, client_name(id) + " (" + transport_->peer() + ")",
             context.admission ? &context.admission->failed_logins() : nullptr, place_.address()),
      link_(*this),
      converter_(id, context),
      input_(id, context.log, context.limits.max_line_bytes),
      output_(context.limits, context.report_room) {
    info_.id = id;
    info_.peer = transport_->peer();
    info_.link = settings.telnet ? "telnet" : transport_->kind();
    info_.connected_since = std::chrono::system_clock::now();
}

// The transport's operations keep the session alive, as handlers holding
// shared_from_this() would.
std::shared_ptr<TransportUser> Session::as_transport_user() {
    return std::shared_ptr<TransportUser>(shared_from_this(), static_cast<TransportUser*>(this));
}

void Session::start() {
    transport_->prepare();
    context_.log.client_line(client_name(id_) + " connected from " + info_.peer + link_note_);
    if (context_.watcher) context_.watcher->client_connected(*this);
    if (!front_.logging_in()) return start_instance();
    state_ = State::logging_in;
    front_.start(*this);
    flush();
    do_read();
}

void Session::start_instance() {
    state_ = State::introducing;
    converter_.create(link_, info_.peer);
    context_.router.subscribe(*this);
    introduce_some();
}

// The framework's start-up order: after the level list, the current crosspoint
// of every destination and the state of every locked one, so that the instance
// can answer a status query for the whole matrix at once.
void Session::introduce_some() {
    if (state_ != State::introducing) return;
    call_ = Call::introduction;
    const bool told = introduction_.tell_next(context_.router, *this);
    call_ = Call::none;
    flush();
    if (state_ != State::introducing) return;
    if (!told) {
        asio::post(transport_->executor(), [self = shared_from_this()] { self->introduce_some(); });
        return;
    }
    state_ = State::open;
    continue_input();
}

void Session::stop(const std::string& reason) {
    if (state_ == State::stopped) return;
    state_ = State::stopped;
    // Leave the router before the instance goes, so that no change is told to
    // a destroyed instance.
    if (converter_.created()) context_.router.unsubscribe(*this);
    converter_.destroy();
    front_.stop();
    transport_->close();
    place_.give_back();
    output_.clear();
    context_.log.client_line(name() + " disconnected: " + reason);
    if (context_.watcher) context_.watcher->client_disconnected(*this, reason);
    if (stopped_handler_) stopped_handler_(reason);
    context_.manager.leave(shared_from_this());
}

// Told only while subscribed: from the instance's creation to just before it goes.
void Session::crosspoint_changed(int level, int source, int destination) {
    if (state_ != State::dropping) converter_.crosspoint(level, source, destination);
}

void Session::lock_changed(int level, int destination, int state) {
    if (state_ != State::dropping) converter_.lock(level, destination, state);
}

void Session::levels_changed() {
    if (state_ != State::dropping) converter_.levels_changed();
}

// ---------------------------------------------------------------------------
// Output

void Session::send(const std::string& data) {
    converter_.sent(data);
    if (ending()) return;
    output_.append(front_.encode(data), context_.switches.tag(), context_.switches.settled_frame());
    if (call_ == Call::input && output_.waiting() > context_.output_bound) throw OutputOverflow();
    // Output caused by a router change is written once the frame is told, so
    // that all of it leaves together.
    if (call_ == Call::none) flush_after_frame();
}

void Session::reply(std::string_view bytes) {
    if (!ending()) output_.append(bytes);
}

// A write under way takes the new output with it when the link is writable;
// otherwise one starts now.
void Session::flush() {
    awaiting_flush_ = false;
    converter_.end_event();
    if (ending()) return;
    if (output_.writing() && output_.behind_the_router()) return drop(output_.behind_reason());
    if (output_.writing() || output_.waiting() == 0) return;
    write_some();
}

// Output made outside the client's own events (the router's reports) leaves
// once the frame is told to every client, so that all of it goes in one write.
void Session::flush_after_frame() {
    if (awaiting_flush_) return;
    awaiting_flush_ = true;
    context_.manager.await_flush(shared_from_this());
}

void Session::write_some() {
    converter_.log_sent();
    boost::system::error_code ec;
    switch (output_.write(*transport_, ec, context_.switches.settled_frame())) {
        case ClientOutput::Written::failed:
            return fail(ec, "write");
        case ClientOutput::Written::held:
            return await_settle();
        case ClientOutput::Written::all_taken:
            return took_everything();
        case ClientOutput::Written::behind_the_router:
            return drop(output_.behind_reason());
        case ClientOutput::Written::waiting:
            return transport_->async_wait_writable(as_transport_user());
    }
}

// What shows a change leaves once the change is kept.
void Session::await_settle() {
    if (awaiting_settle_) return;
    awaiting_settle_ = true;
    context_.switches.when_settled(output_.held_for(), [self = shared_from_this()] {
        self->awaiting_settle_ = false;
        self->flush();
    });
}

void Session::on_writable(const boost::system::error_code& ec) {
    if (ending()) return;
    if (ec) return fail(ec, "write");
    write_some();
    continue_input();
}

void Session::took_everything() {
    if (output_.end_burst()) context_.manager.memory_released();
    if (state_ == State::draining) return stop(stop_reason_);
    continue_input();
}

void Session::check_timeouts(Clock::time_point now) {
    if (ending()) return;
    std::optional<std::string> reason = front_.overdue(now);
    if (!reason) reason = output_.overdue(now);
    if (reason) drop(*reason);
}

// ---------------------------------------------------------------------------
// Input

void Session::do_read() {
    reading_ = Reading::reading;
    transport_->async_read_some(asio::buffer(input_.buffer(), input_.capacity()), as_transport_user());
}

void Session::on_read(const boost::system::error_code& ec, std::size_t length) {
    reading_ = Reading::idle;
    if (state_ != State::open && state_ != State::logging_in) return;
    if (ec) return fail(ec, "read");
    const Front::Read read = front_.read(input_.buffer(), length, *this);
    switch (read.outcome) {
        case Front::Outcome::broken:
            return drop(front_.problem());
        case Front::Outcome::logging_in:
            flush();
            if (state_ == State::logging_in) do_read();
            return;
        case Front::Outcome::logged_in:
            return logged_in(read.begin, read.end);
        case Front::Outcome::data:
            break;
    }
    if (read.begin == read.end) {
        // Only telnet negotiation: answered, and the next read follows.
        flush();
        return continue_input();
    }
    accept_input(read.begin, read.end);
}

// What followed the password waits for the instance's introduction.
void Session::logged_in(std::size_t begin, std::size_t end) {
    flush();
    if (state_ != State::logging_in || !take_client_place()) return;
    accept_input(begin, end);
    if (state_ != State::logging_in) return;
    try {
        start_instance();
    } catch (const std::exception& e) {
        stop(std::string("cannot start a session: ") + e.what());
    }
}

// At the prompt the client held a place of the login budget; logged in, it
// needs one among max_clients, or is told there is none and closed.
bool Session::take_client_place() {
    if (!context_.admission || !place_) return true;
    Admission::Verdict verdict = context_.admission->after_login(place_.address());
    if (!verdict.place) {
        reply(verdict.line);
        reply_now();
        close_after_output(verdict.reason);
        return false;
    }
    place_ = std::move(verdict.place);
    return true;
}

// The buffer's [begin, end) is for the converter, after the line checks.
void Session::accept_input(std::size_t begin, std::size_t end) {
    if (!input_.hold(begin, end, info_)) {
        return stop("more than " + std::to_string(context_.limits.max_line_bytes) +
                    " bytes received without a line end");
    }
    if (state_ != State::open) return;  // the login or the introduction goes first
    if (costly()) return schedule_slice();
    feed_slice();
}

// Hands the next slice to the instance, or reads more once everything has
// been handed over. Neither while the client's output is over the mark: the
// link taking it resumes the input.
void Session::continue_input() {
    if (state_ != State::open || reading_ != Reading::idle) return;
    if (output_.above_mark()) return;
    if (input_.empty()) return do_read();
    schedule_slice();
}

// Other clients' events run before the next slice. A client whose last slice
// was costly waits for its turn among the costly ones, one of which runs per
// round of events: it cannot hold up a client whose commands are cheap.
void Session::schedule_slice() {
    reading_ = Reading::slice_posted;
    if (costly()) return context_.manager.queue_costly_slice(shared_from_this());
    asio::post(transport_->executor(), [self = shared_from_this()] { self->run_scheduled_slice(); });
}

bool Session::costly() const { return recent_cost_ > kCostlySlice; }

void Session::run_scheduled_slice() {
    reading_ = Reading::idle;
    feed_slice();
}

void Session::feed_slice() {
    if (state_ != State::open || input_.empty()) return;
    slice_.assign(input_.next_slice());
    call_ = Call::input;
    const Clock::time_point began = Clock::now();
    try {
        converter_.receive(slice_);
    } catch (const OutputOverflow&) {
        call_ = Call::none;
        converter_.discard_event();
        return drop("more than " + with_thousands(context_.output_bound) +
                    " bytes of output from its own commands in one event");
    }
    // A command's cost shows in the slice that ends its line: the slices
    // before it are cheap. So the cost is remembered over several slices.
    recent_cost_ = recent_cost_ / 2 + (Clock::now() - began);
    call_ = Call::none;
    output_.answers_done();
    // A take's answers and its frame's reports leave in one write: the frame
    // ends before the next read or slice, which are posted after it.
    if (context_.switches.frame_pending()) {
        converter_.end_event();
        flush_after_frame();
    } else {
        flush();
    }
    continue_input();
}

// A limit was passed, perhaps in the middle of a call into the instance: stop
// once the current event is over.
void Session::drop(const std::string& reason) {
    if (ending()) return;
    state_ = State::dropping;
    output_.clear();
    asio::post(transport_->executor(), [self = shared_from_this(), reason] { self->stop(reason); });
}

// The client is told why (what is waiting), then the link closes.
void Session::close_after_output(const std::string& reason) {
    if (ending() || state_ == State::draining) return;
    state_ = State::draining;
    stop_reason_ = reason;
    if (output_.waiting() == 0) stop(reason);
}

void Session::fail(const boost::system::error_code& ec, const char* operation) {
    if (ec == asio::error::operation_aborted || state_ == State::stopped) return;
    // A client that only closed its sending side still gets the answers under way.
    if (ec == asio::error::eof) return close_after_output("closed by client");
    stop(std::string(operation) + " failed: " + ec.message());
}

}  // namespace routerd
