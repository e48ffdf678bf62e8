// The two ways the book tests run the exports: against a recording server with the system
// database held (exact calls, injected failures), and end to end against a real server (in this
// process and through a daemon, each on a fresh data folder) with the system database held. Both
// speak UTF-8 at the boundary and catch the library's message boxes.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "MVCore.h"
#include "frame/IBookServer.h"
#include "live_server.h"
#include "server_fixture.h"

namespace mvtest {

// A cover with the given texts; the rest empty, the colour 0.
CoverInfo makeCover(const std::string& siteName, const std::string& startDate = "",
                    const std::string& endDate = "");

class BooksRecorded : public ServerFixture {
 protected:
  void SetUp() override;
  void TearDown() override;

  // One row of BookShelfTBL / of UserInfoTBL / of BookCommonTBL with a few columns.
  static std::vector<std::string> shelfRow(int id, int attribute, const std::string& name);
  static std::vector<std::string> userRow(int id, const std::string& name, int attribute);
  static std::vector<std::string> coverRow(int id, const std::string& bookName);

  RecordingServer* server = nullptr;
  std::vector<std::string> shown;
};

class BooksEndToEnd : public LiveServerTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A shelf made by the administrator.
  int32_t shelf(const char* name);
  // Runs `make`, which makes or copies books, in a second of its own: a book's database is named
  // after the second it is made in.
  int inOwnSecond(const std::function<int()>& make);
  // A book made on a shelf; `cover` comes back as the library changed it.
  int32_t book(const char* shelfName, CoverInfo& cover);
  // A book's central cover and link, without its own database: enough for lists and searches.
  int32_t bookRows(int32_t shelfId, const CoverInfo& cover);
  // Which of a book's four pieces exist: "database, book row, central row, shelf N".
  std::string pieces(int32_t bookId, const char* dbName);
  // The shelves' names / the site names of a shelf's books, in the order the library lists them.
  std::vector<std::string> shelfNames();
  std::vector<std::string> booksOn(int32_t shelfId);

  // A second client of the same server.
  mv::IBookServer* otherClient();

  std::vector<std::string> shown;
};

}  // namespace mvtest
