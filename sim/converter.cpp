#include "sim/converter.h"

#include <list>

namespace routerd {

void Converter::create(Interface& link, const std::string& peer) {
    if (context_.recordings) {
        recording_ = context_.recordings->open(client_, peer);
        driver_.record_to(recording_.get());
    }
    instance_ = context_.plugin->create(link);
    context_.log.flush();  // the plug-in's own line, in its place
    instance_->SetCommandDriver(&driver_);
    if (recording_) recording_->configuration(context_.converter_config);
    instance_->LoadConfig(context_.converter_config);
    std::list<LevelDesc> levels = level_list();
    if (recording_) recording_->levels(levels);
    instance_->LevelList(levels, false);
}

std::list<LevelDesc> Converter::level_list() const {
    std::list<LevelDesc> levels;
    for (const LevelSpec& level : context_.router.levels())
        levels.push_back({level.number, level.sources, level.destinations});
    return levels;
}

void Converter::levels_changed() {
    std::list<LevelDesc> levels = level_list();
    instance_->LevelList(levels, true);
}

void Converter::destroy() {
    instance_.reset();
    driver_.record_to(nullptr);
    recording_.reset();
}

void Converter::log_activity() {
    context_.log.activity(client_name(client_) + " >> \"" + escape(activity_sent_) + "\"");
    activity_sent_.clear();
}

}  // namespace routerd
