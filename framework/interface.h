#pragma once

#include <string>

// The framework's link to one client connection. A converter only ever calls
// SendData; the two operations in front of it are the framework's own and are
// declared here only so that SendData keeps its place in the table.
class Interface {
public:
    virtual ~Interface() = default;
    virtual void Reserved0() {}
    virtual void Reserved1() {}
    // Transmit bytes to the client. The caller owns the string.
    virtual void SendData(std::string data) = 0;
};
