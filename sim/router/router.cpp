#include "sim/router/router.h"

#include <algorithm>
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
    }
    return "refused";
}

Router::Router(const std::vector<LevelSpec>& levels) : specs_(levels) {
    state_.reserve(specs_.size());
    for (const LevelSpec& levelSpec : specs_) {
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
    for (LevelSpec& spec : specs_) {
        if (spec.number != level) continue;
        total_destinations_ = total_destinations_ - static_cast<std::size_t>(spec.destinations) + size;
        spec.sources = sources;
        spec.destinations = destinations;
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
