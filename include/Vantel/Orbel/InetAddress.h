#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// See InetAddress::getType().
enum InetAddressType : int32_t {
    kIPv4 = 0,  ///< AF_INET; also of the invalid address
    kIPv6 = 1,  ///< AF_INET6
    kUnix = 2,  ///< AF_UNIX
};

/// An IPv4, IPv6 or Unix domain address, copied as plain data. All zero (family 0) is the invalid
/// address. Ports are in host order.
///
/// Threads: a plain value.
class ORBEL_API InetAddress {
public:
    /// The invalid address.
    InetAddress();
    ///@{
    /// Copy a raw address as it is, its port in network order.
    explicit InetAddress(const sockaddr_in& addr);
    explicit InetAddress(const sockaddr_in6& addr);
    explicit InetAddress(const sockaddr_un& addr);
    explicit InetAddress(const sockaddr_storage& addr);
    ///@}
    ///@{
    /// As setIPv4, setIPv6 (if `ipv6`) and setUnix: invalid if those fail.
    InetAddress(uint16_t port, const std::string& ip);
    InetAddress(uint16_t port, const std::string& ip, bool ipv6);
    explicit InetAddress(const std::string& unixPath);
    ///@}

    ///@{
    /// Set the address from its numeric text. False with a log line, and invalid, if it is none.
    bool setIPv4(uint16_t port, const std::string& ip);
    bool setIPv6(uint16_t port, const std::string& ip);
    ///@}
    /// Sets the path of a Unix socket, at most 107 bytes. A longer one makes the address invalid:
    /// false.
    bool setUnix(const std::string& path);

    ///@{
    /// Store a raw address as it is, unchecked.
    void setSockAddrInet(const sockaddr_in& addr);
    void setSockAddrInet6(const sockaddr_in6& addr);
    void setSockAddrUnix(const sockaddr_un& addr);
    void setSockAddrStorage(const sockaddr_storage& addr);
    ///@}

    /// AF_INET, AF_INET6, AF_UNIX, or 0; anything that a raw address brought.
    sa_family_t family() const { return mStorage.ss_family; }
    /// Says only that there is a family.
    bool isValid() const { return mStorage.ss_family != 0; }
    /// kIPv4 for every family that is neither IPv6 nor Unix, none included.
    InetAddressType getType() const;

    ///@{
    /// The address for system calls, and its length: 16, 28, or 110 for any Unix path; 0 for any
    /// other family.
    const sockaddr* getSockAddr() const;
    socklen_t getSockLen() const;
    ///@}

    ///@{
    /// Views of the same bytes, whatever the family is.
    const sockaddr_in* getSockAddr4() const { return &mInet; }
    sockaddr_in* getSockAddr4() { return &mInet; }
    const sockaddr_in6* getSockAddr6() const { return &mInet6; }
    sockaddr_in6* getSockAddr6() { return &mInet6; }
    const sockaddr_un* getSockAddrUnix() const { return &mUnix; }
    sockaddr_un* getSockAddrUnix() { return &mUnix; }
    ///@}

    /// The path, empty if this is no Unix address.
    std::string getUnixPath() const;
    /// 0 if this is no IP address.
    uint16_t toPort() const;
    /// The numeric text; "unix" for Unix, empty if invalid.
    std::string toIp() const;
    /// "ip:port", "[ip]:port", the path alone, or empty if invalid.
    std::string toIpPort() const;
    /// As toIpPort, with "unix:" in front of a path.
    std::string toString() const;

    ///@{
    /// The invalid address if the text is no address or the path is too long. Loopback is
    /// 127.0.0.1 and ::1, any is 0.0.0.0 and ::, to bind to all interfaces.
    static InetAddress createIPv4(uint16_t port, const std::string& ip);
    static InetAddress createIPv6(uint16_t port, const std::string& ip);
    static InetAddress createLoopback4(uint16_t port);
    static InetAddress createLoopback6(uint16_t port);
    static InetAddress createAny4(uint16_t port);
    static InetAddress createAny6(uint16_t port);
    static InetAddress createUnix(const std::string& path);
    ///@}

    /// The first address of `host` in the wanted family, with `port`. Blocks on the name service.
    /// False on failure: errno is EINVAL for an empty host or null `result`, otherwise the log has
    /// the reason. `result` is set on success only.
    static bool resolve(const std::string& host, uint16_t port, InetAddress* result, bool ipv6);
    /// The same with port 0.
    static bool resolve(const std::string& host, InetAddress* result, bool ipv6);

    /// Removes the socket file at `path`. Anything else there is left alone and counts as success,
    /// as does nothing at all. False with errno if it cannot be removed.
    static bool removeUnixSocketFile(const std::string& path);

private:
    union {
        sockaddr_storage mStorage;
        sockaddr_in mInet;
        sockaddr_in6 mInet6;
        sockaddr_un mUnix;
    };
};

static_assert(sizeof(InetAddress) == 128, "copied as plain data");

}  // namespace Vantel::Orbel
