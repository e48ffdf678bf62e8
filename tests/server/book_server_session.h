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
inline constexpr char kOther[] = "BOOK1123000002";
inline constexpr int32_t kBlockSize = 307200;

struct ReleaseSession {
  void operator()(mv::IBookServer* server) const { server->Release(); }
};
using Session = std::unique_ptr<mv::IBookServer, ReleaseSession>;
using Server = mv::IBookServer;
using Bytes = std::vector<uint8_t>;

// A BSTR argument that lives until the end of the full expression using it.
class In {
 public:
  explicit In(std::string_view utf8);
  operator BSTR() const { return text_.get(); }

 private:
  mv::Bstr text_;
};

std::string utf8(const mv::Bstr& text);
std::string lastError(Server& server);  // the last failure's text of a session
// "KEY=" name TAB typecode TAB value.
std::string field(std::string_view name, int typecode, std::string_view value);

// An array of variants holding texts, or of `capacity` bytes whose first bytes are `data`.
struct TextArray : mv::Variant {
  explicit TextArray(const std::vector<std::string>& texts);
};
struct ByteBlock : mv::Variant {
  ByteBlock(const uint8_t* data, std::size_t size, std::size_t capacity);
};
// Contents of answer arrays; a test failure when the variant has another shape.
std::vector<std::string> texts(const VARIANT& v);
std::vector<int32_t> ints(const VARIANT& v);
Bytes bytes(const VARIANT& v);

// Bytes no two sizes or seeds share by accident.
Bytes pattern(std::size_t size, uint32_t seed);
// Equal bytes; a failure names the sizes only, as a dump of megabytes helps nobody.
::testing::AssertionResult sameBytes(const Bytes& actual, const Bytes& expected);

struct Opened {
  int32_t status = -1;
  int32_t rows = -1;
  std::string handle;
};
// OpenTable without `sql`, ExecuteQuery without `table`, else OpenTableEx.
Opened open(Server& server, std::string_view db, std::string_view table, std::string_view sql = "");
int32_t closeTable(Server& server, std::string_view db, std::string_view handle);
// The elements of one row of a handle; the status of GetRecords.
int32_t getRow(Server& server, std::string_view db, std::string_view handle, int32_t row,
               std::vector<std::string>& elements);

// Every row of a query, as column name to value text; a test failure when it does not run.
using Row = std::map<std::string, std::string>;
std::vector<Row> select(Server& server, std::string_view db, std::string_view sql);
// One column of a query's rows, joined by spaces.
std::string column(Server& server, std::string_view db, std::string_view sql,
                   const std::string& name);

// AddRecord (or UpdateRecord of row *key) of TABLENAME=handle and the fields.
int32_t writeRecord(Server& server, std::string_view db, std::string_view handle,
                    const std::vector<std::string>& fields, int32_t* key, bool update = false);
// Adds one row through a handle of its own; the new key, or -1 with a test failure.
int32_t addRow(Server& server, std::string_view db, std::string_view table,
               const std::vector<std::string>& fields);

// How a series of upload blocks ends.
enum class Ending {
  LastFlag,        // the block with the final bytes says isLast
  EmptyLastBlock,  // then an empty block says isLast
  NoLastFlag,      // no block says isLast
};
// Sends `data` in blocks of kBlockSize; the first failing status, or 0.
int32_t upload(Server& server, std::string_view db, std::string_view handle, int32_t key,
               std::string_view column, const Bytes& data, Ending ending = Ending::LastFlag);
// Reads a blob from block 1 on until the server says it ended or sends no array.
int32_t download(Server& server, std::string_view db, std::string_view handle,
                 std::string_view column, int32_t row, Bytes& data);
// The blob of the row with that key, read through a query handle of its own.
Bytes storedBlob(Server& server, std::string_view db, std::string_view table, int32_t key,
                 std::string_view column = "RealityData");

// A data folder of its own for every test, a server core over it and a first session.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  Session connect();
  const std::string& folder() const { return folder_; }
  // Ends the first session and the core, then serves the folder anew (a restarted server).
  void reopen();
  // 0, or kStatusMissingDatabase.
  int32_t exists(std::string_view db) {
    int32_t out = 0;
    return s->OpenDatabase(In(db), mv::kOpenTestExists, &out);
  }
  void createBook(const char* db, const char* from = "") {
    ASSERT_EQ(s->CreateBookDatabase(In(from), In(""), In(db)), 0) << lastError(*s);
  }

  std::shared_ptr<mv::server::ServerCore> core;
  Session s;

 private:
  std::string folder_;
};

}  // namespace mvtest::server
