#pragma once

#include <string>
#include <utility>
#include <variant>

namespace tessary {

// An error as the lower layers report it: where it came from, a code in that
// domain, and a sentence for the system log. The daemon never throws these;
// they travel back in a Result and the caller decides what to log.
struct Error {
    std::string domain;
    long code = 0;
    std::string description;

    static Error posix(int err, std::string what);
    // Whether this is the POSIX error `err`.
    bool isPosix(int err) const;
};

// Either a value or an Error. Deliberately small: the project is C++20, so no
// std::expected.
template <class T>
class [[nodiscard]] Result {
  public:
    Result(T value) : v_(std::move(value)) {}      // NOLINT(google-explicit-constructor)
    Result(Error error) : v_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

    bool ok() const { return v_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(v_); }
    const T& value() const& { return std::get<0>(v_); }
    T&& value() && { return std::get<0>(std::move(v_)); }
    const Error& error() const { return std::get<1>(v_); }

  private:
    std::variant<T, Error> v_;
};

// A Result that carries no value: success, or an Error.
class [[nodiscard]] Status {
  public:
    Status() = default;
    Status(Error error)
        : error_(std::move(error)), ok_(false) {}  // NOLINT(google-explicit-constructor)

    static Status success() { return {}; }
    bool ok() const { return ok_; }
    explicit operator bool() const { return ok_; }
    const Error& error() const { return error_; }

  private:
    Error error_;
    bool ok_ = true;
};

}  // namespace tessary
