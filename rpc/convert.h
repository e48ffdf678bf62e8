// Between the interface's platform shapes (BSTR, VARIANT arrays of texts, byte blocks) and the
// wire's: texts as UTF-16LE bytes, rows as lists of them. Shared by the proxy and the stub.
#pragma once

#include <capnp/blob.h>
#include <capnp/list.h>

#include <cstdint>

#include "MVCore.h"
#include "rpc/book_server.capnp.h"

namespace mv::rpc {

// The bytes of a BSTR's text, without a copy; an empty view for null.
capnp::Data::Reader bytesOf(BSTR text);
// A new BSTR (the caller's) from UTF-16LE bytes; an odd trailing byte is dropped.
BSTR toBstr(capnp::Data::Reader bytes);
// Replaces the text in a holder the caller owns.
void putBstr(BSTR* holder, capnp::Data::Reader bytes);

// How many elements an array of texts (variants holding BSTRs, or BSTRs) has; 0 for a variant
// that is no such array.
uint32_t textCount(const VARIANT* v);
// Copies the array's texts into a list made with textCount() elements; a non-text element
// travels as an empty text.
void copyTexts(const VARIANT* v, capnp::List<capnp::Data>::Builder list);
// Makes `v` an array of variants holding the list's texts (the caller clears it).
bool setTexts(VARIANT* v, capnp::List<capnp::Data>::Reader list);

// A row for GetRecords: the server's row variant into a Row, and back.
void copyRow(const VARIANT* row, Row::Builder out);
bool setRow(VARIANT* row, Row::Reader in);

// A whole variant of the kinds the interface fills (empty, texts, 32-bit integers).
void copyValue(const VARIANT* v, Value::Builder out);
bool setValue(VARIANT* v, Value::Reader in);

// Blocks: the good bytes of an array of bytes, and a new array from bytes. A block that is not
// present leaves the variant empty.
capnp::Data::Reader blockBytes(const VARIANT* v, uint32_t good);
void copyBlock(const VARIANT* v, Block::Builder out);
bool setBlock(VARIANT* v, Block::Reader in);

}  // namespace mv::rpc
