#include "sim/recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "host/transcript.h"
#include "host/transcript_player.h"

namespace routerd {

namespace {

// A peer address as part of a file name.
std::string file_safe(std::string text) {
    for (char& c : text) {
        if (c == ':' || c == '/' || c == '[' || c == ']') c = '_';
    }
    return text;
}

// The bounds hold the last line too, whichever it is: the longest,
// "# recording stopped at <13 digits> bytes (the directory's recordings
// reached their bound)", takes 92 bytes.
constexpr std::size_t kLastLineRoom = 96;

// A full directory is measured anew at most this often, when a session would be recorded.
constexpr std::chrono::seconds kMeasureEvery{1};

// `count` digits at the front of `text`, taken off it.
bool take_digits(std::string_view& text, std::size_t count) {
    if (text.size() < count) return false;
    for (std::size_t i = 0; i < count; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    text.remove_prefix(count);
    return true;
}

bool take_text(std::string_view& text, std::string_view expected) {
    if (text.substr(0, expected.size()) != expected) return false;
    text.remove_prefix(expected.size());
    return true;
}

}  // namespace

bool is_recording_name(std::string_view name) {
    if (!take_digits(name, 8) || !take_text(name, "-") || !take_digits(name, 6) || !take_text(name, ".") ||
        !take_digits(name, 3) || !take_text(name, "-client") || !take_digits(name, 1))
        return false;
    while (take_digits(name, 1)) {
    }
    // The peer: at least one character before ".txt".
    return take_text(name, "-") && name.size() > 4 && name.substr(name.size() - 4) == ".txt";
}

// ---------------------------------------------------------------------------

RecordDirectory::RecordDirectory(RecordSettings settings, const Log& log) : settings_(std::move(settings)), log_(log) {
    measure();
}

void RecordDirectory::measure() {
    namespace fs = std::filesystem;
    std::size_t total = 0;
    std::error_code error;
    for (fs::directory_iterator entry(settings_.directory, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        if (!entry->is_regular_file(ignored) || entry->is_symlink(ignored)) continue;
        if (!is_recording_name(entry->path().filename().string())) continue;
        const auto size = entry->file_size(ignored);
        if (!ignored) total += static_cast<std::size_t>(size);
    }
    on_disk_ = total;
    measured_ = std::chrono::steady_clock::now();
}

bool RecordDirectory::room(std::size_t bytes) {
    if (full_) {
        // Only the user frees room: recordings are never deleted here.
        if (std::chrono::steady_clock::now() - measured_ < kMeasureEvery) return false;
        measure();
        if (used() > settings_.max_total_bytes / 4 * 3) return false;
        full_ = false;
        log_.info("recording again: the recordings in " + settings_.directory + " take " +
                  std::to_string(used()) + " bytes, their bound is " + std::to_string(settings_.max_total_bytes));
    }
    if (fits(bytes)) return true;
    // Recordings the user removed since the last measure are not counted any more.
    measure();
    if (fits(bytes)) return true;
    full_ = true;
    log_.info("recording stopped: the recordings in " + settings_.directory + " take " + std::to_string(used()) +
              " bytes, their bound is " + std::to_string(settings_.max_total_bytes) +
              "; sessions are recorded again once they take " +
              std::to_string(settings_.max_total_bytes / 4 * 3) + " or less");
    return false;
}

bool RecordDirectory::take(std::size_t bytes) {
    if (!room(bytes)) return false;
    on_disk_ += bytes;
    return true;
}

void RecordDirectory::give_back(std::size_t bytes) { on_disk_ -= std::min(bytes, on_disk_); }

std::unique_ptr<LinkRecording> RecordDirectory::open(int client, const std::string& peer) {
    const std::string header = plugin_host::kRecordingHeader + client_name(client) + " from " + peer + "\n";
    if (!room(header.size() + kLastLineRoom)) return nullptr;
    const std::string path = settings_.directory + "/" + local_time("%Y%m%d-%H%M%S") + "-client" +
                             std::to_string(client) + "-" + file_safe(peer) + ".txt";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        log_.info(client_name(client) + ": cannot record to " + path + ": " + std::strerror(errno));
        return nullptr;
    }
    on_disk_ += header.size();
    held_ += kLastLineRoom;
    std::unique_ptr<LinkRecording> recording(new LinkRecording(fd, path, client, *this, log_));
    log_.info(client_name(client) + ": recording to " + path);
    // Written at once, so that every file starts with it, even one stopped at its first event.
    recording->write_all(header);
    return recording;
}

// ---------------------------------------------------------------------------

LinkRecording::LinkRecording(int fd, std::string path, int client, RecordDirectory& directory, const Log& log)
    : fd_(fd), path_(std::move(path)), client_(client), max_bytes_(directory.settings_.max_bytes),
      directory_(directory), log_(log) {}

// The last line tells a whole recording from one cut short.
LinkRecording::~LinkRecording() {
    end_event();
    if (!stopped_) write_last_line(std::string(plugin_host::kRecordingEnd) + "\n");
    if (holding_last_line_) directory_.held_ -= kLastLineRoom;
    ::close(fd_);
}

void LinkRecording::action(const std::string& line) {
    if (stopped_) return;
    event_ += line;
    event_ += '\n';
}

void LinkRecording::configuration(const std::map<std::string, std::string>& config) {
    // Consecutive config lines are one configuration; a bare one is an empty map.
    if (config.empty()) return action("config");
    for (const auto& [key, value] : config) action("config " + key + " " + plugin_host::escape(value));
}

void LinkRecording::levels(const std::list<LevelDesc>& levels) {
    std::string line = "levels";
    for (const LevelDesc& level : levels) {
        line += " " + std::to_string(level.level) + ":" + std::to_string(level.sources) + "x" +
                std::to_string(level.destinations);
    }
    action(line);
}

void LinkRecording::received(std::string_view chunk) { action("recv " + plugin_host::escape(std::string(chunk))); }

void LinkRecording::crosspoint(int level, int source, int destination) {
    action("crosspoint " + std::to_string(level) + " " + std::to_string(source) + " " + std::to_string(destination));
}

void LinkRecording::lock(int level, int destination, int state) {
    action("lock " + std::to_string(level) + " " + std::to_string(destination) + " " + std::to_string(state));
}

void LinkRecording::sent(std::string_view piece) { action("  send " + plugin_host::escape(std::string(piece))); }

void LinkRecording::called(plugin_host::AnsweringDriver::Operation operation, int a, int b, int c) {
    action("  " + plugin_host::driver_call_text(operation, a, b, c));
}

void LinkRecording::end_event() {
    if (stopped_ || event_.empty()) return;
    if (written_ + event_.size() + kLastLineRoom > max_bytes_) {
        const std::string why = "at " + std::to_string(written_) + " bytes (the bound is " +
                                std::to_string(max_bytes_) + ")";
        stop(why);
        log_.info(client_name(client_) + ": recording stopped " + why + ": " + path_);
        return;
    }
    // The directory logs this once for all its recordings.
    if (!directory_.take(event_.size())) {
        stop("at " + std::to_string(written_) + " bytes (the directory's recordings reached their bound)");
        return;
    }
    write_all(event_);
    event_.clear();
}

void LinkRecording::stop(const std::string& why) {
    stopped_ = true;
    event_.clear();
    write_last_line(std::string(plugin_host::kRecordingStopped) + " " + why + "\n");
}

void LinkRecording::write_last_line(const std::string& line) {
    if (!holding_last_line_) return;
    // The room held since the recording was opened becomes the line.
    holding_last_line_ = false;
    directory_.held_ -= kLastLineRoom;
    directory_.on_disk_ += line.size();
    write_all(line);
}

bool LinkRecording::write_all(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd_, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            stopped_ = true;
            log_.info(client_name(client_) + ": recording stopped: cannot write " + path_ + ": " +
                      std::strerror(errno));
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    written_ += done;
    directory_.give_back(text.size() - done);
    return done == text.size();
}

void LinkRecording::discard_event() { event_.clear(); }

}  // namespace routerd
