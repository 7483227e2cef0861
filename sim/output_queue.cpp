#include "sim/output_queue.h"

#include <algorithm>

namespace routerd {

namespace {

constexpr std::size_t kMaxBuffersPerWrite = 16;

}  // namespace

void OutputQueue::append_in_new_blocks(std::string_view data) {
    size_ += data.size();
    while (!data.empty()) {
        if (blocks_.empty() || blocks_.back().size == kBlockBytes) blocks_.emplace_back();
        Block& block = blocks_.back();
        const std::size_t room = std::min(kBlockBytes - block.size, data.size());
        std::memcpy(block.bytes.get() + block.size, data.data(), room);
        block.size += room;
        data.remove_prefix(room);
    }
}

const std::vector<boost::asio::const_buffer>& OutputQueue::front_buffers() {
    buffers_.clear();
    std::size_t skip = front_taken_;
    std::size_t left = handed_;
    for (const Block& block : blocks_) {
        if (buffers_.size() == kMaxBuffersPerWrite || left == 0) break;
        const std::size_t bytes = std::min(block.size - skip, left);
        buffers_.emplace_back(block.bytes.get() + skip, bytes);
        left -= bytes;
        skip = 0;
    }
    return buffers_;
}

void OutputQueue::consume(std::size_t bytes) {
    size_ -= bytes;
    handed_ -= std::min(handed_, bytes);
    bytes += front_taken_;
    while (!blocks_.empty() && bytes >= blocks_.front().size && bytes > 0) {
        bytes -= blocks_.front().size;
        if (blocks_.size() == 1) {
            blocks_.front().size = 0;  // kept for the next event
        } else {
            blocks_.pop_front();
        }
        if (bytes == 0) break;
    }
    front_taken_ = blocks_.empty() || blocks_.front().size == 0 ? 0 : bytes;
}

void OutputQueue::clear() {
    std::deque<Block>().swap(blocks_);
    front_taken_ = 0;
    size_ = 0;
    handed_ = 0;
}

}  // namespace routerd
