// The small device services, Registry and syslog, and the singletons that boot() starts.
// Host code.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host/devices/devices.h"
#include "host/devices/framework.h"

namespace host::devices {

// The in-memory key store behind the Registry device.
class Registry final : public Service {
public:
    Registry();
    ~Registry() override;
    void set(const std::string& key, const void* data, std::size_t length);
    bool get(const std::string& key, std::vector<std::uint8_t>& out);

private:
    Outcome run(Request& r) override;

    std::mutex lock_;
    std::map<std::string, std::vector<std::uint8_t>> keys_;
    std::set<std::string> folders_;             // made by RegCreateTmp
    std::map<std::string, std::uint32_t> guards_; // made by RegCreateGuard
};

// The log device: each record or raw report becomes one line on the log descriptor.
class Syslog final : public Service {
public:
    Syslog();
    ~Syslog() override;
    void set_fd(int fd) { fd_ = fd; }
    void write_line(const char* text, std::size_t length);

private:
    Outcome run(Request& r) override;
    void raw_message(const orlix::Message& m) override;

    std::atomic<int> fd_{2};
};

// The text of a NUL-terminated string that lies wholly inside the block, or false.
bool string_in_block(const Request& r, const void* p, std::string& out);

// The letters of a packed word, the first in the top byte, zero bytes dropped.
std::string unpack_letters(std::uint64_t word);

} // namespace host::devices
