// The program's entry in the registry, "run/proc/<task>", and the registry commands it takes.
// System code; the commands run on the Registry device's shared channel.
#include <cstddef>
#include <cstring>

#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/start.h"

namespace orlix {

namespace {

struct CreateTmpParams { // the path at 8
    const char* path;
};
struct SetKeyBinParams { // the key at 24, the data directly behind it
    const char* key;
    const void* data;
    std::uint32_t length;
    std::uint32_t pad20;
};
struct CreateGuardParams { // the key at 16
    const char* key;
    std::uint32_t value;
    std::uint32_t pad12;
};
static_assert(sizeof(CreateTmpParams) == 8);
static_assert(offsetof(SetKeyBinParams, length) == 16 && sizeof(SetKeyBinParams) == 24);
static_assert(offsetof(CreateGuardParams, value) == 8 && sizeof(CreateGuardParams) == 16);

// Runs one command on the shared channel when its block of `size` bytes fits; fill writes the
// block. 1 done, 0 failed or not sent.
template <typename Fill> int run_shared(Device* registry, std::uint32_t command, std::size_t size, Fill fill)
{
    DeviceSharedIO* io = registry->shared_io;
    if (MutexLock(io->lock) != MUTEX_OK)
        DeleteTask(0);
    int result = 0;
    if (size <= io->params_size) {
        auto* params = static_cast<std::uint8_t*>(io->params);
        fill(params);
        io->request->params = params;
        io->request->command = command;
        result = SyncIO(io->request) == IO_DONE ? 1 : 0;
    }
    if (MutexUnlock(io->lock) != MUTEX_OK)
        DeleteTask(0);
    return result;
}

constexpr char HEX_DIGITS[] = "0123456789ABCDEF";

} // namespace

int RegCreateTmp(Device* registry, const char* path)
{
    std::size_t length = std::strlen(path) + 1;
    return run_shared(registry, REG_CREATE_TMP, sizeof(CreateTmpParams) + length, [&](std::uint8_t* params) {
        char* text = reinterpret_cast<char*>(params + sizeof(CreateTmpParams));
        std::memcpy(text, path, length);
        reinterpret_cast<CreateTmpParams*>(params)->path = text;
    });
}

int RegSetKeyBin(Device* registry, const char* key, const void* data, std::uint32_t length)
{
    std::size_t key_length = std::strlen(key) + 1;
    std::size_t size = sizeof(SetKeyBinParams) + key_length + length;
    return run_shared(registry, REG_SET_KEY_BIN, size, [&](std::uint8_t* params) {
        char* text = reinterpret_cast<char*>(params + sizeof(SetKeyBinParams));
        std::memcpy(text, key, key_length);
        std::memcpy(text + key_length, data, length);
        auto* p = reinterpret_cast<SetKeyBinParams*>(params);
        p->key = text;
        p->data = text + key_length;
        p->length = length;
    });
}

int RegCreateGuard(Device* registry, const char* key, std::uint32_t value)
{
    std::size_t length = std::strlen(key) + 1;
    return run_shared(registry, REG_CREATE_GUARD, sizeof(CreateGuardParams) + length, [&](std::uint8_t* params) {
        char* text = reinterpret_cast<char*>(params + sizeof(CreateGuardParams));
        std::memcpy(text, key, length);
        auto* p = reinterpret_cast<CreateGuardParams*>(params);
        p->key = text;
        p->value = value;
    });
}

void crt_tname(const char* name)
{
    if (name == nullptr)
        return;
    LibcContext* context = g_libc_context;
    context->program_name = name;
    const char* component = name;
    for (const char* p = name; *p != '\0'; ++p)
        if (*p == '/' || *p == '\\')
            component = p + 1;
    // An empty name (a line that starts with a blank) has nothing to publish.
    if (*component == '\0')
        return;
    Device* registry = __tryopendevice(&context->lock, &context->registry_device, REGISTRY_NAME);
    if (registry == nullptr)
        return;

    char key[] = "run/proc/0000000000000000";
    auto task = static_cast<std::uint64_t>(_SL_GetState(STATE_TASK));
    char* digits = key + sizeof "run/proc/" - 1;
    for (int i = 15; i >= 0; --i, task >>= 4)
        digits[i] = HEX_DIGITS[task & 0xf];

    RegCreateTmp(registry, "run/");
    RegCreateTmp(registry, "run/proc/");
    RegSetKeyBin(registry, key, component, static_cast<std::uint32_t>(std::strlen(component)));
    RegCreateGuard(registry, key, 1);
}

} // namespace orlix
