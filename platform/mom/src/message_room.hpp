// Memory for a message that is read and soon forgotten: its parts stand one behind the other, and go together.
#ifndef MOM_MESSAGE_ROOM_HPP
#define MOM_MESSAGE_ROOM_HPP

#include <protobuf-c/protobuf-c.h>

#include <array>
#include <cstddef>
#include <memory_resource>
#include <new>

namespace mom
{

class message_room
{
  public:
    message_room() = default;
    message_room(const message_room &) = delete;
    message_room &operator=(const message_room &) = delete;

    // As protobuf-c wants it: null without memory. What it frees stays until the room goes.
    ProtobufCAllocator &allocator() { return allocator_; }
    // protobuf-c answers bad bytes and a lack of memory with the same null; this tells which it was.
    bool was_short() const { return was_short_; }

  private:
    static void *allocate(void *room, size_t size) noexcept
    {
        auto &self = *static_cast<message_room *>(room);
        try {
            return self.memory_.allocate(size);
        } catch (const std::bad_alloc &) {
            self.was_short_ = true;
            return nullptr;
        }
    }
    static void release(void *, void *) {}

    // Enough for a record as they usually are; a larger one goes on elsewhere.
    alignas(std::max_align_t) std::array<std::byte, 768> first_;
    std::pmr::monotonic_buffer_resource memory_{first_.data(), first_.size()};
    bool was_short_ = false;
    ProtobufCAllocator allocator_{allocate, release, this};
};

}  // namespace mom
#endif
