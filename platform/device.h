// Devices: the record of an open device, its shared channel, and the messages of opening and
// of the life of a request block. Wire formats, shared with the device services.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/ioreq.h"
#include "platform/kernel.h"
#include "platform/mutex.h"

namespace orlix {

// The device-wide channel for short commands; it comes with the Device.
struct DeviceSharedIO {
    Mutex* lock;
    std::uint64_t device_word;
    IOreq* request;
    void* params;
    std::uint64_t params_size;
};
static_assert(offsetof(DeviceSharedIO, lock) == 0);
static_assert(offsetof(DeviceSharedIO, request) == 16);
static_assert(offsetof(DeviceSharedIO, params) == 24);
static_assert(offsetof(DeviceSharedIO, params_size) == 32);

// The record of an open device. The device service provides it; the words not named are its own.
struct Device {
    std::uint64_t device_words0[4];
    std::uint64_t open_state;        // must be non-zero, else the open failed
    std::uint64_t device_words1[5];
    Handle create_lock;              // semaphore serialising creation and deletion of blocks
    std::uint64_t device_words2[3];
    Handle request_port;             // every message for the device goes here
    std::uint64_t device_words3[1];
    Handle create_reply_port;        // replies to create and delete arrive here
    std::uint64_t device_words4[8];
    DeviceSharedIO* shared_io;
};
static_assert(offsetof(Device, open_state) == 32);
static_assert(offsetof(Device, create_lock) == 80);
static_assert(offsetof(Device, request_port) == 112);
static_assert(offsetof(Device, create_reply_port) == 128);
static_assert(offsetof(Device, shared_io) == 200);
static_assert(sizeof(Device) == 208);

// Opening and the life of a block.
inline constexpr std::uint64_t MSG_DEVICE_OPEN = 0x20d00;     // word1 reply port, word2 task
inline constexpr std::uint64_t MSG_DEVICE_OPENED = 0x20d01;   // word2 the Device, 0 on refusal
inline constexpr std::uint64_t MSG_DEVICE_CLOSE = 0x20d10;    // word1 0, word2 reply port
inline constexpr std::uint64_t MSG_DEVICE_CLOSED = 0x20d11;
inline constexpr std::uint64_t MSG_IOREQ_CREATE = 0x21d10;    // word1 the Device, word2 size
inline constexpr std::uint64_t MSG_IOREQ_CREATED = 0x21d11;   // word2 the IOreq, 0 on refusal
inline constexpr std::uint64_t MSG_IOREQ_DELETE = 0x21d20;    // word1 the Device, word2 id
inline constexpr std::uint64_t MSG_IOREQ_DELETED = 0x21d21;
inline constexpr std::uint64_t MSG_IOREQ_DELETE_ASYNC = 0x21da1; // word1 0, word2 id; no answer

// Raw messages to the log device.
inline constexpr std::uint64_t MSG_LOG_DEVICE_LACK = 0xd0510001;  // word1 "!devlack", word2 the name
inline constexpr std::uint64_t MSG_LOG_THREAD_ALARM = 0xd0510002; // word1, word2: sixteen letters

// Messages to the supervisor.
inline constexpr std::uint64_t MSG_SUPERVISOR_STARTED = 0xd0030001; // word1 task id
inline constexpr std::uint64_t MSG_SUPERVISOR_EXIT = 0xd0030002;    // word1 task id, word2 status

// Registry commands.
inline constexpr std::uint32_t REG_CREATE_TMP = 0xc0020011;
inline constexpr std::uint32_t REG_GET_KEY = 0xc0020021;
inline constexpr std::uint32_t REG_SET_KEY_BIN = 0xc0020022;
inline constexpr std::uint32_t REG_CREATE_GUARD = 0xc0020033;

// Log device command.
inline constexpr std::uint32_t LOG_WRITE = 0xc0510001;

} // namespace orlix
