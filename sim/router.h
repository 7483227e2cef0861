#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace routerd {

// One level of the router as configured.
struct LevelSpec {
    int number = 0;  // the router's own level number
    std::string name;
    int sources = 0;
    int destinations = 0;
};

// Told of every change the router applies, including changes to the value it had.
class RouterObserver {
public:
    virtual void crosspoint_changed(int level, int source, int destination) = 0;
    virtual void lock_changed(int level, int destination, int state) = 0;

protected:
    ~RouterObserver() = default;
};

// Why a change was not applied.
enum class Refusal {
    none,
    unknown_level,
    destination_out_of_range,
    source_out_of_range,
    destination_locked,
};

std::string describe(Refusal refusal);

// The simulated matrix: for every level, the source switched to each destination
// and each destination's lock state. Lock state 1 refuses switching to everyone;
// every other state lets it through. Nothing here knows a client protocol.
class Router {
public:
    explicit Router(const std::vector<LevelSpec>& levels);

    const std::vector<LevelSpec>& levels() const { return specs_; }
    const LevelSpec* find_level(int level) const;

    // Range checks only (no lock check): what a preset can be refused for.
    Refusal check_crosspoint(int level, int source, int destination) const;

    // Switch or lock, then tell every observer. A refused change is neither
    // stored nor told.
    Refusal take(int level, int source, int destination);
    Refusal lock(int level, int destination, int state);

    // Initial state, from configuration; no observer is told.
    Refusal preset_crosspoint(int level, int source, int destination);
    Refusal preset_lock(int level, int destination, int state);

    int source_of(int level, int destination) const;
    int lock_of(int level, int destination) const;

    // Observers are told in the order they subscribed. Unsubscribing while a
    // change is being told is safe: the observer is skipped from then on.
    void subscribe(RouterObserver& observer);
    void unsubscribe(RouterObserver& observer);

private:
    struct Level {
        int source_count = 0;
        std::vector<int> sources;  // per destination
        std::vector<int> locks;    // per destination
    };
    Level* level_state(int level);
    const Level* level_state(int level) const;
    template <typename Tell>
    void tell_observers(const Tell& tell);

    std::vector<LevelSpec> specs_;
    std::map<int, Level> state_;  // keyed by the router's level number
    std::vector<RouterObserver*> observers_;
    int telling_ = 0;            // depth of notification loops under way
    bool has_vacancies_ = false; // unsubscribed while telling: compact afterwards
};

}  // namespace routerd
