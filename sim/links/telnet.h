#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct telnet_t;
union telnet_event_t;

namespace routerd {

// The telnet protocol between a client and its converter instance (libtelnet
// parses it): option negotiation is answered here and never passed on, IAC IAC
// reaches the converter as one 0xFF byte, and sequences cut across reads are
// put together. The simulator does no echo of its own and accepts only
// suppress-go-ahead; every other option is refused.
class TelnetCodec {
public:
    TelnetCodec();
    ~TelnetCodec();
    TelnetCodec(const TelnetCodec&) = delete;
    TelnetCodec& operator=(const TelnetCodec&) = delete;

    // Splits bytes from the client into the converter's data and the answers
    // the client's negotiation needs; the data is never longer than the bytes.
    // False when the client broke the protocol beyond repair (a subnegotiation
    // longer than libtelnet holds, compression it never agreed to); error()
    // says how, and nothing more is decoded.
    bool decode(const char* bytes, std::size_t length, std::string& data, std::string& answers);
    // Bytes for the client: data with every 0xFF doubled, and anything else
    // queued for it.
    void encode(std::string_view data, std::string& bytes);
    const std::string& error() const { return error_; }

private:
    static void on_event(telnet_t* telnet, telnet_event_t* event, void* self);
    void take_data(const char* bytes, std::size_t length);
    void fail(const char* why);

    std::unique_ptr<telnet_t, void (*)(telnet_t*)> telnet_;
    std::string* data_ = nullptr;     // where decode() puts the converter's bytes
    std::string* to_client_ = nullptr;  // where decode() and encode() put bytes for the client
    bool after_cr_ = false;           // CR NUL is a bare CR: the NUL is dropped
    std::string error_;
};

}  // namespace routerd
