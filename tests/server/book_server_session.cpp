#include "book_server_session.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "platform/utf.h"
#include "server/core/book_server.h"

namespace mvtest::server {

In::In(std::string_view utf8) : text_(mv::Bstr::adopt(mv::utf8ToBstr(utf8))) {}

std::string utf8(const mv::Bstr& text) { return mv::bstrToUtf8(text.get()); }

std::string lastError(mv::IBookServer& server) {
  mv::Bstr message;
  EXPECT_EQ(server.GetLastError(message.out()), 0);
  return utf8(message);
}

bool hasNonAscii(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
}

std::string field(std::string_view name, int typecode, std::string_view value) {
  return "KEY=" + std::string(name) + "\t" + std::to_string(typecode) + "\t" + std::string(value);
}

std::vector<std::string> blockRecord(std::string_view db, std::string_view handle, int32_t key,
                                     std::string_view column) {
  return {"DBNAME=" + std::string(db), "TABLENAME=" + std::string(handle),
          "MSTKEY=" + std::to_string(key), "KEY=" + std::string(column)};
}

TextArray::TextArray(const std::vector<std::string>& texts) {
  const bool made = value_.makeArray(MV_VT_VARIANT, static_cast<uint32_t>(texts.size()));
  EXPECT_TRUE(made);
  if (!made) return;
  auto* elements = static_cast<VARIANT*>(value_.get()->parray->pvData);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    elements[i].vt = MV_VT_BSTR;
    elements[i].bstrVal = mv::utf8ToBstr(texts[i]);
  }
}

ByteBlock::ByteBlock(const uint8_t* data, std::size_t size, std::size_t capacity) {
  const bool made = value_.makeArray(MV_VT_UI1, static_cast<uint32_t>(capacity));
  EXPECT_TRUE(made);
  if (made && size > 0) std::memcpy(value_.get()->parray->pvData, data, size);
}

namespace {

// The elements of an answer array of the given element type, or nullptr with a test failure.
const void* elementsOf(const VARIANT& v, VARTYPE type, uint32_t& count) {
  count = 0;
  EXPECT_EQ(v.vt, MV_VT_ARRAY | type);
  if (v.vt != (MV_VT_ARRAY | type) || v.parray == nullptr) return nullptr;
  EXPECT_EQ(mv::safeArrayElementType(v.parray), type);
  count = mv::safeArrayCount(v.parray);
  return v.parray->pvData;
}

}  // namespace

std::vector<std::string> texts(const VARIANT& v) {
  uint32_t n = 0;
  const auto* elements = static_cast<const VARIANT*>(elementsOf(v, MV_VT_VARIANT, n));
  std::vector<std::string> out;
  for (uint32_t i = 0; i < n; ++i) {
    EXPECT_EQ(elements[i].vt, MV_VT_BSTR) << "element " << i;
    out.push_back(elements[i].vt == MV_VT_BSTR ? mv::bstrToUtf8(elements[i].bstrVal) : "");
  }
  return out;
}

std::vector<int32_t> ints(const VARIANT& v) {
  uint32_t n = 0;
  const auto* elements = static_cast<const VARIANT*>(elementsOf(v, MV_VT_VARIANT, n));
  std::vector<int32_t> out;
  for (uint32_t i = 0; i < n; ++i) {
    EXPECT_EQ(elements[i].vt, MV_VT_I4) << "element " << i;
    out.push_back(elements[i].vt == MV_VT_I4 ? elements[i].lVal : 0);
  }
  return out;
}

std::vector<uint8_t> bytes(const VARIANT& v) {
  uint32_t n = 0;
  const auto* data = static_cast<const uint8_t*>(elementsOf(v, MV_VT_UI1, n));
  return data ? std::vector<uint8_t>(data, data + n) : std::vector<uint8_t>{};
}

std::vector<uint8_t> pattern(std::size_t size, uint32_t seed) {
  std::vector<uint8_t> out(size);
  uint32_t x = seed * 2654435761u + 1;
  for (uint8_t& b : out) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<uint8_t>(x);
  }
  return out;
}

::testing::AssertionResult sameBytes(const std::vector<uint8_t>& actual,
                                     const std::vector<uint8_t>& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  const auto diff = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  return ::testing::AssertionFailure()
         << "got " << actual.size() << " bytes, expected " << expected.size()
         << "; first difference at " << (diff.first - actual.begin());
}

Opened openTable(mv::IBookServer& server, std::string_view db, std::string_view table) {
  Opened o;
  mv::Bstr handle;
  o.status = server.OpenTable(In(db), In(table), 0, &o.rows, handle.out());
  o.handle = utf8(handle);
  return o;
}

Opened executeQuery(mv::IBookServer& server, std::string_view db, std::string_view sql) {
  Opened o;
  mv::Bstr handle;
  o.status = server.ExecuteQuery(In(db), In(""), In(sql), 0, &o.rows, handle.out());
  o.handle = utf8(handle);
  return o;
}

Opened openTableEx(mv::IBookServer& server, std::string_view db, std::string_view table,
                   std::string_view sql) {
  Opened o;
  mv::Bstr handle;
  o.status = server.OpenTableEx(In(db), In(table), In(sql), 0, &o.rows, handle.out());
  o.handle = utf8(handle);
  return o;
}

int32_t closeTable(mv::IBookServer& server, std::string_view db, std::string_view handle) {
  return server.CloseTable(In(db), In(handle));
}

int32_t getRow(mv::IBookServer& server, std::string_view db, std::string_view handle, int32_t row,
               std::vector<std::string>& elements) {
  mv::Variant value;
  const int32_t status = server.GetRecords(In(db), In(handle), row, value.get());
  elements = status == 0 ? texts(*value.get()) : std::vector<std::string>{};
  return status;
}

std::vector<Row> select(mv::IBookServer& server, std::string_view db, std::string_view sql) {
  const Opened q = executeQuery(server, db, sql);
  EXPECT_EQ(q.status, 0) << sql << ": " << lastError(server);
  std::vector<Row> rows;
  for (int32_t i = 0; i < q.rows; ++i) {
    std::vector<std::string> elements;
    EXPECT_EQ(getRow(server, db, q.handle, i, elements), 0);
    Row row;
    for (const std::string& e : elements) {
      const std::size_t tab1 = e.find('\t');
      const std::size_t tab2 = e.find('\t', tab1 + 1);
      EXPECT_TRUE(e.starts_with("KEY=") && tab2 != std::string::npos) << e;
      if (tab2 != std::string::npos) row[e.substr(4, tab1 - 4)] = e.substr(tab2 + 1);
    }
    rows.push_back(std::move(row));
  }
  if (q.status == 0) {
    EXPECT_EQ(closeTable(server, db, q.handle), 0);
  }
  return rows;
}

std::vector<std::string> column(const std::vector<Row>& rows, const std::string& name) {
  std::vector<std::string> out;
  for (const Row& row : rows) {
    const auto it = row.find(name);
    out.push_back(it == row.end() ? "<missing>" : it->second);
  }
  return out;
}

namespace {

std::vector<std::string> record(std::string_view handle, const std::vector<std::string>& fields) {
  std::vector<std::string> all{"TABLENAME=" + std::string(handle)};
  all.insert(all.end(), fields.begin(), fields.end());
  return all;
}

}  // namespace

int32_t addRecord(mv::IBookServer& server, std::string_view db, std::string_view handle,
                  const std::vector<std::string>& fields, int32_t* key) {
  TextArray r(record(handle, fields));
  return server.AddRecord(In(db), r.get(), static_cast<int32_t>(fields.size() + 1), key);
}

int32_t updateRecord(mv::IBookServer& server, std::string_view db, std::string_view handle,
                     const std::vector<std::string>& fields, int32_t key) {
  TextArray r(record(handle, fields));
  return server.UpdateRecord(In(db), r.get(), static_cast<int32_t>(fields.size() + 1), &key);
}

int32_t addRow(mv::IBookServer& server, std::string_view db, std::string_view table,
               const std::vector<std::string>& fields) {
  const Opened t = openTable(server, db, table);
  EXPECT_EQ(t.status, 0) << db << "." << table << ": " << lastError(server);
  int32_t key = -1;
  EXPECT_EQ(addRecord(server, db, t.handle, fields, &key), 0) << lastError(server);
  EXPECT_EQ(closeTable(server, db, t.handle), 0);
  return key;
}

int32_t upload(mv::IBookServer& server, std::string_view db, std::string_view handle, int32_t key,
               std::string_view column, const std::vector<uint8_t>& data, Ending ending) {
  TextArray target(blockRecord(db, handle, key, column));
  const std::size_t size = data.size();
  int32_t blockNo = 1;
  std::size_t offset = 0;
  do {
    const std::size_t n = std::min<std::size_t>(size - offset, kBlockSize);
    const bool last = offset + n == size;
    ByteBlock block(data.data() + offset, n, kBlockSize);
    const int32_t status =
        server.UpLoadData(target.get(), blockNo++, static_cast<int32_t>(n), block.get(),
                          last && ending == Ending::LastFlag ? 1 : 0);
    if (status != 0) return status;
    offset += n;
  } while (offset < size);
  if (ending != Ending::EmptyLastBlock) return 0;
  ByteBlock empty(nullptr, 0, kBlockSize);
  return server.UpLoadData(target.get(), blockNo, 0, empty.get(), 1);
}

int32_t download(mv::IBookServer& server, std::string_view db, std::string_view handle,
                 std::string_view column, int32_t row, std::vector<uint8_t>& data) {
  data.clear();
  // Far more blocks than any blob of these tests needs: a server that never ends fails here.
  for (int32_t blockNo = 1; blockNo <= 1000; ++blockNo) {
    mv::Variant block;
    int32_t isEnd = 0;
    int32_t count = 0;
    const int32_t status = server.DownLoadData(In(db), In(handle), In(column), row, blockNo,
                                               kBlockSize, block.get(), &isEnd, &count);
    if (status != 0) return status;
    if (block.get()->vt == MV_VT_EMPTY) return 0;
    const std::vector<uint8_t> piece = bytes(*block.get());
    EXPECT_EQ(static_cast<std::size_t>(count), piece.size()) << "block " << blockNo;
    data.insert(data.end(), piece.begin(), piece.end());
    if (isEnd) return 0;
  }
  ADD_FAILURE() << "the blob never ended";
  return -1;
}

std::vector<uint8_t> storedBlob(mv::IBookServer& server, std::string_view db,
                                std::string_view table, int32_t key, std::string_view column) {
  const std::string sql =
      "SELECT * FROM " + std::string(table) + " WHERE T_Index = " + std::to_string(key);
  const Opened q = executeQuery(server, db, sql);
  EXPECT_EQ(q.status, 0) << sql << ": " << lastError(server);
  EXPECT_EQ(q.rows, 1) << sql;
  std::vector<uint8_t> data;
  if (q.status != 0 || q.rows != 1) return data;
  EXPECT_EQ(download(server, db, q.handle, column, 0, data), 0) << lastError(server);
  EXPECT_EQ(closeTable(server, db, q.handle), 0);
  return data;
}

void ServerTest::SetUp() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  folder_ = ::testing::TempDir() + "mvcore-server-" + info->test_suite_name() + "." + info->name() +
            "-" + std::to_string(::getpid());
  std::filesystem::remove_all(folder_);
  std::string error;
  core = mv::server::ServerCore::open(folder_, {}, error);
  ASSERT_TRUE(core) << error;
  s = connect();
}

void ServerTest::TearDown() {
  s.reset();
  core.reset();
  std::error_code ec;
  std::filesystem::remove_all(folder_, ec);
}

Session ServerTest::connect() { return Session(new mv::server::BookServer(core)); }

void ServerTest::reopen() {
  s.reset();
  core.reset();
  std::string error;
  core = mv::server::ServerCore::open(folder_, {}, error);
  ASSERT_TRUE(core) << error;
  s = connect();
}

}  // namespace mvtest::server
