#include "tags_fixture.h"

#include <cstring>

#include "frame/connection.h"
#include "frame/exchange.h"

namespace mvtest {

void ContentsRecorded::SetUp() {
  ServerFixture::SetUp();
  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  server = &connect();
}

void ContentsRecorded::TearDown() {
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
  ServerFixture::TearDown();
}

void ContentsEndToEnd::SetUp() {
  LiveServerTest::SetUp();
  if (HasFatalFailure()) return;
  ASSERT_EQ(MVSetCodePage("UTF-8"), 0);
  const mv::Bstr none = mv::toWide("");
  ASSERT_EQ(mv::connection().currentServer->CreateBookDatabase(none.get(), none.get(),
                                                               mv::toWide(kBook).get()),
            0);
}

void ContentsEndToEnd::TearDown() {
  LiveServerTest::TearDown();
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
}

std::string element(const std::string& name, int type, const std::string& value) {
  return "KEY=" + name + "\t" + std::to_string(type) + "\t" + value;
}

std::vector<std::string> dispRow(int index, const std::string& name, int tagId, int order,
                                 int upTagId) {
  return {element("T_Index", 1, std::to_string(index)),
          element("TagName", 2, name),
          element("TagID", 1, std::to_string(tagId)),
          element("Attribute", 1, "0"),
          element("Relation", 1, "0"),
          element("T_Order", 1, std::to_string(order)),
          element("UpTagID", 1, std::to_string(upTagId))};
}

namespace {
template <typename T>
std::vector<T> take(MVHGLOBAL block, int32_t count) {
  std::vector<T> records;
  if (block == nullptr) return records;
  EXPECT_EQ(MVGlobalSize(block), sizeof(T) * static_cast<std::size_t>(count));
  const auto* p = static_cast<const T*>(MVGlobalLock(block));
  records.assign(p, p + count);
  EXPECT_EQ(MVGlobalUnlock(block), 0) << "handed out locked";
  EXPECT_EQ(MVGlobalFree(block), nullptr);
  return records;
}
}  // namespace

std::vector<TagDispRecord> takeList(MVHGLOBAL block, int32_t count) {
  return take<TagDispRecord>(block, count);
}
std::vector<TagInfoRecord> takeInfoList(MVHGLOBAL block, int32_t count) {
  return take<TagInfoRecord>(block, count);
}

}  // namespace mvtest
