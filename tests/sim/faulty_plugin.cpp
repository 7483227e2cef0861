// A converter that does on request what no converter may, for the sanitizer
// build's tests of the harnesses: the report a sanitizer writes inside the
// simulator must reach the test that started it and fail it. Built only with
// LEITCH_SANITIZE, where every one of these faults is reported.
//
// Lines it understands (each ended by CR), and what it does then:
//   heap      reads memory it has freed (AddressSanitizer)
//   overflow  adds one to the largest int (UndefinedBehaviorSanitizer)
//   leak      loses 64 bytes, reported when the simulator exits (LeakSanitizer)
// Anything else is answered "?". With LEITCH_FAULT_AT_LOAD set in the
// environment it reads freed memory as soon as it is loaded.

#include <climits>
#include <cstdlib>
#include <iostream>
#include <string>

#include "framework/interface.h"
#include "framework/plugin_entry.h"
#include "framework/protocol_converter.h"

namespace {

// Volatile, so that the faults are done as written, never folded away.
int read_freed_memory() {
    int* volatile cells = new int[4]{1, 2, 3, 4};
    delete[] cells;
    return cells[2];
}

int add_one_to(volatile int value) { return value + 1; }

void* volatile lost;

struct FaultAtLoad {
    FaultAtLoad() {
        if (std::getenv("LEITCH_FAULT_AT_LOAD")) std::cout << read_freed_memory() << std::endl;
    }
} fault_at_load;

class FaultyConverter final : public ProtocolConverter {
public:
    explicit FaultyConverter(Interface* link) : link_(link) {}

    void ReceiveData(const std::string& data, Interface*) override {
        for (const char c : data) {
            if (c != '\r') {
                line_ += c;
                continue;
            }
            act(line_);
            line_.clear();
        }
    }
    const std::string& GetVersion() override { return version_; }

private:
    void act(const std::string& line) {
        // Written to the captured standard error, as a plug-in's own lines are.
        std::cerr << "faulty converter: " << line << std::endl;
        if (line == "heap") {
            link_->SendData(std::to_string(read_freed_memory()));
        } else if (line == "overflow") {
            link_->SendData(std::to_string(add_one_to(INT_MAX)));
        } else if (line == "leak") {
            lost = std::malloc(64);
            lost = nullptr;
            link_->SendData("leaked\r\n");
        } else {
            link_->SendData("?\r\n");
        }
    }

    Interface* link_;
    std::string line_;
    std::string version_ = "faulty 1";
};

}  // namespace

extern "C" {
ProtocolConverter* create(Interface* link) { return new FaultyConverter(link); }
void destroy(ProtocolConverter* converter) { delete converter; }
}
