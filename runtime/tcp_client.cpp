// The TCP device client over the device's shared channel: one request, one parameter area and
// one lock for the whole process. Touches the shared channel, errno and the request operations.
#include "runtime/tcp_client.h"

#include <cstring>

#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "platform/tcp_wire.h"
#include "runtime/errno.h"

namespace orlix {

namespace {

// Device statuses with an error number of their own; everything else not carrying its number
// (0xbe......) is 35.
struct StatusRow {
    std::uint32_t status;
    int number;
};

constexpr StatusRow STATUS_TABLE[] = {
    {TCP_STATUS_BAD_COMMAND, 29},
    {TCP_STATUS_TOO_LARGE, 8},
    {TCP_STATUS_BUSY, 23},
    {TCP_STATUS_NO_MEMORY, 22},
    {TCP_STATUS_NO_FAMILY, 83},
    {TCP_STATUS_BAD_STATE, 27},
    {0xe0050010, 27},
    {0xe0050048, 27},
    {TCP_STATUS_ABORTED, 59},
    {TCP_STATUS_NOT_CONNECTED, 77},
    {0xe0050055, 77},
    {TCP_STATUS_INVALID, 11},
    {0xe0050039, 11},
    {0xe0050045, 11},
    {TCP_STATUS_NO_PROTOCOL, 69},
    {TCP_STATUS_NOT_SOCKET, 18},
    {TCP_STATUS_BAD_MESSAGE, 51},
    {TCP_STATUS_MESSAGE_SIZE, 49},
    {TCP_STATUS_ADDRESS_IN_USE, 81},
    {0xe0050053, 81},
    {TCP_STATUS_ADDRESS_NOT_AVAILABLE, 82},
    {TCP_STATUS_PERMISSION, 2},
    {TCP_STATUS_CONNECTED, 57},
    {TCP_STATUS_AGAIN, 47},
    {TCP_STATUS_IN_PROGRESS, 53},
    {TCP_STATUS_OVERFLOW, 8},
    {TCP_STATUS_TOO_MANY_FILES, 34},
    {TCP_STATUS_NOT_SUPPORTED, 67},
};

constexpr int ERROR_CANCELED = 35;
constexpr int ERROR_TOO_LARGE = 8;

// Where the address and option bytes sit inside their parameter blocks.
constexpr std::size_t ADDRESS_BYTES_OFFSET = 16;
constexpr std::size_t OPTION_BYTES_OFFSET = 32;
constexpr std::size_t SEND_BLOCK_SIZE = sizeof(TcpTransferParams);

// Holds the shared channel's lock for one command; a lock that fails ends the task.
class SharedChannel {
public:
    explicit SharedChannel(Device* device) : io_(device->shared_io)
    {
        if (MutexLock(io_->lock) != MUTEX_OK)
            DeleteTask(0);
    }
    ~SharedChannel()
    {
        if (MutexUnlock(io_->lock) != MUTEX_OK)
            DeleteTask(0);
    }
    SharedChannel(const SharedChannel&) = delete;
    SharedChannel& operator=(const SharedChannel&) = delete;

    bool fits(std::uint64_t needed) const { return needed <= io_->params_size; }
    std::uint8_t* block() const { return static_cast<std::uint8_t*>(io_->params); }
    std::uint64_t size() const { return io_->params_size; }

    // Runs command over the parameter area. True on success; errno holds the translated status
    // otherwise.
    bool run(std::uint32_t command)
    {
        if (!start_and_wait(command)) {
            errno = __libci_tcpip_translate_error(io_->request->error);
            return false;
        }
        return true;
    }

    bool start_and_wait(std::uint32_t command)
    {
        io_->request->params = io_->params;
        io_->request->command = command;
        return SyncIO(io_->request) == IO_DONE;
    }

    std::uint32_t error() const { return io_->request->error; }

private:
    DeviceSharedIO* io_;
};

template <typename T> T* params_at(std::uint8_t* block) { return reinterpret_cast<T*>(block); }

// Bind and the two address queries share one block: socket, length, pointer to the bytes at 16.
int address_command(Device* device, std::uint32_t command, int socket, const void* in, void* out,
                    std::uint32_t* length)
{
    std::uint32_t in_length = *length;
    SharedChannel channel(device);
    if (!channel.fits(std::uint64_t{in_length} + ADDRESS_BYTES_OFFSET)) {
        errno = ERROR_TOO_LARGE;
        return 0;
    }
    std::uint8_t* block = channel.block();
    auto* params = params_at<TcpAddressParams>(block);
    params->socket = socket;
    params->length = in_length;
    params->address = block + ADDRESS_BYTES_OFFSET;
    if (in != nullptr)
        std::memcpy(block + ADDRESS_BYTES_OFFSET, in, in_length);
    if (!channel.run(command))
        return 0;
    if (out != nullptr) {
        std::uint32_t got = params->length;
        std::memcpy(out, block + ADDRESS_BYTES_OFFSET, got < in_length ? got : in_length);
        *length = got;
    }
    return 1;
}

} // namespace

int __libci_tcpip_translate_error(std::uint32_t status)
{
    for (const StatusRow& row : STATUS_TABLE) {
        if (row.status == status)
            return row.number;
    }
    if ((status & 0xff000000) == STATUS_CARRIES_ERRNO)
        return static_cast<int>(status & 0x00ffffff);
    return ERROR_CANCELED;
}

int td_trans_ec(std::uint32_t status) { return __libci_tcpip_translate_error(status); }

int td_sockcreat(Device* device, std::uint32_t domain, std::uint32_t type, std::uint32_t protocol)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(TcpCreateParams))) {
        errno = ERROR_TOO_LARGE;
        return -1;
    }
    auto* params = params_at<TcpCreateParams>(channel.block());
    params->domain = domain;
    params->type = type;
    params->protocol = protocol;
    if (!channel.run(TCP_CREATE))
        return -1;
    return params->socket;
}

int td_sockclose(Device* device, int socket)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(TcpSocketParams))) {
        errno = ERROR_TOO_LARGE;
        return 0;
    }
    params_at<TcpSocketParams>(channel.block())->socket = socket;
    return channel.run(TCP_CLOSE) ? 1 : 0;
}

int td_sockbind(Device* device, int socket, const void* address, std::uint32_t length)
{
    return address_command(device, TCP_BIND, socket, address, nullptr, &length);
}

int td_sockgetname(Device* device, int socket, void* address, std::uint32_t* length)
{
    return address_command(device, TCP_GETNAME, socket, nullptr, address, length);
}

int td_sockgetpeer(Device* device, int socket, void* address, std::uint32_t* length)
{
    return address_command(device, TCP_GETPEER, socket, nullptr, address, length);
}

int td_socklisten(Device* device, int socket, std::uint32_t backlog)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(TcpListenParams))) {
        errno = ERROR_TOO_LARGE;
        return 0;
    }
    auto* params = params_at<TcpListenParams>(channel.block());
    params->socket = socket;
    params->backlog = backlog;
    return channel.run(TCP_LISTEN) ? 1 : 0;
}

int td_socksetopt(Device* device, int socket, std::uint32_t level, std::uint32_t option, const void* value,
                  std::uint32_t length)
{
    SharedChannel channel(device);
    if (!channel.fits(std::uint64_t{length} + OPTION_BYTES_OFFSET)) {
        errno = ERROR_TOO_LARGE;
        return 0;
    }
    std::uint8_t* block = channel.block();
    auto* params = params_at<TcpSetOptParams>(block);
    params->socket = socket;
    params->level = level;
    params->option = option;
    params->value = block + OPTION_BYTES_OFFSET;
    params->value_length = length;
    if (length != 0)
        std::memcpy(block + OPTION_BYTES_OFFSET, value, length);
    return channel.run(TCP_SETOPT) ? 1 : 0;
}

int td_inheritparsocks(Device* device, std::uint32_t flag)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(TcpInheritParams))) {
        errno = ERROR_TOO_LARGE;
        return 0;
    }
    params_at<TcpInheritParams>(channel.block())->flag = flag;
    return channel.run(TCP_INHERIT) ? 1 : 0;
}

std::int64_t td_send(Device* device, int socket, const void* data, std::uint64_t length, std::uint32_t flags)
{
    SharedChannel channel(device);
    if (length == 0)
        return -1;
    // An area too small for one byte behind the block could never make progress.
    if (!channel.fits(SEND_BLOCK_SIZE + 1)) {
        errno = ERROR_TOO_LARGE;
        return -1;
    }
    const std::uint64_t piece_size = channel.size() - SEND_BLOCK_SIZE;
    std::uint8_t* block = channel.block();
    auto* params = params_at<TcpTransferParams>(block);
    const auto* bytes = static_cast<const std::uint8_t*>(data);

    std::int64_t total = -1;
    std::uint64_t offset = 0;
    bool first = true;
    for (;;) {
        std::uint64_t left = length - offset;
        std::uint64_t piece = left < piece_size ? left : piece_size;
        std::memset(params, 0, SEND_BLOCK_SIZE);
        params->socket = socket;
        params->data = block + SEND_BLOCK_SIZE;
        params->length = piece;
        // The more-data hint goes on middle pieces only: the first never has it, nor the last.
        params->flags = flags | (!first && piece < left ? MSG_MORE_VALUE : 0);
        std::memcpy(block + SEND_BLOCK_SIZE, bytes + offset, piece);

        bool ok = channel.start_and_wait(TCP_SEND);
        if (!ok && total == -1) {
            errno = __libci_tcpip_translate_error(channel.error());
            return -1;
        }
        std::uint64_t result = params->result;
        total = (total == -1 ? 0 : total) + static_cast<std::int64_t>(result);
        offset += piece;
        if (result != piece || offset == length)
            return total;
        first = false;
    }
}

} // namespace orlix
