// ioctl: every request goes to the VFS device; the client knows only how many bytes each request
// carries and in which direction. And isatty over it. System code.
#include <cstring>

#include "runtime/fd.h"
#include "runtime/io.h"

namespace orlix {

namespace {

constexpr std::uint8_t RESTART = 1;
constexpr std::uint64_t IOCTL_VARIABLE = 0x5301;

enum class Direction { none, in, in_back, value, variable, unknown };

struct Shape {
    Direction direction;
    std::uint32_t bytes;
};

Shape shape_of(std::uint64_t request)
{
    switch (request) {
    case 0x5410: case 0x5411: case 0x5422: case 0x5427: case 0x5428: case 0x4408: case 0x5304:
        return {Direction::none, 0};
    case 0x5401:
        return {Direction::in_back, 60};
    case 0x5402: case 0x5403: case 0x5404:
        return {Direction::in, 60};
    case 0x5405: case 0x5406: case 0x5407: case 0x5431:
        return {Direction::in, 4};
    case 0x5412: case 0x461b: case 0x5426: case 0x5430: case 0x5432: case 0x4406: case 0x4407: case 0x4409:
    case 0x5320:
        return {Direction::in_back, 4};
    case 0x5413: case 0x5423: case 0x5425: case 0x4402: case 0x4404: case 0x4405:
        return {Direction::in_back, 8};
    case 0x5414: case 0x5424:
        return {Direction::in, 8};
    case 0x5421:
        return {Direction::value, 4};
    case 0x4401:
        return {Direction::in_back, 16};
    case 0x4403:
        return {Direction::in_back, 128};
    case 0x6b01: case 0x5302: case 0x5303:
        return {Direction::in_back, 32};
    case 0x6b02:
        return {Direction::in, 32};
    case IOCTL_VARIABLE:
        return {Direction::variable, 0};
    default:
        if (request >= 0x5310 && request <= 0x531f)
            return {request % 2 == 0 ? Direction::in_back : Direction::in, 32};
        return {Direction::unknown, 0};
    }
}

// The record of request 0x5301: a length and a buffer.
struct VariableRecord {
    std::uint32_t length;
    char* buffer;
};

// Writes the payload of request 0x5301; false with errno 8 when it doesn't fit.
bool fill_variable(IoSlot* slot, std::uint8_t* payload, VfsIoctlParams* p, const VariableRecord* record)
{
    if (record->buffer != nullptr) {
        if (std::uint64_t{record->length} + 40 > slot->data_size) {
            errno = ERR_OVERFLOW;
            return false;
        }
        std::memcpy(payload, &record->length, 4);
        std::memcpy(payload + 4, record->buffer, record->length);
        p->payload_length = std::uint64_t{record->length} + 4;
        return true;
    }
    auto room = static_cast<std::uint32_t>(slot->data_size - 36);
    std::memcpy(payload, &room, 4);
    std::memset(payload + 4, 0, room);
    p->payload_length = std::uint64_t{room} + 4;
    return true;
}

void copy_back_variable(const std::uint8_t* payload, VariableRecord* record)
{
    std::uint32_t asked = record->length;
    std::memcpy(&record->length, payload, 4);
    if (record->buffer != nullptr)
        std::memcpy(record->buffer, payload + 4, asked);
}

} // namespace

int ioctl(int fd, std::uint64_t request, std::uint64_t argument)
{
    Shape shape = shape_of(request);
    if (shape.direction == Direction::unknown) {
        errno = ERR_INVAL;
        return -1;
    }
    return static_cast<int>(__vfs_call(
        VFS_IOCTL, RESTART,
        [&](ThreadRecord*, IoSlot* slot) {
            auto* p = __io_params<VfsIoctlParams>(slot);
            auto* payload = reinterpret_cast<std::uint8_t*>(p) + sizeof(VfsIoctlParams);
            p->fd = fd;
            p->request = request;
            p->payload = payload;
            p->payload_length = shape.bytes;
            switch (shape.direction) {
            case Direction::in:
            case Direction::in_back:
                std::memcpy(payload, reinterpret_cast<const void*>(argument), shape.bytes);
                return true;
            case Direction::value: {
                auto value = static_cast<std::uint32_t>(argument);
                std::memcpy(payload, &value, 4);
                return true;
            }
            case Direction::variable:
                return fill_variable(slot, payload, p, reinterpret_cast<const VariableRecord*>(argument));
            default:
                return true;
            }
        },
        [&](IoSlot* slot) -> std::int64_t {
            auto* payload = __io_params<std::uint8_t>(slot) + sizeof(VfsIoctlParams);
            if (shape.direction == Direction::in_back)
                std::memcpy(reinterpret_cast<void*>(argument), payload, shape.bytes);
            else if (shape.direction == Direction::variable)
                copy_back_variable(payload, reinterpret_cast<VariableRecord*>(argument));
            return 0;
        }));
}

int isatty(int fd)
{
    std::uint8_t buffer[8] = {};
    return ioctl(fd, IOCTL_IS_TERMINAL, reinterpret_cast<std::uint64_t>(buffer)) == 0 ? 1 : 0;
}

} // namespace orlix
