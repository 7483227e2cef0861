#pragma once

#include <list>
#include <map>
#include <string>

#include "framework/descriptions.h"
#include "framework/protocol.h"

class CommandDriver;

// A protocol that converts between a client protocol and the framework's
// router. The order of the virtual operations below is the binary contract with
// the framework: never reorder, insert or remove one. Every default does nothing.
class ProtocolConverter : public Protocol {
public:
    void SetInterface(boost::shared_ptr<Interface>) override {}
    virtual void LoadConfig(const std::map<std::string, std::string>& /*config*/) {}
    virtual const std::string& GetVersion() {
        static const std::string none;
        return none;
    }
    virtual void SetCommandDriver(CommandDriver* /*driver*/) {}
    virtual void LevelList(std::list<LevelDesc>&, bool /*update*/) {}
    virtual void InputList(std::list<InputOutputDesc>&, bool) {}
    virtual void OutputList(std::list<InputOutputDesc>&, bool) {}
    virtual void ParamGroupList(std::list<ParamGroupDesc>&, bool) {}
    virtual void ParameterList(std::list<ParameterDesc>&, bool) {}
    virtual void SalvoGroupList(std::list<SalvoGroupDesc>&, bool) {}
    virtual void SalvoList(std::list<SalvoDesc>&, bool) {}
    virtual void VTableList(std::list<VTableDesc>&, bool) {}
    virtual void SourceList(std::list<SourceDestinationDesc>&, bool) {}
    virtual void DestinationList(std::list<SourceDestinationDesc>&, bool) {}
    virtual void VLevelList(std::list<VLevelDesc>&, bool) {}
    virtual void VCategoryList(std::list<VCategoryDesc>&, bool) {}
    virtual void Alarm(std::list<AlarmDesc>&) {}
    // The router switched `destination` of host level `level` to `source`.
    virtual void Crosspoint(int /*level*/, int /*source*/, int /*destination*/) {}
    // The lock state of `destination` of host level `level` changed.
    virtual void CrosspointLock(int /*level*/, int /*destination*/, int /*state*/) {}
    virtual void VirtualCrosspoint(int, int, int) {}
    virtual void VirtualCrosspoint(int, std::map<int, int>&, int) {}
    virtual void VirtualCrosspointLock(int, int, int) {}
    virtual void VirtualCrosspointLock(int, int, std::map<int, int>&) {}
    virtual void Parameter(int, int, int) {}
    virtual void ParameterUnknown(int, int) {}
    virtual void ParameterLock(int, int, int) {}
    virtual void Salvo(int, int, bool) {}
    virtual void SalvoLock(int, int, int) {}
    virtual void InputStatus(int, int, int) {}
    virtual void OutputStatus(int, int, int) {}
    virtual void SourceStatus(int, int, int) {}
    virtual void SourceStatus(int, int, std::map<int, int>&) {}
    virtual void DestinationStatus(int, int, int) {}
    virtual void DestinationStatus(int, int, std::map<int, int>&) {}
    virtual void SalvoSignalStatus(int, int, int) {}
};
