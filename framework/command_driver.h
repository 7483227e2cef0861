#pragma once

// The framework's object through which a converter drives the router. Its table
// starts directly with TakePresets (there is no virtual destructor in front).
// Every `level` is a host level number.
class CommandDriver {
public:
    virtual void TakePresets() = 0;
    virtual void ClearPresets() = 0;
    virtual void PresetCrosspoint(int level, int source, int destination) = 0;
    // Framework operations a converter never calls; they hold their table slots.
    virtual void Reserved0() {}
    virtual void Reserved1() {}
    virtual void Reserved2() {}
    virtual void Reserved3() {}
    virtual void LockCrosspoint(int level, int destination, int state) = 0;

protected:
    // Drivers are owned by the framework, never deleted through this interface.
    ~CommandDriver() = default;
};
