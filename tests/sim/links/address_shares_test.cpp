// Places shared out by client address, counted without sockets.

#include <gtest/gtest.h>

#include <memory>

#include "sim/links/address_shares.h"

namespace routerd {
namespace {

using Verdict = AddressShares::Verdict;

std::string key(const char* text) { return share_address(boost::asio::ip::make_address(text)); }

TEST(AddressShares, AnIpv4AddressCountsAsItselfAndAnIpv6OneByItsSlash64) {
    EXPECT_EQ(key("127.0.0.2"), "127.0.0.2");
    EXPECT_EQ(key("::ffff:192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(key("2001:db8:1:2:a:b:c:d"), "2001:db8:1:2::/64");
    EXPECT_EQ(key("2001:db8:1:2::ffff"), "2001:db8:1:2::/64");
    EXPECT_EQ(key("::1"), "::1");
}

TEST(AddressShares, OneAddressTakesAtMostItsShareAndAllTogetherAtMostTheTotal) {
    AddressShares shares(5, 3);
    AddressShares::Place a[4], b[2], c;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(shares.take("10.0.0.1", a[i]), Verdict::taken);
    EXPECT_EQ(shares.take("10.0.0.1", a[3]), Verdict::address_full);
    EXPECT_FALSE(a[3]);
    for (auto& place : b) EXPECT_EQ(shares.take("10.0.0.2", place), Verdict::taken);
    EXPECT_EQ(shares.take("10.0.0.3", c), Verdict::full);
    EXPECT_EQ(shares.held(), 5u);
    EXPECT_EQ(shares.held_by("10.0.0.1"), 3u);
    EXPECT_EQ(b[0].address(), "10.0.0.2");
}

TEST(AddressShares, APlaceIsGivenBackWhenItsHolderGoesOrTakesAnother) {
    AddressShares shares(2, 2);
    AddressShares::Place kept;
    {
        AddressShares::Place gone;
        EXPECT_EQ(shares.take("10.0.0.1", gone), Verdict::taken);
        EXPECT_EQ(shares.held(), 1u);
    }
    EXPECT_EQ(shares.held(), 0u);
    EXPECT_EQ(shares.take("10.0.0.1", kept), Verdict::taken);
    AddressShares::Place moved = std::move(kept);
    EXPECT_EQ(shares.held(), 1u);
    AddressShares::Place other;
    EXPECT_EQ(shares.take("10.0.0.2", other), Verdict::taken);
    moved = std::move(other);
    EXPECT_EQ(shares.held(), 1u);
    EXPECT_EQ(shares.held_by("10.0.0.1"), 0u);
    EXPECT_EQ(shares.held_by("10.0.0.2"), 1u);
}

TEST(AddressShares, APlaceMayOutliveItsShares) {
    AddressShares::Place place;
    {
        AddressShares shares(1, 1);
        EXPECT_EQ(shares.take("10.0.0.1", place), Verdict::taken);
    }
    place.give_back();
    EXPECT_FALSE(place);
}

}  // namespace
}  // namespace routerd
