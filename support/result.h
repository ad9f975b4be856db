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
#include <variant>

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

template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : storage_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : storage_(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return storage_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(storage_); }
    const T& value() const& { return std::get<0>(storage_); }
    T&& value() && { return std::get<0>(std::move(storage_)); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T&& operator*() && { return std::move(*this).value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    const Error& error() const { return std::get<1>(storage_); }

private:
    std::variant<T, Error> storage_;
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
