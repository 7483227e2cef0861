#include "sim/links/refusal_bursts.h"

namespace routerd {

void RefusalBursts::end_quiet(Clock::time_point now) {
    for (auto entry = bursts_.begin(); entry != bursts_.end();) {
        const Burst& burst = entry->second;
        if (now - burst.last < kQuiet) {
            ++entry;
            continue;
        }
        if (burst.more > 0) {
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(burst.last - burst.began).count();
            log_.info(prefix_ + "refused " + with_thousands(burst.more) + " more " + entry->first + " over " +
                      std::to_string(seconds) + " s");
        }
        entry = bursts_.erase(entry);
    }
}

}  // namespace routerd
