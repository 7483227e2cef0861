#pragma once

#include <string>
#include <string_view>

namespace routerd {

// Time-stamped log lines on the standard error stream. The activity log (every
// line received and every reply) is written only when verbose; callers that
// build an activity message test verbose() first, so that a quiet simulator
// does not format every reply.
class Log {
public:
    explicit Log(bool verbose = false) : verbose_(verbose) {}

    void info(std::string_view message) const;
    void activity(std::string_view message) const {
        if (verbose_) info(message);
    }
    bool verbose() const { return verbose_; }

private:
    bool verbose_;
};

// Control characters written as C escapes, so that one log entry stays on one line.
std::string escape(std::string_view bytes);

}  // namespace routerd
