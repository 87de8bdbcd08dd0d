#pragma once

#include <optional>
#include <string>

namespace tessary {

struct UserNotice {
    enum class Level : unsigned char { Stop, Note, Caution, Plain };
    double timeout = 0;  // 0: stays until dismissed
    Level level = Level::Note;
    std::string iconPath;
    std::optional<std::string> soundPath;
    std::string localizationPath;
    std::string header;
    std::string message;
    std::optional<std::string> buttonTitle;  // none: the default single button
};

// A one-button notice to the console user, shown without waiting for it to be
// dismissed. 0 when shown, another code otherwise.
class UserNoticeService {
  public:
    virtual ~UserNoticeService() = default;
    virtual int displayNotice(const UserNotice& notice) = 0;
};

}  // namespace tessary
