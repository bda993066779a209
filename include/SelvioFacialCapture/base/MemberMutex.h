// The mutex of an object that hands out its members as values.
#pragma once

#include <mutex>
#include <type_traits>
#include <utility>

namespace selvio {

/// Guards members of the object that contains it, which names them. What reads or writes more than one member
/// at once locks it like any other mutex.
class MemberMutex : public std::mutex {
public:
    /// A copy of a member that this mutex guards.
    template <typename T>
    [[nodiscard]] T get(const T& member) {
        const std::lock_guard lock(*this);
        return member;
    }

    /// Replaces a member that this mutex guards.
    template <typename T>
    void set(T& member, std::type_identity_t<T> value) {
        using std::swap;  // for types without one of their own
        const std::lock_guard lock(*this);
        swap(member, value);
    }  // the lock is released before the argument, so that the end of what was replaced may take the lock again
};

}  // namespace selvio
