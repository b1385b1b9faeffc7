#ifndef ORB_STREAM_FRAME_RING_H
#define ORB_STREAM_FRAME_RING_H

// A fixed ring of frames, allocated once per stream so that memory stays
// flat however far the host falls behind. The owner locks around it.

#include <cstdint>
#include <memory>
#include <new>

#include "orb_stream.h"

namespace orbstream {

class FrameRing {
public:
    bool allocate(uint32_t capacity) {
        slots_.reset(new (std::nothrow) orb_stream_frame[capacity]);
        capacity_ = slots_ ? capacity : 0;
        head_ = count_ = 0;
        return slots_ != nullptr;
    }
    void release() {
        slots_.reset();
        capacity_ = head_ = count_ = 0;
    }
    uint32_t capacity() const { return capacity_; }
    uint32_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    bool full() const { return count_ == capacity_; }

    // The slot the next frame goes into; push() makes it visible.
    orb_stream_frame& back() { return slots_[(head_ + count_) % capacity_]; }
    void push() { count_++; }
    orb_stream_frame& front() { return slots_[head_]; }
    void pop() {
        head_ = (head_ + 1) % capacity_;
        count_--;
    }

private:
    std::unique_ptr<orb_stream_frame[]> slots_;
    uint32_t capacity_ = 0;
    uint32_t head_ = 0;
    uint32_t count_ = 0;
};

}  // namespace orbstream

#endif
