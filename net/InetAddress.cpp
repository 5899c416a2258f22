#include "Vantel/Orbel/InetAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>

#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

constexpr size_t kMaxUnixPath = sizeof(sockaddr_un::sun_path) - 1;
static_assert(kMaxUnixPath == 107 && sizeof(sockaddr_un) == 110);
static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28);

}  // namespace

InetAddress::InetAddress() {
    std::memset(&mStorage, 0, sizeof mStorage);
}

InetAddress::InetAddress(const sockaddr_in& addr) {
    setSockAddrInet(addr);
}

InetAddress::InetAddress(const sockaddr_in6& addr) {
    setSockAddrInet6(addr);
}

InetAddress::InetAddress(const sockaddr_un& addr) {
    setSockAddrUnix(addr);
}

InetAddress::InetAddress(const sockaddr_storage& addr) {
    setSockAddrStorage(addr);
}

InetAddress::InetAddress(uint16_t port, const std::string& ip) {
    setIPv4(port, ip);
}

InetAddress::InetAddress(uint16_t port, const std::string& ip, bool ipv6) {
    if (ipv6) {
        setIPv6(port, ip);
    } else {
        setIPv4(port, ip);
    }
}

InetAddress::InetAddress(const std::string& unixPath) {
    setUnix(unixPath);
}

bool InetAddress::setIPv4(uint16_t port, const std::string& ip) {
    std::memset(&mStorage, 0, sizeof mStorage);
    if (::inet_pton(AF_INET, ip.c_str(), &mInet.sin_addr) != 1) {
        ORBEL_LOG_ERROR("inet_pton error for IPv4 %s\n", ip.c_str());
        return false;
    }
    mInet.sin_family = AF_INET;
    mInet.sin_port = htons(port);
    return true;
}

bool InetAddress::setIPv6(uint16_t port, const std::string& ip) {
    std::memset(&mStorage, 0, sizeof mStorage);
    if (::inet_pton(AF_INET6, ip.c_str(), &mInet6.sin6_addr) != 1) {
        ORBEL_LOG_ERROR("inet_pton error for IPv6 %s\n", ip.c_str());
        return false;
    }
    mInet6.sin6_family = AF_INET6;
    mInet6.sin6_port = htons(port);
    return true;
}

bool InetAddress::setUnix(const std::string& path) {
    std::memset(&mStorage, 0, sizeof mStorage);
    if (path.size() > kMaxUnixPath) {
        return false;
    }
    mUnix.sun_family = AF_UNIX;
    std::strncpy(mUnix.sun_path, path.c_str(), kMaxUnixPath);
    return true;
}

void InetAddress::setSockAddrInet(const sockaddr_in& addr) {
    std::memset(&mStorage, 0, sizeof mStorage);
    mInet = addr;
}

void InetAddress::setSockAddrInet6(const sockaddr_in6& addr) {
    std::memset(&mStorage, 0, sizeof mStorage);
    mInet6 = addr;
}

void InetAddress::setSockAddrUnix(const sockaddr_un& addr) {
    std::memset(&mStorage, 0, sizeof mStorage);
    mUnix = addr;
}

void InetAddress::setSockAddrStorage(const sockaddr_storage& addr) {
    mStorage = addr;
}

InetAddressType InetAddress::getType() const {
    switch (family()) {
        case AF_INET6:
            return kIPv6;
        case AF_UNIX:
            return kUnix;
        default:
            return kIPv4;
    }
}

const sockaddr* InetAddress::getSockAddr() const {
    return reinterpret_cast<const sockaddr*>(&mStorage);
}

socklen_t InetAddress::getSockLen() const {
    switch (family()) {
        case AF_INET:
            return sizeof(sockaddr_in);
        case AF_INET6:
            return sizeof(sockaddr_in6);
        case AF_UNIX:
            return sizeof(sockaddr_un);  // whole, whatever the path: zeros behind it end it
        default:
            return 0;
    }
}

std::string InetAddress::getUnixPath() const {
    if (family() != AF_UNIX) {
        return "";
    }
    return {mUnix.sun_path, strnlen(mUnix.sun_path, sizeof mUnix.sun_path)};
}

uint16_t InetAddress::toPort() const {
    switch (family()) {
        case AF_INET:
            return ntohs(mInet.sin_port);
        case AF_INET6:
            return ntohs(mInet6.sin6_port);
        default:
            return 0;
    }
}

std::string InetAddress::toIp() const {
    char text[INET6_ADDRSTRLEN] = "";
    static_assert(sizeof text == 46);
    switch (family()) {
        case AF_INET:
            ::inet_ntop(AF_INET, &mInet.sin_addr, text, sizeof text);
            return text;
        case AF_INET6:
            ::inet_ntop(AF_INET6, &mInet6.sin6_addr, text, sizeof text);
            return text;
        case AF_UNIX:
            return "unix";
        default:
            return "";
    }
}

std::string InetAddress::toIpPort() const {
    switch (family()) {
        case AF_INET:
            return toIp() + ":" + std::to_string(toPort());
        case AF_INET6:
            return "[" + toIp() + "]:" + std::to_string(toPort());
        default:
            return getUnixPath();
    }
}

std::string InetAddress::toString() const {
    return family() == AF_UNIX ? "unix:" + getUnixPath() : toIpPort();
}

InetAddress InetAddress::createIPv4(uint16_t port, const std::string& ip) {
    return InetAddress(port, ip, false);
}

InetAddress InetAddress::createIPv6(uint16_t port, const std::string& ip) {
    return InetAddress(port, ip, true);
}

InetAddress InetAddress::createLoopback4(uint16_t port) {
    return createIPv4(port, "127.0.0.1");
}

InetAddress InetAddress::createLoopback6(uint16_t port) {
    return createIPv6(port, "::1");
}

InetAddress InetAddress::createAny4(uint16_t port) {
    return createIPv4(port, "0.0.0.0");
}

InetAddress InetAddress::createAny6(uint16_t port) {
    return createIPv6(port, "::");
}

InetAddress InetAddress::createUnix(const std::string& path) {
    return InetAddress(path);
}

bool InetAddress::resolve(const std::string& host, uint16_t port, InetAddress* result, bool ipv6) {
    if (host.empty() || result == nullptr) {
        errno = EINVAL;
        return false;
    }
    addrinfo hints{};
    hints.ai_family = ipv6 ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (error != 0) {
        ORBEL_LOG_ERROR("getaddrinfo error: %s\n", ::gai_strerror(error));
        return false;
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
    if (ipv6) {
        result->setSockAddrInet6(*reinterpret_cast<const sockaddr_in6*>(found->ai_addr));
    } else {
        result->setSockAddrInet(*reinterpret_cast<const sockaddr_in*>(found->ai_addr));
    }
    return true;
}

bool InetAddress::resolve(const std::string& host, InetAddress* result, bool ipv6) {
    return resolve(host, 0, result, ipv6);
}

bool InetAddress::removeUnixSocketFile(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return true;
    }
    return ::unlink(path.c_str()) == 0;
}

}  // namespace Vantel::Orbel
