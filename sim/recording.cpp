#include "sim/recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

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

// The bound holds the last line too, whichever it is.
constexpr std::size_t kLastLineRoom = 96;

}  // namespace

std::unique_ptr<LinkRecording> LinkRecording::open(const RecordSettings& settings, int client,
                                                   const std::string& peer, const Log& log) {
    const std::string path = settings.directory + "/" + local_time("%Y%m%d-%H%M%S") + "-client" +
                             std::to_string(client) + "-" +
                             file_safe(peer) + ".txt";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        log.info(client_name(client) + ": cannot record to " + path + ": " + std::strerror(errno));
        return nullptr;
    }
    std::unique_ptr<LinkRecording> recording(new LinkRecording(fd, path, client, settings.max_bytes, log));
    recording->event_ = plugin_host::kRecordingHeader + client_name(client) + " from " + peer + "\n";
    log.info(client_name(client) + ": recording to " + path);
    return recording;
}

// The last line tells a whole recording from one cut short.
LinkRecording::~LinkRecording() {
    end_event();
    if (!stopped_) write_all(std::string(plugin_host::kRecordingEnd) + "\n");
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
        stopped_ = true;
        event_.clear();
        const std::string why = "at " + std::to_string(written_) + " bytes (the bound is " +
                                std::to_string(max_bytes_) + ")";
        write_all(std::string(plugin_host::kRecordingStopped) + " " + why + "\n");
        log_.info(client_name(client_) + ": recording stopped " + why + ": " + path_);
        return;
    }
    write_all(event_);
    event_.clear();
}

void LinkRecording::write_all(const std::string& text) {
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
}

void LinkRecording::discard_event() { event_.clear(); }

}  // namespace routerd
