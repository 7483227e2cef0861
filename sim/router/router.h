#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace routerd {

// One level of the router as configured; in the router's own copy, with its
// labels as they stand.
struct LevelSpec {
    int number = 0;  // the router's own level number
    std::string name;
    int sources = 0;
    int destinations = 0;
    // From source (destination) 0 on; an empty label, or one past the end of
    // the list, is no label: the port is shown by its number. The router keeps
    // the lists no longer than their last label.
    std::vector<std::string> source_labels{};
    std::vector<std::string> destination_labels{};
};

// The name of a source or a destination on a panel. A real router's labels
// are 8 to 32 characters; 64 bytes leaves room for 32 characters that take
// two bytes in UTF-8, and keeps what a page is sent for a 1152 x 1152 level's
// labels under 300 KiB.
constexpr std::size_t kMaxLabelBytes = 64;

// Why `text` cannot be a label (too long, not UTF-8, a control character or a
// line break in it), in words that follow a key's name; empty when it can.
std::string label_problem(std::string_view text);

enum class LabelSide { source, destination };

// Told of every change the router publishes, including changes to the value it had.
class RouterObserver {
public:
    virtual void crosspoint_changed(int level, int source, int destination) = 0;
    virtual void lock_changed(int level, int destination, int state) = 0;
    // The levels' sizes changed (a real router announced others); told at once.
    virtual void levels_changed() {}
    // A label of the level changed; told at once, not with a frame.
    virtual void labels_changed(int /*level*/) {}

protected:
    ~RouterObserver() = default;
};

// One destination's value as a frame publishes it.
struct PublishedChange {
    enum Kind : std::uint8_t { crosspoint, lock } kind;
    int level;
    int destination;
    int value;  // the source of a crosspoint, the state of a lock
};

// Keeps what the router publishes (the durable state). Given each frame's
// changes with the frame's number; says when a frame is kept through
// SwitchQueue::settle(), perhaps later, from the event loop.
class RouterJournal {
public:
    virtual void keep(const std::vector<PublishedChange>& changes, std::uint64_t frame) = 0;

protected:
    ~RouterJournal() = default;
};

// Why a change was not applied.
enum class Refusal {
    none,
    unknown_level,
    destination_out_of_range,
    source_out_of_range,
    destination_locked,
    // A real router's (see RouterBackend):
    pending,            // asked of the router, not decided yet
    router_refused,     // the router answered NAK, or left the destination as it was
    router_away,        // no router to ask: not connected, or it did not answer
    locked_at_router,   // another controller of the router holds the destination
    router_busy,        // more takes wait for the router than it can switch in time
    label_not_allowed,  // see label_problem()
};

std::string describe(Refusal refusal);

// The simulated matrix: for every level, the source switched to each destination
// and each destination's lock state. Lock state 1 refuses switching to everyone;
// every other state lets it through. Nothing here knows a client protocol.
//
// A change takes effect at once, in the order asked, so that a take after a
// lock is refused exactly as it would be one frame later. Observers hear of the
// changes when the frame is published: once per changed destination, with its
// value at that moment (the last change wins, as on a router that switches on
// the next frame). What one frame tells is therefore bounded by the size of the
// router, however many changes were asked for.
class Router {
public:
    explicit Router(const std::vector<LevelSpec>& levels);
    // Moved, never copied: the index points into the levels.
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;
    Router(Router&&) = default;
    Router& operator=(Router&&) = default;

    const std::vector<LevelSpec>& levels() const { return specs_; }
    const LevelSpec* find_level(int level) const;
    // Destinations of every level together.
    std::size_t total_destinations() const { return total_destinations_; }

    // Range checks only (no lock check): what a preset can be refused for.
    Refusal check_crosspoint(int level, int source, int destination) const;

    // What take() would refuse, without taking.
    Refusal check_take(int level, int source, int destination) const;

    // Switch or lock, to be told at the next publish(). A refused change is
    // neither stored nor told.
    Refusal take(int level, int source, int destination);
    Refusal lock(int level, int destination, int state);
    // A switch a real router has made, whatever the lock; told at the next publish().
    Refusal set_crosspoint(int level, int source, int destination);

    // A level takes the sizes a real router announced. Crosspoints and locks
    // of the destinations kept stay, those of new ones are 0 and are told at
    // the next publish(); those of destinations gone are forgotten.
    // Observers hear of it at once, through levels_changed().
    void resize_level(int level, int sources, int destinations);

    // Initial state, from configuration; no observer is told.
    Refusal preset_crosspoint(int level, int source, int destination);
    Refusal preset_lock(int level, int destination, int state);

    int source_of(int level, int destination) const;
    int lock_of(int level, int destination) const;

    // A port's label; empty when it has none (or there is no such port).
    const std::string& source_label(int level, int source) const;
    const std::string& destination_label(int level, int destination) const;
    // Bytes of every label together, for what showing them all may cost.
    std::size_t label_bytes() const { return label_bytes_; }
    // Stores a label (empty: none). Observers are told at once, and only of
    // a label that changed: frames do not carry labels. Refused for a port
    // out of range and for text label_problem() refuses.
    Refusal set_label(int level, LabelSide side, int port, std::string text);

    // True when changes wait to be told.
    bool changed() const { return !changes_.empty(); }
    // Tells every observer every destination changed since the last publish,
    // in the order of each destination's first change; returns what was told.
    const std::vector<PublishedChange>& publish();

    // Observers are told in the order they subscribed. Unsubscribing while a
    // change is being told is safe: the observer is skipped from then on.
    void subscribe(RouterObserver& observer);
    void unsubscribe(RouterObserver& observer);

private:
    // Level numbers looked up directly; others are searched for.
    static constexpr int kIndexedLevels = 1024;
    // Bits of Level::unpublished.
    enum : std::uint8_t { crosspoint_changed = 1, lock_changed = 2 };

    struct Level {
        int number = 0;
        int source_count = 0;
        std::vector<int> sources;               // per destination
        std::vector<int> locks;                 // per destination
        std::vector<std::uint8_t> unpublished;  // per destination: what changed since the last publish
    };
    struct Change {
        int level;
        int destination;
        std::uint8_t what;
    };

    Level* level_state(int level);
    const Level* level_state(int level) const;
    const LevelSpec* described_level(int level) const;
    void note_change(int level, Level& state, int destination, std::uint8_t what);
    template <typename Tell>
    void tell_observers(const Tell& tell);

    std::vector<LevelSpec> specs_;
    std::vector<Level> state_;          // in the order of specs_
    std::vector<Level*> by_number_;     // levels numbered 0 to kIndexedLevels - 1, by number
    std::size_t total_destinations_ = 0;
    std::size_t label_bytes_ = 0;
    std::vector<Change> changes_;  // at most two per destination
    std::vector<Change> publishing_;
    std::vector<PublishedChange> published_;
    std::vector<RouterObserver*> observers_;
    int telling_ = 0;            // depth of notification loops under way
    bool has_vacancies_ = false; // unsubscribed while telling: compact afterwards
};

}  // namespace routerd
