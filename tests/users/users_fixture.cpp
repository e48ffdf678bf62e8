#include "users_fixture.h"

#include "MVCore.h"

namespace mvtest {

namespace {
void catchMessage(const char* text, const char* caption, void* context) {
  auto* fixture = static_cast<std::pair<std::vector<Shown>*, RecordingServer*>*>(context);
  fixture->first->push_back({text, caption, fixture->second->calls.size()});
}
std::pair<std::vector<Shown>*, RecordingServer*> handlerContext;
}  // namespace

std::vector<std::string> listed(int (*list)(int32_t, UserRec**, int32_t*), int32_t shelf) {
  UserRec* users = nullptr;
  int32_t count = -1;
  std::vector<std::string> names;
  EXPECT_EQ(list(shelf, &users, &count), 0);
  for (int32_t i = 0; i < count; ++i) names.emplace_back(users[i].userName);
  MVGlobalFree(MVGlobalHandle(users));
  return names;
}

void UsersTest::SetUp() {
  ServerFixture::SetUp();
  ASSERT_EQ(MVSetCodePage("CP932"), 0);
  server = &connect();
  ASSERT_EQ(MVOpenDB("MarvekSystemCommonDB"), 0);
  server->calls.clear();
  handlerContext = {&shown, server};
  MVSetMessageHandler(catchMessage, &handlerContext);
}

void UsersTest::TearDown() {
  MVSetMessageHandler(nullptr, nullptr);
  ServerFixture::TearDown();
}

std::vector<std::string> UsersTest::userRow(int id, const std::string& name,
                                            const std::string& password, int attribute) {
  return {"KEY=T_Index\t1\t" + std::to_string(id), "KEY=UserName\t2\t" + name,
          "KEY=Password\t2\t" + password, "KEY=UserAttribute\t1\t" + std::to_string(attribute)};
}

std::vector<std::string> UsersTest::powerRow(int shelf, int user, const std::string& reserve) {
  return {"KEY=T_Index\t1\t1", "KEY=BookShelfID\t1\t" + std::to_string(shelf),
          "KEY=UserID\t1\t" + std::to_string(user), "KEY=Reserve\t2\t" + reserve};
}

void UsersTest::queueAdmin(int id) {
  if (id == 0) {
    server->queueResult({});
  } else {
    server->queueResult({userRow(id, "admin", "admin", 0)});
  }
}

std::string UsersTest::call(std::size_t i) const {
  return i < server->calls.size() ? server->calls[i].text() : "(no call " + std::to_string(i) + ")";
}

}  // namespace mvtest
