#pragma once

#include <any>
#include <type_traits>
#include <utility>

namespace Vantel::Orbel {

/// Holds one value of any copyable type, or none. Copies hold a copy of the value.
///
/// Threads: a plain value.
class Any {
public:
    Any() = default;
    /// Takes a value over, or copies it: its type is that of `value` without reference and const.
    template <class T, class = std::enable_if_t<!std::is_same_v<std::decay_t<T>, Any>>>
    Any(T&& value) : mValue(std::forward<T>(value)) {}  // NOLINT: meant to convert

    ///@{
    /// Whether there is no value, and the end of the one there is.
    bool empty() const { return !mValue.has_value(); }
    void clear() { mValue.reset(); }
    ///@}

    ///@{
    /// The value, null if there is none or it is of another type than exactly `T`.
    template <class T>
    T* get() {
        return std::any_cast<T>(&mValue);
    }
    template <class T>
    const T* get() const {
        return std::any_cast<T>(&mValue);
    }
    ///@}

private:
    std::any mValue;
};

}  // namespace Vantel::Orbel
