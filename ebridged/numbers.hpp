// Who a callback is for, by number. A callback carries its number in place of a pointer, so that one that comes after its
// target's end finds nobody.
#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_map>

namespace ebridged
{

// Numbers of one kind of target; each is given once.
template <typename Target>
class numbers
{
  public:
    // A number, and its target's for as long as this lives: also when what has it never comes to be for lack of memory.
    class own
    {
      public:
        explicit own(const Target &target) : number_(add(target)) {}
        ~own() { remove(number_); }
        own(const own &) = delete;
        own &operator=(const own &) = delete;

        void *argument() const { return reinterpret_cast<void *>(number_); }

      private:
        const uintptr_t number_;
    };

    // A target that is nobody when it has ended.
    static Target find(const void *number)
    {
        registry &all = the_registry();
        const std::lock_guard guard(all.lock);
        const auto entry = all.live.find(reinterpret_cast<uintptr_t>(number));
        return entry == all.live.end() ? Target() : entry->second;
    }

  private:
    static uintptr_t add(const Target &target)
    {
        registry &all = the_registry();
        const std::lock_guard guard(all.lock);
        all.live.emplace(all.last + 1, target);
        return ++all.last;
    }
    static void remove(uintptr_t number)
    {
        registry &all = the_registry();
        const std::lock_guard guard(all.lock);
        all.live.erase(number);
    }
    struct registry {
        std::mutex lock;
        std::unordered_map<uintptr_t, Target> live;
        uintptr_t last = 0;
    };
    // Never destroyed: callbacks may come while the process ends.
    static registry &the_registry()
    {
        static auto *all = new registry;
        return *all;
    }
};

}  // namespace ebridged
