#pragma once

#include <exception>
#include <string>

namespace tessary {

// The one exception a command handler may raise; dispatch catches it, logs
// it and fails the request. Anything else ends the process, and the service
// manager starts the daemon again.
class PlatformException : public std::exception {
  public:
    PlatformException(std::string name, std::string reason)
        : name_(std::move(name)), reason_(std::move(reason)), what_(name_ + ": " + reason_) {}
    const char* what() const noexcept override { return what_.c_str(); }
    const std::string& description() const { return what_; }

  private:
    std::string name_;
    std::string reason_;
    std::string what_;
};

}  // namespace tessary
