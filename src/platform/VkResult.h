#pragma once

#include <string>
#include <utility>
#include <variant>

// A value or the reason why there is none. Used inside our own helpers where a caller
// (usually the command line) must be able to say what went wrong.
struct VkError {
    std::string message;
};

template <class T>
class VkResult {
  public:
    VkResult(T value) : state_(std::move(value)) {}
    VkResult(VkError error) : state_(std::move(error)) {}

    bool ok() const { return std::holds_alternative<T>(state_); }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<T>(state_); }
    const T& value() const& { return std::get<T>(state_); }
    T&& value() && { return std::get<T>(std::move(state_)); }
    T* operator->() { return &std::get<T>(state_); }
    const T* operator->() const { return &std::get<T>(state_); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

    const std::string& error() const { return std::get<VkError>(state_).message; }

  private:
    std::variant<T, VkError> state_;
};

template <>
class VkResult<void> {
  public:
    VkResult() = default;
    VkResult(VkError error) : error_(std::move(error.message)), failed_(true) {}

    static VkResult success() { return VkResult(); }
    bool ok() const { return !failed_; }
    explicit operator bool() const { return ok(); }
    const std::string& error() const { return error_; }

  private:
    std::string error_;
    bool failed_ = false;
};
