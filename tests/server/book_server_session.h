// Sessions of the embedded book server over a private data folder. Texts, records and blocks are
// built here independently of the library's encoders, so that a shared mistake cannot hide.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "frame/IBookServer.h"
#include "platform/utf.h"
#include "platform/wide.h"
#include "server/core/book_server.h"
#include "server/core/server_core.h"
#include "server/sqlite/sqlite_engine.h"
#include "temp_folder.h"

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
using Row = std::map<std::string, std::string>;

// A BSTR argument that lives until the end of the full expression using it.
class In {
 public:
  explicit In(std::string_view utf8) : text_(mv::Bstr::adopt(mv::utf8ToBstr(utf8))) {}
  operator BSTR() const { return text_.get(); }

 private:
  mv::Bstr text_;
};

struct TextArray : mv::Variant {
  explicit TextArray(const std::vector<std::string>& texts) {
    EXPECT_TRUE(makeArray(MV_VT_VARIANT, static_cast<uint32_t>(texts.size())));
    for (std::size_t i = 0; i < texts.size(); ++i) {
      auto& element = static_cast<VARIANT*>(get()->parray->pvData)[i];
      element.vt = MV_VT_BSTR;
      element.bstrVal = mv::utf8ToBstr(texts[i]);
    }
  }
};
// `capacity` bytes whose first `size` are `data`.
struct ByteBlock : mv::Variant {
  ByteBlock(const uint8_t* data, std::size_t size, std::size_t capacity) {
    EXPECT_TRUE(makeArray(MV_VT_UI1, static_cast<uint32_t>(capacity)));
    if (size > 0) std::memcpy(get()->parray->pvData, data, size);
  }
};

struct Opened {
  int32_t status = -1, rows = -1;
  std::string handle;
};

// Where an upload series says isLast: on its final bytes, on an extra empty block, nowhere.
enum class Ending { LastFlag, EmptyLastBlock, NoLastFlag };

inline std::string utf8(const mv::Bstr& text) { return mv::bstrToUtf8(text.get()); }

inline std::string lastError(Server& server) {
  mv::Bstr message;
  EXPECT_EQ(server.GetLastError(message.out()), 0);
  return utf8(message);
}

inline std::string field(std::string_view name, int typecode, std::string_view value) {
  return "KEY=" + std::string(name) + "\t" + std::to_string(typecode) + "\t" + std::string(value);
}

// The elements of an answer array of `type`; none, with a test failure, for another shape.
template <typename T>
inline std::vector<T> elements(const VARIANT& v, VARTYPE type) {
  EXPECT_EQ(v.vt, MV_VT_ARRAY | type);
  std::vector<T> out;
  for (uint32_t i = 0; v.vt == (MV_VT_ARRAY | type) && i < mv::safeArrayCount(v.parray); ++i) {
    if constexpr (std::is_same_v<T, uint8_t>) {
      out.push_back(static_cast<const uint8_t*>(v.parray->pvData)[i]);
    } else {
      const VARIANT& e = static_cast<const VARIANT*>(v.parray->pvData)[i];
      EXPECT_EQ(e.vt, (std::is_same_v<T, int32_t> ? MV_VT_I4 : MV_VT_BSTR)) << "element " << i;
      if constexpr (std::is_same_v<T, int32_t>) out.push_back(e.vt == MV_VT_I4 ? e.lVal : 0);
      if constexpr (!std::is_same_v<T, int32_t>) {
        out.push_back(e.vt == MV_VT_BSTR ? mv::bstrToUtf8(e.bstrVal) : "");
      }
    }
  }
  return out;
}
inline std::vector<std::string> texts(const VARIANT& v) {
  return elements<std::string>(v, MV_VT_VARIANT);
}
inline Bytes bytes(const VARIANT& v) { return elements<uint8_t>(v, MV_VT_UI1); }

// Bytes no two sizes or seeds share by accident.
inline Bytes pattern(std::size_t size, uint32_t seed) {
  Bytes out(size);
  uint32_t x = seed * 2654435761u + 1;
  for (uint8_t& b : out) b = static_cast<uint8_t>((x = x * 1103515245u + 12345u) >> 16);
  return out;
}

// OpenTable without `sql`, ExecuteQuery without `table`, else OpenTableEx.
inline Opened open(Server& server, std::string_view db, std::string_view table,
                   std::string_view sql = "") {
  Opened o;
  mv::Bstr handle;
  o.status = sql.empty() ? server.OpenTable(In(db), In(table), 0, &o.rows, handle.out())
             : table.empty()
                 ? server.ExecuteQuery(In(db), In(""), In(sql), 0, &o.rows, handle.out())
                 : server.OpenTableEx(In(db), In(table), In(sql), 0, &o.rows, handle.out());
  o.handle = utf8(handle);
  return o;
}

inline int32_t closeTable(Server& server, std::string_view db, std::string_view handle) {
  return server.CloseTable(In(db), In(handle));
}

inline int32_t getRow(Server& server, std::string_view db, std::string_view handle, int32_t row,
                      std::vector<std::string>& elements) {
  mv::Variant value;
  const int32_t status = server.GetRecords(In(db), In(handle), row, value.get());
  elements = status == 0 ? texts(*value.get()) : std::vector<std::string>{};
  return status;
}

// Every row of a query, as column name to value text.
inline std::vector<Row> select(Server& server, std::string_view db, std::string_view sql) {
  const Opened q = open(server, db, "", sql);
  EXPECT_EQ(q.status, 0) << sql << ": " << lastError(server);
  std::vector<Row> rows;
  for (int32_t i = 0; i < q.rows; ++i) {
    std::vector<std::string> elements;
    EXPECT_EQ(getRow(server, db, q.handle, i, elements), 0);
    Row& row = rows.emplace_back();
    for (const std::string& e : elements) {
      const std::size_t tab1 = e.find('\t'), tab2 = e.find('\t', tab1 + 1);
      EXPECT_TRUE(e.starts_with("KEY=") && tab2 != std::string::npos) << e;
      if (tab2 != std::string::npos) row[e.substr(4, tab1 - 4)] = e.substr(tab2 + 1);
    }
  }
  if (q.status == 0) {
    EXPECT_EQ(closeTable(server, db, q.handle), 0);
  }
  return rows;
}

// One column of a query's rows, joined by spaces.
inline std::string column(Server& server, std::string_view db, std::string_view sql,
                          const std::string& name) {
  std::string out;
  for (const Row& row : select(server, db, sql)) {
    const auto it = row.find(name);
    out += (out.empty() ? "" : " ") + (it == row.end() ? "<missing>" : it->second);
  }
  return out;
}

// AddRecord, or UpdateRecord of row *key, of TABLENAME=handle and the fields.
inline int32_t writeRecord(Server& server, std::string_view db, std::string_view handle,
                           const std::vector<std::string>& fields, int32_t* key,
                           bool update = false) {
  std::vector<std::string> all{"TABLENAME=" + std::string(handle)};
  all.insert(all.end(), fields.begin(), fields.end());
  TextArray r(all);
  const auto count = static_cast<int32_t>(all.size());
  return update ? server.UpdateRecord(In(db), r.get(), count, key)
                : server.AddRecord(In(db), r.get(), count, key);
}

// The new row's key, or -1 with a test failure.
inline int32_t addRow(Server& server, std::string_view db, std::string_view table,
                      const std::vector<std::string>& fields) {
  const Opened t = open(server, db, table);
  EXPECT_EQ(t.status, 0) << db << "." << table << ": " << lastError(server);
  int32_t key = -1;
  EXPECT_EQ(writeRecord(server, db, t.handle, fields, &key), 0) << lastError(server);
  EXPECT_EQ(closeTable(server, db, t.handle), 0);
  return key;
}

// The first failing status, or 0.
inline int32_t upload(Server& server, std::string_view db, std::string_view handle, int32_t key,
                      std::string_view column, const Bytes& data,
                      Ending ending = Ending::LastFlag) {
  TextArray target({"DBNAME=" + std::string(db), "TABLENAME=" + std::string(handle),
                    "MSTKEY=" + std::to_string(key), "KEY=" + std::string(column)});
  int32_t blockNo = 1;
  std::size_t offset = 0;
  do {
    const std::size_t n = std::min<std::size_t>(data.size() - offset, kBlockSize);
    const bool last = offset + n == data.size() && ending == Ending::LastFlag;
    ByteBlock block(data.data() + offset, n, kBlockSize);
    const int32_t status = server.UpLoadData(target.get(), blockNo++, static_cast<int32_t>(n),
                                             block.get(), last ? 1 : 0);
    if (status != 0) return status;
    offset += n;
  } while (offset < data.size());
  if (ending != Ending::EmptyLastBlock) return 0;
  ByteBlock empty(nullptr, 0, kBlockSize);
  return server.UpLoadData(target.get(), blockNo, 0, empty.get(), 1);
}

// Reads from block 1 until the server says the blob ended or sends no array.
inline int32_t download(Server& server, std::string_view db, std::string_view handle,
                        std::string_view column, int32_t row, Bytes& data) {
  data.clear();
  for (int32_t blockNo = 1; blockNo <= 1000; ++blockNo) {
    mv::Variant block;
    int32_t isEnd = 0, count = 0;
    const int32_t status = server.DownLoadData(In(db), In(handle), In(column), row, blockNo,
                                               kBlockSize, block.get(), &isEnd, &count);
    if (status != 0) return status;
    if (block.get()->vt == MV_VT_EMPTY) return 0;
    const Bytes piece = bytes(*block.get());
    EXPECT_EQ(static_cast<std::size_t>(count), piece.size()) << "block " << blockNo;
    data.insert(data.end(), piece.begin(), piece.end());
    if (isEnd) return 0;
  }
  ADD_FAILURE() << "the blob never ended";
  return -1;
}

// The blob of the row with that key, read through a query handle of its own.
inline Bytes storedBlob(Server& server, std::string_view db, std::string_view table, int32_t key,
                        std::string_view column = "RealityData") {
  const Opened q =
      open(server, db, "",
           "SELECT * FROM " + std::string(table) + " WHERE T_Index = " + std::to_string(key));
  EXPECT_EQ(q.status, 0) << lastError(server);
  EXPECT_EQ(q.rows, 1);
  Bytes data;
  if (q.status != 0 || q.rows != 1) return data;
  EXPECT_EQ(download(server, db, q.handle, column, 0, data), 0) << lastError(server);
  EXPECT_EQ(closeTable(server, db, q.handle), 0);
  return data;
}

// A data folder of its own for every test, a server core over it and a first session.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override { reopen(); }
  void TearDown() override {
    s.reset();
    core.reset();
  }
  Session connect() { return Session(new mv::server::BookServer(core)); }
  const std::string& folder() const { return folder_.path(); }
  // A restarted server: the first session and the core end, the folder is served anew.
  void reopen() {
    s.reset();
    core.reset();
    std::string error;
    core = mv::server::ServerCore::open(folder_.path(), {}, mv::server::openSqliteEngine, error);
    ASSERT_TRUE(core) << error;
    s = connect();
  }
  int32_t exists(std::string_view db) {
    int32_t out = 0;
    return s->OpenDatabase(In(db), mv::kOpenTestExists, &out);
  }
  void createBook(const char* db, const char* from = "") {
    ASSERT_EQ(s->CreateBookDatabase(In(from), In(""), In(db)), 0) << lastError(*s);
  }
  std::string tags(const char* db) {
    return column(*s, db, "SELECT * FROM TagPageTBL ORDER BY T_Index", "TagName");
  }
  std::shared_ptr<mv::server::ServerCore> core;
  Session s;

 private:
  TempFolder folder_{"server"};
};

}  // namespace mvtest::server
