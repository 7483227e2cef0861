#include "sim/links/admission.h"

namespace routerd {

namespace {

std::string number(std::size_t n) { return std::to_string(n); }

}  // namespace

Admission::Admission(const Budgets& budgets, const Log& log)
    : log_(log),
      clients_(budgets.clients, budgets.clients_per_address),
      logging_in_(budgets.logging_in, budgets.logging_in_per_address),
      failed_logins_(log),
      bursts_(log, "") {}

Admission::Verdict Admission::admit(const std::string& address, const std::string& peer, bool login,
                                    Clock::time_point now) {
    Verdict verdict;
    if (address.empty()) return verdict;  // gone before it could be counted
    if (login) {
        if (const auto left = failed_logins_.refused(address, now)) {
            verdict.line = "login refused: too many failed logins from your address; try again in " +
                           std::to_string(left->count()) + " s\r\n";
            return verdict;
        }
    }
    AddressShares& shares = login ? logging_in_ : clients_;
    switch (shares.take(address, verdict.place)) {
        case AddressShares::Verdict::taken:
            return verdict;
        case AddressShares::Verdict::full:
            return refuse_over_total(shares, login, peer);
        case AddressShares::Verdict::address_full:
            return refuse_over_share(shares, login, address, peer, now);
    }
    return verdict;
}

Admission::Verdict Admission::refuse_over_total(const AddressShares& shares, bool login, const std::string& peer) {
    Verdict verdict;
    if (login) {
        verdict.line = "too many clients logging in: the limit is " + number(shares.total()) + "\r\n";
        log_.client_line("refused client from " + peer + ": already " + number(shares.held()) +
                         " clients at the login prompt (max_clients_logging_in)");
    } else {
        verdict.line = "too many clients: the limit is " + number(shares.total()) + "\r\n";
        log_.client_line("refused client from " + peer + ": already " + number(shares.held()) +
                         " clients (max_clients)");
    }
    return verdict;
}

Admission::Verdict Admission::refuse_over_share(const AddressShares& shares, bool login, const std::string& address,
                                                const std::string& peer, Clock::time_point now) {
    Verdict verdict;
    const std::string share = number(shares.per_address());
    const std::string held = number(shares.held_by(address)) + " of its " + share;
    if (login) {
        verdict.line = "too many clients logging in from your address: the limit is " + share + " per address\r\n";
        bursts_.refused("clients at the login prompt from " + address + " (its share of max_clients_logging_in)",
                        now, [&] {
                            return "refused client from " + peer + ": " + address + " has " + held +
                                   " places at the login prompt (its share of max_clients_logging_in)";
                        });
    } else {
        verdict.line = "too many clients from your address: the limit is " + share + " per address\r\n";
        bursts_.refused("clients from " + address + " (max_clients_per_address)", now, [&] {
            return "refused client from " + peer + ": " + address + " holds " + held +
                   " places (max_clients_per_address)";
        });
    }
    return verdict;
}

Admission::Verdict Admission::after_login(const std::string& address) {
    Verdict verdict;
    switch (clients_.take(address, verdict.place)) {
        case AddressShares::Verdict::taken:
            break;
        case AddressShares::Verdict::full:
            verdict.line = "too many clients: the limit is " + number(clients_.total()) + "\r\n";
            verdict.reason = "logged in, but already " + number(clients_.held()) + " clients (max_clients)";
            break;
        case AddressShares::Verdict::address_full:
            verdict.line = "too many clients from your address: the limit is " + number(clients_.per_address()) +
                           " per address\r\n";
            verdict.reason = "logged in, but " + address + " holds " + number(clients_.held_by(address)) + " of its " +
                             number(clients_.per_address()) + " places (max_clients_per_address)";
            break;
    }
    return verdict;
}

void Admission::end_second(Clock::time_point now) {
    bursts_.end_quiet(now);
    failed_logins_.end_second(now);
}

}  // namespace routerd
