// The Registry device: an in-memory key store. It answers key lookups ("run/dev/NAME" gives a
// device's service port) and takes the program's registration. Host code.
#include <cstring>

#include "host/devices/services.h"

namespace host::devices {

namespace {
// Offsets inside the parameter block of each registry command.
struct GetKeyParams {
    const char* key;
    std::uint64_t value; // out
};
struct CreateTmpParams {
    const char* path;
};
struct SetKeyBinParams {
    const char* key;
    const void* data;
    std::uint32_t length;
};
struct CreateGuardParams {
    const char* key;
    std::uint32_t value;
};
static_assert(offsetof(GetKeyParams, value) == 8);
static_assert(offsetof(SetKeyBinParams, length) == 16);
static_assert(offsetof(CreateGuardParams, value) == 8);
} // namespace

bool string_in_block(const Request& r, const void* p, std::string& out)
{
    if (!r.inside(p, 1))
        return false;
    auto* begin = static_cast<const char*>(p);
    std::size_t room = r.size - static_cast<std::size_t>(begin - reinterpret_cast<const char*>(r.block));
    const void* end = std::memchr(begin, 0, room);
    if (!end)
        return false;
    out.assign(begin, static_cast<const char*>(end));
    return true;
}

Registry::Registry() : Service("Registry", REGISTRY_SHARED_AREA) {}

Registry::~Registry() { shutdown(); }

void Registry::set(const std::string& key, const void* data, std::size_t length)
{
    auto* bytes = static_cast<const std::uint8_t*>(data);
    std::lock_guard g(lock_);
    keys_[key].assign(bytes, bytes + length);
}

bool Registry::get(const std::string& key, std::vector<std::uint8_t>& out)
{
    std::lock_guard g(lock_);
    auto it = keys_.find(key);
    if (it == keys_.end())
        return false;
    out = it->second;
    return true;
}

Outcome Registry::run(Request& r)
{
    void* params = r.block->params;
    std::string key;
    switch (r.block->command) {
    case orlix::REG_GET_KEY: {
        auto* p = reinterpret_cast<GetKeyParams*>(r.area(params, sizeof(GetKeyParams)));
        if (!p || !string_in_block(r, p->key, key))
            return Outcome::fail(STATUS_BAD_ADDRESS);
        std::vector<std::uint8_t> value;
        if (!get(key, value))
            return Outcome::fail(STATUS_NOT_FOUND);
        std::uint64_t word = 0;
        std::memcpy(&word, value.data(), std::min(value.size(), sizeof word));
        p->value = word;
        return Outcome::ok();
    }
    case orlix::REG_CREATE_TMP: {
        auto* p = reinterpret_cast<CreateTmpParams*>(r.area(params, sizeof(CreateTmpParams)));
        if (!p || !string_in_block(r, p->path, key))
            return Outcome::fail(STATUS_BAD_ADDRESS);
        std::lock_guard g(lock_);
        folders_.insert(key);
        return Outcome::ok();
    }
    case orlix::REG_SET_KEY_BIN: {
        auto* p = reinterpret_cast<SetKeyBinParams*>(r.area(params, sizeof(SetKeyBinParams)));
        if (!p || !string_in_block(r, p->key, key) || (p->length && !r.inside(p->data, p->length)))
            return Outcome::fail(STATUS_BAD_ADDRESS);
        // The data may follow the key text directly, without a terminator between them.
        auto key_at = reinterpret_cast<std::uintptr_t>(p->key);
        auto data_at = reinterpret_cast<std::uintptr_t>(p->data);
        if (data_at > key_at && data_at - key_at < key.size())
            key.resize(data_at - key_at);
        set(key, p->data, p->length);
        return Outcome::ok();
    }
    case orlix::REG_CREATE_GUARD: {
        auto* p = reinterpret_cast<CreateGuardParams*>(r.area(params, sizeof(CreateGuardParams)));
        if (!p || !string_in_block(r, p->key, key))
            return Outcome::fail(STATUS_BAD_ADDRESS);
        std::lock_guard g(lock_);
        guards_[key] = p->value;
        return Outcome::ok();
    }
    default:
        return Outcome::fail(STATUS_BAD_COMMAND);
    }
}

} // namespace host::devices
