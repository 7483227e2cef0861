#include "sim/router/router.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace routerd {

std::string describe(Refusal refusal) {
    switch (refusal) {
        case Refusal::none: return "applied";
        case Refusal::unknown_level: return "no such level";
        case Refusal::destination_out_of_range: return "destination out of range";
        case Refusal::source_out_of_range: return "source out of range";
        case Refusal::destination_locked: return "destination locked";
        case Refusal::pending: return "waiting for the router";
        case Refusal::router_refused: return "refused by the router";
        case Refusal::router_away: return "the router is not connected";
        case Refusal::locked_at_router: return "locked at the router by another controller";
        case Refusal::router_busy: return "the router is busy: too many takes waiting";
        case Refusal::label_not_allowed: return "label not allowed";
    }
    return "refused";
}

std::string label_problem(std::string_view text) {
    if (text.size() > kMaxLabelBytes)
        return "at most " + std::to_string(kMaxLabelBytes) + " bytes (this one has " + std::to_string(text.size()) + ")";
    // The least code point of each length: a longer encoding is not UTF-8.
    static constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const std::size_t length = lead < 0x80           ? 1
                                   : (lead >> 5) == 0x6  ? 2
                                   : (lead >> 4) == 0xE  ? 3
                                   : (lead >> 3) == 0x1E ? 4
                                                         : 0;
        const auto not_utf8 = [i] { return "not UTF-8 (at byte " + std::to_string(i) + ")"; };
        if (length == 0 || i + length > text.size()) return not_utf8();
        char32_t code = length == 1 ? lead : lead & (0x7Fu >> length);
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return not_utf8();
            code = (code << 6) | (next & 0x3Fu);
        }
        if (code < least[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return not_utf8();
        // Line and paragraph separators break a line as a new line does.
        if (code < 0x20 || (code >= 0x7F && code <= 0x9F) || code == 0x2028 || code == 0x2029) {
            char name[16];  // "U+" and up to eight hex digits as the compiler counts them
            std::snprintf(name, sizeof name, "U+%04X", static_cast<unsigned>(code));
            return "must hold no control characters or line breaks (" + std::string(name) + " at byte " +
                   std::to_string(i) + ")";
        }
        i += length;
    }
    return {};
}

namespace {

// Labels are kept no longer than their last one, so that a level without
// labels costs nothing to show.
void trim_labels(std::vector<std::string>& labels, int ports) {
    if (labels.size() > static_cast<std::size_t>(ports)) labels.resize(static_cast<std::size_t>(ports));
    while (!labels.empty() && labels.back().empty()) labels.pop_back();
}

std::size_t bytes_of(const std::vector<std::string>& labels) {
    std::size_t bytes = 0;
    for (const std::string& label : labels) bytes += label.size();
    return bytes;
}

const std::string& label_at(const std::vector<std::string>& labels, int port) {
    static const std::string none;
    return port >= 0 && static_cast<std::size_t>(port) < labels.size() ? labels[static_cast<std::size_t>(port)] : none;
}

}  // namespace

Router::Router(const std::vector<LevelSpec>& levels) : specs_(levels) {
    state_.reserve(specs_.size());
    for (LevelSpec& levelSpec : specs_) {
        trim_labels(levelSpec.source_labels, levelSpec.sources);
        trim_labels(levelSpec.destination_labels, levelSpec.destinations);
        label_bytes_ += bytes_of(levelSpec.source_labels) + bytes_of(levelSpec.destination_labels);
        Level& level = state_.emplace_back();
        level.number = levelSpec.number;
        level.source_count = levelSpec.sources;
        level.sources.assign(static_cast<std::size_t>(levelSpec.destinations), 0);
        level.locks.assign(static_cast<std::size_t>(levelSpec.destinations), 0);
        level.unpublished.assign(static_cast<std::size_t>(levelSpec.destinations), 0);
        total_destinations_ += static_cast<std::size_t>(levelSpec.destinations);
    }
    for (Level& level : state_) {
        if (level.number < 0 || level.number >= kIndexedLevels) continue;
        const auto index = static_cast<std::size_t>(level.number);
        if (by_number_.size() <= index) by_number_.resize(index + 1, nullptr);
        by_number_[index] = &level;
    }
}

const LevelSpec* Router::find_level(int level) const {
    for (const LevelSpec& levelSpec : specs_) {
        if (levelSpec.number == level) return &levelSpec;
    }
    return nullptr;
}

Router::Level* Router::level_state(int level) {
    return const_cast<Level*>(std::as_const(*this).level_state(level));
}

// Every change passes here, most of them more than once.
const Router::Level* Router::level_state(int level) const {
    if (level >= 0 && level < kIndexedLevels) {
        const auto index = static_cast<std::size_t>(level);
        return index < by_number_.size() ? by_number_[index] : nullptr;
    }
    for (const Level& state : state_) {
        if (state.number == level) return &state;
    }
    return nullptr;
}

template <typename Tell>
void Router::tell_observers(const Tell& tell) {
    // Indexes, not iterators: an observer may subscribe another one meanwhile.
    ++telling_;
    for (std::size_t i = 0; i < observers_.size(); ++i) {
        if (observers_[i]) tell(*observers_[i]);
    }
    --telling_;
    if (telling_ == 0 && has_vacancies_) {
        observers_.erase(std::remove(observers_.begin(), observers_.end(), nullptr), observers_.end());
        has_vacancies_ = false;
    }
}

Refusal Router::check_crosspoint(int level, int source, int destination) const {
    const Level* state = level_state(level);
    if (!state) return Refusal::unknown_level;
    if (destination < 0 || static_cast<std::size_t>(destination) >= state->sources.size())
        return Refusal::destination_out_of_range;
    if (source < 0 || source >= state->source_count) return Refusal::source_out_of_range;
    return Refusal::none;
}

Refusal Router::preset_crosspoint(int level, int source, int destination) {
    const Refusal refusal = check_crosspoint(level, source, destination);
    if (refusal == Refusal::none) level_state(level)->sources[static_cast<std::size_t>(destination)] = source;
    return refusal;
}

Refusal Router::preset_lock(int level, int destination, int state) {
    Level* levelState = level_state(level);
    if (!levelState) return Refusal::unknown_level;
    if (destination < 0 || static_cast<std::size_t>(destination) >= levelState->locks.size())
        return Refusal::destination_out_of_range;
    levelState->locks[static_cast<std::size_t>(destination)] = state;
    return Refusal::none;
}

Refusal Router::check_take(int level, int source, int destination) const {
    const Refusal refusal = check_crosspoint(level, source, destination);
    if (refusal != Refusal::none) return refusal;
    if (level_state(level)->locks[static_cast<std::size_t>(destination)] == 1) return Refusal::destination_locked;
    return Refusal::none;
}

Refusal Router::set_crosspoint(int level, int source, int destination) {
    const Refusal refusal = check_crosspoint(level, source, destination);
    if (refusal != Refusal::none) return refusal;
    Level& state = *level_state(level);
    state.sources[static_cast<std::size_t>(destination)] = source;
    note_change(level, state, destination, crosspoint_changed);
    return Refusal::none;
}

void Router::resize_level(int level, int sources, int destinations) {
    Level* state = level_state(level);
    if (!state) return;
    const auto size = static_cast<std::size_t>(destinations);
    const std::size_t old_size = state->sources.size();
    changes_.erase(std::remove_if(changes_.begin(), changes_.end(),
                                  [&](const Change& c) {
                                      return c.level == level && static_cast<std::size_t>(c.destination) >= size;
                                  }),
                   changes_.end());
    state->source_count = sources;
    state->sources.resize(size, 0);
    state->locks.resize(size, 0);
    state->unpublished.resize(size, 0);
    for (int& source : state->sources) {
        if (source >= sources) source = 0;
    }
    for (std::size_t d = old_size; d < size; ++d) note_change(level, *state, static_cast<int>(d), crosspoint_changed);
    for (LevelSpec& levelSpec : specs_) {
        if (levelSpec.number != level) continue;
        total_destinations_ = total_destinations_ - static_cast<std::size_t>(levelSpec.destinations) + size;
        levelSpec.sources = sources;
        levelSpec.destinations = destinations;
        label_bytes_ -= bytes_of(levelSpec.source_labels) + bytes_of(levelSpec.destination_labels);
        trim_labels(levelSpec.source_labels, sources);
        trim_labels(levelSpec.destination_labels, destinations);
        label_bytes_ += bytes_of(levelSpec.source_labels) + bytes_of(levelSpec.destination_labels);
    }
    tell_observers([](RouterObserver& o) { o.levels_changed(); });
}

Refusal Router::take(int level, int source, int destination) {
    const Refusal refusal = check_crosspoint(level, source, destination);
    if (refusal != Refusal::none) return refusal;
    Level& state = *level_state(level);
    const auto index = static_cast<std::size_t>(destination);
    if (state.locks[index] == 1) return Refusal::destination_locked;
    state.sources[index] = source;
    note_change(level, state, destination, crosspoint_changed);
    return Refusal::none;
}

Refusal Router::lock(int level, int destination, int state) {
    const Refusal refusal = preset_lock(level, destination, state);
    if (refusal != Refusal::none) return refusal;
    note_change(level, *level_state(level), destination, lock_changed);
    return Refusal::none;
}

void Router::note_change(int level, Level& state, int destination, std::uint8_t what) {
    std::uint8_t& unpublished = state.unpublished[static_cast<std::size_t>(destination)];
    if (unpublished & what) return;  // already waiting: the value is read when told
    unpublished |= what;
    changes_.push_back({level, destination, what});
}

const std::vector<PublishedChange>& Router::publish() {
    publishing_.clear();
    publishing_.swap(changes_);
    published_.clear();
    for (const Change& change : publishing_) {
        Level& state = *level_state(change.level);
        const auto index = static_cast<std::size_t>(change.destination);
        // Cleared before telling, so that a change made meanwhile waits for the next publish.
        state.unpublished[index] &= static_cast<std::uint8_t>(~change.what);
        published_.push_back(change.what == crosspoint_changed
                                 ? PublishedChange{PublishedChange::crosspoint, change.level, change.destination,
                                                   state.sources[index]}
                                 : PublishedChange{PublishedChange::lock, change.level, change.destination,
                                                   state.locks[index]});
    }
    for (const PublishedChange& change : published_) {
        if (change.kind == PublishedChange::crosspoint) {
            tell_observers([&](RouterObserver& o) { o.crosspoint_changed(change.level, change.value, change.destination); });
        } else {
            tell_observers([&](RouterObserver& o) { o.lock_changed(change.level, change.destination, change.value); });
        }
    }
    return published_;
}

int Router::source_of(int level, int destination) const {
    return level_state(level)->sources.at(static_cast<std::size_t>(destination));
}

int Router::lock_of(int level, int destination) const {
    return level_state(level)->locks.at(static_cast<std::size_t>(destination));
}

// A level's description sits at the index of its state.
const LevelSpec* Router::described_level(int level) const {
    const Level* state = level_state(level);
    return state ? &specs_[static_cast<std::size_t>(state - state_.data())] : nullptr;
}

const std::string& Router::source_label(int level, int source) const {
    static const std::string none;
    const LevelSpec* levelSpec = described_level(level);
    return levelSpec ? label_at(levelSpec->source_labels, source) : none;
}

const std::string& Router::destination_label(int level, int destination) const {
    static const std::string none;
    const LevelSpec* levelSpec = described_level(level);
    return levelSpec ? label_at(levelSpec->destination_labels, destination) : none;
}

Refusal Router::set_label(int level, LabelSide side, int port, std::string text) {
    const LevelSpec* found = described_level(level);
    if (!found) return Refusal::unknown_level;
    LevelSpec& levelSpec = specs_[static_cast<std::size_t>(found - specs_.data())];
    const bool source = side == LabelSide::source;
    if (port < 0 || port >= (source ? levelSpec.sources : levelSpec.destinations))
        return source ? Refusal::source_out_of_range : Refusal::destination_out_of_range;
    if (!label_problem(text).empty()) return Refusal::label_not_allowed;
    std::vector<std::string>& labels = source ? levelSpec.source_labels : levelSpec.destination_labels;
    if (label_at(labels, port) == text) return Refusal::none;
    const auto index = static_cast<std::size_t>(port);
    if (labels.size() <= index) labels.resize(index + 1);
    label_bytes_ = label_bytes_ - labels[index].size() + text.size();
    labels[index] = std::move(text);
    trim_labels(labels, source ? levelSpec.sources : levelSpec.destinations);
    tell_observers([&](RouterObserver& o) { o.labels_changed(level); });
    return Refusal::none;
}

void Router::subscribe(RouterObserver& observer) { observers_.push_back(&observer); }

void Router::unsubscribe(RouterObserver& observer) {
    const auto found = std::find(observers_.begin(), observers_.end(), &observer);
    if (found == observers_.end()) return;
    if (telling_ > 0) {
        *found = nullptr;
        has_vacancies_ = true;
    } else {
        observers_.erase(found);
    }
}

}  // namespace routerd
