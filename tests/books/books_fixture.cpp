#include "books_fixture.h"

#include <chrono>
#include <ctime>
#include <thread>

#include "books/books.h"
#include "books/covers.h"
#include "frame/connection.h"
#include "platform/codepage.h"
#include "rpc/remote_book_server.h"
#include "server/core/book_server.h"

namespace mvtest {

namespace {
void catchText(const char* text, const char*, void* context) {
  static_cast<std::vector<std::string>*>(context)->push_back(text);
}
std::time_t lastBookSecond = 0;
}  // namespace

CoverInfo makeCover(const std::string& siteName, const std::string& startDate,
                    const std::string& endDate) {
  CoverInfo cover{};
  mv::copyToField(cover.SiteName, sizeof cover.SiteName, siteName);
  mv::copyToField(cover.StartDate, sizeof cover.StartDate, startDate);
  mv::copyToField(cover.EndDate, sizeof cover.EndDate, endDate);
  return cover;
}

void BooksRecorded::SetUp() {
  ServerFixture::SetUp();
  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  server = &connect();
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  server->calls.clear();
  MVSetMessageHandler(catchText, &shown);
}

void BooksRecorded::TearDown() {
  MVSetMessageHandler(nullptr, nullptr);
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
  ServerFixture::TearDown();
}

std::vector<std::string> BooksRecorded::shelfRow(int id, int attribute, const std::string& name) {
  return {"KEY=T_Index\t1\t" + std::to_string(id), "KEY=Attribute\t1\t" + std::to_string(attribute),
          "KEY=BookShelfName\t2\t" + name};
}

std::vector<std::string> BooksRecorded::userRow(int id, const std::string& name, int attribute) {
  return {"KEY=T_Index\t1\t" + std::to_string(id), "KEY=UserName\t2\t" + name,
          "KEY=Password\t2\tpw", "KEY=UserAttribute\t1\t" + std::to_string(attribute)};
}

std::vector<std::string> BooksRecorded::coverRow(int id, const std::string& bookName) {
  return {"KEY=T_Index\t1\t" + std::to_string(id), "KEY=BookName\t2\t" + bookName,
          "KEY=SiteName\t2\tsite"};
}

void BooksEndToEnd::SetUp() {
  LiveServerTest::SetUp();
  if (HasFatalFailure()) return;
  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  MVSetMessageHandler(catchText, &shown);
}

void BooksEndToEnd::TearDown() {
  MVSetMessageHandler(nullptr, nullptr);
  LiveServerTest::TearDown();
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
}

mv::IBookServer* BooksEndToEnd::otherClient() {
  mv::IBookServer* other = nullptr;
  const int32_t status = remote() ? mv::rpc::connectRemote(host(), &other)
                                  : mv::server::connectEmbedded(dataFolder(), &other);
  EXPECT_EQ(status, 0);
  return other;
}

int32_t BooksEndToEnd::shelf(const char* name) {
  int32_t id = -1;
  EXPECT_EQ(MVCreateBookshelf(name, "admin", &id), 0) << name;
  return id;
}

int BooksEndToEnd::inOwnSecond(const std::function<int()>& make) {
  while (std::time(nullptr) <= lastBookSecond) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const int result = make();
  lastBookSecond = std::time(nullptr);
  return result;
}

int32_t BooksEndToEnd::book(const char* shelfName, CoverInfo& cover) {
  int32_t id = -1;
  EXPECT_EQ(inOwnSecond([&] { return MVCreateBook(shelfName, 0, &cover, &id); }), 0)
      << mv::connection().lastError;
  return id;
}

int32_t BooksEndToEnd::bookRows(int32_t shelfId, const CoverInfo& cover) {
  int32_t id = -1;
  EXPECT_EQ(mv::addCentralRow(cover, &id), 1);
  EXPECT_EQ(mv::addLink(shelfId, id), 1);
  return id;
}

std::string BooksEndToEnd::pieces(int32_t bookId, const char* dbName) {
  std::string have;
  const auto add = [&](const std::string& piece) { have += (have.empty() ? "" : ", ") + piece; };
  int32_t exists = -1;
  EXPECT_EQ(MVIsExistDB(dbName, &exists), 0);
  CoverInfo own{};
  if (exists == 1) add("database");
  if (exists == 1 && MVGetBookDBCoverInfo(dbName, &own) == 0 && own.BookName[0] != '\0') {
    add("book row");
  }
  CoverInfo central{};
  if (MVGetCoverInfo(bookId, &central) == 0) add("central row");
  int32_t shelfId = -1;
  EXPECT_EQ(MVGetBookExistBSID(bookId, &shelfId), 0);
  if (shelfId != 0) add("shelf " + std::to_string(shelfId));
  return have;
}

std::vector<std::string> BooksEndToEnd::shelfNames() {
  ShelfEntry* list = nullptr;
  int32_t count = 0;
  EXPECT_EQ(MVGetAllBookshelf(&list, &count), 0);
  std::vector<std::string> names;
  for (int32_t i = 0; i < count; ++i) names.emplace_back(list[i].BookShelfName);
  MVGlobalFree(MVGlobalHandle(list));
  return names;
}

std::vector<std::string> BooksEndToEnd::booksOn(int32_t shelfId) {
  CoverInfo* list = nullptr;
  int32_t count = -1;
  EXPECT_EQ(MVGetAllCoverInfoInBS(shelfId, &list, &count), 0);
  std::vector<std::string> names;
  for (int32_t i = 0; i < count; ++i) names.emplace_back(list[i].SiteName);
  if (list != nullptr) MVGlobalFree(MVGlobalHandle(list));
  return names;
}

}  // namespace mvtest
