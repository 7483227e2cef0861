#include "sim/links/telnet.h"

#include <cstring>
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

// Debian's libtelnet 0.21 reports the overflow with error code 0, so its
// message is what tells it apart. The code is copied out as the int it is
// stored as: the value libtelnet leaves there need not be one of
// telnet_error_t's, and reading it as that type would be undefined.
bool is_overflow(const telnet_event_t::error_t& error) {
    int code = 0;
    static_assert(sizeof code == sizeof error.errcode);
    std::memcpy(&code, &error.errcode, sizeof code);
    return code == TELNET_EOVERFLOW || std::strstr(error.msg, "size limit") != nullptr;
}

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
        case TELNET_EV_WARNING:
            // A subnegotiation too long to hold is only a warning to libtelnet,
            // which goes on as if the rest were data; it is not. Other warnings
            // (a malformed subnegotiation) leave the data as it was.
            if (is_overflow(event->error)) codec.fail(event->error.msg);
            break;
        case TELNET_EV_ERROR:
            codec.fail(event->error.msg);
            break;
        case TELNET_EV_COMPRESS:
            // libtelnet starts inflating what follows a COMPRESS2
            // subnegotiation even though the option was refused: a few bytes
            // could then become megabytes of input.
            codec.fail("compression started without being agreed");
            break;
        default:
            // Negotiation is answered by libtelnet itself; commands such as
            // "are you there" and subnegotiations mean nothing to the router.
            break;
    }
}

void TelnetCodec::fail(const char* why) {
    if (error_.empty()) error_ = why;
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
