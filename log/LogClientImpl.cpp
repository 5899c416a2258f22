#include "log/LogClientImpl.h"

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "Vantel/Orbel/Buffer.h"
#include "frame/base/ThreadId.h"
#include "log/ClientSession.h"
#include "log/CrashReport.h"
#include "log/LogCodec.h"
#include "log/SessionMgr.h"
#include "log/UnixDomainSocket.h"

namespace Vantel::Log {

namespace {

constexpr int kMaxClients = 4;
constexpr int kMaxLevel = 6;
constexpr int kGreetingTimeoutMs = 2000;

const char* wordOf(int level) {
    constexpr const char* kWords[] = {"trace", "debug", "info", "warn", "error", "fatal"};
    return level >= 1 && level <= kMaxLevel ? kWords[level - 1] : "Unknown";
}

std::string stringOr(const Json::Value& config, const char* key, const char* otherwise) {
    return config[key].isString() ? config[key].asString() : otherwise;
}

}  // namespace

class LogClientImpl::Internal {
public:
    explicit Internal(LogClientImpl& client);

    bool connect();
    int reconnect();
    void onPacket(const LogPacketHeader& header, const char* payload);
    void receive(int kind, const char* data, uint32_t size);
    Json::Value config() const;
    std::string moduleName() const;
    std::string headOf(int level) const;
    int printLine(int level, const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)));
    int refuseTooBig(size_t size) const;
    bool sendCommand(int (*build)(Orbel::Buffer&));

    /// Null before init() was first called; then for good.
    ClientSession* session() const { return mPublished.load(std::memory_order_acquire); }

    LogClientImpl& mClient;
    std::mutex mInitMutex;  // one init() at a time
    bool mInited = false;
    std::atomic<int> mLogLevel{3};
    mutable std::mutex mConfigMutex;  // guards mConfig; never held while something is waited for
    Json::Value mConfig;
    std::mutex mReceiverMutex;
    RecvCallback mReceiver = nullptr;
    void* mReceiverUser = nullptr;
    const std::shared_ptr<ClientSession> mSession;  // one for all attempts of init()
    std::atomic<ClientSession*> mPublished{nullptr};

private:
    static bool greet(ITransportLayer& transport, const Json::Value& config);
};

LogClientImpl::Internal::Internal(LogClientImpl& client)
    : mClient(client),
      mSession(std::make_shared<ClientSession>(
          [this](const LogPacketHeader& header, const char* payload) {
              onPacket(header, payload);
          })) {}

Json::Value LogClientImpl::Internal::config() const {
    const std::lock_guard guard(mConfigMutex);
    return mConfig;
}

std::string LogClientImpl::Internal::moduleName() const {
    const std::lock_guard guard(mConfigMutex);
    return stringOr(mConfig, "moduleName", "");
}

/// Who is there and what it wants to hear. Before the session gets the transport, so that nothing
/// can come first, and no full queue can lose it.
bool LogClientImpl::Internal::greet(ITransportLayer& transport, const Json::Value& config) {
    Orbel::Buffer packet;
    const int registration =
        LogCodec::buildRegister(packet, stringOr(config, "moduleName", ""), getpid());
    if (registration < 0 || transport.write(packet.data(), registration) < registration) {
        std::printf("Error, write failed >>>>>>>>>>>>\n");
        return false;
    }
    const Json::Value& subscribed = config["subscribe"];
    for (const Json::Value& wanted : subscribed.isArray() ? subscribed : Json::Value()) {
        if (!wanted.isObject() || !wanted["moduleName"].isString()) {
            continue;
        }
        const int size = LogCodec::buildSubscribe(packet, wanted["moduleName"].asString());
        if (size < 0 || transport.writeTimeout(packet.data(), size, kGreetingTimeoutMs) < size) {
            return false;
        }
    }
    return true;
}

bool LogClientImpl::Internal::connect() {
    Json::Value config = this->config();
    config["serverPath"] = stringOr(config, "socketPath", kLogServerPath);
    auto transport = ITransportLayer::create("UnixDomainSocket");
    if (!transport->connect(config)) {
        return false;
    }
    if (!greet(*transport, config)) {
        transport->close();
        return false;
    }
    mSession->setTransport(std::move(transport));
    return true;
}

int LogClientImpl::Internal::reconnect() {
    // With output: the queue waits.
    return connect() &&
                   SessionMgr::instance().add(mSession, SessionMgr::kInput | SessionMgr::kOutput)
               ? 0
               : -1;
}

void LogClientImpl::Internal::onPacket(const LogPacketHeader& header, const char* payload) {
    const auto size = static_cast<uint32_t>(header.size);
    switch (static_cast<LogCommand>(header.cmd)) {
        case LogCommand::Line:
            receive(0, payload, size);
            break;
        case LogCommand::Text:
            receive(1, payload, static_cast<uint32_t>(strnlen(payload, size)));
            break;
        default:
            std::printf("Error, Not support cmd %d\n", static_cast<int>(header.cmd));
    }
}

void LogClientImpl::Internal::receive(int kind, const char* data, uint32_t size) {
    RecvCallback callback = nullptr;
    void* user = nullptr;
    {
        const std::lock_guard guard(mReceiverMutex);
        callback = mReceiver;
        user = mReceiverUser;
    }
    if (callback != nullptr) {
        callback(kind, user, data, size, &mClient);
    }
}

/// The head of a line; empty if the time cannot be told.
std::string LogClientImpl::Internal::headOf(int level) const {
    timespec now = {};
    tm local = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (localtime_r(&now.tv_sec, &local) == nullptr) {
        std::fprintf(stderr, "Error, cannot translate time!\n");
        return {};
    }
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "[%04d-%02d-%02d %02d:%02d:%02d.%03d]", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(now.tv_nsec / 1000000));
    return std::string(stamp) + '[' + moduleName() + "][" + wordOf(level) + "][" +
           std::to_string(Orbel::currentThreadId()) + ']';
}

int LogClientImpl::Internal::printLine(int level, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int text = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (text < 0) {
        return -1;
    }
    const std::string head = headOf(level);
    if (head.empty()) {
        return 0;
    }
    const size_t size = head.size() + static_cast<size_t>(text);
    if (size > kMaxLogPayload) {
        return refuseTooBig(size);
    }
    Orbel::Buffer packet;
    // One byte more than goes out, for the terminator that vsnprintf insists on.
    if (packet.resize(LogCodec::kHeaderSize + static_cast<int>(size) + 1) < 0) {
        return -1;
    }
    LogCodec::buildLine(packet, static_cast<int>(size));
    auto* const line = reinterpret_cast<char*>(packet.data(LogCodec::kHeaderSize));
    head.copy(line, head.size());
    std::vsnprintf(line + head.size(), static_cast<size_t>(text) + 1, format, arguments);
    return session()->send(packet);
}

int LogClientImpl::Internal::refuseTooBig(size_t size) const {
    std::printf("logClient [%s] print log buffer too big size = %d\n\n", moduleName().c_str(),
                static_cast<int>(size));
    return -1;
}

bool LogClientImpl::Internal::sendCommand(int (*build)(Orbel::Buffer&)) {
    ClientSession* const to = session();
    Orbel::Buffer packet;
    if (to == nullptr || build(packet) < 0) {
        return false;
    }
    return to->send(packet) == packet.size();
}

LogClientImpl::LogClientImpl() : mInternal(std::make_unique<Internal>(*this)) {}

LogClientImpl::~LogClientImpl() = default;

bool LogClientImpl::init(const Json::Value& config) {
    Internal& self = *mInternal;
    const std::lock_guard guard(self.mInitMutex);
    if (self.mInited) {
        std::fprintf(stderr, "Logger client already inited\n");
        return true;
    }
    if (!config.isObject() || !config["moduleName"].isString()) {
        std::fprintf(stderr, "not config moduleName\n");
        return false;
    }
    if (config["logLevel"].isInt()) {
        self.mLogLevel.store(config["logLevel"].asInt(), std::memory_order_relaxed);
    }
    {
        const std::lock_guard configGuard(self.mConfigMutex);
        self.mConfig = config;
    }
    self.mPublished.store(self.mSession.get(), std::memory_order_release);
    if (!self.connect()) {
        return false;
    }
    self.mSession->setReconnect([&self](int) { return self.reconnect(); });
    Json::Value manager;
    manager["maxClients"] = kMaxClients;
    // With output, for a line that another thread could not write out whole by now.
    if (!SessionMgr::instance().init(manager) ||
        !SessionMgr::instance().add(self.mSession, SessionMgr::kInput | SessionMgr::kOutput)) {
        self.mSession->setTransport(nullptr);
        return false;
    }
    self.mInited = true;
    const std::lock_guard configGuard(self.mConfigMutex);
    self.mConfig["coredump"] = config["coredump"].isBool() && config["coredump"].asBool();
    self.mConfig["logPath"] = stringOr(config, "logPath", "/data/logger/log");
    self.mConfig["socketPath"] = stringOr(config, "socketPath", kLogServerPath);
    return true;
}

bool LogClientImpl::deinit() {
    return false;
}

bool LogClientImpl::setGcoreCallback(GcoreCallback callback, void* user) {
    CrashReport report = {};
    report.client = this;
    report.callback = callback;
    report.user = user;
    report.config = [this] { return mInternal->config(); };
    report.waitUntilSent = [this](int timeoutMs) { waitUntilSent(timeoutMs); };
    captureCrashes(report);
    return true;
}

bool LogClientImpl::setLogLevel(int level) {
    mInternal->mLogLevel.store(level, std::memory_order_relaxed);
    return true;
}

int LogClientImpl::getLogLevel() {
    return mInternal->mLogLevel.load(std::memory_order_relaxed);
}

int LogClientImpl::print(int level, const char* format, ...) {
    if (mInternal->session() == nullptr || level < getLogLevel() || level > kMaxLevel) {
        return 0;
    }
    if (format == nullptr) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    const int result = mInternal->printLine(level, format, arguments);
    va_end(arguments);
    return result;
}

int LogClientImpl::headerSize() {
    return LogCodec::kHeaderSize;
}

int LogClientImpl::write(char* buffer, int size) {
    if (buffer == nullptr || size < 1) {
        return 0;
    }
    if (size > kMaxLogPayload) {
        return mInternal->refuseTooBig(static_cast<size_t>(size));
    }
    ClientSession* const session = mInternal->session();
    if (session == nullptr) {
        return 0;
    }
    LogCodec::writeHeader(buffer, LogCommand::Line, size);
    return session->send(buffer, LogCodec::kHeaderSize + size);
}

bool LogClientImpl::flush() {
    return mInternal->sendCommand(&LogCodec::buildFlush);
}

bool LogClientImpl::notifyServer() {
    return mInternal->sendCommand(&LogCodec::buildNotify);
}

bool LogClientImpl::setRecvCallback(RecvCallback callback, void* user) {
    const std::lock_guard guard(mInternal->mReceiverMutex);
    mInternal->mReceiver = callback;
    mInternal->mReceiverUser = user;
    return true;
}

bool LogClientImpl::waitUntilSent(int timeoutMs) {
    ClientSession* const session = mInternal->session();
    return session == nullptr || session->waitUntilSent(timeoutMs);
}

}  // namespace Vantel::Log
