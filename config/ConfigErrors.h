#pragma once

namespace Vantel::Config {

// What this subsystem sets as the last error number of the thread.
constexpr int kConfigNotWritten = 0x10060001;
constexpr int kConfigNameEmpty = 0x10060002;
constexpr int kConfigRefused = 0x10060003;    // by verifyConfig(), without a number of its own
constexpr int kConfigNotUsable = 0x10060004;  // empty, not initialised, or no way to the value
constexpr int kConfigNothingToSave = 0x10060005;
constexpr int kUserIdNull = 16;

}  // namespace Vantel::Config
