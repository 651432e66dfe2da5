#pragma once

// Methods of the cage socket that `qsfp-emu` serves for each emulated cage, in the framework's
// line protocol (JSON-RPC 2.0, one JSON text per line). A failed transfer answers with the
// negative errno as its code, which the client turns back into std::system_error.
//   "i2c_read"  {address, offset, length} -> "hex bytes"
//   "i2c_write" {address, offset, data: "hex bytes"} -> true
//   "pin_get"   {line} -> bool          "pin_set" {line, value} -> true
//   "present"   {} -> bool
//   "sfp_get"   {signal} -> bool        "sfp_set" {signal, value} -> true
//   signal: "tx_fault" | "tx_disable" | "los" | "rate_select"
namespace qsfpd::remote {

inline constexpr const char* i2c_read = "i2c_read";
inline constexpr const char* i2c_write = "i2c_write";
inline constexpr const char* pin_get = "pin_get";
inline constexpr const char* pin_set = "pin_set";
inline constexpr const char* present = "present";
inline constexpr const char* sfp_get = "sfp_get";
inline constexpr const char* sfp_set = "sfp_set";

}  // namespace qsfpd::remote
