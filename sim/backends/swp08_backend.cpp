#include "sim/backends/swp08_backend.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

#include <boost/asio/connect.hpp>
#include <boost/asio/write.hpp>

#include "sim/links/serial_link.h"

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

// What a router may send without a well-formed frame, and how many bad frames
// in a row, before the link is taken for broken.
constexpr std::size_t kMostNoise = 64 * 1024;
constexpr int kMostBadFrames = 32;
// What may wait to be written to a router that does not read.
constexpr std::size_t kMostUnwritten = 1024 * 1024;
// Connects a router takes back to back before the pace applies.
constexpr double kConnectBurst = 20;
// Dump messages come back to back; a pause this long ends a burst of them.
constexpr auto kDumpPause = 50ms;

std::string milliseconds(std::chrono::milliseconds duration) { return std::to_string(duration.count()) + " ms"; }

}  // namespace

Swp08Backend::Swp08Backend(asio::io_context& io, Router& router, BackendSettings settings, const Log& log)
    : io_(io),
      router_(router),
      settings_(std::move(settings)),
      log_(log),
      socket_(io),
      serial_(io),
      timer_(io),
      reconnect_(io),
      link_({settings_.swp08.ack_timeout, settings_.swp08.resends}),
      availability_(log, settings_.reconnect_first, settings_.reconnect_most) {
    for (const LevelSpec& configured : router_.levels()) {
        Level level;
        level.number = configured.number;
        const auto where = settings_.swp08.levels.find(configured.number);
        level.matrix = where != settings_.swp08.levels.end() ? where->second.matrix : 0;
        level.level = where != settings_.swp08.levels.end() ? where->second.level : configured.number;
        level.sources = configured.sources;
        level.destinations = configured.destinations;
        const auto size = static_cast<std::size_t>(configured.destinations);
        level.protected_by.assign(size, kUnprotected);
        level.reported.assign(size, false);
        for (int d = 0; d < configured.destinations; ++d) level.leitch_locks.push_back(router_.lock_of(configured.number, d));
        index_of_level_[level.number] = levels_.size();
        index_of_router_[level.matrix * 256 + level.level] = levels_.size();
        levels_.push_back(std::move(level));
    }
}

const RouterAddress& Swp08Backend::current_address() const {
    return controller_ == 1 && settings_.swp08.address2 ? *settings_.swp08.address2 : settings_.router;
}

Swp08Backend::Level* Swp08Backend::level_of(int number) {
    const auto found = index_of_level_.find(number);
    return found == index_of_level_.end() ? nullptr : &levels_[found->second];
}

Swp08Backend::Level* Swp08Backend::level_at(int matrix, int level) {
    const auto found = index_of_router_.find(matrix * 256 + level);
    return found == index_of_router_.end() ? nullptr : &levels_[found->second];
}

std::string Swp08Backend::where(const Level& level) const {
    return "matrix " + std::to_string(level.matrix) + " level " + std::to_string(level.level);
}

void Swp08Backend::restore_locks(int number, std::vector<int> locks) {
    Level* level = level_of(number);
    if (!level) return;
    locks.resize(static_cast<std::size_t>(level->destinations), 0);
    level->leitch_locks = std::move(locks);
}

// ---- Changes asked for

Refusal Swp08Backend::take(const SwitchRequest& request) {
    Level* level = level_of(request.level);
    if (!level) return router_.take(request.level, request.value, request.destination);
    if (!up_) return Refusal::router_away;
    const Refusal refusal = router_.check_take(request.level, request.value, request.destination);
    const auto index = static_cast<std::size_t>(request.destination);
    if (refusal == Refusal::destination_locked && level->protected_by[index] != kUnprotected &&
        level->protected_by[index] != settings_.swp08.protect_device)
        return Refusal::locked_at_router;
    if (refusal != Refusal::none) return refusal;
    const Key key{index_of(*level), request.destination};
    const auto found = asks_.find(key);
    // What the router carries already is taken at once, as the simulated router takes it.
    if (found == asks_.end() && router_.source_of(request.level, request.destination) == request.value)
        return router_.take(request.level, request.value, request.destination);
    // Connects leave at the router's pace: one that could not leave within
    // the confirmation time would only be refused later.
    if (paced_waiting_ >= most_paced_waiting()) return Refusal::router_busy;
    std::vector<Ask>& asks = asks_[key];
    // Asked twice in one frame: the later source is the one sent.
    if (!asks.empty() && !asks.back().sent &&
        std::find(gathered_.begin(), gathered_.end(), key) != gathered_.end()) {
        asks.back().source = request.value;
        asks.back().waiting.push_back(request);
        return Refusal::pending;
    }
    asks.push_back(Ask{request.value, {request}});
    gathered_.push_back(key);
    return Refusal::pending;
}

Refusal Swp08Backend::lock(const SwitchRequest& request) {
    Level* level = level_of(request.level);
    if (!level) return router_.lock(request.level, request.destination, request.value);
    if (!up_) return Refusal::router_away;
    if (request.destination < 0 || request.destination >= level->destinations) return Refusal::destination_out_of_range;
    const auto index = static_cast<std::size_t>(request.destination);
    const int holder = level->protected_by[index];
    if (holder != kUnprotected && holder != settings_.swp08.protect_device) return Refusal::locked_at_router;
    level->leitch_locks[index] = request.value;
    router_.lock(request.level, request.destination, request.value);
    const bool ours = holder == settings_.swp08.protect_device;
    if ((request.value != 0) != ours) protect(*level, request.destination, request.value != 0);
    return Refusal::none;
}

// As many as the pace lets leave within the confirmation time, and at least a burst.
std::size_t Swp08Backend::most_paced_waiting() const {
    const auto interval = settings_.swp08.connect_interval.count();
    if (interval == 0) return std::numeric_limits<std::size_t>::max();
    return static_cast<std::size_t>(std::max<long long>(static_cast<long long>(kConnectBurst),
                                                        settings_.swp08.confirm_timeout.count() / interval));
}

void Swp08Backend::protect(Level& level, int destination, bool on) {
    const int device = settings_.swp08.protect_device;
    send(on ? swp08::protect_connect(level.matrix, level.level, destination, device)
            : swp08::protect_disconnect(level.matrix, level.level, destination, device));
}

void Swp08Backend::frame_ended() {
    send_gathered();
    pump();
    arm_timer();
}

// A frame's takes switch together: as one group salvo where the router has
// them, else as connects, one after the other.
void Swp08Backend::send_gathered() {
    if (gathered_.empty()) return;
    if (gathered_.size() > 1 && implemented_salvos_) {
        Salvo salvo;
        for (const Key& key : gathered_) {
            const Level& level = levels_[key.first];
            const int source = asks_[key].back().source;
            salvo.entries.push_back({key, source, false});
            send(swp08::salvo_connect(level.matrix, level.level, key.second, source, settings_.swp08.salvo));
        }
        salvos_.push_back(std::move(salvo));
        send(swp08::salvo_go(settings_.swp08.salvo), false, std::move(gathered_));
    } else {
        for (const Key& key : gathered_) {
            const Level& level = levels_[key.first];
            send(swp08::connect(level.matrix, level.level, key.second, asks_[key].back().source), true, {key});
            ++paced_waiting_;
        }
    }
    gathered_.clear();
}

// ---- The link

void Swp08Backend::start() {
    running_ = true;
    availability_.starting();
    connect();
}

void Swp08Backend::stop() {
    running_ = false;
    ++generation_;
    close_stream();
    timer_.cancel();
    reconnect_.cancel();
}

void Swp08Backend::close_stream() {
    boost::system::error_code ignored;
    socket_.close(ignored);
    serial_.close(ignored);
}

// A host name is looked up on the loop's thread, as a blocking call: an
// address is what a router is usually given.
void Swp08Backend::connect() {
    const std::uint64_t generation = ++generation_;
    const RouterAddress& address = current_address();
    if (address.serial) {
        try {
            open_serial_port(serial_, *address.serial);
        } catch (const SerialError& e) {
            ++failures_;
            availability_.away(address.describe(), e.what());
            return reconnect_later();
        }
        return on_connected();
    }
    boost::system::error_code ec;
    tcp::resolver resolver(io_);
    const tcp::resolver::results_type endpoints = resolver.resolve(address.host, address.port, ec);
    if (ec) {
        ++failures_;
        availability_.away(address.describe(), "cannot resolve " + address.host + ": " + ec.message());
        return reconnect_later();
    }
    asio::async_connect(socket_, endpoints, [this, generation](const boost::system::error_code& error, const tcp::endpoint&) {
        if (generation != generation_) return;
        if (error) return drop("cannot connect: " + error.message());
        socket_.set_option(tcp::no_delay(true));
        on_connected();
    });
    timer_.expires_after(settings_.connect_timeout);
    timer_.async_wait([this, generation](const boost::system::error_code& error) {
        if (error || generation != generation_ || connected_) return;
        drop("no connection within " + seconds(settings_.connect_timeout));
    });
}

void Swp08Backend::on_connected() {
    connected_ = true;
    connected_at_ = Clock::now();
    link_ = swp08::Link({settings_.swp08.ack_timeout, settings_.swp08.resends});
    writing_.clear();
    unwritten_.clear();
    bad_frames_in_a_row_ = 0;
    last_message_.clear();
    connect_tokens_ = kConnectBurst;
    tokens_at_ = last_sent_ = connected_at_;
    availability_.reading();
    read();
    plan_read();
    begin_step();
    pump();
    arm_timer();
}

void Swp08Backend::read() {
    const std::uint64_t generation = generation_;
    const auto done = [this, generation](const boost::system::error_code& ec, std::size_t n) {
        if (generation == generation_) on_read(ec, n);
    };
    if (serial_.is_open()) {
        serial_.async_read_some(asio::buffer(buffer_), done);
    } else {
        socket_.async_read_some(asio::buffer(buffer_), done);
    }
}

void Swp08Backend::on_read(const boost::system::error_code& ec, std::size_t length) {
    if (ec) return drop(ec == asio::error::eof ? "the router closed the connection" : "cannot read: " + ec.message());
    const std::uint64_t generation = generation_;
    swp08::LinkOutput out;
    link_.receive(buffer_.data(), length, Clock::now(), out);
    apply(out);
    if (generation != generation_) return;
    read();
}

// Whatever the link read and has to write; the link may be dropped on the way.
void Swp08Backend::apply(const swp08::LinkOutput& out) {
    const std::uint64_t generation = generation_;
    if (!out.write.empty()) write(out.write);
    if (generation != generation_) return;
    for (const std::string& reason : out.bad) {
        if (++bad_frames_in_a_row_ >= kMostBadFrames)
            return drop("the router sent " + std::to_string(kMostBadFrames) + " bad frames in a row (the last: " +
                        reason + ")");
    }
    for (const swp08::Bytes& message : out.messages) {
        bad_frames_in_a_row_ = 0;
        // A go's answer the same as the frame before it is the router sending
        // it again (it missed our ACK): read twice, it would settle the next
        // salvo too. Anything else read twice is the same news again.
        const swp08::Message decoded = swp08::decode(message);
        const bool repeat = message == last_message_;
        last_message_ = message;
        if (repeat && std::holds_alternative<swp08::SalvoDone>(decoded)) continue;
        handle(decoded);
        if (generation != generation_) return;
    }
    if (out.failed) return drop("the router does not acknowledge: " + *out.failed);
    if (link_.dropped_since_frame() > kMostNoise)
        return drop("the router sent more than " + std::to_string(kMostNoise) + " bytes without a well-formed frame");
    if (listener_ && router_.changed()) listener_->model_changed();
    pump();
    arm_timer();
}

void Swp08Backend::write(const std::string& bytes) {
    if (!writing_.empty()) {
        unwritten_ += bytes;
        if (unwritten_.size() > kMostUnwritten) drop("the router does not read what is sent to it");
        return;
    }
    writing_ = bytes;
    write_more();
}

void Swp08Backend::write_more() {
    const std::uint64_t generation = generation_;
    const auto done = [this, generation](const boost::system::error_code& ec, std::size_t) {
        if (generation != generation_) return;
        if (ec) return drop("cannot write: " + ec.message());
        writing_ = std::move(unwritten_);
        unwritten_.clear();
        if (!writing_.empty()) write_more();
    };
    if (serial_.is_open()) {
        asio::async_write(serial_, asio::buffer(writing_), done);
    } else {
        asio::async_write(socket_, asio::buffer(writing_), done);
    }
}

void Swp08Backend::send(swp08::Bytes message, bool connect, std::vector<Key> starts) {
    outbox_.push_back({std::move(message), connect, std::move(starts)});
}

// One message on the link at a time: the next leaves once the router has
// acknowledged the one before. Connects keep to the pace.
void Swp08Backend::pump() {
    if (!connected_ || !link_.idle() || outbox_.empty()) return;
    const auto now = Clock::now();
    Outgoing& next = outbox_.front();
    if (next.connect && settings_.swp08.connect_interval.count() > 0) {
        const double earned = std::chrono::duration<double>(now - tokens_at_) / settings_.swp08.connect_interval;
        connect_tokens_ = std::min(kConnectBurst, connect_tokens_ + earned);
        tokens_at_ = now;
        if (connect_tokens_ < 1) return;  // the timer comes back for it
        connect_tokens_ -= 1;
    }
    if (next.connect) --paced_waiting_;
    for (const Key& key : next.starts) {
        const auto found = asks_.find(key);
        if (found == asks_.end()) continue;
        for (Ask& ask : found->second) {
            if (ask.sent) continue;
            ask.sent = true;
            ask.deadline = now + settings_.swp08.confirm_timeout;
        }
    }
    if (next.message.size() == 3 && next.message[0] == swp08::salvo_go(0)[0] && next.message[1] == 0) {
        for (Salvo& salvo : salvos_) {
            if (salvo.deadline != Clock::time_point::max()) continue;
            salvo.deadline = now + settings_.swp08.confirm_timeout;
            break;
        }
    }
    link_.send(std::move(next.message));
    outbox_.pop_front();
    swp08::LinkOutput out;
    link_.flush(now, out);
    last_sent_ = now;
    write(out.write);
}

// One timer: the earliest of the link's ACK deadline, a take's confirmation,
// a salvo's go, a step of the read, the pace of connects and the keepalive.
void Swp08Backend::arm_timer() {
    if (!connected_) return;
    Clock::time_point next = Clock::time_point::max();
    if (const auto deadline = link_.deadline()) next = std::min(next, *deadline);
    for (const auto& [key, asks] : asks_) {
        for (const Ask& ask : asks) next = std::min(next, ask.deadline);
    }
    if (!salvos_.empty()) next = std::min(next, salvos_.front().deadline);
    if (!steps_.empty()) next = std::min(next, step_deadline_);
    if (!outbox_.empty() && outbox_.front().connect && link_.idle())
        next = std::min(next, tokens_at_ + settings_.swp08.connect_interval);
    if (up_) next = std::min(next, last_sent_ + settings_.keepalive);
    timer_.expires_at(next);
    const std::uint64_t generation = generation_;
    timer_.async_wait([this, generation](const boost::system::error_code& ec) {
        if (!ec && generation == generation_) on_timer();
    });
}

void Swp08Backend::on_timer() {
    const std::uint64_t generation = generation_;
    const auto now = Clock::now();
    swp08::LinkOutput out;
    link_.tick(now, out);
    if (!out.write.empty()) write(out.write);
    if (out.failed) return drop("the router does not acknowledge: " + *out.failed);
    if (generation != generation_) return;
    expire(now);
    if (!steps_.empty() && now >= step_deadline_) {
        // Quiet is counted from when the last request has left.
        if (outbox_.empty() && link_.idle()) {
            next_step_after_silence();
        } else {
            step_deadline_ = now + settings_.answer_timeout;
        }
    }
    if (generation != generation_) return;
    if (up_ && outbox_.empty() && link_.idle() && now - last_sent_ >= settings_.keepalive) {
        // A real request, which the router answers: an empty frame is no request.
        const Level& first = levels_.front();
        send(swp08::interrogate(first.matrix, first.level, 0));
        if (settings_.swp08.address2) send(swp08::dual_status_request());
    }
    if (listener_ && router_.changed()) listener_->model_changed();
    pump();
    arm_timer();
}

// ---- Outages

void Swp08Backend::drop(const std::string& reason) {
    ++generation_;
    ++failures_;
    close_stream();
    timer_.cancel();
    connected_ = false;
    up_ = false;
    refuse_all(Refusal::router_away);
    outbox_.clear();
    paced_waiting_ = 0;
    steps_.clear();
    availability_.away(address(), reason);
    if (listener_ && router_.changed()) listener_->model_changed();
    // With two controllers, the other one is tried next.
    if (settings_.swp08.address2) controller_ ^= 1;
    reconnect_later();
}

void Swp08Backend::reconnect_later() {
    if (!running_) return;
    reconnect_.expires_after(availability_.next_pause());
    const std::uint64_t generation = generation_;
    reconnect_.async_wait([this, generation](const boost::system::error_code& ec) {
        if (!ec && generation == generation_ && running_) connect();
    });
}

// ---- What the router says

void Swp08Backend::handle(const swp08::Message& message) {
    std::visit(
        [this](const auto& m) {
            using M = std::decay_t<decltype(m)>;
            if constexpr (std::is_same_v<M, swp08::Crosspoints>) {
                crosspoints(m);
            } else if constexpr (std::is_same_v<M, swp08::Protects>) {
                protects(m);
            } else if constexpr (std::is_same_v<M, swp08::Names>) {
                names(m);
            } else if constexpr (std::is_same_v<M, swp08::DualStatus>) {
                dual_status(m);
            } else if constexpr (std::is_same_v<M, swp08::Implementation>) {
                implementation(m);
            } else if constexpr (std::is_same_v<M, swp08::SalvoEntry>) {
                salvo_entry(m);
            } else if constexpr (std::is_same_v<M, swp08::SalvoDone>) {
                salvo_done(m);
            } else if constexpr (std::is_same_v<M, swp08::NamesChanged>) {
                if (!up_) return;
                plan_names();
                if (steps_.size() == names_steps_) begin_step();
            } else if constexpr (std::is_same_v<M, swp08::DeviceNameRequest>) {
                if (m.device == settings_.swp08.protect_device) send(swp08::device_name(m.device, "LEITCH"));
            } else if constexpr (std::is_same_v<M, swp08::Invalid>) {
                log_.info("router " + address() + " could not read a command " + swp08::hex(swp08::Bytes{static_cast<std::uint8_t>(m.command)}) + " of ours");
            }
        },
        message);
}

void Swp08Backend::crosspoints(const swp08::Crosspoints& message) {
    Level* level = level_at(message.matrix, message.level);
    if (!level) return;
    for (const swp08::Crosspoint& c : message.items) {
        if (c.destination >= level->destinations || c.source >= level->sources) continue;
        reported(*level, c.destination, c.source);
    }
}

void Swp08Backend::reported(Level& level, int destination, int source) {
    const auto index = static_cast<std::size_t>(destination);
    if (!level.reported[index]) {
        level.reported[index] = true;
        ++level.reported_count;
    }
    if (router_.source_of(level.number, destination) != source) router_.set_crosspoint(level.number, source, destination);
    confirmed(level, destination, source);
    if (!steps_.empty() && steps_.front().index == index_of(level) &&
        (steps_.front().kind == Step::tallies || steps_.front().kind == Step::interrogates))
        step_answered(kDumpPause);
}

// Takes of this destination that asked for this source are made.
void Swp08Backend::confirmed(Level& level, int destination, int source) {
    const auto found = asks_.find({index_of(level), destination});
    if (found == asks_.end()) return;
    std::vector<Ask>& asks = found->second;
    for (auto ask = asks.begin(); ask != asks.end();) {
        if (ask->sent && ask->source == source) {
            decide(*ask, Refusal::none);
            ask = asks.erase(ask);
        } else {
            ++ask;
        }
    }
    if (asks.empty()) asks_.erase(found);
}

void Swp08Backend::protects(const swp08::Protects& message) {
    Level* level = level_at(message.matrix, message.level);
    if (!level) return;
    const int ours = settings_.swp08.protect_device;
    for (const swp08::Protect& p : message.items) {
        if (p.destination >= level->destinations) continue;
        const auto index = static_cast<std::size_t>(p.destination);
        const int before = level->protected_by[index];
        level->protected_by[index] = p.state != 0 ? p.device : kUnprotected;
        show_lock(*level, p.destination);
        // Someone else's protect gone from a destination a Leitch client has
        // locked: the lock is taken at the router again.
        if (up_ && message.report == swp08::ProtectReport::disconnected && before != kUnprotected && before != ours &&
            level->leitch_locks[index] != 0)
            protect(*level, p.destination, true);
    }
    if (message.report == swp08::ProtectReport::dump && !steps_.empty() && steps_.front().kind == Step::protects &&
        steps_.front().index == index_of(*level) && !message.items.empty()) {
        steps_.front().next = std::max(steps_.front().next, message.items.back().destination + 1);
        step_answered(kDumpPause);
    }
}

// A destination another device protects is locked for every Leitch client;
// otherwise it shows the Leitch clients' own lock.
void Swp08Backend::show_lock(Level& level, int destination) {
    const auto index = static_cast<std::size_t>(destination);
    const int holder = level.protected_by[index];
    const int shown = holder != kUnprotected && holder != settings_.swp08.protect_device ? 1 : level.leitch_locks[index];
    if (router_.lock_of(level.number, destination) != shown) router_.lock(level.number, destination, shown);
}

// Names read while a step asks for them are that step's, whatever level the
// reply names: some routers put another level in it.
void Swp08Backend::names(const swp08::Names& message) {
    const Step* step = steps_.empty() ? nullptr : &steps_.front();
    std::vector<Level*> targets;
    if (message.side == swp08::NameSide::source) {
        if (step && step->kind == Step::source_names) {
            targets.push_back(&levels_[step->index]);
        } else if (Level* level = level_at(message.matrix, message.level)) {
            targets.push_back(level);
        }
    } else {
        const int matrix = step && step->kind == Step::destination_names ? levels_[step->index].matrix : message.matrix;
        for (Level& level : levels_) {
            if (level.matrix == matrix) targets.push_back(&level);
        }
    }
    const LabelSide side = message.side == swp08::NameSide::source ? LabelSide::source : LabelSide::destination;
    int last = message.first;
    for (Level* level : targets) {
        const int ports = side == LabelSide::source ? level->sources : level->destinations;
        for (std::size_t i = 0; i < message.names.size(); ++i) {
            const int port = message.first + static_cast<int>(i);
            if (port >= ports) break;
            // A name the model cannot show (a control character) is left as it was.
            if (label_problem(message.names[i]).empty()) router_.set_label(level->number, side, port, message.names[i]);
        }
    }
    last += static_cast<int>(message.names.size());
    const Step::Kind answering = side == LabelSide::source ? Step::source_names : Step::destination_names;
    if (!step || step->kind != answering) return;
    names_read_ = std::max(names_read_, last);
    step_answered(kDumpPause);
}

void Swp08Backend::dual_status(const swp08::DualStatus& status) {
    const bool asked = !steps_.empty() && steps_.front().kind == Step::dual_status;
    if (status.this_active) {
        if (asked) next_step();
        return;
    }
    if (!asked && !up_) return;
    drop(asked ? "controller " + address() + " is idle" : "controller " + address() + " went idle (changeover)");
}

void Swp08Backend::implementation(const swp08::Implementation& list) {
    if (steps_.empty() || steps_.front().kind != Step::implementation) return;
    implemented_salvos_ = settings_.swp08.group_salvos && list.accepts(0x78) && list.accepts(0x79);
    next_step();
}

void Swp08Backend::salvo_entry(const swp08::SalvoEntry& entry) {
    Level* level = level_at(entry.matrix, entry.level);
    if (!level) return;
    const Key key{index_of(*level), entry.crosspoint.destination};
    for (Salvo& salvo : salvos_) {
        for (Salvo::Entry& e : salvo.entries) {
            if (e.key == key && e.source == entry.crosspoint.source && !e.acknowledged) {
                e.acknowledged = true;
                return;
            }
        }
    }
}

// After its go a salvo's crosspoints are not reported one by one: the
// router's answer to the go, with its acknowledgement of each entry, says
// they are made.
void Swp08Backend::salvo_done(const swp08::SalvoDone& done) {
    if (!steps_.empty() && steps_.front().kind == Step::salvo_clear) return next_step();
    if (done.salvo != settings_.swp08.salvo || salvos_.empty() || salvos_.front().deadline == Clock::time_point::max())
        return;
    Salvo salvo = std::move(salvos_.front());
    salvos_.pop_front();
    for (const Salvo::Entry& e : salvo.entries) {
        Level& level = levels_[e.key.first];
        if (done.result == swp08::SalvoResult::set && e.acknowledged) {
            // A protected destination may have been passed over at the go:
            // the router is asked what it carries.
            if (level.protected_by[static_cast<std::size_t>(e.key.second)] != kUnprotected) {
                send(swp08::interrogate(level.matrix, level.level, e.key.second));
            } else {
                reported(level, e.key.second, e.source);
            }
            continue;
        }
        const auto found = asks_.find(e.key);
        if (found == asks_.end()) continue;
        std::vector<Ask>& asks = found->second;
        for (auto ask = asks.begin(); ask != asks.end();) {
            if (ask->sent && ask->source == e.source) {
                decide(*ask, Refusal::router_refused);
                ask = asks.erase(ask);
            } else {
                ++ask;
            }
        }
        if (asks.empty()) asks_.erase(found);
    }
}

// ---- Reading the state

void Swp08Backend::plan_read() {
    steps_.clear();
    if (settings_.swp08.address2) steps_.push_back({Step::dual_status});
    if (settings_.swp08.implementation_query) {
        steps_.push_back({Step::implementation});
    } else {
        implemented_salvos_ = settings_.swp08.group_salvos;
        if (implemented_salvos_) steps_.push_back({Step::salvo_clear});
    }
    plan_names();
    for (std::size_t i = 0; i < levels_.size(); ++i) {
        Level& level = levels_[i];
        std::fill(level.reported.begin(), level.reported.end(), false);
        level.reported_count = 0;
        steps_.push_back({Step::tallies, i});
    }
    for (std::size_t i = 0; i < levels_.size(); ++i) steps_.push_back({Step::protects, i});
}

// The names: each level's sources, and each matrix's destination associations.
void Swp08Backend::plan_names() {
    std::set<int> matrices;
    names_steps_ = steps_.size();
    for (std::size_t i = 0; i < levels_.size(); ++i) steps_.push_back({Step::source_names, i});
    for (std::size_t i = 0; i < levels_.size(); ++i) {
        if (matrices.insert(levels_[i].matrix).second) steps_.push_back({Step::destination_names, i});
    }
    names_steps_ = steps_.size() - names_steps_;
}

void Swp08Backend::begin_step() {
    if (steps_.empty()) {
        if (!up_) state_read();
        return;
    }
    Step& step = steps_.front();
    const Level& level = levels_[step.index];
    const int length = settings_.swp08.name_length;
    step_answers_ = 0;
    names_read_ = 0;
    switch (step.kind) {
        case Step::dual_status: send(swp08::dual_status_request()); break;
        case Step::implementation: send(swp08::implementation_request()); break;
        case Step::salvo_clear: send(swp08::salvo_clear(settings_.swp08.salvo)); break;
        case Step::source_names: send(swp08::source_names_request(level.matrix, level.level, length)); break;
        case Step::destination_names: send(swp08::destination_names_request(level.matrix, length)); break;
        case Step::tallies: send(swp08::tally_dump_request(level.matrix, level.level)); break;
        case Step::interrogates:
            for (int d = 0; d < level.destinations; ++d) {
                if (!level.reported[static_cast<std::size_t>(d)]) send(swp08::interrogate(level.matrix, level.level, d));
            }
            break;
        case Step::protects: send(swp08::protect_dump_request(level.matrix, level.level, step.next)); break;
    }
    step_deadline_ = Clock::now() + settings_.answer_timeout;
}

// An answer to the step under way: the step is done once it has everything,
// else it waits a little for the rest of a burst.
void Swp08Backend::step_answered(std::chrono::milliseconds pause) {
    ++step_answers_;
    if (step_complete()) return next_step();
    step_deadline_ = Clock::now() + std::max(pause, std::chrono::milliseconds(0));
}

bool Swp08Backend::step_complete() const {
    const Step& step = steps_.front();
    const Level& level = levels_[step.index];
    switch (step.kind) {
        case Step::source_names: return names_read_ >= level.sources;
        case Step::destination_names: {
            int most = 0;
            for (const Level& l : levels_) {
                if (l.matrix == level.matrix) most = std::max(most, l.destinations);
            }
            return names_read_ >= most;
        }
        case Step::tallies:
        case Step::interrogates: return level.reported_count >= level.destinations;
        case Step::protects: return step.next >= level.destinations;
        default: return false;
    }
}

void Swp08Backend::next_step() {
    if (steps_.empty()) return;
    const Step done = steps_.front();
    steps_.pop_front();
    if (done.kind == Step::implementation && implemented_salvos_) steps_.push_front({Step::salvo_clear});
    begin_step();
}

// Nothing more came for the step: the router has said all it will.
void Swp08Backend::next_step_after_silence() {
    Step& step = steps_.front();
    const Level& level = levels_[step.index];
    const std::string router = "router " + address();
    switch (step.kind) {
        case Step::dual_status:
            log_.info("controller " + address() + " does not say whether it is active: it is used");
            break;
        case Step::implementation:
            implemented_salvos_ = false;
            log_.info(router + " does not say which commands it implements: takes go as connects");
            break;
        case Step::tallies:
            if (level.reported_count < level.destinations) {
                log_.info(router + (step_answers_ == 0 ? " sent no tally dump" : " sent an incomplete tally dump") +
                          " for " + where(level) + ": each destination is asked for");
                steps_.pop_front();
                steps_.push_front({Step::interrogates, step.index});
                return begin_step();
            }
            break;
        case Step::interrogates:
            if (level.reported_count < level.destinations)
                log_.info(router + " did not report " + std::to_string(level.destinations - level.reported_count) +
                          " destinations of " + where(level) + ": they show what they showed");
            break;
        case Step::protects:
            // A dump that stopped short is asked for again from where it stopped.
            if (step_answers_ > 0 && step.next < level.destinations) return begin_step();
            if (step_answers_ == 0)
                log_.info(router + " sent no protect dump for " + where(level) + ": protects there are not known");
            break;
        default: break;
    }
    next_step();
}

void Swp08Backend::state_read() {
    up_ = true;
    device_ = std::to_string(levels_.size()) + (levels_.size() == 1 ? " level" : " levels") +
              (implemented_salvos_ ? ", group salvos" : ", connects paced");
    availability_.back(address(), "SW-P-08, " + device_, connected_at_);
    // The protects follow the Leitch locks: a router may have forgotten ours,
    // or kept one that was released while it was away.
    const int ours = settings_.swp08.protect_device;
    for (Level& level : levels_) {
        for (int d = 0; d < level.destinations; ++d) {
            const auto index = static_cast<std::size_t>(d);
            const int holder = level.protected_by[index];
            if (level.leitch_locks[index] != 0 && holder == kUnprotected) protect(level, d, true);
            if (level.leitch_locks[index] == 0 && holder == ours) protect(level, d, false);
            show_lock(level, d);
        }
    }
    if (listener_) listener_->model_changed();
}

// ---- Takes decided

void Swp08Backend::decide(Ask& ask, Refusal refusal) {
    std::vector<SwitchRequest> waiting = std::move(ask.waiting);
    ask.waiting.clear();
    for (const SwitchRequest& request : waiting) {
        if (listener_) listener_->decided(request, refusal);
    }
}

// Takes the router has not reported as made in time are refused; a router
// that ignores a connect (a number it does not have) says nothing at all.
void Swp08Backend::expire(Clock::time_point now) {
    int expired = 0;
    std::string first;
    for (auto entry = asks_.begin(); entry != asks_.end();) {
        std::vector<Ask>& asks = entry->second;
        for (auto ask = asks.begin(); ask != asks.end();) {
            if (ask->deadline > now) {
                ++ask;
                continue;
            }
            if (expired++ == 0) {
                const Level& level = levels_[entry->first.first];
                first = where(level) + " destination " + std::to_string(entry->first.second) + " from source " +
                        std::to_string(ask->source);
            }
            decide(*ask, Refusal::router_refused);
            ask = asks.erase(ask);
        }
        entry = asks.empty() ? asks_.erase(entry) : std::next(entry);
    }
    while (!salvos_.empty() && salvos_.front().deadline <= now) salvos_.pop_front();
    if (expired == 0) return;
    log_.info("router " + address() + " did not report " + (expired == 1 ? "a take" : std::to_string(expired) + " takes") +
              " as made within " + milliseconds(settings_.swp08.confirm_timeout) + " (" + first + ")");
}

void Swp08Backend::refuse_all(Refusal refusal) {
    for (auto& [key, asks] : asks_) {
        for (Ask& ask : asks) decide(ask, refusal);
    }
    asks_.clear();
    gathered_.clear();
    salvos_.clear();
}

}  // namespace routerd
