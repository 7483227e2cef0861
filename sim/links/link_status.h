#pragma once

#include <string>
#include <vector>

namespace routerd {

// How one link the simulator serves stands, for the web view.
struct LinkStatus {
    std::string kind;      // "tcp", "telnet" or "serial"
    std::string where;     // "127.0.0.1:2323", "/dev/ttyUSB0"
    std::string settings;  // "login, idle timeout 300 s", "38400 8N1"
    bool up = true;        // listening; the serial port open
    std::string problem;   // why a serial port is not open (it is tried again)

    bool operator==(const LinkStatus& other) const {
        return kind == other.kind && where == other.where && settings == other.settings && up == other.up &&
               problem == other.problem;
    }
};

// Where the web view learns of the links; the server is one.
class LinkDirectory {
public:
    virtual std::vector<LinkStatus> links() const = 0;

protected:
    ~LinkDirectory() = default;
};

}  // namespace routerd
