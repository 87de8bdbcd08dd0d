#include "platform/linux/unix_message_service.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <deque>

#include "base/unique_fd.h"
#include "platform/linux/peer_identity.h"
#include "plist/codec.h"

namespace tessary::linux_backend {

namespace {

// Datagrams read, or connections accepted, per wake-up: enough to drain a
// burst, few enough that one busy client cannot hold the queue.
constexpr int kBatch = 8;
// Replies held for a client that does not read them; beyond this they are
// dropped rather than held without bound.
constexpr std::size_t kMaxPendingReplies = 64;
// Room in the kernel for replies up to several times the request limit. The
// daemon is root and may go past the system's default; a lower buffer only
// means larger replies wait in the connection's own queue.
constexpr int kSendBuffer = 4 * static_cast<int>(UnixMessageService::kMaxDatagram);

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
    auto value = plist::decode(std::span<const std::uint8_t>(datagram));
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
    UnixConnection(MainQueue& queue, UniqueFd fd, const PeerIdentity& peer)
        : queue_(queue),
          fd_(std::move(fd)),
          peer_(peer),
          token_(encodeAuditToken(auditTokenWords(peer))) {}

    void setEventHandler(std::function<void(const PeerEvent&)> handler) override {
        handler_ = std::move(handler);
    }

    void activate() override {
        if (!active_ && !closed_) {
            active_ = true;
            watchFor(pending_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
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
                    watchFor(EPOLLIN | EPOLLOUT);
                }
                return true;
            case SendResult::Failed:
                return false;
        }
        return false;
    }

    void cancel() override { close(); }

    std::int32_t peerPid() const override { return peer_.pid; }

  private:
    enum class SendResult : std::uint8_t { Sent, Full, Failed };
    enum class ReadResult : std::uint8_t { Delivered, Drained, Closed };

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

    void onReady(std::uint32_t events) {
        auto keep = shared_from_this();  // handlers may drop the last reference
        if ((events & EPOLLOUT) != 0 && !closed_) {
            flushPending();
        }
        for (int i = 0; i < kBatch && !closed_; ++i) {
            if (readOne() != ReadResult::Delivered) {
                break;
            }
        }
    }

    bool peerHungUp() const {
        pollfd p{fd_.get(), POLLRDHUP, 0};
        return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP)) != 0;
    }

    ReadResult readOne() {
        // The length of the next datagram, without taking it.
        ssize_t length = -1;
        do {
            length = ::recv(fd_.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        } while (length < 0 && errno == EINTR);
        if (length < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return ReadResult::Drained;
            }
            if (errno != ECONNRESET && errno != ENOTCONN && errno != EPIPE) {
                deliver(errorEvent(Error::posix(errno, "receive").description));
            }
            close();
            return ReadResult::Closed;
        }
        // End of stream and an empty datagram both read as 0 bytes; only a
        // peer that has gone also reports the hang-up.
        if (length == 0 && peerHungUp()) {
            close();
            return ReadResult::Closed;
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
            return ReadResult::Closed;
        }

        if (oversize) {
            deliver(messageEvent({}));
            return ReadResult::Delivered;
        }
        auto fields = keyedFields(datagram);
        if (!fields) {
            deliver(errorEvent(fields.error().description));
            return ReadResult::Delivered;
        }
        bindForm(fields.value());
        deliver(messageEvent(std::move(fields).value()));
        return ReadResult::Delivered;
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
            it->second = plist::Value::data({});
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
    bool active_ = false;
    bool closed_ = false;
};

class UnixListener final : public MessageListener {
  public:
    UnixListener(MainQueue& queue, UniqueFd fd) : queue_(queue), fd_(std::move(fd)) {}
    ~UnixListener() override { *alive_ = false; }
    UnixListener(const UnixListener&) = delete;
    UnixListener& operator=(const UnixListener&) = delete;

    void setEventHandler(std::function<void(const ListenerEvent&)> handler) override {
        handler_ = std::move(handler);
    }

    void activate() override {
        if (watch_) {
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
    void acceptSome(std::uint32_t events) {
        auto alive = alive_;  // a handler may destroy the listener
        for (int i = 0; i < kBatch; ++i) {
            UniqueFd fd(::accept4(fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            if (!fd) {
                const bool nothingWaiting = errno == EAGAIN || errno == EWOULDBLOCK;
                if (nothingWaiting && (events & (EPOLLHUP | EPOLLERR)) == 0) {
                    return;
                }
                if (errno == EINTR || errno == ECONNABORTED) {
                    continue;
                }
                // A socket that was shut down reports itself ready and has
                // nothing to accept, for ever. Either way watching stops: a
                // lasting failure would wake the loop without end.
                const std::string description = nothingWaiting
                                                    ? "accept: the listening socket was shut down"
                                                    : Error::posix(errno, "accept").description;
                watch_.reset();
                deliverError(description);
                return;
            }
            auto peer = identifySocketPeer(fd.get());
            if (!peer) {
                continue;  // a connection no process stands behind is dropped
            }
            if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &kSendBuffer,
                             sizeof kSendBuffer) != 0) {
                (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer,
                                   sizeof kSendBuffer);
            }
            ListenerEvent event;
            event.kind = ListenerEvent::Kind::NewConnection;
            event.connection =
                std::make_shared<UnixConnection>(queue_, std::move(fd), peer.value());
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
    UniqueFd fd_;
    std::function<void(const ListenerEvent&)> handler_;
    QueueSourcePtr watch_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace

UnixMessageService::UnixMessageService(MainQueue& queue, std::string socketPath)
    : queue_(queue), path_(std::move(socketPath)) {}

std::unique_ptr<MessageListener> UnixMessageService::createListener(std::string_view /*name*/) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.empty() || path_.size() >= sizeof address.sun_path) {
        return nullptr;
    }
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);

    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        return nullptr;
    }
    struct stat st {};
    if (::lstat(path_.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode) || ::unlink(path_.c_str()) != 0) {
            return nullptr;
        }
    }
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return nullptr;
    }
    if (::chmod(path_.c_str(), 0666) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) {
        (void)::unlink(path_.c_str());
        return nullptr;
    }
    return std::make_unique<UnixListener>(queue_, std::move(fd));
}

}  // namespace tessary::linux_backend
