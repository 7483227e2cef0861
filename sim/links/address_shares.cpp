#include "sim/links/address_shares.h"

#include <algorithm>

namespace routerd {

namespace asio = boost::asio;

std::string share_address(const asio::ip::address& address) {
    if (address.is_v4()) return address.to_string();
    const asio::ip::address_v6 v6 = address.to_v6();
    if (v6.is_v4_mapped()) return asio::ip::make_address_v4(asio::ip::v4_mapped, v6).to_string();
    if (v6.is_loopback()) return v6.to_string();
    asio::ip::address_v6::bytes_type bytes = v6.to_bytes();
    std::fill(bytes.begin() + 8, bytes.end(), 0);
    return asio::ip::address_v6(bytes).to_string() + "/64";
}

std::string share_address(const asio::ip::tcp::socket& socket) {
    boost::system::error_code ec;
    const asio::ip::tcp::endpoint peer = socket.remote_endpoint(ec);
    return ec ? std::string() : share_address(peer.address());
}

AddressShares::Place& AddressShares::Place::operator=(Place&& other) noexcept {
    if (this != &other) {
        give_back();
        counts_ = std::move(other.counts_);
        address_ = std::move(other.address_);
    }
    return *this;
}

void AddressShares::Place::give_back() {
    if (!counts_) return;
    --counts_->held;
    const auto entry = counts_->by_address.find(address_);
    if (entry != counts_->by_address.end() && --entry->second == 0) counts_->by_address.erase(entry);
    counts_.reset();
}

AddressShares::AddressShares(std::size_t total, std::size_t per_address)
    : total_(total), per_address_(std::min(per_address, total)) {}

AddressShares::Verdict AddressShares::take(const std::string& address, Place& place) {
    if (counts_->held >= total_) return Verdict::full;
    if (held_by(address) >= per_address_) return Verdict::address_full;
    ++counts_->held;
    ++counts_->by_address[address];
    place = Place(counts_, address);
    return Verdict::taken;
}

std::size_t AddressShares::held_by(const std::string& address) const {
    const auto entry = counts_->by_address.find(address);
    return entry == counts_->by_address.end() ? 0 : entry->second;
}

}  // namespace routerd
