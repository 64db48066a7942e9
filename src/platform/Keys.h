#pragma once

#include <cstdint>

/// Numbers in the platform's messages that all programs share: field keys, commands, services.
namespace lm {

namespace key {
// Transport fields.
inline constexpr uint32_t destination = 0x88ff0001;  ///< u32 array: service, handler
inline constexpr uint32_t source = 0x88ff0002;       ///< u32 array: service, handler
inline constexpr uint32_t serial = 0x08ff0003;       ///< u32, copied from request to reply
inline constexpr uint32_t isReply = 0x00ff0004;      ///< bool
inline constexpr uint32_t command = 0x08ff0007;      ///< u32
inline constexpr uint32_t errorCode = 0x08ff0008;    ///< u32, in an error reply only
inline constexpr uint32_t errorText = 0x20ff0009;    ///< string, in an error reply only

// Objects and paged answers.
inline constexpr uint32_t objectId = 0x08fe0001;  ///< u32
inline constexpr uint32_t records = 0xa8fe0002;   ///< message array: one page
inline constexpr uint32_t cursor = 0x08fe0003;    ///< u32: last id of this page
inline constexpr uint32_t dynamic = 0x00fe0007;   ///< bool: ends with its owner's connection
inline constexpr uint32_t disabled = 0x00fe000a;  ///< bool
inline constexpr uint32_t removed =
    0x08fe0013;  ///< u32: non-zero in the record of a removed object
}  // namespace key

namespace cmd {
inline constexpr uint32_t list = 1;
inline constexpr uint32_t readObject = 0xfe0002;
inline constexpr uint32_t setObject = 0xfe0003;
inline constexpr uint32_t readAll = 0xfe0004;
inline constexpr uint32_t addObject = 0xfe0005;
inline constexpr uint32_t removeObject = 0xfe0006;
inline constexpr uint32_t changed = 0xfe000b;          ///< notification
inline constexpr uint32_t get = 0xfe000d;              ///< read a handler's settings
inline constexpr uint32_t set = 0xfe000e;              ///< write a handler's settings
inline constexpr uint32_t interfaceChanged = 0x10004;  ///< notification
}  // namespace cmd

namespace service {
inline constexpr uint32_t broker = 0;
inline constexpr uint32_t resolver = 14;
inline constexpr uint32_t interfaces = 20;
inline constexpr uint32_t gateway = 40;
inline constexpr uint32_t identity = 65;
inline constexpr uint32_t history = 66;
}  // namespace service

/// Handlers of service::interfaces.
namespace handler {
inline constexpr uint32_t interfaces = 0;
inline constexpr uint32_t addresses = 1;
inline constexpr uint32_t natRules = 5;
inline constexpr uint32_t portLog = 6;
}  // namespace handler

/// The code of every error reply that a handler makes.
inline constexpr uint32_t errorRefused = 0xfe0009;

/// The cursor of the last page; also the id of a handler's settings.
inline constexpr uint32_t none = 0xFFFFFFFF;

}  // namespace lm
