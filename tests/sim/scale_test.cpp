// 64 clients on a router of 16 levels of 1152 by 1152.

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "support/routerd.h"

namespace simtest {
namespace {

constexpr int kClients = 64;

std::string report(int level, int destination, int source) {
    char text[32];
    std::snprintf(text, sizeof text, "\r\nS:%X%X,%X\r\n>", level, destination, source);
    return text;
}

TEST(RouterdScale, SixtyFourClientsOnSixteenLargeLevelsSeeEachOthersTakes) {
    Routerd routerd({"--config", LEITCH_SIM_TEST_DIR "/configs/sixteen_large_levels.toml"});
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<Client>(routerd.port()));
        clients.back()->send("@ ?\r");
    }
    for (auto& client : clients) ASSERT_EQ(client->read_until("\r\n>", 20s), "@ ?\r\n>");

    // Client i switches destination 1000 + i of level i % 16 to source i + 1.
    for (int i = 0; i < kClients; ++i) {
        char take[32];
        std::snprintf(take, sizeof take, "@ X:%X/%X,%X\r", i % 16, 1000 + i, i + 1);
        clients[static_cast<std::size_t>(i)]->send(take);
    }
    for (int i = 0; i < kClients; ++i) {
        Client& client = *clients[static_cast<std::size_t>(i)];
        std::string received = client.read_count("S:", kClients, 20s);
        received += client.read_until("\r\n>");  // the rest of the last report
        for (int from = 0; from < kClients; ++from) {
            EXPECT_NE(received.find(report(from % 16, 1000 + from, from + 1)), std::string::npos)
                << "client " << i << " missed the take of client " << from;
        }
    }

    // A full level status answers all 1152 destinations.
    Client& asking = *clients.front();
    asking.send("@ !\r");
    ASSERT_EQ(asking.read_until("\r\n>"), "\r\n>");
    asking.send("@ S?3\r");
    const std::string status = asking.read_until("\r\n>", 20s);
    EXPECT_EQ(occurrences(status, "\r\nS:3"), 1152u);
    EXPECT_NE(status.find("\r\nS:33EB,4\r\n"), std::string::npos);  // client 3: destination 1003, source 4
}

}  // namespace
}  // namespace simtest
