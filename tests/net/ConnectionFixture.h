#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Vantel/Orbel/NetBuffer.h"
#include "Vantel/Orbel/StreamConnection.h"
#include "Vantel/Orbel/StreamTransport.h"
#include "tests/net/LoopSupport.h"
#include "tests/net/SocketPair.h"

namespace OrbelTest {

using Vantel::Orbel::NetBuffer;
using Vantel::Orbel::StreamConnection;
using Vantel::Orbel::StreamConnectionPtr;
using Vantel::Orbel::StreamSocket;
using Vantel::Orbel::UnixStreamSocket;

/// A loop in the test's own thread, connections in it, and the other end of the last one. What the
/// callbacks saw stands in `events`, in order.
class ConnectionFixture : public testing::Test {
protected:
    ~ConnectionFixture() override {
        for (const StreamConnectionPtr& connection : kept) {
            connection->connectDestroyed();
        }
    }

    /// A socket pair; `far` is the other end of the one returned.
    std::unique_ptr<StreamSocket> makeNear() {
        SocketPair pair;
        far = std::move(pair.far);
        mFarBytes.clear();
        return pair.takeNear();
    }

    /// Sets callbacks that note what happens, and sees to an orderly end.
    StreamConnectionPtr keep(const StreamConnectionPtr& connection) {
        events.clear();
        closes = 0;
        connection->setConnectionCallback([this](const auto&) { events += "connected "; });
        connection->setMessageCallback(
            [this](const auto&, NetBuffer* buffer) { onMessage(buffer); });
        connection->setWriteCompleteCallback([this](const auto&) { ++completes; });
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
        return keep(std::make_shared<StreamConnection>(&loop, "test", makeNear()));
    }
    StreamConnectionPtr establish() {
        StreamConnectionPtr connection = make();
        connection->connectEstablished();
        return connection;
    }

    template <class Condition>
    bool runUntil(Condition&& condition, int deadlineMs = 30000) {
        return OrbelTest::runUntil(loop, condition, deadlineMs);
    }
    bool runUntilClosed() {
        return runUntil([this] { return closes > 0; });
    }
    /// Runs the loop until the far end meets the end of file.
    bool runUntilFarEnds() {
        return runUntil([this] { return receiveFar(), mFarEnded; });
    }

    /// All that has come at the far end so far.
    const std::string& receiveFar() {
        char buffer[65536];
        ssize_t count = 0;
        while ((count = far.recv(buffer, sizeof buffer, 0)) > 0) {
            mFarBytes.append(buffer, static_cast<size_t>(count));
        }
        mFarEnded = count == 0;
        return mFarBytes;
    }
    void sendFar(const std::string& text) {
        ASSERT_EQ(far.send(text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }

    /// Bytes in which a lost, doubled or moved piece shows.
    static std::string pattern(size_t size) {
        std::string text(size, '\0');
        for (size_t i = 0; i < size; ++i) {
            text[i] = static_cast<char>((i * 2654435761u) >> 13);
        }
        return text;
    }

    EventLoop loop;
    UnixStreamSocket far{-1};
    std::vector<StreamConnectionPtr> kept;
    std::string events;
    bool consume = true;
    int closes = 0;
    int completes = 0;
    size_t consumed = 0;

private:
    void onMessage(NetBuffer* buffer) {
        events += "message:" + std::to_string(buffer->size()) + " ";
        if (consume) {
            consumed += buffer->size();
            buffer->clear();
        }
    }

    std::string mFarBytes;
    bool mFarEnded = false;
};

}  // namespace OrbelTest
