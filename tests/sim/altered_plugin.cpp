// A converter changed on purpose, for the tests of leitch-replay: the real
// plug-in, loaded underneath, with every "S:" report sent as "s:".

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "framework/interface.h"
#include "framework/plugin_entry.h"
#include "framework/protocol_converter.h"

namespace {

class AlteringLink final : public Interface {
public:
    explicit AlteringLink(Interface* link) : link_(link) {}
    void SendData(std::string data) override {
        if (data.rfind("\r\nS:", 0) == 0) data[2] = 's';
        link_->SendData(std::move(data));
    }

private:
    Interface* link_;
};

class AlteredConverter final : public ProtocolConverter {
public:
    explicit AlteredConverter(Interface* link) : link_(link) {
        handle_ = dlopen(LEITCH_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        if (!handle_) throw std::runtime_error(dlerror());
        const auto create = reinterpret_cast<CreateFunction>(dlsym(handle_, "create"));
        destroy_ = reinterpret_cast<DestroyFunction>(dlsym(handle_, "destroy"));
        real_ = create(&link_);
    }
    ~AlteredConverter() override {
        destroy_(real_);
        dlclose(handle_);
    }
    AlteredConverter(const AlteredConverter&) = delete;
    AlteredConverter& operator=(const AlteredConverter&) = delete;

    void ReceiveData(const std::string& data, Interface* source) override { real_->ReceiveData(data, source); }
    void LoadConfig(const std::map<std::string, std::string>& config) override { real_->LoadConfig(config); }
    const std::string& GetVersion() override { return real_->GetVersion(); }
    void SetCommandDriver(CommandDriver* driver) override { real_->SetCommandDriver(driver); }
    void LevelList(std::list<LevelDesc>& levels, bool update) override { real_->LevelList(levels, update); }
    void Crosspoint(int level, int source, int destination) override { real_->Crosspoint(level, source, destination); }
    void CrosspointLock(int level, int destination, int state) override {
        real_->CrosspointLock(level, destination, state);
    }

private:
    AlteringLink link_;
    void* handle_ = nullptr;
    DestroyFunction destroy_ = nullptr;
    ProtocolConverter* real_ = nullptr;
};

}  // namespace

extern "C" {
ProtocolConverter* create(Interface* link) { return new AlteredConverter(link); }
void destroy(ProtocolConverter* converter) { delete converter; }
}
