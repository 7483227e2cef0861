#include "sim/converter.h"

#include <list>

namespace routerd {

void Converter::create(Interface& link, const std::string& peer) {
    if (!context_.record.directory.empty()) {
        recording_ = LinkRecording::open(context_.record, client_, peer, context_.log);
        driver_.record_to(recording_.get());
    }
    instance_ = context_.plugin->create(link);
    context_.log.flush();  // the plug-in's own line, in its place
    instance_->SetCommandDriver(&driver_);
    if (recording_) recording_->configuration(context_.converter_config);
    instance_->LoadConfig(context_.converter_config);
    std::list<LevelDesc> levels;
    for (const LevelSpec& level : context_.router.levels())
        levels.push_back({level.number, level.sources, level.destinations});
    if (recording_) recording_->levels(levels);
    instance_->LevelList(levels, false);
}

void Converter::destroy() {
    instance_.reset();
    driver_.record_to(nullptr);
    recording_.reset();
}

void Converter::crosspoint(int level, int source, int destination) {
    if (recording_) recording_->crosspoint(level, source, destination);
    instance_->Crosspoint(level, source, destination);
}

void Converter::lock(int level, int destination, int state) {
    if (recording_) recording_->lock(level, destination, state);
    instance_->CrosspointLock(level, destination, state);
}

void Converter::log_sent() {
    if (activity_sent_.empty()) return;
    context_.log.activity(client_name(client_) + " >> \"" + escape(activity_sent_) + "\"");
    activity_sent_.clear();
}

void Converter::receive(const std::string& input) {
    if (recording_) recording_->received(input);
    instance_->ReceiveData(input, nullptr);
}

}  // namespace routerd
