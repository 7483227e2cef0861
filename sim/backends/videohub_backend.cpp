#include "sim/backends/videohub_backend.h"

#include <algorithm>
#include <utility>

#include <boost/asio/connect.hpp>
#include <boost/asio/write.hpp>

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;
using namespace std::chrono_literals;

VideohubBackend::VideohubBackend(asio::io_context& io, Router& router, BackendSettings settings, const Log& log)
    : io_(io),
      router_(router),
      settings_(std::move(settings)),
      log_(log),
      socket_(io),
      timer_(io),
      reconnect_(io),
      availability_(log, settings_.reconnect_first, settings_.reconnect_most) {
    banks_[0].level = settings_.video_level;
    banks_[1].level = settings_.monitoring_level;
    for (Bank& bank : banks_) {
        const LevelSpec* level = bank.level < 0 ? nullptr : router_.find_level(bank.level);
        if (!level) {
            bank.level = -1;
            continue;
        }
        inputs_ = level->sources;
        bank.outputs = level->destinations;
        bank.router_locks.assign(static_cast<std::size_t>(bank.outputs), LockState::unlocked);
        // Leitch locks restored from the state file are asserted at the router once it is read.
        for (int d = 0; d < bank.outputs; ++d) bank.leitch_locks.push_back(router_.lock_of(bank.level, d));
    }
}

VideohubBackend::Bank* VideohubBackend::bank_of_level(int level) {
    for (Bank& bank : banks_) {
        if (bank.level >= 0 && bank.level == level) return &bank;
    }
    return nullptr;
}

void VideohubBackend::restore_locks(int level, std::vector<int> locks) {
    Bank* bank = bank_of_level(level);
    if (!bank) return;
    locks.resize(std::max(locks.size(), static_cast<std::size_t>(bank->outputs)), 0);
    bank->leitch_locks = std::move(locks);
}

// ---- Changes asked for

// Levels the router does not serve stay simulated: applied at once.
Refusal VideohubBackend::take(const SwitchRequest& request) {
    Bank* bank = bank_of_level(request.level);
    if (!bank) return router_.take(request.level, request.value, request.destination);
    if (!read_) return Refusal::router_away;
    const Refusal refusal = router_.check_take(request.level, request.value, request.destination);
    if (refusal == Refusal::destination_locked &&
        bank->router_locks[static_cast<std::size_t>(request.destination)] == LockState::locked)
        return Refusal::locked_at_router;
    if (refusal != Refusal::none) return refusal;
    const auto gathered = bank->gathering.find(request.destination);
    const bool on_its_way = gathered != bank->gathering.end() ||
                            (in_flight_ && in_flight_->kind == InFlight::routing &&
                             &banks_[in_flight_->bank] == bank && in_flight_->asks.count(request.destination));
    // What the router carries already is taken at once, as the simulated router takes it.
    if (!on_its_way && router_.source_of(request.level, request.destination) == request.value)
        return router_.take(request.level, request.value, request.destination);
    Ask& ask = bank->gathering[request.destination];
    ask.input = request.value;
    ask.waiting.push_back(request);
    return Refusal::pending;
}

Refusal VideohubBackend::lock(const SwitchRequest& request) {
    Bank* bank = bank_of_level(request.level);
    if (!bank) return router_.lock(request.level, request.destination, request.value);
    if (!read_) return Refusal::router_away;
    if (request.destination < 0 || request.destination >= bank->outputs) return Refusal::destination_out_of_range;
    const auto output = static_cast<std::size_t>(request.destination);
    if (bank->router_locks[output] == LockState::locked) return Refusal::locked_at_router;
    bank->leitch_locks[output] = request.value;
    router_.lock(request.level, request.destination, request.value);
    const LockState wanted = request.value != 0 ? LockState::owned : LockState::unlocked;
    if (bank->router_locks[output] != wanted) {
        bank->lock_changes[request.destination] = wanted;
    } else {
        bank->lock_changes.erase(request.destination);
    }
    return Refusal::none;
}

// ---- The link

void VideohubBackend::start() {
    running_ = true;
    availability_.starting();
    resolve_and_connect();
}

void VideohubBackend::stop() {
    running_ = false;
    ++generation_;
    boost::system::error_code ignored;
    socket_.close(ignored);
    timer_.cancel();
    reconnect_.cancel();
}

// The name is looked up on the loop's thread, as a blocking call: an address
// is what a router is usually given, and the loop must not share itself with
// the resolver's own thread.
void VideohubBackend::resolve_and_connect() {
    boost::system::error_code ec;
    tcp::resolver resolver(io_);
    const tcp::resolver::results_type endpoints = resolver.resolve(settings_.router.host, settings_.router.port, ec);
    if (ec) {
        availability_.away(settings_.address(), "cannot resolve " + settings_.router.host + ": " + ec.message());
        return reconnect_later();
    }
    const std::uint64_t generation = ++generation_;
    asio::async_connect(socket_, endpoints, [this, generation](const boost::system::error_code& error, const tcp::endpoint&) {
        if (generation == generation_) on_connected(error);
    });
    timer_.expires_after(settings_.connect_timeout);
    timer_.async_wait([this, generation](const boost::system::error_code& error) {
        if (error || generation != generation_ || connected_) return;
        drop("no connection within " + seconds(settings_.connect_timeout));
    });
}

void VideohubBackend::on_connected(const boost::system::error_code& ec) {
    if (ec) return drop("cannot connect: " + ec.message());
    connected_ = true;
    connected_at_ = std::chrono::steady_clock::now();
    socket_.set_option(tcp::no_delay(true));
    reader_ = videohub::Reader();
    device_present_ = false;
    for (Bank& bank : banks_) bank.routing_read = bank.locks_read = false;
    availability_.reading();
    last_sent_ = std::chrono::steady_clock::now();
    arm_timer();
    read();
}

void VideohubBackend::read() {
    const std::uint64_t generation = generation_;
    socket_.async_read_some(asio::buffer(buffer_), [this, generation](const boost::system::error_code& ec, std::size_t n) {
        if (generation == generation_) on_read(ec, n);
    });
}

void VideohubBackend::on_read(const boost::system::error_code& ec, std::size_t length) {
    if (ec) return drop(ec == asio::error::eof ? "the router closed the connection" : "cannot read: " + ec.message());
    const std::uint64_t generation = generation_;
    videohub::Reader::Received received = reader_.feed(buffer_.data(), length);
    for (const videohub::Event& event : received.events) {
        handle(event);
        if (generation != generation_) return;  // the link was dropped
    }
    if (!received.error.empty()) return drop("the router broke the protocol: " + received.error);
    check_read_complete();
    if (listener_ && router_.changed()) listener_->model_changed();
    send_next();
    read();
}

void VideohubBackend::handle(const videohub::Event& event) {
    std::visit(
        [this](const auto& block) {
            using Block = std::decay_t<decltype(block)>;
            if constexpr (std::is_same_v<Block, videohub::Ack>) {
                answered(true);
            } else if constexpr (std::is_same_v<Block, videohub::Nak>) {
                answered(false);
            } else if constexpr (std::is_same_v<Block, videohub::Preamble>) {
                if (block.major != 2)
                    drop("the router speaks protocol " + std::to_string(block.major) + "." +
                         std::to_string(block.minor) + ", not 2.x");
            } else if constexpr (std::is_same_v<Block, videohub::Device>) {
                device(block);
            } else if constexpr (std::is_same_v<Block, videohub::Routing>) {
                routing(block);
            } else if constexpr (std::is_same_v<Block, videohub::Locks>) {
                locks(block);
            } else if constexpr (std::is_same_v<Block, videohub::Labels>) {
                labels(block);
            } else if constexpr (std::is_same_v<Block, videohub::EndPrelude>) {
                if (device_present_ && !read_) state_read();
            }
        },
        event);
}

// Answers come in the order the requests left, and only one is ever out: an
// answer to nothing means the stream cannot be trusted any more.
void VideohubBackend::answered(bool acknowledged) {
    if (!in_flight_) return drop(std::string("the router answered ") + (acknowledged ? "ACK" : "NAK") + " to no request");
    InFlight request = std::move(*in_flight_);
    in_flight_.reset();
    // Whatever the router did for the requests before this one, it has told by now.
    for (std::size_t k = 0; k < kKinds; ++k) decide_all(request.settles[k], Refusal::router_refused);
    switch (request.kind) {
        case InFlight::routing:
            if (!acknowledged) {
                log_.info("router " + settings_.address() + " refused a routing block (NAK)");
                decide_all(request.asks, Refusal::router_refused);
                break;
            }
            for (auto& [output, ask] : request.asks) unconfirmed_[request.bank][output] = std::move(ask);
            break;
        case InFlight::locks:
            if (!acknowledged) log_.info("router " + settings_.address() + " refused a lock block (NAK)");
            break;
        case InFlight::ping: break;
    }
    arm_timer();
}

void VideohubBackend::device(const videohub::Device& block) {
    if (block.presence != videohub::Presence::present) {
        device_present_ = false;
        read_ = false;
        refuse_everything_waiting(Refusal::router_away);
        availability_.away(settings_.address(), block.presence == videohub::Presence::absent
                                                    ? "the router reports no device present"
                                                    : "the router's device needs a software update");
        return;
    }
    const int most = std::max(block.video_outputs, block.video_monitoring_outputs);
    if (std::max(block.video_inputs, most) > settings_.most_outputs)
        return drop("the router announces " + std::to_string(block.video_inputs) + " inputs and " +
                    std::to_string(most) + " outputs, more than the " + std::to_string(settings_.most_outputs) +
                    " this gateway serves with its limits");
    device_present_ = true;
    device_ = (block.model_name.empty() ? std::string("Videohub") : block.model_name) + ", " +
              std::to_string(block.video_inputs) + " inputs, " + std::to_string(block.video_outputs) + " outputs";
    for (Bank& bank : banks_) bank.routing_read = bank.locks_read = false;
    const int inputs = block.video_inputs;
    const bool inputs_changed = inputs != inputs_;
    inputs_ = inputs;
    const std::array<int, kKinds> outputs{block.video_outputs, block.video_monitoring_outputs};
    for (std::size_t k = 0; k < kKinds; ++k) {
        Bank& bank = banks_[k];
        if (bank.level < 0) continue;
        if (inputs_changed || outputs[k] != bank.outputs) resize(bank, outputs[k]);
    }
}

void VideohubBackend::resize(Bank& bank, int outputs) {
    const int was_outputs = bank.outputs;
    const int was_inputs = router_.find_level(bank.level)->sources;
    bank.outputs = outputs;
    const auto size = static_cast<std::size_t>(outputs);
    bank.router_locks.resize(size, LockState::unlocked);
    // Kept past the outputs: locks restored for outputs the router does not have yet.
    bank.leitch_locks.resize(std::max(size, bank.leitch_locks.size()), 0);
    router_.resize_level(bank.level, inputs_, outputs);
    if (was_outputs == 0 && was_inputs == 0) return;  // sized for the first time
    log_.info("router " + settings_.address() + ": level " + std::to_string(bank.level) + " is now " +
              std::to_string(inputs_) + " sources by " + std::to_string(outputs) + " destinations (was " +
              std::to_string(was_inputs) + " by " + std::to_string(was_outputs) + ")");
}

void VideohubBackend::routing(const videohub::Routing& block) {
    const std::size_t k = bank_index(block.kind);
    Bank& bank = banks_[k];
    if (bank.level < 0 || !device_present_) return;
    bank.routing_read = true;
    for (const videohub::Route& route : block.items) {
        if (route.output >= bank.outputs || route.input >= inputs_) continue;
        if (router_.source_of(bank.level, route.output) != route.input)
            router_.set_crosspoint(bank.level, route.input, route.output);
        // A take is decided by the first word on its destination once the
        // router has understood it; before, such a word is someone else's change.
        const auto decide_in = [&](Asks& asks, bool acknowledged) {
            const auto found = asks.find(route.output);
            if (found == asks.end()) return;
            if (found->second.input == route.input) {
                decide(found->second, Refusal::none);
            } else if (acknowledged) {
                decide(found->second, Refusal::router_refused);
            } else {
                return;
            }
            asks.erase(found);
        };
        decide_in(unconfirmed_[k], true);
        if (!in_flight_) continue;
        decide_in(in_flight_->settles[k], true);
        if (in_flight_->kind == InFlight::routing && in_flight_->bank == k) decide_in(in_flight_->asks, false);
    }
}

// An input's label names the source on every level; an output's, the
// destination of its kind. A label the model cannot show (a control
// character, too long) is left as it was.
void VideohubBackend::labels(const videohub::Labels& block) {
    if (!device_present_) return;
    for (const videohub::Label& label : block.items) {
        if (block.kind == videohub::LabelKind::input) {
            if (label.port >= inputs_) continue;
            for (const Bank& bank : banks_) {
                if (bank.level >= 0) router_.set_label(bank.level, LabelSide::source, label.port, label.text);
            }
            continue;
        }
        const Bank& bank = banks_[block.kind == videohub::LabelKind::output ? 0 : 1];
        if (bank.level < 0 || label.port >= bank.outputs) continue;
        router_.set_label(bank.level, LabelSide::destination, label.port, label.text);
    }
}

void VideohubBackend::locks(const videohub::Locks& block) {
    Bank& bank = banks_[bank_index(block.kind)];
    if (bank.level < 0 || !device_present_) return;
    bank.locks_read = true;
    for (const videohub::Lock& lock : block.items) {
        if (lock.output >= bank.outputs) continue;
        bank.router_locks[static_cast<std::size_t>(lock.output)] = lock.state;
        show_lock(bank, lock.output);
    }
}

// A destination another controller holds at the router is locked for every
// Leitch client; otherwise it shows the Leitch clients' own lock state.
void VideohubBackend::show_lock(Bank& bank, int output) {
    const auto index = static_cast<std::size_t>(output);
    const int shown = bank.router_locks[index] == LockState::locked ? 1 : bank.leitch_locks[index];
    if (router_.lock_of(bank.level, output) != shown) router_.lock(bank.level, output, shown);
}

// Firmware before END PRELUDE has no end-of-dump marker: the dump is read
// once every served kind's routing and locks have come.
void VideohubBackend::check_read_complete() {
    if (read_ || !device_present_) return;
    for (const Bank& bank : banks_) {
        if (bank.level >= 0 && (!bank.routing_read || !bank.locks_read)) return;
    }
    state_read();
}

void VideohubBackend::state_read() {
    read_ = true;
    availability_.back(settings_.address(), device_, connected_at_);
    // Our locks are asserted again: a router may forget them with the connection.
    for (Bank& bank : banks_) {
        if (bank.level < 0) continue;
        for (int output = 0; output < bank.outputs; ++output) {
            const auto index = static_cast<std::size_t>(output);
            if (bank.leitch_locks[index] != 0 && bank.router_locks[index] == LockState::unlocked)
                bank.lock_changes[output] = LockState::owned;
            show_lock(bank, output);
        }
    }
    if (listener_) listener_->model_changed();
}

// ---- Requests

void VideohubBackend::send_next() {
    if (!connected_ || in_flight_) return;
    const bool any_settling = std::any_of(unconfirmed_.begin(), unconfirmed_.end(), [](const Asks& a) { return !a.empty(); });
    InFlight request;
    for (std::size_t k = 0; k < kKinds; ++k) {
        request.settles[k] = std::move(unconfirmed_[k]);
        unconfirmed_[k].clear();
    }
    const auto kind_of = [](std::size_t k) { return k == 0 ? OutputKind::video_output : OutputKind::monitoring_output; };
    if (read_) {
        for (std::size_t k = 0; k < kKinds; ++k) {
            Bank& bank = banks_[k];
            if (bank.lock_changes.empty()) continue;
            std::vector<videohub::LockChange> changes;
            for (const auto& [output, state] : bank.lock_changes)
                changes.push_back({output, state == LockState::owned ? videohub::LockAction::own : videohub::LockAction::unlock});
            bank.lock_changes.clear();
            request.kind = InFlight::locks;
            request.bank = k;
            return send(std::move(request), videohub::lock_request(kind_of(k), changes));
        }
        for (std::size_t k = 0; k < kKinds; ++k) {
            Bank& bank = banks_[k];
            if (bank.gathering.empty()) continue;
            std::vector<videohub::Route> routes;
            for (const auto& [output, ask] : bank.gathering) routes.push_back({output, ask.input});
            request.kind = InFlight::routing;
            request.bank = k;
            request.asks = std::move(bank.gathering);
            bank.gathering.clear();
            return send(std::move(request), videohub::routing_request(kind_of(k), routes));
        }
    }
    // Takes the router understood but did not report are refused once it
    // answers a later request: nothing it did for them can come after that.
    const bool keepalive_due = std::chrono::steady_clock::now() - last_sent_ >= settings_.keepalive;
    if (any_settling || keepalive_due) {
        request.kind = InFlight::ping;
        return send(std::move(request), videohub::ping_request());
    }
    for (std::size_t k = 0; k < kKinds; ++k) unconfirmed_[k] = std::move(request.settles[k]);
}

void VideohubBackend::send(InFlight request, std::string bytes) {
    in_flight_ = std::move(request);
    out_ = std::move(bytes);
    sent_at_ = last_sent_ = std::chrono::steady_clock::now();
    const std::uint64_t generation = generation_;
    asio::async_write(socket_, asio::buffer(out_), [this, generation](const boost::system::error_code& ec, std::size_t) {
        if (generation != generation_) return;
        if (ec) drop("cannot write: " + ec.message());
    });
    arm_timer();
}

// One timer: the answer's deadline while a request is out, else the next keepalive.
void VideohubBackend::arm_timer() {
    timer_.expires_at(in_flight_ ? sent_at_ + settings_.answer_timeout : last_sent_ + settings_.keepalive);
    const std::uint64_t generation = generation_;
    timer_.async_wait([this, generation](const boost::system::error_code& ec) {
        if (!ec && generation == generation_) on_timer();
    });
}

void VideohubBackend::on_timer() {
    const auto now = std::chrono::steady_clock::now();
    if (in_flight_) {
        if (now - sent_at_ >= settings_.answer_timeout)
            return drop("no answer to a request within " + seconds(settings_.answer_timeout));
    } else if (now - last_sent_ >= settings_.keepalive) {
        send_next();
        if (in_flight_) return;
    }
    arm_timer();
}

// ---- Outages

void VideohubBackend::drop(const std::string& reason) {
    ++generation_;
    ++failures_;
    boost::system::error_code ignored;
    socket_.close(ignored);
    timer_.cancel();
    connected_ = false;
    read_ = false;
    device_present_ = false;
    refuse_everything_waiting(Refusal::router_away);
    availability_.away(settings_.address(), reason);
    if (listener_ && router_.changed()) listener_->model_changed();
    reconnect_later();
}

void VideohubBackend::reconnect_later() {
    if (!running_) return;
    reconnect_.expires_after(availability_.next_pause());
    const std::uint64_t generation = generation_;
    reconnect_.async_wait([this, generation](const boost::system::error_code& ec) {
        if (!ec && generation == generation_ && running_) resolve_and_connect();
    });
}

void VideohubBackend::decide(Ask& ask, Refusal refusal) {
    std::vector<SwitchRequest> waiting = std::move(ask.waiting);
    ask.waiting.clear();
    for (const SwitchRequest& request : waiting) {
        if (listener_) listener_->decided(request, refusal);
    }
}

void VideohubBackend::decide_all(Asks& asks, Refusal refusal) {
    for (auto& [output, ask] : asks) decide(ask, refusal);
    asks.clear();
}

void VideohubBackend::refuse_everything_waiting(Refusal refusal) {
    if (in_flight_) {
        decide_all(in_flight_->asks, refusal);
        for (Asks& asks : in_flight_->settles) decide_all(asks, refusal);
        in_flight_.reset();
    }
    for (Asks& asks : unconfirmed_) decide_all(asks, refusal);
    for (Bank& bank : banks_) {
        decide_all(bank.gathering, refusal);
        bank.lock_changes.clear();
    }
}

}  // namespace routerd
