// Sessions of the embedded book server over a private data folder, and the texts, records and
// blocks that cross its interface, built here independently of the library's own encoders so
// that a shared mistake cannot hide on both sides.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "frame/IBookServer.h"
#include "platform/wide.h"
#include "server/core/server_core.h"

namespace mvtest::server {

inline constexpr char kSystemDb[] = "MarvekSystemCommonDB";
inline constexpr char kBook[] = "BOOK1123000001";
inline constexpr int32_t kBlockSize = 307200;

struct ReleaseSession {
  void operator()(mv::IBookServer* server) const { server->Release(); }
};
using Session = std::unique_ptr<mv::IBookServer, ReleaseSession>;

// A BSTR argument that lives until the end of the full expression using it.
class In {
 public:
  explicit In(std::string_view utf8);
  operator BSTR() const { return text_.get(); }

 private:
  mv::Bstr text_;
};

std::string utf8(const mv::Bstr& text);
// The last failure's text of a session.
std::string lastError(mv::IBookServer& server);
bool hasNonAscii(std::string_view text);

// "KEY=" name TAB typecode TAB value.
std::string field(std::string_view name, int typecode, std::string_view value);
// [DBNAME=.., TABLENAME=<handle>, MSTKEY=<key>, KEY=<column>]
std::vector<std::string> blockRecord(std::string_view db, std::string_view handle, int32_t key,
                                     std::string_view column);

// An array of variants holding texts.
class TextArray {
 public:
  explicit TextArray(const std::vector<std::string>& texts);
  VARIANT* get() { return value_.get(); }

 private:
  mv::Variant value_;
};

// An array of `capacity` bytes whose first bytes are `data`, the rest zero.
class ByteBlock {
 public:
  ByteBlock(const uint8_t* data, std::size_t size, std::size_t capacity);
  VARIANT* get() { return value_.get(); }

 private:
  mv::Variant value_;
};

// Contents of answer arrays; a test failure when the variant has another shape.
std::vector<std::string> texts(const VARIANT& v);
std::vector<int32_t> ints(const VARIANT& v);
std::vector<uint8_t> bytes(const VARIANT& v);

// Bytes no two sizes or seeds share by accident.
std::vector<uint8_t> pattern(std::size_t size, uint32_t seed);
// Equal bytes; a failure names the sizes only, as a dump of megabytes helps nobody.
::testing::AssertionResult sameBytes(const std::vector<uint8_t>& actual,
                                     const std::vector<uint8_t>& expected);

struct Opened {
  int32_t status = -1;
  int32_t rows = -1;
  std::string handle;
};
Opened openTable(mv::IBookServer& server, std::string_view db, std::string_view table);
Opened executeQuery(mv::IBookServer& server, std::string_view db, std::string_view sql);
Opened openTableEx(mv::IBookServer& server, std::string_view db, std::string_view table,
                   std::string_view sql);
int32_t closeTable(mv::IBookServer& server, std::string_view db, std::string_view handle);

// The elements of one row of a handle; the status of GetRecords.
int32_t getRow(mv::IBookServer& server, std::string_view db, std::string_view handle, int32_t row,
               std::vector<std::string>& elements);

// Every row of a query, as column name to value text; a test failure when it does not run.
using Row = std::map<std::string, std::string>;
std::vector<Row> select(mv::IBookServer& server, std::string_view db, std::string_view sql);
std::vector<std::string> column(const std::vector<Row>& rows, const std::string& name);

int32_t addRecord(mv::IBookServer& server, std::string_view db, std::string_view handle,
                  const std::vector<std::string>& fields, int32_t* key);
int32_t updateRecord(mv::IBookServer& server, std::string_view db, std::string_view handle,
                     const std::vector<std::string>& fields, int32_t key);
// Adds one row through a handle of its own; the new key, or -1 with a test failure.
int32_t addRow(mv::IBookServer& server, std::string_view db, std::string_view table,
               const std::vector<std::string>& fields);

// How a series of upload blocks ends.
enum class Ending {
  LastFlag,        // the block with the final bytes says isLast
  EmptyLastBlock,  // then an empty block says isLast
  NoLastFlag,      // no block says isLast
};
// Sends `data` in blocks of kBlockSize; the first failing status, or 0.
int32_t upload(mv::IBookServer& server, std::string_view db, std::string_view handle, int32_t key,
               std::string_view column, const std::vector<uint8_t>& data, Ending ending);
// Reads a blob from block 1 on until the server says it ended or sends no array.
int32_t download(mv::IBookServer& server, std::string_view db, std::string_view handle,
                 std::string_view column, int32_t row, std::vector<uint8_t>& data);
// The blob of the row with that key, read through a query handle of its own.
std::vector<uint8_t> storedBlob(mv::IBookServer& server, std::string_view db,
                                std::string_view table, int32_t key, std::string_view column);

// A data folder of its own for every test, a server core over it and a first session.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  Session connect();
  const std::string& folder() const { return folder_; }
  // Ends the first session and the core, then serves the folder anew (a restarted server).
  void reopen();

  std::shared_ptr<mv::server::ServerCore> core;
  Session s;

 private:
  std::string folder_;
};

}  // namespace mvtest::server
