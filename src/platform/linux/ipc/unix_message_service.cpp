#include "platform/linux/ipc/unix_message_service.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <unordered_map>

#include "base/unique_fd.h"
#include "platform/linux/ipc/peer_identity.h"
#include "plist/codec.h"

namespace tessary::linux_backend {

namespace {

// Connections accepted per wake-up of the listener: enough to drain a burst.
constexpr int kAcceptsPerTurn = 8;
// Replies held for a client that does not read them; beyond this they are
// dropped rather than held without bound. A connection is not read while a
// reply waits, so only replies sent from outside a request's handling could
// ever reach this.
constexpr std::size_t kMaxPendingReplies = 64;
// A connection's send buffer starts small (the kernel doubles the figure):
// replies a client has not read yet stay in the kernel on the daemon's
// account, and most replies are a few hundred bytes. A larger reply raises it
// for its connection, up to room for several times the request limit; the
// daemon is root and may go past the system's default.
constexpr int kInitialSendBuffer = 16 * 1024;
constexpr int kMaxSendBuffer = 4 * static_cast<int>(UnixMessageService::kMaxDatagram);
// Descriptors left for everything else the daemon opens: its bus
// connections, the stop-of-all workers' own, files, watches.
constexpr std::size_t kReservedDescriptors = 128;
// How long accepting pauses when the process or the system is out of
// descriptors or memory, and how often such a pause, or the connections of
// one user refused over the caps, may be logged.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);
constexpr auto kReportInterval = std::chrono::minutes(1);

// The connections held by each user and by all, and the lines that report
// refusals, at most one a user and minute.
class ConnectionLedger {
  public:
    ConnectionLedger(MainQueue& queue, SystemLog& log, std::size_t perUser, std::size_t total)
        : queue_(queue), log_(log), perUser_(perUser), total_(total) {}

    bool admit(std::uint32_t uid) {
        User& user = users_[uid];
        if (user.held < perUser_ && held_ < total_) {
            ++user.held;
            ++held_;
            return true;
        }
        ++user.refused;
        const MainQueue::Duration now = queue_.now();
        if (!user.reported || now - user.lastReport >= kReportInterval) {
            log_.warning(
                "WARNING: Refused %d connections from uid %d: a user may hold %d, all users %d",
                user.refused, uid, perUser_, total_);
            user.refused = 0;
            user.lastReport = now;
            user.reported = true;
        }
        forgetIdle(uid);
        return false;
    }

    void release(std::uint32_t uid) {
        auto it = users_.find(uid);
        if (it != users_.end() && it->second.held > 0) {
            --it->second.held;
            --held_;
            forgetIdle(uid);
        }
    }

  private:
    struct User {
        std::size_t held = 0;
        std::size_t refused = 0;  // since the last line
        MainQueue::Duration lastReport{};
        bool reported = false;
    };

    // A user who holds nothing and was not reported within the interval
    // needs no entry: the map stays as small as the connections held.
    void forgetIdle(std::uint32_t uid) {
        auto it = users_.find(uid);
        if (it != users_.end() && it->second.held == 0 &&
            (!it->second.reported || queue_.now() - it->second.lastReport >= kReportInterval)) {
            users_.erase(it);
        }
    }

    MainQueue& queue_;
    SystemLog& log_;
    std::size_t perUser_;
    std::size_t total_;
    std::size_t held_ = 0;
    std::unordered_map<std::uint32_t, User> users_;
};

// One connection's place in the ledger, given back when the connection ends.
class ConnectionSlot {
  public:
    ConnectionSlot(std::shared_ptr<ConnectionLedger> ledger, std::uint32_t uid)
        : ledger_(std::move(ledger)), uid_(uid) {}
    ~ConnectionSlot() { ledger_->release(uid_); }
    ConnectionSlot(const ConnectionSlot&) = delete;
    ConnectionSlot& operator=(const ConnectionSlot&) = delete;

  private:
    std::shared_ptr<ConnectionLedger> ledger_;
    std::uint32_t uid_;
};

// The cap on all connections: the fixed one, or fewer when the descriptor
// limit would be reached first.
std::size_t connectionCap() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return UnixMessageService::kMaxConnections;
    }
    const auto soft = static_cast<std::size_t>(limit.rlim_cur);
    const std::size_t room =
        soft > 2 * kReservedDescriptors ? soft - kReservedDescriptors : soft / 2;
    return std::min(UnixMessageService::kMaxConnections, room);
}

constexpr std::string_view kBinaryMagic = "bplist00";

std::string typeName(plist::Value::Type type) {
    switch (type) {
        case plist::Value::Type::Boolean:
            return "boolean";
        case plist::Value::Type::Integer:
            return "integer";
        case plist::Value::Type::Real:
            return "real";
        case plist::Value::Type::String:
            return "string";
        case plist::Value::Type::Data:
            return "data";
        case plist::Value::Type::Date:
            return "date";
        case plist::Value::Type::Array:
            return "array";
        case plist::Value::Type::Dictionary:
            return "dictionary";
    }
    return "value";
}

// The keyed message a datagram holds, or why it holds none.
Result<plist::Dictionary> keyedFields(const plist::Bytes& datagram) {
    const std::string_view text(reinterpret_cast<const char*>(datagram.data()), datagram.size());
    if (text.substr(0, kBinaryMagic.size()) != kBinaryMagic) {
        return Error{"TYMessageErrorDomain", 1,
                     "datagram of " + std::to_string(datagram.size()) +
                         " bytes is not a binary property list"};
    }
    // Strings that are not UTF-8 are kept: only the field that holds one is
    // wrong, and the request's reader decides what that means.
    auto value = plist::decode(std::span<const std::uint8_t>(datagram), plist::kRequestBudget,
                               plist::Strings::KeepInvalid);
    if (!value) {
        return Error{"TYMessageErrorDomain", 2,
                     "datagram is not a property list: " + value.error().description};
    }
    const plist::Dictionary* fields = value.value().dictionary();
    if (fields == nullptr) {
        return Error{"TYMessageErrorDomain", 3,
                     "datagram holds a " + typeName(value.value().type()) + ", not a dictionary"};
    }
    return *fields;
}

class UnixConnection final : public MessageConnection,
                             public std::enable_shared_from_this<UnixConnection> {
  public:
    UnixConnection(MainQueue& queue, UniqueFd fd, const PeerIdentity& peer,
                   std::unique_ptr<ConnectionSlot> slot)
        : queue_(queue),
          fd_(std::move(fd)),
          peer_(peer),
          token_(encodeAuditToken(auditTokenWords(peer))),
          slot_(std::move(slot)) {}

    void setEventHandler(std::function<void(const PeerEvent&)> handler) override {
        handler_ = std::move(handler);
    }

    void activate() override {
        if (!active_ && !closed_) {
            active_ = true;
            watchFor(wantedEvents());
        }
    }

    bool sendReply(const KeyedMessage& /*request*/, const plist::Dictionary& reply) override {
        if (closed_) {
            return false;
        }
        auto bytes = plist::encode(plist::Value(reply), plist::Format::Binary);
        if (!bytes) {
            return false;
        }
        if (!pending_.empty()) {
            if (pending_.size() >= kMaxPendingReplies) {
                return false;
            }
            pending_.push_back(std::move(bytes).value());
            return true;
        }
        switch (trySend(bytes.value())) {
            case SendResult::Sent:
                return true;
            case SendResult::Full:
                pending_.push_back(std::move(bytes).value());
                if (active_) {
                    watchFor(wantedEvents());
                }
                return true;
            case SendResult::Failed:
                return false;
        }
        return false;
    }

    void cancel() override { close(); }

    std::int32_t peerPid() const override { return peer_.pid; }
    std::uint32_t peerUid() const override { return peer_.uid; }

  private:
    enum class SendResult : std::uint8_t { Sent, Full, Failed };

    // A client that does not read its replies gets no more requests read
    // until it does: what it can make the daemon hold stays one reply.
    std::uint32_t wantedEvents() const { return pending_.empty() ? EPOLLIN : EPOLLOUT; }

    void watchFor(std::uint32_t events) {
        watch_.reset();  // one watch per descriptor: the old one goes first
        std::weak_ptr<UnixConnection> weak = weak_from_this();
        watch_ = queue_.watch(fd_.get(), events, [weak](std::uint32_t ready) {
            if (auto self = weak.lock()) {
                self->onReady(ready);
            }
        });
        if (!watch_) {
            deliver(errorEvent("cannot watch the connection"));
            close();
        }
    }

    SendResult trySend(const plist::Bytes& bytes) {
        bool raised = false;
        for (;;) {
            const ssize_t n =
                ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n >= 0) {
                return static_cast<std::size_t>(n) == bytes.size() ? SendResult::Sent
                                                                   : SendResult::Failed;
            }
            if (errno == EINTR) {
                continue;
            }
            if (errno == EMSGSIZE && !raised &&
                bytes.size() <= UnixMessageService::kMaxDatagram * 2) {
                // Room for this reply and a few more of its size.
                const int room = std::min(kMaxSendBuffer, 4 * static_cast<int>(bytes.size()));
                if (::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0) {
                    (void)::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
                }
                raised = true;
                continue;
            }
            return (errno == EAGAIN || errno == EWOULDBLOCK) ? SendResult::Full
                                                             : SendResult::Failed;
        }
    }

    void flushPending() {
        while (!pending_.empty()) {
            const SendResult r = trySend(pending_.front());
            if (r == SendResult::Full) {
                return;
            }
            // A reply the peer can no longer take is dropped, as a direct
            // send of it would have failed.
            pending_.pop_front();
        }
        watchFor(EPOLLIN);
    }

    // One datagram a turn: the queue then serves every other ready
    // connection before this one again, however fast its client sends.
    void onReady(std::uint32_t /*events*/) {
        auto keep = shared_from_this();  // handlers may drop the last reference
        if (!pending_.empty()) {
            flushPending();  // also where a hang-up is seen while replies wait
        }
        if (!closed_ && pending_.empty()) {
            readOne();
        }
    }

    bool peerHungUp() const {
        pollfd p{fd_.get(), POLLRDHUP, 0};
        return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP)) != 0;
    }

    void readOne() {
        // The length of the next datagram, without taking it.
        ssize_t length = -1;
        do {
            length = ::recv(fd_.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        } while (length < 0 && errno == EINTR);
        if (length < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return;
            }
            if (errno != ECONNRESET && errno != ENOTCONN && errno != EPIPE) {
                deliver(errorEvent(Error::posix(errno, "receive").description));
            }
            close();
            return;
        }
        // End of stream and an empty datagram both read as 0 bytes; only a
        // peer that has gone also reports the hang-up.
        if (length == 0 && peerHungUp()) {
            close();
            return;
        }

        const auto size = static_cast<std::size_t>(length);
        const bool oversize = size > UnixMessageService::kMaxDatagram;
        plist::Bytes datagram(oversize ? 0 : size);
        ssize_t got = -1;
        do {
            // An oversize datagram is taken with an empty buffer: the kernel
            // drops what does not fit.
            got = ::recv(fd_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
        } while (got < 0 && errno == EINTR);
        if (got < 0 || static_cast<std::size_t>(got) != datagram.size()) {
            deliver(errorEvent("datagram changed while it was read"));
            close();
            return;
        }

        if (oversize) {
            deliver(messageEvent({}));
            return;
        }
        auto fields = keyedFields(datagram);
        if (!fields) {
            deliver(errorEvent(fields.error().description));
            return;
        }
        bindForm(fields.value());
        deliver(messageEvent(std::move(fields).value()));
    }

    // A form is honoured only from the process it names.
    void bindForm(plist::Dictionary& fields) const {
        auto it = fields.find(UnixMessageService::kFormKey);
        if (it == fields.end()) {
            return;
        }
        const plist::Bytes* form = it->second.data();
        if (form != nullptr && form->size() == AuthorizationExternalForm{}.size() &&
            !formNamesPeer(*form, peer_)) {
            // The request goes on as sent, with a form no authorization can
            // be imported from: its sender is told no, as for any bad form.
            it->second = plist::Value::data(plist::Bytes(AuthorizationExternalForm{}.size(), 0));
        }
    }

    PeerEvent messageEvent(plist::Dictionary fields) const {
        PeerEvent event;
        event.kind = PeerEvent::Kind::Message;
        event.message = KeyedMessage{std::move(fields), token_};
        return event;
    }

    static PeerEvent errorEvent(std::string description) {
        PeerEvent event;
        event.kind = PeerEvent::Kind::Error;
        event.description = std::move(description);
        return event;
    }

    void deliver(const PeerEvent& event) {
        if (handler_) {
            auto handler = handler_;  // the handler may replace itself
            handler(event);
        }
    }

    // Ends the connection; its last event, ConnectionInvalid, follows on the
    // queue.
    void close() {
        if (closed_) {
            return;
        }
        closed_ = true;
        watch_.reset();
        fd_.reset();
        slot_.reset();
        pending_.clear();
        queue_.post([self = shared_from_this()] {
            PeerEvent event;
            event.kind = PeerEvent::Kind::ConnectionInvalid;
            self->deliver(event);
        });
    }

    MainQueue& queue_;
    UniqueFd fd_;
    PeerIdentity peer_;
    AuditToken token_;
    std::function<void(const PeerEvent&)> handler_;
    QueueSourcePtr watch_;
    std::deque<plist::Bytes> pending_;
    std::unique_ptr<ConnectionSlot> slot_;
    bool active_ = false;
    bool closed_ = false;
};

class UnixListener final : public MessageListener {
  public:
    UnixListener(MainQueue& queue, SystemLog& log, UniqueFd fd)
        : queue_(queue),
          log_(log),
          fd_(std::move(fd)),
          ledger_(std::make_shared<ConnectionLedger>(
              queue, log, UnixMessageService::kMaxConnectionsPerUser, connectionCap())) {}
    ~UnixListener() override { *alive_ = false; }
    UnixListener(const UnixListener&) = delete;
    UnixListener& operator=(const UnixListener&) = delete;

    void setEventHandler(std::function<void(const ListenerEvent&)> handler) override {
        handler_ = std::move(handler);
    }

    void activate() override {
        if (watch_ || resume_) {
            return;
        }
        watch_ =
            queue_.watch(fd_.get(), EPOLLIN, [this](std::uint32_t events) { acceptSome(events); });
        if (!watch_) {
            queue_.post([this, alive = alive_] {
                if (*alive) {
                    deliverError("cannot watch the listening socket");
                }
            });
        }
    }

  private:
    static bool outOfResources(int err) {
        return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
    }

    // The process or the system is out of something: the waiting
    // connection stays in the backlog, and a watch would wake the loop for
    // it without end. Accepting starts again a moment later.
    void pause(int err) {
        const MainQueue::Duration now = queue_.now();
        if (!pauseReported_ || now - lastPauseReport_ >= kReportInterval) {
            log_.warning("WARNING: Not accepting connections for a moment: %@",
                         Error::posix(err, "accept"));
            pauseReported_ = true;
            lastPauseReport_ = now;
        }
        watch_.reset();
        resume_ = queue_.after(kAcceptPause, [this] {
            UnixListener* self = this;  // the closure goes with the timer
            self->resume_.reset();
            self->activate();
        });
    }

    void acceptSome(std::uint32_t events) {
        auto alive = alive_;  // a handler may destroy the listener
        for (int i = 0; i < kAcceptsPerTurn; ++i) {
            UniqueFd fd(::accept4(fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            if (!fd) {
                const int err = errno;
                const bool nothingWaiting = err == EAGAIN || err == EWOULDBLOCK;
                if (nothingWaiting && (events & (EPOLLHUP | EPOLLERR)) == 0) {
                    return;
                }
                if (err == EINTR || err == ECONNABORTED || err == EPROTO || err == EPERM) {
                    continue;  // that connection is gone; others may wait
                }
                if (outOfResources(err)) {
                    pause(err);
                    return;
                }
                // A socket that was shut down reports itself ready and has
                // nothing to accept, for ever. Either way watching stops: a
                // lasting failure would wake the loop without end.
                const std::string description = nothingWaiting
                                                    ? "accept: the listening socket was shut down"
                                                    : Error::posix(err, "accept").description;
                watch_.reset();
                deliverError(description);
                return;
            }
            auto peer = identifySocketPeer(fd.get());
            if (!peer) {
                continue;  // a connection no process stands behind is dropped
            }
            if (!ledger_->admit(peer.value().uid)) {
                continue;  // closed at once; the ledger reports it
            }
            auto slot = std::make_unique<ConnectionSlot>(ledger_, peer.value().uid);
            (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &kInitialSendBuffer,
                               sizeof kInitialSendBuffer);
            ListenerEvent event;
            event.kind = ListenerEvent::Kind::NewConnection;
            event.connection = std::make_shared<UnixConnection>(queue_, std::move(fd), peer.value(),
                                                                std::move(slot));
            deliver(event);
            if (!*alive) {
                return;
            }
        }
    }

    void deliverError(std::string description) {
        ListenerEvent event;
        event.kind = ListenerEvent::Kind::Error;
        event.description = std::move(description);
        deliver(event);
    }

    void deliver(const ListenerEvent& event) {
        if (handler_) {
            auto handler = handler_;
            handler(event);
        }
    }

    MainQueue& queue_;
    SystemLog& log_;
    UniqueFd fd_;
    std::shared_ptr<ConnectionLedger> ledger_;
    std::function<void(const ListenerEvent&)> handler_;
    QueueSourcePtr watch_;
    QueueSourcePtr resume_;
    MainQueue::Duration lastPauseReport_{};
    bool pauseReported_ = false;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace

UnixMessageService::UnixMessageService(MainQueue& queue, SystemLog& log, std::string socketPath)
    : queue_(queue), log_(log), path_(std::move(socketPath)) {}

std::unique_ptr<MessageListener> UnixMessageService::createListener(std::string_view /*name*/) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.empty() || path_.size() >= sizeof address.sun_path) {
        log_.error("ERROR: Unable to listen at '%@': the path does not fit a socket address",
                   path_);
        return nullptr;
    }
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);

    // Whatever step fails, the reason is the call's errno.
    auto failed = [&](const char* step) -> std::unique_ptr<MessageListener> {
        log_.error("ERROR: Unable to listen at '%@': %@", path_, Error::posix(errno, step));
        return nullptr;
    };
    // The service manager makes the socket's directory for the daemon's
    // unit; run any other way, the daemon makes it itself.
    const std::size_t slash = path_.find_last_of('/');
    const std::string directory =
        slash == std::string::npos ? std::string() : path_.substr(0, slash);
    struct stat st {};
    if (!directory.empty() && ::stat(directory.c_str(), &st) != 0 &&
        ::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
        return failed("mkdir");
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        return failed("socket");
    }
    if (::lstat(path_.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            log_.error("ERROR: Unable to listen at '%@': a file that is not a socket is there",
                       path_);
            return nullptr;
        }
        if (::unlink(path_.c_str()) != 0) {
            return failed("unlink");
        }
    }
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return failed("bind");
    }
    const char* step = ::chmod(path_.c_str(), 0666) != 0    ? "chmod"
                       : ::listen(fd.get(), SOMAXCONN) != 0 ? "listen"
                                                            : nullptr;
    if (step != nullptr) {
        const int err = errno;
        (void)::unlink(path_.c_str());
        errno = err;
        return failed(step);
    }
    return std::make_unique<UnixListener>(queue_, log_, std::move(fd));
}

}  // namespace tessary::linux_backend
