#pragma once

#include <any>
#include <type_traits>
#include <utility>

namespace Vantel::Orbel {

/// Holds one value of any copyable type, or none.
class Any {
public:
    Any() = default;
    template <class T, class = std::enable_if_t<!std::is_same_v<std::decay_t<T>, Any>>>
    Any(T&& value) : mValue(std::forward<T>(value)) {}  // NOLINT: meant to convert

    bool empty() const { return !mValue.has_value(); }
    void clear() { mValue.reset(); }

    /// The value, null if it is of another type.
    template <class T>
    T* get() {
        return std::any_cast<T>(&mValue);
    }
    template <class T>
    const T* get() const {
        return std::any_cast<T>(&mValue);
    }

private:
    std::any mValue;
};

}  // namespace Vantel::Orbel
