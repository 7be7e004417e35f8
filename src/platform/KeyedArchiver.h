#pragma once
/// \file
/// Keyed archiving (NSKeyedArchiver / NSKeyedUnarchiver) of values.
///
/// Archive format, version 1: the four bytes "qvka", one version byte 0x01,
/// then the value encoded as CBOR (RFC 8949): maps keep their key order,
/// integers and floating-point numbers keep their kind, data is a byte string
/// and the null object is CBOR null. Decoding is round-trip exact.

#include <optional>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// The archive of `root` (archivedDataWithRootObject:).
QUORVIA_EXPORT Bytes archivedDataWithRootObject(const Value& root);

/// The value archived in `data`, or nullopt (nil) when `data` is not a
/// well-formed archive of this format (unarchiveObjectWithData:). Never throws.
QUORVIA_EXPORT std::optional<Value> unarchiveObjectWithData(const Bytes& data);

}  // namespace quorvia::platform
