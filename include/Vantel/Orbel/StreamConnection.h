#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"
#include "Vantel/Orbel/Any.h"

namespace Vantel::Orbel {

class EventLoop;
class NetBuffer;
class StreamConnection;
class StreamSocket;
class StreamTransport;
struct StreamCallbacks;

/// Keeps the connection alive. A copy that one of its own callbacks captures is never let go; one
/// in its context is, by connectDestroyed().
using StreamConnectionPtr = std::shared_ptr<StreamConnection>;
/// Connection, readable, writable, write-complete and close callbacks.
using StreamConnectionCallback = std::function<void(const StreamConnectionPtr&)>;
/// The buffer is the connection's input; what the callback does not consume comes again with more.
using StreamMessageCallback = std::function<void(const StreamConnectionPtr&, NetBuffer*)>;
/// `error` is an errno value.
using StreamErrorCallback = std::function<void(const StreamConnectionPtr&, int error)>;

/// One established byte stream in one EventLoop, always owned by a std::shared_ptr. It is read in
/// one of two styles: with a message callback the library fills the input buffer and calls back;
/// with a readable callback the application reads by recv(), and must, or it is called again at
/// once. With neither, the first readable event closes the connection.
///
/// A busy connection yields to the others of its loop after 32 reads, 16 writes or 4 MiB in one
/// event. Every error but a refused send() is fatal: error callback, then close callback. Whoever
/// wants to slow the peer down stops reading; whoever wants to pace its own output watches
/// outputBufferSize().
///
/// Threads: callbacks run in the thread of the loop. Methods from any thread, where not told
/// otherwise. Callbacks are set before connectEstablished(); the context has no lock.
class ORBEL_API StreamConnection : public std::enable_shared_from_this<StreamConnection> {
public:
    /// Only the thread of the loop changes it; elsewhere it is a snapshot.
    enum State : int32_t {
        kDisconnected = 0,   ///< finished
        kConnecting = 1,     ///< made, not yet established
        kHandshaking = 2,    ///< the transport is not ready yet
        kConnected = 3,      ///< normal operation
        kDisconnecting = 4,  ///< shutting down, or closed and waiting for connectDestroyed()
    };

    ///@{
    /// `loop` outlives the connection. The socket, or descriptor, is owned from then on and made
    /// non-blocking. `name` appears in log lines and in name() only.
    StreamConnection(EventLoop* loop, const std::string& name,
                     std::unique_ptr<StreamTransport> transport);
    StreamConnection(EventLoop* loop, const std::string& name,
                     std::unique_ptr<StreamSocket> socket);
    StreamConnection(EventLoop* loop, const std::string& name, int fd);
    ///@}
    StreamConnection(const StreamConnection&) = delete;
    StreamConnection& operator=(const StreamConnection&) = delete;
    /// Asserts that connectDestroyed() was called, if connectEstablished() was.
    ~StreamConnection();

    ///@{
    /// For the owner, each once, in the loop's thread (asserted): starts the connection, and takes
    /// it out of the loop, after which nothing is called any more. A repeated call does nothing,
    /// nor does connectEstablished() after connectDestroyed().
    void connectEstablished();
    void connectDestroyed();
    ///@}

    ///@{
    /// Sends in order, and as much as possible at once; the rest waits in the output buffer. A
    /// result of 0 or more says that all bytes were accepted, not that they have left. -1 with
    /// errno, and nothing accepted: ENOTCONN (not connected), EPIPE or another error that just
    /// ended the connection, EMSGSIZE (over the output limit; the connection stays), EINVAL,
    /// ESHUTDOWN (the loop does not run). `flags` apply to what is sent at once.
    ///
    /// From another thread this waits until the loop has taken the bytes, without limit: not to be
    /// called from a thread that the loop waits for. Two loops that send to each other's
    /// connections at the same time wait for ever.
    ssize_t send(const void* buffer, size_t length, int flags = 0);
    ssize_t send(const std::string& text);
    ssize_t writev(const iovec* vectors, int count, int flags);
    ///@}

    /// Ends the connection in order: sends what is queued, closes the own direction, waits for the
    /// peer to close (without limit) and drops what it still sends.
    void shutdown();
    ///@{
    /// Ends the connection now; queued output is dropped. No effect before connectEstablished().
    void forceClose();
    void close();
    ///@}

    ///@{
    /// Stop the callbacks of one direction or both, and let them come again; reading is on at
    /// first. In another thread than the loop's, these are done later. While writing is off, what
    /// the output buffer holds stays there; the next send() turns it on again. Nothing is turned on
    /// in a closed connection.
    void enableReading();
    void disableReading();
    /// As enableReading(). The writable callback runs once for each enableWriting().
    void enableWriting();
    void disableWriting();
    void disableAll();
    ///@}

    ///@{
    /// Loop thread only (asserted): read and write past the buffers, without blocking. -1 with
    /// errno: EAGAIN, EINVAL if the transport does not allow it, ENOTCONN or EPIPE if it is not
    /// connected, or the transport's error. 0 from a read is the end of the stream; it is the
    /// caller who then closes.
    ssize_t recv(void* buffer, size_t length, int flags);
    ssize_t read(void* buffer, size_t length);
    ssize_t sendRaw(const void* buffer, size_t length, int flags);
    ssize_t writeRaw(const void* buffer, size_t length);
    ///@}

    ///@{
    /// The state, and whether it is kConnected or kDisconnected: both are false in between.
    State state() const;
    bool connected() const;
    bool disconnected() const;
    ///@}
    ///@{
    /// Whether the loop watches the connection for this direction.
    bool reading() const;
    bool writing() const;
    ///@}
    /// Bytes accepted by send() that have not left.
    size_t outputBufferSize() const;
    ///@{
    /// As given to the constructor.
    const std::string& name() const;
    EventLoop* getLoop() const;
    ///@}
    /// -1 without a transport.
    int fd() const;
    /// Owned by the connection; null if the transport has none.
    StreamSocket* getSocket() const;

    ///@{
    /// Fill `addr` and set `length`, which says its size before (128 at least) and the true one
    /// after. False with errno: EINVAL, ENOTCONN without a descriptor, or the system's.
    bool getLocalAddress(sockaddr_storage* addr, unsigned* length) const;
    bool getPeerAddress(sockaddr_storage* addr, unsigned* length) const;
    ///@}

    ///@{
    /// Limits in bytes, 64 MiB at first; 0 leaves the limit. Input that the message callback leaves
    /// at its limit ends the connection; output beyond its limit refuses that send().
    void setMaxInputBufferSize(size_t sizeBytes);
    void setMaxOutputBufferSize(size_t sizeBytes);
    ///@}

    /// Runs once, when the connection is ready.
    void setConnectionCallback(const StreamConnectionCallback& callback);
    /// Runs with all the bytes that are there; it consumes from the buffer what it has used.
    void setMessageCallback(const StreamMessageCallback& callback);
    /// Goes before the message callback.
    void setReadableCallback(const StreamConnectionCallback& callback);
    /// Runs when there is room to write, once for each enableWriting(), after the output buffer is
    /// empty.
    void setWritableCallback(const StreamConnectionCallback& callback);
    /// Runs as a task of the loop, each time that all accepted bytes have left.
    void setWriteCompleteCallback(const StreamConnectionCallback& callback);
    /// Runs after the log line for an error, and before the close callback, which always follows.
    void setErrorCallback(const StreamErrorCallback& callback);
    /// Runs at most once. The owner lets go of the connection here and has connectDestroyed()
    /// called.
    void setCloseCallback(const StreamConnectionCallback& callback);
    /// All seven at once, for the library's own endpoints.
    void setCallbacks(const StreamCallbacks& callbacks);

    ///@{
    /// A value of the application's, empty at first, destroyed by connectDestroyed() at the latest.
    void setContext(const Any& context);
    void setContext(Any&& context);
    const Any& getContext() const;
    Any* getMutableContext();
    void clearContext();
    bool hasContext() const;
    ///@}

private:
    class ORBEL_LOCAL Internal;

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
