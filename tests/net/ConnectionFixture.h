#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/StreamTransport.h"
#include "Vantel/Orbel/UnixStreamSocket.h"

/// A loop in the test's own thread, connections in it, and the other end of the last one. What the
/// callbacks saw stands in `events`, in order.
class ConnectionFixture : public testing::Test {
protected:
    using StreamConnectionPtr = Vantel::Orbel::StreamConnectionPtr;
    using StreamConnection = Vantel::Orbel::StreamConnection;

    ~ConnectionFixture() override {
        for (const StreamConnectionPtr& connection : kept) {
            connection->connectDestroyed();
        }
    }

    /// A socket pair; `far` is the other end of the one returned.
    std::unique_ptr<Vantel::Orbel::UnixStreamSocket> makeNear() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
        far = Vantel::Orbel::UnixStreamSocket(fds[1]);
        mFarBytes.clear();
        farEnded = false;
        return std::make_unique<Vantel::Orbel::UnixStreamSocket>(fds[0]);
    }

    /// Sets callbacks that note what happens, and sees to an orderly end.
    StreamConnectionPtr keep(const StreamConnectionPtr& connection) {
        closes = 0;
        connection->setConnectionCallback([this](const auto&) { events += "connected "; });
        connection->setMessageCallback(
            [this](const auto&, Vantel::Orbel::NetBuffer* buffer) { onMessage(buffer); });
        connection->setErrorCallback(
            [this](const auto&, int error) { events += "error:" + std::to_string(error) + " "; });
        connection->setCloseCallback([this](const auto&) {
            events += "close ";
            ++closes;
        });
        kept.push_back(connection);
        return connection;
    }

    StreamConnectionPtr make() {
        return keep(std::make_shared<StreamConnection>(
            &loop, "test", std::unique_ptr<Vantel::Orbel::StreamSocket>(makeNear())));
    }

    StreamConnectionPtr establish() {
        StreamConnectionPtr connection = make();
        connection->connectEstablished();
        return connection;
    }

    /// Runs the loop until the condition holds; the last answer. Polled each millisecond.
    template <class Condition>
    bool runUntil(Condition&& condition, int deadlineMs = 30000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
        bool held = false;
        const unsigned long timer = loop.addTimer(
            [&] {
                held = condition();
                if (held || std::chrono::steady_clock::now() >= end) {
                    loop.quit();
                }
            },
            1, true);
        loop.loop();
        loop.cancelTimer(timer);
        return held;
    }

    /// All that has come at the far end so far; sets `farEnded` at its end of file.
    const std::string& receiveFar() {
        char buffer[65536];
        ssize_t count = 0;
        while ((count = far.recv(buffer, sizeof buffer, 0)) > 0) {
            mFarBytes.append(buffer, static_cast<size_t>(count));
        }
        farEnded = farEnded || count == 0;
        return mFarBytes;
    }

    /// Bytes in which a lost, doubled or moved piece shows.
    static std::string pattern(size_t size) {
        std::string text(size, '\0');
        for (size_t i = 0; i < size; ++i) {
            text[i] = static_cast<char>((i * 2654435761u) >> 13);
        }
        return text;
    }

    Vantel::Orbel::EventLoop loop;
    Vantel::Orbel::UnixStreamSocket far{-1};
    std::vector<StreamConnectionPtr> kept;
    std::string events;
    bool consume = true;
    bool farEnded = false;
    int closes = 0;
    size_t consumed = 0;

private:
    void onMessage(Vantel::Orbel::NetBuffer* buffer) {
        events += "message:" + std::to_string(buffer->size()) + " ";
        if (consume) {
            consumed += buffer->size();
            buffer->clear();
        }
    }

    std::string mFarBytes;
};
