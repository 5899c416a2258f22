#pragma once

#include <memory>
#include <string>

#include "Vantel/Orbel/DatagramEndpoint.h"
#include "Vantel/Orbel/InetAddress.h"
#include "Vantel/Orbel/UdpSocket.h"

namespace Vantel::Orbel {

/// What UdpClient and UdpServer share: the endpoint, and the callbacks that it passes on in the
/// name of the facade. A callback that runs holds this object, so it may destroy the facade.
template <class Facade>
class UdpFacade : public std::enable_shared_from_this<UdpFacade<Facade>> {
public:
    UdpFacade(Facade* facade, EventLoop* loop, const std::string& name)
        : mFacade(facade), mName(name), mEndpoint(loop, name) {}

    /// Once the object is owned by a shared pointer.
    void installCallbacks() {
        mEndpoint.setMessageCallback([weak = this->weak_from_this()](DatagramEndpoint*,
                                                                     NetBuffer* buffer,
                                                                     const InetAddress& peer) {
            const auto self = weak.lock();
            if (self && self->mMessageCallback) {
                self->mMessageCallback(self->mFacade, buffer, peer);
            }
        });
        mEndpoint.setErrorCallback([weak = this->weak_from_this()](DatagramEndpoint*, int error) {
            const auto self = weak.lock();
            if (self && self->mErrorCallback) {
                self->mErrorCallback(self->mFacade, error);
            }
        });
    }

    /// The endpoint has one only while the application has: it would silence the message callback.
    void setReadableCallback(const typename Facade::ReadableCallback& callback) {
        mReadableCallback = callback;
        if (!callback) {
            mEndpoint.setReadableCallback({});
            return;
        }
        mEndpoint.setReadableCallback([weak = this->weak_from_this()](DatagramEndpoint*) {
            const auto self = weak.lock();
            if (self && self->mReadableCallback) {
                self->mReadableCallback(self->mFacade);
            }
        });
    }

    /// For the destructor of the facade: afterwards nobody hears of it. A callback that runs just
    /// then keeps this object to its end.
    void end() { mEndpoint.end(); }

    UdpSocket* socket() { return dynamic_cast<UdpSocket*>(mEndpoint.getSocket()); }

    Facade* const mFacade;
    const std::string mName;
    DatagramEndpoint mEndpoint;
    typename Facade::MessageCallback mMessageCallback;
    typename Facade::ReadableCallback mReadableCallback;
    typename Facade::ErrorCallback mErrorCallback;
};

inline bool isIpFamily(const InetAddress& addr) {
    return addr.family() == AF_INET || addr.family() == AF_INET6;
}

}  // namespace Vantel::Orbel
