#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace routerd {

// The address a client's places are counted under: an IPv4 address as it
// stands ("127.0.0.2"; an IPv4 address mapped into IPv6 counts as itself),
// and for IPv6 the /64 network ("2001:db8:1:2::/64"), which is what one site
// or one machine is given: its addresses are one client's, however many it uses.
std::string share_address(const boost::asio::ip::address& address);
// The same for a connected socket; empty once the peer has gone.
std::string share_address(const boost::asio::ip::tcp::socket& socket);

// A bounded number of places for connections, shared out by client address:
// one address holds at most its share, so that whoever opens connections in a
// loop from one machine leaves the rest of the places to the others.
//
// A place is held by a Place and given back when the Place goes. The counts
// live as long as the last Place, so that it does not matter which of the
// owner and the holders is destroyed first.
class AddressShares {
    struct Counts {
        std::size_t held = 0;
        std::map<std::string, std::size_t> by_address;
    };

public:
    enum class Verdict {
        taken,
        full,          // every place is held
        address_full,  // the address holds its share
    };

    class Place {
    public:
        Place() = default;
        Place(Place&& other) noexcept = default;
        Place& operator=(Place&& other) noexcept;
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place() { give_back(); }

        explicit operator bool() const { return counts_ != nullptr; }
        // Whose place it is (see share_address).
        const std::string& address() const { return address_; }
        void give_back();

    private:
        friend class AddressShares;
        Place(std::shared_ptr<Counts> counts, std::string address)
            : counts_(std::move(counts)), address_(std::move(address)) {}

        std::shared_ptr<Counts> counts_;
        std::string address_;
    };

    // `per_address` is at most `total`.
    AddressShares(std::size_t total, std::size_t per_address);

    // A place for `address` in `place` when there is one (what `place` held
    // before is given back first only when a new place is taken).
    Verdict take(const std::string& address, Place& place);

    std::size_t total() const { return total_; }
    std::size_t per_address() const { return per_address_; }
    std::size_t held() const { return counts_->held; }
    std::size_t held_by(const std::string& address) const;

private:
    std::size_t total_;
    std::size_t per_address_;
    std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
};

// Half of `total`, rounded up: the default share of one address. One address
// may then hold as many places as all others together, and never more.
constexpr std::size_t half_rounded_up(std::size_t total) { return (total + 1) / 2; }

}  // namespace routerd
