#pragma once

#include <memory>
#include <vector>

#include "platform/message_service.h"

namespace tessary::testing {

// A connection a test drives: it pushes events in and reads the replies.
class FakeConnection final : public MessageConnection {
  public:
    explicit FakeConnection(std::int32_t pid, std::uint32_t uid = 501) : pid_(pid), uid_(uid) {}
    void setEventHandler(std::function<void(const PeerEvent&)> handler) override {
        handler_ = std::move(handler);
    }
    void activate() override {}
    bool sendReply(const KeyedMessage& /*request*/, const plist::Dictionary& reply) override {
        replies.push_back(reply);
        return true;
    }
    void cancel() override { cancelled = true; }
    std::int32_t peerPid() const override { return pid_; }
    std::uint32_t peerUid() const override { return uid_; }

    void deliver(const PeerEvent& event) {
        if (handler_) {
            handler_(event);
        }
    }

    bool cancelled = false;
    std::vector<plist::Dictionary> replies;

  private:
    std::int32_t pid_;
    std::uint32_t uid_;
    std::function<void(const PeerEvent&)> handler_;
};

class FakeListener final : public MessageListener {
  public:
    void setEventHandler(std::function<void(const ListenerEvent&)> handler) override {
        handler_ = std::move(handler);
    }
    void activate() override { active = true; }
    void deliver(const ListenerEvent& event) {
        if (handler_) {
            handler_(event);
        }
    }
    bool active = false;

  private:
    std::function<void(const ListenerEvent&)> handler_;
};

class FakeMessageService final : public MessageService {
  public:
    std::unique_ptr<MessageListener> createListener(std::string_view /*name*/) override {
        auto l = std::make_unique<FakeListener>();
        listener = l.get();
        return l;
    }
    FakeListener* listener = nullptr;
};

}  // namespace tessary::testing
