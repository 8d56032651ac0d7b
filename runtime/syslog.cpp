// The log over the syslog device: the state in context slot 4, one request for the whole process
// under the slot's lock, a line dropped when the device can't be had. System code.
#include "runtime/syslog.h"

#include <cstring>

#include "platform/device_client.h"
#include "runtime/context.h"
#include "runtime/format.h"
#include "runtime/process.h"

namespace orlix {

namespace {

constexpr std::uint32_t DEFAULT_FACILITY = 1;
constexpr std::uint32_t DEFAULT_LOG_MASK = 0xff;
constexpr std::uint32_t LINE_TIMEOUT_MS = 500;
constexpr std::size_t TEXT_LIMIT = 509;
constexpr std::uint8_t REQUEST_PRIORITY = 3;

SyslogState* state_and_lock(Mutex** lock)
{
    return static_cast<SyslogState*>(lc_getcontextslot(SLOT_SYSLOG, sizeof(SyslogState), lock, __init_syslog));
}

} // namespace

void __init_syslog(void* block, std::uint64_t size)
{
    std::memset(block, 0, size);
    auto* state = static_cast<SyslogState*>(block);
    int length = snprintf(state->ident, sizeof state->ident, "[0x%lx]",
                          static_cast<unsigned long>(_SL_GetState(STATE_TASK)));
    state->ident_length = length > 0 ? static_cast<std::uint64_t>(length) : 0;
    state->facility = DEFAULT_FACILITY;
    state->log_mask = DEFAULT_LOG_MASK;
}

bool __openlog_impl_unlocked(SyslogState* state)
{
    if (state->device != nullptr)
        return true;
    state->pid = getpid();
    if (!handle_valid(state->port)) {
        Handle port = _SL_CreateMsgPort(0, 0);
        if (port == INVALID_HANDLE)
            return false;
        state->port = _SL_CreateHandle(0, port, HANDLE_FOR_CLOSE);
        if (state->port == INVALID_HANDLE) {
            _SL_DeleteObject(port, DELETE_OBJECT);
            return false;
        }
    }
    state->device = OpenDevice("syslog");
    if (state->device == nullptr)
        return false;
    state->request = CreateIOreq(state->device, 0, REQUEST_PRIORITY, SYSLOG_BLOCK_SIZE, state->port);
    if (state->request == nullptr) {
        CloseDevice(state->device);
        state->device = nullptr;
        return false;
    }
    return true;
}

void __openlog(const char* ident, int options, int facility)
{
    Mutex* lock = nullptr;
    SyslogState* state = state_and_lock(&lock);
    if (MutexLock(lock) != MUTEX_OK)
        return;
    state->options = static_cast<std::uint32_t>(options);
    state->facility = static_cast<std::uint32_t>(facility);
    if (ident != nullptr) {
        std::size_t length = std::strlen(ident);
        if (length > SYSLOG_IDENT_SIZE - 1)
            length = SYSLOG_IDENT_SIZE - 1;
        std::memcpy(state->ident, ident, length);
        state->ident[length] = '\0';
        state->ident_length = length;
    }
    if (!(state->options & LOG_NDELAY_OPTION))
        __openlog_impl_unlocked(state);
    MutexUnlock(lock);
}

void __vsyslog(int, const char* format, std::va_list args)
{
    Mutex* lock = nullptr;
    SyslogState* state = state_and_lock(&lock);
    if (MutexLock(lock) != MUTEX_OK)
        return;
    if (state->device == nullptr && !__openlog_impl_unlocked(state)) {
        MutexUnlock(lock);
        return;
    }
    IOreq* request = state->request;
    auto* record = reinterpret_cast<SyslogRecord*>(ioreq_area(request));
    char* text = record->bytes;
    std::size_t position = state->ident_length;
    std::memcpy(text, state->ident, position);
    if (state->options & LOG_PID_OPTION) {
        int written = snprintf(text + position, TEXT_LIMIT - position, "[%llu]",
                               static_cast<unsigned long long>(state->pid));
        if (written > 0)
            position += static_cast<std::size_t>(written);
    }
    text[position] = ':';
    text[position + 1] = ' ';
    int message = vsnprintf(text + position + 2, TEXT_LIMIT - position, format, args);
    auto length = static_cast<std::uint16_t>(position + 2 + static_cast<std::size_t>(message));
    record->length = length > SYSLOG_TEXT_MAX ? SYSLOG_TEXT_MAX : length;
    record->text = text;
    request->timeout = LINE_TIMEOUT_MS;
    request->command = LOG_WRITE;
    request->params = record;
    SyncIO(request);
    MutexUnlock(lock);
}

void openlog(const char* ident, int options, int facility) { __openlog(ident, options, facility); }

void vsyslog(int priority, const char* format, std::va_list args) { __vsyslog(priority, format, args); }

void syslog(int priority, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    __vsyslog(priority, format, args);
    va_end(args);
}

} // namespace orlix
