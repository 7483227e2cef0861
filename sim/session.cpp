#include "sim/session.h"

#include <algorithm>
#include <new>

#include <boost/asio/post.hpp>

#include "sim/session_manager.h"

namespace routerd {

namespace asio = boost::asio;

namespace {

// Router state told to a new instance per event: connecting to a large router
// costs the other clients no more than a slice of input does.
constexpr int kIntroductionBatch = 2048;

// A client whose recent slices kept the converter busy longer than this (the
// last one counting fully, the one before half, and so on) waits for its turn
// among the costly ones (see schedule_slice).
constexpr std::chrono::milliseconds kCostlySlice{1};

// Output that grew beyond this during a burst leaves freed memory to give back.
constexpr std::size_t kBurstBytes = 64 * 1024;

// The start of a client's last line kept for the web view.
constexpr std::size_t kNotedLineBytes = 256;

// A wrong login waits this long before the next prompt: guessing is slow.
constexpr std::chrono::seconds kLoginDelay{1};

// Thrown out of SendData to stop an instance in the middle of an answer that
// no reading client could need (its own tables bloated by look-ups far beyond
// the router). To the converter it is an allocation failure of its link, the
// one exception it lets through.
struct OutputOverflow : std::bad_alloc {
    const char* what() const noexcept override { return "output of one event over the bound"; }
};

// The converter drops TAB, CR and LF in front of a line only while something
// else follows them in its buffer, so a chunk that ends in one of them can
// leave a bare terminator that would otherwise have been dropped. A chunk that
// ends on any other character is cut like the whole input would be.
bool is_white(char c) { return c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

Session::Session(std::unique_ptr<Transport> transport, int id, const LinkSettings& settings,
                 const SessionContext& context)
    : transport_(std::move(transport)),
      id_(id),
      connected_at_(Clock::now()),
      peer_(transport_->peer()),
      settings_(settings),
      context_(context),
      link_(*this),
      driver_(id, context.router, context.switches, context.log, context.refusals) {
    info_.id = id;
    info_.peer = peer_;
    info_.link = settings.telnet ? "telnet" : transport_->kind();
    info_.connected_since = std::chrono::system_clock::now();
    input_at_ = connected_at_;
    if (settings.telnet) telnet_.emplace();
    if (settings.login != LoginMode::off) login_.emplace(settings.login, settings.users);
}

Session::~Session() = default;

// The transport's operations keep the session alive, as handlers holding
// shared_from_this() would.
std::shared_ptr<TransportUser> Session::as_transport_user() {
    return std::shared_ptr<TransportUser>(shared_from_this(), static_cast<TransportUser*>(this));
}

std::string Session::name() const { return "client " + std::to_string(id_) + " (" + peer_ + ")"; }

void Session::start() {
    transport_->prepare();
    context_.log.client_line("client " + std::to_string(id_) + " connected from " + peer_ +
                             (settings_.telnet || login_ ? " (" + settings_.describe() + ")" : ""));
    if (context_.watcher) context_.watcher->client_connected(*this);
    if (!login_) return start_instance();
    // No byte reaches a converter before the login has passed: there is no
    // instance to reach yet.
    state_ = State::logging_in;
    send_to_client(Login::kUserPrompt);
    flush();
    do_read();
}

void Session::start_instance() {
    state_ = State::introducing;
    if (!context_.record.directory.empty()) {
        recording_ = LinkRecording::open(context_.record, id_, peer_, context_.log);
        driver_.record_to(recording_.get());
    }
    instance_ = context_.plugin->create(link_);
    context_.log.flush();  // the plug-in's own line, in its place
    instance_->SetCommandDriver(&driver_);
    if (recording_) recording_->configuration(context_.converter_config);
    instance_->LoadConfig(context_.converter_config);
    std::list<LevelDesc> levels;
    for (const LevelSpec& level : context_.router.levels())
        levels.push_back({level.number, level.sources, level.destinations});
    if (recording_) recording_->levels(levels);
    instance_->LevelList(levels, false);
    context_.router.subscribe(*this);
    introduce_some();
}

// The framework's start-up order: after the level list, the current crosspoint
// of every destination and the state of every locked one, so that the instance
// can answer a status query for the whole matrix at once. Changes published
// meanwhile are told as they come; a destination told twice is told the same.
void Session::introduce_some() {
    if (state_ != State::introducing) return;
    const Router& router = context_.router;
    const std::vector<LevelSpec>& levels = router.levels();
    in_event_ = true;
    for (int told = 0; told < kIntroductionBatch && introduced_level_ < levels.size(); ++told) {
        const LevelSpec& level = levels[introduced_level_];
        const int destination = introduced_destination_;
        if (!introducing_locks_) {
            tell_crosspoint(level.number, router.source_of(level.number, destination), destination);
        } else if (const int lock = router.lock_of(level.number, destination); lock != 0) {
            tell_lock(level.number, destination, lock);
        }
        if (++introduced_destination_ < level.destinations) continue;
        introduced_destination_ = 0;
        if (introducing_locks_) ++introduced_level_;
        introducing_locks_ = !introducing_locks_;
    }
    in_event_ = false;
    flush();
    if (state_ != State::introducing) return;
    if (introduced_level_ < levels.size()) {
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
    if (instance_) context_.router.unsubscribe(*this);
    instance_.reset();
    driver_.record_to(nullptr);
    recording_.reset();
    if (login_delay_) login_delay_->cancel();
    transport_->close();
    output_.clear();
    context_.log.client_line(name() + " disconnected: " + reason);
    if (context_.watcher) context_.watcher->client_disconnected(*this, reason);
    if (stopped_handler_) stopped_handler_(reason);
    context_.manager.leave(shared_from_this());
}

void Session::crosspoint_changed(int level, int source, int destination) {
    if (instance_ && state_ != State::dropping) tell_crosspoint(level, source, destination);
}

void Session::lock_changed(int level, int destination, int state) {
    if (instance_ && state_ != State::dropping) tell_lock(level, destination, state);
}

void Session::tell_crosspoint(int level, int source, int destination) {
    if (recording_) recording_->crosspoint(level, source, destination);
    instance_->Crosspoint(level, source, destination);
}

void Session::tell_lock(int level, int destination, int state) {
    if (recording_) recording_->lock(level, destination, state);
    instance_->CrosspointLock(level, destination, state);
}

// ---------------------------------------------------------------------------
// Output

void Session::send(const std::string& data) {
    if (recording_) recording_->sent(data);
    if (state_ == State::dropping || state_ == State::stopped) return;
    if (context_.log.verbose()) activity_sent_ += data;
    if (!telnet_) {
        send_to_client(data);
    } else {
        to_client_.clear();
        telnet_->encode(data, to_client_);
        send_to_client(to_client_);
    }
    if (in_input_ && waiting() > context_.output_bound) throw OutputOverflow();
    // Output caused by a router change is written once the frame is told, so
    // that all of it leaves together.
    if (!in_event_ && !awaiting_flush_) {
        awaiting_flush_ = true;
        context_.manager.await_flush(shared_from_this());
    }
}

void Session::send_to_client(const std::string& bytes) {
    if (waiting() == 0) progress_at_ = Clock::now();
    output_.append(bytes);
}

// A write under way takes the new output with it when the link is writable;
// otherwise one starts now.
void Session::flush() {
    awaiting_flush_ = false;
    if (recording_) recording_->end_event();
    if (state_ == State::dropping || state_ == State::stopped) return;
    if (writing() && behind_the_router()) return drop_slow_reader();
    if (writing() || waiting() == 0) return;
    write_some();
}

void Session::write_some() {
    if (context_.log.verbose()) log_sent();
    output_.hand_over();
    most_waiting_ = std::max(most_waiting_, waiting());
    boost::system::error_code ec;
    const std::size_t taken = transport_->write_now(output_.front_buffers(), ec);
    if (ec) return fail(ec, "write");
    const Clock::time_point now = Clock::now();
    if (taken > 0) {
        output_.consume(taken);
        progress_at_ = now;
    }
    if (waiting() == 0) return took_everything();

    const bool above = waiting() > context_.limits.max_output_bytes;
    if (above && !above_mark_) above_since_ = now;
    above_mark_ = above;
    if (above) {
        if (behind_the_router()) return drop_slow_reader();
    } else {
        own_answers_ = 0;
    }
    transport_->async_wait_writable(as_transport_user());
}

// Measured after the link has taken what it could. A client's own answers
// may wait in any amount one event can produce (its input waits meanwhile);
// on top of them the router's reports may pile up by the mark, or one frame,
// before the client counts as one that reads slower than the router changes.
bool Session::behind_the_router() const { return waiting() > own_answers_ + context_.report_room; }

void Session::drop_slow_reader() {
    drop("more than " + with_thousands(context_.report_room) +
         " bytes of router reports waiting besides its own answers (client reads slower than the router changes)");
}

void Session::on_writable(const boost::system::error_code& ec) {
    if (state_ == State::dropping || state_ == State::stopped) return;
    if (ec) return fail(ec, "write");
    write_some();
    continue_input();
}

void Session::took_everything() {
    above_mark_ = false;
    own_answers_ = 0;
    if (most_waiting_ > kBurstBytes) context_.manager.memory_released();
    most_waiting_ = 0;
    if (state_ == State::draining) return stop(stop_reason_);
    continue_input();
}

void Session::check_timeouts(Clock::time_point now) {
    if (state_ == State::dropping || state_ == State::stopped) return;
    const auto idle = settings_.idle_timeout;
    // Timed at the once-a-second check, not at every read: the clock is read
    // once a second, not once per packet.
    if (heard_) input_at_ = now;
    heard_ = false;
    if (state_ == State::logging_in && now - connected_at_ >= settings_.login_timeout)
        return drop("no login within " + std::to_string(settings_.login_timeout.count()) + " s (login_timeout)");
    if (idle.count() > 0 && now - input_at_ >= idle)
        return drop("nothing received for " + std::to_string(idle.count()) + " s (idle_timeout)");
    if (waiting() == 0) return;
    const auto timeout = context_.limits.output_timeout;
    if (now - progress_at_ >= timeout) {
        return drop("no output taken for " + std::to_string(timeout.count()) + " ms (client does not read)");
    }
    if (above_mark_ && now - above_since_ >= timeout) {
        return drop("more than " + with_thousands(context_.limits.max_output_bytes) + " bytes of output waiting for " +
                    std::to_string(timeout.count()) + " ms (client reads too slowly)");
    }
}

// ---------------------------------------------------------------------------
// Input

void Session::do_read() {
    reading_ = true;
    transport_->async_read_some(asio::buffer(received_), as_transport_user());
}

void Session::on_read(const boost::system::error_code& ec, std::size_t length) {
    reading_ = false;
    if (state_ != State::open && state_ != State::logging_in) return;
    if (ec) return fail(ec, "read");
    heard_ = true;
    if (telnet_ && !decode_telnet(length)) return;
    if (length == 0) {
        // Only telnet negotiation: answered, and the next read follows.
        flush();
        if (state_ == State::logging_in && !reading_) return do_read();
        return continue_input();
    }
    if (state_ == State::logging_in) return read_login(length);
    accept_input(0, length);
}

// After a wrong login, until the next prompt.
bool Session::login_delayed() const { return login_delay_ && login_delay_->expiry() > Clock::now(); }

// Leaves the converter's bytes at the front of received_ and queues the
// answers to the client's negotiation. False when the link has been dropped.
bool Session::decode_telnet(std::size_t& length) {
    decoded_.clear();
    to_client_.clear();
    if (!telnet_->decode(received_.data(), length, decoded_, to_client_)) {
        drop("telnet protocol error: " + telnet_->error());
        return false;
    }
    // Decoding only ever removes bytes; the buffer could not hold more.
    if (decoded_.size() > length) {
        drop("telnet protocol error: more data decoded than received");
        return false;
    }
    if (!to_client_.empty()) send_to_client(to_client_);
    std::copy(decoded_.begin(), decoded_.end(), received_.begin());
    length = decoded_.size();
    return true;
}

void Session::read_login(std::size_t length) {
    // What was typed ahead of the next prompt is dropped, as login(1) does.
    if (login_delayed()) return do_read();
    const Login::Step step = login_->read(received_.data(), length);
    if (!step.reply.empty()) {
        send_to_client(step.reply);
        flush();
        if (state_ != State::logging_in) return;
    }
    switch (step.outcome) {
        case Login::Outcome::more:
            return do_read();
        case Login::Outcome::refused:
            return refuse_login();
        case Login::Outcome::passed:
            break;
    }
    context_.log.client_line(name() + " logged in");
    const std::size_t begin = step.consumed + login_->rest_of_line_end(received_.data() + step.consumed,
                                                                        length - step.consumed);
    // What followed the password waits for the instance's introduction.
    accept_input(begin, length);
    if (state_ != State::logging_in) return;
    try {
        start_instance();
    } catch (const std::exception& e) {
        stop(std::string("cannot start a session: ") + e.what());
    }
}

// The rest of the input, and whatever comes before the next prompt, is dropped.
void Session::refuse_login() {
    const int failures = login_->failures();
    context_.log.client_line(name() + ": login incorrect (" + std::to_string(failures) + " of " +
                             std::to_string(Login::kMostFailures) + ")");
    login_->restart();
    if (!login_delay_) login_delay_.emplace(transport_->executor());
    login_delay_->expires_after(kLoginDelay);
    login_delay_->async_wait([self = shared_from_this(), failures](const boost::system::error_code& ec) {
        if (ec || self->state_ != State::logging_in) return;
        self->send_to_client(Login::kIncorrect);
        if (failures >= Login::kMostFailures) {
            self->flush();
            return self->close_after_output("login failed " + std::to_string(failures) + " times");
        }
        self->send_to_client(Login::kUserPrompt);
        self->flush();
    });
    do_read();
}

// received_[begin, end) is for the converter, after the line checks.
void Session::accept_input(std::size_t begin, std::size_t end) {
    const char* data = received_.data() + begin;
    const std::size_t length = end - begin;
    if (line_too_long(data, length)) {
        return stop("more than " + std::to_string(context_.limits.max_line_bytes) +
                    " bytes received without a line end");
    }
    if (context_.log.verbose()) log_received(data, length);
    note_lines(data, length);
    input_begin_ = begin;
    input_end_ = end;
    if (state_ != State::open) return;  // the login or the introduction goes first
    if (costly()) return schedule_slice();
    feed_slice();
}

// Hands the next slice to the instance, or reads more once everything has
// been handed over. Neither while the client's output is over the mark: the
// socket taking it resumes the input.
void Session::continue_input() {
    if (state_ != State::open || slice_scheduled_ || reading_) return;
    if (waiting() > context_.limits.max_output_bytes) return;
    if (input_begin_ == input_end_) return do_read();
    schedule_slice();
}

// Other clients' events run before the next slice. A client whose last slice
// was costly waits for its turn among the costly ones, one of which runs per
// round of events: it cannot hold up a client whose commands are cheap.
void Session::schedule_slice() {
    slice_scheduled_ = true;
    if (costly()) return context_.manager.queue_costly_slice(shared_from_this());
    asio::post(transport_->executor(), [self = shared_from_this()] { self->run_scheduled_slice(); });
}

bool Session::costly() const { return recent_cost_ > kCostlySlice; }

void Session::run_scheduled_slice() {
    slice_scheduled_ = false;
    feed_slice();
}

void Session::feed_slice() {
    if (state_ != State::open || input_begin_ == input_end_) return;
    const std::size_t end = slice_end();
    const std::string slice(received_.data() + input_begin_, end - input_begin_);
    input_begin_ = end;
    in_event_ = in_input_ = true;
    if (recording_) recording_->received(slice);
    const Clock::time_point began = Clock::now();
    try {
        instance_->ReceiveData(slice, nullptr);
    } catch (const OutputOverflow&) {
        in_event_ = in_input_ = false;
        if (recording_) recording_->discard_event();
        return drop("more than " + with_thousands(context_.output_bound) +
                    " bytes of output from its own commands in one event");
    }
    // A command's cost shows in the slice that ends its line: the slices
    // before it are cheap. So the cost is remembered over several slices.
    recent_cost_ = recent_cost_ / 2 + (Clock::now() - began);
    in_event_ = in_input_ = false;
    own_answers_ = std::max(own_answers_, waiting());
    flush();
    continue_input();
}

// The end of the next slice: about kInputSliceBytes, never just after TAB, CR
// or LF (see is_white), so that slicing is invisible to the converter.
std::size_t Session::slice_end() const {
    const std::size_t budget_end = input_begin_ + kInputSliceBytes;
    if (input_end_ <= budget_end) return input_end_;
    std::size_t end = budget_end;
    while (end > input_begin_ && is_white(received_[end - 1])) --end;
    if (end > input_begin_) return end;
    // Nothing but white space so far: up to and including the next other character.
    end = budget_end;
    while (end < input_end_ && is_white(received_[end])) ++end;
    return end < input_end_ ? end + 1 : input_end_;
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

// Report mode as far as the simulator can tell: from the lines that are
// exactly "@ ?" or "@ !" (the converter itself may see it otherwise, for
// instance in a line of several commands).
void Session::note_lines(const char* data, std::size_t length) {
    const char* const end = data + length;
    while (data != end) {
        // Whole runs at once: this sees every byte a client sends.
        const char* const line_end = std::find_if(data, end, [](char c) { return c == '\r' || c == '\n'; });
        const std::size_t room = kNotedLineBytes - std::min(kNotedLineBytes, current_line_.size());
        current_line_.append(data, std::min(room, static_cast<std::size_t>(line_end - data)));
        if (line_end == end) return;
        data = line_end + 1;
        if (current_line_.empty()) continue;
        ++info_.lines_received;
        if (current_line_.size() == 3 && current_line_[0] == '@' && current_line_[1] == ' ') {
            if (current_line_[2] == '?') info_.report_mode = true;
            if (current_line_[2] == '!') info_.report_mode = false;
        }
        info_.last_line.swap(current_line_);
        current_line_.clear();
    }
}

void Session::log_sent() {
    if (activity_sent_.empty()) return;
    context_.log.activity("client " + std::to_string(id_) + " >> \"" + escape(activity_sent_) + "\"");
    activity_sent_.clear();
}

// A limit was passed, perhaps in the middle of a call into the instance: stop
// once the current event is over.
void Session::drop(const std::string& reason) {
    if (state_ == State::dropping || state_ == State::stopped) return;
    state_ = State::dropping;
    output_.clear();
    asio::post(transport_->executor(), [self = shared_from_this(), reason] { self->stop(reason); });
}

// The client is told why (what is waiting), then the link closes.
void Session::close_after_output(const std::string& reason) {
    if (state_ == State::dropping || state_ == State::stopped || state_ == State::draining) return;
    state_ = State::draining;
    stop_reason_ = reason;
    if (waiting() == 0) stop(reason);
}

void Session::fail(const boost::system::error_code& ec, const char* operation) {
    if (ec == asio::error::operation_aborted || state_ == State::stopped) return;
    // A client that only closed its sending side still gets the answers under way.
    if (ec == asio::error::eof) return close_after_output("closed by client");
    stop(std::string(operation) + " failed: " + ec.message());
}

void SessionManager::join(const std::shared_ptr<Session>& session) {
    if (sessions_.insert(session).second && session->info().link != "serial") ++network_clients_;
}

void SessionManager::leave(const std::shared_ptr<Session>& session) {
    if (sessions_.erase(session) > 0 && session->info().link != "serial") --network_clients_;
    memory_released();
}

void SessionManager::flush_waiting() {
    std::vector<std::shared_ptr<Session>> waiting;
    waiting.swap(awaiting_flush_);
    for (const auto& session : waiting) session->flush();
    // The vector's storage is reused by the next frame.
    waiting.clear();
    if (awaiting_flush_.empty()) awaiting_flush_.swap(waiting);
}

void SessionManager::queue_costly_slice(std::shared_ptr<Session> session) {
    costly_slices_.push_back(std::move(session));
    if (!costly_slice_posted_) post_costly_slice();
}

void SessionManager::post_costly_slice() {
    costly_slice_posted_ = true;
    asio::post(executor_, [this] {
        costly_slice_posted_ = false;
        const std::shared_ptr<Session> session = std::move(costly_slices_.front());
        costly_slices_.pop_front();
        // May queue the same session again, at the back.
        session->run_scheduled_slice();
        if (!costly_slices_.empty() && !costly_slice_posted_) post_costly_slice();
    });
}

void SessionManager::check_timeouts(std::chrono::steady_clock::time_point now) {
    // A session dropped here leaves the set later, in an event of its own.
    for (const auto& session : sessions_) session->check_timeouts(now);
}

void SessionManager::stop_all() {
    // stop() leaves the set, so work from a copy.
    const auto sessions = sessions_;
    for (const auto& session : sessions) session->stop("simulator shutting down");
}

}  // namespace routerd
