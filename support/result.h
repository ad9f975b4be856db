// The one error model of the code base.
//
// Every operation that can fail returns Result<T>: either a value or an Error
// carrying a domain, a numeric code and a human-readable message. Errors from
// the system keep their own domain and errno so they can cross the daemon's
// wire unchanged; each component names its own domain for errors it raises.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <optional>

namespace netvane {

struct Error {
    std::string domain;
    std::int64_t code = 0;
    std::string message;

    bool operator==(const Error&) const = default;
};

// Domains shared across components. These strings cross the daemon's wire, so
// clients on every platform see the same names.
inline constexpr const char* kPosixErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* kCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::int64_t kCocoaFileWriteUnknownError = 512;

// An error from errno, with the system's text.
Error posixError(int errnoValue);
// `posixError` prefixed with what was being done ("open /x: No such file...").
Error posixError(int errnoValue, const std::string& context);

// The value and the error sit side by side rather than in a std::variant:
// libstdc++ builds a variant's alternative inside raw bytes, where the static
// analyzer loses sight of it and takes every error read back as garbage.
// Asking a Result for what it does not hold throws, as std::get would.
template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : value_(std::move(value)) {}
    Result(Error error) : error_(std::move(error)) {}

    bool ok() const { return value_.has_value(); }
    explicit operator bool() const { return ok(); }

    T& value() & { return value_.value(); }
    const T& value() const& { return value_.value(); }
    T&& value() && { return std::move(value_).value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T&& operator*() && { return std::move(*this).value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    const Error& error() const { return error_.value(); }

private:
    std::optional<T> value_;
    std::optional<Error> error_;
};

// Result of an operation that yields nothing but may fail.
template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : error_(std::move(error)), failed_(true) {}

    bool ok() const { return !failed_; }
    explicit operator bool() const { return ok(); }
    const Error& error() const { return error_; }

private:
    Error error_;
    bool failed_ = false;
};

using Status = Result<void>;

}  // namespace netvane
