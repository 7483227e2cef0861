// A client's waiting output in fixed blocks, checked against a plain string.

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "sim/output_queue.h"

namespace routerd {
namespace {

// What the next gathered write would send, everything being handed over.
std::string front(OutputQueue& queue) {
    queue.hand_over();
    std::string out;
    for (const auto& buffer : queue.front_buffers())
        out.append(static_cast<const char*>(buffer.data()), buffer.size());
    return out;
}

TEST(RouterdOutputQueue, AGatheredWriteSendsTheBytesInOrderAcrossBlocks) {
    OutputQueue queue;
    const std::string big(OutputQueue::kBlockBytes * 2 + 10, 'x');
    queue.append("ab");
    queue.append(big);
    queue.append("cd");
    EXPECT_EQ(queue.size(), big.size() + 4);
    EXPECT_EQ(front(queue), "ab" + big + "cd");
    queue.consume(3);
    EXPECT_EQ(front(queue), big.substr(1) + "cd");
    queue.consume(big.size() - 1);
    EXPECT_EQ(front(queue), "cd");
    queue.consume(2);
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(front(queue), "");
    queue.append("ef");
    EXPECT_EQ(front(queue), "ef");
}

TEST(RouterdOutputQueue, OneWriteGathersAtMostSixteenBlocks) {
    OutputQueue queue;
    queue.append(std::string(OutputQueue::kBlockBytes * 20, 'y'));
    queue.hand_over();
    EXPECT_EQ(queue.front_buffers().size(), 16u);
    EXPECT_EQ(front(queue).size(), OutputQueue::kBlockBytes * 16);
}

TEST(RouterdOutputQueue, AWriteSendsNoMoreThanWasHandedOver) {
    OutputQueue queue;
    const std::string big(OutputQueue::kBlockBytes + 10, 'z');
    queue.append("ab");
    queue.append(big);
    queue.hand_over(OutputQueue::kBlockBytes + 5);
    std::string out;
    for (const auto& buffer : queue.front_buffers())
        out.append(static_cast<const char*>(buffer.data()), buffer.size());
    EXPECT_EQ(out, "ab" + big.substr(0, OutputQueue::kBlockBytes + 3));
    queue.consume(out.size());
    EXPECT_EQ(queue.handed(), 0u);
    EXPECT_TRUE(queue.front_buffers().empty());
    EXPECT_EQ(front(queue), big.substr(OutputQueue::kBlockBytes + 3));
}

TEST(RouterdOutputQueue, RandomAppendsAndWritesMatchAString) {
    std::mt19937 random(7);
    OutputQueue queue;
    std::string model;
    char next = 'a';
    for (int step = 0; step < 5000; ++step) {
        if (random() % 2) {
            const std::size_t length = random() % (OutputQueue::kBlockBytes + 100);
            const std::string data(length, next);
            next = next == 'z' ? 'a' : static_cast<char>(next + 1);
            queue.append(data);
            model += data;
        } else {
            const std::string sent = front(queue);
            ASSERT_EQ(sent, model.substr(0, sent.size()));
            const std::size_t taken = sent.empty() ? 0 : random() % (sent.size() + 1);
            queue.consume(taken);
            model.erase(0, taken);
        }
        ASSERT_EQ(queue.size(), model.size());
    }
}

}  // namespace
}  // namespace routerd
