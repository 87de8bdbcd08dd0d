#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tessary {

// Events on a directory itself (not its children).
enum FileEventMask : std::uint32_t {
    kFileEventDelete = 0x1,
    kFileEventRename = 0x20,
};

class FileEventSource {
  public:
    virtual ~FileEventSource() = default;
    // Events are held until the source is resumed.
    virtual void resume() = 0;
};

// Watches a path for deletion and renaming, delivering on the main queue.
class FileEvents {
  public:
    virtual ~FileEvents() = default;
    // Null when the path cannot be opened for watching.
    virtual std::unique_ptr<FileEventSource> watch(const std::string& path, std::uint32_t mask,
                                                   std::function<void(std::uint32_t)> event) = 0;
};

// Another process writing a presented item under coordination. Linux has no
// such service; the calls are made by hand (a test, an installer).
class FilePresenter {
  public:
    virtual ~FilePresenter() = default;
    // The writer runs at once; it calls the reacquirer when it is done.
    virtual void relinquishPresentedItemToWriter(
        const std::function<void(std::function<void()> reacquirer)>& writer) = 0;
};

class FileCoordination {
  public:
    virtual ~FileCoordination() = default;
    virtual void addFilePresenter(FilePresenter& presenter, const std::string& path) = 0;
};

}  // namespace tessary
