// Failures as values: nothing throws across the public interface.
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace selvio {

/// Why an operation of a port failed, in words for the log.
struct Error {
    std::string localizedDescription;
};

/// A value, or the reason why there is none.
template <typename T>
class [[nodiscard]] Expected {
public:
    Expected(T value) : value_(std::move(value)) {}
    Expected(Error error) : error_(std::move(error)) {}

    explicit operator bool() const { return value_.has_value(); }
    [[nodiscard]] T& value() { return *value_; }
    [[nodiscard]] const T& value() const { return *value_; }
    /// Only meaningful when there is no value.
    [[nodiscard]] const Error& error() const { return error_; }

private:
    std::optional<T> value_;
    Error error_;
};

}  // namespace selvio
