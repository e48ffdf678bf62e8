// Between the interface's platform shapes (BSTR, VARIANT arrays, byte blocks) and the wire's
// arguments, for the proxy and the stub alike, driven by the kinds of the method table.
#pragma once

#include <capnp/blob.h>
#include <capnp/list.h>

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "MVCore.h"
#include "frame/server_methods.h"
#include "platform/file_system.h"
#include "platform/wide.h"
#include "rpc/book_server.capnp.h"

namespace mv::rpc {

// What both ends must agree on before the first call: the format of the schema, and the method
// table's signature (serverMethodsSignature()).
inline constexpr uint32_t kWireFormat = 3;

// The call names a method number the other end does not have.
inline constexpr int32_t kStatusUnknownMethod = static_cast<int32_t>(0x800706D1u);
// The call's or the answer's arguments are not of the count or shapes the method takes.
inline constexpr int32_t kStatusBadArguments = static_cast<int32_t>(0x800706F7u);
// The daemon and the library were built with different wires or method tables.
inline constexpr int32_t kStatusWireMismatch = static_cast<int32_t>(0x800706B5u);
// Memory ran out while building a request or an answer's arrays.
inline constexpr int32_t kStatusOutOfMemory = static_cast<int32_t>(0x8007000Eu);

// The bytes of a BSTR's text, without a copy; an empty view for null.
capnp::Data::Reader bytesOf(BSTR text);
// A new BSTR (the caller's) from UTF-16LE bytes; an odd trailing byte is dropped.
BSTR toBstr(capnp::Data::Reader bytes);

// How many texts an array of texts (BSTRs or variants holding them) has: 0 for anything else.
uint32_t textCount(const VARIANT* v);
// Its text `i`; null for a non-text element or past the end.
BSTR textAt(const VARIANT* v, uint32_t i);

// "wire W with methods M", for the refusals of a login on either end.
std::string describeWire(uint32_t wire, uint64_t methods);

// Whether an argument has a shape its kind may take, going in (`request`) or coming back.
bool fits(ArgKind kind, Arg::Reader arg, bool request);

// --- the proxy's side ----------------------------------------------------------------------
// Puts what the caller's argument carries in; `goodBytes` is the call's GoodBytes argument.
void encodeIn(ArgKind kind, const ArgRef& ref, int32_t goodBytes, Arg::Builder out);
// Hands what came back to the caller's argument: out-only kinds only after a success, a null
// pointer never. False when memory runs out.
bool decodeOut(ArgKind kind, Arg::Reader in, const ArgRef& ref, bool succeeded);

// A row of texts, out of an answer and into a caller's variant.
bool setRow(VARIANT* row, Row::Reader in);

// --- the stub's side -----------------------------------------------------------------------
// One argument as the daemon hands it to its session: storage of the kind's shape, filled from
// the request, and written into the answer after the call.
class HeldArg {
 public:
  HeldArg() = default;
  HeldArg(const HeldArg&) = delete;
  HeldArg& operator=(const HeldArg&) = delete;

  // `arg` must fit the kind (fits()). A received block is lent, not copied: the request must
  // outlive the call.
  bool load(ArgKind kind, Arg::Reader arg);
  ArgRef ref(ArgKind kind);
  void store(ArgKind kind, Arg::Builder out) const;

 private:
  bool present_ = false;
  Bstr text_;
  int32_t int_ = 0;
  int64_t long_ = 0;
  double real_ = 0;
  std::array<uint8_t, 16> block16_{};
  Variant variant_;  // a received block lies here as a view of the request's bytes
};

// A row of texts from the session into an answer, and the bytes it adds to one.
void copyRow(const VARIANT* row, Row::Builder out);
std::size_t rowBytes(const VARIANT* row);

// A file's description as the file service sends it, and back.
void putEntry(const fs::FileInfo& info, FileEntry::Builder entry);
fs::FileInfo takeEntry(FileEntry::Reader entry);

}  // namespace mv::rpc
