#include "sim/links/telnet.h"

#include <new>

#include <libtelnet.h>

namespace routerd {

namespace {

// Suppress-go-ahead, both ways, when the client asks; libtelnet refuses the
// rest, echo included.
const telnet_telopt_t kOptions[] = {
    {TELNET_TELOPT_SGA, TELNET_WILL, TELNET_DO},
    {-1, 0, 0},
};

}  // namespace

TelnetCodec::TelnetCodec() : telnet_(telnet_init(kOptions, &TelnetCodec::on_event, 0, this), &telnet_free) {
    if (!telnet_) throw std::bad_alloc();
}

TelnetCodec::~TelnetCodec() = default;

bool TelnetCodec::decode(const char* bytes, std::size_t length, std::string& data, std::string& answers) {
    data_ = &data;
    to_client_ = &answers;
    telnet_recv(telnet_.get(), bytes, length);
    data_ = to_client_ = nullptr;
    return error_.empty();
}

void TelnetCodec::encode(std::string_view data, std::string& bytes) {
    to_client_ = &bytes;
    telnet_send(telnet_.get(), data.data(), data.size());
    to_client_ = nullptr;
}

void TelnetCodec::on_event(telnet_t*, telnet_event_t* event, void* self) {
    auto& codec = *static_cast<TelnetCodec*>(self);
    switch (event->type) {
        case TELNET_EV_DATA:
            codec.take_data(event->data.buffer, event->data.size);
            break;
        case TELNET_EV_SEND:
            if (codec.to_client_) codec.to_client_->append(event->data.buffer, event->data.size);
            break;
        case TELNET_EV_ERROR:
            // libtelnet goes on as if the rest were data; it is not.
            if (codec.error_.empty()) codec.error_ = event->error.msg;
            break;
        default:
            // Negotiation is answered by libtelnet itself; commands such as
            // "are you there" and subnegotiations mean nothing to the router.
            break;
    }
}

void TelnetCodec::take_data(const char* bytes, std::size_t length) {
    if (!data_ || !error_.empty()) return;
    for (std::size_t i = 0; i < length; ++i) {
        const char c = bytes[i];
        const bool drop = after_cr_ && c == '\0';
        after_cr_ = c == '\r';
        if (!drop) *data_ += c;
    }
}

}  // namespace routerd
