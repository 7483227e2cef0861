#pragma once

#include <cstddef>
#include <cstring>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

#include <boost/asio/buffer.hpp>

namespace routerd {

// A client's waiting output, in blocks of a fixed size: its memory follows
// what is waiting (no doubling and no copy as it grows) and goes back block by
// block as the socket takes it. One block is kept for the next event, so a
// client that keeps up allocates nothing.
class OutputQueue {
public:
    static constexpr std::size_t kBlockBytes = 16 * 1024;

    // Inline: every piece of every client's output passes here.
    void append(std::string_view data) {
        if (!blocks_.empty() && kBlockBytes - blocks_.back().size >= data.size()) {
            Block& block = blocks_.back();
            std::memcpy(block.bytes.get() + block.size, data.data(), data.size());
            block.size += data.size();
            size_ += data.size();
            return;
        }
        append_in_new_blocks(data);
    }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    // The first `bytes` waiting (everything appended so far, by default) are
    // given to the writer. Until the link has taken all of them, a write is
    // under way.
    void hand_over() { handed_ = size_; }
    void hand_over(std::size_t bytes) { handed_ = bytes < size_ ? bytes : size_; }
    std::size_t handed() const { return handed_; }

    // The front of what was handed over as buffers for one gathered write (at most 16).
    const std::vector<boost::asio::const_buffer>& front_buffers();
    // Drops the first `bytes`, which the link has taken (at most handed()).
    void consume(std::size_t bytes);
    // Drops everything and gives all blocks back.
    void clear();

private:
    struct Block {
        std::unique_ptr<char[]> bytes = std::make_unique<char[]>(kBlockBytes);
        std::size_t size = 0;
    };
    void append_in_new_blocks(std::string_view data);

    std::deque<Block> blocks_;  // the front block's first front_taken_ bytes are gone
    std::size_t front_taken_ = 0;
    std::size_t size_ = 0;
    std::size_t handed_ = 0;
    std::vector<boost::asio::const_buffer> buffers_;
};

}  // namespace routerd
