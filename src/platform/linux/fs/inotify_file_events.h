#pragma once

#include "platform/file_events.h"
#include "platform/main_queue.h"

namespace tessary::linux_backend {

// Deletion and renaming of a directory (or file) itself, from inotify, on the
// main queue.
//
// Each watch has its own inotify descriptor with two watches: the path itself
// (IN_DELETE_SELF becomes the delete event, IN_MOVE_SELF the rename event),
// and its parent directory, for the path's own entry (IN_DELETE of the name is
// a delete event, IN_MOVED_FROM of the name a rename event). The parent's
// events are needed: the kernel reports IN_DELETE_SELF of a directory only
// once nothing refers to it any more, and a process running a program from
// inside a removed bundle keeps the bundle's directory referenced until it
// ends. Until `resume` the kernel keeps the events in the descriptor's queue;
// they are delivered then, not lost.
//
// What a watch follows is the directory it was made on, not the path:
// - After a move, the watch stays on the moved directory wherever it went, so
//   a later delete or rename event may be about a directory that is no longer
//   at the path at all. Whoever receives the events must look at the path.
// - After a deletion (or the unmount of its file system) the kernel drops the
//   watch of the path. Nothing is re-armed: a new directory put at the path
//   later gives no events of its own through this source (the parent's watch
//   still reports the entry being deleted or moved away again).
// The app watcher needs no more than that: the first event sets its change
// flag once and for all, and its decision looks at what stands at the path.
class InotifyFileEvents final : public FileEvents {
  public:
    explicit InotifyFileEvents(MainQueue& queue) : queue_(queue) {}

    // Null when inotify cannot be set up or the path cannot be watched (it
    // does not exist, or it is not readable).
    std::unique_ptr<FileEventSource> watch(const std::string& path, std::uint32_t mask,
                                           std::function<void(std::uint32_t)> event) override;

  private:
    MainQueue& queue_;
};

}  // namespace tessary::linux_backend
