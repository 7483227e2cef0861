#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "sim/links/address_shares.h"
#include "sim/links/failed_logins.h"
#include "sim/links/refusal_bursts.h"
#include "sim/log.h"

namespace routerd {

// Who gets a place among the Leitch clients of the TCP ports. Raw and
// logged-in clients hold places of max_clients; a client at a login prompt
// holds one of a smaller budget of its own until it has logged in, so that
// whoever sits at the prompt or guesses passwords cannot take the places of
// the clients at work. Both are shared out by address, so that no single
// address can take them all, and an address that failed to log in too often
// is refused by the login ports for a while (FailedLogins).
class Admission {
public:
    using Clock = std::chrono::steady_clock;
    using Place = AddressShares::Place;

    struct Budgets {
        std::size_t clients;  // max_clients
        std::size_t clients_per_address;
        std::size_t logging_in;  // max_clients_logging_in
        std::size_t logging_in_per_address;
    };

    // A place, or the line the client is told (then the link closes) and, for
    // a client that logged in, the reason its link closes.
    struct Verdict {
        Place place;
        std::string line;
        std::string reason;
    };

    Admission(const Budgets& budgets, const Log& log);

    // A new connection from `peer` ("127.0.0.2:40312", for the log), whose
    // address is `address` (see share_address; empty when the peer has gone
    // already), to a port with or without a login. Refusals are logged here:
    // one line per refusal while the ports are full (as lines about clients
    // coming and going), one per burst for an address over its share.
    Verdict admit(const std::string& address, const std::string& peer, bool login, Clock::time_point now);
    // A client at a login prompt has logged in: a place among max_clients for
    // it, which frees its place at the prompt. Not logged: the client's link
    // closes with the reason.
    Verdict after_login(const std::string& address);

    FailedLogins& failed_logins() { return failed_logins_; }
    // Once a second.
    void end_second(Clock::time_point now);

private:
    Verdict refuse_over_total(const AddressShares& shares, bool login, const std::string& peer);
    Verdict refuse_over_share(const AddressShares& shares, bool login, const std::string& address,
                              const std::string& peer, Clock::time_point now);

    const Log& log_;
    AddressShares clients_;
    AddressShares logging_in_;
    FailedLogins failed_logins_;
    RefusalBursts bursts_;
};

}  // namespace routerd
